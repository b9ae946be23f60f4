// Reading an event's fields out of its XML text under Sigma's Windows names.
#include "hunt/event_fields.h"

#include <gtest/gtest.h>

namespace qvx::hunt {
namespace {

std::vector<std::string> ValuesOf(const TEventFields& AFields, uint32_t AId) {
  std::vector<std::string> out;
  for (int v = AFields.First(AId); v != TEventFields::kNoValue; v = AFields.Value(v).Next)
    out.emplace_back(AFields.Value(v).Text);
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

} // namespace
} // namespace qvx::hunt
