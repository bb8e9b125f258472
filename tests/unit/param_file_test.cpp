// The text form of sections: reader and writer.
#include "param/param.h"
#include "support/osd_test.h"
#include "support/trace.h"
#include "support/wraps.h"
#include "unit/param_records.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

using namespace std::string_literals;
using records::Pairs;
using records::Seclist;
using records::Section;
using records::Sections;
using support::errors_of;
using support::report;

const std::string path = "/tmp/parameters.txt";
const std::string no_header = report("", "no section header", "param_seclist_new");

// What the reader made of a file; no sections if it was refused.
struct Reading {
    std::optional<Sections> sections;
    std::string errors;
};

Reading read_path(const char *where)
{
    Reading reading;
    reading.errors = errors_of([&] {
        const Seclist seclist(param_seclist_new(where));
        if (seclist)
            reading.sections = records::sections_of(*seclist);
    });
    return reading;
}

Reading read_text(std::string_view text)
{
    support::write_file(path, text);
    Reading reading = read_path(path.c_str());
    support::remove_file(path);
    return reading;
}

void expect_sections(std::string_view text, const Sections &sections)
{
    const Reading reading = read_text(text);
    EXPECT_EQ(reading.sections, sections) << text.substr(0, 80);
    EXPECT_EQ(reading.errors, "");
}

// All lines behind the header of one section.
void expect_pairs(const std::string &lines, const Pairs &pairs)
{
    expect_sections("[s]\n" + lines, {{"s", pairs}});
}

void expect_refusal(std::string_view text, const std::string &errors)
{
    const Reading reading = read_text(text);
    EXPECT_EQ(reading.sections, std::nullopt) << text.substr(0, 80);
    EXPECT_EQ(reading.errors, errors);
}

// ---- Reader: kinds of lines ---------------------------------------------------------------------

class ParamReader : public support::OsdTest
{
};

TEST_F(ParamReader, keeps_the_order_of_sections_and_pairs)
{
    expect_sections("[two]\nb=1\na=2\n[one]\n[three]\nc=3\n",
                    {{"two", {{"b", "1"}, {"a", "2"}}}, {"one", {}}, {"three", {{"c", "3"}}}});
}

TEST_F(ParamReader, merges_neither_keys_nor_sections)
{
    expect_sections("[s]\na=1\na=2\na=1\n[s]\na=3\n",
                    {{"s", {{"a", "1"}, {"a", "2"}, {"a", "1"}}}, {"s", {{"a", "3"}}}});
}

TEST_F(ParamReader, ignores_comments_and_lines_without_an_equals_sign)
{
    expect_sections(
        ";a=1\nword\n\n   \n\t\n#comment\n[s]\n;[t]\n;\nword\n\na=1\n[open\nclose]\n]\n[\n",
        {{"s", {{"a", "1"}}}});
}

TEST_F(ParamReader, takes_only_a_semicolon_in_the_first_column_for_a_comment)
{
    expect_pairs(";[c]\n;d=e\n", {});
    expect_pairs(" ;a=1\n#a=1\na=b;c\na;b=\na=;\n",
                 {{" ;a", "1"}, {"#a", "1"}, {"a", "b;c"}, {"a;b", std::nullopt}, {"a", ";"}});
}

TEST_F(ParamReader, cuts_a_pair_at_the_first_equals_sign)
{
    expect_pairs("a=b=c\n=v\n=\n==\na==\n",
                 {{"a", "b=c"}, {"", "v"}, {"", std::nullopt}, {"", "="}, {"a", "="}});
}

TEST_F(ParamReader, gives_a_pair_with_nothing_behind_the_equals_sign_no_value)
{
    expect_pairs("a=\nb=", {{"a", std::nullopt}, {"b", std::nullopt}});
}

TEST_F(ParamReader, trims_nothing)
{
    expect_pairs("a = b\n\ta=\tb\t\n  =  \n", {{"a ", " b"}, {"\ta", "\tb\t"}, {"  ", "  "}});
    expect_sections("[ s ]\n", {{" s ", {}}});
}

