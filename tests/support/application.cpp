#include "support/application.h"

#include "support/files.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/wait.h>

namespace support
{

namespace fs = std::filesystem;

namespace
{

constexpr const char *LOG = "/tmp/server.log";

} // namespace

void ApplicationTest::SetUp()
{
    adopt_orphans();
    executable_ = std::string(QM5OSD_STAGE) + "/osd/bin/qm5osd";
    setenv("QM5SIM_STATE", state_.c_str(), 1);
    unsetenv("TZ");
}

void ApplicationTest::end_application() const
{
    // A server that has ended its work may still be on its way out.
    EXPECT_TRUE(wait_until([this] { return processes_of(executable_).empty(); }))
        << "a process is left running; " << log();
    const std::vector<pid_t> left = processes_of(executable_);
    for (const pid_t pid : left) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    EXPECT_FALSE(fs::exists(state_ + "/breaches")) << read_file(state_ + "/breaches");
}

void ApplicationTest::TearDown()
{
    end_application();
    fs::remove_all(state_);
    fs::remove(LOG);
    std::string files;
    for (const auto &entry : fs::directory_iterator("/tmp")) {
        files += entry.path().string() + ' ';
        fs::remove_all(entry.path());
    }
    EXPECT_EQ(files, "") << "a temporary file is left behind";
}

Ended ApplicationTest::tool(const Words &words) const
{
    Words all = {executable_};
    all.insert(all.end(), words.begin(), words.end());
    return run(all);
}

void ApplicationTest::start(const Words &words)
{
    Words all = {"start", "-l", LOG};
    all.insert(all.end(), words.begin(), words.end());
    const Ended ended = tool(all);
    ASSERT_EQ(ended.status, 0) << log();
}

std::string ApplicationTest::log() const
{
    std::ifstream file(LOG);
    return {std::istreambuf_iterator<char>(file), {}};
}

void ApplicationTest::stop()
{
    const std::vector<pid_t> servers = processes_of(executable_);
    ASSERT_EQ(servers.size(), 1u);
    EXPECT_EQ(tool({"stop"}).status, 0);
    int status = 0;
    ASSERT_TRUE(wait_until([&] { return waitpid(servers[0], &status, WNOHANG) == servers[0]; }));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << log();
}

sim_reader::Post ApplicationTest::post(unsigned number) const
{
    return sim_reader::read_post(state_, number);
}

testing::AssertionResult
ApplicationTest::shows(unsigned number,
                       const std::function<bool(const sim_reader::Post &)> &condition) const
{
    const bool met = wait_until([&] {
        try {
            return condition(post(number));
        } catch (const std::runtime_error &) { // no state yet
            return false;
        }
    });
    return met ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "post " << number << " never came to it; " << log();
}

void ApplicationTest::set_post(unsigned number, unsigned width, unsigned height) const
{
    sim_reader::write_size(state_, number, width, height);
}

unsigned count_shown(const sim_reader::Post &post)
{
    return static_cast<unsigned>(
        std::count_if(post.osd.begin(), post.osd.end(),
                      [](const sim_reader::Osd &osd) { return osd.record.shown != 0; }));
}

} // namespace support
