#include "support/rendered_text.h"

#include "text/font.h"

#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <vector>

namespace support
{

namespace
{

constexpr long RECENT = 6; // seconds

class Engine
{
public:
    explicit Engine(unsigned size)
    {
        if (font_init_engine(&engine_, QM5OSD_FONT, size) != 0)
            throw std::runtime_error("font engine");
    }
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;
    ~Engine()
    {
        font_clear_engine(&engine_);
    }
    font_engine *get()
    {
        return &engine_;
    }

private:
    font_engine engine_{};
};

} // namespace

bool shows_text(const sim_reader::Osd &osd, const std::string &text, const TextStyle &style)
{
    const std::size_t size = std::size_t{osd.record.line_bytes} * osd.record.height;
    if (osd.pixels.size() != size || osd.record.height != style.size)
        return false;
    Engine engine(style.size);
    std::vector<std::uint32_t> target((size + 3) / 4);
    const std::uint32_t mask = (1u << (2u << osd.record.color_type)) - 1;
    if (font_get_target_bitmap(engine.get(), text.c_str(), style.color_fg, style.color_bg,
                               osd.width_of_line(), mask, static_cast<std::uint32_t>(size),
                               target.data()) != 0)
        return false;
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(target.data());
    return std::vector<std::uint8_t>(bytes, bytes + size) == osd.pixels;
}

bool shows_recent_time(const sim_reader::Osd &osd, long offset, const TextStyle &style)
{
    const time_t now = std::time(nullptr);
    for (long ago = 0; ago <= RECENT; ago++) {
        const time_t moment = now - ago + offset;
        std::tm fields{};
        gmtime_r(&moment, &fields);
        char text[16];
        std::strftime(text, sizeof text, " %H:%M:%S ", &fields);
        if (shows_text(osd, text, style))
            return true;
    }
    return false;
}

unsigned cell_width(unsigned size)
{
    Engine engine(size);
    return static_cast<unsigned>(engine.get()->maxAdvance);
}

} // namespace support
