// Lines, whole reads and writes on descriptors, the wait for one, the executable's directory.
#include "common/cmn.h"
#include "support/osd_test.h"
#include "support/trace.h"
#include "support/wraps.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

using support::errors_of;
using support::Lines;
using support::report;
using support::take_trace;

// One that never blocks: a call too many fails instead.
class Pipe
{
public:
    Pipe()
    {
        EXPECT_EQ(pipe2(ends_.data(), O_NONBLOCK), 0);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe()
    {
        close(reader());
        close_writer();
    }
    int reader() const
    {
        return ends_[0];
    }
    int writer() const
    {
        return ends_[1];
    }
    void close_writer()
    {
        if (ends_[1] >= 0)
            close(ends_[1]);
        ends_[1] = -1;
    }
    void fill(const std::string &text) const
    {
        EXPECT_EQ(write(writer(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    std::size_t bytes() const
    {
        int waiting = 0;
        EXPECT_EQ(ioctl(reader(), FIONREAD, &waiting), 0);
        return static_cast<std::size_t>(waiting);
    }
    // All that waits in the pipe.
    std::string contents() const
    {
        std::string text(bytes(), '\0');
        if (!text.empty()) {
            EXPECT_EQ(read(reader(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
        }
        return text;
    }

private:
    std::array<int, 2> ends_{-1, -1};
};

class CmnIo : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        alarm(10); // the end of a loop that has none of its own
    }
    void TearDown() override
    {
        alarm(0);
        OsdTest::TearDown();
    }
};

// ---- Lines --------------------------------------------------------------------------------------

TEST_F(CmnIo, chomp_removes_one_line_feed_from_the_very_end)
{
    const struct {
        const char *before;
        const char *after;
    } cases[] = {
        {"line\n", "line"},     {"line", "line"},     {"\n", ""},           {"line\n\n", "line\n"},
        {"line\r\n", "line\r"}, {"line\r", "line\r"}, {"a\nb", "a\nb"},     {"\nline", "\nline"},
        {"line\n ", "line\n "}, {"line\v", "line\v"}, {"line\t", "line\t"},
    };
    for (const auto &sample : cases) {
        std::string text = sample.before;
        cmn_chomp(text.data());
        EXPECT_STREQ(text.c_str(), sample.after);
    }
}

TEST_F(CmnIo, chomp_leaves_null_alone)
{
    cmn_chomp(nullptr);
    char text[] = "text\n";
    cmn_chomp(text);
    EXPECT_STREQ(text, "text");
}

TEST_F(CmnIo, chomp_replaces_the_line_feed_and_nothing_else)
{
    char bytes[] = {'a', '\n', '\0', '\n', 'z'};
    cmn_chomp(bytes);
    EXPECT_EQ(std::string(bytes, sizeof bytes), std::string("a\0\0\nz", 5));
}

TEST_F(CmnIo, chomp_looks_at_the_byte_before_an_empty_string)
{
    char feed[] = {'\n', '\0'};
    cmn_chomp(feed + 1);
    EXPECT_EQ(feed[0], '\0');

    char letter[] = {'x', '\0'};
    cmn_chomp(letter + 1);
    EXPECT_EQ(letter[0], 'x');
}

// ---- Writes -------------------------------------------------------------------------------------

constexpr int NOWHERE = -1;

TEST_F(CmnIo, write_sends_all_bytes_at_once_if_it_can)
{
    const Pipe pipe;
    wraps::trace(wraps::WRITE);
    EXPECT_EQ(cmn_writen(pipe.writer(), "12345678", 8), 8);
    EXPECT_EQ(take_trace(), Lines{"write(8)"});
    EXPECT_EQ(pipe.contents(), "12345678");
}

TEST_F(CmnIo, write_of_no_bytes_makes_no_call)
{
    EXPECT_EQ(cmn_writen(NOWHERE, nullptr, 0), 0);
    EXPECT_EQ(wraps::calls(wraps::WRITE), 0);
}

TEST_F(CmnIo, write_goes_on_with_the_rest_after_a_part)
{
    const Pipe pipe;
    wraps::trace(wraps::WRITE);
    wraps::limit_transfer(wraps::WRITE, 1, 3);
    EXPECT_EQ(cmn_writen(pipe.writer(), "12345678", 8), 8);
    EXPECT_EQ(take_trace(), (Lines{"write(8)", "write(5)"}));
    EXPECT_EQ(pipe.contents(), "12345678");
}

TEST_F(CmnIo, write_that_a_signal_interrupts_goes_on_where_it_stopped)
{
    const Pipe pipe;
    wraps::trace(wraps::WRITE);
    wraps::limit_transfer(wraps::WRITE, 1, 3);
    wraps::fail(wraps::WRITE, 2, EINTR, 2);
    EXPECT_EQ(cmn_writen(pipe.writer(), "12345678", 8), 8);
    EXPECT_EQ(take_trace(), (Lines{"write(8)", "write(5)", "write(5)", "write(5)"}));
    EXPECT_EQ(wraps::calls(wraps::WRITE), 4);
    EXPECT_EQ(pipe.contents(), "12345678");
}

TEST_F(CmnIo, write_that_is_interrupted_before_its_first_byte_begins_again)
{
    const Pipe pipe;
    wraps::fail(wraps::WRITE, 1, EINTR);
    EXPECT_EQ(cmn_writen(pipe.writer(), "1234", 4), 4);
    EXPECT_EQ(wraps::calls(wraps::WRITE), 2);
    EXPECT_EQ(pipe.contents(), "1234");
}

TEST_F(CmnIo, write_fails_at_any_other_error_without_another_try)
{
    const Pipe pipe;
    for (const int error : {EIO, EAGAIN, EPIPE, EBADF, ENOSPC}) {
        const int before = wraps::calls(wraps::WRITE);
        wraps::fail(wraps::WRITE, 1, error);
        EXPECT_EQ(cmn_writen(pipe.writer(), "1234", 4), -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(wraps::calls(wraps::WRITE), before + 1);
    }
    EXPECT_EQ(pipe.contents(), "");
}

TEST_F(CmnIo, write_fails_as_a_whole_when_it_fails_after_a_part)
{
    const Pipe pipe;
    wraps::limit_transfer(wraps::WRITE, 1, 3);
    wraps::fail(wraps::WRITE, 2, EIO);
    EXPECT_EQ(cmn_writen(pipe.writer(), "12345678", 8), -1);
    EXPECT_EQ(pipe.contents(), "123");
}

TEST_F(CmnIo, write_that_the_system_takes_no_byte_of_fails)
{
    const Pipe pipe;
    errno = EINTR; // of some call before; no error is told with a result of 0
    wraps::limit_transfer(wraps::WRITE, 1, 0);
    EXPECT_EQ(cmn_writen(pipe.writer(), "1234", 4), -1);
    EXPECT_EQ(wraps::calls(wraps::WRITE), 1);
    EXPECT_EQ(pipe.contents(), "");
}

TEST_F(CmnIo, write_into_a_full_pipe_that_does_not_block_fails)
{
    const Pipe pipe;
    const auto room = static_cast<std::size_t>(fcntl(pipe.writer(), F_GETPIPE_SZ));
    const std::string text(room + 1, 'x');
    EXPECT_EQ(cmn_writen(pipe.writer(), text.data(), static_cast<std::uint32_t>(text.size())), -1);
    EXPECT_EQ(pipe.bytes(), room);
}

// ---- Reads --------------------------------------------------------------------------------------

// What a read of so many bytes returns and leaves in a buffer that was full of dots.
struct Reading {
    std::int32_t result;
    std::string bytes;
};

Reading read_whole(int fd, std::uint32_t count)
{
    std::string buffer(8, '.');
    const std::int32_t result = cmn_readn(fd, buffer.data(), count);
    return {result, buffer};
}

TEST_F(CmnIo, read_takes_the_bytes_it_was_asked_for_and_no_more)
{
    const Pipe pipe;
    pipe.fill("12345678");
    wraps::trace(wraps::READ);
    const Reading reading = read_whole(pipe.reader(), 4);
    EXPECT_EQ(take_trace(), Lines{"read(4)"});
    EXPECT_EQ(reading.result, 4);
    EXPECT_EQ(reading.bytes, "1234....");
    EXPECT_EQ(pipe.contents(), "5678");
}

TEST_F(CmnIo, read_of_no_bytes_makes_no_call)
{
    EXPECT_EQ(cmn_readn(NOWHERE, nullptr, 0), 0);
    EXPECT_EQ(wraps::calls(wraps::READ), 0);
}

TEST_F(CmnIo, read_goes_on_with_the_rest_after_a_part)
{
    const Pipe pipe;
    pipe.fill("12345678");
    wraps::trace(wraps::READ);
    wraps::limit_transfer(wraps::READ, 1, 3);
    const Reading reading = read_whole(pipe.reader(), 7);
    EXPECT_EQ(take_trace(), (Lines{"read(7)", "read(4)"}));
    EXPECT_EQ(reading.result, 7);
    EXPECT_EQ(reading.bytes, "1234567.");
}

TEST_F(CmnIo, read_that_a_signal_interrupts_goes_on_where_it_stopped)
{
    const Pipe pipe;
    pipe.fill("12345678");
    wraps::trace(wraps::READ);
    wraps::limit_transfer(wraps::READ, 1, 3);
    wraps::fail(wraps::READ, 2, EINTR, 2);
    const Reading reading = read_whole(pipe.reader(), 8);
    EXPECT_EQ(take_trace(), (Lines{"read(8)", "read(5)", "read(5)", "read(5)"}));
    EXPECT_EQ(wraps::calls(wraps::READ), 4);
    EXPECT_EQ(reading.result, 8);
    EXPECT_EQ(reading.bytes, "12345678");
}

TEST_F(CmnIo, read_gives_a_short_count_at_end_of_file)
{
    Pipe pipe;
    pipe.fill("123");
    pipe.close_writer();
    wraps::trace(wraps::READ);
    Reading reading = read_whole(pipe.reader(), 8);
    EXPECT_EQ(take_trace(), (Lines{"read(8)", "read(5)"}));
    EXPECT_EQ(reading.result, 3);
    EXPECT_EQ(reading.bytes, "123.....");

    errno = EINTR; // of some call before
    reading = read_whole(pipe.reader(), 8);
    EXPECT_EQ(take_trace(), Lines{"read(8)"});
    EXPECT_EQ(reading.result, 0);
    EXPECT_EQ(reading.bytes, "........");
}

TEST_F(CmnIo, read_fails_at_any_other_error_without_another_try)
{
    const Pipe pipe;
    pipe.fill("1234");
    for (const int error : {EIO, EAGAIN, EBADF, EISDIR}) {
        const int before = wraps::calls(wraps::READ);
        wraps::fail(wraps::READ, 1, error);
        EXPECT_EQ(read_whole(pipe.reader(), 4).result, -1);
        EXPECT_EQ(errno, error);
        EXPECT_EQ(wraps::calls(wraps::READ), before + 1);
    }
    EXPECT_EQ(pipe.contents(), "1234");
}

TEST_F(CmnIo, read_fails_as_a_whole_when_it_fails_after_a_part)
{
    const Pipe pipe;
    pipe.fill("123");
    const Reading reading = read_whole(pipe.reader(), 8);
    EXPECT_EQ(reading.result, -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(reading.bytes, "123.....");
    EXPECT_EQ(pipe.contents(), "");
}

// ---- Waiting ------------------------------------------------------------------------------------

constexpr char SELECT[] = "cmn_select";

TEST_F(CmnIo, wait_ends_well_when_there_is_something_to_read)
{
    const Pipe pipe;
    pipe.fill("1");
    wraps::trace(wraps::SELECT);
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(cmn_select(pipe.reader(), 7), 0); }), "");
    EXPECT_EQ(take_trace(),
              Lines{"select(" + std::to_string(pipe.reader() + 1) + ", NULL, NULL, 7.000000)"});
    EXPECT_EQ(pipe.contents(), "1");
}

TEST_F(CmnIo, wait_takes_the_end_of_file_for_readable)
{
    Pipe pipe;
    pipe.close_writer();
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(cmn_select(pipe.reader(), 7), 0); }), "");
}

TEST_F(CmnIo, wait_reports_its_time_out_without_an_error_text)
{
    const Pipe pipe;
    errno = ENOENT;
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(cmn_select(pipe.reader(), 0), -14); }),
              report("", "failed by timeout", SELECT));
}

