// Command lines as a POSIX shell reads them, for people to copy. Nothing here runs a shell.
#pragma once

#include <string>
#include <vector>

namespace live
{

// The words with a blank between them, each quoted if the shell would read it otherwise.
std::string quote_words(const std::vector<std::string> &words);

} // namespace live
