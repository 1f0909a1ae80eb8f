// The box store: a random model across checkpoints and reopenings (direct
// and cached data files), the block sizes at the part boundary, recycling
// only after a checkpoint, crashes at every checkpoint stop, replay that
// rebuilds the metadata exactly, the error mode after a failed data write,
// the record printers, the raw reader, threads, and the box check: nothing
// wrong after checkpoints, reopenings and every crash, and each kind of damage
// gives the one fault that names it.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/fault_support.h"
#include "support/test_support.h"
#include "vm/lvm/box_internal.h"
#include "vm/olib/common/cells.h"

namespace {

using BoxModel = std::map<uint32_t, std::string>;
const std::vector<std::string> kSound;

std::string Value(uint32_t id, uint32_t version, uint32_t size) {
  std::string value(size, '\0');
  uint32_t x = id * 2654435761u + version * 40503u + 1;
  for (char &c : value) c = char((x = x * 1103515245u + 12345u) >> 24);
  return value;
}

class BoxTest : public qwtest::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    td = BoxLVMThreadDataNew();
    ASSERT_NE(td, nullptr);
  }
  void TearDown() override {
    Close(false);
    BoxLVMThreadDataFree(td);
    PageCacheFree(cache);
    unsetenv("QWRETURNFALSE");
    TempDirTest::TearDown();
  }
  std::string boxDir() const { return path("box"); }
  void Open(uint32_t buckets = 2, int create = 1, int readOnly = 0) {
    box = BoxLVMOpen(boxDir().c_str(), buckets, 1, 4, create, readOnly, cache);
    ASSERT_NE(box, nullptr) << QWErrorMessage();
  }
  void Close(bool checkpoint) {
    if (box) {
      EXPECT_TRUE(BoxLVMClose(box, checkpoint)) << QWErrorMessage();
    }
    box = nullptr;
  }
  bool Put(uint32_t id, const std::string &value, int *isNew = nullptr) {
    int fresh = -1, inError = -1;
    const bool ok = BoxLVMUpdate(box, id, 0, 0, value.data(), uint32_t(value.size()), &fresh, &inError);
    if (isNew) *isNew = fresh;
    return ok;
  }
  // The value of `id`, or "<absent>".
  std::string Get(uint32_t id) {
    QWErrorClear();
    uint8_t *bytes = nullptr;
    const int found = BoxLVMGet(box, td, id, &bytes);
    std::string value = found ? std::string(bytes, bytes + ArrayLength(bytes)) : "<absent>";
    if (!found && QWErrorIsSet()) value = std::string("<error> ") + QWErrorMessage();
    ArrayFree(bytes);
    return value;
  }
  void ExpectHolds(const BoxModel &model, uint32_t idLimit) {
    EXPECT_EQ(BoxLVMSize(box), model.size());
    for (uint32_t id = 0; id < idLimit; ++id) {
      const auto it = model.find(id);
      ASSERT_EQ(Get(id), it == model.end() ? "<absent>" : it->second) << "id " << id;
      EXPECT_EQ(BoxLVMExists(box, id), it == model.end() ? 0 : 1) << "id " << id;
    }
  }
  // BoxLVMCheck's fault lines: none when the box is sound.
  std::vector<std::string> Check() {
    std::vector<std::string> lines;
    uint64_t faults = 99;
    EXPECT_TRUE(BoxLVMCheck(
        box, [](void *out, uint32_t, const char *line) { static_cast<std::vector<std::string> *>(out)->push_back(line); },
        &lines, &faults));
    EXPECT_EQ(faults, lines.size());
    return lines;
  }
  BoxLVMBucket &Bucket(uint32_t n) { return *box->buckets[n]; }
  std::vector<uint32_t> Handles(uint32_t id) {
    BoxLVMBucket &bucket = Bucket(id % box->bucketCount);
    std::vector<uint32_t> handles;
    bool found = false;
    EXPECT_TRUE(qw::box::BoxLVMBucketHandleGet(bucket, id / box->bucketCount, &handles, &found));
    return handles;
  }
  std::vector<uint32_t> Classes(uint32_t id) {
    std::vector<uint32_t> classes;
    for (uint32_t handle : Handles(id)) {
      uint32_t c = 0;
      EXPECT_TRUE(BoxLVMDataBlockSizeGet(Bucket(id % box->bucketCount).data, handle, &c));
      classes.push_back(c);
    }
    return classes;
  }
  // Every metadata array of every bucket, rendered: params, free lists,
  // primary mapping, secondary lists, free secondary ids.
  std::string MetadataDigest() {
    std::string out;
    auto cells = [&](const VMAArrayHandle &array) {
      for (uint32_t i = 0; i < qw::olib::CellCount(array, NEWGEN); ++i) {
        uint32_t v = 0;
        EXPECT_TRUE(qw::olib::CellGet(array, i, NEWGEN, &v));
        out += std::to_string(v) + ",";
      }
      out += ";";
    };
    for (auto &bucket : box->buckets) {
      BoxLVMMetadata &meta = bucket->meta;
      cells(meta.params);
      for (const VMAArrayHandle &list : meta.freeList) cells(list);
      cells(meta.primMapping);
      cells(meta.secMappingFreeList);
      for (uint32_t s = 0; s < LDBArraySize(meta.secMapping, 0, NEWGEN); ++s) {
        uint8_t *bytes = nullptr;
        EXPECT_TRUE(LDBArrayGetArray(meta.secMapping, 0, s, &bytes, 0, NEWGEN));
        out += std::string(bytes, bytes + ArrayLength(bytes)) + "|";
        ArrayFree(bytes);
      }
      out += "\n";
    }
    return out;
  }

  BoxLVM *box = nullptr;
  BoxLVMThreadData *td = nullptr;
  PageCache *cache = nullptr;
};

