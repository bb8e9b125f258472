// The interface of the codec library: its records byte by byte, the order of its calls over the
// server's life, and what each call's failure leads to.
#include "display/layout.h"
#include "display/qm5codec.h"
#include "display/refresh.h"
#include "server/callback.h"
#include "server/start.h"
#include "support/bdf_font.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"
#include "support/trace.h"

#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using support::errors_of;
using support::Lines;
using support::report;
using support::take_trace;

constexpr std::uint32_t GONE[] = {0x81E04507, 0x81E03204, 0x81E0250C};
constexpr std::uint32_t REFUSED = 0x81E03246;

// ---- Records ------------------------------------------------------------------------------------

template <typename Record>
std::vector<unsigned> bytes_of(const Record &record)
{
    const auto bytes = std::bit_cast<std::array<std::uint8_t, sizeof(Record)>>(record);
    return {bytes.begin(), bytes.end()};
}

TEST(CodecRecords, status_has_the_video_size_behind_its_first_two_bytes)
{
    qm5_cl_post_status status = {};
    status.width = 0x0201;
    status.height = 0x0403;
    std::vector<unsigned> expected(28);
    expected[2] = 1;
    expected[3] = 2;
    expected[4] = 3;
    expected[5] = 4;
    EXPECT_EQ(bytes_of(status), expected);
}

TEST(CodecRecords, parameters_of_an_open_have_no_gaps)
{
    EXPECT_EQ(bytes_of(qm5_cl_osd_param{0x04030201, 0x0605, 0x0807, 0x0C0B0A09}),
              (std::vector<unsigned>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
}

TEST(CodecRecords, memory_is_a_pointer_and_two_words)
{
    qm5_cl_osd_mem mem = {};
    mem.memory = &mem;
    mem.size = 0x04030201;
    const std::vector<unsigned> bytes = bytes_of(mem);
    ASSERT_EQ(bytes.size(), sizeof(void *) + 8);
    EXPECT_EQ(std::memcmp(&mem, &mem.memory, sizeof mem.memory), 0);
    EXPECT_EQ(std::vector<unsigned>(bytes.begin() + sizeof(void *), bytes.end()),
              (std::vector<unsigned>{1, 2, 3, 4, 0, 0, 0, 0}));
}

TEST(CodecRecords, position_is_one_word_with_x_in_its_low_half)
{
    EXPECT_EQ(std::bit_cast<std::uint32_t>(qm5_cl_osd_pos{0x1234, 0xFEDC}), 0xFEDC1234u);
}

TEST(CodecRecords, notification_is_four_words)
{
    typedef std::array<std::uint32_t, 4> Words;
    EXPECT_EQ(std::bit_cast<Words>(qm5_cl_post_notify_info{1, 2, 3, 4}), (Words{1, 2, 3, 4}));
}

// ---- Calls --------------------------------------------------------------------------------------

// A server with one rectangle on post 0, whose thread has the resource ID 0x11.
class Codec : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        cmn_role = "server";
        font_file_ = support::make_font(support::small_font());
        begin();
    }

    void TearDown() override
    {
        support::remove_file(font_file_);
        OsdTest::TearDown();
    }

    void begin()
    {
        codec::reset();
        codec::set_size(200, 150);
        post_->res_id = 0x11;
        post_->font_file = font_file_.c_str();
        post_->rect[0].mode = OSD_MODE_RECTANGLE;
        post_->rect[0].color_type = 2;
        post_->rect[0].w = 4;
        post_->rect[0].h = 2;
        post_->osd[0] = {};
    }

    osd_post *post_ = &osd_state.post[0];
    std::string font_file_;
};

const Lines BROUGHT_UP = {"library_init()", "open_device()", "notify_callback()", "set_notify(15)"};

