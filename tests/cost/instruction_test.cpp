// How many instructions the composition of the time string takes, clearing and background included.
// callgrind counts the same for the same program on every run, however busy the machine is.
#include "support/process.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace
{

// Instructions of a whole run; -1 if callgrind doesn't say.
long count_run(int size, int compositions)
{
    const support::Ended ended =
        support::run({VALGRIND_PROGRAM, "--tool=callgrind", "--callgrind-out-file=/dev/null",
                      COMPOSE_PROGRAM, std::to_string(size), std::to_string(compositions)});
    std::smatch found;
    const std::regex total("Collected : (\\d+)");
    if (ended.status != 0 || !std::regex_search(ended.err, found, total))
        return -1;
    return std::stol(found[1]);
}

long count_composition(int size)
{
    const long few = count_run(size, 10);
    const long many = count_run(size, 60);
    EXPECT_GT(few, 0);
    EXPECT_GT(many, few);
    return (many - few) / 50;
}

TEST(Instructions, time_string_of_28_lines_stays_under_12000)
{
    const long count = count_composition(28);
    RecordProperty("instructions", static_cast<int>(count));
    std::printf("%ld instructions\n", count);
    EXPECT_LE(count, 12000);
}

TEST(Instructions, time_string_of_75_lines_stays_under_40000)
{
    const long count = count_composition(75);
    RecordProperty("instructions", static_cast<int>(count));
    std::printf("%ld instructions\n", count);
    EXPECT_LE(count, 40000);
}

} // namespace
