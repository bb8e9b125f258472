// Start-up and shut-down: the tool up to the fork, the parent's wait, the child's life, restart.
#include "server/start.h"

#include "cli/client.h"
#include "server/channel.h"
#include "server/notify.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"
#include "support/wraps.h"
#include "unit/channel_peers.h"
#include "unit/client_options.h"
#include "unit/parameter_text.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

// What /proc/self/exe leads to; NULL for the truth. The wrapped readlink ends here, too.
static const char *exe_path;

ssize_t readlink(const char *path, char *buffer, size_t size) noexcept
{
    if (!exe_path || strcmp(path, "/proc/self/exe") != 0)
        return syscall(SYS_readlinkat, AT_FDCWD, path, buffer, size);
    const size_t length = std::min(strlen(exe_path), size);
    memcpy(buffer, exe_path, length);
    return static_cast<ssize_t>(length);
}

namespace
{

namespace fs = std::filesystem;
using channel_peer::bytes_of;
using channel_peer::FakeServer;
using channel_peer::operator+;
using channel_peer::ReplyFifo;
using client::Options;
using parameters::full_text;
using support::Lines;
using support::read_file;
using support::report;
using support::temporary_files;
using support::write_file;

constexpr const char *NOT_RUNNING = "#qm5osd:OSD server is not running\n";
constexpr const char *COMMON_FILE = "/tmp/stage/conf/qm5_app_comm.conf";
constexpr const char *FILE_OF_F = "/tmp/parameters";
constexpr pid_t NO_PROCESS = 0x7FFFFFFF; // the child of a fork that isn't one

// The common parameter file of the tests, and the temporary parameter file that it makes.
constexpr const char *COMMON_TEXT =
    "[osd]\nOsdFontFile=/font\nPost1TimeOn=1\nPost2Rectangle3On=1\n";

std::string first_text()
{
    return full_text({{"OsdFontFile", "/font"}, {"Post1TimeOn", "1"}, {"Post2Rectangle3On", "1"}});
}

// ---- Calls --------------------------------------------------------------------------------------

// Result, output and calls of a function.
struct Outcome {
    int result = 0;
    support::Output output;
    Lines calls; // of the codec library, and of what touches files, FIFOs, processes and time
};

Outcome watch(const std::function<int()> &function)
{
    for (const auto call : {wraps::OPEN, wraps::MKFIFO, wraps::UNLINK, wraps::RENAME, wraps::FOPEN,
                            wraps::FORK, wraps::NANOSLEEP, wraps::READLINK})
        wraps::trace(call);
    Outcome outcome;
    outcome.output = support::capture([&] {
        support::take_trace();
        outcome.result = function();
        outcome.calls = support::take_trace();
    });
    return outcome;
}

Lines repeat(int times, const Lines &calls)
{
    Lines all;
    for (int i = 0; i < times; i++)
        all = all + calls;
    return all;
}

const Lines TEST_RUNNING = {"open(/tmp/osd_fifo_req, 04001)"};
const Lines SLEEP = {"nanosleep(0.100000000)"};
const Lines READ_COMMON = {"readlink(/proc/self/exe, 4096)",
                           "fopen(/tmp/stage/osd/bin/../../conf/qm5_app_comm.conf, r)"};
const Lines WRITE_PARAMETERS = {"fopen(/tmp/osd_tmp_param.txt, w)"};
const Lines FORK = {"fork()"};
const Lines EXCHANGE =
    TEST_RUNNING + Lines{"mkfifo(/tmp/osd_fifo_ack, 0644)", "open(/tmp/osd_fifo_req, 01)",
                         "open(/tmp/osd_fifo_ack, 00)", "unlink(/tmp/osd_fifo_ack)"};
const Lines UPDATE = TEST_RUNNING +
                     (Lines{"fopen(/tmp/osd_tmp_param.txt, r)",
                            "rename(/tmp/osd_tmp_param.txt, /tmp/osd_tmp_param.bak)"}) +
                     WRITE_PARAMETERS + EXCHANGE;
const Lines PREPARE = TEST_RUNNING + READ_COMMON + WRITE_PARAMETERS;

// The child's life, with one pass that sleeps before the one that reads the stop word.
const Lines LIBRARY_UP = {"library_init()", "open_device()", "notify_callback()", "set_notify(15)"};
const Lines LOOP_SET_UP = {"mkfifo(/tmp/osd_fifo_req, 0644)", "open(/tmp/osd_fifo_req, 04000)"};
const Lines SLICES = repeat(4, {"nanosleep(0.500000000)"});
const Lines TAKE_DOWN = {"unlink(/tmp/osd_fifo_req)",
                         "unlink(/tmp/osd_tmp_param.txt)",
                         "unlink(/tmp/osd_tmp_param.bak)",
                         "close_device()",
                         "library_exit()",
                         "open(/tmp/osd_fifo_ack, 01)"};

// ---- The fixture --------------------------------------------------------------------------------

// What a process has that a server keeps of its tool.
struct Circumstances {
    pid_t session = 0;
    pid_t group = 0;
    mode_t mask = 0;
    std::array<char, 4096> folder{};
    std::array<ino_t, 3> streams{};
    std::array<void (*)(int), 65> signals{};

