// The index of error reports names each report that the sources make, with its place, and no other.
#include "support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <compare>
#include <filesystem>
#include <map>
#include <ostream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;

typedef std::vector<std::string> Texts;

struct Report {
    std::string text; // as in the sources
    std::string place;
    bool system_words = false; // follow the text

    auto operator<=>(const Report &) const = default;
};

[[maybe_unused]] std::ostream &operator<<(std::ostream &out, const Report &report)
{
    return out << report.text << (report.system_words ? " *" : "") << " (" << report.place << ")\n";
}

typedef std::set<Report> Reports;

// ---- What the sources have ----------------------------------------------------------------------

std::string replaced(const std::string &text, const std::string &from, const std::string &to)
{
    return std::regex_replace(text, std::regex(from), to);
}

bool is_literal(const std::string &text)
{
    return text.starts_with('"');
}

// What stands between a literal's quotation marks; of several side by side, all.
std::string content_of(const std::string &literal)
{
    return replaced(literal.substr(1, literal.rfind('"') - 1), "\"\\s*\"", "");
}

// The arguments of a call, of which `at` is behind the parenthesis; it is moved behind the other.
Texts read_arguments(const std::string &text, std::size_t *at)
{
    Texts arguments(1);
    bool quoted = false;
    for (int depth = 1; *at < text.size(); ++*at) {
        const char c = text[*at];
        if (quoted && c == '\\') {
            arguments.back() += c;
            ++*at;
        } else if (c == '"') {
            quoted = !quoted;
        } else if (!quoted && c == '(') {
            depth++;
        } else if (!quoted && c == ')' && --depth == 0) {
            ++*at;
            break;
        } else if (!quoted && c == ',' && depth == 1) {
            arguments.emplace_back();
            continue;
        }
        arguments.back() += text[*at];
    }
    for (std::string &argument : arguments)
        argument = replaced(argument, "^\\s+|\\s+$", "");
    return arguments;
}

// A macro that reports.
struct Macro {
    Texts parameters;
    std::string body;
};

// One source file, taken apart.
class Source
{
public:
    explicit Source(const fs::path &file) : text_(support::read_file(file))
    {
        text_ = replaced(text_, "//[^\n]*", "");
        text_ = replaced(text_, "\\\\\n", " ");
        take_macros();
        const std::string rest = take_calls(text_);
        collect_literals(rest);
        collect_assertions(rest);
    }

    // All reports of the file, each with every place that it may name.
    Reports reports() const
    {
        Reports all = others_;
        for (const Call &call : calls_) {
            for (const std::string &place : resolve(call.place, &Source::is_function)) {
                for (const std::string &text : resolve(call.text, &Source::is_message))
                    all.insert({text, place, call.system_words});
            }
        }
        return all;
    }

private:
    struct Call {
        std::string place; // expressions
        std::string text;
        bool system_words;
    };

    void take_macros()
    {
        const std::regex define("#define (\\w+)\\(([^)]*)\\)([^\n]*CMN_REPORT[^\n]*)");
        for (auto it = std::sregex_iterator(text_.begin(), text_.end(), define);
             it != std::sregex_iterator(); ++it) {
            std::size_t at = 0;
            macros_[(*it)[1]] = {read_arguments((*it)[2].str() + ')', &at), (*it)[3]};
        }
        text_ = replaced(text_, "#[^\n]*", "");
    }

    // Takes the reports out of a text, and gives what is left of it.
    std::string take_calls(const std::string &text)
    {
        std::string names = "CMN_REPORT|CMN_REPORT_ERRNO";
        for (const auto &[name, macro] : macros_)
            names += '|' + name;
        const std::regex call("\\b(" + names + ")\\(");
        std::string rest;
        std::string left = text;
        std::smatch found;
        while (std::regex_search(left, found, call)) {
            rest += found.prefix();
            auto at = static_cast<std::size_t>(found.position() + found.length());
            take_call(found[1], read_arguments(left, &at));
            left = left.substr(at);
        }
        return rest + left;
    }

