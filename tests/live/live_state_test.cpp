// What the live page reads of the simulated codec: state, pictures, palette and calls.
#include "live_page.h"

#include "file_io.h"
#include "sim/handmade_codec.h"
#include "sim/recorded_calls.h"
#include "sim_reader.h"
#include "support/files.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <regex>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace
{

using namespace support;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

class LiveState : public LivePageTest
{
protected:
    // The pixels of what `qm5sim snapshot --osd` shows.
    static std::string snapshot(unsigned post, unsigned osd)
    {
        const std::string file = "/tmp/work/osd.png";
        const Ended ended =
            sim({"snapshot", std::to_string(post), "--osd", std::to_string(osd), file});
        EXPECT_EQ(ended.err, "");
        const sim_reader::IndexedPicture picture = sim_reader::PngFile(file).read_indexed();
        return {picture.indices.begin(), picture.indices.end()};
    }

    struct PngForm {
        int color_type;
        int depth;
        double gamma; // told in the file, unless it is 0
    };

    // A picture of random samples.
    static void write_noise(const std::string &path, unsigned width, unsigned height,
                            const PngForm &form)
    {
        FILE *file = std::fopen(path.c_str(), "wb");
        ASSERT_NE(file, nullptr);
        png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        png_infop info = png_create_info_struct(png);
        png_init_io(png, file); // an error ends the test program
        png_set_IHDR(png, info, width, height, form.depth, form.color_type, PNG_INTERLACE_NONE,
                     PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        if (form.gamma > 0)
            png_set_gAMA(png, info, form.gamma);
        png_write_info(png, info);
        std::mt19937 random(1);
        std::vector<png_byte> row(png_get_rowbytes(png, info));
        for (unsigned y = 0; y < height; y++) {
            std::generate(row.begin(), row.end(), [&] { return static_cast<png_byte>(random()); });
            png_write_row(png, row.data());
        }
        png_write_end(png, info);
        png_destroy_write_struct(&png, &info);
        std::fclose(file);
    }

    static const Json *find_osd(const Json &state, unsigned post, unsigned number)
    {
        for (const Json &osd : state["posts"][post]["osds"]) {
            if (osd["number"] == number)
                return &osd;
        }
        return nullptr;
    }
};

// ---- Without a codec ----------------------------------------------------------------------------

TEST_F(LiveState, tells_of_a_folder_that_is_not_there)
{
    serve();
    const Json none = Json::array();
    Json posts = none;
    const std::vector<std::pair<int, int>> sizes = {
        {720, 576}, {1920, 1080}, {640, 360}, {1280, 720}}; // as the first application finds them
    for (unsigned i = 0; i < SIM_POSTS; i++)
        posts.push_back({{"number", i},
                         {"open", true},
                         {"resource_id", 0},
                         {"width", sizes[i].first},
                         {"height", sizes[i].second},
                         {"osds", none},
                         {"wanted", nullptr},
                         {"background", 1},
                         {"frame", nullptr}});
    EXPECT_EQ(get_json("/api/state"),
              (Json{{"sequence", 0},
                    {"folder", false},
                    {"state_error", nullptr},
                    {"device_open", false},
                    {"application", {{"running", false}}},
                    {"posts", posts},
                    {"palette", 1},
                    {"parameters", 1},
                    {"faults", {{"on", true}, {"list", none}, {"error", nullptr}}},
                    {"settings",
                     {{"alignment", {16, 16, 16}}, {"strict", 0}, {"faults", 1}, {"record", 0}}},
                    {"clock", nullptr},
                    {"breaches", 0},
                    {"log", nullptr},
                    {"tool", "QM5SIM_STATE=" + state_ + ' ' + QM5SIM_PROGRAM}}));
    EXPECT_TRUE(is_error(get("/api/posts/0/osds/0"), 409, "/tmp/codec: No such file or directory"));
    EXPECT_EQ(get("/api/posts/2/background").body,
              sim_reader::encode_png(sim_reader::test_pattern(640, 360), "background"));
    const std::string frame =
        sim_reader::encode_png({640, 360, std::vector<std::uint8_t>(640 * 360 * 3, 77)}, "frame");
    EXPECT_EQ(change("PUT", "/api/posts/2/frame", frame).status, 200);
    EXPECT_EQ(get("/api/posts/2/background").body, frame);
    EXPECT_FALSE(fs::exists(state_));
}

TEST_F(LiveState, passes_over_files_that_make_no_sense)
{
    fs::create_directory(state_);
    write_file(state_ + "/state", "no state");
    write_file(state_ + "/calls", std::string(1000, 'x'));
    write_file(state_ + "/post0", "wide");
    write_file(state_ + "/post1", "closed\n");
    write_file(state_ + "/faults", "1 open_osd never\n");
    serve();
    const Json state = get_json("/api/state");
    EXPECT_EQ(state["folder"], true);
    EXPECT_EQ(state["state_error"],
              "/tmp/codec/state: no state of a simulated codec, or of another version");
    EXPECT_EQ(state["posts"][0]["wanted"], nullptr);
    EXPECT_EQ(state["posts"][1]["wanted"], "closed");
    EXPECT_EQ(state["posts"][2]["open"], false); // which nobody knows
    EXPECT_EQ(state["faults"]["error"], "/tmp/codec/faults:1: not ID OPERATION WHEN EFFECT");
    EXPECT_TRUE(is_error(get("/api/posts/0/osds/0"), 409,
                         "/tmp/codec/state: no state of a simulated codec, or of another version"));
    EXPECT_EQ(events().next("calls").data, R"({"reset":true,"calls":[]})");
}

TEST_F(LiveState, tells_of_a_state_that_is_damaged_until_it_is_mended)
{
    HandmadeCodec codec(state_);
    codec.open_post(1, 640, 360);
    codec.show_osd(1, 0, {.width = 16, .height = 16});
    codec.save();
    serve();
    EXPECT_EQ(get_json("/api/state")["posts"][1]["width"], 640);
    codec.state.post[1].width = SIM_LONGEST + 1;
    codec.state.sequence += 2;
    codec.save();
    const Json damaged = get_json("/api/state");
    EXPECT_EQ(damaged["state_error"], "/tmp/codec/state: damaged: the size of post 1");
    EXPECT_EQ(damaged["folder"], true);
    EXPECT_EQ(damaged["posts"][1]["open"], false);
    codec.state.post[1].width = 320;
    codec.save();
    const Json mended = get_json("/api/state");
    EXPECT_EQ(mended["state_error"], nullptr);
    EXPECT_EQ(mended["posts"][1]["width"], 320);
    EXPECT_EQ(find_osd(mended, 1, 0)->at("last_set"), nullptr) << "nothing was set meanwhile";
}

TEST_F(LiveState, tells_of_a_state_that_was_left_in_the_middle_of_a_change)
{
    HandmadeCodec codec(state_);
    codec.open_post(1, 640, 360);
    codec.state.sequence = 7;
    codec.save();
    serve();
    const Json left = get_json("/api/state");
    EXPECT_EQ(left["folder"], true);
    EXPECT_EQ(left["sequence"], 7);
    EXPECT_EQ(left["posts"][1]["width"], 640);

    // While somebody has the device open, it isn't taken.
    const sim_reader::Descriptor device(open((state_ + "/state").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(device.get(), LOCK_EX), 0);
    codec.state.sequence = 9;
    codec.state.post[1].width = 320;
    write_file(state_ + "/post1", "320x360\n");
    ASSERT_EQ(pwrite(device.get(), &codec.state, sizeof codec.state, 0), sizeof codec.state);
    EXPECT_EQ(get_json("/api/state")["posts"][1]["width"], 640);
    ASSERT_EQ(flock(device.get(), LOCK_UN), 0);
    EXPECT_EQ(get_json("/api/state")["posts"][1]["width"], 320);
}

TEST_F(LiveState, survives_a_state_that_is_cut_off_again_and_again)
{
    HandmadeCodec codec(state_);
    codec.open_post(0, 1024, 768);
    codec.show_osd(0, 0, {.width = 1024, .height = 768}); // which takes a while to read
    codec.save();
    serve();
    std::jthread cutter([&](const std::stop_token &end) {
        const std::string whole = read_file(state_ + "/state");
        const sim_reader::Descriptor file(open((state_ + "/state").c_str(), O_RDWR | O_CLOEXEC));
        const off_t rest = 64; // not nothing, which would be as good as no state
        while (!end.stop_requested()) {
            EXPECT_EQ(ftruncate(file.get(), rest), 0);
            std::this_thread::sleep_for(1ms);
            EXPECT_EQ(pwrite(file.get(), whole.data(), whole.size(), 0), whole.size());
            std::this_thread::sleep_for(1ms);
        }
    });
    for (int i = 0; i < 200; i++) {
        const int status = get("/api/posts/0/osds/0").status;
        EXPECT_TRUE(status == 200 || status == 409) << status;
    }
    cutter.request_stop();
    cutter.join();
    EXPECT_EQ(get_json("/api/state")["posts"][0]["width"], 1024);
}

TEST_F(LiveState, follows_posts_that_no_server_follows)
{
    fs::create_directory(state_);
    serve();
    EXPECT_EQ(get_json("/api/state")["posts"][1]["width"], 1920) << "as it is without a word";
    change_json("PUT", "/api/posts/1", {{"size", "320x180"}});
    const Json post = get_json("/api/state")["posts"][1];
    EXPECT_EQ(post["open"], true);
    EXPECT_EQ(post["width"], 320);
    EXPECT_EQ(post["height"], 180);
    EXPECT_EQ(post["resource_id"], 0);
    const Answer background = get("/api/posts/1/background");
    EXPECT_EQ(background.status, 200);
    EXPECT_EQ(background.body,
              sim_reader::encode_png(sim_reader::test_pattern(320, 180), "background"));
    change_json("PUT", "/api/posts/1", {{"size", "closed"}});
    EXPECT_EQ(get_json("/api/state")["posts"][1]["open"], false);
}

// ---- With the application -----------------------------------------------------------------------

TEST_F(LiveState, tells_what_a_server_shows)
{
    start({"--Post0TimeOn=1", "--Post2StringOn=1", "--Post2String=Gate 2"});
    ASSERT_TRUE(shows(2, [](const sim_reader::Post &post) { return count_shown(post) == 1; }));
    serve();
    const Json state = get_json("/api/state");
    EXPECT_EQ(state["folder"], true);
    EXPECT_EQ(state["device_open"], true);
    EXPECT_EQ(state["application"]["running"], true);
    EXPECT_EQ(state["breaches"], 0);
    EXPECT_EQ(state["posts"][2]["wanted"], "640x360");
    const sim_state record = sim_reader::read_state(state_);
    const sim_osd &osd = record.post[2].osd[0];
    EXPECT_EQ(state["posts"][2]["resource_id"], record.post[2].res_id);
    ASSERT_NE(find_osd(state, 2, 0), nullptr);
    EXPECT_EQ(*find_osd(state, 2, 0), (Json{{"number", 0},
                                            {"handle", osd.handle},
                                            {"color_type", 2},
                                            {"bits_per_pixel", 8},
                                            {"width", osd.width},
                                            {"height", osd.height},
                                            {"line_bytes", osd.line_bytes},
                                            {"line_pixels", osd.line_bytes},
                                            {"memory_bytes", osd.line_bytes * osd.height},
                                            {"shown", true},
                                            {"x", osd.x},
                                            {"y", osd.y},
                                            {"sets", osd.sets},
                                            {"last_set", nullptr}}))
        << "it was set before this server has begun";
    stop();
    EXPECT_TRUE(state_is([](const Json &now) {
        return now["application"]["running"] == false && now["device_open"] == false;
    }));
}

TEST_F(LiveState, tells_when_it_has_noticed_a_set)
{
    serve();
    const auto before = std::chrono::system_clock::now();
    start({"--Post0TimeOn=1"});
    ASSERT_TRUE(state_is([](const Json &state) { return find_osd(state, 0, 3) != nullptr; }));
    ASSERT_TRUE(state_is([](const Json &state) { return find_osd(state, 0, 3)->at("shown"); }));
    const Json state = get_json("/api/state");
    const double noticed = find_osd(state, 0, 3)->at("last_set");
    const auto unix_seconds = [](auto time) {
        return std::chrono::duration<double>(time.time_since_epoch()).count();
    };
    EXPECT_GE(noticed, unix_seconds(before));
    EXPECT_LE(noticed, unix_seconds(std::chrono::system_clock::now()));
    stop();
}

TEST_F(LiveState, sends_the_pixels_that_a_snapshot_shows)
{
    start({"--Post0StringOn=1", "--Post0String=Gate", "--Post0TypeOn=1", "--Post0DateOn=1"});
    ASSERT_TRUE(shows(0, [](const sim_reader::Post &post) { return count_shown(post) == 3; }));
    serve();
    for (const unsigned number : {0u, 1u, 2u}) {
        const sim_osd osd = sim_reader::read_state(state_).post[0].osd[number];
        const Answer answer = get("/api/posts/0/osds/" + std::to_string(number));
        EXPECT_EQ(answer.status, 200);
        EXPECT_EQ(answer.headers.at("content-type"), "application/octet-stream");
        EXPECT_EQ(answer.headers.at("x-handle"), std::to_string(osd.handle));
        EXPECT_EQ(answer.headers.at("x-sets"), std::to_string(osd.sets));
        EXPECT_EQ(answer.body, snapshot(0, number));
        EXPECT_NE(std::count(answer.body.begin(), answer.body.end(), '\3'), 0) << "no text";
    }
    EXPECT_TRUE(is_error(get("/api/posts/0/osds/3"), 404, "OSD 3 of post 0: it is not shown"));
    stop();
}

// ---- Backgrounds --------------------------------------------------------------------------------

TEST_F(LiveState, sends_the_test_pattern_of_a_post)
{
    start();
    ASSERT_TRUE(shows(2, [](const sim_reader::Post &post) { return post.res_id != 0; }));
    serve();
    ASSERT_EQ(sim({"snapshot", "2", "/tmp/work/post.png"}).err, "");
    const Answer answer = get("/api/posts/2/background");
    EXPECT_EQ(answer.headers.at("content-type"), "image/png");
    EXPECT_EQ(answer.body, read_file("/tmp/work/post.png"));
    change_json("PUT", "/api/posts/2", {{"size", "closed"}});
    ASSERT_TRUE(state_is([](const Json &state) { return state["posts"][2]["open"] == false; }));
    EXPECT_TRUE(is_error(get("/api/posts/2/background"), 404, "post 2: it has no post thread"));
    stop();
}

TEST_F(LiveState, sends_the_frame_that_it_was_given)
{
    start();
    ASSERT_TRUE(shows(2, [](const sim_reader::Post &post) { return post.res_id != 0; }));
    serve();
    const std::string pattern = get("/api/posts/2/background").body;
    sim_reader::Picture picture{640, 360, std::vector<std::uint8_t>(640 * 360 * 3, 77)};
    const std::string png = sim_reader::encode_png(picture, "frame");
    EXPECT_EQ(change("PUT", "/api/posts/2/frame", png).body, "{}");
    EXPECT_EQ(get("/api/posts/2/background").body, png);
    const Json with_frame = get_json("/api/state")["posts"][2];
    EXPECT_EQ(with_frame["background"], 2);
    EXPECT_EQ(with_frame["frame"], (Json{{"width", 640}, {"height", 360}}));

    const auto refused = [&](const std::string &bytes, int status, const std::string &why) {
        EXPECT_TRUE(is_error(change("PUT", "/api/posts/2/frame", bytes), status, why));
    };
    picture.height = 359;
    refused(sim_reader::encode_png(picture, "frame"), 400, "frame: 640x359, but post 2 is 640x360");
    refused("GIF89a", 400, "frame: no good PNG file (read beyond end of data)");
    refused("", 400,
            "frame: no good PNG file (png_image_begin_read_from_memory: invalid argument)");
    EXPECT_EQ(change("PUT", "/api/posts/2/frame", png.substr(0, png.size() / 2)).status, 400);
    EXPECT_EQ(get("/api/posts/2/background").body, png) << "a bad frame has taken its place";

    EXPECT_EQ(change("DELETE", "/api/posts/2/frame").body, "{}");
    EXPECT_EQ(get("/api/posts/2/background").body, pattern);
    const Json without = get_json("/api/state")["posts"][2];
    EXPECT_EQ(without["background"], 3);
    EXPECT_EQ(without["frame"], nullptr);
    stop();
    change_json("PUT", "/api/posts/2", {{"size", "closed"}});
    refused(png, 409, "post 2: it has no post thread");
}

TEST_F(LiveState, sends_a_frame_as_the_tool_shows_it)
{
    serve();
    const std::vector<PngForm> forms = {
        {PNG_COLOR_TYPE_RGBA, 8, 0},  {PNG_COLOR_TYPE_GRAY_ALPHA, 8, 0},
        {PNG_COLOR_TYPE_RGB, 16, 0},  {PNG_COLOR_TYPE_RGBA, 16, 0},
        {PNG_COLOR_TYPE_RGB, 8, 1.0}, {PNG_COLOR_TYPE_GRAY, 8, 0.2}};
    change_json("PUT", "/api/posts/2", {{"size", "64x48"}});
    for (const PngForm &form : forms) {
        write_noise("/tmp/work/frame.png", 64, 48, form);
        ASSERT_EQ(sim({"snapshot", "2", "--over", "/tmp/work/frame.png", "/tmp/work/post.png"}).err,
                  "");
        const std::string png = read_file("/tmp/work/frame.png");
        EXPECT_EQ(change("PUT", "/api/posts/2/frame", png).body, "{}");
        EXPECT_EQ(get("/api/posts/2/background").body, read_file("/tmp/work/post.png"))
            << form.color_type << ' ' << form.depth << ' ' << form.gamma;
    }
}

// ---- Palette ------------------------------------------------------------------------------------

TEST_F(LiveState, sends_the_palette_in_force)
{
    serve();
    Json colors = Json::array();
    for (const sim_reader::Color &color : sim_reader::palette())
        colors.push_back({color.red, color.green, color.blue, color.alpha});
    EXPECT_EQ(get_json("/api/palette"), (Json{{"default", true}, {"colors", colors}}));
    const Json before = get_json("/api/state")["palette"];

    EXPECT_EQ(change("PUT", "/api/palette", "").status, 200);
    const std::string text = "; two\n3 1 2 3 4\n250 5 6 7 8\n";
    const Json answer = Json::parse(change("PUT", "/api/palette", text).body);
    colors[3] = {1, 2, 3, 4};
    colors[250] = {5, 6, 7, 8};
    EXPECT_EQ(get_json("/api/palette"), (Json{{"default", false}, {"colors", colors}}));
    EXPECT_GT(get_json("/api/state")["palette"], before);

    // The command means the same later on.
    const std::string command = answer["command"];
    std::smatch file;
    ASSERT_TRUE(std::regex_match(
        command, file,
        std::regex(shown_command(QM5SIM_PROGRAM,
                                 "palette --load (/tmp/codec/page-[0-9a-f]{16}\\.palette)"))))
        << command;
    EXPECT_EQ(sim_reader::read_file(file.str(1)), text);
    EXPECT_EQ(change("PUT", "/api/palette", "3 9 9 9 9\n").status, 200);
    EXPECT_EQ(sim({"palette", "--load", file.str(1)}).err, "");
    EXPECT_EQ(get_json("/api/palette")["colors"], colors);
    EXPECT_TRUE(is_error(change("PUT", "/api/palette", "3 1 2 3\n"), 400,
                         "palette: line 1: not INDEX RED GREEN BLUE ALPHA, of 0 to 255 each"));
    EXPECT_EQ(get_json("/api/palette")["colors"], colors);
    EXPECT_EQ(change_json("DELETE", "/api/palette")["command"],
              shown_command(QM5SIM_PROGRAM, "palette --default"));
    EXPECT_EQ(get_json("/api/palette")["default"], true);
}

} // namespace
