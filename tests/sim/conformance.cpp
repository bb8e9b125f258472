// What the application counts on of a codec library, whichever it is:
//
//   conformance LIBRARY [POST [FAILURE]] [GoogleTest's options]
//
// It needs at least one running post thread, opens OSDs on it and shows stripes in them; no server
// may have the device open meanwhile. Some of it needs somebody who changes the posts, and is left
// out without: POST is a command to which the number of a post, 0 to 3, and `close` or `open SIZE`
// are appended, as `3 open 640x480`, 800x600, 352x288 or 320x240, also while the library is being
// called; and FAILURE is one that lets the next opening of the device fail.
//
// Each test has a process of its own, in which the library comes up and goes down once, as in the
// server. What it may do beyond that is in a disabled test.
#include "codec_library.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using namespace support;

Library lib;
std::string post_command;
std::string failure_command;

// Time enough for a notice that must not come.
constexpr std::chrono::milliseconds WHILE{200};

constexpr std::uint32_t POSTS = 4;

// A record or a word that the library fills, among bytes that are nobody's.
template <typename T>
class Fenced
{
public:
    Fenced()
    {
        before_.fill(FENCE);
        behind_.fill(FENCE);
    }
    Fenced(const Fenced &) = delete;
    Fenced &operator=(const Fenced &) = delete;
    ~Fenced()
    {
        const auto is_fence = [](std::uint8_t byte) { return byte == FENCE; };
        EXPECT_TRUE(std::all_of(before_.begin(), before_.end(), is_fence) &&
                    std::all_of(behind_.begin(), behind_.end(), is_fence))
            << "bytes around what the library may write have changed";
    }

    T *get()
    {
        return &value_;
    }
    T *operator->()
    {
        return &value_;
    }
    T &operator*()
    {
        return value_;
    }

private:
    static constexpr std::uint8_t FENCE = 0xC9;
    typedef std::array<std::uint8_t, 64> Fence;
    static_assert(sizeof(Fence) % alignof(T) == 0 && sizeof(T) % alignof(T) == 0);
    Fence before_;
    T value_{};
    Fence behind_;
};

// A test that runs in a child of the process that the framework knows.
class InChild : public testing::Test
{
public:
    // Runs it here; the framework's printer tells what fails.
    int run()
    {
        SetUp();
        if (!HasFatalFailure() && !IsSkipped())
            TestBody();
        TearDown();
        return HasFailure() ? 1 : IsSkipped() ? SKIPPED : 0;
    }

    static constexpr int SKIPPED = 2;

protected:
    void TestBody() override = 0;
};

template <typename Test>
void run_in_child()
{
    std::cout << std::flush;
    const pid_t child = fork();
    if (child == 0) {
        const int result = Test().run();
        std::cout << std::flush;
        fflush(nullptr);
        _exit(result);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == InChild::SKIPPED)
        GTEST_SKIP();
    EXPECT_EQ(status, 0) << "of the process of this test";
}

// Defines a test as TEST_F does.
#define TEST_IN_CHILD(fixture, name)                                                               \
    class fixture##_##name : public fixture                                                        \
    {                                                                                              \
        void TestBody() override;                                                                  \
    };                                                                                             \
    TEST(fixture, name)                                                                            \
    {                                                                                              \
        run_in_child<fixture##_##name>();                                                          \
    }                                                                                              \
    void fixture##_##name::TestBody()

// The library is down.
class ConformanceFromStart : public InChild
{
protected:
    // Until notification can be switched on.
    void begin()
    {
        ASSERT_EQ(lib.library_init(), 0);
        is_up_ = true;
        ASSERT_EQ(lib.open_device(), 0);
        ASSERT_EQ(lib.notify_callback(keep_notice), 0);
    }

    void take_down()
    {
        EXPECT_EQ(lib.close_device(), 0);
        EXPECT_EQ(lib.library_exit(), 0);
        is_up_ = false;
    }

