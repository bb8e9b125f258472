// What is to be drawn on a post in this pass, and the drawing itself: the only place that writes
// OSD memory and tells the library where an OSD stands.
//
// A normal pass draws the time and nothing else; the date comes with it when it has changed; a
// full redraw, after an open or an update, draws every text in slot order, clears the slots that
// are off, and then fills the rectangles. A post thread may go at any moment, so a call that
// draws, shows or clears and fails for that reason counts as done.
#pragma once

#include "display/post.h"

// Brings a post up to date, opening the slots that have been switched on since it was opened. 0
// for a post without a thread, and if such an open fails: the next pass tries again. -EFAULT after
// reports if a full redraw fails, or is asked for on a post whose open has failed.
int osd_refresh(osd_post *post);

// The redraw of all slots, and of one in text mode. The first gives -EFAULT after reports and
// leaves the slots behind the failed one undrawn; either way the post's flags are cleared, so that
// it isn't repeated. A failure of the second is reported and goes no further: its result is 0.
int osd_refresh_all(osd_post *post);
int osd_refresh_one(osd_post *post, int slot);

// Draws a text into an OSD and shows it at x, y. 0 without an OSD; -EFAULT after reports.
int osd_show(std::uint32_t res_id, std::uint32_t handle, font_engine *font_engine,
             std::uint32_t target_width, std::uint32_t color_type, std::uint32_t x, std::uint32_t y,
             const char *text, std::uint32_t color_fg, std::uint32_t color_bg);

// Fills a block of w by h pixels at the left upper corner of an OSD, with index 0 in the pixels
// right of it, and shows it at x, y. 0 without an OSD; -EFAULT after reports, also if the OSD's
// memory is smaller than h lines. Neither w nor a height of 0 is checked: such a block writes past
// its line, or past the memory of an OSD of no lines.
int osd_show_rectangle(std::uint32_t res_id, std::uint32_t handle, std::uint32_t target_width,
                       std::uint32_t color_type, std::uint32_t x, std::uint32_t y, std::uint32_t w,
                       std::uint32_t h, std::uint32_t color_fg);

// Takes an OSD off the picture and leaves it open. 0 without an OSD; -EFAULT after reports.
int osd_clear(std::uint32_t res_id, std::uint32_t handle);
