// The catalogue's parameters for those who read about them: put together by the pattern of their
// keys, with a description of each pattern. Everything but the descriptions is the program's own.
#pragma once

#include "cli/catalogue.h"

#include <string>
#include <vector>

namespace reference
{

struct Parameter {
    std::string key;
    int post; // its number, or OSD_NO_POST for a key that only files can set
    std::string default_text;
    osd_value_range range;
};

struct Family {
    std::string pattern; // the key with X for the post's digit and Y for the rectangle's
    std::string description;
    std::vector<Parameter> members; // in the catalogue's order, all of one range
};

// All 164 parameters in the catalogue's order, which is that of the files.
std::vector<Parameter> read_parameters();

// The same by their patterns. Throws std::runtime_error for a pattern that has no description, a
// description that has no pattern, and a family whose ranges differ.
std::vector<Family> read_families();

// Of one parameter: the description with its own digits, and its values in words.
std::string describe(const Family &family, const Parameter &parameter);
std::string describe_values(const osd_value_range &range);

// The default of a text that may be none, in words.
std::string describe_default(const Parameter &parameter);

// The defaults of a family in words: one for all, or one for each Y.
std::string describe_defaults(const Family &family);

// A name for the value, as it stands behind the key in a synopsis.
std::string name_value(const osd_value_range &range);

} // namespace reference
