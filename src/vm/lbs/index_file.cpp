// Index files of a block server: writing them at a flush, committing them,
// and reading a generation back (at open and at a mount).
//
// New index: block size (8 bytes), raw size (8), the block map (FArray raw
// form, width 4), freeRawBlocksOld, freeRawBlocksNew and the free block list
// (packed 32-bit arrays). Old index: the block map only.
//
// A file is written to a channel, synced and closed before anything logs,
// renames or relies on it; a file that could not be written completely is
// removed. Reading never trusts the file: every raw id must lie within the
// data file's committed blocks and be used once, every free block must be
// unmapped; the sets are then reconciled with the old map so that
// invariants I1-I4 (server.h) hold.
#include <cerrno>
#include <initializer_list>
#include <memory>
#include <vector>

#include "qwvm/qwfile.h"
#include "qwvm/vmarena.h"
#include "util/packed.h"
#include "vm/atomicf/atomicf.h"
#include "vm/lbs/names.h"
#include "vm/lbs/server.h"

namespace qw::vm {
namespace {

using ULL = unsigned long long;

constexpr uint8_t kInNew = 1;
constexpr uint8_t kInFreeOld = 2;
constexpr uint8_t kInFreeNew = 4;
constexpr uint8_t kInOld = 8;

struct ChannelCloser {
  void operator()(QWChannel *channel) const {
    QWErrorSave();
    (void)ChannelClose(channel);
    QWErrorRestore();
  }
};
using ChannelPtr = std::unique_ptr<QWChannel, ChannelCloser>;

ChannelPtr OpenChannel(const std::string &path, const char *mode) {
  QWChannel *channel = ChannelNew(0);
  if (!channel) return nullptr;
  ChannelPtr owned(channel);
  if (!ChannelOpenFile(channel, path.c_str(), mode)) return nullptr;
  return owned;
}

[[nodiscard]] bool CloseChannel(ChannelPtr *channel) { return ChannelClose(channel->release()) != 0; }

struct Unallocator {
  void operator()(uint8_t *memory) const { UnAllocate(memory); }
};
using Marks = std::unique_ptr<uint8_t, Unallocator>;

// Zeroed bytes, one per raw id.
Marks NewMarks(uint64_t count) { return Marks(static_cast<uint8_t *>(Allocate(count ? size_t(count) : 1))); }

// A write that failed part way leaves no file that a later commit or
// recovery could mistake for a complete one.
void Abandon(ChannelPtr *channel, const std::string &path) {
  channel->reset();
  QWErrorSave();
  (void)FileRemove(path.c_str());
  QWErrorRestore();
}

// Opens `path` for writing and lets `body` write it; the whole content is
// handed to the file (a crash stop after this finds it complete), nothing is
// synced. A failed write leaves no file. `who` names the flush in the
// messages.
template <typename Body>
[[nodiscard]] ChannelPtr BeginIndexFile(const std::string &path, const char *who, Body &&body) {
  ChannelPtr channel = OpenChannel(path, "w");
  if (!channel) {
    QWErrorRethrow("%s: could not write data on: \"%s\"", who, path.c_str());
    return nullptr;
  }
  bool written = body(channel.get());
  if (written && !ChannelFlush(channel.get()))
    written = QWErrorRethrow("%s: could not write data on: \"%s\"", who, path.c_str());
  if (!written) {
    Abandon(&channel, path);
    return nullptr;
  }
  return channel;
}

// Closes a written and synced index file and logs its creation.
[[nodiscard]] bool FinishIndexFile(ChannelPtr *channel, const std::string &path, const char *who,
                                   ReplicationLog *log) {
  if (!CloseChannel(channel)) {
    QWErrorRethrow("%s: could not close: \"%s\"", who, path.c_str());
    Abandon(channel, path);
    return false;
  }
  if (log && !ReplicationLogWrite(log, REPLICATION_FILE_CREATED, 0, 0, path.c_str(), nullptr, 0))
    return QWErrorRethrow("IndexFileFlushNew: could not log file creation");
  return true;
}

// Writes, syncs, closes and logs one index file on its own.
template <typename Body>
[[nodiscard]] bool WriteIndexFile(const std::string &path, const char *who, ReplicationLog *log, Body &&body) {
  ChannelPtr channel = BeginIndexFile(path, who, body);
  if (!channel) return false;
  if (!ChannelSync(channel.get())) {
    QWErrorRethrow("%s: could not sync: \"%s\"", who, path.c_str());
    Abandon(&channel, path);
    return false;
  }
  return FinishIndexFile(&channel, path, who, log);
}

struct NewGenContent {
  uint64_t rsize;
  const FArray *blockMap;
  const uint32_t *freeRawBlocksOld;
  const uint32_t *freeRawBlocksNew;
  const uint32_t *freeBlocks;
};

[[nodiscard]] bool IndexFileNewGenWrite(QWChannel *channel, const NewGenContent &content) {
  if (!packed::WriteScalar(channel, content.rsize, 8) || !FArrayWriteRaw_(content.blockMap, channel, 4) ||
      !packed::WriteArray(channel, content.freeRawBlocksOld, ArrayLength(content.freeRawBlocksOld), 4) ||
      !packed::WriteArray(channel, content.freeRawBlocksNew, ArrayLength(content.freeRawBlocksNew), 4) ||
      !packed::WriteArray(channel, content.freeBlocks, ArrayLength(content.freeBlocks), 4))
    return QWErrorRethrow("IndexFileNewGenWrite: could not write data");
  return true;
}

constexpr const char *kFlushNew = "IndexFileFlushNew";
constexpr const char *kFlushOld = "IndexFileFlushOld";

auto NewIndexBody(const std::string &path, uint32_t blockSize, const NewGenContent &content) {
  return [&path, blockSize, &content](QWChannel *channel) {
    if (!packed::WriteScalar(channel, blockSize, 8))
      return QWErrorRethrow("IndexFileFlushNew: could not write block size");
    if (!IndexFileNewGenWrite(channel, content))
      return QWErrorRethrow("IndexFileFlushNew: could not write data on: \"%s\"", path.c_str());
    return 1;
  };
}

auto OldIndexBody(const std::string &path, const FArray *blockMap) {
  return [&path, blockMap](QWChannel *channel) {
    if (!FArrayWriteRaw_(blockMap, channel, 4)) {
      QWErrorRethrow("IndexFileOldGenWrite: could not write data");
      return QWErrorRethrow("IndexFileFlushOld: could not write data on: \"%s\"", path.c_str());
    }
    return 1;
  };
}

[[nodiscard]] bool WriteNewIndex(const std::string &path, uint32_t blockSize, const NewGenContent &content,
                                 ReplicationLog *log) {
  return WriteIndexFile(path, kFlushNew, log, NewIndexBody(path, blockSize, content));
}

[[nodiscard]] bool WriteOldIndex(const std::string &path, const FArray *blockMap, ReplicationLog *log) {
  return WriteIndexFile(path, kFlushOld, log, OldIndexBody(path, blockMap));
}

// A flush's index file: written, its sync in the caller's round.
[[nodiscard]] bool BeginFlushFile(LocalBlockServer0 *server, std::string path, const char *who, ChannelPtr channel,
                                  SyncRound *round) {
  if (!channel) return false;
  round->AddChannel(channel.get(), StringPrintf("%s: could not sync: \"%s\"", who, path.c_str()));
  server->pendingIndexFiles.push_back({channel.release(), std::move(path), who});
  return true;
}

// The new generation's content after the block size; also opens the data
// file on the first read.
[[nodiscard]] bool ReadNewGenBody(LocalBlockServer0 *server, QWChannel *channel, GenerationImage *image) {
  const char *path = ChannelPath(channel);
  uint64_t rsize = 0;
  if (!packed::ReadScalar(channel, 8, &rsize)) return QWErrorRethrow("IndexFileNewGenRead: could not read data");
  if (rsize % server->fileBlockSize != 0 || rsize / server->blockSize >= INVALID_RAW_BLOCK_ID)
    return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "IndexFileNewGenRead: invalid raw size %llu in \"%s\"",
                        ULL(rsize), path);
  MemoryMapping *mapping = &server->mapping;
  if (!MemoryMappingIsOpen(mapping) &&
      !MemoryMappingOpen(mapping, server->directory.c_str(), "data", server->suffix.c_str(), server->flags,
                         server->blockSize, server->minBlockCount, server->readOnly, server->cache, server->log))
    return QWErrorRethrow("IndexFileNewGenRead: could not initialize mapping");
  uint64_t fileSize = 0;
  if (!MemoryMappingFileSize(mapping, &fileSize))
    return QWErrorRethrow("IndexFileNewGenRead: could not check data file size");
  // A longer file is fine: what lies beyond rsize was never committed.
  if (fileSize < rsize)
    return QWErrorThrow(ENOENT, QW_ERROR_CLASS_DATA,
                        "IndexFileNewGenRead: cannot mount data file: file size mismatch (file size=%llu  rsize=%llu)",
                        ULL(fileSize), ULL(rsize));
  image->rsize = rsize;
  if (!FArrayReadRaw_(&image->blockMap, channel, 4)) return QWErrorRethrow("IndexFileNewGenRead: could not read data");
  if (FArrayLength(&image->blockMap) >= INVALID_BLOCK_ID)
    return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "IndexFileNewGenRead: too many blocks in \"%s\"", path);
  if (!packed::ReadArray(channel, &image->freeRawBlocksOld.p, 4))
    return QWErrorRethrow("IndexFileNewGenRead: could not read data");
  QWMessage(QW_LEVEL_DEBUG, "IndexFileNewGenRead: freeRawBlocksOld");
  if (!packed::ReadArray(channel, &image->freeRawBlocksNew.p, 4))
    return QWErrorRethrow("IndexFileNewGenRead: could not read data");
  QWMessage(QW_LEVEL_DEBUG, "IndexFileNewGenRead: freeRawBlocksNew");
  if (!packed::ReadArray(channel, &image->freeBlocks.p, 4))
    return QWErrorRethrow("IndexFileNewGenRead: could not read data");
  return true;
}

