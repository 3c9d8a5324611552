// The trace log: the line each exported call writes, its place before or
// after the call's work, the time layout, and the log's own life.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"

namespace {

time_t fixedTime = 0;  // when non-zero, the clock stands still here
time_t clockShift = 0;

}  // namespace

// Drives the library's clock (it calls time() through the PLT).
extern "C" time_t time(time_t* out) noexcept {
  struct timeval now;
  gettimeofday(&now, nullptr);
  time_t value = fixedTime != 0 ? fixedTime : now.tv_sec + clockShift;
  if (out != nullptr) *out = value;
  return value;
}

namespace {

std::string Fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Fmt(const char* format, ...) {
  char text[512];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

struct Line {
  std::string message;
  std::string when;
};

// Splits the log into lines of "<message> at <asctime without newline>".
std::vector<Line> Parse(const std::string& text) {
  std::vector<Line> lines;
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) {
      ADD_FAILURE() << "unterminated line: " << text.substr(begin);
      break;
    }
    std::string line = text.substr(begin, end - begin);
    size_t at = line.rfind(" at ");
    if (at == std::string::npos) {
      ADD_FAILURE() << "no time in: " << line;
    } else {
      lines.push_back({line.substr(0, at), line.substr(at + 4)});
    }
    begin = end + 1;
  }
  return lines;
}

std::vector<std::string> Messages(const std::vector<Line>& lines) {
  std::vector<std::string> messages;
  for (const Line& line : lines) messages.push_back(line.message);
  return messages;
}

std::string Path;
std::string lastLineSeen;  // the log's last message when a record went
int releases = 0;

void OnRelease(int, unsigned long, void*) {
  releases++;
  std::vector<Line> lines = Parse(ReadFile(Path));
  lastLineSeen = lines.empty() ? "" : lines.back().message;
}

int Insert(void* handle, const char* key, int length, int flags = 0) {
  return CA_INSERT(handle, 1, flags, 0, static_cast<int>(strlen(key)), key, 3,
                   length, "abc");
}

void* Search(void* handle, const char* key) {
  return CA_SEARCH(handle, 0, static_cast<int>(strlen(key)), key);
}

class TraceLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qmtraceXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir = pattern;
    Path = dir + "/trace.log";
    fixedTime = 0;
    clockShift = 0;
    releases = 0;
    lastLineSeen.clear();
  }
  void TearDown() override {
    CA_DEINIT();
    delete trace;  // left installed only by tests that never initialised
    trace = nullptr;
    free_handle = nullptr;
    CA_SETCHECK(0);
    unlink(Path.c_str());
    rmdir(dir.c_str());
  }
  std::string dir;
};

