// What each of the four outputs shows, pixel by pixel, at several sizes: the pictures that
// `qm5sim snapshot` gives are held against those painted by hand and against those that are kept in
// tests/references.
//
// QM5OSD_WRITE_REFERENCES=1 in the environment writes the kept ones anew: the tests then fail, and
// what has changed is to be looked at. The font is one of the tests' own and the clock stands, so
// that the pictures are the same on every machine.
#include "sim/run_sim.h"
#include "support/application.h"
#include "support/files.h"
#include "support/painted.h"
#include "support/plain_font.h"
#include "support/reference.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using sim_reader::Color;
using sim_reader::Picture;
using support::Ended;
using support::wait_until;
using support::Words;

constexpr const char *CLOCK = "/tmp/clock";
constexpr const char *FONT = "/tmp/font.bdf";
constexpr const char *SCENE = "/tmp/pictures.conf";
constexpr const char *STREET = "/tmp/street.png";
constexpr const char *SHOWN = "/tmp/shown.png";

constexpr long LAST_SECOND = 1830297599; // 2027-12-31 23:59:59 UTC

// Colours of the palette, as a fresh codec has it.
constexpr Color SHADE = {0, 0, 0, 160};       // 1
constexpr Color GREY = {128, 128, 128, 255};  // 2
constexpr Color WHITE = {255, 255, 255, 255}; // 3 and 255
constexpr Color GREEN = {32, 192, 64, 255};   // 5
constexpr Color YELLOW = {240, 208, 32, 255}; // 7
constexpr Color NAVY = {0, 0, 51, 255};       // 17
constexpr Color CYAN = {0, 255, 255, 255};    // 51
constexpr Color RED = {255, 0, 0, 255};       // 196
constexpr Color PINK = {255, 0, 255, 255};    // 201
constexpr Color ORANGE = {255, 153, 0, 255};  // 214
constexpr Color CLEAR = {0, 0, 0, 0};         // 0

constexpr const char *COLORS = "OsdDateFgColor=3\nOsdDateBgColor=1\n"
                               "OsdTimeFgColor=2\nOsdTimeBgColor=3\n"
                               "OsdTypeFgColor=7\nOsdTypeBgColor=0\n"
                               "OsdStringBgColor=17\n";

struct Output {
    const char *label;
    const char *string; // the user's, up to 20 bytes
    unsigned index;
    Color color;
};
constexpr std::array<Output, SIM_POSTS> OUTPUTS = {{
    {" TVOut ", "Gate 2 (north), jpqy", 214, ORANGE},
    {" Stream#1 ", "#1 + 2 = 3; <ok>?", 51, CYAN},
    {" Stream#2 ", "[Street_5] 90% `a|b~", 255, WHITE},
    {" Storage ", "\"Kept\" @ D:\\x/y & *!", 201, PINK},
}};

struct SafeSpace {
    unsigned up, down, left, right;
};
constexpr SafeSpace NO_SPACE = {0, 0, 0, 0};

struct Size {
    unsigned width, height;
    unsigned font; // lines of the texts: a 19th of three quarters of the width, cut
};
constexpr Size SIZE_1920 = {1920, 1080, 75};
constexpr Size SIZE_1280 = {1280, 720, 50};
constexpr Size SIZE_720_576 = {720, 576, 28};
constexpr Size SIZE_720_480 = {720, 480, 28};
constexpr Size SIZE_640 = {640, 360, 25};
constexpr Size SIZE_352 = {352, 288, 13};
constexpr Size SIZE_320 = {320, 180, 12};

class Pictures : public support::ApplicationTest
{
protected:
    void SetUp() override
    {
        ApplicationTest::SetUp();
        setenv("TZ", "UTC0", 1);
        set_clock(LAST_SECOND);
        for (unsigned i = 0; i < SIM_POSTS; i++)
            set_post(i, 0, 0);
    }

    void TearDown() override
    {
        unsetenv("TZ");
        for (const char *file : {CLOCK, FONT, SCENE, STREET, SHOWN})
            fs::remove(file);
        ApplicationTest::TearDown();
    }

    // Puts a text in a file's place at once.
    static void replace_file(const char *path, const std::string &text)
    {
        const std::string draft = std::string(path) + ".new";
        support::write_file(draft, text);
        fs::rename(draft, path);
    }

    static void set_clock(long seconds)
    {
        replace_file(CLOCK, std::to_string(seconds));
    }

