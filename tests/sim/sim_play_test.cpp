// qm5sim play: scenarios as they are checked, played and ended.
#include "run_sim.h"
#include "support/application.h"
#include "support/files.h"
#include "support/rendered_text.h"

#include <csignal>
#include <filesystem>
#include <random>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace
{

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using support::Ended;
using support::Process;
using support::wait_until;
using support::Words;

typedef std::chrono::system_clock Clock;

constexpr const char *PLAY_FOLDER = "/tmp/play/";
constexpr const char *SCENARIO = "/tmp/play/scenario";

// How far a file's time may lag behind the clock.
constexpr std::chrono::milliseconds LAG{20};

std::string in_folder(const std::string &name)
{
    return PLAY_FOLDER + name;
}

bool exists(const std::string &name)
{
    return fs::exists(in_folder(name));
}

void make(const std::string &name)
{
    support::write_file(in_folder(name), "");
}

// When the file was made.
Clock::time_point stamp(const std::string &name)
{
    struct stat status = {};
    EXPECT_EQ(stat(in_folder(name).c_str(), &status), 0) << name;
    return Clock::time_point(std::chrono::seconds(status.st_mtim.tv_sec) +
                             std::chrono::nanoseconds(status.st_mtim.tv_nsec));
}

// A shell's words that wait for a file.
std::string until(const std::string &name)
{
    return "until test -e " + in_folder(name) + "; do sleep 0.01; done";
}

std::vector<pid_t> sleepers()
{
    static const std::string path = fs::canonical("/bin/sleep");
    return support::processes_of(path);
}

// Is nothing under way that a play has started, nor the play itself?
bool no_process_is_left()
{
    return sleepers().empty() && support::processes_of(fs::canonical(QM5SIM_PROGRAM)).empty();
}

class SimPlay : public support::ApplicationTest
{
protected:
    void SetUp() override
    {
        ApplicationTest::SetUp();
        fs::create_directory(PLAY_FOLDER);
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
            std::signal(signal, SIG_DFL); // a shell may have had them ignored
    }

    void TearDown() override
    {
        EXPECT_EQ(sleepers(), std::vector<pid_t>{}) << "a program is left running";
        for (const pid_t pid : sleepers())
            kill(pid, SIGKILL);
        while (waitpid(-1, nullptr, WNOHANG) > 0) { // what other programs have left behind
        }
        fs::remove_all(PLAY_FOLDER);
        ApplicationTest::TearDown();
    }

    static Words words(const std::string &lines, const Words &options = {})
    {
        support::write_file(SCENARIO, lines);
        Words all = {"play", SCENARIO};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }

    static Ended play(const std::string &lines, const Words &options = {})
    {
        return run_sim(words(lines, options));
    }

    static Process begin(const std::string &lines)
    {
        Words all = words(lines);
        all.insert(all.begin(), QM5SIM_PROGRAM);
        return Process(all);
    }

    static void expect_good(const Ended &ended, const std::string &out = "")
    {
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.out, out);
        EXPECT_EQ(ended.err, "");
    }

    static void expect_bad(const Ended &ended, int status, const std::string &err)
    {
        EXPECT_EQ(ended.status, status);
        EXPECT_EQ(ended.err, "qm5sim: " + std::string(SCENARIO) + err + '\n');
    }
};

// ---- Times --------------------------------------------------------------------------------------

TEST_F(SimPlay, lines_are_done_in_their_order_and_not_before_their_times)
{
    const auto before = Clock::now();
    expect_good(play("0 run touch /tmp/play/a\n"
                     "0.3 post 0 resize 640x480\n"
                     "0.3 run mv /tmp/codec/post0 /tmp/play/b\n"
                     "0.50 run touch /tmp/play/c\n"));
    EXPECT_LE(stamp("a"), stamp("b"));
    EXPECT_GE(stamp("b"), before + 300ms - LAG);
    EXPECT_GE(stamp("c"), before + 500ms - LAG);
    EXPECT_EQ(support::read_file(in_folder("b")), "640x480\n");
}

TEST_F(SimPlay, speed_divides_the_times)
{
    const auto before = Clock::now();
    expect_good(play("3000 run touch /tmp/play/a\n", {"--speed", "10000"}));
    EXPECT_GE(stamp("a"), before + 300ms - LAG);

    const auto again = Clock::now();
    expect_good(play("0.1 run touch /tmp/play/b\n", {"--speed", "0.25"}));
    EXPECT_GE(stamp("b"), again + 400ms - LAG);
}

