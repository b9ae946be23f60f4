// A pattern's answers for texts seen before are remembered per thread: a remembered
// answer is the pattern's own for that very text, whatever other patterns, texts that
// share a slot, or patterns made later at a freed one's address.
#include "hunt/sigma_regex.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>

namespace qvx::test {
namespace {

using hunt::TSigmaRegex;

TEST(SigmaRegexMemo, AnswersAgainAsTheFirstTime) {
  const TSigmaRegex network("ipconfig\\s+/all", false, false, false);
  const std::string hit = "cmd.exe /c ipconfig   /all > out.txt";
  const std::string miss = "cmd.exe /c ipconfig /release > out.txt";
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(network.Search(hit), TSigmaRegex::rxMatch) << round;
    EXPECT_EQ(network.Search(miss), TSigmaRegex::rxNoMatch) << round;
  }
  // Short texts are not remembered, and answer the same.
  EXPECT_EQ(network.Search("ipconfig /all"), TSigmaRegex::rxMatch);
  EXPECT_EQ(network.Search("ipconfig /al"), TSigmaRegex::rxNoMatch);
}

TEST(SigmaRegexMemo, PatternsDoNotShareAnswers) {
  const std::string text = "C:\\Windows\\System32\\whoami.exe /all";
  for (int round = 0; round < 2; ++round) {
    const TSigmaRegex yes("whoami", false, false, false);
    const TSigmaRegex no("WHOAMI", false, false, false);
    const TSigmaRegex caseless("WHOAMI", true, false, false);
    EXPECT_EQ(yes.Search(text), TSigmaRegex::rxMatch);
    EXPECT_EQ(no.Search(text), TSigmaRegex::rxNoMatch);
    EXPECT_EQ(caseless.Search(text), TSigmaRegex::rxMatch);
    EXPECT_EQ(no.Search(text), TSigmaRegex::rxNoMatch);
  }
  // A pattern made where a freed one was answers for itself.
  for (int round = 0; round < 8; ++round) {
    auto first = std::make_unique<TSigmaRegex>(round % 2 ? "whoami" : "notepad", false, false, false);
    EXPECT_EQ(first->Search(text), round % 2 ? TSigmaRegex::rxMatch : TSigmaRegex::rxNoMatch) << round;
  }
}

TEST(SigmaRegexMemo, ManyTextsAndLongOnesStayExact) {
  const TSigmaRegex digits("^x+7$", false, false, false);
  // More texts than slots, some sharing slots: every answer read back is the text's own.
  for (int round = 0; round < 2; ++round)
    for (int i = 0; i < 10000; ++i) {
      const std::string text = std::string(16 + i % 40, 'x') + std::to_string(i % 10);
      EXPECT_EQ(digits.Search(text), i % 10 == 7 ? TSigmaRegex::rxMatch : TSigmaRegex::rxNoMatch) << text;
    }
  const std::string longText = std::string(5000, 'x') + "7";
  EXPECT_EQ(digits.Search(longText), TSigmaRegex::rxMatch);
  EXPECT_EQ(digits.Search(longText.substr(1)), TSigmaRegex::rxMatch);
}

TEST(SigmaRegexMemo, LimitIsReachedEveryTime) {
  const TSigmaRegex bomb("^(a+)+$", false, false, false);
  const std::string text = std::string(40, 'a') + "!";
  EXPECT_EQ(bomb.Search(text), TSigmaRegex::rxLimit);
  EXPECT_EQ(bomb.Search(text), TSigmaRegex::rxLimit);
}

TEST(SigmaRegexMemo, ThreadsKeepTheirOwn) {
  const TSigmaRegex pattern("b{3}", false, false, false);
  auto run = [&](bool AWant, int& AWrong) {
    const std::string text = AWant ? "aaaaaaaaaaaaaaaabbb" : "aaaaaaaaaaaaaaaabb";
    for (int i = 0; i < 20000; ++i)
      if ((pattern.Search(text) == TSigmaRegex::rxMatch) != AWant) ++AWrong;
  };
  int wrongA = 0, wrongB = 0;
  std::thread a(run, true, std::ref(wrongA)), b(run, false, std::ref(wrongB));
  a.join();
  b.join();
  EXPECT_EQ(wrongA, 0);
  EXPECT_EQ(wrongB, 0);
}

} // namespace
} // namespace qvx::test
