#include "watcher.h"

#include "application.h"
#include "control_files.h"
#include "file_io.h"
#include "quoting.h"
#include "server/channel.h"
#include "state_reader.h"
#include "time_zone_block.h"

#include <chrono>
#include <stdexcept>
#include <sys/stat.h>
#include <utility>

namespace live
{

namespace fs = std::filesystem;

namespace
{

// What people and programs change, other than the library, may be seen a little later.
constexpr unsigned LOOKS_BETWEEN = 8;

double unix_seconds()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()) /
           1000;
}

// What differs between two contents of a file.
std::string stamp_of(const fs::path &file)
{
    struct stat status {
    };
    if (stat(file.c_str(), &status) != 0)
        return "none";
    return std::to_string(status.st_ino) + ' ' + std::to_string(status.st_size) + ' ' +
           std::to_string(status.st_mtim.tv_sec) + ' ' + std::to_string(status.st_mtim.tv_nsec);
}

} // namespace

void FileVersion::look(const fs::path &file)
{
    std::string stamp = stamp_of(file);
    if (stamp != stamp_)
        count_++;
    stamp_ = std::move(stamp);
}

Watcher::Watcher(fs::path folder, fs::path log, const Frames &frames, EventHub &hub)
    : folder_(std::move(folder)), log_path_(std::move(log)), frames_(frames), hub_(hub),
      state_(folder_ / "state"), log_(log_path_)
{
    facts_.tool = quote_command(folder_, {own_program()});
    look(true);
    thread_ = std::thread([this] { run(); });
}

Watcher::~Watcher()
{
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    end_.notify_all();
    thread_.join();
}

void Watcher::run()
{
    std::unique_lock lock(mutex_);
    for (unsigned i = 1; !end_.wait_for(lock, PACE, [this] { return ending_; }); i++)
        try_to_look(i % LOOKS_BETWEEN == 0);
}

void Watcher::try_to_look(bool at_everything)
{
    try {
        look(at_everything);
    } catch (const std::exception &) { // no memory or descriptors; there may be some next time
    }
}

std::string Watcher::look()
{
    const std::lock_guard lock(mutex_);
    look(true);
    return report_;
}

// With the lock, but for the first look.
void Watcher::look(bool at_everything)
{
    if (at_everything && facts_.state_error) // it may have been mended
        known_ = false;
    const bool changed = look_at_state();
    log_state_ = log_.look();
    record_ = look_at_record(folder_ / "calls", record_);
    if (changed || at_everything || log_state_.there != facts_.log.has_value()) {
        look_around();
        report_ = format_state(facts_);
    }
    hub_.publish(report_, record_, log_state_);
}

// ---- The codec ----------------------------------------------------------------------------------

// True if the state has changed.
bool Watcher::look_at_state()
{
    if (state_.find())
        known_ = false;
    const std::optional<std::uint32_t> sequence = state_.sequence();
    if (known_ && sequence == sequence_)
        return false;
    if (sequence.value_or(0) % 2 != 0 && is_device_open()) // in the middle of a change
        return false;
    known_ = true;
    sequence_ = sequence;
    read_state();
    return true;
}

bool Watcher::is_device_open() const
{
    try {
        return state_.is_there() && sim_reader::is_device_open(folder_);
    } catch (const std::runtime_error &) { // it has just gone
        return false;
    }
}

void Watcher::read_state()
{
    std::optional<sim_state> state;
    facts_.state_error = std::nullopt;
    try {
        if (state_.is_there())
            state = sim_reader::read_state(folder_);
    } catch (const std::runtime_error &error) {
        facts_.state_error = error.what();
    }
    if (!facts_.state_error) {
        if (state && !first_look_)
            note_sets(*state);
        first_look_ = false;
        compared_ = state.value_or(sim_state{});
    }
    facts_.state = std::move(state);
}

void Watcher::note_sets(const sim_state &state)
{
    const double now = unix_seconds();
    for (unsigned post = 0; post < SIM_POSTS; post++) {
        for (unsigned number = 0; number < SIM_OSDS; number++) {
            const sim_osd &osd = state.post[post].osd[number];
            const sim_osd &old = compared_.post[post].osd[number];
            if (osd.handle == old.handle && osd.sets == old.sets)
                continue;
            facts_.last_set[post][number] = osd.sets > 0 ? std::optional(now) : std::nullopt;
        }
    }
}

// ---- What stands around it ----------------------------------------------------------------------

void Watcher::look_around()
{
    facts_.device_open = is_device_open();
    facts_.shown = facts_.state.value_or(sim_state{});
    if (!facts_.device_open && !facts_.state_error) // else nothing is known of the posts
        sim_reader::follow_sizes(folder_, facts_.shown);
    facts_.running = is_server_running();
    for (unsigned i = 0; i < SIM_POSTS; i++) {
        const std::optional<sim_reader::Size> wanted = sim_reader::read_size(folder_, i);
        facts_.wanted[i] = wanted ? std::optional(sim_reader::format_size(*wanted)) : std::nullopt;
        facts_.background[i] = frames_.version(i);
        facts_.frame[i] = frames_.frame_size(i);
    }
    read_control();
    read_zone();
    palette_.look(folder_ / "palette");
    facts_.palette = palette_.count();
    parameters_.look(OSD_TMP_PARAM);
    facts_.parameters = parameters_.count();
    facts_.log = log_state_.there ? std::optional(log_path_.filename().string()) : std::nullopt;
}

void Watcher::read_control()
{
    facts_.error = std::nullopt;
    try {
        const fs::path file = folder_ / "settings";
        facts_.settings = control_files::parse_settings(file, control_files::read(file));
        facts_.faults = fault_list::read(folder_, facts_.state);
    } catch (const std::runtime_error &error) {
        facts_.error = error.what();
    }
}

void Watcher::read_zone()
{
    try {
        const time_zone_block::Content content = time_zone_block::read();
        facts_.zone = content.text;
        facts_.zone_change = content.change;
    } catch (const std::runtime_error &) { // there is none
        facts_.zone = std::nullopt;
    }
}

} // namespace live
