// Changing large elements: add, replace, clear one, clear all.
//
// Order of every change: new blocks are written first, the flag byte is
// made writable next (under the flag lock's write side), then the element in
// the block-directory array changes, the flag bit follows, and the blocks of
// an old external form are freed last. A failure before the element changes
// frees the new blocks and leaves everything as it was.
#include "vm/olib/ldbarray/flag_update.h"
#include "vm/olib/ldbarray/layout.h"

namespace qw::ldba {
namespace {

// A qwlib list of block ids owned by a scope.
struct IdList {
  uint64_t *ids = nullptr;
  IdList() = default;
  ~IdList() { ArrayFree(ids); }
  IdList(const IdList &) = delete;
  IdList &operator=(const IdList &) = delete;
};

bool CheckLength(uint32_t length, const LDBArrayThreadData *threadData) {
  if (length > LDBARRAY_MAX_ELEMENT_SIZE)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "large-element array: element of %u bytes is too long",
                        length);
  if (length > LDBARRAY_MAX_DIRECT_SIZE && !threadData)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "large-element array: a long element needs thread data");
  return true;
}

// The contents to store: `data` itself or, for a long one, the descriptor
// of the blocks it was written to.
struct NewContents {
  bool external = false;
  const uint8_t *bytes = nullptr;
  uint32_t length = 0;
  uint8_t descriptor[kListLimit];
};

bool Prepare(LDBArray *array, LDBArrayThreadData *threadData, const void *data, uint32_t length,
             NewContents *contents) {
  contents->external = length > LDBARRAY_MAX_DIRECT_SIZE;
  if (!contents->external) {
    contents->bytes = static_cast<const uint8_t *>(data);
    contents->length = length;
    return true;
  }
  contents->bytes = contents->descriptor;
  return StoreExternal(array, threadData, static_cast<const uint8_t *>(data), length, contents->descriptor,
                       &contents->length);
}

void Abandon(LDBArray *array, LDBArrayThreadData *threadData, const NewContents &contents) {
  if (contents.external) DropStored(array, threadData);
}

// Looks an existing element up for a change: its old blocks (if external)
// are collected into `old`. Code 2 when the handle does not exist.
bool LoadForChange(LDBArray *array, uint32_t bucket, uint32_t handle, IdList *old) {
  HeldElement held(array, NEWGEN, 1);
  ElementInfo info;
  if (!InspectElement(array, bucket, handle, NEWGEN, 1, &held, &info)) return false;
  if (!held.exists())
    return QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "large-element array: no element %u in bucket %u", handle,
                        bucket);
  return !info.external || CollectBlocks(array, bucket, handle, held.bytes(), info.form, NEWGEN, &old->ids);
}

// Collects the blocks of every external element of the array. A malformed
// element is skipped (its blocks cannot be known); *corrupt then reports
// that its error was saved (QWErrorSave) for the caller to restore.
bool CollectAll(LDBArray *array, IdList *all, bool *corrupt) {
  DBArray *elements = array->elements;
  for (uint32_t bucket = 0; bucket < array->bucketCount; ++bucket) {
    uint32_t size = 0;
    if (!qw::dba::BucketSize(elements, bucket, *qw::dba::BucketOf(elements, bucket), NEWGEN, &size)) return false;
    for (uint32_t handle = 0; handle < size; ++handle) {
      HeldElement held(array, NEWGEN, 1);
      ElementInfo info;
      bool ok = InspectElement(array, bucket, handle, NEWGEN, 1, &held, &info) &&
                (!info.external || CollectBlocks(array, bucket, handle, held.bytes(), info.form, NEWGEN, &all->ids));
      if (ok) continue;
      if (QWErrorClass() != QW_ERROR_CLASS_DATA) return false;
      if (*corrupt) {
        QWErrorClear();  // the first corruption is the one reported
      } else {
        QWErrorSave();
        *corrupt = true;
      }
    }
  }
  return true;
}

}  // namespace
}  // namespace qw::ldba

using namespace qw::ldba;

