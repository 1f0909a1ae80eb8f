// Box entries and string-table pairs in dumps; see dump_stores.h.
#include "tools/qwvm/dump_stores.h"

#include <memory>

#include "vm/lvm/box_internal.h"  // each bucket's id mapping bounds the ids to visit

namespace qwtool {

bool DumpBoxEntries(BoxLVM *box, DumpWriter *out) {
  const uint32_t buckets = BoxLVMBucketCount(box);
  // Bucket b holds the ids b, b + buckets, ...: its mapping has one cell per id.
  uint64_t ids = 0;
  for (uint32_t b = 0; b < buckets; ++b) {
    const BoxLVMMetadata &meta = box->buckets[b]->meta;
    const uint64_t cells = VMAArrayLength_(meta.arena, meta.primMapping.id[NEWGEN], NEWGEN);
    ids = std::max(ids, cells * buckets);
  }
  BoxLVMThreadData *threadData = BoxLVMThreadDataNew();
  uint8_t *value = nullptr;
  bool ok = threadData != nullptr;
  for (uint64_t id = 0; ok && id < ids && id <= UINT32_MAX; ++id) {
    if (BoxLVMGet(box, threadData, uint32_t(id), &value))
      out->Record({"entry", std::to_string(id), Escape(value, ArrayLength(value))});
    else if (QWErrorIsSet()) ok = QWErrorRethrow("cannot read the entry of id %llu", (unsigned long long)id) != 0;
  }
  ArrayFree(value);
  BoxLVMThreadDataFree(threadData);
  return ok;
}

bool DumpStrTablePairs(LoggedStrTable *table, DumpWriter *out) {
  QWErrorClear();
  LoggedStrTableEnumeration *enumeration = LoggedStrTableEnumerationNew(table, "", 0);
  if (!enumeration) return false;
  const uint8_t *key = nullptr, *value = nullptr;
  uint32_t keyLength = 0, valueLength = 0;
  while (LoggedStrTableEnumerationGetNext(enumeration, &key, &keyLength, &value, &valueLength))
    out->Record({"pair", Escape(key, keyLength), Escape(value, valueLength)});
  LoggedStrTableEnumerationFree(enumeration);
  return !QWErrorIsSet() || QWErrorRethrow("cannot enumerate the keys") != 0;
}

bool LoadBoxEntry(BoxLVM *box, const std::vector<std::string> &fields, const DumpReader &reader) {
  uint64_t id = 0;
  std::string bytes;
  if (fields.size() != 3 || fields[0] != "entry") return reader.Bad("a box dump holds \"entry ID BYTES\" records");
  if (!ParseNumber(reader, fields[1], UINT32_MAX, &id)) return false;
  if (!Unescape(fields[2], &bytes)) return reader.Bad("bad bytes \"%s\"", fields[2].c_str());
  if (bytes.size() > UINT32_MAX) return reader.Bad("the value is too large");
  if (BoxLVMExists(box, uint32_t(id))) return reader.Bad("id %llu is defined twice", (unsigned long long)id);
  int isNew = 0, inError = 0;
  return BoxLVMUpdate(box, uint32_t(id), 0, 0, bytes.data(), uint32_t(bytes.size()), &isNew, &inError) ||
         QWErrorRethrow("line %llu: cannot store id %llu", (unsigned long long)reader.Line(), (unsigned long long)id) !=
             0;
}

bool LoadStrTablePair(LoggedStrTable *table, LoggedStrTableThreadData *threadData,
                      const std::vector<std::string> &fields, const DumpReader &reader) {
  std::string key, value;
  if (fields.size() != 3 || fields[0] != "pair")
    return reader.Bad("a string table dump holds \"pair KEY VALUE\" records");
  if (!Unescape(fields[1], &key) || !Unescape(fields[2], &value)) return reader.Bad("bad bytes in the pair");
  return LoggedStrTableSet(table, threadData, key.data(), uint32_t(key.size()), value.data(), uint32_t(value.size())) ||
         QWErrorRethrow("line %llu: cannot store the pair", (unsigned long long)reader.Line()) != 0;
}

}  // namespace qwtool
