// Reading the record of calls that a simulated codec keeps, and what a post showed at one of them;
// for tools and tests. The files are taken for anybody's: what can't be is a std::runtime_error of
// the text "file: why" or "file: call N: why".
#pragma once

#include "sim_calls.h"
#include "sim_reader.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace call_reader
{

// A regular file, open to be read.
class File
{
public:
    explicit File(std::filesystem::path path);
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File();

    std::uint64_t size() const;

    // Reads so many bytes from a place on; false if the file ends before them.
    bool read(std::uint64_t at, void *bytes, std::size_t size) const;

    // Does its path lead to another file by now?
    bool is_replaced() const;

    [[noreturn]] void fail(const std::string &why) const;

private:
    std::filesystem::path path_;
    int fd_ = -1;
};

// The calls of a record, numbered from 1 on. A codec may be appending to it.
class Calls
{
public:
    explicit Calls(const std::filesystem::path &path);

    // Has the codec only just made the file?
    bool is_empty() const;

    // How many there are by now.
    std::uint64_t count() const;

    // Why calls are missing behind the last one; empty if none are, or may still come.
    std::string why_cut() const;

    // The call `first` and those behind it, as many as there are by now and `most` at most.
    std::vector<sim_call_record> read(std::uint64_t first, std::uint64_t most);

    // Has a new record begun since this one was first read, in this file or at its path?
    bool has_begun_anew() const;

    // The name of a call's operation.
    const char *name_of(std::uint64_t number, const sim_call_record &call) const;

    [[noreturn]] void fail(const std::string &why) const;
    [[noreturn]] void fail(std::uint64_t number, const std::string &why) const;

    // Fails for a call that is behind the last one.
    [[noreturn]] void fail_beyond(std::uint64_t number, std::uint64_t last) const;

private:
    sim_calls_head head() const;

    File file_;
    std::optional<sim_call_record> first_; // by which a record is known
};

// The post as it was shown after the call `last` of a record. What it shows stands in a file beside
// the record, of the record's name and ".data".
sim_reader::Post rebuild_post(const std::filesystem::path &record, std::uint64_t last,
                              unsigned number);

} // namespace call_reader
