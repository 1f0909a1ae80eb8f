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
// The sort keys of a range are sorted by a radix sort in place, a byte of
// the eight at a time (most significant first), down to buckets of a few
// keys, which an insertion sort finishes; the order is (bytes, real count,
// index), with the bytes and the count flipped when reversing, so that the
// radix pass never looks at the direction. A small range past the first
// eight bytes (a few records sharing a long prefix, mostly copies of one
// line) is finished by comparing whole keys instead of going on eight bytes
// at a time.
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

// Ranges of at most this many keys are finished by insertion sort.
constexpr size_t kInsertionMax = 24;
// Ranges past the first eight bytes of at most this many keys are finished
// by comparing whole keys.
constexpr size_t kWholeKeyMax = 16;

struct Sorter {
  const uint32_t *records;
  const uint8_t *bytes;
  size_t readable;  // bytes[0 .. readable) may be read
  bool reverse, compareValues;

  // Loads the key bytes [depth, depth + 8) of the key's record, flipped
  // when reversing so that ascending order of `prefix` is the sort's order.
  void Load(SortKey &key, uint32_t depth) const {
    const uint32_t *record = records + 5 * size_t(key.index);
    const uint32_t rest = record[1] > depth ? record[1] - depth : 0;
    key.real = uint8_t(rest < 8 ? rest : 8);
    uint64_t word = 0;
    if (key.real > 0) {
      const size_t at = size_t(record[0]) + depth;
      if (at + 8 <= readable) {
        std::memcpy(&word, bytes + at, 8);
        word = __builtin_bswap64(word);
        if (key.real < 8) word &= ~uint64_t(0) << (64 - 8 * key.real);
      } else {
        uint8_t padded[8] = {};
        std::memcpy(padded, bytes + at, key.real);
        std::memcpy(&word, padded, 8);
        word = __builtin_bswap64(word);
      }
    }
    key.prefix = reverse ? ~word : word;
  }

  uint8_t Rank(const SortKey &key) const { return reverse ? uint8_t(8 - key.real) : key.real; }

  bool Before(const SortKey &a, const SortKey &b) const {
    if (a.prefix != b.prefix) return a.prefix < b.prefix;
    if (a.real != b.real) return Rank(a) < Rank(b);
    return a.index < b.index;
  }

  void InsertionSort(SortKey *begin, SortKey *end) const {
    for (SortKey *i = begin + 1; i < end; ++i) {
      const SortKey key = *i;
      SortKey *j = i;
      for (; j > begin && Before(key, j[-1]); --j) *j = j[-1];
      *j = key;
    }
  }

