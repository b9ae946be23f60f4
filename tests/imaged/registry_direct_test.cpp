#include "imaged/registry_direct.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "descriptions/time_zones.h"
#include "imaged/hive_time_zones.h"
#include "support/hive_writer.h"
#include "support/test_paths.h"

namespace qvx {
namespace {

using test::THiveKey;
using test::THiveValue;

using TNames = std::vector<std::string>;

// "\Software" with typed values and four subkeys (written out of order), "\System" beside it.
THiveKey SampleTree() {
  THiveKey microsoft{"Microsoft",
                     {THiveValue::Sz("Vendor", "Microsoft")},
                     {{"Windows NT", {}, {{"CurrentVersion", {}, {}}}}}};
  THiveKey software{"Software",
                    {THiveValue::Sz("", "default text"), THiveValue::Sz("Zeta", "last letter"),
                     THiveValue::Dword("Alpha", 42), THiveValue::Dword("Negative", 0xFFFFFFFEu),
                     THiveValue::ExpandSz("Expand", "%SystemRoot%\\system32"),
                     THiveValue::Binary("Blob", {1, 2, 3}), THiveValue::MultiSz("Multi", {"one", "two"}),
                     THiveValue::Sz("Caf\xC3\xA9", "ansi name"), THiveValue::Sz("\xCE\xA9mega", "greek name"),
                     THiveValue::Sz("Long", std::string(1500, 'x')),
                     THiveValue{"Embedded", test::HiveRegSz, {'a', 0, 'b', 0, 0, 0, 'c', 0, 0, 0}},
                     THiveValue{"ShortDword", test::HiveRegDword, {1, 2}}},
                    {{"Zebra", {}, {}}, microsoft, {"Apple", {}, {}}, {"Caf\xC3\xA9", {}, {}}}};
  return THiveKey{"", {THiveValue::Sz("RootValue", "at root")}, {software, {"System", {}, {}}}};
}

std::string SampleHive() {
  std::filesystem::path path = test::ScratchDir() / "sample.hiv";
  EXPECT_TRUE(test::WriteHive(path, SampleTree()));
  return path.string();
}

// Walks every key below the current one by absolute paths, reading each value; bounded in
// depth, key count and time, and never visiting one key twice.
struct TTreeWalk {
  explicit TTreeWalk(TRegistryDirect& AHive) : Hive(AHive) {}

  TRegistryDirect& Hive;
  size_t Keys = 0, Values = 0;
  std::set<uint64_t> Seen;
  std::chrono::steady_clock::time_point Deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(20);

