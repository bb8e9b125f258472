// qm5sim replay: what a post showed after a recorded call.
#include "call_reader.h"
#include "recorded_calls.h"

#include <algorithm>
#include <png.h>
#include <stdexcept>

namespace
{

using namespace support;

constexpr std::uint32_t RES_ID = 0x50000001;
constexpr std::uint32_t HANDLE = 0x60000001;
constexpr const char *PNG = "/tmp/codec/then.png";

class SimReplay : public RecordTest
{
protected:
    // Adds a call that shows these bytes, which go to the end of the data.
    void show(std::uint32_t handle, std::uint32_t x, std::uint32_t y, const std::string &pixels,
              std::uint32_t res_id = RES_ID)
    {
        sim_call_record call = call_of(SIM_SET_OSD, {res_id, handle, x, y});
        call.data_at = data_.size();
        call.data_size = static_cast<std::uint32_t>(pixels.size());
        call.hash =
            sim_hash_shown(reinterpret_cast<const std::uint8_t *>(pixels.data()), pixels.size());
        calls_.push_back(call);
        data_ += pixels;
    }

    // Post 2 of 64 by 48 pixels, with its OSD 1 of 8 by 4 pixels in 256 colours; 3 calls.
    void open_post()
    {
        calls_ = {notify(RES_ID, 2, 1), call_of(SIM_THREAD_GET_STATUS, {RES_ID}, {64, 48}),
                  call_of(SIM_OPEN_OSD, {RES_ID, 1, 8, 4, 2}, {HANDLE, 0xA0000001, 8})};
    }

    void write() const
    {
        write_file(CALLS, record_of(calls_));
        write_file(DATA, data_);
    }

    // The post after a call, or after the last.
    sim_reader::Post post(std::uint64_t call = 0) const
    {
        write();
        return call_reader::rebuild_post(CALLS, call != 0 ? call : calls_.size(), 2);
    }

    std::string why_not(std::uint64_t call = 0) const
    {
        try {
            post(call);
        } catch (const std::runtime_error &error) {
            return error.what();
        }
        return "";
    }

    // The numbers of the OSDs that the post shows after a call.
    std::string shown(std::uint64_t call = 0) const
    {
        std::string numbers;
        const sim_reader::Post now = post(call);
        for (std::size_t i = 0; i < SIM_OSDS; i++) {
            if (now.osd[i].record.shown != 0)
                numbers += std::to_string(i);
        }
        return numbers;
    }

    static Ended replay(std::uint64_t call, const Words &words = {"--post", "2"})
    {
        Words all = {"replay", std::to_string(call), PNG};
        all.insert(all.end(), words.begin(), words.end());
        return sim(all);
    }

    CallList calls_;
    std::string data_;
};

std::vector<std::uint8_t> read_png(unsigned width, unsigned height)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    EXPECT_NE(png_image_begin_read_from_file(&image, PNG), 0) << image.message;
    image.format = PNG_FORMAT_RGB;
    EXPECT_EQ(image.width, width);
    EXPECT_EQ(image.height, height);
    std::vector<std::uint8_t> rgb(PNG_IMAGE_SIZE(image));
    png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr);
    return rgb;
}

// ---- Pictures -----------------------------------------------------------------------------------

TEST_F(SimReplay, writes_the_picture_of_the_post)
{
    open_post();
    show(HANDLE, 60, 10, std::string(32, '\5')); // over the right edge
    show(HANDLE, 60, 20, std::string(32, '\6'));
    write();
    sim_reader::Post bare;
    bare.width = 64;
    bare.height = 48;
    for (const unsigned call : {3u, 4u, 5u}) {
        const Ended ended = replay(call);
        ASSERT_EQ(ended.status, 0) << ended.err;
        EXPECT_EQ(ended.out + ended.err, "");
        std::vector<std::uint8_t> expected = sim_reader::compose(bare, sim_reader::palette()).rgb;
        for (unsigned y = 0; call > 3 && y < 4; y++) {
            const sim_reader::Color &color = sim_reader::palette()[call + 1];
            for (unsigned x = 60; x < 64; x++) {
                std::uint8_t *pixel =
                    &expected[(((call == 4 ? 10 : 20) + y) * std::size_t{64} + x) * 3];
                pixel[0] = color.red;
                pixel[1] = color.green;
                pixel[2] = color.blue;
            }
        }
        EXPECT_EQ(read_png(64, 48), expected) << call;
    }
}

