// What the main loop owes a post: open, close, reopen, and the closing of all posts at the stop.
#include "display/qm5codec.h"
#include "server/callback.h"
#include "support/bdf_font.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"
#include "support/wraps.h"

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

namespace
{

using support::errors_of;
using support::Lines;
using support::report;

constexpr std::uint32_t RES_ID = 0x11;

// A post with a thread, in front of a picture for the small font. Nothing is open, no slot is on.
class Callback : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        cmn_role = "server";
        font_ = support::make_font(support::small_font());
        codec::set_size(200, 160);
        for (osd_post &post : osd_state.post)
            post.font_file = font_.c_str();
        post_->res_id = RES_ID;
    }
    void TearDown() override
    {
        support::remove_file(font_);
        OsdTest::TearDown();
    }
    // Fills a slot as if it were open.
    static std::uint32_t fill_slot(osd_post *post, int slot)
    {
        const std::uint32_t handle = codec::adopt_osd({cmn_cut<std::uint32_t>(slot), 60, 8, 0});
        post->osd[slot] = {handle, 7, 60};
        return handle;
    }
    static void make_engine(osd_post *post)
    {
        ASSERT_EQ(font_init_engine(&post->font_engine, post->font_file, 8), 0);
    }
    // Opens the post with a text in the slot of the time.
    void open()
    {
        post_->rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
        post_->callback_state = OSD_CALLBACK_OPEN;
        ASSERT_EQ(osd_do_callback(post_), 0);
        ASSERT_EQ(post_->opened, 1);
        post_->callback_state = OSD_CALLBACK_NONE;
        support::take_trace();
    }
    // Carries out what is pending, which must go without a report.
    void serve(std::uint8_t state)
    {
        post_->callback_state = state;
        EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback(post_), 0); }), "");
    }

    osd_post *post_ = &osd_state.post[1];

private:
    std::string font_;
};

// The whole table, byte by byte.
std::string bytes_of_table()
{
    std::string bytes(sizeof osd_state, '\0');
    std::memcpy(bytes.data(), &osd_state, sizeof osd_state);
    return bytes;
}

// What the table would be after `change`, which is taken back.
std::string bytes_after(const std::function<void()> &change)
{
    const std::string before = bytes_of_table();
    change();
    const std::string after = bytes_of_table();
    std::memcpy(static_cast<void *>(&osd_state), before.data(), before.size());
    return after;
}

std::string by_open(std::string_view message)
{
    return report("server", message, "osd_do_callback_open");
}

std::string by_callback(std::string_view message)
{
    return report("server", message, "osd_do_callback");
}

std::string by_reopen(std::string_view message)
{
    return report("server", message, "osd_do_callback_reopen");
}

const std::string no_status = by_open("qm5_cl_post_thread_get_status() failed. errno=0x81E01234");

void expect_empty(const osd_area &area)
{
    EXPECT_EQ(area.handle, 0u);
    EXPECT_EQ(area.aux, 0u);
    EXPECT_EQ(area.target_width, 0u);
}

// ---- Nothing, open ------------------------------------------------------------------------------

TEST_F(Callback, does_nothing_for_any_other_state)
{
    open();
    for (unsigned state = 0; state <= 0xFF; state++) {
        if (state >= OSD_CALLBACK_OPEN && state <= OSD_CALLBACK_REOPEN)
            continue;
        post_->callback_state = cmn_cut<std::uint8_t>(state);
        const std::string before = bytes_of_table();
        EXPECT_EQ(osd_do_callback(post_), 0);
        EXPECT_TRUE(bytes_of_table() == before) << state;
    }
    EXPECT_EQ(support::take_trace(), Lines{});
}

TEST_F(Callback, opens_the_slots_that_are_on)
{
    post_->rect[OSD_SLOT_STRING].mode = OSD_MODE_TEXT;
    post_->rect[OSD_SLOT_DATE].mode = OSD_MODE_TEXT;
    serve(OSD_CALLBACK_OPEN);
    EXPECT_EQ(support::take_trace(), (Lines{"get_status(0x11)", "open_osd(0x11, 0, 132x8, type 2)",
                                            "open_osd(0x11, 2, 72x8, type 0)"}));
    EXPECT_EQ(post_->opened, 1);
    EXPECT_EQ(post_->osd[0].handle, 0x101u);
    EXPECT_EQ(post_->osd[2].handle, 0x102u);
    EXPECT_EQ(post_->callback_state, OSD_CALLBACK_OPEN); // the caller clears it
}

