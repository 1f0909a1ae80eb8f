// Sorting, the environment and the clock.
#include <stdlib.h>
#include <time.h>

#include <cerrno>

#include "qwvm/qwlib.h"

extern "C" {

QW_API void QSort(void *base, size_t count, size_t size, QWCompareFunction compare, void *context) {
  if (count > 1) qsort_r(base, count, size, compare, context);
}

QW_API int QWSetEnvironmentVariable(const char *name, const char *value) {
  int result = value ? setenv(name, value, 1) : unsetenv(name);
  if (result != 0) return QWErrorThrowErrno(errno, "could not set environment variable \"%s\"", name);
  return 1;
}

QW_API uint64_t GetCurrentTimeMilliseconds(void) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return uint64_t(now.tv_sec) * 1000u + uint64_t(now.tv_nsec) / 1000000u;
}

}  // extern "C"
