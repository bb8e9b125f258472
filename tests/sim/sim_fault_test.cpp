// qm5sim fault and qm5sim setting: what they leave in the state folder, and that a library which is
// up has it in force when they return.
#include "codec_library.h"

#include "control_files.h"
#include "support/process.h"

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace
{

using namespace support;

const std::string FAULTS = std::string(STATE) + "/faults";
const std::string SETTINGS = std::string(STATE) + "/settings";

class FaultCommand : public CodecLibrary
{
protected:
    static Words command(const Words &words)
    {
        Words all = {QM5SIM_PROGRAM};
        all.insert(all.end(), words.begin(), words.end());
        return all;
    }

    static Ended sim(const Words &words)
    {
        return run(command(words));
    }

    // What a command prints that does what it is asked for.
    static std::string good(const Words &words)
    {
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, 0) << ended.err;
        EXPECT_EQ(ended.err, "");
        return ended.out;
    }

    static void expect_failure(const Words &words, int status, const std::string &why)
    {
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, status);
        EXPECT_EQ(ended.out, "");
        EXPECT_EQ(ended.err, "qm5sim: " + why + "\n");
    }

    static std::vector<std::string> files()
    {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(STATE))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    static void write_state_file(const std::string &name, const std::string &text)
    {
        fs::create_directory(STATE);
        write_file(std::string(STATE) + '/' + name, text);
    }

    // The mark of a list that has been loaded, and is this text but for it.
    static std::string take_mark_off(const std::string &text)
    {
        std::smatch found;
        const std::string marked = read_file(FAULTS);
        EXPECT_TRUE(std::regex_search(marked, found, std::regex("^loaded [0-9]+\n")));
        EXPECT_EQ(found.suffix(), text);
        return found.str();
    }

    bool status_fails(std::uint32_t res_id)
    {
        qm5_cl_post_status status{};
        return lib_.get_status(res_id, &status) != 0;
    }
};

typedef std::vector<std::string> Names;

// ---- Files --------------------------------------------------------------------------------------

TEST_F(FaultCommand, add_appends_under_the_next_id_and_prints_it)
{
    EXPECT_EQ(good({"fault", "add", "open_osd", "next", "fail", "refused"}), "1\n");
    EXPECT_EQ(good({"fault", "add", "get_osd_mem", "25%", "size", "-16", "post", "1"}), "2\n");
    EXPECT_EQ(good({"fault", "add", "notify", "3", "double"}), "3\n");
    EXPECT_EQ(read_file(FAULTS), "1 open_osd next fail refused\n"
                                 "2 get_osd_mem 25% size -16 post 1\n"
                                 "3 notify 3 double\n");
    EXPECT_EQ(files(), Names{"faults"});
}

TEST_F(FaultCommand, add_keeps_what_is_there_and_makes_one_line_of_its_words)
{
    write_state_file("faults", "; wear\n7 set_osd every vanish");
    EXPECT_EQ(good({"fault", "add", " open_osd", "next\n", "line", "-8\tpost 2"}), "8\n");
    EXPECT_EQ(read_file(FAULTS),
              "; wear\n7 set_osd every vanish\n8 open_osd next line -8 post 2\n");
}

TEST_F(FaultCommand, add_refuses_words_that_are_no_fault)
{
    expect_failure({"fault", "add", "set_ost", "next", "vanish"}, 2,
                   "set_ost next vanish: unknown operation");
    expect_failure({"fault", "add", "set_osd", "next", "fail", "gone4"}, 2,
                   "set_osd next fail gone4: bad value of the effect");
    expect_failure({"fault", "add", "set_osd", "next", "fail", "-1"}, 2,
                   "set_osd next fail -1: bad value of the effect");
    expect_failure({"fault", "add", "notify", "next", "double", "clear"}, 2,
                   "notify next double clear: bad words behind the effect");
    expect_failure({"fault", "add", "open_device", "next", "delay", "1", "post", "0"}, 2,
                   "open_device next delay 1 post 0: the operation is no post's");
    expect_failure({"fault", "add", "set_osd", "next"}, 2, "EFFECT: it is required");
    EXPECT_FALSE(fs::exists(STATE));
}

