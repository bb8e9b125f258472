// What the simulated codec costs: the calls of a drawing, without and with a record of them; and a
// picture.
#include "display/qm5codec.h"
#include "sim_reader.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
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

// The library, up, with an OSD as the time has it at 720 pixels, in a folder that goes with it.
class Codec
{
public:
    explicit Codec(bool record)
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
        const qm5_cl_osd_param param = {3, 10 * 17, 28, 0};
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

    void draw(int byte) const
    {
        qm5_cl_osd_mem mem{};
        must(qm5_cl_post_get_osd_mem(res_id, handle_, &mem));
        std::memset(mem.memory, byte, mem.size);
        must(qm5_cl_post_set_osd(res_id, handle_, {0, 0}));
    }

    void clear() const
    {
        must(qm5_cl_post_clear_osd(res_id, handle_));
    }

private:
    fs::path folder_ = fs::temp_directory_path() / ("codec-bench-" + std::to_string(getpid()));
    std::uint32_t handle_ = 0;
};

void drawing(benchmark::State &state)
{
    const Codec codec(state.range(0) != 0);
    int byte = 0;
    for (auto _ : state)
        codec.draw(byte++ & 0xFF);
    state.SetLabel("get_osd_mem and set_osd");
}
BENCHMARK(drawing)->ArgName("record")->Arg(0)->Arg(1)->Iterations(100000);

void clearing(benchmark::State &state)
{
    const Codec codec(state.range(0) != 0);
    for (auto _ : state)
        codec.clear();
    state.SetLabel("clear_osd");
}
BENCHMARK(clearing)->ArgName("record")->Arg(0)->Arg(1)->Iterations(100000);

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

BENCHMARK_MAIN();
