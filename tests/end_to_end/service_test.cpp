// The service script and the unit, on the paths that they have on the appliance; and commands that
// run at the same time under a lock.
#include "support/appliance.h"
#include "support/application.h"
#include "support/files.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using support::APPLIANCE_LOG;
using support::APPLIANCE_PROGRAM;
using support::APPLIANCE_SAVED;
using support::APPLIANCE_SERVICE;
using support::Ended;
using support::read_file;
using support::run;
using support::Words;
using support::write_file;

const std::string PACKAGING = QM5OSD_PACKAGING;

class Service : public support::ApplicationTest
{
protected:
    void SetUp() override
    {
        ApplicationTest::SetUp();
        executable_ = APPLIANCE_PROGRAM;
        appliance_.emplace();
        if (HasFailure())
            return;
        fs::create_directory(state_);
    }
    void TearDown() override
    {
        ApplicationTest::TearDown();
        appliance_.reset();
    }

    static Ended service(const std::string &word)
    {
        return run({APPLIANCE_SERVICE, word});
    }

    // What a command says with no failure.
    static void expect_good(const Ended &ended, const std::string &out = "")
    {
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.out, out);
        EXPECT_EQ(ended.err, "");
    }

    void sim(const Words &words) const
    {
        Words all = {QM5SIM_PROGRAM};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(run(all).status, 0);
    }

    // Then the script can't see which executable a process runs.
    static bool is_emulated()
    {
        return getenv("QEMU_LD_PREFIX") != nullptr;
    }

    pid_t server() const
    {
        const std::vector<pid_t> servers = support::processes_of(executable_);
        if (servers.size() != 1) // a signal to -1 would reach everything
            throw std::runtime_error(std::to_string(servers.size()) + " servers run");
        return servers[0];
    }

    // The value of a key in force.
    static std::string in_force(const std::string &key)
    {
        std::istringstream lines(read_file("/tmp/osd_tmp_param.txt"));
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with(key + '='))
                return line.substr(key.size() + 1);
        }
        return "there is no " + key;
    }

    // Shorter waits than the script's own, for those that have to come to their end.
    static void set_limit(int seconds)
    {
        write_file(support::APPLIANCE_SETTINGS, "limit=" + std::to_string(seconds) + '\n');
    }

    // What a server that didn't stop by itself leaves.
    static void remove_traces()
    {
        for (const char *name :
             {"osd_fifo_req", "osd_fifo_ack", "osd_tmp_param.txt", "osd_tmp_param.bak"})
            fs::remove(std::string("/tmp/") + name);
    }

    static void expect_killed_by_stop()
    {
        set_limit(2);
        const Ended stopped = service("stop");
        EXPECT_EQ(stopped.status, 0);
        EXPECT_EQ(stopped.err, "qm5osd: the server didn't stop within 2 seconds and is killed\n");
        EXPECT_EQ(service("status").status, 3);
        remove_traces();
    }

    std::optional<support::Appliance> appliance_;
};

// ---- The script ---------------------------------------------------------------------------------

TEST_F(Service, status_is_that_of_an_init_script)
{
    const Ended none = service("status");
    EXPECT_EQ(none.status, 3);
    EXPECT_EQ(none.out, "qm5osd: no server runs\n");

    expect_good(service("start"));
    EXPECT_EQ(tool({"status"}).status, 1); // its own is the other way round
    expect_good(service("status"), "qm5osd: a server runs\n");
    expect_good(service("start"), "qm5osd: a server runs already\n");
    server();

    expect_good(service("stop"));
    EXPECT_EQ(service("status").status, 3);
    expect_good(service("stop"));

    fs::remove(APPLIANCE_PROGRAM);
    const Ended unknown = service("status");
    EXPECT_EQ(unknown.status, 4);
    EXPECT_EQ(unknown.out, "qm5osd: /opt/qm5/osd/bin/qm5osd: it can't be asked\n");
}

std::string link_of(pid_t pid, const std::string &name)
{
    std::error_code none;
    return fs::read_symlink("/proc/" + std::to_string(pid) + '/' + name, none);
}

