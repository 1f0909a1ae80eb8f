#include "vm/lbs/names.h"

#include <cstdarg>
#include <cstdio>

#include "qwvm/vmarena.h"

namespace qw::vm {

std::string StringPrintf(const char *format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(length > 0 ? size_t(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, args);
  va_end(args);
  return text;
}

std::string DataFilePath(const std::string &directory, const std::string &suffix) {
  return StringPrintf("%s/%s%s", directory.c_str(), "data", suffix.c_str());
}

std::string IndexFileName(const std::string &suffix, const char *kind) {
  return StringPrintf("%s%s%s", "index", suffix.c_str(), kind);
}

std::string IndexFilePath(const std::string &directory, const std::string &suffix, const char *kind, uint64_t serial) {
  if (serial == STATUS_NO_SERIAL) return StringPrintf("%s/%s%s%s", directory.c_str(), "index", suffix.c_str(), kind);
  return StringPrintf("%s/%s%s%s.%llu", directory.c_str(), "index", suffix.c_str(), kind,
                      static_cast<unsigned long long>(serial));
}

std::string IndexFileFlushPath(const std::string &directory, const std::string &suffix, const char *kind,
                               uint64_t serial) {
  if (serial == STATUS_NO_SERIAL)
    return StringPrintf("%s/%s%s%s%s", directory.c_str(), "index", suffix.c_str(), kind, ".new");
  return IndexFilePath(directory, suffix, kind, serial);
}

}  // namespace qw::vm
