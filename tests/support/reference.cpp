#include "support/reference.h"

#include "sim_reader.h"
#include "support/process.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace support
{

namespace fs = std::filesystem;
using sim_reader::Color;
using sim_reader::IndexedPicture;
using sim_reader::Picture;

namespace
{

constexpr const char *DIFFERENCES = QM5OSD_BUILD "/tests/differences";

Ended snapshot(Words words, const Words &more)
{
    words.insert(words.begin(), {QM5SIM_PROGRAM, "snapshot"});
    words.insert(words.end(), more.begin(), more.end());
    return run(words);
}

// ---- Writing ------------------------------------------------------------------------------------

IndexedPicture to_indexed(const Picture &picture)
{
    IndexedPicture indexed{picture.width, picture.height, 1, {}, {}};
    std::vector<Color> colors;
    for (std::size_t i = 0; i < picture.rgb.size(); i += 3) {
        const Color color = {picture.rgb[i], picture.rgb[i + 1], picture.rgb[i + 2], 255};
        const auto found = std::find(colors.begin(), colors.end(), color);
        indexed.indices.push_back(static_cast<std::uint8_t>(found - colors.begin()));
        if (found == colors.end())
            colors.push_back(color);
    }
    if (colors.size() > indexed.colors.size())
        throw std::runtime_error("more than 256 colours");
    std::copy(colors.begin(), colors.end(), indexed.colors.begin());
    while (colors.size() > 1u << indexed.bits)
        indexed.bits *= 2;
    return indexed;
}

// Writes a picture in as few bytes as there need be: a palette PNG, well compressed.
void write_small(const IndexedPicture &picture, const fs::path &file)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = picture.width;
    image.height = picture.height;
    image.format = PNG_FORMAT_RGBA_COLORMAP;
    image.colormap_entries = 1u << picture.bits;
    if (!png_image_write_to_file(&image, file.c_str(), 0, picture.indices.data(), 0,
                                 picture.colors.data()))
        throw std::runtime_error(file.string() + ": " + image.message);
}

testing::AssertionResult write_reference(const fs::path &file, const Words &words)
{
    const Ended ended = snapshot(words, {file});
    if (ended.status != 0)
        return testing::AssertionFailure() << ended.err;
    sim_reader::PngFile png(file);
    write_small(png.index_bits() != 0 ? png.read_indexed() : to_indexed(png.read_picture()), file);
    return testing::AssertionFailure() << file << " has been written anew; look at it";
}

} // namespace

testing::AssertionResult matches_reference(const std::string &name, const Words &words)
{
    const fs::path file = fs::path(QM5OSD_REFERENCES) / (name + ".png");
    const char *write = std::getenv("QM5OSD_WRITE_REFERENCES");
    if (write && std::string(write) == "1")
        return write_reference(file, words);

    const fs::path difference = fs::path(DIFFERENCES) / (name + ".png");
    fs::create_directories(DIFFERENCES);
    fs::remove(difference); // of an earlier run
    const Ended ended = snapshot(words, {"--check", file, difference});
    if (ended.status == 0 && ended.err.empty() && ended.out.empty())
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << ended.out << ended.err << "see " << difference;
}

} // namespace support
