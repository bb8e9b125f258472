// A client of HTTP that sends exactly what a test says, good or bad, and waits no longer than a
// test may.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace support
{

struct Answer {
    int status = 0;
    std::map<std::string, std::string> headers; // by their names in lower case
    std::string body;
};

// One connection to a server on this machine. What fails or takes too long throws
// std::runtime_error.
class HttpConnection
{
public:
    explicit HttpConnection(unsigned port);
    HttpConnection(HttpConnection &&other) noexcept;
    HttpConnection(const HttpConnection &) = delete;
    HttpConnection &operator=(const HttpConnection &) = delete;
    ~HttpConnection();

    void send(const std::string &bytes) const;

    // Receives an answer, with its body unless it goes on for ever.
    Answer receive(bool with_body = true);

    // Receives some more bytes; false at the end of the connection.
    bool receive_more();

    // All that still comes, up to the server's end of the connection.
    std::string rest();

    std::string input; // received and not used yet

private:
    int fd_ = -1;
};

typedef std::vector<std::pair<std::string, std::string>> HeaderList;

// The bytes of a request; Content-Length is added for a body.
std::string request_text(const std::string &method, const std::string &path,
                         const HeaderList &headers, const std::string &body = "");

// One event of a text/event-stream.
struct Event {
    std::string name;
    std::string id;
    std::string data;
};

// The end of a stream of which an event was awaited.
class StreamEnd : public std::runtime_error
{
public:
    StreamEnd() : std::runtime_error("the stream has ended")
    {
    }
};

// Reads the events of a connection whose head has been received.
class EventReader
{
public:
    explicit EventReader(HttpConnection connection) : connection_(std::move(connection))
    {
    }

    // The next event of this name; those between are passed over. Throws StreamEnd.
    Event next(const std::string &name);
    Event next();

    // What still comes, up to the server's end of the stream.
    std::string rest()
    {
        return connection_.rest();
    }

    const std::string &last_id() const
    {
        return last_id_;
    }

private:
    HttpConnection connection_;
    std::string last_id_;
};

} // namespace support