    // A bitmap font has one size, and a post reads the file whenever it opens.
    static void set_font(const Size &size)
    {
        replace_file(FONT, support::to_bdf(support::plain_font(size.font)));
    }

    // A server with all texts on, and the clock of the test.
    void start_server(const std::string &more = "")
    {
        std::string text = std::string("[osd]\nOsdFontFile=") + FONT + '\n' + COLORS + more;
        for (unsigned i = 0; i < SIM_POSTS; i++) {
            const std::string key = "Post" + std::to_string(i);
            for (const char *on : {"DateOn", "TimeOn", "TypeOn", "StringOn"})
                text += key + on + "=1\n";
            text += key + "String=" + OUTPUTS[i].string + '\n';
            text += key + "StringColor=" + std::to_string(OUTPUTS[i].index) + '\n';
        }
        support::write_file(SCENE, text);
        setenv("QM5OSD_TEST_CLOCK", CLOCK, 1);
        setenv("LD_PRELOAD", QM5OSD_FIXED_CLOCK, 1);
        const char *options = std::getenv("ASAN_OPTIONS");
        const std::string before = options ? options : "";
        setenv("ASAN_OPTIONS", (before + ":verify_asan_link_order=0").c_str(),
               1); // the clock leads
        start({"-f", SCENE});
        setenv("ASAN_OPTIONS", before.c_str(), 1);
        unsetenv("LD_PRELOAD");
        unsetenv("QM5OSD_TEST_CLOCK");
    }

    static void resize(unsigned number, const Size &size)
    {
        set_font(size);
        const auto give = [&](const char *action) {
            return run_sim({"post", std::to_string(number), action,
                            std::to_string(size.width) + 'x' + std::to_string(size.height)});
        };
        Ended ended = give("resize");
        if (ended.status != 0) // it is closed
            ended = give("open");
        EXPECT_EQ(ended.status, 0) << ended.err;
    }

    // The post with all texts, painted.
    static Picture paint_texts(unsigned number, const Size &size, const SafeSpace &space = NO_SPACE,
                               const char *date = " 31/12/2027 ", const char *time = " 23:59:59 ")
    {
        const Output &output = OUTPUTS.at(number);
        const support::BdfFont font = support::plain_font(size.font);
        const auto cell = static_cast<unsigned>(font.advance);
        const unsigned lower = size.height - size.font - space.down;
        const unsigned right = size.width - space.right; // where the text ends
        Picture picture = support::street(size.width, size.height);
        support::paint_text(picture, space.left, space.up, ' ' + std::string(output.string) + ' ',
                            font, output.color, NAVY);
        support::paint_text(picture, space.left, lower, output.label, font, YELLOW, CLEAR);
        support::paint_text(picture, right - 12 * cell, space.up, date, font, WHITE, SHADE);
        support::paint_text(picture, right - 10 * cell, lower, time, font, GREY, WHITE);
        return picture;
    }

    // Does the post come to show the painted picture, and is that the one kept under this name?
    static void expect_picture(unsigned number, const Picture &painted, const std::string &name)
    {
        const std::string post = std::to_string(number);
        sim_reader::write_png(support::street(painted.width, painted.height), STREET);
        const bool shown = wait_until([&] {
            return run_sim({"snapshot", post, "--over", STREET, SHOWN}).status == 0 &&
                   sim_reader::PngFile(SHOWN).read_picture().rgb == painted.rgb;
        });
        EXPECT_TRUE(support::matches_reference(name, {post, "--over", STREET}));
        ASSERT_TRUE(shown) << name << " is not as painted";
    }

    static std::string name_of(unsigned number, const Size &size, const std::string &what = "texts")
    {
        return "post" + std::to_string(number) + '-' + std::to_string(size.width) + 'x' +
               std::to_string(size.height) + '-' + what;
    }

    void show_texts(unsigned number, const Size &size)
    {
        resize(number, size);
        expect_picture(number, paint_texts(number, size), name_of(number, size));
    }
};

// ---- Texts --------------------------------------------------------------------------------------

struct Outlay {
    const char *name;
    std::array<Size, SIM_POSTS> sizes;
};
constexpr Outlay OUTLAYS[] = {
    {"tv_576", {SIZE_720_576, SIZE_1920, SIZE_640, SIZE_1280}},
    {"tv_480", {SIZE_720_480, SIZE_1280, SIZE_320, SIZE_640}},
    {"tv_288", {SIZE_352, SIZE_640, SIZE_1280, SIZE_1920}},
};

std::ostream &operator<<(std::ostream &out, const Outlay &outlay)
{
    return out << outlay.name;
}

