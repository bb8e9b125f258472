// Any bytes as a parameter file, through the reader, the validation and the overlay, and on into
// the post table as an update would bring them.
#include "fuzz.h"

#include "cli/catalogue.h"
#include "display/post.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

const char *const fuzz_words[] = {"[osd]\n",
                                  "[other]\n",
                                  "OsdFontFile=",
                                  "font.ttf\n",
                                  "Post0DateOn=1\n",
                                  "Post1String=",
                                  "Post2Osd3ColorType",
                                  "Post3Osd0X=",
                                  "4294967295\n",
                                  "-4294967295\n",
                                  "2147483647\n",
                                  "Post0Rectangle0On=",
                                  "=",
                                  "Post0StringColor=",
                                  "255\n",
                                  "OsdTVOutSafeSpaceUp=",
                                  nullptr};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const int file = memfd_create("parameters", 0);
    if (file == -1 || write(file, data, size) != static_cast<ssize_t>(size))
        std::abort();
    const std::string path = "/proc/self/fd/" + std::to_string(file);

    param_section *section = osd_get_default_section();
    if (!section)
        std::abort();
    if (osd_read_parameter_file(section, path.c_str()) == 0) {
        osd_set_post_params(section, osd_state.post);
        // What was accepted must be accepted again, but for the font, which has no default.
        const param_parampair font = {const_cast<char *>("OsdFontFile"), const_cast<char *>("f")};
        if (param_section_search_set_parampair(section, &font) != 0 ||
            osd_check_section(section) != 0)
            std::abort();
    }
    param_section_free(section);
    close(file);
    return 0;
}
