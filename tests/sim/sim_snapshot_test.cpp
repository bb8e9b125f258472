// qm5sim snapshot: pictures of a post and of one OSD, guides on them, and comparisons.
#include "handmade_codec.h"
#include "support/files.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <png.h>
#include <sys/file.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using sim_reader::Color;
using sim_reader::Picture;
using support::count_shown;
using support::Ended;
using support::Words;

// ---- PNG files, read and written by libpng's other interface ------------------------------------

struct Png {
    unsigned width = 0;
    unsigned height = 0;
    int depth = 0;
    int color_type = 0;
    std::vector<std::uint8_t> samples; // a byte each
    std::vector<Color> palette;        // alpha as the file gives it, 255 where it gives none
};

void take_palette(png_structp png, png_infop info, Png &read)
{
    png_colorp colors = nullptr;
    int count = 0;
    if (png_get_PLTE(png, info, &colors, &count) == 0)
        return;
    for (int i = 0; i < count; i++)
        read.palette.push_back({colors[i].red, colors[i].green, colors[i].blue, 255});
    png_bytep alphas = nullptr;
    if (png_get_tRNS(png, info, &alphas, &count, nullptr) == 0)
        return;
    for (int i = 0; i < count; i++)
        read.palette.at(static_cast<std::size_t>(i)).alpha = alphas[i];
}

Png read_png(const std::string &path)
{
    Png read;
    FILE *file = std::fopen(path.c_str(), "rb");
    if (!file) {
        ADD_FAILURE() << path << " isn't there";
        return read;
    }
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_init_io(png, file);
    png_read_png(png, info, PNG_TRANSFORM_PACKING, nullptr); // an error ends the test program
    read.width = png_get_image_width(png, info);
    read.height = png_get_image_height(png, info);
    read.depth = support::read_file(path).at(24); // as libpng tells it, it is unpacked already
    read.color_type = png_get_color_type(png, info);
    png_bytepp rows = png_get_rows(png, info);
    const std::size_t line = std::size_t{read.width} * png_get_channels(png, info);
    for (unsigned y = 0; y < read.height; y++)
        read.samples.insert(read.samples.end(), rows[y], rows[y] + line);
    take_palette(png, info, read);
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(file);
    return read;
}

// ---- Pictures -----------------------------------------------------------------------------------

Color pixel_at(const std::vector<std::uint8_t> &rgb, unsigned width, unsigned x, unsigned y)
{
    const std::uint8_t *pixel = &rgb.at((std::size_t{y} * width + x) * 3);
    return {pixel[0], pixel[1], pixel[2], 255};
}

std::string describe(const Color &color)
{
    return std::to_string(color.red) + ' ' + std::to_string(color.green) + ' ' +
           std::to_string(color.blue);
}

// Each pixel of the picture has the colour that the function gives.
void expect_pixels(const Png &png, const std::function<Color(unsigned x, unsigned y)> &expected)
{
    ASSERT_EQ(png.color_type, PNG_COLOR_TYPE_RGB);
    ASSERT_EQ(png.depth, 8);
    for (unsigned y = 0; y < png.height; y++) {
        for (unsigned x = 0; x < png.width; x++)
            ASSERT_EQ(describe(pixel_at(png.samples, png.width, x, y)), describe(expected(x, y)))
                << x << ',' << y;
    }
}

// A picture in which no pixel is like another.
Color street_color(unsigned x, unsigned y)
{
    return {static_cast<std::uint8_t>(x), static_cast<std::uint8_t>(y), 77, 255};
}

void write_street(const std::string &file, unsigned width, unsigned height)
{
    Picture picture{width, height, {}};
    for (unsigned y = 0; y < height; y++) {
        for (unsigned x = 0; x < width; x++)
            picture.rgb.insert(picture.rgb.end(),
                               {static_cast<std::uint8_t>(x), static_cast<std::uint8_t>(y), 77});
    }
    sim_reader::write_png(picture, file);
}

Color over(const Color &below, const Color &above)
{
    const auto mix = [&above](unsigned low, unsigned high) {
        return static_cast<std::uint8_t>((high * above.alpha + low * (255u - above.alpha)) / 255u);
    };
    return {mix(below.red, above.red), mix(below.green, above.green), mix(below.blue, above.blue),
            255};
}

constexpr Color RED = {255, 64, 64, 255};
constexpr Color GREEN = {0, 255, 0, 255};
constexpr Color BLUE = {64, 128, 255, 255};
constexpr Color YELLOW = {255, 255, 0, 255};
constexpr Color MAGENTA = {255, 0, 255, 255};

struct Box {
    unsigned left, top, right, bottom; // the last two are behind it

