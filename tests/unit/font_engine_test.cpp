// The font engine: its calls of FreeType, its cached set of glyphs, the glyphs of a string.
#include "support/bdf_font.h"
#include "support/osd_test.h"
#include "support/wraps.h"
#include "text/font.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

// ---- Beneath FreeType's interface ---------------------------------------------------------------

namespace
{

// Glyphs that FreeType has handed out and not got back.
std::set<FT_Glyph> living;

struct Metrics {
    FT_Pos descender = 0;
    FT_Pos max_advance = 0;
};

// What the next face that is sized has, in place of its own; 26.6 fixed point.
std::optional<Metrics> chosen;

template <typename Function>
Function *freetype(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The functions that the replaced ones go on to, on their way to the library.
extern "C" {

FT_Error FT_Get_Glyph(FT_GlyphSlot slot, FT_Glyph *glyph)
{
    const FT_Error error = freetype<decltype(FT_Get_Glyph)>("FT_Get_Glyph")(slot, glyph);
    if (error == 0)
        living.insert(*glyph);
    return error;
}

FT_Error FT_Glyph_To_Bitmap(FT_Glyph *glyph, FT_Render_Mode mode, const FT_Vector *origin,
                            FT_Bool destroy)
{
    const FT_Glyph source = *glyph;
    const FT_Error error =
        freetype<decltype(FT_Glyph_To_Bitmap)>("FT_Glyph_To_Bitmap")(glyph, mode, origin, destroy);
    if (error == 0 && destroy != 0)
        living.erase(source);
    if (error == 0)
        living.insert(*glyph);
    return error;
}

void FT_Done_Glyph(FT_Glyph glyph)
{
    EXPECT_EQ(living.erase(glyph), 1U);
    freetype<decltype(FT_Done_Glyph)>("FT_Done_Glyph")(glyph);
}

FT_Error FT_Request_Size(FT_Face face, FT_Size_Request request)
{
    const FT_Error error = freetype<decltype(FT_Request_Size)>("FT_Request_Size")(face, request);
    if (chosen) {
        face->size->metrics.descender = chosen->descender;
        face->size->metrics.max_advance = chosen->max_advance;
    }
    return error;
}

} // extern "C"

namespace
{

using support::Lines;
using support::report;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr std::string_view CACHED = "1234567890: ";

constexpr wraps::Function FREETYPE[] = {wraps::FT_INIT_FREETYPE,   wraps::FT_NEW_FACE,
                                        wraps::FT_REQUEST_SIZE,    wraps::FT_GET_CHAR_INDEX,
                                        wraps::FT_LOAD_GLYPH,      wraps::FT_GET_GLYPH,
                                        wraps::FT_GLYPH_TO_BITMAP, wraps::FT_DONE_GLYPH,
                                        wraps::FT_DONE_FACE,       wraps::FT_DONE_FREETYPE};

// The steps of one character that can fail.
struct Step {
    wraps::Function function;
    const char *message;
    unsigned strays;   // glyphs that nobody can release any more
    std::size_t lines; // of the trace, up to the step
};
constexpr Step STEPS[] = {{wraps::FT_LOAD_GLYPH, "load glyph failed", 0, 2},
                          {wraps::FT_GET_GLYPH, "get glyph failed", 0, 3},
                          {wraps::FT_GLYPH_TO_BITMAP, "glyph to bitmap failed", 1, 4}};
constexpr int SOME_ERROR = 0x40;

class FontEngine : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        font_ = support::make_font(support::small_font());
    }

    void TearDown() override
    {
        if (engine_.library)
            font_clear_engine(&engine_);
        chosen.reset();
        EXPECT_TRUE(living.empty());
        living.clear();
        support::remove_file(font_);
        OsdTest::TearDown();
    }

    void init()
    {
        ASSERT_EQ(font_init_engine(&engine_, font_.c_str(), support::SMALL_FONT_SIZE), 0);
    }

    void init_real(std::uint32_t size)
    {
        ASSERT_EQ(font_init_engine(&engine_, support::real_font().c_str(), size), 0);
    }

    // Makes the string's array as a composition would.
    int get_string(const char *text)
    {
        engine_.stringLength = static_cast<std::uint32_t>(std::strlen(text));
        return font_get_string_glyphs(&engine_, text);
    }

    std::string font_;
    font_engine engine_{};
};

auto fields(const font_engine &engine)
{
    return std::tie(engine.library, engine.face, engine.descender, engine.size, engine.maxAdvance,
                    engine.pStringGlyphs, engine.stringLength, engine.pGlyphs, engine.numGlyphs);
}

const FT_BitmapGlyphRec &bitmap_of(const font_glyph &glyph)
{
    return *reinterpret_cast<FT_BitmapGlyph>(glyph.glyph);
}

std::string rows_of(const font_glyph &glyph)
{
    const FT_Bitmap &bitmap = bitmap_of(glyph).bitmap;
    std::string rows;
    for (unsigned y = 0; y < bitmap.rows; y++) {
        for (unsigned x = 0; x < bitmap.width; x++) {
            const unsigned byte = bitmap.buffer[y * static_cast<unsigned>(bitmap.pitch) + x / 8];
            rows += (byte >> (7 - x % 8) & 1) != 0 ? '#' : '.';
        }
        rows += '\n';
    }
    return rows;
}

// A record that holds anything.
font_engine littered()
{
    font_engine engine;
    std::memset(static_cast<void *>(&engine), 0xA5, sizeof engine);
    return engine;
}

void trace_freetype()
{
    for (const wraps::Function function : FREETYPE)
        wraps::trace(function);
}

// The trace of one character of a face after another.
Lines rendering(FT_Face face, std::string_view characters)
{
    Lines lines;
    for (const char character : characters) {
        const unsigned code = static_cast<unsigned char>(character);
        const unsigned index =
            freetype<decltype(FT_Get_Char_Index)>("FT_Get_Char_Index")(face, code);
        lines.push_back("FT_Get_Char_Index(" + std::to_string(code) + ")");
        lines.push_back("FT_Load_Glyph(" + std::to_string(index) + ", 0)");
        lines.emplace_back("FT_Get_Glyph()");
        lines.emplace_back("FT_Glyph_To_Bitmap(mode 2, NULL, 1)");
    }
    return lines;
}

int calls_of_freetype()
{
    int calls = 0;
    for (const wraps::Function function : FREETYPE)
        calls += wraps::calls(function);
    return calls;
}

// Releases what the engine has lost, but keeps what is in `known`, and returns how many it were.
unsigned release_strays(const std::set<FT_Glyph> &known)
{
    unsigned strays = 0;
    const std::set<FT_Glyph> all = living;
    for (const FT_Glyph glyph : all) {
        if (known.contains(glyph))
            continue;
        FT_Done_Glyph(glyph);
        strays++;
    }
    return strays;
}

// ---- The record ---------------------------------------------------------------------------------

TEST_F(FontEngine, fields_of_the_record_have_their_order)
{
    const std::size_t offsets[] = {
        offsetof(font_engine, library),      offsetof(font_engine, face),
        offsetof(font_engine, descender),    offsetof(font_engine, size),
        offsetof(font_engine, maxAdvance),   offsetof(font_engine, pStringGlyphs),
        offsetof(font_engine, stringLength), offsetof(font_engine, pGlyphs),
        offsetof(font_engine, numGlyphs)};
    EXPECT_EQ(offsets[0], 0U);
    EXPECT_TRUE(std::is_sorted(std::begin(offsets), std::end(offsets)));
}

// ---- font_init_engine ---------------------------------------------------------------------------

TEST_F(FontEngine, init_asks_freetype_for_the_face_the_real_height_and_the_twelve_glyphs)
{
    trace_freetype();
    init();
    const Lines made = support::take_trace();

    Lines expected = {"FT_Init_FreeType()", "FT_New_Face(/tmp/test.bdf, 0)",
                      "FT_Request_Size(type 1, 0 x 512, resolution 0 x 0)"};
    const Lines glyphs = rendering(engine_.face, CACHED);
    expected.insert(expected.end(), glyphs.begin(), glyphs.end());
    EXPECT_EQ(made, expected);
}

TEST_F(FontEngine, init_fills_a_record_that_held_anything)
{
    engine_ = littered();
    const int callocs = wraps::calls(wraps::CALLOC);
    init();
    EXPECT_EQ(wraps::calls(wraps::CALLOC) - callocs, 1);
    EXPECT_NE(engine_.library, nullptr);
    EXPECT_EQ(engine_.face->glyph->library, engine_.library);
    EXPECT_EQ(engine_.descender, -1);
    EXPECT_EQ(engine_.size, 8U);
    EXPECT_EQ(engine_.maxAdvance, 6);
    EXPECT_EQ(engine_.pStringGlyphs, nullptr);
    EXPECT_EQ(engine_.stringLength, 0U);
    EXPECT_NE(engine_.pGlyphs, nullptr);
    EXPECT_EQ(engine_.numGlyphs, 12U);
}

TEST_F(FontEngine, init_caches_the_characters_of_the_time_in_order)
{
    init();
    const support::BdfFont font = support::small_font();
    for (std::size_t i = 0; i < CACHED.size(); i++) {
        const font_glyph &entry = engine_.pGlyphs[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(entry.code, static_cast<unsigned char>(CACHED[i]));
        EXPECT_EQ(entry.isBuf, 1U);
        EXPECT_EQ(entry.glyph->format, FT_GLYPH_FORMAT_BITMAP);
        EXPECT_EQ(bitmap_of(entry).bitmap.pixel_mode, FT_PIXEL_MODE_MONO);
        const auto same = [&](const auto &glyph) { return glyph.code == entry.code; };
        const auto drawn = std::find_if(font.glyphs.begin(), font.glyphs.end(), same);
        std::string rows;
        for (const std::string &row : drawn->rows)
            rows += row + '\n';
        EXPECT_EQ(rows_of(entry), rows);
    }
}

TEST_F(FontEngine, init_refuses_null_arguments_and_leaves_the_record)
{
    const std::string refusal = report("server", "invalid parameter", "font_init_engine");
    cmn_role = "server";
    font_engine engine = littered();
    EXPECT_EQ(support::errors_of([&] { EXPECT_EQ(font_init_engine(&engine, nullptr, 8), -22); }),
              refusal);
    EXPECT_EQ(fields(engine), fields(littered()));
    EXPECT_EQ(
        support::errors_of([&] { EXPECT_EQ(font_init_engine(nullptr, font_.c_str(), 8), -22); }),
        refusal);
    EXPECT_EQ(calls_of_freetype(), 0);
}

TEST_F(FontEngine, init_without_a_library_leaves_a_zero_record)
{
    engine_ = littered();
    trace_freetype();
    wraps::fail(wraps::FT_INIT_FREETYPE, 1, SOME_ERROR);
    EXPECT_EQ(support::errors_of([&] { EXPECT_EQ(font_init_engine(&engine_, "x", 8), -14); }),
              report("", "Init_FreeType error", "font_init_engine"));
    EXPECT_EQ(fields(engine_), fields(font_engine{}));
    EXPECT_EQ(support::take_trace(), Lines{"FT_Init_FreeType()"});
}

TEST_F(FontEngine, init_without_a_face_releases_the_library)
{
    const std::string path = "/tmp/no %s font";
    engine_ = littered();
    trace_freetype();
    EXPECT_EQ(
        support::errors_of([&] { EXPECT_EQ(font_init_engine(&engine_, path.c_str(), 8), -14); }),
        report("", "New_Face error. font file: " + path, "font_init_engine"));
    EXPECT_EQ(engine_.library, nullptr);
    EXPECT_EQ(engine_.size, 0U);
    EXPECT_EQ(support::take_trace(), (Lines{"FT_Init_FreeType()", "FT_New_Face(/tmp/no %s font, 0)",
                                            "FT_Done_FreeType()"}));
}

TEST_F(FontEngine, init_with_a_file_that_is_no_font_releases_the_library)
{
    support::write_file("/tmp/text", "no font");
    EXPECT_EQ(
        support::errors_of([&] { EXPECT_EQ(font_init_engine(&engine_, "/tmp/text", 8), -14); }),
        report("", "New_Face error. font file: /tmp/text", "font_init_engine"));
    EXPECT_EQ(engine_.library, nullptr);
    support::remove_file("/tmp/text");
}

TEST_F(FontEngine, init_without_the_size_clears_an_engine_that_has_no_glyphs)
{
    const std::string refusal = report("", "request size error", "font_init_engine");
    trace_freetype();
    wraps::fail(wraps::FT_REQUEST_SIZE, 1, SOME_ERROR);
    EXPECT_EQ(
        support::errors_of([&] { EXPECT_EQ(font_init_engine(&engine_, font_.c_str(), 8), -14); }),
        refusal);
    EXPECT_EQ(support::take_trace(), (Lines{"FT_Init_FreeType()", "FT_New_Face(/tmp/test.bdf, 0)",
                                            "FT_Request_Size(type 1, 0 x 512, resolution 0 x 0)",
                                            "FT_Done_Face()", "FT_Done_FreeType()"}));
    EXPECT_EQ(engine_.library, nullptr);
    EXPECT_EQ(engine_.size, 8U);
    EXPECT_EQ(engine_.pGlyphs, nullptr);
    EXPECT_EQ(engine_.numGlyphs, 0U);

    // A bitmap font has one size only.
    EXPECT_EQ(
        support::errors_of([&] { EXPECT_EQ(font_init_engine(&engine_, font_.c_str(), 9), -14); }),
        refusal);
}

TEST_F(FontEngine, init_without_memory_for_the_cached_set_ends_the_process)
{
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_DEATH(font_init_engine(&engine_, font_.c_str(), 8),
                 StartsWith(report("", "calloc failed", "font_create_buf") +
                            report("", "create buffer error", "font_init_engine")));
}

TEST_F(FontEngine, init_without_one_of_the_twelve_glyphs_ends_the_process)
{
    int nth = 1;
    for (const Step &step : STEPS) {
        SCOPED_TRACE(step.message);
        wraps::reset();
        wraps::fail(step.function, nth, SOME_ERROR);
        EXPECT_DEATH(font_init_engine(&engine_, font_.c_str(), 8),
                     StartsWith(report("", step.message, "font_get_glyph") +
                                report("", "set glyph failed", "font_create_buf") +
                                report("", "create buffer error", "font_init_engine")));
        nth = nth == 1 ? 7 : 12;
    }
}

// ---- Sizes --------------------------------------------------------------------------------------

TEST_F(FontEngine, size_in_fixed_point_is_a_signed_number_of_32_bits)
{
    constexpr struct {
        std::uint32_t size;
        const char *call;
    } rows[] = {{0x04000001, "FT_Request_Size(type 1, 0 x 64, resolution 0 x 0)"},
                {0x02000000, "FT_Request_Size(type 1, 0 x -2147483648, resolution 0 x 0)"}};
    wraps::trace(wraps::FT_REQUEST_SIZE);
    for (const auto &row : rows) {
        EXPECT_EQ(support::errors_of(
                      [&] { EXPECT_EQ(font_init_engine(&engine_, font_.c_str(), row.size), -14); }),
                  report("", "request size error", "font_init_engine"));
        EXPECT_EQ(support::take_trace(), Lines{row.call});
    }
}

// Whole pixels of a 26.6 fixed-point length, as the engine rounds it.
std::int32_t whole_pixels(FT_Pos length)
{
    return static_cast<std::int32_t>(std::trunc((static_cast<double>(length) + 63) / 64));
}

TEST_F(FontEngine, size_is_ascender_plus_descender_of_an_outline_font)
{
    for (const std::uint32_t size : {8U, 13U, 28U, 29U, 40U, 75U, 150U}) {
        SCOPED_TRACE(size);
        wraps::trace(wraps::FT_REQUEST_SIZE);
        init_real(size);
        EXPECT_EQ(support::take_trace(), Lines{"FT_Request_Size(type 1, 0 x " +
                                               std::to_string(size * 64) + ", resolution 0 x 0)"});
        const FT_FaceRec &face = *engine_.face;
        const FT_Size_Metrics &metrics = face.size->metrics;
        const long height = FT_MulFix(face.ascender - face.descender, metrics.y_scale);
        EXPECT_NEAR(static_cast<double>(height), size * 64, 1);
        EXPECT_EQ(metrics.x_scale, metrics.y_scale);
        EXPECT_EQ(engine_.size, size);
        EXPECT_EQ(engine_.descender, whole_pixels(metrics.descender));
        EXPECT_EQ(engine_.maxAdvance, whole_pixels(metrics.max_advance));
        EXPECT_LT(engine_.descender, 0);
        EXPECT_GT(engine_.maxAdvance, 0);
        font_clear_engine(&engine_);
    }
}

TEST_F(FontEngine, metrics_are_rounded_up_but_whole_negative_pixels_lose_one)
{
    constexpr struct {
        FT_Pos length;
        std::int32_t pixels;
    } rows[] = {{-256, -3}, {-255, -3}, {-254, -2}, {-193, -2}, {-192, -2}, {-191, -2},
                {-190, -1}, {-129, -1}, {-128, -1}, {-127, -1}, {-126, 0},  {-65, 0},
                {-64, 0},   {-1, 0},    {0, 0},     {1, 1},     {63, 1},    {64, 1},
                {65, 2},    {128, 2},   {129, 3},   {640, 10}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.length);
        chosen = Metrics{row.length, 320};
        init();
        EXPECT_EQ(engine_.descender, row.pixels);
        EXPECT_EQ(engine_.maxAdvance, 5);
        font_clear_engine(&engine_);
        chosen = Metrics{-192, row.length};
        init();
        EXPECT_EQ(engine_.descender, -2);
        EXPECT_EQ(engine_.maxAdvance, row.pixels);
        font_clear_engine(&engine_);
    }
}

TEST_F(FontEngine, bitmap_fonts_give_their_own_metrics)
{
    constexpr struct {
        int descent;
        int width;
        std::int32_t descender;
    } rows[] = {{0, 3, 0}, {1, 5, 0}, {2, 7, -1}, {3, 8, -2}, {4, 20, -3}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.descent);
        support::BdfFont font;
        font.ascent = 5;
        font.descent = row.descent;
        font.advance = row.width;
        font.glyphs = {{'1', 0, 1, {std::string(static_cast<unsigned>(row.width), '#')}}};
        support::make_font(font);
        ASSERT_EQ(
            font_init_engine(&engine_, font_.c_str(), static_cast<std::uint32_t>(5 + row.descent)),
            0);
        EXPECT_EQ(engine_.descender, row.descender);
        EXPECT_EQ(engine_.maxAdvance, row.width);
        font_clear_engine(&engine_);
    }
}

