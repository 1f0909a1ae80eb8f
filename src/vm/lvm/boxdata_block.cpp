// Box data blocks: encoding, erasing and verified decoding (layout in
// qwvm/boxdata.h), and the per-thread block buffer they work in.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "util/endian.h"
#include "vm/lvm/boxdata.h"

namespace {

using namespace qw::box;
constexpr uint32_t USHORT_MAX_VALUE = 0xFFFF;
constexpr int kBadHeader = 4;

bool BadHeader(const char *what) { return QWErrorThrow(kBadHeader, QW_ERROR_CLASS_DATA, "%s", what); }

// The header fields of a block as read.
struct Header {
  uint32_t id, part, next, sizeClass, version, length;
};

Header ParseHeader(const uint8_t *block) {
  return Header{qw::LoadLE32(block + kOffId),  qw::LoadLE32(block + kOffPart), qw::LoadLE32(block + kOffNext),
                block[kOffClass],              block[kOffVersion],            uint32_t(qw::LoadLE(block + kOffLength, 2))};
}

// Version 0 keeps no stamp of its own: data bytes 16..19 stand in for it.
uint64_t StampOf(const uint8_t *block, const Header &header) {
  if (header.version == 1) return qw::LoadLE64(block + kOffStamp1);
  return header.length < 20 ? 0 : qw::LoadLE32(block + kHeader0 + 16);
}

// The first read of a decode: a header and the data of a small value.
constexpr uint32_t kFirstRead = 256;

uint32_t RoundUpToUnit(uint32_t bytes) { return (bytes + BOXLVM_UNIT_SIZE - 1) / BOXLVM_UNIT_SIZE * BOXLVM_UNIT_SIZE; }

// The error of a read of [handle, handle + size) past the end of the file,
// raised as BoxLVMDataBlockRead raises it.
bool RangeInsideFile(const BoxLVMDataFile *file, uint32_t handle, uint32_t size) {
  if (ByteOffset(handle) + size <= file->size.load()) return true;
  return QWErrorThrow(EIO, QW_ERROR_CLASS_SYSTEM, "BoxLVMDataBlockRead:unexpected end of file (fd %i)", file->fd);
}

template <class T>
void Put(T *out, T value) {
  if (out) *out = value;
}

}  // namespace

QW_API BoxLVMDataFileThreadData *BoxLVMDataFileThreadDataNew(void) {
  // Allocate zero-fills.
  return static_cast<BoxLVMDataFileThreadData *>(Allocate(sizeof(BoxLVMDataFileThreadData)));
}

QW_API void BoxLVMDataFileThreadDataFree(BoxLVMDataFileThreadData *threadData) { UnAllocate(threadData); }

QW_API int BoxLVMDataBlockEncodeWrite(BoxLVMDataFile *file, BoxLVMDataFileThreadData *threadData, uint32_t handle,
                                      uint32_t length, const void *data, uint32_t sizeClass, uint32_t id,
                                      uint32_t part, uint32_t next, uint32_t reserved1, uint32_t reserved2) {
  (void)reserved1;
  (void)reserved2;
  const uint32_t size = length;
  qwassert_(size < USHORT_MAX_VALUE);
  const uint32_t blockSize = (sizeClass + 1) * BOXLVM_UNIT_SIZE;
  if (sizeClass >= BOXLVM_SIZE_CLASSES || kHeader0 + length > blockSize ||
      sizeClass + 1 > UnitsToPageEnd(handle)) {
    QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL, "a block of class %u at handle %u cannot hold %u bytes", sizeClass,
                 handle, length);
    return QWErrorRethrow("could not write data for entry %i to file", int(id));
  }
  uint8_t *block = threadData->block;
  qw::StoreLE32(block + kOffId, id);
  qw::StoreLE32(block + kOffPart, part);
  qw::StoreLE32(block + kOffNext, next);
  block[kOffClass] = uint8_t(sizeClass);
  block[kOffVersion] = 0;
  qw::StoreLE(block + kOffLength, length, 2);
  if (length != 0) std::memcpy(block + kHeader0, data, length);
  qw::StoreLE32(block + kOffChecksum0, DataChecksum(block + kHeader0, length));
  if (!BoxLVMDataBlockWrite(file, handle, blockSize, block))
    return QWErrorRethrow("could not write data for entry %i to file", int(id));
  return 1;
}

