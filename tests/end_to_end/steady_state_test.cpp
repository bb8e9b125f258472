// What the real server costs when nothing happens, in system calls, and what it keeps of post
// threads that come and go, in memory.
#include "support/application.h"
#include "support/rendered_text.h"

#include <algorithm>
#include <fstream>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <vector>

namespace
{

class SteadyState : public support::ApplicationTest
{
};

#if defined(__x86_64__) && !defined(QM5OSD_SANITIZED)

// Waits for the next stop of a process under observation.
bool wait_for_stop(pid_t pid, int *status)
{
    return support::wait_until([=] { return waitpid(pid, status, __WALL | WNOHANG) != 0; }) &&
           WIFSTOPPED(*status);
}

// System calls of a process under observation; two stops each, of which the first is taken.
std::vector<long> observe_system_calls(pid_t pid, std::size_t count)
{
    std::vector<long> calls;
    int status = 0;
    if (ptrace(PTRACE_SEIZE, pid, nullptr, PTRACE_O_TRACESYSGOOD) != 0)
        return calls;
    ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr);
    bool stopped = wait_for_stop(pid, &status);
    bool entered = false;
    while (stopped && calls.size() < count) {
        ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
        stopped = wait_for_stop(pid, &status);
        if (!stopped || WSTOPSIG(status) != (SIGTRAP | 0x80))
            continue;
        entered = !entered;
        if (!entered)
            continue;
        user_regs_struct registers{};
        ptrace(PTRACE_GETREGS, pid, nullptr, &registers);
        calls.push_back(static_cast<long>(registers.orig_rax));
    }
    ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
    return calls;
}

// With TZ set, localtime makes no system call of its own; the clock is read without one.
TEST_F(SteadyState, pass_reads_the_fifo_and_sleeps_and_makes_no_other_system_call)
{
    setenv("TZ", "UTC0", 1);
    start({"--Post0TimeOn=1", "--Post1TimeOn=1", "--Post1DateOn=1"});
    EXPECT_TRUE(shows(1, [](const sim_reader::Post &post) {
        return support::count_shown(post) == 2 && post.osd[3].record.sets > 2;
    }));
    const std::vector<pid_t> servers = support::processes_of(executable_);
    ASSERT_EQ(servers.size(), 1u);
    const std::vector<long> calls = observe_system_calls(servers[0], 12);
    ASSERT_EQ(calls.size(), 12u);

    // A read, and two slices of sleep; an interrupted sleep goes on as restart_syscall.
    std::vector<long> steady;
    for (const long call : calls) {
        if (call != SYS_restart_syscall)
            steady.push_back(call);
    }
    const auto first_read = std::find(steady.begin(), steady.end(), SYS_read);
    ASSERT_LT(first_read - steady.begin(), 3);
    for (auto it = first_read; it != steady.end(); ++it) {
        const long place = (it - first_read) % 3;
        EXPECT_EQ(*it, place == 0 ? SYS_read : SYS_clock_nanosleep) << it - steady.begin();
    }
    unsetenv("TZ");
    stop();
}

#endif

#ifndef QM5OSD_SANITIZED // a sanitizer keeps freed memory for a while

// Kilobytes that a process has written to; no other process has a part in them.
long anonymous_memory(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    std::string word;
    long kilobytes = 0;
    while (file >> word) {
        if (word == "Anonymous:" && file >> kilobytes)
            return kilobytes;
    }
    return 0;
}

// A post thread that comes and goes again and again takes and gives back a whole font engine.
TEST_F(SteadyState, posts_that_come_and_go_take_no_memory_for_good)
{
    start({"--Post3TypeOn=1", "--Post3TimeOn=1"});
    const pid_t server = support::processes_of(executable_).at(0);
    const auto come_and_go = [this](unsigned width) {
        set_post(3, 0, 0);
        set_post(3, width, 300);
        return shows(3, [width](const sim_reader::Post &post) {
            return post.width == width && support::count_shown(post) == 2;
        });
    };
    for (const unsigned width : {600u, 610u, 600u, 610u})
        ASSERT_TRUE(come_and_go(width));
    const long before = anonymous_memory(server);
    for (unsigned round = 0; round < 8; round++)
        ASSERT_TRUE(come_and_go(600 + 10 * (round % 2)));
    EXPECT_GT(before, 0);
    EXPECT_LE(anonymous_memory(server), before + 64);
    stop();
}

#endif

} // namespace
