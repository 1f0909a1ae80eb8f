// The logged string dictionary and the string table: a random model with
// awkward keys across checkpoints and reopenings, the records the dictionary
// logs, deleted and stale entries, and crashes at every table stop (in the
// table's and in the dictionary's arena directory).
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "support/fault_support.h"
#include "support/platform_support.h"

namespace {

using TableModel = std::map<std::string, std::string>;

class StrTableTest : public qwtest::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    td = LoggedStrTableThreadDataNew();
    ASSERT_NE(td, nullptr);
  }
  void TearDown() override {
    if (table) LoggedStrTableClose(table, 0);
    LoggedStrTableThreadDataFree(td);
    TempDirTest::TearDown();
  }
  std::string tableDir() const { return path("table"); }
  void Open(int readOnly = 0) {
    table = LoggedStrTableOpen(tableDir().c_str(), 2, 1, 2, readOnly, nullptr);
    ASSERT_NE(table, nullptr) << QWErrorMessage();
  }
  void Close(bool checkpoint) {
    EXPECT_EQ(LoggedStrTableClose(table, checkpoint), 1);
    table = nullptr;
  }
  bool Set(const std::string &key, const std::string &value) {
    return LoggedStrTableSet(table, td, key.data(), uint32_t(key.size()), value.data(), uint32_t(value.size()));
  }
  std::string Get(const std::string &key) {
    const uint8_t *value = nullptr;
    uint32_t length = 0;
    if (!LoggedStrTableGet(table, td, key.data(), uint32_t(key.size()), &value, &length)) return "<absent>";
    return std::string(value, value + length);
  }
  TableModel Enumerate(const std::string &prefix) {
    TableModel pairs;
    LoggedStrTableEnumeration *e = LoggedStrTableEnumerationNew(table, prefix.data(), uint32_t(prefix.size()));
    EXPECT_NE(e, nullptr) << QWErrorMessage();
    const uint8_t *key = nullptr, *value = nullptr;
    uint32_t keyLength = 0, valueLength = 0;
    while (e && LoggedStrTableEnumerationGetNext(e, &key, &keyLength, &value, &valueLength))
      pairs[std::string(key, key + keyLength)] = std::string(value, value + valueLength);
    LoggedStrTableEnumerationFree(e);
    return pairs;
  }
  void ExpectHolds(const TableModel &model) { EXPECT_EQ(Enumerate(""), model); }

  LoggedStrTable *table = nullptr;
  LoggedStrTableThreadData *td = nullptr;
};

// Keys that are prefixes of each other and hold bytes 0 and 255.
std::string RandomKey(std::mt19937 &rng) {
  static const std::string kStems[] = {std::string(1, '\0'), "a", "ab", std::string("a\0b", 3), "\xff",
                                       "\xff\xff", "key", "keys"};
  std::string key = kStems[rng() % std::size(kStems)];
  if (rng() % 2) key += std::to_string(rng() % 30);
  return key;
}

TEST_F(StrTableTest, RandomModelWithAwkwardKeysAcrossCheckpointsAndReopenings) {
  ASSERT_NO_FATAL_FAILURE(Open());
  TableModel model, durable;
  std::mt19937 rng(5);
  qwtest::RunModel(rng, 300,
                   {{50,
                     [&] {
                       const std::string key = RandomKey(rng);
                       const std::string value(rng() % 3 == 0 ? 0 : rng() % 9000, char(rng()));
                       ASSERT_TRUE(Set(key, value)) << QWErrorMessage();
                       model[key] = value;
                     }},
                    {20,
                     [&] {
                       const std::string key = RandomKey(rng);
                       ASSERT_TRUE(LoggedStrTableDelete(table, td, key.data(), uint32_t(key.size())));
                       model.erase(key);
                     }},
                    {18,
                     [&] {
                       const std::string key = RandomKey(rng);
                       ASSERT_EQ(Get(key), model.count(key) ? model[key] : "<absent>");
                     }},
                    {6,
                     [&] {
                       const std::string prefix = RandomKey(rng).substr(0, 1 + rng() % 2);
                       TableModel expected;
                       for (const auto &[k, v] : model)
                         if (k.compare(0, prefix.size(), prefix) == 0) expected[k] = v;
                       ASSERT_EQ(Enumerate(prefix), expected);
                     }},
                    {4,
                     [&] {
                       ASSERT_TRUE(LoggedStrTableCheckpoint(table, int(rng() % 2))) << QWErrorMessage();
                       durable = model;
                     }},
                    {2, [&] {
                       const bool checkpoint = rng() % 2;
                       Close(checkpoint);
                       model = checkpoint ? model : durable;
                       durable = model;
                       ASSERT_NO_FATAL_FAILURE(Open());
                       ASSERT_NO_FATAL_FAILURE(ExpectHolds(model));
                     }}});
  ASSERT_FALSE(HasFatalFailure()) << "a model step failed: its handles may be gone";
  // A read-only open sees the last commit.
  ASSERT_TRUE(LoggedStrTableCheckpoint(table, 1)) << QWErrorMessage();
  Close(false);
  ASSERT_NO_FATAL_FAILURE(Open(1));
  ASSERT_NO_FATAL_FAILURE(ExpectHolds(model));
  EXPECT_FALSE(Set("k", "v"));
}

// The dictionary's own records in its log.
std::vector<std::pair<uint32_t, std::string>> DictRecords(const std::string &logDir) {
  std::vector<std::pair<uint32_t, std::string>> records;
  for (const qwtest::LogRecord &r : qwtest::ReadLogRecords(logDir))
    if (r.type >= LSTRDICT_ADD) records.emplace_back(r.type, r.payload);
  return records;
}

