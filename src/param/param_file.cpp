// The text form of sections: the reader with its limit of a line, and the writer.
//
// Written files read back the same, but for an empty value, which comes back as none, and for what
// the format has no words for: a line feed anywhere, "=" in a key, a line that looks like a header
// or a comment, and one that is too long.
#include "param/param.h"

#include <cstring>

// ---- Reader -------------------------------------------------------------------------------------

struct param_reader {
    param_seclist *seclist;
    param_section *current; // NULL before the first header; owned by `seclist`
};

static int param_read_header(param_reader *reader, const char *name)
{
    param_section *section = param_section_new(name);
    if (!section)
        return -EFAULT;
    if (cmn_list_append(reader->seclist, section) != 0) {
        param_section_free(section);
        return -EFAULT;
    }
    reader->current = section;
    return 0;
}

static int param_read_pair(const param_reader *reader, const char *key, const char *value)
{
    param_parampair *pair = param_parampair_new(key, *value ? value : nullptr);
    if (!pair)
        return -EFAULT;
    if (cmn_list_append(reader->current->pairs, pair) != 0) {
        param_parampair_free(pair);
        return -EFAULT;
    }
    return 0;
}

// Takes one line without its line feed, which it cuts into its pieces.
static int param_read_line(param_reader *reader, char *line)
{
    const std::size_t length = strlen(line);

    if (line[0] == ';')
        return 0;
    if (line[0] == '[' && line[length - 1] == ']') {
        line[length - 1] = '\0';
        return param_read_header(reader, line + 1);
    }
    char *separator = strchr(line, '=');
    if (!separator)
        return 0;
    if (!reader->current) {
        CMN_REPORT("param_seclist_new", "no section header");
        return -EFAULT;
    }
    *separator = '\0';
    return param_read_pair(reader, line, separator + 1);
}

static int param_read_lines(param_seclist *seclist, FILE *file)
{
    // A line that begins with a zero byte is an empty text to cmn_chomp, which then looks at the
    // byte before it.
    char buffer[1 + PARAM_LINE_SIZE] = {};
    char *line = buffer + 1;
    param_reader reader = {seclist, nullptr};

    while (fgets(line, PARAM_LINE_SIZE, file)) {
        cmn_chomp(line);
        if (param_read_line(&reader, line) != 0)
            return -EFAULT;
    }
    return 0; // a read error ends the file like its end
}

param_seclist *param_seclist_new(const char *path)
{
    if (!path) {
        CMN_REPORT("param_seclist_new", "invalid parameter");
        return nullptr;
    }
    FILE *file = fopen(path, "r");
    if (!file) {
        CMN_REPORT_ERRNO("param_seclist_new", "cannot open file %s", path);
        return nullptr;
    }
    param_seclist *seclist = cmn_list_create();
    if (!seclist) {
        CMN_REPORT("param_seclist_new", "cannot create section list");
    } else if (param_read_lines(seclist, file) != 0) {
        param_seclist_free(seclist);
        seclist = nullptr;
    }
    fclose(file);
    return seclist;
}

// ---- Writer -------------------------------------------------------------------------------------

std::int32_t param_parampair_write(void *pair, void *stream)
{
    const auto *own = static_cast<const param_parampair *>(pair);
    auto *file = static_cast<FILE *>(stream);

    if (!own->key)
        return -EINVAL;
    fputs(own->key, file);
    fputc('=', file);
    if (own->value)
        fputs(own->value, file);
    fputc('\n', file);
    return 0;
}

static int param_write_named(const param_section *section, FILE *file)
{
    fputc('[', file);
    fputs(section->name, file);
    fputs("]\n", file);
    return section->pairs ? cmn_list_foreach(section->pairs, param_parampair_write, file) : 0;
}

std::int32_t param_section_write(void *section, void *stream)
{
    const auto *own = static_cast<const param_section *>(section);
    return own->name ? param_write_named(own, static_cast<FILE *>(stream)) : -EINVAL;
}

int param_section_write_file(const param_section *section, const char *path)
{
    if (!section || !path || !section->name)
        return -EINVAL;
    FILE *file = fopen(path, "w");
    if (!file) {
        CMN_REPORT_ERRNO("param_section_write_file", "cannot open file");
        return -EACCES;
    }
    const int result = param_write_named(section, file);
    fclose(file);
    return result;
}

int param_seclist_write_file(const param_seclist *seclist, const char *path)
{
    if (!seclist || !path)
        return -EINVAL;
    FILE *file = fopen(path, "w");
    if (!file) {
        CMN_REPORT_ERRNO("param_seclist_write_file", "cannot open file");
        return -EACCES;
    }
    const int result = cmn_list_foreach(seclist, param_section_write, file);
    fclose(file);
    return result;
}
