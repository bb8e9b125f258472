#include "support/kill_at.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <stdexcept>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support
{

namespace
{

constexpr int SYSTEM_CALL_STOP = SIGTRAP | 0x80;

typedef __ptrace_syscall_info Info;

bool is_change(const Info &info)
{
    static const std::set<long> changes = {
        SYS_write,     SYS_pwrite64,  SYS_ftruncate, SYS_fallocate, SYS_munmap,
        SYS_flock,     SYS_fchmod,    SYS_mkdirat,   SYS_linkat,    SYS_unlinkat,
        SYS_renameat2, SYS_symlinkat, SYS_fchmodat,
#ifdef SYS_rename // newer machines have only those above
        SYS_rename,    SYS_renameat,  SYS_link,      SYS_unlink,    SYS_mkdir,
#endif
    };
    const auto number = static_cast<long>(info.entry.nr);
    if (number == SYS_openat)
        return (info.entry.args[2] & (O_WRONLY | O_RDWR | O_CREAT | O_DIRECTORY)) != 0;
    return changes.count(number) != 0;
}

// A child process under observation; it is gone with the object.
class Observed
{
public:
    explicit Observed(const std::function<void()> &work) : pid_(fork())
    {
        if (pid_ == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            std::raise(SIGSTOP); // until the options below are in force
            work();
            _exit(0);
        }
        wait();
        if (ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) !=
            0)
            throw std::runtime_error(std::string("ptrace: ") + std::strerror(errno));
    }
    Observed(const Observed &) = delete;
    Observed &operator=(const Observed &) = delete;
    ~Observed()
    {
        kill(pid_, SIGKILL);
        while (!ended_)
            wait();
    }

    // Lets it go on until its next system call begins or ends; false at its end.
    bool step()
    {
        int signal = 0;
        do {
            ptrace(PTRACE_SYSCALL, pid_, nullptr, signal);
            wait();
            signal = WSTOPSIG(status_) == SIGTRAP ? 0 : WSTOPSIG(status_); // which exec sends
        } while (!ended_ && signal != SYSTEM_CALL_STOP);
        return !ended_;
    }

    // Is it before or after one that changes something?
    bool is_at_change()
    {
        Info info{};
        ptrace(PTRACE_GET_SYSCALL_INFO, pid_, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY)
            at_change_ = is_change(info);
        return at_change_;
    }

    bool has_exited() const
    {
        return WIFEXITED(status_) && WEXITSTATUS(status_) == 0;
    }

private:
    void wait()
    {
        while (waitpid(pid_, &status_, 0) == -1 && errno == EINTR)
            continue;
        ended_ = !WIFSTOPPED(status_);
    }

    pid_t pid_;
    int status_ = 0;
    bool ended_ = false;
    bool at_change_ = false;
};

} // namespace

bool kill_at(unsigned moment, const std::function<void()> &work)
{
    Observed child(work);
    while (child.step()) {
        if (child.is_at_change() && --moment == 0)
            return true;
    }
    if (!child.has_exited())
        throw std::runtime_error("the work has failed");
    return false;
}

} // namespace support
