// Large-element arrays against a vector of strings per bucket (adds, replacements and clears across the direct/external
// boundary, commits, reopenings, committed reads); the lifecycle; committed readers beside a writer.
#include "ldbarray_fixture.h"

namespace {

using ldbatest::Pattern;
using Buckets = std::vector<std::vector<std::string>>;

struct ModelCase {
  const char *name;
  uint32_t seed, buckets, steps;
};

class LDBArrayModel : public ldbatest::LDBArrayTest, public ::testing::WithParamInterface<ModelCase> {
 protected:
  // Around the direct limit, one or a few blocks, now and then a second level.
  uint32_t RandomLength() {
    const uint32_t r = rng() % 1000;
    if (r < 350) return rng() % 200;
    if (r < 500) return 4080 + rng() % 24;
    if (r < 850) return 4101 + rng() % 40000;
    if (r < 995) return 40000 + rng() % 300000;
    return 510 * 8192 + 1 + rng() % 100000;
  }
  void ExpectAll(const Buckets &expected, uint32_t gen) {
    Buckets contents(expected.size());
    for (uint32_t b = 0; b < expected.size(); ++b)
      for (uint32_t h = 0; h < LDBArraySize(array, b, gen); ++h) contents[b].push_back(Read(b, h, gen));
    ASSERT_TRUE(contents == expected) << "gen " << gen;
  }
  std::mt19937 rng{GetParam().seed};
};

TEST_P(LDBArrayModel, MatchesVectorsThroughCommitsAndReopenings) {
  const ModelCase &c = GetParam();
  Open(c.buckets);
  Buckets model(c.buckets), committed(c.buckets);
  for (uint32_t step = 0; step < c.steps; ++step) {
    SCOPED_TRACE(step);
    const uint32_t b = rng() % c.buckets;
    auto &bucket = model[b];
    const uint32_t r = rng() % 100;
    if (r < 40 || bucket.empty()) {
      bucket.push_back(Pattern(rng(), RandomLength()));
      ASSERT_EQ(Add(b, bucket.back()), bucket.size() - 1) << QWErrorMessage();
    } else if (r < 65) {
      const uint32_t h = rng() % uint32_t(bucket.size());
      bucket[h] = Pattern(rng(), RandomLength());
      ASSERT_TRUE(Set(b, h, bucket[h])) << QWErrorMessage();
    } else if (r < 75) {
      const uint32_t h = rng() % uint32_t(bucket.size());
      bucket[h].clear();
      ASSERT_EQ(LDBArrayClearElement(array, b, h, NEWGEN), 1) << QWErrorMessage();
    } else if (r < 83) {
      ASSERT_TRUE(Commit()) << QWErrorMessage();
      committed = model;
    } else if (r < 86) {
      Reopen(c.buckets);  // what was not committed is gone
      model = committed;
      ASSERT_NO_FATAL_FAILURE(ExpectAll(model, NEWGEN));
    } else {
      const uint32_t gen = r % 2 ? OLDGEN : NEWGEN;
      const Buckets &expected = gen == OLDGEN ? committed : model;
      if (expected[b].empty()) continue;
      const uint32_t h = rng() % uint32_t(expected[b].size());
      ASSERT_EQ(ReadByRanges(b, h, gen), expected[b][h]) << "gen " << gen;
    }
  }
  ASSERT_NO_FATAL_FAILURE(ExpectAll(model, NEWGEN));
  ASSERT_NO_FATAL_FAILURE(ExpectAll(committed, OLDGEN));
  EXPECT_EQ(VMArenaCheck(arena), 0);
  qwtest::MessageCapture quiet;  // keeps the check's report off stderr
  EXPECT_EQ(LDBArrayCheck(array, NEWGEN), 0u);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  Reopen(c.buckets);
  ASSERT_NO_FATAL_FAILURE(ExpectAll(model, NEWGEN));
  ASSERT_NO_FATAL_FAILURE(ExpectAll(model, OLDGEN));
  EXPECT_EQ(VMArenaCheckR(arena), 0);
}

const ModelCase kModelCases[] = {
    {"one_bucket", 11, 1, 300}, {"three_buckets", 12, 3, 300}, {"many_buckets", 13, 17, 250}};

INSTANTIATE_TEST_SUITE_P(Cases, LDBArrayModel, ::testing::ValuesIn(kModelCases),
                         [](const ::testing::TestParamInfo<ModelCase> &info) { return info.param.name; });

using LDBArrayLifecycle = ldbatest::LDBArrayTest;

TEST_F(LDBArrayLifecycle, CreationCommittedGenerationAndReadOnlyOpen) {
  Open(2);
  int created = 1;
  LDBArray *again = LDBArrayNew(arena, &pathBuffer, ldbatest::kPath, &created, 0, 5);
  ASSERT_NE(again, nullptr) << QWErrorMessage();
  EXPECT_EQ(created, 0);
  EXPECT_EQ(LDBArrayBucketCount(again), 2u);  // the stored count wins
  LDBArrayFree(again);
  created = 0;
  EXPECT_TRUE(olibtest::Fails(LDBArrayNew(arena, &pathBuffer, "absent", &created, 0, 1), nullptr, 2));
  EXPECT_EQ(ArrayLength(pathBuffer), 0u);

  const std::string big = Pattern(7, 50000), small = Pattern(8, 10);
  ASSERT_EQ(Add(1, big), 0u);
  ASSERT_EQ(Add(1, small), 1u);
  uint32_t end = 5, total = 5;  // nothing committed yet: the committed generation has no elements
  QWErrorClear();
  EXPECT_EQ(LDBArrayRange(array, 1, 0, 0, &end, &total, OLDGEN, 1), nullptr);
  EXPECT_EQ(total, 0u);
  EXPECT_FALSE(QWErrorIsSet());
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  ASSERT_TRUE(Set(1, 0, small));
  EXPECT_EQ(Read(1, 0, OLDGEN), big);
  EXPECT_EQ(Read(1, 0), small);
  ASSERT_EQ(LDBArrayClear(array, NEWGEN), 1) << QWErrorMessage();
  EXPECT_EQ(Read(1, 0, OLDGEN), big);  // the committed blocks are untouched
  EXPECT_EQ(ReadByRanges(1, 1, OLDGEN), small);

  CloseAll();
  Open(2, VM_FLAG_READ_ONLY);
  EXPECT_EQ(Read(1, 0), big);
  EXPECT_EQ(Read(1, 1, OLDGEN), small);
  EXPECT_EQ(LDBArrayLockRegister(array, 1, OLDGEN), 1) << QWErrorMessage();
  EXPECT_EQ(Read(1, 0, OLDGEN), big);
}

// Readers of the committed generation, by whole element and by ranges, run while one writer adds elements of both forms
// and commits. Element h of bucket h % 3 never changes once added: its value is a function of h.
using LDBArrayConcurrency = ldbatest::LDBArrayTest;

std::string ValueOf(uint32_t h) { return Pattern(h, h % 4 == 0 ? 4091 + 6007 * h : h % 4 == 1 ? 4090 : 97 * h % 4000); }

TEST_F(LDBArrayConcurrency, CommittedReadersRunBesideAnAddingAndCommittingWriter) {
  Open(3);
  uint32_t added = 0;
  for (; added < 30; ++added) ASSERT_EQ(Add(added % 3, ValueOf(added)), added / 3);
  ASSERT_TRUE(Commit()) << QWErrorMessage();
  std::atomic<uint32_t> committedCount{added};
  const uint32_t bad = olibtest::ReadersBesideWriter(
      arena, 3, 20,
      [&](std::mt19937 &rng) {
        const uint32_t h = rng() % committedCount.load();
        std::string value;
        if (rng() % 2) {
          uint8_t *copy = nullptr;
          if (LDBArrayGetArray(array, h % 3, h / 3, &copy, 0, OLDGEN))
            value.assign(reinterpret_cast<const char *>(copy), ArrayLength(copy));
          ArrayFree(copy);
          return value == ValueOf(h);
        }
        uint32_t end = 0;
        for (uint32_t offset = 0; void *bytes = LDBArrayRange(array, h % 3, h / 3, offset, &end, nullptr, OLDGEN, 1);
             offset = end) {
          value.append(static_cast<const char *>(bytes), end - offset);
          LDBArrayRelease(array, OLDGEN, 1, bytes);
        }
        return value == ValueOf(h);
      },
      [&] {
        for (int round = 0; round < 8; ++round) {
          VMArenaNewGenAcquire(arena, 0);
          for (int i = 0; i < 12; ++i, ++added) EXPECT_EQ(Add(added % 3, ValueOf(added)), added / 3);
          // A change the readers must not see: replaced and given its value back.
          EXPECT_TRUE(Set(0, 0, Pattern(99, 20000)));
          EXPECT_TRUE(Set(0, 0, ValueOf(0)));
          VMArenaNewGenRelease(arena, 0);
          ASSERT_TRUE(CommitArena()) << QWErrorMessage();
          VMArenaFlushCommitMemoryAcquire(arena);  // readers are held off while the handles move
          LDBArrayCommit(array);
          committedCount = added;
          VMArenaFlushCommitMemoryRelease(arena);
        }
      });
  EXPECT_EQ(bad, 0u);
  for (uint32_t h = 0; h < added; ++h) ASSERT_EQ(Read(h % 3, h / 3, OLDGEN), ValueOf(h));
  EXPECT_EQ(VMArenaCheck(arena), 0);
}

}  // namespace
