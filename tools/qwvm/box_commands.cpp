// `qwvm box DIR stat | get ID | put ID FILE | rm ID | checkpoint | check |
// dump`: use and inspect a box by hand.
//
// `put`, `rm` and `checkpoint` open the box writable (which recovers it:
// the logs are replayed) and close it with a committing checkpoint, so what
// they did is durable when they return. `get`, `stat` and `check` open it
// read-only and see its last commit; they change nothing and may run beside
// a process that has the box open. `dump` reads the bucket count from the
// status file and prints each bucket's log without opening the box, so it
// works on a box that no longer opens.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

constexpr uint32_t kDefaultBuckets = 4;

int Fail(const std::string &what) { return FailWithChain("box", what); }

void BoxUsage(FILE *out) {
  std::fprintf(out,
               "usage: qwvm box DIR put ID FILE [--buckets N]\n"
               "           store FILE's bytes (at least one) under the u32 ID and commit; a new box in DIR\n"
               "           is created with N buckets (default %u)\n"
               "       qwvm box DIR get ID      write the value of ID to standard output\n"
               "       qwvm box DIR rm ID       remove the entry of ID and commit\n"
               "       qwvm box DIR stat        print the buckets, their entries, data file sizes and free space\n"
               "       qwvm box DIR checkpoint  recover the box (replay its logs) and commit a checkpoint\n"
               "       qwvm box DIR check       read every entry and check the metadata; exit 1 with one line\n"
               "                                per fault\n"
               "       qwvm box DIR dump        print each bucket's log, record by record\n"
               "put, rm and checkpoint are durable when they return; get, stat and check read the last\n"
               "commit read-only; dump reads the logs only.\n",
               kDefaultBuckets);
}

int Usage() {
  BoxUsage(stderr);
  return 2;
}

// The box in `dir`, opened read-only or writable (creating it when `create`).
BoxLVM *OpenBox(const std::string &dir, bool writable, bool create, uint32_t buckets) {
  return BoxLVMOpen(dir.c_str(), buckets, 1, 1, create ? 1 : 0, writable ? 0 : 1, nullptr);
}

// Closes a writable box with a committing checkpoint; when that fails the
// box is closed without one and 1 returned.
int CloseDurably(BoxLVM *box) {
  const bool committed = BoxLVMCheckpoint(box, 1, nullptr) != 0;
  if (!committed) {
    const int status = Fail("cannot checkpoint the box");
    QWErrorSave();
    (void)BoxLVMClose(box, 0);
    QWErrorRestore();
    return status;
  }
  return BoxLVMClose(box, 0) ? 0 : Fail("cannot close the box");
}

int Put(const std::string &dir, uint32_t id, const char *file, uint32_t buckets) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "qwvm box: cannot read \"%s\"\n", file);
    return 1;
  }
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (bytes.size() > UINT32_MAX) {
    std::fprintf(stderr, "qwvm box: \"%s\" is too large for one entry\n", file);
    return 1;
  }
  const bool create = !FileExists((dir + "/bucket.0").c_str());
  BoxLVM *box = OpenBox(dir, true, create, buckets);
  if (!box) return Fail("cannot open the box in \"" + dir + "\"");
  int isNew = 0, inError = 0;
  if (!BoxLVMUpdate(box, id, 0, 0, bytes.data(), uint32_t(bytes.size()), &isNew, &inError)) {
    const int status = Fail("cannot store id " + std::to_string(id));
    BoxLVMClose(box, 0);
    return status;
  }
  const uint32_t count = BoxLVMBucketCount(box);
  if (CloseDurably(box) != 0) return 1;
  std::printf("id %u: %zu bytes (%s, bucket %u)\n", id, bytes.size(), isNew ? "new" : "replaced", id % count);
  return 0;
}

int Remove(const std::string &dir, uint32_t id) {
  BoxLVM *box = OpenBox(dir, true, false, kDefaultBuckets);
  if (!box) return Fail("cannot open the box in \"" + dir + "\"");
  int inError = 0;
  if (!BoxLVMRemove(box, id, &inError)) {
    const int status = Fail("cannot remove id " + std::to_string(id));
    BoxLVMClose(box, 0);
    return status;
  }
  if (CloseDurably(box) != 0) return 1;
  std::printf("id %u: removed\n", id);
  return 0;
}

int Get(BoxLVM *box, uint32_t id) {
  BoxLVMThreadData *threadData = BoxLVMThreadDataNew();
  if (!threadData) return Fail("out of memory");
  uint8_t *value = nullptr;
  QWErrorClear();
  const int found = BoxLVMGet(box, threadData, id, &value);
  int status = 0;
  if (found) {
    std::fwrite(value, 1, ArrayLength(value), stdout);
  } else if (QWErrorIsSet()) {
    status = Fail("cannot read id " + std::to_string(id));
  } else {
    std::fprintf(stderr, "qwvm box: no entry %u\n", id);
    status = 1;
  }
  ArrayFree(value);
  BoxLVMThreadDataFree(threadData);
  return status;
}

