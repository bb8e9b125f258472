#include "server/start.h"

#include "cli/catalogue.h"
#include "cli/client.h"
#include "display/post.h"
#include "display/qm5codec.h"
#include "server/channel.h"
#include "server/main_loop.h"
#include "server/notify.h"

#include <cstdio>
#include <ctime>
#include <unistd.h>

constexpr const char *OSD_COMMON_PARAM = "../../conf/qm5_app_comm.conf";
constexpr int OSD_START_WAITS = 20;
constexpr timespec OSD_START_WAIT = {0, 100000000};
constexpr std::uint32_t OSD_NOTIFY_MASK = 15;

// ---- The codec library --------------------------------------------------------------------------

#define OSD_REPORT_LIBRARY(reporter, call)                                                         \
    CMN_REPORT(reporter, call "() failed. errno=0x%08X", cmn_errno())

int osd_server_init_process()
{
    if (qm5_cl_library_init() != 0) {
        OSD_REPORT_LIBRARY("osd_server_init_process", "qm5_cl_library_init");
        return -EFAULT;
    }
    if (qm5_cl_sys_open_device() != 0) {
        OSD_REPORT_LIBRARY("osd_server_init_process", "qm5_cl_sys_open_device");
        qm5_cl_library_exit();
        return -EFAULT;
    }
    if (qm5_cl_post_notify_callback(osd_post_notify) != 0) {
        OSD_REPORT_LIBRARY("osd_server_init_process", "qm5_cl_post_notify_callback");
        osd_server_end_process();
        return -EFAULT;
    }
    if (qm5_cl_post_set_notify(OSD_NOTIFY_MASK) != 0) {
        OSD_REPORT_LIBRARY("osd_server_init_process", "qm5_cl_post_set_notify");
        osd_server_end_process();
        return -EFAULT;
    }
    return 0;
}

void osd_server_end_process()
{
    if (qm5_cl_sys_close_device() != 0)
        OSD_REPORT_LIBRARY("osd_server_end_process", "qm5_cl_sys_close_device");
    if (qm5_cl_library_exit() != 0)
        OSD_REPORT_LIBRARY("osd_server_end_process", "qm5_cl_library_exit");
}

// ---- The child ----------------------------------------------------------------------------------

void osd_server_run()
{
    cmn_role = "server";
    if (osd_server_init_process() != 0) {
        CMN_REPORT("osd_server_run", "osd server down");
        return;
    }
    osd_server_main_loop();
}

// ---- The tool and the parent --------------------------------------------------------------------

int osd_read_cmnparam_file(param_section *section)
{
    char path[CMN_PATH_SIZE] = {};
    const char *directory = cmn_get_exe_dir();
    if (!directory) {
        CMN_REPORT("osd_read_cmnparam_file", "failed to get exe file dir");
        return -EFAULT;
    }
    snprintf(path, sizeof path, "%s%s%s", directory, "/", OSD_COMMON_PARAM);
    if (osd_read_parameter_file(section, path) != 0) {
        CMN_REPORT("osd_read_cmnparam_file", "failed to read common parameter file");
        return -EFAULT;
    }
    return 0;
}

static int osd_prepare_section(param_section *section)
{
    if (osd_read_cmnparam_file(section) != 0) {
        CMN_REPORT("osd_start", "failed to read common parameter file");
        return -EFAULT;
    }
    if (param_section_write_file(section, OSD_TMP_PARAM) != 0) {
        CMN_REPORT("osd_start", "failed to create temporary parameter file");
        return -EFAULT;
    }
    osd_set_post_params(section, osd_state.post); // for the child to inherit
    return 0;
}

static int osd_prepare_start()
{
    param_section *section = osd_get_default_section();
    if (!section) {
        CMN_REPORT("osd_start", "failed to get osd default section");
        return -EFAULT;
    }
    const int result = osd_prepare_section(section);
    param_section_free(section);
    return result;
}

static int osd_wait_for_server(const osd_options *options)
{
    int counter = OSD_START_WAITS;
    while (!osd_server_is_running()) {
        if (counter == 0) {
            CMN_REPORT("osd_start", "server could not start for %d[msec]", counter);
            return -EREMOTEIO;
        }
        nanosleep(&OSD_START_WAIT, nullptr);
        counter--;
    }
    return osd_update(options);
}

int osd_start(const osd_options *options)
{
    if (!options) {
        CMN_REPORT("osd_start", "invalid parameter");
        return -EINVAL;
    }
    if (osd_server_is_running()) {
        CMN_REPORT("osd_start", "server is already running");
        return -EBUSY;
    }
    if (osd_prepare_start() != 0)
        return -EFAULT;

    const pid_t child = fork();
    if (child == -1) {
        CMN_REPORT("osd_start", "fork() failed. errno=0x%08X", cmn_errno());
        return -EFAULT;
    }
    if (child == 0) {
        osd_server_run();
        return 1;
    }
    return osd_wait_for_server(options);
}

int osd_restart(const osd_options *options)
{
    if (!options) {
        CMN_REPORT("osd_restart", "invalid parameter");
        return -EINVAL;
    }
    if (osd_server_is_running() && osd_stop() != 0) {
        CMN_REPORT("osd_restart", "failed to stop server");
        return -EFAULT;
    }
    const int result = osd_start(options);
    if (result < 0) {
        CMN_REPORT("osd_restart", "failed to start server");
        return -EFAULT;
    }
    return result;
}
