// What an update costs in parameters: to read and validate the temporary parameter file with all
// its keys, to write it, and to apply it to the posts.
#include "cli/catalogue.h"
#include "display/post.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

namespace
{

// A complete parameter file for as long as it lives.
class ParameterFile
{
public:
    ParameterFile() : path_("/tmp/parameters_bench." + std::to_string(getpid()))
    {
        param_section *section = make_section();
        if (param_section_write_file(section, path_.c_str()) != 0)
            std::abort();
        param_section_free(section);
    }
    ParameterFile(const ParameterFile &) = delete;
    ParameterFile &operator=(const ParameterFile &) = delete;
    ~ParameterFile()
    {
        unlink(path_.c_str());
    }
    static param_section *make_section()
    {
        param_section *section = osd_get_default_section();
        const param_parampair font = {const_cast<char *>("OsdFontFile"),
                                      const_cast<char *>("font.ttf")};
        if (!section || param_section_search_set_parampair(section, &font) != 0)
            std::abort();
        return section;
    }
    const char *path() const
    {
        return path_.c_str();
    }

private:
    std::string path_;
};

void read_and_validate(benchmark::State &state)
{
    const ParameterFile file;
    for (auto _ : state) {
        param_section *section = osd_get_default_section();
        if (osd_read_parameter_file(section, file.path()) != 0)
            std::abort();
        param_section_free(section);
    }
}

void write_file(benchmark::State &state)
{
    const ParameterFile file;
    param_section *section = ParameterFile::make_section();
    for (auto _ : state)
        param_section_write_file(section, file.path());
    param_section_free(section);
}

void apply_to_posts(benchmark::State &state)
{
    param_section *section = ParameterFile::make_section();
    for (auto _ : state) {
        osd_set_post_params(section, osd_state.post);
        benchmark::ClobberMemory();
    }
    param_section_free(section);
}

BENCHMARK(read_and_validate);
BENCHMARK(write_file);
BENCHMARK(apply_to_posts);

} // namespace
