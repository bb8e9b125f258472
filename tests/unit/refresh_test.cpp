// The choice of what to draw on a post in a pass.
#include "display/layout.h"
#include "display/refresh.h"
#include "param/param.h"
#include "support/bdf_font.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"
#include "support/trace.h"
#include "support/wraps.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace
{

using support::errors_of;
using support::Lines;
using support::report;
using support::take_trace;

constexpr std::uint32_t RES_ID = 0x11;
constexpr std::uint32_t GONE[] = {0x81E04507, 0x81E03204, 0x81E0250C};
constexpr std::uint32_t REFUSED = 0x81E03246;

// Handles and places of the four texts when all are opened together: in cells of 6 pixels by 8
// lines, on a picture of 200x150.
constexpr std::uint32_t HANDLES[] = {0x101, 0x102, 0x103, 0x104};
constexpr const char *PLACES[] = {"0, 0", "0, 142", "128, 0", "140, 142"};

std::string call_failed(const std::string &call, std::uint32_t handle, const char *reporter)
{
    char words[40];
    std::snprintf(words, sizeof words, "ResID=0x%08X, Handle=0x%08X", RES_ID, handle);
    return report("server", call + "() failed. errno=0x81E01234", reporter) +
           report("server", words, reporter);
}

std::string hexadecimal(std::uint32_t word)
{
    char text[11];
    std::snprintf(text, sizeof text, "0x%X", word);
    return text;
}

// The calls for one drawing.
Lines drawing(std::uint32_t handle, const std::string &place)
{
    return {"get_osd_mem(0x11, " + hexadecimal(handle) + ")",
            "set_osd(0x11, " + hexadecimal(handle) + ", " + place + ")"};
}

// Those for texts that were opened together.
Lines drawings(std::initializer_list<unsigned> slots)
{
    Lines lines;
    for (const unsigned slot : slots) {
        const Lines one = drawing(HANDLES[slot], PLACES[slot]);
        lines.insert(lines.end(), one.begin(), one.end());
    }
    return lines;
}

Lines operator+(Lines left, const Lines &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class Refresh : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        cmn_role = "server";
        std::memcpy(&osd_state.cdatetime, "2024112112345678", sizeof osd_state.cdatetime);
        use_post(0);
        use_font(support::small_font());
        codec::set_size(200, 150);
    }

    void TearDown() override
    {
        support::remove_file(font_file_);
        OsdTest::TearDown();
    }

    // A post whose thread is there, with all four texts on.
    void use_post(int number)
    {
        post_ = &osd_state.post[number];
        post_->font_file = font_file_.c_str();
        post_->res_id = RES_ID;
        set_modes({OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT});
        std::strcpy(post_->string_text, " aA ");
        std::strcpy(post_->date_text, " 21/11/2024 ");
        post_->rect[OSD_SLOT_LABEL].text = " AaA ";
        post_->string_color = 0xF1;
        post_->string_bg_color = 0xE2;
        post_->type_fg_color = 3;
        post_->type_bg_color = 4;
        post_->date_fg_color = 1;
        post_->date_bg_color = 2;
        post_->time_fg_color = 3;
        post_->time_bg_color = 1;
    }

    void use_font(const support::BdfFont &font)
    {
        font_file_ = support::make_font(font);
        post_->font_file = font_file_.c_str();
    }

    void set_modes(const std::array<std::uint32_t, OSD_SLOTS> &modes)
    {
        for (int slot = 0; slot < OSD_SLOTS; slot++)
            post_->rect[slot].mode = modes[static_cast<unsigned>(slot)];
    }

    void set_rectangle(int slot, std::uint16_t x, std::uint16_t y, std::uint16_t w, std::uint16_t h,
                       std::uint32_t color_type = 2, std::uint32_t color_fg = 7)
    {
        osd_rect *rect = &post_->rect[slot];
        rect->mode = OSD_MODE_RECTANGLE;
        rect->color_type = color_type;
        rect->color_fg = color_fg;
        rect->color_bg = 99;
        rect->x = x;
        rect->y = y;
        rect->w = w;
        rect->h = h;
    }

    void open()
    {
        ASSERT_EQ(osd_do_callback_open(post_), 0);
        ASSERT_EQ(post_->opened, 1);
        take_trace();
    }

    // Opens, and leaves no more to draw than a pass draws anyway.
    void open_quietly()
    {
        open();
        post_->refresh_all = 0;
    }

    // Runs a pass. The result, with the reports in errors_.
    int refresh()
    {
        return run([this] { return osd_refresh(post_); });
    }

    template <typename Action>
    int run(Action action)
    {
        int result = 1;
        errors_ = errors_of([&] { result = action(); });
        return result;
    }

    void refresh_well()
    {
        EXPECT_EQ(refresh(), 0);
        EXPECT_EQ(errors_, "");
    }

    void expect_flags(int refresh_all, int date_changed) const
    {
        EXPECT_EQ(post_->refresh_all, refresh_all);
        EXPECT_EQ(post_->date_changed, date_changed);
    }

    std::string report_here(const std::string &message, const char *reporter) const
    {
        return report("server", "post " + std::to_string(post_ - osd_state.post) + " " + message,
                      reporter);
    }

    // The reports of a full redraw that has failed.
    std::string redraw_failed(int slot, const std::array<const char *, OSD_SLOTS> &asked) const
    {
        std::string text =
            report_here("osd " + std::to_string(slot) + " show error", "osd_refresh_all");
        for (unsigned i = 0; i < OSD_SLOTS; i++)
            text += report_here("osd " + std::to_string(i) + ": " + asked[i], "osd_refresh_all");
        return text;
    }

    // Must an OSD have been shown with this text, in these colours?
    void expect_text(std::uint32_t handle, const char *text, std::uint32_t color_fg,
                     std::uint32_t color_bg)
    {
        const codec::Osd &osd = codec::osd(handle);
        const std::size_t size = std::size_t{osd.line_bytes} * osd.param.height;
        std::vector<std::uint32_t> words((size + 3) / 4);
        ASSERT_EQ(font_get_target_bitmap(&post_->font_engine, text, color_fg, color_bg,
                                         osd.width_of_line(), (1u << osd.bits()) - 1,
                                         static_cast<std::uint32_t>(size), words.data()),
                  0);
        const auto *bytes = reinterpret_cast<const std::uint8_t *>(words.data());
        EXPECT_EQ(osd.picture, std::vector<std::uint8_t>(bytes, bytes + size));
        EXPECT_TRUE(osd.shown);
    }

    osd_post *post_ = nullptr;
    std::string font_file_;
    std::string errors_;
};

