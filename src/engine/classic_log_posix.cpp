// The classic event log source where Windows' classic interface does not exist: saved
// .evt files are read directly (TLogFileData); live logs cannot be read.
#include "engine/classic_log.h"

#include "engine/event_log_x.h"

namespace qvx {

namespace {

[[noreturn]] void NoLiveLogs(const std::string& AName) {
  std::string text = "Live event logs need Windows: the log \"";
  text.append(AName);
  text.append("\" cannot be read on this system; open a saved .evt file instead");
  throw ELiveLogUnavailable(text);
}

} // namespace

bool TNTEventLog::LiveOpen(uint32_t&) { NoLiveLogs(FSourceName); }
bool TNTEventLog::LiveOpenBackup(uint32_t&) { NoLiveLogs(FBackupFileName); }
void TNTEventLog::LiveClose() {}
bool TNTEventLog::LiveCount(int64_t&, int32_t&, uint32_t&) { NoLiveLogs(FSourceName); }
bool TNTEventLog::LiveRead(uint32_t, std::vector<uint8_t>&, uint32_t&, uint32_t&, uint32_t&) { NoLiveLogs(FSourceName); }
bool TNTEventLog::LiveClear(const std::string&, uint32_t&) { NoLiveLogs(FSourceName); }
bool TNTEventLog::LiveBackup(const std::string&, uint32_t&) { NoLiveLogs(FSourceName); }
// Descriptions come from an imaged computer or a registry given with SetRegistry.
void TNTEventLog::ConnectRegistry(const std::string&) {}
bool TNTEventLog::SystemRefusesEvtFiles() { return true; }
// No live logs, nothing changes under the reader.
void TNTEventLog::StartWatcher() {}
void TNTEventLog::StopWatcher() {}

void TNTEventLog::SetMachineName(const std::string& AName) {
  if (!AName.empty()) {
    std::string name = "\\\\";
    name.append(AName);
    name.push_back('\\');
    name.append(FSourceName);
    NoLiveLogs(name);
  }
  TEventLogBase::SetMachineName(AName);
}

} // namespace qvx
