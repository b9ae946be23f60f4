// Message catalogs built from the synthetic installation of the imaged tests
// (tests/support/imaged_fixture), and the log of that installation described from them.
#include "catalog/message_catalog.h"

#include "catalog/catalog_builder.h"
#include "catalog/sqlite_handle.h"
#include "engine/classic_log.h"
#include "engine/event_log_binxml.h"
#include "imaged/hive_registry.h"
#include "imaged/imaged_pc.h"
#include "support/evt_writer.h"
#include "support/hive_writer.h"
#include "support/imaged_fixture.h"
#include "support/memory_registry.h"
#include "support/pe_writer.h"
#include "support/wevt_writer.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <tuple>

namespace qvx {
namespace {

namespace fs = std::filesystem;

using TDescribed = std::vector<std::tuple<uint64_t, std::string, std::string>>; // record, message, task

// Every event of ALog: its description (or fallback text) and task, by record number.
TDescribed Describe(const fs::path& ALog, TImagedPC* AImaged, TEventMessageServer* ACatalogs) {
  TEventLogBinXML log;
  log.SetImagedDescrServer(AImaged);
  log.SetCatalogs(ACatalogs);
  log.SetBackupFileName(ALog.string());
  log.SetActive(true);
  TDescribed events;
  while (TEventItemBase* item = log.EventNext()) {
    auto& x = static_cast<TEventItemX&>(*item);
    events.emplace_back(x.FEventRecordID, x.FEvtMessage, x.GetCategoryName());
  }
  std::sort(events.begin(), events.end());
  return events;
}

// The catalog of the installation below AWinDir.
TCatalogBuildStats Build(const fs::path& AWinDir, const fs::path& AOut, TCatalogBuildOptions AOptions = {}) {
  TImagedPC computer;
  computer.SetMapping(AWinDir.string());
  computer.SetActive(true);
  return BuildCatalog(computer, AOut.string(), AOptions);
}

std::string Message(const TDescribed& AEvents, uint64_t ARecord) {
  for (const auto& [record, message, task] : AEvents)
    if (record == ARecord) return message;
  return "(no record)";
}

class MessageCatalog : public ::testing::Test {
protected:
  void SetUp() override {
    Dir = test::ScratchDir();
    Tree = test::BuildImagedWindows(Dir / "image");
  }
  fs::path Dir;
  test::TImagedTree Tree;
};

TEST_F(MessageCatalog, DescribesTheLogExactlyAsTheInstallationDoes) {
  TImagedPC computer;
  computer.SetMapping(Tree.WinDir.string());
  computer.SetActive(true);
  const TDescribed imaged = Describe(Tree.LogFile, &computer, nullptr);

  const TCatalogBuildStats stats = Build(Tree.WinDir, Dir / "windows.qcat");
  EXPECT_EQ(stats.Publishers, 3u);     // A, B and the 32-bit view's C
  EXPECT_EQ(stats.ClassicSources, 3u); // ClassicSrc, MuiSrc, Kernel-General
  EXPECT_EQ(stats.Events, 3u);
  EXPECT_EQ(stats.Languages, (std::vector<std::string>{"de-DE", "en-US"}));
  EXPECT_GT(stats.TablesShared, 0u) << "the en-US table of a module is its de-DE answer too";

  // Without the installation: the catalog alone.
  fs::remove_all(Tree.Root);
  TCatalogSet catalogs;
  catalogs.Add((Dir / "windows.qcat").string());
  test::BuildImagedWindows(Dir / "log-only");
  const TDescribed fromCatalog = Describe(Dir / "log-only" / "Windows" / "System32" / "winevt" / "Logs" / "Application.evtx",
                                          nullptr, &catalogs);
  ASSERT_EQ(fromCatalog.size(), 7u);
  EXPECT_EQ(fromCatalog, imaged);
  EXPECT_EQ(Message(fromCatalog, 4), "Provider A event one v1: x y");
  EXPECT_EQ(std::get<2>(fromCatalog[3]), "Task Five");
  EXPECT_EQ(Message(fromCatalog, 6), "Vom Satelliten sat");
}

// Every row of every table of the catalog APath, as text (the origin's creation time left out).
std::string DumpCatalog(const fs::path& APath) {
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(APath.string().c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return "(cannot open)";
  }
  std::vector<std::string> tables;
  sqlite3_stmt* list = nullptr;
  sqlite3_prepare_v2(db, "SELECT name FROM sqlite_master WHERE type='table' ORDER BY name", -1, &list, nullptr);
  while (sqlite3_step(list) == SQLITE_ROW) tables.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(list, 0)));
  sqlite3_finalize(list);
  std::string dump;
  for (const std::string& table : tables) {
    dump += "[" + table + "]\n";
    sqlite3_stmt* rows = nullptr;
    if (sqlite3_prepare_v2(db, ("SELECT * FROM \"" + table + "\"").c_str(), -1, &rows, nullptr) != SQLITE_OK)
      dump += "(cannot read)\n";
    std::vector<std::string> lines;
    while (rows && sqlite3_step(rows) == SQLITE_ROW) {
      std::string line;
      for (int i = 0; i < sqlite3_column_count(rows); ++i) {
        if (std::string_view(sqlite3_column_name(rows, i)) == "created") continue;
        const unsigned char* text = sqlite3_column_text(rows, i);
        line += text ? reinterpret_cast<const char*>(text) : "NULL";
        line += '|';
      }
      lines.push_back(std::move(line));
    }
    sqlite3_finalize(rows);
    std::sort(lines.begin(), lines.end());
    for (const std::string& line : lines) dump += line + "\n";
  }
  sqlite3_close(db);
  return dump;
}

