// The trace log: one line per call, after the call's work (before it for the
// status calls), with the values the call saw, also for invalid handles.
#include <stdarg.h>
#include <stdio.h>

#include <fstream>
#include <regex>

#include "support.h"

namespace {

std::string F(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string F(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

std::string path;
// The log's messages; `stamps` gets what follows " at ".
Lines Messages(Lines* stamps = nullptr) {
  std::ifstream in(path);
  Lines out;
  for (std::string line; std::getline(in, line);) {
    const size_t at = line.rfind(" at ");
    out.push_back(line.substr(0, at));
    if (stamps != nullptr) stamps->push_back(line.substr(at + 4));
  }
  return out;
}
// The log's last line when a record was released.
Lines lastAtRelease;
void SeeLog(int, unsigned long, void*) {
  const Lines lines = Messages();
  lastAtRelease.push_back(lines.empty() ? "" : lines.back());
}

class TraceLog : public testing::Test {
 protected:
  void SetUp() override {
    path = TempPath("trace_log");
    lastAtRelease.clear();
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
  Lines want;
  CA_SETFREE(SeeLog);
  want.push_back(F("CACACHE FreeHandle set to %p", (void*)&SeeLog));
  CAParams params{};
  void* h = CA_CREATE("cache", &params);
  want.push_back(F("CACACHE Create Cache 'cache' returns %p", h));
  CA_GETCACHESTAT(h, &params);
  want.push_back("CACACHE Status for all timings returned");
  Put(h, "k", "abc", 77);
  want.push_back("CACACHE Insert a record Length=77");
  void* held = Hold(h, "k");
  want.push_back(F("CACACHE Search a record is %p", held));
  Hold(h, "x");
  want.push_back(F("CACACHE Search a record is %p", nullptr));
  Query(h, held);
  want.push_back(F("CACACHE Record %p returned", held));
  int count = 0;
  void** list = CA_LIST(h, &count);
  want.push_back("CACACHE as a list returned with size: 1");
  CA_LIST_FREE(h, list);
  want.push_back(F("CACACHE_LIST Record %p released", (void*)list));
  Put(h, "k", "abc", 5);  // detaches the held record
  want.push_back("CACACHE Insert a record Length=5");
  CA_FREE(h, held);  // destroys it
  want.push_back(F("CACACHE Record %p released", held));
  void* current = Hold(h, "k");
  want.push_back(F("CACACHE Search a record is %p", current));
  CA_ERASE(h, current);
  want.push_back(F("CACACHE Record %p erased from cache", current));
  _CAStat stat;
  CA_GETSTAT(nullptr, CASTAT_INSERT, &stat);
  want.push_back("CACACHE Status returned");
  CA_SETCHECK(1);
  EXPECT_EQ(CA_CHECKCACHE(0), 0);
  want.push_back("CACACHE check cache");
  CA_SETCHECK(0);
  CA_CHECKCACHE(0);  // off: no line
  Put(h, "z", "abc", 9);
  want.push_back("CACACHE Insert a record Length=9");
  CA_CLOSE(h);  // the last handle: the cache goes with its record
  want.push_back(F("CACACHE %p cache closed", h));
  EXPECT_EQ(CA_DEINIT(), 1);
  want.push_back("CACACHE Closed");
  EXPECT_EQ(trace, nullptr);
  Lines stamps;
  EXPECT_EQ(Messages(&stamps), want);
  // Each release saw the line of the call before the one that released it.
  EXPECT_EQ(lastAtRelease, (Lines{want[9], want[11], want[15]}));
  char when[32];
  time_t now = time(nullptr);
  struct tm local;
  asctime_r(localtime_r(&now, &local), when);
  when[24] = '\0';
  const std::regex layout(
      "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 123][0-9] [0-9:]{8} [0-9]{4}");
  for (const std::string& stamp : stamps)
    EXPECT_TRUE(stamp == when && std::regex_match(stamp, layout)) << stamp;
}

TEST_F(TraceLog, InvalidHandlesStillWriteTheirLinesButAListsFree) {
  EXPECT_EQ(CA_DEINIT(), 1);  // not initialised: keeps the log, writes nothing
  alignas(8) unsigned char fake[32] = {'C', 'A', 'A', 'C', 0, 0, 1, 0};
  void* record = reinterpret_cast<void*>(0x1234);
  CA_INSERT(fake, 1, 0, 0, 1, "k", 3, 33, "abc");
  CA_SEARCH(fake, 0, 1, "k");
  CAQuery query;
  CA_QUERY(fake, record, &query);
  int count = 42;
  CA_LIST(fake, &count);
  CA_LIST_FREE(fake, nullptr);  // writes nothing for an invalid handle
  CA_FREE(fake, record);
  CA_ERASE(fake, record);
  CA_CLOSE(fake);
  CA_SETCHECK(1);
  CA_CHECKCACHE(0);  // not initialised: no line
  CA_SETCHECK(0);
  CAParams params;
  CA_GETCACHESTAT(fake, &params);
  _CAStat stat;
  CA_GETSTAT(fake, 0, &stat);
  EXPECT_EQ(CA_DEINIT(), 1);
  EXPECT_EQ(Messages(), (Lines{"CACACHE Insert a record Length=33",
                               F("CACACHE Search a record is %p", nullptr),
                               F("CACACHE Record %p returned", record),
                               "CACACHE as a list returned with size: 42",
                               F("CACACHE Record %p released", record),
                               F("CACACHE Record %p erased from cache", record),
                               F("CACACHE %p cache closed", (void*)fake),
                               "CACACHE Status for all timings returned",
                               "CACACHE Status returned", "CACACHE Closed"}));
}

TEST_F(TraceLog, ANewLogEmptiesItsFileAndAnUnopenableOneIsSilent) {
  trace->Write("value %d", 5);
  delete trace;
  trace = new Trace(path.c_str());
  EXPECT_TRUE(Messages().empty());
  trace->Write("value %d", 6);
  delete trace;
  trace = new Trace((path + ".missing/trace.log").c_str());
  EXPECT_EQ(trace->file, nullptr);
  Put(CA_CREATE("cache", nullptr), "k");
  EXPECT_EQ(CA_DEINIT(), 1);  // destroys the silent log too
  EXPECT_EQ(trace, nullptr);
  EXPECT_EQ(Messages(), Lines{"value 6"});
}

}  // namespace
