#include "support/bdf_font.h"

#include "support/files.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace support
{

namespace
{

// A row of the bitmap as hexadecimal digits of whole bytes, leftmost pixel in the highest bits.
std::string hexadecimal_row(const std::string &row, unsigned bits)
{
    std::vector<unsigned> bytes((row.size() * bits + 7) / 8);
    for (std::size_t x = 0; x < row.size(); x++) {
        if (row[x] != '#')
            continue;
        for (unsigned bit = 0; bit < bits; bit++) {
            const std::size_t at = x * bits + bit;
            bytes[at / 8] |= 0x80u >> at % 8;
        }
    }
    std::string text;
    for (const unsigned byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02X", byte);
        text += digits;
    }
    return text + '\n';
}

// Appends a line in printf's manner.
[[gnu::format(printf, 2, 3)]] void add(std::string &text, const char *format, ...)
{
    char line[128];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    text += line;
    text += '\n';
}

void add_glyph(std::string &text, const BdfFont &font, const BdfGlyph &glyph)
{
    const int height = static_cast<int>(glyph.rows.size());
    const int width = glyph.rows.empty() ? 0 : static_cast<int>(glyph.rows.front().size());
    add(text, "STARTCHAR c%u", glyph.code);
    add(text, "ENCODING %u", glyph.code);
    add(text, "SWIDTH %d 0", font.advance * 1000 / (font.ascent + font.descent));
    add(text, "DWIDTH %d 0", font.advance);
    add(text, "BBX %d %d %d %d", width, height, glyph.left, glyph.top - height);
    add(text, "BITMAP");
    for (const std::string &row : glyph.rows)
        text += hexadecimal_row(row, font.bits);
    add(text, "ENDCHAR");
}

BdfGlyph digit(unsigned code, std::vector<std::string> rows)
{
    return {code, 1, 6, std::move(rows)};
}

} // namespace

std::string to_bdf(const BdfFont &font)
{
    const int size = font.ascent + font.descent;
    std::string text;
    add(text, "STARTFONT 2.%d", font.bits == 1 ? 1 : 3);
    add(text, "FONT -test-small-medium-r-normal--%d-%d-75-75-c-%d-iso10646-1", size, size * 10,
        font.advance * 10);
    if (font.bits == 1)
        add(text, "SIZE %d 75 75", size);
    else
        add(text, "SIZE %d 75 75 %u", size, font.bits);
    add(text, "FONTBOUNDINGBOX %d %d 0 %d", font.advance, size, -font.descent);
    add(text, "STARTPROPERTIES 6");
    add(text, "FONT_ASCENT %d", font.ascent);
    add(text, "FONT_DESCENT %d", font.descent);
    add(text, "PIXEL_SIZE %d", size);
    add(text, "AVERAGE_WIDTH %d", font.advance * 10);
    add(text, "CHARSET_REGISTRY \"ISO10646\"");
    add(text, "CHARSET_ENCODING \"1\"");
    add(text, "ENDPROPERTIES");
    add(text, "CHARS %d", static_cast<int>(font.glyphs.size()));
    for (const BdfGlyph &glyph : font.glyphs)
        add_glyph(text, font, glyph);
    add(text, "ENDFONT");
    return text;
}

BdfFont small_font()
{
    BdfFont font;
    font.ascent = 6;
    font.descent = 2;
    font.advance = 6;
    font.glyphs = {
        {' ', 0, 0, {}},
        digit('0', {".##.", "#..#", "#..#", "#..#", "#..#", ".##."}),
        digit('1', {"..#.", ".##.", "..#.", "..#.", "..#.", ".###"}),
        digit('2', {".##.", "#..#", "...#", "..#.", ".#..", "####"}),
        digit('3', {"###.", "...#", ".##.", "...#", "...#", "###."}),
        digit('4', {"...#", "..##", ".#.#", "####", "...#", "...#"}),
        digit('5', {"####", "#...", "###.", "...#", "...#", "###."}),
        digit('6', {".##.", "#...", "###.", "#..#", "#..#", ".##."}),
        digit('7', {"####", "...#", "..#.", "..#.", ".#..", ".#.."}),
        digit('8', {".##.", "#..#", ".##.", "#..#", "#..#", ".##."}),
        digit('9', {".##.", "#..#", "#..#", ".###", "...#", ".##."}),
        {':', 2, 5, {"#", ".", ".", "#"}},
        {'/', 1, 6, {"...#", "...#", "..#.", ".#..", "#...", "#..."}},
        {'A', 0, 6, {"..#..", ".#.#.", "#...#", "#####", "#...#", "#...#"}},
        {'a', 1, 4, {".###", "#..#", "#..#", ".###"}},
        {'^', 1, 8, {".##.", "#..#", "#..#"}},
        {'_', 0, 0, {"#.#.#.", ".#.#.#", "######", "#....#"}},
    };
    return font;
}

std::string make_font(const BdfFont &font)
{
    const std::string path = "/tmp/test.bdf";
    write_file(path, to_bdf(font));
    return path;
}

} // namespace support
