#include "families.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <stdexcept>

namespace reference
{

namespace
{

struct Description {
    const char *pattern;
    const char *text;
};

constexpr Description DESCRIPTIONS[] = {
    {"OsdFontFile", "Font file of all texts. The common parameter file must name it."},
    {"OsdDateFgColor", "Colour of the dates."},
    {"OsdDateBgColor", "Background of the dates."},
    {"OsdTimeFgColor", "Colour of the times."},
    {"OsdTimeBgColor", "Background of the times."},
    {"OsdTypeFgColor", "Colour of the labels."},
    {"OsdTypeBgColor", "Background of the labels."},
    {"OsdStringBgColor", "Background of the user strings."},
    {"OsdTVOutSafeSpaceUp", "Upper margin of the TV output, in pixels."},
    {"OsdTVOutSafeSpaceDown", "Lower margin of the TV output, in pixels."},
    {"OsdTVOutSafeSpaceLeft", "Left margin of the TV output, in pixels."},
    {"OsdTVOutSafeSpaceRight", "Right margin of the TV output, in pixels."},
    {"PostXDateOn", "1 shows the date of post X, at the top right."},
    {"PostXTimeOn", "1 shows the time of post X, at the bottom right."},
    {"PostXTypeOn", "1 shows the label of post X, at the bottom left."},
    {"PostXStringOn", "1 shows the user string of post X, at the top left."},
    {"PostXString", "User string of post X. Each byte is one character, as in ISO 8859-1."},
    {"PostXStringColor", "Colour of the user string of post X."},
    {"PostXRectangleYOn", "1 and 2 show rectangle Y of post X, if the text of its slot is off."},
    {"PostXOsdYColorType",
     "Colour type of rectangle Y of post X: 0 for 4 colours, 1 for 16, 2 for 256."},
    {"PostXOsdYColorFg", "Colour of rectangle Y of post X, cut to its colour type."},
    {"PostXOsdYColorBg", "Background of rectangle Y of post X. It has no effect and isn't saved."},
    {"PostXOsdYX", "Left edge of rectangle Y of post X, in pixels. The low 16 bits count."},
    {"PostXOsdYY", "Upper edge of rectangle Y of post X, in pixels. The low 16 bits count."},
    {"PostXOsdYW", "Width of rectangle Y of post X, in pixels. The low 16 bits count."},
    {"PostXOsdYH", "Height of rectangle Y of post X, in pixels. The low 16 bits count."},
};

std::string replaced(std::string text, const std::string &from, const std::string &to)
{
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// The digits of a key are the numbers of its post and of its rectangle.
std::string digits_of(const std::string &key)
{
    std::string digits;
    std::copy_if(key.begin(), key.end(), std::back_inserter(digits), is_digit);
    return digits;
}

std::string pattern_of(std::string key)
{
    for (const char letter : {'X', 'Y'}) {
        const auto digit = std::find_if(key.begin(), key.end(), is_digit);
        if (digit != key.end())
            *digit = letter;
    }
    return key;
}

std::string describe_pattern(const std::string &pattern)
{
    for (const Description &row : DESCRIPTIONS) {
        if (row.pattern == pattern)
            return row.text;
    }
    throw std::runtime_error(pattern + ": it has no description");
}

void add_member(std::vector<Family> &families, const Parameter &parameter)
{
    const std::string pattern = pattern_of(parameter.key);
    auto family = std::find_if(families.begin(), families.end(),
                               [&](const Family &own) { return own.pattern == pattern; });
    if (family == families.end())
        family = families.insert(family, {pattern, describe_pattern(pattern), {}});
    family->members.push_back(parameter);

    const osd_value_range &first = family->members.front().range;
    if (parameter.range.kind != first.kind || parameter.range.limit != first.limit)
        throw std::runtime_error(parameter.key + ": its range is not that of " + pattern);
}

} // namespace

std::vector<Parameter> read_parameters()
{
    std::vector<Parameter> parameters;
    for (std::size_t row = 0; row < OSD_PARAMS; row++)
        parameters.push_back({osd_option_table[row].name, osd_option_table[row].val,
                              osd_default_values[row], osd_value_ranges[row]});
    return parameters;
}

std::vector<Family> read_families()
{
    std::vector<Family> families;
    for (const Parameter &parameter : read_parameters())
        add_member(families, parameter);
    if (families.size() != std::size(DESCRIPTIONS))
        throw std::runtime_error("a description has no parameter");
    return families;
}

std::string describe(const Family &family, const Parameter &parameter)
{
    const std::string digits = digits_of(parameter.key);
    std::string text = family.description;
    if (!digits.empty())
        text = replaced(text, "post X", std::string("post ") + digits[0]);
    if (digits.size() > 1)
        text = replaced(text, "rectangle Y", std::string("rectangle ") + digits[1]);
    return text;
}

std::string describe_values(const osd_value_range &range)
{
    if (range.kind == OSD_VALUE_PATH)
        return "a path";
    if (range.kind == OSD_VALUE_STRING)
        return "up to " + std::to_string(range.limit) + " bytes";
    return (range.limit == 1 ? "0 or " : "0 to ") + std::to_string(range.limit);
}

std::string describe_default(const Parameter &parameter)
{
    if (!parameter.default_text.empty())
        return parameter.default_text;
    return parameter.range.kind == OSD_VALUE_PATH ? "none" : "empty";
}

std::string describe_defaults(const Family &family)
{
    std::vector<std::string> by_rectangle;
    for (const Parameter &parameter : family.members) {
        if (parameter.post == family.members.front().post)
            by_rectangle.push_back(describe_default(parameter));
    }
    if (std::set(by_rectangle.begin(), by_rectangle.end()).size() == 1)
        return by_rectangle.front();
    std::string text = by_rectangle.front();
    std::string numbers = "0";
    for (std::size_t y = 1; y < by_rectangle.size(); y++) {
        text += ", " + by_rectangle[y];
        numbers += ", " + std::to_string(y);
    }
    return text + " for Y = " + numbers;
}

std::string name_value(const osd_value_range &range)
{
    switch (range.kind) {
    case OSD_VALUE_PATH:
        return "PATH";
    case OSD_VALUE_STRING:
        return "TEXT";
    default:
        return "N";
    }
}

} // namespace reference