TEST_F(ParamReader, keeps_every_other_byte)
{
    std::string bytes;
    for (int byte = 1; byte < 256; byte++) {
        if (byte != '\n')
            bytes += static_cast<char>(byte);
    }
    expect_pairs("k=" + bytes + "\n", {{"k", bytes}});
    expect_sections("[" + bytes + "]\n", {{bytes, {}}});
}

TEST_F(ParamReader, takes_all_between_the_outer_brackets_for_the_name)
{
    expect_sections("[a=b]\n[]\n[[x]]\n[a]b]\n[;]\n[=]\n",
                    {{"a=b", {}}, {"", {}}, {"[x]", {}}, {"a]b", {}}, {";", {}}, {"=", {}}});
}

TEST_F(ParamReader, wants_the_brackets_at_the_very_ends_of_a_header)
{
    for (const char *line : {" [t]", "[t] ", "[t]\t", "[t]\r", "[t", "t]", "[", "]", "[t];"})
        expect_pairs(line + "\na=1\n"s, {{"a", "1"}});
    expect_pairs("[abc=1\n[abc=1] \n [a=1]\n", {{"[abc", "1"}, {"[abc", "1] "}, {" [a", "1]"}});
}

TEST_F(ParamReader, refuses_a_pair_before_the_first_header)
{
    expect_refusal("a=1\n[s]\nb=2\n", no_header);
    expect_refusal(";c\n\nword\n[open\n=\n", no_header);
    expect_refusal(" [s]\n[s=1\n", no_header);
}

TEST_F(ParamReader, refuses_a_pair_that_follows_lines_with_carriage_returns)
{
    expect_refusal("[osd]\r\nPost0DateOn=1\r\n", no_header);
    expect_sections("[osd]\r\nword\r\n\r\n", {});
    expect_pairs("a=1\r\nb=\r\n\r\n", {{"a", "1\r"}, {"b", "\r"}});
}

TEST_F(ParamReader, keeps_the_last_header_through_blank_lines_and_comments)
{
    expect_pairs("a=1\n\n \n;x\nword\nb=2\n", {{"a", "1"}, {"b", "2"}});
}

TEST_F(ParamReader, takes_a_last_line_without_a_line_feed)
{
    expect_pairs("a=1", {{"a", "1"}});
    expect_sections("[osd]", {{"osd", {}}});
    expect_pairs("a=1\nword", {{"a", "1"}});
}

TEST_F(ParamReader, reads_files_with_nothing_in_them_as_an_empty_list)
{
    for (const char *text : {"", "\n", "\n\n", ";c", ";c\n;a=1\n", "word\n", " "})
        expect_sections(text, {});
    expect_sections("[osd]\n", {{"osd", {}}});
}

TEST_F(ParamReader, reports_with_the_role_of_the_process)
{
    cmn_role = "server";
    expect_refusal("a=1\n", report("server", "no section header", "param_seclist_new"));
}

// ---- Reader: bytes of zero ----------------------------------------------------------------------

TEST_F(ParamReader, ends_a_line_at_a_zero_byte)
{
    expect_pairs("a=1\0b=2\nc\0=3\nd=\0e\n[t\0]\n;\0=\ne=5\n"s,
                 {{"a", "1"}, {"d", std::nullopt}, {"e", "5"}});
}

TEST_F(ParamReader, takes_what_ends_at_a_zero_byte_for_a_header_too)
{
    expect_sections("[s]\0 a=1\na=2\n"s, {{"s", {{"a", "2"}}}});
}

TEST_F(ParamReader, takes_a_line_that_begins_with_a_zero_byte_for_an_empty_one)
{
    expect_sections("\0\n\0a=1\n\0[t]\n[s]\n\0a=1\na=1\n\0"s, {{"s", {{"a", "1"}}}});
    expect_sections("\0"s, {});
}

// ---- Reader: long lines -------------------------------------------------------------------------

// A pair line of so many bytes without its line feed, of the key "k".
std::string long_line(std::size_t length)
{
    return "k=" + std::string(length - 2, 'v');
}

