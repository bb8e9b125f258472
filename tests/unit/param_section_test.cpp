// Sections, pairs and section lists in memory.
#include "param/param.h"
#include "support/osd_test.h"
#include "support/wraps.h"
#include "unit/param_records.h"

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace
{

using records::Pair;
using records::Pairs;
using records::Seclist;
using records::Section;
using support::errors_of;
using support::report;

std::string invalid(const char *reporter)
{
    return report("", "invalid parameter", reporter);
}

std::string no_memory(const char *reporter)
{
    return report("", "no memory", reporter);
}

// ---- Pairs --------------------------------------------------------------------------------------

class ParamPair : public support::OsdTest
{
};

TEST_F(ParamPair, records_have_their_fields_in_order)
{
    EXPECT_EQ(offsetof(param_parampair, key), 0u);
    EXPECT_EQ(offsetof(param_parampair, value), sizeof(char *));
    EXPECT_EQ(offsetof(param_section, name), 0u);
    EXPECT_EQ(offsetof(param_section, pairs), sizeof(char *));
    EXPECT_TRUE((std::is_same_v<param_seclist, cmn_list>));
}

TEST_F(ParamPair, holds_private_copies)
{
    char key[] = "key";
    char value[] = "value";
    const Pair pair(param_parampair_new(key, value));
    key[0] = value[0] = '?';
    EXPECT_STREQ(pair->key, "key");
    EXPECT_STREQ(pair->value, "value");
}

TEST_F(ParamPair, tells_no_value_from_an_empty_value)
{
    const Pair without(param_parampair_new("key", nullptr));
    EXPECT_STREQ(without->key, "key");
    EXPECT_EQ(without->value, nullptr);
    const Pair empty(param_parampair_new("key", ""));
    EXPECT_STREQ(empty->value, "");
}

TEST_F(ParamPair, may_have_an_empty_key)
{
    const Pair pair(param_parampair_new("", "value"));
    EXPECT_STREQ(pair->key, "");
    EXPECT_STREQ(pair->value, "value");
}

TEST_F(ParamPair, texts_have_no_limit_and_every_byte_is_kept)
{
    const std::string key(100000, 'k');
    const std::string value = " \t\r\n;[]=\x01\xff" + std::string(100000, 'v');
    const Pair pair(param_parampair_new(key.c_str(), value.c_str()));
    EXPECT_EQ(pair->key, key);
    EXPECT_EQ(pair->value, value);
}

TEST_F(ParamPair, needs_a_key)
{
    EXPECT_EQ(errors_of([] { EXPECT_EQ(param_parampair_new(nullptr, "value"), nullptr); }),
              invalid("param_parampair_new"));
    EXPECT_EQ(wraps::calls(wraps::CALLOC), 0);
}

TEST_F(ParamPair, is_not_made_without_memory)
{
    const std::string error = no_memory("param_parampair_new");
    EXPECT_EQ(records::errors_without_memory(
                  [] { return Pair(param_parampair_new("key", "value")) != nullptr; }),
              (std::vector<std::string>{error, error, error}));
    EXPECT_EQ(records::errors_without_memory(
                  [] { return Pair(param_parampair_new("key", nullptr)) != nullptr; }),
              (std::vector<std::string>{error, error}));
}

TEST_F(ParamPair, copy_shares_nothing)
{
    const Pair pair(param_parampair_new("key", "value"));
    const Pair copy(param_parampair_copy_new(pair.get()));
    ASSERT_NE(copy, nullptr);
    pair->key[0] = pair->value[0] = '?';
    EXPECT_STREQ(copy->key, "key");
    EXPECT_STREQ(copy->value, "value");
}

TEST_F(ParamPair, copy_keeps_no_value_and_an_empty_value)
{
    const Pair without(param_parampair_new("key", nullptr));
    const Pair first(param_parampair_copy_new(without.get()));
    EXPECT_STREQ(first->key, "key");
    EXPECT_EQ(first->value, nullptr);
    const Pair empty(param_parampair_new("key", ""));
    const Pair second(param_parampair_copy_new(empty.get()));
    EXPECT_STREQ(second->value, "");
}

TEST_F(ParamPair, copy_needs_a_pair_with_a_key)
{
    const std::string error = invalid("param_parampair_copy_new");
    EXPECT_EQ(errors_of([] { EXPECT_EQ(param_parampair_copy_new(nullptr), nullptr); }), error);
    const Pair pair = records::make_pair(nullptr, "value");
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(param_parampair_copy_new(pair.get()), nullptr); }), error);
}

