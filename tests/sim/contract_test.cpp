// What the simulated codec library says to an application that breaks the contract.
#include "codec_library.h"

#include <algorithm>
#include <csignal>
#include <regex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using namespace support;

// What this process and its children have written to stderr. An emulator tells of a signal too.
std::string captured_stderr()
{
    const std::string text = testing::internal::GetCapturedStderr();
    return std::regex_replace(text, std::regex("qemu: [^\n]*\n"), "");
}

class Contract : public CodecLibrary
{
protected:
    void SetUp() override
    {
        CodecLibrary::SetUp();
        ids_ = bring_up_with_posts();
    }

    void TearDown() override
    {
        const std::string breaches = std::string(STATE) + "/breaches";
        EXPECT_EQ(fs::exists(breaches) ? read_file(breaches) : "", "") << "a breach too many";
        CodecLibrary::TearDown();
    }

    // What an action is told, on stderr and in the file alike.
    std::string breach_of(const std::function<void()> &action)
    {
        const std::string file = std::string(STATE) + "/breaches";
        testing::internal::CaptureStderr();
        action();
        const std::string told = captured_stderr();
        if (!fs::exists(file))
            return told;
        EXPECT_EQ(read_file(file), told);
        fs::remove(file);
        return told;
    }

    qm5_cl_osd_mem borrow(const Opened &opened)
    {
        qm5_cl_osd_mem mem{};
        EXPECT_EQ(lib_.get_osd_mem(ids_[0], opened.handle, &mem), 0);
        return mem;
    }

    // Puts faults in force.
    static void take_up_faults(const std::string &faults)
    {
        write_file(std::string(STATE) + "/new", faults);
        fs::rename(std::string(STATE) + "/new", std::string(STATE) + "/faults");
        EXPECT_TRUE(wait_until([&] {
            return sim_reader::read_state(STATE).control ==
                   sim_hash("", 0, faults.data(), faults.size());
        }));
    }

    std::vector<std::uint32_t> ids_;
};

TEST_F(Contract, life_in_order_breaks_nothing)
{
    EXPECT_EQ(breach_of([this] {
                  const Opened opened = open_osd(ids_[0], {2, 33, 7, 0});
                  for (unsigned i = 0; i < 3; i++) {
                      const qm5_cl_osd_mem mem = borrow(opened);
                      std::memset(mem.memory, 1, mem.size);
                      EXPECT_EQ(lib_.set_osd(ids_[0], opened.handle, {1, 1}), 0);
                  }
                  EXPECT_EQ(lib_.clear_osd(ids_[0], opened.handle), 0);
                  EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
                  take_down();
              }),
              "");
}

TEST_F(Contract, calls_have_their_order)
{
    EXPECT_EQ(breach_of([this] {
                  lib_.library_init();
                  lib_.open_device();
                  lib_.notify_callback(keep_notice);
                  lib_.set_notify(15);
                  lib_.library_exit();
              }),
              "qm5sim: breach: library_init: a second time\n"
              "qm5sim: breach: open_device: a second time\n"
              "qm5sim: breach: notify_callback: a second time\n"
              "qm5sim: breach: set_notify: a second time\n"
              "qm5sim: breach: library_exit: before close_device\n");
}

TEST_F(Contract, arguments_point_somewhere)
{
    const qm5_cl_osd_param param = {1, 16, 1, 0};
    std::uint32_t word = 0;
    const Opened opened = open_osd(ids_[0], {0, 16, 1, 0});
    EXPECT_EQ(
        breach_of([&] {
            constexpr std::uint32_t argument = 0x81E00002;
            EXPECT_TRUE(failed(lib_.get_status(ids_[0], nullptr), argument));
            EXPECT_TRUE(failed(lib_.open_osd(ids_[0], nullptr, &word, &word, &word), argument));
            EXPECT_TRUE(failed(lib_.open_osd(ids_[0], &param, nullptr, &word, &word), argument));
            EXPECT_TRUE(failed(lib_.open_osd(ids_[0], &param, &word, nullptr, &word), argument));
            EXPECT_TRUE(failed(lib_.open_osd(ids_[0], &param, &word, &word, nullptr), argument));
            EXPECT_TRUE(failed(lib_.get_osd_mem(ids_[0], opened.handle, nullptr), argument));
        }),
        "qm5sim: breach: thread_get_status: status: NULL, not a pointer to anything\n"
        "qm5sim: breach: open_osd: param: NULL, not a pointer to anything\n"
        "qm5sim: breach: open_osd: handle: NULL, not a pointer to anything\n"
        "qm5sim: breach: open_osd: aux: NULL, not a pointer to anything\n"
        "qm5sim: breach: open_osd: line_bytes: NULL, not a pointer to anything\n"
        "qm5sim: breach: get_osd_mem: mem: NULL, not a pointer to anything\n");
    EXPECT_EQ(word, 0u) << "stays 0 on failure";
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
}

TEST_F(Contract, records_are_zero_before_the_call)
{
    const Opened opened = open_osd(ids_[0], {0, 16, 1, 0});
    EXPECT_EQ(breach_of([&] {
                  qm5_cl_post_status status{};
                  reinterpret_cast<char *>(&status)[27] = 1;
                  EXPECT_EQ(lib_.get_status(ids_[0], &status), 0);
                  qm5_cl_osd_mem mem{};
                  mem.size = 16;
                  EXPECT_EQ(lib_.get_osd_mem(ids_[0], opened.handle, &mem), 0);
                  read_size(ids_[0]);
                  const qm5_cl_osd_param param = {1, 16, 1, 0};
                  std::uint32_t handle = 5;
                  std::uint32_t word = 0;
                  EXPECT_EQ(lib_.open_osd(ids_[0], &param, &handle, &word, &word), 0);
                  EXPECT_EQ(lib_.close_osd(ids_[0], handle), 0);
              }),
              "qm5sim: breach: thread_get_status: status: not all zero before the call\n"
              "qm5sim: breach: get_osd_mem: mem: not all zero before the call\n"
              "qm5sim: breach: open_osd: handle: 0x00000005 before the call, neither 0 nor gone "
              "with its post\n");
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
}

