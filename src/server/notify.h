// The notification of post threads that come and go, on a thread of the codec library.
//
// It stores what has happened in `callback_state` and `res_id` of the post, and the main loop
// carries it out at its next visit of the post. Nothing guards the two fields: a later event
// replaces one that hasn't been served, and the main loop's own stores may overwrite either.
#pragma once

#include "display/qm5codec.h"

// Runs on the library's thread. The post number is not held against the table: the library gives
// 0 to 3.
void osd_post_notify(qm5_cl_post_notify_info info);
