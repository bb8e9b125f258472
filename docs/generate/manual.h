// The parts of a manual that come from the catalogue.
#pragma once

#include <string>

namespace reference
{

// A manual in mdoc(7), with these lines of the template replaced:
//
//   @OPTIONS@   items of a tagged list, one for each pattern of a long option
//   @KEYS@      the same for every pattern of a key
//   @ROWS@      items of a list of three columns, one for each parameter
//
// Throws std::runtime_error for a template without any of them, and for another line of that form.
std::string fill_manual(const std::string &manual_template);

} // namespace reference
