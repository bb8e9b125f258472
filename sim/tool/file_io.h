// Whole files, read and written at once. What fails throws std::runtime_error, "what: why".
#pragma once

#include <cstddef>
#include <filesystem>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace sim_reader
{

// A file descriptor, or -1, closed at its end.
class Descriptor
{
public:
    explicit Descriptor(int fd) : fd_(fd)
    {
    }
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1))
    {
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor();

    int get() const
    {
        return fd_;
    }

private:
    int fd_;
};

[[noreturn]] void fail(const std::filesystem::path &what, const std::string &why);

// Is there such a file? Also if something keeps from looking, which the opening tells then.
bool is_there(const std::filesystem::path &file);

// The most bytes that a text has, and a picture.
inline constexpr std::size_t LONGEST_TEXT = std::size_t{1} << 20;
inline constexpr std::size_t LONGEST_PICTURE = std::size_t{256} << 20;

// Reads a file that the user names, which may be a pipe or a device.
std::string read_file(const std::filesystem::path &file, std::size_t longest = LONGEST_TEXT);

// Reads a regular file, and waits for nobody; nothing if there is no such file. No longer one than
// a text.
std::optional<std::string> read_file_if_there(const std::filesystem::path &file);

// Reads a line; false at the end. Of one that is longer than `longest` bytes, which may have no
// end, it is the first `longest` + 1.
bool read_line(std::istream &in, std::string &line, std::size_t longest);

// Writes a file whole or not at all: a draft beside it takes its place once it is complete. A link
// is followed, and what is no regular file, as a device or a pipe, is written to as it stands.
void write_file(const std::filesystem::path &file, std::string_view bytes);

// The same for a file that has to be a regular one, as those of a state folder.
void write_regular_file(const std::filesystem::path &file, std::string_view bytes);

// Writes to standard output.
void write_output(std::string_view bytes);

} // namespace sim_reader
