#include "engine/event_log_binxml.h"

#include "platform/nt_exception.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

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

// The last occurrence of ANeedle that ends at or before AEnd (memrchr finds candidates;
// std::string::rfind compares at every position).
size_t FindLast(const std::string& AText, std::string_view ANeedle, size_t AEnd) {
  const char* data = AText.data();
  size_t end = std::min(AEnd, AText.size());
  while (end >= ANeedle.size()) {
    const void* hit = LastByte(data, ANeedle[0], end - ANeedle.size() + 1);
    if (!hit) return std::string::npos;
    const size_t pos = static_cast<size_t>(static_cast<const char*>(hit) - data);
    if (data[pos + 1] == ANeedle[1] && std::memcmp(data + pos, ANeedle.data(), ANeedle.size()) == 0) return pos;
    end = pos + ANeedle.size() - 1;
  }
  return std::string::npos;
}

} // namespace

// --- TEventLogBinXML --------------------------------------------------------------

TEventLogBinXML::TEventLogBinXML() = default;

TEventLogBinXML::~TEventLogBinXML() { CloseEventLog(); }

void TEventLogBinXML::OpenBackupEventLog() {
  if (FActive) return;
  try {
    FFileHandle = TRawFile::Open(FBackupFileName);
  } catch (const ENTException&) {
    FActive = false;
    throw;
  }
  FEvtxFile = std::make_unique<TEvtxFile>(&FFileHandle);
  FChunkXML.clear();
  FChunkIndex = 0;
  FEventIndex = 0;
  FLastCount = -1;
  FRecordCounter = 0;
  if (FEvtxFile->HeaderValid()) FActive = true;
  if (!FActive) {
    const uint32_t code = LastErrorCode();
    FEvtxFile.reset();
    FFileHandle = TRawFile();
    throw ENTException(code, FBackupFileName);
  }
}

void TEventLogBinXML::CloseEventLog() {
  FEvtxFile.reset();
  FFileHandle = TRawFile();
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

void TEventLogBinXML::LoadChunk(const std::string& AWhere) {
  TChunkReader::RenderChunk(FJob, FChunk);
  FChunkXML.swap(FChunk.Xml);
  if (FChunk.Truncated) FIssueList->AddIssue(AWhere + " is cut short by the end of the data; reading what is there");
  for (const TChunkIssue& issue : FChunk.Issues) {
    char where[160];
    if (issue.RecordId)
      std::snprintf(where, sizeof where, ": record %llu at chunk offset 0x%X (file offset 0x%llX): ",
                    static_cast<unsigned long long>(issue.RecordId), issue.Offset,
                    static_cast<unsigned long long>(FJob.Position + issue.Offset));
    else
      std::snprintf(where, sizeof where, ": record at chunk offset 0x%X (file offset 0x%llX): ", issue.Offset,
                    static_cast<unsigned long long>(FJob.Position + issue.Offset));
    std::string text = AWhere;
    text.append(where);
    text.append(issue.Message);
    FIssueList->AddIssue(text);
  }
}

void TEventLogBinXML::EventNextXML(std::string& AXml, TEventXmlFields& AFields) {
  AXml.clear();
  if (FEventIndex == 0) {
    if (!FEvtxFile || static_cast<int64_t>(FChunkIndex) >= FEvtxFile->Count()) return;
    FJob.Position = FEvtxFile->GetChunk(static_cast<int>(FChunkIndex))->Start;
    FJob.ReadFrom = &FFileHandle;
    FJob.Truncated = false;
    FJob.CheckCrc = false;
    LoadChunk("Chunk #" + std::to_string(FChunkIndex) + " at offset " + HexText(FJob.Position));
  }
  TakeEvent(AXml, AFields, "Inconsistent data in chunk #" + std::to_string(FChunkIndex) + " ignored");
}

void TEventLogBinXML::TakeEvent(std::string& AXml, TEventXmlFields& AFields, const std::string& AEmptyIssue) {
  static constexpr std::string_view kOpen = "<Event xmlns";
  static constexpr std::string_view kClose = "</Event>";
  const size_t close = FindLast(FChunkXML, kClose, FChunkXML.size());
  const size_t open = FindLast(FChunkXML, kOpen, FChunkXML.size());
  if (open != std::string::npos && close != std::string::npos && close >= open) {
    ++FEventIndex;
    AXml.assign(FChunkXML, open, close + kClose.size() - open);
    FChunkXML.resize(open);
    if (FindLast(FChunkXML, kClose, FChunkXML.size()) == std::string::npos) {
      FEventIndex = 0;
      FChunkXML.clear();
      ++FChunkIndex;
    }
    ReplaceControlCharacters(AXml);
    FillFields(AXml, AFields);
    return;
  }
  AXml.assign(1, '*');
  FIssueList->AddIssue(AEmptyIssue);
  FEventIndex = 0;
  FChunkXML.clear();
  ++FChunkIndex;
}

void TEventLogBinXML::FillFields(std::string_view AEvent, TEventXmlFields& AFields) {
  ReadSystemFields(AEvent, AFields);
  ResolveTaskAndUser(AFields);

  try {
    ReadEventDataValues(AEvent, AFields.Strings, &AFields.BinaryData);
  } catch (const std::exception&) {
    AFields.EvtMessage = "*<INTERNAL ERROR (DATA STRINGS)>*";
    return;
  }
  try {
    GetItemsFromData(AFields.EvtMessage, AFields.ProviderName, static_cast<uint32_t>(TextToInt(AFields.EventID)),
                     static_cast<uint16_t>(TextToInt(AFields.EventIDQual)),
                     static_cast<uint8_t>(TextToInt(AFields.Version)), static_cast<uint8_t>(TextToInt(AFields.OpCode)),
                     AFields.Strings);
  } catch (const std::exception&) {
    AFields.EvtMessage = "*<INTERNAL ERROR>*";
    return;
  }
  if (AFields.EvtMessage.size() == 1 && AFields.EvtMessage[0] == kNoDescriptionMark) MarkNoDescription(AFields);
}

// --- TEventLogScan ----------------------------------------------------------------

TEventLogScan::TEventLogScan() : FElfChunks(std::make_unique<TElfChnunks>()) {}

TEventLogScan::~TEventLogScan() { CloseEventLog(); }

void TEventLogScan::OpenBackupEventLog() {
  FEventIndex = 0;
  FChunkIndex = 0;
  FChunkXML.clear();
  FRecordCounter = 0;
  FActive = FElfChunks->OpenFile(FBackupFileName);
}

void TEventLogScan::CloseEventLog() {
  if (FElfChunks) FElfChunks->Close();
  FChunkXML.clear();
  FEventIndex = 0;
  FActive = false;
}

void TEventLogScan::EventNextXML(std::string& AXml, TEventXmlFields& AFields) {
  AXml.clear();
  if (FEventIndex == 0) {
    const TCarvedChunk carved = FElfChunks->GetNextChunk();
    if (carved.Result == TCarveResult::crEnd) return;
    if (carved.Result == TCarveResult::crNoneInBlock) {
      AXml.assign(1, '+');
      return;
    }
    FJob.Bytes.assign(carved.Data, carved.Data + evtx::kChunkSize);
    FJob.Position = carved.Position;
    FJob.ReadFrom = nullptr;
    FJob.Truncated = false;
    FJob.CheckCrc = false;
    LoadChunk("Chunk at offset " + HexText(carved.Position));
  }
  TakeEvent(AXml, AFields, "Inconsistent data in a chunk ignored");
}

} // namespace qvx
