// Running another program in such a way that it doesn't outlive this one's end by a signal, even by
// one that can't be caught.
#pragma once

#include <string>
#include <vector>

namespace program
{

// Runs a program, looked up in PATH if its name has no slash, with nothing on its standard input,
// and waits for its end: its status as of wait(2). What it leaves behind stays.
//
// The program has a process group of its own. A signal that is to end this process, from the
// keyboard or by kill(1), ends that group first: it gets the signal too, and SIGKILL as soon as the
// program has ended or a second has passed. If this process is gone without warning, as by SIGKILL,
// the group gets SIGKILL at once.
//
// Throws std::runtime_error, as "NAME: why", for a program that can't be started.
int run(const std::vector<std::string> &words);

// What to say about a status other than 0.
std::string describe(int status);

} // namespace program
