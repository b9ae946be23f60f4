// TEvtxChunk: one 64 KB chunk of an .evtx file; TEvtxEvent: one event record in it.
//
// A chunk is read lazily from its file (128 header bytes, or the whole 65536) or built
// from memory. Its records are walked from offset 512 while each record's size leads
// to the next, stopping at the free space offset or at the first record that fails
// its checks. The chunk keeps the binary XML decoder's shared state: the arena that
// holds every node made for it and the caches of name strings and templates by
// chunk offset.
#pragma once

#include "engine/evtx/binxml_nodes.h"
#include "engine/evtx/evtx_common.h"

#include "engine/evtx/evtx_layout.h"

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace qvx {

class TEvtxChunk;

class TEvtxEvent {
public:
  TEvtxEvent(TEvtxChunk* AChunk, uint32_t AStart);

  // Record size; 0 until read or when the record is not valid. Reads the header on first use.
  uint32_t Length();
  bool Valid();
  uint64_t RecordId();
  uint64_t WrittenTime(); // FILETIME from the record header
  // The written time as text, fraction in units of 100 microseconds ("…:22.50Z").
  std::string TimeCreated();
  // Why the record is not valid ("bad record magic", …); empty when it is valid.
  const char* Defect();

  TEvtxChunk* Chunk() const { return FOwner; }
  uint32_t Start() const { return FStart; }

  // The record's XML; empty when not valid. Raises EBinXMLLogReadingException for a
  // fault inside the record's binary XML.
  std::string asXML();
  // Appends the record's XML to AOut; on a raise AOut is left as it was.
  void AppendXML(std::string& AOut);

  TBXmlRootNode* Root() const { return FRoot; }
  // Setting the virtual root to a node other than FRoot or the current one replaces it;
  // setting it to FRoot clears it.
  void SetRootVirtual(TBXmlNodeCommon* ANode);
  TBXmlNodeCommon* RootVirtual() const { return FRootVirtual; }

private:
  void ReadHeader();

  TEvtxChunk* FOwner;
  TBXmlRootNode* FRoot = nullptr;
  TBXmlNodeCommon* FRootVirtual = nullptr;
  uint32_t FLength = 0;
  uint32_t FStart;
  bool FInitialized = false;
  bool FValid = false;
  uint8_t FDefect = 0;
  uint64_t FRecordId = 0;
  uint64_t FWrittenTime = 0;
};

// A record that could not be rendered, with where and why.
struct TChunkIssue {
  uint32_t Offset = 0;    // record offset in the chunk
  uint64_t RecordId = 0;  // 0 when the header could not be read
  std::string Message;
};

// Nodes of one chunk by chunk offset: an open-addressed table (a chunk names a few
// hundred strings and templates, looked up once or more per record).
template <typename T> class TOffsetTable {
public:
  T* Find(uint32_t AKey) const {
    if (FSlots.empty()) return nullptr;
    for (size_t i = Hash(AKey);; i = (i + 1) & FMask) {
      const TSlot& s = FSlots[i];
      if (!s.Value) return nullptr;
      if (s.Key == AKey) return s.Value;
    }
  }
  // Adds AValue under AKey unless the key is there already (the first stays).
  void Add(uint32_t AKey, T* AValue) {
    if ((FCount + 1) * 2 > FSlots.size()) Grow();
    for (size_t i = Hash(AKey);; i = (i + 1) & FMask) {
      TSlot& s = FSlots[i];
      if (!s.Value) {
        s = {AKey, AValue};
        ++FCount;
        return;
      }
      if (s.Key == AKey) return;
    }
  }

private:
  struct TSlot {
    uint32_t Key;
    T* Value;
  };
  size_t Hash(uint32_t AKey) const { return (AKey * 0x9E3779B1u >> 7) & FMask; }
  void Grow() {
    std::vector<TSlot> old;
    old.swap(FSlots);
    FSlots.assign(old.empty() ? 256 : old.size() * 2, TSlot{0, nullptr});
    FMask = FSlots.size() - 1;
    FCount = 0;
    for (const TSlot& s : old)
      if (s.Value) Add(s.Key, s.Value);
  }

  std::vector<TSlot> FSlots;
  size_t FMask = 0;
  size_t FCount = 0;
};

class TEvtxChunk : public TEvtxClass {
public:
  // A chunk read lazily from AFileHandle at Start (set before first use): 128 bytes
  // when AHeaderOnly, else 65536.
  TEvtxChunk(const TReadStream* AFileHandle, bool AHeaderOnly);
  // A chunk built from memory, valid at once without a magic check; the header is
  // parsed and the bytes kept only when AData holds exactly 65536 bytes.
  explicit TEvtxChunk(const std::vector<uint8_t>& AData);
  // As above, taking over the buffer instead of copying it.
  explicit TEvtxChunk(std::vector<uint8_t>&& AData);
  // As above, copying 65536 bytes from AData; nothing is copied when AData is null.
  explicit TEvtxChunk(const uint8_t* AData);

  // Gives the chunk's bytes back (for reuse of the buffer); the chunk must not be used after.
  std::vector<uint8_t> TakeBytes() { return std::move(FData); }

  // Number of records found by the walk (builds the list on first use).
  int Count();
  // The event at AIndex, or null when AIndex is outside 0 .. Count()-1.
  TEvtxEvent* GetEvent(int AIndex);

  TBXmlNameStringNode* AddString(TBXmlNameStringNode* AStringNode);
  TBXmlNameStringNode* GetStringByPoint(uint32_t APoint) const;
  TBXmlTemplateNode* AddTemplate(TBXmlTemplateNode* ATemplateNode);
  TBXmlTemplateNode* GetTemplateByPoint(uint32_t APoint) const;

  // Every record's XML in file order. A record whose binary XML is damaged is left
  // out and listed in RenderIssues().
  std::string asXML() override;
  void Export(std::vector<std::string>& AList) override;
  // As asXML, appending to AOut.
  void AppendXML(std::string& AOut);
  const std::vector<TChunkIssue>& RenderIssues() const { return FRenderIssues; }

  // Chunk bytes as hexadecimal text, 16 bytes a line with the chunk offset in front.
  std::string HexDump(uint32_t AStart, uint32_t ALength) const;

  // The chunk's 65536 bytes, or null when only the header was read or the read failed.
  const uint8_t* Data() const { return FData.size() == evtx::kChunkSize ? FData.data() : nullptr; }
  const std::vector<uint8_t>& Bytes() const { return FData; }
  TBXmlArena& Arena() { return Decoder().Arena; }

  uint64_t NumFirst() const { return FNumFirst; }
  uint64_t NumLast() const { return FNumLast; }
  uint64_t NumFirstFile() const { return FNumFirstFile; }
  uint64_t NumLastFile() const { return FNumLastFile; }
  uint32_t OfsNextRec() const { return FOfsNextRec; }
  uint32_t HeaderSize() const { return FHeaderSize; }
  uint32_t Crc32Data() const { return FCrc32Data; }
  uint32_t Crc32Header() const { return FCrc32Header; }
  bool DeferedOutput() const { return FDeferedOutput; }

  // Decoder state kept on the chunk (255 = not set).
  uint8_t FSubstitution = 255;
  uint8_t FValues = 255;
  uint8_t FElementType = 0;
  uint8_t FTagState = 0;

protected:
  bool Parse() override;

private:
  void ParseHeader(const uint8_t* AHeader);
  void BuildEvents();

  // The decoder's per-chunk state, made on first use: a file's chunk list holds
  // thousands of header-only chunks that never decode a record.
  struct TDecoderState {
    TBXmlArena Arena;
    TOffsetTable<TBXmlNameStringNode> StringsList;
    TOffsetTable<TBXmlTemplateNode> TemplatesList;
  };
  TDecoderState& Decoder() {
    if (!FDecoder) FDecoder = std::make_unique<TDecoderState>();
    return *FDecoder;
  }

  std::unique_ptr<TDecoderState> FDecoder;
  std::vector<TEvtxEvent> FEventsList;
  std::vector<TChunkIssue> FRenderIssues;
  std::vector<uint8_t>& FData = FBuffer;
  bool FActive = false;
  bool FDeferedOutput = false;
  uint64_t FNumFirst = 0;
  uint64_t FNumLast = 0;
  uint64_t FNumFirstFile = 0;
  uint64_t FNumLastFile = 0;
  uint32_t FHeaderSize = 0;
  uint32_t FOfsNextRec = 0;
  uint32_t FCrc32Data = 0;
  uint32_t FCrc32Header = 0;
};

} // namespace qvx
