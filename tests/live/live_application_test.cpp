// The application as the live page runs it.
#include "live_page.h"

#include "cli/catalogue.h"
#include "server/channel.h"
#include "support/files.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <regex>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace
{

using namespace support;
namespace fs = std::filesystem;

class LiveApplication : public LivePageTest
{
protected:
    Json run(const Json &task) const
    {
        return change_json("POST", "/api/application", task);
    }

    Json compare(const std::string &file) const
    {
        return change_json("POST", "/api/parameters/compare", {{"file", file}});
    }

    // What is in force for a key.
    Json value(const std::string &key) const
    {
        const Json all = get_json("/api/parameters")["parameters"];
        for (const Json &parameter : all) {
            if (parameter["key"] == key)
                return parameter["value"];
        }
        return "no such key";
    }

    // A program in the place of the application.
    static std::string make_program(const std::string &text)
    {
        const std::string file = "/tmp/work/program";
        write_file(file, text);
        chmod(file.c_str(), 0700);
        return file;
    }
};

// ---- Start, status, update, stop ----------------------------------------------------------------

TEST_F(LiveApplication, starts_asks_updates_and_stops)
{
    serve();
    const auto status = [&] { return run({{"function", "status"}}); };
    Json done = status();
    EXPECT_EQ(done, (Json{{"command", shown_command(executable_, "status")},
                          {"status", 0},
                          {"signal", nullptr},
                          {"timeout", false},
                          {"output", std::string(NO_ZONE) + "#qm5osd:OSD server is not running\n"},
                          {"error", ""}}));
    done = run({{"function", "start"}, {"parameters", HeaderList{{"Post0TimeOn", "1"}}}});
    EXPECT_EQ(done, (Json{{"command", shown_command(executable_, "start -l /tmp/codec/server.log "
                                                                 "--Post0TimeOn=1")},
                          {"status", 0},
                          {"signal", nullptr},
                          {"timeout", false},
                          {"output", ""},
                          {"error", ""}}));
    EXPECT_EQ(get_json("/api/state")["log"], "server.log");
    done = status();
    EXPECT_EQ(done["status"], 1);
    EXPECT_EQ(done["output"], std::string(NO_ZONE) + "#qm5osd:OSD server is running\n");
    EXPECT_EQ(value("Post0TimeOn"), "1");

    done = run({{"function", "update"},
                {"parameters", HeaderList{{"Post0TimeOn", "0"}, {"Post0DateOn", "1"}}}});
    EXPECT_EQ(done["command"],
              shown_command(executable_, "update --Post0TimeOn=0 --Post0DateOn=1"));
    EXPECT_EQ(done["status"], 0);
    EXPECT_EQ(value("Post0TimeOn"), "0");
    EXPECT_EQ(value("Post0DateOn"), "1");
    stop_application();
    EXPECT_EQ(value("Post0DateOn"), nullptr);
}

TEST_F(LiveApplication, gives_the_server_a_log_and_nothing_of_its_own)
{
    serve();
    start_application();
    const std::vector<pid_t> servers = processes_of(executable_);
    ASSERT_EQ(servers.size(), 1u);
    for (const auto &entry :
         fs::directory_iterator("/proc/" + std::to_string(servers[0]) + "/fd")) {
        const int fd = std::stoi(entry.path().filename());
        const std::string target = fs::read_symlink(entry.path());
        if (fd == 0)
            EXPECT_EQ(target, "/dev/null");
        else if (fd <= 2)
            EXPECT_EQ(target, "/tmp/codec/server.log");
        else
            EXPECT_TRUE(target == "/tmp/osd_fifo_req" || target.rfind("/tmp/codec/", 0) == 0 ||
                        target.rfind("anon_inode:", 0) == 0)
                << fd << ' ' << target;
    }
    EXPECT_NE(getsid(servers[0]), getsid(server_pid())) << "a ^C for the page would end it";
    stop_application();
}

TEST_F(LiveApplication, leaves_the_server_running_at_its_own_end)
{
    serve();
    start_application({{"Post0StringOn", "1"}, {"Post0String", "still here"}});
    EXPECT_EQ(end_server(SIGINT), 0);
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) { return count_shown(post) == 1; }));
    serve();
    EXPECT_EQ(value("Post0String"), "still here");
    stop_application();
}

