/* SPDX-License-Identifier: MIT */
/* The trace service: a process-wide log of text entries and labelled memory
 * dumps, written by libqmcache's structure check.
 *
 * libqmcache links against the shared library that provides these calls
 * (libybtrace, a stand-in of our own, unless the host supplies the
 * platform's service under the same name).
 *
 * The stand-in keeps every entry in memory. A host or test reads them with
 * YBTRACE_Count and YBTRACE_Get, empties the log with YBTRACE_Clear, and may
 * install a callback that sees each entry as it is recorded. All calls are
 * thread-safe. */
#ifndef QMCACHE_YBTRACE_H
#define QMCACHE_YBTRACE_H

#include <stddef.h>

#include "qmcache/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Kinds of entry: a text from YBTRACE_Text (`text` holds the text), or a
 * dump from YBTRACE_Trace2 (`text` holds the label, `bytes` the memory). */
#define YBTRACE_KIND_TEXT 1
#define YBTRACE_KIND_DUMP 2

typedef struct YBTRACE_Entry {
  unsigned int traceId;
  int kind;
  /* Zero-terminated: the text or the label, of `textLength` characters. */
  const char* text;
  size_t textLength;
  /* The dumped bytes (null for a text entry). */
  const unsigned char* bytes;
  size_t byteCount;
  /* The dump as lower-case hex pairs separated by blanks, zero-terminated
   * ("" for a text entry). */
  const char* hex;
} YBTRACE_Entry;

/* Callback that sees each entry as it is recorded, on the caller's thread. */
typedef void (*YBTRACE_Callback)(const YBTRACE_Entry* entry, void* context);

/* Records a text entry of `length` characters read from `text` under
 * `traceId`. Returns 0. */
YBTRACE_API int YBTRACE_Text(unsigned int traceId, const char* text,
                             unsigned short length);

/* Records a dump entry: the zero-terminated `label` and `length` bytes read
 * from `address`. Returns 0. */
YBTRACE_API int YBTRACE_Trace2(unsigned int traceId, const char* label,
                               const void* address, unsigned short length);

/* Number of entries in the log. */
YBTRACE_API size_t YBTRACE_Count(void);

/* Copies entry `index` to `out` and returns 1, or returns 0 when there is no
 * such entry. The pointers in `out` stay valid until YBTRACE_Clear. */
YBTRACE_API int YBTRACE_Get(size_t index, YBTRACE_Entry* out);

/* Empties the log. */
YBTRACE_API void YBTRACE_Clear(void);

/* Installs `callback` (null removes it); returns the previous one. */
YBTRACE_API YBTRACE_Callback YBTRACE_SetCallback(YBTRACE_Callback callback,
                                                 void* context);

#ifdef __cplusplus
}
#endif

#endif /* QMCACHE_YBTRACE_H */
