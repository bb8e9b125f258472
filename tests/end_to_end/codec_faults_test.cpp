// Calls of the codec library that fail, on the real server: what it calls next, what it reports,
// what a waiting update is told, and what the outputs show afterwards, for each call and each kind
// of errno that the application tells apart.
//
// Post 3 shows the time in most of these tests, so that a pass comes each second.
#include "call_reader.h"
#include "control_files.h"
#include "sim/run_sim.h"
#include "support/application.h"
#include "support/files.h"
#include "support/rendered_text.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <map>
#include <ostream>
#include <sstream>
#include <sys/wait.h>
#include <utility>

namespace
{

namespace fs = std::filesystem;
using support::Ended;
using support::hex;
using support::report;
using support::shows_text;
using support::Words;

// ---- Errnos and reports -------------------------------------------------------------------------

struct Code {
    std::string word;
    std::uint32_t number;
};

constexpr std::uint32_t GONE = 0x81E04507; // what the simulated library itself says

// What the application tells apart.
struct Kind {
    std::string name;
    std::vector<Code> codes;
};

const Kind POST_GONE = {"gone", {{"gone1", GONE}, {"gone2", 0x81E03204}, {"gone3", 0x81E0250C}}};
const Kind REFUSED = {"refused", {{"refused", 0x81E03246}}};
const Kind OTHER = {"other", {{"0x81E00042", 0x81E00042}}};

std::ostream &operator<<(std::ostream &out, const Kind &kind)
{
    return out << kind.name;
}

// The server's reports that follow from one failure, each with the function that makes it.
using Chain = std::vector<std::pair<std::string, std::string>>;

template <typename Row>
std::vector<Row> operator+(std::vector<Row> rows, const std::vector<Row> &rest)
{
    rows.insert(rows.end(), rest.begin(), rest.end());
    return rows;
}

std::string text_of(const Chain &chain)
{
    std::string text;
    for (const auto &[message, reporter] : chain)
        text += report("server", message, reporter);
    return text;
}

std::string failed(const std::string &call, const Code &code)
{
    return "qm5_cl_" + call + "() failed. errno=" + hex(code.number);
}

// Of opens and closes.
Chain slot_failed(const std::string &call, const Code &code, const std::string &slot,
                  const char *reporter)
{
    return {{failed(call, code), reporter}, {slot, reporter}};
}

// Of the calls that draw, show and clear.
Chain osd_failed(const std::string &call, const Code &code, std::uint32_t res_id,
                 std::uint32_t handle, const char *reporter)
{
    return {{failed(call, code), reporter},
            {"ResID=" + hex(res_id) + ", Handle=" + hex(handle), reporter}};
}

const Chain PASS_ENDS = {{"osd display failed", "osd_server_main_loop"}};

Chain post_is_closed(char post)
{
    return Chain{{std::string("post ") + post + " has been closed", "osd_refresh"}} + PASS_ENDS;
}

// What becomes of a failed open, behind the reports of its reason: of a post that has come up, and
// of one that is reopened for an update.
Chain new_post_failed(char post)
{
    return {{"open osd failed", "osd_do_callback"},
            {std::string("do post ") + post + " callback failed", "osd_server_main_loop"}};
}
Chain reopen_failed(char post)
{
    return {{"open osd failed", "osd_do_callback_reopen"},
            {"re-open osd failed", "osd_do_callback"},
            {std::string("do post ") + post + " callback failed", "osd_server_main_loop"}};
}

// A full redraw that fails at a slot, with what it asked of each slot until then.
Chain redraw_failed(char post, char slot, const std::vector<std::string> &asked)
{
    const std::string name = std::string("post ") + post + " osd ";
    Chain chain = {{name + slot + " show error", "osd_refresh_all"}};
    for (std::size_t i = 0; i < SIM_OSDS; i++)
        chain.push_back(
            {name + std::to_string(i) + ": " + (i < asked.size() ? asked[i] : "x/y=0/0 w/h=0/0"),
             "osd_refresh_all"});
    return chain + PASS_ENDS;
}

// ---- Calls --------------------------------------------------------------------------------------

// A call of a record: its name, its post and OSD as "0.3", and "!" if it has failed. What is asked
// of a resource ID of 0 belongs to the post of the call before.
struct NamedCall {
    int post = -1;
    std::string text;
};

class CallNamer
{
public:
    explicit CallNamer(const std::vector<sim_call_record> &records)
    {
        for (const sim_call_record &record : records) {
            if (record.operation == SIM_NOTIFY && record.argument[2] != 0)
                posts_[record.argument[0]] = static_cast<int>(record.argument[1]);
            if (record.operation == SIM_OPEN_OSD && record.result == 0)
                osds_[record.given[0]] = record.argument[1];
        }
    }

