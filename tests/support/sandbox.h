// A private world for one test program: its own temporary folder and its own shared memory, so
// that programs can run at the same time and on a machine where a real server runs.
#pragma once

namespace support
{

// Enters the private world; ends the program with a message if the system won't let it. To be
// called before any thread starts.
void enter_sandbox();

} // namespace support
