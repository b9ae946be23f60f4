// TEventLogX: the log source over the event log interface of Windows Vista and later
// (live channels, local or remote, and saved files opened through the system).
//
// The portable part — building a record from an event's XML, the event type rule, the
// channel list filter — lives in event_log_x.cpp and serves the direct .evtx sources
// on every platform. The operations that need the system's event log service live in
// event_log_x_win.cpp (the interface is loaded from "Wevtapi.dll" at run time); on
// other platforms they raise ELiveLogUnavailable.
#pragma once

#include "descriptions/message_files.h"
#include "engine/event_model.h"
#include "engine/event_xml.h"

#include <array>
#include <cstdint>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>

namespace qvx {

// A live log, a remote computer or the system's own reading of a file was asked for on
// a platform that has no event log service.
class ELiveLogUnavailable : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// One event of the modern interface. The task name and the user are kept as rendered.
class TEventItemX : public TEventItemBase {
public:
  using TEventItemBase::TEventItemBase;
  void Assign(const TEventItemBase& ASource) override;
  const std::string& GetCategoryName() override { return FCategoryName; }
  const std::string& GetUserName() override { return FUserName; }

  // The raw system fields, for output.
  std::string FUserSid;   // SID text of the Security element
  std::string FSystemTime; // SystemTime attribute as written
  std::string FKeywords;
  std::string FOpcodeName;   // from offline metadata (imaged computer, catalogs); empty when unknown
  std::string FKeywordNames; // likewise, the keyword bits' names joined by ", "
  uint16_t FEventIDQual = 0;
  uint8_t FVersion = 0;
  uint8_t FLevel = 0;
  uint8_t FOpCode = 0;
  uint16_t FTask = 0;
  uint64_t FEventRecordID = 0; // the full 64-bit EventRecordID
  bool FDescriptionFound = true; // false when FEvtMessage is the no-description mark and the values
};

// One channel of the computer's channel list.
class TEventLogInfoX : public TEventLogInfoBase {
public:
  TEventLogInfoX() = default;
  TEventLogInfoX(std::string ALogName, std::string AOwningPublisher, int64_t AEvtCount, bool AClassic,
                 int32_t AChannelType)
      : LogName(std::move(ALogName)), OwningPublisher(std::move(AOwningPublisher)), EvtCount(AEvtCount),
        Classic(AClassic), ChannelType(AChannelType) {}
  void AssignTo(TEventLogInfoX& ATarget) const { ATarget = *this; }

  std::string LogName;
  std::string OwningPublisher;
  int64_t EvtCount = 0;
  bool Classic = false;
  int32_t ChannelType = 0; // 0 admin, 1 operational, 2 analytic, 3 debug
};

// Chooses channels for the log tree.
class TEventLogInfoFilterX {
public:
  // Rule on empty channels: 0 keep all, 1 drop channels without events.
  enum { nePassAll = 0, neDropEmpty = 1 };

  bool MatchMask(const std::string& AName) const;
  bool MatchChannelType(int32_t AType) const { return FChannelType.empty() || FChannelType.count(AType) > 0; }
  bool MatchNoEmpty(int64_t AEvtCount) const { return FNonEmpty != neDropEmpty || AEvtCount > 0; }
  bool Match(const TEventLogInfoX& AInfo) const {
    return MatchMask(AInfo.LogName) && MatchChannelType(AInfo.ChannelType) && MatchNoEmpty(AInfo.EvtCount);
  }
  // Case-insensitive ECMAScript expression over the channel name; an invalid one
  // raises std::regex_error.
  void SetRegEx(const std::string& AExpression);

  std::set<int32_t> FChannelType;
  int32_t FNonEmpty = nePassAll;

private:
  struct TCompiled;
  std::string FRegEx;
  std::shared_ptr<const TCompiled> FCompiled;
};

class TEventLogX : public TEventLogBase {
public:
  TEventLogX();
  ~TEventLogX() override;

  void OpenEventLog() override;
  void CloseEventLog() override;
  int64_t GetCount() override;
  void OpenBackupEventLog() override;
  void SetMachineName(const std::string& AName) override;
  void SetDescriptionServer(const std::string& AName) override;
  void GetItemsFromData(std::string& AText, const std::string& ASourceName, uint32_t AEventId,
                        uint16_t AEventIdQual, uint8_t AVersion, uint8_t AOpCode, const TStringList& AStrings) override;
  void GetEventSources(TStringList& ASources) override;
  void GetEventSourcesByLog(const std::string& ALog, TStringList& ASources) override;
  void GetEventLogs(TEventLogList& ALogs) override;
  void Clear(const std::string& ABackupFile) override;
  void BackupEventlog(const std::string& ABackupFileName) override;
  // The next record (owned by the source, good until the next call), null at the end,
  // or UndeliverableMarker() for an event that could not be delivered.
  TEventItemBase* EventNext() override;
  int64_t GetLastCount() override;

