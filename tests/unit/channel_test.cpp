// The request channel: its words, the running test, and both ends of an exchange.
#include "server/channel.h"

#include "support/osd_test.h"
#include "support/wraps.h"
#include "unit/channel_peers.h"

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

using channel_peer::bytes_of;
using channel_peer::FakeServer;
using channel_peer::operator+;
using channel_peer::ReplyFifo;
using support::Lines;
using support::report;
using support::temporary_files;

// ---- Words --------------------------------------------------------------------------------------

TEST(ChannelWords, paths_and_words_have_their_fixed_values)
{
    EXPECT_STREQ(OSD_FIFO_REQ, "/tmp/osd_fifo_req");
    EXPECT_STREQ(OSD_FIFO_ACK, "/tmp/osd_fifo_ack");
    EXPECT_STREQ(OSD_TMP_PARAM, "/tmp/osd_tmp_param.txt");
    EXPECT_STREQ(OSD_TMP_PARAM_BAK, "/tmp/osd_tmp_param.bak");
    EXPECT_EQ(OSD_FIFO_MODE, mode_t{420});
    EXPECT_EQ(OSD_REQUEST_UPDATE, 85u);
    EXPECT_EQ(OSD_REQUEST_STOP, 83u);
    EXPECT_EQ(OSD_REPLY_ACK, 65u);
    EXPECT_EQ(OSD_REPLY_NACK, 78u);
}

TEST(ChannelWords, update_word_carries_the_mask_above_the_code)
{
    constexpr std::uint32_t rows[][2] = {{0, 0x55},  {1, 0x155}, {2, 0x255},
                                         {4, 0x455}, {8, 0x855}, {15, 0xF55}};
    for (const auto &[mask, word] : rows)
        EXPECT_EQ(osd_update_word(mask), word) << mask;
}

TEST(ChannelWords, code_is_the_low_byte_alone)
{
    constexpr std::uint32_t rows[][2] = {{0x53, 0x53},       {0xFFFFFF53, 0x53}, {0xF55, 0x55},
                                         {0x80000055, 0x55}, {0x5300, 0},        {0xFF, 0xFF}};
    for (const auto &[word, code] : rows)
        EXPECT_EQ(osd_request_code(word), code) << word;
}

std::uint32_t posts_of(std::uint32_t word)
{
    std::uint32_t posts = 0;
    for (int post = 0; post < 4; post++)
        posts |= osd_update_has_post(word, post) ? 1u << post : 0;
    return posts;
}

TEST(ChannelWords, every_mask_marks_its_posts)
{
    for (std::uint32_t mask = 0; mask < 16; mask++)
        EXPECT_EQ(posts_of(osd_update_word(mask)), mask);
}

TEST(ChannelWords, bits_above_the_mask_mark_no_post)
{
    EXPECT_EQ(posts_of(0x7FFFF055), 0u);
    EXPECT_EQ(posts_of(0x7FFFF555), 5u);
}

// The quotient of a negative word goes toward zero, which a shift would not do.
TEST(ChannelWords, a_word_with_bit_31_is_divided_as_a_negative_number)
{
    constexpr struct {
        std::uint32_t word;
        std::uint32_t posts;
    } rows[] = {
        {0x80000000, 0},  // -8388608: no rest
        {0x80000055, 1},  // -8388607: one up
        {0x80000155, 2},  // -8388606
        {0x80000F00, 15}, // -8388593: no rest
        {0x80000F55, 0},  // -8388592: one up, into the bits above
        {0xFFFFFF55, 0},  // -171 / 256 is 0
        {0xFFFFFF00, 15}, // -1
        {0xFFFFFE55, 15}, // -1
        {0xFFFFFD55, 14}, // -2
    };
    for (const auto &[word, posts] : rows)
        EXPECT_EQ(posts_of(word), posts) << std::hex << word;
}

// ---- Calls --------------------------------------------------------------------------------------

// What a call gave: its result, what it printed, and what it asked of the system, with the numbers
// of descriptors left out.
struct Outcome {
    int result = 0;
    std::string errors;
    Lines calls;
};

Lines take_calls()
{
    Lines calls = support::take_trace();
    for (std::string &line : calls) {
        if (line.starts_with("close("))
            line = "close()";
    }
    return calls;
}