    void TearDown() override
    {
        if (is_up_)
            take_down();
    }

    bool is_up_ = false;
};

class Conformance : public ConformanceFromStart
{
protected:
    void SetUp() override
    {
        begin();
        ASSERT_EQ(lib.set_notify(15), 0);
        ASSERT_TRUE(wait_until([] { return !notices_so_far().empty(); }))
            << "no running post thread was announced";
        first_ = notices_so_far()[0];
        ASSERT_TRUE(first_.opened);
    }

    // Whatever becomes of the posts, nothing is told from the closing of the device on.
    void expect_silence(const std::function<void()> &change)
    {
        EXPECT_EQ(lib.close_device(), 0);
        const std::size_t told = notices_so_far().size();
        change();
        std::this_thread::sleep_for(WHILE);
        EXPECT_EQ(notices_so_far().size(), told);
        EXPECT_EQ(lib.library_exit(), 0);
        std::this_thread::sleep_for(WHILE);
        EXPECT_EQ(notices_so_far().size(), told);
        is_up_ = false;
    }

    struct Size {
        unsigned width;
        unsigned height;
    };

    struct Osd {
        std::uint32_t handle = 0;
        std::uint32_t line_bytes = 0;
        std::uint32_t size = 0; // of its memory, line for line
    };

    // One call of open_osd, and what it is handed.
    class Opening
    {
    public:
        explicit Opening(const qm5_cl_osd_param &param) : param_(param)
        {
            *given_ = param;
        }
        Opening(const Opening &) = delete;
        Opening &operator=(const Opening &) = delete;
        ~Opening()
        {
            EXPECT_EQ(*handle_ != 0, result_ == 0) << "it stays 0 if the call fails";
            EXPECT_EQ(std::memcmp(&param_, given_.get(), sizeof param_), 0) << "it is only read";
        }

        int try_on(std::uint32_t res_id)
        {
            result_ =
                lib.open_osd(res_id, given_.get(), handle_.get(), aux_.get(), line_bytes_.get());
            return result_;
        }

        Osd osd()
        {
            return {*handle_, *line_bytes_, *line_bytes_ * param_.height};
        }

    private:
        const qm5_cl_osd_param param_;
        Fenced<qm5_cl_osd_param> given_;
        Fenced<std::uint32_t> handle_;
        Fenced<std::uint32_t> aux_;
        Fenced<std::uint32_t> line_bytes_;
        int result_ = -1;
    };

    Size read_size(std::uint32_t res_id)
    {
        Fenced<qm5_cl_post_status> status;
        EXPECT_EQ(lib.get_status(res_id, status.get()), 0);
        return {status->width, status->height};
    }

    Osd open(const qm5_cl_osd_param &param)
    {
        read_size(first_.res_id);
        Opening opening(param);
        EXPECT_EQ(opening.try_on(first_.res_id), 0);
        return opening.osd();
    }

    qm5_cl_osd_mem borrow(const Osd &osd)
    {
        Fenced<qm5_cl_osd_mem> mem;
        EXPECT_EQ(lib.get_osd_mem(first_.res_id, osd.handle, mem.get()), 0);
        EXPECT_NE(mem->memory, nullptr);
        EXPECT_EQ(mem->size, osd.size);
        mem->size = std::min(mem->size, osd.size); // nobody writes behind it
        return *mem;
    }

    void close(const Osd &osd)
    {
        EXPECT_EQ(lib.close_osd(first_.res_id, osd.handle), 0);
    }

    static testing::AssertionResult gone(int result)
    {
        const auto error = static_cast<std::uint32_t>(errno);
        if (result != 0 && is_gone_error(error))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << result << ", errno " << hex(error);
    }

