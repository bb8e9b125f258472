// The parameter catalogue. The rows below say everything about a key; all tables of 164 rows are
// made of them at compile time.
#include "cli/catalogue.h"

#include <cstring>

// ---- Rows ---------------------------------------------------------------------------------------

struct osd_param_row {
    const char
        *key; // the first X stands for the digit of the post, the first Y for the rectangle's
    const char *default_value; // of one character at the most
    osd_value_kind kind;
    std::uint32_t limit;
};

constexpr std::uint32_t OSD_LIMIT_FLAG = 1;
constexpr std::uint32_t OSD_LIMIT_RECTANGLE_ON = 2; // wider than the usage text says
constexpr std::uint32_t OSD_LIMIT_COLOR_TYPE = 2;
constexpr std::uint32_t OSD_LIMIT_COLOR_4 = 3;
constexpr std::uint32_t OSD_LIMIT_COLOR_16 = 15;
constexpr std::uint32_t OSD_LIMIT_COLOR_256 = 255;
constexpr std::uint32_t OSD_LIMIT_LENGTH = 2147483647; // what a signed number of 32 bits holds
constexpr std::uint32_t OSD_LIMIT_STRING = 20;

constexpr osd_param_row osd_common_rows[] = {
    {"OsdFontFile", "", OSD_VALUE_PATH, 0},
    {"OsdDateFgColor", "3", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_4},
    {"OsdDateBgColor", "0", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_4},
    {"OsdTimeFgColor", "3", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_4},
    {"OsdTimeBgColor", "0", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_4},
    {"OsdTypeFgColor", "3", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_16},
    {"OsdTypeBgColor", "0", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_16},
    {"OsdStringBgColor", "0", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_256},
    {"OsdTVOutSafeSpaceUp", "0", OSD_VALUE_NUMBER, OSD_LIMIT_LENGTH},
    {"OsdTVOutSafeSpaceDown", "0", OSD_VALUE_NUMBER, OSD_LIMIT_LENGTH},
    {"OsdTVOutSafeSpaceLeft", "0", OSD_VALUE_NUMBER, OSD_LIMIT_LENGTH},
    {"OsdTVOutSafeSpaceRight", "0", OSD_VALUE_NUMBER, OSD_LIMIT_LENGTH},
};

// Once for each post.
constexpr osd_param_row osd_post_rows[] = {
    {"PostXDateOn", "0", OSD_VALUE_NUMBER, OSD_LIMIT_FLAG},
    {"PostXTimeOn", "0", OSD_VALUE_NUMBER, OSD_LIMIT_FLAG},
    {"PostXTypeOn", "0", OSD_VALUE_NUMBER, OSD_LIMIT_FLAG},
    {"PostXStringOn", "0", OSD_VALUE_NUMBER, OSD_LIMIT_FLAG},
    {"PostXString", "", OSD_VALUE_STRING, OSD_LIMIT_STRING},
    {"PostXStringColor", "3", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_256},
};

// Once for each rectangle of each post.
constexpr osd_param_row osd_rectangle_rows[] = {
    {"PostXRectangleYOn", "0", OSD_VALUE_NUMBER, OSD_LIMIT_RECTANGLE_ON},
    {"PostXOsdYColorType", nullptr, OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_TYPE}, // see below
    {"PostXOsdYColorFg", "3", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_256},
    {"PostXOsdYColorBg", "1", OSD_VALUE_NUMBER, OSD_LIMIT_COLOR_256},
    {"PostXOsdYX", "0", OSD_VALUE_NUMBER, OSD_LIMIT_LENGTH},
    {"PostXOsdYY", "0", OSD_VALUE_NUMBER, OSD_LIMIT_LENGTH},
    {"PostXOsdYW", "0", OSD_VALUE_NUMBER, OSD_LIMIT_LENGTH},
    {"PostXOsdYH", "0", OSD_VALUE_NUMBER, OSD_LIMIT_LENGTH},
};

// Default of PostXOsdYColorType by Y: the colour type of the text that shares the slot.
constexpr char osd_color_type_defaults[] = {'2', '1', '0', '0'};

// ---- The tables made of them --------------------------------------------------------------------

constexpr std::size_t OSD_KEY_SIZE = 24;

// Holds its texts itself, so that the table needs no relocation.
struct osd_catalogue_row {
    char key[OSD_KEY_SIZE];
    char default_value[2];
    osd_value_kind kind;
    std::uint8_t post;
    std::uint32_t limit;
};

