// The event record and log source model that every kind of log is read through.
//
// TEventLogBase is an open log of any kind (a live log, a saved file, a deep scan);
// TEventItemBase is one event it yields. Times inside a record are UTC day counts
// (days since 1899-12-30, fraction = time of day); the source converts them to the
// viewer's zone only when a time is read, by its time shift mode.
#pragma once

#include "descriptions/description_caches.h"
#include "descriptions/message_server.h"
#include "descriptions/time_zones.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx {

class TImagedPC; // an offline computer that resolves descriptions instead of the log's own

using TStringList = std::vector<std::string>;

// Level or type of an event. Modern levels 0-5 map one to one; the audit kinds sit at 12, 13.
enum TEventType : uint8_t {
  EVT_SUCCESS = 0,
  EVT_VERBOSE = 1,
  EVT_INFORMATION = 2,
  EVT_WARNING = 3,
  EVT_ERROR = 4,
  EVT_CRITICAL = 5,
  EVT_RESERVED1 = 6,
  EVT_RESERVED2 = 7,
  EVT_RESERVED3 = 8,
  EVT_RESERVED4 = 9,
  EVT_RESERVED5 = 10,
  EVT_RESERVED6 = 11,
  EVT_AUDIT_SUCCESS = 12,
  EVT_AUDIT_FAILURE = 13,
};

// Classic type bits: EVT_ERROR 1, EVT_WARNING 2, EVT_INFORMATION 4, audit success 8,
// audit failure 16, everything else 0.
uint32_t EventTypeToClassic(TEventType AType);
// 0 and 4 read as EVT_INFORMATION (classic "success" is information), 1 error, 2 warning,
// 8 and 16 the audits, anything else EVT_SUCCESS.
TEventType ClassicToEventType(uint32_t AClassic);
// The bit of the type filter; 0 for reserved values.
uint32_t EventTypeToMask(TEventType AType);
// The type text of a stored type code, as views and alert macros show it: "Verbose",
// "Information", ..., "0" for 0 and "" for codes that are not event types.
const char* StoreTypeText(int64_t AType);
// Display name: "Information", "Audit Failure", "Reserved (7)", ...
const char* EventTypeName(TEventType AType);

// Splits a list such as an EventMessageFile value: each item runs to the next ';' or
// control character; after a ';' blanks are skipped.
TStringList SplitSemicolonList(std::string_view AList);

// The description shown when no message is found, with the insertion strings appended.
std::string BuildDescriptionNotFound(uint32_t AEventId, const std::string& ASourceName, const TStringList& AStrings);

// Problems met while reading: at most FMaxCount lines kept, then one "...".
class TIssueList {
public:
  explicit TIssueList(int AMaxCount = 2000) : FMaxCount(AMaxCount) {}
  void AddIssue(const std::string& AText);
  void Clear();
  int IssueCount() const { return FIssueCount; } // issues offered, stored or not
  int MaxCount() const { return FMaxCount; }
  const TStringList& Lines() const { return FLines; }

private:
  TStringList FLines;
  int FIssueCount = 0;
  int FMaxCount;
};

// Per-log metadata held in a TEventLogList (the modern source adds fields).
class TEventLogInfoBase {
public:
  virtual ~TEventLogInfoBase() = default;
};

// The logs a computer offers: names, each with its owned info object.
class TEventLogList {
public:
  void AddEventLog(const std::string& AName, std::unique_ptr<TEventLogInfoBase> AInfo);
  void Clear() { FItems.clear(); }
  int Count() const { return static_cast<int>(FItems.size()); }
  const std::string& Name(int AIndex) const { return FItems[AIndex].first; }
  TEventLogInfoBase* Info(int AIndex) const { return FItems[AIndex].second.get(); }

private:
  std::vector<std::pair<std::string, std::unique_ptr<TEventLogInfoBase>>> FItems;
};

class TEventLogBase;

// One event record. The source that made it converts its times and resolves its user.
class TEventItemBase {
public:
  explicit TEventItemBase(TEventLogBase* AOwner) : FOwner(AOwner) {}
  virtual ~TEventItemBase() = default;
  TEventItemBase(const TEventItemBase&) = delete;
  TEventItemBase& operator=(const TEventItemBase&) = delete;

  // Copies the record's fields (not the lazily filled user and category names).
  virtual void Assign(const TEventItemBase& ASource);
  // Empties the record; keeps the user and category names, which a reuser overwrites.
  virtual void Clear();
  // "N/A" without a SID; otherwise the owner's user name cache answers once.
  virtual const std::string& GetUserName();
  virtual void SetSID(const uint8_t* AData, uint32_t ALength);
  virtual const std::string& GetCategoryName() = 0;

  void SetData(const uint8_t* AData, uint32_t ALength);
  // The times converted by the owner's time shift (UTC when there is no owner).
  double GetTimeGenerated() const;
  double GetTimeWritten() const;
  TEventLogBase* Owner() const { return FOwner; }

  int32_t FRecordIndex = 0;
  int32_t FRecordNumber = 0;
  double FTimeGenerated = 0;
  double FTimeWritten = 0;
  uint32_t FEventID = 0;
  TEventType FEventType = EVT_SUCCESS;
  TStringList FStrings;
  std::string FUserName;
  uint16_t FEventCategory = 0;
  std::string FCategoryName;
  std::string FSourceName;
  std::string FComputername;
  uint32_t FDataLength = 0;
  std::vector<uint8_t> FData;
  std::vector<uint8_t> FSID;
  uint32_t FSidLength = 0;
  std::string FChannel;
  std::string FEvtMessage;
  std::string FEvtXML;

protected:
  TEventLogBase* FOwner;
};