    bool has(unsigned x, unsigned y) const
    {
        return x >= left && x < right && y >= top && y < bottom;
    }
    bool has_on_edge(unsigned x, unsigned y) const
    {
        return has(x, y) && (x == left || x + 1 == right || y == top || y + 1 == bottom);
    }
};

class SimSnapshot : public support::SimCommandTest
{
protected:
    // Post 0 of this size over the street, with further words.
    static Png snapshot_over_street(const Words &words, unsigned width, unsigned height)
    {
        write_street(out("street.png"), width, height);
        Words all = {"snapshot", "0", out("shown.png"), "--over", out("street.png")};
        all.insert(all.end(), words.begin(), words.end());
        expect_silent_success(all);
        return read_png(out("shown.png"));
    }

    // Post 0, 16 by 8, with an OSD of four pixels at 4,2: grey in the left two, white in the rest.
    void show_four_pixels()
    {
        codec_.open_post(0, 16, 8);
        codec_.show_osd(0, 1, {.color_type = 1, .width = 2, .height = 2, .x = 4, .y = 2});
        codec_.state.post[0].osd[1].line_bytes = 1;
        codec_.draw(0, 1, {0x32, 0x32});
        codec_.save();
    }
};

// ---- The post -----------------------------------------------------------------------------------

TEST_F(SimSnapshot, lies_over_the_test_pattern)
{
    codec_.open_post(0, 80, 8);
    codec_.show_osd(0, 0, {.width = 4, .height = 1, .x = 20, .y = 7}, 5);
    codec_.save();
    expect_silent_success({"snapshot", "0", out("shown.png")});
    const Png png = read_png(out("shown.png"));
    EXPECT_EQ(png.width, 80u);
    EXPECT_EQ(png.height, 8u);
    const std::vector<Color> bars = {{150, 150, 150, 255}, {150, 150, 40, 255}, {40, 150, 150, 255},
                                     {40, 150, 40, 255},   {150, 40, 150, 255}, {150, 40, 40, 255},
                                     {40, 40, 150, 255},   {30, 30, 30, 255}};
    expect_pixels(png, [&bars](unsigned x, unsigned y) -> Color {
        if (y == 7 && x >= 20 && x < 24)
            return sim_reader::palette()[5];
        if (y < 6)
            return bars[x / 10];
        const auto grey = static_cast<std::uint8_t>(x * 255 / 80);
        return {grey, grey, grey, 255};
    });
}

TEST_F(SimSnapshot, before_any_server_is_the_test_pattern_of_the_size_that_the_post_was_told)
{
    expect_silent_success({"post", "0", "open", "80x8"});
    expect_silent_success({"snapshot", "0", out("shown.png")});
    const Picture pattern = sim_reader::test_pattern(80, 8);
    const Png png = read_png(out("shown.png"));
    EXPECT_EQ(png.width, 80u);
    EXPECT_EQ(png.samples, pattern.rgb);
    expect_silent_success({"post", "0", "close"});
    expect_failure({"snapshot", "0", out("x.png")}, 1, "qm5sim: post 0: it has no post thread\n");
}

TEST_F(SimSnapshot, osds_of_a_dead_server_go_with_their_post_thread)
{
    show_four_pixels();
    expect_silent_success({"post", "0", "resize", "80x8"});
    expect_silent_success({"snapshot", "0", out("shown.png")});
    EXPECT_EQ(read_png(out("shown.png")).samples, sim_reader::test_pattern(80, 8).rgb);
    expect_failure({"snapshot", "0", out("x.png"), "--osd", "1"}, 1,
                   "qm5sim: OSD 1 of post 0: it is not open\n");
}

TEST_F(SimSnapshot, lies_over_a_given_picture)
{
    show_four_pixels();
    const Png png = snapshot_over_street({}, 16, 8);
    ASSERT_EQ(png.width, 16u);
    ASSERT_EQ(png.height, 8u);
    expect_pixels(png, [](unsigned x, unsigned y) -> Color {
        if (y == 2 || y == 3) {
            if (x == 4)
                return {128, 128, 128, 255};
            if (x == 5)
                return {255, 255, 255, 255};
        }
        return street_color(x, y);
    });
}

TEST_F(SimSnapshot, later_osd_covers_an_earlier_one_and_clear_pixels_cover_nothing)
{
    codec_.open_post(0, 16, 8);
    codec_.show_osd(0, 0, {.width = 8, .height = 4, .x = 0, .y = 0}, 4);
    codec_.show_osd(0, 1, {.width = 8, .height = 4, .x = 4, .y = 2}, 1);
    codec_.show_osd(0, 2, {.width = 8, .height = 4, .x = 0, .y = 0}, 0);
    codec_.show_osd(0, 3, {.width = 8, .height = 4, .x = 0, .y = 0}, 6).shown = 0;
    codec_.save();
    const Png png = snapshot_over_street({}, 16, 8);
    const Box first = {0, 0, 8, 4};
    const Box second = {4, 2, 12, 6};
    expect_pixels(png, [&](unsigned x, unsigned y) {
        Color color = street_color(x, y);
        if (first.has(x, y))
            color = sim_reader::palette()[4];
        if (second.has(x, y))
            color = over(color, sim_reader::palette()[1]);
        return color;
    });
}

