// The small text files of the state folder, as the library reads them; room on the disk for its
// other ones; and how its calls fail.
#pragma once

#include "sim_state.h"

#include <cstdio>
#include <cstring>

// Errors of the simulator's own.
constexpr std::uint32_t SIM_ERROR_ORDER = 0x81E00001;    // a call out of its order
constexpr std::uint32_t SIM_ERROR_ARGUMENT = 0x81E00002; // an argument out of range
constexpr std::uint32_t SIM_ERROR_BUSY = 0x81E03201;     // the post has an open OSD of this number
constexpr std::uint32_t SIM_ERROR_SYSTEM = 0x81E00003;   // the state folder; said on stderr

// Sets errno to a code and returns -1.
int sim_fail(std::uint32_t code);

// Says "qm5sim: what: why" on stderr.
void sim_say(const char *what, const char *why);

// The same with the system's reason, and fails with SIM_ERROR_SYSTEM.
int sim_fail_system(const char *what);

// Takes a part of the disk for a file now, for a full one would later end the process that writes
// to its map. False with errno.
bool sim_allocate(int fd, std::uint64_t at, std::uint64_t size);

// Reads a small file of the folder, fewer than `size` - 1 bytes and a terminator; 0 bytes for no
// file. NULL, or why it can't be read, until the next call of anything; then the text is empty.
const char *sim_read_text(const char *path, char *text, std::size_t size, std::size_t *length);

// Room for the longest text, and for noticing a longer one.
constexpr std::size_t SIM_TEXT = SIM_LONGEST_TEXT + 2;

// Calls `parse` for each line that is no comment and not empty; false, said on stderr, at the first
// one that it refuses.
template <typename Parse>
bool sim_parse_lines(const char *path, const char *text, Parse parse)
{
    std::size_t number = 0;
    while (*text != '\0') {
        char line[SIM_FAULT_LINE];
        const std::size_t length = strcspn(text, "\n");
        number++;
        snprintf(line, sizeof line, "%.*s", static_cast<int>(length), text);
        const char *why = length >= sizeof line ? "line is too long" : nullptr;
        if (!why && line[strspn(line, " \t")] != '\0' && line[0] != ';')
            why = parse(line);
        if (why) {
            fprintf(stderr, "qm5sim: %s:%zu: %s\n", path, number, why);
            return false;
        }
        text += length + (text[length] == '\n');
    }
    return true;
}

// Takes the settings that a text says, or that the file of a folder says. What can't be understood
// is told on stderr, and leaves them alone; then the first one is false.
bool sim_take_settings(const char *path, const char *text, sim_settings *settings);
void sim_read_settings(const char *folder, sim_settings *settings);
