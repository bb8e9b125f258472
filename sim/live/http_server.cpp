#include "http_server.h"

#include "request_stream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace live
{

namespace
{

constexpr std::size_t MOST_CONNECTIONS = 512;
constexpr std::size_t MOST_WORKERS = 192; // that many may wait for slow readers at the same time
constexpr int BACKLOG = 128;
constexpr std::size_t LONGEST_BODY = std::size_t{16} << 20;

constexpr std::chrono::seconds HEAD_TIME{10};
constexpr std::chrono::seconds IDLE_TIME{30};
constexpr std::chrono::seconds DRAIN_TIME{2};
constexpr std::chrono::milliseconds PAUSE{50};

// The request that this thread is at, for the functions that httplib calls without telling.
thread_local RequestStream *own_stream = nullptr;

// An address and a port for the system.
struct Address {
    sockaddr_storage storage{};
    socklen_t size = 0;
};

Address make_address(const std::string &address, unsigned port)
{
    Address made;
    auto *v4 = reinterpret_cast<sockaddr_in *>(&made.storage);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&made.storage);
    if (inet_pton(AF_INET, address.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<std::uint16_t>(port));
        made.size = sizeof *v4;
    } else if (inet_pton(AF_INET6, address.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<std::uint16_t>(port));
        made.size = sizeof *v6;
    }
    return made;
}

unsigned port_of(int socket)
{
    Address own;
    own.size = sizeof own.storage;
    getsockname(socket, reinterpret_cast<sockaddr *>(&own.storage), &own.size);
    const auto *v4 = reinterpret_cast<const sockaddr_in *>(&own.storage);
    const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&own.storage);
    return ntohs(own.storage.ss_family == AF_INET ? v4->sin_port : v6->sin6_port);
}

int listen_at(const std::string &name, unsigned port)
{
    const Address address = make_address(name, port);
    const int fd = socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    if (fd != -1 && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
        bind(fd, reinterpret_cast<const sockaddr *>(&address.storage), address.size) == 0 &&
        listen(fd, BACKLOG) == 0)
        return fd;
    const int error = errno;
    if (fd != -1)
        close(fd);
    throw std::runtime_error(name + ':' + std::to_string(port) + ": " + std::strerror(error));
}

void set_error(httplib::Response &response, int status, const std::string &why)
{
    response.status = status;
    using Json = nlohmann::json;
    response.set_content(Json{{"error", why}}.dump(-1, ' ', false, Json::error_handler_t::replace),
                         "application/json");
}

} // namespace

// ---- Requests -----------------------------------------------------------------------------------

