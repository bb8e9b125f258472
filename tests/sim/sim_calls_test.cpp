// qm5sim calls: the recorded calls as JSON lines, once and as they come.
#include "recorded_calls.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/stat.h>

namespace
{

using namespace support;

class SimCalls : public RecordTest
{
protected:
    static Process follow(const Words &words = {})
    {
        Words all = {"calls", "--follow"};
        all.insert(all.end(), words.begin(), words.end());
        return Process(sim_words(all));
    }

    // What a process that runs has written so far into one of its two files.
    static std::string written_by(const Process &process, int fd, const std::string &file)
    {
        const fs::path output =
            "/proc/" + std::to_string(process.pid()) + "/fd/" + std::to_string(fd);
        if (fs::read_symlink(output).string().rfind(file, 0) != 0)
            return ""; // it still has the test's own
        return read_file(output);
    }
    static std::string output_of(const Process &process)
    {
        return written_by(process, 1, "/memfd:out");
    }
    static std::string errors_of(const Process &process)
    {
        return written_by(process, 2, "/memfd:err");
    }

    static testing::AssertionResult writes(const Process &process, const std::string &text)
    {
        if (wait_until([&] { return output_of(process) == text; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << output_of(process) << "instead of\n" << text;
    }

    static Ended end(Process &process, int signal)
    {
        kill(process.pid(), signal);
        return process.wait();
    }
};

// The line of a call without words, by its number and thread.
std::string init_line(unsigned number, std::uint32_t thread)
{
    return "{\"n\":" + std::to_string(number) +
           ",\"time\":\"2026-03-04T05:06:07.000008Z\",\"thread\":" + std::to_string(thread) +
           ",\"call\":\"library_init\",\"result\":0,\"us\":12.3}\n";
}

sim_call_record init_by(std::uint32_t thread)
{
    sim_call_record call = call_of(SIM_LIBRARY_INIT);
    call.thread = thread;
    return call;
}

// ---- Lines --------------------------------------------------------------------------------------

TEST_F(SimCalls, prints_each_operation_with_its_own_words)
{
    sim_call_record set = call_of(SIM_SET_OSD, {0x50000001, 0x60000002, 16, 432});
    set.hash = 0x00AB0000CD00EF12;
    set.data_size = 64;
    write_file(CALLS,
               record_of({
                   call_of(SIM_LIBRARY_INIT),
                   call_of(SIM_OPEN_DEVICE),
                   call_of(SIM_NOTIFY_CALLBACK),
                   call_of(SIM_SET_NOTIFY, {15}),
                   notify(0x50000001, 3, 1),
                   call_of(SIM_THREAD_GET_STATUS, {0x50000001}, {720, 576}),
                   call_of(SIM_OPEN_OSD, {0x50000001, 2, 100, 32, 1}, {0x60000002, 0xA0000002, 64}),
                   call_of(SIM_CLEAR_OSD, {0x50000001, 0x60000002}),
                   call_of(SIM_GET_OSD_MEM, {0x50000001, 0x60000002}, {2048}),
                   set,
                   call_of(SIM_CLOSE_OSD, {0x50000001, 0x60000002}),
                   call_of(SIM_CLOSE_DEVICE),
                   call_of(SIM_LIBRARY_EXIT),
               }));
    const Ended ended = sim({"calls"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "");
    const std::string when = "\"time\":\"2026-03-04T05:06:07.000008Z\",\"thread\":700,";
    const std::string osd = "\"res_id\":\"0x50000001\",\"handle\":\"0x60000002\",";
    EXPECT_EQ(
        ended.out,
        "{\"n\":1," + when + "\"call\":\"library_init\",\"result\":0,\"us\":12.3}\n" + "{\"n\":2," +
            when + "\"call\":\"open_device\",\"result\":0,\"us\":12.3}\n" + "{\"n\":3," + when +
            "\"call\":\"notify_callback\",\"result\":0,\"us\":12.3}\n" + "{\"n\":4," + when +
            "\"call\":\"set_notify\",\"mask\":15,\"result\":0,\"us\":12.3}\n"
            "{\"n\":5,\"time\":\"2026-03-04T05:06:07.000008Z\",\"thread\":701,"
            "\"call\":\"notify\",\"res_id\":\"0x50000001\",\"post\":3,\"opened\":1,"
            "\"result\":0,\"us\":12.3}\n"
            "{\"n\":6," +
            when +
            "\"call\":\"thread_get_status\",\"res_id\":\"0x50000001\","
            "\"result\":0,\"width\":720,\"height\":576,\"us\":12.3}\n"
            "{\"n\":7," +
            when +
            "\"call\":\"open_osd\",\"res_id\":\"0x50000001\",\"number\":2,\"width\":100,"
            "\"height\":32,\"color_type\":1,\"result\":0,\"handle\":\"0x60000002\","
            "\"aux\":\"0xA0000002\",\"line_bytes\":64,\"us\":12.3}\n"
            "{\"n\":8," +
            when + "\"call\":\"clear_osd\"," + osd + "\"result\":0,\"us\":12.3}\n" + "{\"n\":9," +
            when + "\"call\":\"get_osd_mem\"," + osd + "\"result\":0,\"size\":2048,\"us\":12.3}\n" +
            "{\"n\":10," + when + "\"call\":\"set_osd\"," + osd +
            "\"x\":16,\"y\":432,\"result\":0,\"hash\":\"00ab0000cd00ef12\",\"us\":12.3}\n" +
            "{\"n\":11," + when + "\"call\":\"close_osd\"," + osd + "\"result\":0,\"us\":12.3}\n" +
            "{\"n\":12," + when + "\"call\":\"close_device\",\"result\":0,\"us\":12.3}\n" +
            "{\"n\":13," + when + "\"call\":\"library_exit\",\"result\":0,\"us\":12.3}\n");
}

TEST_F(SimCalls, prints_the_error_of_a_failed_call_instead_of_what_it_would_have_given)
{
    sim_call_record open = failed(call_of(SIM_OPEN_OSD, {1, 0, 16, 4, 2}, {7, 8, 9}), 0x81E03246);
    open.duration = 60049;
    sim_call_record set = failed(call_of(SIM_SET_OSD, {0, 0, 65535, 0}), 0x81E04507);
    set.result = -14;
    set.duration = 60050;
    write_file(CALLS, record_of({open, set}));
    EXPECT_EQ(sim({"calls"}).out,
              "{\"n\":1,\"time\":\"2026-03-04T05:06:07.000008Z\",\"thread\":700,"
              "\"call\":\"open_osd\",\"res_id\":\"0x00000001\",\"number\":0,\"width\":16,"
              "\"height\":4,\"color_type\":2,\"result\":-1,\"errno\":\"0x81E03246\",\"us\":60.0}\n"
              "{\"n\":2,\"time\":\"2026-03-04T05:06:07.000008Z\",\"thread\":700,"
              "\"call\":\"set_osd\",\"res_id\":\"0x00000000\",\"handle\":\"0x00000000\","
              "\"x\":65535,\"y\":0,\"result\":-14,\"errno\":\"0x81E04507\",\"us\":60.1}\n");
}

TEST_F(SimCalls, prints_the_largest_words_as_they_are)
{
    sim_call_record call;
    std::memset(&call, 0xFF, sizeof call);
    call.operation = SIM_OPEN_OSD;
    call.result = 0;
    write_file(CALLS, record_of({call}));
    EXPECT_EQ(sim({"calls"}).out,
              "{\"n\":1,\"time\":\"2554-07-21T23:34:33.709551Z\",\"thread\":4294967295,"
              "\"call\":\"open_osd\",\"res_id\":\"0xFFFFFFFF\",\"number\":4294967295,"
              "\"width\":4294967295,\"height\":4294967295,\"color_type\":4294967295,\"result\":0,"
              "\"handle\":\"0xFFFFFFFF\",\"aux\":\"0xFFFFFFFF\",\"line_bytes\":4294967295,"
              "\"us\":1.8446744073709552e+16}\n");
}

TEST_F(SimCalls, prints_from_a_number_on)
{
    CallList calls;
    std::string all;
    for (unsigned i = 1; i <= 1000; i++) {
        calls.push_back(init_by(i));
        all += init_line(i, i);
    }
    write_file(CALLS, record_of(calls));
    EXPECT_EQ(sim({"calls"}).out, all);
    EXPECT_EQ(sim({"calls", "--from", "999"}).out, init_line(999, 999) + init_line(1000, 1000));
    EXPECT_EQ(sim({"calls", "--from", "1000"}).out, init_line(1000, 1000));
    EXPECT_TRUE(failed_with(sim({"calls", "--from", "1001"}), 1,
                            "/tmp/codec/calls: there is no call 1001, the last is 1000"));
}

TEST_F(SimCalls, has_nothing_to_print_of_an_empty_record)
{
    write_file(CALLS, record_of({}));
    for (const Words &words : {Words{"calls"}, Words{"calls", "--from", "1"}}) {
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.out + ended.err, "");
    }
    EXPECT_TRUE(failed_with(sim({"calls", "--from", "2"}), 1,
                            "/tmp/codec/calls: there is no call 2, the last is 0"));
}

TEST_F(SimCalls, prints_no_call_that_is_not_counted_yet)
{
    write_file(CALLS, bytes_of(head_of(1)) + bytes_of(init_by(1)) + bytes_of(init_by(2)) + "half");
    EXPECT_EQ(sim({"calls"}).out, init_line(1, 1));
}

TEST_F(SimCalls, takes_another_file)
{
    write_file("/tmp/codec/other", record_of({init_by(9)}));
    EXPECT_EQ(sim({"calls", "--file", "/tmp/codec/other"}).out, init_line(1, 9));
}

// ---- A record that has been cut
// -------------------------------------------------------------------

TEST_F(SimCalls, tells_beside_its_output_that_later_calls_are_missing)
{
    sim_calls_head head = head_of(1);
    head.limit = 20u << 20;
    const std::pair<sim_calls_cut, std::string> cuts[] = {
        {SIM_CALLS_AT_LIMIT, "its limit of 20 MiB was reached"},
        {SIM_CALLS_FAILED, "they could not be written"},
    };
    for (const auto &[cut, why] : cuts) {
        head.cut = cut;
        write_file(CALLS, bytes_of(head) + bytes_of(init_by(1)));
        const Ended ended = sim({"calls"});
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.out, init_line(1, 1));
        EXPECT_EQ(ended.err, "qm5sim: /tmp/codec/calls: later calls are missing: " + why + "\n");
    }
}

TEST_F(SimCalls, tells_that_once_while_it_follows_and_follows_the_next_record)
{
    sim_calls_head head = head_of(1);
    head.cut = SIM_CALLS_FAILED;
    write_file(CALLS, bytes_of(head) + bytes_of(init_by(1)));
    Process process = follow();
    const std::string missing =
        "qm5sim: /tmp/codec/calls: later calls are missing: they could not be written\n";
    EXPECT_TRUE(wait_until([&] { return errors_of(process) == missing; }));
    remove_file(CALLS);
    write_file("/tmp/codec/new", bytes_of(head) + bytes_of(init_by(2)));
    fs::rename("/tmp/codec/new", CALLS);
    EXPECT_TRUE(wait_until([&] { return errors_of(process) == missing + missing; }));
    const Ended ended = end(process, SIGTERM);
    EXPECT_EQ(ended.out, init_line(1, 1) + init_line(1, 2));
    EXPECT_EQ(ended.err, missing + missing);
}

// ---- Refusals -----------------------------------------------------------------------------------

TEST_F(SimCalls, refuses_a_file_that_is_cut_off)
{
    const std::string whole = record_of({init_by(1), init_by(2)});
    for (const std::size_t size : {0u, 3u, 4u, 63u}) {
        write_file(CALLS, whole.substr(0, size));
        EXPECT_TRUE(failed_with(sim({"calls"}), 1,
                                "/tmp/codec/calls: no record of calls, or cut off within its head"))
            << size;
    }
    for (const std::size_t size : {64u, 151u}) {
        write_file(CALLS, whole.substr(0, size));
        EXPECT_TRUE(
            failed_with(sim({"calls"}), 1, "/tmp/codec/calls: cut off: it holds 0 of its 2 calls"));
    }
    write_file(CALLS, whole.substr(0, whole.size() - 1));
    EXPECT_TRUE(
        failed_with(sim({"calls"}), 1, "/tmp/codec/calls: cut off: it holds 1 of its 2 calls"));
    write_file(CALLS, bytes_of(head_of(UINT64_MAX)) + bytes_of(init_by(1)));
    EXPECT_TRUE(
        failed_with(sim({"calls"}), 1,
                    "/tmp/codec/calls: cut off: it holds 1 of its 18446744073709551615 calls"));
}

TEST_F(SimCalls, refuses_what_is_no_record_of_its_version)
{
    sim_calls_head head = head_of(0);
    head.magic++;
    write_file(CALLS, bytes_of(head));
    EXPECT_TRUE(failed_with(sim({"calls"}), 1, "/tmp/codec/calls: no record of calls"));
    head = head_of(0);
    head.version = 1;
    write_file(CALLS, bytes_of(head));
    EXPECT_TRUE(
        failed_with(sim({"calls"}), 1, "/tmp/codec/calls: a record of calls of version 1, not 2"));
    head = head_of(0);
    head.record_size = 80;
    write_file(CALLS, bytes_of(head));
    EXPECT_TRUE(failed_with(sim({"calls"}), 1, "/tmp/codec/calls: 80 bytes for a call, not 88"));
    EXPECT_TRUE(failed_with(sim({"calls", "--follow"}), 1,
                            "/tmp/codec/calls: 80 bytes for a call, not 88"));
}

TEST_F(SimCalls, refuses_what_cannot_be_read)
{
    EXPECT_TRUE(failed_with(sim({"calls"}), 1, "/tmp/codec/calls: No such file or directory"));
    EXPECT_TRUE(
        failed_with(sim({"calls", "--follow"}), 1, "/tmp/codec/calls: No such file or directory"));
    EXPECT_TRUE(failed_with(sim({"calls", "--file", STATE}), 1, "/tmp/codec: no regular file"));
    ASSERT_EQ(mkfifo("/tmp/codec/fifo", 0600), 0);
    EXPECT_TRUE(failed_with(sim({"calls", "--file", "/tmp/codec/fifo"}), 1,
                            "/tmp/codec/fifo: no regular file"));
}

TEST_F(SimCalls, refuses_an_unknown_operation_behind_the_calls_before_it)
{
    sim_call_record unknown = init_by(2);
    unknown.operation = SIM_OPERATIONS;
    write_file(CALLS, record_of({init_by(1), unknown, init_by(3)}));
    const Ended ended = sim({"calls"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.out, init_line(1, 1));
    EXPECT_EQ(ended.err, "qm5sim: /tmp/codec/calls: call 2: operation 13 is unknown\n");
}

TEST_F(SimCalls, tells_that_its_output_is_full)
{
    write_file(CALLS, record_of({init_by(1)}));
    for (const char *words : {"calls", "calls --follow"}) {
        const Ended ended =
            run({"/bin/sh", "-c", QM5SIM_PROGRAM " " + std::string(words) + " > /dev/full"});
        EXPECT_EQ(ended.status, 1);
        EXPECT_EQ(ended.err, "qm5sim: standard output: No space left on device\n");
    }
}

TEST_F(SimCalls, has_its_manners)
{
    for (const char *number : {"0", "-1", "1.5", "x", ""}) {
        const Ended ended = sim({"calls", "--from", number});
        EXPECT_EQ(ended.status, 2) << number;
        EXPECT_EQ(ended.err,
                  std::string("qm5sim: --from: ") + number + " is no number of a call\n");
        EXPECT_EQ(ended.out, "");
    }
    const Ended help = sim({"calls", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("qm5sim calls --follow --from 100"), std::string::npos) << help.out;
}

// ---- Following ----------------------------------------------------------------------------------

TEST_F(SimCalls, follows_calls_as_they_come_until_a_signal)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        write_file(CALLS, record_of({init_by(1)}));
        Process process = follow();
        std::string all = init_line(1, 1);
        EXPECT_TRUE(writes(process, all));
        for (unsigned i = 2; i <= 4; i++) {
            append_call(CALLS, init_by(i));
            all += init_line(i, i);
            EXPECT_TRUE(writes(process, all));
        }
        const Ended ended = end(process, signal);
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.err, "");
        EXPECT_EQ(ended.out, all);
    }
}

TEST_F(SimCalls, follow_in_a_scenario_takes_its_signal_and_leaves_the_next_to_the_play)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        write_file(CALLS, record_of({init_by(1)}));
        write_file("/tmp/codec/scenario", "0 calls --follow\n0 run echo next\n1000 run true\n");
        Process process(sim_words({"play", "/tmp/codec/scenario"}));
        EXPECT_TRUE(writes(process, init_line(1, 1)));
        kill(process.pid(), signal);
        EXPECT_TRUE(writes(process, init_line(1, 1) + "next\n"));
        EXPECT_EQ(end(process, signal).status, 128 + signal);
    }
}