// ---- Posts that aren't open ---------------------------------------------------------------------

TEST_F(Refresh, post_without_a_thread_is_passed_by_and_keeps_its_flags)
{
    post_->res_id = 0;
    for (const char *state : {"not open", "open"}) {
        SCOPED_TRACE(state);
        post_->refresh_all = 1;
        post_->date_changed = 1;
        refresh_well();
        EXPECT_EQ(take_trace(), Lines{});
        expect_flags(1, 1);
        EXPECT_EQ(osd_state.time_scratch[0], '\0');
        post_->opened = 1;
    }

    post_->res_id = RES_ID; // an open decides anew
    set_modes({});
    open();
    expect_flags(0, 1);
}

TEST_F(Refresh, post_that_is_not_open_fails_once_and_is_quiet_after_that)
{
    use_post(2);
    post_->refresh_all = 1;
    post_->date_changed = 1;
    EXPECT_EQ(refresh(), -14);
    EXPECT_EQ(errors_, report("server", "post 2 has been closed", "osd_refresh"));
    expect_flags(0, 1);

    refresh_well();
    expect_flags(0, 1);
    EXPECT_EQ(take_trace(), Lines{});
    EXPECT_EQ(osd_state.time_scratch[0], '\0');
}

// ---- A normal pass ------------------------------------------------------------------------------

TEST_F(Refresh, normal_pass_draws_the_time_alone)
{
    open_quietly();
    refresh_well();
    EXPECT_EQ(take_trace(), drawings({3}));
    expect_text(HANDLES[3], " 12:34:56 ", 3, 1);
    EXPECT_EQ(std::string(osd_state.time_scratch, 9), std::string("12:34:56", 9));

    osd_state.cdatetime.second[1] = '7';
    refresh_well();
    expect_text(HANDLES[3], " 12:34:57 ", 3, 1);
    take_trace();

    const int loaded = wraps::calls(wraps::FT_LOAD_GLYPH);
    refresh_well(); // whether or not the second has moved
    EXPECT_EQ(take_trace(), drawings({3}));
    EXPECT_EQ(wraps::calls(wraps::FT_LOAD_GLYPH), loaded); // all of them are cached
}

TEST_F(Refresh, clock_that_cannot_be_read_shows_as_zeros)
{
    open_quietly();
    std::memset(&osd_state.cdatetime, '0', sizeof osd_state.cdatetime);
    std::strcpy(post_->date_text, " 00/00/0000 ");
    post_->date_changed = 1;
    refresh_well();
    expect_text(HANDLES[2], " 00/00/0000 ", 1, 2);
    expect_text(HANDLES[3], " 00:00:00 ", 3, 1);
}

TEST_F(Refresh, changed_date_is_drawn_before_the_time)
{
    open_quietly();
    post_->date_changed = 1;
    refresh_well();
    EXPECT_EQ(take_trace(), drawings({2, 3}));
    expect_text(HANDLES[2], " 21/11/2024 ", 1, 2);
    expect_flags(0, 0);

    refresh_well();
    EXPECT_EQ(take_trace(), drawings({3}));
}