TEST_F(Contract, osds_have_their_numbers)
{
    const Opened opened = open_osd(ids_[0], {2, 16, 1, 0});
    EXPECT_EQ(breach_of([&] {
                  std::uint32_t handle = 0;
                  std::uint32_t word = 0;
                  for (const qm5_cl_osd_param param :
                       {qm5_cl_osd_param{4, 16, 1, 0}, {0, 16, 1, 3}, {2, 16, 1, 0}})
                      EXPECT_NE(lib_.open_osd(ids_[0], &param, &handle, &word, &word), 0);
              }),
              "qm5sim: breach: open_osd: param: OSD number 4, not 0 to 3\n"
              "qm5sim: breach: open_osd: param: colour type 3, not 0 to 2\n"
              "qm5sim: breach: open_osd: param: OSD 2 of post 0 is open\n");
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
}

TEST_F(Contract, handles_are_those_given_and_not_closed)
{
    const Opened opened = open_osd(ids_[0], {2, 16, 1, 0});
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
    EXPECT_EQ(breach_of([&] {
                  EXPECT_NE(lib_.clear_osd(ids_[0], opened.handle), 0);
                  EXPECT_NE(lib_.clear_osd(ids_[0], 7), 0);
                  EXPECT_NE(lib_.clear_osd(7, 7), 0);
              }),
              "qm5sim: breach: clear_osd: handle " + hex(opened.handle) +
                  ": it has been closed\n"
                  "qm5sim: breach: clear_osd: handle 0x00000007: there has never been one\n"
                  "qm5sim: breach: clear_osd: resource ID 0x00000007: there has never been one\n"
                  "qm5sim: breach: clear_osd: handle 0x00000007: there has never been one\n");
    EXPECT_EQ(breach_of([&] { EXPECT_NE(lib_.clear_osd(ids_[0], 0), 0); }),
              "qm5sim: breach: clear_osd: handle 0x00000000: there has never been one\n");
}

// Though there has been one of the other kind with the same number, or a later one.
TEST_F(Contract, handles_and_resource_ids_are_told_apart)
{
    const std::uint32_t res_id = *std::max_element(ids_.begin(), ids_.end()) + 1;
    const std::uint32_t first = open_osd(ids_[0], {0, 16, 1, 0}).handle;
    const auto clear = [&](std::uint32_t handle) {
        return breach_of([&] { EXPECT_NE(lib_.clear_osd(ids_[0], handle), 0); });
    };
    read_size(ids_[1]);
    const qm5_cl_osd_param too_large = {0, 65535, 65535, 2};
    std::uint32_t none = 0;
    std::uint32_t word = 0;
    EXPECT_NE(lib_.open_osd(ids_[1], &too_large, &none, &word, &word), 0);
    const std::string never = ": there has never been one\n";
    EXPECT_EQ(clear(first + 1), "qm5sim: breach: clear_osd: handle " + hex(first + 1) + never);
    EXPECT_EQ(clear(first - 1), "qm5sim: breach: clear_osd: handle " + hex(first - 1) + never);
    for (const std::uint32_t number : {1u, 2u, 3u})
        open_osd(ids_[0], {number, 16, 1, 0});
    for (const std::uint32_t number : {0u, 1u})
        open_osd(ids_[1], {number, 16, 1, 0});
    EXPECT_EQ(breach_of([&] {
                  qm5_cl_post_status status{};
                  EXPECT_NE(lib_.get_status(res_id, &status), 0);
              }),
              "qm5sim: breach: thread_get_status: resource ID " + hex(res_id) + never);
    for (unsigned number = 0; number < 6; number++)
        EXPECT_EQ(lib_.close_osd(ids_[number / 4], first + number), 0);
}

// Nor does it matter whether the post is there.
TEST_F(Contract, arguments_are_looked_at_also_if_a_fault_fails_the_call)
{
    take_up_faults("1 thread_get_status every fail refused\n2 open_osd every fail gone1\n"
                   "3 get_osd_mem every fail 0x81E00042\n4 clear_osd every fail gone2\n");
    const auto call_all = [this](std::uint32_t id) {
        qm5_cl_post_status status{};
        status.width = 1;
        EXPECT_NE(lib_.get_status(id, &status), 0);
        qm5_cl_osd_mem mem{};
        mem.size = 1;
        EXPECT_NE(lib_.get_osd_mem(id, 7, &mem), 0);
        EXPECT_NE(lib_.clear_osd(id, 7), 0);
        std::uint32_t handle = 5;
        std::uint32_t word = 0;
        const qm5_cl_osd_param param = {4, 16, 1, 3};
        EXPECT_TRUE(failed(lib_.open_osd(id, &param, &handle, &word, &word), 0x81E00002));
    };
    const std::string told =
        "qm5sim: breach: thread_get_status: status: not all zero before the call\n"
        "qm5sim: breach: get_osd_mem: mem: not all zero before the call\n"
        "qm5sim: breach: get_osd_mem: handle 0x00000007: there has never been one\n"
        "qm5sim: breach: clear_osd: handle 0x00000007: there has never been one\n"
        "qm5sim: breach: open_osd: handle: 0x00000005 before the call, neither 0 nor gone with its "
        "post\n"
        "qm5sim: breach: open_osd: param: OSD number 4, not 0 to 3\n"
        "qm5sim: breach: open_osd: param: colour type 3, not 0 to 2\n";
    EXPECT_EQ(breach_of([&] { call_all(ids_[0]); }), told);
    EXPECT_EQ(breach_of([&] { call_all(0); }), told) << "behind an errno that told of its end";
}

