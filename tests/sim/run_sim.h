// The tool as its users run it.
#pragma once

#include "support/process.h"

// Runs qm5sim with these words behind its name.
inline support::Ended run_sim(const support::Words &words)
{
    support::Words all = {QM5SIM_PROGRAM};
    all.insert(all.end(), words.begin(), words.end());
    return support::run(all);
}
