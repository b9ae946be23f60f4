#include "engine/classic_log.h"

#include "imaged/file_search.h"
#include "imaged/imaged_pc.h"
#include "platform/byte_reader.h"
#include "platform/nt_exception.h"
#include "platform/utf16.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qvx {

namespace {

constexpr uint32_t kHeaderSize = 48;
constexpr uint32_t kEofSearchBack = 65535;
constexpr uint32_t kMinRecordSize = 56;
constexpr uint32_t kSearchWindow = 1024;
constexpr uint32_t kMaxNeeded = 0xFFFFFF;
constexpr uint8_t kEofSignature[16] = {0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x22, 0x22,
                                       0x33, 0x33, 0x33, 0x33, 0x44, 0x44, 0x44, 0x44};
constexpr uint8_t kRecordSignature[4] = {'L', 'f', 'L', 'e'};
constexpr double kUnixEpochDays = 25569.0; // 1970-01-01 as a day count

uint32_t U32(const uint8_t* AData) {
  return static_cast<uint32_t>(AData[0]) | static_cast<uint32_t>(AData[1]) << 8 |
         static_cast<uint32_t>(AData[2]) << 16 | static_cast<uint32_t>(AData[3]) << 24;
}
uint16_t U16(const uint8_t* AData) { return static_cast<uint16_t>(AData[0] | AData[1] << 8); }

[[noreturn]] void RaiseNotAvailable(int32_t AIndex) {
  char text[96];
  std::snprintf(text, sizeof text, "The event %d is not available at server any more.", AIndex);
  throw std::runtime_error(text);
}

std::string HexOffset(uint64_t AOffset) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(AOffset));
  return text;
}

} // namespace

// --- TLogFileData -------------------------------------------------------------------

TLogFileData::TLogFileData() = default;
TLogFileData::~TLogFileData() = default;

bool TLogFileData::ReadBytes(uint64_t AOffset, uint8_t* ABuffer, uint32_t ALength) {
  if (AOffset > FFileSize || ALength > FFileSize - AOffset) return false;
  const uint64_t end = AOffset + ALength;
  if (AOffset < FWindowStart || end > FWindowStart + FWindow.size()) {
    if (ALength > kWindowSize / 2) return FFileSearch->ReadAt(AOffset, ABuffer, ALength) == ALength;
    // Records are read backwards: keep the window that ends just after this read.
    const uint64_t windowEnd = std::min<uint64_t>(FFileSize, std::max<uint64_t>(end, kWindowSize / 8) + kWindowSize / 8);
    FWindowStart = windowEnd > kWindowSize ? windowEnd - kWindowSize : 0;
    FWindow.resize(static_cast<size_t>(windowEnd - FWindowStart));
    if (FFileSearch->ReadAt(FWindowStart, FWindow.data(), FWindow.size()) != FWindow.size()) {
      FWindow.clear();
      return false;
    }
  }
  std::memcpy(ABuffer, FWindow.data() + (AOffset - FWindowStart), ALength);
  return true;
}

bool TLogFileData::ReadU32(uint64_t AOffset, uint32_t& AValue) {
  uint8_t bytes[4];
  if (!ReadBytes(AOffset, bytes, 4)) return false;
  AValue = U32(bytes);
  return true;
}

