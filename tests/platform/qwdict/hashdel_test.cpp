// HashDelTable against std::unordered_map: inserts, finds and deletes through growths, clears, walks; bad arguments.
#include <cstring>
#include <random>
#include <unordered_map>

#include "platform/checks.h"
#include "qwvm/qwdict.h"

namespace {

struct Key {
  uint64_t a;
  uint32_t b;  // 12-byte keys: a tail shorter than 8 bytes
};

// Checks the table's contents against the model, by lookup and by walk.
void ExpectSame(HashDelTable *table, const std::unordered_map<uint64_t, uint64_t> &model) {
  ASSERT_EQ(HashDelTableCount(table), model.size());
  uint64_t position = 0, walked = 0;
  for (void *value; (value = HashDelTableEnumerate(table, &position)) != nullptr; ++walked) {
    Key key;
    std::memcpy(&key, HashDelTableKey(table, value), sizeof key);
    auto it = model.find(key.a);
    ASSERT_NE(it, model.end()) << key.a;
    EXPECT_EQ(key.b, uint32_t(key.a * 3));
    EXPECT_EQ(*static_cast<uint64_t *>(value), it->second);
  }
  EXPECT_EQ(walked, model.size());
}

TEST(HashDelTable, MatchesUnorderedMapThroughGrowthDeletesAndClears) {
  HashDelTable *table = HashDelTableNew(sizeof(Key), sizeof(uint64_t), 0);
  ASSERT_NE(table, nullptr);
  std::unordered_map<uint64_t, uint64_t> model;
  std::mt19937_64 rng(7);
  for (int round = 0; round < 4; ++round) {
    const uint64_t range = round == 3 ? 200000 : 3000;  // the last round grows far
    for (int op = 0; op < 60000; ++op) {
      Key key{};
      key.a = rng() % range;
      key.b = uint32_t(key.a * 3);
      const uint32_t action = rng() % 3;
      int found = -1;
      auto *value = static_cast<uint64_t *>(HashDelTableFind(table, &key, action, &found));
      const bool present = model.count(key.a) != 0;
      ASSERT_EQ(found, present ? 1 : 0) << "op " << op << " action " << action;
      if (action == HASHDEL_DELETE) {
        EXPECT_EQ(value, nullptr);
        model.erase(key.a);
      } else if (action == HASHDEL_INSERT) {
        ASSERT_NE(value, nullptr);
        EXPECT_TRUE(present || *value == 0u);  // zero-filled
        *value = model[key.a] = rng();
      } else {
        ASSERT_EQ(value != nullptr, present);
        EXPECT_TRUE(!present || *value == model[key.a]);
      }
    }
    ExpectSame(table, model);
    if (round == 1) {  // an O(1) clear empties it; old entries do not come back
      HashDelTableClear(table);
      model.clear();
      ExpectSame(table, model);
    }
  }
  ASSERT_EQ(HashDelTableGrow(table, 1000000), 1);
  ExpectSame(table, model);
  HashDelTableFree(table);

  EXPECT_TRUE(qwtest::Fails(HashDelTableNew(0, 4, 0), 22));
  EXPECT_EQ(HashDelTableNew(HASHDEL_MAX_KEY_SIZE + 1, 4, 0), nullptr);
  table = HashDelTableNew(4, 0, 0);
  ASSERT_NE(table, nullptr);
  const uint32_t key = 5;
  EXPECT_TRUE(qwtest::Fails(HashDelTableFind(table, &key, 3, nullptr), 22));
  HashDelTableFree(table);
}

}  // namespace
