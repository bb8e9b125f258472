// The client functions: status, stop, update with its backup and roll-back, save and getthdinfo.
#include "cli/client.h"

#include "server/channel.h"
#include "support/osd_test.h"
#include "support/wraps.h"
#include "unit/channel_peers.h"
#include "unit/client_options.h"
#include "unit/parameter_text.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace
{

using channel_peer::bytes_of;
using channel_peer::FakeServer;
using channel_peer::operator+;
using client::Options;
using client::Pairs;
using parameters::Changes;
using parameters::full_text;
using support::Lines;
using support::read_file;
using support::report;
using support::temporary_files;
using support::write_file;

constexpr const char *NOT_RUNNING = "#qm5osd:OSD server is not running\n";
constexpr const char *FILE_OF_F = "/tmp/parameters";
constexpr const char *SAVED = "/tmp/saved";
const std::string ACK = bytes_of(0x41);
const std::string NACK = bytes_of(0x4E);

// A parameter file of the server, different from the defaults and from each other by `number`.
std::string old_text(const std::string &number = "1")
{
    return full_text({{"OsdFontFile", "/font"}, {"Post2Osd3H", number}});
}

// ---- The fixture --------------------------------------------------------------------------------

class Client : public channel_peer::BoundedTest
{
protected:
    void SetUp() override
    {
        BoundedTest::SetUp();
        cmn_role = "role";
    }

    // Removes what the tests' steps leave behind.
    void TearDown() override
    {
        server_.reset();
        for (const char *path : {OSD_TMP_PARAM, OSD_TMP_PARAM_BAK, FILE_OF_F, SAVED})
            std::filesystem::remove(path);
        BoundedTest::TearDown();
    }

    // A running server with these parameters in force.
    FakeServer &serve(std::vector<std::string> replies = {}, const std::string &text = old_text())
    {
        write_file(OSD_TMP_PARAM, text);
        return server_.emplace(std::move(replies));
    }

    FakeServer &server()
    {
        return *server_;
    }

private:
    std::optional<FakeServer> server_;
};

// Result, output and calls of a client function.
struct Outcome {
    int result = 0;
    support::Output output;
    Lines calls; // of what touches files and FIFOs
};

Outcome watch(const std::function<int()> &function)
{
    for (const auto call : {wraps::OPEN, wraps::MKFIFO, wraps::UNLINK, wraps::RENAME, wraps::FOPEN})
        wraps::trace(call);
    Outcome outcome;
    outcome.output = support::capture([&] {
        support::take_trace();
        outcome.result = function();
        outcome.calls = support::take_trace();
    });
    return outcome;
}

const Lines TEST_RUNNING = {"open(/tmp/osd_fifo_req, 04001)"};
const Lines EXCHANGE =
    TEST_RUNNING + Lines{"mkfifo(/tmp/osd_fifo_ack, 0644)", "open(/tmp/osd_fifo_req, 01)",
                         "open(/tmp/osd_fifo_ack, 00)", "unlink(/tmp/osd_fifo_ack)"};
const std::string READ_PARAMETERS = "fopen(/tmp/osd_tmp_param.txt, r)";
const std::string WRITE_PARAMETERS = "fopen(/tmp/osd_tmp_param.txt, w)";
const std::string BACK_UP = "rename(/tmp/osd_tmp_param.txt, /tmp/osd_tmp_param.bak)";
const std::string RESTORE = "rename(/tmp/osd_tmp_param.bak, /tmp/osd_tmp_param.txt)";

// ---- status, stop -------------------------------------------------------------------------------

TEST_F(Client, status_says_that_no_server_runs)
{
    const Outcome outcome = watch(osd_status);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, NOT_RUNNING);
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
}

TEST_F(Client, status_of_a_fifo_that_nobody_reads_is_not_running)
{
    ASSERT_EQ(mkfifo(OSD_FIFO_REQ, 0644), 0);
    EXPECT_EQ(support::output_of([] { EXPECT_EQ(osd_status(), 0); }), NOT_RUNNING);
    support::remove_file(OSD_FIFO_REQ);
}

TEST_F(Client, status_says_that_a_server_runs_and_asks_it_for_nothing)
{
    serve();
    const Outcome outcome = watch(osd_status);
    EXPECT_EQ(outcome.result, 1);
    EXPECT_EQ(outcome.output.out, "#qm5osd:OSD server is running\n");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
    EXPECT_TRUE(server().requests().empty());
}

