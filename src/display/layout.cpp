// Opening of OSDs, and the places of the texts.
#include "display/layout.h"

#include "display/qm5codec.h"

constexpr std::uint32_t OSD_LEAST_WIDTH = 136;
constexpr std::uint32_t OSD_LEAST_HEIGHT = 16;
constexpr std::uint32_t OSD_LINES = 19;
constexpr std::uint32_t OSD_LEAST_FONT_SIZE = 8;

bool osd_post_is_gone()
{
    const std::uint32_t error = cmn_errno();
    return error == QM5_CL_ERROR_GONE_1 || error == QM5_CL_ERROR_GONE_2 ||
           error == QM5_CL_ERROR_GONE_3;
}

// ---- The picture and its font -------------------------------------------------------------------

static int osd_read_video_size(osd_post *post, const char *reporter)
{
    qm5_cl_post_status status = {};
    if (qm5_cl_post_thread_get_status(post->res_id, &status) != 0) {
        CMN_REPORT(reporter, "qm5_cl_post_thread_get_status() failed. errno=0x%08X", cmn_errno());
        return -EFAULT;
    }
    post->video_width = status.width;
    post->video_height = status.height;
    return 0;
}

// Do two opposite safe spaces leave `least` of `whole` free? The sum may wrap, so each is held
// against the rest first.
static bool osd_space_fits(std::uint32_t whole, std::uint32_t least, std::uint32_t one,
                           std::uint32_t other)
{
    const std::uint32_t rest = whole - least;
    return rest >= one && rest >= other && rest >= one + other;
}

// The font size for the post's picture and safe spaces; 0 after a report if they won't do.
static std::uint32_t osd_get_font_size(const osd_post *post, const char *reporter)
{
    const std::uint32_t width = post->video_width;
    const std::uint32_t height = post->video_height;
    const std::uint32_t left = post->safe_space_left;
    const std::uint32_t right = post->safe_space_right;
    const std::uint32_t up = post->safe_space_up;
    const std::uint32_t down = post->safe_space_down;

    if (width < OSD_LEAST_WIDTH) {
        CMN_REPORT(reporter, "video width is invalid.(W/H=%d/%d)", width, height);
        return 0;
    }
    if (!osd_space_fits(width, OSD_LEAST_WIDTH, left, right)) {
        CMN_REPORT(reporter, "safe space is invalid.(safe space left/right=%d/%d)", left, right);
        return 0;
    }
    const std::uint32_t base = (width - left - right) * 3 >> 2;
    if (base < OSD_LEAST_HEIGHT) {
        CMN_REPORT(reporter, "video height is not enough to display OSD.(height=%d W/H=%d/%d)",
                   base, width, height);
        return 0;
    }
    if (!osd_space_fits(base, OSD_LEAST_HEIGHT, up, down)) {
        CMN_REPORT(reporter, "safe space is invalid.(safe space up/dn=%d/%d)", up, down);
        return 0;
    }
    const std::uint32_t size = (base - up - down) / OSD_LINES;
    return size < OSD_LEAST_FONT_SIZE ? OSD_LEAST_FONT_SIZE : size;
}

// What every open begins with; `reporter` is the function that opens.
static int osd_prepare_open(osd_post *post, const char *reporter)
{
    if (osd_read_video_size(post, reporter) != 0)
        return -EFAULT;
    const std::uint32_t size = osd_get_font_size(post, reporter);
    if (size == 0)
        return -EFAULT;
    post->date_offset_y = 0;
    if (post->font_engine.library)
        font_clear_engine(&post->font_engine);
    if (font_init_engine(&post->font_engine, post->font_file, size) != 0) {
        CMN_REPORT(reporter, "initialize font engine failed");
        return -EFAULT;
    }
    return 0;
}

// ---- Slots --------------------------------------------------------------------------------------

// The words of one open function that its calls of the library share.
struct osd_opening {
    osd_post *post;
    const char *reporter;
    std::uint32_t aux;
    std::uint32_t line_bytes;
};

enum osd_open_result {
    OSD_OPENED,       // or off, or the post thread has gone
    OSD_OPEN_REFUSED, // reported, flags cleared, nothing closed
    OSD_OPEN_FAILED,  // reported, the slots below closed
};

static qm5_cl_osd_param osd_get_osd_param(const osd_post *post, int slot)
{
    const osd_rect *rect = &post->rect[slot];
    const osd_slot_row *row = &osd_slot_table[slot];
    qm5_cl_osd_param param = {};

    param.number = cmn_cut<std::uint32_t>(slot);
    if (rect->mode == OSD_MODE_RECTANGLE) {
        param.width = rect->w;
        param.height = rect->h;
        param.color_type = rect->color_type;
    } else {
        const auto advance = cmn_cut<std::uint32_t>(post->font_engine.maxAdvance);
        param.width = cmn_cut<std::uint16_t>(row->cells * advance);
        param.height = cmn_cut<std::uint16_t>(post->font_engine.size);
        param.color_type = row->color_type;
    }
    return param;
}

