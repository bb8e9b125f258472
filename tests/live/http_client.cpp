#include "http_client.h"

#include "support/process.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace support
{

namespace
{

constexpr const char *END_OF_HEAD = "\r\n\r\n";

[[noreturn]] void fail(const char *what)
{
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

// Waits for a socket.
void wait_for(int fd, short what)
{
    pollfd wanted = {fd, what, 0};
    const auto patience = std::chrono::milliseconds(PATIENCE).count();
    if (poll(&wanted, 1, static_cast<int>(patience)) != 1)
        throw std::runtime_error("the server keeps its client waiting");
}

std::string lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

Answer parse_head(const std::string &head)
{
    Answer answer;
    answer.status = std::stoi(head.substr(head.find(' ') + 1));
    for (std::size_t at = head.find("\r\n") + 2; at < head.size();) {
        const std::size_t end = std::min(head.find("\r\n", at), head.size());
        const std::string line = head.substr(at, end - at);
        const std::size_t colon = line.find(": ");
        answer.headers[lower(line.substr(0, colon))] = line.substr(colon + 2);
        at = end + 2;
    }
    return answer;
}

} // namespace

// ---- Connections --------------------------------------------------------------------------------

HttpConnection::HttpConnection(unsigned port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Little room, so that a reader who stops is soon felt.
    const int room = 4096;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        const int error = errno;
        close(fd_);
        errno = error;
        fail("connect");
    }
}

HttpConnection::HttpConnection(HttpConnection &&other) noexcept
    : input(std::move(other.input)), fd_(std::exchange(other.fd_, -1))
{
}

HttpConnection::~HttpConnection()
{
    if (fd_ != -1)
        close(fd_);
}

void HttpConnection::send(const std::string &bytes) const
{
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        wait_for(fd_, POLLOUT);
        const ssize_t length =
            ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (length > 0)
            sent += static_cast<std::size_t>(length);
        else if (errno == EPIPE || errno == ECONNRESET)
            return; // refused before its end
        else if (errno != EAGAIN)
            fail("send");
    }
}

bool HttpConnection::receive_more()
{
    std::array<char, 4096> part{};
    wait_for(fd_, POLLIN);
    const ssize_t length = recv(fd_, part.data(), part.size(), 0);
    if (length == -1 && errno != ECONNRESET)
        fail("receive");
    if (length <= 0)
        return false;
    input.append(part.data(), static_cast<std::size_t>(length));
    return true;
}

Answer HttpConnection::receive(bool with_body)
{
    std::size_t end = std::string::npos;
    while ((end = input.find(END_OF_HEAD)) == std::string::npos) {
        if (!receive_more())
            throw std::runtime_error("no answer, but an end: " + input);
    }
    Answer answer = parse_head(input.substr(0, end));
    input.erase(0, end + std::strlen(END_OF_HEAD));
    const auto length = answer.headers.find("content-length");
    if (!with_body || length == answer.headers.end())
        return answer;
    const std::size_t size = std::stoul(length->second);
    while (input.size() < size) {
        if (!receive_more())
            throw std::runtime_error("an answer that is cut off: " + input);
    }
    answer.body = input.substr(0, size);
    input.erase(0, size);
    return answer;
}

std::string HttpConnection::rest()
{
    while (receive_more())
        continue;
    return std::exchange(input, {});
}

std::string request_text(const std::string &method, const std::string &path,
                         const HeaderList &headers, const std::string &body)
{
    std::string text = method + ' ' + path + " HTTP/1.1\r\n";
    for (const auto &[name, value] : headers)
        text += name + ": " + value + "\r\n";
    if (!body.empty())
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

// ---- Events -------------------------------------------------------------------------------------

Event EventReader::next()
{
    const auto end_of_patience = std::chrono::steady_clock::now() + PATIENCE;
    while (std::chrono::steady_clock::now() < end_of_patience) {
        std::size_t end = std::string::npos;
        std::string &input = connection_.input;
        while ((end = input.find("\n\n")) == std::string::npos) {
            if (!connection_.receive_more())
                throw StreamEnd();
        }
        Event event;
        for (std::size_t at = 0; at < end;) {
            const std::size_t line_end = std::min(input.find('\n', at), end);
            const std::string line = input.substr(at, line_end - at);
            const std::size_t colon = line.find(": ");
            const std::string name = line.substr(0, colon);
            if (name == "event")
                event.name = line.substr(colon + 2);
            else if (name == "id")
                event.id = line.substr(colon + 2);
            else if (name == "data")
                event.data = line.substr(colon + 2);
            at = line_end + 1;
        }
        input.erase(0, end + 2);
        if (event.name.empty()) // a comment
            continue;
        last_id_ = event.id;
        return event;
    }
    throw std::runtime_error("an event that doesn't come");
}

Event EventReader::next(const std::string &name)
{
    for (;;) {
        Event event = next();
        if (event.name == name)
            return event;
    }
}

} // namespace support
