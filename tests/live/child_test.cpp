// Running a program from a server: what it gets, what it gives, and how long it may take.
#include "child.h"

#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

using live::failure_of;
using live::Finished;
using live::run_child;
using namespace std::chrono_literals;

class Child : public testing::Test
{
protected:
    void SetUp() override
    {
        stop_ = eventfd(0, EFD_CLOEXEC);
    }

    void TearDown() override
    {
        close(stop_);
        EXPECT_EQ(support::temporary_files(), std::vector<std::string>{});
    }

    Finished shell(const std::string &script, const std::string &input = "") const
    {
        return run_child({"sh", "-c", script}, input, 30s, stop_).value();
    }

    int stop_ = -1;
};

TEST_F(Child, gives_its_status_and_both_streams)
{
    const Finished finished = shell("echo out; echo err >&2; exit 7");
    EXPECT_EQ(finished.status, 7);
    EXPECT_EQ(finished.signal, std::nullopt);
    EXPECT_FALSE(finished.timeout);
    EXPECT_EQ(finished.output, "out\n");
    EXPECT_EQ(finished.error, "err\n");
}

TEST_F(Child, gives_the_signal_that_ended_it)
{
    const Finished finished = shell("kill -TERM $$");
    EXPECT_EQ(finished.signal, SIGTERM);
    EXPECT_EQ(finished.status, std::nullopt);
}

TEST_F(Child, reads_its_input)
{
    const std::string text = "one\n" + std::string(200000, 'x') + "\n";
    EXPECT_EQ(shell("cat", text).output, text);
    EXPECT_EQ(shell("cat /dev/stdin /dev/stdin", "twice").output, "twicetwice");
    EXPECT_EQ(shell("cat; readlink /proc/self/fd/0").output, "/dev/null\n");
}

TEST_F(Child, gives_no_more_than_the_first_mebibyte)
{
    const Finished finished = shell("head -c 3000000 /dev/zero");
    EXPECT_EQ(finished.output, std::string(live::MAX_OUTPUT, '\0'));
}

TEST_F(Child, gets_no_descriptor_but_its_own)
{
    const int kept = dup(stop_); // without the flag that closes it
    EXPECT_EQ(shell("for fd in /proc/$$/fd/*; do [ -e $fd ] && basename $fd; done").output,
              "0\n1\n2\n");
    close(kept);
}

TEST_F(Child, gets_signals_as_any_program)
{
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    const auto mask = [this](const std::string &name) {
        const std::string text = shell("sed -n 's/^" + name + ":\t//p' /proc/self/status").output;
        constexpr unsigned long plain = 0x7FFFFFFF; // not those of the C library's own
        return std::stoul(text, nullptr, 16) & plain;
    };
    EXPECT_EQ(mask("SigBlk"), 0u);
    EXPECT_EQ(mask("SigIgn"), 0u);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    std::signal(SIGPIPE, SIG_DFL);
}

TEST_F(Child, has_a_session_of_its_own)
{
    EXPECT_EQ(shell("[ $(cut -d' ' -f6 /proc/$$/stat) = $$ ] && echo own").output, "own\n");
}

TEST_F(Child, is_not_waited_for_beyond_its_own_end)
{
    support::adopt_orphans();
    const Finished finished = shell("sleep 1000 & echo $!");
    const pid_t left = std::stoi(finished.output);
    EXPECT_EQ(kill(left, SIGKILL), 0) << "what it left behind has gone";
    EXPECT_EQ(waitpid(left, nullptr, 0), left);
}

TEST_F(Child, is_killed_when_it_takes_too_long)
{
    const Finished finished =
        run_child({"sh", "-c", "trap '' TERM; echo begun; exec sleep 1000"}, "", 300ms, stop_)
            .value();
    EXPECT_TRUE(finished.timeout);
    EXPECT_EQ(finished.signal, SIGKILL);
}