TEST_F(Contract, handles_and_open_osds_are_looked_at_also_if_a_fault_fails_the_call)
{
    const std::uint32_t closed = open_osd(ids_[0], {1, 16, 1, 0}).handle;
    EXPECT_EQ(lib_.close_osd(ids_[0], closed), 0);
    const Opened others = open_osd(ids_[1], {2, 16, 1, 0});
    const Opened opened = open_osd(ids_[0], {2, 16, 1, 0});
    take_up_faults("1 clear_osd every fail 0x81E00042\n2 open_osd every fail gone1\n");
    EXPECT_EQ(breach_of([&] {
                  EXPECT_TRUE(failed(lib_.clear_osd(ids_[0], closed), 0x81E00042));
                  EXPECT_TRUE(failed(lib_.clear_osd(ids_[0], others.handle), 0x81E00042));
                  EXPECT_TRUE(failed(lib_.clear_osd(ids_[0], opened.handle), 0x81E00042));
                  std::uint32_t handle = 0;
                  std::uint32_t word = 0;
                  const qm5_cl_osd_param param = {2, 16, 1, 0};
                  read_size(ids_[0]);
                  EXPECT_TRUE(
                      failed(lib_.open_osd(ids_[0], &param, &handle, &word, &word), 0x81E04507));
              }),
              "qm5sim: breach: clear_osd: handle " + hex(closed) +
                  ": it has been closed\n"
                  "qm5sim: breach: clear_osd: handle " +
                  hex(others.handle) +
                  ": it is another post's\n"
                  "qm5sim: breach: open_osd: param: OSD 2 of post 0 is open\n");
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
    EXPECT_EQ(lib_.close_osd(ids_[1], others.handle), 0);
}

TEST_F(Contract, handles_are_looked_at_also_if_their_post_thread_has_gone)
{
    const std::uint32_t closed = open_osd(ids_[0], {1, 16, 1, 0}).handle;
    EXPECT_EQ(lib_.close_osd(ids_[0], closed), 0);
    const Opened others = open_osd(ids_[1], {2, 16, 1, 0});
    sim_reader::write_size(STATE, 0, 800, 600);
    wait_for_notice(6);
    EXPECT_EQ(breach_of([&] {
                  EXPECT_NE(lib_.clear_osd(ids_[0], closed), 0);
                  EXPECT_NE(lib_.clear_osd(ids_[0], others.handle), 0);
                  EXPECT_NE(lib_.clear_osd(0, others.handle), 0) << "made up, it may be";
                  EXPECT_NE(lib_.clear_osd(0, closed), 0);
              }),
              "qm5sim: breach: clear_osd: handle " + hex(closed) +
                  ": it has been closed\n"
                  "qm5sim: breach: clear_osd: handle " +
                  hex(others.handle) +
                  ": it is another post's\n"
                  "qm5sim: breach: clear_osd: handle " +
                  hex(closed) + ": it has been closed\n");
    EXPECT_EQ(lib_.close_osd(ids_[1], others.handle), 0);
}

TEST_F(Contract, handle_that_was_closed_is_known_however_long_ago)
{
    const std::uint32_t first = open_osd(ids_[0], {2, 16, 1, 0}).handle;
    EXPECT_EQ(lib_.close_osd(ids_[0], first), 0);
    for (unsigned i = 0; i < 200; i++)
        EXPECT_EQ(lib_.close_osd(ids_[0], open_osd(ids_[0], {2, 16, 1, 0}).handle), 0);
    EXPECT_EQ(breach_of([&] { EXPECT_NE(lib_.clear_osd(ids_[0], first), 0); }),
              "qm5sim: breach: clear_osd: handle " + hex(first) + ": it has been closed\n");
}

TEST_F(Contract, handle_belongs_to_its_post)
{
    const Opened opened = open_osd(ids_[0], {2, 16, 1, 0});
    EXPECT_EQ(breach_of([&] { EXPECT_NE(lib_.clear_osd(ids_[1], opened.handle), 0); }),
              "qm5sim: breach: clear_osd: handle " + hex(opened.handle) +
                  ": it is another post's\n");
    std::uint32_t handle = opened.handle;
    std::uint32_t word = 0;
    const qm5_cl_osd_param param = {1, 16, 1, 0};
    EXPECT_EQ(breach_of([&] { lib_.open_osd(ids_[0], &param, &handle, &word, &word); }),
              "qm5sim: breach: open_osd: handle: " + hex(opened.handle) +
                  " before the call, neither 0 nor gone with its post\n");
    EXPECT_EQ(lib_.close_osd(ids_[0], handle), 0);
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
}

