#include "cli/dispatch.h"

#include "cli/client.h"
#include "cli/usage.h"
#include "server/start.h"

// The status for a result of a function that leaves the last report to its caller.
static int osd_end_function(int result, const char *message)
{
    if (result == 0)
        return 0;
    CMN_REPORT("main", "%s", message);
    return 1;
}

// Does the function of the command line: 0, or 1 for a failure. The server that a start forks
// comes back here too, with 1; and `status` fails for a server that runs.
static int osd_dispatch(const osd_options *options, char **argv)
{
    switch (options->command) {
    case OSD_CMD_START:
        return osd_start(options) != 0;
    case OSD_CMD_STOP:
        return osd_end_function(osd_stop(), "stop osd failed");
    case OSD_CMD_STATUS:
        return osd_status() != 0;
    case OSD_CMD_RESTART:
        return osd_restart(options) != 0;
    case OSD_CMD_UPDATE:
        return osd_end_function(osd_update(options), "update osd failed");
    case OSD_CMD_SAVE:
        return osd_end_function(osd_save(options), "save osd param failed");
    case OSD_CMD_GETTHDINFO:
        return osd_end_function(osd_getthdinfo(options), "get thread info failed");
    case OSD_CMD_HELP:
        return osd_print_usage(argv[0], argv[2]) != 0;
    case OSD_CMD_USAGE:
        osd_print_usage(argv[0], nullptr);
        return 0;
    case OSD_CMD_VERSION:
        osd_print_version(argv[0]);
        return 0;
    default:
        return osd_end_function(-EINVAL, "invalid osd command");
    }
}

int osd_run(int argc, char **argv, osd_options *options)
{
    cmn_tz_attach();
    if (osd_get_option(argc, argv, options) != 0) {
        osd_print_usage(argv[0], options->command == -1 ? nullptr : argv[1]);
        return 1;
    }
    if (options->logFile && cmn_start_log(options->logFile) != 0) {
        CMN_REPORT("main", "failed to redirect log to %s", options->logFile);
        return 1;
    }
    if (osd_dispatch(options, argv) != 0)
        return 1;
    if (options->section)
        param_section_free(options->section);
    options->section = nullptr;
    return 0;
}
