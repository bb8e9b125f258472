// What the simulated codec costs: each call of a drawing by itself, for OSDs of several sizes,
// without and with a record of the calls; and a picture.
#include "display/qm5codec.h"
#include "sim_reader.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

std::uint32_t res_id;
volatile bool announced;

void keep_post(qm5_cl_post_notify_info info)
{
    if (info.post == 0)
        res_id = info.res_id;
    announced = announced || info.post == 3;
}

void must(int result)
{
    if (result != 0)
        throw std::runtime_error("the codec library has failed");
}

// The library, up, with an OSD, in a folder that goes with it.
class Codec
{
public:
    Codec(const qm5_cl_osd_param &param, bool record)
    {
        fs::create_directory(folder_);
        std::ofstream(folder_ / "settings") << "record " << record << '\n';
        setenv("QM5SIM_STATE", folder_.c_str(), 1);
        announced = false;
        must(qm5_cl_library_init());
        must(qm5_cl_sys_open_device());
        must(qm5_cl_post_notify_callback(keep_post));
        must(qm5_cl_post_set_notify(15));
        while (!announced)
            std::this_thread::yield();
        std::uint32_t aux = 0;
        std::uint32_t line_bytes = 0;
        must(qm5_cl_post_open_osd(res_id, &param, &handle_, &aux, &line_bytes));
    }
    ~Codec()
    {
        qm5_cl_post_close_osd(res_id, handle_);
        qm5_cl_sys_close_device();
        qm5_cl_library_exit();
        fs::remove_all(folder_);
    }
    Codec(const Codec &) = delete;
    Codec &operator=(const Codec &) = delete;

    void get_status() const
    {
        qm5_cl_post_status status{};
        must(qm5_cl_post_thread_get_status(res_id, &status));
    }

    void get_memory()
    {
        mem_ = {};
        must(qm5_cl_post_get_osd_mem(res_id, handle_, &mem_));
    }

    // As a new second changes a time: other pixels, and not all of them.
    void draw()
    {
        std::memset(mem_.memory, ++byte_, mem_.size / 4);
    }

    void set() const
    {
        must(qm5_cl_post_set_osd(res_id, handle_, {0, 0}));
    }

    void clear() const
    {
        must(qm5_cl_post_clear_osd(res_id, handle_));
    }

private:
    fs::path folder_ = fs::temp_directory_path() / ("codec-bench-" + std::to_string(getpid()));
    std::uint32_t handle_ = 0;
    qm5_cl_osd_mem mem_{};
    std::uint8_t byte_ = 0;
};

enum Call { STATUS, GET, SET, CLEAR, CALLS };
constexpr const char *CALL_NAMES[] = {"thread_get_status", "get_osd_mem", "set_osd", "clear_osd"};
static_assert(std::size(CALL_NAMES) == CALLS);

struct Size {
    const char *name;
    qm5_cl_osd_param param;
};
constexpr Size SIZES[] = {
    {"time at 720", {3, 10 * 17, 28, 0}},
    {"string at 720", {0, 22 * 14, 28, 2}},
    {"time at 1920", {3, 10 * 46, 75, 0}},
    {"string at 1920", {0, 22 * 37, 75, 2}},
};

// Draws again and again, and takes the time of one of the calls.
void measure(benchmark::State &state, Call timed, const Size &size, bool record)
{
    Codec codec(size.param, record);
    for (auto _ : state) {
        for (const Call call : {STATUS, GET, SET, CLEAR}) {
            if (call == SET)
                codec.draw();
            const auto begin = std::chrono::steady_clock::now();
            switch (call) {
            case STATUS:
                codec.get_status();
                break;
            case GET:
                codec.get_memory();
                break;
            case SET:
                codec.set();
                break;
            default:
                codec.clear();
            }
            const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
            if (call == timed)
                state.SetIterationTime(taken.count());
        }
    }
}

void add_measurements()
{
    for (const bool record : {false, true}) {
        for (const Size &size : SIZES) {
            for (const Call call : {STATUS, GET, SET, CLEAR}) {
                const std::string name =
                    std::string(CALL_NAMES[call]) + '/' + size.name + (record ? "/recorded" : "");
                benchmark::RegisterBenchmark(
                    name.c_str(),
                    [=](benchmark::State &state) { measure(state, call, size, record); })
                    ->UseManualTime()
                    ->Iterations(3000);
            }
        }
    }
}

// A picture of 1920 by 1080 pixels with four OSDs as large, from the pixels to the PNG file.
void snapshot(benchmark::State &state)
{
    sim_reader::Post post{1, 1920, 1080, {}};
    for (sim_reader::Osd &osd : post.osd) {
        osd.record.color_type = 2;
        osd.record.line_bytes = 1920;
        osd.record.height = 1080;
        osd.record.shown = 1;
        osd.pixels.resize(std::size_t{1920} * 1080);
        for (std::size_t i = 0; i < osd.pixels.size(); i++)
            osd.pixels[i] = static_cast<std::uint8_t>(i * 2654435761u >> 24);
    }
    const fs::path file = fs::temp_directory_path() / "codec-bench.png";
    for (auto _ : state)
        sim_reader::write_png(sim_reader::compose(post), file);
    fs::remove(file);
}
BENCHMARK(snapshot)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    add_measurements();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
