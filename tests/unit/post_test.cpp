// The post table: its fixed tables, and the parameters that it takes over.
#include "display/layout.h"
#include "display/post.h"
#include "display/refresh.h"
#include "support/bdf_font.h"
#include "support/codec_fake.h"
#include "support/osd_test.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace
{

using support::errors_of;

// ---- The fixed tables ---------------------------------------------------------------------------

class Post : public support::OsdTest
{
};

TEST_F(Post, number_is_the_place_in_the_table)
{
    EXPECT_EQ(std::size(osd_state.post), 4u);
    for (int i = 0; i < OSD_POSTS; i++)
        EXPECT_EQ(osd_post_number(&osd_state.post[i]), i);
}

TEST_F(Post, color_types_have_their_depths_and_masks)
{
    const struct {
        std::uint32_t mask, bits, pixels_per_byte;
    } rows[] = {{0x03, 2, 4}, {0x0F, 4, 2}, {0xFF, 8, 1}};
    for (std::uint32_t type = 0; type < std::size(rows); type++) {
        const osd_color_row *row = osd_find_color(type);
        ASSERT_NE(row, nullptr);
        EXPECT_EQ(row->mask, rows[type].mask);
        EXPECT_EQ(row->bits, rows[type].bits);
        EXPECT_EQ(row->pixels_per_byte, rows[type].pixels_per_byte);
    }
}

TEST_F(Post, there_are_no_color_types_but_three)
{
    for (const std::uint32_t type : {3u, 4u, 0x100u, 0x80000000u, 0xFFFFFFFFu})
        EXPECT_EQ(osd_find_color(type), nullptr) << type;
}

TEST_F(Post, text_slots_have_their_fields_and_colors)
{
    const struct {
        std::uint32_t cells, color_type;
        std::uint8_t osd_post::*color_fg, osd_post::*color_bg;
    } rows[] = {
        {22, 2, &osd_post::string_color, &osd_post::string_bg_color},
        {10, 1, &osd_post::type_fg_color, &osd_post::type_bg_color},
        {12, 0, &osd_post::date_fg_color, &osd_post::date_bg_color},
        {10, 0, &osd_post::time_fg_color, &osd_post::time_bg_color},
    };
    ASSERT_EQ(std::size(osd_slot_table), std::size(rows));
    for (std::size_t slot = 0; slot < std::size(rows); slot++) {
        EXPECT_EQ(osd_slot_table[slot].cells, rows[slot].cells);
        EXPECT_EQ(osd_slot_table[slot].color_type, rows[slot].color_type);
        EXPECT_EQ(osd_slot_table[slot].color_fg, rows[slot].color_fg);
        EXPECT_EQ(osd_slot_table[slot].color_bg, rows[slot].color_bg);
    }
}

// ---- Parameters ---------------------------------------------------------------------------------

typedef std::pair<std::string, std::string> Pair;

void apply(const std::vector<Pair> &pairs)
{
    const std::unique_ptr<param_section, decltype(&param_section_free)> section(
        param_section_new("osd"), param_section_free);
    for (const auto &[key, value] : pairs)
        cmn_list_append(section->pairs, param_parampair_new(key.c_str(), value.c_str()));
    osd_set_post_params(section.get(), osd_state.post);
}

// A key and the fields that its number goes to, which are all of one size.
struct Field {
    std::string key;
    std::vector<void *> places;
    std::size_t size;
};

template <typename T>
void add(std::vector<Field> &fields, const std::string &key, T *place)
{
    fields.push_back({key, {place}, sizeof *place});
}

void add_common_fields(std::vector<Field> &fields)
{
    const std::pair<const char *, std::uint8_t osd_post::*> rows[] = {
        {"OsdDateFgColor", &osd_post::date_fg_color},
        {"OsdDateBgColor", &osd_post::date_bg_color},
        {"OsdTimeFgColor", &osd_post::time_fg_color},
        {"OsdTimeBgColor", &osd_post::time_bg_color},
        {"OsdTypeFgColor", &osd_post::type_fg_color},
        {"OsdTypeBgColor", &osd_post::type_bg_color},
        {"OsdStringBgColor", &osd_post::string_bg_color},
    };
    for (const auto &[key, field] : rows) {
        Field common = {key, {}, 1};
        for (osd_post &post : osd_state.post)
            common.places.push_back(&(post.*field));
        fields.push_back(std::move(common));
    }
    osd_post *tv = &osd_state.post[0];
    add(fields, "OsdTVOutSafeSpaceUp", &tv->safe_space_up);
    add(fields, "OsdTVOutSafeSpaceDown", &tv->safe_space_down);
    add(fields, "OsdTVOutSafeSpaceLeft", &tv->safe_space_left);
    add(fields, "OsdTVOutSafeSpaceRight", &tv->safe_space_right);
}

// All keys that hold a number, but for those that hold a flag.
std::vector<Field> number_fields()
{
    std::vector<Field> fields;
    add_common_fields(fields);
    for (int i = 0; i < OSD_POSTS; i++) {
        const std::string post = "Post" + std::to_string(i);
        add(fields, post + "StringColor", &osd_state.post[i].string_color);
        for (int slot = 0; slot < OSD_SLOTS; slot++) {
            const std::string key = post + "Osd" + std::to_string(slot);
            osd_rect *rect = &osd_state.post[i].rect[slot];
            add(fields, key + "ColorType", &rect->color_type);
            add(fields, key + "ColorFg", &rect->color_fg);
            add(fields, key + "ColorBg", &rect->color_bg);
            add(fields, key + "X", &rect->x);
            add(fields, key + "Y", &rect->y);
            add(fields, key + "W", &rect->w);
            add(fields, key + "H", &rect->h);
        }
    }
    return fields;
}

// The keys that switch something on, each with its field and what "on" is there.
struct Switch {
    std::string key;
    void *place;
    std::size_t size;
    std::uint32_t on;
};

std::vector<Switch> switches()
{
    const std::pair<const char *, osd_slot> texts[] = {{"StringOn", OSD_SLOT_STRING},
                                                       {"TypeOn", OSD_SLOT_LABEL},
                                                       {"DateOn", OSD_SLOT_DATE},
                                                       {"TimeOn", OSD_SLOT_TIME}};
    std::vector<Switch> all;
    for (int i = 0; i < OSD_POSTS; i++) {
        const std::string name = "Post" + std::to_string(i);
        osd_post *post = &osd_state.post[i];
        for (const auto &[key, slot] : texts)
            all.push_back({name + key, &post->text_on[slot], 1, 1});
        for (int slot = 0; slot < OSD_SLOTS; slot++) {
            all.push_back(
                {name + "Rectangle" + std::to_string(slot) + "On", &post->rect[slot].mode, 4, 2});
        }
    }
    return all;
}

// The whole table, byte by byte.
std::string bytes_of_table()
{
    std::string bytes(sizeof osd_state, '\0');
    std::memcpy(bytes.data(), &osd_state, sizeof osd_state);
    return bytes;
}

void set_table(const std::string &bytes)
{
    std::memcpy(static_cast<void *>(&osd_state), bytes.data(), bytes.size());
}

void store(void *place, std::size_t size, std::uint32_t value)
{
    std::memcpy(place, &value, size); // its low bytes
}

// Fills the fields of all parameters, and those that are none, with values of their own.
class PostParams : public support::OsdTest
{
protected:
    void SetUp() override
    {
        OsdTest::SetUp();
        apply({}); // has an effect of its own: the pointers to the texts
        for (const Field &field : number_fields()) {
            for (void *place : field.places)
                std::memset(place, 0x5A, field.size);
        }
        for (const Switch &row : switches())
            store(row.place, row.size, OSD_MODE_TEXT);
        for (osd_post &post : osd_state.post)
            fill_post(&post);
        std::memset(osd_state.font_file, 'f', sizeof osd_state.font_file - 1);
        osd_state.refresh_interval_ms = 500;
        filled_ = bytes_of_table();
    }
    static void fill_post(osd_post *post)
    {
        std::strcpy(post->string_text, " former text ");
        std::strcpy(post->date_text, " 29/02/2024 ");
        post->video_width = 720;
        post->video_height = 576;
        post->opened = 0x5A;
        post->callback_state = OSD_CALLBACK_CLOSE;
        post->res_id = 0x11;
        post->refresh_all = 0x5A;
        post->date_changed = 0x5A;
        post->date_offset_y = 9;
        post->font_engine.size = 28;
        for (osd_area &area : post->osd)
            area = {0x101, 2, 300};
    }
    // Applies one key to the filled table, which must become what `change` makes of it.
    void expect(const Pair &pair, const std::function<void()> &change)
    {
        set_table(filled_);
        change();
        const std::string expected = bytes_of_table();
        set_table(filled_);
        apply({pair});
        EXPECT_TRUE(bytes_of_table() == expected) << pair.first << '=' << pair.second;
    }
    // Expects the filled table, but for one field.
    void expect_nothing_else(char *place, std::size_t size)
    {
        const auto offset = place - reinterpret_cast<const char *>(&osd_state);
        std::memcpy(place, filled_.data() + offset, size);
        EXPECT_TRUE(bytes_of_table() == filled_);
    }

    std::string filled_;
};

TEST_F(PostParams, are_left_alone_without_their_keys)
{
    EXPECT_EQ(errors_of([] { apply({}); }), "");
    EXPECT_TRUE(bytes_of_table() == filled_);
    EXPECT_EQ(osd_state.post[0].safe_space_left, 0x5A5A5A5Au);
    EXPECT_EQ(osd_state.post[3].rect[3].mode, OSD_MODE_TEXT);
    EXPECT_EQ(osd_state.post[3].rect[3].h, 0x5A5A);
    EXPECT_EQ(osd_state.post[0].font_file, nullptr);
}

TEST_F(PostParams, go_to_their_own_fields)
{
    const std::vector<Field> fields = number_fields();
    ASSERT_EQ(fields.size(), 7u + 4 + 4 + 112);
    std::uint32_t number = 1;
    for (const Field &field : fields) {
        number = number % 250 + 1;
        expect({field.key, std::to_string(number)}, [&] {
            for (void *place : field.places)
                store(place, field.size, number);
        });
    }
}

TEST_F(PostParams, are_cut_to_their_fields)
{
    const std::pair<const char *, std::uint32_t> rows[] = {
        {"0", 0},
        {"255", 255},
        {"256", 256},
        {"300", 300},
        {"65535", 65535},
        {"65536", 65536},
        {"65537", 65537},
        {"2147483647", 2147483647},
        {"2147483648", 2147483647}, // the target's numbers end there
        {"4294967297", 2147483647},
        {"99999999999999999999", 2147483647},
        {"-1", 0xFFFFFFFF},
        {"-2147483648", 0x80000000},
        {"-2147483649", 0x80000000},
        {"", 0},
        {"red", 0},
        {" +12 px", 12},
        {"0x10", 0},
        {"010", 10},
    };
    const std::vector<Field> fields = number_fields();
    for (const char *key : {"OsdTimeBgColor", "OsdTVOutSafeSpaceDown", "Post2StringColor",
                            "Post3Osd1ColorType", "Post1Osd0W", "Post0Osd3Y"}) {
        const auto field = std::find_if(fields.begin(), fields.end(),
                                        [key](const Field &each) { return each.key == key; });
        ASSERT_NE(field, fields.end());
        for (const auto &[text, number] : rows) {
            expect({key, text}, [&] {
                for (void *place : field->places)
                    store(place, field->size, number);
            });
        }
    }
}

TEST_F(PostParams, switch_texts_and_rectangles)
{
    const std::pair<const char *, bool> rows[] = {
        {"0", false},    {"1", true},          {"2", true}, {"-1", true},  {"256", true},
        {"65536", true}, {"4294967296", true}, {"", false}, {"on", false}, {"00", false},
    };
    ASSERT_EQ(switches().size(), 32u);
    for (const Switch &row : switches()) {
        for (const auto &[text, on] : rows) {
            expect({row.key, text},
                   [&, is_on = on] { store(row.place, row.size, is_on ? row.on : 0); });
        }
    }
}

TEST_F(PostParams, keep_the_safe_spaces_of_all_posts_but_the_first_at_zero)
{
    for (osd_post &post : osd_state.post)
        post.safe_space_up = post.safe_space_down = post.safe_space_left = post.safe_space_right =
            7;
    apply({{"OsdTVOutSafeSpaceUp", "1"},
           {"OsdTVOutSafeSpaceDown", "2"},
           {"OsdTVOutSafeSpaceLeft", "3"},
           {"OsdTVOutSafeSpaceRight", "4"}});
    for (const osd_post &post : osd_state.post) {
        const bool tv = &post == osd_state.post;
        EXPECT_EQ(post.safe_space_up, tv ? 1u : 0u);
        EXPECT_EQ(post.safe_space_down, tv ? 2u : 0u);
        EXPECT_EQ(post.safe_space_left, tv ? 3u : 0u);
        EXPECT_EQ(post.safe_space_right, tv ? 4u : 0u);
    }
}

TEST_F(PostParams, of_other_posts_have_no_safe_spaces_without_the_keys_either)
{
    for (osd_post &post : osd_state.post)
        post.safe_space_up = post.safe_space_down = post.safe_space_left = post.safe_space_right =
            7;
    apply({});
    for (const osd_post &post : osd_state.post) {
        const std::uint32_t expected = &post == osd_state.post ? 7 : 0;
        EXPECT_EQ(post.safe_space_up, expected);
        EXPECT_EQ(post.safe_space_down, expected);
        EXPECT_EQ(post.safe_space_left, expected);
        EXPECT_EQ(post.safe_space_right, expected);
    }
}

TEST_F(PostParams, put_a_user_string_between_two_blanks)
{
    const std::pair<const char *, const char *> rows[] = {
        {"", "  "},
        {"a", " a "},
        {" a ", "  a  "},
        {"%s%d", " %s%d "},
        {"12345678901234567890", " 12345678901234567890 "},
        {"123456789012345678901", " 123456789012345678901"},
        {"1234567890123456789012", " 123456789012345678901"},
        {"12345678901234567890123456789012345", " 123456789012345678901"},
    };
    for (int i = 0; i < OSD_POSTS; i++) {
        for (const auto &[value, text] : rows) {
            set_table(filled_);
            apply({{"Post" + std::to_string(i) + "String", value}});
            for (const osd_post &post : osd_state.post)
                EXPECT_STREQ(post.string_text,
                             osd_post_number(&post) == i ? text : " former text ");
            expect_nothing_else(osd_state.post[i].string_text,
                                sizeof osd_state.post[i].string_text);
        }
    }
}

TEST_F(PostParams, hold_one_font_file_for_all_posts)
{
    apply({{"OsdFontFile", "/tmp/a font"}});
    EXPECT_EQ(std::string(osd_state.font_file, sizeof osd_state.font_file),
              std::string("/tmp/a font").append(sizeof osd_state.font_file - 11, '\0'));
    for (osd_post &post : osd_state.post) {
        EXPECT_EQ(post.font_file, osd_state.font_file);
        post.font_file = nullptr;
    }
    expect_nothing_else(osd_state.font_file, sizeof osd_state.font_file);
}

TEST_F(PostParams, cut_a_font_file_of_too_many_bytes)
{
    const std::string longest(4096, 'p');
    for (const std::size_t length : {4095u, 4096u, 4097u, 9000u}) {
        apply({{"OsdFontFile", std::string(length, 'p')}});
        EXPECT_EQ(osd_state.font_file, longest.substr(0, length));
        EXPECT_EQ(osd_state.font_file[4096], '\0');
    }
    apply({{"OsdFontFile", ""}});
    EXPECT_EQ(std::string(osd_state.font_file, sizeof osd_state.font_file),
              std::string(sizeof osd_state.font_file, '\0'));
    EXPECT_EQ(osd_state.post[2].font_file, osd_state.font_file);
}

TEST_F(PostParams, keep_the_font_file_of_before_without_the_key)
{
    apply({{"OsdFontFile", "/tmp/font"}});
    apply({});
    EXPECT_STREQ(osd_state.font_file, "/tmp/font");
    EXPECT_EQ(osd_state.post[1].font_file, osd_state.font_file);
}

TEST_F(PostParams, point_to_the_texts_but_that_of_the_time)
{
    const char *const labels[] = {" TVOut ", " Stream#1 ", " Stream#2 ", " Storage "};
    const char *const time = "former time";
    for (osd_post &post : osd_state.post) {
        for (osd_rect &rect : post.rect)
            rect.text = time;
    }
    apply({});
    for (int i = 0; i < OSD_POSTS; i++) {
        const osd_post *post = &osd_state.post[i];
        EXPECT_EQ(post->rect[0].text, post->string_text);
        EXPECT_STREQ(post->rect[1].text, labels[i]);
        EXPECT_EQ(post->rect[2].text, post->date_text);
        EXPECT_EQ(post->rect[3].text, time);
    }
}

TEST_F(PostParams, of_a_key_that_comes_twice_are_those_of_the_first)
{
    apply({{"Post0StringColor", "1"}, {"Post0StringColor", "2"}});
    EXPECT_EQ(osd_state.post[0].string_color, 1);
}

TEST_F(PostParams, take_a_text_slot_back_to_off_or_to_its_rectangle)
{
    osd_rect *rect = osd_state.post[1].rect;
    apply({{"Post1Rectangle0On", "0"},
           {"Post1Rectangle1On", "1"},
           {"Post1StringOn", "1"},
           {"Post1TypeOn", "1"},
           {"Post1Osd1ColorType", "2"},
           {"Post1Osd1ColorFg", "200"},
           {"Post1Osd1ColorBg", "100"}});
    EXPECT_EQ(rect[0].mode, 0u);
    EXPECT_EQ(rect[1].mode, 2u);
    EXPECT_EQ(rect[1].color_type, 2u);
    EXPECT_EQ(rect[1].color_fg, 200u);
    EXPECT_EQ(rect[1].color_bg, 100u);
}

TEST_F(Post, with_an_empty_user_string_shows_two_cells_of_background)
{
    const std::string font = support::make_font(support::small_font());
    codec::set_size(200, 160);
    apply({{"OsdFontFile", font},
           {"Post1String", ""},
           {"Post1StringColor", "9"},
           {"OsdStringBgColor", "5"}});
    osd_post *post = &osd_state.post[1];
    post->rect[OSD_SLOT_STRING].mode = OSD_MODE_TEXT;
    post->res_id = 0x22;
    EXPECT_EQ(errors_of([post] {
                  EXPECT_EQ(osd_do_callback_open(post), 0);
                  EXPECT_EQ(osd_refresh(post), 0);
              }),
              "");
    support::remove_file(font);
    ASSERT_EQ(post->osd[OSD_SLOT_STRING].handle, 0x101u);
    const codec::Osd &osd = codec::osd(0x101);
    ASSERT_EQ(osd.picture.size(), 22u * 6 * 8);
    for (unsigned y = 0; y < 8; y++) {
        for (unsigned x = 0; x < 22 * 6; x++)
            EXPECT_EQ(osd.index_at(x, y), x < 12 ? 5u : 0u) << x << ", " << y;
    }
}

} // namespace
