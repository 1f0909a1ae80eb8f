// Large-element arrays meeting damaged data: each malformed descriptor (or flag) tags the arena and fails reads and
// clears with a data error, freeing no block; assertions for programming errors.
#include "ldbarray_fixture.h"

namespace {

using ldbatest::AllocationOf;
using ldbatest::Pattern;

// 2 full blocks and a 1600-byte remainder (a 1632-byte class: 5 slots in a server block, 3 slot bits).
constexpr uint32_t kLength = 2 * 8192 + 1600;
constexpr uint32_t kLevelOneLength = 511 * 8192;

struct DamageCase {
  const char *name;
  uint32_t length, probe;  // probe: an offset whose block the damage reaches
  std::function<std::string(const std::string &)> damage;  // of the stored descriptor
};

std::string WithTrailer(const std::string &raw, uint64_t trailer) {
  return raw.substr(0, raw.size() - 8) + ldbatest::LDBArrayTest::EncodeId(trailer);
}
uint64_t TrailerOf(const std::string &raw) { return ldbatest::LDBArrayTest::Decode(raw).total * 2; }
std::string WithId(const std::string &raw, size_t k, uint64_t id) {
  std::string out = raw;
  out.replace(8 * k, 8, ldbatest::LDBArrayTest::EncodeId(id));
  return out;
}
uint64_t IdOf(const std::string &raw, size_t k) { return ldbatest::LDBArrayTest::Decode(raw).ids[k]; }

const DamageCase kDamage[] = {
    {"trailer_upper_bits", kLength, 0, [](const std::string &r) { return WithTrailer(r, TrailerOf(r) | (1ull << 40)); }},
    {"total_short_enough_to_be_direct", kLength, 0, [](const std::string &r) { return WithTrailer(r, 4000 * 2); }},
    {"total_longer_than_the_list", kLength, 0, [](const std::string &r) { return WithTrailer(r, TrailerOf(r) + 2 * 8192); }},
    {"list_missing_an_id", kLength, 0, [](const std::string &r) { return r.substr(8); }},
    {"length_not_a_multiple_of_8", kLength, 0, [](const std::string &r) { return r + "x"; }},
    {"too_short_for_a_trailer", kLength, 0, [](const std::string &) { return std::string("abc"); }},
    {"level_one_with_a_short_list", kLength, 0, [](const std::string &r) { return WithTrailer(r, TrailerOf(r) | 1); }},
    {"level_bit_cleared", kLevelOneLength, 0, [](const std::string &r) { return WithTrailer(r, TrailerOf(r)); }},
    {"full_and_remainder_swapped", kLength, 0,
     [](const std::string &r) { return WithId(WithId(r, 0, IdOf(r, 2)), 2, IdOf(r, 0)); }},
    {"slot_beyond_its_server_block", kLength, kLength - 1, [](const std::string &r) { return WithId(r, 2, IdOf(r, 2) | (7u << 4)); }},
    {"invalid_block_id", kLength, 8192, [](const std::string &r) { return WithId(r, 1, INVALID_VMARENA_BLOCK_ID); }},
    {"list_block_of_the_wrong_size", kLevelOneLength, 0,
     [](const std::string &r) { return WithId(r, 0, IdOf(r, 0) & ~uint64_t(0xF)); }},
    {"empty_element_flagged_external", kLength, 0, [](const std::string &) { return std::string(); }},
};

class DamageTest : public ldbatest::LDBArrayTest {
 protected:
  // Every access to element (0, 1) fails with a data error; nothing is freed.
  void ExpectRefused(uint32_t probe) {
    const ldbatest::Allocation before = AllocationOf(arena);
    EXPECT_EQ(LDBArrayGetArray(array, 0, 1, &buffer, 0, NEWGEN), 0);
    EXPECT_EQ(ArrayLength(buffer), 0u);
    ExpectDataError();
    uint32_t end = 0;
    EXPECT_EQ(LDBArrayRange(array, 0, 1, probe, &end, nullptr, NEWGEN, 1), nullptr);
    ExpectDataError();
    EXPECT_EQ(LDBArrayClearElement(array, 0, 1, NEWGEN), 0);
    ExpectDataError();
    EXPECT_EQ(LDBArrayDataSet(array, threadData, 0, 1, "x", 1, NEWGEN), 0);
    EXPECT_EQ(AllocationOf(arena), before);
    // The neighbours stay readable.
    EXPECT_EQ(Read(0, 0), "before");
    EXPECT_EQ(Read(0, 2), Pattern(2, 9000));
  }
};

class LDBArrayDamage : public DamageTest, public ::testing::WithParamInterface<DamageCase> {};

TEST_P(LDBArrayDamage, MalformedDescriptorsAreRefused) {
  const DamageCase &c = GetParam();
  Open(1);
  ASSERT_EQ(Add(0, "before"), 0u);
  ASSERT_EQ(Add(0, Pattern(1, c.length)), 1u);
  ASSERT_EQ(Add(0, Pattern(2, 9000)), 2u);
  SetRawElement(0, 1, c.damage(RawElement(0, 1)));
  ExpectRefused(c.probe);
  // The array still clears, leaving the damaged element's blocks, and reports the damage.
  EXPECT_EQ(LDBArrayClear(array, NEWGEN), 0);
  EXPECT_EQ(QWErrorClass(), QW_ERROR_CLASS_DATA);
  EXPECT_EQ(LDBArraySize(array, 0, NEWGEN), 0u);
  EXPECT_EQ(VMArenaCheck(arena), 0);
}

INSTANTIATE_TEST_SUITE_P(Cases, LDBArrayDamage, ::testing::ValuesIn(kDamage),
                         [](const ::testing::TestParamInfo<DamageCase> &info) { return info.param.name; });

using LDBArrayDamageOther = DamageTest;

TEST_F(LDBArrayDamageOther, DamagedListBlockAndMissingFlagByte) {
  Open(1);
  ASSERT_EQ(Add(0, "before"), 0u);
  ASSERT_EQ(Add(0, Pattern(1, kLevelOneLength)), 1u);
  ASSERT_EQ(Add(0, Pattern(2, 9000)), 2u);
  // An entry of the level-1 list names a block of the wrong size.
  const uint64_t listId = Decode(RawElement(0, 1)).ids[0];
  uint32_t size = 0;
  auto *entries = static_cast<uint8_t *>(VMArenaDataAcquire(arena, listId, 0, NEWGEN, 0, &size, nullptr));
  ASSERT_NE(entries, nullptr);
  entries[0] = uint8_t((entries[0] & 0xF0) | 3);
  VMArenaDataRelease(arena, listId, 0, entries, 0, 0);
  ExpectRefused(0);

  // An element whose flag byte is missing.
  ASSERT_EQ(VMAArrayLengthSet_(arena, Named(std::string(ldbatest::kPath) + "/ldbarray/flag"), 0, NEWGEN, 1), 1);
  EXPECT_EQ(LDBArrayGetArray(array, 0, 0, &buffer, 0, NEWGEN), 0);
  EXPECT_NE(std::string(QWErrorMessage()).find("((handle / 8)) < __arraylen__"), std::string::npos)
      << QWErrorMessage();
  EXPECT_EQ(LDBArrayRange(array, 0, 5, 0, &size, nullptr, NEWGEN, 1), nullptr);  // absent: no flag needed
}

using LDBArrayDeathTest = ldbatest::LDBArrayTest;

TEST_F(LDBArrayDeathTest, ProgrammingErrorsFailTheirAssertions) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Open(2);
  ASSERT_EQ(Add(0, "x"), 0u);
  const std::string big = Pattern(1, 9000);
  EXPECT_DEATH(LDBArrayAdd(array, threadData, 0, "x", 1, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(LDBArrayDataSet(array, threadData, 0, 0, big.data(), 9000, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(LDBArrayClearElement(array, 0, 0, OLDGEN), "genID == NEWGEN");
  EXPECT_DEATH(LDBArrayClear(array, OLDGEN), "genID == NEWGEN");
  uint32_t end = 0;
  EXPECT_DEATH(LDBArrayRange(array, 0, 0, 0, &end, nullptr, 2, 1), "FALSE");
  EXPECT_DEATH(LDBArrayRange(array, 0, 0, 0, &end, nullptr, OLDGEN, 0), "genID == NEWGEN");
  EXPECT_DEATH(Add(2, "x"), "bucketIndex < ArrayLength\\(array->bucket\\)");
  EXPECT_DEATH(LDBArrayNew(arena, &pathBuffer, "big", nullptr, 0, 65537), "bucketCount <= 65536");
  // Bad lengths are errors, not assertions.
  EXPECT_TRUE(olibtest::Fails(LDBArrayAdd(array, nullptr, 0, big.data(), 9000, NEWGEN), LDBARRAY_INVALID_HANDLE, 22));
  EXPECT_EQ(LDBArrayAdd(array, threadData, 0, big.data(), LDBARRAY_MAX_ELEMENT_SIZE + 1u, NEWGEN),
            LDBARRAY_INVALID_HANDLE);
  EXPECT_EQ(QWErrorCode(), 22);
  EXPECT_EQ(LDBArraySize(array, 0, NEWGEN), 1u);
}

}  // namespace
