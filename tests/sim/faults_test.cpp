// Faults of the simulated codec library: their words, when they happen and what they do.
#include "codec_library.h"
#include "control_files.h"

#include <chrono>
#include <fcntl.h>

namespace
{

using namespace support;

std::string why_not(const char *line)
{
    sim_fault fault;
    const char *why = sim_parse_fault(line, &fault);
    return why ? why : "";
}

TEST(FaultLine, names_operation_occasion_effect_and_post)
{
    sim_fault fault;
    ASSERT_EQ(sim_parse_fault("7 open_osd next fail refused\n", &fault), nullptr);
    EXPECT_EQ(fault.id, 7u);
    EXPECT_EQ(fault.operation, SIM_OPEN_OSD);
    EXPECT_EQ(fault.when, SIM_NTH);
    EXPECT_EQ(fault.number, 1u);
    EXPECT_EQ(fault.effect, SIM_FAIL);
    EXPECT_EQ(static_cast<std::uint32_t>(fault.value), 0x81E03246u);
    EXPECT_EQ(fault.post, SIM_ANY_POST);

    ASSERT_EQ(sim_parse_fault("1 get_osd_mem 25% size -16 post 3", &fault), nullptr);
    EXPECT_EQ(fault.when, SIM_PERCENT);
    EXPECT_EQ(fault.number, 25u);
    EXPECT_EQ(fault.value, -16);
    EXPECT_EQ(fault.post, 3u);
    ASSERT_EQ(sim_parse_fault("1 notify 4 late 300", &fault), nullptr);
    EXPECT_EQ(fault.number, 4u);
    EXPECT_EQ(fault.effect, SIM_LATE);
    ASSERT_EQ(sim_parse_fault("1 set_osd every fail 0x81E00042", &fault), nullptr);
    EXPECT_EQ(static_cast<std::uint32_t>(fault.value), 0x81E00042u);
    ASSERT_EQ(sim_parse_fault("1 get_osd_mem next change-after 2 640x480 post 1", &fault), nullptr);
    EXPECT_EQ(fault.effect, SIM_CHANGE_AFTER);
    EXPECT_EQ(fault.changed, 2u);
    EXPECT_EQ(fault.width, 640u);
    EXPECT_EQ(fault.height, 480u);
    EXPECT_EQ(fault.post, 1u);
    ASSERT_EQ(sim_parse_fault("1 get_osd_mem next change 3 closed", &fault), nullptr);
    EXPECT_EQ(fault.width, 0u);
}

TEST(FaultLine, is_refused_whole_for_one_wrong_word)
{
    EXPECT_EQ(why_not(""), "not ID OPERATION WHEN EFFECT");
    EXPECT_EQ(why_not("0 set_osd next vanish"), "bad ID");
    EXPECT_EQ(why_not("1 set_ost next vanish"), "unknown operation");
    for (const char *when : {"never", "0", "-1", "0%", "101%", "%", "1x"})
        EXPECT_EQ(why_not(("1 set_osd " + std::string(when) + " vanish").c_str()), "bad WHEN");
    EXPECT_EQ(why_not("1 set_osd next burn"), "unknown effect");
    EXPECT_EQ(why_not("1 set_osd next size 4"), "the operation has no such effect");
    EXPECT_EQ(why_not("1 notify next fail gone1"), "the operation has no such effect");
    EXPECT_EQ(why_not("1 open_device next vanish"), "the operation has no such effect");
    for (const char *value : {"", " gone4", " 0", " 0x100000000", " -1"})
        EXPECT_EQ(why_not(("1 set_osd next fail" + std::string(value)).c_str()),
                  "bad value of the effect");
    for (const char *value : {"", " 1", " 4 closed", " closed", " 1 640", " 1 0x480"})
        EXPECT_EQ(why_not(("1 set_osd next change" + std::string(value)).c_str()),
                  "bad value of the effect");
    EXPECT_EQ(why_not("1 notify next change 1 closed"), "the operation has no such effect");
    EXPECT_EQ(why_not("1 set_osd next change 1 closed post"), "bad words behind the effect");
    EXPECT_EQ(why_not("1 set_osd next change 1 closed post 0 x"), "bad words behind the effect");
    EXPECT_EQ(why_not("1 set_osd next vanish post"), "bad words behind the effect");
    EXPECT_EQ(why_not("1 set_osd next vanish post 4"), "bad words behind the effect");
    EXPECT_EQ(why_not("1 set_osd next vanish post 0 x"), "bad words behind the effect");
    EXPECT_EQ(why_not("1 open_device next delay 1 post 0"), "the operation is no post's");
    EXPECT_EQ(why_not(std::string(200, 'x').c_str()), "line is too long");
}

TEST(FaultList, tells_as_what_it_was_loaded)
{
    std::int64_t number = 0;
    EXPECT_TRUE(sim_parse_loaded("loaded 9223372036854775807", &number));
    EXPECT_EQ(number, INT64_MAX);
    EXPECT_TRUE(sim_parse_loaded("loaded\t0 ", &number));
    EXPECT_EQ(number, 0);
    for (const char *line : {"loaded", "loaded x", "loaded -1", "loaded 1x", "loaded 1 2",
                             "loaded 9223372036854775808", " loaded 1", "load 1"})
        EXPECT_FALSE(sim_parse_loaded(line, &number)) << line;
}

TEST(Setting, is_understood_whole_or_not_at_all)
{
    sim_settings settings = SIM_DEFAULT_SETTINGS;
    EXPECT_EQ(sim_parse_setting("alignment 4 8 4096", &settings), nullptr);
    EXPECT_EQ(settings.alignment[2], 4096u);
    EXPECT_EQ(sim_parse_setting("strict 1", &settings), nullptr);
    EXPECT_EQ(sim_parse_setting("faults 0", &settings), nullptr);
    EXPECT_EQ(settings.strict, 1u);
    EXPECT_EQ(settings.faults, 0u);
    EXPECT_EQ(sim_parse_setting("record-limit 1000000 \n", &settings), nullptr);
    EXPECT_EQ(settings.record_limit, 1000000u);
    for (const char *line : {"record-limit 0", "record-limit 1000001", "record-limit 9999999"})
        EXPECT_STREQ(sim_parse_setting(line, &settings), "a record's limit is 1 to 1000000 MiB");
    EXPECT_EQ(settings.record_limit, 1000000u);
    EXPECT_STREQ(sim_parse_setting("alignment 4 8 0", &settings),
                 "an alignment is 1 to 4096 bytes");
    for (const char *line : {"alignment 4 8", "alignment 1 2 3 4", "strict 2", "strict", "fast 1",
                             "record-limit", "record-limit 1 2", "record-limit 10000000"})
        EXPECT_STREQ(sim_parse_setting(line, &settings), "no setting, or not its values") << line;
    EXPECT_EQ(settings.alignment[2], 4096u);
}

class Faults : public CodecLibrary
{
protected:
    static void write_faults(const std::string &faults)
    {
        fs::create_directory(STATE);
        write_file(std::string(STATE) + "/faults", faults);
    }