TEST_F(LiveApplication, restarts)
{
    serve({"--log", "/tmp/work/own.log"});
    start_application();
    const std::vector<pid_t> before = processes_of(executable_);
    const Json done =
        run({{"function", "restart"}, {"parameters", HeaderList{{"Post3TypeOn", "1"}}}});
    EXPECT_EQ(done["command"],
              shown_command(executable_, "restart -l /tmp/work/own.log --Post3TypeOn=1"));
    EXPECT_EQ(done["status"], 0);
    ASSERT_TRUE(wait_until([&] { return waitpid(before.at(0), nullptr, WNOHANG) != 0; }));
    EXPECT_NE(processes_of(executable_), before);
    EXPECT_EQ(value("Post3TypeOn"), "1");
    EXPECT_EQ(get_json("/api/state")["log"], "own.log");
    stop_application();
}

TEST_F(LiveApplication, restarts_with_all_that_is_in_force_but_for_changes)
{
    // A machine of its own, whose common parameter file has a text.
    fs::copy(QM5OSD_STAGE, "/tmp/work/stage", fs::copy_options::recursive);
    const std::string common = "/tmp/work/stage/conf/qm5_app_comm.conf";
    write_file(common, read_file(common) + "Post3String=of the machine\n");
    executable_ = program_ = "/tmp/work/stage/osd/bin/qm5osd";
    serve();
    start_application(
        {{"Post0String", "caf\xC3\xA9"}, {"Post1String", "one"}, {"Post0DateOn", "1"}});
    ASSERT_EQ(tool({"update", "--Post2String=caf\xE9", "--Post3String="}).status, 0);
    const std::vector<pid_t> before = processes_of(executable_);
    const Json task = {{"function", "restart"},
                       {"keep", true},
                       {"parameters", HeaderList{{"Post1String", ""}, {"OsdTypeFgColor", "7"}}}};
    Json preview = task;
    preview["preview"] = true;
    const std::string command = run(preview)["command"];
    EXPECT_EQ(processes_of(executable_), before) << "a preview has run";

    const Json done = run(task);
    EXPECT_EQ(done["status"], 0) << done;
    EXPECT_EQ(done["command"], command);
    ASSERT_TRUE(wait_until([&] { return waitpid(before.at(0), nullptr, WNOHANG) != 0; }));
    EXPECT_EQ(value("Post0String"), "caf\xC3\xA9");
    EXPECT_EQ(value("Post1String"), "");
    EXPECT_EQ(value("Post3String"), "") << "emptied before";
    EXPECT_EQ(value("Post0DateOn"), "1");
    EXPECT_EQ(value("OsdTypeFgColor"), "7");
    EXPECT_NE(read_file("/tmp/osd_tmp_param.txt").find("Post2String=caf\xE9\n"), std::string::npos);
    stop_application();
    EXPECT_TRUE(
        is_error(change("POST", "/api/application", task.dump()), 409, "keep: no server runs"));
}

TEST_F(LiveApplication, puts_into_a_file_what_has_no_option)
{
    serve();
    start_application();
    Json task = {{"function", "update"},
                 {"preview", true},
                 {"parameters", HeaderList{{"Post0DateOn", "1"}, {"OsdTypeFgColor", "7"}}}};
    const Json planned = run(task);
    EXPECT_EQ(planned["file"], "[osd]\nOsdTypeFgColor=7\n");
    EXPECT_EQ(value("OsdTypeFgColor"), "3") << "a preview has changed something";
    task.erase("preview");
    EXPECT_EQ(run(task)["command"], planned["command"]);
    EXPECT_EQ(value("OsdTypeFgColor"), "7");
    EXPECT_EQ(value("Post0DateOn"), "1");
    stop_application();
}

