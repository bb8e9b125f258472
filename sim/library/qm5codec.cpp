// The twelve operations of the codec library, on a simulated codec. Everything between the calls
// is in the state folder, see sim_state.h.
#include "sim_calls.h"
#include "sim_codec.h"
#include "sim_library.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

constexpr std::uint32_t SIM_COLOR_TYPES = 3;

// How far the server has come in bringing the library up.
static enum sim_stages {
    SIM_DOWN,
    SIM_INITIALISED,
    SIM_DEVICE_IS_OPEN,
} sim_stage = SIM_DOWN;

static qm5_cl_post_notify_function *sim_notify;
static bool sim_notifying;

// What is wrong with a call on a post while nobody is told of posts.
static const char SIM_NO_POSTS_YET[] = "before set_notify";
static const char *sim_why_no_posts = SIM_NO_POSTS_YET;

// The process of qm5_cl_library_init, and not a child of it.
static pid_t sim_process;

// Has a fault failed the last call on a post?
static bool sim_met_fault;

// ---- Library and device -------------------------------------------------------------------------

static const char SIM_TWICE[] = "a second time";

// `what` says what should have come before.
static int sim_fail_order(sim_operation operation, const char *what)
{
    sim_lock();
    sim_breach(operation, "%s", what);
    sim_unlock();
    return sim_fail(SIM_ERROR_ORDER);
}

// Is there what an argument must point to? If not, that's a breach, and -1 with errno.
static int sim_require(sim_operation operation, const char *name, const void *pointer)
{
    if (pointer)
        return 0;
    sim_lock();
    sim_breach(operation, "%s: NULL, not a pointer to anything", name);
    sim_unlock();
    return sim_fail(SIM_ERROR_ARGUMENT);
}

// What a call that belongs to no post begins with. 0, or -1 with errno if it is to fail.
static int sim_begin_plain_call(sim_operation operation)
{
    sim_wait wait;
    sim_lock();
    sim_check_thread(operation);
    sim_read_control();
    const sim_trouble trouble = sim_meet_faults(operation, SIM_ANY_POST, &wait);
    sim_unlock();
    sim_wait_out(&wait);
    sim_met_fault = false;
    return trouble.code != 0 ? sim_fail(trouble.code) : 0;
}

static int sim_library_init()
{
    if (sim_stage != SIM_DOWN)
        return sim_fail_order(SIM_LIBRARY_INIT, SIM_TWICE);
    if (sim_map_state() != 0)
        return -1;
    sim_process = getpid();
    sim_forget_control();
    const int result = sim_begin_plain_call(SIM_LIBRARY_INIT);
    const int error = errno;
    if (sim_setting.record != 0)
        sim_record_start(sim_folder(), sim_setting.record_limit);
    else
        sim_record_stop();
    if (result == 0) {
        sim_stage = SIM_INITIALISED;
        sim_watch_touches();
    } else {
        sim_unmap_state();
    }
    errno = error;
    return result;
}

static int sim_open_device()
{
    if (sim_stage != SIM_INITIALISED)
        return sim_fail_order(SIM_OPEN_DEVICE,
                              sim_stage == SIM_DOWN ? "before library_init" : SIM_TWICE);
    if (sim_begin_plain_call(SIM_OPEN_DEVICE) != 0)
        return -1;
    sim_stage = SIM_DEVICE_IS_OPEN;
    sim_why_no_posts = SIM_NO_POSTS_YET;
    return 0;
}

static int sim_notify_callback(qm5_cl_post_notify_function *callback)
{
    if (sim_stage != SIM_DEVICE_IS_OPEN || sim_notify)
        return sim_fail_order(SIM_NOTIFY_CALLBACK, sim_notify ? SIM_TWICE : "before open_device");
    if (sim_require(SIM_NOTIFY_CALLBACK, "callback", reinterpret_cast<const void *>(callback)) != 0)
        return -1;
    if (sim_begin_plain_call(SIM_NOTIFY_CALLBACK) != 0)
        return -1;
    sim_notify = callback;
    return 0;
}

// Another mask is taken at its word.
static void sim_check_mask(std::uint32_t mask)
{
    constexpr std::uint32_t all = (1u << SIM_POSTS) - 1;
    if (mask == all)
        return;
    sim_lock();
    sim_breach(SIM_SET_NOTIFY, "mask: %u, not %u", mask, all);
    sim_unlock();
}