    void take()
    {
        session = getsid(0);
        group = getpgrp();
        mask = umask(0);
        umask(mask);
        EXPECT_NE(getcwd(folder.data(), folder.size()), nullptr);
        for (int fd = 0; fd < 3; fd++) {
            struct stat stream {
            };
            EXPECT_EQ(fstat(fd, &stream), 0);
            streams[static_cast<std::size_t>(fd)] = stream.st_ino;
        }
        for (int i = 1; i < 65; i++) {
            struct sigaction action {
            };
            sigaction(i, nullptr, &action);
            signals[static_cast<std::size_t>(i)] = action.sa_handler;
        }
    }
    bool operator==(const Circumstances &) const = default;
};

class Start : public channel_peer::BoundedTest
{
protected:
    void SetUp() override
    {
        BoundedTest::SetUp();
        cmn_role = "start";
        exe_path = "/tmp/stage/osd/bin/qm5osd";
        circumstances_.take();
        fs::create_directories("/tmp/stage/osd/bin");
        fs::create_directory("/tmp/stage/conf");
        write_file(COMMON_FILE, COMMON_TEXT);
        wraps::set_fork(NO_PROCESS); // a fork that no test wants does no harm
    }

    void TearDown() override
    {
        exe_path = nullptr;
        server_.reset();
        for (const char *path : {OSD_TMP_PARAM, OSD_TMP_PARAM_BAK, FILE_OF_F, OSD_FIFO_REQ})
            fs::remove(path);
        fs::remove_all("/tmp/stage");
        Circumstances now; // after what a child did here
        now.take();
        EXPECT_EQ(now, circumstances_);
        BoundedTest::TearDown();
    }

    FakeServer &serve(std::vector<std::string> replies = {})
    {
        return server_.emplace(std::move(replies));
    }

    FakeServer &server()
    {
        return *server_;
    }

    // What follows the fork takes place in the parent; the server comes up within the n-th sleep.
    void be_parent(int nth_sleep)
    {
        wraps::on_nanosleep([this, nth_sleep] {
            if (wraps::calls(wraps::NANOSLEEP) == nth_sleep)
                serve();
        });
    }

    // What follows the fork takes place in the child, which is stopped as it first sleeps.
    static void be_child()
    {
        wraps::set_fork(0);
        wraps::on_nanosleep([] {
            if (wraps::calls(wraps::NANOSLEEP) == 1)
                send_stop();
        });
    }

    static void send_stop()
    {
        const int fd = __real_open(OSD_FIFO_REQ, O_WRONLY | O_NONBLOCK);
        EXPECT_EQ(__real_write(fd, "S\0\0", 4), 4);
        __real_close(fd);
    }

private:
    Circumstances circumstances_;
    std::optional<FakeServer> server_;
};

Outcome start(const client::Pairs &pairs = {}, std::uint32_t post = 0, const char *file = nullptr)
{
    const Options options(pairs, post, file);
    return watch([&options] { return osd_start(options.get()); });
}

Outcome restart(const client::Pairs &pairs = {}, std::uint32_t post = 0, const char *file = nullptr)
{
    cmn_role = "restart";
    const Options options(pairs, post, file);
    return watch([&options] { return osd_restart(options.get()); });
}

std::string start_report(std::string_view message)
{
    return report("start", message, "osd_start");
}

// ---- The common parameter file ------------------------------------------------------------------

struct SectionDeleter {
    void operator()(param_section *section) const
    {
        param_section_free(section);
    }
};

// osd_read_cmnparam_file on a section of one font.
class CommonFile : public Start
{
protected:
    void SetUp() override
    {
        Start::SetUp();
        section_.reset(param_section_new("osd"));
        cmn_list_append(section_->pairs, param_parampair_new("OsdFontFile", "before"));
    }

    Outcome read()
    {
        return watch([this] { return osd_read_cmnparam_file(section_.get()); });
    }

    std::string font() const
    {
        return param_section_search_parampair_key(section_.get(), "OsdFontFile")->value;
    }

private:
    std::unique_ptr<param_section, SectionDeleter> section_;
};

TEST_F(CommonFile, is_found_beside_the_executables_folder)
{
    write_file(COMMON_FILE, "[osd]\nOsdFontFile=/after\n");
    const Outcome outcome = read();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, READ_COMMON);
    EXPECT_EQ(font(), "/after");
}

