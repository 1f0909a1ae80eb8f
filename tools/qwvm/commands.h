// The subcommands of the qwvm tool. Each returns the process exit status.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"

namespace qwtool {

// Prints "qwvm COMMAND: WHAT:" and the error chain on stderr; returns 1,
// the exit status of a failed command.
inline int FailWithChain(const char *command, const std::string &what) {
  std::fprintf(stderr, "qwvm %s: %s:\n%s\n", command, what.c_str(), QWErrorMessage());
  return 1;
}

// Whether the arguments are just "--help" (or "help").
inline bool AsksHelp(int argc, char **argv) {
  return argc == 1 && (std::string(argv[0]) == "--help" || std::string(argv[0]) == "help");
}

int RunTour(const char *directory);
// argv starts after the command name.
int RunCheck(int argc, char **argv);
int RunStat(int argc, char **argv);
int RunCopy(int argc, char **argv);
int RunDump(int argc, char **argv);
int RunLoad(int argc, char **argv);
int RunSfs(int argc, char **argv);
int RunEval(int argc, char **argv);
int RunLog(int argc, char **argv);
int RunLvm(int argc, char **argv);
int RunSort(int argc, char **argv);
int RunBox(int argc, char **argv);
int RunStrTable(int argc, char **argv);

// What a read of a whole log found (ReadWholeLog).
struct LogWalk {
  uint64_t first = LOG_NO_SERIAL, records = 0, waiting = 0, checkpoint = LOG_NO_SERIAL;
};

// Reads every record of `log` from the first to the last; counts the records
// after `arenaSerial` up to the serial the newest checkpoint after it names.
// 0 with the error set when a record does not read.
int ReadWholeLog(QWLog *log, uint64_t arenaSerial, LogWalk *walk);

// The keys of a string table and their bytes (CountStrTableKeys).
struct StrTableCounts {
  uint64_t keys = 0, keyBytes = 0, valueBytes = 0;
};

// Enumerates every key of `table`; false (reported on stderr) on an error.
bool CountStrTableKeys(LoggedStrTable *table, StrTableCounts *counts);
// Opens the string table in `dir` read-only, as `qwvm strtable` does.
LoggedStrTable *OpenStrTableReadOnly(const std::string &dir);

// Opens the plain arena in `dir` to inspect it: read-only, unless a
// commit was interrupted (then writable, to finish it, and said so).
// Null with the error set when it does not open.
VMArena *OpenArenaForInspection(const std::string &dir, uint64_t oldSerial, uint64_t newSerial, PageCache *cache);
// Checks both generations for shared blocks; one line in *faults per
// generation that has clashes (each clash is a level-1 message). Returns the
// number of clashes.
uint64_t CheckArenaGenerations(VMArena *arena, std::vector<std::string> *faults);
// Prints each bucket server's figures and the committed generation's arrays
// and free lists.
void PrintArenaStat(VMArena *arena);

// Whether the job file of the sort state `state` (the directory holding
// it) reads whole.
bool SortJobReads(const std::string &state);

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
