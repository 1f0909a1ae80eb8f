// What a QWFILE handle points to, shared by the file, channel and mapping
// functions.
#pragma once

#include <cerrno>
#include <string>

#include "qwvm/qwfile.h"
#include "qwvm/qwlib.h"

// Invariant: fd is an open descriptor for the whole life of the object; the
// object is freed by QWFileClose, which also closes fd.
struct QWFileObject {
  int fd = -1;
  std::string path;  // as given to QWFileOpen, for messages and the seam
};

namespace qw {

// True for a usable handle; otherwise raises "invalid file handle" (22).
[[nodiscard]] inline bool ValidFile(QWFILE file) {
  if (file != QWFILE_INVALID && file->fd >= 0) return true;
  QWErrorThrow(EINVAL, QW_ERROR_CLASS_SYSTEM, "invalid file handle");
  return false;
}

}  // namespace qw
