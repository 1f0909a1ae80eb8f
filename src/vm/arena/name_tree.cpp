// The name service's index: a symbol-sequence tree "#name/lookup" mapping
// each name of array 0 (its bytes widened to symbols) to its id + 1, and the
// arena array "#name/params" whose element 0 counts the names in the tree.
//
// Bootstrap: the tree's own arrays are found by scanning array 0 (the tree
// is made with scan set) and get names in array 0 like any other; lookups
// with scan 0 fall back to the scan until the tree is ready, so the arrays
// made while the tree is opened are found that way. On a writable arena
// whose params array is empty (a new arena, one written before the tree
// existed, or one whose index was given up) the tree is cleared and rebuilt
// from array 0, then the count is stored: an empty count is what marks the
// tree as not to be trusted.
//
// A read-only arena never creates anything: without a tree (or with an empty
// count) its lookups scan array 0, which answers the same, only slower.
//
// Creation (under the name mutex) writes array 0 and the array record first,
// then the tree and the count. If the tree cannot take the name, the name
// still exists: the tree is given up for this arena (lookups scan again) and
// the count is emptied so that the next writable open rebuilds it.
//
// treeReady[g] says whether the tree answers for generation g: NEWGEN once it
// is built; OLDGEN when the committed params array holds the count.
#include <cstring>

#include "vm/arena/array_internal.h"
#include "vm/lbs/names.h"