Outcome watch(const std::function<int()> &call)
{
    for (const auto function :
         {wraps::MKFIFO, wraps::OPEN, wraps::CLOSE, wraps::READ, wraps::WRITE, wraps::UNLINK})
        wraps::trace(function);
    Outcome outcome;
    outcome.errors = support::errors_of([&] {
        support::take_trace(); // what an earlier capture has left
        outcome.result = call();
        outcome.calls = take_calls();
    });
    return outcome;
}

Outcome send_request(std::uint32_t word)
{
    return watch([word] { return osd_send_request(word); });
}

Outcome send_ack(std::uint32_t word)
{
    return watch([word] { return osd_send_ack(word); });
}

std::string request_report(std::string_view message)
{
    return report("", message, "osd_send_request");
}

// The steps of an exchange.
const Lines TEST_RUNNING = {"open(/tmp/osd_fifo_req, 04001)", "close()"};
const std::string MAKE_REPLY_FIFO = "mkfifo(/tmp/osd_fifo_ack, 0644)";
const std::string OPEN_REQUEST = "open(/tmp/osd_fifo_req, 01)";
const std::string OPEN_REPLY = "open(/tmp/osd_fifo_ack, 00)";
const std::string UNLINK_REPLY_FIFO = "unlink(/tmp/osd_fifo_ack)";

const Lines SEND = TEST_RUNNING + Lines{MAKE_REPLY_FIFO, OPEN_REQUEST, "write(4)", "close()"};
const Lines EXCHANGE = SEND + Lines{OPEN_REPLY, "read(4)", "close()", UNLINK_REPLY_FIFO};

const Lines ONLY_REQUEST_FIFO = {"osd_fifo_req"};

class Channel : public channel_peer::BoundedTest
{
};

// ---- Running test -------------------------------------------------------------------------------

Outcome test_running()
{
    return watch([] { return osd_server_is_running() ? 1 : 0; });
}

TEST_F(Channel, no_server_runs_without_the_fifo)
{
    const Outcome outcome = test_running();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.calls, Lines{"open(/tmp/osd_fifo_req, 04001)"});
}

TEST_F(Channel, no_server_runs_with_a_fifo_that_nobody_reads)
{
    ASSERT_EQ(mkfifo(OSD_FIFO_REQ, 0644), 0);
    const Outcome outcome = test_running();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.calls, Lines{"open(/tmp/osd_fifo_req, 04001)"});
    support::remove_file(OSD_FIFO_REQ);
}

TEST_F(Channel, no_server_runs_if_the_open_fails_for_any_other_reason)
{
    FakeServer server;
    wraps::fail(wraps::OPEN, 1, EMFILE);
    EXPECT_EQ(test_running().result, 0);
}

TEST_F(Channel, a_server_runs_if_it_reads_the_fifo_and_nothing_is_written_to_it)
{
    FakeServer server;
    const Outcome outcome = test_running();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
    EXPECT_TRUE(server.requests().empty());
}

// ---- A request ----------------------------------------------------------------------------------

TEST_F(Channel, request_goes_out_and_waits_for_its_reply)
{
    FakeServer server;
    const Outcome outcome = send_request(0x155);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.calls, EXCHANGE);
    EXPECT_EQ(server.words(), Lines{bytes_of(0x155)});
    EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
}

TEST_F(Channel, request_is_sent_from_its_lowest_byte_up)
{
    FakeServer server;
    EXPECT_EQ(osd_send_request(0x80C2A153), 0);
    EXPECT_EQ(server.words(), Lines{"\x53\xA1\xC2\x80"});
}

TEST_F(Channel, requests_follow_one_another)
{
    FakeServer server({bytes_of(OSD_REPLY_NACK), bytes_of(OSD_REPLY_ACK)});
    EXPECT_EQ(osd_send_request(0xF55), -14);
    EXPECT_EQ(osd_send_request(0x53), 0);
    EXPECT_EQ(server.words(), (Lines{bytes_of(0xF55), bytes_of(0x53)}));
}

TEST_F(Channel, refused_request_reports_nothing)
{
    FakeServer server({bytes_of(0x4E)});
    const Outcome outcome = send_request(0x55);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.calls, EXCHANGE);
    EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
}