std::string long_value(std::size_t line_length)
{
    return std::string(line_length - 2, 'v');
}

TEST_F(ParamReader, reads_a_line_of_2047_or_2048_bytes_whole)
{
    EXPECT_EQ(PARAM_LINE_SIZE, 2049);
    for (const std::size_t length : {2046u, 2047u, 2048u}) {
        expect_pairs(long_line(length) + "\nb=2\n", {{"k", long_value(length)}, {"b", "2"}});
        expect_pairs(long_line(length), {{"k", long_value(length)}});
    }
}

TEST_F(ParamReader, cuts_a_line_after_2048_bytes)
{
    expect_pairs(long_line(2049) + "\nb=2\n", {{"k", long_value(2048)}, {"b", "2"}});
    const std::string key(100, 'K');
    expect_pairs(key + "=" + std::string(3000, 'v') + "\n",
                 {{key, std::string(2047 - key.size(), 'v')}});
}

TEST_F(ParamReader, takes_the_rest_of_a_cut_line_by_the_same_rules)
{
    const std::string full = long_line(2048);
    const std::string value = long_value(2048);
    expect_pairs(full + "rest\n", {{"k", value}});
    expect_pairs(full + "a=1\n", {{"k", value}, {"a", "1"}});
    expect_pairs(full + "=1\n", {{"k", value}, {"", "1"}});
    expect_pairs(full + ";a=1\n", {{"k", value}});
    expect_sections("[s]\n" + full + "[t]\na=1\n", {{"s", {{"k", value}}}, {"t", {{"a", "1"}}}});
}

TEST_F(ParamReader, cuts_a_very_long_line_into_several)
{
    expect_pairs(long_line(2048) + long_line(2048) + std::string(2048, 'x') + "a=1\n",
                 {{"k", long_value(2048)}, {"k", long_value(2048)}, {"a", "1"}});
}

TEST_F(ParamReader, takes_the_end_of_a_cut_comment_for_a_line)
{
    expect_pairs(";" + std::string(2047, 'c') + "a=1\n", {{"a", "1"}});
}

TEST_F(ParamReader, cuts_headers_too)
{
    const std::string name(2046, 'n');
    expect_sections("[" + name + "]rest\na=1\n", {{name, {{"a", "1"}}}});
    expect_sections("[" + name + "]\n", {{name, {}}});
    expect_refusal("[n" + name + "]\na=1\n", no_header);
}

TEST_F(ParamReader, ignores_what_a_cut_leaves_of_a_key_without_its_equals_sign)
{
    expect_pairs(std::string(2048, 'k') + "=v\n", {{"", "v"}});
    expect_pairs(std::string(2047, 'k') + "=v\n", {{std::string(2047, 'k'), std::nullopt}});
}

// ---- Reader: failures ---------------------------------------------------------------------------

TEST_F(ParamReader, needs_a_path)
{
    const Reading reading = read_path(nullptr);
    EXPECT_EQ(reading.sections, std::nullopt);
    EXPECT_EQ(reading.errors, report("", "invalid parameter", "param_seclist_new"));
    EXPECT_EQ(wraps::calls(wraps::FOPEN), 0);
}

TEST_F(ParamReader, reports_a_file_that_is_not_there)
{
    const Reading reading = read_path("/tmp/none");
    EXPECT_EQ(reading.sections, std::nullopt);
    EXPECT_EQ(reading.errors, report("", "cannot open file /tmp/none(No such file or directory)",
                                     "param_seclist_new"));
    EXPECT_EQ(support::temporary_files(), support::Lines{});
}

TEST_F(ParamReader, reports_the_systems_reason)
{
    cmn_role = "start";
    wraps::fail(wraps::FOPEN, 1, EMFILE);
    expect_refusal("[s]\n", report("start", "cannot open file " + path + "(Too many open files)",
                                   "param_seclist_new"));
}

TEST_F(ParamReader, opens_the_file_once_for_reading)
{
    wraps::trace(wraps::FOPEN);
    expect_sections("[s]\n", {{"s", {}}});
    EXPECT_EQ(support::take_trace(), support::Lines{"fopen(" + path + ", r)"});
}