    // Puts faults in force before the library comes up, so that no wait is needed.
    std::vector<std::uint32_t> bring_up_with(const std::string &faults)
    {
        write_faults(faults);
        return bring_up_with_posts();
    }

    // And while it is up.
    void change_faults(const std::string &faults)
    {
        write_file(std::string(STATE) + "/faults.new", faults);
        fs::rename(std::string(STATE) + "/faults.new", std::string(STATE) + "/faults");
        EXPECT_TRUE(comes_into_force(faults));
    }

    static bool comes_into_force(const std::string &faults)
    {
        const std::uint32_t hash = sim_hash("", 0, faults.data(), faults.size());
        return wait_until([hash] { return control() == hash; });
    }

    static sim_state state()
    {
        const std::string bytes = read_file(std::string(STATE) + "/state");
        sim_state record{};
        std::memcpy(&record, bytes.data(), std::min(sizeof record, bytes.size()));
        return record;
    }

    static std::uint32_t control()
    {
        return state().control;
    }

    // An OSD that may be forgotten, for the open behind it is refused, as a fault has it.
    Opened open_before_a_refusal(std::uint32_t res_id)
    {
        const qm5_cl_osd_param next = {1, 64, 2, 0};
        const Opened opened = open_osd(res_id, {0, 64, 2, 0});
        std::uint32_t handle = 0;
        std::uint32_t word = 0;
        read_size(res_id);
        EXPECT_TRUE(
            failed(lib_.open_osd(res_id, &next, &handle, &word, &word), QM5_CL_ERROR_OPEN_REFUSED));
        return opened;
    }

