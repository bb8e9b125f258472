// The recorder in front of another codec library: a library of the same soname that passes every
// call on and records it, so that the same record can be taken on a real appliance.
//
// The other library's path is in the environment variable QM5SIM_WRAPPED, the folder for the record
// is the state folder of sim_state.h.
#include "sim_codec.h"
#include "sim_faults.h"
#include "sim_state.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <sys/stat.h>

// What the application learns from here has no other number.
constexpr int WRAPPER_ERROR = static_cast<int>(0x81E00003);

sim_codec_table sim_codec;

static decltype(&qm5_cl_post_get_osd_mem) wrapper_get_osd_mem;
static decltype(&qm5_cl_post_set_osd) wrapper_set_osd;
static decltype(&qm5_cl_library_exit) wrapper_library_exit;

// What the last set_osd has shown; NULL if that isn't known.
static void *wrapper_shown;
static std::size_t wrapper_shown_size;

// The memory that get_osd_mem has given for each of the last handles.
static struct {
    std::uint32_t handle;
    const void *memory;
    std::size_t size;
} wrapper_memories[16];

static int wrapper_fail(const char *what, const char *why)
{
    fprintf(stderr, "qm5sim: wrapper: %s: %s\n", what, why);
    errno = WRAPPER_ERROR;
    return -1;
}

static int wrapper_keep_memory(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_mem *mem)
{
    const int result = wrapper_get_osd_mem(res_id, handle, mem);
    if (result == 0)
        wrapper_memories[handle % 16] = {handle, mem->memory, mem->size};
    return result;
}

// The memory is the application's only until set_osd, so what is shown is copied before it.
static int wrapper_copy_memory(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_pos pos)
{
    const auto &kept = wrapper_memories[handle % 16];
    free(wrapper_shown);
    const bool known = handle != 0 && kept.handle == handle;
    wrapper_shown = known ? malloc(kept.size) : nullptr;
    wrapper_shown_size = kept.size;
    if (wrapper_shown)
        memcpy(wrapper_shown, kept.memory, kept.size);
    return wrapper_set_osd(res_id, handle, pos);
}

static int wrapper_exit()
{
    free(wrapper_shown);
    wrapper_shown = nullptr;
    return wrapper_library_exit();
}

template <typename Function>
static bool wrapper_load(void *library, const char *name, Function *function)
{
    *function = reinterpret_cast<Function>(dlsym(library, name));
    if (!*function)
        wrapper_fail(name, "not in the wrapped library");
    return *function != nullptr;
}

int sim_codec_prepare()
{
    if (sim_codec.library_init)
        return 0;
    const char *path = getenv("QM5SIM_WRAPPED");
    if (!path)
        return wrapper_fail("QM5SIM_WRAPPED", "names no library");
    void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (!library)
        return wrapper_fail(path, dlerror());
    sim_codec_table table = {};
    if (!wrapper_load(library, "qm5_cl_library_init", &table.library_init) ||
        !wrapper_load(library, "qm5_cl_sys_open_device", &table.open_device) ||
        !wrapper_load(library, "qm5_cl_post_notify_callback", &table.notify_callback) ||
        !wrapper_load(library, "qm5_cl_post_set_notify", &table.set_notify) ||
        !wrapper_load(library, "qm5_cl_post_thread_get_status", &table.thread_get_status) ||
        !wrapper_load(library, "qm5_cl_post_open_osd", &table.open_osd) ||
        !wrapper_load(library, "qm5_cl_post_close_osd", &table.close_osd) ||
        !wrapper_load(library, "qm5_cl_post_clear_osd", &table.clear_osd) ||
        !wrapper_load(library, "qm5_cl_post_get_osd_mem", &wrapper_get_osd_mem) ||
        !wrapper_load(library, "qm5_cl_post_set_osd", &table.set_osd) ||
        !wrapper_load(library, "qm5_cl_sys_close_device", &table.close_device) ||
        !wrapper_load(library, "qm5_cl_library_exit", &table.library_exit))
        return -1;
    if (table.library_init == qm5_cl_library_init)
        return wrapper_fail(path, "that is the wrapper itself");
    table.get_osd_mem = wrapper_keep_memory;
    wrapper_set_osd = table.set_osd;
    table.set_osd = wrapper_copy_memory;
    wrapper_library_exit = table.library_exit;
    table.library_exit = wrapper_exit;
    sim_codec = table;
    return 0;
}

const char *sim_codec_record_folder()
{
    static char folder[SIM_PATH_SIZE];
    sim_get_folder(folder);
    if (mkdir(folder, SIM_FOLDER_MODE) != 0 && errno != EEXIST)
        wrapper_fail(folder, strerror(errno));
    return folder;
}

const void *sim_codec_shown(std::uint32_t, std::size_t *size)
{
    *size = wrapper_shown_size;
    return wrapper_shown;
}
