// qm5sim serve: shows the simulated codec on a web page, and lets the page turn its screws.
#include "commands.h"

#include "addresses.h"
#include "file_io.h"
#include "live_server.h"
#include "parameters.h"

#include <memory>
#include <string>

namespace commands
{

namespace
{

constexpr const char *SERVE_FOOTER =
    "The page's address is printed when the server listens, and what other commands need to work\n"
    "on the same codec; SIGINT, SIGTERM or SIGHUP ends it.\n"
    "Other machines reach it only at an --address of its own, and then only with a token, which\n"
    "the page takes as http://ADDRESS:PORT/?token=TEXT: at least 16 characters of A-Z a-z 0-9\n"
    ". _ ~ -. Nothing is encrypted, and --token shows among this machine's processes, which\n"
    "--token-file doesn't.\n"
    "\n"
    "Examples: qm5sim serve\n"
    "          qm5sim serve --port 0 --qm5osd build/stage/osd/bin/qm5osd\n"
    "          qm5sim serve --address 0.0.0.0 --token-file token.txt";

struct ServeArguments {
    live::Options options;
    std::string token_file;
};

std::string read_token(const std::string &file)
{
    std::string text = sim_reader::read_file(file);
    text.erase(text.find_last_not_of("\r\n") + 1);
    return text;
}

std::string no_token()
{
    return "not " + std::to_string(live::SHORTEST_TOKEN) + " characters of A-Z a-z 0-9 . _ ~ -";
}

void check(const ServeArguments &arguments)
{
    const live::Options &options = arguments.options;
    if (!live::is_loopback(options.address) && !live::is_address(options.address))
        throw CLI::ValidationError("--address " + options.address, "no IP address");
    if (!live::is_loopback(options.address) && options.token.empty() &&
        arguments.token_file.empty())
        throw CLI::ValidationError("--address " + options.address,
                                   "others could reach it, so it needs --token or --token-file");
    if (!options.token.empty() && !live::is_access_token(options.token))
        throw CLI::ValidationError("--token", no_token());
}

void serve(const Context &context, const ServeArguments &arguments)
{
    live::Options options = arguments.options;
    options.folder = context.folder;
    if (!arguments.token_file.empty()) {
        options.token = read_token(arguments.token_file);
        if (!live::is_access_token(options.token))
            sim_reader::fail(arguments.token_file, no_token());
    }
    live::serve(options);
}

// What the server runs to check a parameter file; nothing for people.
void add_check(CLI::App &app, Context &context)
{
    app.add_subcommand(live::CHECK_PARAMETERS)->group("")->callback([&context] {
        context.action = [] {
            const int status = live::check_parameters();
            if (status != 0)
                throw CLI::RuntimeError(status);
        };
    });
}

} // namespace

void add_serve(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<ServeArguments>();
    CLI::App *command = app.add_subcommand("serve", "Show the codec on a live web page.");
    command->footer(SERVE_FOOTER);
    live::Options &options = arguments->options;
    command->add_option("--port", options.port, "port to listen at, 0 for any free one")
        ->check(CLI::Range(0u, 65535u))
        ->capture_default_str();
    command->add_option("--address", options.address, "IP address to listen at")
        ->capture_default_str();
    CLI::Option *token =
        command->add_option("--token", options.token, "text that everybody has to know")
            ->type_name("TEXT");
    command->add_option("--token-file", arguments->token_file, "file that holds the text")
        ->type_name("FILE")
        ->excludes(token);
    command->add_option("--qm5osd", options.program, "the application's file, or its name in PATH")
        ->type_name("FILE")
        ->capture_default_str();
    command
        ->add_option("--log", options.log,
                     "the application's log, or server.log in the state folder")
        ->type_name("FILE");
    command->callback([&context, arguments] {
        check(*arguments);
        context.action = [&context, arguments] { serve(context, *arguments); };
    });
    add_check(app, context);
}

} // namespace commands
