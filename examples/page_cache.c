// SPDX-License-Identifier: MIT
/* page_cache: a web server's cache of rendered pages, kept by libqmcache.
 *
 * The host renders pages and keeps them in one cache with a small budget
 * (4 KiB), so that a handful of pages pass it. It shows:
 *   - hits and misses, an age limit on a search, a replaced page;
 *   - a pinned page (the home page) that eviction never takes;
 *   - an expiring page (the news) that eviction forces out once its lifetime
 *     has run out;
 *   - a page that a reader still holds while the cache passes its budget;
 *   - the eviction pass that an over-budget insert runs, as seen through the
 *     release callback and the trace log;
 *   - the cache's parameters, its listing, and the statistic slots.
 *
 * Usage: page_cache [trace-log-path]   (default: page_cache.trace)
 *
 * Eviction grades only records made before the current second, so the demo
 * waits once for the clock to tick (about a second in all). */
#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "qmcache/qmcache.h"
#include "trace_log.h"

#define BUDGET 4096

/* ---- Release callback ---------------------------------------------------- */

static unsigned long stored; /* records the cache took in */
static unsigned long releases;
static unsigned long releasedBytes;
static char releasedNames[512];

/* Called by the library just before a record with CAREC_CALLBACK is
 * destroyed. The block is the record's own copy; read it, never keep or free
 * it, and do not call the library from here. Our pages carry their path in a
 * <title> and end with a zero byte, so the text is safe to read. */
static void on_release(int flags, unsigned long size, void* data) {
  char path[64] = "?";
  const char* text = (const char*)data;
  const char* start = strstr(text, "<title>");
  (void)flags;
  if (start != NULL) {
    const char* end;
    start += 7;
    end = strchr(start, '<');
    if (end != NULL && (size_t)(end - start) < sizeof path) {
      memcpy(path, start, (size_t)(end - start));
      path[end - start] = '\0';
    }
  }
  releases++;
  releasedBytes += size;
  /* Noted here, printed by the host once its call has returned. */
  if (strlen(releasedNames) + strlen(path) + 3 < sizeof releasedNames) {
    if (releasedNames[0] != '\0') strcat(releasedNames, ", ");
    strcat(releasedNames, path);
  }
}

/* Prints and forgets the pages released since the last call. */
static void print_released(const char* prefix) {
  if (releasedNames[0] != '\0') printf("%s%s", prefix, releasedNames);
  releasedNames[0] = '\0';
}

/* ---- Helpers that turn the interface into plain answers ------------------ */

/* Renders a page of exactly `bytes` bytes, terminating zero included. */
static void render(const char* path, int bytes, char* out) {
  static const char filler[] =
      "Lorem ipsum dolor sit amet, consectetur adipiscing elit. ";
  int n = snprintf(out, (size_t)bytes, "<html><title>%s</title><body>", path);
  while (n < bytes - 1) {
    out[n] = filler[n % (int)(sizeof filler - 1)];
    n++;
  }
  out[bytes - 1] = '\0';
}

static const char* flag_names(int flags) {
  if (flags & CAREC_PINNED) return "pinned";
  if (flags & CAREC_EXPIRES) return "expires";
  return "";
}

/* Inserts a rendered page; says whether the key was new and how many pages
 * the insert released (a replaced page, or the victims of an eviction). */
static void put_page(void* cache, const char* path, int bytes, int flags,
                     int lifetime) {
  char page[1024];
  unsigned long before = releases;
  int result;
  render(path, bytes, page);
  result = CA_INSERT(cache, 0, flags | CAREC_CALLBACK, lifetime,
                     (int)strlen(path), path, bytes, bytes, page);
  if (result >= 0) stored++;
  printf("  insert %-14s %4d bytes %-8s -> %s", path, bytes, flag_names(flags),
         result == 1   ? "new key"
         : result == 0 ? "replaced"
                       : "?");
  if (releases != before) {
    printf(", %lu released: ", releases - before);
    print_released("");
  }
  printf("\n");
}

/* Looks a page up and gives the hold back at once. Returns 1 on a hit. */
static int get_page(void* cache, const char* path, int maxAge) {
  void* record = CA_SEARCH(cache, maxAge, (int)strlen(path), path);
  CAQuery q;
  if (record == NULL) {
    printf("  search %-14s max age %2d s -> miss\n", path, maxAge);
    return 0;
  }
  CA_QUERY(cache, record, &q);
  printf("  search %-14s max age %2d s -> hit (hits %d, age %d s)\n", path,
         maxAge, q.hits, q.age);
  CA_FREE(cache, record);
  return 1;
}

static void print_params(void* cache, const char* when) {
  CAParams p;
  if (CA_GETCACHESTAT(cache, &p) != 1) return;
  printf(
      "  CAParams %s: maxBytes %u, allocated %u (90%% mark %u), nodes %u, "
      "usedNodes %u, %lu timed operations\n",
      when, p.maxBytes, p.allocated, p.maxBytes - p.maxBytes / 10, p.nodes,
      p.usedNodes, p.timing.count);
}

static void print_stats(void* handle, const char* title) {
  static const char* names[8] = {"insert",  "search", "search hit", "query",
                                 "release", "erase",  "eviction",   "rebuild"};
  int slot;
  printf("\n%s\n", title);
  printf("  %-4s %-10s %6s %12s %10s %10s %10s\n", "slot", "operation", "count",
         "total us", "min us", "max us", "last us");
  for (slot = 0; slot < 8; slot++) {
    _CAStat s;
    CA_GETSTAT(handle, slot, &s);
    printf("  %-4d %-10s %6lu %12.1f %10.2f %10.2f %10.2f\n", slot, names[slot],
           s.count, s.total * 1e6, s.min * 1e6, s.max * 1e6, s.last * 1e6);
  }
}

