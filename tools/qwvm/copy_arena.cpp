// The arena part of `qwvm copy`; the argument is in copy_arena.h.
#include "tools/qwvm/copy_arena.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <unordered_map>

#include "qwvm/qwvm.h"
#include "util/packed.h"

namespace qwtool {
namespace {

namespace fs = std::filesystem;
constexpr uint64_t kBlockSize = 8192;
constexpr uint64_t kFileBlocks = 8;  // the data file grows 65536 bytes at a time
constexpr uint32_t kNoRaw = 0xFFFFFFFFu;

// A cursor over a held file's bytes; every read fails cleanly at the end.
struct Reader {
  const std::string &bytes;
  const std::string &path;
  size_t at = 0;

  bool Scalar(unsigned width, uint64_t *value) {
    if (bytes.size() - at < width) return Short();
    *value = 0;
    for (unsigned i = 0; i < width; ++i) *value |= uint64_t(uint8_t(bytes[at + i])) << (8 * i);
    at += width;
    return true;
  }
  // The raw file-array form: width byte, 8-byte count, elements.
  bool RawArray(std::vector<uint32_t> *out) {
    uint64_t width = 0, count = 0;
    if (!Scalar(1, &width) || !Scalar(8, &count)) return false;
    return Elements(width, count, out);
  }
  // The packed form: width byte, 4-byte count, elements.
  bool PackedArray(std::vector<uint32_t> *out) {
    uint64_t width = 0, count = 0;
    if (!Scalar(1, &width) || !Scalar(4, &count)) return false;
    return Elements(width, count, out);
  }
  bool Elements(uint64_t width, uint64_t count, std::vector<uint32_t> *out) {
    if (width < 1 || width > 4) return Bad("element width");
    if (count > (bytes.size() - at) / width) return Short();
    out->resize(count);
    for (uint64_t i = 0; i < count; ++i) {
      uint64_t value = 0;
      (void)Scalar(unsigned(width), &value);
      (*out)[i] = uint32_t(value);
    }
    return true;
  }
  bool Short() { return Bad("file cut short"); }
  bool Bad(const char *what) {
    return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "\"%s\": %s at byte %zu", path.c_str(), what, at) != 0;
  }
};

void PutScalar(std::string *out, uint64_t value, unsigned width) {
  for (unsigned i = 0; i < width; ++i) out->push_back(char(value >> (8 * i)));
}

void PutPacked(std::string *out, const std::vector<uint32_t> &values) {
  uint32_t largest = 0;
  for (uint32_t v : values) largest = v > largest ? v : largest;
  const unsigned width = qw::packed::WidthFor(largest);
  PutScalar(out, width, 1);
  PutScalar(out, values.size(), 4);
  for (uint32_t v : values) PutScalar(out, v, width);
}

void PutRaw(std::string *out, const std::vector<uint32_t> &values) {
  PutScalar(out, 4, 1);
  PutScalar(out, values.size(), 8);
  for (uint32_t v : values) PutScalar(out, v, 4);
}

std::string Hex(size_t n) {
  char buffer[24];
  std::snprintf(buffer, sizeof buffer, "%zx", n);
  return buffer;
}

bool CopyBlock(int from, const std::string &fromPath, uint64_t fromRaw, int to, const std::string &toPath,
               uint64_t toRaw) {
  char block[kBlockSize];
  const ssize_t got = pread(from, block, kBlockSize, off_t(fromRaw * kBlockSize));
  if (got != ssize_t(kBlockSize))
    return got < 0 ? QWErrorThrowErrno(errno, "cannot read \"%s\"", fromPath.c_str()) != 0
                   : QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "\"%s\": raw block %llu lies past the end of the file",
                                  fromPath.c_str(), (unsigned long long)fromRaw) != 0;
  if (pwrite(to, block, kBlockSize, off_t(toRaw * kBlockSize)) != ssize_t(kBlockSize))
    return QWErrorThrowErrno(errno, "cannot write \"%s\"", toPath.c_str()) != 0;
  return true;
}

}  // namespace

bool PathExists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 || errno != ENOENT;
}

bool ReadWhole(int fd, const std::string &path, std::string *bytes) {
  bytes->clear();
  char buffer[1 << 16];
  for (off_t at = 0;;) {
    const ssize_t got = pread(fd, buffer, sizeof buffer, at);
    if (got < 0) return QWErrorThrowErrno(errno, "cannot read \"%s\"", path.c_str()) != 0;
    if (got == 0) return true;
    bytes->append(buffer, size_t(got));
    at += got;
  }
}

