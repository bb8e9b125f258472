// Numbers in texts, read as the target reads them: its `long` has 32 bits, that of a PC 64.
#include "common/cmn.h"

#include <cctype>
#include <cstdlib>
#include <limits>

// Is there a minus sign behind the white space that strtoul(3) skips?
static bool cmn_is_negative(const char *text)
{
    while (isspace(static_cast<unsigned char>(*text)))
        text++;
    return *text == '-';
}

std::uint32_t cmn_strtoul(const char *text, const char **end)
{
    constexpr unsigned long long limit = std::numeric_limits<std::uint32_t>::max();
    char *stop = nullptr;

    const unsigned long long value = strtoull(text, &stop, 10);
    if (end)
        *end = stop;

    // A minus sign has negated the value in 64 bits already: judge the number that was written.
    // One beyond 64 bits has saturated there, and its low half is 4294967295 with either sign.
    const unsigned long long written = cmn_is_negative(text) ? 0 - value : value;
    return cmn_cut<std::uint32_t>(written > limit ? limit : value);
}

std::int32_t cmn_strtol(const char *text)
{
    constexpr long long lowest = std::numeric_limits<std::int32_t>::min();
    constexpr long long highest = std::numeric_limits<std::int32_t>::max();

    const long long value = strtoll(text, nullptr, 10);
    if (value < lowest)
        return cmn_cut<std::int32_t>(lowest);
    if (value > highest)
        return cmn_cut<std::int32_t>(highest);
    return cmn_cut<std::int32_t>(value);
}
