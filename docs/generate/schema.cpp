#include "schema.h"

#include "families.h"

#include <nlohmann/json.hpp>

namespace reference
{

namespace
{

using Json = nlohmann::ordered_json;

// What no value can hold: a line feed and a zero byte, for they end the line, and what is more than
// a byte. Readers differ in the escapes and anchors that they know, so there are none.
constexpr const char *NO_BYTES = "[^\x01-\x09\x0b-\u00ff]";

// A line holds the key, "=" and the value; what is more of the value is lost.
std::size_t longest_on_a_line(const std::string &key)
{
    return PARAM_LINE_SIZE - 1 - (key + '=').size();
}

Json make_values(const Parameter &parameter)
{
    if (parameter.range.kind == OSD_VALUE_NUMBER)
        return {{"type", "integer"},
                {"minimum", 0},
                {"maximum", parameter.range.limit},
                {"default", std::stoul(parameter.default_text)}};
    Json values = {{"type", "string"}, {"not", {{"pattern", NO_BYTES}}}};
    if (parameter.range.kind == OSD_VALUE_PATH)
        // The empty default isn't one of its values.
        values.update({{"minLength", 1}, {"maxLength", longest_on_a_line(parameter.key)}});
    else
        values.update({{"maxLength", parameter.range.limit}, {"default", parameter.default_text}});
    return values;
}

Json make_properties()
{
    Json properties;
    for (const Family &family : read_families()) {
        for (const Parameter &parameter : family.members) {
            Json &property = properties[parameter.key];
            property["description"] = describe(family, parameter);
            property.update(make_values(parameter));
        }
    }
    return properties;
}

} // namespace

std::string make_schema()
{
    const Json schema = {
        {"$schema", "http://json-schema.org/draft-07/schema#"},
        {"title", "Section [osd] of a parameter file of qm5osd"},
        {"description", "Each member is one line, key=value. A text has one character for each "
                        "byte of the file, U+0001 to U+00FF."},
        {"type", "object"},
        {"properties", make_properties()},
        {"additionalProperties", false},
    };
    return schema.dump(2, ' ', true) + '\n';
}

} // namespace reference