TEST_F(SimCalls, follows_from_a_number_that_is_yet_to_come)
{
    write_file(CALLS, record_of({init_by(1)}));
    Process process = follow({"--from", "3"});
    append_call(CALLS, init_by(2));
    append_call(CALLS, init_by(3));
    EXPECT_TRUE(writes(process, init_line(3, 3)));
    EXPECT_EQ(end(process, SIGTERM).status, 0);
}

TEST_F(SimCalls, follows_a_record_that_begins_anew_in_its_file)
{
    write_file(CALLS, record_of({init_by(1), init_by(2)}));
    Process process = follow({"--from", "2"});
    EXPECT_TRUE(writes(process, init_line(2, 2)));
    write_file(CALLS, ""); // made, with nothing in it yet
    write_file(CALLS, std::string(64, '\0'));
    write_file(CALLS, record_of({}));
    append_call(CALLS, init_by(11));
    EXPECT_TRUE(writes(process, init_line(2, 2) + init_line(1, 11)));
    // At once longer than the one before.
    write_file(CALLS, record_of({init_by(21), init_by(22), init_by(23)}));
    EXPECT_TRUE(writes(process, init_line(2, 2) + init_line(1, 11) + init_line(1, 21) +
                                    init_line(2, 22) + init_line(3, 23)));
    const Ended ended = end(process, SIGTERM);
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.err, "");
}

