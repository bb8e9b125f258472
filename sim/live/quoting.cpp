#include "quoting.h"

#include <algorithm>
#include <string_view>

namespace live
{

namespace
{

bool is_plain(char c)
{
    constexpr std::string_view signs = "_-./:,+@%";
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           signs.find(c) != std::string_view::npos;
}

// In an option `=` means nothing; a first word with one would be an assignment.
bool is_plain_word(const std::string &word)
{
    const bool is_option = word.front() == '-';
    return std::all_of(word.begin(), word.end(),
                       [is_option](char c) { return is_plain(c) || (is_option && c == '='); });
}

// Within single quotes only a single quote means anything.
std::string quote(const std::string &word)
{
    if (!word.empty() && is_plain_word(word))
        return word;
    std::string quoted = "'";
    for (const char c : word) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + '\'';
}

} // namespace

std::string quote_words(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + quote(word);
    return line;
}

std::string quote_command(const std::filesystem::path &folder,
                          const std::vector<std::string> &words)
{
    return "QM5SIM_STATE=" + quote(folder.string()) + ' ' + quote_words(words);
}

const std::string &own_program()
{
    static const std::string file = std::filesystem::read_symlink("/proc/self/exe");
    return file;
}

} // namespace live
