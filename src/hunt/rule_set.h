// A set of compiled Sigma rules bound to Windows logs, and the hunter that tests events
// against them.
//
// Loading reads rule files and folders, compiles each rule once, and binds it to the
// places its log source maps to (one binding per channel: the event IDs it can match and
// the event field each of its fields reads). Bindings are indexed by channel and event
// ID, so an event is tested only against the rules that can match it, and an event no
// rule can match is not even read for fields. Every literal of the rules of one channel
// and ID goes into one index (literal_index.h), made when an event first needs it: per
// event, the values are scanned once for all of them, and only the rules whose literals
// were found are evaluated. Rules that cannot be used are kept with the reason, once
// each; loading goes on.
//
// Hunters on several threads share the lists: a list is made by the thread that claims
// it first, several lists at once, and a thread that needs a list another is making helps
// compile the rules of the lists being made meanwhile. A hunter told the kinds of events
// it is about to test (PrepareAhead) makes the lists no thread has started on first, so
// two threads make two lists from the start. Indexes of the same literals (a log source
// bound in two logs under other field names) share their automata.
//
// With a rule cache, a rule found there is not compiled at load: the cache knows
// whether it compiles and its log source, level and fields (rule_cache.h), which is all
// loading and binding need, and its detection is compiled when a list it is in is first
// needed. A log of one channel compiles only the rules that can see its events, and the
// unusable rules are known at load as without the cache.
#pragma once

#include "hunt/event_fields.h"
#include "hunt/literal_index.h"
#include "hunt/log_mapping.h"
#include "hunt/rule_cache.h"
#include "hunt/rule_binding.h"
#include "hunt/sigma_match.h"
#include "hunt/sigma_rule.h"
#include "platform/file_stamp.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <exception>
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

// The bindings of one channel and event ID (or of any ID), in load order (a binding's
// number in the list's literal index is its place), and what is made when an event first
// needs the list.
struct TBindingList {
  std::vector<const TRuleBinding*> Bindings;
  std::unique_ptr<TLiteralIndex> Literals;
  // A long list is not walked whole per event: the places of the bindings that need no
  // literal, in order.
  static constexpr size_t kLongList = 64;
  std::vector<uint32_t> AlwaysAt;
  std::atomic<bool> Ready{false}; // Literals and AlwaysAt made for these bindings
  std::atomic<bool> Claimed{false}; // a thread is making them (or has made them)
};

