// Who may ask: pages that this server has sent, and whoever knows its token. A page from elsewhere
// in the same browser may not, by whatever name it reaches the server.
#pragma once

#include <httplib.h>

#include <optional>
#include <string>

namespace live
{

struct Refusal {
    int status = 0;
    std::string why;
};

class Guards
{
public:
    // `access_token` is empty if everybody who reaches the server may look.
    Guards(bool only_loopback, unsigned port, std::string access_token);

    // Why a request isn't served. Changes need the page's token too.
    std::optional<Refusal> check(const httplib::Request &request) const;

    // For a request that shows the access token in its address: the cookie to set instead.
    std::optional<std::string> cookie_for(const httplib::Request &request) const;

    // What the page needs for its changes.
    const std::string &page_token() const
    {
        return page_token_;
    }

private:
    bool is_own_host(const std::string &host) const;
    bool is_from_own_page(const httplib::Request &request) const;
    bool has_access(const httplib::Request &request) const;

    bool only_loopback_;
    unsigned port_;
    std::string access_token_;
    std::string page_token_;
    std::string cookie_name_;
    std::string session_; // the cookie's value, which tells nothing of the token
};

} // namespace live