bool WriteWhole(const std::string &path, const std::string &bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd < 0) return QWErrorThrowErrno(errno, "cannot create \"%s\"", path.c_str()) != 0;
  const bool ok = write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size());
  const int error = errno;
  close(fd);
  return ok || QWErrorThrowErrno(error, "cannot write \"%s\"", path.c_str()) != 0;
}

void ArenaSnapshot::Release() {
  for (HeldFile &file : files_)
    if (file.fd >= 0) close(file.fd);
  files_.clear();
  servers_.clear();
}

bool PublishDirectory(const std::string &built, const std::string &target) {
  const fs::path path(target);
  const std::string parent = path.has_parent_path() ? path.parent_path().string() : ".";
  if (SyncTree(built) && FileRename(built.c_str(), target.c_str()) && DirectorySync(parent.c_str())) return true;
  return QWErrorRethrow("cannot move \"%s\" into place as \"%s\"", built.c_str(), target.c_str()) != 0;
}

std::string BuildDirectory(const std::string &target, const char *what) {
  return target + what + "-" + std::to_string(getpid());
}

bool ArenaSnapshot::HoldFile(const std::string &name, bool *busy) {
  const std::string path = dir_ + "/" + name;
  HeldFile file;
  file.name = name;
  file.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file.fd < 0) {
    // A name is missing for a moment while a commit renames it.
    if (errno == ENOENT && PathExists(dir_ + "/committing")) return !(*busy = true);
    return QWErrorThrowErrno(errno, "cannot open \"%s\"", path.c_str()) != 0;
  }
  files_.push_back(file);
  HeldFile &held = files_.back();
  if (fstat(held.fd, &held.identity) != 0) return QWErrorThrowErrno(errno, "cannot stat \"%s\"", path.c_str()) != 0;
  return ReadWhole(held.fd, path, &held.bytes);
}

bool ArenaSnapshot::Hold(const std::string &dir, bool *busy) {
  Release();
  dir_ = dir;
  *busy = false;
  if (PathExists(dir + "/corrupted"))
    return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "the arena in \"%s\" is tagged corrupted", dir.c_str()) != 0;
  if (!PathExists(dir + "/arena.new") && !PathExists(dir + "/committing"))
    return QWErrorThrow(ENOENT, QW_ERROR_CLASS_SYSTEM,
                        "\"%s\" has no arena.new: not an arena, or a serial-numbered one (not copied)",
                        dir.c_str()) != 0;
  if (PathExists(dir + "/committing")) return !(*busy = true);
  if (!HoldFile("arena.new", busy) || *busy) return false;
  Reader header{files_[0].bytes, files_[0].name};
  uint64_t buckets = 0;
  if (!header.Scalar(8, &buckets)) return false;
  if (buckets == 0 || buckets > 4096)
    return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "\"%s/arena.new\": bad bucket count %llu", dir.c_str(),
                        (unsigned long long)buckets) != 0;
  if (!HoldFile("arena.old", busy) || *busy) return false;
  for (size_t s = 0; s < buckets; ++s)
    for (const char *generation : {".new", ".old"})
      if (!HoldFile("block/index" + Hex(s) + generation, busy) || *busy) return false;
  if (PathExists(dir + "/committing")) return !(*busy = true);
  return Decode();
}

bool ArenaSnapshot::Decode() {
  servers_.resize((files_.size() - 2) / 2);
  for (size_t s = 0; s < servers_.size(); ++s) {
    ServerIndex &server = servers_[s];
    const HeldFile &newIndex = files_[2 + 2 * s], &oldIndex = files_[3 + 2 * s];
    Reader in{newIndex.bytes, newIndex.name};
    uint64_t blockSize = 0;
    std::vector<uint32_t> freeOld, freeNew;
    if (!in.Scalar(8, &blockSize) || !in.Scalar(8, &server.rsize) || !in.RawArray(&server.newMap) ||
        !in.PackedArray(&freeOld) || !in.PackedArray(&freeNew) || !in.PackedArray(&server.freeBlocks))
      return QWErrorRethrow("cannot decode the index files of \"%s\"", dir_.c_str()) != 0;
    if (blockSize != kBlockSize || server.rsize % (kBlockSize * kFileBlocks) != 0)
      return in.Bad("bad block size or raw size");
    Reader old{oldIndex.bytes, oldIndex.name};
    if (!old.RawArray(&server.oldMap)) return false;
    for (const auto *map : {&server.newMap, &server.oldMap})
      for (uint32_t raw : *map)
        if (raw != kNoRaw && raw >= server.rsize / kBlockSize) return in.Bad("raw block beyond the raw size");
  }
  return true;
}

