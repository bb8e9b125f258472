// What the tests of the parameter store and of the catalogue share: records that free themselves,
// records as plain values, and an action whose allocations fail one after the other.
#pragma once

#include "param/param.h"
#include "support/osd_test.h"
#include "support/wraps.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace records
{

struct Free {
    void operator()(param_parampair *pair) const
    {
        param_parampair_free(pair);
    }
    void operator()(param_section *section) const
    {
        param_section_free(section);
    }
    void operator()(param_seclist *seclist) const
    {
        param_seclist_free(seclist);
    }
};
typedef std::unique_ptr<param_parampair, Free> Pair;
typedef std::unique_ptr<param_section, Free> Section;
typedef std::unique_ptr<param_seclist, Free> Seclist;

// The same as plain values; std::nullopt stands for NULL.
typedef std::optional<std::string> Text;
typedef std::vector<std::pair<Text, Text>> Pairs;
typedef std::vector<std::pair<Text, Pairs>> Sections;

inline Text text_of(const char *text)
{
    return text ? Text(text) : std::nullopt;
}

inline Pairs pairs_of(const param_section &section)
{
    Pairs pairs;
    for (const cmn_list_node *node = section.pairs->head; node; node = node->next) {
        const auto *pair = static_cast<const param_parampair *>(node->data);
        pairs.emplace_back(text_of(pair->key), text_of(pair->value));
    }
    return pairs;
}

inline Sections sections_of(const param_seclist &seclist)
{
    Sections sections;
    for (const cmn_list_node *node = seclist.head; node; node = node->next) {
        const auto *section = static_cast<const param_section *>(node->data);
        sections.emplace_back(text_of(section->name), pairs_of(*section));
    }
    return sections;
}

inline const char *pointer(const Text &text)
{
    return text ? text->c_str() : nullptr;
}

// Takes a name or key of NULL too, which the application itself never makes.
inline Pair make_pair(const char *key, const char *value)
{
    Pair pair(param_parampair_new("", value));
    free(pair->key);
    pair->key = key ? strdup(key) : nullptr;
    return pair;
}

inline Section make_section(const Text &name, const Pairs &pairs)
{
    Section section(param_section_new(""));
    free(section->name);
    section->name = name ? strdup(name->c_str()) : nullptr;
    for (const auto &[key, value] : pairs) {
        Pair pair = make_pair(pointer(key), pointer(value));
        EXPECT_EQ(cmn_list_append(section->pairs, pair.release()), 0);
    }
    return section;
}

inline Seclist make_seclist(const Sections &sections)
{
    Seclist seclist(cmn_list_create());
    for (const auto &[name, pairs] : sections)
        EXPECT_EQ(cmn_list_append(seclist.get(), make_section(name, pairs).release()), 0);
    return seclist;
}

// Runs `action`, which tells whether it succeeded, again and again: its first allocation fails,
// then its second, and so on until it needs no more of them. Yields what each failure reported.
inline std::vector<std::string> errors_without_memory(const std::function<bool()> &action)
{
    constexpr int runaway = 10000;
    std::vector<std::string> errors;
    for (int nth = 1; nth < runaway; nth++) {
        bool succeeded = false;
        wraps::reset();
        wraps::fail(wraps::CALLOC, nth, ENOMEM);
        const std::string text = support::errors_of([&] { succeeded = action(); });
        const bool failed = wraps::calls(wraps::CALLOC) >= nth;
        wraps::reset();
        EXPECT_NE(succeeded, failed) << "allocation " << nth;
        if (!failed) {
            EXPECT_EQ(text, "");
            return errors;
        }
        errors.push_back(text);
    }
    ADD_FAILURE() << "the action never succeeds";
    return errors;
}

} // namespace records
