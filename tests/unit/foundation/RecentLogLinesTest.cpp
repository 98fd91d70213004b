#include "foundation/RecentLogLines.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace kestrin {
namespace {

std::vector<std::string> kept(const RecentLogLines& lines) {
  std::vector<std::string> texts;
  lines.forEach([&](std::string_view text, std::int64_t) { texts.emplace_back(text); });
  return texts;
}

TEST(RecentLogLinesTest, KeepsTheLastLinesOldestFirstAndCutsLongOnes) {
  auto lines = std::make_unique<RecentLogLines>();
  EXPECT_TRUE(kept(*lines).empty());
  for (int i = 0; i < 100; ++i) {
    lines->add("line " + std::to_string(i));
  }
  auto texts = kept(*lines);
  ASSERT_EQ(texts.size(), RecentLogLines::kLineCount);
  EXPECT_EQ(texts.front(), "line 36");
  EXPECT_EQ(texts.back(), "line 99");

  lines->add(std::string(1000, 'x'));
  EXPECT_EQ(kept(*lines).back(), std::string(RecentLogLines::kLineLength, 'x'));
}

// Writers on many threads while a reader copies, as a crash on one thread while others log:
// every line read is one that was written whole.
TEST(RecentLogLinesTest, AReaderAmongWritersSeesOnlyWholeLines) {
  auto lines = std::make_unique<RecentLogLines>();
  std::atomic<bool> stop{false};
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([&, t] {
      std::string line(20 + t * 30, static_cast<char>('a' + t));
      while (!stop) {
        lines->add(line);
      }
    });
  }
  for (int round = 0; round < 2000; ++round) {
    for (const std::string& text : kept(*lines)) {
      ASSERT_FALSE(text.empty());
      char c = text[0];
      ASSERT_EQ(text, std::string(20 + (c - 'a') * 30, c));
    }
  }
  stop = true;
  for (auto& writer : writers) {
    writer.join();
  }
}

} // namespace
} // namespace kestrin
