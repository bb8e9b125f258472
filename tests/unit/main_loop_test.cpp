// The main loop: the visits of the posts, requests and their replies, the sleep, set-up and stop.
#include "common/cmn.h"
#include "display/post.h"
#include "server/channel.h"
#include "server/main_loop.h"
#include "server/notify.h"
#include "support/bdf_font.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"
#include "support/wraps.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <initializer_list>
#include <memory>
#include <numeric>
#include <random>
#include <sched.h>
#include <string>
#include <string_view>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

using support::errors_of;
using support::Lines;
using support::report;

constexpr time_t NOON = 1709208000; // 29/02/2024 12:00:00 UTC
constexpr time_t DAY = 24 * 60 * 60;
constexpr unsigned LIMIT_S = 5; // seconds, far more than any test takes

std::string by_loop(std::string_view message)
{
    return report("server", message, "osd_server_main_loop");
}

std::string by_request(std::string_view message)
{
    return report("server", message, "osd_do_request");
}

// The resource IDs of the posts' threads: 0x11, 0x22, 0x33, 0x44.
constexpr std::uint32_t res_id_of(int post)
{
    return 0x11 * cmn_cut<std::uint32_t>(post + 1);
}

void announce(int post)
{
    osd_post_notify({0, res_id_of(post), cmn_cut<std::uint32_t>(post), 1});
}

void announce_end(int post)
{
    osd_post_notify({0, 0, cmn_cut<std::uint32_t>(post), 0});
}

class MainLoop : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        cmn_role = "server";
        setenv("TZ", "UTC0", 1);
        wraps::set_clock(NOON, 0);
    }
};

// ---- The clock ----------------------------------------------------------------------------------

std::string digits()
{
    return {reinterpret_cast<const char *>(&osd_state.cdatetime), sizeof osd_state.cdatetime};
}

TEST_F(MainLoop, reads_the_clock_into_the_table)
{
    wraps::set_clock(NOON + 62, 340000);
    EXPECT_EQ(errors_of([] { EXPECT_EQ(osd_get_current_datetime(), 0); }), "");
    EXPECT_EQ(digits(), "2024022912010234");
}

TEST_F(MainLoop, reports_a_clock_that_can_not_be_read_and_has_zeros_then)
{
    const std::string end = report("server", "get current time failed", "osd_get_current_datetime");
    std::memset(&osd_state.cdatetime, '7', sizeof osd_state.cdatetime);
    wraps::fail(wraps::GETTIMEOFDAY, 1, EINVAL);
    EXPECT_EQ(errors_of([] { EXPECT_EQ(osd_get_current_datetime(), -14); }),
              report("server", "gettimeofday failed(Invalid argument)", "cmn_get_st_cdatetime") +
                  end);
    EXPECT_EQ(digits(), "0000000000000000");

    wraps::fail(wraps::LOCALTIME, 1, EOVERFLOW);
    EXPECT_EQ(errors_of([] { EXPECT_EQ(osd_get_current_datetime(), -14); }),
              report("server", "localtime failed(Value too large for defined data type)",
                     "cmn_get_st_cdatetime") +
                  end);
}

// ---- The visits of the posts --------------------------------------------------------------------

// Posts whose threads are there, with no slot that is on, in front of a picture for the small font.
class MainLoopVisits : public MainLoop
{
protected:
    void SetUp() override
    {
        MainLoop::SetUp();
        font_ = support::make_font(support::small_font());
        codec::set_size(200, 160);
        for (int i = 0; i < OSD_POSTS; i++) {
            osd_state.post[i].font_file = font_.c_str();
            osd_state.post[i].res_id = res_id_of(i);
        }
        osd_get_current_datetime();
    }
    void TearDown() override
    {
        support::remove_file(font_);
        MainLoop::TearDown();
    }
    static void set_states(std::initializer_list<std::uint8_t> states)
    {
        osd_post *post = osd_state.post;
        for (const std::uint8_t state : states)
            (post++)->callback_state = state;
    }
    static void forget_dates()
    {
        for (osd_post &post : osd_state.post)
            std::memset(post.date_text, 0, sizeof post.date_text);
    }
    // The posts that have got a date, which are those that were visited.
    static std::vector<int> dated_posts()
    {
        std::vector<int> numbers;
        for (const osd_post &post : osd_state.post) {
            if (post.date_text[0] != '\0')
                numbers.push_back(osd_post_number(&post));
        }
        return numbers;
    }
    static std::vector<int> states()
    {
        std::vector<int> all;
        for (const osd_post &post : osd_state.post)
            all.push_back(post.callback_state);
        return all;
    }

private:
    std::string font_;
};

// Visits that go through to the end without a report.
void visit_all()
{
    EXPECT_EQ(errors_of([] { EXPECT_EQ(osd_visit_posts(), 4); }), "");
}

