#include "state_report.h"

#include "state_json.h"

namespace live
{

namespace
{

using Json = nlohmann::ordered_json;

template <typename Value>
Json value_or_null(const std::optional<Value> &value)
{
    return value ? Json(*value) : Json();
}

Json describe_post(const Facts &facts, const sim_post &record, unsigned number)
{
    Json post = state_json::describe_post(number, record);
    for (Json &osd : post["osds"]) {
        const unsigned which = osd["number"];
        osd["color_type"] = record.osd[which].color_type;
        osd["last_set"] = value_or_null(facts.last_set[number][which]);
    }
    post["wanted"] = value_or_null(facts.wanted[number]);
    post["background"] = facts.background[number];
    const auto [width, height] = facts.frame[number];
    post["frame"] = width ? Json{{"width", width}, {"height", height}} : Json();
    return post;
}

// The words of a fault without the ID in front of them.
std::string words_of(const std::string &line)
{
    return line.substr(line.find(' ') + 1);
}

Json describe_faults(const Facts &facts)
{
    Json list = Json::array();
    for (const fault_list::Entry &fault : facts.faults.faults)
        list.push_back({{"id", fault.id},
                        {"line", words_of(fault.line)},
                        {"met", fault.met},
                        {"happened", fault.happened}});
    return {
        {"on", facts.settings.faults != 0}, {"list", list}, {"error", value_or_null(facts.error)}};
}

Json describe_settings(const sim_settings &settings)
{
    return {{"alignment", settings.alignment},
            {"strict", settings.strict},
            {"faults", settings.faults},
            {"record", settings.record}};
}

} // namespace

std::string format_state(const Facts &facts)
{
    const sim_state &state = facts.shown;
    Json posts = Json::array();
    for (unsigned i = 0; i < SIM_POSTS; i++)
        posts.push_back(describe_post(facts, state.post[i], i));
    Json all;
    all["sequence"] = state.sequence;
    all["folder"] = facts.state || facts.state_error;
    all["state_error"] = value_or_null(facts.state_error);
    all["device_open"] = facts.device_open;
    all["application"] = {{"running", facts.running}};
    all["posts"] = posts;
    all["palette"] = facts.palette;
    all["parameters"] = facts.parameters;
    all["faults"] = describe_faults(facts);
    all["settings"] = describe_settings(facts.settings);
    all["clock"] = facts.zone ? Json{{"zone", *facts.zone}, {"change", facts.zone_change}} : Json();
    all["breaches"] = state.breaches;
    all["log"] = value_or_null(facts.log);
    all["tool"] = facts.tool;
    return all.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace live
