// Texts and files of the tests, unit and end-to-end alike.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace support
{

// The line of an error report: "ERR:#qm5osd:[role]=message(reporter)" and a line feed.
std::string report(std::string_view role, std::string_view message, std::string_view reporter);

// A resource ID, a handle or an errno as reports and breaches tell it: "0x" and eight digits.
std::string hex(std::uint32_t word);

// Whole files; a failure fails the test.
void write_file(const std::string &path, std::string_view text);
std::string read_file(const std::string &path);
void remove_file(const std::string &path);

// The temporary folder's entries, in the order of their names.
std::vector<std::string> temporary_files();

} // namespace support