TEST_F(Refresh, date_counts_as_drawn_even_if_its_slot_shows_something_else)
{
    open_quietly();
    for (const std::uint32_t mode : {OSD_MODE_OFF, OSD_MODE_RECTANGLE}) {
        post_->rect[OSD_SLOT_DATE].mode = mode;
        post_->date_changed = 1;
        refresh_well();
        EXPECT_EQ(take_trace(), drawings({3}));
        expect_flags(0, 0);
    }
}

TEST_F(Refresh, time_is_not_drawn_while_its_slot_shows_something_else)
{
    open_quietly();
    for (const std::uint32_t mode : {OSD_MODE_OFF, OSD_MODE_RECTANGLE}) {
        post_->rect[OSD_SLOT_TIME].mode = mode;
        refresh_well();
        EXPECT_EQ(take_trace(), Lines{});
        EXPECT_EQ(std::string(osd_state.time_scratch), "12:34:56");
    }
}

TEST_F(Refresh, failed_drawing_of_a_normal_pass_is_reported_and_the_pass_goes_on)
{
    use_post(3);
    open_quietly();
    post_->date_changed = 1;
    codec::fail(codec::GET_OSD_MEM, 1, codec::SOME_ERROR);
    codec::fail(codec::SET_OSD, 1, codec::SOME_ERROR);
    EXPECT_EQ(refresh(), 0);
    EXPECT_EQ(errors_, call_failed("qm5_cl_post_get_osd_mem", HANDLES[2], "osd_show") +
                           report("server", "post 3 osd 2 show error", "osd_refresh_one") +
                           call_failed("qm5_cl_post_set_osd", HANDLES[3], "osd_show") +
                           report("server", "post 3 osd 3 show error", "osd_refresh_one"));
    expect_flags(0, 0);
    EXPECT_EQ(take_trace(), Lines{"get_osd_mem(0x11, 0x103)"} + drawings({3}));
}

TEST_F(Refresh, one_slot_is_drawn_only_as_a_text)
{
    open_quietly();
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        for (const std::uint32_t mode : {OSD_MODE_OFF, OSD_MODE_RECTANGLE}) {
            post_->rect[slot].mode = mode;
            EXPECT_EQ(run([&] { return osd_refresh_one(post_, slot); }), 0);
            EXPECT_EQ(errors_, "");
        }
    }
    EXPECT_EQ(take_trace(), Lines{});

    for (osd_rect &rect : post_->rect) {
        rect.mode = 3; // any other mode is a text, too
        rect.text = "A";
    }
    EXPECT_EQ(run([&] { return osd_refresh_one(post_, 0); }), 0);
    EXPECT_EQ(take_trace(), drawings({0}));
    EXPECT_EQ(run([&] { return osd_refresh_all(post_); }), 0);
    EXPECT_EQ(take_trace(), drawings({0, 1, 2, 3}));
}

TEST_F(Refresh, drawing_of_one_slot_is_good_even_if_it_fails)
{
    open_quietly();
    post_->rect[1].text = "A";
    codec::fail(codec::SET_OSD, 1, codec::SOME_ERROR);
    EXPECT_EQ(run([&] { return osd_refresh_one(post_, 1); }), 0);
    EXPECT_EQ(errors_, call_failed("qm5_cl_post_set_osd", HANDLES[1], "osd_show") +
                           report("server", "post 0 osd 1 show error", "osd_refresh_one"));
}

TEST_F(Refresh, text_is_drawn_in_the_colour_type_of_its_slot)
{
    open_quietly();
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        osd_rect *rect = &post_->rect[slot];
        rect->color_type = 77;
        rect->color_fg = 2;
        rect->color_bg = 1;
        rect->text = "A";
        EXPECT_EQ(run([&] { return osd_refresh_one(post_, slot); }), 0);
        EXPECT_EQ(errors_, "");
        expect_text(HANDLES[slot], "A", 2, 1);
        EXPECT_EQ(rect->color_type, 77u);

        rect->text = "a";
        rect->color_fg = 3;
    }
    EXPECT_EQ(run([&] { return osd_refresh_all(post_); }), 0);
    EXPECT_EQ(errors_, "");
    for (const std::uint32_t handle : HANDLES)
        expect_text(handle, "a", 3, 1);
}

// ---- What the texts are made of -----------------------------------------------------------------

TEST_F(Refresh, text_slots_get_their_colours_and_texts_anew)
{
    open_quietly();
    for (osd_rect &rect : post_->rect) {
        rect.color_type = 9;
        rect.color_fg = 1000;
        rect.color_bg = 1000;
    }
    const char *label = post_->rect[OSD_SLOT_LABEL].text;
    refresh_well();

    const std::uint32_t expected[OSD_SLOTS][3] = {{2, 0xF1, 0xE2}, {1, 3, 4}, {0, 1, 2}, {0, 3, 1}};
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        EXPECT_EQ(post_->rect[slot].color_type, expected[slot][0]);
        EXPECT_EQ(post_->rect[slot].color_fg, expected[slot][1]);
        EXPECT_EQ(post_->rect[slot].color_bg, expected[slot][2]);
    }
    EXPECT_EQ(post_->rect[OSD_SLOT_STRING].text, post_->string_text);
    EXPECT_EQ(post_->rect[OSD_SLOT_LABEL].text, label);
    EXPECT_EQ(post_->rect[OSD_SLOT_DATE].text, post_->date_text);
}

