// Memory locks of a tree: registration with the arena's registry and the
// walk that makes the tree's blocks resident.
//
// The registry keeps custom entries for their owners but cannot call back
// into them, so the tree applies its lock itself when it registers: on an
// arena without a background flush lock every node block is locked with
// VMArenaBlockLock (the full lock; page-cache locking has no partial form);
// with one, one byte of every page of the walked blocks is read so that the
// pages are resident. Entries name the tree by its "root" array id, the
// kind of lock by the argument word and the generation by the extra word.
#include <initializer_list>

#include "qwvm/qwfile.h"
#include "vm/arena/arena.h"
#include "vm/olib/btree/btree_internal.h"

namespace qw::bt {
namespace {

constexpr uint32_t kBlockLockKind = 1;  // VMArenaBlockLock on every node block
constexpr uint32_t kPageTouchKind = 2;  // a read of every page of the walked blocks

struct LockWalk {
  BTree *tree;
  uint32_t genID;
};

int LockBlock(uint32_t blockID, int /*isLeaf*/, void *context) {
  const auto *walk = static_cast<const LockWalk *>(context);
  VMArenaBlockLock(walk->tree->arena, blockID, walk->genID);
  return 0;
}

int TouchPages(uint32_t blockID, int /*isLeaf*/, void *context) {
  const auto *walk = static_cast<const LockWalk *>(context);
  NodeRef ref;
  if (!ref.Acquire(walk->tree, blockID, walk->genID, 1)) return 1;
  const volatile uint8_t *bytes = ref.bytes();
  const uint32_t page = PageSize();
  uint32_t sum = 0;
  for (uint32_t at = 0; at < kNodeSize; at += page) sum += bytes[at];
  (void)sum;
  return 0;
}

}  // namespace

void UnregisterLocks(BTree *tree) {
  const uint32_t object = tree->root.id[NEWGEN];
  for (uint32_t genID : {NEWGEN, OLDGEN})
    for (; tree->lockCount[genID] > 0; --tree->lockCount[genID])
      for (uint32_t kind : {kBlockLockKind, kPageTouchKind})
        VMObjectCustomLockUnRegister(tree->arena, object, kind, genID);
}

}  // namespace qw::bt

using namespace qw::bt;

extern "C" {

QW_API int BTreeLockRegister(BTree *tree, uint32_t keySize, int full, uint32_t genID) {
  CheckKeySize(tree, keySize);
  CheckGeneration(genID);
  VMArena *arena = tree->arena;
  const bool background = arena->bgLock != 0;
  if (!background && !full) {
    QWMessage(QW_LEVEL_ERROR, "Only full btree lock is supported for pagecache locking");
    full = 1;
  }
  const uint32_t kind = background ? kPageTouchKind : kBlockLockKind;
  if (!VMObjectCustomLockRegister(arena, tree->root.id[NEWGEN], kind, 0, genID))
    return QWErrorRethrow("cannot register the lock of a B-tree");
  ++tree->lockCount[genID];
  if (!background) tree->locked[genID] = 1;
  LockWalk walk{tree, genID};
  const int stopped = tree->ops->blockEnumerate(tree, background ? TouchPages : LockBlock, &walk, genID, full);
  return stopped ? QWErrorRethrow("cannot lock the blocks of a B-tree") : 1;
}

}  // extern "C"
