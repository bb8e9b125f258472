#include "png_file.h"

#include "file_io.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace sim_reader
{

namespace fs = std::filesystem;

// The palette goes to libpng and comes from it as it is.
static_assert(sizeof(Color) == PNG_IMAGE_SAMPLE_SIZE(PNG_FORMAT_RGBA) &&
              offsetof(Color, alpha) == 3);

// ---- Writing ------------------------------------------------------------------------------------

namespace
{

png_image begin_image(unsigned width, unsigned height, png_uint_32 format)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = width;
    image.height = height;
    image.format = format;
    image.flags = PNG_IMAGE_FLAG_FAST; // a picture a second matters more than its bytes
    return image;
}

std::string encode_image(png_image &image, const fs::path &name, const std::uint8_t *pixels,
                         const Color *colors)
{
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
    std::string bytes(size, '\0');
    if (!png_image_write_to_memory(&image, bytes.data(), &size, 0, pixels, 0, colors))
        fail(name, image.message);
    bytes.resize(size);
    return bytes;
}

} // namespace

std::string encode_png(const Picture &picture, const fs::path &name)
{
    png_image image = begin_image(picture.width, picture.height, PNG_FORMAT_RGB);
    return encode_image(image, name, picture.rgb.data(), nullptr);
}

void write_png(const Picture &picture, const fs::path &file)
{
    write_file(file, encode_png(picture, file));
}

void write_png(const IndexedPicture &picture, const fs::path &file)
{
    png_image image = begin_image(picture.width, picture.height, PNG_FORMAT_RGBA_COLORMAP);
    image.colormap_entries = 1u << picture.bits; // from which libpng takes the depth
    write_file(file, encode_image(image, file, picture.indices.data(), picture.colors.data()));
}

// ---- Reading ------------------------------------------------------------------------------------

namespace
{

// Where the bytes of the first chunk are; libpng has checked that they are there.
constexpr std::size_t DEPTH_AT = 24;
constexpr std::size_t COLOR_TYPE_AT = 25;

} // namespace

PngFile::PngFile(const fs::path &file) : PngFile(file, read_file(file, LONGEST_PICTURE))
{
}

PngFile::PngFile(const fs::path &name, std::string bytes) : file_(name), bytes_(std::move(bytes))
{
    image_.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image_, bytes_.data(), bytes_.size()))
        fail(file_, std::string("no good PNG file (") + image_.message + ')');
}

PngFile::~PngFile()
{
    png_image_free(&image_);
}

unsigned PngFile::width() const
{
    return image_.width;
}

unsigned PngFile::height() const
{
    return image_.height;
}

unsigned PngFile::index_bits() const
{
    const bool indexed = bytes_[COLOR_TYPE_AT] == PNG_COLOR_TYPE_PALETTE;
    return indexed ? static_cast<unsigned char>(bytes_[DEPTH_AT]) : 0;
}

void PngFile::finish(void *pixels, void *colors)
{
    if (!png_image_finish_read(&image_, nullptr, pixels, 0, colors))
        fail(file_, std::string("no good PNG file (") + image_.message + ')');
}

Picture PngFile::read_picture()
{
    image_.format = PNG_FORMAT_RGB;
    Picture picture{width(), height(), {}};
    picture.rgb.resize(PNG_IMAGE_SIZE(image_));
    finish(picture.rgb.data(), nullptr);
    return picture;
}

IndexedPicture PngFile::read_indexed()
{
    if (index_bits() == 0)
        fail(file_, "no palette PNG");
    image_.format = PNG_FORMAT_RGBA_COLORMAP;
    IndexedPicture picture{width(), height(), index_bits(), {}, {}};
    picture.indices.resize(PNG_IMAGE_SIZE(image_));
    finish(picture.indices.data(), picture.colors.data());
    return picture;
}

} // namespace sim_reader
