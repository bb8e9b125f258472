// Running a program from a server of many threads: bounded in time, and leaving it nothing of this
// process but its environment.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace live
{

// What a program that has ended gave.
struct Finished {
    std::optional<int> status; // its exit status, if no signal has ended it
    std::optional<int> signal; // that has ended it
    bool timeout = false;      // it was killed, for it took too long
    std::string output;        // the first MAX_OUTPUT bytes of each stream
    std::string error;
};

// Why it has failed: its own words on standard error, or how it has ended.
std::string failure_of(const Finished &finished);

constexpr std::size_t MAX_OUTPUT = std::size_t{1} << 20;

// A file that has no name and goes with its last descriptor. Throws std::runtime_error.
class UnnamedFile
{
public:
    explicit UnnamedFile(const std::string &text = {});
    UnnamedFile(const UnnamedFile &) = delete;
    UnnamedFile &operator=(const UnnamedFile &) = delete;
    ~UnnamedFile();

    int get() const
    {
        return fd_;
    }

    // Its first MAX_OUTPUT bytes.
    std::string text() const;

private:
    int fd_ = -1;
};

// The absolute name of a program's file, which is looked up in PATH if its name has no slash; the
// name as it is if PATH has none.
std::string find_program(const std::string &name);

// Runs a program, looked up in PATH if its name has no slash, and waits for its end, not for that
// of what it leaves behind. Its standard input holds `input`; its two output streams are files, so
// that nothing it leaves behind can be held up or ended by a reader that has gone. It has a session
// of its own and none of this process's other descriptors.
//
// A program that takes longer than `patience` is killed, with what it has started but for programs
// that have taken a session of their own. If the descriptor `stop` becomes readable
// first, the program is left to itself: nothing.
//
// Throws std::runtime_error; for a program that can't be started it is a std::system_error, as
// "NAME: why".
std::optional<Finished> run_child(const std::vector<std::string> &words, const std::string &input,
                                  std::chrono::milliseconds patience, int stop);

} // namespace live