    NamedCall name(const sim_call_record &record)
    {
        NamedCall call;
        call.text = sim_operation_names[record.operation];
        if (record.operation >= SIM_THREAD_GET_STATUS && record.operation <= SIM_SET_OSD) {
            if (record.argument[0] != 0)
                post_ = posts_.at(record.argument[0]);
            call.post = post_;
            call.text += ' ' + std::to_string(post_);
            if (record.operation != SIM_THREAD_GET_STATUS)
                call.text += '.' + std::to_string(record.operation == SIM_OPEN_OSD
                                                      ? record.argument[1]
                                                      : osds_.at(record.argument[1]));
        }
        call.text += record.result != 0 ? "!" : "";
        return call;
    }

private:
    std::map<std::uint32_t, int> posts_;          // by resource ID
    std::map<std::uint32_t, std::uint32_t> osds_; // number, by handle
    int post_ = -1;
};

constexpr int ALL_POSTS = -1;

// The calls of a record from the first one on, behind so many others, that has failed; of one post,
// or of all and of none.
Words calls_from_failure(const fs::path &record, std::uint64_t behind, int post)
{
    call_reader::Calls calls(record);
    const std::vector<sim_call_record> records = calls.read(1, calls.count());
    CallNamer namer(records);
    Words found;
    for (std::size_t i = 0; i < records.size(); i++) {
        if (records[i].operation == SIM_NOTIFY)
            continue;
        const NamedCall call = namer.name(records[i]);
        const bool failed = records[i].result != 0;
        if (i >= behind && (post == ALL_POSTS || call.post == post) && (failed || !found.empty()))
            found.push_back(call.text);
    }
    return found;
}

// ---- Fixture ------------------------------------------------------------------------------------

class FaultyCodec : public support::ApplicationTest
{
protected:
    void SetUp() override
    {
        ApplicationTest::SetUp();
        sim({"setting", "record", "1"});
    }

    // Starts the server and waits until the posts show these slots.
    void bring_up(const Words &options, const std::array<std::string, SIM_POSTS> &slots)
    {
        start(options);
        for (unsigned i = 0; i < SIM_POSTS; i++)
            ASSERT_TRUE(comes_to_show(i, slots[i])) << i;
    }

    // Nothing is left unsaid: with what the test expects, that's all the server has reported.
    void finish()
    {
        stop();
        EXPECT_EQ(new_log(), "");
    }

    // Puts these faults in the place of all others, one by one and in force at once if a server
    // runs.
    void put_faults(const Words &faults)
    {
        if (fs::exists(state_ + "/calls"))
            calls_before_ = call_reader::Calls(state_ + "/calls").count();
        sim({"fault", "clear"});
        for (const std::string &fault : faults) {
            Words words = {"fault", "add"};
            std::istringstream in(fault);
            words.insert(words.end(), std::istream_iterator<std::string>(in), {});
            sim(words);
        }
    }

    // Have so many of the last faults happened, and the others not?
    bool have_happened(std::size_t count) const
    {
        const sim_state state = control_files::read_state(state_).value();
        std::size_t found = 0;
        for (const sim_fault_count &fault : state.fault)
            found += fault.happened != 0;
        return found == count;
    }

    // What the server has written since the last expect_log.
    std::string new_log() const
    {
        std::string text = log();
        for (std::size_t at = 0; (at = text.find(support::NO_ZONE, at)) != std::string::npos;)
            text.erase(at, std::string(support::NO_ZONE).size());
        return text.substr(std::min(told_, text.size()));
    }

    // Waits for the reports of these failures, and is content with no other ones but perhaps those
    // of one more. Each chain is in one piece, but which failure comes first is open.
    void expect_log(const std::vector<Chain> &chains, const Chain &perhaps = {})
    {
        std::size_t size = 0;
        for (const Chain &chain : chains)
            size += text_of(chain).size();
        EXPECT_TRUE(support::wait_until([&] { return new_log().size() >= size; }));
        std::string rest = new_log();
        told_ += rest.size();
        for (const Chain &chain : chains)
            EXPECT_TRUE(take_out(rest, text_of(chain))) << text_of(chain) << "but:\n" << rest;
        take_out(rest, text_of(perhaps));
        EXPECT_EQ(rest, "");
    }

    // From the first failure since put_faults on, these are the calls on a post.
    void expect_calls(int post, const Words &expected) const
    {
        EXPECT_EQ(wait_for_calls(post, expected.size()), expected);
    }

    // The same, for a post whose time is drawn again and again.
    void expect_first_calls(int post, const Words &expected) const
    {
        Words found = wait_for_calls(post, expected.size());
        found.resize(std::min(found.size(), expected.size()));
        EXPECT_EQ(found, expected);
    }

    // The three ends of an update.
    void expect_good(const Words &options)
    {
        const Ended ended = update(options);
        EXPECT_EQ(ended.err, "");
        EXPECT_EQ(ended.status, 0) << log();
    }
    void expect_rolled_back(const Words &options)
    {
        expect_refused(options, "osd server recovered parameters");
    }
    void expect_not_even_rolled_back(const Words &options)
    {
        expect_refused(options, "failed to update server");
    }

    // The slots that a post shows.
    static std::string slots_of(const sim_reader::Post &post)
    {
        std::string slots;
        for (std::size_t i = 0; i < SIM_OSDS; i++)
            slots += post.osd[i].record.shown != 0 ? std::to_string(i) : "";
        return slots;
    }
    std::string shown(unsigned number) const
    {
        return slots_of(post(number));
    }
    testing::AssertionResult comes_to_show(unsigned number, const std::string &slots) const
    {
        return shows(number, [&](const sim_reader::Post &post) { return slots_of(post) == slots; });
    }

    // Waits until each post has been visited from now on.
    void wait_for_a_pass() const
    {
        const std::uint32_t sets = post(3).osd[3].record.sets;
        EXPECT_TRUE(shows(3, [sets](const sim_reader::Post &post) {
            return post.osd[3].record.sets >= sets + 2;
        }));
    }

private:
    static void sim(const Words &words)
    {
        const Ended ended = run_sim(words);
        ASSERT_EQ(ended.status, 0) << ended.err;
    }

    Words wait_for_calls(int post, std::size_t count) const
    {
        Words found;
        EXPECT_TRUE(support::wait_until([&] {
            found = calls_from_failure(state_ + "/calls", calls_before_, post);
            return found.size() >= count;
        }));
        return found;
    }

