// Files of the tool, written whole or not at all.
#include "file_io.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using support::read_file;

constexpr const char *FOLDER = "/tmp/files";
constexpr const char *FILE_OF_MINE = "/tmp/files/mine";

// Lets this thread know no files without a name, as some file systems don't.
bool forget_nameless_files()
{
    constexpr auto system_call = static_cast<unsigned>(offsetof(seccomp_data, nr));
    constexpr auto flags = static_cast<unsigned>(offsetof(seccomp_data, args[2]));
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, system_call),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, flags),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_TMPFILE & ~O_DIRECTORY, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EOPNOTSUPP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {sizeof steps / sizeof *steps, steps};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0 &&
           open("/tmp", O_TMPFILE | O_WRONLY, 0600) == -1 && errno == EOPNOTSUPP;
}

// Both ways in which a draft is made.
class FileWriting : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override
    {
        fs::create_directory(FOLDER);
    }

    void TearDown() override
    {
        fs::remove_all(FOLDER);
        EXPECT_EQ(support::temporary_files(), std::vector<std::string>{});
    }

    // Writes the file on a thread of its own: nothing, or why it couldn't.
    static std::string write(const std::string &text)
    {
        std::string why;
        std::thread writer([&] {
            if (!GetParam() && !forget_nameless_files()) {
                why = "nothing is forgotten";
                return;
            }
            try {
                sim_reader::write_file(FILE_OF_MINE, text);
            } catch (const std::runtime_error &error) {
                why = error.what();
            }
        });
        writer.join();
        return why;
    }

    static std::vector<std::string> files()
    {
        std::vector<std::string> names;
        for (const auto &entry : fs::directory_iterator(FOLDER))
            names.push_back(entry.path().filename());
        return names;
    }
};

typedef std::vector<std::string> Names;

TEST_P(FileWriting, makes_and_replaces_a_file)
{
    EXPECT_EQ(write("one"), "");
    EXPECT_EQ(read_file(FILE_OF_MINE), "one");
    EXPECT_EQ(write("two"), "");
    EXPECT_EQ(read_file(FILE_OF_MINE), "two");
    EXPECT_EQ(files(), Names{"mine"});
}

TEST_P(FileWriting, keeps_to_the_users_mask)
{
    const mode_t before = umask(027);
    EXPECT_EQ(write("one"), "");
    umask(before);
    EXPECT_EQ(fs::status(FILE_OF_MINE).permissions(), fs::perms(0640));
}

// Process IDs come again: such a file may be of one that was killed, or anybody's.
TEST_P(FileWriting, leaves_other_files_alone_whose_names_are_like_those_of_its_drafts)
{
    const std::string other = std::string(FILE_OF_MINE) + '.' + std::to_string(getpid()) + ".0";
    support::write_file(other, "other");
    EXPECT_EQ(write("one"), "");
    EXPECT_EQ(read_file(FILE_OF_MINE), "one");
    EXPECT_EQ(read_file(other), "other");
    EXPECT_EQ(files().size(), 2u);
}

TEST_P(FileWriting, leaves_nothing_behind_on_a_full_disk)
{
    ASSERT_EQ(mount("none", FOLDER, "tmpfs", 0, "size=64k"), 0);
    EXPECT_EQ(write("one"), "");
    EXPECT_EQ(write(std::string(65536, 'x')), "/tmp/files/mine: No space left on device");
    EXPECT_EQ(read_file(FILE_OF_MINE), "one");
    EXPECT_EQ(files(), Names{"mine"});
    EXPECT_EQ(umount(FOLDER), 0);
}

TEST_P(FileWriting, tells_what_keeps_it_from_a_folder)
{
    fs::remove(FOLDER);
    EXPECT_EQ(write("one"), "/tmp/files/mine: No such file or directory");
    support::write_file(FOLDER, "");
    EXPECT_EQ(write("one"), "/tmp/files/mine: Not a directory");
    fs::remove(FOLDER);
    fs::create_directory(FOLDER);
    ASSERT_EQ(mount("none", FOLDER, "tmpfs", MS_RDONLY, ""), 0);
    EXPECT_EQ(write("one"), "/tmp/files/mine: Read-only file system");
    EXPECT_EQ(umount(FOLDER), 0);
}

INSTANTIATE_TEST_SUITE_P(Drafts, FileWriting, testing::Bool(), [](const auto &nameless) {
    return nameless.param ? "nameless" : "named";
});

} // namespace
