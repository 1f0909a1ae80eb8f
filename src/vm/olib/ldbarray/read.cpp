// Reading large elements: the element behind a flag, a range of its bytes
// (the hot path: the flag byte, the element, one data block, and one list
// block at level 1), release, and the whole element into a buffer.
#include <cstring>

#include "vm/olib/dbarray/block_format.h"
#include "vm/olib/ldbarray/layout.h"

namespace qw::ldba {

bool HeldElement::Get(uint32_t bucket, uint32_t handle) {
  Release();
  exists_ = false;
  length_ = 0;
  DBArray *elements = array_->elements;
  const DBArrayBucket &record = *qw::dba::BucketOf(elements, bucket);
  qw::dba::FoundElement found;
  if (!qw::dba::FindElement(elements, bucket, record, genID_, read_, handle, &held_, &found))
    return QWErrorRethrow("cannot read element %u of bucket %u of a large-element array", handle, bucket);
  if (!found.at.found) return true;
  exists_ = true;
  length_ = found.at.element.length;
  if (length_ == 0) held_.Release();
  else bytes_ = held_.bytes() + HEADER_SIZE + found.at.offset + found.at.element.prefixBytes;
  return true;
}

bool InspectElement(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t genID, int directRead,
                    HeldElement *held, ElementInfo *info) {
  *info = ElementInfo{};
  bool flag = false, present = false;
  if (!ReadFlag(array, bucket, handle, genID, &flag, &present)) return false;
  held->SetRead(flag ? 1 : directRead);
  if (!held->Get(bucket, handle)) return false;
  if (!flag) {
    // Every element that exists has its flag byte.
    if (held->exists() && !present) {
      held->Release();
      return Corrupted(array, bucket, handle, "((handle / 8)) < __arraylen__");
    }
    return true;
  }
  const uint8_t *descriptor = held->bytes();
  if (!descriptor) return Corrupted(array, bucket, handle, "descriptor != NULL");
  info->external = true;
  if (!ParseExternal(array, bucket, handle, descriptor, held->length(), &info->form)) {
    held->Release();
    return false;
  }
  return true;
}

}  // namespace qw::ldba

using namespace qw::ldba;

extern "C" {

QW_API void *LDBArrayRange(LDBArray *array, uint32_t bucket, uint32_t handle, uint32_t offset, uint32_t *end,
                           uint32_t *total, uint32_t genID, int read) {
  CheckGeneration(genID);
  if (!read) CheckWrite(genID);
  *end = offset;
  if (total) *total = 0;
  HeldElement held(array, genID, read);
  ElementInfo info;
  if (!InspectElement(array, bucket, handle, genID, read, &held, &info)) return nullptr;
  if (!info.external) {
    if (total) *total = held.length();
    if (!held.bytes() || offset >= held.length()) return nullptr;
    *end = held.length();
    return held.Detach() + offset;
  }
  if (total) *total = info.form.total;
  if (offset >= info.form.total) return nullptr;
  const Cut cut(info.form.total);
  const uint32_t k = cut.BlockOf(offset);
  uint64_t id = 0;
  if (!DataBlockId(array, bucket, handle, held.bytes(), info.form, k, genID, &id)) return nullptr;
  held.Release();
  uint32_t size = 0;
  auto *data = static_cast<uint8_t *>(VMArenaDataAcquire(array->arena, id, 0, genID, read, &size, nullptr));
  if (!data) {
    QWErrorRethrow("cannot read block %u of element %u of bucket %u of a large-element array", k, handle, bucket);
    return nullptr;
  }
  const uint64_t start = cut.StartOf(k);
  *end = uint32_t(start + cut.BytesOf(k));
  return data + (offset - start);
}

QW_API void LDBArrayRelease(LDBArray *array, uint32_t genID, int read, void *address) {
  if (!address) return;
  CheckGeneration(genID);
  // Releases go by address (the page holding it), whichever block it is in.
  VMAArrayRelease_(array->arena, array->flag.id[NEWGEN], address, read);
}

QW_API int LDBArrayGetArray(LDBArray *array, uint32_t bucket, uint32_t handle, uint8_t **buffer, int append,
                            uint32_t genID) {
  CheckGeneration(genID);
  if (*buffer && !append && ArrayCapacity(*buffer) > kScratchShrink) ArrayFree(*buffer);
  if (!*buffer && !ArrayInit(*buffer, 1, 64)) return 0;
  if (!append) (void)ArrayLengthSet(*buffer, 0);  // shrinking cannot fail
  HeldElement held(array, genID, 1);
  ElementInfo info;
  if (!InspectElement(array, bucket, handle, genID, 1, &held, &info)) return 0;
  const size_t at = ArrayLength(*buffer);
  const uint32_t length = info.external ? info.form.total : held.length();
  if (length == 0) return 1;
  if (!ArrayGrow(*buffer, length)) return 0;
  if (!info.external) {
    std::memcpy(*buffer + at, held.bytes(), length);
    return 1;
  }
  const Cut cut(info.form.total);
  DataBlockWalk walk(array, bucket, handle, genID);
  const bool ok = walk.Run(
      held.bytes(), info.form,
      [&](uint32_t k, uint64_t id) {
        uint32_t size = 0;
        auto *data = static_cast<uint8_t *>(VMArenaDataAcquire(array->arena, id, 0, genID, 1, &size, nullptr));
        if (!data) return QWErrorRethrow("cannot read block %u of a large element", k) != 0;
        std::memcpy(*buffer + at + cut.StartOf(k), data, cut.BytesOf(k));
        VMArenaDataRelease(array->arena, id, 1, data, 0, 0);
        return true;
      },
      [](uint64_t) {});
  if (!ok) {
    (void)ArrayLengthSet(*buffer, at);
    return QWErrorRethrow("cannot read element %u of bucket %u of a large-element array", handle, bucket);
  }
  return 1;
}

}  // extern "C"
