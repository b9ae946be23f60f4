// The operations of TEventLogX that use the system's event log service ("Wevtapi.dll"):
// live channels of this or a remote computer, saved files read by the system, channel
// lists and configuration, and descriptions from publisher metadata.
//
// Sessions are EVT_HANDLEs; null is the local computer. Publisher metadata handles are
// opened once per (session, publisher) and kept in the process-wide session cache until
// their session is dropped.
#include "engine/event_log_x.h"

#include "descriptions/provider_metadata.h" // kNoMessageId
#include "engine/evtx/chunk_reader.h"
#include "platform/nt_exception.h"
#include "platform/utf16.h"
#include "platform/wevtapi.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include <windows.h>
// <windows.h> maps these names to its own classic event log functions.
#undef OpenEventLog
#undef OpenBackupEventLog

namespace qvx {

using namespace wevt;

static_assert(sizeof(EVT_VARIANT) == 16, "EVT_VARIANT is 8 bytes of value, a count and a type");

namespace {

constexpr uint32_t kBatchSize = 100;

std::wstring Wide(std::string_view AText) {
  const std::u16string text = Utf8ToUtf16(AText);
  return std::wstring(text.begin(), text.end());
}

std::string Narrow(const wchar_t* AText, size_t ACount) {
  return Utf16ToUtf8(reinterpret_cast<const uint8_t*>(AText), ACount);
}

std::string Narrow(const wchar_t* AText) {
  return AText ? Narrow(AText, std::wcslen(AText)) : std::string();
}

// Diagnostic output only: the debugger's log.
void Trace(const std::string& AText) {
  OutputDebugStringW(Wide(AText).c_str());
}

std::string HandleText(EVT_HANDLE AHandle) {
  return std::to_string(reinterpret_cast<intptr_t>(AHandle));
}

std::string CodeText(uint32_t ACode) {
  return std::to_string(static_cast<int32_t>(ACode));
}

bool LessNoCase(std::string_view A, std::string_view B) {
  return std::lexicographical_compare(A.begin(), A.end(), B.begin(), B.end(), [](char a, char b) {
    return static_cast<unsigned char>(detail::LowerAscii(a)) <
           static_cast<unsigned char>(detail::LowerAscii(b));
  });
}

std::string StripBackslashes(const std::string& AName) {
  return AName.rfind("\\\\", 0) == 0 ? AName.substr(2) : AName;
}

// Holds one property value of the library; grows when the library asks for more room.
class TVariantBuffer {
public:
  // Calls AGet(size in bytes, buffer, used) and once more after error 122; null on failure.
  template <typename TGet> const EVT_VARIANT* Fetch(TGet AGet) {
    for (int attempt = 0; attempt < 2; ++attempt) {
      uint32_t used = 0;
      if (AGet(static_cast<uint32_t>(FData.size() * sizeof(EVT_VARIANT)), FData.data(), &used))
        return FData.data();
      if (GetLastError() != kErrorInsufficientBuffer) return nullptr;
      FData.resize(used / sizeof(EVT_VARIANT) + 1);
    }
    return nullptr;
  }

private:
  std::vector<EVT_VARIANT> FData = std::vector<EVT_VARIANT>(32);
};

// A number, flag or time as an unsigned value; 0 for a null value or another type.
uint64_t VariantNumber(const EVT_VARIANT* AValue) {
  if (!AValue) return 0;
  switch (AValue->Type & EvtVarTypeMask) {
  case EvtVarTypeBoolean:
  case EvtVarTypeInt32:
  case EvtVarTypeUInt32:
    return AValue->UInt32Val;
  case EvtVarTypeInt64:
  case EvtVarTypeUInt64:
  case EvtVarTypeFileTime:
    return AValue->UInt64Val;
  default:
    return 0;
  }
}

std::string VariantText(const EVT_VARIANT* AValue) {
  return AValue && (AValue->Type & EvtVarTypeMask) == EvtVarTypeString ? Narrow(AValue->StringVal)
                                                                       : std::string();
}

const EVT_VARIANT* LogInfo(TVariantBuffer& ABuffer, EVT_HANDLE ALog, uint32_t AProperty) {
  if (!ALog) return nullptr;
  return ABuffer.Fetch([&](uint32_t ASize, EVT_VARIANT* AData, uint32_t* AUsed) {
    return WevtApi().EvtGetLogInfo(ALog, AProperty, ASize, AData, AUsed);
  });
}

const EVT_VARIANT* ConfigInfo(TVariantBuffer& ABuffer, EVT_HANDLE AConfig, uint32_t AProperty) {
  return ABuffer.Fetch([&](uint32_t ASize, EVT_VARIANT* AData, uint32_t* AUsed) {
    return WevtApi().EvtGetChannelConfigProperty(AConfig, AProperty, 0, ASize, AData, AUsed);
  });
}

const EVT_VARIANT* ArrayInfo(TVariantBuffer& ABuffer, EVT_HANDLE AArray, uint32_t AProperty,
                             uint32_t AIndex) {
  return ABuffer.Fetch([&](uint32_t ASize, EVT_VARIANT* AData, uint32_t* AUsed) {
    return WevtApi().EvtGetObjectArrayProperty(AArray, AProperty, AIndex, 0, ASize, AData, AUsed);
  });
}

// An object array property of publisher metadata (tasks, channel references); the
// caller closes it. Null when the publisher has none.
EVT_HANDLE PublisherArray(EVT_HANDLE APublisher, uint32_t AProperty) {
  TVariantBuffer buffer;
  const EVT_VARIANT* value = buffer.Fetch([&](uint32_t ASize, EVT_VARIANT* AData, uint32_t* AUsed) {
    return WevtApi().EvtGetPublisherMetadataProperty(APublisher, AProperty, 0, ASize, AData, AUsed);
  });
  return value && (value->Type & EvtVarTypeMask) == EvtVarTypeEvtHandle ? value->EvtHandleVal : nullptr;
}

// Formats a message of a publisher (or an event) into AText. Unresolved insertions are
// not failures: the text then keeps them as written. False when nothing came out.
bool FormatWith(EVT_HANDLE APublisher, EVT_HANDLE AEvent, uint32_t AMessageId, uint32_t AFlags,
                std::string& AText) {
  thread_local std::vector<wchar_t> buffer(4096);
  const TWevtApi& api = WevtApi();
  AText.clear();
  uint32_t used = 0;
  buffer[0] = 0;
  bool ok = api.EvtFormatMessage(APublisher, AEvent, AMessageId, 0, nullptr, AFlags,
                                 static_cast<uint32_t>(buffer.size()), buffer.data(), &used);
  if (!ok && GetLastError() == kErrorInsufficientBuffer) {
    buffer.resize(used + 1);
    buffer[0] = 0;
    ok = api.EvtFormatMessage(APublisher, AEvent, AMessageId, 0, nullptr, AFlags,
                              static_cast<uint32_t>(buffer.size()), buffer.data(), &used);
  }
  if (!ok) {
    const uint32_t code = GetLastError();
    if (code != kErrorEvtMessageNotFound && code != kErrorEvtUnresolvedValueInsert &&
        code != kErrorEvtUnresolvedParameterInsert)
      return false;
  }
  AText = Narrow(buffer.data(), wcsnlen(buffer.data(), buffer.size()));
  return !AText.empty();
}

// Inserts the data values into a message template: %1..%99 (a "!format!" after the
// number is dropped), %n, %r, %t, %b and %%.
std::string ExpandInserts(std::string_view ATemplate, const TStringList& AStrings) {
  std::string text;
  text.reserve(ATemplate.size() + 64);
  for (size_t i = 0; i < ATemplate.size(); ++i) {
    const char c = ATemplate[i];
    if (c != '%' || i + 1 >= ATemplate.size()) {
      text.push_back(c);
      continue;
    }
    const char next = ATemplate[++i];
    if (next >= '1' && next <= '9') {
      size_t number = static_cast<size_t>(next - '0');
      if (i + 1 < ATemplate.size() && ATemplate[i + 1] >= '0' && ATemplate[i + 1] <= '9')
        number = number * 10 + static_cast<size_t>(ATemplate[++i] - '0');
      if (i + 1 < ATemplate.size() && ATemplate[i + 1] == '!') {
        const size_t close = ATemplate.find('!', i + 2);
        if (close != std::string_view::npos) i = close;
      }
      if (number <= AStrings.size()) {
        text += AStrings[number - 1];
      } else {
        text.push_back('%');
        text += std::to_string(number);
      }
    } else if (next == 'n') {
      text += "\r\n";
    } else if (next == 'r') {
      text.push_back('\r');
    } else if (next == 't') {
      text.push_back('\t');
    } else if (next == 'b') {
      text.push_back(' ');
    } else {
      text.push_back(next); // "%%" and anything unknown keep the second character
    }
  }
  return text;
}

// --- Session cache ------------------------------------------------------------------

struct TSessionCacheKeyValue {
  std::string Key;             // publisher name
  EVT_HANDLE Handle = nullptr; // its metadata; null when it could not be opened
};

struct TSessionCacheKeyComparer {
  bool operator()(const TSessionCacheKeyValue& A, std::string_view B) const { return LessNoCase(A.Key, B); }
};

class TSessionCache {
public:
  explicit TSessionCache(EVT_HANDLE ASession) : Session(ASession) {}
  ~TSessionCache() {
    for (TSessionCacheKeyValue& item : Handlers)
      CloseEvtHandle(item.Handle);
  }
  TSessionCache(const TSessionCache&) = delete;
  TSessionCache& operator=(const TSessionCache&) = delete;

