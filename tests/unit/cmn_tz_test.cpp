// The time zone from shared memory. What is attached stays so to the end of the process, so each
// story is told by a child of its own.
#include "common/cmn.h"
#include "support/osd_test.h"
#include "support/trace.h"
#include "support/wraps.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <string>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace
{

// Runs once, at the end of the next setenv.
std::function<void()> behind_setenv;

} // namespace

// The one that the wrapped calls end in.
extern "C" int setenv(const char *name, const char *value, int overwrite) noexcept
{
    static const auto real = reinterpret_cast<decltype(&setenv)>(dlsym(RTLD_NEXT, "setenv"));
    const int result = real(name, value, overwrite);
    if (behind_setenv)
        std::exchange(behind_setenv, nullptr)();
    return result;
}

namespace
{

using support::output_of;

constexpr std::size_t CHANGE = 35;
constexpr std::size_t ZONE = 36;
constexpr std::size_t SIZE = 100;

// What another program of the appliance keeps.
class Block
{
public:
    explicit Block(std::size_t size = SIZE)
        : id_(shmget(5678, size, IPC_CREAT | IPC_EXCL | 0666)),
          bytes_(static_cast<char *>(shmat(id_, nullptr, 0)))
    {
        EXPECT_GE(id_, 0);
    }
    Block(const Block &) = delete;
    Block &operator=(const Block &) = delete;
    ~Block()
    {
        shmdt(bytes_);
        shmctl(id_, IPC_RMID, nullptr);
    }
    void set(int change, const std::string &zone)
    {
        std::memcpy(bytes_ + ZONE, zone.c_str(), zone.size() + 1);
        set_change(change);
    }
    void set_change(int change)
    {
        bytes_[CHANGE] = static_cast<char>(change);
    }
    std::string bytes() const
    {
        return {bytes_, SIZE};
    }
    unsigned long attachments() const
    {
        shmid_ds status = {};
        EXPECT_EQ(shmctl(id_, IPC_STAT, &status), 0);
        return status.shm_nattch;
    }

private:
    int id_;
    char *bytes_;
};

bool block_exists()
{
    return shmget(5678, 0, 0) >= 0;
}

// What a child that does this writes to stdout: its messages, then the trace, line by line.
std::string story(const std::function<void()> &action)
{
    return output_of([&] {
        const pid_t child = fork();
        if (child == 0) {
            action();
            for (const std::string &line : support::trace())
                printf("%s\n", line.c_str());
            fflush(stdout);
            _exit(0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    });
}

class CmnTz : public support::OsdTest
{
};

// Adds TZ and the local hour of 1970-01-01 00:00:00 UTC to the trace.
void look()
{
    wraps::set_clock(0, 0);
    cmn_st_cdatetime record;
    cmn_get_st_cdatetime(&record);
    const char *zone = getenv("TZ");
    support::add_trace("%s: %.2s", zone ? zone : "none", record.hour);
}

void trace_all()
{
    wraps::trace(wraps::SHMGET);
    wraps::trace(wraps::SHMAT);
    wraps::trace(wraps::SETENV);
}

// An update whose setenv goes to the trace.
void update()
{
    wraps::trace(wraps::SETENV);
    cmn_tz_update();
}

// ---- Attaching ----------------------------------------------------------------------------------

TEST_F(CmnTz, block_is_attached_where_the_system_likes)
{
    const Block block;
    EXPECT_EQ(story([&] {
                  trace_all();
                  const unsigned long before = block.attachments();
                  cmn_tz_attach();
                  EXPECT_EQ(block.attachments(), before + 1);
              }),
              "shmget(5678, 100, 0666)\n"
              "shmat(NULL, 0)\n");
}

TEST_F(CmnTz, missing_block_is_told_on_stdout_and_not_created)
{
    EXPECT_EQ(story([] {
                  trace_all();
                  cmn_tz_attach();
                  EXPECT_FALSE(block_exists());
              }),
              "shmget error!!!\n"
              "shmget(5678, 100, 0666)\n"
              "shmget(5678, 0, 00)\n");
}

TEST_F(CmnTz, block_that_is_too_small_is_none)
{
    const Block block(SIZE - 1);
    EXPECT_EQ(story([&] {
                  const unsigned long before = block.attachments();
                  cmn_tz_attach();
                  EXPECT_EQ(block.attachments(), before);
              }),
              "shmget error!!!\n");
}

TEST_F(CmnTz, block_may_be_larger)
{
    Block block(SIZE + 1);
    block.set(1, "EAST-9");
    EXPECT_EQ(story([] {
                  cmn_tz_attach();
                  update();
              }),
              "setenv(TZ, EAST-9, 1)\n");
}

TEST_F(CmnTz, block_that_cannot_be_attached_is_told_on_stdout)
{
    Block block;
    block.set(1, "EAST-9");
    EXPECT_EQ(story([&] {
                  trace_all();
                  wraps::fail(wraps::SHMAT, 1, EACCES);
                  cmn_tz_attach();
                  cmn_tz_update();
                  look();
              }),
              "shmat error!!!\n"
              "shmget(5678, 100, 0666)\n"
              "shmat(NULL, 0)\n"
              "none: 00\n");
}

TEST_F(CmnTz, process_goes_on_in_the_zone_of_its_environment_without_a_block)
{
    setenv("TZ", "WEST5", 1);
    EXPECT_EQ(story([] {
                  cmn_tz_attach();
                  update();
                  look();
              }),
              "shmget error!!!\n"
              "WEST5: 19\n");
}

TEST_F(CmnTz, block_that_comes_later_is_not_seen)
{
    EXPECT_EQ(story([] {
                  cmn_tz_attach();
                  Block block;
                  block.set(1, "EAST-9");
                  update();
                  look();
              }),
              "shmget error!!!\n"
              "none: 00\n");
}

// ---- Updates ------------------------------------------------------------------------------------

TEST_F(CmnTz, update_without_an_attachment_does_nothing)
{
    Block block;
    block.set(1, "EAST-9");
    EXPECT_EQ(story([] {
                  update();
                  look();
              }),
              "none: 00\n");
}

TEST_F(CmnTz, first_look_takes_the_zone_whatever_the_byte)
{
    for (const int change : {0, 1, 127, 128, 254, 255}) {
        Block block;
        block.set(change, "EAST-9");
        EXPECT_EQ(story([] {
                      cmn_tz_attach();
                      update();
                      update();
                      look();
                  }),
                  "setenv(TZ, EAST-9, 1)\n"
                  "EAST-9: 09\n")
            << change;
    }
}

TEST_F(CmnTz, zone_is_taken_at_every_change_of_the_byte_and_only_then)
{
    Block block;
    EXPECT_EQ(story([&] {
                  cmn_tz_attach();
                  for (const int change : {254, 255, 255, 0, 0, 1, 0, 128, 127, 127}) {
                      support::add_trace("%d", change);
                      block.set_change(change);
                      update();
                  }
              }),
              "254\nsetenv(TZ, , 1)\n"
              "255\nsetenv(TZ, , 1)\n"
              "255\n"
              "0\nsetenv(TZ, , 1)\n"
              "0\n"
              "1\nsetenv(TZ, , 1)\n"
              "0\nsetenv(TZ, , 1)\n"
              "128\nsetenv(TZ, , 1)\n"
              "127\nsetenv(TZ, , 1)\n"
              "127\n");
}

TEST_F(CmnTz, new_zone_behind_the_same_byte_is_not_seen)
{
    Block block;
    EXPECT_EQ(story([&] {
                  cmn_tz_attach();
                  block.set(7, "EAST-9");
                  update();
                  block.set(7, "WEST5");
                  update();
                  look();
                  block.set_change(8);
                  update();
                  look();
              }),
              "setenv(TZ, EAST-9, 1)\n"
              "EAST-9: 09\n"
              "setenv(TZ, WEST5, 1)\n"
              "WEST5: 19\n");
}

TEST_F(CmnTz, zone_takes_the_place_of_that_of_the_environment)
{
    setenv("TZ", "WEST5", 1);
    Block block;
    block.set(0, "EAST-9");
    EXPECT_EQ(story([] {
                  cmn_tz_attach();
                  look();
                  cmn_tz_update();
                  look();
              }),
              "WEST5: 19\n"
              "EAST-9: 09\n");
}

TEST_F(CmnTz, zone_may_reach_to_the_end_of_the_block)
{
    const std::string zone = "EAST-9" + std::string(SIZE - ZONE - 1 - 6, 'x');
    Block block;
    block.set(0, zone);
    EXPECT_EQ(story([] {
                  cmn_tz_attach();
                  update();
              }),
              "setenv(TZ, " + zone + ", 1)\n");
}

TEST_F(CmnTz, byte_counts_as_seen_even_if_the_zone_cannot_be_set)
{
    Block block;
    block.set(1, "EAST-9");
    EXPECT_EQ(story([] {
                  cmn_tz_attach();
                  wraps::fail(wraps::SETENV, 1, ENOMEM);
                  update();
                  update();
                  look();
              }),
              "setenv(TZ, EAST-9, 1)\n"
              "none: 00\n");
}

TEST_F(CmnTz, byte_is_read_again_after_the_zone_has_been_set)
{
    Block block;
    block.set(1, "EAST-9");
    EXPECT_EQ(story([&] {
                  cmn_tz_attach();
                  behind_setenv = [&] { block.set(2, "WEST5"); };
                  update();
                  update(); // byte 2 has been seen, but not the zone that came with it
                  look();
                  block.set_change(1);
                  update();
              }),
              "setenv(TZ, EAST-9, 1)\n"
              "EAST-9: 09\n"
              "setenv(TZ, WEST5, 1)\n");
}

TEST_F(CmnTz, block_is_never_written_and_stays_attached)
{
    Block block;
    block.set(3, "EAST-9");
    const std::string before = block.bytes();
    EXPECT_EQ(story([&] {
                  cmn_tz_attach();
                  const unsigned long attached = block.attachments();
                  update();
                  update();
                  EXPECT_EQ(block.attachments(), attached);
              }),
              "setenv(TZ, EAST-9, 1)\n");
    EXPECT_EQ(block.bytes(), before);
}

TEST_F(CmnTz, bytes_before_the_change_byte_mean_nothing)
{
    Block block;
    block.set(3, "EAST-9");
    EXPECT_EQ(story([&] {
                  cmn_tz_attach();
                  update();
                  auto *bytes = static_cast<char *>(shmat(shmget(5678, SIZE, 0), nullptr, 0));
                  std::memset(bytes, 'x', CHANGE);
                  update();
                  shmdt(bytes);
              }),
              "setenv(TZ, EAST-9, 1)\n");
}

TEST_F(CmnTz, forked_server_inherits_the_block_and_what_was_seen_of_it)
{
    Block block;
    block.set(3, "EAST-9");
    EXPECT_EQ(story([&] {
                  cmn_tz_attach();
                  update();
                  const pid_t server = fork();
                  if (server != 0) {
                      int status = -1;
                      waitpid(server, &status, 0);
                      _exit(status);
                  }
                  update();
                  block.set(4, "WEST5");
                  update();
                  look();
              }),
              "setenv(TZ, EAST-9, 1)\n"
              "setenv(TZ, WEST5, 1)\n"
              "WEST5: 19\n");
}

} // namespace