TEST_F(Channel, reply_is_compared_whole)
{
    constexpr struct {
        std::uint32_t reply;
        const char *message;
    } rows[] = {
        {0x00000141, "invalid reply 0x00000141 received"},
        {0x0000014E, "invalid reply 0x0000014E received"},
        {0x80000041, "invalid reply 0x80000041 received"},
        {0x41000000, "invalid reply 0x41000000 received"},
        {0x00000000, "invalid reply 0x00000000 received"},
        {0xFFFFFFFF, "invalid reply 0xFFFFFFFF received"},
    };
    for (const auto &[reply, message] : rows) {
        FakeServer server({bytes_of(reply)});
        const Outcome outcome = send_request(0x55);
        EXPECT_EQ(outcome.result, -14);
        EXPECT_EQ(outcome.errors, request_report(message));
        EXPECT_EQ(outcome.calls, EXCHANGE);
        EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
    }
}

TEST_F(Channel, request_without_a_server_is_silent_and_makes_no_fifo)
{
    const Outcome outcome = send_request(0x55);
    EXPECT_EQ(outcome.result, -121);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.calls, Lines{"open(/tmp/osd_fifo_req, 04001)"});
    EXPECT_EQ(temporary_files(), Lines{});
}

TEST_F(Channel, request_without_a_server_leaves_both_old_fifos_alone)
{
    ASSERT_EQ(mkfifo(OSD_FIFO_REQ, 0644), 0);
    ASSERT_EQ(mkfifo(OSD_FIFO_ACK, 0644), 0);
    EXPECT_EQ(osd_send_request(0x55), -121);
    EXPECT_EQ(temporary_files(), (Lines{"osd_fifo_ack", "osd_fifo_req"}));
    support::remove_file(OSD_FIFO_REQ);
    support::remove_file(OSD_FIFO_ACK);
}

TEST_F(Channel, reply_fifo_of_a_killed_client_serves_the_next_one)
{
    FakeServer server;
    ASSERT_EQ(mkfifo(OSD_FIFO_ACK, 0600), 0);
    const Outcome outcome = send_request(0x55);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.calls, EXCHANGE);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0].reply_mode, mode_t{0600});
    EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
}

TEST_F(Channel, reply_fifo_gets_its_mode_under_the_inherited_mask)
{
    FakeServer server;
    const mode_t inherited = umask(0);
    EXPECT_EQ(osd_send_request(0x55), 0);
    EXPECT_EQ(umask(027), mode_t{0});
    EXPECT_EQ(osd_send_request(0x55), 0);
    EXPECT_EQ(umask(inherited), mode_t{027});
    ASSERT_EQ(server.requests().size(), 2u);
    EXPECT_EQ(server.requests()[0].reply_mode, mode_t{0644});
    EXPECT_EQ(server.requests()[1].reply_mode, mode_t{0640});
}

TEST_F(Channel, interrupted_and_divided_transfers_go_on)
{
    FakeServer server;
    wraps::limit_transfer(wraps::WRITE, 1, 3);
    wraps::fail(wraps::WRITE, 2, EINTR);
    wraps::limit_transfer(wraps::READ, 1, 1);
    wraps::fail(wraps::READ, 2, EINTR);
    const Outcome outcome = send_request(0x12345678);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.calls,
              (TEST_RUNNING + Lines{MAKE_REPLY_FIFO, OPEN_REQUEST, "write(4)", "write(1)",
                                    "write(1)", "close()", OPEN_REPLY, "read(4)", "read(3)",
                                    "read(3)", "close()", UNLINK_REPLY_FIFO}));
    EXPECT_EQ(server.words(), Lines{bytes_of(0x12345678)});
}

// ---- A request that fails -----------------------------------------------------------------------

