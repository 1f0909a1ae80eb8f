// Lookup, insert and remove in one walk: down the head tree (one slot per
// level), then into one leaf. A change rewrites the leaf, or the head node
// where the walk stopped, and fixes the one reference above it that moved.
#include <algorithm>
#include <cstring>

#include "vm/olib/pitree/head_tree.h"
#include "vm/olib/pitree/key_codec.h"
#include "vm/olib/pitree/leaf_codec.h"
#include "vm/olib/pitree/leaf_store.h"

namespace qw::pit {
namespace {

// Where the walk stopped.
enum class Stop {
  kEmpty,    // the tree has no atom
  kDiverge,  // inside a head node's skip, at byte `skipAt`
  kAtHead,   // the key ends right after a head node's skip
  kNoBranch, // a head node lacks the key's next byte
  kLeaf,     // reached leaf `ref` (looked into already when it is a slot leaf)
};

struct Walk {
  Stop stop = Stop::kEmpty;
  uint32_t ref = kNoRef;  // the head node or leaf where it stopped
  size_t pos = 0;         // key bytes consumed before `ref`'s node (or leaf)
  uint32_t skipAt = 0;    // kDiverge: matched skip bytes
  uint64_t found = EMPTY_NODE_DATA;
  uint32_t nextLeaf = 0;  // the next fresh leaf number: leaves below it exist
};

// One step down: (head node, branch position) pairs in td->path.
struct Request {
  PITree *tree;
  PITreeThreadData *td;
  uint32_t genID;
  std::vector<uint64_t> *prefixes;  // may be null
};

// Looks the rest of the key up in the leaf the walk reached.
bool LookInLeaf(const Request &r, Walk *walk, const uint8_t *bytes, uint32_t length) {
  const std::vector<uint8_t> &key = r.td->key;
  uint64_t value = EMPTY_NODE_DATA;
  LeafLookup result = LeafFind(bytes, length, key.data() + walk->pos, key.size() - walk->pos, &value, r.prefixes);
  if (result == LeafLookup::kMalformed) return Corrupted(r.tree, "malformed leaf", LeafOf(walk->ref));
  if (result == LeafLookup::kFound) walk->found = value;
  return true;
}

// Walks down from the root; a slot leaf is looked into while its slot is
// held, a leaf of the array is left to FindInArrayLeaf. In the committed
// generation the walk reads the root and its child from the thread's copies.
bool WalkHead(const Request &r, Walk *walk) {
  const std::vector<uint8_t> &key = r.td->key;
  r.td->path.clear();
  const uint8_t *copy = nullptr;  // the thread's copy of the next slot, or null: read it in the arena
  const bool started = r.genID == OLDGEN
                           ? CommittedTopGet(r.tree, &r.td->top, &walk->ref, &walk->nextLeaf, &copy)
                           : HeadIndexRootAndNext(r.tree, r.genID, &walk->ref, &walk->nextLeaf);
  if (!started) return false;
  if (walk->ref == kNoRef) return true;
  HeadSlot slot(r.tree, r.genID, true);
  bool atCopiedRoot = copy != nullptr;
  while (!IsLeafRef(walk->ref)) {
    HeadView view;
    if (copy ? !HeadParseCopy(r.tree, walk->ref, copy, &view) : !slot.Acquire(walk->ref, &view)) return false;
    copy = nullptr;
    if (view.isLeaf) {
      walk->stop = Stop::kLeaf;
      return LookInLeaf(r, walk, view.leaf, view.leafLength);
    }
    const size_t rest = key.size() - walk->pos;
    const uint32_t most = uint32_t(std::min<size_t>(view.skipLength, rest));
    uint32_t m = 0;
    while (m < most && view.skip[m] == key[walk->pos + m]) ++m;
    if (m < view.skipLength) {
      walk->stop = Stop::kDiverge;
      walk->skipAt = m;
      return true;
    }
    const size_t at = walk->pos + view.skipLength;
    if (at == key.size()) {
      walk->stop = Stop::kAtHead;
      walk->found = view.hasData ? view.data : EMPTY_NODE_DATA;
      return true;
    }
    if (view.hasData && r.prefixes) r.prefixes->push_back(view.data);
    const uint32_t i = view.Find(key[at]);
    if (i == view.count) {
      walk->stop = Stop::kNoBranch;
      return true;
    }
    r.td->path.push_back(walk->ref);
    r.td->path.push_back(i);
    walk->ref = view.Ref(i);
    walk->pos = at + 1;
    if (atCopiedRoot && !CommittedChildGet(r.tree, &r.td->top, i, walk->ref, &copy)) return false;
    atCopiedRoot = false;
  }
  walk->stop = Stop::kLeaf;
  return true;
}

bool FindInArrayLeaf(const Request &r, Walk *walk) {
  LeafHold hold(r.tree, r.genID);
  const uint8_t *bytes = nullptr;
  uint32_t length = 0;
  return hold.Acquire(walk->ref, walk->nextLeaf, &bytes, &length) && LookInLeaf(r, walk, bytes, length);
}

// Points the reference above the walk's last step (or the root) at `ref`.
bool SetParentRef(const Request &r, size_t depth, uint32_t ref) {
  if (depth == 0) return WriteU32(r.tree, r.tree->headIndex, kRootSlot, ref);
  uint32_t parent = r.td->path[2 * (depth - 1)];
  const uint32_t branch = r.td->path[2 * depth - 1];
  HeadNode node;
  if (!HeadRead(r.tree, parent, NEWGEN, &node)) return false;
  node.refs[branch] = ref;
  return HeadStore(r.tree, node, &parent);  // same size: stays in place
}

// Unlinks the node or leaf reached after `depth` steps; parents left empty
// are unlinked too.
bool Unlink(const Request &r, size_t depth) {
  while (depth > 0) {
    uint32_t parent = r.td->path[2 * (depth - 1)];
    const uint32_t branch = r.td->path[2 * depth - 1];
    HeadNode node;
    if (!HeadRead(r.tree, parent, NEWGEN, &node)) return false;
    node.branches.erase(node.branches.begin() + branch);
    node.refs.erase(node.refs.begin() + branch);
    if (!node.Empty()) return HeadStore(r.tree, node, &parent);
    if (!HeadFree(r.tree, parent)) return false;
    --depth;
  }
  return WriteU32(r.tree, r.tree->headIndex, kRootSlot, kNoRef);
}

// A new leaf holding the one key key[from..].
bool SingleLeaf(const Request &r, size_t from, uint64_t data, uint32_t *ref) {
  EntryList &list = r.td->leaf;
  list.Clear();
  list.pool.assign(r.td->key.begin() + std::ptrdiff_t(from), r.td->key.end());
  list.entries.push_back(Entry{0, uint32_t(list.pool.size()), data});
  return BuildSubtree(r.tree, r.td, list, 0, 1, 0, ref);
}

bool ChangeHead(const Request &r, const Walk &walk, uint64_t data, bool remove) {
  const size_t depth = r.td->path.size() / 2;
  HeadNode node;
  if (!HeadRead(r.tree, walk.ref, NEWGEN, &node)) return false;
  uint32_t ref = walk.ref;
  const std::vector<uint8_t> &key = r.td->key;
  if (walk.stop == Stop::kDiverge) {  // split the skip: a new node above
    HeadNode top;
    top.skip.assign(node.skip.begin(), node.skip.begin() + walk.skipAt);
    const uint8_t oldByte = node.skip[walk.skipAt];
    node.skip.erase(node.skip.begin(), node.skip.begin() + walk.skipAt + 1);
    if (!HeadStore(r.tree, node, &ref)) return false;  // shrinks in place
    top.branches.push_back(oldByte);
    top.refs.push_back(ref);
    const size_t at = walk.pos + walk.skipAt;
    if (at == key.size()) {
      top.hasData = true;
      top.data = data;
    } else {
      uint32_t leaf = kNoRef;
      if (!SingleLeaf(r, at + 1, data, &leaf)) return false;
      top.InsertBranch(key[at], leaf);
    }
    uint32_t topRef = kNoRef;
    return HeadNew(r.tree, top, &topRef) && SetParentRef(r, depth, topRef);
  }
  if (walk.stop == Stop::kNoBranch) {
    uint32_t leaf = kNoRef;
    const size_t at = walk.pos + node.skip.size();
    if (!SingleLeaf(r, at + 1, data, &leaf)) return false;
    node.InsertBranch(key[at], leaf);
  } else if (remove) {
    node.hasData = false;
    node.data = 0;
    if (node.Empty()) return HeadFree(r.tree, ref) && Unlink(r, depth);
  } else {
    node.hasData = true;
    node.data = data;
  }
  if (!HeadStore(r.tree, node, &ref)) return false;
  return ref == walk.ref || SetParentRef(r, depth, ref);
}

bool ChangeLeaf(const Request &r, const Walk &walk, uint64_t data, bool remove) {
  const size_t depth = r.td->path.size() / 2;
  EntryList &list = r.td->leaf;
  list.Clear();
  {
    LeafHold hold(r.tree, NEWGEN);
    const uint8_t *bytes = nullptr;
    uint32_t length = 0;
    if (!hold.Acquire(walk.ref, kNoRef, &bytes, &length)) return false;
    if (!LeafDecode(bytes, length, nullptr, 0, list, r.td->walkKey) || list.entries.empty())
      return Corrupted(r.tree, "malformed leaf", LeafOf(walk.ref));
  }
  const uint8_t *suffix = r.td->key.data() + walk.pos;
  const size_t suffixLength = r.td->key.size() - walk.pos;
  auto less = [&](const Entry &e, int) {
    const uint8_t *k = list.Key(e);
    return std::lexicographical_compare(k, k + e.length, suffix, suffix + suffixLength);
  };
  auto at = std::lower_bound(list.entries.begin(), list.entries.end(), 0, less);
  const bool present = at != list.entries.end() && at->length == suffixLength &&
                       std::equal(suffix, suffix + suffixLength, list.Key(*at));
  if (remove) {
    if (!present) return true;
    list.entries.erase(at);
    if (list.entries.empty()) return LeafDrop(r.tree, walk.ref) && Unlink(r, depth);
  } else if (present) {
    at->value = data;
  } else {
    const uint32_t offset = uint32_t(list.pool.size());
    list.pool.insert(list.pool.end(), suffix, suffix + suffixLength);
    list.entries.insert(at, Entry{offset, uint32_t(suffixLength), data});
  }
  std::vector<uint8_t> &encoded = r.td->encoded;
  encoded.clear();
  LeafEncode(list, 0, list.entries.size(), 0, encoded, r.td->header, r.td->sizes);
  uint32_t ref = walk.ref;
  if (encoded.size() <= kExplodeBytes)  // in place, or moved across the slot / array line
    return LeafPut(r.tree, encoded, &ref) && (ref == walk.ref || SetParentRef(r, depth, ref));
  // explode: head nodes first, then swap them in
  return BuildSubtree(r.tree, r.td, list, 0, list.entries.size(), 0, &ref) && SetParentRef(r, depth, ref) &&
         LeafDrop(r.tree, walk.ref);
}

}  // namespace
}  // namespace qw::pit

