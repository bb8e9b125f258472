#include "control_files.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace control_files
{

namespace fs = std::filesystem;

namespace
{

constexpr std::chrono::milliseconds PACE{5};
constexpr std::chrono::seconds PATIENCE{2};

// The library reads no more of a file.
constexpr std::size_t LONGEST_TEXT = SIM_FAULTS * SIM_FAULT_LINE - 1;

[[noreturn]] void fail(const std::string &what, const std::string &why)
{
    throw std::runtime_error(what + ": " + why);
}

// An open file or folder, if it could be opened; otherwise errno says why.
class Descriptor
{
public:
    Descriptor(const fs::path &path, int flags) : fd_(open(path.c_str(), flags | O_CLOEXEC))
    {
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor()
    {
        if (fd_ != -1)
            close(fd_);
    }

    explicit operator bool() const
    {
        return fd_ != -1;
    }
    int get() const
    {
        return fd_;
    }

private:
    int fd_;
};

} // namespace

// ---- Texts --------------------------------------------------------------------------------------

namespace
{

bool says_nothing(const std::string &line)
{
    return line.find_first_not_of(" \t") == std::string::npos || line.front() == ';';
}

std::vector<std::string> split_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// Hands `take` each line that says something; it gives nullptr, or why it refuses the line.
template <typename Take>
void take_lines(const fs::path &file, const std::string &text, Take take)
{
    if (text.size() > LONGEST_TEXT)
        fail(file, "longer than " + std::to_string(LONGEST_TEXT) + " bytes");
    if (text.find('\0') != std::string::npos)
        fail(file, "no text");
    std::size_t number = 0;
    for (const std::string &line : split_lines(text)) {
        number++;
        const char *why = line.size() >= SIM_FAULT_LINE ? "line is too long" : nullptr;
        if (!why && !says_nothing(line))
            why = take(line);
        if (why)
            fail(file.string() + ':' + std::to_string(number), why);
    }
}

std::string first_word(const std::string &line)
{
    return line.substr(0, line.find_first_of(" \t"));
}

} // namespace

std::string join_words(const std::string &text)
{
    std::string joined;
    std::istringstream in(text);
    for (std::string word; in >> word;)
        joined += (joined.empty() ? "" : " ") + word;
    return joined;
}

std::vector<Fault> parse_faults(const fs::path &file, const std::string &text)
{
    std::vector<Fault> faults;
    take_lines(file, text, [&faults](const std::string &line) -> const char * {
        if (faults.size() == SIM_FAULTS)
            return "too many faults";
        Fault fault{{}, join_words(line)};
        const char *why = sim_parse_fault(line.c_str(), &fault.fault);
        const bool known = std::any_of(faults.begin(), faults.end(), [&fault](const Fault &other) {
            return other.fault.id == fault.fault.id;
        });
        faults.push_back(std::move(fault));
        return why || !known ? why : "the ID is there already";
    });
    return faults;
}

sim_settings parse_settings(const fs::path &file, const std::string &text)
{
    sim_settings settings = SIM_DEFAULT_SETTINGS;
    take_lines(file, text, [&settings](const std::string &line) {
        return sim_parse_setting(line.c_str(), &settings);
    });
    return settings;
}

std::string replace_setting(const std::string &text, const std::string &line)
{
    std::string changed;
    bool placed = false;
    for (const std::string &old : split_lines(text)) {
        if (says_nothing(old) || first_word(old) != first_word(line))
            changed += old + '\n';
        else if (!std::exchange(placed, true))
            changed += line + '\n';
    }
    return placed ? changed : changed + line + '\n';
}

// ---- Files --------------------------------------------------------------------------------------

std::string read(const fs::path &file)
{
    const Descriptor in(file, O_RDONLY);
    if (!in && errno == ENOENT)
        return "";
    if (!in)
        fail(file, std::strerror(errno));
    std::string text;
    char part[4096];
    ssize_t length = 0;
    while ((length = ::read(in.get(), part, sizeof part)) > 0)
        text.append(part, static_cast<std::size_t>(length));
    if (length == -1)
        fail(file, std::strerror(errno));
    return text;
}

namespace
{

void write(const fs::path &file, const std::string &text)
{
    fs::path draft = file;
    draft += '.' + std::to_string(getpid());
    std::ofstream out(draft);
    out << text;
    out.close();
    if (out && rename(draft.c_str(), file.c_str()) == 0) // whole or not at all
        return;
    const int error = errno;
    unlink(draft.c_str());
    fail(file, std::strerror(error));
}

template <typename Parse>
void change(const fs::path &folder, const char *name, const Edit &edit, Parse parse)
{
    mkdir(folder.c_str(), SIM_FOLDER_MODE); // if it can't be made, it can't be opened
    const Descriptor locked(folder, O_RDONLY | O_DIRECTORY);
    if (!locked || flock(locked.get(), LOCK_EX) != 0)
        fail(folder, std::strerror(errno));
    const fs::path file = folder / name;
    const std::string text = edit(read(file));
    parse(file, text);
    write(file, text);
}

} // namespace

void change_faults(const fs::path &folder, const Edit &edit)
{
    change(folder, "faults", edit, parse_faults);
}

void change_settings(const fs::path &folder, const Edit &edit)
{
    change(folder, "settings", edit, parse_settings);
}

// ---- State --------------------------------------------------------------------------------------

namespace
{

// A word of the state file; 0 if it isn't there.
std::uint32_t read_word(const Descriptor &state, std::size_t offset)
{
    std::uint32_t word = 0;
    const ssize_t length = pread(state.get(), &word, sizeof word, static_cast<off_t>(offset));
    return length == sizeof word ? word : 0;
}

bool is_locked(const Descriptor &state)
{
    if (flock(state.get(), LOCK_SH | LOCK_NB) != 0)
        return errno == EWOULDBLOCK;
    flock(state.get(), LOCK_UN);
    return false;
}

bool is_in_force(const fs::path &folder, const Descriptor &state)
{
    const std::string settings = read(folder / "settings");
    const std::string faults = read(folder / "faults");
    return read_word(state, offsetof(sim_state, control)) ==
           sim_hash(settings.data(), settings.size(), faults.data(), faults.size());
}

} // namespace

std::optional<sim_state> read_state(const fs::path &folder)
{
    const Descriptor file(folder / "state", O_RDONLY);
    if (!file && errno == ENOENT)
        return std::nullopt;
    if (!file)
        fail(folder / "state", std::strerror(errno));
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (std::chrono::steady_clock::now() < end) {
        const std::uint32_t before = read_word(file, offsetof(sim_state, sequence));
        sim_state state;
        if (pread(file.get(), &state, sizeof state, 0) != sizeof state ||
            state.magic != SIM_MAGIC || state.version != SIM_VERSION)
            return std::nullopt;
        if (before % 2 == 0 && read_word(file, offsetof(sim_state, sequence)) == before)
            return state;
        std::this_thread::sleep_for(PACE);
    }
    fail(folder / "state", "left in the middle of a change");
}

void wait_until_in_force(const fs::path &folder, const std::string &what)
{
    const Descriptor state(folder / "state", O_RDONLY);
    if (!state || is_in_force(folder, state) || !is_locked(state))
        return;
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (!is_in_force(folder, state)) {
        if (std::chrono::steady_clock::now() > end) {
            if (!is_locked(state)) // it has ended; the next one takes them up
                return;
            fail(what, "the server has not taken it up");
        }
        std::this_thread::sleep_for(PACE);
    }
}

} // namespace control_files
