// The trace log: one line per call, after the call's work (before it for the
// status calls), with the values the call saw, also for invalid handles.
#include <stdarg.h>

#include <thread>

#include "support.h"

namespace {

std::string path;
Lines want, lastAtRelease;  // the log's last line when a record went
// The log's messages; `stamps` gets what follows " at ".
Lines Messages(Lines* stamps = nullptr) {
  std::ifstream in(path);
  Lines out;
  for (std::string line; std::getline(in, line);) {
    out.push_back(line.substr(0, line.rfind(" at ")));
    if (stamps) stamps->push_back(line.substr(line.rfind(" at ") + 4));
  }
  return out;
}
void SeeLog(int, unsigned long, void*) {
  lastAtRelease.push_back(Messages().back());
}
// Expects a line of this format.
void W(const char* format, ...) __attribute__((format(printf, 1, 2)));
void W(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  want.push_back(text);
}

struct TraceLog : testing::Test {
  void SetUp() override {
    path = TempPath("trace_log");
    want.clear(), lastAtRelease.clear();
    CA_DEINIT();
    trace = new Trace(path.c_str());
    ASSERT_NE(trace->file, nullptr);
  }
  void TearDown() override {
    CA_DEINIT();
    delete trace;  // still installed when the library never started
    trace = nullptr;
    free_handle = nullptr;
    remove(path.c_str());
  }
};

TEST_F(TraceLog, EveryCallWritesItsLineAfterItsWork) {
  CA_INIT(0);  // writes no line
  CA_SETFREE(SeeLog), W("CACACHE FreeHandle set to %p", (void*)&SeeLog);
  CAParams params{};
  void* h = CA_CREATE("cache", &params);
  W("CACACHE Create Cache 'cache' returns %p", h);
  CA_GETCACHESTAT(h, &params), W("CACACHE Status for all timings returned");
  Put(h, "k", "abc", 77), W("CACACHE Insert a record Length=77");
  void* held = Hold(h, "k");
  W("CACACHE Search a record is %p", held);
  Hold(h, "x"), W("CACACHE Search a record is %p", nullptr);
  Query(h, held), W("CACACHE Record %p returned", held);
  int count = 0;
  void** list = CA_LIST(h, &count);
  W("CACACHE as a list returned with size: 1");
  CA_LIST_FREE(h, list), W("CACACHE_LIST Record %p released", (void*)list);
  Put(h, "k", "abc", 5), W("CACACHE Insert a record Length=5");
  CA_FREE(h, held), W("CACACHE Record %p released", held);  // destroyed
  void* current = Hold(h, "k");
  W("CACACHE Search a record is %p", current);
  CA_ERASE(h, current), W("CACACHE Record %p erased from cache", current);
  _CAStat stat;
  CA_GETSTAT(nullptr, 0, &stat), W("CACACHE Status returned");
  CA_SETCHECK(1);
  EXPECT_EQ(CA_CHECKCACHE(0), 0);
  W("CACACHE check cache");
  CA_SETCHECK(0), CA_CHECKCACHE(0);  // off: no line
  Put(h, "z", "abc", 9), W("CACACHE Insert a record Length=9");
  CA_CLOSE(h), W("CACACHE %p cache closed", h);  // the record goes too
  std::thread([] { trace->Write("another thread"); }).join();  // unlocked
  W("another thread");
  EXPECT_EQ(CA_DEINIT(), 1);
  W("CACACHE Closed");
  EXPECT_EQ(trace, nullptr);
  Lines stamps;
  EXPECT_EQ(Messages(&stamps), want);
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
  Put(fake, "k", "abc", 33), W("CACACHE Insert a record Length=33");
  Hold(fake, "k"), W("CACACHE Search a record is %p", nullptr);
  CA_QUERY(fake, record, &query), W("CACACHE Record %p returned", record);
  CA_LIST(fake, &count), W("CACACHE as a list returned with size: 42");
  CA_LIST_FREE(fake, nullptr);  // writes nothing for an invalid handle
  CA_FREE(fake, record), W("CACACHE Record %p released", record);
  CA_ERASE(fake, record), W("CACACHE Record %p erased from cache", record);
  CA_CLOSE(fake), W("CACACHE %p cache closed", (void*)fake);
  CA_SETCHECK(1), CA_CHECKCACHE(0), CA_SETCHECK(0);  // not initialised
  CA_GETCACHESTAT(fake, &params), W("CACACHE Status for all timings returned");
  CA_GETSTAT(fake, 0, &stat), W("CACACHE Status returned");
  trace->Write("%d", 5);
  want.push_back("5");
  EXPECT_EQ(Messages(), want);
  delete trace;
  trace = new Trace(path.c_str());
  EXPECT_TRUE(Messages().empty());
  delete trace;
  trace = new Trace((path + ".missing/trace.log").c_str());
  EXPECT_EQ(trace->file, nullptr);
  Put(CA_CREATE("cache", nullptr), "k");
  EXPECT_EQ(CA_DEINIT(), 1);  // destroys the silent log too
  EXPECT_TRUE(trace == nullptr && Messages().empty());
}

}  // namespace
