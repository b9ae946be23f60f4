// The imaged computer over a synthetic Windows installation (tests/support/imaged_fixture),
// and the direct .evtx source describing that installation's log through it.
#include "imaged/imaged_pc.h"

#include "engine/event_log_binxml.h"
#include "imaged/hive_registry.h"
#include "support/memory_registry.h"
#include "support/hive_writer.h"
#include "support/imaged_fixture.h"
#include "support/pe_writer.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

namespace qvx {
namespace {

namespace fs = std::filesystem;
using test::TImagedTree;

class ImagedPC : public ::testing::Test {
protected:
  void SetUp() override {
    Tree = test::BuildImagedWindows(test::ScratchDir() / "image");
    Computer.SetMapping(Tree.WinDir.string());
    Computer.SetActive(true);
  }

  std::string Property(const std::string& ASource, const std::string& AName) {
    TSourceProperties properties;
    Computer.GetEventSourceProperties(ASource, properties);
    return PropertyValue(properties, AName);
  }

  TImagedTree Tree;
  TImagedPC Computer;
};

TEST_F(ImagedPC, ActivationReadsTheInstallationTables) {
  ASSERT_TRUE(Computer.Active());
  EXPECT_EQ(Computer.InstallationDrive(), "C:");
  EXPECT_TRUE(Computer.Is64Bit());
  EXPECT_EQ(Computer.LogsLocation(), (Tree.WinDir / "System32" / "winevt" / "Logs").string());
  EXPECT_EQ(Computer.UILanguages(), (std::vector<std::string>{"de-DE", "en-US"}));

  std::map<std::string, std::string> mapping(Computer.FoldersMapping().begin(), Computer.FoldersMapping().end());
  EXPECT_EQ(Computer.FoldersMapping()[0], std::make_pair(std::string("%systemdrive%"), Tree.Root.string()));
  EXPECT_EQ(mapping["%systemroot%"], Tree.WinDir.string());
  EXPECT_EQ(mapping["C:"], Tree.Root.string());
  EXPECT_EQ(mapping["%programfiles%"], Tree.Root.string() + "\\Program Files");
  EXPECT_EQ(mapping["%programfiles(x86)%"], Tree.Root.string() + "\\Program Files (x86)");

  // Profile-list users with more than four dashes only, names without a domain.
  ASSERT_EQ(Computer.Users().size(), 2u);
  std::string account;
  EXPECT_TRUE(Computer.UserSIDS().GetUserNameFromStrSID(test::kUserAliceSid, account));
  EXPECT_EQ(account, "alice");
  EXPECT_FALSE(Computer.UserSIDS().GetUserNameFromStrSID("S-1-5-18", account));

  ASSERT_EQ(Computer.Channels().size(), 2u);
  EXPECT_EQ(Computer.Channels()[0].first, "Application");
  EXPECT_EQ(Computer.Channels()[1].second, test::kGuidProviderA);
  EXPECT_GT(Computer.TimeZones().Count(), 0);
}

TEST_F(ImagedPC, PublishersOfTheNativeViewWinAndFilesAreMappedIntoTheImage) {
  const std::string system32 = Tree.WinDir.string() + "/System32";
  // The mapped folder keeps its case (the file system holding it may need it), what follows
  // it is in small letters. The native view's list stands; the 32-bit view's wrong.dll is
  // dropped.
  EXPECT_EQ(Property("Test-Provider-A", "EventMessageFile"), Tree.WinDir.string() + "\\system32\\prova.dll");
  EXPECT_EQ(Property("Test-Provider-A", "GUID"), test::kGuidProviderA);
  // A drive path maps through the installation drive.
  EXPECT_EQ(Property("Test-Provider-B", "EventMessageFile"), Tree.Root.string() + "\\program files\\vendor\\provb.dll");
  // A bare file name lands in System32.
  EXPECT_EQ(Property("Test-Provider-C32", "EventMessageFile"), system32 + "/provc.dll");

  // Classic sources: one line per file, ControlSet001 only, the first log's registration kept.
  TSourceProperties properties;
  ASSERT_TRUE(Computer.GetEventSourceProperties("ClassicSrc", properties));
  std::vector<std::string> files;
  for (const std::string& line : properties)
    if (line.starts_with("EventMessageFile=")) files.push_back(line.substr(17));
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[1], system32 + "/classicb.dll");
  EXPECT_FALSE(Computer.GetEventSourceProperties("NoSuchSource", properties));
  EXPECT_TRUE(properties.empty());
}

TEST_F(ImagedPC, MessagesComeFromTheMappedFilesWhateverTheirCase) {
  std::string text;
  EXPECT_TRUE(Computer.GetEventMessage("ClassicSrc", 100, 0, text));
  EXPECT_EQ(text, "ClassicA says %1.");
  // a.dll;b.dll: the second file holds the id.
  EXPECT_TRUE(Computer.GetEventMessage("ClassicSrc", 200, 0, text));
  EXPECT_EQ(text, "ClassicB event %1 and %2.");
  EXPECT_FALSE(Computer.GetEventMessage("ClassicSrc", 999, 0, text));
  // Publishers: the message id comes from the provider metadata by version.
  EXPECT_TRUE(Computer.GetEventMessage("Test-Provider-A", 1, 1, text));
  EXPECT_EQ(text, "Provider A event one v1: %1 %2");
  EXPECT_TRUE(Computer.GetEventMessage("Test-Provider-A", 1, 0, text));
  EXPECT_EQ(text, "Provider A event one: %1");
  EXPECT_TRUE(Computer.GetEventMessage("Test-Provider-B", 10, 0, text));
  EXPECT_EQ(text, "B ten %1");
  EXPECT_TRUE(Computer.GetEventTask("Test-Provider-A", 5, text));
  EXPECT_EQ(text, "Task Five");
  EXPECT_TRUE(Computer.GetEventTask("ClassicSrc", 3, text));
  EXPECT_EQ(text, "Logon");
  EXPECT_TRUE(Computer.GetParam("ClassicSrc", 1920, text));
  EXPECT_EQ(text, "the parameter text");
  // A module without a message table is read through its satellite, in the installation's
  // first UI language.
  EXPECT_TRUE(Computer.GetEventMessage("MuiSrc", 500, 0, text));
  EXPECT_EQ(text, "Vom Satelliten %1");
}

TEST_F(ImagedPC, DeactivationEmptiesEveryTable) {
  Computer.SetActive(false);
  EXPECT_FALSE(Computer.Active());
  EXPECT_TRUE(Computer.Channels().empty());
  EXPECT_TRUE(Computer.Publishers().empty());
  EXPECT_TRUE(Computer.FoldersMapping().empty());
  TSourceProperties properties;
  EXPECT_FALSE(Computer.GetEventSourceProperties("ClassicSrc", properties));
  Computer.SetActive(true);
  EXPECT_TRUE(Computer.GetEventSourceProperties("ClassicSrc", properties));
}

// The installation's registry copied into memory, as the live system's registry is read:
// full key paths, "CurrentControlSet" as the system names it, no hive file behind it.
test::TMemoryRegistry CopyOfRegistry(const fs::path& AWinDir) {
  const THiveRegistry hives(AWinDir.string());
  test::TMemoryRegistry copy;
  copy.CopyFrom(hives, "\\SOFTWARE");
  copy.CopyFrom(hives, "\\SYSTEM\\CurrentControlSet");
  return copy;
}

TEST_F(ImagedPC, AnotherRegistryGivesTheTablesOfTheHives) {
  const test::TMemoryRegistry registry = CopyOfRegistry(Tree.WinDir);
  // The hives are gone: everything comes from the registry given.
  fs::remove(Tree.WinDir / "System32" / "config" / "SOFTWARE");
  fs::remove(Tree.WinDir / "System32" / "config" / "SYSTEM");
  TImagedPC live;
  live.SetMapping(Tree.WinDir.string());
  live.ActivateFrom(registry);
  ASSERT_TRUE(live.Active());
  EXPECT_EQ(live.InstallationDrive(), Computer.InstallationDrive());
  EXPECT_EQ(live.Is64Bit(), Computer.Is64Bit());
  EXPECT_EQ(live.UILanguages(), Computer.UILanguages());
  EXPECT_EQ(live.FoldersMapping(), Computer.FoldersMapping());
  EXPECT_EQ(live.Publishers(), Computer.Publishers());
  EXPECT_EQ(live.ClassicSources(), Computer.ClassicSources());
  EXPECT_EQ(live.Channels(), Computer.Channels());
  EXPECT_EQ(live.Users(), Computer.Users());
  EXPECT_EQ(live.ProductName(), Computer.ProductName());
  EXPECT_EQ(live.CurrentBuild(), Computer.CurrentBuild());
  EXPECT_EQ(live.TimeZones().Count(), Computer.TimeZones().Count());
  EXPECT_GT(live.Publishers().size(), 0u);
  EXPECT_GT(live.ClassicSources().size(), 0u);
  for (const auto& [log, source] : Computer.ClassicSources()) {
    TSourceProperties expected, got;
    Computer.GetEventSourceProperties(source, expected);
    live.GetEventSourceProperties(source, got);
    EXPECT_EQ(got, expected) << source;
  }
  std::string text;
  ASSERT_TRUE(live.GetEventMessage("Test-Provider-A", 1, 1, text));
  EXPECT_EQ(text, "Provider A event one v1: %1 %2");
  // Deactivation and activating again from the registry start afresh.
  live.SetActive(false);
  EXPECT_TRUE(live.Publishers().empty());
  live.ActivateFrom(registry);
  EXPECT_EQ(live.Publishers(), Computer.Publishers());
}

TEST_F(ImagedPC, FolderVariablesOfTheRunningSystemMapRegisteredFiles) {
  test::TMemoryRegistry registry = CopyOfRegistry(Tree.WinDir);
  registry.PutString("\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\DataSrc", "EventMessageFile",
                     "%ProgramData%\\Vendor\\Data.dll");
  test::WriteMessageDll(Tree.Root / "ProgramData" / "Vendor" / "Data.dll", {{7, u"From program data %1\r\n"}});
  TImagedPC live;
  live.SetMapping(Tree.WinDir.string());
  live.ActivateFrom(registry);
  std::string text;
  // The registry names no such folder: the file is not found.
  EXPECT_FALSE(live.GetEventMessage("DataSrc", 7, 0, text));
  live.ActivateFrom(registry, {{"%ProgramData%", (Tree.Root / "ProgramData").string()}});
  ASSERT_TRUE(live.GetEventMessage("DataSrc", 7, 0, text));
  EXPECT_EQ(text, "From program data %1");
  // The registry's own folders come first.
  EXPECT_EQ(live.FoldersMapping().back().first, "%programdata%");
}

#ifndef _WIN32
TEST(ImagedPCLive, OnlyWindowsHasARunningSystemToRead) { EXPECT_EQ(OpenLiveComputer(), nullptr); }
#endif

TEST(ImagedPCActivation, FailsWithTheFourMessagesAndStaysInactive) {
  TImagedPC empty;
  EXPECT_NO_THROW(empty.SetActive(true)); // no Windows folder: nothing happens
  EXPECT_FALSE(empty.Active());

  const fs::path dir = test::ScratchDir();
  TImagedPC computer;
  computer.SetMapping((dir / "Windows").string() + "/");
  EXPECT_EQ(computer.MapWinDir(), (dir / "Windows").string());
  const std::string software = (dir / "Windows" / "System32" / "config" / "software").string();
  try {
    computer.SetActive(true);
    FAIL() << "activation without hives succeeded";
  } catch (const EImagedPCException& e) {
    EXPECT_EQ(std::string(e.what()), "registry file " + software + " does not exist");
  }
  EXPECT_FALSE(computer.Active());

  fs::create_directories(dir / "Windows" / "System32" / "config");
  test::WriteFileBytes(dir / "Windows" / "System32" / "config" / "Software", std::vector<uint8_t>(4096, 0x41));
  try {
    computer.SetActive(true);
    FAIL() << "activation with a bad hive succeeded";
  } catch (const EImagedPCException& e) {
    EXPECT_EQ(std::string(e.what()), "unable to open registry file " + software);
  }

  // One byte over 0x7FFFFFFF is too large (a sparse file costs no disk).
  fs::resize_file(dir / "Windows" / "System32" / "config" / "Software", 0x80000000ull);
  try {
    computer.SetActive(true);
    FAIL() << "activation with a huge hive succeeded";
  } catch (const EImagedPCException& e) {
    EXPECT_EQ(std::string(e.what()), "registry files " + software + " is too large");
  }
  EXPECT_FALSE(computer.Active());
}

// The direct source reading the installation's own log, described by it.
TEST_F(ImagedPC, TheLogIsDescribedAsThatWindowsWould) {
  TEventLogBinXML log;
  log.SetImagedDescrServer(&Computer);
  EXPECT_EQ(log.DescriptionServer(), "[IMAGED]");
  log.SetBackupFileName(Tree.LogFile.string());
  log.SetActive(true);
  ASSERT_TRUE(log.Active());
  std::vector<std::tuple<uint64_t, std::string, std::string, std::string>> events; // record, message, task, user
  while (TEventItemBase* item = log.EventNext()) {
    auto& x = static_cast<TEventItemX&>(*item);
    events.emplace_back(x.FEventRecordID, x.FEvtMessage, x.GetCategoryName(), x.GetUserName());
  }
  ASSERT_EQ(events.size(), 7u);
  std::sort(events.begin(), events.end());
  EXPECT_EQ(std::get<1>(events[0]), "ClassicA says alpha.");
  EXPECT_EQ(std::get<3>(events[0]), "alice");
  EXPECT_EQ(std::get<1>(events[1]), "ClassicB event one and two.");
  EXPECT_EQ(std::get<1>(events[2]), "Qualified 101: q"); // 101 found as 0xB0000065
  EXPECT_EQ(std::get<1>(events[3]), "Provider A event one v1: x y");
  EXPECT_EQ(std::get<2>(events[3]), "Task Five");
  EXPECT_EQ(std::get<3>(events[3]), "Bob");
  EXPECT_EQ(std::get<1>(events[4]), "Provider A event one: z");
  EXPECT_EQ(std::get<1>(events[5]), "Vom Satelliten sat");
  // No registration: the mark and the data values stand in.
  EXPECT_EQ(std::get<1>(events[6]), "\x01\r\nv1\r\nv2");
  EXPECT_EQ(std::get<3>(events[6]), "\\SYSTEM"); // well-known, looked up here: no domain for S-1-5-18
}

TEST_F(ImagedPC, EachMessageFileIsReadOncePerSourceAndEvent) {
  TEventLogBinXML log;
  log.SetImagedDescrServer(&Computer);
  for (int pass = 0; pass < 2; ++pass) {
    log.SetBackupFileName(Tree.LogFile.string());
    log.SetActive(true);
    while (log.EventNext()) {
    }
    log.SetActive(false);
    if (pass == 0) {
      const uint64_t first = Computer.MessageFiles().ModulesLoaded();
      EXPECT_GT(first, 0u);
      EXPECT_LT(first, 30u);
    }
  }
  static uint64_t after = 0;
  after = Computer.MessageFiles().ModulesLoaded();
  log.SetBackupFileName(Tree.LogFile.string());
  log.SetActive(true);
  while (log.EventNext()) {
  }
  EXPECT_EQ(Computer.MessageFiles().ModulesLoaded(), after) << "cached descriptions loaded modules again";
}

} // namespace
} // namespace qvx

