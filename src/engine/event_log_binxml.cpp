#include "engine/event_log_binxml.h"

#include "engine/record_fields.h"

#include "platform/nt_exception.h"
#include "platform/worker_thread.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>

namespace qvx {

namespace {

std::string HexText(uint64_t AValue) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "0x%llX", static_cast<unsigned long long>(AValue));
  return buf;
}

const void* LastByte(const char* AData, char AByte, size_t ASize) {
#if defined(__GLIBC__)
  return memrchr(AData, AByte, ASize);
#else
  for (size_t i = ASize; i > 0; --i)
    if (AData[i - 1] == AByte) return AData + i - 1;
  return nullptr;
#endif
}

// The last occurrence of ANeedle that ends at or before AEnd. memrchr finds candidates
// by the needle's byte at AAnchor (std::string::rfind compares at every position): a
// byte that is rare in event text ('x' of "<Event xmlns") skips most of it at once.
size_t FindLast(const std::string& AText, std::string_view ANeedle, size_t AEnd, size_t AAnchor = 0) {
  const char* data = AText.data();
  size_t end = std::min(AEnd, AText.size());
  while (end >= ANeedle.size()) {
    const void* hit = LastByte(data + AAnchor, ANeedle[AAnchor], end - ANeedle.size() + 1);
    if (!hit) return std::string::npos;
    const size_t pos = static_cast<size_t>(static_cast<const char*>(hit) - data) - AAnchor;
    // The first byte turns most candidates away without a call ('x' of a hex value).
    if (data[pos] == ANeedle[0] && std::memcmp(data + pos, ANeedle.data(), ANeedle.size()) == 0) return pos;
    end = pos + ANeedle.size() - 1;
  }
  return std::string::npos;
}

} // namespace

// Renders chunks on threads of its own, ahead of the reader, and hands the results over
// in order through a short queue; results' buffers go round between the two sides.
class TEventLogBinXML::TReadAhead {
public:
  TReadAhead(TChunkReader::TProducer AProducer, unsigned AThreads) : FProducer(std::move(AProducer)) {
    FThread = std::make_unique<TWorkerThread>([this, AThreads] {
      std::exception_ptr error;
      try {
        TChunkReader::Run([this](TChunkJob& AJob) { return !Stopping() && FProducer(AJob); },
                          [this](TChunkResult& AResult) { Push(AResult); }, AThreads);
      } catch (...) {
        error = std::current_exception();
      }
      std::lock_guard<std::mutex> guard(FLock);
      FError = error;
      FDone = true;
      FChanged.notify_all();
    });
  }

  ~TReadAhead() {
    {
      std::lock_guard<std::mutex> guard(FLock);
      FStop = true;
    }
    FChanged.notify_all();
    FThread->Join();
  }

  TReadAhead(const TReadAhead&) = delete;
  TReadAhead& operator=(const TReadAhead&) = delete;

  // The next result in order into AResult (whose old buffers are kept for reuse); false
  // at the end. Raises what stopped the reading threads, once all before it are taken.
  bool Pop(TChunkResult& AResult) {
    std::unique_lock<std::mutex> guard(FLock);
    FChanged.wait(guard, [&] { return !FQueue.empty() || FDone; });
    if (FQueue.empty()) {
      if (FError) std::rethrow_exception(std::exchange(FError, nullptr));
      return false;
    }
    std::swap(AResult, FQueue.front());
    FSpare.push_back(std::move(FQueue.front()));
    FQueue.pop_front();
    FChanged.notify_all();
    return true;
  }

private:
  static constexpr size_t kDepth = 4;

  bool Stopping() {
    std::lock_guard<std::mutex> guard(FLock);
    return FStop;
  }

  void Push(TChunkResult& AResult) {
    std::unique_lock<std::mutex> guard(FLock);
    FChanged.wait(guard, [&] { return FQueue.size() < kDepth || FStop; });
    if (FStop) return;
    TChunkResult slot;
    if (!FSpare.empty()) {
      slot = std::move(FSpare.back());
      FSpare.pop_back();
    }
    std::swap(slot, AResult);
    FQueue.push_back(std::move(slot));
    FChanged.notify_all();
  }