TEST_F(Codec, calls_come_in_this_order_over_the_life_of_a_server)
{
    post_->res_id = 0;
    EXPECT_EQ(errors_of([&] {
                  EXPECT_EQ(osd_server_init_process(), 0);
                  codec::callback()({0, 0x11, 0, 1});
                  EXPECT_EQ(osd_do_callback(post_), 0);
                  EXPECT_EQ(osd_refresh(post_), 0);
                  post_->rect[0].mode = OSD_MODE_OFF;
                  post_->refresh_all = 1;
                  EXPECT_EQ(osd_refresh(post_), 0);
                  post_->rect[0].mode = OSD_MODE_RECTANGLE;
                  post_->callback_state = OSD_CALLBACK_REOPEN;
                  EXPECT_EQ(osd_do_callback(post_), 0);
                  EXPECT_EQ(osd_refresh(post_), 0);
                  osd_close_opened_post();
                  osd_server_end_process();
              }),
              "");
    EXPECT_EQ(take_trace(),
              (Lines{BROUGHT_UP[0], BROUGHT_UP[1], BROUGHT_UP[2], BROUGHT_UP[3],
                     "get_status(0x11)", // the thread has come up
                     "open_osd(0x11, 0, 4x2, type 2)", "get_osd_mem(0x11, 0x101)",
                     "set_osd(0x11, 0x101, 0, 0)",
                     "clear_osd(0x11, 0x101)", // switched off
                     "clear_osd(0x11, 0x101)", // made anew
                     "close_osd(0x11, 0x101)", "get_status(0x11)", "open_osd(0x11, 0, 4x2, type 2)",
                     "get_osd_mem(0x11, 0x102)", "set_osd(0x11, 0x102, 0, 0)",
                     "clear_osd(0x11, 0x102)", // the end
                     "close_osd(0x11, 0x102)", "close_device()", "library_exit()"}));
}

TEST_F(Codec, closing_of_a_post_thread_calls_nothing)
{
    EXPECT_EQ(errors_of([&] {
                  EXPECT_EQ(osd_server_init_process(), 0);
                  EXPECT_EQ(osd_do_callback_open(post_), 0);
                  EXPECT_EQ(post_->osd[0].handle, 0x101u);
                  take_trace();
                  codec::callback()({0, 0x11, 0, 0});
                  EXPECT_EQ(osd_do_callback(post_), 0);
                  EXPECT_EQ(osd_refresh(post_), 0);
              }),
              "");
    EXPECT_EQ(take_trace(), Lines{});
    EXPECT_EQ(post_->osd[0].handle, 0u);
    EXPECT_EQ(post_->res_id, 0u);
}

// What follows the report of a failed call.
enum Second {
    NOTHING,
    WORDS, // "ResID=..., Handle=..."
    SLOT,  // "Post0Osd0"
};

struct FailureRow {
    codec::Call call;
    const char *name;
    const char *reporter;
    Second second;
    bool reports_gone;          // also if the post thread has gone
    std::array<int, 3> results; // gone, refused, any other
    int (*act)(osd_post *post);
    std::vector<const char *> calls;
};

int open_post(osd_post *post)
{
    return osd_do_callback_open(post);
}

int open_slot(osd_post *post)
{
    return osd_do_callback_open_one(post, 0);
}

int show_rectangle(osd_post *post)
{
    post->osd[0].handle = codec::adopt_osd({0, 4, 2, 2});
    return osd_show_rectangle(post->res_id, post->osd[0].handle, 4, 2, 0, 0, 4, 2, 1);
}

int clear(osd_post *post)
{
    post->osd[0].handle = codec::adopt_osd({0, 4, 2, 2});
    return osd_clear(post->res_id, post->osd[0].handle);
}

int reopen(osd_post *post)
{
    post->osd[0].handle = codec::adopt_osd({0, 4, 2, 2});
    return osd_do_callback_reopen(post);
}

int stop(osd_post *post)
{
    post->opened = 1;
    post->osd[0].handle = codec::adopt_osd({0, 4, 2, 2});
    osd_close_opened_post();
    return static_cast<int>(post->res_id + post->osd[0].handle); // both forgotten
}

