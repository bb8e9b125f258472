// The notification of post threads: what it stores, and in which order.
#include "display/post.h"
#include "server/notify.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"

#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <ucontext.h>
#include <utility>
#include <vector>

namespace
{

constexpr std::uint32_t RES_ID = 0x12345678;
constexpr std::uint32_t OLD_RES_ID = 0x87654321;

class PostNotify : public support::OsdTest
{
protected:
    osd_post *post_ = &osd_state.post[1];
};

qm5_cl_post_notify_info opening(std::uint32_t post)
{
    return {0, RES_ID, post, 1};
}

qm5_cl_post_notify_info closing(std::uint32_t post)
{
    return {0, RES_ID, post, 0};
}

// The whole table, byte by byte.
std::string bytes_of_table()
{
    std::string bytes(sizeof osd_state, '\0');
    std::memcpy(bytes.data(), &osd_state, sizeof osd_state);
    return bytes;
}

TEST_F(PostNotify, of_an_opening_stores_the_state_and_the_resource_id)
{
    osd_post_notify(opening(1));
    EXPECT_EQ(post_->callback_state, 1);
    EXPECT_EQ(post_->res_id, RES_ID);
}

TEST_F(PostNotify, of_a_closing_stores_the_state_and_leaves_the_resource_id)
{
    post_->res_id = OLD_RES_ID;
    osd_post_notify(closing(1));
    EXPECT_EQ(post_->callback_state, 2);
    EXPECT_EQ(post_->res_id, OLD_RES_ID);
}

TEST_F(PostNotify, is_an_opening_for_every_last_word_but_zero)
{
    for (const std::uint32_t word : {1u, 2u, 0x100u, 0x10000u, 0x80000000u, 0xFFFFFFFFu}) {
        post_->callback_state = 0;
        osd_post_notify({0, RES_ID, 1, word});
        EXPECT_EQ(post_->callback_state, 1) << word;
    }
}

TEST_F(PostNotify, takes_any_resource_id_as_it_comes)
{
    for (const std::uint32_t res_id : {0xFFFFFFFFu, 1u, 0u}) {
        osd_post_notify({0, res_id, 1, 1});
        EXPECT_EQ(post_->res_id, res_id);
    }
}

TEST_F(PostNotify, does_not_look_at_the_first_word)
{
    for (const std::uint32_t word : {0u, 3u, 0xFFFFFFFFu}) {
        osd_post_notify({word, RES_ID, 1, 1});
        EXPECT_EQ(post_->callback_state, 1);
        EXPECT_EQ(post_->res_id, RES_ID);
        osd_post_notify({word, RES_ID, 1, 0});
        EXPECT_EQ(post_->callback_state, 2);
    }
}

TEST_F(PostNotify, touches_nothing_but_the_two_fields_of_its_post)
{
    for (std::uint32_t number = 0; number < OSD_POSTS; number++) {
        osd_post *post = &osd_state.post[number];
        const std::string before = bytes_of_table();
        osd_post_notify(opening(number));
        EXPECT_EQ(post->callback_state, 1);
        EXPECT_EQ(post->res_id, RES_ID);
        post->callback_state = 0;
        post->res_id = 0;
        EXPECT_TRUE(bytes_of_table() == before);

        osd_post_notify(closing(number));
        EXPECT_EQ(post->callback_state, 2);
        post->callback_state = 0;
        EXPECT_TRUE(bytes_of_table() == before);
    }
}

TEST_F(PostNotify, replaces_whatever_was_pending)
{
    for (const std::uint8_t pending :
         {OSD_CALLBACK_NONE, OSD_CALLBACK_OPEN, OSD_CALLBACK_CLOSE, OSD_CALLBACK_REOPEN}) {
        post_->callback_state = pending;
        osd_post_notify(opening(1));
        EXPECT_EQ(post_->callback_state, 1);

        post_->callback_state = pending;
        osd_post_notify(closing(1));
        EXPECT_EQ(post_->callback_state, 2);
    }
}

TEST_F(PostNotify, of_an_opening_behind_a_closing_leaves_the_old_osds_in_the_table)
{
    post_->res_id = OLD_RES_ID;
    post_->opened = 1;
    post_->osd[2] = {0x101, 7, 200};
    osd_post_notify(closing(1));
    osd_post_notify(opening(1));
    EXPECT_EQ(post_->callback_state, 1);
    EXPECT_EQ(post_->res_id, RES_ID);
    EXPECT_EQ(post_->opened, 1);
    EXPECT_EQ(post_->osd[2].handle, 0x101u);
}

TEST_F(PostNotify, reports_nothing_and_makes_no_call)
{
    const auto [out, err] = support::capture([] {
        osd_post_notify(opening(3));
        osd_post_notify(closing(3));
    });
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "");
    EXPECT_EQ(support::take_trace(), support::Lines{});
}

