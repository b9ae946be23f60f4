#include "app/commands.h"

#include "app/demo_log.h"

#include <exception>

namespace qvx::app {

int RunDemo(const std::string& APath, uint64_t ARecords, bool AList, std::FILE* AOut, std::FILE* AErr) {
  try {
    WriteDemoLog(APath, ARecords);
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: cannot write the demo log: %s\n", e.what());
    return 1;
  }
  std::fprintf(AErr, "quorvex: wrote %llu demo records to %s\n", static_cast<unsigned long long>(ARecords),
               APath.c_str());
  if (!AList) return 0;
  TEventsOptions options;
  options.Path = APath;
  return RunEvents(options, AOut, AErr);
}

} // namespace qvx::app
