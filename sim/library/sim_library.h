// What the parts of the simulated codec library share. The application calls from one thread; the
// library has another, the notification thread, while notification is on.
#pragma once

#include "display/qm5codec.h"
#include "sim_text.h"

// ---- State --------------------------------------------------------------------------------------

// The mapped state; NULL while the library is down. A change is between sim_begin and sim_end.
// While the notification thread runs, a change is also between sim_lock and sim_unlock, and so is
// every access but that thread's own to the words that it alone writes: a post's res_id, width and
// height.
extern sim_state *sim;

void sim_lock();
void sim_unlock();
void sim_begin();
void sim_end();

// Waits, having the lock, until the other thread tells that a post has been changed.
void sim_wait_changed();
void sim_tell_changed();

// Maps and unmaps the state, made anew if the folder has none. -1 with errno for a failure, which
// it is too if another process has the state.
int sim_map_state();
void sim_unmap_state();

// Forgets all OSDs in the state.
void sim_forget_osds();

// Takes the state folder from the environment and makes it. -1 with errno for a failure. Only while
// the library is down; sim_map_state does it too.
int sim_take_folder();

// The state folder as it was then: later the application changes its environment while the
// notification thread runs.
const char *sim_folder();

// The path of a file in it, into SIM_PATH_SIZE bytes; cut if it is too long, which sim_map_state
// doesn't let happen.
[[gnu::format(printf, 2, 3)]] void sim_get_path(char *path, const char *format, ...);

// Counts one more of what the last one of is this, a resource ID or a handle.
std::uint32_t sim_count(std::uint32_t *last);

// ---- Settings and faults ------------------------------------------------------------------------

extern sim_settings sim_setting;

// Takes up what the files `settings` and `faults` say. If one can't be read or understood, which is
// told on stderr once, what was in force stays. With the lock, if the notification thread runs.
void sim_read_control();

// Nothing is known of them yet.
void sim_forget_control();

// What a post is to be brought to.
struct sim_change {
    bool wanted;
    std::uint32_t width; // 0 by 0: closed
    std::uint32_t height;
};

// What makes a call, or a notice, wait.
struct sim_wait {
    std::uint32_t count;
    std::uint32_t term[SIM_FAULTS]; // of so many faults, since each of them is in force
};

// What is to go wrong with a call.
struct sim_trouble {
    std::uint32_t code; // errno; 0: it doesn't fail
    std::int32_t size;
    std::int32_t line;
    bool changes; // are there any?
    sim_change before[SIM_POSTS];
    sim_change after[SIM_POSTS];
    bool twice;
};

// Counts a call of an operation, of a post's or SIM_ANY_POST, and tells what is to go wrong, and
// what it has to wait for before. With the lock, if the notification thread runs.
sim_trouble sim_meet_faults(sim_operation operation, std::uint32_t post, sim_wait *wait);

constexpr std::int64_t SIM_MILLISECOND = 1000000;

// Nanoseconds of a clock that nobody sets.
std::int64_t sim_now();

void sim_sleep(std::uint32_t ms);

// When a wait that began at `begin` ends, both as sim_now: faults that are no longer in force, or
// were not for a moment, don't make it any longer. With the lock, if the notification thread runs.
std::int64_t sim_get_end(const sim_wait *wait, std::int64_t begin);

// Waits from now on, and takes up meanwhile what the files say. Without the lock.
void sim_wait_out(const sim_wait *wait);

// ---- Contract -----------------------------------------------------------------------------------

// Tells one breach of the contract as "qm5sim: breach: call: what", on stderr and in the file
// `breaches`; ends the process if the settings say so. With the lock, if the notification thread
// runs.
[[gnu::format(printf, 2, 3)]] void sim_breach(sim_operation operation, const char *format, ...);

// Tells a line on stderr; that of a breach is counted too if the library is up; appends it to a
// file, false with errno. A signal handler may call all three.
void sim_tell_line(const char *line, std::size_t length);
void sim_tell_breach(const char *line, std::size_t length);
bool sim_keep_breach(const char *file, const char *line, std::size_t length);

// Is the call made by the thread of qm5_cl_library_init? If not, that's a breach.
void sim_check_thread(sim_operation operation);

// Is a record all zero, as the caller must hand it over? If not, that's a breach.
void sim_check_zero(sim_operation operation, const char *name, const void *record,
                    std::size_t size);

// Was such a resource ID, and such a handle, ever given out? If not, that's a breach.
void sim_check_res_id(sim_operation operation, std::uint32_t res_id);
void sim_check_given(sim_operation operation, std::uint32_t res_id, std::uint32_t handle);

