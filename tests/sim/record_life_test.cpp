// When a record of calls begins, goes on and ends: with the library's life, with its limit, a full
// disk, and the sudden death of its process.
#include "recording.h"

#include "call_reader.h"
#include "support/application.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using namespace support;

class RecordLife : public Recording
{
protected:
    // The files are as long as what they hold, and no longer.
    static void expect_exact_files()
    {
        const sim_calls_head head = recorded_head();
        EXPECT_EQ(fs::file_size(CALLS), sizeof head + head.count * sizeof(sim_call_record));
        EXPECT_EQ(fs::file_size(DATA), head.data);
    }

    // Shows so many different pictures of 4096 bytes; what the library says meanwhile.
    std::string show_pages(std::uint32_t res_id, unsigned count)
    {
        const Opened opened = open_osd(res_id, {1, 256, 16, 2});
        testing::internal::CaptureStderr();
        for (unsigned i = 0; i < count; i++)
            show(res_id, opened, static_cast<int>(i % 251), static_cast<std::uint16_t>(i));
        const std::string told = testing::internal::GetCapturedStderr();
        EXPECT_EQ(lib_.close_osd(res_id, opened.handle), 0);
        return told;
    }

    // The file `state`, locked as by another process that has the library up.
    static int lock(const std::string &path)
    {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
        return fd;
    }
};

const Calls WHOLE_LIFE = {"library_init = 0", "open_device = 0",  "notify_callback = 0",
                          "set_notify f = 0", "close_device = 0", "library_exit = 0"};

Calls operator+(Calls calls, const Calls &others)
{
    calls.insert(calls.end(), others.begin(), others.end());
    return calls;
}

// ---- Beginning and end --------------------------------------------------------------------------

TEST_F(RecordLife, begins_anew_with_the_library)
{
    for (unsigned i = 0; i < 2; i++) {
        notices.clear();
        bring_up_with_posts();
        take_down();
        EXPECT_EQ(recorded_calls(), WHOLE_LIFE);
        expect_exact_files();
    }
}

TEST_F(RecordLife, holds_a_start_that_has_failed_and_the_next_one_behind_it)
{
    bring_up_with_posts();
    take_down();
    write_file(std::string(STATE) + "/faults", "1 library_init next fail 0x81E00042\n"
                                               "2 library_init 2 fail 0x81E00043\n");
    EXPECT_TRUE(failed(lib_.library_init(), 0x81E00042));
    EXPECT_EQ(recorded_calls(), Calls{"library_init = -1 0x81E00042"});
    expect_exact_files();
    EXPECT_TRUE(failed(lib_.library_init(), 0x81E00043));
    notices.clear();
    bring_up_with_posts();
    take_down();
    EXPECT_EQ(recorded_calls(),
              (Calls{"library_init = -1 0x81E00042", "library_init = -1 0x81E00043"} + WHOLE_LIFE));
    notices.clear();
    bring_up_with_posts();
    take_down();
    EXPECT_EQ(recorded_calls(), WHOLE_LIFE);
}

TEST_F(RecordLife, does_not_go_on_in_the_place_of_another_process)
{
    write_file(std::string(STATE) + "/faults", "1 library_init next fail 0x81E00042\n");
    EXPECT_NE(lib_.library_init(), 0);
    fs::remove(CALLS);
    write_file(CALLS, "another");
    bring_up_with_posts();
    take_down();
    EXPECT_EQ(recorded_calls(), WHOLE_LIFE);
}

TEST_F(RecordLife, of_another_process_is_left_alone)
{
    const std::string state = std::string(STATE) + "/state";
    const int locked = lock(state);
    write_file(CALLS, "another");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(failed(lib_.library_init(), 0x81E00003));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: " + state + ": another process has the device open\n");
    EXPECT_EQ(read_file(CALLS), "another");
    EXPECT_FALSE(fs::exists(DATA));
    close(locked);
}

TEST_F(RecordLife, is_not_begun_where_something_else_writes_one)
{
    const int locked = lock(CALLS);
    write_file(CALLS, "another");
    testing::internal::CaptureStderr();
    bring_up_with_posts();
    take_down();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: record: " + CALLS + ": Device or resource busy\n");
    EXPECT_EQ(read_file(CALLS), "another");
    EXPECT_FALSE(fs::exists(DATA));
    close(locked);
}

TEST_F(RecordLife, goes_on_behind_calls_out_of_their_order)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    EXPECT_NE(lib_.library_exit(), 0);
    EXPECT_NE(lib_.library_init(), 0);
    const Opened opened = open_osd(ids[0], {1, 64, 2, 0});
    show(ids[0], opened, 7);
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
    take_down();
    const Calls calls = recorded_calls();
    ASSERT_EQ(calls.size(), 13u);
    EXPECT_EQ(calls[4], "library_exit = -1 0x81E00001");
    EXPECT_EQ(calls[5], "library_init = -1 0x81E00001");
    EXPECT_EQ(calls[12], "library_exit = 0");
    EXPECT_EQ(recorded_sets().size(), 1u);
}

