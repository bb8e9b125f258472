// The record of calls, as files in the state folder while the setting `record` is 1:
//
//   calls        sim_calls_head, then one sim_call_record for each call, in the order of their ends
//   calls.data   what was shown by set_osd, one behind the other
//
// Only the library writes them, and it only appends: a reader may take the first `count` records
// at any time, and what they show, even if the process that wrote them was killed. `calls` is
// longer than that while it is written, and stays so behind a process that has ended without
// library_exit; it is locked (flock) by the process that writes it.
//
// A library_init with the setting on begins both files anew, whether it succeeds or not; but if the
// one before it has failed too, the record goes on. What is called behind library_exit still goes
// into the record.
#pragma once

#include "display/qm5codec.h"

#include <cstdint>
#include <cstring>

constexpr std::uint32_t SIM_CALLS_MAGIC = 0x63697335; // "5sic"
constexpr std::uint32_t SIM_CALLS_VERSION = 2;

// Are calls missing behind the last one?
enum sim_calls_cut : std::uint32_t {
    SIM_CALLS_WHOLE,
    SIM_CALLS_AT_LIMIT, // the setting record-limit
    SIM_CALLS_FAILED,   // to be written, as on a full disk
};

struct sim_calls_head {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t record_size; // sizeof(sim_call_record)
    std::uint32_t cut;         // sim_calls_cut
    std::uint64_t count;       // of records; written last
    std::uint64_t data;        // bytes in calls.data
    std::uint64_t limit;       // of both files together, in bytes
    std::uint64_t unused[3];
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
    std::uint32_t given[3];   // 0 if the call fails; the first is 1 if a fault made up a post's end
    std::uint64_t hash;       // set_osd: sim_hash_shown of the memory; 0 if it isn't known
    std::uint64_t data_at;    // set_osd: where in calls.data the memory stands
    std::uint32_t data_size;  // and how many bytes of it
    std::uint32_t line_bytes; // how many of them are a line, which a fault may have told otherwise
};
static_assert(sizeof(sim_call_record) == 88);

// Does an errno tell that a post thread, or an OSD, has gone?
inline bool sim_tells_gone(std::uint32_t error)
{
    return error == QM5_CL_ERROR_GONE_1 || error == QM5_CL_ERROR_GONE_2 ||
           error == QM5_CL_ERROR_GONE_3;
}

// A hash of what is shown, of words of 64 bits with the least significant byte first; a last one
// that isn't whole is filled up with zeros. Two multiplications with a shift between them: by one
// alone, the highest bits of a word would go nowhere else, and two of them could cancel each other.
inline std::uint64_t sim_hash_shown(const std::uint8_t *bytes, std::uint64_t size)
{
    const auto mix = [](std::uint64_t hash, std::uint64_t word) {
        hash = (hash ^ word) * 11400714819323198485u;
        return (hash ^ hash >> 32) * 14029467366897019727u;
    };
    std::uint64_t hash = 14695981039346656037u ^ size;
    std::uint64_t word = 0;
#pragma GCC unroll 4
    for (const std::uint8_t *end = bytes + size / 8 * 8; bytes != end; bytes += 8) {
        memcpy(&word, bytes, 8);
        hash = mix(hash, word);
    }
    if (size % 8 != 0) {
        word = 0;
        memcpy(&word, bytes, size % 8);
        hash = mix(hash, word);
    }
    return hash;
}