TEST_F(LiveApplication, hands_a_parameter_file_over)
{
    serve();
    const std::string file = "[osd]\n; a file\nPost2StringOn=1\nPost2String=from a file\n";
    const Json done = run({{"function", "start"},
                           {"file", file},
                           {"parameters", HeaderList{{"Post2StringColor", "7"}}}});
    const std::string command = done["command"];
    const std::regex expected(shown_command(executable_, "start -l /tmp/codec/server\\.log "
                                                         "-f (/tmp/codec/page-[0-9a-f]{16}\\.conf) "
                                                         "--Post2StringColor=7"));
    std::smatch found;
    ASSERT_TRUE(std::regex_match(command, found, expected)) << command;
    EXPECT_EQ(done["status"], 0);
    EXPECT_EQ(value("Post2String"), "from a file");
    EXPECT_EQ(value("Post2StringColor"), "7");
    // Another file doesn't take its place: the command goes on meaning the same.
    EXPECT_EQ(run({{"function", "update"}, {"file", "[osd]\nPost2String=another\n"}})["status"], 0);
    EXPECT_EQ(read_file(found[1]), file);
    stop_application();
}

TEST_F(LiveApplication, takes_files_of_any_bytes)
{
    serve();
    start_application();
    const std::string coded = "W29zZF0KUG9zdDJTdHJpbmc9Y2Fm6Qo="; // [osd] Post2String=caf\xE9
    const Json compared = change_json("POST", "/api/parameters/compare", {{"file_base64", coded}});
    EXPECT_EQ(compared["error"], nullptr);
    EXPECT_EQ(compared["differences"].size(), 1u) << compared;
    EXPECT_EQ(run({{"function", "update"}, {"file_base64", coded}})["status"], 0);
    EXPECT_NE(read_file("/tmp/osd_tmp_param.txt").find("Post2String=caf\xE9\n"), std::string::npos);
    EXPECT_NE(change("POST", "/api/parameters/file").body.find("Post2String=caf\xE9\n"),
              std::string::npos);
    const Json again = change_json("POST", "/api/parameters/compare", {{"file_base64", coded}});
    EXPECT_EQ(again["differences"], Json::array());

    // A long one, of comments.
    const std::string file = "[osd]\n" + std::string(200000, ';') + "\nPost0DateOn=1\n";
    EXPECT_EQ(run({{"function", "update"}, {"file", file}})["status"], 0);
    EXPECT_EQ(value("Post0DateOn"), "1");
    stop_application();
}

// ---- What is refused ----------------------------------------------------------------------------

TEST_F(LiveApplication, passes_the_words_of_a_refusal_on)
{
    serve();
    start_application();
    Json done = run({{"function", "update"}, {"parameters", HeaderList{{"Post0DateOn", "2"}}}});
    EXPECT_EQ(done["status"], 1);
    EXPECT_EQ(done["error"],
              report("update", "invalid value '2' of key Post0DateOn", "osd_check_param") +
                  report("update", "invalid osd parameter", "osd_check_section") +
                  report("update", "invalid parameter in osd section", "osd_get_start_option"));
    done = run({{"function", "update"}, {"file", "[osd]\nPost0DateOn=x\n"}});
    EXPECT_EQ(done["status"], 1);
    EXPECT_EQ(done["error"],
              report("update", "invalid value 'x' of key Post0DateOn", "osd_check_param") +
                  report("update", "invalid osd parameter", "osd_check_section") +
                  report("update", "invalid parameter in osd section", "osd_read_parameter_file") +
                  report("update", "failed to read osd parameter file", "osd_update") +
                  report("update", "update osd failed", "main"));
    done = run({{"function", "update"}, {"parameters", HeaderList{{"Help", "me"}}}});
    EXPECT_EQ(done["status"], 1);
    EXPECT_EQ(done["error"].get<std::string>().substr(0, 42),
              "update: unrecognized option '--Help=me'\nER");
    // With -l the words of the client stand in the log.
    done = run({{"function", "start"}});
    EXPECT_EQ(done["status"], 1);
    EXPECT_EQ(done["error"], NO_ZONE + report("start", "server is already running", "osd_start"));
    stop_application();
    done = run({{"function", "update"}, {"parameters", HeaderList{{"Post0DateOn", "1"}}}});
    EXPECT_EQ(done["error"], report("update", "server is not running", "osd_update") +
                                 report("update", "update osd failed", "main"));
}

