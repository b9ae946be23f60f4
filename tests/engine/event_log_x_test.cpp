// The modern source's portable part: the channel filter, and what asking for a live log
// does where there is no event log service.
#include "engine/event_log_x.h"

#include <gtest/gtest.h>

namespace qvx {
namespace {

TEST(EventLogInfoFilter, ExpressionTypeAndEmptyRules) {
  TEventLogInfoFilterX filter;
  const TEventLogInfoX security("Security", "Microsoft-Windows-Eventlog", 10, true, 0);
  const TEventLogInfoX emptyDebug("Microsoft-Windows-Foo/Debug", "Foo", 0, false, 3);
  EXPECT_TRUE(filter.Match(security));
  EXPECT_TRUE(filter.Match(emptyDebug));
  filter.FNonEmpty = TEventLogInfoFilterX::neDropEmpty;
  EXPECT_FALSE(filter.Match(emptyDebug));
  filter.FNonEmpty = TEventLogInfoFilterX::nePassAll;
  filter.FChannelType = {0, 1};
  EXPECT_TRUE(filter.Match(security));
  EXPECT_FALSE(filter.Match(emptyDebug));
  filter.FChannelType.clear();
  filter.SetRegEx("^microsoft-windows-.*/debug$"); // case ignored
  EXPECT_FALSE(filter.Match(security));
  EXPECT_TRUE(filter.Match(emptyDebug));
  EXPECT_THROW(filter.SetRegEx("(unclosed"), std::runtime_error); // a std::regex_error
  filter.SetRegEx("");
  EXPECT_TRUE(filter.Match(security));
}

TEST(EventLogInfo, AssignToCopiesEveryField) {
  const TEventLogInfoX a("System", "Owner", 42, true, 1);
  TEventLogInfoX b;
  a.AssignTo(b);
  EXPECT_EQ(b.LogName, "System");
  EXPECT_EQ(b.OwningPublisher, "Owner");
  EXPECT_EQ(b.EvtCount, 42);
  EXPECT_TRUE(b.Classic);
  EXPECT_EQ(b.ChannelType, 1);
}

#ifndef _WIN32
TEST(LiveLogs, NeedWindowsAndSaySo) {
  TEventLogX log;
  log.SetSourceName("Security");
  try {
    log.SetActive(true);
    FAIL() << "opened a live log";
  } catch (const ELiveLogUnavailable& e) {
    EXPECT_STREQ(e.what(), "Live event logs need Windows: the log \"Security\" cannot be read on this system; "
                           "open a saved .evtx file (or deep-scan a disk) instead");
  }
  EXPECT_FALSE(log.Active());
  EXPECT_THROW(log.SetMachineName("\\\\server01"), ELiveLogUnavailable);
  log.SetMachineName(""); // the local computer is fine
  TEventLogList logs;
  log.GetEventLogs(logs);
  EXPECT_EQ(logs.Count(), 0);
}
#endif

} // namespace
} // namespace qvx
