// The calendar clock as digits, and the codec's frame rate indices.
#include "common/cmn.h"
#include "support/osd_test.h"
#include "support/wraps.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <string_view>

namespace
{

using support::errors_of;
using support::report;

constexpr time_t NEW_YEAR = 1262304000; // 2010-01-01 00:00:00 UTC
constexpr time_t DAY = 86400;

// The record's sixteen characters, with its result. Dots stand for bytes that were not written.
struct Digits {
    int result = 0;
    std::string text;
};

Digits digits()
{
    cmn_st_cdatetime record;
    std::memset(&record, '.', sizeof record);
    Digits found;
    found.result = cmn_get_st_cdatetime(&record);
    found.text.resize(sizeof record);
    std::memcpy(found.text.data(), &record, sizeof record);
    return found;
}

class CmnTime : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        setenv("TZ", "UTC0", 1);
    }
};

// ---- The record ---------------------------------------------------------------------------------

TEST_F(CmnTime, record_has_its_fields_one_behind_the_other)
{
    wraps::set_clock(NEW_YEAR + 45296, 789000);
    cmn_st_cdatetime record;
    EXPECT_EQ(cmn_get_st_cdatetime(&record), 0);
    EXPECT_EQ(std::string_view(record.year, sizeof record.year), "2010");
    EXPECT_EQ(std::string_view(record.month, sizeof record.month), "01");
    EXPECT_EQ(std::string_view(record.day, sizeof record.day), "01");
    EXPECT_EQ(std::string_view(record.hour, sizeof record.hour), "12");
    EXPECT_EQ(std::string_view(record.minute, sizeof record.minute), "34");
    EXPECT_EQ(std::string_view(record.second, sizeof record.second), "56");
    EXPECT_EQ(std::string_view(record.msec, sizeof record.msec), "78");
}

TEST_F(CmnTime, record_is_sixteen_digits_of_the_clock)
{
    const struct {
        time_t seconds;
        suseconds_t microseconds;
        const char *digits;
    } cases[] = {
        {0, 0, "1970010100000000"},
        {NEW_YEAR, 0, "2010010100000000"},
        {NEW_YEAR - 1, 999999, "2009123123595999"},
        {NEW_YEAR + 31 * DAY, 0, "2010020100000000"},
        {NEW_YEAR + 58 * DAY + 3723, 0, "2010022801020300"},
        {NEW_YEAR + 59 * DAY, 0, "2010030100000000"},
        {NEW_YEAR + 272 * DAY, 0, "2010093000000000"},
        {NEW_YEAR + 273 * DAY, 0, "2010100100000000"},
        {1330473600, 0, "2012022900000000"},
        {2147483647, 0, "2038011903140700"},
    };
    for (const auto &sample : cases) {
        wraps::set_clock(sample.seconds, sample.microseconds);
        const Digits found = digits();
        EXPECT_EQ(found.result, 0);
        EXPECT_EQ(found.text, sample.digits);
    }
}

TEST_F(CmnTime, hundredths_are_cut_and_not_rounded)
{
    const struct {
        suseconds_t microseconds;
        const char *hundredths;
    } cases[] = {
        {0, "00"},     {999, "00"},    {1000, "00"},   {9999, "00"},   {10000, "01"},
        {99999, "09"}, {100000, "10"}, {789000, "78"}, {995000, "99"}, {999999, "99"},
    };
    for (const auto &sample : cases) {
        wraps::set_clock(NEW_YEAR, sample.microseconds);
        EXPECT_EQ(digits().text, std::string("20100101000000") + sample.hundredths);
    }
}

TEST_F(CmnTime, record_follows_a_zone_that_changes_between_two_calls)
{
    wraps::set_clock(NEW_YEAR, 0);
    EXPECT_EQ(digits().text, "2010010100000000");
    setenv("TZ", "EAST-9:30", 1);
    EXPECT_EQ(digits().text, "2010010109300000");
    setenv("TZ", "WEST5", 1);
    EXPECT_EQ(digits().text, "2009123119000000");
}

TEST_F(CmnTime, record_keeps_a_leap_second)
{
    // A zone file for UTC with one leap second, before 1972-07-01 00:00:00.
    constexpr char ZONE[] = "TZif\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
                            "\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\1\0\0\0\4"
                            "\0\0\0\0\0\0UTC\0\4\xB2\x58\0\0\0\0\1";
    support::write_file("/tmp/zone", {ZONE, sizeof ZONE - 1});
    setenv("TZ", ":/tmp/zone", 1);
    wraps::set_clock(78796800, 0);
    EXPECT_EQ(digits().text, "1972063023596000");
    wraps::set_clock(78796801, 0);
    EXPECT_EQ(digits().text, "1972070100000000");
    support::remove_file("/tmp/zone");
}

TEST_F(CmnTime, year_has_four_digits_even_if_the_clock_has_lost_its_way)
{
    if (sizeof(time_t) < sizeof(std::int64_t))
        GTEST_SKIP() << "no such years in a clock of 32 bits";
    // 0007-01-01, and 10000-01-01, whose fifth digit shifts all the others.
    wraps::set_clock(static_cast<time_t>(-61946294400LL), 0);
    EXPECT_EQ(digits().text, "0007010100000000");
    wraps::set_clock(static_cast<time_t>(253402300800LL), 0);
    EXPECT_EQ(digits().text, "1000001010000000");
}

