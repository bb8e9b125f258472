#include "manual.h"

#include "families.h"

#include <sstream>
#include <stdexcept>

namespace reference
{

namespace
{

// mdoc(7) wants each sentence on a line of its own.
std::string one_sentence_a_line(std::string text)
{
    for (std::size_t at = text.find(". "); at != std::string::npos; at = text.find(". ", at))
        text[at + 1] = '\n';
    return text + '\n';
}

// What follows the item's head.
std::string make_body(const Family &family)
{
    return one_sentence_a_line(family.description) +
           "Values: " + describe_values(family.members.front().range) +
           ".\nDefault: " + describe_defaults(family) + ".\n";
}

std::string make_options()
{
    std::string text;
    for (const Family &family : read_families()) {
        const Parameter &first = family.members.front();
        if (first.post != OSD_NO_POST)
            text += ".It Fl -" + family.pattern + " Ns = Ns Ar " + name_value(first.range) + '\n' +
                    make_body(family);
    }
    return text;
}

std::string make_keys()
{
    std::string text;
    for (const Family &family : read_families())
        text += ".It Cm " + family.pattern + " Ns = Ns Ar " +
                name_value(family.members.front().range) + '\n' + make_body(family);
    return text;
}

std::string make_rows()
{
    std::string text;
    for (const Parameter &parameter : read_parameters())
        text += ".It Li " + parameter.key + " Ta " + describe_values(parameter.range) + " Ta " +
                describe_default(parameter) + '\n';
    return text;
}

} // namespace

std::string fill_manual(const std::string &manual_template)
{
    std::istringstream in(manual_template);
    std::string text;
    bool filled = false;
    for (std::string line; std::getline(in, line);) {
        if (!line.starts_with('@')) {
            text += line + '\n';
            continue;
        }
        if (line != "@OPTIONS@" && line != "@KEYS@" && line != "@ROWS@")
            throw std::runtime_error(line + ": nothing is known to stand there");
        text += line == "@OPTIONS@" ? make_options() : line == "@KEYS@" ? make_keys() : make_rows();
        filled = true;
    }
    if (!filled)
        throw std::runtime_error("there is nothing to be replaced");
    return text;
}

} // namespace reference
