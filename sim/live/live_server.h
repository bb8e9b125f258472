// The server of the live page as a whole.
#pragma once

#include <filesystem>
#include <string>

namespace live
{

struct Options {
    std::filesystem::path folder; // state folder
    std::string address = "127.0.0.1";
    unsigned port = 8075;           // 0: any free one
    std::string token;              // without which nobody gets an answer; empty: everybody does
    std::string program = "qm5osd"; // looked up in PATH if it has no slash
    std::filesystem::path log;      // the application's; empty: server.log in the state folder
};

// An access token has so many characters at least, all of them such as a URL carries as they are.
constexpr std::size_t SHORTEST_TOKEN = 16;
bool is_access_token(const std::string &text);

// Serves until SIGINT, SIGTERM or SIGHUP, after printing the page's address. Throws
// std::runtime_error.
void serve(const Options &options);

} // namespace live
