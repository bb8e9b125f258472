// What the application counts on of a codec library, whichever it is:
//
//   conformance LIBRARY [GoogleTest's options]
//
// It needs at least one running post thread, opens OSDs on it and shows stripes in them; no server
// may have the device open meanwhile.
#include "codec_library.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iostream>

namespace
{

using namespace support;

const char *library_path;

class Conformance : public testing::Test
{
protected:
    void SetUp() override
    {
        notices.clear();
        load(lib_, library_path);
        ASSERT_EQ(lib_.library_init(), 0);
        ASSERT_EQ(lib_.open_device(), 0);
        ASSERT_EQ(lib_.notify_callback(keep_notice), 0);
        ASSERT_EQ(lib_.set_notify(15), 0);
        ASSERT_TRUE(wait_until([] { return !notices_so_far().empty(); }))
            << "no running post thread was announced";
        first_ = notices_so_far()[0];
        ASSERT_TRUE(first_.opened);
    }

    void TearDown() override
    {
        EXPECT_EQ(lib_.close_device(), 0);
        EXPECT_EQ(lib_.library_exit(), 0);
        const std::size_t told = notices_so_far().size();
        dlclose(lib_.handle);
        EXPECT_EQ(notices_so_far().size(), told) << "a notice behind the end";
    }

    struct Osd {
        std::uint32_t handle = 0;
        std::uint32_t aux = 0;
        std::uint32_t line_bytes = 0;
    };

    Osd open(const qm5_cl_osd_param &param)
    {
        Osd osd;
        EXPECT_EQ(lib_.open_osd(first_.res_id, &param, &osd.handle, &osd.aux, &osd.line_bytes), 0);
        EXPECT_NE(osd.handle, 0u);
        return osd;
    }

    qm5_cl_osd_mem borrow(const Osd &osd)
    {
        qm5_cl_osd_mem mem{};
        EXPECT_EQ(lib_.get_osd_mem(first_.res_id, osd.handle, &mem), 0);
        EXPECT_NE(mem.memory, nullptr);
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

TEST_F(Conformance, memory_is_lines_times_height_aligned_and_writable)
{
    for (std::uint32_t type = 0; type < 3; type++) {
        const Osd osd = open({0, 101, 13, type});
        const qm5_cl_osd_mem mem = borrow(osd);
        EXPECT_EQ(mem.size, osd.line_bytes * 13);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(mem.memory) % 4, 0u);
        auto *bytes = static_cast<std::uint8_t *>(mem.memory);
        for (std::uint32_t i = 0; i < mem.size; i++)
            bytes[i] = static_cast<std::uint8_t>(i);
        for (std::uint32_t i = 0; i < mem.size; i++)
            ASSERT_EQ(bytes[i], static_cast<std::uint8_t>(i)) << i;
        EXPECT_EQ(lib_.set_osd(first_.res_id, osd.handle, {0, 0}), 0);
        close(osd);
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
        std::memset(mem.memory, static_cast<int>(0x55 * i), mem.size);
        EXPECT_EQ(
            lib_.set_osd(first_.res_id, osds[i].handle, {static_cast<std::uint16_t>(8 * i), 32}),
            0);
    }
    for (const Osd &osd : osds)
        close(osd);
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
    qm5_cl_osd_mem mem{};
    EXPECT_TRUE(gone(lib_.get_osd_mem(first_.res_id, osd.handle, &mem)));
    EXPECT_TRUE(gone(lib_.set_osd(first_.res_id, osd.handle, {0, 0})));
    EXPECT_TRUE(gone(lib_.clear_osd(first_.res_id, osd.handle)));
    EXPECT_TRUE(gone(lib_.close_osd(first_.res_id, osd.handle)));
    close(open({1, 64, 16, 1})); // the number is free again
}

TEST_F(Conformance, resource_id_0_is_no_post_thread)
{
    const qm5_cl_osd_param param = {0, 64, 16, 0};
    qm5_cl_post_status status{};
    qm5_cl_osd_mem mem{};
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    EXPECT_TRUE(gone(lib_.get_status(0, &status)));
    EXPECT_TRUE(gone(lib_.open_osd(0, &param, &handle, &word, &word)));
    EXPECT_EQ(handle, 0u) << "it stays 0 if the call fails";
    EXPECT_TRUE(gone(lib_.get_osd_mem(0, 0, &mem)));
    EXPECT_TRUE(gone(lib_.set_osd(0, 0, {0, 0})));
    EXPECT_TRUE(gone(lib_.clear_osd(0, 0)));
    EXPECT_TRUE(gone(lib_.close_osd(0, 0)));
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

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc != 2) {
        std::cerr << "conformance: LIBRARY: one path is needed\n";
        return 2;
    }
    library_path = argv[1];
    return RUN_ALL_TESTS();
}
