// Killing a process at an exact moment of its work, so that a test can go through all of them.
#pragma once

#include <functional>

namespace support
{

// Runs `work` in a child process and kills it at the moment of this number, from 1 on: before and
// after each system call by which its first thread changes files or mappings of files. False if
// `work` has come to its end before, and its process has exited. `work` may become a program.
bool kill_at(unsigned moment, const std::function<void()> &work);

} // namespace support
