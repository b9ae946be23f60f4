// TNTEventLog: the log source of the classic event log (Windows NT to Windows Server
// 2003 logs): live logs through the classic interface on Windows, and saved .evt files,
// which are read directly by TLogFileData wherever the system cannot (always on other
// platforms).
//
// The classic .evt file (all integers little-endian u32 unless stated)
//
//   Header, 48 bytes at 0         the first field is the header size, 48
//   Data area, 48 .. end of file  circular: a record that runs past the end of the file
//                                 continues right after the header
//   Event record                  +0 length (repeated in the record's last 4 bytes)
//                                 +4 "LfLe"  +8 record number  +12 time generated
//                                 +16 time written (seconds since 1970, UTC)
//                                 +20 event id  +24 type (u16)  +26 string count (u16)
//                                 +28 category (u16)  +36 string offset
//                                 +40 SID length  +44 SID offset  +48 data length
//                                 +52 data offset  +56 source name, then computer name
//                                 (UTF-16, NUL-terminated)
//   End-of-file record, 40 bytes  length 0x28, 11111111 22222222 33333333 44444444,
//                                 oldest record's offset, this record's offset, next
//                                 record number, oldest record number, length 0x28
//
// Records are read newest first, backwards from the end-of-file record. Damage (a zero
// or mismatching length) is stepped over by searching backwards for the previous
// record's "LfLe"; the file's flags for damage are set and what was read stays.
#pragma once

#include "descriptions/message_files.h"
#include "engine/event_model.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qvx {

class TTFileSearch;

// System error codes of the classic reading contract.
inline constexpr uint32_t kErrorHandleEof = 38;
inline constexpr uint32_t kErrorInsufficientBuffer = 122;
inline constexpr uint32_t kErrorEventlogFileCorrupt = 1500;
// Read flags.
inline constexpr uint32_t kEventlogSequentialRead = 1;
inline constexpr uint32_t kEventlogBackwardsRead = 8;

// Direct reader of a classic .evt file.
class TLogFileData {
public:
  TLogFileData();
  ~TLogFileData();
  TLogFileData(const TLogFileData&) = delete;
  TLogFileData& operator=(const TLogFileData&) = delete;

  // Opens the file and finds its end-of-file record. False when the file is not a
  // classic log (the header size is not 48) or has no end-of-file record; Error() says
  // why. Raises ENTException when the file cannot be opened at all.
  bool Open(const std::string& AFileName);
  const std::string& Error() const { return FError; }

  // Reads whole records, newest first, into ABuffer as ReadEventLogW does: only
  // backwards reading (flag 8) reads anything. False with LastError(): 122 and
  // ANeeded when the next record does not fit an empty buffer, 38 when every record
  // has been read, 1500 when damage cannot be stepped over. Records read before damage
  // stops a call are handed out; the call after them fails with 1500.
  bool ReadEventLog(uint32_t AFlags, uint32_t AOffset, uint8_t* ABuffer, uint32_t ASize, uint32_t& ARead,
                    uint32_t& ANeeded);
  uint32_t LastError() const { return FLastError; }

  uint32_t RecordNumbers() const { return FRecordNumbers; }
  uint32_t FirstRecord() const { return FFirstRecord; }
  uint32_t FutureRecord() const { return FFutureRecord; }
  uint32_t FirstRecNo() const { return FFirstRecNo; }
  uint32_t FutureRecNo() const { return FFutureRecNo; }
  uint32_t SignaturePos() const { return FSignaturePos; }
  bool MovedToBottom() const { return FMovedToBottom; }
  bool FileCorrupted() const { return FFileCorrupted; }
  uint64_t FileSize() const { return FFileSize; }
  // Where damage was stepped over (file offsets), for the issue list.
  const std::vector<std::string>& Damage() const { return FDamage; }

private:
  bool ReadU32(uint64_t AOffset, uint32_t& AValue);
  bool ReadBytes(uint64_t AOffset, uint8_t* ABuffer, uint32_t ALength);
  // Reads the ALength bytes that end at AEnd, wrapping from the header to the end of the file.
  bool ReadRecordBytes(uint64_t AEnd, uint32_t ALength, uint8_t* ABuffer);
  // Puts FPos at the start of the record before it; false when there is none.
  bool SearchBackward();
  bool Fail(uint32_t ACode);
  void NoteDamage(const char* AWhat, uint64_t AOffset);

