// The block of shared memory that hands the time zone to the application, from the other side: what
// the appliance's own program does with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace time_zone_block
{

// The longest text that the block holds, in bytes.
extern const std::size_t MAX_TEXT;

struct Content {
    std::string text; // value for TZ
    unsigned change = 0;
};

// All of these throw std::runtime_error, as "time zone block: why".

Content read();

// Hands over a text of up to MAX_TEXT bytes; makes the block if there is none.
void write(const std::string &text);

// Changes only the byte by which the application learns of a zone, in a block that is there.
void write_change(std::uint8_t change);

// Programs that have attached the block keep it to their end.
void remove();

} // namespace time_zone_block