TEST_F(CmnIo, wait_looks_at_no_other_descriptor)
{
    const Pipe before;
    const Pipe own;
    const Pipe behind;
    before.fill("1");
    behind.fill("1");
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(cmn_select(own.reader(), 0), -14); }),
              report("", "failed by timeout", SELECT));
}

TEST_F(CmnIo, wait_does_not_care_whether_the_descriptor_can_be_written)
{
    const Pipe pipe;
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(cmn_select(pipe.writer(), 0), -14); }),
              report("", "failed by timeout", SELECT));
}

TEST_F(CmnIo, wait_reports_a_failure_with_its_error_text)
{
    EXPECT_EQ(errors_of([] {
                  const int closed = dup(STDIN_FILENO);
                  close(closed);
                  EXPECT_EQ(cmn_select(closed, 0), -14);
              }),
              report("", "failed select()(Bad file descriptor)", SELECT));
}

TEST_F(CmnIo, wait_is_not_taken_up_again_after_a_signal)
{
    const Pipe pipe;
    pipe.fill("1");
    wraps::fail(wraps::SELECT, 1, EINTR);
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(cmn_select(pipe.reader(), 7), -14); }),
              report("", "failed select()(Interrupted system call)", SELECT));
    EXPECT_EQ(wraps::calls(wraps::SELECT), 1);
}

