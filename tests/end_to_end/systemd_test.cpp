// The unit under a systemd of the test's own: what becomes of a server that is started, stopped and
// killed, by the unit's name and by the service script.
#include "service.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <ranges>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using support::APPLIANCE_LOG;
using support::APPLIANCE_SERVICE;
using support::Ended;
using support::read_file;
using support::run;
using support::wait_until;
using support::Words;
using support::write_file;

// A manager of services, as that of a user's session, since only one process can be the system's.
// It knows the unit and no other, and all that it starts is in a control group of its own.
class Manager
{
public:
    Manager()
    {
        fs::create_directories(
            "/run/systemd/system"); // or else systemd has not started the machine
        fs::create_directories(UNITS);
        fs::copy(QM5OSD_PACKAGING "/qm5osd.service", UNITS);
        for (const char *target : {"basic", "local-fs", "shutdown"})
            write_file(fs::path(UNITS) / (target + std::string(".target")),
                       "[Unit]\nDefaultDependencies=no\n");
        setenv("SYSTEMD_UNIT_PATH", UNITS, 1);
        setenv("XDG_RUNTIME_DIR", "/run", 1);
        mounted_ =
            mount("none", GROUPS, "cgroup2", 0, nullptr) == 0 && fs::create_directory(group_);
        if (mounted_)
            process_.emplace(Words{"/bin/sh", "-c",
                                   "echo $$ >" + group_ +
                                       "/cgroup.procs && exec /usr/lib/systemd/systemd --user "
                                       "--unit=basic.target --log-target=console"});
    }
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;
    ~Manager()
    {
        if (mounted_) {
            write_file(group_ + "/cgroup.kill", "1");
            process_->wait();
            remove_groups();
            umount2(GROUPS, MNT_DETACH);
        }
        unsetenv("SYSTEMD_UNIT_PATH");
        unsetenv("XDG_RUNTIME_DIR");
    }

    // In a container of somebody else's there may be none, and so no manager.
    bool has_group() const
    {
        return mounted_;
    }

    // A failure tells why there is none.
    testing::AssertionResult is_up()
    {
        if (wait_until([] { return ask({"is-active", "basic.target"}).status == 0; }))
            return testing::AssertionSuccess();
        kill(process_->pid(), SIGKILL);
        return testing::AssertionFailure() << process_->wait().err;
    }

    static Ended ask(const Words &words)
    {
        Words all = {"/usr/bin/systemctl", "--user"};
        all.insert(all.end(), words.begin(), words.end());
        return run(all);
    }

private:
    static constexpr const char *UNITS = "/run/units";
    static constexpr const char *GROUPS = "/sys/fs/cgroup";

    // The kernel lets a group go when its processes have ended.
    void remove_groups() const
    {
        std::vector<fs::path> groups = {group_};
        for (const auto &entry : fs::recursive_directory_iterator(group_)) {
            if (entry.is_directory())
                groups.push_back(entry);
        }
        for (const fs::path &group : groups | std::views::reverse)
            EXPECT_TRUE(wait_until([&] { return rmdir(group.c_str()) == 0; })) << group;
    }

    const std::string group_ = GROUPS + std::string("/qm5osd-test-") + std::to_string(getpid());
    bool mounted_ = false;
    std::optional<support::Process> process_;
};

class Systemd : public support::Service
{
protected:
    void SetUp() override
    {
        Service::SetUp();
        if (HasFailure())
            return;
        put_first_in_path("systemctl", "exec /usr/bin/systemctl --user \"$@\"");
        manager_.emplace();
        if (!manager_->has_group())
            GTEST_SKIP() << "no control group can be made here";
        ASSERT_TRUE(manager_->is_up());
    }
    void TearDown() override
    {
        EXPECT_EQ(service("stop").status, 0);
        manager_.reset();
        Service::TearDown();
    }

    static Ended systemctl(const std::string &word)
    {
        return Manager::ask({word, "qm5osd"});
    }

    // A property of the unit, as MainPID.
    static std::string property(const std::string &name)
    {
        const std::string text = Manager::ask({"show", "-p", name, "--value", "qm5osd"}).out;
        return text.substr(0, text.find('\n'));
    }

    static bool comes_to(const std::string &state)
    {
        return wait_until([&] { return property("ActiveState") == state; });
    }

    // One server runs, and it is the unit's.
    void expect_server_of_unit() const
    {
        EXPECT_EQ(property("ActiveState"), "active");
        EXPECT_EQ(property("MainPID"), std::to_string(server()));
    }

    std::optional<Manager> manager_;
};

TEST_F(Systemd, unit_starts_and_stops_the_server)
{
    expect_good(systemctl("start"));
    expect_server_of_unit();
    expect_good(systemctl("stop"));
    EXPECT_EQ(property("ActiveState"), "inactive");
    EXPECT_EQ(service("status").status, 3);
}

