// The operations of TEventLogX that need the system's event log service, on platforms
// that have none. Saved .evtx files are read by the direct sources instead.
#include "engine/event_log_x.h"

namespace qvx {

namespace {

[[noreturn]] void RaiseLiveLogUnavailable(const std::string& AWhat) {
  throw ELiveLogUnavailable("Live event logs need Windows: " + AWhat +
                            " cannot be read on this system; open a saved .evtx file (or deep-scan a disk) instead");
}

std::string LogNameOf(const TEventLogBase& ALog) {
  const std::string& name = ALog.SourceName().empty() ? ALog.BackupFileName() : ALog.SourceName();
  return "the log \"" + name + "\"" + (ALog.MachineName().empty() ? "" : " of " + ALog.MachineName());
}

} // namespace

TEventLogX::TEventLogX() = default;
TEventLogX::~TEventLogX() = default;

void TEventLogX::OpenEventLog() { RaiseLiveLogUnavailable(LogNameOf(*this)); }
void TEventLogX::OpenBackupEventLog() { RaiseLiveLogUnavailable(LogNameOf(*this) + " (through the event log service)"); }
void TEventLogX::OpenEventLogNoQuery() { RaiseLiveLogUnavailable(LogNameOf(*this)); }

void TEventLogX::CloseEventLog() {
  FEventIndex = 0;
  FEventsLen = 0;
  FActive = false;
}

int64_t TEventLogX::GetCount() {
  FLastCount = -1;
  return -1;
}

void TEventLogX::SetMachineName(const std::string& AName) {
  std::string name = AName;
  if (name.rfind("\\\\", 0) == 0) name.erase(0, 2);
  if (!name.empty() && name != "[IMAGED]") RaiseLiveLogUnavailable("the remote computer \"" + name + "\"");
  TEventLogBase::SetMachineName(AName);
}

void TEventLogX::SetDescriptionServer(const std::string& AName) { TEventLogBase::SetDescriptionServer(AName); }

void TEventLogX::GetItemsFromData(std::string& AText, const std::string& ASourceName, uint32_t AEventId,
                                  uint16_t AEventIdQual, uint8_t AVersion, uint8_t, const TStringList& AStrings) {
  if (DescribeFromImaged(AText, ASourceName, AEventId, AEventIdQual, AVersion, AStrings)) return;
  // No publisher metadata here: the caller shows the data values in place of a description.
  AText.assign(1, kNoDescriptionMark);
}

void TEventLogX::GetEventSources(TStringList& ASources) { ASources.clear(); }
void TEventLogX::GetEventSourcesByLog(const std::string&, TStringList& ASources) { ASources.clear(); }
void TEventLogX::GetEventLogs(TEventLogList& ALogs) { ALogs.Clear(); }
void TEventLogX::Clear(const std::string&) { RaiseLiveLogUnavailable(LogNameOf(*this)); }
void TEventLogX::BackupEventlog(const std::string&) { RaiseLiveLogUnavailable(LogNameOf(*this)); }

void TEventLogX::EventNextXML(std::string& AXml, TEventXmlFields&) {
  if (!FActive) RaiseLiveLogUnavailable(LogNameOf(*this));
  AXml.clear();
}

std::string TEventLogX::EVTXGetTaskName(const std::string&, uint32_t) { return {}; }

void TEventLogX::GetTimes(double& ACreation, double& ALastWrite, double& ALastAccess) {
  ACreation = ALastWrite = ALastAccess = 0;
  RaiseLiveLogUnavailable(LogNameOf(*this));
}
int64_t TEventLogX::GetFileSize() { RaiseLiveLogUnavailable(LogNameOf(*this)); }
bool TEventLogX::GetLogIsFull() { RaiseLiveLogUnavailable(LogNameOf(*this)); }

} // namespace qvx
