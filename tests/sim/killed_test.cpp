// What is killed by SIGKILL, at each moment at which it changes something: tools of the simulated
// codec, and a process that has the codec open. What they leave behind is whole, and the next one
// goes on from there.
#include "codec_library.h"
#include "handmade_codec.h"
#include "support/kill_at.h"

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using support::kill_at;
using support::notices;
using support::read_file;
using support::STATE;
using support::Words;
using support::write_file;

// ---- Tools --------------------------------------------------------------------------------------

typedef std::optional<std::string> Text; // of a file; nothing: no file

// A command that writes one file, and another that comes next.
struct Writing {
    std::string file;
    Text before;
    Words words;
    std::string after;
    Words next;
    std::function<std::string(const Text &)> after_next; // of what the file was then
};

class KilledTool : public support::SimCommandTest
{
protected:
    void SetUp() override
    {
        SimCommandTest::SetUp();
        // Under observation no process can look for leaks.
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    }

    void TearDown() override
    {
        unsetenv("ASAN_OPTIONS");
        SimCommandTest::TearDown();
    }

    // Becomes the tool, with its output nowhere.
    static void become(const Words &words)
    {
        std::vector<char *> pointers = {const_cast<char *>(QM5SIM_PROGRAM)};
        for (const std::string &word : words)
            pointers.push_back(const_cast<char *>(word.c_str()));
        pointers.push_back(nullptr);
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        execv(pointers[0], pointers.data());
    }

    static Text text_of(const std::string &file)
    {
        return fs::exists(file) ? Text(read_file(file)) : Text();
    }

    // Draft that it may have left is complete; it is taken away.
    static void expect_whole_drafts(const Writing &writing, unsigned moment)
    {
        const fs::path file = writing.file;
        if (!fs::exists(file.parent_path()))
            return;
        for (const auto &entry : fs::directory_iterator(file.parent_path())) {
            const std::string name = entry.path().filename();
            if (name.rfind(file.filename().string() + '.', 0) != 0)
                continue;
            EXPECT_EQ(read_file(entry.path()), writing.after) << "moment " << moment;
            fs::remove(entry.path());
        }
    }

    // Kills the command at one moment after the other, and sees how the next one fares.
    static void expect_whole(const Writing &writing, const std::function<void()> &prepare)
    {
        bool killed = true;
        unsigned moment = 0;
        while (killed) {
            moment++;
            prepare();
            killed = kill_at(moment, [&writing] { become(writing.words); });
            const Text left = text_of(writing.file);
            EXPECT_TRUE(left == writing.before || left == writing.after)
                << "moment " << moment << ": " << left.value_or("nothing");
            if (!killed) {
                EXPECT_EQ(left, writing.after);
            }
            expect_whole_drafts(writing, moment);
            const support::Ended next = sim(writing.next);
            EXPECT_EQ(next.status, 0) << "moment " << moment << ": " << next.err;
            EXPECT_EQ(read_file(writing.file), writing.after_next(left)) << "moment " << moment;
        }
        EXPECT_GT(moment, 6u) << "before and after three changes at least";
    }

    // The same for a file of the state folder that is there already, and for one that isn't.
    void expect_whole_in_folder(Writing writing)
    {
        const auto prepare = [&] {
            fs::remove_all(state_);
            if (writing.before) {
                fs::create_directory(state_);
                write_file(writing.file, *writing.before);
            }
        };
        expect_whole(writing, prepare);
        writing.before.reset();
        expect_whole(writing, prepare);
    }
};

TEST_F(KilledTool, leaves_the_size_of_a_post_whole)
{
    expect_whole_in_folder({state_ + "/post0",
                            "640x360\n",
                            {"post", "0", "resize", "1280x720"},
                            "1280x720\n",
                            {"post", "0", "close"},
                            [](const Text &) { return "closed\n"; }});
}

