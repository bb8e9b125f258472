// What the application counts on of a codec library, whichever it is:
//
//   conformance LIBRARY [POST [FAILURE]] [GoogleTest's options]
//
// It needs at least one running post thread, opens OSDs on it and shows stripes in them; no server
// may have the device open meanwhile. Some of it needs somebody who changes the posts, and is left
// out without: POST is a command to which `0 close` and `0 open 640x480` is appended, for post 0;
// and FAILURE is one that lets the next opening of the device fail.
#include "codec_library.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>

namespace
{

using namespace support;

std::string library_path;
std::string post_command;
std::string failure_command;

// Time enough for a notice that must not come.
constexpr std::chrono::milliseconds WHILE{200};

constexpr std::uint32_t POSTS = 4;

class Conformance : public testing::Test
{
protected:
    void SetUp() override
    {
        notices.clear();
        load(lib_, library_path.c_str());
        bring_up();
    }

    void TearDown() override
    {
        take_down();
        dlclose(lib_.handle);
    }

    void bring_up()
    {
        ASSERT_EQ(lib_.library_init(), 0);
        ASSERT_EQ(lib_.open_device(), 0);
        ASSERT_EQ(lib_.notify_callback(keep_notice), 0);
        ASSERT_EQ(lib_.set_notify(15), 0);
        ASSERT_TRUE(wait_until([] { return !notices_so_far().empty(); }))
            << "no running post thread was announced";
        first_ = notices_so_far()[0];
        ASSERT_TRUE(first_.opened);
    }

    void take_down()
    {
        EXPECT_EQ(lib_.close_device(), 0);
        EXPECT_EQ(lib_.library_exit(), 0);
    }

    // Whatever becomes of the posts, nothing is told from the closing of the device on.
    void expect_silence(const std::function<void()> &change)
    {
        EXPECT_EQ(lib_.close_device(), 0);
        const std::size_t told = notices_so_far().size();
        change();
        std::this_thread::sleep_for(WHILE);
        EXPECT_EQ(notices_so_far().size(), told);
        EXPECT_EQ(lib_.library_exit(), 0);
        std::this_thread::sleep_for(WHILE);
        EXPECT_EQ(notices_so_far().size(), told);
        bring_up();
    }

    struct Osd {
        std::uint32_t handle = 0;
        std::uint32_t aux = 0;
        std::uint32_t line_bytes = 0;
        std::uint32_t size = 0; // of its memory, line for line
    };

    Osd open(const qm5_cl_osd_param &param)
    {
        Osd osd;
        const qm5_cl_osd_param before = param;
        EXPECT_EQ(lib_.open_osd(first_.res_id, &param, &osd.handle, &osd.aux, &osd.line_bytes), 0);
        EXPECT_NE(osd.handle, 0u);
        osd.size = osd.line_bytes * param.height;
        EXPECT_EQ(std::memcmp(&param, &before, sizeof param), 0) << "it is only read";
        return osd;
    }

    qm5_cl_osd_mem borrow(const Osd &osd)
    {
        qm5_cl_osd_mem mem{};
        EXPECT_EQ(lib_.get_osd_mem(first_.res_id, osd.handle, &mem), 0);
        EXPECT_NE(mem.memory, nullptr);
        EXPECT_EQ(mem.size, osd.size);
        mem.size = std::min(mem.size, osd.size); // nobody writes behind it
        return mem;
    }

    void close(const Osd &osd)
    {
        EXPECT_EQ(lib_.close_osd(first_.res_id, osd.handle), 0);
    }

    static testing::AssertionResult gone(int result)
    {
        const auto error = static_cast<std::uint32_t>(errno);
        if (result != 0 && is_gone_error(error))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << result << ", errno 0x" << std::hex << error;
    }

    // Each operation on a resource ID or a handle that isn't known.
    void expect_gone(std::uint32_t res_id, std::uint32_t osd_handle)
    {
        const qm5_cl_osd_param param = {0, 64, 16, 0};
        qm5_cl_post_status status{};
        std::uint32_t handle = 0;
        std::uint32_t word = 0;
        EXPECT_TRUE(gone(lib_.get_status(res_id, &status)));
        EXPECT_TRUE(gone(lib_.open_osd(res_id, &param, &handle, &word, &word)));
        EXPECT_EQ(handle, 0u) << "it stays 0 if the call fails";
        expect_osd_gone(res_id, osd_handle);
    }

