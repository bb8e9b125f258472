// The simulated codec library, held against what the application counts on.
#include "codec_library.h"

#include <algorithm>
#include <cerrno>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

// How many signals come while the library takes room on the disk.
static int interruptions;

// The library finds this one before the C library's.
int posix_fallocate(int fd, off_t at, off_t size)
{
    if (interruptions > 0) {
        interruptions--;
        return EINTR;
    }
    return reinterpret_cast<decltype(&posix_fallocate)>(dlsym(RTLD_NEXT, "posix_fallocate"))(fd, at,
                                                                                             size);
}

namespace
{

namespace fs = std::filesystem;
using namespace support;

TEST_F(CodecLibrary, announces_four_running_posts_on_a_thread_of_its_own)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    std::set<std::uint32_t> posts;
    for (const Notice &notice : notices_so_far()) {
        EXPECT_TRUE(notice.opened);
        EXPECT_NE(notice.res_id, 0u);
        EXPECT_NE(notice.thread, std::this_thread::get_id());
        posts.insert(notice.post);
    }
    EXPECT_EQ(posts, (std::set<std::uint32_t>{0, 1, 2, 3}));
    EXPECT_EQ(std::set<std::uint32_t>(ids.begin(), ids.end()).size(), SIM_POSTS);
}

TEST_F(CodecLibrary, gives_the_sizes_of_the_default_outputs)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    constexpr std::uint16_t sizes[][2] = {{720, 576}, {1920, 1080}, {640, 360}, {1280, 720}};
    for (std::size_t i = 0; i < SIM_POSTS; i++) {
        qm5_cl_post_status status{};
        ASSERT_EQ(lib_.get_status(ids[i], &status), 0);
        EXPECT_EQ(status.width, sizes[i][0]);
        EXPECT_EQ(status.height, sizes[i][1]);
    }
}

TEST_F(CodecLibrary, configured_sizes_hold_from_the_start)
{
    sim_reader::write_size(STATE, 1, 352, 288);
    sim_reader::write_size(STATE, 2, 0, 0);
    bring_up();
    wait_for_notice(3);
    std::set<std::uint32_t> posts;
    for (const Notice &notice : notices_so_far()) {
        posts.insert(notice.post);
        qm5_cl_post_status status{};
        ASSERT_EQ(lib_.get_status(notice.res_id, &status), 0);
        if (notice.post == 1) {
            EXPECT_EQ(status.width, 352u);
            EXPECT_EQ(status.height, 288u);
        }
    }
    EXPECT_EQ(posts, (std::set<std::uint32_t>{0, 1, 3}));
}

TEST_F(CodecLibrary, line_holds_the_width_and_is_rounded_up)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    for (std::uint32_t type = 0; type < 3; type++) {
        for (const unsigned width : {0u, 1u, 63u, 64u, 65u, 720u, 65535u}) {
            const qm5_cl_osd_param param = {type, static_cast<std::uint16_t>(width), 3, type};
            const Opened opened = open_osd(ids[0], param);
            const std::uint32_t least = (width * (2u << type) + 7) / 8;
            EXPECT_GE(opened.line_bytes, least);
            EXPECT_LT(opened.line_bytes, least + 16);
            EXPECT_EQ(opened.line_bytes % 16, 0u);
            qm5_cl_osd_mem mem{};
            ASSERT_EQ(lib_.get_osd_mem(ids[0], opened.handle, &mem), 0);
            EXPECT_EQ(mem.size, opened.line_bytes * 3);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(mem.memory) % 4, 0u);
            std::memset(mem.memory, 1, mem.size);
            EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
        }
    }
}