// Sizes around the part boundary weigh as much as small ones.
uint32_t RandomSize(std::mt19937 &rng) {
  static const uint32_t kEdges[] = {0, 1, 12, 13, 8172, 8173, 16344, 16345, 8192};
  switch (rng() % 4) {
    case 0: return kEdges[rng() % std::size(kEdges)];
    case 1: return 1 + rng() % 200;
    case 2: return 1 + rng() % 9000;
    default: return 1 + rng() % 40000;
  }
}

TEST_F(BoxTest, RandomModelAcrossCheckpointsAndReopenings) {
  for (bool cached : {false, true}) {
    SCOPED_TRACE(cached ? "page cache" : "direct");
    std::filesystem::remove_all(boxDir());
    if (cached) cache = PageCacheNew(8 << 20, 8192);
    ASSERT_NO_FATAL_FAILURE(Open(2));
    BoxModel model, durable;
    std::mt19937 rng(cached ? 7 : 11);
    uint32_t version = 0;
    const uint32_t idLimit = 60;
    qwtest::RunModel(rng, 300,
                     {{58,
                       [&] {
                         const uint32_t id = rng() % idLimit;
                         int isNew = -1;
                         const std::string value = Value(id, ++version, RandomSize(rng));
                         ASSERT_TRUE(Put(id, value, &isNew)) << QWErrorMessage();
                         EXPECT_EQ(isNew, model.count(id) ? 0 : 1);
                         model[id] = value;
                       }},
                      {20,
                       [&] {
                         const uint32_t id = rng() % idLimit;
                         int inError = -1;
                         EXPECT_EQ(BoxLVMRemove(box, id, &inError), model.erase(id) ? 1 : 0) << id;
                         EXPECT_EQ(inError, 0);
                       }},
                      {16,
                       [&] {
                         const uint32_t id = rng() % idLimit;
                         ASSERT_EQ(Get(id), model.count(id) ? model[id] : "<absent>") << id;
                       }},
                      {4,
                       [&] {
                         ASSERT_TRUE(BoxLVMCheckpoint(box, int(rng() % 2), nullptr)) << QWErrorMessage();
                         durable = model;
                         ASSERT_EQ(Check(), kSound);
                       }},
                      {2, [&] {
                         // Closing without a checkpoint loses what followed the last one.
                         const bool checkpoint = rng() % 2;
                         Close(checkpoint);
                         if (checkpoint) durable = model;
                         model = durable;
                         ASSERT_NO_FATAL_FAILURE(Open(1 + rng() % 5, 0));  // the stored count wins
                         EXPECT_EQ(BoxLVMBucketCount(box), 2u);
                         ASSERT_NO_FATAL_FAILURE(ExpectHolds(model, idLimit));
                         ASSERT_EQ(Check(), kSound);
                       }}});
    ASSERT_FALSE(HasFatalFailure()) << "a model step failed: its handles may be gone";
    // A read-only open sees the last commit.
    ASSERT_TRUE(BoxLVMCheckpoint(box, 1, nullptr)) << QWErrorMessage();
    Close(false);
    ASSERT_NO_FATAL_FAILURE(Open(2, 0, 1));
    ASSERT_NO_FATAL_FAILURE(ExpectHolds(model, idLimit));
    Close(false);
    PageCacheFree(cache);
    cache = nullptr;
  }
}

