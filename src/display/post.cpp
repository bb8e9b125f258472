// The post table and its parameters: a row for each key and the field that it goes to.
#include "display/post.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

struct osd_state osd_state;

static constexpr osd_color_row osd_colors[] = {
    {3, 2, 4},
    {15, 4, 2},
    {255, 8, 1},
};

const osd_color_row *osd_find_color(std::uint32_t color_type)
{
    return color_type < std::size(osd_colors) ? &osd_colors[color_type] : nullptr;
}

constexpr osd_slot_row osd_slot_table[OSD_SLOTS] = {
    {22, 2, &osd_post::string_color, &osd_post::string_bg_color},
    {10, 1, &osd_post::type_fg_color, &osd_post::type_bg_color},
    {12, 0, &osd_post::date_fg_color, &osd_post::date_bg_color},
    {10, 0, &osd_post::time_fg_color, &osd_post::time_bg_color},
};

static constexpr const char *osd_labels[] = {" TVOut ", " Stream#1 ", " Stream#2 ", " Storage "};
static_assert(std::size(osd_labels) == OSD_POSTS);

int osd_post_number(const osd_post *post)
{
    return cmn_cut<int>(post - osd_state.post);
}

// ---- Keys and fields ----------------------------------------------------------------------------

// Keys of one value for all posts.
static constexpr struct {
    const char *key;
    std::uint8_t osd_post::*field;
} osd_common_colors[] = {
    {"OsdDateFgColor", &osd_post::date_fg_color},     {"OsdDateBgColor", &osd_post::date_bg_color},
    {"OsdTimeFgColor", &osd_post::time_fg_color},     {"OsdTimeBgColor", &osd_post::time_bg_color},
    {"OsdTypeFgColor", &osd_post::type_fg_color},     {"OsdTypeBgColor", &osd_post::type_bg_color},
    {"OsdStringBgColor", &osd_post::string_bg_color},
};

// Keys of the TV output.
static constexpr struct {
    const char *key;
    std::uint32_t osd_post::*field;
} osd_safe_spaces[] = {
    {"OsdTVOutSafeSpaceUp", &osd_post::safe_space_up},
    {"OsdTVOutSafeSpaceDown", &osd_post::safe_space_down},
    {"OsdTVOutSafeSpaceLeft", &osd_post::safe_space_left},
    {"OsdTVOutSafeSpaceRight", &osd_post::safe_space_right},
};

// Keys of each post, behind "PostX".
static constexpr struct {
    const char *key;
    osd_slot slot;
} osd_text_flags[] = {
    {"DateOn", OSD_SLOT_DATE},
    {"TimeOn", OSD_SLOT_TIME},
    {"TypeOn", OSD_SLOT_LABEL},
    {"StringOn", OSD_SLOT_STRING},
};

// Keys of each slot of each post, behind "PostXOsdY".
static constexpr struct {
    const char *key;
    std::uint32_t osd_rect::*field;
} osd_rect_colors[] = {
    {"ColorType", &osd_rect::color_type},
    {"ColorFg", &osd_rect::color_fg},
    {"ColorBg", &osd_rect::color_bg},
};
static constexpr struct {
    const char *key;
    std::uint16_t osd_rect::*field;
} osd_rect_places[] = {
    {"X", &osd_rect::x},
    {"Y", &osd_rect::y},
    {"W", &osd_rect::w},
    {"H", &osd_rect::h},
};

// ---- Values -------------------------------------------------------------------------------------

static const char *osd_find_value(const param_section *section, const char *key)
{
    const param_parampair *pair = param_section_search_parampair_key(section, key);
    return pair ? pair->value : nullptr;
}

// The value of the key "Post%d" + `key`.
static const char *osd_find_post_value(const param_section *section, int post, const char *key)
{
    char full[32];
    snprintf(full, sizeof full, "Post%d%s", post, key);
    return osd_find_value(section, full);
}

// The value of the key "Post%dOsd%d" + `key`.
static const char *osd_find_rect_value(const param_section *section, int post, int slot,
                                       const char *key)
{
    char full[32];
    snprintf(full, sizeof full, "Post%dOsd%d%s", post, slot, key);
    return osd_find_value(section, full);
}

template <typename T>
static void osd_store_number(T *field, const char *value)
{
    if (value)
        *field = cmn_cut<T>(cmn_strtol(value));
}

// ---- Posts --------------------------------------------------------------------------------------

static void osd_set_font_file(const param_section *section, osd_post *post)
{
    const char *value = osd_find_value(section, "OsdFontFile");
    if (!value)
        return;
    memset(osd_state.font_file, 0, sizeof osd_state.font_file);
    memcpy(osd_state.font_file, value, strnlen(value, sizeof osd_state.font_file - 1));
    post->font_file = osd_state.font_file;
}

static void osd_set_safe_spaces(const param_section *section, osd_post *post, int number)
{
    for (const auto &row : osd_safe_spaces) {
        if (number == 0)
            osd_store_number(&(post->*row.field), osd_find_value(section, row.key));
        else
            post->*row.field = 0;
    }
}

static void osd_set_texts(const param_section *section, osd_post *post, int number)
{
    for (const auto &row : osd_text_flags) {
        const char *value = osd_find_post_value(section, number, row.key);
        if (value)
            post->text_on[row.slot] = cmn_strtol(value) != 0;
    }
    const char *string = osd_find_post_value(section, number, "String");
    if (string)
        snprintf(post->string_text, sizeof post->string_text, " %s ", string);
    osd_store_number(&post->string_color, osd_find_post_value(section, number, "StringColor"));
}

static void osd_set_rect(const param_section *section, osd_rect *rect, int number, int slot)
{
    char key[16];
    snprintf(key, sizeof key, "Rectangle%dOn", slot);
    const char *on = osd_find_post_value(section, number, key);
    if (on)
        rect->mode = cmn_strtol(on) != 0 ? OSD_MODE_RECTANGLE : OSD_MODE_OFF;
    for (const auto &row : osd_rect_colors) {
        osd_store_number(&(rect->*row.field), osd_find_rect_value(section, number, slot, row.key));
    }
    for (const auto &row : osd_rect_places) {
        osd_store_number(&(rect->*row.field), osd_find_rect_value(section, number, slot, row.key));
    }
}

void osd_set_post_params(const param_section *section, osd_post *post)
{
    for (int i = 0; i < OSD_POSTS; i++) {
        osd_post *r = &post[i];
        osd_set_font_file(section, r);
        for (const auto &row : osd_common_colors)
            osd_store_number(&(r->*row.field), osd_find_value(section, row.key));
        osd_set_safe_spaces(section, r, i);
        osd_set_texts(section, r, i);
        for (int slot = 0; slot < OSD_SLOTS; slot++)
            osd_set_rect(section, &r->rect[slot], i, slot);
        r->rect[OSD_SLOT_LABEL].text = osd_labels[i];
        r->rect[OSD_SLOT_DATE].text = r->date_text;
        r->rect[OSD_SLOT_STRING].text = r->string_text;
    }
}
