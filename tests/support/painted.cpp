#include "support/painted.h"

#include "support/plain_font.h"

#include <array>

namespace support
{

using sim_reader::Color;
using sim_reader::Picture;

namespace
{

void paint_pixel(Picture &picture, unsigned x, unsigned y, const Color &color)
{
    if (x >= picture.width || y >= picture.height)
        return;
    std::uint8_t *pixel = &picture.rgb[(std::size_t{y} * picture.width + x) * 3];
    const std::array<unsigned, 3> above = {color.red, color.green, color.blue};
    for (std::size_t i = 0; i < above.size(); i++) {
        const unsigned sum = above[i] * color.alpha + pixel[i] * (255u - color.alpha);
        pixel[i] = static_cast<std::uint8_t>(sum / 255);
    }
}

} // namespace

Picture street(unsigned width, unsigned height)
{
    std::vector<std::uint8_t> line;
    for (unsigned x = 0; x < width; x++) {
        if (x < width / 2)
            line.insert(line.end(), {60, 90, 140});
        else
            line.insert(line.end(), {200, 190, 160});
    }
    Picture picture{width, height, {}};
    for (unsigned y = 0; y < height; y++)
        picture.rgb.insert(picture.rgb.end(), line.begin(), line.end());
    return picture;
}

void paint_rectangle(Picture &picture, unsigned x, unsigned y, unsigned width, unsigned height,
                     const Color &color)
{
    for (unsigned line = y; line < y + height; line++) {
        for (unsigned column = x; column < x + width; column++)
            paint_pixel(picture, column, line, color);
    }
}

void paint_text(Picture &picture, unsigned x, unsigned y, const std::string &text,
                const BdfFont &font, const Color &letters, const Color &background)
{
    const auto cell = static_cast<unsigned>(font.advance);
    const auto size = static_cast<unsigned>(font.ascent + font.descent);
    const auto columns = static_cast<unsigned>(text.size()) * cell;
    std::vector<bool> set(std::size_t{columns} * size);
    for (std::size_t i = 0; i < text.size(); i++) {
        const BdfGlyph &glyph = find_glyph(font, text[i]);
        const auto first = static_cast<unsigned>(font.ascent - glyph.top) + 1;
        for (unsigned row = 0; row < glyph.rows.size() && first + row < size; row++) {
            for (unsigned column = 0; column < glyph.rows[row].size(); column++) {
                if (glyph.rows[row][column] == '#')
                    set[std::size_t{first + row} * columns + i * cell + column] = true;
            }
        }
    }
    for (unsigned line = 0; line < size; line++) {
        for (unsigned column = 0; column < columns; column++)
            paint_pixel(picture, x + column, y + line,
                        set[std::size_t{line} * columns + column] ? letters : background);
    }
}

} // namespace support
