// How many instructions the composition of the time string takes, clearing and background included.
#include "instructions.h"

namespace
{

long count_composition(int size)
{
    return support::count_each({COMPOSE_PROGRAM, std::to_string(size)}, 10, 60);
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