TEST_F(Refresh, slots_without_a_text_keep_what_they_hold)
{
    open_quietly();
    set_modes({});
    set_rectangle(0, 1, 2, 3, 4, 0, 50);
    set_rectangle(2, 1, 2, 3, 4, 1, 60);
    post_->rect[3].color_fg = 70;
    refresh_well();
    EXPECT_EQ(post_->rect[0].color_type, 0u);
    EXPECT_EQ(post_->rect[0].color_fg, 50u);
    EXPECT_EQ(post_->rect[0].color_bg, 99u);
    EXPECT_EQ(post_->rect[0].text, nullptr);
    EXPECT_EQ(post_->rect[2].color_type, 1u);
    EXPECT_EQ(post_->rect[2].color_fg, 60u);
    EXPECT_EQ(post_->rect[2].text, nullptr);
    EXPECT_EQ(post_->rect[3].color_fg, 70u);
    EXPECT_EQ(post_->rect[3].text, nullptr);
}

TEST_F(Refresh, new_parameters_show_at_the_next_drawing_of_their_slot)
{
    open();
    refresh_well();
    std::strcpy(post_->string_text, " AA ");
    post_->string_color = 5;
    post_->type_fg_color = 6;
    post_->date_fg_color = 3;
    post_->time_fg_color = 2;

    refresh_well();
    expect_text(HANDLES[0], " aA ", 0xF1, 0xE2);
    expect_text(HANDLES[1], " AaA ", 3, 4);
    expect_text(HANDLES[2], " 21/11/2024 ", 1, 2);
    expect_text(HANDLES[3], " 12:34:56 ", 2, 1);

    post_->date_changed = 1;
    refresh_well();
    expect_text(HANDLES[0], " aA ", 0xF1, 0xE2);
    expect_text(HANDLES[2], " 21/11/2024 ", 3, 2);

    post_->refresh_all = 1;
    refresh_well();
    expect_text(HANDLES[0], " AA ", 5, 0xE2);
    expect_text(HANDLES[1], " AaA ", 6, 4);
    EXPECT_TRUE(codec::sentinels_are_intact());
}

TEST_F(Refresh, texts_stand_where_the_safe_spaces_of_the_moment_put_them)
{
    open();
    post_->safe_space_left = 11;
    post_->safe_space_right = 12;
    post_->safe_space_up = 13;
    post_->safe_space_down = 14;
    post_->date_offset_y = 2;
    refresh_well();
    EXPECT_EQ(take_trace(), drawing(HANDLES[0], "11, 13") + drawing(HANDLES[1], "11, 128") +
                                drawing(HANDLES[2], "116, 15") + drawing(HANDLES[3], "128, 128"));

    // No open would accept these.
    post_->safe_space_left = 0x1FFFF;
    post_->safe_space_right = 150;
    post_->safe_space_down = 150;
    post_->refresh_all = 1;
    refresh_well();
    EXPECT_EQ(take_trace(), drawing(HANDLES[0], "65535, 13") + drawing(HANDLES[1], "65535, 65528") +
                                drawing(HANDLES[2], "65514, 15") +
                                drawing(HANDLES[3], "65526, 65528"));
}

TEST_F(Refresh, safe_spaces_are_those_of_the_tv_output_alone)
{
    param_section *section = param_section_new("osd");
    for (const char *key : {"OsdTVOutSafeSpaceUp", "OsdTVOutSafeSpaceDown", "OsdTVOutSafeSpaceLeft",
                            "OsdTVOutSafeSpaceRight"}) {
        EXPECT_EQ(cmn_list_append(section->pairs, param_parampair_new(key, "10")), 0);
    }
    osd_set_post_params(section, osd_state.post);
    param_section_free(section);

    open();
    refresh_well();
    EXPECT_EQ(take_trace(), drawing(0x101, "10, 10") + drawing(0x102, "10, 132") +
                                drawing(0x103, "118, 10") + drawing(0x104, "130, 132"));
    codec::reset();
    codec::set_size(200, 150);
    use_post(1);
    open();
    refresh_well();
    EXPECT_EQ(take_trace(), drawings({0, 1, 2, 3}));
}

TEST_F(Refresh, lower_texts_of_a_flat_picture_wrap_around)
{
    support::BdfFont font = support::small_font();
    font.ascent = 26;
    use_font(font);
    codec::set_size(720, 16);
    open();
    refresh_well();
    EXPECT_EQ(take_trace(), drawing(HANDLES[0], "0, 0") + drawing(HANDLES[1], "0, 65524") +
                                drawing(HANDLES[2], "648, 0") + drawing(HANDLES[3], "660, 65524"));
    EXPECT_TRUE(codec::sentinels_are_intact());
}

