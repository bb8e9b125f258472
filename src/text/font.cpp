// The font engine and the composition of strings; the picture of the target is in the header.
#include "text/font.h"

#include <array>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <type_traits>

// ---- Engine -------------------------------------------------------------------------------------

// The time of day is composed over and over, so its characters are rendered only once.
static constexpr char font_cached_characters[] = "1234567890: ";
constexpr std::uint32_t FONT_CACHED = sizeof font_cached_characters - 1;

// A 26.6 fixed-point length in whole pixels. The division truncates toward zero, so a positive
// length is rounded up, and whole negative pixels come out one nearer to zero (-192 gives -2).
static std::int32_t font_whole_pixels(FT_Pos length)
{
    return (cmn_cut<std::int32_t>(length) + 63) / 64;
}

static int font_request_size(FT_Face face, std::uint32_t size)
{
    FT_Size_RequestRec request = {};
    request.type = FT_SIZE_REQUEST_TYPE_REAL_DIM;
    request.height = cmn_cut<std::int32_t>(size * 64);
    return FT_Request_Size(face, &request);
}

int font_init_engine(font_engine *engine, const char *fontFile, std::uint32_t size)
{
    if (!engine || !fontFile) {
        CMN_REPORT("font_init_engine", "invalid parameter");
        return -EINVAL;
    }
    *engine = {};
    if (FT_Init_FreeType(&engine->library) != 0) {
        CMN_REPORT("font_init_engine", "Init_FreeType error");
        return -EFAULT;
    }
    if (FT_New_Face(engine->library, fontFile, 0, &engine->face) != 0) {
        CMN_REPORT("font_init_engine", "New_Face error. font file: %s", fontFile);
        FT_Done_FreeType(engine->library);
        engine->library = nullptr;
        return -EFAULT;
    }
    engine->size = size;
    if (font_request_size(engine->face, size) != 0) {
        CMN_REPORT("font_init_engine", "request size error");
        font_clear_engine(engine);
        return -EFAULT;
    }
    engine->descender = font_whole_pixels(engine->face->size->metrics.descender);
    engine->maxAdvance = font_whole_pixels(engine->face->size->metrics.max_advance);
    if (font_create_buf(engine) != 0) {
        CMN_REPORT("font_init_engine", "create buffer error");
        font_clear_engine(engine);
        return -EFAULT;
    }
    return 0;
}

void font_clear_engine(font_engine *engine)
{
    if (!engine || !engine->library) {
        CMN_REPORT("font_clear_engine", "invalid param");
        return;
    }
    font_free_buf(engine->pGlyphs, engine->numGlyphs);
    FT_Done_Face(engine->face);
    FT_Done_FreeType(engine->library);
    engine->library = nullptr;
}

// A failure here is fatal: numGlyphs says 12 and the array is gone, and the font_clear_engine that
// follows goes through it all the same.
int font_create_buf(font_engine *engine)
{
    engine->numGlyphs = FONT_CACHED;
    engine->pGlyphs = static_cast<font_glyph *>(calloc(FONT_CACHED, sizeof(font_glyph)));
    if (!engine->pGlyphs) {
        CMN_REPORT("font_create_buf", "calloc failed");
        return -EFAULT;
    }
    for (std::uint32_t i = 0; i < FONT_CACHED; i++) {
        const std::uint32_t code = cmn_cut<std::uint8_t>(font_cached_characters[i]);
        font_glyph *entry = &engine->pGlyphs[i];
        if (font_get_glyph(engine->face, code, entry) != 0) {
            CMN_REPORT("font_create_buf", "set glyph failed");
            font_free_buf(engine->pGlyphs, i);
            return -EFAULT;
        }
        entry->isBuf = 1;
        entry->code = code;
    }
    return 0;
}

void font_free_buf(font_glyph *pGlyphs, std::uint32_t count)
{
    for (std::uint32_t i = 0; i < count; i++) {
        assert(pGlyphs[i].isBuf);
        FT_Done_Glyph(pGlyphs[i].glyph);
    }
    free(pGlyphs);
}

