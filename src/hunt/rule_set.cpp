#include "hunt/rule_set.h"

#include "hunt/rule_cache.h"
#include "platform/file_stamp.h"
#include "platform/worker_thread.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

namespace qvx::hunt {

namespace fs = std::filesystem;

TRuleSet::TRuleSet(const TLogMapping& AMapping, TRuleFilter AFilter)
    : FMapping(&AMapping), FFilter(std::move(AFilter)) {}

const TLogMapping& TRuleSet::Mapping() {
  if (!FMapping) FMapping = &TLogMapping::Windows();
  return *FMapping;
}

void TRuleSet::LoadPath(const std::string& APath) {
  std::error_code error;
  const fs::file_status status = fs::status(APath, error);
  if (error || !fs::exists(status)) RaiseSigmaError(APath, 0, "no such rule file or folder");
  // The cache's index and the Windows mapping are read on a thread of their own while
  // this one lists the rule files (each of the three takes about as long).
  std::unique_ptr<TRuleCache> cache;
  if (!FCacheFolder.empty()) cache = std::make_unique<TRuleCache>(TRuleCache::FileFor(FCacheFolder, APath));
  std::optional<TWorkerThread> early;
  if (cache || !FMapping) {
    const bool mapping = !FMapping;
    early.emplace([&cache, mapping] {
      if (cache) cache->Load();
      if (mapping) {
        try {
          TLogMapping::Windows();
        } catch (...) { // raised again where it is used
        }
      }
    });
  }
  struct TJoin {
    std::optional<TWorkerThread>& Thread;
    ~TJoin() {
      if (Thread) Thread->Join();
    }
  } join{early};
  std::vector<TStampedFile> files;
  if (!fs::is_directory(status)) {
    if (!std::ifstream(APath, std::ios::binary)) RaiseSigmaError(APath, 0, "cannot be read");
    TStampedFile& file = files.emplace_back();
    file.Path = APath;
    file.Stamped = ReadFileStamp(APath, file.Stamp);
  } else {
    std::string why;
    // Two threads: stamping two thousand files is mostly the system's time, and scales.
    if (!ListStampedFiles(APath, {".yml", ".yaml"}, files, why, 2)) RaiseSigmaError(APath, 0, "cannot be read: " + why);
  }
  if (early) early->Join();
  if (cache && !cache->Note().empty()) FCacheNotes.push_back(cache->Note());
  // Reading YAML is most of the time a rule set takes to load: files are parsed (or
  // found in the cache), their rules compiled and their log sources resolved on a few
  // threads, a batch at a time (so memory stays bounded), and added in file order by
  // this thread while the others go on with the next batch.
  const size_t threads = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, 4);
  constexpr size_t kBatch = 256;
  constexpr int64_t kSettleNs = 2'000'000'000;
  const int64_t loadTime = std::chrono::duration_cast<std::chrono::nanoseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
  const TLogMapping& mapping = Mapping();
  struct TBatch {
    size_t First = 0, Count = 0;
    std::vector<TParsedFile> Parsed;
    std::atomic<size_t> Next{0};
  };
  auto work = [&](TBatch& ABatch) {
    // The cache's entries are sorted as the files are: where this thread's last file
    // was found tells where its next one is.
    ptrdiff_t shift = 0;
    for (size_t i; (i = ABatch.Next++) < ABatch.Count;) {
      const size_t place = ABatch.First + i;
      ReadOne(files[place], place, cache.get(), loadTime - kSettleNs, shift, ABatch.Parsed[i]);
      Resolve(mapping, ABatch.Parsed[i]);
    }
  };
  TBatch batches[2];
  auto begin = [&](TBatch& ABatch, size_t AFirst) {
    ABatch.First = AFirst;
    ABatch.Count = std::min(kBatch, files.size() - AFirst);
    ABatch.Parsed.clear();
    ABatch.Parsed.resize(ABatch.Count);
    ABatch.Next = 0;
  };
  if (!files.empty()) {
    begin(batches[0], 0);
    std::vector<TWorkerThread> pool;
    for (size_t t = 1; t < threads && t < batches[0].Count; ++t) pool.emplace_back([&] { work(batches[0]); });
    work(batches[0]);
    for (TWorkerThread& thread : pool) thread.Join();
  }
  for (size_t b = 0; !files.empty(); ++b) {
    TBatch& current = batches[b % 2];
    TBatch& following = batches[(b + 1) % 2];
    const bool more = current.First + current.Count < files.size();
    std::vector<TWorkerThread> pool;
    if (more) {
      begin(following, current.First + current.Count);
      for (size_t t = 1; t < threads && t < following.Count; ++t) pool.emplace_back([&] { work(following); });
    }
    for (size_t i = 0; i < current.Count; ++i) {
      TParsedFile& parsed = current.Parsed[i];
      Compile(parsed, files[current.First + i].Path, cache.get());
      if (!cache || parsed.Key.Path.empty()) continue;
      if (parsed.Cached)
        cache->Keep(parsed.Key, parsed.Found.Entry);
      else
        cache->Put(parsed.Key, std::move(parsed.Encoded), std::move(parsed.Verdicts));
    }
    if (more) work(following); // what the others have not taken yet
    for (TWorkerThread& thread : pool) thread.Join();
    if (!more) break;
  }
  if (cache) {
    FCacheHits += cache->Hits();
    FCacheMisses += cache->Misses();
    if (!cache->Save()) FCacheNotes.push_back(cache->File() + ": the rule cache could not be written");
    // The deferred rules' parsed forms are read from its buffer.
    FCaches.push_back(std::move(cache));
  }
}

