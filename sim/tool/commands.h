// The commands of qm5sim. Each has a file of its own, which adds it to the command line; a command
// runs as soon as its words are read.
#pragma once

#include <CLI/CLI.hpp>

#include <filesystem>

namespace commands
{

// What all commands share.
struct Context {
    std::filesystem::path folder; // state folder of the simulated codec
};

// A command fails by throwing: CLI::ParseError for words that make no sense (exit status 2), any
// other std::exception for what can't be done (1). The text of either is "what: why".
void add_post(CLI::App &app, const Context &context);
void add_snapshot(CLI::App &app, const Context &context);

// Adds the number of a post as a command's next word.
void add_post_number(CLI::App *command, unsigned &post);

} // namespace commands
