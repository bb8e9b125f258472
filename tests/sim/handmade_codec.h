// A simulated codec's state made by hand, so that tests of the tool know every pixel, and the tool
// run on it.
#pragma once

#include "sim_state.h"
#include "support/application.h"

#include <cstdint>
#include <string>
#include <vector>

namespace support
{

// What a test says of an OSD.
struct HandmadeOsd {
    std::uint32_t color_type = 2;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t x = 0;
    std::uint32_t y = 0;
    std::uint32_t sets = 1;
};

// The record and the files of a state folder.
class HandmadeCodec
{
public:
    explicit HandmadeCodec(std::string folder);

    void open_post(unsigned post, unsigned width, unsigned height);

    // Opens and shows an OSD at a place, with lines of the fewest bytes that are a multiple of 4.
    // Its pixels are all of this index until `draw` gives others.
    sim_osd &show_osd(unsigned post, unsigned number, const HandmadeOsd &osd,
                      std::uint8_t index = 0);

    // The bytes that the OSD shows.
    void draw(unsigned post, unsigned number, const std::vector<std::uint8_t> &pixels) const;

    // Writes the record, and the posts' files of the same sizes.
    void save() const;

    std::string pixel_file(unsigned post, unsigned number) const;
    std::string state_file() const;

    sim_state state{};

private:
    std::string folder_;
};

// Tests of one command of qm5sim. What they write is in a folder of theirs.
class SimCommandTest : public ApplicationTest
{
protected:
    SimCommandTest();
    void TearDown() override;

    static Ended sim(const Words &words);

    // Runs the tool; it has to end without a word.
    static void expect_silent_success(const Words &words);

    // Runs the tool; it has to fail with this status and say this alone.
    static void expect_failure(const Words &words, int status, const std::string &message);

    // Path of a file in the tests' folder, and all of their names.
    static std::string out(const std::string &name);
    static std::vector<std::string> out_files();

    HandmadeCodec codec_;
};

// A file system of 64 KiB, full but for a page, as long as the object lives.
class FullDisk
{
public:
    explicit FullDisk(std::string folder);
    FullDisk(const FullDisk &) = delete;
    FullDisk &operator=(const FullDisk &) = delete;
    ~FullDisk();

private:
    std::string folder_;
};

} // namespace support
