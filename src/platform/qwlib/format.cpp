#include "platform/qwlib/format.h"

#include <cstdio>

namespace qw {

std::string FormatV(const char *format, va_list args) {
  char small[256];
  va_list copy;
  va_copy(copy, args);
  int needed = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (needed < 0) return std::string(format);
  if (size_t(needed) < sizeof small) return std::string(small, size_t(needed));
  std::string text(size_t(needed) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, args);
  text.resize(size_t(needed));
  return text;
}

std::string Format(const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = FormatV(format, args);
  va_end(args);
  return text;
}

}  // namespace qw
