// The direct sources: .evtx files and raw data read without the system's event log
// service.
//
// TEventLogBinXML walks a saved .evtx file's chunks newest first and, within a chunk,
// hands out its events from the last back to the first, so a whole log reads newest
// event first. TEventLogScan carves chunks out of raw data (a damaged file, a disk
// image, a block device) and yields whatever events they hold, in the order the chunks
// lie in the data, duplicates included. Only one chunk and its remaining XML are held
// at a time.
#pragma once

#include "engine/event_log_x.h"
#include "engine/event_row.h"
#include "engine/evtx/chunk_reader.h"
#include "engine/evtx/elf_chunks.h"
#include "engine/evtx/evtx_file.h"
#include "engine/named_fields.h"
#include "platform/read_stream.h"

#include <array>
#include <functional>
#include <memory>
#include <vector>
#include <string>

namespace qvx {

class TEventLogBinXML : public TEventLogX {
public:
  TEventLogBinXML();
  ~TEventLogBinXML() override;

  // A live log cannot be opened by this source: does nothing.
  void OpenEventLog() override {}
  // Opens BackupFileName. Raises ENTException with the last OS error when the file
  // cannot be opened or its header is not valid; the source then stays closed.
  void OpenBackupEventLog() override;
  void CloseEventLog() override;
  // Record identifiers between the oldest chunk's first and the newest chunk's last
  // (gaps counted): a bound for progress, 0 when the chunk count is not valid.
  int64_t GetCount() override;
  int64_t GetLastCount() override;
  void EventNextXML(std::string& AXml, TEventXmlFields& AFields) override;
  void GetItemsFromData(std::string& AText, const std::string& ASourceName, uint32_t AEventId,
                        uint16_t AEventIdQual, uint8_t AVersion, uint8_t AOpCode, const TStringList& AStrings) override;
  void SetDescriptionServer(const std::string& AName) override { TEventLogX::SetDescriptionServer(AName); }
  void GetEventLogs(TEventLogList& ALogs) override { ALogs.Clear(); }
  void GetEventSources(TStringList& ASources) override { ASources.clear(); }
  void GetEventSourcesByLog(const std::string&, TStringList& ASources) override { ASources.clear(); }
  void SetMachineName(const std::string&) override {}
  void Clear(const std::string&) override {}
  void BackupEventlog(const std::string&) override {}

  // Renders chunks ahead of the reader on AThreads threads of their own (0: none, the
  // default). Events, issues and markers come out exactly as without; only the time
  // differs. Takes effect at the next open.
  void SetReadAhead(unsigned AThreads) { FReadAheadThreads = AThreads; }
  // Fills only what the System element says (IDs, times, channel, computer, task, user)
  // and the event's XML: no data strings and no description. For readers that look at
  // the XML themselves (quorvex hunt).
  void SetSystemFieldsOnly(bool AOn) { FSystemFieldsOnly = AOn; }
  // Hands out events without their XML (FEvtXML stays empty): their fields are read
  // straight from the binary XML, as reading the XML would give them, which is faster.
  // For readers that do not look at the XML (listings other than XML). Set before the
  // first event is read; ignored with SetSystemFieldsOnly.
  void SetWithoutXml(bool AOn) { FWithoutXml = AOn; }
  // For quorvex hunt, with SetSystemFieldsOnly: an event read straight from its binary
  // XML comes without its XML, and NamedValues() holds its (name, value) pairs as
  // engine/named_fields.h reads them from the XML; the others come with their XML. Set
  // before the first event is read.
  void SetNamedValues(bool AOn) { FNamedValues = AOn; }
  // The pairs of the event handed out last, null when it came with its XML instead (the
  // caller may take them, swapping in room of its own).
  TNamedValues* NamedValues() { return FHaveNamed ? &FNamed : nullptr; }
  // Off: an event handed out with its pairs (SetNamedValues) has no task or user name
  // looked up (its task number and SID stay), for a reader that shows neither. On by default.
  void SetTaskAndUserNames(bool AOn) { FTaskAndUserNames = AOn; }
  // Whether an event without a description carries its data values, one per line, after
  // the no-description mark in its message (the default); off, the message is the mark
  // alone. For readers that never show the message of such an event.
  void SetValuesForMissingDescription(bool AOn) { FValuesForMissingDescription = AOn; }
  // Events read so far whose fields had to be read from their rendered XML.
  uint64_t EventsReadFromXml() const { return FEventsReadFromXml; }