    // Which of so many calls of get_status fail.
    std::string failures(std::uint32_t res_id, unsigned calls)
    {
        std::string told;
        for (unsigned i = 0; i < calls; i++) {
            qm5_cl_post_status status{};
            told += lib_.get_status(res_id, &status) == 0 ? '.' : 'x';
        }
        return told;
    }
};

TEST_F(Faults, each_of_the_twelve_calls_fails_with_the_errno_asked_for)
{
    write_faults("1 library_init next fail 0x81E00042\n"
                 "2 open_device next fail refused\n"
                 "3 notify_callback next fail gone1\n"
                 "4 set_notify next fail gone2\n"
                 "5 thread_get_status next fail gone3\n"
                 "6 open_osd next fail refused\n"
                 "7 get_osd_mem next fail 0x81E00043\n"
                 "8 set_osd next fail 0x81E00044\n"
                 "9 clear_osd next fail 0x81E00045\n"
                 "10 close_osd next fail 0x81E00046\n"
                 "11 close_device next fail 0x81E00047\n"
                 "12 library_exit next fail 0x81E00048\n");
    EXPECT_TRUE(failed(lib_.library_init(), 0x81E00042));
    ASSERT_EQ(lib_.library_init(), 0);
    EXPECT_TRUE(failed(lib_.open_device(), QM5_CL_ERROR_OPEN_REFUSED));
    ASSERT_EQ(lib_.open_device(), 0);
    EXPECT_TRUE(failed(lib_.notify_callback(keep_notice), QM5_CL_ERROR_GONE_1));
    ASSERT_EQ(lib_.notify_callback(keep_notice), 0);
    EXPECT_TRUE(failed(lib_.set_notify(15), QM5_CL_ERROR_GONE_2));
    ASSERT_EQ(lib_.set_notify(15), 0);
    const std::uint32_t id = wait_for_notice(1).res_id;

    qm5_cl_post_status status{};
    EXPECT_TRUE(failed(lib_.get_status(id, &status), QM5_CL_ERROR_GONE_3));
    const qm5_cl_osd_param param = {0, 16, 1, 0};
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    EXPECT_TRUE(
        failed(lib_.open_osd(id, &param, &handle, &word, &word), QM5_CL_ERROR_OPEN_REFUSED));
    EXPECT_EQ(handle, 0u);
    const Opened opened = open_osd(id, param);
    qm5_cl_osd_mem mem{};
    EXPECT_TRUE(failed(lib_.get_osd_mem(id, opened.handle, &mem), 0x81E00043));
    EXPECT_EQ(mem.memory, nullptr);
    EXPECT_EQ(lib_.get_osd_mem(id, opened.handle, &mem), 0);
    EXPECT_TRUE(failed(lib_.set_osd(id, opened.handle, {0, 0}), 0x81E00044));
    mem = {};
    EXPECT_EQ(lib_.get_osd_mem(id, opened.handle, &mem), 0);
    EXPECT_EQ(lib_.set_osd(id, opened.handle, {0, 0}), 0);
    EXPECT_TRUE(failed(lib_.clear_osd(id, opened.handle), 0x81E00045));
    EXPECT_EQ(lib_.clear_osd(id, opened.handle), 0);
    EXPECT_TRUE(failed(lib_.close_osd(id, opened.handle), 0x81E00046));
    EXPECT_EQ(lib_.close_osd(id, opened.handle), 0);
    EXPECT_TRUE(failed(lib_.close_device(), 0x81E00047));
    EXPECT_TRUE(failed(lib_.library_exit(), 0x81E00048));
    for (std::size_t i = 0; i < 12; i++) {
        EXPECT_EQ(state().fault[i].id, i + 1);
        EXPECT_EQ(state().fault[i].happened, 1u) << i + 1;
    }
}

TEST_F(Faults, happen_at_their_occasions)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 thread_get_status 3 fail gone1\n");
    EXPECT_EQ(failures(ids[0], 6), "..x...");
    change_faults("2 thread_get_status every fail gone1 post 1\n");
    EXPECT_EQ(failures(ids[0], 2), "..");
    EXPECT_EQ(failures(ids[1], 2), "xx");
    change_faults("3 thread_get_status 30% fail gone1\n");
    const std::string third = failures(ids[0], 1000);
    EXPECT_NEAR(static_cast<double>(std::count(third.begin(), third.end(), 'x')), 300, 60);
    change_faults("");
    EXPECT_EQ(failures(ids[0], 3), "...");
}

TEST_F(Faults, go_on_counting_when_others_come_and_over_a_restart)
{
    std::vector<std::uint32_t> ids = bring_up_with("1 thread_get_status 4 fail gone1\n");
    EXPECT_EQ(failures(ids[0], 2), "..");
    change_faults("1 thread_get_status 4 fail gone1\n2 set_osd next vanish\n");
    EXPECT_EQ(failures(ids[0], 1), ".");
    take_down();
    notices.clear();
    ids = bring_up_with_posts();
    EXPECT_EQ(failures(ids[0], 3), "x..");
}

// Else a fault that is to happen once would never do so again.
TEST_F(Faults, count_anew_if_they_were_changed_without_a_server)
{
    const std::string once = "1 thread_get_status next fail gone1\n";
    std::vector<std::uint32_t> ids = bring_up_with(once);
    EXPECT_EQ(failures(ids[0], 2), "x.");
    take_down();
    write_faults("");
    write_faults(once);
    notices.clear();
    ids = bring_up_with_posts();
    EXPECT_EQ(failures(ids[0], 2), "x.");
    take_down();
    notices.clear();
    ids = bring_up_with_posts();
    EXPECT_EQ(failures(ids[0], 2), "..");
}

TEST_F(Faults, fraction_is_the_same_calls_under_every_id_and_others_for_other_words)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 thread_get_status 30% fail gone1\n");
    const std::string first = failures(ids[0], 200);
    EXPECT_NE(first.find('x'), std::string::npos);
    EXPECT_NE(first.find('.'), std::string::npos);
    change_faults("7 thread_get_status 30% fail gone1\n");
    EXPECT_EQ(failures(ids[0], 200), first);
    change_faults("8 thread_get_status 30% fail gone2\n");
    EXPECT_NE(failures(ids[0], 200), first);
}

