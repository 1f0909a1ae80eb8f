// The boolean evaluator against a brute-force evaluator of the same semantics (random queries and documents, all three
// levels, commits, reopenings, with and without the in-memory mirror: it reaches the edge cases of the semantics), the
// refusals, damage and the assertions.
#include <functional>

#include "vm/olib/booleval/booleval_model.h"
#include "vm/olib/dict/dict_fixture.h"

namespace {

using namespace boolevaltest;

class BoolEvalTest : public dicttest::DictTest {
 protected:
  void CloseAll() override {
    CloseEval();
    CloseArena();
  }
  void OpenEval(int keepInMemory) {
    eval = BoolEvalNew(arena, &pathBuffer, "alerts", NEWGEN, nullptr, keepInMemory);
    ASSERT_NE(eval, nullptr) << QWErrorMessage();
    ASSERT_NE(runtime = BoolEvalRuntimeNew(eval), nullptr);
  }
  void CloseEval() {
    BoolEvalRuntimeFree(runtime);
    BoolEvalFree(eval);
    runtime = nullptr;
    eval = nullptr;
  }
  void Commit() {
    ASSERT_TRUE(CommitArena()) << QWErrorMessage();
    ASSERT_EQ(BoolEvalOnCommit(eval), 1) << QWErrorMessage();
  }
  void Add(const Query &query, uint32_t value) {
    ASSERT_EQ(StoreQuery(eval, q, query, value), 1) << QWErrorMessage();
    stored.emplace_back(query, value);
  }
  Levels Evaluate(const Doc &doc, uint32_t genID) {
    Levels levels;
    EXPECT_TRUE(RunDoc(runtime, doc, genID, &levels)) << QWErrorMessage();
    for (uint32_t level = 0; level < 3; ++level) {  // a second call gives the same array
      uint32_t count = 0;
      const uint32_t *values = BoolEvalRuntimeMatchGet(runtime, level, &count);
      EXPECT_EQ(std::vector<uint32_t>(values, values + count), levels[level]);
    }
    return levels;
  }

  BoolQuery *q = BoolQueryNew();
  BoolEval *eval = nullptr;
  BoolEvalRuntime *runtime = nullptr;
  std::vector<std::pair<Query, uint32_t>> stored;

 public:
  ~BoolEvalTest() override { BoolQueryFree(q); }
};

TEST_F(BoolEvalTest, MatchesBruteForceAcrossCommitsAndReopens) {
  for (int keepInMemory = 0; keepInMemory < 2; ++keepInMemory) {
    SCOPED_TRACE(keepInMemory);
    ASSERT_NO_FATAL_FAILURE(OpenEval(keepInMemory));
    ASSERT_EQ(BoolEvalClear(eval, NEWGEN), 1);
    stored.clear();
    Commit();
    std::mt19937 rng(17 + keepInMemory);
    for (int round = 0; round < 8; ++round) {
      const auto committed = stored;
      for (int i = 0; i < 40; ++i) Add(RandomQuery(rng), uint32_t(rng() % 200));  // values repeat
      for (int d = 0; d < 30; ++d) {
        const Doc doc = RandomDoc(rng);
        SCOPED_TRACE("round " + std::to_string(round) + " doc " + std::to_string(d));
        ASSERT_EQ(Evaluate(doc, NEWGEN), BruteForce(stored, doc));
        ASSERT_EQ(Evaluate(doc, OLDGEN), BruteForce(committed, doc));
      }
      Commit();
      if (round % 3 == 2) {
        CloseEval();
        ASSERT_TRUE(ReopenArena()) << QWErrorMessage();
        ASSERT_NO_FATAL_FAILURE(OpenEval(keepInMemory));
      }
      for (int d = 0; d < 30; ++d) {
        const Doc doc = RandomDoc(rng);
        ASSERT_EQ(Evaluate(doc, OLDGEN), BruteForce(stored, doc)) << "round " << round << " doc " << d;
      }
    }
    CloseEval();
  }
}

TEST_F(BoolEvalTest, RefusalsStoreNothing) {
  OpenEval(0);
  BoolQueryDisjStart(q);
  BoolQueryConjStart(q);
  BoolQueryAtomAdd(q, 0, 3, 0);
  EXPECT_TRUE(olibtest::Fails(BoolEvalAdd(eval, q, 1, NEWGEN), 0, 22));  // unfinished
  BoolQueryAtomAdd(q, 0, BOOLEVAL_MAX_ATOM_ID + 1, 0);
  BoolQueryConjStop(q);
  BoolQueryDisjStop(q);
  EXPECT_TRUE(olibtest::Fails(BoolEvalAdd(eval, q, 1, NEWGEN), 0, 22));
  uint64_t conjunctions = 1, atomNodes = 1;
  ASSERT_EQ(BoolEvalStat(eval, NEWGEN, &conjunctions, nullptr, &atomNodes, nullptr), 1);
  EXPECT_EQ(conjunctions + atomNodes, 0u);
}

TEST_F(BoolEvalTest, MalformedNodeTagsTheArenaAndFails) {
  OpenEval(0);
  Add({{{5, 0, false}, {6, 0, false}}}, 1);
  // Atom 5's node becomes a truncated varint.
  LDBArray *nodes = LDBArrayNew(arena, &pathBuffer, "alerts/atomNodesAttr", nullptr, 0, 1);
  LDBArrayThreadData *scratch = LDBArrayThreadDataNew();
  ASSERT_TRUE(nodes && scratch) << QWErrorMessage();
  const uint8_t garbage[] = {0x01};
  ASSERT_EQ(LDBArrayDataSet(nodes, scratch, 0, 5, garbage, 1, NEWGEN), 1) << QWErrorMessage();
  ASSERT_EQ(BoolEvalRuntimeStart(runtime, NEWGEN), 1);
  ASSERT_EQ(BoolEvalRuntimeAtomAdd(runtime, 0, 5, 1), 1);
  EXPECT_EQ(BoolEvalRuntimeStop(runtime), 0);
  ExpectDataError("malformed atom node 5");
  LDBArrayThreadDataFree(scratch);
  LDBArrayFree(nodes);
}

TEST_F(BoolEvalTest, AssertionsNameTheirCondition) {
  OpenEval(0);
  const std::vector<std::pair<std::function<void()>, const char *>> cases = {
      {[&] { BoolQueryConjStart(q); }, "query->level == 1"},
      {[&] { BoolQueryConjStop(q); }, "query->level == 2"},
      {[&] { BoolQueryDisjStop(q); }, "query->level == 1"},
      {[&] { BoolQueryDisjStart(q), BoolQueryDisjStart(q); }, "query->level == 0"},
      {[&] { BoolQueryAtomAdd(q, 0, UINT32_MAX, 0); }, "atomID != UINT_MAX_VALUE"},
      {[&] { BoolEvalRuntimeAtomAdd(runtime, 0, UINT32_MAX, 1); }, "atomID != UINT_MAX_VALUE"},
      {[&] { BoolEvalAdd(eval, q, 1, OLDGEN); }, "genID==NEWGEN"},
      {[&] { BoolEvalClear(eval, OLDGEN); }, "genID == NEWGEN"},
      {[&] {
         uint32_t count = 0;
         BoolEvalRuntimeMatchGet(runtime, 3, &count);
       },
       "matchType < 3"},
  };
  for (const auto &[body, text] : cases) EXPECT_DEATH(body(), text);
}

}  // namespace
