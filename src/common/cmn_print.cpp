// The one form of error report, and the redirection of both standard streams to a log file.
#include "common/cmn.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

const char *cmn_role = "";

int cmn_print_v(std::int32_t mode, const char *format, va_list arguments)
{
    const int error = errno; // before anything here can change it
    char message[CMN_MESSAGE_SIZE];

    memset(message, 0, sizeof message);
    vsnprintf(message, sizeof message, format, arguments);
    fflush(nullptr);
    if (mode == CMN_PRINT_ERRNO) {
        const std::size_t length = strlen(message);
        snprintf(message + length, sizeof message - length, "(%s)", strerror(error));
    }
    fputs(message, mode == CMN_PRINT_ERRNO || mode == CMN_PRINT_ERR ? stderr : stdout);
    return fflush(nullptr);
}

int cmn_print_errno(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = cmn_print_v(CMN_PRINT_ERRNO, format, arguments);
    va_end(arguments);
    return result;
}

int cmn_print_err(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = cmn_print_v(CMN_PRINT_ERR, format, arguments);
    va_end(arguments);
    return result;
}

int cmn_print_out(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = cmn_print_v(CMN_PRINT_OUT, format, arguments);
    va_end(arguments);
    return result;
}

int cmn_start_log(const char *path)
{
    FILE *log = fopen(path, "w");
    if (!log) {
        CMN_REPORT_ERRNO("cmn_start_log", "unable to open logfile %s", path);
        return -EACCES;
    }
    const int fd = fileno(log);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    fclose(log);
    return 0;
}

void cmn_print_timestamp()
{
    timeval now = {};
    if (gettimeofday(&now, nullptr) != 0) {
        CMN_REPORT_ERRNO("cmn_print_timestamp", "gettimeofday failed");
        return;
    }
    const tm *local = localtime(&now.tv_sec);
    if (!local) {
        CMN_REPORT_ERRNO("cmn_print_timestamp", "localtime failed");
        return;
    }
    printf("%02d:%02d:%02d.%03d |", local->tm_hour, local->tm_min, local->tm_sec,
           cmn_cut<int>(now.tv_usec / 1000));
}

void cmn_print_current_ctime()
{
    timeval now = {};
    if (gettimeofday(&now, nullptr) != 0) {
        CMN_REPORT_ERRNO("cmn_print_current_ctime", "gettimeofday failed");
        return;
    }
    const char *text = ctime(&now.tv_sec);
    if (!text) {
        CMN_REPORT_ERRNO("cmn_print_current_ctime", "ctime failed");
        return;
    }
    printf("%s", text);
}
