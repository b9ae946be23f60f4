#include "engine/evtx/binxml_nodes.h"

#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/evtx_chunk.h"
#include "engine/evtx/evtx_layout.h"
#include "engine/evtx/variant_types.h"
#include "platform/byte_reader.h"
#include "platform/page_buffer.h"
#include "platform/utf16.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <unordered_map>

namespace qvx {

// ---------------------------------------------------------------------------------
// Arena

namespace {

constexpr size_t kArenaBlockSize = 32 * 1024;

// Standard-size blocks freed by one chunk's arena are kept for the next chunk of the
// same thread, so walking a large file does not return to the allocator per chunk.
struct TArenaBlockCache {
  std::vector<std::unique_ptr<std::byte[]>> Blocks;
};
thread_local TArenaBlockCache GBlockCache;
constexpr size_t kMaxCachedBlocks = 16;

} // namespace

TBXmlArena::~TBXmlArena() {
  for (size_t i = 0; i < FBlocks.size(); ++i) {
    if (FBlockSizes[i] != kArenaBlockSize || GBlockCache.Blocks.size() >= kMaxCachedBlocks) continue;
    GBlockCache.Blocks.push_back(std::move(FBlocks[i]));
  }
}

void* TBXmlArena::AllocateBlock(size_t ASize, size_t AAlign) {
  size_t pad = 0;
  {
    size_t blockSize = std::max<size_t>(kArenaBlockSize, ASize + AAlign);
    if (blockSize == kArenaBlockSize && !GBlockCache.Blocks.empty()) {
      FBlocks.push_back(std::move(GBlockCache.Blocks.back()));
      GBlockCache.Blocks.pop_back();
    } else {
      FBlocks.push_back(std::make_unique_for_overwrite<std::byte[]>(blockSize));
    }
    FBlockSizes.push_back(blockSize);
    FCursor = FBlocks.back().get();
    FLeft = blockSize;
    pad = (AAlign - reinterpret_cast<uintptr_t>(FCursor) % AAlign) % AAlign;
  }
  std::byte* p = FCursor + pad;
  FCursor = p + ASize;
  FLeft -= pad + ASize;
  FTotal += ASize;
  return p;
}

std::string_view TBXmlArena::CopyString(std::string_view AText) {
  if (AText.empty()) return {};
  char* p = static_cast<char*>(Allocate(AText.size(), 1));
  std::memcpy(p, AText.data(), AText.size());
  return {p, AText.size()};
}

TBXmlNodeCommon* TBXmlNodeCommon::GetNode(size_t AIndex) const {
  TBXmlNodeCommon* n = FirstChild;
  for (size_t i = 0; n && i < AIndex; ++i) n = n->Next;
  return n;
}

size_t TBXmlNodeCommon::ChildCount() const {
  size_t count = 0;
  for (TBXmlNodeCommon* n = FirstChild; n; n = n->Next) ++count;
  return count;
}

namespace {

using namespace evtx;

// ---------------------------------------------------------------------------------
// Parsing: one TParser per token stream (a record's root, a template body, an
// embedded fragment). It carries the open-element stack of that stream.

struct TParser {
  TEvtxChunk& Chunk;
  const uint8_t* D; // the chunk's 65536 bytes
  TBXmlArena& A;
  int Depth;
  bool InTemplate; // elements of a template definition carry a dependency identifier
  bool TagState = false;
  int Top = 0;
  TBXmlChild01Node* Stack[kMaxBXmlDepth];