  // Chunk by chunk, for readers that render chunks on threads of their own and turn each
  // into text on the thread that rendered it (TChunkReader::Run with a finisher):
  // ChunkProducer names the open file's chunks from the current one on, reading records
  // as this source's events would be read (not for a scan, nor while chunks are read
  // ahead); TakeChunk, on a source of its own per thread (not opened, set up as the
  // reading one), hands a rendered chunk's events to AEach in the order EventNext gives
  // them, AChunkNumber naming the chunk in issues, and leaves the issues met in
  // AResult.Notes. Neither touches the other's state.
  TChunkReader::TProducer ChunkProducer();
  void TakeChunk(TChunkResult& AResult, uint64_t AChunkNumber, const std::function<void(TEventItemX&)>& AEach);

  // As TakeChunk, for the JSON Lines and CSV listings: hands each event to ARow as a row
  // (engine/event_row.h) in the same order; an event read by its plan is viewed where
  // the chunk holds its fields, its data values left for the writer to make (good until
  // the next event), the others as their item. The rows say what the items would.
  void TakeChunkRows(TChunkResult& AResult, uint64_t AChunkNumber, const std::function<void(const TEventRow&)>& ARow);

  // As TakeChunk, for quorvex hunt (set up with SetNamedValues and SetSystemFieldsOnly):
  // hands each event to AEach in the same order as a row with only what a hunt reads set
  // (Owner, RecordId, EventId, SystemTime, Channel, Computer, and TimeGenerated, made
  // from SystemTime) with its (name, value) pairs, or, when it came with its XML instead
  // (ANamed null), that XML. An event read by its plan is viewed where the chunk holds
  // its fields, with no item made, and its data values deferred (made when asked for,
  // TNamedValues::Make); the others are made as TakeChunk makes them. No task or user
  // name is looked up. What AEach is given is good until it returns.
  using TNamedEach = std::function<void(const TEventRow& ARow, const TNamedValues* ANamed, std::string_view AXml)>;
  void TakeChunkNamed(TChunkResult& AResult, uint64_t AChunkNumber, const TNamedEach& AEach);

  // The file structure while open (null when closed). Not to be used from outside
  // while chunks are read ahead.
  TEvtxFile* EvtxFile() const { return FEvtxFile.get(); }
  // Index of the chunk being read in the sorted list (chunks carved so far for a scan).
  uint32_t ChunkIndex() const { return FChunkIndex; }

protected:
  class TReadAhead;

  // Takes the last event out of FChunkXML into AXml and fills AFields; when the chunk
  // holds no event, AXml is "*" and AEmptyIssue is recorded.
  // AEmptyIssue names the chunk when it holds no further event; AChunkNumber, when not
  // negative, is appended to it and " ignored" after it (the text is made only then).
  void TakeEvent(std::string& AXml, TEventXmlFields& AFields, std::string_view AEmptyIssue, int64_t AChunkNumber = -1);
  // Renders FJob's chunk into FChunk (here, or on the read-ahead threads).
  void RenderJob();
  // Takes FChunk's XML into FChunkXML and records what could not be rendered.
  void AcceptChunk(const std::string& AWhere);
  // Stops the read-ahead threads, if any.
  void StopReadAhead();
  // Fills the fields of one event's text (task name, user, data values, description).
  void FillFields(std::string_view AEvent, TEventXmlFields& AFields);

  // The name of a position of the data in messages: "offset 0x..", or as the scan was told.
  std::string PositionText(uint64_t APosition) const;