  EVT_HANDLE Session;
  std::vector<TSessionCacheKeyValue> Handlers; // sorted by TSessionCacheKeyComparer
};

struct TSessionCacheComparer {
  bool operator()(const std::unique_ptr<TSessionCache>& A, EVT_HANDLE B) const {
    return std::less<EVT_HANDLE>()(A->Session, B);
  }
};

// An SRW lock rather than std::mutex, which mingw's win32 thread model does not offer.
class TLockGuard {
public:
  explicit TLockGuard(SRWLOCK& ALock) : FLock(ALock) { AcquireSRWLockExclusive(&FLock); }
  ~TLockGuard() { ReleaseSRWLockExclusive(&FLock); }
  TLockGuard(const TLockGuard&) = delete;
  TLockGuard& operator=(const TLockGuard&) = delete;

private:
  SRWLOCK& FLock;
};

class TSessionCaches {
public:
  // The publisher's metadata handle on the session, opened on first use; null when the
  // publisher has no metadata there (remembered as well).
  static EVT_HANDLE PublisherHandle(EVT_HANDLE ASession, const std::string& APublisher) {
    TSessionCaches& self = Instance();
    TLockGuard guard(self.FLock);
    auto cache =
        std::lower_bound(self.FCaches.begin(), self.FCaches.end(), ASession, TSessionCacheComparer());
    if (cache == self.FCaches.end() || (*cache)->Session != ASession)
      cache = self.FCaches.insert(cache, std::make_unique<TSessionCache>(ASession));
    std::vector<TSessionCacheKeyValue>& handlers = (*cache)->Handlers;
    auto item = std::lower_bound(handlers.begin(), handlers.end(), std::string_view(APublisher),
                                 TSessionCacheKeyComparer());
    if (item == handlers.end() || LessNoCase(APublisher, item->Key)) {
      EVT_HANDLE handle =
          WevtApi().EvtOpenPublisherMetadata(ASession, Wide(APublisher).c_str(), nullptr, 0, 0);
      item = handlers.insert(item, TSessionCacheKeyValue{APublisher, handle});
    }
    return item->Handle;
  }

