// The command line parsers.
#include "cli/catalogue.h"
#include "cli/options.h"
#include "support/osd_test.h"
#include "support/wraps.h"

#include <getopt.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace
{

using support::errors_of;
using support::report;

typedef std::vector<std::string> Words;

// The process begins without a role, as main finds it.
class Options : public support::OsdTest
{
};

typedef int Parser(int argc, char **argv, osd_options *options);

// One command line behind the program's name, parsed by one of the parsers.
struct Parsed {
    Parsed(Parser *parser, const Words &further, const osd_options &before = {})
        : words(further), options(before)
    {
        words.insert(words.begin(), "tool");
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        optind = 0;
        errors = errors_of(
            [&] { result = parser(static_cast<int>(words.size()), argv.data(), &options); });
    }
    explicit Parsed(const Words &further) : Parsed(osd_get_option, further)
    {
    }
    Parsed(const Parsed &) = delete;
    Parsed &operator=(const Parsed &) = delete;
    ~Parsed()
    {
        if (options.section)
            param_section_free(options.section);
    }

    Words words;
    std::vector<char *> argv;
    osd_options options;
    int result = 1;
    std::string errors;
};

// The section's pairs, "key=value" or, without a value, "key".
Words pairs_of(const param_section *section)
{
    Words found;
    for (const cmn_list_node *node = section->pairs->head; node; node = node->next) {
        const auto *pair = static_cast<const param_parampair *>(node->data);
        found.push_back(pair->value ? std::string(pair->key) + "=" + pair->value : pair->key);
    }
    return found;
}

// All that a parser may leave behind after a failure of the start options.
void expect_refused(const Parsed &parsed, int result, const std::string &errors)
{
    EXPECT_EQ(parsed.result, result);
    EXPECT_EQ(parsed.errors, errors);
    EXPECT_EQ(parsed.options.section, nullptr);
}

void expect_pairs(const Parsed &parsed, const Words &pairs)
{
    EXPECT_EQ(parsed.result, 0);
    EXPECT_EQ(parsed.errors, "");
    ASSERT_NE(parsed.options.section, nullptr);
    EXPECT_EQ(pairs_of(parsed.options.section), pairs);
}

const std::string REFUSED = report("update", "invalid parameter", "osd_get_start_option");

// The reports of a value or key that validation refuses, and no others.
std::string invalid(std::string_view cause, std::string_view role = "update")
{
    return report(role, cause, "osd_check_param") +
           report(role, "invalid osd parameter", "osd_check_section") +
           report(role, "invalid parameter in osd section", "osd_get_start_option");
}

// ---- The function word --------------------------------------------------------------------------

TEST_F(Options, need_a_record_and_a_command_line)
{
    char *argv[] = {nullptr};
    osd_options options = {};
    const std::string expected = report("", "invalid parameter", "osd_get_option");
    int result = 0;
    EXPECT_EQ(errors_of([&] { result = osd_get_option(0, argv, nullptr); }), expected);
    EXPECT_EQ(result, -22);
    EXPECT_EQ(errors_of([&] { result = osd_get_option(2, nullptr, &options); }), expected);
    EXPECT_EQ(result, -22);
    EXPECT_EQ(errors_of([&] { result = osd_get_option(0, nullptr, &options); }), expected);
    EXPECT_EQ(result, -22);
    EXPECT_EQ(options.command, 0);
}

TEST_F(Options, without_an_argument_ask_for_the_usage)
{
    const Parsed none({});
    EXPECT_EQ(none.result, 0);
    EXPECT_EQ(none.errors, "");
    EXPECT_EQ(none.options.command, 8);
    EXPECT_STREQ(cmn_role, "");

    char *argv[] = {nullptr};
    osd_options options = {};
    EXPECT_EQ(osd_get_option(0, argv, &options), 0);
    EXPECT_EQ(options.command, 8);
}

struct WordRow {
    Words words;
    std::int32_t command;
    const char *role;
};

const WordRow FUNCTION_WORDS[] = {
    {{"--help"}, 8, ""},
    {{"--version"}, 9, ""},
    {{"start"}, 0, "start"},
    {{"restart"}, 1, "restart"},
    {{"update"}, 2, "update"},
    {{"stop"}, 3, "stop"},
    {{"status"}, 4, "status"},
    {{"save", "-f", "file"}, 5, "save"},
    {{"getthdinfo"}, 6, "getthdinfo"},
    {{"help"}, 7, "help"},
};

TEST_F(Options, take_command_and_role_from_the_function_word)
{
    for (const WordRow &row : FUNCTION_WORDS) {
        SCOPED_TRACE(row.words[0]);
        cmn_role = "";
        osd_options before = {};
        before.command = 77;
        const Parsed parsed(osd_get_option, row.words, before);
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.errors, "");
        EXPECT_EQ(parsed.options.command, row.command);
        EXPECT_STREQ(cmn_role, row.role);
    }
}

TEST_F(Options, make_a_section_for_start_restart_and_update_alone)
{
    for (const WordRow &row : FUNCTION_WORDS) {
        SCOPED_TRACE(row.words[0]);
        const Parsed parsed(row.words);
        if (row.command > OSD_CMD_UPDATE) {
            EXPECT_EQ(parsed.options.section, nullptr);
        } else {
            ASSERT_NE(parsed.options.section, nullptr);
            EXPECT_STREQ(parsed.options.section->name, "osd");
            EXPECT_EQ(pairs_of(parsed.options.section), Words{});
        }
    }
}