// An application that hasn't looked yet holds the handles of the thread before; once it has opened
// the OSD anew, no longer.
TEST_F(Contract, handle_that_has_gone_is_forgotten_with_the_next_of_its_osd)
{
    const Opened gone[] = {open_osd(ids_[0], {2, 16, 1, 0}), open_osd(ids_[0], {3, 16, 1, 0})};
    sim_reader::write_size(STATE, 0, 800, 600);
    wait_for_notice(6);
    sim_reader::write_size(STATE, 0, 640, 480);
    const std::uint32_t id = wait_for_notice(8).res_id;
    const Opened next = open_osd(id, {2, 16, 1, 0});
    EXPECT_EQ(breach_of([&] {
                  EXPECT_NE(lib_.clear_osd(id, gone[0].handle), 0);
                  EXPECT_NE(lib_.clear_osd(id, gone[1].handle), 0);
              }),
              "qm5sim: breach: clear_osd: handle " + hex(gone[0].handle) +
                  ": it has been closed\n");
    EXPECT_EQ(lib_.close_osd(id, next.handle), 0);
}

TEST_F(Contract, post_that_has_gone_is_no_breach)
{
    const Opened opened = open_osd(ids_[0], {2, 16, 1, 0});
    EXPECT_EQ(breach_of([&] {
                  sim_reader::write_size(STATE, 0, 800, 600);
                  const std::uint32_t id = wait_for_notice(6).res_id;
                  EXPECT_NE(lib_.clear_osd(ids_[0], opened.handle), 0);
                  EXPECT_NE(lib_.clear_osd(0, 0), 0);
                  EXPECT_NE(lib_.clear_osd(id, opened.handle), 0);
              }),
              "");
}

TEST_F(Contract, open_may_find_the_handle_that_has_gone_with_its_post_but_no_closed_one)
{
    const qm5_cl_osd_param param = {2, 16, 1, 0};
    std::uint32_t handle = open_osd(ids_[0], param).handle;
    std::uint32_t word = 0;
    sim_reader::write_size(STATE, 0, 800, 600);
    const std::uint32_t id = wait_for_notice(6).res_id;
    read_size(id);
    EXPECT_EQ(breach_of([&] { lib_.open_osd(id, &param, &handle, &word, &word); }), "");
    EXPECT_EQ(lib_.close_osd(id, handle), 0);
    const std::string closed = hex(handle);
    read_size(id);
    EXPECT_EQ(breach_of([&] { lib_.open_osd(id, &param, &handle, &word, &word); }),
              "qm5sim: breach: open_osd: handle: " + closed +
                  " before the call, neither 0 nor gone with its post\n");
    EXPECT_EQ(lib_.close_osd(id, handle), 0);
}

TEST_F(Contract, memory_is_written_only_between_get_and_set)
{
    const Opened opened = open_osd(ids_[0], {0, 16, 1, 0});
    EXPECT_EQ(breach_of([&] {
                  lib_.set_osd(ids_[0], opened.handle, {0, 0});
              }),
              "qm5sim: breach: set_osd: handle " + hex(opened.handle) +
                  ": without get_osd_mem before it\n");
    qm5_cl_osd_mem mem = borrow(opened);
    EXPECT_EQ(lib_.set_osd(ids_[0], opened.handle, {0, 0}), 0);
    static_cast<char *>(mem.memory)[3] ^= 1;
    EXPECT_EQ(breach_of([&] { mem = borrow(opened); }),
              "qm5sim: breach: get_osd_mem: handle " + hex(opened.handle) +
                  ": its memory has been written after set_osd\n");
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
}

TEST_F(Contract, write_after_set_is_told_once_and_the_next_one_behind_another_set)
{
    const Opened opened = open_osd(ids_[0], {0, 16, 1, 0});
    for (unsigned i = 0; i < 2; i++) {
        const qm5_cl_osd_mem mem = borrow(opened);
        EXPECT_EQ(lib_.set_osd(ids_[0], opened.handle, {0, 0}), 0);
        static_cast<char *>(mem.memory)[3] ^= 1;
        EXPECT_EQ(breach_of([&] {
                      EXPECT_EQ(lib_.clear_osd(ids_[0], opened.handle), 0);
                      borrow(opened);
                      borrow(opened);
                  }),
                  "qm5sim: breach: get_osd_mem: handle " + hex(opened.handle) +
                      ": its memory has been written after set_osd\n");
    }
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
}

// The application keeps no pointer beyond the call, whatever its result.
TEST_F(Contract, drawing_ends_with_a_set_that_fails_too)
{
    const Opened opened = open_osd(ids_[0], {0, 16, 1, 0});
    const std::string handle = hex(opened.handle);
    take_up_faults("1 set_osd every fail 0x81E00042\n");
    const qm5_cl_osd_mem mem = borrow(opened);
    static_cast<char *>(mem.memory)[3] ^= 1;
    EXPECT_EQ(breach_of([&] {
                  EXPECT_TRUE(failed(lib_.set_osd(ids_[0], opened.handle, {0, 0}), 0x81E00042));
                  borrow(opened);
                  EXPECT_TRUE(failed(lib_.set_osd(ids_[0], opened.handle, {0, 0}), 0x81E00042));
              }),
              "");
    static_cast<char *>(mem.memory)[3] ^= 1;
    EXPECT_EQ(breach_of([&] {
                  borrow(opened);
                  borrow(opened);
              }),
              "qm5sim: breach: get_osd_mem: handle " + handle +
                  ": its memory has been written after set_osd\n");
    EXPECT_TRUE(failed(lib_.set_osd(ids_[0], opened.handle, {0, 0}), 0x81E00042));
    take_up_faults("");
    EXPECT_EQ(breach_of([&] {
                  EXPECT_EQ(lib_.set_osd(ids_[0], opened.handle, {0, 0}), 0);
              }),
              "qm5sim: breach: set_osd: handle " + handle + ": without get_osd_mem before it\n");
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
}

