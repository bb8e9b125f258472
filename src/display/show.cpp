// The drawing of one OSD.
#include "display/layout.h"
#include "display/qm5codec.h"
#include "display/refresh.h"

#include <cstring>

// Reports a failed library call of the form name(res_id, handle, ...).
#define OSD_REPORT_CALL(reporter, call, res_id, handle)                                            \
    do {                                                                                           \
        CMN_REPORT(reporter, call "() failed. errno=0x%08X", cmn_errno());                         \
        CMN_REPORT(reporter, "ResID=0x%08X, Handle=0x%08X", res_id, handle);                       \
    } while (false)

enum osd_memory_result {
    OSD_MEMORY_READY,
    OSD_MEMORY_GONE,
    OSD_MEMORY_FAILED,
};

static osd_memory_result osd_get_memory(std::uint32_t res_id, std::uint32_t handle,
                                        qm5_cl_osd_mem *mem, const char *reporter)
{
    *mem = {};
    if (qm5_cl_post_get_osd_mem(res_id, handle, mem) == 0)
        return OSD_MEMORY_READY;
    if (osd_post_is_gone())
        return OSD_MEMORY_GONE;
    OSD_REPORT_CALL(reporter, "qm5_cl_post_get_osd_mem", res_id, handle);
    return OSD_MEMORY_FAILED;
}

static int osd_set(std::uint32_t res_id, std::uint32_t handle, std::uint32_t x, std::uint32_t y,
                   const char *reporter)
{
    const qm5_cl_osd_pos pos = {cmn_cut<std::uint16_t>(x), cmn_cut<std::uint16_t>(y)};
    if (qm5_cl_post_set_osd(res_id, handle, pos) == 0 || osd_post_is_gone())
        return 0;
    OSD_REPORT_CALL(reporter, "qm5_cl_post_set_osd", res_id, handle);
    return -EFAULT;
}

int osd_show(std::uint32_t res_id, std::uint32_t handle, font_engine *font_engine,
             std::uint32_t target_width, std::uint32_t color_type, std::uint32_t x, std::uint32_t y,
             const char *text, std::uint32_t color_fg, std::uint32_t color_bg)
{
    if (handle == 0)
        return 0;
    qm5_cl_osd_mem mem;
    const osd_memory_result got = osd_get_memory(res_id, handle, &mem, "osd_show");
    if (got != OSD_MEMORY_READY)
        return got == OSD_MEMORY_GONE ? 0 : -EFAULT;

    memset(mem.memory, 0, mem.size);
    const osd_color_row *color = osd_find_color(color_type);
    if (font_get_target_bitmap(font_engine, text, color_fg, color_bg, target_width,
                               color ? color->mask : 0, mem.size, mem.memory) != 0) {
        CMN_REPORT("osd_show", "get target bitmap failed");
        return -EFAULT;
    }
    return osd_set(res_id, handle, x, y, "osd_show");
}

int osd_show_rectangle(std::uint32_t res_id, std::uint32_t handle, std::uint32_t target_width,
                       std::uint32_t color_type, std::uint32_t x, std::uint32_t y, std::uint32_t w,
                       std::uint32_t h, std::uint32_t color_fg)
{
    if (handle == 0)
        return 0;
    qm5_cl_osd_mem mem;
    const osd_memory_result got = osd_get_memory(res_id, handle, &mem, "osd_show_rectangle");
    if (got != OSD_MEMORY_READY)
        return got == OSD_MEMORY_GONE ? 0 : -EFAULT;

    const osd_color_row *color = osd_find_color(color_type);
    if (!color) {
        CMN_REPORT("osd_show_rectangle", "invalid colorType %d", color_type);
        return -EFAULT;
    }
    if (mem.size < target_width * color->bits * h >> 3) {
        CMN_REPORT("osd_show_rectangle", "osd memory over: targetWidth=%d height=%d colorType=%d\n",
                   target_width, h, color_type);
        return -EFAULT;
    }
    memset(mem.memory, 0, mem.size);
    font_draw_string_background(mem.memory, target_width, h, color->mask, color_fg, w);
    return osd_set(res_id, handle, x, y, "osd_show_rectangle");
}

int osd_clear(std::uint32_t res_id, std::uint32_t handle)
{
    if (handle == 0)
        return 0;
    if (qm5_cl_post_clear_osd(res_id, handle) == 0 || osd_post_is_gone())
        return 0;
    OSD_REPORT_CALL("osd_clear", "qm5_cl_post_clear_osd", res_id, handle);
    return -EFAULT;
}
