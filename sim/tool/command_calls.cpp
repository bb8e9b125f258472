// qm5sim calls: prints the recorded calls of the codec library, a JSON line each.
#include "commands.h"

#include "call_json.h"
#include "call_reader.h"
#include "scenario.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/signalfd.h>
#include <unistd.h>

namespace commands
{

namespace
{

using call_reader::Calls;

std::string line_of(const Calls &calls, std::uint64_t number, const sim_call_record &call)
{
    return call_json::describe(calls, number, call).dump() + '\n';
}

// ---- What is there ------------------------------------------------------------------------------

constexpr std::uint64_t AT_ONCE = 256;

[[noreturn]] void fail_output()
{
    throw std::runtime_error(std::string("standard output: ") + std::strerror(errno));
}

// Says so, beside the output, if calls are missing behind the last one.
void tell_cut(const std::filesystem::path &file, const std::string &why)
{
    if (!why.empty())
        std::cerr << "qm5sim: " << file.string() << ": later calls are missing: " << why << '\n';
}

void print_calls(const std::filesystem::path &file, std::uint64_t next)
{
    Calls calls(file);
    const std::uint64_t last = calls.count();
    if (next > last && next > 1) // an empty record is none less
        calls.fail_beyond(next, last);
    while (next <= last) {
        for (const sim_call_record &call : calls.read(next, std::min(AT_ONCE, last - next + 1)))
            std::cout << line_of(calls, next++, call);
        if (!std::cout.flush())
            fail_output();
    }
    tell_cut(file, calls.why_cut());
}

// ---- What is to come ----------------------------------------------------------------------------

// Standard output, until SIGINT or SIGTERM comes, which is taken, or nobody reads it any more. No
// wait for a reader that has stopped holds a signal up, and no line is left half written.
class Output
{
public:
    Output()
    {
        sigset_t ends;
        sigemptyset(&ends);
        sigaddset(&ends, SIGINT);
        sigaddset(&ends, SIGTERM);
        signals_ = signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK);
        if (signals_ == -1)
            throw std::runtime_error(std::string("signals: ") + std::strerror(errno));
        sigprocmask(SIG_BLOCK, &ends, &before_);
    }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;
    ~Output()
    {
        close(signals_);
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }

    // Writes a line, which a pipe takes whole or not at all; false at the end.
    bool put(std::string_view line)
    {
        if (!wait(POLLOUT, -1))
            return false;
        while (!line.empty()) {
            const ssize_t length = write(STDOUT_FILENO, line.data(), line.size());
            if (length == -1 && errno != EINTR)
                fail_output();
            line.remove_prefix(length > 0 ? static_cast<std::size_t>(length) : 0);
        }
        return true;
    }

    // Lets some time pass; false at the end.
    bool pause()
    {
        constexpr int milliseconds = 50;
        return wait(0, milliseconds);
    }

private:
    bool wait(short what, int milliseconds)
    {
        std::array<pollfd, 2> wanted = {{{signals_, POLLIN, 0}, {STDOUT_FILENO, what, 0}}};
        while (poll(wanted.data(), wanted.size(), milliseconds) == -1 && errno == EINTR)
            continue;
        signalfd_siginfo taken;
        return read(signals_, &taken, sizeof taken) == -1 &&
               (wanted[1].revents & (POLLERR | POLLHUP)) == 0;
    }

    int signals_ = -1;
    sigset_t before_{};
};

// A record that calls are added to, and that begins anew with another server.
class Followed
{
public:
    Followed(const std::filesystem::path &file, std::uint64_t first)
        : file_(file), calls_(std::make_unique<Calls>(file)), next_(first)
    {
    }

    // Prints what has come; false at the end of the output.
    bool print(Output &output)
    {
        for (;;) {
            const std::vector<sim_call_record> come = read();
            if (come.empty())
                return true;
            for (const sim_call_record &call : come) {
                if (!output.put(line_of(*calls_, next_, call)))
                    return false;
                next_++;
            }
        }
    }

private:
    // The next calls; none of a record that has begun anew while it was read.
    std::vector<sim_call_record> read()
    {
        std::vector<sim_call_record> come;
        try {
            if (!calls_->is_empty()) {
                come = calls_->read(next_, AT_ONCE);
                if (come.empty())
                    tell_end();
            }
        } catch (const std::runtime_error &) {
            if (!calls_->has_begun_anew() && !calls_->is_empty())
                throw;
        }
        if (!calls_->has_begun_anew())
            return come;
        calls_ = std::make_unique<Calls>(file_);
        next_ = 1;
        has_told_end_ = false;
        return {};
    }

    void tell_end()
    {
        const std::string why = has_told_end_ ? "" : calls_->why_cut();
        has_told_end_ = has_told_end_ || !why.empty();
        tell_cut(file_, why);
    }

    std::filesystem::path file_;
    std::unique_ptr<Calls> calls_;
    std::uint64_t next_;
    bool has_told_end_ = false;
};

void follow_calls(const std::filesystem::path &file, std::uint64_t first)
{
    Output output;
    Followed followed(file, first);
    while (followed.print(output) && output.pause())
        continue;
}

// ---- Command line -------------------------------------------------------------------------------

struct CallsArguments {
    bool follow = false;
    std::uint64_t from = 1;
    std::string file;
};

void calls(const Context &context, const CallsArguments &arguments)
{
    const std::filesystem::path file =
        arguments.file.empty() ? context.folder / "calls" : std::filesystem::path(arguments.file);
    if (arguments.follow)
        follow_calls(file, arguments.from);
    else
        print_calls(file, arguments.from);
}

} // namespace

CLI::Option *add_call_number(CLI::App *command, const std::string &name, std::uint64_t &call,
                             const std::string &what)
{
    const auto refuse_others = [](const std::string &text) {
        std::uint64_t number = 0;
        const char *const last = text.data() + text.size();
        const auto [end, error] = std::from_chars(text.data(), last, number);
        return error == std::errc{} && end == last && number > 0
                   ? std::string()
                   : scenario::excerpt(text) + " is no number of a call";
    };
    return command->add_option(name, call, what)->check(refuse_others, "NUMBER", "");
}

void add_calls(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<CallsArguments>();
    CLI::App *command = app.add_subcommand(
        "calls", "Print the recorded calls of the codec library, as JSON lines.");
    command->footer("Examples: qm5sim calls > before.jsonl\n"
                    "          qm5sim calls --follow --from 100");
    command->add_flag("--follow", arguments->follow,
                      "go on as calls come, until SIGINT or SIGTERM");
    add_call_number(command, "--from", arguments->from, "number of the first call to print");
    command->add_option("--file", arguments->file, "record to read, instead of the state folder's")
        ->type_name("FILE");
    command->callback([&context, arguments] {
        context.action = [&context, arguments] { calls(context, *arguments); };
    });
}

} // namespace commands
