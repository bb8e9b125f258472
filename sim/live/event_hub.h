// What the watcher has found last, for those who tell it to pages. It holds no queue: who reads
// slowly finds the newest state, and takes calls and reports from their files where it stands.
#pragma once

#include "log.h"
#include "record.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace live
{

struct News {
    std::shared_ptr<const std::string> state; // JSON
    RecordState record;
    LogState log;
    std::uint64_t number = 0; // another one for every change
};

class EventHub
{
public:
    // Takes over what differs from before. Never waits for a reader.
    void publish(const std::string &state, const RecordState &record, const LogState &log);

    News news() const;

    // The news as soon as they aren't those of `number` any more, or the hub has ended, or this
    // long has passed.
    News wait(std::uint64_t number, std::chrono::milliseconds patience) const;

    // Ends all waits from now on.
    void end();
    bool has_ended() const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    News news_{std::make_shared<std::string>(), {}, {}, 0};
    bool ended_ = false;
};

} // namespace live
