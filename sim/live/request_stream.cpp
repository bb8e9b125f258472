#include "request_stream.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

namespace live
{

namespace
{

constexpr std::chrono::seconds BODY_TIME{30};
constexpr std::chrono::seconds ANSWER_TIME{90};
constexpr std::chrono::seconds PIECE_TIME{10};

// How long an answer under way may take when the server is to end.
constexpr std::chrono::milliseconds LAST_TIME{300};

} // namespace

RequestStream::RequestStream(Connection &connection, Head head, int stop)
    : connection_(connection), head_(std::move(head)), stop_(stop), body_left_(head_.body),
      read_until_(Clock::now() + BODY_TIME), answer_until_(Clock::now() + ANSWER_TIME)
{
}

void RequestStream::answer_for_ever()
{
    for_ever_ = true;
}

// ---- Waiting ------------------------------------------------------------------------------------

// Waits for the client; false if that takes too long or the server is to end.
bool RequestStream::wait(short what, Clock::time_point until)
{
    bool stopping = false;
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        std::array<pollfd, 2> wanted = {{{connection_.fd, what, 0}, {stop_, POLLIN, 0}}};
        const nfds_t count = stopping ? 1 : 2;
        const int ready =
            poll(wanted.data(), count, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (wanted[0].revents != 0)
            return true;
        if (ready == 0 || (ready == -1 && errno != EINTR))
            return false;
        if (ready > 0) {
            stopping = true;
            until = std::min(until, Clock::now() + LAST_TIME);
        }
    }
}

bool RequestStream::is_readable() const
{
    return head_read_ < head_.text.size() || body_left_ > 0;
}

bool RequestStream::is_writable() const
{
    pollfd wanted = {connection_.fd, POLLRDHUP, 0};
    return poll(&wanted, 1, 0) == 0;
}

// ---- Reading ------------------------------------------------------------------------------------

ssize_t RequestStream::read(char *bytes, std::size_t size)
{
    if (head_read_ == head_.text.size())
        return read_body(bytes, size);
    const std::size_t length = head_.text.copy(bytes, size, head_read_);
    head_read_ += length;
    return static_cast<ssize_t>(length);
}

ssize_t RequestStream::read_body(char *bytes, std::size_t size)
{
    size = static_cast<std::size_t>(std::min<std::uint64_t>(size, body_left_));
    if (size == 0)
        return 0; // a request ends here, whatever comes behind it
    std::string &input = connection_.input;
    if (!input.empty()) {
        const std::size_t length = input.copy(bytes, size);
        input.erase(0, length);
        body_left_ -= length;
        return static_cast<ssize_t>(length);
    }
    for (;;) {
        const ssize_t length = recv(connection_.fd, bytes, size, MSG_DONTWAIT);
        if (length > 0)
            body_left_ -= static_cast<std::uint64_t>(length);
        if (length >= 0 || (errno != EAGAIN && errno != EINTR))
            return length;
        if (!wait(POLLIN, read_until_))
            return -1;
    }
}

// ---- Writing ------------------------------------------------------------------------------------

ssize_t RequestStream::write(const char *bytes, std::size_t size)
{
    const Clock::time_point until = for_ever_ ? Clock::now() + PIECE_TIME : answer_until_;
    std::size_t written = 0;
    while (written < size) {
        const ssize_t length =
            send(connection_.fd, bytes + written, size - written, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (length > 0)
            written += static_cast<std::size_t>(length);
        else if (length == -1 && errno != EAGAIN && errno != EINTR)
            return -1;
        else if (!wait(POLLOUT, until))
            return -1;
    }
    return static_cast<ssize_t>(size);
}

// ---- Addresses ----------------------------------------------------------------------------------

void RequestStream::get_remote_ip_and_port(std::string &, int &) const
{
}

void RequestStream::get_local_ip_and_port(std::string &, int &) const
{
}

socket_t RequestStream::socket() const
{
    return connection_.fd;
}

} // namespace live
