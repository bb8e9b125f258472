#include "sim_text.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

int sim_fail(std::uint32_t code)
{
    errno = static_cast<int>(code);
    return -1;
}

int sim_fail_system(const char *what)
{
    fprintf(stderr, "qm5sim: %s: %s\n", what, strerror(errno));
    return sim_fail(SIM_ERROR_SYSTEM);
}

long sim_read_text(const char *path, char *text, std::size_t size)
{
    text[0] = '\0';
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1 && errno == ENOENT)
        return 0;
    if (fd == -1)
        return sim_fail_system(path);
    const ssize_t length = read(fd, text, size - 1);
    if (length == -1)
        sim_fail_system(path);
    close(fd);
    text[length > 0 ? length : 0] = '\0';
    if (static_cast<std::size_t>(length) == size - 1) {
        errno = EFBIG; // there may be more
        return sim_fail_system(path);
    }
    return length;
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
    snprintf(path, sizeof path, "%s/settings", folder);
    if (sim_read_text(path, text, sizeof text) >= 0)
        sim_take_settings(path, text, settings);
}
