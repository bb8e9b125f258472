// qm5sim state: the post threads and OSDs as text and as JSON, and who has the device.
#include "handmade_codec.h"
#include "support/files.h"

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace
{

using nlohmann::json;
using support::count_shown;
using support::Ended;
using support::Words;

class SimStateCommand : public support::SimCommandTest
{
protected:
    // Two posts; the first with a shown OSD and one that was cleared.
    void make_two_posts()
    {
        codec_.open_post(0, 720, 576);
        codec_.open_post(2, 65535, 65535);
        codec_.show_osd(
            0, 1, {.color_type = 1, .width = 99, .height = 27, .x = 16, .y = 533, .sets = 12});
        codec_.show_osd(0, 3, {.color_type = 0, .width = 136, .height = 0, .x = 7, .sets = 1})
            .shown = 0;
        codec_.save();
    }

    static json state_json()
    {
        const Ended ended = sim({"state", "--json"});
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.err, "");
        return json::parse(ended.out);
    }

    static std::string state_text()
    {
        const Ended ended = sim({"state"});
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.err, "");
        return ended.out;
    }
};

TEST_F(SimStateCommand, is_a_table_for_people)
{
    make_two_posts();
    EXPECT_EQ(
        state_text(),
        "No process has the device open.\n"
        "\n"
        "POST  RESOURCE    SIZE\n"
        "0     0x50000001  720x576\n"
        "1     -           closed\n"
        "2     0x50000003  65535x65535\n"
        "3     -           closed\n"
        "\n"
        "POST  OSD  HANDLE      BITS  REQUESTED  LINE BYTES  LINE PIXELS  MEMORY  SHOWN  POSITION  "
        "SETS\n"
        "0     1    0x60000012  4     99x27      52          104          1404    yes    16,533    "
        "12\n"
        "0     3    0x60000014  2     136x0      36          144          0       no     7,0       "
        "1\n");
}

TEST_F(SimStateCommand, without_osds_is_the_posts_alone)
{
    codec_.open_post(3, 352, 288);
    codec_.save();
    EXPECT_EQ(state_text(), "No process has the device open.\n"
                            "\n"
                            "POST  RESOURCE    SIZE\n"
                            "0     -           closed\n"
                            "1     -           closed\n"
                            "2     -           closed\n"
                            "3     0x50000004  352x288\n");
}

TEST_F(SimStateCommand, is_json_for_programs)
{
    make_two_posts();
    EXPECT_EQ(state_json(), json::parse(R"({
        "device_open": false,
        "posts": [
            {"number": 0, "open": true, "resource_id": 1342177281, "width": 720, "height": 576,
             "osds": [
                {"number": 1, "handle": 1610612754, "bits_per_pixel": 4, "width": 99, "height": 27,
                 "line_bytes": 52, "line_pixels": 104, "memory_bytes": 1404, "shown": true,
                 "x": 16, "y": 533, "sets": 12},
                {"number": 3, "handle": 1610612756, "bits_per_pixel": 2, "width": 136, "height": 0,
                 "line_bytes": 36, "line_pixels": 144, "memory_bytes": 0, "shown": false,
                 "x": 7, "y": 0, "sets": 1}]},
            {"number": 1, "open": false, "resource_id": 0, "width": 0, "height": 0, "osds": []},
            {"number": 2, "open": true, "resource_id": 1342177283, "width": 65535,
             "height": 65535, "osds": []},
            {"number": 3, "open": false, "resource_id": 0, "width": 0, "height": 0, "osds": []}
        ]})"));
}

// ---- Posts without a process --------------------------------------------------------------------

TEST_F(SimStateCommand, before_any_server_is_what_the_posts_were_told)
{
    expect_silent_success({"post", "0", "open", "352x288"});
    expect_silent_success({"post", "1", "close"});
    EXPECT_EQ(state_text(), "No process has the device open.\n"
                            "\n"
                            "POST  RESOURCE  SIZE\n"
                            "0     -         352x288\n"
                            "1     -         closed\n"
                            "2     -         640x360\n"
                            "3     -         1280x720\n");
    const json posts = state_json()["posts"];
    EXPECT_EQ(posts[0], json::parse(R"({"number": 0, "open": true, "resource_id": 0, "width": 352,
                                        "height": 288, "osds": []})"));
    EXPECT_EQ(posts[1]["open"], false);
    EXPECT_FALSE(std::filesystem::exists(codec_.state_file()));
}