  // Sorts [begin, end) by (prefix, real, index): in-place radix passes on
  // the prefix byte at `shift`, then the ones below it.
  void RadixSort(SortKey *begin, SortKey *end, int shift) const {
    const size_t n = size_t(end - begin);
    if (n <= kInsertionMax) return InsertionSort(begin, end);
    if (shift < 0) {  // equal prefixes: by real count, then index
      std::sort(begin, end, [this](const SortKey &a, const SortKey &b) { return Before(a, b); });
      return;
    }
    size_t count[256] = {};
    for (SortKey *k = begin; k != end; ++k) ++count[(k->prefix >> shift) & 0xFF];
    if (count[(begin->prefix >> shift) & 0xFF] == n) return RadixSort(begin, end, shift - 8);
    size_t next[256], stop[256];
    for (size_t b = 0, at = 0; b < 256; ++b) next[b] = at, at += count[b], stop[b] = at;
    for (size_t b = 0; b < 256; ++b) {
      while (next[b] < stop[b]) {  // each key is moved once, to its bucket
        SortKey key = begin[next[b]];
        for (size_t kb = (key.prefix >> shift) & 0xFF; kb != b; kb = (key.prefix >> shift) & 0xFF)
          std::swap(key, begin[next[kb]++]);
        begin[next[b]++] = key;
      }
    }
    for (size_t b = 0, at = 0; b < 256; at += count[b++])
      if (count[b] > 1) RadixSort(begin + at, begin + at + count[b], shift - 8);
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

  // The key order from byte `depth` on (the bytes before are equal).
  int CompareFrom(const SortKey &a, const SortKey &b, uint32_t depth) const {
    const uint32_t *x = records + 5 * size_t(a.index), *y = records + 5 * size_t(b.index);
    const int c = CompareBytes(bytes + x[0] + depth, x[1] - depth, bytes + y[0] + depth, y[1] - depth);
    return reverse ? -c : c;
  }

  // Finishes a few keys that share their first `depth` bytes by comparing
  // whole keys.
  void SortWhole(SortKey *begin, SortKey *end, uint32_t depth) const {
    std::sort(begin, end, [&](const SortKey &a, const SortKey &b) {
      const int c = CompareFrom(a, b, depth);
      return c != 0 ? c < 0 : EqualKeyBefore(a, b);
    });
    for (SortKey *k = begin + 1; k < end; ++k) k->sameKeyAsPrevious = CompareFrom(k[-1], *k, depth) == 0;
  }

  // Sorts keys [begin, end), whose key bytes before `depth` are all equal,
  // and marks each key equal to the one before it. Ranges still to sort
  // wait on a stack, so that long equal keys cost no recursion.
  void Sort(SortKey *begin, SortKey *end) const {
    struct Range {
      SortKey *begin, *end;
      uint32_t depth;
    };
    std::vector<Range> pending{{begin, end, 0}}, few;
    while (!pending.empty()) {
      const Range range = pending.back();
      pending.pop_back();
      for (SortKey *k = range.begin; k != range.end; ++k) {
        // Past the first eight bytes the records come in sorted order, not
        // in the order they lie: ask for them (and then their bytes) ahead.
        if (range.depth > 0) {
          if (range.end - k > 16) __builtin_prefetch(records + 5 * size_t(k[16].index));
          if (range.end - k > 8) __builtin_prefetch(bytes + records[5 * size_t(k[8].index)] + range.depth);
        }
        Load(*k, range.depth);
      }
      RadixSort(range.begin, range.end, 56);
      for (SortKey *group = range.begin; group != range.end;) {
        SortKey *next = group + 1;
        while (next != range.end && next->prefix == group->prefix && next->real == group->real) ++next;
        if (next - group > 1 && group->real == 8) {
          (next - group <= ptrdiff_t(kWholeKeyMax) ? few : pending).push_back({group, next, range.depth + 8});
        } else if (next - group > 1) {  // the keys end here: all equal
          if (compareValues)
            std::stable_sort(group, next, [this](const SortKey &a, const SortKey &b) { return EqualKeyBefore(a, b); });
          for (SortKey *k = group + 1; k != next; ++k) k->sameKeyAsPrevious = 1;
        }
        group = next;
      }
      // The few keys of each group lie anywhere: ask for the records of the
      // groups eight on, and for the bytes of those four on.
      for (size_t i = 0; i < few.size(); ++i) {
        if (i + 8 < few.size())
          for (const SortKey *k = few[i + 8].begin; k != few[i + 8].end; ++k)
            __builtin_prefetch(records + 5 * size_t(k->index));
        if (i + 4 < few.size())
          for (const SortKey *k = few[i + 4].begin; k != few[i + 4].end; ++k)
            __builtin_prefetch(bytes + records[5 * size_t(k->index)] + few[i + 4].depth);
        SortWhole(few[i].begin, few[i].end, few[i].depth);
      }
      few.clear();
    }
  }
};

}  // namespace

void SortPendingRecords(const uint32_t *records, size_t count, const uint8_t *bytes, size_t readable, bool reverse,
                        bool compareValues, std::vector<SortKey> &keys) {
  keys.assign(count, SortKey{});
  for (size_t i = 0; i < count; ++i) keys[i].index = uint32_t(i);
  Sorter{records, bytes, readable, reverse, compareValues}.Sort(keys.data(), keys.data() + count);
}

}  // namespace qw::sort
