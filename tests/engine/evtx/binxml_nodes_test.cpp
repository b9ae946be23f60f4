#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/binxml_nodes.h"
#include "engine/evtx/chunk_reader.h"
#include "engine/evtx/evtx_chunk.h"
#include "engine/evtx/evtx_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace qvx {
namespace {

// Builds a chunk in memory and gives access to its records' XML and errors.
class TChunkUnderTest {
public:
  explicit TChunkUnderTest(const TEvtxChunkWriter& AWriter) : FBytes(AWriter.Finish()), FChunk(FBytes) {}

  std::string Xml(int AIndex) { return FChunk.GetEvent(AIndex)->asXML(); }

  // The exception text (with its detail in parentheses) of rendering record AIndex.
  std::string Error(int AIndex) {
    try {
      FChunk.GetEvent(AIndex)->asXML();
    } catch (const EBinXMLLogReadingException& e) {
      return e.Detail().empty() ? std::string(e.what()) : std::string(e.what()) + " (" + e.Detail() + ")";
    }
    return "no error";
  }

  TEvtxChunk& Chunk() { return FChunk; }

private:
  std::vector<uint8_t> FBytes;
  TEvtxChunk FChunk;
};

const uint64_t kTime = 133545888000000000ULL; // 2024-03-11T00:00:00Z

// <Root Attr="%0"><Item>%1</Item><Opt>%2?</Opt></Root> with optional substitutions where named.
TEvtxTemplate SmallTemplate(uint8_t AType1 = EvtxType::UInt32) {
  return TEvtxTemplate("small", [AType1](TBinXmlWriter& w) {
    w.OpenElement("Root");
    w.Attribute("Attr");
    w.Substitution(0, EvtxType::String, true);
    w.CloseStartElement();
    w.SubstitutionElement("Item", 1, AType1);
    w.SubstitutionElement("Opt", 2, EvtxType::String, true);
    w.EndElement();
  });
}

TEST(BinXmlTemplates, InlineThenReferencedTemplatesRenderEachRecordsOwnValuesInAnyOrder) {
  TEvtxChunkWriter w;
  auto t = SmallTemplate();
  ASSERT_TRUE(w.AddRecord(1, kTime, t, std::vector<TEvtxValue>{TEvtxValue::String("a"), TEvtxValue::UInt32(7), TEvtxValue::String("x")}));
  ASSERT_TRUE(w.AddRecord(2, kTime, t, std::vector<TEvtxValue>{TEvtxValue::String("b<"), TEvtxValue::UInt32(8), TEvtxValue::String("y")}));
  ASSERT_TRUE(w.AddRecord(3, kTime, t, std::vector<TEvtxValue>{TEvtxValue::String("r"), TEvtxValue::UInt32(2), TEvtxValue::Null()}));
  TChunkUnderTest c(w);
  ASSERT_EQ(c.Chunk().Count(), 3);
  EXPECT_EQ(c.Xml(0), "\r\n<Root Attr=\"a\">\r\n<Item>7</Item>\r\n<Opt>x</Opt></Root>");
  EXPECT_EQ(c.Xml(2), "\r\n<Root Attr=\"r\">\r\n<Item>2</Item>\r\n<Opt></Opt></Root>");
  EXPECT_EQ(c.Xml(1), "\r\n<Root Attr=\"b&lt;\">\r\n<Item>8</Item>\r\n<Opt>y</Opt></Root>");
  // Later records refer to the first one's definition instead of carrying their own.
  EXPECT_LT(c.Chunk().GetEvent(1)->Length(), c.Chunk().GetEvent(0)->Length());
}

// A record whose template instance refers back to the definition at ADefinition with AId.
TBinXmlBody ReferenceBody(uint32_t AId, uint32_t ADefinition, std::vector<TEvtxValue> AValues) {
  return [=](TBinXmlWriter& w) {
    w.FragmentHeader();
    w.RawU8(0x0C);
    w.RawU8(0x01);
    w.RawU32(AId);
    w.RawU32(ADefinition);
    w.SubstitutionArray(AValues);
  };
}

TEST(BinXmlTemplates, ReferenceToAnotherIdOrAnUnknownOffsetRaises) {
  TEvtxChunkWriter w;
  auto t = SmallTemplate();
  std::vector<TEvtxValue> v = {TEvtxValue::String("a"), TEvtxValue::UInt32(7), TEvtxValue::String("x")};
  ASSERT_TRUE(w.AddRecord(1, kTime, t, v));
  uint32_t definition = w.Tables().FindTemplate(t.Guid());
  ASSERT_NE(definition, 0u);
  ASSERT_TRUE(w.AddRecord(2, kTime, ReferenceBody(t.Id() ^ 1, definition, v)));
  ASSERT_TRUE(w.AddRecord(3, kTime, ReferenceBody(t.Id(), definition, v)));
  ASSERT_TRUE(w.AddRecord(4, kTime, ReferenceBody(0x1234, 100, {TEvtxValue::UInt32(1)})));
  TChunkUnderTest c(w);
  c.Xml(0);
  EXPECT_EQ(c.Error(1), "NodeC: wrong template");
  EXPECT_EQ(c.Error(2), "no error");
  EXPECT_EQ(c.Error(3), "NodeC: no template");
}

TEST(BinXmlTemplates, PlaceholdersStandInForValuesWhenNoneAreAvailable) {
  TEvtxChunkWriter w;
  auto t = TEvtxTemplate("placeholders", [](TBinXmlWriter& w2) {
    w2.OpenElement("E");
    w2.Attribute("A");
    w2.Substitution(2, 0x06);
    w2.CloseStartElement();
    w2.Substitution(3, 0x08);
    w2.Substitution(4, 0x01, true);
    w2.EndElement();
  });
  std::vector<TEvtxValue> v(5, TEvtxValue::UInt16(1));
  ASSERT_TRUE(w.AddRecord(1, kTime, t, v));
  TChunkUnderTest c(w);
  uint32_t definition = w.Tables().FindTemplate(t.Guid());
  TBXmlTemplateNode* tn = PrepareTemplateAt(c.Chunk(), definition);
  EXPECT_EQ(RenderTemplate(c.Chunk(), tn),
            "\r\n<E A=\"#2 (type 0x06)#\">#3 (type 0x08)##4 (type 0x01, optional)#</E>");
}

// Record 0's XML of a chunk holding one record of ATemplate with AValues, or "!" and its error.
std::string RenderOne(const TEvtxTemplate& ATemplate, const std::vector<TEvtxValue>& AValues = {}) {
  TEvtxChunkWriter w;
  EXPECT_TRUE(w.AddRecord(1, kTime, ATemplate, AValues));
  TChunkUnderTest c(w);
  const std::string error = c.Error(0);
  return error == "no error" ? c.Xml(0) : "!" + error;
}

TEST(BinXmlSubstitutions, ValuesOfSmallTemplateRenderOrRaise) {
  const struct {
    const char* What;
    std::vector<TEvtxValue> Values;
    std::string Expected;
  } cases[] = {
      {"empty optional value writes nothing, not even its attribute name",
       {TEvtxValue::Null(), TEvtxValue::UInt32(5), TEvtxValue::String("")},
       "\r\n<Root>\r\n<Item>5</Item>\r\n<Opt></Opt></Root>"},
      {"null substitutions may declare a size",
       {TEvtxValue(EvtxType::Null, {0, 0}), TEvtxValue::UInt32(5), TEvtxValue(EvtxType::Null, {0, 0})},
       "\r\n<Root>\r\n<Item>5</Item>\r\n<Opt></Opt></Root>"},
      {"index beyond the array", {TEvtxValue::String("a"), TEvtxValue::UInt32(5)},
       "!Root exception (SubArray: index out of bounds)"},
      {"value larger than its type",
       {TEvtxValue::String("a"), TEvtxValue(EvtxType::UInt32, {1, 0, 0, 0, 0, 0, 0, 0}), TEvtxValue::String("x")},
       "!SubArray: bad size for a child"},
      {"value smaller than its type is measured",
       {TEvtxValue::String("a"), TEvtxValue(EvtxType::UInt32, {1, 0}), TEvtxValue::String("x")}, "!Var08: bad size"},
      {"value type without a class", {TEvtxValue::String("a"), TEvtxValue(0x93, {1, 2, 3, 4}), TEvtxValue::String("x")},
       "!BinXML read error"},
      // No size is known for the type: an empty value must not pass for one of its size.
      {"empty value of a type without a class", {TEvtxValue::String("a"), TEvtxValue(0x93, {}), TEvtxValue::String("x")},
       "!BinXML read error"},
  };
  for (const auto& c : cases) EXPECT_EQ(RenderOne(SmallTemplate(), c.Values), c.Expected) << c.What;
}

TEST(BinXmlSubstitutions, DeclaredSizePastTheRecordRaisesTooShort) {
  // The string's descriptor claims more bytes than the record holds.
  TEvtxChunkWriter w;
  auto t = SmallTemplate();
  std::vector<TEvtxValue> v = {TEvtxValue::String("a"), TEvtxValue::UInt32(5), TEvtxValue::String("x")};
  ASSERT_TRUE(w.AddRecord(1, kTime, t, v));
  ASSERT_TRUE(w.AddRecord(2, kTime, ReferenceBody(t.Id(), w.Tables().FindTemplate(t.Guid()), {TEvtxValue::String("b")})));
  TChunkUnderTest c(w);
  ASSERT_EQ(c.Xml(0), "\r\n<Root Attr=\"a\">\r\n<Item>5</Item>\r\n<Opt>x</Opt></Root>");
  // Record 2: fragment header and instance (14 bytes), then its array: the count and the
  // one descriptor, whose size becomes 0x7000.
  TBXmlRootNode* root = c.Chunk().GetEvent(1)->Root();
  ASSERT_NE(root, nullptr);
  uint8_t* array = const_cast<uint8_t*>(c.Chunk().Data()) + root->Offset + 14;
  ASSERT_EQ(array[0], 1);
  ASSERT_EQ(array[6], EvtxType::String);
  array[4] = 0x00;
  array[5] = 0x70;
  EXPECT_EQ(c.Error(1), "SubArray: too short");
}

TEST(BinXmlSubstitutions, EveryValueTypeRendersInsideATemplate) {
  std::vector<std::pair<TEvtxValue, std::string>> cases = {
      {TEvtxValue::Int8(-5), "-5"},
      {TEvtxValue::UInt64(1ULL << 40), "1099511627776"},
      {TEvtxValue::Bool(true), "true"},
      {TEvtxValue::Guid("{54849625-5478-4994-A5BA-3E3B0328C30D}"), "{54849625-5478-4994-A5BA-3E3B0328C30D}"},
      {TEvtxValue::Sid("S-1-5-21-1-2-3-500"), "S-1-5-21-1-2-3-500"},
      {TEvtxValue::Hex32(500), "0X000001F4"},
      {TEvtxValue::Hex64(500), "0x00000000000001F4"},
      {TEvtxValue::FileTime(kTime + 1230000), "2024-03-11T00:00:00.1230000Z"},
      {TEvtxValue::SystemTime(2020, 1, 4, 2, 3, 4, 5, 6), "2020-01-02T03:04:05.006Z"},
      {TEvtxValue::SizeT(4294967295ULL, false), "4294967295"},
      {TEvtxValue::StringArray({"a", "b&"}), "a</V>\r\n<V>b&amp;"}, // one element per item
      {TEvtxValue::AnsiString("ansi"), "ansi"},
  };
  for (auto& [value, text] : cases) {
    auto t = TEvtxTemplate("one", [type = value.Type()](TBinXmlWriter& w2) { w2.SubstitutionElement("V", 0, type); });
    EXPECT_EQ(RenderOne(t, {value}), "\r\n<V>" + text + "</V>") << "type 0x" << std::hex << int(value.Type());
  }
}

// Arrays: an array that is an element's whole content repeats the element per item, with
// its attributes; elsewhere it stays one "[i] value" text. Each case is rendered both by the
// compiled template and by the node renderer (which an attribute value in two parts needs).
constexpr uint8_t kStringArray = EvtxType::String | EvtxType::ArrayFlag;

struct TArrayCase {
  const char* What;
  TEvtxValue Value;
  std::string Expected; // of <Data Name="x">#0</Data>
};

std::string RenderDataElement(const TEvtxValue& AValue, bool ANodeRenderer) {
  TEvtxChunkWriter w;
  auto t = TEvtxTemplate(ANodeRenderer ? "data-node" : "data", [&, type = AValue.Type()](TBinXmlWriter& w2) {
    w2.OpenElement("E");
    if (ANodeRenderer) {
      w2.Attribute("k");
      w2.Text("a");
      w2.Text("b");
    }
    w2.CloseStartElement();
    w2.OpenElement("Data");
    w2.Attribute("Name");
    w2.Text("x");
    w2.CloseStartElement();
    w2.Substitution(0, type, true);
    w2.EndElement();
    w2.EndElement();
  });
  std::vector<TEvtxValue> v = {AValue};
  EXPECT_TRUE(w.AddRecord(1, kTime, t, v));
  TChunkUnderTest c(w);
  EXPECT_EQ(c.Error(0), "no error");
  std::string xml = c.Xml(0);
  const std::string head = ANodeRenderer ? "\r\n<E k=\"ab\">" : "\r\n<E>";
  EXPECT_EQ(xml.substr(0, head.size()), head);
  xml.erase(0, head.size());
  EXPECT_EQ(xml.substr(xml.size() - 4), "</E>");
  return xml.substr(0, xml.size() - 4);
}

TEST(BinXmlArrays, WholeContentRepeatsTheElementPerItem) {
  const uint32_t numbers[] = {7, 4294967295u};
  const TEvtxValue guids[] = {TEvtxValue::Guid("{54849625-5478-4994-A5BA-3E3B0328C30D}"),
                              TEvtxValue::Guid("{00000000-0000-0000-0000-000000000001}")};
  const TEvtxValue hexes[] = {TEvtxValue::Hex64(1), TEvtxValue::Hex64(0xFF)};
  const std::vector<TArrayCase> cases = {
      {"strings", TEvtxValue::StringArray({"10.00.", "19044", "", "Multi & <processor>"}),
       "\r\n<Data Name=\"x\">10.00.</Data>\r\n<Data Name=\"x\">19044</Data>\r\n<Data Name=\"x\"></Data>"
       "\r\n<Data Name=\"x\">Multi &amp; &lt;processor&gt;</Data>"},
      {"one string", TEvtxValue::StringArray({"only"}), "\r\n<Data Name=\"x\">only</Data>"},
      {"integers", TEvtxValue::UInt32Array(numbers),
       "\r\n<Data Name=\"x\">7</Data>\r\n<Data Name=\"x\">4294967295</Data>"},
      {"guids", TEvtxValue::Array(EvtxType::Guid, guids),
       "\r\n<Data Name=\"x\">{54849625-5478-4994-A5BA-3E3B0328C30D}</Data>"
       "\r\n<Data Name=\"x\">{00000000-0000-0000-0000-000000000001}</Data>"},
      {"hex64", TEvtxValue::Array(EvtxType::Hex64, hexes),
       "\r\n<Data Name=\"x\">0x0000000000000001</Data>\r\n<Data Name=\"x\">0x00000000000000FF</Data>"},
      {"empty", TEvtxValue::StringArray({}), "\r\n<Data Name=\"x\"></Data>"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(RenderDataElement(c.Value, false), c.Expected) << c.What << ", compiled";
    EXPECT_EQ(RenderDataElement(c.Value, true), c.Expected) << c.What << ", node renderer";
  }
}

TEST(BinXmlArrays, NumberedWhereTheElementCannotRepeat) {
  // In an attribute, and as content mixed with text.
  auto t = TEvtxTemplate("mixed", [](TBinXmlWriter& w2) {
    w2.OpenElement("A");
    w2.Attribute("List");
    w2.Substitution(0, kStringArray);
    w2.CloseStartElement();
    w2.Text("items: ");
    w2.Substitution(0, kStringArray);
    w2.EndElement();
  });
  EXPECT_EQ(RenderOne(t, {TEvtxValue::StringArray({"a", "b"})}),
            "\r\n<A List=\"[0] a\r\n[1] b\">items: [0] a\r\n[1] b</A>");
}

TEST(BinXmlArrays, StartTagWithItsOwnValuesRepeatsThroughTheNodeRenderer) {
  auto t = TEvtxTemplate("attr", [](TBinXmlWriter& w2) {
    w2.OpenElement("Data");
    w2.Attribute("Name");
    w2.Substitution(1, EvtxType::String);
    w2.CloseStartElement();
    w2.Substitution(0, kStringArray);
    w2.EndElement();
  });
  EXPECT_EQ(RenderOne(t, {TEvtxValue::StringArray({"a", "b"}), TEvtxValue::String("n")}),
            "\r\n<Data Name=\"n\">a</Data>\r\n<Data Name=\"n\">b</Data>");
}

TEST(BinXmlTokens, TemplateBodiesRenderOrRaise) {
  const struct {
    const char* What;
    TBinXmlBody Body;
    std::string Expected;
  } cases[] = {
      {"cdata, entity and processing instruction",
       [](TBinXmlWriter& w) {
         w.OpenElement("T");
         w.CloseStartElement();
         w.CData("a<b");
         w.EntityReference("amp");
         w.PITarget("pi");
         w.PIData("data");
         w.Text("x\"y");
         w.EndElement();
       },
       "\r\n<T><![CDATA[a<b]]>&amp;<?pi data?>x&quot;y</T>"},
      {"entity references inside an attribute join its value",
       [](TBinXmlWriter& w) {
         w.OpenElement("T");
         w.Attribute("eTag");
         w.EntityReference("quot");
         w.Text("abc");
         w.EntityReference("quot");
         w.CloseEmptyElement();
       },
       "\r\n<T eTag=\"&quot;abc&quot;\" />"},
      {"character reference token cannot be decoded",
       [](TBinXmlWriter& w) {
         w.OpenElement("T");
         w.CloseStartElement();
         w.RawU8(0x08);
         w.RawU16('<');
         w.EndElement();
       },
       "!BinXML read error"},
      {"runaway nesting is refused, not followed",
       [](TBinXmlWriter& w) {
         for (int i = 0; i < 300; ++i) {
           w.OpenElement("D");
           w.CloseStartElement();
         }
         for (int i = 0; i < 300; ++i) w.EndElement();
       },
       "!BinXML nesting too deep"},
  };
  for (const auto& c : cases) EXPECT_EQ(RenderOne(TEvtxTemplate(c.What, c.Body)), c.Expected) << c.What;
}

TEST(BinXmlTokens, FragmentHeaderAndInstanceAreChecked) {
  const struct {
    std::vector<uint8_t> Bytes;
    const char* Expected;
  } cases[] = {
      {{0x0F, 0x02, 0x01, 0x00}, "NodeF: bad ExCode1 "},
      {{0x0F, 0x01, 0x02, 0x00}, "NodeF: bad ExCode2 "},
      {{0x0F, 0x01}, "NodeF: too short"},
      {{0x0F, 0x01, 0x01, 0x00, 0x0C, 0x02, 1, 0, 0, 0, 0, 2, 0, 0}, "NodeC: bad ExCode "},
  };
  TEvtxChunkWriter w;
  uint64_t id = 1;
  for (const auto& c : cases) ASSERT_TRUE(w.AddRecord(id++, kTime, [&](TBinXmlWriter& w2) { w2.Raw(c.Bytes); }));
  TChunkUnderTest chunk(w);
  for (int i = 0; i < static_cast<int>(std::size(cases)); ++i) EXPECT_EQ(chunk.Error(i), cases[i].Expected) << i;
}

// A template of one <Inner> element whose UInt16 value is its Id attribute or its text.
std::shared_ptr<TEvtxTemplate> InnerTemplate(bool AAsAttribute) {
  return std::make_shared<TEvtxTemplate>("inner", [AAsAttribute](TBinXmlWriter& w2) {
    w2.OpenElement("Inner");
    if (AAsAttribute) w2.Attribute("Id");
    else w2.CloseStartElement();
    w2.Substitution(0, EvtxType::UInt16);
    if (AAsAttribute) w2.CloseEmptyElement();
    else w2.EndElement();
  });
}

// A <UserData> element whose content is one embedded fragment (value 0).
TEvtxTemplate OuterTemplate() {
  return TEvtxTemplate("outer", [](TBinXmlWriter& w2) {
    w2.OpenElement("UserData");
    w2.CloseStartElement();
    w2.Substitution(0, EvtxType::BinXml);
    w2.EndElement();
  });
}

TEST(BinXmlNesting, EmbeddedFragmentRendersInPlace) {
  auto inner = InnerTemplate(true);
  const TEvtxTemplate outer = OuterTemplate();
  TEvtxChunkWriter w;
  std::vector<TEvtxValue> v = {TEvtxValue::BinXml(inner, {TEvtxValue::UInt16(42)})};
  ASSERT_TRUE(w.AddRecord(1, kTime, outer, v));
  TChunkUnderTest c(w);
  EXPECT_EQ(c.Xml(0), "\r\n<UserData>\r\n<Inner Id=\"42\" /></UserData>");
}

// Records that refer back to a definition (their own fragment header and instance, or
// an embedded value's) must get the nodes the general parse builds.
TEST(BinXmlNesting, ReferencedInstancesAtEveryLevelGetTheParsedNodes) {
  auto inner = InnerTemplate(true);
  const TEvtxTemplate outer = OuterTemplate();
  TEvtxChunkWriter w;
  for (uint16_t i = 1; i <= 3; ++i) {
    std::vector<TEvtxValue> v = {TEvtxValue::BinXml(inner, {TEvtxValue::UInt16(i)})};
    ASSERT_TRUE(w.AddRecord(i, kTime, outer, v));
  }
  TChunkUnderTest c(w);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(c.Xml(i), "\r\n<UserData>\r\n<Inner Id=\"" + std::to_string(i + 1) + "\" /></UserData>");
  // The third record: header and instance of the outer template, whose one value embeds
  // a header and an instance of the inner one, each referring back.
  TBXmlRootNode* root = c.Chunk().GetEvent(2)->Root();
  ASSERT_TRUE(root->Valid);
  const TBXmlNodeCommon* header = root->FirstChild;
  ASSERT_NE(header, nullptr);
  EXPECT_EQ(header->Kind, TBXmlKind::bkChild0F);
  EXPECT_EQ(header->Offset, root->Offset);
  EXPECT_EQ(header->Size, 4u);
  EXPECT_EQ(header->Parent, root);
  const auto* instance = static_cast<const TBXmlChild0CNode*>(header->Next);
  ASSERT_NE(instance, nullptr);
  EXPECT_EQ(root->LastChild, instance);
  EXPECT_EQ(instance->Kind, TBXmlKind::bkChild0C);
  EXPECT_EQ(instance->Token, 0x0C);
  EXPECT_EQ(instance->Offset, root->Offset + 4);
  EXPECT_EQ(instance->Size, 10u);
  EXPECT_EQ(instance->Header, 10u);
  EXPECT_EQ(instance->Data, 0u);
  EXPECT_EQ(instance->TemplateOffset, w.Tables().FindTemplate(outer.Guid()));
  EXPECT_EQ(instance->Template, c.Chunk().GetTemplateByPoint(instance->TemplateOffset));
  EXPECT_EQ(instance->SubstStart, root->Offset + 14);
  EXPECT_EQ(root->SubstStart, root->Offset + 14);
  ASSERT_NE(root->Array, nullptr);
  ASSERT_EQ(root->Array->Count, 1u);
  EXPECT_EQ(root->Array->NestedCount, 1u);
  const TBXmlRootNode* nested = root->Array->Values[0].Nested;
  ASSERT_NE(nested, nullptr);
  const auto* nestedInstance = static_cast<const TBXmlChild0CNode*>(nested->LastChild);
  ASSERT_EQ(nestedInstance->Kind, TBXmlKind::bkChild0C);
  EXPECT_EQ(nestedInstance->TemplateOffset, w.Tables().FindTemplate(inner->Guid()));
  EXPECT_EQ(nestedInstance->Template->TemplateId, inner->Id());
  EXPECT_EQ(nested->FirstChild->Kind, TBXmlKind::bkChild0F);
  EXPECT_EQ(nested->Array->NestedCount, 0u);
}

TEST(BinXmlNesting, EmbeddedReferenceToAnotherIdRaisesWrongTemplate) {
  auto inner = InnerTemplate(false);
  const TEvtxTemplate outer = OuterTemplate();
  TEvtxChunkWriter w;
  for (uint16_t i = 1; i <= 2; ++i) {
    std::vector<TEvtxValue> v = {TEvtxValue::BinXml(inner, {TEvtxValue::UInt16(i)})};
    ASSERT_TRUE(w.AddRecord(i, kTime, outer, v));
  }
  TChunkUnderTest c(w);
  EXPECT_EQ(c.Xml(0), "\r\n<UserData>\r\n<Inner>1</Inner></UserData>");
  // The second record's embedded instance names another template id.
  TBXmlRootNode* root = c.Chunk().GetEvent(1)->Root();
  const uint32_t at = root->Offset + 14 + 4 + 4; // its array: count, one descriptor, the value
  uint8_t* value = const_cast<uint8_t*>(c.Chunk().Data()) + at;
  ASSERT_EQ(value[0], 0x0F);
  ASSERT_EQ(value[4], 0x0C);
  value[6] ^= 1;
  EXPECT_EQ(c.Error(1), "Root exception (NodeC: wrong template)");
}

TEST(BinXmlNesting, TemplateReferringToItselfIsRefusedNotFollowed) {
  // A template body holding an instance of the template that is being defined: the
  // definition is not known until its body is read, so the reference finds nothing.
  TEvtxChunkWriter w;
  ASSERT_TRUE(w.AddRecord(1, kTime, [](TBinXmlWriter& w2) {
    w2.FragmentHeader();
    const uint32_t instance = w2.Position();
    const uint32_t definition = instance + 10;
    w2.Raw(std::vector<uint8_t>{0x0C, 0x01, 0xAA, 0xBB, 0xCC, 0xDD});
    w2.RawU32(definition);
    w2.RawU32(0); // next definition
    w2.Raw(std::vector<uint8_t>{0xAA, 0xBB, 0xCC, 0xDD, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}); // GUID
    w2.RawU32(15); // body: fragment header, an instance of this same definition, end of stream
    w2.Raw(std::vector<uint8_t>{0x0F, 0x01, 0x01, 0x00, 0x0C, 0x01, 0xAA, 0xBB, 0xCC, 0xDD});
    w2.RawU32(definition);
    w2.RawU8(0x00);
    w2.RawU32(0); // no values
  }));
  TChunkUnderTest c(w);
  EXPECT_EQ(c.Error(0), "NodeC: no template");
}

TEST(BinXmlNesting, FragmentsNestedInValuesAreBoundedByTheirBytes) {
  // Each level is an embedded fragment holding the next one as its only value.
  auto leaf = std::make_shared<TEvtxTemplate>("leaf", [](TBinXmlWriter& w2) { w2.TextElement("Leaf", "x"); });
  auto wrap = std::make_shared<TEvtxTemplate>("wrap", [](TBinXmlWriter& w2) {
    w2.OpenElement("W");
    w2.CloseStartElement();
    w2.Substitution(0, EvtxType::BinXml);
    w2.EndElement();
  });
  TEvtxValue value = TEvtxValue::BinXml(leaf, {});
  for (int i = 0; i < 40; ++i) value = TEvtxValue::BinXml(wrap, {value});
  TEvtxChunkWriter w;
  std::vector<TEvtxValue> v = {value};
  ASSERT_TRUE(w.AddRecord(1, kTime, *wrap, v));
  TChunkUnderTest c(w);
  EXPECT_EQ(c.Error(0), "no error");
  std::string xml = c.Xml(0);
  EXPECT_NE(xml.find("<Leaf>x</Leaf>"), std::string::npos);
  size_t levels = 0;
  for (size_t at = xml.find("<W>"); at != std::string::npos; at = xml.find("<W>", at + 1)) ++levels;
  EXPECT_EQ(levels, 41u);
}

TEST(BinXmlRecord, StandardEventRendersAsWindowsLaysItOut) {
  TEvtxEventDraft e;
  e.FProviderName = "Service Control Manager";
  e.FProviderGuid = "{555908D1-A6D7-4695-8E1E-26931D2012F4}";
  e.FEventSourceName = "Service Control Manager";
  e.FEventId = 7036;
  e.FQualifiers = 16384;
  e.FLevel = 4;
  e.FKeywords = 0x8080000000000000ULL;
  e.FTimeCreated = kTime;
  e.FProcessId = 600;
  e.FThreadId = 700;
  e.FChannel = "System";
  e.FComputer = "PC";
  e.FData = {{"param1", TEvtxValue::String("Print Spooler")}, {"param2", TEvtxValue::String("running")}};
  TEvtxChunkWriter w;
  TEvtxEventTemplates templates;
  ASSERT_TRUE(w.AddEvent(17, e, templates));
  TChunkUnderTest c(w);
  EXPECT_EQ(c.Xml(0),
            "\r\n<Event xmlns=\"http://schemas.microsoft.com/win/2004/08/events/event\">"
            "\r\n<System>"
            "\r\n<Provider Name=\"Service Control Manager\" Guid=\"{555908D1-A6D7-4695-8E1E-26931D2012F4}\" "
            "EventSourceName=\"Service Control Manager\" />"
            "\r\n<EventID Qualifiers=\"16384\">7036</EventID>"
            "\r\n<Version>0</Version>"
            "\r\n<Level>4</Level>"
            "\r\n<Task>0</Task>"
            "\r\n<Opcode>0</Opcode>"
            "\r\n<Keywords>0x8080000000000000</Keywords>"
            "\r\n<TimeCreated SystemTime=\"2024-03-11T00:00:00.0000000Z\" />"
            "\r\n<EventRecordID>17</EventRecordID>"
            "\r\n<Correlation />"
            "\r\n<Execution ProcessID=\"600\" ThreadID=\"700\" />"
            "\r\n<Channel>System</Channel>"
            "\r\n<Computer>PC</Computer>"
            "\r\n<Security /></System>"
            "\r\n<EventData>"
            "\r\n<Data Name=\"param1\">Print Spooler</Data>"
            "\r\n<Data Name=\"param2\">running</Data></EventData></Event>");
}

// Each test starts from an empty template cache with the default limits and leaves it so.
class BinXmlTemplateCache : public ::testing::Test {
protected:
  void SetUp() override { SetBXmlTemplateCacheLimits(kBXmlTemplateCacheEntries, kBXmlTemplateCacheBytes); }
  void TearDown() override { SetBXmlTemplateCacheLimits(kBXmlTemplateCacheEntries, kBXmlTemplateCacheBytes); }
};

// Every record's XML of a chunk, errors as "!" and their text.
std::string AllXml(const std::vector<uint8_t>& ABytes) {
  TEvtxChunk chunk(ABytes);
  std::string out;
  for (int i = 0; i < chunk.Count(); ++i) {
    try {
      out += chunk.GetEvent(i)->asXML();
    } catch (const EBinXMLLogReadingException& e) {
      out += std::string("!") + e.what();
    }
    out += '\n';
  }
  return out;
}

// The offset of the first UTF-16 copy of AText in ABytes, or 0.
size_t FindUtf16(const std::vector<uint8_t>& ABytes, std::string_view AText) {
  std::vector<uint8_t> needle;
  for (char ch : AText) {
    needle.push_back(static_cast<uint8_t>(ch));
    needle.push_back(0);
  }
  auto at = std::search(ABytes.begin(), ABytes.end(), needle.begin(), needle.end());
  return at == ABytes.end() ? 0 : static_cast<size_t>(at - ABytes.begin());
}

// Three definitions under one GUID (the key of SmallTemplate): the elements are named
// otherwise, or a value has another type.
TEvtxTemplate SameGuidOtherNames() {
  return TEvtxTemplate("small", [](TBinXmlWriter& w) {
    w.OpenElement("Other");
    w.Attribute("Attr");
    w.Substitution(0, EvtxType::String, true);
    w.CloseStartElement();
    w.SubstitutionElement("Item", 1, EvtxType::UInt32);
    w.EndElement();
  });
}

// The same names and size as SmallTemplate, its second and third values swapped: only
// the bytes of the definition tell them apart.
TEvtxTemplate SameGuidSwappedValues() {
  return TEvtxTemplate("small", [](TBinXmlWriter& w) {
    w.OpenElement("Root");
    w.Attribute("Attr");
    w.Substitution(0, EvtxType::String, true);
    w.CloseStartElement();
    w.SubstitutionElement("Item", 2, EvtxType::UInt32);
    w.SubstitutionElement("Opt", 1, EvtxType::String, true);
    w.EndElement();
  });
}

// A chunk of one record of ATemplate with AValues, after AFiller records of another
// template (so the template and its names lie at another offset in each chunk).
std::vector<uint8_t> OneTemplateChunk(const TEvtxTemplate& ATemplate, int AFiller,
                                      const std::vector<TEvtxValue>& AValues = {
                                          TEvtxValue::String("a"), TEvtxValue::UInt32(7), TEvtxValue::String("x")}) {
  auto filler = TEvtxTemplate("filler", [](TBinXmlWriter& w) { w.SubstitutionElement("Note", 0, EvtxType::String); });
  TEvtxChunkWriter w;
  uint64_t id = 1;
  for (int i = 0; i < AFiller; ++i)
    EXPECT_TRUE(w.AddRecord(id++, kTime, filler,
                            std::vector<TEvtxValue>{TEvtxValue::String(std::string(static_cast<size_t>(i + 1), 'n'))}));
  EXPECT_TRUE(w.AddRecord(id, kTime, ATemplate, AValues));
  return w.Finish();
}

const char* const kSmallXml = "\r\n<Root Attr=\"a\">\r\n<Item>7</Item>\r\n<Opt>x</Opt></Root>";
const char* const kOtherXml = "\r\n<Other Attr=\"a\">\r\n<Item>7</Item></Other>";

TEST_F(BinXmlTemplateCache, ChunkRenderedAgainTakesItsTemplatesFromTheCache) {
  TEvtxChunkWriter w;
  std::vector<TEvtxValue> v = {TEvtxValue::String("a"), TEvtxValue::UInt32(7), TEvtxValue::String("x")};
  ASSERT_TRUE(w.AddRecord(1, kTime, SmallTemplate(), v));
  ASSERT_TRUE(w.AddRecord(2, kTime, SmallTemplate(), v));
  const std::vector<uint8_t> bytes = w.Finish();
  const std::string first = AllXml(bytes);
  EXPECT_EQ(BXmlTemplateCacheInfo().Entries, 1u);
  EXPECT_EQ(BXmlTemplateCacheInfo().Hits, 0u);
  EXPECT_EQ(AllXml(bytes), first);
  EXPECT_EQ(BXmlTemplateCacheInfo().Hits, 1u);
  // A template taken from the cache still gives its nodes to those who ask for them.
  TEvtxChunk chunk(bytes);
  EXPECT_EQ(chunk.GetEvent(0)->asXML(), "\r\n<Root Attr=\"a\">\r\n<Item>7</Item>\r\n<Opt>x</Opt></Root>");
  EXPECT_EQ(BXmlTemplateCacheInfo().Hits, 2u);
  TBXmlTemplateNode* t = chunk.GetTemplateByPoint(w.Tables().FindTemplate(SmallTemplate().Guid()));
  ASSERT_NE(t, nullptr);
  EXPECT_TRUE(t->NodesDeferred);
  EXPECT_EQ(t->FirstChild, nullptr);
  EXPECT_EQ(RenderTemplate(chunk, t),
            "\r\n<Root Attr=\"#0 (type 0x01, optional)#\">\r\n<Item>#1 (type 0x08)#</Item>"
            "\r\n<Opt>#2 (type 0x01, optional)#</Opt></Root>");
}

TEST_F(BinXmlTemplateCache, SameGuidWithAnotherDefinitionRendersItsOwn) {
  ASSERT_EQ(SameGuidOtherNames().Guid(), SmallTemplate().Guid());
  EXPECT_EQ(AllXml(OneTemplateChunk(SmallTemplate(), 0)), std::string(kSmallXml) + "\n");
  EXPECT_EQ(AllXml(OneTemplateChunk(SameGuidOtherNames(), 0)), std::string(kOtherXml) + "\n");
  EXPECT_EQ(BXmlTemplateCacheInfo().Hits, 0u);
}

TEST_F(BinXmlTemplateCache, SameBytesWhoseNamesReadOtherwiseInTheNewChunkAreParsedAgain) {
  // The second template's names refer back to those the first one wrote inline. In the
  // second chunk the first template's name "Root" becomes "Roox": the second template's
  // bytes are the same, but its element is now named "Roox".
  auto first = TEvtxTemplate("first", [](TBinXmlWriter& w) {
    w.OpenElement("Root");
    w.CloseStartElement();
    w.SubstitutionElement("Item", 0, EvtxType::UInt32);
    w.EndElement();
  });
  auto second = TEvtxTemplate("second", [](TBinXmlWriter& w) {
    w.OpenElement("Root");
    w.Attribute("Item");
    w.Substitution(0, EvtxType::UInt32);
    w.CloseStartElement();
    w.EndElement();
  });
  TEvtxChunkWriter w;
  std::vector<TEvtxValue> v = {TEvtxValue::UInt32(5)};
  ASSERT_TRUE(w.AddRecord(1, kTime, first, v));
  ASSERT_TRUE(w.AddRecord(2, kTime, second, v));
  std::vector<uint8_t> bytes = w.Finish();
  EXPECT_EQ(AllXml(bytes), "\r\n<Root>\r\n<Item>5</Item></Root>\n\r\n<Root Item=\"5\"></Root>\n");
  EXPECT_EQ(BXmlTemplateCacheInfo().Entries, 2u);
  const size_t name = FindUtf16(bytes, "Root");
  ASSERT_NE(name, 0u);
  ASSERT_LT(name, w.Tables().FindTemplate(second.Guid()));
  bytes[name + 6] = 'x';
  EXPECT_EQ(AllXml(bytes), "\r\n<Roox>\r\n<Item>5</Item></Roox>\n\r\n<Roox Item=\"5\"></Roox>\n");
  EXPECT_EQ(BXmlTemplateCacheInfo().Hits, 0u);
  // Back to "Root": both definitions are found in the cache again.
  bytes[name + 6] = 't';
  EXPECT_EQ(AllXml(bytes), "\r\n<Root>\r\n<Item>5</Item></Root>\n\r\n<Root Item=\"5\"></Root>\n");
  EXPECT_EQ(BXmlTemplateCacheInfo().Hits, 2u);
}

TEST_F(BinXmlTemplateCache, SameTemplateAtAnotherOffsetIsTakenFromTheCache) {
  // The second record's template lies further on in the second chunk (the first record's
  // value is longer there), its names written inline at other offsets.
  auto first = TEvtxTemplate("first", [](TBinXmlWriter& w) { w.SubstitutionElement("Note", 0, EvtxType::String); });
  auto moved = TEvtxTemplate("moved", [](TBinXmlWriter& w) {
    w.OpenElement("Moved");
    w.Attribute("Id");
    w.Substitution(0, EvtxType::UInt32);
    w.CloseStartElement();
    w.SubstitutionElement("Value", 1, EvtxType::String);
    w.EndElement();
  });
  std::vector<TEvtxValue> v = {TEvtxValue::UInt32(9), TEvtxValue::String("v")};
  TEvtxChunkWriter a, b;
  ASSERT_TRUE(a.AddRecord(1, kTime, first, std::vector<TEvtxValue>{TEvtxValue::String("x")}));
  ASSERT_TRUE(a.AddRecord(2, kTime, moved, v));
  ASSERT_TRUE(b.AddRecord(1, kTime, first, std::vector<TEvtxValue>{TEvtxValue::String("a longer note")}));
  ASSERT_TRUE(b.AddRecord(2, kTime, moved, v));
  ASSERT_NE(a.Tables().FindTemplate(moved.Guid()), b.Tables().FindTemplate(moved.Guid()));
  const std::string expected = "\r\n<Moved Id=\"9\">\r\n<Value>v</Value></Moved>\n";
  EXPECT_EQ(AllXml(a.Finish()), "\r\n<Note>x</Note>\n" + expected);
  EXPECT_EQ(BXmlTemplateCacheInfo().Hits, 0u);
  EXPECT_EQ(AllXml(b.Finish()), "\r\n<Note>a longer note</Note>\n" + expected);
  EXPECT_EQ(BXmlTemplateCacheInfo().Hits, 2u);
  // The names it registered are the chunk's: a record that refers back to them reads them.
  TEvtxChunkWriter c;
  ASSERT_TRUE(c.AddRecord(1, kTime, first, std::vector<TEvtxValue>{TEvtxValue::String("a longer note")}));
  ASSERT_TRUE(c.AddRecord(2, kTime, moved, v));
  auto again = TEvtxTemplate("again", [](TBinXmlWriter& w) { w.SubstitutionElement("Value", 0, EvtxType::String); });
  ASSERT_TRUE(c.AddRecord(3, kTime, again, std::vector<TEvtxValue>{TEvtxValue::String("w")}));
  EXPECT_EQ(AllXml(c.Finish()), "\r\n<Note>a longer note</Note>\n" + expected + "\r\n<Value>w</Value>\n");
}

// A chunk with ACount templates of their own, one record each.
std::vector<uint8_t> ManyTemplates(int ACount, std::string* AExpected) {
  TEvtxChunkWriter w;
  for (int i = 0; i < ACount; ++i) {
    const std::string element = "E" + std::to_string(i);
    auto t = TEvtxTemplate(element, [element](TBinXmlWriter& w2) {
      w2.OpenElement(element);
      w2.CloseStartElement();
      w2.Substitution(0, EvtxType::UInt32);
      w2.EndElement();
    });
    std::vector<TEvtxValue> v = {TEvtxValue::UInt32(static_cast<uint32_t>(i))};
    EXPECT_TRUE(w.AddRecord(static_cast<uint64_t>(i) + 1, kTime, t, v));
    *AExpected += "\r\n<" + element + ">" + std::to_string(i) + "</" + element + ">\n";
  }
  return w.Finish();
}

TEST_F(BinXmlTemplateCache, EntryLimitIsKept) {
  SetBXmlTemplateCacheLimits(3, kBXmlTemplateCacheBytes);
  std::string expected;
  const std::vector<uint8_t> bytes = ManyTemplates(10, &expected);
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(AllXml(bytes), expected);
    EXPECT_LE(BXmlTemplateCacheInfo().Entries, 3u);
  }
}

TEST_F(BinXmlTemplateCache, ByteLimitIsKept) {
  SetBXmlTemplateCacheLimits(kBXmlTemplateCacheEntries, 4096);
  std::string expected;
  const std::vector<uint8_t> bytes = ManyTemplates(200, &expected);
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(AllXml(bytes), expected);
    EXPECT_LE(BXmlTemplateCacheInfo().Bytes, 4096u);
    EXPECT_GT(BXmlTemplateCacheInfo().Entries, 0u);
  }
}

