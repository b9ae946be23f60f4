// Color codes: the first matching code decides, priority changes with ChangeCodeIndex,
// and color code files with their version checks.
#include "view/color_codes.h"

#include <gtest/gtest.h>

namespace qvx {
namespace {

TColorCode Code(int32_t ATypes, const char* ASource, int32_t AId, const char* AText, bool ARegExp,
                int32_t AValue) {
  TColorCode code;
  code.EventTypes = ATypes;
  code.EventSource = ASource;
  code.EventID = AId;
  code.DescrText = AText;
  code.DescrRegExp = ARegExp;
  code.Value = AValue;
  return code;
}

TEST(ColorCodes, FirstMatchingCodeWinsAndPriorityCanChange) {
  TColorCodes codes;
  codes.AddCode(Code(1 << 4, "", -1, "", false, 1));                 // errors
  codes.AddCode(Code(0, "disk", 7, "", false, 2));                   // Disk 7, any type
  codes.AddCode(Code(0, "", -1, "^Logon (failed|denied)", true, 3)); // regular expression
  codes.AddCode(Code(0, "", -1, "SERVICE", false, 4));               // plain text, without case
  codes.AddCode(Code(0, "", -1, "", false, 5));                      // everything
  EXPECT_EQ(codes.FindColorCode(4, "Disk", 7, "")->Value, 1);
  EXPECT_EQ(codes.FindColorCode(3, "DISK", 7, "")->Value, 2);
  EXPECT_EQ(codes.FindColorCode(3, "Other", 7, "Logon failed for x")->Value, 3);
  EXPECT_EQ(codes.FindColorCode(3, "Other", 7, "The service stopped")->Value, 4);
  EXPECT_EQ(codes.FindColorCode(12, "Other", 1, "nothing")->Value, 5);
  // Only codes with a description text take part in a description search.
  EXPECT_EQ(codes.FindColorCode(4, "Disk", 7, "The service stopped", true)->Value, 4);
  EXPECT_EQ(codes.FindColorCode(4, "Disk", 7, "nothing", true), nullptr);
  codes.ChangeCodeIndex(4, 0); // the catch-all first now decides for every event
  EXPECT_EQ(codes.FindColorCode(4, "Disk", 7, "")->Value, 5);
  codes.RemoveCodeIndex(0);
  EXPECT_EQ(codes.FindColorCode(4, "Disk", 7, "")->Value, 1);
  codes.ClearAll();
  EXPECT_EQ(codes.FindColorCode(4, "Disk", 7, ""), nullptr);
}

TEST(ColorCodes, FilesRoundTripAndCheckTheirVersion) {
  TColorCodes codes;
  TColorCode bold = Code(1 << 13, "Security", 4625, "a<b & 'c'", true, 0x0000FF);
  bold.FontStyles = fsBold | fsItalic;
  codes.AddCode(bold);
  codes.AddCode(Code(0, "", -1, "", false, 0x123456));
  TColorCodes loaded;
  loaded.LoadFromString(codes.SaveToString());
  ASSERT_EQ(loaded.Count(), 2u);
  EXPECT_EQ(loaded.GetColorCode(0).DescrText, "a<b & 'c'");
  EXPECT_EQ(loaded.GetColorCode(0).FontStyles, fsBold | fsItalic);
  EXPECT_EQ(loaded.GetColorCode(1).EventID, -1);
  EXPECT_EQ(loaded.SaveToString(), codes.SaveToString());

  auto load = [&](const std::string& AVersion) {
    std::string xml = "<QVEX_Colors";
    xml.append(AVersion).append(
        "><ColorCodes><ColorCode><Value>#FF0000</Value></ColorCode></ColorCodes></QVEX_Colors>");
    loaded.LoadFromString(xml);
  };
  load(" version='2'");
  EXPECT_EQ(loaded.GetColorCode(0).Value, 0x0000FF); // #RRGGBB is read as 0x00BBGGRR
  load(" version='1'");
  EXPECT_EQ(loaded.Count(), 1u);
  for (const auto& [version, message] :
       {std::pair<std::string, std::string>{" version='2.5'",
                                            "This file was saved with a newer version of this program"},
        {" version='x'", "Invalid version attribute"},
        {"", "Invalid version attribute"}}) {
    try {
      load(version);
      ADD_FAILURE() << "loaded" << version;
    } catch (const EColorCodesError& e) {
      EXPECT_EQ(std::string(e.what()), message);
    }
  }
  // Nothing half-loaded: a bad code leaves the list as it was.
  codes.ClearAll();
  codes.AddCode(Code(0, "", -1, "", false, 9));
  EXPECT_THROW(
      codes.LoadFromString("<QVEX_Colors version='2'><ColorCodes><ColorCode><Value>1</Value></ColorCode>"
                           "<ColorCode><EventID>abc</EventID></ColorCode></ColorCodes></QVEX_Colors>"),
      EColorCodesError);
  EXPECT_THROW(codes.LoadFromString("<QVEX_Colors version='2'><ColorCodes><ColorCode><DescrText>(</DescrText>"
                                    "<DescrRegExp>1</DescrRegExp></ColorCode></ColorCodes></QVEX_Colors>"),
               EColorCodesError);
  ASSERT_EQ(codes.Count(), 1u);
  EXPECT_EQ(codes.GetColorCode(0).Value, 9);
}

} // namespace
} // namespace qvx
