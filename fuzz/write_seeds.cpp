// qvx_fuzz_seeds DIR: writes seed inputs for the fuzz targets whose inputs are not cut
// from .evtx files (those come from scripts/fuzz_seeds.py): PE images with message tables
// and a WEVT_TEMPLATE resource, registry hives, WEVT_TEMPLATE resources, message
// templates with their arguments, classic .evt logs (plain and wrapped) and Sigma rules. Each goes to DIR/<target>/. The fixture writers of the
// tests make them, so the seeds cover what the tests know of each format.
#include "catalog/catalog_schema.h"
#include "hunt/rule_cache.h"
#include "support/evt_writer.h"
#include "support/hive_writer.h"
#include "support/partition_writer.h"
#include "support/pe_writer.h"
#include "support/wevt_writer.h"

#include <sqlite3.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using namespace qvx;
using namespace qvx::test;
namespace fs = std::filesystem;

void Write(const fs::path& ADir, const std::string& AName, const std::vector<uint8_t>& ABytes) {
  fs::create_directories(ADir);
  std::ofstream out(ADir / AName, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(ABytes.data()), static_cast<std::streamsize>(ABytes.size()));
}

std::vector<uint8_t> Bytes(std::string_view AText) { return {AText.begin(), AText.end()}; }

// A literal with its embedded NULs.
template <size_t N>
std::string Lit(const char (&AText)[N]) {
  return std::string(AText, N - 1);
}

std::vector<uint8_t> SampleWevt() {
  TWevtResourceDraft draft;
  for (uint8_t p = 0; p < 2; ++p) {
    TWevtProviderDraft provider;
    provider.Guid = MakeTestGuid(static_cast<uint8_t>(1 + p * 16));
    TWevtElementDraft events;
    events.Signature = "EVNT";
    events.Kind = 4;
    for (uint16_t id = 1; id <= 4; ++id) {
      TWevtEventDraft e;
      e.Id = static_cast<uint16_t>(id * 100);
      e.Version = static_cast<uint8_t>(id % 2);
      e.Task = id;
      e.MessageId = 0xB0000000u + id;
      events.Events.push_back(e);
    }
    TWevtElementDraft tasks;
    tasks.Signature = "TASK";
    tasks.Kind = 1;
    for (uint32_t t = 1; t <= 3; ++t) {
      TWevtTaskDraft task;
      task.Value = t;
      task.MessageId = 0x70000000u + t;
      tasks.Tasks.push_back(task);
    }
    provider.Elements = {events, tasks};
    draft.Providers.push_back(provider);
  }
  return BuildWevtResource(draft);
}

