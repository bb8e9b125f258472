// Screen layout: the opening of a post's OSDs, and the places of its texts.
#include "display/layout.h"
#include "display/qm5codec.h"
#include "support/bdf_font.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"
#include "support/trace.h"
#include "support/wraps.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
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
constexpr std::uint8_t FLAGS[] = {0, 1};
constexpr std::uint32_t REFUSED = 0x81E03246;
constexpr std::uint32_t EVERY_ERROR[] = {GONE[0], GONE[1], GONE[2], REFUSED, codec::SOME_ERROR};

// What one slot holds of the library: handle, aux, target_width.
typedef std::array<std::uint32_t, 3> Area;
typedef std::array<Area, OSD_SLOTS> Areas;
constexpr Area NO_AREA = {0, 0, 0};

// The texts' OSDs in cells of 6 pixels at font size 8, as the first four that are opened.
constexpr const char *TEXT_SIZES[] = {"132x8, type 2", "60x8, type 1", "72x8, type 0",
                                      "60x8, type 0"};
constexpr Areas TEXT_AREAS = {{{0x101, 0xA0000101, 132},
                               {0x102, 0xA0000102, 60},
                               {0x103, 0xA0000103, 72},
                               {0x104, 0xA0000104, 60}}};

// OSDs of an earlier time that are still in the table.
constexpr Areas OLD_AREAS = {{{0x91, 1, 11}, {0x92, 2, 12}, {0x93, 3, 13}, {0x94, 4, 14}}};

// The two opens, to be held to what they have in common.
struct Opener {
    const char *name;
    int (*open)(osd_post *post, int slot);
};
constexpr Opener OPEN = {"osd_do_callback_open",
                         [](osd_post *post, int) { return osd_do_callback_open(post); }};
constexpr Opener OPEN_ONE = {"osd_do_callback_open_one", osd_do_callback_open_one};
constexpr Opener OPENERS[] = {OPEN, OPEN_ONE};

std::string hexadecimal(std::uint32_t word)
{
    char text[9];
    std::snprintf(text, sizeof text, "%08X", word);
    return text;
}

std::string call_failed(const std::string &call, std::uint32_t error, const char *reporter)
{
    return report("server", call + "() failed. errno=0x" + hexadecimal(error), reporter);
}

std::string open_failed(std::uint32_t error, const std::string &slot, const char *reporter)
{
    return call_failed("qm5_cl_post_open_osd", error, reporter) + report("server", slot, reporter);
}

std::string opening(int slot, const char *res_id = "0x11")
{
    return std::string("open_osd(") + res_id + ", " + std::to_string(slot) + ", " +
           TEXT_SIZES[slot] + ")";
}

class Layout : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        begin();
    }

    void TearDown() override
    {
        support::remove_file(font_file_);
        OsdTest::TearDown();
    }

    // A post whose thread has just come up, with its four texts to be shown on a picture for font
    // size 8.
    void begin(int number = 0)
    {
        end();
        codec::reset();
        take_trace();
        cmn_role = "server";
        post_ = &osd_state.post[number];
        post_->res_id = RES_ID;
        use_font(support::small_font());
        set_modes({OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT});
        codec::set_size(200, 150);
    }

    void end()
    {
        if (post_->font_engine.library)
            font_clear_engine(&post_->font_engine);
        std::memset(static_cast<void *>(post_), 0, sizeof *post_);
    }

    // A new file each time: a live engine may still have the last one.
    void use_font(const support::BdfFont &font)
    {
        if (!font_file_.empty())
            support::remove_file(font_file_);
        font_file_ = support::make_font(font);
        post_->font_file = font_file_.c_str();
    }

    void use_font_size(unsigned size)
    {
        support::BdfFont font = support::small_font();
        font.ascent = static_cast<int>(size) - font.descent;
        use_font(font);
    }

    void set_modes(const std::array<std::uint32_t, OSD_SLOTS> &modes)
    {
        for (int slot = 0; slot < OSD_SLOTS; slot++)
            post_->rect[slot].mode = modes[static_cast<unsigned>(slot)];
    }

    void set_rectangle(int slot, std::uint16_t w, std::uint16_t h, std::uint32_t color_type)
    {
        post_->rect[slot].mode = OSD_MODE_RECTANGLE;
        post_->rect[slot].w = w;
        post_->rect[slot].h = h;
        post_->rect[slot].color_type = color_type;
    }

    void set_safe_spaces(std::uint32_t left, std::uint32_t right, std::uint32_t up,
                         std::uint32_t down)
    {
        post_->safe_space_left = left;
        post_->safe_space_right = right;
        post_->safe_space_up = up;
        post_->safe_space_down = down;
    }

    // Something in every field that an open writes.
    void set_marks(std::uint8_t opened = 1, std::uint8_t refresh_all = 1)
    {
        post_->opened = opened;
        post_->refresh_all = refresh_all;
        post_->date_offset_y = 5;
        set_areas(OLD_AREAS);
    }

    void set_areas(const Areas &areas)
    {
        for (unsigned slot = 0; slot < OSD_SLOTS; slot++)
            post_->osd[slot] = {areas[slot][0], areas[slot][1], areas[slot][2]};
    }

    Areas areas() const
    {
        Areas all;
        for (unsigned slot = 0; slot < OSD_SLOTS; slot++) {
            const osd_area &area = post_->osd[slot];
            all[slot] = {area.handle, area.aux, area.target_width};
        }
        return all;
    }

    void expect_flags(int opened, int refresh_all) const
    {
        EXPECT_EQ(post_->opened, opened);
        EXPECT_EQ(post_->refresh_all, refresh_all);
    }

    std::vector<char> bytes() const
    {
        const auto *first = reinterpret_cast<const char *>(post_);
        return {first, first + sizeof *post_};
    }

    // The open must be refused with this report before it has changed anything but the video size.
    void expect_refused_picture(const Opener &opener, const std::string &message)
    {
        SCOPED_TRACE(message);
        set_marks();
        std::vector<char> before = bytes();
        int result = 1;
        EXPECT_EQ(errors_of([&] { result = opener.open(post_, 0); }),
                  report("server", message, opener.name));
        EXPECT_EQ(result, -14);
        EXPECT_EQ(take_trace(), Lines{"get_status(0x11)"});

        std::memcpy(before.data() + offsetof(osd_post, video_width), &post_->video_width, 4);
        std::memcpy(before.data() + offsetof(osd_post, video_height), &post_->video_height, 4);
        EXPECT_TRUE(bytes() == before);
    }

    // Opens with a result of 0 and without a report.
    void open_well(const Opener &opener = OPEN, int slot = 0)
    {
        int result = 1;
        EXPECT_EQ(errors_of([&] { result = opener.open(post_, slot); }), "");
        EXPECT_EQ(result, 0);
    }

    osd_post *post_ = &osd_state.post[0];
    std::string font_file_;
};

