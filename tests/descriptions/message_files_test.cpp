// Descriptions of classic records from registered message files: the registration of a
// source, the template lookup with its id adjustments, %%n parameters and the caches.
// Message modules come from the synthetic installation of tests/support/imaged_fixture.
#include "descriptions/message_files.h"

#include "imaged/hive_registry.h"
#include "imaged/imaged_pc.h"
#include "platform/nt_exception.h"
#include "support/imaged_fixture.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <map>

namespace qvx {
namespace {

// A registry held in a map: key (lower case) -> values.
class TFakeRegistry : public TComputerRegistry {
public:
  void Set(const std::string& AKey, const std::string& AName, const std::string& AValue) {
    FKeys[Lower(AKey)].emplace_back(AName, AValue);
  }
  bool GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const override {
    ANames.clear();
    return FKeys.count(Lower(AKey)) > 0;
  }
  bool ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const override {
    const auto key = FKeys.find(Lower(AKey));
    if (key == FKeys.end()) return false;
    for (const auto& [name, value] : key->second)
      if (name == AName) {
        AValue = value;
        return true;
      }
    return false;
  }
  bool ReadBinary(const std::string&, const std::string&, std::vector<uint8_t>&) const override { return false; }
  bool ReadStringValues(const std::string& AKey,
                        std::vector<std::pair<std::string, std::string>>& AValues) const override {
    const auto key = FKeys.find(Lower(AKey));
    if (key == FKeys.end()) return false;
    AValues = key->second;
    return true;
  }
  mutable int Reads = 0;

private:
  static std::string Lower(std::string AText) {
    for (char& c : AText) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return AText;
  }
  std::map<std::string, std::vector<std::pair<std::string, std::string>>> FKeys;
};

constexpr const char* kSources = "\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

class MessageFiles : public ::testing::Test {
protected:
  void SetUp() override {
    Tree = test::BuildImagedWindows(test::ScratchDir() / "image");
    Registry.Set("\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot", Tree.WinDir.string());
    Registry.Set("\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion", "ProgramFilesDir",
                 (Tree.Root / "Program Files").string());
    Registry.Set(std::string(kSources) + "ClassicSrc", "EventMessageFile",
                 "%SystemRoot%\\System32\\ClassicA.dll;ClassicB.dll");
    Registry.Set(std::string(kSources) + "ClassicSrc", "ParameterMessageFile", "%SystemRoot%\\System32\\Params.dll");
    Registry.Set(std::string(kSources) + "ClassicSrc", "TypesSupported", "7");
    Registry.Set(std::string(kSources) + "Microsoft-Windows-Kernel-General", "EventMessageFile", "KernelGen.dll");
    Registry.Set(std::string(kSources) + "Broken", "EventMessageFile", "Broken.dll;%windir%\\System32\\ClassicA.dll");
    Registry.Set(std::string(kSources) + "Modern", "providerGuid", test::kGuidProviderB);
    Registry.Set(std::string(kSources) + "Modern", "EventMessageFile", "ignored.dll");
    Registry.Set(std::string("\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers\\") +
                     test::kGuidProviderB,
                 "MessageFileName", "%ProgramFiles%\\Vendor\\provb.dll");
    Files.OnIssue = [this](const std::string& AText) { Issues.push_back(AText); };
  }

  // The description of one record of ASource, or "" when none was found.
  std::string Describe(const std::string& ASource, uint32_t AEventId, const std::vector<std::string>& AStrings) {
    const TSourceProperties* properties = GetEventSourceProperties(Registry, "Application", ASource, "", Properties);
    std::string text;
    return Files.DescribeRecord(properties, ASource, AEventId, AStrings, Descriptions, text) ? text : std::string();
  }

