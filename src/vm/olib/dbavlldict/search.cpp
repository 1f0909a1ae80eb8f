// Reading an AVL dictionary: exact and nearest-key search, and the in-order
// walk. Stored keys read as their low 32 bits; a search key of 2^32 or more
// is greater than all of them.
#include "vm/olib/dbavlldict/dbavlldict_internal.h"

using namespace qw::avl;

namespace {

// The end of a Find-style walk for `key`: the node holding it (ZERO when
// absent) and the last nodes from which the walk went right (lower) and
// left (upper), the header when it never did.
struct Landing {
  uint32_t found = ZERO;
  uint32_t lower = kHeader;
  uint32_t upper = kHeader;
};

bool Descend(NodeAccess *nodes, uint64_t key, Landing *landing) {
  uint32_t x = ZERO;
  if (!nodes->Root(&x)) return false;
  for (uint32_t depth = 0; x != ZERO; ++depth) {
    Node node;
    if (!nodes->CheckDepth(depth) || !nodes->Read(x, &node)) return false;
    const uint64_t stored = node.Key();
    if (key == stored) {
      landing->found = x;
      return true;
    }
    const Side side = key < stored ? kLeft : kRight;
    (side == kLeft ? landing->upper : landing->lower) = x;
    if (!nodes->SonOf(node, side, &x)) return false;
  }
  return true;
}

bool KeyOf(NodeAccess *nodes, uint32_t index, uint64_t *key) {
  Node node;
  if (!nodes->Read(index, &node)) return false;
  *key = node.Key();
  return true;
}

// The in-order walk, `first` side first. Bounded by the record count, so a
// damaged tree that loops is reported instead of walked forever.
int Walk(NodeAccess *nodes, Side first, QWDBAVLLDictEnumerateFunction callback, void *context) {
  const Side second = Opposite(first);
  Node stack[kMaxDepth];
  uint32_t depth = 0, visited = 0, x = ZERO;
  if (!nodes->Root(&x)) return 0;
  while (x != ZERO || depth > 0) {
    while (x != ZERO) {
      if (!nodes->CheckDepth(depth) || !nodes->Read(x, &stack[depth])) return 0;
      if (!nodes->SonOf(stack[depth], first, &x)) return 0;
      ++depth;
    }
    const Node node = stack[--depth];
    if (++visited > nodes->count())
      return Corrupted(nodes->dict(), nodes->genID(), "the walk meets more nodes than the %u records (a cycle)",
                       nodes->count());
    if (!callback(nodes->dict(), node.Key(), node.Value(), context)) return 0;
    if (!nodes->SonOf(node, second, &x)) return 0;
  }
  return 1;
}

}  // namespace

extern "C" {

QW_API uint64_t QWDBAVLLDictFind(QWDBAVLLDict *dict, uint64_t key, uint64_t notFound, uint32_t genID) {
  CheckGeneration(genID);
  QWErrorClear();
  NodeAccess nodes;
  Landing landing;
  Node node;
  if (!nodes.Open(dict, genID) || !Descend(&nodes, key, &landing)) return notFound;
  if (landing.found == ZERO) return notFound;
  if (!nodes.Read(landing.found, &node)) return notFound;
  return node.Value();
}

QW_API uint64_t QWDBAVLLDictFindNearest(QWDBAVLLDict *dict, uint64_t key, int32_t direction, uint32_t genID) {
  CheckGeneration(genID);
  QWErrorClear();
  NodeAccess nodes;
  Landing landing;
  if (!nodes.Open(dict, genID) || !Descend(&nodes, key, &landing)) return 0;
  if (landing.found != ZERO) return key;
  if (!nodes.present()) return 0;  // nothing committed yet
  uint64_t lo = 0, hi = 0;
  if (!KeyOf(&nodes, landing.lower, &lo) || !KeyOf(&nodes, landing.upper, &hi)) return 0;
  if (direction < 0) return lo;
  if (direction > 0) return hi;
  // Key 0 marks a missing neighbour (the header's key).
  if (lo == 0) return hi;
  if (hi == 0) return lo;
  return key - lo < hi - key ? lo : hi;
}

QW_API int QWDBAVLLDictEnumerate(QWDBAVLLDict *dict, int descending, QWDBAVLLDictEnumerateFunction callback,
                                 void *context, uint32_t genID) {
  CheckGeneration(genID);
  QWErrorClear();
  NodeAccess nodes;
  if (!nodes.Open(dict, genID)) return 0;
  return Walk(&nodes, descending ? kRight : kLeft, callback, context);
}

}  // extern "C"
