// The leaf codec (layout in leaf_codec.h). Every read is bounds-checked
// against the extent of the node being read: a damaged leaf decodes as
// malformed, never out of its bytes.
#include "vm/olib/pitree/leaf_codec.h"

#include <algorithm>
#include <cstring>

#include "util/varint.h"

namespace qw::pit {
namespace {

// One node's fields, read from [at, end).
struct NodeView {
  const uint8_t *skip = nullptr;
  size_t skipLength = 0;
  bool hasValue = false;
  uint64_t value = 0;
  uint32_t count = 0;  // branches
  const uint8_t *branches = nullptr;
  const uint8_t *sizes = nullptr;     // count - 1 varints
  const uint8_t *children = nullptr;  // start of child 0
  const uint8_t *end = nullptr;       // end of the node's extent
};

bool ReadVarint(const uint8_t *&at, const uint8_t *end, uint64_t *value) {
  size_t n = VarintDecode(at, end, value);
  at += n;
  return n != 0;
}

bool ParseNode(const uint8_t *at, const uint8_t *end, NodeView *node) {
  uint64_t h = 0;
  if (!ReadVarint(at, end, &h)) return false;
  node->skipLength = size_t(h >> 2);
  node->hasValue = (h & 2) != 0;
  const bool hasChildren = (h & 1) != 0;
  if (!node->hasValue && !hasChildren) return false;
  if (node->skipLength > size_t(end - at)) return false;
  node->skip = at;
  at += node->skipLength;
  if (node->hasValue && !ReadVarint(at, end, &node->value)) return false;
  node->count = 0;
  node->end = end;
  if (!hasChildren) return at == end;
  if (at >= end) return false;
  node->count = uint32_t(*at++) + 1;
  if (node->count > size_t(end - at)) return false;
  node->branches = at;
  at += node->count;
  node->sizes = at;
  for (uint32_t i = 0; i + 1 < node->count; ++i) {
    uint64_t ignored;
    if (!ReadVarint(at, end, &ignored)) return false;
  }
  node->children = at;
  return at < end;  // the last child is never empty
}

// The extent of child i: [*start, *stop). False when the sizes overrun.
bool ChildExtent(const NodeView &node, uint32_t i, const uint8_t **start, const uint8_t **stop) {
  const uint8_t *sizes = node.sizes;
  const uint8_t *at = node.children;
  for (uint32_t k = 0; k + 1 < node.count; ++k) {
    uint64_t size = 0;
    if (!ReadVarint(sizes, node.children, &size) || size == 0 || size >= uint64_t(node.end - at)) return false;
    if (k == i) {
      *start = at;
      *stop = at + size;
      return true;
    }
    at += size;
  }
  *start = at;
  *stop = node.end;
  return at < node.end;
}

bool DecodeNode(const uint8_t *at, const uint8_t *end, std::vector<uint8_t> &key, EntryList &out, int budget) {
  NodeView node;
  if (budget <= 0 || !ParseNode(at, end, &node)) return false;
  const size_t keep = key.size();
  key.insert(key.end(), node.skip, node.skip + node.skipLength);
  if (node.hasValue) {
    out.entries.push_back(Entry{uint32_t(out.pool.size()), uint32_t(key.size()), node.value});
    out.pool.insert(out.pool.end(), key.begin(), key.end());
  }
  for (uint32_t i = 0; i < node.count; ++i) {
    if (i > 0 && node.branches[i] <= node.branches[i - 1]) return false;
    const uint8_t *start, *stop;
    if (!ChildExtent(node, i, &start, &stop)) return false;
    key.push_back(node.branches[i]);
    if (!DecodeNode(start, stop, key, out, budget - 1)) return false;
    key.pop_back();
  }
  key.resize(keep);
  return true;
}

}  // namespace

LeafLookup LeafFind(const uint8_t *leaf, size_t length, const uint8_t *key, size_t keyLength, uint64_t *value,
                    std::vector<uint64_t> *prefixes) {
  if (length == 0) return LeafLookup::kAbsent;
  const uint8_t *at = leaf, *end = leaf + length;
  size_t pos = 0;
  for (;;) {
    NodeView node;
    if (!ParseNode(at, end, &node)) return LeafLookup::kMalformed;
    if (node.skipLength > keyLength - pos || std::memcmp(node.skip, key + pos, node.skipLength) != 0)
      return LeafLookup::kAbsent;
    pos += node.skipLength;
    if (pos == keyLength) {
      if (!node.hasValue) return LeafLookup::kAbsent;
      *value = node.value;
      return LeafLookup::kFound;
    }
    if (node.hasValue && prefixes) prefixes->push_back(node.value);
    const uint8_t b = key[pos];
    uint32_t i = 0;
    while (i < node.count && node.branches[i] < b) {
      if (i > 0 && node.branches[i] <= node.branches[i - 1]) return LeafLookup::kMalformed;
      ++i;
    }
    if (i == node.count || node.branches[i] != b) return LeafLookup::kAbsent;
    if (!ChildExtent(node, i, &at, &end)) return LeafLookup::kMalformed;
    ++pos;
  }
}

bool LeafDecode(const uint8_t *leaf, size_t length, const uint8_t *base, size_t baseLength, EntryList &out) {
  if (length == 0) return true;
  std::vector<uint8_t> key(base, base + baseLength);
  // Each level takes at least one byte of the leaf, so its length bounds the
  // recursion whatever the bytes say.
  return DecodeNode(leaf, leaf + length, key, out, int(length) + 1);
}

void LeafEncode(const EntryList &list, size_t lo, size_t hi, size_t depth, std::vector<uint8_t> &out,
                std::vector<uint8_t> &header) {
  const Entry &first = list.entries[lo];
  const Entry &last = list.entries[hi - 1];
  const uint8_t *a = list.Key(first), *z = list.Key(last);
  size_t skip = 0;
  if (lo + 1 == hi) {
    skip = first.length - depth;
  } else {
    const size_t most = std::min(first.length, last.length) - depth;
    while (skip < most && a[depth + skip] == z[depth + skip]) ++skip;
  }
  const bool hasValue = first.length == depth + skip;
  const size_t c0 = lo + (hasValue ? 1 : 0);
  const size_t at = depth + skip;  // the branch byte position
  const size_t mark = out.size();
  std::vector<uint32_t> sizes;
  for (size_t g = c0; g < hi;) {  // children first: their sizes go into the header
    size_t e = g + 1;
    while (e < hi && list.Key(list.entries[e])[at] == list.Key(list.entries[g])[at]) ++e;
    const size_t before = out.size();
    LeafEncode(list, g, e, at + 1, out, header);
    sizes.push_back(uint32_t(out.size() - before));
    g = e;
  }
  header.clear();
  uint8_t varint[kVarintMaxBytes];
  auto putVarint = [&](uint64_t v) { header.insert(header.end(), varint, varint + VarintEncode(varint, v)); };
  putVarint((uint64_t(skip) << 2) | (hasValue ? 2u : 0u) | (sizes.empty() ? 0u : 1u));
  header.insert(header.end(), a + depth, a + depth + skip);
  if (hasValue) putVarint(first.value);
  if (!sizes.empty()) {
    header.push_back(uint8_t(sizes.size() - 1));
    for (size_t g = c0; g < hi;) {
      const uint8_t b = list.Key(list.entries[g])[at];
      header.push_back(b);
      while (g < hi && list.Key(list.entries[g])[at] == b) ++g;
    }
    for (size_t k = 0; k + 1 < sizes.size(); ++k) putVarint(sizes[k]);
  }
  out.insert(out.begin() + std::ptrdiff_t(mark), header.begin(), header.end());
}

}  // namespace qw::pit
