// The manuals: their form, and that they tell of each function, command, option and parameter that
// there is, and of no other.
#include "cli/catalogue.h"
#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using support::Ended;
using support::run;
using support::Words;

typedef std::set<std::string> Set;

const std::string MANUALS = std::string(QM5OSD_BUILD) + "/docs/man/";

std::vector<std::string> split(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

Words words_of(const std::string &line)
{
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

// The manual as it is read, on lines that are long enough for every row of its tables.
std::string rendered(const std::string &name)
{
    const Ended ended = run({MANDOC_PROGRAM, "-T", "ascii", "-O", "width=200", MANUALS + name});
    EXPECT_EQ(ended.status, 0) << ended.err;
    return std::regex_replace(ended.out, std::regex(".\b"), ""); // bold and underlined
}

// ---- All manuals --------------------------------------------------------------------------------

// Without what depends on the manuals that this machine has and has listed.
std::string faults_of_form(const std::string &path)
{
    const std::regex elsewhere("mandoc: outdated mandoc.db lacks .*|"
                               ".*: referenced manual not found: Xr "
                               "(qm5osd 1|qm5_app_comm.conf 5|qm5sim 1|timeout 1)( .*)?");
    const Ended ended = run({MANDOC_PROGRAM, "-T", "lint", path});
    std::string faults;
    for (const std::string &line : split(ended.out + ended.err)) {
        if (!std::regex_match(line, elsewhere))
            faults += line + '\n';
    }
    return faults;
}

TEST(Manuals, faults_of_form_are_found)
{
    const std::string path = "/tmp/long.1";
    support::write_file(path, ".Dd November 21, 2026\n.Dt LONG 1\n.Os\n.Sh NAME\n.Nm long\n"
                              ".Nd one\n.Sh DESCRIPTION\n.Xr no_such_manual 1\n" +
                                  std::string(40, 'x') + ' ' + std::string(40, 'x') + '\n');
    const std::string faults = faults_of_form(path);
    EXPECT_NE(faults.find("longer than 80 bytes"), std::string::npos) << faults;
    EXPECT_NE(faults.find("not found: Xr no_such_manual 1"), std::string::npos) << faults;
    fs::remove(path);
}

TEST(Manuals, have_no_fault_of_form)
{
    Set names;
    for (const auto &entry : fs::directory_iterator(MANUALS)) {
        names.insert(entry.path().filename());
        EXPECT_EQ(faults_of_form(entry.path()), "");
    }
    EXPECT_EQ(names, (Set{"qm5osd.1", "qm5_app_comm.conf.5", "qm5sim.1"}));
}

// ---- Parameters ---------------------------------------------------------------------------------

bool program_takes(const std::string &key, const std::string &value)
{
    param_parampair *pair = param_parampair_new(key.c_str(), value.c_str());
    const bool good = osd_check_param(pair, nullptr) == 0;
    param_parampair_free(pair);
    return good;
}

// Does the program hold a key to the values that a row tells, as "0 to 3" or "up to 20 bytes"?
testing::AssertionResult takes_just(const std::string &key, const std::string &values)
{
    std::smatch number;
    bool just = values == "a path" && program_takes(key, "x") && !program_takes(key, "");
    if (std::regex_match(values, number, std::regex("0 (?:to|or) (\\d+)")))
        just = program_takes(key, "0") && program_takes(key, number[1]) &&
               !program_takes(key, std::to_string(std::stoul(number[1]) + 1));
    else if (std::regex_match(values, number, std::regex("up to (\\d+) bytes")))
        just = program_takes(key, std::string(std::stoul(number[1]), 'x')) &&
               !program_takes(key, std::string(std::stoul(number[1]) + 1, 'x'));
    return just ? testing::AssertionSuccess()
                : testing::AssertionFailure() << key << ": " << values;
}

TEST(Manuals, table_of_keys_is_what_the_program_takes)
{
    const std::regex row(" +((?:Osd|Post\\d)\\w+) {2,}(\\w.*\\S) {2,}(\\w+)");
    std::size_t rows = 0;
    for (const std::string &line : split(rendered("qm5_app_comm.conf.5"))) {
        std::smatch part;
        if (!std::regex_match(line, part, row))
            continue;
        ASSERT_LT(rows, OSD_PARAMS);
        const std::string value = osd_default_values[rows];
        EXPECT_EQ(part[1], osd_option_table[rows].name);
        EXPECT_TRUE(takes_just(part[1], part[2]));
        EXPECT_EQ(part[3], !value.empty() ? value : part[2] == "a path" ? "none" : "empty");
        rows++;
    }
    EXPECT_EQ(rows, OSD_PARAMS);
}

TEST(Manuals, numbers_are_told_as_the_program_reads_them)
{
    const std::string words =
        std::regex_replace(rendered("qm5_app_comm.conf.5"), std::regex("\\s+"), " ");
    for (const char *told : {"may have white space and a sign before them", "-4294967295 passes"})
        EXPECT_NE(words.find(told), std::string::npos) << told;
    for (const char *number : {" 1", "\t1", "+1", " +1", "-4294967295", " -4294967295"})
        EXPECT_TRUE(program_takes("Post0DateOn", number)) << number;
    for (const char *number : {"1 ", "-1", "- 1", "0x1", " "})
        EXPECT_FALSE(program_takes("Post0DateOn", number)) << number;
}

// Puts each digit in the place of X and of Y, or tells the pattern if it has neither.
Set keys_of(const std::string &pattern)
{
    const bool rectangle = std::regex_search(pattern, std::regex("(Osd|Rectangle)Y"));
    Set keys;
    for (char post = '0'; post <= '3'; post++) {
        for (char number = '0'; number <= '3'; number++) {
            std::string key =
                std::regex_replace(pattern, std::regex("^PostX"), std::string("Post") + post);
            if (rectangle)
                key.replace(key.find('Y'), 1, 1, number);
            keys.insert(key);
        }
    }
    return keys;
}

// A row of the tables in README.md, whose first cell may be several patterns. The second one's
// "...Down" stands for the first with another last word.
struct Row {
    std::vector<std::string> patterns;
    std::vector<std::string> defaults; // one for all, one for each pattern, or one for each Y
    std::string values;
};

std::vector<std::string> parts_of(const std::string &text, const char *pattern)
{
    const std::regex regex(pattern);
    std::vector<std::string> found;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), regex);
         it != std::sregex_iterator(); ++it)
        found.push_back(it->str(it->size() - 1));
    return found;
}

