// Settings and faults: what the folder's files say, and what is to go wrong with a call.
#include "sim_library.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/stat.h>

sim_settings sim_setting = SIM_DEFAULT_SETTINGS;

static sim_fault_list sim_faults;

// A number for each of them since it is in force, another one each time; 0: it is not.
static std::uint32_t sim_terms[SIM_FAULTS];

// The term of a fault that is in force already, or a new one.
static std::uint32_t sim_get_term(const sim_fault *fault)
{
    static std::uint32_t last;
    for (std::size_t i = 0; i < sim_faults.count; i++) {
        if (sim_terms[i] != 0 && memcmp(&sim_faults.fault[i], fault, sizeof *fault) == 0)
            return sim_terms[i];
    }
    return ++last;
}

static void sim_forget_counts()
{
    memset(sim->fault, 0, sizeof sim->fault);
}

// Faults that were there already go on counting.
static void sim_take_faults(const sim_fault_list *list)
{
    sim_fault_count counts[SIM_FAULTS] = {};
    std::uint32_t terms[SIM_FAULTS] = {};
    for (std::size_t i = 0; i < list->count; i++) {
        counts[i].id = list->fault[i].id;
        for (const sim_fault_count &old : sim->fault) {
            if (old.id == list->fault[i].id)
                counts[i] = old;
        }
        if (sim_setting.faults != 0)
            terms[i] = sim_get_term(&list->fault[i]);
    }
    sim_faults = *list;
    memcpy(sim_terms, terms, sizeof terms);
    memcpy(sim->fault, counts, sizeof counts);
}

// One of the two files: what it says, or why it can't be read.
struct sim_control_file {
    char path[SIM_PATH_SIZE];
    char text[SIM_TEXT];
    std::size_t length;
    bool is_read;
};

// A reason stands in the place of the text. It is none that could be understood, so that it can be
// compared with texts.
static void sim_read_control_file(const char *name, sim_control_file *file)
{
    sim_get_path(file->path, "%s", name);
    const char *why = sim_read_text(file->path, file->text, sizeof file->text, &file->length);
    file->is_read = !why;
    if (why)
        file->length = static_cast<std::size_t>(snprintf(file->text, sizeof file->text, "%s", why));
}

// Is there a text? If not, that is told.
static bool sim_require_text(const sim_control_file *file)
{
    if (!file->is_read)
        sim_say(file->path, file->text);
    return file->is_read;
}

// Takes both texts, or neither; false if one can't be understood.
static bool sim_take_texts(const sim_control_file *settings, const sim_control_file *faults)
{
    sim_settings setting = sim_setting;
    sim_fault_list list = {};
    const bool settings_are_good =
        sim_require_text(settings) && sim_take_settings(settings->path, settings->text, &setting);
    const bool faults_are_good =
        sim_require_text(faults) &&
        sim_parse_lines(faults->path, faults->text,
                        [&list](const char *line) { return sim_add_fault(line, &list); });
    if (!settings_are_good || !faults_are_good)
        return false;
    if (list.loaded != sim->loaded) {
        sim_forget_counts();
        sim_faults.count = 0;
        sim->loaded = list.loaded;
    }
    sim_setting = setting;
    sim_take_faults(&list);
    return true;
}

