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

using hunt::RequiredRegexLiteral;
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

// The run a pattern's every match holds is its longest plain run outside groups and
// classes, folded; an atom made optional is left out, a repeated one ends the run.
TEST(SigmaRegexLiteral, LongestSureRunOutsideGroupsAndClasses) {
  EXPECT_EQ(RequiredRegexLiteral("ipconfig\\s+/all", false), "ipconfig");
  EXPECT_EQ(RequiredRegexLiteral("\\$PSHome\\[\\s*\\d{1,3}\\s*\\]", false), "$pshome[");
  EXPECT_EQ(RequiredRegexLiteral("(?:a|b)cde[xyz]fg", false), "cde");
  EXPECT_EQ(RequiredRegexLiteral("^C:\\\\Windows\\\\Temp\\\\[a-z]{8}\\.exe$", false), "c:\\windows\\temp\\");
  EXPECT_EQ(RequiredRegexLiteral("https?://", false), "http");         // s? may be absent
  EXPECT_EQ(RequiredRegexLiteral("ab*cdef", false), "cdef");           // b* too
  EXPECT_EQ(RequiredRegexLiteral("xy{0,2}zzz", false), "zzz");         // y{0,2} too
  EXPECT_EQ(RequiredRegexLiteral("abc+defg", false), "defg");          // c+: "abc" and then c's
  EXPECT_EQ(RequiredRegexLiteral("ab{2}cd", false), "ab");             // b{2} ends the run
  EXPECT_EQ(RequiredRegexLiteral("a.b.cd", false), "cd");
  EXPECT_EQ(RequiredRegexLiteral("[)(]abc(x(y)[)]z)", false), "abc"); // brackets in classes
  EXPECT_EQ(RequiredRegexLiteral("\\(abc\\)", false), "(abc)");
  EXPECT_EQ(RequiredRegexLiteral("", false), "");
  EXPECT_EQ(RequiredRegexLiteral("\\d+\\s*", false), "");
}

// Whatever it does not know gives no run rather than a guess.
TEST(SigmaRegexLiteral, UnknownConstructsGiveNone) {
  EXPECT_EQ(RequiredRegexLiteral("abc|def", false), "");        // either side
  EXPECT_EQ(RequiredRegexLiteral("\\x41BCD", false), "");       // \x41 is 'A'
  EXPECT_EQ(RequiredRegexLiteral("\\QA|B\\Eabc", false), "");
  EXPECT_EQ(RequiredRegexLiteral("(?x) a b c", false), "");     // spaces do not count
  EXPECT_EQ(RequiredRegexLiteral("abc(?x:d e)", false), "");
  EXPECT_EQ(RequiredRegexLiteral("(*UCP)abc", false), "");
  EXPECT_EQ(RequiredRegexLiteral("ab{x}cd", false), "");        // not a quantifier PCRE2 knows for sure
  EXPECT_EQ(RequiredRegexLiteral("abc\\1", false), "");         // a back reference
  EXPECT_EQ(RequiredRegexLiteral("abc\\p{L}", false), "");
  EXPECT_EQ(RequiredRegexLiteral("(abc", false), "");
}

// Caseless, PCRE2 in UTF mode matches 'k' with the Kelvin sign and 's' with the long s,
// which ASCII folding keeps apart: a run stops at them, and at any non-ASCII byte.
TEST(SigmaRegexLiteral, CaselessFoldingBeyondAsciiEndsRuns) {
  EXPECT_EQ(RequiredRegexLiteral("MASK", false), "mask");
  EXPECT_EQ(RequiredRegexLiteral("MASK", true), "ma");
  EXPECT_EQ(RequiredRegexLiteral("(?i)werfaultsecure\\.exe", false), "ecure.exe");
  EXPECT_EQ(RequiredRegexLiteral("abcd(?i:x)k", false), "abcd"); // (?i) anywhere counts
  EXPECT_EQ(RequiredRegexLiteral("a\xc3\xa9zzz", false), "zzz");
  const std::string longS = "ma\xc5\xbf\xe2\x84\xaa";            // "ma", U+017F, U+212A
  for (const bool caseless : {true, false}) {
    const TSigmaRegex regex(caseless ? "MASK" : "(?i)mask", caseless, false, false);
    EXPECT_EQ(regex.Search("run " + longS + " now"), TSigmaRegex::rxMatch);
    EXPECT_EQ(regex.Literal(), "ma");
  }
}

} // namespace
} // namespace qvx::test