// ---- font_clear_engine --------------------------------------------------------------------------

TEST_F(FontEngine, clear_gives_back_glyphs_face_and_library_in_this_order)
{
    init();
    font_engine before = engine_;
    trace_freetype();
    EXPECT_EQ(support::errors_of([&] { font_clear_engine(&engine_); }), "");
    Lines expected(12, "FT_Done_Glyph()");
    expected.insert(expected.end(), {"FT_Done_Face()", "FT_Done_FreeType()"});
    EXPECT_EQ(support::take_trace(), expected);
    before.library = nullptr;
    EXPECT_EQ(fields(engine_), fields(before));
}

TEST_F(FontEngine, clear_reports_a_cleared_engine_and_changes_nothing)
{
    const std::string refusal = report("stop", "invalid param", "font_clear_engine");
    cmn_role = "stop";
    font_engine engine = littered();
    engine.library = nullptr;
    const font_engine before = engine;
    EXPECT_EQ(support::errors_of([&] { font_clear_engine(&engine); }), refusal);
    EXPECT_EQ(fields(engine), fields(before));
    EXPECT_EQ(support::errors_of([&] { font_clear_engine(nullptr); }), refusal);
    EXPECT_EQ(calls_of_freetype(), 0);
}

TEST_F(FontEngine, engine_can_be_built_again_at_another_size)
{
    init_real(20);
    const std::int32_t narrow = engine_.maxAdvance;
    font_clear_engine(&engine_);
    init_real(40);
    EXPECT_EQ(engine_.size, 40U);
    EXPECT_GT(engine_.maxAdvance, narrow);
}

