// qm5sim post: opens, resizes and closes post threads.
#include "commands.h"

#include "file_io.h"
#include "sim_reader.h"

#include <memory>
#include <string>

namespace commands
{

namespace
{

using sim_reader::Size;

struct PostArguments {
    unsigned post = 0;
    std::string text; // of the size
    Size size{};
};

void read_size(PostArguments &arguments)
{
    Size &size = arguments.size;
    if (!sim_parse_size(arguments.text.c_str(), &size.width, &size.height) || size.width == 0)
        throw CLI::ValidationError(arguments.text, "not WIDTHxHEIGHT");
}

[[noreturn]] void refuse(const PostArguments &arguments, const std::string &why)
{
    sim_reader::fail("post " + std::to_string(arguments.post), why);
}

void write_size(const Context &context, const PostArguments &arguments)
{
    sim_reader::write_size(context.folder, arguments.post, arguments.size.width,
                           arguments.size.height);
}

// ---- What the words ask for ---------------------------------------------------------------------

void open_post(const Context &context, const PostArguments &arguments)
{
    const std::optional<Size> before = sim_reader::read_size(context.folder, arguments.post);
    if (before && before->width != 0 && *before != arguments.size)
        refuse(arguments, "it is open with " + sim_reader::format_size(*before) +
                              ", and can be closed or resized");
    write_size(context, arguments);
}

void resize_post(const Context &context, const PostArguments &arguments)
{
    const std::optional<Size> before = sim_reader::read_size(context.folder, arguments.post);
    if (before && before->width == 0)
        refuse(arguments, "it is closed");
    write_size(context, arguments);
}

struct PostAction {
    const char *name;
    const char *what;
    const char *example;
    bool has_size;
    void (*act)(const Context &context, const PostArguments &arguments);
};

constexpr PostAction ACTIONS[] = {
    {"open", "Open a post thread.", "Example: qm5sim post 1 open 640x360", true, open_post},
    {"close", "Close a post thread, if it is open.", "Example: qm5sim post 1 close", false,
     write_size},
    {"resize", "End a post thread, and open another with another size.",
     "Example: qm5sim post 1 resize 640x360", true, resize_post},
};

void add_action(CLI::App &command, Context &context,
                const std::shared_ptr<PostArguments> &arguments, const PostAction &action)
{
    CLI::App *word = command.add_subcommand(action.name, action.what);
    word->footer(action.example);
    if (action.has_size)
        word->add_option("size", arguments->text, "of the video, in pixels")
            ->required()
            ->type_name("WIDTHxHEIGHT");
    word->callback([&context, arguments, &action] {
        if (action.has_size)
            read_size(*arguments);
        context.action = [&context, arguments, &action] { action.act(context, *arguments); };
    });
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
    const auto arguments = std::make_shared<PostArguments>();
    CLI::App *command = app.add_subcommand("post", "Open, resize or close a post thread.");
    command->footer("Examples: qm5sim post 1 open 640x360\n"
                    "          qm5sim post 1 resize 1280x720\n"
                    "          qm5sim post 1 close");
    command->require_subcommand(1);
    add_post_number(command, arguments->post);
    for (const PostAction &action : ACTIONS)
        add_action(*command, context, arguments, action);
}

} // namespace commands
