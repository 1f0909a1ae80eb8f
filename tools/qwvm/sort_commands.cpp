// qwvm sort: sorts lines in byte order, as `LC_ALL=C sort` does, through the
// generic sorter, so that a sort killed at any moment can be finished with
// `qwvm sort --resume DIR`.
//
// State directory S (-T DIR: DIR/qwvm-sort; otherwise $TMPDIR/qwvm-sort.<pid>,
// removed at the end): S/job, a text file naming the flags, the output and
// the inputs, written before anything else (S is made as S.new with its job
// and renamed, so that a state directory always has its job); the sorter (S/meta, S/data)
// with, in its arena, the array "sortjob/progress": [0] phase (0 reading,
// 1 every line is in a run), [1] the input being read, [2] the offset in it
// up to which lines are in committed runs. A round of reading fills one
// writer per thread, flushes them (in parallel) into runs, records the
// progress and commits; the merges (down to as many runs as can be read at
// once) commit their own checkpoints; the last pass reads those runs
// together, without changing them, straight into OUT.qwvm-sort-tmp (started
// over after a crash), which is renamed onto OUT, and only then is the state
// removed. Each line is a key with an empty value, so equal lines
// group into one entry whose value count is the number of copies.
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cerrno>
#include <cstdarg>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tools/qwvm/commands.h"

namespace qwtool {
namespace {

struct Job {
  bool reverse = false, compress = false, progress = false;
  uint32_t parallel = 1;
  uint64_t memory = 256ull << 20;
  std::string output;  // empty: standard output
  std::vector<std::string> inputs;  // "-": standard input
};

int Fail(const std::string &what) {
  std::fprintf(stderr, "qwvm sort: %s\n", what.c_str());
  if (QWErrorIsSet()) std::fprintf(stderr, "%s\n", QWErrorMessage());
  return 2;
}

// GNU's size syntax: a number and an optional unit (b, K, M, G, T; none
// means K), or a percentage of physical memory.
bool ParseSize(const std::string &text, uint64_t *bytes) {
  char *end = nullptr;
  const unsigned long long n = std::strtoull(text.c_str(), &end, 10);
  if (end == text.c_str()) return false;
  const std::string unit(end);
  uint64_t scale = 1024;
  if (unit == "%") {
    *bytes = uint64_t(sysconf(_SC_PHYS_PAGES)) * uint64_t(sysconf(_SC_PAGESIZE)) / 100 * n;
    return n <= 100;
  }
  if (unit == "b") scale = 1;
  else if (unit == "K" || unit == "k" || unit.empty()) scale = 1ull << 10;
  else if (unit == "M" || unit == "m") scale = 1ull << 20;
  else if (unit == "G" || unit == "g") scale = 1ull << 30;
  else if (unit == "T" || unit == "t") scale = 1ull << 40;
  else return false;
  *bytes = n * scale;
  return true;
}

std::string JobText(const Job &job) {
  std::ostringstream out;
  out << "qwvm sort job 1\nreverse " << job.reverse << "\ncompress " << job.compress << "\nparallel " << job.parallel
      << "\nmemory " << job.memory << "\noutput " << job.output << "\n";
  for (const auto &input : job.inputs) out << "input " << input << "\n";
  out << "end\n";
  return out.str();
}

bool ReadJob(const std::string &state, Job *job) {
  std::ifstream in(state + "/job");
  std::string line;
  if (!std::getline(in, line) || line != "qwvm sort job 1") return false;
  while (std::getline(in, line)) {
    const size_t space = line.find(' ');
    const std::string key = line.substr(0, space), value = space == std::string::npos ? "" : line.substr(space + 1);
    if (key == "end") return true;
    if (key == "reverse") job->reverse = value == "1";
    else if (key == "compress") job->compress = value == "1";
    else if (key == "parallel") job->parallel = uint32_t(std::max(1, std::atoi(value.c_str())));
    else if (key == "memory") job->memory = std::strtoull(value.c_str(), nullptr, 10);
    else if (key == "output") job->output = value;
    else if (key == "input") job->inputs.push_back(value);
    else return false;
  }
  return false;  // no end line: cut short
}

bool WriteJob(const std::string &state, const Job &job) {
  const std::string text = JobText(job), temp = state + "/job.new";
  QWFILE file = QWFILE_INVALID;
  bool ok = QWFileOpen(&file, temp.c_str(), QWFILE_WRITE | QWFILE_CREATE | QWFILE_TRUNCATE) &&
            QWFileWriteData(file, 0, text.data(), text.size()) && QWFileSync(file);
  ok = QWFileClose(file) && ok;
  return ok && FileRename(temp.c_str(), (state + "/job").c_str()) && DirectorySync(state.c_str());
}

// Block size: about 1/512 of the memory, 64 KiB .. 1 MiB, whole pages, so
// that 256 inputs, read at once, map half the memory: the runs of a
// gigabyte sorted in 64 MB on two threads (about 200) need no merge before
// the last pass.
uint32_t BlockSizeFor(uint64_t memory) {
  uint64_t size = std::clamp<uint64_t>(memory / 512, 64 << 10, 1 << 20);
  return uint32_t(size / PageSize() * PageSize());
}

class SortRun {
 public:
  SortRun(Job job, std::string state) : job_(std::move(job)), state_(std::move(state)) {}
  ~SortRun() {
    if (flushing_.valid()) flushing_.wait();
    for (auto *writer : writers_) GenericDBSorterWriterDelete(writer);
    if (sorter_) GenericDBSorterClose(sorter_);
  }
  int Run(bool fresh);