    static bool take_out(std::string &text, const std::string &part)
    {
        const std::size_t at = text.find(part);
        if (at == std::string::npos)
            return false;
        text.erase(at, part.size());
        return true;
    }

    Ended update(const Words &options) const
    {
        Words words = {"update"};
        words.insert(words.end(), options.begin(), options.end());
        return tool(words);
    }

    void expect_refused(const Words &options, const char *end)
    {
        const Ended ended = update(options);
        EXPECT_EQ(ended.status, 1);
        EXPECT_EQ(ended.err, report("update", end, "osd_update") +
                                 report("update", "update osd failed", "main"));
    }

    std::size_t told_ = 0;
    std::uint64_t calls_before_ = 0;
};

// The same for one kind of errno.
class FailingCall : public FaultyCodec, public testing::WithParamInterface<Kind>
{
protected:
    bool is(const Kind &kind) const
    {
        return GetParam().name == kind.name;
    }

    // A code of this kind, and another one next time if there is.
    Code code()
    {
        const std::vector<Code> &codes = GetParam().codes;
        return codes[used_++ % codes.size()];
    }

    Chain by_kind(const Chain &gone, const Chain &refused, const Chain &other) const
    {
        return is(POST_GONE) ? gone : is(REFUSED) ? refused : other;
    }
    Words calls_by_kind(const Words &gone, const Words &refused, const Words &other) const
    {
        return is(POST_GONE) ? gone : is(REFUSED) ? refused : other;
    }
    Chain unless_gone(const Chain &chain) const
    {
        return by_kind({}, chain, chain);
    }

private:
    std::size_t used_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Errno, FailingCall, testing::Values(POST_GONE, REFUSED, OTHER),
                         [](const auto &kind) { return kind.param.name; });

// The calls of a drawing, each with every errno that tells of a post that has gone.
class FailingDrawing : public FailingCall
{
};

Kind begun_with(std::size_t first)
{
    Kind kind = POST_GONE;
    std::rotate(kind.codes.begin(), kind.codes.begin() + static_cast<std::ptrdiff_t>(first),
                kind.codes.end());
    return kind;
}

INSTANTIATE_TEST_SUITE_P(Errno, FailingDrawing,
                         testing::Values(begun_with(0), begun_with(1), begun_with(2), REFUSED,
                                         OTHER),
                         [](const auto &kind) {
                             const std::string &first = kind.param.codes.front().word;
                             return kind.param.codes.size() > 1 ? first : kind.param.name;
                         });

// ---- Start and stop -----------------------------------------------------------------------------

TEST_P(FailingCall, at_the_start_keeps_the_server_down)
{
    // Four starts, each of which comes one call further. From the third on, two calls take back
    // what was done; in the second it is one, whose result doesn't count.
    const Code init = code(), device = code(), callback = code(), notify = code();
    const Code close = code(), exit = code();
    put_faults({"library_init next fail " + init.word, "open_device next fail " + device.word,
                "notify_callback next fail " + callback.word, "set_notify next fail " + notify.word,
                "library_exit next fail " + exit.word, "close_device 2 fail " + close.word,
                "library_exit 3 fail " + exit.word});
    const char *up = "osd_server_init_process";
    const char *down = "osd_server_end_process";
    const std::pair<Chain, Words> starts[] = {
        {{{failed("library_init", init), up}}, {"library_init!"}},
        {{{failed("sys_open_device", device), up}}, {"open_device!", "library_exit!"}},
        {{{failed("post_notify_callback", callback), up}},
         {"notify_callback!", "close_device", "library_exit"}},
        {{{failed("post_set_notify", notify), up},
          {failed("sys_close_device", close), down},
          {failed("library_exit", exit), down}},
         {"set_notify!", "close_device!", "library_exit!"}},
    };
    for (const auto &[chain, calls] : starts) {
        const Ended ended = tool({"start", "-l", "/tmp/server.log"});
        EXPECT_EQ(ended.status, 1);
        int status = 0;
        EXPECT_TRUE(support::wait_until([&] { return waitpid(-1, &status, WNOHANG) > 0; }));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
        EXPECT_EQ(new_log(),
                  text_of(chain + Chain{{"osd server down", "osd_server_run"}}) +
                      report("start", "server could not start for 0[msec]", "osd_start"));
        expect_calls(ALL_POSTS, calls);
    }
    EXPECT_TRUE(have_happened(7));
    EXPECT_EQ(tool({"status"}).status, 0);
    fs::remove("/tmp/osd_tmp_param.txt");
}

TEST_P(FailingCall, at_the_stop_does_not_keep_the_server_up)
{
    bring_up({"--Post0TypeOn=1", "--Post0TimeOn=1", "--Post1TypeOn=1"}, {"13", "1", "", ""});
    const Code clear = code(), close = code(), device = code(), exit = code();
    const sim_reader::Post before = post(0);
    put_faults({"clear_osd next fail " + clear.word + " post 0",
                "close_osd 2 fail " + close.word + " post 0",
                "close_device next fail " + device.word, "library_exit next fail " + exit.word});
    stop();

    const char *reporter = "osd_close_opened_post";
    const Chain osds = unless_gone(osd_failed("post_clear_osd", clear, before.res_id,
                                              before.osd[1].record.handle, "osd_clear") +
                                   Chain{{"post 0 osd 1 clear error", reporter}}) +
                       slot_failed("post_close_osd", close, "Post0Osd3", reporter);
    const std::string device_failed =
        text_of({{failed("sys_close_device", device), "osd_server_end_process"}});
    const std::string exit_failed =
        text_of({{failed("library_exit", exit), "osd_server_end_process"}});
    EXPECT_EQ(new_log(), text_of(osds) + device_failed + exit_failed);
    expect_calls(ALL_POSTS, {"clear_osd 0.1!", "close_osd 0.1", "clear_osd 0.3", "close_osd 0.3!",
                             "clear_osd 1.1", "close_osd 1.1", "close_device!", "library_exit!"});
    EXPECT_TRUE(have_happened(4));
    for (unsigned i = 0; i < SIM_POSTS; i++)
        EXPECT_EQ(shown(i), "");
    EXPECT_FALSE(fs::exists("/tmp/osd_fifo_req"));
}

// ---- Opens --------------------------------------------------------------------------------------

// The update of the start marks the posts for a redraw, which a failed open can't give them.
TEST_P(FailingCall, in_the_open_of_a_new_post)
{
    for (unsigned i = 0; i < 3; i++)
        set_post(i, 0, 0);
    bring_up({"--Post0TypeOn=1", "--Post0TimeOn=1", "--Post1TypeOn=1", "--Post1TimeOn=1",
              "--Post2TypeOn=1", "--Post2TimeOn=1", "--Post3TimeOn=1"},
             {"", "", "", "3"});
    const Code size = code(), open = code(), again = code(), close = code();
    Words faults = {"thread_get_status next fail " + size.word + " post 0",
                    "open_osd 2 fail " + open.word + " post 1",
                    "open_osd 2 fail " + again.word + " post 2"};
    if (is(OTHER)) // the one that takes back what was opened before
        faults.push_back("close_osd next fail " + close.word + " post 2");
    put_faults(faults);
    for (unsigned i = 0; i < 3; i++)
        set_post(i, 640, 480);

    const char *reporter = "osd_do_callback_open";
    const Chain one = slot_failed("post_open_osd", open, "Post1Osd3", reporter);
    const Chain two = slot_failed("post_open_osd", again, "Post2Osd3", reporter);
    const Chain close_failed = slot_failed("post_close_osd", close, "Post2Osd1", reporter);
    expect_log({Chain{{failed("post_thread_get_status", size), reporter}} + new_post_failed('0'),
                post_is_closed('0'), // in the next pass
                by_kind({}, one + new_post_failed('1'), one + post_is_closed('1')),
                by_kind({}, two + new_post_failed('2'), two + close_failed + post_is_closed('2'))});
    EXPECT_TRUE(support::wait_until([&] { return have_happened(faults.size()); }));
    EXPECT_EQ(post(1).osd[1].record.handle == 0, is(OTHER));
    expect_calls(0, {"thread_get_status 0!"});
    expect_calls(
        1, calls_by_kind({"open_osd 1.3!"}, {"open_osd 1.3!"}, {"open_osd 1.3!", "close_osd 1.1"}));
    expect_calls(2, calls_by_kind({"open_osd 2.3!"}, {"open_osd 2.3!"},
                                  {"open_osd 2.3!", "close_osd 2.1!"}));

    if (is(POST_GONE)) { // nothing to be done for a post that has gone
        expect_good({"--Post1StringOn=1"});
    } else {
        expect_not_even_rolled_back({"--Post1StringOn=1"});
        expect_log({post_is_closed('1'), post_is_closed('1')});
    }
    for (unsigned i = 0; i < 3; i++) {
        EXPECT_EQ(shown(i), "");
        set_post(i, 800, 600);
        EXPECT_TRUE(comes_to_show(i, i == 1 && is(POST_GONE) ? "013" : "13"));
    }
    finish();
}

// For such a post the others are asked for all the same, with the resource ID 0 that has become
// its.
TEST_F(FaultyCodec, post_that_goes_at_its_first_open_is_asked_for_the_other_slots)
{
    set_post(1, 0, 0);
    bring_up({"--Post1StringOn=1", "--Post1TypeOn=1", "--Post1TimeOn=1", "--Post3TimeOn=1"},
             {"", "", "", "3"});
    unsigned width = 640;
    for (const Code &open : POST_GONE.codes) {
        put_faults({"open_osd next fail " + open.word + " post 1"});
        set_post(1, width, 480);
        expect_calls(1, {"open_osd 1.0!", "open_osd 1.1!", "open_osd 1.3!"});
        wait_for_a_pass();
        EXPECT_TRUE(have_happened(1));
        EXPECT_EQ(new_log(), "") << "that is no failure";
        EXPECT_EQ(shown(1), "");
        width += 16;
    }
    set_post(1, 800, 600);
    EXPECT_TRUE(comes_to_show(1, "013"));
    finish();
}

TEST_P(FailingCall, in_the_open_of_a_text_that_is_switched_on)
{
    bring_up({"--Post0TypeOn=1", "--Post1TypeOn=1", "--Post3TimeOn=1"}, {"1", "1", "", "3"});
    const Code size = code(), open = code();
    put_faults({"thread_get_status next fail " + size.word + " post 0",
                "open_osd next fail " + open.word + " post 1"});
    expect_good({"--Post0TimeOn=1", "--Post1TimeOn=1"});

    const char *reporter = "osd_do_callback_open_one";
    expect_log({{{failed("post_thread_get_status", size), reporter}},
                unless_gone(slot_failed("post_open_osd", open, "Post1Osd3", reporter))});
    EXPECT_TRUE(have_happened(2));
    EXPECT_TRUE(comes_to_show(0, "13"));
    EXPECT_TRUE(comes_to_show(1, is(OTHER) ? "13" : "1"));

    expect_first_calls(0, {"thread_get_status 0!", "thread_get_status 0", "open_osd 0.3",
                           "get_osd_mem 0.1", "set_osd 0.1", "get_osd_mem 0.3", "set_osd 0.3"});
    const Words both_anew = {"open_osd 1.3!",   "close_osd 1.1",       "thread_get_status 1",
                             "open_osd 1.1",    "thread_get_status 1", "open_osd 1.3",
                             "get_osd_mem 1.1", "set_osd 1.1",         "get_osd_mem 1.3",
                             "set_osd 1.3"};
    if (is(OTHER)) // it closes the slots below
        expect_first_calls(1, both_anew);
    else // the redraw goes on for the one that has gone
        expect_calls(1,
                     calls_by_kind({"open_osd 1.3!", "get_osd_mem 1.1!"}, {"open_osd 1.3!"}, {}));

    // A refused one stands still, and says so; one that has gone does so in silence.
    if (is(REFUSED)) {
        expect_not_even_rolled_back({"--Post1StringOn=1"});
        expect_log({post_is_closed('1'), post_is_closed('1')});
    } else {
        expect_good({"--Post1StringOn=1"});
    }
    EXPECT_EQ(shown(1), is(OTHER) ? "013" : "1");

    set_post(1, 800, 600);
    EXPECT_TRUE(comes_to_show(1, is(REFUSED) ? "13" : "013"));
    finish();
}

// The server forgets the slots of a post whose open was refused, and can't close them.
TEST_F(FaultyCodec, post_whose_open_was_refused_ends_with_the_device_and_breaks_no_rule)
{
    bring_up({"--Post1TypeOn=1", "--Post1TimeOn=1", "--Post3TimeOn=1"}, {"", "13", "", "3"});
    const Code &open = REFUSED.codes.front();
    put_faults({"open_osd next fail " + open.word + " post 1"});
    expect_good({"--Post1StringOn=1"});
    expect_log({slot_failed("post_open_osd", open, "Post1Osd0", "osd_do_callback_open_one")});
    EXPECT_TRUE(have_happened(1));
    finish();
    EXPECT_FALSE(fs::exists(state_ + "/breaches"));
}

TEST_F(FaultyCodec, post_that_goes_while_the_slots_below_a_failed_open_are_closed)
{
    bring_up({"--Post2TypeOn=1", "--Post3TimeOn=1"}, {"", "", "1", "3"});
    const Code &open = OTHER.codes.front();
    put_faults({"open_osd next fail " + open.word + " post 2", "close_osd next vanish post 2"});
    expect_good({"--Post2TimeOn=1"});

    const char *reporter = "osd_do_callback_open_one";
    expect_log({slot_failed("post_open_osd", open, "Post2Osd3", reporter) +
                slot_failed("post_close_osd", {"", GONE}, "Post2Osd1", reporter)});
    EXPECT_TRUE(have_happened(2));
    EXPECT_TRUE(comes_to_show(2, ""));
    expect_calls(2, {"open_osd 2.3!", "close_osd 2.1!"});
    set_post(2, 800, 600);
    EXPECT_TRUE(comes_to_show(2, "13"));
    finish();
}

TEST_P(FailingCall, in_the_open_of_a_reopen)
{
    bring_up({"--Post0TypeOn=1", "--Post0Rectangle0On=1", "--Post0Osd0W=16", "--Post0Osd0H=4",
              "--Post1TypeOn=1", "--Post1Rectangle0On=1", "--Post1Osd0W=16", "--Post1Osd0H=4",
              "--Post3TimeOn=1"},
             {"01", "01", "", "3"});
    const char *reporter = "osd_do_callback_open";

    const Code size = code();
    put_faults({"thread_get_status next fail " + size.word + " post 0"});
    expect_rolled_back({"--Post0Osd0W=20"});
    expect_log({Chain{{failed("post_thread_get_status", size), reporter}} + reopen_failed('0')},
               post_is_closed('0')); // if a pass came between the refusal and the roll-back
    expect_calls(0, {"thread_get_status 0!", "thread_get_status 0", "open_osd 0.0", "open_osd 0.1",
                     "get_osd_mem 0.1", "set_osd 0.1", "get_osd_mem 0.0", "set_osd 0.0"});
    EXPECT_EQ(shown(0), "01");
    EXPECT_EQ(post(0).osd[0].record.width, 16u);

    const Code open = code();
    put_faults({"open_osd 2 fail " + open.word + " post 1"});
    if (is(POST_GONE))
        expect_good({"--Post1Osd0W=20"});
    else
        expect_rolled_back({"--Post1Osd0W=20"});
    const Chain chain = slot_failed("post_open_osd", open, "Post1Osd1", reporter);
    expect_log({by_kind({}, chain + reopen_failed('1'), chain + post_is_closed('1'))});
    // The roll-back reopens; what a refusal has left open is closed only then.
    const Words roll_back = {"thread_get_status 1", "open_osd 1.0", "open_osd 1.1",
                             "get_osd_mem 1.1",     "set_osd 1.1",  "get_osd_mem 1.0",
                             "set_osd 1.0"};
    expect_calls(1,
                 calls_by_kind({"open_osd 1.1!"},
                               Words{"open_osd 1.1!", "clear_osd 1.0", "close_osd 1.0"} + roll_back,
                               Words{"open_osd 1.1!", "close_osd 1.0"} + roll_back));
    EXPECT_TRUE(have_happened(1));
    EXPECT_EQ(shown(1), is(POST_GONE) ? "" : "01");
    EXPECT_EQ(post(1).osd[0].record.width, is(POST_GONE) ? 20u : 16u);

    set_post(1, 800, 600);
    EXPECT_TRUE(comes_to_show(1, "01"));
    finish();
}

TEST_P(FailingCall, in_the_close_of_a_reopen)
{
    bring_up({"--Post2TypeOn=1", "--Post2Rectangle0On=1", "--Post2Osd0W=16", "--Post2Osd0H=4",
              "--Post3TimeOn=1"},
             {"", "", "01", "3"});
    const sim_reader::Post before = post(2);
    const std::uint32_t handle = before.osd[1].record.handle;
    const Code close = code(), clear = code();
    put_faults({"close_osd next fail " + close.word + " post 2",
                "clear_osd 2 fail " + clear.word + " post 2"});
    expect_good({"--Post2Rectangle0On=0"});

    const char *reporter = "osd_do_callback_reopen";
    expect_log(
        {slot_failed("post_close_osd", close, "Post2Osd0", reporter) +
         unless_gone(osd_failed("post_clear_osd", clear, before.res_id, handle, "osd_clear") +
                     Chain{{"post 2 osd 1 clear error", reporter}})});
    EXPECT_TRUE(have_happened(2));
    expect_calls(2, {"close_osd 2.0!", "clear_osd 2.1!", "close_osd 2.1", "thread_get_status 2",
                     "open_osd 2.1", "get_osd_mem 2.1", "set_osd 2.1"});
    EXPECT_EQ(shown(2), "1");
    EXPECT_NE(post(2).osd[1].record.handle, handle);

    set_post(2, 800, 600); // takes the OSD with it that couldn't be closed
    EXPECT_TRUE(comes_to_show(2, "1"));
    finish();
}

// ---- Drawing ------------------------------------------------------------------------------------

TEST_P(FailingDrawing, of_texts)
{
    bring_up({"--Post0StringOn=1", "--Post0String=old", "--Post0TypeOn=1", "--Post3TimeOn=1"},
             {"01", "", "", "3"});
    const sim_reader::Post before = post(0);
    const auto asked = [&before](unsigned slot, const char *place) {
        return std::string(place) + " w/h=" + std::to_string(before.osd[slot].width_of_line()) +
               "/28";
    };
    const auto expect_string = [this](const char *text) {
        EXPECT_TRUE(shows_text(post(0).osd[0], text, {28, 3, 1})) << text;
    };

    const Code memory = code();
    put_faults({"get_osd_mem next fail " + memory.word + " post 0"});
    if (is(POST_GONE))
        expect_good({"--Post0String=new"});
    else
        expect_rolled_back({"--Post0String=new"});
    expect_log({unless_gone(osd_failed("post_get_osd_mem", memory, before.res_id,
                                       before.osd[0].record.handle, "osd_show") +
                            redraw_failed('0', '0', {asked(0, "x/y=0/0")}))});
    const Words redraw = {"get_osd_mem 0.0", "set_osd 0.0", "get_osd_mem 0.1", "set_osd 0.1"};
    const Words rolled_back = Words{"get_osd_mem 0.0!"} + redraw;
    expect_calls(0, calls_by_kind({"get_osd_mem 0.0!", "get_osd_mem 0.1", "set_osd 0.1"},
                                  rolled_back, rolled_back));
    EXPECT_TRUE(have_happened(1));
    EXPECT_EQ(shown(0), "01");
    expect_string(" old ");

    const Code show = code();
    const std::uint32_t sets = post(0).osd[1].record.sets;
    put_faults({"set_osd 2 fail " + show.word + " post 0"});
    if (is(POST_GONE))
        expect_good({"--Post0String=newer"});
    else
        expect_rolled_back({"--Post0String=newer"});
    expect_log({unless_gone(
        osd_failed("post_set_osd", show, before.res_id, before.osd[1].record.handle, "osd_show") +
        redraw_failed('0', '1', {asked(0, "x/y=0/0"), asked(1, "x/y=0/548")}))});
    const Words rolled_back_again = Words{"set_osd 0.1!"} + redraw;
    expect_calls(0, calls_by_kind({"set_osd 0.1!"}, rolled_back_again, rolled_back_again));
    EXPECT_TRUE(have_happened(1));
    expect_string(is(POST_GONE) ? " newer " : " old ");
    EXPECT_EQ(post(0).osd[1].record.sets, is(POST_GONE) ? sets : sets + 1) << "the roll-back's";
    finish();
}

TEST_P(FailingDrawing, that_is_cleared)
{
    bring_up({"--Post1StringOn=1", "--Post1TypeOn=1", "--Post3TimeOn=1"}, {"", "01", "", "3"});
    const sim_reader::Post before = post(1);
    const Code clear = code();
    put_faults({"clear_osd next fail " + clear.word + " post 1"});
    expect_good({"--Post1TypeOn=0", "--Post1String=new"});
    expect_log({unless_gone(osd_failed("post_clear_osd", clear, before.res_id,
                                       before.osd[1].record.handle, "osd_clear") +
                            Chain{{"post 1 osd 1 clear error", "osd_refresh_all"}})});
    expect_calls(1, {"clear_osd 1.1!"});
    EXPECT_TRUE(have_happened(1));
    EXPECT_EQ(shown(1), "01");
    EXPECT_TRUE(shows_text(post(1).osd[0], " new ", {75, 3, 1}));
    finish();
}

TEST_P(FailingDrawing, of_the_time)
{
    bring_up({"--Post3TimeOn=1"}, {"", "", "", "3"});
    const sim_reader::Post before = post(3);
    const Code memory = code(), show = code();
    put_faults({"get_osd_mem next fail " + memory.word + " post 3",
                "set_osd next fail " + show.word + " post 3"});
    const std::uint32_t handle = before.osd[3].record.handle;
    const Chain redraw = {{"post 3 osd 3 show error", "osd_refresh_one"}};
    expect_log(
        {unless_gone(osd_failed("post_get_osd_mem", memory, before.res_id, handle, "osd_show") +
                     redraw),
         unless_gone(osd_failed("post_set_osd", show, before.res_id, handle, "osd_show") +
                     redraw)});
    EXPECT_TRUE(support::wait_until([this] { return have_happened(2); }));
    expect_first_calls(3, {"get_osd_mem 3.3!", "get_osd_mem 3.3", "set_osd 3.3!", "get_osd_mem 3.3",
                           "set_osd 3.3"});
    wait_for_a_pass();
    EXPECT_TRUE(shows(3, [](const sim_reader::Post &post) {
        return support::shows_recent_time(post.osd[3], 0, {50, 3, 1});
    }));
    finish();
}

struct FailedRectangle {
    unsigned post;
    unsigned slot;
    Words asked; // of each slot up to this one
};

class FailingRectangle : public FailingCall
{
protected:
    // Draws the rectangle in colour 2 instead of 1, in which this call fails.
    void expect_failure_in(const std::string &call, const FailedRectangle &rectangle)
    {
        const auto &[number, slot, asked] = rectangle;
        const std::string name = std::to_string(number);
        const Code code = this->code();
        // The reopen before the drawing gives a handle that nobody sees if it is taken back.
        const std::uint32_t handle =
            0x60000000 + control_files::read_state(state_).value().last_handle + 1;
        const Chain failure =
            osd_failed("post_" + call, code, post(number).res_id, handle, "osd_show_rectangle");
        put_faults({call + " next fail " + code.word + " post " + name});
        const Words options = {"--Post" + name + "Osd" + std::to_string(slot) + "ColorFg=2"};
        if (is(POST_GONE))
            expect_good(options);
        else
            expect_rolled_back(options);
        expect_log({unless_gone(failure + redraw_failed(name[0], std::to_string(slot)[0], asked))});
        expect_drawn_anew(call, name, name + '.' + std::to_string(slot));
        EXPECT_TRUE(have_happened(1));
        ASSERT_EQ(shown(number), is(POST_GONE) ? "" : std::to_string(slot));
        EXPECT_TRUE(is(POST_GONE) || post(number).osd[slot].index_at(0, 0) == 1);
    }

private:
    void expect_drawn_anew(const std::string &call, const std::string &post,
                           const std::string &osd) const
    {
        const std::string failure = call + ' ' + osd + '!';
        const Words anew = {failure,
                            "clear_osd " + osd,
                            "close_osd " + osd,
                            "thread_get_status " + post,
                            "open_osd " + osd,
                            "get_osd_mem " + osd,
                            "set_osd " + osd};
        expect_calls(std::stoi(post), calls_by_kind({failure}, anew, anew));
    }
};

INSTANTIATE_TEST_SUITE_P(Errno, FailingRectangle, testing::Values(POST_GONE, REFUSED, OTHER),
                         [](const auto &kind) { return kind.param.name; });

TEST_P(FailingRectangle, is_drawn_anew_as_it_was_unless_its_post_has_gone)
{
    bring_up({"--Post0Rectangle0On=1", "--Post0Osd0ColorFg=1", "--Post0Osd0X=100",
              "--Post0Osd0Y=50", "--Post0Osd0W=32", "--Post0Osd0H=8", "--Post1Rectangle2On=1",
              "--Post1Osd2ColorFg=1", "--Post1Osd2W=32", "--Post1Osd2H=8", "--Post3TimeOn=1"},
             {"0", "2", "", "3"});
    expect_failure_in("get_osd_mem", {0, 0, {"x/y=100/50 w/h=32/8"}});
    expect_failure_in("set_osd",
                      {1, 2, {"x/y=0/0 w/h=0/0", "x/y=0/0 w/h=0/0", "x/y=0/0 w/h=32/8"}});
    finish();
}

// ---- Memory and posts ---------------------------------------------------------------------------

TEST_F(FaultyCodec, rectangle_that_its_memory_cannot_hold_is_taken_back)
{
    bring_up({"--Post0Rectangle0On=1", "--Post0Osd0ColorFg=5", "--Post0Osd0W=32", "--Post0Osd0H=8",
              "--Post3TimeOn=1"},
             {"0", "", "", "3"});
    put_faults({"get_osd_mem next size -1 post 0"});
    expect_rolled_back({"--Post0Osd0ColorFg=9"});
    expect_log(
        {Chain{{"osd memory over: targetWidth=32 height=8 colorType=2\n", "osd_show_rectangle"}} +
         redraw_failed('0', '0', {"x/y=0/0 w/h=32/8"})});
    EXPECT_EQ(post(0).osd[0].index_at(0, 0), 5u);
    finish();
}

TEST_F(FaultyCodec, post_that_goes_between_drawing_and_showing_is_no_failure)
{
    bring_up({"--Post0StringOn=1", "--Post0String=old", "--Post0TypeOn=1", "--Post1Rectangle0On=1",
              "--Post1Osd0ColorFg=5", "--Post1Osd0W=32", "--Post1Osd0H=8", "--Post2TimeOn=1",
              "--Post3TimeOn=1"},
             {"01", "0", "3", "3"});
    put_faults({"get_osd_mem next vanish-after post 0", "get_osd_mem next vanish-after post 1",
                "get_osd_mem next vanish-after post 2"});
    expect_good({"--Post0String=new", "--Post1Osd0ColorFg=9"});
    EXPECT_TRUE(have_happened(3));
    for (unsigned i = 0; i < 3; i++)
        EXPECT_EQ(post(i).res_id, 0u);
    wait_for_a_pass();

    for (unsigned i = 0; i < 3; i++)
        set_post(i, 720, 576);
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return shows_text(post.osd[0], " new ", {28, 3, 1}) &&
               shows_text(post.osd[1], " TVOut ", {28, 3, 1});
    }));
    EXPECT_TRUE(shows(1, [](const sim_reader::Post &post) {
        return slots_of(post) == "0" && post.osd[0].index_at(31, 7) == 9;
    }));
    EXPECT_TRUE(shows(2, [](const sim_reader::Post &post) {
        return support::shows_recent_time(post.osd[3], 0, {28, 3, 1});
    }));
    finish();
}