QW_API int BoxLVMDataBlockErase(BoxLVMDataFile *file, BoxLVMDataFileThreadData *threadData, uint32_t handle) {
  uint8_t *block = threadData->block;
  qw::StoreLE32(block + kOffId, BOXLVM_NO_ID);
  block[kOffVersion] = 0;
  qw::StoreLE(block + kOffLength, 0, 2);
  qw::StoreLE32(block + kOffChecksum0, 0);
  if (!BoxLVMDataBlockWrite(file, handle, BOXLVM_UNIT_SIZE, block))
    return QWErrorRethrow("could not erase block at offset %i", int(handle));
  return 1;
}

QW_API int BoxLVMDataBlockSizeGet(BoxLVMDataFile *file, uint32_t handle, uint32_t *sizeClass) {
  uint8_t bytes[kShortHeader];
  if (!BoxLVMDataBlockRead(file, handle, sizeof bytes, bytes))
    return QWErrorRethrow("BoxLVMDataBlockSizeGet: block read failed");
  const Header header = ParseHeader(bytes);
  if (header.version > 1)
    return QWErrorThrow(kBadHeader, QW_ERROR_CLASS_DATA, "BoxLVMDataBlockSize: invalid block version %i",
                        int(header.version));
  if (header.sizeClass + 1 > UnitsToPageEnd(handle))
    return QWErrorThrow(kBadHeader, QW_ERROR_CLASS_DATA, "BoxLVMDataBlockSizeGet: impossible size %i",
                        int(header.sizeClass));
  *sizeClass = header.sizeClass;
  return 1;
}

QW_API int BoxLVMDataBlockReadDecode(BoxLVMDataFile *file, BoxLVMDataFileThreadData *threadData, uint32_t handle,
                                     int check, uint32_t id, uint32_t part, uint32_t next, uint32_t *idOut,
                                     uint32_t *partOut, uint32_t *nextOut, uint64_t *stamp, uint32_t *sizeClass,
                                     uint32_t *length, const uint8_t **dataOut) {
  uint8_t *block = threadData->block;
  const uint32_t bytesRead = UnitsToPageEnd(handle) * BOXLVM_UNIT_SIZE;
  // The block is decoded as if read to the end of its page, but only its
  // header and data are ever looked at: read first what the last block
  // decoded here took (at least kFirstRead bytes), then the rest of the data
  // when this block holds more.
  const uint32_t guess = std::max(kFirstRead, RoundUpToUnit(threadData->lastBlockBytes));
  const uint32_t first = std::min(bytesRead, guess);
  if (!BoxLVMDataBlockRead(file, handle, first, block) || !RangeInsideFile(file, handle, bytesRead))
    return QWErrorRethrow("BoxLVMDataBlockReadDecode: block read failed");
  const Header header = ParseHeader(block);
  if (header.version > 1) return BadHeader("BoxLVMDataBlockReadDecode: invalid block version");
  const size_t headerSize = header.version == 0 ? kHeader0 : kHeader1;
  if (header.length == 0 || headerSize + header.length > bytesRead || header.id == BOXLVM_NO_ID)
    return QWErrorThrow(kBadHeader, QW_ERROR_CLASS_DATA, "BoxLVMDataBlockReadDecode: impossible size %u or id %u",
                        header.length, header.id);
  if (check && (header.id != id || header.part != part || header.next != next))
    return BadHeader("BoxLVMDataBlockReadDecode: header data does not match");
  const uint32_t blockBytes = uint32_t(headerSize) + header.length;
  threadData->lastBlockBytes = blockBytes;
  if (blockBytes > first) {
    const uint32_t rest = RoundUpToUnit(blockBytes) - first;
    if (!BoxLVMDataBlockRead(file, handle + first / BOXLVM_UNIT_SIZE, rest, block + first))
      return QWErrorRethrow("BoxLVMDataBlockReadDecode: block read failed");
  }
  Put(idOut, header.id);
  Put(partOut, header.part);
  Put(nextOut, header.next);
  Put(stamp, StampOf(block, header));
  Put(sizeClass, header.sizeClass);
  const uint8_t *data = block + headerSize;
  const uint32_t stored = qw::LoadLE32(block + (header.version == 0 ? kOffChecksum0 : kOffChecksum1));
  if (DataChecksum(data, header.length) != stored)
    return QWErrorThrow(3, QW_ERROR_CLASS_DATA, "BoxLVMDataBlockReadDecode: wrong checksum at handle %i", int(handle));
  if (header.next != BOXLVM_NO_HANDLE && header.length != BOXLVM_MAX_BLOCK_DATA)
    return QWErrorThrow(5, QW_ERROR_CLASS_DATA,
                        "BoxLVMDataBlockReadDecode: intermediate block in multiblock entry at handle %i does not use "
                        "full size (size %i)",
                        int(handle), int(header.length));
  Put(length, header.length);
  Put(dataOut, data);
  return 1;
}
