// qm5sim diff: where two runs first differ, but for what differs between any two.
#include "recorded_calls.h"

namespace
{

using namespace support;

constexpr const char *A = "/tmp/codec/a.jsonl";
constexpr const char *B = "/tmp/codec/b.jsonl";

class SimDiff : public RecordTest
{
protected:
    // Prints calls into a file, as a user would.
    static void save(const std::string &path, const CallList &calls, const Words &words = {})
    {
        write_file(CALLS, record_of(calls));
        Words all = {"calls"};
        all.insert(all.end(), words.begin(), words.end());
        const Ended ended = sim(all);
        ASSERT_EQ(ended.status, 0) << ended.err;
        write_file(path, ended.out);
    }

    static Ended diff()
    {
        return sim({"diff", A, B});
    }

    static bool equal()
    {
        const Ended ended = diff();
        return ended.status == 0 && ended.out.empty() && ended.err.empty();
    }
};

// A short run, of these IDs.
CallList some_calls(std::uint32_t res_id, std::uint32_t handle)
{
    sim_call_record set = call_of(SIM_SET_OSD, {res_id, handle, 16, 32});
    set.hash = 0x1234;
    return {call_of(SIM_SET_NOTIFY, {15}),
            notify(res_id, 0, 1),
            notify(res_id + 1, 1, 1),
            call_of(SIM_OPEN_OSD, {res_id + 1, 0, 16, 4, 2}, {handle + 1, 0xA0000000, 16}),
            call_of(SIM_OPEN_OSD, {res_id, 0, 16, 4, 2}, {handle, 0xA0000000, 16}),
            set,
            failed(call_of(SIM_GET_OSD_MEM, {res_id, handle + 1}), 0x81E04507)};
}

TEST_F(SimDiff, leaves_out_ids_times_durations_and_threads)
{
    CallList other = some_calls(0x50000077, 0x60000099);
    for (sim_call_record &call : other) {
        call.time += 5000000000;
        call.duration *= 3;
        call.thread += 40;
        if (call.operation == SIM_OPEN_OSD)
            call.given[1] = 0xB0001234; // what no application looks at
    }
    save(A, some_calls(0x50000001, 0x60000001));
    save(B, other);
    EXPECT_TRUE(equal());
}

TEST_F(SimDiff, takes_each_open_for_another_osd_whatever_its_handle)
{
    constexpr std::uint32_t res_id = 0x50000001;
    const auto run_of = [](std::uint32_t first, std::uint32_t second) {
        return CallList{notify(res_id, 0, 1),
                        call_of(SIM_OPEN_OSD, {res_id, 0, 16, 4, 2}, {first, 0, 16}),
                        call_of(SIM_CLOSE_OSD, {res_id, first}),
                        call_of(SIM_OPEN_OSD, {res_id, 1, 16, 4, 2}, {second, 0, 16}),
                        call_of(SIM_SET_OSD, {res_id, second})};
    };
    save(A, run_of(0x60000001, 0x60000002));
    save(B, run_of(0x60000001, 0x60000001));
    EXPECT_TRUE(equal());

    CallList other = run_of(0x60000001, 0x60000002);
    other.back().argument[1] = 0x60000001; // the closed one
    save(B, other);
    EXPECT_EQ(diff().status, 1);
}

TEST_F(SimDiff, leaves_out_where_the_printing_began)
{
    CallList longer = some_calls(0x50000001, 0x60000001);
    longer.insert(longer.begin(), 5, call_of(SIM_LIBRARY_INIT));
    save(A, some_calls(0x50000001, 0x60000001));
    save(B, longer, {"--from", "6"});
    EXPECT_TRUE(equal());
}

TEST_F(SimDiff, shows_the_first_difference_normalised_and_both_counts)
{
    CallList other = some_calls(0x50000077, 0x60000099);
    other[5].hash = 0x1235;
    other.pop_back();
    save(A, some_calls(0x50000001, 0x60000001));
    save(B, other);
    const Ended ended = diff();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "");
    const std::string same =
        ": {\"n\":6,\"thread\":\"thread 1\",\"call\":\"set_osd\","
        "\"res_id\":\"thread 1 of post 0\",\"handle\":\"OSD 1\",\"x\":16,\"y\":32,"
        "\"result\":0,\"hash\":";
    EXPECT_EQ(ended.out, "/tmp/codec/a.jsonl:6" + same + "\"0000000000001234\"}\n" +
                             "/tmp/codec/b.jsonl:6" + same + "\"0000000000001235\"}\n" +
                             "/tmp/codec/a.jsonl: 7 calls\n"
                             "/tmp/codec/b.jsonl: 6 calls\n");
}

