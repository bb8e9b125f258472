// What the page reads: state, pictures, parameters, calls and events.
#include "routes.h"

#include "event_stream.h"
#include "parameters.h"
#include "sim_reader.h"

#include <memory>

namespace live
{

namespace
{

// ---- State and pictures -------------------------------------------------------------------------

void send_state(Call &call)
{
    call.response.set_content(call.site.watcher.look(), "application/json");
}

void send_osd(Call &call)
{
    const unsigned post = post_of(call);
    const unsigned number = osd_of(call);
    const sim_reader::Osd osd =
        or_conflict([&] { return sim_reader::read_osd(call.site.folder, post, number); });
    if (osd.record.handle == 0 || osd.record.shown == 0)
        throw ApiError(404, "OSD " + std::to_string(number) + " of post " + std::to_string(post) +
                                ": it is not shown");
    const auto bytes = std::make_shared<std::string>();
    bytes->reserve(std::size_t{osd.width_of_line()} * osd.record.height);
    for (unsigned y = 0; y < osd.record.height; y++) {
        const std::vector<std::uint8_t> line = osd.indices_of_line(y);
        bytes->append(line.begin(), line.end());
    }
    call.response.set_header("X-Handle", std::to_string(osd.record.handle));
    call.response.set_header("X-Sets", std::to_string(osd.record.sets));
    send_bytes(call, bytes, "application/octet-stream");
}

void send_background(Call &call)
{
    const unsigned post = post_of(call);
    const sim_post record = post_now(call);
    if (!sim_reader::has_thread(record))
        throw ApiError(404, "post " + std::to_string(post) + ": it has no post thread");
    send_bytes(call, call.site.frames.background(post, record.width, record.height), "image/png");
}

void send_palette(Call &call)
{
    Json colors = Json::array();
    for (const sim_reader::Color &color : sim_reader::read_palette(call.site.folder))
        colors.push_back({color.red, color.green, color.blue, color.alpha});
    const bool is_default = !sim_reader::has_palette(call.site.folder);
    send_json(call, {{"default", is_default}, {"colors", colors}});
}

// ---- Parameters ---------------------------------------------------------------------------------

void send_parameters(Call &call)
{
    send_json(call, describe_parameters());
}

// ---- Events -------------------------------------------------------------------------------------

constexpr int MOST_STREAMS = 32;

// So often a stream looks whether its reader is still there.
constexpr std::chrono::milliseconds LOOK{250};

// One of the streams, as long as it lives.
class Place
{
public:
    explicit Place(Site &site) : site_(site)
    {
        if (++site_.streams <= MOST_STREAMS)
            return;
        site_.streams--;
        throw ApiError(503, "events: " + std::to_string(MOST_STREAMS) + " streams are open");
    }
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;
    ~Place()
    {
        site_.streams--;
    }

private:
    Site &site_;
};

// Where the page was cut off before: a browser that comes back by itself tells it in the header.
std::string last_id_of(const httplib::Request &request)
{
    return request.has_header("Last-Event-ID") ? request.get_header_value("Last-Event-ID")
                                               : request.get_param_value("last");
}

void send_events(Call &call)
{
    Site &site = call.site;
    const auto place = std::make_shared<Place>(site);
    const auto stream =
        std::make_shared<EventStream>(site.hub, site.log, site.start, last_id_of(call.request));
    call.response.set_content_provider(
        "text/event-stream", [&site, place, stream](std::size_t, httplib::DataSink &sink) {
            const std::string events = stream->next(LOOK);
            if (site.hub.has_ended() || !sink.is_writable())
                return false;
            return events.empty() || sink.write(events.data(), events.size());
        });
}

} // namespace

std::vector<Route> reading_routes()
{
    return {
        {"GET", "/api/state", NO_BODY, send_state},
        {"GET", "/api/posts/*/osds/*", NO_BODY, send_osd},
        {"GET", "/api/posts/*/background", NO_BODY, send_background},
        {"GET", "/api/palette", NO_BODY, send_palette},
        {"GET", "/api/parameters", NO_BODY, send_parameters},
        {"GET", "/api/events", NO_BODY, send_events},
    };
}

} // namespace live
