#include "images/evidence_image.h"

#include "images/image_error.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <fstream>

namespace qvx {
namespace {

struct TSplit {
  bool Ok = false;
  std::string Image, Volume, Path;
};

TSplit Split(const std::string& AName) {
  TSplit s;
  s.Ok = TEvidenceImage::SplitName(AName, s.Image, s.Volume, s.Path);
  return s;
}

class EvidenceImageNames : public ::testing::Test {
protected:
  void SetUp() override {
    FImage = (test::ScratchDir() / "disk.raw").string();
    std::ofstream(FImage) << "x";
  }
  std::string FImage;
};

TEST_F(EvidenceImageNames, SplitsVolumeAndShadowCopy) {
  TSplit s = Split(FImage + "@2:vss1::/Windows/System32");
  ASSERT_TRUE(s.Ok);
  EXPECT_EQ(s.Image, FImage);
  EXPECT_EQ(s.Volume, "2:vss1");
  EXPECT_EQ(s.Path, "/Windows/System32");

  s = Split(FImage + ":vss12::/x");
  ASSERT_TRUE(s.Ok);
  EXPECT_EQ(s.Image, FImage);
  EXPECT_EQ(s.Volume, ":vss12");

  s = Split(FImage + "@+1048576:vss3::");
  ASSERT_TRUE(s.Ok);
  EXPECT_EQ(s.Volume, "+1048576:vss3");
  EXPECT_EQ(s.Path, "/");

  s = Split(FImage + "@2::/x");
  ASSERT_TRUE(s.Ok);
  EXPECT_EQ(s.Volume, "2");
}

TEST_F(EvidenceImageNames, LeavesOtherNamesAlone) {
  EXPECT_FALSE(Split(FImage + "::$DATA").Ok);
  EXPECT_FALSE(Split(FImage + "x:vss1::/x").Ok);
  EXPECT_FALSE(Split(FImage).Ok);
  // ":vssx" is no shadow copy suffix, and no file is named so.
  EXPECT_FALSE(Split(FImage + ":vssx::/x").Ok);
}

TEST(EvidenceImageShadow, TakesTheCopyNumber) {
  std::string volume = "2:vss1";
  EXPECT_EQ(TEvidenceImage::TakeShadow(volume, "disk.raw"), 1u);
  EXPECT_EQ(volume, "2");
  volume = ":vss7";
  EXPECT_EQ(TEvidenceImage::TakeShadow(volume, "disk.raw"), 7u);
  EXPECT_EQ(volume, "");
  volume = "+512";
  EXPECT_EQ(TEvidenceImage::TakeShadow(volume, "disk.raw"), 0u);
  EXPECT_EQ(volume, "+512");
}

TEST(EvidenceImageShadow, RejectsACopyWithoutANumber) {
  for (const std::string bad : {"2:vss", "2:vss0", "2:vss1x"}) {
    std::string volume = bad;
    try {
      TEvidenceImage::TakeShadow(volume, "disk.raw");
      ADD_FAILURE() << bad << " was taken";
    } catch (const EImageError& e) {
      EXPECT_EQ(std::string(e.what()), "disk.raw: shadow copy " + bad.substr(2) + " is not vss1, vss2, ...");
    }
  }
}

TEST(EvidenceImageShadow, SpellsVolumesAndCopies) {
  TImageVolume numbered;
  numbered.Number = 2;
  TImageVolume byOffset;
  byOffset.Offset = 1048576;
  EXPECT_EQ(TEvidenceImage::VolumeRef(numbered), "2");
  EXPECT_EQ(TEvidenceImage::VolumeRef(numbered, 3), "2:vss3");
  EXPECT_EQ(TEvidenceImage::VolumeRef(byOffset), "+1048576");
  EXPECT_EQ(TEvidenceImage::VolumeRef(byOffset, 1), "+1048576:vss1");
}

} // namespace
} // namespace qvx