TEST_F(Service, server_keeps_nothing_of_the_terminal_that_started_it)
{
    // A pipe that a server holds keeps its reader for ever.
    const Ended started = run({"/bin/sh", "-c", std::string(APPLIANCE_SERVICE) + " start | cat"});
    expect_good(started);
    const pid_t pid = server();
    EXPECT_EQ(link_of(pid, "fd/0"), "/dev/null");
    EXPECT_EQ(link_of(pid, "fd/1"), APPLIANCE_LOG);
    EXPECT_EQ(link_of(pid, "fd/2"), APPLIANCE_LOG);
    EXPECT_NE(getsid(pid), getsid(0));
    const fs::path lock = fs::canonical(support::APPLIANCE_LOCK);
    for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
        EXPECT_NE(fs::read_symlink(entry), lock);
    expect_good(service("stop"));
}

TEST_F(Service, words_that_make_no_sense_are_refused)
{
    EXPECT_EQ(service("reload").status, 3);
    const Ended ended = service("begin");
    EXPECT_EQ(ended.status, 2);
    EXPECT_EQ(ended.err, "qm5osd: words: they are start, stop, restart, try-restart, force-reload, "
                         "status or save\n");
    EXPECT_EQ(run({APPLIANCE_SERVICE}).status, 2);
}

TEST_F(Service, start_tells_what_is_missing)
{
    fs::remove("/opt/qm5/conf/qm5_app_comm.conf");
    const Ended unconfigured = service("start");
    EXPECT_EQ(unconfigured.status, 6);
    EXPECT_EQ(unconfigured.err, "qm5osd: /opt/qm5/conf/qm5_app_comm.conf: it can't be read\n");
    fs::remove(APPLIANCE_PROGRAM);
    const Ended absent = service("start");
    EXPECT_EQ(absent.status, 5);
    EXPECT_EQ(absent.err, "qm5osd: /opt/qm5/osd/bin/qm5osd: it isn't there\n");
}

TEST_F(Service, script_of_a_removed_package_does_nothing_at_boot)
{
    fs::remove(APPLIANCE_PROGRAM);
    const std::string source = std::string(". ") + APPLIANCE_SERVICE;
    for (const char *name : {"/etc/init.d/qm5osd", "/etc/rc2.d/S01qm5osd"}) {
        for (const char *word : {"start", "stop"})
            expect_good(run({"/bin/sh", "-c", source, name, word}));
        EXPECT_EQ(run({"/bin/sh", "-c", source, name, "status"}).status, 4);
    }
}

TEST_F(Service, limit_that_is_no_number_is_refused)
{
    for (const std::string limit : {"0", "abc", "", "08", "-1"}) {
        write_file(support::APPLIANCE_SETTINGS, "limit=" + limit + '\n');
        const Ended started = service("start");
        EXPECT_EQ(started.status, 6);
        EXPECT_EQ(started.err, "qm5osd: /etc/default/qm5osd: limit=" + limit +
                                   ": it is no number of seconds above 0\n");
        EXPECT_EQ(service("status").status, 4);
    }
    set_limit(10);
    EXPECT_EQ(service("status").status, 3);
}

TEST_F(Service, restart_keeps_what_was_saved)
{
    expect_good(service("start"));
    EXPECT_EQ(tool({"update", "--Post1TypeOn=1", "--Post2String=kept"}).status, 0);
    expect_good(service("save"));
    EXPECT_EQ(tool({"update", "--Post2String=lost"}).status, 0);
    expect_good(service("restart"));
    EXPECT_EQ(in_force("Post1TypeOn"), "1");
    EXPECT_EQ(in_force("Post2String"), "kept");
    EXPECT_TRUE(shows(1, [](const auto &post) { return support::count_shown(post) == 1; }));
    EXPECT_FALSE(fs::exists(std::string(APPLIANCE_SAVED) + ".new"));
    EXPECT_TRUE(fs::exists(std::string(APPLIANCE_LOG) + ".old"));
    expect_good(service("stop"));
}

TEST_F(Service, save_that_fails_leaves_what_was_saved_before)
{
    write_file(APPLIANCE_SAVED, "[osd]\nPost0TypeOn=1\n");
    EXPECT_EQ(service("save").status, 1); // no server

    expect_good(service("start"));
    // The writing of the file fails, which the application doesn't notice.
    fs::create_symlink("/dev/full", std::string(APPLIANCE_SAVED) + ".new");
    const Ended full = service("save");
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "qm5osd: /opt/qm5/conf/saved.conf.new: it wasn't written whole\n");
    EXPECT_EQ(read_file(APPLIANCE_SAVED), "[osd]\nPost0TypeOn=1\n");
    expect_good(service("stop"));
}

