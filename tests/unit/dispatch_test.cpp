// From the command line to the exit status: what each function prints, does and leaves behind.
#include "cli/client.h"
#include "cli/dispatch.h"
#include "cli/usage.h"
#include "server/channel.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"
#include "support/wraps.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <getopt.h>
#include <optional>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using support::capture;
using support::Lines;
using support::Output;
using support::report;

// Printed first by every run, as the tests have no time zone block.
const std::string NO_ZONE = "shmget error!!!\n";

const std::string RUNNING = "#qm5osd:OSD server is running\n";
const std::string NOT_RUNNING = "#qm5osd:OSD server is not running\n";

// A file of one section, as little of it as the tool takes.
constexpr const char *SOME_PARAMETERS = "[osd]\nOsdFontFile=/font\nPost1DateOn=1\n";

// ---- Runs ---------------------------------------------------------------------------------------

// Runs the tool within this process.
int run_tool(Lines words, osd_options *options)
{
    words.insert(words.begin(), "bin/tool");
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    optind = 0;
    cmn_role = "";
    return osd_run(static_cast<int>(words.size()), argv.data(), options);
}

// A run with all that it printed and what it left of its options.
struct ToolRun {
    explicit ToolRun(const Lines &words, const osd_options &before = {}) : options(before)
    {
        const pid_t tool = getpid();
        output = capture([&] {
            status = run_tool(words, &options);
            if (getpid() != tool) // the server has ended, and its process with it
                _exit(status);
        });
    }
    ToolRun(const ToolRun &) = delete;
    ToolRun &operator=(const ToolRun &) = delete;
    ~ToolRun()
    {
        if (options.section)
            param_section_free(options.section);
    }

    osd_options options;
    int status = -1;
    Output output;
};

void expect_run(const ToolRun &run, int status, const std::string &out, const std::string &err)
{
    EXPECT_EQ(run.status, status);
    EXPECT_EQ(run.output.out, NO_ZONE + out);
    EXPECT_EQ(run.output.err, err);
}

// The usage of a function, or the general one for NULL.
std::string usage(const char *function)
{
    std::string path = "tool";
    return capture([&] { osd_print_usage(path.data(), function); }).out;
}

// ---- Servers ------------------------------------------------------------------------------------

// The request FIFO with its reader, which is all that makes a server be running.
class HeldFifo
{
public:
    HeldFifo()
    {
        EXPECT_EQ(mkfifo(OSD_FIFO_REQ, OSD_FIFO_MODE), 0);
        fd_ = open(OSD_FIFO_REQ, O_RDWR | O_NONBLOCK);
        EXPECT_NE(fd_, -1);
    }
    HeldFifo(const HeldFifo &) = delete;
    HeldFifo &operator=(const HeldFifo &) = delete;
    ~HeldFifo()
    {
        close(fd_);
        support::remove_file(OSD_FIFO_REQ);
    }
    int fd() const
    {
        return fd_;
    }

private:
    int fd_ = -1;
};

typedef std::vector<std::uint32_t> Requests;

// A server that answers requests with the words that it is given, and further ones with a refusal.
// Its thread keeps to calls that aren't wrapped, as the wraps count without any lock.
class PlayedServer
{
public:
    explicit PlayedServer(const std::vector<std::uint32_t> &replies)
        : thread_([this, replies] { serve(replies); })
    {
    }
    PlayedServer(const PlayedServer &) = delete;
    PlayedServer &operator=(const PlayedServer &) = delete;
    ~PlayedServer()
    {
        end();
    }

    // The request words that have come.
    const Requests &requests()
    {
        end();
        return requests_;
    }

private:
    void serve(const std::vector<std::uint32_t> &replies)
    {
        std::uint32_t request = 0;
        while (receive(&request)) {
            const std::size_t number = requests_.size();
            requests_.push_back(request);
            send(number < replies.size() ? replies[number] : OSD_REPLY_NACK);
        }
    }

    bool receive(std::uint32_t *request) const
    {
        const iovec whole = {request, sizeof *request};
        while (readv(fifo_.fd(), &whole, 1) != sizeof *request) {
            pollfd waiting = {fifo_.fd(), POLLIN, 0};
            if (ended_)
                return false;
            poll(&waiting, 1, 1);
        }
        return true;
    }

