// Text rendering, the chief header of `text`: a font engine that turns the bytes of a short string
// into 1-bit glyphs with FreeType, and the composition of a string straight into a target of
// packed palette pixels.
//
// Calling sequence: font_init_engine, any number of font_get_target_bitmap, font_clear_engine.
// Each post has an engine of its own with its own FreeType library and face, so engines share
// nothing. Everything here belongs to the main thread.
//
// What is used of FreeType existed in version 2.3.7; its API reference tells what each call does.
//
// The target is a picture of targetWidth by targetHeight pixels with no gap between lines. Pixel
// (x, y) has the number n = y * targetWidth + x and is `pixelSize` bits wide, from bit n *
// pixelSize on in a sequence of little-endian 32-bit words. One byte of it, most significant bit
// at the left, with its pixels numbered from 0:
//
//   mask 3     |3 3|2 2|1 1|0 0|     2 bits per pixel
//   mask 15    |1 1 1 1|0 0 0 0|     4 bits per pixel
//   mask 255   |0 0 0 0 0 0 0 0|     8 bits per pixel
//
// The mask alone names the format; it is the largest colour index, and colours are cut to it.
// Coordinates are unsigned and wrap, which decides what is dropped and what is clipped at the
// edges: a glyph that begins above the first line, or left of the first pixel, is dropped whole;
// one that reaches beyond the last line or pixel is clipped there.
#pragma once

#include "common/cmn.h"

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H

struct font_glyph {
    std::uint32_t code;  // the character: the unsigned value of one byte
    std::uint32_t isBuf; // 1: belongs to the engine's cached set; 0: to the string's array
    FT_Glyph glyph;      // after font_get_glyph an FT_BitmapGlyph
};

struct font_engine {
    FT_Library library; // NULL while the engine is cleared
    FT_Face face;
    std::int32_t descender;    // in pixels, normally negative or zero
    std::uint32_t size;        // real height of the face in pixels, and height of every target
    std::int32_t maxAdvance;   // in pixels; the cell that every character gets
    font_glyph *pStringGlyphs; // one a character, only during a composition
    std::uint32_t stringLength;
    font_glyph *pGlyphs;     // the cached set, owned
    std::uint32_t numGlyphs; // its entries: 0, then always 12
};

// ---- Engine -------------------------------------------------------------------------------------

// Opens face 0 of the font file at a real height (ascender plus descender) of `size` pixels and
// renders the characters of the time, "1234567890: ", which stay cached. The record needs no
// preparation, but a live engine must be cleared first. -EINVAL after a report for a NULL argument;
// -EFAULT after one if FreeType fails, and the engine is then cleared. Without memory for the
// cached characters, or with a font that can't give one of them, the process ends.
int font_init_engine(font_engine *engine, const char *fontFile, std::uint32_t size);

// Gives back all that font_init_engine made. A cleared engine is reported and left alone.
void font_clear_engine(font_engine *engine);

// The parts of the two above. font_free_buf asserts that every entry belongs to a cached set.
int font_create_buf(font_engine *engine);
void font_free_buf(font_glyph *pGlyphs, std::uint32_t count);

// Renders one character, or the font's missing-glyph picture, into `entry`. -EFAULT after a report.
int font_get_glyph(FT_Face face, std::uint32_t code, font_glyph *entry);

// Makes pStringGlyphs for a string, of copies of cached entries and of glyphs rendered for it.
// -EFAULT after reports, and then the array is gone. The release counts on stringLength.
int font_get_string_glyphs(font_engine *engine, const char *string);
void font_free_string_glyphs(font_engine *engine);

// ---- Target -------------------------------------------------------------------------------------

// Composes `string` at the left of the target, a cell of maxAdvance pixels for each byte: first
// the background of the cells, with index 0 in the pixels behind them, then the glyphs. The height
// of the target is the engine's size. `target` must be 32-bit aligned and `targetSize` exactly
// targetWidth * size * pixelSize / 8 bytes, which is asserted.
//
// Nothing is written by the failures -EINVAL, after a report for a NULL text or target or another
// mask, and -EFAULT, after one for a target that is narrower than the cells. What was drawn before
// it stays after a -EFAULT, after reports, for a glyph that fails or no memory for the glyphs. A
// targetWidth that fills no whole bytes is reported and draws the glyphs without a background.
int font_get_target_bitmap(font_engine *engine, const char *string, std::uint32_t colorFg,
                           std::uint32_t colorBg, std::uint32_t targetWidth, std::uint32_t mask,
                           std::uint32_t targetSize, void *target);

// Fills a whole target: `backgroundWidth` pixels of each line with `color`, the rest with index 0.
// Nothing holds `backgroundWidth` to the line, and the first line is written even if
// `targetHeight` is 0: what leads past the target is the caller's to prevent. Bad arguments are
// reported, and then nothing is written.
void font_draw_string_background(void *target, std::uint32_t targetWidth,
                                 std::uint32_t targetHeight, std::uint32_t mask,
                                 std::uint32_t color, std::uint32_t backgroundWidth);

// Draws the glyphs of pStringGlyphs over the target. -EFAULT after a report for a glyph that isn't
// 1-bit, and then the glyphs before it stay drawn.
int font_draw_target(const font_engine *engine, void *target, std::uint32_t targetWidth,
                     std::uint32_t targetHeight, std::uint32_t mask, std::uint32_t colorFg);