using namespace qw::pit;

extern "C" {

QW_API uint64_t PITreeFindAll(PITree *tree, PITreeThreadData *threadData, const uint32_t *atom,
                              uint32_t atomLength, uint64_t nodeData, uint32_t genID, int create, int remove,
                              int force, uint64_t **results) {
  qwassert_(threadData != NULL);
  CheckGeneration(genID);
  const uint32_t nodeLen = atomLength;
  qwassert_(nodeLen != 0);
  if (create || remove) {
    qwassert_(genID == NEWGEN);
    if (VMArenaIsReadOnly(tree->arena)) {  // nothing may change there
      qwassert_(!create);
      qwassert_(!remove);
    }
  }
  QWErrorClear();
  if (create && remove)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "PITreeFindAll: create and remove together");
  if (create && nodeData == EMPTY_NODE_DATA)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "PITreeFindAll: node data 0 cannot be stored");
  TrimScratch(threadData);
  EncodeAtom(threadData->key, atom, atomLength);
  std::vector<uint64_t> prefixes;
  Request request{tree, threadData, genID, results ? &prefixes : nullptr};
  Walk walk;
  if (!WalkHead(request, &walk) ||
      (walk.stop == Stop::kLeaf && IsLeafRef(walk.ref) && !FindInArrayLeaf(request, &walk)))
    return 0;
  if (results) {
    if (!*results && !ArrayInit(*results, sizeof(uint64_t), 8)) return 0;
    if (walk.found != EMPTY_NODE_DATA) prefixes.push_back(walk.found);
    if (!ArrayLengthSet(*results, prefixes.size())) return 0;
    std::copy(prefixes.begin(), prefixes.end(), *results);
  }
  const bool present = walk.found != EMPTY_NODE_DATA;
  if ((!create && !remove) || (create && present && !force) || (remove && !present)) return walk.found;
  bool ok;
  if (walk.stop == Stop::kEmpty) {
    uint32_t ref = kNoRef;
    ok = HeadIndexEnsure(tree) && SingleLeaf(request, 0, nodeData, &ref) &&
         WriteU32(tree, tree->headIndex, kRootSlot, ref);
  } else if (walk.stop == Stop::kLeaf) {
    ok = ChangeLeaf(request, walk, nodeData, remove != 0);
  } else {
    ok = ChangeHead(request, walk, nodeData, remove != 0);
  }
  // A forced overwrite of a present atom leaves the count as it is.
  if (ok && (remove || !present)) ok = PITreeUpdateSize(tree, create, !present, 0, NEWGEN) != 0;
  if (!ok) {
    QWErrorRethrow("cannot change an atom of %u symbols", atomLength);
    return EMPTY_NODE_DATA;
  }
  if (remove || force) return walk.found;
  return nodeData;
}

QW_API uint64_t PITreeFind(PITree *tree, PITreeThreadData *threadData, const uint32_t *atom, uint32_t atomLength,
                           uint64_t nodeData, uint32_t genID, int create, int remove, int force) {
  return PITreeFindAll(tree, threadData, atom, atomLength, nodeData, genID, create, remove, force, nullptr);
}

QW_API int PITreePrefetch(PITree *tree, PITreeThreadData *threadData, const uint32_t *atom, uint32_t atomLength,
                          uint32_t genID) {
  qwassert_(threadData != NULL);
  CheckGeneration(genID);
  qwassert_(atomLength != 0);
  QWErrorClear();
  EncodeAtom(threadData->key, atom, atomLength);
  Request request{tree, threadData, genID, nullptr};
  Walk walk;
  if (!WalkHead(request, &walk)) return 0;
  if (walk.stop == Stop::kLeaf && IsLeafRef(walk.ref)) {  // a slot leaf was read by the walk
    const uint32_t leaf = LeafOf(walk.ref);
    DBArrayPrefetch(tree->leaf, leaf % PITREE_LEAF_BUCKETS, leaf / PITREE_LEAF_BUCKETS, genID);
  }
  return 1;
}

}  // extern "C"
