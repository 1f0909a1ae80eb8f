// The large-element array record and the helpers its files share.
//
// Invariants (new generation, whenever no call is running):
//  - Every element (bucket, handle) that exists in the block-directory array
//    has its flag byte: the flag array is at least g / 8 + 1 bytes long,
//    g = handle * bucketCount + bucket.
//  - Flag 0: the element's bytes are its contents (at most 4090 bytes).
//    Flag 1: the element is a descriptor (layout.h) whose trailer gives a
//    total above 4090 and whose blocks belong to this element alone.
//  - A change writes new blocks before it publishes them and frees old
//    blocks only after nothing names them any more, so a failure midway
//    leaves the element as it was and no block named twice.
// The flag array is read under flagLock's read side and changed (grown,
// bits set or cleared) under its write side; readers in OLDGEN read the
// committed flag array, which a writer never changes in place.
#pragma once

#include <cstdint>

#include "qwvm/ldbarray.h"
#include "qwvm/vmaarray.h"
#include "vm/olib/dbarray/dbarray_internal.h"

struct LDBArray {
  VMArena *arena;
  uint32_t locked[2];  // per generation: passed to the arena as arrayLocked
  DBArray *elements;   // the strings and descriptors, "P/ldbarray/dbarray/..."
  QWRWLock *flagLock;  // guards the flag array
  VMAArrayHandle flag;  // 1-byte elements, "P/ldbarray/flag"
  uint32_t bucketCount;
  // The arena's size classes, smallest first, found through
  // VMABlockArrayBlockRound_: block ids carry the class index, and a
  // descriptor's ids are checked against the class their place requires.
  uint32_t classSizes[ARENA_SIZE_CLASS_COUNT];
};

struct LDBArrayThreadData {
  uint64_t *ids;   // qwlib growable: the data blocks of one element
  uint64_t *list;  // qwlib growable: the list blocks of a second level
};

// Names the invariant texts use.
using VMABlockID = uint64_t;