TEST_F(PostNotify, comes_by_the_library_on_a_thread_of_its_own)
{
    ASSERT_EQ(qm5_cl_post_notify_callback(osd_post_notify), 0);
    std::thread library([] { codec::callback()(opening(1)); });
    library.join();
    EXPECT_EQ(post_->callback_state, 1);
    EXPECT_EQ(post_->res_id, RES_ID);
}

#if defined(__x86_64__)

// What the main loop could see of a post at any moment: its state and its resource ID.
typedef std::pair<std::uint32_t, std::uint32_t> Sight;

// Looks at a post after every single instruction of the processor, and keeps each change. The trap
// flag goes on and off in the flags that a return from the signal handler restores; the kernel
// itself keeps clear of the red zone.
class Stepper
{
public:
    static std::vector<Sight> watch(const osd_post *post, void (*action)())
    {
        post_ = post;
        count_ = 0;
        stepping_ = 1;
        struct sigaction handler = {};
        struct sigaction former = {};
        handler.sa_sigaction = look;
        handler.sa_flags = SA_SIGINFO;
        sigaction(SIGTRAP, &handler, &former);
        raise(SIGTRAP); // begins it
        action();
        stepping_ = 0;
        raise(SIGTRAP); // ends it, if no step has
        sigaction(SIGTRAP, &former, nullptr);
        return {sights_, sights_ + count_};
    }

private:
    static void look(int, siginfo_t *, void *context)
    {
        constexpr greg_t trap_flag = 0x100;
        greg_t *flags = &static_cast<ucontext_t *>(context)->uc_mcontext.gregs[REG_EFL];
        if (!stepping_) {
            *flags &= ~trap_flag;
            return;
        }
        *flags |= trap_flag;
        const Sight now = {post_->callback_state, post_->res_id};
        if ((count_ == 0 || sights_[count_ - 1] != now) && count_ < MOST)
            sights_[count_++] = now;
    }

    static constexpr int MOST = 8;
    static inline const osd_post *post_;
    static inline volatile std::sig_atomic_t stepping_;
    static inline int count_;
    static inline Sight sights_[MOST];
};

TEST_F(PostNotify, of_an_opening_stores_the_state_before_the_resource_id)
{
    const std::vector<Sight> seen = Stepper::watch(post_, [] { osd_post_notify(opening(1)); });
    EXPECT_EQ(seen, (std::vector<Sight>{{0, 0}, {1, 0}, {1, RES_ID}}));
}

TEST_F(PostNotify, leaves_no_other_value_in_between)
{
    post_->callback_state = OSD_CALLBACK_REOPEN;
    post_->res_id = OLD_RES_ID;
    EXPECT_EQ(Stepper::watch(post_, [] { osd_post_notify(opening(1)); }),
              (std::vector<Sight>{{3, OLD_RES_ID}, {1, OLD_RES_ID}, {1, RES_ID}}));
    EXPECT_EQ(Stepper::watch(post_, [] { osd_post_notify(closing(1)); }),
              (std::vector<Sight>{{1, RES_ID}, {2, RES_ID}}));
}

#else

TEST_F(PostNotify, of_an_opening_stores_the_state_before_the_resource_id)
{
    GTEST_SKIP() << "single steps are known of x86-64 only";
}

#endif

} // namespace