  std::unique_ptr<TTFileSearch> FFileSearch;
  std::string FLogFileName;
  uint32_t FSignaturePos = 0;
  uint32_t FFirstRecord = 0;
  uint32_t FFutureRecord = 0;
  uint32_t FFirstRecNo = 0;
  uint32_t FFutureRecNo = 0;
  uint32_t FRecordNumbers = 0;
  uint32_t FCurrentRecNo = 0;
  bool FMovedToBottom = false;
  bool FFileCorrupted = false;

  uint64_t FFileSize = 0;
  uint64_t FPos = 0;           // the end of the next record to read (its trailing length is just before)
  uint32_t FLastError = 0;
  bool FPendingCorrupt = false; // damage stopped the last call after it had read records
  bool FDone = false;
  uint32_t FSteps = 0;          // records and searches so far: a bound against endless walks
  std::string FError;
  std::vector<std::string> FDamage;
  // The file is read in windows of 1 MB (records one by one would be a system call each).
  static constexpr size_t kWindowSize = 1 << 20;
  std::vector<uint8_t> FWindow;
  uint64_t FWindowStart = 0;
};

// An indexed view of a record's binary data.
class TByteList {
public:
  void Add(uint8_t AValue) { FBytes.push_back(AValue); }
  void Clear() { FBytes.clear(); }
  size_t Count() const { return FBytes.size(); }
  uint8_t Get(size_t AIndex) const { return FBytes.at(AIndex); }
  void Set(size_t AIndex, uint8_t AValue) { FBytes.at(AIndex) = AValue; }
  const std::vector<uint8_t>& Bytes() const { return FBytes; }
  void Assign(const uint8_t* AData, size_t ALength) { FBytes.assign(AData, AData + ALength); }

private:
  std::vector<uint8_t> FBytes;
};

// One classic event record.
class TEventItem : public TEventItemBase {
public:
  using TEventItemBase::TEventItemBase;
  void Clear() override;
  // The category text of (source, category) from the owner's category cache.
  const std::string& GetCategoryName() override;

  TByteList FDataBytes;
  uint16_t FQualifiers = 0; // the event id's upper 16 bits, which only the message lookup uses
  uint32_t FTimeGeneratedSeconds = 0;
  bool FDescriptionFound = false;
};

// Decodes one EVENTLOGRECORD of ALength bytes into AItem. False when the record's
// fixed part does not fit or its signature is missing; offsets that point outside the
// record leave those parts empty.
bool DecodeClassicRecord(const uint8_t* ARecord, uint32_t ALength, int32_t ARecordIndex, TEventItem& AItem);

// The decoded records of the current reading window.
class TEventCache {
public:
  int32_t Origin = 0;
  std::vector<std::unique_ptr<TEventItem>> List;
  void addEvent(std::unique_ptr<TEventItem> AItem) { List.push_back(std::move(AItem)); }
  void Clear() {
    List.clear();
    Origin = 0;
  }
  TEventItem* MyGetEvent(int32_t AIndex) const {
    const int64_t at = static_cast<int64_t>(AIndex) - Origin;
    return at >= 0 && at < static_cast<int64_t>(List.size()) ? List[static_cast<size_t>(at)].get() : nullptr;
  }
};

enum class TDirection { FromBeginning, FromEnd };
enum class TLogReadMode { lrmRandom, lrmSequential };

class TNTEventLog : public TEventLogBase {
public:
  TNTEventLog();
  ~TNTEventLog() override;

  void OpenEventLog() override;
  void CloseEventLog() override;
  void SetActive(bool AValue) override;
  int64_t GetCount() override;
  void OpenBackupEventLog() override;
  void SetMachineName(const std::string& AName) override;
  void SetDescriptionServer(const std::string& AName) override;
  void InitMUIFolders() override;
  void GetItemsFromData(std::string& AText, const std::string& ASourceName, uint32_t AEventId, uint16_t AEventIdQual,
                        uint8_t AVersion, uint8_t AOpCode, const TStringList& AStrings) override;
  void GetEventSources(TStringList& ASources) override;
  void GetEventSourcesByLog(const std::string& ALog, TStringList& ASources) override;
  void GetEventLogs(TEventLogList& ALogs) override;
  void Clear(const std::string& ABackupFile) override;
  void BackupEventlog(const std::string& ABackupFileName) override;
  // The next record, newest first; null at the end. Owned by the source.
  TEventItemBase* EventNext() override;
  int64_t GetLastCount() override;

