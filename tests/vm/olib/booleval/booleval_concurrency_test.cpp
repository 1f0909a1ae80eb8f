// Runtimes of the committed generation (sharing the node entry cache and the in-memory mirror) beside one writer that
// adds queries and commits: every evaluation gives the matches of the round committed when it began.
#include <atomic>

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
  const uint32_t mismatches = olibtest::ReadersBesideWriter(
      arena, 3, 50,
      [&](std::mt19937 &pick) {
        thread_local BoolEvalRuntime *runtime = BoolEvalRuntimeNew(eval);  // one per reader, freed at thread exit
        thread_local struct Free { ~Free() { BoolEvalRuntimeFree(runtime); } } freeAtExit;
        const size_t d = pick() % probes.size();
        const int r = committed.load();
        Levels levels;
        return RunDoc(runtime, probes[d], OLDGEN, &levels) && levels == expected[r][d];
      },
      [&] {
        for (int r = 1; r <= kRounds; ++r) {
          VMArenaNewGenAcquire(arena, 0);
          for (const auto &[q, value] : rounds[r]) EXPECT_EQ(StoreQuery(eval, query, q, value), 1) << QWErrorMessage();
          VMArenaNewGenRelease(arena, 0);
          // The commit step by step: readers are held off from the moment the arena's committed generation changes
          // until the evaluator follows.
          ASSERT_TRUE(VMArenaFlushStart(arena, nullptr, nullptr) && VMArenaFlushExec(arena) &&
                      VMArenaFlushCommitDisk(arena))
              << QWErrorMessage();
          VMArenaFlushCommitMemoryAcquire(arena);
          EXPECT_EQ(VMArenaFlushCommitMemory(arena, 0), 1);
          EXPECT_EQ(BoolEvalOnCommit(eval), 1);
          committed = r;
          VMArenaFlushCommitMemoryRelease(arena);
          ASSERT_EQ(VMArenaFlushStop(arena), 1);
        }
      });
  EXPECT_EQ(mismatches, 0u);
  BoolQueryFree(query);
  BoolEvalFree(eval);
}

}  // namespace