  TChunkReader::TProducer FProducer;
  std::mutex FLock;
  std::condition_variable FChanged;
  std::deque<TChunkResult> FQueue;
  std::vector<TChunkResult> FSpare;
  bool FStop = false;
  bool FDone = false;
  std::exception_ptr FError;
  std::unique_ptr<TWorkerThread> FThread;
};

// --- TEventLogBinXML --------------------------------------------------------------

TEventLogBinXML::TEventLogBinXML() = default;

TEventLogBinXML::~TEventLogBinXML() { CloseEventLog(); }

void TEventLogBinXML::OpenBackupEventLog() {
  if (FActive) return;
  StopReadAhead();
  try {
    FFileHandle = OpenReadStream(FBackupFileName);
  } catch (const ENTException&) {
    FActive = false;
    throw;
  }
  FEvtxFile = std::make_unique<TEvtxFile>(FFileHandle.get());
  FChunkXML.clear();
  FChunkIndex = 0;
  FEventIndex = 0;
  FLastCount = -1;
  FRecordCounter = 0;
  if (FEvtxFile->HeaderValid()) FActive = true;
  if (!FActive) {
    const uint32_t code = LastErrorCode();
    FEvtxFile.reset();
    FFileHandle.reset();
    throw ENTException(code, FBackupFileName);
  }
}

void TEventLogBinXML::StopReadAhead() { FReadAhead.reset(); }

void TEventLogBinXML::CloseEventLog() {
  StopReadAhead();
  FEvtxFile.reset();
  FFileHandle.reset();
  FChunkXML.clear();
  FEventIndex = 0;
  FActive = false;
}

int64_t TEventLogBinXML::GetCount() {
  int64_t count = 0;
  if (FEvtxFile && FEvtxFile->Count() > 0) {
    const uint64_t last = FEvtxFile->GetChunk(0)->NumLast();
    const uint64_t first = FEvtxFile->GetChunk(FEvtxFile->Count() - 1)->NumFirst();
    count = last >= first ? static_cast<int64_t>(last - first + 1) : 0;
  }
  FLastCount = count;
  return count;
}

int64_t TEventLogBinXML::GetLastCount() { return FLastCount >= 0 ? FLastCount : GetCount(); }

void TEventLogBinXML::GetItemsFromData(std::string& AText, const std::string& ASourceName, uint32_t AEventId,
                                       uint16_t AEventIdQual, uint8_t AVersion, uint8_t AOpCode,
                                       const TStringList& AStrings) {
  TEventLogX::GetItemsFromData(AText, ASourceName, AEventId, AEventIdQual, AVersion, AOpCode, AStrings);
}

void TEventLogBinXML::RenderJob() {
  FJob.Truncated = false;
  FJob.CheckCrc = false;
  FJob.EmptyBlocksBefore = 0;
  FJob.SourceRead = 0;
  FJob.ReadRecords = RecordReader();
  TChunkReader::RenderChunk(FJob, FChunk);
}

TChunkRecordReader TEventLogBinXML::RecordReader() const {
  if (FNamedValues) return &ReadChunkNamedFields;
  return FWithoutXml && !FSystemFieldsOnly ? &ReadChunkFields : nullptr;
}

std::string TEventLogBinXML::PositionText(uint64_t APosition) const {
  return FPositionText ? FPositionText(APosition) : "offset " + HexText(APosition);
}

void TEventLogBinXML::AcceptChunk(const std::string& AWhere) {
  FChunkXML.swap(FChunk.Xml);
  FEventsReadFromXml += FChunk.RecordsFromXml;
  if (FChunk.Truncated) FIssueList->AddIssue(AWhere + " is cut short by the end of the data; reading what is there");
  for (const TChunkIssue& issue : FChunk.Issues) {
    char where[160];
    if (FPositionText) {
      const std::string at = FPositionText(FChunk.Position + issue.Offset);
      if (issue.RecordId)
        std::snprintf(where, sizeof where, ": record %llu at chunk offset 0x%X (%s): ",
                      static_cast<unsigned long long>(issue.RecordId), issue.Offset, at.c_str());
      else
        std::snprintf(where, sizeof where, ": record at chunk offset 0x%X (%s): ", issue.Offset, at.c_str());
    } else if (issue.RecordId)
      std::snprintf(where, sizeof where, ": record %llu at chunk offset 0x%X (file offset 0x%llX): ",
                    static_cast<unsigned long long>(issue.RecordId), issue.Offset,
                    static_cast<unsigned long long>(FChunk.Position + issue.Offset));
    else
      std::snprintf(where, sizeof where, ": record at chunk offset 0x%X (file offset 0x%llX): ", issue.Offset,
                    static_cast<unsigned long long>(FChunk.Position + issue.Offset));
    std::string text = AWhere;
    text.append(where);
    text.append(issue.Message);
    FIssueList->AddIssue(text);
  }
}

