#include "guides.h"

#include "file_io.h"

#include <algorithm>
#include <string>

namespace sim_reader
{

namespace
{

constexpr std::int64_t HATCH_PITCH = 16;
constexpr std::int64_t HATCH_STEP =
    HATCH_PITCH / SIM_OSDS; // from one OSD's diagonals to the next's
constexpr std::uint8_t GRID_ALPHA = 128;

// Right and bottom are the first column and line behind the area.
struct Area {
    std::int64_t left, top, right, bottom;

    bool empty() const
    {
        return left >= right || top >= bottom;
    }
};

Area common_area(const Area &one, const Area &other)
{
    return {std::max(one.left, other.left), std::max(one.top, other.top),
            std::min(one.right, other.right), std::min(one.bottom, other.bottom)};
}

Area whole_area(const Picture &picture)
{
    return {0, 0, picture.width, picture.height};
}

// What an OSD takes of the post's picture and beyond; empty while it isn't shown.
Area area_of(const Osd &osd)
{
    const sim_osd &record = osd.record;
    if (record.shown == 0)
        return {};
    return {record.x, record.y, std::int64_t{record.x} + osd.width_of_line(),
            std::int64_t{record.y} + record.height};
}

// Fills what is on the picture.
void fill(Picture &picture, const Area &area, const Color &color)
{
    const Area seen = common_area(area, whole_area(picture));
    for (std::int64_t y = seen.top; y < seen.bottom; y++) {
        for (std::int64_t x = seen.left; x < seen.right; x++)
            blend_pixel(picture, x, y, color);
    }
}

// The frame is the outermost of the area's own pixels.
void draw_frame(Picture &picture, const Area &area, const Color &color)
{
    if (area.empty())
        return;
    fill(picture, {area.left, area.top, area.right, area.top + 1}, color);
    fill(picture, {area.left, area.bottom - 1, area.right, area.bottom}, color);
    fill(picture, {area.left, area.top, area.left + 1, area.bottom}, color);
    fill(picture, {area.right - 1, area.top, area.right, area.bottom}, color);
}

Area safe_area(const SafeSpace &safe, unsigned width, unsigned height)
{
    return {safe.left, safe.up, std::int64_t{width} - safe.right, std::int64_t{height} - safe.down};
}

void draw_safe_frame(Picture &picture, const SafeSpace &safe)
{
    const Area area = safe_area(safe, picture.width, picture.height);
    if (area.empty())
        fail("--safe", "leaves nothing of " + size_text(picture.width, picture.height));
    draw_frame(picture, area, SAFE_COLOR);
}

// The first column of each cell but the first, and of what is behind the last.
void draw_cells(Picture &picture, const Osd &osd, const Cell &cell, Color color)
{
    const sim_osd &record = osd.record;
    if (record.height != cell.height || record.width % cell.width != 0)
        return;
    color.alpha = GRID_ALPHA;
    const Area area = area_of(osd);
    for (std::int64_t x = cell.width; x <= record.width; x += cell.width) {
        const Area column = {area.left + x, area.top, area.left + x + 1, area.bottom};
        fill(picture, common_area(column, area), color);
    }
}

// The diagonals of the OSD of this number in the area.
void hatch(Picture &picture, const Area &area, unsigned number)
{
    const Area seen = common_area(area, whole_area(picture));
    for (std::int64_t y = seen.top; y < seen.bottom; y++) {
        for (std::int64_t x = seen.left; x < seen.right; x++) {
            if ((x + y) % HATCH_PITCH == number * HATCH_STEP)
                blend_pixel(picture, x, y, GUIDE_COLORS[number]);
        }
    }
}

void hatch_overlaps(Picture &picture, const Post &post)
{
    for (unsigned i = 0; i < SIM_OSDS; i++) {
        for (unsigned j = 0; j < SIM_OSDS; j++) {
            if (i != j)
                hatch(picture, common_area(area_of(post.osd[i]), area_of(post.osd[j])), i);
        }
    }
}

} // namespace

bool leaves_something(const SafeSpace &safe, unsigned width, unsigned height)
{
    return !safe_area(safe, width, height).empty();
}

void draw_guides(Picture &picture, const Post &post, const Guides &guides)
{
    if (guides.safe)
        draw_safe_frame(picture, *guides.safe);
    for (unsigned i = 0; i < SIM_OSDS; i++) {
        if (guides.cells[i])
            draw_cells(picture, post.osd[i], *guides.cells[i], GUIDE_COLORS[i]);
    }
    hatch_overlaps(picture, post);
    for (unsigned i = 0; i < SIM_OSDS; i++)
        draw_frame(picture, area_of(post.osd[i]), GUIDE_COLORS[i]);
}

} // namespace sim_reader