TEST_F(SimReplay, takes_another_record_with_the_data_beside_it)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    write();
    fs::rename(CALLS, "/tmp/codec/old");
    fs::rename(DATA, "/tmp/codec/old.data");
    const Ended ended = replay(4, {"--post", "2", "--file", "/tmp/codec/old"});
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(read_png(64, 48)[0], sim_reader::palette()[5].red);
}

TEST_F(SimReplay, shows_the_palette_in_force)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    write();
    write_file("/tmp/palette", "5 7 8 9 255\n");
    ASSERT_EQ(run_sim({"palette", "--load", "/tmp/palette"}).status, 0);
    ASSERT_EQ(replay(4).status, 0);
    const std::vector<std::uint8_t> rgb = read_png(64, 48);
    EXPECT_EQ(std::vector<std::uint8_t>(rgb.begin(), rgb.begin() + 3),
              (std::vector<std::uint8_t>{7, 8, 9}));
    fs::remove("/tmp/palette");
}

TEST_F(SimReplay, gives_every_part_of_a_post)
{
    open_post();
    show(HANDLE, 3, 4, std::string(32, '\7'));
    const sim_reader::Post now = post();
    EXPECT_EQ(now.res_id, RES_ID);
    EXPECT_EQ(now.width, 64u);
    EXPECT_EQ(now.height, 48u);
    const sim_osd &osd = now.osd[1].record;
    EXPECT_EQ(osd.handle, HANDLE);
    EXPECT_EQ(osd.color_type, 2u);
    EXPECT_EQ(osd.width, 8u);
    EXPECT_EQ(osd.height, 4u);
    EXPECT_EQ(osd.line_bytes, 8u);
    EXPECT_EQ(osd.x, 3u);
    EXPECT_EQ(osd.y, 4u);
    EXPECT_EQ(osd.sets, 1u);
    EXPECT_EQ(now.osd[1].pixels, std::vector<std::uint8_t>(32, 7));
    EXPECT_EQ(now.osd[0].record.handle, 0u);
}

// As where a fault has told the application another length than the memory had.
TEST_F(SimReplay, takes_the_length_of_the_lines_that_were_shown)
{
    open_post();
    calls_[2].given[2] = 24;
    show(HANDLE, 3, 4, std::string(16, '\5') + std::string(16, '\6'));
    calls_.back().line_bytes = 8;
    const sim_reader::Post now = post();
    EXPECT_EQ(now.osd[1].record.line_bytes, 8u);
    EXPECT_EQ(now.osd[1].index_at(7, 1), 5u);
    EXPECT_EQ(now.osd[1].index_at(0, 2), 6u);
}

// ---- What calls do ------------------------------------------------------------------------------

TEST_F(SimReplay, clears_shows_again_and_closes)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    calls_.push_back(call_of(SIM_CLEAR_OSD, {RES_ID, HANDLE}));
    show(HANDLE, 0, 0, std::string(32, '\6'));
    calls_.push_back(call_of(SIM_CLOSE_OSD, {RES_ID, HANDLE}));
    show(HANDLE, 0, 0, std::string(32, '\7')); // which the library would have refused
    EXPECT_EQ(shown(3), "");
    EXPECT_EQ(shown(4), "1");
    EXPECT_EQ(shown(5), "");
    EXPECT_EQ(post(6).osd[1].pixels[0], 6);
    EXPECT_EQ(shown(7), "");
    EXPECT_EQ(shown(8), "");
}