// A template compiled on one thread of a run is taken by another from the run's cache;
// a definition under the same GUID with other bytes is compiled and kept beside it.
TEST_F(BinXmlTemplateCache, ThreadsSharingACacheTakeEachOthersTemplates) {
  const auto a = OneTemplateChunk(SmallTemplate(), 0);
  const auto a2 = OneTemplateChunk(SmallTemplate(), 3);
  const auto b = OneTemplateChunk(SameGuidOtherNames(), 1);
  const auto c = OneTemplateChunk(SameGuidSwappedValues(), 2);
  TBXmlSharedTemplates shared;
  std::string first, second, other, swapped;
  TBXmlTemplateCacheInfo firstInfo, secondInfo;
  std::thread([&] {
    TBXmlSharedTemplates::TUse use(shared);
    first = AllXml(a);
    firstInfo = BXmlTemplateCacheInfo();
  }).join();
  EXPECT_EQ(shared.Entries(), 1u);
  std::thread([&] {
    TBXmlSharedTemplates::TUse use(shared);
    second = AllXml(a2);
    other = AllXml(b);
    swapped = AllXml(c);
    secondInfo = BXmlTemplateCacheInfo();
  }).join();
  EXPECT_EQ(first.substr(first.rfind("\r\n<Root")), std::string(kSmallXml) + "\n");
  EXPECT_EQ(second.substr(second.rfind("\r\n<Root")), std::string(kSmallXml) + "\n");
  EXPECT_EQ(other.substr(other.rfind("\r\n<Other")), std::string(kOtherXml) + "\n");
  EXPECT_EQ(swapped.substr(swapped.rfind("\r\n<Root")),
            "\r\n<Root Attr=\"a\">\r\n<Item>x</Item>\r\n<Opt>7</Opt></Root>\n");
  // The first thread kept its templates in the shared cache, not its own.
  EXPECT_EQ(firstInfo.Entries, 0u);
  EXPECT_EQ(firstInfo.Hits, 0u);
  // The second found SmallTemplate there (at another offset), compiled the filler once
  // (and found it there in the next chunks) and compiled the two other definitions.
  EXPECT_EQ(secondInfo.Hits, 3u);
  EXPECT_EQ(secondInfo.Misses, 3u);
  EXPECT_EQ(secondInfo.Entries, 0u);
  EXPECT_EQ(shared.Entries(), 4u);
  // The caller's own cache was not touched.
  EXPECT_EQ(BXmlTemplateCacheInfo().Entries, 0u);
  EXPECT_EQ(BXmlTemplateCacheInfo().Misses, 0u);
}

