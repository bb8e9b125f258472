// What the live page changes in the simulated codec, and the commands that do the same.
#include "live_page.h"

#include "control_files.h"
#include "support/files.h"
#include "time_zone_block.h"

#include <filesystem>

namespace
{

using namespace support;
namespace fs = std::filesystem;

class LiveChanges : public LivePageTest
{
protected:
    void SetUp() override
    {
        LivePageTest::SetUp();
        serve();
    }

    Json put_size(unsigned post, const std::string &size) const
    {
        return change_json("PUT", "/api/posts/" + std::to_string(post), {{"size", size}});
    }

    Json put_setting(const std::string &name, const std::string &value) const
    {
        return change_json("PUT", "/api/settings", {{"name", name}, {"value", value}});
    }

    Json command(const std::string &words) const
    {
        return {{"command", shown_command(QM5SIM_PROGRAM, words)}};
    }

    Json add_fault(const std::string &words) const
    {
        return change_json("POST", "/api/faults", {{"fault", words}});
    }
};

// ---- Posts --------------------------------------------------------------------------------------

TEST_F(LiveChanges, open_resize_and_close_posts)
{
    EXPECT_EQ(put_size(1, "640x360"), command("post 1 open 640x360"));
    EXPECT_EQ(read_file(state_ + "/post1"), "640x360\n");
    EXPECT_EQ(put_size(1, "65535x1"), command("post 1 resize 65535x1"));
    EXPECT_EQ(put_size(1, "closed"), command("post 1 close"));
    EXPECT_EQ(read_file(state_ + "/post1"), "closed\n");
    EXPECT_EQ(get_json("/api/state")["posts"][1]["wanted"], "closed");
    EXPECT_EQ(put_size(1, "320x200"), command("post 1 open 320x200"));
    for (const std::string size : {"", "0x0", "640", "640x", "x360", "640x65536", "640X360",
                                   " 640x360", "640x360 ", "open", "Closed", "-1x1", "$(id)"}) {
        EXPECT_TRUE(is_error(change("PUT", "/api/posts/1", Json{{"size", size}}.dump()), 400,
                             size + ": neither WIDTHxHEIGHT nor closed"));
    }
    EXPECT_EQ(read_file(state_ + "/post1"), "320x200\n");
}

// ---- Faults and settings ------------------------------------------------------------------------

TEST_F(LiveChanges, add_and_remove_faults)
{
    EXPECT_EQ(add_fault(" open_osd   next fail refused post 1 "),
              (Json{{"id", 1},
                    {"command", shown_command(QM5SIM_PROGRAM,
                                              "fault add open_osd next fail refused post 1")}}));
    EXPECT_EQ(add_fault("set_osd 10% fail gone1")["id"], 2);
    EXPECT_EQ(read_file(state_ + "/faults"),
              "1 open_osd next fail refused post 1\n2 set_osd 10% fail gone1\n");
    const Json list = get_json("/api/state")["faults"]["list"];
    EXPECT_EQ(list[1],
              (Json{{"id", 2}, {"line", "set_osd 10% fail gone1"}, {"met", 0}, {"happened", 0}}));
    EXPECT_EQ(change_json("DELETE", "/api/faults/1"), command("fault remove 1"));
    EXPECT_TRUE(is_error(change("DELETE", "/api/faults/1"), 404, "fault 1: there is none"));
    EXPECT_EQ(read_file(state_ + "/faults"), "2 set_osd 10% fail gone1\n");
    EXPECT_EQ(change_json("DELETE", "/api/faults"), command("fault clear"));
    EXPECT_EQ(read_file(state_ + "/faults"), "");
    EXPECT_TRUE(is_error(change("POST", "/api/faults", R"({"fault":"open_osd never fail 1"})"), 400,
                         "open_osd never fail 1: bad WHEN"));
    EXPECT_TRUE(is_error(change("POST", "/api/faults", R"({"fault":""})"), 400,
                         ": not ID OPERATION WHEN EFFECT"));
}

TEST_F(LiveChanges, tell_how_often_a_fault_was_met)
{
    add_fault("thread_get_status 1 delay 1 post 1");
    start();
    EXPECT_TRUE(state_is([](const Json &state) {
        const Json &fault = state["faults"]["list"][0];
        return fault["met"] == 1 && fault["happened"] == 1;
    }));
    EXPECT_EQ(add_fault("clear_osd 5 delay 1")["id"], 2) << "in force, in the server that runs";
    stop();
}

TEST_F(LiveChanges, refuse_more_faults_than_the_codec_takes)
{
    for (std::size_t i = 0; i < SIM_FAULTS; i++)
        add_fault("clear_osd next delay 1");
    const Answer answer = change("POST", "/api/faults", R"({"fault":"clear_osd next delay 1"})");
    EXPECT_TRUE(is_error(answer, 409, "/tmp/codec/faults:33: too many faults"));
    change_json("DELETE", "/api/faults");
}

TEST_F(LiveChanges, change_settings)
{
    EXPECT_EQ(put_setting("faults", "0"), command("setting faults 0"));
    EXPECT_EQ(put_setting("alignment", "64 32  16"), command("setting alignment 64 32 16"));
    EXPECT_EQ(read_file(state_ + "/settings"), "faults 0\nalignment 64 32 16\n");
    const Json state = get_json("/api/state");
    EXPECT_EQ(state["settings"],
              (Json{{"alignment", {64, 32, 16}}, {"strict", 0}, {"faults", 0}, {"record", 0}}));
    EXPECT_EQ(state["faults"]["on"], false);
    for (const auto &[name, value] : HeaderList{{"faults", "2"},
                                                {"faults", ""},
                                                {"alignment", "0 0 0"},
                                                {"colour", "1"},
                                                {"", ""},
                                                {"faults 1", "; strict 1"}}) {
        const Json body = {{"name", name}, {"value", value}};
        EXPECT_EQ(change("PUT", "/api/settings", body.dump()).status, 400) << body;
    }
    EXPECT_TRUE(is_error(change("PUT", "/api/settings", R"({"name":"strict","value":"yes"})"), 400,
                         "strict yes: no setting, or not its values"));
    EXPECT_EQ(read_file(state_ + "/settings"), "faults 0\nalignment 64 32 16\n");
}

TEST_F(LiveChanges, leave_a_bad_file_as_it_is)
{
    fs::create_directory(state_);
    write_file(state_ + "/settings", "faults maybe\n");
    EXPECT_TRUE(is_error(change("PUT", "/api/settings", R"({"name":"strict","value":"1"})"), 409,
                         "/tmp/codec/settings:1: no setting, or not its values"));
    EXPECT_EQ(read_file(state_ + "/settings"), "faults maybe\n");
}

// ---- Clock --------------------------------------------------------------------------------------

TEST_F(LiveChanges, set_the_clock)
{
    EXPECT_TRUE(is_error(change("DELETE", "/api/clock"), 409, "time zone block: none"));
    EXPECT_EQ(change_json("PUT", "/api/clock", {{"zone", "UTC-9"}}), command("clock UTC-9"));
    EXPECT_EQ(time_zone_block::read().text, "UTC-9");
    EXPECT_EQ(get_json("/api/state")["clock"], (Json{{"zone", "UTC-9"}, {"change", 1}}));
    EXPECT_EQ(change_json("PUT", "/api/clock", {{"zone", "<it's 9>-9"}}),
              command("clock '<it'\\''s 9>-9'"));
    EXPECT_EQ(change_json("PUT", "/api/clock", {{"zone", "-JST"}}), command("clock -- -JST"));
    for (const std::string zone : {"-JST", "--remove", "--help", "--", "-9", "", "<it's 9>-9"}) {
        const Json done = change_json("PUT", "/api/clock", {{"zone", zone}});
        EXPECT_EQ(time_zone_block::read().text, zone);
        time_zone_block::write("UTC");
        EXPECT_EQ(run({"/bin/sh", "-c", done["command"]}).status, 0) << done;
        EXPECT_EQ(time_zone_block::read().text, zone) << done;
    }
    const std::string longest(time_zone_block::MAX_TEXT, 'x');
    EXPECT_EQ(change_json("PUT", "/api/clock", {{"zone", longest}})["command"],
              shown_command(QM5SIM_PROGRAM, "clock " + longest));
    EXPECT_TRUE(is_error(change("PUT", "/api/clock", Json{{"zone", longest + "x"}}.dump()), 400,
                         longest + "x: longer than 63 bytes"));
    EXPECT_EQ(change_json("PUT", "/api/clock", {{"change", "255"}}), command("clock --change 255"));
    EXPECT_EQ(get_json("/api/state")["clock"], (Json{{"zone", longest}, {"change", 255}}));
    for (const std::string text : {"256", "-1", "", "7 "}) {
        EXPECT_TRUE(is_error(change("PUT", "/api/clock", Json{{"change", text}}.dump()), 400,
                             text + ": no number of 0 to 255"));
    }
    EXPECT_EQ(time_zone_block::read().change, 255u);
    EXPECT_EQ(change_json("DELETE", "/api/clock"), command("clock --remove"));
    EXPECT_TRUE(
        is_error(change("PUT", "/api/clock", R"({"change":"1"})"), 409, "time zone block: none"));
    EXPECT_EQ(get_json("/api/state")["clock"], nullptr);
}

} // namespace