TEST_F(Service, save_keeps_bytes_that_are_no_characters)
{
    expect_good(service("start"));
    EXPECT_EQ(tool({"update", "--Post1String=caf\351"}).status, 0);
    setenv("LC_ALL", "C.UTF-8", 1);
    const Ended saved = service("save");
    unsetenv("LC_ALL");
    expect_good(saved);
    EXPECT_NE(read_file(APPLIANCE_SAVED).find("\nPost1String=caf\351\n"), std::string::npos);
    expect_good(service("stop"));
}

TEST_F(Service, save_fails_if_a_folder_is_in_its_way)
{
    expect_good(service("start"));
    fs::create_directory(APPLIANCE_SAVED);
    const Ended saved = service("save");
    EXPECT_EQ(saved.status, 1);
    EXPECT_NE(saved.err.find("/opt/qm5/conf/saved.conf"), std::string::npos) << saved.err;
    EXPECT_TRUE(fs::is_empty(APPLIANCE_SAVED));
    EXPECT_FALSE(fs::exists(std::string(APPLIANCE_SAVED) + ".new"));
    expect_good(service("stop"));
}

TEST_F(Service, try_restart_starts_no_server)
{
    expect_good(service("try-restart"));
    EXPECT_EQ(service("status").status, 3);
    expect_good(service("start"));
    const pid_t before = server();
    expect_good(service("try-restart"));
    EXPECT_NE(server(), before);
    expect_good(service("force-reload"));
    expect_good(service("stop"));
}

TEST_F(Service, saved_parameters_that_are_refused_dont_keep_the_server_from_running)
{
    write_file(APPLIANCE_SAVED, "[osd]\nPost0TypeOn=1\nPost0DateOn=2\n");
    const Ended started = service("start");
    EXPECT_EQ(started.status, 0);
    EXPECT_NE(started.err.find("]=invalid value '2' of key Post0DateOn(osd_check_param)\n"),
              std::string::npos)
        << started.err;
    EXPECT_TRUE(started.err.ends_with("qm5osd: /opt/qm5/conf/saved.conf: it was refused, so the "
                                      "server runs without it; see /var/log/qm5osd.log\n"));
    EXPECT_EQ(in_force("Post0TypeOn"), "0");
    expect_good(service("stop"));
}

TEST_F(Service, saved_parameters_that_end_the_server_are_left_out)
{
    set_limit(5);
    // A rectangle of some width and no height is written past its memory.
    write_file(APPLIANCE_SAVED, "[osd]\nPost0Rectangle0On=1\nPost0Osd0W=100\n");
    const Ended started = service("start");
    EXPECT_EQ(started.status, 0);
    EXPECT_EQ(started.err, "qm5osd: /opt/qm5/conf/saved.conf: no server came up with it, so one is "
                           "started without it; see /var/log/qm5osd.log.old\n");
    EXPECT_EQ(in_force("Post0Rectangle0On"), "0");
    expect_good(service("stop"));
    while (waitpid(-1, nullptr, WNOHANG) > 0)
        continue;
    fs::remove(state_ + "/breaches"); // it was one
}

TEST_F(Service, start_fails_if_no_server_comes_up)
{
    sim({"fault", "add", "open_device", "every", "fail", "1"});
    const Ended started = service("start");
    EXPECT_EQ(started.status, 7);
    EXPECT_EQ(started.err, "qm5osd: no server came up; see /var/log/qm5osd.log\n");
    EXPECT_NE(read_file(APPLIANCE_LOG).find("qm5_cl_sys_open_device() failed"), std::string::npos);
    EXPECT_EQ(service("status").status, 3);
    remove_traces();
}

TEST_F(Service, server_that_takes_long_to_come_up_is_waited_for)
{
    if (is_emulated())
        GTEST_SKIP() << "an emulator hides the server from the script";
    write_file(APPLIANCE_SAVED, "[osd]\nPost3TypeOn=1\n");
    sim({"fault", "add", "open_device", "every", "delay", "4000"});
    expect_good(service("start"));
    EXPECT_NE(read_file(APPLIANCE_LOG).find("server could not start"), std::string::npos);
    EXPECT_EQ(in_force("Post3TypeOn"), "1");
    server();
    expect_good(service("stop"));
}

