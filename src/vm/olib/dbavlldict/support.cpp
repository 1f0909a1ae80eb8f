// Shared helpers of the AVL dictionary: corruption reports, argument checks,
// skews, the arrays' ids per generation and the "params" elements.
#include <cstdarg>
#include <cstdio>

#include "util/endian.h"
#include "vm/olib/dbavlldict/dbavlldict_internal.h"

namespace qw::avl {

void TagCorrupted(VMArena *arena) {
  if (!VMArenaIsReadOnly(arena)) VMArenaTagCorrupted(arena);
}

bool Corrupted(const QWDBAVLLDict *dict, uint32_t genID, const char *format, ...) {
  TagCorrupted(dict->arena);
  char detail[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(detail, sizeof detail, format, args);
  va_end(args);
  return QWErrorThrow(kCorruptCode, QW_ERROR_CLASS_DATA, "corrupted AVL dictionary \"%s\" in \"%s\" (gen %u): %s",
                      dict->path.c_str(), VMArenaPath(dict->arena), genID, detail);
}

void CheckGeneration(uint32_t genID) {
  if (genID != NEWGEN && genID != OLDGEN) qwassert_(FALSE);
}

Skew GetSkew(VMArena *arena, const Node *x_node) {
  if (x_node->n_left & SKEW_MASK) {
    AVL_ASSERT(arena, !(x_node->n_right & SKEW_MASK));
    return LEFT;
  }
  return (x_node->n_right & SKEW_MASK) ? RIGHT : NONE;
}

void SetSkew(Node *node, Skew skew) {
  node->n_right &= kSonMask;
  node->n_left &= kSonMask;
  switch (skew) {
    case RIGHT:
      node->n_right |= SKEW_MASK;
      break;
    case LEFT:
      node->n_left |= SKEW_MASK;
      break;
    case NONE:
      break;
    default:
      qwassert_(FALSE);
  }
}

uint32_t ArrayIdOf(QWDBAVLLDict *dict, VMAArrayHandle *handle, const char *name, uint32_t genID) {
  if (genID == NEWGEN) return handle->id[NEWGEN];
  // Readers of OLDGEN may share the record: the id is filled in atomically
  // (every racer finds the same id).
  std::atomic_ref<uint32_t> oldId(handle->id[OLDGEN]);
  uint32_t id = oldId.load(std::memory_order_relaxed);
  if (id != VMA_NO_ARRAY) return id;
  uint8_t *scratch = nullptr;
  uint32_t found = VMA_NO_ARRAY;
  if (VMAArrayLookupFromPath(dict->arena, OLDGEN, &scratch, dict->path.c_str(), name, dict->scan, &found))
    oldId.store(found, std::memory_order_relaxed);
  ArrayFree(scratch);
  return found;
}

bool ParamsAccess::Open(QWDBAVLLDict *dict, uint32_t genID, int read) {
  Release();
  arena_ = dict->arena;
  read_ = read;
  arrayID_ = ArrayIdOf(dict, &dict->params, "params", genID);
  if (arrayID_ == VMA_NO_ARRAY) {
    if (QWErrorIsSet()) return QWErrorRethrow("cannot find the \"params\" array of \"%s\"", dict->path.c_str());
    return true;  // nothing committed yet: reads as zeros
  }
  const uint32_t length = VMAArrayLength_(arena_, arrayID_, genID);
  if (length < 2) return Corrupted(dict, genID, "\"params\" holds %u elements, not 2", length);
  uint32_t end = 0;
  held_ = static_cast<uint8_t *>(
      VMAArrayRange_(arena_, arrayID_, int(dict->params.locked[genID]), kBlockSize, 0, &end, genID, read, kParamSize, 0));
  if (!held_) return QWErrorRethrow("cannot read the \"params\" array of \"%s\"", dict->path.c_str());
  if (end < 2) {
    Release();
    return Corrupted(dict, genID, "\"params\" block holds %u elements, not 2", end);
  }
  return true;
}

uint32_t ParamsAccess::Get(uint32_t which) const { return held_ ? LoadLE32(held_ + which * kParamSize) : 0; }

void ParamsAccess::Set(uint32_t which, uint32_t value) {
  qwassert_(held_ && !read_);
  StoreLE32(held_ + which * kParamSize, value);
}

void ParamsAccess::Release() {
  if (held_) VMAArrayRelease_(arena_, arrayID_, held_, read_);
  held_ = nullptr;
}

}  // namespace qw::avl

uint32_t DictFreeListGet(QWDBAVLLDict *dict, uint32_t genID) {
  qw::avl::ParamsAccess params;
  if (!params.Open(dict, genID, 1)) return 0xFFFFFFFFu;
  return params.Get(qw::avl::kParamFreeList);
}
