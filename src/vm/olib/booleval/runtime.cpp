// Evaluation: collecting a document's atoms and matching the stored
// conjunctions against them.
//
// Stop turns every recorded key into one sorted run of links (its atom
// entry's links, positive ones retagged weak for a weak key), with the
// all-negative candidates as the first run; merges the runs; then walks the
// merged list one conjunction id at a time. Within an id the tags sort as
// negated (0) < positive (2) < weak (3), so a group whose first tag is 0 has
// a negated atom present and is skipped whole.
#include <algorithm>
#include <cstring>
#include <new>

#include "vm/olib/booleval/booleval_internal.h"
#include "vm/olib/common/checks.h"

using namespace qw::booleval;

namespace {

constexpr uint32_t kSentinel = UINT32_MAX;
constexpr uint32_t kWeak = 1, kStrong = 2;

void AddMatch(BoolEvalRuntime *runtime, uint32_t level, const uint32_t *values, size_t count) {
  qwassert_(level < 3);
  runtime->levels[level].insert(runtime->levels[level].end(), values, values + count);
}

// Matched values go to level 0, to 1 with a strong atom, to 2 with strong
// atoms only.
void AddMatches(BoolEvalRuntime *runtime, bool someStrong, bool allStrong, const std::vector<uint32_t> &values) {
  AddMatch(runtime, 0, values.data(), values.size());
  if (someStrong) AddMatch(runtime, 1, values.data(), values.size());
  if (allStrong) AddMatch(runtime, 2, values.data(), values.size());
}

bool UseMirror(const BoolEvalRuntime *runtime) { return runtime->eval->keepInMemory && runtime->genID == OLDGEN; }

// The all-negative candidates: the first run.
bool CollectAllNegative(BoolEvalRuntime *runtime) {
  BoolEval *eval = runtime->eval;
  if (UseMirror(runtime) && !eval->memAllNeg.empty()) {
    runtime->entries = eval->memAllNeg;
  }
  const uint32_t size = LDBArraySize(eval->allNeg, 0, runtime->genID);
  for (uint32_t i = uint32_t(runtime->entries.size()); i < size; ++i) {
    if (!ReadElement(eval->allNeg, i, &runtime->bytes, runtime->genID)) return false;
    size_t pos = 0;
    uint32_t id = 0;
    if (!ReadVarint32(runtime->bytes, ArrayLength(runtime->bytes), &pos, &id)) {
      return Corrupt(eval, "all-negative entry", i);
    }
    runtime->entries.push_back(LinkOf(id, kTagWeak));
  }
  runtime->runEnds.push_back(runtime->entries.size());
  return true;
}

// The entry of (atomID, sub): from the cache in OLDGEN, else decoded into
// the runtime's scratch. Null with an error on failure.
const NodeEntry *LoadEntry(BoolEvalRuntime *runtime, uint32_t atomID, uint32_t sub,
                           std::shared_ptr<const NodeEntry> *hold) {
  BoolEval *eval = runtime->eval;
  const bool cached = runtime->genID == OLDGEN;
  if (cached && (*hold = CacheGet(eval->cache, EntryKey(atomID, sub)))) return hold->get();
  if (!ReadElement(eval->atomNodes, atomID, &runtime->bytes, runtime->genID)) return nullptr;
  if (!DecodeAtomEntry(runtime->bytes, ArrayLength(runtime->bytes), sub, &runtime->entry)) {
    Corrupt(eval, "atom node", atomID);
    return nullptr;
  }
  if (!cached) return &runtime->entry;
  *hold = std::make_shared<const NodeEntry>(runtime->entry);
  CachePut(eval->cache, EntryKey(atomID, sub), *hold);
  return hold->get();
}

// First pass: the direct values of every key and its run of links.
bool CollectRuns(BoolEvalRuntime *runtime) {
  uint64_t position = 0;
  while (const void *value = HashDelTableEnumerate(runtime->keys, &position)) {
    uint64_t key = 0;
    std::memcpy(&key, HashDelTableKey(runtime->keys, value), sizeof key);
    const uint32_t strength = *static_cast<const uint32_t *>(value);
    std::shared_ptr<const NodeEntry> hold;
    const NodeEntry *entry = LoadEntry(runtime, uint32_t(key >> 32), uint32_t(key), &hold);
    if (entry == nullptr) return false;
    AddMatches(runtime, strength == kStrong, strength == kStrong, entry->values);
    if (entry->links.empty()) continue;
    const size_t start = runtime->entries.size();
    runtime->entries.insert(runtime->entries.end(), entry->links.begin(), entry->links.end());
    if (strength == kWeak) {
      for (size_t i = start; i < runtime->entries.size(); ++i) {
        if ((runtime->entries[i] & 3) == kTagPositive) runtime->entries[i] |= 1;  // tag 2 -> 3
      }
    }
    runtime->runEnds.push_back(runtime->entries.size());
  }
  return true;
}

// Merges [a, middle) and [middle, end) into out. The choice of side is a
// data dependency rather than a branch: the sides interleave unpredictably.
void MergeTwo(const uint32_t *a, const uint32_t *middle, const uint32_t *end, uint32_t *out) {
  const uint32_t *b = middle;
  while (a < middle && b < end) {
    const bool takeB = *b < *a;
    *out++ = takeB ? *b : *a;
    a += !takeB;
    b += takeB;
  }
  out = std::copy(a, middle, out);
  std::copy(b, end, out);
}

// Merges the sorted runs pairwise into one sorted list, then the sentinel.
void MergeRuns(BoolEvalRuntime *runtime) {
  std::vector<uint32_t> &from = runtime->entries, &to = runtime->merged;
  std::vector<size_t> &ends = runtime->mergeEnds, &next = runtime->nextEnds;
  ends = runtime->runEnds;
  while (ends.size() > 1) {
    to.resize(from.size());
    next.clear();
    size_t begin = 0;
    for (size_t r = 0; r < ends.size(); r += 2) {
      const size_t middle = ends[r], end = r + 1 < ends.size() ? ends[r + 1] : middle;
      MergeTwo(from.data() + begin, from.data() + middle, from.data() + end, to.data() + begin);
      next.push_back(end);
      begin = end;
    }
    from.swap(to);
    ends.swap(next);
  }
  from.push_back(kSentinel);
}

// The total and the values of conjunction `id`: from the mirror when it
// holds them, else from the node. Values are read (into runtime->values)
// only when `total` says the entries can match, so that most candidates cost
// one mirror look-up.
bool Conjunction(BoolEvalRuntime *runtime, uint32_t id, uint32_t found, bool *matches) {
  BoolEval *eval = runtime->eval;
  runtime->values.clear();
  if (UseMirror(runtime) && id < eval->memAndTotal.size() && id < eval->memValueStart.size()) {
    // Most candidates fail on the total: the value arrays are touched only
    // for a match.
    *matches = eval->memAndTotal[id] == found;
    if (*matches) {
      const uint32_t *values = eval->memValues.data() + eval->memValueStart[id];
      runtime->values.assign(values, values + eval->memValueCount[id]);
    }
    return true;
  }
  uint32_t total = 0;
  size_t valuesStart = 0;
  if (!ReadElement(eval->andNodes, id, &runtime->bytes, runtime->genID)) return false;
  const uint8_t *node = runtime->bytes;
  const size_t size = ArrayLength(runtime->bytes);
  if (!DecodeConjunctionHeader(node, size, &total, &valuesStart)) return Corrupt(eval, "conjunction node", id);
  *matches = total == found;
  if (*matches && !DecodeValues(node, size, valuesStart, &runtime->values)) {
    return Corrupt(eval, "conjunction node", id);
  }
  return true;
}

// Second pass: one group of entries per conjunction id.
bool WalkGroups(BoolEvalRuntime *runtime) {
  const std::vector<uint32_t> &list = runtime->entries;
  // The totals of candidates are read in ascending but scattered order:
  // fetching them a few entries ahead hides most of the cache misses.
  const bool mirror = UseMirror(runtime);
  const std::vector<uint32_t> &totals = runtime->eval->memAndTotal;
  constexpr size_t kAhead = 16;
  size_t i = 0;
  while (list[i] != kSentinel) {
    const uint32_t id = list[i] >> 2;
    if (mirror && i + kAhead < list.size() && (list[i + kAhead] >> 2) < totals.size()) {
      __builtin_prefetch(totals.data() + (list[i + kAhead] >> 2));
    }
    const bool negatedPresent = (list[i] & 3) == kTagNegated;
    uint32_t c2 = 0, c3 = 0;
    for (; list[i] != kSentinel && (list[i] >> 2) == id; ++i) {
      c2 += (list[i] & 3) == kTagPositive;
      c3 += (list[i] & 3) == kTagWeak;
    }
    if (negatedPresent) continue;
    bool matches = false;
    if (!Conjunction(runtime, id, c2 + c3, &matches)) return false;
    if (matches) AddMatches(runtime, c2 != 0, c3 == 0, runtime->values);
  }
  return true;
}

// Records key (atomID, sub) with `strength`, keeping the larger.
bool Record(BoolEvalRuntime *runtime, uint32_t atomID, uint32_t sub, uint32_t strength) {
  const uint64_t key = EntryKey(atomID, sub);
  auto *value = static_cast<uint32_t *>(HashDelTableFind(runtime->keys, &key, HASHDEL_INSERT, nullptr));
  if (value == nullptr) return false;
  if (*value < strength) *value = strength;
  return true;
}

}  // namespace