TEST_F(CommonFile, is_not_found_without_the_executables_path)
{
    wraps::fail(wraps::READLINK, 1, EACCES);
    const Outcome outcome = read();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              report("start", "failed to get exe path(Permission denied)", "cmn_get_exe_dir") +
                  report("start", "failed to get exe file dir", "osd_read_cmnparam_file"));
    EXPECT_EQ(outcome.calls, Lines{READ_COMMON[0]});
    EXPECT_EQ(font(), "before");
}

TEST_F(CommonFile, must_be_there)
{
    support::remove_file(COMMON_FILE);
    const Outcome outcome = read();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(
        outcome.output.err,
        report("start",
               "cannot open file /tmp/stage/osd/bin/../../conf/qm5_app_comm.conf"
               "(No such file or directory)",
               "param_seclist_new") +
            report("start", "failed to read parameter file", "osd_read_parameter_file") +
            report("start", "failed to read common parameter file", "osd_read_cmnparam_file"));
    EXPECT_EQ(font(), "before");
}

// An invalid file gives another result inside, which doesn't come out.
TEST_F(CommonFile, must_be_valid)
{
    write_file(COMMON_FILE, "[osd]\nOsdFontFile=/after\nPost0DateOn=2\n");
    const Outcome outcome = read();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(
        outcome.output.err,
        report("start", "invalid value '2' of key Post0DateOn", "osd_check_param") +
            report("start", "invalid osd parameter", "osd_check_section") +
            report("start", "invalid parameter in osd section", "osd_read_parameter_file") +
            report("start", "failed to read common parameter file", "osd_read_cmnparam_file"));
    EXPECT_EQ(font(), "before");
}

// The path of an executable whose common parameter file has a path of so many bytes.
std::string path_for(std::size_t length)
{
    const std::string end = "osd/bin/qm5osd";
    const std::size_t rest = length - strlen("osd/bin/../../conf/qm5_app_comm.conf");
    std::string path = "/tmp/stage/";
    while (path.size() + 2 <= rest)
        path += "./";
    if (path.size() < rest)
        path += '/';
    return path + end;
}

TEST_F(CommonFile, is_found_by_the_longest_path_that_the_system_takes)
{
    const std::string path = path_for(4095);
    exe_path = path.c_str();
    write_file(COMMON_FILE, "[osd]\nOsdFontFile=/after\n");
    EXPECT_EQ(read().result, 0);
    EXPECT_EQ(font(), "/after");
}

// Nothing tells of the cut: the report itself has room for no more than this.
TEST_F(CommonFile, is_not_found_by_a_longer_path)
{
    for (const std::size_t length : {4096u, 4097u, 4120u, 4200u}) {
        const std::string path = path_for(length);
        exe_path = path.c_str();
        const Outcome outcome = read();
        EXPECT_EQ(outcome.result, -14);
        EXPECT_EQ(
            outcome.output.err,
            report("start", ("cannot open file " + path).substr(0, 2048), "param_seclist_new") +
                report("start", "failed to read parameter file", "osd_read_parameter_file") +
                report("start", "failed to read common parameter file", "osd_read_cmnparam_file"));
    }
}

// ---- The tool -----------------------------------------------------------------------------------

TEST_F(Start, needs_its_record)
{
    const Outcome outcome = watch([] { return osd_start(nullptr); });
    EXPECT_EQ(outcome.result, -22);
    EXPECT_EQ(outcome.output.err, start_report("invalid parameter"));
    EXPECT_EQ(outcome.calls, Lines{});
}

TEST_F(Start, refuses_a_second_server_and_leaves_the_first_alone)
{
    serve();
    write_file(OSD_TMP_PARAM, "now");
    write_file(OSD_TMP_PARAM_BAK, "before");
    const Outcome outcome = start({{"Post0DateOn", "1"}}, 1);
    EXPECT_EQ(outcome.result, -16);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, start_report("server is already running"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), "now");
    EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), "before");
    EXPECT_TRUE(server().requests().empty());
}