bool TLogFileData::Open(const std::string& AFileName) {
  FLogFileName = AFileName;
  FFileSearch = std::make_unique<TTFileSearch>(AFileName, 0);
  FFileSize = FFileSearch->FileSize();
  uint32_t headerSize = 0;
  if (FFileSize < kHeaderSize || !ReadU32(0, headerSize) || headerSize != kHeaderSize) {
    FError = AFileName + ": not a classic event log (.evt): the header size at offset 0x0 is not 48";
    return false;
  }
  // The end-of-file record lies near the end of a log that has not wrapped, anywhere in
  // one that has: look in the last 64 KB first, then from the start.
  const uint64_t from = FFileSize > kEofSearchBack ? FFileSize - kEofSearchBack : 0;
  FFileSearch->Init(kEofSignature, from);
  uint64_t found = FFileSearch->Next();
  if (!FFileSearch->Found() && from > 0) {
    FFileSearch->Init(kEofSignature, 0);
    found = FFileSearch->Next();
  }
  uint8_t numbers[16];
  if (!FFileSearch->Found() || found < 4 || !ReadBytes(found + 16, numbers, 16)) {
    FError = AFileName + ": no end-of-file record found; the log cannot be read";
    return false;
  }
  FSignaturePos = static_cast<uint32_t>(found);
  FFirstRecord = U32(numbers);
  FFutureRecord = U32(numbers + 4);
  FFutureRecNo = U32(numbers + 8);
  FFirstRecNo = U32(numbers + 12);
  FRecordNumbers = FFutureRecNo - FFirstRecNo;
  // Record numbers that the file cannot hold (a damaged end-of-file record): count what
  // could be there at most; reading then ends where the records do.
  const uint64_t most = (FFileSize - kHeaderSize) / kMinRecordSize;
  if (FRecordNumbers > most) {
    NoteDamage("the end-of-file record counts more records than the file can hold", found - 4);
    FRecordNumbers = static_cast<uint32_t>(most);
  }
  // The end-of-file record starts 4 bytes before its signature; the newest record ends
  // there, wherever the record itself says it is.
  FPos = found - 4;
  if (FFutureRecord != FPos) NoteDamage("the end-of-file record names another offset for itself", found - 4);
  FCurrentRecNo = FFutureRecNo;
  FMovedToBottom = false;
  FFileCorrupted = false;
  FPendingCorrupt = false;
  FDone = FRecordNumbers == 0;
  FSteps = 0;
  return true;
}

void TLogFileData::NoteDamage(const char* AWhat, uint64_t AOffset) {
  if (FDamage.size() >= 1000) return;
  std::string text = AWhat;
  text.append(" at offset ");
  text.append(HexOffset(AOffset));
  FDamage.push_back(std::move(text));
}

bool TLogFileData::Fail(uint32_t ACode) {
  FLastError = ACode;
  return false;
}

bool TLogFileData::ReadRecordBytes(uint64_t AEnd, uint32_t ALength, uint8_t* ABuffer) {
  if (AEnd < kHeaderSize || AEnd > FFileSize) return false;
  const uint64_t inArea = AEnd - kHeaderSize;
  if (ALength <= inArea) return ReadBytes(AEnd - ALength, ABuffer, ALength);
  // The record's head lies at the end of the file, its rest right after the header.
  const uint64_t head = ALength - inArea;
  if (head > FFileSize - kHeaderSize) return false;
  FMovedToBottom = true;
  return ReadBytes(FFileSize - head, ABuffer, static_cast<uint32_t>(head)) &&
         ReadBytes(kHeaderSize, ABuffer + head, static_cast<uint32_t>(inArea));
}

bool TLogFileData::SearchBackward() {
  uint8_t window[kSearchWindow];
  auto scan = [&](uint64_t AFrom, uint32_t ALength) -> bool {
    if (ALength < 4 || !ReadBytes(AFrom, window, ALength)) return false;
    for (uint32_t i = ALength - 4 + 1; i-- > 0;)
      if (std::memcmp(window + i, kRecordSignature, 4) == 0 && AFrom + i >= 4) {
        FPos = AFrom + i - 4;
        return true;
      }
    return false;
  };
  if (FPos > kHeaderSize) {
    const uint64_t from = FPos >= kHeaderSize + kSearchWindow + 1 ? FPos - kSearchWindow : kHeaderSize;
    // Up to the current position, so a signature right before it can still be a start.
    if (scan(from, static_cast<uint32_t>(std::min<uint64_t>(FPos - from, kSearchWindow)))) return true;
    if (from > kHeaderSize) return false;
  }
  if (FMovedToBottom) return false; // the end of the file was searched already
  FMovedToBottom = true;
  const uint32_t length = static_cast<uint32_t>(std::min<uint64_t>(kSearchWindow, FFileSize - kHeaderSize));
  return scan(FFileSize - length, length);
}

