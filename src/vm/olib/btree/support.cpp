// Shared helpers of the B-tree: corruption reports, node access, the root
// element, the path stack and the redistribution buffers.
#include <string>

#include "qwvm/qwfile.h"
#include "vm/arena/arena.h"
#include "vm/olib/btree/btree_internal.h"

namespace qw::bt {

void TagCorrupted(BTree *tree) {
  VMArena *arena = tree->arena;
  if (VMArenaIsReadOnly(arena)) return;
  const std::string marker = std::string(VMArenaPath(arena)) + "/corrupted";
  if (!FileExists(marker.c_str())) VMArenaTagCorrupted(arena);
}

bool Corrupted(BTree *tree, uint32_t blockID, const char *what) {
  TagCorrupted(tree);
  return QWErrorThrow(kCorruptCode, QW_ERROR_CLASS_DATA, "corrupted B-tree node %u in \"%s\": %s", blockID,
                      VMArenaPath(tree->arena), what);
}

bool NodeRef::Hold(BTree *tree, uint32_t blockID, uint32_t genID, int read) {
  Release();
  arena_ = tree->arena;
  blockID_ = blockID;
  read_ = read;
  bytes_ = static_cast<uint8_t *>(VMArenaDataBlockAcquire(arena_, blockID, tree->locked[genID], genID, read));
  return bytes_ != nullptr;
}

bool NodeRef::Acquire(BTree *tree, uint32_t blockID, uint32_t genID, int read) {
  if (!read) ShapeChanged(tree);
  return AcquireQuietly(tree, blockID, genID, read);
}

bool NodeRef::AcquireLeafForEdit(BTree *tree, uint32_t blockID) { return AcquireQuietly(tree, blockID, NEWGEN, 0); }

bool NodeRef::AcquireQuietly(BTree *tree, uint32_t blockID, uint32_t genID, int read) {
  if (!PlausibleBlock(tree, blockID)) return Corrupted(tree, blockID, "son names no block");
  if (Hold(tree, blockID, genID, read)) return true;
  // Code 2: the block is not part of this generation, so a stored id is bad.
  if (QWErrorCode() == 2) return Corrupted(tree, blockID, "son names a block that does not exist");
  return QWErrorRethrow("cannot read B-tree node %u", blockID);
}

void NodeRef::Release() {
  if (!bytes_) return;
  VMArenaDataRelease(arena_, DataBlockArenaId(blockID_), read_, bytes_, 0, 0);
  bytes_ = nullptr;
}

bool ReadRoot(BTree *tree, uint32_t genID, bool *present, uint32_t *rootID) {
  *present = false;
  const uint32_t id = tree->root.id[genID];
  if (id == VMA_NO_ARRAY) return true;  // the tree is newer than that generation
  if (VMAArrayLength_(tree->arena, id, genID) == 0) return true;
  uint32_t end = 0;
  auto *at = static_cast<uint8_t *>(
      VMAArrayRange_(tree->arena, id, int(tree->locked[genID]), ARENA_MAX_BLOCK_SIZE, 0, &end, genID, 1, 4, 0));
  if (!at) return QWErrorRethrow("cannot read the root of a B-tree");
  *rootID = LoadLE32(at);
  VMAArrayRelease_(tree->arena, id, at, 1);
  *present = true;
  return true;
}

void ShapeChanged(BTree *tree) { qw::vm::ShapeChanged(tree->arena); }

bool WriteRoot(BTree *tree, uint32_t blockID) {
  ShapeChanged(tree);
  uint8_t element[4];
  StoreLE32(element, blockID);
  VMArena *arena = tree->arena;
  const uint32_t id = tree->root.id[NEWGEN];
  const int locked = int(tree->locked[NEWGEN]);
  const int ok = VMAArrayLength_(arena, id, NEWGEN) == 0
                     ? VMAArrayAppend_(arena, id, locked, ARENA_MAX_BLOCK_SIZE, element, 1, NEWGEN, 4)
                     : VMAArraySetRange_(arena, id, locked, ARENA_MAX_BLOCK_SIZE, 0, element, 1, NEWGEN, 4);
  return ok ? true : QWErrorRethrow("cannot store the root of a B-tree");
}

bool ResetPath(BTree *tree) {
  if (ArrayLength(tree->path) > kPathTrim) {
    ArrayFree(tree->path);
    if (!ArrayInit(tree->path, sizeof(BTreePathEntry), 16)) return false;
  }
  (void)ArrayLengthSet(tree->path, 0);  // shrinking never fails
  return true;
}

bool ReserveScratch(BTree *tree, uint32_t keys) {
  return ArrayEnsureCapacity(tree->scratchKeys, keys) &&
         ArrayEnsureCapacity(tree->scratchValues, size_t(keys) * tree->valueSize) &&
         ArrayEnsureCapacity(tree->scratchSons, size_t(keys) + 1);
}

}  // namespace qw::bt
