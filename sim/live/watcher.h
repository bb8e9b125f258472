// Looks at the state folder again and again. The library's writes to its mapped files wake nobody,
// so that there is no other way to learn of a new picture.
#pragma once

#include "event_hub.h"
#include "frames.h"
#include "log.h"
#include "record.h"
#include "state_file.h"
#include "state_report.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>

namespace live
{

// Counts the changes of a file.
class FileVersion
{
public:
    void look(const std::filesystem::path &file);

    std::uint64_t count() const
    {
        return count_;
    }

private:
    std::string stamp_;
    std::uint64_t count_ = 0;
};

class Watcher
{
public:
    // So often it looks for a new picture, of which it tells pages at once.
    static constexpr std::chrono::milliseconds PACE{25};

    // Publishes what it finds, from now to its end.
    Watcher(std::filesystem::path folder, std::filesystem::path log, const Frames &frames,
            EventHub &hub);
    Watcher(const Watcher &) = delete;
    Watcher &operator=(const Watcher &) = delete;
    ~Watcher();

    // Looks at everything now, as after a change that this process has made: the state's JSON.
    std::string look();

private:
    void run();
    void try_to_look(bool at_everything);
    void look(bool at_everything);
    bool look_at_state();
    bool is_device_open() const;
    void read_state();
    void note_sets(const sim_state &state);
    void look_around();
    void read_control();
    void read_zone();

    const std::filesystem::path folder_;
    const std::filesystem::path log_path_;
    const Frames &frames_;
    EventHub &hub_;

    std::mutex mutex_; // of all below
    std::condition_variable end_;
    bool ending_ = false;
    StateFile state_;
    bool known_ = false;                    // is the state in the facts that of the file?
    std::optional<std::uint32_t> sequence_; // and as of which change
    bool first_look_ = true;
    sim_state compared_{}; // that of the last look at one that made sense
    FileVersion palette_;
    FileVersion parameters_;
    LogFollower log_;
    Facts facts_;
    RecordState record_;
    LogState log_state_;
    std::string report_;
    std::thread thread_;
};

} // namespace live
