// The generic list.
#include "common/cmn.h"
#include "support/osd_test.h"
#include "support/wraps.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace
{

class CmnList : public support::OsdTest
{
protected:
    void TearDown() override
    {
        cmn_list_destroy(list_, [](void *) {});
        OsdTest::TearDown();
    }

    cmn_list *list_ = cmn_list_create();
    int one_ = 1;
    int two_ = 2;
    int three_ = 3;
};

// Elements in the order in which a walk finds them, up to the one that ends it.
struct Walk {
    std::vector<void *> seen;
    void *last = nullptr;
};

std::int32_t note(void *data, void *argument)
{
    auto *walk = static_cast<Walk *>(argument);
    walk->seen.push_back(data);
    return data == walk->last ? 7 : 0;
}

TEST_F(CmnList, is_created_empty)
{
    ASSERT_NE(list_, nullptr);
    EXPECT_EQ(list_->head, nullptr);
}

TEST_F(CmnList, is_not_created_without_memory)
{
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_EQ(cmn_list_create(), nullptr);
}

TEST_F(CmnList, appends_at_the_end)
{
    EXPECT_EQ(cmn_list_append(list_, &one_), 0);
    EXPECT_EQ(cmn_list_append(list_, &two_), 0);
    EXPECT_EQ(cmn_list_append(list_, nullptr), 0);
    ASSERT_EQ(list_->head->data, &one_);
    ASSERT_EQ(list_->head->next->data, &two_);
    ASSERT_EQ(list_->head->next->next->data, nullptr);
    EXPECT_EQ(list_->head->next->next->next, nullptr);
}

TEST_F(CmnList, append_fails_without_list_or_memory)
{
    EXPECT_EQ(cmn_list_append(nullptr, &one_), -22);
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_EQ(cmn_list_append(list_, &one_), -12);
    EXPECT_EQ(list_->head, nullptr);
}

TEST_F(CmnList, append_without_memory_leaves_a_list_with_elements_as_it_was)
{
    cmn_list_append(list_, &one_);
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_EQ(cmn_list_append(list_, &two_), -12);
    EXPECT_EQ(list_->head->data, &one_);
    EXPECT_EQ(list_->head->next, nullptr);
    EXPECT_EQ(cmn_list_append(list_, &three_), 0);
    ASSERT_NE(list_->head->next, nullptr);
    EXPECT_EQ(list_->head->next->data, &three_);
}

TEST_F(CmnList, walk_visits_all_in_order)
{
    cmn_list_append(list_, &one_);
    cmn_list_append(list_, &two_);
    Walk walk;
    EXPECT_EQ(cmn_list_foreach(list_, note, &walk), 0);
    EXPECT_EQ(walk.seen, (std::vector<void *>{&one_, &two_}));
}

TEST_F(CmnList, walk_ends_at_the_first_result_that_is_not_zero)
{
    cmn_list_append(list_, &one_);
    cmn_list_append(list_, &two_);
    cmn_list_append(list_, &three_);
    Walk walk;
    walk.last = &two_;
    EXPECT_EQ(cmn_list_foreach(list_, note, &walk), -14);
    EXPECT_EQ(walk.seen, (std::vector<void *>{&one_, &two_}));
}

TEST_F(CmnList, walk_makes_the_same_failure_of_every_result_that_is_not_zero)
{
    cmn_list_append(list_, &one_);
    cmn_list_append(list_, &two_);
    const auto yield = [](void *, void *argument) {
        return *static_cast<std::int32_t *>(argument);
    };
    for (std::int32_t result : {1, -1, -14, 256, 0x10000, INT32_MAX, INT32_MIN})
        EXPECT_EQ(cmn_list_foreach(list_, yield, &result), -14) << result;
    std::int32_t good = 0;
    EXPECT_EQ(cmn_list_foreach(list_, yield, &good), 0);
}

TEST_F(CmnList, walk_may_fail_at_its_first_and_at_its_last_element)
{
    cmn_list_append(list_, &one_);
    cmn_list_append(list_, &two_);
    for (void *last : {&one_, &two_}) {
        Walk walk;
        walk.last = last;
        EXPECT_EQ(cmn_list_foreach(list_, note, &walk), -14);
        EXPECT_EQ(walk.seen.back(), last);
    }
}

TEST_F(CmnList, walk_visits_null_elements_too)
{
    cmn_list_append(list_, nullptr);
    cmn_list_append(list_, &one_);
    cmn_list_append(list_, nullptr);
    Walk walk;
    walk.last = this; // no element
    EXPECT_EQ(cmn_list_foreach(list_, note, &walk), 0);
    EXPECT_EQ(walk.seen, (std::vector<void *>{nullptr, &one_, nullptr}));
}

TEST_F(CmnList, walk_over_an_empty_list_is_good_with_and_without_argument)
{
    Walk walk;
    EXPECT_EQ(cmn_list_foreach(list_, note, &walk), 0);
    EXPECT_EQ(cmn_list_foreach(list_, note, nullptr), 0);
    EXPECT_TRUE(walk.seen.empty());
}

TEST_F(CmnList, walk_passes_a_null_argument_on)
{
    cmn_list_append(list_, &one_);
    static void *passed;
    passed = &one_;
    const auto keep = [](void *, void *argument) -> std::int32_t {
        passed = argument;
        return 0;
    };
    EXPECT_EQ(cmn_list_foreach(list_, keep, nullptr), 0);
    EXPECT_EQ(passed, nullptr);
}

TEST_F(CmnList, walk_needs_list_and_function)
{
    Walk walk;
    EXPECT_EQ(cmn_list_foreach(nullptr, note, &walk), -22);
    EXPECT_EQ(cmn_list_foreach(list_, nullptr, &walk), -22);
}

std::int32_t compare(const void *data, const void *key)
{
    return std::strcmp(static_cast<const char *>(data), static_cast<const char *>(key));
}

TEST_F(CmnList, find_yields_the_first_match)
{
    char first[] = "b";
    char second[] = "b";
    char other[] = "a";
    cmn_list_append(list_, other);
    cmn_list_append(list_, first);
    cmn_list_append(list_, second);
    EXPECT_EQ(cmn_list_find(list_, compare, "b"), first);
    EXPECT_EQ(cmn_list_find(list_, compare, "c"), nullptr);
}

TEST_F(CmnList, find_takes_no_other_result_than_zero_for_a_match)
{
    char data[] = "b";
    cmn_list_append(list_, data);
    EXPECT_EQ(cmn_list_find(list_, compare, "a"), nullptr); // a positive result
    EXPECT_EQ(cmn_list_find(list_, compare, "c"), nullptr); // a negative one
    EXPECT_EQ(cmn_list_find(list_, compare, "b"), data);
}

TEST_F(CmnList, find_in_an_empty_list_yields_nothing)
{
    EXPECT_EQ(cmn_list_find(list_, compare, "a"), nullptr);
}

// Elements that were compared with the key, which is the element to be found.
std::vector<const void *> compared;

std::int32_t note_compare(const void *data, const void *key)
{
    compared.push_back(data);
    return data == key ? 0 : 1;
}

TEST_F(CmnList, find_compares_null_elements_too_and_ends_at_the_match)
{
    compared.clear();
    cmn_list_append(list_, &one_);
    cmn_list_append(list_, nullptr);
    cmn_list_append(list_, &two_);
    cmn_list_append(list_, &three_);
    EXPECT_EQ(cmn_list_find(list_, note_compare, &two_), &two_);
    EXPECT_EQ(compared, (std::vector<const void *>{&one_, nullptr, &two_}));
}

TEST_F(CmnList, find_with_a_null_key_does_not_call_the_function)
{
    static int calls;
    calls = 0;
    cmn_list_append(list_, &one_);
    const auto count = [](const void *, const void *) -> std::int32_t {
        calls++;
        return 0;
    };
    EXPECT_EQ(cmn_list_find(list_, count, nullptr), nullptr);
    EXPECT_EQ(cmn_list_find(nullptr, count, "key"), nullptr);
    EXPECT_EQ(cmn_list_find(list_, nullptr, "key"), nullptr);
    EXPECT_EQ(calls, 0);
}

std::vector<void *> released;

void release(void *data)
{
    released.push_back(data);
}

TEST_F(CmnList, destroy_hands_out_all_but_null_elements_in_order)
{
    released.clear();
    cmn_list *list = cmn_list_create();
    cmn_list_append(list, &one_);
    cmn_list_append(list, nullptr);
    cmn_list_append(list, &two_);
    cmn_list_destroy(list, release); // a node that it forgot would be a leak
    EXPECT_EQ(released, (std::vector<void *>{&one_, &two_}));
}

TEST_F(CmnList, destroy_of_an_empty_list_hands_out_nothing)
{
    released.clear();
    cmn_list_destroy(cmn_list_create(), release);
    EXPECT_TRUE(released.empty());
}

TEST_F(CmnList, destroy_without_a_function_frees_nothing)
{
    cmn_list_append(list_, nullptr);
    cmn_list_append(list_, &one_);
    cmn_list_destroy(list_, nullptr);
    ASSERT_NE(list_->head, nullptr);
    EXPECT_EQ(list_->head->data, nullptr);
    ASSERT_NE(list_->head->next, nullptr);
    EXPECT_EQ(list_->head->next->data, &one_);
}

TEST_F(CmnList, destroy_without_a_list_hands_out_nothing)
{
    released.clear();
    cmn_list_append(list_, &one_);
    cmn_list_destroy(nullptr, release);
    cmn_list_destroy(nullptr, nullptr);
    EXPECT_TRUE(released.empty());
}

} // namespace
