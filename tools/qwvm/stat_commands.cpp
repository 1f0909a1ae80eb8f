// `qwvm stat DIR [--json] [--serial OLD NEW]`: the figures of every store in
// DIR (DIR itself, or every store in the tree below it; see store_kind.h).
//
// Without --json a plain arena prints its bucket servers, arrays and free
// lists as it always has; the other kinds print their figures one per line.
// With --json the output is one JSON document (integers are JSON numbers):
//
//   every store     {"path": string, "kind": "arena" | "logged_arena" | "box" |
//                    "strtable" | "sort", ...the kind's fields...}
//                   or, when the store does not open, {"path", "kind",
//                   "error": the error chain}
//   serial          a log position: {"file": n, "offset": n}, or null for none
//   arena           "buckets": n, "serials": {"old": n|null, "new": n|null}
//                   (null: the fixed-name generation files), "file_bytes": n,
//                   "bucket_servers": [{"bucket", "free_raw_blocks_old",
//                   "free_raw_blocks_new", "free_blocks", "max_used_raw_id"
//                   (-1 when empty), "used_raw_blocks", "total_raw_blocks"}],
//                   "committed": {"arrays": n, "total_size": bytes held,
//                   "free_lists": [{"size": class bytes, "free": ids}] (16)}
//   logged_arena    "arena_serial": serial, "log": {"first_serial": serial,
//                   "last_serial": serial, "first_file", "last_file", "bytes",
//                   "records"}, "arena": the arena fields of DIR/vm
//   box             "bucket_count", "entries", "unit_size" (bytes),
//                   "file_bytes", "free_bytes", "buckets": [{"bucket",
//                   "entries", "used_units", "total_units", "free_units",
//                   "free_bytes", "file_bytes"}]
//   strtable        "keys", "key_bytes", "value_bytes", "box": the box fields
//                   of DIR/box
//   sort            "file_bytes"
//   a tree          {"path": DIR, "kind": "tree", "stores": [one document per store]}
//
// The arena figures are the ones the library prints (LocalBlockServer0StatPrint,
// VMAArenaStatPrint), read back from that output. Exit status 0, 1 when a
// store does not open or DIR holds none, 2 on bad arguments.
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"
#include "tools/qwvm/store_kind.h"

namespace qwtool {
namespace {

void StatUsage(FILE *out) {
  std::fprintf(out,
               "usage: qwvm stat DIR [--json] [--serial OLD NEW]\n"
               "  Prints the figures of the stores in DIR (an arena, a logged arena, a box, a string table,\n"
               "  a sort directory, or a tree of directories holding them), read-only:\n"
               "    arena         each bucket server's raw blocks and free lists, the committed arrays\n"
               "                  and the free ids of each size class\n"
               "    logged arena  the arena serial, the log's first and last serial, files and bytes,\n"
               "                  and the figures of its arena\n"
               "    box           per bucket: entries, used and total units, free units and bytes, data\n"
               "                  file bytes\n"
               "    string table  keys, key and value bytes, and the figures of its box\n"
               "    sort          the bytes of its files\n"
               "  --json  one JSON document: {\"path\", \"kind\", ...}; kind is arena, logged_arena, box,\n"
               "          strtable or sort, with these fields (a serial is {\"file\", \"offset\"} or null):\n"
               "    arena         buckets, serials {old, new}, file_bytes, bucket_servers [{bucket,\n"
               "                  free_raw_blocks_old, free_raw_blocks_new, free_blocks, max_used_raw_id,\n"
               "                  used_raw_blocks, total_raw_blocks}], committed {arrays, total_size,\n"
               "                  free_lists [{size, free}]}\n"
               "    logged_arena  arena_serial, log {first_serial, last_serial, first_file, last_file,\n"
               "                  bytes, records}, arena {the arena fields}\n"
               "    box           bucket_count, entries, unit_size, file_bytes, free_bytes, buckets\n"
               "                  [{bucket, entries, used_units, total_units, free_units, free_bytes,\n"
               "                  file_bytes}]\n"
               "    strtable      keys, key_bytes, value_bytes, box {the box fields}\n"
               "    sort          file_bytes\n"
               "          a store that does not open has \"error\" instead; a tree of stores is\n"
               "          {\"path\", \"kind\": \"tree\", \"stores\": [one document per store]}\n"
               "  --serial OLD NEW  open the generation files of these serials (a plain arena only)\n");
}

// An ordered JSON object of figures, printed as JSON or as text.
class Figures {
 public:
  template <typename Integer>
  Figures &Number(const std::string &key, Integer value) {
    return Add(key, Kind::kNumber, std::to_string(value));
  }
  Figures &Text(const std::string &key, const std::string &value) { return Add(key, Kind::kText, value); }
  Figures &Null(const std::string &key) { return Add(key, Kind::kNull, "none"); }
  Figures &Object(const std::string &key, Figures value) { return Add(key, Kind::kObject, "", {std::move(value)}); }
  Figures &List(const std::string &key, std::vector<Figures> items) {
    return Add(key, Kind::kList, "", std::move(items));
  }
  Figures &Append(const Figures &other) {
    members_.insert(members_.end(), other.members_.begin(), other.members_.end());
    return *this;
  }
  Figures &Serial(const std::string &key, uint64_t serial) {
    if (serial == LOG_NO_SERIAL) return Null(key);
    return Object(key, Figures().Number("file", LOG_SERIAL_FILE(serial)).Number("offset", LOG_SERIAL_OFFSET(serial)));
  }

