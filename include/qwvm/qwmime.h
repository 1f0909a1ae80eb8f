/*
 * qwvm/qwmime.h: the compression stream (deflate, from zlib).
 *
 * A stream compresses or decompresses whole buffers, one at a time; each
 * buffer is an independent deflate stream in the chosen wrapping.
 *  format  ZFLOW_FORMAT_RAW (bare deflate), ZFLOW_FORMAT_ZLIB or
 *          ZFLOW_FORMAT_GZIP (header and checksum, so that damage is found).
 *  level   0 (store) .. 9 (smallest); 6 is the usual balance.
 * Results follow qwvm/qwlib.h: 1 or non-NULL on success, 0 or NULL with the
 * error chain set; the stream also keeps its last failure's text for
 * ZFlowGetLastError. A stream belongs to one thread at a time.
 */
#ifndef QWVM_QWMIME_H
#define QWVM_QWMIME_H

#include <stddef.h>
#include <stdint.h>

#include "qwvm/export.h"

QW_BEGIN_DECLS

#define ZFLOW_FORMAT_RAW 0
#define ZFLOW_FORMAT_ZLIB 1
#define ZFLOW_FORMAT_GZIP 2

typedef struct ZFlow ZFlow;

/* A stream set to compress with (format, level). NULL with an error for a
 * bad format or level, or when memory runs out. */
QW_API ZFlow *ZFlowNewCompress(int format, int level);

/* Resets the stream: `compress` non-zero to compress, 0 to decompress, with
 * (format, level). Returns 1, or 0 with an error. */
QW_API int ZFlowSetCompress(ZFlow *flow, int compress, int format, int level);

/* Compresses `size` bytes of `data` as one stream and appends the result to
 * *out (a qwlib growable byte array; NULL is initialised). The stream must
 * be set to compress. Returns 1, or 0 with an error. */
QW_API int ZFlowCompress(ZFlow *flow, const void *data, size_t size, uint8_t **out);

/* Decompresses one whole stream of `size` bytes and appends the bytes to
 * *out. A damaged or truncated stream, or bytes after its end, fail with
 * class QW_ERROR_CLASS_DATA (code 74). Returns 1, or 0 with an error. */
QW_API int ZFlowDecompress(ZFlow *flow, const void *data, size_t size, uint8_t **out);

/* Text of the stream's last failure ("" when none). */
QW_API const char *ZFlowGetLastError(ZFlow *flow);

/* Frees the stream (NULL is ignored). */
QW_API void ZFlowDelete(ZFlow *flow);

QW_END_DECLS

#endif /* QWVM_QWMIME_H */