HttpServer::HttpServer(const std::string &address, unsigned port, httplib::Headers headers)
    : listener_(listen_at(address, port)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      port_(port_of(listener_))
{
    set_up(std::move(headers));
}

HttpServer::~HttpServer()
{
    close(listener_);
    close(wake_);
}

void HttpServer::set_up(httplib::Headers headers)
{
    set_default_headers(std::move(headers));
    set_payload_max_length(LONGEST_BODY);
    svr_sock_ = listener_; // else httplib takes the server for one that ends
    set_pre_routing_handler([this](const httplib::Request &request, httplib::Response &response) {
        return route(request, response);
    });
    // What may have a body comes here after `route`, which has seen to the length of the path.
    const auto take = [this](const httplib::Request &request, httplib::Response &response,
                             const httplib::ContentReader &reader) {
        read_and_answer(request, response, reader);
    };
    constexpr const char *anything = "[^]*";
    Put(anything, take);
    Post(anything, take);
    Delete(anything, take);
    // What httplib itself refuses has no text.
    const auto add_text = [](const httplib::Request &, httplib::Response &response) {
        if (!response.body.empty())
            return HandlerResponse::Unhandled;
        set_error(response, response.status, "request: it makes no sense");
        return HandlerResponse::Handled;
    };
    set_error_handler(HandlerWithResponse(add_text));
    set_exception_handler([](const httplib::Request &, httplib::Response &response,
                             const std::exception_ptr &thrown) {
        try {
            std::rethrow_exception(thrown);
        } catch (const std::exception &error) {
            set_error(response, 500, error.what());
        }
    });
    // Nothing is read behind a request whose end wasn't, or written behind an answer without one.
    set_post_routing_handler([](const httplib::Request &, httplib::Response &response) {
        const bool is_stream = response.get_header_value("Content-Type") == "text/event-stream";
        if (is_stream)
            own_stream->answer_for_ever();
        response.headers.erase("Keep-Alive"); // it tells what httplib would do
        if (is_stream || !own_stream->is_read()) {
            response.headers.erase("Connection");
            response.set_header("Connection", "close");
        }
    });
}

HttpServer::HandlerResponse HttpServer::route(const httplib::Request &request,
                                              httplib::Response &response)
{
    const Head &head = own_stream->head();
    if (head.refusal != 0) {
        set_error(response, head.refusal, head.why);
        return HandlerResponse::Handled;
    }
    if (!service_.admit(request, response))
        return HandlerResponse::Handled;
    if (request.method != "GET" && request.method != "HEAD")
        return HandlerResponse::Unhandled;
    service_.answer(request, "", response);
    return HandlerResponse::Handled;
}

void HttpServer::read_and_answer(const httplib::Request &request, httplib::Response &response,
                                 const httplib::ContentReader &reader)
{
    std::string body;
    const bool whole =
        own_stream->head().body == 0 || reader([&body](const char *bytes, std::size_t size) {
            body.append(bytes, size);
            return true;
        });
    if (whole && own_stream->is_read())
        service_.answer(request, body, response);
    else
        set_error(response, 400, "request: its body is cut off");
}

// Serves one request of a connection, which goes back to wait for another one.
void HttpServer::serve(Owned connection, Head head)
{
    const bool refused = head.refusal != 0;
    RequestStream stream(*connection, std::move(head), stop_);
    bool closed = false;
    bool good = false;
    own_stream = &stream;
    try {
        good = process_request(stream, refused, closed, nullptr);
    } catch (const std::exception &) { // there is no memory for the answer
    }
    own_stream = nullptr;
    active_--;
    connection->draining = refused || !stream.is_read();
    if (!good || stream.is_for_ever() || (closed && !connection->draining))
        return;
    const std::lock_guard lock(mutex_);
    returned_.push_back(std::move(connection));
    eventfd_write(wake_, 1);
}

// ---- Connections --------------------------------------------------------------------------------

void HttpServer::run(Service service, int stop)
{
    service_ = std::move(service);
    stop_ = stop;
    workers_ = std::make_unique<Workers>(MOST_WORKERS);
    while (wait())
        continue;
    parked_.clear();
    service_.end();
    workers_.reset(); // waits for what is under way
    returned_.clear();
}

// Waits for the next that happens and sees to it; false if the server is to end.
bool HttpServer::wait()
{
    std::vector<pollfd> wanted = {
        {stop_, POLLIN, 0}, {wake_, POLLIN, 0}, {accepting_ ? listener_ : -1, POLLIN, 0}};
    const std::size_t first = wanted.size();
    Clock::time_point next = Clock::now() + (accepting_ ? std::chrono::hours(1) : PAUSE);
    for (const Owned &connection : parked_) {
        wanted.push_back({connection->fd, POLLIN, 0});
        next = std::min(next, connection->deadline);
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    poll(wanted.data(), wanted.size(), static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    accepting_ = true;
    if (wanted[0].revents != 0)
        return false;
    std::vector<Owned> all = std::exchange(parked_, {});
    for (std::size_t i = 0; i < all.size(); i++)
        look_at(std::move(all[i]), wanted[first + i].revents != 0);
    if (wanted[1].revents != 0)
        take_back();
    if (wanted[2].revents != 0)
        accept_connections();
    return true;
}

// Starts the request of a connection if its head has come, and lets go of one that has gone or
// takes too long.
void HttpServer::look_at(Owned connection, bool readable)
{
    if (readable && !connection->receive())
        return;
    std::optional<Head> head = connection->draining ? std::nullopt : connection->take_head();
    if (head)
        start(std::move(connection), std::move(*head));
    else if (Clock::now() < connection->deadline)
        parked_.push_back(std::move(connection));
}

void HttpServer::start(Owned connection, Head head)
{
    active_++;
    // A function must be copyable, which what it works on isn't.
    const auto shared =
        std::make_shared<std::pair<Owned, Head>>(std::move(connection), std::move(head));
    workers_->add([this, shared] { serve(std::move(shared->first), std::move(shared->second)); });
}

void HttpServer::take_back()
{
    eventfd_t count = 0;
    eventfd_read(wake_, &count);
    std::vector<Owned> all;
    {
        const std::lock_guard lock(mutex_);
        all = std::exchange(returned_, {});
    }
    for (Owned &connection : all) {
        if (connection->draining)
            shutdown(connection->fd, SHUT_WR);
        connection->deadline =
            Clock::now() + (connection->draining ? Clock::duration(DRAIN_TIME) : IDLE_TIME);
        look_at(std::move(connection), false);
    }
}

void HttpServer::accept_connections()
{
    for (;;) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd == -1) {
            accepting_ = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
            return; // to come back at once, or after a pause if there is no room
        }
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        auto connection = std::make_unique<Connection>(fd);
        connection->deadline = Clock::now() + HEAD_TIME;
        if (parked_.size() + active_ >= MOST_CONNECTIONS)
            drop_oldest();
        if (parked_.size() + active_ < MOST_CONNECTIONS)
            parked_.push_back(std::move(connection));
    }
}

// Lets go of the connection that has waited longest for a request.
void HttpServer::drop_oldest()
{
    const auto oldest =
        std::min_element(parked_.begin(), parked_.end(), [](const Owned &one, const Owned &other) {
            return one->deadline < other->deadline;
        });
    if (oldest != parked_.end())
        parked_.erase(oldest);
}

} // namespace live
