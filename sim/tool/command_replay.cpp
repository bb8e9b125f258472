// qm5sim replay: writes what a post showed after a recorded call as a PNG file.
#include "commands.h"

#include "call_reader.h"
#include "sim_reader.h"

#include <filesystem>
#include <memory>
#include <string>

namespace commands
{

namespace
{

struct ReplayArguments {
    std::uint64_t call = 0;
    std::string png;
    unsigned post = 0;
    std::string file;
};

void replay(const Context &context, const ReplayArguments &arguments)
{
    const std::filesystem::path record =
        arguments.file.empty() ? context.folder / "calls" : std::filesystem::path(arguments.file);
    const sim_reader::Post post = call_reader::rebuild_post(record, arguments.call, arguments.post);
    const sim_reader::Palette palette = sim_reader::read_palette(context.folder);
    sim_reader::write_png(sim_reader::compose(post, palette), arguments.png);
}

} // namespace

void add_replay(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<ReplayArguments>();
    CLI::App *command = app.add_subcommand(
        "replay", "Write what a post showed after a recorded call as a PNG file.");
    command->footer("Example: qm5sim replay 120 then.png --post 0");
    add_call_number(command, "call", arguments->call,
                    "number of the call, as `qm5sim calls` tells it")
        ->required();
    command->add_option("png", arguments->png, "PNG file to write")->required();
    command->add_option("--post", arguments->post, "number of the post")
        ->required()
        ->check(CLI::Range(0u, SIM_POSTS - 1));
    command
        ->add_option("--file", arguments->file,
                     "record to read, with FILE.data, instead of the state folder's")
        ->type_name("FILE");
    command->callback([&context, arguments] {
        context.action = [&context, arguments] { replay(context, *arguments); };
    });
}

} // namespace commands
