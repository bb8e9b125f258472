// The palette of the simulated codec: built in, or loaded into the state folder's file `palette`.
//
// The file holds lines of five decimal numbers of 0 to 255, INDEX RED GREEN BLUE ALPHA. What is
// behind a `;` is a comment, and lines may be empty. An index that no line names keeps its built-in
// colour; of two lines for one index the later counts.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace sim_reader
{

struct Color {
    std::uint8_t red, green, blue, alpha;

    bool operator==(const Color &) const = default;
};

typedef std::array<Color, 256> Palette;

// The built-in palette. Index 0 is clear; 0 to 3 and 0 to 15 serve the texts of 2 and 4 bits per
// pixel, the rest is a colour cube and greys.
const Palette &palette();

// The palette in force. Throws std::runtime_error, as load_palette and remove_palette do: a bad
// line is told as "FILE: line NUMBER: why".
Palette read_palette(const std::filesystem::path &folder);

// Puts a palette file into force, or changes nothing if it is bad.
void load_palette(const std::filesystem::path &folder, const std::filesystem::path &file);

// The colours that the text of a palette file says; `name` stands for FILE.
Palette parse_palette(const std::filesystem::path &name, std::string_view text);

// Puts a text that is known to be good into force.
void store_palette(const std::filesystem::path &folder, std::string_view text);

// Is it another than the built-in one?
bool has_palette(const std::filesystem::path &folder);

// Puts the built-in palette into force.
void remove_palette(const std::filesystem::path &folder);

// The text of a palette file that names every index.
std::string format_palette(const Palette &palette);

} // namespace sim_reader
