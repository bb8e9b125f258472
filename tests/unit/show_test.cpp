// The drawing of one OSD: a text, a rectangle, or nothing any more.
#include "display/qm5codec.h"
#include "display/refresh.h"
#include "support/bdf_font.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"
#include "support/trace.h"
#include "support/wraps.h"

#include <csignal>
#include <cstdio>
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
constexpr std::uint32_t OTHER[] = {0x81E03246, codec::SOME_ERROR, 5};

constexpr std::uint8_t FRESH = 0xA5; // what lies in an OSD's memory before the first drawing
constexpr std::uint8_t SENTINEL[] = {0xA5, 0x3C, 0x5A, 0xC3}; // and behind it

typedef std::vector<std::uint8_t> Bytes;

// What was shown, one line of text a line: '.' for index 0, else the index in hexadecimal.
Lines picture(std::uint32_t handle)
{
    const codec::Osd &osd = codec::osd(handle);
    Lines lines;
    for (unsigned y = 0; y < osd.param.height; y++) {
        std::string line;
        for (unsigned x = 0; x < osd.width_of_line(); x++) {
            const unsigned index = osd.index_at(x, y);
            line += index > 15 ? '?' : ".123456789abcdef"[index];
        }
        lines.push_back(line);
    }
    return lines;
}

// The first bytes of an OSD's memory, and of what lies behind it.
Bytes memory(std::uint32_t handle, std::size_t count)
{
    const auto *first = reinterpret_cast<const std::uint8_t *>(codec::osd(handle).words.data());
    return {first, first + count};
}

std::string call_failed(const char *call, std::uint32_t error, std::uint32_t handle,
                        const char *reporter)
{
    char message[80];
    std::snprintf(message, sizeof message, "%s() failed. errno=0x%08X", call, error);
    char words[40];
    std::snprintf(words, sizeof words, "ResID=0x%08X, Handle=0x%08X", RES_ID, handle);
    return report("server", message, reporter) + report("server", words, reporter);
}

class Show : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        cmn_role = "server";
        const std::string path = support::make_font(support::small_font());
        ASSERT_EQ(font_init_engine(&engine_, path.c_str(), support::SMALL_FONT_SIZE), 0);
        support::remove_file(path);
    }

    void TearDown() override
    {
        font_clear_engine(&engine_);
        OsdTest::TearDown();
    }

    static std::uint32_t open(std::uint16_t width, std::uint16_t height, std::uint32_t color_type)
    {
        return codec::adopt_osd({0, width, height, color_type});
    }

    // An OSD of `cells` cells for a text.
    static std::uint32_t open_text(std::uint16_t cells, std::uint32_t color_type)
    {
        const std::uint32_t width = cells * support::SMALL_FONT_ADVANCE;
        return open(static_cast<std::uint16_t>(width), support::SMALL_FONT_SIZE, color_type);
    }

    // Shows a text at 7, 9, in colour 2 on colour 1. The result, with the reports in errors_.
    int show(std::uint32_t handle, const char *text)
    {
        const codec::Osd &osd = codec::osd(handle);
        return show(handle, osd.width_of_line(), osd.param.color_type, text, 2, 1);
    }

    int show(std::uint32_t handle, std::uint32_t target_width, std::uint32_t color_type,
             const char *text, std::uint32_t color_fg, std::uint32_t color_bg, std::uint32_t x = 7,
             std::uint32_t y = 9)
    {
        int result = 1;
        errors_ = errors_of([&] {
            result = osd_show(RES_ID, handle, &engine_, target_width, color_type, x, y, text,
                              color_fg, color_bg);
        });
        return result;
    }

    // The same for a rectangle at 7, 9.
    int show_rectangle(std::uint32_t handle, std::uint32_t w, std::uint32_t h,
                       std::uint32_t color = 2)
    {
        const codec::Osd &osd = codec::osd(handle);
        return show_rectangle(handle, osd.width_of_line(), osd.param.color_type, w, h, color);
    }

    int show_rectangle(std::uint32_t handle, std::uint32_t target_width, std::uint32_t color_type,
                       std::uint32_t w, std::uint32_t h, std::uint32_t color)
    {
        int result = 1;
        errors_ = errors_of([&] {
            result =
                osd_show_rectangle(RES_ID, handle, target_width, color_type, 7, 9, w, h, color);
        });
        return result;
    }

    int clear(std::uint32_t handle)
    {
        int result = 1;
        errors_ = errors_of([&] { result = osd_clear(RES_ID, handle); });
        return result;
    }

    font_engine engine_{};
    std::string errors_;
};