  TParser(TEvtxChunk& AChunk, int ADepth, bool AInTemplate)
      : Chunk(AChunk), D(AChunk.Data()), A(AChunk.Arena()), Depth(ADepth), InTemplate(AInTemplate) {
    if (ADepth >= kMaxBXmlDepth) RaiseBinXml("BinXML nesting too deep");
  }
};

void Append(TBXmlNodeCommon* AParent, TBXmlNodeCommon* AChild) {
  AChild->Parent = AParent;
  if (AParent->LastChild) AParent->LastChild->Next = AChild;
  else AParent->FirstChild = AChild;
  AParent->LastChild = AChild;
}

// The name string at AOffset, decoded once and shared through the chunk's names.
TBXmlNameStringNode* MakeNameString(TParser& P, uint32_t AOffset) {
  if (TBXmlNameStringNode* known = P.Chunk.GetStringByPoint(AOffset)) return known;
  TByteReader r(P.D, kChunkSize);
  Check(r.Fits(AOffset, 8), "String: too short");
  uint32_t count = r.ReadU16(AOffset + 6);
  uint32_t size = 8 + 2 * count + 2;
  Check(r.Fits(AOffset, size), "String: too short");
  auto* node = P.A.New<TBXmlNameStringNode>();
  node->Kind = TBXmlKind::bkNameString;
  node->Offset = AOffset;
  node->Size = node->Header = size;
  node->Hash = r.ReadU16(AOffset + 4);
  std::string text;
  AppendUtf16(text, P.D + AOffset + 8, count);
  node->Text = P.A.CopyString(text);
  node->Valid = node->Prepared = true;
  return P.Chunk.AddString(node);
}

uint32_t ParseStream(TParser& P, TBXmlNodeCommon* AParent, uint32_t AStart, uint32_t AEnd);
TBXmlTemplateNode* MakeTemplate(TEvtxChunk& AChunk, uint32_t AOffset, int ADepth);
TBXmlRootNode* MakeRoot(TEvtxChunk& AChunk, uint32_t AStart, uint32_t ALength);
void PrepareRoot(TEvtxChunk& AChunk, TBXmlRootNode* ARoot, int ADepth);

template <typename T> T* NewNode(TParser& P, TBXmlKind AKind, uint8_t AToken, uint32_t AOffset) {
  T* n = P.A.template New<T>();
  n->Kind = AKind;
  n->Token = AToken;
  n->Offset = AOffset;
  n->Valid = true;
  n->Prepared = true;
  return n;
}

// Reads a name offset at +1 and, when the name lies at or after the node, the inline
// name string that follows; gives the bytes the name adds to the header.
uint32_t ResolveName(TParser& P, TBXmlChild06Node* ANode, const char* ACannotMake) {
  ANode->NameOffset = LoadU32(P.D + ANode->Offset + 1);
  if (ANode->NameOffset >= ANode->Offset) {
    Check(ANode->NameOffset < kChunkSize, ACannotMake);
    ANode->Name = MakeNameString(P, ANode->NameOffset);
    return ANode->Name->Size;
  }
  ANode->Name = P.Chunk.GetStringByPoint(ANode->NameOffset);
  return 0;
}

// Creates, checks and prepares the node whose token is at AOffset; the stream it lies
// in ends at AEnd (never past the chunk).
TBXmlNodeCommon* ParseNode(TParser& P, TBXmlNodeCommon* AParent, uint32_t AOffset, uint32_t AEnd) {
  const uint8_t* d = P.D;
  const uint32_t avail = AEnd - AOffset;
  const uint8_t tok = d[AOffset];
  const uint8_t flags = tok >> 4;
  switch (tok & 0x0F) {
  case kTokEndOfStream: {
    Check(tok < 0x10, "Node0: bad flags");
    auto* n = NewNode<TBXmlChild00Node>(P, TBXmlKind::bkChild00, tok, AOffset);
    n->Size = n->Header = 1;
    // The values of the enclosing template instance begin right after it.
    n->SubstStart = AOffset + 1;
    return n;
  }
  case kTokOpenStartElement: {
    // Only elements inside a template definition carry the u16 dependency identifier;
    // raw fragments (embedded values, forwarded events) go straight to the data size.
    const uint32_t fields = P.InTemplate ? 2 : 0;
    Check(avail >= 9 + fields, "Node1: too short");
    Check((flags & 0xB) == 0, "Node1: bad flags ");
    auto* n = NewNode<TBXmlChild01Node>(P, TBXmlKind::bkChild01, tok, AOffset);
    n->Dependency = P.InTemplate ? LoadU16(d + AOffset + 1) : 0xFFFF;
    // The data size counts from after its own field through the closing 0x03/0x04 token.
    // That last byte lies outside the node's size and is read by the enclosing stream;
    // it still closes this element through the open-element stack.
    uint64_t size = static_cast<uint64_t>(LoadU32(d + AOffset + 1 + fields)) + 4 + fields;
    n->NameOffset = LoadU32(d + AOffset + 5 + fields);
    n->Size = static_cast<uint32_t>(std::min<uint64_t>(size, avail));
    n->Header = 9 + fields;
    if (P.Top >= kMaxBXmlDepth) RaiseBinXml("BinXML nesting too deep");
    P.Stack[P.Top++] = n;
    P.TagState = true;
    if (n->NameOffset >= AOffset) {
      Check(n->NameOffset < kChunkSize, "String: too short");
      n->Name = MakeNameString(P, n->NameOffset);
      n->Header += n->Name->Size;
    } else {
      n->Name = P.Chunk.GetStringByPoint(n->NameOffset);
    }
    if (tok & kTokFlagMoreData) n->Header += 4; // attribute list size
    Check(n->Header <= n->Size, "Node1: too short");
    n->Data = n->Size - n->Header;
    ++P.Depth;
    if (P.Depth >= kMaxBXmlDepth) RaiseBinXml("BinXML nesting too deep");
    n->SubstStart = ParseStream(P, n, AOffset + n->Header, AOffset + n->Size);
    --P.Depth;
    return n;
  }
  case kTokCloseStartElement: {
    Check(tok < 0x10, "Node2: bad flags");
    auto* n = NewNode<TBXmlChild02Node>(P, TBXmlKind::bkChild02, tok, AOffset);
    n->Size = n->Header = 1;
    P.TagState = false;
    if (AParent && AParent->Kind == TBXmlKind::bkChild01) static_cast<TBXmlChild01Node*>(AParent)->SawCloseStart = true;
    return n;
  }
  case kTokCloseEmptyElement:
  case kTokEndElement: {
    bool empty = (tok & 0x0F) == kTokCloseEmptyElement;
    Check(tok < 0x10, empty ? "Node3: bad flags" : "Node4: bad flags");
    auto* n = empty ? static_cast<TBXmlNodeCommon*>(NewNode<TBXmlChild03Node>(P, TBXmlKind::bkChild03, tok, AOffset))
                    : NewNode<TBXmlChild04Node>(P, TBXmlKind::bkChild04, tok, AOffset);
    n->Size = n->Header = 1;
    // An empty element ends its start tag too, so text after it is content.
    P.TagState = false;
    if (P.Top > 0) P.Stack[--P.Top]->Close = empty ? 1 : 2;
    return n;
  }
  case kTokValue: {
    Check(avail >= 2, "Node5: too short");
    Check((flags & 0xB) == 0, "Node5: bad flags");
    auto* n = NewNode<TBXmlChild05Node>(P, TBXmlKind::bkChild05, tok, AOffset);
    n->ValueType = d[AOffset + 1];
    n->InStartTag = P.TagState;
    n->Header = 2;
    Check(IsVariantCode(n->ValueType), "Node5: Exception");
    const uint8_t* v = d + AOffset + 2;
    n->Data = MeasureVariant(n->ValueType, v, avail - 2, kVarModeStream);
    n->Size = n->Header + n->Data;
    if (n->ValueType == 0x21) {
      n->Nested = MakeRoot(P.Chunk, AOffset + 2, n->Data);
      PrepareRoot(P.Chunk, n->Nested, P.Depth + 1);
    } else {
      std::string text;
      AppendVariantXml(text, n->ValueType, v, n->Data, kVarModeStream);
      n->Text = P.A.CopyString(text);
    }
    return n;
  }
  case kTokAttribute:
  case kTokEntityRef:
  case kTokPITarget: {
    const uint8_t kind = tok & 0x0F;
    const char* tooShort = kind == kTokAttribute ? "Node6: too short" : kind == kTokEntityRef ? "Node9: too short" : "NodeA: too short";
    Check(avail >= 5, tooShort);
    if (kind == kTokAttribute) Check((flags & 0xB) == 0, "Node6: bad flags ");
    if (kind == kTokEntityRef) Check((flags & 0xB) == 0, "Node9: bad flags");
    TBXmlChild06Node* n =
        kind == kTokAttribute ? NewNode<TBXmlChild06Node>(P, TBXmlKind::bkChild06, tok, AOffset)
        : kind == kTokEntityRef
            ? static_cast<TBXmlChild06Node*>(NewNode<TBXmlChild09Node>(P, TBXmlKind::bkChild09, tok, AOffset))
            : static_cast<TBXmlChild06Node*>(NewNode<TBXmlChild0ANode>(P, TBXmlKind::bkChild0A, tok, AOffset));
    n->InStartTag = P.TagState;
    n->Header = 5 + ResolveName(P, n, kind == kTokAttribute ? "Node6: exception"
                                      : kind == kTokEntityRef ? "Node9: Exception" : "NodeA: Exception");
    n->Size = n->Header;
    return n;
  }
  case kTokCData:
  case kTokPIData: {
    const bool cdata = (tok & 0x0F) == kTokCData;
    Check(avail >= 3, cdata ? "Node7: too short" : "NodeB: too short");
    uint32_t count = LoadU16(d + AOffset + 1);
    Check(avail >= 3 + 2 * count, cdata ? "Node7: too short" : "NodeB: too short");
    auto* n = cdata ? NewNode<TBXmlChild07Node>(P, TBXmlKind::bkChild07, tok, AOffset)
                    : static_cast<TBXmlChild07Node*>(NewNode<TBXmlChild0BNode>(P, TBXmlKind::bkChild0B, tok, AOffset));
    n->Header = 3;
    n->Data = 2 * count;
    n->Size = n->Header + n->Data;
    std::string text;
    AppendUtf16(text, d + AOffset + 3, count);
    n->Text = P.A.CopyString(text);
    return n;
  }
  case kTokTemplateInstance: {
    Check(avail >= 10, "NodeC: too short");
    Check(tok < 0x10, "NodeC: bad flag");
    Check(d[AOffset + 1] == 1, "NodeC: bad ExCode ");
    auto* n = NewNode<TBXmlChild0CNode>(P, TBXmlKind::bkChild0C, tok, AOffset);
    n->TemplateId = LoadU32(d + AOffset + 2);
    n->TemplateOffset = LoadU32(d + AOffset + 6);
    n->Header = 10;
    if (n->TemplateOffset >= AOffset) {
      // The definition lies inline; the values follow it.
      n->Template = MakeTemplate(P.Chunk, n->TemplateOffset, P.Depth + 1);
      n->Data = n->Template->Size;
      n->SubstStart = n->Template->SubstStart;
    } else {
      n->Template = P.Chunk.GetTemplateByPoint(n->TemplateOffset);
      Check(n->Template != nullptr, "NodeC: no template");
      Check(n->Template->TemplateId == n->TemplateId, "NodeC: wrong template");
      n->Data = 0;
      n->SubstStart = AOffset + n->Header;
    }
    n->Size = n->Header + n->Data;
    return n;
  }
  case kTokNormalSubstitution:
  case kTokOptionalSubstitution: {
    const bool normal = (tok & 0x0F) == kTokNormalSubstitution;
    Check(avail >= 4, normal ? "NodeD: too short" : "NodeE: too short");
    if (normal) Check(tok < 0x10, "NodeD: bad flags");
    auto* n = normal ? NewNode<TBXmlChild0DNode>(P, TBXmlKind::bkChild0D, tok, AOffset)
                     : static_cast<TBXmlChild0DNode*>(NewNode<TBXmlChild0ENode>(P, TBXmlKind::bkChild0E, tok, AOffset));
    n->Index = LoadU16(d + AOffset + 1);
    n->ValueType = d[AOffset + 3];
    n->InStartTag = P.TagState;
    n->Size = n->Header = 4;
    return n;
  }
  case kTokFragmentHeader: {
    Check(avail >= 4, "NodeF: too short");
    Check(tok < 0x10, "NodeF: bad flags");
    Check(d[AOffset + 1] == 1, "NodeF: bad ExCode1 ");
    Check(LoadU16(d + AOffset + 2) == 1, "NodeF: bad ExCode2 ");
    auto* n = NewNode<TBXmlChild0FNode>(P, TBXmlKind::bkChild0F, tok, AOffset);
    n->Size = n->Header = 4;
    return n;
  }
  default:
    // Token 0x08 (character reference) has no node: such a stream cannot be decoded.
    RaiseBinXml(std::string());
  }
}

// Builds the children of AParent from [AStart, AEnd); stops after the child that
// reports where substitution values begin, and gives that offset (0 when none did).
uint32_t ParseStream(TParser& P, TBXmlNodeCommon* AParent, uint32_t AStart, uint32_t AEnd) {
  uint32_t pos = AStart;
  while (pos < AEnd) {
    TBXmlNodeCommon* child = ParseNode(P, AParent, pos, AEnd);
    Append(AParent, child);
    if (child->SubstStart) return child->SubstStart;
    pos += child->Size;
  }
  return 0;
}

// ---------------------------------------------------------------------------------
// The thread's cache of compiled templates. Real logs define the same templates again
// in chunk after chunk; parsing and compiling each definition is a sixth of a dump's
// work. An entry keeps a definition's bytes (GUID, data size, token stream), the names
// its parse resolved, in parse order, and its compiled program with each op's names
// given as indexes into those. A definition is taken from the cache only when its bytes
// are the same and every name resolves as it did: an inline name (at or after its node)
// to the same bytes, which are then registered with the chunk as the parse would; an
// earlier one to a name the chunk already holds with the same text. The parse then
// would build the same nodes and the compiler the same program. The bytes that hold a
// name's chunk offset, and the unread "next string" offset of a name written right after
// its node, are left out of the comparison: the same template lies at other offsets in
// other chunks, its names with it, and only what the names read as matters. Definitions
// that hold template instances or embedded fragments (which depend on more of the chunk
// than their names) are not kept.

struct TCachedName {
  uint32_t NodeRel;    // the naming node's offset from the definition's
  uint32_t FieldRel;   // where the node's name offset lies in Definition
  uint32_t Size;       // the name string's size (inline names)
  uint32_t RawAt;      // inline names: bytes 4 .. 8 + 2 * count of the string, in Blob
  uint32_t RawLength;
  uint32_t TextAt;     // its UTF-8 text, in Blob
  uint32_t TextLength;
  bool Inline;
};

// An entry, laid out in one piece of the cache's memory: the arrays follow it.
struct TCachedTemplate {
  const uint8_t* Definition; // bytes from the GUID to the end of the token stream
  const TCachedName* Names;
  const char* Blob;
  const char* Program;
  const TBXmlOp* Ops;        // Attribute and Element null; their names are in OpNames
  const uint32_t* OpNames;   // per op: Attribute's and Element's name index, or kNone
  const uint32_t* Skips;     // where 4 bytes of Definition may differ (sorted), see above
  uint32_t SkipCount;
  uint32_t DefinitionLength;
  uint32_t NameCount;
  uint32_t ProgramLength;
  uint32_t OpCount;
  uint32_t SubstRel;         // SubstStart less the definition's offset (0: none)
  int Depth;
  uint64_t Key;              // DefinitionKey of Definition and Depth
  static constexpr uint32_t kNone = 0xFFFFFFFF;
};

// The key of a definition: its GUID and data size (its first 20 bytes) and the nesting
// it is parsed at. Definitions that share a key (the same template with other names, or
// with its names written inline in one chunk and referred to in another) are told
// apart by their bytes.
uint64_t DefinitionKey(const uint8_t* ADefinition, int ADepth) {
  uint64_t a, b;
  std::memcpy(&a, ADefinition, 8);
  std::memcpy(&b, ADefinition + 8, 8);
  uint64_t h = (a ^ (uint64_t{LoadU32(ADefinition + 16)} << 8 | static_cast<uint64_t>(ADepth))) * 0x9E3779B97F4A7C15ULL;
  h = (h ^ (h >> 31) ^ b) * 0xFF51AFD7ED558CCDULL;
  return h ^ (h >> 29);
}

constexpr size_t kTemplateCacheEntries = kBXmlTemplateCacheEntries;
constexpr size_t kTemplateCacheBytes = kBXmlTemplateCacheBytes;
constexpr size_t kTemplateCacheBlock = 512 * 1024;
constexpr size_t kVariantsPerKey = 8;

// The entries' memory: blocks mapped whole and kept when the cache is emptied. Memory
// faulted in a page at a time on first use costs more than the parses the cache saves.
class TEntryPool {
public:
  void SetLimit(size_t AMaxBytes) {
    FBlocks.clear();
    Reset();
    FBlockSize = std::max<size_t>(std::min(kTemplateCacheBlock, AMaxBytes), 4096);
    FMaxBlocks = std::max<size_t>(AMaxBytes / FBlockSize, 1);
  }
  // ASize bytes aligned to 8, or null when the limit is reached (or ASize exceeds a block).
  void* Allocate(size_t ASize) {
    ASize = (ASize + 7) & ~size_t{7};
    if (ASize > FLeft) {
      if (ASize > FBlockSize || FNext >= FMaxBlocks) return nullptr;
      if (FNext == FBlocks.size()) FBlocks.push_back(std::make_unique<TPageBuffer>(FBlockSize));
      FCursor = FBlocks[FNext++]->Data();
      FLeft = FBlockSize;
    }
    void* p = FCursor;
    FCursor += ASize;
    FLeft -= ASize;
    FUsed += ASize;
    return p;
  }
  void Reset() {
    FNext = 0;
    FCursor = nullptr;
    FLeft = FUsed = 0;
  }
  size_t Used() const { return FUsed; }

private:
  std::vector<std::unique_ptr<TPageBuffer>> FBlocks;
  size_t FBlockSize = kTemplateCacheBlock;
  size_t FMaxBlocks = kTemplateCacheBytes / kTemplateCacheBlock;
  size_t FNext = 0;
  uint8_t* FCursor = nullptr;
  size_t FLeft = 0;
  size_t FUsed = 0;
};

struct TTemplateCache {
  struct TVariants {
    TCachedTemplate* List[kVariantsPerKey];
    uint8_t Count = 0;
    uint8_t Replace = 0; // the one a new variant replaces when the list is full
  };
  std::unordered_map<uint64_t, TVariants> Entries;
  TEntryPool Pool;
  size_t Count = 0;
  size_t MaxEntries = kTemplateCacheEntries;
  size_t MaxBytes = kTemplateCacheBytes;
  uint64_t Hits = 0;
  uint64_t Misses = 0;