// --live reads the running system's registry and disk through the same enumeration: an
// installation whose registry comes from memory instead of its hives gives the same catalog.
TEST_F(MessageCatalog, ARegistryThatIsNotAHiveGivesTheSameCatalog) {
  const TCatalogBuildStats fromHives = Build(Tree.WinDir, Dir / "hives.qcat");
  test::TMemoryRegistry registry;
  {
    const THiveRegistry hives(Tree.WinDir.string());
    registry.CopyFrom(hives, "\\SOFTWARE");
    registry.CopyFrom(hives, "\\SYSTEM\\CurrentControlSet");
  }
  fs::remove(Tree.WinDir / "System32" / "config" / "SOFTWARE");
  fs::remove(Tree.WinDir / "System32" / "config" / "SYSTEM");
  TImagedPC live;
  live.SetMapping(Tree.WinDir.string());
  live.ActivateFrom(registry);
  const TCatalogBuildStats fromRegistry = BuildCatalog(live, (Dir / "registry.qcat").string(), {});
  EXPECT_EQ(fromRegistry.Publishers, fromHives.Publishers);
  EXPECT_EQ(fromRegistry.ClassicSources, fromHives.ClassicSources);
  EXPECT_EQ(fromRegistry.Events, fromHives.Events);
  EXPECT_EQ(fromRegistry.Messages, fromHives.Messages);
  const std::string dump = DumpCatalog(Dir / "hives.qcat");
  EXPECT_NE(dump.find("Provider A event one v1"), std::string::npos);
  EXPECT_EQ(DumpCatalog(Dir / "registry.qcat"), dump);

  // The origin is named from the product the registry gives.
  const std::string nt = "\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
  registry.PutString(nt, "ProductName", "Windows Test");
  registry.PutString(nt, "CurrentBuildNumber", "22631");
  registry.PutString(nt, "DisplayVersion", "23H2");
  live.ActivateFrom(registry);
  BuildCatalog(live, (Dir / "named.qcat").string(), {});
  const TCatalogInfo info = ReadCatalogInfo((Dir / "named.qcat").string());
  ASSERT_EQ(info.Origins.size(), 1u);
  EXPECT_EQ(info.Origins[0].Name, "Windows Test 23H2 build 22631");
  EXPECT_EQ(info.Origins[0].Product, "Windows Test 23H2");
  EXPECT_EQ(info.Origins[0].Build, 22631);
}

