#include "time_zone_block.h"

#include "common/cmn.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/shm.h>

namespace time_zone_block
{

const std::size_t MAX_TEXT = sizeof(cmn_tz_block::zone) - 1;

namespace
{

[[noreturn]] void fail(const std::string &why)
{
    throw std::runtime_error("time zone block: " + why);
}

// ID of the block, of at least this size.
int find(std::size_t size, int flags)
{
    const int id = shmget(CMN_TZ_KEY, size, flags);
    if (id != -1)
        return id;
    if (errno == ENOENT)
        fail("none");
    if (errno == EINVAL)
        fail("smaller than " + std::to_string(size) + " bytes");
    fail(std::strerror(errno));
}

class Attached
{
public:
    Attached(int id, int flags)
    {
        void *block = shmat(id, nullptr, flags);
        if (block == reinterpret_cast<void *>(-1))
            fail(std::strerror(errno));
        block_ = static_cast<cmn_tz_block *>(block);
    }
    Attached(const Attached &) = delete;
    Attached &operator=(const Attached &) = delete;
    ~Attached()
    {
        shmdt(block_);
    }
    cmn_tz_block *operator->() const
    {
        return block_;
    }

private:
    cmn_tz_block *block_ = nullptr;
};

} // namespace

Content read()
{
    const Attached block(find(sizeof(cmn_tz_block), 0), SHM_RDONLY);
    Content content;
    content.change = __atomic_load_n(&block->change, __ATOMIC_ACQUIRE);
    content.text.assign(block->zone, strnlen(block->zone, sizeof block->zone));
    return content;
}

void write(const std::string &text)
{
    if (text.size() > MAX_TEXT)
        fail("no room for the text");
    const Attached block(find(sizeof(cmn_tz_block), IPC_CREAT | CMN_TZ_MODE), 0);
    // The rest is cleared too, so that the text has an end at every moment of the copying.
    std::fill(std::copy(text.begin(), text.end(), block->zone), std::end(block->zone), '\0');
    // Who sees the new byte finds the new text.
    __atomic_fetch_add(&block->change, 1, __ATOMIC_RELEASE);
}

void write_change(std::uint8_t change)
{
    const Attached block(find(sizeof(cmn_tz_block), 0), 0);
    __atomic_store_n(&block->change, change, __ATOMIC_RELEASE);
}

void remove()
{
    if (shmctl(find(0, 0), IPC_RMID, nullptr) != 0)
        fail(std::strerror(errno));
}

} // namespace time_zone_block
