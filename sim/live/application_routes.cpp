// What the page lets the application do.
#include "routes.h"

#include "base64.h"
#include "cli/catalogue.h"
#include "parameters.h"

#include <algorithm>
#include <system_error>

namespace live
{

namespace
{

constexpr const char *HAS_ENDED = "application: qm5sim serve has ended without waiting for it";

bool is_key(const std::string &text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    });
}

// Values go through as they are, for the application to judge; but no argument holds a zero byte.
std::pair<std::string, std::string> read_parameter(const Json &pair)
{
    if (!pair.is_array() || pair.size() != 2 || !pair[0].is_string() || !pair[1].is_string())
        throw ApiError(400, "parameters: not pairs of key and value");
    const std::string key = pair[0];
    const std::string value = pair[1];
    if (!is_key(key))
        throw ApiError(400, "parameters: " + key + ": no key");
    if (value.find('\0') != std::string::npos)
        throw ApiError(400, "parameters: " + key + ": a zero byte");
    return {key, value};
}

// The text of a parameter file, which in base64 may hold any bytes.
std::optional<std::string> read_file(const Json &object)
{
    const auto text = object.find("file");
    const auto coded = object.find("file_base64");
    if (coded != object.end()) {
        std::optional<std::string> bytes =
            coded->is_string() ? decode_base64(coded->get<std::string>()) : std::nullopt;
        if (!bytes || text != object.end())
            throw ApiError(400, "file_base64: no text in base64, or not the only file");
        return bytes;
    }
    if (text == object.end())
        return std::nullopt;
    if (!text->is_string())
        throw ApiError(400, "file: no text");
    return text->get<std::string>();
}

void read_parameters(const Json &object, Task &task)
{
    task.file = read_file(object);
    if (const auto parameters = object.find("parameters"); parameters != object.end()) {
        if (!parameters->is_array())
            throw ApiError(400, "parameters: no list");
        for (const Json &pair : *parameters)
            task.parameters.push_back(read_parameter(pair));
    }
    if ((task.file || !task.parameters.empty()) && !Application::takes_parameters(task.function))
        throw ApiError(400, task.function + ": it takes no parameters");
}

bool read_flag(const Json &object, const char *name)
{
    const auto found = object.find(name);
    if (found != object.end() && !found->is_boolean())
        throw ApiError(400, std::string(name) + ": neither true nor false");
    return found != object.end() && found->get<bool>();
}

// ---- Changes ------------------------------------------------------------------------------------

constexpr const char *FILE_HEAD = "[osd]\n";

// Has this parameter no option, so that it goes through a file alone?
bool is_for_file(const std::string &key)
{
    return std::any_of(
        osd_option_table.begin(), osd_option_table.begin() + OSD_PARAMS,
        [&key](const option &row) { return row.name == key && row.val == OSD_NO_POST; });
}

// Puts into a file what no option takes.
void move_to_file(Task &task)
{
    std::string lines;
    for (const auto &[key, value] : task.parameters) {
        if (is_for_file(key) && value.find('\n') != std::string::npos)
            throw ApiError(400, "parameters: " + key + ": a line feed");
        if (is_for_file(key))
            lines += key + '=' + value + '\n';
    }
    if (lines.empty())
        return;
    task.file = task.file.value_or(FILE_HEAD) + lines;
    std::erase_if(task.parameters, [](const auto &pair) { return is_for_file(pair.first); });
}

// Adds what is in force to changes of it, for a server that begins without: through a file, which
// keeps every byte; but for an empty value, which only an option gives.
void keep_in_force(Task &task)
{
    const std::optional<Values> values = or_conflict([] { return read_values_in_force(); });
    if (!values)
        throw ApiError(409, "keep: no server runs");
    std::string file = FILE_HEAD;
    for (const auto &[key, value] : *values) {
        const bool is_changed =
            std::any_of(task.parameters.begin(), task.parameters.end(),
                        [&key = key](const auto &pair) { return pair.first == key; });
        if (!is_changed && !value.empty())
            file += key + '=' + value + '\n';
        else if (!is_changed && !is_for_file(key))
            task.parameters.push_back({key, ""});
    }
    task.file = file;
}

Task read_task(const Json &object)
{
    Task task;
    task.function = text_of(object, "function");
    if (!Application::is_function(task.function))
        throw ApiError(400, task.function + ": no function");
    read_parameters(object, task);
    const bool has_file = task.file.has_value();
    if (read_flag(object, "keep")) {
        if (task.function != "restart" || has_file)
            throw ApiError(400, "keep: only for a restart without a file");
        keep_in_force(task);
    }
    if (!has_file)
        move_to_file(task);
    return task;
}

std::optional<Done> run_task(const Call &call, const Task &task)
{
    try {
        return call.site.application.run(task);
    } catch (const std::system_error &error) {
        if (error.code() == std::errc::argument_list_too_long)
            throw ApiError(400, "parameters: longer than a program's words may be");
        throw;
    }
}

void run_application(Call &call)
{
    const Json object = read_object(call);
    const Task task = read_task(object);
    if (read_flag(object, "preview")) {
        send_json(call, {{"command", call.site.application.command_of(task)},
                         {"file", task.file ? Json(*task.file) : Json()}});
        return;
    }
    const std::optional<Done> done = run_task(call, task);
    if (!done)
        throw ApiError(409, HAS_ENDED);
    call.site.watcher.look();
    const Finished &finished = done->finished;
    send_json(call, {{"command", done->command},
                     {"status", finished.status ? Json(*finished.status) : Json()},
                     {"signal", finished.signal ? Json(*finished.signal) : Json()},
                     {"timeout", finished.timeout},
                     {"output", finished.output},
                     {"error", finished.error}});
}

void send_parameter_file(Call &call)
{
    const std::optional<Application::Saved> saved = call.site.application.save();
    if (!saved)
        throw ApiError(409, HAS_ENDED);
    if (!saved->good)
        throw ApiError(409, saved->text);
    call.response.set_header("Content-Disposition", "attachment; filename=\"qm5_app_comm.conf\"");
    call.response.set_content(saved->text, "text/plain; charset=utf-8");
}

void compare(Call &call)
{
    const std::optional<std::string> file = read_file(read_object(call));
    if (!file)
        throw ApiError(400, "file: no text");
    const std::optional<Json> compared = compare_parameters(*file, call.site.stop);
    if (!compared)
        throw ApiError(409, HAS_ENDED);
    send_json(call, *compared);
}

} // namespace

std::vector<Route> application_routes()
{
    return {
        {"POST", "/api/application", LONGEST_TASK, run_application},
        {"POST", "/api/parameters/file", NO_BODY, send_parameter_file},
        {"POST", "/api/parameters/compare", LONGEST_TASK, compare},
    };
}

} // namespace live
