// The choice of what to draw in a pass.
#include "display/refresh.h"

#include "display/layout.h"

#include <cstdio>
#include <cstring>

// What a full redraw asked of each slot, for the reports after a failure.
struct osd_asked {
    std::uint16_t x, y, w, h;
};

// The time between two blanks.
constexpr std::size_t OSD_TIME_TEXT_SIZE = 14;

// ---- One slot -----------------------------------------------------------------------------------

static int osd_show_text(osd_post *post, int slot, osd_place place)
{
    const osd_rect *rect = &post->rect[slot];
    return osd_show(post->res_id, post->osd[slot].handle, &post->font_engine,
                    post->osd[slot].target_width, osd_slot_table[slot].color_type, place.x, place.y,
                    rect->text, rect->color_fg, rect->color_bg);
}

int osd_refresh_one(osd_post *post, int slot)
{
    const std::uint32_t mode = post->rect[slot].mode;
    if (mode == OSD_MODE_RECTANGLE || mode == OSD_MODE_OFF)
        return 0;
    if (osd_show_text(post, slot, osd_place_text(post, slot)) != 0) {
        CMN_REPORT("osd_refresh_one", "post %d osd %d show error", osd_post_number(post), slot);
    }
    return 0;
}

// ---- All slots ----------------------------------------------------------------------------------

static int osd_redraw_text(osd_post *post, int slot, osd_asked *asked)
{
    const osd_place place = osd_place_text(post, slot);
    *asked = {cmn_cut<std::uint16_t>(place.x), cmn_cut<std::uint16_t>(place.y),
              cmn_cut<std::uint16_t>(post->osd[slot].target_width),
              cmn_cut<std::uint16_t>(post->font_engine.size)};
    return osd_show_text(post, slot, place);
}

static int osd_redraw_rectangle(osd_post *post, int slot, osd_asked *asked)
{
    const osd_rect *rect = &post->rect[slot];
    *asked = {rect->x, rect->y, rect->w, rect->h};
    return osd_show_rectangle(post->res_id, post->osd[slot].handle, post->osd[slot].target_width,
                              rect->color_type, rect->x, rect->y, rect->w, rect->h, rect->color_fg);
}

static void osd_clear_slot(osd_post *post, int slot)
{
    if (osd_clear(post->res_id, post->osd[slot].handle) != 0)
        CMN_REPORT("osd_refresh_all", "post %d osd %d clear error", osd_post_number(post), slot);
}

// Draws the texts and clears what is off, then draws the rectangles. The slot that failed, or -1.
static int osd_redraw_slots(osd_post *post, osd_asked (&asked)[OSD_SLOTS])
{
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        const std::uint32_t mode = post->rect[slot].mode;
        if (mode == OSD_MODE_OFF)
            osd_clear_slot(post, slot);
        else if (mode != OSD_MODE_RECTANGLE && osd_redraw_text(post, slot, &asked[slot]) != 0)
            return slot;
    }
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        if (post->rect[slot].mode == OSD_MODE_RECTANGLE &&
            osd_redraw_rectangle(post, slot, &asked[slot]) != 0)
            return slot;
    }
    return -1;
}

int osd_refresh_all(osd_post *post)
{
    osd_asked asked[OSD_SLOTS] = {};
    const int number = osd_post_number(post);

    const int failed = osd_redraw_slots(post, asked);
    if (failed >= 0) {
        CMN_REPORT("osd_refresh_all", "post %d osd %d show error", number, failed);
        for (int slot = 0; slot < OSD_SLOTS; slot++) {
            CMN_REPORT("osd_refresh_all", "post %d osd %d: x/y=%d/%d w/h=%d/%d", number, slot,
                       asked[slot].x, asked[slot].y, asked[slot].w, asked[slot].h);
        }
    }
    post->date_changed = 0;
    post->refresh_all = 0;
    return failed >= 0 ? -EFAULT : 0;
}

// ---- A pass -------------------------------------------------------------------------------------

static void osd_build_time()
{
    const cmn_st_cdatetime &now = osd_state.cdatetime;
    const char text[] = {now.hour[0], now.hour[1],   ':',           now.minute[0], now.minute[1],
                         ':',         now.second[0], now.second[1], '\0'};
    static_assert(sizeof text == sizeof osd_state.time_scratch);
    memcpy(osd_state.time_scratch, text, sizeof text);
}

// Opens the slots that are on and have no OSD yet.
static int osd_open_late(osd_post *post)
{
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        if (post->rect[slot].mode == OSD_MODE_OFF || post->osd[slot].handle != 0)
            continue;
        if (osd_do_callback_open_one(post, slot) != 0)
            return -EFAULT;
    }
    return 0;
}

static void osd_prepare_texts(osd_post *post, const char *time_text)
{
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        osd_rect *rect = &post->rect[slot];
        const osd_slot_row *row = &osd_slot_table[slot];
        if (rect->mode != OSD_MODE_TEXT)
            continue;
        rect->color_type = row->color_type;
        rect->color_fg = post->*row->color_fg;
        rect->color_bg = post->*row->color_bg;
        switch (slot) {
        case OSD_SLOT_STRING:
            rect->text = post->string_text;
            break;
        case OSD_SLOT_DATE:
            rect->text = post->date_text;
            break;
        case OSD_SLOT_TIME:
            rect->text = time_text;
            break;
        default:
            break; // the label stays
        }
    }
}

int osd_refresh(osd_post *post)
{
    if (post->res_id == 0)
        return 0;
    if (!post->opened) {
        if (!post->refresh_all)
            return 0;
        CMN_REPORT("osd_refresh", "post %d has been closed", osd_post_number(post));
        post->refresh_all = 0;
        return -EFAULT;
    }
    osd_build_time();
    char time_text[OSD_TIME_TEXT_SIZE] = {};
    snprintf(time_text, sizeof time_text, " %s ", osd_state.time_scratch);
    if (osd_open_late(post) != 0)
        return 0;
    osd_prepare_texts(post, time_text);
    if (post->refresh_all)
        return osd_refresh_all(post);
    if (post->date_changed) {
        osd_refresh_one(post, OSD_SLOT_DATE);
        post->date_changed = 0;
    }
    osd_refresh_one(post, OSD_SLOT_TIME);
    return 0;
}
