// Faults by name, as a text of one line each; for the library, which commits them, and the tool,
// which writes the text.
//
//   ID OPERATION WHEN EFFECT [post N]
//   loaded NUMBER
//
//   WHEN     next, 3 (the third call from now on), every, 25% (a fraction, in a fixed sequence
//            that depends on the fault's words and not on its ID)
//   EFFECT   fail CODE      gone1, gone2, gone3, refused, or a number as 0x81E00042
//            delay MS       before the call does anything, and while the fault is in force
//            size BYTES     get_osd_mem tells a size that is so many bytes off, as -16
//            line BYTES     open_osd tells a line length that is so many bytes off
//            vanish         the post thread is gone and announced as such before the call
//            change P SIZE  post P, this one or another, is brought to a size or to `closed`, and
//                           its closing and opening announced, before the call
//            vanish-after, change-after P SIZE
//                           the same between the call's work and its return: of get_osd_mem,
//                           during the drawing
//            double         notify: the callback is called twice
//            late MS        notify: the callback is called so much later; only its post waits,
//                           and no longer than until a fault changes it, or than the fault is in
//                           force
//
// An operation is named as in the library without its qm5_cl_ and post_, sys_: open_osd; `notify`
// is a call of the application's callback. `post N` limits a fault to one post's calls.
//
// All faults of a list begin to count their calls, also those that were there already, if it is
// `loaded` with another number than the list before it; without that line the number is 0. The
// tool takes the time for it.
#pragma once

#include <cstddef>
#include <cstdint>

enum sim_operation : std::uint32_t {
    SIM_LIBRARY_INIT,
    SIM_OPEN_DEVICE,
    SIM_NOTIFY_CALLBACK,
    SIM_SET_NOTIFY,
    SIM_THREAD_GET_STATUS,
    SIM_OPEN_OSD,
    SIM_CLOSE_OSD,
    SIM_CLEAR_OSD,
    SIM_GET_OSD_MEM,
    SIM_SET_OSD,
    SIM_CLOSE_DEVICE,
    SIM_LIBRARY_EXIT,
    SIM_NOTIFY,
    SIM_OPERATIONS
};
extern const char *const sim_operation_names[SIM_OPERATIONS];

enum sim_when : std::uint32_t {
    SIM_NTH, // `next` is the first
    SIM_EVERY,
    SIM_PERCENT,
};

enum sim_effect : std::uint32_t {
    SIM_FAIL,
    SIM_DELAY,
    SIM_SIZE,
    SIM_LINE,
    SIM_VANISH,
    SIM_VANISH_AFTER,
    SIM_CHANGE,
    SIM_CHANGE_AFTER,
    SIM_DOUBLE,
    SIM_LATE,
    SIM_EFFECTS
};

constexpr std::uint32_t SIM_ANY_POST = 4;

struct sim_fault {
    std::uint32_t id; // not 0
    std::uint32_t operation;
    std::uint32_t when;
    std::uint32_t number; // of SIM_NTH and SIM_PERCENT
    std::uint32_t effect;
    std::int32_t value; // errno, milliseconds or bytes
    std::uint32_t post; // or SIM_ANY_POST

    // What SIM_CHANGE brings another post to, or the same one; 0 by 0: closed.
    std::uint32_t changed;
    std::uint32_t width;
    std::uint32_t height;
};

constexpr std::size_t SIM_FAULTS = 32; // at a time
constexpr std::size_t SIM_FAULT_LINE = 128;

// The most bytes that a file of faults, or one of settings, may have: room for the longest faults
// and a line that tells when they were loaded.
constexpr std::size_t SIM_LONGEST_TEXT = (SIM_FAULTS + 1) * SIM_FAULT_LINE - 1;

// Reads a line, with or without its line feed. NULL, or why it can't be understood.
const char *sim_parse_fault(const char *line, sim_fault *fault);

struct sim_fault_list {
    sim_fault fault[SIM_FAULTS];
    std::size_t count;
    std::int64_t loaded;
};

// Reads a line as the next of a list. NULL, or why the list can't have it; it is of no use then.
const char *sim_add_fault(const char *line, sim_fault_list *list);

// Reads `loaded NUMBER`, without a line feed; false for any other line.
bool sim_parse_loaded(const char *line, std::int64_t *number);
