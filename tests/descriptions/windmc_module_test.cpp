// Message modules built by the MinGW binutils (tests/fixtures/messages): the tables
// windmc compiles from quorvex_msgs.mc and quorvex_ansi.mc, laid out by windres and ld,
// read back through TPeResources, TMessageTable and TPeMessageSource. The expected texts
// are what windmc stores: each line of a message ends in CR LF (the build hands windmc
// the .mc with CR LF line ends), the last one included, and %-sequences are kept as written.
#include "descriptions/format_message.h"
#include "descriptions/pe_message_source.h"
#include "platform/message_table.h"
#include "platform/pe_resources.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {
namespace {

struct TExpected {
  uint32_t Id;
  const char* Text;
};

// quorvex_msgs.mc, ids with their severity and facility bits.
constexpr uint32_t kCategoryDisk = 0x00000001; // Success, System
constexpr uint32_t kLogonFailed = 0xC0000064;  // Error, System
constexpr uint32_t kDiskSpace = 0x81231000;    // Warning, Quorvex (0x123)
constexpr uint32_t kMultiLine = 0x40021001;    // Informational, Runtime; id 0x1000 + 1
constexpr uint32_t kUnicode = 0x41232000;      // Informational, Quorvex

const std::vector<TExpected> kEnglish = {
    {kCategoryDisk, "Disk\r\n"},
    {kLogonFailed, "Logon failure for %1 from %2!d! attempts.\r\n"},
    {kDiskSpace, "The disk %1 is low on space:%n%2!d!%% free.\r\n"},
    {kMultiLine, "First line of the message.\r\nSecond line with %1.\r\n\r\nFourth line after a blank one.\r\n"},
    {kUnicode, "Tokyo is in 日本 (%1).\r\n"},
};

const std::vector<TExpected> kGerman = {
    {kCategoryDisk, "Datenträger\r\n"},
    {kLogonFailed, "Anmeldefehler für %1 nach %2!d! Versuchen.\r\n"},
    {kDiskSpace, "Größe von %1 ist knapp:%n%2!d!%% frei.\r\n"},
    {kMultiLine, "Erste Zeile der Meldung.\r\nZweite Zeile mit %1.\r\n\r\nVierte Zeile nach einer leeren.\r\n"},
    {kUnicode, "Tokio liegt in 日本 (%1).\r\n"},
};

// quorvex_ansi.mc, compiled with windmc -A: code page 1252 entries.
constexpr uint32_t kAnsiSize = 0x81230010;  // Warning, Quorvex
constexpr uint32_t kAnsiPlain = 0x01230011; // Success, Quorvex

const std::vector<TExpected> kAnsiEnglish = {
    {kAnsiSize, "Size of %1: %2!u! bytes (%3).\r\n"},
    {kAnsiPlain, "Café – 50 %%.\r\n"}, // the dash is 0x96 in the file
};

const std::vector<TExpected> kAnsiGerman = {
    {kAnsiSize, "Größe von %1: %2!u! Bytes (%3).\r\n"},
    {kAnsiPlain, "Straße – 50 %%.\r\n"},
};

std::string Fixture(std::string_view AName) { return (std::filesystem::path(QVX_WINDMC_DIR) / AName).string(); }

void ExpectMessages(const TPeMessageSource& ASource, const std::vector<TExpected>& AExpected) {
  for (const TExpected& message : AExpected) {
    std::string text;
    EXPECT_TRUE(ASource.FindMessage(message.Id, text)) << std::hex << message.Id;
    EXPECT_EQ(text, message.Text) << std::hex << message.Id;
  }
}

std::string Format(const TPeMessageSource& ASource, uint32_t AId, const std::vector<std::string>& AArguments) {
  std::string text, out;
  EXPECT_TRUE(ASource.FindMessage(AId, text)) << std::hex << AId;
  EXPECT_TRUE(FormatMessageText(text, AArguments, 0, out)) << text;
  return out;
}

class WindmcModule : public testing::Test {
protected:
  void SetUp() override {
    if (std::string_view(QVX_WINDMC_DIR).empty())
      GTEST_SKIP() << "x86_64-w64-mingw32-windmc, -windres or -ld not found when configuring";
  }

