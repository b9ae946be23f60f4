#include "engine/record_fields.h"

#include "engine/event_xml.h"
#include "engine/named_fields.h"
#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/binxml_nodes.h"
#include "engine/evtx/evtx_chunk.h"
#include "engine/evtx/evtx_layout.h"
#include "engine/evtx/variant_types.h"
#include "platform/byte_reader.h"
#include "platform/text_escape.h"
#include "platform/utf16.h"

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qvx {

namespace {

// A substitution's place in the marked text: U+E000, the op's number, U+E001 (private
// use characters, which the field readers pass through as any other text).
constexpr std::string_view kMarkOpen = "\xEE\x80\x80";
constexpr std::string_view kMarkClose = "\xEE\x80\x81";
constexpr uint32_t kFixed = 0xFFFFFFFF;
constexpr std::string_view kEventOpen = "<Event xmlns";
constexpr std::string_view kEventClose = "</Event>";

// One part of a field: fixed text (already as the readers give it), or the value that
// substitution Ref (an index into the plan's Refs) holds.
struct TPiece {
  uint32_t Ref = kFixed;
  std::string Text;
};

// Where one field's text comes from.
struct TSource {
  std::vector<TPiece> Pieces;
  uint8_t Kind = 0;    // data values: 0 <Data> of <EventData>, 1 text of <UserData>, 2 attribute of <UserData>
  bool Expand = false; // a <Data> that is the whole content of one value: an array repeats it per item
  bool OptionalAttribute = false; // an attribute value that is one optional substitution
};

// A template instance that the record renders: the record's own, or one embedded in a
// value (type 0x21) of another. Listed in the order the render meets them.
struct TFragment {
  const TBXmlTemplateNode* Template;
  const TBXmlSubstArrayNode* Array;
  uint32_t Parent; // the fragment whose op embeds it (the record's own: itself)
  uint32_t ParentOp;
};

// A substitution of the marked text: op Op of fragment Fragment.
struct TRef {
  uint32_t Fragment;
  uint32_t Op;
};

// Where one (name, value) pair of the hunt's reading comes from, laid out flat (a record
// walks every source of its plan): its name, attribute and pieces in the plan's
// NamedText and NamedPieces. Fixed pieces hold their text decoded, as the reader of the
// XML would give it.
struct TNamedPiece {
  uint32_t Ref = kFixed;
  uint32_t TextAt = 0, TextSize = 0;
};
struct TNamedSource {
  TNamedFieldKind Kind = nfText;
  bool Expand = false;            // as TSource::Expand
  bool OptionalAttribute = false; // as TSource::OptionalAttribute
  int8_t SystemField = -1;        // the system field made of the same one value (its text is taken)
  uint32_t NameId = TNamedValues::kNoNameId;
  uint32_t NameAt = 0, NameSize = 0, AttrAt = 0, AttrSize = 0;
  uint32_t FirstPiece = 0, PieceCount = 0;
};

struct TPlan {
  uint64_t Serial = 0; // unique in the process (the shape of the pairs MakeNamedValues makes)
  bool Ok = false;
  bool NamedOk = false; // Named says what ForEachNamedField would read from the XML
  std::vector<TNamedSource> Named;
  std::vector<TNamedPiece> NamedPieces;
  std::string NamedText;
  TSource System[rfBinaryData];
  TSource Binary; // pieces of the undecoded <Binary> text
  std::vector<TSource> Values;
  std::vector<TRef> Refs;
  std::vector<uint32_t> RefIndex; // per ref: its value's index in its fragment's array
  std::vector<uint8_t> ExpandRefs; // per ref: 1 when an array value may repeat its element
  std::vector<uint32_t> RepeatRefs; // refs whose array value would repeat an element other than such a <Data>
};

inline bool IsArrayCode(uint8_t AType) { return (AType & 0x80) != 0; }

bool IsBlank(std::string_view AText) {
  for (char c : AText)
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') return false;
  return true;
}

// A name written around a substitution must not change how the readers split the text.
bool IsPlainName(std::string_view AName) {
  if (AName.empty()) return false;
  for (char c : AName) {
    const auto u = static_cast<unsigned char>(c);
    if (u <= 0x20 || c == '<' || c == '>' || c == '&' || c == '"' || c == '\'' || c == '=' || c == '/' ||
        c == ';' || u == 0xEE)
      return false;
  }
  return true;
}

// Splits a field the readers gave from the marked text into its pieces; false when a
// marker is broken.
bool Split(std::string_view AText, size_t ARefCount, TSource& AOut) {
  AOut.Pieces.clear();
  size_t pos = 0;
  while (pos < AText.size()) {
    const size_t mark = AText.find(kMarkOpen, pos);
    if (mark != pos) {
      const size_t end = mark == std::string_view::npos ? AText.size() : mark;
      AOut.Pieces.push_back({kFixed, std::string(AText.substr(pos, end - pos))});
      if (mark == std::string_view::npos) break;
    }
    size_t p = mark + kMarkOpen.size();
    uint32_t ref = 0;
    size_t digits = 0;
    while (p < AText.size() && AText[p] >= '0' && AText[p] <= '9' && digits < 9) {
      ref = ref * 10 + static_cast<uint32_t>(AText[p] - '0');
      ++p;
      ++digits;
    }
    if (!digits || ref >= ARefCount || AText.substr(p, kMarkClose.size()) != kMarkClose) return false;
    AOut.Pieces.push_back({ref, {}});
    pos = p + kMarkClose.size();
  }
  return true;
}

// Counts the occurrences of ANeedle that the literal text decides, from each '<' of
// AText up to the next substitution (ASpans: where each one's text starts, ascending).
// False when a substitution could complete or break one.
bool CountNeedle(std::string_view AText, const std::vector<size_t>& ASpans, std::string_view ANeedle, size_t& ACount,
                 size_t& AAt) {
  ACount = 0;
  size_t span = 0;
  for (size_t p = AText.find('<'); p != std::string_view::npos; p = AText.find('<', p + 1)) {
    while (span < ASpans.size() && ASpans[span] <= p) ++span;
    const size_t limit = span < ASpans.size() ? ASpans[span] : AText.size();
    const std::string_view literal = AText.substr(p, limit - p);
    if (literal.size() >= ANeedle.size()) {
      if (literal.substr(0, ANeedle.size()) == ANeedle) {
        ++ACount;
        AAt = p;
      }
    } else if (ANeedle.substr(0, literal.size()) == literal && limit < AText.size()) {
      return false;
    }
  }
  return true;
}

// The marked text of a record's fragments: each fragment's program, an embedded one in
// place of the op that holds it, and a marker for every other substitution.
struct TMarker {
  const std::vector<TFragment>& Fragments;
  TPlan& Plan;
  std::string Text;
  std::vector<size_t> Spans; // where each substitution's text starts
  std::vector<size_t> Marks; // where each marker starts

  bool Write(uint32_t AFragment) {
    const TBXmlTemplateNode* t = Fragments[AFragment].Template;
    const std::string_view program = t->ProgramText;
    for (uint32_t i = 0; i < t->OpCount; ++i) {
      const TBXmlOp& op = t->Ops[i];
      if (op.TextLength) {
        if (op.TextOffset > program.size() || program.size() - op.TextOffset < op.TextLength) return false;
        Text.append(program.substr(op.TextOffset, op.TextLength));
        continue;
      }
      uint32_t child = 0;
      while (child < Fragments.size() &&
             !(child != 0 && Fragments[child].Parent == AFragment && Fragments[child].ParentOp == i))
        ++child;
      if (child < Fragments.size()) {
        if (!Write(child)) return false;
        continue;
      }
      if (op.Element && !IsPlainName(op.Element->Text)) return false;
      Spans.push_back(Text.size());
      if (op.Attribute) {
        if (!IsPlainName(op.Attribute->Text)) return false;
        Text.push_back(' ');
        Text.append(op.Attribute->Text);
        Text.append("=\"");
      }
      Marks.push_back(Text.size());
      Text.append(kMarkOpen);
      Text.append(std::to_string(Plan.Refs.size()));
      Text.append(kMarkClose);
      Plan.Refs.push_back({AFragment, i});
      if (op.Attribute) Text.push_back('"');
    }
    return true;
  }
};

// The (name, value) pairs of the marked event text AEvent as ForEachNamedField reads
// them, into APlan.Named; false when a name holds a substitution or a value would not
// come out the same.
bool CompileNamed(const std::vector<TFragment>& AFragments, std::string_view AEvent, TPlan& APlan) {
  const size_t refs = APlan.Refs.size();
  auto marked = [](std::string_view AText) { return AText.find("\xEE\x80") != std::string_view::npos; };
  bool ok = true;
  TSource split;
  ForEachNamedField(AEvent, [&](TNamedFieldKind AKind, std::string_view AName, std::string_view AAttr,
                                std::string_view ARaw) {
    if (!ok) return;
    if (marked(AName) || marked(AAttr) || !Split(ARaw, refs, split)) {
      ok = false;
      return;
    }
    std::string& text = APlan.NamedText;
    TNamedSource& source = APlan.Named.emplace_back();
    source.Kind = AKind;
    source.NameAt = static_cast<uint32_t>(text.size());
    source.NameSize = static_cast<uint32_t>(AName.size());
    text.append(AName);
    source.AttrAt = static_cast<uint32_t>(text.size());
    source.AttrSize = static_cast<uint32_t>(AAttr.size());
    text.append(AAttr);
    source.NameId = InternNamedField(AKind, AName, AAttr);
    source.FirstPiece = static_cast<uint32_t>(APlan.NamedPieces.size());
    source.PieceCount = static_cast<uint32_t>(split.Pieces.size());
    for (const TPiece& piece : split.Pieces) {
      TNamedPiece& flat = APlan.NamedPieces.emplace_back();
      flat.Ref = piece.Ref;
      if (piece.Ref == kFixed) {
        // No entity runs into a substitution (CompilePlan checked): decoded piece by piece.
        flat.TextAt = static_cast<uint32_t>(text.size());
        AppendXmlUnescaped(text, piece.Text);
        flat.TextSize = static_cast<uint32_t>(text.size() - flat.TextAt);
      } else if (APlan.ExpandRefs[piece.Ref]) {
        if (split.Pieces.size() != 1 || AKind != nfText) ok = false;
        source.Expand = true;
      }
    }
    const bool oneValue = split.Pieces.size() == 1 && split.Pieces[0].Ref != kFixed;
    if (AKind != nfText && oneValue) {
      const TRef& ref = APlan.Refs[split.Pieces[0].Ref];
      const TBXmlOp& o = AFragments[ref.Fragment].Template->Ops[ref.Op];
      source.OptionalAttribute = o.Optional && o.Attribute;
    }
    if (oneValue && !source.Expand && !source.OptionalAttribute)
      for (uint32_t f = 0; f < rfBinaryData && source.SystemField < 0; ++f) {
        const std::vector<TPiece>& pieces = APlan.System[f].Pieces;
        if (pieces.size() == 1 && pieces[0].Ref == split.Pieces[0].Ref) source.SystemField = static_cast<int8_t>(f);
      }
  });
  if (!ok) {
    APlan.Named.clear();
    APlan.NamedPieces.clear();
    APlan.NamedText.clear();
  }
  return ok;
}

// Reads the record's fragments, marked, into a plan; APlan.Ok stays false when records
// of this shape must be rendered instead. The (name, value) pairs are read only for the
// hunt's reading (ANamed).
void CompilePlan(const std::vector<TFragment>& AFragments, TPlan& APlan, bool ANamed) {
  TMarker marker{AFragments, APlan, {}, {}, {}};
  if (!marker.Write(0)) return;
  std::string& text = marker.Text;
  // The fixed text must not hold the markers' characters, character references (their
  // text may read as blank where the decoded one does not) or an entity reference that
  // a value could end.
  auto occurrences = [&](std::string_view ANeedle) {
    size_t n = 0;
    for (size_t p = text.find(ANeedle); p != std::string::npos; p = text.find(ANeedle, p + 1)) ++n;
    return n;
  };
  if (occurrences(kMarkOpen) != marker.Marks.size() || occurrences(kMarkClose) != marker.Marks.size()) return;
  if (text.find("&#") != std::string::npos) return;
  for (size_t mark : marker.Marks) {
    for (size_t back = 1; back <= 13 && back <= mark; ++back) {
      const char c = text[mark - back];
      if (c == ';') break;
      if (c == '&') return;
    }
  }
  ReplaceControlCharacters(text);
  // The record's text must split back into exactly this event, whatever the values, and
  // end with its own fixed '>'.
  const TBXmlTemplateNode* outer = AFragments[0].Template;
  if (outer->OpCount == 0 || outer->Ops[outer->OpCount - 1].TextLength == 0 || text.empty() || text.back() != '>')
    return;
  size_t opens = 0, closes = 0, open = 0, close = 0;
  if (!CountNeedle(text, marker.Spans, kEventOpen, opens, open) ||
      !CountNeedle(text, marker.Spans, kEventClose, closes, close))
    return;
  if (opens != 1 || closes != 1 || close < open) return;
  const std::string_view event = std::string_view(text).substr(open, close + kEventClose.size() - open);

  const size_t refs = APlan.Refs.size();
  TEventXmlFields system;
  ReadSystemFields(event, system);
  const std::string* fields[rfBinaryData] = {&system.ProviderName, &system.EventID,   &system.EventIDQual,
                                             &system.Version,      &system.Level,     &system.Task,
                                             &system.OpCode,       &system.Keywords,  &system.TimeCreated,
                                             &system.EventRecordID, &system.Channel, &system.Computer,
                                             &system.UserID};
  std::vector<uint32_t> uses(refs, 0);
  auto count = [&](const TSource& ASource) {
    for (const TPiece& piece : ASource.Pieces)
      if (piece.Ref != kFixed) ++uses[piece.Ref];
  };
  for (uint32_t f = 0; f < rfBinaryData; ++f) {
    if (!Split(*fields[f], refs, APlan.System[f])) return;
    count(APlan.System[f]);
  }
  TStringList values;
  std::vector<uint8_t> kinds;
  std::string_view binary;
  ReadEventDataSources(event, values, kinds, binary);
  if (kinds.size() != values.size()) return;
  if (!Split(binary, refs, APlan.Binary)) return;
  count(APlan.Binary);
  APlan.Values.resize(values.size());
  for (size_t v = 0; v < values.size(); ++v) {
    TSource& source = APlan.Values[v];
    if (!Split(values[v], refs, source)) return;
    source.Kind = kinds[v];
    count(source);
  }
  for (TSource& source : APlan.Values) {
    if (source.Kind != 2 || source.Pieces.size() != 1 || source.Pieces[0].Ref == kFixed) continue;
    const TRef& ref = APlan.Refs[source.Pieces[0].Ref];
    const TBXmlOp& o = AFragments[ref.Fragment].Template->Ops[ref.Op];
    source.OptionalAttribute = o.Optional && o.Attribute;
  }
  APlan.ExpandRefs.assign(refs, 0);
  for (TSource& source : APlan.Values) {
    if (source.Kind != 0 || source.Pieces.size() != 1 || source.Pieces[0].Ref == kFixed) continue;
    const uint32_t ref = source.Pieces[0].Ref;
    const TBXmlOp& o = AFragments[APlan.Refs[ref].Fragment].Template->Ops[APlan.Refs[ref].Op];
    if (o.Element && o.Element->Text == "Data" && !o.Attribute && uses[ref] == 1) {
      source.Expand = true;
      APlan.ExpandRefs[ref] = 1;
    }
  }
  for (uint32_t ref = 0; ref < refs; ++ref) {
    const TBXmlOp& o = AFragments[APlan.Refs[ref].Fragment].Template->Ops[APlan.Refs[ref].Op];
    if (o.Element && !APlan.ExpandRefs[ref]) APlan.RepeatRefs.push_back(ref);
  }
  APlan.RefIndex.resize(refs);
  for (uint32_t ref = 0; ref < refs; ++ref)
    APlan.RefIndex[ref] = AFragments[APlan.Refs[ref].Fragment].Template->Ops[APlan.Refs[ref].Op].Index;
  APlan.Ok = true;
  APlan.NamedOk = ANamed && CompileNamed(AFragments, event, APlan);
}

// The plans of the reading threads, kept from chunk to chunk: a log's chunks repeat the
// same few templates. A template is known by its compiled program (text, ops and the
// names they write), which is all a plan depends on; a record's shape is the programs of
// its fragments and where each is embedded (and whether the pairs are read). Shared by
// the threads (a plan is made once for all of them), under Lock. Bounded: emptied when
// it grows too large.
struct TPlanCache {
  std::mutex Lock;
  std::unordered_map<std::string, uint32_t> Programs; // program → its number
  std::unordered_map<std::string, std::shared_ptr<const TPlan>> Plans; // shape → plan
  size_t Bytes = 0;
  // Numbers are never given twice, not even after Trim: a shape that a thread still
  // makes of numbers from before it cannot name another program's plan.
  uint32_t NextProgram = 0;
  static constexpr size_t kMaxBytes = 32 * 1024 * 1024;
  static constexpr size_t kMaxEntries = 20000;

  void Trim() {
    if (Bytes <= kMaxBytes && Programs.size() <= kMaxEntries && Plans.size() <= kMaxEntries) return;
    Programs.clear();
    Plans.clear();
    Bytes = 0;
  }
};
TPlanCache GPlanCache;

// Appends the bytes of a plain value.
template <typename T> void Put(std::string& AOut, const T& AValue) {
  AOut.append(reinterpret_cast<const char*>(&AValue), sizeof AValue);
}

// The number of ATemplate's program in the cache.
uint32_t ProgramNumber(const TBXmlTemplateNode* ATemplate, std::string& AScratch) {
  // Each op as one fixed-size record (no padding, so its bytes are its fields), the
  // names it writes after it.
  struct TOpKey {
    uint32_t TextOffset, TextLength, StartTagOffset, AttributeSize, ElementSize;
    uint16_t Index;
    uint8_t Type, Optional;
  };
  static_assert(sizeof(TOpKey) == 24);
  AScratch.clear();
  Put(AScratch, ATemplate->OpCount);
  for (uint32_t i = 0; i < ATemplate->OpCount; ++i) {
    const TBXmlOp& op = ATemplate->Ops[i];
    const TOpKey key{op.TextOffset,
                     op.TextLength,
                     op.StartTagOffset,
                     op.Attribute ? static_cast<uint32_t>(op.Attribute->Text.size()) : 0xFFFFFFFF,
                     op.Element ? static_cast<uint32_t>(op.Element->Text.size()) : 0xFFFFFFFF,
                     op.Index,
                     op.Type,
                     static_cast<uint8_t>(op.Optional)};
    Put(AScratch, key);
    if (op.Attribute) AScratch.append(op.Attribute->Text);
    if (op.Element) AScratch.append(op.Element->Text);
  }
  AScratch.append(ATemplate->ProgramText);
  const std::lock_guard<std::mutex> lock(GPlanCache.Lock);
  auto [it, added] = GPlanCache.Programs.emplace(AScratch, GPlanCache.NextProgram);
  if (added) {
    GPlanCache.Bytes += AScratch.size() + 64;
    ++GPlanCache.NextProgram;
  }
  return it->second;
}

// The last value each system field was made of alone (one substitution, no fixed text)
// in the chunk being read, and the slot of Fields that holds its text: most events of a
// chunk repeat their provider, level, task, keywords, computer and user, whose text is
// then copied instead of made again. AppendValue's text depends on the value's type and
// bytes only. Valid for one chunk's bytes (emptied with each chunk).
struct TSystemMemo {
  const uint8_t* Data = nullptr;
  uint32_t Size = 0;
  uint32_t Slot = 0;
  uint8_t Type = 0;
  bool Set = false;
};
using TSystemMemos = std::array<TSystemMemo, rfBinaryData>;

// What a reading thread keeps from chunk to chunk: the room the values are written in.
struct TReaderRoom {
  std::unordered_map<const TBXmlTemplateNode*, uint32_t> Numbers; // of the chunk's programs
  // Per template of the chunk, its substitution ops (their numbers and value indexes, in
  // SubstOps) and the highest index they read: a record's walk looks at those alone, not
  // at every op of the program.
  struct TSubstOp {
    uint32_t Op;
    uint32_t Index;
  };
  struct TSubstRange {
    uint32_t First = 0, Count = 0;
    uint32_t End = 0; // the highest index read, plus one (0: none)
  };
  std::unordered_map<const TBXmlTemplateNode*, TSubstRange> SubstRanges;
  std::vector<TSubstOp> SubstOps;
  // The last template looked up at each level of nesting (a record's own and the one it
  // embeds take turns), reset with each chunk.
  static constexpr uint32_t kLastLevels = 4;
  std::array<const TBXmlTemplateNode*, kLastLevels> LastSubstTemplates{};
  std::array<TSubstRange, kLastLevels> LastSubstRanges{};
  std::string Scratch;
  std::vector<TFragment> Fragments;
  std::string Key;
  std::string Value; // a value's XML text
  std::string Xml;
  std::vector<uint8_t> Failed;
  std::unordered_map<const TPlan*, uint32_t> PlanIndex; // the chunk's plans: their index in its result
  // The program numbers of the templates last met at each place of a record's fragment
  // list, and the plans of the last few shapes (their keys are program numbers, never
  // given twice): records of a few shapes take turns. Reset with each chunk.
  std::array<const TBXmlTemplateNode*, kLastLevels> LastTemplates{};
  std::array<uint32_t, kLastLevels> LastNumbers{};
  struct TShape {
    std::string Key;
    std::shared_ptr<const TPlan> Plan;
  };
  std::array<TShape, 8> Shapes;
  uint32_t ShapeNext = 0;
  TSystemMemos SystemMemos; // of the chunk being read
};

// Per chunk.
struct TReaderState {
  TEvtxChunk& Chunk;
  TChunkResult& Result;
  TReaderRoom& Room;
  uint32_t Used = 0; // slots of Result.Fields in use
  std::unordered_map<const TBXmlTemplateNode*, uint32_t>& Numbers = Room.Numbers;
  std::string& Scratch = Room.Scratch;
  std::vector<TFragment>& Fragments = Room.Fragments;
  std::string& Key = Room.Key;
  std::string& Value = Room.Value;
  std::unordered_map<const TPlan*, uint32_t>& PlanIndex = Room.PlanIndex;
  uint32_t LastPlan = 0;
  bool Named = false; // the hunt's reading: (name, value) pairs, the XML of the others

  std::string& Slot() {
    if (Used < Result.Fields.size()) {
      std::string& s = Result.Fields[Used++];
      s.clear();
      return s;
    }
    ++Used;
    return Result.Fields.emplace_back();
  }

  const TBXmlSubstValue& ValueOf(const TPlan& APlan, uint32_t ARef) const {
    const TRef& ref = APlan.Refs[ARef];
    const TFragment& f = Fragments[ref.Fragment];
    return f.Array->Values[f.Template->Ops[ref.Op].Index];
  }
};

// Where the values of an event's fields lie: the chunk's bytes, and per ref of its plan
// the value's offset, size and type packed as TChunkResult::Values holds them.
struct TValueSet {
  const uint8_t* Data;
  const uint64_t* Refs;
  std::string& Scratch;

  TBXmlSubstValue Value(uint32_t ARef) const {
    const uint64_t v = Refs[ARef];
    return {static_cast<uint32_t>(v & 0xFFFF), static_cast<uint16_t>((v >> 16) & 0xFFFF),
            static_cast<uint8_t>(v >> 32), nullptr};
  }
};

inline uint64_t PackValue(const TBXmlSubstValue& AValue) {
  return (AValue.Offset & 0xFFFF) | uint64_t{AValue.Size} << 16 | uint64_t{AValue.Type} << 32;
}

// Renders a value's XML text into AOut (control characters replaced as in the chunk's text).
inline void RenderValue(const TValueSet& AValues, const TBXmlSubstValue& AValue, std::string& AOut) {
  AOut.clear();
  AppendVariantXml(AOut, AValue.Type, AValues.Data + AValue.Offset, AValue.Size, kVarModeSubstitution);
  ReplaceControlCharacters(AOut);
}

// Appends a value's text as the readers take it out of the XML: its XML text with
// control characters replaced, entities decoded. A string goes there at once: escaping
// and decoding cancel out, and its NULs (which the XML text leaves out) are dropped.
// Whether any of ASize bytes at AText is below 0x20, eight at a time: a word has such a
// byte exactly when subtracting 0x20 from each byte borrows into the top bit of one that
// had it clear.
inline bool HasControlByte(const char* AText, size_t ASize) {
  constexpr uint64_t kOnes = 0x0101010101010101ull, kTops = 0x8080808080808080ull;
  size_t i = 0;
  for (; i + 8 <= ASize; i += 8) {
    uint64_t word;
    std::memcpy(&word, AText + i, 8);
    if ((word - kOnes * 0x20) & ~word & kTops) return true;
  }
  for (; i < ASize; ++i)
    if (static_cast<unsigned char>(AText[i]) < 0x20) return true;
  return false;
}

void AppendValue(const TValueSet& AValues, const TBXmlSubstValue& AValue, std::string& AOut) {
  const uint8_t* data = AValues.Data + AValue.Offset;
  std::string& text = AValues.Scratch;
  switch (AValue.Type) {
  case 0x01: {
    // Converted at the end of AOut, then mended there in the rare case that it holds
    // control characters.
    const size_t at = AOut.size();
    AppendUtf16(AOut, data, AValue.Size / 2);
    if (!HasControlByte(AOut.data() + at, AOut.size() - at)) return;
    // UTF-8 puts no byte below 0x80 inside a sequence: each one is a character.
    size_t w = at;
    for (size_t i = at; i < AOut.size(); ++i) {
      const char c = AOut[i];
      const auto u = static_cast<unsigned char>(c);
      if (u == 0) continue;
      AOut[w++] = u < 0x20 && u != '\t' && u != '\n' && u != '\r' ? ' ' : c;
    }
    AOut.resize(w);
    return;
  }
  case 0x02: {
    // An ANSI string: its XML text decoded is its bytes, NULs dropped, control characters
    // replaced and the upper half read as code page 1252, made here in one pass.
    const uint8_t* const end = data + AValue.Size;
    for (const uint8_t* p = data; p < end;) {
      const uint8_t* run = p;
      while (run < end && *run >= 0x20 && *run < 0x80) ++run;
      if (run != p) {
        AOut.append(reinterpret_cast<const char*>(p), static_cast<size_t>(run - p));
        p = run;
        if (p == end) break;
      }
      const uint8_t b = *p++;
      if (b == 0) continue;
      if (b >= 0x80) AppendCp1252(AOut, &b, 1);
      else AOut += b == '\t' || b == '\n' || b == '\r' ? static_cast<char>(b) : ' ';
    }
    return;
  }
  case 0x81:
    break;
  default:
    // Numbers, times, identifiers, hexadecimal: text without entities or control
    // characters (arrays of them are separated by CR LF, which stay).
    AppendVariantXml(AOut, AValue.Type, data, AValue.Size, kVarModeSubstitution);
    return;
  }
  RenderValue(AValues, AValue, text);
  for (const char c : text) {
    if (c == '&' || static_cast<unsigned char>(c) < 0x20) {
      AppendXmlUnescaped(AOut, text);
      return;
    }
  }
  AOut.append(text);
}

void AppendSource(const TValueSet& AValues, const TSource& ASource, std::string& AOut) {
  for (const TPiece& piece : ASource.Pieces) {
    if (piece.Ref == kFixed) AOut.append(piece.Text);
    else AppendValue(AValues, AValues.Value(piece.Ref), AOut);
  }
}

// Makes an event's system fields (AFields[AFirst + rfProviderName .. rfUserID]) and the
// bytes of its <Binary> (AFields[AFirst + rfBinaryData]) from its plan and values.
void MakeSystemFields(const TPlan& APlan, const TValueSet& AValues, std::vector<std::string>& AFields, uint32_t AFirst,
                      TSystemMemos& AMemos) {
  for (uint32_t f = 0; f < rfBinaryData; ++f) {
    std::string& out = AFields[AFirst + f];
    out.clear();
    const std::vector<TPiece>& pieces = APlan.System[f].Pieces;
    if (pieces.size() != 1 || pieces[0].Ref == kFixed) {
      AppendSource(AValues, APlan.System[f], out);
      continue;
    }
    const TBXmlSubstValue v = AValues.Value(pieces[0].Ref);
    const uint8_t* data = AValues.Data + v.Offset;
    TSystemMemo& memo = AMemos[f];
    if (memo.Set && memo.Type == v.Type && memo.Size == v.Size && SameBytes(memo.Data, data, v.Size)) {
      out.assign(AFields[memo.Slot]);
      continue;
    }
    AppendValue(AValues, v, out);
    memo = {data, v.Size, AFirst + f, v.Type, true};
  }
  std::string& binary = AFields[AFirst + rfBinaryData];
  binary.clear();
  if (!APlan.Binary.Pieces.empty()) {
    static thread_local std::string hex;
    hex.clear();
    for (const TPiece& piece : APlan.Binary.Pieces) {
      if (piece.Ref == kFixed) {
        hex.append(piece.Text);
      } else {
        RenderValue(AValues, AValues.Value(piece.Ref), AValues.Scratch);
        hex.append(AValues.Scratch);
      }
    }
    DecodeBinaryText(hex, binary);
  }
}

// Hands each item of the array value AValue to AEach, as its text (escaped as in XML); an
// empty array gives one empty item.
template <typename F> void ForEachArrayItem(const TValueSet& AValues, const TBXmlSubstValue& AValue, F&& AEach) {
  std::string& items = AValues.Scratch;
  items.clear();
  AppendVariantArrayItems(items, AValue.Type, AValues.Data + AValue.Offset, AValue.Size, "<");
  ReplaceControlCharacters(items);
  size_t pos = 0;
  for (;;) {
    const size_t end = items.find('<', pos);
    AEach(std::string_view(items).substr(pos, end == std::string::npos ? std::string::npos : end - pos));
    if (end == std::string::npos) break;
    pos = end + 1;
  }
}

// Makes an event's data values from its plan and values, one after the other, into
// ASink: Begin() gives the string a value is appended to, End(AKeep) ends it (dropped
// unless AKeep). Direct(AValues, AValue, AKind) may write a value that is one whole
// substitution on its own and return true; else the value is made here.
template <typename TSink> void MakeDataValuesInto(const TPlan& APlan, const TValueSet& AValues, TSink& ASink) {
  for (const TSource& source : APlan.Values) {
    if (source.Expand) {
      const TBXmlSubstValue v = AValues.Value(source.Pieces[0].Ref);
      if (IsArrayCode(v.Type)) {
        if (ASink.DirectArray(AValues, v)) continue;
        // Each item is a <Data> of its own; no item at all leaves one empty element.
        ForEachArrayItem(AValues, v, [&](std::string_view AItem) {
          AppendXmlUnescaped(ASink.Begin(), AItem);
          ASink.End(true);
        });
        continue;
      }
    }
    const bool single = source.Pieces.size() == 1 && source.Pieces[0].Ref != kFixed;
    if (source.Kind == 2 && single && source.OptionalAttribute) {
      // An empty optional value leaves its attribute out.
      const TBXmlSubstValue v = AValues.Value(source.Pieces[0].Ref);
      std::string& text = AValues.Scratch;
      RenderValue(AValues, v, text);
      if (text.empty()) continue;
      AppendXmlUnescaped(ASink.Begin(), text);
      ASink.End(true);
      continue;
    }
    if (single && ASink.Direct(AValues, AValues.Value(source.Pieces[0].Ref), source.Kind)) continue;
    std::string& value = ASink.Begin();
    AppendSource(AValues, source, value);
    ASink.End(source.Kind != 1 || !IsBlank(value)); // a blank text is no value
  }
}

// The values as a list (AFields.Strings).
struct TListSink {
  TStringList& Values;
  size_t Count = 0;
  std::string& Begin() { return NextListValue(Values, Count); }
  void End(bool AKeep) {
    if (!AKeep) --Count;
  }
  static bool Direct(const TValueSet&, const TBXmlSubstValue&, uint8_t) { return false; }
  static bool DirectArray(const TValueSet&, const TBXmlSubstValue&) { return false; }
};

// Makes an event's data values from its plan and values into AFields.Strings.
void MakeDataValues(const TPlan& APlan, const TValueSet& AValues, TEventXmlFields& AFields) {
  TListSink sink{AFields.Strings};
  MakeDataValuesInto(APlan, AValues, sink);
  AFields.Strings.resize(sink.Count);
}

// The code point of UTF-16 at unit AIndex (advanced past the units it used); a lone
// surrogate reads as U+FFFD, as AppendUtf16 reads it.
inline uint32_t NextUtf16CodePoint(const uint8_t* AData, size_t ACount, size_t& AIndex) {
  auto unit = [AData](size_t AAt) {
    return static_cast<uint32_t>(AData[2 * AAt]) | static_cast<uint32_t>(AData[2 * AAt + 1]) << 8;
  };
  const uint32_t u = unit(AIndex++);
  if (u < 0xD800 || u > 0xDFFF) return u;
  if (u <= 0xDBFF && AIndex < ACount) {
    const uint32_t low = unit(AIndex);
    if (low >= 0xDC00 && low <= 0xDFFF) {
      ++AIndex;
      return 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00);
    }
  }
  return 0xFFFD;
}

// Writes code point AChar (0x80 or above) as UTF-8 at ADest; returns the end.
inline char* PutUtf8(char* ADest, uint32_t AChar) {
  if (AChar < 0x800) {
    ADest[0] = static_cast<char>(0xC0 | (AChar >> 6));
    ADest[1] = static_cast<char>(0x80 | (AChar & 0x3F));
    return ADest + 2;
  }
  if (AChar < 0x10000) {
    ADest[0] = static_cast<char>(0xE0 | (AChar >> 12));
    ADest[1] = static_cast<char>(0x80 | ((AChar >> 6) & 0x3F));
    ADest[2] = static_cast<char>(0x80 | (AChar & 0x3F));
    return ADest + 3;
  }
  ADest[0] = static_cast<char>(0xF0 | (AChar >> 18));
  ADest[1] = static_cast<char>(0x80 | ((AChar >> 12) & 0x3F));
  ADest[2] = static_cast<char>(0x80 | ((AChar >> 6) & 0x3F));
  ADest[3] = static_cast<char>(0x80 | (AChar & 0x3F));
  return ADest + 4;
}

#if defined(__SSE2__)
// How many of the 8 units at AUnits, from the first, are plain ASCII for a JSON string
// (0x20 .. 0x7F but '"' and '\\'); the low bytes of all 8 are stored at ADest (those past
// the plain ones are written over or left past the end).
inline unsigned PutPlainJsonBlock(const uint8_t* AUnits, char* ADest) {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(AUnits));
  // A unit of 0x8000 or above compares below 0x20.
  __m128i bad = _mm_cmplt_epi16(v, _mm_set1_epi16(0x20));
  bad = _mm_or_si128(bad, _mm_cmpgt_epi16(v, _mm_set1_epi16(0x7F)));
  bad = _mm_or_si128(bad, _mm_cmpeq_epi16(v, _mm_set1_epi16('"')));
  bad = _mm_or_si128(bad, _mm_cmpeq_epi16(v, _mm_set1_epi16('\\')));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(ADest), _mm_packus_epi16(v, v));
  const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(bad));
  return mask ? static_cast<unsigned>(__builtin_ctz(mask)) / 2 : 8;
}
#endif

