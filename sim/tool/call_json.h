// A recorded call as a JSON object, for whoever prints or sends calls.
#pragma once

#include "call_reader.h"

#include <nlohmann/json.hpp>

namespace call_json
{

// The call of this number. Throws std::runtime_error for one of an unknown operation.
nlohmann::ordered_json describe(const call_reader::Calls &calls, std::uint64_t number,
                                const sim_call_record &call);

} // namespace call_json
