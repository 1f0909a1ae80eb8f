// Removal from an AVL dictionary. The walk records the path from the
// header; a node with sons is replaced by its in-order neighbour (the
// greatest key of its left subtree when it has a left son, else the
// smallest of its right subtree): the neighbour's key and value move into
// the node and the neighbour's record, which has at most one son, is cut
// out and freed. Then the path is rebalanced upwards while the height of
// the subtree below shrank.
#include "vm/olib/dbavlldict/dbavlldict_internal.h"

using namespace qw::avl;

namespace {

// Side `side` of node p (the son of `above` on `aboveSide`) lost a level.
// Updates skews, rotates when p becomes doubly heavy on the other side,
// and tells whether p's subtree shrank as a whole.
bool ShrankOn(NodeAccess *nodes, uint32_t p, Side side, const Step &above, bool *shrank) {
  VMArena *arena = nodes->dict()->arena;
  const Side other = Opposite(side);
  Node pn;
  if (!nodes->Read(p, &pn)) return false;
  const Skew skew = GetSkew(arena, &pn);
  if (skew == HeavyOn(side)) {
    SetSkew(&pn, NONE);
    *shrank = true;
    return nodes->Write(p, pn);
  }
  if (skew == NONE) {
    SetSkew(&pn, HeavyOn(other));
    *shrank = false;
    return nodes->Write(p, pn);
  }
  // Doubly heavy on the other side: rotate its son s up.
  uint32_t s = ZERO, top = ZERO;
  Node sn;
  if (!nodes->SonOf(pn, other, &s) || !nodes->Read(s, &sn)) return false;
  const Skew sSkew = GetSkew(arena, &sn);
  if (sSkew != HeavyOn(side)) {
    // s balanced: the height stays, p keeps its lean and s leans back.
    *shrank = sSkew != NONE;
    SetSkew(&pn, sSkew == NONE ? HeavyOn(other) : NONE);
    SetSkew(&sn, sSkew == NONE ? HeavyOn(side) : NONE);
    return nodes->Write(p, pn) && nodes->Write(s, sn) && Rotate(nodes, above.index, above.side, p, other, &top);
  }
  // Inner case: s's son g on our side comes up two levels.
  uint32_t g = ZERO;
  Node gn;
  if (!nodes->SonOf(sn, side, &g) || !nodes->Read(g, &gn)) return false;
  const Skew gSkew = GetSkew(arena, &gn);
  SetSkew(&pn, gSkew == HeavyOn(other) ? HeavyOn(side) : NONE);
  SetSkew(&sn, gSkew == HeavyOn(side) ? HeavyOn(other) : NONE);
  SetSkew(&gn, NONE);
  *shrank = true;
  return nodes->Write(p, pn) && nodes->Write(s, sn) && nodes->Write(g, gn) &&
         Rotate(nodes, p, other, s, side, &top) && Rotate(nodes, above.index, above.side, p, other, &top);
}

// Cuts node x, found at the end of the path, out of the tree; the path is
// extended to the parent of the record actually unlinked, and *freed names
// that record.
bool Unlink(NodeAccess *nodes, uint32_t x, Step *path, uint32_t *depth, uint32_t *freed) {
  Node xn;
  uint32_t left = ZERO, right = ZERO;
  if (!nodes->Read(x, &xn) || !nodes->SonOf(xn, kLeft, &left) || !nodes->SonOf(xn, kRight, &right)) return false;
  uint32_t cut = x;
  if (left != ZERO || right != ZERO) {
    // Walk to the in-order neighbour: one step toward a son, then to the
    // far end on the other side.
    const Side toward = left != ZERO ? kLeft : kRight;
    const Side across = Opposite(toward);
    path[(*depth)++] = {x, toward};
    cut = toward == kLeft ? left : right;
    Node cn;
    for (;;) {
      uint32_t next = ZERO;
      if (!nodes->CheckDepth(*depth) || !nodes->Read(cut, &cn) || !nodes->SonOf(cn, across, &next)) return false;
      if (next == ZERO) break;
      path[(*depth)++] = {cut, across};
      cut = next;
    }
    xn.key = cn.key;
    xn.value = cn.value;
    if (!nodes->Write(x, xn)) return false;
  }
  // `cut` has at most one son; it takes cut's place below the parent.
  Node cn, parent;
  uint32_t only = ZERO;
  if (!nodes->Read(cut, &cn) || !nodes->SonOf(cn, kLeft, &only)) return false;
  if (only == ZERO && !nodes->SonOf(cn, kRight, &only)) return false;
  const Step &last = path[*depth - 1];
  if (!nodes->Read(last.index, &parent)) return false;
  parent.SetSon(last.side, only);
  *freed = cut;
  return nodes->Write(last.index, parent);
}

bool RemoveAt(NodeAccess *nodes, ParamsAccess *params, uint32_t x, Step *path, uint32_t depth) {
  uint32_t freed = ZERO;
  if (!Unlink(nodes, x, path, &depth, &freed) || !NodeFree(nodes, params, freed)) return false;
  bool shrank = true;
  while (shrank && depth >= 2) {
    const Step step = path[--depth];
    if (!ShrankOn(nodes, step.index, step.side, path[depth - 1], &shrank)) return false;
  }
  return true;
}

// Writes the search key into node 0, the walk's sentinel.
bool SetSentinel(NodeAccess *nodes, uint64_t key) {
  Node zero;
  if (!nodes->Read(ZERO, &zero)) return false;
  zero.key = key;
  return nodes->Write(ZERO, zero);
}

}  // namespace

extern "C" {

QW_API uint64_t QWDBAVLLDictRemove(QWDBAVLLDict *dict, uint64_t key, uint64_t notFound, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  QWErrorClear();
  NodeAccess nodes;
  Step path[kMaxDepth + 1];
  uint32_t depth = 0, x = ZERO;
  if (!nodes.Open(dict, NEWGEN) || !SetSentinel(&nodes, key) || !nodes.Root(&x)) return notFound;
  path[depth++] = {kHeader, kRight};
  Node node;
  // A key of 2^32 or more never equals the sentinel's low 32 bits: the walk
  // also ends at node 0 itself.
  for (;;) {
    if (!nodes.CheckDepth(depth) || !nodes.Read(x, &node)) return notFound;
    if (x == ZERO || node.Key() == key) break;
    const Side side = key < node.Key() ? kLeft : kRight;
    path[depth++] = {x, side};
    if (!nodes.SonOf(node, side, &x)) return notFound;
  }
  if (x == ZERO) return notFound;
  const uint64_t value = node.Value();
  ParamsAccess params;
  if (!params.Open(dict, NEWGEN, 0) || !RemoveAt(&nodes, &params, x, path, depth)) {
    QWErrorRethrow("cannot remove key %llu from AVL dictionary \"%s\"", (unsigned long long)key, dict->path.c_str());
    return notFound;
  }
  return value;
}

}  // extern "C"
