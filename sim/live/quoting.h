// Command lines as a POSIX shell reads them, for people to copy. Nothing here runs a shell.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace live
{

// The words with a blank between them, each quoted if the shell would read it otherwise.
std::string quote_words(const std::vector<std::string> &words);

// The same of a command that works on the codec of this state folder, whatever the shell's own is.
std::string quote_command(const std::filesystem::path &folder,
                          const std::vector<std::string> &words);

// This program's file, as of the first call.
const std::string &own_program();

} // namespace live
