// Shared helpers of the test suites: a fresh temporary directory per test,
// capture of library messages, running a function in a child process (for
// crash tests and death-by-exit checks), and the loop of random model tests.
// Arenas: support/arena_support.h; crashes and disk faults: support/fault_support.h.
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
  // Absolute path of the test's directory.
  const std::string &dir() const { return dir_; }
  // dir() + "/" + name.
  std::string path(const std::string &name) const { return dir_ + "/" + name; }

 private:
  std::string dir_;
};

// One captured message.
struct CapturedMessage {
  int level;
  std::string text;
};

// A temporary directory and a page cache for tests of arena structures.
// TearDown calls CloseAll() (structures first, then their arena) before it
// frees the cache and the path buffer.
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

// Installs a capturing message handler for its lifetime (restores the
// previous one afterwards). Messages of every level are kept.
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

// Result of a child process.
struct ChildResult {
  bool exited = false;  // ended by exit() rather than a signal
  int exitStatus = -1;  // valid when exited
  int signal = 0;       // valid when !exited
  std::string out;      // everything the child wrote to stdout
};

// Forks; the child runs `body` and then _exit(0). The parent waits and
// returns how the child ended and what it printed on stdout.
ChildResult RunInChild(const std::function<void()> &body);

// Reads a whole file into a string (empty when missing).
std::string ReadFileBytes(const std::string &path);
// Writes bytes to a file, replacing it.
void WriteFileBytes(const std::string &path, const std::string &bytes);

// Exhaustive sweeps (every cut of a file, every sync of a commit) visit each
// point in a normal build. Under the sanitizers each point costs about ten
// times as much, so there a sweep takes every `sanitizedStride`-th point,
// always with the first and the last; QWVM_FAULT_FULL=1 restores every point.
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
// Stops at the first fatal failure, naming the step.
void RunModel(std::mt19937 &rng, int steps, const std::vector<ModelStep> &table,
              const std::function<void(int step)> &after = {});

}  // namespace qwtest