  void Clear() {
    Entries.clear();
    Pool.Reset();
    Count = 0;
  }
};
thread_local TTemplateCache GTemplateCache;

} // namespace

// The entries the threads of one run share (see TBXmlSharedTemplates): only ever added
// to, never changed or freed while it lives, so threads read and add them without a lock.
// Slots of an open-addressed table hold the entries (several may share a key); a
// thread publishes an entry whole, with release, into a free slot. Once either limit
// is reached nothing more is added and threads keep what they compile in their own
// caches, as before.
struct TBXmlSharedTemplates::TImpl {
  std::unique_ptr<std::atomic<const TCachedTemplate*>[]> Slots;
  size_t Mask = 0;
  size_t MaxEntries = 0;
  size_t BlockSize = 0;
  size_t MaxBlocks = 0;
  std::atomic<size_t> Claimed{0};       // entries threads set out to add (at most MaxEntries succeed)
  std::atomic<size_t> Added{0};         // entries in the table
  std::atomic<size_t> BlocksClaimed{0}; // blocks taken (at most MaxBlocks are used)
  // Room for all MaxBlocks blocks, reserved before the threads start: a block mapped
  // while another thread maps or populates one waits for the address-space lock, and a
  // thread woken from that wait was often put on the processor of the thread that woke
  // it, leaving the other idle for milliseconds.
  std::unique_ptr<TPageBuffer> Room;
  std::atomic<bool> Full{false};
};

struct TBXmlSharedTemplates::TUse::TState {
  TImpl* Impl = nullptr;
  TState* Previous = nullptr;
  // The thread's room in its current block: a thread lays its entries out where no
  // other thread writes, so it neither waits for a lock nor makes another thread's
  // cached lines of the table stale.
  uint8_t* Cursor = nullptr;
  size_t Left = 0;
};

namespace {

thread_local TBXmlSharedTemplates::TUse::TState* GSharedUse = nullptr;

// ABytes (a multiple of 8) of the thread's room in the shared cache, a new block when
// the current one is used up; null when the cache's blocks are all taken or the entry
// would not fit one. Claiming a block takes no lock; its pages are made as entries fill it.
uint8_t* TakeSharedRoom(TBXmlSharedTemplates::TUse::TState& AUse, size_t ABytes) {
  TBXmlSharedTemplates::TImpl& shared = *AUse.Impl;
  if (ABytes > AUse.Left) {
    if (ABytes > shared.BlockSize) return nullptr;
    const size_t block = shared.BlocksClaimed.fetch_add(1, std::memory_order_relaxed);
    if (block >= shared.MaxBlocks) return nullptr;
    AUse.Cursor = shared.Room->Data() + block * shared.BlockSize;
    AUse.Left = shared.BlockSize;
  }
  uint8_t* p = AUse.Cursor;
  AUse.Cursor += ABytes;
  AUse.Left -= ABytes;
  return p;
}

// The definition's bytes from its GUID on, as MakeTemplate reads them: [AOffset + 4, end).
inline uint32_t DefinitionEnd(const uint8_t* AData, uint32_t AOffset) {
  return static_cast<uint32_t>(std::min<uint64_t>(uint64_t{AOffset} + 24 + LoadU32(AData + AOffset + 20), kChunkSize));
}

// True when AVariant was parsed at ADepth and its bytes are those of ADefinition
// [0, ALength) but for its name offsets.
inline bool SameDefinition(const TCachedTemplate* AVariant, const uint8_t* ADefinition, size_t ALength, int ADepth) {
  if (AVariant->Depth != ADepth || AVariant->DefinitionLength != ALength) return false;
  // The bytes between the skipped ones must be the same.
  size_t at = 0;
  for (uint32_t k = 0; k < AVariant->SkipCount; ++k) {
    const size_t skip = AVariant->Skips[k];
    if (skip > at && std::memcmp(AVariant->Definition + at, ADefinition + at, skip - at) != 0) return false;
    at = std::max(at, skip + 4);
  }
  return at >= ALength || std::memcmp(AVariant->Definition + at, ADefinition + at, ALength - at) == 0;
}

TBXmlTemplateNode* TemplateFromEntry(TEvtxChunk& AChunk, uint32_t AOffset, int ADepth, const TCachedTemplate* AEntry);

// The template at AOffset (its 24 header bytes fit) from the cache (the run's shared
// one first, then the thread's own), registered with the chunk, or null when neither
// holds an entry that renders the same. An entry whose bytes match but whose names read
// otherwise in this chunk does not end the search: another variant may fit.
TBXmlTemplateNode* TemplateFromCache(TEvtxChunk& AChunk, uint32_t AOffset, int ADepth) {
  TTemplateCache& cache = GTemplateCache;
  TBXmlSharedTemplates::TImpl* shared = GSharedUse ? GSharedUse->Impl : nullptr;
  if (cache.Entries.empty() && !shared) return nullptr;
  const uint8_t* d = AChunk.Data();
  const uint32_t end = DefinitionEnd(d, AOffset);
  const uint8_t* definition = d + AOffset + 4;
  const size_t length = end - (AOffset + 4);
  const uint64_t key = DefinitionKey(definition, ADepth);
  if (shared) {
    for (size_t i = key & shared->Mask, probes = 0; probes <= shared->Mask; i = (i + 1) & shared->Mask, ++probes) {
      const TCachedTemplate* e = shared->Slots[i].load(std::memory_order_acquire);
      if (!e) break;
      if (e->Key == key && SameDefinition(e, definition, length, ADepth))
        if (TBXmlTemplateNode* t = TemplateFromEntry(AChunk, AOffset, ADepth, e)) return t;
    }
  }
  if (cache.Entries.empty()) return nullptr;
  auto found = cache.Entries.find(key);
  if (found == cache.Entries.end()) return nullptr;
  const TCachedTemplate* match = nullptr;
  for (uint8_t i = 0; i < found->second.Count && !match; ++i)
    if (SameDefinition(found->second.List[i], definition, length, ADepth)) match = found->second.List[i];
  if (!match) return nullptr;
  return TemplateFromEntry(AChunk, AOffset, ADepth, match);
}

// AEntry, whose bytes match those at AOffset, made into the chunk's template; null when
// its names do not read the same in this chunk.
TBXmlTemplateNode* TemplateFromEntry(TEvtxChunk& AChunk, uint32_t AOffset, int ADepth, const TCachedTemplate* AEntry) {
  const uint8_t* d = AChunk.Data();
  const uint32_t end = DefinitionEnd(d, AOffset);
  const uint8_t* definition = d + AOffset + 4;
  const TCachedTemplate* match = AEntry;
  const TCachedTemplate& e = *match;
  TBXmlArena& arena = AChunk.Arena();
  TByteReader r(d, kChunkSize);
  // Names resolved for this chunk, in the entry's order; few templates name more.
  constexpr size_t kLocalNames = 64;
  const TBXmlNameStringNode* local[kLocalNames];
  std::vector<const TBXmlNameStringNode*> many;
  const TBXmlNameStringNode** resolved = local;
  if (e.NameCount > kLocalNames) {
    many.resize(e.NameCount);
    resolved = many.data();
  }
  for (size_t i = 0; i < e.NameCount; ++i) {
    const TCachedName& n = e.Names[i];
    const std::string_view text(e.Blob + n.TextAt, n.TextLength);
    const uint32_t nameOffset = LoadU32(definition + n.FieldRel);
    const bool isInline = nameOffset >= uint64_t{AOffset} + n.NodeRel;
    if (isInline != n.Inline) return nullptr;
    TBXmlNameStringNode* node = AChunk.GetStringByPoint(nameOffset);
    if (node) {
      if (node->Text != text || (n.Inline && node->Size != n.Size)) return nullptr;
    } else {
      if (!n.Inline || !r.Fits(nameOffset, n.Size) ||
          std::memcmp(d + nameOffset + 4, e.Blob + n.RawAt, n.RawLength) != 0)
        return nullptr;
      // The bytes are those the entry's name was decoded from: register it as the parse
      // would (a name registered here and the template then parsed after all is the
      // same name that parse would register).
      node = arena.New<TBXmlNameStringNode>();
      node->Kind = TBXmlKind::bkNameString;
      node->Offset = nameOffset;
      node->Size = node->Header = n.Size;
      node->Hash = LoadU16(d + nameOffset + 4);
      node->Text = arena.CopyString(text);
      node->Valid = node->Prepared = true;
      AChunk.AddString(node);
    }
    resolved[i] = node;
  }
  auto* t = arena.New<TBXmlTemplateNode>();
  t->Kind = TBXmlKind::bkTemplate;
  t->Offset = AOffset;
  t->NextOffset = LoadU32(d + AOffset);
  std::memcpy(t->Guid, d + AOffset + 4, 16);
  t->TemplateId = LoadU32(d + AOffset + 4);
  t->Header = 24;
  t->Data = end - (AOffset + 24);
  t->Size = t->Header + t->Data;
  t->SubstStart = e.SubstRel ? AOffset + e.SubstRel : 0;
  t->Valid = t->Prepared = true;
  t->ParseDepth = static_cast<uint8_t>(ADepth);
  t->NodesDeferred = true;
  t->ProgramText = arena.CopyString(std::string_view(e.Program, e.ProgramLength));
  auto* ops = static_cast<TBXmlOp*>(arena.Allocate(sizeof(TBXmlOp) * (e.OpCount + 1), alignof(TBXmlOp)));
  for (size_t i = 0; i < e.OpCount; ++i) {
    ops[i] = e.Ops[i];
    const uint32_t attribute = e.OpNames[2 * i], element = e.OpNames[2 * i + 1];
    if (attribute != TCachedTemplate::kNone) ops[i].Attribute = resolved[attribute];
    if (element != TCachedTemplate::kNone) ops[i].Element = resolved[element];
  }
  t->Ops = ops;
  t->OpCount = e.OpCount;
  t->ProgramState = 1;
  ++GTemplateCache.Hits;
  return AChunk.AddTemplate(t);
}

// Lists, in parse order, the names of ANode and the nodes under it; false when a node
// makes the definition depend on more than its bytes and names.
bool CollectNames(const TBXmlNodeCommon* AFirst, std::vector<const TBXmlNodeCommon*>& ANamed, int ADepth) {
  if (ADepth >= kMaxBXmlDepth) return false;
  for (const TBXmlNodeCommon* n = AFirst; n; n = n->Next) {
    switch (n->Kind) {
    case TBXmlKind::bkChild01:
      if (!static_cast<const TBXmlChild01Node*>(n)->Name) return false;
      ANamed.push_back(n);
      if (!CollectNames(n->FirstChild, ANamed, ADepth + 1)) return false;
      break;
    case TBXmlKind::bkChild06:
    case TBXmlKind::bkChild09:
    case TBXmlKind::bkChild0A:
      if (!static_cast<const TBXmlChild06Node*>(n)->Name) return false;
      ANamed.push_back(n);
      break;
    case TBXmlKind::bkChild05:
      if (static_cast<const TBXmlChild05Node*>(n)->Nested) return false;
      break;
    case TBXmlKind::bkChild0C:
      return false;
    default:
      break;
    }
  }
  return true;
}

// Keeps a template just compiled (program AText and AOps) in the thread's cache.
void CacheTemplate(const TEvtxChunk& AChunk, const TBXmlTemplateNode* ATemplate, const std::string& AText,
                   const std::vector<TBXmlOp>& AOps) {
  TTemplateCache& cache = GTemplateCache;
  if (ATemplate->NodesDeferred || !AChunk.Data()) return;
  ++cache.Misses;
  // The entry is put together here first; these keep their room from one to the next.
  thread_local struct {
    std::vector<const TBXmlNodeCommon*> Nodes;
    std::vector<const TBXmlNameStringNode*> NameNodes; // per entry of Names, its node
    std::vector<TCachedName> Names;
    std::string Blob;
    std::vector<uint32_t> OpNames;
    std::vector<uint32_t> Skips;
  } scratch;
  scratch.Nodes.clear();
  if (!CollectNames(ATemplate->FirstChild, scratch.Nodes, 0)) return;
  const uint8_t* d = AChunk.Data();
  const uint32_t offset = ATemplate->Offset;
  const uint32_t end = offset + ATemplate->Size;
  scratch.NameNodes.clear();
  scratch.Names.clear();
  scratch.Blob.clear();
  scratch.Skips.clear();
  const uint32_t definitionStart = offset + 4;
  for (const TBXmlNodeCommon* n : scratch.Nodes) {
    const TBXmlNameStringNode* name;
    uint32_t nameOffset;
    if (n->Kind == TBXmlKind::bkChild01) {
      name = static_cast<const TBXmlChild01Node*>(n)->Name;
      nameOffset = static_cast<const TBXmlChild01Node*>(n)->NameOffset;
    } else {
      name = static_cast<const TBXmlChild06Node*>(n)->Name;
      nameOffset = static_cast<const TBXmlChild06Node*>(n)->NameOffset;
    }
    TCachedName c{};
    c.NodeRel = n->Offset - offset;
    // Elements of a definition carry a dependency identifier and a data size before it.
    c.FieldRel = n->Offset + (n->Kind == TBXmlKind::bkChild01 ? 7 : 1) - definitionStart;
    if (uint64_t{c.FieldRel} + 4 > end - definitionStart || LoadU32(d + definitionStart + c.FieldRel) != nameOffset)
      return;
    scratch.Skips.push_back(c.FieldRel);
    c.Inline = nameOffset >= n->Offset;
    c.Size = name->Size;
    if (c.Inline) {
      // The bytes the name was decoded from (its hash, count and characters).
      if (name->Offset != nameOffset || name->Size < 10 || uint64_t{nameOffset} + name->Size > kChunkSize) return;
      // Its "next string" offset is not read, when it lies where the parse steps over it
      // (right after the node's fixed fields); anywhere else its bytes may be tokens.
      if (nameOffset == c.FieldRel + 4 + definitionStart && uint64_t{nameOffset} + 4 <= end)
        scratch.Skips.push_back(nameOffset - definitionStart);
      c.RawAt = static_cast<uint32_t>(scratch.Blob.size());
      c.RawLength = name->Size - 6;
      scratch.Blob.append(reinterpret_cast<const char*>(d + nameOffset + 4), c.RawLength);
    }
    c.TextAt = static_cast<uint32_t>(scratch.Blob.size());
    c.TextLength = static_cast<uint32_t>(name->Text.size());
    scratch.Blob.append(name->Text);
    scratch.NameNodes.push_back(name);
    scratch.Names.push_back(c);
  }
  scratch.OpNames.assign(2 * AOps.size(), TCachedTemplate::kNone);
  const auto& index = scratch.NameNodes;
  for (size_t i = 0; i < AOps.size(); ++i) {
    for (int which = 0; which < 2; ++which) {
      const TBXmlNameStringNode* name = which == 0 ? AOps[i].Attribute : AOps[i].Element;
      if (!name) continue;
      auto at = std::find(index.begin(), index.end(), name);
      if (at == index.end()) return; // a name the parse did not resolve: keep nothing
      scratch.OpNames[2 * i + which] = static_cast<uint32_t>(at - index.begin());
    }
  }
  std::sort(scratch.Skips.begin(), scratch.Skips.end());
  // One piece: the entry, then its arrays, each aligned to 8.
  auto round = [](size_t n) { return (n + 7) & ~size_t{7}; };
  const size_t definitionLength = end - (offset + 4);
  const size_t bytes = round(sizeof(TCachedTemplate)) + round(AOps.size() * sizeof(TBXmlOp)) +
                       round(scratch.Names.size() * sizeof(TCachedName)) + round(scratch.OpNames.size() * 4) +
                       round(scratch.Skips.size() * 4) +
                       round(definitionLength) + round(scratch.Blob.size()) + round(AText.size());
  // Lays the entry out in the memory at p (bytes long).
  auto layOut = [&](uint8_t* p) {
    auto* e = new (p) TCachedTemplate{};
    p += round(sizeof(TCachedTemplate));
    auto* ops = reinterpret_cast<TBXmlOp*>(p);
    for (size_t i = 0; i < AOps.size(); ++i) {
      ops[i] = AOps[i];
      ops[i].Attribute = ops[i].Element = nullptr;
    }
    p += round(AOps.size() * sizeof(TBXmlOp));
    auto copy = [&p, &round](const void* AFrom, size_t ALength) {
      uint8_t* at = p;
      if (ALength) std::memcpy(at, AFrom, ALength);
      p += round(ALength);
      return at;
    };
    e->Ops = ops;
    e->Names = reinterpret_cast<const TCachedName*>(copy(scratch.Names.data(), scratch.Names.size() * sizeof(TCachedName)));
    e->OpNames = reinterpret_cast<const uint32_t*>(copy(scratch.OpNames.data(), scratch.OpNames.size() * 4));
    e->Skips = reinterpret_cast<const uint32_t*>(copy(scratch.Skips.data(), scratch.Skips.size() * 4));
    e->SkipCount = static_cast<uint32_t>(scratch.Skips.size());
    e->Definition = copy(d + offset + 4, definitionLength);
    e->Blob = reinterpret_cast<const char*>(copy(scratch.Blob.data(), scratch.Blob.size()));
    e->Program = reinterpret_cast<const char*>(copy(AText.data(), AText.size()));
    e->DefinitionLength = static_cast<uint32_t>(definitionLength);
    e->NameCount = static_cast<uint32_t>(scratch.Names.size());
    e->ProgramLength = static_cast<uint32_t>(AText.size());
    e->OpCount = static_cast<uint32_t>(AOps.size());
    e->SubstRel = ATemplate->SubstStart ? ATemplate->SubstStart - offset : 0;
    e->Depth = ATemplate->ParseDepth;
    e->Key = DefinitionKey(e->Definition, e->Depth);
    return e;
  };
  if (TBXmlSharedTemplates::TUse::TState* use = GSharedUse; use && !use->Impl->Full.load(std::memory_order_relaxed)) {
    TBXmlSharedTemplates::TImpl& shared = *use->Impl;
    uint8_t* p = shared.Claimed.fetch_add(1, std::memory_order_relaxed) < shared.MaxEntries
                     ? TakeSharedRoom(*use, bytes)
                     : nullptr;
    if (p) {
      const TCachedTemplate* e = layOut(p);
      // The table has twice the room of the entries it may hold: a free slot follows.
      for (size_t i = e->Key & shared.Mask;; i = (i + 1) & shared.Mask) {
        const TCachedTemplate* expected = nullptr;
        if (shared.Slots[i].load(std::memory_order_relaxed)) continue;
        if (shared.Slots[i].compare_exchange_strong(expected, e, std::memory_order_release, std::memory_order_relaxed))
          break;
      }
      shared.Added.fetch_add(1, std::memory_order_relaxed);
      return;
    }
    // Full: what is compiled from now on stays with the thread that compiled it.
    shared.Full.store(true, std::memory_order_relaxed);
  }
  if (cache.Count >= cache.MaxEntries) cache.Clear();
  auto* p = static_cast<uint8_t*>(cache.Pool.Allocate(bytes));
  if (!p) {
    cache.Clear();
    p = static_cast<uint8_t*>(cache.Pool.Allocate(bytes));
    if (!p) return; // larger than the cache may hold
  }
  TCachedTemplate* e = layOut(p);
  TTemplateCache::TVariants& variants = cache.Entries[e->Key];
  if (variants.Count < kVariantsPerKey) {
    variants.List[variants.Count++] = e;
    ++cache.Count;
  } else {
    // The one replaced keeps its memory until the cache is emptied (counted in its limit).
    variants.List[variants.Replace] = e;
    variants.Replace = static_cast<uint8_t>((variants.Replace + 1) % kVariantsPerKey);
  }
}

TBXmlTemplateNode* MakeTemplate(TEvtxChunk& AChunk, uint32_t AOffset, int ADepth) {
  if (TBXmlTemplateNode* known = AChunk.GetTemplateByPoint(AOffset)) return known;
  TByteReader r(AChunk.Data(), kChunkSize);
  Check(r.Fits(AOffset, 24), "NodeC: too short");
  if (ADepth < kMaxBXmlDepth)
    if (TBXmlTemplateNode* cached = TemplateFromCache(AChunk, AOffset, ADepth)) return cached;
  TParser P(AChunk, ADepth, true);
  auto* t = P.A.New<TBXmlTemplateNode>();
  t->Kind = TBXmlKind::bkTemplate;
  t->Offset = AOffset;
  t->NextOffset = r.ReadU32(AOffset);
  std::memcpy(t->Guid, P.D + AOffset + 4, 16);
  t->TemplateId = r.ReadU32(AOffset + 4);
  t->Header = 24;
  uint64_t dataSize = r.ReadU32(AOffset + 20);
  uint32_t end = static_cast<uint32_t>(std::min<uint64_t>(AOffset + 24 + dataSize, kChunkSize));
  t->Data = end - (AOffset + 24);
  t->Size = t->Header + t->Data;
  t->ParseDepth = static_cast<uint8_t>(ADepth);
  t->SubstStart = ParseStream(P, t, AOffset + 24, end);
  t->Valid = t->Prepared = true;
  // Added once its body is built: a template cannot refer to itself.
  return AChunk.AddTemplate(t);
}

TBXmlRootNode* MakeRoot(TEvtxChunk& AChunk, uint32_t AStart, uint32_t ALength) {
  auto* root = AChunk.Arena().New<TBXmlRootNode>();
  root->Kind = TBXmlKind::bkRoot;
  root->Offset = AStart;
  root->Length = ALength;
  root->Size = ALength;
  root->Valid = true;
  return root;
}

// Per value type, the size a substitution value of it is accepted at without measuring:
// kDeclaredSize for null, strings, binary and embedded fragments (their declared size),
// a scalar's own size, or 0 (measured).
constexpr uint16_t kDeclaredSize = 0xFFFF;
constexpr std::array<uint16_t, 256> kSubstValueSizes = [] {
  std::array<uint16_t, 256> sizes{};
  for (unsigned code = 0; code < 256; ++code) sizes[code] = static_cast<uint16_t>(VariantScalarSize(static_cast<uint8_t>(code)));
  for (uint8_t code : {0x00, 0x01, 0x02, 0x0E, 0x21}) sizes[code] = kDeclaredSize;
  return sizes;
}();

void PrepareSubstArray(TEvtxChunk& AChunk, TBXmlRootNode* ARoot, uint32_t AStart, uint32_t AEnd) {
  TByteReader r(AChunk.Data(), AEnd);
  Check(r.Fits(AStart, 4), "SubArray: too short");
  uint32_t count = r.ReadU32(AStart);
  uint64_t descriptors = 4 + 4 * static_cast<uint64_t>(count);
  Check(r.Fits(AStart, descriptors), "SubArray: too short");
  auto* a = AChunk.Arena().New<TBXmlSubstArrayNode>();
  a->Kind = TBXmlKind::bkSubstArray;
  a->Offset = AStart;
  a->Count = count;
  a->Header = static_cast<uint32_t>(descriptors);
  a->Values = count ? static_cast<TBXmlSubstValue*>(
                          AChunk.Arena().Allocate(sizeof(TBXmlSubstValue) * count, alignof(TBXmlSubstValue)))
                    : nullptr;
  uint32_t pos = AStart + a->Header;
  const uint8_t* data = AChunk.Data();
  for (uint32_t i = 0; i < count; ++i) {
    const uint8_t* desc = data + AStart + 4 + 4 * i;
    TBXmlSubstValue& v = a->Values[i];
    v.Size = LoadU16(desc);
    v.Type = desc[2];
    v.Offset = pos;
    v.Nested = nullptr;
    // Null, strings, binary and embedded fragments take their declared size, as
    // MeasureVariant gives it for a substitution, and a scalar of exactly its size is
    // what MeasureVariant would accept: no call for most values. (pos never passes AEnd.)
    const uint16_t known = kSubstValueSizes[v.Type];
    if (known != 0 && (known == kDeclaredSize || known == v.Size)) [[likely]] {
      Check(v.Size <= AEnd - pos, "SubArray: too short");
    } else {
      if (!IsVariantCode(v.Type)) RaiseBinXml(std::string());
      Check(r.Fits(pos, v.Size), "SubArray: too short");
      uint32_t used = MeasureVariant(v.Type, data + pos, v.Size, kVarModeSubstitution);
      Check(used == v.Size, "SubArray: bad size for a child");
    }
    a->NestedCount += v.Type == 0x21 && v.Size != 0;
    pos += v.Size;
  }
  a->Data = pos - AStart - a->Header;
  a->Size = pos - AStart;
  a->Valid = a->Prepared = true;
  ARoot->Array = a;
}

// Most records and embedded values are a fragment header and an instance of a template
// defined earlier in the chunk (bytes 0F 01 01 00 0C 01, u32 id, u32 offset): builds
// the two nodes ParseStream would build, without its general parse. False (nothing
// built) for anything else, a definition that lies inline, or a reference the parse
// would raise at; ParseStream then reads the stream as always.
bool ShortRoot(TEvtxChunk& AChunk, TBXmlRootNode* ARoot, uint32_t AEnd) {
  const uint32_t at = ARoot->Offset;
  if (at >= AEnd || AEnd - at < 14) return false;
  const uint8_t* d = AChunk.Data() + at;
  if (d[0] != kTokFragmentHeader || d[1] != 1 || LoadU16(d + 2) != 1 || d[4] != kTokTemplateInstance || d[5] != 1)
    return false;
  const uint32_t id = LoadU32(d + 6);
  const uint32_t offset = LoadU32(d + 10);
  if (offset >= at + 4) return false;
  TBXmlTemplateNode* t = AChunk.GetTemplateByPoint(offset);
  if (!t || t->TemplateId != id) return false;
  TBXmlArena& arena = AChunk.Arena();
  auto* header = arena.New<TBXmlChild0FNode>();
  header->Kind = TBXmlKind::bkChild0F;
  header->Token = kTokFragmentHeader;
  header->Offset = at;
  header->Valid = header->Prepared = true;
  header->Size = header->Header = 4;
  Append(ARoot, header);
  auto* n = arena.New<TBXmlChild0CNode>();
  n->Kind = TBXmlKind::bkChild0C;
  n->Token = kTokTemplateInstance;
  n->Offset = at + 4;
  n->Valid = n->Prepared = true;
  n->TemplateId = id;
  n->TemplateOffset = offset;
  n->Template = t;
  n->Header = n->Size = 10;
  n->Data = 0;
  n->SubstStart = at + 14;
  Append(ARoot, n);
  return true;
}

void PrepareRoot(TEvtxChunk& AChunk, TBXmlRootNode* ARoot, int ADepth) {
  if (ARoot->Prepared) return;
  ARoot->Prepared = true;
  ARoot->Valid = false;
  Check(AChunk.Data() != nullptr, "Common: undefined root");
  uint32_t end = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{ARoot->Offset} + ARoot->Length, kChunkSize));
  if (ADepth < kMaxBXmlDepth && ShortRoot(AChunk, ARoot, end)) {
    ARoot->SubstStart = ARoot->LastChild->SubstStart;
  } else {
    TParser P(AChunk, ADepth, false);
    ARoot->SubstStart = ParseStream(P, ARoot, ARoot->Offset, end);
  }
  Check(ARoot->SubstStart != 0 && ARoot->SubstStart <= end, "Root: no subsarray");
  // A fragment without a template instance (an embedded value, a forwarded event) ends
  // with its stream: no values follow.
  if (ARoot->SubstStart < end) PrepareSubstArray(AChunk, ARoot, ARoot->SubstStart, end);
  ARoot->Valid = true;
}

