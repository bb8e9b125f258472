// The recorder in front of another codec library: that it passes every call on and records the same
// as the simulated codec does itself.
#include "recording.h"

#include "support/application.h"

namespace
{

using namespace support;

// ---- Against the simulated codec's own record ---------------------------------------------------

// The simulated codec alone, and behind the recorder; each with a state folder that is made anew.
class WrappedRecord : public Recording
{
protected:
    void SetUp() override
    {
        Recording::SetUp();
        setenv("QM5SIM_WRAPPED", QM5OSD_STAGE "/osd/lib/libqm5codec.so.1.2", 1);
    }

    void TearDown() override
    {
        Recording::TearDown();
        unsetenv("QM5SIM_WRAPPED");
    }

    // From now on the library is another one.
    void take(const char *path)
    {
        dlclose(lib_.handle);
        ASSERT_EQ(load(lib_, path), "");
    }

    // A life with everything in it that a record can hold, and what is out of order too.
    void live()
    {
        EXPECT_NE(lib_.open_device(), 0);
        EXPECT_NE(lib_.library_init(), 0);
        const std::vector<std::uint32_t> ids = bring_up_with_posts();
        EXPECT_NE(lib_.library_init(), 0);
        qm5_cl_post_status status{};
        EXPECT_EQ(lib_.get_status(ids[1], &status), 0);
        const Opened text = open_osd(ids[1], {3, 100, 20, 0});
        const Opened empty = open_osd(ids[1], {0, 16, 0, 2});
        const Opened other = open_osd(ids[3], {3, 33, 5, 1});
        for (const int byte : {1, 1, 2}) {
            show(ids[1], text, byte);
            show(ids[3], other, byte);
            show(ids[1], empty, byte);
        }
        EXPECT_EQ(lib_.clear_osd(ids[1], text.handle), 0);
        qm5_cl_osd_mem mem{};
        EXPECT_NE(lib_.get_osd_mem(ids[1], other.handle + 100, &mem), 0);
        EXPECT_NE(lib_.set_osd(ids[2], 0, {1, 2}), 0);
        sim_reader::write_size(STATE, 1, 640, 480);
        const std::uint32_t id = wait_for_notice(6).res_id;
        show(id, open_osd(id, {3, 100, 20, 0}), 3);
        EXPECT_EQ(lib_.close_osd(ids[3], other.handle), 0);
        EXPECT_NE(lib_.library_exit(), 0);
        EXPECT_EQ(lib_.close_device(), 0);
        EXPECT_EQ(lib_.library_exit(), 0);
        EXPECT_NE(lib_.library_exit(), 0);
        up_ = false;
    }

    // What is recorded of it, but for times and threads.
    Calls record_of_life(const std::string &settings)
    {
        fs::remove_all(STATE);
        fs::create_directory(STATE);
        set(settings);
        write_file(std::string(STATE) + "/faults", "1 library_init next fail 0x81E00042\n");
        notices.clear();
        live();
        Calls found = recorded_calls();
        for (const sim_call_record &set : recorded_sets())
            found.push_back(std::to_string(set.hash) + ' ' + std::to_string(set.data_at) + ' ' +
                            std::to_string(set.data_size) + ' ' + std::to_string(set.line_bytes));
        for (const sim_call_record &record : recorded()) {
            if (record.operation == SIM_NOTIFY)
                found.push_back(brief(record));
        }
        return found;
    }
};

TEST_F(WrappedRecord, is_the_one_of_the_simulated_codec_itself)
{
    const Calls own = record_of_life("record 1\n");
    const std::string data = read_file(DATA);
    take(QM5SIM_WRAPPER "/libqm5codec.so.1.2");
    EXPECT_EQ(record_of_life("record 0\n"), own);
    EXPECT_EQ(read_file(DATA), data);
    EXPECT_EQ(own.front(), "library_init = -1 0x81E00042");
    EXPECT_EQ(recorded_sets().size(), 11u);
}

TEST_F(WrappedRecord, ends_at_the_limit_that_the_settings_name)
{
    take(QM5SIM_WRAPPER "/libqm5codec.so.1.2");
    set("record-limit 1\n");
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[0], {0, 1024, 64, 2});
    testing::internal::CaptureStderr();
    for (int i = 0; i < 30; i++)
        show(ids[0], opened, i);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: record: the record ends here: its limit of 1 MiB is reached\n");
    EXPECT_LE(fs::file_size(CALLS) + fs::file_size(DATA), 1u << 20);
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
}

// A size that is told too large doesn't lead it out of the memory.
TEST_F(WrappedRecord, holds_no_more_than_the_lines_of_the_osd)
{
    take(QM5SIM_WRAPPER "/libqm5codec.so.1.2");
    set("");
    expect_data_within_the_memory();
}

// ---- Behind a library that gives IDs and handles again ------------------------------------------

class ThriftyRecord : public Recording
{
protected:
    void SetUp() override
    {
        Recording::SetUp();
        setenv("QM5SIM_WRAPPED", THRIFTY_CODEC, 1);
        dlclose(lib_.handle);
        ASSERT_EQ(load(lib_, QM5SIM_WRAPPER "/libqm5codec.so.1.2"), "");
        bring_up();
        first_ = wait_for_notice(1).res_id;
        second_ = wait_for_notice(2).res_id;
    }

    void TearDown() override
    {
        Recording::TearDown();
        unsetenv("QM5SIM_WRAPPED");
    }

