// The executable: one command line, one function, one exit status.
#include "cli/dispatch.h"

#include <cstdlib>

int main(int argc, char **argv)
{
    osd_options options = {};
    exit(osd_run(argc, argv, &options));
}
