// The files of the page, which the build puts into the program.
#pragma once

#include <string_view>
#include <vector>

namespace live
{

struct Asset {
    std::string_view name; // of the file
    std::string_view bytes;
};

const std::vector<Asset> &page_assets();

} // namespace live