int font_get_glyph(FT_Face face, std::uint32_t code, font_glyph *entry)
{
    entry->code = code;
    const FT_UInt index = FT_Get_Char_Index(face, code);
    if (FT_Load_Glyph(face, index, FT_LOAD_DEFAULT) != 0) {
        CMN_REPORT("font_get_glyph", "load glyph failed");
        return -EFAULT;
    }
    if (FT_Get_Glyph(face->glyph, &entry->glyph) != 0) {
        CMN_REPORT("font_get_glyph", "get glyph failed");
        return -EFAULT;
    }
    if (FT_Glyph_To_Bitmap(&entry->glyph, FT_RENDER_MODE_MONO, nullptr, 1) != 0) {
        CMN_REPORT("font_get_glyph", "glyph to bitmap failed");
        return -EFAULT;
    }
    return 0;
}

static const font_glyph *font_find_cached(const font_engine *engine, std::uint32_t code)
{
    for (std::uint32_t i = 0; i < engine->numGlyphs; i++) {
        if (engine->pGlyphs[i].code == code)
            return &engine->pGlyphs[i];
    }
    return nullptr;
}

// Gives back the glyphs of the first `count` characters that aren't cached ones, and the array.
static void font_release_string(font_engine *engine, std::uint32_t count)
{
    for (std::uint32_t i = 0; i < count; i++) {
        if (!engine->pStringGlyphs[i].isBuf)
            FT_Done_Glyph(engine->pStringGlyphs[i].glyph);
    }
    free(engine->pStringGlyphs);
}

int font_get_string_glyphs(font_engine *engine, const char *string)
{
    const std::uint32_t length = cmn_cut<std::uint32_t>(strlen(string));

    engine->pStringGlyphs = static_cast<font_glyph *>(calloc(length, sizeof(font_glyph)));
    if (!engine->pStringGlyphs) {
        CMN_REPORT("font_get_string_glyphs", "calloc failed");
        return -EFAULT;
    }
    for (std::uint32_t i = 0; i < length; i++) {
        const std::uint32_t code = cmn_cut<std::uint8_t>(string[i]);
        font_glyph *entry = &engine->pStringGlyphs[i];
        const font_glyph *cached = font_find_cached(engine, code);
        if (cached) {
            *entry = *cached;
            continue;
        }
        if (font_get_glyph(engine->face, code, entry) != 0) {
            CMN_REPORT("font_get_string_glyphs", "set glyph failed");
            font_release_string(engine, i);
            return -EFAULT;
        }
        entry->isBuf = 0;
        entry->code = code;
    }
    return 0;
}

void font_free_string_glyphs(font_engine *engine)
{
    font_release_string(engine, engine->stringLength);
}

// ---- Glyphs -------------------------------------------------------------------------------------

// A word of the target, which the caller may hold as bytes.
typedef std::uint32_t font_word [[gnu::may_alias]];

// Where on the target one glyph is drawn, and with what.
struct font_box {
    const std::uint8_t *buffer; // of the glyph's bitmap
    std::uint32_t pitch;        // of the glyph's bitmap, in bytes
    font_word *target;
    std::uint32_t wholeWords; // of the target; the bytes behind them, if any, are fewer than 4
    std::uint32_t targetWidth;
    std::uint32_t xStart, xEnd; // both included
    std::uint32_t yStart, yEnd; // both included
    std::uint32_t color;        // in every field of a word
};

// Sets the pixels of a word whose fields are set in `fields` to the colour. OSD memory is uncached,
// so a word without such a pixel isn't touched at all.
static inline void font_put_word(font_word *at, std::uint32_t fields, std::uint32_t color)
{
    if (fields != 0)
        *at = (*at & ~fields) | (color & fields);
}

// The fields of `SOURCE` source bits. The most significant bit is the leftmost pixel, which has the
// lowest field.
template <std::uint32_t PIXEL_SIZE, std::uint32_t SOURCE>
consteval auto font_make_spread()
{
    typedef std::conditional_t<PIXEL_SIZE * SOURCE <= 16, std::uint16_t, std::uint32_t> fields;
    std::array<fields, 1u << SOURCE> spread = {};
    for (std::uint32_t bits = 0; bits < spread.size(); bits++) {
        for (std::uint32_t i = 0; i < SOURCE; i++) {
            if ((bits >> (SOURCE - 1 - i) & 1) != 0)
                spread[bits] |= cmn_cut<fields>(((1u << PIXEL_SIZE) - 1) << (i * PIXEL_SIZE));
        }
    }
    return spread;
}