void TEventLogBinXML::EventNextXML(std::string& AXml, TEventXmlFields& AFields) {
  AXml.clear();
  if (FEventIndex == 0) {
    if (!FEvtxFile) return;
    const int count = FEvtxFile->Count();
    if (static_cast<int64_t>(FChunkIndex) >= count) return;
    if (FReadAheadThreads > 0) {
      if (!FReadAhead) FReadAhead = std::make_unique<TReadAhead>(ChunkProducer(), FReadAheadThreads);
      if (!FReadAhead->Pop(FChunk)) return;
    } else {
      FJob.Position = FEvtxFile->GetChunk(static_cast<int>(FChunkIndex))->Start;
      FJob.ReadFrom = FFileHandle.get();
      RenderJob();
    }
    AcceptChunk("Chunk #" + std::to_string(FChunkIndex) + " at offset " + HexText(FChunk.Position));
  }
  TakeEvent(AXml, AFields, "Inconsistent data in chunk #", static_cast<int64_t>(FChunkIndex));
}

TChunkReader::TProducer TEventLogBinXML::ChunkProducer() {
  // The reading threads get the chunk positions and the file, never the file structure.
  std::vector<uint64_t> starts;
  const int count = FEvtxFile ? FEvtxFile->Count() : 0;
  for (int i = static_cast<int>(FChunkIndex); i < count; ++i) starts.push_back(FEvtxFile->GetChunk(i)->Start);
  return [this, starts = std::move(starts), next = size_t{0}, reader = RecordReader()](TChunkJob& AJob) mutable {
    if (next >= starts.size()) return false;
    AJob.ReadRecords = reader;
    AJob.Position = starts[next++];
    AJob.ReadFrom = FFileHandle.get();
    AJob.EmptyBlocksBefore = 0;
    AJob.SourceRead = 0;
    return true;
  };
}

void TEventLogBinXML::BeginTaking(TChunkResult& AResult, uint64_t AChunkNumber) {
  // Every issue goes to AResult.Notes: the reading source's list keeps the first 2000.
  if (FIssueList->MaxCount() >= 0) FIssueList = std::make_unique<TIssueList>(-1);
  FIssueList->Clear();
  std::swap(FChunk, AResult);
  FChunkIndex = 0;
  FEventIndex = 0;
  FChunkXML.clear();
  AcceptChunk("Chunk #" + std::to_string(AChunkNumber) + " at offset " + HexText(FChunk.Position));
  FTakingChunk = true;
}

void TEventLogBinXML::EndTaking(TChunkResult& AResult, uint32_t ATaken) {
  FTakingChunk = false;
  std::swap(FChunk, AResult);
  AResult.Taken = ATaken;
  AResult.Notes.assign(FIssueList->Lines().begin(), FIssueList->Lines().end());
}

bool TEventLogBinXML::TakeItem(uint64_t AChunkNumber) {
  FEventWithoutXml = false;
  TakeEvent(FXml, FFields, "Inconsistent data in chunk #", static_cast<int64_t>(AChunkNumber));
  if (FXml.size() == 1 && FXml[0] == '*') return false;
  BuildItem(FXml, FFields, true);
  return true;
}

bool TEventLogBinXML::NextIsPlanned() const {
  const size_t count = FChunk.RecordFields.size();
  return FChunk.FieldsRead && count > 0 && FEventIndex < count &&
         FChunk.RecordFields[count - 1 - FEventIndex].Plan != 0xFFFFFFFF;
}