std::vector<Row> rows_of_the_readme()
{
    const std::regex form("\\| (`(?:Osd|PostX)[^|]*) \\| ([^|]*) \\| ([^|]*) \\| [^|]* \\|");
    std::vector<Row> rows;
    std::smatch cell;
    for (const std::string &line : split(support::read_file(QM5OSD_SOURCES "/README.md"))) {
        if (!std::regex_match(line, cell, form))
            continue;
        Row row = {parts_of(cell[1], "`([^`]*)`"),
                   parts_of(std::regex_replace(cell[2].str(), std::regex(" for Y .*"), ""), "\\w+"),
                   cell[3]};
        const std::string begin =
            std::regex_replace(row.patterns[0], std::regex("[A-Z][a-z]*$"), "");
        for (std::string &pattern : row.patterns)
            pattern = std::regex_replace(pattern, std::regex("^\\.\\.\\."), begin);
        rows.push_back(row);
    }
    return rows;
}

TEST(Manuals, tables_of_the_readme_are_what_the_program_takes)
{
    std::map<std::string, std::string> told; // defaults by their keys
    for (const Row &row : rows_of_the_readme()) {
        for (std::size_t i = 0; i < row.patterns.size(); i++) {
            for (const std::string &key : keys_of(row.patterns[i])) {
                const std::size_t y =
                    row.defaults.size() == 4 ? static_cast<std::size_t>(key.at(8) - '0') : i;
                told[key] = row.defaults.at(row.defaults.size() == 1 ? 0 : y);
                EXPECT_TRUE(takes_just(key, row.values));
            }
        }
    }
    EXPECT_EQ(told.size(), OSD_PARAMS);
    for (std::size_t row = 0; row < OSD_PARAMS; row++) {
        const std::string value = osd_default_values[row];
        const std::string key = osd_option_table[row].name;
        EXPECT_EQ(told[key], !value.empty()         ? value
                             : key == "OsdFontFile" ? "none"
                                                    : "empty")
            << key;
    }
}