TEST_F(Options, compare_the_function_word_exactly)
{
    for (const char *word :
         {"bogus",  "",        "Start",       "START",    "star",  "starts", "start ",
          " start", "--hel",   "--helps",     "--help=1", "-help", "-h",     "--",
          "-",      "--start", "getthdinfo2", "version",  "Help",  "-f"}) {
        SCOPED_TRACE(word);
        const Parsed parsed({word, "-f", "file"});
        expect_refused(parsed, -22, report("", "unknown command", "osd_get_option"));
        EXPECT_EQ(parsed.options.command, 0);
        EXPECT_EQ(parsed.options.paramFile, nullptr);
        EXPECT_STREQ(cmn_role, "");
    }
}

TEST_F(Options, look_for_the_function_word_in_the_first_place_alone)
{
    const Parsed parsed({"extra", "start"});
    expect_refused(parsed, -22, report("", "unknown command", "osd_get_option"));
}

TEST_F(Options, parse_nothing_behind_words_without_options)
{
    for (const char *word : {"--help", "--version", "stop", "status", "help"}) {
        for (const char *further : {"extra", "-x", "-f", "--Post0DateOn=1", "--bogus", "", "--"}) {
            SCOPED_TRACE(std::string(word) + " " + further);
            const Parsed parsed({word, further, "more"});
            EXPECT_EQ(parsed.result, 0);
            EXPECT_EQ(parsed.errors, "");
            EXPECT_EQ(parsed.options.post, 0u);
            EXPECT_EQ(parsed.options.paramFile, nullptr);
            EXPECT_EQ(parsed.options.section, nullptr);
            EXPECT_EQ(optind, 0) << "getopt has run";
        }
    }
}

TEST_F(Options, set_the_role_before_they_parse_further)
{
    EXPECT_EQ(Parsed({"start", "--OsdFontFile=x"}).errors,
              report("start", "invalid parameter", "osd_get_start_option"));
    EXPECT_EQ(Parsed({"restart", "--OsdFontFile=x"}).errors,
              report("restart", "invalid parameter", "osd_get_start_option"));
    EXPECT_EQ(Parsed({"update", "--OsdFontFile=x"}).errors, REFUSED);
    EXPECT_EQ(Parsed({"save"}).errors, report("save", "invalid parameter", "osd_get_save_option"));
    EXPECT_EQ(Parsed({"getthdinfo", "-t4"}).errors,
              report("getthdinfo", "invalid parameter", "osd_get_getthdinfo_option"));
}

TEST_F(Options, keep_the_command_of_a_function_whose_options_are_refused)
{
    EXPECT_EQ(Parsed({"restart", "--OsdFontFile=x"}).options.command, 1);
    EXPECT_EQ(Parsed({"save"}).options.command, 5);
    EXPECT_EQ(Parsed({"getthdinfo", "-t4"}).options.command, 6);
}

TEST_F(Options, give_one_result_for_all_failures_of_a_parser)
{
    cmn_role = "update";
    EXPECT_EQ(Parsed(osd_get_start_option, {"update", "--Post0DateOn=2"}).result, -14);
    EXPECT_EQ(Parsed({"update", "--Post0DateOn=2"}).result, -22);
    EXPECT_EQ(Parsed(osd_get_start_option, {"update", "--OsdFontFile=x"}).result, -22);
    EXPECT_EQ(Parsed({"update", "--OsdFontFile=x"}).result, -22);
}

// ---- start, restart, update: -f and -l ----------------------------------------------------------

class StartOptions : public Options
{
protected:
    void SetUp() override
    {
        Options::SetUp();
        cmn_role = "update";
    }
};

TEST_F(StartOptions, may_be_absent)
{
    osd_options before = {};
    before.post = 9;
    const Parsed parsed(osd_get_start_option, {"update"}, before);
    expect_pairs(parsed, {});
    EXPECT_STREQ(parsed.options.section->name, "osd");
    EXPECT_EQ(parsed.options.post, 0u);
    EXPECT_EQ(parsed.options.paramFile, nullptr);
    EXPECT_EQ(parsed.options.logFile, nullptr);
    EXPECT_EQ(parsed.options.funcName, nullptr);
    EXPECT_EQ(parsed.options.all, 0u);
}

TEST_F(StartOptions, f_names_the_parameter_file_and_marks_all_posts)
{
    for (const Words &words : {Words{"update", "-f", "file"}, Words{"update", "-ffile"}}) {
        const Parsed parsed(osd_get_start_option, words);
        expect_pairs(parsed, {});
        EXPECT_STREQ(parsed.options.paramFile, "file");
        EXPECT_EQ(parsed.options.post, 15u);
        EXPECT_EQ(parsed.options.logFile, nullptr);
    }
}

TEST_F(StartOptions, l_names_the_log_file_and_marks_no_post)
{
    for (const Words &words : {Words{"update", "-l", "file"}, Words{"update", "-lfile"}}) {
        const Parsed parsed(osd_get_start_option, words);
        expect_pairs(parsed, {});
        EXPECT_STREQ(parsed.options.logFile, "file");
        EXPECT_EQ(parsed.options.post, 0u);
        EXPECT_EQ(parsed.options.paramFile, nullptr);
    }
}

