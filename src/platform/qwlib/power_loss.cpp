// Replaying the durability journal at a simulated power loss: the disk is
// rewritten to the durable state (Drop), left alone (Keep), or rebuilt from
// the durable state with each pending change kept, dropped or garbled by a
// seeded generator (Garble). See fault.h for the model.
//
// Order of work for Drop and Garble:
//  1. (Garble) read the current bytes of every tracked mapped range and draw
//     the fate of every pending data record, oldest first;
//  2. undo every data record, newest first: sizes and bytes return to what
//     the last sync left;
//  3. write each mapped range's durable snapshot back (mapped writes never
//     passed the seam, so the snapshot is their only undo);
//  4. (Garble) replay the kept and garbled data records oldest first, then
//     decide each changed span of each mapped page;
//  5. undo the dropped name operations, newest first.
// Data goes first because it is restored through descriptors of our own,
// which reach an inode whatever its names have become.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "platform/qwlib/durability.h"
#include "platform/qwlib/durability_state.h"
#include "platform/qwlib/posix_io.h"
#include "qwvm/qwlib.h"

namespace qw::fault::track {
namespace {

enum class Fate { Keep, Drop, Garble };

class Dice {
 public:
  explicit Dice(uint64_t seed) : engine_(seed) {}
  Fate Fate3() { return Fate(engine_() % 3); }
  bool Coin() { return engine_() % 2 == 0; }
  std::vector<char> Noise(size_t size) {
    std::vector<char> bytes(size);
    for (char &byte : bytes) byte = char(engine_() & 0xff);
    return bytes;
  }

