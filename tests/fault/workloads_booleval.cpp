// Boolean evaluator workload: each round stores random queries (shared
// conjunctions, negations, subs, empty conjunctions); a generation renders
// as the matches of fixed probe documents at the three levels.
#include <random>
#include <sstream>

#include "fault/arena_workload.h"
#include "vm/olib/booleval/booleval_model.h"

namespace faulttest {
namespace {

using namespace boolevaltest;

class BoolEvalWorkload : public ArenaWorkload {
 public:
  BoolEvalWorkload() : ArenaWorkload(0) {
    std::mt19937 rng(5);
    for (int i = 0; i < 24; ++i) probes_.push_back(RandomDoc(rng));
  }
  std::unique_ptr<Workload> Clone() const override { return CloneOf(*this); }

  bool Apply(uint32_t round) override {
    std::mt19937 rng(round + 1);
    for (uint32_t i = 0; i < 30; ++i) {
      const Query query = RandomQuery(rng);
      if (!StoreQuery(eval_, scratch_, query, round * 100 + i)) return false;
      model_.emplace_back(query, round * 100 + i);
    }
    return true;
  }

  std::string Dump(uint32_t gen) override {
    std::ostringstream out;
    Levels levels;
    for (const Doc &doc : probes_) {
      if (!RunDoc(runtime_, doc, gen, &levels)) return std::string("error: ") + QWErrorMessage();
      Render(levels, &out);
    }
    return out.str();
  }
  std::string ModelDump() const override {
    std::ostringstream out;
    for (const Doc &doc : probes_) Render(BruteForce(model_, doc), &out);
    return out.str();
  }

 protected:
  bool OpenParts() override {
    return (eval_ = BoolEvalNew(arena_, PathBuffer(""), "queries", NEWGEN, nullptr, 1)) &&
           (runtime_ = BoolEvalRuntimeNew(eval_)) && (scratch_ = BoolQueryNew());
  }
  bool CommitParts() override { return BoolEvalOnCommit(eval_) == 1; }
  void CloseParts() override {
    BoolQueryFree(scratch_);
    BoolEvalRuntimeFree(runtime_);
    BoolEvalFree(eval_);
    scratch_ = nullptr;
    runtime_ = nullptr;
    eval_ = nullptr;
  }

 private:
  static void Render(const Levels &levels, std::ostringstream *out) {
    for (const auto &values : levels) {
      for (uint32_t value : values) *out << value << ' ';
      *out << '|';
    }
    *out << '\n';
  }

  BoolEval *eval_ = nullptr;
  BoolEvalRuntime *runtime_ = nullptr;
  BoolQuery *scratch_ = nullptr;
  std::vector<Doc> probes_;
  std::vector<std::pair<Query, uint32_t>> model_;
};

}  // namespace

std::unique_ptr<Workload> MakeBoolEval() { return std::make_unique<BoolEvalWorkload>(); }

}  // namespace faulttest