TEST_F(StartOptions, borrow_their_file_names_from_the_command_line)
{
    const Parsed parsed(osd_get_start_option, {"update", "-f", "one", "-ltwo"});
    EXPECT_EQ(parsed.options.paramFile, parsed.argv[3]);
    EXPECT_EQ(parsed.options.logFile, parsed.argv[4] + 2);
}

TEST_F(StartOptions, last_f_and_last_l_count)
{
    const Parsed parsed(osd_get_start_option,
                        {"update", "-f", "1", "-l", "2", "-f", "3", "-l", "4"});
    expect_pairs(parsed, {});
    EXPECT_STREQ(parsed.options.paramFile, "3");
    EXPECT_STREQ(parsed.options.logFile, "4");
}

TEST_F(StartOptions, f_and_l_open_no_file)
{
    const Parsed parsed(osd_get_start_option, {"update", "-f", "/no/such", "-l", "/no/such"});
    expect_pairs(parsed, {});
    EXPECT_EQ(wraps::calls(wraps::FOPEN) + wraps::calls(wraps::OPEN), 0);
}

TEST_F(StartOptions, f_leaves_the_mask_at_all_posts_wherever_it_stands)
{
    for (const Words &words : {Words{"update", "-f", "x", "--Post1DateOn=1"},
                               Words{"update", "--Post1DateOn=1", "-f", "x"}}) {
        const Parsed parsed(osd_get_start_option, words);
        expect_pairs(parsed, {"Post1DateOn=1"});
        EXPECT_EQ(parsed.options.post, 15u);
    }
}

TEST_F(StartOptions, f_and_l_need_an_argument)
{
    const char *words[][2] = {{"-f", "f"}, {"-l", "l"}};
    for (const auto &[word, letter] : words) {
        expect_refused(Parsed(osd_get_start_option, {"update", word}), -22,
                       std::string("update: option requires an argument -- '") + letter + "'\n" +
                           REFUSED);
    }
}

TEST_F(StartOptions, argument_may_look_like_an_option_or_be_empty)
{
    const Parsed parsed(osd_get_start_option,
                        {"update", "-f", "-l", "-l", "", "--Post0String", "--"});
    expect_pairs(parsed, {"Post0String=--"});
    EXPECT_STREQ(parsed.options.paramFile, "-l");
    EXPECT_STREQ(parsed.options.logFile, "");
}

// ---- start, restart, update: long options -------------------------------------------------------

// The keys that belong to a post, in any order.
Words keys_of_post(int post)
{
    const std::string prefix = "Post" + std::to_string(post);
    Words keys;
    for (const char *name : {"DateOn", "TimeOn", "TypeOn", "StringOn", "String", "StringColor"})
        keys.push_back(prefix + name);
    for (int i = 0; i < 4; i++) {
        const std::string digit = std::to_string(i);
        keys.push_back(prefix + "Rectangle" + digit + "On");
        for (const char *name : {"ColorType", "ColorFg", "ColorBg", "X", "Y", "W", "H"})
            keys.push_back(prefix + "Osd" + digit + name);
    }
    return keys;
}

TEST_F(StartOptions, every_key_of_a_post_is_a_long_option_that_marks_the_post)
{
    for (int post = 0; post < 4; post++) {
        const Words keys = keys_of_post(post);
        EXPECT_EQ(keys.size(), 38u);
        for (const std::string &key : keys) {
            SCOPED_TRACE(key);
            const Parsed joined(osd_get_start_option, {"update", "--" + key + "=1"});
            expect_pairs(joined, {key + "=1"});
            EXPECT_EQ(joined.options.post, 1u << post);
            const Parsed apart(osd_get_start_option, {"update", "--" + key, "1"});
            expect_pairs(apart, {key + "=1"});
            EXPECT_EQ(apart.options.post, 1u << post);
        }
    }
}

TEST_F(StartOptions, keys_of_no_post_are_refused)
{
    for (const char *key :
         {"OsdFontFile", "OsdDateFgColor", "OsdDateBgColor", "OsdTimeFgColor", "OsdTimeBgColor",
          "OsdTypeFgColor", "OsdTypeBgColor", "OsdStringBgColor", "OsdTVOutSafeSpaceUp",
          "OsdTVOutSafeSpaceDown", "OsdTVOutSafeSpaceLeft", "OsdTVOutSafeSpaceRight"}) {
        SCOPED_TRACE(key);
        const std::string option = std::string("--") + key;
        expect_refused(Parsed(osd_get_start_option, {"update", option + "=1"}), -22, REFUSED);
        expect_refused(Parsed(osd_get_start_option, {"update", option, "1"}), -22, REFUSED);
    }
}

TEST_F(StartOptions, of_several_posts_mark_them_all)
{
    const Parsed parsed(osd_get_start_option,
                        {"update", "--Post3DateOn=1", "--Post1Osd2X", "7", "--Post3TimeOn=0"});
    expect_pairs(parsed, {"Post3DateOn=1", "Post1Osd2X=7", "Post3TimeOn=0"});
    EXPECT_EQ(parsed.options.post, 10u);
}