TEST_F(Service, server_outlives_a_start_that_waits_too_long_for_its_reply)
{
    set_limit(6);
    write_file(APPLIANCE_SAVED, "[osd]\nPost0TypeOn=1\n");
    sim({"post", "0", "open", "720x576"});
    sim({"fault", "add", "open_osd", "next", "delay", "7000"});
    expect_good(service("start"));
    EXPECT_EQ(in_force("Post0TypeOn"), "1");
    EXPECT_TRUE(shows(0, [](const auto &post) { return support::count_shown(post) == 1; }));
    EXPECT_FALSE(fs::exists(std::string(APPLIANCE_LOG) + ".old")); // it is the first server
    server();
    expect_good(service("stop"));
}

TEST_F(Service, start_tells_of_a_server_that_takes_too_long_for_what_was_saved)
{
    set_limit(4);
    write_file(APPLIANCE_SAVED, "[osd]\nPost0TypeOn=1\n");
    sim({"post", "0", "open", "720x576"});
    sim({"fault", "add", "open_osd", "next", "delay", "10000"});
    const Ended started = service("start");
    EXPECT_EQ(started.status, 0);
    EXPECT_EQ(started.err, "qm5osd: /opt/qm5/conf/saved.conf: the server doesn't take it within 4 "
                           "seconds; see /var/log/qm5osd.log\n");
    EXPECT_EQ(service("status").status, 0);
    set_limit(20);
    expect_good(service("stop"));
}

TEST_F(Service, server_that_does_not_stop_is_killed)
{
    if (is_emulated())
        GTEST_SKIP() << "an emulator hides the server from the script";
    expect_good(service("start"));
    kill(server(), SIGSTOP);
    expect_killed_by_stop();
}

TEST_F(Service, server_of_a_replaced_file_is_killed_too)
{
    if (is_emulated())
        GTEST_SKIP() << "an emulator hides the server from the script";
    expect_good(service("start"));
    kill(server(), SIGSTOP);
    const std::string upgraded = std::string(APPLIANCE_PROGRAM) + ".new";
    fs::copy(APPLIANCE_PROGRAM, upgraded);
    fs::rename(upgraded, APPLIANCE_PROGRAM);
    expect_killed_by_stop();
}

TEST_F(Service, stop_and_restart_fail_if_a_server_cant_be_ended)
{
    expect_good(service("start"));
    const pid_t pid = server();
    kill(pid, SIGSTOP);
    const std::string away = std::string(APPLIANCE_PROGRAM) + ".away";
    fs::rename(APPLIANCE_PROGRAM, away);
    fs::copy(away, APPLIANCE_PROGRAM);
    set_limit(2);
    for (const char *word : {"stop", "restart"}) {
        const Ended stopped = service(word);
        EXPECT_EQ(stopped.status, 1);
        EXPECT_EQ(stopped.out, "");
        EXPECT_TRUE(stopped.err.ends_with("qm5osd: a server runs still\n")) << stopped.err;
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    remove_traces();
}

TEST_F(Service, two_at_once_come_one_after_the_other)
{
    expect_good(service("start"));
    support::Process first({APPLIANCE_SERVICE, "restart"});
    support::Process second({APPLIANCE_SERVICE, "restart"});
    expect_good(first.wait());
    expect_good(second.wait());
    server();
    expect_good(service("stop"));
}

// ---- systemd ------------------------------------------------------------------------------------

// The words of a line of the unit, as ExecStart.
Words unit_words(const std::string &name)
{
    std::istringstream lines(read_file(PACKAGING + "/qm5osd.service"));
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with(name + '='))
            continue;
        std::istringstream words(line.substr(name.size() + 1));
        return {std::istream_iterator<std::string>(words), {}};
    }
    ADD_FAILURE() << "the unit has no " << name;
    return {"/bin/false"};
}

