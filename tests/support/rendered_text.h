// What a text OSD must look like, to be held against what the simulated codec shows.
#pragma once

#include "sim_reader.h"

#include <string>

namespace support
{

struct TextStyle {
    unsigned size = 0; // real height of the font, in pixels
    unsigned color_fg = 3;
    unsigned color_bg = 1;
};

// Does the OSD show exactly this text, in the machine's real font?
bool shows_text(const sim_reader::Osd &osd, const std::string &text, const TextStyle &style);

// Does it show the time of a moment of the last few seconds, as it is `offset` seconds east of
// UTC?
bool shows_recent_time(const sim_reader::Osd &osd, long offset, const TextStyle &style);

// The font's cell width at this size.
unsigned cell_width(unsigned size);

} // namespace support
