// The composition of strings once more, as a rule for one pixel after another. It is slow and
// plain and has nothing in common with the application's code, which tests hold against it; and
// glyphs of any shape to try it on.
//
// Everything is computed in unsigned 32-bit numbers that wrap, and the fields of pixels are read
// and written in whole 32-bit words.
#pragma once

#include "text/font.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace support
{

// ---- Glyphs that come from no font --------------------------------------------------------------

// The box of a 1-bit glyph: `rows` lines, each `pitch` bytes behind the one before.
struct GlyphBox {
    std::int32_t left = 0; // from the pen to the leftmost column
    std::int32_t top = 0;  // from the baseline up to the top of the first row
    std::uint32_t width = 0;
    std::uint32_t rows = 0;
    std::int32_t pitch = 0;
};

struct PlainGlyph {
    FT_BitmapGlyphRec record{};
    std::vector<std::uint8_t> bytes; // no more than the picture needs

    PlainGlyph(const GlyphBox &box, std::vector<std::uint8_t> bits);
    // '#' is a set pixel; all rows of one width.
    PlainGlyph(std::int32_t left, std::int32_t top, const std::vector<std::string> &rows);
    PlainGlyph(const PlainGlyph &other);
    PlainGlyph &operator=(const PlainGlyph &) = delete;
};

// Bytes that a picture of such lines takes, from its first to its last.
std::size_t picture_bytes(const GlyphBox &box);

// An engine that has plain glyphs as its cached set, 'a' and the characters behind it. There is no
// FreeType library behind it, so it composes only those, and nothing is to be cleared.
class PlainEngine
{
public:
    PlainEngine(std::uint32_t size, std::int32_t descender, std::int32_t maxAdvance,
                std::vector<PlainGlyph> glyphs);
    PlainEngine(const PlainEngine &) = delete;
    PlainEngine &operator=(const PlainEngine &) = delete;

    font_engine *operator->();
    font_engine *get();
    // Each glyph once, in order.
    const std::string &text() const;
    // As font_get_string_glyphs would leave it for that text, for as long as this lives.
    const font_engine *with_string();
    std::vector<PlainGlyph> &glyphs();

private:
    std::vector<PlainGlyph> glyphs_;
    std::vector<font_glyph> entries_;
    std::string text_;
    font_engine engine_{};
};

// ---- The rule -----------------------------------------------------------------------------------

// A target within a longer memory. Whoever asks for something outside of it gets nothing, and from
// then on the memory counts as left.
class RuleMemory
{
public:
    // The target begins with the word `target` of the memory.
    RuleMemory(std::vector<std::uint32_t> words, std::size_t target);

    std::uint32_t *word(std::uint32_t index);
    std::uint8_t *bytes(std::uint64_t from, std::uint64_t count);
    void leave();
    bool was_left() const;
    const std::vector<std::uint32_t> &words() const;

private:
    std::vector<std::uint32_t> words_;
    std::size_t target_;
    bool left_ = false;
};

struct RuleTarget {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t mask = 0; // 3, 15 or 255
};

// What became of the glyphs.
struct RuleCounts {
    unsigned pixels = 0;          // drawn
    unsigned wrapped_numbers = 0; // of them, those whose number needs more than 32 bits
    unsigned wrapped_bits = 0;    // and those of which only the bit number does
    unsigned clipped_below = 0;   // glyphs
    unsigned clipped_right = 0;
    unsigned dropped = 0; // without a line on the target
    unsigned missed = 0;  // without a column on it
};

unsigned rule_pixel_size(std::uint32_t mask);

// False, and nothing is written, if lines of this width make no whole bytes.
bool rule_background(RuleMemory &memory, const RuleTarget &target, std::uint32_t color,
                     std::uint32_t backgroundWidth);

// Draws the glyphs of pStringGlyphs. Reading behind a picture counts as leaving the memory.
RuleCounts rule_glyphs(RuleMemory &memory, const RuleTarget &target, const font_engine &engine,
                       std::uint32_t color);

} // namespace support