TEST_F(SimDiff, shows_where_one_run_ends_before_the_other)
{
    save(A, {call_of(SIM_LIBRARY_INIT), call_of(SIM_OPEN_DEVICE)});
    save(B, {call_of(SIM_LIBRARY_INIT)});
    const Ended ended = diff();
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.out, "/tmp/codec/a.jsonl:2: {\"n\":2,\"thread\":\"thread 1\","
                         "\"call\":\"open_device\",\"result\":0}\n"
                         "/tmp/codec/b.jsonl: no further call of thread 1\n"
                         "/tmp/codec/a.jsonl: 2 calls\n"
                         "/tmp/codec/b.jsonl: 1 call\n");
}

TEST_F(SimDiff, sees_which_id_and_which_thread_it_is)
{
    const CallList calls = some_calls(0x50000001, 0x60000001);
    save(A, calls);

    CallList other = calls;
    other[5].argument[0] = 0x50000002; // the other post's
    save(B, other);
    EXPECT_EQ(diff().status, 1);

    other = calls;
    other[5].argument[1] = 0x60000002; // the other OSD
    save(B, other);
    EXPECT_EQ(diff().status, 1);

    other = calls;
    other[5].thread = 701; // the notification thread
    save(B, other);
    EXPECT_EQ(diff().status, 1);

    other = calls;
    other[6].error = 0x81E03204;
    save(B, other);
    EXPECT_EQ(diff().status, 1);
}

TEST_F(SimDiff, leaves_out_how_the_calls_of_two_threads_fall_between_each_other)
{
    const auto by = [](std::uint32_t thread, sim_call_record call) {
        call.thread = thread;
        return call;
    };
    const auto notice = [&by](std::uint32_t res_id, std::uint32_t post) {
        return by(701, notify(res_id, post, 1));
    };
    const auto status = [&by](std::uint32_t res_id) {
        return by(700, call_of(SIM_THREAD_GET_STATUS, {res_id}, {640, 360}));
    };
    const sim_call_record init = by(700, call_of(SIM_LIBRARY_INIT));
    save(A, {init, notice(0x50000001, 0), notice(0x50000002, 1), status(0x50000001),
             status(0x50000002)});
    save(B, {init, status(0x50000012), notice(0x50000012, 0), status(0x50000011),
             notice(0x50000011, 1)});
    EXPECT_TRUE(equal());

    save(B, {init, status(0x50000012), notice(0x50000012, 1), status(0x50000011),
             notice(0x50000011, 0)});
    EXPECT_EQ(diff().status, 1);
}

TEST_F(SimDiff, leaves_out_how_the_calls_on_two_posts_fall_between_each_other)
{
    const CallList first = {call_of(SIM_THREAD_GET_STATUS, {0x50000001}, {720, 576}),
                            call_of(SIM_OPEN_OSD, {0x50000001, 0, 16, 4, 2}, {0x60000001, 0, 16})};
    const CallList second = {call_of(SIM_THREAD_GET_STATUS, {0x50000002}, {640, 360}),
                             call_of(SIM_OPEN_OSD, {0x50000002, 0, 16, 4, 2}, {0x60000002, 0, 16})};
    const CallList opened = {notify(0x50000001, 0, 1), notify(0x50000002, 1, 1)};
    const auto save_run = [&opened](const char *path, const CallList &one, const CallList &other) {
        CallList run = opened;
        run.insert(run.end(), one.begin(), one.end());
        run.insert(run.end(), other.begin(), other.end());
        save(path, run);
    };
    save_run(A, first, second);
    save_run(B, second, first);
    EXPECT_TRUE(equal());
    save_run(B, second, {first[1], first[0]});
    EXPECT_EQ(diff().status, 1) << "on one post they have their order";
    save_run(B, second, {first[0]});
    const std::string out = diff().out;
    EXPECT_NE(out.find("/tmp/codec/b.jsonl: no further call of thread 2 on thread 1 of post 0\n"),
              std::string::npos)
        << out;
}

TEST_F(SimDiff, counts_no_thread_for_a_notice_of_an_end)
{
    const sim_call_record status = call_of(SIM_THREAD_GET_STATUS, {0x50000002}, {640, 360});
    save(A, {notify(0x50000001, 0, 1), notify(0, 0, 0), notify(0x50000002, 0, 1), status});
    CallList other = {notify(0x50000001, 0, 1), notify(0, 0, 0), notify(0x50000002, 0, 1), status};
    other[3].given[0] = 641;
    save(B, other);
    const std::string out = diff().out;
    EXPECT_NE(out.find("\"res_id\":\"thread 2 of post 0\",\"result\":0,\"width\":641"),
              std::string::npos)
        << out;
}

