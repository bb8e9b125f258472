// What the page changes in the simulated codec: posts, faults, settings, clock, palette, frames.
#include "routes.h"

#include "control_files.h"
#include "fault_list.h"
#include "file_io.h"
#include "quoting.h"
#include "sim_reader.h"
#include "time_zone_block.h"

#include <charconv>
#include <utility>

namespace live
{

namespace
{

typedef std::vector<std::string> Words;

// Answers with the command that does the same, once the change can be seen.
void send_command(Call &call, const Words &words, Json answer = Json::object())
{
    Words all = {own_program()};
    all.insert(all.end(), words.begin(), words.end());
    answer["command"] = quote_command(call.site.folder, all);
    call.site.watcher.look();
    send_json(call, answer);
}

// ---- Posts --------------------------------------------------------------------------------------

void change_post(Call &call)
{
    const unsigned post = post_of(call);
    const std::string size = text_of(read_object(call), "size");
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    if (!sim_parse_size(size.c_str(), &width, &height))
        throw ApiError(400, size + ": neither WIDTHxHEIGHT nor closed");
    const bool was_closed =
        sim_reader::read_size(call.site.folder, post).value_or(sim_reader::Size{}).width == 0;
    sim_reader::write_size(call.site.folder, post, width, height);
    Words words = {"post", std::to_string(post)};
    if (width == 0)
        words.push_back("close");
    else
        words.insert(words.end(), {was_closed ? "open" : "resize", size});
    send_command(call, words);
}

void change_frame(Call &call)
{
    const unsigned post = post_of(call);
    const sim_post record = post_now(call);
    if (!sim_reader::has_thread(record))
        throw ApiError(409, "post " + std::to_string(post) + ": it has no post thread");
    try {
        call.site.frames.put(post, call.body, record.width, record.height);
    } catch (const std::runtime_error &error) {
        throw ApiError(400, error.what());
    }
    call.site.watcher.look();
    send_json(call, Json::object());
}

void remove_frame(Call &call)
{
    call.site.frames.remove(post_of(call));
    call.site.watcher.look();
    send_json(call, Json::object());
}

// ---- Faults and settings ------------------------------------------------------------------------

// The words of a line behind others.
Words with_words(Words words, const std::string &line)
{
    for (std::size_t at = 0; at < line.size();) {
        const std::size_t end = std::min(line.find(' ', at), line.size());
        words.push_back(line.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

void add_fault(Call &call)
{
    const std::string line = control_files::join_words(text_of(read_object(call), "fault"));
    if (const char *why = fault_list::refusal_of(line))
        throw ApiError(400, line + ": " + why);
    const std::uint32_t id = or_conflict([&] {
        const std::uint32_t added = fault_list::add(call.site.folder, line);
        fault_list::wait_until_in_force(call.site.folder);
        return added;
    });
    send_command(call, with_words({"fault", "add"}, line), {{"id", id}});
}

void remove_fault(Call &call)
{
    const unsigned id = call.numbers.at(0);
    const bool found = or_conflict([&] {
        const bool removed = fault_list::remove(call.site.folder, id);
        fault_list::wait_until_in_force(call.site.folder);
        return removed;
    });
    if (!found)
        throw ApiError(404, "fault " + std::to_string(id) + ": there is none");
    send_command(call, {"fault", "remove", std::to_string(id)});
}

void clear_faults(Call &call)
{
    or_conflict([&] {
        fault_list::clear(call.site.folder);
        fault_list::wait_until_in_force(call.site.folder);
    });
    send_command(call, {"fault", "clear"});
}

void change_setting(Call &call)
{
    const Json object = read_object(call);
    const std::string line =
        control_files::join_words(text_of(object, "name") + ' ' + text_of(object, "value"));
    sim_settings settings = SIM_DEFAULT_SETTINGS;
    if (const char *why = sim_parse_setting(line.c_str(), &settings))
        throw ApiError(400, line + ": " + why);
    or_conflict([&] {
        control_files::change_settings(call.site.folder, [&line](const std::string &text) {
            return control_files::replace_setting(text, line);
        });
        control_files::wait_until_in_force(call.site.folder, "setting");
    });
    send_command(call, with_words({"setting"}, line));
}

// ---- Clock and palette --------------------------------------------------------------------------

void require_block()
{
    or_conflict(time_zone_block::read);
}

void change_zone(Call &call, const std::string &zone)
{
    if (zone.size() > time_zone_block::MAX_TEXT)
        throw ApiError(400, zone + ": longer than " + std::to_string(time_zone_block::MAX_TEXT) +
                                " bytes");
    time_zone_block::write(zone);
    Words words = {"clock"};
    if (zone.starts_with('-'))
        words.push_back("--"); // or it would be an option
    words.push_back(zone);
    send_command(call, words);
}

// The byte by which the application learns of a zone.
void change_byte(Call &call, const std::string &text)
{
    std::uint8_t byte = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, byte);
    if (error != std::errc{} || stop != end)
        throw ApiError(400, text + ": no number of 0 to 255");
    require_block();
    time_zone_block::write_change(byte);
    send_command(call, {"clock", "--change", std::to_string(byte)});
}

void change_clock(Call &call)
{
    const Json object = read_object(call);
    if (object.contains("change"))
        change_byte(call, text_of(object, "change"));
    else
        change_zone(call, text_of(object, "zone"));
}

void remove_clock(Call &call)
{
    require_block();
    time_zone_block::remove();
    send_command(call, {"clock", "--remove"});
}

void change_palette(Call &call)
{
    try {
        sim_reader::parse_palette("palette", call.body);
    } catch (const std::runtime_error &error) {
        throw ApiError(400, error.what());
    }
    sim_reader::store_palette(call.site.folder, call.body);
    const std::filesystem::path file = page_file(call.site.folder, call.body, ".palette");
    sim_reader::write_file(file, call.body);
    send_command(call, {"palette", "--load", file.string()});
}

void remove_palette(Call &call)
{
    sim_reader::remove_palette(call.site.folder);
    send_command(call, {"palette", "--default"});
}

} // namespace

std::vector<Route> changing_routes()
{
    return {
        {"PUT", "/api/posts/*", LONGEST_TEXT, change_post},
        {"PUT", "/api/posts/*/frame", LONGEST_FRAME, change_frame},
        {"DELETE", "/api/posts/*/frame", NO_BODY, remove_frame},
        {"POST", "/api/faults", LONGEST_TEXT, add_fault},
        {"DELETE", "/api/faults", NO_BODY, clear_faults},
        {"DELETE", "/api/faults/*", NO_BODY, remove_fault},
        {"PUT", "/api/settings", LONGEST_TEXT, change_setting},
        {"PUT", "/api/clock", LONGEST_TEXT, change_clock},
        {"DELETE", "/api/clock", NO_BODY, remove_clock},
        {"PUT", "/api/palette", LONGEST_TEXT, change_palette},
        {"DELETE", "/api/palette", NO_BODY, remove_palette},
    };
}

} // namespace live