 private:
  bool Open();
  bool Progress(uint64_t phase, uint64_t input, uint64_t offset);
  int ReadInputs();
  bool FlushBank(size_t bank, uint64_t input, uint64_t offset, uint64_t bytesRead, bool last);
  bool HandBank(uint64_t input, uint64_t offset, bool last);
  bool WaitBank();
  int WriteOutput();
  void Say(const char *format, ...) __attribute__((format(printf, 2, 3)));

  Job job_;
  std::string state_;
  GenericDBSorter *sorter_ = nullptr;
  VMAArrayHandle progress_{};
  // Two banks of one writer per thread: one is filled while the other is
  // flushed (writers_[bank * parallel + i]).
  std::vector<GenericDBSorterWriter *> writers_;
  std::vector<uint64_t> lines_;
  size_t bank_ = 0;
  std::future<bool> flushing_;  // the other bank's flush, when one runs
  std::string flushError_;      // set by a failed flush
  uint64_t committedRead_ = 0;  // bytesRead_ at the last commit of the run phase
  uint64_t runBudget_ = 0, bytesRead_ = 0, runs_ = 0;
};

void SortRun::Say(const char *format, ...) {
  if (!job_.progress) return;
  va_list args;
  va_start(args, format);
  std::fprintf(stderr, "qwvm sort: ");
  std::vfprintf(stderr, format, args);
  std::fprintf(stderr, "\n");
  va_end(args);
}

bool SortRun::Open() {
  sorter_ = GenericDBSorterNew(state_.c_str(), 4, BlockSizeFor(job_.memory), 0, job_.reverse, 0, job_.compress);
  if (!sorter_) return false;
  // Eight write buffers: a writer fills the next block while the sync thread
  // writes the last ones back.
  DRBServerSetWriteBufferLimit(DBSorterServerGet(sorter_->dbs), 8);
  VMArena *arena = DBSorterArenaGet(sorter_->dbs);
  if (!VMAArrayInitFromPath(&progress_, arena, "sortjob", "progress")) return false;
  if (VMAArrayLength_(arena, progress_.id[NEWGEN], NEWGEN) == 0) {
    const uint64_t zero[3] = {0, 0, 0};
    if (!VMAArrayAppend_(arena, progress_.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, zero, 3, NEWGEN, 8) ||
        !GenericDBSorterCommit(sorter_))
      return false;
  }
  // Each writer of the two banks gets an equal share; a run's records (20
  // bytes a line) count against it as well as its bytes. Half the share: the
  // record array grows by doubling, so its capacity may pass its length
  // twofold, and the flush's sort keys take 16 bytes a line besides.
  const uint64_t buffers = 8ull * DBSorterBlockSize(sorter_->dbs);
  runBudget_ =
      std::max<uint64_t>((job_.memory - std::min(job_.memory / 2, buffers)) / (2 * job_.parallel) / 2, 1 << 16);
  runBudget_ = std::min<uint64_t>(runBudget_, 0xF0000000u);
  for (uint32_t i = 0; i < 2 * job_.parallel; ++i) {
    writers_.push_back(GenericDBSorterWriterNew(sorter_, runBudget_ * 2 / 3));
    if (!writers_.back()) return false;
  }
  lines_.assign(writers_.size(), 0);
  return true;
}

bool SortRun::Progress(uint64_t phase, uint64_t input, uint64_t offset) {
  const uint64_t values[3] = {phase, input, offset};
  return VMAArraySetRange_(DBSorterArenaGet(sorter_->dbs), progress_.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, 0, values,
                           3, NEWGEN, 8) &&
         GenericDBSorterCommit(sorter_);
}

// Flushes every writer of a bank into a run (each on its own thread) and
// commits the progress: lines before (input, offset) are all in committed
// runs (after the last bank: every line). A commit syncs the runs and the
// sorter's files, so it comes only once -S (at most 64 MB) more has been
// read, or at the end: a kill loses at most that much reading. Runs on a thread of its own
// while the other bank fills.
bool SortRun::FlushBank(size_t bank, uint64_t input, uint64_t offset, uint64_t bytesRead, bool last) {
  const size_t n = job_.parallel;
  GenericDBSorterWriter **writers = &writers_[bank * n];
  std::vector<int> results(n, 0);
  std::vector<std::string> errors(n);
  std::vector<std::thread> threads;
  auto flush = [&](size_t i) {
    results[i] = GenericDBSorterFlush(writers[i]);
    if (results[i] < 0) errors[i] = QWErrorMessage();
  };
  for (size_t i = 1; i < n; ++i) threads.emplace_back(flush, i);
  flush(0);
  for (auto &thread : threads) thread.join();
  for (size_t i = 0; i < n; ++i) {
    if (results[i] < 0) {
      flushError_ = errors[i];
      return false;
    }
    runs_ += uint64_t(results[i]);
    lines_[bank * n + i] = 0;
  }
  Say("read %" PRIu64 " MB, %" PRIu64 " runs", bytesRead >> 20, runs_);
  if (!last && bytesRead - committedRead_ < std::min<uint64_t>(job_.memory, 64u << 20)) return true;
  committedRead_ = bytesRead;
  if (last ? Progress(1, 0, 0) : Progress(0, input, offset)) return true;
  flushError_ = QWErrorMessage();
  return false;
}

// Waits for the other bank's flush; false when it failed.
bool SortRun::WaitBank() {
  if (!flushing_.valid() || flushing_.get()) return true;
  std::fprintf(stderr, "%s\n", flushError_.c_str());
  return false;
}

// Hands the bank just filled to a flush (once the other one's is done) and
// goes on filling the other.
bool SortRun::HandBank(uint64_t input, uint64_t offset, bool last) {
  if (!WaitBank()) return false;
  flushing_ = std::async(std::launch::async, &SortRun::FlushBank, this, bank_, input, offset, bytesRead_, last);
  bank_ ^= 1;
  return true;
}

int SortRun::ReadInputs() {
  uint64_t values[3] = {};
  for (uint32_t i = 0; i < 3; ++i) {
    uint32_t end = 0;
    void *at = VMAArrayRange_(DBSorterArenaGet(sorter_->dbs), progress_.id[NEWGEN], 0, ARENA_MAX_BLOCK_SIZE, i, &end,
                              NEWGEN, 1, 8, 0);
    if (!at) return Fail("cannot read the sort's progress in " + state_);
    std::memcpy(&values[i], at, 8);
    VMAArrayRelease_(DBSorterArenaGet(sorter_->dbs), progress_.id[NEWGEN], at, 1);
  }
  if (values[0] == 1) return 0;
  // Lines are cut where they lie in the chunk read; a line cut by the
  // chunk's end moves to its start before the next read.
  std::vector<char> chunk(1 << 20);
  const size_t perBank = job_.parallel;
  size_t writer = 0;  // in the bank being filled
  for (uint64_t f = values[1]; f < job_.inputs.size(); ++f) {
    const std::string &name = job_.inputs[f];
    const bool isStdin = name == "-";
    uint64_t offset = f == values[1] ? values[2] : 0;
    if (isStdin && offset > 0) return Fail("cannot resume: standard input was being read when the sort stopped");
    const int fd = isStdin ? 0 : ::open(name.c_str(), O_RDONLY);
    if (fd < 0) return Fail("cannot read " + name + ": " + std::strerror(errno));
    struct Closer {
      int fd;
      ~Closer() {
        if (fd > 0) ::close(fd);
      }
    } closer{isStdin ? -1 : fd};
    if (offset > 0 && lseek(fd, off_t(offset), SEEK_SET) < 0) return Fail("cannot seek in " + name);
    uint64_t lineStart = offset;  // file offset of chunk[0]
    size_t have = 0;              // bytes in chunk
    for (;;) {
      if (have + 1 >= chunk.size()) chunk.resize(chunk.size() * 2);  // a line longer than the chunk
      const ssize_t n = ::read(fd, chunk.data() + have, chunk.size() - 1 - have);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return Fail("cannot read " + name + ": " + std::strerror(errno));
      bytesRead_ += uint64_t(n);
      have += size_t(n);
      const bool atEnd = n == 0;
      if (atEnd && have > 0) chunk[have++] = '\n';  // a missing final newline
      size_t at = 0;
      for (const char *nl; (nl = static_cast<const char *>(std::memchr(chunk.data() + at, '\n', have - at)));
           at = size_t(nl - chunk.data()) + 1) {
        const uint32_t length = uint32_t(nl - chunk.data() - at);
        size_t w = bank_ * perBank + writer;
        if (GenericDBSorterWriterPending(writers_[w]) + 20 * (lines_[w] + 1) + length > runBudget_ &&
            lines_[w] > 0) {
          if (++writer == perBank) {
            writer = 0;
            if (!HandBank(f, lineStart + at, false)) return Fail("cannot write a run");
          }
          w = bank_ * perBank + writer;
        }
        if (!GenericDBSorterWrite(writers_[w], chunk.data() + at, length, nullptr, 0))
          return Fail("cannot add a line");
        ++lines_[w];
      }
      std::memmove(chunk.data(), chunk.data() + at, have - at);
      have -= at;
      lineStart += at;
      if (atEnd) break;
    }
  }
  if (!HandBank(job_.inputs.size(), 0, true) || !WaitBank()) return Fail("cannot write a run");
  return 0;
}

// The sorted lines go to the output through a thread of their own, so that
// the kernel's copying of them overlaps the merge: two buffers, one being
// filled while the other is written. A regular file has its pages sent to
// the disk as it grows, so that the sync before the rename finds little left.
class OutputWriter {
 public:
  // Buffers of `size` bytes (a line longer than that makes one longer).
  OutputWriter(int fd, bool regular, size_t size) : fd_(fd), regular_(regular), size_(size) {
    filling_.bytes.resize(size_ + 4096);
    writing_.bytes.resize(size_ + 4096);
    thread_ = std::thread([this] { Loop(); });
  }
  ~OutputWriter() { (void)Finish(); }
  // Appends `copies` lines of `length` bytes each.
  bool Line(const uint8_t *bytes, size_t length, uint64_t copies) {
    for (uint64_t c = 0; c < copies; ++c) {
      if (filling_.used + length + 1 > filling_.bytes.size()) filling_.bytes.resize(filling_.used + length + 1);
      char *at = filling_.bytes.data() + filling_.used;
      std::memcpy(at, bytes, length);
      at[length] = '\n';
      filling_.used += length + 1;
      if (filling_.used >= size_ && !Hand()) return false;
    }
    return true;
  }
  // Writes what is left and stops the thread; false when a write failed.
  bool Finish() {
    if (!thread_.joinable()) return !failed_;
    const bool ok = Hand();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    changed_.notify_all();
    thread_.join();
    return ok && !failed_;
  }

