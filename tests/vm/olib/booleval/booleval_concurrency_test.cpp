// The evaluator with threads: runtimes of the committed generation (sharing
// the node entry cache and the in-memory mirror) run while one writer adds
// queries and commits; every evaluation must give the matches of the round
// that was committed when it began.
#include <atomic>
#include <random>
#include <thread>

#include "vm/olib/booleval/booleval_model.h"
#include "vm/olib/dict/dict_fixture.h"

namespace {

using namespace boolevaltest;
using BoolEvalConcurrency = dicttest::DictTest;

TEST_F(BoolEvalConcurrency, CommittedRuntimesRunBesideAnAddingAndCommittingWriter) {
  constexpr int kRounds = 8;
  std::mt19937 rng(3);
  std::vector<Doc> probes;
  for (int i = 0; i < 16; ++i) probes.push_back(RandomDoc(rng));
  std::vector<std::vector<std::pair<Query, uint32_t>>> rounds(kRounds + 1);  // the queries of round r
  std::vector<std::vector<Levels>> expected(kRounds + 1);                    // per committed round, per probe
  std::vector<std::pair<Query, uint32_t>> all;
  for (int r = 0; r <= kRounds; ++r) {
    for (uint32_t i = 0; r > 0 && i < 25; ++i) rounds[r].emplace_back(RandomQuery(rng), r * 100 + i);
    all.insert(all.end(), rounds[r].begin(), rounds[r].end());
    for (const Doc &doc : probes) expected[r].push_back(BruteForce(all, doc));
  }
  BoolEval *eval = BoolEvalNew(arena, &pathBuffer, "q", NEWGEN, nullptr, 1);
  BoolQuery *query = BoolQueryNew();
  ASSERT_TRUE(eval && query) << QWErrorMessage();
  ASSERT_TRUE(CommitArena() && BoolEvalOnCommit(eval));
  std::atomic<int> committed{0};
  std::atomic<bool> done{false};
  std::atomic<uint32_t> mismatches{0}, evaluations{0};
  auto reader = [&](uint32_t seed) {
    BoolEvalRuntime *runtime = BoolEvalRuntimeNew(eval);
    std::mt19937 pick(seed);
    Levels levels;
    while (!done.load()) {
      const size_t d = pick() % probes.size();
      VMArenaOldGenAcquire(arena);
      const int r = committed.load();
      const bool ok = RunDoc(runtime, probes[d], OLDGEN, &levels);
      VMArenaOldGenRelease(arena);
      if (!ok || levels != expected[r][d]) ++mismatches;
      ++evaluations;
    }
    BoolEvalRuntimeFree(runtime);
  };
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < 3; ++i) threads.emplace_back(reader, i + 1);
  for (int r = 1; r <= kRounds; ++r) {
    VMArenaNewGenAcquire(arena, 0);
    for (const auto &[q, value] : rounds[r]) EXPECT_EQ(StoreQuery(eval, query, q, value), 1) << QWErrorMessage();
    VMArenaNewGenRelease(arena, 0);
    // The commit step by step, so that readers are held off from the moment
    // the arena's committed generation changes until the evaluator follows.
    ASSERT_TRUE(VMArenaFlushStart(arena, nullptr, nullptr) && VMArenaFlushExec(arena) && VMArenaFlushCommitDisk(arena))
        << QWErrorMessage();
    VMArenaFlushCommitMemoryAcquire(arena);
    EXPECT_EQ(VMArenaFlushCommitMemory(arena, 0), 1);
    EXPECT_EQ(BoolEvalOnCommit(eval), 1);
    committed = r;
    VMArenaFlushCommitMemoryRelease(arena);
    ASSERT_EQ(VMArenaFlushStop(arena), 1);
  }
  while (evaluations.load() < 50) std::this_thread::yield();
  done = true;
  for (std::thread &t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0u);
  BoolQueryFree(query);
  BoolEvalFree(eval);
}

}  // namespace