[[nodiscard]] bool MarkFreeList(const uint32_t *list, uint8_t mark, uint8_t *marks, uint64_t rawCount,
                                const char *path) {
  for (size_t i = 0; i < ArrayLength(list); ++i) {
    const uint32_t raw = list[i];
    if (raw >= rawCount)
      return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA,
                          "IndexFileNewGenRead: free raw block %u lies beyond the %llu raw blocks of \"%s\"", raw,
                          ULL(rawCount), path);
    if (marks[raw])
      return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "IndexFileNewGenRead: raw block %u is listed twice in \"%s\"",
                          raw, path);
    marks[raw] = mark;
  }
  return true;
}

// Checks the new generation read from `path` on its own.
[[nodiscard]] bool CheckNewGeneration(GenerationImage *image, uint8_t *marks, uint64_t rawCount, const char *path) {
  const uint64_t blockCount = FArrayLength(&image->blockMap);
  for (uint64_t b = 0; b < blockCount; ++b) {
    const uint32_t raw = MapEntry(&image->blockMap, b);
    if (raw == INVALID_RAW_BLOCK_ID) continue;
    if (raw >= rawCount)
      return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA,
                          "IndexFileNewGenRead: block %llu maps to raw block %u beyond the %llu raw blocks of \"%s\"",
                          ULL(b), raw, ULL(rawCount), path);
    if (marks[raw])
      return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "IndexFileNewGenRead: raw block %u is used twice in \"%s\"",
                          raw, path);
    marks[raw] = kInNew;
  }
  if (!MarkFreeList(image->freeRawBlocksOld, kInFreeOld, marks, rawCount, path) ||
      !MarkFreeList(image->freeRawBlocksNew, kInFreeNew, marks, rawCount, path))
    return false;
  // The flags double as "seen" marks of the free block list here.
  if (!ArrayLengthSet(image->flags.p, size_t(blockCount))) return false;
  for (size_t i = 0; i < image->freeBlocks.size(); ++i) {
    const uint32_t b = image->freeBlocks[i];
    if (b >= blockCount || image->flags[b] || MapEntry(&image->blockMap, b) != INVALID_RAW_BLOCK_ID)
      return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "IndexFileNewGenRead: invalid free block %u in \"%s\"", b,
                          path);
    image->flags[b] = 1;
  }
  return true;
}

