// The C entry points: the two instantiations as thin wrappers over the
// generic body, and the facade's lookups and iterator, which dispatch
// through the record's function pointers.
#include <new>

#include "vm/olib/btree/btree_internal.h"

namespace qw::bt {

uint64_t UIntFind64(BTree *tree, uint64_t key, uint64_t newValue, uint64_t notFoundValue, uint64_t *lowerKey,
                    uint64_t *lowerValue, uint64_t *upperKey, uint64_t *upperValue, int create, int replace,
                    int remove, uint32_t genID) {
  if (key <= UINT32_MAX)
    return Tree<uint32_t>::Find(tree, uint32_t(key), newValue, notFoundValue, lowerKey, lowerValue, upperKey,
                                upperValue, create, replace, remove, genID);
  // Above every key a 32-bit tree can hold: never present; its predecessor
  // is the greatest key of the tree.
  qwassert_(!create || !remove);
  CheckGeneration(genID);
  if (create || replace || remove) qwassert_(genID == NEWGEN);
  if (create) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "key %llu does not fit a 32-bit B-tree", (unsigned long long)key);
    return notFoundValue;
  }
  (void)Tree<uint32_t>::Find(tree, UINT32_MAX, 0, notFoundValue, lowerKey, lowerValue, nullptr, nullptr, 0, 0, 0,
                             genID);
  if (upperKey) *upperKey = BTREE_NO_KEY;
  if (upperValue) *upperValue = BTREE_NO_KEY;
  return notFoundValue;
}

uint64_t ULongFind64(BTree *tree, uint64_t key, uint64_t newValue, uint64_t notFoundValue, uint64_t *lowerKey,
                     uint64_t *lowerValue, uint64_t *upperKey, uint64_t *upperValue, int create, int replace,
                     int remove, uint32_t genID) {
  return Tree<uint64_t>::Find(tree, key, newValue, notFoundValue, lowerKey, lowerValue, upperKey, upperValue,
                              create, replace, remove, genID);
}

const Ops kUIntOps{4, Tree<uint32_t>::Next, Tree<uint32_t>::Enumerate, Tree<uint32_t>::BlockEnumerate};
const Ops kULongOps{8, Tree<uint64_t>::Next, Tree<uint64_t>::Enumerate, Tree<uint64_t>::BlockEnumerate};

}  // namespace qw::bt

using namespace qw::bt;

namespace {

// The instantiation that `tree` was made with ("FALSE" for the other).
void RequireKeySize(const BTree *tree, uint32_t keySize) { CheckKeySize(tree, keySize); }

uint64_t Neighbour(BTree *tree, uint64_t key, uint64_t *value, uint32_t genID, bool lower) {
  QWErrorClear();
  uint64_t k = BTREE_NO_KEY, v = BTREE_NO_KEY;
  tree->find(tree, key, 0, 0, lower ? &k : nullptr, lower ? &v : nullptr, lower ? nullptr : &k,
             lower ? nullptr : &v, 0, 0, 0, genID);
  if (QWErrorIsSet()) k = v = BTREE_NO_KEY;
  if (value) *value = v;
  return k;
}

}  // namespace