TEST_F(CodecLibrary, what_is_drawn_is_shown_by_set_alone)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[2], {1, 32, 2, 2});
    qm5_cl_osd_mem mem{};
    ASSERT_EQ(lib_.get_osd_mem(ids[2], opened.handle, &mem), 0);
    std::memset(mem.memory, 7, mem.size);
    EXPECT_TRUE(sim_reader::read_post(STATE, 2).osd[1].pixels.empty()) << "not shown yet";

    ASSERT_EQ(lib_.set_osd(ids[2], opened.handle, {5, 9}), 0);
    const sim_reader::Osd shown = sim_reader::read_post(STATE, 2).osd[1];
    EXPECT_EQ(shown.pixels, std::vector<std::uint8_t>(64, 7));
    EXPECT_EQ(shown.record.x, 5u);
    EXPECT_EQ(shown.record.y, 9u);

    std::memset(mem.memory, 8, mem.size);
    EXPECT_EQ(sim_reader::read_post(STATE, 2).osd[1].pixels, shown.pixels);
    ASSERT_EQ(lib_.set_osd(ids[2], opened.handle, {6, 9}), 0);
    EXPECT_EQ(sim_reader::read_post(STATE, 2).osd[1].pixels, std::vector<std::uint8_t>(64, 8));
    EXPECT_EQ(sim_reader::read_post(STATE, 2).osd[1].record.x, 6u);
}

// What a reader in a process of its own finds wrong with pictures that are each of one byte, from 0
// up to the last one: nothing at its end.
int read_along(std::uint8_t last, int first_is_seen)
{
    alarm(60);
    int before = -1;
    while (before != last) {
        const std::vector<std::uint8_t> pixels = sim_reader::read_post(STATE, 0).osd[0].pixels;
        if (pixels.empty())
            return 1;
        if (std::any_of(pixels.begin(), pixels.end(),
                        [&](std::uint8_t pixel) { return pixel != pixels[0]; }))
            return 2;
        if (pixels[0] < before || (before == -1 && pixels[0] != 0))
            return 3;
        if (before == -1 && write(first_is_seen, "", 1) != 1)
            return 4;
        before = pixels[0];
    }
    return 0;
}

TEST_F(CodecLibrary, ten_processes_that_read_along_see_whole_pictures_in_their_order)
{
    constexpr std::uint8_t last = 200;
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[0], {0, 720, 50, 2});
    const auto draw = [&](int byte) {
        qm5_cl_osd_mem mem{};
        ASSERT_EQ(lib_.get_osd_mem(ids[0], opened.handle, &mem), 0);
        std::memset(mem.memory, byte, mem.size);
        ASSERT_EQ(lib_.set_osd(ids[0], opened.handle, {0, 0}), 0);
    };
    draw(0);
    int first_is_seen[2];
    ASSERT_EQ(pipe(first_is_seen), 0);
    std::vector<pid_t> readers;
    for (unsigned i = 0; i < 10; i++) {
        readers.push_back(fork());
        if (readers.back() == 0)
            _exit(read_along(last, first_is_seen[1]));
    }
    close(first_is_seen[1]);
    for (std::size_t i = 0; i < readers.size(); i++) {
        char any = 0;
        ASSERT_EQ(read(first_is_seen[0], &any, 1), 1) << "a reader has ended without a picture";
    }
    close(first_is_seen[0]);
    // A reader needs a moment without a change; the server's passes leave it nearly a second.
    for (int i = 1; i <= last; i++) {
        draw(i);
        std::this_thread::yield();
    }
    for (const pid_t reader : readers) {
        int status = 0;
        EXPECT_EQ(waitpid(reader, &status, 0), reader);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
    }
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
}

TEST_F(CodecLibrary, cleared_osd_stays_open_and_can_be_shown_again)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[0], {3, 16, 1, 0});
    ASSERT_EQ(lib_.set_osd(ids[0], opened.handle, {0, 0}), 0);
    ASSERT_EQ(lib_.clear_osd(ids[0], opened.handle), 0);
    EXPECT_EQ(sim_reader::read_post(STATE, 0).osd[3].record.shown, 0u);
    EXPECT_EQ(lib_.clear_osd(ids[0], opened.handle), 0);
    EXPECT_EQ(lib_.set_osd(ids[0], opened.handle, {0, 0}), 0);
    EXPECT_EQ(sim_reader::read_post(STATE, 0).osd[3].record.shown, 1u);
}

