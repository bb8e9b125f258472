#include "program.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace program
{

namespace
{

// ---- Signals ------------------------------------------------------------------------------------

// How long a program may take to end by the signal that this process got.
constexpr timespec GRACE = {1, 0};

bool is_ignored(int signal)
{
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN;
}

// Keeps the signals that would end this process, and those of ended children, for `next`.
class HeldSignals
{
public:
    HeldSignals()
    {
        std::signal(SIGCHLD, SIG_DFL); // were it ignored, no child could be waited for
        sigemptyset(&held_);
        sigaddset(&held_, SIGCHLD);
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
            if (!is_ignored(signal))
                sigaddset(&held_, signal);
        }
        sigprocmask(SIG_BLOCK, &held_, &before_);
    }
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;
    ~HeldSignals()
    {
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }

    // Waits for the next of them.
    int next() const
    {
        int signal = -1;
        while (signal == -1)
            signal = sigwaitinfo(&held_, nullptr); // which a stop and a continuation interrupt
        return signal;
    }
    // The same, but no longer than this: -1.
    int next(const timespec &patience) const
    {
        return sigtimedwait(&held_, nullptr, &patience);
    }
    const sigset_t &before() const
    {
        return before_;
    }

private:
    sigset_t held_{};
    sigset_t before_{};
};

// ---- The program --------------------------------------------------------------------------------

class SpawnSetup
{
public:
    explicit SpawnSetup(const sigset_t &mask)
    {
        posix_spawnattr_init(&attributes_);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
        posix_spawnattr_setpgroup(&attributes_, 0); // one of its own
        posix_spawnattr_setsigmask(&attributes_, &mask);
        posix_spawn_file_actions_init(&files_);
        posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
    SpawnSetup(const SpawnSetup &) = delete;
    SpawnSetup &operator=(const SpawnSetup &) = delete;
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&files_);
        posix_spawnattr_destroy(&attributes_);
    }
    int spawn(pid_t *pid, char *const *words) const
    {
        return posix_spawnp(pid, words[0], &files_, &attributes_, words, environ);
    }

private:
    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t files_{};
};

pid_t start(const std::vector<std::string> &words, const sigset_t &mask)
{
    std::vector<char *> pointers;
    for (const std::string &word : words)
        pointers.push_back(const_cast<char *>(word.c_str()));
    pointers.push_back(nullptr);

    pid_t pid = -1;
    const int error = SpawnSetup(mask).spawn(&pid, pointers.data());
    if (error != 0)
        throw std::runtime_error(words.front() + ": " + std::strerror(error));
    return pid;
}

// Has it ended? It isn't taken off the process table, so that its group keeps its number.
bool has_ended(pid_t pid)
{
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

// Ends this process by a signal that it got, and the program's group before it. Another signal in
// the meantime ends the patience.
[[noreturn]] void end_with(pid_t pid, int signal, const HeldSignals &signals)
{
    kill(-pid, signal);
    kill(-pid, SIGCONT); // it may be stopped
    while (!has_ended(pid) && signals.next(GRACE) == SIGCHLD) {
    }
    kill(-pid, SIGKILL);
    waitpid(pid, nullptr, 0);

    std::raise(signal); // takes effect when it is held no more
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, signal);
    sigprocmask(SIG_UNBLOCK, &own, nullptr);
    _exit(128 + signal);
}

} // namespace

int run(const std::vector<std::string> &words)
{
    const HeldSignals signals;
    const pid_t pid = start(words, signals.before());
    while (!has_ended(pid)) {
        const int signal = signals.next();
        if (signal != SIGCHLD)
            end_with(pid, signal, signals);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return status;
}

std::string describe(int status)
{
    if (WIFSIGNALED(status))
        return "ended by signal " + std::to_string(WTERMSIG(status));
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

} // namespace program
