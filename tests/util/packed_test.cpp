// Packed integer arrays and scalars over a file channel.
#include "support/platform_support.h"
#include "util/packed.h"

namespace {

class Packed : public qwtest::TempDirTest {
 protected:
  template <typename T>
  std::string Write(const std::vector<T> &values) {
    EXPECT_TRUE(qwtest::WithChannel(path("p"), "w", [&](QWChannel *c) {
      return qw::packed::WriteArray(c, values.data(), values.size(), sizeof(T));
    }));
    return qwtest::ReadFileBytes(path("p"));
  }
  // Reads the array back; false (error chain set) on failure.
  template <typename T>
  bool Read(std::vector<T> *out) {
    T *array = nullptr;
    const bool ok = qwtest::WithChannel(path("p"), "r", [&](QWChannel *c) {
      return qw::packed::ReadArray(c, &array, sizeof(T));
    });
    if (ok) out->assign(array, array + ArrayLength(array));
    ArrayFree(array);
    return ok;
  }
};

TEST_F(Packed, WidthsAndExactBytes) {
  const std::pair<uint64_t, unsigned> widths[] = {
      {0, 1},          {255, 1},           {256, 2},         {65535, 2},          {65536, 3},
      {0xFFFFFF, 3},   {0x1000000, 4},     {0xFFFFFFFF, 4},  {0x100000000, 5},    {0xFFFFFFFFFF, 5},
      {0x10000000000, 6}, {0xFFFFFFFFFFFF, 6}, {0x1000000000000, 8}, {0xFFFFFFFFFFFFFF, 8}, {UINT64_MAX, 8},  // never 7
  };
  for (const auto &[largest, width] : widths) EXPECT_EQ(qw::packed::WidthFor(largest), width) << largest;
  EXPECT_EQ(Write(std::vector<uint32_t>{}), std::string("\x01\x00\x00\x00\x00", 5));
  EXPECT_EQ(Write(std::vector<uint32_t>{1, 0x102}), std::string("\x02\x02\x00\x00\x00\x01\x00\x02\x01", 9));
  EXPECT_EQ(Write(std::vector<uint64_t>{0x1000000000000}),
            std::string("\x08\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x01\x00", 13));
}

TEST_F(Packed, RoundTripsAllElementSizesAndLargeCounts) {
  std::mt19937_64 random(5);
  for (unsigned bits : {1u, 8u, 9u, 24u, 25u, 32u, 40u, 48u, 56u, 64u}) {
    std::vector<uint64_t> values(10000), back;
    for (auto &v : values) v = bits == 64 ? random() : random() & ((uint64_t(1) << bits) - 1);
    Write(values);
    ASSERT_TRUE(Read(&back)) << QWErrorMessage();
    ASSERT_EQ(back, values) << bits;
  }
  std::vector<uint8_t> types = {0, 1, 2, 255}, typesBack;
  Write(types);
  ASSERT_TRUE(Read(&typesBack));
  EXPECT_EQ(typesBack, types);
}

TEST_F(Packed, MalformedInputFailsCleanly) {
  std::vector<uint32_t> out;
  Write(std::vector<uint64_t>{0x100000000});  // a value too wide for the destination
  EXPECT_FALSE(Read(&out));
  EXPECT_TRUE(qwtest::HasDataError());
  // Widths 0 and 9 (with data enough for one element), a huge count with little data (fails at the end of the file),
  // every truncation of a valid file.
  std::vector<std::string> bad = {std::string("\x00\x01\x00\x00\x00", 5) + std::string(16, '\0'),
                                  std::string("\x09\x01\x00\x00\x00", 5) + std::string(16, '\0'),
                                  std::string("\x04\xFF\xFF\xFF\xFF\x01\x02", 7)};
  const std::string whole = Write(std::vector<uint32_t>{7, 70000, 3});
  for (size_t cut = 0; cut < whole.size(); ++cut) bad.push_back(whole.substr(0, cut));
  for (const std::string &bytes : bad) {
    qwtest::WriteFileBytes(path("p"), bytes);
    QWErrorClear();
    EXPECT_FALSE(Read(&out)) << testing::PrintToString(bytes);
    EXPECT_TRUE(QWErrorIsSet());
  }
  QWErrorClear();
}

TEST_F(Packed, ScalarsAndByteArrays) {
  qwtest::WithChannel(path("p"), "w", [](QWChannel *c) {
    return qw::packed::WriteScalar(c, 8192, 8) && qw::packed::WriteBytes(c, "abc", 3);
  });
  EXPECT_EQ(qwtest::ReadFileBytes(path("p")), std::string("\x00\x20\x00\x00\x00\x00\x00\x00\x03\x00\x00\x00" "abc", 15));
  uint64_t value = 0;
  uint8_t *bytes = nullptr;
  qwtest::WithChannel(path("p"), "r", [&](QWChannel *c) {
    EXPECT_TRUE(qw::packed::ReadScalar(c, 8, &value) && qw::packed::ReadBytes(c, &bytes));
    EXPECT_FALSE(qw::packed::ReadScalar(c, 1, &value));  // at the end
    return 1;
  });
  EXPECT_EQ(value, 8192u);
  EXPECT_EQ(std::string(reinterpret_cast<char *>(bytes), ArrayLength(bytes)), "abc");
  ArrayFree(bytes);
  QWErrorClear();
}

}  // namespace
