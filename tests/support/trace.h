// One list of what the code under test asked of the outside world, in order: calls of the codec
// fake, and those wrapped functions that a test wants to see.
#pragma once

#include <string>
#include <vector>

namespace support
{

typedef std::vector<std::string> Lines;

// The list of this test.
Lines &trace();

// Appends a line in printf's manner.
[[gnu::format(printf, 1, 2)]] void add_trace(const char *format, ...);

// Hands the list over and begins a new one.
Lines take_trace();

} // namespace support
