// Marks on a picture that tell where its OSDs are.
#pragma once

#include "picture.h"

#include <array>
#include <optional>

namespace sim_reader
{

// Colours of the four OSDs' marks, by number, and of the safe frame.
constexpr std::array<Color, SIM_OSDS> GUIDE_COLORS = {
    {{255, 64, 64, 255}, {0, 255, 0, 255}, {64, 128, 255, 255}, {255, 255, 0, 255}}};
constexpr Color SAFE_COLOR = {255, 0, 255, 255};

// What the codec doesn't know and the user has to say.
struct SafeSpace {
    std::uint32_t up, down, left, right;
};
struct Cell {
    std::uint32_t width, height;
};
struct Guides {
    std::optional<SafeSpace> safe;
    std::optional<Cell> cell;
};

// Frames the area of each shown OSD, with all pixels of its lines, and hatches what it shares with
// another: every sixteenth diagonal in its colour. Frames what the safe spaces leave, and divides
// into cells each OSD that was opened for a row of them. Throws std::runtime_error for safe spaces
// that leave nothing.
void draw_guides(Picture &picture, const Post &post, const Guides &guides);

} // namespace sim_reader