TEST_F(StartOptions, all_repeats_stay_in_the_section_and_the_last_stands)
{
    const Parsed parsed(osd_get_start_option, {"update", "--Post0DateOn=1", "--Post0DateOn=0"});
    expect_pairs(parsed, {"Post0DateOn=1", "Post0DateOn=0"});
    EXPECT_EQ(parsed.options.post, 1u);

    param_section *target = osd_get_default_section();
    EXPECT_EQ(osd_section_overwrite(target, parsed.options.section), 0);
    EXPECT_STREQ(param_section_search_parampair_key(target, "Post0DateOn")->value, "0");
    param_section_free(target);
}

TEST_F(StartOptions, copy_their_values)
{
    const Parsed parsed(osd_get_start_option, {"update", "--Post0String", "text"});
    parsed.argv[3][0] = 'T';
    EXPECT_EQ(pairs_of(parsed.options.section), Words{"Post0String=text"});
}

TEST_F(StartOptions, value_is_cut_off_at_the_first_equals_sign)
{
    expect_pairs(
        Parsed(osd_get_start_option, {"update", "--Post0String=a=b=", "--Post1String", "=c"}),
        {"Post0String=a=b=", "Post1String==c"});
}

TEST_F(StartOptions, long_option_needs_an_argument)
{
    expect_refused(Parsed(osd_get_start_option, {"update", "--Post0DateOn"}), -22,
                   "update: option '--Post0DateOn' requires an argument\n" + REFUSED);
}

TEST_F(StartOptions, unknown_options_are_refused)
{
    const char *words[][2] = {
        {"--bogus", "unrecognized option '--bogus'"},
        {"--bogus=1", "unrecognized option '--bogus=1'"},
        {"--Post4DateOn=1", "unrecognized option '--Post4DateOn=1'"},
        {"--post0DateOn=1", "unrecognized option '--post0DateOn=1'"},
        {"--Post0DateOnn=1", "unrecognized option '--Post0DateOnn=1'"},
        {"-x", "invalid option -- 'x'"},
        {"-t0", "invalid option -- 't'"},
        {"-a", "invalid option -- 'a'"},
        {"-Post0DateOn=1", "invalid option -- 'P'"},
        {"-W", "invalid option -- 'W'"},
    };
    for (const auto &[word, diagnostic] : words) {
        SCOPED_TRACE(word);
        expect_refused(Parsed(osd_get_start_option, {"update", word}), -22,
                       std::string("update: ") + diagnostic + "\n" + REFUSED);
    }
}

TEST_F(StartOptions, name_the_function_word_in_diagnostics)
{
    cmn_role = "";
    for (const char *word : {"start", "restart", "update"}) {
        const Parsed parsed({word, "--bogus"});
        expect_refused(parsed, -22,
                       std::string(word) + ": unrecognized option '--bogus'\n" +
                           report(word, "invalid parameter", "osd_get_start_option"));
    }
}

TEST_F(StartOptions, first_refused_option_ends_the_parsing)
{
    const Parsed parsed(osd_get_start_option,
                        {"update", "-f", "1", "--OsdFontFile=x", "-f", "2", "--bogus"});
    expect_refused(parsed, -22, REFUSED);
    EXPECT_STREQ(parsed.options.paramFile, "1");
}

// ---- start, restart, update: order and abbreviations --------------------------------------------

TEST_F(StartOptions, other_words_among_them_are_ignored)
{
    const Parsed parsed(osd_get_start_option, {"update", "extra", "--Post0DateOn=1", "", "-", "-f",
                                               "file", "more", "--Post1TimeOn", "0", "last"});
    expect_pairs(parsed, {"Post0DateOn=1", "Post1TimeOn=0"});
    EXPECT_STREQ(parsed.options.paramFile, "file");
}

TEST_F(StartOptions, end_at_two_dashes)
{
    const Parsed parsed(osd_get_start_option, {"update", "x", "--Post0DateOn=1", "--",
                                               "--Post1DateOn=1", "-f", "file", "--bogus"});
    expect_pairs(parsed, {"Post0DateOn=1"});
    EXPECT_EQ(parsed.options.post, 1u);
    EXPECT_EQ(parsed.options.paramFile, nullptr);
}

TEST_F(StartOptions, begin_behind_the_function_word)
{
    const Parsed parsed(osd_get_start_option, {"--Post0DateOn=1", "--Post1DateOn=1"});
    expect_pairs(parsed, {"Post1DateOn=1"});
}

TEST_F(StartOptions, unambiguous_abbreviation_stands_for_the_whole_key)
{
    const char *words[][2] = {
        {"--Post0D=1", "Post0DateOn=1"},
        {"--Post2Ti=1", "Post2TimeOn=1"},
        {"--Post3TypeO=0", "Post3TypeOn=0"},
        {"--Post1StringC=200", "Post1StringColor=200"},
        {"--Post1StringO=1", "Post1StringOn=1"},
        {"--Post2Rectangle3=1", "Post2Rectangle3On=1"},
        {"--Post2Osd3ColorT=2", "Post2Osd3ColorType=2"},
        {"--Post2Osd3ColorB=2", "Post2Osd3ColorBg=2"},
        {"--Post0Osd1H=9", "Post0Osd1H=9"},
    };
    for (const auto &[word, pair] : words) {
        SCOPED_TRACE(word);
        expect_pairs(Parsed(osd_get_start_option, {"update", word}), {pair});
    }
}

