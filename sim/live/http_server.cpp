#include "http_server.h"

#include "routes.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <utility>

namespace live
{

namespace
{

using namespace std::chrono_literals;
using HandlerResponse = httplib::Server::HandlerResponse;

// All streams of events, 100 readers that are slow, and room for those that aren't.
constexpr std::size_t THREADS = 160;

constexpr int BACKLOG = 128;

constexpr auto READ_TIME = 5s; // without a byte
constexpr auto WRITE_TIME = 10s;
constexpr auto LAST_TIME = 1s; // for what is under way at the end
constexpr auto STARTUP_PACE = 20ms;

// httplib's own choice would let another server listen at the same port.
void reuse_address(int socket)
{
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

// Takes out what asks for parts of an answer or a packed one, which no page needs: httplib would
// read behind an answer's end for some parts, and one byte for each of many others.
void leave_out_parts(const httplib::Request &request)
{
    auto &own = const_cast<httplib::Request &>(request); // it is handed over as what isn't changed
    own.ranges.clear();
    own.headers.erase("Range");
    own.headers.erase("Accept-Encoding");
}

// What httplib itself refuses has no text.
HandlerResponse add_text(const httplib::Request &, httplib::Response &response)
{
    if (!response.body.empty())
        return HandlerResponse::Unhandled;
    send_error(response, response.status, "request: it makes no sense");
    return HandlerResponse::Handled;
}

void tell_exception(const httplib::Request &, httplib::Response &response,
                    const std::exception_ptr &thrown)
{
    try {
        std::rethrow_exception(thrown);
    } catch (const std::exception &error) {
        send_error(response, 500, error.what());
    }
}

} // namespace

HttpServer::HttpServer(const std::string &address, unsigned port, httplib::Headers headers)
{
    set_default_headers(std::move(headers));
    set_limits();
    set_handlers();
    const int any = port == 0 ? bind_to_any_port(address) : 0;
    if (any == -1 || (port != 0 && !bind_to_port(address, static_cast<int>(port))))
        throw std::runtime_error(address + ':' + std::to_string(port) + ": " +
                                 std::strerror(errno));
    port_ = port == 0 ? static_cast<unsigned>(any) : port;
    ::listen(svr_sock_, BACKLOG); // httplib's own queue is too short for a page's many files
}

void HttpServer::set_limits()
{
    new_task_queue = [] { return new httplib::ThreadPool(THREADS); };
    set_keep_alive_max_count(1); // a page's idle connections would keep threads
    set_read_timeout(READ_TIME);
    set_write_timeout(WRITE_TIME);
    set_payload_max_length(LONGEST_FRAME);
    set_tcp_nodelay(true);
    set_socket_options(reuse_address);
}

void HttpServer::set_handlers()
{
    set_pre_routing_handler([this](const httplib::Request &request, httplib::Response &response) {
        leave_out_parts(request);
        if (!service_.admit(request, response))
            return HandlerResponse::Handled;
        if (request.method != "GET" && request.method != "HEAD")
            return HandlerResponse::Unhandled;
        service_.answer(request, "", response);
        return HandlerResponse::Handled;
    });
    // What may have a body comes here once it is admitted, so that the path isn't a long one.
    const auto take = [this](const httplib::Request &request, httplib::Response &response,
                             const httplib::ContentReader &reader) {
        read_and_answer(request, response, reader);
    };
    constexpr const char *anything = "[^]*";
    Put(anything, take);
    Post(anything, take);
    Delete(anything, take);
    set_error_handler(httplib::Server::HandlerWithResponse(add_text));
    set_exception_handler(tell_exception);
}

void HttpServer::read_and_answer(const httplib::Request &request, httplib::Response &response,
                                 const httplib::ContentReader &reader) const
{
    std::string body;
    // Without a length httplib would read to the end of the connection.
    const bool whole = !request.has_header("Content-Length") ||
                       reader([&body](const char *bytes, std::size_t size) {
                           body.append(bytes, size);
                           return true;
                       });
    if (whole)
        service_.answer(request, body, response);
    else
        send_error(response, 400, "request: its body is cut off");
}

void HttpServer::run(Service service, int stop)
{
    service_ = std::move(service);
    std::future<bool> listening =
        std::async(std::launch::async, [this] { return listen_after_bind(); });
    pollfd wanted = {stop, POLLIN, 0};
    constexpr int pace = std::chrono::milliseconds(STARTUP_PACE).count();
    while (poll(&wanted, 1, pace) != 1 && listening.wait_for(0s) != std::future_status::ready)
        continue;
    service_.end();
    while (!is_running() && listening.wait_for(STARTUP_PACE) != std::future_status::ready)
        continue; // it has hardly begun
    Server::stop();
    if (listening.wait_for(LAST_TIME) != std::future_status::ready)
        std::_Exit(EXIT_SUCCESS); // clients that stand still would have us wait for them
    if (!listening.get())
        throw std::runtime_error("connections: they can't be accepted");
}

} // namespace live