  std::string Json() const {
    std::string out = "{";
    for (const Member &member : members_) {
      if (out.size() > 1) out += ", ";
      out += Quoted(member.key) + ": ";
      if (member.kind == Kind::kNumber) out += member.scalar;
      else if (member.kind == Kind::kText) out += Quoted(member.scalar);
      else if (member.kind == Kind::kNull) out += "null";
      else if (member.kind == Kind::kObject) out += member.children[0].Json();
      else {
        out += "[";
        for (size_t i = 0; i < member.children.size(); ++i) out += (i ? ", " : "") + member.children[i].Json();
        out += "]";
      }
    }
    return out + "}";
  }

  // One line per figure; an object of plain figures (and each item of a
  // list) on one line, anything deeper indented below its key.
  void PrintText(const std::string &indent) const {
    for (const Member &member : members_) {
      if (member.kind == Kind::kList) {
        for (const Figures &item : member.children) item.PrintItem(indent, member.key);
      } else if (member.kind == Kind::kObject) {
        member.children[0].PrintItem(indent, member.key);
      } else {
        std::printf("%s%s: %s\n", indent.c_str(), member.key.c_str(), member.scalar.c_str());
      }
    }
  }

 private:
  enum class Kind { kNumber, kText, kNull, kObject, kList };
  struct Member {
    std::string key;
    Kind kind;
    std::string scalar;
    std::vector<Figures> children;
  };

  Figures &Add(const std::string &key, Kind kind, std::string scalar, std::vector<Figures> children = {}) {
    members_.push_back({key, kind, std::move(scalar), std::move(children)});
    return *this;
  }

  bool Flat() const {
    for (const Member &member : members_)
      if (member.kind == Kind::kObject || member.kind == Kind::kList) return false;
    return true;
  }

  void PrintItem(const std::string &indent, const std::string &key) const {
    if (!Flat()) {
      std::printf("%s%s:\n", indent.c_str(), key.c_str());
      PrintText(indent + "  ");
      return;
    }
    std::string line;
    for (const Member &member : members_) line += (line.empty() ? "" : ", ") + member.key + " " + member.scalar;
    std::printf("%s%s: %s\n", indent.c_str(), key.c_str(), line.c_str());
  }

  static std::string Quoted(const std::string &text) {
    std::string out = "\"";
    for (const char c : text) {
      if (c == '"' || c == '\\') out += std::string("\\") + c;
      else if (static_cast<unsigned char>(c) < 0x20) {
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\u%04x", unsigned(c));
        out += escape;
      } else out += c;
    }
    return out + "\"";
  }

  std::vector<Member> members_;
};

// What `print` writes on standard output (through stdio), captured.
std::string CaptureOutput(const std::function<void()> &print) {
  std::fflush(stdout);
  FILE *temp = std::tmpfile();
  const int saved = temp ? dup(STDOUT_FILENO) : -1;
  if (saved < 0 || dup2(fileno(temp), STDOUT_FILENO) < 0) {
    if (temp) std::fclose(temp);
    if (saved >= 0) close(saved);
    return "";
  }
  print();
  std::fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  std::string text;
  std::rewind(temp);
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, temp)) > 0;) text.append(buffer, n);
  std::fclose(temp);
  return text;
}

uint64_t DirectoryBytes(const std::string &dir) {
  namespace fs = std::filesystem;
  uint64_t bytes = 0;
  std::error_code error;
  for (fs::recursive_directory_iterator it(dir, error), end; !error && it != end; it.increment(error))
    if (it->is_regular_file(error)) bytes += it->file_size(error);
  return bytes;
}

