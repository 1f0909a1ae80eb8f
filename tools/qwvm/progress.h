// Progress of a long command on stderr: "qwvm copy: 1200/4000 blocks (30%),
// 5400 blocks/s". On a terminal one line is rewritten in place, at most ten
// times a second; with --progress on a pipe a full line is written at most
// once a second. Disabled, it prints nothing at all.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace qwtool {

class Progress {
 public:
  // `forced`: the command's --progress flag; otherwise enabled only when
  // stderr is a terminal.
  Progress(const char *command, const char *unit, bool forced);
  ~Progress() { Finish(); }
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  // 0 when the total is unknown: "done" is then printed alone.
  void SetTotal(uint64_t total) { total_ = total; }
  uint64_t Done() const { return done_; }
  void Add(uint64_t count);
  // Prints the final figures (and ends the terminal line); idempotent.
  void Finish();

  // Takes "--progress" out of `args`; true when it was there.
  static bool TakeFlag(int *argc, char **argv);

 private:
  void Print(bool last);

  std::string command_, unit_;
  bool enabled_, terminal_, printed_ = false, finished_ = false;
  uint64_t total_ = 0, done_ = 0;
  std::chrono::steady_clock::time_point start_, last_;
};

}  // namespace qwtool