// ---- A full redraw ------------------------------------------------------------------------------

TEST_F(Refresh, full_redraw_draws_every_text_in_slot_order)
{
    open();
    post_->date_changed = 1;
    refresh_well();
    EXPECT_EQ(take_trace(), drawings({0, 1, 2, 3}));
    expect_flags(0, 0);
    expect_text(HANDLES[0], " aA ", 0xF1, 0xE2);
    expect_text(HANDLES[1], " AaA ", 3, 4);
    expect_text(HANDLES[2], " 21/11/2024 ", 1, 2);
    expect_text(HANDLES[3], " 12:34:56 ", 3, 1);

    refresh_well();
    EXPECT_EQ(take_trace(), drawings({3}));
}

TEST_F(Refresh, string_of_two_blanks_is_two_cells_of_background)
{
    std::strcpy(post_->string_text, "  ");
    open();
    refresh_well();
    const codec::Osd &osd = codec::osd(HANDLES[0]);
    for (unsigned y = 0; y < 8; y++) {
        for (unsigned x = 0; x < 132; x++)
            EXPECT_EQ(osd.index_at(x, y), x < 12 ? 0xE2u : 0u);
    }
}

TEST_F(Refresh, rectangles_come_after_all_texts_and_slots_that_are_off_in_passing)
{
    set_rectangle(0, 65535, 40, 8, 3, 1, 0x19);
    set_rectangle(2, 3, 65534, 4, 2);
    open();
    post_->safe_space_left = 100; // moves no rectangle
    post_->safe_space_up = 100;
    post_->rect[1].mode = OSD_MODE_OFF;
    refresh_well();
    EXPECT_EQ(take_trace(), Lines{"clear_osd(0x11, 0x102)"} + drawings({3}) +
                                drawing(HANDLES[0], "65535, 40") + drawing(HANDLES[2], "3, 65534"));
    EXPECT_FALSE(codec::osd(HANDLES[1]).shown);
    EXPECT_TRUE(codec::osd(HANDLES[1]).open);
    EXPECT_EQ(codec::osd(HANDLES[0]).picture, std::vector<std::uint8_t>(12, 0x99));
    EXPECT_EQ(codec::osd(HANDLES[2]).picture, std::vector<std::uint8_t>(8, 7));
    expect_flags(0, 0);

    refresh_well();
    EXPECT_EQ(take_trace(), drawings({3}));
}

TEST_F(Refresh, slot_that_is_off_and_has_no_osd_is_left_alone)
{
    set_modes({OSD_MODE_OFF, OSD_MODE_OFF, OSD_MODE_OFF, OSD_MODE_OFF});
    open();
    post_->refresh_all = 1;
    refresh_well();
    EXPECT_EQ(take_trace(), Lines{});
    expect_flags(0, 0);
}

TEST_F(Refresh, slot_switched_off_waits_for_the_next_full_redraw)
{
    open();
    refresh_well();
    take_trace();
    set_modes({});
    refresh_well();
    EXPECT_EQ(take_trace(), Lines{});
    EXPECT_TRUE(codec::osd(HANDLES[3]).shown);

    post_->refresh_all = 1;
    refresh_well();
    EXPECT_EQ(take_trace(), (Lines{"clear_osd(0x11, 0x101)", "clear_osd(0x11, 0x102)",
                                   "clear_osd(0x11, 0x103)", "clear_osd(0x11, 0x104)"}));
    EXPECT_EQ(post_->osd[3].handle, HANDLES[3]);
}

TEST_F(Refresh, clearing_that_fails_is_reported_and_the_redraw_succeeds)
{
    use_post(1);
    open();
    post_->rect[0].mode = OSD_MODE_OFF;
    post_->rect[2].mode = OSD_MODE_OFF;
    post_->date_changed = 1;
    codec::fail(codec::CLEAR_OSD, 1, codec::SOME_ERROR, 2);
    EXPECT_EQ(refresh(), 0);
    EXPECT_EQ(errors_, call_failed("qm5_cl_post_clear_osd", HANDLES[0], "osd_clear") +
                           report("server", "post 1 osd 0 clear error", "osd_refresh_all") +
                           call_failed("qm5_cl_post_clear_osd", HANDLES[2], "osd_clear") +
                           report("server", "post 1 osd 2 clear error", "osd_refresh_all"));
    EXPECT_EQ(take_trace(), Lines{"clear_osd(0x11, 0x101)"} + drawings({1}) +
                                Lines{"clear_osd(0x11, 0x103)"} + drawings({3}));
    EXPECT_EQ(post_->osd[0].handle, HANDLES[0]);
    expect_flags(0, 0);
}