TEST_F(CodecLibrary, closed_osd_is_off_the_picture_and_unknown)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[1], {0, 16, 1, 0});
    ASSERT_EQ(lib_.set_osd(ids[1], opened.handle, {0, 0}), 0);
    ASSERT_EQ(lib_.close_osd(ids[1], opened.handle), 0);
    EXPECT_EQ(sim_reader::read_post(STATE, 1).osd[0].record.handle, 0u);
    EXPECT_TRUE(failed(lib_.clear_osd(ids[1], opened.handle), QM5_CL_ERROR_GONE_2));
    EXPECT_NE(open_osd(ids[1], {0, 16, 1, 0}).handle, opened.handle) << "no handle comes twice";
}

TEST_F(CodecLibrary, resource_id_or_handle_of_zero_is_never_known)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    expect_all_gone(0, 0);
    qm5_cl_osd_mem mem{};
    EXPECT_TRUE(failed(lib_.get_osd_mem(ids[0], 0, &mem), QM5_CL_ERROR_GONE_2));
}

TEST_F(CodecLibrary, open_is_refused_for_what_the_post_does_not_have)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    for (const qm5_cl_osd_param param : {qm5_cl_osd_param{4, 16, 1, 0}, {0, 16, 1, 3}}) {
        EXPECT_NE(lib_.open_osd(ids[0], &param, &handle, &word, &word), 0);
        EXPECT_FALSE(is_gone_error(static_cast<std::uint32_t>(errno)));
        EXPECT_EQ(handle, 0u);
    }
    const qm5_cl_osd_param param = {2, 16, 1, 0};
    open_osd(ids[0], param);
    EXPECT_NE(lib_.open_osd(ids[0], &param, &handle, &word, &word), 0) << "it is open already";
    EXPECT_EQ(handle, 0u);
}

TEST_F(CodecLibrary, closing_post_takes_its_osds_along_and_is_announced)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[3], {0, 100, 10, 1});
    qm5_cl_osd_mem mem{};
    ASSERT_EQ(lib_.get_osd_mem(ids[3], opened.handle, &mem), 0);

    sim_reader::write_size(STATE, 3, 0, 0);
    const Notice closed = wait_for_notice(5);
    EXPECT_EQ(closed.post, 3u);
    EXPECT_FALSE(closed.opened);
    std::memset(mem.memory, 1, mem.size); // a drawing that was under way does no harm
    expect_all_gone(ids[3], opened.handle);
    EXPECT_EQ(sim_reader::read_post(STATE, 3).osd[0].record.handle, 0u);

    sim_reader::write_size(STATE, 3, 800, 600);
    const Notice opened_again = wait_for_notice(6);
    EXPECT_EQ(opened_again.post, 3u);
    EXPECT_TRUE(opened_again.opened);
    EXPECT_NE(opened_again.res_id, ids[3]);
    expect_all_gone(ids[3], opened.handle);
}

TEST_F(CodecLibrary, memory_of_a_gone_post_is_given_back_by_the_next_call)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    open_osd(ids[3], {1, 100, 10, 1});
    const std::string shown = std::string(STATE) + "/post3-osd1";
    EXPECT_EQ(mappings_of(shown), 1u);

    sim_reader::write_size(STATE, 3, 0, 0);
    EXPECT_FALSE(wait_for_notice(5).opened);
    EXPECT_EQ(mappings_of(shown), 1u) << "the server may be drawing";
    qm5_cl_post_status status{};
    EXPECT_EQ(lib_.get_status(ids[0], &status), 0);
    EXPECT_EQ(mappings_of(shown), 0u);
}

