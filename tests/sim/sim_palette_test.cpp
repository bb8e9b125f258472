// qm5sim palette: what is in force, what may be loaded, and that pictures show it.
#include "handmade_codec.h"
#include "support/files.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>

namespace
{

namespace fs = std::filesystem;
using sim_reader::Color;
using sim_reader::Palette;
using support::Ended;
using support::Words;

class SimPalette : public support::SimCommandTest
{
protected:
    static std::string printed()
    {
        const Ended ended = sim({"palette"});
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.err, "");
        return ended.out;
    }

    // The palette in force, from what the tool prints.
    static Palette in_force()
    {
        std::istringstream text(printed());
        std::string comment;
        std::getline(text, comment);
        EXPECT_EQ(comment, "; INDEX RED GREEN BLUE ALPHA");
        Palette all{};
        for (unsigned i = 0; i < all.size(); i++) {
            std::array<unsigned, 5> numbers{};
            for (unsigned &number : numbers)
                text >> number;
            EXPECT_EQ(numbers[0], i);
            const auto byte = [](unsigned number) { return static_cast<std::uint8_t>(number); };
            all[i] = {byte(numbers[1]), byte(numbers[2]), byte(numbers[3]), byte(numbers[4])};
        }
        std::string rest;
        EXPECT_FALSE(text >> rest) << rest;
        EXPECT_FALSE(text.bad());
        return all;
    }

    static void load(const std::string &text)
    {
        support::write_file(out("colours"), text);
        expect_silent_success({"palette", "--load", out("colours")});
    }