int Stat(BoxLVM *box, const std::string &dir) {
  const uint32_t buckets = BoxLVMBucketCount(box);
  std::printf("box %s: %u buckets, %" PRIu64 " entries\n", dir.c_str(), buckets, BoxLVMSize(box));
  std::printf("%8s %10s %16s %14s %14s\n", "bucket", "entries", "data file bytes", "bytes in use", "free bytes");
  BoxLVMBucketStat total{};
  for (uint32_t n = 0; n < buckets; ++n) {
    BoxLVMBucketStat stat;
    if (!BoxLVMBucketStatGet(box, n, &stat)) return Fail("cannot measure bucket " + std::to_string(n));
    const uint64_t inUse = (stat.usedUnits - stat.freeUnits) * BOXLVM_UNIT_SIZE;
    const uint64_t free = (stat.freeUnits + stat.totalUnits - stat.usedUnits) * BOXLVM_UNIT_SIZE;
    std::printf("%8u %10" PRIu64 " %16" PRIu64 " %14" PRIu64 " %14" PRIu64 "\n", n, stat.entries, stat.fileBytes,
                inUse, free);
    total.entries += stat.entries;
    total.fileBytes += stat.fileBytes;
    total.usedUnits += inUse;
    total.freeUnits += free;
  }
  std::printf("%8s %10" PRIu64 " %16" PRIu64 " %14" PRIu64 " %14" PRIu64 "\n", "all", total.entries,
              total.fileBytes, total.usedUnits, total.freeUnits);
  return 0;
}

int Check(BoxLVM *box, const std::string &dir) {
  uint64_t faults = 0;
  const auto print = [](void *, uint32_t, const char *line) { std::printf("%s\n", line); };
  if (!BoxLVMCheck(box, print, nullptr, &faults)) return Fail("cannot check the box");
  std::printf("box %s: %u buckets, %" PRIu64 " entries checked, %" PRIu64 " fault%s\n", dir.c_str(),
              BoxLVMBucketCount(box), BoxLVMSize(box), faults, faults == 1 ? "" : "s");
  return faults == 0 ? 0 : 1;
}

int Dump(const std::string &dir) {
  QWStatus *status = StatusRead(dir.c_str());
  if (!status) return Fail("cannot read the status of the box in \"" + dir + "\"");
  const uint64_t buckets = StatusGetParameter(status, BOXLVM_STATUS_BUCKETS);
  StatusFree(status);
  if (buckets == 0 || buckets > 0xFFFF) {
    std::fprintf(stderr, "qwvm box: the status in \"%s\" names %" PRIu64 " buckets\n", dir.c_str(), buckets);
    return 1;
  }
  for (uint64_t n = 0; n < buckets; ++n) {
    const std::string log = dir + "/bucket." + std::to_string(n) + "/log";
    std::printf("bucket %" PRIu64 ": %s\n", n, log.c_str());
    std::fflush(stdout);
    if (!LogDebug_(log.c_str(), 0)) return Fail("cannot read the log of bucket " + std::to_string(n));
  }
  return 0;
}

// Reads the value after a `--buckets` option anywhere among the arguments,
// removing both from `args`; *given tells whether there was one.
bool TakeBuckets(std::vector<std::string> *args, uint32_t *buckets, bool *given) {
  *given = false;
  for (size_t i = 0; i < args->size(); ++i) {
    if ((*args)[i] != "--buckets") continue;
    if (i + 1 >= args->size() || !ParseU32((*args)[i + 1], buckets) || *buckets == 0) return false;
    args->erase(args->begin() + long(i), args->begin() + long(i) + 2);
    *given = true;
    return true;
  }
  return true;
}

}  // namespace

int RunBox(int argc, char **argv) {
  std::vector<std::string> args(argv, argv + argc);
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "help")) {
    BoxUsage(stdout);
    return 0;
  }
  uint32_t buckets = kDefaultBuckets, id = 0;
  bool bucketsGiven = false;
  if (!TakeBuckets(&args, &buckets, &bucketsGiven) || args.size() < 2) return Usage();
  const std::string dir = args[0], verb = args[1];
  const bool takesId = verb == "get" || verb == "put" || verb == "rm";
  const size_t expected = verb == "put" ? 4 : takesId ? 3 : 2;
  if (args.size() != expected || (takesId && !ParseU32(args[2], &id))) return Usage();
  if (verb != "put" && bucketsGiven) return Usage();
  // The box reports its recoveries and commits; the verbs print their own lines.
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  if (verb == "put") return Put(dir, id, args[3].c_str(), buckets);
  if (verb == "rm") return Remove(dir, id);
  if (verb == "dump") return Dump(dir);
  if (verb != "get" && verb != "stat" && verb != "check" && verb != "checkpoint") return Usage();
  const bool writable = verb == "checkpoint";
  BoxLVM *box = OpenBox(dir, writable, false, kDefaultBuckets);
  if (!box) return Fail("cannot open the box in \"" + dir + "\"");
  if (writable) {
    if (CloseDurably(box) != 0) return 1;
    std::printf("box %s: recovered and checkpointed\n", dir.c_str());
    return 0;
  }
  const int status = verb == "get" ? Get(box, id) : verb == "stat" ? Stat(box, dir) : Check(box, dir);
  QWErrorSave();
  BoxLVMClose(box, 0);
  QWErrorRestore();
  return status;
}

}  // namespace qwtool
