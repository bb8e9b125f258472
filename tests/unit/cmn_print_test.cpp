// Error reports, the log file, and the prints of the clock.
#include "cli/dispatch.h"
#include "common/cmn.h"
#include "server/channel.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"
#include "support/trace.h"
#include "support/wraps.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <limits>
#include <stdio_ext.h>
#include <string>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace
{

using support::capture;
using support::errors_of;
using support::Lines;
using support::Output;
using support::output_of;
using support::read_file;
using support::remove_file;
using support::report;
using support::take_trace;
using support::write_file;

constexpr char LOG[] = "/tmp/log";
constexpr char FULL[] = "/dev/full"; // every write fails with ENOSPC
constexpr std::size_t LONGEST = 2048;

// Read before any fixture can set it.
const std::string first_role = cmn_role;

[[gnu::format(printf, 2, 3)]] int print(std::int32_t mode, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = cmn_print_v(mode, format, arguments);
    va_end(arguments);
    return result;
}

off_t size_of(int fd)
{
    struct stat status = {};
    EXPECT_EQ(fstat(fd, &status), 0);
    return status.st_size;
}

// Lets descriptor `fd` lead to the file. For use within a capture, which restores it.
void lead_to(int fd, const char *path)
{
    const int file = open(path, O_WRONLY);
    EXPECT_GE(file, 0) << path;
    dup2(file, fd);
    close(file);
}

class CmnPrint : public support::OsdTest
{
};

// ---- Messages -----------------------------------------------------------------------------------

TEST_F(CmnPrint, mode_says_where_the_message_goes)
{
    const struct {
        std::int32_t mode;
        const char *out;
        const char *err;
    } cases[] = {
        {0, "7 apples", ""},
        {1, "", "7 apples"},
        {2, "", "7 apples(No such file or directory)"},
        {3, "7 apples", ""},
        {-1, "7 apples", ""},
        {258, "7 apples", ""},
        {std::numeric_limits<std::int32_t>::max(), "7 apples", ""},
        {std::numeric_limits<std::int32_t>::min(), "7 apples", ""},
    };
    for (const auto &sample : cases) {
        const Output output = capture([&] {
            errno = ENOENT;
            print(sample.mode, "%d %s", 7, "apples");
        });
        EXPECT_EQ(output.out, sample.out) << "mode " << sample.mode;
        EXPECT_EQ(output.err, sample.err) << "mode " << sample.mode;
    }
}

TEST_F(CmnPrint, each_form_prints_in_its_mode)
{
    EXPECT_EQ(output_of([] { cmn_print_out("%s=0x%04X", "out", 10U); }), "out=0x000A");
    EXPECT_EQ(errors_of([] { cmn_print_err("%s=0x%04X", "err", 11U); }), "err=0x000B");
    EXPECT_EQ(errors_of([] {
                  errno = EACCES;
                  cmn_print_errno("%s=0x%04X", "errno", 12U);
              }),
              "errno=0x000C(Permission denied)");
}

TEST_F(CmnPrint, message_is_printed_as_it_is_without_a_line_feed)
{
    EXPECT_EQ(errors_of([] { cmn_print_err("%s", "100%s %n\n\t"); }), "100%s %n\n\t");
    const Output output = capture([] {
        cmn_print_err("%s", "");
        cmn_print_out("%s", "");
    });
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(output.err, "");
}

TEST_F(CmnPrint, error_text_stands_directly_behind_the_message)
{
    const struct {
        int error;
        const char *text;
    } cases[] = {
        {0, "failed(Success)"},
        {EPERM, "failed(Operation not permitted)"},
        {ENOMEM, "failed(Cannot allocate memory)"},
        {99999, "failed(Unknown error 99999)"},
    };
    for (const auto &sample : cases) {
        EXPECT_EQ(errors_of([&] {
                      errno = sample.error;
                      cmn_print_errno("failed");
                  }),
                  sample.text);
    }
}

TEST_F(CmnPrint, message_is_cut_at_2048_characters)
{
    for (const std::size_t length : {LONGEST - 1, LONGEST, LONGEST + 1, 2 * LONGEST + 7}) {
        const std::string text = std::string(length - 1, 'x') + "!";
        const std::string printed = text.substr(0, LONGEST);
        EXPECT_EQ(output_of([&] { cmn_print_out("%s", text.c_str()); }), printed);
        EXPECT_EQ(errors_of([&] { cmn_print_err("%s", text.c_str()); }), printed);
    }
}

TEST_F(CmnPrint, error_text_is_cut_at_the_end_of_the_same_message)
{
    const std::string error = "(No such file or directory)";
    const std::size_t fitting = LONGEST - error.size();
    for (const std::size_t length :
         {fitting, fitting + 1, LONGEST - 3, LONGEST - 1, LONGEST, LONGEST + 1, 2 * LONGEST + 7}) {
        const std::string text(length, 'x');
        const std::string printed = (text.substr(0, LONGEST) + error).substr(0, LONGEST);
        EXPECT_EQ(errors_of([&] {
                      errno = ENOENT;
                      cmn_print_errno("%s", text.c_str());
                  }),
                  printed)
            << length;
    }
}

TEST_F(CmnPrint, error_text_survives_a_format_that_sets_errno)
{
    const wchar_t no_character[] = {static_cast<wchar_t>(0x7FFFFFFF), L'\0'};
    EXPECT_EQ(errors_of([&] {
                  errno = ENOENT;
                  cmn_print_errno("%ls", no_character);
              }),
              "(No such file or directory)");
}

// ---- Flushing -----------------------------------------------------------------------------------

TEST_F(CmnPrint, text_printed_before_comes_before_the_message_in_a_common_file)
{
    EXPECT_EQ(errors_of([] {
                  dup2(STDERR_FILENO, STDOUT_FILENO);
                  printf("1 ");
                  cmn_print_err("2 ");
                  printf("3 ");
                  cmn_print_out("4 ");
                  printf("5 ");
                  errno = ENOENT;
                  cmn_print_errno("6 ");
                  printf("7");
              }),
              "1 2 3 4 5 6 (No such file or directory)7");
}

TEST_F(CmnPrint, every_other_stream_is_flushed_before_the_message)
{
    for (const std::int32_t mode : {0, 1, 2}) {
        const std::string printed = mode == 2 ? "message(Success)" : "message";
        const Output output = capture([&] {
            const int fd = mode == 0 ? STDOUT_FILENO : STDERR_FILENO;
            FILE *other = fdopen(dup(fd), "w");
            fputs("text before the ", other);
            errno = 0;
            print(mode, "message");
            fclose(other);
        });
        EXPECT_EQ(output.out, mode == 0 ? "text before the message" : "");
        EXPECT_EQ(output.err, mode == 0 ? "" : "text before the " + printed);
    }
}

TEST_F(CmnPrint, no_message_stays_in_a_buffer_but_plain_text_does)
{
    EXPECT_EQ(output_of([] {
                  printf("plain ");
                  EXPECT_EQ(size_of(STDOUT_FILENO), 0);
                  cmn_print_out("message");
                  EXPECT_EQ(size_of(STDOUT_FILENO), 13);
                  printf(" plain");
                  EXPECT_EQ(size_of(STDOUT_FILENO), 13);
              }),
              "plain message plain");
}

// Runs `action` with a stream of its own buffer, to the file, in the place of stderr.
void with_buffered_stderr(const char *path, void (*action)())
{
    FILE *const own = stderr;
    stderr = fopen(path, "w");
    ASSERT_NE(stderr, nullptr);
    action();
    fclose(std::exchange(stderr, own));
}

TEST_F(CmnPrint, no_message_stays_in_a_stderr_that_has_a_buffer)
{
    with_buffered_stderr(LOG, [] {
        cmn_print_err("message, ");
        EXPECT_EQ(read_file(LOG), "message, ");
        errno = 0;
        cmn_print_errno("last");
        EXPECT_EQ(read_file(LOG), "message, last(Success)");
    });
    remove_file(LOG);
}

TEST_F(CmnPrint, every_form_returns_the_result_of_its_last_flush)
{
    EXPECT_EQ(output_of([] {
                  EXPECT_EQ(cmn_print_out("message"), 0);
                  lead_to(STDOUT_FILENO, FULL);
                  EXPECT_EQ(cmn_print_out("lost"), EOF);
                  __fpurge(stdout);
                  clearerr(stdout);
              }),
              "message");
    with_buffered_stderr(FULL, [] {
        EXPECT_EQ(cmn_print_err("lost"), EOF);
        __fpurge(stderr);
        EXPECT_EQ(cmn_print_errno("lost"), EOF);
        __fpurge(stderr);
    });
    EXPECT_EQ(errors_of([] {
                  EXPECT_EQ(cmn_print_err("message"), 0);
                  errno = 0;
                  EXPECT_EQ(cmn_print_errno("message"), 0);
              }),
              "messagemessage(Success)");
}

TEST_F(CmnPrint, message_that_stderr_cannot_take_is_no_failure)
{
    EXPECT_EQ(errors_of([] {
                  lead_to(STDERR_FILENO, FULL);
                  EXPECT_EQ(cmn_print_err("lost"), 0);
                  EXPECT_EQ(cmn_print_errno("lost"), 0);
                  clearerr(stderr);
              }),
              "");
}

TEST_F(CmnPrint, error_text_survives_a_flush_that_fails)
{
    EXPECT_EQ(errors_of([] {
                  lead_to(STDOUT_FILENO, FULL);
                  printf("lost");
                  errno = ENOENT;
                  cmn_print_errno("message");
                  __fpurge(stdout);
                  clearerr(stdout);
              }),
              "message(No such file or directory)");
}

// ---- Reports ------------------------------------------------------------------------------------

TEST_F(CmnPrint, role_is_empty_from_the_start)
{
    EXPECT_EQ(first_role, "");
}

TEST_F(CmnPrint, report_is_one_line_with_role_message_and_reporter)
{
    cmn_role = "update";
    errno = ENOENT;
    EXPECT_EQ(errors_of([] { CMN_REPORT("some_function", "bad key '%s' of %d", "K", 3); }),
              "ERR:#qm5osd:[update]=bad key 'K' of 3(some_function)\n");
}

TEST_F(CmnPrint, report_of_a_system_call_has_the_error_text_behind_its_message)
{
    cmn_role = "save";
    EXPECT_EQ(errors_of([] {
                  errno = EACCES;
                  CMN_REPORT_ERRNO("some_function", "unable to open %s", "/tmp/x");
              }),
              "ERR:#qm5osd:[save]=unable to open /tmp/x(Permission denied)(some_function)\n");
}

TEST_F(CmnPrint, report_without_a_role_has_empty_brackets)
{
    EXPECT_EQ(errors_of([] { CMN_REPORT("some_function", "failed"); }),
              "ERR:#qm5osd:[]=failed(some_function)\n");

    support::CommandLine line{"qm5osd", "begin"};
    osd_options options = {};
    EXPECT_EQ(errors_of([&] { osd_get_option(line.argc(), line.argv(), &options); }),
              "ERR:#qm5osd:[]=unknown command(osd_get_option)\n");
}

TEST_F(CmnPrint, reports_of_one_failure_make_a_chain_in_their_order)
{
    cmn_role = "stop";
    EXPECT_EQ(errors_of([] {
                  CMN_REPORT("inner", "failed");
                  CMN_REPORT("outer", "inner failed");
              }),
              report("stop", "failed", "inner") + report("stop", "inner failed", "outer"));
}

TEST_F(CmnPrint, report_is_one_statement)
{
    const bool good = true;
    EXPECT_EQ(errors_of([&] {
                  if (!good)
                      CMN_REPORT("some_function", "bad");
                  else
                      CMN_REPORT("some_function", "good");
              }),
              report("", "good", "some_function"));
}

// What reaches stderr with each write, while `action` runs.
Lines pieces_of(void (*action)())
{
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0);
    EXPECT_EQ(errors_of([&] {
                  dup2(ends[0], STDERR_FILENO);
                  action();
              }),
              "");
    close(ends[0]);

    Lines pieces;
    std::array<char, 256> piece{};
    ssize_t length = 0;
    while ((length = read(ends[1], piece.data(), piece.size())) > 0)
        pieces.emplace_back(piece.data(), static_cast<std::size_t>(length));
    close(ends[1]);
    return pieces;
}