TEST_F(MessageCatalog, TextsTheCatalogLacksFallBackAsWithoutIt) {
  Build(Tree.WinDir, Dir / "windows.qcat");
  TCatalogSet catalogs;
  catalogs.Add((Dir / "windows.qcat").string());
  std::string text;
  EXPECT_TRUE(catalogs.GetEventMessage("ClassicSrc", 200, 0, text));
  EXPECT_EQ(text, "ClassicB event %1 and %2.");
  EXPECT_TRUE(catalogs.GetEventMessage("classicsrc", 100, 0, text)) << "source names ignore case";
  EXPECT_FALSE(catalogs.GetEventMessage("ClassicSrc", 999, 0, text));
  EXPECT_FALSE(catalogs.GetEventMessage("No-Such-Source", 1, 0, text));
  EXPECT_TRUE(catalogs.GetParam("ClassicSrc", 1920, text));
  EXPECT_EQ(text, "the parameter text");
  EXPECT_TRUE(catalogs.GetEventTask("ClassicSrc", 3, text));
  EXPECT_EQ(text, "Logon");
  EXPECT_FALSE(catalogs.GetEventTask("Test-Provider-A", 6, text));
}

TEST_F(MessageCatalog, MuiLanguagesFollowTheChosenOrder) {
  TCatalogBuildOptions english;
  english.Languages = {"en-US"};
  Build(Tree.WinDir, Dir / "en.qcat", english);
  TCatalogBuildOptions german;
  german.Languages = {"de-DE", "en-US"};
  Build(Tree.WinDir, Dir / "de.qcat", german);

  std::string text;
  TCatalogSet en;
  en.Add((Dir / "en.qcat").string());
  ASSERT_TRUE(en.GetEventMessage("MuiSrc", 500, 0, text));
  EXPECT_EQ(text, "From the satellite %1");
  TCatalogSet de;
  de.Add((Dir / "de.qcat").string());
  ASSERT_TRUE(de.GetEventMessage("MuiSrc", 500, 0, text));
  EXPECT_EQ(text, "Vom Satelliten %1");
  // A module with an English table only answers in English in the German catalog.
  ASSERT_TRUE(de.GetEventMessage("ClassicSrc", 100, 0, text));
  EXPECT_EQ(text, "ClassicA says %1.");
  EXPECT_EQ(ReadCatalogInfo((Dir / "de.qcat").string()).Origins.at(0).Languages, "de-DE,en-US");
}

// Two installations: the older one (build 100) is the fixture; the newer one (build 200)
// has a Provider A without version 1 of event 1 and a new text for version 0, and a
// ClassicSrc whose first message file changed and whose second lost event 200.
class TwoInstallations : public MessageCatalog {
protected:
  void SetUp() override {
    MessageCatalog::SetUp();
    Newer = test::BuildImagedWindows(Dir / "newer");
    const fs::path system32 = Newer.WinDir / "System32";
    test::WriteProviderDll(system32 / "ProvA.dll", test::kGuidProviderA,
                           {{0xB0000001, u"Newer A event one: %1\r\n"}, {0x90000005, u"Task Five, renamed\r\n"}},
                           {{1, 0, 0xB0000001}}, {{5, 0x90000005}});
    test::WriteMessageDll(system32 / "ClassicA.dll", {{100, u"ClassicA now says %1.\r\n"}});
    test::WriteMessageDll(system32 / "classicb.DLL", {{3, u"Logon\r\n"}});
    TCatalogBuildOptions old, now;
    old.Build = 100;
    old.Name = "older";
    now.Build = 200;
    now.Name = "newer";
    Build(Tree.WinDir, Dir / "older.qcat", old);
    Build(Newer.WinDir, Dir / "newer.qcat", now);
  }

  static void ExpectVersionRules(TCatalogSet& ACatalogs) {
    std::string text;
    // Version 1 is defined only by the older installation.
    ASSERT_TRUE(ACatalogs.GetEventMessage("Test-Provider-A", 1, 1, text));
    EXPECT_EQ(text, "Provider A event one v1: %1 %2");
    // Version 0 is defined by both: the newest wins.
    ASSERT_TRUE(ACatalogs.GetEventMessage("Test-Provider-A", 1, 0, text));
    EXPECT_EQ(text, "Newer A event one: %1");
    // Version 7 is defined by none: the newest that has the event, as its lowest version.
    ASSERT_TRUE(ACatalogs.GetEventMessage("Test-Provider-A", 1, 7, text));
    EXPECT_EQ(text, "Newer A event one: %1");
    ASSERT_TRUE(ACatalogs.GetEventTask("Test-Provider-A", 5, text));
    EXPECT_EQ(text, "Task Five, renamed");
    // The classic source's changed file: the newer text; the event the newer files lost
    // still comes from the older installation.
    ASSERT_TRUE(ACatalogs.GetEventMessage("ClassicSrc", 100, 0, text));
    EXPECT_EQ(text, "ClassicA now says %1.");
    ASSERT_TRUE(ACatalogs.GetEventMessage("ClassicSrc", 200, 0, text));
    EXPECT_EQ(text, "ClassicB event %1 and %2.");
  }

