// Binary XML token decoder: one node class per token, built lazily over a chunk's bytes.
//
// A record's binary XML is a token stream that refers to name strings and template
// definitions stored elsewhere in the same chunk, followed by the values that fill
// the template. Nodes are parsed once, kept in their chunk's arena, and rendered as
// XML text into a caller's buffer. Name strings and template definitions are shared
// through the chunk's caches, so a template is decoded once per chunk and reused by
// every record that refers to it.
//
// Token layouts (offsets from the token byte, little-endian; the token's high bits are
// flags, 0x40 = more data):
//   0x00 end of stream          token
//   0x01 open start element     token, u16 dependency @1, u32 data size @3, u32 name offset @7,
//                               [inline name], [u32 attribute list size when flag 0x40]
//   0x02 close start element    token           0x03 close empty element   token
//   0x04 end element            token
//   0x05 value text             token, u8 value type @1, value
//   0x06 attribute              token, u32 name offset @1, [inline name]
//   0x07 CDATA section          token, u16 character count @1, UTF-16 text
//   0x09 entity reference       token, u32 name offset @1
//   0x0A PI target              token, u32 name offset @1
//   0x0B PI data                token, u16 character count @1, UTF-16 text
//   0x0C template instance      token, u8 1 @1, u32 template id @2, u32 definition offset @6
//   0x0D/0x0E substitution      token, u16 index @1, u8 value type @3 (0x0E: optional)
//   0x0F fragment header        token, u8 major 1 @1, u16 1 @2
// Name string: u32 next offset, u16 hash, u16 character count, UTF-16 text, u16 NUL.
// Template definition: u32 next offset, 16-byte GUID (its first 4 bytes are the
// template id), u32 data size, token stream.
// Substitution array: u32 count, count x (u16 size, u8 type, u8 unused), the values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

class TEvtxChunk;

// Bump allocator for the nodes of one chunk; everything is freed with the chunk.
class TBXmlArena {
public:
  TBXmlArena() = default;
  ~TBXmlArena();
  TBXmlArena(const TBXmlArena&) = delete;
  TBXmlArena& operator=(const TBXmlArena&) = delete;

  void* Allocate(size_t ASize, size_t AAlign) {
    size_t pad = (AAlign - reinterpret_cast<uintptr_t>(FCursor) % AAlign) % AAlign;
    if (FCursor && pad + ASize <= FLeft) [[likely]] {
      std::byte* p = FCursor + pad;
      FCursor = p + ASize;
      FLeft -= pad + ASize;
      FTotal += ASize;
      return p;
    }
    return AllocateBlock(ASize, AAlign);
  }
  template <typename T> T* New() {
    static_assert(std::is_trivially_destructible_v<T>);
    return new (Allocate(sizeof(T), alignof(T))) T();
  }
  std::string_view CopyString(std::string_view AText);
  size_t BytesUsed() const { return FTotal; }

private:
  void* AllocateBlock(size_t ASize, size_t AAlign);

  std::vector<std::unique_ptr<std::byte[]>> FBlocks;
  std::vector<size_t> FBlockSizes;
  std::byte* FCursor = nullptr;
  size_t FLeft = 0;
  size_t FTotal = 0;
};

enum class TBXmlKind : uint8_t {
  bkRoot, bkTemplate, bkNameString, bkSubstArray,
  bkChild00, bkChild01, bkChild02, bkChild03, bkChild04, bkChild05, bkChild06, bkChild07,
  bkChild09, bkChild0A, bkChild0B, bkChild0C, bkChild0D, bkChild0E, bkChild0F
};

class TBXmlNodeCommon {
public:
  TBXmlKind Kind = TBXmlKind::bkRoot;
  uint8_t Token = 0;
  bool Valid = false;
  bool Prepared = false;
  uint32_t Offset = 0;      // chunk offset of the node's first byte
  uint32_t Size = 0;        // header + data
  uint32_t Header = 0;
  uint32_t Data = 0;
  uint32_t SubstStart = 0;  // chunk offset where substitution values begin, or 0
  TBXmlNodeCommon* Parent = nullptr;
  TBXmlNodeCommon* FirstChild = nullptr;
  TBXmlNodeCommon* LastChild = nullptr;
  TBXmlNodeCommon* Next = nullptr;

  // Child i, or none when i is outside 0 .. count-1.
  TBXmlNodeCommon* GetNode(size_t AIndex) const;
  size_t ChildCount() const;
};

class TBXmlPreparelessNode : public TBXmlNodeCommon {};