[[nodiscard]] bool CheckOldMap(const FArray *oldMap, uint8_t *marks, uint64_t rawCount, const char *path) {
  for (uint64_t b = 0; b < FArrayLength(oldMap); ++b) {
    const uint32_t raw = MapEntry(oldMap, b);
    if (raw == INVALID_RAW_BLOCK_ID) continue;
    if (raw >= rawCount || (marks[raw] & kInOld))
      return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA,
                          "IndexFileOldGenRead: invalid raw block %u for block %llu in \"%s\"", raw, ULL(b), path);
    marks[raw] |= kInOld;
  }
  return true;
}

// Moves raw ids to the free list the invariants want: raw blocks the old
// generation uses are free only after the next commit, the others at once.
[[nodiscard]] bool ReconcileFreeLists(GenerationImage *image, const FArray *oldMap, uint8_t *marks) {
  QwArray<uint32_t> freeOld, freeNew;
  if (!freeOld.Init() || !freeNew.Init() || !freeOld.Reserve(image->freeRawBlocksOld.size()) ||
      !freeNew.Reserve(image->freeRawBlocksNew.size()))
    return false;
  uint64_t moved = 0;
  for (const QwArray<uint32_t> *list : {&image->freeRawBlocksOld, &image->freeRawBlocksNew}) {
    for (size_t i = 0; i < list->size(); ++i) {
      const uint32_t raw = (*list)[i];
      const bool usedByOld = (marks[raw] & kInOld) != 0;
      if (usedByOld != (list == &image->freeRawBlocksNew)) ++moved;
      if (!(usedByOld ? freeNew.Append(raw) : freeOld.Append(raw))) return false;
    }
  }
  for (uint64_t b = 0; b < FArrayLength(oldMap); ++b) {
    const uint32_t raw = MapEntry(oldMap, b);
    if (raw == INVALID_RAW_BLOCK_ID || (marks[raw] & (kInNew | kInFreeOld | kInFreeNew))) continue;
    ++moved;  // used by the old generation only, and on no list: a leak
    if (!freeNew.Append(raw)) return false;
  }
  if (moved)
    QWMessage(QW_LEVEL_WARNING, "IndexFileNewGenRead: %llu free raw blocks were put on the list of their generation",
              ULL(moved));
  image->freeRawBlocksOld.Swap(freeOld);
  image->freeRawBlocksNew.Swap(freeNew);
  return true;
}

