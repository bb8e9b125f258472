// The service script, and the lines of systemd's files by themselves, on the paths that they have
// on the appliance; and commands that run at the same time under a lock.
#include "service.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using support::APPLIANCE_LOG;
using support::APPLIANCE_PROGRAM;
using support::APPLIANCE_SAVED;
using support::APPLIANCE_SERVICE;
using support::Ended;
using support::read_file;
using support::run;
using support::Service;
using support::Words;
using support::write_file;
namespace fs = std::filesystem;

const std::string PACKAGING = QM5OSD_PACKAGING;

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

TEST_F(Service, status_is_not_told_to_those_who_cant_ask_the_server)
{
    expect_good(service("start"));
    // To root without its power over files it is as if they were another's.
    fs::permissions("/tmp/osd_fifo_req", fs::perms::owner_read);
    const Ended status =
        run({"/usr/bin/setpriv", "--bounding-set=-all", APPLIANCE_SERVICE, "status"});
    EXPECT_EQ(status.status, 4);
    EXPECT_EQ(status.out,
              "qm5osd: /tmp/osd_fifo_req: only the server's user can tell whether one runs\n");
    expect_good(service("stop"));
}

TEST_F(Service, nobody_but_root_may_change_anything)
{
    put_first_in_path("id", "echo 1000");
    for (const std::string word : {"start", "stop", "restart", "save"}) {
        const Ended ended = service(word);
        EXPECT_EQ(ended.status, 4);
        EXPECT_EQ(ended.err, "qm5osd: " + word + ": only root may do that\n");
    }
    EXPECT_EQ(service("status").status, 3);
    EXPECT_FALSE(fs::exists(support::APPLIANCE_LOCK));
}

// The script of init, with these words.
Ended init(Words words)
{
    words.insert(words.begin(), PACKAGING + "/qm5osd.init");
    return run(words);
}

std::string link_of(pid_t pid, const std::string &name)
{
    std::error_code none;
    return fs::read_symlink("/proc/" + std::to_string(pid) + '/' + name, none);
}