TEST_F(Faults, are_all_turned_off_by_one_switch)
{
    fs::create_directory(STATE);
    write_file(std::string(STATE) + "/settings", "faults 0\n");
    const std::vector<std::uint32_t> ids = bring_up_with("1 thread_get_status every fail gone1\n");
    EXPECT_EQ(failures(ids[0], 3), "...");
    EXPECT_EQ(state().fault[0].met, 0u);
}

TEST_F(Faults, text_that_is_wrong_is_told_once_and_leaves_both_as_they_are)
{
    const std::string good = "1 thread_get_status every fail gone1\n";
    const std::vector<std::uint32_t> ids = bring_up_with(good);
    const std::uint32_t in_force = control();
    EXPECT_EQ(in_force, sim_hash("", 0, good.data(), good.size()));
    const struct {
        const char *file;
        const char *text;
        const char *told;
    } rows[] = {
        {"faults", "; a comment\n\n1 thread_get_status every fail nobody\n",
         "qm5sim: /tmp/codec/faults:3: bad value of the effect\n"},
        {"faults", "1 set_osd next vanish\n1 set_osd next vanish\n",
         "qm5sim: /tmp/codec/faults:2: the ID is there already\n"},
        {"settings", "faults 2\n",
         "qm5sim: /tmp/codec/settings:1: no setting, or not its values\n"
         "qm5sim: /tmp/codec/faults:2: the ID is there already\n"},
        {"faults", "", "qm5sim: /tmp/codec/settings:1: no setting, or not its values\n"},
    };
    std::size_t notices_due = SIM_POSTS;
    testing::internal::CaptureStderr();
    std::string told;
    for (const auto &row : rows) {
        write_file(std::string(STATE) + "/new", row.text);
        fs::rename(std::string(STATE) + "/new", std::string(STATE) + '/' + row.file);
        for (const unsigned width : {0u, 640u}) { // each notice comes behind a look at the files
            sim_reader::write_size(STATE, 3, width, width);
            wait_for_notice(++notices_due);
        }
        told += row.told;
        EXPECT_EQ(control(), in_force) << row.text;
        EXPECT_EQ(failures(ids[0], 1), "x") << row.text;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), told);
    fs::remove(std::string(STATE) + "/settings");
    change_faults("2 set_osd next vanish\n");
    EXPECT_EQ(failures(ids[0], 1), ".");
}

TEST_F(Faults, file_that_cannot_be_read_is_told_once_and_leaves_both_as_they_are)
{
    const std::string good = "1 thread_get_status every fail gone1\n";
    const std::vector<std::uint32_t> ids = bring_up_with(good);
    const std::uint32_t in_force = control();
    testing::internal::CaptureStderr();
    std::size_t notices_due = SIM_POSTS;
    const auto look_twice = [&notices_due] {
        for (const unsigned width : {0u, 640u}) { // each notice comes behind a look at the files
            sim_reader::write_size(STATE, 3, width, width);
            wait_for_notice(++notices_due);
        }
    };
    fs::create_directory(std::string(STATE) + "/made");
    ASSERT_EQ(
        renameat2(AT_FDCWD, "/tmp/codec/made", AT_FDCWD, "/tmp/codec/faults", RENAME_EXCHANGE), 0);
    look_twice();
    write_file(std::string(STATE) + "/new", std::string(SIM_LONGEST_TEXT + 1, '\n'));
    fs::rename(std::string(STATE) + "/new", std::string(STATE) + "/settings");
    look_twice();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: /tmp/codec/faults: Is a directory\n"
              "qm5sim: /tmp/codec/settings: File too large\n"
              "qm5sim: /tmp/codec/faults: Is a directory\n");
    EXPECT_EQ(control(), in_force);
    EXPECT_EQ(failures(ids[0], 1), "x");
    fs::remove(std::string(STATE) + "/settings");
    fs::remove(std::string(STATE) + "/faults");
    change_faults("2 set_osd next vanish\n");
    EXPECT_EQ(failures(ids[0], 1), ".");
}

TEST_F(Faults, text_may_be_as_long_for_the_library_as_for_the_tool)
{
    std::string longest = "1 thread_get_status every fail gone1\n";
    longest.resize(SIM_LONGEST_TEXT, '\n');
    EXPECT_EQ(control_files::parse_faults("it", longest).size(), 1u);
    EXPECT_THROW(control_files::parse_faults("it", longest + '\n'), std::runtime_error);
    const std::vector<std::uint32_t> ids = bring_up_with(longest);
    EXPECT_EQ(failures(ids[0], 1), "x");
}

TEST_F(Faults, text_that_was_refused_before_a_restart_does_not_count_as_taken)
{
    const std::string good = "1 thread_get_status every fail gone1\n";
    bring_up_with(good);
    take_down();
    write_faults("1 thread_get_status every fail nobody\n");
    notices.clear();
    testing::internal::CaptureStderr();
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: /tmp/codec/faults:1: bad value of the effect\n");
    EXPECT_EQ(control(), 0u);
    change_faults(good);
    EXPECT_EQ(failures(ids[0], 1), "x");
}