 private:
  // Hands the filled buffer to the thread once it has written the other.
  bool Hand() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return !busy_ || failed_; });
    if (failed_) return false;
    std::swap(filling_, writing_);
    filling_.used = 0;
    busy_ = true;
    changed_.notify_all();
    return true;
  }
  void Loop() {
    uint64_t written = 0, sent = 0;
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return busy_ || done_; });
        if (!busy_) return;
      }
      bool ok = true;
      for (size_t at = 0; ok && at < writing_.used;) {
        const ssize_t n = ::write(fd_, writing_.bytes.data() + at, writing_.used - at);
        if (n < 0 && errno == EINTR) continue;
        ok = n > 0;
        if (ok) at += size_t(n);
      }
      written += writing_.used;
#ifdef __linux__
      if (ok && regular_ && written - sent >= (16u << 20)) {
        (void)::sync_file_range(fd_, off_t(sent), off_t(written - sent), SYNC_FILE_RANGE_WRITE);
        sent = written;
      }
#endif
      std::lock_guard<std::mutex> lock(mutex_);
      failed_ = failed_ || !ok;
      busy_ = false;
      changed_.notify_all();
    }
  }

  const int fd_;
  const bool regular_;
  const size_t size_;
  struct Buffer {
    std::vector<char> bytes;
    size_t used = 0;
  };
  Buffer filling_, writing_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool busy_ = false, done_ = false, failed_ = false;
  std::thread thread_;
};

