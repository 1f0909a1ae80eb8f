// The string dictionary's recoding of UTF-16 code units to symbols: a fixed
// permutation of 0..65535 that gives frequent characters small symbols, so
// that the atom trees' branches on common text stay short and dense.
#pragma once

#include <cstdint>

namespace qw::strdict {

// Symbol of code unit c. The table is built once, on first use.
uint16_t RecodeSymbol(uint16_t codeUnit);

// Inverse: the code unit whose symbol is s.
uint16_t DecodeSymbol(uint16_t symbol);

// The whole table (65536 entries), for tests and tools.
const uint16_t *RecodeTable();

}  // namespace qw::strdict