TEST_F(Callback, opens_nothing_on_a_post_without_a_thread)
{
    post_->res_id = 0;
    post_->rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
    serve(OSD_CALLBACK_OPEN);
    EXPECT_EQ(support::take_trace(), Lines{});
    EXPECT_EQ(post_->opened, 0);
}

TEST_F(Callback, fails_with_the_open_and_forgets_the_state)
{
    post_->callback_state = OSD_CALLBACK_OPEN;
    codec::fail(codec::GET_STATUS, 1, codec::SOME_ERROR);
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback(post_), -14); }),
              no_status + by_callback("open osd failed"));
    EXPECT_EQ(post_->callback_state, 0);
    EXPECT_EQ(post_->res_id, RES_ID);
    EXPECT_EQ(post_->opened, 0);
}

TEST_F(Callback, looks_at_the_state_once)
{
    codec::on(codec::GET_STATUS, [this] { post_->callback_state = OSD_CALLBACK_CLOSE; });
    serve(OSD_CALLBACK_OPEN);
    EXPECT_EQ(post_->opened, 1);
    EXPECT_EQ(post_->res_id, RES_ID);
    EXPECT_EQ(codec::calls(codec::GET_STATUS), 1);
}

TEST_F(Callback, forgets_even_what_came_during_an_open_that_fails)
{
    for (const osd_callback_state state : {OSD_CALLBACK_OPEN, OSD_CALLBACK_REOPEN}) {
        post_->callback_state = state;
        codec::on(codec::GET_STATUS, [this] { post_->callback_state = OSD_CALLBACK_CLOSE; });
        codec::fail(codec::GET_STATUS, 1, codec::SOME_ERROR);
        EXPECT_NE(errors_of([this] { EXPECT_EQ(osd_do_callback(post_), -14); }), "");
        EXPECT_EQ(post_->callback_state, 0);
    }
}

// ---- Close --------------------------------------------------------------------------------------

TEST_F(Callback, forgets_a_post_whose_thread_has_gone_without_any_library_call)
{
    open();
    for (int slot = 0; slot < OSD_SLOTS; slot++)
        post_->osd[slot] = {0x201, 2, 3};
    post_->refresh_all = 1;
    post_->date_changed = 1;
    post_->safe_space_up = 4;
    post_->date_offset_y = 5;
    std::strcpy(post_->string_text, " text ");
    post_->rect[1] = {OSD_MODE_RECTANGLE, 1, 2, 3, 4, 5, 6, 7, post_->string_text};
    wraps::trace(wraps::FT_DONE_FREETYPE);
    wraps::trace(wraps::FT_DONE_FACE);

    post_->callback_state = OSD_CALLBACK_CLOSE;
    const std::string after = bytes_after([this] {
        for (osd_area &area : post_->osd)
            area = {};
        post_->opened = 0;
        post_->video_width = 0;
        post_->video_height = 0;
        post_->res_id = 0;
        post_->font_engine.library = nullptr;
    });
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback(post_), 0); }), "");
    EXPECT_TRUE(bytes_of_table() == after);
    EXPECT_EQ(support::take_trace(), (Lines{"FT_Done_Face()", "FT_Done_FreeType()"}));
}

TEST_F(Callback, forgets_a_post_that_was_never_opened)
{
    serve(OSD_CALLBACK_CLOSE); // an engine that isn't live is not cleared: that would be reported
    EXPECT_EQ(support::take_trace(), Lines{});
    EXPECT_EQ(post_->res_id, 0u);
    EXPECT_EQ(post_->callback_state, OSD_CALLBACK_CLOSE);
}

TEST_F(Callback, forgets_the_engine_of_a_post_whose_open_was_refused)
{
    post_->rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
    post_->callback_state = OSD_CALLBACK_OPEN;
    codec::fail(codec::OPEN_OSD, 1, QM5_CL_ERROR_OPEN_REFUSED);
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback(post_), -14); }),
              by_open("qm5_cl_post_open_osd() failed. errno=0x81E03246") + by_open("Post1Osd3") +
                  by_callback("open osd failed"));
    ASSERT_NE(post_->font_engine.library, nullptr);
    serve(OSD_CALLBACK_CLOSE);
    EXPECT_EQ(post_->font_engine.library, nullptr);
}

TEST_F(Callback, forgets_an_open_post_without_a_live_engine)
{
    post_->opened = 1;
    serve(OSD_CALLBACK_CLOSE);
    EXPECT_EQ(post_->opened, 0);
}

