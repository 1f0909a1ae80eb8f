// Run sorter: sequential writers and readers of runs, block ranges, and
// block-by-block freeing of what a merge has read.
//
// A run's block index of byte `offset` is offset / blockSize: every block but
// the last is full, so no offset map is needed to find a position.
#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "util/endian.h"
#include "vm/sort/dbs_internal.h"

using namespace qw::sort;

extern "C" {

QW_API int DBSorterRangeAcquire(DBSorter *dbs, uint32_t runIndex, uint64_t offset, uint32_t *block,
                                const uint8_t **address, uint32_t *available, int read) {
  RunRecord *run = Run(dbs, runIndex);
  const uint64_t index = offset / dbs->blockSize;
  const uint32_t count = run->block.Length();
  void *base = nullptr;
  if (index >= count || !run->block.Get(uint32_t(index), block) ||
      !DBSorterBlockAcquire(dbs, *block, &base, read, read ? 0 : 1)) {
    if (!QWErrorIsSet())
      QWErrorThrow(74, QW_ERROR_CLASS_DATA, "run %u holds %u blocks, not one at offset %" PRIu64, runIndex, count,
                   offset);
    return QWErrorRethrow("Error on block acquire for runIndex = %d, offset = %" PRIu64, int(runIndex), offset);
  }
  if (read && index + 1 < count) {
    uint32_t next = 0;
    if (run->block.Get(uint32_t(index + 1), &next)) DRBServerBlockPrefetch(dbs->server, next);
    QWErrorClear();
  }
  const uint32_t within = uint32_t(offset % dbs->blockSize);
  *address = static_cast<const uint8_t *>(base) + within;
  *available = dbs->blockSize - within;
  return 1;
}

QW_API int DBSorterFreeUpTo(DBSorter *dbs, uint32_t runIndex, uint64_t from, uint64_t to) {
  if (from >= to) return 1;
  RunRecord *run = Run(dbs, runIndex);
  uint64_t end = to / dbs->blockSize;
  if (to % dbs->blockSize != 0 && to == RunLength(dbs, runIndex)) ++end;
  for (uint64_t b = from / dbs->blockSize; b < end; ++b) {
    uint32_t block = 0;
    if (!run->block.Get(uint32_t(b), &block) || !DBSorterBlockFree(dbs, block)) return 0;
  }
  return 1;
}

QW_API int DBSEntryWriterInit(DBSEntryWriter *writer, DBSorter *dbs, uint32_t runIndex) {
  *writer = DBSEntryWriter{dbs, runIndex, nullptr, 0, 0, DBS_NO_RUN, nullptr};
  (void)Run(dbs, runIndex);
  return 1;
}

}  // extern "C"

namespace {

bool WriteBytes(DBSEntryWriter *writer, const uint8_t *bytes, uint32_t length);

}  // namespace

extern "C" {

QW_API int DBSEntryWriterWriteBytes(DBSEntryWriter *writer, const void *data, uint32_t length) {
  return WriteBytes(writer, static_cast<const uint8_t *>(data), length) ? 1 : Failed(writer->dbs);
}

}  // extern "C"

namespace {

bool WriteBytes(DBSEntryWriter *writer, const uint8_t *bytes, uint32_t length) {
  DBSorter *dbs = writer->dbs;
  while (length > 0) {
    if (writer->left == 0) {
      const uint32_t block = DBSorterBlockNew(dbs);
      if (block == DRBS_INVALID_BLOCK || !Run(dbs, writer->runIndex)->block.Append(block)) return false;
      if (writer->block != DBS_NO_RUN && !DBSorterBlockRelease(dbs, writer->block, writer->blockAddress, 0))
        return false;
      writer->block = DBS_NO_RUN;
      void *address = nullptr;
      if (!DBSorterBlockAcquire(dbs, block, &address, 0, 0)) return false;
      writer->block = block;
      writer->blockAddress = writer->address = static_cast<uint8_t *>(address);
      writer->left = dbs->blockSize;
    }
    const uint32_t piece = std::min(length, writer->left);
    std::memcpy(writer->address, bytes, piece);
    writer->address += piece;
    writer->left -= piece;
    writer->written += piece;
    bytes += piece;
    length -= piece;
  }
  return true;
}

}  // namespace

