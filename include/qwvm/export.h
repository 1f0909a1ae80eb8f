/*
 * qwvm/export.h: the one export macro and the C-linkage brackets.
 *
 * The library is built with -fvisibility=hidden; only functions marked
 * QW_API are exported from libqwvm.so. Every public header wraps its
 * declarations in QW_BEGIN_DECLS / QW_END_DECLS so that they have C linkage
 * when included from C++.
 */
#ifndef QWVM_EXPORT_H
#define QWVM_EXPORT_H

#if defined(QWVM_BUILDING_LIBRARY)
#define QW_API __attribute__((visibility("default")))
#else
#define QW_API
#endif

#ifdef __cplusplus
#define QW_BEGIN_DECLS extern "C" {
#define QW_END_DECLS }
#else
#define QW_BEGIN_DECLS
#define QW_END_DECLS
#endif

/* printf-style format checking for the message and error functions. */
#if defined(__GNUC__)
#define QW_PRINTF(fmtIndex, firstArg) __attribute__((format(printf, fmtIndex, firstArg)))
#define QW_NORETURN __attribute__((noreturn))
#else
#define QW_PRINTF(fmtIndex, firstArg)
#define QW_NORETURN
#endif

#endif /* QWVM_EXPORT_H */
