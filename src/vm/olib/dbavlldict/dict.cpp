// Lifetime of an AVL dictionary: opening its two arrays by name, clearing,
// and the live count.
#include <cstring>
#include <memory>

#include "vm/olib/dbavlldict/dbavlldict_internal.h"

using namespace qw::avl;

namespace {

// Completes a "params" array to its two elements with zeros (a new one is
// empty).
bool CompleteParams(QWDBAVLLDict *dict) {
  static const uint8_t zeros[2 * kParamSize] = {};
  const uint32_t id = dict->params.id[NEWGEN];
  const uint32_t length = VMAArrayLength_(dict->arena, id, NEWGEN);
  if (length >= 2) return true;
  return VMAArrayAppend_(dict->arena, id, int(dict->params.locked[NEWGEN]), kBlockSize, zeros, 2 - length, NEWGEN,
                         kParamSize) == 1;
}

// Resets node 0 (sons 0, skew none) and node 1 (key 0, sons 0, skew none).
bool ResetReservedNodes(QWDBAVLLDict *dict) {
  NodeAccess nodes;
  Node zero, header;
  if (!nodes.Open(dict, NEWGEN) || !nodes.Read(ZERO, &zero) || !nodes.Read(kHeader, &header)) return false;
  zero.n_right = zero.n_left = 0;
  header.n_right = header.n_left = 0;
  header.key = 0;
  return nodes.Write(ZERO, zero) && nodes.Write(kHeader, header);
}

}  // namespace

extern "C" {

QW_API QWDBAVLLDict *QWDBAVLLDictNew_(VMArena *arena, const char *path, const char *name, uint32_t reserved,
                                      int scan) {
  if (reserved != 0) {
    QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "QWDBAVLLDictNew_: reserved must be 0");
    return nullptr;
  }
  auto dict = std::make_unique<QWDBAVLLDict>();
  dict->arena = arena;
  dict->path = name ? std::string(path) + "/" + name : std::string(path);
  dict->scan = scan;
  if (!VMAArrayInitFromPath_(&dict->node, arena, dict->path.c_str(), "node", scan) ||
      !VMAArrayInitFromPath_(&dict->params, arena, dict->path.c_str(), "params", scan)) {
    QWErrorRethrow("cannot open AVL dictionary \"%s\"", dict->path.c_str());
    return nullptr;
  }
  if (VMAArrayLength_(arena, dict->params.id[NEWGEN], NEWGEN) < 2) {
    if (VMArenaIsReadOnly(arena)) {
      QWErrorThrow(2, QW_ERROR_CLASS_GENERAL, "AVL dictionary \"%s\" is not initialised in read-only \"%s\"",
                   dict->path.c_str(), VMArenaPath(arena));
      return nullptr;
    }
    if (!QWDBAVLLDictClear(dict.get(), NEWGEN)) {
      QWErrorRethrow("cannot initialise AVL dictionary \"%s\"", dict->path.c_str());
      return nullptr;
    }
  }
  return dict.release();
}

QW_API QWDBAVLLDict *QWDBAVLLDictNew(VMArena *arena, const char *path, const char *name, int scan) {
  return QWDBAVLLDictNew_(arena, path, name, 0, scan);
}

QW_API void QWDBAVLLDictDelete(QWDBAVLLDict *dict) { std::default_delete<QWDBAVLLDict>()(dict); }

QW_API int QWDBAVLLDictClear(QWDBAVLLDict *dict, uint32_t genID) {
  CheckGeneration(genID);
  qwassert_(genID == NEWGEN);
  static const uint8_t zeros[2 * kNodeSize] = {};
  if (!CompleteParams(dict)) return QWErrorRethrow("cannot clear AVL dictionary \"%s\"", dict->path.c_str());
  {
    ParamsAccess params;
    if (!params.Open(dict, NEWGEN, 0)) return QWErrorRethrow("cannot clear AVL dictionary \"%s\"", dict->path.c_str());
    params.Set(kParamCount, 0);
    params.Set(kParamFreeList, 0);
  }
  // The node array only grows: the old records stay, unreachable.
  if (!VMAArrayAppend_(dict->arena, dict->node.id[NEWGEN], int(dict->node.locked[NEWGEN]), kBlockSize, zeros, 2,
                       NEWGEN, kNodeSize) ||
      !ResetReservedNodes(dict))
    return QWErrorRethrow("cannot clear AVL dictionary \"%s\"", dict->path.c_str());
  return 1;
}

QW_API uint32_t QWDBAVLLDictSize(QWDBAVLLDict *dict, uint32_t genID) {
  CheckGeneration(genID);
  QWErrorClear();
  ParamsAccess params;
  if (!params.Open(dict, genID, 1)) return 0;
  return params.Get(kParamCount);
}

}  // extern "C"
