// Threads that come when there is work and go when there is none.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

namespace live
{

class Workers
{
public:
    explicit Workers(std::size_t most);
    Workers(const Workers &) = delete;
    Workers &operator=(const Workers &) = delete;

    // Waits for the end of all work.
    ~Workers();

    // Has some work done as soon as one of the threads is free. The work must not throw.
    void add(std::function<void()> work);

private:
    void run();

    const std::size_t most_;
    std::mutex mutex_;
    std::condition_variable added_;
    std::condition_variable gone_;
    std::deque<std::function<void()>> waiting_;
    std::size_t threads_ = 0;
    std::size_t idle_ = 0;
    bool ending_ = false;
};

} // namespace live
