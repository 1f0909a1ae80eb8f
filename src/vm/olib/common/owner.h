// Ownership of a half-opened structure while its open call runs: if the open
// fails, the structure is freed with its own free function, and the error
// that made the open fail is the one the caller sees.
#pragma once

#include <memory>

#include "qwvm/qwlib.h"

namespace qw::olib {

template <auto FreeFunction>
struct FreeKeepingError {
  template <class T>
  void operator()(T *object) const {
    QWErrorSave();
    (void)FreeFunction(object);
    QWErrorRestore();
  }
};

template <class T, auto FreeFunction>
using Owner = std::unique_ptr<T, FreeKeepingError<FreeFunction>>;

}  // namespace qw::olib