TEST_F(Client, stop_sends_the_stop_word)
{
    serve();
    const Outcome outcome = watch(osd_stop);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, EXCHANGE);
    EXPECT_EQ(server().words(), Lines{bytes_of(83)});
    EXPECT_EQ(read_file(OSD_TMP_PARAM), old_text()); // removing it is the server's
}

TEST_F(Client, stop_without_a_server_is_good)
{
    const Outcome outcome = watch(osd_stop);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, NOT_RUNNING);
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
}

TEST_F(Client, stop_fails_if_it_is_refused)
{
    serve({NACK});
    const Outcome outcome = watch(osd_stop);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, report("role", "failed to stop server", "osd_stop"));
    EXPECT_EQ(server().requests().size(), 1u);
}

TEST_F(Client, stop_fails_if_the_exchange_breaks)
{
    serve({"A"});
    const Outcome outcome = watch(osd_stop);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err, report("role", "failed to send get reply", "osd_send_request") +
                                      report("role", "failed to stop server", "osd_stop"));
}

TEST_F(Client, stop_fails_with_one_result_whatever_the_reason)
{
    serve();
    wraps::fail(wraps::MKFIFO, 1, ENOSPC);
    const Outcome outcome = watch(osd_stop);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(
        outcome.output.err,
        report("role", "unable to create fifo /tmp/osd_fifo_ack for reply", "osd_send_request") +
            report("role", "failed to stop server", "osd_stop"));
}

// ---- update that succeeds -----------------------------------------------------------------------

Outcome update(const Pairs &pairs = {}, std::uint32_t post = 0, const char *file = nullptr)
{
    const Options options(pairs, post, file);
    return watch([&options] { return osd_update(options.get()); });
}

std::string update_report(std::string_view message)
{
    return report("role", message, "osd_update");
}

TEST_F(Client, update_brings_the_options_to_the_server)
{
    serve();
    const Outcome outcome = update({{"Post0DateOn", "1"}, {"Post3String", " a=b; "}}, 9);
    const std::string text = full_text({{"OsdFontFile", "/font"},
                                        {"Post2Osd3H", "1"},
                                        {"Post0DateOn", "1"},
                                        {"Post3String", " a=b; "}});
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(server().words(), Lines{bytes_of(0x955)});
    EXPECT_EQ(server().requests()[0].parameters, text); // before the word
    EXPECT_EQ(read_file(OSD_TMP_PARAM), text);
    EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), old_text());
}

TEST_F(Client, update_goes_by_its_steps)
{
    serve();
    write_file(FILE_OF_F, "[osd]\n");
    const Lines calls = update({}, 15, FILE_OF_F).calls;
    EXPECT_EQ(calls,
              TEST_RUNNING +
                  (Lines{READ_PARAMETERS, "fopen(/tmp/parameters, r)", BACK_UP, WRITE_PARAMETERS}) +
                  EXCHANGE);
}

TEST_F(Client, update_sends_the_mask_as_it_stands)
{
    constexpr std::uint32_t rows[][2] = {{0, 0x55},  {1, 0x155}, {2, 0x255},
                                         {4, 0x455}, {8, 0x855}, {15, 0xF55}};
    serve();
    Lines expected;
    for (const auto &[mask, word] : rows) {
        EXPECT_EQ(update({}, mask).result, 0);
        expected.push_back(bytes_of(word));
    }
    EXPECT_EQ(server().words(), expected);
}

TEST_F(Client, update_without_options_writes_the_same_parameters)
{
    serve();
    EXPECT_EQ(update().result, 0);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), old_text());
    EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), old_text());
}

TEST_F(Client, update_lays_its_layers_one_over_another)
{
    serve({}, "[osd]\nOsdFontFile=/font\nPost0Osd0X=11\nPost0Osd0Y=11\nPost0Osd0W=11\n");
    write_file(FILE_OF_F, "[osd]\nPost0Osd0Y=22\nPost0Osd0W=22\n");
    EXPECT_EQ(update({{"Post0Osd0W", "33"}}, 15, FILE_OF_F).result, 0);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), full_text({{"OsdFontFile", "/font"},
                                                   {"Post0Osd0X", "11"},
                                                   {"Post0Osd0Y", "22"},
                                                   {"Post0Osd0W", "33"}}));
}

TEST_F(Client, update_takes_the_last_of_repeated_options)
{
    serve();
    EXPECT_EQ(update({{"Post0DateOn", "0"},
                      {"Post0DateOn", "1"},
                      {"Post1TimeOn", "1"},
                      {"Post1TimeOn", "0"}})
                  .result,
              0);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), full_text({{"OsdFontFile", "/font"},
                                                   {"Post2Osd3H", "1"},
                                                   {"Post0DateOn", "1"},
                                                   {"Post1TimeOn", "0"}}));
}

