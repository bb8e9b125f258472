// Runs passes of the server's main loop on the simulated codec, for whoever counts instructions.
//
//   pass_repeatedly time|all COUNT
//
// All four posts show the date, the time, the label and a string. `time`: the pass of each second,
// which draws the time of each post; as long as a time is shown there is no other. `all`: the pass
// behind an update, which draws everything. The state folder is QM5SIM_STATE's.
#include "display/qm5codec.h"
#include "server/callback.h"
#include "server/main_loop.h"
#include "server/start.h"
#include "support/open_posts.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{

using support::make_pair;

void show_texts()
{
    constexpr const char *string = "qm5osd user string!!";
    support::set_posts({make_pair("OsdFontFile", QM5OSD_FONT), make_pair("Post0String", string),
                        make_pair("Post1String", string), make_pair("Post2String", string),
                        make_pair("Post3String", string)});
    for (osd_post &post : osd_state.post) {
        for (osd_rect &rect : post.rect)
            rect.mode = OSD_MODE_TEXT;
    }
}

void wait_for_posts()
{
    for (const osd_post &post : osd_state.post) {
        while (post.res_id == 0)
            usleep(1000);
    }
}

// Each pass has a second of its own, as it has behind the sleep that is left out here. The rest of
// the clock is the same in every run, for each digit takes instructions of its own.
void set_clock(int seconds)
{
    char digits[sizeof(cmn_st_cdatetime) + 1];
    std::snprintf(digits, sizeof digits, "202603041234%02d00", seconds % 60);
    std::memcpy(&osd_state.cdatetime, digits, sizeof(cmn_st_cdatetime));
}

// A pass but for its sleep. It has a name for callgrind's --toggle-collect, so that what other
// threads and the waits for them take isn't counted.
[[gnu::noinline]] void pass(int number, bool redraw, int request_fd)
{
    for (osd_post &post : osd_state.post)
        post.refresh_all = redraw;
    if (osd_get_current_datetime() != 0)
        std::abort();
    set_clock(number);
    if (osd_visit_posts() != OSD_POSTS || osd_do_request(request_fd) != OSD_REQUEST_NONE)
        std::abort();
}

} // namespace

int main(int argc, char **argv)
{
    const bool redraw = argc == 3 && std::strcmp(argv[1], "all") == 0;
    if (argc != 3 || (!redraw && std::strcmp(argv[1], "time") != 0)) {
        std::fprintf(stderr, "pass_repeatedly: usage: pass_repeatedly time|all COUNT\n");
        return 2;
    }
    int request[2];
    setenv("TZ", "UTC0", 1); // without it localtime looks after the zone's file
    show_texts();
    if (pipe2(request, O_NONBLOCK) != 0 || osd_server_init_process() != 0)
        return 1;
    wait_for_posts();
    pass(0, true, request[0]);
    pass(0, true, request[0]); // the storage's open comes alone
    for (int i = 1; i <= std::atoi(argv[2]); i++)
        pass(i, redraw, request[0]);
    osd_close_opened_post();
    osd_server_end_process();
    return 0;
}
