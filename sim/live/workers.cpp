#include "workers.h"

#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

namespace live
{

namespace
{

constexpr std::chrono::seconds IDLE_LIFE{10};

} // namespace

Workers::Workers(std::size_t most) : most_(most)
{
}

Workers::~Workers()
{
    std::unique_lock lock(mutex_);
    ending_ = true;
    added_.notify_all();
    gone_.wait(lock, [this] { return threads_ == 0; });
}

void Workers::add(std::function<void()> work)
{
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(work));
    added_.notify_one();
    if (waiting_.size() <= idle_ || threads_ == most_)
        return;
    try {
        std::thread([this] { run(); }).detach();
        threads_++;
    } catch (const std::system_error &) { // one of the others will come to it
    }
}

void Workers::run()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        idle_++;
        const bool woken =
            added_.wait_for(lock, IDLE_LIFE, [this] { return ending_ || !waiting_.empty(); });
        idle_--;
        if (waiting_.empty() && (ending_ || !woken))
            break;
        const std::function<void()> work = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        work();
        lock.lock();
    }
    threads_--;
    gone_.notify_all(); // with the lock, after which nothing here is touched any more
}

} // namespace live
