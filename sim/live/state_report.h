// What a page is told of the simulated codec and what stands around it, as one JSON object.
#pragma once

#include "fault_list.h"
#include "frames.h"
#include "sim_state.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace live
{

struct Facts {
    std::optional<sim_state> state; // none: the folder holds none, or none that can be read:
    std::optional<std::string> state_error; // why not
    sim_state shown{}; // it, with the posts as they are while no process has the device, or before
    bool device_open = false;
    bool running = false; // an OSD server
    std::array<std::optional<std::string>, SIM_POSTS> wanted;
    std::array<std::uint64_t, SIM_POSTS> background{};
    std::array<Frames::Size, SIM_POSTS> frame{};
    std::array<std::array<std::optional<double>, SIM_OSDS>, SIM_POSTS> last_set; // Unix seconds
    std::uint64_t palette = 0;    // versions of the palette,
    std::uint64_t parameters = 0; // and of the parameters in force
    sim_settings settings = SIM_DEFAULT_SETTINGS;
    fault_list::List faults;
    std::optional<std::string> error; // why settings or faults can't be read
    std::optional<std::string> zone;
    unsigned zone_change = 0;
    std::optional<std::string> log;
    std::string tool; // the beginning of each command of the tool for this codec
};

std::string format_state(const Facts &facts);

} // namespace live