// Writes the JSON string of ACount UTF-16 units at AData to ADest, which has room for
// 3 * ACount + 10 bytes; returns the end of what it wrote.
char* PutUtf16Json(char* ADest, const uint8_t* AData, size_t ACount) {
  // Most strings end with a NUL, which is dropped: the units before it may end in a block.
  while (ACount > 0 && AData[2 * ACount - 2] == 0 && AData[2 * ACount - 1] == 0) --ACount;
  char* d = ADest;
  *d++ = '"';
  size_t i = 0;
  while (i < ACount) {
#if defined(__SSE2__)
    // The plain units before the first that is not go at once; that one is written
    // below. (Each unit written so far took at most 3 bytes: the 8 stored fit.)
    if (ACount - i >= 8) {
      const unsigned plain = PutPlainJsonBlock(AData + 2 * i, d);
      d += plain;
      i += plain;
      if (plain == 8) continue;
    } else if (static_cast<size_t>(d - ADest) == i + 1) {
      // The last few units, all before them written a byte each: a block padded with
      // plain units (8 bytes are stored; the room allows for it).
      uint8_t tail[16];
      for (size_t k = 0; k < 8; ++k) tail[2 * k] = 'a', tail[2 * k + 1] = 0;
      std::memcpy(tail, AData + 2 * i, 2 * (ACount - i));
      const unsigned plain = PutPlainJsonBlock(tail, d);
      if (plain >= ACount - i) {
        d += ACount - i;
        break;
      }
      d += plain;
      i += plain;
    }
#endif
    const uint32_t u = static_cast<uint32_t>(AData[2 * i]) | static_cast<uint32_t>(AData[2 * i + 1]) << 8;
    if (u >= 0x80) {
      d = PutUtf8(d, NextUtf16CodePoint(AData, ACount, i));
      continue;
    }
    ++i;
    if (u >= 0x20) {
      if (u == '"' || u == '\\') *d++ = '\\';
      *d++ = static_cast<char>(u);
      continue;
    }
    switch (u) {
    case 0: break;
    case '\t': *d++ = '\\', *d++ = 't'; break;
    case '\n': *d++ = '\\', *d++ = 'n'; break;
    case '\r': *d++ = '\\', *d++ = 'r'; break;
    default: *d++ = ' ';
    }
  }
  *d++ = '"';
  return d;
}