TChunkResult::TRecordSpan TEventLogBinXML::NextPlannedSpan() {
  const size_t count = FChunk.RecordFields.size();
  const TChunkResult::TRecordSpan span = FChunk.RecordFields[count - 1 - FEventIndex];
  if (++FEventIndex >= count) {
    FEventIndex = 0;
    ++FChunkIndex;
  }
  ++FRecordCounter;
  return span;
}

void TEventLogBinXML::TakeChunk(TChunkResult& AResult, uint64_t AChunkNumber,
                                const std::function<void(TEventItemX&)>& AEach) {
  BeginTaking(AResult, AChunkNumber);
  uint32_t taken = 0;
  // As EventNext: TakeEvent moves to the next chunk (FChunkIndex) after the last event.
  while (FChunkIndex == 0) {
    if (!TakeItem(AChunkNumber)) continue;
    ++taken;
    AEach(FItem);
  }
  EndTaking(AResult, taken);
}

void TEventLogBinXML::TakeChunkRows(TChunkResult& AResult, uint64_t AChunkNumber,
                                    const std::function<void(const TEventRow&)>& ARow) {
  BeginTaking(AResult, AChunkNumber);
  uint32_t taken = 0;
  // A row says what the item would only where the description is the mark alone (no
  // offline descriptions; the system's own are looked up on Windows).
#ifdef _WIN32
  const bool rows = false;
#else
  const bool rows = !UsesOfflineDescriptions() && !FNamedValues && !FSystemFieldsOnly;
#endif
  TEventRow row;
  while (FChunkIndex == 0) {
    if (rows && NextIsPlanned()) {
      TakeRowEvent(row);
      ++taken;
      ARow(row);
      continue;
    }
    if (!TakeItem(AChunkNumber)) continue;
    ++taken;
    RowOfItem(FItem, row);
    ARow(row);
  }
  EndTaking(AResult, taken);
}

void TEventLogBinXML::TakeChunkNamed(TChunkResult& AResult, uint64_t AChunkNumber, const TNamedEach& AEach) {
  BeginTaking(AResult, AChunkNumber);
  uint32_t taken = 0;
  TEventRow row;
  row.Owner = this;
  while (FChunkIndex == 0) {
    if (FNamedValues && NextIsPlanned()) {
      // As TakeFieldsEvent and BuildItem, reading the fields where they lie.
      const TChunkResult::TRecordSpan span = NextPlannedSpan();
      FHaveNamed = false;
      TakeRecordNamedValues(FChunk, span, FNamed, true, true); // (used before the chunk changes)
      const std::string* fields = FChunk.Fields.data() + span.First;
      row.RecordId = static_cast<uint64_t>(TextToInt(fields[rfEventRecordID]));
      row.EventId = static_cast<uint32_t>(TextToInt(fields[rfEventID]));
      row.SystemTime = fields[rfTimeCreated];
      row.TimeGenerated = SystemTimeTextToDays(row.SystemTime);
      row.Channel = fields[rfChannel];
      row.Computer = fields[rfComputer];
      ++taken;
      AEach(row, &FNamed, {});
      continue;
    }
    if (!TakeItem(AChunkNumber)) continue;
    ++taken;
    row.RecordId = FItem.FEventRecordID;
    row.EventId = FItem.FEventID;
    row.SystemTime = FItem.FSystemTime;
    row.TimeGenerated = FItem.FTimeGenerated;
    row.Channel = FItem.FChannel;
    row.Computer = FItem.FComputername;
    AEach(row, NamedValues(), FItem.FEvtXML);
  }
  EndTaking(AResult, taken);
}

