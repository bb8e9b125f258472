// qm5sim palette: prints, loads and resets the palette of the pictures.
#include "commands.h"

#include "file_io.h"
#include "sim_reader.h"

#include <memory>
#include <optional>
#include <string>

namespace commands
{

namespace
{

struct PaletteArguments {
    std::optional<std::string> file;
    bool built_in = false;
};

void change_or_print(const Context &context, const PaletteArguments &arguments)
{
    if (arguments.built_in)
        sim_reader::remove_palette(context.folder);
    else if (arguments.file)
        sim_reader::load_palette(context.folder, *arguments.file);
    else
        sim_reader::write_output(
            sim_reader::format_palette(sim_reader::read_palette(context.folder)));
}

constexpr const char *PALETTE_FOOTER =
    "A palette file has lines INDEX RED GREEN BLUE ALPHA, decimal numbers of 0 to 255; what is\n"
    "behind a ; is a comment. An index that isn't named keeps its built-in colour.\n"
    "\n"
    "Examples: qm5sim palette > colours\n"
    "          qm5sim palette --load colours\n"
    "          qm5sim palette --default";

} // namespace

void add_palette(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<PaletteArguments>();
    CLI::App *command =
        app.add_subcommand("palette", "Print the palette of the pictures, or change it.");
    command->footer(PALETTE_FOOTER);
    CLI::Option *load =
        command->add_option("--load", arguments->file, "put this palette file into force")
            ->type_name("FILE");
    command->add_flag("--default", arguments->built_in, "put the built-in palette into force")
        ->excludes(load);
    command->callback([&context, arguments] {
        context.action = [&context, arguments] { change_or_print(context, *arguments); };
    });
}

} // namespace commands