int SortRun::WriteOutput() {
  // A regular file is replaced only once the whole output is written; a
  // device or a pipe (-o /dev/null) is written in place, never replaced.
  struct stat info;
  const bool special = !job_.output.empty() && ::stat(job_.output.c_str(), &info) == 0 && !S_ISREG(info.st_mode);
  const std::string temp = job_.output.empty() || special ? std::string() : job_.output + ".qwvm-sort-tmp";
  const int fd = !temp.empty() ? ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666)
                 : special     ? ::open(job_.output.c_str(), O_WRONLY)
                               : 1;
  if (fd < 0) return Fail("cannot write " + (temp.empty() ? job_.output : temp) + ": " + std::strerror(errno));
  bool ok;
  {
    OutputWriter out(fd, !temp.empty(), std::clamp<size_t>(job_.memory / 32, 64 << 10, 2 << 20));
    ok = GenericDBSorterScan(
        sorter_,
        [](void *context, const KMVEntryView *entry) {
          if (static_cast<OutputWriter *>(context)->Line(entry->key, entry->keyLength, entry->records)) return 1;
          return QWErrorThrow(5, QW_ERROR_CLASS_SYSTEM, "write: %s", std::strerror(errno));
        },
        &out);
    ok = out.Finish() && ok;
  }
  if (special) ok = ::close(fd) == 0 && ok;
  if (!temp.empty()) {
    ok = fsync(fd) == 0 && ok;
    ok = ::close(fd) == 0 && ok;
    if (!ok) ::unlink(temp.c_str());
    else if (std::rename(temp.c_str(), job_.output.c_str()) != 0) ok = false;
  }
  return ok ? 0 : Fail("cannot write the output" + (job_.output.empty() ? std::string() : " " + job_.output));
}

