#include "frames.h"

#include "file_io.h"
#include "png_file.h"

#include <utility>

namespace live
{

namespace
{

// No real video is larger, and every pixel of a picture takes memory.
constexpr std::uint64_t LARGEST_PICTURE = std::uint64_t{8192} * 8192;

std::string size_text(unsigned width, unsigned height)
{
    return std::to_string(width) + 'x' + std::to_string(height);
}

void require_possible(unsigned width, unsigned height)
{
    if (std::uint64_t{width} * height > LARGEST_PICTURE)
        sim_reader::fail("background",
                         "a picture of " + size_text(width, height) + " pixels is too large");
}

} // namespace

void Frames::put(unsigned post, std::string png, unsigned width, unsigned height)
{
    require_possible(width, height);
    const std::lock_guard lock(mutex_); // one at a time: a decoded picture is large
    sim_reader::PngFile file("frame", png);
    if (file.width() != width || file.height() != height)
        sim_reader::fail("frame", size_text(file.width(), file.height()) + ", but post " +
                                      std::to_string(post) + " is " + size_text(width, height));
    file.read_picture(); // all of it has to be good
    kept_.at(post).frame = {std::make_shared<const std::string>(std::move(png)), width, height};
    kept_.at(post).version++;
}

void Frames::remove(unsigned post)
{
    const std::lock_guard lock(mutex_);
    kept_.at(post).frame = {};
    kept_.at(post).version++;
}

Frames::Png Frames::background(unsigned post, unsigned width, unsigned height)
{
    require_possible(width, height);
    const std::lock_guard lock(mutex_);
    const auto fits = [&](const Sized &picture) {
        return picture.png && picture.width == width && picture.height == height;
    };
    Kept &kept = kept_.at(post);
    if (fits(kept.frame))
        return kept.frame.png;
    if (!fits(kept.pattern)) {
        const sim_reader::Picture pattern = sim_reader::test_pattern(width, height);
        kept.pattern = {
            std::make_shared<const std::string>(sim_reader::encode_png(pattern, "background")),
            width, height};
    }
    return kept.pattern.png;
}

} // namespace live
