// Filling the durability journal: the hooks that the file, path and mapping
// functions call while tracking is on (see durability_state.h for the
// invariants and fault.h for the model).
#include "platform/qwlib/durability.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>

#include "platform/qwlib/durability_state.h"
#include "platform/qwlib/posix_io.h"

namespace qw::fault::track {
namespace {

constexpr size_t kNoFile = size_t(-1);
constexpr char kBackupPrefix[] = ".qwfault-backup-";

FileKey KeyOf(const struct stat &info) { return FileKey{info.st_dev, info.st_ino}; }

// Absolute, lexically normal, without a trailing slash: names are compared
// and replayed in this form.
std::string Absolute(const char *path) {
  std::error_code ignored;
  std::string result = std::filesystem::absolute(path, ignored).lexically_normal().string();
  while (result.size() > 1 && result.back() == '/') result.pop_back();
  return result;
}

std::string Parent(const std::string &absolutePath) {
  std::string parent = std::filesystem::path(absolutePath).parent_path().string();
  return parent.empty() ? "/" : parent;
}

void AddDirectoryOf(const std::string &absolutePath, std::vector<DirKey> *dirs) {
  struct stat info;
  if (stat(Parent(absolutePath).c_str(), &info) != 0) return;
  const DirKey key = KeyOf(info);
  if (std::find(dirs->begin(), dirs->end(), key) == dirs->end()) dirs->push_back(key);
}

size_t Adopt(Journal &journal, const FileKey &key, OwnedFd fd) {
  auto found = journal.fileIndex.find(key);
  if (found != journal.fileIndex.end()) return found->second;
  if (fd.get() < 0) return kNoFile;
  journal.files.push_back(TrackedFile{key, std::move(fd)});
  journal.fileIndex.emplace(key, journal.files.size() - 1);
  return journal.files.size() - 1;
}

// The journal entry of the inode behind `fd`, with a read-write descriptor
// of our own (the caller's may be write-only, and may be closed before the
// power loss).
size_t Register(Journal &journal, int fd) {
  struct stat info;
  if (fstat(fd, &info) != 0) return kNoFile;
  const FileKey key = KeyOf(info);
  if (journal.fileIndex.count(key)) return journal.fileIndex[key];
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  int own = open(self.c_str(), O_RDWR | O_CLOEXEC);
  if (own < 0) own = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  return Adopt(journal, key, OwnedFd(own));
}

size_t RegisterPath(Journal &journal, const char *path) {
  OwnedFd fd(open(path, O_RDWR | O_CLOEXEC));
  struct stat info;
  if (fd.get() < 0 || fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode)) return kNoFile;
  return Adopt(journal, KeyOf(info), std::move(fd));
}

// Reads [offset, offset + size) of a tracked file, clipped at its end.
std::vector<char> ReadRange(int fd, uint64_t offset, uint64_t size) {
  std::vector<char> bytes(size);
  size_t done = 0;
  if (!io::ReadFull(fd, bytes.data(), bytes.size(), offset, &done)) done = 0;
  bytes.resize(done);
  return bytes;
}

void RecordSetSize(Journal &journal, size_t file, uint64_t newSize) {
  const int fd = journal.files[file].fd.get();
  uint64_t size = 0;
  if (!io::GetSize(fd, &size)) return;
  DataRecord record;
  record.file = file;
  record.setSize = true;
  record.offset = newSize;
  record.sizeBefore = size;
  if (newSize < size) record.oldBytes = ReadRange(fd, newSize, size - newSize);
  journal.data.push_back(std::move(record));
}

// Reloads the durable bytes of every mapped range of `file` that overlaps
// [begin, end) from the file itself (page cache and mappings are coherent).
void RefreshMappedRanges(Journal &journal, size_t file, uint64_t begin, uint64_t end) {
  const int fd = journal.files[file].fd.get();
  for (MappedRange &range : journal.maps) {
    if (range.file != file) continue;
    const uint64_t from = std::max(begin, range.offset);
    const uint64_t to = std::min(end, range.offset + range.durable.size());
    if (from >= to) continue;
    size_t done = 0;
    if (!io::ReadFull(fd, range.durable.data() + (from - range.offset), to - from, from, &done)) continue;
  }
}

void ForgetBackup(const NameRecord &record) {
  if (!record.backup.empty()) unlink(record.backup.c_str());
}

}  // namespace

Journal &TheJournal() {
  static Journal journal;
  return journal;
}

void ClearLocked(Journal &journal) {
  for (const NameRecord &record : journal.names) ForgetBackup(record);
  journal.names.clear();
  journal.data.clear();
  journal.maps.clear();
  journal.fileIndex.clear();
  journal.files.clear();
}

void Clear() noexcept {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  ClearLocked(journal);
}

void BeforeWrite(int fd, uint64_t offset, const void *data, size_t size) noexcept {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  const size_t file = Register(journal, fd);
  if (file == kNoFile) return;
  const int own = journal.files[file].fd.get();
  DataRecord record;
  record.file = file;
  record.offset = offset;
  if (!io::GetSize(own, &record.sizeBefore)) return;
  if (offset < record.sizeBefore)
    record.oldBytes = ReadRange(own, offset, std::min<uint64_t>(size, record.sizeBefore - offset));
  const char *bytes = static_cast<const char *>(data);
  record.newBytes.assign(bytes, bytes + size);
  journal.data.push_back(std::move(record));
}

void BeforeSetSize(int fd, uint64_t size) noexcept {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  const size_t file = Register(journal, fd);
  if (file != kNoFile) RecordSetSize(journal, file, size);
}

