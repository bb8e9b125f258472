// Counting instructions with callgrind, which finds the same for the same program on every run,
// however busy the machine is. What the kernel does isn't counted, and the reading of the clock is
// its work there.
#pragma once

#include "support/process.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace support
{

// Instructions of a whole run, or within the functions that `function` names; -1 if callgrind
// doesn't say.
inline long count_run(const Words &program, const std::string &function = "")
{
    Words words = {VALGRIND_PROGRAM, "--tool=callgrind", "--callgrind-out-file=/dev/null"};
    if (!function.empty())
        words.push_back("--toggle-collect=" + function);
    words.insert(words.end(), program.begin(), program.end());
    const Ended ended = run(words);
    std::smatch found;
    const std::regex total("Collected : (\\d+)");
    if (ended.status != 0 || !std::regex_search(ended.err, found, total))
        return -1;
    return std::stol(found[1]);
}

// The same for each of what a program does as often as its last word says.
inline long count_each(Words program, int few, int many, const std::string &function = "")
{
    program.push_back(std::to_string(few));
    const long less = count_run(program, function);
    program.back() = std::to_string(many);
    const long more = count_run(program, function);
    EXPECT_GT(less, 0);
    EXPECT_GT(more, less);
    return (more - less) / (many - few);
}

} // namespace support