void TEventLogBinXML::TakeRowEvent(TEventRow& ARow) {
  // As TakeFieldsEvent and BuildItem, reading the fields where they lie.
  const TChunkResult::TRecordSpan span = NextPlannedSpan();
  const std::string* fields = FChunk.Fields.data() + span.First;
  const std::string& provider = fields[rfProviderName];
  const std::string& userId = fields[rfUserID];
  const auto task = static_cast<uint32_t>(TextToInt(fields[rfTask]));
  // Most events of a log repeat one of a few providers, tasks and users: their names are
  // looked up again only for one not met lately.
  const TRowNames* names = nullptr;
  for (const TRowNames& entry : FRowNames)
    if (entry.Used && entry.TaskNumber == task && entry.Provider == provider && entry.UserId == userId) {
      names = &entry;
      break;
    }
  if (!names) {
    FRowFields.ProviderName = provider;
    FRowFields.TaskNumber = task;
    FRowFields.UserID = userId;
    ResolveTaskAndUser(FRowFields);
    TRowNames& entry = FRowNames[FRowNamesNext];
    FRowNamesNext = (FRowNamesNext + 1) % FRowNames.size();
    entry.Provider = provider;
    entry.TaskNumber = task;
    entry.UserId = userId;
    entry.Task.swap(FRowFields.Task);
    entry.UserName.swap(FRowFields.UserName);
    entry.Used = true;
    names = &entry;
  }
  ARow.Owner = this;
  const int64_t recordId = TextToInt(fields[rfEventRecordID]);
  ARow.RecordId = static_cast<uint64_t>(recordId);
  // Events often share their millisecond with the one before: the day count is a
  // function of the time text's first 23 bytes (to the milliseconds' digits).
  const std::string& time = fields[rfTimeCreated];
  const std::string_view timeKey(time.data(), std::min<size_t>(time.size(), kRowTimeKey));
  if (!FRowTimeSet || timeKey != std::string_view(FRowTimeKey, FRowTimeKeySize)) {
    std::memcpy(FRowTimeKey, timeKey.data(), timeKey.size());
    FRowTimeKeySize = timeKey.size();
    FRowTimeDays = SystemTimeTextToDays(time);
    FRowTimeSet = true;
  }
  ARow.TimeGenerated = FRowTimeDays;
  ARow.Type = EventTypeFromXml(fields[rfChannel], fields[rfKeywords], fields[rfLevel]);
  ARow.EventId = static_cast<uint32_t>(TextToInt(fields[rfEventID]));
  ARow.Qualifiers = static_cast<uint16_t>(TextToInt(fields[rfEventIDQual]));
  ARow.Version = static_cast<uint8_t>(TextToInt(fields[rfVersion]));
  ARow.Level = static_cast<uint8_t>(TextToInt(fields[rfLevel]));
  ARow.OpCode = static_cast<uint8_t>(TextToInt(fields[rfOpCode]));
  ARow.TaskNumber = static_cast<uint16_t>(task);
  ARow.SystemTime = fields[rfTimeCreated];
  ARow.Keywords = fields[rfKeywords];
  ARow.Source = provider;
  ARow.Channel = fields[rfChannel];
  ARow.Computer = fields[rfComputer];
  ARow.UserSid = userId;
  ARow.TaskName = names->Task;
  ARow.UserName = names->UserName;
  ARow.OpcodeName = {};
  ARow.KeywordNames = {};
  // Without offline descriptions an event's description is the no-description mark.
  ARow.DescriptionFound = false;
  ARow.Description = {};
  ARow.List = nullptr;
  ARow.Chunk = &FChunk;
  ARow.Span = span;
}

void TEventLogBinXML::TakeEvent(std::string& AXml, TEventXmlFields& AFields, std::string_view AEmptyIssue,
                                int64_t AChunkNumber) {
  static constexpr std::string_view kOpen = "<Event xmlns";
  static constexpr std::string_view kClose = "</Event>";
  FHaveNamed = false;
  if (FChunk.FieldsRead && !FChunk.RecordFields.empty()) {
    AXml.clear();
    TakeFieldsEvent(AXml, AFields);
    FEventWithoutXml = AXml.empty();
    return;
  }
  const size_t close = FindLast(FChunkXML, kClose, FChunkXML.size());
  const size_t open = FindLast(FChunkXML, kOpen, FChunkXML.size(), 7);
  if (open != std::string::npos && close != std::string::npos && close >= open) {
    ++FEventIndex;
    AXml.assign(FChunkXML, open, close + kClose.size() - open);
    FChunkXML.resize(open);
    if (FindLast(FChunkXML, kClose, FChunkXML.size()) == std::string::npos) {
      FEventIndex = 0;
      FChunkXML.clear();
      ++FChunkIndex;
    }
    // The chunk's text had its control characters replaced when it was rendered.
    FillFields(AXml, AFields);
    return;
  }
  AXml.assign(1, '*');
  std::string issue(AEmptyIssue);
  if (AChunkNumber >= 0) issue.append(std::to_string(AChunkNumber)).append(" ignored");
  FIssueList->AddIssue(issue);
  FEventIndex = 0;
  FChunkXML.clear();
  ++FChunkIndex;
}

