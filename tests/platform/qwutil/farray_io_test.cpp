// FArray file forms: exact raw bytes, round trips over every width, record
// arrays with nested raw arrays, and malformed files (truncations at every
// byte, huge counts, bad widths) that must fail cleanly.
#include <cstring>
#include <random>

#include "support/platform_support.h"

namespace {

class FArrayIoTest : public qwtest::TempDirTest {
 protected:
  using Body = std::function<int(QWChannel *)>;
  int WriteFile(const std::string &name, const Body &body) { return qwtest::WithChannel(path(name), "w", body); }
  int ReadFile(const std::string &name, const Body &body) {
    QWErrorClear();
    return qwtest::WithChannel(path(name), "r", body);
  }
};

// Owns an FArray for the duration of a test.
struct Holder {
  FArray array{};
  Holder(uint32_t elementSize, uint32_t chunkEntries, const FArrayAllocator *allocator = nullptr) {
    EXPECT_EQ(FArrayInit_(&array, elementSize, chunkEntries, allocator), 1);
  }
  ~Holder() { EXPECT_EQ(FArrayFree(&array), 1); }
  void Append(uint64_t value) {
    uint64_t index = 0;
    ASSERT_EQ(FArrayAdd_(&array, 1, &index), 1);
    std::memcpy(FArrayNth(&array, index), &value, array.elementSize);
  }
  uint64_t At(uint64_t index) const {
    uint64_t value = 0;
    std::memcpy(&value, FArrayNth(&array, index), array.elementSize);
    return value;
  }
};

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(char(b));
  return s;
}

