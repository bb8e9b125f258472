#include "picture.h"

#include "file_io.h"

#include <algorithm>

namespace sim_reader
{

void require_possible(const std::string &what, unsigned width, unsigned height)
{
    if (std::uint64_t{width} * height > LARGEST_PICTURE)
        fail(what, "a picture of " + size_text(width, height) + " pixels is too large");
}

// ---- Composing ----------------------------------------------------------------------------------

namespace
{

typedef std::vector<std::uint8_t> Line; // red, green and blue of each pixel

Line bar_line(unsigned width)
{
    constexpr std::array<Color, 8> bars = {{{150, 150, 150, 255},
                                            {150, 150, 40, 255},
                                            {40, 150, 150, 255},
                                            {40, 150, 40, 255},
                                            {150, 40, 150, 255},
                                            {150, 40, 40, 255},
                                            {40, 40, 150, 255},
                                            {30, 30, 30, 255}}};
    Line line;
    for (unsigned x = 0; x < width; x++) {
        const Color &color = bars[std::size_t{x} * bars.size() / width];
        line.insert(line.end(), {color.red, color.green, color.blue});
    }
    return line;
}

Line ramp_line(unsigned width)
{
    Line line;
    for (unsigned x = 0; x < width; x++)
        line.insert(line.end(), 3, static_cast<std::uint8_t>(std::size_t{x} * 255 / width));
    return line;
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
void lay_osd_over(Picture &picture, const Osd &osd, const Palette &palette)
{
    const sim_osd &record = osd.record;
    const unsigned left = std::min(picture.width, record.x);
    const unsigned columns = std::min(osd.width_of_line(), picture.width - left);
    const unsigned top = std::min(picture.height, record.y);
    const unsigned lines = std::min(record.height, picture.height - top);
    for (unsigned y = 0; y < lines; y++) {
        const std::vector<std::uint8_t> indices = osd.indices_of_line(y);
        std::uint8_t *line = picture.rgb.data() + (std::size_t{top + y} * picture.width + left) * 3;
        for (unsigned x = 0; x < columns; x++)
            blend(&line[std::size_t{x} * 3], palette[indices[x]]);
    }
}

} // namespace

Picture test_pattern(unsigned width, unsigned height)
{
    const Line bars = bar_line(width);
    const Line ramp = ramp_line(width);
    Picture picture{width, height, {}};
    picture.rgb.reserve(std::size_t{width} * height * 3);
    for (unsigned y = 0; y < height; y++) {
        const Line &line = y < height * 3 / 4 ? bars : ramp;
        picture.rgb.insert(picture.rgb.end(), line.begin(), line.end());
    }
    return picture;
}

void lay_over(Picture &picture, const Post &post, const Palette &palette)
{
    for (const Osd &osd : post.osd) {
        if (!osd.pixels.empty())
            lay_osd_over(picture, osd, palette);
    }
}

Picture compose(const Post &post, const Palette &palette)
{
    Picture picture = test_pattern(post.width, post.height);
    lay_over(picture, post, palette);
    return picture;
}

IndexedPicture take_osd(const Osd &osd, const Palette &palette)
{
    IndexedPicture picture{
        osd.width_of_line(), osd.record.height, bits_per_pixel(osd.record), {}, palette};
    picture.indices.reserve(std::size_t{picture.width} * picture.height);
    for (unsigned y = 0; y < picture.height; y++) {
        const std::vector<std::uint8_t> line = osd.indices_of_line(y);
        picture.indices.insert(picture.indices.end(), line.begin(), line.end());
    }
    return picture;
}

Picture flatten(const IndexedPicture &picture)
{
    Picture flat{picture.width, picture.height, Line(picture.indices.size() * 3)};
    for (std::size_t i = 0; i < picture.indices.size(); i++)
        blend(&flat.rgb[i * 3], picture.colors[picture.indices[i]]);
    return flat;
}

void blend_pixel(Picture &picture, std::int64_t x, std::int64_t y, const Color &color)
{
    if (x < 0 || x >= picture.width || y < 0 || y >= picture.height)
        return;
    blend(&picture.rgb[static_cast<std::size_t>(y * picture.width + x) * 3], color);
}

// ---- Differences --------------------------------------------------------------------------------

namespace
{

// `differs` is asked about each pixel that both have, by its place in the one and in the other.
template <typename AnyPicture, typename Differs>
Differences find(const AnyPicture &one, const AnyPicture &other, Differs differs)
{
    Differences found{std::max(one.width, other.width), std::max(one.height, other.height), {}};
    found.differing.reserve(std::size_t{found.width} * found.height);
    for (std::size_t y = 0; y < found.height; y++) {
        for (std::size_t x = 0; x < found.width; x++) {
            const bool is_in_both =
                x < one.width && x < other.width && y < one.height && y < other.height;
            found.differing.push_back(!is_in_both ||
                                      differs(y * one.width + x, y * other.width + x));
        }
    }
    return found;
}

} // namespace

Differences find_differences(const Picture &one, const Picture &other)
{
    return find(one, other, [&](std::size_t i, std::size_t j) {
        return !std::equal(&one.rgb[i * 3], &one.rgb[i * 3] + 3, &other.rgb[j * 3]);
    });
}

Differences find_differences(const IndexedPicture &one, const IndexedPicture &other)
{
    return find(one, other, [&](std::size_t i, std::size_t j) {
        const std::uint8_t index = one.indices[i];
        return index != other.indices[j] || one.colors[index] != other.colors[index];
    });
}

Picture mark_differences(const Picture &picture, const Differences &differences)
{
    Picture marked{differences.width, differences.height, {}};
    marked.rgb.reserve(differences.differing.size() * 3);
    for (std::size_t i = 0; i < differences.differing.size(); i++) {
        if (differences.differing[i]) {
            marked.rgb.insert(marked.rgb.end(), {255, 0, 0});
            continue;
        }
        const std::size_t x = i % marked.width;
        const std::size_t y = i / marked.width;
        const std::uint8_t *pixel = &picture.rgb[(y * picture.width + x) * 3];
        // A third of the brightness, as the eye weighs the colours.
        const int grey = (pixel[0] * 77 + pixel[1] * 150 + pixel[2] * 29) / (256 * 3);
        marked.rgb.insert(marked.rgb.end(), 3, static_cast<std::uint8_t>(grey));
    }
    return marked;
}

} // namespace sim_reader
