// `qwvm dump DIR [--structure NAME] [--progress]` writes the committed state
// of the store in DIR to stdout as text; `qwvm load DIR [--structure NAME]
// [--progress] [FILE]` builds a new store in DIR from such a text (FILE, or
// stdin). The text is described in docs/dump-format.md; the arena part is
// dump_arena.*, boxes and string tables dump_stores.*.
//
// Load builds the store in DIR.loading-<pid> beside DIR and renames it into
// place only once everything is in and committed: a malformed line (the
// error names it) or any failure leaves no DIR and no half-built store.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"
#include "tools/qwvm/copy_arena.h"
#include "tools/qwvm/dump_arena.h"
#include "tools/qwvm/dump_stores.h"
#include "tools/qwvm/progress.h"
#include "tools/qwvm/store_kind.h"

namespace qwtool {
namespace {

namespace fs = std::filesystem;

void DumpUsage(FILE *out) {
  std::fprintf(out,
               "usage: qwvm dump DIR [--structure NAME] [--progress]\n"
               "       qwvm load DIR [--structure NAME] [--progress] [FILE]\n"
               "  dump writes the committed state of the store in DIR (an arena, a logged arena, a box or a\n"
               "  string table) to stdout as text: a header line, then one record a line (arena arrays by\n"
               "  name, block arrays block by block, large-element arrays element by element, box entries,\n"
               "  string-table pairs; bytes printable or \\xHH), then \"end N\". load builds a new store in\n"
               "  DIR (which must not exist) from such a text read from FILE or stdin; dump(load(dump(x)))\n"
               "  is dump(x). A malformed line is reported with its number and nothing is left behind.\n"
               "  The format is described in docs/dump-format.md.\n"
               "  --structure NAME  only that structure: an array name, a name prefix such as tour/words,\n"
               "                    a large-element array's path; \"entries\" for a box, \"pairs\" for a\n"
               "                    string table\n"
               "  --progress        print progress (records) on stderr even when it is not a terminal\n"
               "  Exit status 0 on success, 1 on failure, 2 on bad arguments.\n");
}

struct Options {
  std::string dir, structure, file;
  bool progress = false;
};

// -1 when the arguments are good, else the exit status.
int ParseOptions(int argc, char **argv, bool load, Options *options) {
  if (AsksHelp(argc, argv)) {
    DumpUsage(stdout);
    return 0;
  }
  options->progress = Progress::TakeFlag(&argc, argv);
  std::vector<std::string> operands;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--structure") == 0 && i + 1 < argc) options->structure = argv[++i];
    else operands.push_back(argv[i]);
  }
  if (operands.empty() || operands.size() > (load ? 2u : 1u) || operands[0].rfind("--", 0) == 0) {
    DumpUsage(stderr);
    return 2;
  }
  options->dir = operands[0];
  if (operands.size() == 2) options->file = operands[1];
  return -1;
}

// The one structure name a box or a string table answers to.
const char *SoleStructure(StoreKind kind) { return kind == StoreKind::kBox ? "entries" : "pairs"; }

bool DumpStore(const Options &options, StoreKind kind, DumpWriter *out) {
  if ((kind == StoreKind::kBox || kind == StoreKind::kStrTable) && !options.structure.empty() &&
      options.structure != SoleStructure(kind))
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "a %s has one structure, \"%s\"", StoreKindName(kind),
                        SoleStructure(kind)) != 0;
  const char *dir = options.dir.c_str();
  bool ok = false;
  if (kind == StoreKind::kArena) {
    PageCache *cache = PageCacheNew(64 << 20, 8192);
    VMArena *arena =
        cache ? VMArenaOpen(dir, VM_FLAG_READ_ONLY, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache) : nullptr;
    if (arena) {
      out->Record({kDumpMagic, std::to_string(kDumpVersion), "arena", std::to_string(VMArenaBucketCount(arena))});
      ok = DumpArena(arena, options.structure, {}, out);
      VMArenaClose(arena);
    }
    if (cache) PageCacheFree(cache);
  } else if (kind == StoreKind::kLoggedArena) {
    LoggedVM *lvm = LoggedVMOpen(dir, 1, 0, 1, nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
    if (lvm) {
      VMArena *arena = LoggedVMArenaGet(lvm);
      out->Record(
          {kDumpMagic, std::to_string(kDumpVersion), "logged_arena", std::to_string(VMArenaBucketCount(arena))});
      ok = DumpArena(arena, options.structure, {"lvm/serial"}, out);
      QWErrorSave();
      LoggedVMClose(lvm);
      QWErrorRestore();
      UnAllocate(lvm);
    }
  } else if (kind == StoreKind::kBox) {
    BoxLVM *box = BoxLVMOpen(dir, 1, 1, 1, 0, 1, nullptr);
    if (box) {
      out->Record({kDumpMagic, std::to_string(kDumpVersion), "box", std::to_string(BoxLVMBucketCount(box))});
      ok = DumpBoxEntries(box, out);
      QWErrorSave();
      BoxLVMClose(box, 0);
      QWErrorRestore();
    }
  } else if (kind == StoreKind::kStrTable) {
    LoggedStrTable *table = OpenStrTableReadOnly(options.dir);
    if (table) {
      BoxLVM *box = BoxLVMOpen((options.dir + "/box").c_str(), 1, 1, 1, 0, 1, nullptr);
      const uint32_t buckets = box ? BoxLVMBucketCount(box) : 0;
      if (box) BoxLVMClose(box, 0);
      out->Record({kDumpMagic, std::to_string(kDumpVersion), "strtable", std::to_string(buckets)});
      ok = buckets > 0 && DumpStrTablePairs(table, out);
      LoggedStrTableClose(table, 0);
    }
  } else {
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "a %s is not dumped", StoreKindName(kind)) != 0;
  }
  return ok;
}