int bring_up(osd_post *)
{
    return osd_server_init_process();
}

int take_down(osd_post *)
{
    osd_server_end_process();
    return 0;
}

const FailureRow FAILURES[] = {
    {codec::LIBRARY_INIT,
     "qm5_cl_library_init",
     "osd_server_init_process",
     NOTHING,
     true,
     {-14, -14, -14},
     bring_up,
     {"library_init()"}},
    {codec::OPEN_DEVICE,
     "qm5_cl_sys_open_device",
     "osd_server_init_process",
     NOTHING,
     true,
     {-14, -14, -14},
     bring_up,
     {"library_init()", "open_device()", "library_exit()"}},
    {codec::NOTIFY_CALLBACK,
     "qm5_cl_post_notify_callback",
     "osd_server_init_process",
     NOTHING,
     true,
     {-14, -14, -14},
     bring_up,
     {"library_init()", "open_device()", "notify_callback()", "close_device()", "library_exit()"}},
    {codec::SET_NOTIFY,
     "qm5_cl_post_set_notify",
     "osd_server_init_process",
     NOTHING,
     true,
     {-14, -14, -14},
     bring_up,
     {"library_init()", "open_device()", "notify_callback()", "set_notify(15)", "close_device()",
      "library_exit()"}},
    {codec::GET_STATUS,
     "qm5_cl_post_thread_get_status",
     "osd_do_callback_open",
     NOTHING,
     true,
     {-14, -14, -14},
     open_post,
     {"get_status(0x11)"}},
    {codec::OPEN_OSD,
     "qm5_cl_post_open_osd",
     "osd_do_callback_open",
     SLOT,
     false,
     {0, -14, 0},
     open_post,
     {"get_status(0x11)", "open_osd(0x11, 0, 4x2, type 2)"}},
    {codec::OPEN_OSD,
     "qm5_cl_post_open_osd",
     "osd_do_callback_open_one",
     SLOT,
     false,
     {0, 0, -14},
     open_slot,
     {"get_status(0x11)", "open_osd(0x11, 0, 4x2, type 2)"}},
    {codec::CLOSE_OSD,
     "qm5_cl_post_close_osd",
     "osd_do_callback_reopen",
     SLOT,
     true,
     {0, 0, 0},
     reopen,
     {"clear_osd(0x11, 0x101)", "close_osd(0x11, 0x101)", "get_status(0x11)",
      "open_osd(0x11, 0, 4x2, type 2)"}},
    {codec::CLOSE_OSD,
     "qm5_cl_post_close_osd",
     "osd_close_opened_post",
     SLOT,
     true,
     {0, 0, 0},
     stop,
     {"clear_osd(0x11, 0x101)", "close_osd(0x11, 0x101)"}},
    {codec::CLEAR_OSD,
     "qm5_cl_post_clear_osd",
     "osd_clear",
     WORDS,
     false,
     {0, -14, -14},
     clear,
     {"clear_osd(0x11, 0x101)"}},
    {codec::GET_OSD_MEM,
     "qm5_cl_post_get_osd_mem",
     "osd_show_rectangle",
     WORDS,
     false,
     {0, -14, -14},
     show_rectangle,
     {"get_osd_mem(0x11, 0x101)"}},
    {codec::SET_OSD,
     "qm5_cl_post_set_osd",
     "osd_show_rectangle",
     WORDS,
     false,
     {0, -14, -14},
     show_rectangle,
     {"get_osd_mem(0x11, 0x101)", "set_osd(0x11, 0x101, 0, 0)"}},
    {codec::CLOSE_DEVICE,
     "qm5_cl_sys_close_device",
     "osd_server_end_process",
     NOTHING,
     true,
     {0, 0, 0},
     take_down,
     {"close_device()", "library_exit()"}},
    {codec::LIBRARY_EXIT,
     "qm5_cl_library_exit",
     "osd_server_end_process",
     NOTHING,
     true,
     {0, 0, 0},
     take_down,
     {"close_device()", "library_exit()"}},
};

