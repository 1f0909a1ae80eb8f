// `qwvm copy SRC DST [--compact] [--progress]`: a consistent copy of the
// committed state of every store in SRC (an arena, a logged arena, a box, a
// string table, or a tree of them) while other processes keep writing and
// committing there. Nothing in SRC is written.
//
// Each store is a list of parts: arenas (copy_arena.h) and logged arenas
// (copy_log.h; a box bucket also has its data files). All parts of one
// store are taken in one pass: hold every arena generation, copy the
// arenas, scan every log, copy the logs and data files, scan every log
// again, and check every held generation is still current. When anything
// moved, the pass is thrown away and taken again, up to kAttempts times;
// a source that commits faster than it can be read fails with a clear
// error. The copy is built in DST.copying-<pid> beside DST and renamed into
// place once whole and synced; a DST that exists is refused up front.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"
#include "tools/qwvm/copy_arena.h"
#include "tools/qwvm/copy_log.h"
#include "tools/qwvm/store_kind.h"

namespace qwtool {
namespace {

namespace fs = std::filesystem;
constexpr int kAttempts = 200;

void CopyUsage(FILE *out) {
  std::fprintf(out,
               "usage: qwvm copy SRC DST [--compact] [--progress]\n"
               "  Copies the committed state of the stores in SRC (an arena, a logged arena, a box, a string\n"
               "  table, or a tree of them) into the new directory DST, while other processes may keep\n"
               "  writing and committing in SRC: the copy holds exactly one committed state of each store,\n"
               "  opens as an ordinary store and checks clean. A copy that saw a commit under way is\n"
               "  taken again (at most %d times). Sort directories are skipped.\n"
               "  --compact   write only the live blocks of each arena (smaller data files)\n"
               "  --progress  print progress on stderr even when it is not a terminal\n"
               "  Exit status 0 on success, 1 on failure (DST is then left absent), 2 on bad arguments.\n",
               kAttempts);
}

struct Part {
  std::string rel;  // directory of the part inside the store ("" for the store itself)
  bool logged = false, data = false;
  ArenaSnapshot arena;
  uint64_t serial = 0, cut = 0;
  std::string Vm() const { return logged ? Join(rel, "vm") : rel; }
  static std::string Join(const std::string &a, const std::string &b) { return a.empty() ? b : a + "/" + b; }
};

struct StorePlan {
  std::string rel;                 // the store inside SRC ("" when SRC is the store)
  std::vector<std::string> files;  // copied whole (box status files)
  std::vector<std::unique_ptr<Part>> parts;
};

void AddBox(const std::string &src, const std::string &rel, StorePlan *plan) {
  plan->files.push_back(Part::Join(rel, "status"));
  std::error_code error;
  std::vector<std::string> buckets;
  for (fs::directory_iterator it(src + "/" + rel, error), end; !error && it != end; it.increment(error))
    if (it->path().filename().string().rfind("bucket.", 0) == 0) buckets.push_back(it->path().filename().string());
  std::sort(buckets.begin(), buckets.end());
  for (const std::string &bucket : buckets) {
    auto part = std::make_unique<Part>();
    part->rel = Part::Join(rel, bucket);
    part->logged = part->data = true;
    plan->parts.push_back(std::move(part));
  }
}

bool Plan(const FoundStore &store, const std::string &src, StorePlan *plan) {
  plan->rel = store.path == src ? "" : fs::relative(store.path, src).string();
  auto single = std::make_unique<Part>();
  single->rel = plan->rel;
  switch (store.kind) {
    case StoreKind::kArena: plan->parts.push_back(std::move(single)); return true;
    case StoreKind::kLoggedArena:
      single->logged = true;
      plan->parts.push_back(std::move(single));
      return true;
    case StoreKind::kBox: AddBox(src, plan->rel, plan); return true;
    case StoreKind::kStrTable:
      single->rel = Part::Join(plan->rel, "dict");
      single->logged = true;
      plan->parts.push_back(std::move(single));
      AddBox(src, Part::Join(plan->rel, "box"), plan);
      return true;
    default: return false;
  }
}

bool MakeDirectories(const std::string &path) {
  std::error_code error;
  fs::create_directories(path, error);
  return !error || QWErrorThrow(error.value(), QW_ERROR_CLASS_SYSTEM, "cannot create \"%s\": %s", path.c_str(),
                                error.message().c_str()) != 0;
}

bool CopyDataFiles(const std::string &from, const std::string &to) {
  if (!MakeDirectories(to)) return false;
  std::error_code error;
  for (fs::directory_iterator it(from, error), end; !error && it != end; it.increment(error)) {
    if (!it->is_regular_file()) continue;
    std::string bytes;
    const std::string path = it->path().string();
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return QWErrorThrowErrno(errno, "cannot open \"%s\"", path.c_str()) != 0;
    const bool read = ReadWhole(fd, path, &bytes);
    close(fd);
    if (!read || !WriteWhole(to + "/" + it->path().filename().string(), bytes)) return false;
  }
  return true;
}

// Test hook: with QWVMCOPYHOLD=P in the environment, the first pass stops
// once it holds the generation files, creates P.held and waits (up to a
// minute) for P.go, so that a test can commit in between.
void HoldForTest() {
  static bool done = false;
  const char *hold = getenv("QWVMCOPYHOLD");
  if (done || !hold) return;
  done = true;
  const std::string base = hold;
  (void)WriteWhole(base + ".held", "");
  for (int i = 0; i < 6000 && !PathExists(base + ".go"); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

// One pass over a store, phase by phase as the header says (a linear
// sequence, kept whole). False with the error set on a failure; *moved when
// the source changed under the pass (then take it again).
bool CopyPass(const std::string &src, const std::string &tmp, StorePlan *plan, bool compact, Progress *progress,
              bool *moved) {
  *moved = false;
  const auto S = [&](const std::string &rel) { return rel.empty() ? src : src + "/" + rel; };
  const auto T = [&](const std::string &rel) { return rel.empty() ? tmp : tmp + "/" + rel; };
  for (auto &part : plan->parts)
    if (!part->arena.Hold(S(part->Vm()), moved) || *moved) return false;
  uint64_t blocks = 0;
  for (auto &part : plan->parts) blocks += part->arena.BlockCount(compact);
  progress->SetTotal(progress->Done() + blocks);  // what this pass has left to do
  HoldForTest();
  for (auto &part : plan->parts)
    if (!MakeDirectories(T(part->Vm())) || !part->arena.CopyTo(T(part->Vm()), compact, progress)) return false;
  for (auto &part : plan->parts) {
    if (!part->logged) continue;
    LogScan scan;
    if (!ReadArenaSerial(T(part->Vm()), &part->serial) ||
        !ScanLog(S(Part::Join(part->rel, "log")), part->serial, &scan))
      return false;  // a log truncated past the serial: CopyStore sees the commit that did it
    part->cut = scan.checkpoint ? scan.checkpointNext : scan.fromNext;
  }
  for (auto &part : plan->parts)
    if (part->logged &&
        !CopyLogPrefix(S(Part::Join(part->rel, "log")), part->serial, part->cut, T(Part::Join(part->rel, "log"))))
      return false;
  for (auto &part : plan->parts)
    if (part->data && !CopyDataFiles(S(Part::Join(part->rel, "data")), T(Part::Join(part->rel, "data")))) return false;
  for (auto &part : plan->parts) {
    if (!part->logged) continue;
    LogScan again;
    // A record at the cut that does not read yet is fine: nothing was written after it.
    if (ScanLog(S(Part::Join(part->rel, "log")), part->cut, &again)) *moved = *moved || again.checkpoint;
    else QWErrorClear();
  }
  for (auto &part : plan->parts) *moved = *moved || !part->arena.Unchanged();
  if (*moved) return false;
  for (const std::string &file : plan->files) {
    std::error_code error;
    fs::copy_file(S(file), T(file), error);
    if (error)
      return QWErrorThrow(error.value(), QW_ERROR_CLASS_SYSTEM, "cannot copy \"%s\": %s", S(file).c_str(),
                          error.message().c_str()) != 0;
  }
  return true;
}

// Copies one store, taking it again while it moves; *attempts counts the passes.
bool CopyStore(const std::string &src, const std::string &tmp, StorePlan *plan, bool compact, Progress *progress,
               int *attempts) {
  const std::string root = plan->rel.empty() ? tmp : tmp + "/" + plan->rel;
  for (int &attempt = *attempts = 1; attempt <= kAttempts; ++attempt) {
    std::error_code error;
    fs::remove_all(root, error);
    if (!MakeDirectories(root)) return false;
    bool moved = false;
    if (CopyPass(src, tmp, plan, compact, progress, &moved)) return true;
    // A failure while the source moved (a log file truncated away, a name
    // renamed between two reads) is the move's doing: take it again.
    for (auto &part : plan->parts) moved = moved || !part->arena.Unchanged();
    if (!moved) return false;
    QWErrorClear();
    for (auto &part : plan->parts) part->arena.Release();
    std::this_thread::sleep_for(std::chrono::milliseconds(attempt < 10 ? 1 : 20));
  }
  return QWErrorThrow(EAGAIN, QW_ERROR_CLASS_GENERAL,
                      "\"%s\" kept committing (or holds an interrupted commit): no consistent copy in %d attempts",
                      (plan->rel.empty() ? src : src + "/" + plan->rel).c_str(), kAttempts) != 0;
}

}  // namespace

int RunCopy(int argc, char **argv) {
  if (AsksHelp(argc, argv)) {
    CopyUsage(stdout);
    return 0;
  }
  const bool forced = Progress::TakeFlag(&argc, argv);
  bool compact = false;
  std::vector<std::string> operands;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--compact") == 0) compact = true;
    else operands.push_back(argv[i]);
  }
  if (operands.size() != 2 || operands[0].rfind("--", 0) == 0 || operands[1].rfind("--", 0) == 0) {
    CopyUsage(stderr);
    return 2;
  }
  const std::string src = operands[0], dst = operands[1];
  if (PathExists(dst)) {
    std::fprintf(stderr, "qwvm copy: \"%s\" exists; the copy goes to a new directory\n", dst.c_str());
    return 1;
  }
  const std::vector<FoundStore> stores = FindStores(src);
  if (stores.empty()) {
    std::fprintf(stderr, "%s: no qwvm store found\n", src.c_str());
    return 1;
  }
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  const std::string tmp = BuildDirectory(dst, ".copying");
  Progress progress("copy", "blocks", forced);
  bool ok = DirectoryCreate(tmp.c_str()) != 0;
  for (size_t i = 0; ok && i < stores.size(); ++i) {
    StorePlan plan;
    if (!Plan(stores[i], src, &plan)) {
      std::fprintf(stderr, "qwvm copy: %s: %s: not copied\n", stores[i].path.c_str(), StoreKindName(stores[i].kind));
      continue;
    }
    int attempts = 0;
    ok = CopyStore(src, tmp, &plan, compact, &progress, &attempts);
    if (ok)
      std::printf("%s: %s: copied (%d pass%s)\n", stores[i].path.c_str(), StoreKindName(stores[i].kind), attempts,
                  attempts == 1 ? "" : "es");
  }
  progress.Finish();
  ok = ok && PublishDirectory(tmp, dst);
  if (ok) return 0;
  const int status = FailWithChain("copy", "cannot copy \"" + src + "\"");
  std::error_code error;
  fs::remove_all(tmp, error);
  return status;
}

}  // namespace qwtool
