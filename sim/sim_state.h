// The state of the simulated codec, in a folder outside any process: post threads exist before the
// server starts and after it ends, and tools read along while it runs.
//
// The folder is named by the environment variable QM5SIM_STATE; without it, it is one of the user's
// own in the temporary folder. It holds
//
//   post0 ... post3     what each post thread is to be: "720x576" or "closed" and a line feed. Made
//                       by the library where missing; anybody may rewrite one at any time
//   state               the record below, mapped into the library and read by the tools; locked
//                       (flock) by the one process that has the library up. Empty or all zero, but
//                       for the sequence: nobody has written it yet
//   settings            how the codec behaves, a line each; see below. No file: the defaults
//   faults              what is to go wrong, a line each; see sim_faults.h. No file: nothing
//   breaches            what the application did that the codec library doesn't allow, a line each
//   calls, calls.data   the record of calls, see sim_calls.h
//   post0-osd0 ...      what each open OSD shows, as last set; line_bytes * height bytes at least
//
// Post threads are there without a process too. While none has `state` locked, each is what its
// file says, or has its default size without a file: if the record says another size, that thread
// has ended with its OSDs, and the next process gives the new one a resource ID.
//
// Only the library writes the pixels; and only who has it locked writes `state`, which is the
// library, or the tool while it ends a post thread that no process follows. The writer makes
// `sequence` odd before and even after each change, and a reader takes nothing that it read across
// a change of it. `settings` and
// `faults` may be written at any time, whole, by a rename; `control` tells which of them are in
// force: the library takes them up at each of its calls that belong to no post, and after
// qm5_cl_post_set_notify within moments of a change. It takes up both or, if it can't understand
// one of them, neither.
//
// The settings, with their defaults:
//
//   alignment 16 16 16  bytes to which a line of OSD memory is rounded, per colour type; 1 to 4096
//   strict 0            1: the first breach ends the process (SIGABRT)
//   faults 1            0: none of the faults happens
//   record 0            1, at qm5_cl_library_init: calls are recorded, see sim_calls.h
//   record-limit 256    MiB that a record may take, at its beginning; 1 to 1000000
#pragma once

#include "sim_faults.h"

#include <cstddef>
#include <cstdint>

constexpr std::uint32_t SIM_POSTS = 4;
constexpr std::uint32_t SIM_OSDS = 4;

constexpr std::uint32_t SIM_MAGIC = 0x6D697335; // "5sim"
constexpr std::uint32_t SIM_VERSION = 5;

struct sim_osd {
    std::uint32_t handle; // 0: not open
    std::uint32_t color_type;
    std::uint32_t width; // as requested, in pixels
    std::uint32_t height;
    std::uint32_t line_bytes;
    std::uint32_t shown; // 1: on the picture
    std::uint32_t x;
    std::uint32_t y;
    std::uint32_t sets; // how often it has been shown
};

struct sim_post {
    std::uint32_t res_id; // 0: no post thread
    std::uint32_t width;
    std::uint32_t height;
    sim_osd osd[SIM_OSDS];
};

// How often a fault of this ID was met, and how often it happened.
struct sim_fault_count {
    std::uint32_t id; // 0: no fault
    std::uint32_t met;
    std::uint32_t happened;
};

struct sim_state {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t sequence;
    std::uint32_t last_res_id; // resource IDs and handles are counted, so none comes twice, and
    std::uint32_t last_handle; // each for itself, so that it's known which ones there have been
    std::uint32_t control;     // sim_hash of the settings and faults in force
    std::uint32_t breaches;    // of this server and those before it
    std::uint32_t unused;      // what follows is at multiples of 8

    // When the file of faults was last changed, as far as the library has looked: if it is changed
    // while no server runs, the counts begin anew.
    std::uint64_t faults_time;

    // As what the list of faults was loaded that has been counted.
    std::int64_t loaded;

    sim_post post[SIM_POSTS];
    sim_fault_count fault[SIM_FAULTS];
};
static_assert(sizeof(sim_osd) == 36 && sizeof(sim_post) == 156 && sizeof(sim_state) == 1056);

constexpr std::size_t SIM_PATH_SIZE = 4096;

// The folder's path, into SIM_PATH_SIZE bytes.
void sim_get_folder(char *path);

// Is it the path of the user's own folder, which is taken where none is named?
bool sim_is_own_folder(const char *path);

// Why a folder of this path isn't to be used: at the path of the user's own, where anybody may make
// one, there is another user's, or a link to who knows where. NULL for one that is good, isn't
// there, or has been named.
const char *sim_refuse_folder(const char *path);

// Makes the folder if it isn't there. NULL, or why it can't be used.
const char *sim_make_folder(const char *path);

// The largest OSD in bytes, as 8192 by 8192 pixels of 8 bits; a larger one is refused.
constexpr std::size_t SIM_LARGEST_OSD = std::size_t{64} << 20;

// The largest width or height of a post or an OSD.
constexpr std::uint32_t SIM_LONGEST = 65535;

// Only the user looks into a state folder.
constexpr unsigned SIM_FOLDER_MODE = 0700;

// How the codec behaves.
struct sim_settings {
    std::uint32_t alignment[3];
    std::uint32_t strict;
    std::uint32_t faults;
    std::uint32_t record;
    std::uint32_t record_limit;
};
constexpr sim_settings SIM_DEFAULT_SETTINGS = {{16, 16, 16}, 0, 1, 0, 256};

// Reads one line of the settings into its place. NULL, or why it can't be understood.
const char *sim_parse_setting(const char *line, sim_settings *settings);

// A hash of two texts, of settings and of faults; a missing file is an empty text.
std::uint32_t sim_hash(const char *settings, std::size_t settings_size, const char *faults,
                       std::size_t faults_size);

// Reads "WIDTHxHEIGHT" or "closed", which is a size of 0 by 0. False for anything else; a size is
// 1 to SIM_LONGEST each way.
bool sim_parse_size(const char *text, std::uint32_t *width, std::uint32_t *height);

// What the posts' files say until somebody says otherwise: the TV output, two streams, the storage.
extern const char *const sim_default_sizes[SIM_POSTS];