TEST_F(SimSnapshot, post_that_no_video_has_is_refused)
{
    codec_.open_post(0, 65535, 65535);
    codec_.open_post(1, 8193, 8192);
    codec_.open_post(2, 640, 0); // as a server leaves it that was killed while it opened
    codec_.save();
    const auto expect = [](const char *post, const std::string &why) {
        expect_failure({"snapshot", post, out("x.png")}, 1,
                       std::string("qm5sim: post ") + post + ": " + why + '\n');
    };
    expect("0", "a picture of 65535x65535 pixels is too large");
    expect("1", "a picture of 8193x8192 pixels is too large");
    expect("2", "it has no post thread");
}

TEST_F(SimSnapshot, background_of_another_size_is_refused)
{
    codec_.open_post(0, 720, 576);
    codec_.save();
    write_street(out("back.png"), 640, 480);
    expect_failure({"snapshot", "0", out("x.png"), "--over", out("back.png")}, 1,
                   "qm5sim: /tmp/out/back.png: 640x480, but post 0 is 720x576\n");
    EXPECT_EQ(out_files(), std::vector<std::string>{"back.png"});
}

// ---- One OSD ------------------------------------------------------------------------------------

TEST_F(SimSnapshot, osd_alone_keeps_depth_indices_palette_and_alpha)
{
    codec_.open_post(2, 8, 8); // the OSD is larger, and seen whole all the same
    const std::vector<std::uint8_t> bytes = {0xE4, 0x1B, 0x72, 0xFF, 0x00, 0x39, 0xC6, 0x80};
    struct Case {
        std::uint32_t color_type;
        unsigned width_of_line;
        std::vector<std::uint8_t> indices;
    };
    const std::vector<Case> cases = {
        {0, 16, {0, 1, 2, 3, 3, 2, 1, 0, 2, 0, 3, 1, 3, 3, 3, 3,
                 0, 0, 0, 0, 1, 2, 3, 0, 2, 1, 0, 3, 0, 0, 0, 2}},
        {1, 8, {4, 14, 11, 1, 2, 7, 15, 15, 0, 0, 9, 3, 6, 12, 0, 8}},
        {2, 4, {0xE4, 0x1B, 0x72, 0xFF, 0x00, 0x39, 0xC6, 0x80}},
    };
    for (const Case &one : cases) {
        codec_.show_osd(2, 3, {.color_type = one.color_type, .width = 3, .height = 2, .x = 100});
        ASSERT_EQ(codec_.state.post[2].osd[3].line_bytes, 4u);
        codec_.draw(2, 3, bytes);
        codec_.save();
        expect_silent_success({"snapshot", "2", out("osd.png"), "--osd", "3"});
        const Png png = read_png(out("osd.png"));
        EXPECT_EQ(png.color_type, PNG_COLOR_TYPE_PALETTE);
        EXPECT_EQ(png.depth, 2 << one.color_type);
        EXPECT_EQ(png.width, one.width_of_line);
        EXPECT_EQ(png.height, 2u);
        EXPECT_EQ(png.samples, one.indices);
        ASSERT_EQ(png.palette.size(), std::size_t{1} << png.depth);
        for (std::size_t i = 0; i < png.palette.size(); i++)
            EXPECT_EQ(png.palette[i], sim_reader::palette()[i]) << i;
    }
}

TEST_F(SimSnapshot, osd_that_is_not_to_be_seen_is_a_failure)
{
    codec_.open_post(0, 64, 64);
    codec_.show_osd(0, 1, {.color_type = 1, .width = 16, .height = 4}).shown = 0;
    codec_.show_osd(0, 2, {.color_type = 1, .width = 16, .height = 0});
    codec_.save();
    const auto words = [](const char *post, const char *osd) {
        return Words{"snapshot", post, out("osd.png"), "--osd", osd};
    };
    expect_failure(words("0", "0"), 1, "qm5sim: OSD 0 of post 0: it is not open\n");
    expect_failure(words("0", "1"), 1, "qm5sim: OSD 1 of post 0: it is not shown\n");
    expect_failure(words("0", "2"), 1, "qm5sim: OSD 2 of post 0: it has no pixels\n");
    expect_failure(words("1", "0"), 1, "qm5sim: post 1: it has no post thread\n");
    expect_failure(words("0", "4"), 2, "qm5sim: --osd: Value 4 not in range 0 to 3\n");
    EXPECT_EQ(out_files(), std::vector<std::string>{});
}

