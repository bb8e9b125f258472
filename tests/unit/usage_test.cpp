// The usage texts, byte for byte, and the version.
#include "cli/usage.h"
#include "common/cmn.h"
#include "support/osd_test.h"

#include <functional>
#include <string>
#include <vector>

namespace
{

using support::capture;
using support::errors_of;
using support::Output;
using support::output_of;
using support::report;

class Usage : public support::OsdTest
{
};

class Version : public support::OsdTest
{
};

constexpr const char *OPTION_BLOCK = R"(    [OPTION]
      -f PARAMFILE                      parameter file
      -l LOGFILE                        log file
      --PostXDateOn={1|0}               show/hide date for post thread X
      --PostXTimeOn={1|0}               show/hide time for post thread X
      --PostXTypeOn={1|0}               show/hide type for post thread X
      --PostXStringOn={1|0}             show/hide user-specified string for post
                                        thread X
      --PostXString=STRING              user-specified string to show for post
                                        thread X
      --PostXStringColor=COLOR          use COLORth color in palette to show
                                        user-specified string
      --PostXRectangleYOn={1|0}         show/hide rectangle Y for post thread X
      --PostXOsdYColorFg=COLOR          use COLORth color in palette to show
                                        rectangle Y
      --PostXOsdYX=POSITIONX            use POSITIONX to show rectangle Y for
                                        post thread X
      --PostXOsdYY=POSITIONY            use POSITIONY to show rectangle Y for
                                        post thread X
      --PostXOsdYW=WIDTH                use WIDTH to show rectangle Y for post
                                        thread X
      --PostXOsdYH=HEIGHT               use HEIGHT to show rectangle Y for post
                                        thread X
    X={0|1|2|3}                         post thread number
    Y={0|1|2|3}                         OSD number
)";

constexpr const char *GENERAL = R"(ZRT5074KV OSD Application
Usage: tool --help | --version | FUNCTION
    --help              show this help and exit
    --version           show version
    FUNCTION
      start             start OSD server
      stop              stop OSD server
      status            show OSD server status
      restart           restart OSD server
      update            update OSD parameters
      save              save OSD parameters to file
      getthdinfo        get thread information
      help              show help information
)";

constexpr const char *START = R"(ZRT5074KV OSD Application
Usage: tool start [OPTION]
    start osd server
)";

constexpr const char *RESTART = R"(ZRT5074KV OSD Application
Usage: tool restart [OPTION]
    restart osd server
)";

constexpr const char *UPDATE = R"(ZRT5074KV OSD Application
Usage: tool update [OPTION]
    update parameter to osd server
)";

constexpr const char *STOP = R"(ZRT5074KV OSD Application
Usage: tool stop
    stop osd server
)";

constexpr const char *STATUS = R"(ZRT5074KV OSD Application
Usage: tool status
    show osd server status
)";

constexpr const char *SAVE = R"(ZRT5074KV OSD Application
Usage: tool save -f PARAMFILE
    save OSD parameters to file
      -f PARAMFILE      file to save parameters
)";

constexpr const char *GETTHDINFO = R"(ZRT5074KV OSD Application
Usage: tool getthdinfo [OPTION]
    get thread information
    [OPTION]
      -t {0|1|2|3}      thread number
      -a                print all information
)";

constexpr const char *HELP = R"(ZRT5074KV OSD Application
Usage: tool help [FUNCTION]
    show usage information for FUNCTION
    [FUNCTION]
      start             show start usage
      stop              show stop usage
      status            show status usage
      restart           show restart usage
      update            show update usage
      save              show save usage
      getthdinfo        show getthdinfo usage
      help              show help usage
)";

// What a program of the name "tool" prints, which must succeed and report nothing.
std::string usage_of(const char *function)
{
    std::string path = "tool";
    int result = -1;
    std::string text = output_of([&] { result = osd_print_usage(path.data(), function); });
    EXPECT_EQ(result, 0);
    return text;
}

// Both streams as one, in the order in which they were written.
std::string one_stream_of(const std::function<void()> &action)
{
    constexpr const char *log = "/tmp/log";
    const Output output = capture([&] {
        EXPECT_EQ(cmn_start_log(log), 0);
        action();
    });
    EXPECT_EQ(output.out + output.err, "");
    std::string text = support::read_file(log);
    support::remove_file(log);
    return text;
}

// ---- The texts ----------------------------------------------------------------------------------

TEST_F(Usage, without_a_function_is_the_general_one)
{
    EXPECT_EQ(usage_of(nullptr), GENERAL);
}

TEST_F(Usage, of_start_restart_and_update_share_the_option_block)
{
    EXPECT_EQ(usage_of("start"), std::string(START) + OPTION_BLOCK);
    EXPECT_EQ(usage_of("restart"), std::string(RESTART) + OPTION_BLOCK);
    EXPECT_EQ(usage_of("update"), std::string(UPDATE) + OPTION_BLOCK);
}

