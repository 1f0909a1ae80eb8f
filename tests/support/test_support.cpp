#include "support/test_support.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>
#include <sstream>

namespace qwtest {
namespace {

std::mutex captureMutex;
std::vector<CapturedMessage> captured;

void CaptureHandler(void *, int level, const char *, int, const char *text) {
  std::lock_guard<std::mutex> lock(captureMutex);
  captured.push_back({level, text});
}

}  // namespace

void TempDirTest::SetUp() {
  const char *base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/qwvm-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  ASSERT_NE(mkdtemp(buffer.data()), nullptr);
  dir_ = buffer.data();
}

void TempDirTest::TearDown() {
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
  QWErrorClear();
}

MessageCapture::MessageCapture() {
  clear();
  previous_ = QWSetMessageHandler(CaptureHandler, nullptr, &previousContext_);
}

MessageCapture::~MessageCapture() { QWSetMessageHandler(previous_, previousContext_, nullptr); }

std::vector<CapturedMessage> MessageCapture::messages() const {
  std::lock_guard<std::mutex> lock(captureMutex);
  return captured;
}

bool MessageCapture::contains(const std::string &text, int level) const {
  for (const auto &m : messages())
    if (m.text == text && (level == 0 || m.level == level)) return true;
  return false;
}

void MessageCapture::clear() {
  std::lock_guard<std::mutex> lock(captureMutex);
  captured.clear();
}

ChildResult RunInChild(const std::function<void()> &body) {
  int pipeFds[2];
  ChildResult result;
  if (pipe(pipeFds) != 0) return result;
  std::fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    close(pipeFds[0]);
    dup2(pipeFds[1], STDOUT_FILENO);
    body();
    std::fflush(nullptr);
    _exit(0);
  }
  close(pipeFds[1]);
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0) result.out.append(buffer, size_t(n));
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) {
    result.exited = true;
    result.exitStatus = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  return result;
}

std::string ReadFileBytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFileBytes(const std::string &path, const std::string &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), std::streamsize(bytes.size()));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QWTEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QWTEST_SANITIZED 1
#endif
#endif
#ifndef QWTEST_SANITIZED
#define QWTEST_SANITIZED 0
#endif

uint64_t SweepStride(uint64_t sanitizedStride) {
  const char *full = std::getenv("QWVM_FAULT_FULL");
  if (!QWTEST_SANITIZED || (full && std::string(full) == "1") || sanitizedStride == 0) return 1;
  return sanitizedStride;
}

bool InSweep(uint64_t i, uint64_t first, uint64_t last, uint64_t stride) {
  return i == first || i == last || (i - first) % stride == 0;
}

std::vector<uint64_t> SweepPoints(uint64_t first, uint64_t last, uint64_t sanitizedStride) {
  std::vector<uint64_t> points;
  const uint64_t stride = SweepStride(sanitizedStride);
  for (uint64_t i = first; i <= last; ++i)
    if (InSweep(i, first, last, stride)) points.push_back(i);
  return points;
}

void ReadersBesideWriter(int readers, const std::function<void(const std::atomic<bool> &writing)> &read,
                         const std::function<void()> &write) {
  std::atomic<bool> writing{true};
  std::vector<std::thread> threads;
  for (int i = 0; i < readers; ++i) threads.emplace_back([&] { read(writing); });
  write();
  writing = false;
  for (std::thread &thread : threads) thread.join();
}

void RunModel(std::mt19937 &rng, int steps, const std::vector<ModelStep> &table,
              const std::function<void(int step)> &after) {
  for (int step = 0; step < steps; ++step) {
    SCOPED_TRACE("model step " + std::to_string(step));
    unsigned draw = unsigned(rng() % 100);
    for (const ModelStep &entry : table) {
      if (draw < entry.percent) {
        entry.run();
        break;
      }
      draw -= entry.percent;
    }
    if (after && !::testing::Test::HasFatalFailure()) after(step);
    if (::testing::Test::HasFatalFailure()) return;
  }
}

}  // namespace qwtest
