// The catalogue of parameters: its rows, validation, defaults and layers.
#include "cli/catalogue.h"
#include "support/osd_test.h"
#include "support/trace.h"
#include "support/wraps.h"
#include "unit/param_records.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

using namespace std::string_literals;
using records::Pair;
using records::Pairs;
using records::Seclist;
using records::Section;
using records::Text;
using support::errors_of;
using support::report;

typedef std::vector<std::string> Texts;

// ---- What the rows are to be --------------------------------------------------------------------

constexpr std::int64_t PATH = -1; // no number, but any text that isn't empty
constexpr std::int64_t USER_STRING = -2;
constexpr std::int64_t LENGTH = 0x7FFFFFFF;

struct Row {
    std::string key;
    std::string text;       // default
    std::int64_t limit = 0; // greatest number, or one of the kinds above
    int val = 4;
};

struct PostRow {
    const char *name;
    const char *text;
    std::int64_t limit;
};

struct RectangleRow {
    const char *before; // what comes before the digit of the rectangle, and behind it
    const char *behind;
    std::array<const char *, 4> texts;
    std::int64_t limit;
};

void put_common_rows(std::vector<Row> &rows)
{
    const Row common[] = {
        {"OsdFontFile", "", PATH},
        {"OsdDateFgColor", "3", 3},
        {"OsdDateBgColor", "0", 3},
        {"OsdTimeFgColor", "3", 3},
        {"OsdTimeBgColor", "0", 3},
        {"OsdTypeFgColor", "3", 15},
        {"OsdTypeBgColor", "0", 15},
        {"OsdStringBgColor", "0", 255},
        {"OsdTVOutSafeSpaceUp", "0", LENGTH},
        {"OsdTVOutSafeSpaceDown", "0", LENGTH},
        {"OsdTVOutSafeSpaceLeft", "0", LENGTH},
        {"OsdTVOutSafeSpaceRight", "0", LENGTH},
    };
    std::copy(std::begin(common), std::end(common), rows.begin());
}

void put_post_rows(std::vector<Row> &rows, int post)
{
    const PostRow own[] = {
        {"DateOn", "0", 1},   {"TimeOn", "0", 1},          {"TypeOn", "0", 1},
        {"StringOn", "0", 1}, {"String", "", USER_STRING}, {"StringColor", "3", 255},
    };
    for (int k = 0; k < 6; k++) {
        rows.at(static_cast<std::size_t>(12 + 6 * post + k)) = {
            "Post" + std::to_string(post) + own[k].name, own[k].text, own[k].limit, post};
    }
}

void put_rectangle_rows(std::vector<Row> &rows, int post, int rectangle)
{
    const RectangleRow own[] = {
        {"Rectangle", "On", {"0", "0", "0", "0"}, 2},
        {"Osd", "ColorType", {"2", "1", "0", "0"}, 2},
        {"Osd", "ColorFg", {"3", "3", "3", "3"}, 255},
        {"Osd", "ColorBg", {"1", "1", "1", "1"}, 255},
        {"Osd", "X", {"0", "0", "0", "0"}, LENGTH},
        {"Osd", "Y", {"0", "0", "0", "0"}, LENGTH},
        {"Osd", "W", {"0", "0", "0", "0"}, LENGTH},
        {"Osd", "H", {"0", "0", "0", "0"}, LENGTH},
    };
    for (int k = 0; k < 8; k++) {
        rows.at(static_cast<std::size_t>(36 + 32 * post + 8 * rectangle + k)) = {
            "Post" + std::to_string(post) + own[k].before + std::to_string(rectangle) +
                own[k].behind,
            own[k].texts[static_cast<std::size_t>(rectangle)], own[k].limit, post};
    }
}

std::vector<Row> make_rows()
{
    std::vector<Row> rows(164);
    put_common_rows(rows);
    for (int post = 0; post < 4; post++) {
        put_post_rows(rows, post);
        for (int rectangle = 0; rectangle < 4; rectangle++)
            put_rectangle_rows(rows, post, rectangle);
    }
    return rows;
}

const std::vector<Row> &expected_rows()
{
    static const std::vector<Row> rows = make_rows();
    return rows;
}

Pairs default_pairs()
{
    Pairs pairs;
    for (const Row &row : expected_rows())
        pairs.emplace_back(row.key, row.text);
    return pairs;
}

// The pairs with some values replaced, each key taking its last.
Pairs overlaid(Pairs pairs, const Pairs &layer)
{
    for (const auto &[key, value] : layer) {
        for (auto &own : pairs) {
            if (own.first == key)
                own.second = value;
        }
    }
    return pairs;
}

// ---- Reports ------------------------------------------------------------------------------------

std::string bad_key(const std::string &key)
{
    return report("", "invalid key '" + key + "'", "osd_check_param");
}

std::string no_value(const std::string &key)
{
    return report("", "invalid value '(null)' of key " + key, "osd_check_param");
}

std::string bad_value(const std::string &key, const std::string &value)
{
    return report("", "invalid value '" + value + "' of key " + key, "osd_check_param");
}

std::string bad_section(const std::string &cause)
{
    return cause + report("", "invalid osd parameter", "osd_check_section");
}

std::string read_error(const std::string &message)
{
    return report("", message, "osd_read_parameter_file");
}

std::string no_header()
{
    return report("", "no section header", "param_seclist_new");
}

std::string bad_file(const std::string &cause)
{
    return bad_section(cause) + read_error("invalid parameter in osd section");
}

// ---- Table --------------------------------------------------------------------------------------

class Catalogue : public support::OsdTest
{
};

