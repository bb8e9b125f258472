#include "event_hub.h"

namespace live
{

void EventHub::publish(const std::string &state, const RecordState &record, const LogState &log)
{
    {
        const std::lock_guard lock(mutex_);
        if (state == *news_.state && record == news_.record && log == news_.log)
            return;
        if (state != *news_.state)
            news_.state = std::make_shared<const std::string>(state);
        news_.record = record;
        news_.log = log;
        news_.number++;
    }
    changed_.notify_all();
}

News EventHub::news() const
{
    const std::lock_guard lock(mutex_);
    return news_;
}

News EventHub::wait(std::uint64_t number, std::chrono::milliseconds patience) const
{
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, patience, [&] { return ended_ || news_.number != number; });
    return news_;
}

void EventHub::end()
{
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
    }
    changed_.notify_all();
}

bool EventHub::has_ended() const
{
    const std::lock_guard lock(mutex_);
    return ended_;
}

} // namespace live
