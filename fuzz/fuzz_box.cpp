// Fuzzes box recovery and reads over a damaged bucket. A box of 2 buckets is
// made once: entries of one to three blocks, a committing checkpoint, then
// overwrites, removals and new entries made durable by a checkpoint that
// does not commit, so that opening the box replays them from the log. Each
// input damages one file of one bucket in a fresh copy of that box:
//   byte 0     bit 0: the bucket; bit 1: its data file (0) or a log file
//              (1); bits 2-3: overwrite, xor, cut the file at the offset,
//              or overwrite and extend past the end; bits 4-7: which log
//              file (modulo their count, in name order)
//   bytes 1-4  the offset (little-endian), modulo the file's size (plus one)
//   the rest   the bytes written or xored
// Then the box is opened writable (so recovery replays the damaged bucket's
// log) and every entry read. Opening and reading may fail, but cleanly; an
// open box must read every entry of the undamaged bucket exactly as stored.
// QWVM_FUZZ_WRITE_SEEDS=<dir> writes seeds (one per file kind and bucket).
#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

#include "fuzz_support.h"

namespace {

namespace fs = std::filesystem;

std::string pristine, work;
std::map<uint32_t, std::string> model;  // the box after the last checkpoint
BoxLVMThreadData *threadData;
uint8_t *value;

std::string Value(uint32_t id, uint32_t size, char generation) {
  std::string v(size, '\0');
  for (uint32_t i = 0; i < size; ++i) v[i] = char(id * 31 + i * 7 + generation);
  return v;
}

void Put(BoxLVM *box, uint32_t id, uint32_t size, char generation) {
  model[id] = Value(id, size, generation);
  if (!BoxLVMUpdate(box, id, 0, 0, model[id].data(), size, nullptr, nullptr)) std::abort();
}

// The template box: committed entries 0 .. 11, then logged changes.
void MakeTemplate() {
  BoxLVM *box = BoxLVMOpen(pristine.c_str(), 2, 1, 1, 1, 0, nullptr);
  if (!box) std::abort();
  const uint32_t sizes[] = {1, 20, 100, 300, 4000, 8172, 8173, 20000, 64, 7, 500, 16400};
  for (uint32_t id = 0; id < 12; ++id) Put(box, id, sizes[id], 'a');
  if (!BoxLVMCheckpoint(box, 1, nullptr)) std::abort();
  for (uint32_t id : {1u, 4u, 7u}) Put(box, id, sizes[id] + 50, 'b');
  for (uint32_t id : {2u, 9u}) {
    if (!BoxLVMRemove(box, id, nullptr)) std::abort();
    model.erase(id);
  }
  Put(box, 12, 9000, 'c');
  Put(box, 13, 33, 'c');
  if (!BoxLVMCheckpoint(box, 0, nullptr) || !BoxLVMClose(box, 0)) std::abort();
}

std::vector<std::string> LogFiles(const std::string &bucket) {
  std::vector<std::string> files;
  for (const auto &entry : fs::directory_iterator(bucket + "/log"))
    if (entry.is_regular_file()) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

// The file input[0] names in the box at `root`, or "" when there is none.
std::string Target(const std::string &root, uint8_t selector) {
  const std::string bucket = root + "/bucket." + std::to_string(selector & 1);
  if (!(selector & 2)) return bucket + "/data/" BOXLVM_DATA_FILE_NAME;
  const std::vector<std::string> logs = LogFiles(bucket);
  return logs.empty() ? "" : logs[(selector >> 4) % logs.size()];
}

void Damage(const std::string &path, uint8_t mode, uint32_t offset, const uint8_t *bytes, size_t count) {
  std::string contents = qwfuzz::ReadAll(path);
  const size_t at = offset % (contents.size() + 1);
  switch (mode) {
    case 0:  // overwrite inside the file
      for (size_t i = 0; i < count && at + i < contents.size(); ++i) contents[at + i] = char(bytes[i]);
      break;
    case 1:  // xor
      for (size_t i = 0; i < count && at + i < contents.size(); ++i) contents[at + i] ^= char(bytes[i]);
      break;
    case 2:  // cut
      contents.resize(at);
      break;
    default:  // overwrite and extend
      if (contents.size() < at + count) contents.resize(at + count);
      std::memcpy(&contents[at], bytes, count);
      break;
  }
  qwfuzz::WriteAll(path, contents);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const std::string root = qwfuzz::Start("box");
  pristine = root + "/pristine";
  work = root + "/work";
  MakeTemplate();
  threadData = BoxLVMThreadDataNew();
  if (!threadData) std::abort();
  if (const std::string seeds = qwfuzz::SeedDir(); !seeds.empty()) {
    // Data file of bucket 1: xor a byte in the first block's header; log of
    // bucket 0: overwrite 4 bytes somewhere in the middle of the first file.
    qwfuzz::WriteAll(seeds + "/seed-data", std::string("\x05\x0c\x00\x00\x00\x01", 6));
    qwfuzz::WriteAll(seeds + "/seed-log", std::string("\x02\x00\x01\x00\x00\xff\xff\xff\xff", 9));
    qwfuzz::WriteAll(seeds + "/seed-log-cut", std::string("\x0b\x40\x00\x00\x00", 5));
    std::exit(0);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size) {
  if (size < 5) return 0;
  std::error_code error;
  fs::remove_all(work, error);
  fs::copy(pristine, work, fs::copy_options::recursive, error);
  if (error) std::abort();
  const uint8_t selector = input[0];
  const std::string target = Target(work, selector);
  if (target.empty()) return 0;
  const uint32_t offset = uint32_t(input[1]) | uint32_t(input[2]) << 8 | uint32_t(input[3]) << 16 |
                          uint32_t(input[4]) << 24;
  Damage(target, (selector >> 2) & 3, offset, input + 5, size - 5);

  BoxLVM *box = BoxLVMOpen(work.c_str(), 2, 1, 1, 0, 0, nullptr);
  if (!box) {
    QWErrorClear();
    return 0;
  }
  const uint32_t damaged = selector & 1;
  for (uint32_t id = 0; id < 16; ++id) {
    const int found = BoxLVMGet(box, threadData, id, &value);
    if (id % 2 == damaged) continue;  // the damaged bucket: any clean outcome
    const auto expected = model.find(id);
    const bool same = expected == model.end()
                          ? found == 0
                          : found == 1 && ArrayLength(value) == expected->second.size() &&
                                std::memcmp(value, expected->second.data(), expected->second.size()) == 0;
    if (!same) {
      std::fprintf(stderr, "entry %u of the undamaged bucket reads wrong: %s\n", id, QWErrorMessage());
      std::abort();
    }
  }
  QWErrorClear();
  (void)BoxLVMSize(box);
  BoxLVMClose(box, 0);
  QWErrorClear();
  return 0;
}
