// Common services of the OSD application, the chief header of `common`.
//
// Error reports and the log file, the generic list, whole lines, reads and writes, numbers as the
// 32-bit target reads and cuts them, the calendar clock, the time zone block, the executable's
// directory. Everything above builds on this header, and this header on libc alone.
//
// Results, here and in every other header unless a comment says otherwise: 0 for success, a
// negative errno value for failure, NULL from a function that returns a pointer. All functions
// belong to the main thread.
#pragma once

#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

#ifdef NDEBUG
#error "The assertions are part of the delivered system: build without NDEBUG."
#endif

static_assert(std::endian::native == std::endian::little,
              "request words and packed pixels are little-endian");
static_assert(EACCES == 13 && EFAULT == 14 && EBUSY == 16 && EINVAL == 22 && ENOMEM == 12 &&
                  EREMOTEIO == 121,
              "results are negative errno values with these numbers");

// ---- Numbers of the 32-bit target ---------------------------------------------------------------

// `value` as a field of type T keeps it: the low bits of it, in two's complement. The one way in
// which a number is cut in this application.
template <typename T, typename N>
constexpr T cmn_cut(N value)
{
    return static_cast<T>(value);
}

// strtoul(text, end, 10) and strtol(text, NULL, 10) with a `long` of 32 bits, on every machine:
// too large a number saturates (4294967295; -2147483648 or 2147483647), and a minus sign in front
// of an unsigned number wraps it. See strtoul(3) for what else is read; `end` may be NULL.
std::uint32_t cmn_strtoul(const char *text, const char **end);
std::int32_t cmn_strtol(const char *text);

// errno as the 32-bit code that the reports print and the codec library's errors are compared as.
inline std::uint32_t cmn_errno()
{
    return cmn_cut<std::uint32_t>(errno);
}

// ---- Error reports and the log file -------------------------------------------------------------

// The role of this process, shown in every report: "" until the function word of the command line
// is known, then that word, "server" in the forked server. Only string literals are stored here.
extern const char *cmn_role;

enum cmn_print_mode : std::int32_t {
    CMN_PRINT_OUT = 0,   // to stdout
    CMN_PRINT_ERR = 1,   // to stderr
    CMN_PRINT_ERRNO = 2, // to stderr, with the error text of errno in parentheses behind it
};

// Bytes of one message, its terminator included; a longer one is cut.
constexpr std::size_t CMN_MESSAGE_SIZE = 2049;

// Prints one message and flushes every output stream before and after it, so that a log which
// holds both standard streams keeps their order. Any mode but 1 and 2 prints to stdout. The error
// text of mode 2 is that of errno on entry. Returns the result of the last flush.
[[gnu::format(printf, 2, 0)]] int cmn_print_v(std::int32_t mode, const char *format,
                                              va_list arguments);
[[gnu::format(printf, 1, 2)]] int cmn_print_errno(const char *format, ...);
[[gnu::format(printf, 1, 2)]] int cmn_print_err(const char *format, ...);
[[gnu::format(printf, 1, 2)]] int cmn_print_out(const char *format, ...);

// The error report: one line "ERR:#qm5osd:[role]=message(reporter)" on stderr, printed in three
// pieces. `reporter` is the name of the reporting function, as a string literal; the format and
// its arguments follow, and are evaluated after the first piece is out. The second form adds the
// error text of errno, for a system call that failed.
#define CMN_REPORT(reporter, ...) CMN_REPORT_BY(cmn_print_err, reporter, __VA_ARGS__)
#define CMN_REPORT_ERRNO(reporter, ...) CMN_REPORT_BY(cmn_print_errno, reporter, __VA_ARGS__)
#define CMN_REPORT_BY(print, reporter, ...)                                                        \
    do {                                                                                           \
        cmn_print_err("ERR:#qm5osd:[%s]=", cmn_role);                                              \
        print(__VA_ARGS__);                                                                        \
        cmn_print_err("(%s)\n", reporter);                                                         \
    } while (false)

// Sends stdout and stderr of this process, and of what it forks later, to the file `path`, which
// is created or truncated. -EACCES after a report if it can't be opened; the streams then stay.
int cmn_start_log(const char *path);

// "HH:MM:SS.mmm |" of the local time, and the line of ctime(3), on stdout.
void cmn_print_timestamp();
void cmn_print_current_ctime();

// ---- List ---------------------------------------------------------------------------------------

