// Lifetime of a block-directory array: finding or creating the three arrays
// of every bucket by name, options, commit and clear.
#include <cstdio>
#include <cstring>
#include <memory>

#include "vm/olib/dbarray/dbarray_internal.h"

namespace qw::dba {
namespace {

struct DBArrayDeleter {
  void operator()(DBArray *array) const {
    ArrayFree(array->bucket);
    std::default_delete<DBArray>()(array);
  }
};
using DBArrayPtr = std::unique_ptr<DBArray, DBArrayDeleter>;

// Builds array names in the caller's byte buffer after its existing bytes,
// and gives the buffer its length back when done.
class NameBuilder {
 public:
  explicit NameBuilder(uint8_t **buffer) : buffer_(buffer), saved_(ArrayLength(*buffer)) {}
  ~NameBuilder() {
    if (*buffer_) (void)ArrayLengthSet(*buffer_, saved_);  // shrinking never fails
  }
  NameBuilder(const NameBuilder &) = delete;
  NameBuilder &operator=(const NameBuilder &) = delete;

  // Sets the structure's part of every name: path + "/dbarray/".
  [[nodiscard]] bool SetPrefix(const char *path) {
    if (!*buffer_ && !ArrayInit(*buffer_, 1, 64)) return false;
    prefix_ = saved_;
    if (!Append(path, std::strlen(path)) || !Append("/dbarray/", 9)) return false;
    prefix_ = ArrayLength(*buffer_);
    return true;
  }
  // Makes the name of `word` for bucket n: prefix + "%s%04x".
  [[nodiscard]] bool Name(const char *word, uint32_t n) {
    char tail[32];
    int length = std::snprintf(tail, sizeof tail, "%s%04x", word, n);
    (void)ArrayLengthSet(*buffer_, prefix_);
    return Append(tail, size_t(length));
  }
  const uint8_t *bytes() const { return *buffer_ + saved_; }
  uint32_t length() const { return uint32_t(ArrayLength(*buffer_) - saved_); }

 private:
  bool Append(const char *text, size_t length) {
    size_t at = ArrayLength(*buffer_);
    if (!ArrayGrow(*buffer_, length)) return false;
    std::memcpy(*buffer_ + at, text, length);
    return true;
  }
  uint8_t **buffer_;
  size_t saved_;
  size_t prefix_ = 0;
};

// Fills both generations' ids of one array: found or made in NEWGEN, found
// in OLDGEN (absent when it is new since the last commit).
bool OpenArray(VMArena *arena, const NameBuilder &name, bool isBlockArray, bool mayCreate, int locked,
               VMAArrayHandle *handle, bool *created) {
  const uint32_t blockSize = isBlockArray ? DBARRAY_MAX_BLOCK_SIZE : kArrayBlockSize;
  int create = mayCreate ? 1 : 0;
  handle->arena = arena;
  handle->locked[0] = handle->locked[1] = uint32_t(locked != 0);
  handle->id[NEWGEN] = VMAArrayFind(arena, NEWGEN, name.bytes(), name.length(), 0, &create, isBlockArray, blockSize);
  if (handle->id[NEWGEN] == VMA_NO_ARRAY) {
    if (QWErrorIsSet()) return QWErrorRethrow("cannot make array \"%.*s\"", int(name.length()), name.bytes());
    return QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "no array \"%.*s\"", int(name.length()), name.bytes());
  }
  if (create) *created = true;
  int noCreate = 0;
  handle->id[OLDGEN] = VMAArrayFind(arena, OLDGEN, name.bytes(), name.length(), 0, &noCreate, isBlockArray, blockSize);
  return true;
}

// Counts the buckets already stored: data arrays 0, 1, 2, ... until one is
// missing.
uint32_t StoredBucketCount(VMArena *arena, NameBuilder &name) {
  uint32_t n = 0;
  for (; n < DBARRAY_MAX_BUCKET_COUNT; ++n) {
    int create = 0;
    if (!name.Name("data", n)) break;
    if (VMAArrayFind(arena, NEWGEN, name.bytes(), name.length(), 0, &create, 1, DBARRAY_MAX_BLOCK_SIZE) ==
        VMA_NO_ARRAY)
      break;
  }
  return n;
}

bool OpenBuckets(DBArray *array, NameBuilder &name, bool mayCreate, int locked, bool *created) {
  const uint32_t count = uint32_t(ArrayLength(array->bucket));
  for (uint32_t n = 0; n < count; ++n) {
    DBArrayBucket &bucket = array->bucket[n];
    bucket.owner = array;
    if (!name.Name("data", n) ||
        !OpenArray(array->arena, name, true, mayCreate, locked, &bucket.dataBlocks, created) ||
        !name.Name("index", n) ||
        !OpenArray(array->arena, name, false, mayCreate, locked, &bucket.index, created) ||
        !name.Name("firstHandle", n) ||
        !OpenArray(array->arena, name, false, mayCreate, locked, &bucket.firstHandle, created))
      return false;
  }
  return true;
}

}  // namespace
}  // namespace qw::dba