TEST_F(Client, update_clears_a_string_by_an_empty_option_and_not_by_a_file)
{
    const Changes strings = {
        {"OsdFontFile", "/font"}, {"Post0String", "zero"}, {"Post1String", "one"}};
    serve({}, full_text(strings));
    write_file(FILE_OF_F, "[osd]\nPost0String=\nPost1String=\n");
    EXPECT_EQ(update({{"Post0String", ""}}, 15, FILE_OF_F).result, 0);
    EXPECT_EQ(read_file(OSD_TMP_PARAM),
              full_text({{"OsdFontFile", "/font"}, {"Post1String", "one"}}));
    EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), full_text(strings));
}

TEST_F(Client, update_keeps_the_parameters_before_it_as_the_backup)
{
    serve();
    const std::string first = full_text({{"OsdFontFile", "/1"}, {"Post2Osd3H", "1"}});
    const std::string second = full_text({{"OsdFontFile", "/2"}, {"Post2Osd3H", "1"}});
    write_file(FILE_OF_F, "[osd]\nOsdFontFile=/1\n");
    EXPECT_EQ(update({}, 15, FILE_OF_F).result, 0);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), first);
    EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), old_text());

    write_file(FILE_OF_F, "[osd]\nOsdFontFile=/2\n");
    EXPECT_EQ(update({}, 15, FILE_OF_F).result, 0);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), second);
    EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), first);
}

// Another run of the tool may have taken the file away in between.
TEST_F(Client, update_goes_on_without_a_file_to_back_up)
{
    serve();
    wraps::fail(wraps::RENAME, 1, ENOENT);
    const Outcome outcome = update({{"Post0DateOn", "1"}}, 1);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(read_file(OSD_TMP_PARAM),
              full_text({{"OsdFontFile", "/font"}, {"Post2Osd3H", "1"}, {"Post0DateOn", "1"}}));
    EXPECT_EQ(server().words(), Lines{bytes_of(0x155)});
}

// ---- update that fails before the server is asked -----------------------------------------------

class FailingUpdate : public Client
{
protected:
    // The parameters in force as they were, no backup, and no request.
    void expect_untouched()
    {
        EXPECT_EQ(read_file(OSD_TMP_PARAM), old_text());
        EXPECT_FALSE(std::filesystem::exists(OSD_TMP_PARAM_BAK));
        EXPECT_TRUE(server().requests().empty());
    }
};

TEST_F(FailingUpdate, needs_its_record)
{
    serve();
    const Outcome outcome = watch([] { return osd_update(nullptr); });
    EXPECT_EQ(outcome.result, -22);
    EXPECT_EQ(outcome.output.err, update_report("invalid parameter"));
    EXPECT_EQ(outcome.calls, Lines{});
    expect_untouched();
}

TEST_F(FailingUpdate, needs_a_server)
{
    write_file(OSD_TMP_PARAM, old_text());
    const Outcome outcome = update({{"Post0DateOn", "1"}}, 1);
    EXPECT_EQ(outcome.result, -121);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, update_report("server is not running"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), old_text());
    EXPECT_EQ(temporary_files(), Lines{"osd_tmp_param.txt"});
}

TEST_F(FailingUpdate, needs_memory_for_the_defaults)
{
    serve();
    const Options options({}, 0, nullptr);
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    const Outcome outcome = watch([&options] { return osd_update(options.get()); });
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              report("role", "no memory", "param_section_new") +
                  report("role", "failed to create osd section", "osd_get_default_section") +
                  update_report("failed to get osd default section"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
    expect_untouched();
}

TEST_F(FailingUpdate, needs_the_parameters_in_force)
{
    serve();
    support::remove_file(OSD_TMP_PARAM);
    const Outcome outcome = update();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              report("role", "cannot open file /tmp/osd_tmp_param.txt(No such file or directory)",
                     "param_seclist_new") +
                  report("role", "failed to read parameter file", "osd_read_parameter_file") +
                  update_report("failed to read temporary parameter file"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING + Lines{READ_PARAMETERS});
    EXPECT_EQ(temporary_files(), Lines{"osd_fifo_req"});
    EXPECT_TRUE(server().requests().empty());
}

std::string invalid_value_reports(std::string_view message)
{
    return report("role", message, "osd_check_param") +
           report("role", "invalid osd parameter", "osd_check_section") +
           report("role", "invalid parameter in osd section", "osd_read_parameter_file");
}

// Defaults alone are no parameters in force: their font is missing.
TEST_F(FailingUpdate, refuses_invalid_parameters_in_force)
{
    serve({}, full_text({}));
    const Outcome outcome = update();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              invalid_value_reports("invalid value '(null)' of key OsdFontFile") +
                  update_report("failed to read temporary parameter file"));
    EXPECT_EQ(read_file(OSD_TMP_PARAM), full_text({}));
    EXPECT_EQ(temporary_files(), (Lines{"osd_fifo_req", "osd_tmp_param.txt"}));
}

