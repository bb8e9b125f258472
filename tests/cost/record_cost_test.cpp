// What the record of calls costs the server, in instructions of a pass of its main loop; printed
// and held within its bound.
#include "instructions.h"

#include "support/files.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace
{

using namespace support;

class RecordCost : public testing::Test
{
protected:
    static constexpr const char *STATE = "/tmp/codec";

    void SetUp() override
    {
        setenv("QM5SIM_STATE", STATE, 1);
        // callgrind counts a string instruction once for each of its bytes, and libc copies and
        // clears large memory by one.
        setenv("GLIBC_TUNABLES",
               "glibc.cpu.x86_rep_movsb_threshold=1000000000:"
               "glibc.cpu.x86_rep_stosb_threshold=1000000000",
               1);
        std::filesystem::create_directory(STATE);
    }

    void TearDown() override
    {
        unsetenv("GLIBC_TUNABLES");
        std::filesystem::remove_all(STATE);
    }

    // Instructions of a pass, or of one of the library's functions within it.
    static long count_pass(const char *kind, bool record, const std::string &function = "*::pass(*")
    {
        write_file(std::string(STATE) + "/settings", record ? "record 1\n" : "record 0\n");
        return count_each({PASS_PROGRAM, kind}, 5, 25, function);
    }

    // What the recorder itself adds to a pass, in per cent of one without it.
    static double print_share(const char *kind)
    {
        const long pass = count_pass(kind, false);
        const long library = count_pass(kind, false, "qm5_cl_*");
        const long hash = count_pass(kind, true, "sim_hash_memory*");
        const long recorder = count_pass(kind, true) - pass - hash;
        const auto share = [pass](long part) {
            return 100.0 * static_cast<double>(part) / static_cast<double>(pass);
        };
        std::printf("%8ld instructions without a record, of which\n"
                    "%8ld are the simulated codec's (%.1f %%); with a record\n"
                    "%8ld more of the recorder (%.1f %%) and\n"
                    "%8ld more of the hash of what is shown (%.1f %%)\n",
                    pass, library, share(library), recorder, share(recorder), hash, share(hash));
        EXPECT_GT(recorder, 0);
        return share(recorder);
    }
};

TEST_F(RecordCost, of_the_pass_of_a_second_with_the_time_on_four_posts_stays_under_4_per_cent)
{
    EXPECT_LT(print_share("time"), 4);
}

TEST_F(RecordCost, of_a_pass_that_draws_everything_stays_under_1_per_cent)
{
    EXPECT_LT(print_share("all"), 1);
}

} // namespace