void TRuleSet::ReadOne(const TStampedFile& AFile, size_t APlace, const TRuleCache* ACache, int64_t ASettled,
                       ptrdiff_t& AShift, TParsedFile& AOut) {
  const std::string& file = AFile.Path;
  const TFileStamp& stamp = AFile.Stamp;
  const bool stamped = ACache && AFile.Stamped;
  if (stamped) {
    TCachedRuleFile found;
    if (ACache->FindUnread(file, stamp, AOut.Key, found,
                           static_cast<size_t>(std::max<ptrdiff_t>(0, static_cast<ptrdiff_t>(APlace) + AShift)))) {
      AShift = static_cast<ptrdiff_t>(found.Entry) - static_cast<ptrdiff_t>(APlace);
      if (FromCache(*ACache, found, file, AOut)) return;
      // An entry without its verdicts: compiled now, and kept again with them.
      TParsedRuleFile yaml;
      if (ACache->ReadParsed(found, AOut.Encoded) && TRuleCache::Decode(AOut.Encoded, yaml)) {
        CompileDocuments(yaml, file, AOut);
        EncodeVerdicts(AOut);
        return;
      }
      AOut = {};
    }
  }
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    AOut.Error = file + ": cannot be read";
    return;
  }
  std::ostringstream stream;
  stream << in.rdbuf();
  const std::string text = std::move(stream).str();
  if (!ACache) {
    Read(text, file, AOut);
    return;
  }
  AOut.Key = {file, text.size(), 0, HashBytes(text)};
  if (stamped) {
    AOut.Key.ChangeTime = stamp.ChangeTime;
    // A file changed in the last seconds may change again within the clock's
    // granularity without its stamp showing it: it is read again until it is older.
    if (stamp.Size == text.size() && stamp.StatusTime < ASettled) {
      AOut.Key.StatusTime = stamp.StatusTime;
      AOut.Key.Identity = stamp.Identity;
    }
  } else {
    std::error_code timeError;
    const fs::file_time_type changed = fs::last_write_time(file, timeError);
    AOut.Key.ChangeTime = timeError ? 0 : static_cast<int64_t>(changed.time_since_epoch().count());
  }
  TCachedRuleFile found;
  if (ACache->Find(AOut.Key, found) && FromCache(*ACache, found, file, AOut)) return;
  const TParsedRuleFile yaml = ParseFile(text, file);
  TRuleCache::Encode(yaml, AOut.Encoded);
  CompileDocuments(yaml, file, AOut);
  EncodeVerdicts(AOut);
}

void TRuleSet::Resolve(const TLogMapping& AMapping, TParsedFile& AParsed) const {
  for (TCompiledRule& compiled : AParsed.Rules) {
    if (!compiled.Rule) continue;
    const TSigmaRule& rule = *compiled.Rule;
    compiled.Filtered = rule.Level < FFilter.MinLevel ||
                        (!FFilter.Statuses.empty() &&
                         std::find(FFilter.Statuses.begin(), FFilter.Statuses.end(), rule.Status) == FFilter.Statuses.end());
    if (!compiled.Filtered)
      compiled.Variants = AMapping.Resolve(rule.Product, rule.Category, rule.Service, compiled.Reason);
  }
}