TEST_F(Faults, go_on_counting_when_settings_that_were_wrong_at_the_start_are_mended)
{
    const std::string faults = "loaded 7\n1 thread_get_status 3 fail gone1\n";
    std::vector<std::uint32_t> ids = bring_up_with(faults);
    EXPECT_EQ(failures(ids[0], 1), ".");
    take_down();
    write_file(std::string(STATE) + "/settings", "fast 1\n");
    notices.clear();
    testing::internal::CaptureStderr();
    ids = bring_up_with_posts();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: /tmp/codec/settings:1: no setting, or not its values\n");
    fs::remove(std::string(STATE) + "/settings");
    EXPECT_TRUE(comes_into_force(faults));
    EXPECT_EQ(failures(ids[0], 3), ".x.");
}

// Settings that are mended later keep no list from being a new one.
TEST_F(Faults, begin_to_count_anew_when_they_are_loaded_while_settings_are_wrong)
{
    EXPECT_EQ(failures(bring_up_with("loaded 7\n1 thread_get_status next fail gone1\n")[0], 1),
              "x");
    take_down();
    notices.clear();
    write_file(std::string(STATE) + "/settings", "fast 1\n");
    const std::vector<std::uint32_t> ids = bring_up_with_posts();
    const std::string faults = "loaded 8\n1 thread_get_status next fail gone1\n";
    write_faults(faults);
    fs::remove(std::string(STATE) + "/settings");
    EXPECT_TRUE(comes_into_force(faults));
    EXPECT_EQ(failures(ids[0], 2), "x.");
}

TEST_F(Faults, sizes_and_lines_are_told_wrong)
{
    const std::vector<std::uint32_t> ids =
        bring_up_with("1 open_osd next line -8\n2 get_osd_mem next size 12\n");
    const Opened opened = open_osd(ids[0], {0, 64, 2, 0});
    EXPECT_EQ(opened.line_bytes, 8u);
    qm5_cl_osd_mem mem{};
    ASSERT_EQ(lib_.get_osd_mem(ids[0], opened.handle, &mem), 0);
    EXPECT_EQ(mem.size, 32u + 12u);
}

// The application empties a slot whose close has failed, and forgets a post whose open was refused.
TEST_F(Faults, what_a_failure_has_left_open_is_no_breach)
{
    const std::vector<std::uint32_t> ids =
        bring_up_with("1 close_osd next fail 0x81E00042\n2 open_osd 4 fail refused\n");
    qm5_cl_osd_param param = {0, 64, 2, 0};
    const Opened lost = open_osd(ids[0], param);
    EXPECT_TRUE(failed(lib_.close_osd(ids[0], lost.handle), 0x81E00042));
    const Opened other = open_osd(ids[0], param);
    EXPECT_NE(other.handle, lost.handle);
    open_osd(ids[1], param);
    param.number = 1;
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    EXPECT_TRUE(
        failed(lib_.open_osd(ids[1], &param, &handle, &word, &word), QM5_CL_ERROR_OPEN_REFUSED));
    EXPECT_EQ(lib_.close_osd(ids[0], other.handle), 0);
    take_down();
    EXPECT_FALSE(fs::exists(std::string(STATE) + "/breaches"));
}

// Who goes on with an OSD hasn't forgotten it.
TEST_F(Faults, what_a_failure_has_left_open_and_is_in_use_again_is_a_breach)
{
    const std::vector<std::uint32_t> ids =
        bring_up_with("1 close_osd every fail 0x81E00042\n2 open_osd 3 fail refused\n");
    const qm5_cl_osd_param param = {0, 64, 2, 0};
    const Opened kept = open_osd(ids[0], param);
    const Opened other = open_osd(ids[1], param);
    const Opened lost = {};
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    const qm5_cl_osd_param next = {1, 64, 2, 0};
    EXPECT_TRUE(
        failed(lib_.open_osd(ids[1], &next, &handle, &word, &word), QM5_CL_ERROR_OPEN_REFUSED));
    EXPECT_TRUE(failed(lib_.close_osd(ids[0], kept.handle), 0x81E00042));
    EXPECT_EQ(lib_.clear_osd(ids[0], kept.handle), 0);
    qm5_cl_osd_mem mem{};
    EXPECT_EQ(lib_.get_osd_mem(ids[1], other.handle, &mem), 0); // forgotten all the same
    testing::internal::CaptureStderr();
    read_size(ids[0]);
    EXPECT_NE(lib_.open_osd(ids[0], &param, &handle, &word, &word), 0);
    EXPECT_EQ(handle, lost.handle);
    take_down();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: breach: open_osd: param: OSD 0 of post 0 is open\n"
              "qm5sim: breach: close_device: post 0, OSD 0, handle " +
                  hex(kept.handle) + ": left open\n");
}

