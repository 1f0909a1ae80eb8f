// Status files: numbered 64-bit parameters of a directory, kept in a small
// checksummed text file (format and recovery rule in qwlog.h).
//
// Invariant on disk: `status`, when present, is always a complete file that
// some StatusWrite synced before renaming it into place; `status.new` is
// either a write in progress, a complete write whose rename was lost, or a
// stale leftover. The reader trusts `status.new` only when `status` is
// missing and the checksum proves it complete.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include "platform/qwutil/bytes.h"
#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"
#include "qwvm/qwlog.h"

struct QWStatus {
  std::map<uint32_t, uint64_t> parameters;
};

namespace {

constexpr std::string_view kFirstLine = "qwvm status 1";
// A status file holds a handful of parameters; anything this large is not one.
constexpr size_t kMaxFileBytes = size_t(64) << 20;

std::string StatusPath(const char *dir) { return std::string(dir) + "/status"; }
std::string StatusNewPath(const char *dir) { return std::string(dir) + "/status.new"; }

std::string Format(const QWStatus &status) {
  std::string text(kFirstLine);
  text += '\n';
  char line[64];
  for (const auto &[number, value] : status.parameters) {
    std::snprintf(line, sizeof line, "%" PRIu32 " %" PRIu64 "\n", number, value);
    text += line;
  }
  std::snprintf(line, sizeof line, "end %zu %08" PRIx32 "\n", status.parameters.size(),
                qw::Crc32c(0, text.data(), text.size()));
  text += line;
  return text;
}

// Parses a decimal number of at most `max`; digits only, no sign or blanks.
bool ParseDecimal(std::string_view text, uint64_t max, uint64_t *value) {
  if (text.empty() || text.size() > 20) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = uint64_t(c - '0');
    if (v > (max - digit) / 10) return false;
    v = v * 10 + digit;
  }
  *value = v;
  return true;
}

bool ParseHex32(std::string_view text, uint32_t *value) {
  if (text.size() != 8) return false;
  uint32_t v = 0;
  for (char c : text) {
    uint32_t digit;
    if (c >= '0' && c <= '9') digit = uint32_t(c - '0');
    else if (c >= 'a' && c <= 'f') digit = uint32_t(c - 'a' + 10);
    else return false;
    v = (v << 4) | digit;
  }
  *value = v;
  return true;
}

// Splits "x y" at its only blank.
bool SplitPair(std::string_view line, std::string_view *first, std::string_view *second) {
  const size_t blank = line.find(' ');
  if (blank == std::string_view::npos) return false;
  *first = line.substr(0, blank);
  *second = line.substr(blank + 1);
  return second->find(' ') == std::string_view::npos;
}

// Parses a whole file; on failure `reason` says what is wrong.
bool Parse(std::string_view text, QWStatus *status, std::string *reason) {
  size_t pos = 0;
  unsigned lineNumber = 0;
  auto nextLine = [&](std::string_view *line) {
    const size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) return false;
    *line = text.substr(pos, end - pos);
    pos = end + 1;
    ++lineNumber;
    return true;
  };
  std::string_view line;
  if (!nextLine(&line) || line != kFirstLine) return *reason = "first line is not \"qwvm status 1\"", false;
  for (;;) {
    const size_t lineStart = pos;
    if (!nextLine(&line)) return *reason = "no end line", false;
    std::string_view first, second;
    if (line.substr(0, 4) == "end ") {
      uint64_t count = 0;
      uint32_t crc = 0;
      if (!SplitPair(line.substr(4), &first, &second) || !ParseDecimal(first, UINT64_MAX, &count) ||
          !ParseHex32(second, &crc))
        return *reason = "line " + std::to_string(lineNumber) + " is not \"end <count> <crc>\"", false;
      if (count != status->parameters.size())
        return *reason = "end line counts " + std::to_string(count) + " parameters, the file has " +
                         std::to_string(status->parameters.size()),
               false;
      if (crc != qw::Crc32c(0, text.data(), lineStart)) return *reason = "checksum mismatch", false;
      if (pos != text.size()) return *reason = "data after the end line", false;
      return true;
    }
    uint64_t number = 0, value = 0;
    if (!SplitPair(line, &first, &second) || !ParseDecimal(first, UINT32_MAX, &number) ||
        !ParseDecimal(second, UINT64_MAX, &value))
      return *reason = "line " + std::to_string(lineNumber) + " is not \"<number> <value>\"", false;
    if (!status->parameters.empty() && number <= status->parameters.rbegin()->first)
      return *reason = "parameter " + std::to_string(number) + " out of order on line " + std::to_string(lineNumber),
             false;
    status->parameters.emplace_hint(status->parameters.end(), uint32_t(number), value);
  }
}

[[nodiscard]] int ReadWholeFile(const std::string &path, std::string *text) {
  std::unique_ptr<QWChannel, decltype(&ChannelClose)> channel(ChannelNew(0), &ChannelClose);
  if (!channel) return QWErrorRethrow("could not read status file \"%s\"", path.c_str());
  if (!ChannelOpenFile(channel.get(), path.c_str(), "r"))
    return QWErrorRethrow("could not open status file \"%s\"", path.c_str());
  char buffer[4096];
  for (;;) {
    size_t got = 0;
    if (!qw::ChannelReadUpTo(channel.get(), buffer, sizeof buffer, &got))
      return QWErrorRethrow("could not read status file \"%s\"", path.c_str());
    text->append(buffer, got);
    if (got < sizeof buffer) return 1;
    if (text->size() > kMaxFileBytes)
      return QWErrorThrow(qw::kMalformedCode, QW_ERROR_CLASS_DATA, "malformed status file \"%s\": over %zu bytes",
                          path.c_str(), kMaxFileBytes);
  }
}