TEST_F(LiveApplication, hands_every_value_over_as_it_is)
{
    serve();
    start_application();
    const HeaderList texts = {{"Gate 2", "'--Post0String=Gate 2'"},
                              {"it's", "'--Post1String=it'\\''s'"},
                              {"\"$(id)\" `id` $HOME", "'--Post2String=\"$(id)\" `id` $HOME'"},
                              {"a;b&c|d>e<f*?[!~#", "'--Post3String=a;b&c|d>e<f*?[!~#'"},
                              {"back\\slash\\", "'--Post0String=back\\slash\\'"},
                              {"", "--Post1String="},
                              {"-l", "--Post2String=-l"},
                              {"\xC3\xA9 = 1", "'--Post3String=\xC3\xA9 = 1'"}};
    for (std::size_t first = 0; first < texts.size(); first += SIM_POSTS) {
        HeaderList parameters;
        std::string command = shown_command(executable_, "update");
        for (std::size_t post = 0; post < SIM_POSTS; post++) {
            const auto &[text, shown] = texts[first + post];
            parameters.push_back({"Post" + std::to_string(post) + "String", text});
            command += ' ' + shown;
        }
        const Json done = run({{"function", "update"}, {"parameters", parameters}});
        EXPECT_EQ(done["command"], command);
        EXPECT_EQ(done["status"], 0) << done;
        for (const auto &[key, text] : parameters)
            EXPECT_EQ(value(key), text);
    }
    // To the command line a line feed is a byte as any other.
    const Json done = run({{"function", "update"},
                           {"parameters", HeaderList{{"Post1String", "more than\ntwenty bytes"}}}});
    EXPECT_EQ(done["command"],
              shown_command(executable_, "update '--Post1String=more than\ntwenty bytes'"));
    EXPECT_EQ(done["status"], 1);
    EXPECT_EQ(done["error"],
              report("update", "invalid value 'more than\ntwenty bytes' of key Post1String",
                     "osd_check_param") +
                  report("update", "invalid osd parameter", "osd_check_section") +
                  report("update", "invalid parameter in osd section", "osd_get_start_option"));
    stop_application();
}

TEST_F(LiveApplication, shows_a_command_that_a_shell_reads_back)
{
    program_ = make_program("#!/bin/sh\nprintf '<%s>' \"$@\"\n");
    serve();
    const std::string nasty = "a 'b' \"c\" $(d) `e`\n;f\\ *";
    const Json done = run(
        {{"function", "update"}, {"parameters", HeaderList{{"A", nasty}, {"B", ""}, {"A", "~"}}}});
    EXPECT_EQ(done["output"], "<update><--A=" + nasty + "><--B=><--A=~>");
    const Ended shell = support::run({"/bin/sh", "-c", done["command"]});
    EXPECT_EQ(shell.out, done["output"]);
}

TEST_F(LiveApplication, refuses_tasks_that_make_no_sense)
{
    serve();
    const auto refused = [&](const std::string &body, const std::string &why) {
        EXPECT_TRUE(is_error(change("POST", "/api/application", body), 400, why)) << body;
    };
    for (const std::string function : {"", "help", "save", "getthdinfo", "--version", "Start",
                                       "start -f /etc/passwd", "../start"})
        refused(Json{{"function", function}}.dump(), function + ": no function");
    refused("{}", "function: no text");
    refused(R"({"function":["start"]})", "function: no text");
    refused(R"({"function":"sta\u0000rt"})", "function: a control character");
    refused(R"({"function":"stop","parameters":[["A","1"]]})", "stop: it takes no parameters");
    refused(R"({"function":"status","file":""})", "status: it takes no parameters");
    refused(R"({"function":"update","file":7})", "file: no text");
    refused(R"({"function":"update","parameters":{}})", "parameters: no list");
    const std::string coded = "file_base64: no text in base64, or not the only file";
    refused(R"({"function":"update","file_base64":"x"})", coded);
    refused(R"({"function":"update","file_base64":7})", coded);
    refused(R"({"function":"update","file_base64":"","file":""})", coded);
    refused(R"({"function":"update","keep":true})", "keep: only for a restart without a file");
    refused(R"({"function":"restart","keep":true,"file":""})",
            "keep: only for a restart without a file");
    refused(R"({"function":"restart","keep":1})", "keep: neither true nor false");
    refused(R"({"function":"update","preview":"yes"})", "preview: neither true nor false");
    refused(R"({"function":"update","parameters":[["OsdFontFile","a\nPost0DateOn=1"]]})",
            "parameters: OsdFontFile: a line feed");
    const std::string pairs = "parameters: not pairs of key and value";
    for (const char *parameters : {R"(["A","1"])", R"([["A"]])", R"([["A","1","2"]])",
                                   R"([["A",1]])", R"([[1,"A"]])", R"([{"A":"1"}])", R"([null])"})
        refused(std::string(R"({"function":"update","parameters":)") + parameters + "}", pairs);
    for (const std::string key : {"", "-f", "A=", "A B", "Post0-On", "\xC3\x89"})
        refused(Json{{"function", "update"}, {"parameters", HeaderList{{key, "1"}}}}.dump(),
                "parameters: " + key + ": no key");
    refused(R"({"function":"update","parameters":[["A","\u0000"]]})", "parameters: A: a zero byte");
}

