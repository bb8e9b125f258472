// Functions of the system that unit tests replace at link time (ld --wrap): time, and failures that
// no real file or process would give when a test wants them. Every other call goes through.
//
// Only calls from the application's and the tests' own objects are caught, not those that libc,
// FreeType or the C++ library make among themselves.
#pragma once

#include <functional>
#include <sys/time.h>
#include <sys/types.h>

namespace wraps
{

// The wrapped functions. Keep in step with wrapped.txt, from which the build takes its list.
enum Function {
    CALLOC,
    NANOSLEEP,
    GETTIMEOFDAY,
    LOCALTIME,
    CTIME,
    MKFIFO,
    OPEN,
    CLOSE,
    READ,
    WRITE,
    UNLINK,
    RENAME,
    FOPEN,
    FORK,
    READLINK,
    SHMGET,
    SHMAT,
    SETENV,
    SELECT,
    FT_INIT_FREETYPE,
    FT_NEW_FACE,
    FT_REQUEST_SIZE,
    FT_GET_CHAR_INDEX,
    FT_LOAD_GLYPH,
    FT_GET_GLYPH,
    FT_GLYPH_TO_BITMAP,
    FT_DONE_GLYPH,
    FT_DONE_FACE,
    FT_DONE_FREETYPE,
    FUNCTIONS
};

// Takes back all that follows; the fixture calls it before and after each test.
void reset();

// Makes the n-th call from now on fail, 1 being the next; `count` calls in a row. A failing call
// sets errno to `error` and returns -1, NULL, or for FreeType `error` itself.
void fail(Function function, int nth, int error, int count = 1);

// How often the function has been called since the reset.
int calls(Function function);

// Writes each further call of the function to the trace, with its arguments.
void trace(Function function);

// The clock that gettimeofday gives; without it, it is the real one.
void set_clock(time_t seconds, suseconds_t microseconds);

// Runs instead of every nanosleep, which otherwise returns at once without sleeping. The calls
// are traced on demand like any others, as "nanosleep(0.500000000)".
void on_nanosleep(std::function<void()> action);

// Makes the next fork return this without forking.
void set_fork(pid_t result);

// Makes the next readlink find this link.
void set_link(const char *target);

// Makes the n-th READ or WRITE from now on transfer at most so many bytes.
void limit_transfer(Function function, int nth, ssize_t bytes);

} // namespace wraps