// Flags: a block whose raw block the old generation reads is shared (its
// first write copies it); any other is already this generation's.
[[nodiscard]] bool SetFlags(GenerationImage *image, const uint8_t *marks) {
  const uint64_t blockCount = FArrayLength(&image->blockMap);
  image->modifiedBlocks.Clear();
  for (uint64_t b = 0; b < blockCount; ++b) {
    const uint32_t raw = MapEntry(&image->blockMap, b);
    if (raw == INVALID_RAW_BLOCK_ID || (marks[raw] & kInOld)) {
      image->flags[b] = BLOCK_FLAG_SHARED;
    } else {
      image->flags[b] = BLOCK_FLAG_COPIED;
      if (!image->modifiedBlocks.Append(uint32_t(b))) return false;
    }
  }
  return true;
}

[[nodiscard]] bool Reconcile(LocalBlockServer0 *server, GenerationImage *image, const FArray *oldMap,
                             const std::string &newPath, const std::string &oldPath) {
  const uint64_t rawCount = image->rsize / server->blockSize;
  Marks marks = NewMarks(rawCount);
  if (!marks) return false;
  return CheckNewGeneration(image, marks.get(), rawCount, newPath.c_str()) &&
         CheckOldMap(oldMap, marks.get(), rawCount, oldPath.c_str()) &&
         ReconcileFreeLists(image, oldMap, marks.get()) && SetFlags(image, marks.get());
}