// ---- The picture --------------------------------------------------------------------------------

TEST_F(Layout, post_without_a_thread_is_left_alone)
{
    for (const Opener &opener : OPENERS) {
        begin();
        set_marks();
        post_->res_id = 0;
        const std::vector<char> before = bytes();
        open_well(opener);
        EXPECT_TRUE(bytes() == before);
        EXPECT_EQ(take_trace(), Lines{});
    }
}

TEST_F(Layout, status_that_cannot_be_had_fails_the_open_whatever_the_reason)
{
    for (const Opener &opener : OPENERS) {
        for (const std::uint32_t error : EVERY_ERROR) {
            begin();
            set_marks();
            post_->video_width = 77;
            post_->video_height = 66;
            const std::vector<char> before = bytes();
            codec::fail(codec::GET_STATUS, 1, error);
            int result = 1;
            EXPECT_EQ(errors_of([&] { result = opener.open(post_, 0); }),
                      call_failed("qm5_cl_post_thread_get_status", error, opener.name));
            EXPECT_EQ(result, -14);
            EXPECT_TRUE(bytes() == before);
            EXPECT_EQ(take_trace(), Lines{"get_status(0x11)"});
        }
    }
}

TEST_F(Layout, width_below_136_is_refused_and_the_size_is_kept)
{
    for (const Opener &opener : OPENERS) {
        begin();
        codec::set_size(135, 90);
        expect_refused_picture(opener, "video width is invalid.(W/H=135/90)");
        EXPECT_EQ(post_->video_width, 135u);
        EXPECT_EQ(post_->video_height, 90u);

        codec::set_size(0, 65535);
        expect_refused_picture(opener, "video width is invalid.(W/H=0/65535)");
        EXPECT_EQ(post_->video_width, 0u);
        EXPECT_EQ(post_->video_height, 65535u);
    }
}

TEST_F(Layout, refused_picture_leaves_a_live_engine_alone)
{
    open_well();
    const FT_Library library = post_->font_engine.library;
    take_trace();
    codec::set_size(135, 90);
    expect_refused_picture(OPEN_ONE, "video width is invalid.(W/H=135/90)");
    ASSERT_EQ(post_->font_engine.library, library);
    EXPECT_EQ(post_->font_engine.face->size->metrics.y_ppem, support::SMALL_FONT_SIZE);
}

struct Spaces {
    std::uint32_t one, other;
};

TEST_F(Layout, safe_spaces_at_the_sides_must_leave_136_pixels)
{
    for (const Opener &opener : OPENERS) {
        for (const Spaces &good : {Spaces{64, 0}, Spaces{0, 64}, Spaces{32, 32}}) {
            begin();
            set_safe_spaces(good.one, good.other, 0, 0);
            open_well(opener);
            EXPECT_EQ(post_->font_engine.size, 8u);
        }
        struct {
            Spaces spaces;
            const char *shown;
        } const bad[] = {
            {{65, 0}, "65/0"},         {{0, 65}, "0/65"},
            {{32, 33}, "32/33"},       {{33, 32}, "33/32"},
            {{1, 0xFFFFFFFF}, "1/-1"}, // sums that wrap to something small
            {{0xFFFFFFFF, 1}, "-1/1"}, {{0x80000000, 0x80000000}, "-2147483648/-2147483648"},
        };
        for (const auto &row : bad) {
            begin();
            set_safe_spaces(row.spaces.one, row.spaces.other, 0, 0);
            expect_refused_picture(opener,
                                   std::string("safe space is invalid.(safe space left/right=") +
                                       row.shown + ")");
            EXPECT_EQ(post_->video_width, 200u);
            EXPECT_EQ(post_->video_height, 150u);
        }
    }
}

