#include "application_guides.h"

#include "display/post.h"
#include "file_io.h"
#include "server/channel.h"

#include <memory>

namespace sim_reader
{

namespace
{

typedef std::array<osd_post, OSD_POSTS> PostTable;

// The post table as the application fills it from its parameters in force.
PostTable read_post_table()
{
    PostTable table{};
    if (!is_there(OSD_TMP_PARAM))
        return table;
    const std::unique_ptr<param_seclist, decltype(&param_seclist_free)> seclist(
        param_seclist_new(OSD_TMP_PARAM), param_seclist_free);
    if (!seclist)
        return table;
    if (const param_section *section = param_seclist_search_section(seclist.get(), "osd"))
        osd_set_post_params(section, table.data());
    return table;
}

// An OSD that was opened for a text has a row of the slot's cells.
std::optional<Cell> cell_of(const sim_osd &osd, const osd_slot_row &slot)
{
    const bool is_row = osd.color_type == slot.color_type && osd.width % slot.cells == 0;
    if (osd.handle == 0 || osd.width == 0 || !is_row)
        return std::nullopt;
    return Cell{osd.width / slot.cells, osd.height};
}

} // namespace

Guides application_guides(const Post &post, unsigned number)
{
    const PostTable table = read_post_table();
    const osd_post &own = table.at(number);
    Guides guides;
    const SafeSpace safe = {own.safe_space_up, own.safe_space_down, own.safe_space_left,
                            own.safe_space_right};
    if (safe != SafeSpace{} && leaves_something(safe, post.width, post.height))
        guides.safe = safe;
    for (std::size_t i = 0; i < SIM_OSDS; i++) {
        if (own.text_on[i] != 0) // which wins over a rectangle
            guides.cells[i] = cell_of(post.osd[i].record, osd_slot_table[i]);
    }
    return guides;
}

} // namespace sim_reader
