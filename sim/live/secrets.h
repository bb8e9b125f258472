// Tokens: made so that nobody guesses them, and compared so that no answer's time gives them away.
#pragma once

#include <string>
#include <string_view>

namespace live
{

// 32 hexadecimal digits of the system's random bytes. Throws std::runtime_error.
std::string make_token();

// Takes a time that depends on the length of `given` alone.
bool is_token(std::string_view given, std::string_view expected);

} // namespace live