// The fields of a word's worth of source pixels, the `part`-th of a source line; only the first
// `count` of them are asked for, and no byte behind those is read.
template <std::uint32_t PIXEL_SIZE>
static inline std::uint32_t font_spread(const std::uint8_t *line, std::uint32_t part,
                                        std::uint32_t count)
{
    if constexpr (PIXEL_SIZE == 8) {
        static constexpr auto spread = font_make_spread<8, 4>();
        return spread[(part % 2 == 0 ? line[part / 2] >> 4 : line[part / 2]) & 15];
    } else {
        static constexpr auto spread = font_make_spread<PIXEL_SIZE, 8>();
        if constexpr (PIXEL_SIZE == 4)
            return spread[line[part]];
        const std::uint32_t second = count > 8 ? spread[line[part * 2 + 1]] : 0;
        return spread[line[part * 2]] | second << 16;
    }
}

// Draws a glyph whose pixels all lie in whole words of the target, and none of whose pixel numbers
// wraps. Of each line the source pixels are taken a word's worth at a time and shifted to the first
// pixel's place in its word; what is shifted out is carried into the next word, so that each word
// is touched once.
template <std::uint32_t PIXEL_SIZE>
static void font_draw_words(const font_box &box)
{
    constexpr std::uint32_t pixels = 32 / PIXEL_SIZE; // of a word

    const std::uint32_t width = box.xEnd - box.xStart + 1;
    const std::uint32_t wholeParts = (width - 1) / pixels;
    const std::uint32_t rest = width - wholeParts * pixels; // 1 to a whole word's worth
    const std::uint32_t restFields = ~0u >> (32 - rest * PIXEL_SIZE);
    const std::uint32_t color = box.color;

    const std::uint8_t *line = box.buffer;
    std::uint32_t pixel = box.yStart * box.targetWidth + box.xStart;
    for (std::uint32_t lines = box.yEnd - box.yStart + 1; lines > 0; lines--) {
        const std::uint32_t shift = pixel % pixels * PIXEL_SIZE;
        font_word *word = box.target + pixel / pixels;
        std::uint64_t fields = 0; // those of the present word, and above them those carried
        for (std::uint32_t part = 0; part < wholeParts; part++) {
            fields |= std::uint64_t{font_spread<PIXEL_SIZE>(line, part, pixels)} << shift;
            font_put_word(word++, cmn_cut<std::uint32_t>(fields), color);
            fields >>= 32;
        }
        const std::uint32_t last = font_spread<PIXEL_SIZE>(line, wholeParts, rest) & restFields;
        fields |= std::uint64_t{last} << shift;
        font_put_word(word, cmn_cut<std::uint32_t>(fields), color);
        font_put_word(word + 1, cmn_cut<std::uint32_t>(fields >> 32), color);
        line += box.pitch;
        pixel += box.targetWidth;
    }
}

// Draws any other glyph pixel by pixel, touching no byte but its own. Pixel numbers are 32 bits
// wide, and so are the bit numbers of the formats with several pixels in a byte.
static void font_draw_pixels(const font_box &box, std::uint32_t pixelSize)
{
    auto *target = reinterpret_cast<std::uint8_t *>(box.target);
    for (std::uint32_t y = box.yStart; y <= box.yEnd; y++) {
        std::uint32_t bit = (y - box.yStart) * box.pitch * 8;
        std::uint32_t pixel = y * box.targetWidth + box.xStart;
        for (std::uint32_t x = box.xStart; x <= box.xEnd; x++, bit++, pixel++) {
            if ((box.buffer[bit / 8] >> (7 - bit % 8) & 1) == 0)
                continue;
            std::uint8_t *byte = &target[pixelSize == 8 ? pixel : pixel * pixelSize / 8];
            const std::uint32_t field = ((1u << pixelSize) - 1) << pixel * pixelSize % 8;
            *byte = cmn_cut<std::uint8_t>((*byte & ~field) | (box.color & field));
        }
    }
}