TEST_F(ParamReader, takes_a_read_error_for_the_end_of_the_file)
{
    const Reading reading = read_path("/tmp"); // opens like a file and can't be read
    EXPECT_EQ(reading.sections, Sections{});
    EXPECT_EQ(reading.errors, "");
}

TEST_F(ParamReader, hands_nothing_back_without_memory)
{
    support::write_file(path, "[s]\na=1\nb=\n");
    const std::string list = report("", "cannot create section list", "param_seclist_new");
    const std::string section = report("", "no memory", "param_section_new");
    const std::string pair = report("", "no memory", "param_parampair_new");
    // An element that can't be appended goes without a report of its own.
    const std::vector<std::string> expected = {list, section, section, section, "",   pair,
                                               pair, pair,    "",      pair,    pair, ""};
    EXPECT_EQ(records::errors_without_memory(
                  [] { return Seclist(param_seclist_new(path.c_str())) != nullptr; }),
              expected);
    support::remove_file(path);
}

// ---- Writer -------------------------------------------------------------------------------------

class ParamWriter : public support::OsdTest
{
protected:
    // What is in the file, which goes.
    static std::string take_file()
    {
        std::string text = support::read_file(path);
        support::remove_file(path);
        return text;
    }
};

TEST_F(ParamWriter, writes_header_and_pairs_in_order)
{
    const Section section = records::make_section(
        "osd", {{"b", "1"}, {"a", " 2 = ;[] "}, {"none", std::nullopt}, {"empty", ""}, {"b", "3"}});
    EXPECT_EQ(
        errors_of([&] { EXPECT_EQ(param_section_write_file(section.get(), path.c_str()), 0); }),
        "");
    EXPECT_EQ(take_file(), "[osd]\nb=1\na= 2 = ;[] \nnone=\nempty=\nb=3\n");
}

TEST_F(ParamWriter, writes_sections_with_nothing_between_them)
{
    const Seclist seclist =
        records::make_seclist({{"one", {{"a", "1"}}}, {"", {}}, {"one", {{"b", std::nullopt}}}});
    EXPECT_EQ(
        errors_of([&] { EXPECT_EQ(param_seclist_write_file(seclist.get(), path.c_str()), 0); }),
        "");
    EXPECT_EQ(take_file(), "[one]\na=1\n[]\n[one]\nb=\n");
}

TEST_F(ParamWriter, writes_lines_of_any_length)
{
    const std::string text(5000, 'x');
    const Section section = records::make_section(text, {{text, text}});
    EXPECT_EQ(param_section_write_file(section.get(), path.c_str()), 0);
    EXPECT_EQ(take_file(), "[" + text + "]\n" + text + "=" + text + "\n");
}

TEST_F(ParamWriter, takes_texts_as_they_are_and_not_as_formats)
{
    const Section section = records::make_section("%s%n", {{"%d", "100%s"}});
    EXPECT_EQ(param_section_write_file(section.get(), path.c_str()), 0);
    EXPECT_EQ(take_file(), "[%s%n]\n%d=100%s\n");
}

TEST_F(ParamWriter, writes_a_line_feed_as_it_is)
{
    const Section section = records::make_section("s", {{"a", "1\nb=2"}, {"c", "3\nrest"}});
    EXPECT_EQ(param_section_write_file(section.get(), path.c_str()), 0);
    const std::string text = take_file();
    EXPECT_EQ(text, "[s]\na=1\nb=2\nc=3\nrest\n");
    expect_sections(text, {{"s", {{"a", "1"}, {"b", "2"}, {"c", "3"}}}});
}

TEST_F(ParamWriter, truncates_an_existing_file)
{
    support::write_file(path, std::string(10000, 'x'));
    const Section section = records::make_section("s", {});
    EXPECT_EQ(param_section_write_file(section.get(), path.c_str()), 0);
    EXPECT_EQ(take_file(), "[s]\n");

    support::write_file(path, std::string(10000, 'x'));
    const Seclist empty = records::make_seclist({});
    EXPECT_EQ(param_seclist_write_file(empty.get(), path.c_str()), 0);
    EXPECT_EQ(take_file(), "");
}