TEST_F(ParamPair, is_not_copied_without_memory)
{
    const std::string error = no_memory("param_parampair_copy_new");
    const Pair pair(param_parampair_new("key", "value"));
    EXPECT_EQ(records::errors_without_memory(
                  [&] { return Pair(param_parampair_copy_new(pair.get())) != nullptr; }),
              (std::vector<std::string>{error, error, error}));
    EXPECT_STREQ(pair->value, "value");
}

TEST_F(ParamPair, value_is_replaced_by_a_copy)
{
    const Pair pair(param_parampair_new("key", "value"));
    char value[] = "a longer value";
    EXPECT_EQ(param_parampair_set_value(pair.get(), value), 0);
    value[0] = '?';
    EXPECT_STREQ(pair->value, "a longer value");
    EXPECT_EQ(param_parampair_set_value(pair.get(), ""), 0);
    EXPECT_STREQ(pair->value, "");
    EXPECT_STREQ(pair->key, "key");
}

TEST_F(ParamPair, value_is_taken_away_and_given)
{
    const Pair pair(param_parampair_new("key", "value"));
    const int made = wraps::calls(wraps::CALLOC);
    EXPECT_EQ(param_parampair_set_value(pair.get(), nullptr), 0);
    EXPECT_EQ(pair->value, nullptr);
    EXPECT_EQ(param_parampair_set_value(pair.get(), nullptr), 0);
    EXPECT_EQ(pair->value, nullptr);
    EXPECT_EQ(wraps::calls(wraps::CALLOC), made);
    EXPECT_EQ(param_parampair_set_value(pair.get(), "new"), 0);
    EXPECT_STREQ(pair->value, "new");
}

TEST_F(ParamPair, value_can_only_be_set_in_a_pair)
{
    EXPECT_EQ(errors_of([] { EXPECT_EQ(param_parampair_set_value(nullptr, "value"), -22); }),
              invalid("param_parampair_set_value"));
}

TEST_F(ParamPair, has_lost_its_old_value_without_memory_for_the_new_one)
{
    const Pair pair(param_parampair_new("key", "value"));
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(param_parampair_set_value(pair.get(), "new"), -12); }),
              no_memory("param_parampair_set_value"));
    EXPECT_EQ(pair->value, nullptr);
    EXPECT_STREQ(pair->key, "key");
}

TEST_F(ParamPair, free_of_no_pair_reports)
{
    EXPECT_EQ(errors_of([] { param_parampair_free(nullptr); }), invalid("param_parampair_free"));
}

TEST_F(ParamPair, free_takes_a_pair_without_texts)
{
    EXPECT_EQ(errors_of([] { records::make_pair(nullptr, nullptr).reset(); }), "");
}

typedef std::pair<int, std::string> Outcome; // a result, and what was reported

// ---- Sections -----------------------------------------------------------------------------------

class ParamSection : public support::OsdTest
{
protected:
    // Searches, which must go without a report.
    static param_parampair *search(const Section &section, const char *key)
    {
        param_parampair *found = nullptr;
        EXPECT_EQ(
            errors_of([&] { found = param_section_search_parampair_key(section.get(), key); }), "");
        return found;
    }