TEST_F(TraceLogTest, EveryCallWritesItsLineInPlace) {
  fixedTime = 1700000000;
  trace = new Trace(Path.c_str());
  ASSERT_NE(nullptr, trace->file);
  CA_INIT(0);  // real locking for the log's mutex; writes no line
  std::vector<std::string> want;

  CA_SETFREE(OnRelease);
  want.push_back(
      Fmt("CACACHE FreeHandle set to %p", reinterpret_cast<void*>(&OnRelease)));
  CAParams params{};
  void* h = CA_CREATE("cache", &params);
  want.push_back(Fmt("CACACHE Create Cache 'cache' returns %p", h));
  CA_GETCACHESTAT(h, &params);
  want.push_back("CACACHE Status for all timings returned");
  ASSERT_EQ(1, Insert(h, "k", 77, CAREC_CALLBACK));
  want.push_back("CACACHE Insert a record Length=77");
  void* held = Search(h, "k");
  ASSERT_NE(nullptr, held);
  want.push_back(Fmt("CACACHE Search a record is %p", held));
  EXPECT_EQ(nullptr, Search(h, "x"));
  want.push_back(Fmt("CACACHE Search a record is %p", nullptr));
  CAQuery query;
  CA_QUERY(h, held, &query);
  want.push_back(Fmt("CACACHE Record %p returned", held));
  int count = 0;
  void** list = CA_LIST(h, &count);
  want.push_back("CACACHE as a list returned with size: 1");
  CA_LIST_FREE(h, list);
  want.push_back(
      Fmt("CACACHE_LIST Record %p released", static_cast<void*>(list)));

  // Lines written after the work: a record destroyed by the work sees the
  // previous call's line last.
  ASSERT_EQ(0, Insert(h, "k", 5, CAREC_CALLBACK));
  want.push_back("CACACHE Insert a record Length=5");
  CA_FREE(h, held);
  EXPECT_EQ(1, releases);
  EXPECT_EQ(want.back(), lastLineSeen);
  want.push_back(Fmt("CACACHE Record %p released", held));
  void* current = Search(h, "k");
  want.push_back(Fmt("CACACHE Search a record is %p", current));
  CA_ERASE(h, current);
  EXPECT_EQ(2, releases);
  EXPECT_EQ(want.back(), lastLineSeen);
  want.push_back(Fmt("CACACHE Record %p erased from cache", current));

  _CAStat stat;
  CA_GETSTAT(nullptr, CASTAT_INSERT, &stat);
  want.push_back("CACACHE Status returned");
  CA_SETCHECK(1);
  EXPECT_EQ(0, CA_CHECKCACHE(0));
  want.push_back("CACACHE check cache");
  CA_SETCHECK(0);
  CA_CHECKCACHE(0);
  CA_INIT(1);

  ASSERT_EQ(1, Insert(h, "z", 9, CAREC_CALLBACK));
  want.push_back("CACACHE Insert a record Length=9");
  CA_CLOSE(h);  // the last handle: the cache goes with its record
  EXPECT_EQ(3, releases);
  EXPECT_EQ(want.back(), lastLineSeen);
  want.push_back(Fmt("CACACHE %p cache closed", h));

  void* other = CA_CREATE("other", &params);
  want.push_back(Fmt("CACACHE Create Cache 'other' returns %p", other));
  ASSERT_EQ(1, Insert(other, "w", 2, CAREC_CALLBACK));
  want.push_back("CACACHE Insert a record Length=2");
  EXPECT_EQ(1, CA_DEINIT());
  EXPECT_EQ(4, releases);
  EXPECT_EQ(want.back(), lastLineSeen);
  want.push_back("CACACHE Closed");
  EXPECT_EQ(nullptr, trace);

  std::vector<Line> lines = Parse(ReadFile(Path));
  EXPECT_EQ(want, Messages(lines));
  char when[32];
  struct tm local;
  asctime_r(localtime_r(&fixedTime, &local), when);
  when[24] = '\0';
  std::regex layout(
      "(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct"
      "|Nov|Dec) [ 123][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9] [0-9]{4}");
  for (const Line& line : lines) {
    EXPECT_EQ(when, line.when) << line.message;
    EXPECT_TRUE(std::regex_match(line.when, layout)) << line.when;
  }
}

TEST_F(TraceLogTest, InvalidHandlesStillWriteTheirLines) {
  trace = new Trace(Path.c_str());
  // Not initialised: the teardown does nothing and keeps the log.
  EXPECT_EQ(1, CA_DEINIT());
  ASSERT_NE(nullptr, trace);
  EXPECT_EQ("", ReadFile(Path));

  alignas(8) unsigned char fake[32] = {'C', 'A', 'A', 'C', 0, 0, 1, 0};
  void* record = reinterpret_cast<void*>(0x1234);
  EXPECT_EQ(-1, CA_INSERT(fake, 1, 0, 0, 1, "k", 3, 33, "abc"));
  EXPECT_EQ(nullptr, CA_SEARCH(fake, 0, 1, "k"));
  CAQuery query;
  EXPECT_EQ(0, CA_QUERY(fake, record, &query));
  int count = 42;
  EXPECT_EQ(nullptr, CA_LIST(fake, &count));
  void* block = malloc(8);
  CA_LIST_FREE(fake, block);
  free(block);
  CA_FREE(fake, record);
  CA_ERASE(fake, record);
  CA_CLOSE(fake);
  CA_CLOSE(nullptr);
  CA_SETCHECK(1);
  EXPECT_EQ(0, CA_CHECKCACHE(0));  // not initialised: no line
  CAParams params;
  EXPECT_EQ(0, CA_GETCACHESTAT(fake, &params));
  _CAStat stat;
  EXPECT_EQ(0, CA_GETSTAT(fake, 0, &stat));
  EXPECT_EQ(1, CA_DEINIT());
  EXPECT_EQ(nullptr, trace);

  std::vector<std::string> want = {
      "CACACHE Insert a record Length=33",
      Fmt("CACACHE Search a record is %p", nullptr),
      Fmt("CACACHE Record %p returned", record),
      "CACACHE as a list returned with size: 42",
      Fmt("CACACHE Record %p released", record),
      Fmt("CACACHE Record %p erased from cache", record),
      Fmt("CACACHE %p cache closed", static_cast<void*>(fake)),
      Fmt("CACACHE %p cache closed", nullptr),
      "CACACHE Status for all timings returned",
      "CACACHE Status returned",
      "CACACHE Closed"};
  EXPECT_EQ(want, Messages(Parse(ReadFile(Path))));
}