  std::unique_ptr<TReadStream> FFileHandle;
  std::unique_ptr<TEvtxFile> FEvtxFile;
  std::function<std::string(uint64_t)> FPositionText;
  TChunkJob FJob;       // the chunk being read: its bytes and where they came from
  TChunkResult FChunk;  // its rendered records
  uint32_t FChunkIndex = 0;
  std::string FChunkXML;
  uint32_t FEventIndex = 0;
  unsigned FReadAheadThreads = 0;
  bool FSystemFieldsOnly = false;
  bool FWithoutXml = false;
  bool FNamedValues = false;
  bool FHaveNamed = false;
  TNamedValues FNamed;
  bool FTaskAndUserNames = true;
  bool FValuesForMissingDescription = true;
  bool FTakingChunk = false; // TakeChunk: the chunk's strings are this thread's
  uint64_t FEventsReadFromXml = 0;
  std::unique_ptr<TReadAhead> FReadAhead;
  // The reader that the chunk jobs use: null (render XML) or the field reader.
  TChunkRecordReader RecordReader() const;
  // Takes the last event of a chunk read by the field reader.
  void TakeFieldsEvent(std::string& AXml, TEventXmlFields& AFields);
  // Views the chunk's next event, read by its plan, as ARow (TakeChunkRows).
  void TakeRowEvent(TEventRow& ARow);
  // TakeChunk*: AResult becomes the current chunk (its issues kept apart), and is handed
  // back with the count of events taken and the issues met.
  void BeginTaking(TChunkResult& AResult, uint64_t AChunkNumber);
  void EndTaking(TChunkResult& AResult, uint32_t ATaken);
  // The next event of the chunk read in full into FItem; false for a record that gives none.
  bool TakeItem(uint64_t AChunkNumber);
  // Whether the current chunk's next event was read by its plan; its span, moving past it.
  bool NextIsPlanned() const;
  TChunkResult::TRecordSpan NextPlannedSpan();
  // The task and user names of the last few (provider, task, user) of rows
  // (TakeRowEvent), kept for the next ones; the oldest gives way.
  struct TRowNames {
    std::string Provider, UserId, Task, UserName;
    uint32_t TaskNumber = 0;
    bool Used = false;
  };
  std::array<TRowNames, 8> FRowNames;
  uint32_t FRowNamesNext = 0;
  TEventXmlFields FRowFields; // for ResolveTaskAndUser
  // The time text of the last row (as far as its day count reads it) and its day count.
  static constexpr size_t kRowTimeKey = 23;
  char FRowTimeKey[kRowTimeKey] = {};
  size_t FRowTimeKeySize = 0;
  double FRowTimeDays = 0;
  bool FRowTimeSet = false;
  // What FillFields does after the fields of the XML are read.
  void CompleteFields(TEventXmlFields& AFields);
};

class TEventLogScan : public TEventLogBinXML {
public:
  TEventLogScan();
  ~TEventLogScan() override;

  // Opens BackupFileName (a file, or a device such as /dev/sdb or "\\.\PhysicalDrive1").
  // Raises ENTException when it cannot be opened.
  void OpenBackupEventLog() override;
  void CloseEventLog() override;
  // Not known in advance: all bits of a 32-bit count set.
  int64_t GetCount() override { return kUnknownCount; }
  int64_t GetLastCount() override { return kUnknownCount; }
  // As the file source, with chunks from the carver; "+" when a 4 MB buffer held no
  // further chunk (a tick for progress).
  void EventNextXML(std::string& AXml, TEventXmlFields& AFields) override;

  // Scans AStream at the next open instead of opening BackupFileName (a partition, the
  // unallocated clusters of a volume); used once.
  void SetStream(std::unique_ptr<TReadStream> AStream) { FStream = std::move(AStream); }
  // How messages name a position of the scanned data ("volume offset 0x.., image offset
  // 0x.." for free clusters joined into one stream); null: "offset 0x..".
  void SetPositionText(std::function<std::string(uint64_t)> APositionText) { FPositionText = std::move(APositionText); }

  TElfChnunks& ElfChunks() { return *FElfChunks; }
  // Bytes of the source scanned so far (safe to ask while chunks are read ahead).
  uint64_t BytesScanned() const;
  static constexpr int64_t kUnknownCount = 0xFFFFFFFF;

private:
  std::unique_ptr<TElfChnunks> FElfChunks;
  std::unique_ptr<TReadStream> FStream;
  bool FHavePending = false;  // FChunk holds a chunk still to be taken (read ahead)
  uint32_t FTicks = 0;        // "+" results owed before it
  uint64_t FScanned = 0;      // bytes scanned when the last result was taken
  uint32_t FTrailingTicks = 0; // "+" results owed after the last chunk (set by the reading threads)
};

} // namespace qvx