  // Loads AName with ALanguages, asserting that it opens.
  static TPeMessageSource Load(std::string_view AName, const std::vector<uint16_t>& ALanguages) {
    TPeMessageSource source;
    EXPECT_TRUE(source.Load(Fixture(AName), ALanguages)) << AName << ": " << source.Error();
    return source;
  }

  // The resource tree windres writes for quorvex_msgs.mc: one MESSAGETABLE named 1, in
  // German and English (sorted by LANGID), and nothing it could not read.
  static void ExpectTableResources(std::string_view AName, bool APe32Plus) {
    TPeResources pe;
    ASSERT_TRUE(pe.LoadFile(Fixture(AName))) << pe.Error();
    EXPECT_EQ(pe.IsPe32Plus(), APe32Plus);
    EXPECT_EQ(pe.Issues(), std::vector<std::string>{});
    EXPECT_EQ(pe.Types(), std::vector<TResourceId>{rtMessageTable});
    EXPECT_EQ(pe.Names(rtMessageTable), std::vector<TResourceId>{1});
    EXPECT_EQ(pe.Languages(rtMessageTable, 1), (std::vector<uint16_t>{0x407, 0x409}));

    // windmc writes one block per message here (no two ids are adjacent), sorted as
    // unsigned numbers, so the severity bits put the error last.
    const auto data = pe.Find(rtMessageTable, 1, 0x409);
    ASSERT_TRUE(data);
    const TMessageTable table(*data);
    EXPECT_FALSE(table.HasOverlaps());
    std::vector<uint32_t> lows;
    for (const TMessageBlock& block : table.Blocks()) {
      EXPECT_EQ(block.LowId, block.HighId);
      lows.push_back(block.LowId);
    }
    EXPECT_EQ(lows, (std::vector<uint32_t>{kCategoryDisk, kMultiLine, kUnicode, kDiskSpace, kLogonFailed}));
    size_t visited = 0;
    table.ForEach([&](uint32_t, const std::string&) { ++visited; });
    EXPECT_EQ(visited, 5u);
  }