TEST_F(KilledTool, leaves_a_post_of_a_dead_server_as_it_was_or_ended)
{
    codec_.open_post(0, 720, 576);
    codec_.show_osd(0, 1, {.width = 8, .height = 8}, 5);
    const auto expect_post = [this](unsigned moment, bool ended, const sim_reader::Size &size) {
        const sim_reader::Post post = sim_reader::read_post(state_, 0);
        EXPECT_EQ(post.width, size.width) << "moment " << moment;
        EXPECT_EQ(post.height, size.height) << "moment " << moment;
        EXPECT_EQ(post.res_id == 0, ended) << "moment " << moment;
        EXPECT_EQ(post.osd[1].record.handle == 0, ended) << "moment " << moment;
        EXPECT_EQ(post.osd[1].pixels.empty(), ended) << "moment " << moment;
        EXPECT_EQ(sim({"state"}).status, 0) << "moment " << moment;
    };
    unsigned within_changes = 0;
    bool killed = true;
    for (unsigned moment = 1; killed; moment++) {
        codec_.save();
        killed = kill_at(moment, [] { become({"post", "0", "resize", "640x360"}); });
        const bool ended = read_file(state_ + "/post0") == "640x360\n";
        EXPECT_TRUE(ended || killed);
        within_changes += sim_reader::read_state(state_).sequence % 2;
        expect_post(moment, ended, ended ? sim_reader::Size{640, 360} : sim_reader::Size{720, 576});
        EXPECT_EQ(sim({"post", "0", "resize", "720x576"}).status, 0) << "moment " << moment;
        expect_post(moment, ended, {720, 576});
        EXPECT_EQ(sim_reader::read_state(state_).sequence % 2, 0u) << "moment " << moment;
    }
    EXPECT_GT(within_changes, 2u);
}

TEST_F(KilledTool, leaves_the_palette_whole)
{
    const std::string colors(1000, ' ');
    write_file(out("colors"), colors + "1 2 3 4 5\n");
    write_file(out("others"), "2 2 3 4 5\n");
    expect_whole_in_folder({state_ + "/palette",
                            "3 2 3 4 5\n",
                            {"palette", "--load", out("colors")},
                            colors + "1 2 3 4 5\n",
                            {"palette", "--load", out("others")},
                            [](const Text &) { return "2 2 3 4 5\n"; }});
}

TEST_F(KilledTool, leaves_the_settings_whole)
{
    expect_whole_in_folder({state_ + "/settings",
                            "strict 0\n",
                            {"setting", "strict", "1"},
                            "strict 1\n",
                            {"setting", "strict", "0"},
                            [](const Text &) { return "strict 0\n"; }});
}

TEST_F(KilledTool, leaves_the_faults_whole_and_unlocked)
{
    const auto prepare = [this] {
        fs::create_directory(state_);
        write_file(state_ + "/faults", "1 set_osd next vanish\n");
    };
    const std::string two = "1 set_osd next vanish\n2 open_osd 3 vanish\n";
    expect_whole({state_ + "/faults",
                  "1 set_osd next vanish\n",
                  {"fault", "add", "open_osd", "3", "vanish"},
                  two,
                  {"fault", "add", "clear_osd", "every", "vanish"},
                  [&two](const Text &left) {
                      const std::string id = left == two ? "3" : "2";
                      return left.value_or("") + id + " clear_osd every vanish\n";
                  }},
                 prepare);
}

TEST_F(KilledTool, leaves_a_picture_whole)
{
    codec_.open_post(0, 64, 48);
    codec_.show_osd(0, 0, {.width = 8, .height = 8}, 5);
    codec_.save();
    expect_silent_success({"snapshot", "0", out("whole.png")});
    const std::string whole = read_file(out("whole.png"));
    const Words words = {"snapshot", "0", out("x.png")};
    Writing writing = {out("x.png"), "an older picture",
                       words,        whole,
                       words,        [&whole](const Text &) { return whole; }};
    expect_whole(writing, [] { write_file(out("x.png"), "an older picture"); });
    writing.before.reset();
    expect_whole(writing, [] { fs::remove(out("x.png")); });
}