TEST_F(SimCalls, follows_a_record_that_begins_anew_in_another_file)
{
    write_file(CALLS, record_of({init_by(1)}));
    Process process = follow();
    EXPECT_TRUE(writes(process, init_line(1, 1)));
    remove_file(CALLS);
    write_file("/tmp/codec/new", record_of({init_by(1), init_by(12)}));
    fs::rename("/tmp/codec/new", CALLS);
    EXPECT_TRUE(writes(process, init_line(1, 1) + init_line(1, 1) + init_line(2, 12)));
    EXPECT_EQ(end(process, SIGTERM).status, 0);
}

TEST_F(SimCalls, ends_a_follow_of_what_breaks)
{
    write_file(CALLS, record_of({init_by(1)}));
    Process process = follow();
    EXPECT_TRUE(writes(process, init_line(1, 1)));
    sim_call_record unknown = init_by(2);
    unknown.operation = 99;
    append_call(CALLS, unknown);
    const Ended ended = process.wait();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "qm5sim: /tmp/codec/calls: call 2: operation 99 is unknown\n");
}

// A pipe whose reader is the test.
class Pipe
{
public:
    Pipe()
    {
        EXPECT_EQ(mkfifo(PATH, 0600), 0);
        fd_ = open(PATH, O_RDWR | O_NONBLOCK | O_CLOEXEC);
        EXPECT_NE(fd_, -1);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe()
    {
        leave();
    }

    // qm5sim calls --follow, which writes into the pipe.
    static Process follow()
    {
        return Process(
            {"/bin/sh", "-c", std::string("exec " QM5SIM_PROGRAM " calls --follow > ") + PATH});
    }

    // Waits until there is something to be read, or until nothing more can be written.
    bool holds_something() const
    {
        return wait_until([this] { return (events() & POLLIN) != 0; });
    }
    bool is_full() const
    {
        return holds_something() && wait_until([this] { return (events() & POLLOUT) == 0; });
    }

    std::string read() const
    {
        std::string text(1 << 20, '\0');
        const ssize_t length = ::read(fd_, text.data(), text.size());
        text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return text;
    }

    void leave()
    {
        if (fd_ != -1)
            close(fd_);
        fd_ = -1;
    }

private:
    short events() const
    {
        pollfd wanted = {fd_, POLLIN | POLLOUT, 0};
        poll(&wanted, 1, 0);
        return wanted.revents;
    }

    static constexpr const char *PATH = "/tmp/codec/pipe";
    int fd_ = -1;
};

TEST_F(SimCalls, ends_by_a_signal_while_nobody_reads_its_output)
{
    write_file(CALLS, record_of(CallList(5000, init_by(1)))); // more than a pipe takes
    const Pipe pipe;
    Process process = Pipe::follow();
    EXPECT_TRUE(pipe.is_full());
    EXPECT_EQ(end(process, SIGTERM).status, 0);
    const std::string lines = pipe.read();
    ASSERT_NE(lines, "");
    EXPECT_EQ(lines.back(), '\n') << "a line is cut off";
    const auto count = static_cast<unsigned>(std::count(lines.begin(), lines.end(), '\n'));
    EXPECT_NE(lines.find(init_line(count, 1)), std::string::npos);
}

TEST_F(SimCalls, ends_with_the_reader_of_its_output)
{
    write_file(CALLS, record_of({init_by(1)}));
    Pipe pipe;
    Process process = Pipe::follow();
    EXPECT_TRUE(pipe.holds_something());
    pipe.leave();
    EXPECT_EQ(process.wait().status, 0);
}

} // namespace
