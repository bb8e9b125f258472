// The calendar clock as digits, and the codec's frame rate indices.
#include "common/cmn.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>

int cmn_get_st_cdatetime(cmn_st_cdatetime *record)
{
    memset(record, '0', sizeof *record);

    timeval now = {};
    if (gettimeofday(&now, nullptr) != 0) {
        CMN_REPORT_ERRNO("cmn_get_st_cdatetime", "gettimeofday failed");
        return -EFAULT;
    }
    const tm *local = localtime(&now.tv_sec);
    if (!local) {
        CMN_REPORT_ERRNO("cmn_get_st_cdatetime", "localtime failed");
        return -EFAULT;
    }

    // 17 digits, of which the record keeps 16: of the milliseconds only the hundredths.
    char digits[18] = {};
    snprintf(digits, sizeof digits, "%04d%02d%02d%02d%02d%02d%03d", local->tm_year + 1900,
             local->tm_mon + 1, local->tm_mday, local->tm_hour, local->tm_min, local->tm_sec,
             cmn_cut<int>(now.tv_usec / 1000));
    memcpy(record, digits, sizeof *record);
    return 0;
}

int cmn_get_cdatetime_fields(char *year, char *month, char *day, char *hour, char *minute,
                             char *second, char *msec)
{
    cmn_st_cdatetime now;
    if (cmn_get_st_cdatetime(&now) != 0)
        return -EFAULT;

    const struct {
        char *to;
        const char *from;
        std::size_t width;
    } fields[] = {
        {year, now.year, sizeof now.year},       {month, now.month, sizeof now.month},
        {day, now.day, sizeof now.day},          {hour, now.hour, sizeof now.hour},
        {minute, now.minute, sizeof now.minute}, {second, now.second, sizeof now.second},
        {msec, now.msec, sizeof now.msec},
    };
    for (const auto &field : fields) {
        if (field.to)
            memcpy(field.to, field.from, field.width);
    }
    return 0;
}

int cmn_get_framerate_from_index(std::uint32_t index)
{
    // Index 12 with its 13 is what the codec means, out of the descending order as it is.
    static constexpr struct {
        std::uint32_t first, last;
        int frames_per_second;
    } rates[] = {
        {0, 1, 60},   {2, 2, 50},   {3, 4, 30},   {5, 5, 25},  {6, 7, 20},     {8, 9, 15},
        {10, 11, 12}, {12, 12, 13}, {13, 14, 10}, {15, 16, 8}, {17, 19, 6},    {20, 21, 5},
        {22, 23, 4},  {24, 26, 3},  {27, 28, 2},  {29, 31, 1}, {259, 260, 30}, {261, 261, 25},
    };
    for (const auto &rate : rates) {
        if (index >= rate.first && index <= rate.last)
            return rate.frames_per_second;
    }
    CMN_REPORT("cmn_get_framerate_from_index", "invalid frameRate index 0x%04X", index);
    return -EFAULT;
}
