// qm5osd_reference: writes what is told of the parameters, from the program's own catalogue.
#include "manual.h"
#include "schema.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_MISUSE = 2;

std::string read_file(const std::string &path)
{
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error(path + ": it can't be read");
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream file(path);
    if (!(file << text).flush())
        throw std::runtime_error(path + ": it can't be written");
}

int run(const std::vector<std::string> &words)
{
    if (words.size() == 2 && words[0] == "schema") {
        write_file(words[1], reference::make_schema());
        return 0;
    }
    if (words.size() == 3 && words[0] == "manual") {
        write_file(words[2], reference::fill_manual(read_file(words[1])));
        return 0;
    }
    std::cerr << "qm5osd_reference: words: they are schema OUTPUT or manual TEMPLATE OUTPUT\n";
    return EXIT_MISUSE;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run({argv + 1, argv + argc});
    } catch (const std::exception &error) {
        std::cerr << "qm5osd_reference: " << error.what() << '\n';
        return EXIT_FAILED;
    }
}
