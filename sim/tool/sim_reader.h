// Reading along with a simulated codec, and composing its pictures; for tools and tests.
#pragma once

#include "guides.h"
#include "palette.h"
#include "picture.h"
#include "png_file.h"
#include "state_reader.h"
