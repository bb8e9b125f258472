#include "server/main_loop.h"

#include "cli/catalogue.h"
#include "display/post.h"
#include "display/refresh.h"
#include "server/callback.h"
#include "server/channel.h"
#include "server/start.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

constexpr std::uint32_t OSD_REFRESH_INTERVAL_MS = 500;
constexpr int OSD_SLICES_WITH_TIME = 2;
constexpr int OSD_SLICES = 4;

// The post whose open doesn't wait: the storage.
constexpr int OSD_URGENT_POST = 3;

static bool osd_urgent_open_is_pending()
{
    return osd_state.post[OSD_URGENT_POST].callback_state == OSD_CALLBACK_OPEN;
}

// ---- Clock and posts ----------------------------------------------------------------------------

int osd_get_current_datetime()
{
    if (cmn_get_st_cdatetime(&osd_state.cdatetime) != 0) {
        CMN_REPORT("osd_get_current_datetime", "get current time failed");
        return -EFAULT;
    }
    return 0;
}

static void osd_keep_date(osd_post *post)
{
    const cmn_st_cdatetime &now = osd_state.cdatetime;
    const char text[] = {now.day[0],  now.day[1],  '/',         now.month[0], now.month[1], '/',
                         now.year[0], now.year[1], now.year[2], now.year[3],  '\0'};
    static_assert(sizeof text == sizeof osd_state.date_scratch);
    memcpy(osd_state.date_scratch, text, sizeof text);

    // The date stands between two blanks.
    if (memcmp(post->date_text + 1, osd_state.date_scratch, sizeof osd_state.date_scratch - 1) == 0)
        return;
    snprintf(post->date_text, sizeof post->date_text, " %s ", osd_state.date_scratch);
    post->date_changed = 1;
}

static int osd_visit_post(osd_post *post)
{
    cmn_tz_update(); // shows from the next pass on
    osd_keep_date(post);

    if (osd_do_callback(post) != 0) {
        CMN_REPORT("osd_server_main_loop", "do post %d callback failed", osd_post_number(post));
        return -EFAULT;
    }
    post->callback_state = OSD_CALLBACK_NONE;
    if (osd_refresh(post) != 0) {
        CMN_REPORT("osd_server_main_loop", "osd display failed");
        return -EFAULT;
    }
    return 0;
}

int osd_visit_posts()
{
    for (int i = 0; i < OSD_POSTS; i++) {
        if (osd_urgent_open_is_pending())
            i = OSD_URGENT_POST;
        if (osd_visit_post(&osd_state.post[i]) != 0)
            return i;
    }
    return OSD_POSTS;
}

// ---- Requests and replies -----------------------------------------------------------------------

static void osd_reply_ack()
{
    if (osd_send_ack(OSD_REPLY_ACK) != 0)
        CMN_REPORT("osd_server_main_loop", "failed to send ack");
}

static void osd_reply_nack()
{
    if (osd_send_ack(OSD_REPLY_NACK) != 0)
        CMN_REPORT("osd_server_main_loop", "failed to send nack");
}

// Applies the temporary parameter file to the table. -EFAULT after reports; nothing has changed.
static int osd_apply_parameter_file()
{
    param_section *section = osd_get_default_section();
    if (!section) {
        CMN_REPORT("osd_do_request", "failed to get default section");
        return -EFAULT;
    }
    const int result = osd_read_parameter_file(section, OSD_TMP_PARAM);
    if (result == 0)
        osd_set_post_params(section, osd_state.post);
    param_section_free(section);
    if (result != 0) {
        CMN_REPORT("osd_do_request", "failed to get new params");
        return -EFAULT;
    }
    return 0;
}

// A slot can hold a text or a rectangle, and the text wins.
static void osd_raise_texts(osd_post *post)
{
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        if (!post->text_on[slot])
            continue;
        if (post->rect[slot].mode == OSD_MODE_RECTANGLE)
            CMN_REPORT("osd_do_request", "osd rectangle %d won't show", slot);
        post->rect[slot].mode = OSD_MODE_TEXT;
    }
}

// Marks a post for the redraw, and for a reopen if it has or had a rectangle: a slot that goes to
// or from one changes its OSD's size and colour type.
static void osd_mark_post(osd_post *post, const std::uint32_t (&old_modes)[OSD_SLOTS])
{
    post->refresh_all = 1;
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        if (post->rect[slot].mode == OSD_MODE_RECTANGLE || old_modes[slot] == OSD_MODE_RECTANGLE) {
            post->callback_state = OSD_CALLBACK_REOPEN;
            return;
        }
    }
}