// Singly linked list of untyped data pointers. The elements belong to the caller until
// cmn_list_destroy hands each to its function.
struct cmn_list_node {
    cmn_list_node *next; // NULL at the end
    void *data;
};

struct cmn_list {
    cmn_list_node *head; // NULL in an empty list
};

typedef std::int32_t cmn_list_walk(void *data, void *argument);
typedef std::int32_t cmn_list_compare(const void *data, const void *key);
typedef void cmn_list_release(void *data);

// A new empty list; NULL without memory.
cmn_list *cmn_list_create();

// Appends `data` at the end, found by walking. -EINVAL for no list, -ENOMEM without memory.
int cmn_list_append(cmn_list *list, void *data);

// Calls function(data, argument) from the head on until a call returns non-zero. 0 if none did,
// -EFAULT if one did (whatever it returned), -EINVAL without a list or a function.
int cmn_list_foreach(const cmn_list *list, cmn_list_walk *function, void *argument);

// The first element for which function(data, key) returns 0, as strcmp would; NULL if there is
// none, or without a list, a function or a key.
void *cmn_list_find(const cmn_list *list, cmn_list_compare *function, const void *key);

// Hands every element that isn't NULL to `function`, frees the nodes and the list. Without a list
// or a function nothing is freed.
void cmn_list_destroy(cmn_list *list, cmn_list_release *function);

// ---- Lines and descriptors ----------------------------------------------------------------------

// Removes one line feed from the end of `string`; NULL is left alone. The byte before the
// terminator is looked at in an empty string too, so that byte must belong to the caller.
void cmn_chomp(char *string);

// write(2) until all `count` bytes are gone: `count`, or -1 on a failure other than EINTR, or if
// the system takes no byte.
std::int32_t cmn_writen(int fd, const void *buffer, std::uint32_t count);

// read(2) until all `count` bytes are in: `count`, fewer at end of file, or -1 on a failure other
// than EINTR, also when bytes have been read before it.
std::int32_t cmn_readn(int fd, void *buffer, std::uint32_t count);

// Waits up to `seconds` until `fd` is readable. 0, or -EFAULT after a report.
int cmn_select(int fd, std::uint32_t seconds);

// ---- Date and time ------------------------------------------------------------------------------

// A date and time of the local zone as ASCII digits, with no terminator anywhere.
struct cmn_st_cdatetime {
    char year[4];
    char month[2];  // 01 to 12
    char day[2];    // 01 to 31
    char hour[2];   // 00 to 23
    char minute[2]; // 00 to 59
    char second[2]; // 00 to 60
    char msec[2];   // hundredths of a second
};
static_assert(sizeof(cmn_st_cdatetime) == 16);

// Reads the clock. -EFAULT after a report if that fails; the record then holds sixteen zeros.
int cmn_get_st_cdatetime(cmn_st_cdatetime *record);

// The same, field by field without terminators, each with the width of its field in the record;
// a NULL argument is skipped. After a failure they are as they were.
int cmn_get_cdatetime_fields(char *year, char *month, char *day, char *hour, char *minute,
                             char *second, char *msec);

// Frames per second of a frame rate index of the codec; -EFAULT after a report for any other.
int cmn_get_framerate_from_index(std::uint32_t index);

// ---- Time zone ----------------------------------------------------------------------------------

// The System V shared memory by which another program of the appliance hands over the time zone.
constexpr int CMN_TZ_KEY = 5678;
constexpr int CMN_TZ_MODE = 0666;

struct cmn_tz_block {
    std::uint8_t unread[35];
    volatile std::uint8_t change; // any new value means a new zone
    char zone[64];                // value for TZ, with its terminator
};
static_assert(offsetof(cmn_tz_block, change) == 35 && offsetof(cmn_tz_block, zone) == 36 &&
              sizeof(cmn_tz_block) == 100);

// Attaches the block to the process for good. Without one it says so on stdout, and the zone of
// the environment stays in force.
void cmn_tz_attach();

// Sets TZ from the block if its change byte is new; localtime(3) honours that at its next call.
void cmn_tz_update();

// ---- Paths --------------------------------------------------------------------------------------

// Bytes of a path with its terminator; longer ones are cut.
constexpr std::size_t CMN_PATH_SIZE = 4097;

// Directory of the running executable, valid until the next call. NULL after a report.
const char *cmn_get_exe_dir();
