// qm5sim clock: the time zone block as the tool makes, changes, prints and removes it.
#include "run_sim.h"
#include "support/application.h"
#include "support/rendered_text.h"

#include <cstring>
#include <sys/ptrace.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

using support::Ended;
using support::shows_recent_time;
using support::Words;

constexpr int KEY = 5678;
constexpr std::size_t CHANGE = 35;
constexpr std::size_t ZONE = 36;
constexpr std::size_t SIZE = 100;

int id_of_block()
{
    return shmget(KEY, 0, 0);
}

// The block, made by somebody else if a size is given, and attached.
class Block
{
public:
    explicit Block(std::size_t size = 0)
        : bytes_(static_cast<char *>(
              shmat(shmget(KEY, size, size == 0 ? 0 : IPC_CREAT | IPC_EXCL | 0666), nullptr, 0)))
    {
    }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    ~Block()
    {
        shmdt(bytes_);
    }
    char *bytes() const
    {
        return bytes_;
    }
    std::string zone() const
    {
        return {bytes_ + ZONE, SIZE - ZONE};
    }
    unsigned change() const
    {
        return __atomic_load_n(reinterpret_cast<unsigned char *>(bytes_) + CHANGE,
                               __ATOMIC_ACQUIRE);
    }

private:
    char *bytes_;
};

// All that the block has to hold for this zone.
std::string padded(std::string zone)
{
    zone.resize(SIZE - ZONE);
    return zone;
}

unsigned long attachments()
{
    shmid_ds status = {};
    EXPECT_EQ(shmctl(id_of_block(), IPC_STAT, &status), 0);
    return status.shm_nattch;
}

// A program that stands still before its first instruction.
pid_t start_traced(const Words &words)
{
    std::vector<char *> pointers;
    for (const std::string &word : words)
        pointers.push_back(const_cast<char *>(word.c_str()));
    pointers.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        execv(pointers[0], pointers.data());
        _exit(127);
    }
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    EXPECT_EQ(ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_EXITKILL), 0);
    return pid;
}

// Lets it run to its next stop; false if it ends.
bool go_on(pid_t pid, __ptrace_request how)
{
    int status = 0;
    return ptrace(how, pid, nullptr, nullptr) == 0 && waitpid(pid, &status, 0) == pid &&
           WIFSTOPPED(status);
}

class SimClock : public support::ApplicationTest
{
protected:
    void TearDown() override
    {
        if (id_of_block() != -1)
            shmctl(id_of_block(), IPC_RMID, nullptr);
        ApplicationTest::TearDown();
    }

    static void expect_good(const Words &words, const std::string &out = "")
    {
        const Ended ended = run_sim(words);
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.out, out);
        EXPECT_EQ(ended.err, "");
    }

    static void expect_bad(const Words &words, int status, const std::string &err)
    {
        const Ended ended = run_sim(words);
        EXPECT_EQ(ended.status, status);
        EXPECT_EQ(ended.out, "");
        EXPECT_EQ(ended.err, "qm5sim: " + err + '\n');
    }
};

