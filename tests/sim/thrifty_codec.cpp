// A codec library that gives each resource ID and each handle again as soon as it can: handles
// count from 1 on for each post, and a post thread's ID is always the same. Another library may do
// so, and the simulated one never does. Its posts 0 and 1 run; a wrong call is a failure.
//
// Post 1 closes and opens again within qm5_cl_post_thread_get_status. It writes a byte more than it
// may if the environment variable STRAY_WRITE says so: "before aux", "behind aux", or another name.
#include "display/qm5codec.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string>

namespace
{

constexpr std::uint32_t POSTS = 2;
constexpr std::uint32_t OSDS = 4;
constexpr std::uint32_t FIRST_RES_ID = 7;

struct Osd {
    bool is_open;
    std::uint32_t size;
    std::uint32_t memory[64];
};
Osd osds[POSTS][OSDS];
qm5_cl_post_notify_function *notify;

// NULL, with errno, for one that isn't open.
Osd *find(std::uint32_t res_id, std::uint32_t handle)
{
    const std::uint32_t post = res_id - FIRST_RES_ID;
    if (post < POSTS && handle - 1 < OSDS && osds[post][handle - 1].is_open)
        return &osds[post][handle - 1];
    errno = static_cast<int>(QM5_CL_ERROR_GONE_1);
    return nullptr;
}

int result_of(const Osd *osd)
{
    return osd ? 0 : -1;
}

// What the caller has handed over, and for the environment to name.
void stray(const char *name, const void *given, std::size_t size)
{
    const char *wanted = getenv("STRAY_WRITE");
    const std::string where = wanted ? wanted : "";
    auto *bytes = static_cast<volatile unsigned char *>(const_cast<void *>(given));
    if (where == std::string("before ") + name)
        bytes[-1] = 0;
    if (where == std::string("behind ") + name)
        bytes[size] = 0;
}

void open_post(std::uint32_t post)
{
    notify({0, FIRST_RES_ID + post, post, 1});
}

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

int qm5_cl_post_notify_callback(qm5_cl_post_notify_function *callback)
{
    notify = callback;
    return 0;
}

int qm5_cl_post_set_notify(std::uint32_t)
{
    for (std::uint32_t post = 0; post < POSTS; post++)
        open_post(post);
    return 0;
}

int qm5_cl_post_thread_get_status(std::uint32_t, qm5_cl_post_status *status)
{
    stray("status", status, sizeof *status);
    for (Osd &osd : osds[1])
        osd = {};
    notify({0, 0, 1, 0});
    open_post(1);
    return 0;
}

int qm5_cl_post_open_osd(std::uint32_t res_id, const qm5_cl_osd_param *param, std::uint32_t *handle,
                         std::uint32_t *aux, std::uint32_t *line_bytes)
{
    stray("param", param, sizeof *param);
    stray("handle", handle, sizeof *handle);
    stray("aux", aux, sizeof *aux);
    stray("line_bytes", line_bytes, sizeof *line_bytes);
    Osd *post = osds[res_id - FIRST_RES_ID];
    *handle = 1;
    while (post[*handle - 1].is_open)
        ++*handle;
    *line_bytes = param->width;
    post[*handle - 1] = {true, *line_bytes * param->height, {}};
    return 0;
}

int qm5_cl_post_close_osd(std::uint32_t res_id, std::uint32_t handle)
{
    Osd *osd = find(res_id, handle);
    if (osd)
        *osd = {};
    return result_of(osd);
}

int qm5_cl_post_clear_osd(std::uint32_t res_id, std::uint32_t handle)
{
    return result_of(find(res_id, handle));
}

int qm5_cl_post_get_osd_mem(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_mem *mem)
{
    Osd *osd = find(res_id, handle);
    stray("mem", mem, sizeof *mem);
    if (osd) {
        mem->memory = osd->memory;
        mem->size = osd->size;
    }
    return result_of(osd);
}

int qm5_cl_post_set_osd(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_pos)
{
    return result_of(find(res_id, handle));
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
