#include "server/notify.h"

#include "display/post.h"

// Two plain stores at the most, the state first: the main loop may see an open with the resource
// ID of before, and then does nothing if that is 0.
void osd_post_notify(qm5_cl_post_notify_info info)
{
    osd_post *post = &osd_state.post[info.post];

    if (info.opened == 0) {
        post->callback_state = OSD_CALLBACK_CLOSE;
        return;
    }
    post->callback_state = OSD_CALLBACK_OPEN;
    post->res_id = info.res_id;
}
