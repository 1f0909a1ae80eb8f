/* Compiled as C11 in every build: the public headers must stay C, and the
 * shared library must export the platform functions. */
#include <stdio.h>
#include <string.h>

#include "qwvm/qwvm.h"

int main(void) {
  uint32_t *values = NULL;
  if (!ArrayInit(values, sizeof(uint32_t), 4) || !ArrayAppend(values, 7u) || ArrayLength(values) != 1) {
    fprintf(stderr, "growable array through the C API failed\n");
    return 1;
  }
  ArrayFree(values);
  QWErrorThrow(2, QW_ERROR_CLASS_SYSTEM, "inner %d", 1);
  QWErrorRethrow("outer");
  if (QWErrorCode() != 2 || strcmp(QWErrorMessage(), "inner 1\nouter") != 0) {
    fprintf(stderr, "error chain through the C API failed: %s\n", QWErrorMessage());
    return 1;
  }
  QWErrorClear();
  if (GetCurrentTimeMilliseconds() == 0 || PageSize() == 0) return 1;
  PageCache *cache = PageCacheNew(1 << 20, 8192);
  QWStatus *status = StatusNew();
  if (!cache || !status || PageCacheGetPageSize(cache) != 8192 || !StatusSetParameter(status, 99, 1) ||
      StatusGetParameter(status, 99) != 1) {
    fprintf(stderr, "page cache or status through the C API failed\n");
    return 1;
  }
  StatusFree(status);
  PageCacheFree(cache);
  puts("C API OK");
  return 0;
}
