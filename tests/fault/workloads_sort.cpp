// Generic sorter workload: each round adds one run of key/value pairs (keys
// sharing prefixes, repeated keys and pairs, bytes 0 and 255, lengths on
// both sides of 8 and 16 bytes); even rounds then merge every run into one,
// committing the merge state every few entries, so that a loss in the middle
// of a merge leaves it pending.
//
// The rendering is the multiset of pairs the runs hold, which a merge keeps.
// A merge left pending (its inputs partly consumed) is finished first, as
// the sorter's owner would after a crash; each run must read back in key
// order. Close is the sorter's own close, which commits: after a failed
// commit it must refuse, or it would publish runs whose blocks were lost.
#include <algorithm>
#include <cstring>

#include "fault/workloads.h"

namespace faulttest {
namespace {

constexpr uint32_t kBlockSize = 4096;
constexpr uint32_t kPairs = 200;              // per round
constexpr uint64_t kBudget = 3 * kBlockSize;  // merges up to three runs at once
constexpr uint64_t kCheckpoint = 40;          // merged entries between merge commits

using Pair = std::pair<std::string, std::string>;

std::string Key(uint32_t round, uint32_t i) {
  static const std::string kPrefixes[] = {"", "k", std::string("ke\0y", 4), "\xff\xff", std::string(7, 'p'),
                                          std::string(15, 'q')};
  static const char kBytes[] = {'\0', '\x01', 'a', '\xfe', '\xff'};
  const uint32_t v = (i * 37 + round * 11) % 61;  // 61 keys per prefix: many repeats
  return kPrefixes[i % 6] + std::string(v % 11, kBytes[v % 5]);
}

std::vector<Pair> Batch(uint32_t round) {
  std::vector<Pair> pairs;
  for (uint32_t i = 0; i < kPairs; ++i) {
    if (i % 10 == 9) pairs.push_back(pairs.back());  // the same pair twice
    else pairs.emplace_back(Key(round, i), Content(round, i, i % 41));
  }
  return pairs;
}

std::string Hex(const std::string &bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) out += {kDigits[c >> 4], kDigits[c & 15]};
  return out;
}

std::string Render(std::vector<Pair> pairs) {
  std::sort(pairs.begin(), pairs.end());
  std::string out = "pairs " + std::to_string(pairs.size()) + "\n";
  for (const auto &[key, value] : pairs) out += Hex(key) + " " + Digest(value.data(), value.size()) + "\n";
  return out;
}

class SortWorkload : public Workload {
 public:
  SortWorkload() = default;
  SortWorkload(const SortWorkload &other) : model_(other.model_) {}
  ~SortWorkload() override { Close(); }

  std::unique_ptr<Workload> Clone() const override { return std::make_unique<SortWorkload>(*this); }

  bool Open(const std::string &directory, PageCache *, bool) override {
    sorter_ = GenericDBSorterNew(directory.c_str(), 2, kBlockSize, 0, 0, 0, 0);
    return sorter_ != nullptr;
  }

  bool Apply(uint32_t round) override {
    const std::vector<Pair> batch = Batch(round);
    GenericDBSorterWriter *writer = GenericDBSorterWriterNew(sorter_, 1 << 16);
    bool ok = writer != nullptr;
    for (size_t i = 0; ok && i < batch.size(); ++i)
      ok = GenericDBSorterWrite(writer, batch[i].first.data(), uint32_t(batch[i].first.size()),
                                batch[i].second.data(), uint32_t(batch[i].second.size())) == 1;
    ok = ok && GenericDBSorterFlush(writer) == 1;
    GenericDBSorterWriterDelete(writer);
    if (!ok) return false;
    model_.insert(model_.end(), batch.begin(), batch.end());
    if (round % 2 != 0) return true;
    // The sort reports a failed commit between merges as a message only;
    // its cause stays on the error chain.
    QWErrorClear();
    return GenericDBSorterSort(sorter_, kBudget, kCheckpoint) == 1 && !QWErrorIsSet();
  }

  bool Commit() override { return GenericDBSorterCommit(sorter_) == 1; }

  std::string Dump(uint32_t) override {
    // A budget of one block starts no merge: this only finishes a pending one.
    if (DBSorterMergePending(sorter_->dbs) && !GenericDBSorterSort(sorter_, kBlockSize, kCheckpoint))
      return std::string("error: pending merge: ") + QWErrorMessage();
    std::vector<Pair> pairs;
    KMVEntry *entry = KMVEntryNew();
    std::string error;
    // Run ids are reused, so the live ones stay below a few dozen.
    for (uint32_t run = 0; run < 64 && error.empty() && entry; ++run) {
      if (DBSorterRunLength(sorter_->dbs, run) == 0) continue;
      KMVReader *reader = KMVReaderNew(sorter_, run);
      if (!reader) error = "error: run " + std::to_string(run) + ": " + QWErrorMessage();
      std::string previous;
      int r = 0;
      while (reader && error.empty() && (r = KMVReaderReadEntry(reader, entry)) == 1) {
        const std::string key(reinterpret_cast<const char *>(entry->key), ArrayLength(entry->key));
        if (key < previous) error = "error: run " + std::to_string(run) + " out of order at " + Hex(key);
        previous = key;
        const char *value = reinterpret_cast<const char *>(entry->values);
        for (size_t v = 0; v < ArrayLength(entry->valueLengths); ++v) {
          for (uint32_t c = 0; c < entry->counts[v]; ++c)
            pairs.emplace_back(key, std::string(value, entry->valueLengths[v]));
          value += entry->valueLengths[v];
        }
      }
      if (r < 0) error = "error: run " + std::to_string(run) + ": " + QWErrorMessage();
      KMVReaderDelete(reader);
    }
    if (!entry) error = std::string("error: entry: ") + QWErrorMessage();
    KMVEntryDelete(entry);
    return error.empty() ? Render(std::move(pairs)) : error;
  }

  std::string ModelDump() const override { return Render(model_); }

  void Close() override {
    if (sorter_) (void)GenericDBSorterClose(sorter_);
    sorter_ = nullptr;
  }

 private:
  std::vector<Pair> model_;
  GenericDBSorter *sorter_ = nullptr;
};

}  // namespace

std::unique_ptr<Workload> MakeSort() { return std::make_unique<SortWorkload>(); }

}  // namespace faulttest
