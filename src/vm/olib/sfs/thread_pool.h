// The process-wide pool of small-file-store thread data.
//
// Invariants (under the pool mutex): inUse counts the items handed out and
// not yet given back; inUse <= the limit passed by every taker; the free
// stack holds only items that are not in use. Items live until process exit.
#pragma once

#include <cstdint>

#include "qwvm/ldbarray.h"
#include "qwvm/pathdict.h"

namespace qw::sfs {

// One item: the scratch a lookup or a write needs.
struct PoolItem {
  PathDictThreadData *pathDict;
  LDBArrayThreadData *ldbArray;
};

// Takes an item, waiting while `limit` items are in use: forever when
// timeoutMs < 0, else up to timeoutMs (then NULL with code 11). NULL with an
// error also when memory runs out.
PoolItem *PoolTake(uint32_t limit, int32_t timeoutMs);

// Gives an item back and wakes one waiter.
void PoolGive(PoolItem *item);

// Gives the item back when the scope ends.
class PoolLease {
 public:
  PoolLease(uint32_t limit, int32_t timeoutMs) : item_(PoolTake(limit, timeoutMs)) {}
  ~PoolLease() {
    if (item_) PoolGive(item_);
  }
  PoolLease(const PoolLease &) = delete;
  PoolLease &operator=(const PoolLease &) = delete;
  PoolItem *get() const { return item_; }

 private:
  PoolItem *item_;
};

}  // namespace qw::sfs
