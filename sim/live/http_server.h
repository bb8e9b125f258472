// HTTP/1.1 on one socket. httplib reads requests and writes answers; the connections are kept here,
// so that a thread is taken only for a request whose head has come, and everything is bounded: the
// connections, the threads, the time for a head, a body and an answer.
#pragma once

#include "connection.h"
#include "workers.h"

#include <httplib.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

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
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;
    ~HttpServer() override;

    unsigned port() const
    {
        return port_;
    }

    // Serves until the descriptor `stop` becomes readable; then answers under way are cut off
    // within moments.
    void run(Service service, int stop);

private:
    typedef std::unique_ptr<Connection> Owned;

    void set_up(httplib::Headers headers);
    HandlerResponse route(const httplib::Request &request, httplib::Response &response);
    void read_and_answer(const httplib::Request &request, httplib::Response &response,
                         const httplib::ContentReader &reader);

    void serve(Owned connection, Head head);

    bool wait();
    void look_at(Owned connection, bool readable);
    void start(Owned connection, Head head);
    void take_back();
    void accept_connections();
    void drop_oldest();

    Service service_;
    int listener_ = -1;
    int wake_ = -1;
    int stop_ = -1;
    unsigned port_ = 0;
    bool accepting_ = true;     // false after a failure, for a moment
    std::vector<Owned> parked_; // that wait for a request
    std::atomic<std::size_t> active_ = 0;
    std::mutex mutex_; // of returned_
    std::vector<Owned> returned_;
    std::unique_ptr<Workers> workers_;
};

} // namespace live
