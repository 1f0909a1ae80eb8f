// Lifetime of a symbol-sequence tree: finding or creating its arrays by
// name, commit, clear, lock registration, the atom count and thread data.
#include <atomic>
#include <cstring>
#include <memory>
#include <string>

#include "vm/olib/common/named_array.h"
#include "vm/olib/common/path_buffer.h"
#include "vm/olib/pitree/head_tree.h"

namespace qw::pit {
namespace {

constexpr uint32_t kArrayBlock = ARENA_MAX_BLOCK_SIZE;

struct TreeDeleter {
  void operator()(PITree *tree) const {
    DBArrayFree(tree->leaf);
    std::default_delete<PITree>()(tree);
  }
};
using TreePtr = std::unique_ptr<PITree, TreeDeleter>;

}  // namespace

bool Corrupted(const PITree *tree, const char *what, uint32_t detail) {
  if (!VMArenaIsReadOnly(tree->arena)) VMArenaTagCorrupted(tree->arena);
  return QWErrorThrow(kCorruptCode, QW_ERROR_CLASS_DATA, "corrupted symbol-sequence tree in \"%s\": %s (%u)",
                      VMArenaPath(tree->arena), what, detail);
}

void TrimScratch(PITreeThreadData *threadData) {
  auto trim = [](auto &v) {
    if (v.capacity() > kScratchLimit) std::remove_reference_t<decltype(v)>().swap(v);
  };
  trim(threadData->key);
  trim(threadData->leaf.pool);
  trim(threadData->leaf.entries);
  trim(threadData->encoded);
  trim(threadData->header);
  trim(threadData->sizes);
  trim(threadData->walkKey);
  trim(threadData->path);
}

bool ReadU32(const PITree *tree, const VMAArrayHandle &array, uint32_t index, uint32_t genID, uint32_t *value) {
  const uint32_t id = array.id[genID];
  if (id == VMA_NO_ARRAY || index >= VMAArrayLength_(tree->arena, id, genID))
    return Corrupted(tree, "a count array is too short", index);
  uint32_t end = 0;
  auto *p = static_cast<const uint8_t *>(
      VMAArrayRange_(tree->arena, id, Locked(tree, genID), kArrayBlock, index, &end, genID, 1, 4, 0));
  if (!p) return QWErrorRethrow("cannot read a symbol-sequence tree");
  std::memcpy(value, p, 4);  // little-endian hosts only, as the arena
  VMAArrayRelease_(tree->arena, id, const_cast<uint8_t *>(p), 1);
  return true;
}

bool WriteU32(const PITree *tree, const VMAArrayHandle &array, uint32_t index, uint32_t value) {
  const uint32_t id = array.id[NEWGEN];
  return VMAArraySetRange_(tree->arena, id, Locked(tree, NEWGEN), kArrayBlock, index, &value, 1, NEWGEN, 4) != 0;
}

}  // namespace qw::pit

using namespace qw::pit;

extern "C" {

QW_API PITree *PITreeNew_(VMArena *arena, uint8_t **pathBuffer, const char *name, int scan, int *created,
                          int lock) {
  if (created) *created = 0;
  if (!name || !*name) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "PITreeNew_: a tree needs a name");
    return nullptr;
  }
  qw::olib::PathScope path(pathBuffer);
  if (!path.ok()) return nullptr;
  const std::string root = path.Text() + name + "/pitree";
  const uint32_t flag = lock ? 1 : 0;
  static std::atomic<uint64_t> lastSerial{0};
  TreePtr tree(new PITree{arena, {}, {}, nullptr, {}, scan ? 0u : 1u, {}, {flag, flag}, ++lastSerial});
  bool madeAny = false;
  auto OpenArray = [&](const std::string &base, const char *array, VMAArrayHandle *handle) {
    return qw::olib::OpenNamedArray(arena, base, array, scan, lock, handle, &madeAny) ||
           QWErrorRethrow("cannot open array \"%s/%s\" of a symbol-sequence tree", base.c_str(), array);
  };
  static const char *const kNodeNames[kClassCount] = {"node0", "node1", "node2", "node3"};
  bool ok = OpenArray(root + "/head", "headIndex", &tree->headIndex);
  for (uint32_t c = 0; ok && c < kClassCount; ++c)
    ok = OpenArray(root + "/head", kNodeNames[c], &tree->node[c]);
  if (ok) {
    int leafCreated = VMArenaIsReadOnly(arena) ? 0 : 1;
    // The array builds its names from `path` alone (the buffer is scratch).
    const std::string leafPath = root + "/leaf";
    tree->leaf = DBArrayNew(arena, pathBuffer, leafPath.c_str(), &leafCreated, lock, PITREE_LEAF_BUCKETS);
    ok = tree->leaf != nullptr;
    // Leaf l lives in bucket l % PITREE_LEAF_BUCKETS: any other count found
    // in the store would send reads past the array's buckets.
    if (ok && DBArrayBucketCount(tree->leaf) != PITREE_LEAF_BUCKETS)
      ok = Corrupted(tree.get(), "the leaf array has the wrong number of buckets", DBArrayBucketCount(tree->leaf));
    if (ok) {
      DBArraySetCompact(tree->leaf, 0);
      madeAny = madeAny || leafCreated;
    }
  }
  ok = ok && OpenArray(root, "free", &tree->free);
  if (ok && !scan) {
    ok = OpenArray(root, "params", &tree->params);
    if (ok && VMAArrayLength_(arena, tree->params.id[NEWGEN], NEWGEN) == 0 && !VMArenaIsReadOnly(arena)) {
      const uint32_t zero = 0;
      ok = VMAArrayAppend_(arena, tree->params.id[NEWGEN], lock, kArrayBlock, &zero, 1, NEWGEN, 4) != 0;
      madeAny = true;
    }
  }
  if (!ok) {
    QWErrorRethrow("cannot open symbol-sequence tree \"%s\"", root.c_str());
    return nullptr;
  }
  if (created) *created = madeAny ? 1 : 0;
  return tree.release();
}

