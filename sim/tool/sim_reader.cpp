#include "sim_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <png.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace sim_reader
{

namespace fs = std::filesystem;

// ---- State --------------------------------------------------------------------------------------

namespace
{

[[noreturn]] void fail(const fs::path &what, const std::string &why)
{
    throw std::runtime_error(what.string() + ": " + why);
}

// The state record, mapped to read.
class StateMap
{
public:
    explicit StateMap(const fs::path &path)
    {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd == -1)
            fail(path, std::strerror(errno));
        std::error_code error;
        const bool whole = fs::file_size(path, error) >= sizeof(sim_state) && !error;
        void *map =
            whole ? mmap(nullptr, sizeof(sim_state), PROT_READ, MAP_SHARED, fd, 0) : MAP_FAILED;
        close(fd);
        if (map == MAP_FAILED)
            fail(path, "no state of a simulated codec");
        state_ = static_cast<const sim_state *>(map);
        if (state_->magic != SIM_MAGIC || state_->version != SIM_VERSION) {
            munmap(map, sizeof(sim_state));
            fail(path, "no state of a simulated codec, or of another version");
        }
    }
    StateMap(const StateMap &) = delete;
    StateMap &operator=(const StateMap &) = delete;
    ~StateMap()
    {
        munmap(const_cast<sim_state *>(state_), sizeof(sim_state));
    }

    std::uint32_t sequence() const
    {
        return __atomic_load_n(&state_->sequence, __ATOMIC_ACQUIRE);
    }
    const sim_state &get() const
    {
        return *state_;
    }

private:
    const sim_state *state_ = nullptr;
};

std::vector<std::uint8_t> read_pixels(const fs::path &path, std::size_t size)
{
    std::ifstream file(path, std::ios::binary);
    std::vector<std::uint8_t> pixels(size);
    file.read(reinterpret_cast<char *>(pixels.data()), static_cast<std::streamsize>(size));
    pixels.resize(static_cast<std::size_t>(file.gcount()));
    return pixels;
}

Post copy_post(const fs::path &folder, const sim_state &state, unsigned number)
{
    sim_post record;
    std::memcpy(&record, &state.post[number], sizeof record);

    Post post;
    post.res_id = record.res_id;
    post.width = record.width;
    post.height = record.height;
    for (unsigned i = 0; i < SIM_OSDS; i++) {
        post.osd[i].record = record.osd[i];
        if (record.osd[i].shown != 0) {
            const fs::path file =
                folder / ("post" + std::to_string(number) + "-osd" + std::to_string(i));
            post.osd[i].pixels =
                read_pixels(file, std::size_t{record.osd[i].line_bytes} * record.osd[i].height);
        }
    }
    return post;
}

} // namespace