// The keys of all patterns of the form BEFORE PATTERN=... in a manual.
Set keys_in(const std::string &manual, const std::string &before)
{
    const std::regex item(" +" + before + "(\\w+)=(?:N|TEXT|PATH)");
    Set keys;
    for (const std::string &line : split(rendered(manual))) {
        std::smatch pattern;
        if (std::regex_match(line, pattern, item))
            keys.merge(keys_of(pattern[1]));
    }
    return keys;
}

TEST(Manuals, patterns_of_options_and_keys_are_all_that_there_are)
{
    Set options;
    Set keys;
    for (std::size_t row = 0; row < OSD_PARAMS; row++) {
        keys.insert(osd_option_table[row].name);
        if (osd_option_table[row].val != OSD_NO_POST)
            options.insert(osd_option_table[row].name);
    }
    EXPECT_EQ(options.size(), 152u);
    EXPECT_EQ(keys_in("qm5osd.1", "--"), options);
    EXPECT_EQ(keys_in("qm5_app_comm.conf.5", ""), keys);
}

// ---- Functions and commands ---------------------------------------------------------------------

// What `.It Cm` items of a manual name, with the options in each: {"post open", {"--speed"}}.
std::map<std::string, Set> items_of(const std::string &manual)
{
    std::map<std::string, Set> items;
    const std::string text =
        std::regex_replace(support::read_file(MANUALS + manual), std::regex("\\\\\n"), " ");
    for (const std::string &line : split(text)) {
        if (!line.starts_with(".It Cm "))
            continue;
        std::string command;
        Set options;
        std::string macro;
        for (const std::string &word : words_of(line.substr(4))) {
            if (std::regex_match(word, std::regex("[A-Z][a-z]")))
                macro = word;
            else if (macro == "Cm")
                command += (command.empty() ? "" : " ") + word;
            else if (macro == "Fl" && word.starts_with('-'))
                options.insert('-' + word);
        }
        items.emplace(command, options);
    }
    return items;
}

TEST(Manuals, functions_are_those_of_the_usage)
{
    Set told;
    for (const auto &[command, options] : items_of("qm5osd.1"))
        told.insert(command);
    Set known;
    const std::string usage = run({QM5OSD_PROGRAM, "--help"}).out;
    for (const std::string &line : split(usage.substr(usage.find("FUNCTION\n      "))))
        known.insert(words_of(line).front());
    known.erase("FUNCTION");
    EXPECT_EQ(told, known);
}

// The first words of the lines of a part of a help text, as "Subcommands:".
std::vector<std::string> names_in(const std::string &help, const std::string &part)
{
    std::vector<std::string> names;
    bool within = false;
    for (const std::string &line : split(help)) {
        if (line.starts_with("  ") && !line.starts_with("   ") && within)
            names.push_back(words_of(line).front());
        else if (!line.starts_with(' '))
            within = line == part;
    }
    return names;
}

// Adds what the tool itself tells of a command and those below it. What has commands below it and
// does something by itself, or has none, is an item of its own.
void add_commands(std::map<std::string, Set> &items, const Words &words, const std::string &command)
{
    Words all = {QM5SIM_PROGRAM};
    all.insert(all.end(), words.begin(), words.end());
    all.push_back("--help");
    const std::string help = run(all).out;
    const bool numbered = !names_in(help, "Positionals:").empty();
    const std::vector<std::string> below = names_in(help, "Subcommands:");
    const bool acts = below.empty() || help.find(" [SUBCOMMAND]") != std::string::npos;
    if (acts) {
        Set &options = items[command];
        for (const std::string &name : names_in(help, "Options:")) {
            if (name.starts_with("--"))
                options.insert(name);
        }
    }
    for (const std::string &name : below) {
        Words deeper = words;
        if (numbered)
            deeper.push_back("1");
        deeper.push_back(name);
        add_commands(items, deeper, command.empty() ? name : command + ' ' + name);
    }
}

TEST(Manuals, commands_and_options_of_the_simulator_are_those_of_its_help)
{
    std::map<std::string, Set> known;
    add_commands(known, {}, "");
    EXPECT_GT(known.size(), 10u);
    EXPECT_EQ(items_of("qm5sim.1"), known);
}

} // namespace