TEST_F(FailingUpdate, refuses_a_bad_file_before_it_touches_anything)
{
    const struct {
        const char *text;
        std::string reports;
    } rows[] = {
        {"[osd]\nPost0DateOn=2\n", invalid_value_reports("invalid value '2' of key Post0DateOn")},
        {"[osd]\nNoKey=1\n", invalid_value_reports("invalid key 'NoKey'")},
        {"[other]\nPost0DateOn=1\n",
         report("role", "no osd section in parameter file", "osd_read_parameter_file")},
        {"Post0DateOn=1\n",
         report("role", "no section header", "param_seclist_new") +
             report("role", "failed to read parameter file", "osd_read_parameter_file")},
    };
    serve();
    for (const auto &[text, reports] : rows) {
        write_file(FILE_OF_F, text);
        const Outcome outcome = update({{"Post0DateOn", "1"}}, 15, FILE_OF_F);
        EXPECT_EQ(outcome.result, -14);
        EXPECT_EQ(outcome.output.out, "");
        EXPECT_EQ(outcome.output.err, reports + update_report("failed to read osd parameter file"));
        EXPECT_EQ(outcome.calls,
                  TEST_RUNNING + (Lines{READ_PARAMETERS, "fopen(/tmp/parameters, r)"}));
    }
    expect_untouched();
}

TEST_F(FailingUpdate, fails_if_an_option_cannot_be_set)
{
    serve();
    const Outcome outcome = update({{"NoKey", "1"}});
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              report("role", "key NoKey is not found in section osd",
                     "param_section_search_set_parampair") +
                  report("role", "search set parampair failed", "osd_section_set_parampair") +
                  report("role", "failed to set section", "osd_section_overwrite") +
                  update_report("failed to set osd options to osd section"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING + Lines{READ_PARAMETERS});
    expect_untouched();
}

TEST_F(FailingUpdate, fails_if_the_parameters_cannot_be_backed_up)
{
    serve();
    wraps::fail(wraps::RENAME, 1, EACCES);
    const Outcome outcome = update({{"Post0DateOn", "1"}}, 1);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              update_report("failed to rename temporary parameter file. errno=0x0000000D"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING + (Lines{READ_PARAMETERS, BACK_UP}));
    expect_untouched();
}

const std::string WRITE_REPORTS =
    report("role", "cannot open file(No space left on device)", "param_section_write_file") +
    update_report("failed to create temporary parameter file");

TEST_F(FailingUpdate, brings_the_backup_back_if_the_parameters_cannot_be_written)
{
    serve();
    wraps::fail(wraps::FOPEN, 2, ENOSPC);
    const Outcome outcome = update({{"Post0DateOn", "1"}}, 1);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err, WRITE_REPORTS);
    EXPECT_EQ(outcome.calls,
              TEST_RUNNING + (Lines{READ_PARAMETERS, BACK_UP, WRITE_PARAMETERS, RESTORE}));
    expect_untouched();
}

TEST_F(FailingUpdate, reports_that_the_backup_could_not_be_brought_back)
{
    serve();
    wraps::fail(wraps::FOPEN, 2, ENOSPC);
    wraps::fail(wraps::RENAME, 2, EPERM);
    const Outcome outcome = update({{"Post0DateOn", "1"}}, 1);
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              WRITE_REPORTS + update_report("failed to recover parameter file. errno=0x00000001"));
    EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), old_text());
    EXPECT_EQ(temporary_files(), (Lines{"osd_fifo_req", "osd_tmp_param.bak"}));
    EXPECT_TRUE(server().requests().empty());
}

TEST_F(FailingUpdate, says_nothing_of_a_backup_that_is_not_there)
{
    serve();
    wraps::fail(wraps::FOPEN, 2, ENOSPC);
    wraps::fail(wraps::RENAME, 2, ENOENT);
    const Outcome outcome = update();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err, WRITE_REPORTS);
    EXPECT_TRUE(server().requests().empty());
}

// ---- update that the server doesn't carry out ---------------------------------------------------

