// Byte layouts of the evaluator's stored nodes (described in
// qwvm/booleval.h): atom nodes, conjunction nodes and the one-varint
// elements of the total and all-negative arrays. Decoders return false on
// malformed bytes and never read outside [data, data + size).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qw::booleval {

// One atom of a conjunction; ordered by atomID, then sub, then neg.
struct Atom {
  uint32_t atomID;
  uint32_t sub;
  uint32_t neg;
  friend bool operator<(const Atom &a, const Atom &b) {
    if (a.atomID != b.atomID) return a.atomID < b.atomID;
    if (a.sub != b.sub) return a.sub < b.sub;
    return a.neg < b.neg;
  }
};

// The values and links of one (atomID, sub).
struct NodeEntry {
  std::vector<uint32_t> values;
  std::vector<uint32_t> links;  // ascending
};

// An atom node decoded whole (for the writer).
struct AtomNodeEntry {
  uint32_t sub;
  NodeEntry entry;
};
using AtomNode = std::vector<AtomNodeEntry>;  // ascending sub

// Link tags.
inline constexpr uint32_t kTagNegated = 0;
inline constexpr uint32_t kTagPositive = 2;
inline constexpr uint32_t kTagWeak = 3;  // evaluation only: weak positive or all-negative candidate
inline uint32_t LinkOf(uint32_t conjunction, uint32_t tag) { return conjunction * 4 + tag; }

void AppendVarint(std::vector<uint8_t> *out, uint64_t value);
// A varint that must fit in 32 bits; false when malformed.
bool ReadVarint32(const uint8_t *data, size_t size, size_t *pos, uint32_t *value);

// Atom nodes.
[[nodiscard]] bool DecodeAtomNode(const uint8_t *data, size_t size, AtomNode *node);
void EncodeAtomNode(const AtomNode &node, std::vector<uint8_t> *out);
// Decodes the entry of `sub` into *entry (emptied first; left empty when the
// node has none). False when the node is malformed.
[[nodiscard]] bool DecodeAtomEntry(const uint8_t *data, size_t size, uint32_t sub, NodeEntry *entry);

// Conjunction nodes.
void EncodeConjunctionNode(const std::vector<Atom> &sortedAtoms, uint32_t andTotal, uint32_t value,
                           std::vector<uint8_t> *out);
// andTotal and where the values start. False when malformed.
[[nodiscard]] bool DecodeConjunctionHeader(const uint8_t *data, size_t size, uint32_t *andTotal, size_t *valuesStart);
// Appends the values from `pos` to the end to *values.
[[nodiscard]] bool DecodeValues(const uint8_t *data, size_t size, size_t pos, std::vector<uint32_t> *values);

// The number of atoms a conjunction needs: its positive atoms, or 1 when all
// are negated.
uint32_t AndTotalOf(const std::vector<Atom> &atoms);

}  // namespace qw::booleval
