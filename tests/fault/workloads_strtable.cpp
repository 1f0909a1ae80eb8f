// String table workload: rounds that set, overwrite and delete keys that
// are prefixes of each other and hold bytes 0 and 255. Its commit is a
// committing table checkpoint. The table's box has one bucket, so that a
// loss inside the checkpoint leaves the old or the new table whole (see the
// box workload); the dictionary is checkpointed first, and a key it knows
// whose entry the box lacks reads as absent.
#include <map>

#include "fault/workloads.h"

namespace faulttest {
namespace {

class StrTableWorkload : public Workload {
 public:
  StrTableWorkload() = default;
  StrTableWorkload(const StrTableWorkload &other) : Workload(), model_(other.model_) {}
  ~StrTableWorkload() override { Close(); }

  std::unique_ptr<Workload> Clone() const override { return std::make_unique<StrTableWorkload>(*this); }

  bool Open(const std::string &directory, PageCache *cache, bool) override {
    table_ = LoggedStrTableOpen(directory.c_str(), 1, 1, 2, 0, cache);
    threadData_ = LoggedStrTableThreadDataNew();
    return table_ != nullptr && threadData_ != nullptr;
  }

  bool Apply(uint32_t round) override {
    for (uint32_t i = 0; i < 14; ++i) {
      const std::string key = Key((round * 3 + i * 5) % 20);
      if (i % 4 == 3) {
        if (!LoggedStrTableDelete(table_, threadData_, key.data(), uint32_t(key.size()))) return false;
        model_.erase(key);
        continue;
      }
      const std::string value = Content(round, i, (round * 613 + i * 2003) % 12000);
      if (!LoggedStrTableSet(table_, threadData_, key.data(), uint32_t(key.size()), value.data(),
                             uint32_t(value.size())))
        return false;
      model_[key] = value;
    }
    return true;
  }

  bool Commit() override { return LoggedStrTableCheckpoint(table_, 1) != 0; }

  std::string Dump(uint32_t) override {
    std::map<std::string, std::string> pairs;
    LoggedStrTableEnumeration *e = LoggedStrTableEnumerationNew(table_, "", 0);
    if (!e) return std::string("error: strtable: ") + QWErrorMessage();
    const uint8_t *key = nullptr, *value = nullptr;
    uint32_t keyLength = 0, valueLength = 0;
    while (LoggedStrTableEnumerationGetNext(e, &key, &keyLength, &value, &valueLength))
      pairs[std::string(key, key + keyLength)] = std::string(value, value + valueLength);
    const bool failed = QWErrorIsSet();
    LoggedStrTableEnumerationFree(e);
    if (failed) return std::string("error: strtable: ") + QWErrorMessage();
    // Every key reads back through Get as it enumerates.
    for (const auto &[k, v] : pairs) {
      const uint8_t *got = nullptr;
      uint32_t length = 0;
      if (!LoggedStrTableGet(table_, threadData_, k.data(), uint32_t(k.size()), &got, &length) ||
          std::string(got, got + length) != v)
        return "error: strtable: get disagrees with the enumeration for " + Digest(k.data(), k.size());
    }
    return Render(pairs);
  }
  std::string ModelDump() const override { return Render(model_); }

  void Close() override {
    if (table_) (void)LoggedStrTableClose(table_, 0);
    LoggedStrTableThreadDataFree(threadData_);
    table_ = nullptr;
    threadData_ = nullptr;
  }

 private:
  static std::string Key(uint32_t n) {
    static const std::string kStems[] = {std::string(1, '\0'), "k", "k\xff", std::string("k\0", 2)};
    return kStems[n % 4] + std::string(n / 4, char('a' + n % 3));
  }
  static std::string Render(const std::map<std::string, std::string> &pairs) {
    std::string out = "strtable " + std::to_string(pairs.size()) + "\n";
    for (const auto &[k, v] : pairs) out += Digest(k.data(), k.size()) + " " + Digest(v.data(), v.size()) + "\n";
    return out;
  }

  std::map<std::string, std::string> model_;
  LoggedStrTable *table_ = nullptr;
  LoggedStrTableThreadData *threadData_ = nullptr;
};

}  // namespace

std::unique_ptr<Workload> MakeStrTable() { return std::make_unique<StrTableWorkload>(); }

}  // namespace faulttest
