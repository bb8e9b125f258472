// How often a pass of the main loop allocates. Every allocation of the process is counted, those of
// libc and FreeType too.
#include "server/callback.h"
#include "server/main_loop.h"
#include "support/open_posts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

long allocations;
long releases;

} // namespace

// The allocator of libc under its own names, counted on the way.
extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);

void *malloc(size_t size)
{
    allocations++;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    allocations++;
    return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size)
{
    allocations++;
    return __libc_realloc(block, size);
}

void free(void *block)
{
    if (block)
        releases++;
    __libc_free(block);
}

} // extern "C"

namespace
{

using support::make_pair;

class Allocation : public testing::Test
{
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC0", 1); // without it localtime looks after the zone's file, and allocates
        ASSERT_EQ(mkfifo("/tmp/requests", 0600), 0);
        fd_ = open("/tmp/requests", O_RDONLY | O_NONBLOCK);
        ASSERT_NE(fd_, -1);
    }
    void TearDown() override
    {
        osd_close_opened_post();
        close(fd_);
        unlink("/tmp/requests");
    }
    // A pass but for its sleep.
    void pass() const
    {
        osd_get_current_datetime();
        const int visited = osd_visit_posts();
        const int request = osd_do_request(fd_);
        if (visited != OSD_POSTS || request != OSD_REQUEST_NONE)
            std::abort();
    }

private:
    int fd_ = -1;
};

TEST_F(Allocation, pass_of_a_post_with_a_time_takes_the_array_of_its_glyphs_alone)
{
    support::open_posts(1, {make_pair("OsdFontFile", QM5OSD_FONT), make_pair("Post0TimeOn", "1"),
                            make_pair("Post0DateOn", "1"), make_pair("Post0StringOn", "1")});
    pass(); // opens and draws all
    pass();
    for (int i = 0; i < 10; i++) {
        const long taken = allocations;
        const long given_back = releases;
        pass();
        ASSERT_EQ(allocations - taken, 1);
        ASSERT_EQ(releases - given_back, 1);
    }
}

TEST_F(Allocation, pass_without_a_time_takes_nothing)
{
    support::open_posts(4, {make_pair("OsdFontFile", QM5OSD_FONT), make_pair("Post1TypeOn", "1")});
    pass();
    pass();
    const long taken = allocations;
    pass();
    EXPECT_EQ(allocations - taken, 0);
}

// As many passes as four hours have, with the time on all posts.
TEST_F(Allocation, hours_of_passes_take_no_memory_for_good)
{
    support::open_posts(4, {make_pair("OsdFontFile", QM5OSD_FONT), make_pair("Post0TimeOn", "1"),
                            make_pair("Post1TimeOn", "1"), make_pair("Post2TimeOn", "1"),
                            make_pair("Post3TimeOn", "1"), make_pair("Post3DateOn", "1")});
    pass();
    pass();
    const std::size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 4 * 3600; i++)
        pass();
    EXPECT_EQ(mallinfo2().uordblks, before);
}

} // namespace
