// Any bytes in a text.
#include "base64.h"

#include <gtest/gtest.h>

namespace
{

using live::decode_base64;

TEST(Base64, holds_every_byte)
{
    EXPECT_EQ(decode_base64(""), "");
    EXPECT_EQ(decode_base64("TQ=="), "M");
    EXPECT_EQ(decode_base64("TWE="), "Ma");
    EXPECT_EQ(decode_base64("TWFu"), "Man");
    EXPECT_EQ(decode_base64("TWFuTQ=="), "ManM");
    EXPECT_EQ(decode_base64("AP+A/g=="), std::string("\0\xFF\x80\xFE", 4));
}

TEST(Base64, is_nothing_else)
{
    for (const char *text : {"T", "TW", "TWE", "TWFuT", "=", "====", "T===", "TQ==TQ==", "TW u",
                             "TWE\n", "TWE-", "TWE_", "\xC3\xA9=="})
        EXPECT_EQ(decode_base64(text), std::nullopt) << text;
}

} // namespace
