#include "support/osd_test.h"

#include "support/codec_fake.h"
#include "support/wraps.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <getopt.h>
#include <sys/mman.h>
#include <unistd.h>

namespace support
{

namespace fs = std::filesystem;

namespace
{

// The open descriptors, each with what it leads to. The one that lists them is gone by now.
std::vector<std::string> open_descriptors()
{
    std::vector<std::string> found;
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const fs::path target = fs::read_symlink(entry.path(), gone);
        if (target.string().find("/fd") == std::string::npos)
            found.push_back(entry.path().filename().string() + " -> " + target.string());
    }
    std::sort(found.begin(), found.end());
    return found;
}

void reset_process()
{
    wraps::reset();
    codec::reset();
    take_trace();
    for (osd_post &post : osd_state.post) {
        if (post.font_engine.library)
            font_clear_engine(&post.font_engine);
    }
    std::memset(static_cast<void *>(&osd_state), 0, sizeof osd_state);
    cmn_role = "";
    optind = 0; // getopt begins anew
    unsetenv("TZ");
}

std::string read_all(int fd)
{
    std::string text;
    char part[4096];
    ssize_t length = 0;
    lseek(fd, 0, SEEK_SET);
    while ((length = read(fd, part, sizeof part)) > 0)
        text.append(part, static_cast<std::size_t>(length));
    return text;
}

// Puts a memory file in the place of a standard stream for as long as it lives.
class Redirection
{
public:
    explicit Redirection(int fd) : fd_(fd), saved_(dup(fd)), file_(memfd_create("capture", 0))
    {
        dup2(file_, fd_);
    }
    Redirection(const Redirection &) = delete;
    Redirection &operator=(const Redirection &) = delete;
    std::string end()
    {
        dup2(saved_, fd_);
        close(saved_);
        std::string text = read_all(file_);
        close(file_);
        return text;
    }

private:
    int fd_;
    int saved_;
    int file_;
};

} // namespace

void OsdTest::SetUp()
{
    reset_process();
    descriptors_ = open_descriptors();
}

void OsdTest::TearDown()
{
    reset_process();
    EXPECT_EQ(open_descriptors(), descriptors_) << "a descriptor is left open or closed";
    EXPECT_EQ(temporary_files(), Lines{}) << "a temporary file is left behind";
    for (const std::string &name : temporary_files())
        fs::remove_all("/tmp/" + name);
}

Output capture(const std::function<void()> &action)
{
    std::fflush(nullptr);
    Redirection out(STDOUT_FILENO);
    Redirection err(STDERR_FILENO);
    action();
    std::fflush(nullptr);
    Output output;
    output.out = out.end();
    output.err = err.end();
    return output;
}

std::string errors_of(const std::function<void()> &action)
{
    const Output output = capture(action);
    EXPECT_EQ(output.out, "");
    return output.err;
}

std::string output_of(const std::function<void()> &action)
{
    const Output output = capture(action);
    EXPECT_EQ(output.err, "");
    return output.out;
}

CommandLine::CommandLine(std::initializer_list<std::string> words) : words_(words)
{
    for (std::string &word : words_)
        pointers_.push_back(word.data());
    pointers_.push_back(nullptr);
}

int CommandLine::argc() const
{
    return static_cast<int>(words_.size());
}

char **CommandLine::argv()
{
    return pointers_.data();
}

std::string real_font()
{
    return QM5OSD_FONT;
}

} // namespace support
