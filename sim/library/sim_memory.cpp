// The mapped state and the memory of OSDs.
#include "sim_calls.h"
#include "sim_library.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

sim_state *sim;

static pthread_mutex_t sim_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t sim_changed = PTHREAD_COND_INITIALIZER;
static char sim_folder_path[SIM_PATH_SIZE];
static int sim_state_fd = -1; // locked while the library is up

static sim_memory sim_memories[SIM_POSTS][SIM_OSDS];

bool sim_is_reaping_due;

// ---- State --------------------------------------------------------------------------------------

void sim_lock()
{
    pthread_mutex_lock(&sim_mutex);
}

void sim_unlock()
{
    pthread_mutex_unlock(&sim_mutex);
}

void sim_wait_changed()
{
    pthread_cond_wait(&sim_changed, &sim_mutex);
}

void sim_tell_changed()
{
    pthread_cond_broadcast(&sim_changed);
}

void sim_begin()
{
    __atomic_fetch_or(&sim->sequence, 1, __ATOMIC_ACQ_REL);
    __atomic_thread_fence(__ATOMIC_RELEASE);
}

void sim_end()
{
    __atomic_add_fetch(&sim->sequence, 1, __ATOMIC_RELEASE);
}

std::uint32_t sim_count(std::uint32_t *last)
{
    *last = (*last + 1) & 0x0FFFFFFF;
    return *last;
}

const char *sim_folder()
{
    return sim_folder_path;
}

void sim_get_path(char *path, const char *format, ...)
{
    const int folder = snprintf(path, SIM_PATH_SIZE, "%s/", sim_folder_path);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(path + folder, SIM_PATH_SIZE - static_cast<std::size_t>(folder), format, arguments);
    va_end(arguments);
}

// Opens a file of the folder, made anew if it isn't there; -1 with errno.
static int sim_open_file(const char *path)
{
    return open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
}