TEST_F(Layout, safe_spaces_above_and_below_must_leave_16_lines_of_the_layout)
{
    // 200 pixels less 20 and 10 at the sides make a layout of 127 lines.
    for (const Opener &opener : OPENERS) {
        for (const Spaces &good : {Spaces{111, 0}, Spaces{0, 111}, Spaces{55, 56}}) {
            begin();
            set_safe_spaces(20, 10, good.one, good.other);
            open_well(opener);
            EXPECT_EQ(post_->font_engine.size, 8u);
        }
        struct {
            Spaces spaces;
            const char *shown;
        } const bad[] = {
            {{112, 0}, "112/0"},       {{0, 112}, "0/112"},       {{56, 56}, "56/56"},
            {{2, 0xFFFFFFFE}, "2/-2"}, {{0xFFFFFFFE, 2}, "-2/2"},
        };
        for (const auto &row : bad) {
            begin();
            set_safe_spaces(20, 10, row.spaces.one, row.spaces.other);
            expect_refused_picture(opener, std::string("safe space is invalid.(safe space up/dn=") +
                                               row.shown + ")");
        }
    }
}

TEST_F(Layout, width_is_checked_before_the_sides_and_those_before_the_rest)
{
    set_safe_spaces(9000, 0, 9000, 0);
    codec::set_size(135, 90);
    expect_refused_picture(OPEN, "video width is invalid.(W/H=135/90)");
    codec::set_size(200, 150);
    expect_refused_picture(OPEN, "safe space is invalid.(safe space left/right=9000/0)");
    post_->safe_space_left = 0;
    expect_refused_picture(OPEN, "safe space is invalid.(safe space up/dn=9000/0)");
}

// ---- The font -----------------------------------------------------------------------------------

struct SizeRow {
    std::uint16_t width;
    std::uint32_t left, right, up, down;
    std::uint32_t size;
};

// Where a row has a neighbour, the size steps between the two.
constexpr SizeRow SIZES[] = {
    {136, 0, 0, 0, 0, 8},      {200, 0, 0, 134, 0, 8},    {203, 0, 0, 0, 0, 8},
    {227, 0, 0, 0, 0, 8},      {228, 0, 0, 0, 0, 9},      {253, 0, 0, 0, 0, 9},
    {254, 0, 0, 0, 0, 10},     {352, 0, 0, 0, 0, 13},     {352, 0, 0, 17, 0, 13},
    {352, 0, 0, 9, 9, 12},     {354, 1, 1, 0, 17, 13},    {353, 1, 1, 0, 17, 12},
    {720, 0, 0, 0, 0, 28},     {720, 36, 36, 24, 24, 23}, {720, 72, 0, 0, 48, 23},
    {720, 0, 72, 48, 0, 23},   {1280, 0, 0, 0, 0, 50},    {1920, 0, 0, 0, 0, 75},
    {65535, 0, 0, 0, 0, 2586},
};

TEST_F(Layout, font_size_follows_from_the_width_between_the_safe_spaces)
{
    for (const SizeRow &row : SIZES) {
        SCOPED_TRACE(row.width);
        begin();
        set_modes({});
        use_font_size(row.size);
        codec::set_size(row.width, 16);
        set_safe_spaces(row.left, row.right, row.up, row.down);
        open_well();
        EXPECT_EQ(post_->font_engine.size, row.size);
        EXPECT_NE(post_->font_engine.library, nullptr);
        EXPECT_EQ(post_->video_width, row.width);
        EXPECT_EQ(post_->video_height, 16u);
    }
}

TEST_F(Layout, height_of_the_picture_has_no_part_in_the_font_size)
{
    constexpr std::uint16_t heights[] = {0, 1, 16, 150, 65535};
    for (const std::uint16_t height : heights) {
        begin();
        codec::set_size(200, height);
        set_safe_spaces(0, 0, 67, 67);
        open_well();
        EXPECT_EQ(post_->font_engine.size, 8u);
        EXPECT_EQ(post_->video_height, height);
        EXPECT_EQ(areas(), TEXT_AREAS);
    }
}

