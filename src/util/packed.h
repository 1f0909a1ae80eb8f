// Packed integers: the encoding of the arena's generation and index files.
//
//  - A scalar of n bytes is written least significant byte first.
//  - An array of unsigned integers is: 1 byte width w, 4 bytes element count,
//    then the elements in w bytes each. w is the smallest width holding the
//    largest element from the table 1, 2, 3, 4, 5, 6, 8 (7 is never written);
//    an empty array has width 1.
//  - A byte array is: 4 bytes count, then the bytes (no width byte).
//
// Readers accept any width from 1 to 8, refuse elements that do not fit the
// destination type, and grow their destination as data arrives, so a
// corrupted count fails at the end of the file instead of allocating it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qwvm/qwfile.h"

namespace qw::packed {

// The width the writer uses for an array whose largest element is `largest`.
unsigned WidthFor(uint64_t largest);

[[nodiscard]] bool WriteScalar(QWChannel *channel, uint64_t value, unsigned bytes);
[[nodiscard]] bool ReadScalar(QWChannel *channel, unsigned bytes, uint64_t *value);

// Writes `count` elements of `elementSize` bytes (1, 2, 4 or 8) from `values`.
[[nodiscard]] bool WriteArray(QWChannel *channel, const void *values, size_t count, unsigned elementSize);

// Reads an array into the qwlib growable array *array (initialised here when
// NULL, otherwise emptied first) of `elementSize`-byte elements.
[[nodiscard]] bool ReadArray(QWChannel *channel, void *arrayPointer, unsigned elementSize);

[[nodiscard]] bool WriteBytes(QWChannel *channel, const void *bytes, uint32_t count);
// Reads a byte array into the growable uint8_t array *array.
[[nodiscard]] bool ReadBytes(QWChannel *channel, uint8_t **array);

}  // namespace qw::packed