  test::TImagedTree Newer;
};

TEST_F(TwoInstallations, TheEventsVersionThenTheNewestInstallationDecides) {
  for (const bool newerFirst : {false, true}) {
    TCatalogSet catalogs;
    catalogs.Add((Dir / (newerFirst ? "newer.qcat" : "older.qcat")).string());
    catalogs.Add((Dir / (newerFirst ? "older.qcat" : "newer.qcat")).string());
    ExpectVersionRules(catalogs);
  }
}

// A catalog given twice (or merged with a merge that holds it) keeps its installation once.
TEST_F(TwoInstallations, MergingAnInstallationAgainKeepsItOnce) {
  const std::string older = (Dir / "older.qcat").string(), newer = (Dir / "newer.qcat").string();
  MergeCatalogs({older, newer}, (Dir / "both.qcat").string());
  MergeCatalogs({older, (Dir / "both.qcat").string(), newer, older}, (Dir / "again.qcat").string());
  const TCatalogInfo both = ReadCatalogInfo((Dir / "both.qcat").string());
  const TCatalogInfo again = ReadCatalogInfo((Dir / "again.qcat").string());
  ASSERT_EQ(again.Origins.size(), 2u);
  EXPECT_EQ(again.Origins[0].Name, "older");
  EXPECT_EQ(again.Origins[1].Name, "newer");
  EXPECT_EQ(again.Tables, both.Tables);
  EXPECT_EQ(again.Messages, both.Messages);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(again.Origins[i].Publishers, both.Origins[i].Publishers);
    EXPECT_EQ(again.Origins[i].Files, both.Origins[i].Files);
    EXPECT_EQ(again.Origins[i].Events, both.Origins[i].Events);
  }
}

TEST_F(TwoInstallations, MergedCatalogAnswersAsTheTwoAndStoresSharedTablesOnce) {
  MergeCatalogs({(Dir / "older.qcat").string(), (Dir / "newer.qcat").string()}, (Dir / "both.qcat").string());
  const TCatalogInfo older = ReadCatalogInfo((Dir / "older.qcat").string());
  const TCatalogInfo newer = ReadCatalogInfo((Dir / "newer.qcat").string());
  const TCatalogInfo both = ReadCatalogInfo((Dir / "both.qcat").string());
  ASSERT_EQ(both.Origins.size(), 2u);
  EXPECT_EQ(both.Origins[0].Name, "older");
  EXPECT_EQ(both.Origins[1].Build, 200);
  EXPECT_EQ(both.Origins[1].Publishers, newer.Origins[0].Publishers);
  // Params.dll, KernelGen.dll, ProvB.dll and the satellites are the same in both.
  EXPECT_LT(both.Tables, older.Tables + newer.Tables);
  EXPECT_GE(both.Tables, std::max(older.Tables, newer.Tables));
  TCatalogSet catalogs;
  catalogs.Add((Dir / "both.qcat").string());
  ExpectVersionRules(catalogs);
}