TEST_F(Catalogue, rows_are_long_options_in_their_order)
{
    ASSERT_EQ(OSD_PARAMS, 164u);
    ASSERT_EQ(osd_option_table.size(), 165u);
    for (std::size_t i = 0; i < 164; i++) {
        const option &found = osd_option_table[i];
        EXPECT_EQ(found.name, expected_rows()[i].key) << i;
        EXPECT_EQ(found.has_arg, 1) << i;
        EXPECT_EQ(found.flag, nullptr) << i;
        EXPECT_EQ(found.val, expected_rows()[i].val) << i;
    }
}

TEST_F(Catalogue, rows_have_their_defaults)
{
    ASSERT_EQ(osd_default_values.size(), 164u);
    for (std::size_t i = 0; i < 164; i++)
        EXPECT_EQ(osd_default_values[i], expected_rows()[i].text) << i;
}

TEST_F(Catalogue, rows_have_their_ranges)
{
    ASSERT_EQ(osd_value_ranges.size(), 164u);
    for (std::size_t i = 0; i < 164; i++) {
        const Row &row = expected_rows()[i];
        const osd_value_range &range = osd_value_ranges[i];
        if (row.limit == PATH) {
            EXPECT_EQ(range.kind, OSD_VALUE_PATH) << row.key;
        } else if (row.limit == USER_STRING) {
            EXPECT_EQ(range.kind, OSD_VALUE_STRING) << row.key;
            EXPECT_EQ(range.limit, 20u) << row.key;
        } else {
            EXPECT_EQ(range.kind, OSD_VALUE_NUMBER) << row.key;
            EXPECT_EQ(range.limit, row.limit) << row.key;
        }
    }
}

TEST_F(Catalogue, ends_with_a_row_of_zeros)
{
    const option &end = osd_option_table.back();
    EXPECT_EQ(end.name, nullptr);
    EXPECT_EQ(end.has_arg, 0);
    EXPECT_EQ(end.flag, nullptr);
    EXPECT_EQ(end.val, 0);
}

TEST_F(Catalogue, rows_stand_at_their_numbers)
{
    const std::pair<std::size_t, const char *> places[] = {
        {0, "OsdFontFile"},         {11, "OsdTVOutSafeSpaceRight"},
        {12, "Post0DateOn"},        {16, "Post0String"},
        {22, "Post1String"},        {28, "Post2String"},
        {34, "Post3String"},        {35, "Post3StringColor"},
        {36, "Post0Rectangle0On"},  {37, "Post0Osd0ColorType"},
        {40, "Post0Osd0X"},         {43, "Post0Osd0H"},
        {44, "Post0Rectangle1On"},  {68, "Post1Rectangle0On"},
        {108, "Post2Rectangle1On"}, {110, "Post2Osd1ColorFg"},
        {132, "Post3Rectangle0On"}, {160, "Post3Osd3X"},
        {161, "Post3Osd3Y"},        {163, "Post3Osd3H"},
    };
    for (const auto &[row, key] : places)
        EXPECT_STREQ(osd_option_table[row].name, key) << row;
}

TEST_F(Catalogue, keys_are_unique)
{
    std::set<std::string> keys;
    for (std::size_t i = 0; i < 164; i++)
        EXPECT_TRUE(keys.insert(osd_option_table[i].name).second) << osd_option_table[i].name;
}

// ---- Defaults -----------------------------------------------------------------------------------

TEST_F(Catalogue, default_section_holds_all_rows_in_order)
{
    EXPECT_EQ(errors_of([] {
                  const Section section(osd_get_default_section());
                  ASSERT_NE(section, nullptr);
                  EXPECT_STREQ(section->name, "osd");
                  EXPECT_EQ(records::pairs_of(*section), default_pairs());
              }),
              "");
}

TEST_F(Catalogue, default_section_is_made_anew_each_time)
{
    const Section first(osd_get_default_section());
    for (cmn_list_node *node = first->pairs->head; node; node = node->next)
        EXPECT_EQ(param_parampair_set_value(static_cast<param_parampair *>(node->data), "9"), 0);
    first->name[0] = '?';
    const Section second(osd_get_default_section());
    EXPECT_STREQ(second->name, "osd");
    EXPECT_EQ(records::pairs_of(*second), default_pairs());
}

TEST_F(Catalogue, default_section_lacks_only_a_font_file_to_be_valid)
{
    const Section section(osd_get_default_section());
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(osd_check_section(section.get()), -22); }),
              bad_section(no_value("OsdFontFile")));
    const Pair font(param_parampair_new("OsdFontFile", "/font"));
    EXPECT_EQ(osd_section_set_parampair(font.get(), section.get()), 0);
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(osd_check_section(section.get()), 0); }), "");
}

// What default sections report whose allocations fail in turn: three for the section, then for
// each row three for its pair and one to append it.
Texts default_section_errors()
{
    const auto own = [](const char *message) {
        return report("", message, "osd_get_default_section");
    };
    const std::string section =
        report("", "no memory", "param_section_new") + own("failed to create osd section");
    const std::string pair =
        report("", "no memory", "param_parampair_new") + own("failed to create param pair");
    Texts errors = {section, section, section};
    for (int row = 0; row < 164; row++)
        errors.insert(errors.end(), {pair, pair, pair, own("failed to append param pair")});
    return errors;
}

TEST_F(Catalogue, default_section_is_not_made_without_memory)
{
    EXPECT_EQ(records::errors_without_memory(
                  [] { return Section(osd_get_default_section()) != nullptr; }),
              default_section_errors());
}

// ---- Validation of one pair ---------------------------------------------------------------------

class CatalogueCheck : public support::OsdTest
{
protected:
    // Result of the check of one pair, with what it reports.
    typedef std::pair<int, std::string> Verdict;

