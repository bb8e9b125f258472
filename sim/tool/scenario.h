// Scenarios: files of lines that say what is to be done, and when.
//
// A line is a time in seconds since the beginning and the words of what is to be done then. Words
// are parted by blanks and tabs; what stands in double quotes belongs to its word, blanks and all.
// A semicolon at the beginning of a word makes the rest of the line a comment. No line may be
// earlier than the one before, or longer than 4096 bytes.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace scenario
{

struct Line {
    std::string place; // "FILE:LINE"
    double seconds = 0;
    std::vector<std::string> words; // one at least
};

// Hands over each line that has words. Throws std::runtime_error for a file that can't be read, and
// with the line's place for the first line that makes no sense, be it here or to `take`, which
// throws CLI::ParseError.
void read(const std::string &file, const std::function<void(const Line &)> &take);

// "12" or "0.25", and nothing else around it.
std::optional<double> read_decimal(std::string_view text);

// The word, or the beginning of a long one, as a message tells it.
std::string excerpt(const std::string &word);

} // namespace scenario