TEST_F(StartOptions, whole_key_wins_over_the_longer_keys_that_begin_with_it)
{
    expect_pairs(Parsed(osd_get_start_option, {"update", "--Post0String=1"}), {"Post0String=1"});
}

// getopt holds keys of one post for the same option, as they have the same val.
TEST_F(StartOptions, abbreviation_of_several_keys_of_a_post_stands_for_the_first)
{
    const Parsed parsed(osd_get_start_option,
                        {"update", "--Post2=1", "--Post2T=0", "--Post2Osd1=0", "--Post2S=1"});
    expect_pairs(parsed,
                 {"Post2DateOn=1", "Post2TimeOn=0", "Post2Osd1ColorType=0", "Post2StringOn=1"});
    EXPECT_EQ(parsed.options.post, 4u);
}

TEST_F(StartOptions, abbreviation_of_keys_of_no_post_is_refused)
{
    expect_refused(Parsed(osd_get_start_option, {"update", "--Osd=1"}), -22, REFUSED);
    expect_refused(Parsed(osd_get_start_option, {"update", "--OsdTV=1"}), -22, REFUSED);
}

TEST_F(StartOptions, ambiguous_abbreviation_is_refused)
{
    for (const char *word : {"--Post=1", "--P=1", "--Pos", "--=1"}) {
        SCOPED_TRACE(word);
        const Parsed parsed(osd_get_start_option, {"update", word});
        EXPECT_EQ(parsed.result, -22);
        EXPECT_EQ(parsed.options.section, nullptr);

        // One line of getopt's own, which lists the possibilities, and one report.
        const std::string diagnostic = std::string("update: option '") + word + "' is ambiguous";
        EXPECT_EQ(parsed.errors.substr(0, diagnostic.size()), diagnostic);
        EXPECT_EQ(parsed.errors.substr(parsed.errors.find('\n') + 1), REFUSED);
    }
}

// ---- start, restart, update: validation ---------------------------------------------------------

struct ValueRow {
    const char *key;
    const char *value;
};

const std::string BYTES_20 = "12345678901234567890";

TEST_F(StartOptions, valid_values_pass)
{
    static constexpr ValueRow rows[] = {
        {"Post0DateOn", "1"},
        {"Post1TimeOn", "00000000001"},
        {"Post2TypeOn", "+1"},
        {"Post3StringOn", " \t1"},
        {"Post0StringColor", "255"},
        {"Post0Rectangle0On", "2"},
        {"Post0Osd0ColorType", "2"},
        {"Post1Osd3ColorFg", "255"},
        {"Post1Osd3ColorBg", "255"},
        {"Post0Osd0X", "2147483647"},
        {"Post3Osd3H", "2147483647"},
        {"Post0Osd0Y", "-4294967295"}, // wraps to 1
        {"Post0String", ""},
        {"Post0String", "12345678901234567890"},
        {"Post0String", "  blanks are kept  "},
        {"Post0String", "\303\244\303\244\303\244\303\244\303\244\303\244\303\244\303\244\303\244"
                        "\303\244"},
        {"Post0String", "two\nlines"},
    };
    for (const ValueRow &row : rows) {
        const std::string pair = std::string(row.key) + "=" + row.value;
        SCOPED_TRACE(pair);
        expect_pairs(Parsed(osd_get_start_option, {"update", "--" + pair}), {pair});
    }
}

TEST_F(StartOptions, invalid_values_are_refused)
{
    static constexpr ValueRow rows[] = {
        {"Post0DateOn", "2"},
        {"Post1TimeOn", "-1"},
        {"Post2TypeOn", "1 "},
        {"Post3StringOn", "0x1"},
        {"Post0DateOn", "on"},
        {"Post0DateOn", " "},
        {"Post0StringColor", "256"},
        {"Post0Rectangle0On", "3"},
        {"Post0Osd0ColorType", "3"},
        {"Post1Osd3ColorFg", "256"},
        {"Post1Osd3ColorBg", "4294967296"},
        {"Post0Osd0X", "2147483648"},
        {"Post0Osd0W", "99999999999999999999"},
        {"Post0String", "123456789012345678901"},
        {"Post0String", "\303\244\303\244\303\244\303\244\303\244\303\244\303\244\303\244\303\244"
                        "\303\244 "},
    };
    for (const ValueRow &row : rows) {
        const std::string option = std::string("--") + row.key + "=" + row.value;
        SCOPED_TRACE(option);
        expect_refused(Parsed(osd_get_start_option, {"update", option}), -14,
                       invalid(std::string("invalid value '") + row.value + "' of key " + row.key));
    }
}

TEST_F(StartOptions, empty_number_is_refused)
{
    const std::string cause = "invalid value '(null)' of key Post0DateOn";
    expect_refused(Parsed(osd_get_start_option, {"update", "--Post0DateOn="}), -14, invalid(cause));
    expect_refused(Parsed(osd_get_start_option, {"update", "--Post0DateOn", ""}), -14,
                   invalid(cause));
}

TEST_F(StartOptions, empty_string_is_a_value)
{
    const Parsed parsed(osd_get_start_option, {"update", "--Post0String=", "--Post1String", ""});
    expect_pairs(parsed, {"Post0String=", "Post1String="});
    EXPECT_EQ(parsed.options.post, 3u);
}

