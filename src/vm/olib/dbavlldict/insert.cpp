// Insertion into an AVL dictionary: walk down recording the path, replace
// the value of a present key, or link a new node and rebalance upwards
// while its subtree grew. A rotation ends the growth.
#include "vm/olib/dbavlldict/dbavlldict_internal.h"

using namespace qw::avl;

namespace {

// Side `side` of node p (the son of `above` on `aboveSide`) grew by one
// level. Updates skews, rotates when p becomes doubly heavy, and tells
// whether p's subtree grew as a whole.
bool GrewOn(NodeAccess *nodes, uint32_t p, Side side, const Step &above, bool *grew) {
  VMArena *arena = nodes->dict()->arena;
  const Side other = Opposite(side);
  Node pn;
  if (!nodes->Read(p, &pn)) return false;
  const Skew skew = GetSkew(arena, &pn);
  *grew = false;
  if (skew == HeavyOn(other)) {
    SetSkew(&pn, NONE);
    return nodes->Write(p, pn);
  }
  if (skew == NONE) {
    SetSkew(&pn, HeavyOn(side));
    *grew = true;
    return nodes->Write(p, pn);
  }
  // Doubly heavy on `side`: rotate.
  uint32_t s = ZERO, top = ZERO;
  Node sn;
  if (!nodes->SonOf(pn, side, &s) || !nodes->Read(s, &sn)) return false;
  if (GetSkew(arena, &sn) == HeavyOn(side)) {
    SetSkew(&pn, NONE);
    SetSkew(&sn, NONE);
    return nodes->Write(p, pn) && nodes->Write(s, sn) && Rotate(nodes, above.index, above.side, p, side, &top);
  }
  // Inner case: s's son g on the other side comes up two levels.
  uint32_t g = ZERO;
  Node gn;
  if (!nodes->SonOf(sn, other, &g) || !nodes->Read(g, &gn)) return false;
  const Skew gSkew = GetSkew(arena, &gn);
  SetSkew(&pn, gSkew == HeavyOn(side) ? HeavyOn(other) : NONE);
  SetSkew(&sn, gSkew == HeavyOn(other) ? HeavyOn(side) : NONE);
  SetSkew(&gn, NONE);
  return nodes->Write(p, pn) && nodes->Write(s, sn) && nodes->Write(g, gn) &&
         Rotate(nodes, p, side, s, other, &top) && Rotate(nodes, above.index, above.side, p, side, &top);
}

// Links a new node for (key, value) below the last step of the path and
// rebalances up the path.
bool LinkNew(NodeAccess *nodes, ParamsAccess *params, Step *path, uint32_t depth, uint64_t key, uint64_t value) {
  uint32_t fresh = ZERO;
  if (!NodeAllocate(nodes, params, &fresh)) return false;
  Node node;
  node.key = key;
  node.value = value;  // sons 0, skew none
  Node parent;
  const Step &last = path[depth - 1];
  if (!nodes->Write(fresh, node) || !nodes->Read(last.index, &parent)) return false;
  parent.SetSon(last.side, fresh);
  if (!nodes->Write(last.index, parent)) return false;
  bool grew = true;
  while (grew && depth >= 2) {
    const Step step = path[--depth];
    if (!GrewOn(nodes, step.index, step.side, path[depth - 1], &grew)) return false;
  }
  return true;
}

}  // namespace

extern "C" {

QW_API uint64_t QWDBAVLLDictInsert(QWDBAVLLDict *dict, uint64_t key, uint64_t value, uint64_t previousDefault,
                                   uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  QWErrorClear();
  NodeAccess nodes;
  Step path[kMaxDepth + 1];
  uint32_t depth = 0, x = ZERO;
  if (!nodes.Open(dict, NEWGEN) || !nodes.Root(&x)) return previousDefault;
  path[depth++] = {kHeader, kRight};
  while (x != ZERO) {
    Node node;
    if (!nodes.CheckDepth(depth) || !nodes.Read(x, &node)) return previousDefault;
    if (key == node.Key()) {
      const uint64_t previous = node.Value();
      node.value = value;
      return nodes.Write(x, node) ? previous : previousDefault;
    }
    const Side side = key < node.Key() ? kLeft : kRight;
    path[depth++] = {x, side};
    if (!nodes.SonOf(node, side, &x)) return previousDefault;
  }
  {
    ParamsAccess params;
    if (!params.Open(dict, NEWGEN, 0) || !LinkNew(&nodes, &params, path, depth, key, value)) {
      QWErrorRethrow("cannot insert key %llu into AVL dictionary \"%s\"", (unsigned long long)key, dict->path.c_str());
      return previousDefault;
    }
  }
  nodes.ReleaseAll();
  // Removal fills the free list and insertion takes one node from it, so
  // a list still holding nodes here means the two were not interleaved.
  AVL_ASSERT(dict->arena, 0 == DictFreeListGet(dict, genID));
  return previousDefault;
}

}  // extern "C"