const std::string NEW_TEXT =
    full_text({{"OsdFontFile", "/font"}, {"Post2Osd3H", "1"}, {"Post1TimeOn", "1"}});

class RefusedUpdate : public Client
{
protected:
    Outcome update_post_1()
    {
        return update({{"Post1TimeOn", "1"}}, 2);
    }

    void expect_new_parameters_with_backup()
    {
        EXPECT_EQ(read_file(OSD_TMP_PARAM), NEW_TEXT);
        EXPECT_EQ(read_file(OSD_TMP_PARAM_BAK), old_text());
    }

    void expect_old_parameters()
    {
        EXPECT_EQ(read_file(OSD_TMP_PARAM), old_text());
        EXPECT_FALSE(std::filesystem::exists(OSD_TMP_PARAM_BAK));
    }

    // What the parameter file held at each request, all of them updates of post 1.
    Lines parameters_at_requests()
    {
        Lines all;
        for (const auto &request : server().requests()) {
            EXPECT_EQ(request.word, bytes_of(0x255));
            all.push_back(request.parameters);
        }
        return all;
    }
};

const Lines UPDATE = TEST_RUNNING + (Lines{READ_PARAMETERS, BACK_UP, WRITE_PARAMETERS}) + EXCHANGE;

TEST_F(RefusedUpdate, is_rolled_back_on_both_sides)
{
    serve({NACK, ACK});
    const Outcome outcome = update_post_1();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, update_report("osd server recovered parameters"));
    EXPECT_EQ(outcome.calls, UPDATE + Lines{RESTORE} + EXCHANGE);
    EXPECT_EQ(parameters_at_requests(), (Lines{NEW_TEXT, old_text()}));
    expect_old_parameters();
}

TEST_F(RefusedUpdate, is_rolled_back_if_the_exchange_broke)
{
    const std::pair<std::string, std::string> rows[] = {
        {bytes_of(0x141), report("role", "invalid reply 0x00000141 received", "osd_send_request")},
        {"", report("role", "failed to send get reply", "osd_send_request")},
    };
    for (const auto &[reply, reports] : rows) {
        serve({reply, ACK});
        const Outcome outcome = update_post_1();
        EXPECT_EQ(outcome.result, -14);
        EXPECT_EQ(outcome.output.err, reports + update_report("osd server recovered parameters"));
        EXPECT_EQ(parameters_at_requests(), (Lines{NEW_TEXT, old_text()}));
        expect_old_parameters();
    }
}

TEST_F(RefusedUpdate, restores_the_file_if_the_server_refuses_that_too)
{
    serve({NACK, NACK, ACK});
    const Outcome outcome = update_post_1();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err, update_report("failed to update server"));
    EXPECT_EQ(parameters_at_requests(), (Lines{NEW_TEXT, old_text()})); // and no third
    expect_old_parameters();
}

TEST_F(RefusedUpdate, restores_the_file_if_the_server_has_gone_since)
{
    serve({NACK});
    wraps::fail(wraps::OPEN, 5, ENXIO); // running test of the second request
    const Outcome outcome = update_post_1();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err, update_report("failed to update server"));
    EXPECT_EQ(outcome.calls, UPDATE + Lines{RESTORE} + TEST_RUNNING);
    expect_old_parameters();
}

TEST_F(RefusedUpdate, asks_no_second_time_if_the_file_cannot_be_restored)
{
    serve({NACK});
    wraps::fail(wraps::RENAME, 2, EACCES);
    const Outcome outcome = update_post_1();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err,
              update_report("failed to recover parameter file. errno=0x0000000D"));
    EXPECT_EQ(outcome.calls, UPDATE + Lines{RESTORE});
    EXPECT_EQ(parameters_at_requests(), Lines{NEW_TEXT});
    expect_new_parameters_with_backup();
}

TEST_F(RefusedUpdate, asks_a_second_time_if_there_is_no_backup)
{
    serve({NACK, ACK});
    wraps::fail(wraps::RENAME, 2, ENOENT);
    const Outcome outcome = update_post_1();
    EXPECT_EQ(outcome.result, -14);
    EXPECT_EQ(outcome.output.err, update_report("osd server recovered parameters"));
    EXPECT_EQ(parameters_at_requests(), (Lines{NEW_TEXT, NEW_TEXT}));
}