TEST_F(Start, needs_memory_for_the_defaults)
{
    const Options options({}, 0, nullptr);
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    const Outcome outcome = watch([&options] { return osd_start(options.get()); });
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              report("start", "no memory", "param_section_new") +
                  report("start", "failed to create osd section", "osd_get_default_section") +
                  start_report("failed to get osd default section"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
}

TEST_F(Start, needs_the_common_parameter_file)
{
    support::remove_file(COMMON_FILE);
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(
        outcome.output.err,
        report("start",
               "cannot open file /tmp/stage/osd/bin/../../conf/qm5_app_comm.conf"
               "(No such file or directory)",
               "param_seclist_new") +
            report("start", "failed to read parameter file", "osd_read_parameter_file") +
            report("start", "failed to read common parameter file", "osd_read_cmnparam_file") +
            start_report("failed to read common parameter file"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING + READ_COMMON);
    EXPECT_EQ(temporary_files(), Lines{"stage"});
}

TEST_F(Start, needs_a_temporary_parameter_file)
{
    wraps::fail(wraps::FOPEN, 2, EROFS);
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err, report("start", "cannot open file(Read-only file system)",
                                         "param_section_write_file") +
                                      start_report("failed to create temporary parameter file"));
    EXPECT_EQ(outcome.calls, PREPARE);
    EXPECT_EQ(osd_state.post[1].text_on[OSD_SLOT_TIME], 0); // the table is untouched
    EXPECT_EQ(osd_state.post[0].font_file, nullptr);
}

TEST_F(Start, leaves_the_first_parameters_behind_if_it_cannot_fork)
{
    wraps::fail(wraps::FORK, 1, EAGAIN);
    const Outcome outcome = start({{"Post0DateOn", "1"}}, 1);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, start_report("fork() failed. errno=0x0000000B"));
    EXPECT_EQ(outcome.calls, PREPARE + FORK);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), first_text()); // without the options
    EXPECT_EQ(temporary_files(), (Lines{"osd_tmp_param.txt", "stage"}));
}

TEST_F(Start, overwrites_the_parameters_of_a_start_that_failed)
{
    write_file(OSD_TMP_PARAM, std::string(10000, 'x'));
    wraps::fail(wraps::FORK, 1, EAGAIN);
    EXPECT_EQ(start().result, -14);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), first_text());
}

TEST_F(Start, applies_the_first_parameters_before_the_fork)
{
    wraps::fail(wraps::FORK, 1, EAGAIN);
    start({{"Post0DateOn", "1"}}, 1);
    EXPECT_STREQ(osd_state.font_file, "/font");
    EXPECT_EQ(osd_state.post[0].text_on[OSD_SLOT_DATE], 0); // the options come by the update
    EXPECT_EQ(osd_state.post[1].text_on[OSD_SLOT_TIME], 1);
    EXPECT_EQ(osd_state.post[1].rect[OSD_SLOT_TIME].mode, OSD_MODE_OFF);
    EXPECT_EQ(osd_state.post[2].rect[3].mode, OSD_MODE_RECTANGLE);
}

// ---- The parent ---------------------------------------------------------------------------------

TEST_F(Start, parent_updates_a_server_that_is_up_at_once)
{
    serve();
    wraps::fail(wraps::OPEN, 1, ENXIO); // it is not up yet for the tool
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, PREPARE + FORK + TEST_RUNNING + UPDATE);
    EXPECT_EQ(server().words(), Lines{bytes_of(0x55)});
    EXPECT_EQ(read_file(OSD_TMP_PARAM), first_text());
    EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), first_text());
}

TEST_F(Start, parent_waits_for_the_server_and_brings_it_the_command_line)
{
    write_file(FILE_OF_F, "[osd]\nPost0Osd0X=5\nPost0Osd0Y=5\n");
    be_parent(3);
    const Outcome outcome = start({{"Post0Osd0Y", "6"}}, 15, FILE_OF_F);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.err, "");
    ASSERT_EQ(server().words(), Lines{bytes_of(0xF55)});
    EXPECT_EQ(server().requests()[0].parameters, full_text({{"OsdFontFile", "/font"},
                                                            {"Post1TimeOn", "1"},
                                                            {"Post2Rectangle3On", "1"},
                                                            {"Post0Osd0X", "5"},
                                                            {"Post0Osd0Y", "6"}}));
    EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), first_text());
    EXPECT_EQ(wraps::calls(wraps::NANOSLEEP), 3);
}

TEST_F(Start, parent_sends_the_mask_of_the_command_line)
{
    be_parent(1);
    EXPECT_EQ(start({{"Post2DateOn", "1"}}, 4).result, 0);
    EXPECT_EQ(server().words(), Lines{bytes_of(0x455)});
}

TEST_F(Start, parent_finds_the_server_by_its_last_test)
{
    be_parent(20);
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls,
              PREPARE + FORK + repeat(20, TEST_RUNNING + SLEEP) + TEST_RUNNING + UPDATE);
}

TEST_F(Start, parent_gives_up_after_21_tests_and_20_sleeps)
{
    be_parent(21);
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, -121);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, start_report("server could not start for 0[msec]"));
    EXPECT_EQ(outcome.calls, PREPARE + FORK + repeat(20, TEST_RUNNING + SLEEP) + TEST_RUNNING);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), first_text());
}

