// Reading faults. No word of a line is passed over: a fault that is misspelt must not be no fault.
#include "display/qm5codec.h"
#include "sim_state.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

const char *const sim_operation_names[SIM_OPERATIONS] = {
    "library_init", "open_device",  "notify_callback", "set_notify",  "thread_get_status",
    "open_osd",     "close_osd",    "clear_osd",       "get_osd_mem", "set_osd",
    "close_device", "library_exit", "notify",
};

// What an effect is called, how many words of its own follow, and which operations know it.
struct sim_effect_row {
    const char *name;
    std::size_t words;
    std::uint32_t operations; // a bit each
};

static constexpr std::uint32_t SIM_CALLS = (1u << SIM_NOTIFY) - 1;
static constexpr std::uint32_t SIM_POST_CALLS = 1u << SIM_THREAD_GET_STATUS | 1u << SIM_OPEN_OSD |
                                                1u << SIM_CLOSE_OSD | 1u << SIM_CLEAR_OSD |
                                                1u << SIM_GET_OSD_MEM | 1u << SIM_SET_OSD;

static constexpr sim_effect_row sim_effects[SIM_EFFECTS] = {
    {"fail", 1, SIM_CALLS},
    {"delay", 1, SIM_CALLS},
    {"size", 1, 1u << SIM_GET_OSD_MEM},
    {"line", 1, 1u << SIM_OPEN_OSD},
    {"vanish", 0, SIM_POST_CALLS},
    {"vanish-after", 0, SIM_POST_CALLS},
    {"change", 2, SIM_POST_CALLS},
    {"change-after", 2, SIM_POST_CALLS},
    {"double", 0, 1u << SIM_NOTIFY},
    {"late", 1, 1u << SIM_NOTIFY},
};

static constexpr struct {
    const char *name;
    std::uint32_t code;
} sim_codes[] = {
    {"gone1", QM5_CL_ERROR_GONE_1},
    {"gone2", QM5_CL_ERROR_GONE_2},
    {"gone3", QM5_CL_ERROR_GONE_3},
    {"refused", QM5_CL_ERROR_OPEN_REFUSED},
};

// A whole word as a number within the bounds; false if it is none.
static bool sim_parse_number(const char *word, long long least, long long most, long long *number)
{
    char *end = nullptr;
    errno = 0;
    const long long value = strtoll(word, &end, 0);
    if (end == word || *end != '\0' || errno != 0 || value < least || value > most)
        return false;
    *number = value;
    return true;
}

static bool sim_parse_operation(const char *word, sim_fault *fault)
{
    for (std::uint32_t i = 0; i < SIM_OPERATIONS; i++) {
        if (strcmp(word, sim_operation_names[i]) == 0) {
            fault->operation = i;
            return true;
        }
    }
    return false;
}

static bool sim_parse_when(char *word, sim_fault *fault)
{
    const std::size_t length = strlen(word);
    long long number = 1;
    fault->when = SIM_NTH;
    if (strcmp(word, "every") == 0) {
        fault->when = SIM_EVERY;
    } else if (length > 1 && word[length - 1] == '%') {
        word[length - 1] = '\0';
        fault->when = SIM_PERCENT;
        if (!sim_parse_number(word, 1, 100, &number))
            return false;
    } else if (strcmp(word, "next") != 0 && !sim_parse_number(word, 1, 1000000000, &number)) {
        return false;
    }
    fault->number = static_cast<std::uint32_t>(number);
    return true;
}

static bool sim_parse_effect(const char *word, sim_fault *fault)
{
    for (std::uint32_t i = 0; i < SIM_EFFECTS; i++) {
        if (strcmp(word, sim_effects[i].name) == 0) {
            fault->effect = i;
            return true;
        }
    }
    return false;
}

