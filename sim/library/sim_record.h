// The recorder: appends calls to the files that sim_calls.h lays out. Any thread may call it.
#pragma once

#include "sim_calls.h"

#include <cstddef>

// Begins a record in a folder; what was there before goes. A failure is told on stderr, and nothing
// is recorded.
void sim_record_start(const char *folder);
void sim_record_stop();

// Is there anything to be recorded? Costs nothing.
bool sim_is_recording();

// Nanoseconds since 1970.
std::uint64_t sim_record_time();

// Appends a call that has ended; its duration and thread are filled in here. `shown`, of `size`
// bytes, is what a set_osd has shown, or NULL. A failure is told on stderr and ends the record.
void sim_record_call(sim_call_record *record, const void *shown, std::size_t size);