// Once the shared cache holds as many entries as the creating thread's limit, what a
// thread compiles next stays in its own cache, and renders the same.
TEST_F(BinXmlTemplateCache, SharedCacheAtItsLimitLeavesNewTemplatesToTheThread) {
  SetBXmlTemplateCacheLimits(1, kBXmlTemplateCacheBytes);
  TBXmlSharedTemplates shared;
  SetBXmlTemplateCacheLimits(kBXmlTemplateCacheEntries, kBXmlTemplateCacheBytes);
  const auto a = OneTemplateChunk(SmallTemplate(), 0);
  const auto b = OneTemplateChunk(SameGuidOtherNames(), 0);
  std::string xml;
  TBXmlTemplateCacheInfo info;
  std::thread([&] {
    TBXmlSharedTemplates::TUse use(shared);
    xml = AllXml(a) + AllXml(b) + AllXml(a) + AllXml(b);
    info = BXmlTemplateCacheInfo();
  }).join();
  EXPECT_EQ(xml, std::string(kSmallXml) + "\n" + kOtherXml + "\n" + kSmallXml + "\n" + kOtherXml + "\n");
  EXPECT_EQ(shared.Entries(), 1u);
  EXPECT_EQ(info.Entries, 1u); // the other definition, in the thread's own cache
  EXPECT_EQ(info.Hits, 2u);    // one from each cache
}

