// A pass of the main loop but for its sleep, on posts that are open: a normal one, which draws the
// time, and a full redraw of all four slots.
#include "display/refresh.h"
#include "server/callback.h"
#include "server/main_loop.h"
#include "support/open_posts.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace
{

using support::make_pair;

// The first `posts` posts with all four texts.
void open_with_texts(int posts)
{
    support::open_posts(posts, {make_pair("OsdFontFile", QM5OSD_FONT),
                                make_pair("Post0DateOn", "1"), make_pair("Post0TimeOn", "1"),
                                make_pair("Post0TypeOn", "1"), make_pair("Post0StringOn", "1"),
                                make_pair("Post0String", "qm5osd user string!!"),
                                make_pair("Post1DateOn", "1"), make_pair("Post1TimeOn", "1"),
                                make_pair("Post1TypeOn", "1"), make_pair("Post1StringOn", "1"),
                                make_pair("Post2TimeOn", "1"), make_pair("Post3TimeOn", "1")});
    osd_get_current_datetime();
    for (int i = 0; i < 2; i++) { // the storage's open comes alone
        if (osd_visit_posts() != OSD_POSTS)
            std::abort();
    }
}

// Argument: number of open posts.
void normal_pass(benchmark::State &state)
{
    int ends[2];
    if (pipe2(ends, O_NONBLOCK) != 0)
        std::abort();
    open_with_texts(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        osd_get_current_datetime();
        benchmark::DoNotOptimize(osd_visit_posts());
        benchmark::DoNotOptimize(osd_do_request(ends[0]));
    }
    osd_close_opened_post();
    close(ends[0]);
    close(ends[1]);
}

// Argument: number of the post.
void full_redraw(benchmark::State &state)
{
    open_with_texts(OSD_POSTS);
    osd_post *post = &osd_state.post[state.range(0)];
    for (auto _ : state) {
        post->refresh_all = 1;
        if (osd_refresh(post) != 0)
            std::abort();
    }
    osd_close_opened_post();
}

BENCHMARK(normal_pass)->ArgName("posts")->Arg(0)->Arg(1)->Arg(4);
BENCHMARK(full_redraw)->ArgName("post")->Arg(0)->Arg(1);

} // namespace
