#include "state_file.h"

#include <cstddef>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace live
{

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
    if (fd_ == -1 || pread(fd_, &sequence, sizeof sequence, offsetof(sim_state, sequence)) !=
                         static_cast<ssize_t>(sizeof sequence))
        return std::nullopt;
    return sequence;
}

} // namespace live
