// qm5sim state: prints the post threads and their OSDs, for people or for programs.
#include "commands.h"

#include "file_io.h"
#include "sim_reader.h"
#include "state_json.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace commands
{

namespace
{

struct StateArguments {
    bool json = false;
};

// ---- For people ---------------------------------------------------------------------------------

typedef std::vector<std::string> Row;

// Rows of as many words each, the first of them the heads, in columns two blanks apart.
std::string format_table(const std::vector<Row> &rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row &row : rows) {
        for (std::size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (const Row &row : rows) {
        for (std::size_t i = 0; i + 1 < row.size(); i++)
            text += row[i] + std::string(widths[i] + 2 - row[i].size(), ' ');
        text += row.back() + '\n';
    }
    return text;
}

std::vector<Row> post_rows(const sim_state &state)
{
    std::vector<Row> rows = {{"POST", "RESOURCE", "SIZE"}};
    for (unsigned i = 0; i < SIM_POSTS; i++) {
        const sim_post &post = state.post[i];
        const bool open = sim_reader::has_thread(post);
        rows.push_back({std::to_string(i),
                        open && post.res_id != 0 ? sim_reader::word_text(post.res_id) : "-",
                        open ? sim_reader::size_text(post.width, post.height) : "closed"});
    }
    return rows;
}

Row osd_row(unsigned post, unsigned number, const sim_osd &osd)
{
    return {std::to_string(post),
            std::to_string(number),
            sim_reader::word_text(osd.handle),
            std::to_string(sim_reader::bits_per_pixel(osd)),
            sim_reader::size_text(osd.width, osd.height),
            std::to_string(osd.line_bytes),
            std::to_string(sim_reader::pixels_per_line(osd)),
            std::to_string(sim_reader::bytes_of_memory(osd)),
            osd.shown != 0 ? "yes" : "no",
            std::to_string(osd.x) + ',' + std::to_string(osd.y),
            std::to_string(osd.sets)};
}

std::vector<Row> osd_rows(const sim_state &state)
{
    std::vector<Row> rows = {{"POST", "OSD", "HANDLE", "BITS", "REQUESTED", "LINE BYTES",
                              "LINE PIXELS", "MEMORY", "SHOWN", "POSITION", "SETS"}};
    for (unsigned i = 0; i < SIM_POSTS; i++) {
        for (unsigned j = 0; j < SIM_OSDS; j++) {
            const sim_osd &osd = state.post[i].osd[j];
            if (osd.handle != 0)
                rows.push_back(osd_row(i, j, osd));
        }
    }
    return rows;
}

std::string format_text(const sim_state &state, bool device_open)
{
    std::string text =
        device_open ? "A process has the device open.\n\n" : "No process has the device open.\n\n";
    text += format_table(post_rows(state));
    const std::vector<Row> osds = osd_rows(state);
    if (osds.size() > 1) // than the heads
        text += '\n' + format_table(osds);
    return text;
}

// ---- For programs -------------------------------------------------------------------------------

std::string format_json(const sim_state &state, bool device_open)
{
    nlohmann::ordered_json posts = nlohmann::ordered_json::array();
    for (unsigned i = 0; i < SIM_POSTS; i++)
        posts.push_back(state_json::describe_post(i, state.post[i]));
    const nlohmann::ordered_json all = {{"device_open", device_open}, {"posts", posts}};
    return all.dump(2) + '\n';
}

// ---- The command --------------------------------------------------------------------------------

void print(const Context &context, const StateArguments &arguments)
{
    const sim_state state = sim_reader::read_state(context.folder);
    const bool device_open = sim_reader::is_device_open(context.folder);
    sim_reader::write_output(arguments.json ? format_json(state, device_open)
                                            : format_text(state, device_open));
}

constexpr const char *STATE_FOOTER =
    "Only open OSDs are listed. A line of an OSD holds at least the pixels of the requested "
    "width.\n"
    "Post threads are there before the first server and after the last one; a library gives each\n"
    "its resource ID. What a server that died has left stays until the device is opened again, or\n"
    "its post thread ends.\n"
    "\n"
    "Examples: qm5sim state\n"
    "          qm5sim state --json | jq '.posts[].osds[] | select(.shown)'";

} // namespace

void add_state(CLI::App &app, Context &context)
{
    const auto arguments = std::make_shared<StateArguments>();
    CLI::App *command = app.add_subcommand("state", "Print the post threads and their OSDs.");
    command->footer(STATE_FOOTER);
    command->add_flag("--json", arguments->json, "print JSON, for programs");
    command->callback([&context, arguments] {
        context.action = [&context, arguments] { print(context, *arguments); };
    });
}

} // namespace commands
