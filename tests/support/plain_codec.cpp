// A codec library that keeps memory for its OSDs and does nothing else, so that what is measured or
// counted around it is the application's own. Handles are 1 + post * 4 + number of the OSD.
#include "display/qm5codec.h"

#include <cstdlib>

namespace
{

constexpr std::uint32_t POSTS = 4;
constexpr std::uint32_t OSDS = 4;
constexpr std::uint32_t LINE_ALIGNMENT = 16;

struct Osd {
    void *memory;
    std::uint32_t size;
};
Osd osds[POSTS * OSDS];

// Sizes by resource ID, which are 1 to 4.
constexpr std::uint16_t widths[] = {720, 1920, 640, 1280};
constexpr std::uint16_t heights[] = {576, 1080, 360, 720};

} // namespace

extern "C" {

int qm5_cl_library_init(void)
{
    return 0;
}

int qm5_cl_sys_open_device(void)
{
    return 0;
}

int qm5_cl_post_notify_callback(qm5_cl_post_notify_function *)
{
    return 0;
}

int qm5_cl_post_set_notify(std::uint32_t)
{
    return 0;
}

int qm5_cl_post_thread_get_status(std::uint32_t res_id, qm5_cl_post_status *status)
{
    status->width = widths[(res_id - 1) % POSTS];
    status->height = heights[(res_id - 1) % POSTS];
    return 0;
}

int qm5_cl_post_open_osd(std::uint32_t res_id, const qm5_cl_osd_param *param, std::uint32_t *handle,
                         std::uint32_t *aux, std::uint32_t *line_bytes)
{
    const std::uint32_t index = (res_id - 1) % POSTS * OSDS + param->number % OSDS;
    const std::uint32_t bytes = (param->width * (2u << param->color_type) + 7) / 8;
    *line_bytes = (bytes + LINE_ALIGNMENT - 1) / LINE_ALIGNMENT * LINE_ALIGNMENT;
    osds[index].size = *line_bytes * param->height;
    osds[index].memory = std::realloc(osds[index].memory, osds[index].size + 4);
    *handle = index + 1;
    *aux = 0;
    return 0;
}

int qm5_cl_post_close_osd(std::uint32_t, std::uint32_t handle)
{
    std::free(osds[handle - 1].memory);
    osds[handle - 1] = {};
    return 0;
}

int qm5_cl_post_clear_osd(std::uint32_t, std::uint32_t)
{
    return 0;
}

int qm5_cl_post_get_osd_mem(std::uint32_t, std::uint32_t handle, qm5_cl_osd_mem *mem)
{
    mem->memory = osds[handle - 1].memory;
    mem->size = osds[handle - 1].size;
    return 0;
}

int qm5_cl_post_set_osd(std::uint32_t, std::uint32_t, qm5_cl_osd_pos)
{
    return 0;
}

int qm5_cl_sys_close_device(void)
{
    return 0;
}

int qm5_cl_library_exit(void)
{
    return 0;
}

} // extern "C"