TEST_F(LiveApplication, refuses_what_no_list_of_words_holds)
{
    serve();
    const std::string longest(std::size_t{128} << 10, 'x');
    const Json task = {{"function", "update"},
                       {"parameters", HeaderList{{"Post0String", longest}}}};
    EXPECT_TRUE(is_error(change("POST", "/api/application", task.dump()), 400,
                         "parameters: longer than a program's words may be"));
}

TEST_F(LiveApplication, tells_why_a_program_can_not_be_started)
{
    program_ = "/tmp/work/none";
    serve();
    EXPECT_TRUE(is_error(change("POST", "/api/application", R"({"function":"status"})"), 500,
                         "/tmp/work/none: No such file or directory"));
}

TEST_F(LiveApplication, is_found_in_the_path_of_the_server)
{
    program_ = "program";
    const std::string path = getenv("PATH");
    setenv("PATH", ("/tmp/work:" + path).c_str(), 1);
    serve();
    setenv("PATH", path.c_str(), 1);
    EXPECT_TRUE(is_error(change("POST", "/api/application", R"({"function":"status"})"), 500,
                         "program: No such file or directory"));
    const std::string file = make_program("#!/bin/sh\necho found\n");
    const Json done = run({{"function", "status"}});
    EXPECT_EQ(done["command"], shown_command(file, "status"));
    EXPECT_EQ(done["output"], "found\n");
    const Ended shell = support::run({"/bin/sh", "-c", done["command"]});
    EXPECT_EQ(shell.out, "found\n") << "a shell with another PATH doesn't find it";
}

TEST_F(LiveApplication, tells_that_no_program_is_in_the_path)
{
    program_ = "no-such-program";
    serve();
    EXPECT_TRUE(is_error(change("POST", "/api/application", R"({"function":"status"})"), 500,
                         "no-such-program: No such file or directory"));
    EXPECT_EQ(run({{"function", "status"}, {"preview", true}})["command"],
              shown_command("no-such-program", "status"));
}

TEST_F(LiveApplication, tells_of_a_signal)
{
    program_ = make_program("#!/bin/sh\necho so far\nkill -SEGV $$\n");
    serve();
    const Json done = run({{"function", "status"}});
    EXPECT_EQ(done["signal"], SIGSEGV);
    EXPECT_EQ(done["status"], nullptr);
    EXPECT_EQ(done["output"], "so far\n");
}

TEST_F(LiveApplication, runs_one_client_at_a_time)
{
    // Each client fails if another one is there.
    program_ = make_program("#!/bin/sh\nmkdir /tmp/work/turn || exit 1\n"
                            "sleep 0.05\nrmdir /tmp/work/turn\n");
    serve();
    std::vector<std::thread> pages;
    std::vector<Json> results(10);
    for (Json &result : results)
        pages.emplace_back([&] { result = run({{"function", "status"}}); });
    for (std::thread &page : pages)
        page.join();
    for (const Json &result : results)
        EXPECT_EQ(result["status"], 0) << result;
}

TEST_F(LiveApplication, ends_while_a_client_hangs)
{
    program_ = make_program("#!/bin/sh\necho $$ >/tmp/work/pid.new\n"
                            "mv /tmp/work/pid.new /tmp/work/pid\nexec sleep 60\n");
    serve();
    HttpConnection first(port());
    first.send(request_text("POST", "/api/application", own_headers(), R"({"function":"status"})"));
    ASSERT_TRUE(wait_until([] { return fs::exists("/tmp/work/pid"); }));
    HttpConnection second(port());
    second.send(request_text("POST", "/api/application", own_headers(), R"({"function":"stop"})"));
    EXPECT_EQ(end_server(SIGTERM), 0);
    const pid_t client = std::stoi(read_file("/tmp/work/pid"));
    EXPECT_EQ(kill(client, SIGKILL), 0) << "a client is left to itself";
    EXPECT_EQ(waitpid(client, nullptr, 0), client);
}