bool TLogFileData::ReadEventLog(uint32_t AFlags, uint32_t, uint8_t* ABuffer, uint32_t ASize, uint32_t& ARead,
                                uint32_t& ANeeded) {
  ARead = 0;
  ANeeded = 0;
  if (!(AFlags & kEventlogBackwardsRead)) return true;
  if (FPendingCorrupt) {
    FPendingCorrupt = false;
    FDone = true;
    return Fail(kErrorEventlogFileCorrupt);
  }
  if (FDone) return Fail(kErrorHandleEof);
  // Damage that cannot be stepped over: the records read so far are handed out and the
  // next call reports it.
  auto damaged = [&]() {
    FFileCorrupted = true;
    if (ARead == 0) {
      FDone = true;
      return Fail(kErrorEventlogFileCorrupt);
    }
    FPendingCorrupt = true;
    return true;
  };
  // Below the data area the walk goes on at the end of the file (the area is circular).
  auto wrap = [&]() {
    if (FPos <= kHeaderSize) {
      FPos = FFileSize;
      FMovedToBottom = true;
    }
  };
  // Every step accepts a record or moves back over damage; there cannot be more steps
  // than the file has 4-byte words.
  const uint64_t maxSteps = FFileSize / 4 + 16;
  wrap();
  for (;;) {
    if (++FSteps > maxSteps) return damaged();
    uint32_t length = 0;
    if (FPos < kHeaderSize + 4 || !ReadU32(FPos - 4, length)) return damaged();
    if (length < kMinRecordSize || length > FFileSize - kHeaderSize || length >= kMaxNeeded) {
      // A length that cannot be right: step back to the start of this record.
      NoteDamage("a record length that cannot be right", FPos - 4);
      FFileCorrupted = true;
      if (!SearchBackward()) return damaged();
      if (--FCurrentRecNo == FFirstRecNo) {
        FDone = true;
        return true;
      }
      wrap();
      continue;
    }
    if (length > ASize - ARead) {
      if (ARead > 0) return true;
      ANeeded = length;
      return Fail(kErrorInsufficientBuffer);
    }
    --FCurrentRecNo;
    const uint64_t end = FPos;
    const int64_t start = static_cast<int64_t>(end) - length;
    // A start before the header: the record's head lies at the end of the file.
    const uint64_t head = start < static_cast<int64_t>(kHeaderSize) ? kHeaderSize - static_cast<uint64_t>(start) : 0;
    const uint64_t fileStart = head ? FFileSize - head : static_cast<uint64_t>(start);
    uint8_t* record = ABuffer + ARead;
    const bool read = head <= FFileSize - kHeaderSize && ReadRecordBytes(end, length, record);
    if (!read || U32(record) != length || std::memcmp(record + 4, kRecordSignature, 4) != 0) {
      NoteDamage("a record whose leading and trailing lengths differ", fileStart);
      FFileCorrupted = true;
      FPos = end;
      if (!SearchBackward()) return damaged();
      if (FCurrentRecNo == FFirstRecNo) {
        FDone = true;
        return true;
      }
      wrap();
      continue;
    }
    if (FMovedToBottom && !head && fileStart < FSignaturePos) {
      // Wrapped, and now below the end-of-file record: the oldest data has been passed.
      NoteDamage("reading passed the oldest record", fileStart);
      return damaged();
    }
    ARead += length;
    // The oldest record ends the walk, by its number or by its place when damage upset
    // the count.
    if (FCurrentRecNo == FFirstRecNo || fileStart == FFirstRecord) {
      FDone = true;
      return true;
    }
    FPos = fileStart;
    wrap();
  }
}

// --- records ------------------------------------------------------------------------

void TEventItem::Clear() {
  TEventItemBase::Clear();
  FDataBytes.Clear();
  FQualifiers = 0;
  FTimeGeneratedSeconds = 0;
  FDescriptionFound = false;
}

const std::string& TEventItem::GetCategoryName() {
  if (auto* log = dynamic_cast<TNTEventLog*>(FOwner)) FCategoryName = log->CategoryName(FSourceName, FEventCategory);
  return FCategoryName;
}

namespace {

// The UTF-16 text at AOffset up to its NUL or the end of the record.
std::string RecordText(const uint8_t* ARecord, uint32_t ALength, uint32_t& AOffset) {
  std::string text;
  if (AOffset >= ALength) return text;
  uint32_t end = AOffset;
  while (end + 1 < ALength && (ARecord[end] != 0 || ARecord[end + 1] != 0)) end += 2;
  AppendUtf16(text, ARecord + AOffset, (end - AOffset) / 2);
  AOffset = end + 2;
  return text;
}

} // namespace

