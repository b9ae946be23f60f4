#include "automation/ser_object.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>

namespace qvx {
namespace {

enum TColorMode { cmA, cmB, cmC };
enum class TLevel : int8_t { lvLow = -1, lvMid, lvHigh };

class TNested : public TSerClass<TNested> {
public:
  int32_t Count = 7;
  std::string Label = "inner";

protected:
  void DeclareProperties(TPropertyList& AProps) override {
    TSerClass::DeclareProperties(AProps);
    AProps.Int("Count", &TNested::Count).String("Label", &TNested::Label);
  }
};

class TItem : public TSerClass<TItem> {
public:
  int32_t Id = 0;
  std::string Text;
  double Weight = 1.5;

protected:
  void DeclareProperties(TPropertyList& AProps) override {
    TSerClass::DeclareProperties(AProps);
    AProps.Int("Id", &TItem::Id).String("Text", &TItem::Text).Double("Weight", &TItem::Weight);
  }
};

class TAllKinds : public TSerClass<TAllKinds> {
public:
  int32_t Count = 3;
  bool Flag = false;
  std::string Name = "default";
  double Ratio = 0.25;
  int64_t Big = 0;
  TColorMode Mode = cmA;
  TLevel Level = TLevel::lvMid;
  TNested Inner;
  TSerObjectList Items{SerFactory<TItem>(), true, true};
  TSerObjectList Entries{SerFactory<TItem>(), true, false};
  std::vector<std::string> Lines;

protected:
  void DeclareProperties(TPropertyList& AProps) override {
    TSerClass::DeclareProperties(AProps);
    AProps.Int("Count", &TAllKinds::Count)
        .Bool("Flag", &TAllKinds::Flag)
        .String("Name", &TAllKinds::Name)
        .Double("Ratio", &TAllKinds::Ratio)
        .Int64("Big", &TAllKinds::Big)
        .Enum("Mode", &TAllKinds::Mode, cmC)
        .Enum("Level", &TAllKinds::Level)
        .Object("Inner", &TAllKinds::Inner)
        .List("Items", &TAllKinds::Items, "Item")
        .List("Entries", &TAllKinds::Entries, "Entry")
        .Strings("Lines", &TAllKinds::Lines);
  }
};

class TMoreKinds : public TSerClass<TMoreKinds, TAllKinds> {
public:
  int32_t Extra = 9;

protected:
  void DeclareProperties(TPropertyList& AProps) override {
    TAllKinds::DeclareProperties(AProps);
    AProps.Int("Extra", &TMoreKinds::Extra);
  }
};

class TOther : public TSerClass<TOther> {
public:
  int32_t Count = 1;

protected:
  void DeclareProperties(TPropertyList& AProps) override {
    TSerClass::DeclareProperties(AProps);
    AProps.Int("Count", &TOther::Count);
  }
};

TItem& AddItem(TSerObjectList& AList, int32_t AId, const std::string& AText, double AWeight) {
  auto item = std::make_unique<TItem>();
  item->Id = AId;
  item->Text = AText;
  item->Weight = AWeight;
  return static_cast<TItem&>(AList.Add(std::move(item)));
}

// Every property differs from the constructor's default.
void Fill(TAllKinds& AObj) {
  AObj.SetVersion(4);
  AObj.Count = -123456;
  AObj.Flag = true;
  AObj.Name = "settings";
  AObj.Ratio = 0.1;
  AObj.Big = std::numeric_limits<int64_t>::min();
  AObj.Mode = cmC;
  AObj.Level = TLevel::lvLow;
  AObj.Inner.Count = 2147483647;
  AObj.Inner.Label = "nested label";
  AddItem(AObj.Items, 1, "first", 0.5);
  AddItem(AObj.Items, 2, "", -2.0);
  AddItem(AObj.Items, 3, "third", 1e10);
  AddItem(AObj.Entries, 10, "entry a", 3.0);
  AddItem(AObj.Entries, 11, "entry b", 4.0);
  AObj.Lines = {"line one", "", "line three"};
}

void ExpectSameItems(const TSerObjectList& A, const TSerObjectList& B) {
  ASSERT_EQ(A.Count(), B.Count());
  for (size_t i = 0; i < A.Count(); ++i) {
    auto& a = static_cast<const TItem&>(A[i]);
    auto& b = static_cast<const TItem&>(B[i]);
    EXPECT_NE(&a, &b) << "item " << i << " is shared, not copied";
    EXPECT_EQ(a.Id, b.Id) << "item " << i;
    EXPECT_EQ(a.Text, b.Text) << "item " << i;
    EXPECT_EQ(a.Weight, b.Weight) << "item " << i;
  }
}

void ExpectSame(const TAllKinds& A, const TAllKinds& B) {
  EXPECT_EQ(A.Version(), B.Version());
  EXPECT_EQ(A.Count, B.Count);
  EXPECT_EQ(A.Flag, B.Flag);
  EXPECT_EQ(A.Name, B.Name);
  EXPECT_EQ(A.Ratio, B.Ratio);
  EXPECT_EQ(A.Big, B.Big);
  EXPECT_EQ(A.Mode, B.Mode);
  EXPECT_EQ(A.Level, B.Level);
  EXPECT_EQ(A.Inner.Count, B.Inner.Count);
  EXPECT_EQ(A.Inner.Label, B.Inner.Label);
  ExpectSameItems(A.Items, B.Items);
  ExpectSameItems(A.Entries, B.Entries);
  EXPECT_EQ(A.Lines, B.Lines);
}

std::vector<std::string> ChildNames(pugi::xml_node ANode) {
  std::vector<std::string> names;
  for (pugi::xml_node c : ANode.children())
    names.emplace_back(c.name());
  return names;
}

std::string TempFile(const char* AName) {
  return ::testing::TempDir() + "qvx_ser_" + AName;
}

void WriteFile(const std::string& APath, const std::string& AText) {
  std::ofstream(APath, std::ios::binary) << AText;
}

std::string ErrorOf(const std::function<void()>& AAction) {
  try {
    AAction();
  } catch (const std::exception& E) {
    return E.what();
  }
  return "(no exception)";
}

TEST(SerObjectRoundTrip, EveryPropertyKindSurvivesAString) {
  TAllKinds src;
  Fill(src);
  TAllKinds dst;
  AddItem(dst.Items, 99, "replaced by the load", 0); // loading a list replaces its items
  dst.FromXMLString(src.ToXMLString("Settings"), "Settings");
  ExpectSame(src, dst);
}

TEST(SerObjectRoundTrip, FileHasDeclarationRootAndVersion) {
  TAllKinds src;
  Fill(src);
  std::string path = TempFile("roundtrip.xml");
  src.SaveToXMLFile(path, "Settings");

  std::ifstream in(path, std::ios::binary);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>", 0), 0u) << text;
  pugi::xml_document doc;
  ASSERT_TRUE(doc.load_string(text.c_str()));
  EXPECT_STREQ(doc.document_element().name(), "Settings");
  EXPECT_STREQ(doc.document_element().attribute("version").value(), "1");
  EXPECT_EQ(ChildNames(doc.document_element()),
            (std::vector<std::string>{"Version", "Count", "Flag", "Name", "Ratio", "Big", "Mode", "Level",
                                      "Inner", "Items", "Entries", "Lines"}));

  TAllKinds dst;
  dst.LoadFromXMLFile(path, "Settings");
  ExpectSame(src, dst);
  std::remove(path.c_str());
}

TEST(SerObjectRoundTrip, SubNodeNameWrapsTheProperties) {
  TNested src;
  src.Count = 42;
  pugi::xml_document doc;
  pugi::xml_node host = doc.append_child("Host");
  src.SaveToXML(host, "Sub");
  EXPECT_STREQ(host.child("Sub").child_value("Count"), "42");
  TNested dst;
  dst.LoadFromXML(host, "Sub");
  EXPECT_EQ(dst.Count, 42);
  dst.LoadFromXML(host, "Absent"); // nothing to read: unchanged
  EXPECT_EQ(dst.Count, 42);
}

TEST(SerObjectLists, ItemElementsAreNumberedOrRepeated) {
  TAllKinds src;
  Fill(src);
  pugi::xml_document doc;
  src.SaveToXML(doc.append_child("Settings"), "");
  pugi::xml_node settings = doc.child("Settings");
  EXPECT_EQ(ChildNames(settings.child("Items")), (std::vector<std::string>{"Item0", "Item1", "Item2"}));
  EXPECT_STREQ(settings.child("Items").child("Item2").child_value("Text"), "third");
  EXPECT_EQ(ChildNames(settings.child("Entries")), (std::vector<std::string>{"Entry", "Entry"}));
  EXPECT_EQ(ChildNames(settings.child("Lines")), (std::vector<std::string>{"Line", "Line", "Line"}));

  // A list saves nothing without a node name.
  pugi::xml_node bare = doc.append_child("Bare");
  src.Items.SaveToXML(bare, "");
  EXPECT_TRUE(ChildNames(bare).empty());
}

TEST(SerObjectLists, GapInNumbersEndsTheList) {
  TAllKinds src;
  Fill(src);
  pugi::xml_document doc;
  src.SaveToXML(doc.append_child("Settings"), "");
  pugi::xml_node items = doc.child("Settings").child("Items");
  items.remove_child("Item1");
  // Unnumbered lists take every element of the item name, others in between ignored.
  pugi::xml_node entries = doc.child("Settings").child("Entries");
  entries.insert_child_after("Stray", entries.first_child());

  TAllKinds dst;
  dst.LoadFromXML(doc.child("Settings"), "");
  ASSERT_EQ(dst.Items.Count(), 1u);
  EXPECT_EQ(static_cast<TItem&>(dst.Items[0]).Id, 1);
  ASSERT_EQ(dst.Entries.Count(), 2u);
  EXPECT_EQ(static_cast<TItem&>(dst.Entries[1]).Id, 11);
}

TEST(SerObjectLists, AssignCopiesDeepAndRejectsNil) {
  TSerObjectList src(SerFactory<TItem>());
  AddItem(src, 5, "five", 5.5);
  TSerObjectList dst(SerFactory<TItem>());
  AddItem(dst, 1, "old", 0);
  dst.Assign(&src);
  ExpectSameItems(src, dst);
  static_cast<TItem&>(src[0]).Text = "changed";
  EXPECT_EQ(static_cast<TItem&>(dst[0]).Text, "five");

  EXPECT_EQ(ErrorOf([&] { dst.Assign(nullptr); }), "Assign error, source is nil");
  EXPECT_THROW(dst.Assign(nullptr), std::invalid_argument);
}

TEST(SerObjectText, EnumsAndBoolsAreNumbers) {
  TAllKinds src;
  src.Mode = cmC;
  src.Level = TLevel::lvLow;
  src.Flag = true;
  pugi::xml_document doc;
  src.SaveToXML(doc.append_child("S"), "");
  EXPECT_STREQ(doc.child("S").child_value("Mode"), "2");
  EXPECT_STREQ(doc.child("S").child_value("Level"), "-1");
  EXPECT_STREQ(doc.child("S").child_value("Flag"), "1");

  // The declared last ordinal bounds what a file may hold.
  TAllKinds dst;
  EXPECT_EQ(ErrorOf([&] { dst.FromXMLString("<S><Mode>3</Mode></S>", "S"); }),
            "element S/Mode: \"3\" is out of range");
  EXPECT_EQ(ErrorOf([&] { dst.FromXMLString("<S><Level>128</Level></S>", "S"); }),
            "element S/Level: \"128\" is out of range");
  EXPECT_EQ(ErrorOf([&] { dst.FromXMLString("<S><Flag>true</Flag></S>", "S"); }),
            "element S/Flag: \"true\" is not 0 or 1");
}

TEST(SerObjectText, DoublesRoundTripExactlyWithAPoint) {
  const double values[] = {0.1,
                           1e-300,
                           -0.0,
                           123456.789,
                           std::numeric_limits<double>::max(),
                           std::numeric_limits<double>::denorm_min(),
                           -std::numeric_limits<double>::infinity()};
  std::string oldLocale = std::setlocale(LC_NUMERIC, nullptr);
  bool german = false;
  for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "de_DE", "German"})
    if (std::setlocale(LC_NUMERIC, name)) {
      german = true;
      break;
    }
  if (!german) std::printf("no German locale here: checking the C locale only\n");

