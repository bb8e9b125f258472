#include "server/callback.h"

#include "display/layout.h"
#include "display/qm5codec.h"
#include "display/refresh.h"

static void osd_forget_post(osd_post *post)
{
    const bool has_engine = post->font_engine.library != nullptr;

    for (osd_area &area : post->osd)
        area = {};
    post->opened = 0;
    post->video_width = 0;
    post->video_height = 0;
    post->res_id = 0;
    if (has_engine)
        font_clear_engine(&post->font_engine);
}

static void osd_close_slots(osd_post *post, const char *reporter)
{
    const int number = osd_post_number(post);

    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        osd_area *area = &post->osd[slot];
        if (area->handle == 0)
            continue;
        if (osd_clear(post->res_id, area->handle) != 0)
            CMN_REPORT(reporter, "post %d osd %d clear error", number, slot);
        if (qm5_cl_post_close_osd(post->res_id, area->handle) != 0) {
            CMN_REPORT(reporter, "qm5_cl_post_close_osd() failed. errno=0x%08X", cmn_errno());
            CMN_REPORT(reporter, "Post%dOsd%d", number, slot);
        }
        *area = {};
    }
}

int osd_do_callback_reopen(osd_post *post)
{
    osd_close_slots(post, "osd_do_callback_reopen");
    post->video_width = 0;
    post->video_height = 0;
    post->opened = 0;
    if (osd_do_callback_open(post) != 0) {
        CMN_REPORT("osd_do_callback_reopen", "open osd failed");
        return -EFAULT;
    }
    return 0;
}

int osd_do_callback(osd_post *post)
{
    switch (post->callback_state) {
    case OSD_CALLBACK_OPEN:
        if (osd_do_callback_open(post) != 0) {
            CMN_REPORT("osd_do_callback", "open osd failed");
            post->callback_state = OSD_CALLBACK_NONE;
            return -EFAULT;
        }
        return 0;
    case OSD_CALLBACK_CLOSE:
        osd_forget_post(post);
        return 0;
    case OSD_CALLBACK_REOPEN:
        if (osd_do_callback_reopen(post) != 0) {
            CMN_REPORT("osd_do_callback", "re-open osd failed");
            post->callback_state = OSD_CALLBACK_NONE;
            return -EFAULT;
        }
        return 0;
    default:
        return 0;
    }
}

void osd_close_opened_post()
{
    for (osd_post &post : osd_state.post) {
        if (post.font_engine.library)
            font_clear_engine(&post.font_engine);
        if (!post.opened)
            continue;
        osd_close_slots(&post, "osd_close_opened_post");
        post.res_id = 0;
        post.opened = 0;
    }
}
