#include "support/wraps.h"

#include "support/trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <sys/ipc.h>
#include <sys/select.h>
#include <sys/stat.h>

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H

namespace wraps
{

namespace
{

struct Plan {
    int calls = 0;
    int fail_from = 0; // number of the first call that fails; 0: none
    int fail_count = 0;
    int error = 0;
    bool traced = false;
    int limited = 0; // number of the call whose transfer is limited
    ssize_t limit = 0;
};

// Plain storage: calloc runs before and after everything else.
constinit std::array<Plan, FUNCTIONS> plans{};

std::optional<timeval> fixed_clock;
std::optional<pid_t> next_fork;
std::optional<std::string> next_link;

std::function<void()> &sleeper()
{
    static std::function<void()> action;
    return action;
}

Plan &plan(Function function)
{
    return plans[function];
}

// Counts a call. True, with errno set, if it is to fail.
bool fails(Function function)
{
    Plan &own = plan(function);
    own.calls++;
    if (own.fail_from == 0 || own.calls < own.fail_from ||
        own.calls >= own.fail_from + own.fail_count)
        return false;
    errno = own.error;
    return true;
}

size_t transfer(Function function, size_t count)
{
    const Plan &own = plan(function);
    return own.calls == own.limited ? std::min(count, static_cast<size_t>(own.limit)) : count;
}

} // namespace

void reset()
{
    plans = {};
    fixed_clock.reset();
    next_fork.reset();
    next_link.reset();
    sleeper() = nullptr;
}

void fail(Function function, int nth, int error, int count)
{
    Plan &own = plan(function);
    own.fail_from = own.calls + nth;
    own.fail_count = count;
    own.error = error;
}

int calls(Function function)
{
    return plan(function).calls;
}

void trace(Function function)
{
    plan(function).traced = true;
}

void set_clock(time_t seconds, suseconds_t microseconds)
{
    fixed_clock = timeval{seconds, microseconds};
}

void on_nanosleep(std::function<void()> action)
{
    sleeper() = std::move(action);
}

void set_fork(pid_t result)
{
    next_fork = result;
}

void set_link(const char *target)
{
    next_link = target;
}

void limit_transfer(Function function, int nth, ssize_t bytes)
{
    Plan &own = plan(function);
    own.limited = own.calls + nth;
    own.limit = bytes;
}

} // namespace wraps

// ---- The wrappers -------------------------------------------------------------------------------

// For `name`, ld sends calls to __wrap_name, and __real_name to the function itself.
#define WRAP(type, name, parameters)                                                               \
    type __real_##name parameters;                                                                 \
    type __wrap_##name parameters;                                                                 \
    type __wrap_##name parameters

using namespace wraps;

// Writes the call to the trace if the test wants that, and leaves errno as it is.
#define NOTE(function, ...)                                                                        \
    do {                                                                                           \
        const int error = errno;                                                                   \
        if (plan(function).traced)                                                                 \
            support::add_trace(__VA_ARGS__);                                                       \
        errno = error;                                                                             \
    } while (false)

extern "C" {

WRAP(void *, calloc, (size_t count, size_t size))
{
    return fails(CALLOC) ? nullptr : __real_calloc(count, size);
}

WRAP(int, nanosleep, (const timespec *time, timespec *left))
{
    const bool failed = fails(NANOSLEEP);
    NOTE(NANOSLEEP, "nanosleep(%lld.%09ld%s)", static_cast<long long>(time->tv_sec), time->tv_nsec,
         left ? ", left" : "");
    if (sleeper())
        sleeper()();
    return failed ? -1 : 0;
}

WRAP(int, gettimeofday, (timeval * now, void *zone))
{
    if (fails(GETTIMEOFDAY))
        return -1;
    if (!fixed_clock)
        return __real_gettimeofday(now, zone);
    *now = *fixed_clock;
    return 0;
}

WRAP(tm *, localtime, (const time_t *seconds))
{
    return fails(LOCALTIME) ? nullptr : __real_localtime(seconds);
}

WRAP(char *, ctime, (const time_t *seconds))
{
    return fails(CTIME) ? nullptr : __real_ctime(seconds);
}

WRAP(int, mkfifo, (const char *path, mode_t mode))
{
    NOTE(MKFIFO, "mkfifo(%s, %04o)", path, mode);
    return fails(MKFIFO) ? -1 : __real_mkfifo(path, mode);
}

int __real_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    NOTE(OPEN, "open(%s, 0%o)", path, static_cast<unsigned>(flags));
    return fails(OPEN) ? -1 : __real_open(path, flags, mode);
}

WRAP(int, close, (int fd))
{
    NOTE(CLOSE, "close(%d)", fd);
    return fails(CLOSE) ? -1 : __real_close(fd);
}

WRAP(ssize_t, read, (int fd, void *buffer, size_t count))
{
    NOTE(READ, "read(%zu)", count);
    if (fails(READ))
        return -1;
    return __real_read(fd, buffer, transfer(READ, count));
}

WRAP(ssize_t, write, (int fd, const void *buffer, size_t count))
{
    NOTE(WRITE, "write(%zu)", count);
    if (fails(WRITE))
        return -1;
    const size_t part = transfer(WRITE, count);
    return part == 0 && count != 0 ? 0 : __real_write(fd, buffer, part);
}

WRAP(int, unlink, (const char *path))
{
    NOTE(UNLINK, "unlink(%s)", path);
    return fails(UNLINK) ? -1 : __real_unlink(path);
}

WRAP(int, rename, (const char *from, const char *to))
{
    NOTE(RENAME, "rename(%s, %s)", from, to);
    return fails(RENAME) ? -1 : __real_rename(from, to);
}