void TRuleSet::LoadText(const std::string& AText, const std::string& AFile) {
  TParsedFile parsed;
  Read(AText, AFile, parsed);
  Resolve(Mapping(), parsed);
  Compile(parsed, AFile, nullptr);
}

TParsedRuleFile TRuleSet::ParseFile(const std::string& AText, const std::string& AFile) {
  TParsedRuleFile parsed;
  try {
    parsed.Documents = ParseYamlDocuments(AText, AFile);
  } catch (const ESigmaError& e) {
    parsed.Failed = true;
    parsed.Error = e.what();
    parsed.Documents.clear();
  }
  return parsed;
}

void TRuleSet::Read(const std::string& AText, const std::string& AFile, TParsedFile& AParsed) {
  CompileDocuments(ParseFile(AText, AFile), AFile, AParsed);
}

bool TRuleSet::FromCache(const TRuleCache& ACache, const TCachedRuleFile& AFound, const std::string& AFile,
                         TParsedFile& AParsed) {
  AParsed.Rules.clear();
  AParsed.Error.clear();
  if (AFound.Failed) {
    // The file is not YAML: its entry holds only the error.
    TParsedRuleFile yaml;
    std::string bytes;
    if (!ACache.ReadParsed(AFound, bytes) || !TRuleCache::Decode(bytes, yaml) || !yaml.Failed) return false;
    CompileDocuments(yaml, AFile, AParsed);
  } else {
    std::vector<TRuleVerdict> verdicts;
    if (AFound.Verdicts.empty() || !TRuleCache::DecodeVerdicts(AFound.Verdicts, AFile, verdicts)) return false;
    for (TRuleVerdict& verdict : verdicts) {
      TCompiledRule& compiled = AParsed.Rules.emplace_back();
      compiled.Document = verdict.Document;
      compiled.Title = std::move(verdict.Title);
      compiled.Error = std::move(verdict.Error);
      compiled.Rule = std::move(verdict.Header);
      compiled.Deferred = compiled.Rule != nullptr;
    }
  }
  AParsed.Found = AFound;
  AParsed.Cached = true;
  return true;
}

void TRuleSet::EncodeVerdicts(TParsedFile& AParsed) {
  std::vector<TRuleVerdict> verdicts(AParsed.Rules.size());
  for (size_t i = 0; i < verdicts.size(); ++i) {
    TCompiledRule& compiled = AParsed.Rules[i];
    verdicts[i].Document = compiled.Document;
    verdicts[i].Title = compiled.Title;
    verdicts[i].Error = compiled.Error;
    verdicts[i].Header = std::move(compiled.Rule); // lent for the encoding
  }
  TRuleCache::EncodeVerdicts(verdicts, AParsed.Verdicts);
  for (size_t i = 0; i < verdicts.size(); ++i) AParsed.Rules[i].Rule = std::move(verdicts[i].Header);
}

void TRuleSet::CompileDocuments(const TParsedRuleFile& AYaml, const std::string& AFile, TParsedFile& AParsed) {
  if (AYaml.Failed) {
    AParsed.Error = AYaml.Error;
    return;
  }
  for (size_t d = 0; d < AYaml.Documents.size(); ++d) {
    const TYamlNode& document = AYaml.Documents[d];
    if (document.IsNull()) continue;
    TCompiledRule& compiled = AParsed.Rules.emplace_back();
    compiled.Document = static_cast<uint32_t>(d);
    try {
      compiled.Rule = CompileSigmaRule(document, AFile);
    } catch (const ESigmaError& e) {
      compiled.Title = document.TextOf("title");
      compiled.Error = e.what();
    }
  }
}