TEST_F(Layout, every_open_makes_the_engine_anew)
{
    for (const Opener &opener : OPENERS) {
        begin();
        set_modes({}); // also for a slot that is off
        wraps::trace(wraps::FT_INIT_FREETYPE);
        wraps::trace(wraps::FT_DONE_FREETYPE);
        post_->date_offset_y = 5;
        open_well(opener);
        EXPECT_EQ(post_->date_offset_y, 0u);
        EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", "FT_Init_FreeType()"}));

        use_font_size(13);
        codec::set_size(352, 288);
        post_->date_offset_y = 5;
        open_well(opener);
        EXPECT_EQ(post_->date_offset_y, 0u);
        EXPECT_EQ(post_->font_engine.size, 13u);
        EXPECT_EQ(take_trace(),
                  (Lines{"get_status(0x11)", "FT_Done_FreeType()", "FT_Init_FreeType()"}));
    }
}

TEST_F(Layout, engine_that_cannot_be_made_fails_the_open_and_the_old_one_is_gone)
{
    struct {
        const char *font_file;
        const char *message;
    } const rows[] = {
        {nullptr, "invalid parameter"},
        {"/tmp/none.bdf", "New_Face error. font file: /tmp/none.bdf"},
    };
    for (const Opener &opener : OPENERS) {
        for (const auto &row : rows) {
            begin();
            open_well();
            take_trace();
            set_marks(1, 0);
            post_->font_file = row.font_file;
            int result = 1;
            EXPECT_EQ(errors_of([&] { result = opener.open(post_, 0); }),
                      report("server", row.message, "font_init_engine") +
                          report("server", "initialize font engine failed", opener.name));
            EXPECT_EQ(result, -14);
            EXPECT_EQ(take_trace(), Lines{"get_status(0x11)"});
            EXPECT_EQ(post_->font_engine.library, nullptr);
            EXPECT_EQ(post_->date_offset_y, 0u);
            EXPECT_EQ(areas(), OLD_AREAS);
            expect_flags(1, 0);
        }
    }
}

TEST_F(Layout, engine_of_a_font_without_the_size_fails_the_open)
{
    codec::set_size(228, 150); // asks for size 9 of a font that has only 8
    int result = 1;
    EXPECT_EQ(errors_of([&] { result = osd_do_callback_open(post_); }),
              report("server", "request size error", "font_init_engine") +
                  report("server", "initialize font engine failed", "osd_do_callback_open"));
    EXPECT_EQ(result, -14);
    EXPECT_EQ(areas(), Areas{});
    expect_flags(0, 0);
}

// ---- The slots of an open -----------------------------------------------------------------------

TEST_F(Layout, open_opens_the_four_texts_in_order)
{
    open_well();
    EXPECT_EQ(take_trace(),
              (Lines{"get_status(0x11)", opening(0), opening(1), opening(2), opening(3)}));
    EXPECT_EQ(areas(), TEXT_AREAS);
    expect_flags(1, 1);
    EXPECT_EQ(post_->res_id, RES_ID);
}

TEST_F(Layout, open_changes_nothing_but_what_it_has_found_and_made)
{
    for (const Opener &opener : OPENERS) {
        begin();
        std::memset(post_->date_text, 'd', sizeof post_->date_text);
        std::memset(post_->string_text, 's', sizeof post_->string_text);
        post_->callback_state = OSD_CALLBACK_OPEN;
        set_safe_spaces(4, 3, 2, 1);
        post_->opened = 1;
        post_->refresh_all = 1;
        std::vector<char> before = bytes();
        open_well(opener);

        const auto take_over = [&](std::size_t offset, std::size_t size) {
            std::memcpy(before.data() + offset, bytes().data() + offset, size);
        };
        take_over(offsetof(osd_post, video_width), sizeof post_->video_width);
        take_over(offsetof(osd_post, video_height), sizeof post_->video_height);
        take_over(offsetof(osd_post, osd), sizeof post_->osd);
        take_over(offsetof(osd_post, font_engine), sizeof post_->font_engine);
        EXPECT_TRUE(bytes() == before);
    }
}

TEST_F(Layout, text_takes_nothing_from_the_rectangle_of_its_slot)
{
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        set_rectangle(slot, 33, 44, 2);
        post_->rect[slot].mode = OSD_MODE_TEXT;
    }
    post_->rect[2].mode = 3; // any other mode is a text, too
    open_well();
    EXPECT_EQ(take_trace(),
              (Lines{"get_status(0x11)", opening(0), opening(1), opening(2), opening(3)}));
    EXPECT_EQ(areas(), TEXT_AREAS);
}

TEST_F(Layout, rectangle_is_opened_in_its_own_size_and_colour_type)
{
    set_rectangle(0, 5, 3, 0);
    set_rectangle(1, 100, 7, 1);
    set_rectangle(2, 65535, 2, 2);
    set_rectangle(3, 0, 0, 2);
    codec::set_line_alignment(64);
    open_well();
    EXPECT_EQ(take_trace(),
              (Lines{"get_status(0x11)", "open_osd(0x11, 0, 5x3, type 0)",
                     "open_osd(0x11, 1, 100x7, type 1)", "open_osd(0x11, 2, 65535x2, type 2)",
                     "open_osd(0x11, 3, 0x0, type 2)"}));
    EXPECT_EQ(areas(), (Areas{{{0x101, 0xA0000101, 256},
                               {0x102, 0xA0000102, 128},
                               {0x103, 0xA0000103, 65536},
                               {0x104, 0xA0000104, 0}}}));
}