TEST_F(FontEngine, two_engines_on_one_font_file_share_nothing)
{
    font_engine other;
    init_real(20);
    const std::string small = rows_of(engine_.pGlyphs[0]);
    ASSERT_EQ(font_init_engine(&other, support::real_font().c_str(), 40), 0);
    EXPECT_NE(other.library, engine_.library);
    EXPECT_NE(other.face, engine_.face);
    EXPECT_NE(other.pGlyphs, engine_.pGlyphs);
    for (std::size_t i = 0; i < CACHED.size(); i++) {
        EXPECT_NE(other.pGlyphs[i].glyph, engine_.pGlyphs[i].glyph);
        EXPECT_EQ(other.pGlyphs[i].code, engine_.pGlyphs[i].code);
    }
    EXPECT_GT(bitmap_of(other.pGlyphs[0]).bitmap.rows, bitmap_of(engine_.pGlyphs[0]).bitmap.rows);

    font_clear_engine(&other);
    EXPECT_EQ(rows_of(engine_.pGlyphs[0]), small);
    ASSERT_EQ(get_string("1A"), 0);
    EXPECT_EQ(rows_of(engine_.pStringGlyphs[0]), small);
    font_free_string_glyphs(&engine_);
}

// ---- The cached set by itself -------------------------------------------------------------------

