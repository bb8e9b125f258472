// State folders that are none, that nobody may write to, or whose disk is full: what each command
// of the tool says then, and what it leaves as it was.
#include "handmade_codec.h"
#include "support/files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using support::Ended;
using support::read_file;
using support::Words;
using support::write_file;

class StateFolder : public support::SimCommandTest
{
protected:
    void SetUp() override
    {
        SimCommandTest::SetUp();
        write_file(out("colors"), "1 2 3 4 5\n");
        write_file(out("faults"), "5 set_osd every vanish\n");
    }

    // What writes into the folder, and the file that each would write.
    static std::vector<std::pair<Words, std::string>> writers()
    {
        return {
            {{"post", "0", "resize", "640x360"}, "post0"},
            {{"setting", "strict", "1"}, "settings"},
            {{"fault", "add", "set_osd", "next", "vanish"}, "faults"},
            {{"fault", "load", out("faults")}, "faults"},
            {{"fault", "off"}, "settings"},
            {{"palette", "--load", out("colors")}, "palette"},
        };
    }

    // What reads in it, and the first file that each has to find.
    static std::vector<std::pair<Words, std::string>> readers()
    {
        return {
            {{"state"}, "state"},
            {{"state", "--json"}, "state"},
            {{"snapshot", "0", out("x.png")}, "state"},
            {{"calls"}, "calls"},
            {{"calls", "--follow"}, "calls"},
            {{"replay", "1", out("x.png"), "--post", "0"}, "calls"},
        };
    }

    // What reads in it and does without any file.
    static std::vector<Words> undemanding_readers()
    {
        return {{"fault"}, {"setting"}, {"palette"}};
    }

    static std::string why(const std::string &what, int error)
    {
        return "qm5sim: /tmp/codec" + what + ": " + std::strerror(error) + '\n';
    }

    // Every command fails by this error, told of the folder itself or of a file in it.
    static void expect_no_command_succeeds(int error)
    {
        for (const auto &[words, file] : writers()) {
            const Ended ended = sim(words);
            EXPECT_EQ(ended.status, 1) << words[0];
            EXPECT_TRUE(ended.err == why("/" + file, error) || ended.err == why("", error))
                << words[0] << ": " << ended.err;
        }
        for (const auto &[words, file] : readers()) {
            const Ended ended = sim(words);
            EXPECT_EQ(ended.status, 1) << words[0];
            const bool is_missing = error == ENOENT && file == "state";
            EXPECT_EQ(ended.err, why(is_missing ? "" : "/" + file, error)) << words[0];
        }
    }

    // The files of the folder, by their names.
    std::map<std::string, std::string> files() const
    {
        std::map<std::string, std::string> texts;
        for (const auto &entry : fs::directory_iterator(state_))
            texts[entry.path().filename()] = read_file(entry.path());
        return texts;
    }

    // Something in each file that is written to.
    void make_files()
    {
        codec_.open_post(0, 64, 48);
        codec_.show_osd(0, 0, {.width = 8, .height = 8}, 5);
        codec_.save();
        write_file(state_ + "/post0", "64x48\n");
        write_file(state_ + "/settings", "strict 0\n");
        write_file(state_ + "/faults", "1 get_osd_mem next vanish\n");
        write_file(state_ + "/palette", "5 1 2 3 255\n");
    }
};

TEST_F(StateFolder, that_is_a_file_is_told_and_kept)
{
    write_file(state_, "mine");
    expect_no_command_succeeds(ENOTDIR);
    for (const Words &words : undemanding_readers()) {
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, 1) << words[0];
        EXPECT_EQ(ended.err.rfind("qm5sim: /tmp/codec/", 0), 0u) << ended.err;
        EXPECT_NE(ended.err.find(": Not a directory\n"), std::string::npos) << ended.err;
    }
    EXPECT_EQ(read_file(state_), "mine");
}

TEST_F(StateFolder, that_is_a_link_to_nothing_is_told)
{
    fs::create_symlink("/tmp/none", state_);
    expect_no_command_succeeds(ENOENT);
    for (const Words &words : undemanding_readers())
        EXPECT_EQ(sim(words).status, 0) << words[0];
    EXPECT_TRUE(fs::is_symlink(state_));
    EXPECT_FALSE(fs::exists("/tmp/none"));
}

TEST_F(StateFolder, that_was_named_and_is_not_there_is_told)
{
    for (const Words &words : {Words{"state"}, Words{"snapshot", "0", out("x.png")}})
        expect_failure(words, 1, why("", ENOENT));
    EXPECT_FALSE(fs::exists(state_));
}

TEST_F(StateFolder, that_is_a_link_to_itself_is_told)
{
    fs::create_symlink("codec", state_);
    expect_no_command_succeeds(ELOOP);
    fs::remove(state_);
}

// ---- The default folder -------------------------------------------------------------------------

// Without a name, the state is in a folder of the user's own among everybody's.
class DefaultFolder : public StateFolder
{
protected:
    void SetUp() override
    {
        StateFolder::SetUp();
        unsetenv("QM5SIM_STATE");
        own_ = "/tmp/qm5sim-" + std::to_string(getuid());
    }

