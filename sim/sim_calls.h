// The record of calls, as files in the state folder while the setting `record` is 1:
//
//   calls        sim_calls_head, then one sim_call_record for each call, in the order of their ends
//   calls.data   what was shown by set_osd, one behind the other
//
// Only the library writes them, and it only appends: a reader may take the first `count` records
// at any time. A new library_init with the setting on begins both files anew.
#pragma once

#include <cstdint>

constexpr std::uint32_t SIM_CALLS_MAGIC = 0x63697335; // "5sic"
constexpr std::uint32_t SIM_CALLS_VERSION = 1;

struct sim_calls_head {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t record_size; // sizeof(sim_call_record)
    std::uint32_t unused;
    std::uint64_t count; // of records; written last
    std::uint64_t data;  // bytes in calls.data
    std::uint64_t unused2[4];
};
static_assert(sizeof(sim_calls_head) == 64);

// The words of a call, by its operation:
//
//                       argument                                   given
//   notify_callback     -                                          -
//   set_notify          mask                                       -
//   thread_get_status   res_id                                     width, height
//   open_osd            res_id, number, width, height, color_type  handle, aux, line_bytes
//   close_osd           res_id, handle                             -
//   clear_osd           res_id, handle                             -
//   get_osd_mem         res_id, handle                             size
//   set_osd             res_id, handle, x, y                       -
//   notify              res_id, post, opened                       -
//   any other           -                                          -
struct sim_call_record {
    std::uint64_t time;      // of the call's begin, in nanoseconds since 1970
    std::uint64_t duration;  // in nanoseconds
    std::uint32_t thread;    // as gettid(2)
    std::uint32_t operation; // sim_operation
    std::int32_t result;
    std::uint32_t error; // errno, if the result isn't 0
    std::uint32_t argument[5];
    std::uint32_t given[3];  // 0 if the call fails
    std::uint64_t hash;      // set_osd: sim_hash_shown of the memory; 0 if it isn't known
    std::uint64_t data_at;   // set_osd: where in calls.data the memory stands
    std::uint32_t data_size; // and how many bytes of it
    std::uint32_t unused;
};
static_assert(sizeof(sim_call_record) == 88);

// A hash of what is shown: 64-bit FNV-1a over the bytes.
inline std::uint64_t sim_hash_shown(const std::uint8_t *bytes, std::uint64_t size)
{
    std::uint64_t hash = 14695981039346656037u;
    for (std::uint64_t i = 0; i < size; i++)
        hash = (hash ^ bytes[i]) * 1099511628211u;
    return hash;
}
