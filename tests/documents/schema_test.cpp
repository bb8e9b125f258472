// The schema of the parameters takes what the program takes, by another program's reading of it.
#include "cli/catalogue.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/schema.h>

#include <cstdio>
#include <string>
#include <utility>

namespace
{

typedef std::uint64_t Number;

rapidjson::Document read_schema()
{
    rapidjson::Document schema;
    schema.Parse(
        support::read_file(std::string(QM5OSD_BUILD) + "/docs/qm5osd.schema.json").c_str());
    EXPECT_FALSE(schema.HasParseError());
    return schema;
}

// A section as JSON, and as the program has it.
class Section
{
public:
    Section() : pairs_(param_section_new(OSD_SECTION_NAME))
    {
        object_.SetObject();
    }
    Section(const Section &) = delete;
    Section &operator=(const Section &) = delete;
    ~Section()
    {
        param_section_free(pairs_);
    }

    void add(const char *key, Number number)
    {
        add_pair(key, std::to_string(number));
        add_member(key, rapidjson::Value(number));
    }
    void add(const char *key, const std::string &text)
    {
        add_pair(key, text);
        add_member(key, rapidjson::Value(text.c_str(), object_.GetAllocator()));
    }

    bool program_takes_it() const
    {
        return osd_check_section(pairs_) == 0;
    }
    // Is the first value still the same once it was in a file?
    bool file_keeps_it() const
    {
        constexpr const char *path = "/tmp/section.conf";
        const auto value_of = [](const param_section *section) {
            return static_cast<const param_parampair *>(section->pairs->head->data)->value;
        };
        EXPECT_EQ(param_section_write_file(pairs_, path), 0);
        param_seclist *read = param_seclist_new(path);
        const bool kept = std::string(value_of(pairs_)) ==
                          value_of(param_seclist_search_section(read, OSD_SECTION_NAME));
        param_seclist_free(read);
        std::remove(path);
        return kept;
    }
    bool schema_takes_it() const
    {
        static const rapidjson::Document text = read_schema();
        static const rapidjson::SchemaDocument schema(text);
        rapidjson::SchemaValidator validator(schema);
        return object_.Accept(validator);
    }

private:
    void add_pair(const char *key, const std::string &value)
    {
        ASSERT_EQ(cmn_list_append(pairs_->pairs, param_parampair_new(key, value.c_str())), 0);
    }
    void add_member(const char *key, rapidjson::Value value)
    {
        rapidjson::Value name(key, object_.GetAllocator());
        object_.AddMember(name, value, object_.GetAllocator());
    }

    param_section *pairs_;
    rapidjson::Document object_;
};

// Do both judge a section of one parameter so?
template <typename T>
testing::AssertionResult both_say(bool good, const char *key, const T &value)
{
    Section section;
    section.add(key, value);
    const bool program = section.program_takes_it();
    const bool schema = section.schema_takes_it();
    if (program == good && schema == good)
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << key << '=' << value << ": the program says " << program << ", the schema " << schema;
}

// Adds all defaults, but for the font, which has none.
void add_defaults(Section &section, const std::string &font)
{
    for (std::size_t row = 0; row < OSD_PARAMS; row++) {
        const char *key = osd_option_table[row].name;
        const std::string text = osd_default_values[row];
        if (osd_value_ranges[row].kind == OSD_VALUE_NUMBER)
            section.add(key, std::stoul(text));
        else
            section.add(key, std::string(key) == "OsdFontFile" ? font : text);
    }
}

TEST(Schema, default_section_is_good_once_it_has_a_font)
{
    Section section;
    add_defaults(section, "/a font.ttf");
    EXPECT_TRUE(section.program_takes_it());
    EXPECT_TRUE(section.schema_takes_it());
}

TEST(Schema, default_section_lacks_a_font)
{
    Section section;
    add_defaults(section, "");
    EXPECT_FALSE(section.program_takes_it());
    EXPECT_FALSE(section.schema_takes_it());
}

TEST(Schema, empty_section_is_good)
{
    const Section section;
    EXPECT_TRUE(section.program_takes_it());
    EXPECT_TRUE(section.schema_takes_it());
}

TEST(Schema, each_number_goes_from_0_to_its_limit)
{
    int numbers = 0;
    for (std::size_t row = 0; row < OSD_PARAMS; row++) {
        if (osd_value_ranges[row].kind != OSD_VALUE_NUMBER)
            continue;
        numbers++;
        const char *key = osd_option_table[row].name;
        const Number limit = osd_value_ranges[row].limit;
        EXPECT_TRUE(both_say(true, key, Number{0}));
        EXPECT_TRUE(both_say(true, key, limit));
        EXPECT_TRUE(both_say(false, key, limit + 1));
        EXPECT_TRUE(both_say(false, key, Number{1} << 32));
        EXPECT_TRUE(both_say(false, key, std::string()));
        EXPECT_TRUE(both_say(false, key, std::string("x")));
    }
    EXPECT_EQ(numbers, 159);
}

TEST(Schema, each_user_string_goes_to_its_limit)
{
    int strings = 0;
    for (std::size_t row = 0; row < OSD_PARAMS; row++) {
        if (osd_value_ranges[row].kind != OSD_VALUE_STRING)
            continue;
        strings++;
        const char *key = osd_option_table[row].name;
        const std::uint32_t limit = osd_value_ranges[row].limit;
        EXPECT_TRUE(both_say(true, key, std::string()));
        EXPECT_TRUE(both_say(true, key, std::string(limit, 'x')));
        EXPECT_TRUE(both_say(false, key, std::string(limit + 1, 'x')));
    }
    EXPECT_EQ(strings, 4);
}

TEST(Schema, path_needs_a_byte)
{
    EXPECT_TRUE(both_say(true, "OsdFontFile", std::string("x")));
    EXPECT_TRUE(both_say(false, "OsdFontFile", std::string()));
}

TEST(Schema, path_is_no_longer_than_what_a_file_keeps_of_it)
{
    const auto judge = [](std::size_t length) {
        Section section;
        section.add("OsdFontFile", std::string(length, 'x'));
        return std::pair(section.file_keeps_it(), section.schema_takes_it());
    };
    EXPECT_EQ(judge(2036), std::pair(true, true));
    EXPECT_EQ(judge(2037), std::pair(false, false));
}

TEST(Schema, unknown_key_is_refused)
{
    EXPECT_TRUE(both_say(false, "Post4DateOn", Number{0}));
    EXPECT_TRUE(both_say(false, "post0DateOn", Number{0}));
}

TEST(Schema, characters_of_a_text_are_single_bytes_that_a_line_can_hold)
{
    const auto takes = [](const char *text) {
        Section section;
        section.add("Post0String", std::string(text));
        return section.schema_takes_it();
    };
    EXPECT_TRUE(takes("\x01\t\x1f ~"));
    EXPECT_TRUE(takes("gr\u00fc\u00df\u00ff"));
    EXPECT_FALSE(takes("\u0100"));
    EXPECT_FALSE(takes("a\nb"));
}

} // namespace
