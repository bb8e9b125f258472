// What the application may not do with the codec library. The appliance's own library need not
// notice; here each breach is told.
#include "sim_library.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <pthread.h>
#include <unistd.h>

// The thread of qm5_cl_library_init.
static pthread_t sim_server;

// Handles that are none of the application's any more without having been closed by it.
static std::uint32_t sim_gone[SIM_POSTS][SIM_OSDS];

static bool sim_write(int fd, const char *line, std::size_t length)
{
    return write(fd, line, length) == static_cast<ssize_t>(length);
}

void sim_tell_line(const char *line, std::size_t length)
{
    sim_write(STDERR_FILENO, line, length);
}

void sim_tell_breach(const char *line, std::size_t length)
{
    sim_tell_line(line, length);
    if (!sim)
        return;
    sim_begin();
    sim->breaches++;
    sim_end();
}

bool sim_keep_breach(const char *file, const char *line, std::size_t length)
{
    const int fd = open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0644);
    const bool written = fd != -1 && sim_write(fd, line, length);
    if (fd != -1)
        close(fd);
    return written;
}

void sim_breach(sim_operation operation, const char *format, ...)
{
    char line[256];
    const int head =
        snprintf(line, sizeof line, "qm5sim: breach: %s: ", sim_operation_names[operation]);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line + head, sizeof line - static_cast<std::size_t>(head) - 1, format, arguments);
    va_end(arguments);
    strcat(line, "\n");
    sim_tell_breach(line, strlen(line));
    sim_settings setting = sim_setting;
    if (sim || sim_take_folder() == 0) {
        char path[SIM_PATH_SIZE];
        sim_get_path(path, "breaches");
        if (!sim_keep_breach(path, line, strlen(line)))
            sim_fail_system(path);
        if (!sim) // its state may be another process's
            sim_read_settings(sim_folder(), &setting);
    }
    if (setting.strict != 0)
        abort();
}

void sim_check_thread(sim_operation operation)
{
    if (operation == SIM_LIBRARY_INIT)
        sim_server = pthread_self();
    else if (!pthread_equal(sim_server, pthread_self()))
        sim_breach(operation, "called from another thread than library_init");
}

void sim_check_zero(sim_operation operation, const char *name, const void *record, std::size_t size)
{
    if (!sim_is_all(record, 0, size))
        sim_breach(operation, "%s: not all zero before the call", name);
}

// Was this one of those that are counted from `first` on, of which `last` were given out?
static bool sim_was_given(std::uint32_t id, std::uint32_t first, std::uint32_t last)
{
    return id > first && id <= first + last;
}

static bool sim_was_handle(std::uint32_t handle)
{
    return sim_was_given(handle, SIM_FIRST_HANDLE, sim->last_handle);
}

void sim_check_res_id(sim_operation operation, std::uint32_t res_id)
{
    // An application that has been told by an errno that the thread is gone may go on with 0.
    if (res_id != 0 && !sim_was_given(res_id, SIM_FIRST_RES_ID, sim->last_res_id))
        sim_breach(operation, "resource ID 0x%08X: there has never been one", res_id);
}

void sim_check_given(sim_operation operation, std::uint32_t res_id, std::uint32_t handle)
{
    const bool is_none = res_id == 0 && handle == 0;
    if (!is_none && !sim_was_handle(handle))
        sim_breach(operation, "handle 0x%08X: there has never been one", handle);
}

// The post of a handle that has gone, or SIM_ANY_POST.
static std::uint32_t sim_find_gone(std::uint32_t handle)
{
    std::uint32_t post = 0;
    while (post < SIM_POSTS && std::find(std::begin(sim_gone[post]), std::end(sim_gone[post]),
                                         handle) == std::end(sim_gone[post]))
        post++;
    return post;
}
static_assert(SIM_ANY_POST == SIM_POSTS);

bool sim_has_gone(std::uint32_t handle)
{
    return sim_find_gone(handle) != SIM_ANY_POST;
}

static bool sim_is_open(std::uint32_t handle)
{
    for (const sim_post &post : sim->post) {
        for (const sim_osd &osd : post.osd) {
            if (handle == osd.handle)
                return true;
        }
    }
    return false;
}

// No handle comes twice, so that one that was given, isn't open and hasn't gone has been closed.
void sim_check_handle(sim_operation operation, std::uint32_t res_id, std::uint32_t post,
                      std::uint32_t handle)
{
    if (!sim_was_handle(handle))
        return;
    const std::uint32_t gone = sim_find_gone(handle);
    const bool is_open = sim_is_open(handle);
    const bool is_foreign = is_open || (post != SIM_ANY_POST && post != gone);
    if (!is_open && gone == SIM_ANY_POST)
        sim_breach(operation, "handle 0x%08X: it has been closed", handle);
    else if (is_foreign && res_id != 0)
        sim_breach(operation, "handle 0x%08X: it is another post's", handle);
}

// The posts whose size was read, with nothing behind that but opens. A thread that takes the place
// of another in between finds the application at its opens.
static bool sim_read[SIM_POSTS];

void sim_note_read(std::uint32_t post, bool is_read)
{
    sim_read[post] = is_read;
}

void sim_check_turn(sim_operation operation, std::uint32_t post, std::uint32_t res_id)
{
    if (operation != SIM_OPEN_OSD)
        sim_read[post] = false;
    else if (!sim_read[post])
        sim_breach(operation, "resource ID 0x%08X: without thread_get_status before it", res_id);
}

void sim_check_old_handle(sim_operation operation, std::uint32_t word)
{
    if (word != 0 && !sim_has_gone(word))
        sim_breach(operation, "handle: 0x%08X before the call, neither 0 nor gone with its post",
                   word);
}

void sim_note_gone(std::uint32_t post, std::uint32_t number, std::uint32_t handle)
{
    sim_gone[post][number] = handle;
}
