// The scripts that check and pack the sources, in a tree without sources and with stubs for the
// programs that they call: what they do on another machine than this one, or for another caller.
#include "support/files.h"
#include "support/process.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <sys/stat.h>

namespace
{

namespace fs = std::filesystem;
using support::Ended;
using support::read_file;
using support::run;
using support::write_file;

class Scripts : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directories(tree_ / "packaging/deb");
        fs::create_directory(tree_ / "stubs");
        for (const char *name : {"scripts", "CMakeLists.txt", "packaging/deb/changelog"})
            fs::copy(fs::path(QM5OSD_SOURCES) / name, tree_ / name);
        setenv("PATH", ((tree_ / "stubs").string() + ':' + path_).c_str(), 1);
    }
    void TearDown() override
    {
        setenv("PATH", path_.c_str(), 1);
        fs::remove_all(tree_);
    }

    // Puts lines of the shell into a program's place.
    void stub(const fs::path &file, const std::string &lines) const
    {
        write_file(tree_ / file, "#!/bin/sh\n" + lines + '\n');
        fs::permissions(tree_ / file, fs::perms::owner_all);
    }

    Ended script(const std::string &name) const
    {
        return run({"/bin/bash", tree_ / "scripts" / name});
    }

    const fs::path tree_ = "/tmp/tree";
    const std::string path_ = getenv("PATH");
};

TEST_F(Scripts, checks_refuse_a_kernel_without_emulators_of_a_namespace_at_once)
{
    stub("stubs/dpkg-query", "echo install ok installed");
    stub("stubs/qemu-arm", "exit 1");
    stub("stubs/mount", "exit 1");
    for (const char *name : {"check", "check-packages"}) {
        const Ended ended = script(name);
        EXPECT_EQ(ended.status, 1) << name;
        EXPECT_EQ(ended.out, "") << name;
        EXPECT_TRUE(ended.err.starts_with("arm-run: binfmt_misc: a namespace of users can have its "
                                          "own from Linux 6.7 on, this is "))
            << ended.err;
    }
}

TEST_F(Scripts, package_refuses_a_machine_that_cant_tell_what_programs_depend_on)
{
    fs::create_symlink("/usr/bin/env", tree_ / "stubs/env");
    setenv("PATH", (tree_ / "stubs").c_str(), 1);
    for (const std::string missing : {"dpkg-shlibdeps", "file"}) {
        const Ended ended = script("package");
        EXPECT_EQ(ended.status, 1);
        EXPECT_EQ(ended.out, "");
        EXPECT_EQ(ended.err, "package: " + missing + ": it is not installed\n");
        stub("stubs/" + missing, "exit 0");
    }
}

TEST_F(Scripts, release_installs_what_it_takes_before_it_calls_it)
{
    stub("stubs/id", "echo 0");
    stub("stubs/dpkg-query",
         "for package; do :; done\n[ \"$package\" = git ] || echo install ok installed");
    stub("stubs/apt-get", "echo \"$*\" >>/tmp/tree/installed");
    stub("stubs/git", "exit 128"); // of a folder that is no clone
    const Ended ended = script("release");
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.out, "== Installing git\n");
    EXPECT_EQ(ended.err, "release: /tmp/tree: it is no clone\n");
    EXPECT_EQ(read_file(tree_ / "installed"),
              "update -qq\ninstall -y -qq --no-install-recommends git\n");
}

TEST_F(Scripts, package_takes_nothing_from_the_callers_environment)
{
    stub("scripts/arm-sysroot", "exit 0");
    stub("stubs/cmake", "echo \"$*\" >>/tmp/tree/configured");
    stub("stubs/dpkg-shlibdeps", "exit 0");
    stub("stubs/file", "exit 0");
    stub("stubs/cpack", "{ env; echo UMASK=$(umask); } >/tmp/tree/environment");
    const std::map<std::string, std::string> before = {
        {"CFLAGS", "-g"},
        {"CXXFLAGS", "-DNDEBUG"},
        {"LDFLAGS", "-Wl,--build-id"},
        {"VERSION", "9.9.9"},
        {"TZ", "Asia/Tokyo"},
        {"SOURCE_DATE_EPOCH", "1"},
        {"CPATH", "/none"},
        {"CMAKE_TOOLCHAIN_FILE", "/none"},
    };
    for (const auto &[name, value] : before)
        setenv(name.c_str(), value.c_str(), 1);
    const mode_t mask = umask(077);
    const Ended ended = script("package");
    umask(mask);
    for (const auto &[name, value] : before)
        unsetenv(name.c_str());
    EXPECT_EQ(ended.status, 0) << ended.err;
    for (const char *preset : {"release", "arm"}) // not as they were configured before
        EXPECT_NE(
            read_file(tree_ / "configured").find(std::string("--fresh --preset ") + preset + '\n'),
            std::string::npos);

    std::map<std::string, std::string> seen;
    std::istringstream in(read_file(tree_ / "environment"));
    for (std::string line; std::getline(in, line);)
        seen[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
    for (const char *name : {"CFLAGS", "CXXFLAGS", "LDFLAGS", "CPATH", "CMAKE_TOOLCHAIN_FILE"})
        EXPECT_FALSE(seen.contains(name)) << name;
    EXPECT_NE(read_file(tree_ / "CMakeLists.txt").find(" VERSION " + seen["VERSION"] + ' '),
              std::string::npos)
        << seen["VERSION"];
    EXPECT_GT(std::stol(seen["SOURCE_DATE_EPOCH"]), 1);
    EXPECT_EQ(seen["TZ"], "UTC0");
    EXPECT_EQ(seen["UMASK"], "0022");
}

} // namespace
