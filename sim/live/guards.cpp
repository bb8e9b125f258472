#include "guards.h"

#include "addresses.h"
#include "secrets.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace live
{

namespace
{

// The host of "HOST:PORT" or "HOST", without the brackets of a v6 address; empty for another port.
std::string host_of(const std::string &text, unsigned port)
{
    const std::size_t bracket = text.find(']');
    const std::size_t colon = text.find(':', bracket == std::string::npos ? 0 : bracket);
    std::string host = text.substr(0, colon);
    const std::string given = colon == std::string::npos ? "80" : text.substr(colon + 1);
    if (given != std::to_string(port))
        return "";
    if (bracket == std::string::npos)
        return host;
    if (host.front() != '[' || host.back() != ']')
        return "";
    return host.substr(1, host.size() - 2);
}

// The value of a header that may come once; empty if there is none, and nothing for several.
std::optional<std::string> single_header(const httplib::Request &request, const char *name)
{
    if (request.get_header_value_count(name) > 1)
        return std::nullopt;
    return request.get_header_value(name);
}

// The value of one of the cookies of a request.
std::string cookie_of(const httplib::Request &request, const std::string &name)
{
    const std::string cookies = request.get_header_value("Cookie");
    std::string_view rest = cookies;
    while (!rest.empty()) {
        std::string_view one = rest.substr(0, rest.find(';'));
        rest.remove_prefix(std::min(one.size() + 1, rest.size()));
        one.remove_prefix(std::min(one.find_first_not_of(' '), one.size()));
        const std::size_t separator = one.find('=');
        if (separator != std::string_view::npos && one.substr(0, separator) == name)
            return std::string(one.substr(separator + 1));
    }
    return "";
}

} // namespace

Guards::Guards(bool only_loopback, unsigned port, std::string access_token)
    : only_loopback_(only_loopback), port_(port), access_token_(std::move(access_token)),
      page_token_(make_token()), cookie_name_("qm5sim-" + std::to_string(port)),
      session_(make_token())
{
}

bool Guards::is_own_host(const std::string &text) const
{
    const std::string host = host_of(text, port_);
    return is_loopback(host) || (!only_loopback_ && is_address(host));
}

bool Guards::is_from_own_page(const httplib::Request &request) const
{
    const auto host = single_header(request, "Host");
    const auto origin = single_header(request, "Origin");
    const auto site = single_header(request, "Sec-Fetch-Site");
    if (!host || !origin || !site || !is_own_host(*host))
        return false;
    if (request.has_header("Origin") && *origin != "http://" + *host)
        return false;
    return !request.has_header("Sec-Fetch-Site") || *site == "same-origin" || *site == "none";
}

bool Guards::has_access(const httplib::Request &request) const
{
    constexpr std::string_view bearer = "Bearer ";
    if (access_token_.empty())
        return true;
    const std::string authorization = request.get_header_value("Authorization");
    if (authorization.compare(0, bearer.size(), bearer) == 0)
        return is_token(authorization.substr(bearer.size()), access_token_);
    return is_token(cookie_of(request, cookie_name_), session_) || cookie_for(request);
}

std::optional<std::string> Guards::cookie_for(const httplib::Request &request) const
{
    if (access_token_.empty() || request.method != "GET" || request.path != "/" ||
        !is_token(request.get_param_value("token"), access_token_))
        return std::nullopt;
    return cookie_name_ + '=' + session_ + "; HttpOnly; SameSite=Strict; Path=/";
}

std::optional<Refusal> Guards::check(const httplib::Request &request) const
{
    if (!is_from_own_page(request))
        return Refusal{403, "request: not from a page of this server"};
    if (!has_access(request))
        return Refusal{401, "request: it needs the token of this server"};
    if (request.method != "GET" && request.method != "HEAD" &&
        !is_token(request.get_header_value("X-Qm5sim-Token"), page_token_))
        return Refusal{403, "request: a change needs the token of the page"};
    return std::nullopt;
}

} // namespace live
