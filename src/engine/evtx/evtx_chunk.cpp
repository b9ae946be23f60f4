#include "engine/evtx/evtx_chunk.h"

#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/evtx_layout.h"
#include "engine/evtx/evtx_time.h"
#include "platform/byte_reader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qvx {

using namespace evtx;

namespace {
enum : uint8_t { kDefectNone, kDefectNoData, kDefectMagic, kDefectSize, kDefectTrailer };
const char* const kDefectText[] = {"", "chunk data missing", "bad record magic",
                                   "record size runs past the chunk", "trailing size copy differs"};
} // namespace

// ---------------------------------------------------------------------------------
// TEvtxEvent

TEvtxEvent::TEvtxEvent(TEvtxChunk* AChunk, uint32_t AStart) : FOwner(AChunk), FStart(AStart) {}

void TEvtxEvent::ReadHeader() {
  FInitialized = true;
  const uint8_t* d = FOwner->Data();
  if (!d) {
    FDefect = kDefectNoData;
    return;
  }
  TByteReader r(d, kChunkSize);
  FValid = r.Fits(FStart, kRecordHeaderSize) && r.ReadU32(FStart) == kRecordMagic;
  if (!FValid) {
    FDefect = kDefectMagic;
    return;
  }
  uint32_t size = r.ReadU32(FStart + kRecordOfsSize);
  FRecordId = r.ReadU64(FStart + kRecordOfsId);
  FWrittenTime = r.ReadU64(FStart + kRecordOfsTime);
  // The size is not trusted: a record must hold its header and trailer and end inside
  // the chunk before its trailing copy is even looked at.
  if (size < kRecordMinSize || !r.Fits(FStart, size)) {
    FValid = false;
    FDefect = kDefectSize;
    return;
  }
  if (r.ReadU32(FStart + size - 4) != size) {
    FValid = false;
    FDefect = kDefectTrailer;
    return;
  }
  FLength = size;
  FRoot = CreateRootNode(*FOwner, FStart + kRecordHeaderSize, size - kRecordMinSize);
}

uint32_t TEvtxEvent::Length() {
  if (!FInitialized) ReadHeader();
  return FLength;
}

bool TEvtxEvent::Valid() {
  if (!FInitialized) ReadHeader();
  return FValid;
}

uint64_t TEvtxEvent::RecordId() {
  if (!FInitialized) ReadHeader();
  return FRecordId;
}

uint64_t TEvtxEvent::WrittenTime() {
  if (!FInitialized) ReadHeader();
  return FWrittenTime;
}

std::string TEvtxEvent::TimeCreated() {
  if (!FInitialized) ReadHeader();
  return FDefect == kDefectMagic || FDefect == kDefectNoData ? std::string() : FiletimeToText(FWrittenTime);
}

const char* TEvtxEvent::Defect() {
  if (!FInitialized) ReadHeader();
  return kDefectText[FDefect];
}

void TEvtxEvent::AppendXML(std::string& AOut) {
  if (!Valid() || !FRoot) return;
  size_t mark = AOut.size();
  try {
    RenderRoot(*FOwner, FRoot, AOut);
  } catch (...) {
    AOut.resize(mark);
    throw;
  }
}

std::string TEvtxEvent::asXML() {
  std::string out;
  AppendXML(out);
  return out;
}

void TEvtxEvent::SetRootVirtual(TBXmlNodeCommon* ANode) {
  if (ANode == FRoot) FRootVirtual = nullptr;
  else if (ANode != FRootVirtual) FRootVirtual = ANode;
}

// ---------------------------------------------------------------------------------
// TEvtxChunk

TEvtxChunk::TEvtxChunk(const TReadStream* AFileHandle, bool AHeaderOnly) : TEvtxClass(AFileHandle) {
  FMagic = kChunkMagic;
  Length = AHeaderOnly ? kChunkHeaderSize : kChunkSize;
}

TEvtxChunk::TEvtxChunk(const std::vector<uint8_t>& AData) : TEvtxClass(nullptr) {
  Length = kChunkSize;
  FLoaded = FValid = true;
  if (AData.size() == kChunkSize) {
    FData = AData;
    ParseHeader(FData.data());
  }
}

TEvtxChunk::TEvtxChunk(std::vector<uint8_t>&& AData) : TEvtxClass(nullptr) {
  Length = kChunkSize;
  FLoaded = FValid = true;
  if (AData.size() == kChunkSize) {
    FData = std::move(AData);
    ParseHeader(FData.data());
  }
}