class TBXmlNameStringNode : public TBXmlPreparelessNode {
public:
  uint16_t Hash = 0;
  std::string_view Text; // UTF-8
};

class TBXmlRootNode;

// One entry of a substitution array.
struct TBXmlSubstValue {
  uint32_t Offset;
  uint16_t Size;
  uint8_t Type;
  TBXmlRootNode* Nested; // type 0x21: the embedded fragment, parsed on first use
};

class TBXmlSubstArrayNode : public TBXmlNodeCommon {
public:
  uint32_t Count = 0;
  uint32_t NestedCount = 0; // values of type 0x21 with bytes (embedded fragments)
  TBXmlSubstValue* Values = nullptr;
};

// One step of a template compiled for rendering: a run of fixed text, or a
// substitution (with the attribute it fills, if any).
struct TBXmlOp {
  uint32_t TextOffset; // literal: where its text starts in the program's text;
                       // substitution: where it falls in that text
  uint32_t TextLength; // literal: its length; 0 for a substitution
  uint16_t Index;      // substitution index
  uint8_t Type;        // substitution value type (for placeholders)
  bool Optional;       // 0x0E: an empty value writes nothing, attribute name included
  const TBXmlNameStringNode* Attribute; // the attribute the value fills, or null in content
  // A substitution that is an element's whole content under a start tag of fixed text:
  // the element, and where that start tag ("\r\n<Name ...>") begins in the program's
  // text (it ends at TextOffset). An array value then repeats the element per item.
  const TBXmlNameStringNode* Element;
  uint32_t StartTagOffset;
  // With an attribute: where " Name=\"" (its name's length + 3 bytes) starts in the
  // program's text, so the renderer copies it in one piece. No literal op covers it.
  uint32_t AttributeTextOffset = 0;
};

class TBXmlTemplateNode : public TBXmlNodeCommon {
public:
  uint32_t NextOffset = 0;
  uint32_t TemplateId = 0;
  uint8_t Guid[16] = {};
  // The template's text compiled once per chunk: fixed text runs and substitutions.
  // State 0: not compiled yet; 1: compiled; 2: holds constructs that only the node
  // renderer handles (it is used instead).
  uint8_t ProgramState = 0;
  // Taken from the thread's cache of compiled templates: the program is there, the
  // nodes are parsed only when something asks for them (EnsureTemplateNodes).
  bool NodesDeferred = false;
  uint8_t ParseDepth = 0; // the nesting the definition was parsed at
  uint32_t OpCount = 0;
  const TBXmlOp* Ops = nullptr;
  std::string_view ProgramText;
};

class TBXmlRootNode : public TBXmlNodeCommon {
public:
  uint32_t Length = 0; // bytes of the stream and its values
  TBXmlSubstArrayNode* Array = nullptr;
};

class TBXmlChild00Node : public TBXmlPreparelessNode {};
class TBXmlChild01Node : public TBXmlNodeCommon {
public:
  uint16_t Dependency = 0;
  uint32_t NameOffset = 0;
  const TBXmlNameStringNode* Name = nullptr;
  uint8_t Close = 0;        // 0 not closed, 1 empty (0x03), 2 end tag (0x04)
  bool SawCloseStart = false;
};
class TBXmlChild02Node : public TBXmlPreparelessNode {};
class TBXmlChild03Node : public TBXmlPreparelessNode {};
class TBXmlChild04Node : public TBXmlPreparelessNode {};
class TBXmlChild05Node : public TBXmlNodeCommon {
public:
  uint8_t ValueType = 0;
  bool InStartTag = false;
  std::string_view Text;            // escaped value text
  TBXmlRootNode* Nested = nullptr;  // value type 0x21
};
class TBXmlChild06Node : public TBXmlNodeCommon {
public:
  bool InStartTag = false;
  uint32_t NameOffset = 0;
  const TBXmlNameStringNode* Name = nullptr;
};
class TBXmlChild07Node : public TBXmlNodeCommon {
public:
  std::string_view Text;
};
class TBXmlChild09Node : public TBXmlChild06Node {};
class TBXmlChild0ANode : public TBXmlChild06Node {};
class TBXmlChild0BNode : public TBXmlChild07Node {};
class TBXmlChild0CNode : public TBXmlNodeCommon {
public:
  uint32_t TemplateId = 0;
  uint32_t TemplateOffset = 0;
  TBXmlTemplateNode* Template = nullptr;
};
class TBXmlChild0DNode : public TBXmlNodeCommon {
public:
  uint16_t Index = 0;
  uint8_t ValueType = 0;
  bool InStartTag = false;
};
class TBXmlChild0ENode : public TBXmlChild0DNode {};
class TBXmlChild0FNode : public TBXmlPreparelessNode {};