    // Tools, library and recorder all refuse it.
    void expect_refusal(const std::string &why) const
    {
        const std::string text = own_ + ": " + why + '\n';
        for (const auto &[words, file] : writers())
            expect_failure(words, 1, "qm5sim: " + text);
        for (const auto &[words, file] : readers())
            expect_failure(words, 1, "qm5sim: " + text);
        for (const Words &words : undemanding_readers())
            expect_failure(words, 1, "qm5sim: " + text);
        EXPECT_NE(tool({"start"}).err.find("qm5sim: " + text), std::string::npos);
        setenv("LD_LIBRARY_PATH", QM5SIM_WRAPPER, 1);
        EXPECT_NE(tool({"start"}).err.find("qm5sim: wrapper: " + text), std::string::npos);
        unsetenv("LD_LIBRARY_PATH");
        fs::remove("/tmp/osd_tmp_param.txt"); // as a start that fails leaves it
    }

    std::string own_;
};

TEST_F(DefaultFolder, of_the_user_is_taken)
{
    expect_silent_success({"post", "0", "open", "64x48"});
    EXPECT_EQ(sim({"state"}).status, 0);
    fs::remove_all(own_);
}

// The posts are there all the same.
TEST_F(DefaultFolder, is_as_a_fresh_one_before_anybody_makes_it)
{
    const Ended state = sim({"state"});
    EXPECT_EQ(state.status, 0);
    EXPECT_NE(state.out.find("0     -         720x576\n"), std::string::npos) << state.out;
    expect_silent_success({"snapshot", "2", out("x.png")});
    EXPECT_FALSE(fs::exists(own_));
}

TEST_F(DefaultFolder, that_is_a_link_is_refused)
{
    fs::create_directory("/tmp/elsewhere");
    fs::create_directory_symlink("/tmp/elsewhere", own_);
    expect_refusal("no folder, or a link to one");
    EXPECT_TRUE(fs::is_empty("/tmp/elsewhere"));
    fs::remove(own_);
    fs::remove("/tmp/elsewhere");
}

TEST_F(DefaultFolder, of_another_user_is_refused)
{
    fs::create_directory(own_);
    // In a world of one user alone, it is the system's that stands for another one's.
    const bool is_given = chown(own_.c_str(), getuid() + 1, getgid()) == 0;
    if (!is_given) {
        ASSERT_EQ(mount("/usr", own_.c_str(), nullptr, MS_BIND | MS_REC, nullptr), 0);
    }
    expect_refusal("it belongs to another user");
    if (!is_given) {
        ASSERT_EQ(umount2(own_.c_str(), MNT_DETACH), 0);
    }
    EXPECT_TRUE(fs::is_empty(own_));
    fs::remove(own_);
}

// ---- Disks --------------------------------------------------------------------------------------

TEST_F(StateFolder, that_cannot_be_written_can_be_read)
{
    fs::create_directory(state_);
    ASSERT_EQ(mount("none", state_.c_str(), "tmpfs", 0, "size=1m"), 0);
    make_files();
    const auto before = files();
    ASSERT_EQ(mount("none", state_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    for (const auto &[words, file] : writers()) {
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, 1) << words[0];
        EXPECT_EQ(ended.err, why("/" + file, EROFS));
    }
    expect_failure({"palette", "--default"}, 1, why("/palette", EROFS));
    for (const Words &words : undemanding_readers())
        EXPECT_EQ(sim(words).status, 0) << words[0];
    EXPECT_EQ(sim({"state"}).status, 0);
    expect_silent_success({"snapshot", "0", out("x.png")});
    EXPECT_EQ(files(), before);
    EXPECT_EQ(umount(state_.c_str()), 0);
}

TEST_F(StateFolder, on_a_full_disk_keeps_what_is_there_and_can_be_read)
{
    fs::create_directory(state_);
    ASSERT_EQ(mount("none", state_.c_str(), "tmpfs", 0, "size=64k"), 0);
    make_files();
    {
        std::ofstream filler(state_ + "/filler");
        while (filler << std::string(4096, 'x') << std::flush)
            continue;
    }
    const auto before = files();
    for (const auto &[words, file] : writers()) {
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, 1) << words[0];
        EXPECT_EQ(ended.err, why("/" + file, ENOSPC));
        EXPECT_EQ(files(), before) << words[0];
    }
    for (const Words &words : undemanding_readers())
        EXPECT_EQ(sim(words).status, 0) << words[0];
    EXPECT_EQ(sim({"state"}).status, 0);
    expect_silent_success({"snapshot", "0", out("x.png")});
    expect_silent_success({"palette", "--default"});

    fs::remove(state_ + "/filler");
    for (const auto &[words, file] : writers()) {
        EXPECT_EQ(sim(words).status, 0) << words[0];
        const auto now = files();
        EXPECT_EQ(now.count(file), 1u) << words[0];
        EXPECT_NE(now, before) << words[0];
    }
    EXPECT_EQ(umount(state_.c_str()), 0);
}

} // namespace