// ---------------------------------------------------------------------------------
// Rendering

// Upper bound on the nodes one record may render: templates may refer to earlier
// templates, and a chain of them that doubles at each step must not run away.
constexpr uint64_t kRenderBudget = 4'000'000;

struct TRenderer {
  TEvtxChunk& Chunk;
  std::string& Out;
  const TBXmlNameStringNode* Pending = nullptr; // attribute name waiting for its value
  size_t AttrValueEnd = std::string::npos;      // where the last quoted attribute value ended
  uint64_t Budget = kRenderBudget;
  int Depth = 0;
};

void RenderList(TRenderer& R, const TBXmlNodeCommon* AFirst, const TBXmlSubstArrayNode* AArray);
void RenderRootBody(TRenderer& R, const TBXmlRootNode* ARoot);

inline void PutName(std::string& AOut, const TBXmlNameStringNode* AName) { AOut.append(AName->Text); }

// Starts a value: the pending attribute name, then the opening quote inside a start tag.
// A second value of the same attribute continues inside its quotes.
inline void BeginValue(TRenderer& R, bool AInStartTag) {
  if (R.Pending) {
    R.Out.push_back(' ');
    PutName(R.Out, R.Pending);
    R.Pending = nullptr;
  } else if (AInStartTag && R.AttrValueEnd == R.Out.size() && !R.Out.empty() && R.Out.back() == '"') {
    R.Out.pop_back();
    return;
  }
  if (AInStartTag) R.Out.append("=\"");
}