extern "C" {

QW_API BoolEvalRuntime *BoolEvalRuntimeNew(BoolEval *eval) {
  BoolEvalRuntime *runtime = new (std::nothrow) BoolEvalRuntime;
  if (runtime == nullptr) {
    QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "BoolEvalRuntimeNew: out of memory");
    return nullptr;
  }
  runtime->eval = eval;
  if (!(runtime->keys = HashDelTableNew(sizeof(uint64_t), sizeof(uint32_t), 256)) ||
      !ArrayInit(runtime->bytes, 1, 256)) {
    BoolEvalRuntimeFree(runtime);
    return nullptr;
  }
  return runtime;
}

QW_API void BoolEvalRuntimeFree(BoolEvalRuntime *runtime) {
  if (runtime == nullptr) return;
  HashDelTableFree(runtime->keys);
  ArrayFree(runtime->bytes);
  delete runtime;
}

QW_API int BoolEvalRuntimeStart(BoolEvalRuntime *runtime, uint32_t genID) {
  qw::olib::CheckGeneration(genID);
  Reset(&runtime->entries);
  Reset(&runtime->merged);
  Reset(&runtime->runEnds);
  Reset(&runtime->mergeEnds);
  Reset(&runtime->nextEnds);
  Reset(&runtime->values);
  for (uint32_t level = 0; level < 3; ++level) {
    Reset(&runtime->levels[level]);
    runtime->sorted[level] = false;
  }
  HashDelTableClear(runtime->keys);
  runtime->genID = genID;
  return 1;
}