TEST_F(BoxTest, EdgeCasesOfValuesCountsAndModes) {
  // (Values, sizes, counts and empty values in general: the model test.)
  ASSERT_NO_FATAL_FAILURE(Open(2));
  // A value of 8172 bytes fills one block of class 255; one more byte adds a
  // block of class 0; an empty value is an entry without blocks.
  ASSERT_TRUE(Put(4, Value(4, 1, 8172)));
  ASSERT_TRUE(Put(6, Value(6, 1, 8173)));
  EXPECT_EQ(Classes(4), (std::vector<uint32_t>{255}));
  EXPECT_EQ(Classes(6), (std::vector<uint32_t>{255, 0}));
  ASSERT_TRUE(Put(8, "") && Put(6, "") && Put(4, "x")) << QWErrorMessage();
  EXPECT_TRUE(Handles(6).empty() && Handles(8).empty());
  // Removing what was never stored is refused and counts nothing.
  EXPECT_EQ(BoxLVMRemove(box, 10, nullptr), 0);
  EXPECT_STREQ(QWErrorMessage(), "cannot remove non-existing entry");
  EXPECT_EQ(BoxLVMSize(box), 3u);
  ASSERT_TRUE(BoxLVMCheckpoint(box, 1, nullptr)) << QWErrorMessage();
  Close(false);
  // Read-only: reads work, changes and checkpoints are refused.
  ASSERT_NO_FATAL_FAILURE(Open(7, 0, 1));
  EXPECT_EQ(Get(4), "x");
  EXPECT_EQ(Get(8), "");
  EXPECT_FALSE(Put(5, "y"));
  EXPECT_NE(std::string(QWErrorMessage()).find("Cannot update in readOnly mode"), std::string::npos);
  EXPECT_EQ(BoxLVMCheckpoint(box, 1, nullptr), 0);
  EXPECT_EQ(QWErrorCode(), 13);
  EXPECT_STREQ(QWErrorMessage(), "cannot checkpoint in read-only mode");
  Close(false);
  // A directory without a box.
  EXPECT_EQ(BoxLVMOpen(path("none").c_str(), 2, 1, 1, 0, 0, nullptr), nullptr);
  EXPECT_NE(std::string(QWErrorMessage()).find("Could not read status in " + path("none")), std::string::npos);
  // A new box of no buckets.
  EXPECT_DEATH((void)BoxLVMOpen(path("empty").c_str(), 0, 1, 1, 1, 0, nullptr), "bucketCount != 0");
}

TEST_F(BoxTest, ABucketWithoutItsEntryCountGetsItCountedOnOpen) {
  ASSERT_NO_FATAL_FAILURE(Open(1));
  for (uint32_t id : {3u, 5u, 9u}) ASSERT_TRUE(Put(id, Value(id, 1, 50)));
  ASSERT_TRUE(BoxLVMRemove(box, 5, nullptr));
  ASSERT_TRUE(BoxLVMCheckpoint(box, 1, nullptr));
  // An older layout kept two params.
  BoxLVMMetadata &meta = Bucket(0).meta;
  ASSERT_TRUE(VMAArrayLengthSet_(meta.arena, meta.params.id[NEWGEN], 2, NEWGEN, 4));
  ASSERT_TRUE(VMArenaCommit(meta.arena, nullptr, nullptr, 1));
  Close(false);
  qwtest::MessageCapture messages;
  ASSERT_NO_FATAL_FAILURE(Open(1, 0));
  EXPECT_TRUE(messages.contains("initializing documents count (10 mapping entries)", QW_LEVEL_PROGRESS));
  EXPECT_TRUE(messages.contains("initialized documents count to 2", QW_LEVEL_PROGRESS));
  EXPECT_EQ(BoxLVMSize(box), 2u);
}