// It is the owner's: a set on another post is refused and changes nothing of it.
TEST_F(Contract, drawing_goes_on_behind_a_set_on_another_post)
{
    const Opened opened = open_osd(ids_[0], {0, 16, 1, 0});
    borrow(opened);
    EXPECT_EQ(breach_of([&] {
                  EXPECT_NE(lib_.set_osd(ids_[1], opened.handle, {0, 0}), 0);
              }),
              "qm5sim: breach: set_osd: handle " + hex(opened.handle) + ": it is another post's\n");
    EXPECT_EQ(breach_of([&] { EXPECT_EQ(lib_.set_osd(ids_[0], opened.handle, {0, 0}), 0); }), "");
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
}

TEST_F(Contract, size_of_a_post_is_read_afresh_before_its_osds_are_opened)
{
    const auto open = [this](std::uint32_t number) {
        const qm5_cl_osd_param param = {number, 16, 1, 0};
        std::uint32_t handle = 0;
        std::uint32_t word = 0;
        EXPECT_EQ(lib_.open_osd(ids_[0], &param, &handle, &word, &word), 0);
        return handle;
    };
    const std::string breach = "qm5sim: breach: open_osd: resource ID " + hex(ids_[0]) +
                               ": without thread_get_status before it\n";
    std::uint32_t handle = 0;
    EXPECT_EQ(breach_of([&] { handle = open(0); }), breach);
    EXPECT_EQ(lib_.close_osd(ids_[0], handle), 0);
    read_size(ids_[1]);
    EXPECT_EQ(breach_of([&] { handle = open(0); }), breach) << "it is another post's";
    EXPECT_EQ(lib_.close_osd(ids_[0], handle), 0);

    read_size(ids_[0]);
    std::uint32_t handles[SIM_OSDS];
    EXPECT_EQ(breach_of([&] {
                  for (std::uint32_t number = 0; number < SIM_OSDS; number++)
                      handles[number] = open(number);
              }),
              "");
    for (const std::uint32_t each : handles)
        EXPECT_EQ(lib_.close_osd(ids_[0], each), 0);
    EXPECT_EQ(breach_of([&] { handle = open(0); }), breach) << "a reopen reads it too";
    EXPECT_EQ(lib_.close_osd(ids_[0], handle), 0);

    read_size(ids_[0]);
    take_up_faults("1 thread_get_status next fail 0x81E00042\n");
    qm5_cl_post_status status{};
    EXPECT_TRUE(failed(lib_.get_status(ids_[0], &status), 0x81E00042));
    EXPECT_EQ(breach_of([&] { handle = open(0); }), breach) << "a reading that fails is none";
    EXPECT_EQ(lib_.close_osd(ids_[0], handle), 0);
}

TEST_F(Contract, writes_after_set_are_found_by_close_and_behind_the_end_of_the_post)
{
    const Opened closed = open_osd(ids_[0], {0, 16, 1, 0});
    const Opened gone = open_osd(ids_[1], {0, 16, 1, 0});
    qm5_cl_osd_mem mem = borrow(closed);
    EXPECT_EQ(lib_.set_osd(ids_[0], closed.handle, {0, 0}), 0);
    static_cast<char *>(mem.memory)[3] ^= 1;
    EXPECT_EQ(breach_of([&] { lib_.clear_osd(ids_[0], closed.handle); }), "");
    EXPECT_EQ(breach_of([&] { lib_.close_osd(ids_[0], closed.handle); }),
              "qm5sim: breach: close_osd: handle " + hex(closed.handle) +
                  ": its memory has been written after set_osd\n");

    mem = {};
    EXPECT_EQ(lib_.get_osd_mem(ids_[1], gone.handle, &mem), 0);
    EXPECT_EQ(lib_.set_osd(ids_[1], gone.handle, {0, 0}), 0);
    sim_reader::write_size(STATE, 1, 0, 0);
    wait_for_notice(5);
    static_cast<char *>(mem.memory)[3] ^= 1;
    EXPECT_EQ(breach_of([&] { read_size(ids_[0]); }),
              "qm5sim: breach: thread_get_status: handle " + hex(gone.handle) +
                  ": its memory has been written after set_osd\n");
}

TEST_F(Contract, write_after_set_is_found_by_the_closing_of_the_device_and_told_once)
{
    const Opened opened = open_osd(ids_[0], {0, 16, 1, 0});
    const qm5_cl_osd_mem mem = borrow(opened);
    EXPECT_EQ(lib_.set_osd(ids_[0], opened.handle, {0, 0}), 0);
    static_cast<char *>(mem.memory)[3] ^= 1;
    EXPECT_EQ(breach_of([&] { take_down(); }),
              "qm5sim: breach: close_device: post 0, OSD 0, handle " + hex(opened.handle) +
                  ": left open\nqm5sim: breach: close_device: handle " + hex(opened.handle) +
                  ": its memory has been written after set_osd\n");
}

TEST_F(Contract, bytes_before_the_memory_and_in_its_last_word_are_nobodys)
{
    write_file(std::string(STATE) + "/settings", "alignment 1 16 16\n");
    sim_reader::write_size(STATE, 3, 0, 0); // the notice comes behind the new setting
    wait_for_notice(5);
    const Opened opened = open_osd(ids_[0], {0, 12, 2, 0});
    EXPECT_EQ(opened.line_bytes, 3u);
    auto *memory = static_cast<unsigned char *>(borrow(opened).memory);
    const long before = 4096 - 8; // down to the page that nobody may touch
    for (const long at : {-1l, -65l, -before}) {
        memory[at] = 0;
        EXPECT_EQ(breach_of([&] {
                      lib_.set_osd(ids_[0], opened.handle, {0, 0});
                      borrow(opened);
                  }),
                  "qm5sim: breach: set_osd: handle " + hex(opened.handle) +
                      ": bytes before its memory have been written\n")
            << at << " is told once";
    }
    memory[7] = 0;
    EXPECT_EQ(breach_of([&] {
                  lib_.set_osd(ids_[0], opened.handle, {0, 0});
                  lib_.close_osd(ids_[0], opened.handle);
              }),
              "qm5sim: breach: set_osd: handle " + hex(opened.handle) +
                  ": byte 1 behind its memory has been written\n");
}

