// qm5sim diff: tells where two runs of the application first call the codec library differently.
// What differs between any two runs is no difference: times, and what IDs happen to be given.
#include "commands.h"

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

namespace commands
{

namespace
{

using Json = nlohmann::ordered_json;

// Numbers for names, in the order of their first appearance.
class Numbers
{
public:
    std::size_t operator[](const Json &name)
    {
        return numbers_.try_emplace(name.dump(), numbers_.size() + 1).first->second;
    }

private:
    std::map<std::string, std::size_t> numbers_;
};

// The calls of one run, as `qm5sim calls` has printed them.
class Run
{
public:
    explicit Run(std::string file) : file_(std::move(file)), lines_(file_)
    {
        if (!lines_)
            throw std::runtime_error(file_ + ": " + std::strerror(errno));
    }

    // The next call, normalised; none at the end.
    std::optional<Json> next()
    {
        std::string line;
        if (!std::getline(lines_, line)) {
            if (lines_.bad())
                throw std::runtime_error(file_ + ": it can't be read");
            return std::nullopt;
        }
        count_++;
        return normalise(parse(line));
    }

    const std::string &file() const
    {
        return file_;
    }
    std::size_t count() const
    {
        return count_;
    }

private:
    [[noreturn]] void fail(const std::string &why) const
    {
        throw CLI::ValidationError(file_, "line " + std::to_string(count_) + ": " + why);
    }

    Json parse(const std::string &line) const
    {
        Json call = Json::parse(line, nullptr, false);
        if (call.is_discarded())
            fail("no JSON");
        if (!call.is_object() || !call.contains("call"))
            fail("no call");
        for (const auto &[key, value] : call.items()) {
            if (!value.is_string() && !value.is_number())
                fail("a call's values are texts and numbers");
        }
        return call;
    }

    // A resource ID or handle of 0 is none, and stays.
    void rename(Json &call, const char *key, const char *prefix, Numbers &numbers)
    {
        const auto found = call.find(key);
        if (found != call.end() && *found != "0x00000000")
            *found = prefix + std::to_string(numbers[*found]);
    }

    Json normalise(Json call)
    {
        call.erase("time");
        call.erase("us");
        rename(call, "thread", "thread ", threads_);
        rename(call, "res_id", "post thread ", res_ids_);
        rename(call, "handle", "OSD ", handles_);
        return call;
    }

    std::string file_;
    std::ifstream lines_;
    std::size_t count_ = 0;
    Numbers threads_;
    Numbers res_ids_;
    Numbers handles_;
};

// Where a call stands in its run is no part of it, as one run may be printed from a later call on;
// nor is the order of its keys.
bool are_equal(const std::optional<Json> &a, const std::optional<Json> &b)
{
    if (!a || !b)
        return !a && !b;
    nlohmann::json one = *a;
    nlohmann::json other = *b;
    one.erase("n");
    other.erase("n");
    return one == other;
}

std::string difference_line(const Run &run, std::size_t number, const std::optional<Json> &call)
{
    return run.file() + ":" + std::to_string(number) + ": " + (call ? call->dump() : "no call") +
           "\n";
}

std::string count_line(const Run &run)
{
    return run.file() + ": " + std::to_string(run.count()) +
           (run.count() == 1 ? " call\n" : " calls\n");
}

struct Arguments {
    std::string a;
    std::string b;
};

void diff(const Arguments &arguments)
{
    Run a(arguments.a);
    Run b(arguments.b);
    std::string difference;
    for (std::size_t number = 1;; number++) { // to the end, for the counts
        const std::optional<Json> in_a = a.next();
        const std::optional<Json> in_b = b.next();
        if (!in_a && !in_b)
            break;
        if (difference.empty() && !are_equal(in_a, in_b))
            difference = difference_line(a, number, in_a) + difference_line(b, number, in_b);
    }
    if (difference.empty())
        return;
    std::cout << difference << count_line(a) << count_line(b) << std::flush;
    throw CLI::RuntimeError(1);
}

} // namespace

void add_diff(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<Arguments>();
    CLI::App *command = app.add_subcommand(
        "diff", "Tell where two runs of the application first call the codec library differently.");
    command->footer("Exit status: 0 if they are equal, 1 if not.\n"
                    "Example: qm5sim diff before.jsonl after.jsonl");
    command->add_option("a", arguments->a, "calls of one run, as `qm5sim calls` prints them")
        ->required();
    command->add_option("b", arguments->b, "calls of the other run")->required();
    command->callback(
        [&context, arguments] { context.action = [arguments] { diff(*arguments); }; });
}

} // namespace commands
