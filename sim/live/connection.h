// One connection of a client, and the head of a request as far as it has come: nobody waits for a
// client that sends slowly.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace live
{

typedef std::chrono::steady_clock Clock;

// The longest head of a request, in bytes.
constexpr std::size_t LONGEST_HEAD = 16 * 1024;

// The head of a request as httplib is to read it. One that can't be served is told by its refusal
// and reads as a request for nothing.
struct Head {
    std::string text;
    std::uint64_t body = 0; // bytes that follow
    int refusal = 0;        // HTTP status
    std::string why;
};

struct Connection {
    explicit Connection(int socket) : fd(socket)
    {
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection();

    // Takes what the client has sent; false if it has gone.
    bool receive();

    // Takes a complete head out of the input; none if it isn't complete.
    std::optional<Head> take_head();

    int fd;
    std::string input;            // received and not used yet
    Clock::time_point deadline{}; // for the next head
    bool draining = false;        // answered for the last time; what still comes is thrown away
};

} // namespace live
