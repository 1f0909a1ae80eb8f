// The subcommands of the qwvm tool. Each returns the process exit status.
#pragma once

#include "qwvm/qwvm.h"

namespace qwtool {

int RunTour(const char *directory);
// argv starts after the command name.
int RunCheck(int argc, char **argv);
int RunStat(int argc, char **argv);
int RunSfs(int argc, char **argv);
int RunEval(int argc, char **argv);
int RunLog(int argc, char **argv);
int RunLvm(int argc, char **argv);
int RunSort(int argc, char **argv);

// Parts of the tour, in their own files; each returns the exit status.
int TourFail(const char *what);
int TourStructures(const char *directory, PageCache *cache);
int TourFiles(const char *directory);
int TourQueries(const char *directory);
int TourLogged(const char *directory);

}  // namespace qwtool
