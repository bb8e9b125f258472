// Random glyphs on random targets, held against the rule for single pixels byte for byte.
#include "support/osd_test.h"
#include "support/pixel_rule.h"
#include "text/font.h"

#include <cstddef>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace
{

using support::GlyphBox;
using support::PlainEngine;
using support::PlainGlyph;
using support::report;
using support::rule_pixel_size;
using support::RuleCounts;
using support::RuleMemory;
using support::RuleTarget;

typedef std::vector<std::uint32_t> Words;

// The same numbers on every machine.
class Random
{
public:
    explicit Random(std::uint32_t seed) : bits_(seed)
    {
    }

    std::uint32_t any()
    {
        return static_cast<std::uint32_t>(bits_());
    }

    std::uint32_t below(std::uint32_t end)
    {
        return any() % end;
    }

    // Both ends included. A negative `first` wraps.
    std::uint32_t from_to(std::int32_t first, std::int32_t last)
    {
        return static_cast<std::uint32_t>(first) +
               below(static_cast<std::uint32_t>(last - first) + 1);
    }

    bool one_in(std::uint32_t count)
    {
        return below(count) == 0;
    }

private:
    std::mt19937 bits_;
};

// ---- Scenes -------------------------------------------------------------------------------------

enum Kind {
    NEAR,     // boxes around a small target
    EXTREME,  // the same with some of the numbers anywhere
    BACKWARD, // a width just below 2^32, so that each line begins to the left of the one before
    ROUND,    // a width that makes the bit numbers of each line begin anew
    ANYWHERE, // any width at all, and glyphs of one line
    TALL,     // a narrow target with lines of very high numbers
    KINDS
};

struct Cell {
    std::uint32_t xStart = 0;
    std::uint32_t yStart = 0;
    std::uint32_t rows = 0;
};

struct Scene {
    RuleTarget target;
    std::uint32_t maxAdvance = 0;
    std::int32_t descender = 0;
    std::vector<Cell> cells;
};

// Pixels after which the fields repeat: so many have bit numbers of 32 bits, and at 8 bits per
// pixel so many have pixel numbers.
std::uint32_t period(std::uint32_t mask)
{
    return mask == 3 ? 1U << 31 : mask == 15 ? 1U << 30 : 0;
}

// A column in which the pixel of a line gets a low number, give or take periods.
std::uint32_t column_of_low_number(Random &random, const RuleTarget &target, std::uint32_t y)
{
    return random.below(300) - y * target.width + random.below(4) * period(target.mask);
}

Scene near_scene(Random &random, std::uint32_t mask)
{
    Scene scene;
    scene.target = {random.from_to(1, 48), random.from_to(1, 12), mask};
    if (!random.one_in(4))
        scene.target.width = (scene.target.width + 3) / 4 * 4;
    scene.maxAdvance = random.from_to(0, 14);
    for (std::uint32_t i = random.below(5); i > 0; i--) {
        const auto pen = static_cast<std::uint32_t>(scene.cells.size()) * scene.maxAdvance;
        const auto height = static_cast<std::int32_t>(scene.target.height);
        scene.cells.push_back(
            {pen + random.from_to(-3, 9), random.from_to(-2, height), random.below(9)});
    }
    return scene;
}

Scene extreme_scene(Random &random, std::uint32_t mask)
{
    Scene scene = near_scene(random, mask);
    if (random.one_in(3))
        scene.maxAdvance = random.any();
    for (Cell &cell : scene.cells) {
        if (random.one_in(2))
            cell.xStart = (random.below(4) << 30) + random.from_to(-9, 9);
        if (random.one_in(2))
            cell.yStart = random.one_in(2) ? random.any() : 0x80000000 + random.from_to(-9, 9);
    }
    return scene;
}

Scene backward_scene(Random &random, std::uint32_t mask)
{
    Scene scene;
    scene.target = {0 - random.from_to(1, 40), random.from_to(1, 8), mask};
    scene.maxAdvance = random.from_to(0, 90);
    for (std::uint32_t i = random.from_to(1, 3); i > 0; i--)
        scene.cells.push_back({random.from_to(80, 400), random.below(8), random.from_to(1, 4)});
    return scene;
}

Scene round_scene(Random &random, std::uint32_t mask)
{
    const std::uint32_t step = mask == 255 ? 1U << 31 : period(mask);
    Scene scene;
    scene.target = {random.from_to(1, 3) * step + random.from_to(1, 40), random.from_to(1, 6),
                    mask};
    scene.maxAdvance = random.one_in(2) ? random.below(20) : random.any();
    for (std::uint32_t i = random.from_to(1, 3); i > 0; i--) {
        const std::uint32_t xStart = random.below(3) * step + random.below(40);
        scene.cells.push_back({xStart, random.below(4), random.from_to(1, 3)});
    }
    return scene;
}

Scene anywhere_scene(Random &random, std::uint32_t mask)
{
    Scene scene;
    scene.target = {random.any(), random.from_to(1, 100), mask};
    scene.maxAdvance = random.any();
    for (std::uint32_t i = random.from_to(1, 2); i > 0; i--) {
        const std::uint32_t y = random.below(scene.target.height);
        scene.cells.push_back({column_of_low_number(random, scene.target, y), y, 1});
    }
    return scene;
}

Scene tall_scene(Random &random, std::uint32_t mask)
{
    const std::uint32_t shift = random.below(6);
    const std::uint32_t lines = (mask == 3 ? 1U << 31 : 1U << 30) >> shift;
    Scene scene;
    scene.target = {1U << shift, random.any() | 0x80000000, mask};
    scene.maxAdvance = random.below(8);
    for (std::uint32_t i = random.from_to(1, 3); i > 0; i--) {
        const std::uint32_t yStart = random.below(4) * lines * (mask == 255 ? 4 : 1);
        scene.cells.push_back(
            {random.below(1U << shift), yStart + random.below(9), random.below(9)});
    }
    return scene;
}

constexpr Scene (*SCENES[KINDS])(Random &random, std::uint32_t mask) = {
    near_scene, extreme_scene, backward_scene, round_scene, anywhere_scene, tall_scene};

// A glyph for a cell. Its lines may be longer than they need, with any bits in what is too much.
PlainGlyph glyph_in(Random &random, const Scene &scene, const Cell &cell, std::uint32_t pen)
{
    GlyphBox box;
    box.left = static_cast<std::int32_t>(cell.xStart - pen);
    box.top = static_cast<std::int32_t>(scene.target.height +
                                        static_cast<std::uint32_t>(scene.descender) - cell.yStart);
    box.width = random.one_in(30) ? 0 : random.from_to(1, 26);
    box.rows = cell.rows;
    box.pitch = static_cast<std::int32_t>((box.width + 7) / 8 + random.below(4));
    std::vector<std::uint8_t> bits(picture_bytes(box));
    const std::uint32_t density = random.below(3);
    for (std::uint8_t &byte : bits) {
        const std::uint32_t any = random.any();
        byte = static_cast<std::uint8_t>(density == 0 ? any : density == 1 ? any & any >> 8 : 0xFF);
    }
    return {box, std::move(bits)};
}

std::vector<PlainGlyph> glyphs_of(Random &random, const Scene &scene)
{
    std::vector<PlainGlyph> glyphs;
    std::uint32_t pen = 0;
    for (const Cell &cell : scene.cells) {
        glyphs.push_back(glyph_in(random, scene, cell, pen));
        pen += scene.maxAdvance;
    }
    return glyphs;
}

// ---- Trials -------------------------------------------------------------------------------------

// How often each thing has happened in scenes that the rule keeps within the memory.
struct Tally {
    unsigned scenes = 0;
    unsigned drawn = 0;
    unsigned wrapped_numbers = 0;
    unsigned wrapped_bits = 0;
    unsigned clipped_below = 0;
    unsigned clipped_right = 0;
    unsigned dropped = 0;
    unsigned missed = 0;
    unsigned too_small = 0;
    unsigned bad_width = 0;
    std::string reports; // that all of them make

    void add(const RuleCounts &counts)
    {
        scenes++;
        drawn += counts.pixels != 0;
        wrapped_numbers += counts.wrapped_numbers != 0;
        wrapped_bits += counts.wrapped_bits != 0;
        clipped_below += counts.clipped_below != 0;
        clipped_right += counts.clipped_right != 0;
        dropped += counts.dropped != 0;
        missed += counts.missed != 0;
    }
};

struct Trial {
    Scene scene;
    std::uint32_t fg = 0;
    std::uint32_t bg = 0;
    Words memory; // before
    std::size_t first = 0;
};

Trial any_trial(Random &random)
{
    constexpr std::uint32_t masks[] = {3, 15, 255};
    Trial trial;
    trial.scene = SCENES[random.below(KINDS)](random, masks[random.below(3)]);
    trial.scene.descender =
        static_cast<std::int32_t>(random.one_in(8) ? random.any() : random.from_to(-9, 2));
    trial.fg = random.any();
    trial.bg = random.any();
    trial.first = random.from_to(1, 4);
    trial.memory.resize(trial.first + random.from_to(20, 180));
    for (std::uint32_t &word : trial.memory)
        word = random.any();
    return trial;
}

std::string description(const Trial &trial, const PlainEngine &engine)
{
    testing::Message text;
    text << "target " << trial.scene.target.width << " x " << trial.scene.target.height << ", mask "
         << trial.scene.target.mask << ", " << engine.text();
    return text.GetString();
}

// The glyphs alone, unless the rule leaves the memory.
void draws_as_the_rule(const Trial &trial, PlainEngine &engine, Tally &tally)
{
    const RuleTarget &target = trial.scene.target;
    RuleMemory rule(trial.memory, trial.first);
    const RuleCounts counts = rule_glyphs(rule, target, *engine.with_string(), trial.fg);
    if (rule.was_left())
        return;
    Words memory = trial.memory;
    EXPECT_EQ(font_draw_target(engine.with_string(), &memory[trial.first], target.width,
                               target.height, target.mask, trial.fg),
              0);
    EXPECT_EQ(memory, rule.words()) << description(trial, engine);
    tally.add(counts);
}

std::string bad_width_report(std::uint32_t width)
{
    return report("", "invalid targetWidth with 2BPP " + std::to_string(width) + "l",
                  "font_draw_string_background");
}

// Background and glyphs as the rule has them; the result, and the reports in the tally.
int rule_composition(const Trial &trial, PlainEngine &engine, RuleMemory &rule, Tally &tally)
{
    const RuleTarget &target = trial.scene.target;
    const std::uint32_t cells = engine.with_string()->stringLength * trial.scene.maxAdvance;
    if (target.width < cells) {
        tally.too_small++;
        tally.reports += report("", "target width is too small", "font_get_target_bitmap");
        return -14;
    }
    const bool fits = rule_background(rule, target, trial.bg, cells);
    const RuleCounts counts = rule_glyphs(rule, target, *engine.with_string(), trial.fg);
    if (rule.was_left())
        return 0;
    tally.add(counts);
    if (!fits) {
        tally.bad_width++;
        tally.reports += bad_width_report(target.width);
    }
    return 0;
}

// The whole composition, unless the rule leaves the memory.
void composes_as_the_rule(const Trial &trial, PlainEngine &engine, Tally &tally)
{
    const RuleTarget &target = trial.scene.target;
    RuleMemory rule(trial.memory, trial.first);
    const int result = rule_composition(trial, engine, rule, tally);
    if (rule.was_left())
        return;
    Words memory = trial.memory;
    const std::uint32_t size = target.width * target.height * rule_pixel_size(target.mask) / 8;
    EXPECT_EQ(font_get_target_bitmap(engine.get(), engine.text().c_str(), trial.fg, trial.bg,
                                     target.width, target.mask, size, &memory[trial.first]),
              result);
    EXPECT_EQ(memory, rule.words()) << description(trial, engine);
}

// As many trials as asked for, up to the first that fails.
Tally run_trials(std::uint32_t seed, unsigned count,
                 void (*hold)(const Trial &trial, PlainEngine &engine, Tally &tally))
{
    Random random(seed);
    Tally tally;
    for (unsigned i = 0; i < count && !testing::Test::HasFailure(); i++) {
        const Trial trial = any_trial(random);
        PlainEngine engine(trial.scene.target.height, trial.scene.descender,
                           static_cast<std::int32_t>(trial.scene.maxAdvance),
                           glyphs_of(random, trial.scene));
        hold(trial, engine, tally);
    }
    return tally;
}

class FontRandom : public support::OsdTest
{
};

TEST_F(FontRandom, glyphs_are_drawn_as_the_rule_says)
{
    Tally tally;
    EXPECT_EQ(support::errors_of([&] { tally = run_trials(1, 30000, draws_as_the_rule); }), "");
    EXPECT_GT(tally.scenes, 20000U);
    EXPECT_GT(tally.drawn, 10000U);
    EXPECT_GT(tally.wrapped_numbers, 6000U);
    EXPECT_GT(tally.wrapped_bits, 2000U);
    EXPECT_GT(tally.clipped_below, 3000U);
    EXPECT_GT(tally.clipped_right, 4000U);
    EXPECT_GT(tally.dropped, 7000U);
    EXPECT_GT(tally.missed, 5000U);
}

TEST_F(FontRandom, strings_are_composed_as_the_rule_says)
{
    Tally tally;
    const std::string reports =
        support::errors_of([&] { tally = run_trials(2, 30000, composes_as_the_rule); });
    EXPECT_EQ(reports, tally.reports);
    EXPECT_GT(tally.scenes, 8000U);
    EXPECT_GT(tally.drawn, 4000U);
    EXPECT_GT(tally.wrapped_numbers, 1800U);
    EXPECT_GT(tally.wrapped_bits, 400U);
    EXPECT_GT(tally.clipped_below, 1500U);
    EXPECT_GT(tally.clipped_right, 700U);
    EXPECT_GT(tally.dropped, 3000U);
    EXPECT_GT(tally.missed, 1200U);
    EXPECT_GT(tally.too_small, 7000U);
    EXPECT_GT(tally.bad_width, 3500U);
}

// A background of any width, often beyond its line. False if the rule leaves the memory.
bool fills_as_the_rule(const Trial &trial, std::uint32_t coloured, Tally &tally)
{
    const RuleTarget &target = trial.scene.target;
    RuleMemory rule(trial.memory, trial.first);
    const bool fits = rule_background(rule, target, trial.bg, coloured);
    if (rule.was_left())
        return false;
    if (!fits) {
        tally.bad_width++;
        tally.reports += bad_width_report(target.width);
    }
    Words memory = trial.memory;
    font_draw_string_background(&memory[trial.first], target.width, target.height, target.mask,
                                trial.bg, coloured);
    EXPECT_EQ(memory, rule.words())
        << target.width << " x " << target.height << ", mask " << target.mask << ", " << coloured;
    return fits;
}

TEST_F(FontRandom, backgrounds_are_filled_as_the_rule_says)
{
    Random random(3);
    Tally tally;
    unsigned inside = 0;
    unsigned beyond = 0;
    const std::string reports = support::errors_of([&] {
        for (int i = 0; i < 10000 && !HasFailure(); i++) {
            Trial trial = any_trial(random);
            const std::uint32_t width = random.below(80);
            const std::uint32_t coloured = random.below(random.one_in(2) ? width + 1 : 900);
            trial.scene.target.width = width;
            trial.scene.target.height = random.below(6);
            if (fills_as_the_rule(trial, coloured, tally))
                (coloured > width ? beyond : inside)++;
        }
    });
    EXPECT_EQ(reports, tally.reports);
    EXPECT_GT(inside, 2000U);
    EXPECT_GT(beyond, 1000U);
    EXPECT_GT(tally.bad_width, 2000U);
}

// Composes a text of an engine's font, and draws the same glyphs by the rule.
void expect_the_rule(Random &random, font_engine *engine, const std::string &text,
                     std::uint32_t mask)
{
    const auto length = static_cast<std::uint32_t>(text.size());
    const std::uint32_t cells = length * static_cast<std::uint32_t>(engine->maxAdvance);
    const RuleTarget target = {(cells + 3) / 4 * 4 + random.below(3) * 4, engine->size, mask};
    const std::uint32_t size = target.width * target.height * rule_pixel_size(mask) / 8;
    Words memory(size / 4 + 4);
    for (std::uint32_t &word : memory)
        word = random.any();

    RuleMemory rule(memory, 2);
    EXPECT_TRUE(rule_background(rule, target, 1, cells));
    engine->stringLength = length;
    ASSERT_EQ(font_get_string_glyphs(engine, text.c_str()), 0);
    EXPECT_GT(rule_glyphs(rule, target, *engine, 2).pixels, 50U);
    font_free_string_glyphs(engine);
    ASSERT_FALSE(rule.was_left());

    EXPECT_EQ(
        font_get_target_bitmap(engine, text.c_str(), 2, 1, target.width, mask, size, &memory[2]),
        0);
    EXPECT_EQ(memory, rule.words()) << text << " at " << engine->size << ", mask " << mask;
}

TEST_F(FontRandom, glyphs_of_an_outline_font_are_drawn_as_the_rule_says)
{
    Random random(4);
    for (const std::uint32_t size : {11U, 28U, 75U}) {
        font_engine engine;
        ASSERT_EQ(font_init_engine(&engine, support::real_font().c_str(), size), 0);
        for (const std::uint32_t mask : {3U, 15U, 255U}) {
            expect_the_rule(random, &engine, " 12:34:56 ", mask);
            expect_the_rule(random, &engine, "Wgj|/_\xC4\xE9@", mask);
        }
        font_clear_engine(&engine);
    }
}

} // namespace