TEST_F(Layout, line_of_a_text_may_be_longer_than_it_was_asked_for)
{
    codec::set_line_alignment(64);
    open_well();
    EXPECT_EQ(areas(), (Areas{{{0x101, 0xA0000101, 192},
                               {0x102, 0xA0000102, 128},
                               {0x103, 0xA0000103, 256},
                               {0x104, 0xA0000104, 256}}}));
}

TEST_F(Layout, text_is_as_wide_as_its_cells_in_the_low_16_bits)
{
    support::BdfFont font = support::small_font();
    font.glyphs.push_back({'~', 0, 6, {std::string(2979, '#')}});
    font.advance = 2979;
    use_font(font);
    open_well();
    ASSERT_EQ(post_->font_engine.maxAdvance, 2979);
    EXPECT_EQ(take_trace(),
              (Lines{"get_status(0x11)", "open_osd(0x11, 0, 2x8, type 2)", // 65538
                     "open_osd(0x11, 1, 29790x8, type 1)", "open_osd(0x11, 2, 35748x8, type 0)",
                     "open_osd(0x11, 3, 29790x8, type 0)"}));
}

TEST_F(Layout, text_is_opened_in_the_cells_and_the_size_of_a_real_font)
{
    const std::string font = support::real_font();
    post_->font_file = font.c_str();
    codec::set_size(720, 576);
    open_well();
    const std::int32_t cell = post_->font_engine.maxAdvance;
    ASSERT_GT(cell, 0);
    const auto open = [&](int slot, int cells, int type) {
        return "open_osd(0x11, " + std::to_string(slot) + ", " + std::to_string(cells * cell) +
               "x28, type " + std::to_string(type) + ")";
    };
    EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", open(0, 22, 2), open(1, 10, 1),
                                   open(2, 12, 0), open(3, 10, 0)}));
}

TEST_F(Layout, slot_that_is_off_is_skipped_and_nothing_is_stored_for_it)
{
    set_modes({OSD_MODE_OFF, OSD_MODE_TEXT, OSD_MODE_OFF, OSD_MODE_TEXT});
    set_areas(OLD_AREAS);
    open_well();
    EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", opening(1), opening(3)}));
    EXPECT_EQ(
        areas(),
        (Areas{{OLD_AREAS[0], {0x101, 0xA0000101, 60}, OLD_AREAS[2], {0x102, 0xA0000102, 60}}}));
    expect_flags(1, 1);
}

TEST_F(Layout, post_with_all_slots_off_is_opened_with_nothing_to_draw)
{
    set_modes({});
    post_->refresh_all = 1;
    open_well();
    EXPECT_EQ(take_trace(), Lines{"get_status(0x11)"});
    EXPECT_EQ(areas(), Areas{});
    expect_flags(1, 0);
    EXPECT_NE(post_->font_engine.library, nullptr);
}

TEST_F(Layout, any_slot_that_is_on_asks_for_a_full_redraw)
{
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        begin();
        set_modes({});
        set_rectangle(slot, 4, 4, 0);
        open_well();
        expect_flags(1, 1);
    }
}

TEST_F(Layout, resource_id_is_read_anew_for_each_call)
{
    codec::on(codec::GET_STATUS, [this] { post_->res_id = 0x20; });
    codec::on(codec::OPEN_OSD, [this] { post_->res_id = post_->res_id + 1; });
    codec::on(codec::CLOSE_OSD, [this] { post_->res_id = post_->res_id + 0x10; });
    codec::fail(codec::OPEN_OSD, 3, codec::SOME_ERROR);
    EXPECT_EQ(errors_of([&] { osd_do_callback_open(post_); }),
              open_failed(codec::SOME_ERROR, "Post0Osd2", OPEN.name));
    EXPECT_EQ(take_trace(),
              (Lines{"get_status(0x11)", opening(0, "0x20"), opening(1, "0x21"), opening(2, "0x22"),
                     "close_osd(0x23, 0x102)", "close_osd(0x33, 0x101)"}));
}

// ---- Old handles --------------------------------------------------------------------------------

TEST_F(Layout, open_hands_the_library_the_old_handles_and_replaces_them)
{
    std::vector<std::uint32_t> handed;
    set_areas(OLD_AREAS);
    codec::on(codec::OPEN_OSD, [&] { handed.push_back(post_->osd[handed.size()].handle); });
    open_well();
    EXPECT_EQ(handed, (std::vector<std::uint32_t>{0x91, 0x92, 0x93, 0x94}));
    EXPECT_EQ(take_trace(),
              (Lines{"get_status(0x11)", opening(0), opening(1), opening(2), opening(3)}));
    EXPECT_EQ(areas(), TEXT_AREAS);
}

