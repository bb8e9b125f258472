// The command line: parsed into one plain record, which main hands to the function it names.
#pragma once

#include "param/param.h"

enum osd_command : std::int32_t {
    OSD_CMD_START = 0,
    OSD_CMD_RESTART = 1,
    OSD_CMD_UPDATE = 2,
    OSD_CMD_STOP = 3,
    OSD_CMD_STATUS = 4,
    OSD_CMD_SAVE = 5,
    OSD_CMD_GETTHDINFO = 6,
    OSD_CMD_HELP = 7,
    OSD_CMD_USAGE = 8,
    OSD_CMD_VERSION = 9,
};

struct osd_options {
    std::int32_t command;   // osd_command
    std::uint32_t post;     // start, restart, update: bit X for post X; getthdinfo: 0 to 3, or
                            // all bits set for every post
    std::uint32_t all;      // getthdinfo: 1 with -a
    const char *funcName;   // getthdinfo: the function word, to be printed; borrowed from argv
    const char *paramFile;  // of -f, or NULL; borrowed from argv
    const char *logFile;    // of -l, or NULL; borrowed from argv
    param_section *section; // start, restart, update: the long options in their order, repeats
                            // included; NULL otherwise; see osd_run for its end
};

// Fills `options`, which must be zeroed, from the command line of main. -EINVAL after a report,
// and then no section is left. Sets cmn_role to the function word as soon as that is recognised.
int osd_get_option(int argc, char **argv, osd_options *options);

// The parsers behind it, for the words behind argv[1]. They use getopt(3) on a command line that
// begins with the function word, so its own diagnostics name that word, and only one of them can
// run in a process, once, unless optind is reset.

// start, restart, update. All options are collected before any value is judged. -EFAULT or -EINVAL
// after reports.
int osd_get_start_option(int argc, char **argv, osd_options *options);

// save, for which -f is mandatory; and getthdinfo. -EINVAL after a report.
int osd_get_save_option(int argc, char **argv, osd_options *options);
int osd_get_getthdinfo_option(int argc, char **argv, osd_options *options);