    static Verdict check(const char *key, const char *value)
    {
        const Pair pair = records::make_pair(key, value);
        int result = 1;
        std::string errors = errors_of([&] { result = osd_check_param(pair.get(), nullptr); });
        return {result, errors};
    }

    static void expect_good(const std::string &key, const std::string &value)
    {
        EXPECT_EQ(check(key.c_str(), value.c_str()), Verdict(0, "")) << key << "=" << value;
    }

    static void expect_bad(const std::string &key, const std::string &value)
    {
        EXPECT_EQ(check(key.c_str(), value.c_str()), Verdict(-22, bad_value(key, value)));
    }
};

TEST_F(CatalogueCheck, numbers_are_good_from_zero_to_the_limit_of_their_row)
{
    int numbers = 0;
    for (const Row &row : expected_rows()) {
        if (row.limit < 0)
            continue;
        numbers++;
        for (const std::int64_t good : {std::int64_t(0), std::int64_t(1), row.limit})
            expect_good(row.key, std::to_string(good));
        for (const std::int64_t bad : {row.limit + 1, std::int64_t(-1), std::int64_t(4294967295)})
            expect_bad(row.key, std::to_string(bad));
    }
    EXPECT_EQ(numbers, 159);
}

TEST_F(CatalogueCheck, every_row_but_the_user_strings_needs_a_value)
{
    for (const Row &row : expected_rows()) {
        const bool is_string = row.limit == USER_STRING;
        const Verdict verdict = is_string ? Verdict(0, "") : Verdict(-22, no_value(row.key));
        EXPECT_EQ(check(row.key.c_str(), nullptr), verdict);
        EXPECT_EQ(check(row.key.c_str(), ""), verdict);
    }
}

TEST_F(CatalogueCheck, defaults_of_numbers_are_good)
{
    for (const Row &row : expected_rows()) {
        if (row.limit != PATH)
            expect_good(row.key, row.text);
    }
}

TEST_F(CatalogueCheck, font_file_is_any_text)
{
    for (const std::string &value :
         {"/a"s, " "s, "0"s, "-1"s, "\n"s, "\xff"s, "=;[]"s, std::string(5000, 'f')})
        expect_good("OsdFontFile", value);
}

TEST_F(CatalogueCheck, user_string_has_at_most_20_bytes)
{
    for (const char post : {'0', '1', '2', '3'}) {
        const std::string key = "Post"s + post + "String";
        for (const std::string &value :
             {std::string(20, 'x'), std::string(20, ' '), " a "s, "-1"s, "99999999999"s, "=;[]"s,
              "a\nb"s,
              "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4"
              "\xc3\xa4"s})
            expect_good(key, value);
        for (const std::string &value :
             {std::string(21, 'x'), std::string(21, ' '), std::string(2000, 'x'),
              "\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4\xc3\xa4"
              "\xc3\xa4."s})
            expect_bad(key, value);
    }
}

TEST_F(CatalogueCheck, numbers_are_read_with_a_long_of_32_bits)
{
    const std::pair<const char *, bool> cases[] = {
        {"0", true},
        {"2147483647", true},
        {"2147483648", false},
        {"4294967295", false},
        {"4294967296", false}, // too large: saturates, and doesn't wrap to 0
        {"4294967297", false},
        {"8589934592", false},
        {"18446744073709551615", false},
        {"18446744073709551616", false},
        {"18446744073709551617", false},
        {"99999999999999999999999999", false},
        {"-0", true},
        {"-1", false},
        {"-2147483648", false},
        {"-2147483649", true}, // wraps to 2147483647
        {"-4294967295", true}, // wraps to 1
        {"-4294967296", false},
        {"-4294967297", false},
        {"-18446744073709551615", false},
        {"-18446744073709551616", false},
        {"-99999999999999999999999999", false},
    };
    for (const auto &[value, good] : cases)
        good ? expect_good("Post0Osd0X", value) : expect_bad("Post0Osd0X", value);
}

TEST_F(CatalogueCheck, a_number_that_wraps_is_held_against_the_limit)
{
    for (const char *value : {"-4294967295", " -4294967295", "\t-04294967295"})
        expect_good("Post0DateOn", value);
    expect_bad("Post0DateOn", "-4294967294"); // 2
    expect_good("Post0Rectangle0On", "-4294967294");
    expect_bad("Post0Rectangle0On", "-4294967293");
}

TEST_F(CatalogueCheck, a_number_may_follow_white_space_and_one_sign)
{
    for (const char *value : {"1", "+1", " 1", "   1", "\t1", "\n1", "\v1", "\f1", "\r1",
                              " \t\n\v\f\r+1", "01", "0000000000000000000000000001", "-0", "+0"})
        expect_good("Post0DateOn", value);
    for (const char *value : {"1 ", "1\n", "1\r", "1\t", " 1 ", "+ 1", "- 1", "++1", "+-1", "-+1",
                              "--1", "+", "-", " ", "\t", " +", "1+",
                              "\x01"
                              "1",
                              "\xa0"
                              "1"})
        expect_bad("Post0DateOn", value);
}

TEST_F(CatalogueCheck, a_number_is_decimal)
{
    for (const char *value : {"017", "015x", "0x1", "0x10", "0X1", "x", "a", "1a", "1.0", "1e0",
                              "1,0", "0b1", "1_0", "1'0", "\xb2"})
        expect_bad("OsdTypeFgColor", value);
    for (const char *value : {"08", "09", "010", "012", "015"})
        expect_good("OsdTypeFgColor", value);
}