// Not the application's own mistakes, which it need not have noticed.
TEST_F(Faults, close_of_another_post_excuses_nothing)
{
    const std::vector<std::uint32_t> ids = bring_up_with("");
    const Opened left = open_osd(ids[0], {0, 64, 2, 0});
    testing::internal::CaptureStderr();
    EXPECT_NE(lib_.close_osd(ids[1], left.handle), 0);
    EXPECT_NE(lib_.close_osd(0, left.handle), 0);
    take_down();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: breach: close_osd: handle " + hex(left.handle) +
                  ": it is another post's\nqm5sim: breach: close_device: post 0, OSD 0, handle " +
                  hex(left.handle) + ": left open\n");
}

TEST_F(Faults, what_a_failure_lets_be_forgotten_is_no_other_posts)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 open_osd 2 fail refused\n");
    const Opened opened = open_before_a_refusal(ids[0]);
    testing::internal::CaptureStderr();
    EXPECT_NE(lib_.clear_osd(ids[1], opened.handle), 0);
    sim_reader::write_size(STATE, 0, 0, 0);
    wait_for_notice(5);
    EXPECT_NE(lib_.clear_osd(ids[1], opened.handle), 0) << "nor when its thread has ended";
    EXPECT_NE(lib_.clear_osd(ids[0], opened.handle), 0);
    const std::string told =
        "qm5sim: breach: clear_osd: handle " + hex(opened.handle) + ": it is another post's\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), told + told);
}

TEST_F(Faults, what_a_failure_lets_be_forgotten_has_been_closed_all_the_same)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 open_osd 2 fail refused\n");
    const Opened opened = open_before_a_refusal(ids[0]);
    EXPECT_EQ(lib_.close_osd(ids[0], opened.handle), 0);
    testing::internal::CaptureStderr();
    EXPECT_NE(lib_.clear_osd(ids[0], opened.handle), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: breach: clear_osd: handle " + hex(opened.handle) + ": it has been closed\n");
}

TEST_F(Faults, what_a_failure_has_made_forgotten_is_looked_at_when_it_is_opened_anew)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 open_osd 2 fail refused\n");
    const qm5_cl_osd_param params[] = {{0, 64, 2, 0}, {1, 64, 2, 0}};
    const Opened left = open_osd(ids[0], params[0]);
    qm5_cl_osd_mem mem{};
    EXPECT_EQ(lib_.get_osd_mem(ids[0], left.handle, &mem), 0);
    EXPECT_EQ(lib_.set_osd(ids[0], left.handle, {0, 0}), 0);
    static_cast<char *>(mem.memory)[3] ^= 1;
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    read_size(ids[0]);
    EXPECT_TRUE(failed(lib_.open_osd(ids[0], &params[1], &handle, &word, &word),
                       QM5_CL_ERROR_OPEN_REFUSED));
    testing::internal::CaptureStderr();
    EXPECT_EQ(lib_.close_osd(ids[0], open_osd(ids[0], params[0]).handle), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: breach: open_osd: handle " + hex(left.handle) +
                  ": its memory has been written after set_osd\n");
}

// Such a failure tells the application nothing of the post, and the OSDs remain its own.
TEST_F(Faults, open_that_fails_for_another_reason_excuses_nothing)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 open_osd 2 fail 0x81E00042\n");
    const qm5_cl_osd_param param = {1, 64, 2, 0};
    const Opened left = open_osd(ids[0], {0, 64, 2, 0});
    std::uint32_t handle = 0;
    std::uint32_t word = 0;
    EXPECT_TRUE(failed(lib_.open_osd(ids[0], &param, &handle, &word, &word), 0x81E00042));
    testing::internal::CaptureStderr();
    take_down();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "qm5sim: breach: close_device: post 0, OSD 0, handle " + hex(left.handle) +
                  ": left open\n");
}

TEST_F(Faults, text_that_is_too_long_is_refused_whole)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 thread_get_status every fail gone1\n");
    testing::internal::CaptureStderr();
    write_file(std::string(STATE) + "/faults", std::string(SIM_LONGEST_TEXT + 1, '\n'));
    sim_reader::write_size(STATE, 3, 0, 0); // its notice comes behind the look at the faults
    wait_for_notice(5);
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_NE(told.find("qm5sim: /tmp/codec/faults: File too large\n"), std::string::npos) << told;
    EXPECT_EQ(failures(ids[0], 1), "x");
}

TEST_F(Faults, call_is_delayed)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 thread_get_status next delay 60\n");
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(failures(ids[0], 1), ".");
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(60));
}

// How long a call takes that is delayed by the only fault, behind whose begin the files change.
template <typename Call, typename Change>
std::chrono::steady_clock::duration time_of(Call call, Change change)
{
    std::thread changing([&change] {
        EXPECT_TRUE(
            wait_until([] { return sim_reader::read_state(STATE).fault[0].happened == 1; }));
        change();
    });
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(call(), 0);
    const auto taken = std::chrono::steady_clock::now() - before;
    changing.join();
    return taken;
}

TEST_F(Faults, delay_ends_with_its_fault_also_before_notification)
{
    write_faults("1 open_device next delay 20000\n");
    ASSERT_EQ(lib_.library_init(), 0);
    EXPECT_LT(time_of([this] { return lib_.open_device(); }, [this] { change_faults(""); }),
              std::chrono::seconds(10));
    ASSERT_EQ(lib_.notify_callback(keep_notice), 0);
    ASSERT_EQ(lib_.set_notify(15), 0);
    take_down();
}

