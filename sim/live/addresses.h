// Addresses as texts.
#pragma once

#include <string>

namespace live
{

// Is the text the number of an IP address, of version 4 or 6?
bool is_address(const std::string &text);

// Is it one by which a machine reaches itself alone? `localhost` is one, too.
bool is_loopback(const std::string &text);

} // namespace live
