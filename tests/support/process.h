// Running programs as their users do, with bounded waits.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace support
{

typedef std::vector<std::string> Words;

// What a program that has ended gave.
struct Ended {
    int status = -1; // exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

// How long a test waits for one program or condition, if it doesn't say otherwise.
constexpr std::chrono::seconds PATIENCE{30};

// Waits until the condition holds; false if that took longer than the test's patience.
bool wait_until(const std::function<bool()> &condition, std::chrono::seconds patience = PATIENCE);

// A program under way, with its own files for stdout and stderr and nothing on stdin. A program
// that hasn't ended when its time is up is killed.
class Process
{
public:
    explicit Process(const Words &words);
    Process(Process &&other) noexcept;
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    ~Process();

    // Waits for the end of the program itself, not for what it has left behind. A program that
    // doesn't end within this time is killed, and its status is 137.
    Ended wait(std::chrono::seconds patience = PATIENCE);
    pid_t pid() const;

private:
    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
};

// Runs a program to its end, as Process::wait waits for it.
Ended run(const Words &words, std::chrono::seconds patience = PATIENCE);

// Makes this process the parent of what its children leave behind, so that it can wait for it.
void adopt_orphans();

// Process IDs of this process's descendants that run the executable `path`.
std::vector<pid_t> processes_of(const std::string &path);

} // namespace support
