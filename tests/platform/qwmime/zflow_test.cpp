// Compression stream: round trips in each wrapping and level on one reused stream; damaged input, bad settings.

#include "platform/checks.h"

namespace {

std::string Pass(ZFlow *flow, bool compress, const std::string &in, int format, int level, bool *ok) {
  uint8_t *out = nullptr;
  *ok = ZFlowSetCompress(flow, compress, format, level) &&
        (compress ? ZFlowCompress(flow, in.data(), in.size(), &out) : ZFlowDecompress(flow, in.data(), in.size(), &out));
  std::string result(reinterpret_cast<char *>(out), out ? ArrayLength(out) : 0);
  ArrayFree(out);
  return result;
}

TEST(ZFlowTest, RoundTripsAndDamagedInput) {
  std::mt19937 random(1);
  std::string noise(100000, '\0'), text;
  for (char &c : noise) c = char(random());
  for (int i = 0; i < 20000; ++i) text += "line " + std::to_string(i % 97) + "\n";
  ZFlow *flow = ZFlowNewCompress(2, 6);
  ASSERT_NE(flow, nullptr);
  bool ok = false;
  for (const std::string &input : {std::string(), text, noise})
    for (int format : {ZFLOW_FORMAT_RAW, ZFLOW_FORMAT_ZLIB, ZFLOW_FORMAT_GZIP})
      for (int level : {0, 1, 6, 9}) {
        const std::string packed = Pass(flow, true, input, format, level, &ok);
        ASSERT_TRUE(ok) << QWErrorMessage();
        EXPECT_TRUE(level == 0 || input != text || packed.size() < input.size() / 10);
        EXPECT_EQ(Pass(flow, false, packed, format, level, &ok), input);
        EXPECT_TRUE(ok) << QWErrorMessage();
      }
  ZFlowDelete(flow);  // a fresh stream: compressing with its own settings resets it
  flow = ZFlowNewCompress(2, 6);
  const std::string packed = Pass(flow, true, std::string(5000, 'x') + "tail", 2, 6, &ok);
  const std::pair<std::string, const char *> cases[] = {
      {packed.substr(0, packed.size() - 3), "damaged compressed data"},
      {packed + "!", "damaged compressed data: bytes after the end"},
      {std::string(packed).replace(12, 1, "\xff"), "damaged compressed data"},
  };
  for (const auto &[input, text] : cases) {
    Pass(flow, false, input, 2, 6, &ok);
    EXPECT_TRUE(qwtest::Fails(ok, 74));
    EXPECT_NE(std::string(ZFlowGetLastError(flow)).find(text), std::string::npos) << ZFlowGetLastError(flow);
  }
  EXPECT_FALSE(ZFlowSetCompress(flow, 1, 3, 6));
  EXPECT_TRUE(qwtest::Fails(ZFlowSetCompress(flow, 1, 2, 10), 22));
  EXPECT_EQ(ZFlowNewCompress(2, -1), nullptr);
  ZFlowDelete(flow);
}

}  // namespace
