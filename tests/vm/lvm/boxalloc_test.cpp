// Box bucket records and block allocation: exact record bytes and malformed
// records, part sizing, hand-worked allocation steps and their failures, and
// a random workload whose space stays exactly covered and whose replay picks
// the same blocks.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "vm/lvm/boxalloc.h"
#include "vm/lvm/boxrecord.h"

namespace {

using namespace qw::box;
using Bytes = std::vector<uint8_t>;

TEST(BoxRecordTest, UpdatesAndExtensionsHaveTheirExactBytes) {
  const struct {
    BoxUpdate update;
    Bytes bytes;
  } cases[] = {
      {{0x01020304, false, {255, 0}, 300}, {4, 3, 2, 1, 0x08, 255, 0, 0x59, 0x04}},
      {{7, true, {3}, 0}, {7, 0, 0, 0, 0x06, 3, 0x00}},
      {{9, false, Bytes(100, 1), 0xFFFFFFFF}, {9, 0, 0, 0, 0x91, 0x02}},  // then 100 classes, then the size
  };
  for (const auto &c : cases) {
    Bytes out;
    EncodeBoxUpdate(c.update, &out);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + std::min(out.size(), c.bytes.size())), c.bytes);
    BoxUpdate back;
    ASSERT_TRUE(DecodeBoxUpdate(out.data(), out.size(), &back)) << QWErrorMessage();
    EXPECT_EQ(std::tuple(back.id, back.remove, back.oldClasses, back.sizeNew),
              std::tuple(c.update.id, c.update.remove, c.update.oldClasses, c.update.sizeNew));
  }
  Bytes out;
  EncodeBoxUpdate(cases[2].update, &out);
  EXPECT_EQ(Bytes(out.begin() + 106, out.end()), Bytes({0xFF, 0xFF, 0xFF, 0xFF, 0x1E}));
  // (The printed texts: box_test's record printers.)
  std::string text;
  EncodeBoxDataExtend(512, &out);
  EXPECT_EQ(out, Bytes({0, 2, 0, 0}));
  EXPECT_EQ(FormatBoxRecord(16, out.data(), 3, &text), 0);
  const std::pair<Bytes, std::string> malformed[] = {
      {{1, 0, 0}, "no entry id"},
      {{1, 0, 0, 0, 0x01}, "bad old block count"},
      {{1, 0, 0, 0, 0x08, 1}, "old block classes cut short"},
      {{1, 0, 0, 0, 0x02, 1}, "bad new size"},
      {{1, 0, 0, 0, 0x02, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0x1F}, "bad new size"},  // 2^32
      {{1, 0, 0, 0, 0x02, 1, 0x00, 0x00}, "trailing bytes"},
      {{1, 0, 0, 0, 0x06, 1, 0x02}, "a removal with a new size"},
  };
  for (const auto &[bytes, reason] : malformed) {
    BoxUpdate update;
    EXPECT_FALSE(DecodeBoxUpdate(bytes.data(), bytes.size(), &update));
    EXPECT_EQ(QWErrorCode(), 4);
    EXPECT_EQ(std::string(QWErrorMessage()), "malformed BOX_UPDATE record: " + reason);
  }
  uint32_t units = 0;
  EXPECT_FALSE(DecodeBoxDataExtend(Bytes({1, 2, 0, 0}).data(), 4, &units));  // not whole pages
  EXPECT_FALSE(DecodeBoxDataExtend(Bytes({0, 2, 0}).data(), 3, &units));
}

TEST(BoxRecordTest, ValuesAreCutIntoPartsWithTheirClasses) {
  const std::map<uint64_t, Bytes> cases = {
      {0, {}}, {1, {0}}, {12, {0}}, {13, {1}}, {8172, {255}}, {8173, {255, 0}}, {16344, {255, 255}}, {16357, {255, 255, 1}}};
  for (const auto &[size, classes] : cases) {
    Bytes got;
    for (uint32_t part = 0; part < PartCount(size); ++part) got.push_back(uint8_t(PartClass(size, part)));
    EXPECT_EQ(got, classes) << size;
  }
}

// Free lists and params in memory; growths add `growBy` pages and are logged
// to `extensions`.
struct MemorySpace : BlockSpace {
  std::vector<uint32_t> lists[BOXLVM_SIZE_CLASSES];
  uint32_t params[3] = {};
  int growBy = 2;  // pages added by a growth; -1: the growth fails
  std::vector<uint32_t> extensions;
  bool FreeListPop(uint32_t c, uint32_t *h) override {
    *h = lists[c].empty() ? BOXLVM_NO_HANDLE : lists[c].back();
    if (!lists[c].empty()) lists[c].pop_back();
    return true;
  }
  bool FreeListPush(uint32_t c, uint32_t h) override { return lists[c].push_back(h), true; }
  bool ParamGet(uint32_t i, uint32_t *v) override { return *v = params[i], true; }
  bool ParamSet(uint32_t i, uint32_t v) override { return params[i] = v, true; }
  bool GrowDataFile(uint32_t pages, uint32_t *newPages) override {
    *newPages = pages + uint32_t(std::max(growBy, 0));
    return growBy >= 0 || QWErrorThrow(28, QW_ERROR_CLASS_SYSTEM, "disk full");
  }
  bool LogExtension(uint32_t units) override { return extensions.push_back(units), true; }
  bool operator==(const MemorySpace &o) const {
    return std::equal(std::begin(lists), std::end(lists), std::begin(o.lists)) &&
           std::equal(params, params + 3, o.params);
  }
};

