// Logged arena workload: the counter store of tests/support, whose
// increments are log records. A round makes 40 increments under writer
// tickets. Its commit is a checkpoint that only flushes the log (the round
// then survives through replay at the next open), or that and a committing
// checkpoint. Every open recovers, so each reopen replays what the last
// checkpoint covered.
#include <vector>

#include "fault/workloads.h"
#include "support/lvm_counters.h"

namespace faulttest {
namespace {

class LvmWorkload : public Workload {
 public:
  explicit LvmWorkload(bool commits) : commits_(commits) {}
  LvmWorkload(const LvmWorkload &other) : commits_(other.commits_), model_(other.model_) {}

  std::unique_ptr<Workload> Clone() const override { return std::make_unique<LvmWorkload>(*this); }

  bool Open(const std::string &directory, PageCache *, bool create) override {
    return store_.Open(directory, create) && store_.Recover();
  }

  bool Apply(uint32_t round) override {
    for (uint32_t i = 0; i < 40; ++i) {
      const uint32_t index = (round * 7 + i * 3) % qwtest::LoggedCounters::kCount;
      if (!store_.Add(index, round * 100 + i)) return false;
      model_[index] += round * 100 + i;
    }
    return true;
  }

  bool Commit() override { return store_.Checkpoint(false) && (!commits_ || store_.Checkpoint(true)); }

  std::string Dump(uint32_t) override {
    const std::vector<uint64_t> values = store_.Values();
    return values.empty() ? std::string("error: counters: ") + QWErrorMessage() : Render(values);
  }
  std::string ModelDump() const override { return Render(model_); }

  void Close() override { store_.Close(); }

 private:
  static std::string Render(const std::vector<uint64_t> &values) {
    std::string out = "counters";
    for (uint64_t v : values) out += " " + std::to_string(v);
    return out + "\n";
  }

  const bool commits_;
  qwtest::LoggedCounters store_;
  std::vector<uint64_t> model_ = std::vector<uint64_t>(qwtest::LoggedCounters::kCount, 0);
};

}  // namespace

std::unique_ptr<Workload> MakeLvmReplayed() { return std::make_unique<LvmWorkload>(false); }
std::unique_ptr<Workload> MakeLvmCommitted() { return std::make_unique<LvmWorkload>(true); }

}  // namespace faulttest