bool DecodeClassicRecord(const uint8_t* ARecord, uint32_t ALength, int32_t ARecordIndex, TEventItem& AItem) {
  AItem.Clear();
  if (ALength < kMinRecordSize || std::memcmp(ARecord + 4, kRecordSignature, 4) != 0) return false;
  AItem.FRecordIndex = ARecordIndex;
  AItem.FRecordNumber = static_cast<int32_t>(U32(ARecord + 8));
  AItem.FTimeGeneratedSeconds = U32(ARecord + 12);
  AItem.FTimeGenerated = kUnixEpochDays + U32(ARecord + 12) / 86400.0;
  AItem.FTimeWritten = kUnixEpochDays + U32(ARecord + 16) / 86400.0;
  AItem.FEventID = U32(ARecord + 20);
  AItem.FQualifiers = static_cast<uint16_t>(AItem.FEventID >> 16);
  AItem.FEventType = ClassicToEventType(U16(ARecord + 24));
  const uint16_t strings = U16(ARecord + 26);
  AItem.FEventCategory = U16(ARecord + 28);
  // The strings end where the record's trailing length begins.
  const uint32_t body = ALength - 4;
  uint32_t offset = U32(ARecord + 36);
  for (uint16_t i = 0; i < strings && offset < body; ++i) AItem.FStrings.push_back(RecordText(ARecord, body, offset));
  uint32_t name = kMinRecordSize;
  AItem.FSourceName = RecordText(ARecord, body, name);
  AItem.FComputername = RecordText(ARecord, body, name);
  const uint32_t sidLength = U32(ARecord + 40), sidOffset = U32(ARecord + 44);
  if (sidLength && sidOffset <= body && sidLength <= body - sidOffset) AItem.SetSID(ARecord + sidOffset, sidLength);
  const uint32_t dataLength = U32(ARecord + 48), dataOffset = U32(ARecord + 52);
  if (dataLength && dataOffset <= body && dataLength <= body - dataOffset) {
    AItem.SetData(ARecord + dataOffset, dataLength);
    AItem.FDataBytes.Assign(ARecord + dataOffset, dataLength);
  }
  return true;
}

// --- TNTEventLog, portable part -------------------------------------------------------

TNTEventLog::TNTEventLog() {
#ifndef _WIN32
  // No classic interface here: saved logs are always read directly.
  FRawRead = true;
#endif
}

TNTEventLog::~TNTEventLog() {
  CloseEventLog();
  StopWatcher();
}

void TNTEventLog::OpenEventLog() {
  FCurrentIndex = 0;
  FReadEnded = false;
  if (FSourceName.empty()) throw std::runtime_error("Unknown SourceName");
  if (FRawRead) throw std::runtime_error("Raw log function not implemented");
  uint32_t error = 0;
  if (!LiveOpen(error)) throw ENTException(error, FSourceName);
}

void TNTEventLog::CloseEventLog() {
  FEventObjects.Clear();
  FDirection = TDirection::FromBeginning;
  if (FRawRead)
    FRawLog.reset();
  else
    LiveClose();
  FHandle = nullptr;
  FActive = false;
}

void TNTEventLog::OpenRaw() {
  auto raw = std::make_unique<TLogFileData>();
  bool opened = false;
  try {
    opened = raw->Open(FBackupFileName);
  } catch (const ENTException&) {
    throw; // the file itself cannot be opened: the system's own message
  }
  if (!opened) RaiseWindowsError(kErrorEventlogFileCorrupt, raw->Error());
  FRawLog = std::move(raw);
}

void TNTEventLog::OpenBackupEventLog() {
  FCurrentIndex = 0;
  FReadEnded = false;
  FEventObjects.Clear();
  if (FRawRead) {
    OpenRaw();
  } else {
    uint32_t error = 0;
    if (!LiveOpenBackup(error)) {
      std::string extension = FBackupFileName.size() >= 4 ? FBackupFileName.substr(FBackupFileName.size() - 4) : "";
      for (char& c : extension) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      if (!SystemRefusesEvtFiles() || extension != ".EVT") throw ENTException(error, FBackupFileName);
      FRawRead = true;
      OpenRaw();
    }
  }
  ConnectRegistry(FMachineName);
}

int64_t TNTEventLog::GetCount() {
  if (!FActive) return 0;
  int64_t count = 0;
  if (FRawRead) {
    count = FRawLog ? FRawLog->RecordNumbers() : 0;
    // The oldest number as the reader has always given it: one below the end-of-file
    // record's offset.
    FOldestRecordNumber = FRawLog ? static_cast<int32_t>(FRawLog->FutureRecord() - 1) : 0;
  } else {
    uint32_t error = 0;
    if (!LiveCount(count, FOldestRecordNumber, error)) throw ENTException(error, FSourceName);
  }
  FLastCount = static_cast<int32_t>(count);
  return count;
}

