// Tokens that nobody guesses.
#include "secrets.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace
{

using live::is_token;
using live::make_token;

TEST(Secrets, are_all_different)
{
    std::set<std::string> tokens;
    for (int i = 0; i < 1000; i++) {
        const std::string token = make_token();
        EXPECT_EQ(token.size(), 32u);
        EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
        tokens.insert(token);
    }
    EXPECT_EQ(tokens.size(), 1000u);
}

TEST(Secrets, are_equal_only_to_themselves)
{
    EXPECT_TRUE(is_token("abc", "abc"));
    for (const char *other : {"", "a", "ab", "abd", "xbc", "abca", "abcabc", "ABC"})
        EXPECT_FALSE(is_token(other, "abc")) << other;
    EXPECT_FALSE(is_token("", "")) << "no token lets nobody in";
    EXPECT_FALSE(is_token("a", ""));
    EXPECT_FALSE(is_token(std::string("abc\0", 4), "abc"));
}

} // namespace
