// The recorder in front of another codec library: a library of the same soname that passes every
// call on and records it, so that the same record can be taken on a real appliance.
//
// The other library's path is in the environment variable QM5SIM_WRAPPED, the folder for the record
// is the state folder of sim_state.h.
#include "sim_codec.h"
#include "sim_faults.h"
#include "sim_text.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

static sim_codec_table wrapper_passed; // the other library's
static bool wrapper_is_up;

// What the last set_osd has shown; its memory is NULL if that isn't known.
static sim_shown wrapper_shown;
static void *wrapper_copy;
static std::size_t wrapper_copy_size;

static qm5_cl_post_notify_function *wrapper_callback;

// The post threads, of which the notification thread tells before the application can know of them.
// The other library may give a resource ID or a handle again, so that it counts whose they are.
static std::atomic<std::uint32_t> wrapper_res_ids[SIM_POSTS];
static std::atomic<std::uint32_t> wrapper_lives[SIM_POSTS];

// What their OSDs have got. Of one post thread no two have the same handle.
struct wrapper_osd {
    std::uint32_t res_id;
    std::uint32_t life; // of the post as it was opened on
    std::uint32_t handle;
    std::uint32_t line_bytes;
    std::uint64_t size;   // of the memory, as the opening tells it
    const void *memory;   // NULL outside a drawing
    std::size_t readable; // bytes of it
};
static wrapper_osd wrapper_osds[SIM_POSTS][SIM_OSDS];

// False, with errno.
static bool wrapper_fail(const char *what, const char *why)
{
    fprintf(stderr, "qm5sim: wrapper: %s: %s\n", what, why);
    return sim_fail(SIM_ERROR_SYSTEM) == 0;
}

// ---- The other library --------------------------------------------------------------------------

template <typename Function>
static bool wrapper_load(void *library, const char *name, Function *function)
{
    *function = reinterpret_cast<Function>(dlsym(library, name));
    return *function || wrapper_fail(name, "not in the wrapped library");
}

static bool wrapper_load_all(void *library, sim_codec_table *table)
{
    return wrapper_load(library, "qm5_cl_library_init", &table->library_init) &&
           wrapper_load(library, "qm5_cl_sys_open_device", &table->open_device) &&
           wrapper_load(library, "qm5_cl_post_notify_callback", &table->notify_callback) &&
           wrapper_load(library, "qm5_cl_post_set_notify", &table->set_notify) &&
           wrapper_load(library, "qm5_cl_post_thread_get_status", &table->thread_get_status) &&
           wrapper_load(library, "qm5_cl_post_open_osd", &table->open_osd) &&
           wrapper_load(library, "qm5_cl_post_close_osd", &table->close_osd) &&
           wrapper_load(library, "qm5_cl_post_clear_osd", &table->clear_osd) &&
           wrapper_load(library, "qm5_cl_post_get_osd_mem", &table->get_osd_mem) &&
           wrapper_load(library, "qm5_cl_post_set_osd", &table->set_osd) &&
           wrapper_load(library, "qm5_cl_sys_close_device", &table->close_device) &&
           wrapper_load(library, "qm5_cl_library_exit", &table->library_exit);
}

// Loads the other library before the first call on it; false with errno.
static bool wrapper_prepare()
{
    if (wrapper_passed.library_init)
        return true;
    const char *path = getenv("QM5SIM_WRAPPED");
    if (!path)
        return wrapper_fail("QM5SIM_WRAPPED", "names no library");
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!library)
        return wrapper_fail(path, dlerror());
    sim_codec_table table = {};
    if (!wrapper_load_all(library, &table))
        return false;
    if (table.library_init == qm5_cl_library_init)
        return wrapper_fail(path, "that is the wrapper itself");
    wrapper_passed = table;
    return true;
}

// Passes a call on as it is.
template <auto OPERATION, typename... Words>
static int wrapper_pass(Words... words)
{
    return wrapper_prepare() ? (wrapper_passed.*OPERATION)(words...) : -1;
}

// ---- Calls that the record needs more of --------------------------------------------------------

static void wrapper_start_record()
{
    char folder[SIM_PATH_SIZE];
    sim_settings settings = SIM_DEFAULT_SETTINGS;
    sim_get_folder(folder);
    if (const char *why = sim_make_folder(folder)) {
        wrapper_fail(folder, why);
        sim_record_stop();
        return;
    }
    sim_read_settings(folder, &settings);
    sim_record_start(folder, settings.record_limit);
}

static int wrapper_init()
{
    if (!wrapper_is_up)
        wrapper_start_record();
    const int result = wrapper_pass<&sim_codec_table::library_init>();
    wrapper_is_up = wrapper_is_up || result == 0;
    return result;
}

static int wrapper_exit()
{
    const int result = wrapper_pass<&sim_codec_table::library_exit>();
    wrapper_is_up = wrapper_is_up && result != 0;
    if (!wrapper_is_up) {
        free(wrapper_copy);
        wrapper_copy = nullptr;
        memset(wrapper_osds, 0, sizeof wrapper_osds);
    }
    return result;
}

