#include "application.h"

#include "file_io.h"
#include "log.h"
#include "quoting.h"
#include "secrets.h"
#include "server/channel.h"
#include "sim_calls.h"
#include "state_reader.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <poll.h>
#include <sstream>
#include <system_error>

namespace live
{

namespace fs = std::filesystem;

namespace
{

constexpr std::chrono::seconds RUN_PATIENCE{30};
constexpr std::chrono::milliseconds TURN_PACE{100};

struct Function {
    const char *name;
    bool takes_parameters;
    bool takes_log; // it may start a server
};

constexpr std::array<Function, 5> FUNCTIONS = {{
    {"start", true, true},
    {"restart", true, true},
    {"update", true, false},
    {"stop", false, false},
    {"status", false, false},
}};

const Function *find_function(const std::string &name)
{
    const auto *found = std::find_if(FUNCTIONS.begin(), FUNCTIONS.end(),
                                     [&name](const Function &row) { return row.name == name; });
    return found == FUNCTIONS.end() ? nullptr : found;
}

bool is_readable(int fd)
{
    pollfd wanted = {fd, POLLIN, 0};
    return poll(&wanted, 1, 0) == 1;
}

// A client's turn among those of this process; none if the process is to end.
std::unique_lock<std::timed_mutex> wait_for_turn(std::timed_mutex &mutex, int stop)
{
    std::unique_lock turn(mutex, std::defer_lock);
    while (!is_readable(stop) && !turn.try_lock_for(TURN_PACE))
        continue;
    return turn;
}

// The end of a log, as much of it as of a stream.
std::string read_tail(const fs::path &log)
{
    std::error_code none;
    const std::uintmax_t size = fs::file_size(log, none);
    return none
               ? ""
               : read_log(log, size - std::min<std::uintmax_t>(size, MAX_OUTPUT), size, MAX_OUTPUT);
}

} // namespace

Application::Application(std::string program, fs::path folder, fs::path log, int stop)
    : program_(std::move(program)), folder_(std::move(folder)), log_(std::move(log)), stop_(stop)
{
}

bool Application::is_function(const std::string &function)
{
    return find_function(function) != nullptr;
}

bool Application::takes_parameters(const std::string &function)
{
    const Function *found = find_function(function);
    return found && found->takes_parameters;
}

std::vector<std::string> Application::words_of(const Task &task) const
{
    std::vector<std::string> words = {find_program(program_), task.function};
    if (find_function(task.function)->takes_log)
        words.insert(words.end(), {"-l", log_.string()});
    if (task.file)
        words.insert(words.end(), {"-f", page_file(folder_, *task.file, ".conf").string()});
    for (const auto &[key, value] : task.parameters)
        words.push_back("--" + key + '=' + value);
    return words;
}

std::string Application::command_of(const Task &task) const
{
    return quote_command(folder_, words_of(task));
}

std::optional<Done> Application::run(const std::vector<std::string> &words)
{
    const std::optional<Finished> finished = run_child(words, "", RUN_PATIENCE, stop_);
    if (!finished)
        return std::nullopt;
    return Done{quote_command(folder_, words), *finished};
}

std::optional<Done> Application::run(const Task &task)
{
    const auto turn = wait_for_turn(one_at_a_time_, stop_);
    if (!turn.owns_lock())
        return std::nullopt;
    sim_reader::make_folder(folder_); // of the log and the file, before any codec has made it
    if (task.file)
        sim_reader::write_file(page_file(folder_, *task.file, ".conf"), *task.file);
    std::optional<Done> done = run(words_of(task));
    // With -l the client's own words stand in the log.
    if (done && find_function(task.function)->takes_log && done->finished.status != 0 &&
        done->finished.error.empty())
        done->finished.error = read_tail(log_);
    return done;
}

std::optional<Application::Saved> Application::save()
{
    const auto turn = wait_for_turn(one_at_a_time_, stop_);
    if (!turn.owns_lock())
        return std::nullopt;
    const fs::path file = folder_ / ("saved-" + make_token() + ".conf"); // nobody's own
    sim_reader::make_folder(folder_);
    const std::optional<Done> done = run({find_program(program_), "save", "-f", file.string()});
    if (!done)
        return std::nullopt;
    const Finished &finished = done->finished;
    Saved saved;
    saved.good = finished.status == 0;
    saved.text = saved.good ? sim_reader::read_file(file) : failure_of(finished);
    std::error_code none;
    fs::remove(file, none);
    return saved;
}

fs::path page_file(const fs::path &folder, const std::string &text, const char *suffix)
{
    std::ostringstream name;
    const auto *const bytes = reinterpret_cast<const std::uint8_t *>(text.data());
    name << "page-" << std::hex << std::setw(16) << std::setfill('0')
         << sim_hash_shown(bytes, text.size()) << suffix;
    return folder / name.str();
}

bool is_server_running()
{
    return osd_server_is_running();
}

} // namespace live
