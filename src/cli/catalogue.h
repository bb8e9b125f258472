// The catalogue of the 164 OSD parameters: their keys, which are at once the long options of
// `start`, `restart` and `update`, their defaults and their ranges; validation of any `osd`
// section, and the overlaying of one layer of parameters on another.
//
// Every consumer follows one pattern: take the defaults, overlay the layers in a fixed order, hand
// the result on. A later layer wins key by key, and nothing ever removes a key.
#pragma once

#include "param/param.h"

#include <array>
#include <getopt.h>

constexpr std::size_t OSD_PARAMS = 164;
constexpr const char *OSD_SECTION_NAME = "osd";

// `val` of the rows that belong to no post; those keys can only be set in a file.
constexpr int OSD_NO_POST = 4;

// The rows as getopt_long(3) wants them, with an all-zero end row: name, required_argument, NULL,
// and the number of the post or OSD_NO_POST. The order is that of the default section and of
// every file that is written from it.
extern const std::array<option, OSD_PARAMS + 1> osd_option_table;

// Their default texts, row by row.
extern const std::array<const char *, OSD_PARAMS> osd_default_values;

// What their values may be, row by row.
enum osd_value_kind : std::uint8_t {
    OSD_VALUE_NUMBER, // decimal, from 0 to `limit`
    OSD_VALUE_STRING, // any text of at most `limit` bytes, or none
    OSD_VALUE_PATH,   // any text that isn't empty
};

struct osd_value_range {
    osd_value_kind kind;
    std::uint32_t limit;
};

extern const std::array<osd_value_range, OSD_PARAMS> osd_value_ranges;

// A new section "osd" with all pairs in order, the empty defaults as empty texts; NULL after a
// report without memory. The caller frees it. It would not pass osd_check_section, for the default
// of OsdFontFile is empty.
param_section *osd_get_default_section();

// Are the name and every pair of the section valid? -EINVAL after a report for another name, or
// after that of the first invalid pair and one more.
int osd_check_section(const param_section *section);

// The same for one pair: a walk callback, whose `data` must be NULL. -EINVAL after a report.
std::int32_t osd_check_param(void *pair, void *data);

// Overlays the pairs of `source` on `target` in their order; a pair without a value is passed
// over. -EFAULT after reports if the target lacks a key, or without memory.
int osd_section_overwrite(param_section *target, const param_section *source);

// The same for one pair: a walk callback that takes a param_parampair and the target section.
std::int32_t osd_section_set_parampair(void *pair, void *section);

// Overlays the section of the file that has the name of `section`. The file is validated whole
// before its first pair is applied. -EFAULT or, for an invalid section, -EINVAL, after reports.
int osd_read_parameter_file(param_section *section, const char *path);