void TRuleSet::Compile(TParsedFile& AParsed, const std::string& AFile, const TRuleCache* ACache) {
  if (!AParsed.Error.empty()) {
    FUnusable.push_back({AFile, {}, AParsed.Error});
    return;
  }
  for (TCompiledRule& compiled : AParsed.Rules) {
    if (!compiled.Rule) {
      FUnusable.push_back({AFile, compiled.Title, compiled.Error});
      continue;
    }
    std::unique_ptr<TSigmaRule> rule = std::move(compiled.Rule);
    if (compiled.Filtered) {
      ++FFilteredOut;
      continue;
    }
    const std::vector<TLogSourceVariant>& variants = compiled.Variants;
    if (variants.empty()) {
      FUnusable.push_back({AFile, rule->Title, AFile + ": " + compiled.Reason});
      continue;
    }
    const size_t before = FBindings.size();
    const uint32_t deferred = compiled.Deferred ? static_cast<uint32_t>(FDeferred.size()) : TRuleBinding::kCompiled;
    Bind(*rule, variants, deferred);
    if (FBindings.size() == before) {
      FUnusable.push_back({AFile, rule->Title, AFile + ": the event IDs its condition needs are not those of its log source"});
      continue;
    }
    if (compiled.Deferred) FDeferred.push_back({rule.get(), ACache, AParsed.Found, compiled.Document, {}});
    FRules.push_back(std::move(rule));
  }
}

void TRuleSet::Bind(const TSigmaRule& ARule, const std::vector<TLogSourceVariant>& AVariants, uint32_t ADeferred) {
  ++FGeneration;
  for (const TLogSourceVariant& variant : AVariants) {
    // The event IDs both the log source and the condition allow.
    std::set<uint32_t> ids;
    if (variant.EventIds.empty())
      ids = ARule.EventIds;
    else if (ARule.EventIds.empty())
      ids = variant.EventIds;
    else
      std::set_intersection(variant.EventIds.begin(), variant.EventIds.end(), ARule.EventIds.begin(),
                            ARule.EventIds.end(), std::inserter(ids, ids.begin()));
    if (ids.empty() && !(variant.EventIds.empty() && ARule.EventIds.empty())) continue;

    auto binding = std::make_unique<TRuleBinding>();
    binding->Rule = &ARule;
    binding->Deferred = ADeferred;
    for (const std::string& slot : ARule.SlotNames) {
      std::string name = slot;
      for (const auto& [from, to] : variant.Fields)
        if (EqualFolded(from, slot)) name = to;
      binding->SlotFields.push_back(FNames.Intern(name));
    }
    for (const auto& [field, values] : variant.Where) {
      std::vector<std::string> folded;
      for (const std::string& value : values) folded.push_back(FoldText(value));
      binding->Where.emplace_back(FNames.Intern(field), std::move(folded));
    }
    TChannelIndex& index = variant.Channel == "*" ? FAnyChannel : FByChannel[FoldText(variant.Channel)];
    auto add = [&](TBindingList& AList) {
      AList.Bindings.push_back(binding.get());
      AList.Ready = false;
      AList.Claimed = false;
    };
    if (ids.empty())
      add(index.AnyId);
    else
      for (const uint32_t id : ids) add(index.ById[id]);
    FBindings.push_back(std::move(binding));
  }
}

void TRuleSet::CompileDeferred(uint32_t AIndex) const {
  TDeferredRule& deferred = FDeferred[AIndex];
  uint8_t expected = kNotCompiled;
  if (deferred.State.Value.load(std::memory_order_relaxed) != kNotCompiled ||
      !deferred.State.Value.compare_exchange_strong(expected, kCompiling, std::memory_order_acquire))
    return; // done, or another thread has it
  uint8_t outcome = kFailed;
  try {
    TSigmaRule& rule = *deferred.Rule;
    TParsedRuleFile parsed;
    std::string bytes;
    if (!deferred.Cache || !deferred.Cache->ReadParsed(deferred.Found, bytes) || !TRuleCache::Decode(bytes, parsed)) {
      // The cache's parsed form is damaged or gone: the rule file is read again (and
      // compiling it must still give what the cache says).
      std::ifstream in(rule.File, std::ios::binary);
      std::ostringstream stream;
      stream << in.rdbuf();
      parsed = in ? ParseFile(std::move(stream).str(), rule.File) : TParsedRuleFile{true, "cannot be read", {}};
    }
    if (!parsed.Failed && deferred.Document < parsed.Documents.size()) {
      try {
        std::unique_ptr<TSigmaRule> compiled = CompileSigmaRule(parsed.Documents[deferred.Document], rule.File);
        // What loading used must be what compiling gives now.
        if (compiled->SlotNames == rule.SlotNames && compiled->EventIds == rule.EventIds &&
            compiled->Product == rule.Product && compiled->Category == rule.Category &&
            compiled->Service == rule.Service) {
          rule.Searches = std::move(compiled->Searches);
          rule.Condition = std::move(compiled->Condition);
          rule.TestCount = compiled->TestCount;
          rule.FieldTestCount = compiled->FieldTestCount;
          outcome = kCompiled;
        }
      } catch (const ESigmaError&) {
      }
    }
  } catch (...) { // out of memory: the rule is left as not compiled, and the error raised
    deferred.State.Value.store(kFailed, std::memory_order_release);
    Signal();
    throw;
  }
  deferred.State.Value.store(outcome, std::memory_order_release);
  Signal();
}