TEST_F(FaultCommand, add_stops_at_as_many_as_the_library_holds)
{
    std::string text;
    for (unsigned i = 1; i <= SIM_FAULTS; i++)
        text += std::to_string(i) + " set_osd every vanish\n";
    write_state_file("faults", text);
    expect_failure({"fault", "add", "set_osd", "next", "vanish"}, 1,
                   FAULTS + ":33: too many faults");
    EXPECT_EQ(read_file(FAULTS), text);
    EXPECT_EQ(files(), Names{"faults"});
}

TEST_F(FaultCommand, adds_at_the_same_time_lose_none)
{
    std::vector<Process> adding;
    for (unsigned i = 0; i < 12; i++)
        adding.emplace_back(command({"fault", "add", "set_osd", "next", "vanish"}));
    std::set<std::string> ids;
    for (Process &process : adding)
        ids.insert(process.wait().out);
    EXPECT_EQ(ids.size(), 12u);
    const std::string text = read_file(FAULTS);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 12);
}

TEST_F(FaultCommand, remove_takes_one_line_and_clear_takes_all)
{
    expect_failure({"fault", "remove", "1"}, 1, "fault 1: there is none");
    EXPECT_FALSE(fs::exists(FAULTS)) << "nothing has changed";
    write_state_file("faults", "; wear\n1 set_osd every  vanish\n\n2 open_osd next fail gone1\n");
    EXPECT_EQ(good({"fault", "remove", "1"}), "");
    EXPECT_EQ(read_file(FAULTS), "; wear\n\n2 open_osd next fail gone1\n");
    expect_failure({"fault", "remove", "1"}, 1, "fault 1: there is none");
    EXPECT_EQ(sim({"fault", "remove", "-1"}).status, 2);
    EXPECT_EQ(good({"fault", "clear"}), "");
    EXPECT_EQ(read_file(FAULTS), "");
}

TEST_F(FaultCommand, load_takes_a_file_whole_or_not_at_all)
{
    const std::string text = "; wear\n5 set_osd 10% fail 0x81E00042 post 3\n1 notify next late 5\n";
    write_file("/tmp/wear", text);
    EXPECT_EQ(good({"fault", "load", "/tmp/wear"}), "");
    const std::string first = take_mark_off(text);
    fs::copy_file(FAULTS, "/tmp/wear", fs::copy_options::overwrite_existing);
    EXPECT_EQ(good({"fault", "load", "/tmp/wear"}), "");
    EXPECT_NE(take_mark_off(text), first);
    const std::string loaded = read_file(FAULTS);

    const std::string wrong[][2] = {
        {"1 set_osd next vanish\n1 open_osd next vanish\n", ":2: the ID is there already"},
        {"\n; x\n2 set_osd next burn\n", ":3: unknown effect"},
        {";" + std::string(SIM_FAULT_LINE - 1, 'x') + "\n", ":1: line is too long"},
        {std::string(control_files::LONGEST_LIST + 1, '\n'), ": longer than 4195 bytes"},
        {std::string("1 set_osd next vanish\0\n", 23), ": no text"},
    };
    for (const auto &[bad, why] : wrong) {
        write_file("/tmp/wear", bad);
        expect_failure({"fault", "load", "/tmp/wear"}, 1, "/tmp/wear" + why);
        EXPECT_EQ(read_file(FAULTS), loaded);
    }
    fs::remove("/tmp/wear");
    expect_failure({"fault", "load", "/tmp/wear"}, 1, "/tmp/wear: there is no such file");
    expect_failure({"fault", "load", "/tmp"}, 1, "/tmp: Is a directory");
}

TEST_F(FaultCommand, load_takes_as_many_of_the_longest_lines_as_there_may_be)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    std::string text;
    for (unsigned i = 1; i <= SIM_FAULTS; i++) {
        std::string line = std::to_string(i) + " thread_get_status every fail gone1 post 2";
        line.resize(SIM_FAULT_LINE - 1, ' ');
        text += line + '\n';
    }
    text.resize(control_files::LONGEST_LIST, '\n');
    text.back() = ';'; // in a line without an end
    write_file("/tmp/wear", text);
    EXPECT_EQ(good({"fault", "load", "/tmp/wear"}), "");
    EXPECT_TRUE(status_fails(ids[2]));
    EXPECT_FALSE(status_fails(ids[1]));
    fs::remove("/tmp/wear");
}

