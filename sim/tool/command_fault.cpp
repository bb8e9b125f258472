// qm5sim fault: lists what is to go wrong with the simulated codec's calls, and changes it.
#include "commands.h"

#include "control_files.h"
#include "fault_list.h"
#include "file_io.h"

#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace commands
{

namespace
{

namespace fs = std::filesystem;

constexpr const char *WORDS =
    "OPERATION  library_init, open_device, notify_callback, set_notify, thread_get_status,\n"
    "           open_osd, close_osd, clear_osd, get_osd_mem, set_osd, close_device,\n"
    "           library_exit; or notify, a call of the application's callback\n"
    "WHEN       next; 3, the third call from now on; every; 25%, so many of them,\n"
    "           in whole per cent\n"
    "EFFECT     fail CODE     with gone1, gone2, gone3, refused, or a number as 0x81E00042\n"
    "           delay MS      before the call does anything, and while the fault is in force\n"
    "           size BYTES    get_osd_mem: a size that is so many bytes off\n"
    "           line BYTES    open_osd: a line length that is so many bytes off\n"
    "           vanish        the post thread goes before the call, vanish-after: after its work\n"
    "           change P SIZE post P gets a size, as 640x480, or is closed, before the call;\n"
    "                         change-after P SIZE: after its work\n"
    "           double        notify: the callback is called twice\n"
    "           late MS       notify: the callback is called so much later, or when the fault is "
    "no\n"
    "                         longer in force\n"
    "post N     for this post's calls alone\n"
    "There are 32 faults at most, with those that don't happen again.\n";
static_assert(SIM_FAULTS == 32);

// ---- List ---------------------------------------------------------------------------------------

void list_faults(const Context &context)
{
    const fault_list::List list =
        fault_list::read(context.folder, control_files::read_state(context.folder));
    for (const fault_list::Entry &fault : list.faults) {
        std::cout << fault.line << ": met " << fault.met << ", happened " << fault.happened
                  << (list.on ? "\n" : ", switched off\n");
    }
}

// ---- Change -------------------------------------------------------------------------------------

// The words of a new fault.
struct FaultWords {
    std::string operation;
    std::string when;
    std::string effect;
    std::vector<std::string> more;
};

std::string read_words(const FaultWords &words)
{
    std::string line = words.operation + ' ' + words.when + ' ' + words.effect;
    for (const std::string &word : words.more)
        line += ' ' + word;
    line = control_files::join_words(line);
    if (const char *why = fault_list::refusal_of(line))
        throw CLI::ValidationError(line, why);
    return line;
}

void add_line(const Context &context, const std::string &words)
{
    std::cout << fault_list::add(context.folder, words) << '\n';
    fault_list::wait_until_in_force(context.folder);
}

void remove_fault(const Context &context, std::uint32_t id)
{
    if (!fault_list::remove(context.folder, id))
        throw std::runtime_error("fault " + std::to_string(id) + ": there is none");
    fault_list::wait_until_in_force(context.folder);
}

void clear_faults(const Context &context)
{
    fault_list::clear(context.folder);
    fault_list::wait_until_in_force(context.folder);
}

void load_faults(const Context &context, const fs::path &file)
{
    if (!sim_reader::is_there(file))
        throw std::runtime_error(file.string() + ": there is no such file");
    const std::string text = sim_reader::read_file(file);
    control_files::parse_faults(file, text, control_files::LONGEST_LIST);
    control_files::change_faults(
        context.folder, [&text](const std::string &) { return control_files::mark_loaded(text); });
    fault_list::wait_until_in_force(context.folder);
}

void switch_faults(const Context &context, const char *setting)
{
    control_files::change_settings(context.folder, [setting](const std::string &text) {
        return control_files::replace_setting(text, setting);
    });
    fault_list::wait_until_in_force(context.folder);
}

// ---- Command line -------------------------------------------------------------------------------

void add_adding(CLI::App *fault, Context &context)
{
    const auto words = std::make_shared<FaultWords>();
    CLI::App *command = fault->add_subcommand("add", "Add a fault and print its ID.");
    command->footer(std::string(WORDS) +
                    "Examples: qm5sim fault add open_osd next fail refused\n"
                    "          qm5sim fault add get_osd_mem 2 size -16 post 1");
    command->add_option("OPERATION", words->operation, "which calls")->required();
    command->add_option("WHEN", words->when, "which of these calls")->required();
    command->add_option("EFFECT", words->effect, "what happens")->required();
    command->add_option("MORE", words->more, "VALUE of the effect, post N");
    command->callback([&context, words] {
        context.action = [&context, line = read_words(*words)] { add_line(context, line); };
    });
}

void add_removing(CLI::App *fault, Context &context)
{
    const auto id = std::make_shared<std::uint32_t>();
    CLI::App *command = fault->add_subcommand("remove", "Remove a fault.");
    command->footer("Example: qm5sim fault remove 1");
    command->add_option("ID", *id, "of the fault, as listed")->required();
    command->callback(
        [&context, id] { context.action = [&context, id] { remove_fault(context, *id); }; });
}

void add_clearing(CLI::App *fault, Context &context)
{
    CLI::App *command = fault->add_subcommand("clear", "Remove all faults.");
    command->footer("Example: qm5sim fault clear");
    command->callback([&context] { context.action = [&context] { clear_faults(context); }; });
}

void add_switching(CLI::App *fault, Context &context)
{
    CLI::App *off = fault->add_subcommand("off", "Let none of the faults happen, nor count.");
    off->footer("Example: qm5sim fault off");
    off->callback(
        [&context] { context.action = [&context] { switch_faults(context, "faults 0"); }; });
    CLI::App *on = fault->add_subcommand("on", "Let the faults happen again.");
    on->footer("Example: qm5sim fault on");
    on->callback(
        [&context] { context.action = [&context] { switch_faults(context, "faults 1"); }; });
}

void add_loading(CLI::App *fault, Context &context)
{
    const auto file = std::make_shared<fs::path>();
    CLI::App *command = fault->add_subcommand("load", "Put the faults of a file in their place.");
    command->footer("Each line of the file is ID OPERATION WHEN EFFECT [VALUE] [post N], or a\n"
                    "comment behind a semicolon. Each begins to count its calls, also if it was\n"
                    "there already.\n"
                    "Example: qm5sim fault load wear.faults");
    command->add_option("FILE", *file, "the faults")->required();
    command->callback(
        [&context, file] { context.action = [&context, file] { load_faults(context, *file); }; });
}

} // namespace

void add_fault(CLI::App &app, Context &context)
{
    CLI::App *command = app.add_subcommand(
        "fault", "List what is to go wrong with the codec's calls, or change it.");
    command->footer(
        std::string(WORDS) +
        "A fault is listed with its ID, how often it was met and how often it happened.\n"
        "A change is in force when the command returns.\n"
        "Examples: qm5sim fault\n"
        "          qm5sim fault add set_osd every vanish-after post 2\n"
        "          qm5sim fault clear");
    command->require_subcommand(0, 1);
    add_adding(command, context);
    add_removing(command, context);
    add_clearing(command, context);
    add_switching(command, context);
    add_loading(command, context);
    command->callback([&context, command] {
        if (command->get_subcommands().empty())
            context.action = [&context] { list_faults(context); };
    });
}

} // namespace commands