void TNTEventLog::SetDescriptionServer(const std::string& AName) {
  if (AName == FDescriptionServer) return;
  TEventLogBase::SetDescriptionServer(AName);
  if (AName == "[IMAGED]") return;
  ConnectRegistry(AName == "[DEFAULT]" ? FMachineName : AName);
  InitMUIFolders();
}

void TNTEventLog::InitMUIFolders() {
  FMUIFolders = FRegistry ? ReadUILanguages(*FRegistry) : TStringList{};
  if (std::find(FMUIFolders.begin(), FMUIFolders.end(), "en-US") == FMUIFolders.end())
    FMUIFolders.insert(FMUIFolders.begin(), "en-US");
  FMessageFiles.SetUILanguages(FMUIFolders);
}

void TNTEventLog::GetEventSources(TStringList& ASources) {
  ASources.clear();
  if (!FRegistry) return;
  TStringList logs;
  FRegistry->GetKeyNames("\\SYSTEM\\CurrentControlSet\\Services\\EventLog", logs);
  for (const std::string& log : logs) {
    TStringList sources;
    GetEventSourcesByLog(log, sources);
    ASources.insert(ASources.end(), sources.begin(), sources.end());
  }
}

void TNTEventLog::GetEventSourcesByLog(const std::string& ALog, TStringList& ASources) {
  ASources.clear();
  std::string key = "\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\";
  key.append(ALog);
  if (FRegistry) FRegistry->GetKeyNames(key, ASources);
}

void TNTEventLog::GetEventLogs(TEventLogList& ALogs) {
  ALogs.Clear();
  TStringList logs;
  if (FRegistry) FRegistry->GetKeyNames("\\SYSTEM\\CurrentControlSet\\Services\\EventLog", logs);
  for (const std::string& log : logs) ALogs.AddEventLog(log, nullptr);
}

void TNTEventLog::Clear(const std::string& ABackupFile) {
  if (FRawRead) throw std::runtime_error("Raw log function not implemented");
  uint32_t error = 0;
  if (!LiveClear(ABackupFile, error)) throw ENTException(error, FSourceName);
}

void TNTEventLog::BackupEventlog(const std::string& ABackupFileName) {
  if (FRawRead) throw std::runtime_error("Raw log function not implemented");
  uint32_t error = 0;
  if (!LiveBackup(ABackupFileName, error)) throw ENTException(error, FSourceName);
}

void TNTEventLog::RaiseReadError(uint32_t ACode) const {
  const std::string& name = FBackupFileName.empty() ? FSourceName : FBackupFileName;
  // The reader's own codes keep Windows' texts; the system's are the system's.
  if (FRawRead) RaiseWindowsError(ACode, name);
  throw ENTException(ACode, name);
}

bool TNTEventLog::ReadRecords(uint32_t AFlags, std::vector<uint8_t>& ABuffer, uint32_t& ARead, uint32_t& ANeeded,
                              uint32_t& AError) {
  if (!FRawRead) return LiveRead(AFlags, ABuffer, ARead, ANeeded, AError);
  if (!FRawLog) {
    AError = kErrorHandleEof;
    return false;
  }
  const bool ok = FRawLog->ReadEventLog(AFlags, 0, ABuffer.data(), static_cast<uint32_t>(ABuffer.size()), ARead, ANeeded);
  if (!ok) AError = FRawLog->LastError();
  return ok;
}

TMessageFiles& TNTEventLog::Files() {
  return UsesImagedDescriptions() ? FImagedDescrServer->MessageFiles() : FMessageFiles;
}

void TNTEventLog::SetRawRead(bool AValue) {
  if (AValue == FRawRead) return;
  if (FActive) SetActive(false);
  FRawRead = AValue;
}

void TNTEventLog::SetLogReadMode(TLogReadMode AMode) {
  if (FActive) throw std::runtime_error("Cannot change log access mode while active");
  FLogReadMode = AMode;
}

void TNTEventLog::SetActive(bool AValue) {
  TEventLogBase::SetActive(AValue);
  FLastCount = -1;
  FOldestRecordNumber = -1;
  FActive = FRawRead ? FRawLog != nullptr : FHandle != nullptr;
}

int64_t TNTEventLog::GetLastCount() {
  if (FChanged.exchange(false)) {
    FLastCount = -1;
    FOldestRecordNumber = -1;
  }
  if (FLastCount < 0) FLastCount = static_cast<int32_t>(GetCount());
  return FLastCount;
}

