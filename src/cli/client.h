// The functions that act on a running server from the command line.
//
// The temporary parameter file always holds the parameters in force, so reading them needs no
// request. Changing them means to rewrite that file, keep the one before as the backup, and tell
// the server to read it again. Nothing keeps several runs of the tool apart.
#pragma once

#include "cli/options.h"

// Prints on stdout whether a server runs: 1 if so, otherwise 0.
int osd_status();

// 0 also if no server runs, which it says on stdout; -EFAULT after a report.
int osd_stop();

// Brings the -f file and the long options to the server. -EINVAL without a record, -EREMOTEIO if
// no server runs, -EFAULT for any other failure, all after reports. If the server refuses or gives
// no proper reply, the file is restored and the server told to read it again; if it has gone, or a
// FIFO can't be made or opened, the new file stays.
int osd_update(const osd_options *options);

// Copies the parameters in force to `paramFile`, without the background colours of rectangles.
// -EINVAL without a record or file name, -EREMOTEIO if no server runs, -EACCES if a file can't be
// opened, all after reports. Whether the writing succeeded is not looked at.
int osd_save(const osd_options *options);

// Prints the texts' parameters of one post thread or all on stdout, with `all` those of the
// rectangles too. -EREMOTEIO and -EACCES as osd_save.
int osd_getthdinfo(const osd_options *options);
