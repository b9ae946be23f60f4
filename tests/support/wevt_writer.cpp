#include "support/wevt_writer.h"

#include <cstring>

namespace qvx::test {

namespace {

class TOut {
public:
  size_t Pos() const { return FBytes.size(); }
  void U8(uint8_t v) { FBytes.push_back(v); }
  void U16(uint16_t v) { Le(v, 2); }
  void U32(uint32_t v) { Le(v, 4); }
  void U64(uint64_t v) { Le(v, 8); }
  void Le(uint64_t v, int ABytes) {
    for (int i = 0; i < ABytes; ++i) FBytes.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  void Tag(const std::string& ATag) { // 4 characters, padded with zeros
    for (size_t i = 0; i < 4; ++i) U8(i < ATag.size() ? static_cast<uint8_t>(ATag[i]) : 0);
  }
  void Raw(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i) FBytes.push_back(p[i]);
  }
  void PutU32(size_t AAt, uint32_t v) {
    for (int i = 0; i < 4; ++i) FBytes[AAt + i] = static_cast<uint8_t>(v >> (8 * i));
  }
  std::vector<uint8_t>& Bytes() { return FBytes; }

private:
  std::vector<uint8_t> FBytes;
};

void WriteElement(TOut& out, const TWevtElementDraft& el) {
  const size_t start = out.Pos();
  out.Tag(el.Signature); // +0 signature
  out.U32(0);            // +4 element size, patched below
  if (el.Signature == "EVNT") {
    out.U32(el.Count.value_or(static_cast<uint32_t>(el.Events.size()))); // +8 count
    out.U32(0);                                                           // +12 not read
    for (const TWevtEventDraft& ev : el.Events) {
      out.U16(ev.Id);             // +0 identifier
      out.U8(ev.Version);         // +2 version
      out.U8(ev.Channel);         // +3 channel
      out.U8(ev.Level);           // +4 level
      out.U8(ev.Opcode);          // +5 opcode
      out.U16(ev.Task);           // +6 task
      out.U64(ev.Keywords);       // +8 keywords
      out.U32(ev.MessageId);      // +16 message identifier
      out.U32(ev.TemplateOffset); // +20 template offset
      out.U32(ev.OpcodeOffset);   // +24 opcode offset
      out.U32(ev.LevelOffset);    // +28 level offset
      out.U32(ev.TaskOffset);     // +32 task offset
      out.U32(0);                 // +36 not read
      out.U32(0);                 // +40 not read
      out.U32(ev.Flags);          // +44 trailing word
    }
  } else if (el.Signature == "TASK") {
    out.U32(el.Count.value_or(static_cast<uint32_t>(el.Tasks.size()))); // +8 count
    for (const TWevtTaskDraft& t : el.Tasks) {
      out.U32(t.Value);      // +0 task value
      out.U32(t.MessageId);  // +4 message identifier
      out.Raw(t.Guid, 16);   // +8 task GUID
      out.U32(t.NameOffset); // +24 name offset
    }
  } else {
    out.Raw(el.Body.data(), el.Body.size());
  }
  out.PutU32(start + 4, el.Size.value_or(static_cast<uint32_t>(out.Pos() - start)));
}

} // namespace

std::vector<uint8_t> BuildWevtResource(const TWevtResourceDraft& ADraft) {
  TOut out;
  out.Tag(ADraft.Magic); // 0 magic
  out.U32(0);            // 4 total size, patched below
  out.U32(0x00010005);   // 8 version numbers (as Windows 10 resources have them)
  out.U32(ADraft.ProviderCount.value_or(static_cast<uint32_t>(ADraft.Providers.size()))); // 12
  std::vector<size_t> entries;
  for (const TWevtProviderDraft& p : ADraft.Providers) {
    entries.push_back(out.Pos());
    out.U64(p.Guid.Low);  // +0 GUID, bytes 0-7
    out.U64(p.Guid.High); //    bytes 8-15
    out.U32(0);           // +16 block offset, patched below
  }
  for (size_t i = 0; i < ADraft.Providers.size(); ++i) {
    const TWevtProviderDraft& p = ADraft.Providers[i];
    const size_t block = out.Pos();
    out.PutU32(entries[i] + 16, p.BlockOffset.value_or(static_cast<uint32_t>(block)));
    out.Tag(p.Magic);  // +0 magic
    out.U32(0);        // +4 block size, patched below
    out.U32(p.MessageId); // +8 provider message identifier
    out.U32(p.ElementCount.value_or(static_cast<uint32_t>(p.Elements.size()))); // +12
    std::vector<size_t> descriptors;
    for (const TWevtElementDraft& el : p.Elements) {
      descriptors.push_back(out.Pos());
      out.U32(el.Kind); // +0 kind
      out.U32(0);       // +4 element offset, patched below
    }
    for (size_t k = 0; k < p.Elements.size(); ++k) {
      const TWevtElementDraft& el = p.Elements[k];
      out.PutU32(descriptors[k] + 4, el.Offset.value_or(static_cast<uint32_t>(out.Pos())));
      WriteElement(out, el);
    }
    out.PutU32(block + 4, p.BlockSize.value_or(static_cast<uint32_t>(out.Pos() - block)));
  }
  out.PutU32(4, ADraft.TotalSize.value_or(static_cast<uint32_t>(out.Pos())));
  return std::move(out.Bytes());
}

TProviderGuid MakeTestGuid(uint8_t ASeed) {
  uint8_t bytes[16];
  for (int i = 0; i < 16; ++i) bytes[i] = static_cast<uint8_t>(ASeed + i);
  return TProviderGuid::FromBytes(bytes);
}

} // namespace qvx::test