  static void ExpectBothLanguages(std::string_view AName) {
    ExpectMessages(Load(AName, {0x0409}), kEnglish);
    ExpectMessages(Load(AName, {0x0407}), kGerman);
  }
};

TEST_F(WindmcModule, Pe32PlusResourceTree) { ExpectTableResources("msgs64.dll", true); }

TEST_F(WindmcModule, Pe32PlusTextsInBothLanguages) { ExpectBothLanguages("msgs64.dll"); }

TEST_F(WindmcModule, Pe32ResourceTree) {
  if (!QVX_WINDMC_PE32) GTEST_SKIP() << "i686-w64-mingw32-windres or -ld not found when configuring";
  ExpectTableResources("msgs32.dll", false);
}

TEST_F(WindmcModule, Pe32TextsInBothLanguages) {
  if (!QVX_WINDMC_PE32) GTEST_SKIP() << "i686-w64-mingw32-windres or -ld not found when configuring";
  ExpectBothLanguages("msgs32.dll");
}

TEST_F(WindmcModule, LanguageChoice) {
  std::string text;
  // French is not there: en-US, as Windows' loader falls back.
  ASSERT_TRUE(Load("msgs64.dll", {0x040C}).FindMessage(kCategoryDisk, text));
  EXPECT_EQ(text, "Disk\r\n");
  ASSERT_TRUE(Load("msgs64.dll", {}).FindMessage(kCategoryDisk, text));
  EXPECT_EQ(text, "Disk\r\n");
  // The first preferred language present wins.
  ASSERT_TRUE(Load("msgs64.dll", {0x040C, 0x0407, 0x0409}).FindMessage(kCategoryDisk, text));
  EXPECT_EQ(text, "Datenträger\r\n");
  ASSERT_TRUE(Load("msgs64.dll", {0x0409, 0x0407}).FindMessage(kCategoryDisk, text));
  EXPECT_EQ(text, "Disk\r\n");
}

TEST_F(WindmcModule, IdsWithoutTheirSeverityBitsAreMissing) {
  const TPeMessageSource source = Load("msgs64.dll", {0x0409});
  std::string text;
  EXPECT_FALSE(source.FindMessage(0x64, text));
  EXPECT_FALSE(source.FindMessage(0x1000, text));
  EXPECT_FALSE(source.FindMessage(0x1001, text));
  EXPECT_FALSE(source.FindMessage(0x40021002, text));
  EXPECT_FALSE(source.FindMessage(0x2, text));
  EXPECT_FALSE(source.WevtTemplate());
}

TEST_F(WindmcModule, AnsiEntries) {
  ExpectMessages(Load("msgs_ansi.dll", {0x0409}), kAnsiEnglish);
  ExpectMessages(Load("msgs_ansi.dll", {0x0407}), kAnsiGerman);
  // Two adjacent ids share one block.
  TPeResources pe;
  ASSERT_TRUE(pe.LoadFile(Fixture("msgs_ansi.dll"))) << pe.Error();
  const auto data = pe.Find(rtMessageTable, 1, 0x407);
  ASSERT_TRUE(data);
  const TMessageTable table(*data);
  ASSERT_EQ(table.Blocks().size(), 2u);
  EXPECT_EQ(table.Blocks()[0].LowId, kAnsiPlain);
  EXPECT_EQ(table.Blocks()[1].LowId, kAnsiSize);
}

TEST_F(WindmcModule, MuiPair) {
  const TPeMessageSource main = Load("msgs_mui.dll", {0x0409});
  EXPECT_FALSE(main.HasMessageTable());
  std::string text;
  EXPECT_FALSE(main.FindMessage(kCategoryDisk, text));
  TPeResources pe;
  ASSERT_TRUE(pe.LoadFile(Fixture("msgs_mui.dll"))) << pe.Error();
  EXPECT_EQ(pe.Types(), std::vector<TResourceId>{rtVersion});

  // Each satellite holds one language; asked for the other, it answers in its own.
  const TPeMessageSource english = Load("en-US/msgs_mui.dll.mui", {0x0409});
  EXPECT_TRUE(english.HasMessageTable());
  ExpectMessages(english, kEnglish);
  ExpectMessages(Load("en-US/msgs_mui.dll.mui", {0x0407}), kEnglish);
  const TPeMessageSource german = Load("de-DE/msgs_mui.dll.mui", {0x0407});
  EXPECT_TRUE(german.HasMessageTable());
  ExpectMessages(german, kGerman);
  ExpectMessages(Load("de-DE/msgs_mui.dll.mui", {0x0409}), kGerman);
}

// What FormatMessageW gives for these messages, with the arguments as strings (and the
// !d! and !u! ones as the numbers they spell).
TEST_F(WindmcModule, FormattedAsFormatMessageDoes) {
  const TPeMessageSource english = Load("msgs64.dll", {0x0409});
  EXPECT_EQ(Format(english, kLogonFailed, {"alice", "3"}), "Logon failure for alice from 3 attempts.\r\n");
  EXPECT_EQ(Format(english, kDiskSpace, {"C:", "12"}), "The disk C: is low on space:\r\n12% free.\r\n");
  EXPECT_EQ(Format(english, kMultiLine, {"an insert"}),
            "First line of the message.\r\nSecond line with an insert.\r\n\r\nFourth line after a blank one.\r\n");
  EXPECT_EQ(Format(english, kUnicode, {"大阪"}), "Tokyo is in 日本 (大阪).\r\n");

  const TPeMessageSource german = Load("msgs64.dll", {0x0407});
  EXPECT_EQ(Format(german, kDiskSpace, {"D:", "0x10"}), "Größe von D: ist knapp:\r\n16% frei.\r\n");
  EXPECT_EQ(Format(german, kLogonFailed, {"jürgen", "-2"}), "Anmeldefehler für jürgen nach -2 Versuchen.\r\n");

  const TPeMessageSource ansi = Load("msgs_ansi.dll", {0x0409});
  EXPECT_EQ(Format(ansi, kAnsiSize, {"E", "4096", "4 KB"}), "Size of E: 4096 bytes (4 KB).\r\n");
  EXPECT_EQ(Format(ansi, kAnsiPlain, {}), "Café – 50 %.\r\n");

  // As the event viewer shows them: without the line break that ends every message.
  std::string text;
  ASSERT_TRUE(english.FindMessage(kCategoryDisk, text));
  EXPECT_EQ(StripTrailingLineBreak(text), "Disk");
}

} // namespace
} // namespace qvx
