// Sequential reading of a bucket's data file, for salvage and inspection:
// every block whose header and checksum verify, in file order, whether an
// entry maps it or not.
//
// The reader keeps the current page in memory and looks at each unit's
// header there first; only a plausible header (version 0 or 1, a length,
// an id, a class inside the page) is verified in full. A verified block is
// stepped over whole, anything else one unit at a time.
#include <string>
#include <vector>

#include "util/endian.h"
#include "vm/lvm/box_internal.h"

struct BoxLVMRawReader {
  BoxLVMDataFile *file = nullptr;
  BoxLVMDataFileThreadData *block = nullptr;
  uint64_t size = 0;
  uint64_t position = 0;  // a multiple of the unit
  uint64_t pageLoaded = UINT64_MAX;
  std::vector<uint8_t> page = std::vector<uint8_t>(BOXLVM_PAGE_SIZE);
};

namespace {

bool Plausible(const uint8_t *header, uint32_t unitInPage) {
  const uint32_t id = qw::LoadLE32(header);
  const uint32_t sizeClass = header[12];
  const uint32_t version = header[13];
  const uint32_t length = uint32_t(qw::LoadLE(header + 14, 2));
  return version <= 1 && length != 0 && id != BOXLVM_NO_ID && unitInPage + sizeClass < BOXLVM_PAGEUNITS;
}

bool LoadPage(BoxLVMRawReader *reader, uint64_t page) {
  if (reader->pageLoaded == page) return true;
  if (!BoxLVMDataBlockRead(reader->file, uint32_t(page * BOXLVM_PAGEUNITS), BOXLVM_PAGE_SIZE, reader->page.data()))
    return false;
  reader->pageLoaded = page;
  return true;
}

}  // namespace

extern "C" {

QW_API BoxLVMRawReader *BoxLVMRawReaderNew(const char *dir, uint32_t bucket) {
  std::string bucketDir, dataDir;
  if (!qw::box::JoinPath(dir, "bucket." + std::to_string(bucket), &bucketDir) ||
      !qw::box::JoinPath(bucketDir, "data", &dataDir))
    return nullptr;
  auto reader = std::make_unique<BoxLVMRawReader>();
  reader->file = BoxLVMDataFileOpen(dataDir.c_str(), 0, 0, 1, 0, 1, 1, nullptr);
  if (!reader->file) {
    QWErrorRethrow("could not open file for raw reader");
    return nullptr;
  }
  const int64_t size = BoxLVMDataFileSize(reader->file);
  reader->block = BoxLVMDataFileThreadDataNew();
  if (size < 0 || !reader->block) {
    QWErrorRethrow("could not get data file size for raw reader");
    BoxLVMRawReaderClose(reader.release());
    return nullptr;
  }
  // Only whole pages hold blocks.
  reader->size = uint64_t(size) / BOXLVM_PAGE_SIZE * BOXLVM_PAGE_SIZE;
  return reader.release();
}

QW_API void BoxLVMRawReaderClose(BoxLVMRawReader *reader) {
  if (!reader) return;
  QWErrorSave();
  (void)BoxLVMDataClose(reader->file);
  QWErrorRestore();
  BoxLVMDataFileThreadDataFree(reader->block);
  delete reader;
}

QW_API int BoxLVMRawReaderNextExt(BoxLVMRawReader *reader, uint32_t *id, uint32_t *part, uint32_t *next,
                                  uint32_t *handle, const uint8_t **data, uint32_t *length) {
  while (reader->position < reader->size) {
    const uint32_t unit = uint32_t(reader->position / BOXLVM_UNIT_SIZE);
    const uint32_t unitInPage = unit % BOXLVM_PAGEUNITS;
    if (!LoadPage(reader, unit / BOXLVM_PAGEUNITS)) return 0;
    reader->position += BOXLVM_UNIT_SIZE;
    if (!Plausible(reader->page.data() + size_t(unitInPage) * BOXLVM_UNIT_SIZE, unitInPage)) continue;
    uint32_t sizeClass = 0;
    if (!BoxLVMDataBlockReadDecode(reader->file, reader->block, unit, 0, 0, 0, 0, id, part, next, nullptr,
                                   &sizeClass, length, data)) {
      if (QWErrorClass() != QW_ERROR_CLASS_DATA) return 0;
      QWErrorClear();
      continue;
    }
    if (handle) *handle = unit;
    reader->position += uint64_t(sizeClass) * BOXLVM_UNIT_SIZE;
    return 1;
  }
  return 0;
}

QW_API int BoxLVMRawReaderNext(BoxLVMRawReader *reader, uint32_t *id, const uint8_t **data, uint32_t *length) {
  return BoxLVMRawReaderNextExt(reader, id, nullptr, nullptr, nullptr, data, length);
}

QW_API uint64_t BoxLVMRawReaderSize(BoxLVMRawReader *reader) { return reader->size; }
QW_API uint64_t BoxLVMRawReaderPos(BoxLVMRawReader *reader) { return reader->position; }

QW_API int BoxLVMRawReaderSeek(BoxLVMRawReader *reader, uint64_t position) {
  if (position > reader->size)
    return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "raw reader position %llu is past the end (%llu)",
                        static_cast<unsigned long long>(position), static_cast<unsigned long long>(reader->size));
  reader->position = position / BOXLVM_UNIT_SIZE * BOXLVM_UNIT_SIZE;
  return 1;
}

}  // extern "C"
