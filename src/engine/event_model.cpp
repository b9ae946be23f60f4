#include "engine/event_model.h"

#include "descriptions/message_files.h"
#include "imaged/imaged_pc.h"

#include <cstdio>

namespace qvx {

uint32_t EventTypeToClassic(TEventType AType) {
  switch (AType) {
  case EVT_ERROR: return 1;
  case EVT_WARNING: return 2;
  case EVT_INFORMATION: return 4;
  case EVT_AUDIT_SUCCESS: return 8;
  case EVT_AUDIT_FAILURE: return 16;
  default: return 0;
  }
}

TEventType ClassicToEventType(uint32_t AClassic) {
  switch (AClassic) {
  case 0:
  case 4: return EVT_INFORMATION;
  case 1: return EVT_ERROR;
  case 2: return EVT_WARNING;
  case 8: return EVT_AUDIT_SUCCESS;
  case 16: return EVT_AUDIT_FAILURE;
  default: return EVT_SUCCESS;
  }
}

uint32_t EventTypeToMask(TEventType AType) {
  switch (AType) {
  case EVT_SUCCESS: return 1;
  case EVT_INFORMATION: return 2;
  case EVT_WARNING: return 4;
  case EVT_ERROR: return 8;
  case EVT_CRITICAL: return 16;
  case EVT_VERBOSE: return 32;
  case EVT_AUDIT_SUCCESS: return 65536;
  case EVT_AUDIT_FAILURE: return 131072;
  default: return 0;
  }
}

const char* EventTypeName(TEventType AType) {
  static const char* const kNames[] = {"Success",      "Verbose",      "Information",  "Warning",
                                       "Error",        "Critical",     "Reserved (6)", "Reserved (7)",
                                       "Reserved (8)", "Reserved (9)", "Reserved (10)", "Reserved (11)",
                                       "Audit Success", "Audit Failure"};
  return AType <= EVT_AUDIT_FAILURE ? kNames[AType] : "Unknown";
}

TStringList SplitSemicolonList(std::string_view AList) {
  TStringList result;
  size_t i = 0;
  while (i < AList.size()) {
    size_t start = i;
    while (i < AList.size() && AList[i] != ';' && static_cast<unsigned char>(AList[i]) >= 32) ++i;
    if (i > start) result.emplace_back(AList.substr(start, i - start));
    if (i < AList.size() && AList[i] == ';') {
      ++i;
      while (i < AList.size() && AList[i] == ' ') ++i;
    } else if (i < AList.size()) {
      ++i; // a control character ends the item
    }
  }
  return result;
}

std::string BuildDescriptionNotFound(uint32_t AEventId, const std::string& ASourceName, const TStringList& AStrings) {
  return BuildMissingDescriptionText(ASourceName, AEventId, AStrings);
}

// --- TIssueList -------------------------------------------------------------------

void TIssueList::AddIssue(const std::string& AText) {
  ++FIssueCount;
  if (FMaxCount < 0 || FIssueCount <= FMaxCount)
    FLines.push_back(AText);
  else if (FIssueCount == FMaxCount + 1)
    FLines.push_back("...");
}

void TIssueList::Clear() {
  FLines.clear();
  FIssueCount = 0;
}

void TEventLogList::AddEventLog(const std::string& AName, std::unique_ptr<TEventLogInfoBase> AInfo) {
  FItems.emplace_back(AName, std::move(AInfo));
}

// --- TEventItemBase ---------------------------------------------------------------

void TEventItemBase::Assign(const TEventItemBase& ASource) {
  if (&ASource == this) return;
  FRecordIndex = ASource.FRecordIndex;
  FTimeGenerated = ASource.FTimeGenerated;
  FTimeWritten = ASource.FTimeWritten;
  FEventID = ASource.FEventID;
  FEventType = ASource.FEventType;
  FStrings = ASource.FStrings;
  FEventCategory = ASource.FEventCategory;
  FSourceName = ASource.FSourceName;
  FComputername = ASource.FComputername;
  FRecordNumber = ASource.FRecordNumber;
  SetData(ASource.FData.data(), ASource.FDataLength);
  SetSID(ASource.FSID.data(), ASource.FSidLength);
}

void TEventItemBase::Clear() {
  FTimeGenerated = 0;
  FTimeWritten = 0;
  FEventID = 0;
  FEventType = EVT_SUCCESS;
  FStrings.clear();
  FEventCategory = 0;
  FSourceName.clear();
  FComputername.clear();
  FData.clear();
  FDataLength = 0;
  FSID.clear();
  FSidLength = 0;
}

const std::string& TEventItemBase::GetUserName() {
  if (FSidLength == 0) {
    FUserName = "N/A";
    return FUserName;
  }
  if (FUserName.empty() && FOwner) {
    FUserName = FOwner->UserNameCache().AddUserName(FSID.data(), FSidLength);
    if (FUserName.empty()) FUserName = "N/A";
  }
  return FUserName;
}

void TEventItemBase::SetSID(const uint8_t* AData, uint32_t ALength) {
  FSID.clear();
  FSidLength = 0;
  if (ALength && AData) {
    FSID.assign(AData, AData + ALength);
    FSidLength = ALength;
  }
}

void TEventItemBase::SetData(const uint8_t* AData, uint32_t ALength) {
  FData.clear();
  FDataLength = 0;
  if (ALength >= 1 && AData) {
    FData.assign(AData, AData + ALength);
    FDataLength = ALength;
  }
}

double TEventItemBase::GetTimeGenerated() const {
  return FOwner ? FOwner->ConvertTime(FTimeGenerated) : FTimeGenerated;
}

double TEventItemBase::GetTimeWritten() const {
  return FOwner ? FOwner->ConvertTime(FTimeWritten) : FTimeWritten;
}

// --- TEventLogBase ----------------------------------------------------------------

TEventLogBase::TEventLogBase()
    : FTimeZones(std::make_unique<TTimeZones>()), FIssueList(std::make_unique<TIssueList>(2000)),
      FCategoryCache(std::make_unique<TCategoryCache>()),
      FEventDescriptionCache(std::make_unique<TEventDescriptionCache>()),
      FSourcePropertiesCache(std::make_unique<TSourcePropertiesCache>()),
      FUserNameCache(std::make_unique<TUserNameCache>(std::string())) {
  UseLocalZone();
}

TTimeZones& TEventLogBase::TimeZones() {
  if (!FTimeZonesRead) {
    FTimeZones->EnumTimeZones();
    FTimeZonesRead = true;
  }
  return *FTimeZones;
}

TEventLogBase::~TEventLogBase() {
  if (FImagedDescrServer) FImagedDescrServer->MessageFiles().OnIssue = nullptr;
}

void TEventLogBase::SetActive(bool AValue) {
  if (AValue == FActive) return;
  if (!AValue) {
    CloseEventLog();
    return;
  }
  const auto first = FBackupFileName.find_first_not_of(" \t\r\n");
  if (first != std::string::npos)
    OpenBackupEventLog();
  else
    OpenEventLog();
}

void TEventLogBase::SetMachineName(const std::string& AName) {
  if (AName != FMachineName) FUserNameCache->SetComputer(AName);
  FMachineName = AName;
}

void TEventLogBase::SetDescriptionServer(const std::string& AName) {
  FDescriptionServer = AName;
  FEventDescriptionCache->Clear();
  FSourcePropertiesCache->Clear();
  FDescriptionServerErrorCode = 0;
}

void TEventLogBase::SetImagedDescrServer(TImagedPC* AComputer) {
  if (FImagedDescrServer) FImagedDescrServer->MessageFiles().OnIssue = nullptr;
  FImagedDescrServer = AComputer;
  if (!AComputer) {
    SetDescriptionServer("[DEFAULT]");
    RebuildOfflineServers();
    return;
  }
  SetDescriptionServer("[IMAGED]");
  // Accounts of the installation's profile list; other SIDs are looked up as usual.
  AComputer->UserSIDS().AssignTo(*FUserNameCache);
  FCategoryCache->Clear();
  if (AComputer->TimeZones().Count() > 0) {
    *FTimeZones = AComputer->TimeZones();
    FTimeZonesRead = true;
  }
  AComputer->MessageFiles().OnIssue = [this](const std::string& AText) { FIssueList->AddIssue(AText); };
  AComputer->MessageFiles().ReportMissing = true;
  RebuildOfflineServers();
}

void TEventLogBase::SetCatalogs(TEventMessageServer* ACatalogs) {
  FCatalogs = ACatalogs;
  FEventDescriptionCache->Clear();
  FCategoryCache->Clear();
  RebuildOfflineServers();
}

void TEventLogBase::RebuildOfflineServers() {
  FOfflineServers.Clear();
  if (FImagedDescrServer && FImagedDescrServer->Active()) FOfflineServers.Add(FImagedDescrServer);
  FOfflineServers.Add(FCatalogs);
}

bool TEventLogBase::UsesImagedDescriptions() const {
  return FImagedDescrServer && FImagedDescrServer->Active() &&
         FDescriptionServer.find("[IMAGED]") != std::string::npos;
}

void TEventLogBase::UseLocalZone() {
  FLocalTimeZone = 1;
  FSpecificTimeZoneName = CurrentTimeZoneKeyName();
  FCurrentTimeShift = TimeZoneOffset(nullptr);
  TTimeZoneInformation local;
  if (LocalTimeZoneInformation(local))
    FConverter.emplace(local);
  else
    FConverter.reset();
}

void TEventLogBase::SetTimeShift(int AMode, int AShift, const std::string& AZoneName) {
  switch (AMode) {
  case 0:
    FLocalTimeZone = 0;
    FCurrentTimeShift = AShift;
    FSpecificTimeZoneName.clear();
    FConverter.reset();
    break;
  case 2:
    FLocalTimeZone = 2;
    FCurrentTimeShift = 0;
    FSpecificTimeZoneName = "UTC";
    FConverter.reset();
    break;
  case 3: {
    TTimeZone zone;
    if (TimeZones().FindTimeZone(AZoneName, zone)) {
      FLocalTimeZone = 3;
      FSpecificTimeZoneName = zone.KeyName;
      FSpecificTimeZoneInfo = ZoneToTimeZoneInformation(zone);
      FCurrentTimeShift = TimeZoneOffset(&zone);
      FConverter.emplace(FSpecificTimeZoneInfo);
    } else {
      UseLocalZone();
    }
    break;
  }
  default: UseLocalZone(); break;
  }
}

void TEventLogBase::GetTimeShift(int& AMode, int& AShift, std::string& AZoneName) const {
  AMode = FLocalTimeZone;
  AShift = FCurrentTimeShift;
  AZoneName = FSpecificTimeZoneName;
}

double TEventLogBase::ConvertTime(double AUtcDays) const {
  switch (FLocalTimeZone) {
  case 0: return AUtcDays + FCurrentTimeShift / 1440.0;
  case 2: return AUtcDays;
  default: return FConverter ? FConverter->ToLocal(AUtcDays) : AUtcDays;
  }
}

int TEventLogBase::ShiftMinutesAt(double AUtcDays) const {
  switch (FLocalTimeZone) {
  case 0: return FCurrentTimeShift;
  case 2: return 0;
  default: return FConverter ? FConverter->OffsetMinutes(AUtcDays) : 0;
  }
}

const char* StoreTypeText(int64_t AType) {
  switch (AType) {
  case 0:
    return "0";
  case 1:
    return "Verbose";
  case 2:
    return "Information";
  case 3:
    return "Warning";
  case 4:
    return "Error";
  case 5:
    return "Critical";
  case 12:
    return "Audit Success";
  case 13:
    return "Audit Failure";
  default:
    return "";
  }
}

} // namespace qvx