TEST_F(FontEngine, cached_set_without_memory_counts_twelve_all_the_same)
{
    wraps::fail(wraps::CALLOC, 1, ENOMEM);
    EXPECT_EQ(support::errors_of([&] { EXPECT_NE(font_create_buf(&engine_), 0); }),
              report("", "calloc failed", "font_create_buf"));
    EXPECT_EQ(engine_.pGlyphs, nullptr);
    EXPECT_EQ(engine_.numGlyphs, 12U);
}

TEST_F(FontEngine, cached_set_that_fails_halfway_releases_what_it_has_made)
{
    init();
    const font_engine whole = engine_;
    const std::set<FT_Glyph> known = living;
    for (const Step &step : STEPS) {
        SCOPED_TRACE(step.message);
        const int released = wraps::calls(wraps::FT_DONE_GLYPH);
        const int indices = wraps::calls(wraps::FT_GET_CHAR_INDEX);
        engine_.numGlyphs = 0;
        wraps::fail(step.function, 5, SOME_ERROR);
        EXPECT_EQ(support::errors_of([&] { EXPECT_NE(font_create_buf(&engine_), 0); }),
                  report("", step.message, "font_get_glyph") +
                      report("", "set glyph failed", "font_create_buf"));
        EXPECT_EQ(wraps::calls(wraps::FT_DONE_GLYPH) - released, 4);
        EXPECT_EQ(wraps::calls(wraps::FT_GET_CHAR_INDEX) - indices, 5);
        EXPECT_EQ(engine_.numGlyphs, 12U);
        EXPECT_EQ(release_strays(known), step.strays); // the glyph that failed
    }
    engine_ = whole;
}