TEST_F(Service, lines_of_the_unit_start_and_stop_the_server)
{
    expect_good(run(unit_words("ExecStart")));
    const pid_t pid = server();
    expect_good(run(unit_words("ExecStop")));
    int status = 0;
    ASSERT_TRUE(support::wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(unit_words("SuccessExitStatus"), Words{std::to_string(WEXITSTATUS(status))});
}

TEST_F(Service, failed_start_is_no_success_to_the_unit)
{
    sim({"fault", "add", "library_init", "every", "fail", "1"});
    const Ended started = run(unit_words("ExecStart"));
    EXPECT_NE(started.status, 0);
    EXPECT_NE(unit_words("SuccessExitStatus"), Words{std::to_string(started.status)});
    remove_traces();
}

bool is_there(const char *program)
{
    return access(program, X_OK) == 0;
}

TEST_F(Service, unit_has_no_fault_of_form)
{
    constexpr const char *ANALYZE = "/usr/bin/systemd-analyze";
    if (!is_there(ANALYZE))
        GTEST_SKIP() << "this machine has no systemd";
    const Ended ended = run(
        {ANALYZE, "verify", "--man=no", "--recursive-errors=no", PACKAGING + "/qm5osd.service"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out + ended.err, "");
}

TEST_F(Service, systemd_leaves_the_servers_temporary_files_alone)
{
    constexpr const char *TMPFILES = "/usr/bin/systemd-tmpfiles";
    if (!is_there(TMPFILES))
        GTEST_SKIP() << "this machine has no systemd";
    expect_good(service("start"));
    // Everything in the temporary folder is old enough to go.
    write_file("/opt/all.conf", "D /tmp 1777 root root 0\n");
    write_file("/tmp/another", "");
    run({TMPFILES, "--clean", PACKAGING + "/qm5osd.tmpfiles", "/opt/all.conf"});
    EXPECT_FALSE(fs::exists("/tmp/another"));
    EXPECT_EQ(service("status").status, 0);
    EXPECT_EQ(tool({"update", "--Post0TypeOn=1"}).status, 0);
    EXPECT_TRUE(fs::exists("/tmp/osd_tmp_param.bak"));
    expect_good(service("stop"));
}

// ---- Commands at the same time ------------------------------------------------------------------

TEST_F(Service, updates_under_a_lock_all_succeed_and_all_hold)
{
    expect_good(service("start"));
    EXPECT_EQ(tool({"update", "--Post3TimeOn=1"}).status, 0); // passes are a second long now
    const Words options = {"--Post0String=a",   "--Post1String=b", "--Post2String=c",
                           "--Post3String=d",   "--Post0TypeOn=1", "--Post1StringColor=7",
                           "--Post2Osd0W=1234", "--Post3DateOn=1"};
    std::vector<support::Process> updates;
    for (const std::string &option : options)
        updates.emplace_back(Words{"/usr/bin/flock", support::APPLIANCE_LOCK, "/usr/bin/timeout",
                                   "20", APPLIANCE_PROGRAM, "update", option});
    for (support::Process &update : updates) {
        const Ended ended = update.wait();
        EXPECT_EQ(ended.status, 0) << ended.err;
        EXPECT_EQ(ended.err, "");
    }
    for (const std::string &option : options) {
        const std::size_t equals = option.find('=');
        EXPECT_EQ(in_force(option.substr(2, equals - 2)), option.substr(equals + 1));
    }
    expect_good(service("stop"));
}

// ---- What is installed --------------------------------------------------------------------------

TEST_F(Service, components_put_everything_in_its_place)
{
    std::vector<std::string> files;
    for (const std::string component : {"packaging", "documents"}) {
        const std::string manifest = QM5OSD_BUILD "/install_manifest_" + component + ".txt";
        const bool listed = fs::exists(manifest);
        const std::string list = listed ? read_file(manifest) : "";
        const Ended installed = run({CMAKE_PROGRAM, "--install", QM5OSD_BUILD, "--component",
                                     component, "--prefix", "/opt/new"});
        EXPECT_EQ(installed.status, 0) << installed.err;
        if (listed)
            write_file(manifest, list);
        else
            fs::remove(manifest);
    }
    for (const auto &entry : fs::recursive_directory_iterator("/opt/new")) {
        if (!entry.is_directory())
            files.push_back(fs::relative(entry.path(), "/opt/new"));
    }
    std::ranges::sort(files);
    EXPECT_EQ(files, (Words{"lib/systemd/system/qm5osd.service", "lib/tmpfiles.d/qm5osd.conf",
                            "osd/bin/qm5osd-service", "share/bash-completion/completions/qm5osd",
                            "share/bash-completion/completions/qm5sim", "share/man/man1/qm5osd.1",
                            "share/man/man1/qm5sim.1", "share/man/man5/qm5_app_comm.conf.5",
                            "share/qm5osd/qm5osd.schema.json"}));
    EXPECT_TRUE(is_there("/opt/new/osd/bin/qm5osd-service"));
}

} // namespace