// ---- Guides -------------------------------------------------------------------------------------

TEST_F(SimSnapshot, guides_frame_each_shown_osd_with_all_of_its_lines)
{
    codec_.open_post(0, 120, 60);
    codec_.show_osd(0, 0, {.width = 18, .height = 10, .x = 2, .y = 3});
    codec_.show_osd(0, 1, {.width = 20, .height = 10, .x = 40, .y = 3}, 4);
    codec_.show_osd(0, 2, {.width = 20, .height = 10, .x = 110, .y = 55});
    codec_.show_osd(0, 3, {.width = 20, .height = 10, .x = 80, .y = 3}).shown = 0;
    codec_.save();
    const Png png = snapshot_over_street({"--guides"}, 120, 60);
    const Box zero = {2, 3, 22, 13}; // 18 pixels were asked for, and a line has 20
    const Box one = {40, 3, 60, 13};
    const Box two = {110, 55, 130, 65}; // leads past the picture's edges
    expect_pixels(png, [&](unsigned x, unsigned y) {
        if (zero.has_on_edge(x, y))
            return RED;
        if (one.has(x, y))
            return one.has_on_edge(x, y) ? GREEN : sim_reader::palette()[4];
        return two.has_on_edge(x, y) ? BLUE : street_color(x, y);
    });
}

TEST_F(SimSnapshot, guides_hatch_what_two_osds_share_in_the_colours_of_both)
{
    codec_.open_post(0, 100, 100);
    codec_.show_osd(0, 1, {.width = 60, .height = 60, .x = 0, .y = 0});
    codec_.show_osd(0, 3, {.width = 60, .height = 60, .x = 20, .y = 30});
    codec_.save();
    const Png png = snapshot_over_street({"--guides"}, 100, 100);
    const Box one = {0, 0, 60, 60};
    const Box three = {20, 30, 80, 90};
    expect_pixels(png, [&](unsigned x, unsigned y) {
        if (three.has_on_edge(x, y))
            return YELLOW;
        if (one.has_on_edge(x, y))
            return GREEN;
        if (one.has(x, y) && three.has(x, y) && (x + y) % 16 == 4)
            return GREEN;
        if (one.has(x, y) && three.has(x, y) && (x + y) % 16 == 12)
            return YELLOW;
        return street_color(x, y);
    });
}

TEST_F(SimSnapshot, guides_of_an_osd_without_lines_are_none)
{
    codec_.open_post(0, 32, 16);
    codec_.show_osd(0, 0, {.width = 8, .height = 0, .x = 4, .y = 4});
    codec_.show_osd(0, 1, {.width = 0, .height = 8, .x = 4, .y = 4});
    codec_.save();
    expect_pixels(snapshot_over_street({"--guides", "--cell", "4x8"}, 32, 16), street_color);
}

TEST_F(SimSnapshot, guides_frame_what_the_safe_spaces_leave)
{
    codec_.open_post(0, 64, 48);
    codec_.save();
    const Box safe = {8, 2, 64 - 16, 48 - 4};
    expect_pixels(snapshot_over_street({"--guides", "--safe", "2,4,8,16"}, 64, 48),
                  [&safe](unsigned x, unsigned y) {
                      return safe.has_on_edge(x, y) ? MAGENTA : street_color(x, y);
                  });
}

TEST_F(SimSnapshot, guides_divide_rows_of_text_cells_and_nothing_else)
{
    codec_.open_post(0, 200, 60);
    codec_.show_osd(0, 0, {.width = 35, .height = 12, .x = 10, .y = 5}).line_bytes = 40;
    codec_.draw(0, 0, std::vector<std::uint8_t>(40 * 12, 0));
    codec_.show_osd(0, 1, {.width = 36, .height = 12, .x = 60, .y = 5});
    codec_.show_osd(0, 2, {.width = 35, .height = 13, .x = 110, .y = 5});
    codec_.save();
    const Png png = snapshot_over_street({"--guides", "--cell", "7x12"}, 200, 60);
    const Box row = {10, 5, 50, 17}; // 35 pixels in a line of 40
    const Box wider = {60, 5, 96, 17};
    const Box higher = {110, 5, 146, 18};
    expect_pixels(png, [&](unsigned x, unsigned y) {
        if (row.has_on_edge(x, y))
            return RED;
        if (row.has(x, y) && x <= 10 + 35 && (x - 10) % 7 == 0)
            return over(street_color(x, y), {255, 64, 64, 128});
        if (wider.has_on_edge(x, y))
            return GREEN;
        return higher.has_on_edge(x, y) ? BLUE : street_color(x, y);
    });
}