TEST_F(SimPlay, late_line_is_done_at_once)
{
    const auto before = Clock::now();
    Process process = begin("0 run sh -c \"" + until("go") +
                            "\"\n"
                            "1.5 run touch /tmp/play/late\n");
    EXPECT_TRUE(wait_until([&] { return Clock::now() > before + 2s; }));
    EXPECT_FALSE(exists("late")) << "the program is waited for";
    make("go");
    EXPECT_EQ(process.wait().status, 0);
    EXPECT_LT(stamp("late"), stamp("go") + 1s) << "times count from the beginning";
}

TEST_F(SimPlay, time_beyond_any_clock_is_waited_for)
{
    Process process =
        begin("0 run touch /tmp/play/a\n" + std::string(300, '9') + " run touch /tmp/play/b\n");
    EXPECT_TRUE(wait_until([] { return exists("a"); }));
    kill(process.pid(), SIGTERM);
    EXPECT_EQ(process.wait().status, 128 + SIGTERM);
    EXPECT_FALSE(exists("b"));
}

TEST_F(SimPlay, scenario_without_lines_is_played)
{
    expect_good(play(""));
    expect_good(play("\n; nothing\n \t\r\n  ; to do"));
}

// ---- Words --------------------------------------------------------------------------------------

TEST_F(SimPlay, words_are_parted_by_blanks_and_kept_by_quotes)
{
    expect_good(play("\t 0\trun  printf [%s] a \"b  c\" \"\" x\"y ;z\"w  ; the rest \"\r\n"
                     "0 run printf [%s] a;b ;c\n"
                     "0 run printf [%s] \"$HOME *\"\\"),
                "[a][b  c][][xy ;zw][a;b][$HOME *\\]");
}

TEST_F(SimPlay, output_comes_in_the_order_of_the_lines)
{
    expect_good(play("0 clock EAST-5\n"
                     "0 clock\n"
                     "0 run echo between\n"
                     "0 clock\n"
                     "0 clock --remove\n"),
                "zone: EAST-5\nchange byte: 1\nbetween\nzone: EAST-5\nchange byte: 1\n");
}

TEST_F(SimPlay, programs_get_the_state_folder_and_no_input)
{
    const Words all = words("0 run sh -c \"echo $QM5SIM_STATE\"\n0 run cat\n");
    const Ended ended = support::run(
        {"/bin/sh", "-c",
         "echo input | " QM5SIM_PROGRAM " --state /tmp/elsewhere " + all[0] + ' ' + all[1]});
    expect_good(ended, "/tmp/elsewhere\n");
}

TEST_F(SimPlay, programs_have_no_signals_held)
{
    expect_good(play("0 run grep SigBlk /proc/self/status\n"), "SigBlk:\t0000000000000000\n");
}

// ---- Checking -----------------------------------------------------------------------------------

TEST_F(SimPlay, whole_file_is_checked_before_anything_is_done)
{
    const std::string touch = "0.1 run touch /tmp/play/done\n\n";
    const std::string worse = "0 bogus\n"; // the first line at fault is told
    const auto expect_refused = [&](const std::string &line, const std::string &why) {
        for (const Words &options : {Words{}, Words{"--dry-run"}}) {
            expect_bad(play(touch + line + '\n' + worse, options), 1, ":3: " + why);
            EXPECT_FALSE(exists("done")) << line;
        }
    };
    for (const char *time :
         {"soon", "-1", "+1", "1e3", "1s", "0x1", "inf", "nan", ".", "1.2.3", "1,5", "run"})
        expect_refused(time + std::string(" run true"),
                       time + std::string(": no decimal number of seconds"));
    expect_refused("\"\" run true", ": no decimal number of seconds");
    expect_refused("0.09 run true", "0.09: earlier than the line before");
    expect_refused("0.2", "0.2: nothing to do");
    expect_refused("0.2 ; run true", "0.2: nothing to do");
    expect_refused("1 run \"true", "a quote is not closed");
    expect_refused("1 run", "run: no program");
    expect_refused("1 try", "try: no program");
    expect_refused("1 run \"\" true", "run: no program");
    expect_refused("1 play /tmp/play/scenario", "play: not within a scenario");
    expect_refused("1 serve", "serve: not within a scenario");
    expect_refused("1 bogus", "bogus: no command");
    expect_refused("1 post 0 bogus", "bogus: it was not expected");
    expect_refused("1 --state /tmp post 0 close", "--state: no command");
    expect_refused("1 post 0 open big", "big: not WIDTHxHEIGHT");
    expect_refused("1 post 4 close", "post: Value 4 not in range 0 to 3");
    expect_refused("1 post 0 open", "size: it is required");
    expect_refused("1 post 0", "subcommand: it is required");
    expect_refused("1 post 0 close now", "now: it was not expected");
    expect_refused("1 snapshot 0 x.png --help", "--help: it was not expected");
    const std::string forty(40, '1');
    expect_refused(forty + "x run true", forty + "...: no decimal number of seconds");
    expect_refused("1 " + std::string(4095, 'x'), "longer than 4096 bytes");
    expect_refused("1 run printf \x1B[2J", "no text");
    const std::string zone(64, 'z');
    expect_refused("1 clock " + zone, zone + ": longer than 63 bytes");
}