TEST_F(Start, parent_counts_a_sleep_that_is_cut_short)
{
    wraps::fail(wraps::NANOSLEEP, 1, EINTR, 20);
    be_parent(21);
    EXPECT_EQ(start().result, -121);
    EXPECT_EQ(wraps::calls(wraps::NANOSLEEP), 20);
}

TEST_F(Start, parent_passes_the_failure_of_its_update_on)
{
    write_file(FILE_OF_F, "[osd]\nNoKey=1\n");
    be_parent(1);
    const Outcome outcome = start({}, 15, FILE_OF_F);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              report("start", "invalid key 'NoKey'", "osd_check_param") +
                  report("start", "invalid osd parameter", "osd_check_section") +
                  report("start", "invalid parameter in osd section", "osd_read_parameter_file") +
                  report("start", "failed to read osd parameter file", "osd_update"));
    EXPECT_TRUE(server().requests().empty()); // it stays up as it was started
    EXPECT_EQ(read_file(OSD_TMP_PARAM), first_text());
    EXPECT_FALSE(fs::exists(OSD_TMP_PARAM_BAK));
}

TEST_F(Start, parent_finds_the_server_gone_again)
{
    be_parent(1);
    wraps::fail(wraps::OPEN, 4, ENXIO); // the running test of the update
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, -121);
    EXPECT_EQ(outcome.output.err, report("start", "server is not running", "osd_update"));
}

// The first parameters are written unchecked, and refused when they are read.
TEST_F(Start, parent_cannot_update_if_the_common_file_names_no_font)
{
    write_file(COMMON_FILE, "[osd]\n");
    be_parent(1);
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              report("start", "invalid value '(null)' of key OsdFontFile", "osd_check_param") +
                  report("start", "invalid osd parameter", "osd_check_section") +
                  report("start", "invalid parameter in osd section", "osd_read_parameter_file") +
                  report("start", "failed to read temporary parameter file", "osd_update"));
    EXPECT_EQ(read_file(OSD_TMP_PARAM), full_text({}));
}

// ---- The codec library --------------------------------------------------------------------------

class Library : public Start
{
protected:
    void SetUp() override
    {
        Start::SetUp();
        cmn_role = "server";
    }
};

Outcome init_process()
{
    return watch(osd_server_init_process);
}

Outcome end_process()
{
    return watch([] {
        osd_server_end_process();
        return 0;
    });
}

std::string init_report(std::string_view message)
{
    return report("server", message, "osd_server_init_process");
}

TEST_F(Library, comes_up_in_four_steps)
{
    const Outcome outcome = init_process();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, LIBRARY_UP);
    EXPECT_EQ(codec::callback(), osd_post_notify);
}

// No error of the library is an ordinary event here.
TEST_F(Library, is_taken_down_again_if_a_step_fails)
{
    const struct {
        codec::Call call;
        std::uint32_t error;
        const char *message;
        Lines calls;
    } rows[] = {
        {codec::LIBRARY_INIT,
         codec::SOME_ERROR,
         "qm5_cl_library_init() failed. errno=0x81E01234",
         {}},
        {codec::OPEN_DEVICE,
         QM5_CL_ERROR_GONE_1,
         "qm5_cl_sys_open_device() failed. errno=0x81E04507",
         {"library_exit()"}},
        {codec::NOTIFY_CALLBACK,
         QM5_CL_ERROR_OPEN_REFUSED,
         "qm5_cl_post_notify_callback() failed. errno=0x81E03246",
         {"close_device()", "library_exit()"}},
        {codec::SET_NOTIFY,
         QM5_CL_ERROR_GONE_3,
         "qm5_cl_post_set_notify() failed. errno=0x81E0250C",
         {"close_device()", "library_exit()"}},
    };
    std::ptrdiff_t steps = 0;
    for (const auto &[call, error, message, calls] : rows) {
        codec::reset();
        codec::fail(call, 1, error);
        const Outcome outcome = init_process();
        steps++;
        EXPECT_NE(outcome.result, 0);
        EXPECT_EQ(outcome.output.err, init_report(message));
        EXPECT_EQ(outcome.calls, Lines(LIBRARY_UP.begin(), LIBRARY_UP.begin() + steps) + calls);
    }
}

TEST_F(Library, is_left_without_a_look_if_the_device_cannot_be_opened)
{
    codec::fail(codec::OPEN_DEVICE, 1, 5);
    codec::fail(codec::LIBRARY_EXIT, 1, 6);
    EXPECT_EQ(init_process().output.err,
              init_report("qm5_cl_sys_open_device() failed. errno=0x00000005"));
}

TEST_F(Library, goes_down_in_two_steps)
{
    const Outcome outcome = end_process();
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, (Lines{"close_device()", "library_exit()"}));
}

const std::string END_REPORTS =
    report("server", "qm5_cl_sys_close_device() failed. errno=0x81E03204",
           "osd_server_end_process") +
    report("server", "qm5_cl_library_exit() failed. errno=0x81E01234", "osd_server_end_process");

