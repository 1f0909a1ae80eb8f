// DBAVLLCheck: verifies the AVL shape of the whole tree of one generation,
// recursively from the root: at every node the subtree heights differ by at
// most one and the skew bits say which side is higher. Also that the tree
// holds as many nodes as the live count says.
#include "vm/olib/dbavlldict/dbavlldict_internal.h"

using namespace qw::avl;

namespace {

class Checker {
 public:
  explicit Checker(NodeAccess *nodes) : nodes_(nodes), arena_(nodes->dict()->arena) {}

  // Height of the subtree at x (0 for node 0); false with an error when it
  // cannot be read.
  bool Height(uint32_t x, uint32_t depth, uint32_t *height);
  uint32_t reached() const { return reached_; }

 private:
#define GET_SKEW(node) GetSkew(arena_, &(node))
  void Verify(const Node &x, uint32_t hl, uint32_t hr) {
    if (hl > hr + 1 || hr > hl + 1) AVL_ASSERT(arena_, FALSE);
    if (hl > hr) AVL_ASSERT(arena_, GET_SKEW(x) == LEFT);
    if (hr > hl) AVL_ASSERT(arena_, GET_SKEW(x) == RIGHT);
    if (hl == hr) AVL_ASSERT(arena_, GET_SKEW(x) == NONE);
  }
#undef GET_SKEW

  NodeAccess *nodes_;
  VMArena *arena_;
  uint32_t reached_ = 0;
};

bool Checker::Height(uint32_t x, uint32_t depth, uint32_t *height) {
  *height = 0;
  if (x == ZERO) return true;
  Node node;
  uint32_t left = ZERO, right = ZERO, hl = 0, hr = 0;
  if (!nodes_->CheckDepth(depth) || !nodes_->Read(x, &node) || !nodes_->SonOf(node, kLeft, &left) ||
      !nodes_->SonOf(node, kRight, &right))
    return false;
  ++reached_;
  if (!Height(left, depth + 1, &hl) || !Height(right, depth + 1, &hr)) return false;
  Verify(node, hl, hr);
  *height = (hl > hr ? hl : hr) + 1;
  return true;
}

}  // namespace

extern "C" {

QW_API int DBAVLLCheck(QWDBAVLLDict *dict, uint32_t genID) {
  CheckGeneration(genID);
  NodeAccess nodes;
  uint32_t root = ZERO, height = 0;
  if (!nodes.Open(dict, genID) || !nodes.Root(&root)) return 0;
  Checker checker(&nodes);
  if (!checker.Height(root, 0, &height)) return 0;
  ParamsAccess params;
  if (!params.Open(dict, genID, 1)) return 0;
  if (params.Get(kParamCount) != checker.reached())
    return Corrupted(dict, genID, "the tree holds %u nodes, the live count says %u", checker.reached(),
                     params.Get(kParamCount));
  return 1;
}

}  // extern "C"
