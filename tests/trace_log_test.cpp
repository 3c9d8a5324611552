// The trace log: the line each exported call writes, whether it comes before
// or after the call's work, the time stamp, and the log file's own life.
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "qmcache/qmcache.hpp"

// The library's clock stands still (exported to interpose libc's time).
extern "C" __attribute__((visibility("default"))) time_t time(time_t* out) {
  if (out != nullptr) *out = 1700000000;
  return 1700000000;
}

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

// The messages of the log (the text before " at "); `stamps` gets the rest.
std::vector<std::string> Messages(std::vector<std::string>* stamps = nullptr) {
  std::ifstream in(path);
  std::vector<std::string> out;
  for (std::string line; std::getline(in, line);) {
    size_t at = line.rfind(" at ");
    out.push_back(line.substr(0, at));
    if (stamps != nullptr) stamps->push_back(line.substr(at + 4));
  }
  return out;
}

// The last line in the log when a record was released.
std::vector<std::string> seenAtRelease;
void OnRelease(int, unsigned long, void*) {
  std::vector<std::string> lines = Messages();
  seenAtRelease.push_back(lines.empty() ? "" : lines.back());
}

int Insert(void* h, const char* key, int length) {
  return CA_INSERT(h, 1, CAREC_CALLBACK, 0, 1, key, 3, length, "abc");
}

class TraceLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A name of this process's own: ctest runs other tests beside it.
    path = testing::TempDir() + "qmcache_trace_log_test_" +
           std::to_string(getpid()) + ".log";
    seenAtRelease.clear();
    trace = new Trace(path.c_str());
    ASSERT_NE(nullptr, trace->file);
  }
  void TearDown() override {
    CA_DEINIT();
    delete trace;  // still installed when the library never started
    trace = nullptr;
    free_handle = nullptr;
    CA_SETCHECK(0);
    remove(path.c_str());
  }
};

TEST_F(TraceLogTest, EveryCallWritesItsLineAfterItsWork) {
  CA_INIT(0);  // writes no line
  std::vector<std::string> want;
  CA_SETFREE(OnRelease);
  want.push_back(F("CACACHE FreeHandle set to %p", (void*)&OnRelease));
  CAParams params{};
  void* h = CA_CREATE("cache", &params);
  want.push_back(F("CACACHE Create Cache 'cache' returns %p", h));
  CA_GETCACHESTAT(h, &params);
  want.push_back("CACACHE Status for all timings returned");
  ASSERT_EQ(1, Insert(h, "k", 77));
  want.push_back("CACACHE Insert a record Length=77");
  void* held = CA_SEARCH(h, 0, 1, "k");
  want.push_back(F("CACACHE Search a record is %p", held));
  CA_SEARCH(h, 0, 1, "x");
  want.push_back(F("CACACHE Search a record is %p", nullptr));
  CAQuery query;
  CA_QUERY(h, held, &query);
  want.push_back(F("CACACHE Record %p returned", held));
  int count = 0;
  void** list = CA_LIST(h, &count);
  want.push_back("CACACHE as a list returned with size: 1");
  CA_LIST_FREE(h, list);
  want.push_back(F("CACACHE_LIST Record %p released", (void*)list));
  ASSERT_EQ(0, Insert(h, "k", 5));  // detaches the held record
  want.push_back("CACACHE Insert a record Length=5");
  CA_FREE(h, held);  // destroys it
  want.push_back(F("CACACHE Record %p released", held));
  void* current = CA_SEARCH(h, 0, 1, "k");
  want.push_back(F("CACACHE Search a record is %p", current));
  CA_ERASE(h, current);
  want.push_back(F("CACACHE Record %p erased from cache", current));
  _CAStat stat;
  CA_GETSTAT(nullptr, CASTAT_INSERT, &stat);
  want.push_back("CACACHE Status returned");
  CA_SETCHECK(1);
  EXPECT_EQ(0, CA_CHECKCACHE(0));
  want.push_back("CACACHE check cache");
  CA_SETCHECK(0);
  CA_CHECKCACHE(0);  // off: no line
  ASSERT_EQ(1, Insert(h, "z", 9));
  want.push_back("CACACHE Insert a record Length=9");
  CA_CLOSE(h);  // the last handle: the cache goes with its record
  want.push_back(F("CACACHE %p cache closed", h));
  h = CA_CREATE("other", &params);
  want.push_back(F("CACACHE Create Cache 'other' returns %p", h));
  ASSERT_EQ(1, Insert(h, "w", 2));
  want.push_back("CACACHE Insert a record Length=2");
  EXPECT_EQ(1, CA_DEINIT());
  want.push_back("CACACHE Closed");
  EXPECT_EQ(nullptr, trace);

  std::vector<std::string> stamps;
  EXPECT_EQ(want, Messages(&stamps));
  // Each release saw the line of the call before the one that released it.
  EXPECT_EQ((std::vector<std::string>{want[9], want[11], want[15], want[18]}),
            seenAtRelease);
  char when[32];
  time_t now = time(nullptr);
  struct tm local;
  asctime_r(localtime_r(&now, &local), when);
  when[24] = '\0';
  std::regex layout(
      "[A-Z][a-z]{2} [A-Z][a-z]{2} [ 123][0-9] [0-9:]{8} [0-9]{4}");
  for (const std::string& stamp : stamps) {
    EXPECT_EQ(when, stamp);
    EXPECT_TRUE(std::regex_match(stamp, layout)) << stamp;
  }
}

TEST_F(TraceLogTest, InvalidHandlesStillWriteTheirLines) {
  EXPECT_EQ(1, CA_DEINIT());  // not initialised: keeps the log, writes nothing
  ASSERT_NE(nullptr, trace);
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
  CAParams params;
  CA_GETCACHESTAT(fake, &params);
  _CAStat stat;
  CA_GETSTAT(fake, 0, &stat);
  EXPECT_EQ(1, CA_DEINIT());
  EXPECT_EQ((std::vector<std::string>{
                "CACACHE Insert a record Length=33",
                F("CACACHE Search a record is %p", nullptr),
                F("CACACHE Record %p returned", record),
                "CACACHE as a list returned with size: 42",
                F("CACACHE Record %p released", record),
                F("CACACHE Record %p erased from cache", record),
                F("CACACHE %p cache closed", (void*)fake),
                "CACACHE Status for all timings returned",
                "CACACHE Status returned", "CACACHE Closed"}),
            Messages());
}

TEST_F(TraceLogTest, NewLogEmptiesItsFileAndAnUnopenableOneIsSilent) {
  trace->Write("value %d", 5);
  delete trace;
  trace = new Trace(path.c_str());
  EXPECT_TRUE(Messages().empty());
  trace->Write("value %d", 6);
  EXPECT_EQ(std::vector<std::string>{"value 6"}, Messages());
  delete trace;
  trace = new Trace((path + ".missing/trace.log").c_str());
  EXPECT_EQ(nullptr, trace->file);
  void* h = CA_CREATE("cache", nullptr);
  EXPECT_EQ(1, Insert(h, "k", 1));
  EXPECT_EQ(1, CA_DEINIT());  // destroys the silent log too
  EXPECT_EQ(nullptr, trace);
  EXPECT_EQ(std::vector<std::string>{"value 6"}, Messages());
}

}  // namespace