// Whether the record belongs to the structure `only` ("" for all).
bool InStructure(const std::vector<std::string> &fields, const std::string &only) {
  if (only.empty() || fields.size() < 2) return true;
  if (fields[0] == "entry") return only == "entries";
  if (fields[0] == "pair") return only == "pairs";
  std::string name;
  return Unescape(fields[1], &name) && (name == only || name.rfind(only + "/", 0) == 0);
}

// Reads every record after the header and hands the selected ones to `take`.
template <typename Take>
bool ReadRecords(DumpReader *reader, const std::string &only, Progress *progress, Take take) {
  std::vector<std::string> fields;
  while (reader->Next(&fields)) {
    if (InStructure(fields, only) && !take(fields)) return false;
    progress->Add(1);
  }
  return !QWErrorIsSet();
}

bool LoadStore(DumpReader *reader, const std::string &kind, uint32_t buckets, const std::string &dir,
               const std::string &only, Progress *progress) {
  const char *path = dir.c_str();
  if (kind == "arena" || kind == "logged_arena") {
    const bool logged = kind == "logged_arena";
    PageCache *cache = logged ? nullptr : PageCacheNew(64 << 20, 8192);
    LoggedVM *lvm = logged
                        ? LoggedVMOpen(path, buckets, 1, 0, nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr)
                        : nullptr;
    VMArena *arena =
        logged ? (lvm ? LoggedVMArenaGet(lvm) : nullptr)
               : (cache ? VMArenaOpen(path, VM_FLAG_CREATE, buckets, STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, cache)
                        : nullptr);
    bool ok = arena != nullptr;
    if (ok) {
      ArenaLoader loader(arena);
      ok = ReadRecords(reader, only, progress,
                       [&](const std::vector<std::string> &f) { return loader.Add(f, *reader); }) &&
           loader.Finish(*reader);
    }
    if (ok)
      ok = logged ? LoggedVMCheckpoint(lvm, 1, LVM_NO_SERIAL) != 0 : VMArenaCommit(arena, nullptr, nullptr, 0) != 0;
    QWErrorSave();
    if (lvm) LoggedVMClose(lvm), UnAllocate(lvm);
    else if (arena) VMArenaClose(arena);
    if (cache) PageCacheFree(cache);
    QWErrorRestore();
    return ok;
  }
  if (kind == "box") {
    BoxLVM *box = BoxLVMOpen(path, buckets, 1, 1, 1, 0, nullptr);
    if (!box) return false;
    bool ok = ReadRecords(reader, only, progress,
                          [&](const std::vector<std::string> &f) { return LoadBoxEntry(box, f, *reader); }) &&
              BoxLVMCheckpoint(box, 1, nullptr);
    QWErrorSave();
    BoxLVMClose(box, 0);
    QWErrorRestore();
    return ok;
  }
  LoggedStrTable *table = LoggedStrTableOpen(path, buckets, 1, 1, 0, nullptr);
  LoggedStrTableThreadData *threadData = LoggedStrTableThreadDataNew();
  bool ok =
      table && threadData &&
      ReadRecords(reader, only, progress,
                  [&](const std::vector<std::string> &f) { return LoadStrTablePair(table, threadData, f, *reader); }) &&
      LoggedStrTableCheckpoint(table, 1);
  QWErrorSave();
  LoggedStrTableThreadDataFree(threadData);
  if (table) LoggedStrTableClose(table, 0);
  QWErrorRestore();
  return ok;
}

}  // namespace