TEST_F(CatalogueCheck, keys_are_compared_whole_and_byte_by_byte)
{
    for (const char *key :
         {"", "Post0DateO", "Post0DateOnx", "post0DateOn", "POST0DATEON", " Post0DateOn",
          "Post0DateOn ", "PostXDateOn", "Post4DateOn", "Post0Osd4X", "Post4Osd0X", "Post0Osd0x",
          "Post0Rectangle4On", "Post0Osd0Z", "Post00String", "OsdFontfile", "OsdTypeColor", "0"})
        EXPECT_EQ(check(key, "1"), Verdict(-22, bad_key(key)));
}

TEST_F(CatalogueCheck, no_key_is_taken_with_a_byte_more_or_less)
{
    for (const Row &row : expected_rows()) {
        for (const std::string &key : {row.key + "x", row.key.substr(0, row.key.size() - 1)})
            EXPECT_EQ(check(key.c_str(), "1"), Verdict(-22, bad_key(key)));
    }
}

TEST_F(CatalogueCheck, a_very_long_key_is_cut_in_the_report)
{
    const std::string key = "Post0DateOn" + std::string(3000, 'k');
    const std::string message = "invalid key '" + key + "'";
    EXPECT_EQ(check(key.c_str(), "1"),
              Verdict(-22, report("", message.substr(0, 2048), "osd_check_param")));
}

TEST_F(CatalogueCheck, a_missing_key_is_bad_whatever_the_value)
{
    EXPECT_EQ(check(nullptr, "1"), Verdict(-22, bad_key("(null)")));
    EXPECT_EQ(check(nullptr, nullptr), Verdict(-22, bad_key("(null)")));
    EXPECT_EQ(check("nokey", nullptr), Verdict(-22, bad_key("nokey")));
}

TEST_F(CatalogueCheck, takes_no_data_before_it_looks_at_the_pair)
{
    int data = 0;
    const std::string error = report("", "pData should always be NULL", "osd_check_param");
    for (const char *key : {"Post0DateOn", "nokey", static_cast<const char *>(nullptr)}) {
        const Pair pair = records::make_pair(key, "1");
        EXPECT_EQ(errors_of([&] { EXPECT_EQ(osd_check_param(pair.get(), &data), -22); }), error);
    }
}

TEST_F(CatalogueCheck, shows_the_role)
{
    cmn_role = "update";
    EXPECT_EQ(
        check("Post0DateOn", "2"),
        Verdict(-22, report("update", "invalid value '2' of key Post0DateOn", "osd_check_param")));
}

// A value of 32 bits as strtoul(3) reads it; nothing if that stops before the end.
std::optional<std::uint32_t> model_number(std::string_view text)
{
    constexpr std::uint64_t greatest = 4294967295;
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    const bool minus = text.starts_with('-');
    if (minus || text.starts_with('+'))
        text.remove_prefix(1);
    if (text.empty() || text.find_first_not_of("0123456789") != text.npos)
        return std::nullopt;
    std::uint64_t value = 0;
    for (const char digit : text)
        value = std::min(value * 10 + static_cast<std::uint64_t>(digit - '0'), greatest + 1);
    if (value > greatest)
        return static_cast<std::uint32_t>(greatest);
    return static_cast<std::uint32_t>(minus ? 0 - value : value);
}

// What the check of a pair should report, "" for a good one.
std::string model_check(const std::string &key, const Text &value)
{
    const auto row = std::find_if(expected_rows().begin(), expected_rows().end(),
                                  [&](const Row &each) { return each.key == key; });
    if (row == expected_rows().end())
        return bad_key(key);
    if (row->limit == USER_STRING)
        return !value || value->size() <= 20 ? "" : bad_value(key, *value);
    if (!value || value->empty())
        return no_value(key);
    if (row->limit == PATH)
        return "";
    const auto number = model_number(*value);
    return number && *number <= row->limit ? "" : bad_value(key, *value);
}

std::string random_number(std::mt19937 &random)
{
    static const std::uint64_t edges[] = {0, 2, 4, 16, 256, 2147483648, 4294967296, 8589934592};
    std::string text;
    while (random() % 4 == 0)
        text += " \t\n\v\f\r"[random() % 6];
    if (random() % 2 == 0)
        text += "+--"[random() % 3];
    text.append(random() % 8 == 0 ? 1 + random() % 30 : 0, '0');
    text += std::to_string(edges[random() % std::size(edges)] + random() % 5 - 2);
    if (random() % 8 == 0)
        text += "0 x-9"[random() % 5];
    return text;
}

TEST_F(CatalogueCheck, judges_random_numbers_as_the_target_reads_them)
{
    std::mt19937 random(4711);
    int good = 0;
    for (int i = 0; i < 2000; i++) {
        const std::string &key = expected_rows()[random() % 164].key;
        const std::string value = random_number(random);
        const std::string errors = model_check(key, value);
        ASSERT_EQ(check(key.c_str(), value.c_str()), Verdict(errors.empty() ? 0 : -22, errors));
        good += errors.empty();
    }
    EXPECT_GT(good, 200);
    EXPECT_LT(good, 1800);
}

// ---- Validation of a section --------------------------------------------------------------------

class CatalogueSection : public support::OsdTest
{
protected:
    static std::pair<int, std::string> check(const Section &section)
    {
        int result = 1;
        std::string errors = errors_of([&] { result = osd_check_section(section.get()); });
        return {result, errors};
    }
};

typedef std::pair<int, std::string> Outcome; // a result, and what was reported

