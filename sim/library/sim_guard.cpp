// OSD memory as the application gets it, and who touches it where or when nobody may: that ends the
// process by a signal, and before it the breach is told.
#include "sim_library.h"
#include "sim_record.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

// ---- Mappings -----------------------------------------------------------------------------------

// What OSD memory holds before it is first drawn: nothing that looks like a picture.
constexpr int SIM_FRESH_BYTE = 0xA5;

// What stands around it, up to the pages that nobody may touch.
constexpr std::uint8_t SIM_MARGIN_BYTE = 0x5C;

// A memory that has come to its end, which keeps its addresses until the next one of the same OSD
// has come to its own: whoever still touches it is found out.
struct sim_ended {
    sim_guarded memory;
    std::uint32_t handle;
    sim_operation by; // what has ended it
};
static sim_ended sim_ended_memories[SIM_POSTS][SIM_OSDS];

static std::size_t sim_page()
{
    static const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return page;
}

static std::size_t sim_round_up(std::size_t size, std::size_t unit)
{
    return (size + unit - 1) / unit * unit;
}

// The pages for so many bytes; an OSD of no lines has one all the same.
static std::size_t sim_pages_of(std::size_t size)
{
    return sim_round_up(size != 0 ? size : 1, sim_page());
}

// The first byte behind the first of its two guards.
static std::uint8_t *sim_first_byte(const sim_guarded *memory)
{
    return memory->draw + sim_round_up(memory->size, 4) - sim_pages_of(memory->size);
}

static std::size_t sim_mapped_size(std::size_t size)
{
    return sim_pages_of(size) + 2 * sim_page();
}

void sim_unmap_guarded(const sim_guarded *memory)
{
    if (memory->draw)
        munmap(sim_first_byte(memory) - sim_page(), sim_mapped_size(memory->size));
}

bool sim_map_guarded(std::size_t size, sim_guarded *memory)
{
    const std::size_t pages = sim_pages_of(size);
    void *map = mmap(nullptr, sim_mapped_size(size), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED)
        return false;
    auto *first = static_cast<std::uint8_t *>(map) + sim_page();
    *memory = {first + pages - sim_round_up(size, 4), size};
    if (mprotect(first, pages, PROT_READ | PROT_WRITE) != 0) {
        sim_unmap_guarded(memory);
        return false;
    }
    memset(first, SIM_MARGIN_BYTE, pages);
    memset(memory->draw, SIM_FRESH_BYTE, size);
    return true;
}

void sim_end_guarded(std::uint32_t post, std::uint32_t number, const sim_memory *memory,
                     sim_operation by)
{
    sim_ended *ended = &sim_ended_memories[post][number];
    sim_unmap_guarded(&ended->memory);
    *ended = {memory->guarded, memory->handle, by};
    // New pages in the place of the old ones, of which none is ever made.
    if (mmap(sim_first_byte(&memory->guarded), sim_pages_of(memory->guarded.size), PROT_NONE,
             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0) == MAP_FAILED) {
        sim_unmap_guarded(&memory->guarded);
        *ended = {};
    }
}

void sim_check_margins(sim_operation operation, const sim_memory *memory)
{
    const sim_guarded *guarded = &memory->guarded;
    std::uint8_t *first = sim_first_byte(guarded);
    const auto before = static_cast<std::size_t>(guarded->draw - first);
    if (!sim_is_all(first, SIM_MARGIN_BYTE, before)) {
        memset(first, SIM_MARGIN_BYTE, before);
        sim_breach(operation, "handle 0x%08X: bytes before its memory have been written",
                   memory->handle);
    }
    for (std::size_t i = guarded->size; i < sim_round_up(guarded->size, 4); i++) {
        if (guarded->draw[i] == SIM_MARGIN_BYTE)
            continue;
        guarded->draw[i] = SIM_MARGIN_BYTE;
        sim_breach(operation, "handle 0x%08X: byte %zu behind its memory has been written",
                   memory->handle, i - guarded->size);
    }
}

// ---- Touches ------------------------------------------------------------------------------------

// A line that is put together in a signal handler, which may not call printf.
struct sim_line {
    char text[256];
    std::size_t length;
};

static void sim_put(sim_line *line, const char *text)
{
    for (; *text != '\0' && line->length < sizeof line->text; text++)
        line->text[line->length++] = *text;
}

static void sim_put_number(sim_line *line, std::size_t number, std::size_t base,
                           std::size_t digits = 1)
{
    char text[24] = {};
    std::size_t at = sizeof text - 1;
    for (; number != 0 || digits != 0; number /= base, digits -= digits != 0)
        text[--at] = "0123456789ABCDEF"[number % base];
    sim_put(line, text + at);
}

static void sim_put_osd(sim_line *line, sim_operation operation, std::uint32_t post,
                        std::uint32_t number, std::uint32_t handle)
{
    sim_put(line, "qm5sim: breach: ");
    sim_put(line, sim_operation_names[operation]);
    sim_put(line, ": post ");
    sim_put_number(line, post, 10);
    sim_put(line, ", OSD ");
    sim_put_number(line, number, 10);
    sim_put(line, ", handle 0x");
    sim_put_number(line, handle, 16, 8);
}

static bool sim_is_within(const sim_guarded *memory, const std::uint8_t *address)
{
    if (!memory->draw)
        return false;
    const std::uint8_t *map = sim_first_byte(memory) - sim_page();
    return address >= map && address < map + sim_mapped_size(memory->size);
}