TEST_F(CmnIo, wait_of_more_seconds_than_the_clock_of_the_target_counts_is_refused)
{
    const Pipe pipe;
    pipe.fill("1");
    EXPECT_EQ(errors_of([&] { EXPECT_EQ(cmn_select(pipe.reader(), 2147483647U), 0); }), "");
    for (const std::uint32_t seconds : {2147483648U, 4294967295U}) {
        EXPECT_EQ(errors_of([&] { EXPECT_EQ(cmn_select(pipe.reader(), seconds), -14); }),
                  report("", "failed select()(Invalid argument)", SELECT));
    }
}

// ---- The executable's directory -----------------------------------------------------------------

TEST_F(CmnIo, directory_is_that_of_the_running_program)
{
    const std::string expected =
        std::filesystem::read_symlink("/proc/self/exe").parent_path().string();
    for (int round = 0; round < 2; round++)
        EXPECT_STREQ(cmn_get_exe_dir(), expected.c_str());
}

TEST_F(CmnIo, directory_does_not_depend_on_where_the_program_stands)
{
    const int home = open(".", O_PATH); // its name may lead nowhere, below /tmp
    const std::string before = cmn_get_exe_dir();
    EXPECT_EQ(chdir("/tmp"), 0);
    EXPECT_STREQ(cmn_get_exe_dir(), before.c_str());
    EXPECT_EQ(fchdir(home), 0);
    close(home);
}

TEST_F(CmnIo, directory_holds_nothing_of_a_longer_one_before)
{
    wraps::set_link("/flash/application/osd/bin/qm5osd");
    EXPECT_STREQ(cmn_get_exe_dir(), "/flash/application/osd/bin");
    wraps::set_link("/osd/qm5osd");
    EXPECT_STREQ(cmn_get_exe_dir(), "/osd");
}

TEST_F(CmnIo, directory_is_asked_for_with_room_for_a_terminator)
{
    wraps::trace(wraps::READLINK);
    EXPECT_NE(cmn_get_exe_dir(), nullptr);
    EXPECT_EQ(take_trace(), Lines{"readlink(/proc/self/exe, 4096)"});
}

TEST_F(CmnIo, directory_that_cannot_be_found_is_reported)
{
    wraps::fail(wraps::READLINK, 1, ENOENT);
    EXPECT_EQ(errors_of([] { EXPECT_EQ(cmn_get_exe_dir(), nullptr); }),
              report("", "failed to get exe path(No such file or directory)", "cmn_get_exe_dir"));
}

} // namespace
