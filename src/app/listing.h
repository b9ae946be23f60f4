// What listing the events of any log needs: the writer with its row colours, the
// progress bar and the filter, and the counts they report.
#pragma once

#include "app/commands.h"
#include "app/progress.h"
#include "filter/event_matcher.h"

#include <cstdio>
#include <memory>

namespace qvx::app {

class TListing {
public:
  // Raises (before anything is read) for a color code file or a filter that cannot be used.
  TListing(const TEventsOptions& AOptions, bool ADescriptions, std::FILE* AOut, std::FILE* AErr);

  // Counts AItem as read; true when it passes the filter.
  bool Passes(const TEventItemBase& AItem) {
    ++Read;
    return !FMatcher || FMatcher->Matches(AItem, AItem.GetTimeGenerated());
  }
  // Writes one event; true when the limit is reached.
  bool Write(TEventItemX& AItem) {
    FWriter->Write(AItem);
    ++Events;
    return FOptions.Limit && Events >= FOptions.Limit;
  }
  // Writes text of AEvents events that a writer of the same format made (TEventWriter::TakeText).
  void WriteText(const std::string& AText, uint64_t AEvents) {
    FWriter->WriteText(AText);
    Events += AEvents;
    Read += AEvents;
  }
  bool Filtering() const { return FMatcher != nullptr; }

  // Ends the progress bar and the output, and says how many events matched. False when
  // writing the output failed (it is reported).
  bool Finish();

  TProgress& Progress() { return FProgress; }
  uint64_t Events = 0;
  uint64_t Read = 0;

private:
  const TEventsOptions& FOptions;
  std::FILE* FErr;
  TColorCodes FCodes;
  std::unique_ptr<TEventWriter> FWriter;
  TProgress FProgress;
  std::unique_ptr<TEventMatcher> FMatcher;
};

} // namespace qvx::app
