#include "program.h"

#include "file_io.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <spawn.h>
#include <stdexcept>
#include <sys/prctl.h>
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

// Has it ended? It isn't taken off the process table, so that it keeps its number.
bool has_ended(pid_t pid)
{
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

// Ends this process by a signal.
[[noreturn]] void end_by(int signal)
{
    std::signal(signal, SIG_DFL);
    std::raise(signal); // takes effect when it is held no more
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, signal);
    sigprocmask(SIG_UNBLOCK, &own, nullptr);
    _exit(128 + signal);
}

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

// What became of the start of a program.
struct Started {
    int error = 0; // an errno value
    pid_t pid = -1;
};

Started spawn(const std::vector<std::string> &words, const sigset_t &mask)
{
    std::vector<char *> pointers;
    for (const std::string &word : words)
        pointers.push_back(const_cast<char *>(word.c_str()));
    pointers.push_back(nullptr);

    Started started;
    started.error = SpawnSetup(mask).spawn(&started.pid, pointers.data());
    return started;
}

// ---- The guard ----------------------------------------------------------------------------------

// A process between this one and the program. It ends as the program does; and it ends the program,
// with its group, when this process has gone in a way that lets it do nothing more, as by SIGKILL.
// It has a group of its own, for one that kills this process may kill its whole group.
[[noreturn]] void guard(pid_t player, const std::vector<std::string> &words, const sigset_t &mask,
                        int report)
{
    setpgid(0, 0);
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGHUP);
    prctl(PR_SET_DUMPABLE, 0); // the program's core is enough
    if (getppid() != player)
        _exit(EXIT_FAILURE);
    const Started started = spawn(words, mask);
    const bool told = write(report, &started, sizeof started) == sizeof started;
    close(report);
    if (started.error != 0)
        _exit(EXIT_FAILURE);

    siginfo_t ended = {};
    while (told && getppid() == player && !has_ended(started.pid))
        sigwaitinfo(&all, &ended);
    if (!has_ended(started.pid)) {
        kill(-started.pid, SIGKILL);
        _exit(EXIT_FAILURE);
    }
    int status = 0;
    waitpid(started.pid, &status, 0);
    if (WIFSIGNALED(status))
        end_by(WTERMSIG(status));
    _exit(WEXITSTATUS(status));
}

// ---- This process -------------------------------------------------------------------------------

struct Guarded {
    pid_t guard = -1;
    pid_t program = -1;
};

Guarded start(const std::vector<std::string> &words, const sigset_t &mask)
{
    const auto check = [&words](int error) {
        if (error != 0)
            throw std::runtime_error(words.front() + ": " + std::strerror(error));
    };
    int ends[2] = {-1, -1};
    check(pipe2(ends, O_CLOEXEC) == 0 ? 0 : errno);
    const sim_reader::Descriptor in(ends[0]);
    const pid_t player = getpid();
    const pid_t pid = fork();
    const int fork_error = pid == -1 ? errno : 0;
    if (pid == 0)
        guard(player, words, mask, ends[1]);
    close(ends[1]);
    check(fork_error);

    Started started;
    if (read(in.get(), &started, sizeof started) != sizeof started)
        started.error = ECHILD; // somebody has killed the guard
    if (started.error != 0)
        waitpid(pid, nullptr, 0);
    check(started.error);
    return {pid, started.pid};
}

// Ends this process by a signal that it got, and the program's group before it. Another signal in
// the meantime ends the patience.
[[noreturn]] void end_with(const Guarded &guarded, int signal, const HeldSignals &signals)
{
    kill(-guarded.program, signal);
    kill(-guarded.program, SIGCONT); // it may be stopped
    while (!has_ended(guarded.guard) && signals.next(GRACE) == SIGCHLD) {
    }
    kill(-guarded.program, SIGKILL);
    waitpid(guarded.guard, nullptr, 0);
    end_by(signal);
}

} // namespace

int run(const std::vector<std::string> &words)
{
    const HeldSignals signals;
    const Guarded guarded = start(words, signals.before());
    while (!has_ended(guarded.guard)) {
        const int signal = signals.next();
        if (signal != SIGCHLD)
            end_with(guarded, signal, signals);
    }
    int status = 0;
    waitpid(guarded.guard, &status, 0);
    return status;
}

std::string describe(int status)
{
    if (WIFSIGNALED(status))
        return "ended by signal " + std::to_string(WTERMSIG(status));
    return "exit status " + std::to_string(WEXITSTATUS(status));
}

} // namespace program
