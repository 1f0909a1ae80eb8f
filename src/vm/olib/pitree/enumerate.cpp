// Enumeration of the atoms under a prefix, in ascending order: a depth-first
// walk of the head tree (branches ascending, a node's own atom before its
// branches) that decodes each leaf it reaches whole. Branches that cannot
// lead to the prefix, or only to atoms deeper than allowed, are not entered.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "vm/olib/pitree/head_tree.h"
#include "vm/olib/pitree/key_codec.h"
#include "vm/olib/pitree/leaf_codec.h"
#include "vm/olib/pitree/leaf_store.h"

namespace qw::pit {
namespace {

// Each head level adds a byte to the key: a deeper stack means a reference
// cycle in damaged data.
constexpr size_t kMaxStack = size_t(1) << 20;

struct Frame {
  size_t keyLength;  // key bytes up to the end of the node's skip
  std::vector<uint8_t> branches;
  std::vector<uint32_t> refs;
  size_t next = 0;
};

}  // namespace
}  // namespace qw::pit

struct PITreeEnumeration {
  PITree *tree = nullptr;
  uint32_t genID = NEWGEN;
  std::unique_ptr<PITreeThreadData> threadData{new PITreeThreadData()};
  std::vector<uint8_t> prefix;  // coded
  size_t prefixSymbols = 0;
  uint32_t depth = 0;
  std::vector<uint8_t> key;  // bytes of the path walked
  std::vector<qw::pit::Frame> stack;
  qw::pit::EntryList leaf;
  size_t leafNext = 0;
  bool hasPending = false;  // a head node's own atom waits to be yielded
  uint64_t pendingData = 0;
  std::vector<uint8_t> pendingKey;
  std::vector<uint32_t> atom;  // the atom last yielded
};

namespace qw::pit {
namespace {

// Whether atoms under `key` may start with the prefix and stay within depth.
bool Compatible(const PITreeEnumeration &e, const uint8_t *key, size_t length) {
  const size_t common = std::min(length, e.prefix.size());
  if (!std::equal(key, key + common, e.prefix.begin())) return false;  // empty ranges too
  if (length < e.prefix.size() || e.depth == PITREE_DEPTH_UNLIMITED) return true;
  return SymbolsStarted(key, length) - e.prefixSymbols <= e.depth;
}

bool Wanted(const PITreeEnumeration &e, const uint8_t *key, size_t length) {
  return length >= e.prefix.size() && Compatible(e, key, length);
}

// Decodes the leaf `ref` whole; its keys are yielded next.
bool EnterLeaf(PITreeEnumeration &e, uint32_t ref, const uint8_t *bytes, uint32_t length) {
  e.leaf.Clear();
  e.leafNext = 0;
  return LeafDecode(bytes, length, e.key.data(), e.key.size(), e.leaf, e.threadData->walkKey) ||
         Corrupted(e.tree, "malformed leaf", LeafOf(ref));
}

bool Enter(PITreeEnumeration &e, uint32_t ref) {
  if (e.stack.size() >= kMaxStack) return Corrupted(e.tree, "a head reference cycle", ref);
  if (IsLeafRef(ref)) {
    LeafHold hold(e.tree, e.genID);
    const uint8_t *bytes = nullptr;
    uint32_t length = 0;
    return hold.Acquire(ref, kNoRef, &bytes, &length) && EnterLeaf(e, ref, bytes, length);
  }
  HeadSlot slot(e.tree, e.genID, true);
  HeadView view;
  if (!slot.Acquire(ref, &view)) return false;
  if (view.isLeaf) return EnterLeaf(e, ref, view.leaf, view.leafLength);
  e.key.insert(e.key.end(), view.skip, view.skip + view.skipLength);
  if (!Compatible(e, e.key.data(), e.key.size())) return true;
  Frame frame;
  frame.keyLength = e.key.size();
  frame.branches.assign(view.branches, view.branches + view.count);
  frame.refs.resize(view.count);
  for (uint32_t i = 0; i < view.count; ++i) frame.refs[i] = view.Ref(i);
  e.stack.push_back(std::move(frame));
  if (view.hasData && Wanted(e, e.key.data(), e.key.size())) {
    e.hasPending = true;
    e.pendingData = view.data;
    e.pendingKey = e.key;
  }
  return true;
}

bool Yield(PITreeEnumeration &e, const uint8_t *key, size_t length) {
  if (DecodeAtom(key, length, e.atom) && !e.atom.empty()) return true;
  return Corrupted(e.tree, "a stored key is not a sequence of symbols", uint32_t(length));
}

// 1 with an atom in e.atom and *data, 0 at the end, -1 on failure.
int Next(PITreeEnumeration &e, uint64_t *data) {
  for (;;) {
    if (e.hasPending) {
      e.hasPending = false;
      *data = e.pendingData;
      return Yield(e, e.pendingKey.data(), e.pendingKey.size()) ? 1 : -1;
    }
    while (e.leafNext < e.leaf.entries.size()) {
      const Entry &entry = e.leaf.entries[e.leafNext++];
      if (!Wanted(e, e.leaf.Key(entry), entry.length)) continue;
      *data = entry.value;
      return Yield(e, e.leaf.Key(entry), entry.length) ? 1 : -1;
    }
    if (e.stack.empty()) return 0;
    Frame &top = e.stack.back();
    if (top.next == top.refs.size()) {
      e.stack.pop_back();
      continue;
    }
    const size_t i = top.next++;
    e.key.resize(top.keyLength);
    e.key.push_back(top.branches[i]);
    if (!Compatible(e, e.key.data(), e.key.size())) continue;
    if (!Enter(e, top.refs[i])) return -1;
  }
}

}  // namespace
}  // namespace qw::pit