// Appends the JSON string of a string value (type 0x01, ACount UTF-16 units at AData):
// the same text as AppendJsonString of what AppendValue makes of it (NULs dropped, other
// control characters but tab, line feed and carriage return made spaces), in one pass.
void AppendUtf16Json(std::string& AOut, const uint8_t* AData, size_t ACount, bool AComma = false) {
  // At most 3 bytes a unit (an escape takes 2; a pair of units 4), the quotes and the
  // last block's spare bytes.
  // A short string is made on the stack and appended: growing AOut to the bound first
  // would clear those bytes, which costs more than the copy.
  if (ACount <= 256) {
    char text[3 * 256 + 11];
    text[0] = ',';
    char* const from = AComma ? text + 1 : text;
    AOut.append(text, static_cast<size_t>(PutUtf16Json(from, AData, ACount) - text));
    return;
  }
  if (AComma) AOut += ',';
  const size_t start = AOut.size();
  AOut.resize(start + 3 * ACount + 10);
  char* const base = AOut.data() + start;
  AOut.resize(start + static_cast<size_t>(PutUtf16Json(base, AData, ACount) - base));
}

// The values as JSON strings separated by ',', each written straight into Out.
struct TJsonSink {
  std::string& Out;
  std::string& Value;
  bool First = true;
  std::string& Begin() {
    Value.clear();
    return Value;
  }
  void End(bool AKeep) {
    if (!AKeep) return;
    if (!First) Out += ',';
    First = false;
    AppendJsonString(Out, Value);
  }
  bool Direct(const TValueSet& AValues, const TBXmlSubstValue& AValue, uint8_t AKind) {
    if (AValue.Type != 0x01) return DirectPlain(AValues, AValue, AKind);
    const size_t mark = Out.size();
    const size_t at = First ? mark : mark + 1; // where the string begins
    AppendUtf16Json(Out, AValues.Data + AValue.Offset, AValue.Size / 2, !First);
    if (AKind == 1 && IsBlankJson(std::string_view(Out).substr(at + 1, Out.size() - at - 2))) {
      Out.resize(mark); // a blank text is no value
      return true;
    }
    First = false;
    return true;
  }
  // A string array repeated as <Data> elements: each item's JSON string straight from
  // its UTF-16 units. Its items hold no NUL (they are split at them), and the XML text
  // that ForEachArrayItem cuts and decodes again is the item with control characters
  // replaced, which is what AppendUtf16Json writes. No item at all is one empty value.
  bool DirectArray(const TValueSet& AValues, const TBXmlSubstValue& AValue) {
    if (AValue.Type != 0x81) return false;
    const uint8_t* data = AValues.Data + AValue.Offset;
    const uint32_t units = AValue.Size / 2;
    auto put = [&](uint32_t AFrom, uint32_t ATo) {
      AppendUtf16Json(Out, data + 2 * size_t{AFrom}, ATo - AFrom, !First);
      First = false;
    };
    uint32_t start = 0, items = 0;
    // As variant_types' ForEachArrayItem: a last string without its NUL still counts, an
    // empty tail after the last NUL does not.
    for (uint32_t i = 0; i <= units; ++i) {
      if (i < units && (data[2 * i] | data[2 * i + 1]) != 0) continue;
      if (i == units && start == units) break;
      put(start, i);
      ++items;
      start = i + 1;
    }
    if (!items) put(0, 0);
    return true;
  }
  // Numbers, times, GUIDs, SIDs and hexadecimal: their text (digits, letters and
  // "{}-+.:") needs no escape and is never blank (nor empty: the check is a guard).
  bool DirectPlain(const TValueSet& AValues, const TBXmlSubstValue& AValue, uint8_t AKind) {
    const uint8_t t = AValue.Type;
    if (!((t >= 0x03 && t <= 0x0D) || t == 0x0F || (t >= 0x11 && t <= 0x15))) return false;
    const size_t mark = Out.size();
    Out.append(First ? "\"" : ",\"", First ? 1 : 2);
    const size_t at = Out.size();
    AppendVariantXml(Out, t, AValues.Data + AValue.Offset, AValue.Size, kVarModeSubstitution);
    if (AKind == 1 && Out.size() == at) {
      Out.resize(mark); // an empty text is no value
      return true;
    }
    Out += '"';
    First = false;
    return true;
  }
  // Whether a JSON string's text holds only blanks (spaces and escaped tabs and line ends).
  static bool IsBlankJson(std::string_view AText) {
    for (size_t i = 0; i < AText.size(); ++i) {
      if (AText[i] == ' ') continue;
      if (AText[i] != '\\' || i + 1 >= AText.size()) return false;
      const char c = AText[++i];
      if (c != 't' && c != 'n' && c != 'r') return false;
    }
    return true;
  }
};

