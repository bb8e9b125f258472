// qm5sim diff: tells where two runs of the application first call the codec library differently.
// What differs between any two runs is no difference: times, what IDs happen to be given, and how
// the calls of two threads, or on two posts, fall between each other.
#include "commands.h"

#include "file_io.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace commands
{

namespace
{

using Json = nlohmann::ordered_json;

// Numbers for names, in the order of their first appearance.
class Numbers
{
public:
    std::size_t operator[](const std::string &name)
    {
        const auto [place, is_new] = numbers_.try_emplace(name, last_ + 1);
        last_ += is_new ? 1 : 0;
        return place->second;
    }

    // From now on the name stands for something else.
    void forget(const std::string &name)
    {
        numbers_.erase(name);
    }

private:
    std::map<std::string, std::size_t> numbers_;
    std::size_t last_ = 0;
};

// ---- Reading ------------------------------------------------------------------------------------

constexpr std::size_t LONGEST_CALL = std::size_t{1} << 20;

// The lines of one run, as `qm5sim calls` has printed them; a pipe will do.
class Lines
{
public:
    explicit Lines(std::string file) : file_(std::move(file))
    {
        std::ifstream in(file_);
        if (!in)
            throw std::runtime_error(file_ + ": " + std::strerror(errno));
        for (std::string line; sim_reader::read_line(in, line, LONGEST_CALL);) {
            lines_.push_back(std::move(line));
            call(count()); // what has other things than calls may have no end
        }
        if (in.bad())
            throw std::runtime_error(file_ + ": it can't be read");
    }

    const std::string &file() const
    {
        return file_;
    }
    std::size_t count() const
    {
        return lines_.size();
    }

    // The call of a line, counted from 1 on.
    Json call(std::size_t number) const
    {
        if (lines_[number - 1].size() > LONGEST_CALL)
            fail(number, "longer than " + std::to_string(LONGEST_CALL) + " bytes");
        Json call = Json::parse(lines_[number - 1], nullptr, false);
        if (call.is_discarded())
            fail(number, "no JSON");
        if (!call.is_object() || !call.contains("call"))
            fail(number, "no call");
        for (const auto &[key, value] : call.items()) {
            if (!value.is_string() && !value.is_number())
                fail(number, "a call's values are texts and numbers");
        }
        return call;
    }

private:
    [[noreturn]] void fail(std::size_t number, const std::string &why) const
    {
        throw std::runtime_error(file_ + ": line " + std::to_string(number) + ": " + why);
    }

    std::string file_;
    std::vector<std::string> lines_;
};

// ---- Normalising --------------------------------------------------------------------------------

// Names for the resource IDs of a run: which thread of its post it is. The notices tell, which may
// stand behind the first call that uses the ID, for they come in another thread.
class PostThreads
{
public:
    void learn(const Json &call)
    {
        if (call["call"] != "notify" || !call.contains("res_id") || !call.contains("post") ||
            call.value("opened", Json(1)) == 0)
            return;
        const std::string post = call["post"].dump();
        const auto [place, is_new] = names_.try_emplace(call["res_id"].dump());
        if (is_new)
            place->second = "thread " + std::to_string(++counts_[post]) + " of post " + post;
    }

    std::string name(const Json &res_id)
    {
        const auto found = names_.find(res_id.dump());
        if (found != names_.end())
            return found->second;
        return "post thread " + std::to_string(unknown_[res_id.dump()]);
    }

private:
    std::map<std::string, std::string> names_;
    std::map<std::string, std::size_t> counts_;
    Numbers unknown_;
};

// What one thread of a run calls on one post, or on none, in its order.
struct Call {
    std::size_t line = 0;
    std::string text;    // as it is shown
    std::string compare; // without the call's number, and whatever the order of its keys
};
typedef std::map<std::string, std::vector<Call>> Threads;

class Normaliser
{
public:
    explicit Normaliser(const Lines &lines)
    {
        for (std::size_t number = 1; number <= lines.count(); number++)
            post_threads_.learn(lines.call(number));
        for (std::size_t number = 1; number <= lines.count(); number++)
            take(number, lines.call(number));
    }

    const Threads &threads() const
    {
        return result_;
    }

private:
    // A resource ID or handle of 0 is none, and stays.
    template <typename Name>
    static void rename(Json &call, const char *key, Name name)
    {
        const auto found = call.find(key);
        if (found != call.end() && *found != "0x00000000")
            *found = name(*found);
    }

    void take(std::size_t line, Json call)
    {
        for (const char *key : {"time", "us", "aux"})
            call.erase(key);
        rename(call, "thread",
               [this](const Json &id) { return "thread " + std::to_string(threads_[id.dump()]); });
        rename(call, "res_id", [this](const Json &id) { return post_threads_.name(id); });
        Numbers &handles = handles_[call.value("res_id", Json()).dump()];
        const bool opens =
            call["call"] == "open_osd"; // under a handle that may have been another's
        rename(call, "handle", [&](const Json &id) {
            if (opens)
                handles.forget(id.dump());
            return "OSD " + std::to_string(handles[id.dump()]);
        });

        nlohmann::json compare = call; // in which keys are sorted
        compare.erase("n");            // one run may be printed from a later call on
        result_[caller_of(call)].push_back({line, call.dump(), compare.dump()});
    }

    // The application's calls on a post begin when its notice happens to be seen.
    static std::string caller_of(const Json &call)
    {
        const std::string thread = call.value("thread", "a thread without a name");
        if (call["call"] == "notify" || !call.contains("res_id"))
            return thread;
        return thread + " on " + call["res_id"].get<std::string>();
    }

    Threads result_;
    PostThreads post_threads_;
    Numbers threads_;
    std::map<std::string, Numbers> handles_; // of each post thread
};

// ---- Comparing ----------------------------------------------------------------------------------

// Where one thread of two runs first differs; no call where it has ended.
struct Difference {
    std::string thread;
    std::optional<Call> a;
    std::optional<Call> b;

    // By which the first of them is known.
    std::size_t line() const
    {
        return a && b ? std::min(a->line, b->line) : a ? a->line : b->line;
    }
};

std::optional<Difference> compare(const std::string &thread, const std::vector<Call> &a,
                                  const std::vector<Call> &b)
{
    const auto at = [](const std::vector<Call> &calls, std::size_t i) {
        return i < calls.size() ? std::optional(calls[i]) : std::nullopt;
    };
    for (std::size_t i = 0; i < std::max(a.size(), b.size()); i++) {
        if (i >= a.size() || i >= b.size() || a[i].compare != b[i].compare)
            return Difference{thread, at(a, i), at(b, i)};
    }
    return std::nullopt;
}

std::optional<Difference> compare(Threads a, Threads b)
{
    for (const auto &[thread, calls] : a)
        b.try_emplace(thread);
    std::optional<Difference> first;
    for (const auto &[thread, calls] : b) {
        const std::optional<Difference> found = compare(thread, a[thread], calls);
        if (found && (!first || found->line() < first->line()))
            first = found;
    }
    return first;
}

std::string difference_line(const Lines &run, const std::string &thread,
                            const std::optional<Call> &call)
{
    if (!call)
        return run.file() + ": no further call of " + thread + '\n';
    return run.file() + ":" + std::to_string(call->line) + ": " + call->text + '\n';
}

std::string count_line(const Lines &run)
{
    return run.file() + ": " + std::to_string(run.count()) +
           (run.count() == 1 ? " call\n" : " calls\n");
}

struct DiffArguments {
    std::string a;
    std::string b;
};

void diff(const DiffArguments &arguments)
{
    const Lines a(arguments.a);
    const Lines b(arguments.b);
    const std::optional<Difference> found =
        compare(Normaliser(a).threads(), Normaliser(b).threads());
    if (!found)
        return;
    std::cout << difference_line(a, found->thread, found->a)
              << difference_line(b, found->thread, found->b) << count_line(a) << count_line(b)
              << std::flush;
    throw CLI::RuntimeError(1);
}

} // namespace

void add_diff(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<DiffArguments>();
    CLI::App *command = app.add_subcommand(
        "diff", "Tell where two runs of the application first call the codec library differently.");
    command->footer("Each thread's calls on each post are compared in their order, the runs' "
                    "threads in that of\n"
                    "their first calls.\n"
                    "Exit status: 0 if they are equal, 1 if not, or if one can't be read.\n"
                    "Example: qm5sim diff before.jsonl after.jsonl");
    command->add_option("a", arguments->a, "calls of one run, as `qm5sim calls` prints them")
        ->required();
    command->add_option("b", arguments->b, "calls of the other run")->required();
    command->callback(
        [&context, arguments] { context.action = [arguments] { diff(*arguments); }; });
}

} // namespace commands
