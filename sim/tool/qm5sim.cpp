// qm5sim: looks into the simulated codec, and turns its screws.
#include "commands.h"

#include "misuse.h"
#include "sim_reader.h"

#include <iostream>
#include <stdexcept>

namespace
{

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_MISUSE = 2;

void add_commands(CLI::App &app, commands::Context &context)
{
    commands::add_calls(app, context);
    commands::add_clock(app, context);
    commands::add_diff(app, context);
    commands::add_fault(app, context);
    commands::add_palette(app, context);
    commands::add_post(app, context);
    commands::add_replay(app, context);
    commands::add_setting(app, context);
    commands::add_snapshot(app, context);
    commands::add_state(app, context);
}

} // namespace

int main(int argc, char **argv)
{
    commands::Context context{sim_reader::default_folder()};
    CLI::App app("Looks into the simulated codec, and turns its screws.", "qm5sim");
    app.footer("Each command has a --help of its own.\n"
               "Example: qm5sim snapshot 0 tvout.png");
    app.require_subcommand(1);
    app.add_option("--state", context.folder, "state folder of the simulated codec")
        ->envname("QM5SIM_STATE")
        ->type_name("FOLDER")
        ->capture_default_str();
    add_commands(app, context);
    commands::add_play(app, context, add_commands);
    commands::add_serve(app, context);
    try {
        commands::parse(app, {argv + 1, argv + argc});
        if (context.folder.empty())
            throw CLI::ValidationError("--state", "names no folder");
        sim_reader::require_trusted(context.folder);
        context.action();
        if (!std::cout.flush())
            throw std::runtime_error("standard output: it can't be written");
        return 0;
    } catch (const CLI::RuntimeError &error) {
        return error.get_exit_code();
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) // help was asked for
            return app.exit(error);
        std::cerr << "qm5sim: " << commands::describe(error) << '\n';
        return EXIT_MISUSE;
    } catch (const std::exception &error) {
        std::cerr << "qm5sim: " << error.what() << '\n';
        return EXIT_FAILED;
    }
}
