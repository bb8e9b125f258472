// The twelve operations of the codec library, on a simulated codec: what the application calls on
// a PC. Everything between the calls is in the state folder, see sim_state.h.
#include "sim_posts.h"

#include <cstring>

#define SIM_EXPORT extern "C" [[gnu::visibility("default")]]

// A line of OSD memory is rounded up to what the bus moves at a time.
constexpr std::uint32_t SIM_LINE_ALIGNMENT = 16;

constexpr std::uint32_t SIM_COLOR_TYPES = 3;

// How far the server has come in bringing the library up.
static enum {
    SIM_DOWN,
    SIM_INITIALISED,
    SIM_DEVICE_OPEN,
} sim_stage = SIM_DOWN;

static qm5_cl_post_notify_function *sim_notify;
static bool sim_notifying;

// ---- Library and device -------------------------------------------------------------------------

SIM_EXPORT int qm5_cl_library_init(void)
{
    if (sim_stage != SIM_DOWN)
        return sim_fail(SIM_ERROR_ORDER);
    sim_stage = SIM_INITIALISED;
    return 0;
}

SIM_EXPORT int qm5_cl_sys_open_device(void)
{
    if (sim_stage != SIM_INITIALISED)
        return sim_fail(SIM_ERROR_ORDER);
    if (sim_map_state() != 0)
        return -1;
    sim_stage = SIM_DEVICE_OPEN;
    return 0;
}

SIM_EXPORT int qm5_cl_post_notify_callback(qm5_cl_post_notify_function *callback)
{
    if (sim_stage != SIM_DEVICE_OPEN)
        return sim_fail(SIM_ERROR_ORDER);
    if (!callback)
        return sim_fail(SIM_ERROR_ARGUMENT);
    sim_notify = callback;
    return 0;
}

SIM_EXPORT int qm5_cl_post_set_notify(std::uint32_t mask)
{
    if (!sim_notify || sim_notifying)
        return sim_fail(SIM_ERROR_ORDER);
    if (sim_start_posts(sim_notify, mask) != 0)
        return -1;
    sim_notifying = true;
    return 0;
}

SIM_EXPORT int qm5_cl_sys_close_device(void)
{
    if (sim_stage != SIM_DEVICE_OPEN)
        return sim_fail(SIM_ERROR_ORDER);
    sim_stop_posts();
    sim_notifying = false;
    sim_notify = nullptr;

    // OSDs left open end with the device; the post threads go on.
    sim_begin();
    for (sim_post &post : sim->post)
        memset(post.osd, 0, sizeof post.osd);
    sim_end();
    sim_reap_memory();
    sim_unmap_state();
    sim_stage = SIM_INITIALISED;
    return 0;
}

SIM_EXPORT int qm5_cl_library_exit(void)
{
    if (sim_stage != SIM_INITIALISED)
        return sim_fail(SIM_ERROR_ORDER);
    sim_stage = SIM_DOWN;
    return 0;
}

// ---- Posts and OSDs -----------------------------------------------------------------------------

// A call on a post thread, and on one of its OSDs. While one is under way the posts stand still.
struct sim_call {
    sim_post *post;
    sim_osd *osd;
    std::uint32_t post_number;
    std::uint32_t osd_number;
};

// Begins a call on a post thread. 0 with the lock held, or -1 with errno and without it.
static int sim_begin_call(std::uint32_t res_id, sim_call *call)
{
    if (sim_stage != SIM_DEVICE_OPEN)
        return sim_fail(SIM_ERROR_ORDER);
    sim_lock();
    sim_reap_memory(); // the server has left the memory of the call before
    for (std::uint32_t i = 0; i < SIM_POSTS && res_id != 0; i++) {
        if (sim->post[i].res_id == res_id) {
            *call = {&sim->post[i], nullptr, i, 0};
            return 0;
        }
    }
    sim_unlock();
    return sim_fail(QM5_CL_ERROR_GONE_1);
}

static int sim_end_call(int result)
{
    sim_unlock();
    return result;
}

// The same for a call on an OSD.
static int sim_begin_osd_call(std::uint32_t res_id, std::uint32_t handle, sim_call *call)
{
    if (sim_begin_call(res_id, call) != 0)
        return -1;
    for (std::uint32_t i = 0; i < SIM_OSDS && handle != 0; i++) {
        if (call->post->osd[i].handle == handle) {
            call->osd = &call->post->osd[i];
            call->osd_number = i;
            return 0;
        }
    }
    sim_unlock();
    return sim_fail(QM5_CL_ERROR_GONE_2);
}