std::string failed(const char *call, std::uint32_t error, const char *reporter)
{
    char message[80];
    std::snprintf(message, sizeof message, "%s() failed. errno=0x%08X", call, error);
    return report("server", message, reporter);
}

std::string reports_of(const FailureRow &row, std::uint32_t error)
{
    constexpr const char *seconds[] = {"", "ResID=0x00000011, Handle=0x00000101", "Post0Osd0"};
    std::string text = failed(row.name, error, row.reporter);
    if (row.second != NOTHING)
        text += report("server", seconds[row.second], row.reporter);
    return text;
}

class CodecFailures : public Codec
{
protected:
    void expect_failure(const FailureRow &row, std::uint32_t error, int expected,
                        const std::string &errors)
    {
        SCOPED_TRACE(std::string(row.name) + " by " + row.reporter);
        begin();
        codec::fail(row.call, 1, error);
        codec::set_failure_result(failure_result_);
        int result = 1;
        EXPECT_EQ(errors_of([&] { result = row.act(post_); }), errors);
        EXPECT_EQ(result, expected);
        EXPECT_EQ(take_trace(), Lines(row.calls.begin(), row.calls.end()));
    }

    int failure_result_ = -1;
};

TEST_F(CodecFailures, gone_post_is_reported_only_where_the_calls_cannot_expect_it)
{
    for (const FailureRow &row : FAILURES) {
        for (const std::uint32_t error : GONE)
            expect_failure(row, error, row.results[0],
                           row.reports_gone ? reports_of(row, error) : "");
    }
}

TEST_F(CodecFailures, refusal_matters_only_to_the_open_of_an_osd)
{
    for (const FailureRow &row : FAILURES)
        expect_failure(row, REFUSED, row.results[1], reports_of(row, REFUSED));
}

TEST_F(CodecFailures, every_other_failure_is_reported_with_its_code)
{
    for (const FailureRow &row : FAILURES) {
        for (const std::uint32_t error : {codec::SOME_ERROR, 5u, 0x81E04506u, 0xFFFFFFFFu})
            expect_failure(row, error, row.results[2], reports_of(row, error));
    }
}

TEST_F(CodecFailures, every_result_but_zero_is_a_failure)
{
    for (const FailureRow &row : FAILURES) {
        for (const int result : {1, 0x7FFFFFFF, -2}) {
            failure_result_ = result;
            expect_failure(row, codec::SOME_ERROR, row.results[2],
                           reports_of(row, codec::SOME_ERROR));
        }
    }
}

TEST_F(CodecFailures, taking_down_after_a_failed_set_up_reports_its_own_failures)
{
    const char *const reporter = "osd_server_end_process";
    codec::fail(codec::NOTIFY_CALLBACK, 1, 5);
    codec::fail(codec::CLOSE_DEVICE, 1, 6);
    codec::fail(codec::LIBRARY_EXIT, 1, 7);
    EXPECT_EQ(errors_of([] { EXPECT_EQ(osd_server_init_process(), -14); }),
              failed("qm5_cl_post_notify_callback", 5, "osd_server_init_process") +
                  failed("qm5_cl_sys_close_device", 6, reporter) +
                  failed("qm5_cl_library_exit", 7, reporter));
}

TEST_F(CodecFailures, leaving_the_library_without_a_device_is_not_looked_at)
{
    codec::fail(codec::OPEN_DEVICE, 1, 5);
    codec::fail(codec::LIBRARY_EXIT, 1, 7);
    EXPECT_EQ(errors_of([] { EXPECT_EQ(osd_server_init_process(), -14); }),
              failed("qm5_cl_sys_open_device", 5, "osd_server_init_process"));
    EXPECT_EQ(take_trace(), (Lines{"library_init()", "open_device()", "library_exit()"}));
}

} // namespace
