// Generic sorter internals shared by sort.cpp (writers, flush, merge passes)
// and sort_kmv.cpp (entry encoding, payload framing, compression, reading).
//
// Run payloads: a 4-byte little-endian length, then that many bytes: one
// encoded entry, or (with compression) one gzip stream (ZFlow format 2, level
// 6) of several encoded entries back to back, cut once COMPRESSOR_THRESHOLD
// bytes or more are pending.
// Placement of a record in an entry: field 0, the key in the first byte list,
// the values back to back in the second, each value's length in the first
// 32-bit list and each record's count in the second.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qwvm/qwlib.h"
#include "qwvm/qwmime.h"
#include "qwvm/sort.h"

namespace qw::sort {

// Where the parts of one encoded entry lie (no copy).
struct EntryView {
  uint32_t field;
  const uint8_t *key;
  uint32_t keyLength;
  const uint8_t *values;
  uint32_t valuesLength;
};

// Walks one encoded entry from *at (advanced past it) up to `end`; false
// when it is malformed. `view` may be NULL.
[[nodiscard]] bool ParseEntry(const uint8_t **at, const uint8_t *end, EntryView *view);
// The sum of the counts of an entry parsed into `view`, whose encoding ends
// at or before `end`; false when malformed.
[[nodiscard]] bool EntryRecords(const EntryView &view, const uint8_t *end, uint64_t *records);

// Byte order of keys: unsigned bytes over the shorter length, then the
// shorter first. Eight bytes at a time, read most significant first, so that
// short keys and long shared prefixes both compare without a library call.
inline int CompareBytes(const uint8_t *a, uint32_t aLength, const uint8_t *b, uint32_t bLength) {
  const uint32_t n = aLength < bLength ? aLength : bLength;
  uint32_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t x, y;
    std::memcpy(&x, a + i, 8);
    std::memcpy(&y, b + i, 8);
    if (x != y) return __builtin_bswap64(x) < __builtin_bswap64(y) ? -1 : 1;
  }
  for (; i < n; ++i)
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  return aLength < bLength ? -1 : aLength > bLength;
}

// The order of the pending records of a flush: one key per record.
struct SortKey {
  uint64_t prefix;            // eight key bytes, big-endian, zero-padded, inverted when reversing (while sorting)
  uint32_t index;             // the record's position among the pending records
  uint8_t real;               // how many of the eight bytes are the key's (while sorting)
  uint8_t sameKeyAsPrevious;  // after the sort: 1 when the key equals the one before
};

// Fills `keys` with the `count` pending records of five words (key offset,
// key length, value offset, value length, count) in the flush's key order;
// equal records keep their order, and every key equal to the one before it
// is marked. bytes[0 .. readable) may be read (at least up to the last key's
// end; more lets keys be read eight bytes at a time to their ends).
void SortPendingRecords(const uint32_t *records, size_t count, const uint8_t *bytes, size_t readable, bool reverse,
                        bool compareValues, std::vector<SortKey> &keys);

// The output side of a run: frames payloads, compressing when asked. The
// buffers belong to the owner (a sort writer or a merge context).
struct PayloadWriter {
  Compressor *compressor = nullptr;
  uint8_t **pending = nullptr;  // the entry being written, or every entry not yet compressed
  uint8_t **scratch = nullptr;  // the compressed payload
  // The entry just encoded at the end of *pending, from byte `start` on:
  // written alone (and dropped from *pending), or kept until the threshold.
  [[nodiscard]] bool Encoded(DBSEntryWriter *writer, size_t start);
  // Adds a copy of one encoded entry.
  [[nodiscard]] bool Write(DBSEntryWriter *writer, const uint8_t *entry, uint32_t length);
  // Writes what is pending (compressed mode).
  [[nodiscard]] bool Flush(DBSEntryWriter *writer);
};

// The input side of a run: one entry at a time.
struct PayloadReader {
  ZFlow *stream = nullptr;  // owned; set when the run is compressed
  int free = 1;             // give blocks back as they are read (a merge input)
  uint8_t *payload = nullptr;
  uint8_t *plain = nullptr;  // decompressed entries
  size_t plainAt = 0;
  const uint8_t *entry = nullptr;  // the current entry's encoded bytes
  uint32_t entryLength = 0;
  EntryView view{};
  ~PayloadReader();
  [[nodiscard]] bool Init(bool compressed);
  // Next entry: 1, 0 at the end of the run, -1 with an error.
  int Next(DBSEntryReader *reader);
  // The current entry and the entries after it already read from the run.
  [[nodiscard]] bool Save(uint8_t **buffer) const;
  [[nodiscard]] bool Restore(const uint8_t *data, uint32_t length);
};

}  // namespace qw::sort