    void send(std::uint32_t reply)
    {
        int fd = -1;
        while ((fd = openat(AT_FDCWD, OSD_FIFO_ACK, O_WRONLY | O_NONBLOCK)) == -1 && !ended_)
            sched_yield();
        const iovec whole = {&reply, sizeof reply};
        if (fd != -1 && writev(fd, &whole, 1) == sizeof reply)
            replied_.push_back(fd);
    }

    void end()
    {
        ended_ = true;
        if (thread_.joinable())
            thread_.join();
        for (const int fd : replied_)
            close(fd);
        replied_.clear();
    }

    HeldFifo fifo_;
    Requests requests_;
    std::vector<int> replied_;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

// The tool runs in this process, so it looks for the common parameter file beside the tree in
// which the test was built. While this lives, another tree with such a file hides that one.
class CommonFile
{
public:
    explicit CommonFile(const char *text)
    {
        const fs::path program = fs::read_symlink("/proc/self/exe");
        const fs::path folder = program.parent_path();
        root_ = folder.parent_path().parent_path();
        make_root();
        mounted_ = mount("none", root_.c_str(), "tmpfs", 0, nullptr) == 0;
        EXPECT_TRUE(mounted_) << root_;
        if (!mounted_)
            return;
        fs::create_directories(folder);
        support::write_file(program, ""); // an emulator has the link lead only to what is there
        fs::create_directories(root_ / "conf");
        support::write_file(root_ / "conf/qm5_app_comm.conf", text);
    }
    CommonFile(const CommonFile &) = delete;
    CommonFile &operator=(const CommonFile &) = delete;
    ~CommonFile()
    {
        EXPECT_TRUE(!mounted_ || umount2(root_.c_str(), MNT_DETACH) == 0);
        if (!made_.empty())
            fs::remove_all(made_);
    }

private:
    // The tree can't be seen if it is in the temporary folder, which is a private one.
    void make_root()
    {
        for (fs::path path = root_; !fs::exists(path); path = path.parent_path())
            made_ = path;
        fs::create_directories(root_);
    }

    fs::path root_;
    fs::path made_; // what had to be made for it, if anything
    bool mounted_ = false;
};

constexpr const char *LOG = "/tmp/log";

std::string take_log()
{
    std::string text = support::read_file(LOG);
    support::remove_file(LOG);
    return text;
}

// ---- Parsing ------------------------------------------------------------------------------------

class Dispatch : public support::OsdTest
{
};

TEST_F(Dispatch, without_a_function_prints_the_general_usage)
{
    for (const Lines &words : {Lines{}, Lines{"--help"}, Lines{"--help", "extra", "-x"},
                               Lines{"--help", "start"}, Lines{"help"}})
        expect_run(ToolRun(words), 0, usage(nullptr), "");
}

TEST_F(Dispatch, does_not_look_at_the_result_of_the_general_usage)
{
    char *argv[] = {nullptr};
    osd_options options = {};
    int status = -1;
    const Output output = capture([&] { status = osd_run(0, argv, &options); });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output.out, NO_ZONE);
    EXPECT_EQ(output.err, report("", "invalid parameter", "osd_print_usage"));
}

TEST_F(Dispatch, version_ignores_further_words)
{
    std::string path = "tool";
    const std::string version = support::output_of([&] { osd_print_version(path.data()); });
    expect_run(ToolRun({"--version"}), 0, version, "");
    expect_run(ToolRun({"--version", "extra", "--bogus"}), 0, version, "");
}

TEST_F(Dispatch, help_prints_the_usage_of_a_function)
{
    for (const char *function :
         {"start", "stop", "status", "restart", "update", "save", "getthdinfo", "help"}) {
        SCOPED_TRACE(function);
        expect_run(ToolRun({"help", function, "bogus"}), 0, usage(function), "");
    }
}

TEST_F(Dispatch, help_fails_for_an_unknown_function)
{
    for (const char *function : {"bogus", "", "--help", "--version", "-f"}) {
        SCOPED_TRACE(function);
        expect_run(ToolRun({"help", function}), 1, usage("help"),
                   report("help", "invalid parameter", "osd_print_usage"));
    }
}

