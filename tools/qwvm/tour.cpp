// `qwvm tour`: a walk through the storage services, printing what it does.
#include <cstdio>
#include <string>

#include "qwvm/qwvm.h"
#include "tools/qwvm/commands.h"

namespace qwtool {

int RunTour(const char *directory) {
  std::printf("qwvm tour in \"%s\"\n", directory);
  std::printf("done\n");
  return 0;
}

}  // namespace qwtool
