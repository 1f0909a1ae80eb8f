// Key/multi-value entries: the entry lists, their encoding in the program's
// varint, run payload framing with and without compression, the compressor,
// and reading runs back.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>

#include "util/endian.h"
#include "util/varint.h"
#include "vm/sort/dbs_internal.h"
#include "vm/sort/sort_internal.h"

namespace qw::sort {
namespace {

// A 32-bit varint: the shift goes up 7 bits a byte, modulo 32; false when
// the input ends before a byte with bit 0 clear.
bool ReadVarint32(const uint8_t **at, const uint8_t *end, uint32_t *value) {
  uint32_t result = 0;
  for (unsigned shift = 0; *at < end; shift += 7) {
    const uint8_t byte = *(*at)++;
    result |= uint32_t(byte >> 1) << (shift % 32);
    if (!(byte & 1)) {
      *value = result;
      return true;
    }
  }
  return false;
}

bool AppendVarint(uint8_t **buffer, uint32_t value) {
  uint8_t bytes[kVarintMaxBytes];
  const size_t n = VarintEncode(bytes, value), at = ArrayLength(*buffer);
  if (!ArrayGrow(*buffer, n)) return false;
  std::memcpy(*buffer + at, bytes, n);
  return true;
}

bool AppendBytes(uint8_t **buffer, const void *data, size_t length) {
  const size_t at = ArrayLength(*buffer);
  if (!ArrayGrow(*buffer, length)) return false;
  if (length) std::memcpy(*buffer + at, data, length);
  return true;
}

bool ReadSpan(const uint8_t **at, const uint8_t *end, const uint8_t **span, uint32_t *length) {
  if (!ReadVarint32(at, end, length) || uint64_t(end - *at) < *length) return false;
  *span = *at;
  *at += *length;
  return true;
}

bool SkipList(const uint8_t **at, const uint8_t *end) {
  uint32_t count = 0, value = 0;
  if (!ReadVarint32(at, end, &count)) return false;
  for (uint32_t i = 0; i < count; ++i)
    if (!ReadVarint32(at, end, &value)) return false;
  return true;
}

bool ReadList(const uint8_t **at, const uint8_t *end, uint32_t **list) {
  uint32_t count = 0;
  if (!ReadVarint32(at, end, &count) || uint64_t(end - *at) < count) return false;  // a byte per element at least
  if (!ArrayLengthSet(*list, count)) return false;
  for (uint32_t i = 0; i < count; ++i)
    if (!ReadVarint32(at, end, &(*list)[i])) return false;
  return true;
}

bool Corrupt(const char *what) { return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "sorted run: %s", what); }

}  // namespace

bool ParseEntry(const uint8_t **at, const uint8_t *end, EntryView *view) {
  EntryView v{};
  if (!ReadVarint32(at, end, &v.field) || !ReadSpan(at, end, &v.key, &v.keyLength) ||
      !ReadSpan(at, end, &v.values, &v.valuesLength) || !SkipList(at, end) || !SkipList(at, end))
    return false;
  if (view) *view = v;
  return true;
}

bool EntryRecords(const EntryView &view, const uint8_t *end, uint64_t *records) {
  const uint8_t *at = view.values + view.valuesLength;
  uint32_t count = 0, value = 0;
  if (!SkipList(&at, end) || !ReadVarint32(&at, end, &count)) return false;
  *records = 0;
  for (uint32_t i = 0; i < count; ++i) {
    if (!ReadVarint32(&at, end, &value)) return false;
    *records += value;
  }
  return true;
}

bool PayloadWriter::Encoded(DBSEntryWriter *writer, size_t start) {
  if (compressor) return ArrayLength(*pending) < compressor->threshold || Flush(writer);
  const bool ok = WriteFramed(writer, *pending + start, uint32_t(ArrayLength(*pending) - start));
  (void)ArrayLengthSet(*pending, start);
  return ok;
}

bool PayloadWriter::Write(DBSEntryWriter *writer, const uint8_t *entry, uint32_t length) {
  if (!compressor) return WriteFramed(writer, entry, length);
  if (!*pending && !ArrayInit(*pending, 1, compressor->threshold + 4096)) return false;
  const size_t start = ArrayLength(*pending);
  return AppendBytes(pending, entry, length) && Encoded(writer, start);
}

bool PayloadWriter::Flush(DBSEntryWriter *writer) {
  if (!compressor || !*pending || ArrayLength(*pending) == 0) return true;
  if (!*scratch && !ArrayInit(*scratch, 1, 4096)) return false;
  if (!ArrayLengthSet(*scratch, 4) || !ZFlowSetCompress(compressor->stream, 1, 2, 6) ||
      !ZFlowCompress(compressor->stream, *pending, ArrayLength(*pending), scratch))
    return false;
  StoreLE32(*scratch, uint32_t(ArrayLength(*scratch) - 4));
  (void)ArrayLengthSet(*pending, 0);
  return DBSEntryWriterWriteBytes(writer, *scratch, uint32_t(ArrayLength(*scratch))) != 0;
}

