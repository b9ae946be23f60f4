// A cache of parsed rule files, so that a rule set loads without reading YAML again.
//
// Reading YAML is most of the time a rule set takes to load; compiling the parsed tree is
// quick. The cache keeps, per rule file, the YAML documents as TYamlNode trees (or the
// reason the file could not be read as YAML), keyed by the file's path, size, change time
// and a hash of its bytes; rules are compiled from them as from freshly parsed text, so a
// cached load gives the same rules, detections and unusable rules as an uncached one.
//
// An entry also keeps what compiling each document gave (TRuleVerdict: the rule without
// its detection, or why it cannot be used), so that a cached load knows every rule's log
// source, level and usability without compiling it: the rule set compiles a cached rule
// only when an event it can match first arrives (rule_set.h). The format version changes
// whenever compiling gives other results.
//
// An entry also keeps the file's stamp (platform/file_stamp.h: identity and entry change
// time beside size and change time); a rule file whose stamp is the entry's is taken
// from the cache without being read at all, as reading and hashing two thousand files
// costs more than the rest of a cached load. Any other is read and its hash compared.
//
// One cache file per rule path loaded (file or folder), in the user's cache folder
// ($XDG_CACHE_HOME/quorvex or ~/.cache/quorvex), named after a hash of the absolute path.
// A load needs every entry's key and verdicts but the parsed form only of the rules it
// compiles, so the keys and verdicts come first (the index, read whole at load) and the
// parsed forms after them (read one by one when a rule is compiled):
//
//   offset size  field
//   0      8     magic "QVXRULEC"
//   8      4     format version (kVersion), u32 little-endian
//   12     8     index size, u64
//   20     8     index hash (HashWords), u64
//   28     ...   index: entry count u32, then per entry (sorted by path)
//                  path (u32 length, bytes), size u64, change time i64, content hash u64,
//                  entry change time i64, identity u64 (both 0: no stamp),
//                  state u8 (0 documents, 1 error), parsed form: offset u64 (from the
//                  end of the index), length u32, hash (HashWords) u64,
//                  verdicts (u32 length, bytes; 0: none kept), as EncodeVerdicts writes:
//                    u32 count, then per verdict: document u32, state u8 (1 compiled),
//                    compiled: title, id, author, status, description, date (texts),
//                      level u8, tags, slot names (u32 count, texts), product,
//                      category, service (texts), event IDs (u32 count, u32 each)
//                    not compiled: title, error (texts)
//   28+index     parsed forms, as Encode writes: state u8 (0 documents, 1 error), then
//                  error: u32 length, bytes
//                  documents: u32 count, then nodes
//                  node: kind u8 (TYamlNode::TKind), line u32, then
//                    scalar: u32 length, bytes;  list: u32 count, nodes;
//                    map: u32 count, (u32 key length, key bytes, node) each
//
// The cache file is untrusted: the index is read whole under a size limit and its hash
// checked, every length, count and parsed form's place is checked against the bytes
// there are, nesting and node counts are bounded, and a wrong magic, version, size or
// hash drops the whole file. A parsed form is read when needed and its hash checked then;
// one that does not read back (or an entry whose key does not match the rule file) sends
// the caller to the rule file itself. Writing goes to a temporary file renamed over the
// old one, so readers never see half a cache (and one reading keeps the file it opened);
// a cache that cannot be written is simply not kept.
#pragma once

#include "hunt/sigma_rule.h"
#include "hunt/sigma_yaml.h"
#include "platform/file_stamp.h"
#include "platform/raw_file.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qvx::hunt {

// FNV-1a 64 of a text.
uint64_t HashBytes(std::string_view AText);
// A 64-bit hash of a text read 8 bytes at a time (several times quicker than HashBytes
// on megabytes); not a cryptographic hash.
uint64_t HashWords(std::string_view AText);

// What identifies one version of a rule file: path, size, change time and content hash
// (compared), and the stamp it had when last seen (not compared; zero when unknown).
struct TRuleFileKey {
  std::string Path;
  uint64_t Size = 0;
  int64_t ChangeTime = 0;
  uint64_t Hash = 0;
  int64_t StatusTime = 0;
  uint64_t Identity = 0;
  friend bool operator==(const TRuleFileKey& A, const TRuleFileKey& B) {
    return A.Path == B.Path && A.Size == B.Size && A.ChangeTime == B.ChangeTime && A.Hash == B.Hash;
  }
};

// A parsed rule file: its documents, or why it could not be read as YAML.
struct TParsedRuleFile {
  bool Failed = false;
  std::string Error;
  std::vector<TYamlNode> Documents;
};

// What compiling one document of a rule file gave: the rule without its detection
// (everything but Searches, Condition and TestCount), or its title and why it cannot be used.
struct TRuleVerdict {
  uint32_t Document = 0; // among the file's documents
  std::unique_ptr<TSigmaRule> Header; // null: not compiled
  std::string Title, Error;
};

// An entry found in the cache: where its parsed file (Encode's form) is (TRuleCache::
// ReadParsed reads it), and its verdicts (EncodeVerdicts' form; empty when none were
// kept: a view into the cache, good while it lives).
struct TCachedRuleFile {
  std::string_view Verdicts;
  bool Failed = false; // the file is not YAML: the parsed form holds only the error
  uint64_t ParsedAt = 0;
  uint32_t ParsedLength = 0;
  uint64_t ParsedHash = 0;
  size_t Entry = 0; // the entry's place in the cache (Keep's hint)
};

