// Feeds a fuzzer a fixed series of pseudo-random inputs.
//
//   fuzz_NAME COUNT [SEED]
//
// An input is a mixture of the fuzzer's words, of special bytes and of any bytes. The same numbers
// give the same inputs on every machine. What the code under test prints is dropped; a fault is
// told with the number of its input, by which COUNT can be cut down to it. It all happens in a
// private temporary folder.
#include "fuzz.h"

#include "support/sandbox.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <unistd.h>

// A sanitizer's fault is a signal like any other.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options()
{
    return "abort_on_error=1";
}
extern "C" const char *__ubsan_default_options();
extern "C" const char *__ubsan_default_options()
{
    return "abort_on_error=1";
}

namespace
{

typedef std::mt19937 Random;

volatile long number; // of the present input

// Tells the number of the input at fault; the code under test may have been within a stream.
void tell_number()
{
    char text[64];
    const int length = std::snprintf(text, sizeof text, "fault in input %ld\n", number);
    if (write(STDERR_FILENO, text, static_cast<std::size_t>(length)) != length)
        _exit(3);
}

void end_by_signal(int signal)
{
    tell_number();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

// The streams of the C library alone: sanitizers write to the descriptor.
void drop_output()
{
    stdout = std::fopen("/dev/null", "w");
    stderr = std::fopen("/dev/null", "w");
    if (!stdout || !stderr)
        std::abort();
}

// A number below `limit`; the standard's distributions differ from library to library.
std::uint32_t below(Random &random, std::size_t limit)
{
    return static_cast<std::uint32_t>(random() % limit);
}

void add_piece(std::string &input, Random &random, std::size_t words)
{
    static constexpr char special[] = "[]=;\n\n\n\0 -:0123456789\xFF\t\r";
    switch (below(random, 4)) {
    case 0:
        input += static_cast<char>(below(random, 256));
        break;
    case 1:
    case 2:
        if (words != 0)
            input += fuzz_words[below(random, words)];
        break;
    default:
        input += special[below(random, sizeof special)];
    }
}

std::string make_input(Random &random)
{
    std::size_t words = 0;
    while (fuzz_words[words])
        words++;
    std::string input;
    const std::uint32_t pieces = below(random, below(random, 50) == 0 ? 4000 : 60);
    for (std::uint32_t i = 0; i < pieces; i++)
        add_piece(input, random, words);
    return input;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "%s: usage: %s COUNT [SEED]\n", argv[0], argv[0]);
        return 2;
    }
    const long count = std::atol(argv[1]);
    Random random(argc == 3 ? static_cast<std::uint32_t>(std::atol(argv[2])) : 1);
    for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE})
        std::signal(signal, end_by_signal);
    support::enter_sandbox();
    drop_output();
    for (long i = 1; i <= count; i++) {
        number = i;
        const std::string input = make_input(random);
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(input.data()), input.size());
    }
    return 0;
}
