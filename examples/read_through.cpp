// SPDX-License-Identifier: MIT
// read_through: a C++ host on the layer (qmcache/cache.hpp).
//
// Worker threads serve requests for 64 product pages. Building a page is slow
// (a 2 ms "database query"), so the workers keep built pages in one cache
// that they share: a request looks the page up, and on a miss builds it and
// stores it for the next request. A page older than 1 second is stale and
// is built again.
//
// qm::SharedCache takes the locks the library asks for, so the workers need
// none of their own; qm::Hold gives each page back when it goes out of
// scope. Building a page happens outside every lock: two workers that miss
// the same page at once both build it, and the second insert replaces the
// first one's record.
//
// Usage: read_through [workers] [requests per worker]   (default: 4 500)
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "qmcache/cache.hpp"

namespace {

constexpr int kPages = 64;
constexpr int kMaxAge = 1;  // seconds

std::atomic<long> built{0};

// The slow source behind the cache.
std::string BuildPage(const std::string& key) {
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  built.fetch_add(1);
  return "<html><h1>" + key + "</h1>" + std::string(200, '.') + "</html>";
}

struct Counts {
  long hits = 0, misses = 0, wrong = 0;
};

void Serve(qm::SharedCache& pages, int worker, int requests, Counts* counts) {
  unsigned seed = 12345u + static_cast<unsigned>(worker);
  for (int i = 0; i < requests; ++i) {
    // Skewed requests: low page numbers are asked for far more often.
    seed = seed * 1103515245u + 12345u;
    const int r = static_cast<int>((seed >> 16) % kPages);
    const std::string key = "product/" + std::to_string(r * r / kPages);
    std::string page;
    if (qm::Hold hold = pages.find(key, kMaxAge)) {
      page.assign(hold.data());  // the hold is given back at the brace
      ++counts->hits;
    } else {
      page = BuildPage(key);
      pages.insert(key, page, {/*tag=*/worker});
      ++counts->misses;
    }
    if (page.find("<h1>" + key + "</h1>") == std::string::npos) ++counts->wrong;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int workers = argc > 1 ? std::atoi(argv[1]) : 4;
  const int requests = argc > 2 ? std::atoi(argv[2]) : 500;
  if (workers < 1 || requests < 1) {
    std::fprintf(stderr, "usage: read_through [workers] [requests]\n");
    return 2;
  }

  int failures = 0;
  {
    qm::SharedCache pages("pages", 64 * 1024);  // budget: 64 KiB
    std::vector<Counts> counts(static_cast<std::size_t>(workers));
    std::vector<std::thread> threads;
    const auto start = std::chrono::steady_clock::now();
    for (int w = 0; w < workers; ++w)
      threads.emplace_back(Serve, std::ref(pages), w, requests,
                           &counts[static_cast<std::size_t>(w)]);
    for (std::thread& t : threads) t.join();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
            .count();

    Counts total;
    for (const Counts& c : counts) {
      total.hits += c.hits;
      total.misses += c.misses;
      total.wrong += c.wrong;
    }
    const qm::Params p = pages.params();
    const qm::Stats s = pages.stats();
    std::printf(
        "%d workers, %ld requests in %.2f s: %ld hits, %ld misses "
        "(hit ratio %.2f), %ld pages built\n",
        workers, total.hits + total.misses, seconds, total.hits, total.misses,
        static_cast<double>(total.hits) /
            static_cast<double>(total.hits + total.misses),
        built.load());
    std::printf(
        "cache: %u pages, %u of %u bytes; %lu searches, %lu inserts, "
        "%lu eviction passes\n",
        p.usedNodes, p.allocated, p.maxBytes, s.search.count, s.insert.count,
        s.eviction.count);

    // What the host can check: every page served was the one asked for, the
    // cache saw every request, and every hold was given back.
    if (total.wrong != 0) {
      std::printf("%ld pages served for the wrong key\n", total.wrong);
      ++failures;
    }
    if (s.search.count !=
            static_cast<unsigned long>(total.hits + total.misses) ||
        s.searchHit.count != static_cast<unsigned long>(total.hits) ||
        s.release.count != s.searchHit.count) {
      std::printf("the cache's figures do not match the requests\n");
      ++failures;
    }
  }
  CA_DEINIT();
  std::printf(failures == 0 ? "read_through: OK\n" : "read_through: FAILED\n");
  return failures == 0 ? 0 : 1;
}
