// Random allocations, writes, frees, commits and reopenings against models
// of both generations, in every mode, serialised and not; raw id invariants
// after each commit.
#include <map>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "vm/lbs/lbs_fixture.h"

namespace lbstest {
namespace {

using Model = std::map<uint32_t, uint32_t>;  // block id -> seed

class LbsModelTest : public LbsTest, public ::testing::WithParamInterface<std::tuple<Mode, bool>> {
 protected:
  const Mode &mode() const { return std::get<0>(GetParam()); }
  bool serialised() const { return std::get<1>(GetParam()); }

  ServerPtr Reopen(ServerPtr server) {
    const uint64_t serial = server->serial_new;
    server.reset();
    return Open(mode(), serial);
  }

  // Every raw id below the committed size is used by exactly one of: the
  // new map, freeRawBlocksOld, freeRawBlocksNew; the old map reads only
  // raw ids of the new map or of freeRawBlocksNew.
  void CheckInvariants(LocalBlockServer0 *server) {
    const uint64_t rawCount = server->rsize / kServerBlockSize;
    std::vector<int> owner(rawCount, 0);
    const auto *rw_gen = &server->rwGen;
    for (uint64_t b = 0; b < FArrayLength(&rw_gen->blockMap); ++b) {
      const uint32_t raw = MapEntry(&rw_gen->blockMap, b);
      if (raw == INVALID_RAW_BLOCK_ID) continue;
      ASSERT_LT(raw, rawCount);
      ASSERT_EQ(owner[raw], 0) << "raw " << raw;
      owner[raw] = 1;
    }
    for (int list = 2; list <= 3; ++list) {
      const QwArray<uint32_t> &ids = list == 2 ? rw_gen->freeRawBlocksOld : rw_gen->freeRawBlocksNew;
      for (size_t i = 0; i < ids.size(); ++i) {
        ASSERT_LT(ids[i], rawCount);
        ASSERT_EQ(owner[ids[i]], 0) << "raw " << ids[i];
        owner[ids[i]] = list;
      }
    }
    for (uint64_t raw = 0; raw < rawCount; ++raw) ASSERT_NE(owner[raw], 0) << "raw " << raw << " leaked";
    for (uint64_t b = 0; b < FArrayLength(&server->oldMap); ++b) {
      const uint32_t raw = MapEntry(&server->oldMap, b);
      if (raw != INVALID_RAW_BLOCK_ID) {
        ASSERT_TRUE(owner[raw] == 1 || owner[raw] == 3) << "raw " << raw;
      }
    }
    ASSERT_EQ(server->rsize % kFileBlockSize, 0u);
    ASSERT_EQ(FileBytes(path("data0")), server->rsize);
  }

  void CheckModel(LocalBlockServer0 *server, const Model &model, uint32_t generation) {
    for (const auto &[block, seed] : model) ASSERT_TRUE(BlockHolds(server, block, generation, seed));
    const uint32_t count =
        generation == NEWGEN ? LocalBlockServer0BlockCount(server) : LocalBlockServer0OldBlockCount(server);
    for (uint32_t block = 0; block < count; ++block)
      if (!model.count(block)) {
        ASSERT_EQ(LocalBlockServer0RawIdRead(server, block, generation), INVALID_RAW_BLOCK_ID);
      }
  }
};

TEST_P(LbsModelTest, MatchesAMapModel) {
  const unsigned modeIndex = mode().flags & VM_FLAG_EXTENTS ? 2 : mode().flags ? 1 : 0;
  std::mt19937 random(20240611u + modeIndex * 7 + (serialised() ? 1 : 0));
  ServerPtr server = Open(mode(), serialised() ? 0 : STATUS_NO_SERIAL);
  ASSERT_TRUE(server) << QWErrorMessage();
  Model current, committed;
  uint32_t nextSeed = 1, committedCount = 0;  // block ids of the committed generation
  qwtest::MessageCapture capture;  // also keeps the debug lines off stderr
  auto pick = [&](const Model &model) { return std::next(model.begin(), long(random() % model.size()))->first; };
  constexpr int kSteps = 4000;
  for (int step = 0; step < kSteps; ++step) {
    const unsigned op = random() % 100;
    if (op < 30 || current.empty()) {
      const uint32_t seed = nextSeed++;
      const uint32_t block = NewBlock(server.get(), seed);
      ASSERT_NE(block, INVALID_BLOCK_ID) << QWErrorMessage();
      ASSERT_EQ(current.count(block), 0u);
      current[block] = seed;
    } else if (op < 60) {
      const uint32_t block = pick(current);
      const uint32_t seed = nextSeed++;
      ASSERT_TRUE(WriteBlock(server.get(), block, seed));
      current[block] = seed;
    } else if (op < 78) {
      const uint32_t block = pick(current);
      LocalBlockServer0BlockFree(server.get(), block);
      current.erase(block);
    } else if (op < 94) {
      if (!current.empty()) {
        const uint32_t block = pick(current);
        ASSERT_TRUE(BlockHolds(server.get(), block, NEWGEN, current[block]));
      }
      ASSERT_EQ(LocalBlockServer0OldBlockCount(server.get()), committedCount);
      ASSERT_EQ(LocalBlockServer0RawIdRead(server.get(), committedCount + 5, OLDGEN), INVALID_RAW_BLOCK_ID);
      if (!committed.empty()) {
        const uint32_t block = pick(committed);
        ASSERT_TRUE(BlockHolds(server.get(), block, OLDGEN, committed[block]));
      }
    } else if (op < 98) {
      ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
      committed = current;
      committedCount = LocalBlockServer0BlockCount(server.get());
      ASSERT_NO_FATAL_FAILURE(CheckInvariants(server.get()));
      ASSERT_NO_FATAL_FAILURE(CheckModel(server.get(), committed, OLDGEN));
      ASSERT_NO_FATAL_FAILURE(CheckModel(server.get(), current, NEWGEN));
    } else {
      // Reopening drops what was not committed.
      server = Reopen(std::move(server));
      ASSERT_TRUE(server) << QWErrorMessage();
      current = committed;
      ASSERT_EQ(LocalBlockServer0BlockCount(server.get()), committedCount);
      ASSERT_NO_FATAL_FAILURE(CheckModel(server.get(), committed, NEWGEN));
      ASSERT_NO_FATAL_FAILURE(CheckModel(server.get(), committed, OLDGEN));
    }
  }
  ASSERT_TRUE(Commit(server.get())) << QWErrorMessage();
  server = Reopen(std::move(server));
  ASSERT_TRUE(server) << QWErrorMessage();
  ASSERT_NO_FATAL_FAILURE(CheckModel(server.get(), current, NEWGEN));
  ASSERT_NO_FATAL_FAILURE(CheckInvariants(server.get()));
  EXPECT_FALSE(capture.contains("VM: Block count must be fixed !"));
}

INSTANTIATE_TEST_SUITE_P(Modes, LbsModelTest,
                         ::testing::Combine(::testing::ValuesIn(kModes),
                                            ::testing::Bool()),
                         [](const auto &info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "Serialised" : "Unserialised");
                         });

}  // namespace
}  // namespace lbstest
