// A recording codec library for unit tests. It keeps memory for the OSDs that are opened, writes
// every call to the trace, and fails a call when a test asks for it.
//
// Trace lines: "library_init()", "open_osd(0x11, 2, 168x28, type 0)", "set_osd(0x11, 0x101, 7, 9)".
// The first OSD that is opened gets the handle 0x101, the next 0x102, and so on.
#pragma once

#include "display/qm5codec.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace codec
{

enum Call {
    LIBRARY_INIT,
    OPEN_DEVICE,
    NOTIFY_CALLBACK,
    SET_NOTIFY,
    GET_STATUS,
    OPEN_OSD,
    CLOSE_OSD,
    CLEAR_OSD,
    GET_OSD_MEM,
    SET_OSD,
    CLOSE_DEVICE,
    LIBRARY_EXIT,
    CALLS
};

// An error that means nothing to the application.
constexpr std::uint32_t SOME_ERROR = 0x81E01234;

// Takes back all that follows and forgets every OSD; the fixture calls it before each test.
void reset();

// Makes the n-th such call from now on fail, 1 being the next; `count` calls in a row.
void fail(Call call, int nth, std::uint32_t error, int count = 1);

int calls(Call call);

// What every failing call returns; -1 without it.
void set_failure_result(int result);

// Video size that get_status gives; 720x576 without it.
void set_size(std::uint16_t width, std::uint16_t height);

// Line lengths are rounded up to a multiple of so many bytes; 1 without it.
void set_line_alignment(std::uint32_t bytes);

// Runs within the call, before it does anything.
void on(Call call, std::function<void()> action);

// The function that was handed over by qm5_cl_post_notify_callback.
qm5_cl_post_notify_function *callback();

// An OSD, open or not any more, as it was last shown.
struct Osd {
    std::uint32_t handle = 0;
    qm5_cl_osd_param param{};
    std::uint32_t line_bytes = 0;
    bool open = false;
    bool shown = false;
    qm5_cl_osd_pos pos{};
    std::vector<std::uint32_t> words;  // memory, in whole words, with sentinels behind it
    std::vector<std::uint8_t> picture; // what set_osd found in the memory

    unsigned bits() const;                           // per pixel
    unsigned width_of_line() const;                  // in pixels
    unsigned index_at(unsigned x, unsigned y) const; // of the picture
};

// The OSD of a handle. Ends the program for a handle that was never given.
Osd &osd(std::uint32_t handle);

// Takes an OSD of this size as open, as if an earlier call had opened it.
std::uint32_t adopt_osd(const qm5_cl_osd_param &param);

// Makes get_osd_mem tell another size than the memory has.
void set_told_size(std::uint32_t bytes);

// Is all that stands behind the memory of every OSD untouched?
bool sentinels_are_intact();

} // namespace codec
