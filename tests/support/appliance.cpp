#include "support/appliance.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ranges>
#include <sys/mount.h>
#include <vector>

namespace support
{

namespace fs = std::filesystem;

namespace
{

// Folders that are covered; the one of locks may be a link to one below /run, where it has to be
// made first. In an empty /run no systemd of this machine is found.
constexpr const char *FOLDERS[] = {"/run", "/opt", "/etc/default", "/var/log", "/var/lock"};

} // namespace

Appliance::Appliance()
{
    std::vector<fs::path> places;
    for (const char *folder : FOLDERS)
        places.push_back(fs::canonical(folder));
    for (const fs::path &place : places) {
        fs::create_directories(place);
        if (mount("none", place.c_str(), "tmpfs", 0, "mode=0755") != 0) {
            std::fprintf(stderr, "appliance: %s: %s\n", place.c_str(), std::strerror(errno));
            std::exit(2);
        }
    }
    const fs::path bin = fs::path(APPLIANCE_PROGRAM).parent_path();
    fs::create_directories(bin);
    fs::copy(QM5OSD_DELIVERED, APPLIANCE_PROGRAM);
    fs::copy(fs::path(QM5OSD_PACKAGING) / "qm5osd-service", APPLIANCE_SERVICE);
    fs::copy(fs::path(QM5OSD_STAGE) / "conf", fs::path(APPLIANCE_SAVED).parent_path());
    setenv("LD_LIBRARY_PATH", QM5OSD_STAGE "/osd/lib", 1);
}

Appliance::~Appliance()
{
    unsetenv("LD_LIBRARY_PATH");
    for (const char *folder : FOLDERS | std::views::reverse)
        umount2(fs::canonical(folder).c_str(), MNT_DETACH);
}

} // namespace support
