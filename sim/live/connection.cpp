#include "connection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

namespace live
{

namespace
{

constexpr std::string_view END_OF_LINE = "\r\n";
constexpr std::string_view END_OF_HEAD = "\r\n\r\n";

bool equal_without_case(std::string_view one, std::string_view other)
{
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

std::string_view trim(std::string_view text)
{
    const std::size_t first = std::min(text.find_first_not_of(" \t"), text.size());
    text.remove_prefix(first);
    const std::size_t last = text.find_last_not_of(" \t");
    return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

Head refuse(int status, const char *why)
{
    return {"GET / HTTP/1.1\r\n\r\n", 0, status, why};
}

// Lines end with CR LF and contain neither, nor a zero byte.
bool is_clean(std::string_view head)
{
    for (std::size_t i = 0; i < head.size(); i++) {
        if (head[i] == '\0' || (head[i] == '\n' && (i == 0 || head[i - 1] != '\r')) ||
            (head[i] == '\r' && (i + 1 == head.size() || head[i + 1] != '\n')))
            return false;
    }
    return true;
}

// httplib would cut and pack answers as these ask for, which nobody here needs.
bool is_left_out(std::string_view name)
{
    return equal_without_case(name, "Range") || equal_without_case(name, "Accept-Encoding");
}

// Reads what stands behind the name of a header: a colon, and a number.
std::optional<std::uint64_t> read_length(std::string_view text)
{
    if (text.empty())
        return std::nullopt;
    text = trim(text.substr(1));
    std::uint64_t length = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, length);
    if (error != std::errc{} || stop != end)
        return std::nullopt;
    return length;
}

Head read_head(std::string_view text)
{
    if (!is_clean(text))
        return refuse(400, "request: a line that has no good end");
    Head head;
    bool first = true;
    bool has_length = false;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find(END_OF_LINE));
        text.remove_prefix(line.size() + END_OF_LINE.size());
        const std::string_view name = line.substr(0, std::min(line.find(':'), line.size()));
        if (!first && equal_without_case(name, "Transfer-Encoding"))
            return refuse(411, "request: its length isn't told");
        if (!first && equal_without_case(name, "Content-Length")) {
            const auto length = read_length(line.substr(name.size()));
            if (!length || has_length)
                return refuse(400, "request: its length makes no sense");
            has_length = true;
            head.body = *length;
        }
        if (first || !is_left_out(name))
            head.text.append(line).append(END_OF_LINE);
        first = false;
    }
    return head;
}

} // namespace

Connection::~Connection()
{
    close(fd);
}

bool Connection::receive()
{
    std::array<char, LONGEST_HEAD> part{}; // more is for the next time
    const ssize_t length = recv(fd, part.data(), part.size(), MSG_DONTWAIT);
    if (length == 0)
        return false;
    if (length == -1)
        return errno == EAGAIN || errno == EINTR;
    if (!draining)
        input.append(part.data(), static_cast<std::size_t>(length));
    return true;
}

std::optional<Head> Connection::take_head()
{
    // An empty line in front of a request is passed over.
    while (input.compare(0, END_OF_LINE.size(), END_OF_LINE) == 0)
        input.erase(0, END_OF_LINE.size());
    const std::size_t end = input.find(END_OF_HEAD);
    if (end == std::string::npos && input.size() <= LONGEST_HEAD)
        return std::nullopt;
    if (end == std::string::npos || end > LONGEST_HEAD)
        return refuse(431, "request: its head is too long");
    const std::size_t size = end + END_OF_HEAD.size();
    Head head = read_head(std::string_view(input).substr(0, size));
    input.erase(0, size);
    return head;
}

} // namespace live