void TRuleSet::Signal() const {
  {
    const std::lock_guard<std::mutex> lock(FWaitMutex);
    ++FWaitEpoch;
  }
  FWaitChanged.notify_all();
}

template <typename TPredicate>
void TRuleSet::WaitHelping(const TPredicate& APredicate) const {
  for (;;) {
    // The epoch is read before the predicate: a change made after the check wakes the wait.
    uint64_t epoch;
    {
      const std::lock_guard<std::mutex> lock(FWaitMutex);
      epoch = FWaitEpoch;
    }
    if (APredicate()) return;
    if (HelpCompile()) continue;
    std::unique_lock<std::mutex> lock(FWaitMutex);
    FWaitChanged.wait(lock, [&] { return FWaitEpoch != epoch; });
  }
}

void TRuleSet::RunJob(const TRuleSet& ASet, TCompileJob& AJob) {
  for (size_t at; (at = AJob.Next.fetch_add(1, std::memory_order_relaxed)) < AJob.Items.size();) {
    try {
      ASet.CompileDeferred(AJob.Items[at]);
    } catch (...) { // out of memory: the preparing thread raises it
      const std::lock_guard<std::mutex> lock(AJob.ErrorMutex);
      if (!AJob.Error) AJob.Error = std::current_exception();
    }
  }
}

bool TRuleSet::HelpCompile() const {
  std::vector<std::shared_ptr<TCompileJob>> jobs;
  {
    const std::lock_guard<std::mutex> lock(FJobMutex);
    for (const std::shared_ptr<TCompileJob>& job : FJobs)
      if (job->Next.load(std::memory_order_relaxed) < job->Items.size()) jobs.push_back(job);
  }
  for (const std::shared_ptr<TCompileJob>& job : jobs) RunJob(*this, *job);
  return !jobs.empty();
}

size_t TRuleSet::DeferredCompiled() const {
  return static_cast<size_t>(std::count_if(FDeferred.begin(), FDeferred.end(), [](const TDeferredRule& A) {
    return A.State.Value.load(std::memory_order_acquire) == kCompiled;
  }));
}

bool TRuleSet::TryPrepareList(const TBindingList& AList) const {
  if (AList.Ready.load(std::memory_order_acquire)) return true;
  auto& list = const_cast<TBindingList&>(AList);
  if (list.Claimed.load(std::memory_order_relaxed) || list.Claimed.exchange(true, std::memory_order_acq_rel))
    return false;
  try {
    PrepareList(list);
  } catch (...) { // out of memory: left for another thread to try again
    list.Claimed.store(false, std::memory_order_release);
    Signal();
    throw;
  }
  Signal();
  return true;
}

void TRuleSet::MakeReady(const TBindingList& AList) const {
  while (!AList.Ready.load(std::memory_order_acquire)) {
    if (TryPrepareList(AList)) return;
    WaitHelping([&] {
      return AList.Ready.load(std::memory_order_acquire) || !AList.Claimed.load(std::memory_order_acquire);
    });
  }
}

