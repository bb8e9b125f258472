// The tool qm5sim: pictures as PNG files, post threads, and its manners.
#include "sim_reader.h"
#include "support/application.h"
#include "support/files.h"

#include <filesystem>
#include <png.h>
#include <sstream>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using support::count_shown;
using support::Ended;
using support::Words;

class SimTool : public support::ApplicationTest
{
protected:
    static Ended sim(const Words &words)
    {
        Words all = {QM5SIM_PROGRAM};
        all.insert(all.end(), words.begin(), words.end());
        return support::run(all);
    }
};

struct RgbPng {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<std::uint8_t> rgb;
};

RgbPng read_rgb_png(const std::string &path)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    RgbPng png;
    if (!png_image_begin_read_from_file(&image, path.c_str()))
        return png;
    image.format = PNG_FORMAT_RGB;
    png.width = image.width;
    png.height = image.height;
    png.rgb.resize(PNG_IMAGE_SIZE(image));
    png_image_finish_read(&image, nullptr, png.rgb.data(), 0, nullptr);
    return png;
}

TEST_F(SimTool, snapshot_is_the_picture_of_the_post)
{
    start({"--Post2Rectangle0On=1", "--Post2Osd0X=600", "--Post2Osd0Y=300", "--Post2Osd0W=100",
           "--Post2Osd0H=100", "--Post2Osd0ColorFg=5"});
    EXPECT_TRUE(shows(2, [](const sim_reader::Post &post) { return count_shown(post) == 1; }));
    ASSERT_EQ(sim({"snapshot", "2", "/tmp/two.png"}).status, 0);
    const RgbPng png = read_rgb_png("/tmp/two.png");
    ASSERT_EQ(png.width, 640u);
    ASSERT_EQ(png.height, 360u);
    const sim_reader::Color &color = sim_reader::palette()[5];
    for (unsigned y = 0; y < png.height; y++) {
        for (unsigned x = 0; x < png.width; x++) {
            const std::uint8_t *pixel = &png.rgb[(std::size_t{y} * png.width + x) * 3];
            const bool colored =
                pixel[0] == color.red && pixel[1] == color.green && pixel[2] == color.blue;
            ASSERT_EQ(colored, x >= 600 && y >= 300) << x << ' ' << y; // cut at the picture's edges
        }
    }
    fs::remove("/tmp/two.png");
    stop();
}

TEST_F(SimTool, post_opens_resizes_and_closes)
{
    start({"--Post1TypeOn=1"});
    EXPECT_EQ(sim({"post", "1", "resize", "400x300"}).status, 0);
    EXPECT_TRUE(shows(1, [](const sim_reader::Post &post) {
        return post.width == 400 && post.height == 300 && count_shown(post) == 1;
    }));
    EXPECT_EQ(sim({"post", "1", "close"}).status, 0);
    EXPECT_TRUE(shows(1, [](const sim_reader::Post &post) { return post.res_id == 0; }));
    EXPECT_EQ(sim({"post", "1", "close"}).status, 0);
    const Ended ended = sim({"snapshot", "1", "/tmp/one.png"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "qm5sim: post 1: it has no post thread\n");
    stop();
}

TEST_F(SimTool, posts_of_a_codec_that_has_never_run_can_be_opened_resized_and_closed)
{
    for (const Words &words : {Words{"post", "0", "open", "352x288"}, Words{"post", "1", "close"},
                               Words{"post", "2", "resize", "320x180"}}) {
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, 0) << ended.err;
        EXPECT_EQ(ended.out, "");
    }
    start({});
    EXPECT_TRUE(shows(
        0, [](const sim_reader::Post &post) { return post.width == 352 && post.height == 288; }));
    EXPECT_TRUE(shows(
        2, [](const sim_reader::Post &post) { return post.width == 320 && post.height == 180; }));
    EXPECT_EQ(sim_reader::read_post("/tmp/codec", 1).res_id, 0u);
    stop();
}

