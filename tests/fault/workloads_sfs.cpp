// Small file store workload: each round puts files of 0 bytes to 70 KiB in
// a few directories and overwrites some files of earlier rounds.
#include <map>

#include "fault/workloads.h"

namespace faulttest {
namespace {

class SFSWorkload : public Workload {
 public:
  std::unique_ptr<Workload> Clone() const override { return std::make_unique<SFSWorkload>(*this); }

  bool Open(const std::string &directory, PageCache *, bool) override {
    store_ = SFSOpen(directory.c_str(), 1, 0, 2, nullptr);
    return store_ != nullptr;
  }

  bool Apply(uint32_t round) override {
    static constexpr uint32_t kLengths[] = {0, 1, 700, 4090, 4091, 8192, 12000, 40000, 70000};
    std::vector<std::pair<std::string, std::string>> puts;
    for (uint32_t i = 0; i < 20; ++i)
      puts.emplace_back("d" + std::to_string(i % 3) + "/r" + std::to_string(round) + "-f" + std::to_string(i),
                        Content(round, i, kLengths[(i + round) % 9]));
    uint32_t k = 0;
    for (const auto &entry : model_)
      if (k++ % 5 == round % 5) puts.emplace_back(entry.first, Content(round, 500 + k, kLengths[k % 9]));
    if (!SFSAcquire(store_, 0)) return false;
    bool ok = true;
    for (const auto &[path, bytes] : puts) {
      const uint32_t handle = SFSHandleGet(store_, path.data(), uint32_t(path.size()), 1, NEWGEN);
      ok = handle != SFS_NO_HANDLE && SFSSet(store_, handle, bytes.data(), uint32_t(bytes.size())) == 1;
      if (!ok) break;
      model_[path] = bytes;
    }
    QWErrorSave();
    const bool released = SFSRelease(store_, 0) != 0;
    QWErrorRestore();
    return ok && released;
  }

  bool Commit() override { return SFSCommit(store_) == 1; }

  std::string Dump(uint32_t gen) override {
    std::vector<std::pair<std::string, uint32_t>> files;
    auto collect = [](void *context, const char *path, uint32_t length, uint32_t handle) {
      static_cast<std::vector<std::pair<std::string, uint32_t>> *>(context)->emplace_back(std::string(path, length),
                                                                                          handle);
      return 1;
    };
    if (!SFSList(store_, "", 0, gen, collect, &files)) return std::string("error: list: ") + QWErrorMessage();
    std::map<std::string, std::string> contents;
    for (const auto &[path, listed] : files) {
      const uint32_t handle = SFSHandleGet(store_, path.data(), uint32_t(path.size()), 0, gen);
      if (handle == SFS_NO_HANDLE || SFSGetArray(store_, handle, &buffer_, 0) != 1)
        return "error: file " + path + ": " + QWErrorMessage();
      contents[path] = std::string(reinterpret_cast<const char *>(buffer_), ArrayLength(buffer_));
    }
    return DumpFiles(contents);
  }
  std::string ModelDump() const override { return DumpFiles(model_); }

  void Close() override {
    if (store_) SFSClose(store_);
    store_ = nullptr;
    ArrayFree(buffer_);
    buffer_ = nullptr;
  }

 private:
  static std::string DumpFiles(const std::map<std::string, std::string> &files) {
    std::string out = "files " + std::to_string(files.size()) + "\n";
    for (const auto &[path, bytes] : files) out += path + " " + Digest(bytes.data(), bytes.size()) + "\n";
    return out;
  }

  SFS *store_ = nullptr;
  uint8_t *buffer_ = nullptr;
  std::map<std::string, std::string> model_;
};

}  // namespace

std::unique_ptr<Workload> MakeSFS() { return std::make_unique<SFSWorkload>(); }

}  // namespace faulttest