PayloadReader::~PayloadReader() {
  ZFlowDelete(stream);
  ArrayFree(payload);
  ArrayFree(plain);
}

bool PayloadReader::Init(bool compressed) {
  if (!ArrayInit(payload, 1, 256) || !ArrayInit(plain, 1, 256)) return false;
  return !compressed || (stream = ZFlowNewCompress(2, 6)) != nullptr;
}

int PayloadReader::Next(DBSEntryReader *reader) {
  if (!stream && plainAt >= ArrayLength(plain)) {
    // An entry inside the current block is read where it lies.
    uint32_t length = 0;
    if (const uint8_t *payload = TakePayloadInRange(reader, &length, 1)) {
      const uint8_t *at = payload;
      if (!ParseEntry(&at, payload + length, &view) || at != payload + length) return Corrupt("malformed entry"), -1;
      entry = payload;
      entryLength = length;
      return 1;
    }
  }
  if (plainAt >= ArrayLength(plain)) {
    uint8_t header[4];
    const int r = DBSEntryReaderReadBytes(reader, header, 4, 1, free);
    if (r <= 0) return r;
    const uint32_t length = LoadLE32(header);
    if (!ArrayLengthSet(payload, length)) return -1;
    if (DBSEntryReaderReadBytes(reader, payload, length, 1, free) != 1) {
      if (!QWErrorIsSet()) Corrupt("a payload passes the end of its run");
      return -1;
    }
    if (stream) {
      (void)ArrayLengthSet(plain, 0);
      if (!ZFlowSetCompress(stream, 0, 2, 6) || !ZFlowDecompress(stream, payload, length, &plain)) return -1;
    } else {
      std::swap(plain, payload);
    }
    plainAt = 0;
  }
  const uint8_t *at = plain + plainAt, *end = plain + ArrayLength(plain);
  entry = at;
  if (!ParseEntry(&at, end, &view) || (!stream && at != end)) return Corrupt("malformed entry"), -1;
  entryLength = uint32_t(at - entry);
  plainAt += entryLength;
  return 1;
}

bool PayloadReader::Save(uint8_t **buffer) const {
  uint8_t header[4];
  StoreLE32(header, entryLength);
  return AppendBytes(buffer, header, 4) && AppendBytes(buffer, entry, entryLength) &&
         AppendBytes(buffer, plain + plainAt, ArrayLength(plain) - plainAt);
}

bool PayloadReader::Restore(const uint8_t *data, uint32_t length) {
  if (length < 4 || LoadLE32(data) > length - 4) return Corrupt("saved merge item");
  (void)ArrayLengthSet(plain, 0);
  if (!AppendBytes(&plain, data + 4, length - 4)) return false;
  const uint8_t *at = plain, *end = plain + LoadLE32(data);
  entry = plain;
  if (!ParseEntry(&at, end, &view) || at != end) return Corrupt("saved merge item");
  entryLength = LoadLE32(data);
  plainAt = entryLength;
  return true;
}

}  // namespace qw::sort

using namespace qw::sort;

struct KMVReader {
  GenericDBSorter *sorter;
  DBSEntryReader reader;
  PayloadReader input;
};