TEST_F(BoxTest, FreedBlocksComeBackOnlyAtTheRecycleStep) {
  ASSERT_NO_FATAL_FAILURE(Open(1));
  ASSERT_TRUE(Put(1, Value(1, 1, 100)));
  ASSERT_TRUE(Put(2, Value(2, 1, 20000)));
  const std::vector<uint32_t> small = Handles(1), large = Handles(2);
  ASSERT_TRUE(Put(1, Value(1, 2, 100)));
  ASSERT_TRUE(Put(2, Value(2, 2, 20000)));
  ASSERT_TRUE(Put(3, Value(3, 1, 100)));
  for (uint32_t id : {1u, 2u, 3u})
    for (uint32_t h : Handles(id))
      for (uint32_t old : small) EXPECT_NE(h, old) << id;
  ASSERT_TRUE(BoxLVMCheckpoint(box, 0, nullptr)) << QWErrorMessage();
  // Last in, first out: the freed block of the same class is taken first.
  ASSERT_TRUE(Put(4, Value(4, 1, 100)));
  EXPECT_EQ(Handles(4), small);
  ASSERT_TRUE(Put(5, Value(5, 1, 20000)));
  EXPECT_EQ(Handles(5), (std::vector<uint32_t>{large[1], large[0], large[2]}));
  // The freed secondary list id is reused too.
  EXPECT_EQ(LDBArraySize(Bucket(0).meta.secMapping, 0, NEWGEN), 2u);
  EXPECT_EQ(Get(5), Value(5, 1, 20000));
}

// The updates of round `round` on ids 0 .. 39 (every sixth one removed).
void Round(uint32_t round, BoxModel *model, BoxLVM *box) {
  for (uint32_t i = 0; i < 40; ++i) {
    const uint32_t id = (i * 7 + round) % 40;
    if (i % 6 == 5 && model->count(id)) {
      if (box) {
        ASSERT_TRUE(BoxLVMRemove(box, id, nullptr)) << QWErrorMessage();
      }
      model->erase(id);
      continue;
    }
    const std::string value = Value(id, round, 1 + (i * 997 + round * 131) % 12000);
    if (box) {
      ASSERT_TRUE(BoxLVMUpdate(box, id, 0, 0, value.data(), uint32_t(value.size()), nullptr, nullptr));
    }
    (*model)[id] = value;
  }
}

TEST_F(BoxTest, EveryCheckpointStopCrashedInAChildRecoversToACheckpointedBox) {
  BoxModel before, after;
  ASSERT_NO_FATAL_FAILURE(Open(2));
  ASSERT_NO_FATAL_FAILURE(Round(1, &before, box));
  Close(true);
  after = before;
  ASSERT_NO_FATAL_FAILURE(Round(2, &after, nullptr));
  std::filesystem::copy(boxDir(), path("snapshot"), std::filesystem::copy_options::recursive);
  for (bool commit : {false, true}) {
    for (int stop = 0; stop <= 13; ++stop) {
      if (stop == 7) continue;
      const std::string name = "lvmcheckpoint" + std::to_string(stop);
      SCOPED_TRACE(name + (commit ? " committing" : ""));
      std::filesystem::remove_all(boxDir());
      std::filesystem::copy(path("snapshot"), boxDir(), std::filesystem::copy_options::recursive);
      // The stop fires in bucket 0; bucket 1 is never checkpointed.
      auto prepare = [&] {
        box = BoxLVMOpen(boxDir().c_str(), 2, 1, 4, 0, 0, nullptr);
        BoxModel scratch = before;
        Round(2, &scratch, box);
        return box != nullptr;
      };
      const bool fires = stop <= 10 || commit;
      ASSERT_TRUE(qwtest::CrashAtStop(name.c_str(), boxDir() + "/bucket.0/vm", prepare,
                                      [&] { _exit(BoxLVMCheckpoint(box, commit, nullptr) ? 0 : 3); }, fires));
      box = nullptr;
      ASSERT_NO_FATAL_FAILURE(Open(2, 0));
      // Bucket 0 holds round 2 once the checkpoint record is durable (its
      // flush is stop 4); bucket 1 only when no stop fired.
      BoxModel expected = fires ? before : after;
      for (uint32_t id = 0; id < 40; id += 2) {
        if (stop < 4 || !fires) break;
        if (after.count(id)) expected[id] = after.at(id);
        else expected.erase(id);
      }
      ASSERT_NO_FATAL_FAILURE(ExpectHolds(expected, 40));
      EXPECT_EQ(Check(), kSound);
      Close(false);
    }
  }
}

