// The post threads, as the folder's files and faults want them, and the thread that announces them.
#include "sim_library.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

static qm5_cl_post_notify_function *sim_callback;
static std::uint32_t sim_mask;
static bool sim_announced[SIM_POSTS];

// What a post is still to be told, late.
static struct {
    bool pending;
    bool twice;
    std::int64_t begin; // as sim_now
    sim_wait wait;
    std::uint32_t res_id;
} sim_late[SIM_POSTS];

static pthread_t sim_thread;
static int sim_watch = -1;   // inotify on the folder
static int sim_wake_up = -1; // eventfd: end the thread, or change a post
static std::atomic<bool> sim_ending;

// What is asked of posts by faults; with the lock.
static sim_change sim_asked[SIM_POSTS];

// ---- What the files say -------------------------------------------------------------------------

// Writes the file of a post, whole or not at all. `put`, link or rename, gives the draft its place.
static int sim_write_size(std::uint32_t post, const char *size,
                          int (*put)(const char *draft, const char *path))
{
    char path[SIM_PATH_SIZE];
    char draft[SIM_PATH_SIZE];
    sim_get_path(path, "post%u", post);
    sim_get_path(draft, "post%u.new", post);
    const int fd = open(draft, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0644);
    if (fd != -1)
        errno = ENOSPC; // what a short write means
    const auto length = static_cast<ssize_t>(strlen(size));
    const bool done = fd != -1 && write(fd, size, strlen(size)) == length && put(draft, path) == 0;
    const int error = errno;
    if (fd != -1)
        close(fd);
    unlink(draft);
    errno = error;
    return done ? 0 : sim_fail_system(path);
}

// Gives each post without a file one; nobody else's is replaced.
static int sim_make_size_files()
{
    const auto put = [](const char *draft, const char *path) {
        return link(draft, path) == 0 || errno == EEXIST ? 0 : -1;
    };
    for (std::uint32_t post = 0; post < SIM_POSTS; post++) {
        char path[SIM_PATH_SIZE];
        sim_get_path(path, "post%u", post);
        struct stat there;
        if (lstat(path, &there) != 0 && sim_write_size(post, sim_default_sizes[post], put) != 0)
            return -1;
    }
    return 0;
}

// The size that the post's file asks for, 0 by 0 for a closed post or no file. False for a file
// that can't be read or understood, which is said on stderr, and for an empty one, which somebody
// is about to write: the post then stays as it is.
static bool sim_read_size(std::uint32_t post, std::uint32_t *width, std::uint32_t *height)
{
    char path[SIM_PATH_SIZE];
    char text[32];
    std::size_t length;
    *width = 0;
    *height = 0;
    sim_get_path(path, "post%u", post);
    if (access(path, F_OK) != 0 && errno == ENOENT)
        return true;
    if (const char *why = sim_read_text(path, text, sizeof text, &length)) {
        sim_say(path, why);
        return false;
    }
    if (length == 0)
        return false;
    if (sim_parse_size(text, width, height))
        return true;
    fprintf(stderr, "qm5sim: %s: neither WIDTHxHEIGHT nor closed\n", path);
    return false;
}

// ---- Changes ------------------------------------------------------------------------------------

static void sim_tell(std::uint32_t post, std::uint32_t res_id, bool twice)
{
    // A word that nobody reads is no zero.
    const qm5_cl_post_notify_info info = {0x0BADF00D, res_id, post, res_id != 0};
    sim_callback(info);
    if (twice)
        sim_callback(info);
}

// Tells of a post thread that has come, or of its end by a resource ID of 0.
static void sim_announce(std::uint32_t post, std::uint32_t res_id)
{
    sim_announced[post] = res_id != 0;
    if ((sim_mask >> post & 1) == 0)
        return;
    sim_wait wait = {};
    sim_lock();
    const sim_trouble trouble = sim_meet_faults(SIM_NOTIFY, post, &wait);
    sim_unlock();
    if (wait.count != 0)
        sim_late[post] = {true, trouble.twice, sim_now(), wait, res_id};
    else
        sim_tell(post, res_id, trouble.twice);
}

static void sim_tell_late(std::uint32_t post)
{
    sim_late[post].pending = false;
    sim_tell(post, sim_late[post].res_id, sim_late[post].twice);
}

// When a post is to be told what it is told late: as sim_now, INT64_MAX if there is nothing.
static std::int64_t sim_get_due(std::uint32_t post)
{
    if (!sim_late[post].pending)
        return INT64_MAX;
    sim_lock();
    const std::int64_t due = sim_get_end(&sim_late[post].wait, sim_late[post].begin);
    sim_unlock();
    return due;
}

static void sim_tell_what_is_due(std::uint32_t post)
{
    if (sim_get_due(post) <= sim_now())
        sim_tell_late(post);
}

// Milliseconds to the next late announcement, rounded up; -1: there is none.
static int sim_get_patience()
{
    std::int64_t first = INT64_MAX;
    for (std::uint32_t post = 0; post < SIM_POSTS; post++) {
        const std::int64_t due = sim_get_due(post);
        if (due < first)
            first = due;
    }
    if (first == INT64_MAX)
        return -1;
    const std::int64_t left = first - sim_now();
    return left > 0 ? static_cast<int>((left + SIM_MILLISECOND - 1) / SIM_MILLISECOND) : 0;
}

static void sim_close_post(std::uint32_t number)
{
    sim_post *post = &sim->post[number];
    sim_lock();
    for (std::uint32_t i = 0; i < SIM_OSDS; i++) {
        if (post->osd[i].handle != 0)
            sim_note_gone(number, i, post->osd[i].handle);
    }
    sim_begin();
    *post = {};
    sim_end();
    sim_is_reaping_due = true;
    sim_unlock();
    if (sim_announced[number])
        sim_announce(number, 0);
}