extern "C" {

QW_API Compressor *CompressorNew(void) {
  ZFlow *stream = ZFlowNewCompress(2, 6);
  if (!stream) return nullptr;
  return new Compressor{stream, COMPRESSOR_THRESHOLD};
}

QW_API void CompressorDelete(Compressor *compressor) {
  if (!compressor) return;
  ZFlowDelete(compressor->stream);
  delete compressor;
}

QW_API KMVEntry *KMVEntryNew(void) {
  auto entry = std::make_unique<KMVEntry>();
  entry->field = 0;
  entry->key = entry->values = nullptr;
  entry->valueLengths = entry->counts = nullptr;
  if (!ArrayInit(entry->key, 1, 64) || !ArrayInit(entry->values, 1, 64) ||
      !ArrayInit(entry->valueLengths, 4, 8) || !ArrayInit(entry->counts, 4, 8)) {
    KMVEntryDelete(entry.release());
    return nullptr;
  }
  return entry.release();
}

QW_API int KMVEntryReInit(KMVEntry *entry) {
  entry->field = 0;
  auto reset = [](auto *&list, size_t size) {
    if (ArrayLength(list) > 10000 || ArrayCapacity(list) > 10000) {
      ArrayFree(list);
      return ArrayInit(list, size, 8) != 0;
    }
    return ArrayLengthSet(list, 0) != 0;
  };
  return reset(entry->key, 1) && reset(entry->values, 1) && reset(entry->valueLengths, 4) && reset(entry->counts, 4);
}

QW_API void KMVEntryDelete(KMVEntry *entry) {
  if (!entry) return;
  ArrayFree(entry->key);
  ArrayFree(entry->values);
  ArrayFree(entry->valueLengths);
  ArrayFree(entry->counts);
  delete entry;
}

QW_API void KMVEntryDump(const KMVEntry *entry) {
  std::printf("entry field = %u, key = \"%.*s\" (%zu bytes), %zu values:", entry->field,
              int(ArrayLength(entry->key)), reinterpret_cast<const char *>(entry->key), ArrayLength(entry->key),
              ArrayLength(entry->valueLengths));
  size_t at = 0;
  for (size_t i = 0; i < ArrayLength(entry->valueLengths); ++i) {
    const uint32_t count = i < ArrayLength(entry->counts) ? entry->counts[i] : 0;
    std::printf(" \"%.*s\" x%u", int(entry->valueLengths[i]), reinterpret_cast<const char *>(entry->values + at),
                count);
    at += entry->valueLengths[i];
  }
  std::printf("\n");
}

QW_API int KMVEntryWrite_(const KMVEntry *entry, uint8_t **buffer) {
  if (!*buffer && !ArrayInit(*buffer, 1, 64)) return 0;
  if (!AppendVarint(buffer, entry->field)) return 0;
  for (const uint8_t *list : {entry->key, entry->values})
    if (!AppendVarint(buffer, uint32_t(ArrayLength(list))) || !AppendBytes(buffer, list, ArrayLength(list))) return 0;
  for (const uint32_t *list : {entry->valueLengths, entry->counts}) {
    if (!AppendVarint(buffer, uint32_t(ArrayLength(list)))) return 0;
    for (size_t i = 0; i < ArrayLength(list); ++i)
      if (!AppendVarint(buffer, list[i])) return 0;
  }
  return 1;
}

QW_API int KMVEntryRead_(KMVEntry *entry, const uint8_t **at, const uint8_t *end) {
  const uint8_t *span = nullptr;
  uint32_t length = 0;
  if (!ReadVarint32(at, end, &entry->field)) return 0;
  for (uint8_t **list : {&entry->key, &entry->values}) {
    if (!ReadSpan(at, end, &span, &length) || !ArrayLengthSet(*list, 0) || !AppendBytes(list, span, length)) return 0;
  }
  return ReadList(at, end, &entry->valueLengths) && ReadList(at, end, &entry->counts);
}

QW_API int KMVEntryWriteToBuff(const KMVEntry *entry, uint8_t **buffer) {
  if (*buffer) (void)ArrayLengthSet(*buffer, 0);
  return KMVEntryWrite_(entry, buffer);
}

QW_API int KMVEntryReadFromBuff(KMVEntry *entry, const uint8_t *buffer, uint32_t length) {
  const uint8_t *at = buffer;
  return KMVEntryRead_(entry, &at, buffer + length) && at == buffer + length;
}

QW_API int KMVWriterWriteEntry(GenericDBSorterWriter *writer, DBSEntryWriter *run) {
  PayloadWriter payloads{writer->compressor, &writer->encoded, &writer->scratch};
  if (!writer->compressor) (void)ArrayLengthSet(writer->encoded, 0);
  const size_t start = ArrayLength(writer->encoded);
  return KMVEntryWrite_(writer->entry, &writer->encoded) && payloads.Encoded(run, start);
}

QW_API int KMVWriterFlush(GenericDBSorterWriter *writer, DBSEntryWriter *run) {
  PayloadWriter payloads{writer->compressor, &writer->encoded, &writer->scratch};
  return payloads.Flush(run);
}

QW_API KMVReader *KMVReaderNew(GenericDBSorter *sorter, uint32_t runIndex) {
  auto reader = std::make_unique<KMVReader>();
  reader->sorter = sorter;
  reader->input.free = 0;  // the run stays whole: it may be read again
  if (!DBSEntryReaderInit(&reader->reader, sorter->dbs, runIndex, 0) || !reader->input.Init(sorter->compress != 0))
    return nullptr;
  return reader.release();
}

QW_API int KMVReaderReadEntry(KMVReader *reader, KMVEntry *entry) {
  const int r = reader->input.Next(&reader->reader);
  if (r <= 0) return r;
  return KMVEntryReadFromBuff(entry, reader->input.entry, reader->input.entryLength) ? 1 : (Corrupt("entry"), -1);
}

QW_API void KMVReaderDelete(KMVReader *reader) {
  if (!reader) return;
  DBSEntryReaderClose(&reader->reader);
  delete reader;
}

}  // extern "C"