    void take_call(const std::string &name, const Texts &arguments)
    {
        const auto macro = macros_.find(name);
        if (macro == macros_.end()) {
            ASSERT_GE(arguments.size(), 2u) << name;
            const bool passed_on = arguments[1] == "\"%s\"" && arguments.size() == 3;
            calls_.push_back(
                {arguments[0], arguments[passed_on ? 2 : 1], name == "CMN_REPORT_ERRNO"});
            return;
        }
        const Texts &parameters = macro->second.parameters;
        ASSERT_EQ(arguments.size(), parameters.size()) << name;
        std::string body = macro->second.body;
        for (std::size_t i = 0; i < parameters.size(); i++)
            body = replaced(body, "\\b" + parameters[i] + "\\b(?!\")", arguments[i]);
        take_calls(body);
    }

    void collect_literals(const std::string &text)
    {
        const std::regex literal("\"((?:[^\"\\\\]|\\\\.)*)\"");
        for (auto it = std::sregex_iterator(text.begin(), text.end(), literal);
             it != std::sregex_iterator(); ++it)
            literals_.insert((*it)[1]);
    }

    void collect_assertions(const std::string &text)
    {
        const std::regex assertion("\\bassert\\(([^;]*)\\);");
        for (auto it = std::sregex_iterator(text.begin(), text.end(), assertion);
             it != std::sregex_iterator(); ++it)
            others_.insert({(*it)[1], "assertion"});
        const std::regex line("\\bcmn_tz_say\\(\"([^\"]*)\\\\n\"\\)");
        for (auto it = std::sregex_iterator(text.begin(), text.end(), line);
             it != std::sregex_iterator(); ++it)
            others_.insert({(*it)[1], "standard output"});
    }

    // The literal that an expression is, or, if a caller gives it, those of the file that may do.
    Texts resolve(const std::string &expression,
                  bool (Source::*may_do)(const std::string &) const) const
    {
        if (is_literal(expression))
            return {content_of(expression)};
        Texts found;
        std::ranges::copy_if(literals_, std::back_inserter(found),
                             [&](const std::string &literal) { return (this->*may_do)(literal); });
        EXPECT_FALSE(found.empty()) << expression;
        return found;
    }

    bool is_function(const std::string &literal) const
    {
        return std::regex_match(literal, std::regex("\\w+")) &&
               std::regex_search(text_, std::regex("\\n[\\w ]+\\b" + literal + "\\("));
    }

    bool is_message(const std::string &literal) const
    {
        return literal.find(' ') != std::string::npos;
    }

    std::string text_; // without comments
    std::map<std::string, Macro> macros_;
    std::vector<Call> calls_;
    std::set<std::string> literals_; // outside of reports
    Reports others_;
};

std::vector<fs::path> source_files(const std::string &extension)
{
    std::vector<fs::path> files;
    for (const auto &entry : fs::recursive_directory_iterator(QM5OSD_SOURCES "/src")) {
        if (entry.path().extension() == extension)
            files.push_back(entry.path());
    }
    return files;
}