// Opcode and keyword names of a publisher (OPCO and KEYW elements of its metadata).
TEST_F(MessageCatalog, OpcodeAndKeywordNamesComeAsFromTheInstallation) {
  auto u32 = [](std::vector<uint8_t>& AOut, uint32_t AValue) {
    for (int i = 0; i < 4; ++i) AOut.push_back(static_cast<uint8_t>(AValue >> (8 * i)));
  };
  test::TWevtProviderDraft provider;
  ParseProviderGuid(test::kGuidProviderA, provider.Guid);
  test::TWevtElementDraft events;
  events.Signature = "EVNT";
  test::TWevtEventDraft event;
  event.Id = 1;
  event.MessageId = 0xB0000001;
  events.Events.push_back(event);
  test::TWevtElementDraft opcodes;
  opcodes.Signature = "OPCO";
  u32(opcodes.Body, 3);                       // count
  u32(opcodes.Body, 5 | (10u << 16));         // task 5, opcode 10
  u32(opcodes.Body, 0x30000001);              // its message
  u32(opcodes.Body, 0);                       // name offset
  u32(opcodes.Body, 0 | (10u << 16));         // every task, opcode 10
  u32(opcodes.Body, 0x30000002);
  u32(opcodes.Body, 0);
  u32(opcodes.Body, 0 | (11u << 16));         // no message: skipped
  u32(opcodes.Body, kNoMessageId);
  u32(opcodes.Body, 0);
  test::TWevtElementDraft keywords;
  keywords.Signature = "KEYW";
  u32(keywords.Body, 2);
  for (const auto& [mask, message] : {std::pair<uint64_t, uint32_t>{0x1, 0x10000001}, {0x4, 0x10000003}}) {
    u32(keywords.Body, static_cast<uint32_t>(mask));
    u32(keywords.Body, static_cast<uint32_t>(mask >> 32));
    u32(keywords.Body, message);
    u32(keywords.Body, 0);
  }
  provider.Elements = {events, opcodes, keywords};
  test::TWevtResourceDraft draft;
  draft.Providers.push_back(provider);
  std::vector<test::TMessageBlockFixture> blocks = {
      {0x10000001, 0x10000001, {test::UnicodeEntry(u"Network\r\n")}, {}},
      {0x10000003, 0x10000003, {test::UnicodeEntry(u"Disk\r\n")}, {}},
      {0x30000001, 0x30000002, {test::UnicodeEntry(u"Connect\r\n"), test::UnicodeEntry(u"Generic\r\n")}, {}},
      {0xB0000001, 0xB0000001, {test::UnicodeEntry(u"A one %1\r\n")}, {}}};
  test::TPeWriter pe(true);
  pe.Add(TResourceId(static_cast<uint16_t>(rtMessageTable)), TResourceId(static_cast<uint16_t>(1)), kLangEnUs,
         test::BuildMessageTable(blocks));
  pe.Add(TResourceId("WEVT_TEMPLATE"), TResourceId(static_cast<uint16_t>(1)), kLangEnUs, test::BuildWevtResource(draft));
  test::WriteFileBytes(Tree.WinDir / "System32" / "ProvA.dll", pe.Build());

  TImagedPC computer;
  computer.SetMapping(Tree.WinDir.string());
  computer.SetActive(true);
  Build(Tree.WinDir, Dir / "names.qcat");
  TCatalogSet catalogs;
  catalogs.Add((Dir / "names.qcat").string());
  for (TEventMessageServer* server : {static_cast<TEventMessageServer*>(&computer), static_cast<TEventMessageServer*>(&catalogs)}) {
    std::string text;
    ASSERT_TRUE(server->GetOpcodeName("Test-Provider-A", 5, 10, text));
    EXPECT_EQ(text, "Connect");
    ASSERT_TRUE(server->GetOpcodeName("Test-Provider-A", 7, 10, text));
    EXPECT_EQ(text, "Generic");
    EXPECT_FALSE(server->GetOpcodeName("Test-Provider-A", 5, 11, text));
    ASSERT_TRUE(server->GetKeywordNames("Test-Provider-A", 0x8000000000000005ull, text));
    EXPECT_EQ(text, "Network, Disk");
    EXPECT_FALSE(server->GetKeywordNames("Test-Provider-A", 0x2, text));
    EXPECT_FALSE(server->GetKeywordNames("ClassicSrc", 0x1, text));
  }
  // Other tools read the names from the catalog's tables directly.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open_v2((Dir / "names.qcat").string().c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  sqlite3_stmt* names = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT group_concat(name, '|') FROM (SELECT name FROM opcode UNION ALL "
                                   "SELECT name FROM keyword UNION ALL SELECT name FROM task ORDER BY 1)",
                               -1, &names, nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_step(names), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(names, 0)), "Connect|Disk|Generic|Network");
  sqlite3_finalize(names);
  sqlite3_close(db);
}