static osd_request_status osd_serve_update(std::uint32_t word)
{
    std::uint32_t old_modes[OSD_POSTS][OSD_SLOTS];
    for (int i = 0; i < OSD_POSTS; i++) {
        for (int slot = 0; slot < OSD_SLOTS; slot++)
            old_modes[i][slot] = osd_state.post[i].rect[slot].mode;
    }
    if (osd_apply_parameter_file() != 0)
        return OSD_REQUEST_FAILED;
    for (int i = 0; i < OSD_POSTS; i++) {
        osd_raise_texts(&osd_state.post[i]);
        if (osd_update_has_post(word, i))
            osd_mark_post(&osd_state.post[i], old_modes[i]);
    }
    return OSD_REQUEST_OWED;
}

osd_request_status osd_do_request(int request_fd)
{
    constexpr std::int32_t whole = sizeof(std::uint32_t);
    std::uint32_t word = 0;
    while (cmn_readn(request_fd, &word, whole) == whole) {
        switch (osd_request_code(word)) {
        case OSD_REQUEST_UPDATE:
            return osd_serve_update(word);
        case OSD_REQUEST_STOP:
            return OSD_REQUEST_STOPPED;
        default:
            CMN_REPORT("osd_do_request", "invalid request 0x%08X", word);
        }
    }
    return OSD_REQUEST_NONE; // nobody writes, nothing was written, or a short word, now lost
}

// ---- Sleep --------------------------------------------------------------------------------------

void osd_sleep()
{
    int slices = OSD_SLICES;
    for (const osd_post &post : osd_state.post) {
        if (post.rect[OSD_SLOT_TIME].mode == OSD_MODE_TEXT)
            slices = OSD_SLICES_WITH_TIME;
    }
    const std::uint32_t ms = osd_state.refresh_interval_ms;
    const timespec slice = {cmn_cut<std::int32_t>(ms / 1000),
                            cmn_cut<std::int32_t>(ms % 1000 * 1000000)};
    for (; slices > 0 && !osd_urgent_open_is_pending(); slices--)
        nanosleep(&slice, nullptr);
}

// ---- The loop -----------------------------------------------------------------------------------

// The request FIFO, open to be polled; -1 after reports.
static int osd_open_request_fifo()
{
    if (mkfifo(OSD_FIFO_REQ, OSD_FIFO_MODE) != 0 && errno != EEXIST) {
        CMN_REPORT_ERRNO("osd_server_main_loop", "unable to create fifo %s", OSD_FIFO_REQ);
        CMN_REPORT("osd_server_main_loop", "osd server down");
        return -1;
    }
    const int fd = open(OSD_FIFO_REQ, O_RDONLY | O_NONBLOCK);
    if (fd == -1) {
        CMN_REPORT_ERRNO("osd_server_main_loop", "unable to open fifo %s", OSD_FIFO_REQ);
        CMN_REPORT("osd_server_main_loop", "osd server down");
        unlink(OSD_FIFO_REQ);
    }
    return fd;
}

// Passes until the stop word comes.
static void osd_run_passes(int request_fd)
{
    osd_request_status request_status = OSD_REQUEST_NONE;
    for (;;) {
        if (osd_get_current_datetime() != 0)
            CMN_REPORT("osd_server_main_loop", "get current date/time failed");
        const int visited = osd_visit_posts();
        if (request_status == OSD_REQUEST_OWED && visited == OSD_POSTS)
            osd_reply_ack();
        else if (request_status == OSD_REQUEST_OWED)
            osd_reply_nack();

        request_status = osd_do_request(request_fd);
        if (request_status == OSD_REQUEST_STOPPED)
            return;
        if (request_status == OSD_REQUEST_FAILED) {
            CMN_REPORT("osd_server_main_loop", "do request failed");
            osd_reply_nack();
        }
        osd_sleep();
    }
}

static void osd_stop_server(int request_fd)
{
    osd_close_opened_post();
    close(request_fd);
    unlink(OSD_FIFO_REQ);
    unlink(OSD_TMP_PARAM);
    unlink(OSD_TMP_PARAM_BAK);
    osd_server_end_process();
    osd_reply_ack(); // only now, so that the client finds everything gone
}

void osd_server_main_loop()
{
    const int request_fd = osd_open_request_fifo();
    if (request_fd == -1)
        return;
    for (osd_post &post : osd_state.post)
        post.refresh_all = 0;
    osd_state.refresh_interval_ms = OSD_REFRESH_INTERVAL_MS;
    osd_run_passes(request_fd);
    osd_stop_server(request_fd);
}