// Creates the root node of one record's binary XML: ALength bytes from AStart in the
// chunk. Nothing is parsed until the first render.
TBXmlRootNode* CreateRootNode(TEvtxChunk& AChunk, uint32_t AStart, uint32_t ALength);

// Appends the record's XML text. Raises EBinXMLLogReadingException on a structural
// fault: faults met while building the nodes keep their own texts ("NodeC: no
// template"), faults met while writing the text raise "Root exception" with the
// inner fault as Detail(). On a raise, AOut may hold part of the record.
void RenderRoot(TEvtxChunk& AChunk, TBXmlRootNode* ARoot, std::string& AOut);

// Renders a template definition alone, with "#i (type 0xNN)#" in place of its values.
std::string RenderTemplate(TEvtxChunk& AChunk, TBXmlTemplateNode* ATemplate);

// Builds (once) and returns the template definition at AOffset, adding it to the chunk's
// templates. Raises on a fault.
TBXmlTemplateNode* PrepareTemplateAt(TEvtxChunk& AChunk, uint32_t AOffset);

// Parses (once) the nodes and substitution values of a record's root, as the first render
// does. Raises EBinXMLLogReadingException with the same text as RenderRoot would for a
// fault met while building the nodes; after such a raise the root is not to be read again.
// ADepth: the nesting the render would prepare it at (an embedded fragment's value at
// level L of fragments within the record is prepared at 2 L).
void PrepareRootNode(TEvtxChunk& AChunk, TBXmlRootNode* ARoot, int ADepth = 0);

// Compiles ATemplate's program (once); true when it has one (ProgramState 1), false
// when the template holds constructs that only the node renderer handles.
bool CompileTemplateProgram(TEvtxChunk& AChunk, TBXmlTemplateNode* ATemplate);

// Parses the nodes of a template that was taken from the template cache with its
// program only (NodesDeferred); does nothing for any other. Raises as the parse does.
void EnsureTemplateNodes(TEvtxChunk& AChunk, TBXmlTemplateNode* ATemplate);

// The compiled templates kept by the calling thread from chunk to chunk. A definition
// met again (the same bytes, its names resolving to the same texts in the new chunk,
// parsed at the same nesting) takes its program from here instead of being parsed and
// compiled again. When either limit would be passed the cache is emptied.
struct TBXmlTemplateCacheInfo {
  size_t Entries = 0;
  size_t Bytes = 0;
  uint64_t Hits = 0;
  uint64_t Misses = 0; // definitions parsed that the cache could have held
};
TBXmlTemplateCacheInfo BXmlTemplateCacheInfo();
inline constexpr size_t kBXmlTemplateCacheEntries = 4096;
inline constexpr size_t kBXmlTemplateCacheBytes = 16 * 1024 * 1024;
// Sets the calling thread's limits (entries, bytes) and empties its cache; for tests.
void SetBXmlTemplateCacheLimits(size_t AMaxEntries, size_t AMaxBytes);

// Compiled templates shared by the threads that render the chunks of one file, so that
// each definition is compiled once rather than once per thread. While a thread holds a
// TUse of it, the templates that thread compiles go here (until the limits of the
// creating thread's cache are reached; then to its own cache, as before) and it looks
// here before its own cache. Entries are never changed or freed while it lives: threads
// read it without a lock, and add to it without one too (each lays its entries out in
// memory of its own, then claims a free slot of the table). It must outlive every TUse
// of it.
class TBXmlSharedTemplates {
public:
  struct TImpl;

  TBXmlSharedTemplates();
  ~TBXmlSharedTemplates();
  TBXmlSharedTemplates(const TBXmlSharedTemplates&) = delete;
  TBXmlSharedTemplates& operator=(const TBXmlSharedTemplates&) = delete;
  size_t Entries() const;

  // Installs the cache on the calling thread for its lifetime (and the one installed
  // before it again afterwards).
  class TUse {
  public:
    explicit TUse(TBXmlSharedTemplates& AShared);
    ~TUse();
    TUse(const TUse&) = delete;
    TUse& operator=(const TUse&) = delete;

    // The cache in use on a thread, and the room that thread lays its entries out in.
    struct TState;

  private:
    std::unique_ptr<TState> FState;
  };

private:
  std::unique_ptr<TImpl> FImpl;
};

// Deepest nesting of elements and fragments a record may have.
inline constexpr int kMaxBXmlDepth = 128;

} // namespace qvx
