#include "support/sandbox.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

namespace support
{

namespace
{

[[noreturn]] void fail(const char *what)
{
    std::fprintf(stderr, "sandbox: %s: %s\n", what, std::strerror(errno));
    std::exit(2);
}

// Without root's rights the namespaces need one of users, in which this user is root.
void enter_as_user()
{
    const auto uid = getuid();
    const auto gid = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC) != 0)
        fail("unshare");
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
}

} // namespace

void enter_sandbox()
{
    if (unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0)
        enter_as_user();
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        fail("mount /");
    if (mount("none", "/tmp", "tmpfs", 0, nullptr) != 0)
        fail("mount /tmp");
    const rlimit no_core = {0, 0}; // some tests end a process by a signal
    if (setrlimit(RLIMIT_CORE, &no_core) != 0)
        fail("setrlimit");
}

} // namespace support