using namespace qw::pit;

extern "C" {

QW_API PITreeEnumeration *PITreeEnumerationNew(void) {
  auto *e = new (std::nothrow) PITreeEnumeration();
  if (!e) QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory for a tree enumeration");
  return e;
}

QW_API int PITreeEnumerationInit(PITree *tree, PITreeEnumeration *e, const uint32_t *prefix, uint32_t prefixLength,
                                 uint32_t depth, uint32_t genID) {
  CheckGeneration(genID);
  QWErrorClear();
  e->tree = tree;
  e->genID = genID;
  EncodeAtom(e->prefix, prefix, prefixLength);
  e->prefixSymbols = prefixLength;
  e->depth = depth;
  e->key.clear();
  e->stack.clear();
  e->leaf.Clear();
  e->leafNext = 0;
  e->hasPending = false;
  uint32_t root = kNoRef;
  if (!HeadIndexGet(tree, kRootSlot, genID, &root)) return 0;
  if (root == kNoRef) return 1;
  return Enter(*e, root) ? 1 : QWErrorRethrow("cannot start enumerating a symbol-sequence tree");
}

QW_API int PITreeEnumerationGetNext(PITreeEnumeration *e, const uint32_t **atom, uint32_t *atomLength,
                                    uint64_t *nodeData) {
  uint64_t data = 0;
  const int got = e->tree ? Next(*e, &data) : 0;
  if (got != 1) {
    e->stack.clear();
    e->leaf.Clear();
    e->leafNext = 0;
    if (got < 0) QWErrorRethrow("cannot enumerate a symbol-sequence tree");
    return 0;
  }
  *atom = e->atom.data();
  *atomLength = uint32_t(e->atom.size());
  *nodeData = data;
  return 1;
}

QW_API void PITreeEnumerationFree(PITreeEnumeration *e) { delete e; }

QW_API int PITreeEnumerate(PITree *tree, uint32_t genID, const uint32_t *prefix, uint32_t prefixLength,
                           uint32_t depth, PITreeEnumerateCallback callback, void *context) {
  std::unique_ptr<PITreeEnumeration> e(PITreeEnumerationNew());
  if (!e || !PITreeEnumerationInit(tree, e.get(), prefix, prefixLength, depth, genID)) return 0;
  const uint32_t *atom = nullptr;
  uint32_t length = 0;
  uint64_t data = 0;
  while (PITreeEnumerationGetNext(e.get(), &atom, &length, &data))
    if (!callback(context, atom, length, data)) return 1;
  return QWErrorIsSet() ? 0 : 1;
}

}  // extern "C"
