// The fixture of all unit tests. Each test begins with a process as main finds it and an empty
// temporary folder, and must leave neither a file there nor an open descriptor behind.
#pragma once

#include "display/post.h"
#include "support/files.h"
#include "support/trace.h"

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace support
{

class OsdTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

private:
    std::vector<std::string> descriptors_;
};

// What stdout and stderr got while `action` ran, in whole: written to the descriptors 1 and 2 by
// this process or by its children.
struct Output {
    std::string out;
    std::string err;
};
Output capture(const std::function<void()> &action);

// The same for stderr alone, or stdout alone; the other must stay empty.
std::string errors_of(const std::function<void()> &action);
std::string output_of(const std::function<void()> &action);

// A command line as main gets it: writable texts and a NULL behind them.
class CommandLine
{
public:
    CommandLine(std::initializer_list<std::string> words);
    int argc() const;
    char **argv();

private:
    std::vector<std::string> words_;
    std::vector<char *> pointers_;
};

// A real font with an outline, which every machine that builds this has.
std::string real_font();

} // namespace support