TEST_F(StartOptions, first_invalid_value_of_the_command_line_is_reported)
{
    expect_refused(Parsed({"start", "--Post3DateOn=1", "--Post2DateOn=7", "--Post0DateOn=8"}), -22,
                   invalid("invalid value '7' of key Post2DateOn", "start"));
}

TEST_F(StartOptions, all_are_collected_before_a_value_is_judged)
{
    expect_refused(Parsed(osd_get_start_option, {"update", "--Post0DateOn=9", "--OsdFontFile=x"}),
                   -22, REFUSED);
    const Parsed parsed(osd_get_start_option, {"update", "--Post0DateOn=9", "-l", "log"});
    expect_refused(parsed, -14, invalid("invalid value '9' of key Post0DateOn"));
    EXPECT_STREQ(parsed.options.logFile, "log");
}

TEST_F(StartOptions, invalid_value_is_refused_though_a_later_one_would_stand)
{
    expect_refused(Parsed(osd_get_start_option, {"update", "--Post0DateOn=9", "--Post0DateOn=1"}),
                   -14, invalid("invalid value '9' of key Post0DateOn"));
}

// ---- start, restart, update: no memory ----------------------------------------------------------

// A section takes three pieces of memory, a pair three, its place in the list one.
constexpr int SECTION_PIECES = 3;
constexpr int PAIR_PIECES = 4;

const Words TWO_PAIRS = {"update", "--Post0DateOn=1", "--Post2String=text"};

TEST_F(StartOptions, without_memory_for_a_section_nothing_is_parsed)
{
    osd_options before = {};
    before.post = 9;
    for (int nth = 1; nth <= SECTION_PIECES; nth++) {
        SCOPED_TRACE(nth);
        wraps::fail(wraps::CALLOC, nth, ENOMEM);
        const Parsed parsed(osd_get_start_option, {"update", "-f", "file"}, before);
        expect_refused(parsed, -14,
                       report("update", "no memory", "param_section_new") +
                           report("update", "cannot create section", "osd_get_start_option"));
        EXPECT_EQ(parsed.options.post, 0u);
        EXPECT_EQ(parsed.options.paramFile, nullptr);
        EXPECT_EQ(optind, 0) << "getopt has run";
    }
}

TEST_F(StartOptions, without_memory_for_a_pair_no_section_is_left)
{
    for (int pair = 0; pair < 2; pair++) {
        for (int piece = 1; piece < PAIR_PIECES; piece++) {
            SCOPED_TRACE(pair * PAIR_PIECES + piece);
            wraps::fail(wraps::CALLOC, SECTION_PIECES + pair * PAIR_PIECES + piece, ENOMEM);
            const Parsed parsed(osd_get_start_option, TWO_PAIRS);
            expect_refused(
                parsed, -14,
                report("update", "no memory", "param_parampair_new") +
                    report("update", "cannot create parameter pair", "osd_get_start_option"));
            EXPECT_EQ(parsed.options.post, pair == 0 ? 1u : 5u);
        }
    }
}

TEST_F(StartOptions, without_memory_for_a_place_in_the_list_no_section_is_left)
{
    for (int pair = 0; pair < 2; pair++) {
        wraps::fail(wraps::CALLOC, SECTION_PIECES + (pair + 1) * PAIR_PIECES, ENOMEM);
        const Parsed parsed(osd_get_start_option, TWO_PAIRS);
        expect_refused(parsed, -14,
                       report("update", "cannot append to section", "osd_get_start_option"));
        EXPECT_EQ(parsed.options.post, pair == 0 ? 1u : 5u);
    }
}

TEST_F(StartOptions, take_memory_for_the_section_and_the_pairs_alone)
{
    expect_pairs(Parsed(osd_get_start_option, TWO_PAIRS), {"Post0DateOn=1", "Post2String=text"});
    EXPECT_EQ(wraps::calls(wraps::CALLOC), SECTION_PIECES + 2 * PAIR_PIECES);
}

TEST_F(StartOptions, failures_of_memory_are_failures_of_the_command_line)
{
    for (int nth = 1; nth <= SECTION_PIECES + 2 * PAIR_PIECES; nth++) {
        wraps::fail(wraps::CALLOC, nth, ENOMEM);
        const Parsed parsed(TWO_PAIRS);
        EXPECT_EQ(parsed.result, -22);
        EXPECT_EQ(parsed.options.section, nullptr);
    }
}

// ---- save ---------------------------------------------------------------------------------------

class SaveOptions : public Options
{
protected:
    void SetUp() override
    {
        Options::SetUp();
        cmn_role = "save";
    }
};

const std::string SAVE_REFUSED = report("save", "invalid parameter", "osd_get_save_option");

TEST_F(SaveOptions, f_names_the_file)
{
    for (const Words &words :
         {Words{"save", "-f", "file"}, Words{"save", "-ffile"},
          Words{"save", "extra", "-f", "file"}, Words{"save", "-f", "file", "extra"},
          Words{"save", "-f", "other", "-f", "file"}}) {
        const Parsed parsed(osd_get_save_option, words);
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.errors, "");
        EXPECT_STREQ(parsed.options.paramFile, "file");
        EXPECT_EQ(parsed.options.post, 0u);
        EXPECT_EQ(parsed.options.section, nullptr);
    }
}

