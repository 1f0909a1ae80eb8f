// FArray file forms: exact raw bytes, round trips over every width, record arrays with nested raw arrays, and malformed
// files (truncations at every byte, huge counts, bad widths) that must fail cleanly.
#include <cstring>

#include "support/platform_support.h"

namespace {

using Body = std::function<int(QWChannel *)>;

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
  Body WriteRaw(uint32_t width) const {
    return [this, width](QWChannel *c) { return FArrayWriteRaw_(&array, c, width); };
  }
  Body ReadRaw(uint32_t width) {
    return [this, width](QWChannel *c) { return FArrayReadRaw_(&array, c, width); };
  }
};

class FArrayIoTest : public qwtest::TempDirTest {
 protected:
  // Writes `name` through `body`; returns its bytes ("" when the write failed).
  std::string WriteFile(const std::string &name, const Body &body) {
    return qwtest::WithChannel(path(name), "w", body) ? qwtest::ReadFileBytes(path(name)) : "";
  }
  int ReadFile(const std::string &name, const Body &body) {
    QWErrorClear();
    return qwtest::WithChannel(path(name), "r", body);
  }
  // Writes `bytes` to "bad" and reads it through `body`.
  int ReadBytes(const std::string &bytes, const Body &body) {
    qwtest::WriteFileBytes(path("bad"), bytes);
    return ReadFile("bad", body);
  }
};

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(char(b));
  return s;
}

