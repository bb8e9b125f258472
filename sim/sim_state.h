// The state of the simulated codec, in a folder outside any process: post threads exist before the
// server starts and after it ends, and tools read along while it runs.
//
// The folder is named by the environment variable QM5SIM_STATE; without it, it is one of the user's
// own in the temporary folder. It holds
//
//   post0 ... post3     what each post thread is to be: "720x576" or "closed" and a line feed. Made
//                       by the library where missing; anybody may rewrite one at any time
//   state               the record below, mapped into the library and read by the tools; locked
//                       (flock) by the one process that has the device open
//   post0-osd0 ...      what each open OSD shows, as last set; line_bytes * height bytes at least
//
// Only the library writes `state` and the pixels. It makes `sequence` odd before and even after
// each change, and a reader takes nothing that it read across a change of it.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint32_t SIM_POSTS = 4;
constexpr std::uint32_t SIM_OSDS = 4;

constexpr std::uint32_t SIM_MAGIC = 0x6D697335; // "5sim"
constexpr std::uint32_t SIM_VERSION = 1;

struct sim_osd {
    std::uint32_t handle; // 0: not open
    std::uint32_t color_type;
    std::uint32_t width; // as requested, in pixels
    std::uint32_t height;
    std::uint32_t line_bytes;
    std::uint32_t shown; // 1: on the picture
    std::uint32_t x;
    std::uint32_t y;
    std::uint32_t sets; // how often it has been shown
};

struct sim_post {
    std::uint32_t res_id; // 0: no post thread
    std::uint32_t width;
    std::uint32_t height;
    sim_osd osd[SIM_OSDS];
};

struct sim_state {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t sequence;
    std::uint32_t last_id; // resource IDs and handles are counted, so none comes twice
    sim_post post[SIM_POSTS];
};
static_assert(sizeof(sim_osd) == 36 && sizeof(sim_post) == 156 && sizeof(sim_state) == 640);

constexpr std::size_t SIM_PATH_SIZE = 4096;

// The folder's path, into SIM_PATH_SIZE bytes.
void sim_get_folder(char *path);

// The largest OSD in bytes, as 8192 by 8192 pixels of 8 bits; a larger one is refused.
constexpr std::size_t SIM_LARGEST_OSD = std::size_t{64} << 20;

// Only the user looks into a state folder.
constexpr unsigned SIM_FOLDER_MODE = 0700;

// Reads "WIDTHxHEIGHT" or "closed", which is a size of 0 by 0. False for anything else; a size is
// 1 to 65535 each way.
bool sim_parse_size(const char *text, std::uint32_t *width, std::uint32_t *height);
