// A held committed generation of an arena directory, and the copy of the
// blocks it references: the arena part of `qwvm copy` (copy_commands.cpp).
//
// Why holding the generation files is enough (the argument the copy rests on):
//  1. A commit publishes a generation by renaming freshly written files over
//     arena.new, arena.old and every block/indexS.new and block/indexS.old;
//     every one of these names gets a new file at every commit, and the
//     `committing` marker exists from before the first rename until after
//     the last one.
//  2. The raw blocks of the data files that committed generation X
//     references are never written while X is the committed generation:
//     writers copy a shared block before writing it, into raw blocks free in
//     both generations; a flush moves blocks only into such raw blocks; a
//     raw block that X uses becomes reusable only at the memory commit of
//     the next generation, which follows its renames.
//  3. Hold() checks that no `committing` marker exists, then opens (and
//     keeps open) every generation file; Unchanged() runs after the blocks
//     are read and checks that each name still refers to the file held
//     open. A held file cannot be deleted, so its inode number cannot be
//     taken by a later file: an unchanged name really is the same file.
//  So, if Unchanged() holds, every held file belongs to one generation X (a
//  commit that renamed some names between two of our opens would have left
//  the names opened first pointing at new files) and no commit after X has
//  renamed anything before the blocks were read, so no block of X had been
//  reused yet (2). Otherwise the copy is thrown away and taken again.
//
// Serial-numbered arenas (arena.new.<serial>) are not copied: their
// generation is named by the caller that mounts it.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tools/qwvm/progress.h"

namespace qwtool {

// One bucket server's committed index, decoded.
struct ServerIndex {
  uint64_t rsize = 0;
  std::vector<uint32_t> newMap, oldMap, freeBlocks;
};

class ArenaSnapshot {
 public:
  ArenaSnapshot() = default;
  ~ArenaSnapshot() { Release(); }
  ArenaSnapshot(const ArenaSnapshot &) = delete;
  ArenaSnapshot &operator=(const ArenaSnapshot &) = delete;

  // Opens and reads the generation files of the arena in `dir`. False with
  // the error set when they do not read; *busy set (and false returned, no
  // error) when a commit is under way: take it again later.
  bool Hold(const std::string &dir, bool *busy);
  // Whether every generation file name still refers to the held file and
  // no commit is under way.
  bool Unchanged() const;
  // Number of raw blocks the copy will write (for progress).
  uint64_t BlockCount(bool compact) const;
  // Writes the arena into the existing empty directory `to`: the generation
  // files and the referenced blocks at their raw ids, or, `compact`, the
  // referenced blocks only, numbered afresh, with index files to match.
  bool CopyTo(const std::string &to, bool compact, Progress *progress) const;
  void Release();

 private:
  struct HeldFile {
    std::string name;  // relative to dir_
    int fd = -1;
    struct stat identity {};
    std::string bytes;
  };
  bool HoldFile(const std::string &name, bool *busy);
  bool Decode();

  std::string dir_;
  std::vector<HeldFile> files_;  // arena.new, arena.old, then per server its new and old index
  std::vector<ServerIndex> servers_;
};

// Whether `path` exists (a stat that fails with ENOENT is "no").
bool PathExists(const std::string &path);
// Reads the whole file on `fd` into *bytes; false with the error set.
bool ReadWhole(int fd, const std::string &path, std::string *bytes);
// Writes `bytes` to the new file `path` (not synced: SyncTree does that
// once the copy is whole); false with the error set.
bool WriteWhole(const std::string &path, const std::string &bytes);
// Syncs every file and directory under `root`, deepest first.
bool SyncTree(const std::string &root);
// Puts the directory `built` (beside `target`) in place: syncs it whole,
// renames it to `target` and syncs the parent; false with the error set.
bool PublishDirectory(const std::string &built, const std::string &target);
// Where a command builds `target` before PublishDirectory: "<target><what>-<pid>".
std::string BuildDirectory(const std::string &target, const char *what);

}  // namespace qwtool
