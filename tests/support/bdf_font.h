// Bitmap fonts made for the tests. They have no outlines and no instructions, so every version of
// FreeType gives the same glyphs, and a test says exactly what they look like.
//
// A BDF font has one size: font_init_engine takes it only at the size ascent + descent.
#pragma once

#include <string>
#include <vector>

namespace support
{

struct BdfGlyph {
    unsigned code = 0;
    int left = 0;                  // from the pen to the leftmost column
    int top = 0;                   // from the baseline up to the top of the first row
    std::vector<std::string> rows; // '#' is a set pixel; all of one width
};

struct BdfFont {
    int ascent = 0;
    int descent = 0;
    int advance = 0;
    std::vector<BdfGlyph> glyphs;
    unsigned bits = 1; // per pixel of the file; 1, or 8 for grey glyphs
};

// The font file's text.
std::string to_bdf(const BdfFont &font);

// A font of ascent 6 and descent 2, with the characters of "1234567890: ", "/", "A", "a", and two
// that lead out of the line: '^' begins two lines above its top, '_' ends two lines below its
// bottom. FreeType takes the width of all glyphs together for the greatest advance, which makes
// cells of 6 pixels; and the engine's rounding takes one line off the descent, so that the
// baseline is on line 7 of 8.
BdfFont small_font();

// Writes a font to a file in the temporary folder and returns its path; the caller removes it.
std::string make_font(const BdfFont &font);
constexpr unsigned SMALL_FONT_SIZE = 8;
constexpr unsigned SMALL_FONT_ADVANCE = 6;

} // namespace support
