// Records of calls as the simulated codec library writes them, made for tests of what reads them.
#pragma once

#include "sim_calls.h"
#include "sim_state.h"
#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <unistd.h>
#include <vector>

namespace support
{

namespace fs = std::filesystem;

// 2026-03-04T05:06:07.000008Z and some nanoseconds.
inline constexpr std::uint64_t SOME_TIME = 1772600767000008999;

inline sim_call_record call_of(sim_operation operation,
                               std::initializer_list<std::uint32_t> arguments = {},
                               std::initializer_list<std::uint32_t> given = {})
{
    sim_call_record call{};
    call.time = SOME_TIME;
    call.duration = 12345;
    call.thread = 700;
    call.operation = operation;
    std::copy(arguments.begin(), arguments.end(), call.argument);
    std::copy(given.begin(), given.end(), call.given);
    return call;
}

inline sim_call_record failed(sim_call_record call, std::uint32_t error)
{
    call.result = -1;
    call.error = error;
    return call;
}

inline sim_call_record notify(std::uint32_t res_id, std::uint32_t post, std::uint32_t opened)
{
    sim_call_record call = call_of(SIM_NOTIFY, {res_id, post, opened});
    call.thread = 701;
    return call;
}

inline sim_calls_head head_of(std::uint64_t count)
{
    sim_calls_head head{};
    head.magic = SIM_CALLS_MAGIC;
    head.version = SIM_CALLS_VERSION;
    head.record_size = sizeof(sim_call_record);
    head.count = count;
    return head;
}

template <typename Record>
std::string bytes_of(const Record &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

typedef std::vector<sim_call_record> CallList;

inline std::string record_of(const CallList &calls)
{
    std::string bytes = bytes_of(head_of(calls.size()));
    for (const sim_call_record &call : calls)
        bytes += bytes_of(call);
    return bytes;
}

// Adds a call as the library does: first the call, then the count.
inline void append_call(const std::string &path, const sim_call_record &call)
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(fd, -1);
    sim_calls_head head{};
    ASSERT_EQ(pread(fd, &head, sizeof head, 0), ssize_t{sizeof head});
    const auto end = static_cast<off_t>(sizeof head + head.count * sizeof call);
    ASSERT_EQ(pwrite(fd, &call, sizeof call, end), ssize_t{sizeof call});
    head.count++;
    ASSERT_EQ(pwrite(fd, &head, sizeof head, 0), ssize_t{sizeof head});
    close(fd);
}

// Each test has a state folder of its own, without a server.
class RecordTest : public testing::Test
{
protected:
    static constexpr const char *STATE = "/tmp/codec";
    static constexpr const char *CALLS = "/tmp/codec/calls";
    static constexpr const char *DATA = "/tmp/codec/calls.data";

    void SetUp() override
    {
        setenv("QM5SIM_STATE", STATE, 1);
        fs::create_directory(STATE);
    }

    void TearDown() override
    {
        fs::remove_all(STATE);
        EXPECT_EQ(temporary_files(), std::vector<std::string>{});
    }

    static Words sim_words(const Words &words)
    {
        Words all = {QM5SIM_PROGRAM};
        all.insert(all.end(), words.begin(), words.end());
        return all;
    }

    static Ended sim(const Words &words)
    {
        return run(sim_words(words));
    }

    // It ended with this exit status, these words behind its name on stderr and nothing on stdout.
    static testing::AssertionResult failed_with(const Ended &ended, int status,
                                                const std::string &why)
    {
        if (ended.status == status && ended.err == "qm5sim: " + why + "\n" && ended.out.empty())
            return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "status " << ended.status << "\n"
               << ended.err << ended.out << "instead of " << status << "\nqm5sim: " << why;
    }
};

} // namespace support