TEST_F(CodecLibrary, osd_of_more_than_64_mib_is_refused)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const qm5_cl_osd_param param = {0, 65535, 65535, 2};
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    EXPECT_TRUE(
        failed(lib_.open_osd(ids[0], &param, &handle, &word, &word), QM5_CL_ERROR_OPEN_REFUSED));
    EXPECT_EQ(handle, 0u);
    open_osd(ids[0], {0, 8192, 8192, 2});
}

TEST_F(CodecLibrary, start_and_open_are_not_failed_by_signals)
{
    interruptions = 2;
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    EXPECT_EQ(interruptions, 0);
    interruptions = 2;
    open_osd(ids[0], {0, 16, 16, 2});
    EXPECT_EQ(interruptions, 0);
}

TEST_F(CodecLibrary, post_outside_the_mask_runs_without_a_notice)
{
    bring_up(0b0101);
    wait_for_notice(2);
    sim_reader::write_size(STATE, 1, 0, 0);
    sim_reader::write_size(STATE, 2, 0, 0);
    wait_for_notice(3);
    std::vector<std::uint32_t> posts;
    for (const Notice &notice : notices_so_far())
        posts.push_back(notice.post);
    EXPECT_EQ(posts, (std::vector<std::uint32_t>{0, 2, 2}));
    EXPECT_NE(sim_reader::read_post(STATE, 3).res_id, 0u);
}

TEST_F(CodecLibrary, new_size_is_a_closing_and_an_opening)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    sim_reader::write_size(STATE, 0, 640, 480);
    EXPECT_TRUE(wait_for_notice(6).opened);
    EXPECT_FALSE(notices_so_far()[4].opened);
    qm5_cl_post_status status{};
    ASSERT_EQ(lib_.get_status(notices_so_far()[5].res_id, &status), 0);
    EXPECT_EQ(status.width, 640u);
    EXPECT_EQ(status.height, 480u);
}

TEST_F(CodecLibrary, file_that_cannot_be_understood_changes_nothing)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    testing::internal::CaptureStderr();
    support::write_file(std::string(STATE) + "/post0", "0x576\n");
    support::write_file(std::string(STATE) + "/post2", ""); // somebody is about to write it
    support::write_file(std::string(STATE) + "/post3", "closed\n");
    EXPECT_EQ(wait_for_notice(5).post, 3u) << "the one after them is followed";
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_NE(told.find("qm5sim: /tmp/codec/post0: neither WIDTHxHEIGHT nor closed\n"),
              std::string::npos);
    EXPECT_EQ(told.find("post2"), std::string::npos) << told;
    qm5_cl_post_status status{};
    EXPECT_EQ(lib_.get_status(ids[0], &status), 0);
    EXPECT_EQ(status.width, 720u);
    EXPECT_EQ(lib_.get_status(ids[2], &status), 0);
    EXPECT_EQ(status.width, 640u);
}

TEST_F(CodecLibrary, post_threads_outlive_the_server_and_its_osds_do_not)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    open_osd(ids[0], {0, 16, 16, 2});
    take_down();
    EXPECT_EQ(sim_reader::read_post(STATE, 0).res_id, ids[0]);
    EXPECT_EQ(sim_reader::read_post(STATE, 0).osd[0].record.handle, 0u);
    notices.clear();
    EXPECT_EQ(bring_up_with_posts(), ids);
}

TEST_F(CodecLibrary, state_of_a_server_that_died_within_a_change_is_taken_over)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[0], {0, 16, 16, 2});
    ASSERT_EQ(lib_.set_osd(ids[0], opened.handle, {0, 0}), 0);
    const std::string state = std::string(STATE) + "/state";
    std::string left = support::read_file(state);
    take_down();
    left.at(offsetof(sim_state, sequence)) |= 1;
    support::write_file(state, left);

    notices.clear();
    EXPECT_EQ(bring_up_with_posts(), ids);
    EXPECT_EQ(sim_reader::read_post(STATE, 0).osd[0].record.handle, 0u);
    EXPECT_EQ(sim_reader::read_post(STATE, 0).osd[0].record.shown, 0u);
}

