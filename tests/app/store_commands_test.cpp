// open + view over a log described from a catalog or an imaged computer: the opcode and
// keyword names, which the store has no column for, kept in the event's XML as Windows'
// RenderingInfo element and shown again by view.
#include "app/commands.h"

#include "catalog/catalog_builder.h"
#include "engine/evtx/evtx_writer.h"
#include "imaged/imaged_pc.h"
#include "support/imaged_fixture.h"
#include "support/hive_writer.h"
#include "support/pe_writer.h"
#include "support/test_paths.h"
#include "support/wevt_writer.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdio>
#include <filesystem>

namespace qvx {
namespace {

namespace fs = std::filesystem;
using app::RunOpen;
using app::RunView;
using app::TOutputFormat;
using app::TStoreOptions;
using app::TViewOptions;

void U32(std::vector<uint8_t>& AOut, uint32_t AValue) {
  for (int i = 0; i < 4; ++i) AOut.push_back(static_cast<uint8_t>(AValue >> (8 * i)));
}

// Test-Provider-A's module with a task, an opcode of that task and two keywords.
void WriteNamedProvider(const fs::path& APath) {
  test::TWevtProviderDraft provider;
  ParseProviderGuid(test::kGuidProviderA, provider.Guid);
  test::TWevtElementDraft events;
  events.Signature = "EVNT";
  events.Kind = 4;
  test::TWevtEventDraft event;
  event.Id = 1;
  event.MessageId = 0xB0000001;
  events.Events.push_back(event);
  test::TWevtElementDraft tasks;
  tasks.Signature = "TASK";
  tasks.Kind = 1;
  test::TWevtTaskDraft task;
  task.Value = 5;
  task.MessageId = 0x90000005;
  tasks.Tasks.push_back(task);
  test::TWevtElementDraft opcodes;
  opcodes.Signature = "OPCO";
  U32(opcodes.Body, 1);               // count
  U32(opcodes.Body, 5 | (10u << 16)); // task 5, opcode 10
  U32(opcodes.Body, 0x30000001);      // its message
  U32(opcodes.Body, 0);               // name offset
  test::TWevtElementDraft keywords;
  keywords.Signature = "KEYW";
  U32(keywords.Body, 2);
  for (const auto& [mask, message] : {std::pair<uint32_t, uint32_t>{0x1, 0x10000001}, {0x4, 0x10000003}}) {
    U32(keywords.Body, mask); // mask, low then high half
    U32(keywords.Body, 0);
    U32(keywords.Body, message);
    U32(keywords.Body, 0);
  }
  provider.Elements = {events, tasks, opcodes, keywords};
  test::TWevtResourceDraft draft;
  draft.Providers.push_back(provider);
  std::vector<test::TMessageBlockFixture> blocks = {
      {0x10000001, 0x10000001, {test::UnicodeEntry(u"Network\r\n")}, {}},
      {0x10000003, 0x10000003, {test::UnicodeEntry(u"Disk & more\r\n")}, {}},
      {0x30000001, 0x30000001, {test::UnicodeEntry(u"Connect\r\n")}, {}},
      {0x90000005, 0x90000005, {test::UnicodeEntry(u"Task Five\r\n")}, {}},
      {0xB0000001, 0xB0000001, {test::UnicodeEntry(u"A one %1\r\n")}, {}}};
  test::TPeWriter pe(true);
  pe.Add(TResourceId(static_cast<uint16_t>(rtMessageTable)), TResourceId(static_cast<uint16_t>(1)), kLangEnUs,
         test::BuildMessageTable(blocks));
  pe.Add(TResourceId("WEVT_TEMPLATE"), TResourceId(static_cast<uint16_t>(1)), kLangEnUs, test::BuildWevtResource(draft));
  test::WriteFileBytes(APath, pe.Build());
}

// A named event of Test-Provider-A, then a classic source's event (no names).
void WriteLog(const fs::path& APath) {
  TEvtxFileWriter writer;
  TEvtxEventDraft named;
  named.FProviderName = "Test-Provider-A";
  named.FProviderGuid = test::kGuidProviderA;
  named.FEventId = 1;
  named.FLevel = 4;
  named.FTask = 5;
  named.FOpcode = 10;
  named.FKeywords = 0x8000000000000005ull;
  named.FChannel = "Application";
  named.FComputer = "PC";
  named.FTimeCreated = EvtxFileTime(2024, 6, 3, 8, 15, 0);
  named.FData.push_back({"", TEvtxValue::String("x")});
  writer.AddEvent(named);
  TEvtxEventDraft classic = named;
  classic.FProviderName = "ClassicSrc";
  classic.FProviderGuid.clear();
  classic.FEventId = 100;
  classic.FTask = 0;
  classic.FOpcode = 0;
  classic.FKeywords = 0x80000000000000ull;
  classic.FTimeCreated += 10'000'000ull;
  writer.AddEvent(classic);
  writer.WriteFile(APath.string());
}

std::string ReadAll(std::FILE* AFile) {
  std::rewind(AFile);
  std::string text;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, AFile)) > 0;) text.append(buffer, n);
  return text;
}