TEST_F(Faults, delay_ends_when_all_faults_are_turned_off_and_not_with_another_one)
{
    const std::string delay = "1 thread_get_status next delay ";
    const std::vector<std::uint32_t> ids = bring_up_with(delay + "20000\n");
    const auto call = [&] {
        qm5_cl_post_status status{};
        return lib_.get_status(ids[0], &status);
    };
    EXPECT_LT(time_of(call, [] { write_file(std::string(STATE) + "/settings", "faults 0\n"); }),
              std::chrono::seconds(10));
    fs::remove(std::string(STATE) + "/settings");
    change_faults("");
    change_faults("2" + delay.substr(1) + "20000\n");
    const auto turn_off_and_on = [] {
        const std::uint32_t on = control();
        const auto end = std::chrono::steady_clock::now() + PATIENCE;
        write_file(std::string(STATE) + "/settings", "faults 0\n");
        while (control() == on && std::chrono::steady_clock::now() < end)
            continue; // no nap: it is to be on again before the call looks
        fs::remove(std::string(STATE) + "/settings");
    };
    EXPECT_LT(time_of(call, turn_off_and_on), std::chrono::seconds(10));
    change_faults("");
    const std::string longer = delay + "300\n";
    change_faults(longer);
    EXPECT_GE(time_of(call, [&] { change_faults(longer + "2 set_osd next vanish\n"); }),
              std::chrono::milliseconds(300));
}

TEST_F(Faults, post_vanishes_before_a_call)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 get_osd_mem next vanish post 1\n");
    const Opened kept = open_osd(ids[0], {0, 64, 2, 0});
    const Opened lost = open_osd(ids[1], {0, 64, 2, 0});
    qm5_cl_osd_mem mem{};
    EXPECT_EQ(lib_.get_osd_mem(ids[0], kept.handle, &mem), 0);
    mem = {};
    EXPECT_TRUE(failed(lib_.get_osd_mem(ids[1], lost.handle, &mem), QM5_CL_ERROR_GONE_1));
    EXPECT_EQ(notices_so_far().size(), 5u) << "told before the call went on";
    EXPECT_FALSE(notices_so_far()[4].opened);
    EXPECT_EQ(read_file(std::string(STATE) + "/post1"), "closed\n");
    sim_reader::write_size(STATE, 1, 640, 480);
    EXPECT_TRUE(wait_for_notice(6).opened);
}

TEST_F(Faults, post_vanishes_during_a_drawing)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 get_osd_mem next vanish-after\n");
    const Opened opened = open_osd(ids[2], {0, 64, 2, 0});
    qm5_cl_osd_mem mem{};
    ASSERT_EQ(lib_.get_osd_mem(ids[2], opened.handle, &mem), 0);
    EXPECT_EQ(notices_so_far().size(), 5u);
    std::memset(mem.memory, 1, mem.size);
    EXPECT_TRUE(failed(lib_.set_osd(ids[2], opened.handle, {0, 0}), QM5_CL_ERROR_GONE_1));
}

// The posts that were told of, in order, each with what was told.
std::string notices_told(std::size_t from = 0)
{
    std::string told;
    const std::vector<Notice> all = notices_so_far();
    for (std::size_t i = from; i < all.size(); i++)
        told += (all[i].opened ? " +" : " -") + std::to_string(all[i].post);
    return told;
}

TEST_F(Faults, post_comes_changes_and_goes_during_a_drawing_of_another)
{
    sim_reader::write_size(STATE, 3, 0, 0);
    write_faults("1 get_osd_mem 1 change-after 3 640x480 post 0\n"
                 "2 get_osd_mem 2 change-after 3 800x600 post 0\n"
                 "3 get_osd_mem 3 change 3 closed post 0\n"
                 "4 get_osd_mem 4 change-after 0 352x288 post 0\n"
                 "5 get_osd_mem 4 change-after 1 closed post 0\n");
    bring_up();
    wait_for_notice(3);
    const std::uint32_t id = notices_so_far()[0].res_id;
    const Opened opened = open_osd(id, {0, 64, 2, 0});
    const auto draw = [&] {
        qm5_cl_osd_mem mem{};
        const std::size_t before = notices_so_far().size();
        EXPECT_EQ(lib_.get_osd_mem(id, opened.handle, &mem), 0);
        std::memset(mem.memory, 1, mem.size);
        const std::string told = notices_told(before);
        const int result = lib_.set_osd(id, opened.handle, {0, 0});
        return told + (result == 0 ? "" : " gone");
    };
    EXPECT_EQ(draw(), " +3");
    EXPECT_EQ(draw(), " -3 +3");
    EXPECT_EQ(read_file(std::string(STATE) + "/post3"), "800x600\n");
    EXPECT_EQ(draw(), " -3");
    EXPECT_EQ(draw(), " -0 +0 -1 gone");
    qm5_cl_post_status status{};
    ASSERT_EQ(lib_.get_status(notices_so_far()[8].res_id, &status), 0);
    EXPECT_EQ(status.width, 352u);
}