TEST_F(SimClock, first_zone_makes_the_block)
{
    const mode_t mask = umask(077);
    expect_good({"clock", "EAST-9"});
    umask(mask);
    shmid_ds status = {};
    ASSERT_EQ(shmctl(id_of_block(), IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_segsz, SIZE);
    EXPECT_EQ(status.shm_perm.mode & 0777, 0666);
    EXPECT_EQ(attachments(), 0u);
    EXPECT_EQ(Block().zone(), padded("EAST-9"));
}

TEST_F(SimClock, new_zone_takes_the_place_of_all_of_the_old_one)
{
    const Block block(SIZE);
    std::memset(block.bytes(), 'x', SIZE);
    block.bytes()[CHANGE] = 7;
    expect_good({"clock", "<-03>3"});
    EXPECT_EQ(block.zone(), padded("<-03>3"));
    EXPECT_EQ(block.change(), 8u);
    EXPECT_EQ(std::string(block.bytes(), CHANGE), std::string(CHANGE, 'x'));
}

TEST_F(SimClock, change_byte_differs_after_every_zone)
{
    const Block block(SIZE);
    for (const unsigned before : {0u, 127u, 254u, 255u}) {
        block.bytes()[CHANGE] = static_cast<char>(before);
        expect_good({"clock", "EAST-9"});
        EXPECT_NE(block.change(), before) << "even if the zone is the same";
    }
}

TEST_F(SimClock, change_byte_is_set_alone)
{
    const Block block(SIZE);
    std::memset(block.bytes(), 'x', SIZE);
    expect_good({"clock", "--change", "255"});
    EXPECT_EQ(block.change(), 255u);
    block.bytes()[CHANGE] = 'x';
    EXPECT_EQ(std::string(block.bytes(), SIZE), std::string(SIZE, 'x')) << "all else is kept";
}

TEST_F(SimClock, who_sees_the_byte_change_finds_the_new_zone)
{
    const Block block(SIZE);
    std::memset(block.bytes() + ZONE, 'x', SIZE - ZONE);
    const pid_t pid = start_traced({QM5SIM_PROGRAM, "clock", "EAST-9"});
    while (attachments() == 1)
        ASSERT_TRUE(go_on(pid, PTRACE_SYSCALL));
    while (block.change() == 0) // one instruction after the other
        ASSERT_TRUE(go_on(pid, PTRACE_SINGLESTEP));
    EXPECT_EQ(block.zone(), padded("EAST-9"));

    ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

TEST_F(SimClock, block_may_be_larger_and_keeps_what_lies_behind)
{
    const Block block(SIZE + 10);
    std::memset(block.bytes(), 'x', SIZE + 10);
    expect_good({"clock", "EAST-9"});
    EXPECT_EQ(block.zone(), padded("EAST-9"));
    EXPECT_EQ(std::string(block.bytes() + SIZE, 10), std::string(10, 'x'));
    expect_good({"clock"}, "zone: EAST-9\nchange byte: 121\n");
}

TEST_F(SimClock, zone_fills_the_block_to_its_terminator)
{
    const std::string longest(SIZE - ZONE - 1, 'z');
    expect_bad({"clock", longest + "z"}, 2, longest + "z: longer than 63 bytes");
    EXPECT_EQ(id_of_block(), -1) << "nothing is done";
    expect_good({"clock", longest});
    EXPECT_EQ(Block().zone(), padded(longest));
    expect_good({"clock"}, "zone: " + longest + "\nchange byte: 1\n");
}

TEST_F(SimClock, empty_zone_is_one)
{
    expect_good({"clock", "EAST-9"});
    expect_good({"clock", ""});
    expect_good({"clock"}, "zone: \nchange byte: 2\n");
}

TEST_F(SimClock, text_without_a_terminator_is_printed_to_the_end_of_the_block)
{
    const Block block(SIZE + 1);
    std::memset(block.bytes(), 'x', SIZE + 1);
    expect_good({"clock"}, "zone: " + std::string(SIZE - ZONE, 'x') + "\nchange byte: 120\n");
}

TEST_F(SimClock, missing_block_is_none)
{
    expect_bad({"clock"}, 1, "time zone block: none");
    expect_bad({"clock", "--remove"}, 1, "time zone block: none");
    expect_bad({"clock", "--change", "1"}, 1, "time zone block: none");
    EXPECT_EQ(id_of_block(), -1);
}

TEST_F(SimClock, block_that_is_too_small_is_told_and_can_be_removed)
{
    const Block block(SIZE - 1);
    expect_bad({"clock"}, 1, "time zone block: smaller than 100 bytes");
    expect_bad({"clock", "EAST-9"}, 1, "time zone block: smaller than 100 bytes");
    EXPECT_EQ(std::string(block.bytes(), SIZE - 1), std::string(SIZE - 1, '\0'));
    expect_good({"clock", "--remove"});
    EXPECT_EQ(id_of_block(), -1);
}

TEST_F(SimClock, removed_block_has_gone)
{
    expect_good({"clock", "EAST-9"});
    expect_good({"clock", "--remove"});
    EXPECT_EQ(id_of_block(), -1);
}

TEST_F(SimClock, refuses_words_that_make_no_sense)
{
    for (const Words &words :
         {Words{"clock", "EAST-9", "--remove"}, Words{"clock", "A", "B"},
          Words{"clock", "--set", "A"}, Words{"clock", "--change", "256"},
          Words{"clock", "EAST-9", "--change", "1"}, Words{"clock", "--remove", "--change", "1"}}) {
        const Ended ended = run_sim(words);
        EXPECT_EQ(ended.status, 2);
        EXPECT_EQ(ended.err.rfind("qm5sim: ", 0), 0u) << ended.err;
        EXPECT_EQ(id_of_block(), -1);
    }
}

TEST_F(SimClock, output_that_cannot_be_written_is_a_failure)
{
    expect_good({"clock", "EAST-9"});
    const Ended ended = support::run({"/bin/sh", "-c", QM5SIM_PROGRAM " clock >/dev/full"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "qm5sim: standard output: it can't be written\n");
}

TEST_F(SimClock, help_explains_the_sign)
{
    const Ended ended = run_sim({"clock", "--help"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.out.find("EAST-9 is nine hours ahead of UTC"), std::string::npos) << ended.out;
    EXPECT_NE(ended.out.find("qm5sim clock EAST-9\n"), std::string::npos) << ended.out;
}

TEST_F(SimClock, running_server_follows_the_zone)
{
    constexpr support::TextStyle style = {28, 3, 1};
    expect_good({"clock", "EAST-9"});
    start({"--Post0TimeOn=1"});
    EXPECT_EQ(log(), "") << "the block is there";
    EXPECT_TRUE(shows(0, [&](const sim_reader::Post &post) {
        return shows_recent_time(post.osd[3], 9 * 3600, style);
    }));
    expect_good({"clock", "WEST3:30"});
    EXPECT_TRUE(shows(0, [&](const sim_reader::Post &post) {
        return shows_recent_time(post.osd[3], -3 * 3600 - 1800, style);
    }));
    stop();
}

} // namespace