// The close is overtaken by the end of the visit that opens the post, and so it is lost.
TEST_F(FaultyCodec, post_that_goes_while_it_is_opened_is_served_when_it_comes_anew)
{
    for (unsigned i = 0; i < 3; i++)
        set_post(i, 0, 0);
    bring_up({"--Post0TypeOn=1", "--Post0TimeOn=1", "--Post1TypeOn=1", "--Post1TimeOn=1",
              "--Post2TypeOn=1", "--Post2TimeOn=1", "--Post3TimeOn=1"},
             {"", "", "", "3"});
    put_faults({"thread_get_status next vanish-after post 0", "open_osd next vanish-after post 1",
                "open_osd 2 vanish-after post 2"});
    for (unsigned i = 0; i < 3; i++)
        set_post(i, 640, 480);
    EXPECT_TRUE(support::wait_until([this] { return have_happened(3); }));
    wait_for_a_pass();
    for (unsigned i = 0; i < 3; i++) {
        EXPECT_EQ(post(i).res_id, 0u);
        set_post(i, 800, 600);
        EXPECT_TRUE(comes_to_show(i, "13"));
    }
    finish();
}

// The server goes on with the new thread. What was open before has gone with the old one, and with
// it the notice of both: the pass ends by looking at none.
TEST_F(FaultyCodec, post_that_changes_between_its_opens_has_the_later_ones)
{
    bring_up({"--Post2TypeOn=1", "--Post2TimeOn=1", "--Post2StringOn=1", "--Post2String=abc",
              "--Post3TimeOn=1"},
             {"", "", "013", "3"});
    put_faults({"open_osd next change-after 2 1000x500 post 2"});
    set_post(2, 800, 600);
    EXPECT_TRUE(shows(2, [](const sim_reader::Post &post) {
        return post.width == 1000 && slots_of(post) == "13";
    }));
    stop();
    EXPECT_EQ(new_log(), text_of(slot_failed("post_close_osd", {"", 0x81E03204}, "Post2Osd0",
                                             "osd_close_opened_post")));
}