    void expect_osd_gone(std::uint32_t res_id, std::uint32_t handle)
    {
        qm5_cl_osd_mem mem{};
        EXPECT_TRUE(gone(lib_.get_osd_mem(res_id, handle, &mem)));
        EXPECT_TRUE(gone(lib_.set_osd(res_id, handle, {0, 0})));
        EXPECT_TRUE(gone(lib_.clear_osd(res_id, handle)));
        EXPECT_TRUE(gone(lib_.close_osd(res_id, handle)));
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

    Library lib_;
    Notice first_{};
};

TEST_F(Conformance, running_post_threads_are_announced_on_another_thread)
{
    for (const Notice &notice : notices_so_far()) {
        EXPECT_NE(notice.thread, std::this_thread::get_id());
        EXPECT_LT(notice.post, 4u);
        EXPECT_TRUE(!notice.opened || notice.res_id != 0);
    }
}

TEST_F(Conformance, running_post_threads_are_announced_at_each_switching_on_and_not_before)
{
    std::this_thread::sleep_for(WHILE);
    const std::set<std::uint32_t> running = opened_posts();
    take_down();
    notices.clear();
    ASSERT_EQ(lib_.library_init(), 0);
    ASSERT_EQ(lib_.open_device(), 0);
    ASSERT_EQ(lib_.notify_callback(keep_notice), 0);
    std::this_thread::sleep_for(WHILE);
    EXPECT_EQ(notices_so_far().size(), 0u);
    ASSERT_EQ(lib_.set_notify(15), 0);
    EXPECT_TRUE(wait_until([&] { return opened_posts() == running; }));
}

TEST_F(Conformance, nothing_is_told_once_the_device_is_closed)
{
    expect_silence([] {});
}

TEST_F(Conformance, status_has_the_size_of_the_video)
{
    qm5_cl_post_status status{};
    ASSERT_EQ(lib_.get_status(first_.res_id, &status), 0);
    EXPECT_GT(status.width, 0u);
    EXPECT_GT(status.height, 0u);
}

TEST_F(Conformance, line_is_as_long_as_the_width_at_least)
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

TEST_F(Conformance, memory_is_lines_times_height_aligned_and_writable)
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
                EXPECT_EQ(lib_.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
                close(osd);
            }
        }
    }
}

TEST_F(Conformance, post_has_four_osds_at_a_time)
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
            lib_.set_osd(first_.res_id, osds[i].handle, {static_cast<std::uint16_t>(8 * i), 32}),
            0);
    }
    for (const Osd &osd : osds)
        close(osd);
}

TEST_F(Conformance, four_osds_have_each_their_own_memory)
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
        EXPECT_EQ(lib_.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
        close(osd);
    }
}

TEST_F(Conformance, drawings_go_on_and_may_move)
{
    const Osd osd = open({3, 64, 16, 0});
    for (unsigned i = 0; i < 20; i++) {
        const qm5_cl_osd_mem mem = borrow(osd);
        std::memset(mem.memory, static_cast<int>(i), mem.size);
        const auto place = static_cast<std::uint16_t>(i);
        EXPECT_EQ(lib_.set_osd(first_.res_id, osd.handle, {place, place}), 0);
    }
    close(osd);
}

