// What a directory holds, as far as qwvm can tell from its files alone, and
// the stores found under a directory tree. Nothing here opens a store.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace qwtool {

enum class StoreKind { kNone, kArena, kLoggedArena, kBox, kStrTable, kSort };

// How reports name the kind ("logged arena") and its JSON token ("logged_arena").
const char *StoreKindName(StoreKind kind);
const char *StoreKindToken(StoreKind kind);

// The kind of the store that `dir` itself is, tested from the most to the
// least specific:
//   string table   DIR/dict and DIR/box
//   box            DIR/status with a bucket count (parameter 98) and DIR/bucket.0
//   logged arena   DIR/log and DIR/vm
//   sort directory DIR/meta and DIR/data, or a DIR/job that `qwvm sort` wrote
//   arena          a generation file (arena.new or arena.old, possibly with a
//                  serial suffix) in DIR
StoreKind DetectStoreKind(const std::string &dir);

struct FoundStore {
  std::string path;
  StoreKind kind;
};

// `root` alone when it is a store; otherwise every store below it, found by
// walking the sub-directories (in name order, symbolic links not followed)
// that are not themselves stores or parts of one. Empty when there is none.
std::vector<FoundStore> FindStores(const std::string &root);

// The operands of `qwvm check` and `qwvm stat`: DIR [--serial OLD NEW],
// and the stores found in DIR.
struct StoreArguments {
  std::string root;
  bool serials = false;
  uint64_t oldSerial, newSerial;  // STATUS_NO_SERIAL unless --serial
  std::vector<FoundStore> stores;
};

// Parses `args` (flags of the command already taken out) and finds the
// stores. Returns -1 when there is work to do, else the exit status after
// saying why: 2 for bad arguments (`usage` printed) or --serial on anything
// but one plain arena, 1 when DIR holds no store.
int FindStoresToInspect(const std::vector<std::string> &args, const char *command, void (*usage)(FILE *),
                        StoreArguments *found);

}  // namespace qwtool