TEST_F(Child, has_failed_by_its_own_words_or_its_end)
{
    EXPECT_EQ(failure_of(shell("echo why >&2; exit 1")), "why\n");
    EXPECT_EQ(failure_of(shell("echo why >&2; kill -TERM $$")), "why\n");
    EXPECT_EQ(failure_of(shell("exit 7")), "the command ended with status 7, without a word");
    EXPECT_EQ(failure_of(shell("kill -TERM $$")),
              "the command was ended by signal 15 (Terminated)");
    EXPECT_EQ(failure_of(run_child({"sleep", "1000"}, "", 100ms, stop_).value()),
              "the command took too long, and was ended");
}

TEST_F(Child, is_killed_with_what_it_has_started)
{
    support::adopt_orphans();
    const Finished finished =
        run_child({"sh", "-c", "sleep 1000 & echo $!; wait"}, "", 300ms, stop_).value();
    EXPECT_TRUE(finished.timeout);
    const pid_t started = std::stoi(finished.output);
    int status = 0;
    ASSERT_TRUE(support::wait_until([&] { return waitpid(started, &status, WNOHANG) == started; }));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(Child, is_waited_for_where_no_more_files_can_be_opened_soon)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = dup(stop_); // the next three are its streams
    close(next);
    const rlimit few = {static_cast<rlim_t>(next) + 3, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    const auto finished = run_child({"sh", "-c", "echo done"}, "", 30s, stop_);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(finished->status, 0);
    EXPECT_EQ(finished->output, "done\n");
}

TEST_F(Child, is_left_to_itself_when_the_server_ends)
{
    support::adopt_orphans();
    eventfd_write(stop_, 1);
    const std::string script = "echo $$ >/tmp/pid.new; mv /tmp/pid.new /tmp/pid; "
                               "until [ -e /tmp/go ]; do sleep 0.02; done";
    EXPECT_EQ(run_child({"sh", "-c", script}, "", 30s, stop_), std::nullopt);
    ASSERT_TRUE(support::wait_until([] { return std::filesystem::exists("/tmp/pid"); }));
    const pid_t pid = std::stoi(support::read_file("/tmp/pid"));
    support::write_file("/tmp/go", "");
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    support::remove_file("/tmp/pid");
    support::remove_file("/tmp/go");
}

TEST_F(Child, is_looked_for_as_a_shell_does)
{
    namespace fs = std::filesystem;
    fs::create_directories("/tmp/1/folder");
    fs::create_directory("/tmp/2");
    for (const char *file : {"/tmp/1/program", "/tmp/2/program", "/tmp/2/folder"}) {
        support::write_file(file, "");
        fs::permissions(file, fs::perms::owner_all);
    }
    support::write_file("/tmp/1/text", "");
    const std::string path = getenv("PATH");
    setenv("PATH", "/tmp/none:/tmp/1:/tmp/2", 1);
    EXPECT_EQ(live::find_program("program"), "/tmp/1/program");
    EXPECT_EQ(live::find_program("folder"), "/tmp/2/folder");
    for (const char *name : {"text", "nothing", ""})
        EXPECT_EQ(live::find_program(name), name);
    for (const char *here : {"", ":/tmp/2", "/tmp/none::/tmp/2", "/tmp/none:"}) {
        setenv("PATH", here, 1);
        fs::current_path("/tmp/1");
        EXPECT_EQ(live::find_program("program"), "/tmp/1/program") << here;
        EXPECT_EQ(live::find_program("./nothing"), "/tmp/1/./nothing");
        fs::current_path("/");
    }
    unsetenv("PATH");
    EXPECT_EQ(live::find_program("program"), "program");
    setenv("PATH", path.c_str(), 1);
    fs::remove_all("/tmp/1");
    fs::remove_all("/tmp/2");
}

TEST_F(Child, can_fail_to_start)
{
    try {
        run_child({"/tmp/none"}, "", 30s, stop_);
        ADD_FAILURE() << "started";
    } catch (const std::runtime_error &error) {
        EXPECT_STREQ(error.what(), "/tmp/none: No such file or directory");
    }
}

TEST_F(Child, runs_beside_others)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; i++)
        threads.emplace_back([this, i] {
            EXPECT_EQ(shell("echo " + std::to_string(i)).output, std::to_string(i) + "\n");
        });
    for (std::thread &thread : threads)
        thread.join();
}

} // namespace