typedef std::array<osd_catalogue_row, OSD_PARAMS> osd_catalogue_rows;

consteval char osd_digit(std::size_t number)
{
    return cmn_cut<char>('0' + number);
}

consteval osd_catalogue_row osd_fill_row(const osd_param_row &row, std::size_t post,
                                         std::size_t rectangle)
{
    osd_catalogue_row full = {};
    bool post_done = false;
    bool rectangle_done = false;

    for (std::size_t i = 0; row.key[i] != '\0'; i++) {
        full.key[i] = row.key[i];
        if (row.key[i] == 'X' && !post_done) {
            full.key[i] = osd_digit(post);
            post_done = true;
        } else if (row.key[i] == 'Y' && !rectangle_done) {
            full.key[i] = osd_digit(rectangle);
            rectangle_done = true;
        }
    }
    full.post = cmn_cut<std::uint8_t>(post);
    full.default_value[0] =
        row.default_value ? row.default_value[0] : osd_color_type_defaults[rectangle];
    full.kind = row.kind;
    full.limit = row.limit;
    return full;
}

consteval osd_catalogue_rows osd_fill_catalogue()
{
    constexpr std::size_t posts = OSD_NO_POST;
    constexpr std::size_t rectangles = std::size(osd_color_type_defaults);
    static_assert(std::size(osd_common_rows) + posts * std::size(osd_post_rows) +
                      posts * rectangles * std::size(osd_rectangle_rows) ==
                  OSD_PARAMS);
    osd_catalogue_rows all = {};
    std::size_t count = 0;

    for (const osd_param_row &row : osd_common_rows)
        all[count++] = osd_fill_row(row, OSD_NO_POST, 0);
    for (std::size_t post = 0; post < posts; post++) {
        for (const osd_param_row &row : osd_post_rows)
            all[count++] = osd_fill_row(row, post, 0);
    }
    for (std::size_t post = 0; post < posts; post++) {
        for (std::size_t rectangle = 0; rectangle < rectangles; rectangle++) {
            for (const osd_param_row &row : osd_rectangle_rows)
                all[count++] = osd_fill_row(row, post, rectangle);
        }
    }
    return all;
}

static constexpr osd_catalogue_rows osd_catalogue = osd_fill_catalogue();

consteval std::array<option, OSD_PARAMS + 1> osd_fill_options()
{
    std::array<option, OSD_PARAMS + 1> all = {}; // ends with the all-zero row
    for (std::size_t i = 0; i < OSD_PARAMS; i++)
        all[i] = {osd_catalogue[i].key, required_argument, nullptr, osd_catalogue[i].post};
    return all;
}

consteval std::array<const char *, OSD_PARAMS> osd_fill_defaults()
{
    std::array<const char *, OSD_PARAMS> all = {};
    for (std::size_t i = 0; i < OSD_PARAMS; i++)
        all[i] = osd_catalogue[i].default_value;
    return all;
}

consteval std::array<osd_value_range, OSD_PARAMS> osd_fill_ranges()
{
    std::array<osd_value_range, OSD_PARAMS> all = {};
    for (std::size_t i = 0; i < OSD_PARAMS; i++)
        all[i] = {osd_catalogue[i].kind, osd_catalogue[i].limit};
    return all;
}

constexpr std::array<option, OSD_PARAMS + 1> osd_option_table = osd_fill_options();
constexpr std::array<const char *, OSD_PARAMS> osd_default_values = osd_fill_defaults();
constexpr std::array<osd_value_range, OSD_PARAMS> osd_value_ranges = osd_fill_ranges();

// ---- Defaults -----------------------------------------------------------------------------------

static int osd_append_default(param_section *section, std::size_t row)
{
    param_parampair *pair =
        param_parampair_new(osd_option_table[row].name, osd_default_values[row]);
    if (!pair) {
        CMN_REPORT("osd_get_default_section", "failed to create param pair");
        return -EFAULT;
    }
    if (cmn_list_append(section->pairs, pair) != 0) {
        CMN_REPORT("osd_get_default_section", "failed to append param pair");
        param_parampair_free(pair);
        return -EFAULT;
    }
    return 0;
}