void TEventLogBinXML::TakeFieldsEvent(std::string& AXml, TEventXmlFields& AFields) {
  // Events come out newest first: the chunk's last record first.
  const size_t count = FChunk.RecordFields.size();
  const TChunkResult::TRecordSpan span = FChunk.RecordFields[count - 1 - FEventIndex];
  if (++FEventIndex >= count) {
    FEventIndex = 0;
    ++FChunkIndex;
  }
  std::string* fields = FChunk.Fields.data() + span.First;
  // Copied, not swapped, when the chunk was read on another thread: each side keeps its
  // strings and their room (a string freed on one thread and grown again on the other
  // costs more than the copy). A chunk taken whole on its own thread trades them.
  auto take = [this](std::string& ATo, std::string& AFrom) {
    if (FTakingChunk) ATo.swap(AFrom);
    else ATo.assign(AFrom);
  };
  // The pairs are made from the record's fields too: before they are taken.
  if (FNamedValues && span.Plan != 0xFFFFFFFF) {
    TakeRecordNamedValues(FChunk, span, FNamed);
    FHaveNamed = true;
  }
  take(AFields.ProviderName, fields[rfProviderName]);
  take(AFields.EventID, fields[rfEventID]);
  take(AFields.EventIDQual, fields[rfEventIDQual]);
  take(AFields.Version, fields[rfVersion]);
  take(AFields.Level, fields[rfLevel]);
  take(AFields.Task, fields[rfTask]);
  take(AFields.OpCode, fields[rfOpCode]);
  take(AFields.Keywords, fields[rfKeywords]);
  take(AFields.TimeCreated, fields[rfTimeCreated]);
  take(AFields.EventRecordID, fields[rfEventRecordID]);
  take(AFields.Channel, fields[rfChannel]);
  take(AFields.Computer, fields[rfComputer]);
  take(AFields.UserID, fields[rfUserID]);
  AFields.UserName.clear();
  AFields.EvtMessage.clear();
  AFields.TaskNumber = static_cast<uint32_t>(TextToInt(AFields.Task));
  const std::string& binary = fields[rfBinaryData];
  AFields.BinaryData.assign(binary.begin(), binary.end());
  if (FNamedValues) {
    // As FillFields with SystemFieldsOnly: no data strings, binary data or description.
    AFields.Strings.clear();
    AFields.BinaryData.clear();
    if (span.Plan == 0xFFFFFFFF) AXml.assign(fields[rfValues]);
    if (FTaskAndUserNames) ResolveTaskAndUser(AFields);
    return;
  }
  if (span.Plan != 0xFFFFFFFF) {
    TakeRecordFields(FChunk, span, AFields);
  } else {
    const size_t values = span.Count - rfValues;
    AFields.Strings.resize(values);
    for (size_t i = 0; i < values; ++i) take(AFields.Strings[i], fields[rfValues + i]);
  }
  ResolveTaskAndUser(AFields);
  CompleteFields(AFields);
}

void TEventLogBinXML::FillFields(std::string_view AEvent, TEventXmlFields& AFields) {
  // The value strings of an earlier event are kept past ReadSystemFields (which empties
  // the list) for ReadEventDataValues to fill again without allocating.
  TStringList values;
  values.swap(AFields.Strings);
  ReadSystemFields(AEvent, AFields);
  AFields.Strings.swap(values);
  ResolveTaskAndUser(AFields);
  if (FSystemFieldsOnly) {
    AFields.Strings.clear();
    return;
  }

  try {
    ReadEventDataValues(AEvent, AFields.Strings, &AFields.BinaryData);
  } catch (const std::exception&) {
    AFields.EvtMessage = "*<INTERNAL ERROR (DATA STRINGS)>*";
    return;
  }
  CompleteFields(AFields);
}

