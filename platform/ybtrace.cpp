// SPDX-License-Identifier: MIT
// The trace service stand-in: an in-memory, thread-safe log of text entries
// and labelled memory dumps.
//
// Each entry owns copies of everything it reports, so the pointers handed out
// by YBTRACE_Get stay valid until YBTRACE_Clear. Entries are shared with the
// callback that sees them, which runs outside the log's lock: a callback may
// call back into this service (even YBTRACE_Clear) without deadlocking or
// freeing the entry it is looking at.

#include "qmcache/ybtrace.h"

#include <string.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct StoredEntry {
  std::string text;
  std::vector<unsigned char> bytes;
  std::string hex;
  YBTRACE_Entry view;  // points into the three members above
};

struct Log {
  std::mutex mutex;
  std::vector<std::shared_ptr<StoredEntry>> entries;
  YBTRACE_Callback callback = nullptr;
  void* context = nullptr;
};

#if defined(__has_include)
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#define QMTRACE_MARK_DEFINED(p, n) VALGRIND_MAKE_MEM_DEFINED(p, n)
#endif
#endif
#ifndef QMTRACE_MARK_DEFINED
#define QMTRACE_MARK_DEFINED(p, n) ((void)(p), (void)(n))
#endif

// Never destroyed, so late calls from other libraries' exit paths are safe.
Log& TheLog() {
  static Log* log = new Log;
  return *log;
}

std::string ToHex(const std::vector<unsigned char>& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes.size() * 3);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0) hex.push_back(' ');
    hex.push_back(kDigits[bytes[i] >> 4]);
    hex.push_back(kDigits[bytes[i] & 0x0f]);
  }
  return hex;
}

void Record(const std::shared_ptr<StoredEntry>& entry) {
  Log& log = TheLog();
  YBTRACE_Callback callback;
  void* context;
  {
    std::lock_guard<std::mutex> hold(log.mutex);
    log.entries.push_back(entry);
    callback = log.callback;
    context = log.context;
  }
  if (callback != nullptr) callback(&entry->view, context);
}

// Fills the entry's view once its strings and bytes are final.
void Publish(StoredEntry* e, unsigned int traceId, int kind) {
  e->view.traceId = traceId;
  e->view.kind = kind;
  e->view.text = e->text.c_str();
  e->view.textLength = e->text.size();
  e->view.bytes = kind == YBTRACE_KIND_DUMP ? e->bytes.data() : nullptr;
  e->view.byteCount = e->bytes.size();
  e->view.hex = e->hex.c_str();
}

}  // namespace

extern "C" {

YBTRACE_API int YBTRACE_Text(unsigned int traceId, const char* text,
                             unsigned short length) {
  auto entry = std::make_shared<StoredEntry>();
  // Exactly `length` characters: the text need not be zero-terminated.
  if (text != nullptr) entry->text.assign(text, length);
  Publish(entry.get(), traceId, YBTRACE_KIND_TEXT);
  Record(entry);
  return 0;
}

YBTRACE_API int YBTRACE_Trace2(unsigned int traceId, const char* label,
                               const void* address, unsigned short length) {
  auto entry = std::make_shared<StoredEntry>();
  if (label != nullptr) entry->text = label;
  // Exactly `length` bytes are read from `address`, nothing around them.
  if (address != nullptr && length != 0) {
    const unsigned char* from = static_cast<const unsigned char*>(address);
    entry->bytes.assign(from, from + length);
    // A dump of an object holds its padding too, bytes nobody wrote. The
    // copy is the log's own: under valgrind it is declared defined, so that
    // rendering and reading the dump are not taken for a use of garbage.
    QMTRACE_MARK_DEFINED(entry->bytes.data(), entry->bytes.size());
  }
  entry->hex = ToHex(entry->bytes);
  Publish(entry.get(), traceId, YBTRACE_KIND_DUMP);
  Record(entry);
  return 0;
}

YBTRACE_API size_t YBTRACE_Count(void) {
  Log& log = TheLog();
  std::lock_guard<std::mutex> hold(log.mutex);
  return log.entries.size();
}

YBTRACE_API int YBTRACE_Get(size_t index, YBTRACE_Entry* out) {
  if (out == nullptr) return 0;
  Log& log = TheLog();
  std::lock_guard<std::mutex> hold(log.mutex);
  if (index >= log.entries.size()) return 0;
  *out = log.entries[index]->view;
  return 1;
}

YBTRACE_API void YBTRACE_Clear(void) {
  Log& log = TheLog();
  std::vector<std::shared_ptr<StoredEntry>> dropped;
  {
    std::lock_guard<std::mutex> hold(log.mutex);
    dropped.swap(log.entries);
  }
  // `dropped` frees the entries here, outside the lock.
}

YBTRACE_API YBTRACE_Callback YBTRACE_SetCallback(YBTRACE_Callback callback,
                                                 void* context) {
  Log& log = TheLog();
  std::lock_guard<std::mutex> hold(log.mutex);
  YBTRACE_Callback previous = log.callback;
  log.callback = callback;
  log.context = context;
  return previous;
}

}  // extern "C"