int SortRun::Run(bool fresh) {
  if (fresh) {
    // The state appears whole or not at all: made under a temporary name
    // with its job file, then renamed into place.
    const std::string building = state_ + ".new";
    const std::string parent = std::filesystem::path(state_).parent_path().string();
    std::error_code ignored;
    std::filesystem::remove_all(building, ignored);
    std::filesystem::remove_all(state_ + ".done", ignored);
    if (!DirectoryCreate(building.c_str()) || !WriteJob(building, job_) ||
        !FileRename(building.c_str(), state_.c_str()) || !DirectorySync(parent.c_str()))
      return Fail("cannot create " + state_);
  }
  if (!Open()) return Fail("cannot open the sort state in " + state_);
  if (const int r = ReadInputs()) return r;
  // The writers' memory goes back before the merge maps its inputs.
  for (auto *writer : writers_) GenericDBSorterWriterDelete(writer);
  writers_.clear();
  Say("merging %" PRIu64 " MB in %" PRIu64 " runs", bytesRead_ >> 20, runs_);
  // Each merge input maps one block, and with compression holds two
  // payloads; the inputs get half the memory (their maps count in the
  // resident size), the rest is the write buffers and the heap.
  const uint64_t block = DBSorterBlockSize(sorter_->dbs);
  const uint64_t perInput = block + (job_.compress ? 3 * COMPRESSOR_THRESHOLD : 0);
  int sorted;
  {
    // A merge finished after a crash prints "RESTORE MERGE" on standard
    // output, where the sorted lines may go: while the library sorts, its
    // standard output is the tool's standard error.
    std::fflush(stdout);
    const int saved = ::dup(1);
    if (saved >= 0) ::dup2(2, 1);
    // Merges until the runs left can all be read at once: the last pass
    // writes the output itself.
    const uint64_t fanIn = std::min<uint64_t>(std::max<uint64_t>(job_.memory / 2 / perInput, 2), 1u << 20);
    sorted = GenericDBSorterSortDownTo(sorter_, fanIn * block, 1000000, uint32_t(fanIn));
    std::fflush(stdout);
    if (saved >= 0) ::dup2(saved, 1), ::close(saved);
  }
  if (!sorted) return Fail("merge failed; the sort can be finished with --resume " + state_);
  if (const int r = WriteOutput()) return r;
  Say("done");
  GenericDBSorterClose(sorter_);
  sorter_ = nullptr;
  // The state goes at once (a rename), then its files: a kill while they
  // are removed leaves no half state that --resume would refuse.
  std::error_code ignored;
  const std::string done = state_ + ".done";
  std::filesystem::remove_all(done, ignored);
  std::filesystem::remove_all(FileRename(state_.c_str(), done.c_str()) ? done : state_, ignored);
  return 0;
}

}  // namespace