TEST_F(Layout, take_back_closes_the_old_handle_of_a_slot_that_is_off)
{
    set_areas(OLD_AREAS);
    set_modes({OSD_MODE_OFF, OSD_MODE_TEXT, OSD_MODE_TEXT, OSD_MODE_TEXT});
    codec::fail(codec::OPEN_OSD, 2, codec::SOME_ERROR);
    EXPECT_EQ(errors_of([&] { osd_do_callback_open(post_); }),
              open_failed(codec::SOME_ERROR, "Post0Osd2", OPEN.name));
    EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", opening(1), opening(2),
                                   "close_osd(0x11, 0x101)", "close_osd(0x11, 0x91)"}));
    EXPECT_EQ(areas(), (Areas{{NO_AREA, NO_AREA, OLD_AREAS[2], OLD_AREAS[3]}}));
}

TEST_F(Layout, old_handle_outlives_the_post_that_has_gone)
{
    set_areas(OLD_AREAS);
    codec::fail(codec::OPEN_OSD, 2, GONE[0], 3);
    open_well();
    EXPECT_EQ(areas(), (Areas{{TEXT_AREAS[0], {0x92, 0, 0}, {0x93, 0, 0}, {0x94, 0, 0}}}));
}

// ---- Failures of an open ------------------------------------------------------------------------

TEST_F(Layout, gone_post_lets_the_open_end_as_if_good)
{
    for (const std::uint32_t error : GONE) {
        begin();
        codec::fail(codec::OPEN_OSD, 2, error, 3);
        open_well();
        EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", opening(0), opening(1),
                                       opening(2, "0x0"), opening(3, "0x0")}));
        EXPECT_EQ(areas(), (Areas{{TEXT_AREAS[0], NO_AREA, NO_AREA, NO_AREA}}));
        EXPECT_EQ(post_->res_id, 0u);
        expect_flags(1, 1);
        EXPECT_NE(post_->font_engine.library, nullptr);
    }
}

TEST_F(Layout, failure_behind_a_gone_post_takes_back_with_no_resource_id)
{
    codec::fail(codec::OPEN_OSD, 2, GONE[1]);
    codec::on(codec::OPEN_OSD, [] {
        if (codec::calls(codec::OPEN_OSD) == 4)
            codec::fail(codec::OPEN_OSD, 0, codec::SOME_ERROR);
    });
    set_marks(0, 0);
    set_areas({});
    int result = 1;
    EXPECT_EQ(errors_of([&] { result = osd_do_callback_open(post_); }),
              open_failed(codec::SOME_ERROR, "Post0Osd3", OPEN.name));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(take_trace(),
              (Lines{"get_status(0x11)", opening(0), opening(1), opening(2, "0x0"),
                     opening(3, "0x0"), "close_osd(0x0, 0x102)", "close_osd(0x0, 0x101)"}));
    EXPECT_EQ(areas(), Areas{});
    expect_flags(0, 0);
}

TEST_F(Layout, refused_slot_fails_the_open_and_nothing_is_closed)
{
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        begin(2);
        post_->opened = 1;
        post_->refresh_all = 1;
        codec::fail(codec::OPEN_OSD, slot + 1, REFUSED);
        int result = 1;
        EXPECT_EQ(errors_of([&] { result = osd_do_callback_open(post_); }),
                  open_failed(REFUSED, "Post2Osd" + std::to_string(slot), OPEN.name));
        EXPECT_EQ(result, -14);
        expect_flags(0, 0);
        EXPECT_EQ(post_->res_id, RES_ID);
        EXPECT_NE(post_->font_engine.library, nullptr);

        Lines calls = {"get_status(0x11)"};
        Areas left = TEXT_AREAS;
        for (int i = 0; i < OSD_SLOTS; i++) {
            if (i <= slot)
                calls.push_back(opening(i));
            if (i >= slot)
                left[static_cast<unsigned>(i)] = NO_AREA;
        }
        EXPECT_EQ(take_trace(), calls);
        EXPECT_EQ(areas(), left);
    }
}

TEST_F(Layout, failed_slot_takes_the_lower_ones_back_and_the_open_returns_0)
{
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        for (const std::uint8_t flag : FLAGS) {
            begin(3);
            post_->opened = flag;
            post_->refresh_all = flag;
            codec::fail(codec::OPEN_OSD, slot + 1, codec::SOME_ERROR);
            int result = 1;
            EXPECT_EQ(errors_of([&] { result = osd_do_callback_open(post_); }),
                      open_failed(codec::SOME_ERROR, "Post3Osd" + std::to_string(slot), OPEN.name));
            EXPECT_EQ(result, 0);
            expect_flags(flag, flag);
            EXPECT_EQ(post_->res_id, RES_ID);
            EXPECT_NE(post_->font_engine.library, nullptr);
            EXPECT_EQ(areas(), Areas{});

            Lines calls = {"get_status(0x11)"};
            for (int i = 0; i <= slot; i++)
                calls.push_back(opening(i));
            for (int i = slot; i > 0; i--)
                calls.push_back("close_osd(0x11, 0x10" + std::to_string(i) + ")");
            EXPECT_EQ(take_trace(), calls);
        }
    }
}

