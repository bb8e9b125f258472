// A call costs two readings of the clock and a copy into a mapped part of its file, which is moved
// on once in thousands of calls; and a picture that isn't the last one of its OSD its hash and a
// write.
#include "sim_record.h"
#include "sim_text.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

static pthread_mutex_t sim_record_mutex = PTHREAD_MUTEX_INITIALIZER;

static void sim_fail_record(const char *what)
{
    fprintf(stderr, "qm5sim: record: %s: %s\n", what, strerror(errno));
}

// ---- The files ----------------------------------------------------------------------------------

static int sim_calls_fd = -1;
static int sim_data_fd = -1;
static std::uint64_t sim_calls_size; // of what was appended; the file itself may be longer
static std::uint64_t sim_data_size;
static std::uint64_t sim_limit; // of both together, in bytes
static sim_calls_cut sim_cut;   // why an append has failed

// The part of the file of calls that is being filled.
static std::uint8_t *sim_window;
static std::uint64_t sim_window_at;
static std::uint64_t sim_window_end; // 0: there is none
constexpr std::uint64_t SIM_WINDOW = 256 << 10;
constexpr std::uint64_t SIM_WINDOW_STEP = 64 << 10; // no system has larger pages

// Is there room for so many bytes more? False also sets why not.
static bool sim_is_within_limit(std::uint64_t calls_end, std::uint64_t data_size)
{
    if (calls_end + data_size <= sim_limit)
        return true;
    sim_cut = SIM_CALLS_AT_LIMIT;
    return false;
}

static void sim_unmap_window()
{
    if (sim_window)
        munmap(sim_window, SIM_WINDOW);
    sim_window = nullptr;
    sim_window_end = 0;
}

// Maps the part of the file in which the next bytes are. False with errno or why there is no room.
static bool sim_move_window()
{
    sim_unmap_window();
    const std::uint64_t at = sim_calls_size / SIM_WINDOW_STEP * SIM_WINDOW_STEP;
    if (!sim_is_within_limit(at + SIM_WINDOW, sim_data_size) ||
        !sim_allocate(sim_calls_fd, at, SIM_WINDOW))
        return false;
    void *map = mmap(nullptr, SIM_WINDOW, PROT_READ | PROT_WRITE, MAP_SHARED, sim_calls_fd,
                     static_cast<off_t>(at));
    if (map == MAP_FAILED)
        return false;
    sim_window = static_cast<std::uint8_t *>(map);
    sim_window_at = at;
    sim_window_end = at + SIM_WINDOW;
    return true;
}

// Appends a call; false as above.
static bool sim_append_call(const sim_call_record *record)
{
    if (sim_calls_size + sizeof *record > sim_window_end && !sim_move_window())
        return false;
    memcpy(sim_window + (sim_calls_size - sim_window_at), record, sizeof *record);
    sim_calls_size += sizeof *record;
    return true;
}

// Appends what is shown; false as above.
static bool sim_append_data(const sim_shown *shown)
{
    const std::uint64_t size = sim_data_size + shown->size;
    const std::uint64_t calls_end = sim_window_end != 0 ? sim_window_end : sim_calls_size;
    if (!sim_is_within_limit(calls_end, size))
        return false;
    errno = ENOSPC; // what a short write means
    if (pwrite(sim_data_fd, shown->memory, shown->size, static_cast<off_t>(sim_data_size)) !=
        static_cast<ssize_t>(shown->size))
        return false;
    sim_data_size = size;
    return true;
}

// Closes a file, with nothing behind what was appended.
static void sim_close_file(int *fd, std::uint64_t size)
{
    if (*fd == -1)
        return;
    if (ftruncate(*fd, static_cast<off_t>(size)) != 0)
        sim_fail_record("the rest of a file stays");
    close(*fd);
    *fd = -1;
}

// ---- The record ---------------------------------------------------------------------------------

static enum sim_record_stages {
    SIM_RECORD_OFF,
    SIM_RECORD_RESTS, // its files are closed
    SIM_RECORD_OPEN,
} sim_record_stage = SIM_RECORD_OFF;

static std::atomic<bool> sim_recording; // is it not off?
static sim_calls_head *sim_head; // mapped, so that a reader sees a call only when it is whole
static bool sim_has_run;         // has a library_init of this record succeeded?
static char sim_calls_path[SIM_PATH_SIZE + 16];
static char sim_data_path[SIM_PATH_SIZE + 16];
static struct stat sim_calls_file; // which one it is

