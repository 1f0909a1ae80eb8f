// The fault seam's switchboard: mode word, counters, injection rules, the
// mapping-name registry and CrashAtSync. The durability journal itself lives
// in durability.cpp and power_loss.cpp.
//
// Invariant: gMode == 0 exactly when the seam is disabled; then no rule,
// crash target or journal exists. kRules is set exactly when `rules` is
// non-empty, kCrash exactly when a crash target is pending.
#include "platform/qwlib/fault.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/qwlib/durability.h"
#include "qwvm/qwlib.h"

namespace qw::fault {
namespace detail {
std::atomic<uint32_t> gMode{0};
}  // namespace detail

namespace {

using detail::gMode;

struct Rule {
  uint64_t nth = 0;  // 0: fail every match (FailPath)
  bool persistent = false;
  uint32_t mask = 0;
  std::string substring;
  uint64_t matches = 0;
};

struct CrashTarget {
  uint64_t atSync = 0;
  PowerLoss mode = PowerLoss::Drop;
  uint64_t seed = 0;
};

struct Switchboard {
  std::mutex mutex;  // guards everything below; never taken while disabled
  std::vector<Rule> rules;
  CrashTarget crash;
  struct MappedFile {
    uint64_t length;
    std::string path;
  };
  std::map<const char *, MappedFile> mappingPaths;  // by start address
};

Switchboard &Board() {
  static Switchboard board;
  return board;
}

std::atomic<uint64_t> gOperations{0};
std::atomic<uint64_t> gSyncs{0};

bool IsSync(Op op) { return op == Op::Sync || op == Op::MapSync || op == Op::DirSync; }

bool PathMatches(const Rule &rule, const char *path, const char *path2) {
  if (rule.substring.empty()) return true;
  if (path && std::string_view(path).find(rule.substring) != std::string_view::npos) return true;
  return path2 && std::string_view(path2).find(rule.substring) != std::string_view::npos;
}

// Counts the operation against every matching rule; true when one fires.
bool RulesFire(Op op, const char *path, const char *path2) {
  Switchboard &board = Board();
  std::lock_guard<std::mutex> lock(board.mutex);
  bool fire = false;
  for (Rule &rule : board.rules) {
    if ((rule.mask & Bit(op)) == 0 || !PathMatches(rule, path, path2)) continue;
    ++rule.matches;
    if (rule.nth == 0 || rule.matches == rule.nth || (rule.persistent && rule.matches > rule.nth)) fire = true;
  }
  return fire;
}

// The n-th sync after CrashAtSync does the power loss instead of syncing.
void CrashIfTargeted(uint64_t syncNumber) {
  CrashTarget target;
  {
    Switchboard &board = Board();
    std::lock_guard<std::mutex> lock(board.mutex);
    if ((gMode.load(std::memory_order_relaxed) & detail::kCrash) == 0 || board.crash.atSync != syncNumber) return;
    target = board.crash;
  }
  track::ApplyPowerLoss(target.mode, target.seed);
  std::fflush(nullptr);
  _exit(1);
}

}  // namespace

const char *OpName(Op op) noexcept {
  switch (op) {
    case Op::Open: return "open";
    case Op::Read: return "read";
    case Op::Write: return "write";
    case Op::SetSize: return "setsize";
    case Op::Stat: return "stat";
    case Op::Sync: return "sync";
    case Op::Close: return "close";
    case Op::Rename: return "rename";
    case Op::Remove: return "remove";
    case Op::Truncate: return "truncate";
    case Op::Mkdir: return "mkdir";
    case Op::Rmdir: return "rmdir";
    case Op::DirSync: return "dirsync";
    case Op::List: return "list";
    case Op::Map: return "map";
    case Op::Unmap: return "unmap";
    case Op::MapSync: return "mapsync";
    case Op::Advise: return "advise";
  }
  return "unknown";
}

namespace detail {

bool CheckSlow(Op op, const char *path, const char *path2) noexcept {
  const uint32_t mode = gMode.load(std::memory_order_relaxed);
  const uint64_t number = gOperations.fetch_add(1, std::memory_order_relaxed) + 1;
  static const bool trace = std::getenv("QWVM_FAULT_TRACE") != nullptr;
  if (trace)
    std::fprintf(stderr, "fault seam: %d: operation %llu: %s \"%s\"\n", int(getpid()), (unsigned long long)number,
                 OpName(op), path ? path : "");
  if (IsSync(op)) {
    const uint64_t syncNumber = gSyncs.fetch_add(1, std::memory_order_relaxed) + 1;
    if (mode & kCrash) CrashIfTargeted(syncNumber);
  }
  if ((mode & kRules) && RulesFire(op, path, path2))
    return QWErrorThrow(EIO, QW_ERROR_CLASS_SYSTEM, "injected I/O error in %s \"%s\"", OpName(op), path ? path : "");
  return true;
}

bool CheckWriteSlow(int fd, const char *path, uint64_t offset, const void *data, size_t size) noexcept {
  if (!CheckSlow(Op::Write, path, nullptr)) return false;
  if (Tracking()) track::BeforeWrite(fd, offset, data, size);
  return true;
}

bool CheckMappingSlow(Op op, const void *address) noexcept {
  std::string path;
  {
    Switchboard &board = Board();
    std::lock_guard<std::mutex> lock(board.mutex);
    const char *inside = static_cast<const char *>(address);
    auto it = board.mappingPaths.upper_bound(inside);
    if (it != board.mappingPaths.begin()) {
      --it;
      if (uint64_t(inside - it->first) < it->second.length) path = it->second.path;
    }
  }
  return CheckSlow(op, path.c_str(), nullptr);
}

}  // namespace detail

void NoteMapping(const void *address, uint64_t length, const char *path) noexcept {
  Switchboard &board = Board();
  std::lock_guard<std::mutex> lock(board.mutex);
  board.mappingPaths[static_cast<const char *>(address)] = {length, path ? path : ""};
}

void ForgetMapping(const void *address) noexcept {
  Switchboard &board = Board();
  std::lock_guard<std::mutex> lock(board.mutex);
  board.mappingPaths.erase(static_cast<const char *>(address));
}

void Reset() noexcept {
  {
    Switchboard &board = Board();
    std::lock_guard<std::mutex> lock(board.mutex);
    board.rules.clear();
    board.crash = CrashTarget{};
    // Counting goes on; mapping names stay, they describe live mappings.
    gMode.store(detail::kArmed, std::memory_order_relaxed);
    gOperations.store(0, std::memory_order_relaxed);
    gSyncs.store(0, std::memory_order_relaxed);
  }
  track::Clear();
}

void Disable() noexcept {
  Reset();
  Switchboard &board = Board();
  std::lock_guard<std::mutex> lock(board.mutex);
  board.mappingPaths.clear();
  gMode.store(0, std::memory_order_relaxed);
}

void FailNth(uint64_t n, bool persistent, uint32_t opMask, const char *pathSubstring) noexcept {
  Switchboard &board = Board();
  std::lock_guard<std::mutex> lock(board.mutex);
  Rule rule;
  rule.nth = n == 0 ? 1 : n;
  rule.persistent = persistent;
  rule.mask = opMask;
  rule.substring = pathSubstring ? pathSubstring : "";
  board.rules.push_back(std::move(rule));
  gMode.fetch_or(detail::kArmed | detail::kRules, std::memory_order_relaxed);
}

void FailPath(const char *pathSubstring, uint32_t opMask) noexcept {
  Switchboard &board = Board();
  std::lock_guard<std::mutex> lock(board.mutex);
  Rule rule;
  rule.mask = opMask;
  rule.substring = pathSubstring ? pathSubstring : "";
  board.rules.push_back(std::move(rule));
  gMode.fetch_or(detail::kArmed | detail::kRules, std::memory_order_relaxed);
}

uint64_t OperationCount() noexcept { return gOperations.load(std::memory_order_relaxed); }

uint64_t SyncCount() noexcept { return gSyncs.load(std::memory_order_relaxed); }

void EnableDurabilityTracking(bool on) noexcept {
  if (on) {
    gMode.fetch_or(detail::kArmed | detail::kTracking, std::memory_order_relaxed);
    return;
  }
  {
    Switchboard &board = Board();
    std::lock_guard<std::mutex> lock(board.mutex);
    board.crash = CrashTarget{};  // a crash without a journal would prove nothing
    gMode.fetch_and(~(detail::kTracking | detail::kCrash), std::memory_order_relaxed);
  }
  track::Clear();
}

void SimulatePowerLoss(PowerLoss mode, uint64_t seed) noexcept { track::ApplyPowerLoss(mode, seed); }

void CrashAtSync(uint64_t n, PowerLoss mode, uint64_t seed) noexcept {
  Switchboard &board = Board();
  std::lock_guard<std::mutex> lock(board.mutex);
  board.crash.atSync = gSyncs.load(std::memory_order_relaxed) + (n == 0 ? 1 : n);
  board.crash.mode = mode;
  board.crash.seed = seed;
  gMode.fetch_or(detail::kArmed | detail::kTracking | detail::kCrash, std::memory_order_relaxed);
}

}  // namespace qw::fault
