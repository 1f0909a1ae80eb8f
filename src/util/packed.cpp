#include "util/packed.h"

#include <algorithm>
#include <cstring>

#include "qwvm/qwlib.h"
#include "util/endian.h"

namespace qw::packed {
namespace {

// Elements are decoded in batches so the destination grows with the data.
constexpr size_t kBatchElements = 4096;

uint64_t LoadElement(const void *values, size_t index, unsigned elementSize) {
  const uint8_t *at = static_cast<const uint8_t *>(values) + index * elementSize;
  switch (elementSize) {
    case 1: return *at;
    case 2: { uint16_t v; std::memcpy(&v, at, 2); return v; }
    case 4: { uint32_t v; std::memcpy(&v, at, 4); return v; }
    default: { uint64_t v; std::memcpy(&v, at, 8); return v; }
  }
}

void StoreElement(void *values, size_t index, unsigned elementSize, uint64_t value) {
  uint8_t *at = static_cast<uint8_t *>(values) + index * elementSize;
  switch (elementSize) {
    case 1: *at = uint8_t(value); break;
    case 2: { uint16_t v = uint16_t(value); std::memcpy(at, &v, 2); break; }
    case 4: { uint32_t v = uint32_t(value); std::memcpy(at, &v, 4); break; }
    default: std::memcpy(at, &value, 8); break;
  }
}

bool ValidElementSize(unsigned elementSize) {
  return elementSize == 1 || elementSize == 2 || elementSize == 4 || elementSize == 8;
}

}  // namespace

unsigned WidthFor(uint64_t largest) {
  if (largest < 0x100) return 1;
  if (largest < 0x10000) return 2;
  if (largest <= 0xFFFFFF) return 3;
  if (largest <= 0xFFFFFFFFull) return 4;
  uint64_t high = largest >> 32;
  if (high < 0x100) return 5;
  if (high < 0x10000) return 6;
  return 8;
}

bool WriteScalar(QWChannel *channel, uint64_t value, unsigned bytes) {
  uint8_t buffer[8];
  StoreLE(buffer, value, bytes);
  return ChannelWriteBuf(channel, buffer, bytes) != 0;
}

bool ReadScalar(QWChannel *channel, unsigned bytes, uint64_t *value) {
  uint8_t buffer[8];
  if (!ChannelReadBuf(channel, buffer, bytes)) return false;
  *value = LoadLE(buffer, bytes);
  return true;
}

bool WriteArray(QWChannel *channel, const void *values, size_t count, unsigned elementSize) {
  qwassert_(ValidElementSize(elementSize));
  if (count > UINT32_MAX) return QWErrorThrow(22, QW_ERROR_CLASS_GENERAL, "array of %zu elements is too long to store", count);
  uint64_t largest = 0;
  for (size_t i = 0; i < count; ++i) largest = std::max(largest, LoadElement(values, i, elementSize));
  unsigned width = WidthFor(largest);
  uint8_t header[5];
  header[0] = uint8_t(width);
  StoreLE32(header + 1, uint32_t(count));
  if (!ChannelWriteBuf(channel, header, sizeof header)) return false;
  uint8_t buffer[kBatchElements * 8];
  for (size_t done = 0; done < count;) {
    size_t batch = std::min(kBatchElements, count - done);
    for (size_t i = 0; i < batch; ++i) StoreLE(buffer + i * width, LoadElement(values, done + i, elementSize), width);
    if (!ChannelWriteBuf(channel, buffer, batch * width)) return false;
    done += batch;
  }
  return true;
}

bool ReadArray(QWChannel *channel, void *arrayPointer, unsigned elementSize) {
  qwassert_(ValidElementSize(elementSize));
  void **array = static_cast<void **>(arrayPointer);
  if (!*array ? !ArrayInit_(arrayPointer, elementSize, 0, __FILE__, __LINE__)
              : !ArrayLengthSet_(arrayPointer, 0, __FILE__, __LINE__))
    return false;
  qwassert_(ArrayElementSize_(*array) == elementSize);
  uint8_t header[5];
  if (!ChannelReadBuf(channel, header, sizeof header)) return false;
  unsigned width = header[0];
  uint32_t count = LoadLE32(header + 1);
  if (width < 1 || width > 8)
    return QWErrorThrow(22, QW_ERROR_CLASS_DATA, "invalid integer width %u in \"%s\"", width, ChannelPath(channel));
  uint64_t limit = elementSize == 8 ? UINT64_MAX : (uint64_t(1) << (8 * elementSize)) - 1;
  uint8_t buffer[kBatchElements * 8];
  for (size_t done = 0; done < count;) {
    size_t batch = std::min<size_t>(kBatchElements, count - done);
    if (!ChannelReadBuf(channel, buffer, batch * width)) return false;
    if (!ArrayGrow_(arrayPointer, batch, __FILE__, __LINE__)) return false;
    for (size_t i = 0; i < batch; ++i) {
      uint64_t value = LoadLE(buffer + i * width, width);
      if (value > limit)
        return QWErrorThrow(22, QW_ERROR_CLASS_DATA, "integer %llu does not fit in %u bytes in \"%s\"",
                            static_cast<unsigned long long>(value), elementSize, ChannelPath(channel));
      StoreElement(*array, done + i, elementSize, value);
    }
    done += batch;
  }
  return true;
}

bool WriteBytes(QWChannel *channel, const void *bytes, uint32_t count) {
  return WriteScalar(channel, count, 4) && ChannelWriteBuf(channel, bytes, count) != 0;
}

bool ReadBytes(QWChannel *channel, uint8_t **array) {
  uint64_t count;
  if (!ReadScalar(channel, 4, &count)) return false;
  if (!*array ? !ArrayInit(*array, 1, 0) : !ArrayLengthSet(*array, 0)) return false;
  uint8_t buffer[kBatchElements];
  for (uint64_t done = 0; done < count;) {
    size_t batch = size_t(std::min<uint64_t>(sizeof buffer, count - done));
    if (!ChannelReadBuf(channel, buffer, batch)) return false;
    size_t at = ArrayLength(*array);
    if (!ArrayGrow(*array, batch)) return false;
    std::memcpy(*array + at, buffer, batch);
    done += batch;
  }
  return true;
}

}  // namespace qw::packed
