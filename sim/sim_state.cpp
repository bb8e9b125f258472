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

bool sim_parse_size(const char *text, std::uint32_t *width, std::uint32_t *height)
{
    unsigned w = 0;
    unsigned h = 0;
    int end = 0;

    if (strncmp(text, "closed", 6) == 0) {
        end = 6;
    } else if (sscanf(text, "%5ux%5u%n", &w, &h, &end) != 2 || w == 0 || h == 0 || w > 65535 ||
               h > 65535) {
        return false;
    }
    if (strcmp(text + end, "") != 0 && strcmp(text + end, "\n") != 0)
        return false;
    *width = w;
    *height = h;
    return true;
}