TEST_F(FArrayIoTest, RawLayoutIsExact) {
  Holder ids(4, 2), wide(8, 4), empty(4, 256);
  for (uint64_t v : {0x11223344ull, 0xFFFFFFFFull, 0ull}) ids.Append(v);
  EXPECT_EQ(WriteFile("ids", ids.WriteRaw(4)),
            Bytes({4, 3, 0, 0, 0, 0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0}));
  wide.Append(0x0102030405060708ull);
  EXPECT_EQ(WriteFile("wide", wide.WriteRaw(3)), Bytes({3, 1, 0, 0, 0, 0, 0, 0, 0, 0x08, 0x07, 0x06}));
  EXPECT_EQ(WriteFile("empty", empty.WriteRaw(4)), Bytes({4, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// Every element size and every width up to it, with values at the width's limits and random ones, across several
// chunks; a width narrower than the elements keeps the low bytes and reads back zero-extended.
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
      EXPECT_EQ(WriteFile("raw", out.WriteRaw(width)).size(), 9 + values.size() * width);
      for (uint32_t expected : {width, 0u}) {  // exact width, or any width
        Holder in(elementSize, 8);
        in.Append(0xAB);  // replaced by the read
        ASSERT_EQ(ReadFile("raw", in.ReadRaw(expected)), 1) << QWErrorMessage();
        ASSERT_EQ(FArrayLength(&in.array), values.size());
        for (size_t i = 0; i < values.size(); ++i) ASSERT_EQ(in.At(i), values[i]) << "index " << i;
      }
    }
  }
  Holder out(8, 4), in(8, 4);
  out.Append(0xFFFFFFFFFFFFFFFEull);
  out.Append(0x1234567800000042ull);
  WriteFile("ids", out.WriteRaw(4));
  ASSERT_EQ(ReadFile("ids", in.ReadRaw(4)), 1);
  EXPECT_EQ(in.At(0) + (in.At(1) << 32), 0xFFFFFFFEull + (0x42ull << 32));
}

// Record form with a nested raw array per record, like an array table.
struct TableRecord {
  FArray blocks;  // 8-byte block ids
  uint32_t length;
  uint8_t type, log2size;
};

int WriteRecord(void *, QWChannel *channel, const void *element, uint64_t) {
  const auto *r = static_cast<const TableRecord *>(element);
  unsigned char tail[6] = {0, 0, 0, 0, r->type, r->log2size};
  std::memcpy(tail, &r->length, 4);
  return FArrayWriteRaw_(&r->blocks, channel, 8) && ChannelWriteBuf(channel, tail, sizeof tail);
}

int ReadRecord(void *, QWChannel *channel, void *element, uint64_t) {
  auto *r = static_cast<TableRecord *>(element);
  unsigned char tail[6];
  if (!FArrayInit_(&r->blocks, 8, 256, nullptr) || !FArrayReadRaw_(&r->blocks, channel, 8) ||
      !ChannelReadBuf(channel, tail, sizeof tail))
    return 0;
  std::memcpy(&r->length, tail, 4);
  r->type = tail[4];
  r->log2size = tail[5];
  return 1;
}

int ReadNothing(void *, QWChannel *, void *, uint64_t) { return 1; }

// A table of `records` records whose record i holds `blocks(i)` random block ids.
struct Table {
  FArray array{};
  Table(uint64_t records, const std::function<uint64_t(uint64_t)> &blocks, uint32_t recordSize = sizeof(TableRecord)) {
    std::mt19937_64 random(11);
    EXPECT_EQ(FArrayInit_(&array, recordSize, 4, nullptr), 1);
    EXPECT_EQ(FArrayAdd_(&array, records, nullptr), 1);
    for (uint64_t i = 0; i < records; ++i) {
      auto *r = static_cast<TableRecord *>(FArrayNth(&array, i));
      EXPECT_EQ(FArrayInit_(&r->blocks, 8, 256, nullptr) + FArrayAdd_(&r->blocks, blocks(i), nullptr), 2);
      for (uint64_t k = 0; k < blocks(i); ++k) *static_cast<uint64_t *>(FArrayNth(&r->blocks, k)) = random();
      *r = {r->blocks, uint32_t(random()), uint8_t(i % 5), uint8_t(6 + i % 8)};
    }
  }
  ~Table() {  // a partly read record is freeable
    for (uint64_t i = 0; array.elementSize == sizeof(TableRecord) && i < FArrayLength(&array); ++i)
      EXPECT_EQ(FArrayFree(&static_cast<TableRecord *>(FArrayNth(&array, i))->blocks), 1);
    EXPECT_EQ(FArrayFree(&array), 1);
  }
  TableRecord &operator[](uint64_t i) const { return *static_cast<TableRecord *>(FArrayNth(&array, i)); }
  Body Write() const {
    return [this](QWChannel *c) { return FArrayWrite_(&array, c, WriteRecord, nullptr); };
  }
  Body Read(FArrayReadFunction read = ReadRecord) {
    return [this, read](QWChannel *c) { return FArrayRead_(&array, c, read, nullptr); };
  }
};

TEST_F(FArrayIoTest, RecordArraysWithNestedRawArraysRoundTrip) {
  const uint64_t records = 23;
  Table table(records, [](uint64_t i) { return (i * 97) % 600; }), back(0, nullptr);  // some span chunks, one is empty
  EXPECT_EQ(WriteFile("table", table.Write()).substr(0, 9), Bytes({0, 23, 0, 0, 0, 0, 0, 0, 0}));
  ASSERT_EQ(ReadFile("table", back.Read()), 1) << QWErrorMessage();
  ASSERT_EQ(FArrayLength(&back.array), records);
  for (uint64_t i = 0; i < records; ++i) {
    const TableRecord &a = table[i], &b = back[i];
    EXPECT_EQ(std::vector<uint32_t>({a.length, a.type, a.log2size}), std::vector<uint32_t>({b.length, b.type, b.log2size}));
    ASSERT_EQ(FArrayLength(&a.blocks), FArrayLength(&b.blocks)) << "record " << i;
    for (uint64_t k = 0; k < FArrayLength(&a.blocks); ++k)
      ASSERT_EQ(std::memcmp(FArrayNth(&a.blocks, k), FArrayNth(&b.blocks, k), 8), 0);
  }
}

// A valid file cut at every byte offset fails cleanly: no crash, an error set, for the raw form a data-class error.
TEST_F(FArrayIoTest, TruncationAtEveryOffsetFailsCleanly) {
  Holder ids(4, 4);
  for (uint64_t v = 0; v < 11; ++v) ids.Append(v * 1000003);
  const std::string raw = WriteFile("raw", ids.WriteRaw(4));
  for (size_t cut = 0; cut < raw.size(); ++cut) {
    Holder in(4, 4);
    EXPECT_EQ(ReadBytes(raw.substr(0, cut), in.ReadRaw(4)), 0) << "cut " << cut;
    EXPECT_TRUE(qwtest::HasDataError()) << "cut " << cut;
    EXPECT_EQ(QWErrorCode(), 74);
    EXPECT_EQ(FArrayLength(&in.array), 0u);
  }
  const std::string records = WriteFile("table", Table(3, [](uint64_t i) { return i + 1; }).Write());
  for (size_t cut = 0; cut < records.size(); ++cut) {
    Table back(0, nullptr);
    EXPECT_EQ(ReadBytes(records.substr(0, cut), back.Read()), 0) << "cut " << cut;
    EXPECT_TRUE(qwtest::HasError(-1, "\"" + path("bad") + "\""));
  }
}

// A count far beyond the data: the reader allocates chunk by chunk as the bytes arrive and fails at the end of the
// file, never in one giant allocation; records (a byte each at least) fail at the end too.
TEST_F(FArrayIoTest, HugeCountFailsAtEndOfFileWithoutGiantAllocation) {
  for (uint64_t count : {UINT64_MAX, uint64_t(1) << 40, uint64_t(100000)}) {
    std::string file = Bytes({4});
    for (int i = 0; i < 8; ++i) file.push_back(char(count >> (8 * i)));
    int chunks = 0;
    const FArrayAllocator allocator{[](void *context, size_t bytes) {
                                      ++*static_cast<int *>(context);
                                      return Allocate(bytes);
                                    },
                                    [](void *, void *chunk, size_t) {
                                      UnAllocate(chunk);
                                      return 1;
                                    },
                                    &chunks, FARRAY_ALLOCATOR_ZEROED};
    Holder in(4, 256, &allocator);
    EXPECT_EQ(ReadBytes(file + std::string(4 * 1000, '\x01'), in.ReadRaw(4)), 0);  // 1000 elements of data
    EXPECT_TRUE(qwtest::HasDataError());
    EXPECT_LE(chunks, 1000 / 256 + 1) << "count " << count;
  }
  Table back(0, nullptr);
  EXPECT_EQ(ReadBytes(Bytes({0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}), back.Read()), 0);
  EXPECT_LE(FArrayLength(&back.array), 1u);
}

TEST_F(FArrayIoTest, BadWidthsAndTagsAreRejected) {
  for (const auto &[elementSize, width] : {std::pair{4u, 0u}, {4u, 5u}, {8u, 9u}, {3u, 3u}, {16u, 8u}}) {
    Holder array(elementSize, 4);
    EXPECT_EQ(WriteFile("bad", array.WriteRaw(width)), "");
    EXPECT_EQ(QWErrorCode(), 22) << elementSize << "/" << width;
  }
  // Width 0 (a record array), above 8, above the element size, or not the width asked for.
  const struct {
    int tag;
    uint32_t elementSize, expectedWidth;
  } cases[] = {{0, 4, 4}, {9, 8, 0}, {255, 8, 8}, {3, 2, 0}, {8, 4, 0}, {2, 4, 4}, {4, 4, 2}};
  for (const auto &c : cases) {
    Holder in(c.elementSize, 4);
    EXPECT_EQ(ReadBytes(Bytes({c.tag, 1, 0, 0, 0, 0, 0, 0, 0}) + std::string(16, '\0'), in.ReadRaw(c.expectedWidth)), 0);
    EXPECT_TRUE(qwtest::HasDataError("width")) << "tag " << c.tag;
  }
  Holder narrow(2, 4);
  EXPECT_EQ(ReadFile("bad", narrow.ReadRaw(4)), 0);
  EXPECT_EQ(QWErrorCode(), 22);  // asking for a width wider than the elements
  // A raw array where records are expected, and a record that reads nothing.
  Table records(0, nullptr, 16);
  EXPECT_EQ(ReadBytes(Bytes({4, 1, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4}), records.Read(ReadNothing)), 0);
  EXPECT_TRUE(qwtest::HasDataError());
  EXPECT_EQ(ReadBytes(Bytes({0, 5, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3}), records.Read(ReadNothing)), 0);
  EXPECT_TRUE(qwtest::HasDataError("occupies no byte"));
}

}  // namespace
