// The arena part of `qwvm dump` and `qwvm load`: every named structure of
// an arena, as its arrays (docs/dump-format.md).
//
// An arena's structures keep their data in named arena arrays, and refer to
// one another by name or by element position, never by block address, with
// one exception: a large-element array (…/ldbarray/…) keeps the addresses of
// the blocks holding its long elements. So a structure is dumped as its
// arrays (bytes block by block: a load that rebuilds the same blocks rebuilds
// the same structure), and a large-element array as its elements, bucket by
// bucket, which a load appends again in order (handles are positions, so
// they come back the same). The name service's own arrays ("#name/…") are
// not dumped: a load names every array it makes. Arrays are listed by name,
// so that the text does not depend on the order the arrays were made in.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"
#include "tools/qwvm/dump_format.h"

namespace qwtool {

// Writes the records of the committed generation of `arena` (opened
// read-only). `only`: the name of one structure (an array, an array path
// prefix such as "tour/words", or a large-element array's path), or "" for
// all. `skip`: names left out (the logged arena's own "lvm/serial").
// False with the error set.
bool DumpArena(VMArena *arena, const std::string &only, const std::vector<std::string> &skip, DumpWriter *out);

// Rebuilds records in a fresh writable arena's new generation.
class ArenaLoader {
 public:
  explicit ArenaLoader(VMArena *arena) : arena_(arena) {}
  ~ArenaLoader();
  // Takes one record (array, blockarray, block, ldbarray, element); false
  // with the error set (naming the line) when it is malformed or fails.
  bool Add(const std::vector<std::string> &fields, const DumpReader &reader);
  // False when a block array got fewer blocks than it announced.
  bool Finish(const DumpReader &reader);

 private:
  bool Array(const std::vector<std::string> &fields, const DumpReader &reader);
  bool BlockArray(const std::vector<std::string> &fields, const DumpReader &reader);
  bool Block(const std::vector<std::string> &fields, const DumpReader &reader);
  bool LargeArray(const std::vector<std::string> &fields, const DumpReader &reader);
  bool Element(const std::vector<std::string> &fields, const DumpReader &reader);

  VMArena *arena_;
  uint8_t *pathBuffer_ = nullptr;
  // The block array being filled: its name, id, declared length and blocks.
  std::string blockArray_;
  uint32_t blockArrayId_ = 0, blocksLeft_ = 0, blockIndex_ = 0, blockArrayLength_ = 0;
  std::map<std::string, LDBArray *> large_;
  LDBArrayThreadData *threadData_ = nullptr;
};

}  // namespace qwtool
