// Reading the state of a simulated codec, each time as one moment had it.
#pragma once

#include "file_io.h"
#include "sim_state.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace sim_reader
{

// One OSD as it is shown.
struct Osd {
    sim_osd record{};
    std::vector<std::uint8_t> pixels; // line_bytes * height bytes; empty while it isn't shown

    // Colour index of a pixel; x up to width_of_line().
    unsigned index_at(unsigned x, unsigned y) const;
    std::vector<std::uint8_t> indices_of_line(unsigned y) const;
    unsigned width_of_line() const;
};

unsigned bits_per_pixel(const sim_osd &osd);
unsigned pixels_per_line(const sim_osd &osd);
std::uint64_t bytes_of_memory(const sim_osd &osd);

struct Post {
    std::uint32_t res_id = 0; // 0: no library has given it one yet
    unsigned width = 0;
    unsigned height = 0;
    std::array<Osd, SIM_OSDS> osd;
};

// Has the post a thread? Not one of a size that its library was killed while it told it.
template <typename AnyPost>
bool has_thread(const AnyPost &post)
{
    return post.width != 0 && post.height != 0;
}

// All posts and their OSDs, without the pixels. While no process has the device open, the post
// threads are what their files say, also before the first one has it. This and read_post throw
// std::runtime_error, with the reason as text, if there is no such folder, or its state is damaged
// or doesn't stand still.
sim_state read_state(const std::filesystem::path &folder);

// A post with the pixels of its OSDs.
Post read_post(const std::filesystem::path &folder, unsigned number);

// One OSD of a post, with its pixels. Throws as read_post does.
Osd read_osd(const std::filesystem::path &folder, unsigned post, unsigned number);

// Brings the posts of a record to what their files say, as they are while no process has the device
// open. Throws std::runtime_error for a file that can't be read.
void follow_sizes(const std::filesystem::path &folder, sim_state &state);

// Does a process have the device open now? Throws std::runtime_error for what is no state.
bool is_device_open(const std::filesystem::path &folder);

// The folder that the library uses with the present environment.
std::filesystem::path default_folder();

// Throws std::runtime_error if the folder stands at the path of the default one and isn't the
// user's own.
void require_trusted(const std::filesystem::path &folder);

// Makes the folder if it isn't there, and throws as require_trusted does. Another failure is left
// to the first use of a file in it.
void make_folder(const std::filesystem::path &folder);

// Keeps other tools from changing the folder, which is made if it isn't there, as long as what it
// gives is there. Throws std::runtime_error.
Descriptor lock_folder(const std::filesystem::path &folder);

// Size of a video in pixels; 0 by 0 for a closed post.
struct Size {
    std::uint32_t width, height;

    bool operator==(const Size &) const = default;
};
std::string format_size(const Size &size);

// "720x576", whatever the numbers.
std::string size_text(std::uint64_t width, std::uint64_t height);

// A resource ID, a handle or an errno, as the application's log tells it.
std::string word_text(std::uint32_t word);

// What a post thread is told to be; nothing for one that was never told, or in words that the
// library doesn't understand. Throws std::runtime_error.
std::optional<Size> read_size(const std::filesystem::path &folder, unsigned number);

// Tells the post thread to take this size, or to close for 0 by 0; the thread before it has ended
// then, unless a process has the device open, which follows within moments. Throws
// std::runtime_error.
void write_size(const std::filesystem::path &folder, unsigned number, unsigned width,
                unsigned height);

} // namespace sim_reader
