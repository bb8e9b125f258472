#include "live_server.h"

#include "addresses.h"
#include "child.h"
#include "guards.h"
#include "http_server.h"
#include "quoting.h"
#include "routes.h"
#include "secrets.h"

#include "file_io.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <sys/signalfd.h>
#include <utility>

namespace live
{

namespace fs = std::filesystem;

namespace
{

const httplib::Headers HEADERS = {
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cache-Control", "no-store"},
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:; "
     "connect-src 'self'; form-action 'none'; base-uri 'none'; frame-ancestors 'none'"},
};

// Why a body of the length that a request tells isn't read.
std::optional<Refusal> refuse_length(const httplib::Request &request, std::size_t longest)
{
    if (request.has_header("Transfer-Encoding"))
        return Refusal{411, "request: its length isn't told"};
    if (!request.has_header("Content-Length"))
        return std::nullopt;
    const std::string text = request.get_header_value("Content-Length");
    const bool is_number = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return c >= '0' && c <= '9';
    });
    if (!is_number || request.get_header_value_count("Content-Length") > 1)
        return Refusal{400, "request: its length makes no sense"};
    // As httplib reads it; what is too much for a number is the largest one.
    if (request.get_header_value<std::uint64_t>("Content-Length") > longest)
        return Refusal{413, "body: longer than " + std::to_string(longest) + " bytes"};
    return std::nullopt;
}

// The site and who may see it, as a service of the HTTP server.
class Door
{
public:
    Door(Site &site, const Guards &guards) : site_(site), guards_(guards)
    {
    }

    bool admit(const httplib::Request &request, httplib::Response &response) const
    {
        const std::optional<Refusal> refusal = refuse(request, response);
        if (refusal) {
            send_error(response, refusal->status, refusal->why);
            return false;
        }
        if (const std::optional<std::string> cookie = guards_.cookie_for(request)) {
            response.set_header("Set-Cookie", *cookie);
            response.set_redirect("/", 303);
            return false;
        }
        return true;
    }

    void answer(const httplib::Request &request, const std::string &body,
                httplib::Response &response) const
    {
        FoundRoute found = find_route(request.method, request.path);
        Call call{site_, request, body, response, std::move(found.numbers)};
        try {
            found.route->answer(call);
        } catch (const ApiError &error) {
            send_error(response, error.status(), error.what());
        } catch (const std::exception &error) {
            send_error(response, 500, error.what());
        }
    }

private:
    std::optional<Refusal> refuse(const httplib::Request &request,
                                  httplib::Response &response) const
    {
        if (std::optional<Refusal> refusal = guards_.check(request))
            return refusal;
        const FoundRoute found = find_route(request.method, request.path);
        if (!found.route && found.allowed.empty())
            return Refusal{404, "address: there is nothing here"};
        if (!found.route) {
            response.set_header("Allow", found.allowed);
            return Refusal{405, request.method + ": not for this address"};
        }
        if (request.has_header("Content-Encoding") || request.is_multipart_form_data())
            return Refusal{415, "body: in an encoding that isn't read"};
        return refuse_length(request, found.route->longest_body);
    }

    Site &site_;
    const Guards &guards_;
};

// A descriptor that becomes readable when this process is asked to end, and stays so.
int open_signals()
{
    sigset_t ends;
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&ends, signal);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    const int fd = signalfd(-1, &ends, SFD_CLOEXEC);
    if (fd == -1)
        throw std::runtime_error(std::string("signals: ") + std::strerror(errno));
    return fd;
}

std::string url_of(const std::string &address, unsigned port)
{
    const bool is_v6 = address.find(':') != std::string::npos;
    return "http://" + (is_v6 ? '[' + address + ']' : address) + ':' + std::to_string(port) + '/';
}

} // namespace

bool is_access_token(const std::string &text)
{
    return text.size() >= SHORTEST_TOKEN &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                  "0123456789._~-") == std::string::npos;
}

void serve(const Options &options)
{
    const fs::path folder = fs::absolute(options.folder);
    const fs::path log = options.log.empty() ? folder / "server.log" : fs::absolute(options.log);
    const std::string address = options.address == "localhost" ? "127.0.0.1" : options.address;
    setenv("QM5SIM_STATE", folder.c_str(), 1); // the application works on the same codec

    const sim_reader::Descriptor stop(open_signals()); // before any thread begins
    HttpServer server(address, options.port, HEADERS);
    const Guards guards(is_loopback(address), server.port(), options.token);
    Application application(options.program, folder, log, stop.get());
    Frames frames;
    EventHub hub;
    Watcher watcher(folder, log, frames, hub);
    Site site{folder,  log, guards.page_token(), make_token(), stop.get(), application, frames,
              watcher, hub};
    const Door door(site, guards);

    std::cout << url_of(address, server.port())
              << "\nexport QM5SIM_STATE=" << quote_words({folder.string()}) << std::endl;
    server.run(
        {[&door](const auto &request, auto &response) { return door.admit(request, response); },
         [&door](const auto &request, const std::string &body, auto &response) {
             door.answer(request, body, response);
         },
         [&hub] { hub.end(); }},
        stop.get());
}

} // namespace live