// The values separated by '\n', as they are.
struct TJoinSink {
  std::string& Out;
  std::string& Value;
  bool First = true;
  std::string& Begin() {
    Value.clear();
    return Value;
  }
  void End(bool AKeep) {
    if (!AKeep) return;
    if (!First) Out += '\n';
    First = false;
    Out += Value;
  }
  static bool Direct(const TValueSet&, const TBXmlSubstValue&, uint8_t) { return false; }
  static bool DirectArray(const TValueSet&, const TBXmlSubstValue&) { return false; }
};

// Makes an event's (name, value) pairs from its plan and values into AOut (ASystem: its
// system fields, rfProviderName .. rfUserID, made from the same values).
// The most bytes AppendValue's text of a value of type AType and ASize bytes takes, for
// the types whose text may be made later: numbers, times, GUIDs, SIDs, hexadecimal and
// binary (NarrowTextChars: a search for text can often tell without making it); 0 for the
// others (strings are mostly read anyway).
inline uint32_t DeferredBound(uint8_t AType, uint32_t ASize) { return NarrowTextChars(AType) ? ASize * 4 + 64 : 0; }

// Whether the text of a value is never empty: a number, time, GUID, SID or boolean, or
// binary data of at least a byte.
inline bool TextNeverEmpty(uint8_t AType, uint32_t ASize) {
  const char* const chars = NarrowTextChars(AType);
  return chars && *chars && (AType != 0x0E || ASize > 0);
}