TEST_F(Callback, touches_no_other_post)
{
    osd_post *other = &osd_state.post[2];
    other->res_id = 0x33;
    other->opened = 1;
    fill_slot(other, 0);
    for (const std::uint8_t state : {OSD_CALLBACK_OPEN, OSD_CALLBACK_REOPEN, OSD_CALLBACK_CLOSE}) {
        const std::string before(reinterpret_cast<const char *>(other), sizeof *other);
        serve(state);
        EXPECT_TRUE(std::string(reinterpret_cast<const char *>(other), sizeof *other) == before);
    }
}

// ---- Reopen -------------------------------------------------------------------------------------

TEST_F(Callback, reopens_a_post)
{
    open();
    const std::uint32_t first = fill_slot(post_, 0);
    EXPECT_EQ(first, 0x102u);
    post_->rect[OSD_SLOT_LABEL].mode = OSD_MODE_RECTANGLE;
    post_->rect[OSD_SLOT_LABEL].w = 30;
    post_->rect[OSD_SLOT_LABEL].h = 20;
    serve(OSD_CALLBACK_REOPEN);
    EXPECT_EQ(support::take_trace(),
              (Lines{"clear_osd(0x11, 0x102)", "close_osd(0x11, 0x102)", "clear_osd(0x11, 0x101)",
                     "close_osd(0x11, 0x101)", "get_status(0x11)",
                     "open_osd(0x11, 1, 30x20, type 0)", "open_osd(0x11, 3, 60x8, type 0)"}));
    expect_empty(post_->osd[0]);
    EXPECT_EQ(post_->osd[1].handle, 0x103u);
    expect_empty(post_->osd[2]);
    EXPECT_EQ(post_->osd[3].handle, 0x104u);
    EXPECT_EQ(post_->opened, 1);
    EXPECT_EQ(post_->video_width, 200u);
    EXPECT_EQ(post_->video_height, 160u);
    EXPECT_EQ(post_->res_id, RES_ID);
}

TEST_F(Callback, reopens_what_is_in_the_table_although_the_post_is_not_open)
{
    fill_slot(post_, 1);
    fill_slot(post_, 2);
    serve(OSD_CALLBACK_REOPEN);
    EXPECT_EQ(support::take_trace(),
              (Lines{"clear_osd(0x11, 0x101)", "close_osd(0x11, 0x101)", "clear_osd(0x11, 0x102)",
                     "close_osd(0x11, 0x102)", "get_status(0x11)"}));
}

TEST_F(Callback, closes_handles_of_a_reopen_without_a_thread_and_opens_nothing)
{
    post_->res_id = 0;
    post_->opened = 1;
    fill_slot(post_, 3);
    serve(OSD_CALLBACK_REOPEN);
    EXPECT_EQ(support::take_trace(), (Lines{"clear_osd(0x0, 0x101)", "close_osd(0x0, 0x101)"}));
    EXPECT_EQ(post_->opened, 0);
    expect_empty(post_->osd[3]);
}

TEST_F(Callback, has_nothing_to_reopen_without_a_thread)
{
    post_->res_id = 0;
    serve(OSD_CALLBACK_REOPEN);
    EXPECT_EQ(support::take_trace(), Lines{});
}

TEST_F(Callback, closes_the_post_before_it_reopens_it_but_keeps_its_engine)
{
    open();
    const FT_Library engine = post_->font_engine.library;
    codec::on(codec::GET_STATUS, [this, engine] {
        EXPECT_EQ(post_->opened, 0);
        EXPECT_EQ(post_->video_width, 0u);
        EXPECT_EQ(post_->video_height, 0u);
        EXPECT_EQ(post_->res_id, RES_ID);
        EXPECT_EQ(post_->font_engine.library, engine);
        for (const osd_area &area : post_->osd)
            expect_empty(area);
    });
    serve(OSD_CALLBACK_REOPEN);
    EXPECT_EQ(codec::calls(codec::GET_STATUS), 2);
}

TEST_F(Callback, keeps_its_engine_if_the_reopen_fails)
{
    open();
    post_->callback_state = OSD_CALLBACK_REOPEN;
    codec::fail(codec::GET_STATUS, 1, codec::SOME_ERROR);
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback(post_), -14); }),
              no_status + by_reopen("open osd failed") + by_callback("re-open osd failed"));
    EXPECT_NE(post_->font_engine.library, nullptr);
    EXPECT_EQ(post_->callback_state, 0);
    EXPECT_EQ(post_->opened, 0);
    EXPECT_EQ(post_->video_width, 0u);
    EXPECT_EQ(post_->res_id, RES_ID);
    expect_empty(post_->osd[3]);
}

TEST_F(Callback, reopen_alone_fails_with_the_open_and_leaves_the_state)
{
    post_->callback_state = OSD_CALLBACK_REOPEN;
    codec::fail(codec::GET_STATUS, 1, codec::SOME_ERROR);
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback_reopen(post_), -14); }),
              no_status + by_reopen("open osd failed"));
    EXPECT_EQ(post_->callback_state, OSD_CALLBACK_REOPEN);
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback_reopen(post_), 0); }), "");
}