TEST_F(SaveOptions, file_name_may_be_empty)
{
    const Parsed parsed(osd_get_save_option, {"save", "-f", ""});
    EXPECT_EQ(parsed.result, 0);
    EXPECT_STREQ(parsed.options.paramFile, "");
}

struct RefusedRow {
    Words words;
    const char *diagnostic; // getopt's, if it has one
};

const RefusedRow SAVE_ROWS[] = {
    {{"save"}, ""},
    {{"save", "file"}, ""},
    {{"save", "--", "-f", "file"}, ""},
    {{"save", "-"}, ""},
    {{"save", "-f"}, "save: option requires an argument -- 'f'\n"},
    {{"save", "-f", "file", "-f"}, "save: option requires an argument -- 'f'\n"},
    {{"save", "-f", "file", "-x"}, "save: invalid option -- 'x'\n"},
    {{"save", "-x", "-f", "file", "-f"}, "save: invalid option -- 'x'\n"},
    {{"save", "-f", "one", "-x", "-f", "two"}, "save: invalid option -- 'x'\n"},
    {{"save", "-l", "log", "-f", "file"}, "save: invalid option -- 'l'\n"},
    {{"save", "-a", "-x", "-f", "file"}, "save: invalid option -- 'a'\n"},
    {{"save", "--Post0DateOn=1", "-f", "file"}, "save: invalid option -- '-'\n"},
};

TEST_F(SaveOptions, anything_else_and_nothing_is_refused)
{
    for (const RefusedRow &row : SAVE_ROWS) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        const Parsed parsed(osd_get_save_option, row.words);
        EXPECT_EQ(parsed.result, -22);
        EXPECT_EQ(parsed.errors, row.diagnostic + SAVE_REFUSED);
        EXPECT_EQ(parsed.options.section, nullptr);
    }
}

// ---- getthdinfo ---------------------------------------------------------------------------------

class GetthdinfoOptions : public Options
{
protected:
    void SetUp() override
    {
        Options::SetUp();
        cmn_role = "getthdinfo";
    }
};

constexpr std::uint32_t EVERY_POST = 0xFFFFFFFF;

const std::string GETTHDINFO_REFUSED =
    report("getthdinfo", "invalid parameter", "osd_get_getthdinfo_option");

TEST_F(GetthdinfoOptions, begin_with_every_post_and_the_function_word)
{
    osd_options before = {};
    before.command = 77;
    before.post = 2;
    before.all = 1;
    for (const Words &words :
         {Words{"getthdinfo"}, Words{"getthdinfo", "extra"}, Words{"getthdinfo", "--", "-a"}}) {
        const Parsed parsed(osd_get_getthdinfo_option, words, before);
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.errors, "");
        EXPECT_EQ(parsed.options.command, 6);
        EXPECT_EQ(parsed.options.post, EVERY_POST);
        EXPECT_EQ(parsed.options.all, 0u);
        EXPECT_EQ(parsed.options.funcName, parsed.argv[1]);
        EXPECT_EQ(parsed.options.section, nullptr);
        EXPECT_EQ(parsed.options.paramFile, nullptr);
    }
}

TEST_F(GetthdinfoOptions, without_a_word_getopt_does_not_run)
{
    EXPECT_EQ(Parsed(osd_get_getthdinfo_option, {"getthdinfo"}).result, 0);
    EXPECT_EQ(optind, 0);
}

struct ThreadRow {
    Words words;
    std::uint32_t post;
    std::uint32_t all;
};

const ThreadRow THREAD_ROWS[] = {
    {{"-a"}, EVERY_POST, 1},
    {{"-a", "-a"}, EVERY_POST, 1},
    {{"-t", "0"}, 0, 0},
    {{"-t1"}, 1, 0},
    {{"-t", "2", "-a"}, 2, 1},
    {{"-a", "-t", "2"}, 2, 1},
    {{"-at2"}, 2, 1},
    {{"-t", "3"}, 3, 0},
    {{"-t", "3", "-t", "1"}, 1, 0},
    {{"-t", ""}, 0, 0},
    {{"-t", " 2"}, 2, 0},
    {{"-t", "+2"}, 2, 0},
    {{"-t", "003"}, 3, 0},
    {{"-t", "-0"}, 0, 0},
    {{"-t", "-4294967295"}, 1, 0}, // wraps as strtoul has it
    {{"extra", "-t", "1", "more", "-a"}, 1, 1},
    {{"-t", "1", "--", "-a", "-t", "4"}, 1, 0},
};

TEST_F(GetthdinfoOptions, a_and_t_in_any_order)
{
    for (const ThreadRow &row : THREAD_ROWS) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        Words words = {"getthdinfo"};
        words.insert(words.end(), row.words.begin(), row.words.end());
        const Parsed parsed(osd_get_getthdinfo_option, words);
        EXPECT_EQ(parsed.result, 0);
        EXPECT_EQ(parsed.errors, "");
        EXPECT_EQ(parsed.options.post, row.post);
        EXPECT_EQ(parsed.options.all, row.all);
        EXPECT_EQ(parsed.options.funcName, parsed.argv[1]);
    }
}