  test::TImagedTree Tree;
  TFakeRegistry Registry;
  TSourcePropertiesCache Properties;
  TEventDescriptionCache Descriptions;
  TMessageFiles Files;
  std::vector<std::string> Issues;
};

TEST_F(MessageFiles, RegistrationIsNormalisedAndCachedPerSource) {
  const TSourceProperties* properties = GetEventSourceProperties(Registry, "Application", "ClassicSrc", "", Properties);
  ASSERT_NE(properties, nullptr);
  const std::string system32 = Tree.WinDir.string() + "\\System32\\";
  EXPECT_EQ(PropertyValue(*properties, "EventMessageFile"),
            system32 + "ClassicA.dll;" + Tree.WinDir.string() + "\\System32\\ClassicB.dll");
  EXPECT_EQ(PropertyValue(*properties, "TypesSupported"), "7");

  // The publisher's files replace the source's own under the classic names.
  properties = GetEventSourceProperties(Registry, "Application", "Modern", "", Properties);
  ASSERT_NE(properties, nullptr);
  EXPECT_EQ(PropertyValue(*properties, "EventMessageFile"), (Tree.Root / "Program Files").string() + "\\Vendor\\provb.dll");

  // An unregistered source is remembered as such.
  EXPECT_EQ(GetEventSourceProperties(Registry, "Application", "Nobody", "", Properties), nullptr);
  const TSourceProperties* cached = nullptr;
  EXPECT_TRUE(Properties.GetProperties("Nobody", cached));
  EXPECT_EQ(cached, nullptr);
}

TEST_F(MessageFiles, RemoteDrivePathsBecomeAdministrativeShares) {
  TFakeRegistry remote;
  remote.Set("\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot", "C:\\Windows");
  remote.Set(std::string(kSources) + "Src", "EventMessageFile", "%SystemRoot%\\System32\\a.dll,D:\\x\\b.dll");
  TSourcePropertiesCache cache;
  const TSourceProperties* properties = GetEventSourceProperties(remote, "Application", "Src", "SERVER1", cache);
  ASSERT_NE(properties, nullptr);
  EXPECT_EQ(PropertyValue(*properties, "EventMessageFile"),
            "\\\\SERVER1\\C$\\Windows\\System32\\a.dll;\\\\SERVER1\\D$\\x\\b.dll");

  // Variables need the computer's values: without the key the system error is raised.
  TFakeRegistry bare;
  bare.Set(std::string(kSources) + "Src", "EventMessageFile", "%SystemRoot%\\a.dll");
  EXPECT_THROW(GetEventSourceProperties(bare, "Application", "Src", "", cache = TSourcePropertiesCache()),
               ENTException);
}

TEST_F(MessageFiles, TemplatesComeFromTheFirstFileHoldingTheId) {
  EXPECT_EQ(Describe("ClassicSrc", 100, {"alpha"}), "ClassicA says alpha.");
  // a.dll;b.dll: only b.dll holds 200; a.dll was opened first.
  const uint64_t before = Files.ModulesLoaded();
  EXPECT_EQ(Describe("ClassicSrc", 200, {"one", "two"}), "ClassicB event one and two.");
  EXPECT_EQ(Files.ModulesLoaded() - before, 2u);
  // 101 is not there as such: the second lookup with 0xB0000000 finds it.
  EXPECT_EQ(Describe("ClassicSrc", 101, {"q"}), "Qualified 101: q");
  // An id with qualifier bits gets no second lookup.
  EXPECT_EQ(Describe("ClassicSrc", 0x40000065, {"q"}), "");
  // Kernel-General event 12 is message 0x100000C.
  EXPECT_EQ(Describe("Microsoft-Windows-Kernel-General", 12, {"now"}), "Kernel time changed now");
  // "!S!" reads the record's strings as they are.
  EXPECT_EQ(Describe("ClassicSrc", 302, {"wide"}), "Wide wide text");
}

TEST_F(MessageFiles, AMissIsCachedAndLoadsNothingTheSecondTime) {
  EXPECT_EQ(Describe("ClassicSrc", 999, {}), "");
  std::string_view cached;
  ASSERT_TRUE(Descriptions.GetDescription("ClassicSrc", 999, cached));
  EXPECT_EQ(cached, "*");
  const uint64_t before = Files.ModulesLoaded();
  EXPECT_EQ(Describe("ClassicSrc", 999, {}), "");
  EXPECT_EQ(Files.ModulesLoaded(), before);
  // Found templates are cached as well.
  Describe("ClassicSrc", 100, {"a"});
  const uint64_t after = Files.ModulesLoaded();
  EXPECT_EQ(Describe("ClassicSrc", 100, {"b"}), "ClassicA says b.");
  EXPECT_EQ(Files.ModulesLoaded(), after);
}

TEST_F(MessageFiles, ParameterReferencesBothWays) {
  std::vector<std::string> arguments{"first"};
  const std::string params = (Tree.WinDir / "System32" / "Params.dll").string();
  // Found: the reference becomes the next argument.
  EXPECT_EQ(Files.ExpandParameterInserts("Access %%1920 by %1", params, arguments), "Access %2 by %1");
  ASSERT_EQ(arguments.size(), 2u);
  EXPECT_EQ(arguments[1], "the parameter text");
  // Not found, or no digits: one "%" goes and an ordinary insert remains.
  arguments = {"first"};
  EXPECT_EQ(Files.ExpandParameterInserts("x %%9999 y %%", params, arguments), "x %9999 y %");
  EXPECT_EQ(arguments.size(), 1u);
  // Without "%%" no file is opened.
  const uint64_t before = Files.ModulesLoaded();
  EXPECT_EQ(Files.ExpandParameterInserts("plain %1", "/nonexistent/p.dll", arguments), "plain %1");
  EXPECT_EQ(Files.ModulesLoaded(), before);

  // Through a record: an insertion string holding %%1920 is filled in from the parameter file.
  EXPECT_EQ(Describe("ClassicSrc", 100, {"%%1920"}), "ClassicA says the parameter text.");
  // A reference the file lacks becomes an ordinary insert: "%9999" reads as %99 (there is
  // no 99th string) followed by "99", as an insert has two digits at most.
  EXPECT_EQ(Describe("ClassicSrc", 100, {"%%9999"}), "ClassicA says 99.");
  EXPECT_EQ(Describe("ClassicSrc", 100, {"%%2", "b"}), "ClassicA says b.");
}

TEST_F(MessageFiles, AFileThatIsNotAModuleIsReportedOnceAndSkipped) {
  EXPECT_EQ(Describe("Broken", 100, {"x"}), "ClassicA says x.");
  EXPECT_EQ(Describe("Broken", 200, {"x"}), "");
  ASSERT_EQ(Issues.size(), 1u);
  EXPECT_NE(Issues[0].find("Broken.dll"), std::string::npos) << Issues[0];
}

TEST_F(MessageFiles, HivesOfAnInstallationServeAsItsRegistry) {
  THiveRegistry hives(Tree.WinDir.string());
  std::vector<std::pair<std::string, std::string>> values;
  ASSERT_TRUE(hives.ReadStringValues(std::string(kSources) + "ClassicSrc", values));
  ASSERT_FALSE(values.empty());
  EXPECT_EQ(values[0].first, "EventMessageFile");
  EXPECT_EQ(ReadUILanguages(hives), (std::vector<std::string>{"de-DE", "en-US"}));
  std::string root;
  EXPECT_TRUE(hives.ReadString("\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", "SystemRoot", root));
  EXPECT_EQ(root, "C:\\WINDOWS");
  EXPECT_THROW(THiveRegistry((test::ScratchDir() / "nothing").string()), EImagedPCException);
}

// Real SYSTEM hives: every classic source of ControlSet001 is read as an imaged computer
// would, when the samples are present.
TEST(MessageFilesConformance, RealSystemHivesListTheirSources) {
  const auto dir = test::SamplesDir();
  if (dir.empty()) GTEST_SKIP() << "samples folder not present";
  for (const char* name : {"hives/regipy/SYSTEM", "hives/winevt-kb/SYSTEM_WinXP"}) {
    const auto hive = dir / name;
    if (!std::filesystem::exists(hive)) continue;
    const auto root = test::ScratchDir() / "image";
    const auto config = root / "Windows" / "System32" / "config";
    std::filesystem::create_directories(config);
    std::filesystem::create_symlink(hive, config / "SYSTEM");
    std::filesystem::create_symlink(hive, config / "SOFTWARE"); // any hive will do for the SOFTWARE part
    THiveRegistry hives((root / "Windows").string());
    std::vector<std::string> logs;
    ASSERT_TRUE(hives.GetKeyNames("\\SYSTEM\\CurrentControlSet\\Services\\EventLog", logs)) << name;
    EXPECT_GE(logs.size(), 3u) << name;
    TSourcePropertiesCache cache;
    std::vector<std::string> sources;
    ASSERT_TRUE(hives.GetKeyNames("\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\System", sources));
    size_t withFiles = 0;
    for (const std::string& source : sources) {
      std::vector<std::pair<std::string, std::string>> values;
      if (hives.ReadStringValues("\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\System\\" + source, values))
        for (const auto& value : values)
          if (value.first == "EventMessageFile") ++withFiles;
    }
    EXPECT_GT(withFiles, 20u) << name;
    std::filesystem::remove_all(root);
  }
}

} // namespace
} // namespace qvx
