// The posts and OSDs of a simulated codec as JSON, for whoever prints or sends them.
#pragma once

#include "sim_state.h"

#include <nlohmann/json.hpp>

namespace state_json
{

// A post with its open OSDs.
nlohmann::ordered_json describe_post(unsigned number, const sim_post &post);

} // namespace state_json