param_section *osd_get_default_section()
{
    param_section *section = param_section_new(OSD_SECTION_NAME);
    if (!section) {
        CMN_REPORT("osd_get_default_section", "failed to create osd section");
        return nullptr;
    }
    for (std::size_t row = 0; row < OSD_PARAMS; row++) {
        if (osd_append_default(section, row) != 0) {
            param_section_free(section);
            return nullptr;
        }
    }
    return section;
}

// ---- Validation ---------------------------------------------------------------------------------

static const osd_catalogue_row *osd_find_row(const char *key)
{
    constexpr std::size_t longest = 2048; // no line of a file holds a longer key
    for (const osd_catalogue_row &row : osd_catalogue) {
        if (strncmp(row.key, key, longest) == 0)
            return &row;
    }
    return nullptr;
}

static bool osd_is_in_range(const osd_catalogue_row *row, const char *value)
{
    if (row->kind == OSD_VALUE_PATH)
        return true;
    if (row->kind == OSD_VALUE_STRING)
        return strlen(value) <= row->limit;

    const char *end = nullptr;
    const std::uint32_t number = cmn_strtoul(value, &end);
    return *end == '\0' && number <= row->limit;
}

std::int32_t osd_check_param(void *pair, void *data)
{
    if (data) {
        CMN_REPORT("osd_check_param", "pData should always be NULL");
        return -EINVAL;
    }
    const auto *own = static_cast<const param_parampair *>(pair);
    if (!own->key) {
        CMN_REPORT("osd_check_param", "invalid key '(null)'");
        return -EINVAL;
    }
    const osd_catalogue_row *row = osd_find_row(own->key);
    if (!row) {
        CMN_REPORT("osd_check_param", "invalid key '%s'", own->key);
        return -EINVAL;
    }
    if (row->kind == OSD_VALUE_STRING && !own->value)
        return 0;
    if (row->kind != OSD_VALUE_STRING && (!own->value || !*own->value)) {
        CMN_REPORT("osd_check_param", "invalid value '(null)' of key %s", own->key);
        return -EINVAL;
    }
    if (!osd_is_in_range(row, own->value)) {
        CMN_REPORT("osd_check_param", "invalid value '%s' of key %s", own->value, own->key);
        return -EINVAL;
    }
    return 0;
}

int osd_check_section(const param_section *section)
{
    if (!section->name || strcmp(section->name, OSD_SECTION_NAME) != 0) {
        CMN_REPORT("osd_check_section", "not osd section");
        return -EINVAL;
    }
    if (cmn_list_foreach(section->pairs, osd_check_param, nullptr) != 0) {
        CMN_REPORT("osd_check_section", "invalid osd parameter");
        return -EINVAL;
    }
    return 0;
}

// ---- Layers -------------------------------------------------------------------------------------

std::int32_t osd_section_set_parampair(void *pair, void *section)
{
    const auto *own = static_cast<const param_parampair *>(pair);
    if (!own->value)
        return 0;
    if (param_section_search_set_parampair(static_cast<param_section *>(section), own) != 0) {
        CMN_REPORT("osd_section_set_parampair", "search set parampair failed");
        return -EFAULT;
    }
    return 0;
}

int osd_section_overwrite(param_section *target, const param_section *source)
{
    if (cmn_list_foreach(source->pairs, osd_section_set_parampair, target) != 0) {
        CMN_REPORT("osd_section_overwrite", "failed to set section");
        return -EFAULT;
    }
    return 0;
}

static int osd_overlay_seclist(param_section *section, const param_seclist *seclist)
{
    const param_section *found = param_seclist_search_section(seclist, section->name);
    if (!found) {
        CMN_REPORT("osd_read_parameter_file", "no %s section in parameter file", section->name);
        return -EFAULT;
    }
    if (osd_check_section(found) != 0) {
        CMN_REPORT("osd_read_parameter_file", "invalid parameter in osd section");
        return -EINVAL;
    }
    if (osd_section_overwrite(section, found) != 0) {
        CMN_REPORT("osd_read_parameter_file", "failed to set parameters to osd section");
        return -EFAULT;
    }
    return 0;
}

int osd_read_parameter_file(param_section *section, const char *path)
{
    param_seclist *seclist = param_seclist_new(path);
    if (!seclist) {
        CMN_REPORT("osd_read_parameter_file", "failed to read parameter file");
        return -EFAULT;
    }
    const int result = osd_overlay_seclist(section, seclist);
    param_seclist_free(seclist);
    return result;
}