// Ends a child by what it does, and gives the signal.
int signal_of(const std::function<void()> &action)
{
    const pid_t child = fork();
    if (child == 0) {
        action();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

class Touch : public Contract
{
protected:
    // What is told of a touch that ends the process.
    std::string touch(volatile unsigned char *address)
    {
        return breach_of([=] { EXPECT_EQ(signal_of([=] { *address = 0; }), SIGSEGV); });
    }

    std::string touched(const char *call, unsigned osd, const Opened &opened, const char *what)
    {
        return std::string("qm5sim: breach: ") + call + ": post 0, OSD " + std::to_string(osd) +
               ", handle " + hex(opened.handle) + ": " + what + "\n";
    }
};

TEST_F(Touch, of_the_pages_around_the_memory_is_told_before_it_ends_the_process)
{
    const Opened opened = open_osd(ids_[0], {2, 720, 28, 0});
    const qm5_cl_osd_mem mem = borrow(opened);
    auto *memory = static_cast<volatile unsigned char *>(mem.memory);
    const std::ptrdiff_t margin = 2 * 4096 - static_cast<std::ptrdiff_t>(mem.size);
    EXPECT_EQ(signal_of([=] { memory[mem.size - 1] = 0; }), 0);
    EXPECT_EQ(touch(memory + mem.size),
              touched("get_osd_mem", 2, opened, "byte 0 behind its memory has been touched"));
    EXPECT_EQ(touch(memory + mem.size + 4095),
              touched("get_osd_mem", 2, opened, "byte 4095 behind its memory has been touched"));
    EXPECT_EQ(touch(memory - margin - 1),
              touched("get_osd_mem", 2, opened,
                      ("byte " + std::to_string(margin + 1) + " before its memory has been touched")
                          .c_str()));
    EXPECT_EQ(lib_.close_osd(ids_[0], opened.handle), 0);
}

TEST_F(Touch, of_memory_that_has_ended_is_told_with_what_ended_it)
{
    const Opened closed = open_osd(ids_[0], {0, 720, 28, 0});
    const Opened gone = open_osd(ids_[0], {1, 720, 28, 0});
    auto *first = static_cast<volatile unsigned char *>(borrow(closed).memory);
    auto *second = static_cast<volatile unsigned char *>(borrow(gone).memory);
    EXPECT_EQ(lib_.close_osd(ids_[0], closed.handle), 0);
    EXPECT_EQ(touch(first),
              touched("close_osd", 0, closed, "its memory has been touched after its end"));
    sim_reader::write_size(STATE, 0, 800, 600);
    const std::uint32_t id = wait_for_notice(6).res_id;
    EXPECT_EQ(signal_of([=] { *second = 0; }), 0) << "a drawing may be under way";
    const Opened next = open_osd(id, {0, 720, 28, 0});
    EXPECT_EQ(touch(second),
              touched("notify", 1, gone, "its memory has been touched after its end"));
    EXPECT_EQ(touch(first),
              touched("close_osd", 0, closed, "its memory has been touched after its end"));
    EXPECT_EQ(lib_.close_osd(id, next.handle), 0);
}

// Somebody else's handler of before, and the page that it waits for.
volatile unsigned char *foreign_page;
void meet_foreign(int, siginfo_t *info, void *)
{
    _exit(info->si_addr == const_cast<unsigned char *>(foreign_page) ? 7 : 8);
}

TEST_F(Touch, of_what_is_not_the_librarys_goes_to_whoever_had_the_signal_before)
{
    foreign_page = static_cast<volatile unsigned char *>(
        mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(foreign_page, MAP_FAILED);
    take_down();
    const auto end_of_child = [this](bool has_handler) {
        const pid_t child = fork();
        if (child == 0) {
            struct sigaction mine = {};
            mine.sa_flags = has_handler ? SA_SIGINFO : 0;
            if (has_handler)
                mine.sa_sigaction = meet_foreign;
            sigaction(SIGSEGV, &mine, nullptr);
            if (lib_.library_init() == 0)
                *foreign_page = 0;
            _exit(9);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return status;
    };
    EXPECT_EQ(breach_of([&] {
                  const int handled = end_of_child(true);
                  EXPECT_TRUE(WIFEXITED(handled) && WEXITSTATUS(handled) == 7) << handled;
                  const int ended = end_of_child(false);
                  EXPECT_TRUE(WIFSIGNALED(ended) && WTERMSIG(ended) == SIGSEGV) << ended;
              }),
              "");
    munmap(const_cast<unsigned char *>(foreign_page), 4096);
}

TEST_F(Contract, osds_are_closed_before_the_device)
{
    const Opened opened = open_osd(ids_[2], {3, 16, 1, 0});
    EXPECT_EQ(breach_of([this] { take_down(); }),
              "qm5sim: breach: close_device: post 2, OSD 3, handle " + hex(opened.handle) +
                  ": left open\n");
}

TEST_F(Contract, calls_come_from_one_thread)
{
    EXPECT_EQ(breach_of([this] {
                  std::thread([this] {
                      qm5_cl_post_status status{};
                      EXPECT_EQ(lib_.get_status(ids_[0], &status), 0);
                  }).join();
              }),
              "qm5sim: breach: thread_get_status: called from another thread than library_init\n");
}

TEST_F(Contract, strict_library_ends_the_process_at_the_first_breach)
{
    take_down();
    write_file(std::string(STATE) + "/settings", "strict 1\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(signal_of([this] {
                  lib_.library_init();
                  lib_.set_notify(15);
                  lib_.set_notify(15);
              }),
              SIGABRT);
    const std::string told = captured_stderr();
    EXPECT_EQ(told, "qm5sim: breach: set_notify: before notify_callback\n");
    fs::remove(std::string(STATE) + "/breaches");
}

// ---- While the library is down ------------------------------------------------------------------

class DownContract : public CodecLibrary
{
protected:
    static std::string breaches()
    {
        return read_file(std::string(STATE) + "/breaches");
    }
};

TEST_F(DownContract, calls_before_library_init_are_told_in_the_file_too)
{
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.open_device(), 0x81E00001));
    EXPECT_TRUE(failed(lib_.library_exit(), 0x81E00001));
    EXPECT_TRUE(failed(lib_.clear_osd(1, 2), 0x81E00001));
    const std::string told = captured_stderr();
    EXPECT_EQ(told, "qm5sim: breach: open_device: before library_init\n"
                    "qm5sim: breach: library_exit: before library_init\n"
                    "qm5sim: breach: clear_osd: before set_notify\n");
    EXPECT_EQ(breaches(), told);
}