TEST_F(Systemd, unit_takes_the_place_of_a_server_that_was_started_by_hand)
{
    EXPECT_EQ(tool({"start", "-l", "/var/log/by_hand"}).status, 0);
    expect_good(systemctl("start"));
    expect_server_of_unit();
}

TEST_F(Systemd, stop_by_hand_is_no_failure)
{
    expect_good(systemctl("start"));
    EXPECT_EQ(tool({"stop"}).status, 0);
    EXPECT_TRUE(comes_to("inactive"));
    EXPECT_EQ(property("Result"), "success");
    EXPECT_EQ(property("NRestarts"), "0");
}

TEST_F(Systemd, server_that_a_signal_ends_is_started_again)
{
    expect_good(systemctl("start"));
    for (const int signal : {SIGKILL, SIGABRT, SIGTERM, SIGHUP, SIGINT}) {
        const pid_t before = server();
        kill(before, signal);
        EXPECT_TRUE(wait_until([&] {
            return property("MainPID") != std::to_string(before) && service("status").status == 0 &&
                   property("ActiveState") == "active";
        })) << strsignal(signal);
        expect_server_of_unit();
        expect_good(systemctl("reset-failed")); // so many in so short a time are too many
    }
}

TEST_F(Systemd, start_that_fails_is_not_tried_for_ever)
{
    fs::rename("/opt/qm5/conf/qm5_app_comm.conf", "/opt/away");
    EXPECT_EQ(systemctl("start").status, 1);
    EXPECT_TRUE(comes_to("failed"));
    EXPECT_EQ(property("NRestarts"), "5");
    fs::rename("/opt/away", "/opt/qm5/conf/qm5_app_comm.conf");
    EXPECT_EQ(systemctl("start").status, 1); // one more would be too many
    expect_good(service("start"));
    expect_server_of_unit();
}

TEST_F(Systemd, start_fails_until_another_server_that_cant_be_ended_is_gone)
{
    EXPECT_EQ(tool({"start", "-l", "/var/log/by_hand"}).status, 0);
    const pid_t another = keep_server_from_being_ended();
    set_limit(2);
    EXPECT_EQ(service("restart").status, 1);
    EXPECT_TRUE(wait_until([] {
        return property("SubState") == "auto-restart" && property("Result") == "exit-code" &&
               property("ExecStart").find(" status=7 ") != std::string::npos;
    })) << property("SubState")
        << property("Result") << property("ExecStart");
    EXPECT_EQ(property("ActiveState"), "activating");
    kill(another, SIGKILL);
    EXPECT_EQ(waitpid(another, nullptr, 0), another);
    set_limit(20);
    EXPECT_TRUE(comes_to("active"));
    expect_server_of_unit();
}

TEST_F(Systemd, log_of_the_server_that_ended_outlives_starts_that_fail)
{
    expect_good(systemctl("start"));
    write_file(APPLIANCE_LOG, "why it ended\n");
    sim({"fault", "add", "open_device", "every", "fail", "1"});
    kill(server(), SIGKILL);
    EXPECT_TRUE(wait_until([] { return std::stoi(property("NRestarts")) >= 3; }));
    EXPECT_EQ(read_file(std::string(APPLIANCE_LOG) + ".old"), "why it ended\n");
}

TEST_F(Systemd, words_of_the_script_are_the_units)
{
    expect_good(service("start"));
    expect_server_of_unit();
    for (const char *word : {"restart", "force-reload", "try-restart"}) {
        const pid_t before = server();
        expect_good(service(word));
        expect_server_of_unit();
        EXPECT_NE(server(), before);
    }
    expect_good(service("stop"));
    EXPECT_EQ(property("ActiveState"), "inactive");
    for (const char *word : {"try-restart", "force-reload"}) {
        expect_good(service(word));
        EXPECT_EQ(service("status").status, 3);
    }
    fs::remove("/opt/qm5/conf/qm5_app_comm.conf");
    EXPECT_EQ(service("start").status, 1);
}

TEST_F(Systemd, stop_by_the_script_is_for_a_server_that_the_unit_does_not_know_too)
{
    EXPECT_EQ(tool({"start", "-l", "/var/log/by_hand"}).status, 0);
    expect_good(service("start"), "qm5osd: a server runs already\n");
    EXPECT_EQ(property("ActiveState"), "inactive");
    expect_good(service("stop"));
    EXPECT_EQ(service("status").status, 3);
}

TEST_F(Systemd, restart_by_the_script_replaces_a_server_that_hangs)
{
    set_limit(3);
    expect_good(service("start"));
    const pid_t before = server();
    kill(before, SIGSTOP);
    expect_good(service("restart"));
    expect_server_of_unit();
    EXPECT_NE(server(), before);
}

} // namespace