    std::vector<std::string> state_files() const
    {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(state_))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(SimPalette, built_in_one_is_in_force_without_a_file)
{
    EXPECT_EQ(in_force(), sim_reader::palette());
    EXPECT_FALSE(fs::exists(state_)) << "nothing is made by looking";
    EXPECT_EQ(printed().substr(0, 69), "; INDEX RED GREEN BLUE ALPHA\n"
                                       "  0   0   0   0   0\n"
                                       "  1   0   0   0 160\n");
}

TEST_F(SimPalette, loaded_indices_change_and_others_keep_their_default)
{
    load("; my colours\n"
         "\n"
         "3 255 0 10 255 ; the texts\r\n"
         "  \t\n"
         "\t200\t1 2\t3 4\n"
         "   ; nothing\n"
         "7 1 1 1 1\n"
         "007 9 8 7 255"); // the later line counts, and the last needs no line feed
    Palette expected = sim_reader::palette();
    expected[3] = {255, 0, 10, 255};
    expected[200] = {1, 2, 3, 4};
    expected[7] = {9, 8, 7, 255};
    EXPECT_EQ(in_force(), expected);
    EXPECT_EQ(state_files(), std::vector<std::string>{"palette"}) << "no draft is left";
    load("");
    EXPECT_EQ(in_force(), sim_reader::palette());
}

TEST_F(SimPalette, what_is_printed_can_be_edited_and_loaded)
{
    load("0 1 2 3 4\n255 5 6 7 8\n");
    const std::string text = printed();
    expect_silent_success({"palette", "--default"});
    EXPECT_NE(printed(), text);
    load(text);
    EXPECT_EQ(printed(), text);
    load(text + "0 9 9 9 9\n");
    EXPECT_EQ(in_force()[0], (Color{9, 9, 9, 9}));
    EXPECT_EQ(in_force()[255], (Color{5, 6, 7, 8}));
}

TEST_F(SimPalette, bad_line_is_told_and_changes_nothing)
{
    load("3 1 2 3 4\n");
    const std::string before = printed();
    for (const std::string line :
         {"1 2 3 4", "1 2 3 4 5 6", "256 0 0 0 0", "0 256 0 0 0", "0 0 0 0 -1", "0 0 0 0 +1",
          "0 0 0 0 0x1", "0 0 0 0 1.0", "a b c d e", "0,0,0,0,0", "1", "1 2 3 ; 4 5",
          "0 0 0 0 99999999999999999999", "# 1 2 3 4"}) {
        support::write_file(out("colours"), "; fine\n0 0 0 0 0\n\n" + line + "\n5 0 0 0\n");
        expect_failure({"palette", "--load", out("colours")}, 1,
                       "qm5sim: /tmp/out/colours: line 4: "
                       "not INDEX RED GREEN BLUE ALPHA, of 0 to 255 each\n");
        EXPECT_EQ(printed(), before);
    }
    EXPECT_EQ(state_files(), std::vector<std::string>{"palette"});
}

TEST_F(SimPalette, bad_file_in_the_folder_is_told_until_it_is_replaced)
{
    codec_.open_post(0, 16, 8);
    codec_.save();
    support::write_file(state_ + "/palette", "oops\n");
    const std::string message = "qm5sim: /tmp/codec/palette: line 1: "
                                "not INDEX RED GREEN BLUE ALPHA, of 0 to 255 each\n";
    expect_failure({"palette"}, 1, message);
    expect_failure({"snapshot", "0", out("x.png")}, 1, message);
    EXPECT_EQ(out_files(), std::vector<std::string>{});
    expect_silent_success({"palette", "--default"});
    EXPECT_EQ(in_force(), sim_reader::palette());
    expect_silent_success({"snapshot", "0", out("x.png")});
}

TEST_F(SimPalette, default_is_the_built_in_one_whatever_was_there)
{
    expect_silent_success({"palette", "--default"}); // without a folder
    load("3 1 2 3 4\n");
    EXPECT_NE(in_force(), sim_reader::palette());
    expect_silent_success({"palette", "--default"});
    EXPECT_EQ(in_force(), sim_reader::palette());
    EXPECT_EQ(state_files(), std::vector<std::string>{});
    expect_silent_success({"palette", "--default"});
}

TEST_F(SimPalette, pictures_are_in_the_palette_in_force)
{
    codec_.open_post(1, 16, 8);
    codec_.show_osd(1, 0, {.width = 16, .height = 8}, 9);
    codec_.save();
    load("9 200 100 0 51\n");
    sim_reader::Picture below{16, 8, std::vector<std::uint8_t>(16 * 8 * 3, 100)};
    sim_reader::write_png(below, out("below.png"));
    expect_silent_success({"snapshot", "1", "--over", out("below.png"), out("x.png")});
    const sim_reader::Picture shown = sim_reader::PngFile(out("x.png")).read_picture();
    ASSERT_EQ(shown.rgb.size(), below.rgb.size());
    for (std::size_t i = 0; i < shown.rgb.size(); i++)
        ASSERT_EQ(shown.rgb[i], (std::array{120, 100, 80})[i % 3]) << i; // a fifth of it
    expect_silent_success({"snapshot", "1", "--osd", "0", out("osd.png")});
    EXPECT_EQ(sim_reader::PngFile(out("osd.png")).read_indexed().colors[9],
              (Color{200, 100, 0, 51}));
}

TEST_F(SimPalette, full_disk_leaves_the_palette_in_force)
{
    const support::FullDisk disk(state_);
    load("3 1 2 3 4\n");
    const std::string before = printed();
    support::write_file(out("colours"), std::string(100, '\n') + before + before);
    expect_failure({"palette", "--load", out("colours")}, 1,
                   "qm5sim: /tmp/codec/palette: No space left on device\n");
    EXPECT_EQ(printed(), before);
    EXPECT_EQ(state_files(), (std::vector<std::string>{"filler", "palette"}));
}

TEST_F(SimPalette, says_what_is_wrong)
{
    expect_failure({"palette", "--load", out("none")}, 1,
                   "qm5sim: /tmp/out/none: No such file or directory\n");
    expect_failure({"palette", "--load", "/tmp/out"}, 1, "qm5sim: /tmp/out: Is a directory\n");
    EXPECT_FALSE(fs::exists(state_));
    support::write_file(out("colours"), "");
    expect_failure({"--state", "/tmp/none/codec", "palette", "--load", out("colours")}, 1,
                   "qm5sim: /tmp/none/codec/palette: No such file or directory\n");
    const Ended both = sim({"palette", "--load", out("colours"), "--default"});
    EXPECT_EQ(both.status, 2);
    EXPECT_EQ(both.err, "qm5sim: --load: not with --default\n");
    const Ended full =
        support::run({"/bin/sh", "-c", std::string(QM5SIM_PROGRAM) + " palette > /dev/full"});
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "qm5sim: standard output: No space left on device\n");
}

TEST_F(SimPalette, helps_with_examples)
{
    const Ended ended = sim({"palette", "--help"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.out.find("qm5sim palette --load colours\n"), std::string::npos);
}

} // namespace
