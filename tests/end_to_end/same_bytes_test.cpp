// The application for the appliance beside the one for this machine: all that they print, write and
// show in one and the same story has the same bytes. The font is one
// of the tests' own, of which every FreeType makes the same pixels, and the clock stands.
#include "sim/run_sim.h"
#include "support/application.h"
#include "support/files.h"
#include "support/plain_font.h"

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

namespace
{

namespace fs = std::filesystem;
using support::Ended;
using support::read_file;
using support::wait_until;
using support::Words;

constexpr const char *STORY_CLOCK = "/tmp/clock";
constexpr const char *STORY_FONT = "/tmp/font.bdf";
constexpr const char *STORY = "/tmp/story.conf";
constexpr const char *SAVED = "/tmp/saved.conf";
constexpr const char *PICTURE = "/tmp/picture.png";
constexpr const char *IN_FORCE = "/tmp/osd_tmp_param.txt";
constexpr const char *LOG = "/tmp/server.log";

// What a story has given, by the name of the moment.
typedef std::map<std::string, std::string> Story;

class SameBytes : public support::ApplicationTest
{
protected:
    void SetUp() override
    {
        ApplicationTest::SetUp();
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        setenv("QM5OSD_TEST_CLOCK", STORY_CLOCK, 1);
        support::write_file(STORY_CLOCK, "1830297599"); // the last second of 2027 by UTC
        support::write_file(STORY_FONT, support::to_bdf(support::plain_font(28)));
        support::write_file(STORY, std::string("[osd]\nOsdFontFile=") + STORY_FONT +
                                       "\nPost0DateOn=1\nPost0TimeOn=1\nPost0TypeOn=1\n"
                                       "Post0StringOn=1\nPost0String=Gate 2 (north)\n"
                                       "Post0StringColor=214\nPost3DateOn=1\n");
    }
    void TearDown() override
    {
        unsetenv("TZ");
        unsetenv("QM5OSD_TEST_CLOCK");
        for (const char *file : {STORY_CLOCK, STORY_FONT, STORY, SAVED, PICTURE})
            fs::remove(file);
        ApplicationTest::TearDown();
    }

    // Runs the application with these words and adds what it gave.
    void say(const Words &words)
    {
        const Ended ended = tool(words);
        std::string name = std::to_string(story_.size());
        for (const std::string &word : words)
            name += ' ' + word;
        story_[name] = std::to_string(ended.status) + '\n' + ended.out + '\n' + ended.err;
    }

    void keep_file(const std::string &path)
    {
        story_[std::to_string(story_.size()) + ' ' + path] = read_file(path);
    }

    // The post with so many OSDs, and each of them with its depth and indices.
    void keep_pictures(unsigned number, unsigned osds)
    {
        EXPECT_TRUE(shows(number, [osds](const sim_reader::Post &post) {
            return support::count_shown(post) == osds;
        }));
        const std::string post = std::to_string(number);
        EXPECT_EQ(run_sim({"snapshot", post, PICTURE}).status, 0);
        keep_file(PICTURE);
        for (unsigned i = 0; i < SIM_OSDS; i++) {
            if (this->post(number).osd[i].record.shown == 0)
                continue;
            EXPECT_EQ(run_sim({"snapshot", post, "--osd", std::to_string(i), PICTURE}).status, 0);
            keep_file(PICTURE);
        }
    }

    // An emulator is to give the clock to what it runs and not to take it itself.
    Story tell(const std::string &program, const char *clock_variable, const std::string &clock)
    {
        executable_ = program;
        story_.clear();
        fs::create_directory(state_);
        set_post(0, 720, 576);
        set_post(1, 0, 0);
        set_post(2, 0, 0);
        set_post(3, 720, 480); // both with texts of 28 lines
        setenv(clock_variable, clock.c_str(), 1);
        for (const Words &words :
             {Words{"help"}, Words{"status"}, Words{"update", "--Post0TimeOn=2"},
              Words{"--version"}, Words{"nonsense"}, Words{"stop"}})
            say(words);
        say({"start", "-l", LOG, "-f", STORY});
        say({"status"});
        keep_pictures(0, 4);
        keep_pictures(3, 1);
        say({"start"});
        say({"getthdinfo", "-t0"});
        say({"getthdinfo", "-t4"});
        say({"update", "--Post0StringColor=256"});
        say({"update", "--Post3Rectangle2On=1", "--Post3Osd2X=40", "--Post3Osd2Y=32",
             "--Post3Osd2W=64", "--Post3Osd2H=48", "--Post3Osd2ColorFg=99", "--Post0TypeOn=0",
             "--Post0String=\xC3\xA9t\xE9"});
        keep_pictures(0, 3);
        keep_pictures(3, 1);
        keep_file(IN_FORCE);
        say({"save", "-f", SAVED});
        keep_file(SAVED);
        EXPECT_EQ(run_sim({"fault", "add", "set_osd", "next", "fail", "0x81E00042"}).status, 0);
        say({"update", "--Post0TypeOn=1"});
        stop();
        unsetenv(clock_variable);
        keep_file(LOG);
        fs::remove_all(state_);
        return story_;
    }

private:
    Story story_;
};

TEST_F(SameBytes, are_printed_written_and_shown_as_on_a_pc)
{
    const Story appliance =
        tell(executable_, "QEMU_SET_ENV", std::string("LD_PRELOAD=") + QM5OSD_FIXED_CLOCK);
    const Story here = tell(QM5OSD_HOST_BUILD "/stage/osd/bin/qm5osd", "LD_PRELOAD",
                            QM5OSD_HOST_BUILD "/tests/libqm5osd_fixed_clock.so");
    EXPECT_GT(here.size(), 20u);
    EXPECT_EQ(appliance, here);
}

} // namespace