// The workload of the replay test on a one-bucket box: rounds 1 .. `rounds`,
// each followed by a checkpoint (the third committing), then (with `tail`) a
// round that no checkpoint makes durable; `crashing` runs before round
// `crashRound`'s checkpoint (a crash stop or a power loss armed there). No
// close: the log's tail is all that survives.
void ReplayWorkload(const std::string &dir, uint32_t rounds, bool tail, uint32_t crashRound = 0,
                    const std::function<void()> &crashing = {}) {
  BoxLVM *b = BoxLVMOpen(dir.c_str(), 1, 1, 2, 1, 0, nullptr);
  if (!b) _exit(3);
  BoxModel model;
  for (uint32_t round = 1; round <= rounds; ++round) {
    Round(round, &model, b);
    if (round == crashRound) crashing();
    if (!BoxLVMCheckpoint(b, round == 3, nullptr)) _exit(4);
  }
  if (tail) Round(rounds + 1, &model, b);
  _exit(0);
}

TEST_F(BoxTest, ReplayAfterAnyCrashRebuildsTheMetadataOfACheckpointExactly) {
  // What the metadata is after checkpoint r of a run that never crashed
  // (recovered from a run killed right after it).
  std::vector<std::string> reference;
  for (uint32_t r = 0; r <= 6; ++r) {
    const std::string dir = path("clean" + std::to_string(r));
    const qwtest::ChildResult child = qwtest::RunInChild([&] { ReplayWorkload(dir, r, false); });
    ASSERT_TRUE(child.exited && child.exitStatus == 0) << child.out;
    box = BoxLVMOpen(dir.c_str(), 1, 1, 2, 0, 0, nullptr);
    ASSERT_NE(box, nullptr) << QWErrorMessage();
    reference.push_back(MetadataDigest());
    Close(false);
  }
  auto recoveredAs = [&](const std::string &dir) {
    box = BoxLVMOpen(dir.c_str(), 1, 1, 2, 0, 0, nullptr);
    EXPECT_NE(box, nullptr) << QWErrorMessage();
    if (!box) return -1;
    EXPECT_EQ(Check(), kSound);
    const std::string digest = MetadataDigest();
    Close(false);
    for (size_t r = 0; r < reference.size(); ++r)
      if (digest == reference[r]) return int(r);
    return -1;
  };
  // Killed after round 7 (past the last checkpoint): checkpoint 6.
  {
    const qwtest::ChildResult child = qwtest::RunInChild([&] { ReplayWorkload(path("killed"), 6, true); });
    ASSERT_TRUE(child.exited && child.exitStatus == 0) << child.out;
    EXPECT_EQ(recoveredAs(path("killed")), 6);
  }
  // Stopped inside round 5's checkpoint: its record is durable from stop 4.
  for (int stop : {1, 4, 9}) {
    const std::string dir = path("stop" + std::to_string(stop)), name = "lvmcheckpoint" + std::to_string(stop);
    const qwtest::ChildResult child = qwtest::RunInChild([&] {
      ReplayWorkload(dir, 6, true, 5, [&] { qwtest::SetCrashStop(name.c_str(), dir + "/bucket.0/vm"); });
    });
    ASSERT_TRUE(child.exited && child.exitStatus == 1) << name << child.out;
    EXPECT_EQ(recoveredAs(dir), stop >= 4 ? 5 : 4) << name;
  }
  // Power lost at a sync of round 4's checkpoint or later: some checkpoint
  // from the third (the commit) on, never a state between two.
  for (const auto loss : {qw::fault::PowerLoss::Drop, qw::fault::PowerLoss::Garble}) {
    for (uint64_t n : {1u, 2u, 3u, 5u, 8u, 13u}) {
      const std::string dir = path("loss" + std::to_string(n) + (loss == qw::fault::PowerLoss::Drop ? "d" : "g"));
      const qwtest::ChildResult child =
          qwtest::RunInChild([&] { ReplayWorkload(dir, 6, true, 4, [&] { qw::fault::CrashAtSync(n, loss, n); }); });
      ASSERT_TRUE(child.exited && (child.exitStatus == 1 || child.exitStatus == 0)) << child.out;
      const int recovered = recoveredAs(dir);
      EXPECT_GE(recovered, 3) << dir;
      qw::fault::Disable();
    }
  }
}

