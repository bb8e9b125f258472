// What stands behind the library's twelve names: a simulated codec, or another codec library that
// every call is passed on to. The names themselves are in sim_exports.cpp, which records the calls.
#pragma once

#include "display/qm5codec.h"

#include <cstddef>
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

// Fills the table before its first use. -1 with errno if it can't be filled.
int sim_codec_prepare();

// The folder for the record, after library_init has succeeded; NULL if none is wanted.
const char *sim_codec_record_folder();

// What a set_osd has just shown, valid until the next call on the OSD; NULL if that isn't known.
const void *sim_codec_shown(std::uint32_t handle, std::size_t *size);
