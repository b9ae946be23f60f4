#include "app/listing.h"

#include "platform/nt_exception.h"

namespace qvx::app {

TListing::TListing(const TEventsOptions& AOptions, bool ADescriptions, std::FILE* AOut, std::FILE* AErr)
    : FOptions(AOptions), FErr(AErr),
      FProgress(AErr, !AOptions.Quiet && (AOptions.Progress > 0 ||
                                          (AOptions.Progress < 0 && IsTerminal(AErr) && !IsTerminal(AOut)))) {
  const unsigned width = AOptions.Width ? AOptions.Width : TerminalWidth(AOut);
  FWriter = MakeEventWriter(AOptions.Format, AOut, width, ADescriptions, RowColorsFor(AOptions, AOut, FCodes));
  if (AOptions.Filter.Any()) FMatcher = std::make_unique<TEventMatcher>(BuildFilter(AOptions.Filter), NowUtcDays());
  FWriter->Begin();
}

bool TListing::Finish() {
  FProgress.Finish();
  const bool written = FWriter->Finish();
  if (!written)
    std::fprintf(FErr, "quorvex: writing the output failed: %s\n", SystemErrorText(LastErrorCode()).c_str());
  if (!FOptions.Quiet && FMatcher)
    std::fprintf(FErr, "filter: %llu of %llu events read match\n", static_cast<unsigned long long>(Events),
                 static_cast<unsigned long long>(Read));
  return written;
}

} // namespace qvx::app