TEST_F(GetthdinfoOptions, thread_number_that_is_none_is_refused)
{
    for (const char *number : {"4", "1x", "x", "1 ", "0x1", "-1", "1.5", "10", "4294967295",
                               "4294967296", "18446744073709551617", " ", "-"}) {
        SCOPED_TRACE(number);
        const Parsed parsed(osd_get_getthdinfo_option, {"getthdinfo", "-t", number});
        EXPECT_EQ(parsed.result, -22);
        EXPECT_EQ(parsed.errors, GETTHDINFO_REFUSED);
    }
}

TEST_F(GetthdinfoOptions, first_bad_thread_number_ends_the_parsing)
{
    const Parsed parsed(osd_get_getthdinfo_option,
                        {"getthdinfo", "-t", "4", "-a", "-t", "1", "-x"});
    EXPECT_EQ(parsed.result, -22);
    EXPECT_EQ(parsed.errors, GETTHDINFO_REFUSED);
    EXPECT_EQ(parsed.options.all, 0u);
}

const RefusedRow GETTHDINFO_ROWS[] = {
    {{"getthdinfo", "-t"}, "getthdinfo: option requires an argument -- 't'\n"},
    {{"getthdinfo", "-t", "1", "-t"}, "getthdinfo: option requires an argument -- 't'\n"},
    {{"getthdinfo", "-x"}, "getthdinfo: invalid option -- 'x'\n"},
    {{"getthdinfo", "-a", "-f", "file"}, "getthdinfo: invalid option -- 'f'\n"},
    {{"getthdinfo", "-a1"}, "getthdinfo: invalid option -- '1'\n"},
    {{"getthdinfo", "--all"}, "getthdinfo: invalid option -- '-'\n"},
};

TEST_F(GetthdinfoOptions, anything_else_is_refused)
{
    for (const RefusedRow &row : GETTHDINFO_ROWS) {
        SCOPED_TRACE(testing::PrintToString(row.words));
        const Parsed parsed(osd_get_getthdinfo_option, row.words);
        EXPECT_EQ(parsed.result, -22);
        EXPECT_EQ(parsed.errors, row.diagnostic + GETTHDINFO_REFUSED);
    }
}

// ---- Random command lines -----------------------------------------------------------------------

class RandomLines
{
public:
    Words next()
    {
        Words words;
        if (chance(60))
            words.push_back(one_of({"start", "restart", "update"}));
        for (unsigned count = below(6); count > 0; count--)
            words.push_back(word());
        return words;
    }

private:
    unsigned below(unsigned limit)
    {
        return static_cast<unsigned>(random_() % limit);
    }
    bool chance(unsigned percent)
    {
        return below(100) < percent;
    }
    std::string one_of(const std::vector<const char *> &texts)
    {
        return texts[below(static_cast<unsigned>(texts.size()))];
    }

    std::string word()
    {
        switch (below(8)) {
        case 0:
            return one_of({"start", "restart", "update", "stop", "status", "save", "getthdinfo",
                           "help", "--help", "--version", "bogus"});
        case 1:
            return one_of({"-f", "-t", "-l", "-a", "-x", "-fa", "-at", "-tfl"});
        case 2:
            return one_of({"", "-", "--", "---", "--=", "=", "-="});
        case 3:
            return value();
        case 4:
            return noise();
        default:
            return long_option();
        }
    }

    std::string value()
    {
        return one_of({"0", "1", "2", "3", "4", "-1", " 1", "1 ", "255", "256", "4294967296", "",
                       "file", "123456789012345678901"});
    }

    std::string long_option()
    {
        std::string name = osd_option_table[below(OSD_PARAMS)].name;
        if (chance(30))
            name.resize(below(static_cast<unsigned>(name.size()) + 1));
        if (chance(5))
            name += noise();
        return "--" + name + (chance(75) ? "=" + (chance(75) ? "1" : value()) : "");
    }

    std::string noise()
    {
        std::string text;
        for (unsigned count = below(8); count > 0; count--)
            text += static_cast<char>(1 + below(255));
        return text;
    }

    std::mt19937 random_{20};
};

// Has a good command line the section and the posts that it must have?
bool is_consistent(const osd_options &options)
{
    if (!options.section)
        return options.command > OSD_CMD_UPDATE;
    std::uint32_t posts = options.paramFile ? 15 : 0;
    for (const std::string &pair : pairs_of(options.section))
        posts |= 1u << (pair[4] - '0'); // the digit behind "Post"
    return options.command <= OSD_CMD_UPDATE && options.post == posts &&
           osd_check_section(options.section) == 0;
}

TEST_F(Options, of_random_command_lines_are_refused_or_consistent)
{
    constexpr int lines = 3000;
    RandomLines random;
    int good = 0;
    for (int i = 0; i < lines; i++) {
        const Parsed parsed(random.next());
        SCOPED_TRACE(testing::PrintToString(parsed.words));
        if (parsed.result == 0) {
            good++;
            EXPECT_EQ(parsed.errors, "");
            EXPECT_TRUE(is_consistent(parsed.options));
        } else {
            EXPECT_EQ(parsed.result, -22);
            EXPECT_NE(parsed.errors, "");
            EXPECT_EQ(parsed.options.section, nullptr);
        }
    }
    // Both kinds must be there in numbers, or the test has seen nothing.
    EXPECT_GT(good, lines / 10);
    EXPECT_LT(good, lines - lines / 10);
}

} // namespace
