// The post table: everything that the server knows about the display, in one record.
//
// A post is an output of the appliance: 0 the TV output, 1 and 2 the streams, 3 the storage. Each
// has four slots, numbered like its OSDs; a slot shows one fixed kind of text, or else a filled
// rectangle, or nothing. What a slot is to show (`osd_rect`, from the parameters) and what the
// codec library gave for it (`osd_area`) may be out of step until the next drawing or reopen.
//
// Only the main thread touches the table, with one exception: osd_post_notify stores
// `callback_state` and `res_id` on a thread of the codec library, without lock, atomic or barrier.
#pragma once

#include "param/param.h"
#include "text/font.h"

constexpr int OSD_POSTS = 4;
constexpr int OSD_SLOTS = 4;

// ---- Formats and slots --------------------------------------------------------------------------

// What a colour type means; row i is colour type i.
struct osd_color_row {
    std::uint32_t mask; // the largest colour, an index into the codec's palette
    std::uint32_t bits; // per pixel
    std::uint32_t pixels_per_byte;
};

// The row of a colour type, NULL for any but 0, 1 and 2.
const osd_color_row *osd_find_color(std::uint32_t color_type);

enum osd_slot : int {
    OSD_SLOT_STRING = 0, // top left
    OSD_SLOT_LABEL = 1,  // bottom left
    OSD_SLOT_DATE = 2,   // top right
    OSD_SLOT_TIME = 3,   // bottom right
};

struct osd_post;

// A slot in text mode; row i is slot i.
struct osd_slot_row {
    std::uint32_t cells; // characters of the longest text
    std::uint32_t color_type;
    std::uint8_t osd_post::*color_fg;
    std::uint8_t osd_post::*color_bg;
};
extern const osd_slot_row osd_slot_table[OSD_SLOTS];

// ---- Records ------------------------------------------------------------------------------------

enum osd_mode : std::uint32_t {
    OSD_MODE_OFF = 0,
    OSD_MODE_TEXT = 1,
    OSD_MODE_RECTANGLE = 2,
};

// What the main loop still owes a post; the last thing asked for, with no queue behind it.
enum osd_callback_state : std::uint8_t {
    OSD_CALLBACK_NONE = 0,
    OSD_CALLBACK_OPEN = 1,   // the post thread has come up, `res_id` is its resource ID
    OSD_CALLBACK_CLOSE = 2,  // it has gone, and its OSDs with it
    OSD_CALLBACK_REOPEN = 3, // its OSDs must be made anew: an update involves a rectangle
};

// What the codec library returned for a slot's OSD.
struct osd_area {
    std::uint32_t handle;       // 0: the slot has no open OSD
    std::uint32_t aux;          // second result of the open; kept, never read
    std::uint32_t target_width; // pixels in a line of the OSD's memory, the stride of all drawing
};
static_assert(sizeof(osd_area) == 12);

// What a slot is to show. A text slot gets its colours anew at each osd_refresh that comes to the
// drawing, and its text too unless it is the label.
struct osd_rect {
    std::uint32_t mode; // osd_mode
    std::uint32_t color_type;
    std::uint32_t color_fg;
    std::uint32_t color_bg; // of a text; a rectangle has no use for it
    std::uint16_t x;        // of a rectangle, in pixels of the picture
    std::uint16_t y;
    std::uint16_t w;
    std::uint16_t h;
    const char *text; // of the time valid only during osd_refresh; NULL until first set
};
static_assert(offsetof(osd_rect, x) == 16 && offsetof(osd_rect, text) == 24 &&
              sizeof(osd_rect) == 24 + sizeof(void *));

// The letters tell who reads (r) and writes (w): N the notification thread, M the main thread.
// Fields without letters are the main thread's alone.
struct osd_post {
    std::uint32_t video_width; // in pixels; both 0 while the post is closed
    std::uint32_t video_height;
    char date_text[13];  // " DD/MM/YYYY "
    std::uint8_t opened; // 1: the opening has been carried out, so that osd_refresh may draw
    volatile std::uint8_t callback_state; // N w, M rw: osd_callback_state
    volatile std::uint32_t res_id;        // N w, M rw: of the post thread; 0: it isn't there
    std::uint8_t refresh_all;             // 1: the next osd_refresh redraws all slots
    std::uint8_t date_changed;            // 1: date_text is newer than what was drawn
    osd_area osd[OSD_SLOTS];
    osd_rect rect[OSD_SLOTS];
    std::uint32_t safe_space_up; // margins in pixels, of post 0 only
    std::uint32_t safe_space_down;
    std::uint32_t safe_space_left;
    std::uint32_t safe_space_right;
    std::uint32_t date_offset_y; // added to the y of the date; 0
    std::uint8_t text_on[OSD_SLOTS];
    std::uint8_t string_color;
    char string_text[23];           // the user string between two blanks
    const char *font_file;          // osd_state.font_file, or NULL before the first parameters
    struct font_engine font_engine; // live from an open to the closing; one for all slots
    std::uint8_t string_bg_color;
    std::uint8_t type_fg_color;
    std::uint8_t type_bg_color;
    std::uint8_t date_fg_color;
    std::uint8_t date_bg_color;
    std::uint8_t time_fg_color;
    std::uint8_t time_bg_color;
};
static_assert(offsetof(osd_post, opened) == 21 && offsetof(osd_post, callback_state) == 22 &&
              offsetof(osd_post, res_id) == 24 && offsetof(osd_post, osd) == 32 &&
              offsetof(osd_post, rect) == 80 &&
              offsetof(osd_post, safe_space_up) == 80 + OSD_SLOTS * sizeof(osd_rect));

struct osd_state {
    char date_scratch[11]; // DD/MM/YYYY
    char time_scratch[9];  // HH:MM:SS
    osd_post post[OSD_POSTS];
    cmn_st_cdatetime cdatetime;        // the clock in this pass of the main loop
    std::uint32_t refresh_interval_ms; // a slice of the main loop's sleep
    char font_file[CMN_PATH_SIZE];
};

// The one instance, all zero at process start.
extern struct osd_state osd_state;

// ---- Operations ---------------------------------------------------------------------------------

// The post's number, from its place in the table.
int osd_post_number(const osd_post *post);

// Copies a complete parameter section into the posts of the table, of which `post` is the first.
// Keys that the section lacks leave their fields alone; numbers are cut to their fields. Each slot
// becomes a rectangle or off here: to turn it to its text is the caller's next step. What is open
// doesn't change.
void osd_set_post_params(const param_section *section, osd_post *post);