TEST_F(Refresh, post_that_goes_during_a_redraw_is_no_failure)
{
    for (const std::uint32_t error : GONE) {
        codec::reset();
        codec::set_size(200, 150);
        set_modes({OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT});
        set_rectangle(3, 1, 2, 4, 4);
        open();
        post_->rect[1].mode = OSD_MODE_OFF;
        codec::fail(codec::GET_OSD_MEM, 1, error);
        codec::fail(codec::CLEAR_OSD, 1, error);
        codec::fail(codec::SET_OSD, 1, error);
        refresh_well();
        EXPECT_EQ(take_trace(), (Lines{"get_osd_mem(0x11, 0x101)", "clear_osd(0x11, 0x102)"}) +
                                    drawings({2}) + drawing(HANDLES[3], "1, 2"));
        EXPECT_EQ(codec::osd(HANDLES[0]).words[0], 0xA5A5A5A5u); // as it was
        EXPECT_FALSE(codec::osd(HANDLES[2]).shown);
        EXPECT_TRUE(codec::osd(HANDLES[3]).shown);
        expect_flags(0, 0);
    }
}

// ---- Failures of a full redraw ------------------------------------------------------------------

struct FailedRedraw {
    int nth; // drawing that fails
    int slot;
    std::array<const char *, OSD_SLOTS> asked;
};

// Drawn in the order 1, 2, 0, 3.
const FailedRedraw FAILED_REDRAWS[] = {
    {1, 1, {"x/y=0/0 w/h=0/0", "x/y=0/142 w/h=60/8", "x/y=0/0 w/h=0/0", "x/y=0/0 w/h=0/0"}},
    {2, 2, {"x/y=0/0 w/h=0/0", "x/y=0/142 w/h=60/8", "x/y=128/0 w/h=72/8", "x/y=0/0 w/h=0/0"}},
    {3, 0, {"x/y=5/6 w/h=7/8", "x/y=0/142 w/h=60/8", "x/y=128/0 w/h=72/8", "x/y=0/0 w/h=0/0"}},
    {4,
     3,
     {"x/y=5/6 w/h=7/8", "x/y=0/142 w/h=60/8", "x/y=128/0 w/h=72/8", "x/y=9/65535 w/h=11/12"}},
};

TEST_F(Refresh, redraw_that_fails_ends_there_and_tells_what_was_asked)
{
    use_post(2);
    for (const FailedRedraw &row : FAILED_REDRAWS) {
        codec::reset();
        codec::set_size(200, 150);
        set_modes({OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT});
        set_rectangle(0, 5, 6, 7, 8);
        set_rectangle(3, 9, 65535, 11, 12);
        open();
        post_->date_changed = 1;
        codec::fail(codec::SET_OSD, row.nth, codec::SOME_ERROR);
        EXPECT_EQ(refresh(), -14);
        const bool rectangle = row.slot == 0 || row.slot == 3;
        EXPECT_EQ(errors_, call_failed("qm5_cl_post_set_osd", HANDLES[row.slot],
                                       rectangle ? "osd_show_rectangle" : "osd_show") +
                               redraw_failed(row.slot, row.asked));
        const Lines all =
            drawings({1, 2}) + drawing(HANDLES[0], "5, 6") + drawing(HANDLES[3], "9, 65535");
        EXPECT_EQ(take_trace(), Lines(all.begin(), all.begin() + row.nth * 2));
        expect_flags(0, 0);

        refresh_well(); // nothing retries it
        EXPECT_EQ(take_trace(), Lines{});
    }
}

TEST_F(Refresh, failed_redraw_tells_the_low_16_bits_of_what_was_asked)
{
    open();
    post_->safe_space_left = 0x12345;
    post_->safe_space_up = -3u;
    post_->osd[0].target_width = 0x50100;
    codec::fail(codec::GET_OSD_MEM, 1, codec::SOME_ERROR);
    EXPECT_EQ(refresh(), -14);
    EXPECT_EQ(errors_, call_failed("qm5_cl_post_get_osd_mem", HANDLES[0], "osd_show") +
                           redraw_failed(0, {"x/y=9029/65533 w/h=256/8", "x/y=0/0 w/h=0/0",
                                             "x/y=0/0 w/h=0/0", "x/y=0/0 w/h=0/0"}));
}

TEST_F(Refresh, rectangle_that_grew_without_a_reopen_fails_the_redraw)
{
    set_modes({});
    set_rectangle(1, 5, 6, 8, 3, 0);
    open();
    post_->rect[1].h = 4;
    EXPECT_EQ(refresh(), -14);
    EXPECT_EQ(errors_, "ERR:#qm5osd:[server]=osd memory over: targetWidth=8 height=4 colorType=0\n"
                       "(osd_show_rectangle)\n" +
                           redraw_failed(1, {"x/y=0/0 w/h=0/0", "x/y=5/6 w/h=8/4",
                                             "x/y=0/0 w/h=0/0", "x/y=0/0 w/h=0/0"}));
    EXPECT_EQ(take_trace(), Lines{"get_osd_mem(0x11, 0x101)"});
}

