// The application as it lies on the appliance, under its fixed paths.
#pragma once

#include <string>

namespace support
{

constexpr const char *APPLIANCE_PROGRAM = "/opt/qm5/osd/bin/qm5osd";
constexpr const char *APPLIANCE_SERVICE = "/opt/qm5/osd/bin/qm5osd-service";
constexpr const char *APPLIANCE_COMMON = "/opt/qm5/conf/qm5_app_comm.conf";
constexpr const char *APPLIANCE_SAVED = "/opt/qm5/conf/saved.conf";
constexpr const char *APPLIANCE_LOG = "/var/log/qm5osd.log";
constexpr const char *APPLIANCE_LOCK = "/var/lock/qm5osd.lock";
constexpr const char *APPLIANCE_SETTINGS = "/etc/default/qm5osd";

// As long as it lives, the private world of this test program has the application and its service
// script in /opt/qm5, the simulated codec as the system's own, and empty folders for logs, locks,
// settings and what runs. What can't be had ends the program with a message.
class Appliance
{
public:
    Appliance();
    Appliance(const Appliance &) = delete;
    Appliance &operator=(const Appliance &) = delete;
    ~Appliance();
};

} // namespace support
