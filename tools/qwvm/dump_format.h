// The text of `qwvm dump` and `qwvm load` (the format is described in
// docs/dump-format.md): byte strings escaped, records split into fields,
// and a reader that names the line of whatever it refuses.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/qwvm/progress.h"

namespace qwtool {

inline constexpr const char *kDumpMagic = "qwvm-dump";
inline constexpr uint32_t kDumpVersion = 1;

// A byte string as one field: bytes 0x21..0x7E other than '\' as they are,
// every other byte as \xHH (lower-case hex); the empty string as "-", and a
// lone "-" byte as \x2d so that the two differ.
std::string Escape(const void *bytes, size_t size);
inline std::string Escape(const std::string &bytes) { return Escape(bytes.data(), bytes.size()); }
// The inverse; false when `field` is not an escaped string.
bool Unescape(const std::string &field, std::string *bytes);

// Writes records, one line each, fields separated by one space, and counts
// them for the closing "end" record.
class DumpWriter {
 public:
  // `progress` (may be null) counts the records.
  explicit DumpWriter(FILE *out, Progress *progress = nullptr) : out_(out), progress_(progress) {}
  void Record(const std::vector<std::string> &fields);
  // The last line: "end <records>"; false when the output failed.
  bool Finish();

 private:
  FILE *out_;
  Progress *progress_;
  uint64_t records_ = 0;
};

// Reads records back. Every refusal is an error (code EBADMSG, class data)
// "line N: ...", so that the user can find the line.
class DumpReader {
 public:
  explicit DumpReader(FILE *in) : in_(in) {}
  // The next record's fields; false at the "end" record (after checking its
  // count and that nothing follows) or on an error (QWErrorIsSet()).
  bool Next(std::vector<std::string> *fields);
  uint64_t Line() const { return line_; }
  // Raises "line N: <what>"; returns false.
  bool Bad(const char *format, ...) const __attribute__((format(printf, 2, 3)));

 private:
  FILE *in_;
  uint64_t line_ = 0, records_ = 0;
};

// A decimal field in [0, limit]; false (and Bad) when it is not one.
bool ParseNumber(const DumpReader &reader, const std::string &field, uint64_t limit, uint64_t *value);

}  // namespace qwtool