TEST_F(FontEngine, release_of_the_cached_set_gives_back_so_many_entries_and_the_array)
{
    init();
    ASSERT_EQ(wraps::calls(wraps::FT_DONE_GLYPH), 0);
    font_free_buf(engine_.pGlyphs, 5); // an array that it forgot would be a leak
    EXPECT_EQ(wraps::calls(wraps::FT_DONE_GLYPH), 5);
    EXPECT_EQ(release_strays({}), 7U);
    font_free_buf(static_cast<font_glyph *>(calloc(1, sizeof(font_glyph))), 0);
    engine_.pGlyphs = nullptr;
    engine_.numGlyphs = 0;
}

TEST_F(FontEngine, release_of_the_cached_set_asserts_that_entries_belong_to_it)
{
    init();
    engine_.pGlyphs[3].isBuf = 0;
    const char *failure = "[^\n]*font_free_buf\\([^\n]*\\): Assertion "
                          "`pGlyphs\\[i\\]\\.isBuf' failed\\.\n"
                          "(qemu: [^\n]*\n)?"; // an emulator tells of the signal
    EXPECT_EXIT(font_free_buf(engine_.pGlyphs, 4), testing::KilledBySignal(SIGABRT),
                MatchesRegex(failure));
    EXPECT_EXIT(font_clear_engine(&engine_), testing::KilledBySignal(SIGABRT),
                MatchesRegex(failure));
    engine_.pGlyphs[3].isBuf = 1;
}