static int sim_set_notify(std::uint32_t mask)
{
    if (!sim_notify || sim_notifying)
        return sim_fail_order(SIM_SET_NOTIFY, sim_notifying ? SIM_TWICE : "before notify_callback");
    sim_check_mask(mask);
    if (sim_begin_plain_call(SIM_SET_NOTIFY) != 0 || sim_start_posts(sim_notify, mask) != 0)
        return -1;
    sim_notifying = true;
    return 0;
}

static void sim_check_all_closed()
{
    for (std::uint32_t post = 0; post < SIM_POSTS; post++) {
        for (std::uint32_t number = 0; number < SIM_OSDS; number++) {
            const std::uint32_t handle = sim->post[post].osd[number].handle;
            if (handle != 0 && !sim_has_gone(handle))
                sim_breach(SIM_CLOSE_DEVICE, "post %u, OSD %u, handle 0x%08X: left open", post,
                           number, handle);
        }
    }
}

// OSDs left open end with the device; the post threads go on.
static void sim_end_osds()
{
    sim_check_all_closed();
    for (std::uint32_t post = 0; post < SIM_POSTS; post++) {
        sim_note_read(post, false);
        for (std::uint32_t number = 0; number < SIM_OSDS; number++)
            sim_note_gone(post, number, 0);
    }
    sim_forget_osds();
    sim_reap_memory(SIM_CLOSE_DEVICE, SIM_CLOSE_DEVICE);
}

static void sim_check_all_memory()
{
    for (std::uint32_t post = 0; post < SIM_POSTS; post++) {
        for (std::uint32_t number = 0; number < SIM_OSDS; number++) {
            sim_memory *memory = sim_get_memory(post, number);
            if (memory->handle != 0)
                sim_check_memory(SIM_CLOSE_DEVICE, memory);
        }
    }
}

// A process may end with the device open, but not with OSDs.
[[gnu::destructor]] static void sim_check_exit()
{
    if (sim_stage != SIM_DEVICE_IS_OPEN || getpid() != sim_process)
        return;
    sim_lock();
    sim_check_all_memory();
    sim_check_all_closed();
    sim_unlock();
}

// Whatever its result, the device is closed.
static int sim_close_device()
{
    if (sim_stage != SIM_DEVICE_IS_OPEN)
        return sim_fail_order(SIM_CLOSE_DEVICE, "before open_device");
    const int result = sim_begin_plain_call(SIM_CLOSE_DEVICE);
    const int error = errno;
    sim_stop_posts();
    if (sim_notifying)
        sim_why_no_posts = "behind close_device";
    sim_notifying = false;
    sim_notify = nullptr;
    sim_end_osds();
    sim_stage = SIM_INITIALISED;
    errno = error;
    return result;
}

// Whatever its result, the library is down.
static int sim_library_exit()
{
    if (sim_stage != SIM_INITIALISED)
        return sim_fail_order(SIM_LIBRARY_EXIT, sim_stage == SIM_DOWN ? "before library_init"
                                                                      : "before close_device");
    const int result = sim_begin_plain_call(SIM_LIBRARY_EXIT);
    const int error = errno;
    sim_end_watch();
    sim_unmap_state();
    sim_stage = SIM_DOWN;
    errno = error;
    return result;
}

// ---- Posts and OSDs -----------------------------------------------------------------------------

// A call on a post thread, and on one of its OSDs. From its beginning to its end the posts stand
// still.
struct sim_call {
    sim_operation operation;
    sim_post *post;
    sim_osd *osd;
    std::uint32_t post_number;
    std::uint32_t osd_number;
    sim_trouble trouble;
};

// The number of the post thread, or SIM_ANY_POST.
static std::uint32_t sim_find_post(std::uint32_t res_id)
{
    for (std::uint32_t i = 0; i < SIM_POSTS && res_id != 0; i++) {
        if (sim->post[i].res_id == res_id)
            return i;
    }
    return SIM_ANY_POST;
}

// An open that fails with one of these tells the application that the post has gone, or refuses it:
// it may then forget what is open of the post.
static bool sim_is_excuse(std::uint32_t error)
{
    return sim_tells_gone(error) || error == QM5_CL_ERROR_OPEN_REFUSED;
}

// Of a post an open has failed, and none has succeeded since. The pass that met the failure still
// draws on what is open, and then forgets it all the same.
static bool sim_is_forgotten[SIM_POSTS];

// Keeps errno.
static void sim_excuse_post(std::uint32_t post)
{
    if (post == SIM_ANY_POST || !sim_is_excuse(static_cast<std::uint32_t>(errno)))
        return;
    sim_is_forgotten[post] = true;
    sim_lock();
    for (std::uint32_t number = 0; number < SIM_OSDS; number++) {
        if (sim->post[post].osd[number].handle != 0)
            sim_note_gone(post, number, sim->post[post].osd[number].handle);
    }
    sim_unlock();
}