class PicturesOfSizes : public Pictures, public testing::WithParamInterface<Outlay>
{
};

TEST_P(PicturesOfSizes, show_all_texts_of_each_output)
{
    start_server();
    for (unsigned i = 0; i < SIM_POSTS; i++)
        ASSERT_NO_FATAL_FAILURE(show_texts(i, GetParam().sizes.at(i)));
    stop();
}

INSTANTIATE_TEST_SUITE_P(Outlay, PicturesOfSizes, testing::ValuesIn(OUTLAYS),
                         [](const auto &outlay) { return outlay.param.name; });

TEST_F(Pictures, follow_outputs_that_change_their_size)
{
    start_server();
    for (const Size &size : {SIZE_720_576, SIZE_352, SIZE_720_480})
        ASSERT_NO_FATAL_FAILURE(show_texts(0, size));
    for (const Size &size : {SIZE_640, SIZE_1920})
        ASSERT_NO_FATAL_FAILURE(show_texts(1, size));
    ASSERT_NO_FATAL_FAILURE(
        expect_picture(0, paint_texts(0, SIZE_720_480), name_of(0, SIZE_720_480)));
    stop();
}

TEST_F(Pictures, come_back_with_an_output_that_was_closed)
{
    start_server();
    ASSERT_NO_FATAL_FAILURE(show_texts(2, SIZE_320));
    ASSERT_EQ(run_sim({"post", "2", "close"}).status, 0);
    EXPECT_TRUE(wait_until([] {
        return run_sim({"snapshot", "2", SHOWN}).err == "qm5sim: post 2: it has no post thread\n";
    }));
    ASSERT_NO_FATAL_FAILURE(show_texts(2, SIZE_640));
    ASSERT_EQ(run_sim({"post", "2", "close"}).status, 0);
    ASSERT_NO_FATAL_FAILURE(show_texts(2, SIZE_320));
    stop();
}

TEST_F(Pictures, keep_to_the_safe_space_of_the_tv_output)
{
    start_server("OsdTVOutSafeSpaceUp=8\nOsdTVOutSafeSpaceDown=12\n"
                 "OsdTVOutSafeSpaceLeft=16\nOsdTVOutSafeSpaceRight=24\n");
    constexpr SafeSpace space = {8, 12, 16, 24};
    // (720 - 40) * 3 / 4 = 510 less 20 is 490, of which a 19th is 25.
    for (const Size &size : {Size{720, 576, 25}, Size{720, 480, 25}}) {
        resize(0, size);
        ASSERT_NO_FATAL_FAILURE(
            expect_picture(0, paint_texts(0, size, space), name_of(0, size, "safe")));
    }
    ASSERT_NO_FATAL_FAILURE(show_texts(2, SIZE_320)); // the others have none
    stop();
}

TEST_F(Pictures, show_the_new_year)
{
    start_server();
    ASSERT_NO_FATAL_FAILURE(show_texts(0, SIZE_352));
    set_clock(LAST_SECOND + 1);
    ASSERT_NO_FATAL_FAILURE(
        expect_picture(0, paint_texts(0, SIZE_352, NO_SPACE, " 01/01/2028 ", " 00:00:00 "),
                       name_of(0, SIZE_352, "new-year")));
    stop();
}

// ---- Rectangles ---------------------------------------------------------------------------------

struct Rectangle {
    unsigned slot;
    unsigned color_type;
    unsigned x, y, width, height;
    unsigned index;
    Color color;
};

class PicturesOfRectangles : public Pictures
{
protected:
    // Shows the rectangles in the places of these texts, and keeps the others.
    void show_rectangles(unsigned number, const Words &texts_off,
                         const std::vector<Rectangle> &rectangles)
    {
        const std::string post = "--Post" + std::to_string(number);
        Words words = {"update"};
        for (const std::string &text : texts_off)
            words.push_back(post + text + "On=0");
        for (const Rectangle &row : rectangles) {
            const std::string slot = std::to_string(row.slot);
            words.push_back(post + "Rectangle" + slot + "On=1");
            const auto add = [&](const char *key, unsigned value) {
                words.push_back(post + "Osd" + slot + key + '=' + std::to_string(value));
            };
            add("ColorType", row.color_type);
            add("ColorFg", row.index);
            add("X", row.x);
            add("Y", row.y);
            add("W", row.width);
            add("H", row.height);
        }
        const Ended ended = tool(words);
        EXPECT_EQ(ended.status, 0) << ended.err << log();
    }

