// A set of compiled Sigma rules bound to Windows logs, and the hunter that tests events
// against them.
//
// Loading reads rule files and folders, compiles each rule once, and binds it to the
// places its log source maps to (one binding per channel: the event IDs it can match and
// the event field each of its fields reads). Bindings are indexed by channel and event
// ID, so an event is tested only against the rules that can match it, and an event no
// rule can match is not even read for fields. Every literal of the bound rules goes into
// one index (literal_index.h): per event, the values are scanned once for all of them,
// and only the rules whose literals were found are evaluated. Rules that cannot be used
// are kept with the reason, once each; loading goes on.
#pragma once

#include "hunt/event_fields.h"
#include "hunt/literal_index.h"
#include "hunt/log_mapping.h"
#include "hunt/rule_cache.h"
#include "hunt/rule_binding.h"
#include "hunt/sigma_match.h"
#include "hunt/sigma_rule.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qvx::hunt {

struct TRuleFilter {
  TSigmaLevel MinLevel = slInformational;
  std::vector<std::string> Statuses; // folded; empty: every status
};

struct TUnusableRule {
  std::string File;
  std::string Title;
  std::string Reason; // "FILE:LINE: why"
};

// The bindings of one channel and event ID (or of any ID), in load order, with the
// event fields whose values must be scanned for their literals.
struct TBindingList {
  std::vector<const TRuleBinding*> Bindings;
  std::vector<TLiteralIndex::TScan> Scans;
  // Per binding, in the same order: its number, with kAlways when it needs no literal.
  std::vector<uint32_t> Numbers;
  static constexpr uint32_t kAlways = 0x80000000;
  // A long list is not walked whole per event: the places of the bindings that need no
  // literal, and (number, place) of the others sorted by number.
  static constexpr size_t kLongList = 64;
  std::vector<uint32_t> AlwaysAt;
  std::vector<std::pair<uint32_t, uint32_t>> PlaceOf;
};

class TRuleSet {
public:
  explicit TRuleSet(const TLogMapping& AMapping = TLogMapping::Windows(), TRuleFilter AFilter = {});
  TRuleSet(const TRuleSet&) = delete;
  TRuleSet& operator=(const TRuleSet&) = delete;

  // Loads a rule file, or every .yml/.yaml file under a folder (sorted, recursively).
  // Raises ESigmaError only when APath does not exist or cannot be read. With a cache
  // folder set, parsed files are taken from and kept in a rule cache there (rule_cache.h).
  void LoadPath(const std::string& APath);
  // The folder of the rule cache LoadPath uses ("" = none, the default).
  void SetCacheFolder(std::string AFolder) { FCacheFolder = std::move(AFolder); }
  // Rule files found in the cache and parsed, and what went wrong with the cache (a
  // damaged file ignored, a file not written); the rules are loaded either way.
  size_t CacheHits() const { return FCacheHits; }
  size_t CacheMisses() const { return FCacheMisses; }
  const std::vector<std::string>& CacheNotes() const { return FCacheNotes; }
  // Loads the rules of one file's text.
  void LoadText(const std::string& AText, const std::string& AFile);

  const std::vector<std::unique_ptr<TSigmaRule>>& Rules() const { return FRules; }
  const std::vector<TUnusableRule>& Unusable() const { return FUnusable; }
  size_t FilteredOut() const { return FFilteredOut; }
  const TFieldNames& FieldNames() const { return FNames; }

  // The bindings an event of AChannel (any case) with AEventId is tested against, in
  // up to four lists (the channel's by ID and for any ID, then those of rules that read
  // every channel); null lists are empty. AKey is the caller's room for the folded channel.
  struct TCandidates {
    const TBindingList* Lists[4] = {};
  };
  TCandidates Candidates(std::string_view AChannel, uint32_t AEventId, std::string& AKey) const;
  // Builds the literal index; done by the first Candidates call when not called before
  // (by one thread: hunters that start together wait for it). Rules loaded afterwards
  // build it again. Hunters on several threads may share the rule set (loading more
  // rules while they run is not allowed).
  void Prepare() const;
  // The literal index (null before Prepare).
  const TLiteralIndex* Literals() const { return FLiterals.get(); }
  size_t BindingCount() const { return FBindings.size(); }

private:
  struct TChannelIndex {
    std::unordered_map<uint32_t, TBindingList> ById;
    TBindingList AnyId;
  };
  // A rule file read and compiled (on any thread), document by document.
  struct TCompiledRule {
    std::unique_ptr<TSigmaRule> Rule; // null when it could not be compiled
    std::string Title, Error;
  };
  struct TParsedFile {
    std::vector<TCompiledRule> Rules;
    std::string Error; // why the file could not be read as YAML
    TRuleFileKey Key;    // with a cache: the file's version
    bool Cached = false; // found in the cache
    std::string Encoded; // not found: its cache entry
  };
  static TParsedRuleFile ParseFile(const std::string& AText, const std::string& AFile);
  static void CompileDocuments(const TParsedRuleFile& AYaml, const std::string& AFile, TParsedFile& AParsed);
  static void Read(const std::string& AText, const std::string& AFile, TParsedFile& AParsed);
  void Compile(TParsedFile& AParsed, const std::string& AFile);
  void Bind(const TSigmaRule& ARule, const std::vector<TLogSourceVariant>& AVariants);

  const TLogMapping& FMapping;
  TRuleFilter FFilter;
  TFieldNames FNames;
  std::vector<std::unique_ptr<TSigmaRule>> FRules;
  std::vector<std::unique_ptr<TRuleBinding>> FBindings;
  std::vector<TUnusableRule> FUnusable;
  size_t FFilteredOut = 0;
  std::unordered_map<std::string, TChannelIndex> FByChannel; // folded channel
  TChannelIndex FAnyChannel;
  std::unique_ptr<TLiteralIndex> FLiterals;
  mutable std::atomic<bool> FPrepared{false};
  mutable std::mutex FPrepareMutex;
  std::string FCacheFolder;
  size_t FCacheHits = 0, FCacheMisses = 0;
  std::vector<std::string> FCacheNotes;
};

// A detection: the rule, and the fields and values that satisfied its searches (views
// good until the next event). One hunter serves one thread; several may share a prepared
// rule set.
struct TDetection {
  const TSigmaRule* Rule = nullptr;
  std::vector<std::pair<std::string_view, std::string_view>> Matched;
};

class THunter {
public:
  explicit THunter(const TRuleSet& ARules) : FRules(ARules), FFields(ARules.FieldNames()) {}

  // Tests one event (its channel and ID as its System element gives them, and its XML)
  // against the rules that can match it. The detections are good until the next call.
  std::span<const TDetection> Test(std::string_view AChannel, uint32_t AEventId, std::string_view AXml);

  uint64_t EventsRead() const { return FEvents; }
  uint64_t EventsTested() const { return FTested; }
  const TEventFields& Fields() const { return FFields; }

private:
  const TRuleSet& FRules;
  TEventFields FFields;
  std::vector<TDetection> FDetections; // kept with their room; the first FCount are this event's
  size_t FCount = 0;
  std::vector<TMatchedValue> FRecord;
  TLiteralHits FHits;
  std::vector<uint32_t> FScanned;  // per automaton: the event the values were scanned for
  std::vector<uint32_t> FSelected; // per binding: the event for which a literal it needs was found
  std::string FKey;
  std::vector<uint32_t> FSelectedList; // this event's selected bindings
  std::vector<uint32_t> FPlaces;
  uint32_t FStamp = 0;
  uint64_t FEvents = 0;
  uint64_t FTested = 0;
};

} // namespace qvx::hunt
