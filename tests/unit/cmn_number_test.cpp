// Numbers as a machine with a 32-bit long reads and cuts them.
#include "common/cmn.h"
#include "support/osd_test.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace
{

class CmnNumber : public support::OsdTest
{
};

constexpr std::uint32_t GREATEST = 4294967295U;
constexpr std::int32_t HIGHEST = 2147483647;
constexpr std::int32_t LOWEST = -2147483647 - 1;

struct UnsignedCase {
    const char *text;
    std::uint32_t value;
    std::size_t read; // characters that belong to the number; 0 if there is none
};

// Each text is read with an end pointer and without.
void expect_unsigned(const UnsignedCase &sample)
{
    SCOPED_TRACE(std::string("of \"") + sample.text + '"');
    const char *end = nullptr;
    EXPECT_EQ(cmn_strtoul(sample.text, &end), sample.value);
    EXPECT_EQ(end, sample.text + sample.read);
    EXPECT_EQ(cmn_strtoul(sample.text, nullptr), sample.value);
}

TEST_F(CmnNumber, unsigned_numbers_are_read_up_to_the_greatest_of_32_bits)
{
    const UnsignedCase cases[] = {
        {"0", 0, 1},
        {"1", 1, 1},
        {"15", 15, 2},
        {"00042", 42, 5},
        {"2147483647", 2147483647U, 10},
        {"2147483648", 2147483648U, 10},
        {"4294967294", 4294967294U, 10},
        {"4294967295", GREATEST, 10},
        {"0000000000000000000000004294967295", GREATEST, 34},
    };
    for (const UnsignedCase &sample : cases)
        expect_unsigned(sample);
}

TEST_F(CmnNumber, too_large_an_unsigned_number_saturates)
{
    const UnsignedCase cases[] = {
        {"4294967296", GREATEST, 10},
        {"4294967297", GREATEST, 10},
        {"8589934592", GREATEST, 10},
        {"9223372036854775807", GREATEST, 19},
        {"9223372036854775808", GREATEST, 19},
        {"18446744069414584320", GREATEST, 20}, // its low half is 0
        {"18446744073709551615", GREATEST, 20}, // the last of 64 bits
        {"18446744073709551616", GREATEST, 20},
        {"99999999999999999999999999", GREATEST, 26},
    };
    for (const UnsignedCase &sample : cases)
        expect_unsigned(sample);
}

TEST_F(CmnNumber, a_minus_sign_wraps_an_unsigned_number_that_fits)
{
    const UnsignedCase cases[] = {
        {"-0", 0, 2},
        {"-1", GREATEST, 2},
        {"-2", 4294967294U, 2},
        {"-2147483647", 2147483649U, 11},
        {"-2147483648", 2147483648U, 11},
        {"-4294967294", 2, 11},
        {"-4294967295", 1, 11},
    };
    for (const UnsignedCase &sample : cases)
        expect_unsigned(sample);
}

TEST_F(CmnNumber, a_minus_sign_does_not_wrap_an_unsigned_number_that_is_too_large)
{
    const UnsignedCase cases[] = {
        {"-4294967296", GREATEST, 11},
        {"-4294967297", GREATEST, 11},
        {"-9223372036854775808", GREATEST, 20},
        {"-18446744069414584321", GREATEST, 21}, // negated, 4294967295
        {"-18446744073709551614", GREATEST, 21}, // negated, 2
        {"-18446744073709551615", GREATEST, 21}, // negated, 1
        {"-18446744073709551616", GREATEST, 21},
        {"-99999999999999999999999999", GREATEST, 27},
        {" \t-4294967296", GREATEST, 13},
    };
    for (const UnsignedCase &sample : cases)
        expect_unsigned(sample);
}

TEST_F(CmnNumber, white_space_and_a_plus_sign_may_lead_an_unsigned_number)
{
    const UnsignedCase cases[] = {
        {"  7", 7, 3},           {" \t\n\v\f\r7", 7, 7},         {"+7", 7, 2},
        {" +7", 7, 3},           {" \t\n\v\f\r-1", GREATEST, 8}, {"+4294967296", GREATEST, 11},
        {" -4294967295", 1, 12},
    };
    for (const UnsignedCase &sample : cases)
        expect_unsigned(sample);
}

TEST_F(CmnNumber, every_kind_of_white_space_may_stand_before_a_sign)
{
    for (const char space : std::string_view(" \t\n\v\f\r")) {
        for (const std::size_t count : {1U, 3U}) {
            const std::string text = std::string(count, space) + "-4294967295";
            expect_unsigned({text.c_str(), 1, text.size()});
            EXPECT_EQ(cmn_strtol(text.c_str()), LOWEST);
        }
    }
}

TEST_F(CmnNumber, an_unsigned_number_ends_at_the_first_character_that_is_no_decimal_digit)
{
    const UnsignedCase cases[] = {
        {"12a", 12, 2},
        {"12 ", 12, 2},
        {"12\n", 12, 2},
        {"1.5", 1, 1},
        {"0x10", 0, 1},
        {"010", 10, 3},
        {"3-4", 3, 1},
        {"9,8", 9, 1},
        {"-1x", GREATEST, 2},
        {"4294967296x", GREATEST, 10},
        {"-4294967296 ", GREATEST, 11},
    };
    for (const UnsignedCase &sample : cases)
        expect_unsigned(sample);
}

TEST_F(CmnNumber, a_text_without_digits_is_zero_and_ends_where_it_began)
{
    for (const char *text : {"", " ", "abc", "-", "+", " -", "--1", "+-1", "-+1", "- 1", "-abc"})
        expect_unsigned({text, 0, 0});
}

struct SignedCase {
    const char *text;
    std::int32_t value;
};

void expect_signed(const SignedCase &sample)
{
    EXPECT_EQ(cmn_strtol(sample.text), sample.value) << "of \"" << sample.text << '"';
}

TEST_F(CmnNumber, signed_numbers_are_read_between_their_limits)
{
    const SignedCase cases[] = {
        {"0", 0},
        {"-0", 0},
        {"1", 1},
        {"-1", -1},
        {"00042", 42},
        {"2147483646", 2147483646},
        {"2147483647", HIGHEST},
        {"-2147483647", -2147483647},
        {"-2147483648", LOWEST},
    };
    for (const SignedCase &sample : cases)
        expect_signed(sample);
}

TEST_F(CmnNumber, signed_numbers_beyond_their_limits_saturate)
{
    const SignedCase cases[] = {
        {"2147483648", HIGHEST},
        {"4294967295", HIGHEST},
        {"4294967296", HIGHEST},
        {"9223372036854775807", HIGHEST},
        {"9223372036854775808", HIGHEST},
        {"18446744073709551616", HIGHEST},
        {"99999999999999999999999999", HIGHEST},
        {"-2147483649", LOWEST},
        {"-4294967295", LOWEST},
        {"-4294967296", LOWEST},
        {"-9223372036854775808", LOWEST},
        {"-9223372036854775809", LOWEST},
        {"-18446744073709551616", LOWEST},
        {"-99999999999999999999999999", LOWEST},
    };
    for (const SignedCase &sample : cases)
        expect_signed(sample);
}

TEST_F(CmnNumber, signed_numbers_are_read_with_what_may_stand_around_them)
{
    const SignedCase cases[] = {
        {" \t\n\v\f\r-7", -7},
        {"+7", 7},
        {" +7", 7},
        {"12abc", 12},
        {"0x10", 0},
        {"010", 10},
        {"1.5", 1},
        {"", 0},
        {" ", 0},
        {"abc", 0},
        {"-", 0},
        {"--1", 0},
        {"- 1", 0},
        {"+-1", 0},
    };
    for (const SignedCase &sample : cases)
        expect_signed(sample);
}

TEST_F(CmnNumber, cutting_keeps_the_low_bits)
{
    EXPECT_EQ(cmn_cut<std::uint8_t>(0x12345), 0x45);
    EXPECT_EQ(cmn_cut<std::uint8_t>(-1), 255);
    EXPECT_EQ(cmn_cut<std::uint16_t>(65536), 0);
    EXPECT_EQ(cmn_cut<std::uint16_t>(-2), 65534);
    EXPECT_EQ(cmn_cut<std::uint32_t>(-1LL), GREATEST);
    EXPECT_EQ(cmn_cut<std::uint32_t>(0x100000000LL), 0U);
    EXPECT_EQ(cmn_cut<std::uint32_t>(std::numeric_limits<std::uint64_t>::max() - 1), 4294967294U);
}

TEST_F(CmnNumber, cutting_to_a_signed_type_takes_the_top_bit_for_the_sign)
{
    EXPECT_EQ(cmn_cut<std::int8_t>(128), -128);
    EXPECT_EQ(cmn_cut<std::int8_t>(0x17F), 127);
    EXPECT_EQ(cmn_cut<std::int16_t>(32768), -32768);
    EXPECT_EQ(cmn_cut<std::int16_t>(65535U), -1);
    EXPECT_EQ(cmn_cut<std::int32_t>(GREATEST), -1);
    EXPECT_EQ(cmn_cut<std::int32_t>(2147483648U), LOWEST);
    EXPECT_EQ(cmn_cut<std::int32_t>(-4294967297LL), -1);
}

TEST_F(CmnNumber, cutting_leaves_a_number_that_fits_as_it_is)
{
    EXPECT_EQ(cmn_cut<std::uint8_t>(255), 255);
    EXPECT_EQ(cmn_cut<std::int16_t>(-32768LL), -32768);
    EXPECT_EQ(cmn_cut<std::int32_t>(2147483647LL), HIGHEST);
    EXPECT_EQ(cmn_cut<std::int32_t>(-2147483648LL), LOWEST);
    EXPECT_EQ(cmn_cut<std::uint32_t>(4294967295ULL), GREATEST);
    EXPECT_EQ(cmn_cut<std::int64_t>(8589934592ULL), 8589934592LL);
}

TEST_F(CmnNumber, errno_is_a_code_of_32_bits_without_a_sign)
{
    for (const std::uint32_t code : {0U, 13U, 0x7FFFFFFFU, 0x81E01234U, GREATEST}) {
        errno = static_cast<std::int32_t>(code);
        EXPECT_EQ(cmn_errno(), code);
    }
}

} // namespace