TEST_F(Channel, request_fails_without_a_reply_fifo)
{
    FakeServer server;
    wraps::fail(wraps::MKFIFO, 1, ENOSPC);
    const Outcome outcome = send_request(0x55);
    EXPECT_EQ(outcome.result, -13);
    EXPECT_EQ(outcome.errors, request_report("unable to create fifo /tmp/osd_fifo_ack for reply"));
    EXPECT_EQ(outcome.calls, (TEST_RUNNING + Lines{MAKE_REPLY_FIFO}));
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(Channel, reply_fifo_that_could_not_be_made_is_not_removed)
{
    FakeServer server;
    ASSERT_EQ(mkfifo(OSD_FIFO_ACK, 0600), 0);
    wraps::fail(wraps::MKFIFO, 1, EROFS);
    EXPECT_EQ(send_request(0x55).result, -13);
    EXPECT_EQ(temporary_files(), (Lines{"osd_fifo_ack", "osd_fifo_req"}));
    support::remove_file(OSD_FIFO_ACK);
}

TEST_F(Channel, request_fails_if_its_fifo_cannot_be_opened)
{
    FakeServer server;
    wraps::fail(wraps::OPEN, 2, EACCES);
    const Outcome outcome = send_request(0x55);
    EXPECT_EQ(outcome.result, -13);
    EXPECT_EQ(outcome.errors, request_report("unable to open fifo /tmp/osd_fifo_req for request"));
    EXPECT_EQ(outcome.calls,
              (TEST_RUNNING + Lines{MAKE_REPLY_FIFO, OPEN_REQUEST, UNLINK_REPLY_FIFO}));
    EXPECT_TRUE(server.requests().empty());
    EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
}

TEST_F(Channel, request_fails_if_its_word_cannot_be_written)
{
    FakeServer server;
    wraps::fail(wraps::WRITE, 1, EIO);
    const Outcome outcome = send_request(0x80000F55);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.errors, request_report("failed to send request 0x80000F55"));
    EXPECT_EQ(outcome.calls, (TEST_RUNNING + Lines{MAKE_REPLY_FIFO, OPEN_REQUEST, "write(4)",
                                                   "close()", UNLINK_REPLY_FIFO}));
    EXPECT_TRUE(server.requests().empty());
    EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
}

TEST_F(Channel, request_fails_if_the_rest_of_its_word_is_not_taken)
{
    FakeServer server;
    wraps::limit_transfer(wraps::WRITE, 1, 0);
    const Outcome outcome = send_request(0x53);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.errors, request_report("failed to send request 0x00000053"));
    EXPECT_EQ(outcome.calls, (SEND + Lines{UNLINK_REPLY_FIFO}));
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(Channel, request_fails_if_the_reply_fifo_cannot_be_opened)
{
    FakeServer server;
    wraps::fail(wraps::OPEN, 3, ENFILE);
    const Outcome outcome = send_request(0x55);
    EXPECT_EQ(outcome.result, -13);
    EXPECT_EQ(outcome.errors, request_report("unable to open fifo /tmp/osd_fifo_ack for reply"));
    EXPECT_EQ(outcome.calls, (SEND + Lines{OPEN_REPLY, UNLINK_REPLY_FIFO}));
    EXPECT_EQ(server.words(), Lines{bytes_of(0x55)});
    EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
}

// An empty reply is what remains of a server that has died with the FIFO open.
TEST_F(Channel, request_fails_if_the_reply_is_not_whole)
{
    for (std::size_t size = 0; size < 4; size++) {
        FakeServer server({bytes_of(OSD_REPLY_ACK).substr(0, size)});
        const Outcome outcome = send_request(0x55);
        EXPECT_EQ(outcome.result, -14);
        EXPECT_EQ(outcome.errors, request_report("failed to send get reply"));
        EXPECT_EQ(outcome.calls.back(), UNLINK_REPLY_FIFO);
        EXPECT_EQ(outcome.calls.end()[-2], "close()");
        EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
    }
}

TEST_F(Channel, request_fails_if_the_reply_cannot_be_read)
{
    FakeServer server;
    wraps::fail(wraps::READ, 1, EIO);
    const Outcome outcome = send_request(0x55);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.errors, request_report("failed to send get reply"));
    EXPECT_EQ(outcome.calls, (SEND + Lines{OPEN_REPLY, "read(4)", "close()", UNLINK_REPLY_FIFO}));
    EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
}

// ---- A reply ------------------------------------------------------------------------------------

TEST_F(Channel, reply_is_sent_whole_and_its_fifo_left_to_the_client)
{
    const ReplyFifo fifo;
    const Outcome outcome = send_ack(0x4E);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.calls, (Lines{"open(/tmp/osd_fifo_ack, 01)", "write(4)", "close()"}));
    EXPECT_EQ(fifo.take_all(), bytes_of(0x4E));
    EXPECT_EQ(temporary_files(), Lines{"osd_fifo_ack"});
}

TEST_F(Channel, reply_is_any_word_from_its_lowest_byte_up)
{
    const ReplyFifo fifo;
    EXPECT_EQ(osd_send_ack(0x80C2A141), 0);
    EXPECT_EQ(fifo.take_all(), "\x41\xA1\xC2\x80");
}