TEST_F(CatalogueSection, must_have_the_name)
{
    const std::string error = report("", "not osd section", "osd_check_section");
    for (const Text &name : {Text(), Text(""), Text("OSD"), Text("os"), Text("osdx"), Text("osd "),
                             Text(" osd"), Text("[osd]")}) {
        const Section section = records::make_section(name, {{"nokey", "1"}});
        EXPECT_EQ(check(section), Outcome(-22, error));
    }
}

TEST_F(CatalogueSection, may_be_empty)
{
    EXPECT_EQ(check(records::make_section("osd", {})), Outcome(0, ""));
}

TEST_F(CatalogueSection, may_repeat_keys_but_each_pair_is_judged)
{
    EXPECT_EQ(check(records::make_section("osd", {{"Post0DateOn", "1"}, {"Post0DateOn", "0"}})),
              Outcome(0, ""));
    EXPECT_EQ(check(records::make_section("osd", {{"Post0DateOn", "2"}, {"Post0DateOn", "0"}})),
              Outcome(-22, bad_section(bad_value("Post0DateOn", "2"))));
    EXPECT_EQ(check(records::make_section("osd", {{"Post0DateOn", "1"}, {"Post0DateOn", "3"}})),
              Outcome(-22, bad_section(bad_value("Post0DateOn", "3"))));
}

TEST_F(CatalogueSection, is_left_at_its_first_bad_pair)
{
    const Section section = records::make_section(
        "osd", {{"Post0DateOn", "1"}, {"Post1Osd2X", "x"}, {"nokey", "1"}, {"Post0DateOn", "2"}});
    EXPECT_EQ(check(section), Outcome(-22, bad_section(bad_value("Post1Osd2X", "x"))));
}

TEST_F(CatalogueSection, relates_no_value_to_another)
{
    EXPECT_EQ(check(records::make_section("osd", {{"Post0Osd0ColorType", "0"},
                                                  {"Post0Osd0ColorFg", "255"},
                                                  {"Post0Osd0X", "2147483647"},
                                                  {"Post0Osd0W", "2147483647"}})),
              Outcome(0, ""));
}

TEST_F(CatalogueSection, without_a_pair_list_is_bad)
{
    char name[] = "osd";
    const param_section bare = {name, nullptr};
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(osd_check_section(&bare), -22); }), bad_section(""));
}

// ---- Layers -------------------------------------------------------------------------------------

const std::string path = "/tmp/parameters.txt";

std::string set_error(const std::string &cause)
{
    return cause + report("", "search set parampair failed", "osd_section_set_parampair");
}

std::string overwrite_error(const std::string &cause)
{
    return set_error(cause) + report("", "failed to set section", "osd_section_overwrite");
}

std::string missing_key(const std::string &key, const std::string &section)
{
    return report("", "key " + key + " is not found in section " + section,
                  "param_section_search_set_parampair");
}

std::string lost_value(const std::string &key)
{
    return report("", "no memory", "param_parampair_set_value") +
           report("", "failed to set value to key " + key, "param_section_search_set_parampair");
}

class CatalogueLayers : public support::OsdTest
{
protected:
    static Outcome set(const Section &target, const char *key, const char *value)
    {
        const Pair pair(param_parampair_new(key, value));
        int result = 1;
        std::string errors =
            errors_of([&] { result = osd_section_set_parampair(pair.get(), target.get()); });
        return {result, errors};
    }

    static Outcome overwrite(const Section &target, const Section &source)
    {
        int result = 1;
        std::string errors =
            errors_of([&] { result = osd_section_overwrite(target.get(), source.get()); });
        return {result, errors};
    }

    static Outcome read(const Section &target, std::string_view text)
    {
        int result = 1;
        support::write_file(path, text);
        std::string errors =
            errors_of([&] { result = osd_read_parameter_file(target.get(), path.c_str()); });
        support::remove_file(path);
        return {result, errors};
    }

    // A refused file, which leaves the defaults as they are.
    static void expect_refusal(std::string_view text, int result, const std::string &errors)
    {
        const Section target(osd_get_default_section());
        EXPECT_EQ(read(target, text), Outcome(result, errors)) << text;
        EXPECT_EQ(records::pairs_of(*target), default_pairs()) << text;
    }

    // A file that lays these values over the defaults.
    static void expect_layer(std::string_view text, const Pairs &layer)
    {
        const Section target(osd_get_default_section());
        EXPECT_EQ(read(target, text), Outcome(0, "")) << text;
        EXPECT_EQ(records::pairs_of(*target), overlaid(default_pairs(), layer)) << text;
    }
};

TEST_F(CatalogueLayers, pair_with_a_value_is_set)
{
    const Section target = records::make_section("osd", {{"a", "1"}, {"b", "2"}});
    EXPECT_EQ(set(target, "b", "3"), Outcome(0, ""));
    EXPECT_EQ(set(target, "a", ""), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"a", ""}, {"b", "3"}}));
}

TEST_F(CatalogueLayers, pair_without_a_value_is_passed_over)
{
    const Section target = records::make_section("osd", {{"a", "1"}});
    EXPECT_EQ(set(target, "a", nullptr), Outcome(0, ""));
    EXPECT_EQ(set(target, "nokey", nullptr), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"a", "1"}}));
}

TEST_F(CatalogueLayers, pair_that_the_target_lacks_is_not_added)
{
    const Section target = records::make_section("osd", {{"a", "1"}});
    EXPECT_EQ(set(target, "b", "2"), Outcome(-14, set_error(missing_key("b", "osd"))));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"a", "1"}}));
}