namespace qw::vm {
namespace {

constexpr size_t kScratchLimit = 10000;

void WidenName(VMArena *arena, const uint8_t *name, uint32_t nameLength) {
  std::vector<uint32_t> &symbols = arena->arrayState.nameSymbols;
  if (symbols.capacity() > kScratchLimit) std::vector<uint32_t>().swap(symbols);
  symbols.assign(name, name + nameLength);
}

bool WriteCount(VMArena *arena, const VMAArrayHandle &params, uint32_t count) {
  return VMAArraySetRange_(arena, params.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, 0, &count, 1, NEWGEN, 4) != 0;
}

bool ReadCount(VMArena *arena, const VMAArrayHandle &params, uint32_t *count) {
  uint32_t end = 0;
  const void *p = VMAArrayRange_(arena, params.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, 0, &end, NEWGEN, 1, 4, 0);
  if (!p) return false;
  std::memcpy(count, p, 4);
  VMAArrayRelease_(arena, params.id[NEWGEN], const_cast<void *>(p), 1);
  return true;
}

// Inserts every non-empty name of array 0 (NEWGEN) with its id + 1.
bool RebuildTree(VMArena *arena, PITree *tree, PITreeThreadData *td, uint32_t *count) {
  *count = 0;
  if (!PITreeClear(tree, NEWGEN)) return false;
  std::vector<uint32_t> name;
  uint32_t arrayID = 1;  // the id whose name is being read
  const uint32_t length = VMAArrayLength_(arena, 0, NEWGEN);
  for (uint32_t i = 0; i < length;) {
    uint32_t end = 0;
    auto *bytes = static_cast<const uint8_t *>(
        VMAArrayRange_(arena, 0, 0, ARENA_MAX_BLOCK_SIZE, i, &end, NEWGEN, 1, 1, 0));
    if (!bytes) return false;
    bool ok = true;
    for (uint32_t k = 0; ok && k < end - i; ++k) {
      if (bytes[k] != 0) {
        name.push_back(bytes[k]);
        continue;
      }
      if (!name.empty()) {
        const uint64_t ret =
            PITreeFind(tree, td, name.data(), uint32_t(name.size()), arrayID + 1, NEWGEN, 1, 0, 0);
        if (ret == EMPTY_NODE_DATA) {
          ok = false;
          break;
        }
        if (ret != uint64_t(arrayID) + 1) TagCorruptedIfWritable(arena);  // the same name twice
        QW_ASSERT_NAMED(ret == uint64_t(arrayID) + 1, "ret == (arrayID + 1)");
        ++*count;
      }
      if (name.capacity() > kScratchLimit) std::vector<uint32_t>().swap(name);
      name.clear();
      ++arrayID;
    }
    VMAArrayRelease_(arena, 0, const_cast<uint8_t *>(bytes), 1);
    if (!ok) return QWErrorRethrow("cannot index the name of array %u", arrayID);
    i = end;
  }
  return true;
}

// Opens the tree and the count; rebuilds when the count is empty (writable).
bool OpenParts(VMArena *arena, PITree **tree, VMAArrayHandle *params, PITreeThreadData *td) {
  uint8_t *path = nullptr;
  if (!ArrayInit(path, 1, 16) || !ArrayGrow(path, 6)) return false;
  std::memcpy(path, "#name/", 6);
  int created = 0;
  *tree = PITreeNew_(arena, &path, "lookup", 1, &created, 0);
  ArrayFree(path);
  if (!*tree || !VMAArrayInitFromPath_(params, arena, "#name", "params", 1)) return false;
  if (arena->readOnly || VMAArrayLength_(arena, params->id[NEWGEN], NEWGEN) != 0) return true;
  uint32_t count = 0;
  if (!RebuildTree(arena, *tree, td, &count)) return false;
  if (!VMAArrayAppend_(arena, params->id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, &count, 1, NEWGEN, 4)) return false;
  return VMAArrayLength_(arena, params->id[NEWGEN], NEWGEN) != 0;
}

// The tree could not take a name: lookups scan from now on, and the next
// writable open rebuilds the tree.
void GiveUpTree(VMArena *arena) {
  ArrayState &state = arena->arrayState;
  QWMessage(QW_LEVEL_WARNING, "the name index of \"%s\" is rebuilt at the next open: %s", arena->directory.c_str(),
            QWErrorMessage());
  state.treeReady[NEWGEN] = false;
  QWErrorSave();
  (void)VMAArrayLengthSet_(arena, state.nameParams.id[NEWGEN], 0, NEWGEN, 4);
  QWErrorRestore();
  QWErrorClear();
}

}  // namespace

bool NameTreeOpen(VMArena *arena) {
  NameTreeClose(arena);
  PITreeThreadData *td = PITreeThreadDataNew();
  PITree *tree = nullptr;
  VMAArrayHandle params{};
  if (!td || !OpenParts(arena, &tree, &params, td)) {
    PITreeFree(tree);
    PITreeThreadDataFree(td);
    if (!arena->readOnly) return QWErrorRethrow("the name index of \"%s\" cannot be made", arena->directory.c_str());
    QWErrorClear();  // written before the index existed: lookups scan
    return true;
  }
  ArrayState &state = arena->arrayState;
  ScopedMutex lock(state.nameMutex);
  state.nameTree = tree;
  state.nameThreadData = td;
  state.nameParams = params;
  state.treeReady[NEWGEN] = VMAArrayLength_(arena, params.id[NEWGEN], NEWGEN) != 0;
  state.treeReady[OLDGEN] =
      params.id[OLDGEN] != VMA_NO_ARRAY && VMAArrayLength_(arena, params.id[OLDGEN], OLDGEN) != 0;
  return true;
}

void NameTreeClose(VMArena *arena) {
  ArrayState &state = arena->arrayState;
  ScopedMutex lock(state.nameMutex);
  PITreeFree(state.nameTree);
  PITreeThreadDataFree(state.nameThreadData);
  state.nameTree = nullptr;
  state.nameThreadData = nullptr;
  state.treeReady[NEWGEN] = state.treeReady[OLDGEN] = false;
}

void NameTreeCommitted(VMArena *arena) {
  ArrayState &state = arena->arrayState;
  ScopedMutex lock(state.nameMutex);
  if (!state.nameTree) return;
  PITreeCommit(state.nameTree);
  state.nameParams.id[OLDGEN] = state.nameParams.id[NEWGEN];
  state.treeReady[OLDGEN] = state.treeReady[NEWGEN];
}

void NameTreeAdd(VMArena *arena, const uint8_t *name, uint32_t nameLength, uint32_t arrayID) {
  ArrayState &state = arena->arrayState;
  if (!state.nameTree || !state.treeReady[NEWGEN]) return;
  WidenName(arena, name, nameLength);
  const uint64_t ret = uint64_t(arrayID) + 1;
  const uint64_t ret0 = PITreeFind(state.nameTree, state.nameThreadData, state.nameSymbols.data(), nameLength, ret,
                                   NEWGEN, 1, 0, 0);
  uint32_t count = 0;
  if (ret0 == EMPTY_NODE_DATA || !ReadCount(arena, state.nameParams, &count) ||
      !WriteCount(arena, state.nameParams, count + 1))
    return GiveUpTree(arena);
  if (ret0 != ret) TagCorruptedIfWritable(arena);  // the tree had a name array 0 did not
  QW_ASSERT_NAMED(ret0 == ret, "ret0 == ret");
}

uint32_t NameTreeFind(VMArena *arena, uint32_t genID, const uint8_t *name, uint32_t nameLength, bool create,
                      int isBlockArray, uint32_t blockSize, bool *answered, bool *created) {
  ArrayState &state = arena->arrayState;
  *answered = *created = false;
  if (!state.nameTree || !state.treeReady[genID]) return VMA_NO_ARRAY;
  WidenName(arena, name, nameLength);
  const uint64_t value =
      PITreeFind(state.nameTree, state.nameThreadData, state.nameSymbols.data(), nameLength, 0, genID, 0, 0, 0);
  *answered = true;
  if (value == EMPTY_NODE_DATA && QWErrorIsSet()) {
    QWErrorRethrow("cannot look an array name up in \"%s\"", arena->directory.c_str());
    return VMA_NO_ARRAY;
  }
  if (value != EMPTY_NODE_DATA) {
    if (value < 2 || value - 1 >= ArrayCountOf(arena, genID)) {
      TagCorruptedIfWritable(arena);
      QWErrorThrow(74, QW_ERROR_CLASS_DATA, "the name index of \"%s\" names array %llu, which does not exist",
                   arena->directory.c_str(), static_cast<unsigned long long>(value - 1));
      return VMA_NO_ARRAY;
    }
    return uint32_t(value - 1);
  }
  if (!create) return VMA_NO_ARRAY;
  qwassert_(!arena->readOnly);
  const uint32_t id = CreateNamed(arena, name, nameLength, isBlockArray, blockSize);
  if (id == VMA_NO_ARRAY) return VMA_NO_ARRAY;
  *created = true;
  NameTreeAdd(arena, name, nameLength, id);
  return id;
}

}  // namespace qw::vm