// ---- Closing of OSDs that fails -----------------------------------------------------------------

std::string clear_reports(std::string_view handle)
{
    return report("server", "qm5_cl_post_clear_osd() failed. errno=0x81E01234", "osd_clear") +
           report("server", std::string("ResID=0x00000011, Handle=").append(handle), "osd_clear");
}

TEST_F(Callback, reopens_although_an_osd_can_not_be_cleared)
{
    fill_slot(post_, 0);
    fill_slot(post_, 2);
    post_->callback_state = OSD_CALLBACK_REOPEN;
    codec::fail(codec::CLEAR_OSD, 1, codec::SOME_ERROR, 2);
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback(post_), 0); }),
              clear_reports("0x00000101") + by_reopen("post 1 osd 0 clear error") +
                  clear_reports("0x00000102") + by_reopen("post 1 osd 2 clear error"));
    EXPECT_EQ(support::take_trace(),
              (Lines{"clear_osd(0x11, 0x101)", "close_osd(0x11, 0x101)", "clear_osd(0x11, 0x102)",
                     "close_osd(0x11, 0x102)", "get_status(0x11)"}));
    EXPECT_EQ(post_->opened, 1);
}

TEST_F(Callback, reopens_although_an_osd_can_not_be_closed)
{
    fill_slot(post_, 1);
    fill_slot(post_, 3);
    post_->callback_state = OSD_CALLBACK_REOPEN;
    codec::fail(codec::CLOSE_OSD, 1, 0x1A); // printed with all its eight digits
    EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback(post_), 0); }),
              by_reopen("qm5_cl_post_close_osd() failed. errno=0x0000001A") +
                  by_reopen("Post1Osd1"));
    EXPECT_EQ(codec::calls(codec::CLOSE_OSD), 2);
    expect_empty(post_->osd[1]);
    expect_empty(post_->osd[3]);
    EXPECT_EQ(post_->opened, 1);
}

TEST_F(Callback, is_silent_for_a_clearing_but_not_for_a_closing_on_a_thread_that_has_gone)
{
    for (const std::uint32_t gone : {0x81E04507u, 0x81E03204u, 0x81E0250Cu}) {
        fill_slot(post_, 3);
        codec::fail(codec::CLEAR_OSD, 1, gone);
        codec::fail(codec::CLOSE_OSD, 1, gone);
        char code[16];
        std::snprintf(code, sizeof code, "0x%08X", gone);
        EXPECT_EQ(errors_of([this] { EXPECT_EQ(osd_do_callback_reopen(post_), 0); }),
                  by_reopen(std::string("qm5_cl_post_close_osd() failed. errno=") + code) +
                      by_reopen("Post1Osd3"));
    }
}

TEST_F(Callback, takes_the_resource_id_anew_for_each_call)
{
    fill_slot(post_, 0);
    codec::on(codec::CLEAR_OSD, [this] { post_->res_id = 0x22; });
    codec::on(codec::CLOSE_OSD, [this] { post_->res_id = 0x33; });
    serve(OSD_CALLBACK_REOPEN);
    EXPECT_EQ(support::take_trace(),
              (Lines{"clear_osd(0x11, 0x101)", "close_osd(0x22, 0x101)", "get_status(0x33)"}));
}

TEST_F(Callback, names_each_post_by_its_number)
{
    for (int number = 0; number < OSD_POSTS; number++) {
        osd_post *post = &osd_state.post[number];
        post->res_id = RES_ID;
        fill_slot(post, 2);
        codec::fail(codec::CLOSE_OSD, 1, codec::SOME_ERROR);
        EXPECT_EQ(errors_of([post] { EXPECT_EQ(osd_do_callback_reopen(post), 0); }),
                  by_reopen("qm5_cl_post_close_osd() failed. errno=0x81E01234") +
                      by_reopen("Post" + std::to_string(number) + "Osd2"));
    }
}

// ---- The events of one post ---------------------------------------------------------------------

TEST_F(Callback, of_an_open_and_a_close_between_two_visits_is_the_close)
{
    post_->rect[OSD_SLOT_TIME].mode = OSD_MODE_TEXT;
    post_->callback_state = OSD_CALLBACK_OPEN;
    serve(OSD_CALLBACK_CLOSE);
    EXPECT_EQ(support::take_trace(), Lines{});
    EXPECT_EQ(post_->res_id, 0u);
    EXPECT_EQ(post_->opened, 0);
}

