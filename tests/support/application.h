// The staged application on the simulated codec, run as its users run it.
#pragma once

#include "sim_reader.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <string>

namespace support
{

// What every run of the tool prints on a machine without the time zone block.
constexpr const char *NO_ZONE = "shmget error!!!\n";

// Each test has a codec of its own with four post threads, and no server at its beginning and end.
class ApplicationTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Runs the tool with these words behind its name.
    Ended tool(const Words &words) const;

    // `start` with further words; the server's output goes where the tool's does, into `log`.
    void start(const Words &words = {});

    // What the server has written since its start, on either stream.
    std::string log() const;

    // Stops the server and waits for its end.
    void stop();

    // At the end of a test, of which the application still has the codec's folder: no server is
    // left, and none has broken the codec's contract. TearDown does it too.
    void end_application() const;

    // The post as the picture shows it now.
    sim_reader::Post post(unsigned number) const;

    // Waits until the post's picture meets the condition.
    testing::AssertionResult
    shows(unsigned number, const std::function<bool(const sim_reader::Post &)> &condition) const;

    // Gives a post thread another size, or ends it for 0 by 0.
    void set_post(unsigned number, unsigned width, unsigned height) const;

    std::string executable_;
    std::string state_ = "/tmp/codec";
};

// How many OSDs of the post are on its picture.
unsigned count_shown(const sim_reader::Post &post);

} // namespace support