bool SortJobReads(const std::string &state) {
  Job job;
  return ReadJob(state, &job);
}

int RunSort(int argc, char **argv) {
#ifdef __GLIBC__
  // Large buffers (a writer's bytes and records, a flush's sort keys) are
  // mapped and given back whole when freed: flushes run on threads that
  // come and go, and memory freed into a thread's heap would stay resident
  // beyond -S.
  (void)mallopt(M_MMAP_THRESHOLD, 256 << 10);
#endif
  Job job;
  job.progress = isatty(2) != 0;
  std::string tempDir, resume;
  bool outputGiven = false;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](const char *shortName, const char *longName, std::string *out) {
      const std::string longEq = std::string(longName) + "=";
      if (a == shortName || a == longName) {
        if (i + 1 >= argc) return false;
        *out = argv[++i];
        return true;
      }
      if (a.rfind(longEq, 0) == 0) return *out = a.substr(longEq.size()), true;
      if (a.size() > 2 && a.rfind(shortName, 0) == 0 && shortName[1] != '-') return *out = a.substr(2), true;
      return false;
    };
    std::string v;
    if (a == "-r" || a == "--reverse") job.reverse = true;
    else if (a == "--compress") job.compress = true;
    else if (a == "--progress") job.progress = true;
    else if (value("-S", "--buffer-size", &v)) {
      if (!ParseSize(v, &job.memory) || job.memory < (1 << 20)) return Fail("invalid size: " + v + " (at least 1M)");
    } else if (value("-T", "--temporary-directory", &v)) tempDir = v;
    else if (value("-o", "--output", &v)) job.output = v, outputGiven = true;
    else if (value("--parallel", "--parallel", &v)) {
      job.parallel = uint32_t(std::atoi(v.c_str()));
      if (job.parallel < 1 || job.parallel > 64) return Fail("invalid --parallel: " + v);
    } else if (value("--resume", "--resume", &v)) resume = v;
    else if (a.size() > 1 && a[0] == '-' && a != "-") return Fail("unknown option " + a);
    else job.inputs.push_back(a);
  }
  if (!job.progress) QWSetMessageThreshold(QW_LEVEL_WARNING);
  if (!resume.empty()) {
    std::string state = resume;
    if (!FileExists((state + "/job").c_str())) state = resume + "/qwvm-sort";
    Job saved;
    if (!ReadJob(state, &saved)) return Fail("no sort to resume in " + resume + " (missing or damaged job file)");
    saved.progress = job.progress;
    if (outputGiven) saved.output = job.output;
    return SortRun(saved, state).Run(false);
  }
  if (job.inputs.empty()) job.inputs.push_back("-");
  for (auto &input : job.inputs) {
    if (input == "-") continue;
    if (::access(input.c_str(), R_OK) != 0) return Fail("cannot read " + input + ": " + std::strerror(errno));
    input = std::filesystem::absolute(input).string();
  }
  if (!job.output.empty()) job.output = std::filesystem::absolute(job.output).string();
  const bool keepState = !tempDir.empty();
  if (tempDir.empty()) {
    const char *tmp = std::getenv("TMPDIR");
    tempDir = std::string(tmp && *tmp ? tmp : "/tmp");
  }
  const std::string state =
      std::filesystem::absolute(tempDir).string() + (keepState ? "/qwvm-sort" : "/qwvm-sort." + std::to_string(getpid()));
  if (FileExists((state + "/job").c_str()))
    return Fail("a sort is already kept in " + state + ": finish it with --resume or remove it");
  return SortRun(job, state).Run(true);
}

}  // namespace qwtool