static void osd_report_slot(const osd_opening *opening, int slot)
{
    CMN_REPORT(opening->reporter, "Post%dOsd%d", osd_post_number(opening->post), slot);
}

static void osd_close_slots_below(const osd_opening *opening, int slot)
{
    osd_post *post = opening->post;
    for (int lower = slot - 1; lower >= 0; lower--) {
        const std::uint32_t handle = post->osd[lower].handle;
        if (handle != 0 && qm5_cl_post_close_osd(post->res_id, handle) != 0) {
            CMN_REPORT(opening->reporter, "qm5_cl_post_close_osd() failed. errno=0x%08X",
                       cmn_errno());
            osd_report_slot(opening, lower);
        }
        post->osd[lower] = {};
    }
}

static osd_open_result osd_fail_slot(const osd_opening *opening, int slot)
{
    const bool refused = cmn_errno() == QM5_CL_ERROR_OPEN_REFUSED;

    CMN_REPORT(opening->reporter, "qm5_cl_post_open_osd() failed. errno=0x%08X", cmn_errno());
    osd_report_slot(opening, slot);
    if (!refused) {
        osd_close_slots_below(opening, slot);
        return OSD_OPEN_FAILED;
    }
    opening->post->refresh_all = 0;
    opening->post->opened = 0;
    return OSD_OPEN_REFUSED;
}

static osd_open_result osd_open_slot(osd_opening *opening, int slot)
{
    osd_post *post = opening->post;
    osd_area *area = &post->osd[slot];
    if (post->rect[slot].mode == OSD_MODE_OFF)
        return OSD_OPENED;

    const qm5_cl_osd_param param = osd_get_osd_param(post, slot);
    if (qm5_cl_post_open_osd(post->res_id, &param, &area->handle, &opening->aux,
                             &opening->line_bytes) != 0) {
        if (!osd_post_is_gone())
            return osd_fail_slot(opening, slot);
        opening->aux = 0;
        opening->line_bytes = 0;
        post->res_id = 0;
    }
    const osd_color_row *color = osd_find_color(param.color_type);
    area->aux = opening->aux;
    area->target_width = opening->line_bytes * (color ? color->pixels_per_byte : 0);
    return OSD_OPENED;
}

static int osd_finish_open(osd_post *post)
{
    post->opened = 1;
    post->refresh_all = 0;
    for (const osd_rect &rect : post->rect) {
        if (rect.mode != OSD_MODE_OFF)
            post->refresh_all = 1;
    }
    return 0;
}

// ---- Opens --------------------------------------------------------------------------------------

int osd_do_callback_open(osd_post *post)
{
    if (post->res_id == 0)
        return 0;
    if (osd_prepare_open(post, "osd_do_callback_open") != 0)
        return -EFAULT;

    osd_opening opening = {post, "osd_do_callback_open", 0, 0};
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        switch (osd_open_slot(&opening, slot)) {
        case OSD_OPENED:
            break;
        case OSD_OPEN_REFUSED:
            return -EFAULT;
        case OSD_OPEN_FAILED:
            return 0; // no failure to the main loop: it goes on, and the post stays as it is
        }
    }
    return osd_finish_open(post);
}

int osd_do_callback_open_one(osd_post *post, int slot)
{
    if (post->res_id == 0)
        return 0;
    if (osd_prepare_open(post, "osd_do_callback_open_one") != 0)
        return -EFAULT;
    if (post->rect[slot].mode == OSD_MODE_OFF)
        return 0;

    osd_opening opening = {post, "osd_do_callback_open_one", 0, 0};
    switch (osd_open_slot(&opening, slot)) {
    case OSD_OPENED:
        return osd_finish_open(post);
    case OSD_OPEN_REFUSED:
        return 0;
    case OSD_OPEN_FAILED:
        break;
    }
    return -EFAULT;
}

// ---- Places -------------------------------------------------------------------------------------

osd_place osd_place_text(const osd_post *post, int slot)
{
    const auto advance = cmn_cut<std::uint32_t>(post->font_engine.maxAdvance);
    const std::uint32_t left = post->safe_space_left;
    const std::uint32_t right =
        post->video_width - osd_slot_table[slot].cells * advance - post->safe_space_right;
    const std::uint32_t upper = post->safe_space_up;
    const std::uint32_t lower = post->video_height - post->font_engine.size - post->safe_space_down;

    switch (slot) {
    case OSD_SLOT_STRING:
        return {left, upper};
    case OSD_SLOT_LABEL:
        return {left, lower};
    case OSD_SLOT_DATE:
        return {right, upper + post->date_offset_y};
    default:
        return {right, lower};
    }
}