Figures ServerFigures(VMArena *arena, uint32_t bucket) {
  const std::string text = CaptureOutput([&] { LocalBlockServer0StatPrint(VMArenaBucketServer(arena, bucket)); });
  int freeOld = 0, freeNew = 0, freeBlocks = 0, maxUsed = -1, used = 0, total = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::sscanf(line.c_str(), "freeRawBlock old = %d, new = %d, freeBlock = %d", &freeOld, &freeNew, &freeBlocks);
    std::sscanf(line.c_str(), "max used raw id %d", &maxUsed);
    std::sscanf(line.c_str(), "used raw blocks = %d, total raw block = %d", &used, &total);
  }
  return Figures()
      .Number("bucket", bucket)
      .Number("free_raw_blocks_old", freeOld)
      .Number("free_raw_blocks_new", freeNew)
      .Number("free_blocks", freeBlocks)
      .Number("max_used_raw_id", maxUsed)
      .Number("used_raw_blocks", used)
      .Number("total_raw_blocks", total);
}

Figures CommittedFigures(VMArena *arena) {
  const std::string text = CaptureOutput([&] { VMAArenaStatPrint(arena, OLDGEN); });
  uint64_t arrays = 0;
  unsigned long long totalSize = 0;
  std::vector<Figures> freeLists;
  bool inFreeLists = false;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    int size = 0;
    unsigned free = 0;
    // An array's "length = " line may follow its name or an empty array's
    // sizes on the same line.
    if (line.find("length = ") != std::string::npos) ++arrays;
    if (line.find("totalSize = ") != std::string::npos) line.erase(0, line.find("totalSize = "));
    if (line == "Dumping free lists") inFreeLists = true;
    else if (std::sscanf(line.c_str(), "totalSize = %llu", &totalSize) == 1) continue;
    else if (inFreeLists && std::sscanf(line.c_str(), "size = %d, free = %u", &size, &free) == 2)
      freeLists.push_back(Figures().Number("size", size).Number("free", free));
  }
  return Figures().Number("arrays", arrays).Number("total_size", totalSize).List("free_lists", std::move(freeLists));
}

void AddArenaFigures(VMArena *arena, Figures *figures) {
  uint64_t serials[2] = {STATUS_NO_SERIAL, STATUS_NO_SERIAL};
  VMArenaSerials(arena, &serials[0], &serials[1]);
  Figures generations;
  for (int g = 0; g < 2; ++g) {
    if (serials[g] == STATUS_NO_SERIAL) generations.Null(g ? "new" : "old");
    else generations.Number(g ? "new" : "old", serials[g]);
  }
  std::vector<Figures> servers;
  for (uint32_t i = 0; i < VMArenaBucketCount(arena); ++i) servers.push_back(ServerFigures(arena, i));
  figures->Number("buckets", VMArenaBucketCount(arena))
      .Object("serials", std::move(generations))
      .Number("file_bytes", DirectoryBytes(VMArenaPath(arena)))
      .List("bucket_servers", std::move(servers))
      .Object("committed", CommittedFigures(arena));
}

