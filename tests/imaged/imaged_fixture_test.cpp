#include "support/imaged_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "imaged/registry_direct.h"
#include "platform/pe_resources.h"
#include "support/hive_writer.h"
#include "support/test_paths.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;

// The names in a folder exactly as they are on disk.
std::vector<std::string> Names(const fs::path& ADir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(ADir))
    names.push_back(entry.path().filename().string());
  return names;
}

bool Has(const std::vector<std::string>& ANames, const std::string& AName) {
  return std::find(ANames.begin(), ANames.end(), AName) != ANames.end();
}

TEST(ImagedFixture, WritesTheTreeWithItsCase) {
  test::TImagedTree tree = test::BuildImagedWindows(test::ScratchDir() / "image");
  EXPECT_EQ(tree.WinDir, tree.Root / "Windows");
  EXPECT_TRUE(fs::is_regular_file(tree.LogFile));
  std::vector<std::string> system32 = Names(tree.WinDir / "System32");
  for (const char* name : {"ClassicA.dll", "classicb.DLL", "Params.dll", "KernelGen.dll", "MuiOnly.dll", "ProvA.dll",
                           "Broken.dll", "en-US", "de-DE", "config", "winevt"})
    EXPECT_TRUE(Has(system32, name)) << name;
  EXPECT_FALSE(Has(system32, "ClassicB.dll"));
  EXPECT_TRUE(Has(Names(tree.WinDir / "System32" / "config"), "SOFTWARE"));
  EXPECT_TRUE(Has(Names(tree.WinDir / "System32" / "config"), "SYSTEM"));
  EXPECT_TRUE(Has(Names(tree.Root / "Program Files" / "Vendor"), "ProvB.dll"));
  EXPECT_TRUE(fs::is_regular_file(tree.WinDir / "System32" / "en-US" / "MuiOnly.dll.mui"));
  EXPECT_TRUE(fs::is_regular_file(tree.WinDir / "System32" / "de-DE" / "MuiOnly.dll.mui"));
  EXPECT_EQ(fs::file_size(tree.WinDir / "System32" / "Broken.dll"), 64u);
}