TEST_F(BoxTest, AFailedDataWritePutsOnlyItsBucketInError) {
  ASSERT_NO_FATAL_FAILURE(Open(2));
  ASSERT_TRUE(Put(2, "kept"));
  ASSERT_TRUE(BoxLVMCheckpoint(box, 1, nullptr));
  setenv("QWRETURNFALSE", "BoxLVMDataBlockWrite", 1);
  {
    qwtest::MessageCapture messages;
    EXPECT_FALSE(Put(4, "lost"));
    EXPECT_TRUE(messages.contains("failed writing data to disk", QW_LEVEL_WARNING));
  }
  EXPECT_EQ(QWErrorCode(), 6);
  EXPECT_NE(std::string(QWErrorMessage()).find("could not write block to disk : "), std::string::npos);
  EXPECT_NE(std::string(QWErrorMessage()).find("forced error in BoxLVMDataBlockWrite"), std::string::npos);
  unsetenv("QWRETURNFALSE");
  EXPECT_FALSE(Put(6, "refused"));
  EXPECT_STREQ(QWErrorMessage(), "Box is in error, cannot update");
  EXPECT_TRUE(Put(3, "odd bucket")) << QWErrorMessage();
  EXPECT_FALSE(BoxLVMCheckpoint(box, 1, nullptr));
  Close(false);
  ASSERT_NO_FATAL_FAILURE(Open(2, 0));
  EXPECT_EQ(Get(2), "kept");
  EXPECT_EQ(Get(4), "<absent>");
  EXPECT_TRUE(Put(6, "accepted")) << QWErrorMessage();
}

TEST_F(BoxTest, RecordPrintersAndTheLogDump) {
  const qwtest::ChildResult printed = qwtest::RunInChild([] {
    const uint8_t update[] = {7, 0, 0, 0, 0x08, 255, 0, 0x59, 0x04};  // id 7, two old blocks, 300 bytes
    BoxOpDebug(update, sizeof update, BOX_UPDATE);
    const uint8_t removal[] = {9, 0, 0, 0, 0x02, 0x00};
    BoxOpDebug(removal, sizeof removal, BOX_UPDATE);
    const uint8_t extend[] = {0, 2, 0, 0};
    BoxOpDebug(extend, sizeof extend, BOX_DATA_EXTEND);
    const uint8_t fp[] = {5, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0};
    BoxOpDebug(fp, sizeof fp, BOX_FP_GET_ID);
    BoxOpDebug(fp + 8, 4, BOX_FP_INC_REF);
    BoxOpDebug(fp + 8, 4, BOX_FP_DEC_REF);
    BoxOpDebug(nullptr, 0, LVM_RECYCLE);
  });
  EXPECT_EQ(printed.out,
            "BoxUpdate id 7, sizeNew = 300, gSizeOldLength = 2, gSizeOld = [ 255 0 ]\n"
            "BoxUpdate id 9, sizeNew = 0, gSizeOldLength = 0\n"
            "BoxDataExtend 512\n"
            "BoxFPGetId 5, 3\n"
            "BoxFPIncRef 3\n"
            "BoxFPDecRef 3\n"
            "LVMRecycle\n");
  ASSERT_NO_FATAL_FAILURE(Open(1));
  ASSERT_TRUE(Put(0, std::string(100, 'a')));
  Close(true);
  const qwtest::ChildResult dump = qwtest::RunInChild([&] { LogDebug((boxDir() + "/bucket.0/log").c_str()); });
  EXPECT_NE(dump.out.find("BoxDataExtend 256\n"), std::string::npos) << dump.out;
  EXPECT_NE(dump.out.find("BoxUpdate id 0, sizeNew = 100, gSizeOldLength = 0\n"), std::string::npos) << dump.out;
}