extern "C" {

// The instantiations. The generic body lives in find.cpp, insert.cpp,
// rebalance.cpp, remove.cpp and walk.cpp; these only bind names and widths.
#define BT_ENTRY_POINTS(Prefix, Key, KeySize)                                                                     \
  QW_API uint64_t Prefix##Find(BTree *tree, Key key, uint64_t newValue, uint64_t notFoundValue,                   \
                               uint64_t *lowerKey, uint64_t *lowerValue, uint64_t *upperKey, uint64_t *upperValue, \
                               int create, int replace, int remove, uint32_t genID) {                            \
    RequireKeySize(tree, KeySize);                                                                                \
    return Tree<Key>::Find(tree, key, newValue, notFoundValue, lowerKey, lowerValue, upperKey, upperValue,       \
                           create, replace, remove, genID);                                                       \
  }                                                                                                               \
  QW_API int Prefix##Insert(BTree *tree, Key key, uint64_t value, uint32_t genID) {                               \
    RequireKeySize(tree, KeySize);                                                                                \
    return Tree<Key>::Insert(tree, key, value, genID) ? 1 : 0;                                                    \
  }                                                                                                               \
  QW_API int Prefix##SplitInsert(BTree *tree, Key *key, uint64_t *value, uint32_t *son, uint32_t position,        \
                                 uint32_t node, int isLeaf, uint32_t genID) {                                     \
    RequireKeySize(tree, KeySize);                                                                                \
    return Tree<Key>::SplitInsert(tree, key, value, son, position, node, isLeaf, genID) ? 1 : 0;                  \
  }                                                                                                               \
  QW_API int Prefix##AddRoot(BTree *tree, uint32_t genID) {                                                       \
    RequireKeySize(tree, KeySize);                                                                                \
    return Tree<Key>::AddRoot(tree, genID) ? 1 : 0;                                                               \
  }                                                                                                               \
  QW_API int Prefix##Next_(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value) {                       \
    RequireKeySize(enumeration->tree, KeySize);                                                                   \
    return Tree<Key>::Next_(enumeration, key, value);                                                             \
  }                                                                                                               \
  QW_API int Prefix##Next(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value) {                        \
    RequireKeySize(enumeration->tree, KeySize);                                                                   \
    return Tree<Key>::Next(enumeration, key, value);                                                              \
  }                                                                                                               \
  QW_API int Prefix##Enumerate(BTree *tree, BTreeEntryCallback callback, void *context, uint32_t genID) {         \
    RequireKeySize(tree, KeySize);                                                                                \
    return Tree<Key>::Enumerate(tree, callback, context, genID);                                                  \
  }                                                                                                               \
  QW_API int Prefix##BlockEnumerate(BTree *tree, BTreeBlockCallback callback, void *context, uint32_t genID,      \
                                    int full) {                                                                   \
    RequireKeySize(tree, KeySize);                                                                                \
    return Tree<Key>::BlockEnumerate(tree, callback, context, genID, full);                                       \
  }

BT_ENTRY_POINTS(UIntBTree, uint32_t, 4)
BT_ENTRY_POINTS(ULongBTree, uint64_t, 8)

QW_API uint64_t BTreeFind(BTree *tree, uint64_t key, uint64_t newValue, uint64_t notFoundValue, int create,
                          int replace, int remove, uint32_t genID) {
  QWErrorClear();
  return tree->find(tree, key, newValue, notFoundValue, nullptr, nullptr, nullptr, nullptr, create, replace, remove,
                    genID);
}

QW_API uint64_t BTreePrevKey(BTree *tree, uint64_t key, uint64_t *value, uint32_t genID) {
  return Neighbour(tree, key, value, genID, true);
}

QW_API uint64_t BTreeNextKey(BTree *tree, uint64_t key, uint64_t *value, uint32_t genID) {
  return Neighbour(tree, key, value, genID, false);
}

QW_API int BTreeEnumerate(BTree *tree, BTreeEntryCallback callback, void *context, uint32_t genID) {
  return tree->ops->enumerate(tree, callback, context, genID);
}

QW_API int BTreeBlockEnumerate(BTree *tree, BTreeBlockCallback callback, void *context, uint32_t genID, int full) {
  return tree->ops->blockEnumerate(tree, callback, context, genID, full);
}

QW_API BTreeEnumeration *BTreeEnumerationNew(BTree *tree, uint32_t keySize, uint32_t genID) {
  CheckKeySize(tree, keySize);
  CheckGeneration(genID);
  auto *enumeration = new (std::nothrow) BTreeEnumeration{tree->ops->next, nullptr, tree, 0, genID};
  if (!enumeration || !ArrayInit(enumeration->stack, sizeof(BTreeFrame), 8)) {
    delete enumeration;
    QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "BTreeEnumerationNew: out of memory");  // ENOMEM
    return nullptr;
  }
  return enumeration;
}

QW_API int BTreeEnumerationNext(BTreeEnumeration *enumeration, uint64_t *key, uint64_t *value) {
  return enumeration->next(enumeration, key, value);
}

QW_API void BTreeEnumerationFree(BTreeEnumeration *enumeration) {
  if (!enumeration) return;
  for (size_t i = 0; i < ArrayLength(enumeration->stack); ++i)
    VMArenaDataRelease(enumeration->tree->arena, DataBlockArenaId(enumeration->stack[i].blockID), 1,
                       const_cast<uint8_t *>(enumeration->stack[i].data), 0, 0);
  ArrayFree(enumeration->stack);
  delete enumeration;
}

}  // extern "C"