TEST_F(SimReplay, passes_over_failed_calls)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    for (const sim_operation operation : {SIM_CLEAR_OSD, SIM_CLOSE_OSD})
        calls_.push_back(failed(call_of(operation, {RES_ID, HANDLE}), 0x81E03246));
    show(HANDLE, 0, 0, std::string(32, '\6'));
    calls_.back() = failed(calls_.back(), 0x81E03246);
    calls_.push_back(
        failed(call_of(SIM_OPEN_OSD, {RES_ID, 9, 8, 4, 2}, {HANDLE, 0, 0}), 0x81E00002));
    calls_.push_back(failed(call_of(SIM_THREAD_GET_STATUS, {RES_ID}, {0, 0}), 0x81E03246));
    EXPECT_EQ(post().osd[1].pixels[0], 5);
}

// Its end may be announced much later.
TEST_F(SimReplay, ends_a_thread_with_the_first_call_that_finds_it_gone)
{
    const sim_call_record gone[] = {
        failed(call_of(SIM_THREAD_GET_STATUS, {RES_ID}), 0x81E04507),
        failed(call_of(SIM_OPEN_OSD, {RES_ID, 2, 8, 4, 2}), 0x81E03204),
        failed(call_of(SIM_CLEAR_OSD, {RES_ID, HANDLE}), 0x81E0250C),
    };
    for (const sim_call_record &call : gone) {
        open_post();
        show(HANDLE, 0, 0, std::string(32, '\5'));
        calls_.push_back(failed(call_of(SIM_CLEAR_OSD, {RES_ID, HANDLE + 1}), 0x81E03204));
        calls_.push_back(call);
        calls_.back().given[0] = 1; // a fault has said so
        EXPECT_EQ(shown(), "1");
        calls_.push_back(call);
        EXPECT_EQ(why_not(), "post 2 at call 7: it has no post thread");
        calls_.push_back(notify(0, 2, 0));
        EXPECT_EQ(why_not(), "post 2 at call 8: it has no post thread");
        calls_.back() = call_of(SIM_CLEAR_OSD, {RES_ID, HANDLE}); // of the next one
        EXPECT_EQ(why_not(), "");
    }
}

TEST_F(SimReplay, forgets_the_osds_of_a_thread_that_has_closed)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    calls_.push_back(notify(0, 2, 0));
    calls_.push_back(notify(RES_ID + 1, 2, 1));
    calls_.push_back(call_of(SIM_THREAD_GET_STATUS, {RES_ID + 1}, {32, 16}));
    EXPECT_EQ(why_not(5), "post 2 at call 5: it has no post thread");
    EXPECT_EQ(why_not(6), "post 2 at call 6: its size isn't known");
    EXPECT_EQ(shown(7), "");
    EXPECT_EQ(post(7).width, 32u);
}

TEST_F(SimReplay, keeps_the_osds_of_a_thread_that_is_announced_twice)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    calls_.push_back(notify(RES_ID, 2, 1));
    EXPECT_EQ(shown(), "1");
}

TEST_F(SimReplay, takes_calls_on_a_thread_that_stand_before_its_announcement)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    std::rotate(calls_.begin(), calls_.begin() + 1, calls_.end());
    EXPECT_EQ(why_not(3), "post 2 at call 3: it has no post thread");
    EXPECT_EQ(shown(4), "1");
}

TEST_F(SimReplay, forgets_all_osds_with_the_device)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    calls_.push_back(failed(call_of(SIM_CLOSE_DEVICE), 0x81E00042)); // closed all the same
    EXPECT_EQ(shown(), "");
    EXPECT_EQ(post().width, 64u);
}

TEST_F(SimReplay, tells_posts_apart)
{
    open_post();
    calls_.push_back(notify(RES_ID + 1, 0, 1));
    calls_.push_back(call_of(SIM_OPEN_OSD, {RES_ID + 1, 0, 8, 4, 2}, {HANDLE + 1, 0, 8}));
    show(HANDLE + 1, 0, 0, std::string(32, '\5'), RES_ID + 1);
    show(HANDLE + 1, 0, 0, std::string(32, '\5')); // another post's OSD
    EXPECT_EQ(shown(), "");
    write();
    EXPECT_TRUE(
        failed_with(replay(7, {"--post", "0"}), 1, "post 0 at call 7: its size isn't known"));
    EXPECT_TRUE(
        failed_with(replay(7, {"--post", "3"}), 1, "post 3 at call 7: it has no post thread"));
}