TEST_F(Service, server_keeps_nothing_of_the_terminal_that_started_it)
{
    // A pipe that a server holds keeps its reader for ever.
    const Ended started = run({"/bin/sh", "-c",
                               std::string("cd /opt && ") + APPLIANCE_SERVICE +
                                   " start 3>&1 4>&1 5>&1 6>&1 7>&1 8>&1 9>&1 | cat"});
    expect_good(started);
    const pid_t pid = server();
    EXPECT_EQ(link_of(pid, "fd/0"), "/dev/null");
    EXPECT_EQ(link_of(pid, "fd/1"), APPLIANCE_LOG);
    EXPECT_EQ(link_of(pid, "fd/2"), APPLIANCE_LOG);
    EXPECT_EQ(link_of(pid, "cwd"), "/");
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

TEST_F(Service, init_script_hands_its_words_on)
{
    expect_good(init({"start"}));
    expect_good(init({"status"}), "qm5osd: a server runs\n");
    expect_good(init({"stop"}));
    EXPECT_EQ(init({"status"}).status, 3);
    EXPECT_EQ(init({"begin"}).status, 2);
    EXPECT_EQ(init({}).status, 2);
}

TEST_F(Service, settings_with_another_root_touch_no_server)
{
    expect_good(init({"start"}));
    write_file(support::APPLIANCE_SETTINGS, "root=/opt/elsewhere\n");
    for (const char *word : {"start", "stop", "restart"}) {
        const Ended ended = init({word});
        EXPECT_EQ(ended.status, 5);
        EXPECT_EQ(ended.err, "qm5osd: /opt/elsewhere/osd/bin/qm5osd: it isn't there\n");
    }
    fs::remove(support::APPLIANCE_SETTINGS);
    expect_good(init({"status"}), "qm5osd: a server runs\n");
    expect_good(init({"stop"}));
}

TEST_F(Service, init_script_of_a_removed_package_does_nothing_at_boot)
{
    fs::remove(APPLIANCE_SERVICE);
    for (const char *word : {"start", "stop"})
        expect_good(init({word}));
    EXPECT_EQ(init({"status"}).status, 4);
    for (const Words &words :
         {Words{"save"}, Words{"restart"}, Words{"reload"}, Words{"begin"}, Words{}}) {
        const Ended ended = init(words);
        EXPECT_EQ(ended.status, 5);
        EXPECT_EQ(ended.err, "qm5osd: /opt/qm5/osd/bin/qm5osd-service: it isn't there\n");
    }
}

TEST_F(Service, settings_that_are_no_shell_script_are_refused)
{
    for (const char *line : {"limit=$(", "limit=$((2 0))", "limit=${LIMIT:?}", "exit 0"}) {
        write_file(support::APPLIANCE_SETTINGS, std::string(line) + '\n');
        for (const auto &[word, status] : {std::pair("start", 6), std::pair("status", 4)}) {
            const Ended ended = service(word);
            EXPECT_EQ(ended.status, status) << line;
            EXPECT_TRUE(ended.err.ends_with(
                "qm5osd: /etc/default/qm5osd: the shell finds no sense in it\n"))
                << ended.err;
        }
    }
}

TEST_F(Service, settings_may_end_with_a_condition)
{
    write_file(support::APPLIANCE_SETTINGS, "limit=10\n[ -e /none ] && limit=5\n");
    EXPECT_EQ(service("status").status, 3);
}

TEST_F(Service, stop_fails_if_what_a_server_left_cant_be_removed)
{
    fs::create_directory("/tmp/osd_fifo_ack");
    for (const char *word : {"stop", "restart"}) {
        const Ended ended = service(word);
        EXPECT_EQ(ended.status, 7); // to the unit 1 is a good end
        EXPECT_TRUE(
            ended.err.ends_with("qm5osd: /tmp: what the server has left can't be removed\n"))
            << ended.err;
    }
    fs::remove("/tmp/osd_fifo_ack");
}

TEST_F(Service, stops_without_settings_for_a_removal)
{
    expect_good(service("start"));
    write_file(support::APPLIANCE_SETTINGS, "limit=20s\nroot=/opt/elsewhere\n");
    EXPECT_EQ(service("stop").status, 6);
    put_first_in_path("flock", "exit 1"); // as if a server that was started under the lock had it
    setenv("QM5OSD_SETTINGS", "", 1);
    const Ended stopped = service("stop");
    unsetenv("QM5OSD_SETTINGS");
    EXPECT_EQ(stopped.status, 0);
    EXPECT_EQ(stopped.err, "qm5osd: /var/lock/qm5osd.lock: it can't be had\n");
    EXPECT_TRUE(support::processes_of(executable_).empty());
}

TEST_F(Service, nothing_is_changed_without_the_lock)
{
    write_file(APPLIANCE_SAVED, "[osd]\nPost0TypeOn=1\n");
    expect_good(service("start"));
    const pid_t before = server();
    put_first_in_path("flock", "exit 1"); // as if another command had it
    for (const char *word : {"stop", "restart", "save"}) {
        const Ended ended = service(word);
        EXPECT_EQ(ended.status, 7);
        EXPECT_EQ(ended.err, "qm5osd: /var/lock/qm5osd.lock: it can't be had\n");
    }
    EXPECT_EQ(server(), before);
    EXPECT_EQ(read_file(APPLIANCE_SAVED), "[osd]\nPost0TypeOn=1\n");
    EXPECT_EQ(tool({"stop"}).status, 0);
    EXPECT_EQ(service("start").status, 7);
    EXPECT_EQ(service("status").status, 3);
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

TEST_F(Service, save_waits_for_a_disk_no_longer_than_the_limit)
{
    expect_good(service("start"));
    set_limit(1);
    put_first_in_path("sync", "exec sleep 60");
    const Ended saved = service("save");
    EXPECT_EQ(saved.status, 1);
    EXPECT_EQ(saved.err, "qm5osd: /opt/qm5/conf/saved.conf.new: it wasn't written whole\n");
    EXPECT_FALSE(fs::exists(APPLIANCE_SAVED));
    set_limit(20);
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

TEST_F(Service, try_restart_and_force_reload_start_no_server)
{
    for (const char *word : {"try-restart", "force-reload"}) {
        expect_good(service(word));
        EXPECT_EQ(service("status").status, 3);
    }
    expect_good(service("start"));
    for (const char *word : {"try-restart", "force-reload"}) {
        const pid_t before = server();
        expect_good(service(word));
        EXPECT_NE(server(), before);
    }
    expect_good(service("stop"));
}

TEST_F(Service, saved_parameters_that_are_refused_dont_keep_the_server_from_running)
{
    sim({"post", "0", "open", "720x576"});
    add_to_common("Post0StringOn=1\nPost0String=common\n");
    write_file(APPLIANCE_SAVED, "[osd]\nPost0TypeOn=1\nPost0DateOn=2\n");
    const Ended started = service("start");
    EXPECT_EQ(started.status, 0);
    EXPECT_NE(started.err.find("]=invalid value '2' of key Post0DateOn(osd_check_param)\n"),
              std::string::npos)
        << started.err;
    EXPECT_TRUE(started.err.ends_with("qm5osd: /opt/qm5/conf/saved.conf: it was refused, so the "
                                      "server runs without it; see /var/log/qm5osd.log\n"));
    EXPECT_EQ(in_force("Post0TypeOn"), "0");
    EXPECT_TRUE(shows(0, [](const auto &post) { return support::count_shown(post) == 1; }));
    expect_good(service("stop"));
}

TEST_F(Service, start_tells_of_common_parameters_that_cant_be_shown)
{
    sim({"post", "0", "open", "720x576"});
    sim({"fault", "add", "set_osd", "every", "fail", "refused", "post", "0"});
    add_to_common("Post0TimeOn=1\n");
    const std::string why =
        "qm5osd: the server runs, but can't show what it is to; see /var/log/qm5osd.log\n";
    for (const bool saved : {false, true}) {
        if (saved)
            write_file(APPLIANCE_SAVED, "[osd]\nPost0DateOn=2\n");
        const Ended started = service("start");
        EXPECT_EQ(started.status, 0);
        EXPECT_TRUE(started.err.ends_with("]=failed to update server(osd_update)\n"
                                          "ERR:#qm5osd:[update]=update osd failed(main)\n" +
                                          why))
            << started.err;
        EXPECT_EQ(service("status").status, 0);
        expect_good(service("stop"));
    }
}

TEST_F(Service, log_of_a_server_that_was_slow_to_come_up_and_ended_is_kept_too)
{
    if (support::is_emulated())
        GTEST_SKIP() << "an emulator hides the server from the script";
    set_limit(8);
    sim({"post", "0", "open", "720x576"});
    sim({"fault", "add", "open_device", "every", "delay", "4000"}); // `start` waits for two seconds
    write_file(APPLIANCE_SAVED, "[osd]\nPost0Rectangle0On=1\nPost0Osd0W=100\n");
    const Ended started = service("start");
    EXPECT_EQ(started.status, 0);
    EXPECT_TRUE(
        started.err.ends_with("qm5osd: /opt/qm5/conf/saved.conf: no server came up with it, so one "
                              "is started without it\n"
                              "qm5osd: /var/log/qm5osd.log.failed: what that server said\n"))
        << started.err;
    EXPECT_EQ(in_force("Post0Rectangle0On"), "0");
    expect_good(service("stop"));
    allow_breach();
}

TEST_F(Service, common_parameters_that_end_the_server_fail_the_start_behind_a_refused_file_too)
{
    set_limit(5);
    sim({"post", "0", "open", "720x576"});
    add_to_common("Post0Rectangle0On=1\nPost0Osd0W=100\n"); // written past its memory
    write_file(APPLIANCE_SAVED, "[osd]\nPost0DateOn=2\n");
    const Ended started = service("start");
    EXPECT_EQ(started.status, 7);
    EXPECT_TRUE(
        started.err.ends_with("qm5osd: no server came up\n"
                              "qm5osd: /var/log/qm5osd.log.failed: what that server said\n"))
        << started.err;
    EXPECT_EQ(service("status").status, 3);
    EXPECT_FALSE(fs::exists(APPLIANCE_LOG));
    expect_good(service("stop")); // which removes what that server has left
    allow_breach();
}

TEST_F(Service, start_tells_of_a_server_that_takes_too_long_for_the_common_parameters)
{
    set_limit(4);
    sim({"post", "0", "open", "720x576"});
    sim({"fault", "add", "open_osd", "next", "delay", "12000"});
    add_to_common("Post0TypeOn=1\n");
    const Ended started = service("start");
    EXPECT_EQ(started.status, 0);
    EXPECT_EQ(started.err, "qm5osd: /opt/qm5/conf/qm5_app_comm.conf: the server doesn't take it "
                           "within 4 seconds; see /var/log/qm5osd.log\n");
    EXPECT_TRUE(shows(0, [](const auto &post) { return support::count_shown(post) == 1; }));
    set_limit(20);
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
                           "started without it\n"
                           "qm5osd: /var/log/qm5osd.log.failed: what that server said\n");
    EXPECT_EQ(in_force("Post0Rectangle0On"), "0");
    expect_good(service("stop"));
    allow_breach();
}

TEST_F(Service, start_fails_if_no_server_comes_up)
{
    sim({"fault", "add", "open_device", "every", "fail", "1"});
    const Ended started = service("start");
    EXPECT_EQ(started.status, 7);
    EXPECT_EQ(started.err, "qm5osd: no server came up\n"
                           "qm5osd: /var/log/qm5osd.log.failed: what that server said\n");
    EXPECT_NE(
        read_file(std::string(APPLIANCE_LOG) + ".failed").find("qm5_cl_sys_open_device() failed"),
        std::string::npos);
    EXPECT_EQ(service("status").status, 3);
    expect_good(service("stop"));
}

TEST_F(Service, start_that_fails_leads_to_no_log_that_is_not_of_it)
{
    for (const char *log : {"/opt/missing/log", APPLIANCE_LOG}) {
        write_file(support::APPLIANCE_SETTINGS, std::string("log=") + log + '\n');
        if (log == std::string(APPLIANCE_LOG)) {
            write_file(std::string(APPLIANCE_LOG) + ".failed", "why another start failed\n");
            setenv("LD_LIBRARY_PATH", "/opt/missing", 1); // in which no codec library is
        }
        const Ended started = service("start");
        EXPECT_EQ(started.status, 7);
        EXPECT_TRUE(started.err.ends_with("\nqm5osd: no server came up\n")) << started.err;
        EXPECT_FALSE(fs::exists(std::string(log) + ".failed"));
    }
}

TEST_F(Service, start_that_fails_twice_keeps_what_both_tries_said)
{
    write_file(APPLIANCE_SAVED, "[osd]\nPost0TypeOn=1\n");
    sim({"fault", "add", "open_device", "every", "fail", "1"});
    const std::string between = "qm5osd: without the saved parameters:\n";
    for (int time = 0; time < 2; time++) { // the second start has nothing of the first one
        EXPECT_EQ(service("start").status, 7);
        const std::string said = read_file(std::string(APPLIANCE_LOG) + ".failed");
        const std::string first = said.substr(0, said.find(between));
        EXPECT_NE(first.find("qm5_cl_sys_open_device() failed"), std::string::npos) << said;
        EXPECT_EQ(said, first + between + first);
    }
    EXPECT_FALSE(fs::exists(APPLIANCE_LOG));
    expect_good(service("stop"));
}

TEST_F(Service, start_that_fails_leaves_a_log_that_is_a_device)
{
    write_file(support::APPLIANCE_SETTINGS, "log=/opt/nothing\n");
    fs::create_symlink("/dev/null", "/opt/nothing");
    sim({"fault", "add", "open_device", "every", "fail", "1"});
    EXPECT_EQ(service("start").status, 7);
    EXPECT_TRUE(fs::is_symlink("/opt/nothing"));
    write_file(APPLIANCE_SAVED, "[osd]\nPost0TypeOn=1\n"); // for two tries
    EXPECT_EQ(service("start").status, 7);
    EXPECT_TRUE(fs::is_symlink("/opt/nothing"));
    expect_good(service("stop"));
}

TEST_F(Service, starts_that_fail_keep_the_log_of_the_server_before)
{
    write_file(APPLIANCE_LOG, "why it ended\n");
    sim({"fault", "add", "open_device", "every", "fail", "1"});
    for (int time = 0; time < 3; time++)
        EXPECT_EQ(service("start").status, 7);
    EXPECT_EQ(read_file(std::string(APPLIANCE_LOG) + ".old"), "why it ended\n");
    expect_good(service("stop"));
}

TEST_F(Service, server_that_takes_long_to_come_up_is_waited_for)
{
    if (support::is_emulated())
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
    // The delay begins two seconds behind the start, and leaves the second try most of its limit.
    set_limit(12);
    write_file(APPLIANCE_SAVED, "[osd]\nPost0TypeOn=1\n");
    sim({"post", "0", "open", "720x576"});
    sim({"fault", "add", "open_osd", "next", "delay", "11000"});
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
    if (support::is_emulated())
        GTEST_SKIP() << "an emulator hides the server from the script";
    expect_good(service("start"));
    kill(server(), SIGSTOP);
    expect_killed_by_stop();
}

TEST_F(Service, waits_end_by_the_clock_however_long_a_try_takes)
{
    if (support::is_emulated())
        GTEST_SKIP() << "an emulator hides the server from the script";
    expect_good(service("start"));
    kill(server(), SIGSTOP);
    put_first_in_path("sleep", "echo >>/opt/first/sleeps; exec /bin/sleep 3");
    set_limit(4);
    EXPECT_EQ(service("stop").err,
              "qm5osd: the server didn't stop within 4 seconds and is killed\n");
    EXPECT_LE(read_file("/opt/first/sleeps").size(), 3u); // two, and one for the kill
}

TEST_F(Service, server_of_a_replaced_file_is_killed_too)
{
    if (support::is_emulated())
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
    const pid_t pid = keep_server_from_being_ended();
    set_limit(2);
    for (const char *word : {"stop", "restart"}) {
        const Ended stopped = service(word);
        EXPECT_EQ(stopped.status, 7); // to the unit 1 is a good end
        EXPECT_EQ(stopped.out, "");
        EXPECT_TRUE(stopped.err.ends_with("qm5osd: a server runs still\n")) << stopped.err;
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    expect_good(service("stop"));
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

// ---- The unit -----------------------------------------------------------------------------------

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
    expect_good(service("stop"));
}

// A number of a unit's line, without a word for what it counts.
int unit_number(const std::string &name)
{
    const std::string text = unit_words(name).at(0);
    EXPECT_EQ(text.find_first_not_of("0123456789"), std::string::npos) << name << '=' << text;
    return std::stoi(text);
}

TEST_F(Service, unit_counts_starts_that_fail_however_long_they_take)
{
    EXPECT_GE(unit_number("StartLimitIntervalSec"),
              unit_number("StartLimitBurst") *
                  (unit_number("TimeoutStartSec") + unit_number("RestartSec")));
}

TEST_F(Service, unit_waits_for_the_script_as_long_as_the_document_tells)
{
    const std::string document = read_file(QM5OSD_DOCS "/operations.md");
    const int stop = unit_number("TimeoutStopSec");
    EXPECT_NE(document.find("`TimeoutStopSec` of " + std::to_string(stop) +
                            " seconds suffices up "
                            "to a `limit` of 28."),
              std::string::npos);
    // A wait of the script's own may take a second or two more than the limit: there are six of
    // them in a restart, and two in a stop.
    EXPECT_GT(stop, 60 + 3 * 28 + 2 * 2);
    EXPECT_NE(document.find("five minutes suffice for a `limit` of 25:"), std::string::npos);
    EXPECT_GT(unit_number("TimeoutStartSec"), 60 + 9 * 25 + 6 * 2);
}

TEST_F(Service, unit_has_no_fault_of_form)
{
    const Ended ended = run({"/usr/bin/systemd-analyze", "verify", "--man=no",
                             "--recursive-errors=no", PACKAGING + "/qm5osd.service"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out + ended.err, "");
}

TEST_F(Service, systemd_leaves_the_servers_temporary_files_alone)
{
    expect_good(service("start"));
    // Everything in the temporary folder is old enough to go.
    write_file("/opt/all.conf", "D /tmp 1777 root root 0\n");
    write_file("/tmp/another", "");
    run({"/usr/bin/systemd-tmpfiles", "--clean", PACKAGING + "/qm5osd.tmpfiles", "/opt/all.conf"});
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
    EXPECT_EQ(files, (Words{"etc/init.d/qm5osd", "lib/systemd/system/qm5osd.service",
                            "lib/tmpfiles.d/qm5osd.conf", "osd/bin/qm5osd-service",
                            "share/bash-completion/completions/qm5osd",
                            "share/bash-completion/completions/qm5sim", "share/man/man1/qm5osd.1",
                            "share/man/man1/qm5sim.1", "share/man/man5/qm5_app_comm.conf.5",
                            "share/qm5osd/qm5osd.schema.json"}));
    for (const char *script : {"/opt/new/osd/bin/qm5osd-service", "/opt/new/etc/init.d/qm5osd"})
        EXPECT_EQ(access(script, X_OK), 0) << script;
}

} // namespace
