/* SPDX-License-Identifier: MIT */
/* A C host's door to the library's trace log.
 *
 * The trace log is a C++ object: a host installs one by storing
 * `new Trace(path)` in the global `trace` (qmcache.hpp). A host written in C
 * cannot write that line itself, so it links this small C++ file, which does
 * it on the host's behalf. Once installed the log belongs to the library:
 * CA_DEINIT writes its last line, closes the file and destroys the log. */
#ifndef QMCACHE_EXAMPLES_TRACE_LOG_H
#define QMCACHE_EXAMPLES_TRACE_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Installs a trace log writing to `path` (created or emptied). Returns 1
 * when the file is open, 0 when it could not be opened (a log that writes
 * nothing is installed all the same) and -1 when a log was already
 * installed (it is kept). */
int demo_trace_open(const char* path);

#ifdef __cplusplus
}
#endif

#endif /* QMCACHE_EXAMPLES_TRACE_LOG_H */
