// Pictures painted by hand, pixel by pixel, of what a post must show: neither FreeType nor anything
// of the application or the simulated codec has a part in them.
#pragma once

#include "sim_reader.h"
#include "support/bdf_font.h"

#include <string>

namespace support
{

// Two colours side by side, so that clear, half clear and full pixels can be told apart.
sim_reader::Picture street(unsigned width, unsigned height);

// Lays a colour over the rectangle; what leads past the picture's edges is left out.
void paint_rectangle(sim_reader::Picture &picture, unsigned x, unsigned y, unsigned width,
                     unsigned height, const sim_reader::Color &color);

// Lays letters of the font over the picture, and below them the background of their cells. The
// application puts the baseline one line lower than the font says.
void paint_text(sim_reader::Picture &picture, unsigned x, unsigned y, const std::string &text,
                const BdfFont &font, const sim_reader::Color &letters,
                const sim_reader::Color &background);

} // namespace support
