// The real server in hard times: killed while it draws, next to another one on the same codec, on a
// full disk, and with a state folder that is none.
#include "server/channel.h"
#include "sim/run_sim.h"
#include "support/application.h"
#include "support/files.h"
#include "support/rendered_text.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>

namespace
{

namespace fs = std::filesystem;
using support::count_shown;
using support::Ended;
using support::shows_text;
using support::wait_until;
using support::Words;

constexpr support::TextStyle STYLE = {28, 3, 1};

// Lines of two processes, whichever is the first to write; without the one about the zone.
typedef std::multiset<std::string> MixedLines;

MixedLines lines_of(const std::string &text)
{
    MixedLines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line + '\n' != support::NO_ZONE)
            lines.insert(line);
    }
    return lines;
}

class Hardship : public support::ApplicationTest
{
protected:
    // Kills the server, which is a child of this process by now; the client may be waiting for it.
    void kill_server(pid_t client = -1) const
    {
        std::vector<pid_t> servers = support::processes_of(executable_);
        servers.erase(std::remove(servers.begin(), servers.end(), client), servers.end());
        ASSERT_EQ(servers.size(), 1u) << log();
        kill(servers[0], SIGKILL);
        int status = 0;
        EXPECT_EQ(waitpid(servers[0], &status, 0), servers[0]);
    }

    // A server doesn't come up: what it and its tool have said, each in its time.
    MixedLines failing_start() const
    {
        EXPECT_EQ(tool({"start", "-l", "/tmp/server.log"}).status, 1);
        EXPECT_TRUE(wait_until([this] { // a child that has ended and nobody has waited for is none
            while (waitpid(-1, nullptr, WNOHANG) > 0)
                continue;
            return support::processes_of(executable_).empty();
        }));
        EXPECT_FALSE(fs::exists(OSD_FIFO_REQ));
        fs::remove(OSD_TMP_PARAM); // a start that fails leaves it
        return lines_of(log());
    }

    // The lines of a start whose library call has failed, with the library's own.
    static MixedLines refused(const std::string &why, const std::string &call)
    {
        return lines_of(
            "qm5sim: " + why + '\n' +
            support::report("server", call + "() failed. errno=0x81E00003",
                            "osd_server_init_process") +
            support::report("server", "osd server down", "osd_server_run") +
            support::report("start", "server could not start for 0[msec]", "osd_start"));
    }

    // Each tool reads what is in the folder.
    static void expect_readable()
    {
        const Ended state = run_sim({"state"});
        EXPECT_EQ(state.status, 0) << state.err;
        EXPECT_EQ(state.out.rfind("No process has the device open.\n", 0), 0u) << state.out;
        for (unsigned i = 0; i < SIM_POSTS; i++) {
            const Ended ended = run_sim({"snapshot", std::to_string(i), "/tmp/picture.png"});
            EXPECT_EQ(ended.status, 0) << ended.err;
        }
        fs::remove("/tmp/picture.png");
    }
};

// ---- Killed -------------------------------------------------------------------------------------

TEST_F(Hardship, server_killed_while_it_draws_leaves_what_it_has_shown)
{
    start({"--Post0StringOn=1", "--Post0String=before"});
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return shows_text(post.osd[0], " before ", STYLE);
    }));
    const std::uint32_t thread = post(0).res_id;
    // It has drawn, and is about to show that.
    ASSERT_EQ(run_sim({"fault", "add", "set_osd", "next", "delay", "60000", "post", "0"}).status,
              0);
    support::Process client({executable_, "update", "--Post0String=after"});
    EXPECT_TRUE(
        wait_until([] { return run_sim({"fault"}).out.find("happened 1") != std::string::npos; }));
    kill_server(client.pid());
    kill(client.pid(), SIGKILL); // nobody will ever reply to it
    client.wait();

    expect_readable();
    EXPECT_TRUE(shows_text(post(0).osd[0], " before ", STYLE));
    EXPECT_EQ(run_sim({"fault", "clear"}).status, 0);
    start({"--Post0StringOn=1", "--Post0String=again"});
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return shows_text(post.osd[0], " again ", STYLE) && count_shown(post) == 1;
    }));
    EXPECT_EQ(post(0).res_id, thread) << "the post thread has gone on";
    stop();
}

TEST_F(Hardship, server_killed_at_any_moment_is_followed_by_another)
{
    std::mt19937 random(20271231); // the same moments each time
    std::uniform_int_distribution<int> milliseconds(0, 1500);
    Words words;
    for (const char post : std::string("0123")) {
        for (const char *key : {"DateOn=1", "TimeOn=1", "TypeOn=1", "StringOn=1"})
            words.push_back(std::string("--Post") + post + key);
    }
    for (unsigned round = 0; round < 5; round++) {
        start(words);
        for (unsigned i = 0; i < SIM_POSTS; i++) // they open, and all is drawn
            set_post(i, 400 + 100 * i + round, 300);
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds(random)));
        kill_server();
        expect_readable();
    }
    start(words);
    for (unsigned i = 0; i < SIM_POSTS; i++)
        EXPECT_TRUE(shows(i, [](const sim_reader::Post &post) { return count_shown(post) == 4; }));
    stop();
}

// ---- Two servers --------------------------------------------------------------------------------