    static void paint_rectangles(Picture &picture, const std::vector<Rectangle> &rectangles)
    {
        for (const Rectangle &row : rectangles)
            support::paint_rectangle(picture, row.x, row.y, row.width, row.height, row.color);
    }
};

TEST_F(PicturesOfRectangles, lie_one_over_the_other_and_end_at_the_edges)
{
    start_server();
    ASSERT_NO_FATAL_FAILURE(show_texts(0, SIZE_720_576));
    const std::vector<Rectangle> rectangles = {
        {0, 2, 40, 60, 201, 50, 196, RED},
        {1, 1, 100, 90, 333, 77, 5, GREEN},
        {2, 0, 300, 30, 99, 300, 1, SHADE},
        {3, 0, 690, 500, 100, 100, 2, GREY},
    };
    show_rectangles(0, {"String", "Type", "Date", "Time"}, rectangles);
    Picture painted = support::street(720, 576);
    paint_rectangles(painted, rectangles);
    ASSERT_NO_FATAL_FAILURE(expect_picture(0, painted, name_of(0, SIZE_720_576, "rectangles")));
    stop();
}

TEST_F(PicturesOfRectangles, stand_beside_the_texts_of_the_other_slots)
{
    start_server();
    constexpr std::array<Size, 4> sizes = {SIZE_352, SIZE_640, SIZE_320, SIZE_720_480};
    for (unsigned i = 1; i < SIM_POSTS; i++) {
        const Size &size = sizes.at(i);
        ASSERT_NO_FATAL_FAILURE(show_texts(i, size));
        const std::vector<Rectangle> rectangles = {
            {1, 2, 20, 40, 50 + i, 60, 51, CYAN},
            {2, 1, 50, 70, 33, 55 - i, 7, YELLOW},
        };
        show_rectangles(i, {"Type", "Date"}, rectangles);

        const support::BdfFont font = support::plain_font(size.font);
        const auto cell = static_cast<unsigned>(font.advance);
        const Output &output = OUTPUTS.at(i);
        Picture painted = support::street(size.width, size.height);
        support::paint_text(painted, 0, 0, ' ' + std::string(output.string) + ' ', font,
                            output.color, NAVY);
        paint_rectangles(painted, rectangles);
        support::paint_text(painted, size.width - 10 * cell, size.height - size.font, " 23:59:59 ",
                            font, GREY, WHITE);
        ASSERT_NO_FATAL_FAILURE(expect_picture(i, painted, name_of(i, size, "rectangles")));
    }
    stop();
}

// ---- OSDs ---------------------------------------------------------------------------------------

TEST_F(Pictures, of_one_osd_have_its_depth)
{
    start_server();
    ASSERT_NO_FATAL_FAILURE(show_texts(0, SIZE_352));
    const struct {
        unsigned osd;
        unsigned bits;
        unsigned columns; // of the memory: whole units of 16 bytes
        std::string text;
        std::uint8_t letters, background;
    } rows[] = {
        {0, 8, 144, ' ' + std::string(OUTPUTS[0].string) + ' ', 214, 17}, // 22 cells of 6: 132
        {1, 4, 64, " TVOut ", 7, 0},                                      // 10 cells: 60
        {2, 2, 128, " 31/12/2027 ", 3, 1},                                // 12 cells: 72
        {3, 2, 64, " 23:59:59 ", 2, 3},                                   // 10 cells: 60
    };
    for (const auto &row : rows) {
        const std::string number = std::to_string(row.osd);
        EXPECT_TRUE(support::matches_reference(name_of(0, SIZE_352, "osd" + number),
                                               {"0", "--osd", number}));
        ASSERT_EQ(run_sim({"snapshot", "0", "--osd", number, SHOWN}).status, 0);
        const sim_reader::IndexedPicture shown = sim_reader::PngFile(SHOWN).read_indexed();
        EXPECT_EQ(shown.bits, row.bits);
        EXPECT_EQ(shown.height, 13u);
        ASSERT_EQ(shown.width, row.columns);
        // Painted with indices for the amounts of red.
        Picture painted{row.columns, 13, std::vector<std::uint8_t>(row.columns * 13 * 3)};
        support::paint_text(painted, 0, 0, row.text, support::plain_font(13),
                            {row.letters, 0, 0, 255}, {row.background, 0, 0, 255});
        for (std::size_t i = 0; i < shown.indices.size(); i++)
            ASSERT_EQ(shown.indices[i], painted.rgb[i * 3]) << number << ": pixel " << i;
    }
    stop();
}

} // namespace
