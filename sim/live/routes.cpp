#include "routes.h"

#include "control_files.h"
#include "state_reader.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

namespace live
{

// ---- Finding ------------------------------------------------------------------------------------

namespace
{

const std::vector<Route> &all_routes()
{
    static const std::vector<Route> all = [] {
        std::vector<Route> joined;
        for (const std::vector<Route> &part :
             {page_routes(), reading_routes(), changing_routes(), application_routes()})
            joined.insert(joined.end(), part.begin(), part.end());
        return joined;
    }();
    return all;
}

// The numbers that stand where the pattern has `*`; none if the path is another one.
std::optional<std::vector<unsigned>> match(std::string_view pattern, std::string_view path)
{
    constexpr std::size_t longest_number = 9;
    std::vector<unsigned> numbers;
    while (!pattern.empty() && !path.empty()) {
        std::size_t used = 1;
        if (pattern.front() == '*') {
            used = std::min(path.find_first_not_of("0123456789"), path.size());
            if (used == 0 || used > longest_number)
                return std::nullopt;
            numbers.push_back(static_cast<unsigned>(std::stoul(std::string(path, 0, used))));
        } else if (pattern.front() != path.front()) {
            return std::nullopt;
        }
        path.remove_prefix(used);
        pattern.remove_prefix(1);
    }
    return pattern.empty() && path.empty() ? std::optional(numbers) : std::nullopt;
}

} // namespace

FoundRoute find_route(const std::string &method, const std::string &path)
{
    FoundRoute found;
    for (const Route &route : all_routes()) {
        std::optional<std::vector<unsigned>> numbers = match(route.path, path);
        if (!numbers)
            continue;
        const std::string own = route.method;
        found.allowed += (found.allowed.empty() ? "" : ", ") + (own == "GET" ? "GET, HEAD" : own);
        if (own == method || (own == "GET" && method == "HEAD")) {
            found.route = &route;
            found.numbers = std::move(*numbers);
        }
    }
    return found;
}

// ---- Answers ------------------------------------------------------------------------------------

void send_json(Call &call, const Json &json)
{
    call.response.set_content(json.dump(-1, ' ', false, Json::error_handler_t::replace),
                              "application/json");
}

void send_bytes(Call &call, std::shared_ptr<const std::string> bytes, const std::string &type)
{
    if (bytes->empty()) {
        call.response.set_content("", type);
        return;
    }
    const std::size_t size = bytes->size();
    call.response.set_content_provider(
        size, type,
        [bytes = std::move(bytes)](std::size_t at, std::size_t length, httplib::DataSink &sink) {
            constexpr std::size_t at_once = 64 * 1024;
            return sink.write(bytes->data() + at, std::min(length, at_once));
        });
}

void send_error(httplib::Response &response, int status, const std::string &why)
{
    response.status = status;
    response.set_content(Json{{"error", why}}.dump(-1, ' ', false, Json::error_handler_t::replace),
                         "application/json");
}

// ---- Requests -----------------------------------------------------------------------------------

Json read_object(const Call &call)
{
    Json object = Json::parse(call.body, nullptr, false);
    if (object.is_discarded() || !object.is_object())
        throw ApiError(400, "body: no JSON object");
    return object;
}

std::string text_of(const Json &object, const char *name)
{
    const auto found = object.find(name);
    if (found == object.end() || !found->is_string())
        throw ApiError(400, std::string(name) + ": no text");
    std::string text = *found;
    const bool is_clean = std::none_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == 0x7F;
    });
    if (!is_clean)
        throw ApiError(400, std::string(name) + ": a control character");
    return text;
}

unsigned post_of(const Call &call)
{
    const unsigned post = call.numbers.at(0);
    if (post >= SIM_POSTS)
        throw ApiError(404, "post " + std::to_string(post) + ": there is none");
    return post;
}

unsigned osd_of(const Call &call)
{
    const unsigned osd = call.numbers.at(1);
    if (osd >= SIM_OSDS)
        throw ApiError(404, "OSD " + std::to_string(osd) + ": there is none");
    return osd;
}

sim_post post_now(const Call &call)
{
    const std::filesystem::path &folder = call.site.folder;
    const unsigned post = post_of(call);
    return or_conflict([&] {
        const std::optional<sim_state> state = control_files::read_state(folder);
        sim_state fresh{};
        if (!state)
            sim_reader::follow_sizes(folder, fresh);
        return state.value_or(fresh).post[post];
    });
}

} // namespace live