TEST_F(RefusedUpdate, is_not_rolled_back_without_a_server_or_a_fifo)
{
    const struct {
        wraps::Function function;
        int nth;
        std::string reports;
    } rows[] = {
        {wraps::OPEN, 2, ""}, // the second running test: the server has gone
        {wraps::MKFIFO, 1,
         report("role", "unable to create fifo /tmp/osd_fifo_ack for reply", "osd_send_request")},
        {wraps::OPEN, 3,
         report("role", "unable to open fifo /tmp/osd_fifo_req for request", "osd_send_request")},
        {wraps::OPEN, 4,
         report("role", "unable to open fifo /tmp/osd_fifo_ack for reply", "osd_send_request")},
    };
    for (const auto &[function, nth, reports] : rows) {
        serve();
        wraps::reset();
        wraps::fail(function, nth, EIO);
        const Outcome outcome = update_post_1();
        EXPECT_EQ(outcome.result, -14);
        EXPECT_EQ(outcome.output.err, reports + update_report("failed to update server"));
        EXPECT_EQ(std::count(outcome.calls.begin(), outcome.calls.end(), RESTORE), 0);
        EXPECT_LE(server().requests().size(), 1u);
        expect_new_parameters_with_backup();
    }
}

// ---- save ---------------------------------------------------------------------------------------

Outcome save(const char *path)
{
    osd_options options{};
    options.command = OSD_CMD_SAVE;
    options.paramFile = path;
    return watch([&options] { return osd_save(&options); });
}

// The lines of a text but those of the posts that hold "ColorBg=".
std::string without_backgrounds(const std::string &text)
{
    std::string kept;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = text.find('\n', at) + 1;
        const std::string line = text.substr(at, end - at);
        if (!(line.starts_with("Post") && line.find("ColorBg=") != std::string::npos))
            kept += line;
        at = end;
    }
    return kept;
}

TEST_F(Client, save_copies_all_but_the_backgrounds_of_rectangles)
{
    serve();
    const Outcome outcome = save(SAVED);
    const std::string text = read_file(SAVED);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, "");
    EXPECT_EQ(outcome.calls, TEST_RUNNING + (Lines{READ_PARAMETERS, "fopen(/tmp/saved, w)"}));
    EXPECT_EQ(text, without_backgrounds(old_text()));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + 148);
    EXPECT_EQ(text.find("Post0Osd0ColorBg"), std::string::npos);
    EXPECT_NE(text.find("\nPost0Osd0ColorFg=3\n"), std::string::npos);
    EXPECT_NE(text.find("\nOsdStringBgColor=0\n"), std::string::npos);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), old_text());
    EXPECT_TRUE(server().requests().empty());
}

TEST_F(Client, saved_file_serves_as_a_parameter_file)
{
    const std::string text = full_text({{"OsdFontFile", "/font"}, {"Post1String", "  x  "}});
    serve({}, text);
    EXPECT_EQ(save(SAVED).result, 0);
    write_file(OSD_TMP_PARAM, old_text());
    EXPECT_EQ(update({}, 15, SAVED).result, 0);
    EXPECT_EQ(read_file(OSD_TMP_PARAM), text);
}

TEST_F(Client, save_looks_for_backgrounds_at_byte_9_only)
{
    const std::string kept = "; comment\r\n\n"
                             "12345678ColorBg=1\n"
                             "1234567890ColorBg=1\n"
                             "123456789colorBg=1\n"
                             "123456789ColorB\n"
                             "123456789\n"
                             "12345678\n"
                             "x\n";
    serve({}, "[any]\n" + kept + "123456789ColorBg\n" + "123456789ColorBg=ff\n" + kept +
                  "123456789ColorBgXYZ");
    write_file(SAVED,
               "what was there before, and was longer than the new text " + std::string(200, '.'));
    EXPECT_EQ(save(SAVED).result, 0);
    EXPECT_EQ(read_file(SAVED), "[any]\n" + kept + kept);
}

TEST_F(Client, save_keeps_a_last_line_without_line_feed)
{
    serve({}, "[osd]\nPost0String=abc");
    EXPECT_EQ(save(SAVED).result, 0);
    EXPECT_EQ(read_file(SAVED), "[osd]\nPost0String=abc");
}

// A piece of 2048 bytes counts as a line, and so does the rest.
TEST_F(Client, save_takes_a_long_line_for_several)
{
    const std::string piece(2048, 'a');
    const std::string background = "123456789ColorBg=1\n";
    serve({}, piece + background + piece.substr(1) + background + piece.substr(1) + '\n' +
                  background + "x\n");
    EXPECT_EQ(save(SAVED).result, 0);
    EXPECT_EQ(read_file(SAVED),
              piece + piece.substr(1) + background + piece.substr(1) + '\n' + "x\n");
}

