// The in-memory trace service: text entries, labelled dumps, reading the log
// back, clearing it, the callback and concurrent writers.

#include "qmcache/ybtrace.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <thread>
#include <vector>

namespace {

class YbtraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    YBTRACE_SetCallback(nullptr, nullptr);
    YBTRACE_Clear();
  }
  void TearDown() override {
    YBTRACE_SetCallback(nullptr, nullptr);
    YBTRACE_Clear();
  }

  static YBTRACE_Entry Entry(size_t index) {
    YBTRACE_Entry e;
    memset(&e, 0xcc, sizeof(e));
    EXPECT_EQ(1, YBTRACE_Get(index, &e));
    return e;
  }
};

TEST_F(YbtraceTest, TextTakesExactlyTheGivenLength) {
  // Not zero-terminated where the length ends.
  const char text[] = {'a', 'b', 'c', 'd', 'e', 'f', 'X', 'Y', 'Z'};
  EXPECT_EQ(0, YBTRACE_Text(42, text, 6));
  const char withZero[] = {'p', '\0', 'q'};
  EXPECT_EQ(0, YBTRACE_Text(7, withZero, 3));
  EXPECT_EQ(0, YBTRACE_Text(9, "ignored", 0));
  ASSERT_EQ(3u, YBTRACE_Count());

  YBTRACE_Entry e = Entry(0);
  EXPECT_EQ(42u, e.traceId);
  EXPECT_EQ(YBTRACE_KIND_TEXT, e.kind);
  EXPECT_STREQ("abcdef", e.text);
  EXPECT_EQ(6u, e.textLength);
  EXPECT_EQ(nullptr, e.bytes);
  EXPECT_EQ(0u, e.byteCount);
  EXPECT_STREQ("", e.hex);

  e = Entry(1);
  EXPECT_EQ(7u, e.traceId);
  ASSERT_EQ(3u, e.textLength);
  EXPECT_EQ(0, memcmp(e.text, withZero, 3));
  EXPECT_EQ('\0', e.text[3]);

  e = Entry(2);
  EXPECT_EQ(9u, e.traceId);
  EXPECT_EQ(0u, e.textLength);
  EXPECT_STREQ("", e.text);
}

TEST_F(YbtraceTest, DumpCopiesLabelAndBytes) {
  unsigned char object[8] = {0x25, 0x25, 0x42, 0x54, 0x00, 0xff, 0x10, 0x0a};
  EXPECT_EQ(0, YBTRACE_Trace2(3, "node at fault", object, 6));
  object[0] = 0;  // the entry holds a copy
  EXPECT_EQ(0, YBTRACE_Trace2(4, "", object, 0));
  ASSERT_EQ(2u, YBTRACE_Count());

  YBTRACE_Entry e = Entry(0);
  EXPECT_EQ(3u, e.traceId);
  EXPECT_EQ(YBTRACE_KIND_DUMP, e.kind);
  EXPECT_STREQ("node at fault", e.text);
  EXPECT_EQ(13u, e.textLength);
  ASSERT_EQ(6u, e.byteCount);
  ASSERT_NE(nullptr, e.bytes);
  const unsigned char expected[6] = {0x25, 0x25, 0x42, 0x54, 0x00, 0xff};
  EXPECT_EQ(0, memcmp(expected, e.bytes, 6));
  EXPECT_STREQ("25 25 42 54 00 ff", e.hex);

  e = Entry(1);
  EXPECT_EQ(YBTRACE_KIND_DUMP, e.kind);
  EXPECT_EQ(0u, e.byteCount);
  EXPECT_STREQ("", e.hex);
}

TEST_F(YbtraceTest, DumpReadsNothingBeyondTheLength) {
  // A heap block of exactly 3 bytes: reading a fourth would be caught by
  // AddressSanitizer.
  unsigned char* block = static_cast<unsigned char*>(malloc(3));
  block[0] = 0xab;
  block[1] = 0xcd;
  block[2] = 0xef;
  YBTRACE_Trace2(1, "tight", block, 3);
  free(block);
  YBTRACE_Entry e = Entry(0);
  EXPECT_STREQ("ab cd ef", e.hex);
}

