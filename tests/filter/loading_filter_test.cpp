// Loading filters: translation of the typed texts, their XML form with its kept quirks,
// and the channel filter of imaged computers.
#include "filter/loading_filter.h"

#include <gtest/gtest.h>

#include <pugixml.hpp>

#include <sstream>

namespace qvx {
namespace {

std::string Xml(const TLogLoadingFilter& AFilter) {
  pugi::xml_document document;
  AFilter.SaveToXML(document.append_child("Root"), "Loading");
  std::ostringstream out;
  document.save(out, "", pugi::format_raw);
  return out.str();
}

TEST(LogLoadingFilter, FreshAndResetFiltersAreEmpty) {
  TLogLoadingFilter filter;
  EXPECT_TRUE(filter.IsEmpty());
  filter.LoadEventTypes = 0; // no type bit counts as all types
  EXPECT_TRUE(filter.IsEmpty());
  filter.LoadSourceExcl = filter.LoadDescrExcl = true; // flags alone restrict nothing
  EXPECT_TRUE(filter.IsEmpty());
  filter.LoadEvents = lemLastEvents;
  EXPECT_FALSE(filter.IsEmpty());
  filter.Reset();
  EXPECT_TRUE(filter.IsEmpty());
  EXPECT_EQ(filter.LoadEventTypes, kAllEventTypes);
}

TEST(LogLoadingFilter, TranslatesNamesAndEventIds) {
  TLogLoadingFilter filter;
  filter.LoadSource = "  !Disk, Service Control Manager ";
  filter.LoadUser = "CORP\\alice";
  filter.LoadEventIDStr = "4624,4625-4630!4627";
  filter.TranslateStrings();
  EXPECT_EQ(filter.LoadSources, (std::vector<std::string>{"Disk", "Service Control Manager"}));
  EXPECT_TRUE(filter.LoadSourceExcl);
  EXPECT_EQ(filter.LoadUsers, (std::vector<std::string>{"CORP\\alice"}));
  EXPECT_FALSE(filter.LoadUserExcl);
  EXPECT_TRUE(filter.LoadsEventId(4624));
  EXPECT_TRUE(filter.LoadsEventId(4630));
  EXPECT_FALSE(filter.LoadsEventId(4627));
  EXPECT_FALSE(filter.LoadsEventId(4631));
  // Only exclusions: everything else is read.
  filter.LoadEventIDStr = "!7036";
  filter.TranslateStrings();
  EXPECT_TRUE(filter.LoadsEventId(1));
  EXPECT_FALSE(filter.LoadsEventId(7036));
  // The type mask: bit n is TEventType n.
  EXPECT_TRUE(LoadsEventType(1 << EVT_ERROR, EVT_ERROR));
  EXPECT_FALSE(LoadsEventType(1 << EVT_ERROR, EVT_WARNING));
  EXPECT_TRUE(LoadsEventType(0, EVT_AUDIT_FAILURE));
}

TEST(LogLoadingFilter, XmlFormKeepsItsQuirks) {
  TLogLoadingFilter filter;
  filter.LoadEvents = lemLastPeriod;
  filter.LastDays = 2;
  filter.LoadEventTypes = 1 << EVT_ERROR;
  filter.LoadEventIDStr = " 100-200 ";
  filter.LoadComputer = "!PC1,PC2";
  filter.LoadDescrParam = "LogonType";
  const std::string xml = Xml(filter);
  EXPECT_EQ(xml,
            "<?xml version=\"1.0\"?><Root><Loading><LoadEvents>1</LoadEvents><LoadLastDays>2</LoadLastDays>"
            "<LoadLastHours>0</LoadLastHours><LoadNumEvents>0</LoadNumEvents><LoadEventTypes>16</LoadEventTypes>"
            "<LoadEventIDs>100-200</LoadEventIDs><LoadSource></LoadSource><LoadUser></LoadUser>"
            "<LoadComputer>!PC1,PC2</LoadComputer><LoadDescr></LoadDescr><LoadDescrParams>!PC1,PC2</LoadDescrParams>"
            "</Loading></Root>");
  pugi::xml_document document;
  ASSERT_TRUE(document.load_string(xml.c_str()));
  TLogLoadingFilter loaded;
  loaded.LoadFromXML(document.child("Root"), "Loading");
  // The computer text arrives in both fields; the IDs load back because names are
  // looked up without regard to case ("LoadEventIds" finds "LoadEventIDs").
  EXPECT_EQ(loaded.LoadComputer, "!PC1,PC2");
  EXPECT_EQ(loaded.LoadDescrParam, "!PC1,PC2");
  EXPECT_TRUE(loaded.LoadDescrParamrExcl);
  EXPECT_EQ(loaded.LoadEventIDStr, "100-200");
  EXPECT_TRUE(loaded.LoadsEventId(150));
  EXPECT_FALSE(loaded.LoadsEventId(99));
  EXPECT_EQ(loaded.LastDays, 2);
  EXPECT_EQ(loaded.LoadEventTypes, 16);
}

TEST(LogLoadingFilter, TextWhereANumberBelongsChangesNothing) {
  TLogLoadingFilter filter;
  filter.NumEvents = 5;
  pugi::xml_document document;
  ASSERT_TRUE(document.load_string("<Root><L><LoadNumEvents>many</LoadNumEvents><LoadUser>x</LoadUser></L></Root>"));
  try {
    filter.LoadFromXML(document.child("Root"), "L");
    FAIL() << "loaded";
  } catch (const ESerLoadError& e) {
    EXPECT_EQ(std::string(e.what()), "element Root/L/LoadNumEvents: \"many\" is not an integer");
  }
  EXPECT_EQ(filter.NumEvents, 5);
  EXPECT_EQ(filter.LoadUser, "");
}

TEST(ForensicLoadingFilter, SavesItsChannelsAndAssigns) {
  TForensicLoadingFilter filter;
  EXPECT_TRUE(filter.IsEmpty());
  filter.LoadChannels = {"Security", "Microsoft-Windows-Sysmon/Operational"};
  filter.LoadChannelsExcl = true;
  TForensicLoadingFilter loaded;
  loaded.FromXMLString(filter.ToXMLString("Channels"), "Channels");
  EXPECT_EQ(loaded.LoadChannels, filter.LoadChannels);
  EXPECT_TRUE(loaded.LoadChannelsExcl);
  TForensicLoadingFilter copy;
  filter.AssignTo(copy);
  EXPECT_EQ(copy.LoadChannels, filter.LoadChannels);
}

} // namespace
} // namespace qvx