static bool sim_parse_post(const char *word, std::uint32_t *post)
{
    long long number = 0;
    if (!sim_parse_number(word, 0, SIM_POSTS - 1, &number))
        return false;
    *post = static_cast<std::uint32_t>(number);
    return true;
}

// Reads the words that an effect has.
static bool sim_parse_value(char *const *words, sim_fault *fault)
{
    const char *word = words[0];
    long long number = 0;
    if (fault->effect == SIM_CHANGE || fault->effect == SIM_CHANGE_AFTER)
        return sim_parse_post(word, &fault->changed) &&
               sim_parse_size(words[1], &fault->width, &fault->height);
    if (fault->effect == SIM_FAIL) {
        for (const auto &code : sim_codes) {
            if (strcmp(word, code.name) == 0) {
                fault->value = static_cast<std::int32_t>(code.code);
                return true;
            }
        }
        if (!sim_parse_number(word, 1, 0xFFFFFFFF, &number))
            return false;
    } else if (fault->effect == SIM_DELAY || fault->effect == SIM_LATE) {
        if (!sim_parse_number(word, 0, 600000, &number))
            return false;
    } else if (!sim_parse_number(word, -1000000, 1000000, &number)) {
        return false;
    }
    fault->value = static_cast<std::int32_t>(number);
    return true;
}

static bool sim_has_post(std::uint32_t operation)
{
    return operation == SIM_NOTIFY || (SIM_POST_CALLS >> operation & 1) != 0;
}

const char *sim_parse_fault(const char *line, sim_fault *fault)
{
    char copy[SIM_FAULT_LINE];
    char *words[9] = {}; // one more than any fault has
    std::size_t count = 0;
    if (strlen(line) >= sizeof copy)
        return "line is too long";
    strcpy(copy, line);
    char *rest = nullptr;
    for (char *word = strtok_r(copy, " \t\n", &rest); word && count < 9;
         word = strtok_r(nullptr, " \t\n", &rest))
        words[count++] = word;

    *fault = {};
    fault->post = SIM_ANY_POST;
    long long number = 0;
    if (count < 4)
        return "not ID OPERATION WHEN EFFECT";
    if (!sim_parse_number(words[0], 1, 1000000000, &number))
        return "bad ID";
    fault->id = static_cast<std::uint32_t>(number);
    if (!sim_parse_operation(words[1], fault))
        return "unknown operation";
    if (!sim_parse_when(words[2], fault))
        return "bad WHEN";
    if (!sim_parse_effect(words[3], fault))
        return "unknown effect";
    if ((sim_effects[fault->effect].operations >> fault->operation & 1) == 0)
        return "the operation has no such effect";

    const std::size_t used = 4 + sim_effects[fault->effect].words;
    if (used > 4 && (count < used || !sim_parse_value(words + 4, fault)))
        return "bad value of the effect";
    if (count == used)
        return nullptr;
    if (count != used + 2 || strcmp(words[used], "post") != 0 ||
        !sim_parse_post(words[used + 1], &fault->post))
        return "bad words behind the effect";
    return sim_has_post(fault->operation) ? nullptr : "the operation is no post's";
}

bool sim_parse_loaded(const char *line, std::int64_t *number)
{
    char word[32];
    long long read = 0;
    int end = 0;
    if (sscanf(line, "loaded %31s %n", word, &end) != 1 || line[end] != '\0' ||
        !sim_parse_number(word, 0, INT64_MAX, &read))
        return false;
    *number = read;
    return true;
}

const char *sim_add_fault(const char *line, sim_fault_list *list)
{
    if (sim_parse_loaded(line, &list->loaded))
        return nullptr;
    if (list->count == SIM_FAULTS)
        return "too many faults";
    sim_fault *fault = &list->fault[list->count];
    const char *why = sim_parse_fault(line, fault);
    for (std::size_t i = 0; i < list->count && !why; i++) {
        if (list->fault[i].id == fault->id)
            why = "the ID is there already";
    }
    list->count++;
    return why;
}