TEST_F(TraceLogTest, EvictionLinesPrecedeTheInsertLine) {
  trace = new Trace(Path.c_str());
  CAParams params{};
  params.maxBytes = 100;
  void* h = CA_CREATE("small", &params);
  ASSERT_EQ(1, Insert(h, "a", 60));
  clockShift = 10;  // "a" is now old enough to be evicted
  ASSERT_EQ(1, Insert(h, "b", 60));
  EXPECT_EQ(nullptr, Search(h, "a"));
  EXPECT_EQ(1, CA_DEINIT());

  std::vector<std::string> want = {
      Fmt("CACACHE Create Cache 'small' returns %p", h),
      "CACACHE Insert a record Length=60",
      "CACACHE Cache has 30 bytes to delete",
      "CACACHE Found 1 record avaiable to delete",
      "CACACHE 1. Delete 60 bytes",
      "CACACHE 1. Deleted",
      "CACACHE 1 record deleted",
      "CACACHE Insert a record Length=60",
      Fmt("CACACHE Search a record is %p", nullptr),
      "CACACHE Closed"};
  EXPECT_EQ(want, Messages(Parse(ReadFile(Path))));
}

TEST_F(TraceLogTest, LogFileHandling) {
  // A new log empties an existing file.
  { std::ofstream(Path) << "old contents\n"; }
  Trace* log = new Trace(Path.c_str());
  EXPECT_EQ("", ReadFile(Path));
  log->Write("value %d", 5);
  delete log;
  std::vector<Line> lines = Parse(ReadFile(Path));
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("value 5", lines[0].message);

  // A path that cannot be opened gives a silent log, destroyed by teardown.
  std::string missing = dir + "/no/such/dir/trace.log";
  trace = new Trace(missing.c_str());
  EXPECT_EQ(nullptr, trace->file);
  CAParams params{};
  void* h = CA_CREATE("cache", &params);
  EXPECT_EQ(1, Insert(h, "k", 1));
  trace->Write("dropped %s", "line");
  EXPECT_EQ(1, CA_DEINIT());
  EXPECT_EQ(nullptr, trace);
  struct stat info;
  EXPECT_NE(0, stat((dir + "/no").c_str(), &info));

  // Without a log nothing is written anywhere, the working directory included.
  unlink(Path.c_str());
  char previous[4096];
  ASSERT_NE(nullptr, getcwd(previous, sizeof previous));
  ASSERT_EQ(0, chdir(dir.c_str()));
  h = CA_CREATE("cache", &params);
  EXPECT_EQ(1, Insert(h, "k", 1));
  CA_CLOSE(h);
  CA_DEINIT();
  ASSERT_EQ(0, chdir(previous));
  DIR* listing = opendir(dir.c_str());
  ASSERT_NE(nullptr, listing);
  int entries = 0;
  while (struct dirent* entry = readdir(listing)) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
      entries++;
    }
  }
  closedir(listing);
  EXPECT_EQ(0, entries);
}

TEST_F(TraceLogTest, BusyLockDropsTheLine) {
  CA_INIT(0);
  trace = new Trace(Path.c_str());
  std::promise<void> entered;
  std::promise<void> written;
  std::thread holder([&] {
    EXPECT_EQ(1, trace->lock.Enter(-1));
    entered.set_value();
    written.get_future().wait();
    trace->lock.Exit();
  });
  entered.get_future().wait();
  trace->Write("dropped");  // gives up after its 1000 ms wait
  written.set_value();
  holder.join();
  trace->Write("kept");
  EXPECT_EQ(std::vector<std::string>{"kept"}, Messages(Parse(ReadFile(Path))));
}

}  // namespace
