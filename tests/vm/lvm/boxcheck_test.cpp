// The box check: a clean box (with blocks waiting in the recycle lists, and
// after a reopen) has no fault; each kind of damage gives the fault that
// names it, and only that one.
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "vm/lvm/box_internal.h"
#include "vm/olib/common/cells.h"

namespace {

class BoxCheckTest : public qwtest::TempDirTest {
 public:  // the damage table's lambdas reach in
  void TearDown() override {
    if (box) {
      EXPECT_TRUE(BoxLVMClose(box, 0));
    }
    TempDirTest::TearDown();
  }
  void Open() {
    box = BoxLVMOpen(path("box").c_str(), 2, 1, 1, 1, 0, nullptr);
    ASSERT_NE(box, nullptr) << QWErrorMessage();
  }
  // All in bucket 1. Ids 1 and 3 hold one block (handles 0 and 131), id 5
  // three (256, 512, 12); id 7 was stored and removed and id 3 overwritten,
  // so blocks wait for recycling. The rest of page 0 (134 to 255) is on the
  // free list of class 121.
  void Fill() {
    for (auto [id, size] : std::vector<std::pair<uint32_t, uint32_t>>{{1, 40}, {3, 300}, {5, 20000}, {7, 90}, {3, 50}})
      ASSERT_TRUE(BoxLVMUpdate(box, id, 0, 0, std::string(size, char('a' + id)).data(), size, nullptr, nullptr));
    ASSERT_TRUE(BoxLVMRemove(box, 7, nullptr));
  }
  std::vector<std::string> Check() {
    std::vector<std::string> lines;
    uint64_t faults = 99;
    EXPECT_TRUE(BoxLVMCheck(
        box, [](void *context, uint32_t, const char *line) { static_cast<std::vector<std::string> *>(context)->push_back(line); },
        &lines, &faults));
    EXPECT_EQ(faults, lines.size());
    return lines;
  }
  BoxLVMBucket &Bucket() { return *box->buckets[1]; }
  uint32_t HandleOf(uint32_t id) {
    std::vector<uint32_t> handles;
    bool found = false;
    EXPECT_TRUE(qw::box::BoxLVMBucketHandleGet(Bucket(), id / 2, &handles, &found));
    return handles.at(0);
  }
  // Overwrites bytes of the data file at `handle` (first `at` bytes kept).
  void Damage(uint32_t handle, uint32_t at, const std::vector<uint8_t> &bytes) {
    std::vector<uint8_t> unit(BOXLVM_UNIT_SIZE);
    ASSERT_TRUE(BoxLVMDataBlockRead(Bucket().data, handle, BOXLVM_UNIT_SIZE, unit.data()));
    for (size_t i = 0; i < bytes.size(); ++i) unit[at + i] = bytes[i];
    ASSERT_TRUE(BoxLVMDataBlockWrite(Bucket().data, handle, BOXLVM_UNIT_SIZE, unit.data()));
  }

  BoxLVM *box = nullptr;
};

TEST_F(BoxCheckTest, ACleanBoxHasNoFault) {
  ASSERT_NO_FATAL_FAILURE(Open());
  ASSERT_NO_FATAL_FAILURE(Fill());
  EXPECT_EQ(Check(), std::vector<std::string>{});
  ASSERT_TRUE(BoxLVMCheckpoint(box, 1, nullptr));
  ASSERT_TRUE(BoxLVMClose(box, 0));
  box = BoxLVMOpen(path("box").c_str(), 2, 1, 1, 0, 1, nullptr);
  ASSERT_NE(box, nullptr) << QWErrorMessage();
  EXPECT_EQ(Check(), std::vector<std::string>{});
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
  using Change = std::function<void(BoxCheckTest &)>;
  struct Case {
    const char *name;
    Change damage;
    std::string fault;
  };
  const Case cases[] = {
      {"flipped data byte", [](BoxCheckTest &t) { t.Damage(t.HandleOf(1), 25, {0x55}); },
       "bucket 1: id 1: part 0 at handle 0: BoxLVMDataBlockReadDecode: wrong checksum at handle 0"},
      {"zeroed header", [](BoxCheckTest &t) { t.Damage(t.HandleOf(3), 0, std::vector<uint8_t>(20, 0)); },
       "bucket 1: id 3: part 0 at handle 131: BoxLVMDataBlockReadDecode: impossible size 0 or id 0"},
      {"entry count", [](BoxCheckTest &t) { ASSERT_TRUE(qw::box::ParamSet(t.Bucket(), BOXLVM_PARAM_ENTRIES, 4)); },
       "bucket 1: params[2] counts 4 entries but 3 are mapped"},
      {"mapped block on a free list",
       [](BoxCheckTest &t) { ASSERT_TRUE(qw::olib::CellAppend(t.Bucket().meta.freeList[0], t.HandleOf(1))); },
       "bucket 1: handle 0 is in both part 0 of id 1 and the free list of class 0"},
      {"secondary id both used and free",
       [](BoxCheckTest &t) { ASSERT_TRUE(qw::olib::CellAppend(t.Bucket().meta.secMappingFreeList, 0u)); },
       "bucket 1: secondary id 0 is used by id 5 and also on secMappingFreeList"},
      {"free block lost", [](BoxCheckTest &t) {
         uint32_t handle = 0;
         ASSERT_TRUE(qw::olib::CellPop(t.Bucket().meta.freeList[121], &handle));
       },
       "bucket 1: units 134 to 255 are neither mapped nor free"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(path("box"));
    ASSERT_NO_FATAL_FAILURE(Open());
    ASSERT_NO_FATAL_FAILURE(Fill());
    ASSERT_TRUE(BoxLVMCheckpoint(box, 1, nullptr));  // recycle: the lists hold what was freed
    ASSERT_NO_FATAL_FAILURE(c.damage(*this));
    EXPECT_EQ(Check(), std::vector<std::string>{c.fault});
    EXPECT_TRUE(BoxLVMClose(box, 0));
    box = nullptr;
  }
}

}  // namespace
