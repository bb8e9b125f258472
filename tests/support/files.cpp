#include "support/files.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iomanip>
#include <iterator>
#include <sstream>

namespace support
{

namespace fs = std::filesystem;

std::string hex(std::uint32_t word)
{
    std::ostringstream text;
    text << "0x" << std::hex << std::uppercase << std::setw(8) << std::setfill('0') << word;
    return text.str();
}

std::string report(std::string_view role, std::string_view message, std::string_view reporter)
{
    std::string line = "ERR:#qm5osd:[";
    line.append(role).append("]=").append(message).append("(").append(reporter).append(")\n");
    return line;
}

void write_file(const std::string &path, std::string_view text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    EXPECT_TRUE(file.good()) << path;
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.good()) << path;
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> temporary_files()
{
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator("/tmp"))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

void remove_file(const std::string &path)
{
    EXPECT_TRUE(fs::remove(path)) << path;
}

} // namespace support
