#include "log.h"

#include "file_io.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace live
{

namespace fs = std::filesystem;
using sim_reader::Descriptor;

namespace
{

// By so many bytes at its beginning and its end a log is known again.
constexpr std::uint64_t MARK = 256;

// A line that isn't complete is looked for this far back; a longer one counts as whole lines.
constexpr std::uint64_t LONGEST_LINE = 64 * 1024;

Descriptor open_log(const fs::path &path)
{
    return Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

// The bytes from one offset to another, as many as there are.
std::string read_part(int fd, std::uint64_t from, std::uint64_t to)
{
    std::string part(to > from ? to - from : 0, '\0');
    std::size_t size = 0;
    while (size < part.size()) {
        const ssize_t length =
            pread(fd, &part[size], part.size() - size, static_cast<off_t>(from + size));
        if (length <= 0)
            break;
        size += static_cast<std::size_t>(length);
    }
    part.resize(size);
    return part;
}

// Where the last whole line of the first `size` bytes ends.
std::uint64_t end_of_lines(int fd, std::uint64_t size)
{
    const std::uint64_t from = size - std::min(size, LONGEST_LINE);
    const std::string part = read_part(fd, from, size);
    const std::size_t last = part.rfind('\n');
    if (last != std::string::npos)
        return from + last + 1;
    return size > LONGEST_LINE ? size : 0;
}

} // namespace

// ---- Following ----------------------------------------------------------------------------------

LogFollower::LogFollower(fs::path path) : path_(std::move(path))
{
}

bool LogFollower::has_begun_anew(int fd, const Mark &now) const
{
    if (now.device != mark_.device || now.inode != mark_.inode || now.size < mark_.size)
        return true;
    return read_part(fd, 0, mark_.head.size()) != mark_.head ||
           read_part(fd, mark_.size - mark_.tail.size(), mark_.size) != mark_.tail;
}

LogState LogFollower::look()
{
    struct stat status {
    };
    if (stat(path_.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        if (state_.there)
            state_ = {state_.generation + 1, 0, false};
        mark_ = {};
        return state_;
    }
    Mark now;
    now.device = status.st_dev;
    now.inode = status.st_ino;
    now.size = static_cast<std::uint64_t>(status.st_size);
    now.changed = status.st_mtim.tv_sec * 1000000000 + status.st_mtim.tv_nsec;
    if (state_.there && now.device == mark_.device && now.inode == mark_.inode &&
        now.size == mark_.size && now.changed == mark_.changed)
        return state_;
    const Descriptor log = open_log(path_);
    if (log.get() == -1)
        return state_;
    if (!state_.there || has_begun_anew(log.get(), now))
        state_.generation++;
    state_.there = true;
    state_.size = end_of_lines(log.get(), now.size);
    now.head = read_part(log.get(), 0, std::min(now.size, MARK));
    now.tail = read_part(log.get(), now.size - std::min(now.size, MARK), now.size);
    now.size = now.size - std::min(now.size, MARK) + now.tail.size(); // it may have been cut since
    mark_ = std::move(now);
    return state_;
}

// ---- Reading ------------------------------------------------------------------------------------

std::string read_log(const fs::path &path, std::uint64_t from, std::uint64_t end, std::size_t most)
{
    const Descriptor log = open_log(path);
    std::string part = read_part(log.get(), from, std::min<std::uint64_t>(end, from + most));
    const std::size_t last = part.rfind('\n');
    if (from + part.size() < end && last != std::string::npos)
        part.resize(last + 1);
    return part;
}

std::uint64_t find_tail(const fs::path &path, std::uint64_t end, std::size_t most)
{
    if (end <= most)
        return 0;
    const Descriptor log = open_log(path);
    const std::string part = read_part(log.get(), end - most, end);
    const std::size_t first = part.find('\n');
    if (first == std::string::npos || first + 1 == part.size())
        return end - most;
    return end - most + first + 1;
}

} // namespace live