TEST_F(Faults, post_whose_file_cannot_be_written_does_not_vanish)
{
    const std::vector<std::uint32_t> ids = bring_up_with("1 thread_get_status next vanish\n");
    fs::create_directory(std::string(STATE) + "/post1.new");
    testing::internal::CaptureStderr();
    EXPECT_EQ(failures(ids[1], 2), "..");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "qm5sim: /tmp/codec/post1: Is a directory\n");
    EXPECT_EQ(notices_so_far().size(), SIM_POSTS);
}

// The call that wants it gone doesn't wait until the coming would have been told.
TEST_F(Faults, post_that_is_to_be_told_late_is_told_when_a_fault_changes_it)
{
    write_faults("1 notify every late 600000 post 3\n2 thread_get_status 2 change 3 closed\n");
    bring_up();
    wait_for_notice(3);
    const std::uint32_t id = notices_so_far()[0].res_id;
    EXPECT_EQ(failures(id, 1), ".");
    EXPECT_EQ(notices_told(3), "");
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(failures(id, 1), ".");
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(60));
    EXPECT_EQ(notices_told(3), " +3") << "its end is late again";
    EXPECT_EQ(read_file(std::string(STATE) + "/post3"), "closed\n");
}

TEST_F(Faults, notice_is_doubled_or_late)
{
    bring_up_with("1 notify every double post 3\n2 notify 5 late 60\n");
    wait_for_notice(5);
    EXPECT_EQ(notices_so_far()[3].post, 3u);
    EXPECT_EQ(notices_so_far()[4].post, 3u);
    EXPECT_EQ(notices_so_far()[4].res_id, notices_so_far()[3].res_id);
    const auto before = std::chrono::steady_clock::now();
    sim_reader::write_size(STATE, 0, 0, 0);
    EXPECT_FALSE(wait_for_notice(6).opened);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(60));
    change_faults("3 notify every late 600000\n");
    sim_reader::write_size(STATE, 0, 640, 480);
    EXPECT_TRUE(wait_until([] { return state().fault[0].met == 1; }));
    change_faults(""); // nor does anything else wait that long
    take_down();
}

TEST_F(Faults, late_notice_holds_up_no_other_post)
{
    write_faults("1 notify every late 600000 post 0\n");
    bring_up();
    wait_for_notice(3);
    sim_reader::write_size(STATE, 2, 0, 0);
    wait_for_notice(4);
    sim_reader::write_size(STATE, 2, 640, 480);
    wait_for_notice(5);
    EXPECT_EQ(notices_told(), " +1 +2 +3 -2 +2");
    EXPECT_EQ(state().fault[0].happened, 1u);
    take_down();
    EXPECT_EQ(notices_so_far().size(), 5u) << "nothing is told behind the end";
}

TEST_F(Faults, late_notice_is_told_at_once_when_its_fault_ends)
{
    write_faults("1 notify every late 600000 post 2\n2 notify every late 600000 post 3\n");
    bring_up();
    wait_for_notice(2);
    change_faults("2 notify every late 600000 post 3\n");
    wait_for_notice(3);
    EXPECT_EQ(notices_told(), " +0 +1 +2") << "and none of another fault";
    write_file(std::string(STATE) + "/settings", "faults 0\n");
    wait_for_notice(4);
    EXPECT_EQ(notices_told(), " +0 +1 +2 +3");
}

TEST_F(Faults, late_notices_of_a_post_keep_their_order)
{
    write_faults("1 notify every late 40 post 1\n2 notify 2 double post 1\n");
    bring_up();
    wait_for_notice(3);
    sim_reader::write_size(STATE, 1, 0, 0); // hardly later than the 40 ms
    EXPECT_TRUE(wait_until([] { return notices_so_far().size() == 6; }));
    sim_reader::write_size(STATE, 1, 640, 480);
    wait_for_notice(7);
    std::string told;
    for (const Notice &notice : notices_so_far()) {
        if (notice.post == 1)
            told += notice.opened ? '+' : '-';
    }
    EXPECT_EQ(told, "+--+");
}

// The other way round than on any other day: the call fails before the application is told.
TEST_F(Faults, post_vanishes_and_its_end_is_told_late)
{
    const std::vector<std::uint32_t> ids =
        bring_up_with("1 notify 5 late 600000\n2 get_osd_mem next vanish\n");
    const Opened opened = open_osd(ids[2], {0, 64, 2, 0});
    qm5_cl_osd_mem mem{};
    EXPECT_TRUE(failed(lib_.get_osd_mem(ids[2], opened.handle, &mem), QM5_CL_ERROR_GONE_1));
    EXPECT_EQ(notices_so_far().size(), 4u);
    EXPECT_EQ(read_file(std::string(STATE) + "/post2"), "closed\n");
    take_down();
    EXPECT_FALSE(fs::exists(std::string(STATE) + "/breaches"));
}

} // namespace
