// Any bytes in the request FIFO, through the request step and the visit of the posts. Four posts
// are open, and no parameter file is there, so an update fails and changes nothing.
#include "fuzz.h"

#include "display/post.h"
#include "server/main_loop.h"
#include "support/open_posts.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

const char *const fuzz_words[] = {"U\x0F\0\0", "U", "S\0\0\0", "S", "\x55\xFF\xFF\xFF", nullptr};

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (!osd_state.font_file[0]) {
        support::open_posts(OSD_POSTS, {support::make_pair("OsdFontFile", QM5OSD_FONT),
                                        support::make_pair("Post0TimeOn", "1"),
                                        support::make_pair("Post3TypeOn", "1")});
    }
    int ends[2];
    if (pipe2(ends, O_NONBLOCK) != 0)
        std::abort();
    const ssize_t written = write(ends[1], data, size);
    for (ssize_t left = written; left >= 4; left -= 4) {
        const osd_request_status status = osd_do_request(ends[0]);
        if (status == OSD_REQUEST_NONE)
            break;
        if (osd_visit_posts() != OSD_POSTS)
            std::abort();
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}
