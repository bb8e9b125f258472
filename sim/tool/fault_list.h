// The faults of a state folder as a list that is looked at and changed. What fails throws
// std::runtime_error with a text "what: why".
#pragma once

#include "sim_state.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace fault_list
{

struct Entry {
    std::uint32_t id = 0;
    std::string line;           // ID and words, without the blanks that nobody needs
    std::uint32_t met = 0;      // how often, as far as the state knows
    std::uint32_t happened = 0; // the same
};

struct List {
    bool on = true; // may they happen at all?
    std::vector<Entry> faults;
};

// What the files say, with the counts of this state.
List read(const std::filesystem::path &folder, const std::optional<sim_state> &state);

// Why the library would refuse a fault of these words, as "open_osd next fail refused"; nullptr if
// it takes them.
const char *refusal_of(const std::string &words);

// Adds a fault: its ID.
std::uint32_t add(const std::filesystem::path &folder, const std::string &words);

// Removes a fault, or all of them; false if there is none of this ID.
bool remove(const std::filesystem::path &folder, std::uint32_t id);
void clear(const std::filesystem::path &folder);

// Waits until the list is in force in the process that has the device open, if there is one.
void wait_until_in_force(const std::filesystem::path &folder);

} // namespace fault_list