class TRuleSet {
public:
  // The Windows mapping (log_mapping.h), read when first needed: a load reads it on a
  // thread of its own while it lists the rule files.
  TRuleSet() = default;
  explicit TRuleSet(TRuleFilter AFilter) : FFilter(std::move(AFilter)) {}
  explicit TRuleSet(const TLogMapping& AMapping, TRuleFilter AFilter = {});
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
  // Each list returned is ready: its rules compiled and its literal index made, by the
  // first call that needs it (by one thread per list, several lists at once: hunters that
  // need a list another is making meanwhile compile rules of the lists being made, then
  // wait; a rule in several lists is compiled once).
  TCandidates Candidates(std::string_view AChannel, uint32_t AEventId, std::string& AKey) const;

private:
  struct TChannelIndex;

public:
  // The caller's memo of the channel it looked up last (the events of a log mostly share
  // one): the same channel again is not folded and hashed again. Good across loads too.
  struct TChannelMemo {
    std::string Channel; // as the event gave it
    std::string Key;     // folded
    const TChannelIndex* Index = nullptr; // null: no rule reads the channel by name
    uint64_t Generation = 0;              // the rule set's when found (0: nothing found yet)
  };
  TCandidates Candidates(std::string_view AChannel, uint32_t AEventId, TChannelMemo& AMemo) const;
  // A kind of event some events about to be tested are of: channel (any case) and ID.
  struct TEventKind {
    std::string_view Channel;
    uint32_t EventId = 0;
  };
  // Makes ready the lists these kinds of events are tested against that no thread has
  // started on, the longest first, then builds their automata that no thread has started
  // on (the first event of a list needs them all), and returns without waiting for the
  // others: hunters on several threads that call it with the events of their next batch
  // each make other lists at once. Only a head start; Candidates makes ready whatever is
  // left. True when every list of the kinds is ready on return.
  bool PrepareAhead(std::span<const TEventKind> AKinds) const;
  // The lists of events of AChannel (any case) and AEventId are all ready.
  bool ListsReady(std::string_view AChannel, uint32_t AEventId) const;
  // Makes every list ready now. Rules loaded afterwards make their lists again. Hunters
  // on several threads may share the rule set (loading more rules while they run is not
  // allowed).
  void Prepare() const;
  size_t BindingCount() const { return FBindings.size(); }
  // Rules found in the cache whose detection has been compiled so far, of those bound.
  size_t DeferredCompiled() const;
  size_t DeferredCount() const { return FDeferred.size(); }

private:
  struct TChannelIndex {
    std::unordered_map<uint32_t, TBindingList> ById;
    TBindingList AnyId;
  };
  // A rule file read and compiled (on any thread), document by document.
  struct TCompiledRule {
    std::unique_ptr<TSigmaRule> Rule; // null when it could not be compiled
    std::string Title, Error;
    uint32_t Document = 0; // among the file's documents
    bool Deferred = false; // Rule is the cache's header: its detection is compiled when needed
    // What Resolve found: the rule is left out by the filter, or where its log source's
    // events are (none: Reason says why).
    bool Filtered = false;
    std::vector<TLogSourceVariant> Variants;
    std::string Reason;
  };
  struct TParsedFile {
    std::vector<TCompiledRule> Rules;
    std::string Error; // why the file could not be read as YAML
    TRuleFileKey Key;    // with a cache: the file's version
    bool Cached = false; // found in the cache (with its verdicts)
    std::string Encoded, Verdicts; // not found: its cache entry
    TCachedRuleFile Found;         // found: its entry
  };
  // A rule taken from the cache, bound, and compiled when first needed.
  struct TDeferredRule {
    TSigmaRule* Rule = nullptr;
    const TRuleCache* Cache = nullptr; // holds its file's parsed form
    TCachedRuleFile Found;
    uint32_t Document = 0;
    // 0 not compiled yet, 1 compiled, 2 could not be compiled, 3 being compiled (by the
    // thread that set it); Noted: 2 has been said in the cache notes.
    struct TState {
      std::atomic<uint8_t> Value{0};
      std::atomic<bool> Noted{false};
      TState() = default;
      TState(const TState& AOther) : Value(AOther.Value.load()), Noted(AOther.Noted.load()) {} // (while loading)
    } State;
  };
  static constexpr uint8_t kNotCompiled = 0, kCompiled = 1, kFailed = 2, kCompiling = 3;
  static TParsedRuleFile ParseFile(const std::string& AText, const std::string& AFile);
  static void CompileDocuments(const TParsedRuleFile& AYaml, const std::string& AFile, TParsedFile& AParsed);
  static void Read(const std::string& AText, const std::string& AFile, TParsedFile& AParsed);
  // The rules of a file found in the cache with its verdicts; false when they do not read.
  static bool FromCache(const TRuleCache& ACache, const TCachedRuleFile& AFound, const std::string& AFile,
                        TParsedFile& AParsed);
  const TLogMapping& Mapping();
  static void EncodeVerdicts(TParsedFile& AParsed);
  // Reads (or finds in ACache) one rule file listed at APlace, and compiles its rules.
  // On any thread.
  static void ReadOne(const TStampedFile& AFile, size_t APlace, const TRuleCache* ACache, int64_t ASettled,
                      ptrdiff_t& AShift, TParsedFile& AOut);
  // Filters the rules of a file read and resolves their log sources. On any thread.
  void Resolve(const TLogMapping& AMapping, TParsedFile& AParsed) const;
  void Compile(TParsedFile& AParsed, const std::string& AFile, const TRuleCache* ACache);
  void Bind(const TSigmaRule& ARule, const std::vector<TLogSourceVariant>& AVariants, uint32_t ADeferred);
  const TChannelIndex* FindChannel(std::string_view AChannel, std::string& AKey) const;
  TCandidates FindLists(const TChannelIndex* AChannel, uint32_t AEventId) const;
  TCandidates ListsOf(const TChannelIndex* AChannel, uint32_t AEventId) const; // made ready
  // Makes AList ready unless another thread has claimed it; false when one has.
  bool TryPrepareList(const TBindingList& AList) const;
  // Makes AList ready, or waits (helping) for the thread making it.
  void MakeReady(const TBindingList& AList) const;
  void PrepareList(TBindingList& AList) const; // by the thread that claimed it
  // Compiles deferred rule AIndex unless another thread has claimed it (the rule's state
  // tells how it went; the caller notes a failure).
  void CompileDeferred(uint32_t AIndex) const;
  // The deferred rules a list being prepared compiles, shared out: the thread preparing
  // the list publishes them, and threads that wait for a list meanwhile compile some of
  // them instead of waiting.
  struct TCompileJob {
    std::vector<uint32_t> Items; // deferred rules' numbers
    std::atomic<size_t> Next{0};
    std::mutex ErrorMutex;
    std::exception_ptr Error; // what compiling an item raised (the first)
  };
  static void RunJob(const TRuleSet& ASet, TCompileJob& AJob);
  // Compiles items of the published jobs; false when there were none to take.
  bool HelpCompile() const;
  // Wakes the threads waiting for a list or a rule (something they wait for has changed).
  void Signal() const;
  // Waits until APredicate holds, helping with the published jobs meanwhile.
  template <typename TPredicate>
  void WaitHelping(const TPredicate& APredicate) const;