TEST_F(SimPlay, refuses_a_file_without_an_end)
{
    const Ended ended = run_sim({"play", "/dev/zero"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "qm5sim: /dev/zero:1: longer than 4096 bytes\n");
    EXPECT_EQ(run_sim({"play", "/dev/urandom"}).status, 1);
}

TEST_F(SimPlay, dry_run_does_nothing)
{
    expect_good(play("0 run touch /tmp/play/done\n"
                     "0 clock EAST-9\n"
                     "1000000 post 0 close\n",
                     {"--dry-run"}));
    EXPECT_FALSE(exists("done"));
    EXPECT_FALSE(fs::exists(state_));
    EXPECT_EQ(shmget(5678, 0, 0), -1);
}

TEST_F(SimPlay, speed_is_a_decimal_number_above_0)
{
    for (const std::string speed : {"0", "0.0", "fast", "inf", "nan", "1e3", ""}) {
        const Ended ended = play("0 run touch /tmp/play/done\n", {"--speed=" + speed});
        EXPECT_EQ(ended.status, 2);
        EXPECT_EQ(ended.err.rfind("qm5sim: ", 0), 0u) << ended.err;
        EXPECT_FALSE(exists("done")) << speed;
    }
    EXPECT_EQ(play("", {"--speed", "fast"}).err, "qm5sim: fast: no decimal number above 0\n");
}

TEST_F(SimPlay, file_that_cannot_be_read_is_a_failure)
{
    const Ended none = run_sim({"play", "/tmp/none"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "qm5sim: /tmp/none: No such file or directory\n");
    const Ended folder = run_sim({"play", "/tmp"});
    EXPECT_EQ(folder.status, 1);
    EXPECT_EQ(folder.err, "qm5sim: /tmp: Is a directory\n");
    EXPECT_EQ(run_sim({"play"}).status, 2);
}

TEST_F(SimPlay, helps_by_an_example)
{
    const Ended ended = run_sim({"play", "--help"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.out.find("    5.5  post 0 resize 1280x720 "), std::string::npos) << ended.out;
    EXPECT_NE(ended.out.find("Example: qm5sim play --speed 10 day.txt"), std::string::npos);
}

// ---- Failures -----------------------------------------------------------------------------------

TEST_F(SimPlay, failure_ends_the_play)
{
    const auto expect_failure = [](const std::string &line, const std::string &why) {
        expect_bad(play("0 run true\n" + line + "\n0 run touch /tmp/play/done\n"), 1, ":2: " + why);
        EXPECT_FALSE(exists("done")) << line;
    };
    expect_failure("0 run false", "false: exit status 1");
    expect_failure("0 run sh -c \"exit 3\"", "sh: exit status 3");
    expect_failure("0 run sh -c \"kill -9 $$\"", "sh: ended by signal 9");
    expect_failure("0 run /tmp/none x", "/tmp/none: No such file or directory");
    expect_failure("0 try /tmp/play x", "/tmp/play: Permission denied");
    expect_failure("0 snapshot 0 /tmp/x.png", "/tmp/codec: No such file or directory");
    expect_failure("0 clock", "time zone block: none");
}

TEST_F(SimPlay, difference_ends_the_play_by_what_it_tells)
{
    support::write_file(in_folder("a"), "{\"call\":\"library_init\"}\n");
    support::write_file(in_folder("b"), "{\"call\":\"library_exit\"}\n");
    const Ended ended = play("0 diff /tmp/play/a /tmp/play/a\n"
                             "0 diff /tmp/play/a /tmp/play/b\n"
                             "0 run touch /tmp/play/done\n");
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "");
    EXPECT_EQ(ended.out, "/tmp/play/a:1: {\"call\":\"library_init\"}\n"
                         "/tmp/play/b:1: {\"call\":\"library_exit\"}\n"
                         "/tmp/play/a: 1 call\n"
                         "/tmp/play/b: 1 call\n");
    EXPECT_FALSE(exists("done"));
}

TEST_F(SimPlay, failure_of_a_program_that_is_tried_does_not_matter)
{
    expect_good(play("0 try false\n"
                     "0 try sh -c \"kill -9 $$\"\n"
                     "0 try true\n"
                     "0 run touch /tmp/play/done\n"));
    EXPECT_TRUE(exists("done"));
}

// ---- Ends ---------------------------------------------------------------------------------------

TEST_F(SimPlay, signal_ends_it_while_it_waits_for_a_time)
{
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        Process process = begin("0 run rm -f /tmp/play/a\n" // a program leaves no signal held
                                "0 post 0 close\n"
                                "0 run touch /tmp/play/a\n"
                                "1000 run touch /tmp/play/b\n");
        EXPECT_TRUE(wait_until([] { return exists("a"); }));
        kill(process.pid(), signal);
        EXPECT_EQ(process.wait().status, 128 + signal);
        EXPECT_FALSE(exists("b"));
        fs::remove(in_folder("a"));
    }
}

TEST_F(SimPlay, signal_ends_the_program_that_is_under_way_and_what_belongs_to_it)
{
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        Process process = begin("0 run sh -c \"sleep 1000 & sleep 1000; true\"\n"
                                "0 run touch /tmp/play/b\n");
        EXPECT_TRUE(wait_until([] { return sleepers().size() == 2; }));
        kill(process.pid(), signal);
        EXPECT_EQ(process.wait().status, 128 + signal);
        EXPECT_TRUE(wait_until([] { return sleepers().empty(); }));
        EXPECT_FALSE(exists("b"));
    }
}

