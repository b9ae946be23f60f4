// The filter object as JSON: the detection level criterion.
#include "filter/filter_json.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace qvx {
namespace {

using nlohmann::json;

TEST(FilterJsonDetections, TheLevelByNameOrNumberRoundTrips) {
  EXPECT_EQ(FilterFromJson(json::parse(R"({"minDetectionLevel": "high"})")).MinDetectionLevel, dlHigh);
  EXPECT_EQ(FilterFromJson(json::parse(R"({"minDetectionLevel": "LOW"})")).MinDetectionLevel, dlLow);
  EXPECT_EQ(FilterFromJson(json::parse(R"({"minDetectionLevel": 0})")).MinDetectionLevel, dlInformational);
  EXPECT_EQ(FilterFromJson(json::parse(R"({"minDetectionLevel": null})")).MinDetectionLevel, dlNone);
  EXPECT_EQ(FilterFromJson(json::parse("{}")).MinDetectionLevel, dlNone);
  TEventFilter filter;
  EXPECT_FALSE(FilterToJson(filter).contains("minDetectionLevel"));
  filter.MinDetectionLevel = dlCritical;
  const json out = FilterToJson(filter);
  EXPECT_EQ(out["minDetectionLevel"], "critical");
  EXPECT_EQ(FilterFromJson(out).MinDetectionLevel, dlCritical);
}

TEST(FilterJsonDetections, AnythingElseIsRefusedNamingTheMember) {
  for (const char* bad : {R"({"minDetectionLevel": "3) OR 1=1 --"})", R"({"minDetectionLevel": 5})",
                          R"({"minDetectionLevel": -1})", R"({"minDetectionLevel": 2.5})", R"({"minDetectionLevel": [2]})",
                          R"({"minDetectionLevel": true})"}) {
    try {
      FilterFromJson(json::parse(bad));
      ADD_FAILURE() << "accepted: " << bad;
    } catch (const EFilterJsonError& e) {
      EXPECT_NE(std::string(e.what()).find("minDetectionLevel"), std::string::npos) << e.what();
    }
  }
}

// A pattern that does not compile is refused with PCRE2's reason, before any query runs.
TEST(FilterJsonDescription, ARegularExpressionThatDoesNotCompileIsRefused) {
  try {
    FilterFromJson({{"descr", {{"text", "("}, {"regex", true}}}});
    ADD_FAILURE() << "accepted";
  } catch (const EFilterJsonError& e) {
    EXPECT_EQ(std::string(e.what()),
              "filter: \"descr.text\" is not a regular expression that compiles: missing closing parenthesis at offset 1");
  }
  EXPECT_EQ(FilterFromJson({{"descr", {{"text", "("}, {"regex", false}}}}).DescrText, "(");
  try {
    FilterFromJson({{"descr", {{"text", std::string("\0", 1)}}}});
    ADD_FAILURE() << "a NUL was accepted";
  } catch (const EFilterJsonError& e) {
    EXPECT_EQ(std::string(e.what()), "filter: \"descr.text\" cannot hold a NUL character");
  }
  EXPECT_TRUE(FilterFromJson({{"descr", {{"text", "a(b|c)"}, {"regex", true}}}}).DescrTextRegExp);
}

// Event IDs follow one grammar: IDs and ranges separated by commas, and after one '!'
// those to leave out. Anything else is refused with the grammar, never read as no IDs.
TEST(FilterJsonIds, OnlyTheDocumentedGrammarIsTaken) {
  for (const char* good : {"4624", "4624,4625", " 4624 , 4625-4630 ", "4624,4625-4630!4627", "!4627", "0-4294967295"})
    EXPECT_EQ(FilterFromJson({{"ids", good}}).IDs, good) << good;
  for (const char* bad : {"4624;4625", "abc", "1 OR 1=1", "4624,,4625", "4630-4625", "4624!4625!4626", "4624-",
                          "99999999999", "4624,"}) {
    try {
      FilterFromJson({{"ids", bad}});
      ADD_FAILURE() << "accepted: " << bad;
    } catch (const EFilterJsonError& e) {
      EXPECT_EQ(std::string(e.what()), "filter: \"ids\" must be event IDs and ranges separated by commas, with '!' "
                                       "before the ones to leave out (4624,4625-4630!4627)")
          << bad;
    }
  }
}

} // namespace
} // namespace qvx
