// How much memory of its own the server has after an hour with all texts on four open posts: what
// it and FreeType have allocated, and how deep its stack has been, while it reads a parameter file,
// while FreeType draws letters, and in the passes after. As any server's, the hour begins with the
// opening of the posts and then an update, that of `start`. It is simulated: a pass for each of its
// seconds. The memory of the pictures is the codec library's.
//
// Static data comes on top: sections of the executable and of the libraries.
#include "cli/options.h"
#include "server/callback.h"
#include "server/channel.h"
#include "server/main_loop.h"
#include "support/open_posts.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <unistd.h>

// ---- Allocations --------------------------------------------------------------------------------

namespace
{

enum Owner { APPLICATION, LIBC, FREETYPE, CODEC, OWNERS };

struct Heap {
    std::size_t blocks, bytes, most;
};
Heap heap[OWNERS];

// Stands before each block, as large as the strictest alignment.
struct alignas(std::max_align_t) Head {
    std::size_t size;
    Owner owner;
};

// Whose code called: the program's, libc's, or else FreeType's, which has brought what else
// there is.
Owner owner_of(const void *caller)
{
    static const void *own_base = [] {
        Dl_info own{};
        dladdr(reinterpret_cast<const void *>(&owner_of), &own);
        return own.dli_fbase;
    }();
    Dl_info info{};
    if (dladdr(caller, &info) == 0 || info.dli_fbase == own_base)
        return APPLICATION;
    return std::strstr(info.dli_fname, "/libc.so") ? LIBC : FREETYPE;
}

void *take(std::size_t size, Owner owner);
void give_back(void *block);

} // namespace

extern "C" {

void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void __libc_free(void *block);

void *malloc(std::size_t size)
{
    return take(size, owner_of(__builtin_return_address(0)));
}

void *calloc(std::size_t count, std::size_t size)
{
    void *block = take(count * size, owner_of(__builtin_return_address(0)));
    return block ? std::memset(block, 0, count * size) : nullptr;
}

void *realloc(void *block, std::size_t size)
{
    // The application itself calls calloc alone; this is the codec library linked here.
    const Owner owner = owner_of(__builtin_return_address(0));
    void *moved = take(size, owner == APPLICATION ? CODEC : owner);
    if (moved && block) {
        const Head *head = static_cast<Head *>(block) - 1;
        std::memcpy(moved, block, std::min(size, head->size));
        give_back(block);
    }
    return moved;
}

void free(void *block)
{
    if (block)
        give_back(block);
}

} // extern "C"