// ---- font_get_glyph -----------------------------------------------------------------------------

TEST_F(FontEngine, glyph_is_rendered_in_four_steps)
{
    init();
    font_glyph entry = {0, 77, nullptr};
    trace_freetype();
    EXPECT_EQ(font_get_glyph(engine_.face, 'A', &entry), 0);
    EXPECT_EQ(support::take_trace(), rendering(engine_.face, "A"));
    EXPECT_EQ(entry.code, 'A');
    EXPECT_EQ(entry.isBuf, 77U);
    EXPECT_EQ(rows_of(entry), "..#..\n.#.#.\n#...#\n#####\n#...#\n#...#\n");
    FT_Done_Glyph(entry.glyph);
}

TEST_F(FontEngine, glyph_of_an_outline_font_becomes_a_bitmap_and_its_outline_is_gone)
{
    init_real(28);
    font_glyph entry = {};
    EXPECT_EQ(font_get_glyph(engine_.face, 'W', &entry), 0);
    EXPECT_EQ(entry.glyph->format, FT_GLYPH_FORMAT_BITMAP);
    EXPECT_EQ(bitmap_of(entry).bitmap.pixel_mode, FT_PIXEL_MODE_MONO);
    EXPECT_GT(bitmap_of(entry).bitmap.rows, 10U);
    EXPECT_EQ(living.size(), 13U);
    FT_Done_Glyph(entry.glyph);
}

TEST_F(FontEngine, glyph_that_fails_ends_the_steps_and_keeps_its_code)
{
    init();
    Lines all = rendering(engine_.face, "A");
    trace_freetype();
    for (const Step &step : STEPS) {
        SCOPED_TRACE(step.message);
        font_glyph entry = {};
        wraps::fail(step.function, 1, SOME_ERROR);
        EXPECT_EQ(
            support::errors_of([&] { EXPECT_EQ(font_get_glyph(engine_.face, 'A', &entry), -14); }),
            report("", step.message, "font_get_glyph"));
        EXPECT_EQ(entry.code, 'A');
        EXPECT_EQ(support::take_trace(),
                  Lines(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(step.lines)));
        if (entry.glyph)
            FT_Done_Glyph(entry.glyph); // nobody else does
        support::take_trace();
    }
}