void TRuleSet::PrepareList(TBindingList& AList) const {
  // The rules not compiled yet (or being compiled by another thread), in list order (a
  // rule bound twice is compiled once).
  std::vector<uint32_t> pending;
  std::vector<bool> listed(FDeferred.size());
  for (const TRuleBinding* binding : AList.Bindings) {
    if (binding->Deferred == TRuleBinding::kCompiled || listed[binding->Deferred]) continue;
    const uint8_t state = FDeferred[binding->Deferred].State.Value.load(std::memory_order_acquire);
    if (state == kNotCompiled || state == kCompiling) {
      listed[binding->Deferred] = true;
      pending.push_back(binding->Deferred);
    }
  }
  constexpr size_t kShared = 32; // fewer are compiled before another thread could help
  std::shared_ptr<TCompileJob> job;
  if (pending.size() < kShared) {
    for (const uint32_t at : pending) CompileDeferred(at);
  } else {
    job = std::make_shared<TCompileJob>();
    job->Items = pending;
    {
      const std::lock_guard<std::mutex> lock(FJobMutex);
      FJobs.push_back(job);
    }
    Signal(); // (threads waiting may help)
    struct TWithdraw {
      const TRuleSet& Set;
      const std::shared_ptr<TCompileJob>& Job;
      ~TWithdraw() {
        const std::lock_guard<std::mutex> lock(Set.FJobMutex);
        Set.FJobs.erase(std::find(Set.FJobs.begin(), Set.FJobs.end(), Job));
      }
    } withdraw{*this, job};
    RunJob(*this, *job);
  }
  // The rules other threads took are compiled before the list is made of them.
  size_t done = 0;
  WaitHelping([&] {
    for (; done < pending.size(); ++done) {
      const uint8_t state = FDeferred[pending[done]].State.Value.load(std::memory_order_acquire);
      if (state == kNotCompiled || state == kCompiling) return false;
    }
    return true;
  });
  if (job && job->Error) std::rethrow_exception(job->Error);
  // A cache written by another build that compiles differently: the rule never matches
  // (its condition is an empty OR), and the run says so (once, in list order).
  for (const uint32_t at : pending) {
    TDeferredRule& deferred = FDeferred[at];
    if (deferred.State.Value.load(std::memory_order_acquire) != kCompiled &&
        !deferred.State.Noted.exchange(true, std::memory_order_relaxed)) {
      const std::lock_guard<std::mutex> lock(FNotesMutex);
      FCacheNotes.push_back(deferred.Rule->File + ": the rule compiles otherwise than the rule cache says; not used");
    }
  }
  AList.Literals = std::make_unique<TLiteralIndex>(AList.Bindings, &FAutomata);
  AList.AlwaysAt.clear();
  for (uint32_t i = 0; i < AList.Bindings.size(); ++i)
    if (AList.Literals->Always(i)) AList.AlwaysAt.push_back(i);
  AList.Ready.store(true, std::memory_order_release);
}

void TRuleSet::Prepare() const {
  for (const auto& [channel, index] : FByChannel) {
    for (const auto& [id, list] : index.ById) MakeReady(list);
    if (!index.AnyId.Bindings.empty()) MakeReady(index.AnyId);
  }
  for (const auto& [id, list] : FAnyChannel.ById) MakeReady(list);
  if (!FAnyChannel.AnyId.Bindings.empty()) MakeReady(FAnyChannel.AnyId);
}

bool TRuleSet::PrepareAhead(std::span<const TEventKind> AKinds) const {
  std::vector<const TBindingList*> lists, others;
  std::string key;
  for (const TEventKind& kind : AKinds)
    for (const TBindingList* list : FindLists(FindChannel(kind.Channel, key), kind.EventId).Lists) {
      if (!list || list->Ready.load(std::memory_order_acquire)) continue;
      std::vector<const TBindingList*>& to = list->Claimed.load(std::memory_order_relaxed) ? others : lists;
      if (std::find(to.begin(), to.end(), list) == to.end()) to.push_back(list);
    }
  // The longest first: another thread doing the same takes the next longest meanwhile.
  std::stable_sort(lists.begin(), lists.end(),
                   [](const TBindingList* A, const TBindingList* B) { return A->Bindings.size() > B->Bindings.size(); });
  for (const TBindingList* list : lists) TryPrepareList(*list);
  // Their automata too: every one of a list is built when an event first needs the list,
  // and the events are there. (Those another thread is building are left to it.)
  bool ready = true;
  for (const TBindingList* list : lists)
    if (list->Ready.load(std::memory_order_acquire))
      list->Literals->BuildUnstarted();
    else
      ready = false;
  for (const TBindingList* list : others) ready = ready && list->Ready.load(std::memory_order_acquire);
  return ready;
}

bool TRuleSet::ListsReady(std::string_view AChannel, uint32_t AEventId) const {
  std::string key;
  for (const TBindingList* list : FindLists(FindChannel(AChannel, key), AEventId).Lists)
    if (list && !list->Ready.load(std::memory_order_acquire)) return false;
  return true;
}