static void sim_open_post(std::uint32_t number, std::uint32_t width, std::uint32_t height)
{
    sim_post *post = &sim->post[number];
    sim_lock();
    sim_begin();
    *post = {};
    post->res_id = SIM_FIRST_RES_ID + sim_count(&sim->last_res_id);
    post->width = width;
    post->height = height;
    sim_end();
    sim_unlock();
}

// Brings a post to what its file says, step by step if one is announced late. A new size takes a
// new post thread.
static void sim_follow_file(std::uint32_t number)
{
    sim_post *post = &sim->post[number];
    std::uint32_t width = 0;
    std::uint32_t height = 0;

    if (sim_late[number].pending)
        return;
    if (!sim_read_size(number, &width, &height)) {
        width = post->width;
        height = post->height;
    }
    if (post->res_id != 0 && (post->width != width || post->height != height))
        sim_close_post(number);
    if (sim_late[number].pending)
        return;
    if (post->res_id == 0 && width != 0)
        sim_open_post(number, width, height);
    if (post->res_id != 0 && !sim_announced[number])
        sim_announce(number, post->res_id);
}

// ---- The thread ---------------------------------------------------------------------------------

static void sim_drain_events()
{
    alignas(inotify_event) char events[sizeof(inotify_event) + NAME_MAX + 1];
    while (read(sim_watch, events, sizeof events) > 0)
        continue; // whatever it was, everything is looked at
    std::uint64_t count;
    while (read(sim_wake_up, &count, sizeof count) > 0)
        continue;
}

// Writes what a fault asks of a post into its file. Its coming that hasn't been told yet is told
// now, for the call doesn't wait for more.
static bool sim_take_what_is_asked(std::uint32_t number)
{
    sim_lock();
    const sim_change asked = sim_asked[number];
    sim_unlock();
    if (!asked.wanted)
        return false;
    if (sim_late[number].pending && sim->post[number].res_id != 0)
        sim_tell_late(number);
    char size[32] = "closed\n";
    if (asked.width != 0)
        snprintf(size, sizeof size, "%ux%u\n", asked.width, asked.height);
    sim_write_size(number, size, rename);
    return true;
}

static void sim_follow_post(std::uint32_t number)
{
    sim_tell_what_is_due(number);
    const bool asked = sim_take_what_is_asked(number);
    sim_follow_file(number);
    if (!asked)
        return;
    sim_lock();
    sim_asked[number] = {};
    sim_tell_changed();
    sim_unlock();
}

// Since the thread's start, all posts at least once.
static bool sim_has_followed;

static void *sim_run_posts(void *)
{
    pollfd wanted[] = {{sim_watch, POLLIN, 0}, {sim_wake_up, POLLIN, 0}};
    for (;;) {
        sim_drain_events();
        if (sim_ending) // after the draining, which may have taken the wake-up
            return nullptr;
        sim_lock();
        sim_read_control();
        sim_unlock();
        for (std::uint32_t post = 0; post < SIM_POSTS; post++)
            sim_follow_post(post);
        sim_lock();
        if (!sim_has_followed) {
            sim_has_followed = true;
            sim_tell_changed();
        }
        sim_unlock();
        poll(wanted, 2, sim_get_patience());
    }
}

static void sim_wake_thread()
{
    const std::uint64_t one = 1;
    while (write(sim_wake_up, &one, sizeof one) == -1 && errno == EINTR)
        continue;
}

static bool sim_is_any_asked()
{
    for (const sim_change &asked : sim_asked) {
        if (asked.wanted)
            return true;
    }
    return false;
}

void sim_change_posts(const sim_change *changes)
{
    if (pthread_equal(pthread_self(), sim_thread))
        return;
    sim_lock();
    memcpy(sim_asked, changes, sizeof sim_asked);
    sim_wake_thread();
    while (sim_is_any_asked())
        sim_wait_changed();
    sim_unlock();
}

static void sim_close_descriptors()
{
    if (sim_watch != -1)
        close(sim_watch);
    if (sim_wake_up != -1)
        close(sim_wake_up);
    sim_watch = -1;
    sim_wake_up = -1;
}

static int sim_open_descriptors()
{
    sim_wake_up = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    sim_watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (sim_wake_up == -1 || sim_watch == -1 ||
        inotify_add_watch(sim_watch, sim_folder(),
                          IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE) == -1)
        return sim_fail_system(sim_folder());
    return 0;
}

int sim_start_posts(qm5_cl_post_notify_function *callback, std::uint32_t mask)
{
    sim_callback = callback;
    sim_mask = mask;
    memset(sim_announced, 0, sizeof sim_announced);
    memset(sim_late, 0, sizeof sim_late);
    sim_ending = false;
    sim_has_followed = false;
    if (sim_make_size_files() != 0)
        return -1;
    if (sim_open_descriptors() != 0) {
        sim_close_descriptors();
        return -1;
    }
    const int error = pthread_create(&sim_thread, nullptr, sim_run_posts, nullptr);
    if (error != 0) {
        sim_close_descriptors();
        errno = error;
        return sim_fail_system("notification thread");
    }
    sim_lock();
    while (!sim_has_followed)
        sim_wait_changed();
    sim_unlock();
    return 0;
}

void sim_stop_posts()
{
    if (sim_wake_up == -1)
        return;
    sim_ending = true;
    sim_wake_thread();
    pthread_join(sim_thread, nullptr);
    sim_close_descriptors();
}
