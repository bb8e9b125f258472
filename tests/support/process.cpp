#include "support/process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace support
{

namespace fs = std::filesystem;

namespace
{

constexpr std::chrono::milliseconds PACE{5};

std::string read_all(int fd)
{
    std::string text;
    char part[4096];
    ssize_t length = 0;
    off_t at = 0;
    while ((length = pread(fd, part, sizeof part, at)) > 0) {
        text.append(part, static_cast<std::size_t>(length));
        at += length;
    }
    return text;
}

// The parent of a process, 0 if it has gone.
pid_t parent_of(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    while (status >> word) {
        pid_t parent = 0;
        if (word == "PPid:" && status >> parent)
            return parent;
    }
    return 0;
}

bool is_descendant(pid_t pid)
{
    while (pid > 1) {
        pid = parent_of(pid);
        if (pid == getpid())
            return true;
    }
    return false;
}

// Becomes the program; only what is safe between fork and exec.
[[noreturn]] void become(char *const *words, int out, int err)
{
    const int in = open("/dev/null", O_RDONLY);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    close(in);
    close(out);
    close(err);
    execv(words[0], words);
    _exit(127);
}

} // namespace

bool wait_until(const std::function<bool()> &condition, std::chrono::seconds patience)
{
    const auto end = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(PACE);
    }
    return true;
}

Process::Process(const Words &words)
    : out_(memfd_create("out", MFD_CLOEXEC)), err_(memfd_create("err", MFD_CLOEXEC))
{
    std::vector<char *> pointers;
    for (const std::string &word : words)
        pointers.push_back(const_cast<char *>(word.c_str()));
    pointers.push_back(nullptr);
    // Files that are appended to, as several processes may write to them.
    fcntl(out_, F_SETFL, O_APPEND);
    fcntl(err_, F_SETFL, O_APPEND);

    pid_ = fork();
    if (pid_ == 0)
        become(pointers.data(), out_, err_);
}

Process::Process(Process &&other) noexcept
    : pid_(std::exchange(other.pid_, -1)), out_(std::exchange(other.out_, -1)),
      err_(std::exchange(other.err_, -1))
{
}

Process::~Process()
{
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (out_ != -1)
        close(out_);
    if (err_ != -1)
        close(err_);
}

pid_t Process::pid() const
{
    return pid_;
}

Ended Process::wait(std::chrono::seconds patience)
{
    int status = 0;
    const pid_t own = pid_;
    const bool ended =
        wait_until([own, &status] { return waitpid(own, &status, WNOHANG) == own; }, patience);
    if (!ended) {
        kill(own, SIGKILL);
        waitpid(own, &status, 0);
    }
    pid_ = -1;

    Ended result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = read_all(out_);
    result.err = read_all(err_);
    return result;
}

Ended run(const Words &words, std::chrono::seconds patience)
{
    return Process(words).wait(patience);
}

void adopt_orphans()
{
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

// The executable that a process runs: what an emulator runs for another machine's, not the
// emulator.
static fs::path executable_of(const fs::path &process)
{
    std::error_code gone;
    const fs::path executable = fs::read_symlink(process / "exe", gone);
    if (!executable.filename().string().starts_with("qemu-"))
        return executable;
    std::ifstream words(process / "cmdline");
    std::string word;
    std::getline(words, word, '\0');
    std::getline(words, word, '\0');
    return word;
}

std::vector<pid_t> processes_of(const std::string &path)
{
    std::vector<pid_t> found;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (!std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; }))
            continue;
        const auto pid = static_cast<pid_t>(std::stol(name));
        if (executable_of(entry.path()) == path && is_descendant(pid))
            found.push_back(pid);
    }
    return found;
}

} // namespace support
