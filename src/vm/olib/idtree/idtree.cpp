// ID trees: dense IDs for atoms over a symbol-sequence tree that stores
// ID + 1 per atom, with the counter and hole stack of id_allocator.h.
#include <memory>
#include <string>

#include "vm/olib/common/cells.h"
#include "vm/olib/common/named_array.h"
#include "vm/olib/common/owner.h"
#include "vm/olib/common/checks.h"
#include "vm/olib/common/path_buffer.h"
#include "vm/olib/idtree/idtree_internal.h"

using qw::olib::CheckGeneration;
using qw::olib::CheckNewGeneration;

namespace qw::idtree {

uint32_t *SymbolScratch(IDTreeThreadData *threadData, uint32_t length) {
  if (ArrayCapacity(threadData->symbols) > 10000 && length <= 10000) ArrayFree(threadData->symbols);
  if (threadData->symbols == nullptr && !ArrayInit(threadData->symbols, sizeof(uint32_t), 64)) return nullptr;
  if (!ArrayLengthSet(threadData->symbols, length)) return nullptr;
  return threadData->symbols;
}

}  // namespace qw::idtree

using namespace qw::idtree;

QW_API IDTree *IDTreeNew(VMArena *arena, uint8_t **pathBuffer, const char *name, int *created, int locked) {
  if (created) *created = 0;
  if (name == nullptr || *name == 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "IDTreeNew: empty name");
    return nullptr;
  }
  qw::olib::PathScope path(pathBuffer);
  if (!path.ok()) return nullptr;
  const std::string base = path.Text() + name;
  qw::olib::Owner<IDTree, IDTreeFree> tree(static_cast<IDTree *>(Allocate(sizeof(IDTree))));
  if (!tree) return nullptr;
  *tree = IDTree{nullptr, {}, {}};
  int lookupMade = 0;
  bool made = false;
  if (!path.Append(std::string(name) + "/") ||
      (tree->lookup = PITreeNew(arena, pathBuffer, "lookup", &lookupMade, locked)) == nullptr ||
      !qw::olib::OpenNamedArray(arena, base, "params", 0, locked, &tree->params, &made) ||
      !qw::olib::OpenNamedArray(arena, base, "freeWID", 0, locked, &tree->freeWID, &made) ||
      !qw::olib::EnsureCounter<uint64_t>(tree->params)) {
    QWErrorRethrow("IDTreeNew: cannot open dictionary \"%s\"", base.c_str());
    return nullptr;
  }
  if (created) *created = int(made || lookupMade);
  return tree.release();
}

QW_API void IDTreeFree(IDTree *tree) {
  if (tree == nullptr) return;
  PITreeFree(tree->lookup);
  UnAllocate(tree);
}

QW_API int IDTreeCommit(IDTree *tree) {
  PITreeCommit(tree->lookup);
  tree->params.id[OLDGEN] = tree->params.id[NEWGEN];
  tree->freeWID.id[OLDGEN] = tree->freeWID.id[NEWGEN];
  return 1;
}

QW_API int IDTreeClear(IDTree *tree, uint32_t genID) {
  CheckGeneration(genID);
  CheckNewGeneration(genID);
  if (!PITreeClear(tree->lookup, genID) || !Allocator(tree).Reset()) {
    return QWErrorRethrow("IDTreeClear: cannot clear the dictionary");
  }
  return 1;
}

QW_API int IDTreeLockRegister(IDTree *tree, uint32_t lock, uint32_t genID) {
  CheckGeneration(genID);
  if (!PITreeLockRegister(tree->lookup, lock, genID)) return 0;
  for (VMAArrayHandle *array : {&tree->params, &tree->freeWID}) {
    if (array->id[genID] == VMA_NO_ARRAY) continue;
    if (!VMAArrayLockRegister_(array->arena, array->id[genID], genID, 1)) return 0;
    if (lock) array->locked[genID] = 1;
  }
  return 1;
}

QW_API IDTreeThreadData *IDTreeThreadDataNew(void) {
  auto *data = static_cast<IDTreeThreadData *>(Allocate(sizeof(IDTreeThreadData)));
  if (data == nullptr) return nullptr;
  *data = IDTreeThreadData{PITreeThreadDataNew(), nullptr};
  if (data->piTreeThreadData == nullptr) {
    UnAllocate(data);
    return nullptr;
  }
  return data;
}

QW_API void IDTreeThreadDataReInit(IDTreeThreadData *threadData) {
  PITreeThreadDataReInit(threadData->piTreeThreadData);
  if (ArrayCapacity(threadData->symbols) > 10000) ArrayFree(threadData->symbols);
}

QW_API void IDTreeThreadDataFree(IDTreeThreadData *threadData) {
  if (threadData == nullptr) return;
  PITreeThreadDataFree(threadData->piTreeThreadData);
  ArrayFree(threadData->symbols);
  UnAllocate(threadData);
}