    // What each drawing has shown, as the record holds it.
    static std::vector<std::string> shown()
    {
        const std::string data = read_file(DATA);
        std::vector<std::string> pictures;
        for (const sim_call_record &set : recorded_sets())
            pictures.push_back(data.substr(static_cast<std::size_t>(set.data_at), set.data_size));
        return pictures;
    }

    std::uint32_t first_ = 0;
    std::uint32_t second_ = 0;
};

TEST_F(ThriftyRecord, holds_what_is_shown_on_the_post_whose_handle_another_has_too)
{
    const Opened left = open_osd(first_, {0, 4, 1, 2});
    const Opened right = open_osd(second_, {0, 6, 1, 2});
    ASSERT_EQ(left.handle, right.handle);
    show(first_, left, 'a');
    show(second_, right, 'b');
    EXPECT_EQ(shown(), (std::vector<std::string>{"aaaa", "bbbbbb"}));
    EXPECT_EQ(recorded_sets()[1].line_bytes, 6u);
}

TEST_F(ThriftyRecord, holds_what_is_shown_by_an_osd_with_the_handle_of_a_closed_one)
{
    const Opened closed = open_osd(first_, {0, 4, 1, 2});
    show(first_, closed, 'a');
    EXPECT_EQ(lib_.close_osd(first_, closed.handle), 0);
    const Opened next = open_osd(first_, {1, 8, 1, 2});
    ASSERT_EQ(next.handle, closed.handle);
    show(first_, next, 'b');
    EXPECT_EQ(shown(), (std::vector<std::string>{"aaaa", "bbbbbbbb"}));
}

TEST_F(ThriftyRecord, holds_what_is_shown_by_an_osd_with_the_handle_of_one_gone_with_its_post)
{
    const Opened gone = open_osd(second_, {0, 4, 1, 2});
    qm5_cl_osd_mem mem{};
    EXPECT_EQ(lib_.get_osd_mem(second_, gone.handle, &mem), 0);
    qm5_cl_post_status status{};
    EXPECT_EQ(lib_.get_status(second_, &status), 0);
    ASSERT_EQ(wait_for_notice(4).res_id, second_);
    EXPECT_NE(lib_.set_osd(second_, gone.handle, {0, 0}), 0);
    const Opened next = open_osd(second_, {3, 8, 1, 2});
    ASSERT_EQ(next.handle, gone.handle);
    EXPECT_EQ(lib_.set_osd(second_, next.handle, {0, 0}), 0) << "of memory that nobody has asked";
    show(second_, next, 'b');
    EXPECT_EQ(shown(), (std::vector<std::string>{"", "", "bbbbbbbb"}));
}

// ---- In the server ------------------------------------------------------------------------------

class Wrapper : public ApplicationTest
{
};

TEST_F(Wrapper, passes_every_call_on_and_records_it)
{
    setenv("LD_LIBRARY_PATH", QM5SIM_WRAPPER, 1);
    setenv("QM5SIM_WRAPPED", QM5OSD_STAGE "/osd/lib/libqm5codec.so.1.2", 1);
    start({"--Post1TypeOn=1"});
    EXPECT_TRUE(shows(1, [](const sim_reader::Post &post) { return count_shown(post) == 1; }));
    stop();
    unsetenv("LD_LIBRARY_PATH");
    unsetenv("QM5SIM_WRAPPED");

    std::vector<std::string> names;
    unsigned statuses = 0;
    for (const sim_call_record &record : recorded()) {
        EXPECT_EQ(record.result, 0) << brief(record);
        if (record.operation == SIM_SET_OSD) {
            EXPECT_NE(record.hash, 0u);
            EXPECT_GT(record.data_size, 0u);
        }
        const std::string name = sim_operation_names[record.operation];
        if (record.operation == SIM_THREAD_GET_STATUS)
            statuses++; // when each post is opened is a matter of time
        else if (record.operation != SIM_NOTIFY && (names.empty() || names.back() != name))
            names.push_back(name);
    }
    EXPECT_EQ(names, (Calls{"library_init", "open_device", "notify_callback", "set_notify",
                            "open_osd", "get_osd_mem", "set_osd", "clear_osd", "close_osd",
                            "close_device", "library_exit"}));
    EXPECT_GE(statuses, SIM_POSTS);
}

TEST_F(Wrapper, says_what_keeps_it_from_the_other_library)
{
    const struct {
        const char *path;
        std::string why;
    } rows[] = {
        {nullptr, "QM5SIM_WRAPPED: names no library"},
        {QM5SIM_WRAPPER "/libqm5codec.so.1.2",
         QM5SIM_WRAPPER "/libqm5codec.so.1.2: that is the wrapper itself"},
        {"/none.so",
         "/none.so: /none.so: cannot open shared object file: No such file or directory"},
    };
    for (const auto &[path, why] : rows) {
        setenv("LD_LIBRARY_PATH", QM5SIM_WRAPPER, 1);
        unsetenv("QM5SIM_WRAPPED");
        if (path)
            setenv("QM5SIM_WRAPPED", path, 1);
        const Ended ended = tool({"start"});
        unsetenv("LD_LIBRARY_PATH");
        unsetenv("QM5SIM_WRAPPED");
        EXPECT_EQ(ended.status, 1);
        EXPECT_NE(ended.err.find("qm5sim: wrapper: " + why + "\n"), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find("qm5_cl_library_init() failed. errno=0x81E00003"),
                  std::string::npos)
            << ended.err;
        std::vector<pid_t> left;
        EXPECT_TRUE(wait_until([&] { return (left = processes_of(executable_)).empty(); }));
        remove_file("/tmp/osd_tmp_param.txt"); // a start that fails leaves it
    }
}

} // namespace