TEST_F(CmnTime, failure_is_reported_and_leaves_sixteen_zeros)
{
    const struct {
        wraps::Function failing;
        int error;
        const char *message;
    } cases[] = {
        {wraps::GETTIMEOFDAY, EPERM, "gettimeofday failed(Operation not permitted)"},
        {wraps::LOCALTIME, EOVERFLOW, "localtime failed(Value too large for defined data type)"},
    };
    wraps::set_clock(NEW_YEAR + 45296, 789000);
    for (const auto &sample : cases) {
        wraps::fail(sample.failing, 1, sample.error);
        Digits found;
        EXPECT_EQ(errors_of([&] { found = digits(); }),
                  report("", sample.message, "cmn_get_st_cdatetime"));
        EXPECT_EQ(found.result, -14);
        EXPECT_EQ(found.text, "0000000000000000");
    }
    EXPECT_EQ(wraps::calls(wraps::LOCALTIME), 1);
}

// ---- The fields ---------------------------------------------------------------------------------

constexpr std::size_t FIELDS = 7;

// The fields as a caller sees them, each in a buffer that was full of dots. A bit of `wanted` for
// each field that is asked for.
struct Fields {
    int result = 0;
    std::array<std::string, FIELDS> texts;
};

Fields fields(unsigned wanted)
{
    std::array<std::array<char, 6>, FIELDS> buffers{};
    std::array<char *, FIELDS> to{};
    for (std::size_t i = 0; i < FIELDS; i++) {
        buffers[i].fill('.');
        to[i] = (wanted >> i & 1) != 0 ? buffers[i].data() : nullptr;
    }
    Fields found;
    found.result = cmn_get_cdatetime_fields(to[0], to[1], to[2], to[3], to[4], to[5], to[6]);
    for (std::size_t i = 0; i < FIELDS; i++)
        found.texts[i].assign(buffers[i].data(), buffers[i].size());
    return found;
}

constexpr unsigned ALL = (1U << FIELDS) - 1;
const std::array<std::string, FIELDS> FOUND = {"2010..", "02....", "03....", "12....",
                                               "34....", "56....", "78...."};

TEST_F(CmnTime, each_field_gets_its_width_and_no_terminator)
{
    wraps::set_clock(NEW_YEAR + 33 * DAY + 45296, 789000);
    const Fields found = fields(ALL);
    EXPECT_EQ(found.result, 0);
    EXPECT_EQ(found.texts, FOUND);
}

TEST_F(CmnTime, any_field_may_be_left_out)
{
    wraps::set_clock(NEW_YEAR + 33 * DAY + 45296, 789000);
    for (unsigned wanted = 0; wanted <= ALL; wanted++) {
        const Fields found = fields(wanted);
        EXPECT_EQ(found.result, 0);
        for (std::size_t i = 0; i < FIELDS; i++)
            EXPECT_EQ(found.texts[i], (wanted >> i & 1) != 0 ? FOUND[i] : "......");
    }
}

TEST_F(CmnTime, fields_stay_as_they_are_when_the_clock_fails)
{
    for (const wraps::Function failing : {wraps::GETTIMEOFDAY, wraps::LOCALTIME}) {
        wraps::fail(failing, 1, EOVERFLOW);
        Fields found;
        EXPECT_EQ(errors_of([&] { found = fields(ALL); }),
                  report("",
                         failing == wraps::LOCALTIME
                             ? "localtime failed(Value too large for defined data type)"
                             : "gettimeofday failed(Value too large for defined data type)",
                         "cmn_get_st_cdatetime"));
        EXPECT_EQ(found.result, -14);
        for (const std::string &text : found.texts)
            EXPECT_EQ(text, "......");
    }
}

// ---- Frame rates --------------------------------------------------------------------------------

const std::map<std::uint32_t, int> RATES = {
    {0, 60}, {1, 60},  {2, 50},  {3, 30},  {4, 30},  {5, 25},   {6, 20},   {7, 20},   {8, 15},
    {9, 15}, {10, 12}, {11, 12}, {12, 13}, {13, 10}, {14, 10},  {15, 8},   {16, 8},   {17, 6},
    {18, 6}, {19, 6},  {20, 5},  {21, 5},  {22, 4},  {23, 4},   {24, 3},   {25, 3},   {26, 3},
    {27, 2}, {28, 2},  {29, 1},  {30, 1},  {31, 1},  {259, 30}, {260, 30}, {261, 25},
};

void expect_invalid(std::uint32_t index, const char *shown)
{
    errno = ENOENT; // not to be shown
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(cmn_get_framerate_from_index(index), -14); }),
              report("", std::string("invalid frameRate index ") + shown,
                     "cmn_get_framerate_from_index"));
}

TEST_F(CmnTime, frame_rate_of_every_defined_index)
{
    EXPECT_EQ(errors_of([] {
                  for (const auto &[index, rate] : RATES)
                      EXPECT_EQ(cmn_get_framerate_from_index(index), rate) << index;
              }),
              "");
}

TEST_F(CmnTime, frame_rate_of_every_other_index_is_reported)
{
    for (std::uint32_t index = 0; index <= 300; index++) {
        if (RATES.count(index) != 0)
            continue;
        std::array<char, 16> shown{};
        std::snprintf(shown.data(), shown.size(), "0x%04X", index);
        expect_invalid(index, shown.data());
    }
}

TEST_F(CmnTime, frame_rate_index_is_shown_with_at_least_four_digits)
{
    expect_invalid(32, "0x0020");
    expect_invalid(258, "0x0102");
    expect_invalid(0xFFFF, "0xFFFF");
    expect_invalid(65536, "0x10000"); // its low half is 0
    expect_invalid(0x80000000, "0x80000000");
    expect_invalid(0x80000001, "0x80000001");
    expect_invalid(0xFFFFFFFE, "0xFFFFFFFE");
    expect_invalid(0xFFFFFFFF, "0xFFFFFFFF");
}

} // namespace
