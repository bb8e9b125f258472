// The files `settings` and `faults` of a state folder, for tools and tests: only texts that the
// library accepts are written, each whole or not at all. What fails throws std::runtime_error with
// a text "what: why".
#pragma once

#include "sim_state.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace control_files
{

// A fault, and its line without the blanks that nobody needs.
struct Fault {
    sim_fault fault{};
    std::string line;
};

// The most bytes that a list of faults may have before it is marked as loaded, and its last line
// ended.
constexpr std::size_t LONGEST_LIST = SIM_LONGEST_TEXT - sizeof "loaded 9223372036854775807" - 1;

// What a text says that was found in `file`; the first line that the library would refuse is told
// as "file:line: why".
std::vector<Fault> parse_faults(const std::filesystem::path &file, const std::string &text,
                                std::size_t longest = SIM_LONGEST_TEXT);
sim_settings parse_settings(const std::filesystem::path &file, const std::string &text);

// As what a text of faults was loaded; 0 for no such line.
std::int64_t loaded(const std::string &text);

// The text of faults that begin to count their calls when they take the place of any others.
std::string mark_loaded(const std::string &text);

// A file's text; empty for no file.
std::string read(const std::filesystem::path &file);

// The words of a text, with one blank between them.
std::string join_words(const std::string &text);

// Puts what `edit` makes of the text of `faults` or `settings` in its place. Those who do so at the
// same time wait for each other. The folder is made if it isn't there.
using Edit = std::function<std::string(const std::string &)>;
void change_faults(const std::filesystem::path &folder, const Edit &edit);
void change_settings(const std::filesystem::path &folder, const Edit &edit);

// A text of settings with this line in the place of the one of the same name.
std::string replace_setting(const std::string &text, const std::string &line);

// The state as one moment had it; none if there is no such folder.
std::optional<sim_state> read_state(const std::filesystem::path &folder);

// Waits until what the two files say is in force in the process that has the device open, if there
// is one. `what` begins the text of the failure.
void wait_until_in_force(const std::filesystem::path &folder, const std::string &what);

} // namespace control_files
