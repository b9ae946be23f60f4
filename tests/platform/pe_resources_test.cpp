#include "platform/pe_resources.h"

#include "platform/message_table.h"
#include "support/pe_writer.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace qvx {
namespace {

using test::PutU16;
using test::PutU32;
using test::TPeLayout;
using test::TPeWriter;

std::vector<uint8_t> Bytes(std::string_view AText) { return {AText.begin(), AText.end()}; }

std::string Text(std::optional<std::span<const uint8_t>> AData) {
  return AData ? std::string(AData->begin(), AData->end()) : std::string("<none>");
}

// Two types by ID and one by name; names by ID and by string; several languages.
TPeWriter SampleWriter(bool APe32Plus = false) {
  TPeWriter w(APe32Plus);
  w.Add(rtMessageTable, 1, 0x409, Bytes("mt-en"));
  w.Add(rtMessageTable, 1, 0x407, Bytes("mt-de"));
  w.Add("WEVT_TEMPLATE", 1, 0, Bytes("wevt"));
  w.Add(rtVersion, "Info", 0x409, Bytes("version"));
  w.Add(rtVersion, 7, 0x409, Bytes(""));
  return w;
}

std::string Hex(size_t AValue) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%zX", AValue);
  return text;
}

std::string OpenError(const std::vector<uint8_t>& AImage) {
  TPeResources pe;
  return pe.Open(AImage) ? std::string("<opened>") : pe.Error();
}

std::string FirstIssue(const std::vector<uint8_t>& AImage) {
  TPeResources pe;
  if (!pe.Open(AImage)) return pe.Error();
  return pe.Issues().empty() ? std::string("<none>") : pe.Issues().front();
}

TEST(PeResourceWalk, ListsTypesNamesAndLanguagesByIdAndString) {
  auto image = SampleWriter().Build();
  TPeResources pe;
  ASSERT_TRUE(pe.Open(image)) << pe.Error();
  EXPECT_TRUE(pe.Issues().empty());
  std::vector<TResourceId> types = pe.Types();
  ASSERT_EQ(types.size(), 3u);
  EXPECT_EQ(types[0].ToString(), "WEVT_TEMPLATE"); // string names come first
  EXPECT_EQ(types[1].ToString(), "#11");
  EXPECT_EQ(types[2].ToString(), "#16");
  std::vector<TResourceId> names = pe.Names(rtVersion);
  ASSERT_EQ(names.size(), 2u);
  EXPECT_TRUE(names[0].IsName);
  EXPECT_EQ(names[0].Name, "Info");
  EXPECT_EQ(names[1].Id, 7);
  EXPECT_EQ(pe.Languages(rtMessageTable, 1), (std::vector<uint16_t>{0x407, 0x409}));
  EXPECT_EQ(Text(pe.Find(rtMessageTable, 1, 0x407)), "mt-de");
  EXPECT_EQ(Text(pe.Find(rtVersion, "Info", 0x409)), "version");
  ASSERT_TRUE(pe.Find(rtVersion, 7, 0x409).has_value()); // empty resource is present, not absent
  EXPECT_TRUE(pe.Find(rtVersion, 7, 0x409)->empty());
  EXPECT_FALSE(pe.Find(rtMessageTable, 1, 0x40C).has_value());
  EXPECT_FALSE(pe.Find(rtMessageTable, 2, 0x409).has_value());
  EXPECT_FALSE(pe.Find(rtString, 1, 0x409).has_value());
}

TEST(PeResourceWalk, NamesMatchIgnoringAsciiCase) {
  auto image = SampleWriter().Build();
  TPeResources pe;
  ASSERT_TRUE(pe.Open(image));
  EXPECT_EQ(Text(pe.Find("wevt_template", 1, 0)), "wevt");
  EXPECT_EQ(Text(pe.Find(rtVersion, "INFO", 0x409)), "version");
  EXPECT_FALSE(pe.Find("WEVT_TEMPLATEX", 1, 0).has_value());
  EXPECT_FALSE(pe.Find(rtVersion, "#7", 0x409).has_value()); // a string is never an ID
}

TEST(PeResourceWalk, NonAsciiNamesAreUtf8) {
  TPeWriter w;
  w.Add("\xC3\x9C" "BER", 1, 0, Bytes("x"));
  auto image = w.Build();
  TPeResources pe;
  ASSERT_TRUE(pe.Open(image));
  ASSERT_EQ(pe.Types().size(), 1u);
  EXPECT_EQ(pe.Types()[0].Name, "\xC3\x9C" "BER");
  EXPECT_FALSE(pe.Find("\xC3\xBC" "ber", 1, 0).has_value()); // only ASCII folds
}