  for (double v : values) {
    TItem src;
    src.Weight = v;
    std::string xml = src.ToXMLString("I");
    TItem dst;
    dst.FromXMLString(xml, "I");
    EXPECT_EQ(std::memcmp(&src.Weight, &dst.Weight, sizeof(double)), 0) << xml;
  }
  TItem item;
  item.Weight = 123456.789;
  pugi::xml_document doc;
  item.SaveToXML(doc.append_child("I"), "");
  EXPECT_STREQ(doc.child("I").child_value("Weight"), "123456.789");
  item.FromXMLString("<I><Weight>0.5</Weight></I>", "I");
  EXPECT_EQ(item.Weight, 0.5);
  std::setlocale(LC_NUMERIC, oldLocale.c_str());
}

TEST(SerObjectText, StringsKeepMarkupCharactersAndNonAscii) {
  TNested src;
  src.Label = "a<b>&c 'q' \"dq\" Gr\xC3\xBC\xC3\x9F"
              "e \xE2\x82\xAC \xF0\x9F\x98\x80 &amp; ]]>";
  TNested dst;
  dst.FromXMLString(src.ToXMLString("N"), "N");
  EXPECT_EQ(dst.Label, src.Label);

  src.Label = "  spaced  ";
  dst.FromXMLString(src.ToXMLString("N"), "N");
  EXPECT_EQ(dst.Label, "  spaced  ");

  // Entities written by other tools.
  dst.FromXMLString("<N><Label>&apos;x&apos; &quot;y&quot; &lt;&gt;&amp; &#233;</Label></N>", "N");
  EXPECT_EQ(dst.Label, "'x' \"y\" <>& \xC3\xA9");
}