int RunDump(int argc, char **argv) {
  Options options;
  const int refused = ParseOptions(argc, argv, false, &options);
  if (refused >= 0) return refused;
  const StoreKind kind = DetectStoreKind(options.dir);
  if (kind == StoreKind::kNone) {
    std::fprintf(stderr, "%s: no qwvm store found (dump takes one store, not a tree)\n", options.dir.c_str());
    return 1;
  }
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  Progress progress("dump", "records", options.progress);
  DumpWriter out(stdout, &progress);
  if (!DumpStore(options, kind, &out)) return FailWithChain("dump", "cannot dump \"" + options.dir + "\"");
  if (!out.Finish()) {
    std::fprintf(stderr, "qwvm dump: cannot write the dump\n");
    return 1;
  }
  return 0;
}

int RunLoad(int argc, char **argv) {
  Options options;
  const int refused = ParseOptions(argc, argv, true, &options);
  if (refused >= 0) return refused;
  if (PathExists(options.dir)) {
    std::fprintf(stderr, "qwvm load: \"%s\" exists; load builds a new store\n", options.dir.c_str());
    return 1;
  }
  FILE *in = options.file.empty() ? stdin : std::fopen(options.file.c_str(), "rb");
  if (!in) {
    std::fprintf(stderr, "qwvm load: cannot open \"%s\": %s\n", options.file.c_str(), std::strerror(errno));
    return 1;
  }
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  DumpReader reader(in);
  std::vector<std::string> header;
  uint64_t version = 0, buckets = 0;
  const std::string tmp = BuildDirectory(options.dir, ".loading");
  Progress progress("load", "records", options.progress);
  bool ok = reader.Next(&header);
  if (ok && (header.size() != 4 || header[0] != kDumpMagic))
    ok = reader.Bad("not a qwvm dump (the first line is \"%s <version> <kind> <buckets>\")", kDumpMagic);
  ok = ok && ParseNumber(reader, header[1], UINT32_MAX, &version) && ParseNumber(reader, header[3], 65536, &buckets);
  if (ok && (version != kDumpVersion || buckets == 0))
    ok = reader.Bad("version %llu with %llu buckets is not loaded (this qwvm reads version %u)",
                    (unsigned long long)version, (unsigned long long)buckets, kDumpVersion);
  if (ok && header[2] != "arena" && header[2] != "logged_arena" && header[2] != "box" && header[2] != "strtable")
    ok = reader.Bad("unknown store kind \"%s\"", header[2].c_str());
  ok = ok && LoadStore(&reader, header[2], uint32_t(buckets), tmp, options.structure, &progress);
  progress.Finish();
  if (in != stdin) std::fclose(in);
  ok = ok && PublishDirectory(tmp, options.dir);
  if (ok) return 0;
  const int status = FailWithChain("load", "cannot load \"" + options.dir + "\"");
  std::error_code error;
  fs::remove_all(tmp, error);
  return status;
}

}  // namespace qwtool
