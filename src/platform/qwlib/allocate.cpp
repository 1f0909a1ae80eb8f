// Allocation with source position: failures name the caller's file and line.
#include <cstdlib>
#include <cstring>

#include "qwvm/qwlib.h"

extern "C" {

QW_API void *Allocate_(size_t size, const char *file, int line) {
  void *memory = std::calloc(1, size ? size : 1);
  if (!memory) QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory allocating %zu bytes at %s:%d", size, file, line);
  return memory;
}

QW_API void *Reallocate_(void *memory, size_t size, const char *file, int line) {
  void *grown = std::realloc(memory, size ? size : 1);
  if (!grown) QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory allocating %zu bytes at %s:%d", size, file, line);
  return grown;
}

QW_API void UnAllocate_(void *memory) { std::free(memory); }

QW_API char *Strdup_(const char *text, const char *file, int line) {
  size_t length = std::strlen(text) + 1;
  char *copy = static_cast<char *>(Allocate_(length, file, line));
  if (copy) std::memcpy(copy, text, length);
  return copy;
}

}  // extern "C"
