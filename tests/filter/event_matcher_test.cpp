// The filter applied to events as they are read, clause by clause as the store applies it.
#include "filter/event_matcher.h"

#include "engine/event_log_x.h"

#include <gtest/gtest.h>

namespace qvx {
namespace {

struct TEvent {
  TEventItemX Item{nullptr};
  explicit TEvent(uint32_t AId, TEventType AType = EVT_INFORMATION, const char* ASource = "Disk",
                  const char* AMessage = "The disk is full.") {
    Item.FEventID = AId;
    Item.FEventType = AType;
    // Built as strings first: g++ 12 misreads assigning the pointers here (-Wrestrict).
    Item.FSourceName = std::string(ASource);
    Item.FEvtMessage = std::string(AMessage);
    Item.FComputername = "PC1";
  }
};

double Day(const char* AText) {
  double days = 0;
  EXPECT_TRUE(ParseDateTimeText(AText, days));
  return days;
}

TEST(EventMatcher, TypesListsIdsAndDescriptions) {
  TEventFilter filter;
  filter.EVT_INFORMATION = false;
  filter.Sources = {"disk"}; // lists ignore case, as the store's do
  filter.IDs = "1-10!5";
  filter.DescrText = "DISK";
  TEventMatcher matcher(filter, 0);
  EXPECT_TRUE(matcher.Matches(TEvent(7, EVT_ERROR).Item, 0));
  EXPECT_FALSE(matcher.Matches(TEvent(7, EVT_INFORMATION).Item, 0));
  EXPECT_FALSE(matcher.Matches(TEvent(5, EVT_ERROR).Item, 0));
  EXPECT_FALSE(matcher.Matches(TEvent(11, EVT_ERROR).Item, 0));
  EXPECT_FALSE(matcher.Matches(TEvent(7, EVT_ERROR, "Other").Item, 0));
  EXPECT_FALSE(matcher.Matches(TEvent(7, EVT_ERROR, "Disk", "nothing here").Item, 0));
  filter.CaseSensitive = true;
  EXPECT_FALSE(TEventMatcher(filter, 0).Matches(TEvent(7, EVT_ERROR).Item, 0));
  filter.CaseSensitive = false;
  filter.IDsExcept = filter.SourcesExclude = filter.DescrTextExclude = true;
  EXPECT_TRUE(TEventMatcher(filter, 0).Matches(TEvent(5, EVT_ERROR, "Other", "x").Item, 0));
}

TEST(EventMatcher, RegularExpressionsAndTheirErrors) {
  TEventFilter filter;
  filter.DescrText = "^The disk is (full|empty)\\.$";
  filter.DescrTextRegExp = true;
  TEventMatcher matcher(filter, 0);
  EXPECT_TRUE(matcher.Matches(TEvent(1).Item, 0));
  EXPECT_FALSE(matcher.Matches(TEvent(1, EVT_ERROR, "Disk", "The disk is fine.").Item, 0));
  // A missing description is searched through its data values.
  EXPECT_TRUE(TEventMatcher(filter, 0).Matches(TEvent(1, EVT_ERROR, "Disk", "\x01The disk is empty.").Item, 0));
  filter.DescrText = "(unclosed";
  try {
    TEventMatcher bad(filter, 0);
    FAIL() << "compiled";
  } catch (const std::invalid_argument& e) {
    EXPECT_EQ(std::string(e.what()), "regular expression \"(unclosed\": missing closing parenthesis at offset 9");
  }
}

TEST(EventMatcher, DateRangesAndTheLastPeriod) {
  TEventFilter filter;
  filter.ByDate = filter.ByTime = true;
  filter.FromTime = Day("2024-03-01 08:00:00");
  filter.ToTime = Day("2024-03-05 17:00:00");
  const TEvent event(1);
  TEventMatcher continuous(filter, 0);
  EXPECT_TRUE(continuous.Matches(event.Item, Day("2024-03-03 20:00:00")));
  EXPECT_FALSE(continuous.Matches(event.Item, Day("2024-03-05 17:00:01")));
  filter.Separately = true; // a daily window
  TEventMatcher daily(filter, 0);
  EXPECT_FALSE(daily.Matches(event.Item, Day("2024-03-03 20:00:00")));
  EXPECT_TRUE(daily.Matches(event.Item, Day("2024-03-03 08:00:00")));
  filter = TEventFilter();
  filter.LastDays = 1;
  filter.LastHours = 6;
  TEvent old(1), recent(1);
  old.Item.FTimeGenerated = Day("2024-02-29 23:59:00"); // 30 hours and a minute before "now"
  recent.Item.FTimeGenerated = Day("2024-03-02 05:00:00");
  TEventMatcher last(filter, Day("2024-03-02 06:00:00"));
  EXPECT_FALSE(last.Matches(old.Item, 0));
  EXPECT_TRUE(last.Matches(recent.Item, 0));
}

TEST(EventMatcher, ConditionsThatNeedTheStoreAreRefused) {
  TEventFilter filter;
  filter.DescrFilter = {{"LogonType", coEquals, "3"}};
  EXPECT_THROW(TEventMatcher(filter, 0), std::invalid_argument);
}

} // namespace
} // namespace qvx