// Chunks each holding one of four definitions under one GUID (other names, other value
// types, values swapped), and the XML each one's record ends with.
struct TSameGuidChunks {
  std::vector<std::vector<uint8_t>> Chunks;
  std::vector<std::string> Tails; // per chunk
};
TSameGuidChunks SameGuidChunks(int ACount) {
  const std::vector<TEvtxValue> numberValues = {TEvtxValue::String("a"), TEvtxValue::UInt32(7), TEvtxValue::String("x")};
  const std::vector<TEvtxValue> textValues = {TEvtxValue::String("a"), TEvtxValue::String("t"), TEvtxValue::String("x")};
  const TEvtxTemplate kinds[] = {SmallTemplate(), SameGuidOtherNames(), SmallTemplate(EvtxType::String),
                                 SameGuidSwappedValues()};
  const std::string tails[] = {kSmallXml, kOtherXml, "\r\n<Root Attr=\"a\">\r\n<Item>t</Item>\r\n<Opt>x</Opt></Root>",
                               "\r\n<Root Attr=\"a\">\r\n<Item>x</Item>\r\n<Opt>7</Opt></Root>"};
  for (const TEvtxTemplate& kind : kinds) EXPECT_EQ(kind.Guid(), kinds[0].Guid());
  TSameGuidChunks out;
  for (int i = 0; i < ACount; ++i) {
    const int kind = (i * 7 + i / 5) % 4;
    out.Chunks.push_back(OneTemplateChunk(kinds[kind], i % 4, kind == 2 ? textValues : numberValues));
    out.Tails.push_back(tails[kind]);
  }
  return out;
}

