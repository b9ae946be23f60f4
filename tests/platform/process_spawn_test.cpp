#include "platform/process_spawn.h"

#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <thread>

namespace qvx {
namespace {

namespace fs = std::filesystem;
using TArgs = std::vector<std::string>;

// Waits (up to 20 s, polling) for the file a started program writes; its text, or empty.
std::string WaitForFile(const fs::path& APath) {
  for (int i = 0; i < 400 && !fs::exists(APath); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  std::ifstream in(APath, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A script that writes each of its arguments after the first, one a line, to the file
// named by its first argument (through a temporary file, so the file appears complete).
fs::path WriteArgsScript(const fs::path& ADir) {
  fs::path script = ADir / "args.sh";
  std::ofstream out(script, std::ios::binary);
  out << "out=\"$1\"\nshift\nprintf '%s\\n' \"$@\" > \"$out.tmp\" && mv \"$out.tmp\" \"$out\"\n";
  return script;
}

// The texts joined (no separator); avoids "literal" + std::string.
std::string Cat(std::initializer_list<std::string> AParts) {
  std::string text;
  for (const std::string& part : AParts)
    text.append(part);
  return text;
}

std::string Quoted(const fs::path& APath) {
  std::string text;
  text.push_back('"');
  text.append(APath.string());
  text.push_back('"');
  return text;
}

TEST(SplitWindowsCommandLine, Plain) {
  EXPECT_EQ(SplitWindowsCommandLine("prog a bb ccc"), (TArgs{"prog", "a", "bb", "ccc"}));
  EXPECT_EQ(SplitWindowsCommandLine("prog"), (TArgs{"prog"}));
  EXPECT_EQ(SplitWindowsCommandLine("  prog   a  "), (TArgs{"prog", "a"}));
}

TEST(SplitWindowsCommandLine, Empty) {
  EXPECT_TRUE(SplitWindowsCommandLine("").empty());
  EXPECT_TRUE(SplitWindowsCommandLine("  \t ").empty());
}

TEST(SplitWindowsCommandLine, QuotedWithBlanks) {
  EXPECT_EQ(SplitWindowsCommandLine(R"(prog "a b" c)"), (TArgs{"prog", "a b", "c"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(prog x"a b"y)"), (TArgs{"prog", "xa by"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(prog "unterminated arg)"), (TArgs{"prog", "unterminated arg"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(prog "" x)"), (TArgs{"prog", "", "x"}));
}

TEST(SplitWindowsCommandLine, Tabs) {
  EXPECT_EQ(SplitWindowsCommandLine("prog\ta\t\tb"), (TArgs{"prog", "a", "b"}));
  EXPECT_EQ(SplitWindowsCommandLine("prog \"a\tb\""), (TArgs{"prog", "a\tb"}));
}

TEST(SplitWindowsCommandLine, Backslashes) {
  EXPECT_EQ(SplitWindowsCommandLine(R"(p a\\b c\d)"), (TArgs{"p", R"(a\\b)", R"(c\d)"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(p a\"b)"), (TArgs{"p", R"(a"b)"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(p a\\"b c")"), (TArgs{"p", R"(a\b c)"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(p a\\\"b)"), (TArgs{"p", R"(a\"b)"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(p a\\\\"b c" d)"), (TArgs{"p", R"(a\\b c)", "d"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(p "C:\dir\\" x)"), (TArgs{"p", R"(C:\dir\)", "x"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(p "a \"quoted\" word")"), (TArgs{"p", R"(a "quoted" word)"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(p trailing\)"), (TArgs{"p", R"(trailing\)"}));
}

TEST(SplitWindowsCommandLine, DoubledQuotesInsideQuotes) {
  EXPECT_EQ(SplitWindowsCommandLine(R"(p "a""b")"), (TArgs{"p", R"(a"b)"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(p """a""")"), (TArgs{"p", R"("a")"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"(p "a "" b" c)"), (TArgs{"p", R"(a " b)", "c"}));
  // Outside quotes the first quote opens and the second closes.
  EXPECT_EQ(SplitWindowsCommandLine(R"(p a""b)"), (TArgs{"p", "ab"}));
}

TEST(SplitWindowsCommandLine, ProgramName) {
  EXPECT_EQ(SplitWindowsCommandLine(R"("C:\Program Files\x.exe" /a "b c")"),
            (TArgs{R"(C:\Program Files\x.exe)", "/a", "b c"}));
  // In the program name backslashes are literal and quotes only toggle.
  EXPECT_EQ(SplitWindowsCommandLine(R"(C:\dir\\"x y"z arg)"), (TArgs{R"(C:\dir\\x yz)", "arg"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"("C:\dir\" arg)"), (TArgs{R"(C:\dir\)", "arg"}));
  EXPECT_EQ(SplitWindowsCommandLine(R"("" arg)"), (TArgs{"", "arg"}));
}

TEST(SplitWindowsCommandLine, Utf8) {
  EXPECT_EQ(SplitWindowsCommandLine("pr\xC3\xBC\x66 \"Gr\xC3\xBC\xC3\x9F\x65 dich\" \xE2\x82\xAC"),
            (TArgs{"pr\xC3\xBC\x66", "Gr\xC3\xBC\xC3\x9F\x65 dich", "\xE2\x82\xAC"}));
}

TEST(ProcessSpawn, StartsScript) {
  const fs::path dir = test::ScratchDir();
  const fs::path script = dir / "marker.sh";
  {
    std::ofstream out(script, std::ios::binary);
    out << "echo started > \"$1.tmp\" && mv \"$1.tmp\" \"$1\"\n";
  }
  const fs::path marker = dir / "marker file.txt";
  ASSERT_TRUE(StartProgram(Cat({"/bin/sh ", Quoted(script), " ", Quoted(marker)})));
  EXPECT_EQ(WaitForFile(marker), "started\n");
}

TEST(ProcessSpawn, SearchesPath) {
  const fs::path dir = test::ScratchDir();
  const fs::path script = WriteArgsScript(dir);
  const fs::path out = dir / "out.txt";
  ASSERT_TRUE(StartProgram(Cat({"sh ", Quoted(script), " ", Quoted(out), " one"})));
  EXPECT_EQ(WaitForFile(out), "one\n");
}

TEST(ProcessSpawn, NoShellInjection) {
  const fs::path dir = test::ScratchDir();
  const fs::path script = WriteArgsScript(dir);
  const fs::path out = dir / "out.txt";
  const std::string d = dir.string();
  const TArgs shellText = {
      Cat({"; touch ", d, "/INJ1"}),
      Cat({"$(touch ", d, "/INJ2)"}),
      Cat({"`touch ", d, "/INJ3`"}),
      Cat({"| touch ", d, "/INJ4"}),
      Cat({"&& touch ", d, "/INJ5 &"}),
      Cat({"> ", d, "/INJ6"}),
      "'single' $HOME",
  };
  std::string commandLine = Cat({"/bin/sh ", Quoted(script), " ", Quoted(out)});
  for (const std::string& arg : shellText)
    commandLine.append(" ").append(Quoted(arg));
  // Unquoted shell characters are plain arguments too.
  commandLine.append(" ;touch ").append(d).append("/INJ7");
  ASSERT_TRUE(StartProgram(commandLine));

  std::string expected;
  for (const std::string& arg : shellText)
    expected.append(arg).append("\n");
  expected.append(";touch\n").append(d).append("/INJ7\n");
  EXPECT_EQ(WaitForFile(out), expected);
  for (int i = 1; i <= 7; ++i)
    EXPECT_FALSE(fs::exists(dir / Cat({"INJ", std::to_string(i)}))) << i;
}

TEST(ProcessSpawn, ManyChildren) {
  const fs::path dir = test::ScratchDir();
  const fs::path script = WriteArgsScript(dir);
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(StartProgram(Cat({"/bin/sh ", Quoted(script), " ",
                                  Quoted(dir / Cat({"out", std::to_string(i)})), " ", std::to_string(i)})));
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(WaitForFile(dir / Cat({"out", std::to_string(i)})), Cat({std::to_string(i), "\n"}));
}

TEST(ProcessSpawn, FailsToStart) {
  EXPECT_FALSE(StartProgram(""));
  EXPECT_FALSE(StartProgram("   "));
  EXPECT_FALSE(StartProgram(R"("" arg)"));
  EXPECT_FALSE(StartProgram("/nonexistent/qvx-no-such-program arg"));
  EXPECT_FALSE(StartProgram("qvx-no-such-program-on-path arg"));
}

} // namespace
} // namespace qvx