class TRuleCache {
public:
  // Changed whenever the form changes or compiling a rule gives other results (entries
  // keep the verdicts).
  static constexpr uint32_t kVersion = 6;
  static constexpr uint64_t kMaxFileBytes = 256ull << 20;

  // The user's cache folder for quorvex; "" when neither XDG_CACHE_HOME nor HOME is set.
  static std::string DefaultFolder();
  // The cache file of a rule path (file or folder) inside AFolder.
  static std::string FileFor(const std::string& AFolder, const std::string& ARulePath);

  // A cache backed by AFile (not read yet).
  explicit TRuleCache(std::string AFile) : FFile(std::move(AFile)) {}

  // Reads the cache file's index (and keeps the file open for ReadParsed). A missing,
  // damaged or foreign file leaves the cache empty (and Note() says why for a damaged
  // one); never raises.
  void Load();
  // The parsed file of AKey when the cache holds exactly that version of it; false
  // otherwise (also when its entry does not read back). Safe on several threads at once.
  bool Find(const TRuleFileKey& AKey, TParsedRuleFile& AParsed) const;
  // The parsed file of APath when its entry was made from the file as AStamp shows it
  // (so it need not be read), with the entry's key in AKey; false otherwise. Safe on
  // several threads at once.
  bool FindUnread(const std::string& APath, const TFileStamp& AStamp, TRuleFileKey& AKey,
                  TParsedRuleFile& AParsed) const;
  // The same, as the entry's bytes (not decoded).
  bool Find(const TRuleFileKey& AKey, TCachedRuleFile& AFound) const;
  // AHint: the place the entry is likely at (the file's place in a sorted listing of the
  // same files); any value finds it, a right one quicker.
  bool FindUnread(const std::string& APath, const TFileStamp& AStamp, TRuleFileKey& AKey,
                  TCachedRuleFile& AFound, size_t AHint = 0) const;
  // The parsed file (Encode's form) of an entry found, read from the cache file; false
  // when it cannot be read or its hash does not match (the caller reads the rule file).
  // Safe on several threads at once.
  bool ReadParsed(const TCachedRuleFile& AFound, std::string& ABytes) const;
  // Keeps a parsed file (Encode's form) and its verdicts (EncodeVerdicts' form, or "")
  // for the next save.
  void Put(const TRuleFileKey& AKey, std::string AEncoded, std::string AVerdicts = {});
  // Keeps the entry Find found for AKey for the next save, with AKey's stamp (AHint: the
  // found entry's Entry).
  void Keep(const TRuleFileKey& AKey, size_t AHint = 0);
  // Writes the entries put or kept since Load when anything changed (entries not used
  // this time are dropped). Returns false when the file could not be written.
  bool Save();

  size_t Hits() const { return FHits; }
  size_t Misses() const { return FMisses; }
  const std::string& Note() const { return FNote; }
  const std::string& File() const { return FFile; }

  // The serialised form of a parsed file, and back (false for bytes that do not read).
  static void Encode(const TParsedRuleFile& AParsed, std::string& AOut);
  static bool Decode(std::string_view ABytes, TParsedRuleFile& AParsed);
  // The verdicts of a file's documents, and back (false for bytes that do not read; the
  // headers' File is AFile).
  static void EncodeVerdicts(const std::vector<TRuleVerdict>& AVerdicts, std::string& AOut);
  static bool DecodeVerdicts(std::string_view ABytes, const std::string& AFile, std::vector<TRuleVerdict>& AVerdicts);

private:
  struct TEntry {
    std::string_view Path; // in FIndex or FOwned
    uint64_t Size = 0;
    int64_t ChangeTime = 0;
    uint64_t Hash = 0;
    int64_t StatusTime = 0;
    uint64_t Identity = 0;
    TCachedRuleFile Found;  // its verdicts in FIndex or FOwned
    std::string_view Owned; // an entry put this time: its parsed form, in FOwned
    bool Kept = false;      // kept or replaced for the next save
    bool Matches(const TRuleFileKey& AKey) const {
      return Path == AKey.Path && Size == AKey.Size && ChangeTime == AKey.ChangeTime && Hash == AKey.Hash;
    }
  };
  // The place of APath's entry in FLoaded; FLoaded.size() when there is none.
  size_t Locate(std::string_view APath, size_t AHint) const;
  TRuleFileKey KeyOf(const TEntry& AEntry) const;

  std::string FFile;
  std::string FNote;
  TRawFile FRaw;                  // the cache file, open for ReadParsed
  std::unique_ptr<char[]> FIndex; // its index as read
  uint64_t FParsedBase = 0;       // where the parsed forms begin
  uint64_t FParsedSize = 0;       // and how many bytes they take
  std::deque<std::string> FOwned; // entries encoded this time (stable places)
  std::vector<TEntry> FLoaded;    // sorted by path, one per path
  std::vector<TEntry> FNext;
  size_t FKept = 0;
  bool FChanged = false;
  size_t FHits = 0, FMisses = 0;
};

} // namespace qvx::hunt