// The breach that a touch of an address is; false if it is nobody's here.
static bool sim_put_touch(sim_line *line, std::uint32_t post, std::uint32_t number,
                          const std::uint8_t *address)
{
    const sim_memory *memory = sim_get_memory(post, number);
    const std::uint8_t *draw = memory->guarded.draw;
    if (memory->handle != 0 && sim_is_within(&memory->guarded, address)) {
        const bool behind = address >= draw;
        const std::ptrdiff_t far =
            behind ? address - draw - static_cast<std::ptrdiff_t>(memory->guarded.size)
                   : draw - address;
        sim_put_osd(line, SIM_GET_OSD_MEM, post, number, memory->handle);
        sim_put(line, ": byte ");
        sim_put_number(line, static_cast<std::size_t>(far), 10);
        sim_put(line, behind ? " behind its memory has been touched\n"
                             : " before its memory has been touched\n");
        return true;
    }
    const sim_ended *ended = &sim_ended_memories[post][number];
    if (!sim_is_within(&ended->memory, address))
        return false;
    sim_put_osd(line, ended->by, post, number, ended->handle);
    sim_put(line, ": its memory has been touched after its end\n");
    return true;
}

static bool sim_is_mapped_at(const void *map, std::size_t size, const std::uint8_t *address)
{
    const auto *first = static_cast<const std::uint8_t *>(map);
    return map && address >= first && address < first + sim_pages_of(size);
}

// Tells which file of the folder has been cut off below its mapping, if it is one of those; once,
// for the other thread may meet it at the same moment.
static void sim_tell_cut(const std::uint8_t *address)
{
    static bool is_told;
    sim_line line = {};
    sim_put(&line, "qm5sim: ");
    const std::size_t head = line.length;
    if (sim_is_mapped_at(sim, sizeof *sim, address))
        sim_put(&line, "state");
    else if (sim_has_recorded_at(address))
        sim_put(&line, "calls");
    for (std::uint32_t i = 0; i < SIM_POSTS * SIM_OSDS; i++) {
        const sim_memory *memory = sim_get_memory(i / SIM_OSDS, i % SIM_OSDS);
        if (!sim_is_mapped_at(memory->shown, memory->guarded.size, address))
            continue;
        sim_put(&line, "post");
        sim_put_number(&line, i / SIM_OSDS, 10);
        sim_put(&line, "-osd");
        sim_put_number(&line, i % SIM_OSDS, 10);
    }
    if (line.length == head)
        return;
    if (__atomic_exchange_n(&is_told, true, __ATOMIC_RELAXED)) {
        sim_sleep(100); // the other thread is telling it, and the process must not end before
        return;
    }
    sim_put(&line, ": somebody has cut off the file, and the server ends\n");
    sim_tell_line(line.text, line.length);
}

static char sim_breaches[SIM_PATH_SIZE]; // the file, for a handler can't put its path together
static struct sigaction sim_before[2];   // of SIGSEGV and SIGBUS
static constexpr int sim_signals[2] = {SIGSEGV, SIGBUS};

// Leaves a signal that isn't about OSD memory to whoever had it before.
static void sim_pass_on(int signal, siginfo_t *info, void *context)
{
    const struct sigaction *before = &sim_before[signal == SIGBUS];
    if ((before->sa_flags & SA_SIGINFO) != 0) {
        before->sa_sigaction(signal, info, context);
    } else if (before->sa_handler == SIG_DFL || before->sa_handler == SIG_IGN) {
        sigaction(signal, before, nullptr); // a fault comes again, and ends the process
        if (info->si_code <= 0)
            raise(signal); // it was sent
    } else {
        before->sa_handler(signal);
    }
}

static void sim_meet_signal(int signal, siginfo_t *info, void *context)
{
    const int error = errno;
    const auto *address = static_cast<const std::uint8_t *>(info->si_addr);
    sim_line line = {};
    for (std::uint32_t post = 0; post < SIM_POSTS && info->si_code > 0; post++) {
        for (std::uint32_t number = 0; number < SIM_OSDS && line.length == 0; number++)
            sim_put_touch(&line, post, number, address);
    }
    if (line.length == 0) {
        if (signal == SIGBUS && info->si_code > 0)
            sim_tell_cut(address);
        sim_pass_on(signal, info, context);
    } else {
        sim_tell_breach(line.text, line.length);
        sim_keep_breach(sim_breaches, line.text, line.length);
        struct sigaction end = {};
        end.sa_handler = SIG_DFL;
        sigaction(signal, &end, nullptr); // the touch comes again, and ends the process
    }
    errno = error;
}

void sim_watch_touches()
{
    sim_get_path(sim_breaches, "breaches");
    struct sigaction action = {};
    action.sa_sigaction = sim_meet_signal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (std::size_t i = 0; i < 2; i++)
        sigaction(sim_signals[i], &action, &sim_before[i]);
}

// A handler that somebody has put in the place of this one stays.
static void sim_give_signals_back()
{
    for (std::size_t i = 0; i < 2; i++) {
        struct sigaction now = {};
        sigaction(sim_signals[i], nullptr, &now);
        if ((now.sa_flags & SA_SIGINFO) != 0 && now.sa_sigaction == sim_meet_signal)
            sigaction(sim_signals[i], &sim_before[i], nullptr);
    }
}

void sim_end_watch()
{
    sim_give_signals_back();
    for (auto &post : sim_ended_memories) {
        for (sim_ended &ended : post) {
            sim_unmap_guarded(&ended.memory);
            ended = {};
        }
    }
}