const TRuleSet::TChannelIndex* TRuleSet::FindChannel(std::string_view AChannel, std::string& AKey) const {
  AKey.assign(AChannel);
  for (char& c : AKey) c = FoldChar(c);
  const auto channel = FByChannel.find(AKey);
  return channel == FByChannel.end() ? nullptr : &channel->second;
}

TRuleSet::TCandidates TRuleSet::Candidates(std::string_view AChannel, uint32_t AEventId, std::string& AKey) const {
  return ListsOf(FindChannel(AChannel, AKey), AEventId);
}

TRuleSet::TCandidates TRuleSet::Candidates(std::string_view AChannel, uint32_t AEventId, TChannelMemo& AMemo) const {
  if (AMemo.Generation != FGeneration || AMemo.Channel != AChannel) [[unlikely]] {
    AMemo.Index = FindChannel(AChannel, AMemo.Key);
    AMemo.Channel.assign(AChannel);
    AMemo.Generation = FGeneration;
  }
  return ListsOf(AMemo.Index, AEventId);
}

TRuleSet::TCandidates TRuleSet::FindLists(const TChannelIndex* AChannel, uint32_t AEventId) const {
  TCandidates out;
  if (AChannel) {
    if (const auto id = AChannel->ById.find(AEventId); id != AChannel->ById.end()) out.Lists[0] = &id->second;
    if (!AChannel->AnyId.Bindings.empty()) out.Lists[1] = &AChannel->AnyId;
  }
  if (const auto id = FAnyChannel.ById.find(AEventId); id != FAnyChannel.ById.end()) out.Lists[2] = &id->second;
  if (!FAnyChannel.AnyId.Bindings.empty()) out.Lists[3] = &FAnyChannel.AnyId;
  return out;
}

TRuleSet::TCandidates TRuleSet::ListsOf(const TChannelIndex* AChannel, uint32_t AEventId) const {
  const TCandidates out = FindLists(AChannel, AEventId);
  for (const TBindingList* list : out.Lists)
    if (list && !list->Ready.load(std::memory_order_acquire)) [[unlikely]]
      MakeReady(*list);
  return out;
}

namespace {

bool WhereHolds(const TRuleBinding& ABinding, const TEventFields& AFields) {
  for (const auto& [field, values] : ABinding.Where) {
    bool found = false;
    for (int v = AFields.First(field); v != TEventFields::kNoValue && !found; v = AFields.Value(v).Next)
      found = std::find(values.begin(), values.end(), AFields.Lower(v)) != values.end();
    if (!found) return false;
  }
  return true;
}

} // namespace

std::span<const TDetection> THunter::Test(std::string_view AChannel, uint32_t AEventId, std::string_view AXml) {
  return TestEvent(AChannel, AEventId, AXml);
}

std::span<const TDetection> THunter::Test(std::string_view AChannel, uint32_t AEventId, const TNamedValues& AValues) {
  return TestEvent(AChannel, AEventId, AValues);
}

bool THunter::PrepareAhead(std::span<const TRuleSet::TEventKind> AKinds) {
  FKindsAhead.clear();
  for (const TRuleSet::TEventKind& kind : AKinds) {
    FKindKey.assign(kind.Channel);
    for (char& c : FKindKey) c = FoldChar(c);
    if (std::none_of(FKindsReady.begin(), FKindsReady.end(),
                     [&](const auto& A) { return A.second == kind.EventId && A.first == FKindKey; }))
      FKindsAhead.push_back(kind);
  }
  if (FKindsAhead.empty()) return false;
  FRules.PrepareAhead(FKindsAhead);
  constexpr size_t kMaxKinds = 256; // (a log of more kinds goes on without the memo)
  for (const TRuleSet::TEventKind& kind : FKindsAhead)
    if (FKindsReady.size() < kMaxKinds && FRules.ListsReady(kind.Channel, kind.EventId)) {
      FKindKey.assign(kind.Channel);
      for (char& c : FKindKey) c = FoldChar(c);
      FKindsReady.emplace_back(FKindKey, kind.EventId);
    }
  return true;
}