// Makes the value of source ANumber of a plan (TNamedValues::TMaker of MakeNamedValues).
void MakeDeferred(const TNamedValues::TMaker& AMaker, uint32_t ANumber, std::string& AOut) {
  static thread_local std::string scratch;
  const auto& plan = *static_cast<const TPlan*>(AMaker.Context);
  const TValueSet values{AMaker.Data, AMaker.Refs, scratch};
  AppendValue(values, values.Value(plan.NamedPieces[plan.Named[ANumber].FirstPiece].Ref), AOut);
}

// With ALazy, the values that are one substitution of a type DeferredBound allows are not
// made: their items are deferred, and made from AValues' data when asked for (an optional
// attribute only when its text cannot be empty).
void MakeNamedValues(const TPlan& APlan, const TValueSet& AValues, const std::string* ASystem, bool AViewSystem,
                     TNamedValues& AOut, bool ALazy = false) {
  AOut.Clear();
  // The shape: the plan, and which of its optional attributes are left out (up to 64 of
  // them; arrays repeated as elements give no shape).
  TNamedValues::TShape shape{APlan.Serial, 0};
  uint32_t optional = 0;
  if (ALazy) AOut.SetMaker({MakeDeferred, &APlan, AValues.Data, AValues.Refs});
  const char* const text = APlan.NamedText.data();
  for (const TNamedSource& source : APlan.Named) {
    const std::string_view name(text + source.NameAt, source.NameSize);
    const std::string_view attr(text + source.AttrAt, source.AttrSize);
    const TNamedPiece* const pieces = APlan.NamedPieces.data() + source.FirstPiece;
    if (source.SystemField >= 0) {
      // The same value's text, made already (AppendSource of the one value).
      if (AViewSystem) {
        AOut.AddView(source.Kind, name, attr, source.NameId, ASystem[source.SystemField]);
        continue;
      }
      AOut.Begin(source.Kind, name, attr, source.NameId);
      AOut.Text().append(ASystem[source.SystemField]);
      AOut.End();
      continue;
    }
    if (source.Expand) {
      const TBXmlSubstValue v = AValues.Value(pieces[0].Ref);
      if (IsArrayCode(v.Type)) {
        // Each item is a <Data> of its own; no item at all leaves one empty element.
        shape.Form = 0;
        ForEachArrayItem(AValues, v, [&](std::string_view AItem) {
          AOut.Begin(source.Kind, name, attr, source.NameId);
          AppendXmlUnescaped(AOut.Text(), AItem);
          AOut.End();
        });
        continue;
      }
    }
    if (ALazy && source.PieceCount == 1 && pieces[0].Ref != kFixed) {
      // (An optional attribute only when its text cannot be empty: it is there.)
      const TBXmlSubstValue v = AValues.Value(pieces[0].Ref);
      const uint32_t bound = DeferredBound(v.Type, v.Size);
      if (bound && (!source.OptionalAttribute || TextNeverEmpty(v.Type, v.Size))) {
        AOut.AddDeferred(source.Kind, name, attr, source.NameId, static_cast<uint32_t>(&source - APlan.Named.data()),
                         v.Type, bound);
        optional += source.OptionalAttribute; // (there: not left out)
        continue;
      }
    }
    if (source.OptionalAttribute) {
      // An empty optional value leaves its attribute out. AppendValue gives the value's
      // XML text decoded, which is empty exactly when that text is: made in place.
      AOut.Begin(source.Kind, name, attr, source.NameId);
      const size_t at = AOut.Text().size();
      AppendValue(AValues, AValues.Value(pieces[0].Ref), AOut.Text());
      if (AOut.Text().size() == at) {
        AOut.Drop();
        if (optional < 64) shape.Variant |= uint64_t{1} << optional;
        else shape.Form = 0;
      } else {
        AOut.End();
      }
      ++optional;
      continue;
    }
    AOut.Begin(source.Kind, name, attr, source.NameId);
    for (uint32_t p = 0; p < source.PieceCount; ++p) {
      const TNamedPiece& piece = pieces[p];
      if (piece.Ref == kFixed) AOut.Text().append(text + piece.TextAt, piece.TextSize);
      else AppendValue(AValues, AValues.Value(piece.Ref), AOut.Text());
    }
    AOut.End();
  }
  AOut.SetShape(shape);
}

