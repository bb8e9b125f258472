// The time zone from shared memory. The block belongs to another program of the appliance: it is
// only read here, without any lock against that program.
#include "common/cmn.h"

#include <cstdio>
#include <cstdlib>
#include <sys/shm.h>

static const cmn_tz_block *cmn_tz;      // NULL while there is none
static std::int32_t cmn_tz_change = -1; // last change byte seen; no byte is -1

template <std::size_t SIZE>
static void cmn_tz_say(const char (&text)[SIZE])
{
    fwrite(text, 1, SIZE - 1, stdout);
}

void cmn_tz_attach()
{
    const int id = shmget(CMN_TZ_KEY, sizeof(cmn_tz_block), CMN_TZ_MODE);
    if (id < 0) {
        cmn_tz_say("shmget error!!!\n");
        return;
    }
    const void *block = shmat(id, nullptr, 0);
    if (block == reinterpret_cast<void *>(-1)) {
        cmn_tz_say("shmat error!!!\n");
        return;
    }
    cmn_tz = static_cast<const cmn_tz_block *>(block);
}

void cmn_tz_update()
{
    if (!cmn_tz || cmn_tz->change == cmn_tz_change)
        return;
    setenv("TZ", cmn_tz->zone, 1);
    cmn_tz_change = cmn_tz->change;
}
