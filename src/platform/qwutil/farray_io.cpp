// Chunked file arrays: the raw and record file forms (layout in qwutil.h).
//
// Readers never trust the stored count for allocation: they grow the array
// one chunk at a time and only after the bytes for that chunk have been
// asked for, so a malformed count costs at most one chunk before the end of
// the file stops it.
#include <cerrno>

#include "platform/qwutil/bytes.h"
#include "platform/qwutil/farray_internal.h"
#include "qwvm/qwutil.h"

namespace {

constexpr unsigned kHeaderBytes = 9;  // tag byte + 8-byte count
constexpr size_t kStagingBytes = 8192;

bool IsNativeIntegerSize(uint32_t size) { return size == 1 || size == 2 || size == 4 || size == 8; }

const char *PathOf(QWChannel *channel) { return ChannelPath(channel); }

[[nodiscard]] int WriteHeader(QWChannel *channel, unsigned tag, uint64_t count, const char *who) {
  unsigned char header[kHeaderBytes];
  header[0] = static_cast<unsigned char>(tag);
  qw::StoreLE64(header + 1, count);
  if (!ChannelWriteBuf(channel, header, sizeof header))
    return QWErrorRethrow("%s: could not write array header on \"%s\"", who, PathOf(channel));
  return 1;
}

// Reads exactly `size` bytes; the end of the file before that is malformed
// data, not an I/O error.
[[nodiscard]] int ReadExact(QWChannel *channel, void *buffer, size_t size, const char *who, const char *what) {
  size_t got = 0;
  if (!qw::ChannelReadUpTo(channel, buffer, size, &got))
    return QWErrorRethrow("%s: could not read %s from \"%s\"", who, what, PathOf(channel));
  if (got < size)
    return QWErrorThrow(qw::kMalformedCode, QW_ERROR_CLASS_DATA, "%s: \"%s\" ends inside %s (offset %llu)", who,
                        PathOf(channel), what, static_cast<unsigned long long>(ChannelTell(channel)));
  return 1;
}

[[nodiscard]] int ReadHeader(QWChannel *channel, unsigned *tag, uint64_t *count, const char *who) {
  unsigned char header[kHeaderBytes];
  if (!ReadExact(channel, header, sizeof header, who, "the array header")) return 0;
  *tag = header[0];
  *count = qw::LoadLE64(header + 1);
  return 1;
}

// Writes n elements starting at `elements` as `width`-byte integers.
[[nodiscard]] int WriteRawPiece(QWChannel *channel, const char *elements, uint32_t n, uint32_t elementSize,
                                uint32_t width) {
  if (qw::kHostLittleEndian && width == elementSize) return ChannelWriteBuf(channel, elements, size_t(n) * width);
  unsigned char staging[kStagingBytes];
  const uint32_t perBatch = kStagingBytes / width;
  while (n > 0) {
    uint32_t batch = n < perBatch ? n : perBatch;
    for (uint32_t i = 0; i < batch; ++i)
      qw::StoreLE(staging + size_t(i) * width, qw::LoadNative(elements + size_t(i) * elementSize, elementSize), width);
    if (!ChannelWriteBuf(channel, staging, size_t(batch) * width)) return 0;
    elements += size_t(batch) * elementSize;
    n -= batch;
  }
  return 1;
}

// Reads n `width`-byte integers into the elements starting at `elements`.
[[nodiscard]] int ReadRawPiece(QWChannel *channel, char *elements, uint32_t n, uint32_t elementSize, uint32_t width) {
  if (qw::kHostLittleEndian && width == elementSize)
    return ReadExact(channel, elements, size_t(n) * width, "FArrayReadRaw_", "the elements");
  unsigned char staging[kStagingBytes];
  const uint32_t perBatch = kStagingBytes / width;
  while (n > 0) {
    uint32_t batch = n < perBatch ? n : perBatch;
    if (!ReadExact(channel, staging, size_t(batch) * width, "FArrayReadRaw_", "the elements")) return 0;
    for (uint32_t i = 0; i < batch; ++i)
      qw::StoreNative(elements + size_t(i) * elementSize, elementSize, qw::LoadLE(staging + size_t(i) * width, width));
    elements += size_t(batch) * elementSize;
    n -= batch;
  }
  return 1;
}

// Reads `count` elements chunk by chunk, growing the array only as far as
// the next piece.
[[nodiscard]] int ReadRawElements(FArray *array, QWChannel *channel, uint64_t count, uint32_t width) {
  const uint64_t mask = array->chunkEntries - 1u;
  while (FArrayLength(array) < count) {
    const uint64_t start = FArrayLength(array);
    const uint64_t inChunk = array->chunkEntries - (start & mask);
    const uint64_t n = count - start < inChunk ? count - start : inChunk;
    if (!qw::FArrayGrowUninitialised(array, start + n)) return 0;
    if (!ReadRawPiece(channel, FArrayNthUnchecked(array, start), uint32_t(n), array->elementSize, width)) return 0;
  }
  return 1;
}

}  // namespace

