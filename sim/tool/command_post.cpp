// qm5sim post: opens, resizes and closes post threads.
#include "commands.h"

#include "sim_reader.h"

#include <memory>
#include <string>

namespace commands
{

namespace
{

struct Arguments {
    unsigned post = 0;
    std::string size;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
};

void read_size(Arguments &arguments)
{
    if (!sim_parse_size(arguments.size.c_str(), &arguments.width, &arguments.height))
        throw CLI::ValidationError(arguments.size, "neither WIDTHxHEIGHT nor closed");
}

void change_post(const Context &context, const Arguments &arguments)
{
    sim_reader::write_size(context.folder, arguments.post, arguments.width, arguments.height);
}

} // namespace

void add_post_number(CLI::App *command, unsigned &post)
{
    command->add_option("post", post, "number of the post")
        ->required()
        ->check(CLI::Range(0u, SIM_POSTS - 1));
}

void add_post(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App *command = app.add_subcommand("post", "Open, resize or close a post thread.");
    command->footer("Examples: qm5sim post 1 640x360\n          qm5sim post 1 closed");
    add_post_number(command, arguments->post);
    command->add_option("size", arguments->size, "WIDTHxHEIGHT of the video, or closed")
        ->required();
    command->callback([&context, arguments] {
        read_size(*arguments);
        context.action = [&context, arguments] { change_post(context, *arguments); };
    });
}

} // namespace commands