// ---- Refusals -----------------------------------------------------------------------------------

TEST_F(SimReplay, refuses_a_call_that_is_not_there)
{
    open_post();
    write();
    EXPECT_TRUE(failed_with(replay(4), 1, "/tmp/codec/calls: there is no call 4, the last is 3"));
    EXPECT_TRUE(
        failed_with(replay(UINT64_MAX), 1,
                    "/tmp/codec/calls: there is no call 18446744073709551615, the last is 3"));
    EXPECT_FALSE(fs::exists(PNG));
}

TEST_F(SimReplay, refuses_words_that_cannot_be)
{
    const std::vector<std::pair<sim_call_record, std::string>> calls = {
        {call_of(SIM_OPERATIONS), "operation 13 is unknown"},
        {call_of(static_cast<sim_operation>(UINT32_MAX)), "operation 4294967295 is unknown"},
        {notify(RES_ID, 4, 1), "there is no post 4"},
        {notify(0, UINT32_MAX, 0), "there is no post 4294967295"},
        {notify(0, 0, 1), "a post thread without a resource ID"},
        {call_of(SIM_THREAD_GET_STATUS, {RES_ID}, {0, 48}), "a post of 0x48 pixels"},
        {call_of(SIM_THREAD_GET_STATUS, {RES_ID}, {64, 65536}), "a post of 64x65536 pixels"},
        {call_of(SIM_OPEN_OSD, {RES_ID, 4, 8, 4, 2}), "there is no OSD 4"},
        {call_of(SIM_OPEN_OSD, {RES_ID, UINT32_MAX, 8, 4, 2}), "there is no OSD 4294967295"},
        {call_of(SIM_OPEN_OSD, {RES_ID, 0, 8, 4, 3}), "there is no colour type 3"},
        {call_of(SIM_OPEN_OSD, {RES_ID, 0, 65536, 4, 2}), "an OSD of 65536x4 pixels"},
        {call_of(SIM_OPEN_OSD, {RES_ID, 0, 8, UINT32_MAX, 2}), "an OSD of 8x4294967295 pixels"},
    };
    for (const auto &[call, why] : calls) {
        open_post();
        calls_.push_back(call);
        EXPECT_EQ(why_not(), "/tmp/codec/calls: call 4: " + why);
        EXPECT_EQ(why_not(3), "") << "before that call all is well";
    }
}

TEST_F(SimReplay, refuses_a_picture_that_no_video_has)
{
    calls_ = {notify(RES_ID, 2, 1), call_of(SIM_THREAD_GET_STATUS, {RES_ID}, {65535, 65535})};
    EXPECT_EQ(why_not(), "post 2 at call 2: a picture of 65535x65535 pixels is too large");
}

TEST_F(SimReplay, refuses_pixels_of_another_size_than_the_osd)
{
    for (const std::size_t size : {0u, 31u, 33u}) {
        open_post();
        show(HANDLE, 0, 0, std::string(size, '\5'));
        EXPECT_EQ(why_not(), "/tmp/codec/calls: call 4: 4 lines of 8 bytes were shown, and " +
                                 std::to_string(size) + " bytes are kept");
    }
    // Sizes whose low words agree.
    open_post();
    calls_[2].argument[3] = 4;
    calls_[2].given[2] = 0x40000008;
    show(HANDLE, 0, 0, std::string(32, '\5'));
    EXPECT_EQ(why_not(),
              "/tmp/codec/calls: call 4: 4 lines of 1073741832 bytes were shown, and 32 bytes are "
              "kept");
    // An OSD that the codec wouldn't have opened.
    calls_[2].given[2] = 0x20000000;
    calls_[3].data_size = 0x80000000;
    EXPECT_EQ(why_not(), "/tmp/codec/calls: call 4: an OSD of 2147483648 bytes");
}

