// What the page lets the application do.
#include "routes.h"

#include "parameters.h"

#include <algorithm>

namespace live
{

namespace
{

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

void read_parameters(const Json &object, Task &task)
{
    if (const auto file = object.find("file"); file != object.end()) {
        if (!file->is_string())
            throw ApiError(400, "file: no text");
        task.file = file->get<std::string>();
    }
    if (const auto parameters = object.find("parameters"); parameters != object.end()) {
        if (!parameters->is_array())
            throw ApiError(400, "parameters: no list");
        for (const Json &pair : *parameters)
            task.parameters.push_back(read_parameter(pair));
    }
    if ((task.file || !task.parameters.empty()) && !Application::takes_parameters(task.function))
        throw ApiError(400, task.function + ": it takes no parameters");
}

Task read_task(const Call &call)
{
    const Json object = read_object(call);
    Task task;
    task.function = text_of(object, "function");
    if (!Application::is_function(task.function))
        throw ApiError(400, task.function + ": no function");
    read_parameters(object, task);
    return task;
}

void run_application(Call &call)
{
    const std::optional<Done> done = call.site.application.run(read_task(call));
    if (!done)
        throw ApiError(409, "application: the server ends");
    call.site.watcher.look();
    const Finished &finished = done->finished;
    send_json(call, {{"command", done->command},
                     {"status", finished.status ? Json(*finished.status) : Json()},
                     {"signal", finished.signal ? Json(*finished.signal) : Json()},
                     {"timeout", finished.timeout},
                     {"output", finished.output},
                     {"error", finished.error}});
}

void compare(Call &call)
{
    const Json object = read_object(call);
    const auto file = object.find("file");
    if (file == object.end() || !file->is_string())
        throw ApiError(400, "file: no text");
    const std::optional<Json> compared =
        compare_parameters(file->get<std::string>(), call.site.stop);
    if (!compared)
        throw ApiError(409, "application: the server ends");
    send_json(call, *compared);
}

} // namespace

std::vector<Route> application_routes()
{
    return {
        {"POST", "/api/application", LONGEST_TEXT, run_application},
        {"POST", "/api/parameters/compare", LONGEST_TEXT, compare},
    };
}

} // namespace live
