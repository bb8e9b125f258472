// What is said about words that make no sense.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace commands
{

// The text of an error of the command line as "what: why", in which the commands' own errors are
// and CLI11's are not.
std::string describe(const CLI::ParseError &error);

} // namespace commands
