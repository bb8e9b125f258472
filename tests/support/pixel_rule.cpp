#include "support/pixel_rule.h"

#include <cstring>
#include <utility>

namespace support
{

// ---- Glyphs that come from no font --------------------------------------------------------------

namespace
{

GlyphBox box_of(std::int32_t left, std::int32_t top, const std::vector<std::string> &rows)
{
    GlyphBox box;
    box.left = left;
    box.top = top;
    box.rows = static_cast<std::uint32_t>(rows.size());
    box.width = rows.empty() ? 0 : static_cast<std::uint32_t>(rows.front().size());
    box.pitch = static_cast<std::int32_t>((box.width + 7) / 8);
    return box;
}

// Rows of whole bytes, leftmost pixel in the most significant bit.
std::vector<std::uint8_t> bits_of(const std::vector<std::string> &rows)
{
    std::vector<std::uint8_t> bits;
    for (const std::string &row : rows) {
        for (std::size_t x = 0; x < row.size(); x++) {
            if (x % 8 == 0)
                bits.push_back(0);
            if (row[x] == '#')
                bits.back() = static_cast<std::uint8_t>(bits.back() | 0x80 >> x % 8);
        }
    }
    return bits;
}

} // namespace

PlainGlyph::PlainGlyph(const GlyphBox &box, std::vector<std::uint8_t> bits) : bytes(std::move(bits))
{
    record.left = box.left;
    record.top = box.top;
    record.bitmap.width = box.width;
    record.bitmap.rows = box.rows;
    record.bitmap.pitch = box.pitch;
    record.bitmap.pixel_mode = FT_PIXEL_MODE_MONO;
    record.bitmap.buffer = bytes.data();
}

PlainGlyph::PlainGlyph(std::int32_t left, std::int32_t top, const std::vector<std::string> &rows)
    : PlainGlyph(box_of(left, top, rows), bits_of(rows))
{
}

PlainGlyph::PlainGlyph(const PlainGlyph &other) : record(other.record), bytes(other.bytes)
{
    record.bitmap.buffer = bytes.data();
}

std::size_t picture_bytes(const GlyphBox &box)
{
    return box.rows == 0 ? 0
                         : std::size_t{box.rows - 1} * static_cast<std::uint32_t>(box.pitch) +
                               (box.width + 7) / 8;
}

PlainEngine::PlainEngine(std::uint32_t size, std::int32_t descender, std::int32_t maxAdvance,
                         std::vector<PlainGlyph> glyphs)
    : glyphs_(std::move(glyphs))
{
    for (PlainGlyph &glyph : glyphs_) {
        const auto code = static_cast<std::uint32_t>('a' + entries_.size());
        entries_.push_back({code, 1, reinterpret_cast<FT_Glyph>(&glyph.record)});
        text_ += static_cast<char>(code);
    }
    engine_.size = size;
    engine_.descender = descender;
    engine_.maxAdvance = maxAdvance;
    engine_.pGlyphs = entries_.data();
    engine_.numGlyphs = static_cast<std::uint32_t>(entries_.size());
}

font_engine *PlainEngine::operator->()
{
    return &engine_;
}

font_engine *PlainEngine::get()
{
    return &engine_;
}

const std::string &PlainEngine::text() const
{
    return text_;
}

const font_engine *PlainEngine::with_string()
{
    engine_.pStringGlyphs = entries_.data();
    engine_.stringLength = static_cast<std::uint32_t>(entries_.size());
    return &engine_;
}

std::vector<PlainGlyph> &PlainEngine::glyphs()
{
    return glyphs_;
}

// ---- The rule -----------------------------------------------------------------------------------

RuleMemory::RuleMemory(std::vector<std::uint32_t> words, std::size_t target)
    : words_(std::move(words)), target_(target)
{
}

std::uint32_t *RuleMemory::word(std::uint32_t index)
{
    if (left_ || index >= words_.size() - target_) {
        left_ = true;
        return nullptr;
    }
    return &words_[target_ + index];
}

std::uint8_t *RuleMemory::bytes(std::uint64_t from, std::uint64_t count)
{
    const std::uint64_t size = (words_.size() - target_) * sizeof(std::uint32_t);
    if (left_ || from > size || count > size - from) {
        left_ = true;
        return nullptr;
    }
    return reinterpret_cast<std::uint8_t *>(&words_[target_]) + from;
}

void RuleMemory::leave()
{
    left_ = true;
}

bool RuleMemory::was_left() const
{
    return left_;
}

const std::vector<std::uint32_t> &RuleMemory::words() const
{
    return words_;
}

unsigned rule_pixel_size(std::uint32_t mask)
{
    return mask == 3 ? 2 : mask == 15 ? 4 : 8;
}

bool rule_background(RuleMemory &memory, const RuleTarget &target, std::uint32_t color,
                     std::uint32_t backgroundWidth)
{
    const std::uint32_t pixelSize = rule_pixel_size(target.mask);
    if (target.width % (8 / pixelSize) != 0)
        return false;
    const std::uint32_t line = target.width / (8 / pixelSize);
    std::uint8_t *first = memory.bytes(0, line);
    if (!first)
        return true;
    std::memset(first, 0, line);
    for (std::uint32_t i = 0; i < backgroundWidth; i++) {
        std::uint32_t *word = memory.word(i * pixelSize / 32);
        if (!word)
            return true;
        *word |= (color & target.mask) << i * pixelSize % 32;
    }
    for (std::uint32_t y = 1; y < target.height; y++) {
        std::uint8_t *next = memory.bytes(std::uint64_t{y} * line, line);
        if (!next)
            return true;
        std::memcpy(next, first, line);
    }
    return true;
}

namespace
{

struct Place {
    std::uint32_t xStart = 0;
    std::uint32_t xEnd = 0;
    std::uint32_t yStart = 0;
    std::uint32_t yEnd = 0;
};

// Clips at the far edges, and counts that for what is left of the glyph.
Place place_glyph(const FT_BitmapGlyphRec &glyph, std::uint32_t pen, const RuleTarget &target,
                  const font_engine &engine, RuleCounts &counts)
{
    const auto descender = static_cast<std::uint32_t>(engine.descender);
    Place place;
    place.xStart = pen + static_cast<std::uint32_t>(glyph.left);
    place.xEnd = place.xStart + glyph.bitmap.width - 1;
    place.yStart = target.height - (static_cast<std::uint32_t>(glyph.top) - descender);
    place.yEnd = place.yStart + glyph.bitmap.rows - 1;
    const Place whole = place;
    if (target.height <= place.yEnd)
        place.yEnd = target.height - 1;
    if (target.width <= place.xEnd)
        place.xEnd = target.width - 1;

    if (glyph.bitmap.rows == 0 || glyph.bitmap.width == 0)
        return place;
    if (place.yEnd < place.yStart)
        counts.dropped++;
    else if (place.xEnd < place.xStart)
        counts.missed++;
    else {
        counts.clipped_below += place.yEnd != whole.yEnd;
        counts.clipped_right += place.xEnd != whole.xEnd;
    }
    return place;
}

void put_pixel(RuleMemory &memory, const RuleTarget &target, std::uint32_t number,
               std::uint32_t color)
{
    const std::uint32_t pixelSize = rule_pixel_size(target.mask);
    std::uint32_t *word = memory.word(target.mask == 255 ? number / 4 : number * pixelSize / 32);
    if (!word)
        return;
    const std::uint32_t shift = number * pixelSize % 32;
    *word = (*word & ~(target.mask << shift)) | (color & target.mask) << shift;
}

void count_pixel(const RuleTarget &target, std::uint32_t x, std::uint32_t y, RuleCounts &counts)
{
    const std::uint64_t number = std::uint64_t{y} * target.width + x;
    counts.pixels++;
    if (number >> 32 != 0)
        counts.wrapped_numbers++;
    else if (number * rule_pixel_size(target.mask) >> 32 != 0 && target.mask != 255)
        counts.wrapped_bits++;
}

void draw_row(RuleMemory &memory, const RuleTarget &target, const FT_Bitmap &bitmap,
              const Place &place, std::uint32_t y, std::uint32_t color, RuleCounts &counts)
{
    GlyphBox box;
    box.width = bitmap.width;
    box.rows = bitmap.rows;
    box.pitch = bitmap.pitch;
    const std::size_t readable = picture_bytes(box);
    std::uint32_t bit = (y - place.yStart) * static_cast<std::uint32_t>(bitmap.pitch) * 8;
    std::uint32_t number = y * target.width + place.xStart;

    for (std::uint32_t x = place.xStart; x <= place.xEnd && !memory.was_left(); x++) {
        if (bit / 8 >= readable) {
            memory.leave();
            return;
        }
        if ((bitmap.buffer[bit / 8] >> (7 - bit % 8) & 1) != 0) {
            put_pixel(memory, target, number, color);
            count_pixel(target, x, y, counts);
        }
        bit++;
        number++;
    }
}

} // namespace

RuleCounts rule_glyphs(RuleMemory &memory, const RuleTarget &target, const font_engine &engine,
                       std::uint32_t color)
{
    RuleCounts counts;
    std::uint32_t pen = 0;
    for (std::uint32_t i = 0; i < engine.stringLength; i++) {
        const auto *glyph =
            reinterpret_cast<const FT_BitmapGlyphRec *>(engine.pStringGlyphs[i].glyph);
        const Place place = place_glyph(*glyph, pen, target, engine, counts);
        // Without a column there is nothing on any line, of which there may be many.
        if (place.yEnd >= place.yStart && place.xEnd >= place.xStart) {
            for (std::uint32_t y = place.yStart; y <= place.yEnd && !memory.was_left(); y++)
                draw_row(memory, target, glyph->bitmap, place, y, color, counts);
        }
        pen += static_cast<std::uint32_t>(engine.maxAdvance);
    }
    return counts;
}

} // namespace support
