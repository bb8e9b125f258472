// What stands behind the library's twelve names: a simulated codec, or another codec library that
// every call is passed on to. The names themselves are in sim_exports.cpp, which records the calls;
// when a record begins is decided here, in library_init.
#pragma once

#include "display/qm5codec.h"
#include "sim_record.h"

#include <cstdint>

struct sim_codec_table {
    decltype(&qm5_cl_library_init) library_init;
    decltype(&qm5_cl_sys_open_device) open_device;
    decltype(&qm5_cl_post_notify_callback) notify_callback;
    decltype(&qm5_cl_post_set_notify) set_notify;
    decltype(&qm5_cl_post_thread_get_status) thread_get_status;
    decltype(&qm5_cl_post_open_osd) open_osd;
    decltype(&qm5_cl_post_close_osd) close_osd;
    decltype(&qm5_cl_post_clear_osd) clear_osd;
    decltype(&qm5_cl_post_get_osd_mem) get_osd_mem;
    decltype(&qm5_cl_post_set_osd) set_osd;
    decltype(&qm5_cl_sys_close_device) close_device;
    decltype(&qm5_cl_library_exit) library_exit;
};
extern sim_codec_table sim_codec;

// Is the library up?
bool sim_codec_is_up();

// Has a fault made up that the post of the last call, which says so, has gone?
bool sim_codec_made_it_up();

// What the last set_osd, which has succeeded, has shown; valid until the next call.
sim_shown sim_codec_shown();