  const TLogMapping* FMapping = nullptr; // null: the Windows mapping, not read yet
  TRuleFilter FFilter;
  TFieldNames FNames;
  std::vector<std::unique_ptr<TSigmaRule>> FRules;
  std::vector<std::unique_ptr<TRuleBinding>> FBindings;
  std::vector<TUnusableRule> FUnusable;
  size_t FFilteredOut = 0;
  std::unordered_map<std::string, TChannelIndex> FByChannel; // folded channel
  uint64_t FGeneration = 1; // changes with every binding (a channel memo is then looked up again)
  TChannelIndex FAnyChannel;
  mutable std::vector<TDeferredRule> FDeferred;
  mutable std::mutex FJobMutex;
  mutable std::vector<std::shared_ptr<TCompileJob>> FJobs; // (under FJobMutex) those published
  mutable std::mutex FWaitMutex;
  mutable std::condition_variable FWaitChanged;
  mutable uint64_t FWaitEpoch = 0;  // (under FWaitMutex) counts the changes signalled
  mutable std::mutex FNotesMutex; // for FCacheNotes while hunting
  mutable TLiteralIndex::TAutomatonPool FAutomata; // shared by the lists' literal indexes
  std::vector<std::unique_ptr<TRuleCache>> FCaches; // kept for the deferred rules' parsed form
  std::string FCacheFolder;
  size_t FCacheHits = 0, FCacheMisses = 0;
  mutable std::vector<std::string> FCacheNotes;
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
  // The same, for an event given as its (name, value) pairs (engine/named_fields.h).
  std::span<const TDetection> Test(std::string_view AChannel, uint32_t AEventId, const TNamedValues& AValues);
  // Before a batch of events: makes ready the lists they need that no other thread has
  // started on (TRuleSet::PrepareAhead), so hunters on several threads make different lists.
  // Kinds whose lists it has found ready are passed over from then on; false when every
  // kind was such a kind.
  bool PrepareAhead(std::span<const TRuleSet::TEventKind> AKinds);

  uint64_t EventsRead() const { return FEvents; }
  uint64_t EventsTested() const { return FTested; }
  const TEventFields& Fields() const { return FFields; }

private:
  template <typename TSourceText>
  std::span<const TDetection> TestEvent(std::string_view AChannel, uint32_t AEventId, const TSourceText& AText);
  void TestList(const TBindingList& AList);

  const TRuleSet& FRules;
  TEventFields FFields;
  std::vector<TDetection> FDetections; // kept with their room; the first FCount are this event's
  size_t FCount = 0;
  std::vector<TMatchedValue> FRecord;
  TLiteralHits FHits;              // of the list being tested (room for the largest)
  TScanMemo FMemo;
  std::vector<uint32_t> FSelected;   // per binding of the list: the stamp FSatisfied is counted for
  std::vector<uint32_t> FSatisfied;  // per binding: its clauses that hold
  std::vector<uint32_t> FClauseSeen; // per clause of the list: the stamp for which it holds
  TRuleSet::TChannelMemo FChannel;
  std::vector<uint32_t> FSelectedList; // the selected bindings of the list being tested
  std::vector<uint32_t> FPlaces;
  std::vector<std::pair<std::string, uint32_t>> FKindsReady; // (PrepareAhead) folded channel, ID
  std::vector<TRuleSet::TEventKind> FKindsAhead;
  std::string FKindKey;
  uint32_t FStamp = 0; // one per list tested
  uint64_t FEvents = 0;
  uint64_t FTested = 0;
};

} // namespace qvx::hunt