[[nodiscard]] bool ReadNewIndex(LocalBlockServer0 *server, const std::string &path, bool mount,
                                GenerationImage *image) {
  ChannelPtr channel = OpenChannel(path, "r");
  if (!channel)
    return mount ? QWErrorRethrow("could not read new generation from file \"%s\"", path.c_str())
                 : QWErrorRethrow("LocalBlockServer0Read: could not open file \"%s\"", path.c_str());
  uint64_t blockSize = 0;
  if (!packed::ReadScalar(channel.get(), 8, &blockSize))
    return QWErrorRethrow("LocalBlockServer0Read: could not read block size from file \"%s\"", path.c_str());
  if (blockSize != server->blockSize)
    return QWErrorThrow(ENOENT, QW_ERROR_CLASS_DATA, "could not open file \"%s\": invalid block size: %llu",
                        path.c_str(), ULL(blockSize));
  if (!ReadNewGenBody(server, channel.get(), image))
    return mount ? QWErrorRethrow("could not read new generation from file \"%s\"", path.c_str()) : false;
  if (!CloseChannel(&channel))
    return mount ? QWErrorRethrow("error closing file \"%s\"", path.c_str())
                 : QWErrorRethrow("LocalBlockServer0Read: could not close file \"%s\"", path.c_str());
  return true;
}

[[nodiscard]] bool IndexFileOldGenRead(QWChannel *channel, FArray *oldMap) {
  if (!FArrayReadRaw_(oldMap, channel, 4)) return QWErrorRethrow("IndexFileOldGenRead: could not read data");
  return true;
}

[[nodiscard]] bool ReadOldIndex(const std::string &path, bool mount, FArray *oldMap) {
  ChannelPtr channel = OpenChannel(path, "r");
  if (!channel || !IndexFileOldGenRead(channel.get(), oldMap))
    return mount ? QWErrorRethrow("could not read old generation from file \"%s\"", path.c_str())
                 : QWErrorRethrow("LocalBlockServer0Read: could not open file \"%s\"", path.c_str());
  if (!CloseChannel(&channel))
    return mount ? QWErrorRethrow("error closing file \"%s\"", path.c_str())
                 : QWErrorRethrow("LocalBlockServer0Read: could not close file \"%s\"", path.c_str());
  return true;
}

// The new generation of `image` replaces the server's; the read-write part
// starts afresh above the committed size (for a mount, the current one: the
// mounted size takes over at the memory commit).
[[nodiscard]] bool InstallNewGeneration(LocalBlockServer0 *server, GenerationImage *image, bool mount) {
  auto *rw_gen = &server->rwGen;
  {
    ScopedMutex lock(rw_gen->mutex);
    std::swap(rw_gen->blockMap, image->blockMap);
    rw_gen->flags.Swap(image->flags);
    rw_gen->freeRawBlocksOld.Swap(image->freeRawBlocksOld);
    rw_gen->freeRawBlocksNew.Swap(image->freeRawBlocksNew);
    rw_gen->freeBlocks.Swap(image->freeBlocks);
    rw_gen->modifiedBlocks.Swap(image->modifiedBlocks);
    rw_gen->freeRawBlocksOldNext.Clear();
    server->rsize = image->rsize;
  }
  MemoryMapping *mapping = &server->mapping;
  if (!MemoryMappingRemapWrite(mapping, mount ? mapping->rsize : image->rsize))
    return QWErrorRethrow("IndexFileNewGenRead: could not free read-write part");
  // Pages cached before this read may be of another generation's file.
  if (!mount && !MemoryMappingRemapRead(mapping, true))
    return QWErrorRethrow("IndexFileNewGenRead: could not map read-write part");
  return true;
}

// Commits index<suffix><kind>.new; 0 (no message of its own) when the
// atomic commit fails.
[[nodiscard]] int IndexFileCommit(const char *directory, const char *suffix, const char *kind, bool durable) {
  const std::string name = IndexFileName(suffix, kind);
  const std::string pending = StringPrintf("%s/%s.new", directory, name.c_str());
  // Already committed (or never written): finish an interrupted commit, if
  // any, and leave the rest alone.
  if (!FileExists(pending.c_str())) return FileAtomicRecover(directory, name.c_str());
  if (!durable) return FileAtomicCommitUnsynced(directory, name.c_str());
  return FileAtomicCommit(directory, name.c_str());
}

}  // namespace

