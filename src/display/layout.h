// Screen layout: fits a post's OSDs to a picture whose size is known only when its thread is up.
//
// One font size serves a post. It follows from the width between the safe spaces: three quarters
// of it are taken for the height, whatever the picture's real height is, and that height less the
// vertical safe spaces is divided by 19, which gives the size unless it is less than 8. Every text
// has a field of fixed cells in its corner of the area between the safe spaces; a rectangle stands
// where its parameters say. All arithmetic is unsigned and wraps.
#pragma once

#include "display/post.h"

// Carries out an open: asks for the video size, makes the post's font engine anew for it and opens
// an OSD for each slot that isn't off. 0 at once for a post without a thread. -EFAULT after
// reports if the size can't be had, if the picture, the safe spaces or the font won't do, or if
// the library refuses an OSD. Another failed OSD is reported, the slots below it are closed, and
// the result is 0 all the same: the post then stays without OSDs until its next notification or
// reopen.
int osd_do_callback_open(osd_post *post);

// The same for one slot that was switched on while the post was open. The font engine is made anew
// for the whole post, even if the slot turns out to be off. A refused OSD gives 0 here; another
// failed one closes the slots below it and gives -EFAULT.
int osd_do_callback_open_one(osd_post *post, int slot);

// The left upper corner of a text slot for the values of this moment, in pixels of the picture;
// only the low 16 bits of each reach the library.
struct osd_place {
    std::uint32_t x;
    std::uint32_t y;
};
osd_place osd_place_text(const osd_post *post, int slot);

// Is errno one of the codec library's codes for a post thread that has gone?
bool osd_post_is_gone();