TEST_F(SimPlay, kill_that_cannot_be_caught_ends_the_program_and_what_belongs_to_it)
{
    Process process = begin("0 run sh -c \"sleep 1000 & sleep 1000; true\"\n"
                            "0 run touch /tmp/play/b\n");
    EXPECT_TRUE(wait_until([] { return sleepers().size() == 2; }));
    kill(process.pid(), SIGKILL);
    EXPECT_EQ(process.wait().status, 128 + SIGKILL);
    EXPECT_TRUE(wait_until([] { return sleepers().empty(); }));
    EXPECT_FALSE(exists("b"));
}

TEST_F(SimPlay, kill_of_its_whole_group_ends_the_program_too)
{
    const Words all = words("0 run sleep 1000\n");
    Process process({"/usr/bin/setsid", QM5SIM_PROGRAM, all[0], all[1]});
    EXPECT_TRUE(wait_until([] { return sleepers().size() == 1; }));
    kill(-process.pid(), SIGKILL);
    EXPECT_EQ(process.wait().status, 128 + SIGKILL);
    EXPECT_TRUE(wait_until([] { return sleepers().empty(); }));
}

// However the moment falls, on the program's start or before it.
TEST_F(SimPlay, kill_at_any_moment_leaves_no_program_running)
{
    std::mt19937 random(20271231); // the same moments each time
    const auto began = std::chrono::steady_clock::now();
    {
        Process process = begin("0 run sleep 1000\n");
        EXPECT_TRUE(wait_until([] { return sleepers().size() == 1; }));
        kill(process.pid(), SIGKILL);
    }
    const auto longest = std::chrono::steady_clock::now() - began;
    std::uniform_int_distribution<std::chrono::nanoseconds::rep> moments(0, longest.count());
    for (unsigned round = 0; round < 50; round++) {
        Process process = begin("0 run sleep 1000\n");
        std::this_thread::sleep_for(std::chrono::nanoseconds(moments(random)));
        kill(process.pid(), SIGKILL);
        EXPECT_EQ(process.wait().status, 128 + SIGKILL);
        EXPECT_TRUE(wait_until([] { return no_process_is_left(); })) << round;
    }
}

