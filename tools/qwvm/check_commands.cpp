// `qwvm check DIR [--serial OLD NEW]`: finds the stores in DIR (DIR itself,
// or every store in the tree below it; see store_kind.h) and runs every
// check that applies to each, read-only:
//   arena          both generations checked for shared blocks
//   logged arena   the same on DIR/vm, and every record of DIR/log read
//   box            BoxLVMCheck: every entry read, the metadata checked
//   string table   DIR/dict as a logged arena and DIR/box as a box
//   sort directory the job file of a `qwvm sort` state read, and DIR/meta
//                  (the sorter's arena) checked as an arena; with neither,
//                  the store is reported as "not checked"

// It prints one line per store, "<path>: <kind>: clean" or "<path>: <kind>:
// N faults" followed by one indented line per fault, and exits 0 only when
// every store is clean; 1 when one is not (or none is found), 2 on bad
// arguments. A store that does not open counts as one fault.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"
#include "tools/qwvm/progress.h"
#include "tools/qwvm/store_kind.h"

namespace qwtool {
namespace {

void CheckUsage(FILE *out) {
  std::fprintf(out,
               "usage: qwvm check DIR [--serial OLD NEW] [--progress]\n"
               "  Recognises the stores in DIR (an arena, a logged arena, a box, a string table, a sort\n"
               "  directory, or a tree of directories holding them) and checks each one read-only:\n"
               "  arenas for blocks shared between users, logs by reading every record, boxes by reading\n"
               "  every entry and checking their metadata, sort directories by their job file and sorter\n"
               "  arena (an arena whose commit was interrupted is opened writable to finish it, and says\n"
               "  so). One line per store, \"<path>: <kind>: clean\" or \"<path>: <kind>: N faults\"\n"
               "  followed by the faults. Exit status 0 when every store is clean, 1 when one is not or\n"
               "  DIR holds no store, 2 on bad arguments.\n"
               "  --serial OLD NEW  open the generation files of these serials (a plain arena only)\n"
               "  --progress        print progress (stores checked) on stderr even when it is not a terminal\n");
}

// The faults found in one store; `prefix` names the part being checked.
struct Report {
  std::vector<std::string> lines;
  uint64_t faults = 0;
  std::string prefix;

