// The page itself.
#include "routes.h"

#include "assets.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace live
{

namespace
{

constexpr std::string_view START = "index.html";
constexpr std::string_view TOKEN = "@TOKEN@";

struct Type {
    std::string_view ending;
    const char *name;
};

constexpr std::array<Type, 4> TYPES = {{
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".svg", "image/svg+xml"},
}};

bool ends_with(std::string_view text, std::string_view ending)
{
    return text.size() >= ending.size() && text.substr(text.size() - ending.size()) == ending;
}

const char *type_of(std::string_view name)
{
    const auto *found = std::find_if(TYPES.begin(), TYPES.end(), [name](const Type &type) {
        return ends_with(name, type.ending);
    });
    return found == TYPES.end() ? "application/octet-stream" : found->name;
}

void send_page(Call &call)
{
    const std::string name =
        call.request.path == "/" ? std::string(START) : call.request.path.substr(1);
    for (const Asset &asset : page_assets()) {
        if (asset.name != name)
            continue;
        std::string text(asset.bytes);
        const std::size_t token = text.find(TOKEN);
        if (name == START && token != std::string::npos)
            text.replace(token, TOKEN.size(), call.site.page_token);
        call.response.set_content(text, type_of(name));
        return;
    }
    throw ApiError(404, call.request.path + ": there is no such page");
}

} // namespace

std::vector<Route> page_routes()
{
    std::vector<Route> all = {{"GET", "/", NO_BODY, send_page}};
    static const std::vector<std::string> paths = [] {
        std::vector<std::string> made;
        for (const Asset &asset : page_assets()) {
            if (asset.name != START)
                made.push_back('/' + std::string(asset.name));
        }
        return made;
    }();
    for (const std::string &path : paths)
        all.push_back({"GET", path.c_str(), NO_BODY, send_page});
    return all;
}

} // namespace live
