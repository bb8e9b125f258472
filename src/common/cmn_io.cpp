// Whole reads and writes on descriptors, lines, and the executable's directory.
#include "common/cmn.h"

#include <cstring>
#include <libgen.h>
#include <sys/select.h>
#include <unistd.h>

void cmn_chomp(char *string)
{
    if (!string)
        return;
    char *last = string + strlen(string) - 1;
    if (*last == '\n')
        *last = '\0';
}

std::int32_t cmn_writen(int fd, const void *buffer, std::uint32_t count)
{
    const char *rest = static_cast<const char *>(buffer);
    std::uint32_t left = count;

    while (left > 0) {
        const ssize_t written = write(fd, rest, left);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return -1;
        rest += written;
        left -= cmn_cut<std::uint32_t>(written);
    }
    return cmn_cut<std::int32_t>(count);
}

std::int32_t cmn_readn(int fd, void *buffer, std::uint32_t count)
{
    char *rest = static_cast<char *>(buffer);
    std::uint32_t left = count;

    while (left > 0) {
        const ssize_t got = read(fd, rest, left);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break; // end of file
        rest += got;
        left -= cmn_cut<std::uint32_t>(got);
    }
    return cmn_cut<std::int32_t>(count - left);
}

int cmn_select(int fd, std::uint32_t seconds)
{
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    timeval timeout = {};
    timeout.tv_sec = cmn_cut<std::int32_t>(seconds);

    const int ready = select(fd + 1, &readable, nullptr, nullptr, &timeout);
    if (ready < 0) {
        CMN_REPORT_ERRNO("cmn_select", "failed select()");
        return -EFAULT;
    }
    if (ready == 0) {
        CMN_REPORT("cmn_select", "failed by timeout");
        return -EFAULT;
    }
    return 0;
}

const char *cmn_get_exe_dir()
{
    static char path[CMN_PATH_SIZE];

    memset(path, 0, sizeof path);
    if (readlink("/proc/self/exe", path, sizeof path - 1) == -1) {
        CMN_REPORT_ERRNO("cmn_get_exe_dir", "failed to get exe path");
        return nullptr;
    }
    return dirname(path);
}