TEST_F(SimStateCommand, follows_a_post_that_a_dead_server_has_left)
{
    make_two_posts();
    const json before = state_json()["posts"];
    support::write_file(state_ + "/post2", "64x48\n"); // by hand
    support::write_file(state_ + "/post3", "");        // somebody is about to write it
    support::remove_file(state_ + "/post1");
    const json after = state_json()["posts"];
    EXPECT_EQ(after[0], before[0]) << "its thread goes on, and its OSDs stay";
    EXPECT_EQ(after[1]["width"], 1920);
    EXPECT_EQ(after[2], json::parse(R"({"number": 2, "open": true, "resource_id": 0, "width": 64,
                                        "height": 48, "osds": []})"));
    EXPECT_EQ(after[3], before[3]);
}

TEST_F(SimStateCommand, osds_of_a_dead_server_end_with_their_post_thread)
{
    make_two_posts();
    expect_silent_success({"post", "0", "open", "720x576"}); // as it is
    EXPECT_EQ(state_json()["posts"][0]["osds"].size(), 2u);
    expect_silent_success({"post", "0", "close"});
    expect_silent_success({"post", "0", "open", "720x576"});
    const json posts = state_json()["posts"];
    EXPECT_EQ(posts[0], json::parse(R"({"number": 0, "open": true, "resource_id": 0, "width": 720,
                                        "height": 576, "osds": []})"));
    EXPECT_EQ(posts[2]["resource_id"], 0x50000003) << "another post's is left alone";
    EXPECT_EQ(sim_reader::read_state(state_).sequence % 2, 0u);
}

TEST_F(SimStateCommand, is_left_to_the_process_that_has_the_device)
{
    make_two_posts();
    const json before = state_json()["posts"];
    const int device = open(codec_.state_file().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(device, LOCK_EX | LOCK_NB), 0);
    expect_silent_success({"post", "0", "close"});
    EXPECT_EQ(state_json()["posts"], before);
    close(device);
    EXPECT_EQ(state_json()["posts"][0]["open"], false);
}

TEST_F(SimStateCommand, osds_of_a_dead_server_end_with_a_size_that_nobody_has_followed)
{
    make_two_posts();
    const int device = open(codec_.state_file().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(device, LOCK_EX | LOCK_NB), 0);
    expect_silent_success({"post", "0", "resize", "640x360"});
    close(device);
    expect_silent_success({"post", "0", "resize", "720x576"});
    EXPECT_EQ(state_json()["posts"][0]["osds"], json::array());

    codec_.save();
    support::write_file(state_ + "/post0", "closed\n"); // by hand
    expect_silent_success({"post", "0", "open", "720x576"});
    EXPECT_EQ(state_json()["posts"][0]["osds"], json::array());
}

