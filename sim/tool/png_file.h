// PNG files. What fails throws std::runtime_error, "FILE: why".
#pragma once

#include "picture.h"

#include <filesystem>
#include <png.h>
#include <string>

namespace sim_reader
{

// The bytes of a PNG file; `name` begins the text of a failure.
std::string encode_png(const Picture &picture, const std::filesystem::path &name);

// Writes the file whole or not at all.
void write_png(const Picture &picture, const std::filesystem::path &file);

// The same as a palette PNG of the picture's depth, which keeps the indices, the colours and their
// alpha.
void write_png(const IndexedPicture &picture, const std::filesystem::path &file);

// A PNG file to read; its size is known before its pixels are read, and these are read once.
class PngFile
{
public:
    explicit PngFile(const std::filesystem::path &file);

    // The same from its bytes; `name` begins the text of a failure.
    PngFile(const std::filesystem::path &name, std::string bytes);
    PngFile(const PngFile &) = delete;
    PngFile &operator=(const PngFile &) = delete;
    ~PngFile();

    unsigned width() const;
    unsigned height() const;
    unsigned index_bits() const; // of a palette PNG, 0 for any other

    // In colour, whatever the file's own format; over black where it is clear.
    Picture read_picture();

    // From a palette PNG, index by index.
    IndexedPicture read_indexed();

private:
    void finish(void *pixels, void *colors);

    std::filesystem::path file_;
    std::string bytes_;
    png_image image_{};
};

} // namespace sim_reader
