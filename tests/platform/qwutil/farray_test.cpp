// FArray core: growth, element access, ranges and walks against a std::vector model; allocator calls; argument checks.
#include <algorithm>
#include <cstring>

#include "platform/checks.h"

namespace {

// Frees the array at scope exit so that a failing assertion does not leak.
struct ScopedFArray {
  FArray array{};
  ~ScopedFArray() { EXPECT_EQ(FArrayFree(&array), 1); }
};

uint64_t ElementAt(const FArray *array, uint64_t index) {
  uint64_t value = 0;
  std::memcpy(&value, FArrayNth(array, index), array->elementSize);
  return value;
}

TEST(FArray, InitRejectsBadGeometryAndClearKeepsItUsable) {
  const struct {
    uint32_t elementSize, chunkEntries;
    bool ok;
  } cases[] = {{8, 256, true}, {1, 1, true}, {8192, 8, true}, {0, 256, false}, {4, 0, false}, {4, 3, false}, {4, 384, false}};
  for (const auto &c : cases) {
    FArray array;
    std::memset(&array, 0xA5, sizeof array);
    QWErrorClear();
    EXPECT_EQ(FArrayInit_(&array, c.elementSize, c.chunkEntries, nullptr), c.ok ? 1 : 0)
        << c.elementSize << " x " << c.chunkEntries;
    EXPECT_EQ(c.ok ? FArrayLength(&array) + FArrayCapacity(&array) : array.initialised, 0u);
    EXPECT_EQ(c.ok ? FArrayFree(&array) : QWErrorCode(), c.ok ? 1 : 22);
  }
  FArrayAllocator incomplete{};
  FArray array{};
  EXPECT_TRUE(qwtest::Fails(FArrayInit_(&array, 4, 16, &incomplete), 22));
  // Free and clear of a zeroed array are no-ops; a cleared array stays usable.
  EXPECT_EQ(FArrayFree(&array) + FArrayClear(&array), 2);
  ASSERT_EQ(FArrayInit_(&array, 4, 4, nullptr), 1);
  ASSERT_EQ(FArrayLengthSet_(&array, 9), 1);
  EXPECT_EQ(FArrayClear(&array), 1);
  EXPECT_EQ(FArrayLength(&array) + FArrayCapacity(&array), 0u);
  EXPECT_EQ(array.initialised, 1u);
  ASSERT_EQ(FArrayAdd_(&array, 1, nullptr), 1);
  EXPECT_EQ(ElementAt(&array, 0), 0u);
  EXPECT_TRUE(FArrayFree(&array) && array.initialised == 0u);
  EXPECT_EQ(FArrayFree(&array), 1);
}

// Random appends, truncations, regrowth and writes for several geometries, checked against a vector after every step:
// growth zero-fills even where a chunk held old values, and addresses never move.
TEST(FArray, RandomOperationsMatchVectorModel) {
  for (const auto &[elementSize, chunkEntries] : {std::pair{1u, 1u}, {2u, 4u}, {4u, 256u}, {8u, 8u}, {8u, 64u}}) {
    SCOPED_TRACE(testing::Message() << elementSize << " x " << chunkEntries);
    std::mt19937_64 random(42 + elementSize * 1000 + chunkEntries);
    const uint64_t valueMask = elementSize == 8 ? ~0ull : (1ull << (8 * elementSize)) - 1;
    ScopedFArray holder;
    FArray *array = &holder.array;
    ASSERT_EQ(FArrayInit_(array, elementSize, chunkEntries, nullptr), 1);
    std::vector<uint64_t> model;
    std::vector<std::pair<uint64_t, void *>> addresses;  // index -> address seen earlier
    for (int step = 0; step < 3000; ++step) {
      const uint64_t action = random() % 5;
      if (action == 0) {  // append
        const uint64_t count = random() % (3 * chunkEntries + 2);
        uint64_t first = 12345;
        ASSERT_EQ(FArrayAdd_(array, count, &first), 1);
        EXPECT_EQ(first, model.size());
        model.resize(model.size() + count, 0);
      } else if (action == 1) {  // set length, mostly shrinking
        const uint64_t length = random() % (model.size() + 10);
        ASSERT_EQ(FArrayLengthSet_(array, length), 1);
        model.resize(length, 0);
      } else if (action < 4) {  // write some elements
        for (int k = 0; k < 10 && !model.empty(); ++k) {
          const uint64_t index = random() % model.size(), value = random() & valueMask;
          std::memcpy(FArrayNth(array, index), &value, elementSize);
          model[index] = value;
          if (addresses.size() < 64) addresses.emplace_back(index, FArrayNth(array, index));
        }
      } else {  // capacity never loses elements
        ASSERT_EQ(FArrayEnsureCapacity_(array, model.size() + random() % 100), 1);
      }
      ASSERT_EQ(FArrayLength(array), model.size());
      for (uint64_t i = 0; i < model.size(); ++i) ASSERT_EQ(ElementAt(array, i), model[i]) << "index " << i;
      ASSERT_GE(FArrayCapacity(array), model.size());
      EXPECT_EQ(FArrayCapacity(array) % chunkEntries, 0u);
    }
    for (const auto &[index, address] : addresses)
      EXPECT_TRUE(index >= FArrayLength(array) || FArrayNth(array, index) == address) << index;
  }
}

struct Piece {
  uint64_t first;
  uint32_t n;
  void *elements;
};

struct ExecRecorder {
  std::vector<Piece> pieces;
  size_t stopAfter = SIZE_MAX;
};

int RecordPiece(void *context, void *elements, uint32_t n, uint64_t firstIndex) {
  auto *recorder = static_cast<ExecRecorder *>(context);
  recorder->pieces.push_back({firstIndex, n, elements});
  return recorder->pieces.size() < recorder->stopAfter ? 1 : 0;
}

// Ranges and walks across chunk boundaries: every piece is the right slice of one chunk, pieces tile the range exactly,
// and a walk stops at the first zero from its callback.
TEST(FArray, RangeAndExecAcrossChunkBoundaries) {
  ScopedFArray holder;
  FArray *array = &holder.array;
  ASSERT_EQ(FArrayInit_(array, 4, 8, nullptr), 1);
  ASSERT_EQ(FArrayAdd_(array, 37, nullptr), 1);
  for (uint32_t i = 0; i < 37; ++i) *static_cast<uint32_t *>(FArrayNth(array, i)) = i * 3;
  const struct {
    uint64_t start, count;
    uint32_t available;
  } ranges[] = {{0, 37, 8}, {0, 3, 3}, {5, 10, 3}, {7, 1, 1}, {8, 30 - 1, 8}, {36, 1, 1}, {33, 4, 4}};
  for (const auto &r : ranges) {
    uint32_t available = 0;
    auto *p = static_cast<uint32_t *>(FArrayRange_(array, r.start, r.count, &available));
    EXPECT_EQ(available, r.available) << r.start << "+" << r.count;
    for (uint32_t k = 0; k < available; ++k) EXPECT_EQ(p[k], (r.start + k) * 3);
  }
  for (uint64_t start = 0; start <= 37; ++start) {
    for (uint64_t count = 0; start + count <= 37; count += 3) {
      ExecRecorder recorder;
      ASSERT_EQ(FArrayExec_(array, start, count, RecordPiece, &recorder), 1);
      uint64_t next = start;
      for (const Piece &piece : recorder.pieces) {
        EXPECT_EQ(piece.first, next);
        EXPECT_GE(piece.n, 1u);
        EXPECT_LE(piece.first % 8 + piece.n, 8u) << "a piece crosses a chunk";
        EXPECT_EQ(piece.elements, FArrayNth(array, piece.first));
        next += piece.n;
      }
      EXPECT_EQ(next, start + count);
    }
  }
  ExecRecorder stopping{{}, 2};
  EXPECT_EQ(FArrayExec_(array, 3, 30, RecordPiece, &stopping), 0);
  ASSERT_EQ(stopping.pieces.size(), 2u);
  EXPECT_EQ(std::vector<uint64_t>({stopping.pieces[0].first, stopping.pieces[0].n, stopping.pieces[1].first}),
            std::vector<uint64_t>({3, 5, 8}));
}

// A caller's allocator: one allocate per chunk, every chunk released at free with its size, and a failing allocation
// leaves the array as it was.
struct CountingAllocator {
  int allocations = 0, releases = 0;
  int failAt = -1, failRelease = -1;  // the allocation or release that fails
  bool fillGarbage = false;
  std::vector<void *> live;
  size_t lastBytes = 0;
};

void *CountingAllocate(void *context, size_t bytes) {
  auto *a = static_cast<CountingAllocator *>(context);
  if (a->allocations++ == a->failAt) {
    QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "test allocator refuses");
    return nullptr;
  }
  a->lastBytes = bytes;
  a->live.push_back(::operator new(bytes));
  return std::memset(a->live.back(), a->fillGarbage ? 0xEE : 0, bytes);
}

