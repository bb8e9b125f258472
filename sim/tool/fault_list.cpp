#include "fault_list.h"

#include "control_files.h"
#include "sim_reader.h"

#include <algorithm>
#include <sstream>
#include <sys/stat.h>

namespace fault_list
{

namespace fs = std::filesystem;
using control_files::Fault;

// ---- List ---------------------------------------------------------------------------------------

namespace
{

// As the library has it; 0 for no file.
std::uint64_t change_time(const fs::path &file)
{
    struct stat there {
    };
    if (stat(file.c_str(), &there) != 0)
        return 0;
    return static_cast<std::uint64_t>(there.st_ctim.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(there.st_ctim.tv_nsec);
}

// Will the library count anew what the file says?
bool begins_anew(const fs::path &folder, const std::string &text, const sim_state &state)
{
    return control_files::loaded(text) != state.loaded ||
           (change_time(folder / "faults") != state.faults_time &&
            !sim_reader::is_device_open(folder));
}

sim_fault_count find_count(const std::optional<sim_state> &state, std::uint32_t id)
{
    if (state) {
        for (const sim_fault_count &count : state->fault) {
            if (count.id == id)
                return count;
        }
    }
    return {id, 0, 0};
}

} // namespace

List read(const fs::path &folder, const std::optional<sim_state> &state)
{
    const fs::path file = folder / "faults";
    const fs::path settings = folder / "settings";
    List list;
    list.on = control_files::parse_settings(settings, control_files::read(settings)).faults != 0;
    const std::string text = control_files::read(file);
    const bool anew = state && begins_anew(folder, text, *state);
    for (const Fault &fault : control_files::parse_faults(file, text)) {
        const sim_fault_count count = find_count(anew ? std::nullopt : state, fault.fault.id);
        list.faults.push_back({fault.fault.id, fault.line, count.met, count.happened});
    }
    return list;
}

// ---- Change -------------------------------------------------------------------------------------

namespace
{

// An ID that neither the file nor the state knows: under one that has been counted already, a
// fault that is to happen once might never do so.
std::uint32_t next_id(const fs::path &folder, const std::string &text)
{
    std::uint32_t last = 0;
    for (const Fault &fault : control_files::parse_faults(folder / "faults", text))
        last = std::max(last, fault.fault.id);
    if (const std::optional<sim_state> state = control_files::read_state(folder)) {
        for (const sim_fault_count &count : state->fault)
            last = std::max(last, count.id);
    }
    return last + 1;
}

// The text without the line of a fault; none if it has no such line.
std::optional<std::string> remove_line(const fs::path &file, const std::string &text,
                                       std::uint32_t id)
{
    const std::vector<Fault> faults = control_files::parse_faults(file, text);
    const auto found = std::find_if(faults.begin(), faults.end(),
                                    [id](const Fault &fault) { return fault.fault.id == id; });
    if (found == faults.end())
        return std::nullopt;
    std::string rest;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (control_files::join_words(line) != found->line)
            rest += line + '\n';
    }
    return rest;
}

} // namespace

const char *refusal_of(const std::string &words)
{
    if (words.find('\0') != std::string::npos)
        return "no text";
    sim_fault fault;
    return sim_parse_fault(("1 " + words).c_str(), &fault);
}

std::uint32_t add(const fs::path &folder, const std::string &words)
{
    std::uint32_t id = 0;
    control_files::change_faults(folder, [&](const std::string &text) {
        id = next_id(folder, text);
        const bool open_end = !text.empty() && text.back() != '\n';
        return text + (open_end ? "\n" : "") + std::to_string(id) + ' ' + words + '\n';
    });
    return id;
}

bool remove(const fs::path &folder, std::uint32_t id)
{
    const fs::path file = folder / "faults";
    bool found = remove_line(file, control_files::read(file), id).has_value();
    if (!found) // nor is the file written, by whose time the library sees a change
        return false;
    control_files::change_faults(folder, [&](const std::string &text) {
        const std::optional<std::string> rest = remove_line(file, text, id);
        found = rest.has_value();
        return rest.value_or(text);
    });
    return found;
}

void clear(const fs::path &folder)
{
    control_files::change_faults(folder, [](const std::string &) { return ""; });
}

void wait_until_in_force(const fs::path &folder)
{
    control_files::wait_until_in_force(folder, "fault");
}

} // namespace fault_list
