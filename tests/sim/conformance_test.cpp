// The program that holds a codec library against what the application counts on: what it says of
// one that it can't use, or that fails.
#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace
{

using support::Ended;

Ended conformance_of(const std::string &library,
                     const std::string &test = "status_has_the_size_of_the_video")
{
    return support::run({CONFORMANCE, library, "--gtest_filter=Conformance." + test});
}

TEST(ConformanceProgram, library_that_cannot_be_used_is_told_in_one_line)
{
    support::write_file("/tmp/empty.so", "");
    support::write_file("/tmp/text.so", std::string(5000, 'x'));
    const struct {
        std::string path;
        std::string why;
    } rows[] = {
        {"/tmp/none.so", "cannot open shared object file: No such file or directory"},
        {"/tmp/empty.so", "file too short"},
        {"/tmp/text.so", "invalid ELF header"},
        {"libm.so.6", "it has no qm5_cl_library_init"},
    };
    for (const auto &[path, why] : rows) {
        const Ended ended = conformance_of(path);
        EXPECT_EQ(ended.status, 1) << path;
        EXPECT_EQ(ended.err, "conformance: " + path + ": " + why + "\n");
        EXPECT_EQ(ended.out, "") << path;
    }
    std::filesystem::remove("/tmp/empty.so");
    std::filesystem::remove("/tmp/text.so");
}

// Its tests run in processes of their own, whose failures are the program's.
TEST(ConformanceProgram, library_that_fails_a_test_is_told_with_it)
{
    const Ended ended = conformance_of(THRIFTY_CODEC); // which tells no size
    EXPECT_EQ(ended.status, 1);
    EXPECT_NE(ended.out.find("Expected: (size.width) > (0u), actual: 0 vs 0"), std::string::npos)
        << ended.out;
    EXPECT_NE(ended.out.find("[  FAILED  ] Conformance.status_has_the_size_of_the_video"),
              std::string::npos)
        << ended.out;
}

TEST(ConformanceProgram, byte_written_beside_what_was_handed_over_fails_a_test)
{
    const std::string test = "cleared_osd_stays_open";
    EXPECT_EQ(conformance_of(THRIFTY_CODEC, test).status, 0);
    for (const std::string where : {"before ", "behind "}) {
        for (const char *what : {"status", "param", "handle", "aux", "line_bytes", "mem"}) {
            setenv("STRAY_WRITE", (where + what).c_str(), 1);
            const Ended ended = conformance_of(THRIFTY_CODEC, test);
            EXPECT_EQ(ended.status, 1) << where << what;
            EXPECT_NE(ended.out.find("bytes around what the library may write have changed"),
                      std::string::npos)
                << where << what << ": " << ended.out;
        }
    }
    unsetenv("STRAY_WRITE");
}

// A simulated codec with such a fault, and what a test of changing posts says of it.
TEST(ConformanceProgram, library_that_goes_wrong_as_posts_change_fails_a_test)
{
    const struct {
        std::string fault;
        const char *test;
        const char *says;
    } rows[] = {
        {"notify 2 double post 3", "each_post_that_closes_and_opens_is_told_once",
         "running, closed, opened"},
        {"notify 3 double post 3", "each_post_that_closes_and_opens_is_told_once",
         "running, closed, opened"},
        {"notify 3 double post 1", "each_post_that_closes_and_opens_is_told_once",
         "running, closed, opened"},
        {"open_osd 9 fail refused", "post_may_close_and_open_during_any_call",
         "-1, errno 0x81E03246"},
        {"get_osd_mem every size 4", "post_may_close_and_open_during_any_call", "osd.size"},
        {"notify 5 double post 0", "post_may_close_and_open_during_any_call", "2 * CHANGES"},
    };
    setenv("QM5SIM_STATE", "/tmp/codec", 1);
    for (const auto &[fault, test, says] : rows) {
        std::filesystem::create_directory("/tmp/codec");
        support::write_file("/tmp/codec/faults", "1 " + fault + '\n');
        const Ended ended = support::run(
            {CONFORMANCE, QM5OSD_STAGE "/osd/lib/libqm5codec.so.1.2", QM5SIM_PROGRAM " post",
             std::string("--gtest_filter=ConformanceOfPosts.") + test});
        EXPECT_EQ(ended.status, 1) << fault;
        EXPECT_NE(ended.out.find(says), std::string::npos) << fault << ": " << ended.out;
        std::filesystem::remove_all("/tmp/codec");
    }
    unsetenv("QM5SIM_STATE");
}

} // namespace
