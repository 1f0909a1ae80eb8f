// The arena's two generation files.
//
// New-generation file: bucket count (8 bytes); 16 packed 64-bit arrays (the
// free arena block ids of each size class); 16 x (current server block,
// slots handed out) as 4-byte scalars; the free array ids (packed 32-bit);
// the array table as file-array records, each: the block-id list (raw file
// array of 8-byte entries), length (4 bytes), type (1 byte), log2 of the
// block size (1 byte).
//
// Old-generation file: every array's block ids concatenated (packed 64-bit),
// the start offsets (packed 32-bit: 0, then running totals), the lengths
// (packed 32-bit), the types (a byte array: 4-byte count and the raw bytes).
// Files written before the types became a byte array carry a width byte in
// front of the count; the reader takes both forms (see ReadTypes).
//
// Readers validate what later code would trust (ids in range, offsets
// consistent) so that a damaged file fails the open instead of crashing a
// later access.
#include <string>
#include <vector>

#include "platform/qwlib/format.h"
#include "qwvm/qwfile.h"
#include "util/packed.h"
#include "vm/arena/arena.h"

namespace qw::vm {
namespace {

// Owns a channel for the duration of a read or write.
struct ChannelHandle {
  QWChannel *channel = nullptr;
  ~ChannelHandle() {
    if (channel) {
      QWErrorSave();
      ChannelClose(channel);
      QWErrorRestore();
    }
  }
  bool Open(const std::string &path, const char *mode) {
    channel = ChannelNew(0);
    return channel && ChannelOpenFile(channel, path.c_str(), mode);
  }
  // Closes now, reporting a failed close.
  bool Close() {
    QWChannel *closing = channel;
    channel = nullptr;
    return ChannelClose(closing) != 0;
  }
};

bool DataError(const char *what) { return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "%s", what) != 0; }

// A stored arena block id must name a real class, slot and bucket.
bool ValidArenaBlockId(const VMArena *arena, uint64_t id) {
  uint32_t sizeClass = uint32_t(id & 0xF);
  uint32_t slotBits = SlotBits(sizeClass);
  uint64_t slot = (id >> 4) & ((uint64_t(1) << slotBits) - 1);
  uint64_t global = id >> (4 + slotBits);
  if (slot >= ARENA_MAX_BLOCK_SIZE / kClassSizes[sizeClass] || global > 0xFFFFFFFFull) return false;
  return (global & ((uint64_t(1) << arena->bucketBits) - 1)) < arena->bucketCount;
}

int WriteArrayRecord(void *, QWChannel *channel, const void *element, uint64_t) {
  const auto *record = static_cast<const ArrayRecord *>(element);
  return FArrayWriteRaw_(&record->blockID, channel, 8) && packed::WriteScalar(channel, record->length, 4) &&
         packed::WriteScalar(channel, record->type, 1) && packed::WriteScalar(channel, record->log2size, 1);
}

int ReadArrayRecord(void *context, QWChannel *channel, void *element, uint64_t) {
  const auto *arena = static_cast<const VMArena *>(context);
  auto *record = static_cast<ArrayRecord *>(element);
  uint64_t length, type, log2size;
  if (!FArrayInit_(&record->blockCache, 4, 256, nullptr) || !FArrayInit_(&record->blockID, 8, 256, nullptr) ||
      !FArrayReadRaw_(&record->blockID, channel, 8) || !packed::ReadScalar(channel, 4, &length) ||
      !packed::ReadScalar(channel, 1, &type) || !packed::ReadScalar(channel, 1, &log2size))
    return 0;
  record->length = uint32_t(length);
  record->type = uint8_t(type);
  record->log2size = uint8_t(log2size);
  if (type > FULL_BLOCK_ARRAY_TYPE || type == TWO_PART_ARRAY_TYPE || log2size > 13)
    return DataError("invalid array record");
  for (uint64_t i = 0; i < FArrayLength(&record->blockID); ++i)
    if (!ValidArenaBlockId(arena, *static_cast<uint64_t *>(FArrayNth(&record->blockID, i))))
      return DataError("invalid block id in array record");
  return 1;
}

bool WriteNewGeneration(const VMArena *arena, QWChannel *channel) {
  for (const SizeClassState &state : arena->classes)
    if (!packed::WriteArray(channel, state.freeList, ArrayLength(state.freeList), 8)) return false;
  for (const SizeClassState &state : arena->classes)
    if (!packed::WriteScalar(channel, state.currentBlock, 4) || !packed::WriteScalar(channel, state.slotsUsed, 4))
      return false;
  return packed::WriteArray(channel, arena->freeArrayIds, ArrayLength(arena->freeArrayIds), 4) &&
         FArrayWrite_(&arena->arrays, channel, WriteArrayRecord, nullptr);
}

bool ReadNewGeneration(VMArena *arena, QWChannel *channel) {
  for (SizeClassState &state : arena->classes) {
    if (!packed::ReadArray(channel, &state.freeList, 8)) return false;
    for (size_t i = 0; i < ArrayLength(state.freeList); ++i)
      if (!ValidArenaBlockId(arena, state.freeList[i]) || (state.freeList[i] & 0xF) != uint64_t(&state - arena->classes))
        return DataError("invalid block id in a size-class free list");
  }
  for (SizeClassState &state : arena->classes) {
    uint64_t current, slots;
    if (!packed::ReadScalar(channel, 4, &current) || !packed::ReadScalar(channel, 4, &slots)) return false;
    state.currentBlock = uint32_t(current);
    state.slotsUsed = uint32_t(slots);
    uint32_t capacity = ARENA_MAX_BLOCK_SIZE / kClassSizes[&state - arena->classes];
    bool validBlock = current == INVALID_BLOCK_ID || (current & ((1u << arena->bucketBits) - 1)) < arena->bucketCount;
    if (!validBlock || slots >= capacity) return DataError("invalid size-class state");
  }
  if (!packed::ReadArray(channel, &arena->freeArrayIds, 4)) return false;
  ArrayTableFree(arena);
  if (!ArrayTableInit(arena) || !FArrayRead_(&arena->arrays, channel, ReadArrayRecord, arena)) return false;
  for (size_t i = 0; i < ArrayLength(arena->freeArrayIds); ++i)
    if (arena->freeArrayIds[i] >= FArrayLength(&arena->arrays)) return DataError("invalid free array id");
  return true;
}

bool WriteOldGeneration(const VMArena *arena, QWChannel *channel) {
  OldView flat;
  uint64_t arrayCount = FArrayLength(&arena->arrays);
  if (!ArrayInit(flat.blockIds, 8, 0) || !ArrayInit(flat.starts, 4, arrayCount + 1) ||
      !ArrayInit(flat.lengths, 4, arrayCount) || !ArrayInit(flat.types, 1, arrayCount) ||
      !ArrayAppend(flat.starts, 0u))
    return false;
  for (uint64_t i = 0; i < arrayCount; ++i) {
    const auto *record = static_cast<const ArrayRecord *>(FArrayNth(&arena->arrays, i));
    uint64_t blocks = record->blockID.initialised ? FArrayLength(&record->blockID) : 0;
    size_t at = ArrayLength(flat.blockIds);
    if (!ArrayGrow(flat.blockIds, blocks)) return false;
    for (uint64_t b = 0; b < blocks; ++b) flat.blockIds[at + b] = *static_cast<uint64_t *>(FArrayNth(&record->blockID, b));
    if (!ArrayAppend(flat.starts, uint32_t(at + blocks)) || !ArrayAppend(flat.lengths, record->length) ||
        !ArrayAppend(flat.types, record->type))
      return false;
  }
  return packed::WriteArray(channel, flat.blockIds, ArrayLength(flat.blockIds), 8) &&
         packed::WriteArray(channel, flat.starts, ArrayLength(flat.starts), 4) &&
         packed::WriteArray(channel, flat.lengths, ArrayLength(flat.lengths), 4) &&
         packed::WriteBytes(channel, flat.types, uint32_t(ArrayLength(flat.types)));
}

// The types field ends the file and holds one byte per array, so its count
// must equal `arrays`. The byte-array form starts with that count; the older
// form starts with a width byte (1) and then the count. The two read the
// same first four bytes only when `arrays` is 0x01010101, where the current
// form wins.
bool ReadTypes(QWChannel *channel, size_t arrays, uint8_t **types) {
  uint8_t head[4];
  if (!ChannelReadBuf(channel, head, sizeof head)) return false;
  uint64_t count = uint64_t(head[0]) | uint64_t(head[1]) << 8 | uint64_t(head[2]) << 16 | uint64_t(head[3]) << 24;
  if (count != arrays) {
    uint8_t fifth;
    if (!ChannelReadBuf(channel, &fifth, 1)) return false;
    count = uint64_t(head[1]) | uint64_t(head[2]) << 8 | uint64_t(head[3]) << 16 | uint64_t(fifth) << 24;
    if (head[0] != 1 || count != arrays) return DataError("inconsistent old generation tables");
  }
  if (!*types ? !ArrayInit(*types, 1, arrays) : !ArrayLengthSet(*types, 0)) return false;
  if (!ArrayGrow(*types, arrays)) return false;
  return arrays == 0 || ChannelReadBuf(channel, *types, arrays) != 0;
}

bool ReadOldGeneration(const VMArena *arena, QWChannel *channel, OldView *view) {
  view->Free();
  if (!packed::ReadArray(channel, &view->blockIds, 8) || !packed::ReadArray(channel, &view->starts, 4) ||
      !packed::ReadArray(channel, &view->lengths, 4) ||
      !ReadTypes(channel, ArrayLength(view->lengths), &view->types))
    return false;
  size_t arrays = ArrayLength(view->lengths);
  if (ArrayLength(view->starts) != arrays + 1 || ArrayLength(view->types) != arrays || view->starts[0] != 0 ||
      view->starts[arrays] != ArrayLength(view->blockIds))
    return DataError("inconsistent old generation tables");
  for (size_t i = 0; i < arrays; ++i)
    if (view->starts[i] > view->starts[i + 1] || view->types[i] > FULL_BLOCK_ARRAY_TYPE)
      return DataError("inconsistent old generation tables");
  for (size_t i = 0; i < ArrayLength(view->blockIds); ++i)
    if (!ValidArenaBlockId(arena, view->blockIds[i])) return DataError("invalid block id in old generation");
  if (arena->mapped) {
    if (!ArrayInit(view->pointerCache, 4, 0) || !ArrayGrowExact(view->pointerCache, ArrayLength(view->blockIds)))
      return false;
  }
  return true;
}

bool LogCreation(VMArena *arena, const std::string &path, const char *message) {
  if (!arena->replicationLog) return true;
  if (ReplicationLogWrite(arena->replicationLog, REPLICATION_FILE_CREATED, 0, 0, path.c_str(), nullptr, 0)) return true;
  return QWErrorRethrow("%s", message) != 0;
}

std::string FlushTarget(const VMArena *arena, const char *name, uint64_t serial) {
  return serial == STATUS_NO_SERIAL ? ArenaFilePath(arena, name) + ".new" : ArenaSerialPath(arena, name, serial);
}

}  // namespace