// Gives an open file exactly `size` bytes and maps it; MAP_FAILED with errno. The bytes are taken
// from the disk before the file has its size, so that a file that they can't be had for stays as it
// was.
static void *sim_map_file(int fd, std::size_t size)
{
    if (!sim_allocate(fd, 0, size) || ftruncate(fd, static_cast<off_t>(size)) != 0)
        return MAP_FAILED;
    return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

void sim_forget_osds()
{
    sim_begin();
    for (sim_post &post : sim->post)
        memset(post.osd, 0, sizeof post.osd);
    sim_end();
    sim_is_reaping_due = true;
}

// Can a library of this version have written it?
static bool sim_is_sound()
{
    if (sim->magic != SIM_MAGIC || sim->version != SIM_VERSION)
        return false;
    for (const sim_post &post : sim->post) {
        const std::uint32_t id = post.res_id - SIM_FIRST_RES_ID;
        if (post.res_id != 0 && (id == 0 || id > sim->last_res_id))
            return false;
        if (post.width > SIM_LONGEST || post.height > SIM_LONGEST)
            return false;
    }
    return true;
}

// A state that another process left behind, perhaps within a change, keeps its post threads; their
// OSDs went with it.
static void sim_take_over_state()
{
    sim_begin();
    if (!sim_is_sound()) {
        const std::uint32_t sequence = sim->sequence;
        *sim = {};
        sim->magic = SIM_MAGIC;
        sim->version = SIM_VERSION;
        sim->sequence = sequence;
    }
    sim_forget_osds(); // ends the change
}

int sim_take_folder()
{
    constexpr std::size_t longest_name = sizeof "/post0-osd0";
    sim_get_folder(sim_folder_path);
    if (strlen(sim_folder_path) + longest_name > SIM_PATH_SIZE) {
        errno = ENAMETOOLONG;
        return sim_fail_system("state folder");
    }
    const char *why = sim_make_folder(sim_folder_path);
    if (!why)
        return 0;
    sim_say(sim_folder_path, why);
    return sim_fail(SIM_ERROR_SYSTEM);
}

// The state file, locked; -1 with errno, after saying why.
static int sim_lock_state(const char *path)
{
    const int fd = sim_open_file(path);
    if (fd == -1)
        return sim_fail_system(path);
    // A tool that looks whether somebody has it holds it for a moment.
    int result = flock(fd, LOCK_EX | LOCK_NB);
    for (int i = 0; i < 20 && result != 0 && errno == EWOULDBLOCK; i++) {
        sim_sleep(10);
        result = flock(fd, LOCK_EX | LOCK_NB);
    }
    if (result != 0) {
        if (errno == EWOULDBLOCK)
            fprintf(stderr, "qm5sim: %s: another process has the device open\n", path);
        else
            sim_fail_system(path);
        close(fd);
        return sim_fail(SIM_ERROR_SYSTEM);
    }
    return fd;
}

int sim_map_state()
{
    if (sim_take_folder() != 0)
        return -1;
    char path[SIM_PATH_SIZE];
    sim_get_path(path, "state");
    const int fd = sim_lock_state(path);
    if (fd == -1)
        return -1;
    void *map = sim_map_file(fd, sizeof(sim_state));
    if (map == MAP_FAILED) {
        sim_fail_system(path);
        close(fd);
        return -1;
    }
    sim_state_fd = fd;
    sim = static_cast<sim_state *>(map);
    sim_take_over_state();
    return 0;
}

void sim_unmap_state()
{
    munmap(sim, sizeof(sim_state));
    sim = nullptr;
    close(sim_state_fd);
    sim_state_fd = -1;
}

// ---- OSD memory ---------------------------------------------------------------------------------

bool sim_is_all(const void *memory, std::uint8_t byte, std::size_t size)
{
    const auto *bytes = static_cast<const std::uint8_t *>(memory);
    return size == 0 || (*bytes == byte && memcmp(bytes, bytes + 1, size - 1) == 0);
}

sim_memory *sim_get_memory(std::uint32_t post, std::uint32_t number)
{
    return &sim_memories[post][number];
}

// Makes the file of what an OSD shows and maps it; MAP_FAILED with errno.
static void *sim_map_picture(const char *path, std::size_t size)
{
    unlink(path); // a reader may still have the one before
    const int fd = sim_open_file(path);
    if (fd == -1)
        return MAP_FAILED;
    void *map = sim_map_file(fd, size != 0 ? size : 1);
    const int error = errno;
    if (map == MAP_FAILED)
        unlink(path); // it may have taken what was left of the disk
    close(fd);
    errno = error;
    return map;
}

int sim_open_memory(std::uint32_t post, std::uint32_t number)
{
    const sim_osd *osd = &sim->post[post].osd[number];
    sim_memory memory = {};
    char path[SIM_PATH_SIZE];
    sim_get_path(path, "post%u-osd%u", post, number);

    memory.handle = osd->handle;
    const std::size_t size = std::size_t{osd->line_bytes} * osd->height;
    if (size > SIM_LARGEST_OSD)
        return sim_fail(QM5_CL_ERROR_OPEN_REFUSED);
    if (!sim_map_guarded(size, &memory.guarded))
        return sim_fail_system("OSD memory");
    void *shown = sim_map_picture(path, size);
    if (shown == MAP_FAILED) {
        sim_fail_system(path);
        sim_unmap_guarded(&memory.guarded);
        return -1;
    }
    memory.shown = static_cast<std::uint8_t *>(shown);
    *sim_get_memory(post, number) = memory;
    return 0;
}

void sim_close_memory(std::uint32_t post, std::uint32_t number, sim_operation by)
{
    sim_memory *memory = sim_get_memory(post, number);
    if (memory->handle == 0)
        return;
    const std::size_t size = memory->guarded.size;
    sim_end_guarded(post, number, memory, by);
    munmap(memory->shown, size != 0 ? size : 1);
    *memory = {};
}

static std::uint64_t sim_hash_drawn(const sim_memory *memory)
{
    return sim_hash_shown(memory->guarded.draw, memory->guarded.size);
}

void sim_end_drawing(sim_memory *memory)
{
    memory->lent = false;
    memory->equal = false;
    memory->left = sim_hash_drawn(memory);
}

// Is there what set_osd has left, as far as that is known?
static bool sim_is_as_left(const sim_memory *memory)
{
    if (memory->equal)
        return memcmp(memory->guarded.draw, memory->shown, memory->guarded.size) == 0;
    return memory->left == 0 || memory->left == sim_hash_drawn(memory);
}

void sim_check_memory(sim_operation operation, sim_memory *memory)
{
    sim_check_margins(operation, memory);
    if (memory->lent || sim_is_as_left(memory))
        return;
    memory->equal = false;
    memory->left = 0;
    sim_breach(operation, "handle 0x%08X: its memory has been written after set_osd",
               memory->handle);
}

void sim_reap_memory(sim_operation operation, sim_operation by)
{
    if (!sim_is_reaping_due)
        return;
    sim_is_reaping_due = false;
    for (std::uint32_t post = 0; post < SIM_POSTS; post++) {
        for (std::uint32_t number = 0; number < SIM_OSDS; number++) {
            sim_memory *memory = sim_get_memory(post, number);
            if (memory->handle == 0 || memory->handle == sim->post[post].osd[number].handle)
                continue;
            sim_check_memory(operation, memory);
            sim_close_memory(post, number, by);
        }
    }
}