  // Closes the session's publisher handles and forgets them.
  static void ReleaseSession(EVT_HANDLE ASession) {
    TSessionCaches& self = Instance();
    TLockGuard guard(self.FLock);
    auto cache =
        std::lower_bound(self.FCaches.begin(), self.FCaches.end(), ASession, TSessionCacheComparer());
    if (cache != self.FCaches.end() && (*cache)->Session == ASession) self.FCaches.erase(cache);
  }

private:
  // Never destroyed: sources may still release sessions while the process exits.
  static TSessionCaches& Instance() {
    static TSessionCaches* instance = new TSessionCaches;
    return *instance;
  }

  SRWLOCK FLock = SRWLOCK_INIT;
  std::vector<std::unique_ptr<TSessionCache>> FCaches; // sorted by TSessionCacheComparer
};

// Drops a session: its publisher handles, then the session itself.
void DropSession(EVT_HANDLE& ASession) {
  if (!ASession) return;
  TSessionCaches::ReleaseSession(ASession);
  CloseEvtHandle(ASession);
}

// --- Sessions -----------------------------------------------------------------------

bool IsLocalComputerName(const std::string& AName) {
  for (const char* name : {".", "localhost", "127.0.0.1", "::1"})
    if (detail::EqualsNoCase(AName, name)) return true;
  for (COMPUTER_NAME_FORMAT format :
       {ComputerNameNetBIOS, ComputerNameDnsHostname, ComputerNameDnsFullyQualified}) {
    wchar_t buffer[256];
    DWORD length = 256;
    if (GetComputerNameExW(format, buffer, &length) && detail::EqualsNoCase(AName, Narrow(buffer, length)))
      return true;
  }
  return false;
}

// Opens and validates a session on the computer (name without leading backslashes).
// AError is set and null returned on failure; AOpened tells whether the open itself
// succeeded.
EVT_HANDLE OpenSession(const std::string& AName, const std::string& AUser, const std::string& APassword,
                       uint32_t& AError, bool& AOpened) {
  const TWevtApi& api = WevtApi();
  std::wstring server = IsLocalComputerName(AName) ? std::wstring() : Wide(AName);
  std::wstring user, domain, password;
  if (!AUser.empty()) {
    const size_t slash = AUser.find('\\');
    const std::string userName = slash == std::string::npos ? AUser : AUser.substr(slash + 1);
    const std::string domainName = slash == std::string::npos ? std::string() : AUser.substr(0, slash);
    Trace("SMN. Alt credentials. User :" + userName + ", Domain :" + domainName + ", Password :*");
    user = Wide(userName);
    domain = Wide(domainName);
    password = Wide(APassword);
  }
  auto orNull = [](std::wstring& AText) { return AText.empty() ? nullptr : AText.data(); };
  EVT_RPC_LOGIN login{orNull(server), orNull(user), orNull(domain), orNull(password), 0};
  EVT_HANDLE session = api.EvtOpenSession(EvtRpcLogin, &login, 0, 0);
  if (!password.empty()) SecureZeroMemory(password.data(), password.size() * sizeof(wchar_t));
  AOpened = session != nullptr;
  if (!session) {
    AError = GetLastError();
    return nullptr;
  }
  Trace("SMN. Session open :" + HandleText(session));
  // The open succeeds without contacting the computer: an enumeration proves the session.
  EVT_HANDLE probe = api.EvtOpenChannelEnum(session, 0);
  if (!probe) {
    AError = GetLastError();
    Trace("SMN. Validating  session " + HandleText(session) + "... Failed : " + CodeText(AError));
    CloseEvtHandle(session);
    return nullptr;
  }
  CloseEvtHandle(probe);
  Trace("SMN. Validating  session " + HandleText(session) + "... OK");
  return session;
}

// As OpenSession, raising the machine name errors.
EVT_HANDLE OpenMachineSession(const std::string& AName, const std::string& AUser,
                              const std::string& APassword) {
  uint32_t error = 0;
  bool opened = false;
  EVT_HANDLE session = OpenSession(StripBackslashes(AName), AUser, APassword, error, opened);
  if (session) return session;
  if (!opened)
    throw std::runtime_error("Setting machine name [" + AName + "]. Session open error. Code = [" +
                             CodeText(error) + "]");
  throw std::runtime_error("Setting machine name [" + AName +
                           "]. Unable to validate credentials or RPC error. Code = [" + CodeText(error) +
                           "]");
}

bool IsSessionLess(const std::string& AMachineName) {
  return AMachineName.empty() || AMachineName == "[IMAGED]";
}

// Closes what one open made: the handles of the batch not yet used, the query, the log.
void CloseReading(std::array<EVT_HANDLE, 100>& AEvents, uint32_t& AEventsLen, uint32_t& AEventIndex,
                  EVT_HANDLE& AQuery, EVT_HANDLE& ALog) {
  for (uint32_t i = 0; i < AEventsLen && i < AEvents.size(); ++i)
    CloseEvtHandle(AEvents[i]);
  AEventsLen = 0;
  AEventIndex = 0;
  CloseEvtHandle(AQuery);
  CloseEvtHandle(ALog);
}

double FileTimeToDays(uint64_t AFileTime) {
  constexpr double kTicksPerDay = 864000000000.0;
  constexpr double kDaysFrom1601To1899 = 109205.0;
  return AFileTime ? static_cast<double>(AFileTime) / kTicksPerDay - kDaysFrom1601To1899 : 0;
}

} // namespace

// --- TEventLogX ---------------------------------------------------------------------

TEventLogX::TEventLogX() = default;

TEventLogX::~TEventLogX() {
  TEventLogX::CloseEventLog();
  DropSession(FDescriptionSessionH);
}

void TEventLogX::OpenEventLogNoQuery() {
  CloseEvtHandle(FLogH);
  FLogH = WevtApi().EvtOpenLog(FSessionH, Wide(FSourceName).c_str(), EvtOpenChannelPath);
}

void TEventLogX::OpenEventLog() {
  FActive = false;
  CloseReading(FEvents, FEventsLen, FEventIndex, FQueryH, FLogH);
  // CloseEventLog drops the session: a remote log opened again needs a new one.
  if (!FSessionH && !IsSessionLess(StripBackslashes(FMachineName)))
    FSessionH = OpenMachineSession(FMachineName, AltUserName, AltUserPassword);
  if (!FSourceName.empty()) OpenEventLogNoQuery();
  if (FXMLQuery.empty()) FXMLQuery.assign(1, '*');
  FQueryH = WevtApi().EvtQuery(FSessionH, Wide(FSourceName).c_str(), Wide(FXMLQuery).c_str(),
                               EvtQueryChannelPath | EvtQueryReverseDirection);
  if (!FQueryH) throw std::runtime_error("Query error. Code = [" + CodeText(GetLastError()) + "]");
  FActive = true;
  FEventIndex = 0;
  FRecordCounter = 0;
}

void TEventLogX::OpenBackupEventLog() {
  FActive = false;
  CloseReading(FEvents, FEventsLen, FEventIndex, FQueryH, FLogH);
  const TWevtApi& api = WevtApi();
  const std::wstring file = Wide(FBackupFileName);
  FLogH = api.EvtOpenLog(nullptr, file.c_str(), EvtOpenFilePath);
  if (FXMLQuery.empty()) FXMLQuery.assign(1, '*');
  // Not checked here: a refused query shows at the first EventNextXML.
  FQueryH = api.EvtQuery(nullptr, file.c_str(), Wide(FXMLQuery).c_str(),
                         EvtQueryFilePath | EvtQueryReverseDirection);
  FEventIndex = 0;
  FRecordCounter = 0;
  FActive = true;
}

void TEventLogX::CloseEventLog() {
  CloseReading(FEvents, FEventsLen, FEventIndex, FQueryH, FLogH);
  CloseEvtHandle(FChannelConfigH);
  DropSession(FSessionH);
  FLastCount = -1;
  FActive = false;
}

int64_t TEventLogX::GetCount() {
  TVariantBuffer buffer;
  const EVT_VARIANT* value = LogInfo(buffer, FLogH, EvtLogNumberOfLogRecords);
  FLastCount = value && (value->Type & EvtVarTypeMask) != EvtVarTypeNull
                   ? static_cast<int64_t>(VariantNumber(value))
                   : -1;
  return FLastCount;
}

void TEventLogX::SetMachineName(const std::string& AName) {
  DropSession(FSessionH);
  if (IsSessionLess(StripBackslashes(AName)))
    Trace("SMN. using local session...");
  else
    FSessionH = OpenMachineSession(AName, AltUserName, AltUserPassword);
  Trace("SMN. Set FMachineName");
  TEventLogBase::SetMachineName(AName);
  if (!FDescriptionSessionH) Trace("SMN. Description Session not yet defined...");
}

void TEventLogX::SetDescriptionServer(const std::string& AName) {
  DropSession(FDescriptionSessionH);
  TEventLogBase::SetDescriptionServer(AName);
  const std::string name = StripBackslashes(AName);
  // "[DEFAULT]" reads descriptions through the log's own session.
  if (name.empty() || name == "[DEFAULT]" || name == "[IMAGED]") return;
  uint32_t error = 0;
  bool opened = false;
  FDescriptionSessionH = OpenSession(name, DescrServerUserName, DescrServerPassword, error, opened);
  // Descriptions then come from the log's computer; the code tells the viewer why.
  if (!FDescriptionSessionH) FDescriptionServerErrorCode = static_cast<int32_t>(error);
}

void TEventLogX::GetItemsFromData(std::string& AText, const std::string& ASourceName, uint32_t AEventId,
                                  uint16_t AEventIdQual, uint8_t AVersion, uint8_t,
                                  const TStringList& AStrings) {
  if (DescribeFromImaged(AText, ASourceName, AEventId, AEventIdQual, AVersion, AStrings)) return;
  const uint32_t key = (static_cast<uint32_t>(AEventIdQual) << 16) | (AEventId & 0xFFFF);
  std::string_view cached;
  if (!FEventDescriptionCache->GetDescription(ASourceName, key, cached)) {
    const TWevtApi& api = WevtApi();
    std::string found;
    EVT_HANDLE publisher =
        TSessionCaches::PublisherHandle(FDescriptionSessionH ? FDescriptionSessionH : FSessionH, ASourceName);
    EVT_HANDLE events = publisher ? api.EvtOpenEventMetadataEnum(publisher, 0) : nullptr;
    if (events) {
      // The event of the same version, else the first one with the identifier.
      uint32_t messageId = kNoMessageId;
      TVariantBuffer buffer;
      while (EVT_HANDLE event = api.EvtNextEventMetadata(events, 0)) {
        auto property = [&](uint32_t AProperty) {
          return VariantNumber(buffer.Fetch([&](uint32_t ASize, EVT_VARIANT* AData, uint32_t* AUsed) {
            return api.EvtGetEventMetadataProperty(event, AProperty, 0, ASize, AData, AUsed);
          }));
        };
        bool exact = false;
        if ((property(EventMetadataEventID) & 0xFFFF) == (AEventId & 0xFFFF)) {
          exact = property(EventMetadataEventVersion) == AVersion;
          if (exact || messageId == kNoMessageId)
            messageId = static_cast<uint32_t>(property(EventMetadataEventMessageID));
        }
        CloseEvtHandle(event);
        if (exact) break;
      }
      CloseEvtHandle(events);
      if (messageId != kNoMessageId) FormatWith(publisher, nullptr, messageId, EvtFormatMessageId, found);
    }
    FEventDescriptionCache->AddDescription(ASourceName, key, found.empty() ? kDescriptionNotFound : found);
    FEventDescriptionCache->GetDescription(ASourceName, key, cached);
  }
  if (cached == kDescriptionNotFound)
    AText.assign(1, kNoDescriptionMark);
  else
    AText = ExpandInserts(cached, AStrings);
}

void TEventLogX::GetEventSources(TStringList& ASources) {
  ASources.clear();
  const TWevtApi& api = WevtApi();
  EVT_HANDLE publishers = api.EvtOpenPublisherEnum(FSessionH, 0);
  if (!publishers) return;
  wchar_t name[512];
  uint32_t used = 0;
  while (api.EvtNextPublisherId(publishers, 512, name, &used))
    ASources.push_back(Narrow(name));
  CloseEvtHandle(publishers);
}

void TEventLogX::GetEventSourcesByLog(const std::string& ALog, TStringList& ASources) {
  TStringList all;
  GetEventSources(all);
  ASources.clear();
  const TWevtApi& api = WevtApi();
  TVariantBuffer buffer;
  for (const std::string& publisher : all) {
    // Opened here and closed again: most publishers are not asked for descriptions.
    EVT_HANDLE metadata = api.EvtOpenPublisherMetadata(FSessionH, Wide(publisher).c_str(), nullptr, 0, 0);
    if (!metadata) continue;
    EVT_HANDLE channels = PublisherArray(metadata, EvtPublisherMetadataChannelReferences);
    uint32_t count = 0;
    if (channels && api.EvtGetObjectArraySize(channels, &count)) {
      for (uint32_t i = 0; i < count; ++i) {
        if (detail::EqualsNoCase(
                VariantText(ArrayInfo(buffer, channels, EvtPublisherMetadataChannelReferencePath, i)),
                ALog)) {
          ASources.push_back(publisher);
          break;
        }
      }
    }
    CloseEvtHandle(channels);
    CloseEvtHandle(metadata);
  }
}

void TEventLogX::GetEventLogs(TEventLogList& ALogs) {
  ALogs.Clear();
  const TWevtApi& api = WevtApi();
  EVT_HANDLE channels = api.EvtOpenChannelEnum(FSessionH, 0);
  if (!channels) RaiseLastOSError(FMachineName);
  std::vector<wchar_t> path(512);
  TVariantBuffer buffer;
  for (;;) {
    uint32_t used = 0;
    if (!api.EvtNextChannelPath(channels, static_cast<uint32_t>(path.size()), path.data(), &used)) {
      if (GetLastError() != kErrorInsufficientBuffer) break;
      path.resize(used);
      continue;
    }
    TEventLogInfoX info;
    info.LogName = Narrow(path.data());
    if (!FInfoFilter.MatchMask(info.LogName)) continue;
    if (EVT_HANDLE config = api.EvtOpenChannelConfig(FSessionH, path.data(), 0)) {
      info.ChannelType =
          static_cast<int32_t>(VariantNumber(ConfigInfo(buffer, config, EvtChannelConfigType)));
      info.OwningPublisher = VariantText(ConfigInfo(buffer, config, EvtChannelConfigOwningPublisher));
      info.Classic = VariantNumber(ConfigInfo(buffer, config, EvtChannelConfigClassicEventlog)) != 0;
      CloseEvtHandle(config);
    }
    if (!FInfoFilter.MatchChannelType(info.ChannelType)) continue;
    if (EVT_HANDLE log = api.EvtOpenLog(FSessionH, path.data(), EvtOpenChannelPath)) {
      info.EvtCount = static_cast<int64_t>(VariantNumber(LogInfo(buffer, log, EvtLogNumberOfLogRecords)));
      CloseEvtHandle(log);
    }
    if (!FInfoFilter.Match(info)) continue;
    const std::string name = info.LogName;
    ALogs.AddEventLog(name, std::make_unique<TEventLogInfoX>(std::move(info)));
  }
  CloseEvtHandle(channels);
}

void TEventLogX::Clear(const std::string& ABackupFile) {
  const std::wstring backup = Wide(ABackupFile);
  if (!WevtApi().EvtClearLog(FSessionH, Wide(FSourceName).c_str(), backup.empty() ? nullptr : backup.c_str(),
                             0))
    RaiseLastOSError();
}

void TEventLogX::BackupEventlog(const std::string& ABackupFileName) {
  if (!WevtApi().EvtExportLog(FSessionH, Wide(FSourceName).c_str(), L"*", Wide(ABackupFileName).c_str(),
                              EvtExportLogChannelPath))
    RaiseLastOSError(ABackupFileName);
}

void TEventLogX::EventNextXML(std::string& AXml, TEventXmlFields& AFields) {
  const TWevtApi& api = WevtApi();
  AXml.clear();
  if (FEventIndex == 0) {
    uint32_t returned = 0;
    FEventsLen = 0;
    if (!api.EvtNext(FQueryH, kBatchSize, FEvents.data(), INFINITE, 0, &returned)) {
      const uint32_t code = GetLastError();
      if (code == kErrorNoMoreItems) return;
      const bool file = !FBackupFileName.empty();
      if (code == kErrorEventlogFileCorrupt)
        throw std::runtime_error("The event log file is corrupted (" +
                                 (file ? FBackupFileName : FSourceName) + ")");
      throw std::runtime_error(
          "Log reading error. Log: " + (file ? FBackupFileName : FMachineName + "\\" + FSourceName) +
          ". Error code = [" + CodeText(code) + "]");
    }
    FEventsLen = std::min<uint32_t>(returned, kBatchSize);
    if (FEventsLen == 0) return;
  }

  // Taken out of the batch first, so a failure below does not stop the reading there.
  EVT_HANDLE event = std::exchange(FEvents[FEventIndex], nullptr);
  if (++FEventIndex >= FEventsLen) FEventIndex = 0;
  struct TCloser {
    EVT_HANDLE& Handle;
    ~TCloser() { CloseEvtHandle(Handle); }
  } closer{event};

  if (FRenderBuffer.size() < 4096) FRenderBuffer.resize(4096);
  uint32_t used = 0, properties = 0;
  auto render = [&] {
    return api.EvtRender(nullptr, event, EvtRenderEventXml, static_cast<uint32_t>(FRenderBuffer.size() * 2),
                         FRenderBuffer.data(), &used, &properties);
  };
  bool ok = render();
  if (!ok && GetLastError() == kErrorInsufficientBuffer) {
    FRenderBuffer.resize(used / 2 + 1);
    ok = render();
  }
  if (!ok)
    throw std::runtime_error("Log rendering error. Log: " + FMachineName + "\\" + FSourceName + ". Code = [" +
                             CodeText(GetLastError()) + "]");
  size_t length = std::min<size_t>(used / 2, FRenderBuffer.size());
  while (length > 0 && FRenderBuffer[length - 1] == 0)
    --length;
  AXml = Utf16ToUtf8(reinterpret_cast<const uint8_t*>(FRenderBuffer.data()), length);
  ReplaceControlCharacters(AXml);

  ReadSystemFields(AXml, AFields);
  ResolveTaskAndUser(AFields);
  ReadEventDataValues(AXml, AFields.Strings, &AFields.BinaryData);

  // Forwarded events carry their rendered message: no publisher needed for those.
  bool described =
      FFastGetDescription && FormatWith(nullptr, event, 0, EvtFormatMessageEvent, AFields.EvtMessage);
  if (!described) {
    EVT_HANDLE publisher = TSessionCaches::PublisherHandle(
        FDescriptionSessionH ? FDescriptionSessionH : FSessionH, AFields.ProviderName);
    described = publisher && FormatWith(publisher, event, 0, EvtFormatMessageEvent, AFields.EvtMessage);
  }
  if (!described) MarkNoDescription(AFields);
}

std::string TEventLogX::EVTXGetTaskName(const std::string& AProvider, uint32_t ATask) {
  const TWevtApi& api = WevtApi();
  EVT_HANDLE publisher =
      TSessionCaches::PublisherHandle(FDescriptionSessionH ? FDescriptionSessionH : FSessionH, AProvider);
  EVT_HANDLE tasks = publisher ? PublisherArray(publisher, EvtPublisherMetadataTasks) : nullptr;
  if (!tasks) return {};
  std::string name;
  uint32_t count = 0;
  TVariantBuffer buffer;
  if (api.EvtGetObjectArraySize(tasks, &count)) {
    for (uint32_t i = 0; i < count; ++i) {
      if (VariantNumber(ArrayInfo(buffer, tasks, EvtPublisherMetadataTaskValue, i)) != ATask) continue;
      const EVT_VARIANT* message = ArrayInfo(buffer, tasks, EvtPublisherMetadataTaskMessageID, i);
      const uint32_t messageId = message ? static_cast<uint32_t>(VariantNumber(message)) : kNoMessageId;
      if (messageId == kNoMessageId || !FormatWith(publisher, nullptr, messageId, EvtFormatMessageId, name))
        name = VariantText(ArrayInfo(buffer, tasks, EvtPublisherMetadataTaskName, i));
      break;
    }
  }
  CloseEvtHandle(tasks);
  return name;
}

void TEventLogX::GetTimes(double& ACreation, double& ALastWrite, double& ALastAccess) {
  TVariantBuffer buffer;
  ACreation = FileTimeToDays(VariantNumber(LogInfo(buffer, FLogH, EvtLogCreationTime)));
  ALastWrite = FileTimeToDays(VariantNumber(LogInfo(buffer, FLogH, EvtLogLastWriteTime)));
  ALastAccess = FileTimeToDays(VariantNumber(LogInfo(buffer, FLogH, EvtLogLastAccessTime)));
}

int64_t TEventLogX::GetFileSize() {
  TVariantBuffer buffer;
  return static_cast<int64_t>(VariantNumber(LogInfo(buffer, FLogH, EvtLogFileSize)));
}

bool TEventLogX::GetLogIsFull() {
  TVariantBuffer buffer;
  return VariantNumber(LogInfo(buffer, FLogH, EvtLogFull)) != 0;
}

// --- Channel configuration ----------------------------------------------------------

namespace {

const EVT_VARIANT* ConfigValue(TVariantBuffer& ABuffer, EVT_HANDLE AConfig, uint32_t AProperty,
                               const std::string& AChannel) {
  const EVT_VARIANT* value = ConfigInfo(ABuffer, AConfig, AProperty);
  if (!value) RaiseLastOSError(AChannel);
  return value;
}

void SetConfigValue(EVT_HANDLE AConfig, uint32_t AProperty, uint32_t AType, uint64_t AValue,
                    const std::string& AChannel) {
  EVT_VARIANT value{};
  if (AType == EvtVarTypeBoolean)
    value.BooleanVal = AValue != 0;
  else
    value.UInt64Val = AValue;
  value.Type = AType;
  if (!WevtApi().EvtSetChannelConfigProperty(AConfig, AProperty, 0, &value)) RaiseLastOSError(AChannel);
}

} // namespace

void TEventLogX::OpenChannelConfig() {
  CloseChannelConfig();
  FChannelConfigH = WevtApi().EvtOpenChannelConfig(FSessionH, Wide(FSourceName).c_str(), 0);
  if (!FChannelConfigH) RaiseLastOSError(FSourceName);
}

void TEventLogX::SaveChannelConfig() {
  if (!FChannelConfigH) OpenChannelConfig();
  if (!WevtApi().EvtSaveChannelConfig(FChannelConfigH, 0)) RaiseLastOSError(FSourceName);
}

void TEventLogX::CloseChannelConfig() {
  CloseEvtHandle(FChannelConfigH);
}

#define QVX_CONFIG_GETTER(Type, Name, Property, Convert)                                                     \
  Type TEventLogX::Name() {                                                                                  \
    if (!FChannelConfigH) OpenChannelConfig();                                                               \
    TVariantBuffer buffer;                                                                                   \
    return Convert(ConfigValue(buffer, FChannelConfigH, Property, FSourceName));                             \
  }
#define QVX_CONFIG_SETTER(Type, Name, Property, VarType)                                                     \
  void TEventLogX::Name(Type AValue) {                                                                       \
    if (!FChannelConfigH) OpenChannelConfig();                                                               \
    SetConfigValue(FChannelConfigH, Property, VarType, static_cast<uint64_t>(AValue), FSourceName);          \
  }

namespace {
bool AsFlag(const EVT_VARIANT* AValue) {
  return VariantNumber(AValue) != 0;
}
} // namespace

QVX_CONFIG_GETTER(bool, GetConfigEnabled, EvtChannelConfigEnabled, AsFlag)
QVX_CONFIG_GETTER(bool, GetCongigClassicEventLog, EvtChannelConfigClassicEventlog, AsFlag)
QVX_CONFIG_GETTER(bool, GetConfigRetention, EvtChannelLoggingConfigRetention, AsFlag)
QVX_CONFIG_GETTER(bool, GetConfigAutoBackup, EvtChannelLoggingConfigAutoBackup, AsFlag)
QVX_CONFIG_GETTER(uint64_t, GetConfigMaxSize, EvtChannelLoggingConfigMaxSize, VariantNumber)
QVX_CONFIG_GETTER(std::string, GetConfigPath, EvtChannelLoggingConfigLogFilePath, VariantText)
QVX_CONFIG_SETTER(bool, SetConfigEnabled, EvtChannelConfigEnabled, EvtVarTypeBoolean)
QVX_CONFIG_SETTER(uint64_t, SetConfigMaxSize, EvtChannelLoggingConfigMaxSize, EvtVarTypeUInt64)
QVX_CONFIG_SETTER(bool, SetConfigAutoBackup, EvtChannelLoggingConfigAutoBackup, EvtVarTypeBoolean)
QVX_CONFIG_SETTER(bool, SetConfigRetention, EvtChannelLoggingConfigRetention, EvtVarTypeBoolean)

#undef QVX_CONFIG_GETTER
#undef QVX_CONFIG_SETTER

} // namespace qvx