enum class Outcome { kRead, kMalformed, kFailed };

// Reads and parses one candidate file; kMalformed leaves a data error set.
Outcome ReadCandidate(const std::string &path, QWStatus *status) {
  std::string text;
  if (!ReadWholeFile(path, &text)) return QWErrorClass() == QW_ERROR_CLASS_DATA ? Outcome::kMalformed : Outcome::kFailed;
  std::string reason;
  if (Parse(text, status, &reason)) return Outcome::kRead;
  QWErrorThrow(qw::kMalformedCode, QW_ERROR_CLASS_DATA, "malformed status file \"%s\": %s", path.c_str(),
               reason.c_str());
  return Outcome::kMalformed;
}

QWStatus *ReadStatus(const char *dir, uint32_t flags) {
  auto status = std::make_unique<QWStatus>();
  const std::string path = StatusPath(dir);
  if (FileExists(path.c_str())) return ReadCandidate(path, status.get()) == Outcome::kRead ? status.release() : nullptr;
  // No `status`: a complete `status.new` is a first write whose rename was
  // lost; an incomplete one is a first write that never finished.
  const std::string newPath = StatusNewPath(dir);
  if (FileExists(newPath.c_str())) {
    const Outcome outcome = ReadCandidate(newPath, status.get());
    if (outcome == Outcome::kRead) return status.release();
    if (outcome == Outcome::kFailed) return nullptr;
    status->parameters.clear();
  }
  if (flags & STATUS_READ_MISSING_OK) {
    QWErrorClear();
    return status.release();
  }
  QWErrorThrow(2, QW_ERROR_CLASS_SYSTEM, "no status file in \"%s\"", dir);
  return nullptr;
}

// Writes, syncs and closes `path` with `text`.
[[nodiscard]] int WriteSynced(const std::string &path, const std::string &text) {
  QWChannel *channel = ChannelNew(0);
  if (channel == nullptr) return 0;
  if (!ChannelOpenFile(channel, path.c_str(), "w") || !ChannelWriteBuf(channel, text.data(), text.size()) ||
      !ChannelSync(channel)) {
    QWErrorSave();
    (void)ChannelClose(channel);
    QWErrorRestore();
    return 0;
  }
  return ChannelClose(channel);
}

std::mutex &WriteMutex() {
  static std::mutex mutex;
  return mutex;
}

int WriteStatus(const QWStatus *status, const char *dir) {
  const std::string text = Format(*status);
  const std::string path = StatusPath(dir);
  const std::string newPath = StatusNewPath(dir);
  // Two writers of one process would share `status.new`.
  std::lock_guard<std::mutex> guard(WriteMutex());
  if (!WriteSynced(newPath, text)) return QWErrorRethrow("could not write status file \"%s\"", newPath.c_str());
  if (!FileRename(newPath.c_str(), path.c_str()))
    return QWErrorRethrow("could not move \"%s\" to \"%s\"", newPath.c_str(), path.c_str());
  if (!DirectorySync(dir)) return QWErrorRethrow("could not sync directory \"%s\" after writing its status", dir);
  return 1;
}

int OutOfMemory(const char *what) { return QWErrorThrow(ENOMEM, QW_ERROR_CLASS_SYSTEM, "%s: out of memory", what); }

}  // namespace

QWStatus *StatusNew(void) {
  try {
    return std::make_unique<QWStatus>().release();
  } catch (const std::bad_alloc &) {
    OutOfMemory("StatusNew");
    return nullptr;
  }
}

void StatusFree(QWStatus *status) { std::unique_ptr<QWStatus> owned(status); }

QWStatus *StatusRead(const char *dir) { return StatusRead_(dir, 0); }

QWStatus *StatusRead_(const char *dir, uint32_t flags) {
  try {
    return ReadStatus(dir, flags);
  } catch (const std::bad_alloc &) {
    OutOfMemory("StatusRead");
    return nullptr;
  }
}

int StatusWrite(const QWStatus *status, const char *dir) {
  try {
    return WriteStatus(status, dir);
  } catch (const std::bad_alloc &) {
    return OutOfMemory("StatusWrite");
  }
}

uint64_t StatusGetParameter(const QWStatus *status, uint32_t number) {
  auto it = status->parameters.find(number);
  return it == status->parameters.end() ? 0 : it->second;
}

int StatusSetParameter(QWStatus *status, uint32_t number, uint64_t value) {
  try {
    status->parameters[number] = value;
    return 1;
  } catch (const std::bad_alloc &) {
    return OutOfMemory("StatusSetParameter");
  }
}

int StatusEnumerate(const QWStatus *status, QWStatusVisitor visit, void *context) {
  for (const auto &[number, value] : status->parameters)
    if (!visit(context, number, value)) return 0;
  return 1;
}
