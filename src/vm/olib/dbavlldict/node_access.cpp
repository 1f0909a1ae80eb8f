// Node access of the AVL dictionary: the hot path of every operation.
//
// Invariant: a slot with `held` set holds an address from VMAArrayRange_
// not yet released, `base` is the address of element `first` (the first
// record of that block) and [first, end) the records the block holds
// within the length; no two slots hold the same block. An append releases
// every slot first, since growth may move the array's last block.
#include "util/endian.h"
#include "vm/olib/dbavlldict/dbavlldict_internal.h"

namespace qw::avl {

bool NodeAccess::Open(QWDBAVLLDict *dict, uint32_t genID) {
  ReleaseAll();
  dict_ = dict;
  arena_ = dict->arena;
  genID_ = genID;
  locked_ = int(dict->node.locked[genID]);
  arrayID_ = ArrayIdOf(dict, &dict->node, "node", genID);
  count_ = 0;
  if (arrayID_ == VMA_NO_ARRAY) {
    if (QWErrorIsSet()) return QWErrorRethrow("cannot find the \"node\" array of \"%s\"", dict->path.c_str());
    return true;  // nothing committed yet: an empty tree
  }
  count_ = VMAArrayLength_(arena_, arrayID_, genID);
  if (count_ < 2) return Corrupted(dict, genID, "\"node\" holds %u records, fewer than the reserved 2", count_);
  return true;
}

void NodeAccess::Release(Slot *slot) {
  if (slot->held) VMAArrayRelease_(arena_, arrayID_, slot->held, slot->read);
  slot->held = nullptr;
}

void NodeAccess::ReleaseAll() {
  for (Slot &slot : slots_) Release(&slot);
}

uint8_t *NodeAccess::At(uint32_t index, int read) {
  Slot *slot = nullptr;
  for (Slot &candidate : slots_) {
    if (candidate.held && index >= candidate.first && index < candidate.end) {
      if (read || !candidate.read) return candidate.base + size_t(index - candidate.first) * kNodeSize;
      slot = &candidate;  // held for reading, needed for writing
      break;
    }
  }
  if (!slot) {
    for (Slot &candidate : slots_)
      if (!candidate.held) {
        slot = &candidate;
        break;
      }
  }
  if (!slot) {
    slot = &slots_[next_];
    next_ = (next_ + 1) % kSlots;
  }
  Release(slot);
  uint32_t end = 0;
  auto *address = static_cast<uint8_t *>(
      VMAArrayRange_(arena_, arrayID_, locked_, kBlockSize, index, &end, genID_, read, kNodeSize, 0));
  if (!address) {
    QWErrorRethrow("cannot read node %u of the AVL dictionary \"%s\"", index, dict_->path.c_str());
    return nullptr;
  }
  slot->held = address;
  slot->read = read;
  slot->first = index - index % kPerBlock;
  slot->base = address - size_t(index - slot->first) * kNodeSize;
  slot->end = end;
  return address;
}

bool NodeAccess::Read(uint32_t index, Node *node) {
  if (index >= count_) return Corrupted(dict_, genID_, "node %u beyond the %u records", index, count_);
  const uint8_t *at = At(index, 1);
  if (!at) return false;
  node->n_right = LoadLE32(at);
  node->n_left = LoadLE32(at + 4);
  node->key = LoadLE64(at + 8);
  node->value = LoadLE64(at + 16);
  return true;
}

bool NodeAccess::Write(uint32_t index, const Node &node) {
  qwassert_(genID_ == NEWGEN);
  if (index >= count_) return Corrupted(dict_, genID_, "node %u beyond the %u records", index, count_);
  uint8_t *at = At(index, 0);
  if (!at) return false;
  StoreLE32(at, node.n_right);
  StoreLE32(at + 4, node.n_left);
  StoreLE64(at + 8, node.key);
  StoreLE64(at + 16, node.value);
  return true;
}

bool NodeAccess::SonOf(const Node &node, Side side, uint32_t *son) {
  *son = node.Son(side);
  if (*son >= count_) return Corrupted(dict_, genID_, "son %u beyond the %u records", *son, count_);
  return true;
}

bool NodeAccess::Root(uint32_t *root) {
  *root = ZERO;
  if (!present()) return true;
  Node header;
  return Read(kHeader, &header) && SonOf(header, kRight, root);
}

bool NodeAccess::CheckDepth(uint32_t depth) {
  if (depth < kMaxDepth) return true;
  return Corrupted(dict_, genID_, "the tree is deeper than %u levels (a cycle)", kMaxDepth);
}

bool NodeAccess::Append(uint32_t *index) {
  ReleaseAll();
  static const uint8_t zeros[kNodeSize] = {};
  if (count_ > kSonMask)  // a son index has 31 bits
    return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "AVL dictionary \"%s\" is full (%u records)",
                        dict_->path.c_str(), count_);
  if (!VMAArrayAppend_(arena_, arrayID_, locked_, kBlockSize, zeros, 1, NEWGEN, kNodeSize))
    return QWErrorRethrow("cannot add a node to the AVL dictionary \"%s\"", dict_->path.c_str());
  *index = count_++;
  return true;
}

}  // namespace qw::avl