void fail_the_end()
{
    codec::fail(codec::CLOSE_DEVICE, 1, QM5_CL_ERROR_GONE_2);
    codec::fail(codec::LIBRARY_EXIT, 1, codec::SOME_ERROR);
}

TEST_F(Library, goes_down_whatever_fails)
{
    fail_the_end();
    const Outcome outcome = end_process();
    EXPECT_EQ(outcome.output.err, END_REPORTS);
    EXPECT_EQ(outcome.calls, (Lines{"close_device()", "library_exit()"}));
}

TEST_F(Library, reports_the_failures_of_going_down_behind_that_of_coming_up)
{
    codec::fail(codec::SET_NOTIFY, 1, codec::SOME_ERROR);
    fail_the_end();
    const Outcome outcome = init_process();
    EXPECT_NE(outcome.result, 0);
    EXPECT_EQ(outcome.output.err,
              init_report("qm5_cl_post_set_notify() failed. errno=0x81E01234") + END_REPORTS);
}

// ---- The child ----------------------------------------------------------------------------------

TEST_F(Start, child_serves_until_it_is_stopped_and_its_result_is_always_1)
{
    const ReplyFifo replies;
    be_child();
    const Outcome outcome = start({{"Post0DateOn", "1"}}, 1);
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, PREPARE + FORK + LIBRARY_UP + LOOP_SET_UP + SLICES + TAKE_DOWN);
    EXPECT_EQ(replies.take_all(), bytes_of(0x41));
    EXPECT_STREQ(cmn_role, "server");
    EXPECT_EQ(temporary_files(), (Lines{"osd_fifo_ack", "stage"}));
}

TEST_F(Start, child_takes_the_fifo_of_a_dead_server)
{
    ASSERT_EQ(mkfifo(OSD_FIFO_REQ, 0600), 0);
    const ReplyFifo replies;
    be_child();
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(replies.take_all(), bytes_of(0x41));
    EXPECT_FALSE(fs::exists(OSD_FIFO_REQ));
}

TEST_F(Start, child_is_acknowledged_its_stop_though_the_library_fails)
{
    const ReplyFifo replies;
    be_child();
    fail_the_end();
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.output.err, END_REPORTS);
    EXPECT_EQ(replies.take_all(), bytes_of(0x41));
}

TEST_F(Start, child_goes_down_if_the_library_does_not_come_up)
{
    codec::fail(codec::OPEN_DEVICE, 1, codec::SOME_ERROR);
    be_child();
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.output.err, init_report("qm5_cl_sys_open_device() failed. errno=0x81E01234") +
                                      report("server", "osd server down", "osd_server_run"));
    EXPECT_EQ(outcome.calls,
              PREPARE + FORK + (Lines{"library_init()", "open_device()", "library_exit()"}));
    EXPECT_EQ(read_file(OSD_TMP_PARAM), first_text());
}

TEST_F(Start, child_leaves_the_library_open_if_its_fifo_cannot_be_made)
{
    wraps::fail(wraps::MKFIFO, 1, ENOSPC);
    be_child();
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.output.err,
              report("server", "unable to create fifo /tmp/osd_fifo_req(No space left on device)",
                     "osd_server_main_loop") +
                  report("server", "osd server down", "osd_server_main_loop"));
    EXPECT_EQ(outcome.calls, PREPARE + FORK + LIBRARY_UP + Lines{LOOP_SET_UP[0]});
}

// The first parameters turn no text on yet, so nothing but the size is asked for.
TEST_F(Start, child_serves_a_post_that_was_announced_before_its_fifo_was_made)
{
    write_file(COMMON_FILE, "[osd]\nPost1DateOn=1\nOsdFontFile=" + support::real_font() + "\n");
    codec::on(codec::SET_NOTIFY, [] { codec::callback()({0, 0x22, 1, 1}); });
    const ReplyFifo replies;
    be_child();
    const Outcome outcome = start();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, PREPARE + FORK + LIBRARY_UP + LOOP_SET_UP + Lines{"get_status(0x22)"} +
                                 SLICES + TAKE_DOWN);
    EXPECT_EQ(replies.take_all(), bytes_of(0x41));
}

// ---- A child of its own -------------------------------------------------------------------------

// Notes of the child, in memory that it shares with the test.
struct Notes {
    Circumstances serving;
    pid_t pid;
    bool role_is_server;
    std::uint32_t mode_at_start; // of the slot of the time on post 1
    std::uint8_t text_on_at_start;
    std::uint32_t mode_at_end;
    std::uint8_t date_on_at_end; // on post 0
};

class RealChild : public Start
{
protected:
    static void SetUpTestSuite()
    {
        pthread_atfork(nullptr, nullptr, [] { alarm(20); }); // children are bounded, too
    }

