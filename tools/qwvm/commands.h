// The subcommands of the qwvm tool. Each returns the process exit status.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

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
int RunBox(int argc, char **argv);
int RunStrTable(int argc, char **argv);

// A decimal unsigned 32-bit number, the whole of `text`.
inline bool ParseU32(const std::string &text, uint32_t *value) {
  char *end = nullptr;
  const unsigned long long number = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || *end != 0 || text[0] == '-' || number > UINT32_MAX) return false;
  *value = uint32_t(number);
  return true;
}

// Parts of the tour, in their own files; each returns the exit status.
int TourFail(const char *what);
int TourStructures(const char *directory, PageCache *cache);
int TourFiles(const char *directory);
int TourQueries(const char *directory);
int TourLogged(const char *directory);
int TourBox(const char *directory);
int TourStrTable(const char *directory);

}  // namespace qwtool