QW_API int BoolEvalRuntimeAtomAdd(BoolEvalRuntime *runtime, uint32_t sub, uint32_t atomID, int strong) {
  const uint32_t UINT_MAX_VALUE = UINT32_MAX;
  qwassert_(atomID != UINT_MAX_VALUE);
  const uint32_t strength = strong ? kStrong : kWeak;
  if (!Record(runtime, atomID, sub, strength)) return 0;
  return sub == 0 || Record(runtime, atomID, 0, strength) ? 1 : 0;
}

QW_API int BoolEvalRuntimeAtomsAdd(BoolEvalRuntime *runtime, uint32_t sub, const uint32_t *atomIDs, uint32_t count,
                                   int strong) {
  for (uint32_t i = 0; i < count; ++i) {
    if (!BoolEvalRuntimeAtomAdd(runtime, sub, atomIDs[i], strong)) return 0;
  }
  return 1;
}

QW_API int BoolEvalRuntimeStop(BoolEvalRuntime *runtime) {
  BoolEval *eval = runtime->eval;
  const bool shared = runtime->genID == OLDGEN;
  if (shared) RWLockAcquireRead_(eval->cacheLock);
  const int ok = Guarded("BoolEvalRuntimeStop", [&] {
    if (!CollectAllNegative(runtime) || !CollectRuns(runtime)) return 0;
    MergeRuns(runtime);
    return WalkGroups(runtime) ? 1 : 0;
  });
  if (shared) RWLockRelease_(eval->cacheLock);
  return ok ? 1 : QWErrorRethrow("BoolEvalRuntimeStop: cannot evaluate against \"%s\"", eval->path.c_str());
}

QW_API const uint32_t *BoolEvalRuntimeMatchGet(BoolEvalRuntime *runtime, uint32_t level, uint32_t *count) {
  const uint32_t matchType = level;
  qwassert_(matchType < 3);
  std::vector<uint32_t> &values = runtime->levels[level];
  if (!runtime->sorted[level]) {
    std::sort(values.begin(), values.end());
    values.erase(std::unique(values.begin(), values.end()), values.end());
    runtime->sorted[level] = true;
  }
  *count = uint32_t(values.size());
  return values.empty() ? nullptr : values.data();
}

}  // extern "C"
