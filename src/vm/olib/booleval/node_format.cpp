// Encoders and decoders of the evaluator's nodes.
#include "vm/olib/booleval/node_format.h"

#include "util/varint.h"

namespace qw::booleval {

void AppendVarint(std::vector<uint8_t> *out, uint64_t value) {
  uint8_t bytes[kVarintMaxBytes];
  const size_t n = VarintEncode(bytes, value);
  out->insert(out->end(), bytes, bytes + n);
}

bool ReadVarint32(const uint8_t *data, size_t size, size_t *pos, uint32_t *value) {
  uint64_t wide = 0;
  if (*pos >= size) return false;
  const size_t n = VarintDecode(data + *pos, data + size, &wide);
  if (n == 0 || wide > UINT32_MAX) return false;
  *pos += n;
  *value = uint32_t(wide);
  return true;
}

namespace {

// The payload of one entry: values, then delta-coded ascending links.
bool DecodePayload(const uint8_t *data, size_t end, size_t pos, NodeEntry *entry) {
  uint32_t count = 0;
  if (!ReadVarint32(data, end, &pos, &count) || count > end - pos) return false;
  entry->values.resize(count);
  for (uint32_t &value : entry->values) {
    if (!ReadVarint32(data, end, &pos, &value)) return false;
  }
  uint32_t link = 0;
  while (pos < end) {
    uint32_t delta = 0;
    if (!ReadVarint32(data, end, &pos, &delta)) return false;
    if (uint64_t(link) + delta > UINT32_MAX) return false;
    link += delta;
    entry->links.push_back(link);
  }
  return true;
}

void EncodePayload(const NodeEntry &entry, std::vector<uint8_t> *out) {
  AppendVarint(out, entry.values.size());
  for (uint32_t value : entry.values) AppendVarint(out, value);
  uint32_t previous = 0;
  for (uint32_t link : entry.links) {
    AppendVarint(out, link - previous);
    previous = link;
  }
}

// Reads an entry's head: sub and the payload's end. False when malformed.
bool ReadEntryHead(const uint8_t *data, size_t size, size_t *pos, uint32_t *sub, size_t *payloadEnd) {
  uint32_t payloadBytes = 0;
  if (!ReadVarint32(data, size, pos, sub) || !ReadVarint32(data, size, pos, &payloadBytes) ||
      payloadBytes > size - *pos) {
    return false;
  }
  *payloadEnd = *pos + payloadBytes;
  return true;
}

}  // namespace

bool DecodeAtomNode(const uint8_t *data, size_t size, AtomNode *node) {
  node->clear();
  size_t pos = 0;
  while (pos < size) {
    AtomNodeEntry item{};
    size_t payloadEnd = 0;
    if (!ReadEntryHead(data, size, &pos, &item.sub, &payloadEnd)) return false;
    if (!node->empty() && node->back().sub >= item.sub) return false;
    if (!DecodePayload(data, payloadEnd, pos, &item.entry)) return false;
    node->push_back(std::move(item));
    pos = payloadEnd;
  }
  return true;
}

void EncodeAtomNode(const AtomNode &node, std::vector<uint8_t> *out) {
  out->clear();
  std::vector<uint8_t> payload;
  for (const AtomNodeEntry &item : node) {
    payload.clear();
    EncodePayload(item.entry, &payload);
    AppendVarint(out, item.sub);
    AppendVarint(out, payload.size());
    out->insert(out->end(), payload.begin(), payload.end());
  }
}

bool DecodeAtomEntry(const uint8_t *data, size_t size, uint32_t sub, NodeEntry *entry) {
  entry->values.clear();
  entry->links.clear();
  size_t pos = 0;
  while (pos < size) {
    uint32_t entrySub = 0;
    size_t payloadEnd = 0;
    if (!ReadEntryHead(data, size, &pos, &entrySub, &payloadEnd)) return false;
    if (entrySub == sub) return DecodePayload(data, payloadEnd, pos, entry);
    if (entrySub > sub) return true;  // entries ascend by sub
    pos = payloadEnd;
  }
  return true;
}

uint32_t AndTotalOf(const std::vector<Atom> &atoms) {
  uint32_t positive = 0;
  for (const Atom &atom : atoms) positive += atom.neg ? 0 : 1;
  return positive == 0 ? 1 : positive;
}

void EncodeConjunctionNode(const std::vector<Atom> &sortedAtoms, uint32_t andTotal, uint32_t value,
                           std::vector<uint8_t> *out) {
  out->clear();
  AppendVarint(out, sortedAtoms.size());
  for (const Atom &atom : sortedAtoms) {
    AppendVarint(out, uint64_t(atom.atomID) * 2 + (atom.neg ? 1 : 0));
    AppendVarint(out, uint64_t(atom.sub) + 1);
  }
  AppendVarint(out, andTotal);
  AppendVarint(out, value);
}

bool DecodeConjunctionHeader(const uint8_t *data, size_t size, uint32_t *andTotal, size_t *valuesStart) {
  size_t pos = 0;
  uint32_t count = 0;
  if (!ReadVarint32(data, size, &pos, &count) || count > size) return false;
  for (uint32_t i = 0; i < count; ++i) {
    uint64_t word = 0;
    for (int half = 0; half < 2; ++half) {
      const size_t n = pos < size ? VarintDecode(data + pos, data + size, &word) : 0;
      if (n == 0) return false;
      pos += n;
    }
  }
  if (!ReadVarint32(data, size, &pos, andTotal) || *andTotal == 0) return false;
  *valuesStart = pos;
  return true;
}

bool DecodeValues(const uint8_t *data, size_t size, size_t pos, std::vector<uint32_t> *values) {
  while (pos < size) {
    uint32_t value = 0;
    if (!ReadVarint32(data, size, &pos, &value)) return false;
    values->push_back(value);
  }
  return true;
}

}  // namespace qw::booleval
