// Pictures of the simulated codec, held against those that are kept in tests/references.
//
// With QM5OSD_WRITE_REFERENCES=1 in the environment the kept ones are written anew instead, and
// every check fails, for what has been written is to be looked at first.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace support
{

// Does `qm5sim snapshot` with these words find the picture NAME.png there? The picture of a
// difference is left in the folder tests/differences of the build.
testing::AssertionResult matches_reference(const std::string &name,
                                           const std::vector<std::string> &words);

} // namespace support