TEST_F(StrTableTest, DictionaryRecordsReplayEmptyKeysDeletedAndStaleEntries) {
  ASSERT_NO_FATAL_FAILURE(Open());
  LoggedStrDictThreadData *dtd = LoggedStrDictThreadDataNew();
  LoggedStrDict *dict = LoggedStrDictOpen(path("dict").c_str(), 0);
  ASSERT_NE(dict, nullptr) << QWErrorMessage();
  uint64_t id = 0, again = 0;
  EXPECT_EQ(LoggedStrDictLookup(dict, dtd, "", 0, 1, &id), 0);  // an empty key creates nothing
  EXPECT_EQ(id, LSTRDICT_NO_ID);
  ASSERT_TRUE(LoggedStrDictLookup(dict, dtd, "k1", 2, 1, &id));
  ASSERT_TRUE(LoggedStrDictLookup(dict, dtd, "k1", 2, 1, &again));
  EXPECT_EQ(id, again);
  ASSERT_TRUE(LoggedStrDictDelete(dict, dtd, "never", 5));
  ASSERT_TRUE(LoggedStrDictLookup(dict, dtd, "never", 5, 0, &again));
  EXPECT_EQ(again, LSTRDICT_NO_ID);
  ASSERT_TRUE(LoggedStrDictClose(dict, 1));
  const std::vector<std::pair<uint32_t, std::string>> expected = {{LSTRDICT_ADD, "k1"}, {LSTRDICT_DELETE, "never"}};
  EXPECT_EQ(DictRecords(path("dict/log")), expected);
  LoggedStrDictThreadDataFree(dtd);
  // A record of no one's type (3), covered by a checkpoint, fails the replay and the open.
  QWLog *log = LogOpen(path("dict/log").c_str(), 0);
  ASSERT_NE(log, nullptr) << QWErrorMessage();
  ASSERT_TRUE(LogWrite(log, 3, "x", 1, 0));
  unsigned char covered[8];
  for (int i = 0; i < 8; ++i) covered[i] = uint8_t(LogLastSerial(log) >> (8 * i));
  ASSERT_TRUE(LogWrite(log, LVM_CHECKPOINT, covered, 8, LOG_WRITE_FLUSH));
  ASSERT_TRUE(LogClose(log));
  EXPECT_EQ(LoggedStrDictOpen(path("dict").c_str(), 0), nullptr);
  const std::string chain = QWErrorMessage();
  EXPECT_EQ(chain.substr(0, chain.find('\n')), "could not replay generic LVM operation") << chain;

  // A deleted key leaves an empty entry under its id; the id handed out
  // again to another key makes the old key's entry that key's.
  ASSERT_TRUE(Set("first", "one"));
  ASSERT_TRUE(LoggedStrTableDelete(table, td, "first", 5));
  EXPECT_EQ(Get("first"), "<absent>");
  EXPECT_EQ(Enumerate(""), TableModel{});
  ASSERT_TRUE(Set("second", "two"));
  EXPECT_EQ(Get("first"), "<absent>");
  EXPECT_EQ(Get("second"), "two");
  EXPECT_EQ(Get(""), "<absent>");
  EXPECT_FALSE(Set("", "v"));
  ASSERT_TRUE(LoggedStrTableCheckpoint(table, 1)) << QWErrorMessage();
  Close(false);
  // The box still holds the first key's id, now the second key's entry, and
  // the dictionary reused it.
  BoxLVM *raw = BoxLVMOpen((tableDir() + "/box").c_str(), 2, 1, 1, 0, 1, nullptr);
  ASSERT_NE(raw, nullptr) << QWErrorMessage();
  EXPECT_EQ(BoxLVMSize(raw), 1u);
  BoxLVMClose(raw, 0);
}

TEST_F(StrTableTest, EveryTableStopCrashedInAChildKeepsACheckpointedTable) {
  TableModel before, after;
  ASSERT_NO_FATAL_FAILURE(Open());
  for (int i = 0; i < 20; ++i) {
    before["key" + std::to_string(i)] = std::string(100 + i * 400, char('a' + i));
    ASSERT_TRUE(Set("key" + std::to_string(i), before["key" + std::to_string(i)]));
  }
  Close(true);
  after = before;
  for (int i = 10; i < 30; ++i) after["key" + std::to_string(i)] = std::string(50 + i * 300, char('A' + i % 26));
  std::filesystem::copy(tableDir(), path("snapshot"), std::filesystem::copy_options::recursive);
  // A table stop also fires for the dictionary's arena directory.
  for (const auto &[stop, at] : {std::pair(0, ""), {1, ""}, {2, ""}, {3, ""}, {1, "/dict/vm"}}) {
    const std::string name = "lstrtablecheckpoint" + std::to_string(stop);
    SCOPED_TRACE(name + at);
    std::filesystem::remove_all(tableDir());
    std::filesystem::copy(path("snapshot"), tableDir(), std::filesystem::copy_options::recursive);
    ASSERT_TRUE(qwtest::CrashAtStop(
        name.c_str(), tableDir() + at,
        [&] {
          table = LoggedStrTableOpen(tableDir().c_str(), 2, 1, 2, 0, nullptr);
          if (!table) return false;
          for (const auto &[key, value] : after)
            if (before.count(key) == 0 || before.at(key) != value)
              if (!Set(key, value)) return false;
          return true;
        },
        [&] { (void)LoggedStrTableCheckpoint(table, 1); }));
    table = nullptr;
    ASSERT_NO_FATAL_FAILURE(Open());
    // The dictionary runs ahead of the box from stop 2 on: a new key it knows
    // but the box does not read as absent; the box holds round 2 at stop 3.
    ASSERT_NO_FATAL_FAILURE(ExpectHolds(stop == 3 ? after : before));
    Close(false);
  }
}

}  // namespace