TEST_F(CatalogueLayers, pair_needs_memory_and_a_target)
{
    const Section target = records::make_section("osd", {{"a", "1"}});
    const Pair pair(param_parampair_new("a", "2"));
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_EQ(
        errors_of([&] { EXPECT_EQ(osd_section_set_parampair(pair.get(), target.get()), -14); }),
        set_error(lost_value("a")));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"a", std::nullopt}}));
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(osd_section_set_parampair(pair.get(), nullptr), -14); }),
              set_error(report("", "invalid parameter", "param_section_search_set_parampair")));
}

TEST_F(CatalogueLayers, pairs_are_overwritten_in_their_order)
{
    const Section target(osd_get_default_section());
    const Section source = records::make_section("options", {{"Post3Osd3H", "8"},
                                                             {"Post0DateOn", "1"},
                                                             {"OsdFontFile", "/a"},
                                                             {"Post0DateOn", "0"},
                                                             {"OsdFontFile", "/b"},
                                                             {"OsdFontFile", std::nullopt}});
    EXPECT_EQ(overwrite(target, source), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*target),
              overlaid(default_pairs(), {{"Post3Osd3H", "8"}, {"OsdFontFile", "/b"}}));
}

TEST_F(CatalogueLayers, an_empty_text_clears_a_user_string_and_no_value_does_not)
{
    const Section target(osd_get_default_section());
    const auto option = [](Text value) {
        return records::make_section("osd", {{"Post0String", value}});
    };
    EXPECT_EQ(overwrite(target, option(" text ")), Outcome(0, ""));
    EXPECT_EQ(overwrite(target, option(std::nullopt)), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*target), overlaid(default_pairs(), {{"Post0String", " text "}}));
    EXPECT_EQ(overwrite(target, option("")), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*target), default_pairs());
}

TEST_F(CatalogueLayers, overwriting_leaves_nothing_shared)
{
    const Section target = records::make_section("osd", {{"a", "1"}});
    EXPECT_EQ(overwrite(target, records::make_section("osd", {{"a", "2"}})), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"a", "2"}}));
}

TEST_F(CatalogueLayers, an_empty_section_overwrites_nothing)
{
    const Section target = records::make_section("osd", {{"a", "1"}});
    EXPECT_EQ(overwrite(target, records::make_section("osd", {})), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"a", "1"}}));
}

TEST_F(CatalogueLayers, overwriting_ends_at_the_first_failure)
{
    const Section target = records::make_section("name", {{"a", "1"}, {"b", "1"}});
    const Section source = records::make_section("osd", {{"a", "2"}, {"c", "2"}, {"b", "2"}});
    EXPECT_EQ(overwrite(target, source), Outcome(-14, overwrite_error(missing_key("c", "name"))));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"a", "2"}, {"b", "1"}}));
}

TEST_F(CatalogueLayers, overwriting_needs_memory_for_each_value)
{
    const Section source =
        records::make_section("osd", {{"a", "2"}, {"b", std::nullopt}, {"c", "2"}});
    const Section target = records::make_section("osd", {{"a", "1"}, {"b", "1"}, {"c", "1"}});
    EXPECT_EQ(records::errors_without_memory(
                  [&] { return osd_section_overwrite(target.get(), source.get()) == 0; }),
              (Texts{overwrite_error(lost_value("a")), overwrite_error(lost_value("c"))}));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"a", "2"}, {"b", "1"}, {"c", "2"}}));
}

TEST_F(CatalogueLayers, overwriting_from_a_section_without_a_pair_list_fails)
{
    const Section target = records::make_section("osd", {{"a", "1"}});
    char name[] = "osd";
    const param_section bare = {name, nullptr};
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(osd_section_overwrite(target.get(), &bare), -14); }),
              report("", "failed to set section", "osd_section_overwrite"));
}

// ---- Files as layers ----------------------------------------------------------------------------

TEST_F(CatalogueLayers, file_overlays_what_it_holds)
{
    expect_layer(
        "[osd]\nPost2Osd1ColorFg=255\nOsdFontFile=/font file\nPost1String= a \n",
        {{"Post2Osd1ColorFg", "255"}, {"OsdFontFile", "/font file"}, {"Post1String", " a "}});
    expect_layer("[osd]\n", {});
}

TEST_F(CatalogueLayers, file_with_a_repeated_key_leaves_its_last_value)
{
    expect_layer("[osd]\nPost0String=a\nPost0String=b\nPost0String=\n", {{"Post0String", "b"}});
    expect_refusal("[osd]\nPost0DateOn=2\nPost0DateOn=1\n", -22,
                   bad_file(bad_value("Post0DateOn", "2")));
}

TEST_F(CatalogueLayers, file_is_only_looked_at_in_its_first_section_of_the_name)
{
    expect_layer("[other]\nnokey=1\nPost0DateOn=9\n[osd]\nPost0DateOn=1\n[more]\nnokey=\n"
                 "[osd]\nPost0DateOn=9\nPost0TimeOn=1\n",
                 {{"Post0DateOn", "1"}});
    expect_layer("[osd]\n[osd]\nnokey=1\n", {});
}

TEST_F(CatalogueLayers, file_must_have_the_section)
{
    const std::string error = read_error("no osd section in parameter file");
    for (const char *text : {"", ";[osd]\n", "[OSD]\nPost0DateOn=1\n", "[osd ]\n", "[]\n[os]\n"})
        expect_refusal(text, -14, error);
}

TEST_F(CatalogueLayers, file_is_validated_whole_before_it_is_applied)
{
    expect_refusal("[osd]\nPost0TimeOn=1\nPost0DateOn=2\nnokey=1\n", -22,
                   bad_file(bad_value("Post0DateOn", "2")));
    expect_refusal("[osd]\nPost0TimeOn=1\nnokey=1\n", -22, bad_file(bad_key("nokey")));
    expect_refusal("[osd]\nPost0TimeOn=1\n#Post0DateOn=1\n", -22,
                   bad_file(bad_key("#Post0DateOn")));
    expect_refusal("[osd]\nPost0TimeOn=1\r\n", -22, bad_file(bad_value("Post0TimeOn", "1\r")));
}

