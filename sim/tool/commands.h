// The commands of qm5sim. Each has a file of its own, which adds it to the command line. To read a
// command's words and to do what they ask for are two steps, so that a scenario can be checked as a
// whole before any of it is done.
#pragma once

#include <CLI/CLI.hpp>

#include <filesystem>
#include <functional>

namespace commands
{

// What all commands share.
struct Context {
    std::filesystem::path folder;   // state folder of the simulated codec
    std::function<void()> action{}; // what the words that were read ask for
};

// A command's callback refuses words that make no sense by CLI::ParseError (exit status 2), does
// nothing else, and leaves in the context what is to be done. That action may run long after the
// command line has gone; it fails by any other std::exception (1), also for what a file says. The
// text of either is "what: why". One that has said all there is to say throws CLI::RuntimeError
// with its exit status.
void add_calls(CLI::App &app, Context &context);
void add_clock(CLI::App &app, Context &context);
void add_diff(CLI::App &app, Context &context);
void add_fault(CLI::App &app, Context &context);
void add_palette(CLI::App &app, Context &context);
void add_post(CLI::App &app, Context &context);
void add_replay(CLI::App &app, Context &context);
void add_setting(CLI::App &app, Context &context);
void add_snapshot(CLI::App &app, Context &context);
void add_state(CLI::App &app, Context &context);

// `add_others` adds the commands that a scenario may use.
void add_play(CLI::App &app, Context &context, void (*add_others)(CLI::App &, Context &));

// For a process that does nothing else; not for scenarios.
void add_serve(CLI::App &app, Context &context);

// Adds the number of a post as a command's next word.
void add_post_number(CLI::App *command, unsigned &post);

// Adds the number of a recorded call, 1 or more, under this name.
CLI::Option *add_call_number(CLI::App *command, const std::string &name, std::uint64_t &call,
                             const std::string &what);

} // namespace commands