TEST(SerObjectAssign, CopiesIntoSameOrDerivedClassOnly) {
  TAllKinds src;
  Fill(src);
  TMoreKinds derived;
  src.AssignTo(derived);
  ExpectSame(src, derived);
  EXPECT_EQ(derived.Extra, 9);
  static_cast<TItem&>(src.Items[0]).Id = 500; // deep copy: the copy keeps its own items
  EXPECT_EQ(static_cast<TItem&>(derived.Items[0]).Id, 1);

  TAllKinds base;
  EXPECT_EQ(ErrorOf([&] { derived.AssignTo(base); }), "Cannot assign a TMoreKinds to a TAllKinds");
  TOther other;
  EXPECT_EQ(ErrorOf([&] { src.AssignTo(other); }), "Cannot assign a TAllKinds to a TOther");
  EXPECT_THROW(other.AssignTo(src), std::invalid_argument);

  auto copy = derived.Clone();
  ASSERT_NE(dynamic_cast<TMoreKinds*>(copy.get()), nullptr);
  ExpectSame(derived, static_cast<TMoreKinds&>(*copy));
}

TEST(SerObjectLoad, MissingElementsKeepDefaultsUnknownOnesAreIgnored) {
  TAllKinds dst;
  dst.FromXMLString(
      "<?xml version='1.0'?><Settings version='1'><Count>5</Count><Inner><Label>x</Label></Inner>"
      "<Added>later version</Added></Settings>",
      "Settings");
  EXPECT_EQ(dst.Count, 5);
  EXPECT_EQ(dst.Inner.Label, "x");
  EXPECT_EQ(dst.Inner.Count, 7);
  EXPECT_EQ(dst.Name, "default");
  EXPECT_EQ(dst.Ratio, 0.25);
  EXPECT_EQ(dst.Level, TLevel::lvMid);
  EXPECT_EQ(dst.Items.Count(), 0u);
}