void OldView::Free() {
  ArrayFree(pointerCache);
  ArrayFree(blockIds);
  ArrayFree(starts);
  ArrayFree(lengths);
  ArrayFree(types);
}

void OldView::Swap(OldView &other) noexcept {
  std::swap(pointerCache, other.pointerCache);
  std::swap(blockIds, other.blockIds);
  std::swap(starts, other.starts);
  std::swap(lengths, other.lengths);
  std::swap(types, other.types);
}

namespace {

// Keeps a written generation file open with its sync in `round`. Its whole
// content is handed to the file first: a crash stop after this finds it
// complete.
bool Pend(VMArena *arena, ChannelHandle *file, const std::string &path, const char *who, SyncRound *round) {
  if (!ChannelFlush(file->channel)) return QWErrorRethrow("%s: could not write data on: \"%s\"", who, path.c_str());
  round->AddChannel(file->channel, Format("%s: could not sync: \"%s\"", who, path.c_str()));
  arena->pendingFiles.push_back({file->channel, path, who});
  file->channel = nullptr;
  return true;
}

}  // namespace

bool ArenaFileWriteNew(VMArena *arena, SyncRound *round) {
  std::string path = FlushTarget(arena, "arena.new", arena->flushedSerialNew);
  ChannelHandle file;
  if (!file.Open(path, "w"))
    return QWErrorRethrow("VMArenaFileFlushNew: could not write data on: \"%s\"", path.c_str());
  if (!packed::WriteScalar(file.channel, arena->bucketCount, 8))
    return QWErrorRethrow("VMArenaFileFlushNew : could not write bucket count");
  if (!WriteNewGeneration(arena, file.channel)) {
    QWErrorRethrow("could not write data");
    return QWErrorRethrow("VMArenaFileFlushNew: could not write data on: \"%s\"", path.c_str());
  }
  return Pend(arena, &file, path, "VMArenaFileFlushNew", round);
}