template <std::uint32_t PIXEL_SIZE>
static void font_draw_glyph(const font_box *box)
{
    if (box->xEnd < box->xStart)
        return;
    const std::uint64_t lastPixel = std::uint64_t{box->yEnd} * box->targetWidth + box->xEnd;
    if (lastPixel / (32 / PIXEL_SIZE) < box->wholeWords)
        font_draw_words<PIXEL_SIZE>(*box);
    else
        font_draw_pixels(*box, PIXEL_SIZE);
}

// ---- Formats ------------------------------------------------------------------------------------

struct font_format {
    std::uint32_t mask;
    std::uint32_t pixelSize;  // bits
    std::uint32_t everyField; // factor that puts a colour into every field of a word
    void (*draw_glyph)(const font_box *box);
};

static constexpr font_format font_formats[] = {
    {3, 2, 0x55555555, font_draw_glyph<2>},
    {15, 4, 0x11111111, font_draw_glyph<4>},
    {255, 8, 0x01010101, font_draw_glyph<8>},
};

static const font_format *font_find_format(std::uint32_t mask)
{
    for (const font_format &format : font_formats) {
        if (format.mask == mask)
            return &format;
    }
    return nullptr;
}

// ---- Composition --------------------------------------------------------------------------------

// Puts the glyph whose cell begins at `pen` into `box`, clipped at the far edges. False if it has
// no line on the target: it begins above it, having wrapped, or below it, or has no picture at all.
static bool font_place_glyph(const font_engine *engine, const FT_BitmapGlyphRec *glyph,
                             std::uint32_t pen, std::uint32_t targetHeight, font_box *box)
{
    const FT_Bitmap *bitmap = &glyph->bitmap;
    const auto top = cmn_cut<std::uint32_t>(glyph->top);
    const auto descender = cmn_cut<std::uint32_t>(engine->descender);

    box->buffer = bitmap->buffer;
    box->pitch = cmn_cut<std::uint32_t>(bitmap->pitch);
    box->xStart = pen + cmn_cut<std::uint32_t>(glyph->left);
    box->xEnd = box->xStart + cmn_cut<std::uint32_t>(bitmap->width) - 1;
    box->yStart = targetHeight - (top - descender);
    box->yEnd = box->yStart + cmn_cut<std::uint32_t>(bitmap->rows) - 1;
    if (targetHeight <= box->yEnd)
        box->yEnd = targetHeight - 1;
    if (box->targetWidth <= box->xEnd)
        box->xEnd = box->targetWidth - 1;
    return box->yEnd >= box->yStart && bitmap->buffer;
}

int font_draw_target(const font_engine *engine, void *target, std::uint32_t targetWidth,
                     std::uint32_t targetHeight, std::uint32_t mask, std::uint32_t colorFg)
{
    const font_format *format = font_find_format(mask);
    const std::uint32_t pixelSize = format ? format->pixelSize : 0;
    font_box box = {};
    box.target = static_cast<font_word *>(target);
    box.targetWidth = targetWidth;
    box.wholeWords = targetWidth * targetHeight * pixelSize / 32;
    box.color = format ? (colorFg & mask) * format->everyField : 0;

    std::uint32_t pen = 0;
    for (std::uint32_t i = 0; i < engine->stringLength; i++) {
        const auto *glyph =
            reinterpret_cast<const FT_BitmapGlyphRec *>(engine->pStringGlyphs[i].glyph);
        if (glyph->bitmap.pixel_mode != FT_PIXEL_MODE_MONO) {
            CMN_REPORT("font_draw_target", "invalid pixel_mode");
            return -EFAULT;
        }
        if (!format) {
            CMN_REPORT("font_draw_target", "invalid mask");
            return -EFAULT;
        }
        if (font_place_glyph(engine, glyph, pen, targetHeight, &box))
            format->draw_glyph(&box);
        pen += cmn_cut<std::uint32_t>(engine->maxAdvance);
    }
    return 0;
}

