// The evaluator's records. The layouts of the stored nodes are in
// node_format.h; qwvm/booleval.h describes the storage.
//
// Invariants of a BoolEval:
//  - conjunction ids are dense: the ID tree's counter, the number of
//    elements of "andTotalAttr" and of "andNodesAttr" agree after every
//    completed BoolEvalAdd (checked when a new id is handed out);
//  - memAndTotal[c] is the committed total of conjunction c for every c below
//    its size; memValues[memValueStart[c] ...] holds the memValueCount[c]
//    committed values of conjunction c for every c below memValueStart's
//    size; memAllNeg lists LinkOf(c, kTagWeak) for the first memAllNeg.size()
//    elements of the committed "allNegAttr"; all this unless reloadMirror is
//    set (after a clear, until the next commit). A conjunction whose values
//    grow is listed in changedValues until the next commit reloads it (its
//    new copy is appended to memValues; the old one is left unused);
//  - the node entry cache holds only entries of the committed generation.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qwvm/booleval.h"
#include "qwvm/idtree.h"
#include "qwvm/ldbarray.h"
#include "qwvm/qwdict.h"
#include "vm/olib/booleval/node_format.h"

struct BoolQuery {
  std::vector<qw::booleval::Atom> atoms;
  std::vector<uint32_t> ends;  // ends[k]..ends[k+1]: conjunction k
  uint32_t level = 0;
};

struct BoolEval {
  VMArena *arena = nullptr;
  std::string path;  // "P/" of the header
  LDBArray *atomNodes = nullptr;
  LDBArray *andTotal = nullptr;
  LDBArray *allNeg = nullptr;
  IDTree *andLookup = nullptr;
  LDBArray *andNodes = nullptr;
  uint32_t keepInMemory = 0;
  std::vector<uint32_t> memAndTotal;
  std::vector<uint32_t> memAllNeg;
  std::vector<uint32_t> memValueStart, memValueCount, memValues;
  std::vector<uint32_t> changedValues;
  bool reloadMirror = false;
  NodeEntryCache *cache = nullptr;
  QWRWLock *cacheLock = nullptr;
  // Writer scratch.
  IDTreeThreadData *idScratch = nullptr;
  LDBArrayThreadData *ldbScratch = nullptr;
  uint8_t *bytes = nullptr;  // qwlib growable byte array
  std::vector<uint8_t> encoded;
};

struct BoolEvalRuntime {
  BoolEval *eval = nullptr;
  uint32_t genID = 0;
  HashDelTable *keys = nullptr;  // (atomID, sub) -> strength 1 or 2
  std::vector<uint32_t> entries;
  std::vector<uint32_t> merged;
  std::vector<size_t> runEnds, mergeEnds, nextEnds;
  std::vector<uint32_t> levels[3];
  bool sorted[3] = {false, false, false};
  uint8_t *bytes = nullptr;  // qwlib growable byte array
  qw::booleval::NodeEntry entry;
  std::vector<uint32_t> values;
};

namespace qw::booleval {

// The key of an atom entry in the runtime's table and in the cache.
inline uint64_t EntryKey(uint32_t atomID, uint32_t sub) { return (uint64_t(atomID) << 32) | sub; }

// Node entry cache (node_cache.cpp).
std::shared_ptr<const NodeEntry> CacheGet(NodeEntryCache *cache, uint64_t key);
void CachePut(NodeEntryCache *cache, uint64_t key, std::shared_ptr<const NodeEntry> entry);

// Reads element `handle` of a one-bucket array into *bytes (absent: empty).
[[nodiscard]] bool ReadElement(LDBArray *array, uint32_t handle, uint8_t **bytes, uint32_t genID);

// Tags the arena corrupted and sets the data error; returns false.
bool Corrupt(BoolEval *eval, const char *what, uint32_t id);

// Reads the committed total/all-negative arrays into the mirror.
[[nodiscard]] bool LoadMirror(BoolEval *eval);

// Empties a scratch buffer, making it afresh when it has grown past 10000
// elements.
template <class T>
void Reset(std::vector<T> *buffer) {
  if (buffer->capacity() > 10000) std::vector<T>().swap(*buffer);
  buffer->clear();
}

// Runs `body`, turning an allocation failure into error 12; returns its
// result, or 0.
template <class Body>
int Guarded(const char *where, Body body) {
  try {
    return body();
  } catch (const std::bad_alloc &) {
    return QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "%s: out of memory", where);
  }
}

}  // namespace qw::booleval