void TEventLogBinXML::CompleteFields(TEventXmlFields& AFields) {
  try {
    GetItemsFromData(AFields.EvtMessage, AFields.ProviderName, static_cast<uint32_t>(TextToInt(AFields.EventID)),
                     static_cast<uint16_t>(TextToInt(AFields.EventIDQual)),
                     static_cast<uint8_t>(TextToInt(AFields.Version)), static_cast<uint8_t>(TextToInt(AFields.OpCode)),
                     AFields.Strings);
  } catch (const std::exception&) {
    AFields.EvtMessage = "*<INTERNAL ERROR>*";
    return;
  }
  if (AFields.EvtMessage.size() == 1 && AFields.EvtMessage[0] == kNoDescriptionMark && FValuesForMissingDescription)
    MarkNoDescription(AFields);
}

// --- TEventLogScan ----------------------------------------------------------------

TEventLogScan::TEventLogScan() : FElfChunks(std::make_unique<TElfChnunks>()) {}

TEventLogScan::~TEventLogScan() { CloseEventLog(); }

void TEventLogScan::OpenBackupEventLog() {
  StopReadAhead();
  FEventIndex = 0;
  FChunkIndex = 0;
  FChunkXML.clear();
  FRecordCounter = 0;
  FHavePending = false;
  FTicks = 0;
  FScanned = 0;
  if (FStream)
    FActive = FElfChunks->OpenStream(std::move(FStream), TElfSourceType::stVolume);
  else
    FActive = FElfChunks->OpenFile(FBackupFileName);
}

void TEventLogScan::CloseEventLog() {
  StopReadAhead();
  if (FElfChunks) FElfChunks->Close();
  FChunkXML.clear();
  FEventIndex = 0;
  FHavePending = false;
  FActive = false;
}

uint64_t TEventLogScan::BytesScanned() const { return FReadAhead ? FScanned : FElfChunks->BytesRead(); }

void TEventLogScan::EventNextXML(std::string& AXml, TEventXmlFields& AFields) {
  AXml.clear();
  if (FEventIndex == 0) {
    if (FReadAheadThreads > 0 && FActive) {
      if (!FReadAhead) {
        // The carver belongs to the reading threads from here on. A buffer without a
        // further chunk travels with the next chunk as a count, so the ticks come out
        // where they would have; those after the last chunk are counted at the end.
        FReadAhead = std::make_unique<TReadAhead>(
            [this, empty = uint32_t{0}, reader = RecordReader()](TChunkJob& AJob) mutable {
              AJob.ReadRecords = reader;
              for (;;) {
                const TCarvedChunk carved = FElfChunks->GetNextChunk();
                if (carved.Result == TCarveResult::crEnd) {
                  FTrailingTicks = empty;
                  return false;
                }
                if (carved.Result == TCarveResult::crNoneInBlock) {
                  ++empty;
                  continue;
                }
                AJob.Bytes.assign(carved.Data, carved.Data + evtx::kChunkSize);
                AJob.Position = carved.Position;
                AJob.EmptyBlocksBefore = std::exchange(empty, 0);
                AJob.SourceRead = FElfChunks->BytesRead();
                return true;
              }
            },
            FReadAheadThreads);
      }
      if (!FHavePending) {
        if (!FReadAhead->Pop(FChunk)) {
          FScanned = FElfChunks->SourceSize();
          if (FTrailingTicks > 0) {
            --FTrailingTicks;
            AXml.assign(1, '+');
          }
          return;
        }
        FHavePending = true;
        FTicks = FChunk.EmptyBlocksBefore;
        FScanned = FChunk.SourceRead;
      }
      if (FTicks > 0) {
        --FTicks;
        AXml.assign(1, '+');
        return;
      }
      FHavePending = false;
    } else {
      const TCarvedChunk carved = FElfChunks->GetNextChunk();
      if (carved.Result == TCarveResult::crEnd) return;
      if (carved.Result == TCarveResult::crNoneInBlock) {
        AXml.assign(1, '+');
        return;
      }
      FJob.Bytes.assign(carved.Data, carved.Data + evtx::kChunkSize);
      FJob.Position = carved.Position;
      FJob.ReadFrom = nullptr;
      RenderJob();
    }
    AcceptChunk("Chunk at " + PositionText(FChunk.Position));
  }
  TakeEvent(AXml, AFields, "Inconsistent data in a chunk ignored");
}

} // namespace qvx
