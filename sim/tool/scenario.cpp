#include "scenario.h"

#include "file_io.h"
#include "misuse.h"

#include <CLI/CLI.hpp>

#include <algorithm>
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

constexpr std::size_t LONGEST_LINE = 4096;

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

// A line that no person has written would be told as it stands, whatever it does to a terminal.
void require_text(const std::string &line)
{
    const auto is_control = [](char c) {
        return (static_cast<unsigned char>(c) < ' ' && !is_blank(c)) || c == '\x7F';
    };
    if (line.size() > LONGEST_LINE)
        throw CLI::ValidationError("longer than " + std::to_string(LONGEST_LINE) + " bytes");
    if (std::any_of(line.begin(), line.end(), is_control))
        throw CLI::ValidationError("no text");
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
        throw CLI::ValidationError(excerpt(text), "no decimal number of seconds");
    if (*seconds < before)
        throw CLI::ValidationError(excerpt(text), "earlier than the line before");
    if (words.empty())
        throw CLI::ValidationError(excerpt(text), "nothing to do");
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

std::string excerpt(const std::string &word)
{
    constexpr std::size_t longest = 40;
    return word.size() <= longest ? word : word.substr(0, longest) + "...";
}

void read(const std::string &file, const std::function<void(const Line &)> &take)
{
    std::ifstream in(file);
    if (!in)
        fail(file);
    double before = 0;
    std::size_t number = 0;
    for (std::string text; sim_reader::read_line(in, text, LONGEST_LINE);) {
        const std::string place = file + ':' + std::to_string(++number);
        try {
            require_text(text);
            Words words = split(text);
            if (words.empty())
                continue;
            before = take_seconds(words, before);
            take({place, before, words});
        } catch (const CLI::ParseError &error) {
            throw std::runtime_error(place + ": " + commands::describe(error));
        }
    }
    if (in.bad())
        fail(file);
}

} // namespace scenario
