#include "record.h"

#include "call_json.h"

#include <stdexcept>

namespace live
{

Record::Record(const std::filesystem::path &path) : calls_(path)
{
}

std::uint64_t Record::count() const
{
    const std::lock_guard lock(mutex_);
    try {
        return calls_.is_empty() ? 0 : calls_.count();
    } catch (const std::runtime_error &) {
        return 0;
    }
}

bool Record::has_begun_anew() const
{
    const std::lock_guard lock(mutex_);
    try {
        return calls_.has_begun_anew();
    } catch (const std::runtime_error &) {
        return true;
    }
}

nlohmann::ordered_json Record::describe(std::uint64_t first, std::uint64_t most) const
{
    const std::lock_guard lock(mutex_);
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    if (calls_.is_empty())
        return all;
    for (const sim_call_record &call : calls_.read(first, most))
        all.push_back(call_json::describe(calls_, first++, call));
    return all;
}

namespace
{

std::shared_ptr<const Record> open_record(const std::filesystem::path &path)
{
    try {
        return std::make_shared<Record>(path);
    } catch (const std::runtime_error &) {
        return nullptr;
    }
}

} // namespace

RecordState look_at_record(const std::filesystem::path &path, const RecordState &state)
{
    RecordState now = state;
    if (!now.record || now.record->has_begun_anew()) {
        std::shared_ptr<const Record> opened = open_record(path);
        if (opened) {
            now.record = std::move(opened);
            now.generation++;
        }
    }
    now.count = now.record ? now.record->count() : 0;
    return now;
}

} // namespace live