int CountingRelease(void *context, void *chunk, size_t bytes) {
  auto *a = static_cast<CountingAllocator *>(context);
  EXPECT_EQ(bytes, a->lastBytes);
  auto it = std::find(a->live.begin(), a->live.end(), chunk);
  EXPECT_NE(it, a->live.end()) << "released a chunk that was not allocated";
  if (it != a->live.end()) a->live.erase(it);
  ::operator delete(chunk);
  return a->releases++ == a->failRelease ? QWErrorThrow(5, QW_ERROR_CLASS_SYSTEM, "test release fails") : 1;
}

TEST(FArray, CustomAllocatorCalledPerChunk) {
  for (bool zeroed : {true, false}) {
    SCOPED_TRACE(zeroed ? "zeroed allocator" : "garbage allocator");
    CountingAllocator counter;
    counter.fillGarbage = !zeroed;
    const FArrayAllocator allocator{CountingAllocate, CountingRelease, &counter, zeroed ? FARRAY_ALLOCATOR_ZEROED : 0u};
    FArray array;
    ASSERT_EQ(FArrayInit_(&array, 8192, 8, &allocator), 1);
    for (const auto &[add, allocations] : {std::pair{1, 1}, {7, 1}, {1, 2}}) {
      ASSERT_EQ(FArrayAdd_(&array, add, nullptr), 1);
      EXPECT_EQ(counter.allocations, allocations);
    }
    EXPECT_EQ(counter.lastBytes, 65536u);
    // Elements read as zero whatever the allocator returned.
    for (uint64_t i = 0; i < FArrayLength(&array); ++i) {
      const auto *bytes = static_cast<const unsigned char *>(FArrayNth(&array, i));
      EXPECT_EQ(std::count(bytes, bytes + 8192, 0), 8192) << "element " << i;
    }
    // Dirty an element, shrink, regrow: it must come back zeroed.
    std::memset(FArrayNth(&array, 5), 0x77, 8192);
    ASSERT_EQ(FArrayLengthSet_(&array, 2), 1);
    ASSERT_EQ(FArrayLengthSet_(&array, 9), 1);
    EXPECT_EQ(static_cast<unsigned char *>(FArrayNth(&array, 5))[100], 0);
    EXPECT_EQ(counter.allocations, 2);
    ASSERT_EQ(FArrayEnsureCapacity_(&array, 8 * 5), 1);
    EXPECT_TRUE(counter.allocations == 5 && FArrayLength(&array) == 9u);
    EXPECT_TRUE(FArrayFree(&array) && counter.releases == 5 && counter.live.empty());
  }
}

