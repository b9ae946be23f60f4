// The classic event log source over Windows' classic event log interface (advapi32):
// live logs of this or a remote computer, saved .evt files the system still opens, and
// the change watcher armed with the log's change notification.
#include "engine/classic_log.h"

#include "platform/nt_exception.h"
#include "platform/utf16.h"

#include <windows.h>
#include <winnetwk.h>

namespace qvx {

namespace {

std::wstring Wide(std::string_view AText) {
  const std::u16string text = Utf8ToUtf16(AText);
  return std::wstring(text.begin(), text.end());
}

const wchar_t* OrNull(const std::wstring& AText) { return AText.empty() ? nullptr : AText.c_str(); }

} // namespace

bool TNTEventLog::LiveOpen(uint32_t& AError) {
  const std::wstring machine = Wide(FMachineName), source = Wide(FSourceName);
  FHandle = OpenEventLogW(OrNull(machine), source.c_str());
  if (!FHandle) {
    AError = GetLastError();
    return false;
  }
  // Changes are signalled on FWaitEvent; the watcher offers them to OnChange.
  StartWatcher();
  if (FWaitEvent) NotifyChangeEventLog(FHandle, FWaitEvent);
  return true;
}

void TNTEventLog::StartWatcher() {
  if (FWaitThread.joinable()) return;
  if (!FWaitEvent) FWaitEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (!FTerminateEvent) FTerminateEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (!FWaitEvent || !FTerminateEvent) return;
  FWaitThread = std::thread([this] {
    const HANDLE events[2] = {FWaitEvent, FTerminateEvent};
    for (;;) {
      const DWORD which = WaitForMultipleObjects(2, events, FALSE, INFINITE);
      if (which != WAIT_OBJECT_0) return; // the terminate event, or the wait failed
      FChanged = true;
      if (OnChange) OnChange(*this);
    }
  });
}

void TNTEventLog::StopWatcher() {
  if (FWaitThread.joinable()) {
    SetEvent(FTerminateEvent);
    FWaitThread.join();
  }
  for (void** event : {&FWaitEvent, &FTerminateEvent})
    if (*event) {
      CloseHandle(*event);
      *event = nullptr;
    }
}

bool TNTEventLog::LiveOpenBackup(uint32_t& AError) {
  const std::wstring machine = Wide(FMachineName), file = Wide(FBackupFileName);
  FHandle = OpenBackupEventLogW(OrNull(machine), file.c_str());
  if (!FHandle) AError = GetLastError();
  return FHandle != nullptr;
}

void TNTEventLog::LiveClose() {
  if (FHandle) ::CloseEventLog(FHandle);
  FHandle = nullptr;
}

bool TNTEventLog::LiveCount(int64_t& ACount, int32_t& AOldest, uint32_t& AError) {
  DWORD count = 0, oldest = 0;
  if (!GetNumberOfEventLogRecords(FHandle, &count) || !GetOldestEventLogRecord(FHandle, &oldest)) {
    AError = GetLastError();
    return false;
  }
  ACount = count;
  AOldest = static_cast<int32_t>(oldest);
  return true;
}

bool TNTEventLog::LiveRead(uint32_t AFlags, std::vector<uint8_t>& ABuffer, uint32_t& ARead, uint32_t& ANeeded,
                           uint32_t& AError) {
  DWORD read = 0, needed = 0;
  const BOOL ok = ReadEventLogW(FHandle, AFlags, 0, ABuffer.data(), static_cast<DWORD>(ABuffer.size()), &read, &needed);
  ARead = read;
  ANeeded = needed;
  if (!ok) AError = GetLastError();
  return ok != FALSE;
}

bool TNTEventLog::LiveClear(const std::string& ABackupFile, uint32_t& AError) {
  const std::wstring file = Wide(ABackupFile);
  if (ClearEventLogW(FHandle, OrNull(file))) return true;
  AError = GetLastError();
  return false;
}

bool TNTEventLog::LiveBackup(const std::string& ABackupFile, uint32_t& AError) {
  const std::wstring file = Wide(ABackupFile);
  if (BackupEventLogW(FHandle, file.c_str())) return true;
  AError = GetLastError();
  return false;
}

void TNTEventLog::ConnectRegistry(const std::string& AComputer) {
  FOwnRegistry = OpenLiveRegistry(AComputer);
  FRegistry = FOwnRegistry.get();
}

bool TNTEventLog::SystemRefusesEvtFiles() {
  // Windows 7 (6.1) and later no longer open .evt files through the classic interface.
  OSVERSIONINFOEXW version{};
  version.dwOSVersionInfoSize = sizeof version;
  version.dwMajorVersion = 6;
  version.dwMinorVersion = 1;
  DWORDLONG mask = 0;
  mask = VerSetConditionMask(mask, VER_MAJORVERSION, VER_GREATER_EQUAL);
  mask = VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
  return VerifyVersionInfoW(&version, VER_MAJORVERSION | VER_MINORVERSION, mask) != FALSE;
}

void TNTEventLog::SetMachineName(const std::string& AName) {
  TEventLogBase::SetMachineName(AName);
  Target64bit = false;
  if (!AltUserName.empty() && !AName.empty()) {
    std::string share = AName.starts_with('\\') ? AName : "\\\\" + AName;
    share += "\\ADMIN$";
    std::wstring remote = Wide(share), password = Wide(AltUserPassword), user = Wide(AltUserName);
    NETRESOURCEW resource{};
    resource.lpRemoteName = remote.data();
    WNetAddConnection3W(nullptr, &resource, password.c_str(), user.c_str(), 0); // result not checked
  }
  if (!AName.empty()) ConnectRegistry(AName);
  std::string architecture;
  if (FRegistry &&
      !FRegistry->ReadString("\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment",
                             "PROCESSOR_ARCHITECTURE", architecture)) {
    std::vector<std::string> names;
    if (!FRegistry->GetKeyNames("\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment", names))
      throw ENTException(GetLastError(), AName);
  }
  for (char& c : architecture) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  Target64bit = architecture.find("64") != std::string::npos;
  InitMUIFolders();
}

} // namespace qvx