TEST_F(Channel, interrupted_and_divided_reply_goes_on)
{
    const ReplyFifo fifo;
    wraps::limit_transfer(wraps::WRITE, 1, 1);
    wraps::fail(wraps::WRITE, 2, EINTR);
    const Outcome outcome = send_ack(0x41);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.calls, (Lines{"open(/tmp/osd_fifo_ack, 01)", "write(4)", "write(3)",
                                    "write(3)", "close()"}));
    EXPECT_EQ(fifo.take_all(), bytes_of(0x41));
}

TEST_F(Channel, reply_fails_at_once_without_its_fifo)
{
    const Outcome outcome = send_ack(0x41);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.errors,
              report("", "unable to open fifo /tmp/osd_fifo_ack for reply", "osd_send_ack"));
    EXPECT_EQ(outcome.calls, Lines{"open(/tmp/osd_fifo_ack, 01)"});
}

TEST_F(Channel, reply_fails_if_its_word_cannot_be_written)
{
    const ReplyFifo fifo;
    wraps::fail(wraps::WRITE, 1, EIO);
    const Outcome outcome = send_ack(0x41);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.errors, report("", "unable to send reply", "osd_send_ack"));
    EXPECT_EQ(outcome.calls, (Lines{"open(/tmp/osd_fifo_ack, 01)", "write(4)", "close()"}));
    EXPECT_EQ(fifo.take_all(), "");
    EXPECT_EQ(temporary_files(), Lines{"osd_fifo_ack"});
}

// ---- Both ends ----------------------------------------------------------------------------------

TEST_F(Channel, reply_waits_for_a_client)
{
    ASSERT_EQ(mkfifo(OSD_FIFO_ACK, 0600), 0);
    std::uint32_t reply = 0;
    std::thread client([&reply] {
        const int fd = __real_open(OSD_FIFO_ACK, O_RDONLY);
        EXPECT_EQ(__real_read(fd, &reply, sizeof reply), 4);
        __real_close(fd);
    });
    EXPECT_EQ(osd_send_ack(0x41), 0);
    client.join();
    EXPECT_EQ(reply, 0x41u);
    support::remove_file(OSD_FIFO_ACK);
}

// Waits for a child; its exit status, or the negative number of the signal that ended it.
int wait_for(pid_t child)
{
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST_F(Channel, words_pass_between_two_processes)
{
    ASSERT_EQ(mkfifo(OSD_FIFO_REQ, 0600), 0);
    const int fd = open(OSD_FIFO_REQ, O_RDWR);
    const pid_t server = fork();
    if (server == 0) {
        alarm(20);
        std::uint32_t word = 0;
        const bool whole = cmn_readn(fd, &word, sizeof word) == 4 && word == 0xF55;
        _exit(whole && osd_send_ack(0x41) == 0 ? 7 : 1);
    }
    EXPECT_EQ(osd_send_request(0xF55), 0);
    EXPECT_EQ(wait_for(server), 7);
    close(fd);
    EXPECT_EQ(temporary_files(), ONLY_REQUEST_FIFO);
    support::remove_file(OSD_FIFO_REQ);
}

// The read end of a reply FIFO that is full, so that a write to it waits.
int open_full_fifo()
{
    EXPECT_EQ(mkfifo(OSD_FIFO_ACK, 0600), 0);
    const int writer = open(OSD_FIFO_ACK, O_RDWR | O_NONBLOCK);
    const int reader = open(OSD_FIFO_ACK, O_RDONLY);
    const std::string page(4096, 'x');
    fcntl(writer, F_SETPIPE_SZ, 4096);
    while (write(writer, page.data(), page.size()) > 0)
        continue;
    close(writer);
    return reader;
}

// Waits until somebody has opened the FIFO for writing.
void wait_for_writer(int reader)
{
    pollfd hung_up = {reader, 0, 0};
    while (poll(&hung_up, 1, 0) == 1)
        std::this_thread::yield();
}

TEST_F(Channel, writer_whose_reader_has_gone_is_ended_by_the_signal)
{
    const int reader = open_full_fifo();
    const pid_t server = fork();
    if (server == 0) {
        close(reader);
        alarm(20);
        _exit(osd_send_ack(0x41) == 0 ? 0 : 1);
    }
    wait_for_writer(reader);
    close(reader);
    EXPECT_EQ(wait_for(server), -SIGPIPE);
    support::remove_file(OSD_FIFO_ACK);
}

} // namespace
