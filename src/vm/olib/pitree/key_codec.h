// Symbols to key bytes and back.
//
// Each 32-bit symbol becomes 1 to 5 bytes; the first byte tells the length:
//
//   first byte   length  symbols
//   00..7F       1       0 .. 0x7F                     (the byte itself)
//   80..BF       2       0x80 .. 0x407F                (6 + 8 bits of s - 0x80)
//   C0..DF       3       0x4080 .. 0x20407F            (5 + 16 bits of s - 0x4080)
//   E0..EF       4       0x204080 .. 0x1020407F        (4 + 24 bits of s - 0x204080)
//   F0           5       0x10204080 .. 0xFFFFFFFF      (32 bits of s - 0x10204080)
//
// The code is prefix-free and order-preserving (a larger symbol has a larger
// or longer-and-larger-first-byte code), so byte-wise order of coded atoms is
// symbol-wise order of the atoms, and byte strings ASCII names are made of
// stay one byte per symbol. The rest bytes are big-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qw::pit {

inline constexpr uint32_t kBase2 = 0x80, kBase3 = 0x4080, kBase4 = 0x204080, kBase5 = 0x10204080;

// Writes the code of `s` at `out` (room for 5 bytes) and returns the byte
// after it.
inline uint8_t *PutSymbol(uint8_t *out, uint32_t s) {
  if (s < kBase2) {
    *out = uint8_t(s);
    return out + 1;
  }
  uint32_t length = 5;
  uint32_t mark = 0xF0, base = kBase5;
  if (s < kBase3) length = 2, mark = 0x80, base = kBase2;
  else if (s < kBase4) length = 3, mark = 0xC0, base = kBase3;
  else if (s < kBase5) length = 4, mark = 0xE0, base = kBase4;
  const uint64_t v = s - base;
  out[0] = uint8_t(mark | (v >> (8 * (length - 1))));  // 5 bytes: the first holds no bits of v
  for (uint32_t k = 1; k < length; ++k) out[k] = uint8_t(v >> (8 * (length - 1 - k)));
  return out + length;
}

// Every lookup codes its atom, so the bytes go through a local pointer into
// room made once, not through a push per byte (which stores the vector's end
// after every byte). Atoms of symbols below 0x80 (bytes of ASCII names) are
// the common case: one pass finds that out, one narrows them.
inline void EncodeAtom(std::vector<uint8_t> &out, const uint32_t *atom, uint32_t length) {
  uint32_t any = 0;
  for (uint32_t i = 0; i < length; ++i) any |= atom[i];
  if (any < kBase2) {
    out.resize(length);
    uint8_t *__restrict bytes = out.data();  // (no alias of atom: lets the narrowing run 16 at a time)
    for (uint32_t i = 0; i < length; ++i) bytes[i] = uint8_t(atom[i]);
    return;
  }
  out.resize(size_t(length) * 5);
  uint8_t *const start = out.data();
  uint8_t *at = start;
  for (uint32_t i = 0; i < length; ++i) at = PutSymbol(at, atom[i]);
  out.resize(size_t(at - start));
}

// Length of the code that starts with `first`; 0 for a byte no code starts
// with.
inline size_t CodeLength(uint8_t first) {
  if (first < 0x80) return 1;
  if (first < 0xC0) return 2;
  if (first < 0xE0) return 3;
  if (first < 0xF0) return 4;
  return first == 0xF0 ? 5 : 0;
}

// Decodes a whole key; false when the bytes are not a sequence of codes.
inline bool DecodeAtom(const uint8_t *key, size_t length, std::vector<uint32_t> &out) {
  out.clear();
  for (size_t i = 0; i < length;) {
    size_t n = CodeLength(key[i]);
    if (n == 0 || i + n > length) return false;
    uint64_t v = n == 1 ? key[i] : n == 5 ? 0 : key[i] & (0xFFu >> n);
    for (size_t k = 1; k < n; ++k) v = (v << 8) | key[i + k];
    static constexpr uint64_t kBase[6] = {0, 0, kBase2, kBase3, kBase4, kBase5};
    v += kBase[n];
    if (v > 0xFFFFFFFFu) return false;
    out.push_back(uint32_t(v));
    i += n;
  }
  return true;
}

// Symbols a key of these bytes starts: whole codes plus one for a code cut
// short (the least length of an atom under it).
inline size_t SymbolsStarted(const uint8_t *key, size_t length) {
  size_t count = 0;
  for (size_t i = 0; i < length; ++count) {
    size_t n = CodeLength(key[i]);
    i += n == 0 ? 1 : n;
  }
  return count;
}

}  // namespace qw::pit
