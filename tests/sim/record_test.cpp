// The record of calls as the library writes it: what stands in it, and what it leaves alone.
#include "recording.h"

#include "call_reader.h"

namespace
{

using namespace support;

class Record : public Recording
{
};

TEST_F(Record, holds_every_call_with_its_words)
{
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
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
    EXPECT_EQ(recorded_calls(),
              (Calls{"library_init = 0", "open_device = 0", "notify_callback = 0",
                     "set_notify f = 0", "thread_get_status " + id.str() + " = 0 2d0 240",
                     "open_osd " + id.str() + " 1 21 2 = 0 " + handle.str() + " a0000001 10",
                     "get_osd_mem " + id.str() + " " + handle.str() + " = 0 20",
                     "set_osd " + id.str() + " " + handle.str() + " 5 6 = 0",
                     "clear_osd " + id.str() + " " + handle.str() + " = 0",
                     "close_osd " + id.str() + " " + handle.str() + " = 0",
                     "clear_osd = -1 0x81E04507", "close_device = 0", "library_exit = 0"}));
}

// Such a post is there, and so is its picture; one that has really gone has none.
TEST_F(Record, tells_a_post_that_has_gone_from_one_of_which_a_fault_says_so)
{
    write_file(std::string(STATE) + "/faults", "1 clear_osd next fail gone1\n"
                                               "2 clear_osd 3 vanish\n"
                                               "3 notify 5 late 600000\n");
    const std::uint32_t id = bring_up_with_posts()[2];
    const Opened opened = open_osd(id, {1, 33, 2, 0});
    show(id, opened, 7);
    EXPECT_TRUE(failed(lib_.clear_osd(id, opened.handle), QM5_CL_ERROR_GONE_1));
    EXPECT_NE(lib_.clear_osd(id, 0), 0);
    const auto shown = [] {
        return call_reader::rebuild_post(CALLS, recorded().size(), 2).osd[1].record.shown;
    };
    EXPECT_EQ(shown(), 1u);
    EXPECT_TRUE(failed(lib_.clear_osd(id, opened.handle), QM5_CL_ERROR_GONE_1));
    EXPECT_EQ(sim_reader::read_post(STATE, 2).res_id, 0u);
    EXPECT_THROW(shown(), std::runtime_error);
    fs::remove(std::string(STATE) + "/breaches");
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
    const std::vector<sim_call_record> sets = recorded_sets();
    ASSERT_EQ(sets.size(), 3u);
    const std::string seven(32, '\7');
    EXPECT_EQ(sets[0].hash,
              sim_hash_shown(reinterpret_cast<const std::uint8_t *>(seven.data()), 32));
    EXPECT_EQ(sets[1].hash, sets[0].hash);
    EXPECT_EQ(sets[1].data_at, 0u);
    EXPECT_EQ(sets[2].data_at, 32u);
    EXPECT_EQ(sets[2].data_size, 32u);
    EXPECT_EQ(sets[2].line_bytes, 16u);
}

TEST_F(Record, size_that_a_fault_tells_does_not_reach_into_what_was_shown)
{
    expect_data_within_the_memory();
}

TEST_F(Record, is_not_made_unless_asked_for)
{
    set("record 0\n");
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

// A fault tells the application lines of another length, so that it draws wrongly; what the picture
// shows of that is in lines of the true length.
TEST_F(Record, holds_the_length_of_the_lines_that_are_shown_whatever_a_fault_tells)
{
    for (const int off : {16, -8}) {
        write_file(std::string(STATE) + "/faults",
                   "1 open_osd next line " + std::to_string(off) + "\n");
        const std::vector<std::uint32_t> ids = bring_up_with_posts();
        qm5_cl_post_status status{};
        ASSERT_EQ(lib_.get_status(ids[0], &status), 0);
        const Opened opened = open_osd(ids[0], {1, 64, 6, 0});
        EXPECT_EQ(opened.line_bytes, static_cast<std::uint32_t>(16 + off));
        qm5_cl_osd_mem mem{};
        ASSERT_EQ(lib_.get_osd_mem(ids[0], opened.handle, &mem), 0);
        for (std::uint32_t i = 0; i < mem.size; i++)
            static_cast<std::uint8_t *>(mem.memory)[i] = static_cast<std::uint8_t>(i);
        ASSERT_EQ(lib_.set_osd(ids[0], opened.handle, {5, 6}), 0);

        const sim_reader::Post there = sim_reader::read_post(STATE, 0);
        const sim_reader::Post kept = call_reader::rebuild_post(CALLS, recorded_head().count, 0);
        EXPECT_EQ(kept.osd[1].record.line_bytes, 16u);
        EXPECT_EQ(kept.osd[1].pixels, there.osd[1].pixels);
        const sim_reader::Palette palette = sim_reader::palette();
        EXPECT_EQ(sim_reader::compose(kept, palette).rgb, sim_reader::compose(there, palette).rgb);
        EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
        take_down();
        notices.clear();
        fs::remove(std::string(STATE) + "/state"); // the faults are to be counted from 0 again
    }
}

TEST(HashOfWhatIsShown, is_taken_of_words)
{
    const auto hash_of = [](const std::string &bytes) {
        return sim_hash_shown(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
    };
    EXPECT_EQ(hash_of(""), 0xCBF29CE484222325u);
    EXPECT_EQ(hash_of("a"), 0xFB472742010DBFB0u);
    EXPECT_EQ(hash_of("12345678"), 0x6570091A4AF99A41u);
    std::string bytes;
    for (char byte = 0; byte < 20; byte++)
        bytes += byte;
    EXPECT_EQ(hash_of(bytes), 0x8DBFBD3C46566FCBu);
}

// As texts do that differ in a pixel, and memories whose pixels are all alike.
TEST(HashOfWhatIsShown, differs_with_every_bit_pair_of_bits_and_length)
{
    std::set<std::uint64_t> seen;
    std::size_t count = 0;
    std::vector<std::uint8_t> bytes(48);
    const auto flip = [&bytes](std::size_t bit) {
        bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] ^ 1u << bit % 8);
    };
    const auto note = [&](std::size_t size) {
        seen.insert(sim_hash_shown(bytes.data(), size));
        count++;
    };
    for (std::size_t size = 0; size <= bytes.size(); size++)
        note(size);
    for (std::size_t one = 0; one < 8 * bytes.size(); one++) {
        flip(one);
        note(bytes.size());
        for (std::size_t other = 0; other < one; other++) {
            flip(other);
            note(bytes.size());
            flip(other);
        }
        flip(one);
    }
    EXPECT_EQ(seen.size(), count);
}

} // namespace
