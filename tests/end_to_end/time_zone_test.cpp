// The time zone block of shared memory, and its change while the server runs.
#include "common/cmn.h"
#include "support/application.h"
#include "support/rendered_text.h"

#include <cstdio>
#include <cstring>
#include <sys/shm.h>

namespace
{

using support::shows_recent_time;

constexpr support::TextStyle ZONE_STYLE = {28, 3, 1};

// The block as the appliance's other program makes it.
class ZoneBlock
{
public:
    ZoneBlock()
        : id_(shmget(CMN_TZ_KEY, sizeof(cmn_tz_block), IPC_CREAT | CMN_TZ_MODE)),
          block_(static_cast<cmn_tz_block *>(shmat(id_, nullptr, 0)))
    {
    }
    ZoneBlock(const ZoneBlock &) = delete;
    ZoneBlock &operator=(const ZoneBlock &) = delete;
    ~ZoneBlock()
    {
        shmdt(block_);
        shmctl(id_, IPC_RMID, nullptr);
    }
    void set(const char *zone, std::uint8_t change)
    {
        std::snprintf(block_->zone, sizeof block_->zone, "%s", zone);
        block_->change = change;
    }

private:
    int id_;
    cmn_tz_block *block_;
};

class TimeZone : public support::ApplicationTest
{
};

TEST_F(TimeZone, block_sets_the_zone_and_changes_it_at_run_time)
{
    ZoneBlock block;
    block.set("EAST-5", 255);
    start({"--Post0TimeOn=1"});
    EXPECT_EQ(log(), "") << "the block is there";
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return shows_recent_time(post.osd[3], 5 * 3600, ZONE_STYLE);
    }));
    block.set("WEST3:30", 255);
    const std::uint32_t sets = post(0).osd[3].record.sets;
    EXPECT_TRUE(shows(
        0, [sets](const sim_reader::Post &post) { return post.osd[3].record.sets >= sets + 2; }));
    EXPECT_TRUE(shows_recent_time(post(0).osd[3], 5 * 3600, ZONE_STYLE))
        << "the change byte is the same";
    block.set("WEST3:30", 0);
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return shows_recent_time(post.osd[3], -3 * 3600 - 1800, ZONE_STYLE);
    }));
    stop();
}

TEST_F(TimeZone, zone_of_the_environment_holds_without_a_block)
{
    setenv("TZ", "NORTH-2", 1);
    start({"--Post0TimeOn=1"});
    EXPECT_EQ(log(), support::NO_ZONE);
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return shows_recent_time(post.osd[3], 2 * 3600, ZONE_STYLE);
    }));
    unsetenv("TZ");
    stop();
}

} // namespace
