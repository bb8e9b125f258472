// The demo that people start to see the page: all of it comes up by one command, and Ctrl-C takes
// all of it down again.
#include "live_page.h"

#include "support/files.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <regex>

namespace
{

using namespace support;
namespace fs = std::filesystem;

class LiveDemo : public testing::Test
{
protected:
    void SetUp() override
    {
        adopt_orphans();
        setenv("QM5OSD_BUILD", QM5OSD_BUILT, 1);
        setenv("QM5OSD_PORT", "0", 1);
    }

    void TearDown() override
    {
        unsetenv("QM5OSD_BUILD");
        unsetenv("QM5OSD_PORT");
        fs::remove_all(fs::path(QM5OSD_BUILT) / "demo");
    }
};

TEST_F(LiveDemo, shows_the_page_until_it_is_interrupted)
{
    Process demo({"/bin/bash", QM5OSD_DEMO, "--live"});
    const std::regex url("The live page: http://127\\.0\\.0\\.1:([0-9]+)/\n");
    std::smatch found;
    std::string text;
    ASSERT_TRUE(wait_until([&] {
        text = printed_by(demo);
        return std::regex_search(text, found, url);
    })) << text;
    // The command that the demo prints has any shell work on its codec.
    ASSERT_TRUE(wait_until([&] { return printed_by(demo).find("Ctrl-C") != std::string::npos; }));
    const std::string all = printed_by(demo); // `found` is still in the other one
    const std::regex commands("For commands of your own: (export [^\n]*)\n");
    std::smatch export_line;
    ASSERT_TRUE(std::regex_search(all, export_line, commands)) << all;
    const std::string line = export_line[1];
    const Ended shell =
        run({"/bin/sh", "-c", "cd / && " + line + " && qm5sim setting && qm5osd status"});
    EXPECT_NE(shell.out.find("record 1"), std::string::npos) << shell.out << shell.err;
    EXPECT_NE(shell.out.find("OSD server is running"), std::string::npos) << shell.out;

    const auto port = static_cast<unsigned>(std::stoul(found[1]));
    const auto get = [port](const std::string &path) {
        HttpConnection connection(port);
        connection.send(request_text("GET", path, {{"Host", "127.0.0.1:" + std::to_string(port)}}));
        return connection.receive();
    };
    EXPECT_EQ(get("/").status, 200);
    EXPECT_TRUE(wait_until([&] {
        const Json state = Json::parse(get("/api/state").body);
        std::size_t shown = 0;
        for (const Json &post : state["posts"])
            shown += post["osds"].size();
        return shown == 16 && state["application"]["running"] == true;
    })) << "not all texts are on the outputs";

    kill(demo.pid(), SIGINT);
    const Ended ended = demo.wait();
    EXPECT_EQ(ended.status, 128 + SIGINT) << ended.err;
    EXPECT_THROW(get("/"), std::runtime_error) << "the page is still served";
    EXPECT_EQ(processes_of(fs::path(QM5OSD_BUILT) / "stage/osd/bin/qm5osd"), std::vector<pid_t>{});
    EXPECT_EQ(processes_of(QM5SIM_PROGRAM), std::vector<pid_t>{});
    EXPECT_EQ(temporary_files(), std::vector<std::string>{});
}

} // namespace