inline void EndValue(TRenderer& R, bool AInStartTag) {
  if (AInStartTag) {
    R.Out.push_back('"');
    R.AttrValueEnd = R.Out.size();
  }
}

void PutPlaceholder(std::string& AOut, uint16_t AIndex, uint8_t AType, bool AOptional) {
  static const char kHex[] = "0123456789abcdef";
  AOut.push_back('#');
  AOut.append(std::to_string(AIndex));
  AOut.append(" (type 0x");
  AOut.push_back(kHex[AType >> 4]);
  AOut.push_back(kHex[AType & 15]);
  AOut.append(AOptional ? ", optional)#" : ")#");
}

void AppendNestedValue(TRenderer& R, TBXmlSubstValue& v);

// Appends the text of substitution AIndex of AArray (an embedded fragment renders in place).
// Inline: it runs for every value of every record, and most are strings.
inline void AppendSubstValue(TRenderer& R, const TBXmlSubstArrayNode* AArray, uint16_t AIndex) {
  Check(AIndex < AArray->Count, "SubArray: index out of bounds");
  TBXmlSubstValue& v = AArray->Values[AIndex];
  if (v.Type == 0x01) AppendUtf16Escaped(R.Out, R.Chunk.Data() + v.Offset, v.Size / 2); // as AppendVariantXml does
  else if (VariantScalarSize(v.Type) != 0) AppendScalarXml(R.Out, v.Type, R.Chunk.Data() + v.Offset);
  else if (v.Type != 0x21) AppendVariantXml(R.Out, v.Type, R.Chunk.Data() + v.Offset, v.Size, kVarModeSubstitution);
  else AppendNestedValue(R, v);
}

