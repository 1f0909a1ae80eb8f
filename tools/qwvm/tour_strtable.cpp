// The tour's string-table step: three keys set, one of them deleted, a
// committing checkpoint, then a read-only reopen that lists what is left.
#include <cstdio>
#include <map>
#include <string>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

const std::map<std::string, std::string> kPairs = {
    {"colour/sky", "blue"}, {"colour/grass", "green"}, {"shape/wheel", "round"}};
const char kDeleted[] = "colour/grass";

int Write(LoggedStrTable *table, LoggedStrTableThreadData *threadData) {
  for (const auto &[key, value] : kPairs) {
    if (!LoggedStrTableSet(table, threadData, key.data(), uint32_t(key.size()), value.data(), uint32_t(value.size())))
      return TourFail("LoggedStrTableSet");
    std::printf("   set \"%s\" = \"%s\"\n", key.c_str(), value.c_str());
  }
  if (!LoggedStrTableDelete(table, threadData, kDeleted, uint32_t(sizeof kDeleted - 1)))
    return TourFail("LoggedStrTableDelete");
  std::printf("   deleted \"%s\" (its box entry is emptied, its id freed)\n", kDeleted);
  if (!LoggedStrTableCheckpoint(table, 1)) return TourFail("LoggedStrTableCheckpoint");
  std::printf("   a committing checkpoint: the dictionary first, then the box\n");
  return 0;
}

// Lists every pair of the reopened table; 1 unless it holds exactly the
// pairs set and not deleted.
int List(LoggedStrTable *table) {
  LoggedStrTableEnumeration *enumeration = LoggedStrTableEnumerationNew(table, nullptr, 0);
  if (!enumeration) return TourFail("LoggedStrTableEnumerationNew");
  std::map<std::string, std::string> listed;
  const uint8_t *key = nullptr, *value = nullptr;
  uint32_t keyLength = 0, valueLength = 0;
  while (LoggedStrTableEnumerationGetNext(enumeration, &key, &keyLength, &value, &valueLength)) {
    const std::string keyText(key, key + keyLength), valueText(value, value + valueLength);
    listed[keyText] = valueText;
    std::printf("   \"%s\" = \"%s\"\n", keyText.c_str(), valueText.c_str());
  }
  LoggedStrTableEnumerationFree(enumeration);
  std::map<std::string, std::string> expected = kPairs;
  expected.erase(kDeleted);
  if (listed == expected) return 0;
  std::fprintf(stderr, "qwvm tour: the string table did not list what was left of it\n");
  return 1;
}

}  // namespace

int TourStrTable(const char *directory) {
  const std::string dir = std::string(directory) + "/strtable";
  std::printf("\n9. String table: byte-string keys in %s, ids from a logged dictionary, entries in a box\n",
              dir.c_str());
  QWSetMessageThreshold(QW_LEVEL_WARNING);
  LoggedStrTable *table = LoggedStrTableOpen(dir.c_str(), 4, 1, 1, 0, nullptr);
  LoggedStrTableThreadData *threadData = LoggedStrTableThreadDataNew();
  int status = !table ? TourFail("LoggedStrTableOpen")
               : !threadData ? TourFail("LoggedStrTableThreadDataNew")
                             : Write(table, threadData);
  LoggedStrTableThreadDataFree(threadData);
  if (table) LoggedStrTableClose(table, 0);
  table = nullptr;
  if (status == 0 && !(table = LoggedStrTableOpen(dir.c_str(), 4, 1, 1, 1, nullptr)))
    status = TourFail("LoggedStrTableOpen (read-only)");
  if (status == 0) {
    std::printf("   reopened read-only, listing it in key order:\n");
    status = List(table);
  }
  if (table) LoggedStrTableClose(table, 0);
  if (status == 0) std::printf("   by hand: qwvm strtable %s list colour/; qwvm strtable %s stat\n", dir.c_str(), dir.c_str());
  QWSetMessageThreshold(QW_LEVEL_PROGRESS);
  return status;
}

}  // namespace qwtool