TEST(FArray, AllocatorFailuresAreReported) {
  CountingAllocator counter;
  counter.failAt = 2;
  const FArrayAllocator allocator{CountingAllocate, CountingRelease, &counter, FARRAY_ALLOCATOR_ZEROED};
  FArray array;
  ASSERT_EQ(FArrayInit_(&array, 4, 4, &allocator), 1);
  ASSERT_EQ(FArrayAdd_(&array, 6, nullptr), 1);
  uint64_t first = 99;
  EXPECT_TRUE(qwtest::Fails(FArrayAdd_(&array, 10, &first), 12, "test allocator refuses"));
  EXPECT_TRUE(first == 99u && FArrayLength(&array) == 6u);  // unchanged on failure
  counter.failAt = counter.allocations + 3;  // fails part-way through the growth
  EXPECT_EQ(FArrayLengthSet_(&array, 100), 0);
  EXPECT_EQ(FArrayLength(&array), 6u);
  EXPECT_TRUE(FArrayAdd_(&array, 10, &first) && first == 6u);  // the allocator recovers
  // A failing release is reported, yet every chunk is released.
  counter.failRelease = 0;
  const int chunks = int(counter.live.size());
  EXPECT_EQ(uint64_t(chunks), array.chunkCount);
  EXPECT_TRUE(qwtest::Fails(FArrayFree(&array), 5));
  EXPECT_TRUE(counter.releases == chunks && counter.live.empty() && array.initialised == 0u);
  // A capacity or length beyond what can be addressed fails cleanly.
  ScopedFArray holder;
  ASSERT_EQ(FArrayInit_(&holder.array, 8, 256, nullptr), 1);
  EXPECT_TRUE(qwtest::Fails(FArrayEnsureCapacity_(&holder.array, UINT64_MAX / 4), 12));
  EXPECT_TRUE(!FArrayAdd_(&holder.array, UINT64_MAX, nullptr) && FArrayLength(&holder.array) == 0u);
}

TEST(FArrayDeathTest, OutOfRangeAccessAsserts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ScopedFArray holder;
  ASSERT_EQ(FArrayInit_(&holder.array, 4, 8, nullptr), 1);
  ASSERT_EQ(FArrayAdd_(&holder.array, 10, nullptr), 1);
  uint32_t available = 0;
  EXPECT_DEATH(FArrayNth(&holder.array, 10), "index < array->length");
  EXPECT_DEATH(FArrayRange_(&holder.array, 8, 3, &available), "count <= array->length - start");
  EXPECT_DEATH(FArrayExec_(&holder.array, 11, 0, RecordPiece, nullptr), "start <= array->length");
}

}  // namespace
