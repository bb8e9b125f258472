#include "cli/client.h"

#include "cli/catalogue.h"
#include "server/channel.h"

#include <cstdio>
#include <cstring>

static void osd_say_not_running()
{
    puts("#qm5osd:OSD server is not running");
}

int osd_status()
{
    if (!osd_server_is_running()) {
        osd_say_not_running();
        return 0;
    }
    puts("#qm5osd:OSD server is running");
    return 1;
}

int osd_stop()
{
    const int result = osd_send_request(OSD_REQUEST_STOP);
    if (result == -EREMOTEIO) {
        osd_say_not_running();
        return 0;
    }
    if (result != 0) {
        CMN_REPORT("osd_stop", "failed to stop server");
        return -EFAULT;
    }
    return 0;
}

// ---- update -------------------------------------------------------------------------------------

// Overlays the parameters in force, the -f file and the long options on the defaults.
static int osd_overlay_layers(param_section *section, const osd_options *options)
{
    if (osd_read_parameter_file(section, OSD_TMP_PARAM) != 0) {
        CMN_REPORT("osd_update", "failed to read temporary parameter file");
        return -EFAULT;
    }
    if (options->paramFile && osd_read_parameter_file(section, options->paramFile) != 0) {
        CMN_REPORT("osd_update", "failed to read osd parameter file");
        return -EFAULT;
    }
    if (osd_section_overwrite(section, options->section) != 0) {
        CMN_REPORT("osd_update", "failed to set osd options to osd section");
        return -EFAULT;
    }
    return 0;
}

// Makes the backup the temporary parameter file again; there may be none.
static int osd_restore_parameter_file()
{
    if (rename(OSD_TMP_PARAM_BAK, OSD_TMP_PARAM) != 0 && errno != ENOENT) {
        CMN_REPORT("osd_update", "failed to recover parameter file. errno=0x%08X", cmn_errno());
        return -EFAULT;
    }
    return 0;
}

// Puts the section in the place of the temporary parameter file, which becomes the backup.
static int osd_replace_parameter_file(const param_section *section)
{
    if (rename(OSD_TMP_PARAM, OSD_TMP_PARAM_BAK) != 0 && errno != ENOENT) {
        CMN_REPORT("osd_update", "failed to rename temporary parameter file. errno=0x%08X",
                   cmn_errno());
        return -EFAULT;
    }
    if (param_section_write_file(section, OSD_TMP_PARAM) != 0) {
        CMN_REPORT("osd_update", "failed to create temporary parameter file");
        osd_restore_parameter_file();
        return -EFAULT;
    }
    return 0;
}

static int osd_write_update(const osd_options *options)
{
    param_section *section = osd_get_default_section();
    if (!section) {
        CMN_REPORT("osd_update", "failed to get osd default section");
        return -EFAULT;
    }
    int result = osd_overlay_layers(section, options);
    if (result == 0)
        result = osd_replace_parameter_file(section);
    param_section_free(section);
    return result;
}

// The server has refused the new file: brings it back to the old one.
static int osd_roll_back(std::uint32_t word)
{
    if (osd_restore_parameter_file() != 0)
        return -EFAULT;
    if (osd_send_request(word) == 0)
        CMN_REPORT("osd_update", "osd server recovered parameters");
    else
        CMN_REPORT("osd_update", "failed to update server");
    return -EFAULT;
}

int osd_update(const osd_options *options)
{
    if (!options) {
        CMN_REPORT("osd_update", "invalid parameter");
        return -EINVAL;
    }
    if (!osd_server_is_running()) {
        CMN_REPORT("osd_update", "server is not running");
        return -EREMOTEIO;
    }
    if (osd_write_update(options) != 0)
        return -EFAULT;

    const std::uint32_t word = osd_update_word(options->post);
    const int result = osd_send_request(word);
    if (result == 0)
        return 0;
    if (result == -EFAULT)
        return osd_roll_back(word);
    CMN_REPORT("osd_update", "failed to update server");
    return -EFAULT;
}

// ---- save, getthdinfo ---------------------------------------------------------------------------

// Where a line of the temporary parameter file tells one kind of key from another: the ColorBg of
// PostXOsdYColorBg, and what follows PostX.
constexpr std::size_t OSD_COLOR_BG_AT = 9;
constexpr std::size_t OSD_KIND_AT = 5;

static bool osd_line_has(const char *line, std::size_t at, const char *text)
{
    return strlen(line) > at && strncmp(line + at, text, strlen(text)) == 0;
}

static bool osd_is_rectangle_background(const char *line)
{
    return osd_line_has(line, OSD_COLOR_BG_AT, "ColorBg");
}

static void osd_copy_saved_lines(FILE *from, FILE *to)
{
    char line[PARAM_LINE_SIZE];
    while (fgets(line, sizeof line, from)) {
        if (!osd_is_rectangle_background(line))
            fputs(line, to);
    }
}

int osd_save(const osd_options *options)
{
    if (!options || !options->paramFile) {
        CMN_REPORT("osd_save", "invalid parameter");
        return -EINVAL;
    }
    if (!osd_server_is_running()) {
        CMN_REPORT("osd_save", "server is not running");
        return -EREMOTEIO;
    }
    FILE *from = fopen(OSD_TMP_PARAM, "r");
    if (!from) {
        CMN_REPORT_ERRNO("osd_save", "unable to open temporary parameter file %s", OSD_TMP_PARAM);
        return -EACCES;
    }
    FILE *to = fopen(options->paramFile, "w");
    if (!to) {
        CMN_REPORT_ERRNO("osd_save", "unable to open parameter file %s", options->paramFile);
        fclose(from);
        return -EACCES;
    }
    osd_copy_saved_lines(from, to);
    fclose(from);
    fclose(to);
    return 0;
}

static bool osd_is_text_key(const char *line)
{
    static constexpr const char *kinds[] = {"String", "Type", "Date", "Time"};
    for (const char *kind : kinds) {
        if (osd_line_has(line, OSD_KIND_AT, kind))
            return true;
    }
    return false;
}

static void osd_print_thread_lines(FILE *file, const osd_options *options, const char *prefix)
{
    char line[PARAM_LINE_SIZE];
    while (fgets(line, sizeof line, file)) {
        if (osd_is_rectangle_background(line) || (!options->all && !osd_is_text_key(line)) ||
            strncmp(line, prefix, strlen(prefix)) != 0)
            continue;
        printf("#qm5osd:[%s]:%s", options->funcName, line);
    }
}

int osd_getthdinfo(const osd_options *options)
{
    char prefix[16] = "Post"; // of every post thread
    if (options->post < 4)
        snprintf(prefix, sizeof prefix, "Post%u", options->post);
    if (!osd_server_is_running()) {
        CMN_REPORT("osd_getthdinfo", "server is not running");
        return -EREMOTEIO;
    }
    FILE *file = fopen(OSD_TMP_PARAM, "r");
    if (!file) {
        CMN_REPORT_ERRNO("osd_getthdinfo", "unable to open temporary parameter file %s",
                         OSD_TMP_PARAM);
        return -EACCES;
    }
    osd_print_thread_lines(file, options, prefix);
    fclose(file);
    return 0;
}
