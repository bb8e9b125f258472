// The life of a server as its operator sees it: start, update, save, restart, stop, and what each
// failure leaves behind.
#include "server/channel.h"
#include "support/application.h"
#include "support/files.h"
#include "support/rendered_text.h"

#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>

namespace
{

namespace fs = std::filesystem;
using support::Ended;
using support::NO_ZONE;
using support::read_file;
using support::report;
using support::shows_text;
using support::TextStyle;
using support::write_file;

// Font sizes of the four default outputs: 720, 1920, 640 and 1280 pixels wide.
constexpr unsigned SIZES[] = {28, 75, 25, 50};
constexpr const char *LABELS[] = {" TVOut ", " Stream#1 ", " Stream#2 ", " Storage "};

class Lifecycle : public support::ApplicationTest
{
protected:
    static bool has_line(const std::string &text, const std::string &line)
    {
        return ('\n' + text).find('\n' + line + '\n') != std::string::npos;
    }
};

TEST_F(Lifecycle, start_brings_a_server_up_and_stop_takes_everything_down)
{
    EXPECT_EQ(tool({"status"}).out, std::string(NO_ZONE) + "#qm5osd:OSD server is not running\n");
    EXPECT_EQ(tool({"status"}).status, 0);

    start();
    struct stat fifo {
    };
    ASSERT_EQ(stat(OSD_FIFO_REQ, &fifo), 0);
    EXPECT_TRUE(S_ISFIFO(fifo.st_mode));
    EXPECT_TRUE(fs::exists(OSD_TMP_PARAM));
    EXPECT_TRUE(fs::exists(OSD_TMP_PARAM_BAK));
    EXPECT_FALSE(fs::exists(OSD_FIFO_ACK));
    const Ended running = tool({"status"});
    EXPECT_EQ(running.out, std::string(NO_ZONE) + "#qm5osd:OSD server is running\n");
    EXPECT_EQ(running.status, 1);

    stop();
    for (const char *file : {OSD_FIFO_REQ, OSD_FIFO_ACK, OSD_TMP_PARAM, OSD_TMP_PARAM_BAK})
        EXPECT_FALSE(fs::exists(file)) << file;
    const Ended again = tool({"stop"});
    EXPECT_EQ(again.out, std::string(NO_ZONE) + "#qm5osd:OSD server is not running\n");
    EXPECT_EQ(again.err, "");
    EXPECT_EQ(again.status, 0);
}

TEST_F(Lifecycle, second_start_is_refused_and_touches_nothing)
{
    start({"--Post0TypeOn=1"});
    const std::string before = read_file(OSD_TMP_PARAM);
    const Ended second = tool({"start", "--Post0TypeOn=0"});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, report("start", "server is already running", "osd_start"));
    EXPECT_EQ(read_file(OSD_TMP_PARAM), before);
    EXPECT_EQ(support::processes_of(executable_).size(), 1u);
    stop();
}

TEST_F(Lifecycle, request_fifo_of_a_dead_server_does_not_stop_a_start)
{
    ASSERT_EQ(mkfifo(OSD_FIFO_REQ, 0644), 0);
    EXPECT_EQ(tool({"status"}).status, 0);
    start();
    stop();
}