    static Outcome set(param_section *section, const param_parampair *pair)
    {
        int result = 1;
        const std::string errors =
            errors_of([&] { result = param_section_search_set_parampair(section, pair); });
        return {result, errors};
    }
};

std::string set_error(const std::string &message)
{
    return report("", message, "param_section_search_set_parampair");
}

TEST_F(ParamSection, is_made_empty_with_a_copy_of_its_name)
{
    char name[] = "name";
    const Section section(param_section_new(name));
    name[0] = '?';
    EXPECT_STREQ(section->name, "name");
    ASSERT_NE(section->pairs, nullptr);
    EXPECT_EQ(section->pairs->head, nullptr);
}

TEST_F(ParamSection, needs_a_name)
{
    EXPECT_EQ(errors_of([] { EXPECT_EQ(param_section_new(nullptr), nullptr); }),
              invalid("param_section_new"));
}

TEST_F(ParamSection, is_not_made_without_memory_for_record_name_or_list)
{
    const std::string error = no_memory("param_section_new");
    EXPECT_EQ(records::errors_without_memory(
                  [] { return Section(param_section_new("name")) != nullptr; }),
              (std::vector<std::string>{error, error, error}));
}

TEST_F(ParamSection, free_of_no_section_reports)
{
    EXPECT_EQ(errors_of([] { param_section_free(nullptr); }), invalid("param_section_free"));
}

TEST_F(ParamSection, free_takes_pairs_with_and_without_a_value)
{
    EXPECT_EQ(
        errors_of([] {
            records::make_section("name", {{"a", "1"}, {"b", std::nullopt}, {"", ""}}).reset();
        }),
        "");
}

TEST_F(ParamSection, free_takes_a_section_without_a_pair_list)
{
    EXPECT_EQ(errors_of([] {
                  const Section section(param_section_new("name"));
                  cmn_list_destroy(section->pairs, [](void *) {});
                  section->pairs = nullptr;
              }),
              "");
}

TEST_F(ParamSection, report_shows_the_role)
{
    cmn_role = "update";
    EXPECT_EQ(errors_of([] { param_section_free(nullptr); }),
              report("update", "invalid parameter", "param_section_free"));
}

TEST_F(ParamSection, search_yields_the_first_pair_of_a_key)
{
    const Section section =
        records::make_section("name", {{"a", "1"}, {"b", "2"}, {"b", "3"}, {"c", "4"}});
    param_parampair *found = search(section, "b");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found, section->pairs->head->next->data);
    ASSERT_NE(search(section, "c"), nullptr);
    EXPECT_STREQ(search(section, "c")->value, "4");
}

TEST_F(ParamSection, search_compares_the_whole_key_byte_by_byte)
{
    const Section section = records::make_section("name", {{"DateOn", "1"}});
    for (const char *key :
         {"Date", "DateO", "DateOnly", "ateOn", "dateOn", "DATEON", "DateOn ", " DateOn", "", "1"})
        EXPECT_EQ(search(section, key), nullptr) << key;
    EXPECT_NE(search(section, "DateOn"), nullptr);
}

TEST_F(ParamSection, search_compares_beyond_any_length)
{
    const std::string key(5000, 'k');
    const Section section = records::make_section("name", {{key + "1", "1"}, {key + "2", "2"}});
    param_parampair *found = search(section, (key + "2").c_str());
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->value, "2");
}

TEST_F(ParamSection, search_finds_an_empty_key)
{
    const Section section = records::make_section("name", {{"a", "1"}, {"", "2"}});
    param_parampair *found = search(section, "");
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->value, "2");
}

TEST_F(ParamSection, search_passes_over_a_pair_without_a_key)
{
    const Section section = records::make_section("name", {{std::nullopt, "1"}, {"", "2"}});
    EXPECT_EQ(search(section, "other"), nullptr);
    ASSERT_NE(search(section, ""), nullptr);
    EXPECT_STREQ(search(section, "")->value, "2");
}