std::vector<uint8_t> SampleMessageTable() {
  return BuildMessageTable({
      {1, 3, {AnsiEntry("First %1\r\n"), AnsiEntry("Second %1 %2\r\n"), UnicodeEntry(u"Third \u00e9%n")}, {}},
      {0xB0000064, 0xB0000065, {UnicodeEntry(u"Logged on %1!s!\r\n"), AnsiEntry("%%1920\r\n")}, {}},
  });
}

} // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: qvx_fuzz_seeds DIR\n");
    return 2;
  }
  const fs::path dir = argv[1];

  // Message templates: flags byte, template, then NUL-separated arguments.
  const fs::path fm = dir / "fuzz_format_message";
  const std::vector<std::string> templates = {
      Lit("\x00%1 logged on from %2\x00" "alice\x00" "10.0.0.1"),
      Lit("\x00%1!*.*s!|%4\x00" "5\x00" "2\x00" "abcd\x00" "next"),
      Lit("\x00%1!08X! %1!-5d! %1!I64u! %1!#o! %1!c!\x00" "255"),
      Lit("\x00" "100%% done%n%r%t%b%.%!% a%0b"),
      Lit("\x80%1 %1!s! %%%n\r\nx"),
      Lit("\x05" "aa bb cc\r\ndd\nee%nff"),
      Lit("\x7fone\r\ntwo%nthree"),
      Lit("\x00%1!3s!|%1!.1s!\x00\xf0\x9f\x98\x80"),
      Lit("\x00%1!s"),
  };
  for (size_t i = 0; i < templates.size(); ++i) {
    std::string name = std::to_string(i + 1);
    name.insert(name.begin(), 's');
    Write(fm, name, Bytes(templates[i]));
  }

  // WEVT_TEMPLATE resources.
  const std::vector<uint8_t> wevt = SampleWevt();
  Write(dir / "fuzz_wevt", "two-providers.wevt", wevt);

  // PE images: a message table (two languages) and a WEVT_TEMPLATE, as PE32 and PE32+.
  const std::vector<uint8_t> table = SampleMessageTable();
  for (bool plus : {false, true}) {
    TPeWriter pe(plus);
    pe.Add(rtMessageTable, 1, 0x409, table).Add(rtMessageTable, 1, 0x407, table).Add("WEVT_TEMPLATE", 1, 0, wevt);
    Write(dir / "fuzz_pe_resources", plus ? "messages-pe32plus.dll" : "messages-pe32.dll", pe.Build());
    Write(dir / "fuzz_pe_resources", plus ? "rdata-pe32plus.dll" : "rdata-pe32.dll", pe.DataInOwnSection().Build());
  }

  // Partition tables: an MBR disk and a GPT disk.
  Write(dir / "fuzz_partition_table", "mbr.bin", test::BuildMbrDisk(64, {{0x07, 2, 30}, {0x0C, 40, 20}}));
  Write(dir / "fuzz_partition_table", "gpt.bin",
        test::BuildGptDisk(64, {{"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 34, 50, "Data"}}));

  // Registry hives: an empty one and a small tree of every value type.
  Write(dir / "fuzz_hive", "empty.hiv", EmptyHiveImage());
  THiveKey root;
  THiveKey software{"Microsoft", {}, {}};
  THiveKey zone{"Pacific Standard Time",
                {THiveValue::Sz("Display", "(UTC-08:00) Pacific Time"), THiveValue::Sz("Std", "Pacific Standard Time"),
                 THiveValue::Binary("TZI", std::vector<uint8_t>(44, 1)), THiveValue::Dword("Index", 4),
                 THiveValue::ExpandSz("Path", "%SystemRoot%\\x.dll"), THiveValue::MultiSz("List", {"a", "b"}),
                 THiveValue::Sz("", "default")},
                {}};
  software.Keys.push_back(zone);
  root.Keys.push_back(software);
  const fs::path hive = dir / "fuzz_hive" / "tree.hiv";
  fs::create_directories(hive.parent_path());
  if (!WriteHive(hive, root)) {
    std::fprintf(stderr, "qvx_fuzz_seeds: could not write %s\n", hive.string().c_str());
    return 1;
  }
  // Classic logs: a plain one and one whose circular area wraps inside a record.
  std::vector<TEvtRecordDraft> records;
  for (uint32_t i = 0; i < 12; ++i) records.push_back(SampleEvtRecord(i));
  Write(dir / "fuzz_evt", "plain.evt", BuildEvtFile(records));
  TEvtFileOptions wrapped;
  wrapped.FileSize = 48 + 4000;
  wrapped.StartOffset = 48 + 3000;
  Write(dir / "fuzz_evt", "wrapped.evt", BuildEvtFile(records, wrapped));

  // Sigma rules: the modifiers, conditions and log sources the engine knows.
  const char* const kRules[][2] = {
      {"process.yml", "title: t\nid: 1\nauthor: a\nlevel: high\nlogsource:\n  category: process_creation\n"
                      "  product: windows\ndetection:\n  sel:\n    Image|endswith: '\\cmd.exe'\n"
                      "    CommandLine|contains|all: [whoami, echo]\n  filter_a:\n    ParentImage: null\n"
                      "  condition: sel and not 1 of filter_*\n"},
      {"modifiers.yml", "title: m\nlogsource: {product: windows, category: process_creation}\ndetection:\n"
                        "  a:\n    CommandLine|windash|contains: ' -c '\n    CommandLine|re|i: '^CMD'\n"
                        "  b:\n    CommandLine|base64offset|contains: whoami\n    DestinationIp|cidr: 10.0.0.0/8\n"
                        "  c:\n    CommandLine|wide|base64: x\n    Image|exists: true\n    Image|fieldref: ParentImage\n"
                        "  d:\n    ProcessId|gte: 4\n    Image: 'C:\\Win*\\?md.exe'\n"
                        "  condition: (a or b) and not (c and d) or all of them\n"},
      {"keywords.yml", "title: k\nlogsource: {product: windows, service: security}\ndetection:\n"
                       "  keywords: [whoami, 'a*b']\n  sel: {EventID: [4688, 4689]}\n  condition: sel and keywords\n"},
      {"two.yml", "title: one\nlogsource: {product: windows}\ndetection: {s: {B: v}, condition: s}\n---\n"
                  "title: two\ncorrelation: {type: event_count}\n"},
  };
  for (const auto& [name, rule] : kRules) Write(dir / "fuzz_sigma_rule", name, Bytes(rule));
  // The same rules as rule cache entries (parsed documents), and a file that is not YAML.
  for (const auto& [name, rule] : kRules) {
    qvx::hunt::TParsedRuleFile parsed;
    parsed.Documents = qvx::hunt::ParseYamlDocuments(rule, name);
    std::string entry;
    qvx::hunt::TRuleCache::Encode(parsed, entry);
    Write(dir / "fuzz_rule_cache", std::string(name) + ".bin", Bytes(entry));
  }
  {
    qvx::hunt::TParsedRuleFile failed;
    failed.Failed = true;
    failed.Error = "r.yml:2: YAML error: end of sequence flow not found";
    std::string entry;
    qvx::hunt::TRuleCache::Encode(failed, entry);
    Write(dir / "fuzz_rule_cache", "failed.bin", Bytes(entry));
  }

  // Message catalogs: one with a publisher, a classic source, their files and messages, and
  // the same cut short. Written through SQLite with the catalog's own schema.
  {
    const fs::path catalogs = dir / "fuzz_catalog";
    fs::create_directories(catalogs);
    const fs::path file = catalogs / "small.qcat";
    fs::remove(file);
    sqlite3* db = nullptr;
    if (sqlite3_open(file.string().c_str(), &db) == SQLITE_OK) {
      const std::string fill =
          std::string("PRAGMA page_size = 1024; PRAGMA application_id = ") + std::to_string(catalog::kApplicationId) +
          ";" + catalog::kCatalogSchema +
          "INSERT INTO catalog_info VALUES ('format', '" + catalog::kCatalogFormat + "'), ('schema_version', '" +
          std::to_string(catalog::kCatalogSchemaVersion) +
          "');"
          "INSERT INTO origin VALUES (1, 'seed', 'Windows', 22621, '2024-01-01', 'en-US,de-DE');"
          "INSERT INTO provider VALUES (1, 1, 0, 'Test-Provider-A', 'test-provider-a', "
          "'{11111111-2222-3333-4444-555555555555}', ''), (2, 1, 1, 'ClassicSrc', 'classicsrc', '', 'Application');"
          "INSERT INTO file VALUES (1, 1, 'windows\\system32\\a.dll', 'a.dll', '10.0.22621.1', 1),"
          " (2, 1, 'windows\\system32\\c.dll', 'c.dll', '', 1);"
          "INSERT INTO provider_file VALUES (1, 0, 0, 1), (2, 0, 0, 2), (2, 1, 0, 2), (2, 2, 0, 2);"
          "INSERT INTO message_table VALUES (1, 'd1', 3), (2, 'd2', 2);"
          "INSERT INTO file_table VALUES (1, 'en-US', 1), (2, 'en-US', 2), (2, 'de-DE', 2);"
          "INSERT INTO message VALUES (1, 1, 'Logon of %1 from %2.%n'), (1, 100, 'Task one'),"
          " (1, 2952790017, 'Started %1!s! (%%1000)'), (2, 1000, 'Parameter text'), (2, 1, 'Category one');"
          "INSERT INTO event VALUES (1, 1, 0, 16, 4, 0, 100, 0, 1), (1, 1, 1, 16, 4, 1, 100, 0, 2952790017);"
          "INSERT INTO task VALUES (1, 100, 100, 'TaskOne');"
          "INSERT INTO opcode VALUES (1, 0, 1, 100, 'Start');"
          "INSERT INTO keyword VALUES (1, 1, 100, 'Audit');"
          "INSERT INTO level VALUES (1, 4, 100, 'Information');"
          "INSERT INTO channel VALUES (1, 16, 100, 'Test/Operational');";
      sqlite3_exec(db, fill.c_str(), nullptr, nullptr, nullptr);
      sqlite3_close(db);
      std::ifstream in(file, std::ios::binary);
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      if (bytes.size() > 4096) Write(catalogs, "cut.qcat", std::vector<uint8_t>(bytes.begin(), bytes.begin() + 4096));
    }
  }

  // Filters as the browser sends them.
  const std::pair<const char*, const char*> kFilters[] = {
      {"empty.json", "{}"},
      {"ids.json", R"({"ids": "4624,4625-4630!4627", "idsExcept": false, "types": ["error", "audit-failure"]})"},
      {"lists.json", R"({"sources": {"values": ["Disk", "O'Brien"], "exclude": true}, "users": {"values": ["SYSTEM"]},
                        "computers": {"values": []}, "categories": {"values": ["Logon"], "exclude": false}})"},
      {"descr.json", R"({"descr": {"text": "logon type:\s+10", "regex": true, "exclude": false}, "caseSensitive": true})"},
      {"dates.json", R"({"from": "2024-03-01 00:00:00", "to": "2024-03-02", "dateExclude": true,
                        "last": {"days": 1, "hours": 6, "exclude": false}})"},
      {"conditions.json", R"({"params": [{"name": "TargetUserName", "op": "equals", "value": "bob"}],
                             "columns": [{"number": 2, "op": "greater", "value": "10"}]})"},
  };
  for (const auto& [name, filter] : kFilters) Write(dir / "fuzz_filter_json", name, Bytes(filter));

  std::printf("qvx_fuzz_seeds: seeds written under %s\n", dir.string().c_str());
  return 0;
}
