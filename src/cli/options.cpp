// The command line parsers.
#include "cli/options.h"

#include "cli/catalogue.h"

#include <cstring>
#include <unistd.h>

// ---- start, restart, update ---------------------------------------------------------------------

constexpr std::uint32_t OSD_ALL_POSTS = 15;

static int osd_add_long_option(osd_options *options, std::size_t row, const char *value)
{
    options->post |= 1u << osd_option_table[row].val;
    param_parampair *pair = param_parampair_new(osd_option_table[row].name, value);
    if (!pair) {
        CMN_REPORT("osd_get_start_option", "cannot create parameter pair");
        return -EFAULT;
    }
    if (cmn_list_append(options->section->pairs, pair) != 0) {
        CMN_REPORT("osd_get_start_option", "cannot append to section");
        param_parampair_free(pair);
        return -EFAULT;
    }
    return 0;
}

static int osd_collect_start_options(int argc, char **argv, osd_options *options)
{
    int found;
    int row = 0;
    while ((found = getopt_long(argc - 1, argv + 1, "f:l:", osd_option_table.data(), &row)) != -1) {
        switch (found) {
        case 'f':
            options->post = OSD_ALL_POSTS;
            options->paramFile = optarg;
            break;
        case 'l':
            options->logFile = optarg;
            break;
        case 0:
        case 1:
        case 2:
        case 3:
            if (osd_add_long_option(options, cmn_cut<std::uint32_t>(row), optarg) != 0)
                return -EFAULT;
            break;
        default: // unknown, no argument, or a key that belongs to no post
            CMN_REPORT("osd_get_start_option", "invalid parameter");
            return -EINVAL;
        }
    }
    if (osd_check_section(options->section) != 0) {
        CMN_REPORT("osd_get_start_option", "invalid parameter in osd section");
        return -EFAULT;
    }
    return 0;
}

int osd_get_start_option(int argc, char **argv, osd_options *options)
{
    options->post = 0;
    options->section = param_section_new(OSD_SECTION_NAME);
    if (!options->section) {
        CMN_REPORT("osd_get_start_option", "cannot create section");
        return -EFAULT;
    }
    const int result = osd_collect_start_options(argc, argv, options);
    if (result != 0) {
        param_section_free(options->section);
        options->section = nullptr;
    }
    return result;
}

// ---- save, getthdinfo ---------------------------------------------------------------------------

int osd_get_save_option(int argc, char **argv, osd_options *options)
{
    int found;
    while ((found = getopt(argc - 1, argv + 1, "f:")) != -1) {
        if (found != 'f') {
            CMN_REPORT("osd_get_save_option", "invalid parameter");
            return -EINVAL;
        }
        options->paramFile = optarg;
    }
    if (!options->paramFile) {
        CMN_REPORT("osd_get_save_option", "invalid parameter");
        return -EINVAL;
    }
    return 0;
}

static int osd_take_thread_number(osd_options *options, const char *text)
{
    constexpr std::uint32_t last_thread = 3;
    const char *end = nullptr;
    options->post = cmn_strtoul(text, &end);
    return *end == '\0' && options->post <= last_thread ? 0 : -EINVAL;
}

int osd_get_getthdinfo_option(int argc, char **argv, osd_options *options)
{
    options->command = OSD_CMD_GETTHDINFO;
    options->post = ~0u;
    options->all = 0;
    options->funcName = argv[1];
    if (argc == 2)
        return 0;

    int found;
    while ((found = getopt(argc - 1, argv + 1, "t:a")) != -1) {
        if (found == 'a') {
            options->all = 1;
        } else if (found != 't' || osd_take_thread_number(options, optarg) != 0) {
            CMN_REPORT("osd_get_getthdinfo_option", "invalid parameter");
            return -EINVAL;
        }
    }
    return 0;
}

// ---- The function word --------------------------------------------------------------------------

static int osd_get_no_option(int, char **, osd_options *)
{
    return 0;
}

struct osd_word_row {
    const char *word;
    const char *role;
    std::int32_t command;
    int (*parse)(int argc, char **argv, osd_options *options);
};

static constexpr osd_word_row osd_words[] = {
    {"--help", nullptr, OSD_CMD_USAGE, osd_get_no_option},
    {"--version", nullptr, OSD_CMD_VERSION, osd_get_no_option},
    {"start", "start", OSD_CMD_START, osd_get_start_option},
    {"restart", "restart", OSD_CMD_RESTART, osd_get_start_option},
    {"update", "update", OSD_CMD_UPDATE, osd_get_start_option},
    {"stop", "stop", OSD_CMD_STOP, osd_get_no_option},
    {"status", "status", OSD_CMD_STATUS, osd_get_no_option},
    {"save", "save", OSD_CMD_SAVE, osd_get_save_option},
    {"getthdinfo", "getthdinfo", OSD_CMD_GETTHDINFO, osd_get_getthdinfo_option},
    {"help", "help", OSD_CMD_HELP, osd_get_no_option},
};

int osd_get_option(int argc, char **argv, osd_options *options)
{
    if (!options || !argv) {
        CMN_REPORT("osd_get_option", "invalid parameter");
        return -EINVAL;
    }
    if (argc < 2) {
        options->command = OSD_CMD_USAGE;
        return 0;
    }
    for (const osd_word_row &row : osd_words) {
        if (strcmp(argv[1], row.word) != 0)
            continue;
        if (row.role)
            cmn_role = row.role;
        options->command = row.command;
        return row.parse(argc, argv, options) == 0 ? 0 : -EINVAL;
    }
    CMN_REPORT("osd_get_option", "unknown command");
    return -EINVAL;
}
