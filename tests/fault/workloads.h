// Workloads of the fault campaign: one kind of store beside a model of what
// it holds. Apply(r) makes round r's changes (the same from the same state),
// Commit() commits them; Dump(gen) renders the store as canonical text and
// ModelDump() renders the model alike, so the campaign compares dumps only.
// Copying a closed workload copies its model (how a forked child and the
// checking parent start from the same round).
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"

namespace faulttest {

class Workload {
 public:
  virtual ~Workload() = default;
  // A closed copy of this (closed) workload's model.
  virtual std::unique_ptr<Workload> Clone() const = 0;
  // Opens the store in `directory` (created when `create`); false with the
  // error chain set.
  virtual bool Open(const std::string &directory, PageCache *cache, bool create) = 0;
  // Makes the changes of `round`; false (error chain set) at the first one
  // that fails.
  virtual bool Apply(uint32_t round) = 0;
  virtual bool Commit() = 0;
  // What generation `gen` holds; "error: ..." when it cannot be read.
  virtual std::string Dump(uint32_t gen) = 0;
  virtual std::string ModelDump() const = 0;
  // Frees everything; uncommitted changes are dropped.
  virtual void Close() = 0;
};

struct WorkloadKind {
  const char *name;
  std::unique_ptr<Workload> (*make)();
};

// Test names and failure messages show a workload by its name.
inline void PrintTo(const WorkloadKind &kind, std::ostream *out) { *out << kind.name; }

// Every workload of the campaign.
const std::vector<WorkloadKind> &AllWorkloads();

// 64-bit FNV-1a of `size` bytes (dumps show long contents as length:hash).
uint64_t Fnv(const void *data, size_t size);
// "length:hash" of a byte string.
std::string Digest(const void *data, size_t size);
// Deterministic content of `length` bytes for (round, index).
std::string Content(uint32_t round, uint32_t index, uint32_t length);

// A message handler that drops everything: faulted runs print nothing, the
// checks read the error chain.
inline void Silent(void *, int, const char *, int, const char *) {}

}  // namespace faulttest