SIM_EXPORT int qm5_cl_post_thread_get_status(std::uint32_t res_id, qm5_cl_post_status *status)
{
    sim_call call;
    if (sim_begin_call(res_id, &call) != 0)
        return -1;
    memset(status, 0xEE, sizeof *status); // what nobody reads is no zero
    status->width = static_cast<std::uint16_t>(call.post->width);
    status->height = static_cast<std::uint16_t>(call.post->height);
    return sim_end_call(0);
}

static std::uint32_t sim_get_line_bytes(const qm5_cl_osd_param *param)
{
    const std::uint32_t bytes = ((std::uint32_t{param->width} << (param->color_type + 1)) + 7) / 8;
    return (bytes + SIM_LINE_ALIGNMENT - 1) / SIM_LINE_ALIGNMENT * SIM_LINE_ALIGNMENT;
}

// Opens the OSD in the state; no change is left behind by a failure.
static int sim_open_osd(const sim_call *call, const qm5_cl_osd_param *param)
{
    sim_osd *osd = &call->post->osd[param->number];
    sim_begin();
    *osd = {};
    osd->handle = 0x60000000 + sim_new_id();
    osd->color_type = param->color_type;
    osd->width = param->width;
    osd->height = param->height;
    osd->line_bytes = sim_get_line_bytes(param);
    const int result = sim_open_memory(call->post_number, param->number);
    if (result != 0)
        *osd = {};
    sim_end();
    return result;
}

SIM_EXPORT int qm5_cl_post_open_osd(std::uint32_t res_id, const qm5_cl_osd_param *param,
                                    std::uint32_t *handle, std::uint32_t *aux,
                                    std::uint32_t *line_bytes)
{
    sim_call call;
    if (sim_begin_call(res_id, &call) != 0)
        return -1;
    if (param->number >= SIM_OSDS || param->color_type >= SIM_COLOR_TYPES)
        return sim_end_call(sim_fail(SIM_ERROR_ARGUMENT));
    const sim_osd *osd = &call.post->osd[param->number];
    if (osd->handle != 0)
        return sim_end_call(sim_fail(SIM_ERROR_BUSY));
    if (sim_open_osd(&call, param) != 0)
        return sim_end_call(-1);
    *handle = osd->handle;
    *aux = 0xA0000000 + param->number;
    *line_bytes = osd->line_bytes;
    return sim_end_call(0);
}

SIM_EXPORT int qm5_cl_post_close_osd(std::uint32_t res_id, std::uint32_t handle)
{
    sim_call call;
    if (sim_begin_osd_call(res_id, handle, &call) != 0)
        return -1;
    sim_begin();
    *call.osd = {};
    sim_end();
    sim_close_memory(call.post_number, call.osd_number);
    return sim_end_call(0);
}

SIM_EXPORT int qm5_cl_post_clear_osd(std::uint32_t res_id, std::uint32_t handle)
{
    sim_call call;
    if (sim_begin_osd_call(res_id, handle, &call) != 0)
        return -1;
    sim_begin();
    call.osd->shown = 0;
    sim_end();
    return sim_end_call(0);
}

SIM_EXPORT int qm5_cl_post_get_osd_mem(std::uint32_t res_id, std::uint32_t handle,
                                       qm5_cl_osd_mem *mem)
{
    sim_call call;
    if (sim_begin_osd_call(res_id, handle, &call) != 0)
        return -1;
    const sim_memory *memory = sim_get_memory(call.post_number, call.osd_number);
    mem->memory = memory->draw;
    mem->size = static_cast<std::uint32_t>(memory->size);
    return sim_end_call(0);
}

SIM_EXPORT int qm5_cl_post_set_osd(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_pos pos)
{
    sim_call call;
    if (sim_begin_osd_call(res_id, handle, &call) != 0)
        return -1;
    const sim_memory *memory = sim_get_memory(call.post_number, call.osd_number);
    sim_begin();
    memcpy(memory->shown, memory->draw, memory->size);
    call.osd->x = pos.x;
    call.osd->y = pos.y;
    call.osd->shown = 1;
    call.osd->sets++;
    sim_end();
    return sim_end_call(0);
}