// An open log of any kind. A source is used by one thread at a time.
class TEventLogBase {
public:
  TEventLogBase();
  virtual ~TEventLogBase();
  TEventLogBase(const TEventLogBase&) = delete;
  TEventLogBase& operator=(const TEventLogBase&) = delete;

  // The source's operations, in the order every source keeps.
  virtual void OpenEventLog() = 0;
  virtual void CloseEventLog() = 0;
  // Opens (OpenBackupEventLog when BackupFileName is not blank, else OpenEventLog) or closes.
  virtual void SetActive(bool AValue);
  virtual int64_t GetCount() = 0;
  virtual void OpenBackupEventLog() = 0;
  virtual void SetMachineName(const std::string& AName);
  virtual void SetDescriptionServer(const std::string& AName);
  // Makes an active imaged computer describe this log's events (description server
  // "[IMAGED]"): its message files, task names, account names and time zone table.
  // Null detaches it (descriptions then come from "[DEFAULT]"). The computer must
  // outlive its use here and serve one reading thread at a time.
  void SetImagedDescrServer(TImagedPC* AComputer);
  TImagedPC* ImagedDescrServer() const { return FImagedDescrServer; }
  // True when descriptions come from the imaged computer.
  bool UsesImagedDescriptions() const;
  // Message catalogs (or any other offline server) that describe the events the imaged
  // computer has no text for, or all events when there is none. Null detaches them. The
  // server must outlive its use here and serve one reading thread at a time.
  void SetCatalogs(TEventMessageServer* ACatalogs);
  TEventMessageServer* Catalogs() const { return FCatalogs; }
  // True when descriptions come from the imaged computer or from catalogs.
  bool UsesOfflineDescriptions() const { return UsesImagedDescriptions() || FCatalogs; }
  virtual void InitMUIFolders() {}
  // Sets AText to the description of one event, or to the not-found text; never raises
  // for a missing message.
  virtual void GetItemsFromData(std::string& AText, const std::string& ASourceName, uint32_t AEventId,
                                uint16_t AEventIdQual, uint8_t AVersion, uint8_t AOpCode,
                                const TStringList& AStrings) = 0;
  virtual void GetEventSources(TStringList& ASources) = 0;
  virtual void GetEventSourcesByLog(const std::string& ALog, TStringList& ASources) = 0;
  virtual void GetEventLogs(TEventLogList& ALogs) = 0;
  virtual void Clear(const std::string& ABackupFile) = 0;
  virtual void BackupEventlog(const std::string& ABackupFileName) = 0;
  // The next record in reading order, owned by the source and good until the next call;
  // null at the end.
  virtual TEventItemBase* EventNext() = 0;
  virtual int64_t GetLastCount() = 0;

  // Time shift: 0 fixed minutes, 1 the computer's zone, 2 UTC, 3 a named zone (an
  // unknown name falls back to 1).
  void SetTimeShift(int AMode, int AShift, const std::string& AZoneName);
  void GetTimeShift(int& AMode, int& AShift, std::string& AZoneName) const;
  // A stored UTC day count as the viewer sees it.
  double ConvertTime(double AUtcDays) const;
  // Minutes between the shown time and UTC at that instant.
  int ShiftMinutesAt(double AUtcDays) const;

  bool Active() const { return FActive; }
  const std::string& MachineName() const { return FMachineName; }
  const std::string& SourceName() const { return FSourceName; }
  void SetSourceName(const std::string& AName) { FSourceName = AName; }
  const std::string& BackupFileName() const { return FBackupFileName; }
  void SetBackupFileName(const std::string& AName) { FBackupFileName = AName; }
  const std::string& DescriptionServer() const { return FDescriptionServer; }
  TIssueList& IssueList() { return *FIssueList; }
  // The known zones; read on first use (building the table costs more than opening a log).
  TTimeZones& TimeZones();
  TUserNameCache& UserNameCache() { return *FUserNameCache; }
  TCategoryCache& CategoryCache() { return *FCategoryCache; }

  bool NoMessages = false;
  bool Target64bit = true;
  std::string AltUserName, AltUserPassword;
  std::string DescrServerUserName, DescrServerPassword;

protected:
  std::string FMachineName;
  int32_t FCurrentTimeShift = 0;
  int32_t FLocalTimeZone = 1;
  std::string FSpecificTimeZoneName;
  TTimeZoneInformation FSpecificTimeZoneInfo;
  std::unique_ptr<TTimeZones> FTimeZones;
  bool FTimeZonesRead = false;
  std::unique_ptr<TIssueList> FIssueList;
  bool FActive = false;
  std::string FSourceName;
  std::string FBackupFileName;
  std::unique_ptr<TCategoryCache> FCategoryCache;
  std::unique_ptr<TEventDescriptionCache> FEventDescriptionCache;
  std::unique_ptr<TSourcePropertiesCache> FSourcePropertiesCache;
  std::unique_ptr<TUserNameCache> FUserNameCache;
  bool FLocalUserNotFound = false;
  std::vector<uint8_t> FLocalUserSid;
  std::string FDescriptionServer = "[DEFAULT]";
  TImagedPC* FImagedDescrServer = nullptr;
  TEventMessageServer* FCatalogs = nullptr;
  // The imaged computer (when active), then the catalogs: where offline texts come from.
  TEventMessageServerChain FOfflineServers;
  void RebuildOfflineServers();
  bool FRawRead = false;
  TStringList FMUIFolders{"en-US"};
  int32_t FDescriptionServerErrorCode = 0;

private:
  void UseLocalZone();
  // The zone rules of modes 1 and 3, with the transitions of the last year converted.
  mutable std::optional<TTziConverter> FConverter;
};

} // namespace qvx