TEST_F(ParamWriter, opens_the_file_once_for_writing)
{
    const Section section = records::make_section("s", {});
    const Seclist seclist = records::make_seclist({{"s", {}}});
    wraps::trace(wraps::FOPEN);
    EXPECT_EQ(param_section_write_file(section.get(), path.c_str()), 0);
    EXPECT_EQ(param_seclist_write_file(seclist.get(), path.c_str()), 0);
    const std::string call = "fopen(" + path + ", w)";
    EXPECT_EQ(support::take_trace(), (support::Lines{call, call}));
    support::remove_file(path);
}

TEST_F(ParamWriter, refuses_missing_arguments_without_a_report_and_leaves_the_file)
{
    support::write_file(path, "old");
    const Section section = records::make_section("s", {});
    const Section nameless = records::make_section(std::nullopt, {{"a", "1"}});
    const Seclist seclist = records::make_seclist({{"s", {}}});
    EXPECT_EQ(errors_of([&] {
                  EXPECT_EQ(param_section_write_file(nullptr, path.c_str()), -22);
                  EXPECT_EQ(param_section_write_file(section.get(), nullptr), -22);
                  EXPECT_EQ(param_section_write_file(nameless.get(), path.c_str()), -22);
                  EXPECT_EQ(param_seclist_write_file(nullptr, path.c_str()), -22);
                  EXPECT_EQ(param_seclist_write_file(seclist.get(), nullptr), -22);
              }),
              "");
    EXPECT_EQ(wraps::calls(wraps::FOPEN), 0);
    EXPECT_EQ(take_file(), "old");
}

TEST_F(ParamWriter, reports_a_file_that_can_not_be_opened)
{
    const Section section = records::make_section("s", {});
    const Seclist seclist = records::make_seclist({{"s", {}}});
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(param_section_write_file(section.get(), "/tmp"), -13); }),
              report("", "cannot open file(Is a directory)", "param_section_write_file"));
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(param_seclist_write_file(seclist.get(), "/tmp"), -13); }),
              report("", "cannot open file(Is a directory)", "param_seclist_write_file"));

    cmn_role = "update";
    wraps::fail(wraps::FOPEN, 1, ENOSPC, 2);
    const std::string message = "cannot open file(No space left on device)";
    EXPECT_EQ(errors_of([&] {
                  EXPECT_EQ(param_section_write_file(section.get(), path.c_str()), -13);
                  EXPECT_EQ(param_seclist_write_file(seclist.get(), path.c_str()), -13);
              }),
              report("update", message, "param_section_write_file") +
                  report("update", message, "param_seclist_write_file"));
}

TEST_F(ParamWriter, does_not_notice_a_full_disk)
{
    const Section section = records::make_section("s", {{"a", std::string(100000, 'x')}});
    const Seclist seclist = records::make_seclist({{"s", {{"a", std::string(100000, 'x')}}}});
    EXPECT_EQ(errors_of([&] {
                  EXPECT_EQ(param_section_write_file(section.get(), "/dev/full"), 0);
                  EXPECT_EQ(param_seclist_write_file(seclist.get(), "/dev/full"), 0);
              }),
              "");
}

TEST_F(ParamWriter, stops_at_a_pair_without_a_key_and_keeps_what_was_written)
{
    const Pairs pairs = {{"a", "1"}, {std::nullopt, "2"}, {"c", "3"}};
    const Section section = records::make_section("s", pairs);
    EXPECT_EQ(
        errors_of([&] { EXPECT_EQ(param_section_write_file(section.get(), path.c_str()), -14); }),
        "");
    EXPECT_EQ(take_file(), "[s]\na=1\n");

    const Seclist seclist = records::make_seclist({{"r", {}}, {"s", pairs}, {"t", {}}});
    EXPECT_EQ(
        errors_of([&] { EXPECT_EQ(param_seclist_write_file(seclist.get(), path.c_str()), -14); }),
        "");
    EXPECT_EQ(take_file(), "[r]\n[s]\na=1\n");
}

