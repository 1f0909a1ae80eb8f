// The durability journal's records, shared by durability.cpp (which fills
// it) and power_loss.cpp (which replays it).
//
// Invariants (all under Journal::mutex):
//  - `files` holds one entry per inode touched while tracking, each with a
//    read-write descriptor of our own, so the inode can be restored even
//    after its names are gone; `fileIndex` maps (dev, ino) to the entry.
//  - `data` is in the order the operations happened; every record names an
//    entry of `files`. Undoing the records newest first yields the durable
//    bytes and size of every file (outside mapped ranges).
//  - `maps` holds the last durable bytes of each writable mapped range;
//    `address` is null once the range is unmapped (its dirty pages are still
//    not durable until the file is synced).
//  - `names` is in operation order; each record still waits for the
//    directories in `pendingDirs`; a record's backup file exists exactly as
//    long as the record does.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <compare>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace qw::fault::track {

// An owned descriptor (closed on destruction).
class OwnedFd {
 public:
  OwnedFd() = default;
  explicit OwnedFd(int fd) : fd_(fd) {}
  OwnedFd(OwnedFd &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  OwnedFd &operator=(OwnedFd &&other) noexcept {
    if (this != &other) {
      Close();
      fd_ = other.fd_;
      other.fd_ = -1;
    }
    return *this;
  }
  OwnedFd(const OwnedFd &) = delete;
  OwnedFd &operator=(const OwnedFd &) = delete;
  ~OwnedFd() { Close(); }
  int get() const { return fd_; }

 private:
  void Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  int fd_ = -1;
};

struct FileKey {
  dev_t dev = 0;
  ino_t ino = 0;
  auto operator<=>(const FileKey &) const = default;
};

struct TrackedFile {
  FileKey key;
  OwnedFd fd;  // read-write
};

// One pending write (newBytes) or size change (setSize) of a file.
struct DataRecord {
  size_t file = 0;
  bool setSize = false;
  uint64_t offset = 0;         // write offset, or the new size
  uint64_t sizeBefore = 0;     // file size before the operation
  std::vector<char> oldBytes;  // bytes the operation replaced or cut off, at `offset`
  std::vector<char> newBytes;  // bytes written (writes only)
};

struct MappedRange {
  size_t file = 0;
  char *address = nullptr;  // null once unmapped
  uint64_t offset = 0;      // file offset of the range
  std::vector<char> durable;
};

using DirKey = FileKey;

struct NameRecord {
  enum Kind { Create, Rename, Remove, Mkdir, Rmdir } kind = Create;
  std::string path;    // absolute; the source of a rename
  std::string target;  // rename target
  std::string backup;  // hard link to the replaced or removed file, or ""
  bool targetWasDirectory = false;
  std::vector<DirKey> pendingDirs;
};

struct Journal {
  std::mutex mutex;
  std::vector<TrackedFile> files;
  std::map<FileKey, size_t> fileIndex;
  std::vector<DataRecord> data;
  std::vector<MappedRange> maps;
  std::vector<NameRecord> names;
  uint64_t backupSequence = 0;
};

Journal &TheJournal();

// Forgets everything; removes the backups of the remaining name records.
// Caller holds the mutex.
void ClearLocked(Journal &journal);

}  // namespace qw::fault::track