TEST_F(Usage, of_the_functions_without_the_option_block)
{
    EXPECT_EQ(usage_of("stop"), STOP);
    EXPECT_EQ(usage_of("status"), STATUS);
    EXPECT_EQ(usage_of("save"), SAVE);
    EXPECT_EQ(usage_of("getthdinfo"), GETTHDINFO);
    EXPECT_EQ(usage_of("help"), HELP);
}

// ---- Failures -----------------------------------------------------------------------------------

TEST_F(Usage, of_an_unknown_function_is_that_of_help_behind_a_report)
{
    const std::vector<const char *> unknown = {"bogus",     "",       "Start",  "star", "starts",
                                               "--version", "--help", " start", "-f",   "general"};
    for (const char *function : unknown) {
        SCOPED_TRACE(function);
        std::string path = "tool";
        int result = 0;
        const std::string text =
            one_stream_of([&] { result = osd_print_usage(path.data(), function); });
        EXPECT_EQ(result, -22);
        EXPECT_EQ(text, report("", "invalid parameter", "osd_print_usage") + HELP);
    }
}

TEST_F(Usage, goes_to_stdout_and_its_report_to_stderr)
{
    std::string path = "tool";
    cmn_role = "help";
    const Output output = capture([&] { osd_print_usage(path.data(), "bogus"); });
    EXPECT_EQ(output.out, HELP);
    EXPECT_EQ(output.err, report("help", "invalid parameter", "osd_print_usage"));
}

TEST_F(Usage, without_a_path_is_a_report_alone)
{
    for (const char *function : {static_cast<const char *>(nullptr), "start", "help", "bogus"}) {
        int result = 0;
        EXPECT_EQ(errors_of([&] { result = osd_print_usage(nullptr, function); }),
                  report("", "invalid parameter", "osd_print_usage"));
        EXPECT_EQ(result, -22);
    }
}

// ---- The program's name -------------------------------------------------------------------------

struct NameRow {
    const char *path;
    const char *name;
};

constexpr NameRow NAMES[] = {
    {"tool", "tool"},
    {"./tool", "tool"},
    {"/tool", "tool"},
    {"/opt/qm5/osd/bin/tool", "tool"},
    {"../bin/other", "other"},
    {"bin/tool/", "tool"},
    {"bin/tool///", "tool"},
    {"tool/", "tool"},
    {"bin//tool", "tool"},
    {"a b/c d", "c d"},
    {".", "."},
    {"..", ".."},
    {"bin/..", ".."},
    {"/", "/"},
    {"///", "/"},
    {"", "."},
    {"100%s", "100%s"},
};

// The line of a text; they count from 0.
std::string line_of(const std::string &text, int number)
{
    std::size_t begin = 0;
    for (; number > 0; number--)
        begin = text.find('\n', begin) + 1;
    return text.substr(begin, text.find('\n', begin) - begin);
}

TEST_F(Usage, shows_the_base_name_of_the_path)
{
    for (const NameRow &row : NAMES) {
        SCOPED_TRACE(row.path);
        std::string path = row.path;
        const std::string text = output_of([&] { osd_print_usage(path.data(), "stop"); });
        EXPECT_EQ(line_of(text, 0), "ZRT5074KV OSD Application");
        EXPECT_EQ(line_of(text, 1), std::string("Usage: ") + row.name + " stop");
        EXPECT_EQ(line_of(text, 2), "    stop osd server");
    }
}

TEST_F(Usage, shows_the_base_name_in_every_text)
{
    for (const char *function : {"start", "restart", "update", "status", "save", "getthdinfo",
                                 "help", static_cast<const char *>(nullptr)}) {
        std::string path = "/opt/bin/tool//";
        const std::string text = output_of([&] { osd_print_usage(path.data(), function); });
        EXPECT_EQ(text, usage_of(function));
    }
}

TEST_F(Usage, shows_the_base_name_for_an_unknown_function)
{
    std::string path = "/opt/bin/tool";
    EXPECT_EQ(capture([&] { osd_print_usage(path.data(), "bogus"); }).out, HELP);
}

// ---- Version ------------------------------------------------------------------------------------

TEST_F(Version, has_three_lines)
{
    std::string path = "tool";
    EXPECT_EQ(output_of([&] { osd_print_version(path.data()); }),
              "tool version 1.0.5\n"
              "Copyright (C) 2026 The qm5osd authors\n"
              "This program comes with ABSOLUTELY NO WARRANTY.\n");
}

TEST_F(Version, shows_the_base_name_of_the_path)
{
    for (const NameRow &row : NAMES) {
        SCOPED_TRACE(row.path);
        std::string path = row.path;
        const std::string text = output_of([&] { osd_print_version(path.data()); });
        EXPECT_EQ(line_of(text, 0), std::string(row.name) + " version 1.0.5");
    }
}

} // namespace