int FArrayWriteRaw_(const FArray *array, QWChannel *channel, uint32_t width) {
  qwassert_(array->initialised);
  if (!IsNativeIntegerSize(array->elementSize) || width < 1 || width > array->elementSize)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL,
                        "FArrayWriteRaw_: cannot write elements of %u bytes with width %u", array->elementSize, width);
  if (!WriteHeader(channel, width, FArrayLength(array), "FArrayWriteRaw_")) return 0;
  uint64_t index = 0;
  while (index < FArrayLength(array)) {
    uint32_t n = 0;
    const char *elements = static_cast<const char *>(FArrayRange_(array, index, FArrayLength(array) - index, &n));
    if (!WriteRawPiece(channel, elements, n, array->elementSize, width))
      return QWErrorRethrow("FArrayWriteRaw_: could not write elements on \"%s\"", PathOf(channel));
    index += n;
  }
  return 1;
}

int FArrayReadRaw_(FArray *array, QWChannel *channel, uint32_t width) {
  qwassert_(array->initialised);
  if (!IsNativeIntegerSize(array->elementSize) || width > array->elementSize)
    return QWErrorThrow(EINVAL, QW_ERROR_CLASS_GENERAL,
                        "FArrayReadRaw_: cannot read elements of %u bytes with width %u", array->elementSize, width);
  array->length = 0;
  unsigned tag = 0;
  uint64_t count = 0;
  if (!ReadHeader(channel, &tag, &count, "FArrayReadRaw_")) return 0;
  const bool acceptable = width != 0 ? tag == width : (tag >= 1 && tag <= array->elementSize);
  if (!acceptable)
    return QWErrorThrow(qw::kMalformedCode, QW_ERROR_CLASS_DATA,
                        "FArrayReadRaw_: \"%s\" holds elements of width %u where width %u%s was expected",
                        PathOf(channel), tag, width != 0 ? width : array->elementSize, width != 0 ? "" : " or less");
  if (!ReadRawElements(array, channel, count, tag)) {
    array->length = 0;
    return QWErrorRethrow("FArrayReadRaw_: could not read %llu elements from \"%s\"",
                          static_cast<unsigned long long>(count), PathOf(channel));
  }
  return 1;
}

int FArrayWrite_(const FArray *array, QWChannel *channel, FArrayWriteFunction writeElement, void *context) {
  qwassert_(array->initialised);
  if (!WriteHeader(channel, 0, FArrayLength(array), "FArrayWrite_")) return 0;
  for (uint64_t i = 0; i < FArrayLength(array); ++i) {
    if (!writeElement(context, channel, FArrayNth(array, i), i))
      return QWErrorRethrow("FArrayWrite_: could not write record %llu on \"%s\"", static_cast<unsigned long long>(i),
                            PathOf(channel));
  }
  return 1;
}

int FArrayRead_(FArray *array, QWChannel *channel, FArrayReadFunction readElement, void *context) {
  qwassert_(array->initialised);
  array->length = 0;
  unsigned tag = 0;
  uint64_t count = 0;
  if (!ReadHeader(channel, &tag, &count, "FArrayRead_")) return 0;
  if (tag != 0)
    return QWErrorThrow(qw::kMalformedCode, QW_ERROR_CLASS_DATA,
                        "FArrayRead_: \"%s\" holds a raw array of width %u where records were expected",
                        PathOf(channel), tag);
  for (uint64_t i = 0; i < count; ++i) {
    uint64_t index = 0;
    if (!FArrayAdd_(array, 1, &index)) return QWErrorRethrow("FArrayRead_: could not grow the array");
    const uint64_t before = ChannelTell(channel);
    if (!readElement(context, channel, FArrayNth(array, index), index))
      return QWErrorRethrow("FArrayRead_: could not read record %llu of %llu from \"%s\"",
                            static_cast<unsigned long long>(i), static_cast<unsigned long long>(count),
                            PathOf(channel));
    // A record that consumed nothing could repeat forever under a huge count.
    if (ChannelTell(channel) == before)
      return QWErrorThrow(qw::kMalformedCode, QW_ERROR_CLASS_DATA,
                          "FArrayRead_: record %llu of \"%s\" occupies no byte", static_cast<unsigned long long>(i),
                          PathOf(channel));
  }
  return 1;
}
