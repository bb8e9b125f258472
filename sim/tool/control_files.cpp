#include "control_files.h"

#include "file_io.h"
#include "sim_reader.h"

#include <chrono>
#include <sstream>
#include <thread>
#include <utility>

namespace control_files
{

namespace fs = std::filesystem;
using sim_reader::fail;

namespace
{

constexpr std::chrono::milliseconds PACE{5};
constexpr std::chrono::seconds PATIENCE{10}; // a starved machine takes its time

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
void take_lines(const fs::path &file, const std::string &text, std::size_t longest, Take take)
{
    if (text.size() > longest)
        fail(file, "longer than " + std::to_string(longest) + " bytes");
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

std::vector<Fault> parse_faults(const fs::path &file, const std::string &text, std::size_t longest)
{
    sim_fault_list list{};
    std::vector<Fault> faults;
    take_lines(file, text, longest, [&](const std::string &line) {
        const char *why = sim_add_fault(line.c_str(), &list);
        if (!why && list.count > faults.size())
            faults.push_back({list.fault[list.count - 1], join_words(line)});
        return why;
    });
    return faults;
}

std::int64_t loaded(const std::string &text)
{
    std::int64_t number = 0;
    for (const std::string &line : split_lines(text))
        sim_parse_loaded(line.c_str(), &number);
    return number;
}

std::string mark_loaded(const std::string &text)
{
    // A count would come again behind a list without one that the library hasn't seen.
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    std::string marked = "loaded " + std::to_string(std::chrono::nanoseconds(now).count()) + '\n';
    std::int64_t before = 0;
    for (const std::string &line : split_lines(text))
        marked += sim_parse_loaded(line.c_str(), &before) ? "" : line + '\n';
    return marked;
}

sim_settings parse_settings(const fs::path &file, const std::string &text)
{
    sim_settings settings = SIM_DEFAULT_SETTINGS;
    take_lines(file, text, SIM_LONGEST_TEXT, [&settings](const std::string &line) {
        return sim_parse_setting(line.c_str(), &settings);
    });
    return settings;
}

std::string replace_setting(const std::string &text, const std::string &line)
{
    std::string changed;
    bool placed = false;
    for (const std::string &old : split_lines(text)) {
        if (first_word(old) != first_word(line))
            changed += old + '\n';
        else if (!std::exchange(placed, true))
            changed += line + '\n';
    }
    return placed ? changed : changed + line + '\n';
}

// ---- Files --------------------------------------------------------------------------------------

std::string read(const fs::path &file)
{
    return sim_reader::read_file_if_there(file).value_or("");
}

namespace
{

template <typename Parse>
void change(const fs::path &folder, const char *name, const Edit &edit, Parse parse)
{
    const sim_reader::Descriptor locked = sim_reader::lock_folder(folder);
    const fs::path file = folder / name;
    const std::string text = edit(read(file));
    parse(file, text);
    sim_reader::write_regular_file(file, text);
}

} // namespace

void change_faults(const fs::path &folder, const Edit &edit)
{
    change(folder, "faults", edit,
           [](const fs::path &file, const std::string &text) { parse_faults(file, text); });
}

void change_settings(const fs::path &folder, const Edit &edit)
{
    change(folder, "settings", edit, parse_settings);
}

// ---- State --------------------------------------------------------------------------------------

namespace
{

bool is_in_force(const fs::path &folder)
{
    const std::string settings = read(folder / "settings");
    const std::string faults = read(folder / "faults");
    return sim_reader::read_state(folder).control ==
           sim_hash(settings.data(), settings.size(), faults.data(), faults.size());
}

} // namespace

std::optional<sim_state> read_state(const fs::path &folder)
{
    if (!sim_reader::is_there(folder))
        return std::nullopt;
    return sim_reader::read_state(folder);
}

void wait_until_in_force(const fs::path &folder, const std::string &what)
{
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    // Once a server has ended, the next one takes them up.
    while (sim_reader::is_device_open(folder) && !is_in_force(folder)) {
        if (std::chrono::steady_clock::now() > end)
            fail(what, "the server has not taken it up");
        std::this_thread::sleep_for(PACE);
    }
}

} // namespace control_files