bool ArenaFileWriteOld(VMArena *arena, SyncRound *round) {
  std::string path = FlushTarget(arena, "arena.old", arena->flushedSerialOld);
  ChannelHandle file;
  if (!file.Open(path, "w") || !WriteOldGeneration(arena, file.channel))
    return QWErrorRethrow("VMArenaFileFlushOld: could not write data on: \"%s\"", path.c_str());
  return Pend(arena, &file, path, "VMArenaFileFlushOld", round);
}

bool ArenaFilesFinish(VMArena *arena) {
  std::vector<PendingArenaFile> pending;
  pending.swap(arena->pendingFiles);
  bool ok = true;
  for (PendingArenaFile &entry : pending) {
    ChannelHandle file;
    file.channel = entry.channel;
    if (!ok) continue;  // closed by the handle
    if (!file.Close()) {
      ok = QWErrorRethrow("%s: could not close: \"%s\"", entry.who, entry.path.c_str()) != 0;
      continue;
    }
    ok = LogCreation(arena, entry.path, Format("%s: could not log file creation", entry.who).c_str());
  }
  return ok;
}

void ArenaFilesAbandon(VMArena *arena) {
  for (PendingArenaFile &entry : arena->pendingFiles) {
    ChannelHandle file;
    file.channel = entry.channel;
  }
  arena->pendingFiles.clear();
}