TEST_F(FArrayIoTest, RawLayoutIsExact) {
  Holder ids(4, 2);
  for (uint64_t v : {0x11223344ull, 0xFFFFFFFFull, 0ull}) ids.Append(v);
  ASSERT_EQ(WriteFile("ids", [&](QWChannel *c) { return FArrayWriteRaw_(&ids.array, c, 4); }), 1);
  EXPECT_EQ(qwtest::ReadFileBytes(path("ids")),
            Bytes({4, 3, 0, 0, 0, 0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}));

  Holder wide(8, 4);
  wide.Append(0x0102030405060708ull);
  ASSERT_EQ(WriteFile("wide", [&](QWChannel *c) { return FArrayWriteRaw_(&wide.array, c, 3); }), 1);
  EXPECT_EQ(qwtest::ReadFileBytes(path("wide")), Bytes({3, 1, 0, 0, 0, 0, 0, 0, 0, 0x08, 0x07, 0x06}));

  Holder empty(4, 256);
  ASSERT_EQ(WriteFile("empty", [&](QWChannel *c) { return FArrayWriteRaw_(&empty.array, c, 4); }), 1);
  EXPECT_EQ(qwtest::ReadFileBytes(path("empty")), Bytes({4, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// Every element size and every width up to it, with values at the width's
// limits and random ones, across several chunks.
TEST_F(FArrayIoTest, RawRoundTripEveryWidth) {
  std::mt19937_64 random(7);
  for (uint32_t elementSize : {1u, 2u, 4u, 8u}) {
    for (uint32_t width = 1; width <= elementSize; ++width) {
      SCOPED_TRACE(testing::Message() << "element " << elementSize << " width " << width);
      const uint64_t max = width == 8 ? ~0ull : (1ull << (8 * width)) - 1;
      std::vector<uint64_t> values = {0, 1, max, max - 1, max >> 1, (max >> 1) + 1};
      for (int i = 0; i < 300; ++i) values.push_back(random() & max);
      Holder out(elementSize, 16);
      for (uint64_t v : values) out.Append(v);
      ASSERT_EQ(WriteFile("raw", [&](QWChannel *c) { return FArrayWriteRaw_(&out.array, c, width); }), 1);
      EXPECT_EQ(qwtest::ReadFileBytes(path("raw")).size(), 9 + values.size() * width);

      for (uint32_t expected : {width, 0u}) {  // exact width, or any width
        Holder in(elementSize, 8);
        in.Append(0xAB);  // replaced by the read
        ASSERT_EQ(ReadFile("raw", [&](QWChannel *c) { return FArrayReadRaw_(&in.array, c, expected); }), 1)
            << QWErrorMessage();
        ASSERT_EQ(FArrayLength(&in.array), values.size());
        for (size_t i = 0; i < values.size(); ++i) ASSERT_EQ(in.At(i), values[i]) << "index " << i;
      }
    }
  }
}

TEST_F(FArrayIoTest, NarrowWidthKeepsLowBytesAndReadsZeroExtended) {
  Holder out(8, 4);
  out.Append(0xFFFFFFFFFFFFFFFEull);
  out.Append(0x1234567800000042ull);
  ASSERT_EQ(WriteFile("ids", [&](QWChannel *c) { return FArrayWriteRaw_(&out.array, c, 4); }), 1);
  Holder in(8, 4);
  ASSERT_EQ(ReadFile("ids", [&](QWChannel *c) { return FArrayReadRaw_(&in.array, c, 4); }), 1);
  EXPECT_EQ(in.At(0), 0xFFFFFFFEull);
  EXPECT_EQ(in.At(1), 0x42ull);
}

TEST_F(FArrayIoTest, WriteRejectsBadWidths) {
  struct Case {
    uint32_t elementSize, width;
  };
  for (const Case c : {Case{4, 0}, Case{4, 5}, Case{8, 9}, Case{3, 3}, Case{16, 8}}) {
    Holder array(c.elementSize, 4);
    EXPECT_EQ(WriteFile("bad", [&](QWChannel *ch) { return FArrayWriteRaw_(&array.array, ch, c.width); }), 0);
    EXPECT_EQ(QWErrorCode(), 22) << c.elementSize << "/" << c.width;
  }
}

// Record form with a nested raw array per record, like an array table.
struct TableRecord {
  FArray blocks;  // 8-byte block ids
  uint32_t length;
  uint8_t type;
  uint8_t log2size;
};

int ReadScalar(QWChannel *channel, void *out, size_t size) { return ChannelReadBuf(channel, out, size); }

int WriteRecord(void *, QWChannel *channel, const void *element, uint64_t) {
  const auto *r = static_cast<const TableRecord *>(element);
  unsigned char tail[6];
  std::memcpy(tail, &r->length, 4);
  tail[4] = r->type;
  tail[5] = r->log2size;
  return FArrayWriteRaw_(&r->blocks, channel, 8) && ChannelWriteBuf(channel, tail, sizeof tail);
}

int ReadRecord(void *, QWChannel *channel, void *element, uint64_t) {
  auto *r = static_cast<TableRecord *>(element);
  if (!FArrayInit_(&r->blocks, 8, 256, nullptr)) return 0;
  unsigned char tail[6];
  if (!FArrayReadRaw_(&r->blocks, channel, 8) || !ReadScalar(channel, tail, sizeof tail)) return 0;
  std::memcpy(&r->length, tail, 4);
  r->type = tail[4];
  r->log2size = tail[5];
  return 1;
}

// A table of `records` records whose record i holds `blocks(i)` block ids
// (random ones when `random` is given).
void MakeTable(FArray *table, uint64_t records, const std::function<uint64_t(uint64_t)> &blocks,
               std::mt19937_64 *random = nullptr) {
  ASSERT_EQ(FArrayInit_(table, sizeof(TableRecord), 4, nullptr), 1);
  ASSERT_EQ(FArrayAdd_(table, records, nullptr), 1);
  for (uint64_t i = 0; i < records; ++i) {
    auto *r = static_cast<TableRecord *>(FArrayNth(table, i));
    ASSERT_EQ(FArrayInit_(&r->blocks, 8, 256, nullptr), 1);
    ASSERT_EQ(FArrayAdd_(&r->blocks, blocks(i), nullptr), 1);
    for (uint64_t k = 0; random && k < blocks(i); ++k) {
      const uint64_t id = (*random)();
      std::memcpy(FArrayNth(&r->blocks, k), &id, 8);
    }
    r->length = random ? uint32_t((*random)()) : 0;
    r->type = uint8_t(i % 5);
    r->log2size = uint8_t(6 + i % 8);
  }
}

void FreeTable(FArray *table) {
  for (uint64_t i = 0; i < FArrayLength(table); ++i)
    EXPECT_EQ(FArrayFree(&static_cast<TableRecord *>(FArrayNth(table, i))->blocks), 1);
  EXPECT_EQ(FArrayFree(table), 1);
}

TEST_F(FArrayIoTest, RecordArraysWithNestedRawArraysRoundTrip) {
  std::mt19937_64 random(11);
  FArray table;
  const uint64_t records = 23;
  // Some records span several chunks, one is empty.
  ASSERT_NO_FATAL_FAILURE(MakeTable(&table, records, [](uint64_t i) { return (i * 97) % 600; }, &random));
  ASSERT_EQ(WriteFile("table", [&](QWChannel *c) { return FArrayWrite_(&table, c, WriteRecord, nullptr); }), 1);
  EXPECT_EQ(qwtest::ReadFileBytes(path("table")).substr(0, 9), Bytes({0, 23, 0, 0, 0, 0, 0, 0, 0}));

  FArray back;
  ASSERT_EQ(FArrayInit_(&back, sizeof(TableRecord), 8, nullptr), 1);
  ASSERT_EQ(ReadFile("table", [&](QWChannel *c) { return FArrayRead_(&back, c, ReadRecord, nullptr); }), 1)
      << QWErrorMessage();
  ASSERT_EQ(FArrayLength(&back), records);
  for (uint64_t i = 0; i < records; ++i) {
    const auto *a = static_cast<const TableRecord *>(FArrayNth(&table, i));
    const auto *b = static_cast<const TableRecord *>(FArrayNth(&back, i));
    EXPECT_EQ(a->length, b->length);
    EXPECT_EQ(a->type, b->type);
    EXPECT_EQ(a->log2size, b->log2size);
    ASSERT_EQ(FArrayLength(&a->blocks), FArrayLength(&b->blocks)) << "record " << i;
    for (uint64_t k = 0; k < FArrayLength(&a->blocks); ++k)
      ASSERT_EQ(std::memcmp(FArrayNth(&a->blocks, k), FArrayNth(&b->blocks, k), 8), 0);
  }
  FreeTable(&table);
  FreeTable(&back);
}

// Cutting a valid file at every byte offset must fail cleanly: no crash, an
// error set, and for the raw form a data-class error.
TEST_F(FArrayIoTest, TruncationAtEveryOffsetFailsCleanly) {
  Holder ids(4, 4);
  for (uint64_t v = 0; v < 11; ++v) ids.Append(v * 1000003);
  ASSERT_EQ(WriteFile("raw", [&](QWChannel *c) { return FArrayWriteRaw_(&ids.array, c, 4); }), 1);
  const std::string raw = qwtest::ReadFileBytes(path("raw"));
  for (size_t cut = 0; cut < raw.size(); ++cut) {
    qwtest::WriteFileBytes(path("cut"), raw.substr(0, cut));
    Holder in(4, 4);
    EXPECT_EQ(ReadFile("cut", [&](QWChannel *c) { return FArrayReadRaw_(&in.array, c, 4); }), 0) << "cut " << cut;
    EXPECT_TRUE(qwtest::HasDataError()) << "cut " << cut;
    EXPECT_EQ(QWErrorCode(), 74);
    EXPECT_EQ(FArrayLength(&in.array), 0u);
  }

  FArray table;
  ASSERT_NO_FATAL_FAILURE(MakeTable(&table, 3, [](uint64_t i) { return i + 1; }));
  ASSERT_EQ(WriteFile("table", [&](QWChannel *c) { return FArrayWrite_(&table, c, WriteRecord, nullptr); }), 1);
  FreeTable(&table);
  const std::string records = qwtest::ReadFileBytes(path("table"));
  for (size_t cut = 0; cut < records.size(); ++cut) {
    qwtest::WriteFileBytes(path("cut"), records.substr(0, cut));
    FArray back;
    ASSERT_EQ(FArrayInit_(&back, sizeof(TableRecord), 2, nullptr), 1);
    EXPECT_EQ(ReadFile("cut", [&](QWChannel *c) { return FArrayRead_(&back, c, ReadRecord, nullptr); }), 0)
        << "cut " << cut;
    EXPECT_TRUE(qwtest::HasError(-1, "\"" + path("cut") + "\""));
    FreeTable(&back);  // the partly read record is freeable
  }
}

struct ChunkCounter {
  int chunks = 0;
};

void *CountChunk(void *context, size_t bytes) {
  ++static_cast<ChunkCounter *>(context)->chunks;
  return Allocate(bytes);
}

int ReleaseChunk(void *, void *chunk, size_t) {
  UnAllocate(chunk);
  return 1;
}

// A count far beyond the data: the reader allocates chunk by chunk as the
// bytes arrive and fails at the end of the file, never in one giant
// allocation.
TEST_F(FArrayIoTest, HugeCountFailsAtEndOfFileWithoutGiantAllocation) {
  for (uint64_t count : {UINT64_MAX, uint64_t(1) << 40, uint64_t(100000)}) {
    std::string file = Bytes({4});
    for (int i = 0; i < 8; ++i) file.push_back(char(count >> (8 * i)));
    file += std::string(4 * 1000, '\x01');  // 1000 elements of data
    qwtest::WriteFileBytes(path("huge"), file);
    ChunkCounter counter;
    const FArrayAllocator allocator{CountChunk, ReleaseChunk, &counter, FARRAY_ALLOCATOR_ZEROED};
    Holder in(4, 256, &allocator);
    EXPECT_EQ(ReadFile("huge", [&](QWChannel *c) { return FArrayReadRaw_(&in.array, c, 4); }), 0);
    EXPECT_TRUE(qwtest::HasDataError());
    EXPECT_LE(counter.chunks, 1000 / 256 + 1) << "count " << count;
  }

  // Records: each record needs a byte, so a huge count fails at the end too.
  qwtest::WriteFileBytes(path("records"), Bytes({0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}));
  FArray back;
  ASSERT_EQ(FArrayInit_(&back, sizeof(TableRecord), 2, nullptr), 1);
  EXPECT_EQ(ReadFile("records", [&](QWChannel *c) { return FArrayRead_(&back, c, ReadRecord, nullptr); }), 0);
  EXPECT_LE(FArrayLength(&back), 1u);
  FreeTable(&back);
}

int ReadNothing(void *, QWChannel *, void *, uint64_t) { return 1; }

TEST_F(FArrayIoTest, BadTagsAreRejected) {
  struct Case {
    int tag;
    uint32_t elementSize, expectedWidth;
  };
  // Width 0 (a record array), above 8, above the element size, or not the
  // width asked for.
  const Case cases[] = {{0, 4, 4}, {9, 8, 0}, {255, 8, 8}, {3, 2, 0}, {8, 4, 0}, {2, 4, 4}, {4, 4, 2}};
  for (const Case c : cases) {
    qwtest::WriteFileBytes(path("bad"), Bytes({c.tag, 1, 0, 0, 0, 0, 0, 0, 0}) + std::string(16, '\0'));
    Holder in(c.elementSize, 4);
    EXPECT_EQ(ReadFile("bad", [&](QWChannel *ch) { return FArrayReadRaw_(&in.array, ch, c.expectedWidth); }), 0);
    EXPECT_TRUE(qwtest::HasDataError("width")) << "tag " << c.tag;
  }
  Holder narrow(2, 4);
  EXPECT_EQ(ReadFile("bad", [&](QWChannel *ch) { return FArrayReadRaw_(&narrow.array, ch, 4); }), 0);
  EXPECT_EQ(QWErrorCode(), 22);  // asking for a width wider than the elements

  // A raw array where records are expected, and a record that reads nothing.
  qwtest::WriteFileBytes(path("raw"), Bytes({4, 1, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4}));
  FArray records;
  ASSERT_EQ(FArrayInit_(&records, 16, 4, nullptr), 1);
  EXPECT_EQ(ReadFile("raw", [&](QWChannel *c) { return FArrayRead_(&records, c, ReadNothing, nullptr); }), 0);
  EXPECT_TRUE(qwtest::HasDataError());
  qwtest::WriteFileBytes(path("empty-records"), Bytes({0, 5, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3}));
  EXPECT_EQ(ReadFile("empty-records", [&](QWChannel *c) { return FArrayRead_(&records, c, ReadNothing, nullptr); }),
            0);
  EXPECT_TRUE(qwtest::HasDataError("occupies no byte"));
  EXPECT_EQ(FArrayFree(&records), 1);
}

}  // namespace