// The template instance a root renders: its last child, after fragment headers only.
// Null when the root renders anything else, or has no values to fill it.
TBXmlTemplateNode* SoleInstance(TEvtxChunk& AChunk, const TBXmlRootNode* ARoot) {
  const TBXmlNodeCommon* last = ARoot->LastChild;
  if (!last || last->Kind != TBXmlKind::bkChild0C || !ARoot->Array) return nullptr;
  for (const TBXmlNodeCommon* n = ARoot->FirstChild; n != last; n = n->Next)
    if (n->Kind != TBXmlKind::bkChild0F) return nullptr;
  TBXmlTemplateNode* t = static_cast<const TBXmlChild0CNode*>(last)->Template;
  return t && CompileTemplateProgram(AChunk, t) ? t : nullptr;
}

constexpr uint32_t kMaxFragments = 64;
constexpr int kMaxLevel = 8;

// Lists the fragments the render meets from fragment AFragment on, in its order, and
// checks its values as the render would meet them: false at the first that the render
// would raise at or that this reader does not follow (embedded fragments are prepared
// here, as the render prepares them; one that raises is left unprepared again).
// Where ATemplate's substitution ops lie in ARoom.SubstOps.
TReaderRoom::TSubstRange SubstRange(TReaderRoom& ARoom, const TBXmlTemplateNode* ATemplate, int ALevel) {
  const uint32_t level = static_cast<uint32_t>(ALevel) % TReaderRoom::kLastLevels;
  if (ATemplate == ARoom.LastSubstTemplates[level]) return ARoom.LastSubstRanges[level];
  auto found = ARoom.SubstRanges.find(ATemplate);
  if (found == ARoom.SubstRanges.end()) {
    TReaderRoom::TSubstRange range;
    range.First = static_cast<uint32_t>(ARoom.SubstOps.size());
    for (uint32_t i = 0; i < ATemplate->OpCount; ++i) {
      const TBXmlOp& op = ATemplate->Ops[i];
      if (op.TextLength) continue;
      ARoom.SubstOps.push_back({i, op.Index});
      range.End = std::max<uint32_t>(range.End, uint32_t{op.Index} + 1);
    }
    range.Count = static_cast<uint32_t>(ARoom.SubstOps.size()) - range.First;
    found = ARoom.SubstRanges.emplace(ATemplate, range).first;
  }
  ARoom.LastSubstTemplates[level] = ATemplate;
  ARoom.LastSubstRanges[level] = found->second;
  return found->second;
}

