#include "palette.h"

#include "file_io.h"
#include "state_reader.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <optional>

namespace sim_reader
{

namespace fs = std::filesystem;

// ---- The built-in palette -----------------------------------------------------------------------

namespace
{

Palette make_palette()
{
    Palette all{};
    constexpr std::array<Color, 16> first = {{
        {0, 0, 0, 0},         // clear
        {0, 0, 0, 160},       // shade
        {128, 128, 128, 255}, // grey
        {255, 255, 255, 255}, // white
        {224, 32, 32, 255},
        {32, 192, 64, 255},
        {48, 96, 240, 255},
        {240, 208, 32, 255},
        {32, 208, 208, 255},
        {208, 64, 208, 255},
        {240, 128, 32, 255},
        {128, 80, 40, 255},
        {144, 16, 16, 255},
        {16, 96, 32, 255},
        {16, 32, 128, 255},
        {0, 0, 0, 255},
    }};
    std::copy(first.begin(), first.end(), all.begin());
    for (unsigned i = 0; i < 216; i++) {
        const auto level = [](unsigned step) { return static_cast<std::uint8_t>(step * 51); };
        all[16 + i] = {level(i / 36), level(i / 6 % 6), level(i % 6), 255};
    }
    for (unsigned i = 0; i < 24; i++) {
        const auto grey = static_cast<std::uint8_t>(i * 255 / 23);
        all[232 + i] = {grey, grey, grey, 255};
    }
    return all;
}

} // namespace

const Palette &palette()
{
    static const Palette all = make_palette();
    return all;
}

// ---- The file -----------------------------------------------------------------------------------

namespace
{

// One line of the file: an index and its colour.
typedef std::array<std::uint8_t, 5> Entry;

constexpr const char *BLANKS = " \t\r";

// Cuts the first word off a text; empty if there is none.
std::string_view take_word(std::string_view &text)
{
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(BLANKS));
    text.remove_prefix(word.size());
    return word;
}

std::optional<Entry> parse_entry(std::string_view line)
{
    Entry entry{};
    for (std::uint8_t &number : entry) {
        const std::string_view word = take_word(line);
        const char *end = word.data() + word.size();
        const auto [stop, error] = std::from_chars(word.data(), end, number);
        if (error != std::errc{} || stop != end)
            return std::nullopt;
    }
    return take_word(line).empty() ? std::optional(entry) : std::nullopt;
}

fs::path palette_file(const fs::path &folder)
{
    return folder / "palette";
}

} // namespace

Palette parse_palette(const fs::path &file, std::string_view text)
{
    Palette all = palette();
    for (unsigned number = 1; !text.empty(); number++) {
        const std::string_view whole = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(whole.size() + 1, text.size()));
        const std::string_view line = whole.substr(0, whole.find(';'));
        if (line.find_first_not_of(BLANKS) == std::string_view::npos)
            continue;
        const std::optional<Entry> entry = parse_entry(line);
        if (!entry)
            fail(file, "line " + std::to_string(number) +
                           ": not INDEX RED GREEN BLUE ALPHA, of 0 to 255 each");
        const auto &[index, red, green, blue, alpha] = *entry;
        all[index] = {red, green, blue, alpha};
    }
    return all;
}

Palette read_palette(const fs::path &folder)
{
    const fs::path file = palette_file(folder);
    const std::optional<std::string> text = read_file_if_there(file);
    return text ? parse_palette(file, *text) : palette();
}

void load_palette(const fs::path &folder, const fs::path &file)
{
    const std::string text = read_file(file);
    parse_palette(file, text);
    store_palette(folder, text);
}

void store_palette(const fs::path &folder, std::string_view text)
{
    make_folder(folder);
    write_regular_file(palette_file(folder), text);
}

bool has_palette(const fs::path &folder)
{
    return fs::exists(palette_file(folder));
}

void remove_palette(const fs::path &folder)
{
    std::error_code error;
    fs::remove(palette_file(folder), error);
    if (error)
        fail(palette_file(folder), error.message());
}

std::string format_palette(const Palette &palette)
{
    std::string text = "; INDEX RED GREEN BLUE ALPHA\n";
    for (unsigned i = 0; i < palette.size(); i++) {
        const Color &color = palette[i];
        char line[32];
        std::snprintf(line, sizeof line, "%3u %3u %3u %3u %3u\n", i, unsigned{color.red},
                      unsigned{color.green}, unsigned{color.blue}, unsigned{color.alpha});
        text += line;
    }
    return text;
}

} // namespace sim_reader