TEST(ImagedFixture, SoftwareHiveHoldsTheKeys) {
  test::TImagedTree tree = test::BuildImagedWindows(test::ScratchDir() / "image");
  TRegistryDirect reg;
  ASSERT_TRUE(reg.OpenHive((tree.WinDir / "System32" / "config" / "SOFTWARE").string()));
  ASSERT_TRUE(reg.OpenKey("\\Microsoft\\Windows NT\\CurrentVersion"));
  EXPECT_EQ(reg.ReadString("SystemRoot"), "C:\\WINDOWS");
  ASSERT_TRUE(reg.OpenKey(std::string("\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\") + test::kUserBobSid));
  EXPECT_EQ(reg.ReadString("ProfileImagePath"), "C:\\Users\\Bob");
  ASSERT_TRUE(reg.OpenKey(std::string("\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers\\") +
                          test::kGuidProviderA));
  EXPECT_EQ(reg.ReadString(""), "Test-Provider-A");
  EXPECT_EQ(reg.ReadString("MessageFileName"), "%SystemRoot%\\system32\\ProvA.dll");
  ASSERT_TRUE(reg.OpenKey("\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers\\"
                          "{C0C0C0C0-1111-2222-3333-444455556666}"));
  EXPECT_EQ(reg.ReadString(""), "Test-Provider-C32");
  ASSERT_TRUE(reg.OpenKey("\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Channels\\Test-Provider-A/Operational"));
  EXPECT_EQ(reg.ReadString("OwningPublisher"), test::kGuidProviderA);
  ASSERT_TRUE(reg.OpenKey("\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones\\W. Europe Standard Time"));
  std::vector<uint8_t> tzi;
  ASSERT_TRUE(reg.ReadBinary("TZI", tzi));
  ASSERT_EQ(tzi.size(), 44u);
  EXPECT_EQ(tzi[0], 0xC4); // Bias -60
  EXPECT_EQ(tzi[14], 10);  // StandardDate.wMonth
  EXPECT_EQ(tzi[30], 3);   // DaylightDate.wMonth
}

TEST(ImagedFixture, SystemHiveHoldsTheSources) {
  test::TImagedTree tree = test::BuildImagedWindows(test::ScratchDir() / "image");
  TRegistryDirect reg;
  ASSERT_TRUE(reg.OpenHive((tree.WinDir / "System32" / "config" / "SYSTEM").string()));
  ASSERT_TRUE(reg.OpenKey("\\Select"));
  EXPECT_EQ(reg.ReadInteger("Current"), 2);
  ASSERT_TRUE(reg.OpenKey("\\ControlSet001\\Services\\EventLog\\Application\\ClassicSrc"));
  EXPECT_EQ(reg.ReadString("EventMessageFile"), "%SystemRoot%\\System32\\ClassicA.dll;ClassicB.dll");
  EXPECT_EQ(reg.ReadString("ParameterMessageFile"), "%SystemRoot%\\System32\\Params.dll");
  EXPECT_EQ(reg.ReadInteger("TypesSupported"), 7);
  std::vector<std::string> sources;
  ASSERT_TRUE(reg.OpenKey("\\ControlSet001\\Services\\EventLog\\Application"));
  reg.GetKeyNames(sources);
  EXPECT_EQ(sources.size(), 3u);
  ASSERT_TRUE(reg.OpenKey("\\ControlSet001\\Control\\MUI\\UILanguages\\de-DE"));
  ASSERT_TRUE(reg.OpenKey("\\ControlSet002\\Services\\EventLog\\Application\\ClassicSrc"));
  EXPECT_EQ(reg.ReadString("EventMessageFile"), "controlset2.dll");
}

TEST(ImagedFixture, ModulesHoldTheirResources) {
  test::TImagedTree tree = test::BuildImagedWindows(test::ScratchDir() / "image");
  const fs::path system32 = tree.WinDir / "System32";
  const TResourceId messageTable(static_cast<uint16_t>(rtMessageTable)), one(static_cast<uint16_t>(1));

  TPeResources classicB;
  ASSERT_TRUE(classicB.LoadFile((system32 / "classicb.DLL").string())) << classicB.Error();
  EXPECT_TRUE(classicB.IsPe32Plus());
  EXPECT_TRUE(classicB.Find(messageTable, one, kLangEnUs));

  TPeResources provA;
  ASSERT_TRUE(provA.LoadFile((system32 / "ProvA.dll").string())) << provA.Error();
  EXPECT_TRUE(provA.Find(messageTable, one, kLangEnUs));
  EXPECT_TRUE(provA.Find("WEVT_TEMPLATE", one, kLangEnUs));

  TPeResources mui;
  ASSERT_TRUE(mui.LoadFile((system32 / "MuiOnly.dll").string())) << mui.Error();
  EXPECT_TRUE(mui.Names(messageTable).empty());
  EXPECT_TRUE(mui.Find("MUI", one, kLangNeutral));
  TPeResources satellite;
  ASSERT_TRUE(satellite.LoadFile((system32 / "de-DE" / "MuiOnly.dll.mui").string())) << satellite.Error();
  EXPECT_TRUE(satellite.Find(messageTable, one, 0x0407));

  TPeResources broken;
  EXPECT_FALSE(broken.LoadFile((system32 / "Broken.dll").string()));
}

TEST(ImagedFixture, RebuildReplacesOldContent) {
  fs::path dir = test::ScratchDir() / "image";
  fs::create_directories(dir / "stale");
  test::TImagedTree tree = test::BuildImagedWindows(dir);
  EXPECT_FALSE(fs::exists(dir / "stale"));
  EXPECT_GT(fs::file_size(tree.LogFile), 4096u + 65535u);
}

} // namespace
} // namespace qvx