TEST_F(Dispatch, unknown_function_gives_two_reports_and_the_usage_of_help)
{
    for (const char *function : {"bogus", "", "Start", "-f"}) {
        SCOPED_TRACE(function);
        expect_run(ToolRun({function}), 1, usage("help"),
                   report("", "unknown command", "osd_get_option") +
                       report("", "invalid parameter", "osd_print_usage"));
    }
}

TEST_F(Dispatch, command_of_minus_one_selects_the_general_usage)
{
    osd_options before = {};
    before.command = -1;
    expect_run(ToolRun({"bogus"}, before), 1, usage(nullptr),
               report("", "unknown command", "osd_get_option"));
}

struct RefusedRow {
    Lines words;
    const char *reporter;
};

const RefusedRow REFUSED[] = {
    {{"start", "--OsdFontFile=x"}, "osd_get_start_option"},
    {{"restart", "--OsdFontFile=x"}, "osd_get_start_option"},
    {{"update", "--OsdFontFile=x"}, "osd_get_start_option"},
    {{"save"}, "osd_get_save_option"},
    {{"getthdinfo", "-t", "4"}, "osd_get_getthdinfo_option"},
    {{"getthdinfo", "-t", "1x"}, "osd_get_getthdinfo_option"},
};

TEST_F(Dispatch, refused_options_give_the_usage_of_the_function)
{
    for (const RefusedRow &row : REFUSED) {
        SCOPED_TRACE(row.words[0]);
        const ToolRun run(row.words);
        expect_run(run, 1, usage(row.words[0].c_str()),
                   report(row.words[0], "invalid parameter", row.reporter));
        EXPECT_EQ(run.options.section, nullptr);
    }
}

TEST_F(Dispatch, refused_options_leave_server_and_files_alone)
{
    const HeldFifo fifo;
    const int opened = wraps::calls(wraps::OPEN);
    const ToolRun save({"save"});
    EXPECT_EQ(save.status, 1);
    const ToolRun start({"start", "-l", LOG, "-f", "/tmp/file", "--Post0DateOn=2"});
    EXPECT_EQ(start.status, 1);
    EXPECT_EQ(wraps::calls(wraps::OPEN), opened);
    EXPECT_EQ(wraps::calls(wraps::FOPEN), 0);
    EXPECT_EQ(support::temporary_files(), Lines{"osd_fifo_req"});
}

TEST_F(Dispatch, prints_zone_reports_and_usage_in_this_order)
{
    osd_options options = {};
    const Output output = capture([&] {
        cmn_start_log(LOG); // both streams as one
        run_tool({"bogus"}, &options);
    });
    EXPECT_EQ(output.out + output.err, "");
    EXPECT_EQ(take_log(), NO_ZONE + report("", "unknown command", "osd_get_option") +
                              report("", "invalid parameter", "osd_print_usage") + usage("help"));
}

// ---- The log file -------------------------------------------------------------------------------

// What a run printed, all in all. The line of the zone may still be in the buffer of stdout when
// the log begins, and then stands there.
void expect_logged(const ToolRun &run, const std::string &text)
{
    EXPECT_EQ(run.output.out + take_log(), NO_ZONE + text);
    EXPECT_EQ(run.output.err, "");
}

TEST_F(Dispatch, log_file_takes_the_reports)
{
    const ToolRun run({"update", "-l", LOG});
    EXPECT_EQ(run.status, 1);
    expect_logged(run, report("update", "server is not running", "osd_update") +
                           report("update", "update osd failed", "main"));
}

TEST_F(Dispatch, log_file_is_truncated_though_the_function_fails)
{
    support::write_file(LOG, "written by the server that runs\n");
    const HeldFifo fifo;
    const ToolRun run({"start", "-l", LOG});
    EXPECT_EQ(run.status, 1);
    expect_logged(run, report("start", "server is already running", "osd_start"));
}

TEST_F(Dispatch, last_log_file_counts)
{
    const ToolRun run({"update", "-l", "/tmp/other", "-l", LOG});
    EXPECT_EQ(support::temporary_files(), Lines{"log"});
    expect_logged(run, report("update", "server is not running", "osd_update") +
                           report("update", "update osd failed", "main"));
}