  // The next event's XML and fields. The XML is empty at the end of the log, "*" for
  // an event to skip and "+" for an event that could not be delivered; a source that
  // hands out events without their XML leaves it empty and sets FEventWithoutXml.
  virtual void EventNextXML(std::string& AXml, TEventXmlFields& AFields);

  // The task name of a provider's task from its publisher metadata; empty when none.
  virtual std::string EVTXGetTaskName(const std::string& AProvider, uint32_t ATask);

  // Windows only: the channel's handle without a query, channel configuration, log times.
  void OpenEventLogNoQuery();
  void GetTimes(double& ACreation, double& ALastWrite, double& ALastAccess);
  int64_t GetFileSize();
  bool GetLogIsFull();

  // The all-ones marker that EventNext returns in place of an undeliverable event.
  static TEventItemBase* UndeliverableMarker();
  // The message mark for "no description was found".
  static constexpr char kNoDescriptionMark = '\x01';

  const std::string& XMLQuery() const { return FXMLQuery; }
  void SetXMLQuery(const std::string& AQuery) { FXMLQuery = AQuery; }
  TEventLogInfoFilterX& InfoFilter() { return FInfoFilter; }
  bool FFastGetDescription = false;

#ifdef _WIN32
  // Configuration of the channel SourceName on the log's computer. The getters and
  // setters open it when it is not open; every failure raises ENTException. Setters
  // take effect with SaveChannelConfig.
  void OpenChannelConfig();
  void SaveChannelConfig();
  void CloseChannelConfig();
  bool GetConfigEnabled();
  bool GetCongigClassicEventLog();
  bool GetConfigRetention();
  bool GetConfigAutoBackup();
  uint64_t GetConfigMaxSize();
  std::string GetConfigPath();
  void SetConfigEnabled(bool AValue);
  void SetConfigMaxSize(uint64_t AValue);
  void SetConfigAutoBackup(bool AValue);
  void SetConfigRetention(bool AValue);
#endif

protected:
  // The task name ("None" for task 0, else the task cache, the publisher's metadata, or
  // the number in parentheses, which is then cached) and the user name of the SID.
  void ResolveTaskAndUser(TEventXmlFields& AFields);
  // The description from the offline servers (the imaged computer when it is the
  // description server, then the catalogs): true with AText set (the description, or the
  // no-description mark), false when none is in use.
  bool DescribeFromImaged(std::string& AText, const std::string& ASourceName, uint32_t AEventId,
                          uint16_t AEventIdQual, uint8_t AVersion, const TStringList& AStrings);
  // Makes the description the no-description mark followed by the data values, one per line.
  static void MarkNoDescription(TEventXmlFields& AFields);
  // Fills FItem from the XML and fields of one event; takes AXml's text over. With
  // ATakeFields the item also takes the text fields over (swapped: AFields then holds
  // the item's old strings), for a caller that fills every one of them again.
  void BuildItem(std::string& AXml, TEventXmlFields& AFields, bool ATakeFields = false);

  bool FEventWithoutXml = false; // set by EventNextXML: an event whose XML was not made
  std::array<void*, 100> FEvents{};
  uint32_t FEventIndex = 0;
  uint32_t FEventsLen = 0;
  int64_t FLastCount = -1;
  void* FDescriptionSessionH = nullptr;
  void* FSessionH = nullptr;
  void* FRpcConnection = nullptr;
  void* FLogH = nullptr;
  void* FChannelConfigH = nullptr;
  void* FQueryH = nullptr;
  std::string FXMLQuery;
  TEventLogInfoFilterX FInfoFilter;

  TEventItemX FItem{this};
  TEventXmlFields FFields;
  std::string FXml;
  std::vector<uint8_t> FSidBuffer;
  std::string FSidText;    // the SID whose bytes FSidBuffer holds
  bool FSidValid = false;  // and whether it read as one
  int32_t FRecordCounter = 0;
  std::vector<char16_t> FRenderBuffer; // Windows rendering buffer, grows from 8192 bytes
  std::string FCacheSource;            // reused description cache key
  std::string FTemplate;
  TMessageFiles FInsertFiles; // formats offline templates (loads no file)
  struct TNameEntry {
    uint32_t Task = 0;
    uint8_t Opcode = 0;
    uint64_t Keywords = 0;
    std::string OpcodeName, KeywordNames;
  };
  detail::TNoCaseMap<std::vector<TNameEntry>> FNameCache; // by provider
};

} // namespace qvx