TEST_F(Hardship, second_server_on_the_same_codec_is_refused_and_the_first_goes_on)
{
    start({"--Post0TimeOn=1", "--Post0TypeOn=1"});
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) { return count_shown(post) == 2; }));
    const sim_reader::Post before = post(0);
    // It sees another temporary folder, so that it knows nothing of the first one.
    const Ended second = support::run(
        {"/usr/bin/unshare", "--mount", "/bin/sh", "-c",
         "mount --bind /tmp/codec /mnt && mount -t tmpfs none /tmp && exec env QM5SIM_STATE=/mnt " +
             executable_ + " start 2>/mnt/second"});
    EXPECT_EQ(second.status, 1);
    EXPECT_TRUE(wait_until([this] { // until its child has given up too
        return support::processes_of(executable_).size() == 1;
    }));
    EXPECT_EQ(lines_of(support::read_file(state_ + "/second")),
              refused("/mnt/state: another process has the device open", "qm5_cl_library_init"));

    EXPECT_TRUE(shows(0, [&before](const sim_reader::Post &post) {
        return post.osd[3].record.sets >= before.osd[3].record.sets + 2;
    }));
    for (unsigned i = 0; i < SIM_OSDS; i++)
        EXPECT_EQ(post(0).osd[i].record.handle, before.osd[i].record.handle);
    EXPECT_EQ(tool({"update", "--Post0StringOn=1", "--Post0String=first"}).status, 0);
    EXPECT_TRUE(shows(
        0, [](const sim_reader::Post &post) { return shows_text(post.osd[0], " first ", STYLE); }));
    const std::string first = log();
    EXPECT_EQ(first.find("qm5sim"), std::string::npos) << first;
    stop();
}

// ---- A bad state folder -------------------------------------------------------------------------

TEST_F(Hardship, state_folder_that_is_none_keeps_the_server_down)
{
    const auto expect = [this](const std::string &why) {
        EXPECT_EQ(failing_start(), refused("/tmp/codec/state: " + why, "qm5_cl_library_init"));
    };
    support::write_file(state_, "mine");
    expect("Not a directory");
    EXPECT_EQ(support::read_file(state_), "mine");
    fs::remove(state_);

    fs::create_symlink("/tmp/none", state_);
    expect("No such file or directory");
    EXPECT_FALSE(fs::exists("/tmp/none"));
    fs::remove(state_);

    fs::create_symlink("codec", state_);
    expect("Too many levels of symbolic links");
    fs::remove(state_);
}

TEST_F(Hardship, state_folder_that_cannot_be_written_keeps_the_server_down)
{
    fs::create_directory(state_);
    ASSERT_EQ(mount("none", state_.c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(failing_start(),
              refused("/tmp/codec/state: Read-only file system", "qm5_cl_library_init"));
    EXPECT_EQ(umount(state_.c_str()), 0);
}

TEST_F(Hardship, full_disk_keeps_the_server_down_until_there_is_room)
{
    fs::create_directory(state_);
    ASSERT_EQ(mount("none", state_.c_str(), "tmpfs", 0, "size=256k"), 0);
    {
        std::ofstream filler(state_ + "/filler");
        while (filler << std::string(4096, 'x') << std::flush)
            continue;
    }
    EXPECT_EQ(failing_start(),
              refused("/tmp/codec/state: No space left on device", "qm5_cl_library_init"));
    const Ended state = run_sim({"state"});
    EXPECT_EQ(state.status, 0) << state.err;
    EXPECT_EQ(state.out.rfind("No process has the device open.\n", 0), 0u) << state.out;

    fs::resize_file(state_ + "/filler", 256 * 1024 - 4096); // one page is for `state`
    EXPECT_EQ(failing_start(),
              refused("/tmp/codec/post0: No space left on device", "qm5_cl_post_set_notify"));
    EXPECT_EQ(run_sim({"state"}).status, 0);

    fs::remove(state_ + "/filler");
    start({"--Post0TypeOn=1"});
    EXPECT_TRUE(shows(
        0, [](const sim_reader::Post &post) { return shows_text(post.osd[1], " TVOut ", STYLE); }));
    stop();
    end_application();
    EXPECT_EQ(umount(state_.c_str()), 0);
}

// Every call is recorded until the disk is full; the pictures go on.
TEST_F(Hardship, disk_that_becomes_full_ends_the_record_and_not_the_pictures)
{
    fs::create_directory(state_);
    ASSERT_EQ(mount("none", state_.c_str(), "tmpfs", 0, "size=1m"), 0);
    support::write_file(state_ + "/settings", "record 1\n");
    start({"--Post0TimeOn=1"});
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) { return count_shown(post) == 1; }));
    {
        std::ofstream filler(state_ + "/filler");
        while (filler << std::string(4096, 'x') << std::flush)
            continue;
    }
    EXPECT_TRUE(wait_until([this] {
        return log().find("qm5sim: record: the record ends here: No space left on device\n") !=
               std::string::npos;
    }));
    const std::uint32_t sets = post(0).osd[3].record.sets;
    EXPECT_TRUE(shows(
        0, [sets](const sim_reader::Post &post) { return post.osd[3].record.sets >= sets + 2; }));
    const Ended calls = run_sim({"calls"});
    EXPECT_EQ(calls.status, 0) << calls.err;
    EXPECT_NE(calls.out.find("set_osd"), std::string::npos);
    stop();
    end_application();
    EXPECT_EQ(umount(state_.c_str()), 0);
}

} // namespace