// What OSDs have shown last.
static struct {
    std::uint32_t handle;
    std::uint32_t size;
    std::uint64_t hash;
    std::uint64_t at;
} sim_last[64]; // by the six highest bits of a product

static void sim_set_record_stage(sim_record_stages stage)
{
    sim_record_stage = stage;
    sim_recording = stage != SIM_RECORD_OFF;
}

// Locks a file of calls, so that no two processes write one; false with errno.
static bool sim_lock_calls(int fd)
{
    if (flock(fd, LOCK_EX | LOCK_NB) == 0)
        return true;
    errno = errno == EWOULDBLOCK ? EBUSY : errno;
    return false;
}

static bool sim_map_head(int fd)
{
    void *map = mmap(nullptr, sizeof *sim_head, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED)
        return false;
    sim_head = static_cast<sim_calls_head *>(map);
    return true;
}

static void sim_close_files()
{
    if (sim_head)
        munmap(sim_head, sizeof *sim_head);
    sim_head = nullptr;
    sim_unmap_window();
    sim_close_file(&sim_data_fd, sim_data_size);
    sim_close_file(&sim_calls_fd, sim_calls_size);
}

// Makes a file anew; a reader may still have the one before. -1 with errno.
static int sim_make_file(const char *path)
{
    unlink(path);
    return open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
}

static bool sim_make_files()
{
    const int old = open(sim_calls_path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const bool is_free = old == -1 || sim_lock_calls(old);
    if (is_free) {
        sim_data_fd = sim_make_file(sim_data_path);
        sim_calls_fd = sim_make_file(sim_calls_path);
    }
    const int error = errno;
    if (old != -1)
        close(old);
    errno = error;
    sim_data_size = 0;
    sim_calls_size = 0;
    return is_free && sim_data_fd != -1 && sim_calls_fd != -1 && sim_lock_calls(sim_calls_fd) &&
           fstat(sim_calls_fd, &sim_calls_file) == 0;
}

// Opens the files of a record that rests. False if they have been taken away meanwhile, or another
// process has begun its own in their place.
static bool sim_open_files()
{
    struct stat there;
    const int calls = open(sim_calls_path, O_RDWR | O_CLOEXEC);
    const int data = open(sim_data_path, O_RDWR | O_CLOEXEC);
    if (calls == -1 || data == -1 || !sim_lock_calls(calls) || fstat(calls, &there) != 0 ||
        there.st_ino != sim_calls_file.st_ino || there.st_dev != sim_calls_file.st_dev ||
        !sim_map_head(calls)) {
        close(calls);
        close(data);
        return false;
    }
    sim_calls_fd = calls;
    sim_data_fd = data;
    return true;
}

// Writes the head at once, for somebody may be waiting for it.
static bool sim_make_head()
{
    const sim_calls_head head = {SIM_CALLS_MAGIC,
                                 SIM_CALLS_VERSION,
                                 sizeof(sim_call_record),
                                 SIM_CALLS_WHOLE,
                                 0,
                                 0,
                                 sim_limit,
                                 {}};
    sim_calls_size = sizeof head;
    errno = ENOSPC; // what a short write means
    return write(sim_calls_fd, &head, sizeof head) == sizeof head && sim_map_head(sim_calls_fd);
}

static bool sim_begin_anew()
{
    sim_has_run = false;
    sim_cut = SIM_CALLS_FAILED;
    memset(sim_last, 0, sizeof sim_last);
    return sim_make_files() && sim_make_head();
}

static void sim_set_paths(const char *folder)
{
    snprintf(sim_calls_path, sizeof sim_calls_path, "%s/calls", folder);
    snprintf(sim_data_path, sizeof sim_data_path, "%s/calls.data", folder);
}

// Is it the record of a folder, and does a library_init go on with it?
static bool sim_goes_on(const char *folder)
{
    const std::size_t length = strlen(folder);
    return sim_record_stage == SIM_RECORD_RESTS && !sim_has_run &&
           strncmp(sim_calls_path, folder, length) == 0 &&
           strcmp(sim_calls_path + length, "/calls") == 0 && sim_open_files();
}

void sim_record_start(const char *folder, std::uint32_t limit_mib)
{
    pthread_mutex_lock(&sim_record_mutex);
    bool good = sim_goes_on(folder);
    if (!good) {
        sim_close_files();
        sim_set_paths(folder);
        sim_limit = std::uint64_t{limit_mib} << 20;
        good = sim_begin_anew();
    }
    if (!good) {
        sim_fail_record(sim_calls_path);
        sim_close_files();
    }
    sim_set_record_stage(good ? SIM_RECORD_OPEN : SIM_RECORD_OFF);
    pthread_mutex_unlock(&sim_record_mutex);
}

void sim_record_stop()
{
    pthread_mutex_lock(&sim_record_mutex);
    sim_close_files();
    sim_set_record_stage(SIM_RECORD_OFF);
    pthread_mutex_unlock(&sim_record_mutex);
}

static bool sim_is_in(const void *map, std::size_t size, const void *address)
{
    const auto *first = static_cast<const std::uint8_t *>(map);
    const auto *at = static_cast<const std::uint8_t *>(address);
    return first && at >= first && at < first + size;
}

bool sim_has_recorded_at(const void *address)
{
    return sim_is_in(sim_head, sizeof *sim_head, address) ||
           sim_is_in(sim_window, SIM_WINDOW, address);
}

static void sim_let_rest()
{
    if (sim_record_stage != SIM_RECORD_OPEN)
        return;
    sim_close_files();
    sim_set_record_stage(SIM_RECORD_RESTS);
}

void sim_record_rest()
{
    pthread_mutex_lock(&sim_record_mutex);
    sim_let_rest();
    pthread_mutex_unlock(&sim_record_mutex);
}

// ---- Calls --------------------------------------------------------------------------------------

bool sim_is_recording()
{
    return sim_recording.load(std::memory_order_relaxed);
}

std::uint64_t sim_record_time()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(now.tv_nsec);
}