// Each kind's figures; false with the error set when the store does not open.
bool LoggedArenaFigures(const std::string &dir, Figures *figures) {
  LoggedVM *lvm = LoggedVMOpen(dir.c_str(), 1, 0, 1, nullptr, 0, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
  if (!lvm) return false;
  QWLog *log = LoggedVMLogGet(lvm);
  const uint64_t arenaSerial = LoggedVMArenaSerialGet(lvm);
  uint32_t firstFile = 0, lastFile = 0;
  uint64_t bytes = 0;
  LogWalk walk;
  const bool ok = LogFiles(log, &firstFile, &lastFile, &bytes) && ReadWholeLog(log, arenaSerial, &walk);
  if (ok) {
    Figures arena;
    AddArenaFigures(LoggedVMArenaGet(lvm), &arena);
    figures->Serial("arena_serial", arenaSerial)
        .Object("log", Figures()
                           .Serial("first_serial", walk.first)
                           .Serial("last_serial", LogLastSerial(log))
                           .Number("first_file", firstFile)
                           .Number("last_file", lastFile)
                           .Number("bytes", bytes)
                           .Number("records", walk.records))
        .Object("arena", std::move(arena));
  }
  QWErrorSave();
  LoggedVMClose(lvm);
  QWErrorRestore();
  UnAllocate(lvm);
  return ok;
}

bool BoxFigures(const std::string &dir, Figures *figures) {
  BoxLVM *box = BoxLVMOpen(dir.c_str(), 1, 1, 1, 0, 1, nullptr);
  if (!box) return false;
  std::vector<Figures> buckets;
  uint64_t fileBytes = 0, freeBytes = 0;
  bool ok = true;
  for (uint32_t n = 0; ok && n < BoxLVMBucketCount(box); ++n) {
    BoxLVMBucketStat stat;
    if (!(ok = BoxLVMBucketStatGet(box, n, &stat) != 0)) break;
    const uint64_t free = (stat.freeUnits + stat.totalUnits - stat.usedUnits) * BOXLVM_UNIT_SIZE;
    fileBytes += stat.fileBytes;
    freeBytes += free;
    buckets.push_back(Figures()
                          .Number("bucket", n)
                          .Number("entries", stat.entries)
                          .Number("used_units", stat.usedUnits)
                          .Number("total_units", stat.totalUnits)
                          .Number("free_units", stat.freeUnits)
                          .Number("free_bytes", free)
                          .Number("file_bytes", stat.fileBytes));
  }
  if (ok)
    figures->Number("bucket_count", BoxLVMBucketCount(box))
        .Number("entries", BoxLVMSize(box))
        .Number("unit_size", BOXLVM_UNIT_SIZE)
        .Number("file_bytes", fileBytes)
        .Number("free_bytes", freeBytes)
        .List("buckets", std::move(buckets));
  QWErrorSave();
  BoxLVMClose(box, 0);
  QWErrorRestore();
  return ok;
}

bool StrTableFigures(const std::string &dir, Figures *figures) {
  LoggedStrTable *table = OpenStrTableReadOnly(dir);
  if (!table) return false;
  StrTableCounts counts;
  const bool counted = CountStrTableKeys(table, &counts);
  QWErrorSave();
  LoggedStrTableClose(table, 0);
  QWErrorRestore();
  Figures box;
  if (!counted || !BoxFigures(dir + "/box", &box)) return false;
  figures->Number("keys", counts.keys)
      .Number("key_bytes", counts.keyBytes)
      .Number("value_bytes", counts.valueBytes)
      .Object("box", std::move(box));
  return true;
}

struct StatOptions {
  bool json = false;
  uint64_t oldSerial = STATUS_NO_SERIAL, newSerial = STATUS_NO_SERIAL;
  PageCache *cache = nullptr;
};

// One store's document (or, for a plain arena without --json, its printed
// statistics); false when it does not open.
bool StoreFigures(const FoundStore &store, const StatOptions &options, Figures *figures) {
  figures->Text("path", store.path).Text("kind", StoreKindToken(store.kind));
  Figures body;
  bool ok = true;
  if (store.kind == StoreKind::kArena) {
    VMArena *arena = OpenArenaForInspection(store.path, options.oldSerial, options.newSerial, options.cache);
    if ((ok = arena != nullptr)) {
      if (options.json) AddArenaFigures(arena, &body);
      else PrintArenaStat(arena);
      VMArenaClose(arena);
    }
  } else if (store.kind == StoreKind::kLoggedArena) {
    ok = LoggedArenaFigures(store.path, &body);
  } else if (store.kind == StoreKind::kBox) {
    ok = BoxFigures(store.path, &body);
  } else if (store.kind == StoreKind::kStrTable) {
    ok = StrTableFigures(store.path, &body);
  } else {
    body.Number("file_bytes", DirectoryBytes(store.path));
  }
  if (!ok) {
    std::string chain = QWErrorMessage();
    while (!chain.empty() && chain.back() == '\n') chain.pop_back();
    std::fprintf(stderr, "qwvm stat: cannot read the %s in \"%s\":\n%s\n", StoreKindName(store.kind),
                 store.path.c_str(), chain.c_str());
    figures->Text("error", chain);
    QWErrorClear();
    return false;
  }
  figures->Append(body);
  if (!options.json && store.kind != StoreKind::kArena) {
    std::printf("%s: %s\n", store.path.c_str(), StoreKindName(store.kind));
    body.PrintText("  ");
  }
  return true;
}

}  // namespace

int RunStat(int argc, char **argv) {
  std::vector<std::string> args(argv, argv + argc);
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "help")) {
    StatUsage(stdout);
    return 0;
  }
  StatOptions options;
  for (size_t i = 0; i < args.size(); ++i)
    if (args[i] == "--json") {
      options.json = true;
      args.erase(args.begin() + long(i));
      break;
    }
  StoreArguments found;
  const int refused = FindStoresToInspect(args, "stat", StatUsage, &found);
  if (refused >= 0) return refused;
  options.oldSerial = found.oldSerial;
  options.newSerial = found.newSerial;
  const bool single = found.stores.size() == 1 && found.stores[0].path == found.root;
  options.cache = PageCacheNew(64 << 20, 8192);
  if (!options.cache) {
    std::fprintf(stderr, "qwvm stat: %s\n", QWErrorMessage());
    return 1;
  }
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  bool ok = true;
  std::vector<Figures> documents;
  for (const FoundStore &store : found.stores) {
    if (!options.json && !documents.empty()) std::printf("\n");
    documents.emplace_back();
    ok = StoreFigures(store, options, &documents.back()) && ok;
  }
  PageCacheFree(options.cache);
  if (options.json) {
    const Figures document = single ? documents[0]
                                    : Figures().Text("path", found.root).Text("kind", "tree").List("stores", documents);
    std::printf("%s\n", document.Json().c_str());
  }
  return ok ? 0 : 1;
}

}  // namespace qwtool
