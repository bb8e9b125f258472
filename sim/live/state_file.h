// Has the state record of a simulated codec changed? Looked at again and again, without waiting.
#pragma once

#include "sim_state.h"

#include <filesystem>
#include <optional>

namespace live
{

class StateFile
{
public:
    explicit StateFile(std::filesystem::path path);
    StateFile(const StateFile &) = delete;
    StateFile &operator=(const StateFile &) = delete;
    ~StateFile();

    // Finds the file anew if it has come, gone or been replaced; true if that is so.
    bool find();

    bool is_there() const
    {
        return fd_ != -1;
    }

    // The number that changes with each change; none if there is no record.
    std::optional<std::uint32_t> sequence() const;

private:
    std::filesystem::path path_;
    int fd_ = -1; // read, not mapped: a file that somebody cuts off ends no reader
};

} // namespace live
