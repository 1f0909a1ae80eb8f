// Lifetime of a tree record: opening the two arrays, the stored value width
// and the layout constants derived from it; commit, clear and free.
#include <memory>
#include <string>
#include <new>

#include "vm/olib/btree/btree_internal.h"

// Names the layout assertions use.
using UInt = uint32_t;
using BlockID = uint32_t;

namespace qw::bt {
namespace {

struct BTreeDeleter {
  void operator()(BTree *tree) const {
    ArrayFree(tree->path);
    ArrayFree(tree->scratchKeys);
    ArrayFree(tree->scratchValues);
    ArrayFree(tree->scratchSons);
    std::default_delete<BTree>()(tree);
  }
};
using BTreePtr = std::unique_ptr<BTree, BTreeDeleter>;

uint32_t ReadU32(BTree *tree, const VMAArrayHandle &handle, uint32_t index, bool *ok) {
  uint32_t end = 0;
  auto *at = static_cast<uint8_t *>(
      VMAArrayRange_(tree->arena, handle.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, index, &end, NEWGEN, 1, 4, 0));
  *ok = at != nullptr;
  if (!at) return 0;
  const uint32_t value = LoadLE32(at);
  VMAArrayRelease_(tree->arena, handle.id[NEWGEN], at, 1);
  return value;
}

// "params": element 0 is 0, element 1 the value width; missing elements are
// added (0, then the caller's width) and the stored width is read back.
bool InitParams(BTree *tree, uint32_t valueSize) {
  VMArena *arena = tree->arena;
  const uint32_t id = tree->params.id[NEWGEN];
  const uint32_t length = VMAArrayLength_(arena, id, NEWGEN);
  if (length < 2) {
    if (VMArenaIsReadOnly(arena))
      return QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "B-tree parameters missing in a read-only arena");
    // Only a width about to be stored must be one a tree can have.
    if (valueSize < 1 || valueSize > 8)
      return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "BTreeNew_: bad value size %u for a new tree", valueSize);
    uint8_t element[4];
    for (uint32_t i = length; i < 2; ++i) {
      StoreLE32(element, i == 0 ? 0 : valueSize);
      if (!VMAArrayAppend_(arena, id, 0, ARENA_MAX_BLOCK_SIZE, element, 1, NEWGEN, 4)) return false;
    }
  }
  bool ok = false;
  tree->valueSize = ReadU32(tree, tree->params, 1, &ok);
  if (!ok) return false;
  if (tree->valueSize < 1 || tree->valueSize > 8) {
    TagCorrupted(tree);
    return QWErrorThrow(kCorruptCode, QW_ERROR_CLASS_DATA, "corrupted B-tree in \"%s\": stored value width %u",
                        VMArenaPath(arena), tree->valueSize);
  }
  return true;
}

// The layout constants of both kinds of node.
void ComputeLayout(BTree *btree, uint32_t keySize) {
  const uint32_t blockLength = kBlockLength;
  const uint32_t V = btree->valueSize;
  for (int indexIsLeaf = 0; indexIsLeaf < 2; ++indexIsLeaf) {
    const uint32_t maxKeyCount = blockLength / (V + keySize + (indexIsLeaf ? 0 : kSonSize));
    btree->maxKeyCount[indexIsLeaf] = maxKeyCount;
    btree->valueOffset[indexIsLeaf] = maxKeyCount * keySize;
    btree->blockOffset[indexIsLeaf] = btree->valueOffset[indexIsLeaf] + maxKeyCount * V;
    if (indexIsLeaf) qwassert_(btree->blockOffset[indexIsLeaf] <= blockLength);
    else qwassert_(btree->blockOffset[indexIsLeaf] + (UInt)(maxKeyCount * sizeof(BlockID)) <= blockLength);
  }
}

uint32_t BucketMask(uint32_t bucketCount) {
  uint32_t bits = 0;
  while ((1u << bits) < bucketCount) ++bits;
  return (1u << bits) - 1;
}

