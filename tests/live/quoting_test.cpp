// Command lines for people to copy, read back by a shell.
#include "quoting.h"

#include "support/process.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using live::quote_words;

TEST(Quoting, leaves_plain_words_as_they_are)
{
    EXPECT_EQ(quote_words({"qm5osd", "update", "--Post0DateOn=1", "-f", "/tmp/a_b-c.conf"}),
              "qm5osd update --Post0DateOn=1 -f /tmp/a_b-c.conf");
    EXPECT_EQ(quote_words({}), "");
}

TEST(Quoting, quotes_what_a_shell_would_read_otherwise)
{
    EXPECT_EQ(quote_words({"", "a b", "it's", "$HOME", "a=b"}),
              "'' 'a b' 'it'\\''s' '$HOME' 'a=b'");
}

TEST(Quoting, puts_the_folder_of_the_codec_in_front)
{
    EXPECT_EQ(live::quote_command("/tmp/it's a=b", {"qm5sim", "clock", "A B"}),
              "QM5SIM_STATE='/tmp/it'\\''s a=b' qm5sim clock 'A B'");
    const support::Ended shell = support::run(
        {"/bin/sh", "-c", live::quote_command("/tmp/it's a=b", {"printenv", "QM5SIM_STATE"})});
    EXPECT_EQ(shell.out, "/tmp/it's a=b\n");
}

TEST(Quoting, is_read_back_byte_by_byte)
{
    std::vector<std::string> words = {"/usr/bin/printf", "[%s]"};
    for (int byte = 1; byte < 256; byte++) {
        words.push_back(std::string(1, static_cast<char>(byte)));
        words.push_back("x" + std::string(2, static_cast<char>(byte)) + "-=y");
    }
    words.insert(words.end(), {"", "'", "''", "'\\''", "\\", "~", "!!", "#", "-n", "--"});
    std::string expected;
    for (std::size_t i = 2; i < words.size(); i++)
        expected += '[' + words[i] + ']';
    const support::Ended shell = support::run({"/bin/sh", "-c", quote_words(words)});
    EXPECT_EQ(shell.status, 0) << shell.err;
    EXPECT_EQ(shell.out, expected);
}

} // namespace