TEST_F(SimSnapshot, guides_are_those_of_the_parameters_in_force)
{
    codec_.open_post(0, 300, 60);
    codec_.show_osd(0, 0, {.color_type = 2, .width = 22 * 4, .height = 8, .x = 8, .y = 2});
    codec_.show_osd(0, 1, {.color_type = 1, .width = 50, .height = 8, .x = 8, .y = 48}); // off
    codec_.show_osd(0, 3, {.color_type = 0, .width = 40, .height = 8, .x = 220, .y = 48});
    codec_.save();
    support::write_file("/tmp/osd_tmp_param.txt",
                        "[osd]\nOsdTVOutSafeSpaceUp=2\nOsdTVOutSafeSpaceDown=4\n"
                        "OsdTVOutSafeSpaceLeft=8\nOsdTVOutSafeSpaceRight=16\n"
                        "Post0StringOn=1\nPost0TypeOn=0\nPost0DateOn=1\nPost0TimeOn=1\n");
    const Box safe = {8, 2, 300 - 16, 60 - 4};
    const Box string = {8, 2, 96, 10};
    const Box label = {8, 48, 64, 56};   // 50 pixels in a line of 56
    const Box time = {220, 48, 268, 56}; // 40 in a line of 48
    // What the guides frame, over the frame of these safe spaces.
    const auto framed = [&](const Box &left, unsigned x, unsigned y) {
        if (string.has_on_edge(x, y))
            return RED;
        if (label.has_on_edge(x, y))
            return GREEN;
        if (time.has_on_edge(x, y))
            return YELLOW;
        return left.has_on_edge(x, y) ? MAGENTA : street_color(x, y);
    };
    const auto expected = [&](unsigned x, unsigned y) {
        const Color below = framed(safe, x, y);
        if (string.has_on_edge(x, y) || time.has_on_edge(x, y))
            return below;
        if (string.has(x, y) && (x - 8) % 4 == 0)
            return over(below, {255, 64, 64, 128});
        if (time.has(x, y) && x <= 260 && (x - 220) % 4 == 0)
            return over(below, {255, 255, 0, 128});
        return below;
    };
    expect_pixels(snapshot_over_street({"--guides"}, 300, 60), expected);

    const Box own = {1, 1, 299, 59};
    expect_pixels(
        snapshot_over_street({"--guides", "--safe", "1,1,1,1", "--cell", "300x60"}, 300, 60),
        [&](unsigned x, unsigned y) { return framed(own, x, y); });

    // An update may bring in safe spaces that no opening would take.
    support::write_file("/tmp/osd_tmp_param.txt", "[osd]\nOsdTVOutSafeSpaceUp=60\n");
    expect_silent_success({"snapshot", "0", "--guides", out("x.png")});
    support::remove_file("/tmp/osd_tmp_param.txt");
}

TEST_F(SimSnapshot, guides_of_a_server_are_those_of_its_texts)
{
    start({"--Post0StringOn=1", "--Post0String=hello"});
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) { return count_shown(post) == 1; }));
    const sim_reader::Post post = SimSnapshot::post(0);
    const sim_osd &osd = post.osd[0].record;
    expect_silent_success({"snapshot", "0", "--guides", out("own.png")});
    expect_silent_success({"snapshot", "0", "--guides", "--cell",
                           std::to_string(osd.width / 22) + 'x' + std::to_string(osd.height),
                           "--check", out("own.png")});
    EXPECT_EQ(sim({"snapshot", "0", "--guides", "--cell", "1x1", "--check", out("own.png")}).status,
              1)
        << "they are there";
    stop();
}

TEST_F(SimSnapshot, guides_that_make_no_sense_are_told)
{
    codec_.open_post(0, 64, 48);
    codec_.save();
    const auto words = [](const char *option, const char *value) {
        return Words{"snapshot", "0", out("x.png"), "--guides", option, value};
    };
    for (const std::string safe : {"", "1", "1,2,3", "1,2,3,", "1,2,3,4,5", "1,2,3,x", "1,2,,4",
                                   " 1,2,3,4", "1,2,3,4 ", "1,2,3,4294967296"})
        expect_failure(words("--safe", safe.c_str()), 2,
                       "qm5sim: --safe " + safe + ": not UP,DOWN,LEFT,RIGHT\n");
    for (const std::string cell : {"", "7", "7x", "0x7", "7x0", "closed", "7x12x"})
        expect_failure(words("--cell", cell.c_str()), 2,
                       "qm5sim: --cell " + cell + ": not WIDTHxHEIGHT\n");
    for (const char *safe : {"24,24,0,0", "0,0,1,63", "4294967295,4294967295,0,0"})
        expect_failure(words("--safe", safe), 1, "qm5sim: --safe: leaves nothing of 64x48\n");
    expect_failure({"snapshot", "0", out("x.png"), "--safe", "1,1,1,1"}, 2,
                   "qm5sim: --safe: only with --guides\n");
    expect_failure({"snapshot", "0", out("x.png"), "--cell", "7x12"}, 2,
                   "qm5sim: --cell: only with --guides\n");
    expect_failure({"snapshot", "0", out("x.png"), "--osd", "0", "--guides"}, 2,
                   "qm5sim: --osd: not with --guides\n");
    expect_failure({"snapshot", "0", out("x.png"), "--osd", "0", "--over", "back.png"}, 2,
                   "qm5sim: --over: not with --osd\n");
    EXPECT_EQ(out_files(), std::vector<std::string>{});
}