TEventItem* TNTEventLog::GetObjects(int32_t AIndex) {
  const int64_t count = GetLastCount();
  if (count < 0 || AIndex >= count || AIndex < 0)
    RaiseNotAvailable(AIndex);
  return FEventObjects.MyGetEvent(static_cast<int32_t>(count - AIndex - 1));
}

void TNTEventLog::FreeEvent(int32_t AIndex) {
  const int64_t at = static_cast<int64_t>(AIndex) - FEventObjects.Origin;
  if (at >= 0 && at < static_cast<int64_t>(FEventObjects.List.size())) FEventObjects.List[static_cast<size_t>(at)].reset();
}

TEventItemBase* TNTEventLog::EventNext() {
  const int64_t count = GetLastCount();
  if (FCurrentIndex >= count || FReadEnded) return nullptr;
  TEventItem* item = LoadObjects(static_cast<int32_t>(count - FCurrentIndex - 1));
  ++FCurrentIndex;
  if (!item) FReadEnded = true;
  return item;
}

TEventItem* TNTEventLog::LoadObjects(int32_t AIndex) {
  const int64_t count = GetLastCount();
  if (AIndex < 0 || AIndex >= count)
    RaiseNotAvailable(AIndex);
  const int32_t position = static_cast<int32_t>(count - AIndex - 1);
  if (TEventItem* cached = FEventObjects.MyGetEvent(position)) return cached;
  if (!ReadWindow(position)) return nullptr;
  return FEventObjects.MyGetEvent(position);
}

bool TNTEventLog::ReadWindow(int32_t APosition) {
  FEventObjects.Clear();
  FEventObjects.Origin = APosition;
  FBuffer.assign(16384, 0);
  uint32_t read = 0, needed = 0, error = 0;
  const uint32_t flags = kEventlogSequentialRead | kEventlogBackwardsRead;
  if (!ReadRecords(flags, FBuffer, read, needed, error)) {
    if (error == kErrorInsufficientBuffer) {
      FBuffer.assign(needed, 0);
      if (!ReadRecords(flags, FBuffer, read, needed, error)) RaiseReadError(error);
    } else if (error == kErrorHandleEof) {
      return false;
    } else {
      RaiseReadError(error);
    }
  }
  uint32_t offset = 0;
  while (offset + kMinRecordSize <= read) {
    const uint32_t length = U32(FBuffer.data() + offset);
    if (length < kMinRecordSize || length > read - offset) break;
    auto item = std::make_unique<TEventItem>(this);
    const int32_t index = static_cast<int32_t>(FLastCount - static_cast<int64_t>(FEventObjects.List.size()) - 1);
    if (DecodeClassicRecord(FBuffer.data() + offset, length, index, *item)) {
      GetItemsFromData(item->FEvtMessage, item->FSourceName, item->FEventID, 0, 0, 0, item->FStrings);
      item->FDescriptionFound = FDescriptionFound;
      if (!FDescriptionFound && OnDescriptionNotFound) OnDescriptionNotFound(*item);
      // The qualifier bits take part in the message lookup only.
      item->FEventID &= 0xFFFF;
      FEventObjects.addEvent(std::move(item));
    }
    offset += length;
  }
  return !FEventObjects.List.empty();
}

bool TNTEventLog::GetEventSourceProperties(const std::string& ASource, TSourceProperties& AProperties) {
  AProperties.clear();
  if (UsesImagedDescriptions()) {
    TSourceProperties lines;
    if (!FImagedDescrServer->GetEventSourceProperties(ASource, lines)) return false;
    // One file per line there; one list per name here.
    for (const std::string& line : lines) {
      const size_t eq = line.find('=');
      if (eq == std::string::npos) continue;
      const std::string name = line.substr(0, eq);
      auto existing = std::find_if(AProperties.begin(), AProperties.end(), [&](const std::string& AOther) {
        return AOther.size() > name.size() && AOther[name.size()] == '=' && detail::EqualsNoCase(AOther.substr(0, name.size()), name);
      });
      if (existing == AProperties.end()) {
        AProperties.push_back(line);
      } else {
        existing->push_back(';');
        existing->append(line, eq + 1);
      }
    }
    return true;
  }
  if (!FRegistry) return false;
  const TSourceProperties* properties =
      qvx::GetEventSourceProperties(*FRegistry, FSourceName, ASource,
                                    FDescriptionServer == "[DEFAULT]" ? FMachineName : FDescriptionServer,
                                    *FSourcePropertiesCache);
  if (!properties) return false;
  AProperties = *properties;
  return true;
}

