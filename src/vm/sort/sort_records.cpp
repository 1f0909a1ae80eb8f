// The flush's record sort. Sorting the 20-byte pending records through a
// comparator that follows each record's offsets into the byte buffer misses
// the cache on every comparison, and the pending buffer of a run is far
// larger than the cache. So the records are sorted by proxy, eight key bytes
// at a time: a 16-byte sort key per record holds the key's next eight bytes
// (big-endian, zero-padded, so that integer order is byte order), how many
// of them are real (a key that ends inside the eight sorts before a longer
// key with the same bytes, of which it is a prefix) and the record's index.
// Records whose eight bytes tie with eight real bytes each are sorted again
// on their next eight, and so on: each key byte is read about once, not once
// per comparison. The records stay where they are: the flush reads them in
// the sorted keys' order, and each sort key says whether its key equals the
// one before it.
//
// The result is the key order of the flush (bytes as unsigned values, a
// prefix first, values on equal keys when asked, all reversed when asked);
// records that compare equal keep their writing order, so a run's values of
// one key come in the order they were written.
#include <algorithm>
#include <cstring>
#include <vector>

#include "vm/sort/sort_internal.h"

namespace qw::sort {

namespace {

struct Sorter {
  const uint32_t *records;
  const uint8_t *bytes;
  bool reverse, compareValues;

  // Loads the key bytes [depth, depth + 8) of the key's record.
  void Load(SortKey &key, uint32_t depth) const {
    const uint32_t *record = records + 5 * size_t(key.index);
    const uint32_t rest = record[1] > depth ? record[1] - depth : 0;
    key.real = uint8_t(rest < 8 ? rest : 8);
    uint8_t padded[8] = {};
    std::memcpy(padded, bytes + record[0] + depth, key.real);
    uint64_t word;
    std::memcpy(&word, padded, 8);
    key.prefix = __builtin_bswap64(word);
  }

  bool KeyBefore(const SortKey &a, const SortKey &b) const {
    if (a.prefix != b.prefix) return reverse ? a.prefix > b.prefix : a.prefix < b.prefix;
    return reverse ? a.real > b.real : a.real < b.real;
  }

  // Equal keys: by value when asked, then in writing order.
  bool EqualKeyBefore(const SortKey &a, const SortKey &b) const {
    if (compareValues) {
      const uint32_t *x = records + 5 * size_t(a.index), *y = records + 5 * size_t(b.index);
      const int c = CompareBytes(bytes + x[2], x[3], bytes + y[2], y[3]);
      if (c != 0) return reverse ? c > 0 : c < 0;
    }
    return a.index < b.index;
  }

  // Sorts keys [begin, end), whose key bytes before `depth` are all equal,
  // and marks each key equal to the one before it. Ranges still to sort
  // wait on a stack, so that long equal keys cost no recursion.
  void Sort(SortKey *begin, SortKey *end) const {
    struct Range {
      SortKey *begin, *end;
      uint32_t depth;
    };
    std::vector<Range> pending{{begin, end, 0}};
    while (!pending.empty()) {
      const Range range = pending.back();
      pending.pop_back();
      for (SortKey *k = range.begin; k != range.end; ++k) {
        // Past the first eight bytes the records come in sorted order, not
        // in the order they lie: ask for them (and then their bytes) ahead.
        if (range.end - k > 16) __builtin_prefetch(records + 5 * size_t(k[16].index));
        if (range.end - k > 8) __builtin_prefetch(bytes + records[5 * size_t(k[8].index)] + range.depth);
        Load(*k, range.depth);
      }
      std::sort(range.begin, range.end, [this](const SortKey &a, const SortKey &b) {
        if (KeyBefore(a, b)) return true;
        if (KeyBefore(b, a)) return false;
        return a.index < b.index;
      });
      for (SortKey *group = range.begin; group != range.end;) {
        SortKey *next = group + 1;
        while (next != range.end && next->prefix == group->prefix && next->real == group->real) ++next;
        if (next - group > 1 && group->real == 8) {
          pending.push_back({group, next, range.depth + 8});
        } else if (next - group > 1) {  // the keys end here: all equal
          if (compareValues)
            std::stable_sort(group, next, [this](const SortKey &a, const SortKey &b) { return EqualKeyBefore(a, b); });
          for (SortKey *k = group + 1; k != next; ++k) k->sameKeyAsPrevious = 1;
        }
        group = next;
      }
    }
  }
};

}  // namespace

void SortPendingRecords(const uint32_t *records, size_t count, const uint8_t *bytes, bool reverse, bool compareValues,
                        std::vector<SortKey> &keys) {
  keys.assign(count, SortKey{});
  for (size_t i = 0; i < count; ++i) keys[i].index = uint32_t(i);
  Sorter{records, bytes, reverse, compareValues}.Sort(keys.data(), keys.data() + count);
}

}  // namespace qw::sort
