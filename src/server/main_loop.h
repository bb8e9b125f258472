// The server's main loop: its one thread of work from the set-up to the stop word.
//
// A pass reads the clock, visits the posts, replies to the update of the pass before, takes at
// most one update from the request FIFO, and sleeps: 1 second if a time is to be shown on any
// post, otherwise 2, in slices of 500 ms. Only an open of post 3 that is pending ends the sleep
// early, and only the stop word ends the loop. No failure does.
#pragma once

#include "common/cmn.h"

// Is a reply owed for the last request? The results of osd_do_request.
enum osd_request_status : int {
    OSD_REQUEST_OWED = 0,         // an update was served, the next pass decides its reply
    OSD_REQUEST_NONE = 2,         // nothing was served
    OSD_REQUEST_FAILED = -EFAULT, // an update failed, and its nack has gone out
    OSD_REQUEST_STOPPED = 1,      // the stop word has come, and the loop ends
};

// Makes the request FIFO, runs the loop, and takes everything down after the stop word. Returns
// after reports if the FIFO can't be made or opened; the codec library is then left as it is.
void osd_server_main_loop();

// ---- The steps of a pass ------------------------------------------------------------------------

// Fills osd_state.cdatetime. -EFAULT after reports; it then holds sixteen zeros.
int osd_get_current_datetime();

// Visits the posts: keeps the date text, serves callback_state, draws. Returns 4, or the number of
// the post whose failure, which it has reported, ended the visits. A pending open of post 3
// overtakes the posts before it, which are then not visited; that makes no difference to the
// result.
int osd_visit_posts();

// Takes requests from the FIFO's descriptor: none, one update, or a stop word; words of any other
// code are reported and passed over, with no reply.
osd_request_status osd_do_request(int request_fd);

// Sleeps until the next pass is due.
void osd_sleep();