TEST_F(DownContract, calls_behind_library_exit_are_told_in_the_file_too)
{
    bring_up_with_posts();
    take_down();
    testing::internal::CaptureStderr();
    EXPECT_NE(lib_.close_device(), 0);
    const std::string told = captured_stderr();
    EXPECT_EQ(told, "qm5sim: breach: close_device: before open_device\n");
    EXPECT_EQ(breaches(), told);
}

TEST_F(DownContract, callback_comes_once_and_posts_only_behind_set_notify)
{
    ASSERT_EQ(lib_.library_init(), 0);
    ASSERT_EQ(lib_.open_device(), 0);
    ASSERT_EQ(lib_.notify_callback(keep_notice), 0);
    testing::internal::CaptureStderr();
    constexpr std::uint32_t order = 0x81E00001;
    const qm5_cl_osd_param param = {0, 16, 1, 0};
    qm5_cl_post_status status{};
    qm5_cl_osd_mem mem{};
    std::uint32_t word = 0;
    EXPECT_TRUE(failed(lib_.notify_callback(keep_notice), order));
    EXPECT_TRUE(failed(lib_.get_status(1, &status), order));
    EXPECT_TRUE(failed(lib_.open_osd(1, &param, &word, &word, &word), order));
    EXPECT_TRUE(failed(lib_.close_osd(1, 2), order));
    EXPECT_TRUE(failed(lib_.clear_osd(1, 2), order));
    EXPECT_TRUE(failed(lib_.get_osd_mem(1, 2, &mem), order));
    EXPECT_TRUE(failed(lib_.set_osd(1, 2, {0, 0}), order));
    std::string expected = "qm5sim: breach: notify_callback: a second time\n";
    for (const char *call :
         {"thread_get_status", "open_osd", "close_osd", "clear_osd", "get_osd_mem", "set_osd"})
        expected += std::string("qm5sim: breach: ") + call + ": before set_notify\n";
    EXPECT_EQ(captured_stderr(), expected);
    EXPECT_EQ(breaches(), expected);
    EXPECT_EQ(lib_.set_notify(15), 0);
    EXPECT_EQ(lib_.close_device(), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.clear_osd(1, 2), order));
    EXPECT_EQ(lib_.library_exit(), 0);
    EXPECT_TRUE(failed(lib_.clear_osd(1, 2), order));
    const std::string behind = "qm5sim: breach: clear_osd: behind close_device\n";
    EXPECT_EQ(captured_stderr(), behind + behind);
    ASSERT_EQ(lib_.library_init(), 0);
    ASSERT_EQ(lib_.open_device(), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.clear_osd(1, 2), order));
    EXPECT_EQ(captured_stderr(), "qm5sim: breach: clear_osd: before set_notify\n");
    take_down();
}

TEST_F(DownContract, size_of_a_post_is_read_afresh_behind_a_restart)
{
    const std::uint32_t id = bring_up_with_posts()[0];
    read_size(id);
    take_down();
    notices.clear();
    bring_up_with_posts();
    const qm5_cl_osd_param param = {0, 16, 1, 0};
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(lib_.open_osd(id, &param, &handle, &word, &word), 0);
    EXPECT_EQ(captured_stderr(), "qm5sim: breach: open_osd: resource ID " + hex(id) +
                                     ": without thread_get_status before it\n");
    EXPECT_EQ(lib_.close_osd(id, handle), 0);
    take_down();
}

TEST_F(DownContract, each_call_has_one_that_comes_before_it)
{
    constexpr std::uint32_t order = 0x81E00001;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.notify_callback(keep_notice), order));
    EXPECT_TRUE(failed(lib_.close_device(), order));
    ASSERT_EQ(lib_.library_init(), 0);
    EXPECT_TRUE(failed(lib_.notify_callback(keep_notice), order));
    EXPECT_TRUE(failed(lib_.close_device(), order));
    ASSERT_EQ(lib_.open_device(), 0);
    EXPECT_TRUE(failed(lib_.set_notify(15), order));
    const std::string told = captured_stderr();
    EXPECT_EQ(told, "qm5sim: breach: notify_callback: before open_device\n"
                    "qm5sim: breach: close_device: before open_device\n"
                    "qm5sim: breach: notify_callback: before open_device\n"
                    "qm5sim: breach: close_device: before open_device\n"
                    "qm5sim: breach: set_notify: before notify_callback\n");
    EXPECT_EQ(breaches(), told);
    take_down();
}