TEST_F(CmnPrint, report_is_written_in_three_pieces)
{
    cmn_role = "start";
    EXPECT_EQ(pieces_of([] { CMN_REPORT("some_function", "failed at %d", 5); }),
              (Lines{"ERR:#qm5osd:[start]=", "failed at 5", "(some_function)\n"}));
    EXPECT_EQ(pieces_of([] {
                  errno = ENOENT;
                  CMN_REPORT_ERRNO("some_function", "failed at %d", 5);
              }),
              (Lines{"ERR:#qm5osd:[start]=", "failed at 5(No such file or directory)",
                     "(some_function)\n"}));
}

// Lets stderr lead where stdout does, and leaves errno as it is.
int mend_stderr()
{
    const int error = errno;
    dup2(STDOUT_FILENO, STDERR_FILENO);
    errno = error;
    return 1;
}

TEST_F(CmnPrint, first_piece_that_cannot_be_written_changes_the_error_text)
{
    EXPECT_EQ(output_of([] {
                  lead_to(STDERR_FILENO, FULL);
                  errno = ENOENT;
                  CMN_REPORT_ERRNO("some_function", "failed %d", mend_stderr());
                  clearerr(stderr);
              }),
              "failed 1(No space left on device)(some_function)\n");
}

TEST_F(CmnPrint, forked_child_has_a_role_of_its_own)
{
    cmn_role = "start";
    EXPECT_EQ(errors_of([] {
                  const pid_t child = fork();
                  if (child == 0) {
                      cmn_role = "server";
                      CMN_REPORT("some_function", "failed");
                      _exit(0);
                  }
                  EXPECT_EQ(waitpid(child, nullptr, 0), child);
                  CMN_REPORT("some_function", "failed");
              }),
              report("server", "failed", "some_function") +
                  report("start", "failed", "some_function"));
}

