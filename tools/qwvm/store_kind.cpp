// Recognising qwvm stores by their files; see store_kind.h.
#include "tools/qwvm/store_kind.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "qwvm/qwvm.h"

namespace qwtool {
namespace {

namespace fs = std::filesystem;

bool IsDirectory(const fs::path &path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

bool HasBucketCount(const std::string &dir) {
  if (!FileExists((dir + "/status").c_str())) return false;
  QWStatus *status = StatusRead(dir.c_str());
  if (!status) {
    QWErrorClear();
    return false;
  }
  const uint64_t buckets = StatusGetParameter(status, BOXLVM_STATUS_BUCKETS);
  StatusFree(status);
  return buckets != 0;
}

bool IsSortJob(const std::string &file) {
  std::ifstream in(file);
  std::string first;
  return std::getline(in, first) && first.rfind("qwvm sort job", 0) == 0;
}

bool HasGenerationFile(const fs::path &dir) {
  std::error_code error;
  for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.rfind("arena.new", 0) == 0 || name.rfind("arena.old", 0) == 0) return true;
  }
  return false;
}

void Walk(const fs::path &dir, std::vector<FoundStore> *found) {
  std::vector<fs::path> children;
  std::error_code error;
  for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error))
    if (!it->is_symlink(error) && IsDirectory(it->path())) children.push_back(it->path());
  std::sort(children.begin(), children.end());
  for (const fs::path &child : children) {
    const StoreKind kind = DetectStoreKind(child.string());
    if (kind != StoreKind::kNone) found->push_back({child.string(), kind});
    else Walk(child, found);
  }
}

}  // namespace

const char *StoreKindName(StoreKind kind) {
  switch (kind) {
    case StoreKind::kArena: return "arena";
    case StoreKind::kLoggedArena: return "logged arena";
    case StoreKind::kBox: return "box";
    case StoreKind::kStrTable: return "string table";
    case StoreKind::kSort: return "sort directory";
    case StoreKind::kNone: break;
  }
  return "nothing";
}

const char *StoreKindToken(StoreKind kind) {
  switch (kind) {
    case StoreKind::kArena: return "arena";
    case StoreKind::kLoggedArena: return "logged_arena";
    case StoreKind::kBox: return "box";
    case StoreKind::kStrTable: return "strtable";
    case StoreKind::kSort: return "sort";
    case StoreKind::kNone: break;
  }
  return "none";
}

StoreKind DetectStoreKind(const std::string &dir) {
  const fs::path path(dir);
  if (!IsDirectory(path)) return StoreKind::kNone;
  const auto has = [&](const char *sub) { return IsDirectory(path / sub); };
  if (has("dict") && has("box")) return StoreKind::kStrTable;
  if (has("bucket.0") && HasBucketCount(dir)) return StoreKind::kBox;
  if (has("log") && has("vm")) return StoreKind::kLoggedArena;
  if ((has("meta") && has("data")) || IsSortJob(dir + "/job")) return StoreKind::kSort;
  if (HasGenerationFile(path)) return StoreKind::kArena;
  return StoreKind::kNone;
}

std::vector<FoundStore> FindStores(const std::string &root) {
  std::vector<FoundStore> found;
  const StoreKind kind = DetectStoreKind(root);
  if (kind != StoreKind::kNone) found.push_back({root, kind});
  else if (IsDirectory(root)) Walk(root, &found);
  return found;
}

int FindStoresToInspect(const std::vector<std::string> &args, const char *command, void (*usage)(FILE *),
                        StoreArguments *found) {
  found->serials = args.size() == 4 && args[1] == "--serial";
  found->oldSerial = found->serials ? std::strtoull(args[2].c_str(), nullptr, 10) : STATUS_NO_SERIAL;
  found->newSerial = found->serials ? std::strtoull(args[3].c_str(), nullptr, 10) : STATUS_NO_SERIAL;
  if (!found->serials && args.size() != 1) {
    usage(stderr);
    return 2;
  }
  found->root = args[0];
  found->stores = FindStores(found->root);
  if (found->stores.empty()) {
    std::fprintf(stderr, "%s: no qwvm store found\n", found->root.c_str());
    return 1;
  }
  const FoundStore &first = found->stores[0];
  if (found->serials && (found->stores.size() != 1 || first.path != found->root || first.kind != StoreKind::kArena)) {
    std::fprintf(stderr, "qwvm %s: --serial applies to a plain arena only, and \"%s\" is not one\n", command,
                 found->root.c_str());
    return 2;
  }
  return -1;
}

}  // namespace qwtool
