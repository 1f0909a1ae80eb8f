// Structural steps shared by insertion and removal: taking a node from the
// free list (or appending one), giving it back, and rotations.
//
// Free list: params[1] is its head, each free node's n_right (skew bit
// clear) names the next, 0 ends it; params[0] counts the live nodes, so a
// node moves between "live" and "free" only here.
#include "vm/olib/dbavlldict/dbavlldict_internal.h"

namespace qw::avl {

bool NodeAllocate(NodeAccess *nodes, ParamsAccess *params, uint32_t *index) {
  QWDBAVLLDict *dict = nodes->dict();
  const uint32_t head = params->Get(kParamFreeList);
  if (head != ZERO) {
    Node free;
    if (head <= kHeader) return Corrupted(dict, NEWGEN, "free list names reserved node %u", head);
    if (!nodes->Read(head, &free)) return QWErrorRethrow("cannot take a node from the free list");
    const uint32_t next = free.n_right & kSonMask;
    if (next >= nodes->count()) return Corrupted(dict, NEWGEN, "free node %u links to %u beyond the %u records",
                                                 head, next, nodes->count());
    params->Set(kParamFreeList, next);
    *index = head;
  } else if (!nodes->Append(index)) {
    return false;
  }
  params->Set(kParamCount, params->Get(kParamCount) + 1);
  return true;
}

bool NodeFree(NodeAccess *nodes, ParamsAccess *params, uint32_t index) {
  qwassert_(nodes->genID() == NEWGEN);
  const uint32_t live = params->Get(kParamCount);
  if (live == 0) return Corrupted(nodes->dict(), NEWGEN, "freeing node %u with a live count of 0", index);
  Node node;
  if (!nodes->Read(index, &node)) return false;
  node.n_right = params->Get(kParamFreeList);
  if (!nodes->Write(index, node)) return false;
  params->Set(kParamFreeList, index);
  params->Set(kParamCount, live - 1);
  return true;
}

bool Rotate(NodeAccess *nodes, uint32_t parent, Side parentSide, uint32_t top, Side up, uint32_t *newTop) {
  const Side down = Opposite(up);
  Node topNode, son, parentNode;
  uint32_t sonIndex = ZERO, inner = ZERO;
  if (!nodes->Read(top, &topNode) || !nodes->SonOf(topNode, up, &sonIndex)) return false;
  // The shape promised a son here; a missing one is damaged skew data.
  if (sonIndex == ZERO)
    return Corrupted(nodes->dict(), nodes->genID(), "node %u is heavy on a side without a son", top);
  if (!nodes->Read(sonIndex, &son) || !nodes->SonOf(son, down, &inner)) return false;
  topNode.SetSon(up, inner);
  son.SetSon(down, top);
  if (!nodes->Write(top, topNode) || !nodes->Write(sonIndex, son)) return false;
  if (!nodes->Read(parent, &parentNode)) return false;
  parentNode.SetSon(parentSide, sonIndex);
  if (!nodes->Write(parent, parentNode)) return false;
  *newTop = sonIndex;
  return true;
}

}  // namespace qw::avl