TEST_F(MainLoopVisits, serve_the_posts_in_their_order)
{
    set_states({OSD_CALLBACK_OPEN, OSD_CALLBACK_OPEN, OSD_CALLBACK_OPEN, OSD_CALLBACK_REOPEN});
    visit_all();
    EXPECT_EQ(support::take_trace(), (Lines{"get_status(0x11)", "get_status(0x22)",
                                            "get_status(0x33)", "get_status(0x44)"}));
    EXPECT_EQ(states(), (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(dated_posts(), (std::vector<int>{0, 1, 2, 3}));
}

TEST_F(MainLoopVisits, of_quiet_posts_without_anything_shown_call_nothing)
{
    visit_all();
    EXPECT_EQ(support::take_trace(), Lines{});
    EXPECT_EQ(dated_posts(), (std::vector<int>{0, 1, 2, 3}));
}

TEST_F(MainLoopVisits, begin_with_post_3_and_end_there_if_its_open_is_pending)
{
    set_states({OSD_CALLBACK_OPEN, OSD_CALLBACK_CLOSE, OSD_CALLBACK_REOPEN, OSD_CALLBACK_OPEN});
    visit_all();
    EXPECT_EQ(support::take_trace(), (Lines{"get_status(0x44)"}));
    EXPECT_EQ(states(), (std::vector<int>{1, 2, 3, 0}));
    EXPECT_EQ(dated_posts(), (std::vector<int>{3}));

    visit_all();
    EXPECT_EQ(support::take_trace(), (Lines{"get_status(0x11)", "get_status(0x33)"}));
    EXPECT_EQ(states(), (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(dated_posts(), (std::vector<int>{0, 1, 2, 3}));
}

TEST_F(MainLoopVisits, go_on_with_post_3_when_its_open_comes_in_between)
{
    set_states({OSD_CALLBACK_OPEN, OSD_CALLBACK_OPEN, OSD_CALLBACK_OPEN, OSD_CALLBACK_NONE});
    codec::on(codec::GET_STATUS, [] {
        if (codec::calls(codec::GET_STATUS) == 2)
            announce(3);
    });
    visit_all();
    EXPECT_EQ(support::take_trace(),
              (Lines{"get_status(0x11)", "get_status(0x22)", "get_status(0x44)"}));
    EXPECT_EQ(states(), (std::vector<int>{0, 0, 1, 0}));
    EXPECT_EQ(dated_posts(), (std::vector<int>{0, 1, 3}));
}

TEST_F(MainLoopVisits, do_not_hurry_for_a_closing_or_reopen_of_post_3)
{
    for (const osd_callback_state state : {OSD_CALLBACK_CLOSE, OSD_CALLBACK_REOPEN}) {
        set_states({OSD_CALLBACK_OPEN, OSD_CALLBACK_NONE, OSD_CALLBACK_NONE, state});
        visit_all();
        EXPECT_EQ(support::take_trace(), (Lines{"get_status(0x11)"}));
        EXPECT_EQ(dated_posts(), (std::vector<int>{0, 1, 2, 3}));
        forget_dates();
        EXPECT_EQ(states(), (std::vector<int>{0, 0, 0, 0}));
    }
}

TEST_F(MainLoopVisits, do_not_hurry_for_an_open_of_another_post)
{
    set_states({OSD_CALLBACK_NONE, OSD_CALLBACK_NONE, OSD_CALLBACK_OPEN, OSD_CALLBACK_NONE});
    visit_all();
    EXPECT_EQ(support::take_trace(), (Lines{"get_status(0x33)"}));
    EXPECT_EQ(dated_posts(), (std::vector<int>{0, 1, 2, 3}));
}

TEST_F(MainLoopVisits, draw_a_post_in_the_visit_that_opens_it)
{
    set_states({OSD_CALLBACK_NONE, OSD_CALLBACK_OPEN, OSD_CALLBACK_NONE, OSD_CALLBACK_NONE});
    osd_state.post[1].rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
    visit_all();
    EXPECT_EQ(support::take_trace(),
              (Lines{"get_status(0x22)", "open_osd(0x22, 3, 60x8, type 0)",
                     "get_osd_mem(0x22, 0x101)", "set_osd(0x22, 0x101, 140, 152)"}));
    EXPECT_EQ(osd_state.post[1].opened, 1);
}

TEST_F(MainLoopVisits, end_at_a_post_whose_callback_fails)
{
    const std::vector<std::vector<int>> visited = {{0}, {0, 1}, {0, 1, 2}, {3}};
    for (int failing = 0; failing < OSD_POSTS; failing++) {
        osd_post *post = &osd_state.post[failing];
        forget_dates();
        post->callback_state = OSD_CALLBACK_OPEN;
        post->refresh_all = 1;
        codec::fail(codec::GET_STATUS, 1, codec::SOME_ERROR);
        const std::string errors = errors_of([&] { EXPECT_EQ(osd_visit_posts(), failing); });
        EXPECT_EQ(errors,
                  report("server", "qm5_cl_post_thread_get_status() failed. errno=0x81E01234",
                         "osd_do_callback_open") +
                      report("server", "open osd failed", "osd_do_callback") +
                      by_loop("do post " + std::to_string(failing) + " callback failed"));
        EXPECT_EQ(dated_posts(), visited[static_cast<std::size_t>(failing)]);
        EXPECT_EQ(states(), (std::vector<int>{0, 0, 0, 0}));
        EXPECT_EQ(post->refresh_all, 1) << "it was drawn all the same";
        post->refresh_all = 0;
    }
}

TEST_F(MainLoopVisits, report_a_failed_reopen_by_every_level)
{
    osd_state.post[2].callback_state = OSD_CALLBACK_REOPEN;
    codec::fail(codec::GET_STATUS, 1, codec::SOME_ERROR);
    EXPECT_EQ(errors_of([] { EXPECT_EQ(osd_visit_posts(), 2); }),
              report("server", "qm5_cl_post_thread_get_status() failed. errno=0x81E01234",
                     "osd_do_callback_open") +
                  report("server", "open osd failed", "osd_do_callback_reopen") +
                  report("server", "re-open osd failed", "osd_do_callback") +
                  by_loop("do post 2 callback failed"));
    EXPECT_EQ(osd_state.post[2].callback_state, 0);
    visit_all(); // it isn't tried again
    EXPECT_EQ(codec::calls(codec::GET_STATUS), 1);
}

TEST_F(MainLoopVisits, end_at_a_post_that_can_not_be_drawn)
{
    for (int failing = 0; failing < OSD_POSTS; failing++) {
        osd_post *post = &osd_state.post[failing];
        forget_dates();
        post->callback_state = 7; // asks for nothing
        post->refresh_all = 1;
        const std::string number = std::to_string(failing);
        EXPECT_EQ(errors_of([&] { EXPECT_EQ(osd_visit_posts(), failing); }),
                  report("server", "post " + number + " has been closed", "osd_refresh") +
                      by_loop("osd display failed"));
        std::vector<int> visited(static_cast<std::size_t>(failing) + 1);
        std::iota(visited.begin(), visited.end(), 0);
        EXPECT_EQ(dated_posts(), visited);
        EXPECT_EQ(post->callback_state, 0);
        visit_all();
    }
}

TEST_F(MainLoopVisits, overwrite_what_comes_for_a_post_during_its_callback)
{
    osd_state.post[0].callback_state = OSD_CALLBACK_OPEN;
    osd_state.post[3].callback_state = OSD_CALLBACK_REOPEN;
    codec::on(codec::GET_STATUS, [] {
        if (codec::calls(codec::GET_STATUS) == 1)
            announce_end(0);
        else
            announce(3);
    });
    visit_all();
    EXPECT_EQ(support::take_trace(), (Lines{"get_status(0x11)", "get_status(0x44)"}));
    EXPECT_EQ(states(), (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(osd_state.post[0].res_id, 0x11u);
    EXPECT_EQ(osd_state.post[0].opened, 1);
}

TEST_F(MainLoopVisits, keep_what_comes_for_a_post_while_it_is_drawn)
{
    osd_state.post[0].callback_state = OSD_CALLBACK_OPEN;
    osd_state.post[0].rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
    codec::on(codec::SET_OSD, [] { announce_end(0); });
    visit_all();
    EXPECT_EQ(osd_state.post[0].callback_state, OSD_CALLBACK_CLOSE);
    codec::on(codec::SET_OSD, nullptr);
    visit_all();
    EXPECT_EQ(osd_state.post[0].res_id, 0u);
}

TEST_F(MainLoopVisits, keep_the_date_between_two_blanks)
{
    visit_all();
    EXPECT_STREQ(osd_state.date_scratch, "29/02/2024");
    for (const osd_post &post : osd_state.post) {
        EXPECT_STREQ(post.date_text, " 29/02/2024 ");
        EXPECT_EQ(post.date_changed, 1);
    }
}

TEST_F(MainLoopVisits, write_a_date_anew_if_one_of_its_ten_characters_differs)
{
    for (const std::string_view text : {" 19/02/2024 ", " 28/02/2024 ", " 29-02/2024 ",
                                        " 29/01/2024 ", " 29/02/2023 ", "29/02/2024 "}) {
        osd_post *post = &osd_state.post[2];
        std::memcpy(post->date_text, text.data(), text.size());
        post->date_changed = 0;
        visit_all();
        EXPECT_STREQ(post->date_text, " 29/02/2024 ") << text;
        EXPECT_EQ(post->date_changed, 1) << text;
    }
}

TEST_F(MainLoopVisits, leave_a_date_alone_that_is_right_between_any_two_characters)
{
    osd_post *post = &osd_state.post[2];
    std::strcpy(post->date_text, "<29/02/2024>");
    for (const std::uint8_t changed : std::initializer_list<std::uint8_t>{0, 1}) {
        post->date_changed = changed;
        visit_all();
        EXPECT_STREQ(post->date_text, "<29/02/2024>");
        EXPECT_EQ(post->date_changed, changed);
    }
}

TEST_F(MainLoopVisits, mark_the_date_of_a_post_3_that_opens_like_any_other)
{
    osd_post *post = &osd_state.post[3];
    post->res_id = 0; // so that no drawing takes the mark away
    for (const int changed : {1, 0}) {
        post->callback_state = OSD_CALLBACK_OPEN;
        post->date_changed = 0;
        visit_all();
        EXPECT_EQ(post->date_changed, changed);
    }
}

TEST_F(MainLoopVisits, bring_a_new_day_to_a_post_that_was_passed_over_in_the_next_pass)
{
    visit_all();
    wraps::set_clock(NOON + DAY, 0);
    osd_get_current_datetime();
    announce(3);
    visit_all();
    EXPECT_STREQ(osd_state.post[0].date_text, " 29/02/2024 ");
    EXPECT_STREQ(osd_state.post[3].date_text, " 01/03/2024 ");
    visit_all();
    EXPECT_STREQ(osd_state.post[0].date_text, " 01/03/2024 ");
}

TEST_F(MainLoopVisits, have_the_date_ready_for_the_callback)
{
    osd_state.post[1].callback_state = OSD_CALLBACK_OPEN;
    codec::on(codec::GET_STATUS, [] { EXPECT_STREQ(osd_state.post[1].date_text, " 29/02/2024 "); });
    visit_all();
    EXPECT_EQ(codec::calls(codec::GET_STATUS), 1);
}

// The time zone of the appliance. The block stays attached to this process; its change byte never
// takes a value that an earlier test has used.
class ZoneBlock
{
public:
    ZoneBlock()
    {
        id_ = shmget(CMN_TZ_KEY, sizeof(cmn_tz_block), IPC_CREAT | IPC_EXCL | CMN_TZ_MODE);
        block_ = static_cast<cmn_tz_block *>(shmat(id_, nullptr, 0));
        cmn_tz_attach();
    }
    ZoneBlock(const ZoneBlock &) = delete;
    ZoneBlock &operator=(const ZoneBlock &) = delete;
    ~ZoneBlock()
    {
        shmdt(block_);
        shmctl(id_, IPC_RMID, nullptr);
    }
    void set(const char *zone)
    {
        static std::uint8_t change;
        std::snprintf(block_->zone, sizeof block_->zone, "%s", zone);
        block_->change = ++change;
    }

private:
    int id_ = -1;
    cmn_tz_block *block_ = nullptr;
};

TEST_F(MainLoopVisits, take_a_new_time_zone_that_shows_from_the_next_pass_on)
{
    ZoneBlock block;
    block.set("EAST-14");
    wraps::trace(wraps::SETENV);
    visit_all();
    EXPECT_EQ(support::take_trace(), (Lines{"setenv(TZ, EAST-14, 1)"}));
    EXPECT_STREQ(osd_state.post[3].date_text, " 29/02/2024 ");

    osd_get_current_datetime();
    visit_all();
    EXPECT_EQ(support::take_trace(), Lines{});
    EXPECT_STREQ(osd_state.post[3].date_text, " 01/03/2024 ");
}

TEST_F(MainLoopVisits, look_for_a_new_time_zone_first_thing_at_each_post)
{
    ZoneBlock block;
    block.set("ONE1");
    wraps::trace(wraps::SETENV);
    set_states({OSD_CALLBACK_OPEN, OSD_CALLBACK_OPEN, OSD_CALLBACK_NONE, OSD_CALLBACK_NONE});
    codec::on(codec::GET_STATUS, [&block] { block.set("TWO2"); });
    visit_all();
    EXPECT_EQ(support::take_trace(),
              (Lines{"setenv(TZ, ONE1, 1)", "get_status(0x11)", "setenv(TZ, TWO2, 1)",
                     "get_status(0x22)", "setenv(TZ, TWO2, 1)"}));
}

// ---- Requests -----------------------------------------------------------------------------------

std::string bytes_of(std::uint32_t word)
{
    std::string bytes(sizeof word, '\0');
    std::memcpy(bytes.data(), &word, sizeof word);
    return bytes;
}

// The request FIFO as the server holds it, and a client that holds its other end.
class RequestFifo
{
public:
    RequestFifo()
    {
        mkfifo(OSD_FIFO_REQ, OSD_FIFO_MODE);
        server_ = open(OSD_FIFO_REQ, O_RDONLY | O_NONBLOCK);
        client_ = open(OSD_FIFO_REQ, O_WRONLY);
    }
    RequestFifo(const RequestFifo &) = delete;
    RequestFifo &operator=(const RequestFifo &) = delete;
    ~RequestFifo()
    {
        hang_up();
        close(server_);
        unlink(OSD_FIFO_REQ);
    }
    void send(std::string_view bytes)
    {
        EXPECT_EQ(write(client_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    void send(std::initializer_list<std::uint32_t> words)
    {
        for (const std::uint32_t word : words)
            send(bytes_of(word));
    }
    void hang_up()
    {
        if (client_ >= 0)
            close(client_);
        client_ = -1;
    }
    int serve()
    {
        return osd_do_request(server_);
    }

private:
    int server_ = -1;
    int client_ = -1;
};

// Leaves parameters for the server as a client does.
void offer(std::string_view lines)
{
    support::write_file(OSD_TMP_PARAM, std::string("[osd]\n").append(lines));
}

// The whole table, byte by byte.
std::string bytes_of_table()
{
    std::string bytes(sizeof osd_state, '\0');
    std::memcpy(bytes.data(), &osd_state, sizeof osd_state);
    return bytes;
}

class MainLoopRequests : public MainLoop
{
protected:
    void SetUp() override
    {
        MainLoop::SetUp();
        fifo_ = std::make_unique<RequestFifo>();
    }
    void TearDown() override
    {
        fifo_.reset();
        unlink(OSD_TMP_PARAM);
        MainLoop::TearDown();
    }
    // Serves what waits in the FIFO, which must go without a report.
    int serve()
    {
        int result = -1;
        EXPECT_EQ(errors_of([&] { result = fifo_->serve(); }), "");
        return result;
    }
    // Serves an update to these parameters, which must succeed, and returns its reports.
    std::string update(std::uint32_t word, std::string_view lines)
    {
        offer(lines);
        fifo_->send({word});
        return errors_of([this] { EXPECT_EQ(fifo_->serve(), 0); });
    }
    // Serves an update that must fail; returns its reports.
    std::string failed_update()
    {
        const std::string before = bytes_of_table();
        fifo_->send({0xF55});
        const std::string errors = errors_of([this] { EXPECT_EQ(fifo_->serve(), -14); });
        EXPECT_TRUE(bytes_of_table() == before);
        return errors;
    }

    std::unique_ptr<RequestFifo> fifo_;
};

TEST_F(MainLoopRequests, are_none_without_a_word)
{
    EXPECT_EQ(serve(), 2); // somebody could write
    fifo_->hang_up();
    EXPECT_EQ(serve(), 2); // nobody could
}

TEST_F(MainLoopRequests, read_four_bytes_at_once)
{
    wraps::trace(wraps::READ);
    fifo_->send({OSD_REQUEST_STOP});
    EXPECT_EQ(fifo_->serve(), 1);
    EXPECT_EQ(support::take_trace(), (Lines{"read(4)"}));
}

TEST_F(MainLoopRequests, lose_the_bytes_of_a_short_word)
{
    const std::string word = bytes_of(OSD_REQUEST_STOP);
    for (std::size_t length = 1; length < 4; length++) {
        fifo_->send(word.substr(0, length));
        EXPECT_EQ(serve(), 2) << length;
        fifo_->send(word.substr(length)); // is no stop word together with the bytes before it
        EXPECT_EQ(serve(), 2) << length;
    }
    fifo_->send({OSD_REQUEST_STOP});
    EXPECT_EQ(serve(), 1);
}

TEST_F(MainLoopRequests, lose_the_bytes_of_a_short_word_whose_writer_has_gone)
{
    fifo_->send(bytes_of(OSD_REQUEST_STOP).substr(0, 3));
    fifo_->hang_up();
    EXPECT_EQ(serve(), 2);
    EXPECT_EQ(serve(), 2);
}

TEST_F(MainLoopRequests, stop_by_the_low_byte_alone)
{
    offer("Post0DateOn=1\n");
    const std::string before = bytes_of_table();
    for (const std::uint32_t word : {0x53u, 0x5353u, 0xF53u, 0x80000053u, 0xFFFFFF53u}) {
        fifo_->send({word});
        EXPECT_EQ(serve(), 1) << word;
        EXPECT_TRUE(bytes_of_table() == before);
    }
}

TEST_F(MainLoopRequests, report_invalid_words_and_serve_the_word_behind_them)
{
    offer("");
    fifo_->send({0, 0x5500, 0x54, 0xFFFFFFFF, OSD_REQUEST_UPDATE, OSD_REQUEST_STOP});
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(fifo_->serve(), 0); }),
              by_request("invalid request 0x00000000") + by_request("invalid request 0x00005500") +
                  by_request("invalid request 0x00000054") +
                  by_request("invalid request 0xFFFFFFFF"));
    EXPECT_EQ(serve(), 1);
}

TEST_F(MainLoopRequests, are_none_behind_an_invalid_word_at_the_end)
{
    fifo_->send({0xABCDEF12});
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(fifo_->serve(), 2); }),
              by_request("invalid request 0xABCDEF12"));
}

TEST_F(MainLoopRequests, serve_one_update_at_a_time)
{
    offer("");
    fifo_->send({OSD_REQUEST_UPDATE, OSD_REQUEST_UPDATE, OSD_REQUEST_STOP});
    EXPECT_EQ(serve(), 0);
    EXPECT_EQ(serve(), 0);
    EXPECT_EQ(serve(), 1);
}

TEST_F(MainLoopRequests, take_the_parameters_of_all_posts_whatever_the_mask)
{
    for (osd_post &post : osd_state.post)
        post.rect[0].w = 5;
    EXPECT_EQ(update(0x255, "OsdFontFile=/a/font\nOsdDateFgColor=2\nPost0StringColor=9\n"
                            "Post1Osd2X=33\nPost3TimeOn=1\n"),
              "");
    EXPECT_STREQ(osd_state.font_file, "/a/font");
    EXPECT_EQ(osd_state.post[0].string_color, 9);
    EXPECT_EQ(osd_state.post[1].rect[2].x, 33);
    EXPECT_EQ(osd_state.post[2].date_fg_color, 2);
    EXPECT_EQ(osd_state.post[3].text_on[3], 1);
    EXPECT_EQ(osd_state.post[3].rect[3].mode, OSD_MODE_TEXT);
    for (const osd_post &post : osd_state.post) {
        EXPECT_EQ(post.rect[0].w, 0) << "a key that the file lacks has its default";
        EXPECT_EQ(post.string_color, &post == osd_state.post ? 9 : 3);
    }
}

TEST_F(MainLoopRequests, raise_the_slots_with_their_flag_set_to_their_texts)
{
    EXPECT_EQ(update(OSD_REQUEST_UPDATE, "Post0StringOn=1\nPost1TypeOn=1\nPost2DateOn=1\n"
                                         "Post3TimeOn=1\nPost3Rectangle0On=2\n"),
              "");
    for (int i = 0; i < OSD_POSTS; i++) {
        for (int slot = 0; slot < OSD_SLOTS; slot++) {
            const std::uint32_t other = i == 3 && slot == 0 ? 2 : 0;
            EXPECT_EQ(osd_state.post[i].rect[slot].mode, i == slot ? 1 : other);
        }
    }
}

TEST_F(MainLoopRequests, let_a_text_win_over_a_rectangle_and_say_so_each_time)
{
    const std::string lines = "Post0TimeOn=1\nPost0Rectangle3On=1\nPost0Osd3W=40\n"
                              "Post0Osd3ColorType=2\nPost0Osd3ColorFg=7\n"
                              "Post2StringOn=1\nPost2Rectangle0On=2\nPost2DateOn=1\n"
                              "Post2Rectangle2On=1\nPost2Rectangle1On=1\n";
    const std::string reports = by_request("osd rectangle 3 won't show") +
                                by_request("osd rectangle 0 won't show") +
                                by_request("osd rectangle 2 won't show");
    for (const std::uint32_t word : {0x55u, 0x155u, 0xF55u}) // in the mask or not
        EXPECT_EQ(update(word, lines), reports);

    const osd_rect &time = osd_state.post[0].rect[OSD_SLOT_TIME];
    EXPECT_EQ(time.mode, 1u);
    EXPECT_EQ(time.w, 40);
    EXPECT_EQ(time.color_type, 2u);
    EXPECT_EQ(time.color_fg, 7u);
    EXPECT_EQ(osd_state.post[2].rect[0].mode, 1u);
    EXPECT_EQ(osd_state.post[2].rect[1].mode, 2u);
    EXPECT_EQ(osd_state.post[2].rect[2].mode, 1u);
}

// The posts that a word marks, as bits, by a division that rounds toward zero.
TEST_F(MainLoopRequests, mark_the_posts_of_the_mask)
{
    const struct {
        std::uint32_t word;
        unsigned posts;
    } rows[] = {
        {0x00000055, 0},  {0x00000155, 1},  {0x00000255, 2}, {0x00000455, 4}, {0x00000855, 8},
        {0x00000F55, 15}, {0x00000655, 6},  {0x0000F055, 0}, {0xFFFF0055, 1}, {0x00010055, 0},
        {0x7FFFF055, 0},  {0x7FFFFF55, 15}, {0x80000055, 1}, {0x80000155, 2}, {0xFFFFFF55, 0},
        {0xFFFFFE55, 15}, {0xFFFFF055, 1},  {0x80000F55, 0},
    };
    for (const auto &row : rows) {
        for (osd_post &post : osd_state.post)
            post.refresh_all = 0;
        EXPECT_EQ(update(row.word, "Post1TypeOn=1\n"), "");
        unsigned marked = 0;
        for (int i = 0; i < OSD_POSTS; i++)
            marked |= static_cast<unsigned>(osd_state.post[i].refresh_all) << i;
        EXPECT_EQ(marked, row.posts) << std::hex << row.word;
    }
}

TEST_F(MainLoopRequests, keep_the_mark_of_a_post_outside_the_mask)
{
    osd_state.post[2].refresh_all = 1;
    update(0x155, "");
    EXPECT_EQ(osd_state.post[2].refresh_all, 1);
}

// The keys that put a slot of a post into a mode.
std::string keys_of_mode(int post, int slot, std::uint32_t mode)
{
    static constexpr const char *flags[] = {"String", "Type", "Date", "Time"};
    const std::string prefix = "Post" + std::to_string(post);
    if (mode == OSD_MODE_TEXT)
        return prefix + flags[slot] + "On=1\n";
    if (mode == OSD_MODE_RECTANGLE)
        return prefix + "Rectangle" + std::to_string(slot) + "On=1\n";
    return "";
}

TEST_F(MainLoopRequests, ask_for_a_reopen_if_a_slot_was_or_is_a_rectangle)
{
    for (int slot = 0; slot < OSD_SLOTS; slot++) {
        const int number = 3 - slot;
        osd_post *post = &osd_state.post[number];
        for (const std::uint32_t from : {0u, 1u, 2u}) {
            for (const std::uint32_t to : {0u, 1u, 2u}) {
                post->rect[slot].mode = from;
                post->callback_state = 0;
                update(0x55 | 0x100u << number, keys_of_mode(number, slot, to));
                EXPECT_EQ(post->rect[slot].mode, to);
                EXPECT_EQ(post->callback_state, from == 2 || to == 2 ? 3 : 0)
                    << "slot " << slot << " from " << from << " to " << to;
            }
        }
        post->rect[slot].mode = 0;
    }
}

TEST_F(MainLoopRequests, do_not_ask_for_a_reopen_for_a_rectangle_that_a_text_covers)
{
    EXPECT_EQ(update(0x155, "Post0DateOn=1\nPost0Rectangle2On=1\n"),
              by_request("osd rectangle 2 won't show"));
    EXPECT_EQ(osd_state.post[0].callback_state, 0);
}

TEST_F(MainLoopRequests, ask_for_reopens_of_the_posts_of_the_mask_alone)
{
    const char *lines = "Post0Rectangle0On=1\nPost1Rectangle1On=2\nPost2Rectangle2On=1\n";
    update(0xA55, lines);
    const std::vector<int> expected = {0, 3, 0, 0};
    for (int i = 0; i < OSD_POSTS; i++)
        EXPECT_EQ(osd_state.post[i].callback_state, expected[static_cast<std::size_t>(i)]) << i;
}

TEST_F(MainLoopRequests, overwrite_what_is_pending_by_a_reopen_and_by_nothing_else)
{
    osd_post *post = &osd_state.post[1];
    for (const std::uint8_t pending : std::initializer_list<std::uint8_t>{0, 1, 2, 3}) {
        post->callback_state = pending;
        update(0x255, "Post1Rectangle3On=1\n");
        EXPECT_EQ(post->callback_state, 3);

        post->rect[3].mode = 0;
        post->callback_state = pending;
        update(0x255, "Post1TimeOn=1\n");
        EXPECT_EQ(post->callback_state, pending);
    }
}

TEST_F(MainLoopRequests, fail_without_memory_for_the_parameters)
{
    offer("Post0DateOn=1\n");
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_EQ(failed_update(),
              report("server", "no memory", "param_section_new") +
                  report("server", "failed to create osd section", "osd_get_default_section") +
                  by_request("failed to get default section"));
}

TEST_F(MainLoopRequests, fail_without_a_parameter_file)
{
    EXPECT_EQ(failed_update(),
              report("server", "cannot open file /tmp/osd_tmp_param.txt(No such file or directory)",
                     "param_seclist_new") +
                  report("server", "failed to read parameter file", "osd_read_parameter_file") +
                  by_request("failed to get new params"));
}

TEST_F(MainLoopRequests, fail_with_a_parameter_that_is_not_valid)
{
    offer("Post0DateOn=1\nPost0TimeOn=2\n");
    EXPECT_EQ(failed_update(),
              report("server", "invalid value '2' of key Post0TimeOn", "osd_check_param") +
                  report("server", "invalid osd parameter", "osd_check_section") +
                  report("server", "invalid parameter in osd section", "osd_read_parameter_file") +
                  by_request("failed to get new params"));
}

TEST_F(MainLoopRequests, never_write_the_parameter_file)
{
    wraps::trace(wraps::FOPEN);
    wraps::trace(wraps::OPEN);
    wraps::trace(wraps::UNLINK);
    wraps::trace(wraps::RENAME);
    EXPECT_EQ(update(0xF55, "Post0DateOn=1\n"), "");
    EXPECT_EQ(support::take_trace(), (Lines{"fopen(/tmp/osd_tmp_param.txt, r)"}));
}

// Random words, some of them short, against a plain model of what the server makes of them.
TEST_F(MainLoopRequests, survive_random_words)
{
    offer("Post1TypeOn=1\nPost2Rectangle0On=1\nPost2StringOn=1\n");
    std::mt19937 random(20240229);
    std::string expected;
    const std::string errors = errors_of([&] {
        for (int i = 0; i < 4000; i++) {
            auto word = static_cast<std::uint32_t>(random());
            if (i % 100 == 0)
                word = (word & ~0xFFu) | (i % 200 == 0 ? OSD_REQUEST_UPDATE : OSD_REQUEST_STOP);
            const std::size_t length = random() % 16 == 0 ? random() % 4 : 4;
            fifo_->send(bytes_of(word).substr(0, length));
            int result = 2;
            if (length == 4 && word % 256 == 0x55) {
                result = 0;
                expected += by_request("osd rectangle 0 won't show");
            } else if (length == 4 && word % 256 == 0x53) {
                result = 1;
            } else if (length == 4) {
                char message[32];
                std::snprintf(message, sizeof message, "invalid request 0x%08X", word);
                expected += by_request(message);
            }
            EXPECT_EQ(fifo_->serve(), result) << word;
        }
    });
    EXPECT_EQ(errors, expected);
}

// ---- The sleep ----------------------------------------------------------------------------------

class MainLoopSleep : public MainLoop
{
protected:
    void SetUp() override
    {
        MainLoop::SetUp();
        osd_state.refresh_interval_ms = 500;
        wraps::trace(wraps::NANOSLEEP);
    }
};

Lines sleep()
{
    EXPECT_EQ(errors_of(osd_sleep), "");
    return support::take_trace();
}

Lines slices(std::size_t count)
{
    return Lines(count, "nanosleep(0.500000000)");
}

TEST_F(MainLoopSleep, has_four_slices_without_a_time)
{
    EXPECT_EQ(sleep(), slices(4));
}

TEST_F(MainLoopSleep, has_two_slices_if_any_post_has_a_time_open_or_not)
{
    for (osd_post &post : osd_state.post) {
        post.rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
        EXPECT_EQ(sleep(), slices(2));
        post.opened = 1;
        post.res_id = 7;
        EXPECT_EQ(sleep(), slices(2));
        post.rect[OSD_SLOT_TIME].mode = OSD_MODE_OFF;
    }
    for (osd_post &post : osd_state.post)
        post.rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
    EXPECT_EQ(sleep(), slices(2));
}

TEST_F(MainLoopSleep, has_four_slices_for_all_that_is_no_time)
{
    for (osd_post &post : osd_state.post) {
        post.text_on[OSD_SLOT_TIME] = 1; // asked for, but no update has raised it yet
        post.rect[OSD_SLOT_STRING].mode = OSD_MODE_TEXT;
        post.rect[OSD_SLOT_LABEL].mode = OSD_MODE_TEXT;
        post.rect[OSD_SLOT_DATE].mode = OSD_MODE_TEXT;
        post.rect[OSD_SLOT_TIME].mode = OSD_MODE_RECTANGLE;
    }
    EXPECT_EQ(sleep(), slices(4));
}

TEST_F(MainLoopSleep, takes_the_length_of_a_slice_from_the_table)
{
    const struct {
        std::uint32_t ms;
        const char *line;
    } rows[] = {
        {0, "nanosleep(0.000000000)"},
        {1, "nanosleep(0.001000000)"},
        {999, "nanosleep(0.999000000)"},
        {1000, "nanosleep(1.000000000)"},
        {1001, "nanosleep(1.001000000)"},
        {2999, "nanosleep(2.999000000)"},
        {0xFFFFFFFF, "nanosleep(4294967.295000000)"},
    };
    for (const auto &row : rows) {
        osd_state.refresh_interval_ms = row.ms;
        EXPECT_EQ(sleep(), Lines(4, row.line));
    }
}

TEST_F(MainLoopSleep, is_skipped_while_an_open_of_post_3_is_pending)
{
    announce(3);
    EXPECT_EQ(sleep(), slices(0));
    EXPECT_EQ(osd_state.post[3].callback_state, 1);
}

TEST_F(MainLoopSleep, ends_with_the_slice_in_which_post_3_opens)
{
    for (std::size_t last = 1; last <= 4; last++) {
        osd_state.post[3].callback_state = 0;
        std::size_t slice = 0;
        wraps::on_nanosleep([&] {
            if (++slice == last)
                announce(3);
        });
        EXPECT_EQ(sleep(), slices(last));
    }
}

TEST_F(MainLoopSleep, goes_on_whatever_else_happens_to_the_posts)
{
    const std::function<void()> events[] = {
        [] { announce(0); },     [] { announce(1); },
        [] { announce(2); },     [] { announce_end(0); },
        [] { announce_end(3); }, [] { osd_state.post[3].callback_state = OSD_CALLBACK_REOPEN; },
    };
    for (const auto &event : events) {
        wraps::on_nanosleep(event);
        EXPECT_EQ(sleep(), slices(4));
    }
    osd_state.post[3].callback_state = OSD_CALLBACK_CLOSE;
    EXPECT_EQ(sleep(), slices(4));
}

TEST_F(MainLoopSleep, goes_on_after_a_slice_that_a_signal_has_cut_short)
{
    wraps::fail(wraps::NANOSLEEP, 1, EINTR, 2);
    EXPECT_EQ(sleep(), slices(4));
}

// ---- The whole loop -----------------------------------------------------------------------------

// What a test does itself while the loop runs is no part of the trace.
class Untraced
{
public:
    Untraced() = default;
    Untraced(const Untraced &) = delete;
    Untraced &operator=(const Untraced &) = delete;
    ~Untraced()
    {
        if (support::trace().size() > length_)
            support::trace().resize(length_);
    }

private:
    std::size_t length_ = support::trace().size();
};

// A client that waits for replies, with the reply FIFO open at its reading end.
class Client
{
public:
    Client()
    {
        mkfifo(OSD_FIFO_ACK, OSD_FIFO_MODE);
        fd_ = open(OSD_FIFO_ACK, O_RDONLY | O_NONBLOCK);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client()
    {
        close(fd_);
        unlink(OSD_FIFO_ACK);
    }
    // The replies since the last call: "A", "N", or "?" for any other word.
    std::string replies()
    {
        const Untraced own;
        std::string all;
        std::uint32_t word = 0;
        while (read(fd_, &word, sizeof word) == sizeof word)
            all += word == 0x41 ? 'A' : word == 0x4E ? 'N' : '?';
        return all;
    }

private:
    int fd_ = -1;
};

void send(std::uint32_t word)
{
    const int fd = open(OSD_FIFO_REQ, O_WRONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0) << "no server listens";
    EXPECT_EQ(write(fd, &word, sizeof word), 4);
    close(fd);
}

typedef std::function<void()> Action;

class MainLoopWhole : public MainLoopVisits
{
protected:
    void SetUp() override
    {
        MainLoopVisits::SetUp();
        alarm(LIMIT_S); // ends the program if the loop doesn't
        for (osd_post &post : osd_state.post)
            post.res_id = 0;
        std::memset(&osd_state.cdatetime, 0, sizeof osd_state.cdatetime);
    }
    void TearDown() override
    {
        alarm(0);
        EXPECT_EQ(access(OSD_FIFO_REQ, F_OK), -1);
        EXPECT_EQ(access(OSD_TMP_PARAM, F_OK), -1);
        MainLoopVisits::TearDown();
    }
    // Runs the loop and returns what it reports; its trace goes to lines_. Each action is carried
    // out in the first slice of a sleep, and the stop word follows in the sleep behind them.
    std::string run(std::vector<Action> actions)
    {
        constexpr std::size_t too_many = 100;
        actions.emplace_back([] { send(OSD_REQUEST_STOP); });
        std::size_t next = 0;
        int reads = -1; // up to the last action; each pass adds some
        wraps::on_nanosleep([&] {
            const Untraced own;
            if (wraps::calls(wraps::READ) == reads)
                return;
            if (next < actions.size())
                actions[next]();
            else if (next > actions.size() + too_many)
                std::_Exit(EXIT_FAILURE); // it doesn't stop
            next++;
            reads = wraps::calls(wraps::READ);
        });
        support::take_trace();
        return errors_of([this] {
            osd_server_main_loop();
            lines_ = support::take_trace();
            for (std::string &line : lines_) {
                if (line.starts_with("close("))
                    line = "close"; // whatever the number of the descriptor
            }
        });
    }
    static void trace_files()
    {
        for (const auto function : {wraps::MKFIFO, wraps::OPEN, wraps::CLOSE, wraps::READ,
                                    wraps::WRITE, wraps::UNLINK, wraps::FOPEN, wraps::NANOSLEEP})
            wraps::trace(function);
    }

    Lines lines_;
};

const Lines stop_of_the_files = {"close",
                                 "unlink(/tmp/osd_fifo_req)",
                                 "unlink(/tmp/osd_tmp_param.txt)",
                                 "unlink(/tmp/osd_tmp_param.bak)",
                                 "close_device()",
                                 "library_exit()"};
const Lines reply = {"open(/tmp/osd_fifo_ack, 01)", "write(4)", "close"};

Lines joined(std::initializer_list<Lines> parts)
{
    Lines all;
    for (const Lines &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST_F(MainLoopWhole, does_its_steps_in_order_from_the_set_up_to_the_stop)
{
    Client client;
    offer("");
    support::write_file(OSD_TMP_PARAM_BAK, "");
    trace_files();
    EXPECT_EQ(run({[] { send(OSD_REQUEST_UPDATE); }}), "");
    EXPECT_EQ(lines_, joined({{"mkfifo(/tmp/osd_fifo_req, 0644)", "open(/tmp/osd_fifo_req, 04000)"},
                              {"read(4)"},
                              slices(4),
                              {"read(4)", "fopen(/tmp/osd_tmp_param.txt, r)"},
                              slices(4),
                              reply,
                              {"read(4)"},
                              stop_of_the_files,
                              reply}));
    EXPECT_EQ(client.replies(), "AA");
    EXPECT_EQ(access(OSD_TMP_PARAM_BAK, F_OK), -1);
}

TEST_F(MainLoopWhole, begins_without_marks_and_with_slices_of_500_ms)
{
    Client client;
    osd_state.refresh_interval_ms = 7;
    for (osd_post &post : osd_state.post)
        post.refresh_all = 1;
    wraps::trace(wraps::NANOSLEEP);
    EXPECT_EQ(run({[] {
                  for (const osd_post &post : osd_state.post)
                      EXPECT_EQ(post.refresh_all, 0);
              }}),
              "");
    EXPECT_EQ(osd_state.refresh_interval_ms, 500u);
    EXPECT_EQ(lines_, joined({slices(4), slices(4), {"close_device()", "library_exit()"}}));
}

TEST_F(MainLoopWhole, serves_a_post_that_was_announced_before_it_began_in_its_first_pass)
{
    Client client;
    announce(1);
    wraps::trace(wraps::READ);
    EXPECT_EQ(run({}), "");
    ASSERT_GE(lines_.size(), 2u);
    EXPECT_EQ(lines_[0], "get_status(0x22)");
    EXPECT_EQ(lines_[1], "read(4)");
}

TEST_F(MainLoopWhole, is_what_the_running_test_finds)
{
    Client client;
    EXPECT_FALSE(osd_server_is_running());
    EXPECT_EQ(run({[] { EXPECT_TRUE(osd_server_is_running()); }}), "");
    EXPECT_FALSE(osd_server_is_running());
}

TEST_F(MainLoopWhole, takes_over_the_fifo_of_a_server_that_has_died)
{
    Client client;
    ASSERT_EQ(mkfifo(OSD_FIFO_REQ, 0600), 0);
    EXPECT_EQ(run({}), "");
    EXPECT_EQ(client.replies(), "A");
}

TEST_F(MainLoopWhole, does_not_begin_without_its_fifo)
{
    trace_files();
    osd_state.refresh_interval_ms = 7;
    wraps::fail(wraps::MKFIFO, 1, EACCES);
    EXPECT_EQ(run({}), by_loop("unable to create fifo /tmp/osd_fifo_req(Permission denied)") +
                           by_loop("osd server down"));
    EXPECT_EQ(lines_, (Lines{"mkfifo(/tmp/osd_fifo_req, 0644)"}));
    EXPECT_EQ(osd_state.refresh_interval_ms, 7u) << "not set up";
}

TEST_F(MainLoopWhole, removes_a_fifo_that_it_can_not_open)
{
    trace_files();
    osd_state.refresh_interval_ms = 7;
    wraps::fail(wraps::OPEN, 1, EMFILE);
    EXPECT_EQ(run({}), by_loop("unable to open fifo /tmp/osd_fifo_req(Too many open files)") +
                           by_loop("osd server down"));
    EXPECT_EQ(lines_, (Lines{"mkfifo(/tmp/osd_fifo_req, 0644)", "open(/tmp/osd_fifo_req, 04000)",
                             "unlink(/tmp/osd_fifo_req)"}));
    EXPECT_EQ(osd_state.refresh_interval_ms, 7u) << "not set up";
}

TEST_F(MainLoopWhole, goes_on_after_a_clock_that_can_not_be_read)
{
    Client client;
    osd_post *post = &osd_state.post[0];
    wraps::fail(wraps::GETTIMEOFDAY, 2, EINVAL);
    const auto check = [post](const char *date) {
        EXPECT_STREQ(post->date_text, date);
        EXPECT_EQ(post->date_changed, 1);
        post->date_changed = 0;
    };
    EXPECT_EQ(run({[&] { check(" 29/02/2024 "); }, [&] { check(" 00/00/0000 "); },
                   [&] { check(" 29/02/2024 "); }}),
              report("server", "gettimeofday failed(Invalid argument)", "cmn_get_st_cdatetime") +
                  report("server", "get current time failed", "osd_get_current_datetime") +
                  by_loop("get current date/time failed"));
}

TEST_F(MainLoopWhole, reads_the_clock_once_a_pass)
{
    Client client;
    const int before = wraps::calls(wraps::GETTIMEOFDAY);
    EXPECT_EQ(run({[=] { EXPECT_EQ(wraps::calls(wraps::GETTIMEOFDAY), before + 1); },
                   [=] { EXPECT_EQ(wraps::calls(wraps::GETTIMEOFDAY), before + 2); }}),
              "");
}

TEST_F(MainLoopWhole, draws_an_update_in_the_next_pass_and_replies_behind_it)
{
    Client client;
    offer("OsdFontFile=/tmp/test.bdf\nPost0TimeOn=1\n");
    announce(0);
    trace_files();
    EXPECT_EQ(run({[] { send(0x155); }}), "");
    const Lines expected = joined({{"read(4)", "fopen(/tmp/osd_tmp_param.txt, r)"},
                                   slices(2),
                                   {"get_status(0x11)", "open_osd(0x11, 3, 60x8, type 0)",
                                    "get_osd_mem(0x11, 0x101)", "set_osd(0x11, 0x101, 140, 152)"},
                                   reply,
                                   {"read(4)"}});
    EXPECT_NE(std::search(lines_.begin(), lines_.end(), expected.begin(), expected.end()),
              lines_.end())
        << testing::PrintToString(lines_);
    EXPECT_EQ(client.replies(), "AA");
}

TEST_F(MainLoopWhole, acknowledges_an_update_without_any_post_thread)
{
    Client client;
    offer("Post2Rectangle0On=1\nPost2TimeOn=1\n");
    EXPECT_EQ(run({[] { send(0x455); },
                   [&] {
                       EXPECT_EQ(osd_state.post[2].callback_state, 3);
                       EXPECT_EQ(client.replies(), "");
                   },
                   [&] {
                       EXPECT_EQ(osd_state.post[2].callback_state, 0);
                       EXPECT_EQ(client.replies(), "A");
                   }}),
              "");
    EXPECT_EQ(osd_state.post[2].refresh_all, 1);
    EXPECT_EQ(osd_state.post[2].rect[0].mode, OSD_MODE_RECTANGLE);
    EXPECT_EQ(lines_, (Lines{"close_device()", "library_exit()"}));
}

TEST_F(MainLoopWhole, refuses_an_update_of_a_post_whose_open_has_failed_once)
{
    Client client;
    osd_state.post[1].res_id = res_id_of(1);
    offer("Post1TimeOn=1\n");
    EXPECT_EQ(run({[] { send(0x255); }, [] {}, [&] { EXPECT_EQ(client.replies(), "N"); }, [] {}}),
              report("server", "post 1 has been closed", "osd_refresh") +
                  by_loop("osd display failed"));
    EXPECT_EQ(client.replies(), "A");
    EXPECT_EQ(osd_state.post[1].rect[OSD_SLOT_TIME].mode, OSD_MODE_TEXT);
}

TEST_F(MainLoopWhole, refuses_an_update_if_a_callback_fails)
{
    Client client;
    offer("");
    codec::fail(codec::GET_STATUS, 1, codec::SOME_ERROR);
    EXPECT_EQ(run({[] { send(OSD_REQUEST_UPDATE); }, [] { announce(3); }}),
              report("server", "qm5_cl_post_thread_get_status() failed. errno=0x81E01234",
                     "osd_do_callback_open") +
                  report("server", "open osd failed", "osd_do_callback") +
                  by_loop("do post 3 callback failed"));
    EXPECT_EQ(client.replies(), "NA");
}

TEST_F(MainLoopWhole, acknowledges_an_update_by_a_pass_that_went_straight_to_post_3)
{
    Client client;
    offer("OsdFontFile=/tmp/test.bdf\n");
    osd_state.post[1].res_id = res_id_of(1); // its redraw fails, one pass later
    EXPECT_EQ(
        run({[] { send(0x255); }, [] { announce(3); }, [&] { EXPECT_EQ(client.replies(), "A"); }}),
        report("server", "post 1 has been closed", "osd_refresh") + by_loop("osd display failed"));
}

TEST_F(MainLoopWhole, refuses_parameters_that_can_not_be_read_at_once)
{
    Client client;
    trace_files();
    EXPECT_EQ(run({[] { send(OSD_REQUEST_UPDATE); },
                   [&] {
                       EXPECT_EQ(client.replies(), "N");
                       forget_dates();
                   },
                   [&] {
                       EXPECT_EQ(client.replies(), "");
                       EXPECT_EQ(dated_posts(), (std::vector<int>{0, 1, 2, 3})); // as in any pass
                   }}),
              report("server", "cannot open file /tmp/osd_tmp_param.txt(No such file or directory)",
                     "param_seclist_new") +
                  report("server", "failed to read parameter file", "osd_read_parameter_file") +
                  by_request("failed to get new params") + by_loop("do request failed"));
    EXPECT_EQ(client.replies(), "A");
    const Lines expected = joined({{"read(4)", "fopen(/tmp/osd_tmp_param.txt, r)"},
                                   reply,
                                   slices(4),
                                   {"read(4)"},
                                   slices(4),
                                   {"read(4)"}});
    EXPECT_NE(std::search(lines_.begin(), lines_.end(), expected.begin(), expected.end()),
              lines_.end())
        << testing::PrintToString(lines_);
}

TEST_F(MainLoopWhole, does_not_reply_without_a_request_or_to_an_invalid_word)
{
    Client client;
    EXPECT_EQ(run({[] { send(0x41); }, [] {}, [&] { EXPECT_EQ(client.replies(), ""); }}),
              by_request("invalid request 0x00000041"));
}

TEST_F(MainLoopWhole, serves_one_update_a_pass)
{
    Client client;
    offer("");
    EXPECT_EQ(
        run({[] {
                 send(OSD_REQUEST_UPDATE);
                 send(OSD_REQUEST_UPDATE);
             },
             [&] { EXPECT_EQ(client.replies(), ""); }, [&] { EXPECT_EQ(client.replies(), "A"); },
             [&] { EXPECT_EQ(client.replies(), "A"); }}),
        "");
    EXPECT_EQ(client.replies(), "A");
}

TEST_F(MainLoopWhole, answers_an_update_before_it_reads_the_stop_word_behind_it)
{
    Client client;
    offer("");
    EXPECT_EQ(run({[] {
                  send(OSD_REQUEST_UPDATE);
                  send(OSD_REQUEST_STOP);
              }}),
              "");
    EXPECT_EQ(client.replies(), "AA");
    EXPECT_EQ(wraps::calls(wraps::NANOSLEEP), 8);
}

const std::string no_reply_fifo =
    report("server", "unable to open fifo /tmp/osd_fifo_ack for reply", "osd_send_ack");

TEST_F(MainLoopWhole, reports_an_ack_that_can_not_be_sent_and_does_not_retry_it)
{
    offer("");
    EXPECT_EQ(run({[] { send(OSD_REQUEST_UPDATE); }, [] {}, [] {}}),
              no_reply_fifo + by_loop("failed to send ack") +     // the update's
                  no_reply_fifo + by_loop("failed to send ack")); // the stop's
}

TEST_F(MainLoopWhole, reports_a_nack_that_can_not_be_sent_and_does_not_retry_it)
{
    offer("");
    osd_state.post[0].res_id = res_id_of(0);
    EXPECT_EQ(run({[] { send(0x155); }, [] {}, [] {}}),
              report("server", "post 0 has been closed", "osd_refresh") +
                  by_loop("osd display failed") + no_reply_fifo + by_loop("failed to send nack") +
                  no_reply_fifo + by_loop("failed to send ack"));
}

TEST_F(MainLoopWhole, reports_a_nack_of_a_failed_request_that_can_not_be_sent)
{
    offer("Post0TimeOn=2\n");
    EXPECT_EQ(run({[] { send(OSD_REQUEST_UPDATE); }, [] {}}),
              report("server", "invalid value '2' of key Post0TimeOn", "osd_check_param") +
                  report("server", "invalid osd parameter", "osd_check_section") +
                  report("server", "invalid parameter in osd section", "osd_read_parameter_file") +
                  by_request("failed to get new params") + by_loop("do request failed") +
                  no_reply_fifo + by_loop("failed to send nack") + no_reply_fifo +
                  by_loop("failed to send ack"));
}

TEST_F(MainLoopWhole, sleeps_longer_until_an_update_has_brought_the_time)
{
    Client client;
    for (osd_post &post : osd_state.post)
        post.text_on[OSD_SLOT_TIME] = 1; // from the start; no slot is raised to its text yet
    offer("Post1TimeOn=1\n");
    wraps::trace(wraps::NANOSLEEP);
    EXPECT_EQ(run({[] { send(OSD_REQUEST_UPDATE); }, [] {}}), "");
    EXPECT_EQ(lines_,
              joined({slices(4), slices(2), slices(2), {"close_device()", "library_exit()"}}));
}

TEST_F(MainLoopWhole, sleeps_shorter_at_once_if_an_update_waits_for_its_first_request_step)
{
    Client client;
    offer("Post1TimeOn=1\n");
    {
        RequestFifo early;
        early.send({OSD_REQUEST_UPDATE});
        wraps::trace(wraps::NANOSLEEP);
        EXPECT_EQ(run({}), "");
    }
    EXPECT_EQ(lines_, joined({slices(2), {"close_device()", "library_exit()"}}));
    EXPECT_EQ(client.replies(), "AA");
}

TEST_F(MainLoopWhole, hurries_to_a_post_3_that_opens_in_the_sleep)
{
    Client client;
    wraps::trace(wraps::NANOSLEEP);
    EXPECT_EQ(run({[] {
                       wraps::set_clock(NOON + DAY, 0);
                       announce(0);
                       announce(3);
                   },
                   [&] {
                       EXPECT_EQ(dated_posts(), (std::vector<int>{0, 1, 2, 3}));
                       EXPECT_STREQ(osd_state.post[0].date_text, " 29/02/2024 ");
                       EXPECT_STREQ(osd_state.post[2].date_text, " 29/02/2024 ");
                       EXPECT_STREQ(osd_state.post[3].date_text, " 01/03/2024 ");
                   },
                   [] { EXPECT_STREQ(osd_state.post[0].date_text, " 01/03/2024 "); }}),
              "");
    EXPECT_EQ(lines_, joined({slices(1),
                              {"get_status(0x44)"},
                              slices(4),
                              {"get_status(0x11)"},
                              slices(4),
                              slices(4),
                              {"close_device()", "library_exit()"}}));
}

TEST_F(MainLoopWhole, does_not_hurry_to_another_post_nor_to_a_closing)
{
    Client client;
    wraps::trace(wraps::NANOSLEEP);
    EXPECT_EQ(run({[] {
                  announce(0);
                  announce_end(3);
              }}),
              "");
    EXPECT_EQ(
        lines_,
        joined({slices(4), {"get_status(0x11)"}, slices(4), {"close_device()", "library_exit()"}}));
}

// ---- The stop -----------------------------------------------------------------------------------

TEST_F(MainLoopWhole, takes_down_its_posts_first_when_it_stops)
{
    Client client;
    announce(0);
    announce(3);
    osd_state.post[0].rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
    osd_state.post[3].rect[OSD_SLOT_DATE].mode = OSD_MODE_TEXT;
    trace_files();
    wraps::trace(wraps::FT_DONE_FREETYPE);
    EXPECT_EQ(run({[] {}}), "");
    const Lines expected = joined(
        {{"read(4)", "FT_Done_FreeType()", "clear_osd(0x11, 0x102)", "close_osd(0x11, 0x102)",
          "FT_Done_FreeType()", "clear_osd(0x44, 0x101)", "close_osd(0x44, 0x101)"},
         stop_of_the_files,
         reply});
    ASSERT_GT(lines_.size(), expected.size());
    lines_.erase(lines_.begin(), lines_.end() - static_cast<std::ptrdiff_t>(expected.size()));
    EXPECT_EQ(lines_, expected);
    EXPECT_EQ(client.replies(), "A");
}

TEST_F(MainLoopWhole, acknowledges_a_stop_whatever_fails_on_the_way)
{
    Client client;
    announce(0);
    osd_state.post[0].rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
    for (const auto call :
         {codec::CLEAR_OSD, codec::CLOSE_OSD, codec::CLOSE_DEVICE, codec::LIBRARY_EXIT})
        codec::fail(call, 1, codec::SOME_ERROR);
    const auto by_end = [](const char *message) {
        return report("server", message, "osd_server_end_process");
    };
    const auto by_close = [](const char *message) {
        return report("server", message, "osd_close_opened_post");
    };
    EXPECT_EQ(run({}),
              report("server", "qm5_cl_post_clear_osd() failed. errno=0x81E01234", "osd_clear") +
                  report("server", "ResID=0x00000011, Handle=0x00000101", "osd_clear") +
                  by_close("post 0 osd 3 clear error") +
                  by_close("qm5_cl_post_close_osd() failed. errno=0x81E01234") +
                  by_close("Post0Osd3") +
                  by_end("qm5_cl_sys_close_device() failed. errno=0x81E01234") +
                  by_end("qm5_cl_library_exit() failed. errno=0x81E01234"));
    EXPECT_EQ(client.replies(), "A");
}

TEST_F(MainLoopWhole, stops_although_its_files_can_not_be_removed)
{
    Client client;
    offer("");
    wraps::fail(wraps::UNLINK, 1, EPERM, 3);
    EXPECT_EQ(run({}), "");
    EXPECT_EQ(wraps::calls(wraps::UNLINK), 3);
    EXPECT_EQ(client.replies(), "A");
    support::remove_file(OSD_FIFO_REQ);
    support::remove_file(OSD_TMP_PARAM);
}

// What a client finds as soon as it has the reply to its stop word, as an exit status.
int stop_and_look()
{
    alarm(LIMIT_S); // ends this process if the reply never comes
    const bool stopped = osd_send_request(OSD_REQUEST_STOP) == 0;
    const bool gone = access(OSD_FIFO_REQ, F_OK) == -1 && access(OSD_TMP_PARAM, F_OK) == -1 &&
                      access(OSD_FIFO_ACK, F_OK) == -1;
    return stopped && gone ? EXIT_SUCCESS : EXIT_FAILURE;
}

TEST_F(MainLoopWhole, has_gone_when_the_client_of_its_stop_gets_the_reply)
{
    offer("");
    pid_t client = -1;
    int status = -1;
    wraps::on_nanosleep([&] {
        if (client == -1 && (client = fork()) == 0)
            std::_Exit(stop_and_look());
        if (status == -1 && waitpid(client, &status, WNOHANG) == client)
            send(OSD_REQUEST_STOP); // it has ended without stopping the server
        sched_yield();
    });
    EXPECT_EQ(errors_of(osd_server_main_loop), "");
    if (status == -1)
        waitpid(client, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
