// Generic sorter: writers that gather key/value pairs, the flush that sorts
// them into one run of key/multi-value entries, and the merge passes.
//
// The flush sorts 20-byte pending records (key offset, key length, value
// offset, value length, count) with the key order, then passes once more
// over them, grouping each run of equal keys into one entry. The merge
// context holds one payload reader per input; a heap item names its input
// and that input's reader, whose current entry is the item's entry.
#include <cstring>
#include <memory>
#include <vector>

#include "vm/sort/sort_internal.h"

using namespace qw::sort;

// Names the assertion texts use.
inline constexpr uint64_t UINT_MAX_VALUE = 0xFFFFFFFFu;

struct GenericDBSorterWriter {
  GenericDBSorter *sorter;
  uint8_t *bytes = nullptr;     // pending keys and values back to back
  uint32_t *records = nullptr;  // pending records, five words each
  KMVEntry *entry = nullptr;
  uint8_t *encoded = nullptr;
  Compressor *compressor = nullptr;
  uint8_t *scratch = nullptr;
};

namespace {

uint32_t writtenCounter = 0;  // process-wide, unlocked: only paces a message

struct Order {
  int reverse, compareValues;
};

struct FlushSort {
  const uint8_t *bytes;
  Order order;
};

int CompareRecords(const void *a, const void *b, void *context) {
  const auto *x = static_cast<const uint32_t *>(a), *y = static_cast<const uint32_t *>(b);
  const auto *s = static_cast<const FlushSort *>(context);
  int c = CompareBytes(s->bytes + x[0], x[1], s->bytes + y[0], y[1]);
  if (c == 0 && s->order.compareValues) c = CompareBytes(s->bytes + x[2], x[3], s->bytes + y[2], y[3]);
  return s->order.reverse ? -c : c;
}

bool AddToEntry(KMVEntry *entry, const uint8_t *bytes, const uint32_t *record, bool first) {
  if (first) {
    const size_t at = ArrayLength(entry->key);
    if (!ArrayGrow(entry->key, record[1])) return false;
    std::memcpy(entry->key + at, bytes + record[0], record[1]);
  }
  const size_t at = ArrayLength(entry->values);
  if (!ArrayGrow(entry->values, record[3])) return false;
  if (record[3]) std::memcpy(entry->values + at, bytes + record[2], record[3]);
  return ArrayAppend(entry->valueLengths, record[3]) && ArrayAppend(entry->counts, record[4]);
}

// The merge context: the order, compression, and one reader per input.
struct MergeContext {
  Order order;
  Compressor *compressor = nullptr;
  std::vector<std::unique_ptr<PayloadReader>> inputs;
  PayloadWriter output;
  ~MergeContext() { CompressorDelete(compressor); }
};

// A heap item: 72 bytes, of which the input number and its reader are used.
struct HeapItem {
  uint32_t input;
  uint32_t reserved0;
  PayloadReader *reader;
  uint8_t reserved[56];
};
static_assert(sizeof(HeapItem) == 72);

PayloadReader *InputReader(MergeContext *m, uint32_t input) {
  while (m->inputs.size() <= input) {
    m->inputs.push_back(std::make_unique<PayloadReader>());
    if (!m->inputs.back()->Init(m->compressor != nullptr)) return nullptr;
  }
  return m->inputs[input].get();
}

int ReadFirst(void *context, DBSEntryReader *reader, uint32_t input, void *item) {
  auto *m = static_cast<MergeContext *>(context);
  auto *it = static_cast<HeapItem *>(item);
  std::memset(it, 0, sizeof *it);
  it->input = input;
  if (!(it->reader = InputReader(m, input))) return -1;
  return it->reader->Next(reader);
}

int SaveState(void *, const void *item, uint32_t *input, uint8_t **buffer) {
  const auto *it = static_cast<const HeapItem *>(item);
  *input = it->input;
  return it->reader->Save(buffer) ? 1 : 0;
}

int RestoreState(void *context, DBSEntryReader *, uint32_t input, const uint8_t *data, uint32_t length, void *item) {
  auto *m = static_cast<MergeContext *>(context);
  auto *it = static_cast<HeapItem *>(item);
  std::memset(it, 0, sizeof *it);
  it->input = input;
  return (it->reader = InputReader(m, input)) && it->reader->Restore(data, length);
}

int CompareItems(const void *a, const void *b, void *context) {
  const EntryView &x = static_cast<const HeapItem *>(a)->reader->view;
  const EntryView &y = static_cast<const HeapItem *>(b)->reader->view;
  const auto *order = static_cast<const Order *>(context);
  int c = CompareBytes(x.key, x.keyLength, y.key, y.keyLength);
  if (c == 0 && order->compareValues) c = CompareBytes(x.values, x.valuesLength, y.values, y.valuesLength);
  return order->reverse ? -c : c;
}

// The advance step: copies the smallest entry to the output and reads its
// input's next one.
int KMVWriterReader(void *context, void *item, DBSEntryReader *readers, DBSEntryWriter *writer) {
  auto *m = static_cast<MergeContext *>(context);
  auto *it = static_cast<HeapItem *>(item);
  if (!m->output.Write(writer, it->reader->entry, it->reader->entryLength)) return -1;
  return it->reader->Next(&readers[it->input]);
}

int SaveWriter(void *context, uint8_t **buffer) {
  auto *m = static_cast<MergeContext *>(context);
  const size_t n = m->output.pending ? ArrayLength(m->output.pending) : 0, at = ArrayLength(*buffer);
  if (!ArrayGrow(*buffer, n)) return 0;
  if (n) std::memcpy(*buffer + at, m->output.pending, n);
  return 1;
}

int RestoreWriter(void *context, const uint8_t *data, uint32_t length) {
  auto *m = static_cast<MergeContext *>(context);
  if (length == 0) return 1;
  if (!m->compressor) return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "saved merge writer state of an uncompressed sort");
  if (!m->output.pending && !ArrayInit(m->output.pending, 1, COMPRESSOR_THRESHOLD + 4096)) return 0;
  if (!ArrayLengthSet(m->output.pending, length)) return 0;
  std::memcpy(m->output.pending, data, length);
  return 1;
}

