#include "handmade_codec.h"

#include "support/files.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <sys/mount.h>
#include <utility>

namespace support
{

namespace fs = std::filesystem;

namespace
{

constexpr const char *OUT = "/tmp/out";

} // namespace

// ---- The state ----------------------------------------------------------------------------------

HandmadeCodec::HandmadeCodec(std::string folder) : folder_(std::move(folder))
{
    state.magic = SIM_MAGIC;
    state.version = SIM_VERSION;
    state.sequence = 2;
}

void HandmadeCodec::open_post(unsigned post, unsigned width, unsigned height)
{
    state.post[post].res_id = 0x50000001 + post;
    state.post[post].width = width;
    state.post[post].height = height;
}

sim_osd &HandmadeCodec::show_osd(unsigned post, unsigned number, const HandmadeOsd &osd,
                                 std::uint8_t index)
{
    sim_osd &record = state.post[post].osd[number];
    const unsigned bits = 2u << osd.color_type;
    record.handle = 0x60000011 + post * SIM_OSDS + number;
    record.color_type = osd.color_type;
    record.width = osd.width;
    record.height = osd.height;
    record.line_bytes = (osd.width * bits + 31) / 32 * 4;
    record.shown = 1;
    record.x = osd.x;
    record.y = osd.y;
    record.sets = osd.sets;
    unsigned byte = 0;
    for (unsigned at = 0; at < 8; at += bits)
        byte |= unsigned{index} << at;
    draw(post, number,
         std::vector<std::uint8_t>(std::size_t{record.line_bytes} * record.height,
                                   static_cast<std::uint8_t>(byte)));
    return record;
}

void HandmadeCodec::draw(unsigned post, unsigned number,
                         const std::vector<std::uint8_t> &pixels) const
{
    fs::create_directory(folder_);
    write_file(pixel_file(post, number),
               {reinterpret_cast<const char *>(pixels.data()), pixels.size()});
}

void HandmadeCodec::save() const
{
    fs::create_directory(folder_);
    write_file(state_file(), {reinterpret_cast<const char *>(&state), sizeof state});
    for (unsigned i = 0; i < SIM_POSTS; i++)
        write_file(folder_ + "/post" + std::to_string(i),
                   sim_reader::format_size({state.post[i].width, state.post[i].height}) + '\n');
}

std::string HandmadeCodec::pixel_file(unsigned post, unsigned number) const
{
    return folder_ + "/post" + std::to_string(post) + "-osd" + std::to_string(number);
}

std::string HandmadeCodec::state_file() const
{
    return folder_ + "/state";
}

// ---- The tool -----------------------------------------------------------------------------------

SimCommandTest::SimCommandTest() : codec_(state_)
{
    fs::create_directory(OUT);
}

void SimCommandTest::TearDown()
{
    fs::remove_all(OUT);
    ApplicationTest::TearDown();
}

Ended SimCommandTest::sim(const Words &words)
{
    Words all = {QM5SIM_PROGRAM};
    all.insert(all.end(), words.begin(), words.end());
    return run(all);
}

void SimCommandTest::expect_silent_success(const Words &words)
{
    expect_failure(words, 0, "");
}

void SimCommandTest::expect_failure(const Words &words, int status, const std::string &message)
{
    const Ended ended = sim(words);
    EXPECT_EQ(ended.status, status);
    EXPECT_EQ(ended.out, "");
    EXPECT_EQ(ended.err, message);
}

std::string SimCommandTest::out(const std::string &name)
{
    return std::string(OUT) + '/' + name;
}

std::vector<std::string> SimCommandTest::out_files()
{
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(OUT))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// ---- A full disk --------------------------------------------------------------------------------

FullDisk::FullDisk(std::string folder) : folder_(std::move(folder))
{
    fs::create_directory(folder_);
    EXPECT_EQ(mount("none", folder_.c_str(), "tmpfs", 0, "size=64k"), 0);
    write_file(folder_ + "/filler", std::string(60 * 1024, 'x'));
}

FullDisk::~FullDisk()
{
    EXPECT_EQ(umount(folder_.c_str()), 0);
}

} // namespace support
