// The post threads of the simulated codec, and the thread that announces them.
#pragma once

#include "display/qm5codec.h"
#include "sim_state.h"

// Errors of the simulator's own.
constexpr std::uint32_t SIM_ERROR_ORDER = 0x81E00001;    // a call out of its order
constexpr std::uint32_t SIM_ERROR_ARGUMENT = 0x81E00002; // an argument out of range
constexpr std::uint32_t SIM_ERROR_BUSY = 0x81E03201;     // the post has an open OSD of this number
constexpr std::uint32_t SIM_ERROR_SYSTEM = 0x81E00003;   // the state folder; said on stderr

// Sets errno to a code and returns -1.
int sim_fail(std::uint32_t code);

// Says "qm5sim: what: why" on stderr, with the system's reason, and fails with SIM_ERROR_SYSTEM.
int sim_fail_system(const char *what);

// ---- State --------------------------------------------------------------------------------------

// The mapped state; NULL while the device is closed. A change is between sim_begin and sim_end.
// While the notification thread runs, a change is also between sim_lock and sim_unlock, and so is
// every access but that thread's own to the words that it alone writes: a post's res_id, width and
// height.
extern sim_state *sim;

void sim_lock();
void sim_unlock();
void sim_begin();
void sim_end();

// Maps and unmaps the state, made anew if the folder has none. -1 with errno for a failure, which
// it is too if another process has the state.
int sim_map_state();
void sim_unmap_state();

// The state folder, from the environment at sim_map_state: later the application changes its
// environment while the notification thread runs.
const char *sim_folder();

// The path of a file in it, into SIM_PATH_SIZE bytes; cut if it is too long, which sim_map_state
// doesn't let happen.
[[gnu::format(printf, 2, 3)]] void sim_get_path(char *path, const char *format, ...);

std::uint32_t sim_new_id();

// ---- OSD memory ---------------------------------------------------------------------------------

// What an open OSD has in this process. The memory of a post thread that has gone stays readable
// and writable until the next call of the library, for the server may be drawing into it.
struct sim_memory {
    std::uint8_t *draw;  // what the server draws into
    std::uint8_t *shown; // mapped file: what the picture shows
    std::size_t size;
};

// Opens and closes the memory of an OSD whose entry in the state is filled. -1 with errno for a
// failure.
int sim_open_memory(std::uint32_t post, std::uint32_t number);
void sim_close_memory(std::uint32_t post, std::uint32_t number);
sim_memory *sim_get_memory(std::uint32_t post, std::uint32_t number);

// Gives back the memory of OSDs that have gone with their post thread.
void sim_reap_memory();

// ---- Post threads -------------------------------------------------------------------------------

// Starts and stops the thread that keeps the posts as the folder's files say and announces each
// change, and first of all what runs already. -1 with errno for a failure.
int sim_start_posts(qm5_cl_post_notify_function *callback, std::uint32_t mask);
void sim_stop_posts();
