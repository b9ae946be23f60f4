#include "descriptions/provider_metadata.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>

#include "platform/byte_reader.h"
#include "support/test_paths.h"
#include "support/wevt_writer.h"

namespace qvx {
namespace {

using test::BuildWevtResource;
using test::MakeTestGuid;
using test::TWevtElementDraft;
using test::TWevtEventDraft;
using test::TWevtProviderDraft;
using test::TWevtResourceDraft;
using test::TWevtTaskDraft;

TWevtEventDraft Event(uint16_t AId, uint8_t AVersion, uint32_t AMessageId) {
  TWevtEventDraft ev;
  ev.Id = AId;
  ev.Version = AVersion;
  ev.MessageId = AMessageId;
  return ev;
}

TWevtTaskDraft Task(uint32_t AValue, uint32_t AMessageId) {
  TWevtTaskDraft t;
  t.Value = AValue;
  t.MessageId = AMessageId;
  return t;
}

TWevtElementDraft EventsElement(std::vector<TWevtEventDraft> AEvents) {
  TWevtElementDraft el;
  el.Signature = "EVNT";
  el.Kind = 4;
  el.Events = std::move(AEvents);
  return el;
}

TWevtElementDraft TasksElement(std::vector<TWevtTaskDraft> ATasks) {
  TWevtElementDraft el;
  el.Signature = "TASK";
  el.Kind = 1;
  el.Tasks = std::move(ATasks);
  return el;
}

TWevtElementDraft OtherElement(const char* ASignature, size_t ABodySize) {
  TWevtElementDraft el;
  el.Signature = ASignature;
  el.Kind = 5;
  // A body that would pass for an EVNT element if it were read as one.
  el.Body.assign(ABodySize, 0x11);
  return el;
}

// One provider (GUID seed 1) with the given elements.
TWevtResourceDraft OneProvider(std::vector<TWevtElementDraft> AElements) {
  TWevtResourceDraft draft;
  TWevtProviderDraft p;
  p.Guid = MakeTestGuid(1);
  p.Elements = std::move(AElements);
  draft.Providers.push_back(std::move(p));
  return draft;
}

TGuidProvider Processed(const std::vector<uint8_t>& ABytes, uint8_t AGuidSeed = 1, bool* AResult = nullptr) {
  TGuidProvider provider;
  provider.SetGuid(MakeTestGuid(AGuidSeed));
  bool ok = provider.Process(ABytes);
  if (AResult) *AResult = ok;
  return provider;
}

// ---- Parse of a built resource ---------------------------------------------------------

TEST(ProviderMetadataParse, ReadsItsOwnBlockPastOtherProvidersAndElements) {
  TWevtResourceDraft draft;
  TWevtProviderDraft other;
  other.Guid = MakeTestGuid(40);
  other.Elements = {EventsElement({Event(1, 0, 0x999)})};
  TWevtProviderDraft mine;
  mine.Guid = MakeTestGuid(1);
  TWevtEventDraft rich = Event(7036, 0, 0x40001B7C);
  rich.Level = 4;
  rich.Opcode = 0x0A;
  rich.Flags = 0xDEADBEEF;
  mine.Elements = {OtherElement("CHAN", 40), OtherElement("LEVL", 24),
                   EventsElement({Event(20, 1, 0x21), rich, Event(20, 0, 0x20), Event(3, 0, kNoMessageId)}),
                   TasksElement({Task(9, 0x90), Task(2, 0x20), Task(5, kNoMessageId)})};
  draft.Providers = {other, mine};
  auto bytes = BuildWevtResource(draft);

  bool ok = false;
  TGuidProvider p = Processed(bytes, 1, &ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(p.Issue(), "");
  ASSERT_EQ(p.EventCount(), 3u); // the no-message definition is left out
  // Sorted by identifier, then version.
  EXPECT_EQ(p.GetEvent(0).Id, 20);
  EXPECT_EQ(p.GetEvent(0).Version, 0);
  EXPECT_EQ(p.GetEvent(1).Id, 20);
  EXPECT_EQ(p.GetEvent(1).Version, 1);
  const TEventInfo& ev = p.GetEvent(2);
  EXPECT_EQ(ev.Id, 7036);
  EXPECT_EQ(ev.LevelOpcode, 0x0A04);
  EXPECT_EQ(ev.Opcode, 0x0A);
  EXPECT_EQ(ev.Trailing, 0xDEADBEEFu);
  EXPECT_EQ(ev.MessageId, 0x40001B7Cu);
  EXPECT_THROW(p.GetEvent(3), std::out_of_range);
  // Tasks stay in resource order.
  ASSERT_EQ(p.TaskCount(), 2u);
  EXPECT_EQ(p.GetTask(0).Value, 9u);
  EXPECT_EQ(p.GetTask(1).Value, 2u);
  EXPECT_EQ(p.BlockOffset(), LoadU32(bytes.data() + 16 + 20 + 16));
  EXPECT_EQ(p.BlockSize(), LoadU32(bytes.data() + p.BlockOffset() + 4));
}

TEST(ProviderMetadataParse, UnknownGuidOrEmptyResourceLeavesEmptyTables) {
  auto bytes = BuildWevtResource(OneProvider({EventsElement({Event(1, 0, 5)})}));
  bool ok = true;
  TGuidProvider p = Processed(bytes, 77, &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(p.EventCount(), 0u);
  EXPECT_EQ(p.GetFullEventID(1, 0), kNoMessageId);
  EXPECT_EQ(p.Issue(), "WEVT_TEMPLATE: no entry for the provider GUID at offset 0x10");

  TGuidProvider none;
  EXPECT_FALSE(none.Process({}));
  EXPECT_EQ(none.Issue(), "WEVT_TEMPLATE: resource shorter than 36 bytes at offset 0x0");
}

TEST(ProviderMetadataParse, SecondProcessClearsEventsButAppendsTasks) {
  auto bytes = BuildWevtResource(OneProvider({EventsElement({Event(1, 0, 5)}), TasksElement({Task(1, 7)})}));
  TGuidProvider p = Processed(bytes);
  ASSERT_TRUE(p.Process(bytes));
  EXPECT_EQ(p.EventCount(), 1u);
  EXPECT_EQ(p.TaskCount(), 2u);
}

// ---- GetFullEventID: version choice ----------------------------------------------------

TEST(ProviderMetadataEventId, ExactVersionElseLowestVersionWithAMessage) {
  // Versions written out of order: the fallback is the lowest version, not the first seen.
  auto bytes = BuildWevtResource(OneProvider({EventsElement(
      {Event(100, 2, 0x102), Event(100, 0, 0x100), Event(100, 1, 0x101), Event(7, 0, 0x70), Event(7, 1, kNoMessageId),
       Event(8, 3, kNoMessageId), Event(0xFFFF, 0, 0xA), Event(1, 0xFF, 0xB), Event(1, 0x7F, 0xC)})}));
  TGuidProvider p = Processed(bytes);
  // High identifiers and versions compare unsigned.
  EXPECT_EQ(p.GetEvent(0).Version, 0x7F);
  EXPECT_EQ(p.GetEvent(p.EventCount() - 1).Id, 0xFFFF);
  const struct {
    uint16_t Id;
    uint8_t Version;
    uint32_t Expected;
  } cases[] = {
      {100, 1, 0x101}, {100, 2, 0x102}, {100, 0, 0x100}, {100, 5, 0x100}, {101, 0, kNoMessageId},
      {99, 0, kNoMessageId},
      {7, 1, 0x70},         // version 1 has no message: version 0's
      {8, 3, kNoMessageId}, // only a no-message version exists
      {0xFFFF, 0, 0xA},     {1, 0xFF, 0xB}, {1, 0, 0xC},
  };
  for (const auto& c : cases)
    EXPECT_EQ(p.GetFullEventID(c.Id, c.Version), c.Expected) << c.Id << " v" << int(c.Version);
}

// ---- GetFullTaskID ---------------------------------------------------------------------

TEST(ProviderMetadataTaskId, FirstTaskWithTheValue) {
  auto bytes = BuildWevtResource(OneProvider(
      {TasksElement({Task(3, kNoMessageId), Task(0x80000000u, 0x8), Task(3, 0x31), Task(3, 0x32)})}));
  TGuidProvider p = Processed(bytes);
  EXPECT_EQ(p.GetFullTaskID(3), 0x31u); // the no-message one is not in the table
  EXPECT_EQ(p.GetFullTaskID(0x80000000u), 0x8u);
  EXPECT_EQ(p.GetFullTaskID(4), kNoMessageId);
}

// ---- Message texts through the source --------------------------------------------------

class TFakeMessages : public TProviderMessageSource {
public:
  std::map<uint32_t, std::string> Texts;
  bool FindMessage(uint32_t AMessageId, std::string& AText) const override {
    auto it = Texts.find(AMessageId);
    if (it == Texts.end()) return false;
    AText = it->second;
    return true;
  }
};

TEST(ProviderMetadataMessages, EventAndTaskTextsComeFromTheSource) {
  auto bytes = BuildWevtResource(
      OneProvider({EventsElement({Event(7045, 0, 0x40001B85)}), TasksElement({Task(1, 0x70000001)})}));
  TGuidProvider p = Processed(bytes);
  TFakeMessages source;
  source.Texts[0x40001B85] = "A service was installed in the system.";
  source.Texts[0x70000001] = "Service install";
  std::string text = "stale";
  EXPECT_TRUE(p.EventMessage(7045, 0, source, text));
  EXPECT_EQ(text, "A service was installed in the system.");
  EXPECT_TRUE(p.TaskMessage(1, source, text));
  EXPECT_EQ(text, "Service install");
  EXPECT_FALSE(p.EventMessage(7046, 0, source, text));
  EXPECT_EQ(text, "");
}

// ---- Provider list and GUIDs -----------------------------------------------------------

TEST(ProviderMetadataList, FindsFirstByNameIgnoringCaseAndByGuid) {
  TGuidProviders list;
  auto a = std::make_unique<TGuidProvider>();
  a->SetName("Service Control Manager");
  a->SetGuid(MakeTestGuid(1));
  auto b = std::make_unique<TGuidProvider>();
  b->SetName("SERVICE control MANAGER");
  b->SetGuid(MakeTestGuid(2));
  TGuidProvider* pa = &list.Add(std::move(a));
  TGuidProvider* pb = &list.Add(std::move(b));
  EXPECT_EQ(list.FindProvider("service control manager"), pa);
  EXPECT_EQ(list.FindProvider("Service Control"), nullptr);
  EXPECT_EQ(list.FindProvider(MakeTestGuid(2)), pb);
  // Equal low halves, different high halves.
  TProviderGuid g = MakeTestGuid(2);
  g.High ^= 1;
  EXPECT_EQ(list.FindProvider(g), nullptr);
}

TEST(ProviderMetadataGuid, TextParsesToTheBinaryLayout) {
  const uint8_t bytes[16] = {0xD1, 0x08, 0x59, 0x55, 0xD7, 0xA6, 0x95, 0x46,
                             0x8E, 0x1E, 0x26, 0x93, 0x1D, 0x20, 0x12, 0xF4};
  TProviderGuid g;
  ASSERT_TRUE(ParseProviderGuid("{555908d1-a6d7-4695-8E1E-26931D2012F4}", g));
  EXPECT_EQ(g, TProviderGuid::FromBytes(bytes));
  ASSERT_TRUE(ParseProviderGuid("555908d1-a6d7-4695-8e1e-26931d2012f4", g));
  EXPECT_EQ(g, TProviderGuid::FromBytes(bytes));
  EXPECT_FALSE(ParseProviderGuid("{555908d1-a6d7-4695-8e1e-26931d2012f4", g));
  EXPECT_FALSE(ParseProviderGuid("555908d1xa6d7-4695-8e1e-26931d2012f4", g));
  EXPECT_FALSE(ParseProviderGuid("555908g1-a6d7-4695-8e1e-26931d2012f4", g));
  EXPECT_EQ(g, TProviderGuid{});
}

// ---- Bounds ------------------------------------------------------------------------------

struct TBoundCase {
  const char* Name;
  void (*Damage)(TWevtResourceDraft&);
  const char* Issue;
};

TEST(ProviderMetadataBounds, HeaderAndBlockFaultsFindNoProvider) {
  const TBoundCase cases[] = {
      {"magic", [](TWevtResourceDraft& d) { d.Magic = "CRIX"; }, "no CRIM magic at offset 0x0"},
      {"provider count that hides the entry",
       [](TWevtResourceDraft& d) { d.ProviderCount = 1; },
       "no entry for the provider GUID at offset 0x10"},
      {"provider count that lies",
       [](TWevtResourceDraft& d) { d.ProviderCount = 0x0CCCCCCC; },
       "provider count beyond the total size at offset 0xC"},
      {"total size below the provider table",
       [](TWevtResourceDraft& d) { d.TotalSize = 16 + 20 * 2 - 1; },
       "provider count beyond the total size at offset 0xC"},
      {"block offset 0", [](TWevtResourceDraft& d) { d.Providers[1].BlockOffset = 0; },
       "provider block offset outside the resource at offset 0x34"},
      {"block offset past the total size",
       [](TWevtResourceDraft& d) { d.TotalSize = 0x1000; d.Providers[1].BlockOffset = 0x1001; },
       "provider block offset outside the resource at offset 0x34"},
      {"block offset past the bytes",
       [](TWevtResourceDraft& d) { d.TotalSize = 0x1000; d.Providers[1].BlockOffset = 0x1000; },
       "no WEVT magic at offset 0x1000"},
      {"block magic", [](TWevtResourceDraft& d) { d.Providers[1].Magic = "WEVX"; }, nullptr},
  };
  for (const TBoundCase& c : cases) {
    SCOPED_TRACE(c.Name);
    TWevtResourceDraft draft;
    TWevtProviderDraft first;
    first.Guid = MakeTestGuid(50);
    TWevtProviderDraft mine;
    mine.Guid = MakeTestGuid(1);
    mine.Elements = {EventsElement({Event(1, 0, 5)})};
    draft.Providers = {first, mine};
    EXPECT_EQ(Processed(BuildWevtResource(draft)).EventCount(), 1u); // the undamaged draft reads
    c.Damage(draft);
    auto bytes = BuildWevtResource(draft);
    bool ok = true;
    TGuidProvider p = Processed(bytes, 1, &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(p.EventCount(), 0u);
    EXPECT_EQ(p.GetFullEventID(1, 0), kNoMessageId);
    if (c.Issue)
      EXPECT_EQ(p.Issue(), std::string("WEVT_TEMPLATE: ") + c.Issue);
    else
      EXPECT_EQ(p.Issue().rfind("WEVT_TEMPLATE: no WEVT magic at offset 0x", 0), 0u) << p.Issue();
  }
}

TEST(ProviderMetadataBounds, EventCountBeyondElementSizeSkipsOnlyThatElement) {
  TWevtElementDraft events = EventsElement({Event(1, 0, 5), Event(2, 0, 6)});
  events.Size = 16 + 2 * 48 - 1;
  auto bytes = BuildWevtResource(OneProvider({events, TasksElement({Task(1, 9)})}));
  bool ok = false;
  TGuidProvider p = Processed(bytes, 1, &ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(p.EventCount(), 0u);
  EXPECT_EQ(p.GetFullTaskID(1), 9u);
  EXPECT_EQ(p.Issue().rfind("WEVT_TEMPLATE: EVNT count beyond the element size at offset 0x", 0), 0u);

  events.Size = 16 + 2 * 48; // exactly enough
  EXPECT_EQ(Processed(BuildWevtResource(OneProvider({events}))).EventCount(), 2u);
}

TEST(ProviderMetadataBounds, TaskBoundCountsEightBytesADefinition) {
  TWevtElementDraft tasks = TasksElement({Task(1, 0x10), Task(2, 0x20), Task(3, 0x30)});
  tasks.Size = 12 + 3 * 8; // far short of the 12 + 3 * 28 bytes the definitions take
  TGuidProvider p = Processed(BuildWevtResource(OneProvider({tasks})));
  ASSERT_EQ(p.TaskCount(), 3u);
  EXPECT_EQ(p.GetFullTaskID(3), 0x30u);

  tasks.Size = 12 + 3 * 8 - 1;
  TGuidProvider q = Processed(BuildWevtResource(OneProvider({tasks})));
  EXPECT_EQ(q.TaskCount(), 0u);
  EXPECT_EQ(q.Issue().rfind("WEVT_TEMPLATE: TASK count beyond the element size at offset 0x", 0), 0u);
}

TEST(ProviderMetadataBounds, DefinitionsPastTheEndStopAtTheEnd) {
  // A count and size that agree with each other but not with the bytes.
  TWevtElementDraft events = EventsElement({Event(1, 0, 5), Event(2, 0, 6)});
  events.Count = 1000000;
  events.Size = 0xFFFFFFFF;
  TWevtElementDraft tasks = TasksElement({Task(1, 9)});
  tasks.Count = 0x10000000;
  tasks.Size = 0xFFFFFFFF;
  auto bytes = BuildWevtResource(OneProvider({tasks, events}));
  TGuidProvider p = Processed(bytes);
  EXPECT_EQ(p.EventCount(), 2u);
  ASSERT_GE(p.TaskCount(), 1u); // the event element's bytes read as further tasks
  EXPECT_EQ(p.GetFullTaskID(1), 9u);
  EXPECT_NE(p.Issue(), "");
}

TEST(ProviderMetadataBounds, ElementOffsetsOutsideTheResourceAreIgnored) {
  TWevtElementDraft lost = EventsElement({Event(9, 0, 9)});
  lost.Offset = 0xFFFFFFF0;
  TWevtElementDraft edge = EventsElement({});
  edge.Offset = 0; // "CRIM" is no element signature
  auto bytes = BuildWevtResource(OneProvider({lost, edge, EventsElement({Event(1, 0, 5)})}));
  TGuidProvider p = Processed(bytes);
  ASSERT_EQ(p.EventCount(), 1u);
  EXPECT_EQ(p.GetFullEventID(9, 0), kNoMessageId);
}

TEST(ProviderMetadataBounds, ElementCountThatLiesStopsAtTheEnd) {
  TWevtResourceDraft draft = OneProvider({EventsElement({Event(1, 0, 5)})});
  draft.Providers[0].ElementCount = 0xFFFFFFFF;
  TGuidProvider p = Processed(BuildWevtResource(draft));
  EXPECT_EQ(p.GetFullEventID(1, 0), 5u);
  EXPECT_EQ(p.Issue(), "WEVT_TEMPLATE: element count beyond the resource at offset 0x30");
}

TEST(ProviderMetadataBounds, RepeatedElementsCannotMultiplyTheTable) {
  // 2000 more descriptors that all name the one EVNT element: it is read again each
  // time, but only up to as many definitions as the resource's size can hold.
  const uint32_t firstElement = 16 + 20 + 16 + 2001 * 8;
  std::vector<TWevtElementDraft> elements = {EventsElement({Event(1, 0, 5), Event(2, 0, 6)})};
  for (int i = 0; i < 2000; ++i) {
    TWevtElementDraft again = OtherElement("CHAN", 0);
    again.Offset = firstElement;
    elements.push_back(again);
  }
  auto bytes = BuildWevtResource(OneProvider(elements));
  ASSERT_EQ(LoadU32(bytes.data() + firstElement), wevt::kEvntSignature);
  TGuidProvider p = Processed(bytes);
  EXPECT_GT(p.EventCount(), 2u);
  EXPECT_LE(p.EventCount(), bytes.size() / 48);
  EXPECT_EQ(p.GetFullEventID(2, 0), 6u);
  EXPECT_EQ(p.Issue().rfind("WEVT_TEMPLATE: EVNT elements overlap", 0), 0u) << p.Issue();
}

// ---- Real resources ----------------------------------------------------------------------

std::vector<uint8_t> ReadAll(const std::filesystem::path& APath) {
  std::ifstream in(APath, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Every provider GUID the resource's header lists (as far as its bytes hold them).
std::vector<TProviderGuid> ListedGuids(const std::vector<uint8_t>& ABytes) {
  TByteReader r(ABytes);
  std::vector<TProviderGuid> guids;
  uint32_t count = r.ReadU32(12);
  for (uint64_t i = 0; i < count && r.Fits(16 + i * 20, 20); ++i)
    guids.push_back(TProviderGuid::FromBytes(r.ReadBytes(16 + i * 20, 16)));
  return guids;
}

TEST(WevtSamples, EverySampleResourceReadsEachListedProvider) {
  auto files = test::SampleFiles("", ".wevt");
  if (files.empty()) GTEST_SKIP() << "no .wevt samples";
  for (const auto& file : files) {
    SCOPED_TRACE(file.string());
    auto bytes = ReadAll(file);
    for (const TProviderGuid& guid : ListedGuids(bytes)) {
      TGuidProvider p;
      p.SetGuid(guid);
      p.Process(bytes);
      for (size_t i = 0; i + 1 < p.EventCount(); ++i)
        EXPECT_LT(TEventInfoComparer::Compare(p.GetEvent(i), p.GetEvent(i + 1)), 1);
      for (size_t i = 0; i < p.EventCount(); ++i) {
        const TEventInfo& ev = p.GetEvent(i);
        EXPECT_NE(ev.MessageId, kNoMessageId);
        EXPECT_NE(p.GetFullEventID(ev.Id, ev.Version), kNoMessageId);
      }
    }
  }
}

TEST(WevtSamples, ServicesResourceHoldsServiceControlManagerEvents) {
  auto path = test::SamplesDir() / "pe" / "dissect-eventlog" / "services.wevt";
  if (test::SamplesDir().empty() || !std::filesystem::exists(path)) GTEST_SKIP() << "sample absent";
  auto bytes = ReadAll(path);
  ASSERT_EQ(ListedGuids(bytes).size(), 3u);

  TGuidProvider scm; // Service Control Manager
  TProviderGuid guid;
  ASSERT_TRUE(ParseProviderGuid("{555908d1-a6d7-4695-8e1e-26931d2012f4}", guid));
  scm.SetGuid(guid);
  ASSERT_TRUE(scm.Process(bytes));
  EXPECT_EQ(scm.Issue(), "");
  EXPECT_EQ(scm.BlockOffset(), 0x20A0u);
  EXPECT_EQ(scm.EventCount(), 43u);
  EXPECT_EQ(scm.TaskCount(), 0u); // its TASK element is empty (size 0)
  EXPECT_EQ(scm.GetFullEventID(7000, 0), 0xC0001B58u);
  EXPECT_EQ(scm.GetFullEventID(7036, 0), 0x40001B7Cu);
  EXPECT_EQ(scm.GetFullEventID(7045, 3), 0x40001B85u);
  EXPECT_EQ(scm.GetFullEventID(7004, 0), kNoMessageId);

  // The first provider defines 15 events and 8 tasks, none with a message.
  TGuidProvider first;
  ASSERT_TRUE(ParseProviderGuid("0063715b-eeda-4007-9429-ad526f62696e", guid));
  first.SetGuid(guid);
  ASSERT_TRUE(first.Process(bytes));
  EXPECT_EQ(first.Issue(), "");
  EXPECT_EQ(first.EventCount(), 0u);
  EXPECT_EQ(first.TaskCount(), 0u);
}

TEST(WevtSamples, ResourceInsideTestDllReadsItsOneEvent) {
  // The DLL's WEVT_TEMPLATE resource data lies at file offset 7496 (found by its "CRIM"
  // magic; the PE resource reader is not needed for this check).
  auto path = test::SamplesDir() / "pe" / "plaso" / "wrc-test-wevt_template.dll";
  if (test::SamplesDir().empty() || !std::filesystem::exists(path)) GTEST_SKIP() << "sample absent";
  auto file = ReadAll(path);
  ASSERT_GE(file.size(), 7496u + 536u);
  std::span<const uint8_t> resource(file.data() + 7496, 536);
  ASSERT_EQ(LoadU32(resource.data()), wevt::kCrimMagic);
  TGuidProvider p;
  TProviderGuid guid;
  ASSERT_TRUE(ParseProviderGuid("{67883bbc-d592-4d02-8e29-66907fcb07d6}", guid));
  p.SetGuid(guid);
  ASSERT_TRUE(p.Process(resource));
  ASSERT_EQ(p.EventCount(), 1u);
  EXPECT_EQ(p.GetFullEventID(1, 1), 0xB0010001u);
  EXPECT_EQ(p.GetFullEventID(1, 0), 0xB0010001u);
}

// OPCO and KEYW definitions: read with their bounds; a count the element cannot hold is
// a defect of that element alone.
TEST(ProviderMetadataNames, OpcodesAndKeywordsReadWithTheirBounds) {
  auto u32 = [](std::vector<uint8_t>& AOut, uint32_t AValue) {
    for (int i = 0; i < 4; ++i) AOut.push_back(static_cast<uint8_t>(AValue >> (8 * i)));
  };
  test::TWevtElementDraft opcodes;
  opcodes.Signature = "OPCO";
  u32(opcodes.Body, 1);           // count
  u32(opcodes.Body, 3 | (12u << 16)); // task 3, opcode 12
  u32(opcodes.Body, 0x30000007);
  u32(opcodes.Body, 0);
  test::TWevtElementDraft keywords;
  keywords.Signature = "KEYW";
  u32(keywords.Body, 1);
  u32(keywords.Body, 0x20); // mask, low then high
  u32(keywords.Body, 0x1);
  u32(keywords.Body, 0x10000002);
  u32(keywords.Body, 0);
  bool ok = false;
  TGuidProvider p = Processed(BuildWevtResource(OneProvider({opcodes, keywords})), 1, &ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(p.Issue(), "");
  ASSERT_EQ(p.OpcodeCount(), 1u);
  EXPECT_EQ(p.GetOpcode(0).Task, 3);
  EXPECT_EQ(p.GetOpcode(0).Value, 12);
  EXPECT_EQ(p.GetOpcode(0).MessageId, 0x30000007u);
  ASSERT_EQ(p.KeywordCount(), 1u);
  EXPECT_EQ(p.GetKeyword(0).Mask, 0x100000020ull);
  EXPECT_EQ(FindOpcodeMessage(p.Opcodes(), 3, 12), 0x30000007u);
  EXPECT_EQ(FindOpcodeMessage(p.Opcodes(), 4, 12), kNoMessageId);

  opcodes.Body[0] = 9; // nine definitions claimed, one there
  p = Processed(BuildWevtResource(OneProvider({opcodes, keywords})), 1, &ok);
  EXPECT_TRUE(ok);
  EXPECT_NE(p.Issue().find("WEVT_TEMPLATE: OPCO count beyond the element size at offset 0x"), std::string::npos)
      << p.Issue();
  EXPECT_EQ(p.OpcodeCount(), 0u);
  EXPECT_EQ(p.KeywordCount(), 1u);
}

} // namespace
} // namespace qvx