// The ID is peeked before the insert and taken only when the insert proved
// the atom new, so looking up an existing atom never consumes an ID.
QW_API uint64_t IDTreeFind(IDTree *tree, IDTreeThreadData *threadData, const uint32_t *atom, uint32_t atomLength,
                           int *create, int remove, int useFreeList, uint32_t genID) {
  CheckGeneration(genID);
  const bool wantCreate = create != nullptr && *create != 0;
  OLIB_ASSERT_TEXT(!(wantCreate && remove), "!(create && remove)");
  if (create) *create = 0;
  if (wantCreate || remove) CheckNewGeneration(genID);
  auto allocator = Allocator(tree);
  uint64_t peeked = 0;
  if (wantCreate && !allocator.Peek(useFreeList != 0, &peeked)) return IDTREE_NO_ID;
  const uint64_t nodeData = wantCreate ? peeked + 1 : EMPTY_NODE_DATA;
  const uint64_t found = PITreeFind(tree->lookup, threadData->piTreeThreadData, atom, atomLength, nodeData, genID,
                                    int(wantCreate), remove, 0);
  if (found == EMPTY_NODE_DATA) {
    if (QWErrorIsSet()) return IDTREE_NO_ID;
    OLIB_ASSERT_TEXT(!wantCreate, "!create");
    return IDTREE_NO_ID;
  }
  const uint64_t id = found - 1;
  if (remove) return allocator.PushHole(id) ? id : IDTREE_NO_ID;
  if (wantCreate && id == peeked) {
    uint64_t newID = 0;
    if (!allocator.Take(useFreeList != 0, &newID)) return IDTREE_NO_ID;
    OLIB_ASSERT_TEXT(newID == id, "newID == id");
    *create = 1;
  }
  return id;
}

QW_API int IDTreeSet(IDTree *tree, IDTreeThreadData *threadData, const uint32_t *atom, uint32_t atomLength,
                     uint64_t id) {
  if (id == IDTREE_NO_ID) return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "IDTreeSet: the ID %llu cannot be stored",
                                              (unsigned long long)id);
  uint64_t nodeData = id + 1;
  const uint64_t existing =
      PITreeFind(tree->lookup, threadData->piTreeThreadData, atom, atomLength, nodeData, NEWGEN, 0, 0, 0);
  if (existing == EMPTY_NODE_DATA && QWErrorIsSet()) return 0;
  OLIB_ASSERT_TEXT(existing == EMPTY_NODE_DATA,
                   "PITreeFind(idTree->lookup, threadData->piTreeThreadData, atom, atomLength, nodeData, NEWGEN, "
                   "FALSE, FALSE, FALSE) == EMPTY_NODE_DATA");
  nodeData = PITreeFind(tree->lookup, threadData->piTreeThreadData, atom, atomLength, nodeData, NEWGEN, 1, 0, 0);
  if (nodeData == EMPTY_NODE_DATA && QWErrorIsSet()) return 0;
  OLIB_ASSERT_TEXT(nodeData != EMPTY_NODE_DATA, "nodeData != EMPTY_NODE_DATA");
  return Allocator(tree).RaiseTo(id) ? 1 : 0;
}

QW_API int IDTreeSetHole(IDTree *tree, uint64_t id) { return Allocator(tree).PushHole(id) ? 1 : 0; }

QW_API int IDTreeResetFreeList(IDTree *tree) { return Allocator(tree).ResetHoles() ? 1 : 0; }

QW_API int IDTreeSize(IDTree *tree, uint64_t *bound, uint64_t *count, uint32_t genID) {
  CheckGeneration(genID);
  return Allocator(tree).Size(genID, bound, count) ? 1 : 0;
}

QW_API IDTreeEnumeration *IDTreeEnumerationNew(void) {
  auto *enumeration = static_cast<IDTreeEnumeration *>(Allocate(sizeof(IDTreeEnumeration)));
  if (enumeration == nullptr) return nullptr;
  *enumeration = IDTreeEnumeration{PITreeEnumerationNew(), nullptr};
  if (enumeration->walk == nullptr) {
    UnAllocate(enumeration);
    return nullptr;
  }
  return enumeration;
}

QW_API void IDTreeEnumerationFree(IDTreeEnumeration *enumeration) {
  if (enumeration == nullptr) return;
  PITreeEnumerationFree(enumeration->walk);
  UnAllocate(enumeration);
}

QW_API int IDTreeEnumerationInit(IDTree *tree, IDTreeEnumeration *enumeration, const uint32_t *prefix,
                                 uint32_t prefixLength, uint32_t depth, uint32_t genID) {
  enumeration->tree = tree;
  return PITreeEnumerationInit(tree->lookup, enumeration->walk, prefix, prefixLength, depth, genID);
}

QW_API int IDTreeEnumerationGetNext(IDTreeEnumeration *enumeration, const uint32_t **atom, uint32_t *atomLength,
                                    uint64_t *id) {
  uint64_t nodeData = 0;
  if (!PITreeEnumerationGetNext(enumeration->walk, atom, atomLength, &nodeData)) return 0;
  *id = nodeData - 1;
  return 1;
}