TEST_F(Lifecycle, start_without_common_parameter_file_forks_nothing)
{
    fs::create_directories("/tmp/bare/osd/bin");
    fs::create_directories("/tmp/bare/osd/lib");
    fs::copy(executable_, "/tmp/bare/osd/bin/qm5osd");
    fs::copy(std::string(QM5OSD_STAGE) + "/osd/lib/libqm5codec.so.1.2",
             "/tmp/bare/osd/lib/libqm5codec.so.1.2");
    const Ended ended = support::run({"/tmp/bare/osd/bin/qm5osd", "start"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(
        ended.err,
        report("start",
               "cannot open file /tmp/bare/osd/bin/../../conf/qm5_app_comm.conf"
               "(No such file or directory)",
               "param_seclist_new") +
            report("start", "failed to read parameter file", "osd_read_parameter_file") +
            report("start", "failed to read common parameter file", "osd_read_cmnparam_file") +
            report("start", "failed to read common parameter file", "osd_start"));
    EXPECT_TRUE(support::processes_of("/tmp/bare/osd/bin/qm5osd").empty());
    fs::remove_all("/tmp/bare");
}

TEST_F(Lifecycle, texts_stand_in_the_four_corners_of_every_output_and_tick)
{
    start();
    support::Words options = {"update"};
    for (const char post : std::string("0123")) {
        for (const char *key : {"DateOn=1", "TimeOn=1", "TypeOn=1", "StringOn=1"})
            options.push_back(std::string("--Post") + post + key);
        options.push_back(std::string("--Post") + post + "String=Output " + post);
    }
    const Ended updated = tool(options);
    EXPECT_EQ(updated.status, 0) << updated.err << log();

    for (unsigned i = 0; i < 4; i++) {
        const TextStyle style = {SIZES[i], 3, 1};
        const unsigned cell = support::cell_width(SIZES[i]);
        EXPECT_TRUE(shows(i, [&](const sim_reader::Post &post) {
            return shows_text(post.osd[0], " Output " + std::to_string(i) + " ", style) &&
                   shows_text(post.osd[1], LABELS[i], style) &&
                   support::shows_recent_time(post.osd[3], 0, style);
        }));
        const sim_reader::Post post = this->post(i);
        const unsigned lower = post.height - SIZES[i];
        const unsigned places[4][2] = {
            {0, 0}, {0, lower}, {post.width - 12 * cell, 0}, {post.width - 10 * cell, lower}};
        for (unsigned slot = 0; slot < 4; slot++) {
            EXPECT_EQ(post.osd[slot].record.x, places[slot][0]) << i << ' ' << slot;
            EXPECT_EQ(post.osd[slot].record.y, places[slot][1]) << i << ' ' << slot;
        }
        const sim_reader::Osd before = post.osd[3];
        EXPECT_TRUE(shows(i, [&](const sim_reader::Post &later) {
            return later.osd[3].pixels != before.pixels &&
                   support::shows_recent_time(later.osd[3], 0, style);
        }));
        EXPECT_EQ(this->post(i).osd[1].record.sets, post.osd[1].record.sets)
            << "the label is not drawn again without need";
    }
    stop();
}

TEST_F(Lifecycle, rectangle_covers_its_place)
{
    start();
    const Ended ended =
        tool({"update", "--Post2Rectangle1On=1", "--Post2Osd1X=100", "--Post2Osd1Y=50",
              "--Post2Osd1W=33", "--Post2Osd1H=7", "--Post2Osd1ColorFg=9"});
    EXPECT_EQ(ended.status, 0) << ended.err << log();
    const sim_reader::Osd osd = post(2).osd[1];
    ASSERT_EQ(osd.record.shown, 1u);
    EXPECT_EQ(osd.record.x, 100u);
    EXPECT_EQ(osd.record.y, 50u);
    EXPECT_EQ(osd.record.height, 7u);
    ASSERT_GT(osd.width_of_line(), 33u);
    for (unsigned y = 0; y < 7; y++) {
        for (unsigned x = 0; x < osd.width_of_line(); x++)
            ASSERT_EQ(osd.index_at(x, y), x < 33 ? 9u : 0u) << x << ' ' << y;
    }
    stop();
}

TEST_F(Lifecycle, update_with_a_bad_file_changes_nothing)
{
    start();
    const std::string before = read_file(OSD_TMP_PARAM);
    write_file("/tmp/bad.conf", "[osd]\nPost0DateOn=2\n");
    const Ended ended = tool({"update", "-f", "/tmp/bad.conf"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err,
              report("update", "invalid value '2' of key Post0DateOn", "osd_check_param") +
                  report("update", "invalid osd parameter", "osd_check_section") +
                  report("update", "invalid parameter in osd section", "osd_read_parameter_file") +
                  report("update", "failed to read osd parameter file", "osd_update") +
                  report("update", "update osd failed", "main"));
    EXPECT_EQ(read_file(OSD_TMP_PARAM), before);
    fs::remove("/tmp/bad.conf");
    stop();
}

TEST_F(Lifecycle, start_with_a_bad_file_leaves_a_server_with_the_common_parameters)
{
    write_file("/tmp/bad.conf", "[osd]\nNoSuchKey=1\n");
    const Ended ended = tool({"start", "-l", "/tmp/server.log", "-f", "/tmp/bad.conf"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(log(),
              std::string(NO_ZONE) + report("start", "invalid key 'NoSuchKey'", "osd_check_param") +
                  report("start", "invalid osd parameter", "osd_check_section") +
                  report("start", "invalid parameter in osd section", "osd_read_parameter_file") +
                  report("start", "failed to read osd parameter file", "osd_update"));
    EXPECT_EQ(tool({"status"}).status, 1);
    EXPECT_TRUE(has_line(read_file(OSD_TMP_PARAM), std::string("OsdFontFile=") + QM5OSD_FONT));
    fs::remove("/tmp/bad.conf");
    stop();
}

TEST_F(Lifecycle, refused_update_is_rolled_back)
{
    start({"--Post0TypeOn=1"});
    const std::string before = read_file(OSD_TMP_PARAM);
    // Safe spaces that no open accepts, and a rectangle, so that the post is opened anew.
    write_file("/tmp/wide.conf", "[osd]\nOsdTVOutSafeSpaceLeft=700\nPost0Rectangle0On=1\n"
                                 "Post0Osd0W=16\nPost0Osd0H=4\n");
    const Ended ended = tool({"update", "-f", "/tmp/wide.conf"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, report("update", "osd server recovered parameters", "osd_update") +
                             report("update", "update osd failed", "main"));
    EXPECT_EQ(read_file(OSD_TMP_PARAM), before);
    EXPECT_FALSE(fs::exists(OSD_TMP_PARAM_BAK));
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return support::count_shown(post) == 1 &&
               shows_text(post.osd[1], " TVOut ", {SIZES[0], 3, 1});
    }));
    EXPECT_TRUE(has_line(log(),
                         "ERR:#qm5osd:[server]=safe space is invalid.(safe space left/right=700/0)"
                         "(osd_do_callback_open)"));
    EXPECT_TRUE(has_line(log(), "ERR:#qm5osd:[server]=do post 0 callback failed"
                                "(osd_server_main_loop)"));
    fs::remove("/tmp/wide.conf");
    stop();
}

TEST_F(Lifecycle, saved_parameters_bring_the_same_pictures_back)
{
    start();
    ASSERT_EQ(tool({"update", "--Post1TypeOn=1", "--Post1StringOn=1", "--Post1String= a=b;[c] ",
                    "--Post1Rectangle2On=1", "--Post1Osd2W=40", "--Post1Osd2H=20",
                    "--Post1Osd2ColorBg=2"})
                  .status,
              0);
    const std::string in_force = read_file(OSD_TMP_PARAM);
    ASSERT_EQ(tool({"save", "-f", "/tmp/saved.conf"}).status, 0);
    const auto pictures = [this] {
        return sim_reader::compose(post(1), sim_reader::palette()).rgb;
    };
    const auto shown = pictures();
    stop();

    const Ended restarted = tool({"restart", "-l", "/tmp/server.log", "-f", "/tmp/saved.conf"});
    EXPECT_EQ(restarted.status, 0) << log();
    EXPECT_TRUE(support::wait_until([&] { return pictures() == shown; }));
    EXPECT_TRUE(has_line(in_force, "Post1Osd2ColorBg=2"));
    EXPECT_TRUE(has_line(read_file(OSD_TMP_PARAM), "Post1Osd2ColorBg=1"))
        << "not saved, so default";
    fs::remove("/tmp/saved.conf");
    stop();
}

TEST_F(Lifecycle, restart_replaces_a_running_server)
{
    start();
    const std::vector<pid_t> first = support::processes_of(executable_);
    ASSERT_EQ(first.size(), 1u);
    const Ended ended = tool({"restart", "-l", "/tmp/server.log", "--Post3TypeOn=1"});
    EXPECT_EQ(ended.status, 0) << log();
    int status = 0;
    ASSERT_TRUE(
        support::wait_until([&] { return waitpid(first[0], &status, WNOHANG) == first[0]; }));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    EXPECT_TRUE(shows(3, [](const sim_reader::Post &post) {
        return shows_text(post.osd[1], " Storage ", {SIZES[3], 3, 1});
    }));
    stop();
}

// A slot that is switched on late rebuilds the font engine of its post. If the safe spaces have
// changed since the others were opened, they no longer fit it.
TEST_F(Lifecycle, late_slot_at_another_font_size_ends_the_server)
{
    start({"--Post0TypeOn=1"});
    const std::vector<pid_t> servers = support::processes_of(executable_);
    ASSERT_EQ(servers.size(), 1u);
    write_file("/tmp/late.conf", "[osd]\nOsdTVOutSafeSpaceLeft=72\nPost0TimeOn=1\n");

    support::Process client({executable_, "update", "-f", "/tmp/late.conf"});
    int status = 0;
    ASSERT_TRUE(
        support::wait_until([&] { return waitpid(servers[0], &status, WNOHANG) == servers[0]; }));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    EXPECT_NE(log().find("Assertion `targetSize == targetWidth * targetHeight * pixelSize / 8' "
                         "failed."),
              std::string::npos)
        << log();
    // Nobody will ever reply to the client.
    kill(client.pid(), SIGKILL);
    client.wait();

    // A restart copes with everything that they have left, and brings the new size.
    const Ended ended = tool({"restart", "-l", "/tmp/server.log", "-f", "/tmp/late.conf"});
    EXPECT_EQ(ended.status, 0) << log();
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return support::shows_recent_time(post.osd[3], 0, {25, 3, 1});
    }));
    fs::remove("/tmp/late.conf");
    stop();
}

} // namespace