bool ReadGeneration(LocalBlockServer0 *server, uint64_t oldSerial, uint64_t newSerial, bool mount,
                    GenerationImage *image) {
  const std::string newPath = IndexFilePath(server->directory, server->suffix, ".new", newSerial);
  const std::string oldPath = IndexFilePath(server->directory, server->suffix, ".old", oldSerial);
  if (newSerial == STATUS_NO_SERIAL &&
      !FileAtomicRecover(server->directory.c_str(), IndexFileName(server->suffix, ".new").c_str()))
    return QWErrorRethrow("LocalBlockServer0Read: could not recover file \"%s\"", newPath.c_str());
  if (oldSerial == STATUS_NO_SERIAL &&
      !FileAtomicRecover(server->directory.c_str(), IndexFileName(server->suffix, ".old").c_str()))
    return QWErrorRethrow("LocalBlockServer0Read: could not recover file \"%s\"", oldPath.c_str());
  return ReadNewIndex(server, newPath, mount, image) && ReadOldIndex(oldPath, mount, &image->oldMap) &&
         Reconcile(server, image, &image->oldMap, newPath, oldPath);
}

bool InstallGeneration(LocalBlockServer0 *server, GenerationImage *image, bool mount) {
  {
    ScopedMutex lock(server->rwGen.mutex);
    std::swap(mount ? server->oldMapNext : server->oldMap, image->oldMap);
  }
  return InstallNewGeneration(server, image, mount);
}

bool IndexFilesWrite(LocalBlockServer0 *server, SyncRound *round) {
  const auto *rw_gen = &server->rwGen;
  const NewGenContent content{server->rsize, &rw_gen->blockMap, rw_gen->freeRawBlocksOld, rw_gen->freeRawBlocksNew,
                              rw_gen->freeBlocks};
  const std::string newPath = IndexFileFlushPath(server->directory, server->suffix, ".new", server->flushedSerialNew);
  const std::string oldPath = IndexFileFlushPath(server->directory, server->suffix, ".old", server->flushedSerialOld);
  return BeginFlushFile(server, newPath, kFlushNew,
                        BeginIndexFile(newPath, kFlushNew, NewIndexBody(newPath, server->blockSize, content)), round) &&
         BeginFlushFile(server, oldPath, kFlushOld,
                        BeginIndexFile(oldPath, kFlushOld, OldIndexBody(oldPath, &rw_gen->blockMap)), round);
}

bool IndexFilesFinish(LocalBlockServer0 *server) {
  std::vector<PendingIndexFile> pending;
  pending.swap(server->pendingIndexFiles);
  bool ok = true;
  for (PendingIndexFile &file : pending) {
    ChannelPtr channel(file.channel);
    if (ok)
      ok = FinishIndexFile(&channel, file.path, file.who, server->log);
    else
      Abandon(&channel, file.path);
  }
  if (!ok) return false;
  // What the memory commit installs is what is on disk: the old index (the
  // last one written) read back.
  const std::string &path = pending.back().path;
  ChannelPtr channel = OpenChannel(path, "r");
  if (!channel || !IndexFileOldGenRead(channel.get(), &server->oldMapNext) || !CloseChannel(&channel))
    return QWErrorRethrow("IndexFileFlushOld: could not read data on: \"%s\"", path.c_str());
  const uint64_t rawCount = server->rsize / server->blockSize;
  for (uint64_t b = 0; b < FArrayLength(&server->oldMapNext); ++b) {
    const uint32_t raw = MapEntry(&server->oldMapNext, b);
    if (raw != INVALID_RAW_BLOCK_ID && raw >= rawCount)
      return QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "IndexFileFlushOld: could not read data on: \"%s\"",
                          path.c_str());
  }
  return true;
}

void IndexFilesAbandon(LocalBlockServer0 *server) {
  for (PendingIndexFile &file : server->pendingIndexFiles) {
    ChannelPtr channel(file.channel);
    Abandon(&channel, file.path);
  }
  server->pendingIndexFiles.clear();
}