Post read_post(const fs::path &folder, unsigned number)
{
    const StateMap map(folder / "state");
    for (int attempt = 0; attempt < 200; attempt++) {
        const std::uint32_t before = map.sequence();
        if (before % 2 == 0) {
            Post post = copy_post(folder, map.get(), number);
            __atomic_thread_fence(__ATOMIC_ACQUIRE);
            if (map.sequence() == before)
                return post;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    fail(folder / "state", "left in the middle of a change");
}

fs::path default_folder()
{
    std::array<char, SIM_PATH_SIZE> path{};
    sim_get_folder(path.data());
    return path.data();
}

void write_size(const fs::path &folder, unsigned number, unsigned width, unsigned height)
{
    mkdir(folder.c_str(), SIM_FOLDER_MODE); // if it can't be made, neither can a file in it
    const fs::path file = folder / ("post" + std::to_string(number));
    fs::path draft = file;
    draft += "." + std::to_string(getpid());

    std::ofstream out(draft);
    if (width == 0)
        out << "closed\n";
    else
        out << width << 'x' << height << '\n';
    out.close();
    if (!out)
        fail(draft, std::strerror(errno));
    std::error_code error;
    fs::rename(draft, file, error); // whole or not at all
    if (error)
        fail(file, error.message());
}

unsigned Osd::width_of_line() const
{
    return record.line_bytes * 8 / (2u << record.color_type);
}

unsigned Osd::index_at(unsigned x, unsigned y) const
{
    const unsigned bits = 2u << record.color_type;
    const std::size_t bit = (std::size_t{y} * width_of_line() + x) * bits;
    return unsigned{pixels.at(bit / 8)} >> bit % 8 & ((1u << bits) - 1);
}

// ---- Pictures -----------------------------------------------------------------------------------

namespace
{

std::array<Color, 256> make_palette()
{
    std::array<Color, 256> all{};
    constexpr std::array<Color, 16> first = {{
        {0, 0, 0, 0},         // clear
        {0, 0, 0, 160},       // shade
        {128, 128, 128, 255}, // grey
        {255, 255, 255, 255}, // white
        {224, 32, 32, 255},
        {32, 192, 64, 255},
        {48, 96, 240, 255},
        {240, 208, 32, 255},
        {32, 208, 208, 255},
        {208, 64, 208, 255},
        {240, 128, 32, 255},
        {128, 80, 40, 255},
        {144, 16, 16, 255},
        {16, 96, 32, 255},
        {16, 32, 128, 255},
        {0, 0, 0, 255},
    }};
    std::copy(first.begin(), first.end(), all.begin());
    for (unsigned i = 0; i < 216; i++) {
        const auto level = [](unsigned step) { return static_cast<std::uint8_t>(step * 51); };
        all[16 + i] = {level(i / 36), level(i / 6 % 6), level(i % 6), 255};
    }
    for (unsigned i = 0; i < 24; i++) {
        const auto grey = static_cast<std::uint8_t>(i * 255 / 23);
        all[232 + i] = {grey, grey, grey, 255};
    }
    return all;
}

// Eight bars of muted colours over a ramp of grey, so that light and dark texts can be judged.
Color test_pattern(unsigned x, unsigned y, unsigned width, unsigned height)
{
    constexpr std::array<Color, 8> bars = {{{150, 150, 150, 255},
                                            {150, 150, 40, 255},
                                            {40, 150, 150, 255},
                                            {40, 150, 40, 255},
                                            {150, 40, 150, 255},
                                            {150, 40, 40, 255},
                                            {40, 40, 150, 255},
                                            {30, 30, 30, 255}}};
    if (y < height * 3 / 4)
        return bars[std::size_t{x} * bars.size() / width];
    const auto grey = static_cast<std::uint8_t>(std::size_t{x} * 255 / width);
    return {grey, grey, grey, 255};
}

void blend(std::uint8_t *pixel, const Color &color)
{
    const auto mix = [&color](std::uint8_t below, std::uint8_t above) {
        return static_cast<std::uint8_t>((above * color.alpha + below * (255 - color.alpha)) / 255);
    };
    pixel[0] = mix(pixel[0], color.red);
    pixel[1] = mix(pixel[1], color.green);
    pixel[2] = mix(pixel[2], color.blue);
}

// Lays an OSD over the picture; what leads past its edges isn't shown.
void lay_over(Picture &picture, const Osd &osd)
{
    const sim_osd &record = osd.record;
    const unsigned left = std::min(picture.width, record.x);
    const unsigned columns = std::min(osd.width_of_line(), picture.width - left);
    const unsigned top = std::min(picture.height, record.y);
    const unsigned lines = std::min(record.height, picture.height - top);
    for (unsigned y = 0; y < lines; y++) {
        for (unsigned x = 0; x < columns; x++) {
            const std::size_t pixel = std::size_t{top + y} * picture.width + left + x;
            blend(&picture.rgb[pixel * 3], palette()[osd.index_at(x, y)]);
        }
    }
}

} // namespace

const std::array<Color, 256> &palette()
{
    static const std::array<Color, 256> all = make_palette();
    return all;
}

Picture compose(const Post &post)
{
    Picture picture{post.width, post.height, {}};
    picture.rgb.reserve(std::size_t{post.width} * post.height * 3);
    for (unsigned y = 0; y < post.height; y++) {
        for (unsigned x = 0; x < post.width; x++) {
            const Color color = test_pattern(x, y, post.width, post.height);
            picture.rgb.insert(picture.rgb.end(), {color.red, color.green, color.blue});
        }
    }
    for (const Osd &osd : post.osd) {
        if (!osd.pixels.empty())
            lay_over(picture, osd);
    }
    return picture;
}

void write_png(const Picture &picture, const fs::path &file)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = picture.width;
    image.height = picture.height;
    image.format = PNG_FORMAT_RGB;
    if (!png_image_write_to_file(&image, file.c_str(), 0, picture.rgb.data(), 0, nullptr))
        fail(file, image.message);
}

} // namespace sim_reader