// A classic .evt log: its records described and categorised from the catalog alike.
TEST_F(MessageCatalog, ClassicLogsAreDescribedFromTheCatalogAlike) {
  std::vector<test::TEvtRecordDraft> records(4);
  records[0].SourceName = "ClassicSrc";
  records[0].EventID = 100;
  records[0].Strings = {"alpha"};
  records[0].EventCategory = 3;
  records[1].SourceName = "ClassicSrc";
  records[1].EventID = 300; // "Param ref %%1920 here."
  records[2].SourceName = "ClassicSrc";
  records[2].EventID = 101; // found as 0xB0000065
  records[2].Strings = {"q"};
  records[3].SourceName = "Nowhere";
  records[3].EventID = 7;
  records[3].Strings = {"v"};
  for (uint32_t i = 0; i < records.size(); ++i) records[i].RecordNumber = i + 1;
  const fs::path evt = Dir / "app.evt";
  test::WriteFileBytes(evt, test::BuildEvtFile(records));

  auto read = [&](TImagedPC* AImaged, TEventMessageServer* ACatalogs) {
    TNTEventLog log;
    log.SetImagedDescrServer(AImaged);
    log.SetCatalogs(ACatalogs);
    log.SetBackupFileName(evt.string());
    log.SetActive(true);
    TDescribed events;
    while (TEventItemBase* item = log.EventNext())
      events.emplace_back(static_cast<uint64_t>(item->FRecordNumber), item->FEvtMessage, item->GetCategoryName());
    std::sort(events.begin(), events.end());
    return events;
  };
  TImagedPC computer;
  computer.SetMapping(Tree.WinDir.string());
  computer.SetActive(true);
  const TDescribed imaged = read(&computer, nullptr);
  Build(Tree.WinDir, Dir / "windows.qcat");
  TCatalogSet catalogs;
  catalogs.Add((Dir / "windows.qcat").string());
  const TDescribed fromCatalog = read(nullptr, &catalogs);
  EXPECT_EQ(fromCatalog, imaged);
  EXPECT_EQ(Message(fromCatalog, 1), "ClassicA says alpha.");
  EXPECT_EQ(std::get<2>(fromCatalog[0]), "Logon");
  EXPECT_EQ(Message(fromCatalog, 3), "Qualified 101: q");
}

// --- bad catalogs -------------------------------------------------------------------

std::string AddError(const fs::path& AFile) {
  TCatalogSet catalogs;
  try {
    catalogs.Add(AFile.string());
  } catch (const ECatalogError& e) {
    EXPECT_EQ(catalogs.Count(), 0u);
    return e.what();
  }
  return "(accepted)";
}

void Sql(const fs::path& AFile, const char* ASql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(AFile.string().c_str(), &db), SQLITE_OK);
  char* error = nullptr;
  const int rc = sqlite3_exec(db, ASql, nullptr, nullptr, &error);
  EXPECT_EQ(rc, SQLITE_OK) << (error ? error : "");
  sqlite3_free(error);
  sqlite3_close(db);
}

TEST_F(MessageCatalog, AnotherProgramsDatabaseIsRefusedInOneLine) {
  const fs::path foreign = Dir / "foreign.db";
  Sql(foreign, "CREATE TABLE message(id INTEGER, text TEXT); INSERT INTO message VALUES(1, 'x');");
  EXPECT_EQ(AddError(foreign), foreign.string() + ": not a Quorvex message catalog");

  const fs::path text = Dir / "notes.qcat";
  std::ofstream(text) << "not a database at all, just some text that is long enough to look like a header\n";
  EXPECT_EQ(AddError(text), text.string() + ": not a Quorvex message catalog (not an SQLite database)");
  EXPECT_EQ(AddError(Dir / "absent.qcat").find((Dir / "absent.qcat").string() + ": cannot be opened"), 0u);
  EXPECT_EQ(AddError(Dir), Dir.string() + ": is a folder, not a message catalog file");
}

