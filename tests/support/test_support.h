// Shared helpers of the test suites (tests/README.md lists them): temporary
// directories, message capture, child processes, sweeps and model loops.
// Arenas: arena_support.h; crashes and disk faults: fault_support.h.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "qwvm/qwvm.h"

namespace qwtest {

// Fixture: each test gets its own empty directory, removed afterwards.
class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  const std::string &dir() const { return dir_; }
  std::string path(const std::string &name) const { return dir_ + "/" + name; }

 private:
  std::string dir_;
};

struct CapturedMessage {
  int level;
  std::string text;
};

// A temporary directory and a page cache; TearDown calls CloseAll()
// (structures, then their arena) before it frees the cache and path buffer.
class CachedTempDirTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    cache = PageCacheNew(cacheBytes, 8192);
    ASSERT_NE(cache, nullptr) << QWErrorMessage();
  }
  void TearDown() override {
    CloseAll();
    ArrayFree(pathBuffer);
    PageCacheFree(cache);
    TempDirTest::TearDown();
  }
  virtual void CloseAll() {}

  uint64_t cacheBytes = 32 << 20;  // a subclass's constructor may set a smaller cache
  PageCache *cache = nullptr;
  uint8_t *pathBuffer = nullptr;  // the structures' path buffer (qwlib growable array)
};

// A capturing message handler (every level) for its lifetime.
class MessageCapture {
 public:
  MessageCapture();
  ~MessageCapture();
  MessageCapture(const MessageCapture &) = delete;
  MessageCapture &operator=(const MessageCapture &) = delete;

  std::vector<CapturedMessage> messages() const;
  // True when some message has exactly this text (and this level, if given).
  bool contains(const std::string &text, int level = 0) const;
  void clear();

 private:
  QWMessageHandler previous_;
  void *previousContext_;
};

struct ChildResult {
  bool exited = false;  // ended by exit() rather than a signal
  int exitStatus = -1;  // valid when exited
  int signal = 0;       // valid when !exited
  std::string out;      // everything the child wrote to stdout
};

// Forks; the child runs `body`, then _exit(0). Returns how it ended and its stdout.
ChildResult RunInChild(const std::function<void()> &body);

// A whole file ("" when missing); replacing a file's bytes.
std::string ReadFileBytes(const std::string &path);
void WriteFileBytes(const std::string &path, const std::string &bytes);

// Sweeps (every cut of a file, every sync of a commit) visit every point,
// except under the sanitizers: every `sanitizedStride`-th point there, the
// first and last always; QWVM_FAULT_FULL=1 restores every point.
uint64_t SweepStride(uint64_t sanitizedStride);
// Whether point `i` of a sweep over [first, last] runs at `stride`.
bool InSweep(uint64_t i, uint64_t first, uint64_t last, uint64_t stride);
// The points of a sweep over [first, last] that run at SweepStride(sanitizedStride).
std::vector<uint64_t> SweepPoints(uint64_t first, uint64_t last, uint64_t sanitizedStride);

// Runs `readers` threads of `read` beside `write` in this thread; `writing`
// turns false once write returns (also on a failed assertion); then joins.
void ReadersBesideWriter(int readers, const std::function<void(const std::atomic<bool> &writing)> &read,
                         const std::function<void()> &write);

// One kind of step of a random model test and its share of the draws.
struct ModelStep {
  unsigned percent;
  std::function<void()> run;
};

// `steps` times: draws rng() % 100, runs the table entry whose share holds the
// draw (in table order; past the last share nothing runs), then `after(step)`.
// Stops at the first fatal failure, naming the step; the caller goes on unless
// it checks HasFatalFailure() (a failed step may have left its handles null).
void RunModel(std::mt19937 &rng, int steps, const std::vector<ModelStep> &table,
              const std::function<void(int step)> &after = {});

}  // namespace qwtest