TEST_F(BoxTest, RawReaderFindsEveryStoredPart) {
  ASSERT_NO_FATAL_FAILURE(Open(1));
  BoxModel model;
  for (uint32_t id = 0; id < 12; ++id) {
    model[id] = Value(id, 1, 1 + id * 1500);
    ASSERT_TRUE(Put(id, model[id]));
  }
  Close(true);
  BoxLVMRawReader *reader = BoxLVMRawReaderNew(boxDir().c_str(), 0);
  ASSERT_NE(reader, nullptr) << QWErrorMessage();
  EXPECT_EQ(BoxLVMRawReaderSize(reader) % BOXLVM_PAGE_SIZE, 0u);
  std::map<uint32_t, std::map<uint32_t, std::string>> parts;
  uint32_t id = 0, part = 0, next = 0, handle = 0, length = 0;
  const uint8_t *data = nullptr;
  while (BoxLVMRawReaderNextExt(reader, &id, &part, &next, &handle, &data, &length))
    parts[id][part] = std::string(data, data + length);
  EXPECT_FALSE(QWErrorIsSet());
  EXPECT_EQ(BoxLVMRawReaderPos(reader), BoxLVMRawReaderSize(reader));
  for (const auto &[key, value] : model) {
    std::string joined;
    for (const auto &[index, bytes] : parts[key]) joined += bytes;
    EXPECT_EQ(joined, value) << key;
  }
  ASSERT_TRUE(BoxLVMRawReaderSeek(reader, 0));
  ASSERT_TRUE(BoxLVMRawReaderNext(reader, &id, &data, &length));
  EXPECT_EQ(id, 0u);
  BoxLVMRawReaderClose(reader);
  EXPECT_EQ(BoxLVMRawReaderNew(path("none").c_str(), 0), nullptr);
  EXPECT_NE(std::string(QWErrorMessage()).find("could not open file for raw reader"), std::string::npos);
}

TEST_F(BoxTest, ConcurrencyOfWritersReadersAndCheckpoints) {
  ASSERT_NO_FATAL_FAILURE(Open(2));
  constexpr uint32_t kWriters = 3, kIds = 60, kRounds = 40;
  std::vector<std::thread> threads;
  for (uint32_t w = 0; w < kWriters; ++w)
    threads.emplace_back([&, w] {
      for (uint32_t r = 1; r <= kRounds; ++r)
        for (uint32_t id = w; id < kIds; id += kWriters) {
          const std::string value = Value(id, r, 1 + (id * r * 37) % 9000);
          ASSERT_TRUE(BoxLVMUpdate(box, id, 0, 0, value.data(), uint32_t(value.size()), nullptr, nullptr))
              << QWErrorMessage();
        }
    });
  threads.emplace_back([&] {
    BoxLVMThreadData *mine = BoxLVMThreadDataNew();
    uint8_t *bytes = nullptr;
    for (uint32_t i = 0; i < 2000; ++i) {
      const uint32_t id = i % kIds;
      if (BoxLVMGet(box, mine, id, &bytes)) {
        // Whatever round it reads, the value is one that was written whole.
        const std::string value(bytes, bytes + ArrayLength(bytes));
        bool known = false;
        for (uint32_t r = 1; r <= kRounds && !known; ++r) known = value == Value(id, r, 1 + (id * r * 37) % 9000);
        ASSERT_TRUE(known) << id;
      } else {
        ASSERT_FALSE(QWErrorIsSet()) << QWErrorMessage();
      }
    }
    ArrayFree(bytes);
    BoxLVMThreadDataFree(mine);
  });
  threads.emplace_back([&] {
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(BoxLVMCheckpoint(box, i % 2, nullptr)) << QWErrorMessage();
  });
  for (auto &t : threads) t.join();
  BoxModel model;
  for (uint32_t id = 0; id < kIds; ++id) model[id] = Value(id, kRounds, 1 + (id * kRounds * 37) % 9000);
  Close(true);
  ASSERT_NO_FATAL_FAILURE(Open(2, 0));
  ASSERT_NO_FATAL_FAILURE(ExpectHolds(model, kIds));
}