  void Walk(const std::string& APath, int ADepth) {
    if (ADepth > 64 || Keys > 50000 || std::chrono::steady_clock::now() > Deadline) return;
    if (!APath.empty() && !Hive.OpenKey(APath)) return;
    if (!Seen.insert(Hive.CurrentKey()).second) return;
    ++Keys;
    TNames keys, values;
    Hive.GetKeyNames(keys);
    Hive.GetValueNames(values);
    for (const std::string& value : values) {
      ++Values;
      Hive.ReadString(value);
      std::vector<uint8_t> bytes;
      Hive.ReadBinary(value, bytes);
      try {
        Hive.ReadInteger(value);
      } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Invalid registry type");
      }
    }
    for (const std::string& key : keys)
      if (key.find('\\') == std::string::npos) Walk(APath + "\\" + key, ADepth + 1);
  }
};

// The sample hive, opened at its root.
class RegistryDirectSample : public ::testing::Test {
protected:
  void SetUp() override { ASSERT_TRUE(FHive.OpenHive(SampleHive())); }
  TRegistryDirect FHive;
};

// The sample hive, at \Software.
class RegistryDirectRead : public RegistryDirectSample {
protected:
  void SetUp() override {
    RegistryDirectSample::SetUp();
    ASSERT_TRUE(FHive.OpenKey("\\Software"));
  }
};

TEST_F(RegistryDirectSample, OpenKeyFollowsAbsoluteAndRelativePaths) {
  EXPECT_EQ(FHive.CurrentPath(), "");
  EXPECT_EQ(FHive.CurrentKey(), 0u);
  ASSERT_TRUE(FHive.OpenKey("\\Software"));
  EXPECT_EQ(FHive.CurrentPath(), "\\Software");
  const uint64_t software = FHive.CurrentKey();
  EXPECT_NE(software, 0u);
  // A failed relative open, and the empty path, leave the key unchanged.
  EXPECT_FALSE(FHive.OpenKey("Microsoft\\Missing"));
  EXPECT_FALSE(FHive.OpenKey(""));
  EXPECT_EQ(FHive.CurrentPath(), "\\Software");
  EXPECT_EQ(FHive.CurrentKey(), software);
  // Relative after absolute appends the path.
  ASSERT_TRUE(FHive.OpenKey("Microsoft"));
  EXPECT_EQ(FHive.CurrentPath(), "\\Software\\Microsoft");
  EXPECT_EQ(FHive.ReadString("Vendor"), "Microsoft");
  ASSERT_TRUE(FHive.OpenKey("Windows NT\\CurrentVersion"));
  EXPECT_EQ(FHive.CurrentPath(), "\\Software\\Microsoft\\Windows NT\\CurrentVersion");
  // A failed absolute open leaves the root.
  EXPECT_FALSE(FHive.OpenKey("\\Software\\Missing"));
  EXPECT_EQ(FHive.CurrentPath(), "");
  EXPECT_EQ(FHive.CurrentKey(), 0u);
  EXPECT_EQ(FHive.ReadString("RootValue"), "at root");
  // Relative from the root gets a backslash.
  ASSERT_TRUE(FHive.OpenKey("Software"));
  EXPECT_EQ(FHive.CurrentPath(), "\\Software");
  // The root itself is not opened, and leaves the root too.
  EXPECT_FALSE(FHive.OpenKey("\\"));
  EXPECT_EQ(FHive.CurrentPath(), "");
  // Case and empty parts are ignored.
  ASSERT_TRUE(FHive.OpenKey("\\SOFTWARE\\\\microsoft\\"));
  EXPECT_EQ(FHive.CurrentPath(), "\\SOFTWARE\\\\microsoft\\");
  EXPECT_EQ(FHive.ReadString("VENDOR"), "Microsoft");
  EXPECT_TRUE(FHive.OpenKey("\\software\\CAF\xC3\x89")); // É folds to é as in Windows-1252
  // Closing the key returns to the root.
  FHive.CloseKey();
  EXPECT_EQ(FHive.CurrentPath(), "");
  EXPECT_EQ(FHive.CurrentKey(), 0u);
  TNames keys;
  FHive.GetKeyNames(keys);
  EXPECT_EQ(keys, (TNames{"Software", "System"}));
}

TEST(RegistryDirectHive, NoHiveOpenAfterOpenFails) {
  std::filesystem::path dir = test::ScratchDir();
  TRegistryDirect hive;
  EXPECT_FALSE(hive.OpenHive((dir / "missing").string()));
  test::WriteFileBytes(dir / "text", {'h', 'e', 'l', 'l', 'o'});
  EXPECT_FALSE(hive.OpenHive((dir / "text").string()));
  EXPECT_FALSE(hive.OpenHive(dir.string()));
  EXPECT_FALSE(hive.HiveOpen());
  EXPECT_FALSE(hive.OpenKey("\\Software"));
  EXPECT_EQ(hive.ReadString("x"), "");
  EXPECT_THROW(hive.ReadInteger("x"), std::runtime_error);
  TNames names{"stale"};
  hive.GetKeyNames(names);
  EXPECT_TRUE(names.empty());
}

TEST_F(RegistryDirectRead, StringsOfStringTypesOnly) {
  const struct {
    const char* Name;
    std::string Expected;
  } cases[] = {
      {"", "default text"}, // the default value
      {"@", ""},
      {"zeta", "last letter"},
      {"Expand", "%SystemRoot%\\system32"},
      {"Alpha", ""},
      {"Blob", ""},
      {"Multi", ""},
      {"Missing", ""},
      {"Embedded", "ab"},               // ends at a NUL
      {"Long", std::string(1024, 'x')}, // and at 1024 units
      {"\xCE\xA9mega", ""},             // Ω is outside Windows-1252
      {"Caf\xC3\xA9", "ansi name"},     // é is inside it
      {"CAF\xC3\x89", "ansi name"},
      {"?mega", ""},
      {"Caf\xFF", ""}, // not UTF-8
  };
  for (const auto& c : cases)
    EXPECT_EQ(FHive.ReadString(c.Name), c.Expected) << c.Name;
  std::string text = "stale";
  EXPECT_FALSE(FHive.TryReadString("Alpha", text));
  EXPECT_EQ(text, "");
  EXPECT_TRUE(FHive.TryReadString("Zeta", text));
}

TEST_F(RegistryDirectRead, IntegersOfDwordsOnly) {
  EXPECT_EQ(FHive.ReadInteger("ALPHA"), 42);
  EXPECT_EQ(FHive.ReadInteger("Negative"), -2);
  for (const char* name : {"Zeta", "Missing", "Blob", "ShortDword", ""}) {
    try {
      FHive.ReadInteger(name);
      ADD_FAILURE() << name << " did not raise";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Invalid registry type") << name;
    }
  }
}

TEST_F(RegistryDirectRead, Binary) {
  std::vector<uint8_t> bytes;
  EXPECT_TRUE(FHive.ReadBinary("blob", bytes));
  EXPECT_EQ(bytes, (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_FALSE(FHive.ReadBinary("Alpha", bytes));
  EXPECT_TRUE(bytes.empty());
  EXPECT_FALSE(FHive.ReadBinary("Missing", bytes));
}

TEST_F(RegistryDirectRead, ListsInHiveOrder) {
  TNames keys, values;
  FHive.GetKeyNames(keys);
  // A hive keeps its subkey lists sorted by upper-case name; values stay as written.
  EXPECT_EQ(keys, (TNames{"Apple", "Caf\xC3\xA9", "Microsoft", "Zebra"}));
  FHive.GetValueNames(values);
  EXPECT_EQ(values, (TNames{"", "Zeta", "Alpha", "Negative", "Expand", "Blob", "Multi", "Caf\xC3\xA9",
                            "?mega", "Long", "Embedded", "ShortDword"}));
}

TEST(RegistryDirectList, LongNamesAreCut) {
  std::filesystem::path path = test::ScratchDir() / "long.hiv";
  ASSERT_TRUE(test::WriteHive(
      path, {"", {THiveValue::Sz(std::string(600, 'v'), "x")}, {{std::string(255, 'k'), {}, {}}}}));
  TRegistryDirect hive;
  ASSERT_TRUE(hive.OpenHive(path.string()));
  TNames keys, values;
  hive.GetKeyNames(keys);
  hive.GetValueNames(values);
  EXPECT_EQ(keys, (TNames{std::string(255, 'k')}));
  EXPECT_EQ(values, (TNames{std::string(512, 'v')}));
}

TEST_F(RegistryDirectSample, CloseHiveResets) {
  ASSERT_TRUE(FHive.OpenKey("\\Software"));
  FHive.CloseHive();
  EXPECT_FALSE(FHive.HiveOpen());
  EXPECT_EQ(FHive.CurrentPath(), "");
  EXPECT_FALSE(FHive.OpenKey("\\Software"));
  FHive.CloseHive();
}

TEST(RegistryDirectHive, EmptyHiveImageOpens) {
  std::filesystem::path path = test::ScratchDir() / "empty.hiv";
  test::WriteFileBytes(path, test::EmptyHiveImage());
  TRegistryDirect hive;
  ASSERT_TRUE(hive.OpenHive(path.string()));
  TNames names{"stale"};
  hive.GetKeyNames(names);
  EXPECT_TRUE(names.empty());
  hive.GetValueNames(names);
  EXPECT_TRUE(names.empty());
}

// Every cut of the sample hive and every damaged byte position either fails to open or
// reads without crashing.
TEST(RegistryDirectHive, TruncatedAndDamagedHivesAreSafe) {
  std::filesystem::path dir = test::ScratchDir();
  std::vector<uint8_t> bytes = test::ReadFileBytes(SampleHive());
  ASSERT_GT(bytes.size(), 4096u);
  std::filesystem::path cut = dir / "cut.hiv";
  auto probe = [&](const std::vector<uint8_t>& AImage) {
    test::WriteFileBytes(cut, AImage);
    TRegistryDirect hive;
    if (!hive.OpenHive(cut.string())) return;
    TTreeWalk walk(hive);
    walk.Walk("", 0);
  };
  for (size_t size = 0; size < bytes.size(); size += size < 4200 ? 97 : 61)
    probe(std::vector<uint8_t>(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size)));
  for (size_t offset = 4096; offset < bytes.size(); offset += 13) {
    std::vector<uint8_t> damaged = bytes;
    damaged[offset] ^= 0xFF;
    probe(damaged);
  }
}

TEST_F(RegistryDirectSample, WalksWholeSampleTree) {
  TTreeWalk walk(FHive);
  walk.Walk("", 0);
  EXPECT_EQ(walk.Keys, 9u);
  EXPECT_EQ(walk.Values, 14u);
}

TEST(HiveTimeZones, EnumTimeZonesReadsTwoZones) {
  auto tzi = [](int32_t ABias) {
    std::vector<uint8_t> data(RegTziSize, 0);
    for (int i = 0; i < 4; ++i)
      data[static_cast<size_t>(i)] = static_cast<uint8_t>(static_cast<uint32_t>(ABias) >> (8 * i));
    return data;
  };
  THiveKey zones{
      "Time Zones",
      {},
      {{"W. Europe Standard Time",
        {THiveValue::Sz("Display", "(UTC+01:00) Amsterdam"), THiveValue::Sz("Std", "W. Europe Standard Time"),
         THiveValue::Sz("Dlt", "W. Europe Daylight Time"), THiveValue::Binary("TZI", tzi(-60))},
        {}},
       {"Pacific Standard Time",
        {THiveValue::Sz("Display", "(UTC-08:00) Pacific Time"),
         THiveValue::Sz("Std", "Pacific Standard Time"), THiveValue::Sz("Dlt", "Pacific Daylight Time"),
         THiveValue::Binary("TZI", tzi(480))},
        {}}}};
  THiveKey root{"", {}, {{"Microsoft", {}, {{"Windows NT", {}, {{"CurrentVersion", {}, {zones}}}}}}}};
  std::filesystem::path path = test::ScratchDir() / "software";
  ASSERT_TRUE(test::WriteHive(path, root));

  TRegistryDirect hive;
  ASSERT_TRUE(hive.OpenHive(path.string()));
  THiveTimeZoneRegistry registry(hive);
  TTimeZones table;
  table.EnumTimeZones(registry);
  ASSERT_EQ(table.Count(), 2);
  EXPECT_EQ(table.Item(0).KeyName, "Pacific Standard Time"); // larger Bias first
  EXPECT_EQ(table.Item(0).DisplayName, "(UTC-08:00) Pacific Time");
  EXPECT_EQ(table.Item(0).DaylightName, "Pacific Daylight Time");
  EXPECT_EQ(table.Item(0).Tzi.Bias, 480);
  EXPECT_EQ(table.Item(1).KeyName, "W. Europe Standard Time");
  EXPECT_EQ(table.Item(1).StandardName, "W. Europe Standard Time");
  EXPECT_EQ(table.Item(1).Tzi.Bias, -60);
}

TEST(HiveTimeZones, KeysOutsideSoftwareAreMissing) {
  std::filesystem::path path = test::ScratchDir() / "software";
  ASSERT_TRUE(test::WriteHive(
      path, {"", {THiveValue::Sz("Top", "t")}, {{"Microsoft", {THiveValue::Sz("Name", "m")}, {}}}}));
  TRegistryDirect hive;
  ASSERT_TRUE(hive.OpenHive(path.string()));
  THiveTimeZoneRegistry registry(hive);
  TNames names;
  EXPECT_TRUE(registry.GetKeyNames("\\software", names));
  EXPECT_EQ(names, (TNames{"Microsoft"}));
  std::string text;
  EXPECT_TRUE(registry.ReadString("\\SOFTWARE", "Top", text));
  EXPECT_EQ(text, "t");
  EXPECT_TRUE(registry.ReadString("\\SOFTWARE\\Microsoft", "Name", text));
  EXPECT_EQ(text, "m");
  EXPECT_FALSE(registry.ReadString("\\SYSTEM\\Microsoft", "Name", text));
  EXPECT_FALSE(registry.ReadString("\\SOFTWAREX\\Microsoft", "Name", text));
  EXPECT_FALSE(registry.GetKeyNames("\\SOFTWARE\\Missing", names));
  EXPECT_TRUE(names.empty());
  std::vector<uint8_t> bytes;
  EXPECT_FALSE(registry.ReadBinary("\\SOFTWARE", "Top", bytes));
}

// Every hive in the shared samples opens or fails cleanly and walks within its bounds.
TEST(RegistryDirectConformance, SampleHivesWalk) {
  std::vector<std::filesystem::path> files = test::SampleFiles("hives", "");
  if (files.empty()) GTEST_SKIP() << "no hive samples";
  size_t opened = 0;
  for (const auto& file : files) {
    SCOPED_TRACE(file.string());
    TRegistryDirect hive;
    if (!hive.OpenHive(file.string())) continue;
    ++opened;
    TTreeWalk walk(hive);
    walk.Walk("", 0);
    EXPECT_GE(walk.Keys, 1u);
  }
  EXPECT_GT(opened, 0u);
}

// A SYSTEM hive names its current control set under \Select.
TEST(RegistryDirectConformance, SystemHiveCurrentControlSet) {
  std::vector<std::filesystem::path> files = test::SampleFiles("hives", "SYSTEM");
  if (files.empty()) GTEST_SKIP() << "no SYSTEM hive sample";
  for (const auto& file : files) {
    SCOPED_TRACE(file.string());
    TRegistryDirect hive;
    ASSERT_TRUE(hive.OpenHive(file.string()));
    ASSERT_TRUE(hive.OpenKey("\\Select"));
    int32_t current = hive.ReadInteger("Current");
    EXPECT_GE(current, 1);
    char name[32];
    std::snprintf(name, sizeof(name), "\\ControlSet%03d\\Control", current);
    EXPECT_TRUE(hive.OpenKey(name));
  }
}

} // namespace
} // namespace qvx
