#include "state_json.h"

#include "state_reader.h"

namespace state_json
{

using Json = nlohmann::ordered_json;

namespace
{

Json describe_osd(unsigned number, const sim_osd &osd)
{
    return {{"number", number},
            {"handle", osd.handle},
            {"bits_per_pixel", sim_reader::bits_per_pixel(osd)},
            {"width", osd.width},
            {"height", osd.height},
            {"line_bytes", osd.line_bytes},
            {"line_pixels", sim_reader::pixels_per_line(osd)},
            {"memory_bytes", sim_reader::bytes_of_memory(osd)},
            {"shown", osd.shown != 0},
            {"x", osd.x},
            {"y", osd.y},
            {"sets", osd.sets}};
}

} // namespace

Json describe_post(unsigned number, const sim_post &post)
{
    Json osds = Json::array();
    for (unsigned i = 0; i < SIM_OSDS; i++) {
        if (post.osd[i].handle != 0)
            osds.push_back(describe_osd(i, post.osd[i]));
    }
    return {{"number", number},           {"open", sim_reader::has_thread(post)},
            {"resource_id", post.res_id}, {"width", post.width},
            {"height", post.height},      {"osds", osds}};
}

} // namespace state_json
