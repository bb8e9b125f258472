#include "event_stream.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace live
{

using Json = nlohmann::ordered_json;

namespace
{

constexpr std::uint64_t LAST_CALLS = 200;
constexpr std::uint64_t CALLS_AT_ONCE = 200;
constexpr std::size_t REPORTS_AT_ONCE = 64 * 1024;
constexpr std::chrono::seconds HEARTBEAT{5};

// Milliseconds after which a page that was cut off comes back.
constexpr const char *RETRY = "retry: 1000\n";

} // namespace

EventStream::EventStream(const EventHub &hub, std::filesystem::path log, std::string start,
                         const std::string &last_id)
    : hub_(hub), log_(std::move(log)), start_(std::move(start)), old_log_(hub.news().log),
      last_sent_(std::chrono::steady_clock::now())
{
    resume(last_id);
}

// ---- Positions ----------------------------------------------------------------------------------

std::string EventStream::id() const
{
    const auto text = [](const Position &position) {
        return std::to_string(position.begun ? position.generation : 0) + '-' +
               std::to_string(position.begun ? position.at : 0);
    };
    return start_ + '-' + text(calls_) + '-' + text(reports_);
}

// A position of 0 is that of a file the page hasn't been told of.
void EventStream::resume(const std::string &last_id)
{
    const std::string own = start_ + '-';
    if (last_id.compare(0, own.size(), own) != 0)
        return;
    Position calls;
    Position reports;
    int end = 0;
    const char *const text = last_id.c_str() + own.size();
    if (std::sscanf(text, "%20" SCNu64 "-%20" SCNu64 "-%20" SCNu64 "-%20" SCNu64 "%n",
                    &calls.generation, &calls.at, &reports.generation, &reports.at, &end) != 4 ||
        text[end] != '\0')
        return;
    const News news = hub_.news();
    calls.begun = calls.at > 0 && calls.generation == news.record.generation &&
                  calls.at <= news.record.count + 1;
    reports.begun = reports.generation == news.log.generation && reports.generation > 0 &&
                    reports.at <= news.log.size;
    calls_ = calls;
    reports_ = reports;
}

// ---- Events -------------------------------------------------------------------------------------

std::string EventStream::make_event(const char *name, const std::string &data) const
{
    return std::string("event: ") + name + "\nid: " + id() + "\ndata: " + data + "\n\n";
}

std::string EventStream::take_state(const News &news)
{
    if (state_ == news.state || news.state->empty())
        return "";
    state_ = news.state;
    return make_event("state", *state_);
}

std::string EventStream::take_calls(const News &news)
{
    const RecordState &record = news.record;
    const bool reset = !calls_.begun || calls_.generation != record.generation;
    if (!reset && calls_.at > record.count)
        return "";
    if (!calls_.begun)
        calls_.at = record.count - std::min(record.count, LAST_CALLS) + 1;
    else if (reset)
        calls_.at = 1;
    calls_.begun = true;
    calls_.generation = record.generation;
    Json calls = Json::array();
    try {
        if (calls_.at <= record.count)
            calls = record.record->describe(calls_.at,
                                            std::min(CALLS_AT_ONCE, record.count - calls_.at + 1));
        calls_.at += calls.size();
    } catch (const std::runtime_error &) { // a record that can't be understood has nothing to tell
        calls_.at = record.count + 1;
    }
    return make_event("calls", Json{{"reset", reset}, {"calls", calls}}.dump());
}

std::string EventStream::take_reports(const News &news)
{
    const LogState &log = news.log;
    const bool reset = !reports_.begun || reports_.generation != log.generation;
    if (!reset && reports_.at >= log.size)
        return "";
    if (!reports_.begun)
        reports_.at = find_tail(log_, log.size, REPORTS_AT_ONCE);
    else if (reset)
        reports_.at = 0;
    reports_.begun = true;
    reports_.generation = log.generation;
    const bool old = reports_.generation == old_log_.generation && reports_.at < old_log_.size;
    // Nothing, if the log has been cut off since: the next news tell of a new one.
    const std::string text =
        read_log(log_, reports_.at, old ? old_log_.size : log.size, REPORTS_AT_ONCE);
    if (text.empty() && !reset)
        return "";
    reports_.at += text.size();
    const Json event{{"reset", reset}, {"old", old}, {"text", text}};
    return make_event("reports", event.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string EventStream::next(std::chrono::milliseconds patience)
{
    const News news = hub_.wait(number_, patience);
    const auto now = std::chrono::steady_clock::now();
    std::string events = state_ ? "" : RETRY;
    events += take_state(news);
    events += take_calls(news);
    events += take_reports(news);
    if (events.empty()) // these news have no more to tell
        number_ = news.number;
    if (events.empty() && now - last_sent_ >= HEARTBEAT)
        events = ": \n\n";
    if (!events.empty())
        last_sent_ = now;
    return events;
}

} // namespace live