TEST_F(Refresh, clearing_that_failed_before_does_not_hide_a_failed_redraw)
{
    open();
    post_->rect[0].mode = OSD_MODE_OFF;
    codec::fail(codec::CLEAR_OSD, 1, codec::SOME_ERROR);
    codec::fail(codec::GET_OSD_MEM, 1, codec::SOME_ERROR);
    EXPECT_EQ(refresh(), -14);
    EXPECT_EQ(errors_, call_failed("qm5_cl_post_clear_osd", HANDLES[0], "osd_clear") +
                           report("server", "post 0 osd 0 clear error", "osd_refresh_all") +
                           call_failed("qm5_cl_post_get_osd_mem", HANDLES[1], "osd_show") +
                           redraw_failed(1, {"x/y=0/0 w/h=0/0", "x/y=0/142 w/h=60/8",
                                             "x/y=0/0 w/h=0/0", "x/y=0/0 w/h=0/0"}));
}

// ---- Late opens ---------------------------------------------------------------------------------

// The calls for opening a text late.
Lines late_open(unsigned slot)
{
    constexpr const char *texts[] = {"0, 132x8, type 2", "1, 60x8, type 1", "2, 72x8, type 0",
                                     "3, 60x8, type 0"};
    return {"get_status(0x11)", std::string("open_osd(0x11, ") + texts[slot] + ")"};
}

TEST_F(Refresh, slots_switched_on_late_are_opened_in_order_and_all_is_redrawn)
{
    set_modes({OSD_MODE_TEXT, OSD_MODE_OFF, OSD_MODE_OFF, OSD_MODE_OFF});
    open_quietly();
    set_modes({OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_OFF, OSD_MODE_TEXT});
    refresh_well();
    EXPECT_EQ(take_trace(), late_open(1) + late_open(3) + drawing(0x101, "0, 0") +
                                drawing(0x102, "0, 142") + drawing(0x103, "140, 142"));
    expect_flags(0, 0);
    EXPECT_EQ(post_->opened, 1);
    expect_text(0x103, " 12:34:56 ", 3, 1);

    refresh_well();
    EXPECT_EQ(take_trace(), drawing(0x103, "140, 142"));
}

TEST_F(Refresh, rectangle_switched_on_late_is_opened_too)
{
    set_modes({});
    open_quietly();
    set_rectangle(2, 30, 20, 9, 2, 1, 5);
    refresh_well();
    EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", "open_osd(0x11, 2, 9x2, type 1)"}) +
                                drawing(0x101, "30, 20"));
    EXPECT_EQ(codec::osd(0x101).index_at(8, 1), 5u);
    EXPECT_EQ(codec::osd(0x101).index_at(9, 1), 0u);
}

TEST_F(Refresh, failed_late_open_draws_nothing_and_closes_the_slots_below_until_it_succeeds)
{
    set_modes({OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_OFF, OSD_MODE_TEXT});
    open_quietly();
    post_->rect[2].mode = OSD_MODE_TEXT;
    post_->date_changed = 1;
    const std::string failed = report("server", "qm5_cl_post_open_osd() failed. errno=0x81E01234",
                                      "osd_do_callback_open_one") +
                               report("server", "Post0Osd2", "osd_do_callback_open_one");

    codec::fail(codec::OPEN_OSD, 1, codec::SOME_ERROR);
    EXPECT_EQ(refresh(), 0);
    EXPECT_EQ(errors_, failed);
    EXPECT_EQ(take_trace(),
              late_open(2) + (Lines{"close_osd(0x11, 0x102)", "close_osd(0x11, 0x101)"}));
    expect_flags(0, 1);
    EXPECT_EQ(post_->opened, 1);
    EXPECT_EQ(std::string(osd_state.time_scratch), "12:34:56");
    EXPECT_EQ(post_->rect[3].text, nullptr);

    // The next pass opens those below again, fails again, and takes them back again.
    codec::fail(codec::OPEN_OSD, 3, codec::SOME_ERROR);
    EXPECT_EQ(refresh(), 0);
    EXPECT_EQ(errors_, failed);
    EXPECT_EQ(take_trace(), late_open(0) + late_open(1) + late_open(2) +
                                (Lines{"close_osd(0x11, 0x105)", "close_osd(0x11, 0x104)"}));
    expect_flags(1, 1); // of the two that were open for a while

    refresh_well();
    EXPECT_EQ(take_trace(), late_open(0) + late_open(1) + late_open(2) + drawing(0x106, "0, 0") +
                                drawing(0x107, "0, 142") + drawing(0x108, "128, 0") +
                                drawing(0x103, "140, 142"));
    expect_flags(0, 0);
}

