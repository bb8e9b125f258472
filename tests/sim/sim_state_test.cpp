// qm5sim state: the post threads and OSDs as text and as JSON, and who has the device.
#include "handmade_codec.h"
#include "support/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
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
        expect_failure(words, 1, "qm5sim: /tmp/codec/state: No such file or directory\n");
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
        codec_.state.magic--;
        support::write_file(codec_.state_file(), std::string(sizeof(sim_state) - 1, '\0'));
        expect_failure(words, 1, "qm5sim: /tmp/codec/state: no state of a simulated codec\n");
        support::remove_file(codec_.state_file());
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
