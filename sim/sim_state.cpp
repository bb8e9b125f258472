// Paths and texts of the state folder, for the library and the tools alike.
#include "sim_state.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

void sim_get_folder(char *path)
{
    const char *named = getenv("QM5SIM_STATE");
    if (named && *named)
        snprintf(path, SIM_PATH_SIZE, "%s", named);
    else
        snprintf(path, SIM_PATH_SIZE, "/tmp/qm5sim-%u", static_cast<unsigned>(getuid()));
}

// Reads digits up to 65535 and passes over them; 0 for anything else.
static std::uint32_t sim_parse_length(const char **text)
{
    std::uint32_t length = 0;
    for (; **text >= '0' && **text <= '9'; ++*text) {
        length = length * 10 + static_cast<std::uint32_t>(**text - '0');
        if (length > 65535)
            return 0;
    }
    return length;
}

bool sim_parse_size(const char *text, std::uint32_t *width, std::uint32_t *height)
{
    std::uint32_t w = 0;
    std::uint32_t h = 0;

    if (strncmp(text, "closed", 6) == 0) {
        text += 6;
    } else {
        w = sim_parse_length(&text);
        if (w == 0 || *text++ != 'x')
            return false;
        h = sim_parse_length(&text);
        if (h == 0)
            return false;
    }
    if (strcmp(text, "") != 0 && strcmp(text, "\n") != 0)
        return false;
    *width = w;
    *height = h;
    return true;
}
