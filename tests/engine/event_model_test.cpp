// The event record and log source model: type conversions, the issue list, the
// not-found text, time shift modes and the base behaviour of records and sources.
#include "engine/event_model.h"

#include <gtest/gtest.h>

namespace qvx {
namespace {

TEST(EventType, ClassicConversionsAreDeliberatelyAsymmetric) {
  EXPECT_EQ(ClassicToEventType(0), EVT_INFORMATION); // classic success reads as information
  EXPECT_EQ(ClassicToEventType(4), EVT_INFORMATION);
  EXPECT_EQ(ClassicToEventType(1), EVT_ERROR);
  EXPECT_EQ(ClassicToEventType(2), EVT_WARNING);
  EXPECT_EQ(ClassicToEventType(8), EVT_AUDIT_SUCCESS);
  EXPECT_EQ(ClassicToEventType(16), EVT_AUDIT_FAILURE);
  EXPECT_EQ(ClassicToEventType(3), EVT_SUCCESS);
  EXPECT_EQ(EventTypeToClassic(EVT_INFORMATION), 4u);
  EXPECT_EQ(EventTypeToClassic(EVT_SUCCESS), 0u);
  EXPECT_EQ(EventTypeToClassic(EVT_CRITICAL), 0u);
  EXPECT_EQ(EventTypeToClassic(EVT_VERBOSE), 0u);
  EXPECT_EQ(EventTypeToClassic(EVT_AUDIT_FAILURE), 16u);
}

TEST(EventType, MasksAreTheTypeFilterBits) {
  EXPECT_EQ(EventTypeToMask(EVT_SUCCESS), 1u);
  EXPECT_EQ(EventTypeToMask(EVT_INFORMATION), 2u);
  EXPECT_EQ(EventTypeToMask(EVT_WARNING), 4u);
  EXPECT_EQ(EventTypeToMask(EVT_ERROR), 8u);
  EXPECT_EQ(EventTypeToMask(EVT_CRITICAL), 16u);
  EXPECT_EQ(EventTypeToMask(EVT_VERBOSE), 32u);
  EXPECT_EQ(EventTypeToMask(EVT_AUDIT_SUCCESS), 65536u);
  EXPECT_EQ(EventTypeToMask(EVT_AUDIT_FAILURE), 131072u);
  for (int t = EVT_RESERVED1; t <= EVT_RESERVED6; ++t) EXPECT_EQ(EventTypeToMask(static_cast<TEventType>(t)), 0u);
}

TEST(IssueList, KeepsTheCapThenOneEllipsis) {
  TIssueList list(2000);
  for (int i = 0; i < 2002; ++i) list.AddIssue("issue " + std::to_string(i));
  ASSERT_EQ(list.Lines().size(), 2001u);
  EXPECT_EQ(list.Lines()[1999], "issue 1999");
  EXPECT_EQ(list.Lines().back(), "...");
  EXPECT_EQ(list.IssueCount(), 2002);
  list.Clear();
  EXPECT_TRUE(list.Lines().empty());
  EXPECT_EQ(list.IssueCount(), 0);
}

TEST(IssueList, MinusOneMeansNoCap) {
  TIssueList list(-1);
  for (int i = 0; i < 3000; ++i) list.AddIssue("x");
  EXPECT_EQ(list.Lines().size(), 3000u);
}

TEST(SplitSemicolonList, StopsItemsAtSemicolonsAndControlCharacters) {
  EXPECT_EQ(SplitSemicolonList("a.dll;  b.dll;c.dll"), (TStringList{"a.dll", "b.dll", "c.dll"}));
  EXPECT_EQ(SplitSemicolonList("a.dll\nb.dll"), (TStringList{"a.dll", "b.dll"}));
  EXPECT_EQ(SplitSemicolonList("one file.dll"), (TStringList{"one file.dll"}));
  EXPECT_TRUE(SplitSemicolonList("").empty());
}

TEST(DescriptionNotFound, ExactTextWithLow16BitsAndStrings) {
  EXPECT_EQ(BuildDescriptionNotFound(0x80001234, "MySource", {"first", "second"}),
            "The description for Event ID ( 4660 ) in Source ( MySource ) could not be found.\r\n"
            "Either the component that raises this event is not installed on the computer or the installation "
            "is corrupted.You can install or repair the component or try to change Description Server.\r\n\r\n"
            "The following information was included with the event:\r\nfirst\r\nsecond");
}

// A source that records which open was asked for.
class TProbeLog : public TEventLogBase {
public:
  void OpenEventLog() override { Opened = "live"; FActive = true; }
  void CloseEventLog() override { FActive = false; }
  int64_t GetCount() override { return 0; }
  void OpenBackupEventLog() override { Opened = "file"; FActive = true; }
  void GetItemsFromData(std::string& AText, const std::string&, uint32_t, uint16_t, uint8_t, uint8_t,
                        const TStringList&) override { AText.clear(); }
  void GetEventSources(TStringList&) override {}
  void GetEventSourcesByLog(const std::string&, TStringList&) override {}
  void GetEventLogs(TEventLogList&) override {}
  void Clear(const std::string&) override {}
  void BackupEventlog(const std::string&) override {}
  TEventItemBase* EventNext() override { return nullptr; }
  int64_t GetLastCount() override { return 0; }
  std::string Opened;
};

class TProbeItem : public TEventItemBase {
public:
  using TEventItemBase::TEventItemBase;
  const std::string& GetCategoryName() override { return FCategoryName; }
};

TEST(EventLogBase, BlankBackupFileNameOpensTheLiveLog) {
  TProbeLog log;
  log.SetBackupFileName("   ");
  log.SetActive(true);
  EXPECT_EQ(log.Opened, "live");
  log.SetActive(false);
  log.SetBackupFileName("saved.evtx");
  log.SetActive(true);
  EXPECT_EQ(log.Opened, "file");
}

TEST(EventLogBase, CreatedWithDefaultDescriptionServerAndLocalZone) {
  TProbeLog log;
  EXPECT_EQ(log.DescriptionServer(), "[DEFAULT]");
  EXPECT_EQ(log.IssueList().MaxCount(), 2000);
  int mode = -1, shift = 0;
  std::string zone;
  log.GetTimeShift(mode, shift, zone);
  EXPECT_EQ(mode, 1);
  EXPECT_FALSE(zone.empty());
}

TEST(EventItem, WithoutSidTheUserIsNotAvailable) {
  TProbeLog log;
  TProbeItem item(&log);
  EXPECT_EQ(item.GetUserName(), "N/A");
}

TEST(EventItem, SidResolvesThroughTheOwnersCache) {
  TProbeLog log;
  TProbeItem item(&log);
  const uint8_t system[] = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}; // S-1-5-18
  item.SetSID(system, sizeof system);
  EXPECT_EQ(item.GetUserName(), "\\SYSTEM");
}

TEST(EventItem, AssignCopiesRecordFieldsButNotLazyNames) {
  TProbeLog log;
  TProbeItem a(&log), b(&log);
  a.FRecordNumber = 7;
  a.FEventID = 4624;
  a.FStrings = {"x", "y"};
  a.FCategoryName = "Logon";
  const uint8_t data[] = {1, 2, 3};
  a.SetData(data, 3);
  b.Assign(a);
  EXPECT_EQ(b.FRecordNumber, 7);
  EXPECT_EQ(b.FEventID, 4624u);
  EXPECT_EQ(b.FStrings, a.FStrings);
  EXPECT_EQ(b.FDataLength, 3u);
  EXPECT_TRUE(b.FCategoryName.empty());
  a.Clear();
  EXPECT_EQ(a.FDataLength, 0u);
  EXPECT_EQ(a.FCategoryName, "Logon"); // Clear keeps the lazily filled names
}

// 2024-03-10 23:30 UTC as a day count.
double Utc(uint16_t AYear, uint16_t AMonth, uint16_t ADay, uint16_t AHour, uint16_t AMinute) {
  TSystemTime t;
  t.wYear = AYear;
  t.wMonth = AMonth;
  t.wDay = ADay;
  t.wHour = AHour;
  t.wMinute = AMinute;
  return SystemTimeToDays(t);
}

TEST(TimeShift, FixedShiftCrossesMidnight) {
  TProbeLog log;
  log.SetTimeShift(0, 60, {});
  const TSystemTime shown = DaysToSystemTime(log.ConvertTime(Utc(2024, 3, 10, 23, 30)));
  EXPECT_EQ(shown.wDay, 11);
  EXPECT_EQ(shown.wHour, 0);
  EXPECT_EQ(shown.wMinute, 30);
}

TEST(TimeShift, UtcModeLeavesTimesAlone) {
  TProbeLog log;
  log.SetTimeShift(2, 0, {});
  int mode, shift;
  std::string zone;
  log.GetTimeShift(mode, shift, zone);
  EXPECT_EQ(zone, "UTC");
  EXPECT_DOUBLE_EQ(log.ConvertTime(45000.25), 45000.25);
}

TEST(TimeShift, NamedZoneAppliesItsDaylightRulePerEvent) {
  TProbeLog log;
  log.SetTimeShift(3, 0, "pacific standard time");
  int mode, shift;
  std::string zone;
  log.GetTimeShift(mode, shift, zone);
  ASSERT_EQ(mode, 3);
  EXPECT_EQ(zone, "Pacific Standard Time");
  // Winter: UTC-8; summer: UTC-7; the second Sunday of March 2024 (10th) at 02:00 local.
  EXPECT_EQ(log.ShiftMinutesAt(Utc(2024, 1, 15, 12, 0)), -480);
  EXPECT_EQ(log.ShiftMinutesAt(Utc(2024, 7, 15, 12, 0)), -420);
  EXPECT_EQ(log.ShiftMinutesAt(Utc(2024, 3, 10, 9, 59)), -480);
  EXPECT_EQ(log.ShiftMinutesAt(Utc(2024, 3, 10, 10, 0)), -420);
  const TSystemTime shown = DaysToSystemTime(log.ConvertTime(Utc(2024, 7, 15, 3, 0)));
  EXPECT_EQ(shown.wDay, 14); // 20:00 the evening before
  EXPECT_EQ(shown.wHour, 20);
}

TEST(TimeShift, UnknownZoneFallsBackToTheLocalZone) {
  TProbeLog log;
  log.SetTimeShift(3, 0, "No Such Standard Time");
  int mode, shift;
  std::string zone;
  log.GetTimeShift(mode, shift, zone);
  EXPECT_EQ(mode, 1);
  EXPECT_EQ(zone, CurrentTimeZoneKeyName());
}

} // namespace
} // namespace qvx
