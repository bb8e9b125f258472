// Settings and faults: what the folder's files say, and what is to go wrong with a call.
#include "sim_library.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

sim_settings sim_setting = SIM_DEFAULT_SETTINGS;

static sim_fault sim_faults[SIM_FAULTS];
static std::size_t sim_fault_count_in_force;

static const char *sim_add_fault(const char *line, sim_fault *faults, std::size_t *count)
{
    if (*count == SIM_FAULTS)
        return "too many faults";
    const char *why = sim_parse_fault(line, &faults[*count]);
    for (std::size_t i = 0; i < *count && !why; i++) {
        if (faults[i].id == faults[*count].id)
            why = "the ID is there already";
    }
    ++*count;
    return why;
}

// Faults that were there already go on counting.
static void sim_take_faults(const char *path, const char *text)
{
    sim_fault faults[SIM_FAULTS] = {};
    std::size_t count = 0;
    if (!sim_parse_lines(path, text, [&faults, &count](const char *line) {
            return sim_add_fault(line, faults, &count);
        }))
        return;
    sim_fault_count counts[SIM_FAULTS] = {};
    for (std::size_t i = 0; i < count; i++) {
        counts[i].id = faults[i].id;
        for (const sim_fault_count &old : sim->fault) {
            if (old.id == faults[i].id)
                counts[i] = old;
        }
    }
    memcpy(sim_faults, faults, sizeof faults);
    sim_fault_count_in_force = count;
    memcpy(sim->fault, counts, sizeof counts);
}

void sim_read_control()
{
    char settings_path[SIM_PATH_SIZE];
    char faults_path[SIM_PATH_SIZE];
    static char settings[SIM_TEXT];
    static char faults[SIM_TEXT];
    sim_get_path(settings_path, "settings");
    sim_get_path(faults_path, "faults");
    const long settings_size = sim_read_text(settings_path, settings, sizeof settings);
    const long faults_size = sim_read_text(faults_path, faults, sizeof faults);
    if (settings_size < 0 || faults_size < 0)
        return;
    const std::uint32_t hash = sim_hash(settings, static_cast<std::size_t>(settings_size), faults,
                                        static_cast<std::size_t>(faults_size));
    static std::uint32_t taken;
    static bool any;
    if (any && hash == taken && sim->control == hash)
        return;
    any = true;
    taken = hash;
    sim_begin();
    sim_take_settings(settings_path, settings, &sim_setting);
    sim_take_faults(faults_path, faults);
    sim->control = hash;
    sim_end();
}

// ---- Faults -------------------------------------------------------------------------------------

static bool sim_happens(const sim_fault *fault, std::uint32_t met)
{
    switch (fault->when) {
    case SIM_NTH:
        return met == fault->number;
    case SIM_PERCENT:
        // Spread by a multiplicative hash, so that each run has the same ones.
        return ((fault->id * 2654435761u ^ met) * 2246822519u >> 16) % 100 < fault->number;
    default:
        return true;
    }
}

static void sim_add_trouble(const sim_fault *fault, sim_trouble *trouble)
{
    switch (fault->effect) {
    case SIM_FAIL:
        trouble->code = static_cast<std::uint32_t>(fault->value);
        break;
    case SIM_DELAY:
        trouble->delay_ms += static_cast<std::uint32_t>(fault->value);
        break;
    case SIM_SIZE:
        trouble->size += fault->value;
        break;
    case SIM_LINE:
        trouble->line += fault->value;
        break;
    case SIM_VANISH:
        trouble->vanish = true;
        break;
    case SIM_VANISH_AFTER:
        trouble->vanish_after = true;
        break;
    case SIM_DOUBLE:
        trouble->twice = true;
        break;
    default:
        trouble->late_ms += static_cast<std::uint32_t>(fault->value);
    }
}

sim_trouble sim_meet_faults(sim_operation operation, std::uint32_t post)
{
    sim_trouble trouble = {};
    if (sim_setting.faults == 0)
        return trouble;
    for (std::size_t i = 0; i < sim_fault_count_in_force; i++) {
        const sim_fault *fault = &sim_faults[i];
        if (fault->operation != operation || (fault->post != SIM_ANY_POST && fault->post != post))
            continue;
        sim_begin();
        sim->fault[i].met++;
        if (sim_happens(fault, sim->fault[i].met)) {
            sim->fault[i].happened++;
            sim_add_trouble(fault, &trouble);
        }
        sim_end();
    }
    return trouble;
}

void sim_sleep(std::uint32_t ms)
{
    timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1000000)};
    while (nanosleep(&left, &left) != 0 && errno == EINTR)
        continue;
}
