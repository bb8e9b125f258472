// What the main loop owes a post: the open, close or reopen that a notification or an update has
// left in `callback_state`, and the closing of all posts at the stop.
//
// The life of a post: no thread (res_id 0, not opened); notified of one (callback_state 1); opened
// at the loop's next visit, and brought up to date at each visit from then on; closed and opened
// anew when an update involves a rectangle (3); forgotten when its thread has gone (2), and then
// without a library call, for the OSDs went with the thread.
#pragma once

#include "display/post.h"

// Carries out what callback_state says. -EFAULT after reports if an open or reopen fails; it isn't
// tried again.
int osd_do_callback(osd_post *post);

// Closes the post's OSDs and opens them anew. An OSD that can't be cleared or closed is reported
// and given up. -EFAULT after reports if the open fails.
int osd_do_callback_reopen(osd_post *post);

// Takes down the font engines and OSDs of all posts; failures are reported.
void osd_close_opened_post();