// An embedded fragment (type 0x21) renders in place.
void AppendNestedValue(TRenderer& R, TBXmlSubstValue& v) {
  if (!v.Size) return;
  if (!v.Nested) {
    v.Nested = MakeRoot(R.Chunk, v.Offset, v.Size);
    PrepareRoot(R.Chunk, v.Nested, R.Depth + 1);
  }
  const TBXmlNameStringNode* savedPending = R.Pending;
  R.Pending = nullptr;
  ++R.Depth;
  RenderRootBody(R, v.Nested);
  --R.Depth;
  R.Pending = savedPending;
}

// The substitution that is the whole content of element AElement (nothing but end
// tokens after its start tag closes), or null.
const TBXmlChild0DNode* SoleContentSubstitution(const TBXmlChild01Node* AElement) {
  const TBXmlNodeCommon* sole = nullptr;
  bool inContent = false;
  for (const TBXmlNodeCommon* n = AElement->FirstChild; n; n = n->Next) {
    if (!inContent) {
      inContent = n->Kind == TBXmlKind::bkChild02;
      continue;
    }
    switch (n->Kind) {
    case TBXmlKind::bkChild0D:
    case TBXmlKind::bkChild0E:
      if (sole) return nullptr;
      sole = n;
      break;
    case TBXmlKind::bkChild00:
    case TBXmlKind::bkChild04:
      break;
    default:
      return nullptr;
    }
  }
  auto* d = static_cast<const TBXmlChild0DNode*>(sole);
  return d && !d->InStartTag ? d : nullptr;
}

inline bool IsArrayCode(uint8_t AType) { return (AType & 0x80) != 0; }

// An array that is an element's whole content repeats the element once per item, with
// the same start tag, as Windows renders it: <Data>a</Data><Data>b</Data>. AStart is the
// rendered start tag ("\r\n<Name ...>"), already in the output.
void AppendRepeatedItems(TRenderer& R, const TBXmlNameStringNode* AName, std::string_view AStart,
                         const TBXmlSubstValue& AValue) {
  std::string separator;
  separator.reserve(AName->Text.size() + 3 + AStart.size());
  separator.append("</").append(AName->Text).append(">").append(AStart);
  Check(R.Budget > 0, "BinXML output too large");
  const uint32_t items = AppendVariantArrayItems(R.Out, AValue.Type, R.Chunk.Data() + AValue.Offset, AValue.Size,
                                                 separator);
  R.Budget -= std::min<uint64_t>(R.Budget, items);
}

