// The application as the page runs it: one client at a time, as its users do.
#pragma once

#include "child.h"

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace live
{

// What a client is to do.
struct Task {
    std::string function;                                        // as "update"
    std::vector<std::pair<std::string, std::string>> parameters; // keys and values, in their order
    std::optional<std::string> file;                             // text of a parameter file
};

struct Done {
    std::string command; // as a POSIX shell reads it
    Finished finished;
};

class Application
{
public:
    // `program` is looked up in PATH for each task if it has no slash; `log` gets the streams of a
    // server that is started. What runs is left to itself when the descriptor `stop` becomes
    // readable.
    Application(std::string program, std::filesystem::path folder, std::filesystem::path log,
                int stop);

    // Is this a function that a task may name, and one that takes parameters?
    static bool is_function(const std::string &function);
    static bool takes_parameters(const std::string &function);

    // The command that `run` runs, as a POSIX shell reads it.
    std::string command_of(const Task &task) const;

    // Runs a client to its end and waits for those before it; nothing if this process is to end. A
    // server that it starts goes on without a pipe of this process: its streams are the log's.
    // Throws std::runtime_error.
    std::optional<Done> run(const Task &task);

    // The parameters in force as `save` writes them, or why not, in the client's own words if it
    // has any.
    struct Saved {
        bool good = false;
        std::string text;
    };
    std::optional<Saved> save();

private:
    std::vector<std::string> words_of(const Task &task) const;
    std::optional<Done> run(const std::vector<std::string> &words);

    std::string program_;
    std::filesystem::path folder_;
    std::filesystem::path log_;
    int stop_;
    std::timed_mutex one_at_a_time_;
};

// A file of this page, named after its text, so that a command that was shown goes on meaning what
// it did.
std::filesystem::path page_file(const std::filesystem::path &folder, const std::string &text,
                                const char *suffix);

// Does a server run, as `status` finds it? Nothing is written to it.
bool is_server_running();

} // namespace live