TEST_F(SimTool, an_open_post_opens_only_with_the_size_it_has_and_a_closed_one_cannot_be_resized)
{
    EXPECT_EQ(sim({"post", "1", "close"}).status, 0);
    const Ended resize = sim({"post", "1", "resize", "640x360"});
    EXPECT_EQ(resize.status, 1);
    EXPECT_EQ(resize.err, "qm5sim: post 1: it is closed\n");

    EXPECT_EQ(sim({"post", "1", "open", "640x360"}).status, 0);
    EXPECT_EQ(sim({"post", "1", "open", "640x360"}).status, 0);
    const Ended open = sim({"post", "1", "open", "640x361"});
    EXPECT_EQ(open.status, 1);
    EXPECT_EQ(open.err, "qm5sim: post 1: it is open with 640x360, and can be closed or resized\n");

    EXPECT_EQ(sim({"post", "1", "resize", "640x361"}).status, 0);
    EXPECT_EQ(sim({"post", "1", "open", "640x361"}).status, 0);
}

TEST_F(SimTool, says_what_is_wrong)
{
    const Ended none = sim({"--state", "/tmp/none", "snapshot", "0", "/tmp/x.png"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "qm5sim: /tmp/none: No such file or directory\n");

    EXPECT_EQ(sim({}).err, "qm5sim: subcommand: it is required\n");
    EXPECT_EQ(sim({"bogus"}).err, "qm5sim: bogus: it was not expected\n");
    EXPECT_EQ(sim({"post", "0", "bogus"}).err, "qm5sim: bogus: it was not expected\n");
    EXPECT_EQ(sim({"snapshot", "--bogus"}).err, "qm5sim: --bogus: it was not expected\n");
    EXPECT_EQ(sim({"--state", "", "state"}).err, "qm5sim: --state: names no folder\n");

    for (const char *size : {"big", "640", "640x", "x360", "0x360", "640x0", "65536x1", "1x65536",
                             " 640x360", "640x+360", "640x360x", "closed", ""}) {
        for (const char *action : {"open", "resize"}) {
            const Ended ended = sim({"post", "0", action, size});
            EXPECT_EQ(ended.status, 2);
            EXPECT_EQ(ended.err, std::string("qm5sim: ") + size + ": not WIDTHxHEIGHT\n");
        }
    }

    for (const Words &words :
         {Words{}, Words{"snapshot", "4", "x.png"}, Words{"snapshot", "0"}, Words{"bogus"},
          Words{"post", "x", "close"}, Words{"post", "0"}, Words{"post", "0", "closed"},
          Words{"post", "0", "open"}, Words{"post", "0", "close", "640x360"}}) {
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, 2);
        EXPECT_EQ(ended.err.rfind("qm5sim: ", 0), 0u) << ended.err;
        EXPECT_EQ(ended.out, "");
    }
}

// The words in front of which a level of help stands: all subcommands that its text lists, however
// deep. A post's are behind its number.
std::vector<Words> subcommands_of(const Words &words, const std::string &help)
{
    std::vector<Words> levels;
    std::istringstream lines(help);
    std::string line;
    while (std::getline(lines, line) && line != "Subcommands:")
        continue;
    while (std::getline(lines, line) && line.starts_with("  ")) {
        if (line[2] == ' ')
            continue; // a text goes on
        Words level = words;
        if (words == Words{"post"})
            level.push_back("0");
        level.push_back(line.substr(2, line.find(' ', 2) - 2));
        levels.push_back(level);
    }
    return levels;
}

TEST_F(SimTool, helps_with_an_example_on_every_level)
{
    std::vector<Words> levels = {{}};
    for (std::size_t i = 0; i < levels.size(); i++) {
        Words words = levels[i];
        words.push_back("--help");
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.err, "");
        EXPECT_NE(ended.out.find("Usage: qm5sim"), std::string::npos) << ended.out;
        EXPECT_NE(ended.out.find("\nExample"), std::string::npos) << ended.out;
        for (const Words &level : subcommands_of(levels[i], ended.out))
            levels.push_back(level);
    }
    EXPECT_GE(levels.size(), 21u);
    EXPECT_NE(sim({"post", "--help"}).out.find("qm5sim post 1 open 640x360"), std::string::npos);
}

} // namespace
