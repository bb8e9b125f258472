// A call costs one write, and a picture that isn't the same as the last one of its OSD another.
#include "sim_record.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

static pthread_mutex_t sim_record_mutex = PTHREAD_MUTEX_INITIALIZER;
static std::atomic<bool> sim_recording;
static int sim_calls_fd = -1;
static int sim_data_fd = -1;
static sim_calls_head *sim_head; // mapped, so that a reader sees a record only when it is whole

// What OSDs have shown last.
static struct {
    std::uint32_t handle;
    std::uint64_t hash;
    std::uint64_t at;
    std::uint32_t size;
} sim_last[16];

static void sim_fail_record(const char *what)
{
    fprintf(stderr, "qm5sim: record: %s: %s\n", what, strerror(errno));
}

// A new file, or -1 after saying why there is none.
static int sim_open_record_file(const char *folder, const char *name)
{
    char path[4096];
    const int length = snprintf(path, sizeof path, "%s/%s", folder, name);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof path) {
        errno = ENAMETOOLONG;
        sim_fail_record(folder);
        return -1;
    }
    unlink(path); // a reader may still have the one before
    const int fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd == -1)
        sim_fail_record(path);
    return fd;
}

static bool sim_make_head()
{
    const sim_calls_head head = {
        SIM_CALLS_MAGIC, SIM_CALLS_VERSION, sizeof(sim_call_record), 0, 0, 0, {}};
    if (write(sim_calls_fd, &head, sizeof head) != sizeof head)
        return false;
    void *map = mmap(nullptr, sizeof head, PROT_READ | PROT_WRITE, MAP_SHARED, sim_calls_fd, 0);
    if (map == MAP_FAILED)
        return false;
    sim_head = static_cast<sim_calls_head *>(map);
    return true;
}

// With the lock.
static void sim_close_record()
{
    sim_recording = false;
    if (sim_head)
        munmap(sim_head, sizeof *sim_head);
    if (sim_calls_fd != -1)
        close(sim_calls_fd);
    if (sim_data_fd != -1)
        close(sim_data_fd);
    sim_head = nullptr;
    sim_calls_fd = -1;
    sim_data_fd = -1;
}

void sim_record_start(const char *folder)
{
    pthread_mutex_lock(&sim_record_mutex);
    memset(sim_last, 0, sizeof sim_last);
    sim_data_fd = sim_open_record_file(folder, "calls.data");
    if (sim_data_fd != -1)
        sim_calls_fd = sim_open_record_file(folder, "calls");
    if (sim_calls_fd != -1) {
        sim_recording = sim_make_head();
        if (!sim_recording)
            sim_fail_record(folder);
    }
    if (!sim_recording)
        sim_close_record();
    pthread_mutex_unlock(&sim_record_mutex);
}

void sim_record_stop()
{
    pthread_mutex_lock(&sim_record_mutex);
    sim_close_record();
    pthread_mutex_unlock(&sim_record_mutex);
}

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

// Appends what is shown, unless it is what the OSD has shown before. With the lock.
static bool sim_record_shown(sim_call_record *record, const void *shown, std::size_t size)
{
    record->hash = sim_hash_shown(static_cast<const std::uint8_t *>(shown), size);
    auto *last = &sim_last[record->argument[1] % (sizeof sim_last / sizeof *sim_last)];
    if (last->handle != record->argument[1] || last->hash != record->hash || last->size != size) {
        const auto length = static_cast<ssize_t>(size);
        errno = ENOSPC; // what a short write means
        if (pwrite(sim_data_fd, shown, size, static_cast<off_t>(sim_head->data)) != length)
            return false;
        *last = {record->argument[1], record->hash, sim_head->data,
                 static_cast<std::uint32_t>(size)};
        sim_head->data += size;
    }
    record->data_at = last->at;
    record->data_size = last->size;
    return true;
}

void sim_record_call(sim_call_record *record, const void *shown, std::size_t size)
{
    record->duration = sim_record_time() - record->time;
    record->thread = sim_thread_id();
    pthread_mutex_lock(&sim_record_mutex);
    if (sim_recording) {
        bool written = !shown || sim_record_shown(record, shown, size);
        const std::uint64_t at = sizeof(sim_calls_head) + sim_head->count * sizeof *record;
        if (written) {
            errno = ENOSPC;
            written = pwrite(sim_calls_fd, record, sizeof *record, static_cast<off_t>(at)) ==
                      sizeof *record;
        }
        if (written) {
            __atomic_store_n(&sim_head->count, sim_head->count + 1, __ATOMIC_RELEASE);
        } else {
            sim_fail_record("the record ends here");
            sim_close_record();
        }
    }
    pthread_mutex_unlock(&sim_record_mutex);
}
