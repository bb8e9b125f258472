// The recorder: appends calls to the files that sim_calls.h lays out. Any thread may call it.
#pragma once

#include "sim_calls.h"

#include <cstddef>

// Begins a record in a folder, or goes on with the one of this process in which no library_init has
// succeeded yet. Both files together get no longer than `limit_mib`. A failure is told on stderr,
// and nothing is recorded; so it is too if another process is writing its record there.
void sim_record_start(const char *folder, std::uint32_t limit_mib);

// Nothing more is recorded.
void sim_record_stop();

// Closes the files, with nothing behind what was recorded, while the library is down. They are
// opened again for a call that comes all the same.
void sim_record_rest();

// Is an address in a mapping of the file of calls? A signal handler may ask.
bool sim_has_recorded_at(const void *address);

// Is there anything to be recorded? Costs nothing.
bool sim_is_recording();

// Nanoseconds since 1970.
std::uint64_t sim_record_time();

// What a set_osd has shown; `memory` is NULL if that isn't known.
struct sim_shown {
    const void *memory;
    std::size_t size; // in bytes
    std::uint32_t line_bytes;
};

// Appends a call that has ended; its duration and thread, and what `shown` tells, are filled in
// here. A failure is told on stderr and ends the record, and so does its limit.
void sim_record_call(sim_call_record *record, const sim_shown *shown);
