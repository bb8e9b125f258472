// The demo that people start to see the page: all of it comes up by one command, and Ctrl-C takes
// all of it down again.
#include "live_page.h"

#include "support/files.h"
#include "time_zone_block.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <sys/file.h>
#include <unistd.h>

namespace
{

using namespace support;
namespace fs = std::filesystem;

class LiveDemo : public testing::Test
{
protected:
    void SetUp() override
    {
        // The demo writes to a folder of the build, which has room for one.
        turn_ = open(QM5OSD_BUILT, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(flock(turn_, LOCK_EX), 0);
        adopt_orphans();
        setenv("QM5OSD_BUILD", QM5OSD_BUILT, 1);
        setenv("QM5OSD_PORT", "0", 1);
    }

    void TearDown() override
    {
        unsetenv("QM5OSD_BUILD");
        unsetenv("QM5OSD_PORT");
        fs::remove_all(fs::path(QM5OSD_BUILT) / "demo");
        close(turn_);
    }

private:
    int turn_ = -1;
};

// Starts the demo and waits for all that it prints.
class Demo
{
public:
    Demo() : process_({"/usr/bin/setsid", "/bin/bash", QM5OSD_DEMO, "--live"})
    {
        EXPECT_TRUE(wait_until([&] {
            printed_ = printed_by(process_);
            return printed_.find("Ctrl-C") != std::string::npos;
        })) << printed_;
    }

    // What the expression's group finds in what is printed.
    std::string find(const std::string &expression) const
    {
        std::smatch found;
        if (!std::regex_search(printed_, found, std::regex(expression)))
            throw std::runtime_error("not printed: " + expression + " in " + printed_);
        return found[1];
    }

    Answer ask(const std::string &method, const std::string &path, HeaderList headers = {},
               const std::string &body = "") const
    {
        const std::string port = find("The live page: http://127\\.0\\.0\\.1:([0-9]+)/\n");
        headers.push_back({"Host", "127.0.0.1:" + port});
        HttpConnection connection(static_cast<unsigned>(std::stoul(port)));
        connection.send(request_text(method, path, headers, body));
        return connection.receive();
    }

    // Sets a time zone as the page does.
    void set_zone(const std::string &zone) const
    {
        const std::string page = ask("GET", "/").body;
        std::smatch token;
        ASSERT_TRUE(std::regex_search(page, token, std::regex("content=\"([0-9a-f]{32})\"")));
        const Json body = {{"zone", zone}};
        EXPECT_EQ(ask("PUT", "/api/clock", {{"X-Qm5sim-Token", token[1]}}, body.dump()).status,
                  200);
    }

    // Runs a line in a shell with what the demo prints for commands of one's own.
    Ended run_in_shell(const std::string &line) const
    {
        return run(
            {"/bin/sh", "-c",
             "cd / && " + find("For commands of your own: (export [^\n]*)\n") + " && " + line});
    }

    // As Ctrl-C at its terminal does.
    void interrupt() const
    {
        kill(-process_.pid(), SIGINT);
    }

    Ended wait()
    {
        return process_.wait();
    }

private:
    Process process_;
    std::string printed_;
};

void expect_no_zone()
{
    EXPECT_THROW(time_zone_block::read(), std::runtime_error);
}

// The demo has ended by SIGINT, and has left nothing but its log.
void expect_gone(Demo &demo)
{
    const Ended ended = demo.wait();
    EXPECT_EQ(ended.status, 128 + SIGINT) << ended.err;
    EXPECT_EQ(ended.err, "");
    EXPECT_EQ(processes_of(fs::path(QM5OSD_BUILT) / "stage/osd/bin/qm5osd"), std::vector<pid_t>{});
    EXPECT_EQ(processes_of(QM5SIM_PROGRAM), std::vector<pid_t>{});
    EXPECT_EQ(temporary_files(), std::vector<std::string>{});
    EXPECT_FALSE(fs::exists(fs::path(QM5OSD_BUILT) / "demo/codec"));
}

TEST_F(LiveDemo, shows_the_page_until_it_is_interrupted)
{
    expect_no_zone();
    Demo demo;
    const Ended shell = demo.run_in_shell("qm5sim setting && qm5osd status");
    EXPECT_NE(shell.out.find("record 1"), std::string::npos) << shell.out << shell.err;
    EXPECT_NE(shell.out.find("OSD server is running"), std::string::npos) << shell.out;

    EXPECT_EQ(demo.ask("GET", "/").status, 200);
    EXPECT_TRUE(wait_until([&] {
        const Json state = Json::parse(demo.ask("GET", "/api/state").body);
        std::size_t shown = 0;
        for (const Json &post : state["posts"])
            shown += post["osds"].size();
        return shown == 16 && state["application"]["running"] == true;
    })) << "not all texts are on the outputs";
    demo.set_zone("EAST-9");
    EXPECT_EQ(time_zone_block::read().text, "EAST-9");

    demo.interrupt();
    expect_gone(demo);
    EXPECT_THROW(demo.ask("GET", "/"), std::runtime_error) << "the page is still served";
    expect_no_zone();
}

TEST_F(LiveDemo, keeps_the_time_zone_that_the_machine_had_before)
{
    time_zone_block::write("CET-1");
    Demo demo;
    demo.interrupt();
    expect_gone(demo);
    EXPECT_EQ(time_zone_block::read().text, "CET-1");
    time_zone_block::remove();
}

// People press Ctrl-C again when the first one seems to do nothing.
TEST_F(LiveDemo, takes_everything_down_also_if_it_is_interrupted_again)
{
    Demo demo;
    demo.set_zone("EAST-9");
    constexpr std::chrono::seconds delay{5};
    EXPECT_EQ(demo.run_in_shell("qm5sim fault add close_device next delay 5000").status, 0);
    const auto begin = std::chrono::steady_clock::now();
    demo.interrupt();
    EXPECT_TRUE(wait_until([&] {
        try {
            demo.ask("GET", "/");
            return false;
        } catch (const std::runtime_error &) {
            return true; // so that the clean-up is under way, and waits for the application
        }
    }));
    demo.interrupt();
    expect_gone(demo);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, delay) << "the server hasn't been stopped";
    expect_no_zone();
}

} // namespace
