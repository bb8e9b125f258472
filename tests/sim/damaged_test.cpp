// Files of the state folder that are cut off, full of anything, or no files at all: what reads them
// says so in one line, or makes do with them, and nothing crashes.
#include "codec_library.h"
#include "handmade_codec.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using support::Ended;
using support::notices;
using support::read_file;
using support::STATE;
using support::Words;
using support::write_file;

constexpr const char *GOOD = "/tmp/good"; // a folder with nothing wrong in it

std::string random_bytes(std::mt19937 &random, std::size_t size)
{
    std::string bytes(size, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

// What a file is made into.
struct Damage {
    std::string name;
    std::function<void(const fs::path &file)> make;
};

Damage text(const std::string &name, const std::string &bytes)
{
    return {name, [bytes](const fs::path &file) { write_file(file, bytes); }};
}

Damage link_to(const std::string &name, const fs::path &target)
{
    return {name, [target](const fs::path &file) { fs::create_symlink(target, file); }};
}

// All of them, for a file that holds this when nothing is wrong.
std::vector<Damage> damages(const std::string &good)
{
    std::mt19937 random(20271231); // the same bytes each time
    std::vector<Damage> all = {
        text("empty", ""),
        text("one byte short", good.substr(0, good.size() - 1)),
        text("cut in half", good.substr(0, good.size() / 2)),
        text("one byte", good.substr(0, 1)),
        text("twice", good + good),
        text("zeros", std::string(4096, '\0')),
        text("ones", std::string(4096, '\xFF')),
        text("a line without an end", std::string(100000, '1')),
        text("many lines",
             [] {
                 std::string lines;
                 for (unsigned i = 0; i < 5000; i++)
                     lines += "1 2 3\n";
                 return lines;
             }()),
        {"a folder", [](const fs::path &file) { fs::create_directory(file); }},
        {"a FIFO", [](const fs::path &file) { ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); }},
        link_to("a link to nothing", "/tmp/none/at/all"),
        link_to("a link to itself", "."),
    };
    all.back().make = [](const fs::path &file) { fs::create_symlink(file.filename(), file); };
    for (const std::size_t size : {std::size_t{64}, sizeof(sim_state)})
        all.push_back(text(std::to_string(size) + " random bytes", random_bytes(random, size)));
    for (unsigned i = 0; i < 4; i++) {
        std::string bytes = good;
        bytes.at(random() % bytes.size()) ^= static_cast<char>(1 + random() % 255);
        all.push_back(text("changed byte " + std::to_string(i), bytes));
    }
    for (const std::string other : {"state", "faults", "palette", "calls", "post0-osd0"})
        all.push_back(text(other, read_file(GOOD + ('/' + other))));
    return all;
}

// A file of the folder, and the commands that read or write it.
struct Victim {
    const char *name;
    std::vector<Words> commands;
};

const Words SNAPSHOT = {"snapshot", "0", "/tmp/out.png"};
const Words SNAPSHOT_OF_OSD = {"snapshot", "0", "--osd", "0", "/tmp/out.png"};
const Words ADD = {"fault", "add", "set_osd", "next", "vanish"};
const Words STRICT = {"setting", "strict", "0"};
const Words REPLAY = {"replay", "12", "/tmp/out.png", "--post", "0"};

const Victim VICTIMS[] = {
    {"state", {{"state"}, {"state", "--json"}, SNAPSHOT, {"fault"}, ADD}},
    {"settings", {{"setting"}, STRICT, {"fault"}, {"fault", "off"}, ADD}},
    {"faults", {{"fault"}, ADD, {"fault", "remove", "1"}, {"fault", "clear"}, STRICT}},
    {"palette",
     {{"palette"},
      {"palette", "--load", "/tmp/codec/palette"},
      {"palette", "--default"},
      SNAPSHOT,
      SNAPSHOT_OF_OSD}},
    {"calls", {{"calls"}, {"calls", "--from", "3"}, REPLAY}},
    {"calls.data", {REPLAY}},
    {"post0", {{"post", "0", "resize", "640x360"}, {"state"}}},
    {"post0-osd0", {SNAPSHOT, SNAPSHOT_OF_OSD, {"state"}}},
};

std::ostream &operator<<(std::ostream &out, const Victim &victim)
{
    return out << victim.name;
}

// A good folder, as a server has left it that was killed.
class DamagedFiles : public support::CodecLibrary
{
protected:
    void SetUp() override
    {
        CodecLibrary::SetUp();
        fs::create_directory(STATE);
        write_file(std::string(STATE) + "/settings", "record 1\n");
        write_file(std::string(STATE) + "/faults", "1 close_osd every fail gone1\n");
        write_file(std::string(STATE) + "/palette", "200 1 2 3 4\n");
        EXPECT_EQ(in_child([this] { return show_and_stop_short(); }), 0);
        fs::rename(STATE, GOOD);
    }

    void TearDown() override
    {
        fs::remove_all(GOOD);
        fs::remove("/tmp/err");
        CodecLibrary::TearDown();
    }

    // Runs this in a child process, with its errors in a file: what it gives, or 128 and the signal
    // that ended it.
    static int in_child(const std::function<int()> &work)
    {
        const pid_t pid = fork();
        if (pid == 0) {
            freopen("/tmp/err", "w", stderr);
            const int result = work();
            fflush(stderr);
            _exit(result);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // Shows an OSD and ends as if killed.
    int show_and_stop_short()
    {
        notices.clear();
        const std::vector<std::uint32_t> ids = bring_up_with_posts();
        const Opened opened = open_osd(ids[0], {0, 30, 20, 2});
        qm5_cl_osd_mem mem{};
        if (lib_.get_osd_mem(ids[0], opened.handle, &mem) != 0)
            return 1;
        memset(mem.memory, 200, mem.size);
        return lib_.set_osd(ids[0], opened.handle, {40, 50});
    }

    // Brings the library up until it has announced the last post, and takes it down: 0, or 2 if it
    // won't come up.
    int bring_up_and_take_down()
    {
        notices.clear();
        if (lib_.library_init() != 0 || lib_.open_device() != 0 ||
            lib_.notify_callback(support::keep_notice) != 0 || lib_.set_notify(15) != 0)
            return 2;
        const bool announced = support::wait_until([] {
            const auto so_far = support::notices_so_far();
            return std::any_of(so_far.begin(), so_far.end(),
                               [](const support::Notice &notice) { return notice.post == 3; });
        });
        return announced && lib_.close_device() == 0 && lib_.library_exit() == 0 ? 0 : 1;
    }

    static Ended run_command(const Words &command)
    {
        Words words = {QM5SIM_PROGRAM};
        words.insert(words.end(), command.begin(), command.end());
        return support::run(words);
    }

    // It has succeeded without a word, or failed with one line.
    static void expect_manners(const Ended &ended, const std::string &where)
    {
        EXPECT_TRUE(ended.status >= 0 && ended.status <= 2)
            << where << ": " << ended.status << ' ' << ended.err;
        if (ended.status == 0)
            EXPECT_EQ(ended.err, "") << where;
        else
            expect_one_line(ended.err, where);
    }

    static void expect_one_line(const std::string &err, const std::string &where)
    {
        EXPECT_EQ(err.rfind("qm5sim: ", 0), 0u) << where << ": " << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << where << ": " << err;
        EXPECT_EQ(err.find("filesystem error"), std::string::npos) << where << ": " << err;
        EXPECT_EQ(err.find("std::"), std::string::npos) << where << ": " << err;
        EXPECT_LT(err.size(), 200u) << where << ": " << err;
    }
};

class Damaged : public DamagedFiles, public testing::WithParamInterface<Victim>
{
protected:
    // The folder with one of its files damaged.
    static void make_folder(const Damage &damage)
    {
        fs::remove_all(STATE);
        fs::copy(GOOD, STATE);
        const fs::path file = fs::path(STATE) / GetParam().name;
        fs::remove(file);
        damage.make(file);
    }
};

TEST_P(Damaged, file_is_told_in_one_line_by_each_command)
{
    const std::string good = read_file(std::string(GOOD) + '/' + GetParam().name);
    unsigned failures = 0;
    for (const Words &command : GetParam().commands) {
        make_folder(text("good", good));
        EXPECT_EQ(run_command(command).status, 0) << command.at(0);
    }
    for (const Damage &damage : damages(good)) {
        for (const Words &command : GetParam().commands) {
            if (damage.name == "a FIFO" && command.back() == "/tmp/codec/palette")
                continue; // named by the user, it waits for somebody who writes into it
            make_folder(damage);
            const Ended ended = run_command(command);
            expect_manners(ended, damage.name + ", " + command.at(0));
            EXPECT_NE(ended.status, 2) << "there is nothing wrong with its words";
            failures += ended.status == 1;
        }
    }
    EXPECT_GT(failures, 0u);
    fs::remove("/tmp/out.png");
}

TEST_P(Damaged, file_is_told_by_the_library_which_goes_on_or_does_not_begin)
{
    const std::string good = read_file(std::string(GOOD) + '/' + GetParam().name);
    for (const Damage &damage : damages(good)) {
        make_folder(damage);
        const int status = in_child([this] { return bring_up_and_take_down(); });
        const std::string err = read_file("/tmp/err");
        EXPECT_TRUE(status == 0 || status == 2) << damage.name << ": " << status << ' ' << err;
        if (status == 2)
            expect_one_line(err, damage.name);
        std::istringstream lines(err);
        for (std::string line; std::getline(lines, line);)
            EXPECT_EQ(line.rfind("qm5sim: ", 0), 0u) << damage.name << ": " << line;
    }
}

// Files that the user names.
TEST_F(DamagedFiles, that_are_handed_over_are_told_in_one_line)
{
    fs::copy(GOOD, STATE);
    const std::string file = "/tmp/given";
    const auto picture = [](const Words &words) {
        EXPECT_EQ(run_command(words).status, 0);
        return read_file("/tmp/out.png");
    };
    const struct {
        std::string good;
        std::vector<Words> commands;
    } rows[] = {
        {picture(SNAPSHOT),
         {{"snapshot", "0", "--over", file, "/tmp/out.png"}, {"snapshot", "0", "--check", file}}},
        {picture(SNAPSHOT_OF_OSD), {{"snapshot", "0", "--osd", "0", "--check", file}}},
        {"200 1 2 3 4\n", {{"palette", "--load", file}}},
        {"1 set_osd next vanish\n", {{"fault", "load", file}}},
        {"0 post 0 640x360\n1 run true\n", {{"play", "--dry-run", file}}},
    };
    for (const auto &row : rows) {
        for (const Damage &damage : damages(row.good)) {
            fs::remove(file);
            damage.make(file);
            for (const Words &command : row.commands) {
                if (damage.name == "a FIFO")
                    continue; // it waits for somebody who writes into it
                expect_manners(run_command(command), damage.name + ", " + command.at(0));
            }
        }
    }
    fs::remove(file);
    fs::remove("/tmp/out.png");
}

TEST_F(DamagedFiles, that_are_handed_over_may_be_pipes)
{
    fs::copy(GOOD, STATE);
    ASSERT_EQ(run_command(SNAPSHOT).status, 0);
    const std::string rows[][2] = {
        {"/tmp/out.png", "snapshot 0 --over /dev/stdin /tmp/over.png"},
        {"/tmp/good/palette", "palette --load /dev/stdin"},
        {"/tmp/good/faults", "fault load /dev/stdin"},
    };
    for (const auto &[file, words] : rows) {
        const Ended ended =
            support::run({"/bin/sh", "-c", "cat " + file + " | " QM5SIM_PROGRAM " " + words});
        EXPECT_EQ(ended.status, 0) << words;
        EXPECT_EQ(ended.err, "") << words;
    }
    fs::remove("/tmp/out.png");
    fs::remove("/tmp/over.png");
}

TEST_F(DamagedFiles, that_would_wait_for_a_writer_are_no_regular_files)
{
    fs::copy(GOOD, STATE);
    const std::string post = std::string(STATE) + "/post1";
    fs::remove(post);
    ASSERT_EQ(mkfifo(post.c_str(), 0600), 0);
    const Ended ended = run_command({"state"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "qm5sim: /tmp/codec/post1: no regular file\n");
    EXPECT_EQ(in_child([this] { return bring_up_and_take_down(); }), 0);
    EXPECT_EQ(read_file("/tmp/err"), "qm5sim: /tmp/codec/post1: no regular file\n");
}

TEST_F(DamagedFiles, that_would_wait_for_a_reader_are_no_regular_files)
{
    fs::copy(GOOD, STATE);
    write_file("/tmp/colors", "1 2 3 4 5\n");
    const struct {
        const char *file;
        Words words;
    } rows[] = {
        {"post1", {"post", "1", "close"}},
        {"settings", {"setting", "strict", "1"}},
        {"faults", {"fault", "clear"}},
        {"palette", {"palette", "--load", "/tmp/colors"}},
    };
    for (const auto &[file, words] : rows) {
        const std::string path = std::string(STATE) + '/' + file;
        fs::remove(path);
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        const Ended ended = run_command(words);
        EXPECT_EQ(ended.status, 1) << file;
        EXPECT_EQ(ended.err, "qm5sim: " + path + ": no regular file\n");
        fs::remove(path);
    }
    fs::remove("/tmp/colors");
}

TEST_F(DamagedFiles, that_have_no_end_are_too_long)
{
    fs::copy(GOOD, STATE);
    for (const Words &words :
         {Words{"fault", "load", "/dev/zero"}, Words{"palette", "--load", "/dev/zero"},
          Words{"snapshot", "0", "--over", "/dev/zero", "/tmp/out.png"},
          Words{"serve", "--token-file", "/dev/zero"}}) {
        const Ended ended = run_command(words);
        EXPECT_EQ(ended.status, 1) << words[0];
        EXPECT_EQ(ended.err, "qm5sim: /dev/zero: too long\n");
    }
}

// A look at everything that a record says, as all commands together take it.
void look_at_everything(const std::string &folder)
{
    sim_reader::read_state(folder);
    for (unsigned number = 0; number < SIM_POSTS; number++) {
        const sim_reader::Post post = sim_reader::read_post(folder, number);
        if (std::uint64_t{post.width} * post.height < 100000) {
            sim_reader::Picture picture = sim_reader::compose(post, sim_reader::palette());
            sim_reader::draw_guides(picture, post, {});
        }
        for (const sim_reader::Osd &osd : post.osd) {
            if (!osd.pixels.empty())
                sim_reader::take_osd(osd, sim_reader::palette());
        }
    }
}

TEST(DamagedState, of_any_byte_and_any_length_is_read_or_refused)
{
    support::HandmadeCodec codec(STATE);
    for (unsigned post = 0; post < SIM_POSTS; post++) {
        codec.open_post(post, 64 + post, 48);
        codec.show_osd(post, post, {.color_type = post % 3, .width = 20, .height = 4, .x = 60});
    }
    codec.save();
    const std::string good = read_file(codec.state_file());
    unsigned refused = 0;
    const auto look = [&](const std::string &bytes) {
        write_file(codec.state_file(), bytes);
        try {
            look_at_everything(STATE);
        } catch (const std::runtime_error &error) {
            refused++;
            EXPECT_EQ(std::string(error.what()).rfind("/tmp/codec/", 0), 0u) << error.what();
        }
    };
    look(good);
    EXPECT_EQ(refused, 0u);
    for (const std::size_t size : {std::size_t{0}, good.size()})
        look(std::string(size, '\0'));
    EXPECT_EQ(refused, 0u) << "there is none yet";
    for (std::size_t size = 1; size < good.size(); size++)
        look(good.substr(0, size));
    EXPECT_EQ(refused, good.size() - 1);
    for (std::size_t i = 0; i < good.size(); i++) {
        for (const int change : {0x01, 0x80, 0xFF}) {
            std::string bytes = good;
            bytes[i] = static_cast<char>(bytes[i] ^ change);
            look(bytes);
        }
    }
    EXPECT_LT(refused, good.size() * 2) << "most of the changes harm nothing";
    fs::remove_all(STATE);
}

INSTANTIATE_TEST_SUITE_P(Files, Damaged, testing::ValuesIn(VICTIMS), [](const auto &victim) {
    std::string name = victim.param.name;
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c == '.' || c == '-'; }, '_');
    return name;
});

} // namespace
