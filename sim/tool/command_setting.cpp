// qm5sim setting: shows and changes how the simulated codec behaves.
#include "commands.h"

#include "control_files.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace commands
{

namespace
{

void print_settings(const Context &context)
{
    const auto file = context.folder / "settings";
    const sim_settings settings = control_files::parse_settings(file, control_files::read(file));
    std::cout << "alignment";
    for (const std::uint32_t bytes : settings.alignment)
        std::cout << ' ' << bytes;
    std::cout << "\nstrict " << settings.strict << "\nfaults " << settings.faults << "\nrecord "
              << settings.record << "\nrecord-limit " << settings.record_limit << '\n';
}

std::string read_line(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words)
        line += word + ' ';
    line = control_files::join_words(line);
    sim_settings settings = SIM_DEFAULT_SETTINGS;
    if (const char *why = sim_parse_setting(line.c_str(), &settings))
        throw CLI::ValidationError(line, why);
    return line;
}

void change_setting(const Context &context, const std::string &line)
{
    control_files::change_settings(context.folder, [&line](const std::string &text) {
        return control_files::replace_setting(text, line);
    });
    control_files::wait_until_in_force(context.folder, "setting");
}

} // namespace

void add_setting(CLI::App &app, Context &context)
{
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *command =
        app.add_subcommand("setting", "Show the settings of the codec, or change one.");
    command->footer(
        "Settings, with their defaults:\n"
        "  alignment 16 16 16  bytes to which a line of an OSD is rounded, per colour type\n"
        "  strict 0            1: the first breach of the contract ends the process\n"
        "  faults 1            0: none of the faults happens\n"
        "  record 0            1: calls are recorded; from the next start of a server on\n"
        "  record-limit 256    MiB at which a record ends; from the next start on\n"
        "A change is in force when the command returns.\n"
        "Examples: qm5sim setting\n"
        "          qm5sim setting alignment 64 64 64");
    command->add_option("setting", *words, "NAME VALUE... of the setting to change");
    command->callback([&context, words] {
        if (words->empty())
            context.action = [&context] { print_settings(context); };
        else
            context.action = [&context, line = read_line(*words)] {
                change_setting(context, line);
            };
    });
}

} // namespace commands
