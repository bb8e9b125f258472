// What the application says of a post's layout: guides that nobody has to measure.
#pragma once

#include "guides.h"

namespace sim_reader
{

// The safe spaces of the post, and the cells of each of its OSDs that holds a text, by the
// parameters in force; those that a server has left when it died count too. Nothing without any.
Guides application_guides(const Post &post, unsigned number);

} // namespace sim_reader