  // The record at reading position AIndex (0 = newest) of the current window.
  TEventItem* GetObjects(int32_t AIndex);
  // Loads the window that holds position Count - AIndex - 1 and returns its record;
  // null when reading ended before it (records lost to damage).
  TEventItem* LoadObjects(int32_t AIndex);

  // The registration of a source of this log: name=value lines, file lists normalised.
  bool GetEventSourceProperties(const std::string& ASource, TSourceProperties& AProperties);
  // The category text; "None" for 0, the number in parentheses when not found.
  const std::string& CategoryName(const std::string& ASource, uint16_t ACategory);
  void FreeEvent(int32_t AIndex);

  bool RawRead() const { return FRawRead; }
  void SetRawRead(bool AValue);
  bool FIncludeUserName = true;
  TLogReadMode LogReadMode() const { return FLogReadMode; }
  void SetLogReadMode(TLogReadMode AMode);
  // Called when a live log changed, on the watcher thread: a front end hands it to its own
  // thread. The counts are taken again at the reader's next GetLastCount.
  std::function<void(TNTEventLog&)> OnChange;
  std::function<void(const TEventItem&)> OnDescriptionNotFound;
  TLogFileData* RawLog() const { return FRawLog.get(); }
  // The registry the descriptions are read from (null: none, as on Linux without an
  // imaged computer). The source does not own a registry given here.
  void SetRegistry(TComputerRegistry* ARegistry) { FRegistry = ARegistry; }

private:
  // The reading window: one buffer of records decoded into the cache.
  bool ReadWindow(int32_t APosition);
  bool ReadRecords(uint32_t AFlags, std::vector<uint8_t>& ABuffer, uint32_t& ARead, uint32_t& ANeeded,
                   uint32_t& AError);
  TMessageFiles& Files();
  // The description from the catalogs when they are set: false when they have none.
  bool DescribeFromCatalogs(std::string& AText, const std::string& ASource, uint32_t AEventId,
                            const TStringList& AStrings);
  void OpenRaw();
  [[noreturn]] void RaiseReadError(uint32_t ACode) const;

  // The system's classic interface (Windows; elsewhere there is none and every live
  // operation raises). False with AError on failure.
  bool LiveOpen(uint32_t& AError);
  bool LiveOpenBackup(uint32_t& AError);
  void LiveClose();
  bool LiveCount(int64_t& ACount, int32_t& AOldest, uint32_t& AError);
  bool LiveRead(uint32_t AFlags, std::vector<uint8_t>& ABuffer, uint32_t& ARead, uint32_t& ANeeded, uint32_t& AError);
  bool LiveClear(const std::string& ABackupFile, uint32_t& AError);
  bool LiveBackup(const std::string& ABackupFile, uint32_t& AError);
  // Opens FOwnRegistry on AComputer ("" = this one) and uses it; Windows only.
  void ConnectRegistry(const std::string& AComputer);
  static bool SystemRefusesEvtFiles();

  void* FHandle = nullptr;
  std::unique_ptr<TLogFileData> FRawLog;
  TEventCache FEventObjects;
  TComputerRegistry* FRegistry = nullptr;
  std::unique_ptr<TComputerRegistry> FOwnRegistry;
  void* FWaitEvent = nullptr;
  void* FTerminateEvent = nullptr;
  std::thread FWaitThread;           // the change watcher (live logs on Windows)
  std::atomic<bool> FChanged{false}; // set by the watcher, read by the reader
  void StartWatcher();
  void StopWatcher();
  TDirection FDirection = TDirection::FromBeginning;
  int32_t FLastCount = -1;
  TLogReadMode FLogReadMode = TLogReadMode::lrmSequential;
  int32_t FOldestRecordNumber = -1;
  int32_t FCurrentIndex = 0;
  bool FReadEnded = false;
  bool FDescriptionFound = false; // of the last GetItemsFromData
  TMessageFiles FMessageFiles;
  std::string FCategoryText;
  TSourceProperties FProperties;
  std::string FCatalogKey; // the description cache's key for catalog texts
  std::vector<uint8_t> FBuffer;
};

} // namespace qvx