TEST_F(Refresh, late_open_of_a_picture_that_will_not_do_draws_nothing_and_is_tried_again)
{
    set_modes({OSD_MODE_OFF, OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT});
    open();
    post_->rect[0].mode = OSD_MODE_TEXT;
    codec::set_size(135, 100);
    for (const int pass : {1, 2}) {
        SCOPED_TRACE(pass);
        EXPECT_EQ(refresh(), 0);
        EXPECT_EQ(errors_, report("server", "video width is invalid.(W/H=135/100)",
                                  "osd_do_callback_open_one"));
        EXPECT_EQ(take_trace(), Lines{"get_status(0x11)"});
        expect_flags(1, 0);
    }
}

TEST_F(Refresh, refused_late_open_ends_with_this_pass)
{
    set_modes({OSD_MODE_TEXT, OSD_MODE_OFF, OSD_MODE_TEXT, OSD_MODE_TEXT});
    open();
    post_->rect[1].mode = OSD_MODE_TEXT;
    post_->date_changed = 1;
    codec::fail(codec::OPEN_OSD, 1, REFUSED);
    EXPECT_EQ(refresh(), 0);
    EXPECT_EQ(errors_, report("server", "qm5_cl_post_open_osd() failed. errno=0x81E03246",
                              "osd_do_callback_open_one") +
                           report("server", "Post0Osd1", "osd_do_callback_open_one"));
    EXPECT_EQ(take_trace(), late_open(1) + drawing(0x102, "128, 0") + drawing(0x103, "140, 142"));
    EXPECT_EQ(post_->opened, 0);
    expect_flags(0, 0);

    refresh_well();
    EXPECT_EQ(take_trace(), Lines{});
}

TEST_F(Refresh, late_open_behind_a_refused_one_opens_the_post_again)
{
    set_modes({OSD_MODE_OFF, OSD_MODE_OFF, OSD_MODE_OFF, OSD_MODE_TEXT});
    open_quietly();
    set_modes({OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_OFF, OSD_MODE_TEXT});
    codec::fail(codec::OPEN_OSD, 1, REFUSED);
    EXPECT_EQ(refresh(), 0);
    EXPECT_EQ(errors_, report("server", "qm5_cl_post_open_osd() failed. errno=0x81E03246",
                              "osd_do_callback_open_one") +
                           report("server", "Post0Osd0", "osd_do_callback_open_one"));
    EXPECT_EQ(take_trace(),
              late_open(0) + late_open(1) + drawing(0x102, "0, 142") + drawing(0x101, "140, 142"));
    EXPECT_EQ(post_->opened, 1);
    expect_flags(0, 0);
}

TEST_F(Refresh, post_that_goes_during_a_late_open_is_drawn_without_a_resource_id_once)
{
    set_modes({OSD_MODE_TEXT, OSD_MODE_OFF, OSD_MODE_OFF, OSD_MODE_OFF});
    open_quietly();
    set_modes({OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_OFF});
    codec::fail(codec::OPEN_OSD, 1, GONE[2]);
    codec::fail(codec::GET_OSD_MEM, 1, GONE[2], 4);
    refresh_well();
    EXPECT_EQ(take_trace(), late_open(1) + Lines{"get_osd_mem(0x0, 0x101)"});
    EXPECT_EQ(post_->res_id, 0u);
    EXPECT_EQ(post_->opened, 1);
    expect_flags(0, 0);

    refresh_well();
    EXPECT_EQ(take_trace(), Lines{});
}

class RefreshInAnotherSize : public Refresh
{
protected:
    // An OSD is open for the size of 352 pixels, a text is switched on when there are 720.
    void SetUp() override
    {
        Refresh::SetUp();
        real_font_ = support::real_font();
        post_->font_file = real_font_.c_str();
        codec::set_size(352, 288);
        set_modes({});
    }

    void grow()
    {
        open_quietly();
        post_->rect[1].mode = OSD_MODE_TEXT;
        codec::set_size(720, 576);
    }

    std::string real_font_;
};

TEST_F(RefreshInAnotherSize, late_open_makes_older_texts_fail_their_size_and_ends_the_process)
{
    post_->rect[0].mode = OSD_MODE_TEXT;
    grow();
    EXPECT_EXIT(osd_refresh(post_), testing::KilledBySignal(SIGABRT),
                "font_get_target_bitmap.*Assertion `targetSize == targetWidth \\* "
                "targetHeight \\* pixelSize / 8' failed");
}

TEST_F(RefreshInAnotherSize, late_open_does_no_harm_to_older_rectangles)
{
    set_rectangle(0, 3, 4, 8, 2);
    grow();
    refresh_well();
    EXPECT_EQ(post_->font_engine.size, 28u);
    EXPECT_EQ(codec::osd(0x102).param.height, 28);
    EXPECT_EQ(codec::osd(0x101).picture, std::vector<std::uint8_t>(16, 7));
    expect_text(0x102, " AaA ", 3, 4);
    EXPECT_TRUE(codec::sentinels_are_intact());
}

} // namespace