TEST_F(CatalogueLayers, file_with_missing_values_is_refused_but_for_user_strings)
{
    expect_refusal("[osd]\nPost0DateOn=\n", -22, bad_file(no_value("Post0DateOn")));
    expect_refusal("[osd]\nOsdFontFile=\n", -22, bad_file(no_value("OsdFontFile")));
    const Section target(osd_get_default_section());
    EXPECT_EQ(read(target, "[osd]\nPost0String=text\n"), Outcome(0, ""));
    EXPECT_EQ(read(target, "[osd]\nPost0String=\n"), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*target), overlaid(default_pairs(), {{"Post0String", "text"}}));
}

TEST_F(CatalogueLayers, file_with_a_cut_line_is_judged_by_what_is_left)
{
    const std::string path_value(2047 - 11, 'f');
    expect_layer("[osd]\nOsdFontFile=" + path_value + "rest\n", {{"OsdFontFile", path_value}});
    const std::string string_value(2047 - 11, 's');
    const std::string message = "invalid value '" + string_value + "' of key Post0String";
    expect_refusal("[osd]\nPost0String=" + string_value + "rest\n", -22,
                   bad_file(report("", message.substr(0, 2048), "osd_check_param")));
}

TEST_F(CatalogueLayers, file_that_can_not_be_read_is_reported)
{
    const Section target(osd_get_default_section());
    EXPECT_EQ(
        errors_of([&] { EXPECT_EQ(osd_read_parameter_file(target.get(), "/tmp/none"), -14); }),
        report("", "cannot open file /tmp/none(No such file or directory)", "param_seclist_new") +
            read_error("failed to read parameter file"));
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(osd_read_parameter_file(target.get(), nullptr), -14); }),
              report("", "invalid parameter", "param_seclist_new") +
                  read_error("failed to read parameter file"));
    expect_refusal("Post0DateOn=1\n[osd]\n", -14,
                   no_header() + read_error("failed to read parameter file"));
}

TEST_F(CatalogueLayers, file_is_opened_once_for_reading)
{
    wraps::trace(wraps::FOPEN);
    expect_layer("[osd]\n", {});
    EXPECT_EQ(support::take_trace(), support::Lines{"fopen(" + path + ", r)"});
}

TEST_F(CatalogueLayers, file_is_searched_for_the_name_of_the_target)
{
    const Section target = records::make_section("other", {{"Post0DateOn", "0"}});
    EXPECT_EQ(read(target, "[osd]\nPost0DateOn=1\n"),
              Outcome(-14, read_error("no other section in parameter file")));
    EXPECT_EQ(read(target, "[osd]\n[other]\nPost0DateOn=1\n"),
              Outcome(-22, report("", "not osd section", "osd_check_section") +
                               read_error("invalid parameter in osd section")));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"Post0DateOn", "0"}}));
}

TEST_F(CatalogueLayers, file_with_a_key_that_the_target_lacks_fails_at_it)
{
    const Section target = records::make_section("osd", {{"Post0DateOn", "0"}});
    EXPECT_EQ(read(target, "[osd]\nPost0DateOn=1\nPost0TimeOn=1\n"),
              Outcome(-14, overwrite_error(missing_key("Post0TimeOn", "osd")) +
                               read_error("failed to set parameters to osd section")));
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"Post0DateOn", "1"}}));
}

// What the reading of a file with one pair in two sections reports whose allocations fail in turn.
Texts read_errors()
{
    const auto unread = [](const std::string &cause) {
        return cause + read_error("failed to read parameter file");
    };
    const std::string list = unread(report("", "cannot create section list", "param_seclist_new"));
    const std::string section = unread(report("", "no memory", "param_section_new"));
    const std::string pair = unread(report("", "no memory", "param_parampair_new"));
    const std::string append = unread("");
    const std::string value = overwrite_error(lost_value("Post0DateOn")) +
                              read_error("failed to set parameters to osd section");
    return {list,    section, section, section, append, pair, pair, pair,   append,
            section, section, section, append,  pair,   pair, pair, append, value};
}

TEST_F(CatalogueLayers, file_is_not_read_without_memory)
{
    support::write_file(path, "[osd]\nPost0DateOn=1\n[other]\na=1\n");
    const Section target = records::make_section("osd", {{"Post0DateOn", "0"}});
    EXPECT_EQ(records::errors_without_memory(
                  [&] { return osd_read_parameter_file(target.get(), path.c_str()) == 0; }),
              read_errors());
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"Post0DateOn", "1"}}));
    support::remove_file(path);
}

TEST_F(CatalogueLayers, later_layers_win_key_by_key_and_a_failed_one_leaves_the_earlier)
{
    const Section target(osd_get_default_section());
    EXPECT_EQ(read(target, "[osd]\nOsdFontFile=/common\nPost0DateOn=1\nPost0TimeOn=1\n"),
              Outcome(0, ""));
    EXPECT_EQ(read(target, "[osd]\nPost0TimeOn=0\nPost0TypeOn=1\n"), Outcome(0, ""));
    EXPECT_EQ(read(target, "[osd]\nPost0DateOn=0\nPost0TypeOn=5\n"),
              Outcome(-22, bad_file(bad_value("Post0TypeOn", "5"))));
    EXPECT_EQ(records::pairs_of(*target),
              overlaid(default_pairs(),
                       {{"OsdFontFile", "/common"}, {"Post0DateOn", "1"}, {"Post0TypeOn", "1"}}));
}

