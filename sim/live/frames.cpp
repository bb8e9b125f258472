#include "frames.h"

#include "file_io.h"
#include "png_file.h"

#include <utility>

namespace live
{

void Frames::put(unsigned post, std::string png, unsigned width, unsigned height)
{
    sim_reader::require_possible("background", width, height);
    const std::lock_guard lock(mutex_); // one at a time: a decoded picture is large
    sim_reader::PngFile file("frame", std::move(png));
    if (file.width() != width || file.height() != height)
        sim_reader::fail("frame", sim_reader::size_text(file.width(), file.height()) +
                                      ", but post " + std::to_string(post) + " is " +
                                      sim_reader::size_text(width, height));
    // As the tool reads it; a browser would have its own view of alpha and gamma.
    kept_.at(post).frame = encode(file.read_picture());
    kept_.at(post).size = Size{width, height};
    kept_.at(post).version++;
}

void Frames::remove(unsigned post)
{
    const std::lock_guard lock(mutex_);
    kept_.at(post).frame = {};
    kept_.at(post).size = Size{};
    kept_.at(post).version++;
}

Frames::Sized Frames::encode(const sim_reader::Picture &picture)
{
    return {std::make_shared<const std::string>(sim_reader::encode_png(picture, "background")),
            picture.width, picture.height};
}

Frames::Png Frames::background(unsigned post, unsigned width, unsigned height)
{
    sim_reader::require_possible("background", width, height);
    const std::lock_guard lock(mutex_);
    const auto fits = [&](const Sized &picture) {
        return picture.png && picture.width == width && picture.height == height;
    };
    Kept &kept = kept_.at(post);
    if (fits(kept.frame))
        return kept.frame.png;
    if (!fits(kept.pattern))
        kept.pattern = encode(sim_reader::test_pattern(width, height));
    return kept.pattern.png;
}

} // namespace live