TEST(PeImageKinds, Pe32AndPe32PlusReadAlike) {
  for (bool plus : {false, true}) {
    SCOPED_TRACE(plus ? "PE32+" : "PE32");
    auto image = SampleWriter(plus).Build();
    TPeResources pe;
    ASSERT_TRUE(pe.Open(image)) << pe.Error();
    EXPECT_EQ(pe.IsPe32Plus(), plus);
    EXPECT_EQ(Text(pe.Find(rtMessageTable, 1, 0x409)), "mt-en");
    EXPECT_EQ(Text(pe.Find("WEVT_TEMPLATE", 1, 0)), "wevt");
  }
}

TEST(PeImageKinds, ImageWithoutResourceDirectoryHasNoTypes) {
  TPeLayout layout;
  auto image = SampleWriter().Build(&layout);
  PutU32(image, layout.ResourceDirectoryEntry, 0);
  PutU32(image, layout.ResourceDirectoryEntry + 4, 0);
  TPeResources pe;
  ASSERT_TRUE(pe.Open(image)) << pe.Error();
  EXPECT_TRUE(pe.Types().empty());
}

TEST(PeRvaMapping, ResourceBytesInAnotherSectionAreFound) {
  TPeLayout layout;
  auto image = SampleWriter().DataInOwnSection().Build(&layout);
  TPeResources pe;
  ASSERT_TRUE(pe.Open(image)) << pe.Error();
  EXPECT_TRUE(pe.Issues().empty());
  auto data = pe.Find(rtMessageTable, 1, 0x407);
  ASSERT_TRUE(data.has_value());
  EXPECT_EQ(Text(data), "mt-de");
  EXPECT_EQ(data->data(), image.data() + layout.Data[1]); // [0] is WEVT_TEMPLATE; mapped through .rdata
}

TEST(PeRvaMapping, RangesMustLieInsideOneSectionsRawData) {
  TPeLayout layout;
  auto image = SampleWriter().DataInOwnSection().Build(&layout);
  TPeResources pe;
  ASSERT_TRUE(pe.Open(image));
  EXPECT_TRUE(pe.MapRva(0x1000, 0x200).has_value());
  EXPECT_FALSE(pe.MapRva(0x1000, 0x201).has_value()); // runs out of .text
  EXPECT_FALSE(pe.MapRva(0x1200, 1).has_value());     // past .text's raw data
  EXPECT_FALSE(pe.MapRva(0x0FFF, 1).has_value());     // headers are not a section
  EXPECT_FALSE(pe.MapRva(0xFFFFFFFF, 0xFFFFFFFF).has_value());
}

TEST(PeLanguageChoice, ListThenNeutralThenEnglishThenFirst) {
  auto pick = [](std::vector<uint16_t> APresent, std::vector<uint16_t> APreferred) {
    TPeWriter w;
    for (uint16_t l : APresent) w.Add(rtMessageTable, 1, l, Bytes(std::to_string(l)));
    auto image = w.Build();
    TPeResources pe;
    EXPECT_TRUE(pe.Open(image));
    uint16_t chosen = 0xFFFF;
    auto data = pe.FindBest(rtMessageTable, 1, APreferred, &chosen);
    EXPECT_EQ(Text(data), std::to_string(chosen));
    return data ? chosen : 0xFFFF;
  };
  EXPECT_EQ(pick({0, 0x407, 0x409, 0x40C}, {0x40C, 0x407}), 0x40C);
  EXPECT_EQ(pick({0, 0x407, 0x409}, {0x40C, 0x407}), 0x407);
  EXPECT_EQ(pick({0x407, 0, 0x409}, {0x40C}), 0);
  EXPECT_EQ(pick({0x407, 0x409}, {0x40C}), 0x409);
  EXPECT_EQ(pick({0x40C, 0x407}, {}), 0x407); // first present, in stored (ascending) order
  EXPECT_EQ(pick({0x807}, {0x407}), 0x807);   // no sublanguage fallback beyond the list
}

TEST(PeLanguageChoice, MissingNameHasNoChoice) {
  auto image = SampleWriter().Build();
  TPeResources pe;
  ASSERT_TRUE(pe.Open(image));
  EXPECT_FALSE(pe.FindBest(rtMessageTable, 2, {0x409}).has_value());
}