// Many chunks whose one template shares its GUID with the others' but not its bytes,
// rendered by several threads at once through one shared cache: every chunk renders
// its own definition, as with one thread.
TEST_F(BinXmlTemplateCache, SameGuidWithOtherDefinitionsOnSeveralThreadsRendersEachChunksOwn) {
  const TSameGuidChunks set = SameGuidChunks(90);
  const auto& chunks = set.Chunks;
  auto run = [&](unsigned AThreads) {
    size_t next = 0;
    std::vector<std::string> got;
    TChunkReader::Run(
        [&](TChunkJob& AJob) {
          if (next == chunks.size()) return false;
          AJob.Position = next * 65536;
          AJob.Bytes = chunks[next++];
          return true;
        },
        [&](TChunkResult& AResult) { got.push_back(AResult.Xml); }, AThreads);
    return got;
  };
  const std::vector<std::string> one = run(1);
  ASSERT_EQ(one.size(), chunks.size());
  for (size_t i = 0; i < chunks.size(); ++i) {
    const std::string& tail = set.Tails[i];
    ASSERT_GE(one[i].size(), tail.size());
    EXPECT_EQ(one[i].substr(one[i].size() - tail.size()), tail) << "chunk " << i;
  }
  for (unsigned threads : {2u, 3u})
    for (int round = 0; round < 5; ++round) EXPECT_EQ(run(threads), one) << threads << " threads";
}

