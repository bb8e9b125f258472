// The text of a parameter file that holds all 164 parameters.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace parameters
{

typedef std::map<std::string, std::string> Changes;

// Appends a line; a change replaces the default and is used up.
inline void add_line(std::string &text, Changes &changes, const std::string &key,
                     const std::string &value)
{
    const auto change = changes.find(key);
    text += key + '=' + (change == changes.end() ? value : change->second) + '\n';
    changes.erase(key);
}

// The section as it is written: every key in its order, with its default but for the changes.
inline std::string full_text(Changes changes)
{
    constexpr const char *common[][2] = {{"FontFile", ""},
                                         {"DateFgColor", "3"},
                                         {"DateBgColor", "0"},
                                         {"TimeFgColor", "3"},
                                         {"TimeBgColor", "0"},
                                         {"TypeFgColor", "3"},
                                         {"TypeBgColor", "0"},
                                         {"StringBgColor", "0"},
                                         {"TVOutSafeSpaceUp", "0"},
                                         {"TVOutSafeSpaceDown", "0"},
                                         {"TVOutSafeSpaceLeft", "0"},
                                         {"TVOutSafeSpaceRight", "0"}};
    constexpr const char *texts[][2] = {{"DateOn", "0"},   {"TimeOn", "0"}, {"TypeOn", "0"},
                                        {"StringOn", "0"}, {"String", ""},  {"StringColor", "3"}};
    constexpr const char *rectangle[][2] = {{"ColorFg", "3"}, {"ColorBg", "1"}, {"X", "0"},
                                            {"Y", "0"},       {"W", "0"},       {"H", "0"}};
    constexpr const char *color_types[] = {"2", "1", "0", "0"};

    std::string text = "[osd]\n";
    for (const auto &[key, value] : common)
        add_line(text, changes, std::string("Osd") + key, value);
    for (int x = 0; x < 4; x++) {
        for (const auto &[key, value] : texts)
            add_line(text, changes, "Post" + std::to_string(x) + key, value);
    }
    for (int x = 0; x < 4; x++) {
        for (int y = 0; y < 4; y++) {
            const std::string post = "Post" + std::to_string(x);
            const std::string osd = post + "Osd" + std::to_string(y);
            add_line(text, changes, post + "Rectangle" + std::to_string(y) + "On", "0");
            add_line(text, changes, osd + "ColorType", color_types[y]);
            for (const auto &[key, value] : rectangle)
                add_line(text, changes, osd + key, value);
        }
    }
    EXPECT_TRUE(changes.empty()) << "no such key: " << changes.begin()->first;
    return text;
}

} // namespace parameters
