// What the tool says about itself: the usage texts and the version, on stdout.
#pragma once

// Prints the usage of a function, or the general one for NULL. `path` is argv[0]; only its base
// name is shown, and basename(3) may cut trailing slashes from it. -EINVAL after a report for a
// NULL path, and for an unknown function, behind whose report the usage of `help` follows.
int osd_print_usage(char *path, const char *function);

void osd_print_version(char *path);
