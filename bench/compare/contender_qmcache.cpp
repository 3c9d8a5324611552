// SPDX-License-Identifier: MIT
// libqmcache through its C interface, as a C host uses it.
#include <cstdio>

#include "compare.h"
#include "contenders.h"
#include "qmcache/qmcache.h"

namespace qmcompare {
namespace {

class Qmcache {
 public:
  static constexpr const char* kName = "qmcache";
  static constexpr bool kEvicts = true;

  explicit Qmcache(const Sizing& s) {
    CAParams params = {};
    // The budget is a 32-bit byte count; all ones is never reached.
    params.maxBytes =
        s.evicts ? static_cast<unsigned int>(s.budgetRecords * kValueSize)
                 : 0xFFFFFFFFu;
    budget_ = params.maxBytes;
    handle_ = CA_CREATE("compare", &params);
  }
  ~Qmcache() { CA_CLOSE(handle_); }

  bool Lookup(const Key& k, unsigned char* out) {
    void* rec = CA_SEARCH(handle_, 0, kKeySize, k.bytes);
    if (rec == nullptr) return false;
    CAQuery q;
    const bool ok = CA_QUERY(handle_, rec, &q) == 1 &&
                    q.dataLength == static_cast<int>(kValueSize);
    if (ok) {
      std::memcpy(out, q.data, kValueSize);
    } else {
      std::memset(out, 0, kValueSize);  // counted as a wrong value
    }
    CA_FREE(handle_, rec);
    return true;
  }

  bool Insert(const Key& k, const unsigned char* value) {
    return CA_INSERT(handle_, 0, 0, 0, kKeySize, k.bytes, kValueSize,
                     kValueSize, value) >= 0;
  }

  size_t Records() {
    CAParams p;
    return CA_GETCACHESTAT(handle_, &p) == 1 ? p.usedNodes : 0;
  }

  void Finish(Result* r) {
    char buf[96];
    snprintf(buf, sizeof(buf), "maxBytes=%u", budget_);
    r->capacity = buf;
    Slot(CASTAT_EVICTION, &r->eviction);
    Slot(CASTAT_REBUILD, &r->rebuild);
  }

 private:
  void Slot(int slot, SlotFigures* out) {
    _CAStat s;
    if (CA_GETSTAT(handle_, slot, &s) != 1) return;
    out->present = true;
    out->count = s.count;
    out->total = s.total;
    out->max = s.max;
  }

  void* handle_;
  unsigned int budget_;
};

}  // namespace

void RunQmcache(const Options& o, Result* r) { RunWorkload<Qmcache>(o, r); }

}  // namespace qmcompare