TEST_F(FaultCommand, list_tells_whether_they_are_switched_off)
{
    EXPECT_EQ(good({"fault"}), "");
    EXPECT_FALSE(fs::exists(STATE));
    good({"fault", "add", "set_osd", "next", "vanish", "post", "2"});
    EXPECT_EQ(good({"fault"}), "1 set_osd next vanish post 2: met 0, happened 0\n");
    write_file(SETTINGS, "; mine\nfaults 1\nstrict 1\n");
    EXPECT_EQ(good({"fault", "off"}), "");
    EXPECT_EQ(read_file(SETTINGS), "; mine\nfaults 0\nstrict 1\n");
    EXPECT_EQ(good({"fault"}), "1 set_osd next vanish post 2: met 0, happened 0, switched off\n");
    EXPECT_EQ(good({"fault", "on"}), "");
    EXPECT_EQ(read_file(SETTINGS), "; mine\nfaults 1\nstrict 1\n");
}

TEST_F(FaultCommand, tells_a_line_that_the_library_would_refuse)
{
    write_state_file("faults", "1 set_osd next vanish\n2 set_osd\n");
    for (const Words &words : {Words{"fault"}, Words{"fault", "remove", "1"},
                               Words{"fault", "add", "set_osd", "next", "vanish"}})
        expect_failure(words, 1, FAULTS + ":2: not ID OPERATION WHEN EFFECT");
    EXPECT_EQ(good({"fault", "clear"}), "");
}

TEST_F(FaultCommand, setting_shows_what_is_in_force_and_changes_one_line)
{
    EXPECT_EQ(good({"setting"}),
              "alignment 16 16 16\nstrict 0\nfaults 1\nrecord 0\nrecord-limit 256\n");
    EXPECT_EQ(good({"setting", "record", "1"}), "");
    EXPECT_EQ(read_file(SETTINGS), "record 1\n");
    write_file(SETTINGS, "; mine\nalignment 4 4 4\n\nstrict 1\nalignment 8 8 8\n; end");
    EXPECT_EQ(good({"setting", "alignment", "1", "2", "4096"}), "");
    EXPECT_EQ(read_file(SETTINGS), "; mine\nalignment 1 2 4096\n\nstrict 1\n; end\n");
    EXPECT_EQ(good({"setting"}),
              "alignment 1 2 4096\nstrict 1\nfaults 1\nrecord 0\nrecord-limit 256\n");
    EXPECT_EQ(good({"setting", "record-limit", "20"}), "");
    EXPECT_NE(good({"setting"}).find("record-limit 20\n"), std::string::npos);
    EXPECT_EQ(files(), Names{"settings"});

    expect_failure({"setting", "record-limit", "0"}, 2,
                   "record-limit 0: a record's limit is 1 to 1000000 MiB");
    expect_failure({"setting", "strict", "2"}, 2, "strict 2: no setting, or not its values");
    expect_failure({"setting", "strict"}, 2, "strict: no setting, or not its values");
    expect_failure({"setting", "alignment", "-1", "2", "3"}, 2,
                   "alignment -1 2 3: an alignment is 1 to 4096 bytes");
    write_file(SETTINGS, "fast 1\n");
    expect_failure({"setting"}, 1, SETTINGS + ":1: no setting, or not its values");
}

TEST_F(FaultCommand, folder_that_cannot_be_written_is_told)
{
    write_file("/tmp/codec-file", "");
    expect_failure({"--state", "/tmp/codec-file", "fault", "clear"}, 1,
                   "/tmp/codec-file: Not a directory");
    expect_failure({"--state", "/tmp/none/codec", "setting", "strict", "1"}, 1,
                   "/tmp/none/codec: No such file or directory");
    fs::remove("/tmp/codec-file");
}

TEST_F(FaultCommand, helps_on_every_level)
{
    for (const Words &words :
         {Words{"fault", "--help"}, Words{"fault", "add", "--help"},
          Words{"fault", "remove", "--help"}, Words{"fault", "clear", "--help"},
          Words{"fault", "off", "--help"}, Words{"fault", "on", "--help"},
          Words{"fault", "load", "--help"}, Words{"setting", "--help"}}) {
        const std::string help = good(words);
        EXPECT_NE(help.find("Usage: qm5sim " + words[0]), std::string::npos) << help;
        EXPECT_NE(help.find("qm5sim " + words[0], help.find("Example")), std::string::npos) << help;
    }
    EXPECT_FALSE(fs::exists(STATE));
}

