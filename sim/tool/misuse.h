// What is said about words that make no sense.
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace commands
{

// The text of an error of the command line as "what: why", in which the commands' own errors are
// and CLI11's are not.
std::string describe(const CLI::ParseError &error);

// Reads the words of a command line. A word that isn't expected is refused as such, not by what is
// missing in its place.
void parse(CLI::App &app, const std::vector<std::string> &words);

} // namespace commands