template <typename TSourceText>
std::span<const TDetection> THunter::TestEvent(std::string_view AChannel, uint32_t AEventId, const TSourceText& AText) {
  ++FEvents;
  FCount = 0;
  const TRuleSet::TCandidates candidates = FRules.Candidates(AChannel, AEventId, FChannel);
  if (!candidates.Lists[0] && !candidates.Lists[1] && !candidates.Lists[2] && !candidates.Lists[3]) return {};
  ++FTested;
  FFields.Load(AText);
  for (const TBindingList* list : candidates.Lists)
    if (list) TestList(*list);
  return {FDetections.data(), FCount};
}

void THunter::TestList(const TBindingList& AList) {
  // Every literal of the list's rules, found in one pass over each value they read.
  const TLiteralIndex& literals = *AList.Literals;
  if (FHits.Bits.size() < literals.LiteralCount()) FHits.Bits.resize(literals.LiteralCount(), 0);
  if (FSelected.size() < AList.Bindings.size()) {
    FSelected.resize(AList.Bindings.size(), 0);
    FSatisfied.resize(AList.Bindings.size(), 0);
  }
  if (FClauseSeen.size() < literals.ClauseCount()) FClauseSeen.resize(literals.ClauseCount(), 0);
  if (++FStamp == 0) {
    std::fill(FSelected.begin(), FSelected.end(), 0);
    std::fill(FClauseSeen.begin(), FClauseSeen.end(), 0);
    FStamp = 1;
  }
  FHits.Clear();
  for (const TLiteralIndex::TScan& scan : literals.Scans()) literals.ScanFields(scan, FFields, FHits, &FMemo);
  // A binding is selected when every one of its clauses has a literal found: the clauses
  // that hold are counted per binding (FSelected stamps the count as this list's).
  FSelectedList.clear();
  for (const uint32_t literal : FHits.Found)
    for (const auto& [clause, binding] : literals.NeededBy(literal)) {
      if (FClauseSeen[clause] == FStamp) continue;
      FClauseSeen[clause] = FStamp;
      if (FSelected[binding] != FStamp) {
        FSelected[binding] = FStamp;
        FSatisfied[binding] = 0;
      }
      if (++FSatisfied[binding] == literals.ClausesOf(binding)) FSelectedList.push_back(binding);
    }

  // The places to evaluate, in list order.
  FPlaces.clear();
  if (AList.Bindings.size() >= TBindingList::kLongList) {
    FPlaces.assign(FSelectedList.begin(), FSelectedList.end());
    const size_t selected = FPlaces.size();
    FPlaces.insert(FPlaces.end(), AList.AlwaysAt.begin(), AList.AlwaysAt.end());
    std::sort(FPlaces.begin(), FPlaces.begin() + static_cast<ptrdiff_t>(selected));
    std::inplace_merge(FPlaces.begin(), FPlaces.begin() + static_cast<ptrdiff_t>(selected), FPlaces.end());
  } else {
    for (uint32_t i = 0; i < AList.Bindings.size(); ++i)
      if ((FSelected[i] == FStamp && FSatisfied[i] == literals.ClausesOf(i)) || literals.Always(i))
        FPlaces.push_back(i);
  }
  for (const uint32_t place : FPlaces) {
    const TRuleBinding* binding = AList.Bindings[place];
    if (!binding->Where.empty() && !WhereHolds(*binding, FFields)) continue;
    if (!MatchRule(*binding->Rule, binding->SlotFields.data(), FFields, nullptr, literals.TestLiterals(place),
                   FHits.Bits.data()))
      continue;
    // Matched: once more, noting the values that satisfied the searches.
    FRecord.clear();
    MatchRule(*binding->Rule, binding->SlotFields.data(), FFields, &FRecord, literals.TestLiterals(place),
              FHits.Bits.data());
    if (FCount == FDetections.size()) FDetections.emplace_back();
    TDetection& detection = FDetections[FCount++];
    detection.Rule = binding->Rule;
    detection.Matched.clear();
    for (const TMatchedValue& value : FRecord) {
      const std::string_view name = value.Slot == TMatchedValue::kKeywordSlot
                                        ? FFields.Value(value.Value).Name
                                        : std::string_view(binding->Rule->SlotNames[value.Slot]);
      const std::pair<std::string_view, std::string_view> item{name, FFields.Text(value.Value)};
      if (std::find(detection.Matched.begin(), detection.Matched.end(), item) == detection.Matched.end())
        detection.Matched.push_back(item);
    }
  }
}

} // namespace qvx::hunt