static std::uint32_t sim_thread_id()
{
    [[gnu::tls_model("initial-exec")]] static thread_local std::uint32_t id;
    if (id == 0)
        id = static_cast<std::uint32_t>(gettid());
    return id;
}

// By itself, so that a profile tells its cost apart from the recorder's.
[[gnu::noinline]] static std::uint64_t sim_hash_memory(const sim_shown *shown)
{
    return sim_hash_shown(static_cast<const std::uint8_t *>(shown->memory), shown->size);
}

// Appends what is shown, unless it is what the OSD has shown before. With the lock.
static bool sim_append_shown(sim_call_record *record, const sim_shown *shown)
{
    const std::uint32_t handle = record->argument[1];
    const auto size = static_cast<std::uint32_t>(shown->size);
    auto *last = &sim_last[handle * 2654435761u >> 26]; // handles may have any pattern
    if (last->handle != handle || last->hash != record->hash || last->size != size) {
        const std::uint64_t at = sim_data_size;
        if (!sim_append_data(shown))
            return false;
        *last = {handle, size, record->hash, at};
        sim_head->data = sim_data_size;
    }
    record->data_at = last->at;
    record->data_size = size;
    record->line_bytes = shown->line_bytes;
    return true;
}

// Ends a record that can't be appended to. With the lock.
static void sim_cut_record()
{
    if (sim_cut == SIM_CALLS_AT_LIMIT)
        fprintf(stderr, "qm5sim: record: the record ends here: its limit of %u MiB is reached\n",
                static_cast<unsigned>(sim_limit >> 20));
    else
        sim_fail_record("the record ends here");
    sim_head->cut = sim_cut;
    sim_close_files();
    sim_set_record_stage(SIM_RECORD_OFF);
}

static void sim_append_or_cut(sim_call_record *record, const sim_shown *shown)
{
    if ((shown && !sim_append_shown(record, shown)) || !sim_append_call(record)) {
        sim_cut_record();
        return;
    }
    if (record->operation == SIM_LIBRARY_INIT && record->result == 0)
        sim_has_run = true;
    __atomic_store_n(&sim_head->count, sim_head->count + 1, __ATOMIC_RELEASE);
}

void sim_record_call(sim_call_record *record, const sim_shown *shown)
{
    const std::uint64_t now = sim_record_time();
    record->duration = now > record->time ? now - record->time : 0; // somebody may set the clock
    record->thread = sim_thread_id();
    if (shown)
        record->hash = sim_hash_memory(shown);
    pthread_mutex_lock(&sim_record_mutex);
    const bool rests = sim_record_stage == SIM_RECORD_RESTS;
    if (rests)
        sim_set_record_stage(sim_open_files() ? SIM_RECORD_OPEN : SIM_RECORD_OFF);
    if (sim_record_stage == SIM_RECORD_OPEN)
        sim_append_or_cut(record, shown);
    if (rests)
        sim_let_rest();
    pthread_mutex_unlock(&sim_record_mutex);
}