namespace qw::sort {

const uint8_t *TakePayloadInRange(DBSEntryReader *reader, uint32_t *length, int mark) {
  if (reader->left <= 4) return nullptr;
  const uint32_t n = qw::LoadLE32(reader->address);
  if (reader->left - 4 <= n) return nullptr;
  const uint8_t *payload = reader->address + 4;
  reader->address += 4 + n;
  reader->left -= 4 + n;
  reader->offset += 4 + n;
  if (mark) reader->lastOffset = reader->offset;
  *length = n;
  return payload;
}

bool WriteFramed(DBSEntryWriter *writer, const uint8_t *bytes, uint32_t length) {
  uint8_t header[4];
  qw::StoreLE32(header, length);
  if (writer->left < 4 + uint64_t(length))
    return DBSEntryWriterWriteBytes(writer, header, 4) && DBSEntryWriterWriteBytes(writer, bytes, length);
  std::memcpy(writer->address, header, 4);
  std::memcpy(writer->address + 4, bytes, length);
  writer->address += 4 + length;
  writer->left -= 4 + length;
  writer->written += 4 + length;
  return true;
}

}  // namespace qw::sort

extern "C" {

QW_API int DBSEntryWriterFlush(DBSEntryWriter *writer) {
  if (writer->block != DBS_NO_RUN) {
    const uint32_t block = writer->block;
    writer->block = DBS_NO_RUN;
    writer->left = 0;
    if (!DBSorterBlockRelease(writer->dbs, block, writer->blockAddress, 0)) return Failed(writer->dbs);
  }
  return SetRunLength(writer->dbs, writer->runIndex, writer->written) ? 1 : Failed(writer->dbs);
}

QW_API int DBSEntryReaderInit(DBSEntryReader *reader, DBSorter *dbs, uint32_t runIndex, uint64_t offset) {
  (void)Run(dbs, runIndex);
  *reader = DBSEntryReader{dbs, runIndex, nullptr, 0, offset, offset, DBS_NO_RUN, nullptr, RunLength(dbs, runIndex)};
  return QWErrorIsSet() ? 0 : 1;
}

QW_API void DBSEntryReaderClose(DBSEntryReader *reader) {
  if (reader->block == DBS_NO_RUN) return;
  (void)DBSorterBlockRelease(reader->dbs, reader->block, const_cast<uint8_t *>(reader->blockAddress), 1);
  reader->block = DBS_NO_RUN;
  reader->left = 0;
}

QW_API int DBSEntryReaderReadBytes(DBSEntryReader *reader, void *data, uint32_t length, int mark, int free) {
  if (length == 0) return 1;
  if (reader->offset >= reader->length) return 0;
  if (reader->length - reader->offset < length) {
    QWErrorThrow(74, QW_ERROR_CLASS_DATA, "run %u ends at %" PRIu64 ", inside %u bytes read at %" PRIu64,
                 reader->runIndex, reader->length, length, reader->offset);
    return -1;
  }
  auto *out = static_cast<uint8_t *>(data);
  while (length > 0) {
    if (reader->left == 0) {
      DBSEntryReaderClose(reader);
      uint32_t block = 0;
      const uint8_t *address = nullptr;
      uint32_t available = 0;
      if (!DBSorterRangeAcquire(reader->dbs, reader->runIndex, reader->offset, &block, &address, &available, 1))
        return -1;
      reader->block = block;
      reader->blockAddress = address - reader->offset % reader->dbs->blockSize;
      reader->address = address;
      reader->left = uint32_t(std::min<uint64_t>(available, reader->length - reader->offset));
    }
    const uint32_t piece = std::min(length, reader->left);
    std::memcpy(out, reader->address, piece);
    reader->address += piece;
    reader->left -= piece;
    reader->offset += piece;
    out += piece;
    length -= piece;
  }
  // A block read to its end is let go at once: it may be freed below, and a
  // freed block can be handed to a writer after the next commit.
  if (reader->left == 0) DBSEntryReaderClose(reader);
  // Whole blocks can be given back only once a block boundary or the end of
  // the run has been passed.
  const uint32_t blockSize = reader->dbs->blockSize;
  if (free && (reader->lastOffset / blockSize != reader->offset / blockSize || reader->offset == reader->length) &&
      !DBSorterFreeUpTo(reader->dbs, reader->runIndex, reader->lastOffset, reader->offset))
    return -1;
  if (mark) reader->lastOffset = reader->offset;
  return 1;
}

QW_API int DBSEntryReaderReadByte(DBSEntryReader *reader, uint8_t *byte, int mark, int free) {
  return DBSEntryReaderReadBytes(reader, byte, 1, mark, free);
}

}  // extern "C"