TEST_F(SimReplay, refuses_data_that_is_not_there)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    const std::string why = "/tmp/codec/calls.data: cut off before the end of what call 4 shows";
    for (const std::uint64_t at :
         {std::uint64_t{1}, std::uint64_t{33}, UINT64_MAX - 31, UINT64_MAX}) {
        calls_.back().data_at = at;
        EXPECT_EQ(why_not(), why) << at;
    }
    calls_.back().data_at = 0;
    EXPECT_EQ(why_not(), "");
    data_.pop_back();
    EXPECT_EQ(why_not(), why);
    remove_file(DATA);
    EXPECT_TRUE(failed_with(replay(4), 1, "/tmp/codec/calls.data: No such file or directory"));
    EXPECT_EQ(replay(3).status, 0) << "nothing is shown yet";
}

TEST_F(SimReplay, refuses_data_that_is_not_what_was_shown)
{
    open_post();
    show(HANDLE, 0, 0, std::string(32, '\5'));
    data_[7] = '\6';
    EXPECT_EQ(why_not(), "/tmp/codec/calls.data: not what call 4 shows");
    calls_.back().hash = 0; // not known
    EXPECT_EQ(why_not(), "");
}

TEST_F(SimReplay, shows_an_osd_without_lines_as_nothing)
{
    open_post();
    calls_[2].argument[3] = 0;
    show(HANDLE, 0, 0, "");
    write();
    EXPECT_EQ(replay(4).status, 0);
}

TEST_F(SimReplay, survives_any_byte_and_any_length)
{
    open_post();
    show(HANDLE, 60, 44, std::string(32, '\5'));
    calls_.push_back(call_of(SIM_CLEAR_OSD, {RES_ID, HANDLE}));
    show(HANDLE, 60, 44, std::string(32, '\6'));
    write();
    const std::string good = read_file(CALLS);
    unsigned refused = 0;
    const auto look = [&](const std::string &bytes) {
        write_file(CALLS, bytes);
        try {
            const sim_reader::Post post = call_reader::rebuild_post(CALLS, 6, 2);
            if (std::uint64_t{post.width} * post.height < 1000000)
                sim_reader::compose(post, sim_reader::palette());
        } catch (const std::runtime_error &error) {
            refused++;
            const std::string why = error.what();
            EXPECT_TRUE(why.rfind("/tmp/codec/calls", 0) == 0 ||
                        why.rfind("post 2 at call 6: ", 0) == 0)
                << why;
        }
    };
    look(good);
    EXPECT_EQ(refused, 0u);
    for (std::size_t size = 0; size < good.size(); size++)
        look(good.substr(0, size));
    EXPECT_EQ(refused, good.size());
    for (std::size_t i = 0; i < good.size(); i++) {
        for (const int change : {0x01, 0x80, 0xFF}) {
            std::string bytes = good;
            bytes[i] = static_cast<char>(bytes[i] ^ change);
            look(bytes);
        }
    }
}

TEST_F(SimReplay, has_its_manners)
{
    open_post();
    write();
    for (const Words &words :
         {Words{"replay", "0", PNG, "--post", "2"}, Words{"replay", "x", PNG, "--post", "2"},
          Words{"replay", "3", PNG}, Words{"replay", "3", PNG, "--post", "4"},
          Words{"replay", "3", "--post", "2"}}) {
        const Ended ended = sim(words);
        EXPECT_EQ(ended.status, 2);
        EXPECT_EQ(ended.err.rfind("qm5sim: ", 0), 0u) << ended.err;
        EXPECT_EQ(ended.out, "");
    }
    EXPECT_TRUE(failed_with(sim({"replay", "3", "/tmp/codec/no/x.png", "--post", "2"}), 1,
                            "/tmp/codec/no/x.png: No such file or directory"));
    const Ended help = sim({"replay", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("qm5sim replay 120 then.png --post 0"), std::string::npos) << help.out;
}

} // namespace
