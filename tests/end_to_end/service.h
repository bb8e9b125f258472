// The application as a service of the appliance, by its service script.
#pragma once

#include "support/appliance.h"
#include "support/application.h"
#include "support/files.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace support
{

// Then the script can't see which executable a process runs.
inline bool is_emulated()
{
    return getenv("QEMU_LD_PREFIX") != nullptr;
}

class Service : public ApplicationTest
{
protected:
    void SetUp() override
    {
        ApplicationTest::SetUp();
        executable_ = APPLIANCE_PROGRAM;
        appliance_.emplace();
        if (HasFailure())
            return;
        std::filesystem::create_directory(state_);
    }
    void TearDown() override
    {
        ApplicationTest::TearDown();
        appliance_.reset();
        setenv("PATH", path_.c_str(), 1);
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

    pid_t server() const
    {
        const std::vector<pid_t> servers = processes_of(executable_);
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

    // Lines for the common parameter file, behind those that it has.
    static void add_to_common(const std::string &lines)
    {
        write_file(APPLIANCE_COMMON, read_file(APPLIANCE_COMMON) + lines);
    }

    // Takes away what tells of a breach, behind a server that the test had end by one.
    void allow_breach() const
    {
        while (waitpid(-1, nullptr, WNOHANG) > 0)
            continue;
        std::filesystem::remove(state_ + "/breaches");
    }

    // Shorter waits than the script's own, for those that have to come to their end.
    static void set_limit(int seconds)
    {
        write_file(APPLIANCE_SETTINGS, "limit=" + std::to_string(seconds) + '\n');
    }

    // Has the server hang, and run a file that the script doesn't know. It goes by a signal to its
    // ID.
    pid_t keep_server_from_being_ended() const
    {
        const pid_t pid = server();
        kill(pid, SIGSTOP);
        const std::string away = std::string(APPLIANCE_PROGRAM) + ".away";
        std::filesystem::rename(APPLIANCE_PROGRAM, away);
        std::filesystem::copy(away, APPLIANCE_PROGRAM);
        return pid;
    }

    // Has the script and what it calls run a few lines of the shell in a command's place.
    void put_first_in_path(const std::string &command, const std::string &lines) const
    {
        const std::filesystem::path folder = "/opt/first";
        std::filesystem::create_directory(folder);
        write_file(folder / command, "#!/bin/sh\n" + lines + '\n');
        std::filesystem::permissions(folder / command, std::filesystem::perms::owner_all);
        setenv("PATH", (folder.string() + ':' + path_).c_str(), 1);
    }

    static void expect_killed_by_stop()
    {
        set_limit(2);
        const Ended stopped = service("stop");
        EXPECT_EQ(stopped.status, 0);
        EXPECT_EQ(stopped.err, "qm5osd: the server didn't stop within 2 seconds and is killed\n");
        EXPECT_EQ(service("status").status, 3);
    }

    const std::string path_ = getenv("PATH");
    std::optional<Appliance> appliance_;
};

} // namespace support
