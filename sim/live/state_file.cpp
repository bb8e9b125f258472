#include "state_file.h"

#include <atomic>
#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace live
{

namespace
{

constexpr std::uint32_t LAST_COLOR_TYPE = 2;

bool read_bytes(int fd, void *bytes, std::size_t size, std::size_t at)
{
    return pread(fd, bytes, size, static_cast<off_t>(at)) == static_cast<ssize_t>(size);
}

bool is_sound(const sim_state &state)
{
    for (const sim_post &post : state.post) {
        for (const sim_osd &osd : post.osd) {
            if (osd.color_type > LAST_COLOR_TYPE)
                return false;
        }
    }
    return state.magic == SIM_MAGIC && state.version == SIM_VERSION;
}

} // namespace

StateFile::StateFile(std::filesystem::path path) : path_(std::move(path))
{
    find();
}

StateFile::~StateFile()
{
    if (fd_ != -1)
        close(fd_);
}

bool StateFile::find()
{
    struct stat there {
    };
    struct stat own {
    };
    const bool is = stat(path_.c_str(), &there) == 0 && S_ISREG(there.st_mode);
    if (!is && fd_ == -1)
        return false;
    if (is && fd_ != -1 && fstat(fd_, &own) == 0 && own.st_ino == there.st_ino &&
        own.st_dev == there.st_dev)
        return false;
    if (fd_ != -1)
        close(fd_);
    fd_ = is ? open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1;
    return true;
}

std::optional<std::uint32_t> StateFile::sequence() const
{
    std::uint32_t sequence = 0;
    if (fd_ == -1 || !read_bytes(fd_, &sequence, sizeof sequence, offsetof(sim_state, sequence)))
        return std::nullopt;
    return sequence;
}

std::optional<sim_state> StateFile::read() const
{
    const std::optional<std::uint32_t> before = sequence();
    sim_state state{};
    if (!before || *before % 2 != 0 || !read_bytes(fd_, &state, sizeof state, 0))
        return std::nullopt;
    std::atomic_thread_fence(std::memory_order_acquire);
    if (sequence() != before || !is_sound(state))
        return std::nullopt;
    return state;
}

} // namespace live
