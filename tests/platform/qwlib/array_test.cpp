// Growable arrays against a std::vector model, allocation and sorting.
#include <algorithm>

#include "support/test_support.h"

namespace {

// Appends, shrinking and regrowing (old elements come back zeroed) and growth, checked against a vector.
TEST(GrowableArray, RandomOperationsMatchVector) {
  uint32_t *values = nullptr;
  EXPECT_EQ(ArrayLength(values) + ArrayCapacity(values), 0u);  // a null array is empty
  ArrayFree(values);
  std::mt19937 random(12345);
  std::vector<uint32_t> model;
  ASSERT_TRUE(ArrayInit(values, sizeof(uint32_t), 1));
  EXPECT_EQ(ArrayLength(values), 0u);
  for (int step = 0; step < 20000; ++step) {
    const uint32_t action = random() % 4, value = random();
    if (action < 2) {
      ASSERT_TRUE(ArrayAppend(values, value));
      model.push_back(value);
    } else if (action == 2) {
      ASSERT_TRUE(ArrayLengthSet(values, value % (model.size() + 20)));
      model.resize(value % (model.size() + 20), 0);
    } else {
      ASSERT_TRUE(ArrayGrow(values, value % 7));
      model.resize(model.size() + value % 7, 0);
    }
    ASSERT_GE(ArrayCapacity(values), ArrayLength(values));
    ASSERT_EQ(std::vector<uint32_t>(values, values + ArrayLength(values)), model) << "step " << step;
  }
  ASSERT_FALSE(model.empty());
  EXPECT_EQ(ArrayNth(values, model.size() / 2), model[model.size() / 2]);
  EXPECT_EQ(ArrayLast(values), model.back());
  ArrayFree(values);
  EXPECT_EQ(values, nullptr);
  ArrayFree(values);
}

TEST(GrowableArray, GrowExactAlignmentAndImpossibleSizes) {
  uint64_t *values = nullptr;
  ASSERT_TRUE(ArrayInit(values, sizeof(uint64_t), 2));
  ASSERT_TRUE(ArrayGrowExact(values, 5));
  EXPECT_EQ(ArrayLength(values), 5u);
  EXPECT_EQ(ArrayCapacity(values), 5u);
  EXPECT_EQ(ArrayElementSize_(values), sizeof(uint64_t));
  values[0] = 42;
  EXPECT_FALSE(ArrayEnsureCapacity(values, SIZE_MAX / 4));  // fails and keeps the array
  EXPECT_EQ(QWErrorCode(), 12);
  EXPECT_EQ(ArrayLength(values), 5u);
  EXPECT_EQ(values[0], 42u);
  QWErrorClear();
  ArrayFree(values);
  long double *wide = nullptr;  // elements keep sixteen-byte alignment
  ASSERT_TRUE(ArrayInit(wide, sizeof(long double), 3));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(wide) % 16, 0u);
  ArrayFree(wide);
}

TEST(Allocation, ZeroFilledStrdupAndSortWithContext) {
  auto *bytes = static_cast<unsigned char *>(Allocate(64));
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(std::count(bytes, bytes + 64, 0), 64);
  UnAllocate(bytes);
  char *copy = Strdup("arena.new");
  EXPECT_STREQ(copy, "arena.new");
  UnAllocate(copy);
  std::vector<uint32_t> ids = {5, 1, 9, 3, 7};
  std::vector<uint32_t> rank = {0, 40, 0, 10, 0, 50, 0, 30, 0, 20};  // sort by rank[id], descending
  QSort(ids.data(), ids.size(), sizeof(uint32_t),
        [](const void *a, const void *b, void *context) {
          auto &r = *static_cast<std::vector<uint32_t> *>(context);
          uint32_t ra = r[*static_cast<const uint32_t *>(a)], rb = r[*static_cast<const uint32_t *>(b)];
          return ra < rb ? 1 : ra > rb ? -1 : 0;
        },
        &rank);
  EXPECT_EQ(ids, (std::vector<uint32_t>{5, 1, 7, 9, 3}));
}

}  // namespace