// ---- The log file -------------------------------------------------------------------------------

TEST_F(CmnPrint, log_takes_both_streams_in_their_order)
{
    // Nothing is left over for the streams that were there before.
    EXPECT_EQ(output_of([] {
                  EXPECT_EQ(cmn_start_log(LOG), 0);
                  printf("plain, ");
                  cmn_print_err("error, ");
                  printf("more, ");
                  cmn_print_out("last");
              }),
              "");
    EXPECT_EQ(read_file(LOG), "plain, error, more, last");
    remove_file(LOG);
}

TEST_F(CmnPrint, log_is_truncated_when_it_is_opened)
{
    write_file(LOG, "a much longer text from an earlier run");
    EXPECT_EQ(output_of([] {
                  EXPECT_EQ(cmn_start_log(LOG), 0);
                  EXPECT_EQ(read_file(LOG), "");
                  cmn_print_err("new");
              }),
              "");
    EXPECT_EQ(read_file(LOG), "new");
    remove_file(LOG);
}

TEST_F(CmnPrint, log_is_opened_once_and_leaves_no_descriptor_but_the_standard_ones)
{
    wraps::trace(wraps::FOPEN);
    EXPECT_EQ(output_of([] {
                  const int before = dup(STDIN_FILENO);
                  close(before);
                  EXPECT_EQ(cmn_start_log(LOG), 0);
                  const int after = dup(STDIN_FILENO);
                  close(after);
                  EXPECT_EQ(after, before);
              }),
              "");
    EXPECT_EQ(take_trace(), Lines{"fopen(/tmp/log, w)"});
    remove_file(LOG);
}

