// The record of calls as it grows, shared by all who read it.
#pragma once

#include "call_reader.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>

namespace live
{

// One record, from its first call to its last; it stays readable when another takes its place. May
// be used by several threads.
class Record
{
public:
    // Throws std::runtime_error for no file.
    explicit Record(const std::filesystem::path &path);

    // How many calls there are by now; 0 for what is no record, or none yet.
    std::uint64_t count() const;

    // Has another record taken its place?
    bool has_begun_anew() const;

    // The calls from number `first` on, `most` at most. Throws std::runtime_error for a record that
    // makes no sense.
    nlohmann::ordered_json describe(std::uint64_t first, std::uint64_t most) const;

private:
    mutable std::mutex mutex_;
    mutable call_reader::Calls calls_;
};

// The record of a folder by the number of the records before it, and how many calls it has. Equal
// numbers are the same record.
struct RecordState {
    std::shared_ptr<const Record> record; // none: there is no record
    std::uint64_t generation = 0;
    std::uint64_t count = 0;

    bool operator==(const RecordState &other) const
    {
        return generation == other.generation && count == other.count;
    }
};

// Looks at the record of a folder; `state` is what the last look found.
RecordState look_at_record(const std::filesystem::path &path, const RecordState &state);

} // namespace live
