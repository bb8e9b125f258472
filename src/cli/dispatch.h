// From the command line to the function that it names, and from that function's result to the
// exit status.
#pragma once

#include "cli/options.h"

// Does all that main does, except to end the process: fills the zeroed `options` and returns the
// exit status, 0 or 1. In the server that `start` or `restart` forks it returns as well, always 1.
// With a status of 1 the options' section is left to the end of the process.
int osd_run(int argc, char **argv, osd_options *options);
