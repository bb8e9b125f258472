// Any words as a command line, through the parsers. Words are cut at line feeds and bytes of zero.
#include "fuzz.h"

#include "cli/options.h"

#include <cstdlib>
#include <getopt.h>
#include <string>
#include <vector>

const char *const fuzz_words[] = {"start\n",
                                  "restart\n",
                                  "update\n",
                                  "save\n",
                                  "getthdinfo\n",
                                  "help\n",
                                  "--Post0DateOn=1\n",
                                  "--Post1Str",
                                  "--Post2Osd3X\n",
                                  "-f\n",
                                  "-l\n",
                                  "-t\n",
                                  "-a\n",
                                  "--\n",
                                  "--Osd",
                                  "--Post",
                                  "=",
                                  "4294967296\n",
                                  "--Post0String=\n",
                                  nullptr};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::vector<std::string> words = {"qm5osd", ""};
    for (std::size_t i = 0; i < size; i++) {
        if (data[i] == '\n' || data[i] == '\0')
            words.emplace_back();
        else
            words.back() += static_cast<char>(data[i]);
    }
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    optind = 0;
    osd_options options = {};
    const int result = osd_get_option(static_cast<int>(words.size()), argv.data(), &options);
    if (result != 0 && (result != -EINVAL || options.section))
        std::abort();
    if (options.section)
        param_section_free(options.section);
    cmn_role = "";
    return 0;
}