TEST_F(RecordLife, holds_calls_behind_library_exit)
{
    bring_up_with_posts();
    take_down();
    EXPECT_NE(lib_.open_device(), 0);
    EXPECT_NE(lib_.clear_osd(1, 2), 0);
    EXPECT_NE(lib_.library_exit(), 0);
    EXPECT_EQ(recorded_calls(),
              (WHOLE_LIFE + Calls{"open_device = -1 0x81E00001", "clear_osd 1 2 = -1 0x81E00001",
                                  "library_exit = -1 0x81E00001"}));
    expect_exact_files();
}

TEST_F(RecordLife, of_before_stays_when_no_more_is_wanted)
{
    bring_up_with_posts();
    take_down();
    set("record 0\n");
    notices.clear();
    bring_up_with_posts();
    take_down();
    EXPECT_NE(lib_.open_device(), 0);
    EXPECT_EQ(recorded_calls(), WHOLE_LIFE);
}

// ---- Size ---------------------------------------------------------------------------------------

TEST_F(RecordLife, holds_more_calls_than_are_mapped_at_a_time)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[0], {1, 8, 1, 0});
    constexpr unsigned count = 10000;
    for (unsigned i = 0; i < count; i++)
        show(ids[0], opened, static_cast<int>(i / 100), static_cast<std::uint16_t>(i));
    const std::vector<sim_call_record> sets = recorded_sets();
    ASSERT_EQ(sets.size(), count);
    for (unsigned i = 0; i < count; i++) {
        ASSERT_EQ(sets[i].argument[2], i);
        ASSERT_EQ(sets[i].data_at, i / 100 * 16u);
    }
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
    take_down();
    expect_exact_files();
    EXPECT_EQ(mappings_of("/calls"), 0u);
}

TEST_F(RecordLife, ends_at_its_limit_and_the_calls_go_on)
{
    set("record 1\nrecord-limit 1\n");
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    EXPECT_EQ(show_pages(ids[0], 1000),
              "qm5sim: record: the record ends here: its limit of 1 MiB is reached\n");
    EXPECT_LE(fs::file_size(CALLS) + fs::file_size(DATA), 1u << 20);
    expect_exact_files();
    EXPECT_EQ(recorded_head().cut, SIM_CALLS_AT_LIMIT);
    EXPECT_EQ(recorded_head().limit, 1u << 20);
    const std::vector<sim_call_record> sets = recorded_sets();
    ASSERT_GT(sets.size(), 100u);
    for (std::size_t i = 0; i < sets.size(); i++)
        EXPECT_EQ(sets[i].argument[2], i);
    EXPECT_EQ(recorded_calls()[0], "library_init = 0") << "the beginning is what is kept";
    const std::size_t count = recorded().size();
    take_down();
    EXPECT_EQ(recorded().size(), count);
}

TEST_F(RecordLife, of_many_calls_ends_at_its_limit_too)
{
    set("record 1\nrecord-limit 1\n");
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const Opened opened = open_osd(ids[0], {1, 8, 1, 0});
    testing::internal::CaptureStderr();
    for (unsigned i = 0; i < 12000; i++)
        ASSERT_EQ(lib_.clear_osd(ids[0], opened.handle), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: record: the record ends here: its limit of 1 MiB is reached\n");
    EXPECT_GT(fs::file_size(CALLS), 900000u);
    EXPECT_LE(fs::file_size(CALLS), 1u << 20);
    expect_exact_files();
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
}

TEST_F(RecordLife, has_its_own_limit_each_time)
{
    set("record 1\nrecord-limit 1\n");
    std::vector<std::uint32_t> ids = bring_up_with_posts();
    EXPECT_NE(show_pages(ids[0], 300), "");
    take_down();
    set("record 1\nrecord-limit 2\n");
    notices.clear();
    ids = bring_up_with_posts();
    EXPECT_EQ(show_pages(ids[0], 300), "");
    EXPECT_EQ(recorded_sets().size(), 300u);
    EXPECT_EQ(recorded_head().cut, SIM_CALLS_WHOLE);
}

TEST_F(RecordLife, ends_on_a_full_disk_and_the_calls_go_on)
{
    ASSERT_EQ(mount("none", STATE, "tmpfs", 0, "size=600k"), 0);
    set("record 1\n");
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    EXPECT_EQ(show_pages(ids[0], 200),
              "qm5sim: record: the record ends here: No space left on device\n");
    EXPECT_GT(recorded_sets().size(), 20u);
    expect_exact_files();
    EXPECT_EQ(recorded_head().cut, SIM_CALLS_FAILED);
    take_down();
    EXPECT_EQ(umount(STATE), 0);
}

// ---- Sudden death -------------------------------------------------------------------------------

// Draws number after number until it is killed; each picture is of bytes of its number, and stands
// at its number.
[[noreturn]] void draw_for_ever(const Library &library, std::uint32_t res_id, std::uint32_t handle)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (unsigned i = 0;; i++) {
        qm5_cl_osd_mem mem{};
        if (library.get_osd_mem(res_id, handle, &mem) != 0)
            _exit(1);
        std::memset(mem.memory, static_cast<int>(i % 251), mem.size);
        const auto x = static_cast<std::uint16_t>(i);
        if (library.set_osd(res_id, handle, {x, 0}) != 0)
            _exit(1);
    }
}