TEST_F(SimDiff, shows_the_earliest_of_the_threads_differences)
{
    CallList calls = {call_of(SIM_LIBRARY_INIT), notify(0x50000001, 0, 1),
                      call_of(SIM_SET_NOTIFY, {15}), call_of(SIM_CLOSE_DEVICE)};
    calls[1].thread = 701;
    save(A, calls);
    calls[1].argument[1] = 2;
    calls[3].operation = SIM_LIBRARY_EXIT;
    save(B, calls);
    const std::string out = diff().out;
    EXPECT_EQ(out.rfind("/tmp/codec/a.jsonl:2: {\"n\":2,\"thread\":\"thread 2\"", 0), 0u) << out;
}

TEST_F(SimDiff, keeps_the_word_for_no_id)
{
    const CallList none = {notify(0x50000001, 0, 1), notify(0, 0, 0)};
    const CallList one = {notify(0x50000001, 0, 1), notify(0x50000002, 0, 0)};
    save(A, none);
    save(B, one);
    EXPECT_EQ(diff().out, "/tmp/codec/a.jsonl:2: {\"n\":2,\"thread\":\"thread 1\","
                          "\"call\":\"notify\",\"res_id\":\"0x00000000\",\"post\":0,\"opened\":0,"
                          "\"result\":0}\n"
                          "/tmp/codec/b.jsonl:2: {\"n\":2,\"thread\":\"thread 1\","
                          "\"call\":\"notify\",\"res_id\":\"post thread 1\",\"post\":0,"
                          "\"opened\":0,\"result\":0}\n"
                          "/tmp/codec/a.jsonl: 2 calls\n"
                          "/tmp/codec/b.jsonl: 2 calls\n");
}

TEST_F(SimDiff, takes_two_empty_runs_for_equal)
{
    write_file(A, "");
    write_file(B, "");
    EXPECT_TRUE(equal());
}

TEST_F(SimDiff, tells_file_and_line_of_what_is_no_call)
{
    const std::string good = "{\"n\":1,\"thread\":1,\"call\":\"library_init\",\"result\":0}\n";
    const std::string deep(100000, '[');
    const std::vector<std::pair<std::string, std::string>> lines = {
        {"{", "no JSON"},
        {"", "no JSON"},
        {"{} {}", "no JSON"},
        {"{\"call\":\"\xFF\"}", "no JSON"},
        {"{\"call\":1e999}", "no JSON"},
        {deep, "no JSON"},
        {"{}", "no call"},
        {"[\"call\"]", "no call"},
        {"3", "no call"},
        {"{\"call\":null}", "a call's values are texts and numbers"},
        {"{\"call\":\"x\",\"res_id\":[1]}", "a call's values are texts and numbers"},
        {"{\"call\":" + deep + std::string(deep.size(), ']') + "}",
         "a call's values are texts and numbers"},
    };
    write_file(A, good);
    for (const auto &[line, why] : lines) {
        write_file(B, good + line + "\n");
        EXPECT_TRUE(failed_with(diff(), 1, "/tmp/codec/b.jsonl: line 2: " + why))
            << line.substr(0, 40);
    }
    // Behind a difference, and in the first file as well.
    write_file(A, "{\"call\":\"notify\"}\n{\"call\":\"notify\"}\n{\n");
    write_file(B, good);
    EXPECT_TRUE(failed_with(diff(), 1, "/tmp/codec/a.jsonl: line 3: no JSON"));
}

TEST_F(SimDiff, fails_for_a_file_without_an_end)
{
    write_file(A, "");
    EXPECT_TRUE(failed_with(sim({"diff", A, "/dev/zero"}), 1,
                            "/dev/zero: line 1: longer than 1048576 bytes"));
    EXPECT_EQ(sim({"diff", A, "/dev/urandom"}).status, 1);
    write_file(B, "{\"call\":\"library_init\"}\n");
    const Ended ended = run({"/bin/sh", "-c",
                             "{ cat " + std::string(B) + "; yes; } | " + QM5SIM_PROGRAM + " diff " +
                                 A + " /dev/stdin"});
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.err, "qm5sim: /dev/stdin: line 2: no JSON\n");
}

TEST_F(SimDiff, fails_for_a_file_that_cannot_be_read)
{
    write_file(A, "");
    EXPECT_TRUE(failed_with(diff(), 1, "/tmp/codec/b.jsonl: No such file or directory"));
    EXPECT_TRUE(failed_with(sim({"diff", A, STATE}), 1, "/tmp/codec: it can't be read"));
}

TEST_F(SimDiff, has_its_manners)
{
    const Ended one = sim({"diff", A});
    EXPECT_EQ(one.status, 2);
    EXPECT_EQ(one.err.rfind("qm5sim: ", 0), 0u) << one.err;
    const Ended help = sim({"diff", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("qm5sim diff before.jsonl after.jsonl"), std::string::npos) << help.out;
}

} // namespace