TEST_F(Client, save_needs_record_and_file_name)
{
    serve();
    const Outcome outcomes[] = {watch([] { return osd_save(nullptr); }), save(nullptr)};
    for (const Outcome &outcome : outcomes) {
        EXPECT_EQ(outcome.result, -22);
        EXPECT_EQ(outcome.output.err, report("role", "invalid parameter", "osd_save"));
        EXPECT_EQ(outcome.calls, Lines{});
    }
}

TEST_F(Client, save_needs_a_server)
{
    write_file(OSD_TMP_PARAM, old_text());
    const Outcome outcome = save(SAVED);
    EXPECT_EQ(outcome.result, -121);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, report("role", "server is not running", "osd_save"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
    EXPECT_EQ(temporary_files(), Lines{"osd_tmp_param.txt"});
}

TEST_F(Client, save_without_parameters_leaves_the_file_alone)
{
    serve();
    support::remove_file(OSD_TMP_PARAM);
    write_file(SAVED, "kept");
    const Outcome outcome = save(SAVED);
    EXPECT_EQ(outcome.result, -13);
    EXPECT_EQ(outcome.output.err,
              report("role",
                     "unable to open temporary parameter file /tmp/osd_tmp_param.txt"
                     "(No such file or directory)",
                     "osd_save"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING + Lines{READ_PARAMETERS});
    EXPECT_EQ(read_file(SAVED), "kept");
}

TEST_F(Client, save_fails_if_the_file_cannot_be_opened)
{
    serve();
    const Outcome outcome = save("/tmp/none/saved");
    EXPECT_EQ(outcome.result, -13);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err,
              report("role",
                     "unable to open parameter file /tmp/none/saved(No such file or directory)",
                     "osd_save"));
}

TEST_F(Client, save_does_not_look_at_write_errors)
{
    serve();
    const Outcome outcome = save("/dev/full");
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.output.err, "");
}

// ---- getthdinfo ---------------------------------------------------------------------------------

constexpr std::uint32_t EVERY_POST = 0xFFFFFFFF;

Outcome getthdinfo(std::uint32_t post, bool all = false)
{
    osd_options options{};
    options.command = OSD_CMD_GETTHDINFO;
    options.post = post;
    options.all = all ? 1 : 0;
    options.funcName = "getthdinfo";
    return watch([&options] { return osd_getthdinfo(&options); });
}

// Lines as getthdinfo shows them, of keys behind "PostX".
std::string shown(int post, std::initializer_list<const char *> lines)
{
    std::string text;
    for (const char *line : lines)
        text += "#qm5osd:[getthdinfo]:Post" + std::to_string(post) + line + '\n';
    return text;
}

std::string shown_texts(int post)
{
    return shown(post,
                 {"DateOn=0", "TimeOn=0", "TypeOn=0", "StringOn=0", "String=", "StringColor=3"});
}

std::string shown_rectangles(int post)
{
    return shown(post, {"Rectangle0On=0",  "Osd0ColorType=2", "Osd0ColorFg=3",   "Osd0X=0",
                        "Osd0Y=0",         "Osd0W=0",         "Osd0H=0",         "Rectangle1On=0",
                        "Osd1ColorType=1", "Osd1ColorFg=3",   "Osd1X=0",         "Osd1Y=0",
                        "Osd1W=0",         "Osd1H=0",         "Rectangle2On=0",  "Osd2ColorType=0",
                        "Osd2ColorFg=3",   "Osd2X=0",         "Osd2Y=0",         "Osd2W=0",
                        "Osd2H=0",         "Rectangle3On=0",  "Osd3ColorType=0", "Osd3ColorFg=3",
                        "Osd3X=0",         "Osd3Y=0",         "Osd3W=0",         "Osd3H=0"});
}

TEST_F(Client, getthdinfo_shows_the_texts_of_one_post)
{
    serve({}, full_text({}));
    for (int post = 0; post < 4; post++) {
        const Outcome outcome = getthdinfo(static_cast<std::uint32_t>(post));
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.output.out, shown_texts(post));
        EXPECT_EQ(outcome.output.err, "");
        EXPECT_EQ(outcome.calls, TEST_RUNNING + Lines{READ_PARAMETERS});
    }
    EXPECT_TRUE(server().requests().empty());
}

TEST_F(Client, getthdinfo_shows_the_rectangles_behind_the_texts)
{
    serve({}, full_text({}));
    for (int post = 0; post < 4; post++) {
        const Outcome outcome = getthdinfo(static_cast<std::uint32_t>(post), true);
        EXPECT_EQ(outcome.result, 0);
        EXPECT_EQ(outcome.output.out, shown_texts(post) + shown_rectangles(post));
    }
}