void BeforePathSetSize(const char *path, uint64_t size) noexcept {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  const size_t file = RegisterPath(journal, path);
  if (file != kNoFile) RecordSetSize(journal, file, size);
}

void AfterFileSync(int fd) noexcept {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  struct stat info;
  if (fstat(fd, &info) != 0) return;
  auto found = journal.fileIndex.find(KeyOf(info));
  if (found == journal.fileIndex.end()) return;
  const size_t file = found->second;
  std::erase_if(journal.data, [file](const DataRecord &record) { return record.file == file; });
  // fsync also writes back pages dirtied through mappings, unmapped or not.
  std::erase_if(journal.maps,
                [file](const MappedRange &range) { return range.file == file && range.address == nullptr; });
  RefreshMappedRanges(journal, file, 0, UINT64_MAX);
}

void AfterCreate(const char *path) noexcept {
  NameRecord record;
  record.kind = NameRecord::Create;
  record.path = Absolute(path);
  AddDirectoryOf(record.path, &record.pendingDirs);
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  journal.names.push_back(std::move(record));
}

bool IsBackupName(const char *name) noexcept {
  return std::strncmp(name, kBackupPrefix, sizeof kBackupPrefix - 1) == 0;
}

namespace {

// Hard-links the regular file at `path` to a fresh hidden name beside it.
std::string LinkBackup(const char *path) {
  struct stat info;
  if (lstat(path, &info) != 0 || !S_ISREG(info.st_mode)) return "";
  uint64_t sequence;
  {
    Journal &journal = TheJournal();
    std::lock_guard<std::mutex> lock(journal.mutex);
    sequence = ++journal.backupSequence;
  }
  std::string backup =
      Parent(Absolute(path)) + "/" + kBackupPrefix + std::to_string(getpid()) + "-" + std::to_string(sequence);
  return link(path, backup.c_str()) == 0 ? backup : "";
}

void RecordName(NameRecord record) {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  journal.names.push_back(std::move(record));
}

}  // namespace

Preserved BeforeRename(const char *from, const char *to) noexcept {
  Preserved kept;
  struct stat source, target;
  if (lstat(to, &target) != 0) return kept;
  if (lstat(from, &source) == 0 && KeyOf(source) == KeyOf(target)) {
    kept.noEffect = true;
    return kept;
  }
  kept.targetWasDirectory = S_ISDIR(target.st_mode);
  kept.backup = LinkBackup(to);
  return kept;
}

void AfterRename(const char *from, const char *to, const Preserved &kept, bool succeeded) noexcept {
  if (!succeeded || kept.noEffect) {
    if (!kept.backup.empty()) unlink(kept.backup.c_str());
    return;
  }
  NameRecord record;
  record.kind = NameRecord::Rename;
  record.path = Absolute(from);
  record.target = Absolute(to);
  record.backup = kept.backup;
  record.targetWasDirectory = kept.targetWasDirectory;
  AddDirectoryOf(record.path, &record.pendingDirs);
  AddDirectoryOf(record.target, &record.pendingDirs);
  RecordName(std::move(record));
}

Preserved BeforeRemove(const char *path) noexcept {
  Preserved kept;
  kept.backup = LinkBackup(path);
  return kept;
}

void AfterRemove(const char *path, const Preserved &kept, bool succeeded) noexcept {
  if (!succeeded) {
    if (!kept.backup.empty()) unlink(kept.backup.c_str());
    return;
  }
  NameRecord record;
  record.kind = NameRecord::Remove;
  record.path = Absolute(path);
  record.backup = kept.backup;
  AddDirectoryOf(record.path, &record.pendingDirs);
  RecordName(std::move(record));
}

// A directory made or removed: pending until its parent is synced.
void RecordDirectoryChange(NameRecord::Kind kind, const char *path) noexcept {
  NameRecord record;
  record.kind = kind;
  record.path = Absolute(path);
  AddDirectoryOf(record.path, &record.pendingDirs);
  RecordName(std::move(record));
}

void AfterMkdir(const char *path) noexcept { RecordDirectoryChange(NameRecord::Mkdir, path); }

void AfterRmdir(const char *path) noexcept { RecordDirectoryChange(NameRecord::Rmdir, path); }

void AfterDirectorySync(const char *path) noexcept {
  struct stat info;
  if (stat(path, &info) != 0) return;
  const DirKey synced = KeyOf(info);
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  std::erase_if(journal.names, [&synced](NameRecord &record) {
    std::erase(record.pendingDirs, synced);
    if (!record.pendingDirs.empty()) return false;
    ForgetBackup(record);  // durable: the replaced file is gone for good
    return true;
  });
}

void AfterMap(int fd, void *address, uint64_t offset, uint64_t length) noexcept {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  const size_t file = Register(journal, fd);
  if (file == kNoFile) return;
  MappedRange range;
  range.file = file;
  range.address = static_cast<char *>(address);
  range.offset = offset;
  range.durable = ReadRange(journal.files[file].fd.get(), offset, length);
  journal.maps.push_back(std::move(range));
}

void AfterMapSync(const void *address, uint64_t length) noexcept {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  const char *begin = static_cast<const char *>(address);
  for (const MappedRange &range : journal.maps) {
    if (range.address == nullptr || begin < range.address || begin >= range.address + range.durable.size()) continue;
    const uint64_t from = range.offset + uint64_t(begin - range.address);
    RefreshMappedRanges(journal, range.file, from, from + length);
    return;
  }
}

void AfterUnmap(const void *address) noexcept {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  for (MappedRange &range : journal.maps)
    if (range.address == address) range.address = nullptr;
}

}  // namespace qw::fault::track
