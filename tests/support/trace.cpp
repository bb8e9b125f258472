#include "support/trace.h"

#include <cstdarg>
#include <cstdio>
#include <utility>

namespace support
{

Lines &trace()
{
    static Lines lines;
    return lines;
}

void add_trace(const char *format, ...)
{
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    trace().emplace_back(line);
}

Lines take_trace()
{
    return std::exchange(trace(), {});
}

} // namespace support