TEST_F(Client, getthdinfo_shows_every_post_for_any_other_number)
{
    const std::string texts = shown_texts(0) + shown_texts(1) + shown_texts(2) + shown_texts(3);
    const std::string rectangles =
        shown_rectangles(0) + shown_rectangles(1) + shown_rectangles(2) + shown_rectangles(3);
    serve({}, full_text({}));
    for (const std::uint32_t post : {EVERY_POST, 0x80000000u, 4u}) {
        EXPECT_EQ(getthdinfo(post).output.out, texts);
        EXPECT_EQ(getthdinfo(post, true).output.out, texts + rectangles);
    }
}

TEST_F(Client, getthdinfo_shows_values_as_they_stand_and_the_word_it_was_called_by)
{
    serve({}, "[osd]\nPost1DateOn=1\nPost1String=  %s=x \r\nPost1StringColor=");
    osd_options options{};
    options.post = 1;
    options.funcName = "word";
    const Outcome outcome = watch([&options] { return osd_getthdinfo(&options); });
    EXPECT_EQ(outcome.output.out, "#qm5osd:[word]:Post1DateOn=1\n"
                                  "#qm5osd:[word]:Post1String=  %s=x \r\n"
                                  "#qm5osd:[word]:Post1StringColor=");
}

TEST_F(Client, getthdinfo_goes_by_places_in_the_line)
{
    const std::string text = "[Post]\n"
                             "Post\n"
                             "Post1\n"
                             "PostxString\n"
                             "Post1Type\n"
                             "Post1Typ\n"
                             "Post1Date\n"
                             "Post1Time\n"
                             "Post1time\n"
                             "Post1 Time\n"
                             "Post12Time\n"
                             "Osd12TimePost1\n"
                             "post1Time\n"
                             "Post1DateColorBg\n" // at byte 9
                             "Post1StringColorBg\n"
                             "Post2TimeOn\n";
    const auto tagged = [](std::initializer_list<const char *> lines) {
        std::string all;
        for (const char *line : lines)
            all += std::string("#qm5osd:[getthdinfo]:") + line + '\n';
        return all;
    };
    serve({}, text);
    EXPECT_EQ(getthdinfo(1).output.out,
              tagged({"Post1Type", "Post1Date", "Post1Time", "Post1StringColorBg"}));
    EXPECT_EQ(getthdinfo(1, true).output.out,
              tagged({"Post1", "Post1Type", "Post1Typ", "Post1Date", "Post1Time", "Post1time",
                      "Post1 Time", "Post12Time", "Post1StringColorBg"}));
    EXPECT_EQ(getthdinfo(EVERY_POST).output.out,
              tagged({"PostxString", "Post1Type", "Post1Date", "Post1Time", "Post1StringColorBg",
                      "Post2TimeOn"}));
}

// A piece of 2048 bytes counts as a line, and so does the rest.
TEST_F(Client, getthdinfo_takes_a_long_line_for_several)
{
    const std::string line = "Post0String=" + std::string(2048 - 12, 'a');
    serve({}, line + "Post0DateOn=1\n" + line.substr(0, 2047) + "\nPost0TimeOn=1\n");
    EXPECT_EQ(getthdinfo(0).output.out, "#qm5osd:[getthdinfo]:" + line +
                                            "#qm5osd:[getthdinfo]:Post0DateOn=1\n" +
                                            "#qm5osd:[getthdinfo]:" + line.substr(0, 2047) +
                                            "\n#qm5osd:[getthdinfo]:Post0TimeOn=1\n");
}

TEST_F(Client, getthdinfo_needs_a_server)
{
    write_file(OSD_TMP_PARAM, old_text());
    const Outcome outcome = getthdinfo(0);
    EXPECT_EQ(outcome.result, -121);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err, report("role", "server is not running", "osd_getthdinfo"));
    EXPECT_EQ(outcome.calls, TEST_RUNNING);
}

TEST_F(Client, getthdinfo_needs_the_parameters_in_force)
{
    serve();
    wraps::fail(wraps::FOPEN, 1, EACCES);
    const Outcome outcome = getthdinfo(0);
    EXPECT_EQ(outcome.result, -13);
    EXPECT_EQ(outcome.output.out, "");
    EXPECT_EQ(outcome.output.err,
              report("role",
                     "unable to open temporary parameter file /tmp/osd_tmp_param.txt"
                     "(Permission denied)",
                     "osd_getthdinfo"));
}

} // namespace
