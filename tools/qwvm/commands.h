// The subcommands of the qwvm tool. Each returns the process exit status.
#pragma once

namespace qwtool {

int RunTour(const char *directory);
// argv starts after the command name.
int RunCheck(int argc, char **argv);
int RunStat(int argc, char **argv);

}  // namespace qwtool
