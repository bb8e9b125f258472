// qm5sim clock: hands the application a time zone, in place of the appliance's own program.
#include "commands.h"

#include "time_zone_block.h"

#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

namespace commands
{

namespace
{

constexpr const char *CLOCK_FOOTER =
    "ZONE is a value for TZ. The number in a POSIX zone is what has to be added to its time to "
    "get\n"
    "UTC, so that EAST-9 is nine hours ahead of UTC and WEST3:30 three and a half behind it.\n"
    "\n"
    "The OSD server looks for the block once, when it starts; it follows each later change of it,\n"
    "but not to another block that is made after --remove. It takes a zone up when the block's\n"
    "change byte is another one than before; setting a zone adds 1 to it, --change sets it alone.\n"
    "\n"
    "Examples: qm5sim clock EAST-9\n"
    "          qm5sim clock CET-1CEST,M3.5.0,M10.5.0/3\n"
    "          qm5sim clock";

struct ClockArguments {
    std::string zone;
    unsigned change = 0;
    bool remove = false;
};

void print()
{
    const time_zone_block::Content content = time_zone_block::read();
    std::cout << "zone: " << content.text << "\nchange byte: " << content.change << '\n';
}

void check_zone(const std::string &zone)
{
    if (zone.size() > time_zone_block::MAX_TEXT)
        throw CLI::ValidationError(zone, "longer than " +
                                             std::to_string(time_zone_block::MAX_TEXT) + " bytes");
}

} // namespace

void add_clock(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<ClockArguments>();
    CLI::App *command =
        app.add_subcommand("clock", "Set the time zone, or print what is set without ZONE.");
    command->footer(CLOCK_FOOTER);
    CLI::Option *zone = command->add_option("zone", arguments->zone, "time zone to set");
    CLI::Option *change =
        command->add_option("--change", arguments->change, "set the change byte, and no zone")
            ->type_name("BYTE")
            ->check(CLI::Range(0u, 255u))
            ->excludes(zone);
    command->add_flag("--remove", arguments->remove, "remove the block of shared memory")
        ->excludes(zone)
        ->excludes(change);
    command->callback([&context, arguments, zone, change] {
        check_zone(arguments->zone);
        if (arguments->remove)
            context.action = time_zone_block::remove;
        else if (change->count() > 0)
            context.action = [arguments] {
                time_zone_block::write_change(static_cast<std::uint8_t>(arguments->change));
            };
        else if (zone->count() == 0)
            context.action = print;
        else
            context.action = [arguments] { time_zone_block::write(arguments->zone); };
    });
}

} // namespace commands