TEST_F(Conformance, cleared_osd_stays_open)
{
    const Osd osd = open({1, 64, 16, 1});
    EXPECT_EQ(lib_.clear_osd(first_.res_id, osd.handle), 0) << "never shown";
    for (unsigned i = 0; i < 2; i++) {
        borrow(osd);
        EXPECT_EQ(lib_.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
        EXPECT_EQ(lib_.clear_osd(first_.res_id, osd.handle), 0);
    }
    close(osd);
}

TEST_F(Conformance, closed_handle_is_no_longer_known)
{
    const Osd osd = open({1, 64, 16, 1});
    close(osd);
    expect_osd_gone(first_.res_id, osd.handle);
    close(open({1, 64, 16, 1})); // the number is free again
}

TEST_F(Conformance, resource_id_0_is_no_post_thread)
{
    expect_gone(0, 0);
}

TEST_F(Conformance, failed_open_leaves_the_handle_word_alone)
{
    const qm5_cl_osd_param param = {0, 64, 16, 0};
    const Osd osd = open(param);
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    EXPECT_NE(lib_.open_osd(~first_.res_id, &param, &handle, &word, &word), 0);
    EXPECT_EQ(handle, 0u);
    close(osd);
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

    void TearDown() override
    {
        if (lib_.handle)
            Conformance::TearDown();
    }

    static int run_command(unsigned post, const char *words)
    {
        return std::system((post_command + ' ' + std::to_string(post) + ' ' + words).c_str());
    }

    // Changes the first post that was announced, and gives the notice of it.
    Notice change_first(const char *words) const
    {
        const std::size_t before = notices_so_far().size();
        EXPECT_EQ(run_command(first_.post, words), 0);
        EXPECT_TRUE(wait_until([before] { return notices_so_far().size() > before; }));
        const std::vector<Notice> all = notices_so_far();
        return all.size() > before ? all[before] : Notice{};
    }

    void close_first() const
    {
        const Notice closed = change_first("close");
        EXPECT_EQ(closed.post, first_.post);
        EXPECT_FALSE(closed.opened);
        EXPECT_NE(closed.thread, std::this_thread::get_id());
    }
};

TEST_F(ConformanceOfPosts, each_running_post_is_announced_once_with_an_id_of_its_own)
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

TEST_F(ConformanceOfPosts, closing_post_is_told_and_takes_its_osds_along)
{
    const Osd osd = open({0, 64, 16, 0});
    borrow(osd);
    EXPECT_EQ(lib_.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
    close_first();
    expect_gone(first_.res_id, osd.handle);

    const Notice opened = change_first("open 800x600");
    EXPECT_EQ(opened.post, first_.post);
    EXPECT_TRUE(opened.opened);
    EXPECT_NE(opened.res_id, 0u);
    expect_osd_gone(opened.res_id, osd.handle);
    qm5_cl_post_status status{};
    ASSERT_EQ(lib_.get_status(opened.res_id, &status), 0);
    EXPECT_EQ(status.width, 800u);
    EXPECT_EQ(status.height, 600u);
    first_ = opened;
    close(open({0, 64, 16, 0})); // the number is free
}

TEST_F(ConformanceOfPosts, post_may_close_during_a_drawing)
{
    const Osd osd = open({0, 320, 28, 2});
    const qm5_cl_osd_mem mem = borrow(osd);
    close_first();
    fill(mem, 1); // the application doesn't know yet
    EXPECT_TRUE(gone(lib_.set_osd(first_.res_id, osd.handle, {0, 0})));
    EXPECT_TRUE(change_first("open 640x480").opened);
}

TEST_F(ConformanceOfPosts, other_posts_stay_when_one_closes)
{
    const Notice closed = first_;
    first_ = notices_so_far()[1];
    const Osd osd = open({0, 64, 16, 0});
    first_ = closed;
    close_first();
    first_ = notices_so_far()[1];
    const qm5_cl_osd_mem mem = borrow(osd);
    fill(mem, 1);
    EXPECT_EQ(lib_.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
    close(osd);
    first_ = closed;
    EXPECT_TRUE(change_first("open 640x480").opened);
}

TEST_F(ConformanceOfPosts, change_behind_the_closing_of_the_device_is_not_told)
{
    expect_silence([this] {
        EXPECT_EQ(run_command(first_.post, "close"), 0);
        EXPECT_EQ(run_command(first_.post, "open 352x288"), 0);
    });
}

// ---- A device that can't be opened --------------------------------------------------------------

TEST_F(Conformance, library_is_exited_after_a_device_that_could_not_be_opened)
{
    if (failure_command.empty())
        GTEST_SKIP() << "there is no command that lets the opening fail";
    take_down();
    EXPECT_EQ(std::system(failure_command.c_str()), 0);
    EXPECT_EQ(lib_.library_init(), 0);
    EXPECT_NE(lib_.open_device(), 0);
    EXPECT_EQ(static_cast<std::uint32_t>(errno) >> 16, 0x81E0u);
    EXPECT_EQ(lib_.library_exit(), 0);
    notices.clear();
    bring_up();
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc < 2 || argc > 4) {
        std::cerr << "conformance: LIBRARY: one path is needed, and up to two commands\n";
        return 2;
    }
    library_path = argv[1];
    post_command = argc > 2 ? argv[2] : "";
    failure_command = argc > 3 ? argv[3] : "";
    return RUN_ALL_TESTS();
}