TEST_F(CmnPrint, log_gets_what_was_still_waiting_in_stdout)
{
    EXPECT_EQ(output_of([] {
                  printf("plain, ");
                  EXPECT_EQ(cmn_start_log(LOG), 0);
                  cmn_print_err("error");
              }),
              "");
    EXPECT_EQ(read_file(LOG), "plain, error");
    remove_file(LOG);
}

TEST_F(CmnPrint, log_is_inherited_by_a_child)
{
    EXPECT_EQ(output_of([] {
                  EXPECT_EQ(cmn_start_log(LOG), 0);
                  const pid_t child = fork();
                  if (child == 0) {
                      cmn_print_out("child, ");
                      cmn_print_err("its error, ");
                      _exit(0);
                  }
                  EXPECT_EQ(waitpid(child, nullptr, 0), child);
                  cmn_print_err("parent");
              }),
              "");
    EXPECT_EQ(read_file(LOG), "child, its error, parent");
    remove_file(LOG);
}

TEST_F(CmnPrint, log_that_cannot_be_opened_is_reported_and_leaves_the_streams)
{
    const struct {
        int error; // to be made up; 0: the path is bad enough
        const char *path;
        const char *message;
    } cases[] = {
        {0, "/tmp/none/log", "unable to open logfile /tmp/none/log(No such file or directory)"},
        {0, "/tmp", "unable to open logfile /tmp(Is a directory)"},
        {0, "", "unable to open logfile (No such file or directory)"},
        {EACCES, LOG, "unable to open logfile /tmp/log(Permission denied)"},
        {EMFILE, LOG, "unable to open logfile /tmp/log(Too many open files)"},
    };
    cmn_role = "start";
    for (const auto &sample : cases) {
        if (sample.error != 0)
            wraps::fail(wraps::FOPEN, 1, sample.error);
        const Output output = capture([&] {
            EXPECT_EQ(cmn_start_log(sample.path), -13);
            cmn_print_out("out");
            cmn_print_err("err");
        });
        EXPECT_EQ(output.out, "out");
        EXPECT_EQ(output.err, report("start", sample.message, "cmn_start_log") + "err");
    }
}