void RenderSubstitution(TRenderer& R, const TBXmlChild0DNode* N, const TBXmlSubstArrayNode* AArray) {
  const bool optional = N->Kind == TBXmlKind::bkChild0E;
  const size_t mark = R.Out.size();
  BeginValue(R, N->InStartTag);
  const size_t valueStart = R.Out.size();
  if (!AArray) PutPlaceholder(R.Out, N->Index, N->ValueType, optional);
  else AppendSubstValue(R, AArray, N->Index);
  if (optional && R.Out.size() == valueStart) {
    // An empty optional value writes nothing, its attribute name included.
    R.Out.resize(mark);
    R.Pending = nullptr;
    return;
  }
  EndValue(R, N->InStartTag);
}

// ---------------------------------------------------------------------------------
// Compiled templates. Most of a template's text is fixed: element names, attribute
// names and values written in the template. Compiling it once per chunk into runs of
// that text and the substitutions between them lets each record render with one copy
// per run instead of a walk over every node. A template holding anything whose output
// depends on more than its own value (nested template instances, fragments in the
// stream, attribute values made of several parts) keeps the node renderer.

struct TCompiler {
  std::string Text;
  std::vector<TBXmlOp> Ops;
  const TBXmlNameStringNode* Pending = nullptr;
  bool Ok = true;
  size_t Steps = 0;
  size_t Substitutions = 0;

  void Literal(std::string_view AText) {
    if (AText.empty()) return;
    if (!Ops.empty() && Ops.back().TextLength && Ops.back().TextOffset + Ops.back().TextLength == Text.size()) {
      Ops.back().TextLength += static_cast<uint32_t>(AText.size());
    } else {
      Ops.push_back(
          {static_cast<uint32_t>(Text.size()), static_cast<uint32_t>(AText.size()), 0, 0, false, nullptr, nullptr, 0, 0});
    }
    Text.append(AText);
  }

  void List(const TBXmlNodeCommon* AFirst, int ADepth) {
    for (const TBXmlNodeCommon* n = AFirst; n && Ok; n = n->Next) Node(n, ADepth);
  }

  void Node(const TBXmlNodeCommon* N, int ADepth) {
    if (++Steps > kRenderBudget || ADepth >= kMaxBXmlDepth) {
      Ok = false;
      return;
    }
    switch (N->Kind) {
    case TBXmlKind::bkChild01: {
      auto* e = static_cast<const TBXmlChild01Node*>(N);
      if (!e->Name || Pending) {
        Ok = false;
        return;
      }
      const uint32_t startTag = static_cast<uint32_t>(Text.size());
      const size_t substitutionsBefore = Substitutions;
      Literal("\r\n<");
      Literal(e->Name->Text);
      List(e->FirstChild, ADepth + 1);
      Pending = nullptr;
      if (const TBXmlChild0DNode* sole = e->SawCloseStart ? SoleContentSubstitution(e) : nullptr) {
        if (Ok && Substitutions == substitutionsBefore + 1) {
          Ops.back().Element = e->Name; // the content substitution was the last op
          Ops.back().StartTagOffset = startTag;
        } else if (IsArrayCode(sole->ValueType)) {
          Ok = false; // an array under a start tag with values of its own: the node renderer repeats it
          return;
        }
      }
      if (e->Close == 1 || (e->Close == 0 && !e->SawCloseStart)) {
        Literal(" />");
      } else {
        Literal("</");
        Literal(e->Name->Text);
        Literal(">");
      }
      return;
    }
    case TBXmlKind::bkChild02:
      Pending = nullptr;
      Literal(">");
      return;
    case TBXmlKind::bkChild05: {
      auto* v = static_cast<const TBXmlChild05Node*>(N);
      if (v->Nested || (v->InStartTag && !Pending) || (!v->InStartTag && Pending)) {
        Ok = false;
        return;
      }
      if (v->InStartTag) {
        Literal(" ");
        Literal(Pending->Text);
        Literal("=\"");
        Literal(v->Text);
        Literal("\"");
        Pending = nullptr;
      } else {
        Literal(v->Text);
      }
      return;
    }
    case TBXmlKind::bkChild06: {
      auto* a = static_cast<const TBXmlChild06Node*>(N);
      if (!a->Name || Pending) {
        Ok = false;
        return;
      }
      Pending = a->Name;
      return;
    }
    case TBXmlKind::bkChild07:
      Literal("<![CDATA[");
      Literal(static_cast<const TBXmlChild07Node*>(N)->Text);
      Literal("]]>");
      return;
    case TBXmlKind::bkChild09: {
      auto* a = static_cast<const TBXmlChild09Node*>(N);
      if (!a->Name || a->InStartTag || Pending) {
        Ok = false;
        return;
      }
      Literal("&");
      Literal(a->Name->Text);
      Literal(";");
      return;
    }
    case TBXmlKind::bkChild0A: {
      auto* a = static_cast<const TBXmlChild0ANode*>(N);
      if (!a->Name) {
        Ok = false;
        return;
      }
      Literal("<?");
      Literal(a->Name->Text);
      return;
    }
    case TBXmlKind::bkChild0B: {
      auto* t = static_cast<const TBXmlChild0BNode*>(N);
      if (!t->Text.empty()) {
        Literal(" ");
        Literal(t->Text);
      }
      Literal("?>");
      return;
    }
    case TBXmlKind::bkChild0D:
    case TBXmlKind::bkChild0E: {
      auto* d = static_cast<const TBXmlChild0DNode*>(N);
      if (d->InStartTag != (Pending != nullptr)) {
        Ok = false;
        return;
      }
      const auto at = static_cast<uint32_t>(Text.size());
      Ops.push_back({at, 0, d->Index, d->ValueType, d->Kind == TBXmlKind::bkChild0E, Pending, nullptr, 0, at});
      if (Pending) {
        Text.push_back(' ');
        Text.append(Pending->Text);
        Text.append("=\"");
      }
      ++Substitutions;
      Pending = nullptr;
      return;
    }
    case TBXmlKind::bkChild0C: // a template inside a template
      Ok = false;
      return;
    default: // 0x00, 0x03, 0x04, 0x0F write nothing
      return;
    }
  }
};

constexpr size_t kKeptCompilerBytes = 256 * 1024;

void CompileTemplate(TEvtxChunk& AChunk, TBXmlTemplateNode* ATemplate) {
  // One compiler per thread, so its text and ops keep their capacity from one template
  // to the next instead of growing again for each.
  // What one huge template made it grow to is let go at the next.
  thread_local TCompiler c;
  if (c.Text.capacity() > kKeptCompilerBytes) std::string().swap(c.Text);
  if (c.Ops.capacity() * sizeof(TBXmlOp) > kKeptCompilerBytes) std::vector<TBXmlOp>().swap(c.Ops);
  c.Text.clear();
  c.Ops.clear();
  c.Pending = nullptr;
  c.Ok = true;
  c.Steps = 0;
  c.Substitutions = 0;
  c.List(ATemplate->FirstChild, 0);
  if (!c.Ok || c.Pending) {
    ATemplate->ProgramState = 2;
    return;
  }
  ATemplate->ProgramText = AChunk.Arena().CopyString(c.Text);
  auto* ops = static_cast<TBXmlOp*>(AChunk.Arena().Allocate(sizeof(TBXmlOp) * (c.Ops.size() + 1), alignof(TBXmlOp)));
  std::copy(c.Ops.begin(), c.Ops.end(), ops);
  ATemplate->Ops = ops;
  ATemplate->OpCount = static_cast<uint32_t>(c.Ops.size());
  ATemplate->ProgramState = 1;
  CacheTemplate(AChunk, ATemplate, c.Text, c.Ops);
}

void RunProgram(TRenderer& R, const TBXmlTemplateNode* T, const TBXmlSubstArrayNode* AArray) {
  const std::string_view text = T->ProgramText;
  for (uint32_t i = 0; i < T->OpCount; ++i) {
    const TBXmlOp& op = T->Ops[i];
    if (op.TextLength) {
      R.Out.append(text.data() + op.TextOffset, op.TextLength);
      continue;
    }
    Check(R.Budget-- > 0, "BinXML output too large");
    const size_t mark = R.Out.size();
    if (op.Attribute) R.Out.append(text.data() + op.AttributeTextOffset, op.Attribute->Text.size() + 3);
    const size_t valueStart = R.Out.size();
    if (op.Element && AArray && op.Index < AArray->Count && IsArrayCode(AArray->Values[op.Index].Type)) {
      AppendRepeatedItems(R, op.Element, text.substr(op.StartTagOffset, op.TextOffset - op.StartTagOffset),
                          AArray->Values[op.Index]);
      continue;
    }
    if (AArray) AppendSubstValue(R, AArray, op.Index);
    else PutPlaceholder(R.Out, op.Index, op.Type, op.Optional);
    if (op.Optional && R.Out.size() == valueStart) {
      R.Out.resize(mark); // an empty optional value writes nothing, its attribute name included
      continue;
    }
    if (op.Attribute) {
      R.Out.push_back('"');
      R.AttrValueEnd = R.Out.size();
    }
  }
}

