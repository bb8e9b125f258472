// Following a log that grows, is cut off and begins anew.
#include "log.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

namespace
{

using live::LogFollower;
using live::LogState;
using support::read_file;
using support::write_file;

constexpr const char *LOG = "/tmp/log";

class Log : public testing::Test
{
protected:
    void TearDown() override
    {
        std::remove(LOG);
        EXPECT_EQ(support::temporary_files(), std::vector<std::string>{});
    }

    static void append(const std::string &text)
    {
        std::ofstream(LOG, std::ios::app | std::ios::binary) << text;
    }

    LogFollower follower_{LOG};
};

TEST_F(Log, counts_whole_lines)
{
    EXPECT_EQ(follower_.look(), (LogState{0, 0, false}));
    write_file(LOG, "");
    EXPECT_EQ(follower_.look(), (LogState{1, 0, true}));
    append("on");
    EXPECT_EQ(follower_.look(), (LogState{1, 0, true}));
    append("e\ntwo\nth");
    EXPECT_EQ(follower_.look(), (LogState{1, 8, true}));
    append("ree\n");
    EXPECT_EQ(follower_.look(), (LogState{1, 14, true}));
    EXPECT_EQ(follower_.look(), (LogState{1, 14, true}));
}

TEST_F(Log, begins_anew_when_it_is_cut_off)
{
    write_file(LOG, "one\ntwo\n");
    EXPECT_EQ(follower_.look().generation, 1u);
    write_file(LOG, "three\n");
    EXPECT_EQ(follower_.look(), (LogState{2, 6, true}));
    write_file(LOG, "another\nand longer\n");
    EXPECT_EQ(follower_.look(), (LogState{3, 19, true}));
    write_file(LOG, "another\nand lengthy\n");
    EXPECT_EQ(follower_.look(), (LogState{4, 20, true})) << "its beginning is the same";
    write_file(LOG, "");
    EXPECT_EQ(follower_.look(), (LogState{5, 0, true}));
}

TEST_F(Log, begins_anew_in_another_file)
{
    write_file(LOG, "one\n");
    EXPECT_EQ(follower_.look(), (LogState{1, 4, true}));
    write_file("/tmp/other", "one\n");
    std::rename("/tmp/other", LOG);
    EXPECT_EQ(follower_.look(), (LogState{2, 4, true}));
    std::remove(LOG);
    EXPECT_EQ(follower_.look(), (LogState{3, 0, false}));
    EXPECT_EQ(follower_.look(), (LogState{3, 0, false}));
    write_file(LOG, "two\n");
    EXPECT_EQ(follower_.look(), (LogState{4, 4, true}));
}

TEST_F(Log, goes_on_when_only_more_has_come)
{
    const std::string line = std::string(99, 'x') + "\n";
    std::string text;
    for (int i = 0; i < 100; i++) {
        append(line);
        text += line;
        EXPECT_EQ(follower_.look(), (LogState{1, text.size(), true}));
    }
}

TEST_F(Log, takes_a_line_without_an_end_in_pieces)
{
    write_file(LOG, std::string(64 * 1024, 'x'));
    EXPECT_EQ(follower_.look(), (LogState{1, 0, true}));
    append("x");
    EXPECT_EQ(follower_.look(), (LogState{1, 64 * 1024 + 1, true}));
}

TEST_F(Log, is_read_by_whole_lines)
{
    write_file(LOG, "one\ntwo\nthree\n");
    EXPECT_EQ(live::read_log(LOG, 0, 14, 100), "one\ntwo\nthree\n");
    EXPECT_EQ(live::read_log(LOG, 4, 14, 100), "two\nthree\n");
    EXPECT_EQ(live::read_log(LOG, 0, 8, 100), "one\ntwo\n");
    EXPECT_EQ(live::read_log(LOG, 0, 14, 9), "one\ntwo\n");
    EXPECT_EQ(live::read_log(LOG, 8, 14, 3), "thr") << "a line longer than a piece";
    EXPECT_EQ(live::read_log(LOG, 14, 14, 9), "");
    EXPECT_EQ(live::read_log(LOG, 20, 30, 9), "") << "cut off since";
    EXPECT_EQ(live::read_log("/tmp/none", 0, 14, 9), "");
}

TEST_F(Log, has_a_tail_of_whole_lines)
{
    write_file(LOG, "one\ntwo\nthree\n");
    EXPECT_EQ(live::find_tail(LOG, 14, 14), 0u);
    EXPECT_EQ(live::find_tail(LOG, 14, 13), 4u);
    EXPECT_EQ(live::find_tail(LOG, 14, 10), 8u);
    EXPECT_EQ(live::find_tail(LOG, 14, 7), 8u);
    EXPECT_EQ(live::find_tail(LOG, 14, 3), 11u) << "a line longer than that";
    EXPECT_EQ(live::find_tail(LOG, 8, 5), 4u);
}

} // namespace
