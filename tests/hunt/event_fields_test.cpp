// Reading an event's fields out of its XML text under Sigma's Windows names.
#include "hunt/event_fields.h"

#include "engine/event_log_binxml.h"
#include "support/evtx_fixtures.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace qvx::hunt {
namespace {

std::vector<std::string> ValuesOf(const TEventFields& AFields, uint32_t AId) {
  std::vector<std::string> out;
  for (int v = AFields.First(AId); v != TEventFields::kNoValue; v = AFields.Value(v).Next)
    out.emplace_back(AFields.Text(v));
  return out;
}

TEST(HuntEventFields, SystemEventDataAndUserDataNames) {
  TFieldNames names;
  const uint32_t provider = names.Intern("Provider_Name"), id = names.Intern("EventID"),
                 qualifiers = names.Intern("EventID_Qualifiers"), image = names.Intern("image"),
                 data = names.Intern("Data"), user = names.Intern("Security_UserID"), policy = names.Intern("PolicyName"),
                 attr = names.Intern("Kind"), binary = names.Intern("Binary");
  TEventFields fields(names);
  fields.Load("<Event xmlns=\"x\"><System><Provider Name=\"Sysmon\" Guid=\"{1}\" /><EventID Qualifiers=\"16384\">1"
              "</EventID><Security UserID=\"S-1-5-18\" /></System><EventData><Data Name=\"Image\">C:\\a&amp;b.exe</Data>"
              "<Data>one</Data><Data>two</Data><Binary>0A0B</Binary></EventData><UserData><Rule xmlns=\"y\" "
              "Kind=\"deny\"><PolicyName>P1</PolicyName></Rule></UserData><RenderingInfo><Message>m</Message>"
              "</RenderingInfo></Event>");
  EXPECT_EQ(ValuesOf(fields, provider), std::vector<std::string>{"Sysmon"});
  EXPECT_EQ(ValuesOf(fields, id), std::vector<std::string>{"1"});
  EXPECT_EQ(ValuesOf(fields, qualifiers), std::vector<std::string>{"16384"});
  EXPECT_EQ(ValuesOf(fields, image), std::vector<std::string>{"C:\\a&b.exe"}); // names without case, entities decoded
  EXPECT_EQ(ValuesOf(fields, data), (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(ValuesOf(fields, user), std::vector<std::string>{"S-1-5-18"});
  EXPECT_EQ(ValuesOf(fields, policy), std::vector<std::string>{"P1"});
  EXPECT_EQ(ValuesOf(fields, attr), std::vector<std::string>{"deny"});
  EXPECT_EQ(ValuesOf(fields, binary), std::vector<std::string>{"0A0B"});
  EXPECT_EQ(fields.Lower(fields.First(image)), "c:\\a&b.exe");
  // A second event forgets the first.
  fields.Load("<Event><System><EventID>2</EventID></System></Event>");
  EXPECT_EQ(ValuesOf(fields, id), std::vector<std::string>{"2"});
  EXPECT_TRUE(ValuesOf(fields, image).empty());
}

// Pairs whose values lie outside their text (the System fields a chunk holds): every
// lower-case form made stays where it was made, the fold buffer having room for them all.
TEST(HuntEventFields, ViewedPairsLowerInPlace) {
  TFieldNames names;
  const uint32_t computer = names.Intern("Computer"), image = names.Intern("Image");
  TEventFields fields(names);
  const std::string big(4000, 'A'), other(3000, 'B');
  TNamedValues values;
  values.AddView(nfText, "Computer", "", TNamedValues::kNoNameId, big);
  values.Begin(nfText, "Image", "");
  values.Text().append("C:\\X.EXE");
  values.End();
  values.AddView(nfText, "Computer", "", TNamedValues::kNoNameId, other);
  fields.Load(values);
  ASSERT_EQ(ValuesOf(fields, computer), (std::vector<std::string>{big, other}));
  EXPECT_EQ(ValuesOf(fields, image), std::vector<std::string>{"C:\\X.EXE"});
  // The short copied value first, then the long viewed ones after it.
  const int first = fields.First(computer);
  const std::string_view lowerImage = fields.Lower(fields.First(image));
  const void* const imageAt = lowerImage.data();
  EXPECT_EQ(fields.Lower(first), std::string(4000, 'a'));
  EXPECT_EQ(fields.Lower(fields.Value(first).Next), std::string(3000, 'b'));
  ASSERT_EQ(fields.Lower(fields.First(image)).data(), imageAt); // not moved by the later ones
  EXPECT_EQ(lowerImage, "c:\\x.exe");
}

// Pairs of many shapes, mixed: each load reads its own values, fields, chains and lower-case
// forms, whether its shape's layout was kept, evicted or made again for added names.
TEST(HuntEventFields, ShapesMixedLoadTheirOwnFields) {
  TFieldNames names;
  const uint32_t a = names.Intern("A"), b = names.Intern("B");
  TEventFields fields(names);
  const uint32_t idA = InternNamedField(nfText, "A", ""), idB = InternNamedField(nfText, "B", ""),
                 idC = InternNamedField(nfText, "C", "");
  TNamedValues values;
  std::vector<std::string> texts; // (room kept: views point into it)
  texts.reserve(8);
  auto load = [&](uint64_t AForm, uint64_t AVariant, int AKind, int AEvent) {
    values.Clear();
    texts.clear();
    // Kind K: K+1 values of A, then one of B, then C unless the variant leaves it out.
    for (int i = 0; i <= AKind % 3; ++i)
      values.AddView(nfText, "", "", idA, texts.emplace_back("A" + std::to_string(AKind) + "." + std::to_string(AEvent)));
    values.AddView(nfText, "", "", idB, texts.emplace_back("B" + std::to_string(AEvent)));
    if (AVariant == 0) values.AddView(nfText, "", "", idC, texts.emplace_back("C"));
    values.SetShape({AForm, AVariant});
    fields.Load(values);
    std::vector<std::string> wantA(static_cast<size_t>(AKind % 3 + 1),
                                   "A" + std::to_string(AKind) + "." + std::to_string(AEvent));
    EXPECT_EQ(ValuesOf(fields, a), wantA) << "kind " << AKind << " event " << AEvent;
    ASSERT_EQ(ValuesOf(fields, b), std::vector<std::string>{"B" + std::to_string(AEvent)});
    EXPECT_EQ(fields.Lower(fields.First(b)), "b" + std::to_string(AEvent)); // made for this event
    EXPECT_EQ(fields.ValueCount(), AKind % 3 + 2 + (AVariant == 0 ? 1 : 0));
  };
  for (int event = 0; event < 120; ++event) {
    // Four kinds most of the time, and now and then one of 20 others: more shapes than
    // are kept, so that layouts are found again, evicted and made again.
    const int kind = event % 4 != 3 ? event % 4 : 4 + event * 7 % 20;
    load(static_cast<uint64_t>(kind) + 1, 0, kind, event);
    if (event % 5 == 0) load(static_cast<uint64_t>(kind) + 1, 1, kind, event); // C left out
    if (event == 60) names.Intern("C"); // names added: every layout made again
    if (HasFatalFailure()) return;
  }
  // C counts as a field once named, also in a shape met before.
  load(1, 0, 0, 0);
  EXPECT_EQ(ValuesOf(fields, names.Find("C")), std::vector<std::string>{"C"});
  // XML between them starts afresh, and the shape after it is found again.
  fields.Load("<Event><EventData><Data Name=\"B\">x</Data></EventData></Event>");
  EXPECT_EQ(ValuesOf(fields, b), std::vector<std::string>{"x"});
  EXPECT_TRUE(ValuesOf(fields, a).empty());
  load(1, 0, 0, 1);
}

TEST(HuntEventFields, MalformedTextNeverRaises) {
  TFieldNames names;
  names.Intern("A");
  TEventFields fields(names);
  for (const char* xml : {"", "<", "<Event><EventData><Data Name=\"A", "<Event><EventData><Data Name='A'>x",
                          "</></><<>>", "<Event><System><X a=></System></Event>"})
    EXPECT_NO_THROW(fields.Load(xml)) << xml;
  std::string deep = "<Event><UserData>";
  for (int i = 0; i < 1000; ++i) deep += "<A>";
  fields.Load(deep);
  SUCCEED();
}

// Every event of APath as the hunter's fields see it: loaded from its XML (ANamed false),
// or from the (name, value) pairs read straight from its binary XML where the reader can.
std::vector<std::string> HuntFieldsOf(const std::string& APath, bool ANamed, size_t& AWithXml) {
  TFieldNames names;
  for (const char* name : {"EventID", "Channel", "Computer", "Provider_Name", "Security_UserID", "Image", "CommandLine",
                           "ParentImage", "TargetObject", "Details", "Data", "Binary", "param1", "SubjectUserName",
                           "TargetUserName", "ServiceName", "ImagePath", "ScriptBlockText", "TimeCreated_SystemTime"})
    names.Intern(name);
  TEventFields fields(names);
  TEventLogBinXML log;
  log.SetSystemFieldsOnly(true);
  log.SetNamedValues(ANamed);
  log.SetBackupFileName(APath);
  log.SetActive(true);
  std::vector<std::string> events;
  if (!log.Active()) return events;
  while (TEventItemBase* item = log.EventNext()) {
    if (item == TEventLogX::UndeliverableMarker()) continue;
    auto& x = static_cast<TEventItemX&>(*item);
    if (const TNamedValues* named = log.NamedValues()) {
      fields.Load(*named);
    } else {
      fields.Load(x.FEvtXML);
      ++AWithXml;
    }
    std::string s = x.FChannel + "/" + std::to_string(x.FEventID) + "/" + std::to_string(x.FEventRecordID) + ":";
    for (int v = 0; v < fields.ValueCount(); ++v) {
      const TEventFields::TValue& value = fields.Value(v);
      s.append(value.Name).append("#").append(std::to_string(value.FieldId)).append("=").append(value.Text);
      s.append("|");
    }
    for (uint32_t id = 0; id < names.Count(); ++id)
      for (int v = fields.First(id); v != TEventFields::kNoValue; v = fields.Value(v).Next)
        s.append(std::to_string(id)).append(">").append(std::to_string(v)).append(",");
    events.push_back(std::move(s));
  }
  return events;
}

void ExpectSameFieldsBothWays(const std::string& APath, size_t& AEvents, size_t& AWithXml) {
  size_t unused = 0;
  const std::vector<std::string> xml = HuntFieldsOf(APath, false, unused);
  const std::vector<std::string> direct = HuntFieldsOf(APath, true, AWithXml);
  ASSERT_EQ(direct.size(), xml.size()) << APath;
  for (size_t i = 0; i < xml.size(); ++i)
    ASSERT_EQ(direct[i], xml[i]) << APath << ": event " << i;
  AEvents += xml.size();
}

TEST(HuntEventFields, BinaryXmlPairsLoadAsTheXml) {
  const std::string path = qvx::test::WriteTempFile("hunt-fields.evtx", qvx::test::MakeEvtxFile(3, 20));
  size_t events = 0, withXml = 0;
  ExpectSameFieldsBothWays(path, events, withXml);
  EXPECT_EQ(events, 60u);
  EXPECT_EQ(withXml, 0u);
}

// Every sample log: the hunter's fields are the same whether its events come as XML or
// as pairs read from the binary XML.
TEST(HuntEventFields, SamplesLoadTheSameFromBinaryXml) {
  const std::vector<std::filesystem::path> files = qvx::test::SampleFiles("", ".evtx");
  if (files.empty()) GTEST_SKIP() << "no samples";
  size_t events = 0, withXml = 0;
  for (const auto& file : files) {
    ExpectSameFieldsBothWays(file.string(), events, withXml);
    if (HasFatalFailure()) return;
  }
  std::printf("samples: %zu events, %zu loaded from their XML\n", events, withXml);
  EXPECT_LT(withXml * 100, events * 2 + 100);
}

} // namespace
} // namespace qvx::hunt
