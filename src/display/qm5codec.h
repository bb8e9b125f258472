// Interface of the codec library, libqm5codec.so.1.2, as this application uses it.
//
// The library owns the post threads, the OSD memory, the palette and the hardware. It tells the
// server when a post thread comes or goes, opens OSDs on it, hands out their memory and shows it.
// Resource IDs (of post threads) and handles (of OSDs) are opaque words, and 0 is neither.
//
// Calling sequence: qm5_cl_library_init, qm5_cl_sys_open_device, qm5_cl_post_notify_callback,
// qm5_cl_post_set_notify, once at start; for each post thread that opens
// qm5_cl_post_thread_get_status and up to four qm5_cl_post_open_osd; for each drawing
// qm5_cl_post_get_osd_mem and then qm5_cl_post_set_osd; at the end qm5_cl_sys_close_device and
// qm5_cl_library_exit. All of it on one thread; the callback comes on a thread of the library's.
//
// Every function returns 0 for success and anything else for a failure, with the reason in errno.
//
// Sizes and offsets are those of the 32-bit target; on a 64-bit machine only the pointer is wider.
#pragma once

#include <cstddef>
#include <cstdint>

// Errors that mean something to the application. Each of the first three says that the post thread
// has gone from under the caller.
constexpr std::uint32_t QM5_CL_ERROR_GONE_1 = 0x81E04507;
constexpr std::uint32_t QM5_CL_ERROR_GONE_2 = 0x81E03204;
constexpr std::uint32_t QM5_CL_ERROR_GONE_3 = 0x81E0250C;
constexpr std::uint32_t QM5_CL_ERROR_OPEN_REFUSED = 0x81E03246;

struct qm5_cl_post_status {
    std::uint8_t unread_0[2];
    std::uint16_t width; // of the video, in pixels
    std::uint16_t height;
    std::uint8_t unread_6[22];
};
static_assert(offsetof(qm5_cl_post_status, width) == 2 &&
              offsetof(qm5_cl_post_status, height) == 4 && sizeof(qm5_cl_post_status) == 28);

struct qm5_cl_osd_param {
    std::uint32_t number; // of the OSD on its post, 0 to 3
    std::uint16_t width;  // requested, in pixels
    std::uint16_t height;
    std::uint32_t color_type; // 0, 1, 2: 2, 4, 8 bits per pixel
};
static_assert(offsetof(qm5_cl_osd_param, width) == 4 && offsetof(qm5_cl_osd_param, height) == 6 &&
              offsetof(qm5_cl_osd_param, color_type) == 8 && sizeof(qm5_cl_osd_param) == 12);

struct qm5_cl_osd_mem {
    void *memory;       // first byte, 32-bit aligned; valid until qm5_cl_post_set_osd
    std::uint32_t size; // in bytes: the OSD's height times its line length
    std::uint32_t unread;
};
static_assert(offsetof(qm5_cl_osd_mem, size) == sizeof(void *) &&
              offsetof(qm5_cl_osd_mem, unread) == sizeof(void *) + 4 &&
              sizeof(qm5_cl_osd_mem) == sizeof(void *) + 8);

// Passed by value, in one 32-bit word.
struct qm5_cl_osd_pos {
    std::uint16_t x; // of the OSD's top left corner in the picture, in pixels
    std::uint16_t y;
};
static_assert(offsetof(qm5_cl_osd_pos, x) == 0 && offsetof(qm5_cl_osd_pos, y) == 2 &&
              sizeof(qm5_cl_osd_pos) == 4);

// Passed by value, in four 32-bit words.
struct qm5_cl_post_notify_info {
    std::uint32_t unread;
    std::uint32_t res_id; // only if the post thread has opened
    std::uint32_t post;   // 0 to 3
    std::uint32_t opened; // 0: the post thread has closed, and its OSDs have gone with it
};
static_assert(offsetof(qm5_cl_post_notify_info, res_id) == 4 &&
              offsetof(qm5_cl_post_notify_info, post) == 8 &&
              offsetof(qm5_cl_post_notify_info, opened) == 12 &&
              sizeof(qm5_cl_post_notify_info) == 16);

extern "C" {

// Runs on a thread of the library's, from qm5_cl_post_set_notify to qm5_cl_sys_close_device.
typedef void qm5_cl_post_notify_function(qm5_cl_post_notify_info info);

int qm5_cl_library_init(void);
int qm5_cl_sys_open_device(void);
int qm5_cl_post_notify_callback(qm5_cl_post_notify_function *callback);

// Switches notification on; post threads that run already are announced too.
int qm5_cl_post_set_notify(std::uint32_t mask);

int qm5_cl_post_thread_get_status(std::uint32_t res_id, qm5_cl_post_status *status);

// `handle` stays untouched on failure. `line_bytes` is the length of a line of the OSD's memory,
// at least (width * bits per pixel + 7) / 8; what `aux` says only the library knows.
int qm5_cl_post_open_osd(std::uint32_t res_id, const qm5_cl_osd_param *param, std::uint32_t *handle,
                         std::uint32_t *aux, std::uint32_t *line_bytes);
int qm5_cl_post_close_osd(std::uint32_t res_id, std::uint32_t handle);

// Takes the OSD off the picture and leaves it open.
int qm5_cl_post_clear_osd(std::uint32_t res_id, std::uint32_t handle);

int qm5_cl_post_get_osd_mem(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_mem *mem);

// Shows what is in the OSD's memory, at this position.
int qm5_cl_post_set_osd(std::uint32_t res_id, std::uint32_t handle, qm5_cl_osd_pos pos);

int qm5_cl_sys_close_device(void);
int qm5_cl_library_exit(void);

} // extern "C"
