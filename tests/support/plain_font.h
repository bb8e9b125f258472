// Legible letters for pictures that are kept: a bitmap font of any size, of which every version of
// FreeType makes the same pixels. It has no outlines, and nothing is hinted or smoothed.
#pragma once

#include "support/bdf_font.h"

namespace support
{

constexpr unsigned PLAIN_FONT_LEAST = 12; // lines

// The visible characters of ASCII and the blank at this size, in cells of 6 columns for each whole
// 12 lines. The letters stand 3 of 12 lines above the bottom.
BdfFont plain_font(unsigned size);

// A character's glyph. Throws std::runtime_error if the font hasn't got it.
const BdfGlyph &find_glyph(const BdfFont &font, char letter);

} // namespace support