namespace
{

void *take(std::size_t size, Owner owner)
{
    auto *head = static_cast<Head *>(__libc_malloc(sizeof(Head) + size));
    if (!head)
        return nullptr;
    *head = {size, owner};
    heap[owner].blocks++;
    heap[owner].bytes += size;
    heap[owner].most = std::max(heap[owner].most, heap[owner].bytes);
    return head + 1;
}

void give_back(void *block)
{
    Head *head = static_cast<Head *>(block) - 1;
    heap[head->owner].blocks--;
    heap[head->owner].bytes -= head->size;
    __libc_free(head);
}

// ---- Stack --------------------------------------------------------------------------------------

constexpr std::size_t DEPTH = 256 * 1024;
constexpr std::uint8_t UNTOUCHED = 0xA5;
std::uintptr_t lowest; // address of the painted bytes

// Paints the stack below the caller. What runs later at the same depth leaves its traces there.
[[gnu::noinline]] void paint_stack()
{
    volatile std::uint8_t bytes[DEPTH];
    for (volatile std::uint8_t &byte : bytes)
        byte = UNTOUCHED;
    lowest = reinterpret_cast<std::uintptr_t>(bytes);
}

std::size_t deepest_stack()
{
    const auto *bytes = reinterpret_cast<const volatile std::uint8_t *>(lowest);
    std::size_t untouched = 0;
    while (untouched < DEPTH && bytes[untouched] == UNTOUCHED)
        untouched++;
    return DEPTH - untouched;
}

// ---- The hour -----------------------------------------------------------------------------------

void set_clock(int seconds)
{
    char digits[sizeof(cmn_st_cdatetime) + 1];
    std::snprintf(digits, sizeof digits, "2026030412%02d%02d00", seconds / 60 % 60, seconds % 60);
    std::memcpy(&osd_state.cdatetime, digits, sizeof(cmn_st_cdatetime));
}

[[gnu::noinline]] void pass(int second, int request_fd)
{
    if (osd_get_current_datetime() != 0)
        std::abort();
    set_clock(second);
    if (osd_visit_posts() != OSD_POSTS || osd_do_request(request_fd) != OSD_REQUEST_NONE)
        std::abort();
}

void set(param_section *section, const std::string &key, const char *value)
{
    const param_parampair pair = support::make_pair(key.c_str(), value);
    if (param_section_search_set_parampair(section, &pair) != 0)
        std::abort();
}

// What the client writes for the update of a `start`: all parameters, with a font, and all texts of
// all posts.
void write_parameters()
{
    param_section *section = osd_get_default_section();
    set(section, "OsdFontFile", QM5OSD_FONT);
    for (const std::string post : {"Post0", "Post1", "Post2", "Post3"}) {
        for (const char *text : {"DateOn", "TimeOn", "TypeOn", "StringOn"})
            set(section, post + text, "1");
        set(section, post + "String", "qm5osd user string!!");
    }
    if (param_section_write_file(section, OSD_TMP_PARAM) != 0)
        std::abort();
    param_section_free(section);
}

// The options of the `start` that has forked the server stay in its memory.
void take_options()
{
    static char start[] = "start", option[] = "-f", file[] = "saved.conf";
    static char *words[] = {start, option, file, nullptr};
    static osd_options options;
    if (osd_get_start_option(3, words, &options) != 0)
        std::abort();
}

[[gnu::noinline]] void update(int request_fd, int client_fd)
{
    const std::uint32_t word = osd_update_word((1 << OSD_POSTS) - 1);
    if (write(client_fd, &word, sizeof word) != sizeof word ||
        osd_do_request(request_fd) != OSD_REQUEST_OWED)
        std::abort();
}

// What each owner has taken since, now and at the most.
void print_since(const Heap (&before)[OWNERS])
{
    const char *names[OWNERS] = {"the application's heap", "libc's", "FreeType's",
                                 "(the pictures')"};
    for (int owner = 0; owner < OWNERS; owner++)
        std::printf("%-22s %6zu bytes in %3zu blocks, at the most %6zu bytes\n", names[owner],
                    heap[owner].bytes - before[owner].bytes,
                    heap[owner].blocks - before[owner].blocks,
                    heap[owner].most - before[owner].bytes);
}

} // namespace

int main()
{
    int request[2];
    static char lines[BUFSIZ]; // else libc would take them from its heap
    setvbuf(stdout, lines, _IOFBF, sizeof lines);
    setenv("TZ", "UTC0", 1);
    if (access(OSD_TMP_PARAM, F_OK) == 0) {
        std::fprintf(stderr, "memory: %s: it is a server's\n", OSD_TMP_PARAM);
        return 1;
    }
    if (pipe2(request, O_NONBLOCK) != 0)
        return 1;
    write_parameters();

    Heap before[OWNERS];
    std::copy_n(heap, OWNERS, before);
    for (Heap &own : heap)
        own.most = own.bytes;
    take_options();
    support::open_posts(OSD_POSTS, {support::make_pair("OsdFontFile", QM5OSD_FONT)});
    int second = 0;
    while (second < 2) // the first opens the storage's post alone
        pass(second++, request[0]);
    paint_stack();
    update(request[0], request[1]);
    const std::size_t stack_of_update = deepest_stack();
    unlink(OSD_TMP_PARAM);

    paint_stack();
    while (second < 4) // the second of them draws the first time that is shown
        pass(second++, request[0]);
    const std::size_t stack_with_letters = deepest_stack();

    paint_stack();
    while (second < 3600)
        pass(second++, request[0]);
    const std::size_t stack = deepest_stack();

    std::printf("after an hour with all texts on four posts\n");
    print_since(before);
    std::printf("the stack              %6zu bytes at the most, %6zu while a file is read, %6zu "
                "while letters are drawn\n",
                stack, stack_of_update, stack_with_letters);
    return 0;
}
