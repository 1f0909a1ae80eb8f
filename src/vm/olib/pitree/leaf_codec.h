// The leaf codec: a compacted byte trie in one byte string.
//
// A leaf holds the keys below one head-tree branch, each relative to the
// byte after that branch, as a pre-order trie of nodes:
//
//   node := varint h                       h = skipLen << 2 | hasValue << 1 | hasChildren
//           skip[skipLen]                  bytes every key below shares (a run without branching)
//           [varint value]                 when hasValue: the data of the key ending here
//           [u8 count - 1                  when hasChildren: 1 .. 256 branches
//            branch[count]                 their bytes, strictly ascending
//            varint size[count - 1]        byte length of each child but the last
//            child[count]]                 the child nodes, in branch order
//
// Varints are the program's (util/varint.h). A node has a value or children
// (or both); the last child runs to the end of its parent's extent, the root
// to the end of the leaf. An empty leaf (no key) has no bytes. A lookup reads
// one node per branching level and skips siblings by their sizes; a change
// decodes the leaf into its sorted keys and encodes it again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "vm/olib/pitree/pitree_internal.h"

namespace qw::pit {

enum class LeafLookup { kFound, kAbsent, kMalformed };

// Looks key[0, keyLength) up in the leaf. *value receives the data when
// found; prefixes (may be NULL) receives the data of every stored key that is
// a proper prefix of it, shortest first.
LeafLookup LeafFind(const uint8_t *leaf, size_t length, const uint8_t *key, size_t keyLength, uint64_t *value,
                    std::vector<uint64_t> *prefixes);

// Appends the leaf's keys, each prefixed by `base`, in ascending order.
// False when the bytes are not a well-formed leaf.
[[nodiscard]] bool LeafDecode(const uint8_t *leaf, size_t length, const uint8_t *base, size_t baseLength,
                              EntryList &out);

// Encodes entries [lo, hi) (ascending, distinct, all sharing their first
// `depth` bytes) with keys taken from byte `depth` on; appends to `out`.
// `header` is scratch.
void LeafEncode(const EntryList &list, size_t lo, size_t hi, size_t depth, std::vector<uint8_t> &out,
                std::vector<uint8_t> &header);

}  // namespace qw::pit
