// Encoding and decoding of the box bucket's log records (see boxrecord.h).
#include "vm/lvm/boxrecord.h"

#include <cstdio>

#include "qwvm/qwlib.h"
#include "util/endian.h"
#include "util/varint.h"

namespace qw::box {

namespace {

constexpr int kMalformed = 4;

bool Malformed(const char *record, const char *reason) {
  return QWErrorThrow(kMalformed, QW_ERROR_CLASS_DATA, "malformed %s record: %s", record, reason);
}

void AppendVarint(std::vector<uint8_t> *out, uint64_t value) {
  uint8_t bytes[kVarintMaxBytes];
  out->insert(out->end(), bytes, bytes + VarintEncode(bytes, value));
}

}  // namespace

void EncodeBoxUpdate(const BoxUpdate &update, std::vector<uint8_t> *out) {
  out->resize(4);
  StoreLE32(out->data(), update.id);
  AppendVarint(out, uint64_t(update.oldClasses.size()) * 2 + (update.remove ? 1 : 0));
  out->insert(out->end(), update.oldClasses.begin(), update.oldClasses.end());
  AppendVarint(out, update.sizeNew);
}

bool DecodeBoxUpdate(const uint8_t *payload, size_t size, BoxUpdate *update) {
  static const char kName[] = "BOX_UPDATE";
  if (size < 4) return Malformed(kName, "no entry id");
  const uint8_t *at = payload + 4;
  const uint8_t *end = payload + size;
  update->id = LoadLE32(payload);
  uint64_t countAndRemove = 0;
  size_t used = VarintDecode(at, end, &countAndRemove);
  if (used == 0) return Malformed(kName, "bad old block count");
  at += used;
  const uint64_t oldCount = countAndRemove >> 1;
  if (oldCount > uint64_t(end - at)) return Malformed(kName, "old block classes cut short");
  update->remove = (countAndRemove & 1) != 0;
  update->oldClasses.assign(at, at + oldCount);
  at += oldCount;
  uint64_t sizeNew = 0;
  used = VarintDecode(at, end, &sizeNew);
  if (used == 0 || sizeNew > UINT32_MAX) return Malformed(kName, "bad new size");
  if (at + used != end) return Malformed(kName, "trailing bytes");
  if (update->remove && sizeNew != 0) return Malformed(kName, "a removal with a new size");
  update->sizeNew = uint32_t(sizeNew);
  return true;
}

void EncodeBoxDataExtend(uint32_t totalUnits, std::vector<uint8_t> *out) {
  out->resize(4);
  StoreLE32(out->data(), totalUnits);
}

bool DecodeBoxDataExtend(const uint8_t *payload, size_t size, uint32_t *totalUnits) {
  if (size != 4) return Malformed("BoxDataExtend", "not 4 bytes");
  *totalUnits = LoadLE32(payload);
  if (*totalUnits % BOXLVM_PAGEUNITS != 0) return Malformed("BoxDataExtend", "not whole pages");
  return true;
}

int FormatBoxRecord(uint32_t type, const uint8_t *payload, size_t size, std::string *text) {
  char line[96];
  if (type == kBoxDataExtendRecord) {
    uint32_t units = 0;
    if (!DecodeBoxDataExtend(payload, size, &units)) return 0;
    std::snprintf(line, sizeof line, "BoxDataExtend %d\n", int(units));
    *text = line;
    return 1;
  }
  BoxUpdate update;
  if (type != kBoxUpdateRecord) return -1;
  if (!DecodeBoxUpdate(payload, size, &update)) return 0;
  std::snprintf(line, sizeof line, "BoxUpdate id %u, sizeNew = %u, gSizeOldLength = %u", update.id, update.sizeNew,
                unsigned(update.oldClasses.size()));
  *text = line;
  if (!update.oldClasses.empty()) {
    *text += ", gSizeOld = [ ";
    for (uint8_t sizeClass : update.oldClasses) *text += std::to_string(sizeClass) + " ";
    *text += "]";
  }
  *text += "\n";
  return 1;
}

}  // namespace qw::box