TEST_F(SimPlay, kill_between_two_programs_leaves_what_the_first_has_left_behind)
{
    Process process = begin("0 run sh -c \"sleep 1000 &\"\n"
                            "0 run touch /tmp/play/a\n"
                            "1000 run true\n");
    EXPECT_TRUE(wait_until([] { return exists("a"); }));
    kill(process.pid(), SIGKILL);
    EXPECT_EQ(process.wait().status, 128 + SIGKILL);
    ASSERT_EQ(sleepers().size(), 1u);
    kill(sleepers().at(0), SIGKILL);
    EXPECT_TRUE(wait_until([] { return sleepers().empty(); }));
}

TEST_F(SimPlay, program_may_put_things_in_order_at_its_end)
{
    Process process = begin("0 run sh -c \"trap 'touch /tmp/play/order; exit' TERM; "
                            "touch /tmp/play/ready; " +
                            until("never") + "\"\n");
    EXPECT_TRUE(wait_until([] { return exists("ready"); }));
    kill(process.pid(), SIGTERM);
    EXPECT_EQ(process.wait().status, 128 + SIGTERM);
    EXPECT_TRUE(exists("order"));
    EXPECT_TRUE(wait_until([] { return sleepers().empty(); }));
}

TEST_F(SimPlay, program_that_ignores_the_signal_is_killed)
{
    Process process = begin("0 run sh -c \"trap '' TERM; sleep 1000; true\"\n");
    EXPECT_TRUE(wait_until([] { return sleepers().size() == 1; }));
    kill(process.pid(), SIGTERM);
    EXPECT_EQ(process.wait().status, 128 + SIGTERM);
    EXPECT_TRUE(wait_until([] { return sleepers().empty(); }));
}

TEST_F(SimPlay, program_that_is_stopped_ends_too)
{
    Process process = begin("0 run sleep 1000\n");
    EXPECT_TRUE(wait_until([] { return sleepers().size() == 1; }));
    kill(sleepers().at(0), SIGSTOP);
    kill(process.pid(), SIGTERM);
    EXPECT_EQ(process.wait().status, 128 + SIGTERM);
    EXPECT_TRUE(wait_until([] { return sleepers().empty(); }));
}

TEST_F(SimPlay, ignored_signal_stays_ignored)
{
    const Words all = words("0 run sh -c \"touch /tmp/play/ready; " + until("go") + "\"\n");
    Process process(
        {"/bin/sh", "-c", "trap '' INT; exec " QM5SIM_PROGRAM " " + all[0] + ' ' + all[1]});
    EXPECT_TRUE(wait_until([] { return exists("ready"); }));
    kill(process.pid(), SIGINT);
    make("go");
    expect_good(process.wait());
}

TEST_F(SimPlay, what_a_program_leaves_behind_stays)
{
    expect_good(play("0 run sh -c \"sleep 1000 &\"\n"
                     "0 run touch /tmp/play/done\n"));
    EXPECT_TRUE(exists("done"));
    ASSERT_EQ(sleepers().size(), 1u);
    kill(sleepers().at(0), SIGKILL);
    EXPECT_TRUE(wait_until([] { return sleepers().empty(); }));
}

// ---- With a server ------------------------------------------------------------------------------

TEST_F(SimPlay, scenario_leads_a_server_through_its_life)
{
    const std::string osd = executable_;
    Process process = begin("0 clock EAST-9\n"
                            "0 run " +
                            osd +
                            " start -l /tmp/server.log --Post0TimeOn=1 --Post0StringOn=1"
                            " --Post0String=\"Gate  2\"\n"
                            "0 run sh -c \"" +
                            until("resize") +
                            "\"\n"
                            "0 post 0 resize 640x480\n"
                            "0 clock WEST3\n"
                            "0 run sh -c \"" +
                            until("end") +
                            "\"\n"
                            "0 snapshot 0 /tmp/play/end.png\n"
                            "0 run " +
                            osd +
                            " stop\n"
                            "0 clock --remove\n");
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return support::shows_text(post.osd[0], " Gate  2 ", {28, 3, 1}) &&
               support::shows_recent_time(post.osd[3], 9 * 3600, {28, 3, 1});
    }));
    make("resize");
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return post.width == 640 && support::count_shown(post) == 2 &&
               support::shows_recent_time(post.osd[3], -3 * 3600, {25, 3, 1});
    }));
    make("end");
    EXPECT_EQ(process.wait().status, 0);
    EXPECT_TRUE(exists("end.png"));
    EXPECT_TRUE(wait_until([&] { return support::processes_of(executable_).empty(); }));
    EXPECT_EQ(shmget(5678, 0, 0), -1);
}

} // namespace
