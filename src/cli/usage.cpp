// The usage texts, one row a function.
#include "cli/usage.h"

#include "common/cmn.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <libgen.h> // whose basename is __xpg_basename

#define OSD_OPTION_BLOCK                                                                           \
    "    [OPTION]\n"                                                                               \
    "      -f PARAMFILE                      parameter file\n"                                     \
    "      -l LOGFILE                        log file\n"                                           \
    "      --PostXDateOn={1|0}               show/hide date for post thread X\n"                   \
    "      --PostXTimeOn={1|0}               show/hide time for post thread X\n"                   \
    "      --PostXTypeOn={1|0}               show/hide type for post thread X\n"                   \
    "      --PostXStringOn={1|0}             show/hide user-specified string for post\n"           \
    "                                        thread X\n"                                           \
    "      --PostXString=STRING              user-specified string to show for post\n"             \
    "                                        thread X\n"                                           \
    "      --PostXStringColor=COLOR          use COLORth color in palette to show\n"               \
    "                                        user-specified string\n"                              \
    "      --PostXRectangleYOn={1|0}         show/hide rectangle Y for post thread X\n"            \
    "      --PostXOsdYColorFg=COLOR          use COLORth color in palette to show\n"               \
    "                                        rectangle Y\n"                                        \
    "      --PostXOsdYX=POSITIONX            use POSITIONX to show rectangle Y for\n"              \
    "                                        post thread X\n"                                      \
    "      --PostXOsdYY=POSITIONY            use POSITIONY to show rectangle Y for\n"              \
    "                                        post thread X\n"                                      \
    "      --PostXOsdYW=WIDTH                use WIDTH to show rectangle Y for post\n"             \
    "                                        thread X\n"                                           \
    "      --PostXOsdYH=HEIGHT               use HEIGHT to show rectangle Y for post\n"            \
    "                                        thread X\n"                                           \
    "    X={0|1|2|3}                         post thread number\n"                                 \
    "    Y={0|1|2|3}                         OSD number\n"

struct osd_usage_row {
    const char *function; // NULL for the general usage
    const char *synopsis; // behind "Usage: " and the program's name
    const char *text;
};

static constexpr osd_usage_row osd_usages[] = {
    {nullptr, "--help | --version | FUNCTION",
     "    --help              show this help and exit\n"
     "    --version           show version\n"
     "    FUNCTION\n"
     "      start             start OSD server\n"
     "      stop              stop OSD server\n"
     "      status            show OSD server status\n"
     "      restart           restart OSD server\n"
     "      update            update OSD parameters\n"
     "      save              save OSD parameters to file\n"
     "      getthdinfo        get thread information\n"
     "      help              show help information\n"},
    {"start", "start [OPTION]", "    start osd server\n" OSD_OPTION_BLOCK},
    {"restart", "restart [OPTION]", "    restart osd server\n" OSD_OPTION_BLOCK},
    {"update", "update [OPTION]", "    update parameter to osd server\n" OSD_OPTION_BLOCK},
    {"stop", "stop", "    stop osd server\n"},
    {"status", "status", "    show osd server status\n"},
    {"save", "save -f PARAMFILE",
     "    save OSD parameters to file\n"
     "      -f PARAMFILE      file to save parameters\n"},
    {"getthdinfo", "getthdinfo [OPTION]",
     "    get thread information\n"
     "    [OPTION]\n"
     "      -t {0|1|2|3}      thread number\n"
     "      -a                print all information\n"},
    {"help", "help [FUNCTION]",
     "    show usage information for FUNCTION\n"
     "    [FUNCTION]\n"
     "      start             show start usage\n"
     "      stop              show stop usage\n"
     "      status            show status usage\n"
     "      restart           show restart usage\n"
     "      update            show update usage\n"
     "      save              show save usage\n"
     "      getthdinfo        show getthdinfo usage\n"
     "      help              show help usage\n"},
};

// Shown for an unknown function, too.
static constexpr const osd_usage_row *osd_help_usage = &osd_usages[std::size(osd_usages) - 1];
static_assert(osd_help_usage->function[0] == 'h');

static const osd_usage_row *osd_find_usage(const char *function)
{
    for (const osd_usage_row &row : osd_usages) {
        if (function && row.function ? strcmp(row.function, function) == 0
                                     : function == row.function)
            return &row;
    }
    return nullptr;
}

static void osd_print_usage_row(char *path, const osd_usage_row *row)
{
    printf("ZRT5074KV OSD Application\n");
    printf("Usage: %s %s\n", basename(path), row->synopsis);
    printf("%s", row->text);
}

int osd_print_usage(char *path, const char *function)
{
    if (!path) {
        CMN_REPORT("osd_print_usage", "invalid parameter");
        return -EINVAL;
    }
    const osd_usage_row *row = osd_find_usage(function);
    if (!row)
        CMN_REPORT("osd_print_usage", "invalid parameter");
    osd_print_usage_row(path, row ? row : osd_help_usage);
    return row ? 0 : -EINVAL;
}

void osd_print_version(char *path)
{
    printf("%s version %s\n", basename(path), "1.0.5");
    puts("Copyright (C) 2026 The qm5osd authors");
    puts("This program comes with ABSOLUTELY NO WARRANTY.");
}