// ---- The log file of the command line -----------------------------------------------------------

// A time zone block, so that the tool doesn't say on stdout that there is none.
class CmnPrintTool : public CmnPrint
{
protected:
    void SetUp() override
    {
        CmnPrint::SetUp();
        block_ = shmget(CMN_TZ_KEY, sizeof(cmn_tz_block), IPC_CREAT | CMN_TZ_MODE);
        ASSERT_GE(block_, 0);
    }
    void TearDown() override
    {
        shmctl(block_, IPC_RMID, nullptr);
        CmnPrint::TearDown();
    }

    static int run(std::initializer_list<std::string> words)
    {
        support::CommandLine line(words);
        osd_options options = {};
        const int status = osd_run(line.argc(), line.argv(), &options);
        if (options.section)
            param_section_free(options.section);
        return status;
    }

private:
    int block_ = -1;
};

TEST_F(CmnPrintTool, log_in_a_folder_that_is_not_there_ends_the_start_with_two_reports)
{
    EXPECT_EQ(errors_of([] {
                  EXPECT_EQ(run({"qm5osd", "start", "-l", "/tmp/none/log"}), 1);
              }),
              report("start", "unable to open logfile /tmp/none/log(No such file or directory)",
                     "cmn_start_log") +
                  report("start", "failed to redirect log to /tmp/none/log", "main"));
    EXPECT_EQ(wraps::calls(wraps::FORK), 0);
    EXPECT_EQ(codec::calls(codec::LIBRARY_INIT), 0);
    EXPECT_EQ(support::temporary_files(), Lines{});
}

