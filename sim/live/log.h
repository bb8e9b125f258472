// The server's log as it grows: a file that its writers also cut off and begin anew.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace live
{

// What a look at the log has found.
struct LogState {
    std::uint64_t generation = 0; // counts the beginnings of a new log
    std::uint64_t size = 0;       // of its whole lines, in bytes
    bool there = false;

    bool operator==(const LogState &) const = default;
};

// Follows the log; for one thread.
class LogFollower
{
public:
    explicit LogFollower(std::filesystem::path path);

    LogState look();

private:
    // How a log is known again: whose file it is, and what stands where it ended.
    struct Mark {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::uint64_t size = 0;
        std::int64_t changed = 0; // nanoseconds
        std::string head;
        std::string tail;
    };

    bool has_begun_anew(int fd, const Mark &now) const;

    std::filesystem::path path_;
    LogState state_;
    Mark mark_;
};

// Whole lines of the log from an offset on, up to `end`, `most` bytes at most unless a line is
// longer than that: such a line comes in pieces.
std::string read_log(const std::filesystem::path &path, std::uint64_t from, std::uint64_t end,
                     std::size_t most);

// Where to begin so that `most` bytes at most remain up to `end`, and these begin with a line.
std::uint64_t find_tail(const std::filesystem::path &path, std::uint64_t end, std::size_t most);

} // namespace live
