// HTTP/1.1 by httplib: one request a connection, each in a thread of its own. Bodies, threads and
// the time without a byte are bounded, so that clients who stop or are slow are soon let go; those
// who send or read a byte now and then can keep all threads.
#pragma once

#include <httplib.h>

#include <functional>
#include <string>

namespace live
{

// What a server does with requests; the first two are called by many threads at the same time.
struct Service {
    // Looks at a request before its body is read. False if it has filled the answer.
    std::function<bool(const httplib::Request &, httplib::Response &)> admit;

    // Answers it.
    std::function<void(const httplib::Request &, const std::string &body, httplib::Response &)>
        answer;

    // Ends the answers that wait for something.
    std::function<void()> end;
};

class HttpServer : private httplib::Server
{
public:
    // Listens at an IP literal; port 0 is any free one. All answers get these headers. Throws
    // std::runtime_error, as "ADDRESS:PORT: why".
    HttpServer(const std::string &address, unsigned port, httplib::Headers headers);

    unsigned port() const
    {
        return port_;
    }

    // Serves until the descriptor `stop` becomes readable. Throws std::runtime_error if connections
    // can't be accepted any more. Who still holds a thread a moment after the end is cut off by the
    // end of the process.
    void run(Service service, int stop);

private:
    void set_limits();
    void set_handlers();
    void read_and_answer(const httplib::Request &request, httplib::Response &response,
                         const httplib::ContentReader &reader) const;

    Service service_;
    unsigned port_ = 0;
};

} // namespace live