using namespace qw::dba;

extern "C" {

QW_API DBArray *DBArrayNew_(VMArena *arena, uint8_t **pathBuffer, const char *path, uint32_t reserved, int *created,
                            int locked, uint32_t bucketCount) {
  const bool mayCreate = created && *created && !VMArenaIsReadOnly(arena);
  if (created) *created = 0;
  if (reserved != 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "DBArrayNew_: reserved must be 0");
    return nullptr;
  }
  qwassert_(bucketCount <= 65536);
  NameBuilder name(pathBuffer);
  if (!name.SetPrefix(path)) return nullptr;
  uint32_t stored = StoredBucketCount(arena, name);
  uint32_t count = stored > 0 ? stored : bucketCount;
  if (count == 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "DBArrayNew_: no buckets for \"%s\"", path);
    return nullptr;
  }
  const uint32_t lockFlag = locked ? 1 : 0;
  DBArrayPtr array(std::make_unique<DBArray>(DBArray{arena, nullptr, 1, 0, {lockFlag, lockFlag}}).release());
  if (!ArrayInit(array->bucket, sizeof(DBArrayBucket), count) || !ArrayGrowExact(array->bucket, count))
    return nullptr;
  bool madeAny = false;
  if (!OpenBuckets(array.get(), name, mayCreate, locked, &madeAny)) {
    QWErrorRethrow("cannot open block-directory array \"%s\"", path);
    return nullptr;
  }
  if (created) *created = madeAny ? 1 : 0;
  return array.release();
}

QW_API DBArray *DBArrayNew(VMArena *arena, uint8_t **pathBuffer, const char *path, int *created, int locked,
                           uint32_t bucketCount) {
  return DBArrayNew_(arena, pathBuffer, path, 0, created, locked, bucketCount);
}

QW_API void DBArrayFree(DBArray *array) {
  if (array) DBArrayDeleter()(array);
}

QW_API int DBArrayCommit(DBArray *array) {
  for (size_t n = 0; n < ArrayLength(array->bucket); ++n) {
    DBArrayBucket &bucket = array->bucket[n];
    for (VMAArrayHandle *handle : {&bucket.dataBlocks, &bucket.index, &bucket.firstHandle})
      handle->id[OLDGEN] = handle->id[NEWGEN];
  }
  return 1;
}

QW_API void DBArraySetCompact(DBArray *array, uint32_t compact) { array->compact = compact; }

QW_API void DBArraySetMaxBlocks(DBArray *array, uint32_t maxBlocks) { array->maxBlocks = maxBlocks; }

QW_API uint32_t DBArrayBucketCount(DBArray *array) { return uint32_t(ArrayLength(array->bucket)); }

QW_API int DBArrayClear(DBArray *array, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  for (size_t n = 0; n < ArrayLength(array->bucket); ++n) {
    DBArrayBucket &bucket = array->bucket[n];
    for (VMAArrayHandle *handle : {&bucket.dataBlocks, &bucket.index, &bucket.firstHandle})
      if (!VMAArrayClear_(array->arena, handle->id[NEWGEN], int(array->locked[NEWGEN]), NEWGEN))
        return QWErrorRethrow("cannot clear bucket %zu of a block-directory array", n);
  }
  return 1;
}

}  // extern "C"
