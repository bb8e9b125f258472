#include "addresses.h"

#include <arpa/inet.h>

namespace live
{

namespace
{

bool is_v4(const std::string &text, in_addr *address)
{
    return inet_pton(AF_INET, text.c_str(), address) == 1;
}

bool is_v6(const std::string &text, in6_addr *address)
{
    return inet_pton(AF_INET6, text.c_str(), address) == 1;
}

} // namespace

bool is_address(const std::string &text)
{
    in_addr v4{};
    in6_addr v6{};
    return is_v4(text, &v4) || is_v6(text, &v6);
}

bool is_loopback(const std::string &text)
{
    constexpr unsigned loopback_net = 127;
    in_addr v4{};
    in6_addr v6{};
    if (is_v4(text, &v4))
        return ntohl(v4.s_addr) >> 24 == loopback_net;
    return text == "localhost" || (is_v6(text, &v6) && IN6_IS_ADDR_LOOPBACK(&v6));
}

} // namespace live
