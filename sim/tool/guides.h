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

// What the codec doesn't know: the application, or its user, has to say it.
struct SafeSpace {
    std::uint32_t up, down, left, right;

    bool operator==(const SafeSpace &) const = default;
};
struct Cell {
    std::uint32_t width, height;
};
struct Guides {
    std::optional<SafeSpace> safe;
    std::array<std::optional<Cell>, SIM_OSDS> cells; // of each OSD
};

// Do safe spaces leave anything of a picture?
bool leaves_something(const SafeSpace &safe, unsigned width, unsigned height);

// Frames the area of each shown OSD, with all pixels of its lines, and hatches what it shares with
// another: every sixteenth diagonal in its colour. Frames what the safe spaces leave, and divides
// into cells each OSD that was opened for a row of them. Throws std::runtime_error for safe spaces
// that leave nothing.
void draw_guides(Picture &picture, const Post &post, const Guides &guides);

} // namespace sim_reader