 private:
  std::mt19937_64 engine_;
};

void Warn(const char *what, const std::string &path) {
  QWMessage(QW_LEVEL_WARNING, "power loss simulation: could not %s \"%s\"", what, path.c_str());
}

int FdOf(const Journal &journal, size_t file) { return journal.files[file].fd.get(); }

void UndoData(const Journal &journal) {
  for (auto record = journal.data.rbegin(); record != journal.data.rend(); ++record) {
    const int fd = FdOf(journal, record->file);
    if (!io::SetSize(fd, record->sizeBefore) ||
        !io::WriteFull(fd, record->oldBytes.data(), record->oldBytes.size(), record->offset))
      Warn("restore the bytes of a file at offset", std::to_string(record->offset));
  }
}

void WriteBackSnapshots(const Journal &journal) {
  for (const MappedRange &range : journal.maps) {
    const int fd = FdOf(journal, range.file);
    uint64_t size = 0;
    if (!io::GetSize(fd, &size) || size <= range.offset) continue;
    const size_t length = size_t(std::min<uint64_t>(range.durable.size(), size - range.offset));
    if (!io::WriteFull(fd, range.durable.data(), length, range.offset))
      Warn("restore a mapped range at offset", std::to_string(range.offset));
  }
}

void ReplayData(const Journal &journal, const std::vector<Fate> &fates, Dice &dice) {
  for (size_t i = 0; i < journal.data.size(); ++i) {
    const DataRecord &record = journal.data[i];
    if (fates[i] == Fate::Drop) continue;
    const int fd = FdOf(journal, record.file);
    bool done = true;
    if (!record.setSize) {
      const std::vector<char> bytes = fates[i] == Fate::Keep ? record.newBytes : dice.Noise(record.newBytes.size());
      done = io::WriteFull(fd, bytes.data(), bytes.size(), record.offset);
    } else {
      uint64_t size = 0;
      done = io::GetSize(fd, &size) && io::SetSize(fd, record.offset);
      if (done && fates[i] == Fate::Garble && record.offset > size) {
        const std::vector<char> noise = dice.Noise(size_t(record.offset - size));
        done = io::WriteFull(fd, noise.data(), noise.size(), size);
      }
    }
    if (!done) Warn("replay a write at offset", std::to_string(record.offset));
  }
}

// Per page of each mapped range, the span of bytes that differ from the
// durable snapshot reaches the disk, stays lost, or becomes noise.
void ReplayMappedPages(const Journal &journal, const std::vector<std::vector<char>> &current, Dice &dice) {
  const size_t page = size_t(sysconf(_SC_PAGESIZE));
  for (size_t m = 0; m < journal.maps.size(); ++m) {
    const MappedRange &range = journal.maps[m];
    const size_t length = std::min(range.durable.size(), current[m].size());
    for (size_t start = 0; start < length; start += page) {
      const size_t end = std::min(length, start + page);
      size_t first = start;
      while (first < end && current[m][first] == range.durable[first]) ++first;
      if (first == end) continue;
      size_t last = end;
      while (current[m][last - 1] == range.durable[last - 1]) --last;
      const Fate fate = dice.Fate3();
      if (fate == Fate::Drop) continue;
      std::vector<char> bytes =
          fate == Fate::Keep ? std::vector<char>(current[m].begin() + long(first), current[m].begin() + long(last))
                             : dice.Noise(last - first);
      if (!io::WriteFull(FdOf(journal, range.file), bytes.data(), bytes.size(), range.offset + first))
        Warn("replay a mapped page at offset", std::to_string(range.offset + first));
    }
  }
}

void RestoreData(Journal &journal, PowerLoss mode, Dice &dice) {
  std::vector<Fate> fates;
  std::vector<std::vector<char>> current;
  if (mode == PowerLoss::Garble) {
    for (const MappedRange &range : journal.maps) {
      std::vector<char> bytes(range.durable.size());
      size_t done = 0;
      if (!io::ReadFull(FdOf(journal, range.file), bytes.data(), bytes.size(), range.offset, &done)) done = 0;
      bytes.resize(done);
      current.push_back(std::move(bytes));
    }
    for (size_t i = 0; i < journal.data.size(); ++i) fates.push_back(dice.Fate3());
  }
  UndoData(journal);
  WriteBackSnapshots(journal);
  if (mode == PowerLoss::Garble) {
    ReplayData(journal, fates, dice);
    ReplayMappedPages(journal, current, dice);
  }
}

void Undo(NameRecord &record) {
  bool ok = true;
  std::error_code error;
  switch (record.kind) {
    case NameRecord::Create: ok = unlink(record.path.c_str()) == 0; break;
    case NameRecord::Rename:
      ok = rename(record.target.c_str(), record.path.c_str()) == 0;
      if (!record.backup.empty())
        ok = rename(record.backup.c_str(), record.target.c_str()) == 0 && ok;
      else if (record.targetWasDirectory)
        ok = mkdir(record.target.c_str(), 0755) == 0 && ok;
      break;
    case NameRecord::Remove:
      ok = !record.backup.empty() && rename(record.backup.c_str(), record.path.c_str()) == 0;
      break;
    case NameRecord::Mkdir: ok = std::filesystem::remove_all(record.path, error) != uintmax_t(-1) && !error; break;
    case NameRecord::Rmdir: ok = mkdir(record.path.c_str(), 0755) == 0; break;
  }
  record.backup.clear();  // consumed (or unusable) either way
  if (!ok) Warn("undo a name operation on", record.path);
}

bool SameOrNested(const std::string &a, const std::string &b) {
  const auto under = [](const std::string &inner, const std::string &outer) {
    return inner.size() > outer.size() && inner.compare(0, outer.size(), outer) == 0 && inner[outer.size()] == '/';
  };
  return a == b || under(a, b) || under(b, a);
}

// Oldest first: a coin decides each operation, except that one touching a
// name already affected by a dropped operation is dropped too.
std::vector<bool> ChooseDroppedNames(const Journal &journal, Dice &dice) {
  std::vector<bool> dropped(journal.names.size(), false);
  std::vector<std::string> tainted;
  for (size_t i = 0; i < journal.names.size(); ++i) {
    const NameRecord &record = journal.names[i];
    std::vector<std::string> touched{record.path};
    if (record.kind == NameRecord::Rename) touched.push_back(record.target);
    bool dependent = false;
    for (const std::string &name : touched)
      for (const std::string &bad : tainted) dependent = dependent || SameOrNested(name, bad);
    dropped[i] = !dice.Coin() || dependent;
    if (dropped[i]) tainted.insert(tainted.end(), touched.begin(), touched.end());
  }
  return dropped;
}

void RestoreNames(Journal &journal, PowerLoss mode, Dice &dice) {
  std::vector<bool> dropped(journal.names.size(), true);
  if (mode == PowerLoss::Garble) dropped = ChooseDroppedNames(journal, dice);
  for (size_t i = journal.names.size(); i-- > 0;)
    if (dropped[i]) Undo(journal.names[i]);
}

}  // namespace

void ApplyPowerLoss(PowerLoss mode, uint64_t seed) noexcept {
  Journal &journal = TheJournal();
  std::lock_guard<std::mutex> lock(journal.mutex);
  if (mode != PowerLoss::Keep) {
    Dice dice(seed);
    RestoreData(journal, mode, dice);
    RestoreNames(journal, mode, dice);
  }
  ClearLocked(journal);
}

}  // namespace qw::fault::track
