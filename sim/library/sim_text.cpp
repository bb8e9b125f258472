#include "sim_text.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

int sim_fail(std::uint32_t code)
{
    errno = static_cast<int>(code);
    return -1;
}

void sim_say(const char *what, const char *why)
{
    fprintf(stderr, "qm5sim: %s: %s\n", what, why);
}

int sim_fail_system(const char *what)
{
    sim_say(what, strerror(errno));
    return sim_fail(SIM_ERROR_SYSTEM);
}

bool sim_allocate(int fd, std::uint64_t at, std::uint64_t size)
{
    int error = EINTR;
    while (error == EINTR)
        error = posix_fallocate(fd, static_cast<off_t>(at), static_cast<off_t>(size));
    errno = error;
    return error == 0;
}

static const char *sim_read_open_text(int fd, char *text, std::size_t size, std::size_t *length)
{
    struct stat own;
    if (fstat(fd, &own) == 0 && !S_ISREG(own.st_mode) && !S_ISDIR(own.st_mode))
        return "no regular file";
    const ssize_t result = read(fd, text, size - 1);
    if (result == -1)
        return strerror(errno);
    if (static_cast<std::size_t>(result) == size - 1)
        return strerror(EFBIG); // there may be more
    *length = static_cast<std::size_t>(result);
    return nullptr;
}

const char *sim_read_text(const char *path, char *text, std::size_t size, std::size_t *length)
{
    *length = 0;
    text[0] = '\0';
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK); // a FIFO must not hold it up
    if (fd == -1)
        return errno == ENOENT ? nullptr : strerror(errno);
    const char *why = sim_read_open_text(fd, text, size, length);
    close(fd);
    text[*length] = '\0';
    return why;
}

bool sim_take_settings(const char *path, const char *text, sim_settings *settings)
{
    sim_settings taken = SIM_DEFAULT_SETTINGS;
    if (!sim_parse_lines(path, text,
                         [&taken](const char *line) { return sim_parse_setting(line, &taken); }))
        return false;
    *settings = taken;
    return true;
}

void sim_read_settings(const char *folder, sim_settings *settings)
{
    char path[SIM_PATH_SIZE];
    char text[SIM_TEXT];
    std::size_t length;
    snprintf(path, sizeof path, "%s/settings", folder);
    if (const char *why = sim_read_text(path, text, sizeof text, &length))
        sim_say(path, why);
    else
        sim_take_settings(path, text, settings);
}
