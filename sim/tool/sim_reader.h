// Reading along with a simulated codec, and composing its pictures; for tools and tests.
#pragma once

#include "sim_state.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace sim_reader
{

// One OSD as it is shown.
struct Osd {
    sim_osd record{};
    std::vector<std::uint8_t> pixels; // line_bytes * height bytes; empty while it isn't shown

    // Colour index of a pixel; x up to width_of_line().
    unsigned index_at(unsigned x, unsigned y) const;
    unsigned width_of_line() const;
};

struct Post {
    std::uint32_t res_id = 0; // 0: no post thread
    unsigned width = 0;
    unsigned height = 0;
    std::array<Osd, SIM_OSDS> osd;
};

// The post as one moment had it. Throws std::runtime_error, with the reason as text, if the folder
// holds no state, or one that doesn't stand still.
Post read_post(const std::filesystem::path &folder, unsigned number);

// The folder that the library uses with the present environment.
std::filesystem::path default_folder();

// Tells the post thread to take this size, or to close for 0 by 0. Throws std::runtime_error.
void write_size(const std::filesystem::path &folder, unsigned number, unsigned width,
                unsigned height);

struct Color {
    std::uint8_t red, green, blue, alpha;
};

// The palette that the pictures are shown with. Index 0 is clear; 0 to 3 and 0 to 15 serve the
// texts of 2 and 4 bits per pixel, the rest is a colour cube and greys.
const std::array<Color, 256> &palette();

struct Picture {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<std::uint8_t> rgb;
};

// The post's picture: a test pattern with the shown OSDs on it, in the order of their numbers.
Picture compose(const Post &post);

void write_png(const Picture &picture, const std::filesystem::path &file);

} // namespace sim_reader