// When a file was last changed or replaced, in nanoseconds; 0 for no file.
static std::uint64_t sim_change_time(const char *path)
{
    struct stat there;
    if (stat(path, &there) != 0)
        return 0;
    return static_cast<std::uint64_t>(there.st_ctim.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(there.st_ctim.tv_nsec);
}

// The hash of the texts that were last looked at, taken or refused.
static std::uint32_t sim_looked_at;
static bool sim_has_looked;

void sim_forget_control()
{
    sim_has_looked = false;
    sim_begin();
    sim->control = 0;
    sim_end();
}

void sim_read_control()
{
    static sim_control_file settings;
    static sim_control_file faults;
    char faults_path[SIM_PATH_SIZE];
    sim_get_path(faults_path, "faults");
    const std::uint64_t faults_time = sim_change_time(faults_path);
    sim_read_control_file("settings", &settings);
    sim_read_control_file("faults", &faults);
    const std::uint32_t hash = sim_hash(settings.text, settings.length, faults.text, faults.length);
    const bool is_first = !sim_has_looked;
    const bool is_new = is_first || hash != sim_looked_at;
    if (!is_new && sim->faults_time == faults_time)
        return;
    sim_has_looked = true;
    sim_looked_at = hash;
    sim_begin();
    if (is_first && sim->faults_time != faults_time)
        sim_forget_counts();
    sim->faults_time = faults_time;
    if (is_new && sim_take_texts(&settings, &faults))
        sim->control = hash;
    sim_end();
}

// ---- Faults -------------------------------------------------------------------------------------

// One number for all that a fault says but for its ID.
static std::uint32_t sim_hash_fault(sim_fault fault)
{
    fault.id = 0;
    return sim_hash(reinterpret_cast<const char *>(&fault), sizeof fault, "", 0);
}

static bool sim_happens(const sim_fault *fault, std::uint32_t met)
{
    switch (fault->when) {
    case SIM_NTH:
        return met == fault->number;
    case SIM_PERCENT:
        // Spread by a multiplicative hash, so that each run has the same ones.
        return ((sim_hash_fault(*fault) ^ met) * 2246822519u >> 16) % 100 < fault->number;
    default:
        return true;
    }
}

static void sim_add_change(bool before, std::uint32_t post, sim_change change, sim_trouble *trouble)
{
    (before ? trouble->before : trouble->after)[post] = change;
    trouble->changes = true;
}

static void sim_add_trouble(std::size_t number, std::uint32_t post, sim_trouble *trouble,
                            sim_wait *wait)
{
    const sim_fault *fault = &sim_faults.fault[number];
    switch (fault->effect) {
    case SIM_FAIL:
        trouble->code = static_cast<std::uint32_t>(fault->value);
        break;
    case SIM_DELAY:
    case SIM_LATE:
        if (fault->value != 0)
            wait->term[wait->count++] = sim_terms[number];
        break;
    case SIM_SIZE:
        trouble->size += fault->value;
        break;
    case SIM_LINE:
        trouble->line += fault->value;
        break;
    case SIM_VANISH:
    case SIM_VANISH_AFTER:
        if (post != SIM_ANY_POST)
            sim_add_change(fault->effect == SIM_VANISH, post, {true, 0, 0}, trouble);
        break;
    case SIM_CHANGE:
    case SIM_CHANGE_AFTER:
        sim_add_change(fault->effect == SIM_CHANGE, fault->changed,
                       {true, fault->width, fault->height}, trouble);
        break;
    default:
        trouble->twice = true;
    }
}

sim_trouble sim_meet_faults(sim_operation operation, std::uint32_t post, sim_wait *wait)
{
    sim_trouble trouble = {};
    wait->count = 0;
    if (sim_setting.faults == 0)
        return trouble;
    for (std::size_t i = 0; i < sim_faults.count; i++) {
        const sim_fault *fault = &sim_faults.fault[i];
        if (fault->operation != operation || (fault->post != SIM_ANY_POST && fault->post != post))
            continue;
        sim_begin();
        sim->fault[i].met++;
        if (sim_happens(fault, sim->fault[i].met)) {
            sim->fault[i].happened++;
            sim_add_trouble(i, post, &trouble, wait);
        }
        sim_end();
    }
    return trouble;
}

// ---- Waits --------------------------------------------------------------------------------------

std::int64_t sim_now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 * SIM_MILLISECOND + now.tv_nsec;
}

static bool sim_has_term(const sim_wait *wait, std::uint32_t term)
{
    for (std::uint32_t i = 0; i < wait->count; i++) {
        if (wait->term[i] == term)
            return true;
    }
    return false;
}

std::int64_t sim_get_end(const sim_wait *wait, std::int64_t begin)
{
    for (std::size_t i = 0; i < sim_faults.count; i++) {
        if (sim_has_term(wait, sim_terms[i]))
            begin += sim_faults.fault[i].value * SIM_MILLISECOND;
    }
    return begin;
}

// Looks at the files itself and often, for the notification thread doesn't run at each of the calls
// that may have to wait.
void sim_wait_out(const sim_wait *wait)
{
    constexpr std::int64_t pace = 10 * SIM_MILLISECOND;
    const std::int64_t begin = sim_now();
    std::int64_t left = wait->count;
    while (left > 0) {
        sim_lock();
        sim_read_control();
        left = sim_get_end(wait, begin) - sim_now();
        sim_unlock();
        const std::int64_t nap = left < pace ? left : pace;
        if (nap > 0)
            sim_sleep(static_cast<std::uint32_t>((nap + SIM_MILLISECOND - 1) / SIM_MILLISECOND));
    }
}

void sim_sleep(std::uint32_t ms)
{
    timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000)};
    while (nanosleep(&left, &left) != 0 && errno == EINTR)
        continue;
}
