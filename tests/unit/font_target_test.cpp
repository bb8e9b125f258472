// The composition of strings into targets of packed pixels: backgrounds, glyphs and edges.
#include "support/bdf_font.h"
#include "support/osd_test.h"
#include "support/pixel_rule.h"
#include "support/wraps.h"
#include "text/font.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <vector>

namespace
{

using support::Lines;
using support::PlainEngine;
using support::PlainGlyph;
using support::report;
using support::rule_pixel_size;
using testing::MatchesRegex;

constexpr std::uint32_t MASKS[] = {3, 15, 255};

typedef std::vector<std::uint8_t> Bytes;

// A target between sentinels, each byte of which has held the same.
class Target
{
public:
    Target(std::uint32_t width, std::uint32_t height, std::uint32_t mask, std::uint8_t old = 0x5A)
        : width_(width), height_(height), mask_(mask),
          size_(width * height * rule_pixel_size(mask) / 8),
          words_(SENTINELS + size_ / 4 + 1 + SENTINELS, 0xC3C3C3C3), old_(old)
    {
        std::memset(get(), old, size_);
    }

    std::uint8_t *get()
    {
        return reinterpret_cast<std::uint8_t *>(&words_[SENTINELS]);
    }

    std::uint32_t size() const
    {
        return size_;
    }

    // The bytes of the target; those around it must be what they were.
    Bytes bytes() const
    {
        const auto *first = reinterpret_cast<const std::uint8_t *>(words_.data());
        const Bytes all(first, first + words_.size() * sizeof words_[0]);
        const auto begin = all.begin() + SENTINELS * sizeof words_[0];
        const auto end = begin + static_cast<std::ptrdiff_t>(size_);
        const auto intact = [](std::uint8_t byte) { return byte == 0xC3; };
        EXPECT_TRUE(std::all_of(all.begin(), begin, intact)) << "before the target";
        EXPECT_TRUE(std::all_of(end, all.end(), intact)) << "behind the target";
        return {begin, end};
    }

    bool is_untouched() const
    {
        return bytes() == Bytes(size_, old_);
    }

    // Lines of the target: '#' is a pixel of index `fg`, '.' of index 0, '-' of index `bg`.
    Lines picture(unsigned fg, unsigned bg) const
    {
        const Bytes all = bytes();
        Lines lines(height_);
        for (std::uint32_t n = 0; n < width_ * height_; n++) {
            const std::uint32_t bit = n * rule_pixel_size(mask_);
            const unsigned index = std::uint32_t{all[bit / 8]} >> bit % 8 & mask_;
            lines[n / width_] += index == fg ? '#' : index == 0 ? '.' : index == bg ? '-' : '?';
        }
        return lines;
    }

private:
    static constexpr std::size_t SENTINELS = 4; // words

    std::uint32_t width_;
    std::uint32_t height_;
    std::uint32_t mask_;
    std::uint32_t size_;
    std::vector<std::uint32_t> words_;
    std::uint8_t old_;
};

// Sets a pixel in a picture of bytes.
void set_pixel(Bytes &bytes, std::uint32_t mask, std::uint32_t number, std::uint32_t color)
{
    const std::uint32_t bit = number * rule_pixel_size(mask);
    std::uint8_t &byte = bytes[bit / 8];
    byte = static_cast<std::uint8_t>((byte & ~(mask << bit % 8)) | (color & mask) << bit % 8);
}

// Memory of zeros of which only those pages exist that are written.
class Expanse
{
public:
    explicit Expanse(std::size_t size)
        : size_(size), memory_(mmap(nullptr, size, PROT_READ | PROT_WRITE,
                                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))
    {
    }
    ~Expanse()
    {
        munmap(memory_, size_);
    }
    Expanse(const Expanse &) = delete;
    Expanse &operator=(const Expanse &) = delete;