TEST_F(YbtraceTest, GetAndClear) {
  YBTRACE_Text(1, "one", 3);
  YBTRACE_Text(2, "two", 3);
  YBTRACE_Entry e;
  memset(&e, 0, sizeof(e));
  EXPECT_EQ(0, YBTRACE_Get(2, &e));
  EXPECT_EQ(nullptr, e.text);  // untouched
  EXPECT_EQ(0, YBTRACE_Get(0, nullptr));
  EXPECT_STREQ("two", Entry(1).text);

  YBTRACE_Clear();
  EXPECT_EQ(0u, YBTRACE_Count());
  EXPECT_EQ(0, YBTRACE_Get(0, &e));
  YBTRACE_Text(3, "three", 5);
  EXPECT_EQ(1u, YBTRACE_Count());
  EXPECT_EQ(3u, Entry(0).traceId);
}

struct Seen {
  std::vector<std::string> texts;
  std::vector<size_t> countsInside;
};

void Remember(const YBTRACE_Entry* entry, void* context) {
  Seen* seen = static_cast<Seen*>(context);
  seen->texts.emplace_back(entry->text, entry->textLength);
  // Calling back into the service from the callback must not deadlock.
  seen->countsInside.push_back(YBTRACE_Count());
}

void Other(const YBTRACE_Entry*, void*) {}

TEST_F(YbtraceTest, CallbackSeesEachEntryAsRecorded) {
  Seen seen;
  EXPECT_EQ(nullptr, YBTRACE_SetCallback(Remember, &seen));
  YBTRACE_Text(1, "first", 5);
  YBTRACE_Trace2(1, "label", "xy", 2);
  EXPECT_EQ(Remember, YBTRACE_SetCallback(Other, nullptr));
  YBTRACE_Text(1, "unseen", 6);
  EXPECT_EQ(Other, YBTRACE_SetCallback(nullptr, nullptr));

  ASSERT_EQ(2u, seen.texts.size());
  EXPECT_EQ("first", seen.texts[0]);
  EXPECT_EQ("label", seen.texts[1]);
  EXPECT_EQ(1u, seen.countsInside[0]);  // already in the log
  EXPECT_EQ(2u, seen.countsInside[1]);
  EXPECT_EQ(3u, YBTRACE_Count());
}

void ClearFromCallback(const YBTRACE_Entry* entry, void* context) {
  YBTRACE_Clear();
  // The entry handed to the callback stays readable after the clear.
  *static_cast<std::string*>(context) =
      std::string(entry->text, entry->textLength) + "/" + entry->hex;
}

TEST_F(YbtraceTest, CallbackMayClearTheLog) {
  std::string got;
  YBTRACE_SetCallback(ClearFromCallback, &got);
  YBTRACE_Trace2(5, "gone", "\x01\x02", 2);
  EXPECT_EQ("gone/01 02", got);
  EXPECT_EQ(0u, YBTRACE_Count());
}

TEST_F(YbtraceTest, ConcurrentWritersLoseNothing) {
  const int kThreads = 4, kEach = 300;
  std::vector<std::thread> writers;
  for (int t = 0; t < kThreads; ++t) {
    writers.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) {
        std::string text = "w" + std::to_string(t) + "-" + std::to_string(i);
        if (i % 2 == 0) {
          YBTRACE_Text(t, text.c_str(),
                       static_cast<unsigned short>(text.size()));
        } else {
          YBTRACE_Trace2(t, text.c_str(), &i, sizeof(i));
        }
      }
    });
  }
  for (auto& w : writers) w.join();
  ASSERT_EQ(static_cast<size_t>(kThreads * kEach), YBTRACE_Count());
  // Each writer's entries appear in its own order, intact.
  std::vector<int> next(kThreads, 0);
  for (size_t k = 0; k < YBTRACE_Count(); ++k) {
    YBTRACE_Entry e = Entry(k);
    ASSERT_LT(e.traceId, static_cast<unsigned>(kThreads));
    int i = next[e.traceId]++;
    EXPECT_EQ("w" + std::to_string(e.traceId) + "-" + std::to_string(i),
              std::string(e.text, e.textLength));
    EXPECT_EQ(i % 2 == 0 ? YBTRACE_KIND_TEXT : YBTRACE_KIND_DUMP, e.kind);
    if (e.kind == YBTRACE_KIND_DUMP) {
      ASSERT_EQ(sizeof(int), e.byteCount);
      int value;
      memcpy(&value, e.bytes, sizeof(value));
      EXPECT_EQ(i, value);
    }
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(kEach, next[t]);
}

}  // namespace