int FinalFlush(void *context, DBSEntryWriter *writer) {
  return static_cast<MergeContext *>(context)->output.Flush(writer) ? 1 : 0;
}

std::unique_ptr<MergeContext> NewMergeContext(const GenericDBSorter *sorter) {
  auto m = std::make_unique<MergeContext>();
  m->order = {sorter->reverse, sorter->compareValues};
  if (sorter->compress && !(m->compressor = CompressorNew())) return nullptr;
  m->output.compressor = m->compressor;
  return m;
}

}  // namespace

extern "C" {

QW_API GenericDBSorter *GenericDBSorterNew(const char *directory, uint32_t fileCount, uint32_t blockSize,
                                           int readOnly, int reverse, int compareValues, int compress) {
  DBSorter *dbs = DBSorterNew(directory, fileCount, blockSize, readOnly);
  if (!dbs) return nullptr;
  return new GenericDBSorter{dbs, reverse, compareValues, compress};
}

QW_API GenericDBSorterWriter *GenericDBSorterWriterNew(GenericDBSorter *sorter, uint64_t maxRunLength) {
  qwassert_(maxRunLength <= UINT_MAX_VALUE);
  auto writer = std::make_unique<GenericDBSorterWriter>();
  writer->sorter = sorter;
  if (!ArrayInit(writer->bytes, 1, size_t(maxRunLength) + 1) || !ArrayInit(writer->records, 4, 5 * 1024) ||
      !(writer->entry = KMVEntryNew()) || !ArrayInit(writer->encoded, 1, 256) || !ArrayInit(writer->scratch, 1, 256) ||
      (sorter->compress && !(writer->compressor = CompressorNew()))) {
    QWErrorSave();
    GenericDBSorterWriterDelete(writer.release());
    QWErrorRestore();
    return nullptr;
  }
  return writer.release();
}

QW_API void GenericDBSorterWriterDelete(GenericDBSorterWriter *writer) {
  if (!writer) return;
  ArrayFree(writer->bytes);
  ArrayFree(writer->records);
  KMVEntryDelete(writer->entry);
  ArrayFree(writer->encoded);
  CompressorDelete(writer->compressor);
  ArrayFree(writer->scratch);
  delete writer;
}

QW_API int GenericDBSorterWrite(GenericDBSorterWriter *writer, const void *key, uint32_t keyLength,
                                const void *value, uint32_t valueLength) {
  const size_t at = ArrayLength(writer->bytes);
  if (uint64_t(at) + keyLength + valueLength > UINT_MAX_VALUE)
    return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "sort writer holds more than 4 GB");
  if (!ArrayGrow(writer->bytes, size_t(keyLength) + valueLength)) return 0;
  if (keyLength) std::memcpy(writer->bytes + at, key, keyLength);
  if (valueLength) std::memcpy(writer->bytes + at + keyLength, value, valueLength);
  const uint32_t record[5] = {uint32_t(at), keyLength, uint32_t(at + keyLength), valueLength, 1};
  const size_t n = ArrayLength(writer->records);
  if (!ArrayGrow(writer->records, 5)) {
    (void)ArrayLengthSet(writer->bytes, at);
    return 0;
  }
  std::memcpy(writer->records + n, record, sizeof record);
  return 1;
}

