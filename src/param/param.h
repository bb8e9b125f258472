// Parameter store, the chief header of `param`: named sections of text key/value pairs in the
// order in which they were made, and their one text file format.
//
// The store knows nothing of the OSD; values stay text until their consumer converts them. Every
// text is copied on its way in, so nothing is shared between two records: a list owns its
// elements, a section its name and pairs, a pair both texts. Records are made by `_new` and given
// back by `_free`. All functions belong to the main thread.
//
// The file format, line by line, in this order of tests on the line without its line feed:
//
//   ;...          comment
//   [name]        begins the section `name`; both brackets at the very ends of the line
//   no "=" in it  ignored
//   key=value     pair of the current section; cut at the first "=", nothing is trimmed; with
//                 nothing behind the "=" the pair has no value, which differs from an empty text
#pragma once

#include "common/cmn.h"

#include <cstdio>

struct param_parampair {
    char *key;
    char *value; // NULL: no value
};

struct param_section {
    char *name;
    cmn_list *pairs; // of param_parampair; a repeated key is kept
};

// The sections of one file, in order; a repeated name is kept.
typedef cmn_list param_seclist; // of param_section

// Bytes of a line with its line feed, and one for the terminator; a longer line is read as several.
constexpr int PARAM_LINE_SIZE = 2049;

// ---- Pairs --------------------------------------------------------------------------------------

// A new pair of copies; a NULL `value` stays NULL. NULL after a report for a NULL key or without
// memory.
param_parampair *param_parampair_new(const char *key, const char *value);
param_parampair *param_parampair_copy_new(const param_parampair *pair);

// Replaces the value by a copy, or by NULL. The old value is freed first: `value` must not be it.
// -EINVAL or -ENOMEM after a report; without memory the pair has lost its old value and has none.
int param_parampair_set_value(param_parampair *pair, const char *value);

// Reports NULL and leaves it at that, like param_section_free.
void param_parampair_free(param_parampair *pair);

// Writes the pair's line. A walk callback: takes a param_parampair and the open FILE. -EINVAL for
// a pair without a key; what the stream makes of the writing is not looked at.
std::int32_t param_parampair_write(void *pair, void *stream);

// ---- Sections -----------------------------------------------------------------------------------

// A new section with no pairs; NULL after a report for a NULL name or without memory.
param_section *param_section_new(const char *name);
void param_section_free(param_section *section);

// The first pair with exactly this key, owned by the section. NULL without a report if there is
// none, after a report for a NULL section, key or pair list.
param_parampair *param_section_search_parampair_key(const param_section *section, const char *key);

// Gives the first pair with the key of `pair` a copy of its value, NULL included. Never adds a
// pair: -EFAULT after reports if the section lacks the key or its list, if the key is NULL, or
// without memory; -EINVAL after a report for a NULL argument. `pair` must not be of the section.
int param_section_search_set_parampair(param_section *section, const param_parampair *pair);

// Writes header and pairs to the open FILE. A walk callback: takes a param_section and the FILE.
// -EINVAL for a section without a name, -EFAULT if a pair has no key.
std::int32_t param_section_write(void *section, void *stream);

// Writes the section as the file `path`, which is created or truncated. -EINVAL without a report
// for a NULL argument or name, -EACCES after a report if the file can't be opened, -EFAULT if a
// pair has no key; what was written before that stays in the file. A full disk goes unnoticed.
int param_section_write_file(const param_section *section, const char *path);

// ---- Section lists ------------------------------------------------------------------------------

// The sections of the file `path`; empty for a file with none. NULL for a NULL path, if the file
// can't be opened or has a pair before its first header, each after a report, and without memory.
param_seclist *param_seclist_new(const char *path);

// NULL is ignored.
void param_seclist_free(param_seclist *seclist);

// The first section of exactly this name, owned by the list; NULL as for the search of a key.
param_section *param_seclist_search_section(const param_seclist *seclist, const char *name);

// Writes all sections as one file. -EINVAL without a report for a NULL argument, -EACCES after a
// report if the file can't be opened, -EFAULT if a section or a pair has no name or key; what was
// written before that stays in the file.
int param_seclist_write_file(const param_seclist *seclist, const char *path);
