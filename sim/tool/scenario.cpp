#include "scenario.h"

#include "misuse.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace scenario
{

namespace
{

typedef std::vector<std::string> Words;

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

Words split(const std::string &line)
{
    Words words;
    bool within = false;
    bool quoted = false;
    const auto word = [&]() -> std::string & {
        if (!within)
            words.emplace_back();
        within = true;
        return words.back();
    };
    for (const char c : line) {
        if (c == '"') {
            word(); // even one of nothing
            quoted = !quoted;
        } else if (quoted || !is_blank(c)) {
            if (c == ';' && !within)
                break;
            word() += c;
        } else {
            within = false;
        }
    }
    if (quoted)
        throw CLI::ValidationError("a quote is not closed");
    return words;
}

// Takes the time off the words.
double take_seconds(Words &words, double before)
{
    const std::string text = words.front();
    words.erase(words.begin());
    const std::optional<double> seconds = read_decimal(text);
    if (!seconds)
        throw CLI::ValidationError(text, "no decimal number of seconds");
    if (*seconds < before)
        throw CLI::ValidationError(text, "earlier than the line before");
    if (words.empty())
        throw CLI::ValidationError(text, "nothing to do");
    return *seconds;
}

[[noreturn]] void fail(const std::string &file)
{
    throw std::runtime_error(file + ": " + std::strerror(errno));
}

} // namespace

std::optional<double> read_decimal(std::string_view text)
{
    if (text.find_first_not_of("0123456789.") != std::string_view::npos)
        return std::nullopt;
    double number = 0;
    const char *end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (error != std::errc{} || rest != end)
        return std::nullopt;
    return number;
}

void read(const std::string &file, const std::function<void(const Line &)> &take)
{
    std::ifstream in(file);
    if (!in)
        fail(file);
    double before = 0;
    std::size_t number = 0;
    for (std::string text; std::getline(in, text);) {
        const std::string place = file + ':' + std::to_string(++number);
        try {
            Words words = split(text);
            if (words.empty())
                continue;
            before = take_seconds(words, before);
            take({place, before, words});
        } catch (const CLI::ParseError &error) {
            throw CLI::ValidationError(place, commands::describe(error));
        }
    }
    if (in.bad())
        fail(file);
}

} // namespace scenario
