// Paths and texts of the state folder, for the library and the tools alike.
#include "sim_state.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

static void sim_get_own_folder(char *path)
{
    snprintf(path, SIM_PATH_SIZE, "/tmp/qm5sim-%u", static_cast<unsigned>(getuid()));
}

void sim_get_folder(char *path)
{
    const char *named = getenv("QM5SIM_STATE");
    if (named && *named)
        snprintf(path, SIM_PATH_SIZE, "%s", named);
    else
        sim_get_own_folder(path);
}

bool sim_is_own_folder(const char *path)
{
    char own[SIM_PATH_SIZE];
    sim_get_own_folder(own);
    return strcmp(path, own) == 0;
}

const char *sim_refuse_folder(const char *path)
{
    struct stat status;
    if (!sim_is_own_folder(path) || lstat(path, &status) != 0)
        return nullptr;
    if (!S_ISDIR(status.st_mode))
        return "no folder, or a link to one";
    return status.st_uid != getuid() ? "it belongs to another user" : nullptr;
}

const char *sim_make_folder(const char *path)
{
    if (mkdir(path, SIM_FOLDER_MODE) != 0 && errno != EEXIST)
        return strerror(errno);
    return sim_refuse_folder(path); // somebody may have made it just before
}

const char *const sim_default_sizes[SIM_POSTS] = {"720x576\n", "1920x1080\n", "640x360\n",
                                                  "1280x720\n"};

// Reads digits up to SIM_LONGEST and passes over them; 0 for anything else.
static std::uint32_t sim_parse_length(const char **text)
{
    std::uint32_t length = 0;
    for (; **text >= '0' && **text <= '9'; ++*text) {
        length = length * 10 + static_cast<std::uint32_t>(**text - '0');
        if (length > SIM_LONGEST)
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

// Reads a line of a name and 0 or 1.
static bool sim_parse_switch(const char *line, const char *name, std::uint32_t *place)
{
    const std::size_t length = strlen(name);
    if (strncmp(line, name, length) != 0 || line[length] != ' ')
        return false;
    line += length + 1;
    if ((line[0] != '0' && line[0] != '1') || line[1 + strspn(line + 1, " \t\r\n")] != '\0')
        return false;
    *place = line[0] == '1';
    return true;
}

const char *sim_parse_setting(const char *line, sim_settings *settings)
{
    std::uint32_t value[3] = {};
    int end = 0;
    if (sscanf(line, "alignment %5u %5u %5u %n", &value[0], &value[1], &value[2], &end) == 3 &&
        line[end] == '\0') {
        for (const std::uint32_t bytes : value) {
            if (bytes == 0 || bytes > 4096)
                return "an alignment is 1 to 4096 bytes";
        }
        memcpy(settings->alignment, value, sizeof value);
        return nullptr;
    }
    if (sscanf(line, "record-limit %7u %n", &value[0], &end) == 1 && line[end] == '\0') {
        if (value[0] == 0 || value[0] > 1000000)
            return "a record's limit is 1 to 1000000 MiB";
        settings->record_limit = value[0];
        return nullptr;
    }
    const struct {
        const char *name;
        std::uint32_t *place;
    } switches[] = {
        {"strict", &settings->strict},
        {"faults", &settings->faults},
        {"record", &settings->record},
    };
    for (const auto &row : switches) {
        if (sim_parse_switch(line, row.name, row.place))
            return nullptr;
    }
    return "no setting, or not its values";
}

// FNV-1a, with a zero between the texts.
std::uint32_t sim_hash(const char *settings, std::size_t settings_size, const char *faults,
                       std::size_t faults_size)
{
    std::uint32_t hash = 2166136261;
    for (std::size_t i = 0; i <= settings_size; i++)
        hash = (hash ^ (i < settings_size ? static_cast<std::uint8_t>(settings[i]) : 0)) * 16777619;
    for (std::size_t i = 0; i < faults_size; i++)
        hash = (hash ^ static_cast<std::uint8_t>(faults[i])) * 16777619;
    return hash;
}
