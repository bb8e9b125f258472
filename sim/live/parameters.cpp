#include "parameters.h"

#include "application.h"
#include "child.h"
#include "cli/catalogue.h"
#include "file_io.h"
#include "server/channel.h"

#include <chrono>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <vector>

namespace live
{

using Json = nlohmann::ordered_json;

namespace
{

// ---- In force -----------------------------------------------------------------------------------

constexpr int ATTEMPTS = 100;

// What stands in the temporary parameter file, which the application writes itself: a line for each
// parameter, so that one without an end is cut off.
Values read_values()
{
    Values values;
    const std::string text = sim_reader::read_file_if_there(OSD_TMP_PARAM).value_or("");
    std::size_t end = 0;
    for (std::size_t at = 0; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line = text.substr(at, end - at);
        const std::size_t separator = line.find('=');
        if (separator != std::string::npos)
            values[line.substr(0, separator)] = line.substr(separator + 1);
    }
    return values;
}

} // namespace

void rest_a_moment()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

std::optional<Values> read_values_in_force(const std::function<void()> &rest)
{
    for (int i = 0; i < ATTEMPTS; i++) {
        if (!is_server_running())
            return std::nullopt;
        Values values = read_values();
        if (values.size() >= OSD_PARAMS)
            return values;
        rest();
    }
    sim_reader::fail(OSD_TMP_PARAM, "not all parameters are there");
}

namespace
{

Json value_of(const std::optional<Values> &values, const std::string &key)
{
    if (!values)
        return nullptr;
    const auto found = values->find(key);
    return found == values->end() ? Json() : Json(found->second);
}

// ---- Catalogue ----------------------------------------------------------------------------------

const char *kind_of(osd_value_kind kind)
{
    switch (kind) {
    case OSD_VALUE_NUMBER:
        return "number";
    case OSD_VALUE_STRING:
        return "string";
    default:
        return "path";
    }
}

// A post's key is PostX and what it is about: RectangleYOn and OsdY... are a rectangle's.
std::string group_of(const option &row)
{
    if (row.val == OSD_NO_POST)
        return "common";
    const std::string about = std::string(row.name).substr(std::string("PostX").size());
    for (const std::string start : {"Rectangle", "Osd"}) {
        if (about.compare(0, start.size(), start) == 0)
            return std::string("rectangle") + about.at(start.size());
    }
    return "texts";
}

Json describe_row(std::size_t row, const std::optional<Values> &values)
{
    const option &option = osd_option_table[row];
    const bool is_post = option.val != OSD_NO_POST;
    return {{"key", option.name},
            {"post", is_post ? Json(option.val) : Json()},
            {"group", group_of(option)},
            {"kind", kind_of(osd_value_ranges[row].kind)},
            {"limit", osd_value_ranges[row].limit},
            {"default", osd_default_values[row]},
            {"option", is_post},
            {"value", value_of(values, option.name)}};
}

} // namespace

Json describe_parameters()
{
    const std::optional<Values> values = read_values_in_force();
    Json parameters = Json::array();
    for (std::size_t row = 0; row < OSD_PARAMS; row++)
        parameters.push_back(describe_row(row, values));
    return {{"running", values.has_value()}, {"parameters", parameters}};
}

// ---- Comparison ---------------------------------------------------------------------------------

namespace
{

constexpr std::chrono::seconds CHECK_PATIENCE{10};

} // namespace

std::optional<Json> compare_parameters(const std::string &file, int stop)
{
    // An empty file would be none.
    const std::optional<Finished> checked = run_child(
        {"/proc/self/exe", CHECK_PARAMETERS}, file.empty() ? "\n" : file, CHECK_PATIENCE, stop);
    if (!checked)
        return std::nullopt;
    Json differences = Json::array();
    if (checked->status == 1)
        return Json{{"differences", differences}, {"error", checked->error}};
    const Json pairs = Json::from_cbor(checked->output, true, false); // which keeps every byte
    if (checked->status != 0 || !pairs.is_object())
        throw std::runtime_error("parameter file: it can't be checked");
    const std::optional<Values> values = read_values_in_force();
    for (const auto &[key, value] : pairs.items()) {
        const Json own = value_of(values, key);
        if (own != value)
            differences.push_back({{"key", key}, {"value", own}, {"file", value}});
    }
    return Json{{"differences", differences}, {"error", nullptr}};
}

namespace
{

// A walk callback; a later value for a key replaces the one before, and an empty one changes
// nothing.
std::int32_t keep_pair(void *pair, void *pairs)
{
    const auto *own = static_cast<const param_parampair *>(pair);
    if (own->value)
        (*static_cast<Json *>(pairs))[own->key] = own->value;
    return 0;
}

} // namespace

int check_parameters()
{
    constexpr const char *file = "/dev/stdin";
    cmn_role = "update"; // whose words they would be
    param_section *section = osd_get_default_section();
    const bool good = section && osd_read_parameter_file(section, file) == 0;
    if (section)
        param_section_free(section);
    if (!good)
        return 1;
    param_seclist *seclist = param_seclist_new(file);
    const param_section *found = param_seclist_search_section(seclist, OSD_SECTION_NAME);
    Json pairs = Json::object();
    cmn_list_foreach(found->pairs, keep_pair, &pairs);
    param_seclist_free(seclist);
    const std::vector<std::uint8_t> bytes = Json::to_cbor(pairs);
    std::cout.write(reinterpret_cast<const char *>(bytes.data()),
                    static_cast<std::streamsize>(bytes.size()));
    return 0;
}

} // namespace live