TEST(BoxAllocTest, BlocksComeFromTheSmallestFittingListThenFromFreshPages) {
  MemorySpace space;
  // (class, handle): fresh page 0 (the file grows to 2 pages), units 1..255
  // to class 254; a split of it, units 2..255 to class 253; fresh page 1,
  // whole; a split of class 253, units 5..255 to class 250; growth again.
  uint32_t handle = 0;
  for (const auto &[sizeClass, expected] : {std::pair(0u, 0u), {0u, 1u}, {255u, 256u}, {2u, 2u}, {255u, 512u}}) {
    ASSERT_TRUE(AllocateBlock(space, sizeClass, false, &handle)) << QWErrorMessage();
    EXPECT_EQ(handle, expected);
  }
  EXPECT_EQ(space.extensions, std::vector<uint32_t>({512, 1024}));
  EXPECT_EQ(space.lists[250], std::vector<uint32_t>({5}));
  EXPECT_EQ(std::vector<uint32_t>(space.params, space.params + 2), std::vector<uint32_t>({768, 1024}));
  // Last in, first out within a class.
  space.lists[3] = {40, 80};
  ASSERT_TRUE(AllocateBlock(space, 3, false, &handle));
  EXPECT_EQ(handle, 80u);
  // Out of room: replay expects the growth record first; a file that cannot
  // grow, or grows too little, fails the allocation.
  space.params[0] = 1024;
  qwtest::MessageCapture messages;
  const std::tuple<bool, int, int, std::string> failures[] = {  // replaying, growBy, code, chain
      {true, 2, 5, "data file not extended yet. Total 1024, lastUsed 1024"},
      {false, -1, 28, "disk full"},
      {false, 0, 2, "After extension, still do not have enough space"},
  };
  for (const auto &[replaying, growBy, code, chain] : failures) {
    space.growBy = growBy;
    EXPECT_FALSE(AllocateBlock(space, 255, replaying, &handle));
    EXPECT_EQ(QWErrorCode(), code);
    EXPECT_EQ(std::string(QWErrorMessage()), chain + "\nfatal error while allocating new block");
  }
  EXPECT_TRUE(messages.contains("BoxLVMExtendData failed", QW_LEVEL_WARNING));
}

// Random updates, removals and checkpoints. After each step every unit below
// params[0] is in exactly one live block, free list entry or block freed since
// the checkpoint; replaying the run's records with `replaying` set picks the
// same blocks and ends in the same space.
TEST(BoxAllocTest, RandomWorkKeepsTheSpaceCoveredAndReplaysToTheSameBlocks) {
  struct Event {
    int kind;        // 0 update or removal, 1 growth record, 2 checkpoint
    uint64_t value;  // update: the new size (0: removal); growth: total units
    std::vector<uint32_t> freed, handles;
    Bytes freedClasses;
  };
  MemorySpace space;
  RecycleLists recycle;
  std::vector<Event> log;
  std::vector<std::pair<uint32_t, uint32_t>> pending;  // freed since the checkpoint: handle, class
  std::map<uint32_t, std::pair<std::vector<uint32_t>, Bytes>> live;  // id -> handles, classes
  std::mt19937 random(17);
  auto apply = [](MemorySpace &at, RecycleLists &lists, Event &e, bool replaying) {
    for (size_t i = 0; i < e.freed.size(); ++i) ASSERT_TRUE(lists.Free(e.freedClasses[i], e.freed[i]));
    Bytes classes;
    ASSERT_TRUE(AllocateEntry(at, e.value, replaying, &e.handles, &classes)) << QWErrorMessage();
  };
  for (int step = 0; step < 3000; ++step) {
    const uint32_t id = random() % 200;
    Event event{0, random() % 4 == 0 ? 0 : random() % 3 == 0 ? random() % 30000 + 1 : random() % 600 + 1, {}, {}, {}};
    std::tie(event.freed, event.freedClasses) = live[id];
    for (size_t i = 0; i < event.freed.size(); ++i) pending.emplace_back(event.freed[i], event.freedClasses[i]);
    const size_t grown = space.extensions.size();
    apply(space, recycle, event, false);
    for (size_t i = grown; i < space.extensions.size(); ++i) log.push_back({1, space.extensions[i], {}, {}, {}});
    log.push_back(event);
    live[id] = {event.handles, {}};
    for (uint32_t part = 0; part < event.handles.size(); ++part) live[id].second.push_back(PartClass(event.value, part));
    if (random() % 50 == 0) {
      recycle.SetAside();
      ASSERT_TRUE(recycle.Recycle(space));
      pending.clear();
      log.push_back({2, 0, {}, {}, {}});
    }
    std::vector<int> owner(space.params[0], 0);
    auto cover = [&](uint32_t h, uint32_t c) {
      ASSERT_LE(h % 256 + c + 1, 256u) << "crosses a page";
      for (uint32_t u = h; u <= h + c; ++u) ++owner.at(u);
    };
    for (const auto &[entry, blocks] : live)
      for (size_t i = 0; i < blocks.first.size(); ++i) cover(blocks.first[i], blocks.second[i]);
    for (uint32_t c = 0; c < 256; ++c)
      for (uint32_t h : space.lists[c]) cover(h, c);
    for (const auto &[h, c] : pending) cover(h, c);
    ASSERT_EQ(std::count(owner.begin(), owner.end(), 1), long(owner.size())) << "step " << step;
  }
  MemorySpace replayed;
  RecycleLists replayLists;
  for (const Event &original : log) {
    Event e = original;
    if (e.kind == 1) replayed.params[kParamTotalUnits] = uint32_t(e.value);
    if (e.kind == 2) {
      replayLists.SetAside();
      ASSERT_TRUE(replayLists.Recycle(replayed));
    }
    if (e.kind != 0) continue;
    apply(replayed, replayLists, e, true);
    ASSERT_EQ(e.handles, original.handles);
  }
  EXPECT_TRUE(replayed == space);
  EXPECT_GT(space.extensions.size(), 3u);
}

}  // namespace