TEST_F(DownContract, callback_is_one_and_the_mask_is_that_of_all_posts)
{
    ASSERT_EQ(lib_.library_init(), 0);
    ASSERT_EQ(lib_.open_device(), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.notify_callback(nullptr), 0x81E00002));
    ASSERT_EQ(lib_.notify_callback(keep_notice), 0);
    EXPECT_EQ(lib_.set_notify(7), 0);
    EXPECT_EQ(captured_stderr(),
              "qm5sim: breach: notify_callback: callback: NULL, not a pointer to anything\n"
              "qm5sim: breach: set_notify: mask: 7, not 15\n");
    take_down();
}

TEST_F(DownContract, osds_are_closed_before_the_end_of_the_process)
{
    testing::internal::CaptureStderr();
    const pid_t child = fork();
    if (child == 0) {
        const std::vector<std::uint32_t> ids = bring_up_with_posts();
        EXPECT_EQ(lib_.close_osd(ids[0], open_osd(ids[0], {0, 16, 1, 0}).handle), 0);
        open_osd(ids[1], {3, 16, 1, 0});
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const std::string told = captured_stderr();
    EXPECT_EQ(told, "qm5sim: breach: close_device: post 1, OSD 3, handle 0x60000002: left open\n");
    EXPECT_EQ(breaches(), told);
}

TEST_F(DownContract, write_after_set_is_told_by_the_end_of_the_process_at_the_latest)
{
    testing::internal::CaptureStderr();
    const pid_t child = fork();
    if (child == 0) {
        const std::vector<std::uint32_t> ids = bring_up_with_posts();
        const Opened opened = open_osd(ids[1], {3, 16, 1, 0});
        qm5_cl_osd_mem mem{};
        EXPECT_EQ(lib_.get_osd_mem(ids[1], opened.handle, &mem), 0);
        EXPECT_EQ(lib_.set_osd(ids[1], opened.handle, {0, 0}), 0);
        static_cast<char *>(mem.memory)[3] ^= 1;
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const std::string told = captured_stderr();
    EXPECT_EQ(told, "qm5sim: breach: close_device: handle 0x60000001: its memory has been written "
                    "after set_osd\n"
                    "qm5sim: breach: close_device: post 1, OSD 3, handle 0x60000001: left open\n");
    EXPECT_EQ(breaches(), told);
}

// A cut off file can't be written to through its mapping.
TEST_F(DownContract, file_that_is_cut_off_is_named_before_that_ends_the_process)
{
    fs::create_directory(STATE);
    write_file(std::string(STATE) + "/settings", "record 1\n");
    std::vector<const char *> files = {"post2-osd3"};
#ifndef __arm__ // whose emulator tells an address a page further on
    files.insert(files.end(), {"state", "calls"});
#endif
    for (const char *file : files) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(signal_of([this, file] {
                      std::signal(SIGBUS, SIG_DFL); // a sanitizer would have it
                      const std::uint32_t id = bring_up_with_posts()[2];
                      const Opened opened = open_osd(id, {3, 720, 28, 0});
                      qm5_cl_osd_mem mem{};
                      lib_.get_osd_mem(id, opened.handle, &mem);
                      fs::resize_file(std::string(STATE) + '/' + file, 0);
                      lib_.set_osd(id, opened.handle, {0, 0});
                  }),
                  SIGBUS);
        EXPECT_EQ(captured_stderr(), std::string("qm5sim: ") + file +
                                         ": somebody has cut off the file, and the server ends\n");
    }
}

TEST_F(DownContract, process_with_no_osd_may_end_with_the_device_open)
{
    const pid_t child = fork();
    if (child == 0) {
        const std::vector<std::uint32_t> ids = bring_up_with_posts();
        EXPECT_EQ(lib_.close_osd(ids[0], open_osd(ids[0], {0, 16, 1, 0}).handle), 0);
        std::exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_FALSE(fs::exists(std::string(STATE) + "/breaches"));
}

TEST_F(DownContract, file_is_not_made_where_there_can_be_no_folder)
{
    setenv("QM5SIM_STATE", "/tmp/none/codec", 1);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.open_device(), 0x81E00001));
    EXPECT_EQ(captured_stderr(), "qm5sim: breach: open_device: before library_init\n"
                                 "qm5sim: /tmp/none/codec: No such file or directory\n");
}

TEST_F(DownContract, file_that_would_wait_for_a_reader_holds_nothing_up)
{
    fs::create_directory(STATE);
    ASSERT_EQ(mkfifo("/tmp/codec/breaches", 0600), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.open_device(), 0x81E00001));
    EXPECT_EQ(captured_stderr(), "qm5sim: breach: open_device: before library_init\n"
                                 "qm5sim: /tmp/codec/breaches: No such device or address\n");
}

TEST_F(DownContract, strict_library_ends_the_process_before_library_init_too)
{
    fs::create_directory(STATE);
    write_file(std::string(STATE) + "/settings", "strict 1\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(signal_of([this] { lib_.open_device(); }), SIGABRT);
    EXPECT_EQ(captured_stderr(), "qm5sim: breach: open_device: before library_init\n");
}

} // namespace
