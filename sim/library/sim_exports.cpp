// The twelve names of the codec library, as the application calls them. Each call is passed on, and
// recorded if a record is wanted.
#include "sim_codec.h"
#include "sim_faults.h"

#include <cerrno>

#define SIM_EXPORT extern "C" [[gnu::visibility("default")]]

static qm5_cl_post_notify_function *sim_application_callback;

static void sim_start_record(sim_call_record *record, sim_operation operation)
{
    *record = {};
    record->operation = operation;
    record->time = sim_record_time();
}

// Begins the record of a call, if there is one: otherwise its time is 0, and nobody looks at it.
static void sim_begin_record(sim_call_record *record, sim_operation operation)
{
    record->time = 0;
    if (sim_is_recording())
        sim_start_record(record, operation);
}

// Ends it, and keeps errno.
static int sim_end_record(sim_call_record *record, int result, const sim_shown *shown = nullptr)
{
    if (record->time == 0 || !sim_is_recording())
        return result;
    const int error = errno;
    record->result = result;
    if (result != 0) {
        record->error = static_cast<std::uint32_t>(error);
        record->given[0] = sim_tells_gone(record->error) && sim_codec_made_it_up();
    }
    sim_record_call(record, shown);
    errno = error;
    return result;
}

// The record rests while the library is down. Keeps errno.
static int sim_rest_if_down(int result)
{
    const int error = errno;
    if (!sim_codec_is_up())
        sim_record_rest();
    errno = error;
    return result;
}

// ---- Library and device -------------------------------------------------------------------------

SIM_EXPORT int qm5_cl_library_init(void)
{
    sim_call_record record;
    sim_start_record(&record, SIM_LIBRARY_INIT); // the call itself may begin the record
    return sim_rest_if_down(sim_end_record(&record, sim_codec.library_init()));
}

SIM_EXPORT int qm5_cl_sys_open_device(void)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_OPEN_DEVICE);
    return sim_end_record(&record, sim_codec.open_device());
}

// Stands between the library and the application's callback.
static void sim_record_notify(qm5_cl_post_notify_info info)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_NOTIFY);
    record.argument[0] = info.res_id;
    record.argument[1] = info.post;
    record.argument[2] = info.opened;
    sim_application_callback(info);
    sim_end_record(&record, 0);
}

SIM_EXPORT int qm5_cl_post_notify_callback(qm5_cl_post_notify_function *callback)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_NOTIFY_CALLBACK);
    qm5_cl_post_notify_function *const before = sim_application_callback;
    sim_application_callback = callback;
    const int result = sim_codec.notify_callback(callback ? sim_record_notify : nullptr);
    if (result != 0)
        sim_application_callback = before;
    return sim_end_record(&record, result);
}

SIM_EXPORT int qm5_cl_post_set_notify(std::uint32_t mask)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_SET_NOTIFY);
    record.argument[0] = mask;
    return sim_end_record(&record, sim_codec.set_notify(mask));
}

SIM_EXPORT int qm5_cl_sys_close_device(void)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_CLOSE_DEVICE);
    return sim_end_record(&record, sim_codec.close_device());
}

SIM_EXPORT int qm5_cl_library_exit(void)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_LIBRARY_EXIT);
    return sim_rest_if_down(sim_end_record(&record, sim_codec.library_exit()));
}

// ---- Posts and OSDs -----------------------------------------------------------------------------

SIM_EXPORT int qm5_cl_post_thread_get_status(std::uint32_t res_id, qm5_cl_post_status *status)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_THREAD_GET_STATUS);
    const int result = sim_codec.thread_get_status(res_id, status);
    record.argument[0] = res_id;
    if (result == 0) {
        record.given[0] = status->width;
        record.given[1] = status->height;
    }
    return sim_end_record(&record, result);
}

SIM_EXPORT int qm5_cl_post_open_osd(std::uint32_t res_id, const qm5_cl_osd_param *param,
                                    std::uint32_t *handle, std::uint32_t *aux,
                                    std::uint32_t *line_bytes)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_OPEN_OSD);
    const int result = sim_codec.open_osd(res_id, param, handle, aux, line_bytes);
    record.argument[0] = res_id;
    if (param) {
        record.argument[1] = param->number;
        record.argument[2] = param->width;
        record.argument[3] = param->height;
        record.argument[4] = param->color_type;
    }
    if (result == 0) {
        record.given[0] = *handle;
        record.given[1] = *aux;
        record.given[2] = *line_bytes;
    }
    return sim_end_record(&record, result);
}

SIM_EXPORT int qm5_cl_post_close_osd(std::uint32_t res_id, std::uint32_t handle)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_CLOSE_OSD);
    record.argument[0] = res_id;
    record.argument[1] = handle;
    return sim_end_record(&record, sim_codec.close_osd(res_id, handle));
}

SIM_EXPORT int qm5_cl_post_clear_osd(std::uint32_t res_id, std::uint32_t handle)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_CLEAR_OSD);
    record.argument[0] = res_id;
    record.argument[1] = handle;
    return sim_end_record(&record, sim_codec.clear_osd(res_id, handle));
}

SIM_EXPORT int qm5_cl_post_get_osd_mem(std::uint32_t res_id, std::uint32_t handle,
                                       qm5_cl_osd_mem *mem)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_GET_OSD_MEM);
    const int result = sim_codec.get_osd_mem(res_id, handle, mem);
    record.argument[0] = res_id;
    record.argument[1] = handle;
    if (result == 0)
        record.given[0] = mem->size;
    return sim_end_record(&record, result);
}

SIM_EXPORT int qm5_cl_post_set_osd(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_pos pos)
{
    sim_call_record record;
    sim_begin_record(&record, SIM_SET_OSD);
    const int result = sim_codec.set_osd(res_id, handle, pos);
    record.argument[0] = res_id;
    record.argument[1] = handle;
    record.argument[2] = pos.x;
    record.argument[3] = pos.y;
    sim_shown shown = {};
    if (result == 0 && record.time != 0)
        shown = sim_codec_shown();
    return sim_end_record(&record, result, shown.memory ? &shown : nullptr);
}