const Lines ONE_COLON_A = {
    "111111111111111111......", //
    "111211111111112111......", //
    "112211112111121211......", //
    "111211111111211121......", //
    "111211111111222221......", //
    "111211112111211121......", //
    "112221111111211121......", //
    "111111111111111111......",
};

const Lines DRAWN = {"get_osd_mem(0x11, 0x101)", "set_osd(0x11, 0x101, 7, 9)"};
const Lines NOT_SHOWN = {"get_osd_mem(0x11, 0x101)"};

// ---- Texts --------------------------------------------------------------------------------------

TEST_F(Show, slot_without_an_osd_is_no_failure_and_no_call)
{
    EXPECT_EQ(show(0, 24, 0, "1", 2, 1), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(show_rectangle(0, 24, 0, 1, 1, 2), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(clear(0), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(take_trace(), Lines{});
}

TEST_F(Show, text_stands_at_the_left_on_its_background_in_every_colour_type)
{
    for (const std::uint32_t color_type : {0u, 1u, 2u}) {
        codec::reset();
        const std::uint32_t handle = open_text(4, color_type);
        EXPECT_EQ(show(handle, "1:A"), 0);
        EXPECT_EQ(errors_, "");
        EXPECT_EQ(picture(handle), ONE_COLON_A);
        EXPECT_EQ(take_trace(), DRAWN);
        EXPECT_TRUE(codec::sentinels_are_intact());
    }
}

TEST_F(Show, line_of_a_text_may_be_longer_than_its_cells)
{
    codec::set_line_alignment(8);
    const std::uint32_t handle = open_text(3, 0); // 5 bytes, which become 8, or 32 pixels
    EXPECT_EQ(show(handle, "1:A"), 0);
    Lines expected = ONE_COLON_A;
    for (std::string &line : expected)
        line += "........";
    EXPECT_EQ(picture(handle), expected);
    EXPECT_TRUE(codec::sentinels_are_intact());
}

TEST_F(Show, text_of_the_longest_length_fills_all_of_its_cells)
{
    const std::uint32_t handle = open_text(22, 2);
    EXPECT_EQ(show(handle, " aaaaaaaaaaaaaaaaaaaa "), 0);
    const Lines lines = picture(handle);
    EXPECT_EQ(lines.front(), std::string(132, '1'));
    EXPECT_EQ(lines.back(), std::string(132, '1'));

    EXPECT_EQ(show(handle, " aaaaaaaaaaaaaaaaaaa "), 0);
    EXPECT_EQ(picture(handle).front(), std::string(126, '1') + "......");
}

TEST_F(Show, shorter_text_leaves_nothing_of_a_longer_one)
{
    const std::uint32_t handle = open_text(4, 1);
    EXPECT_EQ(show(handle, "8888"), 0);
    EXPECT_EQ(show(handle, "1:A"), 0);
    EXPECT_EQ(picture(handle), ONE_COLON_A);

    EXPECT_EQ(show(handle, ""), 0);
    EXPECT_EQ(picture(handle), Lines(8, std::string(24, '.')));
}

TEST_F(Show, colours_are_cut_to_the_colour_type)
{
    const std::uint32_t two_bits = open_text(1, 0);
    EXPECT_EQ(show(two_bits, 6 + 2, 0, "8", 0, 0), 0); // 8 pixels to the line of 2 bytes
    EXPECT_EQ(picture(two_bits), Lines(8, "........"));
    EXPECT_EQ(show(two_bits, 8, 0, " ", 255, 6), 0);
    EXPECT_EQ(picture(two_bits), Lines(8, "222222.."));
    EXPECT_EQ(show(two_bits, 8, 0, ":", 255, 4), 0);
    EXPECT_EQ(picture(two_bits)[2], "..3.....");

    const std::uint32_t four_bits = open_text(1, 1);
    EXPECT_EQ(show(four_bits, 6, 1, ":", 18, 0x131), 0);
    EXPECT_EQ(picture(four_bits)[2], "112111");

    const std::uint32_t eight_bits = open_text(1, 2);
    EXPECT_EQ(show(eight_bits, 6, 2, ":", 0x1FE, 0x107), 0);
    EXPECT_EQ(picture(eight_bits)[2], "77?777");
    EXPECT_EQ(codec::osd(eight_bits).index_at(2, 2), 0xFEu);
}

TEST_F(Show, position_reaches_the_library_in_its_low_16_bits)
{
    const std::uint32_t handle = open_text(1, 2);
    EXPECT_EQ(show(handle, 6, 2, "1", 2, 1, 0x12345678, 16u - 28u), 0);
    EXPECT_EQ(take_trace(),
              (Lines{"get_osd_mem(0x11, 0x101)", "set_osd(0x11, 0x101, 22136, 65524)"}));

    int result = 1;
    EXPECT_EQ(errors_of([&] {
                  result = osd_show_rectangle(RES_ID, handle, 6, 2, -2u, 0x10003, 1, 1, 1);
              }),
              "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(take_trace(), (Lines{"get_osd_mem(0x11, 0x101)", "set_osd(0x11, 0x101, 65534, 3)"}));
}

TEST_F(Show, memory_that_cannot_be_had_of_a_gone_post_is_passed_over)
{
    const std::uint32_t handle = open_text(4, 0);
    for (const std::uint32_t error : GONE) {
        codec::fail(codec::GET_OSD_MEM, 1, error);
        EXPECT_EQ(show(handle, "1:A"), 0);
        EXPECT_EQ(errors_, "");
        EXPECT_EQ(take_trace(), NOT_SHOWN);

        codec::fail(codec::GET_OSD_MEM, 1, error);
        EXPECT_EQ(show_rectangle(handle, 3, 3), 0);
        EXPECT_EQ(errors_, "");
        EXPECT_EQ(take_trace(), NOT_SHOWN);
    }
    EXPECT_EQ(memory(handle, 48), Bytes(48, FRESH));
    EXPECT_FALSE(codec::osd(handle).shown);
}

TEST_F(Show, memory_that_cannot_be_had_is_reported)
{
    const std::uint32_t handle = open_text(4, 0);
    for (const std::uint32_t error : OTHER) {
        codec::fail(codec::GET_OSD_MEM, 1, error);
        EXPECT_EQ(show(handle, "1:A"), -14);
        EXPECT_EQ(errors_, call_failed("qm5_cl_post_get_osd_mem", error, handle, "osd_show"));
        EXPECT_EQ(take_trace(), NOT_SHOWN);

        codec::fail(codec::GET_OSD_MEM, 1, error);
        EXPECT_EQ(show_rectangle(handle, 3, 3), -14);
        EXPECT_EQ(errors_,
                  call_failed("qm5_cl_post_get_osd_mem", error, handle, "osd_show_rectangle"));
        EXPECT_EQ(take_trace(), NOT_SHOWN);
    }
    EXPECT_EQ(memory(handle, 48), Bytes(48, FRESH));
}

TEST_F(Show, osd_of_a_gone_post_need_not_be_shown)
{
    const std::uint32_t handle = open_text(4, 0);
    for (const std::uint32_t error : GONE) {
        codec::fail(codec::SET_OSD, 1, error);
        EXPECT_EQ(show(handle, "1:A"), 0);
        EXPECT_EQ(errors_, "");
        EXPECT_EQ(take_trace(), DRAWN);

        codec::fail(codec::SET_OSD, 1, error);
        EXPECT_EQ(show_rectangle(handle, 3, 3), 0);
        EXPECT_EQ(errors_, "");
        EXPECT_EQ(take_trace(), DRAWN);
    }
}

TEST_F(Show, osd_that_cannot_be_shown_is_reported)
{
    const std::uint32_t handle = open_text(4, 0);
    for (const std::uint32_t error : OTHER) {
        codec::fail(codec::SET_OSD, 1, error);
        EXPECT_EQ(show(handle, "1:A"), -14);
        EXPECT_EQ(errors_, call_failed("qm5_cl_post_set_osd", error, handle, "osd_show"));
        EXPECT_EQ(take_trace(), DRAWN);

        codec::fail(codec::SET_OSD, 1, error);
        EXPECT_EQ(show_rectangle(handle, 3, 3), -14);
        EXPECT_EQ(errors_, call_failed("qm5_cl_post_set_osd", error, handle, "osd_show_rectangle"));
        EXPECT_EQ(take_trace(), DRAWN);
    }
}

TEST_F(Show, text_too_long_for_its_osd_is_not_shown_and_the_memory_is_cleared)
{
    const std::uint32_t handle = open_text(4, 0);
    EXPECT_EQ(show(handle, "1:A"), 0);
    take_trace();
    EXPECT_EQ(show(handle, "12345"), -14);
    EXPECT_EQ(errors_, report("server", "target width is too small", "font_get_target_bitmap") +
                           report("server", "get target bitmap failed", "osd_show"));
    EXPECT_EQ(take_trace(), NOT_SHOWN);
    EXPECT_EQ(picture(handle), ONE_COLON_A); // what was shown last stays
    EXPECT_EQ(memory(handle, 48), Bytes(48, 0));
}

TEST_F(Show, missing_text_is_not_shown)
{
    const std::uint32_t handle = open_text(4, 0);
    EXPECT_EQ(show(handle, nullptr), -14); // a result of -22 of the composition
    EXPECT_EQ(errors_, report("server", "invalid parameter", "font_get_target_bitmap") +
                           report("server", "get target bitmap failed", "osd_show"));
    EXPECT_EQ(take_trace(), NOT_SHOWN);
}

TEST_F(Show, text_with_a_glyph_that_fails_is_not_shown_and_the_next_one_is)
{
    const std::uint32_t handle = open_text(4, 0);
    wraps::fail(wraps::FT_LOAD_GLYPH, 1, 1);
    EXPECT_EQ(show(handle, "1:A"), -14);
    EXPECT_EQ(errors_, report("server", "load glyph failed", "font_get_glyph") +
                           report("server", "set glyph failed", "font_get_string_glyphs") +
                           report("server", "init glyphs failed", "font_get_target_bitmap") +
                           report("server", "get target bitmap failed", "osd_show"));
    EXPECT_EQ(take_trace(), NOT_SHOWN);

    EXPECT_EQ(show(handle, "1:A"), 0);
    EXPECT_EQ(picture(handle), ONE_COLON_A);
}

TEST_F(Show, memory_is_cleared_in_the_size_that_the_library_tells)
{
    // A line that fills no whole bytes gets no background, so that all else stays as cleared.
    const std::uint32_t handle = open(7, 8, 1); // 4 bytes a line, 32 in all
    codec::set_told_size(28);                   // 7 pixels of 4 bits, 8 times
    EXPECT_EQ(show(handle, 7, 1, " ", 2, 1), 0);
    EXPECT_EQ(errors_,
              report("server", "invalid targetWidth with 2BPP 7l", "font_draw_string_background"));
    EXPECT_EQ(take_trace(), DRAWN);
    Bytes expected(28, 0);
    expected.resize(32, FRESH);
    EXPECT_EQ(memory(handle, 32), expected);
}

TEST_F(Show, text_needs_a_memory_of_exactly_its_size)
{
    const std::uint32_t handle = open_text(4, 0);
    for (const std::uint32_t size : {47u, 49u, 0u}) {
        codec::set_told_size(size);
        EXPECT_EXIT(osd_show(RES_ID, handle, &engine_, 24, 0, 7, 9, "1:A", 2, 1),
                    testing::KilledBySignal(SIGABRT),
                    "font_get_target_bitmap.*Assertion `targetSize == targetWidth \\* "
                    "targetHeight \\* pixelSize / 8' failed");
    }
}

// ---- Rectangles ---------------------------------------------------------------------------------

TEST_F(Show, rectangle_is_a_block_at_the_left_upper_corner_in_every_colour_type)
{
    for (const std::uint32_t color_type : {0u, 1u, 2u}) {
        codec::reset();
        const std::uint32_t handle = open(12, 4, color_type);
        EXPECT_EQ(show_rectangle(handle, 5, 3), 0);
        EXPECT_EQ(errors_, "");
        EXPECT_EQ(picture(handle),
                  (Lines{"22222.......", "22222.......", "22222.......", "............"}));
        EXPECT_EQ(take_trace(), DRAWN);

        EXPECT_EQ(show_rectangle(handle, 12, 4, 1), 0);
        EXPECT_EQ(picture(handle), Lines(4, "111111111111"));
        EXPECT_EQ(show_rectangle(handle, 12, 4, 0), 0);
        EXPECT_EQ(picture(handle), Lines(4, "............"));
        EXPECT_TRUE(codec::sentinels_are_intact());
        take_trace();
    }
}

TEST_F(Show, rectangle_of_100_pixels_stands_in_lines_of_128)
{
    codec::set_line_alignment(64);
    const std::uint32_t handle = open(100, 3, 1);
    EXPECT_EQ(show_rectangle(handle, 100, 3, 9), 0);
    EXPECT_EQ(picture(handle), Lines(3, std::string(100, '9') + std::string(28, '.')));
    EXPECT_TRUE(codec::sentinels_are_intact());
}

TEST_F(Show, colour_of_a_rectangle_is_cut_to_the_colour_type)
{
    struct {
        std::uint32_t color_type, color, index;
    } const rows[] = {{0, 255, 3}, {0, 4, 0}, {1, 255, 15}, {1, 16, 0}, {2, 255, 255}, {2, 256, 0}};
    for (const auto &row : rows) {
        const std::uint32_t handle = open(4, 1, row.color_type);
        EXPECT_EQ(show_rectangle(handle, 4, 1, row.color), 0);
        EXPECT_EQ(codec::osd(handle).index_at(0, 0), row.index);
        EXPECT_EQ(codec::osd(handle).index_at(3, 0), row.index);
    }
}

TEST_F(Show, rectangle_without_a_width_leaves_its_osd_at_0)
{
    const std::uint32_t handle = open(8, 2, 0);
    EXPECT_EQ(show_rectangle(handle, 0, 2), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(picture(handle), Lines(2, "........"));
    EXPECT_EQ(take_trace(), DRAWN);
}

TEST_F(Show, rectangle_without_a_height_still_has_its_first_line)
{
    const std::uint32_t handle = open(8, 2, 0);
    EXPECT_EQ(show_rectangle(handle, 3, 0), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(picture(handle), (Lines{"222.....", "........"}));
    EXPECT_EQ(take_trace(), DRAWN);
    EXPECT_TRUE(codec::sentinels_are_intact());
}

TEST_F(Show, rectangle_without_a_height_writes_behind_an_osd_of_no_lines)
{
    const std::uint32_t handle = open(12, 0, 1);
    EXPECT_EQ(show_rectangle(handle, 3, 0), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(take_trace(), DRAWN);
    EXPECT_FALSE(codec::sentinels_are_intact());
    EXPECT_EQ(memory(handle, 8),
              (Bytes{0x22, 0x02, 0, 0, 0, 0, SENTINEL[2], SENTINEL[3]})); // a line of 6 bytes
}

TEST_F(Show, rectangle_wider_than_its_line_shows_only_behind_its_last_line)
{
    // The first line runs into the second, which is then overwritten by a copy of it.
    const std::uint32_t handle = open(8, 3, 2);
    EXPECT_EQ(show_rectangle(handle, 11, 2), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(picture(handle), (Lines{"22222222", "22222222", "........"}));

    EXPECT_EQ(show_rectangle(handle, 11, 1), 0);
    EXPECT_EQ(picture(handle), (Lines{"22222222", "222.....", "........"}));
    EXPECT_TRUE(codec::sentinels_are_intact());
}

TEST_F(Show, rectangle_wider_than_its_memory_writes_behind_it)
{
    const std::uint32_t handle = open(8, 1, 1); // 4 bytes
    EXPECT_EQ(show_rectangle(handle, 13, 1, 2), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(take_trace(), DRAWN);
    EXPECT_EQ(memory(handle, 8), // what lies there keeps its other bits
              (Bytes{0x22, 0x22, 0x22, 0x22, 0xA5 | 0x22, 0x3C | 0x22, 0x5A | 0x02, 0xC3}));
}

TEST_F(Show, rectangle_lower_than_its_memory_leaves_the_rest_cleared)
{
    const std::uint32_t handle = open(4, 3, 2);
    EXPECT_EQ(show_rectangle(handle, 4, 3, 7), 0);
    EXPECT_EQ(show_rectangle(handle, 2, 1, 5), 0);
    EXPECT_EQ(picture(handle), (Lines{"55..", "....", "...."}));
}

TEST_F(Show, rectangle_clears_what_the_library_tells_and_no_more)
{
    const std::uint32_t handle = open(4, 3, 2);
    codec::set_told_size(8);
    EXPECT_EQ(show_rectangle(handle, 2, 2, 5), 0);
    EXPECT_EQ(memory(handle, 12), (Bytes{5, 5, 0, 0, 5, 5, 0, 0, FRESH, FRESH, FRESH, FRESH}));
}

TEST_F(Show, rectangle_of_an_unknown_colour_type_is_not_drawn)
{
    const std::uint32_t handle = open(8, 2, 0);
    EXPECT_EQ(show_rectangle(handle, 8, 3, 4, 2, 1), -14);
    EXPECT_EQ(errors_, report("server", "invalid colorType 3", "osd_show_rectangle"));
    EXPECT_EQ(show_rectangle(handle, 8, 0xFFFFFFFE, 4, 2, 1), -14);
    EXPECT_EQ(errors_, report("server", "invalid colorType -2", "osd_show_rectangle"));
    EXPECT_EQ(take_trace(), (Lines{NOT_SHOWN[0], NOT_SHOWN[0]}));
    EXPECT_EQ(memory(handle, 4), Bytes(4, FRESH));
}

TEST_F(Show, unknown_colour_type_is_noticed_only_behind_the_memory)
{
    const std::uint32_t handle = open(8, 2, 0);
    codec::fail(codec::GET_OSD_MEM, 1, GONE[0]);
    EXPECT_EQ(show_rectangle(handle, 8, 3, 4, 2, 1), 0);
    EXPECT_EQ(errors_, "");
}

TEST_F(Show, rectangle_higher_than_its_memory_is_not_drawn)
{
    for (const std::uint32_t color_type : {0u, 1u, 2u}) {
        codec::reset();
        const std::uint32_t handle = open(12, 4, color_type);
        EXPECT_EQ(show_rectangle(handle, 1, 5), -14);
        // The message has a line feed of its own.
        EXPECT_EQ(errors_, "ERR:#qm5osd:[server]=osd memory over: targetWidth=12 height=5 "
                           "colorType=" +
                               std::to_string(color_type) + "\n(osd_show_rectangle)\n");
        EXPECT_EQ(take_trace(), NOT_SHOWN);
        const std::size_t size = std::size_t{codec::osd(handle).line_bytes} * 4;
        EXPECT_EQ(memory(handle, size), Bytes(size, FRESH));

        EXPECT_EQ(show_rectangle(handle, 1, 4), 0);
        EXPECT_EQ(errors_, "");
        take_trace();
    }
}

TEST_F(Show, memory_of_one_byte_less_than_the_rectangle_needs_is_too_small)
{
    const std::uint32_t handle = open(12, 4, 1);
    codec::set_told_size(23);
    EXPECT_EQ(show_rectangle(handle, 1, 4), -14);
    EXPECT_EQ(errors_, report("server", "osd memory over: targetWidth=12 height=4 colorType=1\n",
                              "osd_show_rectangle"));
    codec::set_told_size(24);
    EXPECT_EQ(show_rectangle(handle, 1, 4), 0);
}

// Lines that fill no whole bytes: the drawing reports them and has no result, so the OSD is shown.
TEST_F(Show, need_of_a_rectangle_is_rounded_down_and_the_drawing_is_not_tested)
{
    const std::uint32_t handle = open(7, 3, 0);
    codec::set_told_size(5); // 42 bits
    EXPECT_EQ(show_rectangle(handle, 7, 0, 0, 3, 2), 0);
    EXPECT_EQ(errors_,
              report("server", "invalid targetWidth with 2BPP 7l", "font_draw_string_background"));
    EXPECT_EQ(take_trace(), DRAWN);
    EXPECT_EQ(memory(handle, 6), (Bytes{0, 0, 0, 0, 0, FRESH}));

    codec::set_told_size(4);
    EXPECT_EQ(show_rectangle(handle, 7, 0, 4, 3, 2), -14);
    EXPECT_EQ(errors_, report("server", "osd memory over: targetWidth=7 height=3 colorType=0\n",
                              "osd_show_rectangle"));
}

TEST_F(Show, need_of_a_rectangle_wraps_at_32_bits)
{
    const std::uint32_t handle = open(4, 1, 0);
    EXPECT_EQ(show_rectangle(handle, 0x80000001, 0, 4, 4, 2), 0); // 8 bits
    EXPECT_EQ(errors_, report("server", "invalid targetWidth with 2BPP 2147483649l",
                              "font_draw_string_background"));
    EXPECT_EQ(take_trace(), DRAWN);

    EXPECT_EQ(show_rectangle(handle, 0xFFFFFFFF, 2, 4, 1, 2), -14); // 0xFFFFFFF8 bits
    EXPECT_EQ(errors_, report("server", "osd memory over: targetWidth=-1 height=1 colorType=2\n",
                              "osd_show_rectangle"));
}

// ---- Nothing ------------------------------------------------------------------------------------

TEST_F(Show, clearing_takes_an_osd_off_the_picture_and_leaves_it_open)
{
    const std::uint32_t handle = open(4, 1, 0);
    EXPECT_EQ(show_rectangle(handle, 4, 1), 0);
    take_trace();
    EXPECT_EQ(clear(handle), 0);
    EXPECT_EQ(errors_, "");
    EXPECT_EQ(take_trace(), Lines{"clear_osd(0x11, 0x101)"});
    EXPECT_TRUE(codec::osd(handle).open);
    EXPECT_FALSE(codec::osd(handle).shown);
}

TEST_F(Show, clearing_on_a_gone_post_is_done_already)
{
    const std::uint32_t handle = open(4, 1, 0);
    for (const std::uint32_t error : GONE) {
        codec::fail(codec::CLEAR_OSD, 1, error);
        EXPECT_EQ(clear(handle), 0);
        EXPECT_EQ(errors_, "");
        EXPECT_EQ(take_trace(), Lines{"clear_osd(0x11, 0x101)"});
    }
}

TEST_F(Show, clearing_that_fails_is_reported)
{
    const std::uint32_t handle = open(4, 1, 0);
    for (const std::uint32_t error : OTHER) {
        codec::fail(codec::CLEAR_OSD, 1, error);
        EXPECT_EQ(clear(handle), -14);
        EXPECT_EQ(errors_, call_failed("qm5_cl_post_clear_osd", error, handle, "osd_clear"));
        EXPECT_EQ(take_trace(), Lines{"clear_osd(0x11, 0x101)"});
    }
}

} // namespace
