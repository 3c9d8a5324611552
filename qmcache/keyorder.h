/* SPDX-License-Identifier: MIT */
// The order of keys, defined once. Keys compare bytewise as unsigned values
// over their common length; when one is a proper prefix of the other, the
// longer sorts first ("abc" before "ab" before "a"). BTree::Compare, the
// descents of Search and Insert, and the key index's equality all follow
// from OrderKeys below; they differ only in how they compare the common
// bytes.
#ifndef QMCACHE_KEYORDER_H
#define QMCACHE_KEYORDER_H

#include <stdint.h>
#include <string.h>

namespace keyorder {

inline uint64_t Load64(const unsigned char* p) {
  uint64_t v;
  memcpy(&v, p, 8);
  return v;
}
inline uint32_t Load32(const unsigned char* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}

// memcmp over `n` bytes, tolerating null pointers when n is 0. Its result is
// memcmp's own (BTree::Compare passes it on unchanged).
inline int Memcmp(const unsigned char* a, const unsigned char* b,
                  unsigned long n) {
  return n == 0 ? 0 : memcmp(a, b, n);
}

// The sign of memcmp over `n` bytes (-1, 0 or 1), without a call: eight
// bytes at a time as big-endian words, which order as memcmp does.
inline int Sign(const unsigned char* a, const unsigned char* b,
                unsigned long n) {
  unsigned long i = 0;
  for (; i + 8 <= n; i += 8) {
    const uint64_t x = Load64(a + i), y = Load64(b + i);
    if (x != y) return __builtin_bswap64(x) < __builtin_bswap64(y) ? -1 : 1;
  }
  if (i + 4 <= n) {
    const uint32_t x = Load32(a + i), y = Load32(b + i);
    if (x != y) return __builtin_bswap32(x) < __builtin_bswap32(y) ? -1 : 1;
    i += 4;
  }
  for (; i < n; i++) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return 0;
}

// Whether `n` bytes are equal (Sign(a, b, n) == 0), with overlapping loads
// for keys of up to 16 bytes.
inline bool Same(const unsigned char* a, const unsigned char* b,
                 unsigned long n) {
  if (n > 16) return memcmp(a, b, n) == 0;
  if (n >= 8)
    return ((Load64(a) ^ Load64(b)) |
            (Load64(a + n - 8) ^ Load64(b + n - 8))) == 0;
  if (n >= 4)
    return ((Load32(a) ^ Load32(b)) |
            (Load32(a + n - 4) ^ Load32(b + n - 4))) == 0;
  for (unsigned long i = 0; i < n; i++)
    if (a[i] != b[i]) return false;
  return true;
}

}  // namespace keyorder

// The order of key `a` (length n) against key `b` (length m): > 0 when a
// sorts after b, < 0 before, 0 equal. `bytes(a, b, k)` orders the first k
// bytes (keyorder::Memcmp or keyorder::Sign).
template <class Bytes>
inline int OrderKeys(const unsigned char* a, unsigned long n,
                     const unsigned char* b, unsigned long m, Bytes bytes) {
  const int r = bytes(a, b, n < m ? n : m);
  if (r != 0 || n == m) return r;
  return n < m ? 1 : -1;  // the shorter key, a prefix, sorts after
}

// The sign of OrderKeys, inlined into the tree's descents.
inline int KeyOrder(const unsigned char* a, unsigned long n,
                    const unsigned char* b, unsigned long m) {
  return OrderKeys(a, n, b, m, keyorder::Sign);
}

// OrderKeys(a, n, b, m, ...) == 0: the same length and the same bytes.
inline bool SameKey(const unsigned char* a, unsigned long n,
                    const unsigned char* b, unsigned long m) {
  return n == m && keyorder::Same(a, b, n);
}

#endif  // QMCACHE_KEYORDER_H