TEST_F(ParamSection, search_needs_section_key_and_pair_list)
{
    const std::string error = invalid("param_section_search_parampair_key");
    param_section bare = {};
    const Section section = records::make_section("name", {{"a", "1"}});
    const std::pair<const param_section *, const char *> cases[] = {
        {nullptr, "a"}, {section.get(), nullptr}, {&bare, "a"}};
    for (const auto &[where, key] : cases) {
        EXPECT_EQ(errors_of([where = where, key = key] {
                      EXPECT_EQ(param_section_search_parampair_key(where, key), nullptr);
                  }),
                  error);
    }
}

TEST_F(ParamSection, set_gives_the_first_pair_of_the_key_a_copy)
{
    const Section section = records::make_section("name", {{"a", "1"}, {"b", "2"}, {"b", "3"}});
    {
        const Pair pair(param_parampair_new("b", "new"));
        EXPECT_EQ(set(section.get(), pair.get()), Outcome(0, ""));
    }
    EXPECT_EQ(records::pairs_of(*section), (Pairs{{"a", "1"}, {"b", "new"}, {"b", "3"}}));
}

TEST_F(ParamSection, set_takes_empty_and_missing_values_as_they_are)
{
    const Section section = records::make_section("name", {{"a", "1"}, {"b", "2"}});
    const Pair empty(param_parampair_new("a", ""));
    EXPECT_EQ(set(section.get(), empty.get()), Outcome(0, ""));
    const Pair missing(param_parampair_new("b", nullptr));
    EXPECT_EQ(set(section.get(), missing.get()), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*section), (Pairs{{"a", ""}, {"b", std::nullopt}}));
}

TEST_F(ParamSection, set_never_adds_a_pair)
{
    const Section section = records::make_section("name", {{"a", "1"}});
    const Pair pair(param_parampair_new("A", "2"));
    EXPECT_EQ(set(section.get(), pair.get()),
              Outcome(-14, set_error("key A is not found in section name")));
    EXPECT_EQ(records::pairs_of(*section), (Pairs{{"a", "1"}}));
}

TEST_F(ParamSection, set_needs_section_and_pair)
{
    const Section section = records::make_section("name", {{"a", "1"}});
    const Pair pair(param_parampair_new("a", "2"));
    const std::string error = invalid("param_section_search_set_parampair");
    EXPECT_EQ(set(nullptr, pair.get()), Outcome(-22, error));
    EXPECT_EQ(set(section.get(), nullptr), Outcome(-22, error));
    EXPECT_EQ(records::pairs_of(*section), (Pairs{{"a", "1"}}));
}

TEST_F(ParamSection, set_finds_nothing_for_a_pair_without_a_key)
{
    const Section section = records::make_section("name", {{"a", "1"}});
    const Pair pair = records::make_pair(nullptr, "2");
    EXPECT_EQ(set(section.get(), pair.get()),
              Outcome(-14, invalid("param_section_search_parampair_key") +
                               set_error("key (null) is not found in section name")));
    EXPECT_EQ(records::pairs_of(*section), (Pairs{{"a", "1"}}));
}

TEST_F(ParamSection, set_finds_nothing_in_a_section_without_a_pair_list)
{
    char name[] = "name";
    param_section bare = {name, nullptr};
    const Pair pair(param_parampair_new("a", "2"));
    EXPECT_EQ(set(&bare, pair.get()),
              Outcome(-14, invalid("param_section_search_parampair_key") +
                               set_error("key a is not found in section name")));
}

TEST_F(ParamSection, set_without_memory_leaves_the_pair_without_a_value)
{
    const Section section = records::make_section("name", {{"a", "1"}, {"b", "2"}});
    const Pair pair(param_parampair_new("a", "new"));
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_EQ(set(section.get(), pair.get()),
              Outcome(-14, no_memory("param_parampair_set_value") +
                               set_error("failed to set value to key a")));
    EXPECT_EQ(records::pairs_of(*section), (Pairs{{"a", std::nullopt}, {"b", "2"}}));
    EXPECT_EQ(set(section.get(), pair.get()), Outcome(0, ""));
    EXPECT_EQ(records::pairs_of(*section), (Pairs{{"a", "new"}, {"b", "2"}}));
}