QW_API int GenericDBSorterMultiWrite(GenericDBSorterWriter *writer, const uint8_t *keys, const uint32_t *keyIdx,
                                     uint32_t keyIdx_len, const uint8_t *values, const uint32_t *valueIdx,
                                     uint32_t valueIdx_len) {
  qwassert_(keyIdx_len == valueIdx_len);
  for (uint32_t i = 0; i + 1 < keyIdx_len; ++i) {
    if (!GenericDBSorterWrite(writer, keys + keyIdx[i], keyIdx[i + 1] - keyIdx[i], values + valueIdx[i],
                              valueIdx[i + 1] - valueIdx[i]))
      return -1;
    if (++writtenCounter % 1000000 == 0) {
      QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_DEBUG, 0);
      QWMessage_("written = %d", int(ArrayLength(writer->bytes)));
    }
  }
  return keyIdx_len == 0 ? 0 : int(keyIdx_len - 1);
}

QW_API uint64_t GenericDBSorterWriterPending(GenericDBSorterWriter *writer) { return ArrayLength(writer->bytes); }

QW_API int GenericDBSorterFlush(GenericDBSorterWriter *writer) {
  const size_t count = ArrayLength(writer->records) / 5;
  if (count == 0) return 0;
  DBSorter *dbs = writer->sorter->dbs;
  const uint32_t run = DBSorterNewRunID(dbs);
  DBSEntryWriter out;
  if (run == DBS_NO_RUN || !DBSEntryWriterInit(&out, dbs, run)) return -1;
  FlushSort context{writer->bytes, {writer->sorter->reverse, writer->sorter->compareValues}};
  QSort(writer->records, count, 20, CompareRecords, &context);
  PayloadWriter payloads;
  payloads.compressor = writer->compressor;
  KMVEntry *entry = writer->entry;
  bool ok = KMVEntryReInit(entry) && AddToEntry(entry, writer->bytes, writer->records, true);
  auto emit = [&] {
    return KMVEntryWriteToBuff(entry, &writer->encoded) &&
           payloads.Write(&out, writer->encoded, uint32_t(ArrayLength(writer->encoded)));
  };
  for (size_t i = 1; ok && i < count; ++i) {
    const uint32_t *record = writer->records + 5 * i;
    if (CompareBytes(writer->bytes + record[0], record[1], entry->key, uint32_t(ArrayLength(entry->key))) != 0)
      ok = emit() && KMVEntryReInit(entry) && AddToEntry(entry, writer->bytes, record, true);
    else
      ok = AddToEntry(entry, writer->bytes, record, false);
  }
  ok = ok && emit() && payloads.Flush(&out);
  payloads.compressor = nullptr;  // the writer's, not the flush's
  if (!DBSEntryWriterFlush(&out)) ok = false;
  (void)ArrayLengthSet(writer->bytes, 0);
  (void)ArrayLengthSet(writer->records, 0);
  return ok ? 1 : -1;
}

QW_API int GenericDBSorterSort(GenericDBSorter *sorter, uint64_t budget, uint64_t checkpointInterval) {
  Order order{sorter->reverse, sorter->compareValues};
  DBSMergeCallbacks callbacks{ReadFirst,  SaveState, RestoreState, CompareItems, KMVWriterReader,
                              SaveWriter, RestoreWriter, FinalFlush, nullptr,      nullptr,
                              sizeof(HeapItem), &order};
  uint32_t *runs = nullptr, output = DBS_NO_RUN;
  std::unique_ptr<MergeContext> context = NewMergeContext(sorter);
  int result = 1;
  callbacks.context = context.get();
  if (!context || !DBSorterMerge(sorter->dbs, nullptr, 0, &output, &callbacks, checkpointInterval)) {
    QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_PROGRESS, 0);
    QWMessage_("SORT ERROR");
    result = 0;
  }
  while (result && DBSorterGetRunToMerge(sorter->dbs, &runs, budget)) {
    context = NewMergeContext(sorter);
    callbacks.context = context.get();
    if (!context || !DBSorterMerge(sorter->dbs, runs, uint32_t(ArrayLength(runs)), &output, &callbacks,
                                   checkpointInterval)) {
      QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_PROGRESS, 0);
      QWMessage_("SORT ERROR");
      result = 0;
      break;
    }
    if (!DBSorterCommit(sorter->dbs)) {
      QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_PROGRESS, 0);
      QWMessage_("Could not commit dbs");
    }
  }
  ArrayFree(runs);
  ArrayFree(callbacks.heap);
  return result;
}

QW_API int GenericDBSorterCommit(GenericDBSorter *sorter) { return DBSorterCommit(sorter->dbs); }

QW_API int GenericDBSorterClose(GenericDBSorter *sorter) {
  if (!sorter) return 1;
  const int result = DBSorterIsReadOnly(sorter->dbs) ? 1 : DBSorterCommit(sorter->dbs);
  QWErrorSave();
  DBSorterClose(sorter->dbs);
  QWErrorRestore();
  delete sorter;
  return result;
}

}  // extern "C"