WRAP(FILE *, fopen, (const char *path, const char *mode))
{
    NOTE(FOPEN, "fopen(%s, %s)", path, mode);
    return fails(FOPEN) ? nullptr : __real_fopen(path, mode);
}

WRAP(pid_t, fork, ())
{
    NOTE(FORK, "fork()");
    if (fails(FORK))
        return -1;
    if (!next_fork)
        return __real_fork();
    const pid_t result = *next_fork;
    next_fork.reset();
    return result;
}

WRAP(ssize_t, readlink, (const char *path, char *buffer, size_t size))
{
    NOTE(READLINK, "readlink(%s, %zu)", path, size);
    if (fails(READLINK))
        return -1;
    if (!next_link)
        return __real_readlink(path, buffer, size);
    const std::size_t length = next_link->copy(buffer, size); // without a terminator
    next_link.reset();
    return static_cast<ssize_t>(length);
}

WRAP(int, shmget, (key_t key, size_t size, int flags))
{
    NOTE(SHMGET, "shmget(%d, %zu, 0%o)", key, size, static_cast<unsigned>(flags));
    return fails(SHMGET) ? -1 : __real_shmget(key, size, flags);
}

WRAP(void *, shmat, (int id, const void *address, int flags))
{
    NOTE(SHMAT, "shmat(%s, %d)", address ? "address" : "NULL", flags);
    return fails(SHMAT) ? reinterpret_cast<void *>(-1) : __real_shmat(id, address, flags);
}

WRAP(int, setenv, (const char *name, const char *value, int overwrite))
{
    NOTE(SETENV, "setenv(%s, %s, %d)", name, value, overwrite);
    return fails(SETENV) ? -1 : __real_setenv(name, value, overwrite);
}

WRAP(int, select, (int count, fd_set *in, fd_set *out, fd_set *bad, timeval *timeout))
{
    NOTE(SELECT, "select(%d, %s, %s, %ld.%06ld)", count, out ? "out" : "NULL", bad ? "bad" : "NULL",
         timeout->tv_sec, timeout->tv_usec);
    return fails(SELECT) ? -1 : __real_select(count, in, out, bad, timeout);
}

// ---- FreeType -----------------------------------------------------------------------------------

WRAP(FT_Error, FT_Init_FreeType, (FT_Library * library))
{
    NOTE(FT_INIT_FREETYPE, "FT_Init_FreeType()");
    return fails(FT_INIT_FREETYPE) ? plan(FT_INIT_FREETYPE).error
                                   : __real_FT_Init_FreeType(library);
}

WRAP(FT_Error, FT_New_Face, (FT_Library library, const char *path, FT_Long index, FT_Face *face))
{
    NOTE(FT_NEW_FACE, "FT_New_Face(%s, %ld)", path, index);
    return fails(FT_NEW_FACE) ? plan(FT_NEW_FACE).error
                              : __real_FT_New_Face(library, path, index, face);
}

WRAP(FT_Error, FT_Request_Size, (FT_Face face, FT_Size_Request request))
{
    NOTE(FT_REQUEST_SIZE, "FT_Request_Size(type %d, %ld x %ld, resolution %u x %u)", request->type,
         request->width, request->height, request->horiResolution, request->vertResolution);
    return fails(FT_REQUEST_SIZE) ? plan(FT_REQUEST_SIZE).error
                                  : __real_FT_Request_Size(face, request);
}

WRAP(FT_UInt, FT_Get_Char_Index, (FT_Face face, FT_ULong code))
{
    fails(FT_GET_CHAR_INDEX);
    NOTE(FT_GET_CHAR_INDEX, "FT_Get_Char_Index(%lu)", code);
    return __real_FT_Get_Char_Index(face, code);
}

WRAP(FT_Error, FT_Load_Glyph, (FT_Face face, FT_UInt index, FT_Int32 flags))
{
    NOTE(FT_LOAD_GLYPH, "FT_Load_Glyph(%u, %d)", index, flags);
    return fails(FT_LOAD_GLYPH) ? plan(FT_LOAD_GLYPH).error
                                : __real_FT_Load_Glyph(face, index, flags);
}

WRAP(FT_Error, FT_Get_Glyph, (FT_GlyphSlot slot, FT_Glyph *glyph))
{
    NOTE(FT_GET_GLYPH, "FT_Get_Glyph()");
    return fails(FT_GET_GLYPH) ? plan(FT_GET_GLYPH).error : __real_FT_Get_Glyph(slot, glyph);
}

WRAP(FT_Error, FT_Glyph_To_Bitmap,
     (FT_Glyph * glyph, FT_Render_Mode mode, const FT_Vector *origin, FT_Bool destroy))
{
    NOTE(FT_GLYPH_TO_BITMAP, "FT_Glyph_To_Bitmap(mode %d, %s, %d)", mode,
         origin ? "origin" : "NULL", destroy);
    return fails(FT_GLYPH_TO_BITMAP) ? plan(FT_GLYPH_TO_BITMAP).error
                                     : __real_FT_Glyph_To_Bitmap(glyph, mode, origin, destroy);
}

WRAP(void, FT_Done_Glyph, (FT_Glyph glyph))
{
    fails(FT_DONE_GLYPH);
    NOTE(FT_DONE_GLYPH, "FT_Done_Glyph()");
    __real_FT_Done_Glyph(glyph);
}

WRAP(FT_Error, FT_Done_Face, (FT_Face face))
{
    fails(FT_DONE_FACE);
    NOTE(FT_DONE_FACE, "FT_Done_Face()");
    return __real_FT_Done_Face(face);
}

WRAP(FT_Error, FT_Done_FreeType, (FT_Library library))
{
    fails(FT_DONE_FREETYPE);
    NOTE(FT_DONE_FREETYPE, "FT_Done_FreeType()");
    return __real_FT_Done_FreeType(library);
}

} // extern "C"
