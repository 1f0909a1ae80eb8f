// The two test hooks read from the environment: named crash stops and forced
// errors. Both read the environment afresh on every call, so a test can set
// and clear them between operations.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qwvm/qwlib.h"

extern "C" {

QW_API void QWCrashPoint(const char *stopName, const char *directory) {
  const char *stop = std::getenv("QWEXIT");
  if (!stop || std::strcmp(stop, stopName) != 0) return;
  const char *vm = std::getenv("QWVMEXIT");
  if (!vm || !directory || std::strcmp(vm, directory) != 0) return;
  std::printf("########## SIMULATED CRASH vm = %s, stop = %s\n", vm, stop);
  std::fflush(stdout);
  std::exit(1);
}

QW_API int QWForcedError(const char *functionName, int code, int errorClass) {
  const char *target = std::getenv("QWRETURNFALSE");
  if (!target || std::strcmp(target, functionName) != 0) return 0;
  const char *fuzz = std::getenv("QWRETURNFALSEFUZZ");
  int divisor = fuzz ? std::atoi(fuzz) : 0;
  if (divisor <= 0) divisor = 1;
  if (std::rand() % divisor != 0) return 0;
  QWErrorThrow(code, errorClass, "forced error in %s", functionName);
  return 1;
}

}  // extern "C"