    // Each operation on a resource ID or a handle that isn't known.
    void expect_gone(std::uint32_t res_id, std::uint32_t osd_handle)
    {
        Fenced<qm5_cl_post_status> status;
        EXPECT_TRUE(gone(lib.get_status(res_id, status.get())));
        EXPECT_TRUE(gone(Opening({0, 64, 16, 0}).try_on(res_id)));
        expect_osd_gone(res_id, osd_handle);
    }

    void expect_osd_gone(std::uint32_t res_id, std::uint32_t handle)
    {
        Fenced<qm5_cl_osd_mem> mem;
        EXPECT_TRUE(gone(lib.get_osd_mem(res_id, handle, mem.get())));
        EXPECT_TRUE(gone(lib.set_osd(res_id, handle, {0, 0})));
        EXPECT_TRUE(gone(lib.clear_osd(res_id, handle)));
        EXPECT_TRUE(gone(lib.close_osd(res_id, handle)));
    }

    // The posts that were told to be open.
    static std::set<std::uint32_t> opened_posts()
    {
        std::set<std::uint32_t> posts;
        for (const Notice &notice : notices_so_far()) {
            if (notice.opened)
                posts.insert(notice.post);
        }
        return posts;
    }

    Notice first_{};
};

TEST_IN_CHILD(Conformance, running_post_threads_are_announced_on_another_thread)
{
    for (const Notice &notice : notices_so_far()) {
        EXPECT_NE(notice.thread, std::this_thread::get_id());
        EXPECT_LT(notice.post, 4u);
        EXPECT_TRUE(!notice.opened || notice.res_id != 0);
    }
}

TEST_IN_CHILD(ConformanceFromStart, nothing_is_told_before_notification_is_switched_on)
{
    begin();
    std::this_thread::sleep_for(WHILE);
    EXPECT_EQ(notices_so_far().size(), 0u);
}

TEST_IN_CHILD(Conformance, DISABLED_library_comes_up_again_and_announces_the_same_post_threads)
{
    std::this_thread::sleep_for(WHILE);
    const std::set<std::uint32_t> running = opened_posts();
    take_down();
    notices.clear();
    begin();
    EXPECT_EQ(notices_so_far().size(), 0u);
    ASSERT_EQ(lib.set_notify(15), 0);
    EXPECT_TRUE(wait_until([&] { return opened_posts() == running; }));
}

TEST_IN_CHILD(Conformance, nothing_is_told_once_the_device_is_closed)
{
    expect_silence([] {});
}

TEST_IN_CHILD(Conformance, status_has_the_size_of_the_video)
{
    const Size size = read_size(first_.res_id);
    EXPECT_GT(size.width, 0u);
    EXPECT_GT(size.height, 0u);
}

TEST_IN_CHILD(Conformance, line_is_as_long_as_the_width_at_least)
{
    for (std::uint32_t type = 0; type < 3; type++) {
        for (const unsigned width : {1u, 7u, 16u, 33u, 100u, 252u}) {
            const Osd osd = open({0, static_cast<std::uint16_t>(width), 8, type});
            EXPECT_GE(osd.line_bytes, (width * (2u << type) + 7) / 8) << type << ' ' << width;
            close(osd);
        }
    }
}

// Fills memory with bytes that differ, and looks whether it holds them.
void fill(const qm5_cl_osd_mem &mem, unsigned first)
{
    auto *bytes = static_cast<std::uint8_t *>(mem.memory);
    for (std::uint32_t i = 0; i < mem.size; i++)
        bytes[i] = static_cast<std::uint8_t>(first + i * 7);
}

bool holds(const qm5_cl_osd_mem &mem, unsigned first)
{
    const auto *bytes = static_cast<const std::uint8_t *>(mem.memory);
    for (std::uint32_t i = 0; i < mem.size; i++) {
        if (bytes[i] != static_cast<std::uint8_t>(first + i * 7))
            return false;
    }
    return true;
}