TEST_F(Callback, opens_again_over_the_entries_of_a_thread_that_has_gone)
{
    open();
    post_->osd[0] = {0x900, 7, 132};
    post_->res_id = 0x77; // a close and an open of a new thread, without a visit in between
    serve(OSD_CALLBACK_OPEN);
    EXPECT_EQ(support::take_trace(),
              (Lines{"get_status(0x77)", "open_osd(0x77, 3, 60x8, type 0)"}));
    EXPECT_EQ(post_->osd[0].handle, 0x900u);
}

// ---- The stop -----------------------------------------------------------------------------------

std::string by_stop(std::string_view message)
{
    return report("server", message, "osd_close_opened_post");
}

TEST_F(Callback, at_the_stop_takes_down_the_engine_and_then_the_osds_of_each_open_post)
{
    wraps::trace(wraps::FT_DONE_FREETYPE);
    for (const int number : {1, 3}) {
        osd_post *post = &osd_state.post[number];
        post->res_id = cmn_cut<std::uint32_t>(0x11 * number);
        post->opened = 1;
        make_engine(post);
        fill_slot(post, 0);
        fill_slot(post, 3);
    }
    EXPECT_EQ(errors_of(osd_close_opened_post), "");
    EXPECT_EQ(support::take_trace(),
              (Lines{"FT_Done_FreeType()", "clear_osd(0x11, 0x101)", "close_osd(0x11, 0x101)",
                     "clear_osd(0x11, 0x102)", "close_osd(0x11, 0x102)", "FT_Done_FreeType()",
                     "clear_osd(0x33, 0x103)", "close_osd(0x33, 0x103)", "clear_osd(0x33, 0x104)",
                     "close_osd(0x33, 0x104)"}));
}

TEST_F(Callback, at_the_stop_changes_nothing_but_what_was_open)
{
    open();
    fill_slot(post_, 1);
    post_->refresh_all = 1;
    post_->callback_state = OSD_CALLBACK_CLOSE;
    const std::string after = bytes_after([this] {
        post_->font_engine.library = nullptr;
        for (osd_area &area : post_->osd)
            area = {};
        post_->res_id = 0;
        post_->opened = 0;
    });
    EXPECT_EQ(errors_of(osd_close_opened_post), "");
    EXPECT_TRUE(bytes_of_table() == after);
}

TEST_F(Callback, at_the_stop_clears_the_engine_alone_of_a_post_that_is_not_open)
{
    wraps::trace(wraps::FT_DONE_FREETYPE);
    make_engine(post_);
    fill_slot(post_, 2);
    const std::string after = bytes_after([this] { post_->font_engine.library = nullptr; });
    EXPECT_EQ(errors_of(osd_close_opened_post), "");
    EXPECT_EQ(support::take_trace(), (Lines{"FT_Done_FreeType()"}));
    EXPECT_TRUE(bytes_of_table() == after);
}

TEST_F(Callback, at_the_stop_closes_the_osds_of_a_post_without_a_live_engine)
{
    post_->opened = 1;
    fill_slot(post_, 2);
    EXPECT_EQ(errors_of(osd_close_opened_post), "");
    EXPECT_EQ(support::take_trace(), (Lines{"clear_osd(0x11, 0x101)", "close_osd(0x11, 0x101)"}));
    EXPECT_EQ(post_->res_id, 0u);
}

TEST_F(Callback, at_the_stop_goes_on_whatever_fails)
{
    osd_state.post[2].res_id = 0x33;
    for (osd_post *post : {post_, &osd_state.post[2]}) {
        post->opened = 1;
        fill_slot(post, 0);
    }
    fill_slot(post_, 3);
    codec::fail(codec::CLEAR_OSD, 1, codec::SOME_ERROR, 2);
    codec::fail(codec::CLOSE_OSD, 1, codec::SOME_ERROR, 3);
    const std::string not_closed = by_stop("qm5_cl_post_close_osd() failed. errno=0x81E01234");
    EXPECT_EQ(errors_of(osd_close_opened_post),
              clear_reports("0x00000101") + by_stop("post 1 osd 0 clear error") + not_closed +
                  by_stop("Post1Osd0") + clear_reports("0x00000103") +
                  by_stop("post 1 osd 3 clear error") + not_closed + by_stop("Post1Osd3") +
                  not_closed + by_stop("Post2Osd0"));
    for (const osd_post *post : {post_, &osd_state.post[2]}) {
        EXPECT_EQ(post->opened, 0);
        EXPECT_EQ(post->res_id, 0u);
        for (const osd_area &area : post->osd)
            expect_empty(area);
    }
}

} // namespace
