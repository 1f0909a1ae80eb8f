// Escaping and the record reader and writer of dumps; see dump_format.h.
#include "tools/qwvm/dump_format.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

#include "qwvm/qwvm.h"

namespace qwtool {
namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

std::string Escape(const void *data, size_t size) {
  static const char kHex[] = "0123456789abcdef";
  const auto *bytes = static_cast<const unsigned char *>(data);
  if (size == 0) return "-";
  std::string out;
  out.reserve(size);
  for (size_t i = 0; i < size; ++i) {
    const unsigned char c = bytes[i];
    if (c > 0x20 && c < 0x7F && c != '\\' && !(c == '-' && size == 1)) {
      out.push_back(char(c));
    } else {
      out += "\\x";
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

bool Unescape(const std::string &field, std::string *bytes) {
  bytes->clear();
  if (field == "-") return true;
  for (size_t i = 0; i < field.size(); ++i) {
    const unsigned char c = field[i];
    if (c <= 0x20 || c >= 0x7F) return false;
    if (c != '\\') {
      bytes->push_back(char(c));
      continue;
    }
    if (i + 3 >= field.size()) return false;
    if (field[i + 1] != 'x') return false;
    const int high = HexDigit(field[i + 2]), low = HexDigit(field[i + 3]);
    if (high < 0 || low < 0) return false;
    bytes->push_back(char(high << 4 | low));
    i += 3;
  }
  return !bytes->empty();  // the empty string is only ever "-"
}

void DumpWriter::Record(const std::vector<std::string> &fields) {
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i) std::fputc(' ', out_);
    std::fputs(fields[i].c_str(), out_);
  }
  std::fputc('\n', out_);
  ++records_;
  if (progress_) progress_->Add(1);
}

bool DumpWriter::Finish() {
  std::fprintf(out_, "end %llu\n", (unsigned long long)records_);
  return std::fflush(out_) == 0 && !std::ferror(out_);
}

bool DumpReader::Bad(const char *format, ...) const {
  char what[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(what, sizeof what, format, arguments);
  va_end(arguments);
  QWErrorThrow(EBADMSG, QW_ERROR_CLASS_DATA, "line %llu: %s", (unsigned long long)line_, what);
  return false;
}

bool DumpReader::Next(std::vector<std::string> *fields) {
  fields->clear();
  std::string line;
  int c = 0;
  while ((c = std::fgetc(in_)) != EOF && c != '\n') line.push_back(char(c));
  ++line_;
  if (c == EOF) {
    if (std::ferror(in_)) return QWErrorThrowErrno(errno, "cannot read the dump"), false;
    return Bad(line.empty() ? "the dump ends without its \"end\" record" : "the last line has no newline");
  }
  size_t start = 0;
  while (start <= line.size()) {
    const size_t space = line.find(' ', start);
    const size_t stop = space == std::string::npos ? line.size() : space;
    if (stop == start) return Bad("empty field (two spaces, or a space at an end of the line)");
    fields->push_back(line.substr(start, stop - start));
    start = stop + 1;
  }
  if ((*fields)[0] != "end") {
    ++records_;
    return true;
  }
  uint64_t count = 0;
  if (fields->size() != 2 || !ParseNumber(*this, (*fields)[1], UINT64_MAX, &count))
    return Bad("malformed \"end\" record");
  if (count != records_)
    return Bad("the dump holds %llu records, its \"end\" record says %llu", (unsigned long long)records_,
               (unsigned long long)count);
  if (std::fgetc(in_) != EOF) return ++line_, Bad("text after the \"end\" record");
  return false;
}

bool ParseNumber(const DumpReader &reader, const std::string &field, uint64_t limit, uint64_t *value) {
  char *end = nullptr;
  errno = 0;
  const unsigned long long number = std::strtoull(field.c_str(), &end, 10);
  if (field.empty() || field[0] < '0' || field[0] > '9' || *end != 0 || errno != 0 || number > limit ||
      (field.size() > 1 && field[0] == '0'))
    return reader.Bad("\"%s\" is not a number from 0 to %llu", field.c_str(), (unsigned long long)limit);
  *value = number;
  return true;
}

}  // namespace qwtool
