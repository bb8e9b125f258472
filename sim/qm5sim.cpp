// qm5sim: pictures and post threads of the simulated codec.
#include "sim_reader.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <stdexcept>
#include <string>

namespace
{

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_MISUSE = 2;

struct Arguments {
    std::string folder;
    unsigned post = 0;
    std::string file;
    std::string size;
};

void snapshot(const Arguments &arguments)
{
    const sim_reader::Post post = sim_reader::read_post(arguments.folder, arguments.post);
    if (post.res_id == 0)
        throw std::runtime_error("post " + std::to_string(arguments.post) +
                                 ": it has no post thread");
    sim_reader::write_png(sim_reader::compose(post), arguments.file);
}

void change_post(const Arguments &arguments)
{
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    if (!sim_parse_size(arguments.size.c_str(), &width, &height))
        throw CLI::ValidationError(arguments.size, "neither WIDTHxHEIGHT nor closed");
    sim_reader::write_size(arguments.folder, arguments.post, width, height);
}

void add_post_number(CLI::App *command, Arguments &arguments)
{
    command->add_option("post", arguments.post, "number of the post")
        ->required()
        ->check(CLI::Range(0u, SIM_POSTS - 1));
}

void describe(CLI::App &app, Arguments &arguments)
{
    app.require_subcommand(1);
    app.add_option("--state", arguments.folder, "state folder of the simulated codec")
        ->envname("QM5SIM_STATE")
        ->capture_default_str();

    CLI::App *picture = app.add_subcommand("snapshot", "Write what a post shows as a PNG file.");
    picture->footer("Example: qm5sim snapshot 0 tvout.png");
    add_post_number(picture, arguments);
    picture->add_option("file", arguments.file, "PNG file to write")->required();
    picture->callback([&arguments] { snapshot(arguments); });

    CLI::App *post = app.add_subcommand("post", "Open, resize or close a post thread.");
    post->footer("Examples: qm5sim post 1 640x360\n          qm5sim post 1 closed");
    add_post_number(post, arguments);
    post->add_option("size", arguments.size, "WIDTHxHEIGHT of the video, or closed")->required();
    post->callback([&arguments] { change_post(arguments); });
}

} // namespace

int main(int argc, char **argv)
{
    Arguments arguments;
    arguments.folder = sim_reader::default_folder();
    CLI::App app("Pictures and post threads of the simulated codec.", "qm5sim");
    describe(app, arguments);
    try {
        app.parse(argc, argv);
        return 0;
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) // help was asked for
            return app.exit(error);
        std::cerr << "qm5sim: " << error.what() << '\n';
        return EXIT_MISUSE;
    } catch (const std::exception &error) {
        std::cerr << "qm5sim: " << error.what() << '\n';
        return EXIT_FAILED;
    }
}