TEST_F(FaultyCodec, post_that_goes_in_a_reopen_refuses_the_update)
{
    bring_up({"--Post0TypeOn=1", "--Post0Rectangle0On=1", "--Post0Osd0W=16", "--Post0Osd0H=4",
              "--Post3TimeOn=1"},
             {"01", "", "", "3"});
    put_faults({"clear_osd next vanish post 0"});
    expect_not_even_rolled_back({"--Post0Osd0W=20"});
    const Code gone = {"", GONE};
    const char *reporter = "osd_do_callback_reopen";
    const Chain open_failed =
        Chain{{failed("post_thread_get_status", gone), "osd_do_callback_open"}} +
        reopen_failed('0');
    wait_for_a_pass();
    expect_log({slot_failed("post_close_osd", gone, "Post0Osd0", reporter) +
                    slot_failed("post_close_osd", gone, "Post0Osd1", reporter) + open_failed,
                open_failed, post_is_closed('0')},
               post_is_closed('0')); // if a pass came between the refusal and the roll-back
    set_post(0, 720, 480);
    EXPECT_TRUE(comes_to_show(0, "01"));
    EXPECT_EQ(post(0).osd[0].record.width, 16u);
    finish();
}

TEST_F(FaultyCodec, doubled_notification_is_served_as_one)
{
    put_faults({"notify every double"});
    bring_up({"--Post0TypeOn=1", "--Post1TypeOn=1", "--Post2TypeOn=1", "--Post3TypeOn=1",
              "--Post3TimeOn=1"},
             {"1", "1", "1", "13"});
    set_post(0, 0, 0);
    set_post(1, 800, 600);
    set_post(3, 640, 480);
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) { return post.res_id == 0; }));
    EXPECT_TRUE(shows(1, [](const sim_reader::Post &post) {
        return shows_text(post.osd[1], " Stream#1 ", {31, 3, 1});
    }));
    EXPECT_TRUE(shows(3, [](const sim_reader::Post &post) {
        return shows_text(post.osd[1], " Storage ", {25, 3, 1});
    }));
    finish();
}

// Until the server is told, it draws for a thread that has gone, or not for one that has come.
TEST_F(FaultyCodec, late_notification_is_made_up_for)
{
    bring_up({"--Post0TypeOn=1", "--Post0StringOn=1", "--Post0String=old", "--Post3TimeOn=1"},
             {"01", "", "", "3"});
    put_faults({"notify next late 2500 post 0"}); // longer than two passes
    set_post(0, 0, 0);
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) { return post.res_id == 0; }));
    expect_good({"--Post0String=late"});
    set_post(0, 640, 480);
    EXPECT_TRUE(shows(0, [](const sim_reader::Post &post) {
        return shows_text(post.osd[0], " late ", {25, 3, 1}) &&
               shows_text(post.osd[1], " TVOut ", {25, 3, 1});
    }));
    EXPECT_TRUE(have_happened(1));
    finish();
}

} // namespace