// ---- Section lists ------------------------------------------------------------------------------

class ParamSeclist : public support::OsdTest
{
protected:
    static param_section *search(const Seclist &seclist, const char *name)
    {
        param_section *found = nullptr;
        EXPECT_EQ(errors_of([&] { found = param_seclist_search_section(seclist.get(), name); }),
                  "");
        return found;
    }
};

TEST_F(ParamSeclist, search_yields_the_first_section_of_a_name)
{
    const Seclist seclist =
        records::make_seclist({{"a", {}}, {"b", {{"key", "1"}}}, {"b", {{"key", "2"}}}, {"c", {}}});
    EXPECT_EQ(search(seclist, "a"), seclist->head->data);
    EXPECT_EQ(search(seclist, "b"), seclist->head->next->data);
    EXPECT_EQ(search(seclist, "c"), seclist->head->next->next->next->data);
}

TEST_F(ParamSeclist, search_compares_the_whole_name_byte_by_byte)
{
    const Seclist seclist = records::make_seclist({{"osd", {}}});
    for (const char *name : {"os", "o", "osdx", "sd", "OSD", "Osd", "osd ", " osd", "", "[osd]"})
        EXPECT_EQ(search(seclist, name), nullptr) << name;
    EXPECT_EQ(search(seclist, "osd"), seclist->head->data);
}

TEST_F(ParamSeclist, search_finds_an_empty_name)
{
    const Seclist seclist = records::make_seclist({{"a", {}}, {"", {}}});
    EXPECT_EQ(search(seclist, ""), seclist->head->next->data);
}

TEST_F(ParamSeclist, search_passes_over_a_section_without_a_name)
{
    const Seclist seclist = records::make_seclist({{std::nullopt, {}}, {"", {}}});
    EXPECT_EQ(search(seclist, ""), seclist->head->next->data);
    EXPECT_EQ(search(seclist, "a"), nullptr);
}

TEST_F(ParamSeclist, search_in_an_empty_list_finds_nothing)
{
    EXPECT_EQ(search(records::make_seclist({}), "a"), nullptr);
}

TEST_F(ParamSeclist, search_needs_list_and_name)
{
    const std::string error = invalid("param_seclist_search_section");
    const Seclist seclist = records::make_seclist({{"a", {}}});
    EXPECT_EQ(errors_of([] { EXPECT_EQ(param_seclist_search_section(nullptr, "a"), nullptr); }),
              error);
    EXPECT_EQ(errors_of([&] {
                  EXPECT_EQ(param_seclist_search_section(seclist.get(), nullptr), nullptr);
              }),
              error);
}

TEST_F(ParamSeclist, free_ignores_no_list)
{
    EXPECT_EQ(errors_of([] { param_seclist_free(nullptr); }), "");
}

TEST_F(ParamSeclist, free_takes_every_section) // one that it forgot would be a leak
{
    EXPECT_EQ(
        errors_of([] {
            records::make_seclist({{"a", {{"b", "1"}, {"c", std::nullopt}}}, {"", {}}}).reset();
        }),
        "");
}

TEST_F(ParamSeclist, values_taken_from_a_list_outlive_it)
{
    const Section target = records::make_section("osd", {{"a", "1"}});
    {
        const Seclist seclist = records::make_seclist({{"osd", {{"a", "from the list"}}}});
        const auto *pair = param_section_search_parampair_key(search(seclist, "osd"), "a");
        EXPECT_EQ(param_section_search_set_parampair(target.get(), pair), 0);
    }
    EXPECT_EQ(records::pairs_of(*target), (Pairs{{"a", "from the list"}}));
}

} // namespace
