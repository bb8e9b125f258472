#include "call_json.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string>

namespace call_json
{

namespace
{

using Json = nlohmann::ordered_json;

struct Field {
    const char *name = nullptr;
    bool is_word = false; // shown in hexadecimal: it is compared, not counted with
};

struct Fields {
    std::array<Field, 5> argument;
    std::array<Field, 3> given;
};

constexpr Field RES_ID = {"res_id", true};
constexpr Field HANDLE = {"handle", true};

Fields fields_of(std::uint32_t operation)
{
    switch (operation) {
    case SIM_SET_NOTIFY:
        return {{{{"mask"}}}, {}};
    case SIM_THREAD_GET_STATUS:
        return {{{RES_ID}}, {{{"width"}, {"height"}}}};
    case SIM_OPEN_OSD:
        return {{{RES_ID, {"number"}, {"width"}, {"height"}, {"color_type"}}},
                {{HANDLE, {"aux", true}, {"line_bytes"}}}};
    case SIM_CLOSE_OSD:
    case SIM_CLEAR_OSD:
        return {{{RES_ID, HANDLE}}, {}};
    case SIM_GET_OSD_MEM:
        return {{{RES_ID, HANDLE}}, {{{"size"}}}};
    case SIM_SET_OSD:
        return {{{RES_ID, HANDLE, {"x"}, {"y"}}}, {}};
    case SIM_NOTIFY:
        return {{{RES_ID, {"post"}, {"opened"}}}, {}};
    default:
        return {};
    }
}

std::string hash_text(std::uint64_t hash)
{
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(hash));
    return text.data();
}

// RFC 3339, to the microsecond.
std::string time_text(std::uint64_t nanoseconds)
{
    constexpr std::uint64_t second = 1000000000;
    const auto seconds = static_cast<std::time_t>(nanoseconds / second);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::array<char, 32> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    std::array<char, 16> fraction{};
    std::snprintf(fraction.data(), fraction.size(), ".%06uZ",
                  static_cast<unsigned>(nanoseconds % second / 1000));
    return std::string(date.data()) + fraction.data();
}

// Microseconds, rounded to one decimal.
double microseconds(std::uint64_t nanoseconds)
{
    const std::uint64_t tenths = nanoseconds / 100 + (nanoseconds % 100 >= 50 ? 1 : 0);
    return static_cast<double>(tenths) / 10;
}

template <std::size_t SIZE>
void add_fields(Json &line, const std::array<Field, SIZE> &fields, const std::uint32_t *values)
{
    for (std::size_t i = 0; i < SIZE && fields[i].name; i++) {
        if (fields[i].is_word)
            line[fields[i].name] = sim_reader::word_text(values[i]);
        else
            line[fields[i].name] = values[i];
    }
}

} // namespace

Json describe(const call_reader::Calls &calls, std::uint64_t number, const sim_call_record &call)
{
    const Fields fields = fields_of(call.operation);
    Json line;
    line["n"] = number;
    line["time"] = time_text(call.time);
    line["thread"] = call.thread;
    line["call"] = calls.name_of(number, call);
    add_fields(line, fields.argument, call.argument);
    line["result"] = call.result;
    if (call.result != 0)
        line["errno"] = sim_reader::word_text(call.error);
    else
        add_fields(line, fields.given, call.given);
    if (call.operation == SIM_SET_OSD && call.hash != 0) // 0: not known, as of a failed call
        line["hash"] = hash_text(call.hash);
    line["us"] = microseconds(call.duration);
    return line;
}

} // namespace call_json