// In the order of sim_effect.
constexpr const char *OF_EACH_EFFECT[] = {
    "set_osd next fail gone1",   "set_osd next delay 1",
    "get_osd_mem next size -1",  "open_osd next line 1",
    "set_osd next vanish",       "set_osd next vanish-after",
    "set_osd next change 0 8x8", "set_osd next change-after 0 8x8",
    "notify next double",        "notify next late 1",
};
static_assert(std::size(OF_EACH_EFFECT) == SIM_EFFECTS);

TEST_F(FaultCommand, help_tells_of_each_operation_and_effect_and_of_the_limit)
{
    for (const Words &words : {Words{"fault", "--help"}, Words{"fault", "add", "--help"}}) {
        const std::string help = good(words);
        const auto tells_of = [&help](const std::string &word) {
            return std::regex_search(help, std::regex("\\s" + word + "[\\s,;:]"));
        };
        for (const char *operation : sim_operation_names)
            EXPECT_TRUE(tells_of(operation)) << operation << " in " << help;
        for (std::uint32_t i = 0; i < SIM_EFFECTS; i++) {
            sim_fault fault{};
            std::string operation, when, effect;
            std::istringstream(OF_EACH_EFFECT[i]) >> operation >> when >> effect;
            ASSERT_STREQ(sim_parse_fault(("1 " + std::string(OF_EACH_EFFECT[i])).c_str(), &fault),
                         nullptr);
            ASSERT_EQ(fault.effect, i);
            EXPECT_TRUE(tells_of(effect)) << effect << " in " << help;
        }
        EXPECT_TRUE(tells_of(std::to_string(SIM_FAULTS) + " faults at most")) << help;
    }
}

// ---- A library that is up -----------------------------------------------------------------------

TEST_F(FaultCommand, change_is_in_force_when_the_command_returns)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    for (unsigned round = 0; round < 5; round++) {
        good({"fault", "add", "thread_get_status", "every", "fail", "gone1", "post", "1"});
        EXPECT_TRUE(status_fails(ids[1]));
        EXPECT_FALSE(status_fails(ids[0]));
        good({"fault", "off"});
        EXPECT_FALSE(status_fails(ids[1]));
        good({"fault", "on"});
        EXPECT_TRUE(status_fails(ids[1]));
        good({"fault", "clear"});
        EXPECT_FALSE(status_fails(ids[1]));
    }
    good({"setting", "alignment", "64", "16", "16"});
    const Opened opened = open_osd(ids[0], {0, 4, 1, 0});
    EXPECT_EQ(opened.line_bytes, 64u);
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
}

TEST_F(FaultCommand, list_tells_how_often_each_was_met_and_happened)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    good({"fault", "add", "thread_get_status", "2", "fail", "gone1"});
    good({"fault", "add", "thread_get_status", "every", "fail", "gone2", "post", "3"});
    for (const bool fails : {false, true, false})
        EXPECT_EQ(status_fails(ids[0]), fails);
    EXPECT_TRUE(status_fails(ids[3]));
    EXPECT_EQ(good({"fault"}), "1 thread_get_status 2 fail gone1: met 4, happened 1\n"
                               "2 thread_get_status every fail gone2 post 3: met 1, happened 1\n");
}

// Else a fault that is to happen once would go on counting where another one ended.
TEST_F(FaultCommand, id_that_has_been_counted_does_not_come_again)
{
    std::vector<std::uint32_t> ids = bring_up_with_posts();
    EXPECT_EQ(good({"fault", "add", "thread_get_status", "next", "fail", "gone1"}), "1\n");
    EXPECT_TRUE(status_fails(ids[0]));
    take_down();
    good({"fault", "clear"});
    EXPECT_EQ(good({"fault", "add", "thread_get_status", "next", "fail", "gone1"}), "2\n");
    notices.clear();
    ids = bring_up_with_posts();
    EXPECT_TRUE(status_fails(ids[0]));
}