void RenderNode(TRenderer& R, const TBXmlNodeCommon* N, const TBXmlSubstArrayNode* AArray) {
  Check(R.Budget-- > 0, "BinXML output too large");
  switch (N->Kind) {
  case TBXmlKind::bkChild01: {
    auto* e = static_cast<const TBXmlChild01Node*>(N);
    Check(e->Name != nullptr, "Node01: Unable to make XML");
    const size_t start = R.Out.size();
    R.Out.append("\r\n<");
    PutName(R.Out, e->Name);
    if (++R.Depth >= kMaxBXmlDepth) RaiseBinXml("BinXML nesting too deep");
    const TBXmlChild0DNode* sole = AArray && e->SawCloseStart ? SoleContentSubstitution(e) : nullptr;
    if (sole && sole->Index < AArray->Count && IsArrayCode(AArray->Values[sole->Index].Type)) {
      const TBXmlNodeCommon* n = e->FirstChild;
      for (; n && n->Kind != TBXmlKind::bkChild02; n = n->Next) RenderNode(R, n, AArray);
      RenderNode(R, n, AArray); // the start tag's ">"
      const std::string startTag(R.Out, start);
      AppendRepeatedItems(R, e->Name, startTag, AArray->Values[sole->Index]);
      --R.Depth;
      R.Out.append("</");
      PutName(R.Out, e->Name);
      R.Out.push_back('>');
      return;
    }
    RenderList(R, e->FirstChild, AArray);
    --R.Depth;
    R.Pending = nullptr;
    // An element never closed by its stream still closes: empty if its start tag is open.
    if (e->Close == 1 || (e->Close == 0 && !e->SawCloseStart)) {
      R.Out.append(" />");
    } else {
      R.Out.append("</");
      PutName(R.Out, e->Name);
      R.Out.push_back('>');
    }
    return;
  }
  case TBXmlKind::bkChild02:
    R.Pending = nullptr;
    R.Out.push_back('>');
    return;
  case TBXmlKind::bkChild05: {
    auto* v = static_cast<const TBXmlChild05Node*>(N);
    BeginValue(R, v->InStartTag);
    if (v->Nested) {
      ++R.Depth;
      RenderRootBody(R, v->Nested);
      --R.Depth;
    } else {
      R.Out.append(v->Text);
    }
    EndValue(R, v->InStartTag);
    return;
  }
  case TBXmlKind::bkChild06: {
    auto* a = static_cast<const TBXmlChild06Node*>(N);
    Check(a->Name != nullptr, "Node6: Unable to make XML");
    R.Pending = a->Name;
    return;
  }
  case TBXmlKind::bkChild07:
    R.Out.append("<![CDATA[");
    R.Out.append(static_cast<const TBXmlChild07Node*>(N)->Text);
    R.Out.append("]]>");
    return;
  case TBXmlKind::bkChild09: {
    auto* a = static_cast<const TBXmlChild09Node*>(N);
    Check(a->Name != nullptr, "BinXML read error");
    // Inside a start tag an entity reference is part of the attribute's value.
    const bool inTag = a->InStartTag;
    BeginValue(R, inTag);
    R.Out.push_back('&');
    PutName(R.Out, a->Name);
    R.Out.push_back(';');
    EndValue(R, inTag);
    return;
  }
  case TBXmlKind::bkChild0A: {
    auto* a = static_cast<const TBXmlChild0ANode*>(N);
    Check(a->Name != nullptr, "NodeA: Unable to make XML");
    R.Out.append("<?");
    PutName(R.Out, a->Name);
    return;
  }
  case TBXmlKind::bkChild0B: {
    auto* t = static_cast<const TBXmlChild0BNode*>(N);
    if (!t->Text.empty()) {
      R.Out.push_back(' ');
      R.Out.append(t->Text);
    }
    R.Out.append("?>");
    return;
  }
  case TBXmlKind::bkChild0C: {
    auto* c = static_cast<const TBXmlChild0CNode*>(N);
    Check(c->Template != nullptr, "NodeC: Unable to make XML");
    if (++R.Depth >= kMaxBXmlDepth) RaiseBinXml("BinXML nesting too deep");
    if (c->Template->ProgramState == 0) CompileTemplate(R.Chunk, c->Template);
    if (c->Template->ProgramState == 1 && !R.Pending) {
      RunProgram(R, c->Template, AArray);
    } else {
      EnsureTemplateNodes(R.Chunk, c->Template);
      RenderList(R, c->Template->FirstChild, AArray);
    }
    --R.Depth;
    return;
  }
  case TBXmlKind::bkChild0D:
  case TBXmlKind::bkChild0E:
    RenderSubstitution(R, static_cast<const TBXmlChild0DNode*>(N), AArray);
    return;
  default: // 0x00, 0x03, 0x04, 0x0F write nothing
    return;
  }
}

void RenderList(TRenderer& R, const TBXmlNodeCommon* AFirst, const TBXmlSubstArrayNode* AArray) {
  for (const TBXmlNodeCommon* n = AFirst; n; n = n->Next) RenderNode(R, n, AArray);
}

void RenderRootBody(TRenderer& R, const TBXmlRootNode* ARoot) { RenderList(R, ARoot->FirstChild, ARoot->Array); }

} // namespace

TBXmlRootNode* CreateRootNode(TEvtxChunk& AChunk, uint32_t AStart, uint32_t ALength) {
  return MakeRoot(AChunk, AStart, ALength);
}

void PrepareRootNode(TEvtxChunk& AChunk, TBXmlRootNode* ARoot, int ADepth) {
  Check(ARoot != nullptr, "Common: undefined root");
  PrepareRoot(AChunk, ARoot, ADepth);
}

bool CompileTemplateProgram(TEvtxChunk& AChunk, TBXmlTemplateNode* ATemplate) {
  if (ATemplate->ProgramState == 0) CompileTemplate(AChunk, ATemplate);
  return ATemplate->ProgramState == 1;
}

TBXmlTemplateNode* PrepareTemplateAt(TEvtxChunk& AChunk, uint32_t AOffset) {
  Check(AChunk.Data() != nullptr, "Common: undefined root");
  TBXmlTemplateNode* t = MakeTemplate(AChunk, AOffset, 0);
  EnsureTemplateNodes(AChunk, t);
  return t;
}

void EnsureTemplateNodes(TEvtxChunk& AChunk, TBXmlTemplateNode* ATemplate) {
  if (!ATemplate || !ATemplate->NodesDeferred) return;
  ATemplate->NodesDeferred = false;
  // The names resolve as they did for the entry (checked when it was taken), so this
  // parse builds the nodes the entry's program was compiled from.
  TParser P(AChunk, ATemplate->ParseDepth, true);
  ParseStream(P, ATemplate, ATemplate->Offset + ATemplate->Header, ATemplate->Offset + ATemplate->Size);
}

TBXmlSharedTemplates::TBXmlSharedTemplates() : FImpl(std::make_unique<TImpl>()) {
  const TTemplateCache& own = GTemplateCache;
  size_t slots = 16;
  while (slots < 2 * own.MaxEntries) slots *= 2;
  FImpl->Slots = std::make_unique<std::atomic<const TCachedTemplate*>[]>(slots);
  for (size_t i = 0; i < slots; ++i) FImpl->Slots[i].store(nullptr, std::memory_order_relaxed);
  FImpl->Mask = slots - 1;
  FImpl->MaxEntries = own.MaxEntries;
  // The limits of the creating thread's cache, as its own pool would lay them out.
  FImpl->BlockSize = std::max<size_t>(std::min(kTemplateCacheBlock, own.MaxBytes), 4096);
  FImpl->MaxBlocks = std::max<size_t>(own.MaxBytes / FImpl->BlockSize, 1);
  FImpl->Room = std::make_unique<TPageBuffer>(FImpl->MaxBlocks * FImpl->BlockSize, TPageUse::puOnFirstUse);
}

TBXmlSharedTemplates::~TBXmlSharedTemplates() = default;

size_t TBXmlSharedTemplates::Entries() const { return FImpl->Added.load(std::memory_order_relaxed); }

TBXmlSharedTemplates::TUse::TUse(TBXmlSharedTemplates& AShared) : FState(std::make_unique<TState>()) {
  FState->Impl = AShared.FImpl.get();
  FState->Previous = GSharedUse;
  GSharedUse = FState.get();
}

TBXmlSharedTemplates::TUse::~TUse() { GSharedUse = FState->Previous; }

TBXmlTemplateCacheInfo BXmlTemplateCacheInfo() {
  const TTemplateCache& cache = GTemplateCache;
  return {cache.Count, cache.Pool.Used(), cache.Hits, cache.Misses};
}

void SetBXmlTemplateCacheLimits(size_t AMaxEntries, size_t AMaxBytes) {
  TTemplateCache& cache = GTemplateCache;
  cache.Clear();
  cache.Hits = cache.Misses = 0;
  cache.MaxEntries = AMaxEntries;
  cache.MaxBytes = AMaxBytes;
  cache.Pool.SetLimit(AMaxBytes);
}

void RenderRoot(TEvtxChunk& AChunk, TBXmlRootNode* ARoot, std::string& AOut) {
  Check(ARoot != nullptr, "Common: undefined root");
  PrepareRoot(AChunk, ARoot, 0);
  Check(ARoot->Valid, "Common: undefined root");
  TRenderer R{AChunk, AOut};
  try {
    RenderRootBody(R, ARoot);
  } catch (const EBinXMLLogReadingException& e) {
    throw EBinXMLLogReadingException("Root exception", e.Detail().empty() ? e.what() : e.Detail());
  }
}

std::string RenderTemplate(TEvtxChunk& AChunk, TBXmlTemplateNode* ATemplate) {
  std::string out;
  if (!ATemplate) return out;
  EnsureTemplateNodes(AChunk, ATemplate);
  TRenderer R{AChunk, out};
  RenderList(R, ATemplate->FirstChild, nullptr);
  return out;
}

} // namespace qvx
