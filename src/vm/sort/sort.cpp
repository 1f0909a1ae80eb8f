// Generic sorter: writers that gather key/value pairs, the flush that sorts
// them into one run of key/multi-value entries, and the merge passes.
//
// The flush sorts 20-byte pending records (key offset, key length, value
// offset, value length, count) with the key order (sort_records.cpp), then passes once more
// over them, grouping each run of equal keys into one entry. The merge
// context holds one payload reader per input; a heap item names its input
// and that input's reader, whose current entry is the item's entry. A scan
// reads the runs left by a merge down to a few the way a merge would, but
// hands the entries to its caller instead of writing a run, and frees
// nothing: the last pass of a sort can write its result where the caller
// wants, and start over after a crash.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "util/endian.h"
#include "util/varint.h"
#include "vm/sort/dbs_internal.h"
#include "vm/sort/sort_internal.h"

using namespace qw::sort;
using qw::kVarintMaxBytes;
using qw::VarintEncode;

static_assert(sizeof(GenericDBSorterRecord) == 20);

// Names the assertion texts use.
inline constexpr uint64_t UINT_MAX_VALUE = 0xFFFFFFFFu;

namespace {

uint32_t writtenCounter = 0;  // process-wide, unlocked: only paces a message

struct Order {
  int reverse, compareValues;
};

// The encoding of the entry of one key, written by the records
// `group[0..n)` (in that order), as the KMV entry encoding does (field 0, the
// key, the values back to back, their lengths, their counts), straight from
// the pending bytes, no lists in between. Group sizes the room it may take
// (false when the values pass 4 GB); Encode writes it at `at` and answers its
// end.
struct Group {
  const uint8_t *bytes;
  const uint32_t *records;
  const SortKey *keys;
  size_t n;
  uint64_t valueBytes = 0;