class KilledRecord : public RecordLife
{
protected:
    // A process that has the library up and draws.
    pid_t start_drawing()
    {
        const pid_t child = fork();
        if (child != 0)
            return child;
        const std::vector<std::uint32_t> ids = bring_up_with_posts();
        qm5_cl_post_status status{};
        if (lib_.get_status(ids[0], &status) != 0)
            _exit(1);
        draw_for_ever(lib_, ids[0], open_osd(ids[0], {2, 100, 3, 1}).handle);
    }

    // How many calls the record holds by now.
    static std::uint64_t count()
    {
        const int fd = open(CALLS.c_str(), O_RDONLY | O_CLOEXEC);
        sim_calls_head head{};
        const bool whole = fd != -1 && pread(fd, &head, sizeof head, 0) == sizeof head;
        close(fd);
        return whole ? head.count : 0;
    }

    static void expect_whole_record()
    {
        const std::string data = read_file(DATA);
        std::uint32_t number = 0;
        for (const sim_call_record &set : recorded_sets()) {
            ASSERT_EQ(set.argument[2], number & 0xFFFF);
            ASSERT_LE(set.data_at + set.data_size, data.size());
            const std::string shown =
                data.substr(static_cast<std::size_t>(set.data_at), set.data_size);
            ASSERT_EQ(shown, std::string(64 * 3, static_cast<char>(number % 251)));
            ASSERT_EQ(set.hash, sim_hash_shown(reinterpret_cast<const std::uint8_t *>(shown.data()),
                                               shown.size()));
            number++;
        }
        ASSERT_GT(number, 0u);
        const std::uint64_t last = recorded_head().count;
        const sim_reader::Post post = call_reader::rebuild_post(CALLS, last, 0);
        EXPECT_EQ(post.osd[2].record.sets, number);
        EXPECT_EQ(post.osd[2].record.x, (number - 1) & 0xFFFF);
    }
};

TEST_F(KilledRecord, is_whole_at_whatever_moment)
{
    for (unsigned round = 0; round < 25; round++) {
        fs::remove(CALLS);
        const pid_t child = start_drawing();
        ASSERT_NE(child, -1);
        // Small numbers for the beginning, large ones for the changes of what is mapped.
        const std::uint64_t enough = 20 + round * round * 12;
        EXPECT_TRUE(wait_until([enough] { return count() >= enough; }));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
        expect_whole_record();
        if (HasFatalFailure())
            return;
    }
}

TEST_F(KilledRecord, makes_way_for_the_next_one)
{
    const pid_t child = start_drawing();
    EXPECT_TRUE(wait_until([] { return count() >= 100; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    bring_up_with_posts();
    take_down();
    EXPECT_EQ(recorded_calls(), WHOLE_LIFE);
    expect_exact_files();
}

class KilledServer : public ApplicationTest
{
};

TEST_F(KilledServer, leaves_a_record_that_can_be_read)
{
    fs::create_directory(STATE);
    write_file(std::string(STATE) + "/settings", "record 1\n");
    start({"--Post0TimeOn=1", "--Post0TypeOn=1"});
    EXPECT_TRUE(
        shows(0, [](const sim_reader::Post &post) { return post.osd[3].record.sets >= 3; }));
    const std::vector<pid_t> servers = processes_of(executable_);
    ASSERT_EQ(servers.size(), 1u);
    kill(servers[0], SIGKILL);
    ASSERT_EQ(waitpid(servers[0], nullptr, 0), servers[0]);
    for (const char *left : {"/tmp/osd_fifo_req", "/tmp/osd_fifo_ack", "/tmp/osd_tmp_param.txt",
                             "/tmp/osd_tmp_param.bak"})
        fs::remove(left);

    const Ended printed = run({QM5SIM_PROGRAM, "calls"});
    EXPECT_EQ(printed.status, 0);
    EXPECT_EQ(printed.err, "");
    const std::uint64_t count = recorded_head().count;
    EXPECT_EQ(static_cast<std::uint64_t>(std::count(printed.out.begin(), printed.out.end(), '\n')),
              count);
    const sim_reader::Post kept = call_reader::rebuild_post(CALLS, count, 0);
    const sim_reader::Post shown = post(0);
    EXPECT_EQ(kept.osd[1].pixels, shown.osd[1].pixels);
    EXPECT_LE(shown.osd[3].record.sets - kept.osd[3].record.sets, 1u) << "the call it died in";
    start(); // in the same folder, with a record of its own
    stop();
    EXPECT_EQ(recorded_calls().front(), "library_init = 0");
    EXPECT_EQ(recorded_calls().back(), "library_exit = 0");
}

} // namespace