extern "C" {

QW_API uint32_t LDBArrayAdd(LDBArray *array, LDBArrayThreadData *threadData, uint32_t bucket, const void *data,
                            uint32_t length, uint32_t genID) {
  CheckWrite(genID);
  if (!CheckLength(length, threadData)) return LDBARRAY_INVALID_HANDLE;
  DBArray *elements = array->elements;
  uint32_t handle = 0;
  if (!qw::dba::BucketSize(elements, bucket, *qw::dba::BucketOf(elements, bucket), NEWGEN, &handle) ||
      !EnsureFlag(array, bucket, handle)) {
    QWErrorRethrow("cannot add to bucket %u of a large-element array", bucket);
    return LDBARRAY_INVALID_HANDLE;
  }
  NewContents contents;
  if (!Prepare(array, threadData, data, length, &contents)) return LDBARRAY_INVALID_HANDLE;
  FlagUpdate flag;
  if (!flag.Prepare(array, bucket, handle, contents.external)) {
    Abandon(array, threadData, contents);
    return LDBARRAY_INVALID_HANDLE;
  }
  const uint32_t added = DBArrayAdd(elements, bucket, contents.bytes, contents.length, NEWGEN);
  if (added == DBARRAY_INVALID_HANDLE) {
    Abandon(array, threadData, contents);
    QWErrorRethrow("cannot add to bucket %u of a large-element array", bucket);
    return LDBARRAY_INVALID_HANDLE;
  }
  qwassert_(added == handle);
  flag.Commit();
  return added;
}

QW_API int LDBArrayDataSet(LDBArray *array, LDBArrayThreadData *threadData, uint32_t bucket, uint32_t handle,
                           const void *data, uint32_t length, uint32_t genID) {
  CheckWrite(genID);
  if (!CheckLength(length, threadData)) return 0;
  IdList old;
  if (!LoadForChange(array, bucket, handle, &old)) return 0;
  NewContents contents;
  if (!Prepare(array, threadData, data, length, &contents)) return 0;
  FlagUpdate flag;
  if (!flag.Prepare(array, bucket, handle, contents.external) ||
      !DBArraySet(array->elements, bucket, handle, NEWGEN, contents.bytes, contents.length)) {
    Abandon(array, threadData, contents);
    return QWErrorRethrow("cannot set element %u of bucket %u of a large-element array", handle, bucket);
  }
  flag.Commit();
  FreeBlocks(array, old.ids);
  return 1;
}

QW_API int LDBArrayClearElement(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID) {
  CheckWrite(genID);
  IdList old;
  if (!LoadForChange(array, bucket, handle, &old)) return 0;
  FlagUpdate flag;
  if (!flag.Prepare(array, bucket, handle, false) ||
      DBArrayLengthSet(array->elements, bucket, handle, NEWGEN, 0) < 0)
    return QWErrorRethrow("cannot clear element %u of bucket %u of a large-element array", handle, bucket);
  flag.Commit();
  // Every block goes, the last data block of a two-level element included:
  // counting the data blocks by full and half blocks only would leak it.
  FreeBlocks(array, old.ids);
  return 1;
}

QW_API int LDBArrayClear(LDBArray *array, uint32_t genID) {
  CheckWrite(genID);
  IdList all;
  bool corrupt = false;
  if (!CollectAll(array, &all, &corrupt)) {
    if (corrupt) QWErrorRestore();
    return QWErrorRethrow("cannot clear a large-element array");
  }
  // The elements go first: until they do, their flags must still say which
  // are external. A flag left set afterwards is harmless (every add writes
  // its element's bit), so a failure to clear the bits loses nothing.
  bool cleared = DBArrayClear(array->elements, NEWGEN) != 0;
  if (cleared) {
    FreeBlocks(array, all.ids);  // nothing names them any more
    cleared = ClearFlags(array);
  }
  if (corrupt) QWErrorRestore();
  if (!cleared || corrupt) return QWErrorRethrow("cannot clear a large-element array");
  return 1;
}

}  // extern "C"