// One header field changed at a time; each gives its own message.
TEST(PeHeaderErrors, EachDefectNamesItselfAndItsOffset) {
  TPeLayout layout;
  const auto good = SampleWriter().Build(&layout);
  auto with = [&](auto AChange) {
    auto image = good;
    AChange(image);
    return OpenError(image);
  };
  EXPECT_EQ(with([](auto& b) { b[0] = 'Z'; }), "PE: no DOS header (\"MZ\") at file offset 0x0");
  EXPECT_EQ(with([](auto& b) { PutU32(b, 0x3C, 0x7FFFFFF0); }), "PE: PE header outside the file at file offset 0x3C");
  EXPECT_EQ(with([](auto& b) { b[0x82] = 'X'; }), "PE: no PE signature at file offset 0x80");
  EXPECT_EQ(with([](auto& b) { PutU16(b, 0x98, 0x107); }), "PE: unknown optional header magic at file offset 0x98");
  EXPECT_EQ(with([](auto& b) { PutU16(b, 0x86, 0xFFFF); }),
            "PE: section table runs past the end of the file at file offset 0x178");
  EXPECT_EQ(with([&](auto& b) { PutU32(b, layout.ResourceDirectoryEntry, 0x9000); }),
            "PE: resource directory RVA outside every section at file offset 0x108");
  EXPECT_EQ(with([&](auto& b) { PutU32(b, layout.SectionTable + 40 + 20, 0x100000); }), // .rsrc PointerToRawData
            "PE: resource directory outside the file at file offset 0x108");
  EXPECT_EQ(with([&](auto& b) { PutU16(b, layout.Directories[0] + 14, 0x1000); }), // root NumberOfIdEntries
            "PE: resource directory entries run past the resource section at file offset 0x600");
  EXPECT_EQ(with([](auto&) {}), "<opened>");
  EXPECT_EQ(OpenError({}), "PE: no DOS header (\"MZ\") at file offset 0x0");
}

TEST(PeTreeDamage, DirectoryLoopingBackIsSkippedWithAnIssue) {
  TPeLayout layout;
  auto image = SampleWriter().Build(&layout);
  // The first name entry of type #11 (directory 2) points back at the root.
  size_t entry = layout.Directories[2] + 16 + 4;
  PutU32(image, entry, 0x80000000);
  TPeResources pe;
  ASSERT_TRUE(pe.Open(image));
  ASSERT_EQ(pe.Issues().size(), 1u);
  EXPECT_EQ(pe.Issues()[0], "PE: resource directory loops back to itself at file offset 0x600");
  EXPECT_TRUE(pe.Languages(rtMessageTable, 1).empty());
  EXPECT_EQ(Text(pe.Find("WEVT_TEMPLATE", 1, 0)), "wevt"); // the rest of the tree stays
}

TEST(PeTreeDamage, TypeDirectoryPointingAtItselfIsSkipped) {
  TPeLayout layout;
  auto image = SampleWriter().Build(&layout);
  uint32_t self = static_cast<uint32_t>(layout.Directories[1] - layout.RsrcFileOffset);
  PutU32(image, layout.Directories[1] + 16 + 4, 0x80000000 | self);
  EXPECT_EQ(FirstIssue(image), "PE: resource directory loops back to itself at file offset " + Hex(layout.Directories[1]));
}

TEST(PeTreeDamage, OffsetsAndSizesOutOfRangeAreSkippedWithAnIssue) {
  TPeLayout layout;
  const auto good = SampleWriter().Build(&layout);
  auto with = [&](auto AChange) {
    auto image = good;
    AChange(image);
    return FirstIssue(image);
  };
  size_t firstData = layout.DataEntries[0];
  EXPECT_EQ(with([&](auto& b) { PutU32(b, firstData, 0x7FFFFFF0); }), // RVA
            "PE: resource data outside the sections in the file at file offset " + Hex(firstData));
  EXPECT_EQ(with([&](auto& b) { PutU32(b, firstData + 4, 0xFFFFFFFF); }).substr(0, 41), // Size
            "PE: resource data outside the sections in");
  EXPECT_EQ(with([&](auto& b) { PutU32(b, layout.Directories[0] + 16, 0x80007FF0); }), // type name string
            "PE: resource name outside the resource section at file offset 0x610");
  EXPECT_EQ(with([&](auto& b) { PutU32(b, layout.Directories[0] + 20, 0x80007FF0); }), // type subdirectory
            "PE: resource directory outside the resource section at file offset 0x85F0");
  EXPECT_EQ(with([&](auto& b) { PutU32(b, layout.Directories[0] + 20, 0x40); }), // data at type level
            "PE: resource type entry points at data, not a directory at file offset 0x610");
  EXPECT_EQ(with([&](auto& b) { PutU32(b, layout.Directories[4] + 20, 0x80000000 | 0x50); }),
            "PE: resource language entry points at a directory at file offset " + Hex(layout.Directories[4] + 16));
}