// Else a scenario that is played again would do something else.
TEST_F(FaultCommand, load_begins_to_count_anew)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    write_file("/tmp/wear", "3 thread_get_status 2 fail gone1\n");
    for (unsigned round = 0; round < 2; round++) {
        good({"fault", "load", "/tmp/wear"});
        EXPECT_EQ(good({"fault"}), "3 thread_get_status 2 fail gone1: met 0, happened 0\n");
        for (const bool fails : {false, true, false})
            EXPECT_EQ(status_fails(ids[0]), fails) << round;
        EXPECT_EQ(good({"fault"}), "3 thread_get_status 2 fail gone1: met 3, happened 1\n");
    }
    fs::remove("/tmp/wear");
}

TEST_F(FaultCommand, list_without_a_server_tells_what_the_next_one_begins_with)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    good({"fault", "add", "thread_get_status", "next", "fail", "gone1"});
    EXPECT_TRUE(status_fails(ids[0]));
    const std::string counted = ": met 1, happened 1\n";
    EXPECT_EQ(good({"fault"}), "1 thread_get_status next fail gone1" + counted);
    take_down();
    EXPECT_EQ(good({"fault"}), "1 thread_get_status next fail gone1" + counted);
    good({"fault", "add", "set_osd", "next", "vanish"});
    EXPECT_EQ(good({"fault"}), "1 thread_get_status next fail gone1: met 0, happened 0\n"
                               "2 set_osd next vanish: met 0, happened 0\n");
    write_file("/tmp/wear", "1 set_osd every delay 5\n");
    good({"fault", "load", "/tmp/wear"});
    EXPECT_EQ(good({"fault"}), "1 set_osd every delay 5: met 0, happened 0\n");
    fs::remove("/tmp/wear");
}

// The library may not see what was in force for a moment.
TEST_F(FaultCommand, load_begins_to_count_anew_whatever_was_there_between)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    write_file("/tmp/wear", "3 thread_get_status next fail gone1\n");
    for (const char *between : {"", "loaded 999999999\n", "loaded 9223372036854775807\n"}) {
        good({"fault", "load", "/tmp/wear"});
        EXPECT_TRUE(status_fails(ids[0])) << between;
        EXPECT_FALSE(status_fails(ids[0])) << between;
        control_files::change_faults(STATE, [between](const std::string &) { return between; });
    }
    good({"fault", "load", "/tmp/wear"});
    EXPECT_TRUE(status_fails(ids[0]));
    fs::remove("/tmp/wear");
}

// In two, a fault that is to happen once could do so in both, or none be in force between them.
TEST_F(FaultCommand, load_puts_its_faults_in_force_in_one_step)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    write_file("/tmp/wear", "3 thread_get_status next fail gone1\n");
    good({"fault", "load", "/tmp/wear"});
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_NE(inotify_add_watch(watch, STATE, IN_MOVED_FROM | IN_MOVED_TO), -1);
    good({"fault", "load", "/tmp/wear"});
    alignas(inotify_event) char events[4096];
    const ssize_t size = read(watch, events, sizeof events);
    Names put;
    for (ssize_t at = 0; at < size;) {
        const auto *event = reinterpret_cast<const inotify_event *>(events + at);
        if ((event->mask & IN_MOVED_TO) != 0)
            put.emplace_back(event->name);
        at += static_cast<ssize_t>(sizeof *event + event->len);
    }
    EXPECT_EQ(put, Names{"faults"}) << "and no more than once";
    close(watch);
    fs::remove("/tmp/wear");
}

TEST_F(FaultCommand, server_that_does_not_take_a_change_up_is_told)
{
    sim_state record{};
    record.magic = SIM_MAGIC;
    record.version = SIM_VERSION;
    write_state_file("state", std::string(reinterpret_cast<const char *>(&record), sizeof record));
    const int state = open((std::string(STATE) + "/state").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(state, LOCK_EX), 0);
    const Ended added = sim({"fault", "add", "set_osd", "next", "vanish"});
    EXPECT_EQ(added.status, 1);
    EXPECT_EQ(added.out, "1\n");
    EXPECT_EQ(added.err, "qm5sim: fault: the server has not taken it up\n");
    EXPECT_EQ(read_file(FAULTS), "1 set_osd next vanish\n");
    expect_failure({"setting", "strict", "1"}, 1, "setting: the server has not taken it up");
    close(state); // and with it the lock
    EXPECT_EQ(good({"setting", "strict", "0"}), "");
}

} // namespace
