#include "live_page.h"

#include "support/files.h"

#include <csignal>
#include <filesystem>
#include <regex>
#include <sstream>
#include <sys/wait.h>

namespace support
{

namespace fs = std::filesystem;

void LivePageTest::SetUp()
{
    ApplicationTest::SetUp();
    program_ = executable_;
    fs::create_directory("/tmp/work");
    fs::current_path("/tmp/work");
}

void LivePageTest::TearDown()
{
    if (server_) {
        EXPECT_EQ(end_server(SIGTERM), 0);
    }
    fs::current_path("/");
    fs::remove_all("/tmp/work");
    ApplicationTest::TearDown();
}

// ---- The server ---------------------------------------------------------------------------------

void LivePageTest::serve(const Words &words)
{
    Words all = {QM5SIM_PROGRAM, "serve", "--port", "0", "--qm5osd", program_};
    all.insert(all.end(), words.begin(), words.end());
    server_ = std::make_unique<Process>(all);
    const std::regex url("http://[^/]*:([0-9]+)/\nexport QM5SIM_STATE=" + state_ + "\n");
    std::smatch found;
    std::string text;
    const bool listens = wait_until([&] {
        text = printed_by(*server_);
        return std::regex_match(text, found, url);
    });
    ASSERT_TRUE(listens) << "the server doesn't listen";
    port_ = static_cast<unsigned>(std::stoul(found[1]));
    const std::regex meta("<meta name=\"qm5sim-token\" content=\"([0-9a-f]{32})\">");
    const std::string page = get("/").body;
    if (std::regex_search(page, found, meta))
        token_ = found[1];
}

int LivePageTest::end_server(int signal)
{
    kill(server_->pid(), signal);
    const Ended ended = server_->wait();
    server_.reset();
    EXPECT_EQ(ended.err, "");
    return ended.status;
}

// ---- Requests -----------------------------------------------------------------------------------

std::string LivePageTest::host() const
{
    return "127.0.0.1:" + std::to_string(port_);
}

HeaderList LivePageTest::own_headers() const
{
    return {{"Host", host()},
            {"Origin", "http://" + host()},
            {"Sec-Fetch-Site", "same-origin"},
            {"X-Qm5sim-Token", token_}};
}

Answer LivePageTest::ask(const std::string &method, const std::string &path,
                         const HeaderList &headers, const std::string &body) const
{
    HttpConnection connection(port_);
    connection.send(request_text(method, path, headers, body));
    return connection.receive(method != "HEAD");
}

Answer LivePageTest::get(const std::string &path) const
{
    return ask("GET", path, {{"Host", host()}});
}

Answer LivePageTest::change(const std::string &method, const std::string &path,
                            const std::string &body) const
{
    return ask(method, path, own_headers(), body);
}

Json LivePageTest::get_json(const std::string &path) const
{
    const Answer answer = get(path);
    EXPECT_EQ(answer.status, 200) << path << ' ' << answer.body;
    EXPECT_EQ(answer.headers.at("content-type"), "application/json");
    return Json::parse(answer.body);
}

Json LivePageTest::change_json(const std::string &method, const std::string &path,
                               const Json &body) const
{
    const Answer answer = change(method, path, body.is_null() ? "" : body.dump());
    EXPECT_EQ(answer.status, 200) << path << ' ' << answer.body;
    return Json::parse(answer.body);
}

EventReader LivePageTest::events(const std::string &last_id, const std::string &query) const
{
    HeaderList headers = {{"Host", host()}};
    if (!last_id.empty())
        headers.push_back({"Last-Event-ID", last_id});
    HttpConnection connection(port_);
    connection.send(request_text("GET", "/api/events" + query, headers));
    const Answer answer = connection.receive(false);
    EXPECT_EQ(answer.status, 200);
    EXPECT_EQ(answer.headers.at("content-type"), "text/event-stream");
    return EventReader(std::move(connection));
}

testing::AssertionResult
LivePageTest::state_is(const std::function<bool(const Json &)> &condition) const
{
    Json state;
    const bool met = wait_until([&] {
        state = get_json("/api/state");
        return condition(state);
    });
    return met ? testing::AssertionSuccess()
               : testing::AssertionFailure() << "it never came to that: " << state.dump();
}

std::string printed_by(const Process &program)
{
    const fs::path output = "/proc/" + std::to_string(program.pid()) + "/fd/1";
    std::error_code gone;
    if (fs::read_symlink(output, gone).string().rfind("/memfd:out", 0) != 0)
        return ""; // it still has the test's own
    return read_file(output);
}

testing::AssertionResult is_error(const Answer &answer, int status, const std::string &why)
{
    const Json expected = {{"error", why}};
    if (answer.status == status && Json::parse(answer.body, nullptr, false) == expected)
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << answer.status << ' ' << answer.body << " instead of " << status << ' ' << expected;
}

// ---- Programs -----------------------------------------------------------------------------------

Ended LivePageTest::sim(const Words &words)
{
    Words all = {QM5SIM_PROGRAM};
    all.insert(all.end(), words.begin(), words.end());
    return run(all);
}

Json LivePageTest::printed_calls()
{
    std::istringstream lines(sim({"calls"}).out);
    Json calls = Json::array();
    for (std::string line; std::getline(lines, line);)
        calls.push_back(Json::parse(line));
    return calls;
}

std::string LivePageTest::shown_command(const std::string &program, const std::string &words) const
{
    return "QM5SIM_STATE=" + state_ + ' ' + program + ' ' + words;
}

void LivePageTest::start_application(const HeaderList &parameters) const
{
    const Json done = change_json("POST", "/api/application",
                                  {{"function", "start"}, {"parameters", parameters}});
    ASSERT_EQ(done["status"], 0) << done;
}

void LivePageTest::stop_application() const
{
    const std::vector<pid_t> servers = processes_of(executable_);
    ASSERT_EQ(servers.size(), 1u);
    const Json done = change_json("POST", "/api/application", {{"function", "stop"}});
    EXPECT_EQ(done["status"], 0) << done;
    // Left behind by a client, it is this process's child by now.
    int status = 0;
    EXPECT_TRUE(wait_until([&] { return waitpid(servers[0], &status, WNOHANG) == servers[0]; }));
}

} // namespace support