// ---- The codec library --------------------------------------------------------------------------

class KilledCodec : public support::CodecLibrary
{
protected:
    // What a server does in its life, but for its end; in a child process.
    void live()
    {
        notices.clear();
        const std::vector<std::uint32_t> ids = bring_up_with_posts();
        for (unsigned number = 0; number < 2; number++) {
            const Opened opened = open_osd(ids[0], {number, 40, 4, 2});
            for (const int byte : {5, 6}) {
                qm5_cl_osd_mem mem{};
                EXPECT_EQ(lib_.get_osd_mem(ids[0], opened.handle, &mem), 0);
                memset(mem.memory, byte, mem.size);
                EXPECT_EQ(lib_.set_osd(ids[0], opened.handle, {1, 2}), 0);
            }
            if (number == 0) {
                EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
            }
        }
        _exit(HasFailure());
    }

    // Reads the state as tools do: true if it is there.
    static bool read_all(unsigned moment)
    {
        try {
            sim_reader::read_state(STATE);
            EXPECT_FALSE(sim_reader::is_device_open(STATE)) << "moment " << moment;
            for (unsigned post = 0; post < SIM_POSTS; post++)
                expect_sound(sim_reader::read_post(STATE, post), moment);
            return true;
        } catch (const std::runtime_error &error) {
            const std::string why = error.what();
            // Before there is one, and before it is one.
            EXPECT_TRUE(why == "/tmp/codec: No such file or directory" ||
                        why == "/tmp/codec/state: no state of a simulated codec" ||
                        why == "/tmp/codec/state: no state of a simulated codec, or of another "
                               "version")
                << "moment " << moment << ": " << why;
            return false;
        }
    }

    static void expect_sound(const sim_reader::Post &post, unsigned moment)
    {
        for (const sim_reader::Osd &osd : post.osd) {
            for (const std::uint8_t byte : osd.pixels)
                EXPECT_TRUE(byte == 5 || byte == 6) << "moment " << moment;
        }
    }

    // Another server comes up, with all posts, and shows something.
    void expect_successor(unsigned moment)
    {
        notices.clear();
        const std::vector<std::uint32_t> ids = bring_up_with_posts();
        for (unsigned post = 0; post < SIM_POSTS; post++) {
            qm5_cl_post_status status{};
            EXPECT_EQ(lib_.get_status(ids[post], &status), 0);
            EXPECT_EQ(status.width, (std::array{720, 1920, 640, 1280})[post])
                << "moment " << moment;
        }
        const Opened opened = open_osd(ids[0], {1, 40, 4, 2});
        qm5_cl_osd_mem mem{};
        EXPECT_EQ(lib_.get_osd_mem(ids[0], opened.handle, &mem), 0);
        memset(mem.memory, 7, mem.size);
        EXPECT_EQ(lib_.set_osd(ids[0], opened.handle, {1, 2}), 0);
        EXPECT_EQ(sim_reader::read_post(STATE, 0).osd[1].index_at(39, 3), 7u);
        EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
        take_down();
    }
};

TEST_F(KilledCodec, leaves_a_state_that_is_read_and_taken_over)
{
    unsigned moment = 0;
    unsigned states = 0;
    unsigned within_changes = 0;
    bool killed = true;
    while (killed) {
        moment++;
        killed = kill_at(moment, [this] { live(); });
        if (read_all(moment)) {
            states++;
            within_changes += sim_reader::read_state(STATE).sequence % 2;
        }
        expect_successor(moment);
        EXPECT_FALSE(fs::exists("/tmp/codec/breaches")) << "moment " << moment;
        fs::remove_all(STATE);
    }
    EXPECT_GT(states, 20u);
    EXPECT_GT(within_changes, 5u);
}

} // namespace
