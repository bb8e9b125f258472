// Start-up and shut-down. One process image plays both roles: osd_start runs in the tool, prepares
// the first parameters and forks. The child becomes the server; the parent waits for its FIFO,
// passes the command line on as an ordinary update, and ends.
//
// The fork is all that the server does to become a background process: session, directory, mask
// and standard streams stay those of the tool. No signal is handled; the stop word ends it.
#pragma once

#include "cli/options.h"

// In the tool: -EINVAL without a record, -EBUSY if a server runs, -EFAULT if the parameters can't
// be prepared or fork fails, all after reports. In the parent: the result of osd_update, or
// -EREMOTEIO after a report if the server isn't up within 2 seconds. In the child: always 1, when
// the server has ended for whatever reason; main then ends the process.
int osd_start(const osd_options *options);

// Stops a running server and starts one. The result of osd_start if that is 0 or above; -EINVAL
// without a record, otherwise -EFAULT, after reports.
int osd_restart(const osd_options *options);

// Overlays the common parameter file, ../../conf/qm5_app_comm.conf as seen from the executable's
// directory. -EFAULT after reports.
int osd_read_cmnparam_file(param_section *section);

// The child's whole life.
void osd_server_run();

// Brings the codec library up with osd_post_notify as its callback. -EFAULT after reports, and then
// what was done is undone. Notifications may come even before the result.
int osd_server_init_process();

// Closes the device and leaves the library; failures are reported.
void osd_server_end_process();