QW_API PITree *PITreeNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int lock) {
  return PITreeNew_(arena, pathBuffer, name, 0, created, lock);
}

QW_API void PITreeFree(PITree *tree) {
  if (tree) TreeDeleter()(tree);
}

QW_API int PITreeCommit(PITree *tree) {
  tree->headIndex.id[OLDGEN] = tree->headIndex.id[NEWGEN];
  for (VMAArrayHandle &node : tree->node) node.id[OLDGEN] = node.id[NEWGEN];
  DBArrayCommit(tree->leaf);
  tree->free.id[OLDGEN] = tree->free.id[NEWGEN];
  if (tree->hasParams) tree->params.id[OLDGEN] = tree->params.id[NEWGEN];
  return 1;
}

QW_API int PITreeClear(PITree *tree, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  const int locked = Locked(tree, NEWGEN);
  bool ok = VMAArrayClear_(tree->arena, tree->headIndex.id[NEWGEN], locked, NEWGEN) != 0;
  for (VMAArrayHandle &node : tree->node) ok = ok && VMAArrayClear_(tree->arena, node.id[NEWGEN], locked, NEWGEN);
  ok = ok && DBArrayClear(tree->leaf, NEWGEN) && VMAArrayClear_(tree->arena, tree->free.id[NEWGEN], locked, NEWGEN);
  if (ok && tree->hasParams) ok = WriteU32(tree, tree->params, 0, 0);
  return ok ? 1 : QWErrorRethrow("cannot clear a symbol-sequence tree");
}

QW_API int PITreeEmpty(PITree *tree, uint32_t genID) {
  CheckGeneration(genID);
  QWErrorClear();
  uint32_t root = kNoRef;
  if (!HeadIndexGet(tree, kRootSlot, genID, &root)) return 0;
  return root == kNoRef ? 1 : 0;
}

QW_API int PITreeLockRegister(PITree *tree, uint32_t lock, uint32_t genID) {
  CheckGeneration(genID);
  if (!DBArrayLockRegister(tree->leaf, lock, genID)) return 0;
  VMAArrayHandle *arrays[] = {&tree->headIndex, &tree->node[0], &tree->node[1], &tree->node[2], &tree->node[3],
                              &tree->free,      tree->hasParams ? &tree->params : nullptr};
  for (VMAArrayHandle *array : arrays)
    if (array && array->id[genID] != VMA_NO_ARRAY && !VMAArrayLockRegister_(tree->arena, array->id[genID], genID, 1))
      return QWErrorRethrow("cannot register the locks of a symbol-sequence tree");
  if (lock) {
    tree->locked[genID] = 1;
    for (VMAArrayHandle *array : arrays)
      if (array) array->locked[genID] = 1;
  }
  return 1;
}

QW_API int PITreeFillLeaf(PITree *tree, uint32_t leaf, const void *bytes, uint32_t length, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  return DBArraySet(tree->leaf, leaf % PITREE_LEAF_BUCKETS, leaf / PITREE_LEAF_BUCKETS, NEWGEN, bytes, length);
}

QW_API uint32_t PITreeGetSize(PITree *tree, uint32_t genID) {
  CheckGeneration(genID);
  if (!tree->hasParams) {
    qwassert_(FALSE);
    return 0;
  }
  if (tree->params.id[genID] == VMA_NO_ARRAY) return 0;  // new since the last commit
  uint32_t count = 0;
  return ReadU32(tree, tree->params, 0, genID, &count) ? count : 0;
}

QW_API int PITreeUpdateSize(PITree *tree, int a, int b, int c, uint32_t genID) {
  CheckGeneration(genID);
  if (!tree->hasParams) return 1;
  qwassert_(genID == NEWGEN);
  uint32_t count = 0;
  if (!ReadU32(tree, tree->params, 0, NEWGEN, &count)) return 0;
  if (a && (b || c))
    ++count;
  else if (count > 0)
    --count;
  return WriteU32(tree, tree->params, 0, count) ? 1 : QWErrorRethrow("cannot update the count of a tree");
}

QW_API PITreeThreadData *PITreeThreadDataNew(void) { return new (std::nothrow) PITreeThreadData(); }

QW_API void PITreeThreadDataReInit(PITreeThreadData *threadData) {
  TrimScratch(threadData);
  threadData->top = CommittedTop{};
}

QW_API void PITreeThreadDataFree(PITreeThreadData *threadData) { delete threadData; }

}  // extern "C"