TEST_F(Layout, take_back_closes_no_slot_without_an_osd_and_empties_it)
{
    set_modes({OSD_MODE_TEXT, OSD_MODE_OFF, OSD_MODE_TEXT, OSD_MODE_TEXT});
    post_->osd[1] = {0, 7, 7};
    codec::fail(codec::OPEN_OSD, 3, codec::SOME_ERROR);
    EXPECT_EQ(errors_of([&] { osd_do_callback_open(post_); }),
              open_failed(codec::SOME_ERROR, "Post0Osd3", OPEN.name));
    EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", opening(0), opening(2), opening(3),
                                   "close_osd(0x11, 0x102)", "close_osd(0x11, 0x101)"}));
    EXPECT_EQ(areas(), Areas{});
}

TEST_F(Layout, take_back_empties_a_slot_that_cannot_be_closed_and_goes_on)
{
    for (const std::uint32_t error : EVERY_ERROR) {
        begin(1);
        codec::fail(codec::OPEN_OSD, 4, codec::SOME_ERROR);
        codec::fail(codec::CLOSE_OSD, 2, error);
        int result = 1;
        EXPECT_EQ(errors_of([&] { result = osd_do_callback_open(post_); }),
                  open_failed(codec::SOME_ERROR, "Post1Osd3", OPEN.name) +
                      call_failed("qm5_cl_post_close_osd", error, OPEN.name) +
                      report("server", "Post1Osd1", OPEN.name));
        EXPECT_EQ(result, 0);
        EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", opening(0), opening(1), opening(2),
                                       opening(3), "close_osd(0x11, 0x103)",
                                       "close_osd(0x11, 0x102)", "close_osd(0x11, 0x101)"}));
        EXPECT_EQ(areas(), Areas{});
        EXPECT_EQ(post_->res_id, RES_ID);
    }
}

// ---- The open of one slot -----------------------------------------------------------------------

TEST_F(Layout, open_one_opens_only_its_slot)
{
    for (unsigned slot = 0; slot < OSD_SLOTS; slot++) {
        begin();
        set_areas(OLD_AREAS);
        post_->osd[slot] = {};
        open_well(OPEN_ONE, static_cast<int>(slot));
        EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", opening(static_cast<int>(slot))}));
        Areas expected = OLD_AREAS;
        expected[slot] = {0x101, 0xA0000101, TEXT_AREAS[slot][2]};
        EXPECT_EQ(areas(), expected);
        expect_flags(1, 1);
        EXPECT_EQ(post_->video_width, 200u);
        EXPECT_EQ(post_->video_height, 150u);
    }
}

TEST_F(Layout, open_one_opens_a_rectangle)
{
    set_rectangle(2, 9, 3, 1);
    open_well(OPEN_ONE, 2);
    EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", "open_osd(0x11, 2, 9x3, type 1)"}));
    EXPECT_EQ(areas(), (Areas{{NO_AREA, NO_AREA, {0x101, 0xA0000101, 10}, NO_AREA}}));
}

TEST_F(Layout, open_one_of_a_slot_that_is_off_makes_the_engine_and_nothing_else)
{
    for (const std::uint8_t flag : FLAGS) {
        begin();
        set_marks(flag, flag);
        post_->rect[1].mode = OSD_MODE_OFF;
        open_well(OPEN_ONE, 1);
        EXPECT_EQ(take_trace(), Lines{"get_status(0x11)"});
        EXPECT_EQ(areas(), OLD_AREAS);
        expect_flags(flag, flag);
        EXPECT_EQ(post_->video_width, 200u);
        EXPECT_EQ(post_->date_offset_y, 0u);
        EXPECT_NE(post_->font_engine.library, nullptr);
    }
}

TEST_F(Layout, open_one_hands_the_library_an_old_handle_and_replaces_it)
{
    std::uint32_t handed = 0;
    set_areas(OLD_AREAS);
    codec::on(codec::OPEN_OSD, [&] { handed = post_->osd[1].handle; });
    open_well(OPEN_ONE, 1);
    EXPECT_EQ(handed, 0x92u);
    EXPECT_EQ(areas(),
              (Areas{{OLD_AREAS[0], {0x101, 0xA0000101, 60}, OLD_AREAS[2], OLD_AREAS[3]}}));
}

TEST_F(Layout, gone_post_lets_open_one_end_as_if_good)
{
    for (const std::uint32_t error : GONE) {
        begin();
        set_areas(OLD_AREAS);
        post_->osd[2] = {0, 7, 7};
        codec::fail(codec::OPEN_OSD, 1, error);
        open_well(OPEN_ONE, 2);
        EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", opening(2)}));
        EXPECT_EQ(areas(), (Areas{{OLD_AREAS[0], OLD_AREAS[1], NO_AREA, OLD_AREAS[3]}}));
        EXPECT_EQ(post_->res_id, 0u);
        expect_flags(1, 1);
    }
}