TEST_F(FontEngine, missing_character_is_drawn_as_the_missing_glyph)
{
    init();
    font_glyph missing = {};
    font_glyph zero = {};
    ASSERT_EQ(FT_Get_Char_Index(engine_.face, '?'), 0U);
    EXPECT_EQ(support::errors_of([&] {
                  EXPECT_EQ(font_get_glyph(engine_.face, '?', &missing), 0);
                  engine_.face->charmap = nullptr;
                  EXPECT_EQ(font_get_glyph(engine_.face, 'A', &zero), 0);
              }),
              "");
    EXPECT_EQ(missing.code, '?');
    EXPECT_EQ(zero.code, 'A');
    EXPECT_EQ(rows_of(missing), rows_of(zero));
    FT_Done_Glyph(missing.glyph);
    FT_Done_Glyph(zero.glyph);
}

TEST_F(FontEngine, font_without_the_characters_or_a_usable_charmap_caches_the_missing_glyph)
{
    support::BdfFont font = support::small_font();
    font.glyphs = {{0x2603, 0, 2, {"#.", ".#"}}};
    const std::string without_characters = support::to_bdf(font);
    font.glyphs[0].code = '1';
    std::string without_charmap = support::to_bdf(font);
    const std::size_t charset = without_charmap.find("\"ISO10646\"");
    without_charmap.replace(charset, 10, "\"OTHER\"");

    for (const std::string &text : {without_characters, without_charmap}) {
        support::write_file(font_, text);
        wraps::trace(wraps::FT_LOAD_GLYPH);
        EXPECT_EQ(support::errors_of([&] { init(); }), "");
        EXPECT_EQ(support::take_trace(), Lines(12, "FT_Load_Glyph(0, 0)"));
        for (std::uint32_t i = 0; i < 12; i++)
            EXPECT_EQ(rows_of(engine_.pGlyphs[i]), "#.\n.#\n");
        font_clear_engine(&engine_);
    }
}

TEST_F(FontEngine, blank_has_no_rows)
{
    init();
    EXPECT_EQ(engine_.pGlyphs[11].code, ' ');
    EXPECT_EQ(bitmap_of(engine_.pGlyphs[11]).bitmap.rows, 0U);
}

TEST_F(FontEngine, bitmap_font_with_grey_glyphs_passes)
{
    support::BdfFont font = support::small_font();
    font.bits = 8;
    support::make_font(font);
    EXPECT_EQ(support::errors_of([&] { init(); }), "");
    EXPECT_EQ(bitmap_of(engine_.pGlyphs[0]).bitmap.pixel_mode, FT_PIXEL_MODE_GRAY);
}

// ---- font_get_string_glyphs ---------------------------------------------------------------------

TEST_F(FontEngine, string_of_cached_characters_copies_entries_and_allocates_once)
{
    init();
    wraps::reset();
    ASSERT_EQ(get_string("12:34 :567890"), 0);
    EXPECT_EQ(wraps::calls(wraps::CALLOC), 1);
    EXPECT_EQ(calls_of_freetype(), 0);
    const std::size_t indices[] = {0, 1, 10, 2, 3, 11, 10, 4, 5, 6, 7, 8, 9};
    for (std::size_t i = 0; i < std::size(indices); i++) {
        EXPECT_EQ(std::memcmp(&engine_.pStringGlyphs[i], &engine_.pGlyphs[indices[i]],
                              sizeof(font_glyph)),
                  0)
            << i;
    }
    font_free_string_glyphs(&engine_);
    EXPECT_EQ(calls_of_freetype(), 0);
}

TEST_F(FontEngine, composition_of_digits_colons_and_blanks_allocates_once_and_loads_nothing)
{
    init();
    std::vector<std::uint32_t> target(10 * 6 * 8 / 16);
    wraps::reset();
    EXPECT_EQ(font_get_target_bitmap(&engine_, " 12:34:56 ", 1, 2, 60, 3, 120, target.data()), 0);
    EXPECT_EQ(wraps::calls(wraps::CALLOC), 1);
    EXPECT_EQ(calls_of_freetype(), 0);
}

TEST_F(FontEngine, string_renders_what_is_not_cached_each_time_it_occurs)
{
    init();
    trace_freetype();
    ASSERT_EQ(get_string("A1/A"), 0);
    EXPECT_EQ(support::take_trace(), rendering(engine_.face, "A/A"));
    const font_glyph *glyphs = engine_.pStringGlyphs;
    constexpr struct {
        std::uint32_t code;
        std::uint32_t isBuf;
    } expected[] = {{'A', 0}, {'1', 1}, {'/', 0}, {'A', 0}};
    for (std::size_t i = 0; i < 4; i++) {
        EXPECT_EQ(glyphs[i].code, expected[i].code);
        EXPECT_EQ(glyphs[i].isBuf, expected[i].isBuf);
    }
    EXPECT_NE(glyphs[0].glyph, glyphs[3].glyph);
    EXPECT_EQ(rows_of(glyphs[0]), rows_of(glyphs[3]));

    support::take_trace();
    font_free_string_glyphs(&engine_);
    EXPECT_EQ(support::take_trace(), Lines(3, "FT_Done_Glyph()"));
    EXPECT_EQ(living.size(), 12U);
    EXPECT_NE(engine_.pStringGlyphs, nullptr);
}

