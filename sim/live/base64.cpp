#include "base64.h"

#include <algorithm>
#include <cstdint>

namespace live
{

namespace
{

constexpr std::string_view DIGITS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t GROUP = 4; // digits, of three bytes

} // namespace

std::optional<std::string> decode_base64(std::string_view text)
{
    if (text.size() % GROUP != 0)
        return std::nullopt;
    const std::size_t end = text.find_last_not_of('=') + 1;
    const std::size_t padding = text.size() - end;
    if (padding > 2)
        return std::nullopt;
    std::string bytes;
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < text.size(); i++) {
        const std::size_t digit = i < end ? DIGITS.find(text[i]) : 0;
        if (digit == std::string_view::npos)
            return std::nullopt;
        bits = bits << 6 | static_cast<std::uint32_t>(digit);
        if (i % GROUP == GROUP - 1) {
            for (const int shift : {16, 8, 0})
                bytes += static_cast<char>(bits >> shift & 0xFF);
        }
    }
    bytes.resize(bytes.size() - padding);
    return bytes;
}

} // namespace live