bool ArenaFileReadBackOld(VMArena *arena) {
  // What the memory commit makes current is what was written, read back.
  std::string path = FlushTarget(arena, "arena.old", arena->flushedSerialOld);
  ChannelHandle file;
  if (!file.Open(path, "r") || !ReadOldGeneration(arena, file.channel, &arena->nextView))
    return QWErrorRethrow("could not read data on: \"%s\"", path.c_str());
  if (!file.Close()) return QWErrorRethrow("could not close: \"%s\"", path.c_str());
  return true;
}

bool ArenaFileFlushNew(VMArena *arena) {
  SyncRound round;
  if (ArenaFileWriteNew(arena, &round) && round.Run() && ArenaFilesFinish(arena)) return true;
  ArenaFilesAbandon(arena);
  return false;
}

bool ArenaFileFlushOld(VMArena *arena) {
  SyncRound round;
  if (ArenaFileWriteOld(arena, &round) && round.Run() && ArenaFilesFinish(arena)) return ArenaFileReadBackOld(arena);
  ArenaFilesAbandon(arena);
  return false;
}

bool ArenaReadNewGenFile(VMArena *arena, const std::string &path, bool checkBucketCount) {
  ChannelHandle file;
  if (!file.Open(path, "r")) return QWErrorRethrow("VMArenaRead: could not open file \"%s\"", path.c_str());
  uint64_t bucketCount;
  if (!packed::ReadScalar(file.channel, 8, &bucketCount)) return QWErrorRethrow("arena : could not read bucket count");
  if (checkBucketCount) {
    if (bucketCount != arena->bucketCount)
      return QWErrorThrow(2, QW_ERROR_CLASS_DATA, "arena: could not read new generation: invalid number of buckets");
  } else {
    if (bucketCount == 0 || bucketCount > 4096)
      return QWErrorThrow(2, QW_ERROR_CLASS_DATA, "arena : invalid bucket count %llu in \"%s\"",
                          static_cast<unsigned long long>(bucketCount), path.c_str());
    arena->bucketCount = uint32_t(bucketCount);
    arena->bucketBits = CeilLog2(bucketCount);
  }
  if (!ReadNewGeneration(arena, file.channel)) {
    QWErrorRethrow("could not read data");
    return QWErrorRethrow("arena : could not read new generation: \"%s\"", path.c_str());
  }
  if (!file.Close()) return QWErrorRethrow("arena :could not close file \"%s\"", path.c_str());
  return true;
}

bool ArenaReadOldGenFile(VMArena *arena, const std::string &path, OldView *into) {
  ChannelHandle file;
  if (!file.Open(path, "r") || !ReadOldGeneration(arena, file.channel, into))
    return QWErrorRethrow("arena :could not read old generation: \"%s\"", path.c_str());
  if (!file.Close()) return QWErrorRethrow("arena : could not close: \"%s\"", path.c_str());
  return true;
}

}  // namespace qw::vm