TEST(PeTreeDamage, TruncatedAtEveryLengthFailsCleanlyOrReadsTheSameBytes) {
  std::vector<uint8_t> table = test::BuildMessageTable({{1, 2, {test::AnsiEntry("one"), test::AnsiEntry("two")}, {}}});
  TPeWriter w;
  w.Add(rtMessageTable, 1, 0x409, table);
  w.Add("WEVT_TEMPLATE", 1, 0, Bytes("wevt"));
  const auto full = w.Build();
  for (size_t cut = 0; cut < full.size(); ++cut) {
    SCOPED_TRACE(cut);
    std::vector<uint8_t> image(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(cut));
    TPeResources pe;
    if (!pe.Open(image)) {
      EXPECT_EQ(pe.Error().rfind("PE: ", 0), 0u);
      continue;
    }
    for (const std::string& issue : pe.Issues()) EXPECT_EQ(issue.rfind("PE: ", 0), 0u);
    if (auto data = pe.Find(rtMessageTable, 1, 0x409)) {
      EXPECT_TRUE(std::equal(data->begin(), data->end(), table.begin(), table.end()));
    }
    std::string text;
    if (FindMessage(image, 2, {}, text)) {
      EXPECT_EQ(text, "two");
    }
  }
}

TEST(PeFiles, LoadFileRefusesFilesOverTheCap) {
  auto image = SampleWriter().Build();
  auto path = test::ScratchDir() / "small.dll";
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(image.data()),
                                              static_cast<std::streamsize>(image.size()));
  TPeResources pe;
  ASSERT_TRUE(pe.LoadFile(path.string())) << pe.Error();
  EXPECT_EQ(Text(pe.Find(rtMessageTable, 1, 0x409)), "mt-en");
  EXPECT_FALSE(pe.LoadFile(path.string(), image.size() - 1));
  EXPECT_NE(pe.Error().find("file too large"), std::string::npos) << pe.Error();
  EXPECT_FALSE(pe.LoadFile((test::ScratchDir() / "missing.dll").string()));
  EXPECT_FALSE(pe.Error().empty());
}

TEST(PeSamples, EveryFileOpensOrFailsWithAClearError) {
  auto files = test::SampleFiles("pe", "");
  if (files.empty()) GTEST_SKIP() << "no PE samples";
  for (const auto& file : files) {
    SCOPED_TRACE(file.string());
    TPeResources pe;
    if (!pe.LoadFile(file.string())) {
      EXPECT_NE(pe.Error().find(": PE: "), std::string::npos) << pe.Error();
      continue;
    }
    EXPECT_TRUE(pe.Issues().empty()) << pe.Issues().front();
    for (const TResourceId& type : pe.Types())
      for (const TResourceId& name : pe.Names(type))
        for (uint16_t language : pe.Languages(type, name)) {
          auto data = pe.Find(type, name, language);
          ASSERT_TRUE(data.has_value());
          if (type == TResourceId(rtMessageTable)) TMessageTable(*data).ForEach([](uint32_t, const std::string&) {});
        }
  }
}

TEST(PeSamples, KnownMessagesDecode) {
  std::filesystem::path wrc, wevt;
  for (const auto& file : test::SampleFiles("pe", ".dll")) {
    if (file.filename() == "wrc_test.dll") wrc = file;
    if (file.filename() == "wrc-test-wevt_template.dll") wevt = file;
  }
  if (wrc.empty() || wevt.empty()) GTEST_SKIP() << "no PE samples";
  TPeResources pe;
  ASSERT_TRUE(pe.LoadFile(wrc.string())) << pe.Error();
  auto table = pe.FindBest(rtMessageTable, 1, {});
  ASSERT_TRUE(table.has_value());
  std::string text;
  ASSERT_TRUE(TMessageTable(*table).Find(0x3E8, text));
  EXPECT_EQ(text, "My message without parameters\r\n");
  ASSERT_TRUE(pe.LoadFile(wevt.string())) << pe.Error();
  EXPECT_EQ(pe.Languages("wevt_template", 1), std::vector<uint16_t>{0x409});
  table = pe.FindBest(rtMessageTable, 1, {0x407});
  ASSERT_TRUE(table.has_value());
  ASSERT_TRUE(TMessageTable(*table).Find(0xB0010001, text));
  EXPECT_EQ(text, "A test value\r\n");
}

} // namespace
} // namespace qvx
