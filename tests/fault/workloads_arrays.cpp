// DBArray and LDBArray workloads: two buckets of elements; each round adds
// elements of many lengths (for LDBArray across the direct/external boundary
// and the one- and two-level block lists) and rewrites some earlier ones.
#include "fault/arena_workload.h"

namespace faulttest {
namespace {

using Buckets = std::vector<std::vector<std::string>>;

std::string DumpBuckets(const Buckets &buckets) {
  std::string out;
  for (size_t b = 0; b < buckets.size(); ++b) {
    out += "bucket " + std::to_string(b) + "\n";
    for (const std::string &bytes : buckets[b]) out += Digest(bytes.data(), bytes.size()) + "\n";
  }
  return out;
}

// What a two-bucket array holds, rendered as DumpBuckets renders a model:
// size(b) elements in bucket b, element(b, h) the digest of one ("" when it
// cannot be read), then the check's problem count when not 0.
template <typename Size, typename Element>
std::string DumpStored(Size &&size, Element &&element, uint32_t problems) {
  std::string out;
  for (uint32_t b = 0; b < 2; ++b) {
    out += "bucket " + std::to_string(b) + "\n";
    for (uint32_t h = 0, count = size(b); h < count; ++h) {
      const std::string digest = element(b, h);
      if (digest.empty()) return "error: element " + std::to_string(h) + ": " + QWErrorMessage();
      out += digest + "\n";
    }
  }
  if (problems) out += "problems " + std::to_string(problems) + "\n";
  return out;
}

// The handle of bucket `b` that round `round` rewrites `k`-th.
uint32_t RewrittenHandle(const Buckets &buckets, uint32_t b, uint32_t round, uint32_t k) {
  return uint32_t((round * 7 + k * 3) % buckets[b].size());
}

class DBArrayWorkload : public ArenaWorkload {
 public:
  DBArrayWorkload() : ArenaWorkload(0), model_(2) {}
  std::unique_ptr<Workload> Clone() const override { return CloneOf(*this); }

  bool Apply(uint32_t round) override {
    for (uint32_t i = 0; i < 40; ++i) {
      const uint32_t b = i % 2;
      const std::string bytes = Content(round, i, 1 + (i * 37 + round * 11) % 700);
      if (DBArrayAdd(array_, b, bytes.data(), uint32_t(bytes.size()), NEWGEN) != model_[b].size()) return false;
      model_[b].push_back(bytes);
    }
    for (uint32_t k = 0; k < 10; ++k) {
      const uint32_t b = k % 2, h = RewrittenHandle(model_, b, round, k);
      const std::string bytes = Content(round, 1000 + k, 1 + (k * 211 + round) % 900);
      if (DBArraySet(array_, b, h, NEWGEN, bytes.data(), uint32_t(bytes.size())) != 1) return false;
      model_[b][h] = bytes;
    }
    return true;
  }

  std::string Dump(uint32_t gen) override {
    auto size = [&](uint32_t b) { return DBArraySize(array_, b, gen); };
    auto element = [&](uint32_t b, uint32_t h) {
      uint32_t length = 0;
      const void *bytes = DBArrayGet(array_, b, h, gen, 1, &length);
      if (!bytes) return std::string();
      std::string digest = Digest(bytes, length);
      DBArrayRelease(array_, gen, 1, bytes);
      return digest;
    };
    return DumpStored(size, element, DBArrayCheck(array_, NEWGEN));
  }
  std::string ModelDump() const override { return DumpBuckets(model_); }

 private:
  bool OpenParts() override {
    int created = 1;
    array_ = DBArrayNew(arena_, &pathBuffer_, "fault/dbarray", &created, 0, 2);
    return array_ != nullptr;
  }
  bool CommitParts() override { return DBArrayCommit(array_) == 1; }
  void CloseParts() override {
    if (array_) DBArrayFree(array_);
    array_ = nullptr;
  }

  DBArray *array_ = nullptr;
  Buckets model_;
};

class LDBArrayWorkload : public ArenaWorkload {
 public:
  LDBArrayWorkload() : ArenaWorkload(0), model_(2) {}
  std::unique_ptr<Workload> Clone() const override { return CloneOf(*this); }

  bool Apply(uint32_t round) override {
    static constexpr uint32_t kLengths[] = {0, 1, 100, 4089, 4090, 4091, 8192, 9000, 20000, 70000};
    for (uint32_t i = 0; i < 12; ++i) {
      const uint32_t b = i % 2;
      const std::string bytes = Content(round, i, kLengths[(i + round) % 10]);
      if (LDBArrayAdd(array_, threadData_, b, bytes.data(), uint32_t(bytes.size()), NEWGEN) != model_[b].size())
        return false;
      model_[b].push_back(bytes);
    }
    for (uint32_t k = 0; k < 4; ++k) {
      const uint32_t b = k % 2, h = RewrittenHandle(model_, b, round, k);
      const std::string bytes = Content(round, 1000 + k, kLengths[(k * 3 + round) % 10]);
      if (LDBArrayDataSet(array_, threadData_, b, h, bytes.data(), uint32_t(bytes.size()), NEWGEN) != 1)
        return false;
      model_[b][h] = bytes;
    }
    return true;
  }

  std::string Dump(uint32_t gen) override {
    auto size = [&](uint32_t b) { return LDBArraySize(array_, b, gen); };
    auto element = [&](uint32_t b, uint32_t h) {
      if (LDBArrayGetArray(array_, b, h, &buffer_, 0, gen) != 1) return std::string();
      return Digest(buffer_, ArrayLength(buffer_));
    };
    return DumpStored(size, element, LDBArrayCheck(array_, NEWGEN));
  }
  std::string ModelDump() const override { return DumpBuckets(model_); }

 private:
  bool OpenParts() override {
    int created = 1;
    threadData_ = LDBArrayThreadDataNew();
    if (!threadData_) return false;
    array_ = LDBArrayNew(arena_, &pathBuffer_, "fault/ldbarray", &created, 0, 2);
    return array_ != nullptr;
  }
  bool CommitParts() override { return LDBArrayCommit(array_) == 1; }
  void CloseParts() override {
    if (array_) LDBArrayFree(array_);
    if (threadData_) LDBArrayThreadDataFree(threadData_);
    ArrayFree(buffer_);
    array_ = nullptr;
    threadData_ = nullptr;
    buffer_ = nullptr;
  }

  LDBArray *array_ = nullptr;
  LDBArrayThreadData *threadData_ = nullptr;
  uint8_t *buffer_ = nullptr;
  Buckets model_;
};

}  // namespace

std::unique_ptr<Workload> MakeDBArray() { return std::make_unique<DBArrayWorkload>(); }
std::unique_ptr<Workload> MakeLDBArray() { return std::make_unique<LDBArrayWorkload>(); }

}  // namespace faulttest