TEST_F(CodecLibrary, device_is_open_in_one_process_at_a_time)
{
    bring_up_with_posts();
    const int other = open("/tmp/codec/state", O_RDWR | O_CLOEXEC);
    ASSERT_NE(other, -1);
    EXPECT_NE(flock(other, LOCK_EX | LOCK_NB), 0) << "the library has it";
    take_down();
    EXPECT_EQ(flock(other, LOCK_EX | LOCK_NB), 0) << "no more";

    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.library_init(), 0x81E00003));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: /tmp/codec/state: another process has the device open\n");
    close(other);
    EXPECT_EQ(lib_.library_init(), 0);
    EXPECT_EQ(lib_.library_exit(), 0);
}

TEST_F(CodecLibrary, file_that_is_gone_closes_its_post_and_one_that_cannot_be_read_does_not)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    testing::internal::CaptureStderr();
    fs::rename(std::string(STATE) + "/post1", std::string(STATE) + "/moved");
    EXPECT_EQ(wait_for_notice(5).post, 1u);
    fs::create_directory(std::string(STATE) + "/made");
    ASSERT_EQ(renameat2(AT_FDCWD, "/tmp/codec/made", AT_FDCWD, "/tmp/codec/post0", RENAME_EXCHANGE),
              0);
    sim_reader::write_size(STATE, 3, 0, 0);
    EXPECT_TRUE(wait_until([] { return notices_so_far().back().post == 3; }));
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_NE(told.find("qm5sim: /tmp/codec/post0: Is a directory\n"), std::string::npos) << told;
    qm5_cl_post_status status{};
    EXPECT_EQ(lib_.get_status(ids[0], &status), 0);
}

TEST_F(CodecLibrary, folder_is_the_users_alone)
{
    constexpr auto others = fs::perms::group_all | fs::perms::others_all;
    bring_up();
    EXPECT_EQ(fs::status(STATE).permissions() & others, fs::perms::none);
    take_down();
    sim_reader::write_size("/tmp/other", 1, 352, 288);
    EXPECT_EQ(fs::status("/tmp/other").permissions() & others, fs::perms::none);
    fs::remove_all("/tmp/other");
}

TEST_F(CodecLibrary, osds_left_open_go_with_the_device)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    open_osd(ids[0], {0, 16, 16, 2});
    take_down();
    EXPECT_EQ(mappings_of(STATE), 0u);
}

// The application sets TZ while the library's thread is at work.
TEST_F(CodecLibrary, folder_is_that_of_the_opening_whatever_becomes_of_the_environment)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    setenv("QM5SIM_STATE", "/tmp/other", 1);
    open_osd(ids[0], {0, 16, 16, 2});
    EXPECT_TRUE(fs::exists(std::string(STATE) + "/post0-osd0"));
    EXPECT_FALSE(fs::exists("/tmp/other"));
}

TEST_F(CodecLibrary, folder_with_too_long_a_name_is_refused)
{
    setenv("QM5SIM_STATE", ("/tmp/" + std::string(SIM_PATH_SIZE - 15, 'x')).c_str(), 1);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.library_init(), 0x81E00003));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "qm5sim: state folder: File name too long\n");
}

TEST_F(CodecLibrary, full_disk_fails_the_first_start_and_leaves_a_folder_that_can_be_read)
{
    fs::create_directory(STATE);
    ASSERT_EQ(mount("none", STATE, "tmpfs", 0, "size=64k"), 0);
    const std::string filler = std::string(STATE) + "/filler";
    support::write_file(filler, std::string(64 * 1024, 'x'));
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.library_init(), 0x81E00003));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: /tmp/codec/state: No space left on device\n");
    EXPECT_EQ(support::read_file(std::string(STATE) + "/state"), "");
    const sim_state state = sim_reader::read_state(STATE);
    EXPECT_EQ(state.post[0].res_id, 0u);
    EXPECT_EQ(state.post[0].width, 720u) << "what it is without a word";
    EXPECT_EQ(sim_reader::read_post(STATE, 1).width, 1920u);

    fs::remove(filler);
    bring_up_with_posts();
    take_down();
    EXPECT_EQ(umount(STATE), 0);
}