// Those of a script, each with the function that makes it.
Reports reports_of_the_script(const std::string &name)
{
    const std::regex function("(\\w+)\\(\\) \\{");
    const std::regex report(R"re(\b(?:say|complain) (?:"([^"]*)"|'([^']*)'))re");
    const std::string passed_on = "$@";
    Reports all;
    std::string place = name;
    std::istringstream in(support::read_file(QM5OSD_SOURCES "/packaging/" + name));
    for (std::string line; std::getline(in, line);) {
        std::smatch found;
        if (std::regex_match(line, found, function))
            place = found[1];
        else if (line == "}")
            place = name;
        for (; std::regex_search(line, found, report); line = found.suffix()) {
            const std::string text = found[1].matched ? found[1] : found[2];
            if (text != passed_on)
                all.insert({text, place});
        }
        EXPECT_FALSE(std::regex_search(line, std::regex("\\b(say|complain) "))) << line;
    }
    return all;
}

Reports reports_of_the_sources()
{
    Reports all = reports_of_the_script("qm5osd-service");
    all.merge(reports_of_the_script("qm5osd.init"));
    for (const fs::path &file : source_files(".cpp"))
        all.merge(Source(file).reports());
    return all;
}

// ---- What the index has -------------------------------------------------------------------------

Texts cells_of(const std::string &row)
{
    Texts cells;
    std::size_t at = 2; // behind the first "| "
    for (std::size_t end = row.find(" |", at); end != std::string::npos; end = row.find(" |", at)) {
        cells.push_back(row.substr(at, end - at));
        at = end + 3;
    }
    return cells;
}

Texts places_of(const std::string &cell)
{
    Texts places;
    std::istringstream in(replaced(cell, "`", ""));
    for (std::string place; std::getline(in >> std::ws, place, ',');)
        places.push_back(place);
    return places;
}

Reports reports_of_the_index()
{
    Reports all;
    std::istringstream in(support::read_file(QM5OSD_SOURCES "/docs/errors.md"));
    for (std::string row; std::getline(in, row);) {
        if (!row.starts_with("| `"))
            continue;
        const Texts cells = cells_of(row);
        EXPECT_EQ(cells.size(), 5u) << row;
        if (cells.size() != 5)
            continue;
        EXPECT_EQ(std::ranges::count(cells, ""), 0) << row;
        const std::string text = cells[0].substr(1, cells[0].rfind('`') - 1);
        for (const std::string &place : places_of(cells[1]))
            EXPECT_TRUE(all.insert({text, place, cells[0].ends_with(" *")}).second)
                << text << " (" << place << ") stands there twice";
    }
    return all;
}

// ---- One against the other ----------------------------------------------------------------------

Reports without(const Reports &some, const Reports &others)
{
    Reports left;
    std::ranges::set_difference(some, others, std::inserter(left, left.end()));
    return left;
}

TEST(Errors, index_has_each_report_of_the_sources_and_no_other)
{
    const Reports sources = reports_of_the_sources();
    const Reports index = reports_of_the_index();
    EXPECT_GT(sources.size(), 150u);
    EXPECT_EQ(without(sources, index), Reports{}) << "not in the index";
    EXPECT_EQ(without(index, sources), Reports{}) << "not in the sources";
}

// Those that take ways of their own, and would be missed if they weren't understood.
TEST(Errors, reports_by_macros_and_for_callers_are_found)
{
    const Reports sources = reports_of_the_sources();
    for (const Report &report : {
             Report{"update osd failed", "main"},
             Report{"Post%dOsd%d", "osd_do_callback_open_one"},
             Report{"post %d osd %d clear error", "osd_close_opened_post"},
             Report{"qm5_cl_post_clear_osd() failed. errno=0x%08X", "osd_clear"},
             Report{"qm5_cl_sys_open_device() failed. errno=0x%08X", "osd_server_init_process"},
             Report{"cannot open file %s", "param_seclist_new", true},
             Report{"no server came up", "start"},
             Report{"reload: it is not known; try restart", "qm5osd-service"},
             Report{"$service: it isn't there", "qm5osd.init"},
             Report{"video height is not enough to display OSD.(height=%d W/H=%d/%d)",
                    "osd_do_callback_open"},
         })
        EXPECT_TRUE(sources.contains(report)) << report;
}

// No report takes another way to the standard error stream.
TEST(Errors, are_reported_by_the_one_macro)
{
    const std::regex other("\\b(stderr|perror|cmn_print_err|cmn_print_errno|cmn_print_v)\\b");
    for (const char *extension : {".cpp", ".h"}) {
        for (const fs::path &file : source_files(extension)) {
            if (file.filename() == "cmn_print.cpp" || file.filename() == "cmn.h")
                continue;
            EXPECT_FALSE(std::regex_search(support::read_file(file), other)) << file;
        }
    }
}

} // namespace
