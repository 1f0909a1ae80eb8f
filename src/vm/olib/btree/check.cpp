// The structural check of a whole tree (BTreeCheck): key order across the
// tree, fill bounds, valid sons reached once, uniform leaf depth. It reads
// only, and reports the first problem as an error without tagging the arena.
#include <new>
#include <unordered_set>

#include "vm/olib/btree/btree_internal.h"

namespace qw::bt {
namespace {

template <typename Key>
class Checker {
 public:
  Checker(BTree *tree, uint32_t genID, BTreeStat *stat) : tree_(tree), genID_(genID), stat_(stat) {}

  bool Run(uint32_t root) { return Visit(root, 1); }

 private:
  bool Problem(uint32_t blockID, const char *what) {
    return QWErrorThrow(kCorruptCode, QW_ERROR_CLASS_DATA, "B-tree check in \"%s\": node %u: %s",
                        VMArenaPath(tree_->arena), blockID, what);
  }

  bool Visit(uint32_t blockID, uint32_t depth) {
    if (depth > kMaxDepth) return Problem(blockID, "path deeper than any tree");
    if (!PlausibleBlock(tree_, blockID)) return Problem(blockID, "son names no block");
    if (!seen_.insert(blockID).second) return Problem(blockID, "node reached twice");
    NodeRef ref;
    if (!ref.Hold(tree_, blockID, genID_, 1)) return QWErrorRethrow("B-tree check: node %u cannot be read", blockID);
    const Node<Key> node(tree_, ref.bytes());
    const uint32_t n = node.keyCount();
    if (n > node.maxKeyCount()) return Problem(blockID, "key count above its maximum");
    if (depth > 1 && n + 1 < node.maxKeyCount() / 2) return Problem(blockID, "node less than half full");
    if (!node.isLeaf() && n == 0) return Problem(blockID, "internal node without keys");
    if (node.isLeaf()) {
      if (leafDepth_ == 0) leafDepth_ = depth;
      if (depth != leafDepth_) return Problem(blockID, "leaves at different depths");
      ++stat_->leafCount;
    } else {
      ++stat_->internalCount;
    }
    if (depth > stat_->depth) stat_->depth = depth;
    for (uint32_t i = 0; i <= n; ++i) {
      if (!node.isLeaf() && !Visit(node.son(i), depth + 1)) return false;
      if (i == n) break;
      const Key key = node.key(i);
      if (hasPrevious_ && key <= previous_) return Problem(blockID, "keys out of order");
      hasPrevious_ = true;
      previous_ = key;
      ++stat_->entryCount;
    }
    return true;
  }

  BTree *tree_;
  uint32_t genID_;
  BTreeStat *stat_;
  std::unordered_set<uint32_t> seen_;
  uint32_t leafDepth_ = 0;
  bool hasPrevious_ = false;
  Key previous_{};
};

}  // namespace
}  // namespace qw::bt

using namespace qw::bt;

extern "C" {

QW_API int BTreeCheck(BTree *tree, uint32_t genID, BTreeStat *stat) {
  CheckGeneration(genID);
  BTreeStat local{};
  BTreeStat *out = stat ? stat : &local;
  *out = BTreeStat{};
  bool present = false;
  uint32_t root = INVALID_BLOCK_ID;
  if (!ReadRoot(tree, genID, &present, &root)) return 0;
  if (!present) return 1;
  try {
    if (tree->ops->keySize == 4) return Checker<uint32_t>(tree, genID, out).Run(root) ? 1 : 0;
    return Checker<uint64_t>(tree, genID, out).Run(root) ? 1 : 0;
  } catch (const std::bad_alloc &) {
    return QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "BTreeCheck: out of memory");  // ENOMEM
  }
}

}  // extern "C"
