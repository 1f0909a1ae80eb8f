// One round of syncs issued together.
//
// Durability work of a commit falls into rounds: everything in a round may
// reach the disk in any order, and the next round must not start before all
// of it has. A round therefore issues all its syncs at once, one thread each
// (the calling thread takes the first), and waits for all of them: the round
// costs about the slowest sync instead of the sum. Each item goes through the
// ordinary seam functions (QWFileSync, which is a data sync, ChannelSync,
// DirectorySync), so the fault seam counts and can fail or crash every one
// of them as before. A directory added twice is synced once.
//
// Run() returns true when every sync succeeded. Otherwise the error chain is
// that of the first failed item in the order of addition (copied from the
// thread that ran it), with the item's own failure message outside it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "qwvm/qwfile.h"

namespace qw {

class SyncRound {
 public:
  // Data sync of an open file / of a channel (its buffer is written first).
  void AddFile(QWFILE file, std::string failure);
  void AddChannel(QWChannel *channel, std::string failure);
  void AddDirectory(const std::string &path, std::string failure);
  // Any other durability step of the round (1, or 0 with an error).
  void Add(std::function<int()> sync, std::string failure);

  [[nodiscard]] size_t size() const { return items_.size(); }
  [[nodiscard]] bool Run();

 private:
  struct Item {
    std::function<int()> sync;
    std::string failure;  // rethrown outside the item's own error chain
    std::string directory;  // set for directories, to sync each once
  };
  std::vector<Item> items_;
};

}  // namespace qw