    void SetUp() override
    {
        Start::SetUp();
        wraps::reset(); // so that forks are real
        notes_ = static_cast<Notes *>(mmap(nullptr, sizeof(Notes), PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(notes_, MAP_FAILED);
        codec::on(codec::LIBRARY_INIT, [this] { note_start(); });
        codec::on(codec::CLOSE_DEVICE, [this] { note_end(); });
    }

    void TearDown() override
    {
        munmap(notes_, sizeof *notes_);
        Start::TearDown();
    }

    // osd_start with a child that ends by its result.
    int start_for_good(const Options &options)
    {
        const int result = osd_start(options.get());
        if (getpid() != tool_)
            _exit(result);
        return result;
    }

    // Instead of a sleep, the tool runs this and the server lets others run.
    void on_sleep_of_tool(const std::function<void()> &action)
    {
        wraps::on_nanosleep([this, action] {
            if (getpid() == tool_)
                action();
            else
                sched_yield();
        });
    }

    static void wait_for_fifo()
    {
        int fd = -1;
        while ((fd = __real_open(OSD_FIFO_REQ, O_WRONLY | O_NONBLOCK)) == -1)
            sched_yield();
        __real_close(fd);
    }

    // Waits for the end of the child without taking its status.
    static void wait_for_end()
    {
        siginfo_t info;
        EXPECT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
    }

    // The exit status of the one child.
    void expect_status_1() const
    {
        int status = 0;
        EXPECT_EQ(wait(&status), notes_->pid);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 1);
    }

    Notes &notes()
    {
        return *notes_;
    }

    void hold_up_the_library(int fd)
    {
        codec::on(codec::LIBRARY_INIT, [this, fd] {
            char byte = 0;
            note_start();
            EXPECT_EQ(__real_read(fd, &byte, 1), 1);
        });
    }

private:
    void note_start()
    {
        notes_->pid = getpid();
        notes_->role_is_server = strcmp(cmn_role, "server") == 0;
        notes_->mode_at_start = osd_state.post[1].rect[OSD_SLOT_TIME].mode;
        notes_->text_on_at_start = osd_state.post[1].text_on[OSD_SLOT_TIME];
    }

    void note_end()
    {
        notes_->mode_at_end = osd_state.post[1].rect[OSD_SLOT_TIME].mode;
        notes_->date_on_at_end = osd_state.post[0].text_on[OSD_SLOT_DATE];
        notes_->serving.take();
    }

    Notes *notes_ = nullptr;
    pid_t tool_ = getpid();
};

TEST_F(RealChild, serves_updates_and_goes_at_the_stop)
{
    Circumstances own;
    on_sleep_of_tool(wait_for_fifo);
    const Options options({{"Post0DateOn", "1"}}, 1, nullptr);
    const support::Output output = support::capture([&] {
        own.take();
        EXPECT_EQ(start_for_good(options), 0);
        EXPECT_EQ(osd_status(), 1);
        EXPECT_EQ(osd_start(options.get()), -16);
        EXPECT_EQ(osd_stop(), 0);
        expect_status_1();
        EXPECT_EQ(osd_status(), 0);
    });
    EXPECT_EQ(output.out, std::string("#qm5osd:OSD server is running\n") + NOT_RUNNING);
    EXPECT_EQ(output.err, start_report("server is already running"));
    EXPECT_EQ(temporary_files(), Lines{"stage"});

    EXPECT_STREQ(cmn_role, "start"); // the tool's own
    EXPECT_EQ(codec::calls(codec::LIBRARY_INIT), 0);
    EXPECT_TRUE(notes().role_is_server);
    EXPECT_EQ(notes().text_on_at_start, 1);
    EXPECT_EQ(notes().mode_at_start, OSD_MODE_OFF);
    EXPECT_EQ(notes().mode_at_end, OSD_MODE_TEXT);
    EXPECT_EQ(notes().date_on_at_end, 1);
    EXPECT_EQ(notes().serving, own);
}

TEST_F(RealChild, that_is_slow_comes_up_without_the_update)
{
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    hold_up_the_library(gate[0]);
    on_sleep_of_tool([] {});
    const support::Output output = support::capture([&] {
        EXPECT_EQ(start_for_good(Options({{"Post0DateOn", "1"}}, 1, nullptr)), -121);
        EXPECT_EQ(write(gate[1], "g", 1), 1);
        wait_for_fifo();
        EXPECT_EQ(read_file(OSD_TMP_PARAM), first_text());
        EXPECT_EQ(osd_update(Options({}, 0, nullptr).get()), 0);
        EXPECT_EQ(osd_stop(), 0);
        expect_status_1();
    });
    close(gate[0]);
    close(gate[1]);
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(output.err, start_report("server could not start for 0[msec]"));
    EXPECT_EQ(notes().text_on_at_start, 1);
    EXPECT_EQ(notes().mode_at_end, OSD_MODE_TEXT);
    EXPECT_EQ(notes().date_on_at_end, 0); // of the update that it didn't get
}

TEST_F(RealChild, that_fails_has_reported_before_the_tool_gives_up)
{
    codec::fail(codec::SET_NOTIFY, 1, codec::SOME_ERROR);
    on_sleep_of_tool(wait_for_end);
    const support::Output output = support::capture([&] {
        EXPECT_EQ(start_for_good(Options({}, 0, nullptr)), -121);
        expect_status_1();
    });
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(output.err, init_report("qm5_cl_post_set_notify() failed. errno=0x81E01234") +
                              report("server", "osd server down", "osd_server_run") +
                              start_report("server could not start for 0[msec]"));
    EXPECT_EQ(temporary_files(), (Lines{"osd_tmp_param.txt", "stage"}));
    EXPECT_EQ(read_file(OSD_TMP_PARAM), first_text());
}

// ---- restart ------------------------------------------------------------------------------------

std::string restart_report(std::string_view message)
{
    return report("restart", message, "osd_restart");
}

TEST_F(Start, restart_needs_its_record)
{
    cmn_role = "restart";
    const Outcome outcome = watch([] { return osd_restart(nullptr); });
    EXPECT_EQ(outcome.result, -22);
    EXPECT_EQ(outcome.output.err, restart_report("invalid parameter"));
    EXPECT_EQ(outcome.calls, Lines{});
}

TEST_F(Start, restart_without_a_server_simply_starts)
{
    be_parent(1);
    const Outcome outcome = restart({{"Post1StringOn", "1"}}, 2);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls,
              TEST_RUNNING + PREPARE + FORK + TEST_RUNNING + SLEEP + TEST_RUNNING + UPDATE);
    EXPECT_EQ(server().words(), Lines{bytes_of(0x255)});
}

