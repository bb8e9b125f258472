// What the simulated codec costs: each call by itself, for OSDs of several sizes, without and with
// a record of the calls; and a picture.
#include "display/qm5codec.h"
#include "sim_reader.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

namespace fs = std::filesystem;

std::uint32_t res_id;

void keep_post(qm5_cl_post_notify_info info)
{
    if (info.post == 0)
        res_id = info.res_id;
}

void must(int result)
{
    if (result != 0)
        throw std::runtime_error("the codec library has failed");
}

// What the calls have to do with: one OSD of post 0.
struct Drawing {
    qm5_cl_osd_param param;
    std::uint32_t handle = 0;
    qm5_cl_osd_mem mem{};
    std::uint8_t byte = 0;
};

int open_osd(Drawing &drawing)
{
    std::uint32_t aux = 0;
    std::uint32_t line_bytes = 0;
    drawing.handle = 0;
    return qm5_cl_post_open_osd(res_id, &drawing.param, &drawing.handle, &aux, &line_bytes);
}

int get_status(Drawing &)
{
    qm5_cl_post_status status{};
    return qm5_cl_post_thread_get_status(res_id, &status);
}

int get_memory(Drawing &drawing)
{
    drawing.mem = {};
    return qm5_cl_post_get_osd_mem(res_id, drawing.handle, &drawing.mem);
}

enum Call { INIT, OPEN_DEVICE, CALLBACK, NOTIFY, STATUS, OPEN, GET, SET, CLEAR, CLOSE, END, EXIT };

constexpr struct {
    const char *name;
    int (*make)(Drawing &);
} CALLS[] = {
    {"library_init", [](Drawing &) { return qm5_cl_library_init(); }},
    {"open_device", [](Drawing &) { return qm5_cl_sys_open_device(); }},
    {"notify_callback", [](Drawing &) { return qm5_cl_post_notify_callback(keep_post); }},
    {"set_notify", [](Drawing &) { return qm5_cl_post_set_notify(15); }},
    {"thread_get_status", get_status},
    {"open_osd", open_osd},
    {"get_osd_mem", get_memory},
    {"set_osd",
     [](Drawing &drawing) {
         return qm5_cl_post_set_osd(res_id, drawing.handle, {0, 0});
     }},
    {"clear_osd", [](Drawing &drawing) { return qm5_cl_post_clear_osd(res_id, drawing.handle); }},
    {"close_osd", [](Drawing &drawing) { return qm5_cl_post_close_osd(res_id, drawing.handle); }},
    {"close_device", [](Drawing &) { return qm5_cl_sys_close_device(); }},
    {"library_exit", [](Drawing &) { return qm5_cl_library_exit(); }},
};

// Makes a call, and gives its time in seconds.
double make(Call call, Drawing &drawing)
{
    const auto begin = std::chrono::steady_clock::now();
    const int result = CALLS[call].make(drawing);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    must(result);
    if (call == GET) // as a new second changes a time: other pixels, and not all of them
        std::memset(drawing.mem.memory, ++drawing.byte, drawing.mem.size / 4);
    return taken.count();
}

typedef std::vector<Call> Calls;

// What is made again and again while the times of some of it are taken, and what it stands between.
struct Round {
    Calls before;
    Calls again;
    Calls behind;
    Calls timed;
    int times;
};

const Round DRAWING = {{INIT, OPEN_DEVICE, CALLBACK, NOTIFY, STATUS, OPEN},
                       {STATUS, GET, SET, CLEAR},
                       {CLOSE, END, EXIT},
                       {STATUS, GET, SET, CLEAR},
                       3000};
const Round OSD = {{INIT, OPEN_DEVICE, CALLBACK, NOTIFY},
                   {STATUS, OPEN, GET, SET, CLEAR, CLOSE},
                   {END, EXIT},
                   {OPEN, CLOSE},
                   1000};
const Round SERVER = {{},
                      {INIT, OPEN_DEVICE, CALLBACK, NOTIFY, END, EXIT},
                      {},
                      {INIT, OPEN_DEVICE, CALLBACK, NOTIFY, END, EXIT},
                      300};

// A state folder of its own.
class Folder
{
public:
    explicit Folder(bool record)
    {
        fs::create_directory(path_);
        std::ofstream(path_ / "settings") << "record " << record << '\n';
        setenv("QM5SIM_STATE", path_.c_str(), 1);
    }
    ~Folder()
    {
        fs::remove_all(path_);
    }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

private:
    fs::path path_ = fs::temp_directory_path() / ("codec-bench-" + std::to_string(getpid()));
};

// Takes the time of one of the calls of a round.
void measure(benchmark::State &state, const Round &round, Call timed, const qm5_cl_osd_param &param,
             bool record)
{
    const Folder folder(record);
    Drawing drawing{param};
    for (const Call call : round.before)
        make(call, drawing);
    for (auto _ : state) {
        for (const Call call : round.again) {
            const double taken = make(call, drawing);
            if (call == timed)
                state.SetIterationTime(taken);
        }
    }
    for (const Call call : round.behind)
        make(call, drawing);
}

struct Size {
    const char *name;
    qm5_cl_osd_param param;
};
constexpr Size SIZES[] = {
    {"/time at 720", {3, 10 * 17, 28, 0}},
    {"/string at 720", {0, 22 * 14, 28, 2}},
    {"/time at 1920", {3, 10 * 46, 75, 0}},
    {"/string at 1920", {0, 22 * 37, 75, 2}},
};

void add_round(const Round &round, const Size &size, bool record)
{
    for (const Call call : round.timed) {
        const std::string name = std::string(CALLS[call].name) + size.name;
        benchmark::RegisterBenchmark((name + (record ? "/recorded" : "")).c_str(),
                                     [&round, call, size, record](benchmark::State &state) {
                                         measure(state, round, call, size.param, record);
                                     })
            ->UseManualTime()
            ->Iterations(round.times);
    }
}

void add_measurements()
{
    for (const bool record : {false, true}) {
        add_round(SERVER, {"", {}}, record);
        for (const Size &size : SIZES) {
            add_round(OSD, size, record);
            add_round(DRAWING, size, record);
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
        sim_reader::write_png(sim_reader::compose(post, sim_reader::palette()), file);
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
