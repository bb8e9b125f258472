#include "child.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace live
{

namespace fs = std::filesystem;

// ---- Files without a name -----------------------------------------------------------------------

UnnamedFile::UnnamedFile(const std::string &text) : fd_(memfd_create("stream", MFD_CLOEXEC))
{
    if (fd_ == -1)
        throw std::runtime_error(std::string("a file: ") + std::strerror(errno));
    // Appended to, as several processes may write to it.
    const bool written =
        fcntl(fd_, F_SETFL, O_APPEND) == 0 &&
        write(fd_, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        lseek(fd_, 0, SEEK_SET) == 0;
    if (!written) {
        const int error = errno;
        close(fd_);
        throw std::runtime_error(std::string("a file: ") + std::strerror(error));
    }
}

UnnamedFile::~UnnamedFile()
{
    close(fd_);
}

std::string UnnamedFile::text() const
{
    std::string text(MAX_OUTPUT, '\0');
    std::size_t size = 0;
    while (size < text.size()) {
        const ssize_t length =
            pread(fd_, &text[size], text.size() - size, static_cast<off_t>(size));
        if (length <= 0)
            break;
        size += static_cast<std::size_t>(length);
    }
    text.resize(size);
    return text;
}

// ---- The program --------------------------------------------------------------------------------

namespace
{

// How a program begins: three files, the signals as any program expects them, a session of its own.
class Setup
{
public:
    // With nothing on its standard input for an `in` of -1.
    Setup(int in, int out, int err)
    {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&attributes_);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK |
                                                   POSIX_SPAWN_SETSIGDEF);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawn_file_actions_init(&files_);
        if (in != -1)
            posix_spawn_file_actions_adddup2(&files_, in, STDIN_FILENO);
        else
            posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&files_, out, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&files_, err, STDERR_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&files_, STDERR_FILENO + 1);
    }
    Setup(const Setup &) = delete;
    Setup &operator=(const Setup &) = delete;
    ~Setup()
    {
        posix_spawn_file_actions_destroy(&files_);
        posix_spawnattr_destroy(&attributes_);
    }

    pid_t spawn(const std::vector<std::string> &words) const
    {
        std::vector<char *> pointers;
        for (const std::string &word : words)
            pointers.push_back(const_cast<char *>(word.c_str()));
        pointers.push_back(nullptr);
        pid_t pid = -1;
        const int error =
            posix_spawnp(&pid, pointers[0], &files_, &attributes_, pointers.data(), environ);
        if (error != 0)
            throw std::system_error(error, std::generic_category(), words.front());
        return pid;
    }

private:
    posix_spawnattr_t attributes_{};
    posix_spawn_file_actions_t files_{};
};

constexpr int END_PACE = 5; // ms

enum class Wait { ENDED, TOO_LONG, STOPPED };

// Looks again and again, as a descriptor of the process can't be had everywhere and always.
Wait wait_for(pid_t pid, std::chrono::milliseconds patience, int stop, int *status)
{
    const auto end = std::chrono::steady_clock::now() + patience;
    pollfd wanted = {stop, POLLIN, 0};
    for (;;) {
        if (waitpid(pid, status, WNOHANG) == pid)
            return Wait::ENDED;
        if (poll(&wanted, 1, END_PACE) == 1)
            return Wait::STOPPED;
        if (std::chrono::steady_clock::now() >= end)
            return Wait::TOO_LONG;
    }
}

bool is_program(const fs::path &file)
{
    std::error_code none;
    return fs::is_regular_file(file, none) && access(file.c_str(), X_OK) == 0;
}

} // namespace

std::string find_program(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return fs::absolute(name).string();
    const char *path = getenv("PATH");
    std::istringstream folders(path ? std::string(path) + ':' : "");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const fs::path file = fs::absolute(fs::path(folder) / name);
        if (is_program(file))
            return file.string();
    }
    return name;
}

std::string failure_of(const Finished &finished)
{
    if (!finished.error.empty())
        return finished.error;
    if (finished.timeout)
        return "the command took too long, and was ended";
    if (finished.signal)
        return "the command was ended by signal " + std::to_string(*finished.signal) + " (" +
               strsignal(*finished.signal) + ')';
    return "the command ended with status " + std::to_string(finished.status.value_or(0)) +
           ", without a word";
}

std::optional<Finished> run_child(const std::vector<std::string> &words, const std::string &input,
                                  std::chrono::milliseconds patience, int stop)
{
    const UnnamedFile in(input);
    const UnnamedFile out;
    const UnnamedFile err;
    const pid_t pid = Setup(input.empty() ? -1 : in.get(), out.get(), err.get()).spawn(words);

    Finished finished;
    int status = 0;
    const Wait wait = wait_for(pid, patience, stop, &status);
    if (wait == Wait::STOPPED)
        return std::nullopt;
    if (wait == Wait::TOO_LONG) {
        finished.timeout = true;
        kill(-pid, SIGKILL); // its session's, and so all that it has started
        waitpid(pid, &status, 0);
    }
    if (WIFSIGNALED(status))
        finished.signal = WTERMSIG(status);
    else
        finished.status = WEXITSTATUS(status);
    finished.output = out.text();
    finished.error = err.text();
    return finished;
}

} // namespace live