// The store's EvtXML of the event of AEventId.
std::string StoredXml(const fs::path& AStore, int AEventId) {
  sqlite3* db = nullptr;
  std::string xml;
  if (sqlite3_open_v2(AStore.string().c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* query = nullptr;
    sqlite3_prepare_v2(db, "SELECT EvtXML FROM Events WHERE EventID = ?1", -1, &query, nullptr);
    sqlite3_bind_int(query, 1, AEventId);
    if (sqlite3_step(query) == SQLITE_ROW) xml = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
    sqlite3_finalize(query);
  }
  sqlite3_close(db);
  return xml;
}

class StoreNames : public ::testing::Test {
protected:
  void SetUp() override {
    Dir = test::ScratchDir();
    Tree = test::BuildImagedWindows(Dir / "image");
    WriteNamedProvider(Tree.WinDir / "System32" / "ProvA.dll");
    WriteLog(Dir / "named.evtx");
    TImagedPC computer;
    computer.SetMapping(Tree.WinDir.string());
    computer.SetActive(true);
    BuildCatalog(computer, (Dir / "w.qcat").string(), {});
  }

  // Opens the log into AStore with AOptions' description source; the status of open.
  int Open(TStoreOptions AOptions, const fs::path& AStore) {
    AOptions.Logs = {(Dir / "named.evtx").string()};
    AOptions.Store = AStore.string();
    AOptions.Quiet = true;
    AOptions.Progress = 0;
    AOptions.TimeZone = "UTC";
    std::FILE* err = std::tmpfile();
    const int status = RunOpen(AOptions, err);
    Errors = ReadAll(err);
    std::fclose(err);
    return status;
  }

  std::string View(const fs::path& AStore, TOutputFormat AFormat) {
    TViewOptions options;
    options.Store = AStore.string();
    options.Format = AFormat;
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    EXPECT_EQ(RunView(options, out, err), 0) << ReadAll(err);
    const std::string text = ReadAll(out);
    std::fclose(out);
    std::fclose(err);
    return text;
  }

  fs::path Dir;
  test::TImagedTree Tree;
  std::string Errors;
};

TEST_F(StoreNames, CatalogNamesAreKeptAsRenderingInfoAndViewShowsThem) {
  TStoreOptions options;
  options.Catalogs = {(Dir / "w.qcat").string()};
  ASSERT_EQ(Open(options, Dir / "catalog.db"), 0) << Errors;

  const std::string xml = StoredXml(Dir / "catalog.db", 1);
  const size_t info = xml.find("<RenderingInfo>");
  ASSERT_NE(info, std::string::npos) << xml;
  EXPECT_EQ(xml.find("<RenderingInfo", info + 1), std::string::npos);
  EXPECT_EQ(xml.substr(info), "<RenderingInfo><Level>Information</Level><Task>Task Five</Task><Opcode>Connect</Opcode>"
                              "<Channel>Application</Channel><Provider>Test-Provider-A</Provider><Keywords><Keyword>"
                              "Network</Keyword><Keyword>Disk &amp; more</Keyword></Keywords></RenderingInfo></Event>");
  EXPECT_EQ(StoredXml(Dir / "catalog.db", 100).find("RenderingInfo"), std::string::npos)
      << "no names known: the XML stays as read";

  const std::string jsonl = View(Dir / "catalog.db", TOutputFormat::ofJsonl);
  EXPECT_NE(jsonl.find("\"description\":\"A one x\",\"opcode_name\":\"Connect\",\"keyword_names\":\"Network, Disk & "
                       "more\"}\n"),
            std::string::npos)
      << jsonl;
  EXPECT_EQ(jsonl.find("opcode_name"), jsonl.rfind("opcode_name")) << "only the named event has names";

  const std::string csv = View(Dir / "catalog.db", TOutputFormat::ofCsv);
  EXPECT_EQ(csv.substr(0, csv.find("\r\n")),
            "Id,Time,Type,EventID,Source,Category,User,Computer,RecordNumber,Log,Bookmarked,Description,OpcodeName,"
            "KeywordNames");
  EXPECT_NE(csv.find(",A one x,Connect,\"Network, Disk & more\"\r\n"), std::string::npos) << csv;

  // The XML still reads as an event: its data and the names by path.
  const std::string xmlOut = View(Dir / "catalog.db", TOutputFormat::ofXml);
  EXPECT_NE(xmlOut.find("<RenderingInfo>"), std::string::npos);
}

TEST_F(StoreNames, ImagedComputerNamesAlikeAndNoneWithoutOfflineDescriptions) {
  TStoreOptions imaged;
  imaged.Imaged = Tree.WinDir.string();
  ASSERT_EQ(Open(imaged, Dir / "imaged.db"), 0) << Errors;
  TStoreOptions catalog;
  catalog.Catalogs = {(Dir / "w.qcat").string()};
  ASSERT_EQ(Open(catalog, Dir / "catalog.db"), 0) << Errors;
  const std::string xml = StoredXml(Dir / "imaged.db", 1);
  EXPECT_NE(xml.find("<Opcode>Connect</Opcode>"), std::string::npos) << xml;
  EXPECT_EQ(xml, StoredXml(Dir / "catalog.db", 1));

  ASSERT_EQ(Open(TStoreOptions(), Dir / "plain.db"), 0) << Errors;
  EXPECT_EQ(StoredXml(Dir / "plain.db", 1).find("RenderingInfo"), std::string::npos);
  const std::string jsonl = View(Dir / "plain.db", TOutputFormat::ofJsonl);
  EXPECT_EQ(jsonl.find("opcode_name"), std::string::npos);
  const std::string csv = View(Dir / "plain.db", TOutputFormat::ofCsv);
  EXPECT_NE(csv.find(",,\r\n"), std::string::npos) << "the name columns are there, empty";
}

} // namespace
} // namespace qvx