bool WalkFragment(TReaderState& R, uint32_t AFragment, int ALevel) {
  const TBXmlTemplateNode* t = R.Fragments[AFragment].Template;
  const TBXmlSubstArrayNode* array = R.Fragments[AFragment].Array;
  const TReaderRoom::TSubstRange range = SubstRange(R.Room, t, ALevel);
  // An index past the array stops the walk at its op (the fragments before it prepared
  // as before); most arrays hold every index their ops read, checked once.
  const bool allIn = range.End <= array->Count;
  const TReaderRoom::TSubstOp* ops = R.Room.SubstOps.data() + range.First;
  if (!array->NestedCount) {
    // No value embeds a fragment: the walk stops only at an index past the array.
    if (allIn) return true;
    for (uint32_t k = 0; k < range.Count; ++k)
      if (ops[k].Index >= array->Count) return false;
    return true;
  }
  for (uint32_t k = 0; k < range.Count; ++k) {
    if (!allIn && ops[k].Index >= array->Count) return false;
    TBXmlSubstValue& v = array->Values[ops[k].Index];
    if (v.Type != 0x21 || !v.Size) continue;
    const uint32_t i = ops[k].Op;
    const TBXmlOp& op = t->Ops[i];
    if (op.Attribute || ALevel >= kMaxLevel || R.Fragments.size() >= kMaxFragments) return false;
    if (!v.Nested) {
      v.Nested = CreateRootNode(R.Chunk, v.Offset, v.Size);
      try {
        PrepareRootNode(R.Chunk, v.Nested, 2 * (ALevel + 1));
      } catch (const EBinXMLLogReadingException&) {
        v.Nested = nullptr; // the render meets the fault afresh
        return false;
      }
    }
    if (!v.Nested->Valid) return false;
    const TBXmlTemplateNode* nested = SoleInstance(R.Chunk, v.Nested);
    if (!nested) return false;
    R.Fragments.push_back({nested, v.Nested->Array, AFragment, i});
    if (!WalkFragment(R, static_cast<uint32_t>(R.Fragments.size() - 1), ALevel + 1)) return false;
  }
  return true;
}

// The fields of a record whose root is one template instance with a compiled program;
// false (nothing written) when the record must be rendered instead.
bool ReadDirect(TReaderState& R, TBXmlRootNode* ARoot) {
  const TBXmlTemplateNode* t = SoleInstance(R.Chunk, ARoot);
  if (!t) return false;
  R.Fragments.clear();
  R.Fragments.push_back({t, ARoot->Array, 0, 0});
  if (!WalkFragment(R, 0, 0)) return false;
  R.Key.clear();
  Put(R.Key, R.Named);
  for (size_t k = 0; k < R.Fragments.size(); ++k) {
    const TFragment& f = R.Fragments[k];
    const size_t place = k % TReaderRoom::kLastLevels;
    if (f.Template != R.Room.LastTemplates[place]) {
      auto number = R.Numbers.find(f.Template);
      if (number == R.Numbers.end())
        number = R.Numbers.emplace(f.Template, ProgramNumber(f.Template, R.Scratch)).first;
      R.Room.LastTemplates[place] = f.Template;
      R.Room.LastNumbers[place] = number->second;
    }
    Put(R.Key, R.Room.LastNumbers[place]);
    Put(R.Key, f.Parent);
    Put(R.Key, f.ParentOp);
  }
  // Records of a few shapes tend to follow each other: their plans are tried first.
  const std::shared_ptr<const TPlan>* recent = nullptr;
  for (const TReaderRoom::TShape& shape : R.Room.Shapes)
    if (shape.Plan && shape.Key == R.Key) {
      recent = &shape.Plan;
      break;
    }
  if (!recent) {
    std::shared_ptr<const TPlan> found;
    {
      const std::lock_guard<std::mutex> lock(GPlanCache.Lock);
      if (auto known = GPlanCache.Plans.find(R.Key); known != GPlanCache.Plans.end()) found = known->second;
    }
    if (!found) {
      // Made outside the lock; a plan another thread made meanwhile for the shape is the same.
      auto compiled = std::make_shared<TPlan>();
      static std::atomic<uint64_t> serials{0};
      compiled->Serial = serials.fetch_add(1, std::memory_order_relaxed) + 1;
      CompilePlan(R.Fragments, *compiled, R.Named);
      const size_t bytes = R.Key.size() + 256 + 64 * compiled->Values.size() +
                           sizeof(TNamedSource) * compiled->Named.size() +
                           sizeof(TNamedPiece) * compiled->NamedPieces.size() + compiled->NamedText.size();
      const std::lock_guard<std::mutex> lock(GPlanCache.Lock);
      auto [it, added] = GPlanCache.Plans.emplace(R.Key, std::move(compiled));
      if (added) GPlanCache.Bytes += bytes;
      found = it->second;
    }
    TReaderRoom::TShape& shape = R.Room.Shapes[R.Room.ShapeNext];
    R.Room.ShapeNext = (R.Room.ShapeNext + 1) % static_cast<uint32_t>(R.Room.Shapes.size());
    shape.Plan = std::move(found);
    shape.Key = R.Key;
    recent = &shape.Plan;
  }
  const std::shared_ptr<const TPlan>& shared = *recent;
  const TPlan& plan = *shared;
  if (!plan.Ok || (R.Named && !plan.NamedOk)) return false;
  // An array that would repeat an element other than a <Data> of its own.
  for (const uint32_t ref : plan.RepeatRefs)
    if (IsArrayCode(R.ValueOf(plan, ref).Type)) return false;
  // The text is made by the taker of the event (MakeFields): here only where the values lie.
  TChunkResult& result = R.Result;
  if (result.Plans.empty() || result.Plans[R.LastPlan].get() != &plan) {
    auto known = R.PlanIndex.find(&plan);
    if (known == R.PlanIndex.end()) {
      known = R.PlanIndex.emplace(&plan, static_cast<uint32_t>(result.Plans.size())).first;
      result.Plans.push_back(shared);
    }
    R.LastPlan = known->second;
  }
  const uint32_t firstValue = static_cast<uint32_t>(result.Values.size());
  // A program's ops, their indexes included, are the same in every chunk (the plan's
  // key): each ref's value is read at the index the plan keeps (WalkFragment checked it).
  const size_t refCount = plan.Refs.size();
  result.Values.resize(firstValue + refCount);
  uint64_t* const packed = result.Values.data() + firstValue;
  for (size_t ref = 0; ref < refCount; ++ref)
    packed[ref] = PackValue(R.Fragments[plan.Refs[ref].Fragment].Array->Values[plan.RefIndex[ref]]);
  // The system fields are made here, the data values by the taker: the two threads
  // share the work about evenly.
  const uint32_t first = R.Used;
  // The slots are taken first (taking one may move the others); MakeSystemFields empties
  // each before it writes it.
  if (R.Result.Fields.size() < first + rfValues) R.Result.Fields.resize(first + rfValues);
  R.Used = first + rfValues;
  const TValueSet values{R.Chunk.Data(), result.Values.data() + firstValue, R.Value};
  MakeSystemFields(plan, values, result.Fields, first, R.Room.SystemMemos);
  result.RecordFields.push_back({first, rfValues, R.LastPlan, firstValue});
  return true;
}