static void list_pages(void* cache) {
  int count = 0;
  int i;
  void** list = CA_LIST(cache, &count);
  printf("  %d pages listed (key-tree order):\n", count);
  for (i = 0; i < count; i++) {
    CAQuery q;
    CA_QUERY(cache, list[i], &q);
    printf("    %-14.*s %4d bytes  hits %d  age %d s  %s\n", q.keyLength,
           (const char*)q.key, q.length, q.hits, q.age, flag_names(q.flags));
  }
  CA_LIST_FREE(cache, list);
}

/* Prints the lines added to the trace log since `*offset`. The library
 * flushes every line, so the file can be read while the log is open. */
static void show_trace(const char* path, long* offset) {
  char line[256];
  FILE* f = fopen(path, "r");
  if (f == NULL) return;
  if (fseek(f, *offset, SEEK_SET) == 0) {
    while (fgets(line, sizeof line, f) != NULL) printf("    | %s", line);
    *offset = ftell(f);
  }
  fclose(f);
}

static long file_size(const char* path) {
  long size = 0;
  FILE* f = fopen(path, "r");
  if (f == NULL) return 0;
  if (fseek(f, 0, SEEK_END) == 0) size = ftell(f);
  fclose(f);
  return size;
}

static void wait_for_next_second(void) {
  time_t start = time(NULL);
  while (time(NULL) == start) poll(NULL, 0, 50); /* 50 ms naps */
}

/* ---- The demo --------------------------------------------------------------
 */

int main(int argc, char** argv) {
  const char* tracePath = argc > 1 ? argv[1] : "page_cache.trace";
  long traceOffset = 0;
  CAParams params;
  void* pages;
  void* held;
  int lines = 0;
  char line[256];
  FILE* f;

  printf("libqmcache %d.%d.%d: a cache of rendered pages\n\n",
         QMCACHE_VERSION_MAJOR, QMCACHE_VERSION_MINOR, QMCACHE_VERSION_PATCH);

  /* A host may install the trace log before its first call. */
  if (demo_trace_open(tracePath) == 1)
    printf("trace log: %s\n", tracePath);
  else
    printf("trace log: %s could not be opened; tracing nothing\n", tracePath);

  CA_INIT(1); /* one thread: the lock classes need not lock */
  CA_SETFREE(on_release);

  memset(&params, 0, sizeof params);
  params.maxBytes = BUDGET;
  pages = CA_CREATE("pages", &params);
  printf("opened cache 'pages' with a budget of %u bytes\n", params.maxBytes);

  printf("\n1. Render six pages (3,300 bytes)\n");
  put_page(pages, "/", 700, CAREC_PINNED, 0);
  put_page(pages, "/index.html", 600, 0, 0);
  put_page(pages, "/about.html", 500, 0, 0);
  put_page(pages, "/contact.html", 400, 0, 0);
  put_page(pages, "/news.html", 500, CAREC_EXPIRES, 1); /* 1 s lifetime */
  put_page(pages, "/blog/1", 600, 0, 0);
  print_params(pages, "now");

  printf("\n2. Serve some requests\n");
  get_page(pages, "/index.html", 0);
  get_page(pages, "/index.html", 0);
  get_page(pages, "/index.html", 0);
  get_page(pages, "/blog/1", 0);
  get_page(pages, "/missing.html", 0);
  get_page(pages, "/news.html", 60);
  /* Re-rendering a page replaces its record; the old one is released at
   * once because nobody holds it. */
  put_page(pages, "/about.html", 500, 0, 0);
  /* A slow reader keeps /contact.html: a held record is never evicted. */
  held = CA_SEARCH(pages, 0, 13, "/contact.html");
  printf("  a slow reader holds /contact.html (%s)\n",
         held != NULL ? "hit" : "miss");

  printf(
      "\n3. Wait for the clock to tick: a record made in the current second"
      "\n   is never evicted\n");
  wait_for_next_second();
  get_page(pages, "/", 1); /* older than one second by now */

  printf("\n4. Render two more pages: the second passes the budget\n");
  put_page(pages, "/blog/2", 600, 0, 0);
  traceOffset = file_size(tracePath); /* show only what comes next */
  put_page(pages, "/blog/3", 600, 0, 0);
  printf("  the trace log tells what the eviction pass did:\n");
  show_trace(tracePath, &traceOffset);
  print_params(pages, "now");
  list_pages(pages);

  printf("\n5. The slow reader gives /contact.html back\n");
  CA_FREE(pages, held);
  get_page(pages, "/contact.html", 0);
  get_page(pages, "/news.html", 0);
  get_page(pages, "/about.html", 0);

  print_stats(NULL, "Statistic slots (CA_GETSTAT, library-wide)");

  CA_SETCHECK(1);
  printf("\nstructure check: %s\n",
         CA_CHECKCACHE(0) == 0 ? "every cache is sound" : "a fault was found");

  printf("\n6. Close the cache and tear the library down\n");
  CA_CLOSE(pages); /* the last handle: the cache goes with its records */
  print_released("  released: ");
  printf("\n");
  CA_DEINIT(); /* writes "CACACHE Closed" and closes the trace log */
  printf("  %lu pages released in all (%lu bytes)\n", releases, releasedBytes);

  f = fopen(tracePath, "r");
  if (f != NULL) {
    while (fgets(line, sizeof line, f) != NULL) lines++;
    fclose(f);
    printf("  the trace log %s has %d lines\n", tracePath, lines);
  }
  /* Every record the cache took in has been released exactly once. */
  if (releases != stored) {
    printf("  error: %lu records stored, %lu released\n", stored, releases);
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