// And after a close that a fault has failed, the OSD. Keeps errno.
static void sim_excuse_osd(std::uint32_t post, std::uint32_t handle)
{
    sim_lock();
    for (std::uint32_t number = 0; number < SIM_OSDS && post != SIM_ANY_POST; number++) {
        if (sim->post[post].osd[number].handle == handle && handle != 0)
            sim_note_gone(post, number, handle);
    }
    sim_unlock();
}

// Closes an OSD of the state, and looks at its memory for the last time.
static void sim_end_osd(std::uint32_t post, std::uint32_t number, sim_operation by)
{
    sim_check_memory(by, sim_get_memory(post, number));
    sim_begin();
    sim->post[post].osd[number] = {};
    sim_end();
    sim_close_memory(post, number, by);
}

// Lets go wrong what is to go wrong before the call. Having the lock, which it gives back in
// between; -1 with errno if the call is to fail.
static int sim_suffer_faults(std::uint32_t res_id, sim_call *call)
{
    const std::uint32_t post = sim_find_post(res_id);
    sim_wait wait;
    call->post_number = post;
    call->trouble = sim_meet_faults(call->operation, post, &wait);
    if (wait.count != 0 || call->trouble.changes) {
        sim_unlock();
        sim_wait_out(&wait);
        if (call->trouble.changes)
            sim_change_posts(call->trouble.before);
        sim_lock();
    }
    sim_met_fault = call->trouble.code != 0;
    return sim_met_fault ? sim_fail(call->trouble.code) : 0;
}

// Ends a call: gives the lock back, and changes the posts that are to be changed behind its work.
static int sim_end_call(const sim_call *call, int result)
{
    sim_unlock();
    if (call->trouble.changes) {
        const int error = errno;
        sim_change_posts(call->trouble.after);
        errno = error;
    }
    return result;
}

// Begins a call on a post thread. 0 with the lock held, or -1 with errno and without it. What the
// application says is looked at then, before what may fail the call.
static int sim_begin_call(sim_operation operation, std::uint32_t res_id, sim_call *call)
{
    *call = {};
    call->operation = operation;
    call->post_number = SIM_ANY_POST;
    if (!sim_notifying) // nobody has told it of a post
        return sim_fail_order(operation, sim_why_no_posts);
    sim_lock();
    sim_check_thread(operation);
    sim_reap_memory(operation, SIM_NOTIFY); // the server has left the memory of the call before
    sim_check_res_id(operation, res_id);
    return 0;
}

// Finds the post thread of a call that has begun, behind its faults. The result is as above.
static int sim_reach_post(std::uint32_t res_id, sim_call *call)
{
    const std::uint32_t post = sim_find_post(res_id);
    if (post != SIM_ANY_POST)
        sim_check_turn(call->operation, post, res_id);
    if (sim_suffer_faults(res_id, call) != 0)
        return sim_end_call(call, -1);
    call->post_number = sim_find_post(res_id);
    if (call->post_number == SIM_ANY_POST)
        return sim_end_call(call, sim_fail(QM5_CL_ERROR_GONE_1));
    call->post = &sim->post[call->post_number];
    return 0;
}

// The number of a post's OSD, or SIM_OSDS if none has this handle.
static std::uint32_t sim_find_osd(std::uint32_t post, std::uint32_t handle)
{
    for (std::uint32_t i = 0; i < SIM_OSDS && post != SIM_ANY_POST && handle != 0; i++) {
        if (sim->post[post].osd[i].handle == handle)
            return i;
    }
    return SIM_OSDS;
}

// And its OSD, which is in use then, whatever has failed before.
static int sim_reach_osd(std::uint32_t res_id, std::uint32_t handle, sim_call *call)
{
    sim_check_given(call->operation, res_id, handle);
    const std::uint32_t post = sim_find_post(res_id);
    if (sim_find_osd(post, handle) == SIM_OSDS)
        sim_check_handle(call->operation, res_id, post, handle);
    if (sim_reach_post(res_id, call) != 0)
        return -1;
    call->osd_number = sim_find_osd(call->post_number, handle);
    if (call->osd_number == SIM_OSDS)
        return sim_end_call(call, sim_fail(QM5_CL_ERROR_GONE_2));
    call->osd = &call->post->osd[call->osd_number];
    if (!sim_is_forgotten[call->post_number])
        sim_note_gone(call->post_number, call->osd_number, 0);
    return 0;
}