void TNTEventLog::GetItemsFromData(std::string& AText, const std::string& ASourceName, uint32_t AEventId, uint16_t,
                                   uint8_t, uint8_t, const TStringList& AStrings) {
  FDescriptionFound = false;
  const bool haveProperties = GetEventSourceProperties(ASourceName, FProperties);
  if (Files().DescribeRecord(haveProperties ? &FProperties : nullptr, ASourceName, AEventId, AStrings,
                             *FEventDescriptionCache, AText)) {
    for (size_t pos = AText.find("\r\n\r\n"); pos != std::string::npos; pos = AText.find("\r\n\r\n", pos + 2))
      AText.erase(pos, 2);
    FDescriptionFound = true;
    return;
  }
  if (DescribeFromCatalogs(AText, ASourceName, AEventId, AStrings)) {
    FDescriptionFound = true;
    return;
  }
  AText = BuildDescriptionNotFound(AEventId, ASourceName, AStrings);
}

bool TNTEventLog::DescribeFromCatalogs(std::string& AText, const std::string& ASource, uint32_t AEventId,
                                       const TStringList& AStrings) {
  if (!FCatalogs || ASource.empty()) return false;
  // Catalog texts are cached apart from the registry's, whose misses they fill.
  FCatalogKey = "\x01" "catalog\x01";
  FCatalogKey.append(ASource);
  std::string tmpl;
  std::string_view cached;
  if (FEventDescriptionCache->GetDescription(FCatalogKey, AEventId, cached)) {
    if (cached == kDescriptionNotFound) return false;
    tmpl.assign(cached);
  } else {
    const uint32_t id = detail::EqualsNoCase(ASource, kKernelGeneralSource) ? AEventId + kKernelGeneralIdOffset : AEventId;
    bool found = FCatalogs->GetEventMessage(ASource, id, 0, tmpl);
    if (!found && (AEventId >> 16) == 0) found = FCatalogs->GetEventMessage(ASource, AEventId | kSeverityRetryBits, 0, tmpl);
    if (!found) {
      FEventDescriptionCache->AddDescription(FCatalogKey, AEventId, kDescriptionNotFound);
      return false;
    }
    for (size_t pos = tmpl.find("\r\n\r\n"); pos != std::string::npos; pos = tmpl.find("\r\n\r\n", pos + 2))
      tmpl.erase(pos, 2);
    FEventDescriptionCache->AddDescription(FCatalogKey, AEventId, tmpl);
  }
  const auto parameter = [&](uint32_t AId, std::string& AValue) { return FCatalogs->GetParam(ASource, AId, AValue); };
  if (!Files().ApplyInserts(tmpl, {}, AStrings, AText, parameter)) return false;
  for (size_t pos = AText.find("\r\n\r\n"); pos != std::string::npos; pos = AText.find("\r\n\r\n", pos + 2))
    AText.erase(pos, 2);
  return true;
}

const std::string& TNTEventLog::CategoryName(const std::string& ASource, uint16_t ACategory) {
  if (ACategory == 0) {
    FCategoryText = "None";
    return FCategoryText;
  }
  bool found = false;
  const std::string_view cached = FCategoryCache->GetCategoryName(ASource, ACategory, found);
  if (found) {
    FCategoryText.assign(cached);
    return FCategoryText;
  }
  std::string text;
  TSourceProperties properties;
  bool ok = false;
  if (UsesImagedDescriptions()) {
    ok = FImagedDescrServer->GetEventTask(ASource, ACategory, text);
  } else if (GetEventSourceProperties(ASource, properties)) {
    const std::string files = PropertyValue(properties, "CategoryMessageFile");
    ok = !files.empty() && Files().FormatMessageFromFiles(files, ACategory, text);
  }
  if (!ok && FCatalogs) ok = FCatalogs->GetEventTask(ASource, ACategory, text);
  if (!ok) {
    char number[16];
    std::snprintf(number, sizeof number, "(%u)", ACategory);
    text = number;
  }
  FCategoryCache->Add(ASource, ACategory, text);
  FCategoryText = std::move(text);
  return FCategoryText;
}

} // namespace qvx
