// The record of calls as the library writes it: what stands in it, and what it leaves alone.
#include "codec_library.h"

#include "sim_calls.h"
#include "support/application.h"

#include <sys/mount.h>

namespace
{

using namespace support;

const std::string CALLS = std::string(STATE) + "/calls";
const std::string DATA = std::string(STATE) + "/calls.data";

std::vector<sim_call_record> recorded()
{
    const std::string bytes = read_file(CALLS);
    sim_calls_head head{};
    EXPECT_GE(bytes.size(), sizeof head);
    std::memcpy(&head, bytes.data(), std::min(sizeof head, bytes.size()));
    EXPECT_EQ(head.magic, SIM_CALLS_MAGIC);
    EXPECT_EQ(head.version, SIM_CALLS_VERSION);
    EXPECT_EQ(head.record_size, sizeof(sim_call_record));
    std::vector<sim_call_record> records(head.count);
    EXPECT_GE(bytes.size(), sizeof head + head.count * sizeof(sim_call_record));
    std::memcpy(records.data(), bytes.data() + sizeof head, records.size() * sizeof records[0]);
    return records;
}

// A record in short: operation, arguments and what was given, without zeros at the end.
std::string brief(const sim_call_record &record)
{
    std::ostringstream text;
    text << sim_operation_names[record.operation];
    std::vector<std::uint32_t> words(std::begin(record.argument), std::end(record.argument));
    while (!words.empty() && words.back() == 0)
        words.pop_back();
    for (const std::uint32_t word : words)
        text << ' ' << std::hex << word;
    text << " = " << std::dec << record.result;
    if (record.error != 0)
        text << " 0x" << std::hex << std::uppercase << record.error << std::nouppercase;
    words.assign(std::begin(record.given), std::end(record.given));
    while (!words.empty() && words.back() == 0)
        words.pop_back();
    for (const std::uint32_t word : words)
        text << ' ' << std::hex << word;
    return text.str();
}

class Record : public CodecLibrary
{
protected:
    void SetUp() override
    {
        CodecLibrary::SetUp();
        fs::create_directory(STATE);
        write_file(std::string(STATE) + "/settings", "record 1\n");
    }

    // What the application's thread has called, in order; the notices are another thread's.
    static std::vector<std::string> calls()
    {
        std::vector<std::string> found;
        for (const sim_call_record &record : recorded()) {
            if (record.operation != SIM_NOTIFY)
                found.push_back(brief(record));
        }
        return found;
    }

    // Draws and shows.
    void show(std::uint32_t res_id, const Opened &opened, int byte)
    {
        qm5_cl_osd_mem mem{};
        ASSERT_EQ(lib_.get_osd_mem(res_id, opened.handle, &mem), 0);
        std::memset(mem.memory, byte, mem.size);
        ASSERT_EQ(lib_.set_osd(res_id, opened.handle, {5, 6}), 0);
    }
};

TEST_F(Record, holds_every_call_with_its_words)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    qm5_cl_post_status status{};
    ASSERT_EQ(lib_.get_status(ids[0], &status), 0);
    const Opened opened = open_osd(ids[0], {1, 33, 2, 0});
    show(ids[0], opened, 7);
    EXPECT_EQ(lib_.clear_osd(ids[0], opened.handle), 0);
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
    EXPECT_NE(lib_.clear_osd(0, 0), 0);
    take_down();

    std::ostringstream id;
    std::ostringstream handle;
    id << std::hex << ids[0];
    handle << std::hex << opened.handle;
    EXPECT_EQ(calls(), (std::vector<std::string>{
                           "library_init = 0", "open_device = 0", "notify_callback = 0",
                           "set_notify f = 0", "thread_get_status " + id.str() + " = 0 2d0 240",
                           "open_osd " + id.str() + " 1 21 2 = 0 " + handle.str() + " a0000001 10",
                           "get_osd_mem " + id.str() + " " + handle.str() + " = 0 20",
                           "set_osd " + id.str() + " " + handle.str() + " 5 6 = 0",
                           "clear_osd " + id.str() + " " + handle.str() + " = 0",
                           "close_osd " + id.str() + " " + handle.str() + " = 0",
                           "clear_osd = -1 0x81E04507", "close_device = 0", "library_exit = 0"}));
}