// ---- Checks -------------------------------------------------------------------------------------

TEST_F(SimSnapshot, check_of_an_equal_picture_is_silent_and_writes_nothing)
{
    show_four_pixels();
    snapshot_over_street({"--guides"}, 16, 8);
    const Words words = {"snapshot", "0",       "--over",        out("street.png"),
                         "--guides", "--check", out("shown.png")};
    expect_silent_success(words);
    Words with_file = words;
    with_file.push_back(out("difference.png"));
    expect_silent_success(with_file);
    EXPECT_EQ(out_files(), (std::vector<std::string>{"shown.png", "street.png"}));
}

TEST_F(SimSnapshot, check_counts_the_differing_pixels_and_shows_them)
{
    show_four_pixels();
    snapshot_over_street({}, 16, 8);
    codec_.draw(0, 1, {0x52, 0x32});
    const Words words = {"snapshot", "0", "--over", out("street.png"), "--check", out("shown.png")};
    expect_failure(words, 1, "qm5sim: /tmp/out/shown.png: 1 pixel differs, first at 5,2\n");
    EXPECT_EQ(out_files(), (std::vector<std::string>{"shown.png", "street.png"}));

    codec_.draw(0, 1, {0x52, 0x44});
    Words with_file = words;
    with_file.push_back(out("difference.png"));
    expect_failure(with_file, 1, "qm5sim: /tmp/out/shown.png: 3 pixels differ, first at 5,2\n");
    expect_pixels(read_png(out("difference.png")), [](unsigned x, unsigned y) -> Color {
        if ((y == 2 && x == 5) || (y == 3 && (x == 4 || x == 5)))
            return {255, 0, 0, 255};
        const Color color = x == 4 && y == 2 ? sim_reader::palette()[2] : street_color(x, y);
        const auto grey =
            static_cast<std::uint8_t>((color.red * 77 + color.green * 150 + color.blue * 29) / 768);
        return {grey, grey, grey, 255};
    });
}

TEST_F(SimSnapshot, check_tells_of_another_size)
{
    show_four_pixels();
    write_street(out("reference.png"), 15, 8);
    expect_failure({"snapshot", "0", "--check", out("reference.png")}, 1,
                   "qm5sim: /tmp/out/reference.png: 15x8, but post 0 is 16x8\n");
    for (const std::string &file : {std::string(), out("difference.png")})
        expect_failure({"snapshot", "0", "--osd", "1", "--check", out("reference.png"), file}, 1,
                       "qm5sim: /tmp/out/reference.png: 15x8, but OSD 1 of post 0 is 2x2\n");
    EXPECT_EQ(out_files(), std::vector<std::string>{"reference.png"});
}

TEST_F(SimSnapshot, check_shows_what_only_one_of_two_sizes_has)
{
    show_four_pixels();
    write_street(out("street.png"), 16, 8);
    write_street(out("reference.png"), 15, 9);
    expect_failure({"snapshot", "0", "--over", out("street.png"), "--check", out("reference.png"),
                    out("difference.png")},
                   1, "qm5sim: /tmp/out/reference.png: 15x9, but post 0 is 16x8\n");
    const Png shown = read_png(out("difference.png"));
    EXPECT_EQ(shown.width, 16u);
    EXPECT_EQ(shown.height, 9u);
    expect_pixels(shown, [](unsigned x, unsigned y) -> Color {
        const bool is_in_osd = (x == 4 || x == 5) && (y == 2 || y == 3);
        if (x == 15 || y == 8 || is_in_osd)
            return {255, 0, 0, 255};
        const Color color = street_color(x, y);
        const auto grey =
            static_cast<std::uint8_t>((color.red * 77 + color.green * 150 + color.blue * 29) / 768);
        return {grey, grey, grey, 255};
    });
}

TEST_F(SimSnapshot, check_of_an_osd_shows_what_only_one_of_two_sizes_has)
{
    show_four_pixels();
    expect_silent_success({"snapshot", "0", "--osd", "1", out("osd.png")});
    codec_.show_osd(0, 1, {.color_type = 1, .width = 2, .height = 1, .x = 4, .y = 2});
    codec_.state.post[0].osd[1].line_bytes = 1;
    codec_.save();
    codec_.draw(0, 1, {0x32});
    expect_failure(
        {"snapshot", "0", "--osd", "1", "--check", out("osd.png"), out("difference.png")}, 1,
        "qm5sim: /tmp/out/osd.png: 2x2, but OSD 1 of post 0 is 2x1\n");
    expect_pixels(read_png(out("difference.png")), [](unsigned x, unsigned y) -> Color {
        if (y == 1)
            return {255, 0, 0, 255};
        const std::uint8_t grey = x == 0 ? 128 / 3 : 255 / 3;
        return {grey, grey, grey, 255};
    });
}