TEST_F(CatalogueLayers, written_defaults_are_refused_for_want_of_a_font_file)
{
    const Section defaults(osd_get_default_section());
    ASSERT_EQ(param_section_write_file(defaults.get(), path.c_str()), 0);
    const std::string text = support::read_file(path);
    std::string expected = "[osd]\n";
    for (const Row &row : expected_rows())
        expected += row.key + "=" + row.text + "\n";
    EXPECT_EQ(text, expected);
    support::remove_file(path);
    expect_refusal(text, -22, bad_file(no_value("OsdFontFile")));
}

TEST_F(CatalogueLayers, written_parameters_are_read_back)
{
    const Pairs values = {
        {"OsdFontFile", "/font"}, {"Post0String", " a=b;c "}, {"Post3Osd3H", "1"}};
    const Section defaults(osd_get_default_section());
    ASSERT_EQ(overwrite(defaults, records::make_section("osd", values)), Outcome(0, ""));
    ASSERT_EQ(param_section_write_file(defaults.get(), path.c_str()), 0);
    const std::string text = support::read_file(path);
    support::remove_file(path);
    expect_layer(text, values);
}

TEST_F(CatalogueLayers, line_feed_in_a_user_string_splits_its_line)
{
    const Section options = records::make_section(
        "osd", {{"Post0String", "a\nPost1DateOn=1"}, {"Post1String", "b\nrest"}});
    EXPECT_EQ(osd_check_section(options.get()), 0);
    ASSERT_EQ(param_section_write_file(options.get(), path.c_str()), 0);
    const std::string text = support::read_file(path);
    support::remove_file(path);
    expect_layer(text, {{"Post0String", "a"}, {"Post1DateOn", "1"}, {"Post1String", "b"}});
}

// ---- Random files -------------------------------------------------------------------------------

std::string random_value(std::mt19937 &random)
{
    static const std::string values[] = {"0",
                                         "1",
                                         "2",
                                         "3",
                                         "15",
                                         "255",
                                         "2147483647",
                                         " 1",
                                         "-4294967295",
                                         "007",
                                         "a",
                                         "",
                                         "4",
                                         "256",
                                         "2147483648",
                                         "-1",
                                         "1 ",
                                         "0x10",
                                         "12345678901234567890",
                                         "123456789012345678901",
                                         "1\0"s,
                                         "1\n"s,
                                         "1\r",
                                         "=",
                                         ";",
                                         "\n[osd]"};
    const auto pick = random() % 8; // mostly the good ones that many keys take
    return values[pick < 6 ? pick % 2 : random() % std::size(values)];
}

std::string random_line(std::mt19937 &random)
{
    static const std::string lines[] = {"[osd]\n", "[other]\n", ";", "\n", "\0"s, "\0\n"s,
                                        "[osd\n",  "nokey=1\n", "=", "]",  "[",   "word\n"};
    const auto kind = random() % 32;
    if (kind == 0)
        return lines[random() % std::size(lines)];
    if (kind == 1)
        return std::string(1, static_cast<char>(random() % 256));
    const std::string &key = expected_rows()[random() % 164].key;
    return key + "=" + random_value(random) + "\n";
}

std::string random_file(std::mt19937 &random)
{
    std::string text = random() % 16 ? "[osd]\n" : "";
    for (auto lines = random() % 8; lines > 0; lines--)
        text += random_line(random);
    return text;
}

// What the reading of a file should come to, told by the sections in it.
Outcome model_read(const param_seclist *seclist)
{
    if (!seclist)
        return {-14, no_header() + read_error("failed to read parameter file")};
    for (const auto &[name, pairs] : records::sections_of(*seclist)) {
        if (name != "osd")
            continue;
        for (const auto &[key, value] : pairs) {
            const std::string error = model_check(*key, value);
            if (!error.empty())
                return {-22, bad_file(error)};
        }
        return {0, ""};
    }
    return {-14, read_error("no osd section in parameter file")};
}

// The pairs with a value of the first section "osd".
Pairs layer_of(const param_seclist *seclist)
{
    Pairs layer = records::pairs_of(*param_seclist_search_section(seclist, "osd"));
    std::erase_if(layer, [](const auto &pair) { return !pair.second; });
    return layer;
}

TEST_F(CatalogueLayers, random_files_are_refused_or_laid_over_one_another)
{
    std::mt19937 random(271828);
    const Section target(osd_get_default_section());
    Pairs expected = overlaid(default_pairs(), {{"OsdFontFile", "/font"}});
    ASSERT_EQ(read(target, "[osd]\nOsdFontFile=/font\n"), Outcome(0, ""));
    int taken = 0;
    constexpr int files = 1000;
    for (int file = 0; file < files; file++) {
        Seclist seclist; // the same file once more
        Outcome found;
        support::write_file(path, random_file(random));
        found.second = errors_of([&] {
            found.first = osd_read_parameter_file(target.get(), path.c_str());
            seclist.reset(param_seclist_new(path.c_str()));
        });
        Outcome outcome = model_read(seclist.get());
        outcome.second += seclist ? "" : no_header();
        ASSERT_EQ(found, outcome) << "file " << file;
        if (outcome.first == 0) {
            expected = overlaid(expected, layer_of(seclist.get()));
            taken++;
        }
        ASSERT_EQ(records::pairs_of(*target), expected) << "file " << file;
    }
    support::remove_file(path);
    EXPECT_GT(taken, files / 5);
    EXPECT_LT(taken, files * 4 / 5);
    EXPECT_EQ(osd_check_section(target.get()), 0);
}

} // namespace
