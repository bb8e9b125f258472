// What stands below the OSDs on the page: frames that it was given, and a test pattern otherwise.
#pragma once

#include "picture.h"
#include "sim_state.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace live
{

class Frames
{
public:
    // A PNG file, shared by all who send it.
    typedef std::shared_ptr<const std::string> Png;

    // Keeps the picture of a PNG file as the post's frame. Throws std::runtime_error, "what: why",
    // unless it is a good one of this size.
    void put(unsigned post, std::string png, unsigned width, unsigned height);
    void remove(unsigned post);

    // What stands below the post's OSDs at this size.
    Png background(unsigned post, unsigned width, unsigned height);

    struct Size {
        unsigned width = 0;
        unsigned height = 0;
    };

    // The size of the post's frame; 0x0 if it has none.
    Size frame_size(unsigned post) const
    {
        return kept_.at(post).size;
    }

    // Another number for every change of the frame.
    std::uint64_t version(unsigned post) const
    {
        return kept_.at(post).version;
    }

private:
    struct Sized {
        Png png;
        unsigned width = 0;
        unsigned height = 0;
    };
    static Sized encode(const sim_reader::Picture &picture);

    struct Kept {
        Sized frame;
        Sized pattern;
        std::atomic<std::uint64_t> version = 1;
        std::atomic<Size> size = Size{}; // of the frame; known while another is being decoded
    };

    std::mutex mutex_;
    std::array<Kept, SIM_POSTS> kept_;
};

} // namespace live
