// Posts with parameters and open OSDs, for what measures and counts passes.
#pragma once

#include "cli/catalogue.h"
#include "display/post.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace support
{

// Gives the posts the default parameters and these pairs, as an update does.
inline void set_posts(std::initializer_list<param_parampair> pairs)
{
    param_section *section = osd_get_default_section();
    for (const param_parampair &pair : pairs) {
        if (param_section_search_set_parampair(section, &pair) != 0)
            std::abort();
    }
    osd_set_post_params(section, osd_state.post);
    param_section_free(section);
    for (osd_post &post : osd_state.post) {
        for (int slot = 0; slot < OSD_SLOTS; slot++) {
            if (post.text_on[slot])
                post.rect[slot].mode = OSD_MODE_TEXT;
        }
    }
}

// The same, and a thread to each post up to `posts`; the next visits open and draw them.
inline void open_posts(int posts, std::initializer_list<param_parampair> pairs)
{
    set_posts(pairs);
    for (int i = 0; i < posts; i++) {
        osd_post &post = osd_state.post[i];
        post.res_id = static_cast<std::uint32_t>(i + 1);
        post.callback_state = OSD_CALLBACK_OPEN;
    }
}

// A pair of texts that nobody changes.
inline param_parampair make_pair(const char *key, const char *value)
{
    return {const_cast<char *>(key), const_cast<char *>(value)};
}

} // namespace support
