// main of every test program.
#include "support/sandbox.h"

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!GTEST_FLAG_GET(list_tests))
        support::enter_sandbox();
    return RUN_ALL_TESTS();
}