TEST_F(Dispatch, without_its_log_file_does_nothing)
{
    for (const char *function : {"start", "restart", "update"}) {
        SCOPED_TRACE(function);
        const ToolRun run({function, "-l", "/tmp/none/log", "--Post0DateOn=1"});
        expect_run(run, 1, "",
                   report(function,
                          "unable to open logfile /tmp/none/log(No such file or directory)",
                          "cmn_start_log") +
                       report(function, "failed to redirect log to /tmp/none/log", "main"));
        EXPECT_EQ(wraps::calls(wraps::OPEN), 0);
        EXPECT_EQ(wraps::calls(wraps::FORK), 0);
        EXPECT_NE(run.options.section, nullptr);
    }
}

// ---- status, stop -------------------------------------------------------------------------------

TEST_F(Dispatch, status_is_0_without_a_server)
{
    expect_run(ToolRun({"status"}), 0, NOT_RUNNING, "");
    expect_run(ToolRun({"status", "extra", "-x"}), 0, NOT_RUNNING, "");
}

TEST_F(Dispatch, status_is_0_for_a_fifo_without_a_reader)
{
    ASSERT_EQ(mkfifo(OSD_FIFO_REQ, OSD_FIFO_MODE), 0);
    expect_run(ToolRun({"status"}), 0, NOT_RUNNING, "");
    support::remove_file(OSD_FIFO_REQ);
}

TEST_F(Dispatch, status_is_1_with_a_server)
{
    const HeldFifo fifo;
    expect_run(ToolRun({"status"}), 1, RUNNING, "");
    expect_run(ToolRun({"status", "extra", "-x"}), 1, RUNNING, "");
}

TEST_F(Dispatch, status_itself_gives_what_it_says)
{
    int result = -1;
    EXPECT_EQ(support::output_of([&] { result = osd_status(); }), NOT_RUNNING);
    EXPECT_EQ(result, 0);
    const HeldFifo fifo;
    EXPECT_EQ(support::output_of([&] { result = osd_status(); }), RUNNING);
    EXPECT_EQ(result, 1);
}

TEST_F(Dispatch, stop_is_0_without_a_server)
{
    expect_run(ToolRun({"stop"}), 0, NOT_RUNNING, "");
    expect_run(ToolRun({"stop", "extra", "-x"}), 0, NOT_RUNNING, "");
}

TEST_F(Dispatch, stop_is_0_for_a_server_that_stops)
{
    PlayedServer server({OSD_REPLY_ACK});
    expect_run(ToolRun({"stop", "extra"}), 0, "", "");
    EXPECT_EQ(server.requests(), Requests{0x53});
}

TEST_F(Dispatch, stop_is_1_for_a_server_that_refuses)
{
    PlayedServer server({OSD_REPLY_NACK});
    expect_run(ToolRun({"stop"}), 1, "",
               report("stop", "failed to stop server", "osd_stop") +
                   report("stop", "stop osd failed", "main"));
}

// ---- update -------------------------------------------------------------------------------------

// The parameters in force, as a server has them; what an update makes of them goes, too.
class ParameterFiles
{
public:
    ParameterFiles()
    {
        support::write_file(OSD_TMP_PARAM, SOME_PARAMETERS);
    }
    ParameterFiles(const ParameterFiles &) = delete;
    ParameterFiles &operator=(const ParameterFiles &) = delete;
    ~ParameterFiles()
    {
        fs::remove(OSD_TMP_PARAM);
        fs::remove(OSD_TMP_PARAM_BAK);
    }
};

TEST_F(Dispatch, update_is_0_for_a_server_that_takes_it)
{
    const ParameterFiles files;
    PlayedServer server({OSD_REPLY_ACK, OSD_REPLY_ACK, OSD_REPLY_ACK});
    const Lines lines[] = {
        {"update"}, {"update", "extra", "--Post2DateOn=1"}, {"update", "-f", OSD_TMP_PARAM}};
    for (const Lines &words : lines) {
        const ToolRun run(words);
        expect_run(run, 0, "", "");
        EXPECT_EQ(run.options.section, nullptr);
    }
    EXPECT_EQ(server.requests(), (Requests{0x55, 0x455, 0xF55}));
}