// Tells what is wrong with a handle that was given and that the call's post doesn't know: that it
// has gone with its post thread is no breach; that the application has closed it, or that it is
// another post's, is. With a resource ID of 0 it may be any post's: one that was told to be gone.
// With that of a thread that has ended, one that has gone may be, too.
void sim_check_handle(sim_operation operation, std::uint32_t res_id, std::uint32_t post,
                      std::uint32_t handle);

// Follows the calls on a post: an open_osd comes behind a thread_get_status that has read the size,
// which is noted, or another open_osd.
void sim_check_turn(sim_operation operation, std::uint32_t post, std::uint32_t res_id);
void sim_note_read(std::uint32_t post, bool is_read);

// Checks the word that is to hold the handle of an open. It is 0, but for one case that is no
// breach: a post thread closed and came anew before the application looked, and the word still
// holds what has gone with it.
void sim_check_old_handle(sim_operation operation, std::uint32_t word);

// Resource IDs and handles are these numbers and a count; the count never comes twice.
constexpr std::uint32_t SIM_FIRST_RES_ID = 0x50000000;
constexpr std::uint32_t SIM_FIRST_HANDLE = 0x60000000;

// Remembers the handle of an OSD that has gone without having been closed by the application, or
// that it may forget to close, for a failure has told it so. It may still hold it; 0: it no longer
// does. With the lock, if the notification thread runs.
void sim_note_gone(std::uint32_t post, std::uint32_t number, std::uint32_t handle);
bool sim_has_gone(std::uint32_t handle);

// ---- OSD memory ---------------------------------------------------------------------------------

// Memory between two pages that nobody may touch. It ends, to the word, with the second one.
struct sim_guarded {
    std::uint8_t *draw;
    std::size_t size;
};

// What an open OSD has in this process. The memory of a post thread that has gone stays readable
// and writable until the next call of the library, for the server may be drawing into it.
struct sim_memory {
    std::uint32_t handle; // 0: none
    sim_guarded guarded;  // what the server draws into
    std::uint8_t *shown;  // mapped file of the same size: what the picture shows
    bool lent;            // the server may write into it: from get_osd_mem to set_osd
    bool equal; // what is drawn is what is shown, unless somebody has written without asking
    std::uint64_t left; // if not: hash of what a set_osd that failed has left there; 0: none
};

// Opens and closes the memory of an OSD whose entry in the state is filled. -1 with errno for a
// failure. `by` is the operation that ends it.
int sim_open_memory(std::uint32_t post, std::uint32_t number);
void sim_close_memory(std::uint32_t post, std::uint32_t number, sim_operation by);
sim_memory *sim_get_memory(std::uint32_t post, std::uint32_t number);

// Looks for writes where and when nobody may write; each is a breach, and told once.
void sim_check_memory(sim_operation operation, sim_memory *memory);

// Ends the drawing into a memory that is lent by a set_osd that has failed.
void sim_end_drawing(sim_memory *memory);

// Is all of a memory this byte?
bool sim_is_all(const void *memory, std::uint8_t byte, std::size_t size);

// Gives back the memory of OSDs that `by` has taken from the state, if any have gone: who lets them
// go says so. `operation` is the call that finds out what was written into it until then. With the
// lock, if the notification thread runs.
extern bool sim_is_reaping_due;
void sim_reap_memory(sim_operation operation, sim_operation by);

// Maps guarded memory, false with errno, and gives it back at once.
bool sim_map_guarded(std::size_t size, sim_guarded *memory);
void sim_unmap_guarded(const sim_guarded *memory);

// Ends the memory of an OSD: nobody may touch it from now on, and for as long as the next one of
// this OSD lives its addresses go to nobody else.
void sim_end_guarded(std::uint32_t post, std::uint32_t number, const sim_memory *memory,
                     sim_operation by);

// Looks for writes into what lies between the memory and its guards, and undoes them.
void sim_check_margins(sim_operation operation, const sim_memory *memory);

// From the one to the other, a touch of a guard or of a memory that has ended is told as a breach
// before it ends the process. Other faults go to whoever had SIGSEGV and SIGBUS before.
void sim_watch_touches();
void sim_end_watch();

// ---- Post threads -------------------------------------------------------------------------------

// Starts and stops the thread that keeps the posts as the folder's files say and announces each
// change. What runs already is announced before the start returns, so that runs are alike: an
// application that stores the state before the resource ID would now and then miss it. A post whose
// announcement is late stays as it is until it has been made, and no other post waits for that. -1
// with errno for a failure.
int sim_start_posts(qm5_cl_post_notify_function *callback, std::uint32_t mask);
void sim_stop_posts();

// Brings post threads to what is wanted, and their files say so, and waits until that is announced,
// or is to be announced late. A post whose file can't be written, which is said on stderr, stays as
// it is. Without the lock.
void sim_change_posts(const sim_change *changes);