// ---- Parameters ---------------------------------------------------------------------------------

TEST_F(LiveApplication, lists_the_catalogue)
{
    serve();
    const Json all = get_json("/api/parameters");
    EXPECT_EQ(all["running"], false);
    const Json &rows = all["parameters"];
    ASSERT_EQ(rows.size(), OSD_PARAMS);
    for (std::size_t i = 0; i < OSD_PARAMS; i++) {
        EXPECT_EQ(rows[i]["key"], osd_option_table[i].name);
        EXPECT_EQ(rows[i]["default"], osd_default_values[i]);
        EXPECT_EQ(rows[i]["value"], nullptr);
    }
    const auto row = [&](const std::string &key) {
        for (Json found : rows) {
            if (found["key"] == key)
                return found;
        }
        return Json();
    };
    const auto expected = [](const char *key, const Json &post, const char *group, const char *kind,
                             unsigned limit, const char *text, bool is_option) {
        return Json{{"key", key},     {"post", post},    {"group", group},   {"kind", kind},
                    {"limit", limit}, {"default", text}, {"value", nullptr}, {"option", is_option}};
    };
    EXPECT_EQ(row("OsdFontFile"), expected("OsdFontFile", nullptr, "common", "path", 0, "", false));
    EXPECT_EQ(row("OsdTypeBgColor"),
              expected("OsdTypeBgColor", nullptr, "common", "number", 15, "0", false));
    EXPECT_EQ(row("Post2String"), expected("Post2String", 2, "texts", "string", 20, "", true));
    EXPECT_EQ(row("Post3DateOn"), expected("Post3DateOn", 3, "texts", "number", 1, "0", true));
    EXPECT_EQ(row("Post1Rectangle2On"),
              expected("Post1Rectangle2On", 1, "rectangle2", "number", 2, "0", true));
    EXPECT_EQ(row("Post1Osd3W"),
              expected("Post1Osd3W", 1, "rectangle3", "number", 2147483647, "0", true));
    EXPECT_EQ(row("Post0Osd0ColorType"),
              expected("Post0Osd0ColorType", 0, "rectangle0", "number", 2, "2", true));
}

TEST_F(LiveApplication, lists_what_is_in_force)
{
    serve();
    start_application({{"Post0Osd1X", "12"}});
    const Json all = get_json("/api/parameters");
    EXPECT_EQ(all["running"], true);
    for (const Json &row : all["parameters"]) {
        ASSERT_TRUE(row["value"].is_string()) << row;
        if (row["key"] == "OsdFontFile") {
            EXPECT_EQ(row["value"], QM5OSD_FONT);
        }
        if (row["key"] == "Post0Osd1X") {
            EXPECT_EQ(row["value"], "12");
        }
    }
    stop_application();
}

TEST_F(LiveApplication, sends_the_file_that_save_writes)
{
    serve();
    EXPECT_TRUE(is_error(change("POST", "/api/parameters/file"), 409,
                         report("save", "server is not running", "osd_save") +
                             report("save", "save osd param failed", "main")));
    start_application({{"Post0String", "a=b"}});
    ASSERT_EQ(tool({"save", "-f", "/tmp/work/saved"}).status, 0);
    const Answer answer = change("POST", "/api/parameters/file");
    EXPECT_EQ(answer.headers.at("content-type"), "text/plain; charset=utf-8");
    EXPECT_EQ(answer.headers.at("content-disposition"),
              "attachment; filename=\"qm5_app_comm.conf\"");
    EXPECT_EQ(answer.body, read_file("/tmp/work/saved"));
    for (const auto &entry : fs::directory_iterator(state_))
        EXPECT_FALSE(entry.path().filename().string().starts_with("saved")) << entry.path();
    stop_application();
}

TEST_F(LiveApplication, tells_how_a_save_without_words_has_ended)
{
    program_ = make_program("#!/bin/sh\nkill -SEGV $$\n");
    serve();
    EXPECT_TRUE(is_error(change("POST", "/api/parameters/file"), 409,
                         "the command was ended by signal 11 (Segmentation fault)"));
    make_program("#!/bin/sh\nexit 3\n");
    EXPECT_TRUE(is_error(change("POST", "/api/parameters/file"), 409,
                         "the command ended with status 3, without a word"));
}