TEvtxChunk::TEvtxChunk(const uint8_t* AData) : TEvtxClass(nullptr) {
  Length = kChunkSize;
  FLoaded = FValid = true;
  if (AData) {
    FData.assign(AData, AData + kChunkSize);
    ParseHeader(FData.data());
  }
}

bool TEvtxChunk::Parse() {
  ParseHeader(FData.data());
  // A header-only chunk keeps the fields, not the bytes: a file's chunk list holds
  // thousands of them.
  if (Length == kChunkHeaderSize) std::vector<uint8_t>().swap(FData);
  return true;
}

void TEvtxChunk::ParseHeader(const uint8_t* AHeader) {
  TByteReader r(AHeader, kChunkHeaderSize);
  FNumFirst = r.ReadU64(kChunkOfsNumFirst);
  FNumLast = r.ReadU64(kChunkOfsNumLast);
  FNumFirstFile = r.ReadU64(kChunkOfsNumFirstFile);
  FNumLastFile = r.ReadU64(kChunkOfsNumLastFile);
  FHeaderSize = r.ReadU32(kChunkOfsHeaderSize);
  FOfsNextRec = r.ReadU32(kChunkOfsNextRecord);
  FCrc32Data = r.ReadU32(kChunkOfsDataCrc);
  FCrc32Header = r.ReadU32(kChunkOfsHeaderCrc);
}

void TEvtxChunk::BuildEvents() {
  FActive = true;
  if (!Valid()) return;
  // The first record is always listed, even in a chunk that holds none.
  FEventsList.reserve(128);
  FEventsList.emplace_back(this, kChunkFirstRecord);
  for (;;) {
    TEvtxEvent& last = FEventsList.back();
    uint32_t length = last.Length();
    if (length == 0) break;
    uint64_t next = uint64_t{last.Start()} + length;
    if (next >= FOfsNextRec || next >= kChunkSize) break;
    FEventsList.emplace_back(this, static_cast<uint32_t>(next));
  }
}

int TEvtxChunk::Count() {
  if (!FActive) BuildEvents();
  return static_cast<int>(FEventsList.size());
}

TEvtxEvent* TEvtxChunk::GetEvent(int AIndex) {
  if (AIndex < 0 || AIndex >= Count()) return nullptr;
  return &FEventsList[static_cast<size_t>(AIndex)];
}

TBXmlNameStringNode* TEvtxChunk::AddString(TBXmlNameStringNode* AStringNode) {
  Decoder().StringsList.Add(AStringNode->Offset, AStringNode);
  return AStringNode;
}

TBXmlNameStringNode* TEvtxChunk::GetStringByPoint(uint32_t APoint) const {
  return FDecoder ? FDecoder->StringsList.Find(APoint) : nullptr;
}

TBXmlTemplateNode* TEvtxChunk::AddTemplate(TBXmlTemplateNode* ATemplateNode) {
  Decoder().TemplatesList.Add(ATemplateNode->Offset, ATemplateNode);
  return ATemplateNode;
}

TBXmlTemplateNode* TEvtxChunk::GetTemplateByPoint(uint32_t APoint) const {
  return FDecoder ? FDecoder->TemplatesList.Find(APoint) : nullptr;
}

void TEvtxChunk::AppendXML(std::string& AOut) {
  int count = Count();
  for (int i = 0; i < count; ++i) {
    TEvtxEvent& e = FEventsList[static_cast<size_t>(i)];
    if (!e.Valid()) continue;
    try {
      e.AppendXML(AOut);
    } catch (const EBinXMLLogReadingException& ex) {
      std::string message = ex.what();
      if (!ex.Detail().empty()) message += " (" + ex.Detail() + ")";
      FRenderIssues.push_back({e.Start(), e.RecordId(), std::move(message)});
    }
  }
}

std::string TEvtxChunk::asXML() {
  std::string out;
  out.reserve(256 * 1024);
  AppendXML(out);
  return out;
}

void TEvtxChunk::Export(std::vector<std::string>& AList) { AList.push_back(asXML()); }

std::string TEvtxChunk::HexDump(uint32_t AStart, uint32_t ALength) const {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  uint64_t end = std::min<uint64_t>(uint64_t{AStart} + ALength, FData.size());
  for (uint64_t line = AStart; line < end; line += 16) {
    char head[16];
    std::snprintf(head, sizeof head, "%08X ", static_cast<unsigned>(line));
    out += head;
    for (uint64_t i = line; i < line + 16 && i < end; ++i) {
      out.push_back(' ');
      out.push_back(kHex[FData[i] >> 4]);
      out.push_back(kHex[FData[i] & 15]);
    }
    out += '\n';
  }
  return out;
}

} // namespace qvx
