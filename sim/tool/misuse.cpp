#include "misuse.h"

#include <algorithm>
#include <string_view>

namespace commands
{

namespace
{

// A sentence of CLI11 is BEFORE what AFTER, or BEFORE what BETWEEN another word.
struct Sentence {
    CLI::ExitCodes kind;
    std::string_view before;
    std::string_view between;
    std::string_view why; // which the other word ends
};

constexpr Sentence SENTENCES[] = {
    {CLI::ExitCodes::RequiredError, "A subcommand", " is required", "it is required"},
    {CLI::ExitCodes::RequiredError, "", " is required", "it is required"},
    {CLI::ExitCodes::ExtrasError, "The following argument was not expected: ", "",
     "it was not expected"},
    {CLI::ExitCodes::ExtrasError, "The following arguments were not expected: ", "",
     "they were not expected"},
    {CLI::ExitCodes::RequiresError, "", " requires ", "only with "},
    {CLI::ExitCodes::ExcludesError, "", " excludes ", "not with "},
    {CLI::ExitCodes::ConversionError, "Could not convert: ", " = ", "can't be "},
};

} // namespace

std::string describe(const CLI::ParseError &error)
{
    const std::string text = error.what();
    for (const Sentence &sentence : SENTENCES) {
        if (error.get_exit_code() != static_cast<int>(sentence.kind) ||
            !text.starts_with(sentence.before))
            continue;
        const std::string rest = text.substr(sentence.before.size());
        const std::size_t at = sentence.between.empty() ? rest.size() : rest.find(sentence.between);
        if (at == std::string::npos)
            continue;
        const std::string what = at == 0 ? "subcommand" : rest.substr(0, at);
        return what + ": " + std::string(sentence.why) +
               rest.substr(std::min(rest.size(), at + sentence.between.size()));
    }
    return text;
}

void parse(CLI::App &app, const std::vector<std::string> &words)
{
    try {
        app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
    } catch (const CLI::RequiredError &) {
        const std::vector<std::string> rest = app.remaining(true);
        if (rest.empty())
            throw;
        throw CLI::ExtrasError(rest);
    }
}

} // namespace commands