TEST_F(LiveApplication, tells_that_what_is_in_force_can_not_be_read)
{
    const std::string file = "/tmp/osd_tmp_param.txt";
    serve();
    start_application({{"Post0String", "here"}});
    const std::string whole = read_file(file);
    const std::string why = file + ": not all parameters are there";
    const auto refused = [&](const Json &task, const std::string &text) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(is_error(get("/api/parameters"), 500, text));
        if (text == why) {
            EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1))
                << "a client had hardly time to write it";
        }
        EXPECT_TRUE(is_error(
            change("POST", "/api/parameters/compare", R"({"file":"[osd]\nPost0DateOn=0\n"})"), 500,
            text));
        EXPECT_TRUE(is_error(change("POST", "/api/application", task.dump()), 409, text));
    };
    const Json restart = {{"function", "restart"}, {"keep", true}, {"preview", true}};
    remove_file(file);
    refused(restart, why);
    for (const std::string &part :
         {std::string(), whole.substr(0, whole.size() / 2), whole.substr(0, whole.size() - 1)}) {
        write_file(file, part);
        refused(restart, why);
    }
    remove_file(file);
    fs::create_directory(file);
    refused(restart, file + ": Is a directory");
    fs::remove(file);

    write_file(file, whole);
    EXPECT_EQ(value("Post0String"), "here");
    const std::string kept = run(restart)["file"];
    EXPECT_NE(kept.find("\nPost0String=here\n"), std::string::npos) << kept;
    stop_application();
}

TEST_F(LiveApplication, compares_a_file_with_what_is_in_force)
{
    serve();
    start_application({{"Post0DateOn", "1"}, {"Post0String", "one"}});
    const Json none = Json::array();
    EXPECT_EQ(compare(change("POST", "/api/parameters/file").body),
              (Json{{"differences", none}, {"error", nullptr}}));
    EXPECT_EQ(compare("[osd]\nPost0DateOn=0\nPost0String=two\nPost1String=three\nPost0DateOn=1\n"),
              (Json{{"differences",
                     {{{"key", "Post0String"}, {"value", "one"}, {"file", "two"}},
                      {{"key", "Post1String"}, {"value", ""}, {"file", "three"}}}},
                    {"error", nullptr}}));
    EXPECT_EQ(compare("[osd]\nPost0String=\n")["differences"], none)
        << "an empty value leaves the one in force";
    EXPECT_EQ(value("Post0String"), "one") << "it has been changed";
    stop_application();
    EXPECT_EQ(compare("[osd]\nPost0DateOn=0\n")["differences"],
              (Json{{{"key", "Post0DateOn"}, {"value", nullptr}, {"file", "0"}}}));
}

TEST_F(LiveApplication, tells_why_a_file_is_no_good)
{
    serve();
    const auto error = [&](const std::string &file) {
        const Json compared = compare(file);
        EXPECT_EQ(compared["differences"], Json::array());
        return compared["error"];
    };
    const std::string read = "osd_read_parameter_file";
    EXPECT_EQ(error("[osd]\nPost0DateOn=2\n"),
              report("update", "invalid value '2' of key Post0DateOn", "osd_check_param") +
                  report("update", "invalid osd parameter", "osd_check_section") +
                  report("update", "invalid parameter in osd section", read));
    EXPECT_EQ(error("[osd]\nNoKey=1\n"),
              report("update", "invalid key 'NoKey'", "osd_check_param") +
                  report("update", "invalid osd parameter", "osd_check_section") +
                  report("update", "invalid parameter in osd section", read));
    const std::string none = report("update", "no osd section in parameter file", read);
    EXPECT_EQ(error(""), none);
    EXPECT_EQ(error("[other]\nPost0DateOn=2\n"), none);
    EXPECT_EQ(error("Post0DateOn=1\n"),
              report("update", "no section header", "param_seclist_new") +
                  report("update", "failed to read parameter file", read));
    for (const char *body : {"{}", R"({"file":1})", R"({"file":null})"})
        EXPECT_TRUE(
            is_error(change("POST", "/api/parameters/compare", body), 400, "file: no text"));
}

} // namespace