bool LocalBlockServer0InitialCreate(const char *directory, const char *suffix, uint64_t serial, uint32_t blockSize,
                                    ReplicationLog *log) {
  // The data file comes first: a crash before the index files exist leaves
  // a server that the next open creates again.
  const std::string dataPath = DataFilePath(directory, suffix);
  QWFILE file = QWFILE_INVALID;
  if (!QWFileOpen(&file, dataPath.c_str(), QWFILE_READ | QWFILE_WRITE | QWFILE_CREATE) || !QWFileClose(file)) {
    QWErrorRethrow("error creating file \"%s\"", dataPath.c_str());
    return QWErrorRethrow("LocalBlockServer0InitialCreate: could not create data file");
  }
  if (log && !ReplicationLogWrite(log, REPLICATION_FILE_CREATED, 0, 0, dataPath.c_str(), nullptr, 0)) {
    QWErrorRethrow("error logging file creation \"%s\"", dataPath.c_str());
    return QWErrorRethrow("LocalBlockServer0InitialCreate: could not create data file");
  }
  if (!DirectorySync(directory)) return QWErrorRethrow("LocalBlockServer0InitialCreate: could not create data file");
  FArray empty{};
  if (!InitBlockMap(&empty)) return false;
  const NewGenContent content{0, &empty, nullptr, nullptr, nullptr};
  const std::string newPath = IndexFileFlushPath(directory, suffix, ".new", serial);
  const std::string oldPath = IndexFileFlushPath(directory, suffix, ".old", serial);
  bool written;
  if (serial == STATUS_NO_SERIAL) {
    written = WriteNewIndex(newPath, blockSize, content, log) && WriteOldIndex(oldPath, &empty, log) &&
              IndexFileCommitNew(directory, suffix) && IndexFileCommitOld(directory, suffix);
  } else {
    // A serialised index is never renamed once it has its name, so it gets
    // the name only when it is complete.
    written = WriteNewIndex(newPath + ".tmp", blockSize, content, nullptr) &&
              WriteOldIndex(oldPath + ".tmp", &empty, nullptr) &&
              FileRename((newPath + ".tmp").c_str(), newPath.c_str()) &&
              FileRename((oldPath + ".tmp").c_str(), oldPath.c_str()) && DirectorySync(directory);
    for (const std::string *path : {&newPath, &oldPath})
      if (written && log && !ReplicationLogWrite(log, REPLICATION_FILE_CREATED, 0, 0, path->c_str(), nullptr, 0))
        written = QWErrorRethrow("IndexFileFlushNew: could not log file creation");
  }
  (void)FArrayFree(&empty);
  return written;
}

int IndexFileCommitNew(const char *directory, const char *suffix, bool durable) {
  if (IndexFileCommit(directory, suffix, ".new", durable)) return 1;
  return QWErrorRethrow("IndexFileCommitNew: could not atomically commit: \"%s/%s\"", directory,
                        IndexFileName(suffix, ".new").c_str());
}

int IndexFileCommitOld(const char *directory, const char *suffix, bool durable) {
  if (IndexFileCommit(directory, suffix, ".old", durable)) return 1;
  return QWErrorRethrow("IndexFileCommitOld: could not atomically commit: \"%s/%s\"", directory,
                        IndexFileName(suffix, ".old").c_str());
}

}  // namespace qw::vm

extern "C" {

// Reads a new-generation index's content (after its block size) into the
// server, checked against the server's committed map.
QW_API int IndexFileNewGenRead(LocalBlockServer0 *server, QWChannel *channel) {
  using namespace qw::vm;
  GenerationImage image;
  const std::string path = ChannelPath(channel);
  const std::string oldPath = IndexFilePath(server->directory, server->suffix, ".old", server->serial_old);
  if (!image.Init() || !ReadNewGenBody(server, channel, &image) ||
      !Reconcile(server, &image, &server->oldMap, path, oldPath) ||
      !InstallNewGeneration(server, &image, server->mounted))
    return 0;
  return 1;
}

}  // extern "C"
