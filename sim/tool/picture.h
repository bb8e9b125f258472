// Pictures: what a post shows, what an OSD holds, and where two of them differ.
#pragma once

#include "palette.h"
#include "state_reader.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sim_reader
{

struct Picture {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<std::uint8_t> rgb;
};

// In pixels. No real video is larger, and every pixel of a picture takes memory.
constexpr std::uint64_t LARGEST_PICTURE = std::uint64_t{8192} * 8192;

// Throws std::runtime_error for a larger one; `what` begins the text.
void require_possible(const std::string &what, unsigned width, unsigned height);

// One OSD by itself.
struct IndexedPicture {
    unsigned width = 0;
    unsigned height = 0;
    unsigned bits = 0;                 // per pixel: 2, 4 or 8
    std::vector<std::uint8_t> indices; // a byte a pixel
    Palette colors{};                  // the first 1 << bits count
};

// Eight bars of muted colours over a ramp of grey, so that light and dark texts can be judged.
Picture test_pattern(unsigned width, unsigned height);

// Lays the shown OSDs over a picture, in the order of their numbers.
void lay_over(Picture &picture, const Post &post, const Palette &palette);

// The post's picture over the test pattern.
Picture compose(const Post &post, const Palette &palette);

// A shown OSD, with all pixels of its lines.
IndexedPicture take_osd(const Osd &osd, const Palette &palette);

// Its colours over black.
Picture flatten(const IndexedPicture &picture);

// Lays a colour over a pixel; one outside the picture is passed over.
void blend_pixel(Picture &picture, std::int64_t x, std::int64_t y, const Color &color);

// ---- Differences --------------------------------------------------------------------------------

// Pixels as far as either of two pictures reaches, line by line.
struct Differences {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<bool> differing;
};

// Which pixels differ between two pictures, for indexed ones of one depth: in colour, or in index.
// What not both of them have differs.
Differences find_differences(const Picture &one, const Picture &other);
Differences find_differences(const IndexedPicture &one, const IndexedPicture &other);

// The differing pixels in red over the picture in a dimmed grey.
Picture mark_differences(const Picture &picture, const Differences &differences);

} // namespace sim_reader
