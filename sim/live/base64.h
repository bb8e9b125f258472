// Any bytes in a text, as JSON needs it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace live
{

// The bytes of a text in base64, padded to a multiple of four characters; nothing for another text.
std::optional<std::string> decode_base64(std::string_view text);

} // namespace live
