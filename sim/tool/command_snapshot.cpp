// qm5sim snapshot: writes what a post shows as a PNG file.
#include "commands.h"

#include "sim_reader.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace commands
{

namespace
{

struct Arguments {
    unsigned post = 0;
    std::string file;
};

void snapshot(const Context &context, const Arguments &arguments)
{
    const sim_reader::Post post = sim_reader::read_post(context.folder, arguments.post);
    if (post.res_id == 0)
        throw std::runtime_error("post " + std::to_string(arguments.post) +
                                 ": it has no post thread");
    sim_reader::write_png(sim_reader::compose(post), arguments.file);
}

} // namespace

void add_snapshot(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App *command = app.add_subcommand("snapshot", "Write what a post shows as a PNG file.");
    command->footer("Example: qm5sim snapshot 0 tvout.png");
    add_post_number(command, arguments->post);
    command->add_option("file", arguments->file, "PNG file to write")->required();
    command->callback([&context, arguments] {
        context.action = [&context, arguments] { snapshot(context, *arguments); };
    });
}

} // namespace commands