TEST_F(CmnPrintTool, log_of_a_running_server_is_truncated_by_a_start_that_is_refused)
{
    write_file(LOG, "what the running server has logged");
    ASSERT_EQ(mkfifo(OSD_FIFO_REQ, OSD_FIFO_MODE), 0);
    const int server = open(OSD_FIFO_REQ, O_RDONLY | O_NONBLOCK);
    ASSERT_GE(server, 0);

    EXPECT_EQ(output_of([] { EXPECT_EQ(run({"qm5osd", "start", "-l", LOG}), 1); }), "");
    EXPECT_EQ(read_file(LOG), report("start", "server is already running", "osd_start"));

    close(server);
    remove_file(OSD_FIFO_REQ);
    remove_file(LOG);
}

// ---- The clock ----------------------------------------------------------------------------------

constexpr time_t NEW_YEAR = 1262304000; // 2010-01-01 00:00:00 UTC, a Friday

TEST_F(CmnPrint, timestamp_is_the_local_time_with_whole_milliseconds)
{
    const struct {
        time_t seconds;
        suseconds_t microseconds;
        const char *text;
    } cases[] = {
        {NEW_YEAR, 0, "00:00:00.000 |"},
        {NEW_YEAR + 3600 + 2 * 60 + 3, 4999, "01:02:03.004 |"},
        {NEW_YEAR + 86399, 999999, "23:59:59.999 |"},
        {NEW_YEAR + 45296, 789500, "12:34:56.789 |"},
    };
    setenv("TZ", "UTC0", 1);
    for (const auto &sample : cases) {
        wraps::set_clock(sample.seconds, sample.microseconds);
        EXPECT_EQ(output_of(cmn_print_timestamp), sample.text);
    }
    setenv("TZ", "EAST-3:30", 1);
    EXPECT_EQ(output_of(cmn_print_timestamp), "16:04:56.789 |");
}

TEST_F(CmnPrint, timestamp_is_plain_text_that_waits_in_stdout)
{
    wraps::set_clock(NEW_YEAR, 0);
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(output_of([] {
                  cmn_print_timestamp();
                  EXPECT_EQ(size_of(STDOUT_FILENO), 0);
              }),
              "00:00:00.000 |");
}

TEST_F(CmnPrint, ctime_is_the_local_date_and_time_on_a_line)
{
    wraps::set_clock(NEW_YEAR + 45296, 789500);
    setenv("TZ", "UTC0", 1);
    EXPECT_EQ(output_of(cmn_print_current_ctime), "Fri Jan  1 12:34:56 2010\n");
    setenv("TZ", "WEST13", 1);
    EXPECT_EQ(output_of(cmn_print_current_ctime), "Thu Dec 31 23:34:56 2009\n");
}

TEST_F(CmnPrint, clock_that_cannot_be_read_is_reported_instead)
{
    const struct {
        void (*print)();
        wraps::Function failing;
        int error;
        const char *message;
        const char *reporter;
    } cases[] = {
        {cmn_print_timestamp, wraps::GETTIMEOFDAY, EFAULT, "gettimeofday failed(Bad address)",
         "cmn_print_timestamp"},
        {cmn_print_timestamp, wraps::LOCALTIME, EOVERFLOW,
         "localtime failed(Value too large for defined data type)", "cmn_print_timestamp"},
        {cmn_print_current_ctime, wraps::GETTIMEOFDAY, EPERM,
         "gettimeofday failed(Operation not permitted)", "cmn_print_current_ctime"},
        {cmn_print_current_ctime, wraps::CTIME, EOVERFLOW,
         "ctime failed(Value too large for defined data type)", "cmn_print_current_ctime"},
    };
    for (const auto &sample : cases) {
        wraps::fail(sample.failing, 1, sample.error);
        EXPECT_EQ(errors_of(sample.print), report("", sample.message, sample.reporter));
    }
    EXPECT_EQ(wraps::calls(wraps::GETTIMEOFDAY), 4);
    EXPECT_EQ(wraps::calls(wraps::LOCALTIME), 1);
    EXPECT_EQ(wraps::calls(wraps::CTIME), 1);
}

} // namespace