    std::uint8_t *get()
    {
        return memory_ == MAP_FAILED ? nullptr : static_cast<std::uint8_t *>(memory_);
    }

private:
    std::size_t size_;
    void *memory_;
};

// Memory before a page that nobody may touch.
class Brink
{
public:
    Brink()
        : memory_(static_cast<std::uint8_t *>(mmap(nullptr, SIZE + PAGE, PROT_READ | PROT_WRITE,
                                                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        EXPECT_EQ(mprotect(memory_ + SIZE, PAGE, PROT_NONE), 0);
    }
    ~Brink()
    {
        munmap(memory_, SIZE + PAGE);
    }
    Brink(const Brink &) = delete;
    Brink &operator=(const Brink &) = delete;

    // The whole words for so many bytes that end with it.
    std::uint8_t *get(std::size_t size)
    {
        return memory_ + SIZE - (size + 3) / 4 * 4;
    }

private:
    static constexpr std::size_t PAGE = 0x1000;
    static constexpr std::size_t SIZE = PAGE;

    std::uint8_t *memory_;
};

// How a string is composed.
struct Look {
    std::uint32_t width = 0;
    std::uint32_t mask = 3;
    std::uint32_t fg = 3;
    std::uint32_t bg = 1;
};

int compose(font_engine *engine, const std::string &text, const Look &look, Target &target)
{
    return font_get_target_bitmap(engine, text.c_str(), look.fg, look.bg, look.width, look.mask,
                                  target.size(), target.get());
}

// The picture of all characters of an engine, composed without a report.
Lines composed(PlainEngine &engine, std::uint32_t width)
{
    const Look look = {width};
    Target target(width, engine->size, look.mask);
    EXPECT_EQ(support::errors_of(
                  [&] { EXPECT_EQ(compose(engine.get(), engine.text(), look, target), 0); }),
              "");
    return target.picture(look.fg, look.bg);
}

class FontTarget : public support::OsdTest
{
protected:
    void TearDown() override
    {
        if (engine_.library)
            font_clear_engine(&engine_);
        OsdTest::TearDown();
    }

    void init(const support::BdfFont &font)
    {
        const std::string path = support::make_font(font);
        ASSERT_EQ(font_init_engine(&engine_, path.c_str(), support::SMALL_FONT_SIZE), 0);
        support::remove_file(path);
    }

    // Composes "1" as it must look, to see that the engine is still in order.
    void expect_live_engine()
    {
        const Look look = {8};
        Target target(8, 8, look.mask);
        EXPECT_EQ(compose(&engine_, "1", look, target), 0);
        EXPECT_EQ(target.picture(look.fg, look.bg),
                  (Lines{"------..", "---#--..", "--##--..", "---#--..", "---#--..", "---#--..",
                         "--###-..", "------.."}));
    }

    font_engine engine_{};
};

// ---- Packing ------------------------------------------------------------------------------------

TEST_F(FontTarget, pixels_with_lower_numbers_lie_in_the_lower_bits)
{
    constexpr struct {
        std::uint32_t mask;
        std::uint32_t fg;
        std::uint32_t bg;
        std::uint8_t bytes[4];
    } rows[] = {{3, 3, 1, {0x57}}, {15, 3, 10, {0xA3, 0xAA}}, {255, 3, 10, {3, 10, 10, 10}}};
    for (const auto &row : rows) {
        const Look look = {4, row.mask, row.fg, row.bg};
        PlainEngine engine(1, 0, 1, {PlainGlyph(0, 1, {"#"}), PlainGlyph(0, 0, {})});
        Target target(4, 1, row.mask);
        EXPECT_EQ(compose(engine.get(), "abbb", look, target), 0);
        EXPECT_EQ(target.bytes(), Bytes(row.bytes, row.bytes + target.size()));
    }
    PlainEngine engine(1, 0, 1, {PlainGlyph(0, 1, {"#"}), PlainGlyph(0, 0, {})});
    Target target(4, 1, 3);
    EXPECT_EQ(compose(engine.get(), "bbba", {4, 3, 3, 0}, target), 0);
    EXPECT_EQ(target.bytes(), Bytes{0xC0});
}

// Draws over old contents, first in memory that ends with the target, where a sanitizer sees what
// leads past it, and then with a page that ends the process behind the target's last word.
void expect_drawn_at_the_end(PlainEngine &engine, const Look &look, std::uint32_t height,
                             const Bytes &old, const Bytes &expected)
{
    Bytes exact = old;
    EXPECT_EQ(font_draw_target(engine.with_string(), exact.data(), look.width, height, look.mask,
                               look.fg),
              0);
    EXPECT_EQ(exact, expected);

    static Brink brink;
    std::uint8_t *words = brink.get(old.size());
    std::copy(old.begin(), old.end(), words);
    EXPECT_EQ(font_draw_target(engine.with_string(), words, look.width, height, look.mask, look.fg),
              0);
    EXPECT_EQ(Bytes(words, words + old.size()), expected);
}

// Draws one pixel over old contents, and over the same in memory that ends with the target.
void expect_single_pixel(std::uint32_t width, std::uint32_t height, std::uint32_t mask,
                         std::uint32_t number)
{
    const auto left = static_cast<std::int32_t>(number % width);
    const auto top = static_cast<std::int32_t>(height - number / width);
    PlainEngine engine(height, 0, 1, {PlainGlyph(left, top, {"#"})});
    for (const std::uint32_t color : {mask, 2U, 0U}) {
        Target target(width, height, mask);
        const Bytes old = target.bytes();
        Bytes expected = old;
        set_pixel(expected, mask, number, color);
        EXPECT_EQ(font_draw_target(engine.with_string(), target.get(), width, height, mask, color),
                  0);
        EXPECT_EQ(target.bytes(), expected);
        expect_drawn_at_the_end(engine, {width, mask, color}, height, old, expected);
    }
}

TEST_F(FontTarget, single_pixel_changes_its_field_and_nothing_else)
{
    constexpr std::uint32_t widths[] = {4, 8, 12, 13, 14, 15, 16, 17, 20, 33};
    for (const std::uint32_t mask : MASKS) {
        for (const std::uint32_t width : widths) {
            for (std::uint32_t number = 0; number < 2 * width; number++) {
                SCOPED_TRACE(testing::Message() << mask << ", " << width << ", " << number);
                if (2 * width * rule_pixel_size(mask) % 8 == 0)
                    expect_single_pixel(width, 2, mask, number);
            }
        }
    }
}

// Draws a glyph as large as the target, in memory that ends with the target.
void expect_large_glyph(std::uint32_t width, std::uint32_t height, std::uint32_t mask)
{
    Lines rows(height, std::string(width, '#'));
    for (std::uint32_t n = 0; n < width * height; n += 3)
        rows[n / width][n % width] = '.';
    PlainEngine engine(height, 0, 1, {PlainGlyph(0, static_cast<std::int32_t>(height), rows)});
    const Bytes old(width * height * rule_pixel_size(mask) / 8, 0x5A);
    Bytes expected = old;
    for (std::uint32_t n = 0; n < width * height; n++) {
        if (n % 3 != 0)
            set_pixel(expected, mask, n, mask);
    }
    expect_drawn_at_the_end(engine, {width, mask, mask}, height, old, expected);
}

TEST_F(FontTarget, glyph_as_large_as_the_target_touches_nothing_else)
{
    for (const std::uint32_t mask : MASKS) {
        for (std::uint32_t width = 1; width <= 70; width++) {
            SCOPED_TRACE(testing::Message() << mask << ", " << width);
            for (const std::uint32_t height : {1U, 2U, 3U, 4U}) {
                if (width * height * rule_pixel_size(mask) % 8 == 0)
                    expect_large_glyph(width, height, mask);
            }
        }
    }
}

TEST_F(FontTarget, pixels_of_8_bits_have_numbers_beyond_those_that_fit_bit_numbers_of_32_bits)
{
    constexpr std::uint32_t far = 0x20000000;
    Expanse memory(far + 0x1000);
    ASSERT_NE(memory.get(), nullptr);
    PlainEngine engine(1, 0, 1, {PlainGlyph(far - 1, 1, {"###"})});
    EXPECT_EQ(font_draw_target(engine.with_string(), memory.get(), far + 8, 1, 255, 9), 0);
    EXPECT_EQ(Bytes(memory.get() + far - 4, memory.get() + far + 4),
              (Bytes{0, 0, 0, 9, 9, 9, 0, 0}));
    EXPECT_EQ(Bytes(memory.get(), memory.get() + 4), Bytes(4, 0));
}

// ---- Background ---------------------------------------------------------------------------------

Bytes background(std::uint32_t width, std::uint32_t height, std::uint32_t mask, std::uint32_t color,
                 std::uint32_t coloured)
{
    Bytes bytes(width * height * rule_pixel_size(mask) / 8);
    for (std::uint32_t n = 0; n < width * height; n++)
        set_pixel(bytes, mask, n, n % width < coloured ? color : 0);
    return bytes;
}

TEST_F(FontTarget, background_fills_the_left_of_each_line_and_clears_the_rest)
{
    for (const std::uint32_t mask : MASKS) {
        const std::uint32_t per_byte = 8 / rule_pixel_size(mask);
        for (std::uint32_t width = 0; width <= 40; width += per_byte) {
            for (std::uint32_t coloured = 0; coloured <= width; coloured++) {
                SCOPED_TRACE(testing::Message() << mask << ", " << width << ", " << coloured);
                const Bytes expected = background(width, 3, mask, mask - 1, coloured);
                Target target(width, 3, mask);
                Bytes exact(target.size());
                exact.reserve(1); // even without a byte it is at some address
                font_draw_string_background(target.get(), width, 3, mask, mask - 1, coloured);
                font_draw_string_background(exact.data(), width, 3, mask, mask - 1, coloured);
                EXPECT_EQ(target.bytes(), expected);
                EXPECT_EQ(exact, expected);
            }
        }
    }
}

TEST_F(FontTarget, background_has_a_first_line_at_least)
{
    for (const std::uint32_t height : {0U, 1U}) {
        Target target(8, 2, 15);
        font_draw_string_background(target.get(), 8, height, 15, 7, 5);
        EXPECT_EQ(target.bytes(), (Bytes{0x77, 0x77, 0x07, 0, 0x5A, 0x5A, 0x5A, 0x5A}));
    }
}

TEST_F(FontTarget, background_beyond_its_line_is_ored_to_what_lies_behind_and_then_copied_over)
{
    constexpr struct {
        std::uint32_t mask;
        std::uint32_t width;
        std::uint32_t height;
        std::uint32_t coloured;
        std::uint8_t bytes[8];
    } rows[] = {{3, 8, 1, 23, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x5A, 0x5A}},
                {15, 8, 1, 11, {0x77, 0x77, 0x77, 0x77, 0x7F, 0x5F, 0x5A, 0x5A}},
                {255, 4, 1, 7, {7, 7, 7, 7, 0x5F, 0x5F, 0x5F, 0x5A}},
                {15, 8, 0, 9, {0x77, 0x77, 0x77, 0x77, 0x5F, 0x5A, 0x5A, 0x5A}},
                {3, 8, 3, 32, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
                {15, 4, 3, 16, {0x77, 0x77, 0x77, 0x77, 0x77, 0x77, 0x7F, 0x7F}},
                {255, 2, 2, 6, {7, 7, 7, 7, 0x5F, 0x5F, 0x5A, 0x5A}}};
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::Message() << row.mask << ", " << row.coloured);
        Target memory(8, 1, 255);
        font_draw_string_background(memory.get(), row.width, row.height, row.mask, 7, row.coloured);
        EXPECT_EQ(memory.bytes(), Bytes(row.bytes, row.bytes + 8));
    }
}

TEST_F(FontTarget, background_loses_the_upper_bits_of_its_colour)
{
    constexpr struct {
        std::uint32_t mask;
        std::uint32_t color;
        std::uint8_t byte;
    } rows[] = {{3, 0xFFFFFFFD, 0x55}, {15, 18, 0x22}, {15, 0xA5C, 0xCC}, {255, 0x1FE, 0xFE}};
    for (const auto &row : rows) {
        Target target(8, 2, row.mask);
        font_draw_string_background(target.get(), 8, 2, row.mask, row.color, 8);
        EXPECT_EQ(target.bytes(), Bytes(target.size(), row.byte));
    }
}

TEST_F(FontTarget, background_reports_bad_arguments_and_writes_nothing)
{
    constexpr struct {
        std::uint32_t mask;
        std::uint32_t width;
        const char *message;
    } rows[] = {{15, 1, "invalid targetWidth with 2BPP 1l"},
                {15, 13, "invalid targetWidth with 2BPP 13l"},
                {15, 4294967295, "invalid targetWidth with 2BPP 4294967295l"},
                {3, 5, "invalid targetWidth with 2BPP 5l"},
                {3, 6, "invalid targetWidth with 2BPP 6l"},
                {3, 4294967295, "invalid targetWidth with 2BPP 4294967295l"},
                {0, 8, "invalid mask"},
                {1, 8, "invalid mask"},
                {7, 5, "invalid mask"},
                {16, 8, "invalid mask"},
                {4294967295, 8, "invalid mask"}};
    cmn_role = "server";
    for (const auto &row : rows) {
        Target target(16, 2, 255);
        EXPECT_EQ(support::errors_of([&] {
                      font_draw_string_background(target.get(), row.width, 2, row.mask, 1, 4);
                  }),
                  report("server", row.message, "font_draw_string_background"));
        EXPECT_TRUE(target.is_untouched());
    }
}

TEST_F(FontTarget, background_of_an_odd_width_is_good_at_8_bits)
{
    Target target(5, 2, 255);
    EXPECT_EQ(
        support::errors_of([&] { font_draw_string_background(target.get(), 5, 2, 255, 9, 3); }),
        "");
    EXPECT_EQ(target.bytes(), (Bytes{9, 9, 9, 0, 0, 9, 9, 9, 0, 0}));
}

// ---- Whole strings ------------------------------------------------------------------------------

TEST_F(FontTarget, time_is_drawn_in_cells_over_a_background_that_ends_with_the_last_cell)
{
    init(support::small_font());
    constexpr Look looks[] = {{64, 3, 3, 1}, {64, 15, 9, 14}, {64, 255, 200, 100}};
    for (const Look &look : looks) {
        Target target(look.width, 8, look.mask);
        EXPECT_EQ(support::errors_of(
                      [&] { EXPECT_EQ(compose(&engine_, " 12:34:56 ", look, target), 0); }),
                  "");
        EXPECT_EQ(target.picture(look.fg, look.bg),
                  (Lines{"------------------------------------------------------------....",
                         "---------#----##---------###------#--------####---##--------....",
                         "--------##---#--#---#-------#----##---#----#-----#----------....",
                         "---------#------#---------##----#-#--------###---###--------....",
                         "---------#-----#------------#--####-----------#--#--#-------....",
                         "---------#----#-----#-------#-----#---#-------#--#--#-------....",
                         "--------###--####--------###------#--------###----##--------....",
                         "------------------------------------------------------------...."}));
    }
}

TEST_F(FontTarget, other_characters_are_drawn_for_the_string_and_released)
{
    init(support::small_font());
    const Look look = {24, 15, 15, 0};
    Target target(look.width, 8, look.mask);
    EXPECT_EQ(compose(&engine_, "7/Aa", look, target), 0);
    EXPECT_EQ(wraps::calls(wraps::FT_DONE_GLYPH), 3);
    EXPECT_EQ(
        target.picture(look.fg, look.bg),
        (Lines{"........................", ".####.....#...#.........", "....#.....#..#.#........",
               "...#.....#..#...#...###.", "...#....#...#####..#..#.", "..#....#....#...#..#..#.",
               "..#....#....#...#...###.", "........................"}));
}

TEST_F(FontTarget, empty_string_clears_the_target)
{
    init(support::small_font());
    for (const std::uint32_t mask : MASKS) {
        Target target(12, 8, mask);
        EXPECT_EQ(compose(&engine_, "", {12, mask}, target), 0);
        EXPECT_EQ(target.bytes(), Bytes(target.size(), 0));
        EXPECT_EQ(engine_.stringLength, 0U);
    }
}

TEST_F(FontTarget, string_fills_its_cells_exactly_and_one_more_is_too_much)
{
    init(support::small_font());
    const Look look = {24};
    Target full(look.width, 8, look.mask);
    EXPECT_EQ(compose(&engine_, "8888", look, full), 0);
    EXPECT_EQ(full.picture(look.fg, look.bg)[1], "--##----##----##----##--");

    Target target(look.width, 8, look.mask);
    EXPECT_EQ(support::errors_of([&] { EXPECT_EQ(compose(&engine_, "88888", look, target), -14); }),
              report("", "target width is too small", "font_get_target_bitmap"));
    EXPECT_TRUE(target.is_untouched());
    EXPECT_EQ(engine_.stringLength, 5U);
    expect_live_engine();
}

TEST_F(FontTarget, string_may_be_longer_than_a_byte_counts)
{
    PlainEngine engine(1, 0, 1, {PlainGlyph(0, 1, {"#"})});
    const Look look = {300};
    Target target(look.width, 1, look.mask);
    EXPECT_EQ(compose(engine.get(), std::string(300, 'a'), look, target), 0);
    EXPECT_EQ(target.picture(look.fg, look.bg), Lines{std::string(300, '#')});
    EXPECT_EQ(engine->stringLength, 300U);
}

TEST_F(FontTarget, pixels_behind_the_last_cell_are_no_background)
{
    PlainEngine engine(2, 0, 3, {PlainGlyph(0, 2, {"#..", "..#"})});
    EXPECT_EQ(composed(engine, 8), (Lines{"#--.....", "--#....."}));
}

TEST_F(FontTarget, colours_lose_their_upper_bits)
{
    PlainEngine engine(1, 0, 2, {PlainGlyph(0, 1, {"#."})});
    Target target(2, 1, 15);
    EXPECT_EQ(compose(engine.get(), "a", {2, 15, 18, 0xFFFFFFF5}, target), 0);
    EXPECT_EQ(target.bytes(), Bytes{0x52});
}

TEST_F(FontTarget, index_0_is_a_colour_like_any_other)
{
    PlainEngine engine(1, 0, 4, {PlainGlyph(0, 1, {"##"})});
    Target target(4, 1, 3);
    EXPECT_EQ(support::errors_of([&] {
                  EXPECT_EQ(compose(engine.get(), "a", {4, 3, 0, 0}, target), 0);
              }),
              "");
    EXPECT_EQ(target.bytes(), Bytes{0});
    EXPECT_EQ(compose(engine.get(), "a", {4, 3, 4, 2}, target), 0);
    EXPECT_EQ(target.bytes(), Bytes{0xA0});
}

// ---- Places -------------------------------------------------------------------------------------

TEST_F(FontTarget, baseline_lies_above_the_bottom_by_the_descender)
{
    PlainEngine deep(4, -2, 2, {PlainGlyph(0, 1, {"#"}), PlainGlyph(0, 0, {"#"})});
    EXPECT_EQ(composed(deep, 4), (Lines{"----", "#---", "--#-", "----"}));
    PlainEngine even(4, 0, 2, {PlainGlyph(0, 1, {"#"}), PlainGlyph(0, 2, {"#"})});
    EXPECT_EQ(composed(even, 4), (Lines{"----", "----", "--#-", "#---"}));
    PlainEngine high(4, 1, 2, {PlainGlyph(0, 2, {"#"}), PlainGlyph(0, 5, {"#"})});
    EXPECT_EQ(composed(high, 4), (Lines{"--#-", "----", "----", "#---"}));
}

TEST_F(FontTarget, blank_and_dropped_glyphs_occupy_their_cells)
{
    PlainEngine engine(2, 0, 2,
                       {PlainGlyph(0, 2, {"#"}), PlainGlyph(0, 0, {}), PlainGlyph(0, 3, {"#", "#"}),
                        PlainGlyph(1, 1, {"#"})});
    EXPECT_EQ(composed(engine, 8), (Lines{"#-------", "-------#"}));
}

TEST_F(FontTarget, blank_without_memory_draws_nothing_even_on_line_0)
{
    PlainEngine engine(2, 0, 4, {PlainGlyph(0, 2, {}), PlainGlyph(0, 3, {}), PlainGlyph(0, 0, {})});
    ASSERT_EQ(engine.glyphs()[0].record.bitmap.buffer, nullptr);
    EXPECT_EQ(composed(engine, 12), (Lines{"------------", "------------"}));
}

TEST_F(FontTarget, glyph_is_dropped_above_and_clipped_below)
{
    PlainEngine engine(3, 0, 3,
                       {PlainGlyph(0, 4, {"###", "###", "###"}), // above the first line
                        PlainGlyph(0, 3, {"###", "#.#", "#.#"}), // touches both ends
                        PlainGlyph(0, 2, {"###", "#.#", "##."}), // its last line is too low
                        PlainGlyph(0, 0, {"###"})});             // below the last line
    EXPECT_EQ(composed(engine, 12), (Lines{"---###------", "---#-####---", "---#-##-#---"}));
}

TEST_F(FontTarget, glyph_higher_than_the_target_is_dropped_or_clipped_by_its_first_line)
{
    const Lines column(9, "#");
    PlainEngine engine(3, 0, 1,
                       {PlainGlyph(0, 3, column), PlainGlyph(0, 4, column),
                        PlainGlyph(0, 8, column), PlainGlyph(0, 2, column)});
    EXPECT_EQ(composed(engine, 4), (Lines{"#---", "#--#", "#--#"}));
}

TEST_F(FontTarget, glyph_is_dropped_left_of_the_target_and_clipped_right_of_it)
{
    PlainEngine left(2, 0, 4, {PlainGlyph(-1, 2, {"###", "###"})});
    EXPECT_EQ(composed(left, 4), (Lines{"----", "----"}));
    PlainEngine wide_left(2, 0, 4, {PlainGlyph(-1, 2, {"#########", "#########"})});
    EXPECT_EQ(composed(wide_left, 4), (Lines{"----", "----"}));
    PlainEngine right(2, 0, 4, {PlainGlyph(1, 2, {"##.##", "#.###"})});
    EXPECT_EQ(composed(right, 4), (Lines{"-##-", "-#-#"}));
    PlainEngine whole(2, 0, 4, {PlainGlyph(1, 2, {"#.#", "###"})});
    EXPECT_EQ(composed(whole, 4), (Lines{"-#-#", "-###"}));
    PlainEngine outside(2, 0, 4, {PlainGlyph(4, 2, {"##", "##"})});
    EXPECT_EQ(composed(outside, 4), (Lines{"----", "----"}));
}

TEST_F(FontTarget, glyph_reaches_into_the_cells_beside_its_own)
{
    PlainEngine engine(3, 0, 4,
                       {PlainGlyph(0, 3, {"#####.#", ".......", "#.#.#.#"}),
                        PlainGlyph(-2, 3, {"##..#.", "##..##", ".#...."}), //
                        PlainGlyph(1, 3, {"#######", "......#", "#.....#"})});
    EXPECT_EQ(composed(engine, 16),
              (Lines{"#####-#--#######", "--##--##----...#", "#-###-#--#--...#"}));
}

// ---- Widths that fit no format ------------------------------------------------------------------

TEST_F(FontTarget, width_without_whole_bytes_draws_the_text_on_old_contents)
{
    constexpr struct {
        std::uint32_t mask;
        std::uint32_t width;
        const char *message;
    } rows[] = {{15, 7, "invalid targetWidth with 2BPP 7l"},
                {3, 6, "invalid targetWidth with 2BPP 6l"},
                {3, 7, "invalid targetWidth with 2BPP 7l"}};
    for (const auto &row : rows) {
        PlainEngine engine(4, 0, 3,
                           {PlainGlyph(0, 4, {"##.", "#.#", "..#", "###"}),
                            PlainGlyph(1, 4, {"####", "...#", "#..#", "####"})});
        Target target(row.width, 4, row.mask, 0x55);
        const Look look = {row.width, row.mask, 2, 3};
        EXPECT_EQ(
            support::errors_of([&] { EXPECT_EQ(compose(engine.get(), "ab", look, target), 0); }),
            report("", row.message, "font_draw_string_background"));
        Lines expected = {"##--###", "#-#----", "--#-#--", "###-###"};
        for (std::string &line : expected)
            line.resize(row.width);
        EXPECT_EQ(target.picture(2, row.mask & 0x55), expected);
    }
}

// ---- Bad arguments ------------------------------------------------------------------------------

TEST_F(FontTarget, null_text_and_target_are_refused_before_all_else)
{
    init(support::small_font());
    Target target(12, 8, 3);
    const std::string refusal = report("", "invalid parameter", "font_get_target_bitmap");
    EXPECT_EQ(support::errors_of([&] {
                  EXPECT_EQ(font_get_target_bitmap(&engine_, nullptr, 3, 1, 12, 7, 1, target.get()),
                            -22);
              }),
              refusal);
    EXPECT_EQ(support::errors_of([&] {
                  EXPECT_EQ(font_get_target_bitmap(&engine_, "1", 3, 1, 12, 7, 1, nullptr), -22);
              }),
              refusal);
    EXPECT_TRUE(target.is_untouched());
    expect_live_engine();
}

TEST_F(FontTarget, mask_is_refused_before_the_size_is_looked_at)
{
    init(support::small_font());
    Target target(12, 8, 3);
    for (const std::uint32_t mask : {0U, 1U, 2U, 4U, 7U, 16U, 254U, 256U, 4294967295U}) {
        EXPECT_EQ(support::errors_of([&] {
                      EXPECT_EQ(
                          font_get_target_bitmap(&engine_, "1", 3, 1, 12, mask, 1, target.get()),
                          -22);
                  }),
                  report("", "invalid mask", "font_get_target_bitmap"));
    }
    EXPECT_TRUE(target.is_untouched());
    expect_live_engine();
}

TEST_F(FontTarget, size_that_disagrees_ends_the_process)
{
    PlainEngine engine(2, 0, 4, {PlainGlyph(0, 2, {"#"})});
    Target target(8, 2, 15);
    for (const std::uint32_t size : {0U, 7U, 9U, 16U}) {
        EXPECT_EXIT(font_get_target_bitmap(engine.get(), "aaaa", 3, 1, 8, 15, size, target.get()),
                    testing::KilledBySignal(SIGABRT),
                    MatchesRegex("[^\n]*font_get_target_bitmap\\([^\n]*\\): Assertion `targetSize "
                                 "== targetWidth \\* targetHeight \\* pixelSize / 8' failed\\.\n"
                                 "(qemu: [^\n]*\n)?")); // an emulator tells of the signal
    }
}

TEST_F(FontTarget, size_is_compared_in_32_bits)
{
    constexpr struct {
        std::uint32_t width;
        std::uint32_t size;
    } rows[] = {{0x40000001, 4}, {0x04000001, 0x10000004}};
    for (const auto &row : rows) {
        PlainEngine engine(8, 0, 4, {});
        Target target(8, 8, 15);
        EXPECT_EQ(support::errors_of([&] {
                      EXPECT_EQ(font_get_target_bitmap(engine.get(), "", 3, 1, row.width, 15,
                                                       row.size, target.get()),
                                0);
                  }),
                  report("", "invalid targetWidth with 2BPP " + std::to_string(row.width) + "l",
                         "font_draw_string_background"));
        EXPECT_TRUE(target.is_untouched());
    }
}

TEST_F(FontTarget, engine_is_not_checked)
{
    Target target(8, 2, 15);
    EXPECT_DEATH(font_get_target_bitmap(nullptr, nullptr, 3, 1, 8, 15, 8, target.get()),
                 testing::Not(testing::HasSubstr("ERR:")));
}

// ---- Failures -----------------------------------------------------------------------------------

// Composes "A1/": '/' is the character that fails. The target must hold its background then.
TEST_F(FontTarget, string_that_fails_leaves_the_background)
{
    init(support::small_font());
    const std::string failed = report("", "init glyphs failed", "font_get_target_bitmap");
    const std::string glyph = report("", "set glyph failed", "font_get_string_glyphs");
    const struct {
        wraps::Function function;
        int nth;
        std::string reports;
    } rows[] = {
        {wraps::CALLOC, 1, report("", "calloc failed", "font_get_string_glyphs") + failed},
        {wraps::FT_LOAD_GLYPH, 2,
         report("", "load glyph failed", "font_get_glyph") + glyph + failed},
        {wraps::FT_GET_GLYPH, 2, report("", "get glyph failed", "font_get_glyph") + glyph + failed},
    };
    for (const auto &row : rows) {
        const Look look = {20};
        Target target(look.width, 8, look.mask);
        wraps::fail(row.function, row.nth, 1);
        EXPECT_EQ(
            support::errors_of([&] { EXPECT_EQ(compose(&engine_, "A1/", look, target), -14); }),
            row.reports);
        EXPECT_EQ(target.picture(look.fg, look.bg), Lines(8, "------------------.."));
        expect_live_engine();
    }
}

TEST_F(FontTarget, empty_string_without_memory_fails_on_a_cleared_target)
{
    init(support::small_font());
    Target target(8, 8, 3);
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_EQ(support::errors_of([&] { EXPECT_EQ(compose(&engine_, "", {8}, target), -14); }),
              report("", "calloc failed", "font_get_string_glyphs") +
                  report("", "init glyphs failed", "font_get_target_bitmap"));
    EXPECT_EQ(target.bytes(), Bytes(target.size(), 0));
}

const std::string NOT_1_BIT = report("", "invalid pixel_mode", "font_draw_target") +
                              report("", "draw target failed", "font_get_target_bitmap");

TEST_F(FontTarget, glyph_that_is_not_1_bit_ends_the_drawing)
{
    for (const int mode : {FT_PIXEL_MODE_NONE, FT_PIXEL_MODE_GRAY, FT_PIXEL_MODE_GRAY2}) {
        PlainEngine engine(2, 0, 2,
                           {PlainGlyph(0, 2, {"#.", ".#"}), PlainGlyph(0, 2, {"##"}),
                            PlainGlyph(0, 2, {"##", "##"}), PlainGlyph(0, 2, {"##", "##"})});
        unsigned char &pixel_mode = engine.glyphs()[2].record.bitmap.pixel_mode;
        pixel_mode = static_cast<unsigned char>(mode);
        const Look look = {12};
        Target target(look.width, 2, look.mask);
        EXPECT_EQ(support::errors_of(
                      [&] { EXPECT_EQ(compose(engine.get(), engine.text(), look, target), -14); }),
                  NOT_1_BIT);
        EXPECT_EQ(target.picture(look.fg, look.bg), (Lines{"#-##----....", "-#------...."}));
        pixel_mode = FT_PIXEL_MODE_MONO;
        EXPECT_EQ(composed(engine, 8), (Lines{"#-######", "-#--####"}));
    }
}

TEST_F(FontTarget, glyphs_of_a_string_are_released_also_after_one_that_is_not_1_bit)
{
    init(support::small_font());
    FT_Bitmap &one = reinterpret_cast<FT_BitmapGlyph>(engine_.pGlyphs[0].glyph)->bitmap;
    one.pixel_mode = FT_PIXEL_MODE_GRAY;
    Target target(24, 8, 3);
    EXPECT_EQ(support::errors_of([&] { EXPECT_EQ(compose(&engine_, "A1/", {24}, target), -14); }),
              NOT_1_BIT);
    EXPECT_EQ(wraps::calls(wraps::FT_DONE_GLYPH), 2);
    one.pixel_mode = FT_PIXEL_MODE_MONO;
    expect_live_engine();
}

TEST_F(FontTarget, grey_bitmap_font_fails_in_the_composition_only)
{
    support::BdfFont font = support::small_font();
    font.bits = 8;
    init(font);
    const Look look = {12, 15, 3, 1};
    Target target(look.width, 8, look.mask);
    EXPECT_EQ(support::errors_of([&] { EXPECT_EQ(compose(&engine_, "12", look, target), -14); }),
              NOT_1_BIT);
    EXPECT_EQ(target.picture(look.fg, look.bg), Lines(8, "------------"));
}

TEST_F(FontTarget, drawing_alone_refuses_other_masks_after_the_pixel_mode)
{
    PlainEngine engine(2, 0, 2, {PlainGlyph(0, 2, {"#"})});
    for (const std::uint32_t mask : {0U, 1U, 7U, 256U}) {
        Target target(4, 2, 255);
        EXPECT_EQ(support::errors_of([&] {
                      EXPECT_LT(font_draw_target(engine.with_string(), target.get(), 4, 2, mask, 1),
                                0);
                  }),
                  report("", "invalid mask", "font_draw_target"));
        EXPECT_TRUE(target.is_untouched());
    }
    engine.glyphs()[0].record.bitmap.pixel_mode = FT_PIXEL_MODE_GRAY;
    Target target(4, 2, 255);
    EXPECT_EQ(support::errors_of([&] {
                  EXPECT_LT(font_draw_target(engine.with_string(), target.get(), 4, 2, 7, 1), 0);
              }),
              report("", "invalid pixel_mode", "font_draw_target"));
    PlainEngine nothing(2, 0, 2, {});
    EXPECT_EQ(font_draw_target(nothing.with_string(), target.get(), 4, 2, 7, 1), 0);
}

} // namespace
