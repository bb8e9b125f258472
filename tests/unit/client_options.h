// The options record of a command line, for the functions that main hands it to.
#pragma once

#include "cli/options.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace client
{

// A long option.
struct Pair {
    const char *key;
    const char *value;
};
typedef std::vector<Pair> Pairs;

// The record of `update`: long options, post mask and the file of -f.
class Options
{
public:
    Options(const Pairs &pairs, std::uint32_t post, const char *file)
        : section_(param_section_new("osd"), param_section_free)
    {
        for (const auto &[key, value] : pairs)
            cmn_list_append(section_->pairs, param_parampair_new(key, value));
        options_.command = OSD_CMD_UPDATE;
        options_.post = post;
        options_.paramFile = file;
        options_.section = section_.get();
    }
    const osd_options *get() const
    {
        return &options_;
    }

private:
    std::unique_ptr<param_section, decltype(&param_section_free)> section_;
    osd_options options_{};
};

} // namespace client