TEST_IN_CHILD(Conformance, memory_is_lines_times_height_aligned_and_writable)
{
    for (std::uint32_t type = 0; type < 3; type++) {
        for (const unsigned width : {1u, 16u, 101u, 320u}) {
            for (const unsigned height : {1u, 13u, 28u, 64u}) {
                const Osd osd = open({0, static_cast<std::uint16_t>(width),
                                      static_cast<std::uint16_t>(height), type});
                const qm5_cl_osd_mem mem = borrow(osd);
                EXPECT_EQ(reinterpret_cast<std::uintptr_t>(mem.memory) % 4, 0u);
                fill(mem, type);
                EXPECT_TRUE(holds(mem, type));
                EXPECT_EQ(lib.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
                close(osd);
            }
        }
    }
}

TEST_IN_CHILD(Conformance, post_has_four_osds_at_a_time)
{
    std::vector<Osd> osds;
    for (std::uint32_t number = 0; number < 4; number++)
        osds.push_back(open({number, 64, 16, number % 3}));
    for (std::size_t i = 0; i < osds.size(); i++) {
        for (std::size_t j = 0; j < i; j++)
            EXPECT_NE(osds[i].handle, osds[j].handle);
        const qm5_cl_osd_mem mem = borrow(osds[i]);
        fill(mem, 0);
        EXPECT_EQ(
            lib.set_osd(first_.res_id, osds[i].handle, {static_cast<std::uint16_t>(8 * i), 32}), 0);
    }
    for (const Osd &osd : osds)
        close(osd);
}

TEST_IN_CHILD(Conformance, four_osds_have_each_their_own_memory)
{
    std::vector<Osd> osds;
    std::vector<qm5_cl_osd_mem> memories;
    for (std::uint32_t number = 0; number < 4; number++) {
        osds.push_back(open({number, 64, 16, number % 3}));
        memories.push_back(borrow(osds.back()));
    }
    for (unsigned i = 0; i < 4; i++)
        fill(memories[i], i);
    for (unsigned i = 0; i < 4; i++) {
        EXPECT_TRUE(holds(memories[i], i)) << i;
        const auto *bytes = static_cast<const std::uint8_t *>(memories[i].memory);
        for (unsigned j = 0; j < i; j++) {
            const auto *other = static_cast<const std::uint8_t *>(memories[j].memory);
            EXPECT_TRUE(bytes >= other + memories[j].size || other >= bytes + memories[i].size);
        }
    }
    for (const Osd &osd : osds) {
        EXPECT_EQ(lib.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
        close(osd);
    }
}

TEST_IN_CHILD(Conformance, drawings_go_on_and_may_move)
{
    const Osd osd = open({3, 64, 16, 0});
    for (unsigned i = 0; i < 20; i++) {
        const qm5_cl_osd_mem mem = borrow(osd);
        std::memset(mem.memory, static_cast<int>(i), mem.size);
        const auto place = static_cast<std::uint16_t>(i);
        EXPECT_EQ(lib.set_osd(first_.res_id, osd.handle, {place, place}), 0);
    }
    close(osd);
}

TEST_IN_CHILD(Conformance, cleared_osd_stays_open)
{
    const Osd osd = open({1, 64, 16, 1});
    EXPECT_EQ(lib.clear_osd(first_.res_id, osd.handle), 0) << "never shown";
    for (unsigned i = 0; i < 2; i++) {
        borrow(osd);
        EXPECT_EQ(lib.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
        EXPECT_EQ(lib.clear_osd(first_.res_id, osd.handle), 0);
    }
    close(osd);
}

// More memory than an address of the appliance can name.
TEST_IN_CHILD(Conformance, osd_that_no_memory_can_hold_leaves_the_handle_0)
{
    read_size(first_.res_id);
    Opening opening({0, 0xFFFF, 0xFFFF, 2});
    EXPECT_NE(opening.try_on(first_.res_id), 0);
    EXPECT_EQ(static_cast<std::uint32_t>(errno) >> 16, 0x81E0u);
    close(open({0, 64, 16, 0}));
}

TEST_IN_CHILD(Conformance, closed_handle_is_no_longer_known)
{
    const Osd osd = open({1, 64, 16, 1});
    close(osd);
    expect_osd_gone(first_.res_id, osd.handle);
    close(open({1, 64, 16, 1})); // the number is free again
}

TEST_IN_CHILD(Conformance, resource_id_0_is_no_post_thread)
{
    expect_gone(0, 0);
}

TEST_IN_CHILD(Conformance, resource_id_that_was_never_given_is_no_post_thread)
{
    const Osd osd = open({0, 64, 16, 0});
    expect_gone(~first_.res_id, osd.handle);
    close(osd);
}

TEST_IN_CHILD(Conformance, handle_0_is_no_osd)
{
    expect_osd_gone(first_.res_id, 0);
    const Osd osd = open({0, 64, 16, 0});
    expect_osd_gone(first_.res_id, 0);
    close(osd);
}

TEST_IN_CHILD(Conformance, shown_osd_is_cleared_closed_and_opened_again)
{
    for (unsigned i = 0; i < 3; i++) {
        const Osd osd = open({2, static_cast<std::uint16_t>(64 << i), 16, i});
        fill(borrow(osd), i);
        EXPECT_EQ(lib.set_osd(first_.res_id, osd.handle, {8, 8}), 0);
        EXPECT_EQ(lib.clear_osd(first_.res_id, osd.handle), 0);
        close(osd);
    }
}

// ---- Post threads that come and go --------------------------------------------------------------

// All four posts run, from before the library comes up.
class ConformanceOfPosts : public Conformance
{
protected:
    void SetUp() override
    {
        if (post_command.empty())
            GTEST_SKIP() << "there is no command that changes posts";
        for (unsigned post = 0; post < POSTS; post++) {
            run_command(post, "close");
            EXPECT_EQ(run_command(post, "open 640x480"), 0);
        }
        Conformance::SetUp();
        EXPECT_TRUE(wait_until([] { return opened_posts().size() == POSTS; }));
    }

    static int run_command(unsigned post, const char *words)
    {
        return std::system((post_command + ' ' + std::to_string(post) + ' ' + words).c_str());
    }

    // Changes a post, and gives the notice of it.
    Notice change(unsigned post, const char *words) const
    {
        const std::size_t before = notices_so_far().size();
        EXPECT_EQ(run_command(post, words), 0);
        EXPECT_TRUE(wait_until([before] { return notices_so_far().size() > before; }))
            << "of post " << post << ": " << words;
        const std::vector<Notice> all = notices_so_far();
        if (all.size() == before)
            return {};
        EXPECT_EQ(all[before].post, post);
        EXPECT_NE(all[before].thread, caller_);
        return all[before];
    }

    void close_post(unsigned post) const
    {
        EXPECT_FALSE(change(post, "close").opened);
    }

    // The notice of its coming; with resource ID 0 if there was none.
    Notice open_post(unsigned post, const char *words) const
    {
        const Notice opened = change(post, words);
        EXPECT_TRUE(opened.opened);
        EXPECT_NE(opened.res_id, 0u);
        return opened.opened ? opened : Notice{};
    }

    bool is_open_again(unsigned post) const
    {
        close_post(post);
        return open_post(post, "open 640x480").res_id != 0;
    }

    // Success, or the post has gone.
    static bool has_done(const char *call, int result)
    {
        if (result == 0)
            return true;
        EXPECT_TRUE(gone(result)) << call;
        return false;
    }

    // All that a post thread, which may go at any moment, is asked for; false if it has gone.
    static bool try_all_on(std::uint32_t res_id)
    {
        Fenced<qm5_cl_post_status> status;
        Opening opening({0, 320, 28, 2});
        Fenced<qm5_cl_osd_mem> mem;
        const bool has_size = has_done("get_status", lib.get_status(res_id, status.get()));
        EXPECT_TRUE(!has_size || (status->width == 640 && status->height == 480));
        if (!has_done("open_osd", opening.try_on(res_id)))
            return false;
        const Osd osd = opening.osd();
        const bool has_memory =
            has_done("get_osd_mem", lib.get_osd_mem(res_id, osd.handle, mem.get()));
        if (has_memory) {
            EXPECT_EQ(mem->size, osd.size);
            std::memset(mem->memory, 0x5A, std::min(mem->size, osd.size));
        }
        const bool is_shown = has_done("set_osd", lib.set_osd(res_id, osd.handle, {8, 8}));
        const bool is_cleared = has_done("clear_osd", lib.clear_osd(res_id, osd.handle));
        const bool is_closed = has_done("close_osd", lib.close_osd(res_id, osd.handle));
        return has_size && has_memory && is_shown && is_cleared && is_closed;
    }

    // The thread of all the library's calls.
    const std::thread::id caller_ = std::this_thread::get_id();
};

TEST_IN_CHILD(ConformanceOfPosts, each_running_post_is_announced_once_with_an_id_of_its_own)
{
    std::this_thread::sleep_for(WHILE);
    std::set<std::uint32_t> ids;
    for (const Notice &notice : notices_so_far()) {
        EXPECT_TRUE(notice.opened);
        ids.insert(notice.res_id);
    }
    EXPECT_EQ(notices_so_far().size(), POSTS);
    EXPECT_EQ(ids.size(), POSTS);
    EXPECT_EQ(ids.count(0), 0u);
}

TEST_IN_CHILD(ConformanceOfPosts, closing_post_is_told_and_takes_its_osds_along)
{
    const Osd osd = open({0, 64, 16, 0});
    borrow(osd);
    EXPECT_EQ(lib.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
    close_post(first_.post);
    expect_gone(first_.res_id, osd.handle);

    const Notice opened = open_post(first_.post, "open 800x600");
    expect_osd_gone(opened.res_id, osd.handle);
    const Size size = read_size(opened.res_id);
    EXPECT_EQ(size.width, 800u);
    EXPECT_EQ(size.height, 600u);
    first_ = opened;
    close(open({0, 64, 16, 0})); // the number is free
}

TEST_IN_CHILD(ConformanceOfPosts, each_post_that_closes_and_opens_is_told_once)
{
    std::vector<Notice> running = notices_so_far();
    for (Notice &post : running) {
        first_ = post;
        const Osd osd = open({0, 64, 16, 0});
        close_post(post.post);
        expect_gone(post.res_id, osd.handle);
        post = open_post(post.post, "open 320x240");
        const Size size = read_size(post.res_id);
        EXPECT_EQ(size.width, 320u);
        EXPECT_EQ(size.height, 240u);
    }
    std::set<std::uint32_t> ids;
    for (const Notice &post : running)
        ids.insert(post.res_id);
    EXPECT_EQ(ids.size(), POSTS);
    std::this_thread::sleep_for(WHILE); // in which the last one could be told again
    EXPECT_EQ(notices_so_far().size(), 3 * POSTS) << "running, closed, opened";
}

TEST_IN_CHILD(ConformanceOfPosts, post_may_close_during_a_drawing)
{
    const Osd osd = open({0, 320, 28, 2});
    const qm5_cl_osd_mem mem = borrow(osd);
    close_post(first_.post);
    fill(mem, 1); // the application doesn't know yet
    EXPECT_TRUE(gone(lib.set_osd(first_.res_id, osd.handle, {0, 0})));
    open_post(first_.post, "open 640x480");
}

// The resource ID that a post was told last.
std::uint32_t newest_thread_of(std::uint32_t post)
{
    std::uint32_t newest = 0;
    for (const Notice &notice : notices_so_far()) {
        if (notice.post == post && notice.opened)
            newest = notice.res_id;
    }
    return newest;
}

TEST_IN_CHILD(ConformanceOfPosts, post_may_close_and_open_during_any_call)
{
    constexpr unsigned CHANGES = 20;
    const unsigned post = first_.post;
    std::atomic<bool> is_over = false;
    std::thread changing([&] {
        for (unsigned i = 0; i < CHANGES && is_open_again(post); i++)
            continue;
        is_over = true;
    });
    while (!is_over)
        try_all_on(newest_thread_of(post));
    changing.join();
    std::this_thread::sleep_for(WHILE);
    EXPECT_EQ(notices_so_far().size(), POSTS + 2 * CHANGES);
    EXPECT_TRUE(try_all_on(newest_thread_of(post)));
}

TEST_IN_CHILD(ConformanceOfPosts, handle_of_another_post_is_no_osd)
{
    const std::uint32_t other = notices_so_far()[1].res_id;
    const Osd osd = open({0, 64, 16, 0});
    expect_osd_gone(other, osd.handle);
    borrow(osd); // it has stayed
    EXPECT_EQ(lib.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
    close(osd);
}

TEST_IN_CHILD(ConformanceOfPosts, osds_of_several_posts_are_open_at_once)
{
    const std::vector<Notice> posts = notices_so_far();
    std::vector<Osd> osds;
    std::vector<qm5_cl_osd_mem> memories;
    for (unsigned i = 0; i < POSTS; i++) {
        first_ = posts.at(i);
        osds.push_back(open({0, 64, 16, 0}));
        memories.push_back(borrow(osds.back()));
        fill(memories.back(), i);
    }
    for (unsigned i = 0; i < POSTS; i++) {
        first_ = posts.at(i);
        EXPECT_TRUE(holds(memories[i], i)) << i;
        EXPECT_EQ(lib.set_osd(first_.res_id, osds[i].handle, {0, 0}), 0);
        EXPECT_EQ(lib.clear_osd(first_.res_id, osds[i].handle), 0);
        close(osds[i]);
    }
}

TEST_IN_CHILD(ConformanceOfPosts, other_posts_stay_when_one_closes)
{
    const unsigned closed = first_.post;
    first_ = notices_so_far()[1];
    const Osd osd = open({0, 64, 16, 0});
    close_post(closed);
    const qm5_cl_osd_mem mem = borrow(osd);
    fill(mem, 1);
    EXPECT_EQ(lib.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
    close(osd);
    open_post(closed, "open 640x480");
}

TEST_IN_CHILD(ConformanceOfPosts, change_behind_the_closing_of_the_device_is_not_told)
{
    expect_silence([this] {
        EXPECT_EQ(run_command(first_.post, "close"), 0);
        EXPECT_EQ(run_command(first_.post, "open 352x288"), 0);
    });
}

// ---- A device that can't be opened --------------------------------------------------------------

TEST_IN_CHILD(ConformanceFromStart, library_is_exited_after_a_device_that_could_not_be_opened)
{
    if (failure_command.empty())
        GTEST_SKIP() << "there is no command that lets the opening fail";
    EXPECT_EQ(std::system(failure_command.c_str()), 0);
    EXPECT_EQ(lib.library_init(), 0);
    EXPECT_NE(lib.open_device(), 0);
    EXPECT_EQ(static_cast<std::uint32_t>(errno) >> 16, 0x81E0u);
    EXPECT_EQ(lib.library_exit(), 0);
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc < 2 || argc > 4) {
        std::cerr << "conformance: LIBRARY: one path is needed, and up to two commands\n";
        return 2;
    }
    const std::string why = load(lib, argv[1]);
    if (!why.empty()) {
        std::cerr << "conformance: " << argv[1] << ": " << why << '\n';
        return 1;
    }
    post_command = argc > 2 ? argv[2] : "";
    failure_command = argc > 3 ? argv[3] : "";
    return RUN_ALL_TESTS();
}
