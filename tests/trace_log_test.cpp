// The trace log: one line per call, after the call's work (before it for the
// status calls), with the values the call saw, also for invalid handles.
#include <thread>

#include "support.h"

namespace {

std::string path;
Lines lastAtRelease;  // the log's last line when a record went
void SeeLog(int, unsigned long, void*) {
  lastAtRelease.push_back(ReadLog(path).back());
}

struct TraceLog : testing::Test {
  void SetUp() override {
    path = TempPath("trace_log"), lastAtRelease.clear();
    CA_DEINIT();
    trace = new Trace(path.c_str());
    ASSERT_NE(trace->file, nullptr);
  }
  void TearDown() override {
    CA_DEINIT();
    delete trace;  // still installed when the library never started
    trace = nullptr, free_handle = nullptr;
    remove(path.c_str());
  }
};

TEST_F(TraceLog, EveryCallWritesItsLineAfterItsWork) {
  CA_INIT(0);  // writes no line
  CA_SETFREE(SeeLog);
  CAParams params{};
  void* h = CA_CREATE("cache", &params);
  CA_GETCACHESTAT(h, &params);
  Put(h, "k", "abc", 77);
  void* held = Hold(h, "k");
  Hold(h, "x"), Query(h, held);
  int count = 0;
  void** list = CA_LIST(h, &count);
  CA_LIST_FREE(h, list);
  Put(h, "k", "abc", 5);
  CA_FREE(h, held);  // destroys the replaced record
  void* current = Hold(h, "k");
  CA_ERASE(h, current);
  _CAStat stat;
  CA_GETSTAT(nullptr, 0, &stat);
  CA_SETCHECK(1), CA_CHECKCACHE(0);
  CA_SETCHECK(0), CA_CHECKCACHE(0);  // off: no line
  Put(h, "z", "abc", 9);
  CA_CLOSE(h);  // the record goes too
  std::thread([] { trace->Write("another thread"); }).join();  // unlocked
  EXPECT_EQ(CA_DEINIT(), 1);
  EXPECT_EQ(trace, nullptr);
  const Lines want = {Format("CACACHE FreeHandle set to %p", (void*)&SeeLog),
                      Format("CACACHE Create Cache 'cache' returns %p", h),
                      "CACACHE Status for all timings returned",
                      "CACACHE Insert a record Length=77",
                      Format("CACACHE Search a record is %p", held),
                      Format("CACACHE Search a record is %p", nullptr),
                      Format("CACACHE Record %p returned", held),
                      "CACACHE as a list returned with size: 1",
                      Format("CACACHE_LIST Record %p released", (void*)list),
                      "CACACHE Insert a record Length=5",
                      Format("CACACHE Record %p released", held),
                      Format("CACACHE Search a record is %p", current),
                      Format("CACACHE Record %p erased from cache", current),
                      "CACACHE Status returned",
                      "CACACHE check cache",
                      "CACACHE Insert a record Length=9",
                      Format("CACACHE %p cache closed", h),
                      "another thread",
                      "CACACHE Closed"};
  Lines stamps;
  EXPECT_EQ(ReadLog(path, &stamps), want);
  // Each release saw the line of the call before the one that released it.
  EXPECT_EQ(lastAtRelease, (Lines{want[9], want[11], want[15]}));
  char when[32];
  struct tm local;
  asctime_r(localtime_r(&g_now, &local), when);
  when[24] = '\0';
  for (const std::string& stamp : stamps) EXPECT_EQ(stamp, when);
}

TEST_F(TraceLog, InvalidHandlesWriteTheirLinesAndANewLogEmptiesItsFile) {
  EXPECT_EQ(CA_DEINIT(), 1);  // not initialised: keeps the log, writes nothing
  alignas(8) unsigned char fake[32] = {'C', 'A', 'A', 'C', 0, 0, 1, 0};
  void* record = (void*)0x1234;
  CAQuery query;
  int count = 42;
  CAParams params;
  _CAStat stat;
  Put(fake, "k", "abc", 33), Hold(fake, "k");
  CA_QUERY(fake, record, &query), CA_LIST(fake, &count);
  CA_LIST_FREE(fake, nullptr);  // writes nothing for an invalid handle
  CA_FREE(fake, record), CA_ERASE(fake, record), CA_CLOSE(fake);
  CA_SETCHECK(1), CA_CHECKCACHE(0), CA_SETCHECK(0);  // not initialised
  CA_GETCACHESTAT(fake, &params), CA_GETSTAT(fake, 0, &stat);
  trace->Write("%d", 5);
  EXPECT_EQ(ReadLog(path),
            (Lines{"CACACHE Insert a record Length=33",
                   Format("CACACHE Search a record is %p", nullptr),
                   Format("CACACHE Record %p returned", record),
                   "CACACHE as a list returned with size: 42",
                   Format("CACACHE Record %p released", record),
                   Format("CACACHE Record %p erased from cache", record),
                   Format("CACACHE %p cache closed", (void*)fake),
                   "CACACHE Status for all timings returned",
                   "CACACHE Status returned", "5"}));
  delete trace;
  trace = new Trace(path.c_str());
  EXPECT_TRUE(ReadLog(path).empty());
  delete trace;
  trace = new Trace((path + ".missing/trace.log").c_str());
  EXPECT_EQ(trace->file, nullptr);
  Put(CA_CREATE("cache", nullptr), "k");
  EXPECT_EQ(CA_DEINIT(), 1);  // destroys the silent log too
  EXPECT_TRUE(trace == nullptr && ReadLog(path).empty());
}

}  // namespace
