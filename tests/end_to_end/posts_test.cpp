// Post threads that come, go and change their size while the server runs.
#include "support/application.h"
#include "support/files.h"
#include "support/rendered_text.h"

namespace
{

using support::count_shown;
using support::report;
using support::shows_text;

class Posts : public support::ApplicationTest
{
};

TEST_F(Posts, closed_post_is_forgotten_and_a_new_thread_is_fitted_to_its_size)
{
    start({"--Post1TypeOn=1", "--Post1TimeOn=1"});
    EXPECT_TRUE(shows(1, [](const sim_reader::Post &post) { return count_shown(post) == 2; }));
    const std::uint32_t first = post(1).res_id;

    set_post(1, 0, 0);
    EXPECT_TRUE(shows(1, [](const sim_reader::Post &post) {
        return post.res_id == 0 && count_shown(post) == 0;
    }));
    set_post(1, 352, 288);
    EXPECT_TRUE(shows(1, [](const sim_reader::Post &post) {
        return shows_text(post.osd[1], " Stream#1 ", {13, 3, 1}) &&
               support::shows_recent_time(post.osd[3], 0, {13, 3, 1});
    }));
    EXPECT_NE(post(1).res_id, first);
    EXPECT_EQ(log(), support::NO_ZONE) << "a thread that goes is no failure";
    stop();
}

TEST_F(Posts, new_size_is_taken_up)
{
    start({"--Post0StringOn=1", "--Post0String=size"});
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return shows_text(post.osd[0], " size ", {28, 3, 1});
    }));
    set_post(0, 1280, 720);
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return shows_text(post.osd[0], " size ", {50, 3, 1});
    }));
    stop();
}

TEST_F(Posts, parameters_wait_for_a_post_without_a_thread)
{
    for (unsigned i = 0; i < SIM_POSTS; i++)
        set_post(i, 0, 0);
    start();
    const support::Ended ended = tool({"update", "--Post3TypeOn=1"});
    EXPECT_EQ(ended.status, 0) << ended.err << log();
    EXPECT_EQ(post(3).res_id, 0u);
    set_post(3, 640, 480);
    EXPECT_TRUE(shows(3, [](const sim_reader::Post &post) {
        return shows_text(post.osd[1], " Storage ", {25, 3, 1});
    }));
    stop();
}

TEST_F(Posts, post_too_narrow_stays_without_osds_until_it_fits)
{
    set_post(2, 0, 0);
    start({"--Post2TypeOn=1"});
    set_post(2, 135, 100);
    const std::string failed =
        report("server", "video width is invalid.(W/H=135/100)", "osd_do_callback_open") +
        report("server", "open osd failed", "osd_do_callback") +
        report("server", "do post 2 callback failed", "osd_server_main_loop") +
        report("server", "post 2 has been closed", "osd_refresh") + // marked while it had no thread
        report("server", "osd display failed", "osd_server_main_loop");
    // The line about the zone was in the tool's buffer at the fork, so the server has it too.
    const std::string all = std::string(support::NO_ZONE) + support::NO_ZONE + failed;
    EXPECT_TRUE(support::wait_until([&] { return log() == all; })) << log();
    EXPECT_EQ(count_shown(post(2)), 0u);
    set_post(2, 136, 100);
    EXPECT_TRUE(shows(2, [](const sim_reader::Post &post) {
        return shows_text(post.osd[1], " Stream#2 ", {8, 3, 1});
    }));
    stop();
}

TEST_F(Posts, many_changes_at_once_end_in_the_last_one)
{
    start({"--Post0TypeOn=1", "--Post1TypeOn=1", "--Post2TypeOn=1", "--Post3TypeOn=1"});
    for (unsigned round = 0; round < 25; round++) {
        for (unsigned i = 0; i < SIM_POSTS; i++) {
            set_post(i, 0, 0);
            set_post(i, 200 + 10 * round, 300);
        }
    }
    for (unsigned i = 0; i < SIM_POSTS; i++)
        set_post(i, 720, 480);
    for (unsigned i = 0; i < SIM_POSTS; i++) {
        EXPECT_TRUE(shows(i, [](const sim_reader::Post &post) {
            return post.width == 720 && post.osd[1].record.shown == 1 &&
                   post.osd[1].record.height == 28;
        })) << i;
    }
    stop();
}

} // namespace