// The fields of one rendered event, read from its XML as the source reads them.
void ReadFromXml(TReaderState& R, std::string_view AEvent) {
  static thread_local TEventXmlFields system;
  static thread_local TStringList values;
  static thread_local std::vector<uint8_t> binary;
  ReadSystemFields(AEvent, system);
  ReadEventDataValues(AEvent, values, &binary);
  const uint32_t first = R.Used;
  static_assert(rfValues == rfBinaryData + 1);
  for (std::string* s : {&system.ProviderName, &system.EventID, &system.EventIDQual, &system.Version, &system.Level,
                         &system.Task, &system.OpCode, &system.Keywords, &system.TimeCreated, &system.EventRecordID,
                         &system.Channel, &system.Computer, &system.UserID})
    R.Slot().swap(*s);
  R.Slot().assign(binary.begin(), binary.end());
  if (R.Named) R.Slot().assign(AEvent); // the hunt reads the XML itself
  else
    for (std::string& value : values) R.Slot().swap(value);
  R.Result.RecordFields.push_back({first, R.Used - first});
  ++R.Result.RecordsFromXml;
}

// Where ANeedle occurs in AText: its one position, or npos when it occurs not once.
size_t FindOnce(std::string_view AText, std::string_view ANeedle) {
  const size_t at = AText.find(ANeedle);
  if (at == std::string_view::npos || AText.find(ANeedle, at + 1) != std::string_view::npos)
    return std::string_view::npos;
  return at;
}

} // namespace

namespace {

// The names InternNamedField numbered: a table of chunks of 1024, each made once and
// never freed, read without a lock (a number is handed out only once its entry is set).
constexpr uint32_t kNameChunk = 1024;
constexpr uint32_t kMaxNameIds = 1u << 20;
std::atomic<std::atomic<const TNamedFieldName*>*> GNameChunks[kMaxNameIds / kNameChunk];

} // namespace

uint32_t InternNamedField(TNamedFieldKind AKind, std::string_view AName, std::string_view AAttr) {
  static std::mutex mutex;
  static std::unordered_map<std::string, uint32_t> ids;
  std::string key(1, static_cast<char>(AKind));
  const uint32_t nameSize = static_cast<uint32_t>(AName.size());
  key.append(reinterpret_cast<const char*>(&nameSize), sizeof nameSize);
  key.append(AName);
  key.append(AAttr);
  const std::lock_guard<std::mutex> lock(mutex);
  if (const auto found = ids.find(key); found != ids.end()) return found->second;
  if (ids.size() >= kMaxNameIds) return TNamedValues::kNoNameId;
  const uint32_t id = static_cast<uint32_t>(ids.size());
  std::atomic<const TNamedFieldName*>* chunk = GNameChunks[id / kNameChunk].load(std::memory_order_relaxed);
  if (!chunk) {
    chunk = new std::atomic<const TNamedFieldName*>[kNameChunk]();
    GNameChunks[id / kNameChunk].store(chunk, std::memory_order_release);
  }
  chunk[id % kNameChunk].store(new TNamedFieldName{AKind, std::string(AName), std::string(AAttr)},
                               std::memory_order_release);
  ids.emplace(std::move(key), id);
  return id;
}

const TNamedFieldName& NamedFieldOf(uint32_t AId) {
  return *GNameChunks[AId / kNameChunk].load(std::memory_order_acquire)[AId % kNameChunk].load(
      std::memory_order_acquire);
}

void TakeRecordFields(const TChunkResult& AResult, const TChunkResult::TRecordSpan& ASpan, TEventXmlFields& AFields) {
  static thread_local std::string scratch;
  const auto& plan = *static_cast<const TPlan*>(AResult.Plans[ASpan.Plan].get());
  const TValueSet values{AResult.Bytes.data(), AResult.Values.data() + ASpan.FirstValue, scratch};
  MakeDataValues(plan, values, AFields);
}

void AppendRecordValuesJson(const TChunkResult& AResult, const TChunkResult::TRecordSpan& ASpan, std::string& AOut) {
  static thread_local std::string scratch, value;
  const auto& plan = *static_cast<const TPlan*>(AResult.Plans[ASpan.Plan].get());
  const TValueSet values{AResult.Bytes.data(), AResult.Values.data() + ASpan.FirstValue, scratch};
  TJsonSink sink{AOut, value};
  MakeDataValuesInto(plan, values, sink);
}

void AppendRecordValuesJoined(const TChunkResult& AResult, const TChunkResult::TRecordSpan& ASpan, std::string& AOut) {
  static thread_local std::string scratch, value;
  const auto& plan = *static_cast<const TPlan*>(AResult.Plans[ASpan.Plan].get());
  const TValueSet values{AResult.Bytes.data(), AResult.Values.data() + ASpan.FirstValue, scratch};
  TJoinSink sink{AOut, value};
  MakeDataValuesInto(plan, values, sink);
}

void TakeRecordNamedValues(const TChunkResult& AResult, const TChunkResult::TRecordSpan& ASpan, TNamedValues& AOut,
                           bool AViewSystem, bool ALazy) {
  static thread_local std::string scratch;
  const auto& plan = *static_cast<const TPlan*>(AResult.Plans[ASpan.Plan].get());
  const TValueSet values{AResult.Bytes.data(), AResult.Values.data() + ASpan.FirstValue, scratch};
  MakeNamedValues(plan, values, AResult.Fields.data() + ASpan.First, AViewSystem, AOut, ALazy);
}

namespace {

void ReadChunk(TEvtxChunk& AChunk, TChunkResult& AResult, bool ANamed) {
  AResult.Xml.clear();
  AResult.Issues.clear();
  AResult.RecordFields.clear();
  AResult.RecordsFromXml = 0;
  AResult.FieldsRead = true;
  {
    const std::lock_guard<std::mutex> lock(GPlanCache.Lock);
    GPlanCache.Trim();
  }
  // The room of the last chunk's reading is kept for the next one, on the same thread.
  static thread_local TReaderRoom room;
  room.Numbers.clear();
  room.SubstRanges.clear();
  room.SubstOps.clear();
  room.LastSubstTemplates = {};
  room.LastTemplates = {};
  for (TReaderRoom::TShape& shape : room.Shapes) shape.Plan = nullptr;
  room.ShapeNext = 0;
  room.PlanIndex.clear();
  room.SystemMemos = {};
  AResult.Values.clear();
  AResult.Plans.clear();
  TReaderState R{AChunk, AResult, room, 0};
  R.Named = ANamed;
  std::string& xml = room.Xml;
  std::vector<uint8_t>& failed = room.Failed; // per record: its render raised
  bool whole = false;          // the chunk must be rendered whole
  const int count = AChunk.Count();
  failed.assign(static_cast<size_t>(count), 0);
  for (int i = 0; i < count; ++i) {
    TEvtxEvent& e = *AChunk.GetEvent(i);
    if (!e.Valid() || !e.Root()) continue;
    try {
      PrepareRootNode(AChunk, e.Root());
      if (!whole && ReadDirect(R, e.Root())) continue;
      xml.clear();
      e.AppendXML(xml);
    } catch (const EBinXMLLogReadingException& ex) {
      std::string message = ex.what();
      if (!ex.Detail().empty()) message += " (" + ex.Detail() + ")";
      AResult.Issues.push_back({e.Start(), e.RecordId(), std::move(message)});
      failed[static_cast<size_t>(i)] = 1;
      continue;
    }
    if (whole) continue;
    ReplaceControlCharacters(xml);
    // The chunk's text is cut into events at "<Event xmlns" and "</Event>": a record is
    // read alone only when its text holds one of each, in order, and ends its last tag.
    const size_t open = FindOnce(xml, kEventOpen);
    const size_t close = FindOnce(xml, kEventClose);
    if (open == std::string::npos || close == std::string::npos || close < open || xml.back() != '>') {
      whole = true;
      continue;
    }
    ReadFromXml(R, std::string_view(xml).substr(open, close + kEventClose.size() - open));
  }
  if (!whole) {
    AResult.KeepBytes = !AResult.Plans.empty(); // the chunk's bytes go to the result when it ends
    return;
  }
  AResult.FieldsRead = false;
  AResult.RecordFields.clear();
  AResult.Values.clear();
  AResult.Plans.clear();
  AResult.RecordsFromXml = 0;
  for (int i = 0; i < count; ++i) {
    TEvtxEvent& e = *AChunk.GetEvent(i);
    if (!e.Valid() || !e.Root() || failed[static_cast<size_t>(i)]) continue;
    e.AppendXML(AResult.Xml); // rendered before without a fault: renders the same again
  }
  ReplaceControlCharacters(AResult.Xml);
}

} // namespace

void ReadChunkFields(TEvtxChunk& AChunk, TChunkResult& AResult) { ReadChunk(AChunk, AResult, false); }

void ReadChunkNamedFields(TEvtxChunk& AChunk, TChunkResult& AResult) { ReadChunk(AChunk, AResult, true); }

} // namespace qvx
