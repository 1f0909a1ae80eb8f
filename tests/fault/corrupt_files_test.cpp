// Damaged files: every workload commits two rounds, then each file of its
// directory is damaged in turn (cut to nothing, to half, by its last byte;
// one byte flipped at the start, the middle, the end and inside the second
// page; the second 8192-byte block zeroed; a byte flipped in every block)
// and the store is opened and read in a child process.
//
// Nothing may crash. The open may refuse the store (with an error chain) or
// succeed; reading may fail with an error or return other content. The one
// way a child may end early is a failed assertion on stored data, and then
// only after the open succeeded and with the arena tagged corrupted first.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "fault/workloads.h"
#include "support/test_support.h"

namespace faulttest {
namespace {

namespace fs = std::filesystem;

struct Damage {
  const char *name;
  // The damaged content of `bytes`; false when it does not apply to this size.
  bool (*apply)(std::string *bytes);
};

bool Flip(std::string *bytes, size_t at) {
  if (at >= bytes->size()) return false;
  (*bytes)[at] = char((*bytes)[at] ^ 0x5A);
  return true;
}

const Damage kDamages[] = {
    {"cut to nothing", [](std::string *b) { return !b->empty() && (b->clear(), true); }},
    {"cut to half", [](std::string *b) { return b->size() > 1 && (b->resize(b->size() / 2), true); }},
    {"last byte cut", [](std::string *b) { return !b->empty() && (b->pop_back(), true); }},
    {"first byte flipped", [](std::string *b) { return Flip(b, 0); }},
    {"middle byte flipped", [](std::string *b) { return Flip(b, b->size() / 2); }},
    {"last byte flipped", [](std::string *b) { return !b->empty() && Flip(b, b->size() - 1); }},
    {"byte 4103 flipped", [](std::string *b) { return Flip(b, 4103); }},
    {"second block zeroed",
     [](std::string *b) {
       if (b->size() <= 8192) return false;
       std::fill(b->begin() + 8192, b->begin() + std::min<size_t>(b->size(), 16384), '\0');
       return true;
     }},
    {"a byte flipped in every block",
     [](std::string *b) {
       for (size_t block = 0; block * 8192 < b->size(); ++block) Flip(b, block * 8192 + (block * 977 + 100) % 8192);
       return b->size() > 100;
     }},
};

class DamagedFiles : public qwtest::TempDirTest, public ::testing::WithParamInterface<WorkloadKind> {
 protected:
  std::string storeDir() const { return path("store"); }

  // Every regular file under the store, as paths relative to it.
  std::vector<std::string> StoreFiles() const {
    std::vector<std::string> files;
    for (const auto &entry : fs::recursive_directory_iterator(storeDir()))
      if (entry.is_regular_file()) files.push_back(fs::relative(entry.path(), storeDir()).string());
    std::sort(files.begin(), files.end());
    return files;
  }

  bool Tagged() const {
    for (const auto &entry : fs::recursive_directory_iterator(storeDir()))
      if (entry.path().filename() == "corrupted") return true;
    return false;
  }

  // Opens and reads the store in a child: prints "refused" and the error
  // chain, or "opened" and then the dump.
  qwtest::ChildResult OpenAndRead(const Workload &model) {
    return qwtest::RunInChild([&] {
      QWSetMessageHandler(Silent, nullptr, nullptr);
      std::unique_ptr<Workload> w = model.Clone();
      PageCache *cache = PageCacheNew(8 << 20, 8192);
      if (!w->Open(storeDir(), cache, false)) {
        std::printf("refused\n%s", QWErrorMessage());
      } else {
        std::printf("opened\n");
        std::fflush(stdout);
        std::printf("%s", w->Dump(NEWGEN).c_str());
        w->Close();
      }
      PageCacheFree(cache);
      std::fflush(stdout);
    });
  }
};

TEST_P(DamagedFiles, OpenRefusesOrReadsAndNothingCrashes) {
  std::unique_ptr<Workload> base = GetParam().make();
  {
    PageCache *cache = PageCacheNew(8 << 20, 8192);
    ASSERT_TRUE(base->Open(storeDir(), cache, true)) << QWErrorMessage();
    ASSERT_TRUE(base->Apply(1) && base->Commit() && base->Apply(2) && base->Commit()) << QWErrorMessage();
    base->Close();
    PageCacheFree(cache);
  }
  const std::string snapshot = path("snapshot");
  fs::copy(storeDir(), snapshot, fs::copy_options::recursive);
  const uint64_t stride = qwtest::SweepStride(3);
  uint64_t cases = 0, run = 0, refused = 0, asserted = 0;
  for (const std::string &file : StoreFiles()) {
    for (const Damage &damage : kDamages) {
      fs::remove_all(storeDir());
      fs::copy(snapshot, storeDir(), fs::copy_options::recursive);
      std::string bytes = qwtest::ReadFileBytes(storeDir() + "/" + file);
      if (!damage.apply(&bytes)) continue;
      if (cases++ % stride != 0) continue;
      ++run;
      qwtest::WriteFileBytes(storeDir() + "/" + file, bytes);
      const qwtest::ChildResult child = OpenAndRead(*base);
      const std::string where = file + ", " + damage.name;
      if (child.exited) {
        EXPECT_EQ(child.exitStatus, 0) << where;
        if (child.out.rfind("refused", 0) == 0) {
          ++refused;
          EXPECT_GT(child.out.size(), std::string("refused\n").size()) << where << ": refused without an error";
        }
        continue;
      }
      // A failed assertion on stored data: only after the open, and tagged.
      ++asserted;
      EXPECT_EQ(child.signal, SIGABRT) << where << ": killed by signal " << child.signal;
      EXPECT_EQ(child.out.rfind("opened", 0), 0u) << where << ": the open itself aborted";
      EXPECT_TRUE(Tagged()) << where << ": aborted without tagging the arena corrupted";
    }
  }
  std::printf("damaged files: %s %llu cases run of %llu (%llu refused at open, %llu asserted after tagging)\n",
              GetParam().name, static_cast<unsigned long long>(run), static_cast<unsigned long long>(cases),
              static_cast<unsigned long long>(refused), static_cast<unsigned long long>(asserted));
}

INSTANTIATE_TEST_SUITE_P(Workloads, DamagedFiles, ::testing::ValuesIn(AllWorkloads()),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace faulttest