namespace qvx {
namespace {

// Damaged modules of the installation: the events fall back to their data values and each
// bad file is reported once.
TEST(ImagedPCDamage, DamagedModulesGiveTheFallbackAndOneIssueEach) {
  const auto tree = test::BuildImagedWindows(test::ScratchDir() / "image");
  const auto prova = tree.WinDir / "System32" / "ProvA.dll";
  auto bytes = test::ReadFileBytes(prova);
  bytes.resize(bytes.size() / 2 + 3); // cut inside its resources
  test::WriteFileBytes(prova, bytes);
  const auto classica = tree.WinDir / "System32" / "ClassicA.dll";
  bytes = test::ReadFileBytes(classica);
  for (size_t i = 0x200; i < bytes.size(); i += 7) bytes[i] = 0xFF; // headers intact, the rest noise
  test::WriteFileBytes(classica, bytes);

  TImagedPC computer;
  computer.SetMapping(tree.WinDir.string());
  computer.SetActive(true);
  TEventLogBinXML log;
  log.SetImagedDescrServer(&computer);
  for (int pass = 0; pass < 2; ++pass) {
    log.SetBackupFileName(tree.LogFile.string());
    log.SetActive(true);
    size_t events = 0;
    while (TEventItemBase* item = log.EventNext()) {
      ++events;
      auto& x = static_cast<TEventItemX&>(*item);
      if (x.FSourceName == "Test-Provider-A") {
        EXPECT_FALSE(x.FDescriptionFound) << x.FEvtMessage;
      }
    }
    EXPECT_EQ(events, 7u);
    log.SetActive(false);
  }
  size_t reports = 0;
  for (const std::string& issue : log.IssueList().Lines())
    if (issue.find("ProvA.dll") != std::string::npos) ++reports;
  EXPECT_EQ(reports, 1u);
}

} // namespace
} // namespace qvx

