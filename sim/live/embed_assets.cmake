# Writes the files FILES, a list, into the C++ source OUT as the assets of the page.
set(arrays "")
set(rows "")
set(number 0)
foreach(file ${FILES})
    get_filename_component(name ${file} NAME)
    file(READ ${file} hex HEX)
    string(REGEX REPLACE "(................................)" "\\1\n" hex "${hex}")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," hex "${hex}")
    string(APPEND arrays "constexpr unsigned char asset_${number}[] = {\n${hex}0};\n")
    string(APPEND rows "        {\"${name}\", view_of(asset_${number})},\n")
    math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUT} "// Made by the build.
#include \"assets.h\"

#include <cstddef>

namespace live
{

namespace
{

${arrays}
// Without the zero behind it.
template <std::size_t SIZE>
std::string_view view_of(const unsigned char (&bytes)[SIZE])
{
    return {reinterpret_cast<const char *>(bytes), SIZE - 1};
}

} // namespace

const std::vector<Asset> &page_assets()
{
    static const std::vector<Asset> all = {
${rows}    };
    return all;
}

} // namespace live
")