TEST_F(CodecLibrary, full_disk_fails_an_open_and_leaves_no_half_of_a_file)
{
    constexpr std::uint32_t system = 0x81E00003;
    fs::create_directory(STATE);
    ASSERT_EQ(mount("none", STATE, "tmpfs", 0, "size=64k"), 0);
    const std::string filler = std::string(STATE) + "/filler";
    support::write_file(filler, std::string(60 * 1024, 'x')); // one page is left, for `state`
    ASSERT_EQ(lib_.library_init(), 0);
    ASSERT_EQ(lib_.open_device(), 0);
    ASSERT_EQ(lib_.notify_callback(keep_notice), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.set_notify(15), system));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: /tmp/codec/post0: No space left on device\n");
    EXPECT_FALSE(fs::exists(std::string(STATE) + "/post0"));

    fs::remove(filler);
    ASSERT_EQ(lib_.set_notify(15), 0);
    up_ = true;
    const std::uint32_t id = wait_for_notice(1).res_id;
    const qm5_cl_osd_param param = {0, 300, 300, 2};
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    read_size(id);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.open_osd(id, &param, &handle, &word, &word), system));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: /tmp/codec/post0-osd0: No space left on device\n");
    EXPECT_EQ(handle, 0u);
    EXPECT_FALSE(fs::exists(std::string(STATE) + "/post0-osd0"));
    open_osd(id, {0, 16, 16, 2});
    take_down();
    EXPECT_EQ(umount(STATE), 0);
}

TEST_F(CodecLibrary, no_notice_comes_after_the_device_is_closed)
{
    bring_up_with_posts();
    take_down();
    sim_reader::write_size(STATE, 0, 0, 0);
    bring_up(); // finds the change, and tells it now
    wait_for_notice(SIM_POSTS + 3);
    EXPECT_EQ(notices_so_far().size(), SIM_POSTS + 3u);
}

TEST_F(CodecLibrary, calls_out_of_their_order_fail)
{
    constexpr std::uint32_t order = 0x81E00001;
    qm5_cl_post_status status{};
    EXPECT_TRUE(failed(lib_.open_device(), order));
    EXPECT_TRUE(failed(lib_.library_exit(), order));
    EXPECT_TRUE(failed(lib_.get_status(1, &status), order));
    ASSERT_EQ(lib_.library_init(), 0);
    EXPECT_TRUE(failed(lib_.library_init(), order));
    EXPECT_TRUE(failed(lib_.close_device(), order));
    EXPECT_TRUE(failed(lib_.notify_callback(keep_notice), order));
    ASSERT_EQ(lib_.open_device(), 0);
    EXPECT_TRUE(failed(lib_.set_notify(15), order)) << "there is no callback";
    EXPECT_TRUE(failed(lib_.library_exit(), order)) << "the device is open";
    EXPECT_EQ(lib_.close_device(), 0);
    EXPECT_EQ(lib_.library_exit(), 0);
}

TEST_F(CodecLibrary, state_folder_that_cannot_be_made_is_told)
{
    setenv("QM5SIM_STATE", "/tmp/none/codec", 1);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.library_init(), 0x81E00003));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: /tmp/none/codec: No such file or directory\n");
}

// The opening of an OSD makes files, so that the notification thread looks around just then.
TEST_F(CodecLibrary, ends_while_the_notification_thread_looks_around)
{
    for (unsigned i = 0; i < 300; i++) {
        notices.clear();
        bring_up();
        const std::uint32_t id = wait_for_notice(1).res_id;
        EXPECT_EQ(lib_.close_osd(id, open_osd(id, {0, 16, 1, 0}).handle), 0);
        take_down();
    }
}

} // namespace