TEST_F(FontEngine, string_takes_the_first_entry_with_the_code)
{
    init();
    engine_.pGlyphs[4].code = '9';
    ASSERT_EQ(get_string("95"), 0); // the second is not cached any more
    EXPECT_EQ(engine_.pStringGlyphs[0].glyph, engine_.pGlyphs[4].glyph);
    EXPECT_EQ(engine_.pStringGlyphs[1].isBuf, 0U);
    font_free_string_glyphs(&engine_);
}

TEST_F(FontEngine, bytes_from_0x80_on_are_character_codes_of_their_own)
{
    support::BdfFont font = support::small_font();
    font.glyphs.push_back({0x80, 0, 1, {"#.#"}});
    font.glyphs.push_back({0xE9, 0, 1, {"##."}});
    font.glyphs.push_back({0xFF, 0, 1, {".##"}});
    support::make_font(font);
    init();
    trace_freetype();
    ASSERT_EQ(get_string("\x80\xE9\xFF\xC3\xA9"), 0);
    EXPECT_EQ(support::take_trace(), rendering(engine_.face, "\x80\xE9\xFF\xC3\xA9"));
    constexpr struct {
        std::uint32_t code;
        const char *rows;
    } expected[] = {{0x80, "#.#\n"}, {0xE9, "##.\n"}, {0xFF, ".##\n"}};
    for (std::size_t i = 0; i < std::size(expected); i++) {
        EXPECT_EQ(engine_.pStringGlyphs[i].code, expected[i].code);
        EXPECT_EQ(rows_of(engine_.pStringGlyphs[i]), expected[i].rows);
    }
    EXPECT_EQ(engine_.pStringGlyphs[3].code, 0xC3U);
    EXPECT_EQ(engine_.pStringGlyphs[4].code, 0xA9U);
    font_free_string_glyphs(&engine_);
}

TEST_F(FontEngine, string_leaves_the_length_that_the_composition_has_stored)
{
    init();
    engine_.stringLength = 77;
    ASSERT_EQ(font_get_string_glyphs(&engine_, "12"), 0);
    EXPECT_EQ(engine_.stringLength, 77U);
    engine_.stringLength = 2;
    font_free_string_glyphs(&engine_);
}

TEST_F(FontEngine, empty_string_has_an_array_too)
{
    init();
    wraps::reset();
    ASSERT_EQ(get_string(""), 0);
    EXPECT_EQ(wraps::calls(wraps::CALLOC), 1);
    font_free_string_glyphs(&engine_);
}

TEST_F(FontEngine, string_without_memory_fails)
{
    init();
    for (const char *text : {"1A", ""}) {
        wraps::fail(wraps::CALLOC, 1, ENOMEM);
        EXPECT_EQ(support::errors_of([&] { EXPECT_EQ(get_string(text), -14); }),
                  report("", "calloc failed", "font_get_string_glyphs"));
    }
}

TEST_F(FontEngine, string_that_fails_halfway_releases_its_own_glyphs_but_the_failed_one)
{
    init();
    const font_engine before = engine_;
    const std::set<FT_Glyph> known = living;
    for (const Step &step : STEPS) {
        SCOPED_TRACE(step.message);
        const int released = wraps::calls(wraps::FT_DONE_GLYPH);
        const int indices = wraps::calls(wraps::FT_GET_CHAR_INDEX);
        wraps::fail(step.function, 3, SOME_ERROR);
        EXPECT_EQ(support::errors_of([&] { EXPECT_EQ(get_string("A1/aA2"), -14); }),
                  report("", step.message, "font_get_glyph") +
                      report("", "set glyph failed", "font_get_string_glyphs"));
        EXPECT_EQ(wraps::calls(wraps::FT_DONE_GLYPH) - released, 2);
        EXPECT_EQ(wraps::calls(wraps::FT_GET_CHAR_INDEX) - indices, 3);
        EXPECT_EQ(release_strays(known), step.strays);
        EXPECT_EQ(living, known);

        ASSERT_EQ(get_string("A1"), 0);
        font_free_string_glyphs(&engine_);
    }
    EXPECT_EQ(engine_.library, before.library);
    EXPECT_EQ(engine_.pGlyphs, before.pGlyphs);
    EXPECT_EQ(engine_.numGlyphs, 12U);
}

} // namespace