TEST(SerObjectLoad, BadFilesNameFileAndElementAndChangeNothing) {
  TAllKinds obj;
  Fill(obj);
  const std::string before = obj.ToXMLString("Settings");
  std::string path = TempFile("bad.xml");

  auto loadText = [&](const std::string& AText) {
    WriteFile(path, AText);
    return ErrorOf([&] { obj.LoadFromXMLFile(path, "Settings"); });
  };
  // Good values come before the bad one, in the object and in a list item, so a
  // loader that stores as it reads would leave them behind.
  const std::string head =
      "<Settings><Count>1</Count><Name>changed</Name><Items><Item0><Id>77</Id></Item0></Items>";
  EXPECT_EQ(loadText(head + "<Inner><Count>abc</Count></Inner></Settings>"),
            path + ": element Settings/Inner/Count: \"abc\" is not an integer");
  EXPECT_EQ(loadText(head + "<Inner><Count>2.5</Count></Inner></Settings>"),
            path + ": element Settings/Inner/Count: \"2.5\" is not an integer");
  EXPECT_EQ(loadText(head + "<Big>9223372036854775808</Big></Settings>"),
            path + ": element Settings/Big: \"9223372036854775808\" is out of range");
  EXPECT_EQ(loadText(head + "<Inner><Count>2147483648</Count></Inner></Settings>"),
            path + ": element Settings/Inner/Count: \"2147483648\" is out of range");
  EXPECT_EQ(loadText("<Settings><Items><Item0><Weight>1,5</Weight></Item0></Items></Settings>"),
            path + ": element Settings/Items/Item0/Weight: \"1,5\" is not a number");
  EXPECT_EQ(loadText("<Settings><Count>1</Count>"),
            path + ": not an XML document: Start-end tags mismatch at byte offset 25");
  EXPECT_EQ(loadText(""), path + ": not an XML document: No document element found at byte offset 0");
  EXPECT_EQ(loadText("<Other><Count>1</Count></Other>"), path + ": root element is Other, expected Settings");
  EXPECT_EQ(obj.ToXMLString("Settings"), before);

  std::remove(path.c_str());
  EXPECT_EQ(ErrorOf([&] { obj.LoadFromXMLFile(path, "Settings"); }),
            path + ": cannot read: No such file or directory");
  EXPECT_THROW(obj.LoadFromXMLFile(path, "Settings"), ESerLoadError);

  std::string unwritable = ::testing::TempDir() + "qvx_ser_no_such_dir/x.xml";
  EXPECT_EQ(ErrorOf([&] { obj.SaveToXMLFile(unwritable, "Settings"); }),
            unwritable + ": cannot write: No such file or directory");
  EXPECT_EQ(obj.ToXMLString("Settings"), before);
}

} // namespace
} // namespace qvx