TEST_F(Layout, refused_slot_ends_open_one_with_0_and_a_post_that_is_not_open)
{
    set_marks();
    codec::fail(codec::OPEN_OSD, 1, REFUSED);
    int result = 1;
    EXPECT_EQ(errors_of([&] { result = osd_do_callback_open_one(post_, 3); }),
              open_failed(REFUSED, "Post0Osd3", OPEN_ONE.name));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", opening(3)}));
    EXPECT_EQ(areas(), OLD_AREAS);
    EXPECT_EQ(post_->res_id, RES_ID);
    expect_flags(0, 0);
}

TEST_F(Layout, failed_slot_fails_open_one_and_closes_lower_slots_that_have_long_been_open)
{
    for (const std::uint8_t flag : FLAGS) {
        begin(1);
        set_marks(flag, flag);
        post_->osd[2] = {};
        codec::fail(codec::OPEN_OSD, 1, codec::SOME_ERROR);
        int result = 1;
        EXPECT_EQ(errors_of([&] { result = osd_do_callback_open_one(post_, 2); }),
                  open_failed(codec::SOME_ERROR, "Post1Osd2", OPEN_ONE.name));
        EXPECT_EQ(result, -14);
        EXPECT_EQ(take_trace(), (Lines{"get_status(0x11)", opening(2), "close_osd(0x11, 0x92)",
                                       "close_osd(0x11, 0x91)"}));
        EXPECT_EQ(areas(), (Areas{{NO_AREA, NO_AREA, NO_AREA, OLD_AREAS[3]}}));
        EXPECT_EQ(post_->res_id, RES_ID);
        expect_flags(flag, flag);
    }
}

TEST_F(Layout, open_one_reports_a_lower_slot_that_cannot_be_closed_and_empties_it)
{
    for (const std::uint32_t error : EVERY_ERROR) {
        begin();
        set_marks();
        codec::fail(codec::OPEN_OSD, 1, codec::SOME_ERROR);
        codec::fail(codec::CLOSE_OSD, 1, error);
        int result = 1;
        EXPECT_EQ(errors_of([&] { result = osd_do_callback_open_one(post_, 2); }),
                  open_failed(codec::SOME_ERROR, "Post0Osd2", OPEN_ONE.name) +
                      call_failed("qm5_cl_post_close_osd", error, OPEN_ONE.name) +
                      report("server", "Post0Osd1", OPEN_ONE.name));
        EXPECT_EQ(result, -14);
        EXPECT_EQ(areas(), (Areas{{NO_AREA, NO_AREA, OLD_AREAS[2], OLD_AREAS[3]}}));
    }
}

// ---- Places -------------------------------------------------------------------------------------

typedef std::array<std::uint32_t, 2> Place;

class Places : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        post_.video_width = 720;
        post_.video_height = 576;
        post_.font_engine.size = 28;
        post_.font_engine.maxAdvance = 14;
    }

    std::array<Place, OSD_SLOTS> places() const
    {
        std::array<Place, OSD_SLOTS> all;
        for (int slot = 0; slot < OSD_SLOTS; slot++) {
            const osd_place place = osd_place_text(&post_, slot);
            all[static_cast<unsigned>(slot)] = {place.x, place.y};
        }
        return all;
    }

    osd_post &post_ = osd_state.post[1];
};

TEST_F(Places, texts_stand_in_the_corners_of_the_picture)
{
    EXPECT_EQ(places(), (std::array<Place, 4>{{{0, 0}, {0, 548}, {552, 0}, {580, 548}}}));
}

TEST_F(Places, texts_stand_within_the_safe_spaces)
{
    post_.safe_space_left = 1000;
    post_.safe_space_right = 300;
    post_.safe_space_up = 70;
    post_.safe_space_down = 5;
    EXPECT_EQ(places(), (std::array<Place, 4>{{{1000, 70}, {1000, 543}, {252, 70}, {280, 543}}}));
}

TEST_F(Places, only_the_date_is_moved_by_its_offset)
{
    post_.safe_space_up = 4;
    post_.date_offset_y = 30;
    EXPECT_EQ(places(), (std::array<Place, 4>{{{0, 4}, {0, 548}, {552, 34}, {580, 548}}}));
}

TEST_F(Places, texts_that_do_not_fit_wrap_around)
{
    post_.video_width = 150;
    post_.video_height = 16;
    post_.safe_space_right = 3;
    EXPECT_EQ(places(), (std::array<Place, 4>{{{0, 0}, {0, -12u}, {-21u, 0}, {7, -12u}}}));
}

TEST_F(Places, three_errors_of_the_library_say_that_a_post_has_gone)
{
    for (const std::uint32_t error : GONE) {
        errno = static_cast<int>(error);
        EXPECT_TRUE(osd_post_is_gone());
        errno = static_cast<int>(error + 1);
        EXPECT_FALSE(osd_post_is_gone());
    }
    for (const std::uint32_t error : {REFUSED, codec::SOME_ERROR, 0u, 5u, 0x4507u}) {
        errno = static_cast<int>(error);
        EXPECT_FALSE(osd_post_is_gone());
    }
}

} // namespace
