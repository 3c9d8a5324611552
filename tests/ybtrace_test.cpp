// The in-memory trace service: text entries, labelled dumps, reading the log
// back, clearing it and the callback.

#include "qmcache/ybtrace.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

// "id kind text\0/hex/byte count", with "+" when there are bytes to read;
// the text is taken with the zero that must end it.
std::string Describe(const YBTRACE_Entry& e) {
  return std::to_string(e.traceId) + " " + std::to_string(e.kind) + " " +
         std::string(e.text, e.textLength + 1) + "/" + e.hex + "/" +
         std::to_string(e.byteCount) + (e.bytes ? "+" : "");
}

std::string Describe(size_t index) {
  YBTRACE_Entry e = {};
  return YBTRACE_Get(index, &e) == 1 ? Describe(e) : "none";
}

TEST(YbtraceTest, EntriesHoldCopiesOfExactlyTheGivenBytesUntilCleared) {
  YBTRACE_Clear();
  const char text[] = {'a', 'b', 'c', 'X'};  // no terminating zero
  unsigned char* block = static_cast<unsigned char*>(malloc(3));
  memcpy(block, "\x25\x00\xff", 3);  // nothing past it is read (ASan)
  EXPECT_EQ(0, YBTRACE_Text(42, text, 3));
  EXPECT_EQ(0, YBTRACE_Text(7, "p\0q", 3));
  EXPECT_EQ(0, YBTRACE_Trace2(3, "node at fault", block, 3));
  EXPECT_EQ(0, YBTRACE_Trace2(4, "", block, 0));
  memset(block, 0, 3);  // the entry holds a copy
  free(block);
  std::string expected[] = {"42 1 abc\0//0"s, "7 1 p\0q\0//0"s,
                            "3 2 node at fault\0/25 00 ff/3+"s, "4 2 \0//0"s,
                            "none"};
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(expected[i], Describe(i));
  YBTRACE_Entry e = {};
  ASSERT_EQ(1, YBTRACE_Get(2, &e));
  EXPECT_EQ(0, memcmp(e.bytes, "\x25\x00\xff", 3));
  EXPECT_EQ(0, YBTRACE_Get(0, nullptr));
  YBTRACE_Clear();
  EXPECT_EQ(0u, YBTRACE_Count());
  EXPECT_EQ("none", Describe(size_t{0}));
}

void Remember(const YBTRACE_Entry* e, void* seen) {
  // Calling back into the service, even to clear it, must not deadlock, and
  // the entry stays readable after the clear.
  size_t count = YBTRACE_Count();
  if (e->traceId == 9) YBTRACE_Clear();
  static_cast<std::vector<std::string>*>(seen)->push_back(
      Describe(*e) + " at " + std::to_string(count));
}

TEST(YbtraceTest, CallbackSeesEachEntryOnceRecordedUntilReplaced) {
  YBTRACE_Clear();
  std::vector<std::string> seen;
  EXPECT_EQ(nullptr, YBTRACE_SetCallback(Remember, &seen));
  YBTRACE_Text(1, "first", 5);
  YBTRACE_Trace2(9, "label", "xy", 2);
  YBTRACE_Callback none = [](const YBTRACE_Entry*, void*) {};
  EXPECT_EQ(Remember, YBTRACE_SetCallback(none, nullptr));
  YBTRACE_Text(1, "unseen", 6);
  EXPECT_EQ(none, YBTRACE_SetCallback(nullptr, nullptr));
  EXPECT_EQ((std::vector<std::string>{"1 1 first\0//0 at 1"s,
                                      "9 2 label\0/78 79/2+ at 2"s}),
            seen);
  EXPECT_EQ(1u, YBTRACE_Count());  // "unseen", after the clear
}

}  // namespace
