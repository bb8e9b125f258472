#include "secrets.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <sys/random.h>

namespace live
{

std::string make_token()
{
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != ssize_t{bytes.size()})
        throw std::runtime_error(std::string("random bytes: ") + std::strerror(errno));
    constexpr const char *digits = "0123456789abcdef";
    std::string token;
    for (const unsigned char byte : bytes) {
        token += digits[byte >> 4];
        token += digits[byte & 15];
    }
    return token;
}

bool is_token(std::string_view given, std::string_view expected)
{
    if (expected.empty())
        return false;
    unsigned differing = given.size() == expected.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size(); i++)
        differing |= static_cast<unsigned char>(given[i] ^ expected[i % expected.size()]);
    return differing == 0;
}

} // namespace live
