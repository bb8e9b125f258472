// The record of calls as a test reads it, and a library that keeps one.
#pragma once

#include "codec_library.h"

#include "sim_calls.h"
#include "sim_faults.h"

namespace support
{

inline const std::string CALLS = std::string(STATE) + "/calls";
inline const std::string DATA = std::string(STATE) + "/calls.data";

inline sim_calls_head recorded_head()
{
    const std::string bytes = read_file(CALLS);
    sim_calls_head head{};
    EXPECT_GE(bytes.size(), sizeof head);
    std::memcpy(&head, bytes.data(), std::min(sizeof head, bytes.size()));
    EXPECT_EQ(head.magic, SIM_CALLS_MAGIC);
    EXPECT_EQ(head.version, SIM_CALLS_VERSION);
    EXPECT_EQ(head.record_size, sizeof(sim_call_record));
    return head;
}

inline std::vector<sim_call_record> recorded()
{
    std::vector<sim_call_record> records(static_cast<std::size_t>(recorded_head().count));
    const std::string bytes = read_file(CALLS);
    const std::size_t size = records.size() * sizeof(sim_call_record);
    EXPECT_GE(bytes.size(), sizeof(sim_calls_head) + size);
    std::memcpy(records.data(), bytes.data() + sizeof(sim_calls_head), size);
    return records;
}

// A record in short: operation, arguments and what was given, without zeros at the end.
inline std::string brief(const sim_call_record &record)
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

// What the application's thread has called, in order; the notices are another thread's.
inline std::vector<std::string> recorded_calls()
{
    std::vector<std::string> found;
    for (const sim_call_record &record : recorded()) {
        if (record.operation != SIM_NOTIFY)
            found.push_back(brief(record));
    }
    return found;
}

// The calls that have shown something, or would have.
inline std::vector<sim_call_record> recorded_sets()
{
    std::vector<sim_call_record> sets;
    for (const sim_call_record &record : recorded()) {
        if (record.operation == SIM_SET_OSD)
            sets.push_back(record);
    }
    return sets;
}

typedef std::vector<std::string> Calls;

class Recording : public CodecLibrary
{
protected:
    void SetUp() override
    {
        CodecLibrary::SetUp();
        fs::create_directory(STATE);
        set("record 1\n");
    }

    static void set(const std::string &settings)
    {
        write_file(std::string(STATE) + "/settings", settings);
    }

    // Draws and shows.
    void show(std::uint32_t res_id, const Opened &opened, int byte, std::uint16_t x = 5)
    {
        qm5_cl_osd_mem mem{};
        ASSERT_EQ(lib_.get_osd_mem(res_id, opened.handle, &mem), 0);
        std::memset(mem.memory, byte, mem.size);
        ASSERT_EQ(lib_.set_osd(res_id, opened.handle, {x, 6}), 0);
    }

    // A size that is told too large doesn't lead the recorder out of the memory.
    void expect_data_within_the_memory()
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
};

} // namespace support
