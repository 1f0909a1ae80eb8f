// Box workload: a box whose rounds store, overwrite and remove entries of
// one to three blocks. Its commit is a checkpoint that only syncs the data
// file and flushes the log (the round then survives through replay), or a
// committing one. Every open recovers.
//
// One bucket: buckets checkpoint one after another, so after a loss in the
// middle of a box checkpoint some buckets hold the new round and some the
// old one, which the campaign's old-or-new check cannot express. Each
// bucket on its own is old or new; the box tests check that bucket by
// bucket at every checkpoint stop.
#include <map>

#include "fault/workloads.h"

namespace faulttest {
namespace {

class BoxWorkload : public Workload {
 public:
  explicit BoxWorkload(bool commits) : commits_(commits) {}
  BoxWorkload(const BoxWorkload &other) : commits_(other.commits_), model_(other.model_) {}
  ~BoxWorkload() override { Close(); }

  std::unique_ptr<Workload> Clone() const override { return std::make_unique<BoxWorkload>(*this); }

  bool Open(const std::string &directory, PageCache *cache, bool create) override {
    box_ = BoxLVMOpen(directory.c_str(), 1, 1, 2, create, 0, cache);
    threadData_ = BoxLVMThreadDataNew();
    return box_ != nullptr && threadData_ != nullptr;
  }

  bool Apply(uint32_t round) override {
    for (uint32_t i = 0; i < 16; ++i) {
      const uint32_t id = (round * 5 + i * 3) % kIds;
      if (i % 5 == 4 && model_.count(id)) {
        if (!BoxLVMRemove(box_, id, nullptr)) return false;
        model_.erase(id);
        continue;
      }
      const std::string value = Content(round, i, 1 + (round * 977 + i * 3001) % 20000);
      if (!BoxLVMUpdate(box_, id, 0, 0, value.data(), uint32_t(value.size()), nullptr, nullptr)) return false;
      model_[id] = value;
    }
    return true;
  }

  bool Commit() override { return BoxLVMCheckpoint(box_, commits_ ? 1 : 0, nullptr) != 0; }

  std::string Dump(uint32_t) override {
    std::string out = "box " + std::to_string(BoxLVMSize(box_)) + "\n";
    uint8_t *bytes = nullptr;
    for (uint32_t id = 0; id < kIds; ++id) {
      const int found = BoxLVMGet(box_, threadData_, id, &bytes);
      if (!found && QWErrorIsSet()) {
        ArrayFree(bytes);
        return std::string("error: box: ") + QWErrorMessage();
      }
      if (found) out += std::to_string(id) + " " + Digest(bytes, ArrayLength(bytes)) + "\n";
    }
    ArrayFree(bytes);
    return out;
  }

  std::string ModelDump() const override {
    std::string out = "box " + std::to_string(model_.size()) + "\n";
    for (const auto &[id, value] : model_) out += std::to_string(id) + " " + Digest(value.data(), value.size()) + "\n";
    return out;
  }

  void Close() override {
    if (box_) (void)BoxLVMClose(box_, 0);
    BoxLVMThreadDataFree(threadData_);
    box_ = nullptr;
    threadData_ = nullptr;
  }

 private:
  static constexpr uint32_t kIds = 24;
  const bool commits_;
  std::map<uint32_t, std::string> model_;
  BoxLVM *box_ = nullptr;
  BoxLVMThreadData *threadData_ = nullptr;
};

}  // namespace

std::unique_ptr<Workload> MakeBoxReplayed() { return std::make_unique<BoxWorkload>(false); }
std::unique_ptr<Workload> MakeBoxCommitted() { return std::make_unique<BoxWorkload>(true); }

}  // namespace faulttest
