// Composes the time string a number of times, for whoever counts instructions.
//
//   compose_repeatedly SIZE COUNT
//
// Each composition clears the target first, as the drawing of an OSD does.
#include "text/font.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "compose_repeatedly: usage: compose_repeatedly SIZE COUNT\n");
        return 2;
    }
    const auto size = static_cast<std::uint32_t>(std::atoi(argv[1]));
    font_engine engine;
    if (font_init_engine(&engine, QM5OSD_FONT, size) != 0)
        return 1;

    // Ten cells of 2-bit pixels, in lines of whole 16 bytes.
    const std::uint32_t width = (10 * static_cast<std::uint32_t>(engine.maxAdvance) + 63) / 64 * 64;
    std::vector<std::uint32_t> target(width / 4 * size / 4);
    const auto bytes = static_cast<std::uint32_t>(target.size() * 4);
    for (int i = 0; i < std::atoi(argv[2]); i++) {
        std::memset(target.data(), 0, bytes);
        if (font_get_target_bitmap(&engine, " 12:34:56 ", 3, 1, width, 3, bytes, target.data()) !=
            0)
            return 1;
    }
    font_clear_engine(&engine);
    return 0;
}