// All in bucket 1 of a two-bucket box. Ids 1 and 3 hold one block (handles 0
// and 131), id 5 three (256, 512, 12); id 7 was stored and removed and id 3
// overwritten, so blocks wait for recycling. The rest of page 0 (134 to 255)
// is on the free list of class 121.
class BoxCheckTest : public BoxTest {
 protected:
  void Fill() {
    ASSERT_NO_FATAL_FAILURE(Open(2));
    for (auto [id, size] : std::vector<std::pair<uint32_t, uint32_t>>{{1, 40}, {3, 300}, {5, 20000}, {7, 90}, {3, 50}})
      ASSERT_TRUE(Put(id, std::string(size, char('a' + id))));
    ASSERT_TRUE(BoxLVMRemove(box, 7, nullptr));
  }
  // Overwrites bytes of bucket 1's data file at `handle` (first `at` bytes kept).
  void Damage(uint32_t handle, uint32_t at, const std::vector<uint8_t> &bytes) {
    std::vector<uint8_t> unit(BOXLVM_UNIT_SIZE);
    ASSERT_TRUE(BoxLVMDataBlockRead(Bucket(1).data, handle, BOXLVM_UNIT_SIZE, unit.data()));
    std::copy(bytes.begin(), bytes.end(), unit.begin() + at);
    ASSERT_TRUE(BoxLVMDataBlockWrite(Bucket(1).data, handle, BOXLVM_UNIT_SIZE, unit.data()));
  }
};

TEST_F(BoxCheckTest, ACleanBoxHasNoFault) {
  ASSERT_NO_FATAL_FAILURE(Fill());
  EXPECT_EQ(Check(), kSound);
  ASSERT_TRUE(BoxLVMCheckpoint(box, 1, nullptr));
  Close(false);
  ASSERT_NO_FATAL_FAILURE(Open(2, 0, 1));
  EXPECT_EQ(Check(), kSound);
  BoxLVMBucketStat stat;
  ASSERT_TRUE(BoxLVMBucketStatGet(box, 1, &stat));
  EXPECT_EQ(stat.entries, 3u);  // 1, 3, 5
  EXPECT_EQ(stat.fileBytes, stat.totalUnits * BOXLVM_UNIT_SIZE);
  // Three pages used; in blocks: id 1 (2 units), id 3 (3), id 5 (256, 256,
  // 115); the rest is free.
  EXPECT_EQ(stat.usedUnits, 3 * 256u);
  EXPECT_EQ(stat.usedUnits - stat.freeUnits, 2 + 3 + 2 * 256u + 115);
  EXPECT_EQ(BoxLVMBucketStatGet(box, 2, &stat), 0);
}

TEST_F(BoxCheckTest, EachDamageGivesTheFaultThatNamesIt) {
  BoxLVMMetadata *meta = nullptr;  // bucket 1's, set for each case
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { Damage(Handles(1)[0], 25, {0x55}); },
       "bucket 1: id 1: part 0 at handle 0: BoxLVMDataBlockReadDecode: wrong checksum at handle 0"},
      {[&] { Damage(Handles(3)[0], 0, std::vector<uint8_t>(20, 0)); },
       "bucket 1: id 3: part 0 at handle 131: BoxLVMDataBlockReadDecode: impossible size 0 or id 0"},
      {[&] { ASSERT_TRUE(qw::box::ParamSet(Bucket(1), BOXLVM_PARAM_ENTRIES, 4)); },
       "bucket 1: params[2] counts 4 entries but 3 are mapped"},
      {[&] { ASSERT_TRUE(qw::olib::CellAppend(meta->freeList[0], Handles(1)[0])); },
       "bucket 1: handle 0 is in both part 0 of id 1 and the free list of class 0"},
      {[&] { ASSERT_TRUE(qw::olib::CellAppend(meta->secMappingFreeList, 0u)); },
       "bucket 1: secondary id 0 is used by id 5 and also on secMappingFreeList"},
      {[&] {
         uint32_t handle = 0;
         ASSERT_TRUE(qw::olib::CellPop(meta->freeList[121], &handle));
       },
       "bucket 1: units 134 to 255 are neither mapped nor free"},
  };
  for (const auto &[damage, fault] : cases) {
    SCOPED_TRACE(fault);
    std::filesystem::remove_all(boxDir());
    ASSERT_NO_FATAL_FAILURE(Fill());
    ASSERT_TRUE(BoxLVMCheckpoint(box, 1, nullptr));  // recycle: the lists hold what was freed
    meta = &Bucket(1).meta;
    ASSERT_NO_FATAL_FAILURE(damage());
    EXPECT_EQ(Check(), std::vector<std::string>{fault});
    Close(false);
  }
}

}  // namespace