static int sim_thread_get_status(std::uint32_t res_id, qm5_cl_post_status *status)
{
    sim_call call;
    if (sim_require(SIM_THREAD_GET_STATUS, "status", status) != 0 ||
        sim_begin_call(SIM_THREAD_GET_STATUS, res_id, &call) != 0)
        return -1;
    sim_check_zero(call.operation, "status", status, sizeof *status);
    if (sim_reach_post(res_id, &call) != 0)
        return -1;
    sim_note_read(call.post_number, true);
    memset(status, 0xEE, sizeof *status); // what nobody reads is no zero
    status->width = static_cast<std::uint16_t>(call.post->width);
    status->height = static_cast<std::uint16_t>(call.post->height);
    return sim_end_call(&call, 0);
}

static std::uint32_t sim_get_line_bytes(const qm5_cl_osd_param *param)
{
    const std::uint32_t unit = sim_setting.alignment[param->color_type];
    const std::uint32_t bytes = ((std::uint32_t{param->width} << (param->color_type + 1)) + 7) / 8;
    return (bytes + unit - 1) / unit * unit;
}

// Opens the OSD in the state; no change is left behind by a failure.
static int sim_make_osd(const sim_call *call, const qm5_cl_osd_param *param)
{
    sim_osd *osd = &call->post->osd[param->number];
    sim_begin();
    *osd = {};
    osd->handle = SIM_FIRST_HANDLE + sim_count(&sim->last_handle);
    osd->color_type = param->color_type;
    osd->width = param->width;
    osd->height = param->height;
    osd->line_bytes = sim_get_line_bytes(param);
    const int result = sim_open_memory(call->post_number, param->number);
    if (result != 0) {
        *osd = {};
        sim->last_handle--; // nobody has been given it
    }
    sim_end();
    return result;
}

// Is there such an OSD and such a colour type? If not, that's a breach.
static bool sim_check_param(const sim_call *call, const qm5_cl_osd_param *param)
{
    if (param->number >= SIM_OSDS)
        sim_breach(call->operation, "param: OSD number %u, not 0 to %u", param->number,
                   SIM_OSDS - 1);
    if (param->color_type >= SIM_COLOR_TYPES)
        sim_breach(call->operation, "param: colour type %u, not 0 to %u", param->color_type,
                   SIM_COLOR_TYPES - 1);
    return param->number < SIM_OSDS && param->color_type < SIM_COLOR_TYPES;
}

// Is an OSD free to be opened, or forgotten by an application that may? If not, that's a breach.
static bool sim_check_free(sim_operation operation, std::uint32_t post, std::uint32_t number)
{
    const std::uint32_t handle = post != SIM_ANY_POST ? sim->post[post].osd[number].handle : 0;
    if (handle == 0 || sim_has_gone(handle))
        return true;
    sim_breach(operation, "param: OSD %u of post %u is open", number, post);
    return false;
}

static int sim_try_open(std::uint32_t res_id, const qm5_cl_osd_param *param, std::uint32_t *handle,
                        std::uint32_t *aux, std::uint32_t *line_bytes, sim_call *call)
{
    if (sim_begin_call(SIM_OPEN_OSD, res_id, call) != 0)
        return -1;
    sim_check_old_handle(call->operation, *handle);
    if (!sim_check_param(call, param))
        return sim_end_call(call, sim_fail(SIM_ERROR_ARGUMENT));
    const bool is_free = sim_check_free(call->operation, sim_find_post(res_id), param->number);
    if (sim_reach_post(res_id, call) != 0)
        return -1;
    if (!is_free)
        return sim_end_call(call, sim_fail(SIM_ERROR_BUSY));
    if (call->post->osd[param->number].handle != 0) // a forgotten one
        sim_end_osd(call->post_number, param->number, call->operation);
    if (sim_make_osd(call, param) != 0)
        return sim_end_call(call, -1);
    const sim_osd *osd = &call->post->osd[param->number];
    sim_is_forgotten[call->post_number] = false;
    sim_note_gone(call->post_number, param->number, 0); // the application knows another one now
    *handle = osd->handle;
    *aux = 0xA0000000 + param->number;
    *line_bytes = osd->line_bytes + static_cast<std::uint32_t>(call->trouble.line);
    return sim_end_call(call, 0);
}

