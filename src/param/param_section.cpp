// Sections, pairs and section lists in memory.
#include "param/param.h"

#include <cstdlib>
#include <cstring>

static char *param_copy_text(const char *text)
{
    const std::size_t length = strlen(text);
    char *copy = static_cast<char *>(calloc(length + 1, 1));
    if (copy)
        memcpy(copy, text, length);
    return copy;
}

static void param_parampair_release(void *pair)
{
    param_parampair_free(static_cast<param_parampair *>(pair));
}

static void param_section_release(void *section)
{
    param_section_free(static_cast<param_section *>(section));
}

// ---- Pairs --------------------------------------------------------------------------------------

static param_parampair *param_parampair_make(const char *key, const char *value)
{
    auto *pair = static_cast<param_parampair *>(calloc(1, sizeof(param_parampair)));
    if (!pair)
        return nullptr;
    pair->key = param_copy_text(key);
    pair->value = value ? param_copy_text(value) : nullptr;
    if (!pair->key || (value && !pair->value)) {
        param_parampair_free(pair);
        return nullptr;
    }
    return pair;
}

param_parampair *param_parampair_new(const char *key, const char *value)
{
    if (!key) {
        CMN_REPORT("param_parampair_new", "invalid parameter");
        return nullptr;
    }
    param_parampair *pair = param_parampair_make(key, value);
    if (!pair)
        CMN_REPORT("param_parampair_new", "no memory");
    return pair;
}

param_parampair *param_parampair_copy_new(const param_parampair *pair)
{
    if (!pair || !pair->key) {
        CMN_REPORT("param_parampair_copy_new", "invalid parameter");
        return nullptr;
    }
    param_parampair *copy = param_parampair_make(pair->key, pair->value);
    if (!copy)
        CMN_REPORT("param_parampair_copy_new", "no memory");
    return copy;
}

int param_parampair_set_value(param_parampair *pair, const char *value)
{
    if (!pair) {
        CMN_REPORT("param_parampair_set_value", "invalid parameter");
        return -EINVAL;
    }
    free(pair->value);
    pair->value = value ? param_copy_text(value) : nullptr;
    if (value && !pair->value) {
        CMN_REPORT("param_parampair_set_value", "no memory");
        return -ENOMEM;
    }
    return 0;
}

void param_parampair_free(param_parampair *pair)
{
    if (!pair) {
        CMN_REPORT("param_parampair_free", "invalid parameter");
        return;
    }
    free(pair->key);
    free(pair->value);
    free(pair);
}

// ---- Sections -----------------------------------------------------------------------------------

param_section *param_section_new(const char *name)
{
    if (!name) {
        CMN_REPORT("param_section_new", "invalid parameter");
        return nullptr;
    }
    auto *section = static_cast<param_section *>(calloc(1, sizeof(param_section)));
    if (section) {
        section->name = param_copy_text(name);
        section->pairs = section->name ? cmn_list_create() : nullptr;
        if (section->pairs)
            return section;
        free(section->name);
        free(section);
    }
    CMN_REPORT("param_section_new", "no memory");
    return nullptr;
}

void param_section_free(param_section *section)
{
    if (!section) {
        CMN_REPORT("param_section_free", "invalid parameter");
        return;
    }
    free(section->name);
    cmn_list_destroy(section->pairs, param_parampair_release);
    free(section);
}

static std::int32_t param_parampair_compare_key(const void *pair, const void *key)
{
    const char *own = static_cast<const param_parampair *>(pair)->key;
    return own ? strcmp(own, static_cast<const char *>(key)) : -1;
}

param_parampair *param_section_search_parampair_key(const param_section *section, const char *key)
{
    if (!section || !key || !section->pairs) {
        CMN_REPORT("param_section_search_parampair_key", "invalid parameter");
        return nullptr;
    }
    return static_cast<param_parampair *>(
        cmn_list_find(section->pairs, param_parampair_compare_key, key));
}

int param_section_search_set_parampair(param_section *section, const param_parampair *pair)
{
    if (!section || !pair) {
        CMN_REPORT("param_section_search_set_parampair", "invalid parameter");
        return -EINVAL;
    }
    param_parampair *own = param_section_search_parampair_key(section, pair->key);
    if (!own) {
        CMN_REPORT("param_section_search_set_parampair", "key %s is not found in section %s",
                   pair->key, section->name);
        return -EFAULT;
    }
    if (param_parampair_set_value(own, pair->value) != 0) {
        CMN_REPORT("param_section_search_set_parampair", "failed to set value to key %s",
                   pair->key);
        return -EFAULT;
    }
    return 0;
}

// ---- Section lists ------------------------------------------------------------------------------

static std::int32_t param_section_compare_name(const void *section, const void *name)
{
    const char *own = static_cast<const param_section *>(section)->name;
    return own ? strcmp(own, static_cast<const char *>(name)) : -1;
}

param_section *param_seclist_search_section(const param_seclist *seclist, const char *name)
{
    if (!seclist || !name) {
        CMN_REPORT("param_seclist_search_section", "invalid parameter");
        return nullptr;
    }
    return static_cast<param_section *>(cmn_list_find(seclist, param_section_compare_name, name));
}

void param_seclist_free(param_seclist *seclist)
{
    cmn_list_destroy(seclist, param_section_release);
}