TEST_F(MessageCatalog, UnknownSchemaVersionAndDamagedTablesAreRefused) {
  const fs::path good = Dir / "good.qcat";
  Build(Tree.WinDir, good);
  const fs::path newer = Dir / "newer-schema.qcat";
  fs::copy_file(good, newer);
  Sql(newer, "UPDATE catalog_info SET value = '99' WHERE key = 'schema_version'");
  EXPECT_EQ(AddError(newer), newer.string() + ": catalog schema version 99 is not supported (this program reads version 1)");

  const fs::path noTable = Dir / "no-table.qcat";
  fs::copy_file(good, noTable);
  Sql(noTable, "DROP TABLE event");
  EXPECT_EQ(AddError(noTable), noTable.string() + ": damaged: no table event");

  const fs::path view = Dir / "view.qcat";
  fs::copy_file(good, view);
  Sql(view, "DROP TABLE message; CREATE VIEW message AS SELECT 1 AS table_id, 1 AS id, 'x' AS text");
  EXPECT_EQ(AddError(view), view.string() + ": damaged: no table message");

  const fs::path column = Dir / "column.qcat";
  fs::copy_file(good, column);
  Sql(column, "ALTER TABLE provider DROP COLUMN log");
  EXPECT_EQ(AddError(column), column.string() + ": damaged: table provider has no column log");

  // The page type of the last pages overwritten: SQLite's check finds it before any use.
  const fs::path broken = Dir / "broken.qcat";
  fs::copy_file(good, broken);
  auto bytes = test::ReadFileBytes(broken);
  ASSERT_GT(bytes.size(), 4096u * 4);
  for (size_t page = bytes.size() / 4096 - 3; page < bytes.size() / 4096; ++page) bytes[page * 4096] = 0x07;
  test::WriteFileBytes(broken, bytes);
  EXPECT_EQ(AddError(broken).find(broken.string() + ": damaged"), 0u) << AddError(broken);
  EXPECT_EQ(AddError(broken).find('\n'), std::string::npos) << AddError(broken);

  // Two cells of a table's leaf page swapped: SQLite's check reports it under a heading
  // line; the error is the one line of the fault.
  const fs::path order = Dir / "order.qcat";
  fs::copy_file(good, order);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(order.string().c_str(), &db), SQLITE_OK);
  sqlite3_stmt* root = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT rootpage FROM sqlite_schema WHERE name = 'file'", -1, &root, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(root), SQLITE_ROW);
  const size_t page = static_cast<size_t>(sqlite3_column_int(root, 0));
  sqlite3_finalize(root);
  sqlite3_close(db);
  bytes = test::ReadFileBytes(order);
  const size_t leaf = (page - 1) * 4096;
  ASSERT_EQ(bytes[leaf], 0x0D); // a leaf of a table (the fixture's few files fit in one)
  ASSERT_GE(bytes[leaf + 3] << 8 | bytes[leaf + 4], 2);  // cells
  std::swap(bytes[leaf + 8], bytes[leaf + 10]);          // the first two cell pointers
  std::swap(bytes[leaf + 9], bytes[leaf + 11]);
  test::WriteFileBytes(order, bytes);
  EXPECT_EQ(AddError(order), order.string() + ": damaged (On tree page " + std::to_string(page) +
                                 " cell 0: Rowid 2 out of order)");

  // A set keeps its good catalogs when a bad one is refused.
  TCatalogSet catalogs;
  catalogs.Add(good.string());
  EXPECT_THROW(catalogs.Add(broken.string()), ECatalogError);
  EXPECT_EQ(catalogs.Count(), 1u);
  std::string message;
  EXPECT_TRUE(catalogs.GetEventMessage("ClassicSrc", 100, 0, message));
}

TEST_F(MessageCatalog, OversizedTextsAreRefusedNotRead) {
  const fs::path file = Dir / "huge.qcat";
  Build(Tree.WinDir, file);
  // A 2 MB message text: beyond the reader's bound for any single value.
  Sql(file, "UPDATE message SET text = printf('%.*c', 2000000, 'x') WHERE id = 100");
  EXPECT_EQ(AddError(file), file.string() + ": damaged: a value longer than 1048576 bytes in table message");
}

} // namespace
} // namespace qvx
