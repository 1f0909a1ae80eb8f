// The compression stream over zlib: one z_stream kept per ZFlow and reset
// for every buffer, so that repeated calls reuse its memory.
#include <zlib.h>

#include <cstring>
#include <string>

#include "qwvm/qwlib.h"
#include "qwvm/qwmime.h"

struct ZFlow {
  z_stream z{};
  bool compress = true;
  bool ready = false;  // z holds an initialised deflate or inflate state
  int format = ZFLOW_FORMAT_GZIP;
  int level = 6;
  std::string lastError;
};

namespace {

int WindowBits(int format) {
  return format == ZFLOW_FORMAT_RAW ? -15 : format == ZFLOW_FORMAT_ZLIB ? 15 : 15 + 16;
}

void End(ZFlow *flow) {
  if (!flow->ready) return;
  if (flow->compress) deflateEnd(&flow->z);
  else inflateEnd(&flow->z);
  flow->ready = false;
}

int Fail(ZFlow *flow, int code, int errorClass, const std::string &text) {
  flow->lastError = text;
  return QWErrorThrow(code, errorClass, "%s", text.c_str());
}

// Lengthens *out by `more` bytes for the stream to write into (the caller
// cuts it back to what was written); returns the old length in *start.
bool Extend(uint8_t **out, size_t more, size_t *start) {
  if (!*out && !ArrayInit(*out, 1, more)) return false;
  *start = ArrayLength(*out);
  return ArrayLengthSet(*out, *start + more) != 0;
}

}  // namespace

extern "C" {

QW_API ZFlow *ZFlowNewCompress(int format, int level) {
  auto *flow = new (std::nothrow) ZFlow;
  if (!flow) {
    QWErrorThrow(12, QW_ERROR_CLASS_SYSTEM, "out of memory for a compression stream");
    return nullptr;
  }
  if (!ZFlowSetCompress(flow, 1, format, level)) {
    QWErrorSave();
    ZFlowDelete(flow);
    QWErrorRestore();
    return nullptr;
  }
  return flow;
}

QW_API int ZFlowSetCompress(ZFlow *flow, int compress, int format, int level) {
  if (format < ZFLOW_FORMAT_RAW || format > ZFLOW_FORMAT_GZIP || level < 0 || level > 9)
    return Fail(flow, 22, QW_ERROR_CLASS_GENERAL,
                "compression stream: format " + std::to_string(format) + ", level " + std::to_string(level));
  if (flow->ready && flow->compress == (compress != 0) && flow->format == format && flow->level == level) {
    const int r = compress ? deflateReset(&flow->z) : inflateReset(&flow->z);
    if (r == Z_OK) return 1;
  }
  End(flow);
  flow->compress = compress != 0;
  flow->format = format;
  flow->level = level;
  std::memset(&flow->z, 0, sizeof flow->z);
  const int r = flow->compress
                    ? deflateInit2(&flow->z, level, Z_DEFLATED, WindowBits(format), 8, Z_DEFAULT_STRATEGY)
                    : inflateInit2(&flow->z, WindowBits(format));
  if (r != Z_OK) return Fail(flow, 12, QW_ERROR_CLASS_SYSTEM, std::string("compression stream: ") + zError(r));
  flow->ready = true;
  return 1;
}

QW_API int ZFlowCompress(ZFlow *flow, const void *data, size_t size, uint8_t **out) {
  if (!flow->ready || !flow->compress) return Fail(flow, 22, QW_ERROR_CLASS_GENERAL, "stream not set to compress");
  const size_t bound = deflateBound(&flow->z, uLong(size));
  size_t start = 0;
  if (!Extend(out, bound, &start)) return 0;
  flow->z.next_in = static_cast<Bytef *>(const_cast<void *>(data));
  flow->z.avail_in = uInt(size);
  flow->z.next_out = *out + start;
  flow->z.avail_out = uInt(bound);
  const int r = deflate(&flow->z, Z_FINISH);
  const size_t produced = bound - flow->z.avail_out;
  (void)deflateReset(&flow->z);
  (void)ArrayLengthSet(*out, start + produced);  // shrinking never fails
  if (r != Z_STREAM_END) return Fail(flow, 5, QW_ERROR_CLASS_SYSTEM, std::string("deflate: ") + zError(r));
  return 1;
}

QW_API int ZFlowDecompress(ZFlow *flow, const void *data, size_t size, uint8_t **out) {
  if (!flow->ready || flow->compress) return Fail(flow, 22, QW_ERROR_CLASS_GENERAL, "stream not set to decompress");
  flow->z.next_in = static_cast<Bytef *>(const_cast<void *>(data));
  flow->z.avail_in = uInt(size);
  int r = Z_OK;
  while (r != Z_STREAM_END) {
    const size_t room = size * 4 + 4096;
    size_t start = 0;
    if (!Extend(out, room, &start)) return 0;
    flow->z.next_out = *out + start;
    flow->z.avail_out = uInt(room);
    r = inflate(&flow->z, Z_NO_FLUSH);
    (void)ArrayLengthSet(*out, start + (room - flow->z.avail_out));
    if (r == Z_STREAM_END) break;
    if (r != Z_OK || (flow->z.avail_in == 0 && flow->z.avail_out != 0)) {
      (void)inflateReset(&flow->z);
      return Fail(flow, 74, QW_ERROR_CLASS_DATA,
                  std::string("damaged compressed data: ") + (r == Z_OK ? "truncated" : zError(r)));
    }
  }
  const bool trailing = flow->z.avail_in != 0;
  (void)inflateReset(&flow->z);
  if (trailing) return Fail(flow, 74, QW_ERROR_CLASS_DATA, "damaged compressed data: bytes after the end");
  return 1;
}

QW_API const char *ZFlowGetLastError(ZFlow *flow) { return flow->lastError.c_str(); }

QW_API void ZFlowDelete(ZFlow *flow) {
  if (!flow) return;
  End(flow);
  delete flow;
}

}  // extern "C"
