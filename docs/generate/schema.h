// The JSON Schema of a parameter section.
#pragma once

#include <string>

namespace reference
{

// A schema of draft 7 for an object with a member for each parameter that a section sets: an
// integer for a number; a text for the others, in which one character stands for one byte.
std::string make_schema();

} // namespace reference
