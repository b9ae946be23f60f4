// quorvex events on classic .evt logs.
#pragma once

#include "app/commands.h"
#include "engine/classic_log.h"
#include "engine/event_log_x.h"

#include <cstdio>
#include <functional>
#include <string>

namespace qvx::app {

// True when the file begins with a classic log header (size 48, "LfLe").
bool IsClassicLog(const std::string& APath);

// The log a saved classic file came from: the system's file names (AppEvent.Evt is
// Application, SecEvent.Evt Security, SysEvent.Evt System), else the file's stem.
std::string LogNameOf(const std::string& APath);

// A classic record in the shape the event writers take: level, keywords and SID text
// as the system gives them for classic events, and the event's XML.
void ClassicToX(TEventItem& AItem, const std::string& AChannel, TEventItemX& AOut);

// What the events command shares with the classic path.
struct TClassicHooks {
  std::function<void(TEventLogBase&)> ApplyTimeZone;
  std::function<void(std::FILE*, const std::string&, uint64_t, TIssueList&, bool)> PrintSummary;
};

// Lists the records of a classic .evt file, newest first. Returns the exit status.
int ReadClassicEvents(const TEventsOptions& AOptions, const TClassicHooks& AHooks, std::FILE* AOut, std::FILE* AErr);

} // namespace qvx::app
