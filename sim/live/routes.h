// What the server answers to which address. A handler fails by ApiError, or by any other
// std::exception for what is nobody's mistake.
#pragma once

#include "application.h"
#include "event_hub.h"
#include "frames.h"
#include "watcher.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace live
{

// What all handlers work with.
struct Site {
    std::filesystem::path folder;
    std::filesystem::path log;
    std::string page_token;
    std::string start; // names this run of the server
    int stop = -1;     // a descriptor that becomes readable when the server is to end
    Application &application;
    Frames &frames;
    Watcher &watcher;
    const EventHub &hub;
    std::atomic<int> streams = 0; // of events that are open
};

// One request that a handler answers. The numbers are those in the request's path.
struct Call {
    Site &site;
    const httplib::Request &request;
    const std::string &body;
    httplib::Response &response;
    std::vector<unsigned> numbers;
};

struct Route {
    const char *method;
    const char *path; // `*` stands for a number
    std::size_t longest_body;
    void (*answer)(Call &call);
};

constexpr std::size_t NO_BODY = 64 * 1024; // nobody minds one
constexpr std::size_t LONGEST_TEXT = 64 * 1024;
constexpr std::size_t LONGEST_TASK = std::size_t{1} << 20; // a parameter file and more
constexpr std::size_t LONGEST_FRAME = std::size_t{16} << 20;

// What there is for a request.
struct FoundRoute {
    const Route *route = nullptr; // none: nothing, or not for this method
    std::vector<unsigned> numbers;
    std::string allowed; // methods of this path, as "GET, HEAD, PUT"
};
FoundRoute find_route(const std::string &method, const std::string &path);

// All of them, in parts.
std::vector<Route> page_routes();
std::vector<Route> reading_routes();
std::vector<Route> changing_routes();
std::vector<Route> application_routes();

// A failure and its HTTP status.
class ApiError : public std::runtime_error
{
public:
    ApiError(int status, const std::string &why) : std::runtime_error(why), status_(status)
    {
    }
    int status() const
    {
        return status_;
    }

private:
    int status_;
};

// ---- For handlers -------------------------------------------------------------------------------

typedef nlohmann::ordered_json Json;

void send_json(Call &call, const Json &json);
void send_bytes(Call &call, std::shared_ptr<const std::string> bytes, const std::string &type);
void send_error(httplib::Response &response, int status, const std::string &why);

// The body as a JSON object.
Json read_object(const Call &call);

// A text of the object; ApiError if it has none of this name, or one with control characters.
std::string text_of(const Json &object, const char *name);

// The post or OSD of this number in the path; ApiError if there can be none.
unsigned post_of(const Call &call);
unsigned osd_of(const Call &call);

// This post as it is now; before the first application it has its default size. ApiError if the
// state can't be read.
sim_post post_now(const Call &call);

// What `attempt` makes; ApiError if something stands in the way of a request that isn't wrong, as a
// file that makes no sense, or a server that hangs and has the device open.
template <typename Attempt>
auto or_conflict(Attempt attempt)
{
    try {
        return attempt();
    } catch (const std::runtime_error &error) {
        throw ApiError(409, error.what());
    }
}

} // namespace live