TEST_F(ParamWriter, stops_at_a_section_without_a_name_and_keeps_what_was_written)
{
    const Seclist seclist =
        records::make_seclist({{"s", {{"a", "1"}}}, {std::nullopt, {{"b", "2"}}}, {"t", {}}});
    EXPECT_EQ(param_seclist_write_file(seclist.get(), path.c_str()), -14);
    EXPECT_EQ(take_file(), "[s]\na=1\n");
}

TEST_F(ParamWriter, writes_the_header_alone_of_a_section_without_a_pair_list)
{
    char name[] = "s";
    param_section bare = {name, nullptr};
    EXPECT_EQ(param_section_write_file(&bare, path.c_str()), 0);
    EXPECT_EQ(take_file(), "[s]\n");
}

// ---- Callbacks ----------------------------------------------------------------------------------

// Runs a callback of the writer on one record; its result, and what it wrote.
std::pair<std::int32_t, std::string> write_with(cmn_list_walk *callback, void *record)
{
    FILE *stream = fopen(path.c_str(), "w");
    const std::int32_t result = callback(record, stream);
    fclose(stream);
    std::string text = support::read_file(path);
    support::remove_file(path);
    return {result, text};
}

typedef std::pair<std::int32_t, std::string> Written;

TEST_F(ParamWriter, pair_callback_writes_one_line)
{
    const std::pair<Pairs::value_type, Written> cases[] = {
        {{"a", "1"}, {0, "a=1\n"}}, {{"a", std::nullopt}, {0, "a=\n"}}, {{"a", ""}, {0, "a=\n"}},
        {{"", "1"}, {0, "=1\n"}},   {{std::nullopt, "1"}, {-22, ""}},
    };
    for (const auto &[texts, written] : cases) {
        const records::Pair pair =
            records::make_pair(records::pointer(texts.first), records::pointer(texts.second));
        EXPECT_EQ(write_with(param_parampair_write, pair.get()), written);
    }
}

TEST_F(ParamWriter, section_callback_writes_header_and_pairs)
{
    const Section section = records::make_section("s", {{"a", "1"}, {"b", "2"}});
    EXPECT_EQ(write_with(param_section_write, section.get()), Written(0, "[s]\na=1\nb=2\n"));
    const Section bad = records::make_section("s", {{"a", "1"}, {std::nullopt, "2"}});
    EXPECT_EQ(write_with(param_section_write, bad.get()), Written(-14, "[s]\na=1\n"));
    const Section nameless = records::make_section(std::nullopt, {{"a", "1"}});
    EXPECT_EQ(write_with(param_section_write, nameless.get()), Written(-22, ""));
    char name[] = "s";
    param_section bare = {name, nullptr};
    EXPECT_EQ(write_with(param_section_write, &bare), Written(0, "[s]\n"));
}

// ---- Reader and writer together -----------------------------------------------------------------

class ParamFile : public support::OsdTest
{
};

TEST_F(ParamFile, reads_back_as_it_was_written_but_for_empty_values)
{
    const Sections sections = {{"osd", {{"a", " 1 "}, {"b", "x=y;[z]"}, {"a", "2\r"}}},
                               {"", {{"", "v"}}},
                               {"osd", {{"long", std::string(2000, 'v')}}}};
    ASSERT_EQ(param_seclist_write_file(records::make_seclist(sections).get(), path.c_str()), 0);
    EXPECT_EQ(read_path(path.c_str()).sections, sections);

    const Section empties = records::make_section("osd", {{"a", ""}, {"b", std::nullopt}});
    ASSERT_EQ(param_section_write_file(empties.get(), path.c_str()), 0);
    EXPECT_EQ(read_path(path.c_str()).sections,
              (Sections{{"osd", {{"a", std::nullopt}, {"b", std::nullopt}}}}));
    support::remove_file(path);
}