namespace qvx {
namespace {

// A publisher whose module holds only its provider metadata, its messages living in the
// language satellite (as system modules of Windows 7 and later keep them).
TEST(ImagedPCSatellites, ProviderMetadataStaysInTheModuleItself) {
  const auto tree = test::BuildImagedWindows(test::ScratchDir() / "image");
  const auto system32 = tree.WinDir / "System32";
  TPeResources original;
  ASSERT_TRUE(original.LoadFile((system32 / "ProvA.dll").string()));
  const auto wevt = original.FindBest("WEVT_TEMPLATE", 1, {});
  const auto table = original.FindBest(rtMessageTable, 1, {0x0409});
  ASSERT_TRUE(wevt && table);
  const std::vector<uint8_t> wevtBytes(wevt->begin(), wevt->end()), tableBytes(table->begin(), table->end());
  test::TPeWriter module(true);
  module.Add("WEVT_TEMPLATE", 1, 0x0409, wevtBytes).Add("MUI", 1, 0, std::vector<uint8_t>(8, 1));
  test::WriteFileBytes(system32 / "ProvA.dll", module.Build());
  test::TPeWriter satellite(true);
  satellite.Add(rtMessageTable, 1, 0x0409, tableBytes);
  std::filesystem::create_directories(system32 / "en-US");
  test::WriteFileBytes(system32 / "en-US" / "ProvA.dll.mui", satellite.Build());

  TImagedPC computer;
  computer.SetMapping(tree.WinDir.string());
  computer.SetActive(true);
  std::string text;
  EXPECT_TRUE(computer.GetEventMessage("Test-Provider-A", 1, 1, text));
  EXPECT_EQ(text, "Provider A event one v1: %1 %2");
  EXPECT_TRUE(computer.GetEventTask("Test-Provider-A", 5, text));
  EXPECT_EQ(text, "Task Five");
}

} // namespace
} // namespace qvx