namespace qw::ldba {

inline constexpr int kCorruptCode = 74;  // EBADMSG, as the block-directory array
inline constexpr uint32_t kTrailerSize = 8;
// A list plus trailer must stay below this many bytes to be the element
// itself; a longer one moves to blocks (level 1).
inline constexpr uint32_t kListLimit = 4091;
inline constexpr size_t kScratchShrink = 10000;  // scratch lists longer than this are made afresh

// Tags the arena corrupted (unless read-only) and raises the data error
// naming `invariant` for element (bucket, handle). Returns false.
bool Corrupted(const LDBArray *array, uint32_t bucket, uint32_t handle, const char *invariant);

// Stored data must satisfy `expression`; otherwise the enclosing function
// (returning bool) reports corruption and returns false.
#define LDBA_REQUIRE(array, bucket, handle, expression) \
  do {                                                  \
    if (!(expression)) return qw::ldba::Corrupted((array), (bucket), (handle), #expression); \
  } while (0)

// The generation argument: "FALSE" for anything but NEWGEN and OLDGEN.
void CheckGeneration(uint32_t genID);
// A write: NEWGEN only ("genID == NEWGEN").
void CheckWrite(uint32_t genID);

// Flags (flags.cpp). Global element number of (bucket, handle).
inline uint64_t GlobalNumber(const LDBArray *array, uint32_t bucket, uint32_t handle) {
  return uint64_t(handle) * array->bucketCount + bucket;
}
// Reads the flag of (bucket, handle) in genID. *present is false when the
// flag array does not reach its byte (then *flag is false).
[[nodiscard]] bool ReadFlag(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID, bool *flag,
                            bool *present);
// Grows the flag array with zero bytes until it holds the byte of
// (bucket, handle) (NEWGEN).
[[nodiscard]] bool EnsureFlag(LDBArray *array, uint32_t bucket, uint32_t handle);
// Sets the flag of an element whose byte exists (NEWGEN).
[[nodiscard]] bool WriteFlag(LDBArray *array, uint32_t bucket, uint32_t handle, bool flag);
// Clears every flag bit (NEWGEN) under the write side of flagLock; the flag
// array keeps its length. Only bytes that hold a set bit are written.
[[nodiscard]] bool ClearFlags(LDBArray *array);

// Scratch lists of a thread (thread_data.cpp): emptied, made afresh past
// kScratchShrink entries.
[[nodiscard]] bool ResetScratch(uint64_t **list);

// The external form of one element (external.cpp).
struct External {
  uint32_t total = 0;   // data bytes
  uint32_t level = 0;   // 0: the ids name data blocks; 1: they name list blocks
  uint32_t idCount = 0;  // ids in the element before the trailer
};

// Writes `length` bytes (> 4090) to new blocks and builds the element's
// descriptor in `descriptor` (room for kListLimit bytes). The blocks are
// listed in threadData; on failure every block made is freed again.
[[nodiscard]] bool StoreExternal(LDBArray *array, LDBArrayThreadData *threadData, const uint8_t *data,
                                 uint32_t length, uint8_t *descriptor, uint32_t *descriptorLength);
// Frees the blocks a StoreExternal listed in threadData (after a later step
// failed).
void DropStored(LDBArray *array, LDBArrayThreadData *threadData);
// Decodes and checks a descriptor of `length` bytes.
[[nodiscard]] bool ParseExternal(const LDBArray *array, uint32_t bucket, uint32_t handle, const uint8_t *bytes,
                                 uint32_t length, External *external);
// Every block id an external element owns, checked for its class, data
// blocks first, then the list blocks (level 1). Reads the list blocks.
[[nodiscard]] bool CollectBlocks(LDBArray *array, uint32_t bucket, uint32_t handle, const uint8_t *bytes,
                                 const External &external, uint32_t genID, uint64_t **ids);
// Frees the listed blocks.
void FreeBlocks(LDBArray *array, const uint64_t *ids);
// The id of data block k of an external element, reading a list block at
// level 1; checked for the class its place requires.
[[nodiscard]] bool DataBlockId(LDBArray *array, uint32_t bucket, uint32_t handle, const uint8_t *bytes,
                               const External &external, uint32_t k, uint32_t genID, uint64_t *id);

// The element's descriptor or direct bytes, found in the block-directory
// array and held until destruction.
class HeldElement {
 public:
  HeldElement(LDBArray *array, uint32_t genID, int read) : array_(array), genID_(genID), read_(read) {}
  HeldElement(const HeldElement &) = delete;
  HeldElement &operator=(const HeldElement &) = delete;

  // False with an error when the bucket cannot be read. An absent handle
  // gives exists() false; an empty element bytes() == nullptr.
  [[nodiscard]] bool Get(uint32_t bucket, uint32_t handle);
  void SetRead(int read) { read_ = read; }
  void Release() {
    held_.Release();
    bytes_ = nullptr;
  }
  // Hands the hold to the caller (who releases with LDBArrayRelease).
  uint8_t *Detach() {
    (void)held_.Detach();
    uint8_t *bytes = bytes_;
    bytes_ = nullptr;
    return bytes;
  }
  bool exists() const { return exists_; }
  uint8_t *bytes() const { return bytes_; }
  uint32_t length() const { return length_; }

 private:
  LDBArray *array_;
  uint32_t genID_;
  int read_;
  qw::dba::HeldBlock held_;
  bool exists_ = false;
  uint8_t *bytes_ = nullptr;
  uint32_t length_ = 0;
};

// What one element is: direct (or absent) or external.
struct ElementInfo {
  bool external = false;
  External form;  // when external
};
// Reads the flag and then the element of (bucket, handle) into `held`, a
// direct element with access `directRead`, a descriptor read-only; decodes
// and checks a descriptor. False with an error (corruption included).
[[nodiscard]] bool InspectElement(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID,
                                  int directRead, HeldElement *held, ElementInfo *info);

}  // namespace qw::ldba