static int sim_open_osd(std::uint32_t res_id, const qm5_cl_osd_param *param, std::uint32_t *handle,
                        std::uint32_t *aux, std::uint32_t *line_bytes)
{
    if (sim_require(SIM_OPEN_OSD, "param", param) != 0 ||
        sim_require(SIM_OPEN_OSD, "handle", handle) != 0 ||
        sim_require(SIM_OPEN_OSD, "aux", aux) != 0 ||
        sim_require(SIM_OPEN_OSD, "line_bytes", line_bytes) != 0)
        return -1;
    sim_call call;
    const int result = sim_try_open(res_id, param, handle, aux, line_bytes, &call);
    if (result != 0)
        sim_excuse_post(call.post_number);
    return result;
}

static int sim_close_osd(std::uint32_t res_id, std::uint32_t handle)
{
    sim_call call;
    if (sim_begin_call(SIM_CLOSE_OSD, res_id, &call) != 0)
        return -1;
    if (sim_reach_osd(res_id, handle, &call) != 0) {
        if (call.trouble.code != 0)
            sim_excuse_osd(call.post_number, handle);
        return -1;
    }
    sim_end_osd(call.post_number, call.osd_number, call.operation);
    sim_note_gone(call.post_number, call.osd_number, 0); // and it knows that
    return sim_end_call(&call, 0);
}

static int sim_clear_osd(std::uint32_t res_id, std::uint32_t handle)
{
    sim_call call;
    if (sim_begin_call(SIM_CLEAR_OSD, res_id, &call) != 0 ||
        sim_reach_osd(res_id, handle, &call) != 0)
        return -1;
    sim_begin();
    call.osd->shown = 0;
    sim_end();
    return sim_end_call(&call, 0);
}

static int sim_get_osd_mem(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_mem *mem)
{
    sim_call call;
    if (sim_require(SIM_GET_OSD_MEM, "mem", mem) != 0 ||
        sim_begin_call(SIM_GET_OSD_MEM, res_id, &call) != 0)
        return -1;
    sim_check_zero(call.operation, "mem", mem, sizeof *mem);
    if (sim_reach_osd(res_id, handle, &call) != 0)
        return -1;
    sim_memory *memory = sim_get_memory(call.post_number, call.osd_number);
    sim_check_memory(call.operation, memory);
    memory->lent = true;
    mem->memory = memory->guarded.draw;
    mem->size = static_cast<std::uint32_t>(memory->guarded.size) +
                static_cast<std::uint32_t>(call.trouble.size);
    return sim_end_call(&call, 0);
}

// A drawing ends with its set_osd, also if that fails. Keeps errno.
static void sim_give_up_drawing(std::uint32_t post, std::uint32_t handle)
{
    if (post == SIM_ANY_POST)
        return;
    sim_lock();
    for (std::uint32_t number = 0; number < SIM_OSDS; number++) {
        sim_memory *memory = sim_get_memory(post, number);
        if (memory->lent && memory->handle == handle)
            sim_end_drawing(memory);
    }
    sim_unlock();
}

// What the last set_osd has shown; it stays mapped until the next call.
static sim_shown sim_last_shown;

static void sim_show(const sim_call *call, sim_memory *memory, qm5_cl_osd_pos pos)
{
    sim_begin();
    memcpy(memory->shown, memory->guarded.draw, memory->guarded.size);
    call->osd->x = pos.x;
    call->osd->y = pos.y;
    call->osd->shown = 1;
    call->osd->sets++;
    sim_end();
    memory->lent = false;
    memory->equal = true;
    sim_last_shown = {memory->shown, memory->guarded.size, call->osd->line_bytes};
}

static int sim_set_osd(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_pos pos)
{
    sim_call call;
    if (sim_begin_call(SIM_SET_OSD, res_id, &call) != 0)
        return -1;
    if (sim_reach_osd(res_id, handle, &call) != 0) {
        sim_give_up_drawing(call.post_number, handle);
        return -1;
    }
    sim_memory *memory = sim_get_memory(call.post_number, call.osd_number);
    if (!memory->lent)
        sim_breach(call.operation, "handle 0x%08X: without get_osd_mem before it", handle);
    sim_check_memory(call.operation, memory);
    sim_show(&call, memory, pos);
    return sim_end_call(&call, 0);
}

// ---- What stands behind the library's names -----------------------------------------------------

bool sim_codec_is_up()
{
    return sim_stage != SIM_DOWN;
}

bool sim_codec_made_it_up()
{
    return sim_met_fault;
}

sim_shown sim_codec_shown()
{
    return sim_last_shown;
}

sim_codec_table sim_codec = {
    sim_library_init,      sim_open_device, sim_notify_callback, sim_set_notify,
    sim_thread_get_status, sim_open_osd,    sim_close_osd,       sim_clear_osd,
    sim_get_osd_mem,       sim_set_osd,     sim_close_device,    sim_library_exit,
};