  void Fault(const std::string &what) {
    lines.push_back(prefix + what);
    ++faults;
  }
  // A failure with the error chain, as one fault.
  void Failure(const std::string &what) {
    std::string chain = QWErrorMessage();
    while (!chain.empty() && chain.back() == '\n') chain.pop_back();
    QWErrorClear();
    Fault(what + (chain.empty() ? "" : ": " + chain));
  }
  void Add(uint64_t count, const std::vector<std::string> &found) {
    for (const std::string &line : found) lines.push_back(prefix + line);
    faults += count;
  }
};

void CheckArena(const std::string &dir, uint64_t oldSerial, uint64_t newSerial, PageCache *cache, Report *report) {
  VMArena *arena = OpenArenaForInspection(dir, oldSerial, newSerial, cache);
  if (!arena) return report->Failure("cannot open the arena");
  std::vector<std::string> found;
  report->Add(CheckArenaGenerations(arena, &found), found);
  VMArenaClose(arena);
}

void CheckLoggedArena(const std::string &dir, Report *report) {
  LoggedVM *lvm = LoggedVMOpen(dir.c_str(), 1, 0, 1, nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  if (!lvm) return report->Failure("cannot open the logged arena");
  std::vector<std::string> found;
  report->Add(CheckArenaGenerations(LoggedVMArenaGet(lvm), &found), found);
  const uint64_t arenaSerial = LoggedVMArenaSerialGet(lvm);
  LogWalk walk;
  if (arenaSerial == LVM_NO_SERIAL) report->Failure("cannot read the arena serial");
  else if (!ReadWholeLog(LoggedVMLogGet(lvm), arenaSerial, &walk)) report->Failure("the log does not read cleanly");
  QWErrorSave();
  LoggedVMClose(lvm);
  QWErrorRestore();
  UnAllocate(lvm);
}

void CheckBox(const std::string &dir, Report *report) {
  BoxLVM *box = BoxLVMOpen(dir.c_str(), 1, 1, 1, 0, 1, nullptr);
  if (!box) return report->Failure("cannot open the box");
  uint64_t faults = 0;
  const auto collect = [](void *context, uint32_t, const char *line) {
    auto *into = static_cast<Report *>(context);
    into->lines.push_back(into->prefix + line);
  };
  if (!BoxLVMCheck(box, collect, report, &faults)) report->Failure("cannot check the box");
  report->faults += faults;
  QWErrorSave();
  BoxLVMClose(box, 0);
  QWErrorRestore();
}

// The parts of a sort directory that can be verified; false when it has
// none of them.
bool CheckSort(const std::string &dir, PageCache *cache, Report *report) {
  const bool job = FileExists((dir + "/job").c_str()) != 0;
  const bool meta = DetectStoreKind(dir + "/meta") == StoreKind::kArena;
  if (job && !SortJobReads(dir)) report->Fault("job: the job file is damaged or cut short");
  report->prefix = "meta: ";
  if (meta) CheckArena(dir + "/meta", STATUS_NO_SERIAL, STATUS_NO_SERIAL, cache, report);
  return job || meta;
}

// Checks one store and prints its lines; true when it is clean.
bool CheckStore(const FoundStore &store, uint64_t oldSerial, uint64_t newSerial, PageCache *cache) {
  Report report;
  switch (store.kind) {
    case StoreKind::kArena: CheckArena(store.path, oldSerial, newSerial, cache, &report); break;
    case StoreKind::kLoggedArena: CheckLoggedArena(store.path, &report); break;
    case StoreKind::kBox: CheckBox(store.path, &report); break;
    case StoreKind::kStrTable:
      report.prefix = "dict: ";
      CheckLoggedArena(store.path + "/dict", &report);
      report.prefix = "box: ";
      CheckBox(store.path + "/box", &report);
      break;
    case StoreKind::kSort:
      if (CheckSort(store.path, cache, &report)) break;
      [[fallthrough]];
    case StoreKind::kNone:
      std::printf("%s: %s: not checked\n", store.path.c_str(), StoreKindName(store.kind));
      return true;
  }
  if (report.faults == 0 && report.lines.empty()) {
    std::printf("%s: %s: clean\n", store.path.c_str(), StoreKindName(store.kind));
    return true;
  }
  const uint64_t faults = report.faults ? report.faults : report.lines.size();
  std::printf("%s: %s: %" PRIu64 " fault%s\n", store.path.c_str(), StoreKindName(store.kind), faults,
              faults == 1 ? "" : "s");
  for (std::string line : report.lines) {
    for (size_t at = line.find('\n'); at != std::string::npos; at = line.find('\n', at + 5)) line.replace(at, 1, "\n    ");
    std::printf("  %s\n", line.c_str());
  }
  return false;
}

}  // namespace

int RunCheck(int argc, char **argv) {
  if (AsksHelp(argc, argv)) {
    CheckUsage(stdout);
    return 0;
  }
  const bool forced = Progress::TakeFlag(&argc, argv);
  StoreArguments found;
  const int refused = FindStoresToInspect(std::vector<std::string>(argv, argv + argc), "check", CheckUsage, &found);
  if (refused >= 0) return refused;
  PageCache *cache = PageCacheNew(64 << 20, 8192);
  if (!cache) {
    std::fprintf(stderr, "qwvm check: %s\n", QWErrorMessage());
    return 1;
  }
  // Opening and recovery report progress; the check prints its own lines.
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  bool clean = true;
  Progress progress("check", "stores", forced);
  progress.SetTotal(found.stores.size());
  for (const FoundStore &store : found.stores) {
    clean = CheckStore(store, found.oldSerial, found.newSerial, cache) && clean;
    std::fflush(stdout);
    progress.Add(1);
  }
  progress.Finish();
  PageCacheFree(cache);
  return clean ? 0 : 1;
}

}  // namespace qwtool
