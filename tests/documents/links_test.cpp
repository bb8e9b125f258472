// What the documents lead to is there.
#include "support/files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;

const fs::path SOURCES = QM5OSD_SOURCES;

std::vector<fs::path> documents()
{
    std::vector<fs::path> files = {SOURCES / "README.md"};
    for (const auto &entry : fs::directory_iterator(SOURCES / "docs")) {
        if (entry.path().extension() == ".md")
            files.push_back(entry.path());
    }
    return files;
}

// The first part of each match in a document.
std::vector<std::string> matches(const fs::path &document, const std::string &pattern)
{
    const std::string text = support::read_file(document);
    const std::regex regex(pattern);
    std::vector<std::string> found;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), regex);
         it != std::sregex_iterator(); ++it)
        found.push_back((*it)[1]);
    return found;
}

TEST(Links, lead_to_files)
{
    std::size_t count = 0;
    for (const fs::path &document : documents()) {
        for (const std::string &link : matches(document, "\\]\\(([^)#:]+)\\)")) {
            EXPECT_TRUE(fs::exists(document.parent_path() / link)) << document << ": " << link;
            count++;
        }
    }
    EXPECT_GT(count, 5u);
}

TEST(Links, names_of_sources_are_names_of_files)
{
    std::size_t count = 0;
    for (const fs::path &document : documents()) {
        for (const std::string &name :
             matches(document, "`((?:src|sim|docs|tests|scripts|packaging)/[^` ]*)`")) {
            EXPECT_TRUE(fs::exists(SOURCES / name)) << document << ": " << name;
            count++;
        }
    }
    EXPECT_GT(count, 5u);
}

} // namespace