// Block walk callback of clear: appends to a growable array; out of memory
// stops the walk.
int CollectBlock(uint32_t blockID, int /*isLeaf*/, void *context) {
  auto *&blocks = *static_cast<uint32_t **>(context);
  return ArrayAppend(blocks, blockID) ? 0 : 1;
}

}  // namespace

void CheckKeySize(const BTree *tree, uint32_t keySize) {
  if ((keySize != 4 && keySize != 8) || (tree && keySize != tree->ops->keySize)) qwassert_(FALSE);
}

}  // namespace qw::bt

using namespace qw::bt;

extern "C" {

QW_API BTree *BTreeNew_(VMArena *arena, const char *path, const char *name, uint32_t reserved, int scan,
                        uint32_t keySize, uint32_t valueSize) {
  CheckKeySize(nullptr, keySize);
  if (reserved != 0 || !arena || !path) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "BTreeNew_: bad argument (reserved %u)", reserved);
    return nullptr;
  }
  const std::string where = name ? std::string(path) + "/" + name : std::string(path);
  BTreePtr tree(new (std::nothrow) BTree{});
  if (!tree) {
    QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "BTreeNew_: out of memory");  // ENOMEM
    return nullptr;
  }
  tree->arena = arena;
  tree->ops = keySize == 4 ? &kUIntOps : &kULongOps;
  tree->find = keySize == 4 ? UIntFind64 : ULongFind64;
  if (!VMAArrayInitFromPath_(&tree->root, arena, where.c_str(), "root", scan) ||
      !VMAArrayInitFromPath_(&tree->params, arena, where.c_str(), "params", scan) ||
      !InitParams(tree.get(), valueSize)) {
    QWErrorRethrow("cannot open B-tree \"%s\"", where.c_str());
    return nullptr;
  }
  ComputeLayout(tree.get(), keySize);
  tree->bucketCount = VMArenaBucketCount(arena);
  tree->bucketMask = BucketMask(tree->bucketCount);
  if (!ArrayInit(tree->path, sizeof(BTreePathEntry), 16) || !ArrayInit(tree->scratchKeys, sizeof(uint64_t), 16) ||
      !ArrayInit(tree->scratchValues, 1, 128) || !ArrayInit(tree->scratchSons, sizeof(uint32_t), 16))
    return nullptr;
  return tree.release();
}

QW_API BTree *BTreeNew(VMArena *arena, const char *path, const char *name, int scan, uint32_t keySize,
                       uint32_t valueSize) {
  return BTreeNew_(arena, path, name, 0, scan, keySize, valueSize);
}

QW_API void BTreeFree(BTree *tree, uint32_t keySize) {
  if (!tree) return;
  CheckKeySize(tree, keySize);
  UnregisterLocks(tree);
  BTreeDeleter()(tree);
}

QW_API int BTreeCommit(BTree *tree, uint32_t keySize) {
  CheckKeySize(tree, keySize);
  tree->root.id[OLDGEN] = tree->root.id[NEWGEN];
  tree->params.id[OLDGEN] = tree->params.id[NEWGEN];
  return 1;
}

QW_API int BTreeClear(BTree *tree, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  uint32_t *blocks = nullptr;
  if (!ArrayInit(blocks, sizeof(uint32_t), 64)) return 0;
  if (tree->ops->blockEnumerate(tree, CollectBlock, &blocks, NEWGEN, 1) != 0) {
    ArrayFree(blocks);
    return QWErrorRethrow("cannot clear a B-tree");
  }
  ShapeChanged(tree);
  for (size_t i = 0; i < ArrayLength(blocks); ++i) VMArenaDataBlockFree(tree->arena, blocks[i], 0);
  ArrayFree(blocks);
  if (!VMAArrayLengthSet_(tree->arena, tree->root.id[NEWGEN], 0, NEWGEN, 4))
    return QWErrorRethrow("cannot clear a B-tree");
  return 1;
}

QW_API uint32_t BTreeValueSize(BTree *tree) { return tree->valueSize; }

QW_API uint32_t BTreeKeySize(BTree *tree) { return tree->ops->keySize; }

}  // extern "C"