TEST_F(ParamFile, with_a_line_over_the_limit_falls_apart)
{
    const std::string value(2045, 'v');
    const Section section =
        records::make_section("s", {{"ab", value}, {"abc", value}, {"abcd", value + "=w"}});
    ASSERT_EQ(param_section_write_file(section.get(), path.c_str()), 0);
    EXPECT_EQ(
        read_path(path.c_str()).sections,
        (Sections{
            {"s",
             {{"ab", value}, {"abc", value.substr(1)}, {"abcd", value.substr(2)}, {"vv", "w"}}}}));
    support::remove_file(path);
}

// What the reader should make of some bytes: the lines of at most 2,048 bytes up to their first
// zero byte, one by one. Nothing if the file is to be refused.
std::optional<Sections> model(std::string_view bytes)
{
    Sections sections;
    while (!bytes.empty()) {
        const std::string_view chunk = bytes.substr(0, std::min(bytes.find('\n'), bytes.size()));
        const std::size_t taken = std::min<std::size_t>(chunk.size(), 2048);
        std::string line(bytes.substr(0, taken));
        bytes.remove_prefix(std::min(bytes.size(), taken < 2048 ? taken + 1 : taken));
        line = line.substr(0, line.find('\0'));
        const std::size_t equals = line.find('=');

        if (line.starts_with(';'))
            continue;
        if (line.starts_with('[') && line.ends_with(']')) {
            sections.emplace_back(line.substr(1, line.size() - 2), Pairs{});
        } else if (equals != std::string::npos) {
            if (sections.empty())
                return std::nullopt;
            const std::string value = line.substr(equals + 1);
            sections.back().second.emplace_back(
                line.substr(0, equals), value.empty() ? std::nullopt : records::Text(value));
        }
    }
    return sections;
}

// Files of anything, with a taste for what means something to the reader.
std::string random_file(std::mt19937 &random)
{
    static const std::string fragments[] = {
        "[",   "]",           "=",           ";",           "\n",           "\0"s,  "\n\0"s, "\r",
        "\n;", "[osd]",       "\n[osd]\n",   "[osd]\n\0"s,  "\n[",          "]\n",  "=\n",   " ",
        "1",   "OsdFontFile", "Post0DateOn", "Post1String", "Post2Osd1X=5", "\n\n="};
    std::string text = random() % 2 ? "[osd]\n" : "";
    for (auto count = random() % 40; count > 0; count--) {
        const auto kind = random() % 64;
        if (kind == 0)
            text.append(random() % 4200, "x=]["[random() % 4]);
        else if (kind < 12)
            text += static_cast<char>(random() % 256);
        else
            text += fragments[random() % std::size(fragments)];
    }
    return text;
}

TEST_F(ParamFile, of_random_bytes_is_refused_or_read_to_the_letter)
{
    std::mt19937 random(20240229);
    int refused = 0;
    constexpr int files = 2500;
    for (int file = 0; file < files; file++) {
        const std::string text = random_file(random);
        support::write_file(path, text);
        const Reading reading = read_path(path.c_str());
        ASSERT_EQ(reading.sections, model(text)) << "file " << file;
        ASSERT_EQ(reading.errors, reading.sections ? "" : no_header) << "file " << file;
        refused += !reading.sections;
    }
    support::remove_file(path);
    EXPECT_GT(refused, files / 10);
    EXPECT_LT(refused, files / 2);
}

TEST_F(ParamFile, of_random_bytes_reads_the_same_once_it_is_written_again)
{
    std::mt19937 random(19700101);
    for (int file = 0; file < 500; file++) {
        support::write_file(path, "[osd]\n" + random_file(random));
        const Seclist seclist(param_seclist_new(path.c_str()));
        ASSERT_NE(seclist, nullptr) << "file " << file;
        ASSERT_EQ(param_seclist_write_file(seclist.get(), path.c_str()), 0);
        ASSERT_EQ(read_path(path.c_str()).sections, records::sections_of(*seclist))
            << "file " << file;
    }
    support::remove_file(path);
}

} // namespace