bool ArenaSnapshot::Unchanged() const {
  for (const HeldFile &file : files_) {
    struct stat now;
    if (stat((dir_ + "/" + file.name).c_str(), &now) != 0) return false;
    if (now.st_dev != file.identity.st_dev || now.st_ino != file.identity.st_ino) return false;
  }
  return !PathExists(dir_ + "/committing");
}

uint64_t ArenaSnapshot::BlockCount(bool compact) const {
  uint64_t count = 0;
  for (const ServerIndex &server : servers_)
    for (uint32_t raw : server.newMap) count += raw != kNoRaw;
  if (!compact)
    for (const ServerIndex &server : servers_)
      for (size_t b = 0; b < server.oldMap.size(); ++b)
        count += server.oldMap[b] != kNoRaw && (b >= server.newMap.size() || server.newMap[b] != server.oldMap[b]);
  return count;
}

bool ArenaSnapshot::CopyTo(const std::string &to, bool compact, Progress *progress) const {
  if (!WriteWhole(to + "/arena.new", files_[0].bytes) || !WriteWhole(to + "/arena.old", files_[1].bytes) ||
      !DirectoryCreate((to + "/block").c_str()))
    return false;
  for (size_t s = 0; s < servers_.size(); ++s) {
    const ServerIndex &server = servers_[s];
    if (compact && server.oldMap != server.newMap)
      return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA,
                          "\"%s\": the committed index files of server %zu differ; copy without --compact",
                          dir_.c_str(), s) != 0;
    // Where each raw block goes: the same place, or the next free one.
    std::unordered_map<uint32_t, uint32_t> target;
    uint32_t next = 0;
    for (const auto *map : {&server.newMap, &server.oldMap})
      for (uint32_t raw : *map)
        if (raw != kNoRaw && target.emplace(raw, compact ? next : raw).second) ++next;
    std::string newIndex = files_[2 + 2 * s].bytes, oldIndex = files_[3 + 2 * s].bytes;
    uint64_t rsize = server.rsize;
    if (compact) {
      const uint64_t raws = (next + kFileBlocks - 1) / kFileBlocks * kFileBlocks;
      rsize = raws * kBlockSize;
      std::vector<uint32_t> map = server.newMap, padding;
      for (uint32_t &raw : map) raw = raw == kNoRaw ? raw : target[raw];
      for (uint64_t raw = raws; raw-- > next;) padding.push_back(uint32_t(raw));  // descending, as a flush keeps it
      newIndex.clear();
      PutScalar(&newIndex, kBlockSize, 8);
      PutScalar(&newIndex, rsize, 8);
      PutRaw(&newIndex, map);
      PutPacked(&newIndex, padding);
      PutPacked(&newIndex, {});
      PutPacked(&newIndex, server.freeBlocks);
      oldIndex.clear();
      PutRaw(&oldIndex, map);
    }
    const std::string suffix = Hex(s);
    if (!WriteWhole(to + "/block/index" + suffix + ".new", newIndex) ||
        !WriteWhole(to + "/block/index" + suffix + ".old", oldIndex))
      return false;
    const std::string fromPath = dir_ + "/block/data" + suffix, toPath = to + "/block/data" + suffix;
    const int from = open(fromPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (from < 0) return QWErrorThrowErrno(errno, "cannot open \"%s\"", fromPath.c_str()) != 0;
    const int into = open(toPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    bool ok = into >= 0 && ftruncate(into, off_t(rsize)) == 0;
    if (!ok) QWErrorThrowErrno(errno, "cannot create \"%s\"", toPath.c_str());
    for (auto it = target.begin(); ok && it != target.end(); ++it) {
      ok = CopyBlock(from, fromPath, it->first, into, toPath, it->second);
      progress->Add(1);
    }
    close(from);
    if (into >= 0) close(into);
    if (!ok) return false;
  }
  return true;
}

bool SyncTree(const std::string &root) {
  std::error_code error;
  std::vector<std::string> paths{root};
  for (fs::recursive_directory_iterator it(root, error), end; !error && it != end; it.increment(error))
    paths.push_back(it->path().string());
  if (error) return QWErrorThrow(error.value(), QW_ERROR_CLASS_SYSTEM, "cannot list \"%s\"", root.c_str()) != 0;
  // Files first, then their directories, deepest first.
  std::sort(paths.begin(), paths.end(), [](const std::string &a, const std::string &b) { return a > b; });
  for (const std::string &path : paths) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool ok = fd >= 0 && fsync(fd) == 0;
    const int code = errno;
    if (fd >= 0) close(fd);
    if (!ok) return QWErrorThrowErrno(code, "cannot sync \"%s\"", path.c_str()) != 0;
  }
  return true;
}

}  // namespace qwtool
