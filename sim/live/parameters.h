// The application's parameters: what there are, what is in force, and whether a file of them is
// good. The catalogue and the rules are the application's own. What fails throws
// std::runtime_error, as what is in force does while a server runs and it can't be read in full.
#pragma once

#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace live
{

typedef std::map<std::string, std::string> Values;

// 10 milliseconds.
void rest_a_moment();

// What is in force, by key; none if no server runs. A client may be writing it just now: it is read
// again, 100 times in all, `rest` after each time.
std::optional<Values> read_values_in_force(const std::function<void()> &rest = rest_a_moment);

// All parameters in their order, with what is in force while a server runs.
nlohmann::ordered_json describe_parameters();

// Where a parameter file says something else than what is in force, or the application's own words
// for why it is no good. Nothing if the descriptor `stop` becomes readable first.
std::optional<nlohmann::ordered_json> compare_parameters(const std::string &file, int stop);

// Checks the parameter file on standard input by the application's own code: its values as a CBOR
// map on standard output and 0, or its reports on standard error and 1. For a process that does
// nothing else, as the reports go to the stream itself and their code is made for one thread.
int check_parameters();

// The words behind qm5sim that run it.
constexpr const char *CHECK_PARAMETERS = "check-parameters";

} // namespace live
