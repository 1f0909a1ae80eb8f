// The caller's path buffer: a growable byte array (qwlib) holding a path
// prefix, empty or ending in "/". Structures append their own name while
// they open their parts and give the buffer its length back when done.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "qwvm/qwlib.h"

namespace qw::olib {

class PathScope {
 public:
  // Initialises a NULL buffer (then owned by the caller); ok() reports it.
  explicit PathScope(uint8_t **buffer) : buffer_(buffer) {
    ok_ = *buffer_ != nullptr || ArrayInit(*buffer_, 1, 64);
    saved_ = ok_ ? ArrayLength(*buffer_) : 0;
  }
  ~PathScope() {
    if (*buffer_) (void)ArrayLengthSet(*buffer_, saved_);  // shrinking never fails
  }
  PathScope(const PathScope &) = delete;
  PathScope &operator=(const PathScope &) = delete;

  [[nodiscard]] bool ok() const { return ok_; }

  // Appends text; false (error set) when memory runs out.
  [[nodiscard]] bool Append(const std::string &text) {
    const size_t at = ArrayLength(*buffer_);
    if (!ArrayGrow(*buffer_, text.size())) return false;
    std::memcpy(*buffer_ + at, text.data(), text.size());
    return true;
  }

  // The buffer's whole content.
  [[nodiscard]] std::string Text() const {
    return std::string(reinterpret_cast<const char *>(*buffer_), ArrayLength(*buffer_));
  }

 private:
  uint8_t **buffer_;
  size_t saved_ = 0;
  bool ok_ = false;
};

}  // namespace qw::olib
