// The progress printer; see progress.h.
#include "tools/qwvm/progress.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace qwtool {

Progress::Progress(const char *command, const char *unit, bool forced)
    : command_(command), unit_(unit), terminal_(isatty(2) != 0) {
  enabled_ = forced || terminal_;
  start_ = last_ = std::chrono::steady_clock::now();
}

bool Progress::TakeFlag(int *argc, char **argv) {
  bool found = false;
  int kept = 0;
  for (int i = 0; i < *argc; ++i) {
    if (std::strcmp(argv[i], "--progress") == 0) found = true;
    else argv[kept++] = argv[i];
  }
  *argc = kept;
  return found;
}

void Progress::Add(uint64_t count) {
  done_ += count;
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  const auto every = terminal_ ? std::chrono::milliseconds(100) : std::chrono::milliseconds(1000);
  if (now - last_ < every) return;
  last_ = now;
  Print(false);
}

void Progress::Finish() {
  if (finished_) return;
  finished_ = true;
  if (enabled_ && (printed_ || done_ > 0)) Print(true);
}

void Progress::Print(bool last) {
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  const double rate = seconds > 0 ? double(done_) / seconds : 0.0;
  char figures[160];
  if (total_ > 0)
    std::snprintf(figures, sizeof figures, "%llu/%llu %s (%llu%%), %.0f %s/s", (unsigned long long)done_,
                  (unsigned long long)total_, unit_.c_str(), (unsigned long long)(done_ * 100 / total_), rate,
                  unit_.c_str());
  else
    std::snprintf(figures, sizeof figures, "%llu %s, %.0f %s/s", (unsigned long long)done_, unit_.c_str(), rate,
                  unit_.c_str());
  if (terminal_) std::fprintf(stderr, "\rqwvm %s: %s\033[K%s", command_.c_str(), figures, last ? "\n" : "");
  else std::fprintf(stderr, "qwvm %s: %s\n", command_.c_str(), figures);
  std::fflush(stderr);
  printed_ = true;
}

}  // namespace qwtool
