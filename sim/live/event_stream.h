// The events of one page as a text/event-stream, from where it was cut the last time. It holds
// where the page stands and nothing that is still to be sent.
#pragma once

#include "event_hub.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

namespace live
{

class EventStream
{
public:
    // `start` names this run of the server: positions of another one mean nothing. `last_id` is
    // what the page has kept of an earlier stream.
    EventStream(const EventHub &hub, std::filesystem::path log, std::string start,
                const std::string &last_id);

    // The next events, or a comment after some seconds without any; empty if there is nothing to be
    // sent within `patience`. No more than a few hundred KiB.
    std::string next(std::chrono::milliseconds patience);

private:
    // Where the page stands in a file that may begin anew.
    struct Position {
        bool begun = false; // has it been told of the file at all?
        std::uint64_t generation = 0;
        std::uint64_t at = 0; // number of the next call, offset of the next byte
    };

    void resume(const std::string &last_id);
    std::string id() const;
    std::string make_event(const char *name, const std::string &data) const;
    std::string take_state(const News &news);
    std::string take_calls(const News &news);
    std::string take_reports(const News &news);

    const EventHub &hub_;
    std::filesystem::path log_;
    std::string start_;
    std::uint64_t number_ = 0;                 // of the news that have no more to tell
    std::shared_ptr<const std::string> state_; // that was sent
    Position calls_;
    Position reports_;
    LogState old_log_; // when the stream began: what it tells of that has been there before
    std::chrono::steady_clock::time_point last_sent_;
};

} // namespace live
