// SPDX-License-Identifier: MIT
// Installs the library's trace log for a host written in C (see trace_log.h).
#include "trace_log.h"

#include "qmcache/qmcache.hpp"

extern "C" int demo_trace_open(const char* path) {
  if (trace != nullptr) return -1;
  trace = new Trace(path);
  return trace->file != nullptr ? 1 : 0;
}