TEST_F(SimSnapshot, check_of_an_osd_compares_indices)
{
    show_four_pixels();
    expect_silent_success({"snapshot", "0", "--osd", "1", out("osd.png")});
    const Words words = {"snapshot",           "0", "--osd", "1", "--check", out("osd.png"),
                         out("difference.png")};
    expect_silent_success(words);

    codec_.draw(0, 1, {0x32, 0xF2}); // 15 is black
    expect_failure(words, 1, "qm5sim: /tmp/out/osd.png: 1 pixel differs, first at 1,1\n");
    expect_pixels(read_png(out("difference.png")), [](unsigned x, unsigned y) -> Color {
        if (x == 1 && y == 1)
            return {255, 0, 0, 255};
        const std::uint8_t grey = x == 0 ? 128 / 3 : 255 / 3;
        return {grey, grey, grey, 255};
    });

    // Index 8 now looks as index 3 does, and is another all the same.
    codec_.draw(0, 1, {0x32, 0x82});
    support::write_file(state_ + "/palette", "8 255 255 255 255\n");
    expect_failure(words, 1, "qm5sim: /tmp/out/osd.png: 1 pixel differs, first at 1,1\n");
}

TEST_F(SimSnapshot, check_of_an_osd_compares_colours)
{
    show_four_pixels();
    expect_silent_success({"snapshot", "0", "--osd", "1", out("osd.png")});
    support::write_file(state_ + "/palette", "2 128 128 128 254\n");
    expect_failure({"snapshot", "0", "--osd", "1", "--check", out("osd.png")}, 1,
                   "qm5sim: /tmp/out/osd.png: 2 pixels differ, first at 0,0\n");
}

TEST_F(SimSnapshot, check_of_an_osd_takes_a_palette_png_of_its_depth)
{
    show_four_pixels();
    write_street(out("rgb.png"), 2, 2);
    expect_failure({"snapshot", "0", "--osd", "1", "--check", out("rgb.png")}, 1,
                   "qm5sim: /tmp/out/rgb.png: no palette PNG of 4 bits, as OSD 1 of post 0 is\n");
    codec_.show_osd(0, 2, {.width = 4, .height = 2});
    codec_.state.post[0].osd[2].line_bytes = 2;
    codec_.save();
    expect_silent_success({"snapshot", "0", "--osd", "2", out("eight.png")});
    expect_failure({"snapshot", "0", "--osd", "1", "--check", out("eight.png")}, 1,
                   "qm5sim: /tmp/out/eight.png: no palette PNG of 4 bits, as OSD 1 of post 0 is\n");
}

TEST_F(SimSnapshot, difference_does_not_replace_what_it_was_compared_with)
{
    show_four_pixels();
    write_street(out("reference.png"), 16, 8);
    const std::string before = support::read_file(out("reference.png"));
    expect_failure(
        {"snapshot", "0", "--check", out("reference.png"), "/tmp/out/../out/reference.png"}, 2,
        "qm5sim: /tmp/out/../out/reference.png: "
        "the difference would replace what to compare\n");
    EXPECT_EQ(support::read_file(out("reference.png")), before);
}

// ---- What goes wrong ----------------------------------------------------------------------------

TEST_F(SimSnapshot, broken_png_is_told)
{
    show_four_pixels();
    snapshot_over_street({}, 16, 8);
    const std::string whole = support::read_file(out("shown.png"));
    ASSERT_GT(whole.size(), 100u);
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{7}, std::size_t{20}, std::size_t{60}, whole.size() - 20}) {
        support::write_file(out("cut.png"), whole.substr(0, length));
        for (const char *option : {"--over", "--check"}) {
            const Ended ended = sim({"snapshot", "0", option, out("cut.png"), out("x.png")});
            EXPECT_EQ(ended.status, 1);
            EXPECT_EQ(ended.err.rfind("qm5sim: /tmp/out/cut.png: no good PNG file (", 0), 0u)
                << length << ' ' << ended.err;
        }
    }
    support::write_file(out("cut.png"), "This is a text, and no picture.\n");
    expect_failure({"snapshot", "0", "--over", out("cut.png"), out("x.png")}, 1,
                   "qm5sim: /tmp/out/cut.png: no good PNG file (Not a PNG file)\n");
    for (const char *option : {"--over", "--check"})
        expect_failure({"snapshot", "0", option, out("none.png"), out("x.png")}, 1,
                       "qm5sim: /tmp/out/none.png: No such file or directory\n");
    expect_failure({"snapshot", "0", "--over", "/tmp/out", out("x.png")}, 1,
                   "qm5sim: /tmp/out: Is a directory\n");
    EXPECT_EQ(out_files(), (std::vector<std::string>{"cut.png", "shown.png", "street.png"}));
}