static void wrapper_notify(qm5_cl_post_notify_info info)
{
    const std::uint32_t res_id = info.opened != 0 ? info.res_id : 0;
    if (info.post < SIM_POSTS && wrapper_res_ids[info.post] != res_id) { // else it is told again
        wrapper_lives[info.post]++;
        wrapper_res_ids[info.post] = res_id;
    }
    wrapper_callback(info);
}

static int wrapper_notify_callback(qm5_cl_post_notify_function *callback)
{
    if (callback)
        wrapper_callback = callback;
    return wrapper_pass<&sim_codec_table::notify_callback>(callback ? wrapper_notify : nullptr);
}

// NULL for an OSD that isn't known.
static wrapper_osd *wrapper_find_osd(std::uint32_t res_id, std::uint32_t handle)
{
    for (std::uint32_t post = 0; post < SIM_POSTS; post++) {
        for (wrapper_osd &osd : wrapper_osds[post]) {
            if (osd.handle == handle && handle != 0 && osd.res_id == res_id &&
                osd.life == wrapper_lives[post])
                return &osd;
        }
    }
    return nullptr;
}

static void wrapper_forget_osd(std::uint32_t res_id, std::uint32_t handle)
{
    if (wrapper_osd *osd = wrapper_find_osd(res_id, handle))
        *osd = {};
}

// The number of the post thread, or SIM_ANY_POST.
static std::uint32_t wrapper_find_post(std::uint32_t res_id)
{
    for (std::uint32_t post = 0; post < SIM_POSTS; post++) {
        if (wrapper_res_ids[post] == res_id && res_id != 0)
            return post;
    }
    return SIM_ANY_POST;
}

static int wrapper_open_osd(std::uint32_t res_id, const qm5_cl_osd_param *param,
                            std::uint32_t *handle, std::uint32_t *aux, std::uint32_t *line_bytes)
{
    const std::uint32_t post = wrapper_find_post(res_id);
    const std::uint32_t life = post != SIM_ANY_POST ? wrapper_lives[post].load() : 0;
    const int result =
        wrapper_pass<&sim_codec_table::open_osd>(res_id, param, handle, aux, line_bytes);
    if (result != 0 || post == SIM_ANY_POST || param->number >= SIM_OSDS)
        return result;
    wrapper_forget_osd(res_id, *handle);
    wrapper_osds[post][param->number] = {
        res_id, life, *handle, *line_bytes, std::uint64_t{*line_bytes} * param->height, nullptr, 0};
    return result;
}

static int wrapper_close_osd(std::uint32_t res_id, std::uint32_t handle)
{
    const int result = wrapper_pass<&sim_codec_table::close_osd>(res_id, handle);
    if (result == 0)
        wrapper_forget_osd(res_id, handle);
    return result;
}

static int wrapper_get_osd_mem(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_mem *mem)
{
    const int result = wrapper_pass<&sim_codec_table::get_osd_mem>(res_id, handle, mem);
    wrapper_osd *osd = result == 0 ? wrapper_find_osd(res_id, handle) : nullptr;
    if (osd) {
        osd->memory = mem->memory;
        osd->readable = mem->size < osd->size ? mem->size : static_cast<std::size_t>(osd->size);
    }
    return result;
}

// The memory is the application's only until set_osd, so what is shown is copied before it.
static void wrapper_keep_shown(std::uint32_t res_id, std::uint32_t handle)
{
    wrapper_osd *osd = sim_is_recording() ? wrapper_find_osd(res_id, handle) : nullptr;
    wrapper_shown = {};
    if (!osd || !osd->memory)
        return;
    if (!wrapper_copy || wrapper_copy_size < osd->readable) {
        free(wrapper_copy);
        wrapper_copy = malloc(osd->readable + 1); // an OSD without lines is shown too
        wrapper_copy_size = osd->readable;
    }
    if (wrapper_copy) {
        memcpy(wrapper_copy, osd->memory, osd->readable);
        wrapper_shown = {wrapper_copy, osd->readable, osd->line_bytes};
    }
    osd->memory = nullptr;
}

static int wrapper_set_osd(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_pos pos)
{
    wrapper_keep_shown(res_id, handle);
    return wrapper_pass<&sim_codec_table::set_osd>(res_id, handle, pos);
}

// ---- What stands behind the library's names -----------------------------------------------------

bool sim_codec_is_up()
{
    return wrapper_is_up;
}

bool sim_codec_made_it_up()
{
    return false;
}

sim_shown sim_codec_shown()
{
    return wrapper_shown;
}

sim_codec_table sim_codec = {
    wrapper_init,
    wrapper_pass<&sim_codec_table::open_device>,
    wrapper_notify_callback,
    wrapper_pass<&sim_codec_table::set_notify>,
    wrapper_pass<&sim_codec_table::thread_get_status>,
    wrapper_open_osd,
    wrapper_close_osd,
    wrapper_pass<&sim_codec_table::clear_osd>,
    wrapper_get_osd_mem,
    wrapper_set_osd,
    wrapper_pass<&sim_codec_table::close_device>,
    wrapper_exit,
};