TEST_F(Dispatch, update_is_1_without_a_server)
{
    const ToolRun run({"update", "--Post2DateOn=1"});
    expect_run(run, 1, "",
               report("update", "server is not running", "osd_update") +
                   report("update", "update osd failed", "main"));
    ASSERT_NE(run.options.section, nullptr); // left to the end of the process
    EXPECT_NE(param_section_search_parampair_key(run.options.section, "Post2DateOn"), nullptr);
}

TEST_F(Dispatch, update_is_1_for_a_server_that_has_recovered)
{
    const ParameterFiles files;
    PlayedServer server({OSD_REPLY_NACK, OSD_REPLY_ACK});
    expect_run(ToolRun({"update", "--Post0DateOn=1"}), 1, "",
               report("update", "osd server recovered parameters", "osd_update") +
                   report("update", "update osd failed", "main"));
    EXPECT_EQ(server.requests(), (Requests{0x155, 0x155}));
    EXPECT_EQ(support::read_file(OSD_TMP_PARAM), SOME_PARAMETERS);
}

// ---- save, getthdinfo ---------------------------------------------------------------------------

TEST_F(Dispatch, save_is_0_with_a_server)
{
    const ParameterFiles files;
    const HeldFifo fifo;
    expect_run(ToolRun({"save", "-f", "/tmp/saved"}), 0, "", "");
    EXPECT_EQ(support::read_file("/tmp/saved"), SOME_PARAMETERS);
    support::remove_file("/tmp/saved");
}

TEST_F(Dispatch, save_is_1_without_a_server)
{
    expect_run(ToolRun({"save", "-f", "/tmp/saved"}), 1, "",
               report("save", "server is not running", "osd_save") +
                   report("save", "save osd param failed", "main"));
}

TEST_F(Dispatch, getthdinfo_prints_the_lines_of_one_thread_or_all)
{
    const HeldFifo fifo;
    const ParameterFiles files;
    support::write_file(OSD_TMP_PARAM, "[osd]\nPost0DateOn=0\nPost2TypeOn=1\nPost2Osd0X=7\n");
    const std::string date = "#qm5osd:[getthdinfo]:Post0DateOn=0\n";
    const std::string type = "#qm5osd:[getthdinfo]:Post2TypeOn=1\n";
    const std::string place = "#qm5osd:[getthdinfo]:Post2Osd0X=7\n";
    expect_run(ToolRun({"getthdinfo"}), 0, date + type, "");
    expect_run(ToolRun({"getthdinfo", "-a"}), 0, date + type + place, "");
    expect_run(ToolRun({"getthdinfo", "-t", "2"}), 0, type, "");
    expect_run(ToolRun({"getthdinfo", "-t", "2", "-a"}), 0, type + place, "");
    expect_run(ToolRun({"getthdinfo", "-a", "-t", "2"}), 0, type + place, "");
    expect_run(ToolRun({"getthdinfo", "-t", ""}), 0, date, "");
}

TEST_F(Dispatch, getthdinfo_is_1_without_a_server)
{
    expect_run(ToolRun({"getthdinfo"}), 1, "",
               report("getthdinfo", "server is not running", "osd_getthdinfo") +
                   report("getthdinfo", "get thread info failed", "main"));
}

// ---- start, restart -----------------------------------------------------------------------------

// Instead of a sleep the tool waits for the server that it has forked; and no server lives longer
// than a test may take.
void pass_time(pid_t tool)
{
    constexpr unsigned patience = 10;
    static bool limited;
    if (getpid() == tool) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(patience);
        while (!osd_server_is_running() && std::chrono::steady_clock::now() < end)
            sched_yield();
    } else if (!limited) {
        limited = true;
        alarm(patience);
    }
}