  const uint32_t *Record(size_t i) const { return records + 5 * size_t(keys[i].index); }
  bool Size(size_t *most) {
    valueBytes = 0;
    for (size_t i = 0; i < n; ++i) valueBytes += Record(i)[3];
    if (valueBytes > UINT_MAX_VALUE)
      return QWErrorThrow(75, QW_ERROR_CLASS_GENERAL, "the values of one key pass 4 GB");
    *most = 3 * kVarintMaxBytes + Record(0)[1] + valueBytes + 2 * n * kVarintMaxBytes;
    return true;
  }
  uint8_t *Encode(uint8_t *at) const {
    at += VarintEncode(at, 0);
    at += VarintEncode(at, Record(0)[1]);
    std::memcpy(at, bytes + Record(0)[0], Record(0)[1]);
    at += Record(0)[1];
    at += VarintEncode(at, valueBytes);
    for (size_t i = 0; i < n; ++i) {
      if (Record(i)[3]) std::memcpy(at, bytes + Record(i)[2], Record(i)[3]);
      at += Record(i)[3];
    }
    for (uint32_t field : {3u, 4u}) {
      at += VarintEncode(at, n);
      for (size_t i = 0; i < n; ++i) at += VarintEncode(at, Record(i)[field]);
    }
    return at;
  }
};

// Appends the encoding of a group to *buffer.
bool EncodeGroup(uint8_t **buffer, Group &group) {
  const size_t start = ArrayLength(*buffer);
  size_t most = 0;
  if (!group.Size(&most) || !ArrayLengthSet(*buffer, start + most)) return false;
  return ArrayLengthSet(*buffer, size_t(group.Encode(*buffer + start) - *buffer));
}

// Makes `entry` the entry of one key, as EncodeGroup encodes it.
bool FillEntry(KMVEntry *entry, const uint8_t *bytes, const uint32_t *records, const SortKey *group, size_t n) {
  const uint32_t *first = records + 5 * size_t(group[0].index);
  if (!KMVEntryReInit(entry) || !ArrayGrow(entry->key, first[1])) return false;
  if (first[1]) std::memcpy(entry->key, bytes + first[0], first[1]);
  for (size_t i = 0; i < n; ++i) {
    const uint32_t *record = records + 5 * size_t(group[i].index);
    const size_t at = ArrayLength(entry->values);
    if (!ArrayGrow(entry->values, record[3]) || !ArrayAppend(entry->valueLengths, record[3]) ||
        !ArrayAppend(entry->counts, record[4]))
      return false;
    if (record[3]) std::memcpy(entry->values + at, bytes + record[2], record[3]);
  }
  return true;
}

// The merge context: the order, compression, and one reader per input.
struct MergeContext {
  Order order;
  Compressor *compressor = nullptr;
  std::vector<std::unique_ptr<PayloadReader>> inputs;
  uint8_t *pending = nullptr, *scratch = nullptr;
  PayloadWriter output{nullptr, &pending, &scratch};
  ~MergeContext() {
    CompressorDelete(compressor);
    ArrayFree(pending);
    ArrayFree(scratch);
  }
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
  const size_t n = m->pending ? ArrayLength(m->pending) : 0, at = ArrayLength(*buffer);
  if (!ArrayGrow(*buffer, n)) return 0;
  if (n) std::memcpy(*buffer + at, m->pending, n);
  return 1;
}

int RestoreWriter(void *context, const uint8_t *data, uint32_t length) {
  auto *m = static_cast<MergeContext *>(context);
  if (length == 0) return 1;
  if (!m->compressor) return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "saved merge writer state of an uncompressed sort");
  if (!m->pending && !ArrayInit(m->pending, 1, COMPRESSOR_THRESHOLD + 4096)) return 0;
  if (!ArrayLengthSet(m->pending, length)) return 0;
  std::memcpy(m->pending, data, length);
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
  *writer = GenericDBSorterWriter{sorter, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  if (!ArrayInit(writer->bytes, 1, size_t(maxRunLength) + 1) ||
      !ArrayInit(writer->records, sizeof(GenericDBSorterRecord), 1024) || !(writer->entry = KMVEntryNew()) ||
      !ArrayInit(writer->encoded, 1, 256) || !ArrayInit(writer->scratch, 1, 256) ||
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
  const GenericDBSorterRecord record{uint32_t(at), keyLength, uint32_t(at + keyLength), valueLength, 1};
  if (!ArrayAppend(writer->records, record)) {
    (void)ArrayLengthSet(writer->bytes, at);
    return 0;
  }
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
  const size_t count = ArrayLength(writer->records);
  // The records as five words each, as the sort and the encoding read them.
  const auto *records = reinterpret_cast<const uint32_t *>(writer->records);
  if (count == 0) return 0;
  DBSorter *dbs = writer->sorter->dbs;
  const uint32_t run = DBSorterNewRunID(dbs);
  DBSEntryWriter out;
  if (run == DBS_NO_RUN || !DBSEntryWriterInit(&out, dbs, run)) return -1;
  std::vector<SortKey> order;
  SortPendingRecords(records, count, writer->bytes, ArrayCapacity(writer->bytes), writer->sorter->reverse != 0,
                     writer->sorter->compareValues != 0, order);
  PayloadWriter payloads{writer->compressor, &writer->encoded, &writer->scratch};
  bool ok = true;
  size_t last = 0;
  for (size_t first = 0, next; ok && first < count; last = first, first = next) {
    // The records and their bytes are read in an order unrelated to where
    // they lie: ask for them ahead (the record 16 on, its bytes 8 on).
    for (next = first + 1; next < count && order[next].sameKeyAsPrevious;) ++next;
    if (first + 16 < count) __builtin_prefetch(records + 5 * size_t(order[first + 16].index));
    if (first + 8 < count) __builtin_prefetch(writer->bytes + records[5 * size_t(order[first + 8].index)]);
    Group group{writer->bytes, records, &order[first], next - first};
    size_t most = 0;
    if (!writer->compressor && out.left > 4 && group.Size(&most) && out.left - 4 >= most) {
      // Room in the run's block: the entry is framed where it goes.
      const uint32_t length = uint32_t(group.Encode(out.address + 4) - (out.address + 4));
      qw::StoreLE32(out.address, length);
      out.address += 4 + length;
      out.left -= 4 + length;
      out.written += 4 + length;
      continue;
    }
    const size_t start = ArrayLength(writer->encoded);
    ok = EncodeGroup(&writer->encoded, group) && payloads.Encoded(&out, start);
  }
  // The writer's entry is left holding the last entry written.
  size_t lastEnd = last + 1;
  while (lastEnd < count && order[lastEnd].sameKeyAsPrevious) ++lastEnd;
  ok = ok && FillEntry(writer->entry, writer->bytes, records, &order[last], lastEnd - last) &&
       payloads.Flush(&out);
  if (!DBSEntryWriterFlush(&out)) ok = false;
  (void)ArrayLengthSet(writer->bytes, 0);
  (void)ArrayLengthSet(writer->records, 0);
  (void)ArrayLengthSet(writer->encoded, 0);
  return ok ? 1 : -1;
}

QW_API int GenericDBSorterSort(GenericDBSorter *sorter, uint64_t budget, uint64_t checkpointInterval) {
  return GenericDBSorterSortDownTo(sorter, budget, checkpointInterval, 1);
}

QW_API int GenericDBSorterSortDownTo(GenericDBSorter *sorter, uint64_t budget, uint64_t checkpointInterval,
                                     uint32_t runsLeft) {
  Order order{sorter->reverse, sorter->compareValues};
  DBSMergeCallbacks callbacks{ReadFirst,    SaveState,  CompareItems,  KMVWriterReader, nullptr,
                              nullptr,      sizeof(HeapItem), &order, RestoreState,    SaveWriter,
                              RestoreWriter, FinalFlush};
  uint32_t *runs = nullptr, output = DBS_NO_RUN;
  std::unique_ptr<MergeContext> context = NewMergeContext(sorter);
  int result = 1;
  callbacks.context = context.get();
  if (!context || !DBSorterMerge(sorter->dbs, nullptr, 0, &output, &callbacks, checkpointInterval)) {
    QWSetMessageContext_(__FILE__, __LINE__, QW_LEVEL_PROGRESS, 0);
    QWMessage_("SORT ERROR");
    result = 0;
  }
  // The budget of the next merge: no more runs than bring the count down to
  // runsLeft.
  auto nextBudget = [&]() -> uint64_t {
    if (runsLeft <= 1) return budget;
    if (!DBSorterGetRunToMerge(sorter->dbs, &runs, UINT64_MAX)) return 0;
    const uint64_t live = ArrayLength(runs);
    if (live <= runsLeft) return 0;
    return std::min<uint64_t>(budget, (live - runsLeft + 1) * DBSorterBlockSize(sorter->dbs));
  };
  while (result && DBSorterGetRunToMerge(sorter->dbs, &runs, nextBudget())) {
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

QW_API int GenericDBSorterScan(GenericDBSorter *sorter, GenericDBSorterEachFn each, void *context) {
  DBSorter *dbs = sorter->dbs;
  if (DBSorterMergePending(dbs))
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "sort scan of \"%s\": a merge is pending", dbs->directory.c_str());
  std::vector<uint32_t> runs;
  {
    Lock lock(dbs->mutex);
    for (uint32_t i = 0, n = dbs->runLength.Length(); i < n; ++i) {
      uint64_t length = 0;
      if (!dbs->runLength.Get(i, &length)) return 0;
      if (length != 0) runs.push_back(i);
    }
  }
  struct Input {
    DBSEntryReader reader{nullptr, 0, nullptr, 0, 0, 0, DBS_NO_RUN, nullptr, 0};
    PayloadReader payload;
    ~Input() {
      if (reader.dbs) DBSEntryReaderClose(&reader);
    }
  };
  std::vector<std::unique_ptr<Input>> inputs;
  // A binary min-heap of the inputs, each with its current key's first
  // eight bytes (big-endian, zero-padded, inverted when reversing), which
  // decide most comparisons without reading the entries.
  struct Item {
    uint64_t prefix;
    uint32_t input;
  };
  const bool reverse = sorter->reverse != 0, compareValues = sorter->compareValues != 0;
  auto item = [&](uint32_t input) {
    const EntryView &view = inputs[input]->payload.view;
    uint64_t word = 0;
    std::memcpy(&word, view.key, view.keyLength < 8 ? view.keyLength : 8);
    word = __builtin_bswap64(word);
    return Item{reverse ? ~word : word, input};
  };
  std::vector<Item> heap;
  for (uint32_t run : runs) {
    auto input = std::make_unique<Input>();
    input->payload.free = 0;
    if (!DBSEntryReaderInit(&input->reader, dbs, run, 0) || !input->payload.Init(sorter->compress != 0)) return 0;
    const int r = input->payload.Next(&input->reader);
    if (r < 0) return 0;
    inputs.push_back(std::move(input));
    if (r > 0) heap.push_back(item(uint32_t(inputs.size() - 1)));
  }
  auto before = [&](const Item &a, const Item &b) {
    if (a.prefix != b.prefix) return a.prefix < b.prefix;
    const EntryView &x = inputs[a.input]->payload.view, &y = inputs[b.input]->payload.view;
    int c = CompareBytes(x.key, x.keyLength, y.key, y.keyLength);
    if (c == 0 && compareValues) c = CompareBytes(x.values, x.valuesLength, y.values, y.valuesLength);
    if (reverse) c = -c;
    return c != 0 ? c < 0 : a.input < b.input;
  };
  auto siftDown = [&](size_t i) {
    const size_t n = heap.size();
    const Item moving = heap[i];
    for (size_t child; (child = 2 * i + 1) < n; i = child) {
      if (child + 1 < n && before(heap[child + 1], heap[child])) ++child;
      if (!before(heap[child], moving)) break;
      heap[i] = heap[child];
    }
    heap[i] = moving;
  };
  for (size_t i = heap.size() / 2; i-- > 0;) siftDown(i);
  while (!heap.empty()) {
    Input &input = *inputs[heap[0].input];
    const EntryView &view = input.payload.view;
    KMVEntryView entry{view.key, view.keyLength, view.values, view.valuesLength, 0};
    if (!EntryRecords(view, input.payload.entry + input.payload.entryLength, &entry.records))
      return QWErrorThrow(74, QW_ERROR_CLASS_DATA, "sorted run: malformed entry");
    if (!each(context, &entry)) return 0;
    const int r = input.payload.Next(&input.reader);
    if (r < 0) return 0;
    if (r == 0) {
      heap[0] = heap.back();
      heap.pop_back();
    } else {
      heap[0] = item(heap[0].input);
    }
    if (!heap.empty()) siftDown(0);
  }
  return 1;
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
