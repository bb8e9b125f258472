// Composing a string into a target: the time and a full user string, at four font sizes and in the
// three pixel formats. Arguments: font size, bits per pixel.
#include "text/font.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{

constexpr const char *TIME = " 12:34:56 ";
constexpr const char *STRING = " qm5osd user string!! ";

void compose(benchmark::State &state, const char *text)
{
    const auto size = static_cast<std::uint32_t>(state.range(0));
    const auto bits = static_cast<std::uint32_t>(state.range(1));
    font_engine engine;
    if (font_init_engine(&engine, QM5OSD_FONT, size) != 0)
        std::abort();

    const auto cells = static_cast<std::uint32_t>(std::strlen(text));
    const std::uint32_t line =
        (cells * static_cast<std::uint32_t>(engine.maxAdvance) * bits + 127) / 128 * 16;
    const std::uint32_t bytes = line * size;
    std::vector<std::uint32_t> target(bytes / 4);
    for (auto _ : state) {
        std::memset(target.data(), 0, bytes);
        const int result = font_get_target_bitmap(&engine, text, 3, 1, line * 8 / bits,
                                                  (1u << bits) - 1, bytes, target.data());
        if (result != 0)
            std::abort();
        benchmark::ClobberMemory();
    }
    state.counters["bytes"] = bytes;
    font_clear_engine(&engine);
}

void time_string(benchmark::State &state)
{
    compose(state, TIME);
}

void user_string(benchmark::State &state)
{
    compose(state, STRING);
}

void sizes_and_formats(benchmark::internal::Benchmark *benchmark)
{
    benchmark->ArgNames({"size", "bits"})->ArgsProduct({{13, 28, 50, 75}, {2, 4, 8}});
}

BENCHMARK(time_string)->Apply(sizes_and_formats);
BENCHMARK(user_string)->Apply(sizes_and_formats);

} // namespace
