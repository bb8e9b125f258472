// qm5sim play: does what a scenario says, line by line at its times.
#include "commands.h"

#include "misuse.h"
#include "program.h"
#include "scenario.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace commands
{

namespace
{

constexpr const char *PLAY_FOOTER =
    "A line of FILE is a time in seconds since the beginning, and then a command of qm5sim with "
    "its\n"
    "words, or `run` or `try` with a program and its arguments. Double quotes keep the blanks of "
    "a\n"
    "word, and a semicolon in front of a word begins a comment. A line whose time has passed, for\n"
    "the one before took longer, is done at once. For instance:\n"
    "\n"
    "    0    clock EAST-9\n"
    "    0    run qm5osd start --Post0TimeOn=1 --Post0StringOn=1 \"--Post0String=Gate 2\"\n"
    "    5.5  post 0 resize 1280x720          ; the TV output changes its size\n"
    "    10   snapshot 0 tvout.png\n"
    "    11   run qm5osd stop\n"
    "\n"
    "A program finds nothing on its standard input. If `run` was its word, it fails the play by "
    "any\n"
    "exit status but 0; that of a program behind `try` doesn't matter. A signal that ends the "
    "play\n"
    "also ends the program that is under way.\n"
    "\n"
    "Example: qm5sim play --speed 10 day.txt";

// Longer than anybody waits, and short enough for any clock.
constexpr double FOR_EVER = 1e9;

typedef std::function<void()> Action;
typedef std::vector<std::string> Words;
typedef void (*AddCommands)(CLI::App &, Context &);

struct PlayArguments {
    std::string file;
    std::string speed_text = "1";
    double speed = 1;
    bool dry_run = false;
};

struct Step {
    std::string place;
    double seconds = 0;
    Action action;
};

// ---- Checking -----------------------------------------------------------------------------------

Action read_program(const Words &words)
{
    const Words program(words.begin() + 1, words.end());
    if (program.empty() || program.front().empty())
        throw CLI::ValidationError(words.front(), "no program");
    const bool may_fail = words.front() == "try";
    return [program, may_fail] {
        const int status = program::run(program);
        if (status != 0 && !may_fail)
            throw std::runtime_error(program.front() + ": " + program::describe(status));
    };
}

// Reads the words as those behind `qm5sim` are read.
Action read_command(const Words &words, Context &context, AddCommands add_commands)
{
    CLI::App app;
    app.set_help_flag(); // none
    app.require_subcommand(1);
    add_commands(app, context);
    const auto is_meant = [&words](const CLI::App *command) {
        return command->check_name(words.front());
    };
    if (app.get_subcommands(is_meant).empty())
        throw CLI::ValidationError(scenario::excerpt(words.front()), "no command");
    parse(app, words);
    return std::exchange(context.action, nullptr);
}

Action read_words(const Words &words, Context &context, AddCommands add_commands)
{
    if (words.front() == "run" || words.front() == "try")
        return read_program(words);
    if (words.front() == "play" || words.front() == "serve")
        throw CLI::ValidationError(words.front(), "not within a scenario");
    return read_command(words, context, add_commands);
}

std::vector<Step> read_steps(const std::string &file, Context &context, AddCommands add_commands)
{
    std::vector<Step> steps;
    scenario::read(file, [&](const scenario::Line &line) {
        steps.push_back({line.place, line.seconds, read_words(line.words, context, add_commands)});
    });
    return steps;
}

void read_speed(PlayArguments &arguments)
{
    arguments.speed = scenario::read_decimal(arguments.speed_text).value_or(0);
    if (arguments.speed <= 0)
        throw CLI::ValidationError(arguments.speed_text, "no decimal number above 0");
}

// ---- Playing ------------------------------------------------------------------------------------

void do_step(const Step &step)
{
    try {
        step.action();
        std::cout.flush();                // for the next program may write there too
    } catch (const CLI::RuntimeError &) { // it has said all there is to say
        throw;
    } catch (const std::exception &error) {
        throw std::runtime_error(step.place + ": " + error.what());
    }
}

void play_steps(const std::vector<Step> &steps, double speed)
{
    const auto beginning = std::chrono::steady_clock::now();
    for (const Step &step : steps) {
        const std::chrono::duration<double> due(std::min(step.seconds / speed, FOR_EVER));
        std::this_thread::sleep_until(
            beginning + std::chrono::duration_cast<std::chrono::steady_clock::duration>(due));
        do_step(step);
    }
}

void play(const Context &context, const PlayArguments &arguments, AddCommands add_commands)
{
    Context own{context.folder}; // of the scenario's commands
    const std::vector<Step> steps = read_steps(arguments.file, own, add_commands);
    if (arguments.dry_run)
        return;
    setenv("QM5SIM_STATE", own.folder.c_str(), 1); // programs work on the same codec
    play_steps(steps, arguments.speed);
}

} // namespace

void add_play(CLI::App &app, Context &context, AddCommands add_others)
{
    const auto arguments = std::make_shared<PlayArguments>();
    CLI::App *command = app.add_subcommand("play", "Do what a scenario says, at its times.");
    command->footer(PLAY_FOOTER);
    command->add_option("file", arguments->file, "scenario to play")->required();
    command->add_option("--speed", arguments->speed_text, "number to divide all times by")
        ->type_name("NUMBER");
    command->add_flag("--dry-run", arguments->dry_run, "only check the scenario");
    command->callback([&context, arguments, add_others] {
        read_speed(*arguments);
        context.action = [&context, arguments, add_others] {
            play(context, *arguments, add_others);
        };
    });
}

} // namespace commands