// The bits of a run of pixels that begins with pixel 0. Bit numbers are 32 bits wide, so a longer
// run only sets again what it has set.
static std::uint64_t font_run_bits(const font_format *format, std::uint32_t pixels)
{
    constexpr std::uint64_t every_bit = std::uint64_t{1} << 32;
    const std::uint64_t bits = std::uint64_t{pixels} * format->pixelSize;
    return bits < every_bit ? bits : every_bit;
}

// Fills the first `bits` bits of a line with the pattern and the rest with 0. A run that leads
// past the line is ORed to what lies there.
static void font_fill_line(std::uint8_t *line, std::uint32_t lineLength, std::uint8_t pattern,
                           std::uint64_t bits)
{
    const auto whole = cmn_cut<std::uint32_t>(bits / 8);
    const std::uint32_t inside = whole < lineLength ? whole : lineLength;

    memset(line, pattern, inside);
    memset(line + inside, 0, lineLength - inside);
    for (std::uint32_t i = inside; i < whole; i++)
        line[i] |= pattern;
    if (bits % 8 != 0)
        line[whole] |= cmn_cut<std::uint8_t>(pattern & ((1u << bits % 8) - 1));
}

void font_draw_string_background(void *target, std::uint32_t targetWidth,
                                 std::uint32_t targetHeight, std::uint32_t mask,
                                 std::uint32_t color, std::uint32_t backgroundWidth)
{
    const font_format *format = font_find_format(mask);
    if (!format) {
        CMN_REPORT("font_draw_string_background", "invalid mask");
        return;
    }
    const std::uint32_t perByte = 8 / format->pixelSize;
    if (targetWidth % perByte != 0) {
        CMN_REPORT("font_draw_string_background", "invalid targetWidth with 2BPP %ul", targetWidth);
        return;
    }

    // All fields of a byte are alike, so a run of pixels is a run of bytes and a part of one.
    const auto pattern = cmn_cut<std::uint8_t>((color & mask) * format->everyField);
    const std::uint32_t lineLength = targetWidth / perByte;
    auto *line = static_cast<std::uint8_t *>(target);
    font_fill_line(line, lineLength, pattern, font_run_bits(format, backgroundWidth));
    for (std::uint32_t i = 1; i < targetHeight; i++)
        memcpy(line + std::size_t{i} * lineLength, line, lineLength);
}

int font_get_target_bitmap(font_engine *engine, const char *string, std::uint32_t colorFg,
                           std::uint32_t colorBg, std::uint32_t targetWidth, std::uint32_t mask,
                           std::uint32_t targetSize, void *target)
{
    const std::uint32_t targetHeight = engine->size;
    if (!string || !target) {
        CMN_REPORT("font_get_target_bitmap", "invalid parameter");
        return -EINVAL;
    }
    const font_format *format = font_find_format(mask);
    if (!format) {
        CMN_REPORT("font_get_target_bitmap", "invalid mask");
        return -EINVAL;
    }
    const std::uint32_t pixelSize = format->pixelSize;
    assert(targetSize == targetWidth * targetHeight * pixelSize / 8);

    engine->stringLength = cmn_cut<std::uint32_t>(strlen(string));
    const std::uint32_t backgroundWidth =
        engine->stringLength * cmn_cut<std::uint32_t>(engine->maxAdvance);
    if (targetWidth < backgroundWidth) {
        CMN_REPORT("font_get_target_bitmap", "target width is too small");
        return -EFAULT;
    }
    font_draw_string_background(target, targetWidth, targetHeight, mask, colorBg, backgroundWidth);
    if (font_get_string_glyphs(engine, string) != 0) {
        CMN_REPORT("font_get_target_bitmap", "init glyphs failed");
        return -EFAULT;
    }
    int result = 0;
    if (font_draw_target(engine, target, targetWidth, targetHeight, mask, colorFg) != 0) {
        CMN_REPORT("font_get_target_bitmap", "draw target failed");
        result = -EFAULT;
    }
    font_free_string_glyphs(engine);
    return result;
}