TEST_F(Start, restart_stops_the_old_server_and_updates_the_new_one)
{
    FakeServer old;
    write_file(OSD_TMP_PARAM, "of the old server");
    write_file(FILE_OF_F, "[osd]\nPost0Osd0X=5\n");
    be_parent(1);
    const Outcome outcome = restart({{"Post1StringOn", "1"}}, 15, FILE_OF_F);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(old.words(), Lines{bytes_of(0x53)});
    ASSERT_EQ(server().words(), Lines{bytes_of(0xF55)});
    EXPECT_EQ(server().requests()[0].parameters, full_text({{"OsdFontFile", "/font"},
                                                            {"Post1TimeOn", "1"},
                                                            {"Post2Rectangle3On", "1"},
                                                            {"Post0Osd0X", "5"},
                                                            {"Post1StringOn", "1"}}));
    EXPECT_EQ(Lines(outcome.calls.begin(), outcome.calls.begin() + 12),
              TEST_RUNNING + EXCHANGE + PREPARE + FORK + TEST_RUNNING);
}

TEST_F(Start, restart_goes_on_if_the_server_has_gone_meanwhile)
{
    serve();
    wraps::fail(wraps::OPEN, 2, ENXIO, 2); // of the stop, and of the start
    const Outcome outcome = restart();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, NOT_RUNNING);
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(server().words(), Lines{bytes_of(0x55)});
}

TEST_F(Start, restart_fails_if_the_server_does_not_stop)
{
    serve({bytes_of(0x4E)});
    const Outcome outcome = restart();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, report("restart", "failed to stop server", "osd_stop") +
                                      restart_report("failed to stop server"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING + EXCHANGE);
}

TEST_F(Start, restart_fails_with_one_result_whatever_the_start_gives)
{
    serve();
    wraps::fail(wraps::OPEN, 1, ENXIO); // the start finds a server
    const Outcome busy = restart();
    EXPECT_EQ(busy.result, -14);
    EXPECT_EQ(busy.output.err, report("restart", "server is already running", "osd_start") +
                                   restart_report("failed to start server"));
    EXPECT_TRUE(server().requests().empty());
}

TEST_F(Start, restart_fails_if_the_new_server_does_not_come_up)
{
    FakeServer old;
    const Outcome outcome = restart();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              report("restart", "server could not start for 0[msec]", "osd_start") +
                  restart_report("failed to start server"));
}

TEST_F(Start, restart_passes_the_result_of_the_child_on)
{
    const ReplyFifo replies;
    be_child();
    const Outcome outcome = restart();
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls,
              TEST_RUNNING + PREPARE + FORK + LIBRARY_UP + LOOP_SET_UP + SLICES + TAKE_DOWN);
}

} // namespace