TEST_F(SimStateCommand, tools_that_change_posts_wait_for_one_another)
{
    make_two_posts();
    const int folder = open(state_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int state = open(codec_.state_file().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(folder, LOCK_EX | LOCK_NB), 0);
    ASSERT_EQ(flock(state, LOCK_EX | LOCK_NB), 0);
    support::Process tool({QM5SIM_PROGRAM, "post", "0", "resize", "640x360"});
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(support::read_file(state_ + "/post0"), "720x576\n");
    close(state);
    close(folder);
    EXPECT_EQ(tool.wait().status, 0);
    EXPECT_EQ(support::read_file(state_ + "/post0"), "640x360\n");
    sim_state left;
    const std::string bytes = support::read_file(codec_.state_file());
    ASSERT_EQ(bytes.size(), sizeof left);
    std::memcpy(&left, bytes.data(), sizeof left);
    EXPECT_EQ(left.post[0].osd[0].handle, 0u) << "it hasn't passed for a server";
    EXPECT_EQ(left.post[0].width, 0u);
}

// ---- The device ---------------------------------------------------------------------------------

TEST_F(SimStateCommand, tells_whether_a_process_has_the_device_and_leaves_it_alone)
{
    make_two_posts();
    const int device = open(codec_.state_file().c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(device, -1);
    ASSERT_EQ(flock(device, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(state_text().substr(0, 32), "A process has the device open.\n\n");
    EXPECT_EQ(state_json()["device_open"], true);
    ASSERT_EQ(flock(device, LOCK_SH | LOCK_NB), 0); // as another one that only looks
    EXPECT_EQ(state_json()["device_open"], false);
    ASSERT_EQ(flock(device, LOCK_UN), 0);
    EXPECT_EQ(state_text().substr(0, 33), "No process has the device open.\n\n");
    EXPECT_EQ(state_json()["device_open"], false);
    EXPECT_EQ(flock(device, LOCK_EX | LOCK_NB), 0);
    close(device);
}

TEST_F(SimStateCommand, follows_a_server)
{
    start({"--Post0TypeOn=1"});
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) { return count_shown(post) == 1; }));
    const json running = state_json();
    EXPECT_EQ(running["device_open"], true);
    for (const json &post : running["posts"])
        EXPECT_EQ(post["open"], true) << post;
    const sim_osd osd = post(0).osd[1].record;
    const json &shown = running["posts"][0]["osds"].at(0);
    EXPECT_EQ(running["posts"][0]["osds"].size(), 1u);
    EXPECT_EQ(shown["number"], 1);
    EXPECT_EQ(shown["shown"], true);
    EXPECT_EQ(shown["bits_per_pixel"], 4);
    EXPECT_EQ(shown["handle"], osd.handle);
    EXPECT_EQ(shown["width"], osd.width);
    EXPECT_EQ(shown["x"], osd.x);
    EXPECT_EQ(shown["y"], osd.y);
    stop();
    const json stopped = state_json();
    EXPECT_EQ(stopped["device_open"], false);
    EXPECT_EQ(stopped["posts"][0]["open"], true) << "post threads outlive the server";
    EXPECT_EQ(stopped["posts"][0]["osds"], json::array());
}

TEST_F(SimStateCommand, that_cannot_be_read_is_told)
{
    for (const Words &words : {Words{"state"}, Words{"state", "--json"}}) {
        expect_failure(words, 1, "qm5sim: /tmp/codec: No such file or directory\n");
        codec_.state.version = SIM_VERSION + 1;
        codec_.save();
        expect_failure(words, 1,
                       "qm5sim: /tmp/codec/state: no state of a simulated codec, "
                       "or of another version\n");
        codec_.state.version = SIM_VERSION;
        codec_.state.magic++;
        codec_.save();
        expect_failure(words, 1,
                       "qm5sim: /tmp/codec/state: no state of a simulated codec, "
                       "or of another version\n");
        std::filesystem::resize_file(codec_.state_file(), 100); // as one of another version
        expect_failure(words, 1,
                       "qm5sim: /tmp/codec/state: no state of a simulated codec, "
                       "or of another version\n");
        codec_.state.magic--;
        codec_.save();
        std::filesystem::resize_file(codec_.state_file(), sizeof(sim_state) - 1);
        expect_failure(words, 1, "qm5sim: /tmp/codec/state: no state of a simulated codec\n");
        std::filesystem::remove_all(state_);
    }
    expect_failure({"state", "--bogus"}, 2, "qm5sim: --bogus: it was not expected\n");
}

TEST_F(SimStateCommand, that_cannot_be_printed_is_told)
{
    make_two_posts();
    for (const char *words : {" state > /dev/full", " state --json > /dev/full"}) {
        const Ended ended = support::run({"/bin/sh", "-c", std::string(QM5SIM_PROGRAM) + words});
        EXPECT_EQ(ended.status, 1);
        EXPECT_EQ(ended.err, "qm5sim: standard output: No space left on device\n");
    }
}

TEST_F(SimStateCommand, helps_with_examples)
{
    const Ended ended = sim({"state", "--help"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.out.find("qm5sim state --json | jq"), std::string::npos);
}

} // namespace
