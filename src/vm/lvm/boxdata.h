// The box data file record and the block layout shared by its source files.
//
// Invariants of an open file:
//  - handle != QWFILE_INVALID; with a cache, cacheFileId is registered for
//    that handle and cacheLock exists; without one, cacheFileId is 0xFFFF.
//  - size is the file's size in bytes as this object set or found it; block
//    transfers stay below it (the cache would read past the end as zeros).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "qwvm/boxdata.h"
#include "qwvm/qwfile.h"

// Longest data file path: the directory, a slash and "box.dat" may take up
// to 260 characters; the buffers keep one more byte for the terminating NUL.
inline constexpr size_t kBoxPathMax = 260;

struct BoxLVMDataFile {
  char dir[kBoxPathMax + 1];
  char path[kBoxPathMax + 1];                   // dir + "/" + "box.dat"
  QWFILE handle = QWFILE_INVALID;
  int fd = -1;                                  // for messages
  PageCache *cache = nullptr;                   // null: direct access
  uint16_t cacheFileId = PAGECACHE_INVALID_FILE;
  QWRWLock *cacheLock = nullptr;                // guards copies into cached pages
  uint32_t cachePageSize = 0;
  uint32_t readOnly = 0;
  uint32_t verbose = 0;
  uint32_t noAdvice = 0;
  std::atomic<uint64_t> size{0};
};

struct BoxLVMDataFileThreadData {
  alignas(8) uint8_t block[BOXLVM_MAX_BLOCK_SIZE];
  // Bytes (header and data) of the last block this buffer decoded: the
  // first read of the next decode asks for that many, so that blocks of one
  // size cost one read of about their size, not one to the end of the page.
  uint32_t lastBlockBytes;
};

namespace qw::box {

// Byte offsets of the block header fields.
inline constexpr size_t kOffId = 0;
inline constexpr size_t kOffPart = 4;
inline constexpr size_t kOffNext = 8;
inline constexpr size_t kOffClass = 12;
inline constexpr size_t kOffVersion = 13;
inline constexpr size_t kOffLength = 14;
inline constexpr size_t kOffChecksum0 = 16;  // version 0
inline constexpr size_t kOffStamp1 = 16;     // version 1
inline constexpr size_t kOffChecksum1 = 24;  // version 1
inline constexpr size_t kHeader0 = BOXLVM_BLOCK_HEADER_SIZE;
inline constexpr size_t kHeader1 = 28;
inline constexpr size_t kShortHeader = 16;  // the fields common to both versions

inline uint64_t ByteOffset(uint32_t handle) { return uint64_t(handle) * BOXLVM_UNIT_SIZE; }
// Units from `handle` to the end of its page.
inline uint32_t UnitsToPageEnd(uint32_t handle) { return BOXLVM_PAGEUNITS - handle % BOXLVM_PAGEUNITS; }

// FNV-1 steps from 0 (not the FNV offset basis: stored files depend on 0).
inline uint32_t DataChecksum(const uint8_t *data, size_t length) {
  uint32_t h = 0;
  for (size_t i = 0; i < length; ++i) h = (h * 16777619u) ^ data[i];
  return h;
}

}  // namespace qw::box