TEST_F(Record, holds_the_notices_of_the_other_thread)
{
    bring_up_with_posts();
    sim_reader::write_size(STATE, 2, 0, 0);
    wait_for_notice(5);
    take_down();
    std::vector<std::string> told;
    std::set<std::uint32_t> threads;
    for (const sim_call_record &record : recorded()) {
        if (record.operation == SIM_NOTIFY) {
            told.push_back(std::to_string(record.argument[1]) +
                           (record.argument[2] != 0 ? " opened" : " closed"));
            EXPECT_EQ(record.argument[0] != 0, record.argument[2] != 0);
        }
        threads.insert(record.thread);
    }
    EXPECT_EQ(told, (std::vector<std::string>{"0 opened", "1 opened", "2 opened", "3 opened",
                                              "2 closed"}));
    EXPECT_EQ(threads.size(), 2u);
}

TEST_F(Record, holds_what_was_shown_once_if_it_is_the_same)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[0], {1, 64, 2, 0});
    show(ids[0], opened, 7);
    show(ids[0], opened, 7);
    show(ids[0], opened, 8);
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
    take_down();
    EXPECT_EQ(read_file(DATA), std::string(32, '\7') + std::string(32, '\10'));
    std::vector<sim_call_record> sets;
    for (const sim_call_record &record : recorded()) {
        if (record.operation == SIM_SET_OSD)
            sets.push_back(record);
    }
    ASSERT_EQ(sets.size(), 3u);
    const std::string seven(32, '\7');
    EXPECT_EQ(sets[0].hash,
              sim_hash_shown(reinterpret_cast<const std::uint8_t *>(seven.data()), 32));
    EXPECT_EQ(sets[1].hash, sets[0].hash);
    EXPECT_EQ(sets[1].data_at, 0u);
    EXPECT_EQ(sets[2].data_at, 32u);
    EXPECT_EQ(sets[2].data_size, 32u);
}

TEST_F(Record, size_that_a_fault_tells_does_not_reach_into_what_was_shown)
{
    write_file(std::string(STATE) + "/faults", "1 get_osd_mem every size 1000000\n");
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[0], {1, 64, 2, 0});
    qm5_cl_osd_mem mem{};
    ASSERT_EQ(lib_.get_osd_mem(ids[0], opened.handle, &mem), 0);
    std::memset(mem.memory, 7, 32);
    ASSERT_EQ(lib_.set_osd(ids[0], opened.handle, {5, 6}), 0);
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
    EXPECT_EQ(read_file(DATA), std::string(32, '\7'));
}

TEST_F(Record, begins_anew_with_the_library)
{
    bring_up_with_posts();
    take_down();
    notices.clear();
    bring_up_with_posts();
    take_down();
    EXPECT_EQ(calls(), (std::vector<std::string>{"library_init = 0", "open_device = 0",
                                                 "notify_callback = 0", "set_notify f = 0",
                                                 "close_device = 0", "library_exit = 0"}));
}

TEST_F(Record, is_not_made_unless_asked_for)
{
    write_file(std::string(STATE) + "/settings", "record 0\n");
    bring_up_with_posts();
    take_down();
    EXPECT_FALSE(fs::exists(CALLS));
    EXPECT_FALSE(fs::exists(DATA));
}

TEST_F(Record, that_cannot_be_begun_is_told_and_the_calls_go_on)
{
    write_file(std::string(STATE) + "/settings", "record 1\n");
    fs::create_directory(CALLS);
    testing::internal::CaptureStderr();
    bring_up_with_posts();
    take_down();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: record: /tmp/codec/calls: File exists\n");
}

TEST_F(Record, ends_on_a_full_disk_and_the_calls_go_on)
{
    ASSERT_EQ(mount("none", STATE, "tmpfs", 0, "size=64k"), 0);
    write_file(std::string(STATE) + "/settings", "record 1\n");
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[0], {1, 64, 2, 0});
    testing::internal::CaptureStderr();
    for (unsigned i = 0; i < 1000; i++)
        show(ids[0], opened, static_cast<int>(i % 250));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: record: the record ends here: No space left on device\n");
    EXPECT_GT(recorded().size(), 100u);
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
    take_down();
    EXPECT_EQ(umount(STATE), 0);
}

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
    EXPECT_EQ(names,
              (std::vector<std::string>{"library_init", "open_device", "notify_callback",
                                        "set_notify", "open_osd", "get_osd_mem", "set_osd",
                                        "clear_osd", "close_osd", "close_device", "library_exit"}));
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