TEST_F(SimSnapshot, target_that_cannot_be_written_is_told)
{
    show_four_pixels();
    expect_failure({"snapshot", "0", out("none/x.png")}, 1,
                   "qm5sim: /tmp/out/none/x.png: No such file or directory\n");
    expect_failure({"snapshot", "0", "/tmp/out"}, 1, "qm5sim: /tmp/out: Is a directory\n");
    expect_failure({"snapshot", "0", "/dev/full"}, 1,
                   "qm5sim: /dev/full: No space left on device\n");
    expect_failure({"snapshot", "0"}, 2, "qm5sim: file: it is required\n");
    EXPECT_EQ(out_files(), std::vector<std::string>{});
}

TEST_F(SimSnapshot, full_disk_leaves_what_was_there)
{
    codec_.open_post(0, 200, 200);
    codec_.show_osd(0, 0, {.width = 200, .height = 200});
    std::vector<std::uint8_t> noise(200 * 200);
    std::uint32_t seed = 1;
    for (std::uint8_t &byte : noise) { // doesn't get smaller by compression
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(seed >> 24);
    }
    codec_.draw(0, 0, noise);
    codec_.save();
    const support::FullDisk disk(out("disk"));
    expect_failure({"snapshot", "0", out("disk/x.png")}, 1,
                   "qm5sim: /tmp/out/disk/x.png: No space left on device\n");
    EXPECT_FALSE(fs::exists(out("disk/x.png")));
    support::write_file(out("disk/x.png"), "an older picture");
    expect_failure({"snapshot", "0", "--osd", "0", out("disk/x.png")}, 1,
                   "qm5sim: /tmp/out/disk/x.png: No space left on device\n");
    EXPECT_EQ(support::read_file(out("disk/x.png")), "an older picture");
    EXPECT_EQ(std::distance(fs::directory_iterator(out("disk")), {}), 2) << "and the filler";
}

TEST_F(SimSnapshot, link_is_followed)
{
    show_four_pixels();
    support::write_file(out("real.png"), "an older picture");
    fs::create_symlink("real.png", out("link.png"));
    expect_silent_success({"snapshot", "0", out("link.png")});
    EXPECT_TRUE(fs::is_symlink(out("link.png")));
    EXPECT_EQ(read_png(out("real.png")).width, 16u);
}

TEST_F(SimSnapshot, state_that_cannot_be_read_is_told)
{
    const Words words = {"snapshot", "0", out("x.png")};
    expect_failure(words, 1, "qm5sim: /tmp/codec: No such file or directory\n");
    codec_.open_post(0, 16, 8);
    codec_.show_osd(0, 0, {.width = 8, .height = 8});
    codec_.save();
    support::write_file(codec_.pixel_file(0, 0), std::string(63, '\0'));
    expect_failure(words, 1,
                   "qm5sim: /tmp/codec/post0-osd0: not all pixels of the OSD are there\n");
    support::remove_file(codec_.pixel_file(0, 0));
    expect_failure(words, 1,
                   "qm5sim: /tmp/codec/post0-osd0: not all pixels of the OSD are there\n");

    codec_.state.version++;
    codec_.save();
    expect_failure(words, 1,
                   "qm5sim: /tmp/codec/state: no state of a simulated codec, "
                   "or of another version\n");
    codec_.state.version--;
    codec_.state.sequence |= 1;
    codec_.save();
    const int device = open(codec_.state_file().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(device, LOCK_EX | LOCK_NB), 0);
    expect_failure(words, 1,
                   "qm5sim: /tmp/codec/state: its process stays in the middle of a change\n");
    close(device); // and with it the lock: the process has gone
    support::write_file(codec_.pixel_file(0, 0), std::string(64, '\0'));
    expect_silent_success(words);
    fs::remove(out("x.png"));
    support::write_file(codec_.state_file(), "cut");
    expect_failure(words, 1, "qm5sim: /tmp/codec/state: no state of a simulated codec\n");
    EXPECT_EQ(out_files(), std::vector<std::string>{});
}

TEST_F(SimSnapshot, helps_with_examples)
{
    const Ended ended = sim({"snapshot", "--help"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.out.find("qm5sim snapshot 0 --osd 3 time.png\n"), std::string::npos);
    EXPECT_NE(ended.out.find("--safe UP,DOWN,LEFT,RIGHT"), std::string::npos);
}

} // namespace