// Waits for the end of a server and gives its exit status, or -1.
int wait_for_server()
{
    int status = 0;
    return waitpid(-1, &status, 0) > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class DispatchStart : public Dispatch
{
protected:
    void SetUp() override
    {
        Dispatch::SetUp();
        wraps::on_nanosleep([tool = getpid()] { pass_time(tool); });
        common_.emplace(SOME_PARAMETERS);
    }
    void TearDown() override
    {
        common_.reset();
        Dispatch::TearDown();
    }

private:
    std::optional<CommonFile> common_;
};

TEST_F(DispatchStart, is_0_and_leaves_a_server_that_ends_with_1)
{
    const ToolRun start({"start", "extra", "--Post1TimeOn=1"});
    expect_run(start, 0, "", "");
    EXPECT_EQ(start.options.section, nullptr);

    expect_run(ToolRun({"status"}), 1, RUNNING, "");
    expect_run(ToolRun({"update", "--Post1TypeOn=1"}), 0, "", "");
    expect_run(ToolRun({"getthdinfo", "-t1"}), 0,
               "#qm5osd:[getthdinfo]:Post1DateOn=1\n"
               "#qm5osd:[getthdinfo]:Post1TimeOn=1\n"
               "#qm5osd:[getthdinfo]:Post1TypeOn=1\n"
               "#qm5osd:[getthdinfo]:Post1StringOn=0\n"
               "#qm5osd:[getthdinfo]:Post1String=\n"
               "#qm5osd:[getthdinfo]:Post1StringColor=3\n",
               "");
    expect_run(ToolRun({"stop"}), 0, "", "");
    EXPECT_EQ(wait_for_server(), 1);
}

TEST_F(DispatchStart, restart_is_0_with_and_without_a_server)
{
    for (int i = 0; i < 2; i++) {
        const ToolRun restart({"restart", "--Post1TimeOn=1"});
        expect_run(restart, 0, "", "");
        EXPECT_EQ(restart.options.section, nullptr);
    }
    EXPECT_EQ(wait_for_server(), 1); // the first
    expect_run(ToolRun({"stop"}), 0, "", "");
    EXPECT_EQ(wait_for_server(), 1);
}

TEST_F(DispatchStart, server_writes_to_the_log_file_of_the_tool)
{
    const ToolRun start({"start", "-l", LOG});
    EXPECT_EQ(start.status, 0);
    const std::uint32_t unknown = 0x7A;
    const int fd = open(OSD_FIFO_REQ, O_WRONLY | O_NONBLOCK);
    EXPECT_EQ(write(fd, &unknown, sizeof unknown), 4);
    close(fd);
    expect_run(ToolRun({"stop"}), 0, "", "");
    EXPECT_EQ(wait_for_server(), 1);

    // Of the buffer with the zone's line both processes have a copy.
    std::string log = take_log();
    while (log.starts_with(NO_ZONE))
        log.erase(0, NO_ZONE.size());
    EXPECT_EQ(log, report("server", "invalid request 0x0000007A", "osd_do_request"));
}

TEST_F(DispatchStart, is_1_in_the_server_without_a_report_of_its_own)
{
    for (const char *function : {"start", "restart"}) {
        SCOPED_TRACE(function);
        wraps::set_fork(0);
        codec::fail(codec::LIBRARY_INIT, 1, codec::SOME_ERROR);
        const ToolRun run({function});
        expect_run(run, 1, "",
                   report("server", "qm5_cl_library_init() failed. errno=0x81E01234",
                          "osd_server_init_process") +
                       report("server", "osd server down", "osd_server_run"));
        EXPECT_NE(run.options.section, nullptr);
        support::remove_file(OSD_TMP_PARAM);
    }
}

TEST_F(DispatchStart, is_1_with_a_server_without_a_report_of_its_own)
{
    const HeldFifo fifo;
    const ToolRun run({"start", "--Post0DateOn=1"});
    expect_run(run, 1, "", report("start", "server is already running", "osd_start"));
    EXPECT_NE(run.options.section, nullptr);
}

TEST_F(DispatchStart, restart_is_1_for_a_server_that_does_not_stop)
{
    PlayedServer server({OSD_REPLY_NACK});
    expect_run(ToolRun({"restart"}), 1, "",
               report("restart", "failed to stop server", "osd_stop") +
                   report("restart", "failed to stop server", "osd_restart"));
    EXPECT_EQ(server.requests(), Requests{0x53});
}

TEST_F(Dispatch, start_is_1_without_its_parameters)
{
    const CommonFile common("");
    const std::string failed = "failed to read common parameter file";
    expect_run(ToolRun({"start"}), 1, "",
               report("start", "no osd section in parameter file", "osd_read_parameter_file") +
                   report("start", failed, "osd_read_cmnparam_file") +
                   report("start", failed, "osd_start"));
    EXPECT_EQ(wraps::calls(wraps::FORK), 0);
}

} // namespace
