// SPDX-License-Identifier: MIT
// The trace log: one line per call, after the call's work (before it for the
// status calls), with the values the call saw, also for invalid handles.
#include <thread>

#include "support.h"

std::string path;
Lines lastAtRelease;  // the log's last line when a record went
void SeeLog(int, unsigned long, void*) {
  lastAtRelease.push_back(ReadLog(path).back());
}

TEST(TraceLog, EveryCallWritesItsLineAfterItsWorkAlsoForInvalidHandles) {
  path = TempPath("trace_log");
  struct tm local;
  char when[32];
  asctime_r(localtime_r(&g_now, &local), when);
  CA_DEINIT();
  trace = new Trace(path.c_str());
  alignas(8) unsigned char fake[32] = {'C', 'A', 'A', 'C', 0, 0, 1, 0};
  void* const bad = fake;
  int count = 42;
  EXPECT_FALSE(CA_LIST(bad, &count) || !CA_SETCHECK(1) || CA_CHECKCACHE(0));
  EXPECT_EQ(CA_DEINIT(), 1);  // neither: keeps the log, writes nothing
  CA_INIT(0);                 // writes no line
  CA_SETFREE(SeeLog);
  CAParams params{};
  void* h = CA_CREATE("cache", &params);
  CA_GETCACHESTAT(bad, &params);
  EXPECT_TRUE(Put(h, "k", "abc", 77) == 1 && Put(bad, "k", "abc", 33) == -1);
  void* held = Hold(h, "k");
  CAQuery query;
  EXPECT_FALSE(Hold(bad, "k") || CA_QUERY(bad, held, &query));
  void** list = CA_LIST(h, &count);
  for (void* by : {h, bad}) CA_LIST_FREE(by, list);  // the latter: no line
  Put(h, "k", "abc", 5);
  CA_FREE(h, held);  // destroys the replaced record
  void* current = Hold(h, "k");
  for (void* by : {h, bad}) CA_ERASE(by, current);
  _CAStat stat;
  EXPECT_FALSE(CA_GETSTAT(bad, 0, &stat) || CA_CHECKCACHE(0));
  EXPECT_FALSE(CA_SETCHECK(0) || CA_CHECKCACHE(0));  // off: no line
  Put(h, "z", "abc", 9);
  for (void* by : {h, bad}) CA_CLOSE(by);  // the record goes too
  g_now = 253402300800;  // the year 10000 does not fit asctime's layout
  std::thread([] { trace->Write("%d", 5); }).join();  // unlocked
  EXPECT_EQ(CA_DEINIT(), 1);
  EXPECT_EQ(trace, nullptr);
  const Lines want = {"CACACHE as a list returned with size: 42",
                      Format("CACACHE FreeHandle set to %p", (void*)&SeeLog),
                      Format("CACACHE Create Cache 'cache' returns %p", h),
                      "CACACHE Status for all timings returned",
                      "CACACHE Insert a record Length=77",
                      "CACACHE Insert a record Length=33",
                      Format("CACACHE Search a record is %p", held),
                      Format("CACACHE Search a record is %p", nullptr),
                      Format("CACACHE Record %p returned", held),
                      "CACACHE as a list returned with size: 1",
                      Format("CACACHE_LIST Record %p released", list),
                      "CACACHE Insert a record Length=5",
                      Format("CACACHE Record %p released", held),
                      Format("CACACHE Search a record is %p", current),
                      Format("CACACHE Record %p erased from cache", current),
                      Format("CACACHE Record %p erased from cache", current),
                      "CACACHE Status returned",
                      "CACACHE check cache",
                      "CACACHE Insert a record Length=9",
                      Format("CACACHE %p cache closed", h),
                      Format("CACACHE %p cache closed", bad),
                      "5",
                      "CACACHE Closed"};
  Lines stamps;
  EXPECT_EQ(ReadLog(path, &stamps), want);
  // Each release saw the line of the call before the one that released it.
  EXPECT_EQ(lastAtRelease, (Lines{want[11], want[13], want[18]}));
  Lines stampsWanted(want.size() - 2, std::string(when, 24));
  stampsWanted.resize(want.size(), "??? ??? ?? ??:??:?? ????");
  EXPECT_EQ(stamps, stampsWanted);
  remove(path.c_str());
  // A log that cannot be opened stays silent, and goes with the library.
  trace = new Trace((path + ".missing/trace.log").c_str());
  EXPECT_TRUE(CA_SETFREE(nullptr) && Put(CA_CREATE("cache", nullptr), "k"));
  EXPECT_TRUE(CA_DEINIT() == 1 && trace == nullptr);
}