// Threads adding to one shared cache at once, each in memory of its own: the cache never
// holds more entries than the creating thread's limit, a thread that finds its blocks
// all taken keeps what it compiles itself, and every chunk renders as it does alone.
TEST_F(BinXmlTemplateCache, ThreadsAddingAtOnceKeepTheSharedCacheWithinItsLimits) {
  const TSameGuidChunks set = SameGuidChunks(40);
  std::vector<std::string> expected;
  for (const auto& chunk : set.Chunks) expected.push_back(AllXml(chunk));
  // One entry; then one block of 4 KB, which the first thread to add takes.
  const std::pair<size_t, size_t> limits[] = {{1, kBXmlTemplateCacheBytes}, {kBXmlTemplateCacheEntries, 4096}};
  for (const auto& [entries, bytes] : limits) {
    for (int round = 0; round < 10; ++round) {
      SetBXmlTemplateCacheLimits(entries, bytes);
      TBXmlSharedTemplates shared;
      SetBXmlTemplateCacheLimits(kBXmlTemplateCacheEntries, kBXmlTemplateCacheBytes);
      std::vector<std::vector<std::string>> got(4);
      std::vector<std::thread> threads;
      for (size_t t = 0; t < got.size(); ++t)
        threads.emplace_back([&, t] {
          TBXmlSharedTemplates::TUse use(shared);
          // Each thread starts at another chunk, so that they compile different
          // definitions at the same moment.
          for (size_t k = 0; k < set.Chunks.size(); ++k)
            got[t].push_back(AllXml(set.Chunks[(k + 7 * t) % set.Chunks.size()]));
        });
      for (auto& thread : threads) thread.join();
      EXPECT_GE(shared.Entries(), 1u);
      EXPECT_LE(shared.Entries(), entries) << bytes;
      for (size_t t = 0; t < got.size(); ++t)
        for (size_t k = 0; k < set.Chunks.size(); ++k)
          ASSERT_EQ(got[t][k], expected[(k + 7 * t) % set.Chunks.size()]) << "thread " << t << " chunk " << k;
    }
  }
}

} // namespace
} // namespace qvx
